// Monitors read and change everything that the agent keeps, and what they changed is in the settings file
// before they are answered again.
#include "bed.h"

#include "event_records.h"
#include "schedule_records.h"
#include "ups_records.h"

#include <algorithm>
#include <cstring>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;
using testbed::UdpSocket;

namespace
{

constexpr std::size_t EVENT_ROWS = 47;
constexpr char EVENTS = 81;

std::string u16(int value)
{
    return {static_cast<char>(value), static_cast<char>(value >> 8)};
}

std::string u32(std::uint32_t value)
{
    return u16(static_cast<int>(value & 0xFFFF)) + u16(static_cast<int>(value >> 16));
}

std::string field(std::string_view text, std::size_t width)
{
    std::string bytes(text);
    bytes.resize(width, '\0');
    return bytes;
}

/// The data of the answer to a question of DataId 24.
std::string query(const TcpClient &client, int sub, char dataid, int firstline = 0, int lines = 0)
{
    client.send(packet(24, u16(sub) + u16(firstline) + u16(lines) + u16(0)));
    const std::string answer = receive_answer(client);
    EXPECT_EQ(answer[3], dataid);
    return answer.substr(8);
}

void say_hello(const TcpClient &client, std::uint32_t os)
{
    client.send(packet(17, u32(2) + u32(os) + u32(0) + field("test", 16)));
    EXPECT_EQ(receive_answer(client)[3], 17);
}

// The records are laid out on these hosts as they are on the wire.
template <typename RECORD> RECORD record_at(const std::string &data, std::size_t at = 0)
{
    RECORD record{};
    if (data.size() < at + sizeof record)
        ADD_FAILURE() << data.size() << " bytes only";
    else
        std::memcpy(static_cast<void *>(&record), data.data() + at, sizeof record);
    return record;
}

template <typename RECORD> std::string bytes_of(const RECORD &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

template <std::size_t N> void set_text(std::array<char, N> &to, std::string_view text)
{
    to.fill('\0');
    std::copy(text.begin(), text.end(), to.begin());
}

/// The line of a key in the settings file, and in which section it stands.
std::string stored(const std::string &section, const std::string &key)
{
    const std::string text = "\n" + testbed::read_config();
    const std::size_t at = text.find("\n[ " + section + " ]\n");
    if (at == std::string::npos)
        return "no section";
    const std::string part = text.substr(at, text.find("\n[", at + 1) - at);
    const std::size_t line = part.find("\n " + key + " = ");
    return line == std::string::npos ? "no key" : part.substr(line + 1, part.find('\n', line + 1) - line - 1);
}

// Headers of the sections, as in any file that has been in use.
std::string empty_sections()
{
    std::string text;
    for (const char *name :
         {"ShutDown", "EventLog", "DataLog", "ScheShutDown", "ScheTest", "UserInfo", "1", "9"})
        text += "\n[ " + std::string(name) + " ]\n\n";
    for (const int id : {9, 10, 11, 65, 128})
        text += "\n[ Event" + std::to_string(id) + " ]\n\n";
    return text;
}

class Settings : public testing::Test
{
  protected:
    void start(const std::string &agenttype)
    {
        testbed::write_config("[ UPS ]\n\n AgentType = " + agenttype + "\n Group = Group A\n" +
                              empty_sections());
        daemon.start();
    }

    Daemon daemon{VOLTARIAD};
};

UPS_PARAM wanted_config(UPS_PARAM param)
{
    param.workparam.BattLife = 120;
    param.workparam.ComSet = 3;
    param.workparam.TurnOffDelay = 720;
    param.workparam.AutoReboot = 0;
    param.workparam.FirstWarningTime = 40;
    param.workparam.CountDownTime = 50;
    param.workparam.WarningBeforeSchel = 660;
    param.workparam.nCloseAppTime = 70;
    param.logparam = {1, 500, 0, 300, 90};
    param.commparam.AgentType = AGENTTYPE_HIGH;
    param.commparam.bIgnore = 0;
    set_text(param.commparam.Group, "Group B");
    return param;
}

}  // namespace

TEST_F(Settings, TheConfigurationIsReadChangedAndKeptOverAKill)
{
    start("4");
    const TcpClient monitor;
    const UPS_PARAM before = record_at<UPS_PARAM>(query(monitor, 5, 82));
    EXPECT_EQ(before.workparam.TurnOffDelay, 600u);
    const UPS_PARAM wanted = wanted_config(before);
    monitor.send(packet(82, bytes_of(wanted)));
    EXPECT_EQ(query(monitor, 5, 82), bytes_of(wanted));
    EXPECT_EQ(stored("ShutDown", "EXPECTBLIFE"), " EXPECTBLIFE = 120");
    EXPECT_EQ(stored("ShutDown", "TurnOffDelay"), " TurnOffDelay = 720");
    EXPECT_EQ(stored("DataLog", "DataLogInterval"), " DataLogInterval = 90");
    EXPECT_EQ(stored("UPS", "ComSet"), " ComSet = 3");
    EXPECT_EQ(stored("UPS", "Group"), " Group = Group B");
    EXPECT_EQ(stored("UPS", "AgentType"), " AgentType = 6");
    EXPECT_EQ(stored("UPS", "AutoBoot"), " AutoBoot = 0");
    daemon.kill();
    daemon.start();
    const TcpClient again;
    EXPECT_EQ(query(again, 5, 82), bytes_of(wanted));
    EXPECT_EQ(std::string(status().Group.data()), "Group B");
}

TEST_F(Settings, RequestsOfNoFittingLengthChangeNothingAndCloseNothing)
{
    start("4");
    const TcpClient monitor;
    const std::string before = query(monitor, 5, 82);
    const std::string file = testbed::read_config();
    monitor.send(packet(82, std::string(871, '\x07')));
    monitor.send(packet(81, std::string(13347, '\x07')));
    monitor.send(packet(81, std::string(13348 + 542, '\x07')));
    monitor.send(packet(80, std::string(21, '\x07')));
    EXPECT_EQ(query(monitor, 5, 82), before);
    EXPECT_EQ(testbed::read_config(), file);
}

TEST_F(Settings, EventSettingsAndUsersAreReadChangedAndStored)
{
    start("4");
    const TcpClient monitor;
    std::string table = query(monitor, 4, EVENTS);
    ASSERT_EQ(table.size(), EVENT_ROWS * sizeof(UPS_EVENTINFO));
    UPS_EVENTINFO row = record_at<UPS_EVENTINFO>(table);
    EXPECT_EQ(row.EventID, 128);
    set_text(row.Command, "echo battery low");
    row.MailUser = 0x80000001;
    table.replace(0, sizeof row, bytes_of(row));
    std::string users;
    for (const int id : {1, 9})
        users += std::string{static_cast<char>(id), 0} + field("user" + std::to_string(id), 21) +
                 field("", 260) + field("u@example", 260);
    monitor.send(packet(EVENTS, table + users));
    const std::string answer = query(monitor, 4, EVENTS);
    EXPECT_EQ(answer.substr(0, table.size()), table);
    ASSERT_EQ(answer.size(), table.size() + 2 * sizeof(USERSDATA));
    EXPECT_EQ(answer.substr(table.size() + sizeof(USERSDATA), 23), (std::string{9, 0} + field("user9", 21)));
    EXPECT_EQ(stored("Event128", "Command"), " Command = echo battery low");
    EXPECT_EQ(stored("Event128", "MailUser"), " MailUser = 2147483649");
    EXPECT_EQ(stored("UserInfo", "UserID"), " UserID = 1,9");
    EXPECT_EQ(stored("9", "Email"), " Email = u@example");
    monitor.send(packet(EVENTS, table));
    EXPECT_EQ(query(monitor, 4, EVENTS), table);
    EXPECT_EQ(stored("UserInfo", "UserID"), " UserID = ");
}

TEST_F(Settings, EachMonitorSeesMonthsAsItCountsThem)
{
    start("4");
    const TcpClient fromzero;
    const TcpClient fromone;
    say_hello(fromzero, 2);
    say_hello(fromone, 1);
    const SCHEDULEINFO january{1, 0, 1, {250, 0, 1, 22, 30, 0, 0}, {250, 11, 31, 8, 5, 0, 0}};
    const SCHEDULEINFO asone{1, 0, 1, {250, 1, 1, 22, 30, 0, 0}, {250, 12, 31, 8, 5, 0, 0}};
    fromone.send(packet(80, bytes_of(asone)));
    EXPECT_EQ(query(fromone, 3, 80), bytes_of(asone));
    EXPECT_EQ(query(fromzero, 3, 80), bytes_of(january));
    EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYSTART1"), " SPECIALDAYSTART1 = 30 22 1 0 * 250");
    fromzero.send(packet(80, bytes_of(january) + bytes_of(january)));
    EXPECT_EQ(query(fromone, 3, 80), bytes_of(asone) + bytes_of(asone));
    fromzero.send(packet(80));
    EXPECT_EQ(query(fromzero, 3, 80), "");
    EXPECT_EQ(stored("ScheShutDown", "SPECIALNO"), " SPECIALNO = 0");
}

// A datagram names no system of its own.
TEST_F(Settings, MonthsOfADatagramAreCountedAsTheLastMonitorCounts)
{
    start("4");
    const TcpClient fromzero;
    const TcpClient fromone;
    const testbed::UdpSocket other;
    say_hello(fromzero, 2);
    say_hello(fromone, 1);
    const SCHEDULEINFO march{1, 0, 1, {250, 3, 1, 22, 30, 0, 0}, {250, 3, 2, 8, 5, 0, 0}};
    const SCHEDULEINFO february{1, 0, 1, {250, 2, 1, 22, 30, 0, 0}, {250, 2, 2, 8, 5, 0, 0}};
    EXPECT_EQ(query(fromone, 3, 80), "");
    other.send("127.0.0.1", testbed::AGENT_UDP_PORT, packet(80, bytes_of(march)));
    EXPECT_EQ(query(fromzero, 3, 80), bytes_of(february));
    other.send("127.0.0.1", testbed::AGENT_UDP_PORT, packet(80, bytes_of(march)));
    EXPECT_EQ(query(fromzero, 3, 80), bytes_of(march));
}

TEST_F(Settings, ChangesAreInTheEventLogThatIsPagedThrough)
{
    start("4");
    const TcpClient monitor;
    monitor.send(packet(80));
    const std::string table = query(monitor, 4, EVENTS);
    monitor.send(packet(EVENTS, table));
    std::vector<int> ids;
    for (int line = 0;; ++line) {
        const std::string page = query(monitor, 1, 65, line, 1);
        if (page.empty())
            break;
        ASSERT_EQ(page.size(), 28u);
        ids.push_back(record_at<UPS_EVENTLOGINFO>(page).EventId);
    }
    const auto schedules = std::find(ids.begin(), ids.end(), 10);
    EXPECT_NE(std::find(ids.begin(), ids.end(), 7), ids.end());
    EXPECT_NE(std::find(schedules, ids.end(), 11), ids.end());
    EXPECT_EQ(query(monitor, 2, 66, 0, 100), "");  // no unit, no measurements
}

TEST_F(Settings, AProtectorIsToldWhoProtectsItAndHasNothingElseToSet)
{
    start("1");
    const TcpClient monitor;
    EXPECT_EQ(query(monitor, 2, 66, 0, 10), "");
    EXPECT_EQ(query(monitor, 3, 80), "");
    EXPECT_EQ(query(monitor, 4, EVENTS), "");
    EXPECT_EQ(query(monitor, 5, 82), "");
    const std::string log = query(monitor, 1, static_cast<char>(198), 30000, 1);
    EXPECT_GE(log.size(), 28u);
    monitor.send(packet(82, std::string(872, '\0')));
    monitor.send(packet(80));
    EXPECT_EQ(query(monitor, 5, 82), "");
    EXPECT_EQ(stored("UPS", "AgentType"), " AgentType = 1");
    EXPECT_EQ(stored("ScheShutDown", "SPECIALNO"), "no key");
    const UdpSocket udp;
    udp.send("127.0.0.1", testbed::AGENT_UDP_PORT, packet(194, u32(30) + field("guard", 16)));
    testbed::wait_until("the name of the protecting agent", PATIENCE,
                        [] { return stored("UPS", "AgentName") == " AgentName = guard"; });
}

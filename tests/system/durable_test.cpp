// What a monitor has set stays set. A packet that was handled is in the settings file before the same
// monitor's next one is looked at, so that an agent that dies between two packets loses nothing; and one that
// dies in the middle of writing leaves each setting old or new.
#include "bed.h"

#include "wire_records.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <map>
#include <random>
#include <unistd.h>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;

namespace
{

template <typename T> std::string bytes_of(const T &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};  // little-endian hosts only
}

// ---- the settings file, as the agent reads it

// Every section is there from the start: a setting written into a new section is found only when it has been
// written twice.
std::string settings_file()
{
    std::string text = "[ UPS ]\n\n ComSet = -2\n AgentType = 4\n Group = Cellar\n AutoBoot = 1\n"
                       " IgnoreOtherAgentDown = 1\n\n[ ShutDown ]\n\n[ EventLog ]\n\n[ DataLog ]\n\n"
                       "[ ScheShutDown ]\n\n[ ScheTest ]\n\n[ UserInfo ]\n\n[ 1 ]\n\n[ 2 ]\n";
    for (const int id : {128, 129, 130, 131, 132, 133, 134, 64, 65, 66, 67, 68,  69, 70, 71, 72, 73, 74,
                         75,  76,  77,  78,  79,  80,  0,   1,  2,  3,  4,  5,   6,  7,  8,  9,  10, 11,
                         12,  13,  15,  14,  16,  17,  18,  19, 20, 21, 22, 255, 48, 49, 50, 51, 52, 53})
        text += "\n[ Event" + std::to_string(id) + " ]\n";
    return text;
}

using Values = std::map<std::string, std::string>;  // "SECTION KEY" to the first value

Values read_values()
{
    Values values;
    const std::string text = testbed::read_config();
    std::string section;
    std::size_t at = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', at)) {
        std::string line = text.substr(at, end - at);
        at = end + 1;
        if (line.starts_with('[')) {
            section = line.substr(2, line.find(" ]") - 2);
            continue;
        }
        const std::size_t equals = line.find(" =");
        const std::size_t key = line.find_first_not_of(' ');
        if (key == std::string::npos || equals == std::string::npos || section.empty())
            continue;
        const std::size_t value = line.find_first_not_of(" =", equals);
        values.try_emplace(section + " " + line.substr(key, equals - key),
                           value == std::string::npos ? "" : line.substr(value));
    }
    return values;
}

// ---- settings as a monitor sends them

UPS_PARAM parameters(std::uint32_t battlife, const std::string &group)
{
    UPS_PARAM param{};
    param.workparam = {0,           battlife, -2, battlife + 1, 1, battlife + 2, battlife + 3, battlife + 4,
                       battlife + 5};
    param.logparam = {1, battlife + 6, 1, battlife + 7, battlife + 8};
    param.commparam.AgentType = 4;
    param.commparam.bIgnore = 1;
    std::copy(group.begin(), group.end(), param.commparam.Group.begin());
    return param;
}

// What the file says of them.
Values values_of(const UPS_PARAM &param)
{
    const auto text = [](auto number) { return std::to_string(number); };
    return {{"ShutDown EXPECTBLIFE", text(param.workparam.BattLife)},
            {"ShutDown TurnOffDelay", text(param.workparam.TurnOffDelay)},
            {"ShutDown FIRSTWARN", text(param.workparam.FirstWarningTime)},
            {"ShutDown INTERVAL", text(param.workparam.CountDownTime)},
            {"ShutDown WARNBEFORESCHE", text(param.workparam.WarningBeforeSchel)},
            {"ShutDown CloseAppTime", text(param.workparam.nCloseAppTime)},
            {"EventLog EventLogMaxSize", text(param.logparam.MaxEventRec)},
            {"DataLog DataLogMaxSize", text(param.logparam.MaxDataRec)},
            {"DataLog DataLogInterval", text(param.logparam.DataLogInterval)},
            {"UPS Group", param.commparam.Group.data()},
            {"UPS AgentType", "4"},
            {"UPS ComSet", "-2"},
            {"UPS AutoBoot", "1"},
            {"UPS IgnoreOtherAgentDown", "1"}};
}

std::string configuration(const UPS_PARAM &param)
{
    return packet(DATAID_CONFIG, bytes_of(param));
}

std::string weekly_schedule(int weekday, int hour)
{
    SCHEDULEINFO info{2, 0, 1, {}, {}};
    info.stimeInfo.day = info.etimeInfo.day = static_cast<std::int8_t>(weekday);
    info.stimeInfo.hour = static_cast<std::int8_t>(hour);
    info.etimeInfo.hour = static_cast<std::int8_t>(hour + 1);
    return packet(DATAID_SCHEDULES, bytes_of(info));
}

std::string query(char cmd)
{
    return packet(DATAID_COMMAND, std::string(1, cmd) + std::string(7, '\0'));
}

std::string ask(const TcpClient &client, char cmd)
{
    client.send(query(cmd));
    return receive_answer(client).substr(8);
}

constexpr std::size_t EVENT_TABLE = 47 * sizeof(UPS_EVENTINFO);

// The agent's event table with another command for mains failures, and one user.
std::string events_with(std::string table, const std::string &command, const std::string &user)
{
    constexpr std::size_t ROW_OF_ACFAIL = 8;
    table.resize(EVENT_TABLE);
    std::string field = command;
    field.resize(sizeof(UPS_EVENTINFO::Command), '\0');
    table.replace(ROW_OF_ACFAIL * sizeof(UPS_EVENTINFO) + offsetof(UPS_EVENTINFO, Command), field.size(),
                  field);
    USERSDATA data{};
    data.UserID = 1;
    std::copy(user.begin(), user.end(), data.UserName.begin());
    return packet(DATAID_EVENTS, table + bytes_of(data));
}

void expect_values(const Values &seen, const Values &wanted)
{
    for (const auto &[key, value] : wanted) {
        const auto at = seen.find(key);
        EXPECT_EQ(at == seen.end() ? "(missing)" : at->second, value) << key;
    }
}

void start_anew(Daemon &daemon)
{
    daemon.kill();
    daemon.start();
}

class Durable : public testing::Test
{
  protected:
    void SetUp() override
    {
        testbed::write_config(settings_file());
        daemon.start();
    }
    Daemon daemon{VOLTARIAD};
    std::mt19937 random{4112};

    std::uint32_t some(std::uint32_t least, std::uint32_t most)
    {
        return std::uniform_int_distribution<std::uint32_t>(least, most)(random);
    }
};

}  // namespace

TEST_F(Durable, TheConfigurationIsInTheFileWhenTheNextPacketIsAnswered)
{
    const TcpClient client;
    for (const std::uint32_t battlife : {71u, 123456u, 8u}) {
        const UPS_PARAM param = parameters(battlife, "Group " + std::to_string(battlife));
        client.send(configuration(param) + packet(DATAID_GETUPSINFO));
        ASSERT_EQ(receive_answer(client).at(3), DATAID_ANSUPSINFO);
        expect_values(read_values(), values_of(param));
    }
}

TEST_F(Durable, SchedulesAreInTheFileWhenTheNextPacketIsAnswered)
{
    const TcpClient client;
    for (const int hour : {3, 22, 9}) {
        client.send(weekly_schedule(2, hour) + packet(DATAID_GETUPSINFO));
        ASSERT_EQ(receive_answer(client).at(3), DATAID_ANSUPSINFO);
        expect_values(read_values(), {{"ScheShutDown WEEKLYNO", "1"},
                                      {"ScheShutDown WEEKLYSTART1", "0 " + std::to_string(hour) + " * * 2"}});
    }
}

TEST_F(Durable, EventSettingsAreInTheFileWhenTheNextPacketIsAnswered)
{
    const TcpClient client;
    const std::string table = ask(client, 4);
    for (const std::string command : {"/bin/true", "/bin/echo a longer one than before", ""}) {
        client.send(events_with(table, command, "keeper") + packet(DATAID_GETUPSINFO));
        ASSERT_EQ(receive_answer(client).at(3), DATAID_ANSUPSINFO);
        expect_values(read_values(),
                      {{"Event65 Command", command}, {"UserInfo UserID", "1"}, {"1 Name", "keeper"}});
    }
}

// Each setting is confirmed by the answer to an empty question behind it, and then the agent is killed.
TEST_F(Durable, NothingThatWasHandledIsLostWhenTheAgentIsKilledBetweenTwoPackets)
{
    const std::string table = ask(TcpClient{}, 4);
    UPS_PARAM param = parameters(60, "Cellar");
    std::string command;
    int hour = 0;
    for (int round = 0; round < 5; ++round) {
        {
            const TcpClient client;
            for (std::uint32_t left = some(1, 5); left > 0; --left) {
                param = parameters(some(1, 1'000'000), "Group " + std::to_string(some(0, 999)));
                command = "/bin/echo " + std::string(some(0, 100), 'x');
                hour = static_cast<int>(some(0, 22));
                for (const std::string &setting :
                     {configuration(param), events_with(table, command, "u" + std::to_string(round)),
                      weekly_schedule(1, hour)}) {
                    client.send(setting + query(6));
                    ASSERT_EQ(receive_answer(client).at(3), DATAID_ANSNULL);
                }
            }
        }
        start_anew(daemon);
        const TcpClient client;
        UPS_PARAM seen{};
        const std::string configured = ask(client, 5);
        ASSERT_EQ(configured.size(), sizeof seen);
        std::memcpy(&seen, configured.data(), sizeof seen);
        EXPECT_EQ(values_of(seen), values_of(param));
        const std::string events = ask(client, 4);
        ASSERT_EQ(events.size(), EVENT_TABLE + sizeof(USERSDATA));
        EXPECT_STREQ(events.c_str() + 8 * sizeof(UPS_EVENTINFO) + offsetof(UPS_EVENTINFO, Command),
                     command.c_str());
        EXPECT_EQ(events.substr(EVENT_TABLE + offsetof(USERSDATA, UserName), 2), "u" + std::to_string(round));
        const std::string schedules = ask(client, 3);
        ASSERT_EQ(schedules.size(), sizeof(SCHEDULEINFO));
        EXPECT_EQ(schedules[offsetof(SCHEDULEINFO, stimeInfo) + offsetof(UPS_TIMEINFO, hour)], hour);
    }
}

TEST_F(Durable, AnAgentKilledWhileItWritesLeavesEverySettingOldOrNew)
{
    const std::array<UPS_PARAM, 2> both = {parameters(9, "A"), parameters(1'000'000, "A longer name")};
    {
        const TcpClient client;
        client.send(configuration(both[0]) + query(6));
        ASSERT_EQ(receive_answer(client).at(3), DATAID_ANSNULL);
    }
    const std::array<Values, 2> values = {values_of(both[0]), values_of(both[1])};
    int mixed = 0;
    for (int round = 0; round < 12; ++round) {
        std::string stream;
        for (int i = 0; i < 40; ++i)
            stream += configuration(both[static_cast<std::size_t>(i) % 2]);
        const TcpClient client;
        (void)ask_status(client);
        const pid_t agent = daemon.agent_pid();
        client.send(stream);
        usleep(some(0, 20'000));  // into the middle of it; any moment will do
        ASSERT_EQ(kill(agent, SIGKILL), 0);
        daemon.kill();
        const Values seen = read_values();
        for (const auto &[key, old] : values[0]) {
            ASSERT_TRUE(seen.contains(key)) << key << " is lost; the file:\n" << testbed::read_config();
            EXPECT_TRUE(seen.at(key) == old || seen.at(key) == values[1].at(key))
                << key << " = " << seen.at(key);
        }
        mixed += seen.at("ShutDown EXPECTBLIFE").size() != seen.at("DataLog DataLogMaxSize").size() ? 1 : 0;
        daemon.start();
        EXPECT_EQ(ask(TcpClient{}, 5).size(), sizeof(UPS_PARAM));
    }
    RecordProperty("killed in the middle", mixed);
}

// A new installation: the real daemon on the initial settings file. It starts as it would without one, and
// nothing that a monitor saves first is lost: everything reads back as it was sent, at once and after a
// restart.
#include "bed.h"

#include "event_records.h"
#include "schedule_records.h"
#include "ups_records.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <unistd.h>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;

namespace
{

constexpr std::size_t EVENT_ROWS = 47;  // of 54: monitors are told no more

std::string initial()
{
    return testbed::read_file(VOLTARIA_INITIAL_SETTINGS);
}

// A record lies in memory as it does on the wire.
template <typename RECORD> std::string bytes_of(const RECORD &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

template <typename RECORD> RECORD record_at(const std::string &data, std::size_t at = 0)
{
    RECORD record{};
    if (data.size() < at + sizeof record)
        ADD_FAILURE() << data.size() << " bytes only";
    else
        std::memcpy(static_cast<void *>(&record), data.data() + at, sizeof record);
    return record;
}

template <std::size_t N> void set_text(std::array<char, N> &to, std::string_view text)
{
    to.fill('\0');
    std::copy(text.begin(), text.end(), to.begin());
}

std::string host_name()
{
    std::array<char, 260> name{};
    EXPECT_EQ(gethostname(name.data(), name.size() - 1), 0);
    return name.data();
}

// ---- a monitor

// The settings as one monitor sends and reads them.
struct SETTINGS {
    std::string config, events, schedules;  // the data of DataIds 82, 81 and 80

    // By part: they are long.
    void expect(const SETTINGS &sent) const
    {
        EXPECT_TRUE(config == sent.config) << "configuration";
        EXPECT_TRUE(events == sent.events) << "events and users";
        EXPECT_TRUE(schedules == sent.schedules) << "schedules";
    }
};

std::string query(const TcpClient &client, char sub, char dataid)
{
    client.send(packet(24, std::string{sub, 0} + std::string(6, '\0')));
    const std::string answer = receive_answer(client);
    EXPECT_EQ(answer[3], dataid);
    return answer.substr(8);
}

// One that counts months as the agent does.
void say_hello(const TcpClient &client)
{
    std::string record(28, '\0');
    record[0] = record[4] = 2;
    client.send(packet(17, record));
    EXPECT_EQ(receive_answer(client)[3], 17);
}

SETTINGS read_settings(const TcpClient &client)
{
    return {query(client, 5, 82), query(client, 4, 81), query(client, 3, 80)};
}

// Each part once.
void save_settings(const TcpClient &client, const SETTINGS &settings)
{
    client.send(packet(81, settings.events));
    client.send(packet(80, settings.schedules));
    client.send(packet(82, settings.config));
}

// ---- what is saved: nothing as it was

std::string other_config(const std::string &config)
{
    auto param = record_at<UPS_PARAM>(config);
    param.workparam = {param.workparam.BSuspend, 120, 2, 720, 0, 40, 50, 660, 70};
    param.logparam = {0, 500, 0, 300, 90};
    param.commparam.AgentType = AGENTTYPE_NORMAL;
    param.commparam.bIgnore = 0;
    set_text(param.commparam.Group, "Rack 3, left");
    return bytes_of(param);
}

std::string other_events(const std::string &table)
{
    std::string other;
    for (std::size_t i = 0; i < EVENT_ROWS; ++i) {
        auto row = record_at<UPS_EVENTINFO>(table, i * sizeof(UPS_EVENTINFO));
        const auto number = static_cast<std::uint32_t>(i);
        row.Record = 0;
        row.Shutdown = 1 - row.Shutdown;
        row.BroadcastType = row.BroadcastType == 2 ? 3 : 2;
        row.BroadcastUser = 0x80000001U + 2 * number;
        row.MailUser = 0xC0000000U + number;
        set_text(row.Command, "echo event " + std::to_string(row.EventID));
        other += bytes_of(row);
    }
    return other;
}

// So many as there can be, up to the highest number.
std::string other_users(int first)
{
    const std::string host = host_name();
    std::string users;
    for (std::size_t i = 0; i < USER_COUNT; ++i) {
        USERSDATA user{};
        user.UserID = static_cast<std::uint8_t>(static_cast<std::size_t>(first) + i);
        const std::string number = std::to_string(user.UserID);
        set_text(user.UserName, "operator" + number);
        set_text(user.Address, host);
        set_text(user.Email, "operator" + number + "@example.org");
        users += bytes_of(user);
    }
    return users;
}

UPS_TIMEINFO moment(int kind, int day, int hour, int minute)
{
    UPS_TIMEINFO when{};
    when.year = kind == 1 ? 250 : 0;
    when.month = kind == 1 ? 11 : 0;
    when.day = static_cast<std::int8_t>(day);
    when.hour = static_cast<std::int8_t>(hour);
    when.minute = static_cast<std::int8_t>(minute);
    return when;
}

// The second entry of a kind is off. A self-test has no switch of its own and shows that of the special date
// of its number.
std::string other_entry(int action, int kind, int n)
{
    SCHEDULEINFO entry{};
    entry.ID = static_cast<std::int8_t>(kind);
    entry.ActionID = static_cast<std::int8_t>(action);
    entry.ScheduleOn = n == 1;
    entry.stimeInfo = moment(kind, n + action, 22, 30);
    entry.etimeInfo = moment(kind, n + action + 1, 6, 15);
    return bytes_of(entry);
}

// In the order in which they are read back.
std::string other_schedules()
{
    std::string list;
    for (const int action : {0, 1})
        for (const int kind : {1, 2, 3})
            for (const int n : {1, 2})
                list += other_entry(action, kind, n);
    return list;
}

SETTINGS other_settings(const SETTINGS &now, int firstuser)
{
    return {other_config(now.config), other_events(now.events) + other_users(firstuser), other_schedules()};
}

// ---- the file

// Settings above the first header, which nobody finds.
int lost_settings(const std::string &text)
{
    const std::string above = text.substr(0, text.find("\n["));
    return static_cast<int>(std::count(above.begin(), above.end(), '='));
}

std::string headers_of(const std::string &text)
{
    std::string headers;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        if (text[at] == '[')
            headers += text.substr(at, end + 1 - at);
    return headers;
}

// How often an event is in the log.
int logged(int id)
{
    const std::string log = testbed::read_file(testbed::EVENT_LOG);
    int count = 0;
    for (std::size_t at = 0, end; (end = log.find('\n', at)) != std::string::npos; at = end + 1)
        count += std::stoi(log.substr(at + 20, 4)) == id;
    return count;
}

class Initial : public testing::Test
{
  protected:
    // As for the first time: without logs.
    void start_with(const std::string &text)
    {
        testbed::write_config(text);
        start();
    }

    void start_without_settings()
    {
        std::filesystem::remove(testbed::CONFIG_FILE);
        start();
    }

    // What all of it together tells, but for the moments at which it happened.
    std::string told()
    {
        const TcpClient client;
        UPS_UPSINFO info = wait_for_status(
            "that no UPS is found", [](const UPS_UPSINFO &now) { return now.CommStatus == COMM_LOST; });
        info.timeinfo = {};
        for (UPS_EVENTLOGINFO &event : info.events)
            event.timeinfo = {};
        role = info.AgentType;
        info.AgentType = 0;
        const SETTINGS now = read_settings(client);
        EXPECT_EQ(status().AgentType, AGENTTYPE_LOW);  // once the configuration was asked for
        return bytes_of(info) + now.config + now.events + now.schedules;
    }

    // Saves everything once and says whether that reads back, before and after a restart.
    void save_and_restart(SETTINGS &sent, SETTINGS &now, SETTINGS &again)
    {
        {
            const TcpClient client;
            say_hello(client);
            sent = other_settings(read_settings(client), USER_NONE - static_cast<int>(USER_COUNT));
            save_settings(client, sent);
            now = read_settings(client);
        }
        daemon.stop();
        daemon.start();
        const TcpClient client;
        say_hello(client);
        again = read_settings(client);
    }

    Daemon daemon{VOLTARIAD};
    std::uint32_t role = 0;

  private:
    void start()
    {
        std::filesystem::remove(testbed::EVENT_LOG);
        std::filesystem::remove(testbed::DATA_LOG);
        daemon.start();
    }
};

}  // namespace

TEST_F(Initial, TheDaemonStartsAsItDoesWithoutAFileButForTheRole)
{
    start_without_settings();
    const std::string without = told();
    EXPECT_EQ(role, AGENTTYPE_HIGH);
    daemon.stop();
    start_with(initial());
    EXPECT_TRUE(told() == without);
    EXPECT_EQ(role, AGENTTYPE_LOW);
    EXPECT_EQ(testbed::read_config(), initial());  // it has nothing to add
}

TEST_F(Initial, EverythingThatAMonitorSavesFirstReadsBackAsItWasSent)
{
    start_with(initial());
    SETTINGS sent;
    SETTINGS now;
    SETTINGS again;
    save_and_restart(sent, now, again);
    now.expect(sent);
    again.expect(sent);
    const std::string text = testbed::read_config();
    EXPECT_EQ(lost_settings(text), 0);
    EXPECT_EQ(headers_of(text), headers_of(initial()));
    EXPECT_THAT(text, testing::HasSubstr("[ 254 ]\n Name = operator254\n"));
}

TEST_F(Initial, UsersOfOtherNumbersAreNoLessKept)
{
    start_with(initial());
    const TcpClient client;
    for (const int first : {0, 96, 200}) {
        const std::string sent = other_events(query(client, 4, 81)) + other_users(first);
        client.send(packet(81, sent));
        EXPECT_TRUE(query(client, 4, 81) == sent) << first;
    }
    EXPECT_EQ(headers_of(testbed::read_config()), headers_of(initial()));
}

TEST_F(Initial, OnAnEmptyFileTheSameSavesAreLost)
{
    start_with("");
    SETTINGS sent;
    SETTINGS now;
    SETTINGS again;
    save_and_restart(sent, now, again);
    EXPECT_FALSE(again.config == sent.config);
    EXPECT_FALSE(again.events == sent.events);
    EXPECT_GT(lost_settings(testbed::read_config()), 0);
}

// ---- the command-line monitor, which saves again what it does not find

namespace
{

void voltaria(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), VOLTARIA);
    arguments.insert(arguments.end(), {"--timeout", "40"});
    const testbed::RunResult result = testbed::run(arguments, 120s);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(arguments) << result.errors;
}

}  // namespace

TEST_F(Initial, TheCommandLineMonitorNeedsToSaveNothingTwice)
{
    start_with(initial());
    const std::vector<std::vector<std::string>> settings = {
        {"battery-time", "90"},     {"turn-off-delay", "720"},
        {"first-warning", "40"},    {"warning-interval", "50"},
        {"schedule-warning", "60"}, {"close-time", "70"},
        {"auto-restart", "off"},    {"port", "2"},
        {"event-log-size", "300"},  {"data-log", "off"},
        {"data-log-size", "300"},   {"data-log-interval", "90"},
        {"role", "normal"},         {"ignore-group", "off"},
        {"group", "Rack 3"}};
    for (const auto &setting : settings)
        voltaria({"config", "set", setting[0], setting[1]});
    voltaria({"users", "add", "root"});
    voltaria({"users", "add", "ops", "--email", "ops@example.org"});
    voltaria({"events", "set", "65", "--mail", "ops", "--write", "root", "--command", "echo"});
    voltaria({"schedule", "add", "shutdown", "--date", "2037-01-02", "--from", "22:00", "--until",
              "2037-01-05 06:00"});
    voltaria({"schedule", "add", "selftest", "--monthly", "1", "--from", "10:00"});
    EXPECT_EQ(logged(9), static_cast<int>(settings.size()));
    EXPECT_EQ(logged(11), 3);
    EXPECT_EQ(logged(10), 2);
}

TEST_F(Initial, OnAnEmptyFileItSavesTwice)
{
    start_with("");
    voltaria({"config", "set", "battery-time", "90"});
    voltaria({"users", "add", "root"});
    EXPECT_EQ(logged(9), 2);
    EXPECT_EQ(logged(11), 2);
}

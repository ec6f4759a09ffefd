// What `voltaria` finds out from the real daemon: agents on the network, notices as they come, the two logs;
// and that Japanese texts written through its library are read back the same.
#include "bed.h"

#include "monitor/monitor_charset.h"
#include "monitor/monitor_records.h"
#include "tests/unit/monitor_terminal.h"

#include <csignal>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

using namespace bed;
using testbed::Child;
using testbed::Daemon;
using testbed::Simulator;
using testing::HasSubstr;

namespace
{

constexpr char OUTPUT[] = "/run/voltaria-test/output";
constexpr char ERRORS_TO_OUTPUT[] = "exec \"$0\" \"$@\" 2>&1";

// `voltaria` in the background with everything it prints in a file.
struct FOLLOWER {
    explicit FOLLOWER(const std::vector<std::string> &arguments)
    {
        std::vector<std::string> command{"/bin/sh", "-c", ERRORS_TO_OUTPUT, VOLTARIA};
        command.insert(command.end(), arguments.begin(), arguments.end());
        child.start(command, {}, OUTPUT);
    }

    void wait_for(const std::string &text)
    {
        testbed::wait_until(
            "\"" + text + "\"", PATIENCE, [&text] { return shown().find(text) != std::string::npos; }, shown);
    }

    int end()
    {
        child.send_signal(SIGTERM);
        return child.wait(PATIENCE);
    }

    static std::string shown()
    {
        return testbed::read_file(OUTPUT);
    }

    Child child;
};

// A program that keeps a UDP port to itself.
struct PORT_OWNER {
    explicit PORT_OWNER(std::uint16_t port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    ~PORT_OWNER()
    {
        close(fd);
    }
    PORT_OWNER(const PORT_OWNER &) = delete;
    PORT_OWNER &operator=(const PORT_OWNER &) = delete;

    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

nlohmann::json document(const std::vector<std::string> &arguments)
{
    const PROGRAM_RESULT result = run_program(arguments);
    EXPECT_EQ(result.status, 0) << result.errors;
    return nlohmann::json::parse(result.output);
}

// A session of the library with the daemon.
struct SESSION {
    SESSION()
    {
        MONITOR_OPTIONS options;
        options.timeout = PATIENCE;
        VTOSINFO answer{};
        EXPECT_TRUE(monitor_ok(monitor_connect(options, session)));
        EXPECT_TRUE(monitor_ok(monitor_hello(session, monitor_own_osinfo(), answer)));
    }
    ~SESSION()
    {
        monitor_close(session);
    }
    SESSION(const SESSION &) = delete;
    SESSION &operator=(const SESSION &) = delete;

    MONITOR_SESSION session;
};

constexpr char EVENTS[] = " 5/ 3/2005  9: 7: 2  65 255              pc1\n"
                          " 5/ 3/2005  9: 8: 0 129  65              pc1\n"
                          " 6/ 3/2005  1: 2: 3   0 255                \n";
constexpr char RECORDS[] = " 5/ 3/2005  9: 7: 2,100.1,101.2, 42,50.1,25.3,27.4,60.2, 98\n"
                           " 5/ 3/2005  9:17: 2, 99.9,101.2, 43,50.0,25.5,27.4,60.2, 98\n";

}  // namespace

// ---- Discovery ----

TEST(VoltariaDiscover, FindsTheAgentByBroadcastAndByAddress)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    std::set<std::string> addresses;
    testbed::wait_until("both ways to the agent", PATIENCE, [&addresses] {
        const PROGRAM_RESULT result =
            run_program({"discover", "--timeout", "1", "--address", "127.0.0.1", "--json"});
        const nlohmann::json found = nlohmann::json::parse(result.output);
        for (const nlohmann::json &agent : found.at("agents")) {
            addresses.insert(agent.at("address"));
            EXPECT_EQ(agent.at("name"), "voltaria-test");
            EXPECT_EQ(agent.at("type").at("code"), 4);
            EXPECT_FALSE(agent.at("protector"));
            EXPECT_EQ(result.status, 0);
        }
        return addresses.size() >= 2;
    });
    EXPECT_THAT(addresses, testing::UnorderedElementsAre("10.77.0.1", "127.0.0.1"));
}

TEST(VoltariaDiscover, GoesOnWithTheAnswersWhenTheAnnouncementsPortIsTaken)
{
    const PORT_OWNER owner(testbed::MONITOR_UDP_PORT);
    FOLLOWER follower({"discover", "--follow"});
    follower.wait_for("announcements cannot be heard on UDP port 4113");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    follower.wait_for("10.77.0.1        voltaria-test");
    EXPECT_EQ(follower.end(), 0);
}

TEST(VoltariaDiscover, NobodyThereEndsWithThree)
{
    const PROGRAM_RESULT result = run_program({"discover", "--timeout", "0.2"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("no agent answered"));
}

TEST(VoltariaDiscover, AFollowerSeesTheAgentComeChangeAndGo)
{
    FOLLOWER follower({"discover", "--follow"});
    Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    follower.wait_for("ZR900PL       on mains");
    unit.command("mains fail");
    follower.wait_for("mains failure, on battery");
    daemon.stop();
    follower.wait_for("gone\n");
    EXPECT_EQ(follower.end(), 0);
}

// ---- Notices ----

TEST(VoltariaNotices, AreFollowedThroughARestartOfTheAgent)
{
    FOLLOWER follower({"notices", "--lang", "en"});
    follower.wait_for("cannot reach 127.0.0.1:4112: Connection refused; trying again");
    Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(COMM_ESTABLISHED);
    // Again until the follower was connected when it happened.
    testbed::wait_until("the restored mains to be told", PATIENCE, [&unit] {
        unit.command("mains fail");
        wait_for_status("mains failure",
                        [](const UPS_UPSINFO &info) { return info.upsstat == UPSSTAT_ACFAIL; });
        unit.command("mains return");
        wait_for_status("mains", [](const UPS_UPSINFO &info) { return info.upsstat == UPSSTAT_NORMAL; });
        return testbed::eventually(
            2s, [] { return FOLLOWER::shown().find("UPS AC Restore") != std::string::npos; });
    });
    daemon.stop();
    follower.wait_for("the agent closed the connection; trying again");
    EXPECT_EQ(follower.end(), 0);
}

// ---- Logs ----

TEST(VoltariaLog, LinesAreShownInEveryForm)
{
    testbed::write_file(testbed::EVENT_LOG, EVENTS);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const PROGRAM_RESULT table = run_program({"log", "--first", "0", "--count", "3"});
    EXPECT_EQ(table.status, 0);
    EXPECT_THAT(table.output, HasSubstr("2005-03-05 09:07:02    65  pc1              UPS Ac fail\n"));
    EXPECT_THAT(table.output, HasSubstr("UPS AC Fail Delay Run out (after: UPS Ac fail)\n"));
    const nlohmann::json events = document({"log", "--all", "--json"})["events"];
    ASSERT_GE(events.size(), 4U);  // and the start of the agent
    EXPECT_EQ(events.at(1),
              nlohmann::json::parse(R"({"id": 129, "text": "UPS AC Fail Delay Run out", "cause": 65,
                                                     "time": "2005-03-05T09:08:00", "agent": "pc1"})"));
    const PROGRAM_RESULT csv = run_program({"log", "--first", "1", "--count", "1", "--csv"});
    EXPECT_EQ(csv.output, "time,id,event,cause,agent\n"
                          "2005-03-05 09:08:00,129,\"UPS AC Fail Delay Run out\",65,\"pc1\"\n");
    EXPECT_EQ(run_program({"log", "--first", "60"}).output, "no such lines\n");
}

TEST(VoltariaData, LinesAreShownInEveryForm)
{
    testbed::write_file(testbed::DATA_LOG, RECORDS);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_THAT(run_program({"data"}).output,
                HasSubstr("2005-03-05 09:07:02    100.1     101.2      42      50.1"));
    EXPECT_EQ(run_program({"data", "--first", "1", "--count", "9", "--csv"}).output,
              "time,input_voltage,output_voltage,load,input_frequency,output_frequency,temperature,battery_"
              "voltage\n"
              "2005-03-05 09:17:02,99.9,101.2,43,50.0,60.2,25.5,27.4\n");
    const nlohmann::json records = document({"data", "--count", "1", "--json"})["records"];
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records.at(0).at("input_voltage"), 99.9);
    EXPECT_EQ(records.at(0).at("time"), "2005-03-05T09:17:02");
}

TEST(VoltariaLog, ALogThatIsNotThereHasNoLines)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const PROGRAM_RESULT result = run_program({"data", "--all"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "no such lines\n");
}

// ---- Japanese texts ----

TEST(VoltariaTexts, UsersAreReadBackAsTheyWereWritten)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    SESSION monitor;
    EVENT_TABLE events{};
    std::vector<USERSDATA> users;
    bool empty = true;
    ASSERT_TRUE(monitor_ok(monitor_events(monitor.session, events, users, empty)));
    ASSERT_FALSE(empty);
    const std::vector<std::string> names{"ann", "日本", "自社の者", "ｶﾅ混り", "表示"};
    users.assign(names.size(), {});
    for (std::size_t i = 0; i < names.size(); ++i) {
        users[i].UserID = static_cast<std::uint8_t>(i + 1);
        ASSERT_EQ(charset_put_user(names[i], users[i].UserName), "");
        ASSERT_EQ(charset_put_user(names[i] + "@host", users[i].Email), "");
    }
    // The first write into a file without these sections may lose their first keys.
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(monitor_ok(monitor_set_events(monitor.session, events, users)));
    ASSERT_TRUE(monitor_ok(monitor_events(monitor.session, events, users, empty)));
    ASSERT_EQ(users.size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(text_safe(users[i].UserName, TEXT_CODE::ShiftJis), names[i]);
        EXPECT_EQ(text_safe(users[i].Email, TEXT_CODE::ShiftJis), names[i] + "@host");
        EXPECT_EQ(charset_keep_user(users[i].UserName), "");
        EXPECT_EQ(charset_keep_user(users[i].Email), "");
    }
    ASSERT_TRUE(monitor_ok(monitor_set_events(monitor.session, events, users)));
    ASSERT_TRUE(monitor_ok(monitor_events(monitor.session, events, users, empty)));
    ASSERT_EQ(users.size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(text_safe(users[i].UserName, TEXT_CODE::ShiftJis), names[i]);
}

TEST(VoltariaTexts, TheGroupIsReadBackAsItWasWritten)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    SESSION monitor;
    UPS_PARAM param{};
    bool empty = true;
    for (const char *name : {"営業部", "自社ｶﾅ", "SALES"}) {
        ASSERT_TRUE(monitor_ok(monitor_config(monitor.session, param, empty)));
        ASSERT_FALSE(empty);
        ASSERT_EQ(charset_put(name, TEXT_CODE::ShiftJis, param.commparam.Group), "");
        for (int i = 0; i < 2; ++i)
            ASSERT_TRUE(monitor_ok(monitor_set_config(monitor.session, param)));
        ASSERT_TRUE(monitor_ok(monitor_config(monitor.session, param, empty)));
        EXPECT_EQ(text_safe(param.commparam.Group, TEXT_CODE::ShiftJis), name);
    }
}

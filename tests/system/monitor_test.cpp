// `voltaria` as a person or a script uses it against the real daemon and a simulated unit: what it shows, how
// it ends, and what a watcher sees when the mains fails.
#include "bed.h"

#include "tests/unit/monitor_terminal.h"

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

using namespace bed;
using testbed::Child;
using testbed::Daemon;
using testbed::Simulator;
using testbed::SimulatorOptions;
using testing::HasSubstr;

namespace
{

// The unit's status line with a number of its own at every place.
constexpr char STATUS_LINE[] = "reply Q1 \"(098.7 101.2 102.3 042 50.1 27.4 31.5 00000000\\r\"";

// A unit that gives the same measurements on every pass, found by the daemon.
struct STEADY_UNIT {
    STEADY_UNIT() : unit(UPSSIM, {}), daemon(VOLTARIAD)
    {
        unit.command(STATUS_LINE);
        unit.command("reply \"Lf ?\" \"60.2\\r\"");
        unit.command("reply \"Bl ?\" \"087\\r\"");
        daemon.start();
        wait_for_status("the unit's measurements", [](const UPS_UPSINFO &info) {
            return info.CommStatus == 2 && info.upsdata.Load == 42 && info.upsdata.BattCap == 87;
        });
    }

    Simulator unit;
    Daemon daemon;
};

nlohmann::json json_status()
{
    const PROGRAM_RESULT result = run_program({"status", "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    return nlohmann::json::parse(result.output);
}

std::function<bool(const std::string &)> showing(const std::string &text)
{
    return [text](const std::string &screen) { return screen.find(text) != std::string::npos; };
}

// Whether a peer's bytes lie at the agent's port that the agent has not read.
bool request_waits_at_the_agent()
{
    std::istringstream table(testbed::read_file("/proc/net/tcp"));
    std::string row;
    while (std::getline(table, row)) {
        std::istringstream fields(row);
        std::string slot, local, remote, state, queues;
        fields >> slot >> local >> remote >> state >> queues;
        if (local.find(":1010") != std::string::npos && state == "01" &&
            queues.find(":00000000") == std::string::npos)
            return true;
    }
    return false;
}

void expect_mains_failure_followed(int columns)
{
    Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    PTY_RUN run({"watch"}, columns, 24);
    EXPECT_TRUE(run.draw_until(showing("on mains"))) << run.terminal.text();
    unit.command("mains fail");
    wait_for_status("mains failure", [](const UPS_UPSINFO &info) { return info.upsstat == 33; });
    EXPECT_TRUE(run.draw_until(showing("mains failure, on battery"))) << run.terminal.text();
    EXPECT_TRUE(run.draw_until(showing(" 0.0 V"))) << run.terminal.text();
    unit.command("mains return");
    wait_for_status("mains", [](const UPS_UPSINFO &info) { return info.upsstat == 0; });
    EXPECT_TRUE(run.draw_until(showing("on mains"))) << run.terminal.text();
    unit.command("line cut");
    wait_for_link(17);
    EXPECT_TRUE(run.draw_until(showing("not known"))) << run.terminal.text();
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
    EXPECT_FALSE(run.terminal.overran);
}

}  // namespace

TEST(Monitor, ThePageShowsWhatTheUnitMeasures)
{
    const STEADY_UNIT steady;
    const PROGRAM_RESULT result = run_program({"status"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    for (const char *row : {"Agent 127.0.0.1:4112\n", "  Link                  established, /dev/ttyS0\n",
                            "  Model                 ZR900PL\n", "  State                 on mains\n",
                            "  Battery               normal\n", "  Input voltage         98.7 V\n",
                            "  Output voltage        102.3 V\n", "  Input frequency       50.1 Hz\n",
                            "  Output frequency      60.2 Hz\n", "  Load                  42 %\n",
                            "  Battery capacity      87 %\n", "  Temperature           31.5 C\n"})
        EXPECT_THAT(result.output, HasSubstr(row));
}

TEST(Monitor, TheDocumentShowsWhatTheUnitMeasures)
{
    const STEADY_UNIT steady;
    const nlohmann::json document = json_status();
    EXPECT_EQ(document.at("agent").at("host"), "127.0.0.1");
    EXPECT_EQ(document.at("model"), "ZR900PL");
    EXPECT_EQ(document.at("link"),
              nlohmann::json::parse(
                  R"({"code": 2, "text": "established", "port_code": 1, "device": "/dev/ttyS0"})"));
    EXPECT_EQ(document.at("ups"), nlohmann::json::parse(R"({"code": 0, "text": "on mains"})"));
    EXPECT_EQ(document.at("battery").at("code"), 1);
    const nlohmann::json &measured = document.at("measurements");
    EXPECT_EQ(measured.at("input_voltage"), 98.7);
    EXPECT_EQ(measured.at("output_voltage"), 102.3);
    EXPECT_EQ(measured.at("input_frequency"), 50.1);
    EXPECT_EQ(measured.at("output_frequency"), 60.2);
    EXPECT_EQ(measured.at("load"), 42);
    EXPECT_EQ(measured.at("battery_capacity"), 87);
    EXPECT_EQ(measured.at("temperature"), 31.5);
}

TEST(Monitor, ADaemonThatHasNoUnitIsSaidToHaveLostTheLink)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const PROGRAM_RESULT result = run_program({"status"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("  Link                  lost\n"));
    EXPECT_THAT(result.output, HasSubstr("  State                 not known\n"));
    const nlohmann::json document = json_status();
    EXPECT_EQ(document.at("link").at("code"), 17);
    EXPECT_TRUE(document.at("measurements").is_null());
}

TEST(Monitor, TheAgentIsReachedOnEachOfItsAddresses)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    for (const char *host : {"127.0.0.1", "localhost", "10.77.0.1"})
        EXPECT_EQ(run_program({"status", "--host", host}).status, 0) << host;
}

TEST(Monitor, AnAgentThatClosesWithoutAnAnswerEndsWithOne)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    kill(daemon.agent_pid(), SIGSTOP);
    Child status;
    status.start({VOLTARIA, "status", "--timeout", "100"});
    ASSERT_TRUE(testbed::eventually(PATIENCE, request_waits_at_the_agent));
    kill(daemon.agent_pid(), SIGKILL);
    EXPECT_EQ(status.wait(PATIENCE), 1);
}

TEST(Monitor, AnAgentThatDoesNotAnswerInTimeEndsWithOne)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    kill(daemon.agent_pid(), SIGSTOP);
    const PROGRAM_RESULT result = run_program({"status", "--timeout", "0.3"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("did not answer in time"));
    kill(daemon.agent_pid(), SIGCONT);
    EXPECT_EQ(run_program({"status"}).status, 0);
}

TEST(Monitor, WrongUsageEndsWithTwoEvenWhereAnAgentRuns)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(run_program({}).status, 2);
    EXPECT_EQ(run_program({"status", "--port", "0"}).status, 2);
    EXPECT_EQ(run_program({"watch", "--json"}).status, 2);
}

TEST(Monitor, NoAgentEndsWithThreeBeforeTheStartAndAfterTheEnd)
{
    EXPECT_EQ(run_program({"status"}).status, 3);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(run_program({"status"}).status, 0);
    daemon.stop();
    const PROGRAM_RESULT result = run_program({"status"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("cannot reach 127.0.0.1"));
}

TEST(Monitor, AWatcherOnANarrowTerminalFollowsAMainsFailure)
{
    expect_mains_failure_followed(40);
}

TEST(Monitor, AWatcherOnAWideTerminalFollowsAMainsFailure)
{
    expect_mains_failure_followed(80);
}

TEST(Monitor, AWatcherOutlivesTheDaemonAndFindsTheNextOne)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    PTY_RUN run({"watch"}, 80, 24);
    EXPECT_TRUE(run.draw_until(showing("connected since"))) << run.terminal.text();
    daemon.stop();
    EXPECT_TRUE(run.draw_until(showing("LOST since"))) << run.terminal.text();
    daemon.start();
    EXPECT_TRUE(run.draw_until(showing("connected since"))) << run.terminal.text();
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
}

// `./demo --live` as a visitor has it: keys on a pseudo-terminal, the page that follows, the simulated unit
// behind it, and a terminal that is given back as it was.
#include "bed.h"

#include "tests/unit/monitor_terminal.h"

#include <csignal>

using namespace bed;

namespace
{

const std::string DEMO = PROGRAMS + "/demo_play";

// The demo on a terminal of this kind and size.
struct VISIT {
    explicit VISIT(const std::string &term = "vt100", int columns = 80, int rows = 24, int battery_time = 600)
        : run({"VOLTARIA_SANDBOX=1", "TERM=" + term, DEMO, "--live", "--battery-time",
               std::to_string(battery_time)},
              columns, rows)
    {
    }

    void wait_for(const std::string &text)
    {
        bool seen = false;
        testbed::wait_until(
            "\"" + text + "\" on the terminal", PATIENCE,
            [&] {
                seen = run.draw_until(
                    [&text](const std::string &screen) { return screen.find(text) != std::string::npos; });
                return seen;
            },
            [this] { return run.terminal.text(); });
    }

    void press(const std::string &key, const std::string &text)
    {
        run.type(key);
        wait_for(text);
    }

    // The terminal is as it was when the demo was started.
    void expect_given_back() const
    {
        const termios now = run.settings();
        EXPECT_EQ(now.c_lflag, run.before.c_lflag);
        EXPECT_EQ(now.c_iflag, run.before.c_iflag);
        EXPECT_EQ(now.c_oflag, run.before.c_oflag);
        EXPECT_EQ(now.c_cc[VINTR], run.before.c_cc[VINTR]);
        EXPECT_EQ(now.c_cc[VSUSP], run.before.c_cc[VSUSP]);
        EXPECT_EQ(now.c_cc[VQUIT], run.before.c_cc[VQUIT]);
    }

    void quit(const std::string &key = "q")
    {
        run.type(key);
        EXPECT_EQ(run.wait(), 0) << run.terminal.text();
        expect_given_back();
    }

    PTY_RUN run;
};

// What the simulated unit says of itself.
std::string unit()
{
    return testbed::run({UPSSIM, "--control", "/run/voltaria-test/ups.control", "--ask", "status"}).output;
}

void wait_for_unit(const std::string &part)
{
    testbed::wait_until(
        part + " in the unit's state", PATIENCE, [&part] { return unit().find(part) != std::string::npos; },
        unit);
}

}  // namespace

TEST(DemoLive, EachKeyIsFollowedByTheUnitAndThePage)
{
    VISIT visit;
    visit.wait_for("All is well. f lets mains fail.");
    visit.press("f", "you      mains fails");
    wait_for_unit("\"mains\":false");
    visit.wait_for("unless mains returns (r).");
    visit.press("r", "you      mains returns");
    wait_for_unit("\"mains\":true");
    visit.wait_for("users    wall: UPS AC Restore");
    visit.press("d", "you      the battery is drained to 10 %");
    wait_for_unit("\"battery_low\":true");
    visit.press("c", "you      the battery is charged");
    wait_for_unit("\"battery_low\":false");
    visit.press("+", "you      more load: 55 %");
    wait_for_unit("\"load\":5");
    visit.press("-", "you      less load: 35 %");
    wait_for_unit("\"load\":3");
    visit.press("b", "you      nothing: the machine is up");
    EXPECT_FALSE(visit.run.terminal.overran);
    visit.quit();
}

TEST(DemoLive, ACutLineIsNoticedAndComesBack)
{
    VISIT visit;
    visit.wait_for("All is well.");
    visit.press("l", "you      the serial line is cut");
    wait_for_unit("\"line_cut\":true");
    visit.wait_for("Nothing comes over the line. p plugs it in again.");
    visit.press("p", "you      the serial line is plugged in again");
    wait_for_unit("\"line_cut\":false");
    visit.wait_for("All is well.");
    visit.quit();
}

TEST(DemoLive, AMachineThatWasTakenDownStartsAgainWithAKey)
{
    VISIT visit("vt100", 80, 24, 3);
    visit.wait_for("All is well.");
    visit.press("f", "The agent has taken this machine down");
    visit.wait_for("It called /sbin/shutdown -h -t0 0");
    visit.wait_for("It was ordered S.3; it");
    visit.press("b", "you      the machine starts again");
    wait_for_unit("\"counting_down\":false");
    visit.wait_for("All is well.");
    visit.quit();
}

TEST(DemoLive, AnAgentThatDiesIsToldAndStartsAgainWithAKey)
{
    VISIT visit;
    visit.wait_for("All is well.");
    for (const testbed::ProcessInfo &process : testbed::processes_of(VOLTARIAD))
        EXPECT_EQ(kill(process.pid, SIGKILL), 0);
    visit.wait_for("voltariad has ended, and not by an order of its own.");
    visit.press("b", "All is well.");
    visit.quit("Q");
}

TEST(DemoLive, SmallTerminalsKeepTheKeysInSight)
{
    VISIT visit("vt100", 40, 12);
    visit.wait_for("q quit");
    visit.press("f", "mains fails");
    EXPECT_FALSE(visit.run.terminal.overran);
    visit.run.resize(60, 20);
    visit.wait_for("b start again   q quit");
    visit.wait_for("you      mains fails");
    visit.press("r", "mains returns");
    EXPECT_FALSE(visit.run.terminal.overran);
    visit.quit();
}

TEST(DemoLive, ATerminalWithoutACursorGetsLines)
{
    VISIT visit("dumb", 100, 60);
    visit.wait_for("load: + up, - down");
    visit.wait_for("All is well.");
    visit.press("f", "you      mains fails");
    visit.wait_for("UPS mains failure, on battery");
    visit.quit();
}

using ENDING = std::pair<std::string, int>;  // kind of terminal, signal

class DemoLiveEnds : public testing::TestWithParam<ENDING>
{
};

TEST_P(DemoLiveEnds, ByASignalGivesTheTerminalBack)
{
    VISIT visit(GetParam().first);
    testbed::wait_until("the demo to take the terminal", PATIENCE, [&visit] {
        return visit.run.draw_until([&visit](const std::string &) {
            return visit.run.settings().c_lflag != visit.run.before.c_lflag;
        });
    });
    EXPECT_EQ(kill(visit.run.pid, GetParam().second), 0);
    EXPECT_EQ(visit.run.wait(), 0);
    visit.expect_given_back();
    EXPECT_TRUE(testbed::processes_of(UPSSIM).empty());
    EXPECT_TRUE(testbed::processes_of(VOLTARIAD).empty());
}

INSTANTIATE_TEST_SUITE_P(Terminals, DemoLiveEnds,
                         testing::Values(ENDING{"xterm", SIGTERM}, ENDING{"linux", SIGHUP},
                                         ENDING{"dumb", SIGQUIT}),
                         [](const auto &ending) { return ending.param.first; });

TEST(DemoLive, CtrlCEndsItAndGivesTheTerminalBack)
{
    VISIT visit;
    visit.wait_for("voltariad looks for the UPS");
    visit.quit("\x03");
}

TEST(DemoLive, WithoutATerminalItSaysSo)
{
    const testbed::RunResult result = testbed::run({DEMO, "--live"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.errors, "--live wants a terminal\n");
}

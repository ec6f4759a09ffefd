// The final shutdown: its way back, the grace, the order of what is told, what the unit is told, and the
// program that takes the agent's place.
#include "tests/unit/engine_action_fixture.h"

#include "agent_utils.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>

class Down : public Action
{
  protected:
    void SetUp() override
    {
        Action::SetUp();
        for (UPS_EVENTINFO &row : events)
            row.BroadcastType = 3;
        ups.ui.CommStatus = COMM_ESTABLISHED;
        ups.up.commparam.AgentType = AGENTTYPE_LOW;
        ein.DATA.upsconfigp = &ups.up;
        engine.TURNOFFDELAY = 180;
        begin(AC_FAIL, 0);
    }

    // A deadline has just been reached.
    void begin(REASON reason, int grace)
    {
        engine.ISSHUTTINGDOWN = 1;
        engine.DOWNREACHED = 1;
        engine.downreason = reason;
        engine.GRACE_PERIOD = grace;
        engine.next_off = timenow();
        engine.downpoint = engine.next_off + grace;
        engine.gracestart = utils_monotonicms();
        ups.ui.ShutdownS = 1;
    }

    int step()
    {
        return shutdown_system(&ein, &eout);
    }

    // Arguments of the unit's order; empty when there was none.
    static std::vector<std::pair<int, int>> orders()
    {
        std::vector<std::pair<int, int>> all;
        for (const auto &[code, arg, value] : recorder.calls)
            if (code == E_CB_UPSDOWN)
                all.emplace_back(arg, value);
        return all;
    }

    static void put_shutdown_program(std::string_view script)
    {
        write_file("/sbin/shutdown", script);
        ASSERT_EQ(chmod("/sbin/shutdown", 0755), 0);
    }
};

// ---- the grace's length ----

TEST_F(Down, TheNetworkGraceFollowsTheRole)
{
    for (const auto &[type, minutes] : {std::pair{0u, 0}, {1u, 0}, {4u, 0}, {5u, 1}, {6u, 2}, {7u, 0}}) {
        ups.up.commparam.AgentType = type;
        EXPECT_EQ(getnetshutdowntime(&ein), minutes) << type;
    }
    ein.DATA.upsconfigp = nullptr;
    EXPECT_EQ(getnetshutdowntime(&ein), 0);
}

// ---- abandoned ----

TEST_F(Down, WithTheLinkDownTheShutdownIsAbandoned)
{
    for (const std::int8_t link : {COMM_LOST, COMM_NOUPS}) {
        begin(WEEKLY, 60);
        engine.USR_off = engine.SCH_off = engine.SCH_boot = 77;
        ups.ui.CommandDownS = 1;
        ups.ui.nextdown.day = ups.ui.nextboot.day = 5;
        ups.ui.CommStatus = link;
        EXPECT_EQ(step(), 0);
        EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
        EXPECT_EQ(engine.SHUTTINGDOWNINLOST, 1);
        EXPECT_EQ(engine.DOWNREACHED, 0);
        EXPECT_EQ(engine.downreason, NONE);
        EXPECT_EQ(engine.USR_off + engine.SCH_off + engine.SCH_boot, 0);
        EXPECT_EQ(ups.ui.ShutdownS + ups.ui.CommandDownS, 0);
        EXPECT_EQ(ups.ui.nextdown.day + ups.ui.nextboot.day, 0);
    }
    EXPECT_TRUE(recorder.calls.empty());
}

TEST_F(Down, AnotherAgentsOrderIsCarriedOutWithoutALink)
{
    begin(OTHERAGEDOWN, 0);
    ups.ui.CommStatus = COMM_LOST;
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(orders().size(), 1u);
}

TEST_F(Down, AnotherAgentsOrderThatIsNowIgnoredGoesNoFurther)
{
    begin(OTHERAGEDOWN, 60);
    ups.up.commparam.bIgnore = 1;
    EXPECT_EQ(step(), 0);
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_TRUE(logged().empty());
}

// ---- the grace ----

TEST_F(Down, TheGraceIsAnnouncedOnceAndWaitedOut)
{
    begin(USER_SPECIFY, 60);
    ups.up.commparam.AgentType = AGENTTYPE_NORMAL;
    engine.shutdowneventid = 133;
    event(133).BroadcastType = 0;
    for (int second = 0; second < 59; ++second) {
        EXPECT_EQ(step(), 0);
        advance(1);
    }
    EXPECT_EQ(recorder.english, Lines{"The system will shutdown in 1 minutes"});
    EXPECT_EQ(recorder.localised.size(), 1u);
    EXPECT_EQ(lines(), Lines{"wall <The system will shutdown in 1 minutes\n"});
    EXPECT_TRUE(orders().empty());
    advance(1);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(orders().size(), 1u);
}

TEST_F(Down, WithoutAnEventTheGraceIsToldToMonitorsAlone)
{
    begin(USER_SPECIFY, 120);
    ups.up.commparam.AgentType = AGENTTYPE_HIGH;
    event(255).BroadcastType = 0;
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(recorder.english, Lines{"The system will shutdown in 2 minutes"});
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(Down, ASecondShutdownSoonAfterGivesNoNotice)
{
    begin(USER_SPECIFY, 60);
    step();
    advance(9'999);
    begin(USER_SPECIFY, 60);
    step();
    EXPECT_EQ(recorder.english.size(), 1u);
    advance(1);
    begin(USER_SPECIFY, 60);
    step();
    EXPECT_EQ(recorder.english.size(), 2u);
}

TEST_F(Down, AClockThatIsSetNeitherSilencesTheNoticeNorRepeatsIt)
{
    begin(USER_SPECIFY, 60);
    step();
    set_clock(timenow() - 86'400);
    step();
    begin(USER_SPECIFY, 60);
    set_clock(timenow() + 20'000);
    engine.downpoint = timenow() + 60;
    step();
    EXPECT_EQ(recorder.english.size(), 1u);
    set_clock(timenow() - 100 * 86'400);
    advance(10'000);
    begin(USER_SPECIFY, 60);
    step();
    EXPECT_EQ(recorder.english.size(), 2u);
}

TEST_F(Down, WhoeverIgnoresOtherAgentsHasNoGrace)
{
    begin(AC_FAIL, 120);
    ups.up.commparam.bIgnore = 1;
    EXPECT_EQ(step(), 0);
    EXPECT_TRUE(recorder.english.empty());
    EXPECT_EQ(orders().size(), 1u);
}

TEST_F(Down, AClockThatIsSetBackDoesNotKeepTheMachineUp)
{
    begin(AC_FAIL, 60);
    step();
    set_clock(timenow() - 86'400);
    advance(58);
    step();
    EXPECT_TRUE(orders().empty());
    advance(2);
    step();
    EXPECT_EQ(orders().size(), 1u);
}

TEST_F(Down, AClockThatReachesTheMomentEndsTheGrace)
{
    begin(AC_FAIL, 60);
    step();
    set_clock(timenow() + 60);
    step();
    EXPECT_EQ(orders().size(), 1u);
}

// ---- what is told ----

TEST_F(Down, EverybodyIsToldInOrder)
{
    field_set(engine.g_agent_name, "other");
    field_set(engine.g_localname, "here");
    event(134).Shutdown = 0;  // as it is by default it would name itself as the cause
    engine.DOWNEVENTID = 129;
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(logged(), (std::vector{134, 22, 8}));
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{E_CB_UPSDOWN, 180, -1}, {BROADCASTDOWN, 0, 0}}));
    EXPECT_NE(read_file(LOG_PATH).find(" 22 129"), std::string::npos);
    EXPECT_EQ(std::filesystem::current_path(), "/");
    const std::string debug = testbed::read_debug();
    const std::size_t first = debug.find("Enter shutdown_system(). send command to ups\n");
    const std::size_t second = debug.find("Enter shutdown_system(). send shutdown to sys\n");
    EXPECT_LT(first, second);
    EXPECT_NE(second, std::string::npos);
}

TEST_F(Down, TheUnitIsOrderedOffOnceTheEndIsLoggedAndTheStopComesLast)
{
    std::vector<std::pair<int, std::vector<int>>> story;
    recorder.watch = [&](int code) { story.emplace_back(code, logged()); };
    EXPECT_EQ(step(), 0);
    const std::vector<std::pair<int, std::vector<int>>> told = {{E_CB_UPSDOWN, {22}}, {BROADCASTDOWN, {22}}};
    EXPECT_EQ(story, told);
    EXPECT_EQ(logged(), (std::vector{22, 8}));
}

TEST_F(Down, ThisHostsOwnOrderIsNotAnotherAgents)
{
    field_set(engine.g_agent_name, "here");
    field_set(engine.g_localname, "here");
    step();
    EXPECT_EQ(logged(), (std::vector{22, 8}));
}

TEST_F(Down, AnotherAgentsArrivalIsNotToldWhenIgnored)
{
    field_set(engine.g_agent_name, "other");
    ups.up.commparam.bIgnore = 1;
    step();
    EXPECT_EQ(logged(), (std::vector{22, 8}));
}

// ---- what the unit is told ----

TEST_F(Down, AUnitComesBackOnForASchedule)
{
    const auto restart = [&](REASON reason, int duration, std::int64_t span) {
        recorder = Recorder{};
        advance(1);
        begin(reason, 0);
        engine.DownDuration = duration;
        engine.offBootSpan = span;
        step();
        return orders().at(0).second;
    };
    for (const REASON reason : {SPECIAL, WEEKLY, MONTHLY}) {
        EXPECT_EQ(restart(reason, 3600, 3630), 3450);  // at the time to boot
        EXPECT_EQ(restart(reason, 3600, 180), 3600);
        EXPECT_EQ(restart(reason, 3600, 181), 1);
        EXPECT_EQ(restart(reason, 3600, -5), 3600);
        EXPECT_EQ(restart(reason, 0, 3630), 0);
        EXPECT_EQ(restart(reason, 60, INT64_MAX), INT32_MAX);
    }
    for (const REASON reason : {AC_FAIL, BATT_LOW, EVENT_TRIGGER, USER_SPECIFY, OTHERAGEDOWN})
        EXPECT_EQ(restart(reason, 3600, 3630), -1);
}

TEST_F(Down, AUnitThatCannotBeToldFailsTheShutdownButDoesNotStopIt)
{
    recorder.results[E_CB_UPSDOWN] = -1;
    EXPECT_EQ(step(), -1);
    EXPECT_EQ(logged(), (std::vector{22, 8}));
}

// ---- the program ----

TEST_F(Down, WithoutItsProgramTheEndIsTriedAgainButAnnouncedOnce)
{
    recorder.results[E_CB_UPSDOWN] = -1;
    EXPECT_EQ(step(), -1);
    advance(1);
    EXPECT_EQ(step(), -1);
    recorder.results.clear();
    advance(1);
    EXPECT_EQ(step(), 0);
    advance(1);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(logged(), (std::vector{22, 8}));
    EXPECT_EQ(orders().size(), 3u);  // until it was taken
    EXPECT_EQ(error_text(), "/sbin/shutdown: No such file or directory");
    // Another shutdown is announced again.
    begin(AC_FAIL, 0);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(logged(), (std::vector{22, 8, 22, 8}));
}

TEST_F(Down, AfterAFailedStartTheAgentIsAsItWas)
{
    std::signal(SIGTERM, SIG_IGN);
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigprocmask(SIG_BLOCK, &pipe, nullptr);
    const mode_t before = umask(0);
    step();
    EXPECT_EQ(umask(before), 0u);
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    EXPECT_TRUE(sigismember(&now, SIGPIPE));
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_IGN);
}

TEST_F(Down, TheAgentBecomesTheShutdownProgram)
{
    put_shutdown_program(std::string("#!/bin/sh\nexec > /tmp/state; echo \"$0 $@\"; echo $$; umask; pwd\n") +
                         SHOW_SIGNALS + "ls -l /proc/$$/fd\n");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        sigprocmask(SIG_BLOCK, &pipe, nullptr);
        std::signal(SIGTERM, SIG_IGN);
        umask(0);
        [[maybe_unused]] const int leak = open("/dev/zero", O_RDONLY);
        step();
        _exit(77);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    const std::string state = read_file("/tmp/state");
    EXPECT_EQ(state.substr(0, state.find("total")), "/sbin/shutdown -h -t0 0\n" + std::to_string(child) +
                                                        "\n0022\n/\n0000000000000000\n0000000000000000\n")
        << state;
    EXPECT_EQ(state.find("/dev/zero"), std::string::npos) << state;
}

TEST_F(Down, TheProgramIsCalledByItsName)
{
    std::filesystem::create_symlink("/run/voltaria-test/standin", "/sbin/shutdown");
    const pid_t child = fork();
    if (child == 0) {
        step();
        _exit(77);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    const std::vector<Call> seen = calls_of("shutdown");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].path, "/sbin/shutdown");
    EXPECT_EQ(seen[0].arguments, (Lines{"-h", "-t0", "0"}));
}

// The status monitor's passes as a whole: settings that change, mains failures from begin to end, and what
// must not be taken for one another.
#include "tests/unit/engine_status_fixture.h"

// ---- settings

TEST_F(Monitor, SettingsThatChangeAreAnnouncedOnceEach)
{
    connect();
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 0);
    field_set(ups.up.commparam.Group, "Other");
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 1);
    ups.ui.AgentType = 5;
    ups.up.commparam.bIgnore = 1;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 2);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 0);
}

TEST_F(Monitor, TheFirstPassAnnouncesEverySettingAndTheLink)
{
    ups.up.commparam.bIgnore = 1;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 5);
}

TEST_F(Monitor, AnotherModelLoadsSettingsAndSchedules)
{
    connect();
    write_file(CONFIG_PATH, "\n[ ShutDown ]\n EXPECTBLIFE = 90\n");
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(engine.EXPBLIFE, 60u);
    EXPECT_FALSE(schedules_read());
    set_model("ZR401");
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(engine.EXPBLIFE, 90u);
    EXPECT_TRUE(schedules_read());
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 1);
}

TEST_F(Monitor, TheEndOfASelfTestReadsTheSchedules)
{
    connect();
    set_unit(UPSSTAT_TESTING, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    EXPECT_FALSE(schedules_read());
    set_unit(UPSSTAT_NORMAL, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    EXPECT_TRUE(schedules_read());
    EXPECT_EQ(pass(), 0);
    EXPECT_FALSE(schedules_read());
}

TEST_F(Monitor, TheEndOfASelfTestReadsNoSchedulesOnTheWayDown)
{
    connect(UPSSTAT_TESTING, UPSBIT_TESTING);
    engine.ISSHUTTINGDOWN = 1;
    set_unit(UPSSTAT_NORMAL, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    EXPECT_FALSE(schedules_read());
    engine.ISSHUTTINGDOWN = 0;
    engine.LASTUPSSTAT = UPSSTAT_TESTING;
    engine.ACFAIL_off = 1'078'477'700;
    EXPECT_EQ(pass(), 0);
    EXPECT_FALSE(schedules_read());
}

TEST_F(Monitor, TheCommonSwitchOfTheSchedulesFollowsModelCapabilitiesAndRestart)
{
    const std::array<std::tuple<const char *, std::uint32_t, int, int>, 6> cases = {{
        {"ZM300LT", 0, 1, 1},
        {"ZM300LT", 0, 0, -1},
        {"ZM300LT", UPSBIT_CF, 1, 0},
        {"ZR900PL", 0, 1, 0},
        {"AZM", 0, 0, 0},
        {"", 0, 1, 0},
    }};
    connect();
    for (const auto &[model, bits, reboot, on] : cases) {
        set_model(model);
        set_unit(UPSSTAT_NORMAL, bits);
        ups.ui.bAutoReboot = reboot;
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(engine.sche_on, on) << model << ' ' << bits << ' ' << reboot;
    }
}

TEST_F(Monitor, ARestartSettingThatChangesReadsTheSchedules)
{
    set_model("ZM300LT");
    connect();
    EXPECT_EQ(engine.reboot_old, 1);
    EXPECT_EQ(pass(), 0);
    EXPECT_FALSE(schedules_read());
    ups.ui.bAutoReboot = 0;
    EXPECT_EQ(pass(), 0);
    EXPECT_TRUE(schedules_read());
    EXPECT_EQ(engine.reboot_old, 0);
}

TEST_F(Monitor, ARestartSettingOfAUnitWithoutTheCommonSwitchReadsNothing)
{
    connect();
    for (const int reboot : {0, 1}) {
        ups.ui.bAutoReboot = reboot;
        EXPECT_EQ(pass(), 0);
        EXPECT_FALSE(schedules_read());
        EXPECT_EQ(engine.reboot_old, -1);
    }
}

TEST_F(Monitor, APassRemembersWhatItSaw)
{
    EXPECT_EQ(engine.LASTBATTSTATUS, 1);
    EXPECT_EQ(engine.reboot_old, -1);
    ups.ui.BattStatus = 5;
    connect(UPSSTAT_BYPASS, UPSBIT_BYPASS);
    EXPECT_EQ(engine.LASTUPSSTAT, UPSSTAT_BYPASS);
    EXPECT_EQ(engine.LASTBATTSTATUS, 5);
    EXPECT_EQ(engine.LASTCOMMSTATUS, COMM_ESTABLISHED);
    EXPECT_EQ(engine.last_u_status, UPSBIT_BYPASS);
}

TEST_F(Monitor, AnIgnoredOrderOfAnotherAgentStopsThePassBeforeAnythingElse)
{
    connect();
    engine.downreason = OTHERAGEDOWN;
    engine.beDoCmdDown = 1;
    ups.up.commparam.bIgnore = 1;
    ups.ui.timeinfo = {};
    set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(engine.beDoCmdDown, 1);
    EXPECT_EQ(engine.last_u_status, 0u);
    EXPECT_EQ(ups.ui.timeinfo.year, 0);
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 1);
    ups.up.commparam.bIgnore = 0;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{65});
    EXPECT_EQ(engine.beDoCmdDown, 0);
}

TEST_F(Monitor, AnEventThatFailsFailsThePassWhichGoesOn)
{
    events[25].EventID = 999;  // "UPS Communication established"
    set_link(COMM_ESTABLISHED);
    set_unit(UPSSTAT_NORMAL, UPSBIT_OVERLOAD);
    EXPECT_EQ(pass(), -1);
    EXPECT_EQ(raised, ids{78});
    EXPECT_EQ(count(E_CB_STATUSCHANGED), 1);
    EXPECT_EQ(pass(), 0);
}

TEST_F(Monitor, ARestoreWhoseEventFailsIsNoFailure)
{
    connect();
    fail_mains();
    events[24].EventID = 999;  // "UPS AC Restore"
    set_unit(UPSSTAT_NORMAL, 0);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(recorder.english, texts{"UPS AC Restore"});
}

TEST_F(Monitor, AnIdlePassSendsNothing)
{
    connect();
    EXPECT_EQ(pass(), 0);
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_EQ(raised, ids{});
}

// ---- a mains failure

TEST_F(Monitor, MainsThatReturnInTimeEndTheCountdown)
{
    connect();
    fail_mains();
    EXPECT_EQ(raised, ids{65});
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'622 + 60);
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 1);
    EXPECT_TRUE(recorder.english.empty());
    advance(59);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(engine.ACFAIL_duration, 59);
    engine.BATTLOW_off = 5;
    restore_mains();
    EXPECT_EQ(raised, ids{0});
    EXPECT_EQ(recorder.english, texts{"UPS AC Restore"});
    EXPECT_EQ(recorder.localised, texts{"UPS AC Restore"});
    EXPECT_EQ(engine.ACFAIL_off, 0);
    EXPECT_EQ(engine.BATTLOW_off, 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_EQ(engine.ACFAIL_duration, 0);
    EXPECT_EQ(engine.just_fail, 0);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
}

// With the timer behind each pass, as the agent runs them.
TEST_F(Monitor, TheTimerTakesUpAFailureAndLetsItGo)
{
    connect();
    set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    EXPECT_EQ(act(E_CMD_CHECKSTATUS), 0);
    EXPECT_EQ(engine.downreason, AC_FAIL);
    EXPECT_EQ(engine.next_off, 1'078'477'622 + 60);
    advance(30);
    set_clock(timenow() + 7200);
    EXPECT_EQ(act(E_CMD_CHECKSTATUS), 0);
    EXPECT_EQ(engine.ACFAIL_off, timenow() + 30);
    EXPECT_EQ(engine.downreason, AC_FAIL);
    set_unit(UPSSTAT_NORMAL, 0);
    EXPECT_EQ(act(E_CMD_CHECKSTATUS), 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    EXPECT_EQ(ups.ui.nextdown.year, 0);
}

TEST_F(Monitor, MainsThatReturnAfterTheShutdownHasBegunDoNotStopIt)
{
    connect();
    fail_mains();
    advance(61);
    engine.ISSHUTTINGDOWN = 1;
    const std::time_t deadline = engine.ACFAIL_off;
    restore_mains();
    EXPECT_EQ(raised, ids{0});
    EXPECT_EQ(engine.ACFAIL_off, deadline);
    EXPECT_EQ(engine.downreason, AC_FAIL);
    EXPECT_EQ(engine.just_fail, 0);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(engine.ACFAIL_off, deadline);
}

TEST_F(Monitor, MainsThatReturnDuringAnotherShutdownEndTheirOwnCountdown)
{
    connect();
    fail_mains();
    engine.downreason = USER_SPECIFY;
    engine.ISSHUTTINGDOWN = 1;
    engine.BATTLOW_off = 5;
    restore_mains();
    EXPECT_EQ(engine.ACFAIL_off, 0);
    EXPECT_EQ(engine.BATTLOW_off, 5);
    EXPECT_EQ(engine.downreason, USER_SPECIFY);
}

TEST_F(Monitor, ASecondFailureHasItsFullTime)
{
    connect();
    fail_mains();
    advance(40);
    restore_mains();
    advance(100);
    engine.ACFAIL_duration = 40;
    fail_mains();
    EXPECT_EQ(raised, ids{65});
    EXPECT_EQ(engine.ACFAIL_duration, 0);
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'622 + 140 + 60);
    EXPECT_EQ(acfail_elapsed(), 0);
}

TEST_F(Monitor, AClockSetDuringAFailureDoesNotDisturbTheTimeOnBattery)
{
    connect();
    fail_mains();
    for (const std::time_t jump : {10'000, -20'000}) {
        advance(10);
        set_clock(timenow() + jump);
        EXPECT_EQ(pass(), 0);
    }
    EXPECT_EQ(engine.ACFAIL_duration, 20);
    EXPECT_EQ(acfail_elapsed(), 20);
}

// Run out, the timer would end the process.
TEST_F(Monitor, AStopwatchThatNobodyReadsIsKeptFromRunningOut)
{
    connect();
    fail_mains();
    ups.ui.upsstat = UPSSTAT_NORMAL;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(engine.ACFAIL_off, 0);
        itimerval left{};
        ASSERT_EQ(getitimer(ITIMER_REAL, &left), 0);
        EXPECT_GT(left.it_value.tv_sec, 400'000);
        advance(400'000);
    }
}

TEST_F(Monitor, ALongLifeIsTakenAsASignedSpan)
{
    connect();
    engine.EXPBLIFE = 0xFFFFFFFF;
    fail_mains();
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'622 - 1);
}

TEST_F(Monitor, DeadlinesBeyondTheYear2038AreKept)
{
    set_clock(4'000'000'000);
    connect();
    fail_mains();
    EXPECT_EQ(engine.ACFAIL_off, 4'000'000'060);
}

// Telling an event may take long; the time is read behind it.
TEST_F(Monitor, DeadlinesCountFromWhenTheirEventHasBeenTold)
{
    const std::time_t start = timenow();
    connect();
    set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    pass_that_tells(8, 20);  // "UPS Ac fail"
    EXPECT_EQ(engine.ACFAIL_off, start + 20 + 60);
    set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL | UPSBIT_BATTLOW);
    pass_that_tells(0, 20);  // "UPS Battery Low"
    EXPECT_EQ(engine.BATTLOW_off, start + 40);
    EXPECT_EQ(engine.next_off, start + 40);
    set_link(COMM_LOST);
    EXPECT_EQ(pass(), 0);
    set_link(COMM_ESTABLISHED);
    set_unit(UPSSTAT_NORMAL, 0);
    pass_that_tells(25, 20);  // "UPS Communication established"
    EXPECT_EQ(engine.LASTCOMESTTIME, start + 60);
}

// ---- what must not be taken for one another

TEST_F(Monitor, ASelfTestIsNoMainsFailure)
{
    connect();
    set_unit(UPSSTAT_TESTING, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(engine.ACFAIL_off, 0);
    EXPECT_EQ(engine.ISTESTTING, 1);
    ups.ui.sftResUPS.Result = SELFTEST_PASSED;
    set_unit(UPSSTAT_NORMAL, 0);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{2});
    EXPECT_EQ(engine.ACFAIL_off, 0);
    EXPECT_EQ(engine.ISTESTTING, 0);
}

TEST_F(Monitor, AMainsFailureDuringASelfTestIsToldAndCountsOnAfterIt)
{
    connect();
    set_unit(UPSSTAT_TESTING, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    set_unit(UPSSTAT_ACFAIL, UPSBIT_TESTING | UPSBIT_ACFAIL);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{65});
    advance(10);
    ups.ui.sftResUPS.Result = SELFTEST_PASSED;
    set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{2});
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'622 + 60);
    EXPECT_EQ(acfail_elapsed(), 10);
}

TEST_F(Monitor, AMainsFailureThatEndsATestIsTold)
{
    connect();
    set_unit(UPSSTAT_TESTING, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    ups.ui.sftResUPS.Result = SELFTEST_FAILED;
    set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, (ids{69, 65}));
    EXPECT_NE(engine.ACFAIL_off, 0);
}

TEST_F(Monitor, AMainsFailureDuringAFaultOrOverloadIsTold)
{
    for (const std::int8_t code : {UPSSTAT_FAULT, UPSSTAT_OVERLOAD}) {
        connect();
        set_unit(code, UPSBIT_ACFAIL);
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(pass(), 0);
        EXPECT_NE(engine.ACFAIL_off, 0);
        restore_mains();
        EXPECT_EQ(engine.ACFAIL_off, 0);
    }
}

TEST_F(Monitor, ALostLinkIsNoMainsFailure)
{
    connect();
    set_link(COMM_LOST);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{64});
    ups.upsstat = UPSBIT_ACFAIL;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(raised, ids{});
        EXPECT_EQ(engine.ACFAIL_off, 0);
        EXPECT_EQ(engine.downreason, NONE);
    }
}

// ---- codes and bits that disagree

TEST_F(Monitor, ACodeThatSaysMainsEndsTheCountdown)
{
    for (const std::int8_t code : {UPSSTAT_NORMAL, UPSSTAT_TESTING}) {
        connect();
        fail_mains();
        ups.ui.upsstat = code;
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(raised, ids{});
        EXPECT_EQ(engine.ACFAIL_off, 0);
        EXPECT_EQ(engine.downreason, NONE);
        EXPECT_EQ(engine.just_fail, 1);
        restore_mains();
        EXPECT_EQ(raised, ids{0});
        EXPECT_EQ(engine.just_fail, 0);
    }
}

TEST_F(Monitor, ACodeThatSaysMainsDoesNotStopAShutdownUnderWay)
{
    connect();
    fail_mains();
    engine.ISSHUTTINGDOWN = 1;
    const std::time_t deadline = engine.ACFAIL_off;
    ups.ui.upsstat = UPSSTAT_NORMAL;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(engine.ACFAIL_off, deadline);
    EXPECT_EQ(engine.downreason, AC_FAIL);
}

TEST_F(Monitor, AFailureWhoseCountdownWasEndedByAPassingCodeIsToldAgain)
{
    connect();
    fail_mains();
    ups.ui.upsstat = UPSSTAT_NORMAL;
    EXPECT_EQ(pass(), 0);
    ups.ui.upsstat = UPSSTAT_ACFAIL;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    advance(5);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{65});
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'627 + 60);
    EXPECT_EQ(acfail_elapsed(), 0);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
}

TEST_F(Monitor, ACodeOfAFailureWithoutItsBitTellsNothing)
{
    connect();
    set_unit(UPSSTAT_ACFAIL, 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(raised, ids{});
        EXPECT_EQ(engine.ACFAIL_off, 0);
    }
}

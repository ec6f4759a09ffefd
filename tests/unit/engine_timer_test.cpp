// The shutdown timer: which deadline is in force, what is said before it, what happens when it is reached.
#include "tests/unit/engine_timer_fixture.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// ---- which deadline ----

TEST_F(EngineTimer, NothingSetIsNoDeadline)
{
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_THAT(recorder.calls, IsEmpty());
}

TEST_F(EngineTimer, TheEarliestDeadlineIsInForceWithItsReason)
{
    const std::time_t now = timenow();
    struct CASE {
        std::time_t user, acfail, scheduled, deadline;
        REASON reason;
    };
    for (const CASE &c : {CASE{2000, 0, 0, 2000, USER_SPECIFY}, CASE{0, 3000, 0, 3000, AC_FAIL},
                          CASE{0, 0, 4000, 4000, WEEKLY}, CASE{2000, 3000, 4000, 2000, USER_SPECIFY},
                          CASE{3000, 2000, 4000, 2000, AC_FAIL}, CASE{3000, 0, 2000, 2000, WEEKLY},
                          CASE{0, 3000, 2000, 2000, WEEKLY}, CASE{2000, 2000, 0, 2000, AC_FAIL}}) {
        engine.downreason = NONE;
        engine.USR_off = c.user != 0 ? now + c.user : 0;
        engine.ACFAIL_off = c.acfail != 0 ? now + c.acfail : 0;
        schedule_at(c.scheduled != 0 ? now + c.scheduled : 0);
        step();
        EXPECT_EQ(engine.next_off, now + c.deadline);
        EXPECT_EQ(engine.downreason, c.reason);
    }
}

TEST_F(EngineTimer, UserAndScheduleAtTheSameSecondGiveTheUsersTimeAndTheSchedulesReason)
{
    engine.USR_off = timenow() + 2000;
    schedule_at(timenow() + 2000, MONTHLY);
    step();
    EXPECT_EQ(engine.next_off, engine.USR_off);
    EXPECT_EQ(engine.downreason, MONTHLY);
}

TEST_F(EngineTimer, SettledReasonsKeepTheirDeadline)
{
    for (const REASON reason : {BATT_LOW, EVENT_TRIGGER, OTHERAGEDOWN}) {
        engine.downreason = reason;
        engine.next_off = timenow() + 5000;
        engine.BATTLOW_off = engine.EVENTTRIGGER_off = engine.OTHERAG_off = engine.next_off;
        engine.USR_off = timenow() + 1000;
        step();
        EXPECT_EQ(engine.next_off, timenow() + 5000);
        EXPECT_EQ(engine.downreason, reason);
    }
}

// ---- mains failure ----

TEST_F(EngineTimer, TheDefaultCountdownWarnsAtThirtyAndAtZeroSecondsAndThenGoesDown)
{
    fail_mains();
    EXPECT_EQ(seconds_to_shutdown(100), 61);  // strictly after the deadline
    EXPECT_THAT(recorder.english,
                ElementsAre("UPS Ac fail, System will be shut down in 0 minute(s) and 30 second(s).",
                            "UPS Ac fail, System will be shut down in 0 minute(s) and 0 second(s).",
                            "Time is up! System shutdown will be executed soon"));
    EXPECT_EQ(recorder.localised.size(), 3u);
    EXPECT_THAT(recorder.agents, ElementsAre("Time is up! System shutdown will be executed soon"));
    EXPECT_EQ(engine.DOWNREACHED, 1);
    EXPECT_EQ(ups.ui.ShutdownS, 1);
}

TEST_F(EngineTimer, WarningsAnnounceTheGraceToo)
{
    engine.ISSERVERAGLOW = 0;
    engine.ISSERVERAGHIGH = 1;
    fail_mains();
    EXPECT_EQ(seconds_to_shutdown(100), 61);
    EXPECT_EQ(recorder.english.front(),
              "UPS Ac fail, System will be shut down in 2 minute(s) and 30 second(s).");
}

TEST_F(EngineTimer, IgnoringOtherAgentsLeavesTheGraceOutOfTheWarnings)
{
    engine.ISSERVERAGLOW = 0;
    engine.ISSERVERAGHIGH = 1;
    ups.up.commparam.bIgnore = 1;
    fail_mains();
    EXPECT_EQ(seconds_to_shutdown(100), 61);
    EXPECT_EQ(recorder.english.front(),
              "UPS Ac fail, System will be shut down in 0 minute(s) and 30 second(s).");
}

TEST_F(EngineTimer, AFirstWarningBehindTheWholeTimeOnBatteryWarnsFromTheBegin)
{
    engine.PFAILCOUNT = static_cast<std::uint32_t>(60 - 120);
    fail_mains();
    step();
    EXPECT_THAT(recorder.english,
                ElementsAre("UPS Ac fail, System will be shut down in 1 minute(s) and 0 second(s)."));
}

TEST_F(EngineTimer, SettingTheClockDoesNotDisturbTheTimeOnBattery)
{
    for (const std::time_t shift : {7200, -7200, 86400 * 400}) {
        engine.ISSHUTTINGDOWN = 0;
        engine.downreason = NONE;
        fail_mains();
        for (int second = 0; second < 20; ++second) {
            step();
            advance(1);
        }
        set_clock(timenow() + shift);
        EXPECT_EQ(seconds_to_shutdown(100), 41) << shift;
    }
}

TEST_F(EngineTimer, AClockSetBackDoesNotSilenceTheWarnings)
{
    engine.EXPBLIFE = 300;
    engine.PFAILCOUNT = 300;
    fail_mains();
    step();
    set_clock(timenow() - 7200);
    recorder.english.clear();
    advance(30);
    step();
    EXPECT_EQ(recorder.english.size(), 1u);
}

// ---- schedules ----

TEST_F(EngineTimer, AScheduleIsAnnouncedFromItsLeadOnEveryFiveMinutesThenEveryMinute)
{
    engine.SCHCOUNT = 1200;
    const std::time_t off = timenow() + 1300;
    schedule_at(off, SPECIAL);
    std::vector<std::time_t> told;
    while (engine.ISSHUTTINGDOWN == 0 && timenow() <= off) {
        recorder.english.clear();
        step();
        if (!recorder.english.empty())
            told.push_back(off - timenow());
        advance(1);
    }
    EXPECT_THAT(told, ElementsAre(1200, 900, 600, 540, 480, 420, 360, 300, 240, 180, 120, 60, 0));
    EXPECT_THAT(logged(), ElementsAre(74, 130, 80, 22, 8));
}

TEST_F(EngineTimer, EachKindOfScheduleHasItsOwnEventsAndWords)
{
    struct CASE {
        REASON reason;
        const char *word;
        std::vector<int> ids;
    };
    const std::time_t start = timenow();
    for (const CASE &c :
         {CASE{SPECIAL, "specialday", {74, 130, 80, 22, 8}}, CASE{WEEKLY, "weekly", {75, 131, 80, 22, 8}},
          CASE{MONTHLY, "monthly", {76, 132, 80, 22, 8}}}) {
        Engine::TearDown();
        SetUp();
        set_clock(start);
        schedule_at(timenow() + 30, c.reason);
        EXPECT_EQ(seconds_to_shutdown(60), 30);
        EXPECT_EQ(recorder.english.front(), "system shutdown warning begin(schedule:" + std::string(c.word) +
                                                ") Date:2004-3-5 Time: 09:07:00.");
        EXPECT_EQ(recorder.localised.front(), "system shutdown warning begin(schedule:" +
                                                  std::string(c.word) + ") 2004year  3month  5day 09:07:00.");
        EXPECT_EQ(logged(), c.ids);
        EXPECT_EQ(engine.shutdowneventid, c.ids[1]);
    }
}

TEST_F(EngineTimer, AScheduleDueWhileTheLinkIsDownIsDropped)
{
    ups.ui.CommStatus = COMM_LOST;
    schedule_at(timenow());
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(EngineTimer, AScheduleDueWithoutALinkIsNotCarriedOutWhenTheLinkIsBack)
{
    for (const REASON reason : {SPECIAL, WEEKLY, MONTHLY})
        for (const int lost : {COMM_LOST, COMM_NOUPS}) {
            engine.DOWNREACHED = 1;
            ups.ui.CommStatus = static_cast<std::int8_t>(lost);
            schedule_at(timenow(), reason);
            step();
            EXPECT_EQ(engine.DOWNREACHED, 0);
            ups.ui.CommStatus = COMM_ESTABLISHED;
            advance(1);
            step();
            EXPECT_EQ(engine.ISSHUTTINGDOWN, 0) << reason;
            EXPECT_EQ(engine.next_off, 0) << reason;
        }
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(EngineTimer, AScheduleMissedWithoutALinkIsNotFoundAgainInItsMinute)
{
    write_file(CONFIG_PATH, "\n[ ScheShutDown ]\n WEEKLYNO = 1\n WEEKLYSTART1 = 7 9 * * 5\n"
                            " WEEKLYEND1 = 7 10 * * 5\n");
    getschlist();
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 5, 9, 7, 0));
    ups.ui.CommStatus = COMM_LOST;
    step();
    ups.ui.CommStatus = COMM_ESTABLISHED;
    getschlist();
    EXPECT_EQ(engine.SCH_off, 0);
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    advance(60);
    step();
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 12, 9, 7, 0));
}

TEST_F(EngineTimer, AScheduleMoreThanAMinuteAgoIsDropped)
{
    schedule_at(timenow() - 61);
    step();
    EXPECT_EQ(engine.SCH_off, 0);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    schedule_at(timenow() - 60);
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
}

TEST_F(EngineTimer, AClockSetBackFindsTheScheduleThatLiesAheadAgain)
{
    write_file(CONFIG_PATH, "\n[ ScheShutDown ]\n WEEKLYNO = 1\n WEEKLYSTART1 = 0 9 * * 5\n"
                            " WEEKLYEND1 = 0 10 * * 5\n");
    getschlist();
    step();
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 12, 9, 0, 0));
    set_clock(local_time(2004, 3, 5, 8, 30, 0));
    step();
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 5, 9, 0, 0));
}

TEST_F(EngineTimer, TheWarningEventIsNotRaisedTwiceAroundAnAcFailure)
{
    schedule_at(timenow() + 500);
    step();
    EXPECT_THAT(logged(), ElementsAre(75));
    fail_mains();
    advance(1);
    step();
    EXPECT_EQ(engine.downreason, AC_FAIL);
    advance(1);
    step();
    engine.ACFAIL_off = 0;
    engine.just_fail = 0;
    for (int second = 0; second < 200; ++second) {
        step();
        advance(1);
    }
    EXPECT_EQ(engine.downreason, WEEKLY);
    EXPECT_THAT(logged(), ElementsAre(75));
}

TEST_F(EngineTimer, SchedulesAreReadAgainWhenTheLinkReturnsAfterABrokenOffShutdown)
{
    write_file(CONFIG_PATH, "\n[ ScheShutDown ]\n WEEKLYNO = 1\n WEEKLYSTART1 = 0 9 * * 6\n"
                            " WEEKLYEND1 = 0 10 * * 6\n");
    engine.SHUTTINGDOWNINLOST = 1;
    ups.ui.CommStatus = COMM_LOST;
    step();
    EXPECT_EQ(engine.SCH_off, 0);
    EXPECT_EQ(engine.SHUTTINGDOWNINLOST, 1);
    ups.ui.CommStatus = COMM_ESTABLISHED;
    step();
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 6, 9, 0, 0));
    EXPECT_EQ(engine.SHUTTINGDOWNINLOST, 0);
}

// ---- the other causes ----

TEST_F(EngineTimer, BatteryLowIsDueAtOnceAndSaysSo)
{
    engine.downreason = BATT_LOW;
    engine.BATTLOW_off = engine.next_off = timenow();
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(engine.DOWNREACHED, 1);
    EXPECT_EQ(engine.shutdowneventid, 128);
    EXPECT_EQ(recorder.english.front(), "The system will begin shutdown process due to Battery Low");
    EXPECT_THAT(logged(), ElementsAre(80, 22, 8));
}

TEST_F(EngineTimer, AnEventThatTriggersAShutdownIsNamed)
{
    engine.downreason = EVENT_TRIGGER;
    engine.EVENTTRIGGER_off = engine.next_off = timenow();
    engine.DOWNEVENTID = 77;
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(engine.DOWNREACHED, 0);
    EXPECT_EQ(engine.shutdowneventid, 77);
    EXPECT_EQ(recorder.english.front(), "UPS abnormal, The system will begin shutdown process.");
}

TEST_F(EngineTimer, AUsersShutdownIsAnnouncedOnceWithinTheLead)
{
    engine.USR_off = timenow() + 700;
    for (int second = 0; second < 650; ++second) {
        step();
        advance(1);
    }
    EXPECT_THAT(recorder.english, ElementsAre(HasSubstr("Receive shutdown Command From Users on")));
    EXPECT_EQ(engine.shutdowneventid, 79);
    EXPECT_EQ(seconds_to_shutdown(60), 50);
    EXPECT_THAT(logged(), ElementsAre(133, 22, 8));
    EXPECT_EQ(engine.shutdowneventid, 133);
}

TEST_F(EngineTimer, AUsersOrderFromAnotherHostIsToldAsAnotherAgents)
{
    UPS_AGENTDOWNINFO order{};
    field_set(order.Agent, "elsewhere");
    AGENTCMD command{DATAID_SHUTDOWN, {&order}};
    ein.DATA.acp = &command;
    engine.CURRENTCMD = E_CMD_DOCOMMAND;
    engine.beDoCmdDown = 1;
    engine.USR_off = timenow();
    schedule(&ein, &eout);
    EXPECT_EQ(field_view(engine.g_agent_name), "elsewhere");
    EXPECT_EQ(field_view(engine.g_localname), "voltaria-test");
    EXPECT_THAT(logged(), ElementsAre(133, 80, 134, 22, 8));
}

TEST_F(EngineTimer, AUsersOrderThatNamesThisHostIsNoOtherAgents)
{
    UPS_AGENTDOWNINFO order{};
    field_set(order.Agent, "voltaria-test");
    AGENTCMD command{DATAID_SHUTDOWN, {&order}};
    ein.DATA.acp = &command;
    engine.CURRENTCMD = E_CMD_DOCOMMAND;
    engine.beDoCmdDown = 1;
    engine.USR_off = timenow();
    schedule(&ein, &eout);
    EXPECT_THAT(logged(), ElementsAre(133, 22, 8));
}

TEST_F(EngineTimer, AnOrderOfALaterCallIsNotReadFromAnEarlierOnesRecord)
{
    engine.beDoCmdDown = 1;
    engine.USR_off = timenow() + 100;
    ein.DATA.acp = reinterpret_cast<AGENTCMD *>(1);
    step();
    EXPECT_EQ(field_view(engine.g_agent_name), "");
}

TEST_F(EngineTimer, AnotherAgentsOrderIsCarriedOutAtOnce)
{
    engine.downreason = OTHERAGEDOWN;
    engine.OTHERAG_off = engine.next_off = timenow();
    field_set(engine.agentname, "elsewhere");
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(recorder.english.front(), "The system will begin shutdown process due to agent on elsewhere");
    EXPECT_THAT(recorder.agents, IsEmpty());
    EXPECT_THAT(logged(), ElementsAre(80, 134, 22, 8));
}

TEST_F(EngineTimer, AnotherAgentsOrderInThisHostsNameOrIgnoredIsNotCarriedOut)
{
    engine.downreason = OTHERAGEDOWN;
    engine.OTHERAG_off = engine.next_off = timenow();
    field_set(engine.agentname, "voltaria-test");
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    EXPECT_EQ(engine.downreason, NONE) << "other deadlines must count again";
    engine.downreason = OTHERAGEDOWN;
    engine.OTHERAG_off = engine.next_off = timenow();
    field_set(engine.agentname, "elsewhere");
    ups.up.commparam.bIgnore = 1;
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(EngineTimer, IgnoringCallsOffAnotherAgentsShutdownInItsGrace)
{
    engine.ISSERVERAGLOW = 0;
    engine.ISSERVERAGNORMAL = 1;
    engine.downreason = OTHERAGEDOWN;
    engine.OTHERAG_off = engine.next_off = timenow();
    field_set(engine.agentname, "elsewhere");
    step();
    EXPECT_EQ(ups.ui.ShutdownS, 1);
    ups.up.commparam.bIgnore = 1;
    advance(10);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_EQ(engine.OTHERAG_off, 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_EQ(ups.ui.ShutdownS, 0);
}

// The start of the agent fails with a failed step: a disk that is full must not keep it from starting.
TEST_F(EngineTimer, AnEventThatCouldNotBeLoggedDoesNotFailTheStep)
{
    std::filesystem::create_symlink("/dev/full", LOG_PATH);
    schedule_at(timenow() + 30);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(engine.HASBGNWEE, 1);
    advance(30);
    EXPECT_EQ(step(), 0);
    EXPECT_EQ(engine.DOWNREACHED, 1);
}

TEST_F(EngineTimer, ATextThatCouldNotBeSentFailsTheStep)
{
    recorder.results[E_CB_MESSAGE] = -1;
    schedule_at(timenow() + 30);
    EXPECT_EQ(step(), -1);
    recorder.results[E_CB_MESSAGE] = 0;
    recorder.results[E_CB_TIMEISUP] = -1;
    advance(30);
    EXPECT_EQ(step(), -1);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1) << "it goes on all the same";
}

// ---- the grace ----

TEST_F(EngineTimer, TheGraceFollowsTheRoleAndStaysWhenTheRolesAreCleared)
{
    const std::array<std::pair<std::int32_t *, int>, 3> cases = {
        {{&engine.ISSERVERAGLOW, 0}, {&engine.ISSERVERAGNORMAL, 60}, {&engine.ISSERVERAGHIGH, 120}}};
    for (const auto &[flag, grace] : cases) {
        engine.ISSERVERAGLOW = engine.ISSERVERAGNORMAL = engine.ISSERVERAGHIGH = 0;
        *flag = 1;
        step();
        EXPECT_EQ(engine.GRACE_PERIOD, grace);
    }
    engine.ISSERVERAGHIGH = 0;
    step();
    EXPECT_EQ(engine.GRACE_PERIOD, 120);
}

TEST_F(EngineTimer, TheUnitIsOrderedOffOnlyBehindTheGrace)
{
    engine.ISSERVERAGLOW = 0;
    engine.ISSERVERAGNORMAL = 1;
    request.commparam.AgentType = AGENTTYPE_NORMAL;
    engine.USR_off = timenow();
    int seconds = 0;
    for (; seconds < 100 && !has_callback(E_CB_UPSDOWN); ++seconds) {
        step();
        advance(1);
    }
    EXPECT_EQ(seconds - 1, 60);
    EXPECT_EQ(engine.downpoint, engine.next_off + 60);
    EXPECT_EQ(
        std::count(recorder.english.begin(), recorder.english.end(), "The system will shutdown in 1 minutes"),
        1);
}

// ---- self-tests ----

TEST_F(EngineTimer, AScheduledSelfTestIsStartedWithItsLength)
{
    engine.next_test = timenow() + 5;
    engine.schtestreason = MONTHLY;
    engine.TestDuration = 10;
    for (int second = 0; second < 5; ++second) {
        step();
        EXPECT_THAT(recorder.calls, IsEmpty());
        advance(1);
    }
    step();
    EXPECT_THAT(recorder.calls, ElementsAre(callback(E_CB_SELFTEST, 0, 10)));
    EXPECT_EQ(engine.testreason, MONTHLY);
    EXPECT_EQ(engine.next_test, 0);
}

TEST_F(EngineTimer, AScheduledSelfTestIsSkippedWhenItCannotOrMustNotRun)
{
    const auto skipped = [&](const char *why) {
        engine.next_test = engine.next_test != 0 ? engine.next_test : timenow();
        engine.schtestreason = WEEKLY;
        engine.testreason = WEEKLY;
        step();
        EXPECT_EQ(engine.testreason, NONE) << why;
        EXPECT_EQ(engine.next_test, 0) << why;
        EXPECT_FALSE(has_callback(E_CB_SELFTEST)) << why;
    };
    ups.ui.CommStatus = COMM_LOST;
    skipped("link lost");
    ups.ui.CommStatus = COMM_NOUPS;
    skipped("no port");
    ups.ui.CommStatus = COMM_ESTABLISHED;
    engine.next_test = timenow() - 61;
    skipped("late");
    engine.bBattConnect = 0;
    skipped("battery disconnected");
    engine.bBattConnect = 1;
    fail_mains();
    skipped("mains failed");
}

TEST_F(EngineTimer, TheNextSelfTestIsFoundOnceTheMinuteOfThisOneIsOver)
{
    write_file(CONFIG_PATH, "\n[ ScheTest ]\n WEEKLYNO = 1\n WEEKLYSTART1 = 8 9 * * 5\n"
                            " WEEKLYEND1 = 18 9 * * 5\n");
    getschlist();
    EXPECT_EQ(engine.next_test, local_time(2004, 3, 5, 9, 8, 0));
    for (int second = 0; second < 200; ++second) {
        step();
        advance(1);
    }
    EXPECT_EQ(std::count_if(recorder.calls.begin(), recorder.calls.end(),
                            [](const callback &call) { return std::get<0>(call) == E_CB_SELFTEST; }),
              1);
    EXPECT_EQ(engine.next_test, local_time(2004, 3, 12, 9, 8, 0));
}

TEST_F(EngineTimer, AFailedStartOfASelfTestFailsTheStep)
{
    recorder.results[E_CB_SELFTEST] = -1;
    engine.next_test = timenow();
    engine.schtestreason = WEEKLY;
    EXPECT_EQ(step(), -1);
}

// ---- the data log ----

TEST_F(EngineTimer, MeasurementsAreLoggedAtTheirInterval)
{
    engine.DATALOGENABLED = 1;
    engine.DLOGINTERVAL = 60;
    ups.ui.upsdata.InPutINT = 100;
    for (int second = 0; second < 121; ++second) {
        step();
        advance(1);
    }
    const std::string log = read_file(DATALOG_PATH);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3);
}

TEST_F(EngineTimer, NothingIsMeasuredWithoutLinkWithoutAKnownModelOrWhenSwitchedOff)
{
    engine.DATALOGENABLED = 1;
    ups.ui.upsdata.InPutINT = 100;
    ups.ui.CommStatus = COMM_LOST;
    step();
    ups.ui.CommStatus = COMM_ESTABLISHED;
    field_set(ups.ui.upsmodel, "UNKNOWN");
    step();
    field_set(ups.ui.upsmodel, "ZR900PL");
    engine.DATALOGENABLED = 0;
    step();
    EXPECT_EQ(read_file(DATALOG_PATH), "");
}

TEST_F(EngineTimer, MeasurementsGoOnWhenTheClockIsSetBack)
{
    engine.DATALOGENABLED = 1;
    engine.DLOGINTERVAL = 60;
    ups.ui.upsdata.InPutINT = 100;
    step();
    set_clock(timenow() - 86400);
    step();
    const std::string log = read_file(DATALOG_PATH);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2);
}

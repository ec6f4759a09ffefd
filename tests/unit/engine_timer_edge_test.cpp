// The shutdown timer at its edges: what it remembers between two steps, the last second of each bound, what
// stays unsaid, and on which terminals the warnings appear.
#include "testbed.h"
#include "tests/unit/engine_timer_fixture.h"

#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class EngineTimerEdge : public EngineTimer
{
  protected:
    void SetUp() override
    {
        EngineTimer::SetUp();
        testbed::forget_calls();
    }

    /// The step before left these reasons behind; a schedule far away, so that nothing is said.
    void reasons(REASON now, REASON last, REASON beforelast, std::int32_t warned)
    {
        schedule_at(timenow() + 50'000, now);
        engine.downreason = now;
        engine.lastdownreason = last;
        engine.lastlastdownreason = beforelast;
        engine.HASBGNSPE = engine.HASBGNWEE = engine.HASBGNMON = warned;
    }

    static std::array<int, 3> warned()
    {
        return {engine.HASBGNSPE, engine.HASBGNWEE, engine.HASBGNMON};
    }

    static std::string wall_text()
    {
        const auto calls = testbed::calls_of("wall");
        return calls.empty() ? "" : calls.back().input;
    }
};

static constexpr std::array<int, 3> NONE_WARNED = {0, 0, 0};
static constexpr std::array<int, 3> ALL_WARNED = {1, 1, 1};

static constexpr char FRIDAYS[] = "\n[ ScheShutDown ]\n WEEKLYNO = 1\n WEEKLYSTART1 = 0 9 * * 5\n"
                                  " WEEKLYEND1 = 0 10 * * 5\n";

// ---- what is remembered ----

TEST_F(EngineTimerEdge, AWarningIsForgottenWithoutAScheduleAndWhenTheReasonChanges)
{
    engine.HASBGNSPE = engine.HASBGNWEE = engine.HASBGNMON = 1;
    step();
    EXPECT_EQ(warned(), NONE_WARNED);
    reasons(MONTHLY, WEEKLY, NONE, 1);
    step();
    EXPECT_EQ(warned(), NONE_WARNED);
    reasons(MONTHLY, MONTHLY, NONE, 1);
    step();
    EXPECT_EQ(warned(), ALL_WARNED);
}

TEST_F(EngineTimerEdge, AScheduleThatFollowsOnAnAcFailureCountsAsAnnounced)
{
    reasons(WEEKLY, AC_FAIL, MONTHLY, 0);
    step();
    EXPECT_EQ(warned(), ALL_WARNED);
    EXPECT_EQ(engine.lastlastdownreason, AC_FAIL);
    EXPECT_EQ(engine.lastdownreason, WEEKLY);
    reasons(WEEKLY, WEEKLY, AC_FAIL, 0);
    step();
    EXPECT_EQ(warned(), ALL_WARNED);
}

TEST_F(EngineTimerEdge, AScheduleThatFollowsOnAnythingElseIsAnnounced)
{
    reasons(WEEKLY, AC_FAIL, NONE, 0);
    step();
    EXPECT_EQ(warned(), NONE_WARNED);
    reasons(WEEKLY, WEEKLY, USER_SPECIFY, 0);
    step();
    EXPECT_EQ(warned(), NONE_WARNED);
    reasons(WEEKLY, AC_FAIL, MONTHLY, 0);
    engine.SCH_off = 0;
    step();
    EXPECT_EQ(warned(), NONE_WARNED);
}

TEST_F(EngineTimerEdge, ATimeWithoutAReasonIsNotRemembered)
{
    reasons(WEEKLY, NONE, AC_FAIL, 0);
    step();
    EXPECT_EQ(engine.lastdownreason, WEEKLY);
    EXPECT_EQ(engine.lastlastdownreason, AC_FAIL);
}

TEST_F(EngineTimerEdge, AFailureThatBeginsWithinItsWarningsIsToldOnTheStepAfterToo)
{
    engine.PFAILCOUNT = 60;
    fail_mains();
    for (int second = 0; second < 10; ++second) {
        step();
        advance(1);
    }
    EXPECT_THAT(recorder.english,
                ElementsAre("UPS Ac fail, System will be shut down in 1 minute(s) and 0 second(s).",
                            "UPS Ac fail, System will be shut down in 0 minute(s) and 59 second(s)."));
}

TEST_F(EngineTimerEdge, AClockSetBackDoesNotSilenceAFailureInForce)
{
    engine.EXPBLIFE = engine.PFAILCOUNT = 300;
    fail_mains();
    step();
    step();
    set_clock(timenow() - 7200);
    recorder.english.clear();
    advance(30);
    step();
    EXPECT_THAT(recorder.english, SizeIs(1));
}

TEST_F(EngineTimerEdge, WarningsOfAFailureDoNotPutOffThoseOfASchedule)
{
    engine.PFAILCOUNT = 60;
    fail_mains();
    step();
    EXPECT_THAT(recorder.english, SizeIs(1));
    EXPECT_EQ(engine.lastschdowncount, 0);
}

TEST_F(EngineTimerEdge, AScheduleThatResumesBehindAFailureKeepsTheRhythmOfItsWarnings)
{
    const std::time_t start = timenow();
    schedule_at(start + 500);
    step();
    advance(1);
    fail_mains();
    step();
    EXPECT_EQ(engine.downreason, AC_FAIL);
    advance(1);
    engine.ACFAIL_off = 0;
    engine.just_fail = 0;
    recorder.english.clear();
    std::vector<std::time_t> told;
    for (; timenow() <= start + 130; advance(1)) {
        step();
        if (told.size() < recorder.english.size())
            told.push_back(timenow() - start);
    }
    EXPECT_THAT(told, ElementsAre(60, 120));
}

TEST_F(EngineTimerEdge, WhereThereIsNoScheduleABrokenOffShutdownIsForgottenWithTheLink)
{
    engine.SHUTTINGDOWNINLOST = 1;
    ups.ui.CommStatus = COMM_NOUPS;
    step();
    EXPECT_EQ(engine.SHUTTINGDOWNINLOST, 1);
    ups.ui.CommStatus = COMM_ESTABLISHED;
    step();
    EXPECT_EQ(engine.SHUTTINGDOWNINLOST, 0);
    EXPECT_EQ(engine.SCH_off, 0);
}

TEST_F(EngineTimerEdge, AScheduleThatWasMissedByAMinuteGivesWayToItsNextTime)
{
    write_file(CONFIG_PATH, FRIDAYS);
    schedule_at(timenow() - 61);
    step();
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 12, 9, 0, 0));
}

TEST_F(EngineTimerEdge, AClockSetBackMakesWhatIsDoneLieAhead)
{
    write_file(CONFIG_PATH, std::string(FRIDAYS) +
                                "\n[ ScheTest ]\n WEEKLYNO = 1\n WEEKLYSTART1 = 0 9 * * 5\n"
                                " WEEKLYEND1 = 10 9 * * 5\n");
    engine.lastdownstart = engine.lastteststart = local_time(2004, 3, 5, 9, 0, 0);
    step();
    set_clock(local_time(2004, 3, 5, 8, 30, 0));
    step();
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 5, 9, 0, 0));
    EXPECT_EQ(engine.next_test, local_time(2004, 3, 5, 9, 0, 0));
}

// It is told with programs that may take their time, in which the clock can be set.
TEST_F(EngineTimerEdge, AClockSetBackDoesNotPutOffWhatIsDueAtOnce)
{
    const std::time_t start = timenow();
    for (const REASON reason : {BATT_LOW, EVENT_TRIGGER, OTHERAGEDOWN}) {
        set_clock(start);
        engine.ISSHUTTINGDOWN = engine.DOWNREACHED = 0;
        engine.downreason = NONE;
        step();
        engine.downreason = reason;
        engine.BATTLOW_off = engine.EVENTTRIGGER_off = engine.OTHERAG_off = engine.next_off = timenow();
        engine.DOWNEVENTID = 77;
        field_set(engine.agentname, "elsewhere");
        set_clock(start - 3600);
        step();
        EXPECT_EQ(engine.ISSHUTTINGDOWN, 1) << reason;
        EXPECT_EQ(engine.next_off, timenow()) << reason;
    }
}

TEST_F(EngineTimerEdge, WarningsComeEveryMinuteFromTenMinutesBefore)
{
    const std::array<std::pair<int, int>, 3> cases = {{{601, 300}, {600, 60}, {0, 300}}};
    for (const auto &[ahead, spacing] : cases) {
        schedule_at(ahead != 0 ? timenow() + ahead : 0);
        step();
        EXPECT_EQ(engine.scheinterval, spacing) << ahead;
    }
}

// ---- self-tests and measurements ----

TEST_F(EngineTimerEdge, ASelfTestIsNotLateForAMinute)
{
    engine.next_test = timenow() - 60;
    engine.schtestreason = WEEKLY;
    step();
    EXPECT_TRUE(has_callback(E_CB_SELFTEST));
}

TEST_F(EngineTimerEdge, ASelfTestIsSkippedInAFailureThoughAnotherDeadlineIsInForce)
{
    fail_mains();
    engine.USR_off = timenow() + 30;
    engine.next_test = timenow();
    engine.schtestreason = WEEKLY;
    step();
    EXPECT_EQ(engine.downreason, USER_SPECIFY);
    EXPECT_FALSE(has_callback(E_CB_SELFTEST));
}

TEST_F(EngineTimerEdge, ASelfTestOfNoKindIsNotStarted)
{
    engine.next_test = timenow();
    engine.schtestreason = NONE;
    step();
    EXPECT_FALSE(has_callback(E_CB_SELFTEST));
    EXPECT_EQ(engine.next_test, 0);
}

TEST_F(EngineTimerEdge, MeasurementsGoOnInTheGraceAndAreTrimmed)
{
    engine.ISSERVERAGLOW = 0;
    engine.ISSERVERAGHIGH = 1;
    engine.DATALOGENABLED = 1;
    engine.DLOGINTERVAL = 10;
    ups.up.logparam.MaxDataRec = 3;
    ups.ui.upsdata.InPutINT = 100;
    engine.USR_off = timenow();
    for (int second = 0; second <= 60; ++second) {
        step();
        advance(1);
    }
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(engine.lastdatalog, timenow() - 1);
    const std::string log = read_file(DATALOG_PATH);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3);
}

// ---- what is said, and what is not ----

TEST_F(EngineTimerEdge, NothingIsAnnouncedWithoutALink)
{
    ups.ui.CommStatus = COMM_LOST;
    schedule_at(timenow() + 100);
    step();
    fail_mains();
    engine.SCH_off = 0;
    engine.PFAILCOUNT = 60;
    step();
    EXPECT_THAT(recorder.calls, IsEmpty());
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(EngineTimerEdge, AScheduleIsAnnouncedWithTheGrace)
{
    engine.ISSERVERAGLOW = 0;
    engine.ISSERVERAGHIGH = 1;
    schedule_at(timenow() + 120);  // 09:09:02
    step();
    EXPECT_THAT(recorder.english,
                ElementsAre("system shutdown warning begin(schedule:weekly) Date:2004-3-5 Time: 09:11:00."));
}

TEST_F(EngineTimerEdge, AWarningBeforeMidnightNamesTheDayOfTheShutdown)
{
    set_clock(local_time(2004, 12, 31, 23, 58, 0));
    schedule_at(timenow() + 120, SPECIAL);
    step();
    EXPECT_THAT(
        recorder.english,
        ElementsAre("system shutdown warning begin(schedule:specialday) Date:2005-1-1 Time: 00:00:00."));
    EXPECT_THAT(
        recorder.localised,
        ElementsAre("system shutdown warning begin(schedule:specialday) 2005year  1month  1day 00:00:00."));
}

TEST_F(EngineTimerEdge, EachWarningIsShownAsItsEventIs)
{
    schedule_at(timenow() + 100, MONTHLY);
    step();
    EXPECT_EQ(engine.shutdowneventid, 76);
    fail_mains();
    advance(1);
    step();
    EXPECT_EQ(engine.shutdowneventid, 65);
    engine.downreason = OTHERAGEDOWN;
    engine.OTHERAG_off = engine.next_off = timenow() + 100;
    field_set(engine.agentname, "elsewhere");
    step();
    EXPECT_EQ(engine.shutdowneventid, 80);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
}

TEST_F(EngineTimerEdge, WarningsAppearOnTheTerminalsInEnglish)
{
    schedule_at(timenow() + 100);
    step();
    EXPECT_EQ(wall_text(), recorder.english.back() + "\n");
    EXPECT_NE(recorder.english.back(), recorder.localised.back());
}

TEST_F(EngineTimerEdge, AWarningIsAnEventThenToldToTheMonitorsAndThenShown)
{
    using moment = std::pair<std::vector<int>, std::string>;
    std::vector<moment> story;
    recorder.watch = [&](int) { story.emplace_back(logged(), wall_text()); };
    schedule_at(timenow() + 100);
    step();
    EXPECT_EQ(story, (std::vector<moment>(2, moment{{75}, ""})));
    EXPECT_NE(wall_text(), "");
}

TEST_F(EngineTimerEdge, WarningsOfAnEventThatIsNotShownGoToTheMonitorsAlone)
{
    engine.downreason = BATT_LOW;
    engine.BATTLOW_off = engine.next_off = timenow() + 100;
    events[0].BroadcastType = BROADCAST_NONE;  // 128
    step();
    EXPECT_EQ(wall_text(), "");
    EXPECT_THAT(recorder.english, SizeIs(1));
}

TEST_F(EngineTimerEdge, AFailureThatRanOutIsAnEvent)
{
    fail_mains();
    EXPECT_EQ(seconds_to_shutdown(100), 61);
    EXPECT_THAT(logged(), ElementsAre(129, 80, 22, 8));
    EXPECT_EQ(engine.shutdowneventid, 65) << "the end is shown as the countdown was";
}

TEST_F(EngineTimerEdge, BatteryLowAndTriggersThatAreNotDueAreOnlyTold)
{
    engine.downreason = BATT_LOW;
    engine.BATTLOW_off = engine.next_off = timenow() + 1;
    step();
    engine.downreason = EVENT_TRIGGER;
    engine.EVENTTRIGGER_off = engine.next_off = timenow() + 1;
    engine.DOWNEVENTID = 77;
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    EXPECT_THAT(recorder.english, SizeIs(2));
}

TEST_F(EngineTimerEdge, BatteryLowAndAnotherAgentsOrderAreToldOnEveryStep)
{
    engine.downreason = BATT_LOW;
    engine.BATTLOW_off = engine.next_off = timenow() + 10;
    step();
    step();
    EXPECT_THAT(recorder.english, SizeIs(2));
    engine.downreason = OTHERAGEDOWN;
    engine.OTHERAG_off = engine.next_off;
    field_set(engine.agentname, "elsewhere");
    step();
    step();
    EXPECT_THAT(recorder.english, SizeIs(4));
    EXPECT_THAT(logged(), ElementsAre(80, 80));
}

TEST_F(EngineTimerEdge, ATriggerThatIsNoEventSaysNothingAndIsCarriedOut)
{
    engine.downreason = EVENT_TRIGGER;
    engine.EVENTTRIGGER_off = engine.next_off = timenow();
    engine.DOWNEVENTID = 200;
    step();
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(recorder.english.front(), "Time is up! System shutdown will be executed soon");
}

TEST_F(EngineTimerEdge, ATriggerThatNamesAMonitorIsToldWithItsName)
{
    engine.downreason = EVENT_TRIGGER;
    engine.EVENTTRIGGER_off = engine.next_off = timenow() + 1;
    engine.DOWNEVENTID = 21;
    field_set(engine.monitorname, "desk");
    step();
    EXPECT_THAT(recorder.english,
                ElementsAre("The Shutdown is Canceled by Users on desk, The system will begin "
                            "shutdown process."));
}

TEST_F(EngineTimerEdge, AUsersOrderIsAnnouncedFromTheVerySecondOfTheLead)
{
    engine.USR_off = timenow() + 601;
    step();
    EXPECT_THAT(recorder.english, IsEmpty());
    advance(1);
    step();
    EXPECT_THAT(recorder.english, SizeIs(1));
}

TEST_F(EngineTimerEdge, AnOrdersNameIsTakenOnce)
{
    engine.beDoCmdDown = 1;
    engine.USR_off = timenow() + 100;
    step();
    EXPECT_EQ(engine.beDoCmdDown, 0);
}

// ---- the end ----

TEST_F(EngineTimerEdge, TheBeginIsAnEventThenToldToTheAgentsAndThenToTheMonitors)
{
    engine.ISSERVERAGLOW = 0;
    engine.ISSERVERAGNORMAL = 1;
    using moment = std::pair<int, std::vector<int>>;
    std::vector<moment> story;
    recorder.watch = [&](int code) { story.emplace_back(code, logged()); };
    schedule_at(timenow());
    step();
    // Two more texts follow, of the grace.
    EXPECT_THAT(story, ElementsAre(moment{E_CB_TIMEISUP, {131, 80}}, moment{E_CB_MESSAGE, {131, 80}},
                                   moment{E_CB_MESSAGE, {131, 80}}, moment{E_CB_MESSAGE, {131, 80}},
                                   moment{E_CB_MESSAGE, {131, 80}}));
    EXPECT_EQ(recorder.localised.front(), "Time is up! System shutdown will be executed soon");
}

TEST_F(EngineTimerEdge, TheStepThatBeginsAShutdownStartsATestAndMeasuresFirst)
{
    engine.DATALOGENABLED = 1;
    engine.DLOGINTERVAL = 60;
    ups.ui.upsdata.InPutINT = 100;
    engine.next_test = timenow();
    engine.schtestreason = WEEKLY;
    engine.USR_off = timenow();
    std::string measured;
    recorder.watch = [&](int code) {
        if (code == E_CB_TIMEISUP)
            measured = read_file(DATALOG_PATH);
    };
    step();
    EXPECT_NE(measured, "");
    ASSERT_GE(recorder.calls.size(), 2U);
    EXPECT_EQ(recorder.calls[0], callback(E_CB_SELFTEST, 0, engine.TestDuration));
    EXPECT_EQ(recorder.calls[1], callback(E_CB_TIMEISUP, 1, 0));
}

TEST_F(EngineTimerEdge, OtherAgentsAreToldAndThisHostIsNamedUnlessOthersAreIgnored)
{
    engine.USR_off = timenow();
    field_set(engine.g_agent_name, "elsewhere");
    step();
    EXPECT_THAT(recorder.calls, Contains(callback(E_CB_TIMEISUP, 1, 0)));
    EXPECT_EQ(field_view(engine.agentname), "voltaria-test");
    EXPECT_THAT(logged(), Contains(80));
}

TEST_F(EngineTimerEdge, AnAgentThatIgnoresOthersStillTellsThemButNamesNoHost)
{
    ups.up.commparam.bIgnore = 1;
    schedule_at(timenow());
    step();
    EXPECT_THAT(recorder.calls, Contains(callback(E_CB_TIMEISUP, 1, 0)));
    EXPECT_EQ(field_view(engine.agentname), "");
    EXPECT_THAT(logged(), Not(Contains(80)));
}

TEST_F(EngineTimerEdge, AnOrderThatTheUnitDidNotTakeFailsTheStep)
{
    recorder.results[E_CB_UPSDOWN] = -1;
    engine.USR_off = timenow();
    EXPECT_EQ(step(), -1);
}

TEST_F(EngineTimerEdge, AShutdownThatLostItsDeadlineDoesNothing)
{
    engine.ISSHUTTINGDOWN = 1;
    engine.downreason = USER_SPECIFY;
    EXPECT_EQ(step(), 0);
    EXPECT_THAT(recorder.calls, IsEmpty());
}

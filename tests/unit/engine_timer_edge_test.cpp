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

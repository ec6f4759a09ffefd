// Scheduled shutdowns of the real daemon in virtual time: the warnings, the order to the unit, the shutdown;
// what stands in their way; and the clock that is set or changes to summer time meanwhile.
#include "schedule_stage.h"

#include <array>
#include <utility>

namespace
{

using namespace stage;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// 5 March 2024 is a Tuesday. Special dates count months from 0.
const Settings SPECIAL_TUESDAY = {{"ScheShutDown", "SPECIALNO", "1"},
                                  {"ScheShutDown", "SPECIALDAYSTART1", "30 22 5 2 * 124"},
                                  {"ScheShutDown", "SPECIALDAYEND1", "30 23 5 2 * 124"}};
const Settings WEEKLY_TUESDAY = {{"ScheShutDown", "WEEKLYNO", "1"},
                                 {"ScheShutDown", "WEEKLYSTART1", "30 22 * * 2"},
                                 {"ScheShutDown", "WEEKLYEND1", "30 23 * * 2"}};
const Settings MONTHLY_FIFTH = {{"ScheShutDown", "MONTHLYNO", "1"},
                                {"ScheShutDown", "MONTHLYSTART1", "30 22 5 * *"},
                                {"ScheShutDown", "MONTHLYEND1", "30 23 5 * *"},
                                {"ScheShutDown", "MONTHLYDUR1", "60"}};

// An agent without grace, its schedules, and what else is set.
Settings low_agent(const Settings &schedules, const Settings &more = {})
{
    Settings all = {{"UPS", "AgentType", "4"}};
    all.insert(all.end(), more.begin(), more.end());
    all.insert(all.end(), schedules.begin(), schedules.end());
    return all;
}

Settings warn_before(const char *seconds)
{
    return {{"ShutDown", "WARNBEFORESCHE", seconds}};
}

// ---- warnings, order and shutdown

struct Kind {
    const char *name;
    const Settings &schedule;
    const char *word;
    int warning;
    int arrived;
    const char *arrived_text;
    const char *next;  // when it comes the time after
};

void PrintTo(const Kind &kind, std::ostream *out)
{
    *out << kind.name;
}

const std::array<Kind, 3> KINDS = {{
    {"SpecialDay", SPECIAL_TUESDAY, "specialday", 74, 130, "specified date to turn off UPS is arrived at",
     "none"},
    {"Weekly", WEEKLY_TUESDAY, "weekly", 75, 131, "weekly time to turn off UPS is arrived at",
     "2024-03-12 22:30:00"},
    {"Monthly", MONTHLY_FIFTH, "monthly", 76, 132, "monthly time to turn off UPS is arrived at",
     "2024-04-05 22:30:00"},
}};

class EachKind : public testing::TestWithParam<Kind>
{
};

INSTANTIATE_TEST_SUITE_P(Schedule, EachKind, testing::ValuesIn(KINDS),
                         [](const auto &kind) { return std::string(kind.param.name); });

// Who is warned, when, and what it says.
TEST_P(EachKind, WarnsEveryFiveMinutesThenEveryMinuteAndShutsDown)
{
    const Kind &kind = GetParam();
    DatedStage stage(
        {.settings = low_agent(kind.schedule, warn_before("1200")), .start = "2024-03-05 22:09:00"});
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:30:00");
    EXPECT_EQ(stage.boots_at(), "2024-03-05 23:30:00");
    stage.run_to("2024-03-05 22:30:02");

    const std::string warning = "system shutdown warning begin(schedule:" + std::string(kind.word) +
                                ") Date:2024-3-5 Time: 22:30:00.";
    const Notes told = together(every("2024-03-05 22:10:00", 5min, 2, warning),
                                every("2024-03-05 22:20:00", 1min, 10, warning));
    EXPECT_EQ(stage.walled(), together(told, {std::string("2024-03-05 22:30:00 ") + kind.arrived_text}));
    Notes noticed = stage.noticed();
    ASSERT_FALSE(noticed.empty());
    EXPECT_EQ(noticed.back(), "2024-03-05 22:30:00 Time is up! System shutdown will be executed soon");
    noticed.pop_back();
    EXPECT_EQ(Notes(noticed.end() - 12, noticed.end()), told);
    EXPECT_THAT(stage.happened(), ElementsAre(kind.warning, kind.arrived, 22, 8));
    EXPECT_EQ(stage.events().rbegin()[1].cause, kind.arrived);
    EXPECT_THAT(stage.logged(), Contains("2024-03-05 22:10:00 " + std::to_string(kind.warning)));
    // Off after TurnOffDelay, 10 minutes; on again at 23:30, 50 minutes after that.
    EXPECT_THAT(stage.ordered(), ElementsAre("2024-03-05 22:30:00 An", "2024-03-05 22:30:00 S10R00050"));
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:30:00 /sbin/shutdown -h -t0 0"));
    EXPECT_FALSE(stage.agent_runs());
}

TEST(Schedule, WarningsBeginTenMinutesBeforeUnlessSaidOtherwise)
{
    DatedStage stage({.settings = low_agent(WEEKLY_TUESDAY), .start = "2024-03-05 22:19:00"});
    stage.run_to("2024-03-05 22:22:30");
    EXPECT_EQ(stage.walled(),
              every("2024-03-05 22:20:00", 1min, 3,
                    "system shutdown warning begin(schedule:weekly) Date:2024-3-5 Time: 22:30:00."));
}

TEST(Schedule, GraceOfTwoMinutesIsToldFromTheBeginning)
{
    Settings settings = low_agent(
        WEEKLY_TUESDAY, {{"UPS", "IgnoreOtherAgentDown", "0"}, {"ShutDown", "WARNBEFORESCHE", "60"}});
    settings[0].value = "6";
    DatedStage stage({.settings = settings, .start = "2024-03-05 22:28:30"});
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:32:00");
    EXPECT_EQ(stage.boots_at(), "2024-03-05 23:32:00");
    stage.run_to("2024-03-05 22:32:02");
    EXPECT_THAT(stage.walled(), ElementsAre("2024-03-05 22:29:00 system shutdown warning "
                                            "begin(schedule:weekly) Date:2024-3-5 Time: 22:32:00.",
                                            "2024-03-05 22:30:00 weekly time to turn off UPS is arrived at",
                                            "2024-03-05 22:30:00 The system will shutdown in 2 minutes"));
    EXPECT_THAT(stage.happened(), ElementsAre(75, 131, 80, 22, 8));
    EXPECT_THAT(stage.ordered(), ElementsAre("2024-03-05 22:32:00 An", "2024-03-05 22:32:00 S10R00050"));
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:32:00 /sbin/shutdown -h -t0 0"));
}

// ---- when the unit comes back on

struct Restart {
    const char *name;
    const char *end;
    const char *delay;  // s
    const char *order;
};

void PrintTo(const Restart &restart, std::ostream *out)
{
    *out << restart.name;
}

constexpr std::array<Restart, 3> RESTARTS = {{
    {"LongerThanTheDelay", "0 6 * * 3", "600", "S10R00440"},
    {"ShorterThanTheDelay", "35 22 * * 2", "600", "S10R00005"},
    {"DelayInSeconds", "30 23 * * 2", "30", "S.5R00059"},
}};

class EachRestart : public testing::TestWithParam<Restart>
{
};

INSTANTIATE_TEST_SUITE_P(Schedule, EachRestart, testing::ValuesIn(RESTARTS),
                         [](const auto &restart) { return std::string(restart.param.name); });

TEST_P(EachRestart, UnitIsToldWhenToComeBack)
{
    const Restart &restart = GetParam();
    Settings settings = low_agent(WEEKLY_TUESDAY, {{"ShutDown", "TurnOffDelay", restart.delay}});
    settings.back().value = restart.end;
    DatedStage stage({.settings = settings, .start = "2024-03-05 22:29:45"});
    stage.run_to("2024-03-05 22:30:02");
    EXPECT_THAT(stage.ordered(),
                ElementsAre("2024-03-05 22:30:00 An", std::string("2024-03-05 22:30:00 ") + restart.order));
}

class ZmUnit : public testing::TestWithParam<bool>
{
};

INSTANTIATE_TEST_SUITE_P(Schedule, ZmUnit, testing::Bool(),
                         [](const auto &on) { return on.param ? "AutoRebootOn" : "AutoRebootOff"; });

// With a unit of this family that does not tell its capabilities, automatic restart decides for schedules.
TEST_P(ZmUnit, ComesBackByScheduleOnlyWithAutomaticRestart)
{
    const bool on = GetParam();
    DatedStage stage({.settings = low_agent(WEEKLY_TUESDAY, {{"UPS", "AutoBoot", on ? "1" : "0"}}),
                      .start = "2024-03-05 22:29:30",
                      .model = "ZM300LT",
                      .unit = {"nak CF on"}});
    stage.run_to("2024-03-05 22:30:02");
    ASSERT_FALSE(stage.ordered().empty());
    EXPECT_EQ(stage.ordered().back(), std::string("2024-03-05 22:30:00 ") + (on ? "S10R00050" : "S10"));
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:30:00 /sbin/shutdown -h -t0 0"));
}

// ---- which schedule

TEST(Schedule, OneThatIsSwitchedOffDoesNothing)
{
    Settings settings = low_agent(SPECIAL_TUESDAY);
    settings.push_back({"ScheShutDown", "SpecScheduleOn1", "0"});
    DatedStage stage({.settings = settings, .start = "2024-03-05 22:27:00"});
    EXPECT_EQ(stage.goes_down_at(), "none");
    stage.run_to("2024-03-05 22:31:30");
    EXPECT_THAT(stage.walled(), IsEmpty());
    EXPECT_THAT(stage.happened(), IsEmpty());
    EXPECT_TRUE(stage.agent_runs());
}

struct Pair {
    const char *name;
    std::vector<std::pair<const char *, const char *>> schedules;
    int arrived;
    const char *when;
    const char *order;
};

void PrintTo(const Pair &pair, std::ostream *out)
{
    *out << pair.name;
}

const std::array<Pair, 4> PAIRS = {{
    {"SpecialDayGoesBeforeWeeklyInTheSameMinute",
     {{"SPECIALNO", "1"},
      {"SPECIALDAYSTART1", "30 22 5 2 * 124"},
      {"SPECIALDAYEND1", "30 23 5 2 * 124"},
      {"WEEKLYNO", "1"},
      {"WEEKLYSTART1", "30 22 * * 2"},
      {"WEEKLYEND1", "30 0 * * 3"}},
     130,
     "2024-03-05 22:30:00",
     "S10R00050"},
    {"WeeklyGoesFirstWhenAMinuteEarlier",
     {{"SPECIALNO", "1"},
      {"SPECIALDAYSTART1", "31 22 5 2 * 124"},
      {"SPECIALDAYEND1", "30 23 5 2 * 124"},
      {"WEEKLYNO", "1"},
      {"WEEKLYSTART1", "30 22 * * 2"},
      {"WEEKLYEND1", "30 0 * * 3"}},
     131,
     "2024-03-05 22:30:00",
     "S10R00110"},
    {"SecondOfTwoWeeklyOnes",
     {{"WEEKLYNO", "2"},
      {"WEEKLYSTART1", "30 22 * * 3"},
      {"WEEKLYEND1", "30 23 * * 3"},
      {"WEEKLYSTART2", "30 22 * * 2"},
      {"WEEKLYEND2", "50 22 * * 2"}},
     131,
     "2024-03-05 22:30:00",
     "S10R00010"},
    {"OneSwitchedOffDoesNotHideTheNext",
     {{"SPECIALNO", "1"},
      {"SPECIALDAYSTART1", "30 22 5 2 * 124"},
      {"SPECIALDAYEND1", "30 23 5 2 * 124"},
      {"SpecScheduleOn1", "0"},
      {"MONTHLYNO", "1"},
      {"MONTHLYSTART1", "31 22 5 * *"},
      {"MONTHLYEND1", "0 0 6 * *"},
      {"MONTHLYDUR1", "30"}},
     132,
     "2024-03-05 22:31:00",
     "S10R00020"},
}};

class EachPair : public testing::TestWithParam<Pair>
{
};

INSTANTIATE_TEST_SUITE_P(Schedule, EachPair, testing::ValuesIn(PAIRS),
                         [](const auto &pair) { return std::string(pair.param.name); });

TEST_P(EachPair, EarlierScheduleIsCarriedOut)
{
    const Pair &pair = GetParam();
    Settings schedules;
    for (const auto &[key, value] : pair.schedules)
        schedules.push_back({"ScheShutDown", key, value});
    DatedStage stage({.settings = low_agent(schedules, warn_before("10")), .start = "2024-03-05 22:29:30"});
    stage.run_to("2024-03-05 22:31:02");
    const int warning = pair.arrived - 56;
    EXPECT_THAT(stage.happened(), ElementsAre(warning, pair.arrived, 22, 8));
    ASSERT_FALSE(stage.ordered().empty());
    EXPECT_EQ(stage.ordered().back(), std::string(pair.when) + " " + pair.order);
    EXPECT_THAT(stage.shut_down(), ElementsAre(std::string(pair.when) + " /sbin/shutdown -h -t0 0"));
}

// ---- what stands in its way

TEST_P(EachKind, IsDroppedWhenDueWhileTheLinkIsDown)
{
    DatedStage stage(
        {.settings = low_agent(GetParam().schedule, warn_before("60")), .start = "2024-03-05 22:28:30"});
    stage.run_to("2024-03-05 22:29:01");
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.run_to("2024-03-05 22:30:10");
    EXPECT_EQ(stage.goes_down_at(), "none");
    stage.unit("line restore");
    stage.wait_for_link(2);
    EXPECT_LT(shown(stage.clock.wall()), "2024-03-05 22:30:40");  // its minute is not over
    stage.run_to("2024-03-05 22:32:00");
    EXPECT_THAT(stage.happened(), ElementsAre(GetParam().warning, 64, 1));
    EXPECT_THAT(stage.ordered(), Not(Contains(HasSubstr(" S"))));
    EXPECT_TRUE(stage.agent_runs());
    EXPECT_EQ(stage.goes_down_at(), GetParam().next);
}

TEST(Schedule, IsCarriedOutWhenTheLinkIsBackInTime)
{
    DatedStage stage({.settings = low_agent(WEEKLY_TUESDAY), .start = "2024-03-05 22:19:00"});
    stage.run_to("2024-03-05 22:20:30");
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.run_to("2024-03-05 22:22:00");
    stage.unit("line restore");
    stage.wait_for_link(2);
    stage.run(2s);
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:30:00");
    stage.run_to("2024-03-05 22:30:02");
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:30:00 /sbin/shutdown -h -t0 0"));
}

TEST(Schedule, AnotherOneAfterADroppedOneIsCarriedOut)
{
    Settings both = WEEKLY_TUESDAY;
    both.insert(both.end(), {{"ScheShutDown", "MONTHLYNO", "1"},
                             {"ScheShutDown", "MONTHLYSTART1", "31 22 5 * *"},
                             {"ScheShutDown", "MONTHLYEND1", "31 23 5 * *"}});
    DatedStage stage({.settings = low_agent(both, warn_before("10")), .start = "2024-03-05 22:29:10"});
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.run_to("2024-03-05 22:30:10");
    stage.unit("line restore");
    stage.run_to("2024-03-05 22:31:02");
    EXPECT_THAT(stage.happened(), ElementsAre(64, 1, 76, 132, 22, 8));
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:31:00 /sbin/shutdown -h -t0 0"));
}

// The mains failure, which was to be first, ends with the link, and leaves the schedule to fall due.
TEST(Schedule, IsDroppedWhenItIsFirstOnlyAfterTheLinkWasLost)
{
    DatedStage stage({.settings = low_agent(WEEKLY_TUESDAY, {{"ShutDown", "EXPECTBLIFE", "45"},
                                                             {"ShutDown", "FIRSTWARN", "40"},
                                                             {"ShutDown", "WARNBEFORESCHE", "60"}}),
                      .start = "2024-03-05 22:28:30"});
    stage.run_to("2024-03-05 22:29:05");
    stage.unit("mains fail");
    stage.run(3s);
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:29:50");
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.unit("mains return");
    stage.run_to("2024-03-05 22:30:10");
    stage.unit("line restore");
    stage.run_to("2024-03-05 22:32:00");
    EXPECT_THAT(stage.happened(), ElementsAre(75, 65, 64, 1, 0));
    EXPECT_THAT(stage.shut_down(), IsEmpty());
    EXPECT_EQ(stage.goes_down_at(), "2024-03-12 22:30:00");
}

TEST(Schedule, LinkLostInTheGraceAbandonsItUntilNextWeek)
{
    Settings settings = low_agent(WEEKLY_TUESDAY, {{"UPS", "IgnoreOtherAgentDown", "0"}});
    settings[0].value = "6";
    DatedStage stage({.settings = settings, .start = "2024-03-05 22:29:30"});
    stage.run_to("2024-03-05 22:30:20");
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.run_to("2024-03-05 22:31:10");
    stage.unit("line restore");
    stage.wait_for_link(2);
    stage.run_to("2024-03-05 22:34:00");
    EXPECT_THAT(stage.shut_down(), IsEmpty());
    EXPECT_THAT(stage.ordered(), Not(Contains(HasSubstr(" S"))));
    EXPECT_TRUE(stage.agent_runs());
    EXPECT_EQ(stage.goes_down_at(), "2024-03-12 22:32:00");
}

// Both go to the unit on one turn. The test may be lost on the way, the order to switch off must not.
TEST(Schedule, SelfTestOfTheSameMinuteDoesNotHoldItUp)
{
    Settings both = WEEKLY_TUESDAY;
    both.insert(both.end(), {{"ScheTest", "WEEKLYNO", "1"},
                             {"ScheTest", "WEEKLYSTART1", "30 22 * * 2"},
                             {"ScheTest", "WEEKLYEND1", "40 22 * * 2"}});
    DatedStage stage({.settings = low_agent(both), .start = "2024-03-05 22:29:30"});
    stage.run_to("2024-03-05 22:30:05");
    ASSERT_FALSE(stage.ordered().empty());
    EXPECT_EQ(stage.ordered().back(), "2024-03-05 22:30:00 S10R00050");
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:30:00 /sbin/shutdown -h -t0 0"));
}

TEST(Schedule, PendingOneKeepsOtherEventsOffTheTerminals)
{
    DatedStage stage({.settings = low_agent(SPECIAL_TUESDAY, {{"ShutDown", "EXPECTBLIFE", "3000"},
                                                              {"ShutDown", "WARNBEFORESCHE", "60"}}),
                      .start = "2024-03-05 22:28:00"});
    stage.unit("mains fail");
    stage.run(20s);
    stage.unit("mains return");
    stage.run(20s);
    EXPECT_THAT(stage.happened(), ElementsAre(65, 0));
    EXPECT_THAT(stage.walled(), IsEmpty());
    stage.run_to("2024-03-05 22:30:02");
    EXPECT_THAT(stage.happened(), ElementsAre(65, 0, 74, 130, 22, 8));
}

// ---- the wall clock is set

TEST(Schedule, ClockSetForwardByLessThanAMinuteOverItCarriesItOut)
{
    DatedStage stage(
        {.settings = low_agent(SPECIAL_TUESDAY, warn_before("60")), .start = "2024-03-05 22:29:10"});
    stage.run_to("2024-03-05 22:29:30");
    stage.set_wall("2024-03-05 22:30:50");
    stage.run(3s);
    EXPECT_THAT(stage.happened(), Contains(130));
    EXPECT_EQ(stage.shutdowns().size(), 1U);
}

TEST_P(EachKind, ClockSetFarBeyondItDropsItAndSetBackFindsItAgain)
{
    DatedStage stage({.settings = low_agent(GetParam().schedule), .start = "2024-03-05 22:10:00"});
    stage.set_wall("2024-03-05 22:35:00");
    stage.run(5s);
    EXPECT_EQ(stage.goes_down_at(), GetParam().next);
    EXPECT_THAT(stage.happened(), IsEmpty());
    stage.set_wall("2024-03-05 22:28:30");
    stage.run(3s);
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:30:00");
    EXPECT_EQ(stage.boots_at(), "2024-03-05 23:30:00");
    stage.run_to("2024-03-05 22:30:02");
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:30:00 /sbin/shutdown -h -t0 0"));
    ASSERT_EQ(stage.ordered().size(), 2U);
    EXPECT_THAT(stage.ordered().back(), HasSubstr("S10R00050"));
}

TEST(Schedule, ClockSetBackByAnHourPutsItOff)
{
    DatedStage stage({.settings = low_agent(MONTHLY_FIFTH), .start = "2024-03-05 22:29:00"});
    stage.set_wall("2024-03-05 21:29:30");
    stage.run(90s);
    EXPECT_TRUE(stage.agent_runs());
    EXPECT_EQ(stage.goes_down_at(), "2024-03-05 22:30:00");
    stage.leap_to("2024-03-05 22:29:00", 600s);
    stage.run_to("2024-03-05 22:30:02");
    EXPECT_THAT(stage.shut_down(), ElementsAre("2024-03-05 22:30:00 /sbin/shutdown -h -t0 0"));
}

// ---- the change to summer time and back

constexpr char EUROPE[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr char AMERICA[] = "EST5EDT,M3.2.0,M11.1.0";

struct Change {
    const char *name;
    const char *zone;
    const char *start;  // of the test, UTC
    const char *weekly;
    const char *end;
    const char *shutdown;  // UTC
    const char *order;
};

void PrintTo(const Change &change, std::ostream *out)
{
    *out << change.name;
}

constexpr std::array<Change, 10> CHANGES = {{
    {"EuropeSpringBefore", EUROPE, "2024-03-29 12:00:00", "0 22 * * 6", "0 23 * * 6",
     "2024-03-30 21:00:00 UTC", "S10R00050"},
    {"EuropeSpringOverTheChange", EUROPE, "2024-03-29 12:00:00", "0 22 * * 6", "0 6 * * 0",
     "2024-03-30 21:00:00 UTC", "S10R00410"},
    {"EuropeSpringAfter", EUROPE, "2024-03-29 12:00:00", "0 3 * * 1", "0 4 * * 1", "2024-04-01 01:00:00 UTC",
     "S10R00050"},
    {"EuropeSpringInTheSkippedHour", EUROPE, "2024-03-30 12:00:00", "30 2 * * 0", "30 4 * * 0",
     "2024-04-07 00:30:00 UTC", "S10R00110"},
    {"EuropeAutumnAfter", EUROPE, "2024-10-26 12:00:00", "0 3 * * 1", "0 4 * * 1", "2024-10-28 02:00:00 UTC",
     "S10R00050"},
    {"EuropeAutumnInTheRepeatedHour", EUROPE, "2024-10-26 12:00:00", "30 2 * * 0", "30 4 * * 0",
     "2024-10-27 00:30:00 UTC", "S10R00170"},
    {"AmericaSpringAfter", AMERICA, "2024-03-09 12:00:00", "0 3 * * 1", "0 4 * * 1",
     "2024-03-11 07:00:00 UTC", "S10R00050"},
    {"AmericaSpringInTheSkippedHour", AMERICA, "2024-03-09 12:00:00", "30 2 * * 0", "30 4 * * 0",
     "2024-03-17 06:30:00 UTC", "S10R00110"},
    {"AmericaAutumnOverTheChange", AMERICA, "2024-11-02 12:00:00", "0 22 * * 6", "0 6 * * 0",
     "2024-11-03 02:00:00 UTC", "S10R00530"},
    {"AmericaAutumnInTheRepeatedHour", AMERICA, "2024-11-02 12:00:00", "30 1 * * 0", "30 3 * * 0",
     "2024-11-03 05:30:00 UTC", "S10R00170"},
}};

class EachChange : public testing::TestWithParam<Change>
{
};

INSTANTIATE_TEST_SUITE_P(Schedule, EachChange, testing::ValuesIn(CHANGES),
                         [](const auto &change) { return std::string(change.param.name); });

// An hour that is skipped brings nothing until the week after; of one that is repeated the first counts.
TEST_P(EachChange, WeeklyShutdownComesAtItsLocalTime)
{
    const Change &change = GetParam();
    DatedStage stage({.settings = low_agent({{"ScheShutDown", "WEEKLYNO", "1"},
                                             {"ScheShutDown", "WEEKLYSTART1", change.weekly},
                                             {"ScheShutDown", "WEEKLYEND1", change.end}}),
                      .start = change.start,
                      .zone = change.zone});
    const std::int64_t due = moment(change.shutdown);
    EXPECT_EQ(stage.goes_down_at(), shown(due));
    stage.leap_to(shown_utc(due - 30), 3h);
    EXPECT_TRUE(stage.agent_runs());
    stage.run_to(shown_utc(due + 2));
    ASSERT_EQ(testbed::calls_of("shutdown").size(), 1U);
    EXPECT_EQ(shown_utc(static_cast<std::int64_t>(testbed::calls_of("shutdown")[0].time)), change.shutdown);
    ASSERT_FALSE(stage.ordered().empty());
    EXPECT_EQ(stage.ordered().back(), shown(due) + " " + change.order);
}

}  // namespace

// Self-tests by schedule, in virtual time: started, told by their kind, and skipped where they must be.
#include "schedule_stage.h"

#include <array>

namespace
{

using namespace stage;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// 5 March 2024 is a Tuesday. Special dates count months from 0.
const Settings SPECIAL_TUESDAY = {{"ScheTest", "SPECIALNO", "1"},
                                  {"ScheTest", "SPECIALDAYSTART1", "30 22 5 2 * 124"},
                                  {"ScheTest", "SPECIALDAYEND1", "40 22 5 2 * 124"}};
const Settings WEEKLY_TUESDAY = {{"ScheTest", "WEEKLYNO", "1"},
                                 {"ScheTest", "WEEKLYSTART1", "30 22 * * 2"},
                                 {"ScheTest", "WEEKLYEND1", "40 22 * * 2"}};
const Settings MONTHLY_FIFTH = {{"ScheTest", "MONTHLYNO", "1"},
                                {"ScheTest", "MONTHLYSTART1", "30 22 5 * *"},
                                {"ScheTest", "MONTHLYEND1", "40 22 5 * *"}};

// A patient agent: a mains failure of some minutes brings nothing down.
Settings patient_agent(const Settings &tests)
{
    Settings all = {{"UPS", "AgentType", "4"}, {"ShutDown", "EXPECTBLIFE", "3600"}};
    all.insert(all.end(), tests.begin(), tests.end());
    return all;
}

// The starts of self-tests among what the unit was asked.
Notes tests_begun(const DatedStage &stage)
{
    Notes begun;
    for (const std::string &note : stage.ordered())
        if (note.ends_with(" T"))
            begun.push_back(note);
    return begun;
}

struct Kind {
    const char *name;
    const Settings &tests;
    int passed;
    int failed;
};

void PrintTo(const Kind &kind, std::ostream *out)
{
    *out << kind.name;
}

const std::array<Kind, 3> KINDS = {{
    {"SpecialDay", SPECIAL_TUESDAY, 3, 70},
    {"Weekly", WEEKLY_TUESDAY, 4, 71},
    {"Monthly", MONTHLY_FIFTH, 5, 72},
}};

class SelfTest : public testing::TestWithParam<Kind>
{
};

INSTANTIATE_TEST_SUITE_P(EachKind, SelfTest, testing::ValuesIn(KINDS),
                         [](const auto &kind) { return std::string(kind.param.name); });

TEST_P(SelfTest, StartsOnTimeOnceAndItsSuccessIsTold)
{
    DatedStage stage({.settings = patient_agent(GetParam().tests), .start = "2024-03-05 22:29:00"});
    stage.run_to("2024-03-05 22:32:00");
    EXPECT_THAT(stage.ordered(), ElementsAre("2024-03-05 22:30:00 AR", "2024-03-05 22:30:00 T"));
    EXPECT_THAT(stage.happened(), ElementsAre(GetParam().passed));
    EXPECT_THAT(stage.walled(), IsEmpty());
    EXPECT_TRUE(stage.agent_runs());
}

// A unit that reports a fault at the end of its test.
TEST_P(SelfTest, FailureIsToldByItsKind)
{
    DatedStage stage({.settings = patient_agent(GetParam().tests), .start = "2024-03-05 22:29:40"});
    stage.run_to("2024-03-05 22:30:05");
    stage.unit("fault on");
    stage.run_to("2024-03-05 22:31:00");
    EXPECT_THAT(tests_begun(stage), ElementsAre("2024-03-05 22:30:00 T"));
    EXPECT_THAT(stage.happened(), ElementsAre(77, GetParam().failed));
}

// The test itself went well, and showed that the battery is at its end.
TEST_P(SelfTest, WeakBatteryIsToldAsTheBatterysFailure)
{
    DatedStage stage({.settings = patient_agent(GetParam().tests), .start = "2024-03-05 22:29:40"});
    stage.unit("test result weak");
    stage.run_to("2024-03-05 22:31:00");
    EXPECT_THAT(stage.happened(), ElementsAre(73, 68));
}

TEST(SelfTestSchedule, ClockSetForwardByLessThanAMinuteOverItStartsIt)
{
    DatedStage stage({.settings = patient_agent(SPECIAL_TUESDAY), .start = "2024-03-05 22:29:00"});
    stage.set_wall("2024-03-05 22:30:55");
    stage.run(30s);
    EXPECT_EQ(tests_begun(stage).size(), 1U);
    EXPECT_THAT(stage.happened(), ElementsAre(3));
}

TEST(SelfTestSchedule, IsSkippedWhenMoreThanAMinuteLateAndFoundAgainTheWeekAfter)
{
    DatedStage stage({.settings = patient_agent(WEEKLY_TUESDAY), .start = "2024-03-05 22:29:00"});
    stage.set_wall("2024-03-05 22:31:05");
    stage.run(70s);
    EXPECT_THAT(tests_begun(stage), IsEmpty());
    EXPECT_THAT(stage.happened(), IsEmpty());
    stage.leap_to("2024-03-12 22:29:30", 3h);
    stage.run_to("2024-03-12 22:30:30");
    EXPECT_EQ(tests_begun(stage).size(), 1U);
    EXPECT_THAT(stage.logged(), Contains(testing::StartsWith("2024-03-12 22:30:1")));
    EXPECT_THAT(stage.happened(), ElementsAre(4));
}

TEST(SelfTestSchedule, IsSkippedWhileMainsIsFailed)
{
    DatedStage stage({.settings = patient_agent(WEEKLY_TUESDAY), .start = "2024-03-05 22:29:30"});
    stage.unit("mains fail");
    stage.run_to("2024-03-05 22:30:20");
    stage.unit("mains return");
    stage.run_to("2024-03-05 22:32:00");
    EXPECT_THAT(tests_begun(stage), IsEmpty());
    EXPECT_THAT(stage.happened(), ElementsAre(65, 0));
    EXPECT_TRUE(stage.agent_runs());
}

TEST(SelfTestSchedule, IsSkippedWithTheBatteryDisconnected)
{
    DatedStage stage({.settings = patient_agent(MONTHLY_FIFTH), .start = "2024-03-05 22:29:30"});
    stage.unit("battery disconnect on");
    stage.run_to("2024-03-05 22:30:20");
    stage.unit("battery disconnect off");
    stage.run_to("2024-03-05 22:32:00");
    EXPECT_THAT(tests_begun(stage), IsEmpty());
    EXPECT_THAT(stage.happened(), ElementsAre(66));
}

TEST(SelfTestSchedule, IsSkippedWhileTheLinkIsDown)
{
    DatedStage stage({.settings = patient_agent(WEEKLY_TUESDAY), .start = "2024-03-05 22:29:00"});
    stage.unit("line cut");
    stage.wait_for_link(17);
    stage.run_to("2024-03-05 22:30:10");
    stage.unit("line restore");
    stage.wait_for_link(2);
    stage.run_to("2024-03-05 22:32:00");
    EXPECT_THAT(tests_begun(stage), IsEmpty());
    EXPECT_THAT(stage.happened(), ElementsAre(64, 1));
}

TEST(SelfTestSchedule, WeeklyOneComesEveryWeek)
{
    DatedStage stage({.settings = patient_agent(WEEKLY_TUESDAY), .start = "2024-03-05 22:29:30"});
    for (const char *day : {"2024-03-05", "2024-03-12", "2024-03-19"}) {
        const std::string date = day;
        stage.leap_to(date + " 22:29:50", 3h);
        stage.run_to(date + " 22:31:30");
    }
    EXPECT_THAT(tests_begun(stage),
                ElementsAre("2024-03-05 22:30:00 T", "2024-03-12 22:30:00 T", "2024-03-19 22:30:00 T"));
    EXPECT_THAT(stage.happened(), ElementsAre(4, 4, 4));
}

TEST(SelfTestSchedule, ClockSetBackOverItFindsItAgain)
{
    DatedStage stage({.settings = patient_agent(WEEKLY_TUESDAY), .start = "2024-03-05 22:29:30"});
    stage.run_to("2024-03-05 22:33:00");
    stage.set_wall("2024-03-05 22:20:00");
    stage.run_to("2024-03-05 22:32:00");
    EXPECT_EQ(tests_begun(stage).size(), 2U);
    EXPECT_THAT(stage.happened(), ElementsAre(4, 4));
}

TEST(SelfTestSchedule, EarlierOfTwoIsFollowedByTheOther)
{
    Settings tests = WEEKLY_TUESDAY;
    tests.push_back({"ScheTest", "MONTHLYNO", "1"});
    tests.push_back({"ScheTest", "MONTHLYSTART1", "32 22 5 * *"});
    tests.push_back({"ScheTest", "MONTHLYEND1", "42 22 5 * *"});
    DatedStage stage({.settings = patient_agent(tests), .start = "2024-03-05 22:29:30"});
    stage.run_to("2024-03-05 22:33:30");
    EXPECT_THAT(tests_begun(stage), ElementsAre("2024-03-05 22:30:00 T", "2024-03-05 22:32:00 T"));
    EXPECT_THAT(stage.happened(), ElementsAre(4, 5));
}

// Units that tell the end of a test by their status bits alone, and one that cannot tell a missing battery.
class OtherUnit : public testing::TestWithParam<const char *>
{
};

INSTANTIATE_TEST_SUITE_P(SelfTestSchedule, OtherUnit, testing::Values("ZR401", "ZR6020", "ZQ500"),
                         [](const auto &model) { return std::string(model.param); });

TEST_P(OtherUnit, IsTestedBySchedule)
{
    DatedStage stage(
        {.settings = patient_agent(SPECIAL_TUESDAY), .start = "2024-03-05 22:29:30", .model = GetParam()});
    stage.run_to("2024-03-05 22:31:00");
    EXPECT_THAT(tests_begun(stage), ElementsAre("2024-03-05 22:30:00 T"));
    EXPECT_THAT(stage.happened(), ElementsAre(3));
    EXPECT_THAT(stage.walled(), IsEmpty());
}

}  // namespace

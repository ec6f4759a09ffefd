// What every family of units must not confuse: self-tests, failures of mains, and a line that is lost. One
// story each, for every model, in virtual time.
#include "power_stage.h"

using namespace bed;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace
{

struct Family {
    std::string model;
    int brief;    // the event that tells of a passed test of 10 s
    int lasting;  // and of one of 40 s
};

std::ostream &operator<<(std::ostream &out, const Family &family)
{
    return out << family.model;
}

// The older units tell no test of the battery from one of the unit.
const Family FAMILIES[] = {{"ZR401", 2, 2},   {"ZR6020", 2, 2},  {"ZR900PL", 2, 6},
                           {"ZR950PL", 2, 6}, {"ZM300LT", 2, 6}, {"ZQ500", 2, 6}};

struct Fault {
    const char *begins;
    const char *ends;
};

constexpr Fault FAULTS[] = {{"line cut", "line restore"},
                            {"port unplug", "port plug"},
                            {"silence on", "silence off"},
                            {"wrong checks on", "wrong checks off"},
                            {"truncate 20", "truncate off"}};

class EveryFamily : public testing::TestWithParam<Family>
{
  protected:
    EveryFamily()
    {
        stage.link_up();
        stage.unit("rate 0.1");  // the battery lasts
    }

    void test_for(int seconds)
    {
        stage.unit("test duration " + std::to_string(seconds));
        stage.monitor_sends(packet(20, std::string("\x0A\0\0\0", 4)));
    }

    // The unit's last status line with other bits for mains failed and for testing.
    [[nodiscard]] std::string status_line_with(char failed, char testing) const
    {
        const std::string log = stage.unit_log();
        std::string line = log.substr(log.rfind("tx (") + 3, 46);
        line.at(38) = failed;
        line.at(43) = testing;
        return line;
    }

    Stage stage{{.model = GetParam().model}};
};

}  // namespace

TEST_P(EveryFamily, SelfTestIsNoMainsFailure)
{
    test_for(10);
    stage.run(5s);
    EXPECT_TRUE(stage.bits() & UPSBIT_TESTING);
    EXPECT_FALSE(stage.bits() & UPSBIT_ACFAIL);
    EXPECT_EQ(stage.nextdown(), 0);
    stage.run(25s);
    EXPECT_THAT(events_since_link(stage), ElementsAre(GetParam().brief));
    test_for(40);
    stage.run(90s);
    EXPECT_THAT(events_since_link(stage), ElementsAre(GetParam().brief, GetParam().lasting));
    EXPECT_FALSE(stage.bits() & UPSBIT_TESTING);
    expect_up(stage);
}

TEST_P(EveryFamily, MainsFailureDuringASelfTestIsNotHidden)
{
    test_for(30);
    stage.run(10s);
    ASSERT_TRUE(stage.bits() & UPSBIT_TESTING);
    stage.unit("mains fail");
    const double failed = stage.now();
    stage.run(3s);
    ASSERT_THAT(stage.times_of(65), ElementsAre(testing::Le(static_cast<std::int64_t>(failed) + 2)));
    ASSERT_TRUE(stage.goes_down(90s));
    EXPECT_THAT(stage.times_of(65), testing::SizeIs(1));
    EXPECT_THAT(stage.times_of(129), ElementsAre(stage.times_of(65).at(0) + 61));
    EXPECT_THAT(texts(switch_offs(stage)), ElementsAre("S10\\r"));
}

// The simulated unit breaks its test off. Another goes on with it and shows both, until the test is over.
TEST_P(EveryFamily, MainsFailureShownBesideTheSelfTestIsNotHidden)
{
    test_for(100);
    stage.run(10s);
    ASSERT_TRUE(stage.bits() & UPSBIT_TESTING);
    stage.unit("reply Q1 \"" + status_line_with('1', '1') + "\\r\"");
    stage.run(25s);
    EXPECT_TRUE(stage.bits() & UPSBIT_TESTING);
    EXPECT_TRUE(stage.bits() & UPSBIT_ACFAIL);
    ASSERT_THAT(stage.times_of(65), testing::SizeIs(1));
    EXPECT_EQ(stage.nextdown(), failed_at(stage) + 60);
    stage.unit("reply Q1 \"" + status_line_with('1', '0') + "\\r\"");
    ASSERT_TRUE(stage.goes_down(60s));
    EXPECT_THAT(stage.times_of(65), testing::SizeIs(1));
    EXPECT_THAT(stage.times_of(129), ElementsAre(failed_at(stage) + 61));
}

TEST_P(EveryFamily, MainsFailureThatEndsDuringASelfTestIsToldAndEndsTheCountdown)
{
    test_for(40);
    stage.run(5s);
    stage.unit("mains fail");
    stage.run(10s);
    stage.unit("mains return");
    stage.run(120s);
    EXPECT_THAT(stage.times_of(65), testing::SizeIs(1));
    EXPECT_THAT(stage.times_of(0), testing::SizeIs(1));
    expect_up(stage);
    EXPECT_EQ(stage.nextdown(), 0);
}

// The unit refuses it; what the agent shows meanwhile is not "normal".
TEST_P(EveryFamily, SelfTestOrderedDuringAMainsFailureDoesNotDisturbTheCountdown)
{
    stage.unit("mains fail");
    stage.run(10s);
    test_for(10);
    stage.run(10s);
    stage.monitor_sends(packet(21));
    ASSERT_TRUE(stage.goes_down(60s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 69, 129, 22, 8));
    EXPECT_THAT(stage.times_of(129), ElementsAre(failed_at(stage) + 61));
}

TEST_P(EveryFamily, LostLineIsNoMainsFailure)
{
    std::size_t lost = 0;
    for (const Fault &fault : FAULTS) {
        SCOPED_TRACE(fault.begins);
        stage.unit(fault.begins);
        run_until_event(stage, 64, ++lost, 60s);
        stage.run(100s);
        stage.unit(fault.ends);
        run_until_event(stage, 1, lost + 1, 90s);
        stage.run(2s);
        EXPECT_EQ(stage.nextdown(), 0);
    }
    EXPECT_THAT(events_since_link(stage), ElementsAre(64, 1, 64, 1, 64, 1, 64, 1, 64, 1));
    expect_up(stage);
}

TEST_P(EveryFamily, LostLineDuringASelfTestIsNoMainsFailureEither)
{
    test_for(40);
    stage.run(5s);
    stage.unit("line cut");
    run_until_event(stage, 64, 1, 60s);
    stage.run(60s);
    stage.unit("line restore");
    run_until_event(stage, 1, 2, 90s);
    stage.run(60s);
    EXPECT_THAT(events_since_link(stage), Not(Contains(AnyOf(65, 0, 128, 129))));
    expect_up(stage);
}

TEST_P(EveryFamily, MainsFailedBeforeTheLossIsDroppedWithTheLinkAndCountedAnewWithIt)
{
    stage.unit("mains fail");
    stage.run(10s);
    stage.unit("line cut");
    run_until_event(stage, 64, 1, 40s);
    EXPECT_EQ(stage.nextdown(), 0);
    stage.run(200s);
    expect_up(stage);
    stage.unit("line restore");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 64, 1, 65, 129, 22, 8));
    EXPECT_EQ(stage.times_of(65).at(1), stage.times_of(1).at(1));
    EXPECT_EQ(stage.times_of(129).at(0), stage.times_of(65).at(1) + 61);
}

TEST_P(EveryFamily, MainsThatReturnsDuringTheLossIsFoundSo)
{
    stage.unit("mains fail");
    stage.run(10s);
    stage.unit("line cut");
    run_until_event(stage, 64, 1, 40s);
    stage.unit("mains return");
    stage.unit("line restore");
    stage.run(150s);
    expect_up(stage);
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 64, 1, 0));
    EXPECT_EQ(stage.nextdown(), 0);
}

TEST_P(EveryFamily, MainsThatFailsDuringTheLossIsCountedFromTheLink)
{
    stage.unit("line cut");
    run_until_event(stage, 64, 1, 60s);
    stage.unit("mains fail");
    stage.run(100s);
    expect_up(stage);
    stage.unit("line restore");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(64, 1, 65, 129, 22, 8));
}

INSTANTIATE_TEST_SUITE_P(Of, EveryFamily, testing::ValuesIn(FAMILIES),
                         [](const auto &value) { return value.param.model; });

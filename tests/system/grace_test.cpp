// The grace between a deadline and the end, by the agent's role: who is told, what is shown, what still ends
// it and what does not.
#include "power_stage.h"

#include <sys/ipc.h>
#include <sys/shm.h>

using namespace bed;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// An agent of this role with a short countdown.
Settings role(int agenttype)
{
    return heeding(agenttype, {{"ShutDown", "EXPECTBLIFE", "40"}});
}

std::vector<Said> grace_notices(const std::vector<Said> &all)
{
    return containing(all, "The system will shutdown in ");
}

void fail_mains_until_the_deadline(Stage &stage)
{
    stage.link_up();
    stage.unit("mains fail");
    run_until_event(stage, 129, 1, 60s);
}

// The switch-off orders to the unit: whole seconds since the moment.
std::vector<long> orders_after(const Stage &stage, double moment)
{
    std::vector<long> found;
    for (const Said &order : switch_offs(stage))
        found.push_back(std::lround(order.at - moment));
    return found;
}

// The live setting, where the daemon and its local tools keep it.
void ignore_other_agents()
{
    void *const block = shmat(shmget(ftok(AGINFO_KEYFILE, AGINFO_PROJECT), 0, 0), nullptr, 0);
    shared_store(static_cast<AGINFO *>(block)->ups.up.commparam.bIgnore, 1);
    shmdt(block);
}

struct Role {
    int agenttype;
    int grace;  // s
    std::string notice;
};

std::ostream &operator<<(std::ostream &out, const Role &role)
{
    return out << "type " << role.agenttype;
}

class Grace : public testing::TestWithParam<Role>
{
};

}  // namespace

TEST_P(Grace, FollowsTheDeadlineOfAMainsFailure)
{
    Stage stage({.settings = role(GetParam().agenttype)});
    fail_mains_until_the_deadline(stage);
    const std::int64_t failed = stage.times_of(65).at(0);
    const double deadline = static_cast<double>(failed) + 40;
    if (GetParam().grace != 0) {
        EXPECT_EQ(stage.nextdown(), failed + 40 + GetParam().grace);
        EXPECT_EQ(stage.info().ShutdownS, 1);
        EXPECT_THAT(stage.times_of(22), IsEmpty());
    }
    ASSERT_TRUE(stage.goes_down(130s));
    EXPECT_THAT(stage.times_of(22), ElementsAre(failed + 40 + std::max(GetParam().grace, 1)));
    EXPECT_THAT(orders_after(stage, deadline), ElementsAre(std::max(GetParam().grace, 1)));
    EXPECT_THAT(texts(stage.shutdowns()), ElementsAre(DOWN));
    std::vector<std::string> told;
    if (!GetParam().notice.empty())
        told = {GetParam().notice};
    EXPECT_EQ(texts(grace_notices(stage.notices())), told);
    EXPECT_EQ(texts(grace_notices(stage.walls())), told);
}

// As the handbook tells it of the server on which others depend.
TEST(GraceOfAHighServer, DefaultCountdownEndsThreeMinutesAfterTheFailure)
{
    Stage stage({.settings = heeding(6)});
    stage.link_up();
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(200s));
    const std::int64_t failed = failed_at(stage);
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 129, 80, 22, 8));
    EXPECT_THAT(stage.times_of(129), ElementsAre(failed + 61));
    EXPECT_THAT(stage.times_of(22), ElementsAre(failed + 180));
    EXPECT_THAT(seconds_after(failed, stage.orders(static_cast<double>(failed))), ElementsAre(180));
    EXPECT_THAT(texts(stage.walls()),
                ElementsAre("UPS Ac fail, System will be shut down in 2 minute(s) and 30 second(s).",
                            "UPS Ac fail, System will be shut down in 2 minute(s) and 0 second(s).",
                            "UPS AC Fail Delay Run out", "Network Shutdown Triggered by Other Agent",
                            "The system will shutdown in 2 minutes"));
}

TEST_P(Grace, FollowsAnOrderOfAnotherAgent)
{
    Stage stage({.settings = role(GetParam().agenttype)});
    stage.link_up();
    const double ordered = stage.now();
    stage.other_agent_orders("other", "Group A", 6);
    ASSERT_TRUE(stage.goes_down(130s));
    EXPECT_NEAR(stage.shutdowns().at(0).at, ordered + GetParam().grace, 1.5);
    EXPECT_EQ(grace_notices(stage.notices()).size(), GetParam().notice.empty() ? 0u : 1u);
}

TEST_P(Grace, FollowsAUsersOrderAndIsPartOfTheTimeShown)
{
    Stage stage({.settings = role(GetParam().agenttype)});
    stage.link_up();
    stage.order_down(30, "desk");
    const std::int64_t ordered = stage.times_of(79).at(0);
    stage.run(5s);
    EXPECT_EQ(stage.nextdown(), ordered + 30 + GetParam().grace);
    ASSERT_TRUE(stage.goes_down(170s));
    EXPECT_THAT(stage.times_of(133), ElementsAre(ordered + 30));
    EXPECT_THAT(stage.times_of(22), ElementsAre(ordered + 30 + GetParam().grace));
}

TEST_P(Grace, IsNoneForAnAgentThatIgnoresOthers)
{
    Stage stage({.settings = {{"UPS", "AgentType", std::to_string(GetParam().agenttype)},
                              {"UPS", "IgnoreOtherAgentDown", "1"},
                              {"ShutDown", "EXPECTBLIFE", "40"}}});
    fail_mains_until_the_deadline(stage);
    EXPECT_TRUE(stage.goes_down(1s));
    EXPECT_EQ(stage.times_of(22), stage.times_of(129));
    EXPECT_THAT(grace_notices(stage.notices()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(ByRole, Grace,
                         testing::Values(Role{4, 0, ""}, Role{5, 60, "The system will shutdown in 1 minutes"},
                                         Role{6, 120, "The system will shutdown in 2 minutes"}),
                         [](const auto &value) { return "Type" + std::to_string(value.param.agenttype); });

// ---- the wall clock is set in the grace

TEST(GraceAndClock, SetBackDoesNotKeepTheMachineUp)
{
    Stage stage({.settings = role(6)});
    fail_mains_until_the_deadline(stage);
    const double reached = stage.now();
    stage.run(20s);
    stage.clock.shift_wall(-5h);
    stage.run(90s);
    EXPECT_THAT(stage.shutdowns(), IsEmpty());
    ASSERT_TRUE(stage.goes_down(12s));
    EXPECT_NEAR(stage.now(), reached + 120, 1.5);
}

TEST(GraceAndClock, SetBackAgainAndAgainDoesNotKeepTheMachineUp)
{
    Stage stage({.settings = role(5)});
    fail_mains_until_the_deadline(stage);
    const double reached = stage.now();
    for (int i = 0; i < 11 && testbed::calls_of("shutdown").empty(); ++i) {
        stage.clock.shift_wall(-1h);
        stage.run(6s);
    }
    EXPECT_EQ(stage.shutdowns().size(), 1u);
    EXPECT_THAT(orders_after(stage, reached), ElementsAre(60));
}

TEST(GraceAndClock, SetForwardPastTheEndEndsIt)
{
    Stage stage({.settings = role(6)});
    fail_mains_until_the_deadline(stage);
    stage.run(10s);
    stage.clock.shift_wall(3h);
    EXPECT_TRUE(stage.goes_down(2s));
}

// ---- ways back, and none

TEST(GraceWayBack, LostLinkEndsTheShutdownAndMainsStillFailedCountsAnew)
{
    Stage stage({.settings = role(6)});
    fail_mains_until_the_deadline(stage);
    stage.unit("line cut");
    stage.run(200s);
    EXPECT_THAT(stage.shutdowns(), IsEmpty());
    EXPECT_EQ(stage.info().ShutdownS, 0);
    EXPECT_EQ(stage.nextdown(), 0);
    stage.unit("line restore");
    ASSERT_TRUE(stage.goes_down(200s));
    EXPECT_THAT(ids(stage.events()), ElementsAre(7, 1, 65, 129, 80, 64, 1, 65, 129, 80, 22, 8));
    EXPECT_EQ(stage.times_of(129).at(1), stage.times_of(65).at(1) + 41);
    EXPECT_EQ(stage.times_of(22).at(0), stage.times_of(65).at(1) + 40 + 120);
    EXPECT_EQ(grace_notices(stage.notices()).size(), 1u);  // not again within 10000 s
}

TEST(GraceWayBack, IgnoringOthersCallsOffWhatAnotherAgentOrdered)
{
    Stage stage({.settings = role(6)});
    stage.link_up();
    stage.other_agent_orders("other", "Group A", 6);
    stage.run(30s);
    EXPECT_EQ(stage.info().ShutdownS, 1);
    ignore_other_agents();
    stage.run(200s);
    EXPECT_THAT(stage.shutdowns(), IsEmpty());
    EXPECT_TRUE(stage.daemon.running());
    EXPECT_EQ(stage.info().ShutdownS, 0);
    EXPECT_EQ(stage.nextdown(), 0);

    stage.unit("mains fail");  // and the agent is as it was
    ASSERT_TRUE(stage.goes_down(60s));
}

TEST(GraceWayBack, CancelOfTheUserEndsItAndTheNextFailureCounts)
{
    Stage stage({.settings = role(5)});
    stage.link_up();
    stage.order_down(10, "desk");
    stage.run(20s);
    ASSERT_EQ(stage.times_of(133).size(), 1u);
    stage.cancel_order("desk");
    stage.run(100s);
    EXPECT_THAT(stage.shutdowns(), IsEmpty());
    EXPECT_EQ(stage.nextdown(), 0);
    EXPECT_EQ(stage.info().ShutdownS, 0);
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_EQ(stage.times_of(129).size(), 1u);
}

TEST(GraceWayBack, AnotherOrderDoesNotPutItOff)
{
    Stage stage({.settings = role(5)});
    stage.link_up();
    stage.order_down(10, "desk");
    stage.run(20s);
    ASSERT_EQ(stage.times_of(133).size(), 1u);
    stage.order_down(600, "table");
    ASSERT_TRUE(stage.goes_down(70s));
    EXPECT_EQ(stage.times_of(22).at(0), stage.times_of(79).at(0) + 10 + 60);
}

// Who else brings the machine down: a user by a monitor, another agent by a datagram; and the names that come
// with their orders. In virtual time.
#include "power_stage.h"

#include <cctype>
#include <unistd.h>

using namespace bed;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// ---- users
TEST(UserOrder, IsCarriedOutAfterItsDelay)
{
    Stage stage;
    stage.link_up();
    stage.order_down(120, "desk");
    const std::int64_t ordered = stage.times_of(79).at(0);
    stage.run(3s);
    EXPECT_EQ(stage.nextdown(), ordered + 120);
    EXPECT_EQ(stage.info().CommandDownS, 1);
    ASSERT_TRUE(stage.goes_down(200s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(79, 133, 22, 8));
    EXPECT_EQ(stage.events().at(2).name, "desk");
    EXPECT_EQ(cause_of_the_shutdown(stage), 133);
    EXPECT_THAT(stage.times_of(133), ElementsAre(ordered + 120));
    const std::vector<Said> orders = stage.orders(stage.now() - 5);
    EXPECT_THAT(texts(orders), ElementsAre("S10\\r"));
    EXPECT_THAT(seconds_after(ordered, orders), ElementsAre(120));
    EXPECT_THAT(texts(stage.walls()), ElementsAre("Receive shutdown Command From Users on desk",
                                                  "Receive shutdown Command From Users on voltaria-test",
                                                  "Shutdown Time Initiated by Users is arrived at"));
}

TEST(UserOrder, IsTakenBackByItsUser)
{
    Stage stage;
    stage.link_up();
    stage.order_down(60, "desk");
    stage.run(50s);
    stage.cancel_order("table");
    stage.run(120s);
    expect_up(stage);
    EXPECT_EQ(stage.nextdown(), 0);
    EXPECT_EQ(stage.info().CommandDownS, 0);
    EXPECT_THAT(events_since_link(stage), ElementsAre(79, 21));
    EXPECT_EQ(stage.events().at(3).name, "table");
    EXPECT_THAT(texts(containing(stage.notices(), "Cancel")),
                ElementsAre("The Shutdown is Canceled by Users on table"));
}

TEST(UserOrder, ThatWouldComeLaterLeavesTheCountdownInForceAndIsNotEndedByMains)
{
    Stage stage;
    stage.link_up();
    stage.unit("mains fail");
    stage.run(10s);
    stage.order_down(200, "desk");
    stage.run(5s);
    EXPECT_EQ(stage.nextdown(), failed_at(stage) + 60);
    stage.cancel_order("desk");
    stage.run(5s);
    EXPECT_EQ(stage.nextdown(), failed_at(stage) + 60);  // the cancel takes back nothing but the order
    stage.order_down(200, "desk");
    stage.unit("mains return");
    stage.run(5s);
    EXPECT_EQ(stage.nextdown(), stage.times_of(79).at(1) + 200);
    ASSERT_TRUE(stage.goes_down(250s));
    EXPECT_EQ(cause_of_the_shutdown(stage), 133);
}

TEST(OtherAgentsOrder, IsHeededWithinTheGroupAndByRole)
{
    Stage stage({.settings = heeding(5, {{"UPS", "Group", "Cellar"}})});
    stage.link_up();
    stage.other_agent_orders("alien", "Attic", 6);     // another group
    stage.other_agent_orders("servant", "Cellar", 4);  // less important than this one
    stage.other_agent_orders("nobody", "Cellar", 1);   // no agent with a unit
    stage.run(10s);
    EXPECT_THAT(events_since_link(stage), IsEmpty());
    EXPECT_EQ(stage.nextdown(), 0);
    stage.other_agent_orders("equal", "CELLAR", 5);
    ASSERT_TRUE(stage.goes_down(70s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(80, 134, 22, 8));
    EXPECT_EQ(stage.events().at(2).name, "EQUAL");
    EXPECT_THAT(texts(containing(stage.notices(), "due to agent")),
                ElementsAre("The system will begin shutdown process due to agent on EQUAL"));
}

// An agent says it three times.
TEST(OtherAgentsOrder, ThatIsRepeatedIsOneOrder)
{
    Stage stage({.settings = heeding()});
    stage.link_up();
    for (int i = 0; i < 3; ++i)
        stage.other_agent_orders("other", "Group A", 6);
    ASSERT_TRUE(stage.goes_down(5s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(80, 134, 22, 8));
    EXPECT_THAT(texts(switch_offs(stage)), ElementsAre("S10\\r"));
}

TEST(OtherAgentsOrder, IsIgnoredWhenThisAgentIgnoresOthers)
{
    Stage stage;
    stage.link_up();
    stage.other_agent_orders("equal", "Group A", 6);
    stage.run(150s);
    expect_up(stage);
    EXPECT_THAT(events_since_link(stage), IsEmpty());
}

// ---- names from the network

class MaliciousName : public testing::TestWithParam<const char *>
{
};

TEST_P(MaliciousName, IsShownAsItStandsAndNothingRuns)
{
    const std::string name = GetParam();
    Stage stage({.settings = heeding(4, {{"Event79", "MailUser", "1"},
                                         {"Event79", "BroadcastType", "0"},
                                         {"UserInfo", "UserID", "1"},
                                         {"1", "Name", "ann"},
                                         {"1", "Email", "ann@example.org"}})});
    stage.link_up();
    stage.order_down(600, name);
    stage.run(2s);
    EXPECT_EQ(stage.walls().at(0).text, "Receive shutdown Command From Users on " + name);
    EXPECT_EQ(stage.events().at(2).name, name);
    EXPECT_THAT(stage.notices().at(1).text, HasSubstr(name));
    ASSERT_EQ(testbed::calls_of("mail").size(), 1u);
    EXPECT_THAT(testbed::calls_of("mail").at(0).arguments, ElementsAre("ann@example.org"));
    stage.cancel_order(name);
    EXPECT_THAT(stage.notices().back().text, HasSubstr(name));

    // From an agent the name comes in capitals.
    stage.other_agent_orders(name, "Group A", 6);
    ASSERT_TRUE(stage.goes_down(5s));
    std::string capitals = name;
    for (char &c : capitals)
        c = static_cast<char>(std::toupper(c));
    EXPECT_THAT(texts(containing(stage.walls(), "due to agent")),
                ElementsAre("The system will begin shutdown process due to agent on " + capitals));
    EXPECT_NE(access("/pwned", F_OK), 0);
    EXPECT_NE(access("/PWNED", F_OK), 0);
    EXPECT_THAT(testbed::calls_of("reboot"), IsEmpty());
    EXPECT_EQ(stage.shutdowns().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Shell, MaliciousName,
                         testing::Values("$(touch /pwned)", "`touch /pwned`", "; reboot", "\"&&reboot\"",
                                         "%s%n%d%s"));

// What the shared record says about a shutdown that is to come.
#include "control_status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

constexpr char HOST[] = "a-host-with-a-long-name";
constexpr UPS_TIMEINFO SOME_TIME{126, 11, 21, 22, 0, 0, 0};

UPS quiet()
{
    UPS ups{};
    ups.ui.CommStatus = COMM_ESTABLISHED;
    for (UPS_EVENTLOGINFO &event : ups.ui.events)
        event.EventId = 255;
    return ups;
}

UPS with_event(UPS ups, std::uint8_t id)
{
    ups.ui.nextdown = SOME_TIME;
    ups.ui.events[1].EventId = id;
    ups.ui.events[1].timeinfo = SOME_TIME;
    return ups;
}

}  // namespace

TEST(ControlCause, WithoutATimeNothingIsPending)
{
    EXPECT_EQ(shutdown_cause({{}, quiet(), HOST}), CAUSE::None);
    EXPECT_FALSE(shutdown_pending({{}, quiet(), HOST}));
}

TEST(ControlCause, ATimeWithoutAnySignOfAnotherCauseIsTheNextSchedule)
{
    UPS ups = quiet();
    ups.ui.nextdown = SOME_TIME;
    EXPECT_EQ(shutdown_cause({{}, ups, HOST}), CAUSE::Schedule);
    EXPECT_FALSE(shutdown_pending({{}, ups, HOST}));
    ups.ui.ShutdownS = 1;
    ups.ui.nextboot = SOME_TIME;
    EXPECT_EQ(shutdown_cause({{}, ups, HOST}), CAUSE::Schedule);
    EXPECT_TRUE(shutdown_pending({{}, ups, HOST}));
}

TEST(ControlCause, FollowsFromWhatStandsBesideTheTime)
{
    UPS failing = with_event(quiet(), 65);
    failing.upsstat = UPSBIT_ACFAIL;
    EXPECT_EQ(shutdown_cause({{}, failing, HOST}), CAUSE::MainsFailure);
    UPS low = with_event(failing, 128);
    low.upsstat |= UPSBIT_BATTLOW;
    EXPECT_EQ(shutdown_cause({{}, low, HOST}), CAUSE::BatteryLow);
    UPS ordered = with_event(quiet(), 79);
    ordered.ui.CommandDownS = 1;
    EXPECT_EQ(shutdown_cause({{}, ordered, HOST}), CAUSE::User);
    EXPECT_EQ(shutdown_cause({{}, with_event(quiet(), 80), HOST}), CAUSE::Agent);
    UPS triggered = with_event(quiet(), 66);
    triggered.ui.ShutdownS = 1;
    EXPECT_EQ(shutdown_cause({{}, triggered, HOST}), CAUSE::Event);
    for (const UPS &ups : {failing, low, ordered, triggered})
        EXPECT_TRUE(shutdown_pending({{}, ups, HOST}));
}

// At the moment of the shutdown the daemon raises the event of another agent's order with its own host's
// name.
TEST(ControlCause, TheDaemonsOwnWordToOthersIsNoOrderOfAnotherAgent)
{
    for (const auto &[id, cause] : {std::pair(129, CAUSE::MainsFailure), std::pair(131, CAUSE::Schedule),
                                    std::pair(128, CAUSE::BatteryLow), std::pair(133, CAUSE::User)}) {
        UPS ups = with_event(quiet(), 80);
        ups.ui.ShutdownS = 1;
        ups.ui.events[0].EventId = static_cast<std::uint8_t>(id);
        ups.ui.events[0].timeinfo = SOME_TIME;
        std::copy_n(HOST, 15, ups.ui.events[1].AgentName.begin());
        EXPECT_EQ(shutdown_cause({{}, ups, HOST}), cause) << id;
        ups.ui.events[1].AgentName = {'o', 't', 'h', 'e', 'r'};
        EXPECT_EQ(shutdown_cause({{}, ups, HOST}), CAUSE::Agent) << id;
    }
}

TEST(ControlCause, AnOrderThatWasCalledOffIsNoCause)
{
    UPS ups = with_event(quiet(), 80);
    std::swap(ups.ui.events[0], ups.ui.events[1]);
    ups = with_event(ups, 21);
    EXPECT_EQ(shutdown_cause({{}, ups, HOST}), CAUSE::Schedule);
    ups.ui.ShutdownS = 1;  // a user cannot call off what another agent ordered
    EXPECT_EQ(shutdown_cause({{}, ups, HOST}), CAUSE::Agent);
    UPS ignoring = with_event(quiet(), 80);
    ignoring.up.commparam.bIgnore = 1;
    EXPECT_EQ(shutdown_cause({{}, ignoring, HOST}), CAUSE::Schedule);
}

// The shutdown goes on all the same, and its own event is no longer among the last two.
TEST(ControlCause, MainsThatReturnInTheGraceWereTheCause)
{
    UPS ups = with_event(quiet(), 80);
    std::copy_n(HOST, 15, ups.ui.events[1].AgentName.begin());
    std::swap(ups.ui.events[0], ups.ui.events[1]);
    ups = with_event(ups, 0);
    ups.ui.ShutdownS = 1;
    EXPECT_EQ(shutdown_cause({{}, ups, HOST}), CAUSE::MainsFailure);
}

TEST(ControlCause, TheLastEventOfAllCarriesTheCauseWithIt)
{
    UPS ups = with_event(quiet(), 22);
    ups.ui.ShutdownS = 1;
    ups.ui.events[1].byDownToEvt = static_cast<std::int8_t>(132);
    EXPECT_EQ(shutdown_cause({{}, ups, HOST}), CAUSE::Schedule);
}

TEST(ControlStatusPage, ASilentUnitShowsNoMeasurements)
{
    UPS ups = quiet();
    ups.ui.CommStatus = COMM_LOST;
    ups.ui.ComId = -1;
    const std::string page = status_page({{}, ups, HOST});
    EXPECT_THAT(page, testing::HasSubstr("Link              lost\n"));
    EXPECT_THAT(page, testing::Not(testing::HasSubstr("Load")));
    EXPECT_THAT(page, testing::HasSubstr("Agent             gone\n"));
}

TEST(ControlStatusPage, AModelNameCannotForgeALine)
{
    UPS ups = quiet();
    ups.ui.upsmodel = {'Z', '\n', '\x1b', '[', '2', 'J'};
    EXPECT_THAT(status_page({{}, ups, HOST}), testing::HasSubstr("Model             Z\\x0A\\x1B[2J\n"));
}

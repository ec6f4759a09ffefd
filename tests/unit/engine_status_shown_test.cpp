// What the status record shows after a pass: the last events, the time, the next shutdown and restart.
#include "tests/unit/engine_status_fixture.h"

#include <cstring>

class MonitorShown : public Monitor
{
  protected:
    void SetUp() override
    {
        Monitor::SetUp();
        engine.GRACE_PERIOD = 120;
        connect();
    }

    static constexpr std::time_t DEADLINE = 1'078'480'000;
    static constexpr std::time_t BOOT = 1'078'490'000;

    /// The time that a field shows, 0 when it is empty.
    static std::time_t time_of(const UPS_TIMEINFO &shown)
    {
        if (shown.year == 0)
            return shown.month + shown.day + shown.hour + shown.minute + shown.second;
        return local_time(shown.year + 1900, shown.month, shown.day, shown.hour, shown.minute, shown.second);
    }

    /// What a pass shows when `reason` is in force with every deadline set: the next shutdown and restart.
    std::pair<std::time_t, std::time_t> shown_for(REASON reason, std::time_t ENGINE::*deadline)
    {
        engine.downreason = reason;
        if (deadline != nullptr)
            engine.*deadline = DEADLINE;
        std::memset(&ups.ui.nextdown, 0x11, sizeof ups.ui.nextdown);
        std::memset(&ups.ui.nextboot, 0x11, sizeof ups.ui.nextboot);
        EXPECT_EQ(pass(), 0);
        if (deadline != nullptr)
            engine.*deadline = 0;
        return {time_of(ups.ui.nextdown), time_of(ups.ui.nextboot)};
    }

    using times = std::pair<std::time_t, std::time_t>;
};

TEST_F(MonitorShown, TheLastEventsAndTheTime)
{
    fail_mains();
    EXPECT_EQ(ups.ui.events[0].EventId, 1);
    EXPECT_EQ(ups.ui.events[1].EventId, 65);
    advance(10);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(time_of(ups.ui.timeinfo), 1'078'477'632);
}

TEST_F(MonitorShown, EachDeadlineWithTheGrace)
{
    EXPECT_EQ(shown_for(USER_SPECIFY, &ENGINE::USR_off), times(DEADLINE + 120, 0));
    EXPECT_EQ(shown_for(OTHERAGEDOWN, &ENGINE::OTHERAG_off), times(DEADLINE + 120, 0));
    EXPECT_EQ(shown_for(BATT_LOW, &ENGINE::BATTLOW_off), times(DEADLINE + 120, 0));
    EXPECT_EQ(shown_for(EVENT_TRIGGER, &ENGINE::EVENTTRIGGER_off), times(DEADLINE + 120, 0));
    EXPECT_EQ(shown_for(NONE, &ENGINE::USR_off), times(0, 0));
    EXPECT_EQ(shown_for(USER_SPECIFY_LOW, &ENGINE::USR_off), times(0, 0));
}

TEST_F(MonitorShown, AScheduleWithItsRestart)
{
    engine.SCH_boot = BOOT;
    for (const REASON reason : {SPECIAL, WEEKLY, MONTHLY})
        EXPECT_EQ(shown_for(reason, &ENGINE::SCH_off), times(DEADLINE + 120, BOOT + 120));
    EXPECT_EQ(shown_for(WEEKLY, nullptr), times(0, BOOT + 120));
    engine.SCH_boot = 0;
    EXPECT_EQ(shown_for(WEEKLY, &ENGINE::SCH_off), times(DEADLINE + 120, 0));
}

TEST_F(MonitorShown, NoGraceIsShownWhereOtherAgentsAreIgnored)
{
    ups.up.commparam.bIgnore = 1;
    EXPECT_EQ(shown_for(USER_SPECIFY, &ENGINE::USR_off), times(DEADLINE, 0));
    EXPECT_EQ(engine.dispgrace, 0);
}

TEST_F(MonitorShown, AnOrderOfAnotherAgentThatIsIgnoredFromThisPassOnIsNotShown)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n IgnoreOtherAgentDown = 1\n");
    set_model("ZR401");
    EXPECT_EQ(shown_for(OTHERAGEDOWN, &ENGINE::OTHERAG_off), times(0, 0));
    EXPECT_EQ(ups.up.commparam.bIgnore, 1);
}

TEST_F(MonitorShown, NothingIsShownForADeadlineThatIsNotSet)
{
    for (const REASON reason : {USER_SPECIFY, OTHERAGEDOWN, BATT_LOW, EVENT_TRIGGER, SPECIAL})
        EXPECT_EQ(shown_for(reason, nullptr), times(0, 0)) << reason;
}

TEST_F(MonitorShown, WithoutALinkOrdersAndSchedulesAreNotShown)
{
    for (const std::int8_t status : {COMM_LOST, COMM_NOUPS}) {
        set_link(status);
        ASSERT_EQ(pass(), 0);
        engine.SCH_boot = BOOT;
        EXPECT_EQ(shown_for(USER_SPECIFY, &ENGINE::USR_off), times(0, 0));
        EXPECT_EQ(shown_for(SPECIAL, &ENGINE::SCH_off), times(0, 0));
        EXPECT_EQ(shown_for(BATT_LOW, &ENGINE::BATTLOW_off), times(DEADLINE + 120, 0));
    }
}

TEST_F(MonitorShown, AMainsFailureShowsItsDeadlineAndItsLength)
{
    fail_mains();
    advance(7);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(time_of(ups.ui.nextdown), 1'078'477'622 + 60 + 120);
    EXPECT_EQ(time_of(ups.ui.nextboot), 0);
    EXPECT_EQ(engine.ACFAIL_duration, 7);
    restore_mains();
    EXPECT_EQ(time_of(ups.ui.nextdown), 0);
}

TEST_F(MonitorShown, AMainsFailureWithoutADeadlineShowsNothingAndKeepsItsLength)
{
    fail_mains();
    set_unit(UPSSTAT_FAULT, UPSBIT_ACFAIL);
    EXPECT_EQ(pass(), 0);
    engine.ACFAIL_off = 0;
    engine.ACFAIL_duration = 3;
    advance(7);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(engine.downreason, AC_FAIL);
    EXPECT_EQ(engine.ACFAIL_duration, 3);
    EXPECT_EQ(time_of(ups.ui.nextdown), 0);
}

TEST_F(MonitorShown, ATimeWithoutADateFailsThePassAndIsNotShown)
{
    engine.downreason = BATT_LOW;
    engine.BATTLOW_off = -1000;
    ups.ui.nextdown.year = 104;
    EXPECT_EQ(pass(), -1);
    EXPECT_EQ(ups.ui.nextdown.year, 104);
    EXPECT_EQ(ups.ui.nextboot.year, 0);
}

// The event bits under the status monitor: self-tests and their results, faults, overload, bypass, the
// battery.
#include "tests/unit/engine_status_fixture.h"

class MonitorBits : public Monitor
{
  protected:
    void SetUp() override
    {
        Monitor::SetUp();
        connect();
    }

    /// A self-test from begin to end; the events of its end are in `raised`.
    void run_test(std::uint32_t kind, std::uint32_t battery, std::uint32_t unit)
    {
        set_unit(UPSSTAT_TESTING, UPSBIT_TESTING);
        ASSERT_EQ(pass(), 0);
        ups.ui.sftResBattery.Result = battery;
        ups.ui.sftResUPS.Result = unit;
        set_unit(UPSSTAT_NORMAL, kind);
        ASSERT_EQ(pass(), 0);
    }

    void set_bits(std::uint32_t bits)
    {
        ups.upsstat = bits;
        ASSERT_EQ(pass(), 0);
    }
};

// ---- self-tests

TEST_F(MonitorBits, AUnitTestsResultIsToldByWhoStartedIt)
{
    const std::array<std::tuple<REASON, ids, ids>, 7> cases = {{
        {NONE, {2}, {69}},
        {USER_SPECIFY, {2}, {69}},
        {SPECIAL, {3}, {70}},
        {WEEKLY, {4}, {71}},
        {MONTHLY, {5}, {72}},
        {AC_FAIL, {}, {}},
        {USER_SPECIFY_LOW, {}, {}},
    }};
    for (const auto &[reason, passed, failed] : cases) {
        engine.testreason = reason;
        run_test(0, SELFTEST_FAILED, SELFTEST_PASSED);
        EXPECT_EQ(raised, passed) << reason;
        EXPECT_EQ(engine.testreason, NONE);
        EXPECT_EQ(engine.ISTESTTING, 0);
        engine.testreason = reason;
        run_test(0, SELFTEST_PASSED, SELFTEST_FAILED);
        EXPECT_EQ(raised, failed) << reason;
    }
    run_test(0, SELFTEST_NONE, SELFTEST_NONE);
    EXPECT_EQ(raised, ids{2});
}

TEST_F(MonitorBits, ABatteryTestsResultIsTold)
{
    const std::array<std::pair<std::uint32_t, ids>, 4> cases = {
        {{SELFTEST_PASSED, {6}}, {SELFTEST_FAILED, {73}}, {SELFTEST_NONE, {}}, {3, {}}}};
    for (const auto &[result, expected] : cases) {
        engine.testreason = WEEKLY;
        run_test(UPSBIT_BATTTEST, result, SELFTEST_PASSED);
        EXPECT_EQ(raised, expected) << result;
        EXPECT_EQ(engine.testreason, NONE);
        EXPECT_EQ(engine.ISTESTTING, 0);
    }
}

TEST_F(MonitorBits, ATestThatBeginsKeepsItsCause)
{
    engine.testreason = MONTHLY;
    set_unit(UPSSTAT_TESTING, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(engine.testreason, MONTHLY);
    EXPECT_EQ(engine.ISTESTTING, 1);
}

TEST_F(MonitorBits, ATestThatBeginsWithoutABatteryIsToldWhereTheUnitKnows)
{
    const std::array<std::pair<const char *, bool>, 6> cases = {{{"ZR900PL", true},
                                                                 {"ZM300LT", true},
                                                                 {"ZR401", false},
                                                                 {"ZR401X", false},
                                                                 {"ZR6020", false},
                                                                 {"ZQ100", false}}};
    for (const auto &[model, told] : cases) {
        set_model(model);
        set_unit(UPSSTAT_NORMAL, UPSBIT_BATTDISCONNECT);
        EXPECT_EQ(pass(), 0);
        set_unit(UPSSTAT_TESTING, UPSBIT_BATTDISCONNECT | UPSBIT_TESTING);
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(recorder.english, told ? texts{"UPS Battery Disconnect"} : texts{}) << model;
        EXPECT_EQ(raised, ids{});
    }
    set_bits(0);
    set_bits(UPSBIT_TESTING);
    EXPECT_TRUE(recorder.english.empty());
}

TEST_F(MonitorBits, ATestThatIsOverBeforeTheLinkReturnsTellsNothing)
{
    set_bits(UPSBIT_TESTING);
    set_link(COMM_NOUPS);
    ups.upsstat = 0;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
}

// ---- fault, overload, bypass

TEST_F(MonitorBits, AFaultIsToldOnceUntilItClears)
{
    set_bits(UPSBIT_FAULT);
    EXPECT_EQ(raised, ids{77});
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 2);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(raised, ids{});
    }
    set_bits(UPSBIT_FAULT | UPSBIT_STANDBY);
    EXPECT_EQ(raised, ids{});
    set_bits(0);
    EXPECT_EQ(raised, ids{});
    set_bits(UPSBIT_FAULT);
    EXPECT_EQ(raised, ids{77});
}

TEST_F(MonitorBits, OverloadAndBypassAreToldWhenTheyBegin)
{
    set_bits(UPSBIT_OVERLOAD);
    EXPECT_EQ(raised, ids{78});
    set_bits(UPSBIT_OVERLOAD | UPSBIT_BYPASS);
    EXPECT_EQ(raised, ids{67});
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 1);
    set_bits(0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 1);
}

TEST_F(MonitorBits, WhatBeginsAtOnceIsToldInAFixedOrder)
{
    set_bits(UPSBIT_ACFAIL | UPSBIT_FAULT | UPSBIT_OVERLOAD | UPSBIT_BYPASS | UPSBIT_BATTLOW |
             UPSBIT_BATTWEAK | UPSBIT_BATTDISCONNECT);
    EXPECT_EQ(raised, (ids{65, 77, 78, 67, 128, 68, 66}));
    set_unit(UPSSTAT_NORMAL, UPSBIT_OVERLOAD);
    EXPECT_EQ(pass(), 0);
    set_bits(UPSBIT_BYPASS);
    EXPECT_EQ(raised, ids{67});
}

TEST_F(MonitorBits, MainsThatReturnAreToldBehindTheUnitAndBeforeTheBattery)
{
    fail_mains();
    set_unit(UPSSTAT_NORMAL, UPSBIT_FAULT | UPSBIT_BYPASS | UPSBIT_BATTLOW | UPSBIT_BATTWEAK);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, (ids{77, 67, 0, 128, 68}));
    EXPECT_EQ(recorder.english.at(0), "UPS AC Restore");
    EXPECT_EQ(recorder.english.at(1), "UPS Battery Low");
}

TEST_F(MonitorBits, BitsWithoutAnEventAreOnlyAnnounced)
{
    set_bits(UPSBIT_CF | UPSBIT_SHUTDOWN | UPSBIT_STANDBY | 1u);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{E_CB_SETTINGSCHANGED, 0, 0}}));
}

// ---- the battery

TEST_F(MonitorBits, ALowBatteryMakesTheShutdownDueAtOnce)
{
    events[0].Shutdown = 0;  // it does not take the event's own shutdown
    advance(30);
    set_bits(UPSBIT_BATTLOW);
    EXPECT_EQ(raised, ids{128});
    EXPECT_EQ(recorder.english, texts{"UPS Battery Low"});
    EXPECT_EQ(engine.downreason, BATT_LOW);
    EXPECT_EQ(engine.BATTLOW_off, 1'078'477'652);
    EXPECT_EQ(engine.next_off, 1'078'477'652);
    advance(1);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(engine.next_off, 1'078'477'652);
}

TEST_F(MonitorBits, ALowBatteryOutlastsTheMainsThatReturn)
{
    fail_mains();
    set_unit(UPSSTAT_ACFAIL, UPSBIT_ACFAIL | UPSBIT_BATTLOW);
    EXPECT_EQ(pass(), 0);
    restore_mains();
    EXPECT_EQ(engine.downreason, BATT_LOW);
    EXPECT_NE(engine.BATTLOW_off, 0);
    EXPECT_EQ(engine.ACFAIL_off, 0);
}

TEST_F(MonitorBits, AWeakBatteryIsToldWithAdvice)
{
    set_bits(UPSBIT_BATTWEAK);
    EXPECT_EQ(raised, ids{68});
    const std::string advice = "Ups battery is weak.Please change the battery as soon as possible.\n"
                               "If you don't change the battery UPS can't action when UPS AC Fail.";
    EXPECT_EQ(recorder.english, texts{advice});
    EXPECT_EQ(recorder.localised, texts{advice});
}

TEST_F(MonitorBits, ADisconnectedBatteryIsToldAndKnown)
{
    EXPECT_EQ(engine.bBattConnect, 1);
    set_bits(UPSBIT_BATTDISCONNECT);
    EXPECT_EQ(raised, ids{66});
    EXPECT_EQ(recorder.english, texts{"UPS Battery Disconnect"});
    EXPECT_EQ(engine.bBattConnect, 0);
    set_bits(0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(engine.bBattConnect, 1);
}

// Self-tests from command to recorded result, with the clock set by the test.
#include "ups_unit.h"

#include <ctime>
#include <optional>

// Seconds since the epoch that this program's clock shows.
static std::atomic<std::time_t> present{1700000000};

extern "C" std::time_t time(std::time_t *out) noexcept
{
    if (out != nullptr)
        *out = present;
    return present;
}

static constexpr const char *IDLE = "00000000";
static constexpr const char *TESTING = "00000100";

class UpsSelftest : public UpsTest
{
  protected:
    void start(const std::string &name)
    {
        unit.emplace("/dev/ttyS0");
        connect(name);
        upschan.cf.V = ups_isoldmodel() ? 0 : 1;
        ui().sftResBattery.Result = 99;
        ui().sftResUPS.Result = 99;
        state("00000000");
    }

    void state(const std::string &characters)
    {
        unit->answer("V", {characters + "\r"});
    }

    // The two queries of a pass that concern tests.
    void pass(const std::string &status)
    {
        Q1FIELDS fields;
        fields.status = status;
        unit->answer("Q1", {q1_line(fields)});
        EXPECT_EQ(ups_getupsinfo(&record), 0);
        after_q1 = mask();
        ups_getcomplstatus(&record);
    }

    // A test of `seconds` that ends with `status`.
    void test_of(int seconds, const std::string &status = IDLE)
    {
        pass(IDLE);
        pass(TESTING);
        present += seconds;
        pass(status);
    }

    std::optional<Unit> unit;
    std::uint32_t after_q1 = 0;  // the mask between the two queries
};

struct LIMIT {
    const char *model;
    int seconds;
    bool battery;
};

TEST_F(UpsSelftest, KindDependsOnDurationAndModel)
{
    const std::vector<LIMIT> cases{
        {"ZR900PL", 15, false}, {"ZR900PL", 16, true}, {"ZQ300", 15, false}, {"ZQ300", 16, true},
        {"ZM500", 16, false},   {"ZM500", 20, false},  {"ZM500", 21, true},  {"ZR401", 600, false},
        {"ZR6020", 600, false}, {"ZR900PL", 0, false},
    };
    for (const LIMIT &c : cases) {
        start(c.model);
        test_of(c.seconds);
        EXPECT_EQ(ui().sftResBattery.Result, c.battery ? SELFTEST_PASSED : 99U)
            << c.model << " " << c.seconds;
        EXPECT_EQ(ui().sftResUPS.Result, c.battery ? 99U : SELFTEST_PASSED) << c.model << " " << c.seconds;
        EXPECT_EQ(mask(), c.battery ? UPSBIT_BATTTEST : 0U) << c.model << " " << c.seconds;
        ups_closeport();
        unit.reset();
        upschan.beBattTest = upschan.beUpsTest = upschan.lasttest = 0;
        mask() = 0;
    }
}

TEST_F(UpsSelftest, DurationCountsFromTheFirstLineThatShowsTheTest)
{
    start("ZR900PL");
    pass(TESTING);
    present += 10;
    pass(TESTING);
    present += 10;
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_PASSED);
    EXPECT_EQ(ui().sftResUPS.Result, 99U);
}

TEST_F(UpsSelftest, DurationOfACommandedTestDoesNotCountFromItsCommand)
{
    start("ZR900PL");
    upschan.bSendTestCmd = 1;
    pass(IDLE);
    present += 10;
    pass(TESTING);
    present += 10;
    pass(IDLE);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_PASSED);
    EXPECT_EQ(ui().sftResBattery.Result, 99U);
}

TEST_F(UpsSelftest, StartOfATestArmsTheClockAnew)
{
    const auto arms = [this](const char *status) {
        itimerval low{};
        low.it_value.tv_sec = 1000;
        EXPECT_EQ(setitimer(ITIMER_REAL, &low, nullptr), 0);
        pass(status);
        itimerval left{};
        EXPECT_EQ(getitimer(ITIMER_REAL, &left), 0);
        return left.it_value.tv_sec > 1000;
    };
    start("ZR900PL");
    EXPECT_FALSE(arms(IDLE));
    EXPECT_TRUE(arms(TESTING));
    EXPECT_FALSE(arms(TESTING));
    EXPECT_FALSE(arms(IDLE));
}

TEST_F(UpsSelftest, RunningTestIsShown)
{
    start("ZR900PL");
    pass(TESTING);
    EXPECT_EQ(ui().upsstat, UPSSTAT_TESTING);
    EXPECT_EQ(ui().BattStatus, BATT_TESTING);
    EXPECT_EQ(mask(), UPSBIT_TESTING);
}

TEST_F(UpsSelftest, TestBitStaysUntilTheResultIsRecorded)
{
    start("ZR900PL");
    test_of(30);
    EXPECT_EQ(after_q1, UPSBIT_TESTING | UPSBIT_BATTTEST);
    EXPECT_EQ(mask(), UPSBIT_BATTTEST);
    EXPECT_EQ(ui().upsstat, UPSSTAT_NORMAL);
}

TEST_F(UpsSelftest, ResultCarriesTheTimeOfItsRecording)
{
    start("ZR900PL");
    test_of(30);
    const std::time_t now = present;
    std::tm local{};
    localtime_r(&now, &local);
    const UPS_TIMEINFO &t = ui().sftResBattery.timeinfo;
    EXPECT_EQ(t.year, local.tm_year);
    EXPECT_EQ(t.month, local.tm_mon + 1);
    EXPECT_EQ(t.day, local.tm_mday);
    EXPECT_EQ(t.hour, local.tm_hour);
    EXPECT_EQ(t.minute, local.tm_min);
    EXPECT_EQ(t.second, local.tm_sec);
}

TEST_F(UpsSelftest, FaultAtTheEndMakesALongTestAFailedUpsTest)
{
    for (const char *status : {"00010000", "00000001"}) {
        start("ZR900PL");
        test_of(60, status);
        EXPECT_EQ(upschan.gb_upstest_ok, 0);
        EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_FAILED);
        EXPECT_EQ(mask() & (UPSBIT_TESTING | UPSBIT_BATTTEST), 0U);
        ups_closeport();
        unit.reset();
    }
}

TEST_F(UpsSelftest, WeakBatteryAtTheEndOfABatteryTestFailsIt)
{
    start("ZR900PL");
    pass(TESTING);
    present += 30;
    state("00000001");
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_FAILED);
    EXPECT_EQ(mask(), UPSBIT_BATTTEST);
    EXPECT_EQ(ui().sftResUPS.Result, 99U);
}

TEST_F(UpsSelftest, BatteryKnownAsWeakFailsTheBatteryTestAtTheStatusLine)
{
    start("ZR900PL");
    state("00000001");
    pass(TESTING);
    present += 30;
    unit->answer("V", {"NAK\r"});
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_FAILED);
    EXPECT_EQ(ui().BattStatus, BATT_WEAK);
}

TEST_F(UpsSelftest, BatteryKnownAsWeakFailsItsTestThoughItIsDisconnected)
{
    start("ZR900PL");
    state("10000001");
    pass(TESTING);
    present += 30;
    unit->answer("V", {"NAK\r"});
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_FAILED);
    EXPECT_EQ(ui().BattStatus, BATT_DISCONNECTED);
    EXPECT_EQ(mask() & UPSBIT_BATTWEAK, 0U);
}

TEST_F(UpsSelftest, SeriesZqLeavesAWeakBatterysResultToTheUnitState)
{
    start("ZQ300");
    state("00000001");
    pass(TESTING);
    present += 30;
    unit->answer("V", {"NAK\r"});
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, 99U);
    state("00000001");
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_FAILED);
}

TEST_F(UpsSelftest, BatteryFaultOutsideATestRecordsNoResult)
{
    for (const char *characters : {"00000100", "00000001"}) {
        start("ZR900PL");
        state(characters);
        pass(IDLE);
        pass(IDLE);
        EXPECT_EQ(ui().sftResBattery.Result, 99U) << characters;
        EXPECT_EQ(ui().sftResUPS.Result, 99U) << characters;
        ups_closeport();
        unit.reset();
        upschan.gb_Battest_HWFail = upschan.gb_Battest_Weak = 0;
        mask() = 0;
    }
}

TEST_F(UpsSelftest, ResultIsRecordedOnce)
{
    start("ZR900PL");
    test_of(30);
    ui().sftResBattery.Result = 99;
    state("00000001");
    pass(IDLE);
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, 99U);
}

TEST_F(UpsSelftest, FaultOfTheUnitStateLastsUntilTheUnitStateShowsItGone)
{
    start("ZR900PL");
    state("00000100");
    pass(IDLE);
    pass(IDLE);
    EXPECT_EQ(ui().upsstat, UPSSTAT_FAULT);
    EXPECT_EQ(mask(), UPSBIT_FAULT);
    state("00000000");
    pass(IDLE);
    pass(IDLE);
    EXPECT_EQ(ui().upsstat, UPSSTAT_NORMAL);
    EXPECT_EQ(mask(), 0U);
}

TEST_F(UpsSelftest, BatteryFaultAfterAGoodUpsTestLeavesTheJudgementToTheEngine)
{
    for (const char *characters : {"00000100", "00000001"}) {
        start("ZR900PL");
        pass(TESTING);
        present += 10;
        state(characters);
        pass(IDLE);
        EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_FAILED) << characters;
        EXPECT_EQ(ui().sftResUPS.Result, 99U) << characters;
        EXPECT_EQ(mask(), UPSBIT_BATTTEST) << characters;
        ups_closeport();
        unit.reset();
        upschan.gb_Battest_HWFail = upschan.gb_Battest_Weak = 0;
        mask() = 0;
    }
}

TEST_F(UpsSelftest, UnitFaultKeepsTheBatteryResult)
{
    start("ZR900PL");
    pass(TESTING);
    present += 30;
    state("00000100");
    pass("00010000");
    EXPECT_EQ(ui().sftResBattery.Result, 99U);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_FAILED);
}

TEST_F(UpsSelftest, LostUnitStateAtTheEndOnlyDelaysTheResult)
{
    start("ZR900PL");
    pass(TESTING);
    present += 30;
    unit->answer("V", {"NAK\r"});
    pass(IDLE);
    EXPECT_EQ(mask(), UPSBIT_TESTING | UPSBIT_BATTTEST);
    EXPECT_EQ(ui().sftResBattery.Result, 99U);
    state("00000000");
    pass(IDLE);
    EXPECT_EQ(mask(), UPSBIT_BATTTEST);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_PASSED);
}

TEST_F(UpsSelftest, BatteryResultIsNotRecordedOnALostLine)
{
    start("ZR900PL");
    pass(TESTING);
    present += 30;
    ui().CommStatus = COMM_LOST;
    pass(IDLE);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_NONE);
}

TEST_F(UpsSelftest, CommandedTestIsShownAtOnceAndFollowed)
{
    start("ZR900PL");
    upschan.bSendTestCmd = 1;
    pass(IDLE);
    EXPECT_EQ(mask(), UPSBIT_TESTING);
    EXPECT_EQ(upschan.bSendTestCmd, 0);
    pass(TESTING);
    present += 10;
    pass(IDLE);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_PASSED);
    EXPECT_EQ(mask(), 0U);
    ui().sftResUPS.Result = 99;
    pass(IDLE);
    EXPECT_EQ(ui().sftResUPS.Result, 99U);
}

TEST_F(UpsSelftest, CommandedTestThatTheUnitNeverShowsIsAFailedUpsTest)
{
    start("ZR900PL");
    mask() = UPSBIT_BATTTEST;
    upschan.bSendTestCmd = 1;
    pass(IDLE);
    EXPECT_EQ(ui().sftResUPS.Result, 99U);
    pass(IDLE);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_FAILED);
    EXPECT_EQ(mask(), 0U);
    ui().sftResUPS.Result = 99;
    pass(IDLE);
    EXPECT_EQ(ui().sftResUPS.Result, 99U);
}

TEST_F(UpsSelftest, ClockSetBackDuringATestMakesItAShortOne)
{
    start("ZR900PL");
    test_of(-3600);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_PASSED);
    EXPECT_EQ(mask(), 0U);
}

TEST_F(UpsSelftest, OlderFamilyRecordsItsUpsTestWithoutAUnitState)
{
    start("ZR401");
    test_of(30);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_PASSED);
    EXPECT_EQ(mask(), 0U);
    EXPECT_EQ(unit->count("V"), 0);
    ui().sftResUPS.Result = 99;
    test_of(30, "00010000");
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_FAILED);
}

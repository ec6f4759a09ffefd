// The unit's life in time: battery, self-tests, ordered switch-off and restart.
#include "sim/sim_protocol.h"
#include "sim/sim_unit.h"

#include <gtest/gtest.h>

#include <cmath>

namespace
{

using namespace std::chrono_literals;
using sim::answer;
using sim::Unit;

Unit unit_of(std::string_view model, std::uint64_t seed = 1)
{
    return sim::unit_new(*sim::find_model(model), sim::Surroundings{}, seed, sim::Time(0));
}

void after(Unit &unit, sim::Time time)
{
    sim::unit_advance(unit, unit.now + time);
}

char bit(const Unit &unit, int number)
{
    return sim::status_line(unit)[static_cast<std::size_t>(45 - number)];
}

// ---- battery ----

TEST(SimBattery, FullLoadEmptiesItInTheRunTime)
{
    const sim::Model &model = *sim::find_model("ZR900PL");
    sim::Battery battery = sim::battery_full(model);
    sim::battery_pass(battery, model, sim::BatteryUse::discharging, 1.0, model.runtime / 2);
    EXPECT_NEAR(battery.charge, 0.5, 1e-9);
    sim::battery_pass(battery, model, sim::BatteryUse::discharging, 1.0, model.runtime);
    EXPECT_EQ(battery.charge, 0.0);
}

TEST(SimBattery, LessLoadLastsLonger)
{
    const sim::Model &model = *sim::find_model("ZR900PL");
    sim::Battery battery = sim::battery_full(model);
    sim::battery_pass(battery, model, sim::BatteryUse::discharging, 0.35, model.runtime);
    EXPECT_NEAR(battery.charge, 1.0 - (0.03 + 0.97 * 0.35), 1e-9);
}

TEST(SimBattery, ChargesInTheRechargeTimeAndNotBeyondFull)
{
    const sim::Model &model = *sim::find_model("ZR900PL");
    sim::Battery battery;
    sim::battery_set_charge(battery, model, 0.0);
    sim::battery_pass(battery, model, sim::BatteryUse::charging, 0.0, model.recharge / 4);
    EXPECT_NEAR(battery.charge, 0.25, 1e-9);
    sim::battery_pass(battery, model, sim::BatteryUse::charging, 0.0, model.recharge);
    EXPECT_EQ(battery.charge, 1.0);
}

TEST(SimBattery, VoltageFloatsOnMainsAndSinksUnderLoad)
{
    const sim::Model &model = *sim::find_model("ZR401");
    sim::Battery battery = sim::battery_full(model);
    EXPECT_NEAR(battery.volts, 13.62, 0.001);
    sim::battery_pass(battery, model, sim::BatteryUse::discharging, 0.5, 30);
    const double early = battery.volts;
    EXPECT_LT(early, 12.5);
    sim::battery_pass(battery, model, sim::BatteryUse::discharging, 0.5, 120);
    EXPECT_LT(battery.volts, early);
}

TEST(SimUnit, MainsFailureIsSeenAtOnceAndTheInputSags)
{
    Unit unit = unit_of("ZR900PL");
    after(unit, 5s);
    sim::unit_set_mains(unit, false);
    EXPECT_EQ(bit(unit, 7), '1');
    EXPECT_GT(unit.input_volts, 90.0);
    after(unit, 500ms);
    EXPECT_LT(unit.input_volts, 50.0);
    after(unit, 5s);
    EXPECT_EQ(sim::status_line(unit).substr(0, 18), "(000.0 100.0 100.0");
    EXPECT_EQ(sim::status_line(unit).substr(23, 4), "00.0");
    sim::unit_set_mains(unit, true);
    EXPECT_EQ(bit(unit, 7), '0');
    after(unit, 5s);
    EXPECT_EQ(sim::status_line(unit).substr(0, 6), "(100.0");
}

TEST(SimUnit, BrownOutAndOvervoltageRunOnBattery)
{
    Unit unit = unit_of("ZR900PL");
    for (double volts : {79.0, 121.0}) {
        sim::unit_set_input(unit, volts);
        EXPECT_EQ(bit(unit, 7), '1') << volts;
    }
    for (double volts : {80.0, 120.0}) {
        sim::unit_set_input(unit, volts);
        EXPECT_EQ(bit(unit, 7), '0') << volts;
    }
}

TEST(SimUnit, DrainsToLowThenEmptyThenSwitchesOffAndIsDeaf)
{
    Unit unit = unit_of("ZR900PL");
    unit.around.load = 100;
    sim::unit_set_mains(unit, false);
    after(unit, 450s);
    EXPECT_EQ(bit(unit, 6), '0');
    after(unit, 60s);
    EXPECT_EQ(bit(unit, 6), '1');
    EXPECT_TRUE(unit.output.on);
    after(unit, 120s);
    EXPECT_EQ(answer(unit, "Bl ?"), "000\r");
    EXPECT_FALSE(unit.output.on);
    EXPECT_FALSE(sim::unit_powered(unit));
    EXPECT_EQ(sim::unit_receive(unit, '\r'), std::nullopt);
    sim::unit_set_mains(unit, true);
    EXPECT_TRUE(unit.output.on) << "restarts with mains";
    EXPECT_TRUE(unit.woke);
    EXPECT_EQ(sim::unit_receive(unit, '\r'), "");
    EXPECT_EQ(bit(unit, 6), '1') << "the battery is still low";
    after(unit, 4h);
    EXPECT_EQ(bit(unit, 6), '0');
    EXPECT_EQ(answer(unit, "Bl ?"), "100\r");
}

TEST(SimUnit, WithoutAutoRestartAnEmptyUnitStaysOff)
{
    Unit unit = unit_of("ZR900PL");
    answer(unit, "Af");
    sim::unit_set_charge(unit, 0.01);
    sim::unit_set_mains(unit, false);
    after(unit, 1min);
    ASSERT_FALSE(unit.output.on);
    sim::unit_set_mains(unit, true);
    after(unit, 1h);
    EXPECT_FALSE(unit.output.on);
    sim::unit_press_output(unit, true);
    EXPECT_TRUE(unit.output.on);
}

TEST(SimUnit, WithoutABatteryAMainsFailureIsTheEnd)
{
    Unit unit = unit_of("ZR900PL");
    sim::unit_set_disconnected(unit, true);
    EXPECT_TRUE(unit.output.on);
    sim::unit_set_mains(unit, false);
    EXPECT_FALSE(unit.output.on);
    EXPECT_FALSE(sim::unit_powered(unit));
}

TEST(SimUnit, RateMakesTheBatteryFaster)
{
    Unit unit = unit_of("ZR900PL");
    unit.around.load = 100;
    unit.around.rate = 60;
    sim::unit_set_mains(unit, false);
    after(unit, 5s);
    EXPECT_NEAR(unit.battery.charge, 0.5, 0.03);
}

TEST(SimUnit, LoadAndTemperatureDriftGently)
{
    Unit unit = unit_of("ZR900PL");
    bool moved = false;
    for (int i = 0; i < 600; ++i) {
        after(unit, 1s);
        EXPECT_NEAR(sim::unit_load(unit), 35.0, 2.01);
        EXPECT_NEAR(unit.temperature_drift, 0.0, 0.91);
        moved = moved || std::abs(unit.load_drift) > 0.5;
    }
    EXPECT_TRUE(moved);
}

TEST(SimUnit, SameSeedSameLifeWhateverTheSteps)
{
    Unit coarse = unit_of("ZR900PL", 7);
    Unit fine = unit_of("ZR900PL", 7);
    Unit other = unit_of("ZR900PL", 8);
    after(coarse, 600s);
    after(other, 600s);
    for (int i = 0; i < 6000; ++i)
        after(fine, 100ms);
    EXPECT_EQ(sim::status_line(coarse), sim::status_line(fine));
    EXPECT_EQ(coarse.load_drift, fine.load_drift);
    EXPECT_NE(coarse.load_drift, other.load_drift);
}

TEST(SimUnit, TimeThatRunsBackDoesNothing)
{
    Unit unit = unit_of("ZR900PL");
    after(unit, 10s);
    sim::unit_advance(unit, 5s);
    EXPECT_EQ(unit.now, 10s);
}

TEST(SimUnit, AnOverlongCommandIsPassedOverUpToItsEnd)
{
    Unit unit = unit_of("ZR900PL");
    for (int i = 0; i < 500; ++i)
        EXPECT_EQ(sim::unit_receive(unit, 'x'), std::nullopt);
    EXPECT_EQ(sim::unit_receive(unit, '\r'), "");
    sim::unit_receive(unit, 'V');
    EXPECT_EQ(sim::unit_receive(unit, '\r'), "V");
}

// ---- self-tests ----

TEST(SimSelfTest, LastsTenSecondsAndPasses)
{
    Unit unit = unit_of("ZR900PL");
    EXPECT_EQ(answer(unit, "T"), "OK\r");
    EXPECT_EQ(bit(unit, 2), '1');
    after(unit, 9999ms);
    EXPECT_EQ(bit(unit, 2), '1');
    after(unit, 1ms);
    EXPECT_EQ(bit(unit, 2), '0');
    EXPECT_EQ(answer(unit, "V"), "00000000\r");
    EXPECT_LT(unit.battery.charge, 1.0);
}

TEST(SimSelfTest, DurationIsExact)
{
    Unit unit = unit_of("ZR900PL");
    unit.test.brief_lasts = 16s;
    after(unit, 1234567us);
    answer(unit, "T");
    ASSERT_EQ(sim::unit_next_event(unit), unit.now + 1s);
    after(unit, 16s - 1ns);
    EXPECT_EQ(bit(unit, 2), '1');
    after(unit, 1ns);
    EXPECT_EQ(bit(unit, 2), '0');
}

TEST(SimSelfTest, WeakBatteryAndHardwareFailureAreTold)
{
    Unit unit = unit_of("ZR900PL");
    unit.test.will_be = sim::TestResult::weak;
    answer(unit, "T");
    EXPECT_EQ(answer(unit, "V"), "00000000\r") << "nothing is known before the end";
    after(unit, 10s);
    EXPECT_EQ(answer(unit, "V"), "00000001\r");
    EXPECT_EQ(bit(unit, 0), '0');
    unit.test.will_be = sim::TestResult::fail;
    answer(unit, "T");
    after(unit, 10s);
    EXPECT_EQ(answer(unit, "V"), "00000100\r");
    EXPECT_EQ(bit(unit, 4), '0');
    unit.test.will_be = sim::TestResult::pass;
    answer(unit, "T");
    after(unit, 10s);
    EXPECT_EQ(answer(unit, "V"), "00000000\r");
}

TEST(SimSelfTest, UnitsWithoutAStateLineTellInTheStatusBits)
{
    Unit unit = unit_of("ZR401");
    unit.test.will_be = sim::TestResult::weak;
    answer(unit, "T");
    after(unit, 10s);
    EXPECT_EQ(bit(unit, 0), '1');
    unit.test.will_be = sim::TestResult::fail;
    answer(unit, "T");
    after(unit, 10s);
    EXPECT_EQ(bit(unit, 0), '0');
    EXPECT_EQ(bit(unit, 4), '1');
}

TEST(SimSelfTest, LongTestEndsOnTheBrinkOfBatteryLow)
{
    Unit unit = unit_of("ZR900PL");
    EXPECT_EQ(answer(unit, "TL"), "OK\r");
    int seconds = 0;
    while (bit(unit, 2) == '1' && seconds < 3600) {
        after(unit, 1s);
        EXPECT_EQ(bit(unit, 6), '0');
        EXPECT_EQ(bit(unit, 7), '0');
        ++seconds;
    }
    EXPECT_GT(seconds, 600);
    EXPECT_LT(seconds, 3600);
    EXPECT_NEAR(unit.battery.charge, 0.20, 0.001);
}

TEST(SimSelfTest, IsRefusedWhileTheBatteryIsLow)
{
    Unit unit = unit_of("ZR900PL");
    sim::unit_set_charge(unit, 0.19);
    EXPECT_EQ(answer(unit, "T"), "NAK\r");
    sim::unit_set_charge(unit, 0.21);
    EXPECT_EQ(answer(unit, "T"), "OK\r");
}

TEST(SimSelfTest, LongTestMayHaveAFixedLength)
{
    Unit unit = unit_of("ZR900PL");
    unit.test.long_lasts = 30s;
    answer(unit, "TL");
    after(unit, 29s);
    EXPECT_EQ(bit(unit, 2), '1');
    after(unit, 1s);
    EXPECT_EQ(bit(unit, 2), '0');
}

TEST(SimSelfTest, CancelEndsItWithoutAResult)
{
    Unit unit = unit_of("ZR900PL");
    unit.test.will_be = sim::TestResult::weak;
    EXPECT_EQ(answer(unit, "CT"), "NAK\r");
    answer(unit, "T");
    EXPECT_EQ(answer(unit, "T"), "NAK\r");
    EXPECT_EQ(answer(unit, "TL"), "NAK\r");
    EXPECT_EQ(answer(unit, "CT"), "OK\r");
    EXPECT_EQ(bit(unit, 2), '0');
    after(unit, 20s);
    EXPECT_EQ(answer(unit, "V"), "00000000\r");
}

TEST(SimSelfTest, MainsFailureAbortsAndForbidsIt)
{
    Unit unit = unit_of("ZR900PL");
    answer(unit, "T");
    sim::unit_set_mains(unit, false);
    EXPECT_EQ(bit(unit, 2), '0');
    EXPECT_EQ(answer(unit, "T"), "NAK\r");
}

// ---- ordered switch-off ----

TEST(SimSwitchOff, CountsDownThenComesBackAfterTheRestartTime)
{
    Unit unit = unit_of("ZR900PL");
    EXPECT_EQ(answer(unit, "S.5R00010"), "OK\r");
    EXPECT_EQ(bit(unit, 1), '1');
    EXPECT_EQ(sim::unit_next_event(unit), 30s);
    after(unit, 30s - 1ns);
    EXPECT_TRUE(unit.output.on);
    after(unit, 1ns);
    EXPECT_FALSE(unit.output.on);
    EXPECT_EQ(bit(unit, 1), '0');
    EXPECT_EQ(sim::status_line(unit).substr(13, 9), "000.0 000");
    EXPECT_EQ(answer(unit, "S05"), "NAK\r") << "it is off already";
    EXPECT_EQ(sim::unit_next_event(unit), 30s + 10min);
    after(unit, 10min - 1ns);
    EXPECT_FALSE(unit.output.on);
    after(unit, 1ns);
    EXPECT_TRUE(unit.output.on);
    EXPECT_EQ(sim::unit_next_event(unit), std::nullopt);
}

TEST(SimSwitchOff, TimedRestartWaitsForMains)
{
    Unit unit = unit_of("ZR900PL");
    answer(unit, "S.1R00001");
    after(unit, 10s);
    sim::unit_set_mains(unit, false);
    after(unit, 5min);
    EXPECT_FALSE(unit.output.on);
    sim::unit_set_mains(unit, true);
    EXPECT_TRUE(unit.output.on);
}

TEST(SimSwitchOff, RestartTimeOfNoMinutesStillInterruptsTheOutput)
{
    Unit unit = unit_of("ZR900PL");
    answer(unit, "S.0R00000");
    after(unit, 9s);
    EXPECT_FALSE(unit.output.on);
    after(unit, 1s);
    EXPECT_TRUE(unit.output.on);
}

TEST(SimSwitchOff, DuringAnOutageItComesBackWithMains)
{
    Unit unit = unit_of("ZR900PL");
    sim::unit_set_mains(unit, false);
    answer(unit, "S.5");
    after(unit, 60s);
    EXPECT_FALSE(unit.output.on);
    sim::unit_set_mains(unit, true);
    EXPECT_TRUE(unit.output.on);
}

TEST(SimSwitchOff, MainsThatReturnsDuringTheCountdownDoesNotStrandTheLoad)
{
    Unit unit = unit_of("ZR900PL");
    sim::unit_set_mains(unit, false);
    answer(unit, "S.5");
    after(unit, 20s);
    sim::unit_set_mains(unit, true);
    after(unit, 15s);
    EXPECT_FALSE(unit.output.on) << "an ordered switch-off is carried out";
    after(unit, 5s);
    EXPECT_TRUE(unit.output.on);
}

TEST(SimSwitchOff, AnOutageWithinTheCountdownCounts)
{
    Unit unit = unit_of("ZR900PL");
    answer(unit, "S01");
    after(unit, 10s);
    sim::unit_set_mains(unit, false);
    after(unit, 10s);
    sim::unit_set_mains(unit, true);
    after(unit, 45s);
    EXPECT_FALSE(unit.output.on);
    after(unit, 5s);
    EXPECT_TRUE(unit.output.on);
}

TEST(SimSwitchOff, WithMainsPresentItStaysOffUntilAnOutageIsOver)
{
    Unit unit = unit_of("ZR900PL");
    answer(unit, "S.5");
    after(unit, 1h);
    EXPECT_FALSE(unit.output.on);
    sim::unit_set_mains(unit, false);
    after(unit, 10s);
    EXPECT_FALSE(unit.output.on);
    sim::unit_set_mains(unit, true);
    EXPECT_TRUE(unit.output.on);
}

TEST(SimSwitchOff, ForGoodAndWithoutAutoRestartItStaysOff)
{
    for (const char *order : {"Sf.5", "S.5"}) {
        Unit unit = unit_of("ZR900PL");
        if (order[1] == '.')
            answer(unit, "Af");
        sim::unit_set_mains(unit, false);
        answer(unit, order);
        after(unit, 1min);
        sim::unit_set_mains(unit, true);
        after(unit, 1h);
        EXPECT_FALSE(unit.output.on) << order;
    }
}

TEST(SimSwitchOff, CancelEndsTheCountdownOrTheWait)
{
    Unit unit = unit_of("ZR900PL");
    EXPECT_EQ(answer(unit, "C"), "NAK\r") << "nothing to cancel";
    answer(unit, "S05");
    after(unit, 1min);
    EXPECT_EQ(answer(unit, "C"), "OK\r");
    EXPECT_EQ(bit(unit, 1), '0');
    after(unit, 10min);
    EXPECT_TRUE(unit.output.on);
    answer(unit, "S.0R00060");
    after(unit, 1min);
    ASSERT_FALSE(unit.output.on);
    EXPECT_EQ(answer(unit, "C"), "OK\r");
    EXPECT_TRUE(unit.output.on);
}

TEST(SimSwitchOff, ALaterOrderReplacesTheEarlier)
{
    Unit unit = unit_of("ZR900PL");
    answer(unit, "S05R00010");
    after(unit, 10s);
    answer(unit, "S.5");
    after(unit, 30s);
    EXPECT_FALSE(unit.output.on);
    EXPECT_EQ(unit.output.comeback, sim::Comeback::after_outage);
}

}  // namespace

// What each unit answers, byte for byte.
#include "sim/sim_faults.h"
#include "sim/sim_protocol.h"

#include <gtest/gtest.h>

#include <array>
#include <set>

namespace
{

using sim::answer;
using sim::Unit;

Unit unit_of(std::string_view model)
{
    return sim::unit_new(*sim::find_model(model), sim::Surroundings{}, 1, sim::Time(0));
}

const std::array<std::string_view, 4> PLAIN = {"ZR900PL", "ZR950PL", "ZM300LT", "ZQ500"};
const std::array<std::string_view, 2> BRACKETED = {"ZR401", "ZR6020"};

TEST(SimProtocol, ModelQueriesAreAnsweredByTheRightFamilyOnly)
{
    const std::array<std::array<const char *, 3>, 6> expected = {{
        {"ZR401", "NAK\r", "[ZR401 V1.2]\r"},
        {"ZR6020", "NAK\r", "[ZR6020 V1.4]\r"},
        {"ZR900PL", "ZR900PL V2.1\r", "NAK\r"},
        {"ZR950PL", "ZR950PL V2.4\r", "NAK\r"},
        {"ZM300LT", "ZM300LT V3.0\r", "NAK\r"},
        {"ZQ500", "ZQ500 V1.0\r", "NAK\r"},
    }};
    ASSERT_EQ(expected.size(), sim::models().size());
    for (const auto &[model, plain, bracketed] : expected) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "Si ?"), plain) << model;
        EXPECT_EQ(answer(unit, "(SiCC)"), bracketed) << model;
    }
}

TEST(SimProtocol, CapabilitiesAreFortyBytesOrRefused)
{
    const std::array<std::array<const char *, 2>, 6> expected = {{
        {"ZR401", "NAK\r"},
        {"ZR6020", "NAK\r"},
        {"ZR900PL", "01100000 01111111 11111110 11111110 1.0\r"},
        {"ZR950PL", "NAK\r"},
        {"ZM300LT", "01100000 01111111 11110110 00000100 1.0\r"},
        {"ZQ500", "01100000 00011000 00110000 00000000 1.0\r"},
    }};
    for (const auto &[model, reply] : expected) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "CF"), reply) << model;
        EXPECT_TRUE(answer(unit, "CF").size() == 40 || answer(unit, "CF") == "NAK\r") << model;
    }
}

TEST(SimProtocol, StatusLineOfAHealthyUnit)
{
    const std::array<std::array<const char *, 2>, 6> expected = {{
        {"ZR401", "(100.0 100.0 100.0 035 50.0 13.6 25.0 00001000\r"},
        {"ZR6020", "(100.0 100.0 100.0 035 50.0 54.5 25.0 00000000\r"},
        {"ZR900PL", "(100.0 100.0 100.0 035 50.0 27.2 25.0 00000000\r"},
        {"ZR950PL", "(100.0 100.0 100.0 035 50.0 27.2 25.0 00001000\r"},
        {"ZM300LT", "(100.0 100.0 100.0 035 50.0 2.27 25.0 00000000\r"},
        {"ZQ500", "(100.0 100.0 100.0 035 50.0 13.6 25.0 00001000\r"},
    }};
    for (const auto &[model, reply] : expected) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "Q1"), reply) << model;
        EXPECT_EQ(answer(unit, "Q1").size(), 47U) << model;
    }
}

TEST(SimProtocol, StatusLineKeepsItsFormAtTheExtremes)
{
    Unit unit = unit_of("ZR900PL");
    unit.around.load = 999;
    unit.around.temperature = 99;
    unit.temperature_drift = 5.0;
    unit.input_volts = 1234.5;
    unit.transfer_volts = -3.0;
    unit.battery.volts = 120.0;
    EXPECT_EQ(answer(unit, "Q1"), "(999.9 000.0 100.0 999 50.0 99.9 99.9 00000000\r");
    unit.around.temperature.reset();
    unit.input_volts = 0.0;
    EXPECT_EQ(answer(unit, "Q1"), "(000.0 000.0 100.0 999 00.0 99.9 --.- 00000000\r");
}

TEST(SimProtocol, StatusBitsShowEachCondition)
{
    const auto bits = [](const Unit &unit) { return sim::status_line(unit).substr(38); };
    Unit unit = unit_of("ZR900PL");
    sim::unit_set_mains(unit, false);
    EXPECT_EQ(bits(unit), "10000000");
    sim::unit_set_charge(unit, 0.1);
    EXPECT_EQ(bits(unit), "11000000");
    sim::unit_set_mains(unit, true);
    sim::unit_set_charge(unit, 1.0);
    unit.bypass = true;
    EXPECT_EQ(bits(unit), "00100000");
    unit.fault = true;
    EXPECT_EQ(bits(unit), "00110000");
    unit.standby = true;
    EXPECT_EQ(bits(unit), "00111000");
    EXPECT_EQ(answer(unit, "T"), "OK\r");
    EXPECT_EQ(bits(unit), "00111100");
    EXPECT_EQ(answer(unit, "S05"), "OK\r");
    EXPECT_EQ(bits(unit), "00111110");
    unit.battery_weak = true;
    EXPECT_EQ(bits(unit), "00111111");
    unit.battery_low = sim::LowShown::on;
    EXPECT_EQ(bits(unit), "01111111");
}

TEST(SimProtocol, QueriesOfThePlainFamily)
{
    for (std::string_view model : PLAIN) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "V"), "00000000\r") << model;
        EXPECT_EQ(answer(unit, "Lf ?"), "50.0\r") << model;
        EXPECT_EQ(answer(unit, "Bl ?"), "100\r") << model;
        EXPECT_EQ(answer(unit, "(BvB8)"), "NAK\r") << model;
        EXPECT_EQ(answer(unit, "(Lf ?11)"), "NAK\r") << model;
    }
}

TEST(SimProtocol, QueriesOfTheBracketedFamily)
{
    for (std::string_view model : BRACKETED) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "(BvB8)"), model == "ZR401" ? "[13.6V]\r" : "[54.5V]\r");
        EXPECT_EQ(answer(unit, "(Lf ?11)"), "[50.0Hz]\r");
        for (const char *query : {"V", "V2", "Lf ?", "Bl ?", "BRR", "BRW20250101", "CF"})
            EXPECT_EQ(answer(unit, query), "NAK\r") << model << " " << query;
    }
}

TEST(SimProtocol, OptionalQueriesByModel)
{
    for (const char *model : {"ZR900PL", "ZM300LT"}) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "V2"), "00000000\r") << model;
    }
    for (const char *model : {"ZR900PL", "ZR950PL", "ZM300LT"}) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "BRR"), "20240401\r") << model;
    }
    for (const char *model : {"ZR950PL", "ZQ500"}) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "V2"), "NAK\r") << model;
    }
    Unit small = unit_of("ZQ500");
    EXPECT_EQ(answer(small, "BRR"), "NAK\r");
    EXPECT_EQ(answer(small, "An"), "NAK\r");
    Unit full = unit_of("ZR900PL");
    EXPECT_EQ(answer(full, "Sf05"), "OK\r");
    Unit without = unit_of("ZR950PL");
    EXPECT_EQ(answer(without, "Sf05"), "NAK\r");
}

TEST(SimProtocol, UnknownTextsAreRefused)
{
    for (const sim::Model &model : sim::models()) {
        Unit unit = unit_of(model.name);
        for (const char *text :
             {"", "Q", "Q11", "q1", "S", "Sf", "Sx5", "X", "Si", "BRW", " Q1", "\n", "Q1\n"})
            EXPECT_EQ(answer(unit, text), "NAK\r") << model.name << " '" << text << "'";
    }
}

TEST(SimProtocol, SwitchesAreSeenInTheStateLines)
{
    Unit unit = unit_of("ZR900PL");
    const std::array<std::array<const char *, 2>, 8> steps = {{
        {"Bf", "01000000"},
        {"AC", "01100000"},
        {"VB", "01101000"},
        {"VH", "01110000"},
        {"VL", "01111000"},
        {"VA", "01100000"},
        {"AR", "01000000"},
        {"Bn", "00000000"},
    }};
    for (const auto &[command, state] : steps) {
        EXPECT_EQ(answer(unit, command), "OK\r");
        EXPECT_EQ(answer(unit, "V"), std::string(state) + '\r') << command;
    }
    EXPECT_EQ(answer(unit, "Af"), "OK\r");
    EXPECT_EQ(answer(unit, "V2"), "10000000\r");
    EXPECT_EQ(answer(unit, "An"), "OK\r");
    EXPECT_EQ(answer(unit, "V2"), "00000000\r");
}

TEST(SimProtocol, StateLineShowsTheBattery)
{
    Unit unit = unit_of("ZR900PL");
    sim::unit_set_disconnected(unit, true);
    EXPECT_EQ(answer(unit, "V"), "10000000\r");
    EXPECT_EQ(answer(unit, "Bl ?"), "000\r");
    EXPECT_EQ(answer(unit, "T"), "NAK\r");
    sim::unit_set_disconnected(unit, false);
    unit.battery_weak = true;
    EXPECT_EQ(answer(unit, "V"), "00000001\r");
}

TEST(SimProtocol, BatteryDateIsSetAndRead)
{
    Unit unit = unit_of("ZR900PL");
    EXPECT_EQ(answer(unit, "BRW20251231"), "OK\r");
    EXPECT_EQ(answer(unit, "BRR"), "20251231\r");
    EXPECT_EQ(answer(unit, "BRR").size(), 9U);
    for (const char *bad :
         {"BRW20251301", "BRW20250100", "BRW20250132", "BRW2025010", "BRW202501011", "BRW2025010x"})
        EXPECT_EQ(answer(unit, bad), "NAK\r") << bad;
    EXPECT_EQ(answer(unit, "BRR"), "20251231\r");
}

TEST(SimProtocol, SilencedBuzzerCannotBeTested)
{
    Unit unit = unit_of("ZR900PL");
    EXPECT_EQ(answer(unit, "Bt"), "OK\r");
    EXPECT_EQ(answer(unit, "Bf"), "OK\r");
    EXPECT_EQ(answer(unit, "Bt"), "NAK\r");
}

TEST(SimProtocol, BracketedFamilyObeysControlCommandsWithoutAReply)
{
    for (std::string_view model : BRACKETED) {
        Unit unit = unit_of(model);
        EXPECT_EQ(answer(unit, "T"), "");
        EXPECT_EQ(unit.test.running, sim::TestKind::brief);
        EXPECT_EQ(answer(unit, "CT"), "");
        EXPECT_EQ(unit.test.running, sim::TestKind::none);
        EXPECT_EQ(answer(unit, "S02R0060"), "");
        EXPECT_TRUE(unit.order.counting);
        EXPECT_EQ(answer(unit, "C"), "");
        EXPECT_FALSE(unit.order.counting);
        for (const char *control :
             {"TL", "AR", "AC", "An", "Af", "Bn", "Bf", "Bt", "VA", "VB", "VH", "VL", "C", "CT"})
            EXPECT_EQ(answer(unit, control), "") << model << " " << control;
        EXPECT_EQ(answer(unit, "Sf05"), "");
        EXPECT_TRUE(unit.order.for_good);
    }
}

struct OrderForm {
    std::string_view model;
    std::string_view text;
    int delay;     // s
    int stay_off;  // s; -1: no timed restart
    bool for_good;
};

class SimOrderForms : public testing::TestWithParam<OrderForm>
{
};

TEST_P(SimOrderForms, SetsDelayAndRestart)
{
    const OrderForm &form = GetParam();
    Unit unit = unit_of(form.model);
    answer(unit, form.text);
    ASSERT_TRUE(unit.order.counting);
    EXPECT_EQ(unit.order.at, std::chrono::seconds(form.delay));
    EXPECT_EQ(unit.order.stay_off.has_value(), form.stay_off >= 0);
    if (form.stay_off >= 0) {
        EXPECT_EQ(unit.order.stay_off, std::chrono::seconds(form.stay_off));
    }
    EXPECT_EQ(unit.order.for_good, form.for_good);
}

INSTANTIATE_TEST_SUITE_P(All, SimOrderForms,
                         testing::Values(OrderForm{"ZR900PL", "S.5R00010", 30, 600, false},
                                         OrderForm{"ZR900PL", "S02R00060", 120, 3600, false},
                                         OrderForm{"ZR900PL", "S.9", 54, -1, false},
                                         OrderForm{"ZR900PL", "S.0", 0, -1, false},
                                         OrderForm{"ZR900PL", "S01", 60, -1, false},
                                         OrderForm{"ZR900PL", "S99R99999", 5940, 99999 * 60, false},
                                         OrderForm{"ZR900PL", "Sf05", 300, -1, true},
                                         OrderForm{"ZR900PL", "Sf.5", 30, -1, true},
                                         OrderForm{"ZR401", "S02R0060", 120, 3600, false},
                                         OrderForm{"ZR6020", "S.5R0010", 30, 600, false},
                                         OrderForm{"ZR6020", "S05", 300, -1, false}));

TEST(SimProtocol, OrdersOfWrongFormChangeNothing)
{
    Unit unit = unit_of("ZR900PL");
    for (const char *bad : {"S5", "S5.", "S..", "S100", "S100R00010", "S05R0010", "S05R000100", "S05R0001x",
                            "S05r00010", "S05 R00010", "Sf", "Sf5", "Sf05R00010", "S05R", "S-5", "Sx5"}) {
        EXPECT_EQ(answer(unit, bad), "NAK\r") << bad;
        EXPECT_FALSE(unit.order.counting) << bad;
    }
    Unit old = unit_of("ZR401");
    answer(old, "S05R00010");
    EXPECT_FALSE(old.order.counting);
}

TEST(SimProtocol, CommandsAreNamedByTheirTableName)
{
    EXPECT_EQ(sim::command_name("S05R00010"), "S");
    EXPECT_EQ(sim::command_name("S.5"), "S");
    EXPECT_EQ(sim::command_name("Sf05"), "Sf");
    EXPECT_EQ(sim::command_name("Si ?"), "Si ?");
    EXPECT_EQ(sim::command_name("BRW20250101"), "BRW");
    EXPECT_EQ(sim::command_name("XYZ"), "XYZ");
}

TEST(SimFaults, RepliesAreSpoiltAsAsked)
{
    sim::Faults faults;
    EXPECT_EQ(sim::faults_spoil(faults, "V", "00000000\r"), "00000000\r");
    faults.wrong_checks = true;
    EXPECT_EQ(sim::faults_spoil(faults, "V", "00000000\r"), "?0000000\r");
    faults.truncate = 3;
    EXPECT_EQ(sim::faults_spoil(faults, "V", "00000000\r"), "?00");
    faults = {};
    faults.in_place["S"] = "all\r";
    faults.in_place["S05"] = "one\r";
    EXPECT_EQ(sim::faults_spoil(faults, "S06", "OK\r"), "all\r");
    EXPECT_EQ(sim::faults_spoil(faults, "S05", "OK\r"), "one\r");
    EXPECT_EQ(sim::faults_spoil(faults, "V", "x\r"), "x\r");
    faults.silent = true;
    EXPECT_EQ(sim::faults_spoil(faults, "V", "x\r"), "");
}

}  // namespace

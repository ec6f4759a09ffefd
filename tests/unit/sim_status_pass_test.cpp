// A reader of the protocol, written here from the reader's side, walks through a whole status pass with each
// model and counts what fails: a pass is good when the status line is understood and at most one query fails.
#include "sim/sim_protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

namespace
{

using sim::Unit;

Unit unit_of(std::string_view model)
{
    return sim::unit_new(*sim::find_model(model), sim::Surroundings{}, 1, sim::Time(0));
}

// What a reader that takes at most `most` bytes and stops at the line end makes of the reply; empty: nothing
// usable. Whatever it leaves behind would spoil the next reply, so nothing may be left.
std::string read(Unit &unit, std::string_view command, std::size_t most)
{
    std::string reply = sim::answer(unit, command);
    std::replace(reply.begin(), reply.end(), '\r', '\n');
    EXPECT_LE(reply.size(), most) << command;
    EXPECT_EQ(reply.find('\n'), reply.size() - 1) << command;
    return reply.starts_with("NAK") ? std::string() : reply;
}

bool binary(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '0' || c == '1'; });
}

bool looks_like(std::string_view text, std::string_view form)
{
    return text.size() == form.size() &&
           std::equal(text.begin(), text.end(), form.begin(), [](char c, char f) {
               return f == '9' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : c == f;
           });
}

bool status_understood(Unit &unit)
{
    const std::string q1 = read(unit, "Q1", 47);
    if (q1.size() != 47 || q1[0] != '(' || q1[46] != '\n' || !binary(q1.substr(38, 8)))
        return false;
    for (std::size_t point : {4U, 10U, 16U, 25U, 35U})
        if (q1[point] != '.')
            return false;
    for (std::size_t blank : {6U, 12U, 18U, 22U, 27U, 32U, 37U})
        if (q1[blank] != ' ')
            return false;
    return q1[29] == '.' || q1[30] == '.';
}

// The name, by whichever of the two queries the unit answers.
std::string model_name(Unit &unit)
{
    const std::string plain = read(unit, "Si ?", 15);
    if (!plain.empty()) {
        const std::size_t end = plain.find(plain.starts_with("ZM") ? ' ' : '\n');
        return end == std::string::npos ? "" : plain.substr(0, std::min(end, plain.find(' ')));
    }
    const std::string bracketed = read(unit, "(SiCC)", 15);
    const std::size_t blank = bracketed.find(' ');
    return bracketed.starts_with("[") && blank != std::string::npos ? bracketed.substr(1, blank - 1) : "";
}

struct Abilities {
    bool v = false, lf = false, bl = false, sf = false;
    unsigned mask = 0;
};

struct MaskRule {
    std::vector<std::size_t> positions;
    unsigned bit;
};

Abilities abilities_told(const std::string &cf)
{
    static const std::vector<MaskRule> rules = {
        {{2}, 0x8000},          {{32}, 0x0008},         {{10, 11}, 0x0800},     {{12, 13}, 0x1000},
        {{15, 16}, 0x0200},     {{22}, 0x2000},         {{23, 24}, 0x0080},     {{27, 28, 30}, 0x0400},
        {{27, 29, 30}, 0x0100}, {{27, 28, 31}, 0x0040}, {{27, 29, 31}, 0x0020},
    };
    Abilities known{cf[1] == '1', cf[20] == '1', cf[21] == '1', cf[33] == '1', 0x4000};
    for (const MaskRule &rule : rules)
        if (std::all_of(rule.positions.begin(), rule.positions.end(),
                        [&](std::size_t p) { return cf[p] == '1'; }))
            known.mask |= rule.bit;
    if ((known.mask & 8U) != 0 && known.sf)
        known.mask |= 4U;
    return known;
}

Abilities abilities(Unit &unit, const std::string &name)
{
    if (name == "ZR401" || name == "ZR6020")
        return {false, false, false, false, 0x8004};
    const std::string cf = read(unit, "CF", 40);
    if (cf.size() == 40 && binary(cf.substr(0, 8)) && binary(cf.substr(9, 8)) && binary(cf.substr(18, 8)) &&
        binary(cf.substr(27, 8)))
        return abilities_told(cf);
    if (name == "ZR900PL" || name == "ZR950PL")
        return {true, true, true, false, 0xFA80};
    if (name.starts_with("ZM"))
        return {true, true, true, false, 0xFFE0};
    return {};
}

// How many of the queries behind the status line and the model fail.
int failures(Unit &unit, const std::string &name)
{
    const bool old = name == "ZR401" || name == "ZR6020";
    const Abilities known = abilities(unit, name);
    int failed = 0;
    if (old) {
        failed += !looks_like(read(unit, "(BvB8)", 12), "[99.9V]\n");
        failed += !looks_like(read(unit, "(Lf ?11)", 13), "[99.9Hz]\n");
    } else {
        failed += !known.lf || !looks_like(read(unit, "Lf ?", 5), "99.9\n");
        failed += !known.bl || !looks_like(read(unit, "Bl ?", 5), "999\n");
        const std::string v = known.v ? read(unit, "V", 9) : "";
        failed += v.size() != 9 || !binary(v.substr(0, 8));
    }
    if ((known.mask & 0x0200U) != 0)
        failed += !looks_like(read(unit, "BRR", 10), "99999999\n");
    else
        failed += !old && name.starts_with("ZR");
    if ((known.mask & 0x0008U) != 0) {
        const std::string v2 = read(unit, "V2", 9);
        failed += v2.size() != 9 || !binary(v2.substr(0, 8));
    }
    return failed;
}

TEST(SimStatusPass, EveryModelPassesWithoutAFailure)
{
    for (const sim::Model &model : sim::models()) {
        Unit unit = unit_of(model.name);
        EXPECT_TRUE(status_understood(unit)) << model.name;
        EXPECT_EQ(model_name(unit), model.name);
        EXPECT_EQ(failures(unit, std::string(model.name)), 0) << model.name;
    }
}

TEST(SimStatusPass, EveryModelPassesOnBatteryAndWithTheOutputOff)
{
    for (const sim::Model &model : sim::models()) {
        Unit unit = unit_of(model.name);
        sim::unit_set_mains(unit, false);
        sim::unit_advance(unit, std::chrono::seconds(30));
        EXPECT_TRUE(status_understood(unit)) << model.name;
        EXPECT_EQ(failures(unit, std::string(model.name)), 0) << model.name;
        sim::unit_press_output(unit, false);
        EXPECT_TRUE(status_understood(unit)) << model.name;
        EXPECT_EQ(failures(unit, std::string(model.name)), 0) << model.name;
    }
}

TEST(SimStatusPass, AbilitiesByModel)
{
    const std::vector<std::pair<std::string, unsigned>> expected = {
        {"ZR401", 0x8004},   {"ZR6020", 0x8004},  {"ZR900PL", 0xFFEC},
        {"ZR950PL", 0xFA80}, {"ZM300LT", 0xDA88}, {"ZQ500", 0xD000},
    };
    for (const auto &[name, mask] : expected) {
        Unit unit = unit_of(name);
        EXPECT_EQ(abilities(unit, name).mask, mask) << name;
    }
}

}  // namespace

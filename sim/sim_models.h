// The families of units and in what they differ: which queries and commands a unit knows, how it names
// itself, what it tells about its abilities, and the data of its battery. Everything that depends on the
// model is a column here; the protocol and the unit look nothing up by name.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace sim
{

// What a unit can do. Those with positions in the capability reply are told there too, if the unit has one.
inline constexpr std::uint32_t FEATURE_PLAIN = 1U << 0;  // "Si ?", and "OK" or "NAK" to control commands
inline constexpr std::uint32_t FEATURE_BRACKETED =
    1U << 1;                                          // "(SiCC)", "(BvB8)", "(Lf ?11)"; controls unanswered
inline constexpr std::uint32_t FEATURE_CF = 1U << 2;  // capability reply
inline constexpr std::uint32_t FEATURE_V = 1U << 3;   // unit state
inline constexpr std::uint32_t FEATURE_BTT = 1U << 4;
inline constexpr std::uint32_t FEATURE_SIX = 1U << 5;
inline constexpr std::uint32_t FEATURE_BV = 1U << 6;
inline constexpr std::uint32_t FEATURE_LF = 1U << 7;        // output frequency, "Lf ?"
inline constexpr std::uint32_t FEATURE_BL = 1U << 8;        // battery capacity, "Bl ?"
inline constexpr std::uint32_t FEATURE_V2 = 1U << 9;        // restart status
inline constexpr std::uint32_t FEATURE_SF = 1U << 10;       // switch-off for good, "Sf"
inline constexpr std::uint32_t FEATURE_BUZZER = 1U << 11;   // "Bn", "Bf"
inline constexpr std::uint32_t FEATURE_BRR = 1U << 12;      // battery date, "BRR" and "BRW"
inline constexpr std::uint32_t FEATURE_RESTART = 1U << 13;  // "An", "Af"
inline constexpr std::uint32_t FEATURE_CF2 = 1U
                                             << 14;  // passed on to monitors by position, as the next three
inline constexpr std::uint32_t FEATURE_CF10 = 1U << 15;
inline constexpr std::uint32_t FEATURE_CF22 = 1U << 16;
inline constexpr std::uint32_t FEATURE_SELECTABLE = 1U << 17;  // all four combinations of the fourth group

struct Model {
    std::string_view name;
    std::string_view identity;  // the whole reply to its model query, without the carriage return
    std::uint32_t features;
    bool standby;             // line-interactive: bit 3 of the status
    double battery_nominal;   // V, of the battery, or of one cell if per_cell
    bool per_cell;            // the battery voltage is told per cell, as N.NN
    unsigned restart_digits;  // digits of the restart field of "S..R.."
    double runtime;           // s from full to empty at 100 % load
    double recharge;          // s from empty to full
    double low_percent;       // battery low below this capacity
};

// All models, in the order in which they are listed to users.
std::span<const Model> models();

// The model of exactly this name, or null.
const Model *find_model(std::string_view name);

constexpr bool has_feature(const Model &model, std::uint32_t feature)
{
    return (model.features & feature) == feature;
}

// The capability reply without its carriage return: 39 characters, so that the whole reply has the 40 that a
// reader demands. Four groups of eight, each followed by a blank, and the revision.
std::string capability_text(const Model &model);

}  // namespace sim

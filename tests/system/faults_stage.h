// The stage of the fault matrix: brings the real daemon into a phase and plays a cell of the table.
#pragma once

#include "faults.h"

#include <array>

namespace faults
{

inline constexpr std::size_t PHASES = 6;
inline constexpr std::array<const char *, PHASES> PHASE_NAMES = {"Searching", "OnMains",  "OnBattery",
                                                                 "InGrace",   "SelfTest", "LongAnswer"};

// What comes of a fault; faults_table.h has them in words.
enum class Outcome {
    PROTECTS,
    NO_LOG,
    AT_ONCE,
    FINDS,
    LOSES,
    ANEW,
    CATCHES,
    RESTARTS,
    QUIETLY,
    UNTOLD,
    NOT,  // no such cell, for the reason given
};

struct CELL {
    constexpr CELL(Outcome which) : outcome(which)
    {
    }
    explicit constexpr CELL(const char *why) : outcome(Outcome::NOT), reason(why)
    {
    }

    Outcome outcome;
    const char *reason = "";
};

struct ROW {
    FAULT fault;
    double cost;  // s by which the fault may delay what is to happen
    std::array<CELL, PHASES> cells;
};

/// Plays one cell and judges it.
void play(const ROW &row, Phase phase);

}  // namespace faults

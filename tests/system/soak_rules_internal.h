// What the files of the soak's checker share: the time that things may take, and the bits of the unit's
// status as the shared block has them. Nothing else includes this.
#pragma once

#include "soak_rules.h"

#include <cstdint>

namespace soak
{

inline constexpr double PROMPT = 2.6;  // s: a look once a second, and what it leads to
inline constexpr double SEEN = 4;      // s until what the unit is stands in the record

inline constexpr std::uint32_t BIT_LOW = 0x100;
inline constexpr std::uint32_t BIT_DISCONNECTED = 0x200;
inline constexpr std::uint32_t BIT_WEAK = 0x400;
inline constexpr std::uint32_t BIT_ACFAIL = 0x1000;
inline constexpr std::uint32_t BIT_FAULT = 0x2000;
inline constexpr std::uint32_t BIT_OVERLOAD = 0x4000;
inline constexpr std::uint32_t BIT_BYPASS = 0x8000;
inline constexpr std::uint32_t BIT_TESTING = 0x10000;
inline constexpr std::uint32_t BIT_STANDBY = 0x40000;  // such a unit has no bypass
inline constexpr std::uint32_t BIT_BATTERY_TEST = 0x80000;

}  // namespace soak

// Simulated time: nanoseconds since the simulator's start. Every module is handed the time and none reads a
// clock; only the program does, in one place.
#pragma once

#include <chrono>
#include <cstdint>

namespace sim
{

using Time = std::chrono::nanoseconds;

// Seconds, fractions included, as simulated time and back.
constexpr Time from_seconds(double seconds)
{
    return Time(static_cast<std::int64_t>(seconds * 1e9));
}

constexpr double to_seconds(Time time)
{
    return static_cast<double>(time.count()) / 1e9;
}

}  // namespace sim

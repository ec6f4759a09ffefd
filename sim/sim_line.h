// The serial line between host and unit: bytes take the time they take at 2400 baud, may vanish, may be
// joined by noise. Pure: bytes and times in, bytes and times out.
#pragma once

#include "sim_random.h"
#include "sim_time.h"

#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace sim
{

inline constexpr int BAUD = 2400;
inline constexpr int BITS_PER_CHARACTER = 10;  // start, eight data, stop
inline constexpr Time CHARACTER_TIME = Time(1'000'000'000LL * BITS_PER_CHARACTER / BAUD);

struct LineByte {
    char byte;
    Time due;  // when its last bit has crossed the line
};

struct Noise {
    Time interval{0};  // between two bytes; 0: none
    Time next{0};
    Random random;
};

struct Line {
    bool paced = true;
    bool cut = false;  // bytes vanish in both directions when they should arrive
    std::deque<LineByte> to_unit;
    std::deque<LineByte> to_host;
    Time to_unit_free{0};  // when the line is free for the next byte in this direction
    Time to_host_free{0};
    Noise noise;
};

// Puts bytes on the line at `now`, behind what is still crossing it in the same direction.
void line_from_host(Line &line, Time now, std::string_view bytes);
void line_from_unit(Line &line, Time now, std::string_view bytes);

// Bytes that turn up at the host's end at once, between whatever else is arriving there.
void line_disturb(Line &line, Time now, std::string_view bytes);

// Random bytes at this rate from `now` on; 0 ends them.
void line_set_noise(Line &line, Time now, double bytes_per_second, std::uint64_t seed);

// The next byte that has reached the unit by `now`; empty when there is none. Flow control characters and
// what a cut line swallows are left out.
std::optional<LineByte> line_take_for_unit(Line &line, Time now);

// All bytes that have reached the host by `now`.
std::string line_take_for_host(Line &line, Time now);

// When the next byte arrives, at either end; empty when nothing is under way.
std::optional<Time> line_next_due(const Line &line);

// Forgets what is under way, as when the cable is pulled out.
void line_clear(Line &line);

}  // namespace sim

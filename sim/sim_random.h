// A small generator of its own (the same sequence on every machine for one seed) for drift and line noise.
#pragma once

#include <cstdint>

namespace sim
{

struct Random {
    std::uint64_t state = 1;
};

// The next 64 pseudo-random bits.
constexpr std::uint64_t random_next(Random &random)
{
    random.state += 0x9E3779B97F4A7C15ULL;
    std::uint64_t bits = random.state;
    bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9ULL;
    bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EBULL;
    return bits ^ (bits >> 31);
}

// Evenly spread over -1 (included) to 1 (excluded).
constexpr double random_swing(Random &random)
{
    return static_cast<double>(random_next(random) >> 11) / 4503599627370496.0 - 1.0;
}

}  // namespace sim

// The fields of a time text as the time arithmetic sees them. Included by its own files only.
#pragma once

#include "auto.h"

#include <cstdint>
#include <string_view>

// The numbers that a field lists: bit n for the number n, so only for fields whose numbers end below 63.
// Never empty.
using FIELDSET = std::uint64_t;

// The set of "*", which no list can be.
inline constexpr FIELDSET EVERY = ~FIELDSET{0};

/// As next_field, but the field is not copied: it lies in the text. Empty when it is malformed.
[[nodiscard]] std::string_view take_field(const char **text, int min, int max, bool last);

/// Takes the decimal number at `*text` and moves `*text` behind it. -1 when there is none or it lies outside
/// [min, max].
[[nodiscard]] int num(const char **text, int min, int max);

/// What `field`, which take_field returned for the same bounds, lists.
[[nodiscard]] FIELDSET field_numbers(std::string_view field, int min, int max);

/// `value` if the field lists it, else the smallest listed number above it, else the smallest of all.
[[nodiscard]] int next_ge(int value, FIELDSET field);

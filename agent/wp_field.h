// Text in fixed char arrays. A field that came from the network or from shared memory may lack its
// NUL; one that goes there is filled with zeros behind its text.
#pragma once

#include "shared_word.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

/// The text of a field: up to its first NUL, or the whole field when it has none.
template <std::size_t N> [[nodiscard]] inline std::string_view field_view(const std::array<char, N> &field)
{
    return {field.data(),
            static_cast<std::size_t>(std::find(field.begin(), field.end(), '\0') - field.begin())};
}

/// Stores `text` in a field, cut so that a NUL fits behind it, and fills the rest with zeros.
template <std::size_t N> inline void field_set(std::array<char, N> &field, std::string_view text)
{
    field.fill('\0');
    std::copy_n(text.begin(), std::min(text.size(), N - 1), field.begin());
}

/// The same for a field of the shared block, so that a reader never finds it empty in between.
template <std::size_t N> inline void field_share(std::array<char, N> &field, std::string_view text)
{
    std::array<char, N> filled;
    field_set(filled, text);
    shared_assign(field, filled);
}

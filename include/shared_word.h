// Access to single words of the shared block. Two processes read and write it without a lock, so a
// field is loaded or stored exactly once and whole, whatever the optimiser would like.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

/// Loads one field (at most 4 bytes, naturally aligned) of the shared block.
template <typename T> [[nodiscard]] inline T shared_load(const T &field)
{
    static_assert(std::is_integral_v<T> && sizeof(T) <= 4);
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_acquire);
}

/// Stores one field of the shared block.
template <typename T> inline void shared_store(T &field, std::type_identity_t<T> value)
{
    static_assert(std::is_integral_v<T> && sizeof(T) <= 4);
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

/// Copies a whole record of the shared block word by word, so that none of its fields (each lies within one
/// aligned 4-byte word) is ever seen half written. Fields may belong to different status passes.
template <typename T> [[nodiscard]] inline T shared_copy(const T &record)
{
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) % 4 == 0 && alignof(T) == 4);
    std::array<std::uint32_t, sizeof(T) / 4> words;
    const auto *source = reinterpret_cast<const std::uint32_t *>(&record);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = __atomic_load_n(source + i, __ATOMIC_ACQUIRE);
    return std::bit_cast<T>(words);
}

/// Stores a whole record, date or text, which begins at a word of the shared block, word by word: a reader
/// finds in each word what was there before or what is there now. The words may be met at different times.
template <typename T> inline void shared_assign(T &record, const std::type_identity_t<T> &value)
{
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) % 4 == 0);
    const auto words = std::bit_cast<std::array<std::uint32_t, sizeof(T) / 4>>(value);
    auto *target = reinterpret_cast<std::uint32_t *>(&record);
    for (std::size_t i = 0; i < words.size(); ++i)
        __atomic_store_n(target + i, words[i], __ATOMIC_RELEASE);
}

// Access to single words of the shared block. Two processes read and write it without a lock, so a
// field is loaded or stored exactly once and whole, whatever the optimiser would like.
#pragma once

#include <atomic>
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

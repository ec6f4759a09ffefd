// The memory that the coordinator of a virtual clock (vclock.h) and the processes under it (vclock_preload*)
// share, and the futex calls by which they wake each other. One file, mapped by all; everything in it is
// written by one side at a time, as noted.
#pragma once

#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace vclock
{

using Nanoseconds = std::int64_t;

inline constexpr Nanoseconds SECOND = 1'000'000'000;
inline constexpr Nanoseconds NEVER = INT64_MAX;
inline constexpr Nanoseconds BOOTED = 1000 * SECOND;  // the monotonic clocks at the start of a run

inline constexpr char FILE_VARIABLE[] = "VCLOCK_FILE";    // names the shared file
inline constexpr char EXACT_VARIABLE[] = "VCLOCK_EXACT";  // set: a leap never oversleeps this process's waits

inline constexpr std::size_t MOST_PARTICIPANTS = 256;

enum class State : std::uint32_t {
    Free,
    Working,  // does something at this moment of the clock; time stands still
    Waiting,  // for a descriptor, a child, a signal or its deadline, in a call of the preloaded library
};

// What a process did to others, and what it waits for: bits by the kind of descriptor.
enum Kind : std::uint32_t {
    TERMINAL = 1,
    PIPE = 2,
    SOCKET = 4,
    OTHER = 8,   // events, signals as descriptors and their like
    ROOM = 16,   // done: something was read; waited for: to write
    ALARM = 32,  // signals, ends of processes and all that was not seen; everybody waits for these
    EVERYTHING = 63,
};
inline constexpr std::size_t KINDS = 6;

struct Participant {
    std::atomic<State> state;  // Free to Working by whoever claims it, back to Free by the coordinator
    std::atomic<pid_t> pid;    // 0 from the claim until the process is there
    std::atomic<std::uint32_t> asked;     // futex of the participant; the coordinator counts its questions
    std::atomic<std::uint32_t> answered;  // the last question after which the participant still waited
    std::atomic<std::uint32_t> left;      // how many waits have ended

    // Written by the participant before it rings, read by the coordinator while it waits.
    Nanoseconds deadline;          // of the wait; NEVER without one
    Nanoseconds patience;          // what the wait was asked to take at most
    Nanoseconds timer_at;          // end of the interval timer; NEVER when it is not armed
    Nanoseconds timer_every;       // its period, 0 none
    std::uint32_t done;            // Kind bits, since the coordinator last took them
    std::uint32_t awaited;         // Kind bits, of the wait
    std::uint32_t birth;           // order of the claims: who is asked first
    std::uint32_t must_start;      // not yet given leave to begin
    std::uint32_t exact;           // see EXACT_VARIABLE
    std::array<char, 16> call;     // of the wait
    std::array<char, 32> program;  // its name
};

struct Shared {
    std::atomic<Nanoseconds> now;          // CLOCK_MONOTONIC; written by the coordinator
    std::atomic<Nanoseconds> wall_offset;  // CLOCK_REALTIME minus CLOCK_MONOTONIC; written by the coordinator
    std::atomic<std::uint32_t> bell;       // futex of the coordinator; rung at every change of a state
    std::atomic<std::uint32_t> sent;       // counts what participants sent to sockets
    std::atomic<std::uint32_t> births;
    std::atomic<std::uint32_t> top;       // no participant at or above this place was ever claimed
    std::atomic<std::uint32_t> released;  // the coordinator has gone; time stands still for good
    std::atomic<pid_t> lock;              // of looking for a process in the table; holds the holder's id
    pid_t coordinator;
    std::array<Participant, MOST_PARTICIPANTS> participants;
};

static_assert(std::atomic<Nanoseconds>::is_always_lock_free && std::atomic<State>::is_always_lock_free);

/// Sleeps while the word holds `value`, at most `limit` of real time. May return early.
inline void futex_wait(const std::atomic<std::uint32_t> &word, std::uint32_t value, Nanoseconds limit)
{
    const timespec timeout = {limit / SECOND, limit % SECOND};
    syscall(SYS_futex, &word, FUTEX_WAIT, value, &timeout, nullptr, 0);
}

inline void futex_wake(const std::atomic<std::uint32_t> &word)
{
    syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

/// Claims a place in the table, in the state Working and without a process; null when the table is full.
inline Participant *claim(Shared &shared)
{
    for (std::uint32_t i = 0; i < MOST_PARTICIPANTS; ++i) {
        Participant &place = shared.participants[i];
        State expected = State::Free;
        if (!place.state.compare_exchange_strong(expected, State::Working))
            continue;
        place.deadline = place.timer_at = NEVER;
        place.timer_every = 0;
        place.exact = place.must_start = place.done = 0;
        place.awaited = EVERYTHING;
        place.birth = ++shared.births;
        std::uint32_t top = shared.top.load();
        while (top <= i && !shared.top.compare_exchange_weak(top, i + 1)) {
        }
        return &place;
    }
    return nullptr;
}

}  // namespace vclock

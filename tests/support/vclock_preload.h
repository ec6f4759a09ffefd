// What the files of the preloaded library share: the place of this process in the table, and the one wait
// that every waiting call of the system is made of.
#pragma once

#include "vclock_shared.h"

#include <csignal>

#define VCLOCK_CALL extern "C" __attribute__((visibility("default")))

namespace vclock
{

// The kernel's own set of signals, as its calls take it.
using Signals = std::uint64_t;

/// The shared memory; null when this process is not under a clock.
Shared *shared();

/// The place of this process; null when it, or this thread of it, does not take part.
Participant *self();

/// Gives a child its place, in the child: it begins when the coordinator lets it.
void become(Participant *place);

/// Makes the environment of a program to be started lead it under the clock, whatever was left out of it.
char **clocked_environment(char *const environment[]);

Nanoseconds now();
Nanoseconds wall_now();

/// now() + patience, without overflow.
Nanoseconds deadline_after(Nanoseconds patience);

inline Nanoseconds from(const timespec &time)
{
    return time.tv_sec > INT32_MAX ? NEVER : time.tv_sec * SECOND + time.tv_nsec;
}

inline Nanoseconds from(const timeval &time)
{
    return time.tv_sec > INT32_MAX ? NEVER : time.tv_sec * SECOND + time.tv_usec * 1000;
}

inline timespec to_timespec(Nanoseconds time)
{
    return {time / SECOND, time % SECOND};
}

inline timeval to_timeval(Nanoseconds time)
{
    return {time / SECOND, time % SECOND / 1000};
}

/// Lets pending signals of the mask's complement be handled now. Returns true when a handler ran (with
/// errno EINTR); `restarting`: only when one ran that does not ask for a restart of the call.
bool handle_signals(const Signals *mask, bool restarting);

/// The Kind of a descriptor; 0 of a file, of which nobody waits, and of what is not open.
std::uint32_t kind_of(int fd);

/// Notes what this process did that others may wait for.
void note_done(std::uint32_t kinds);

// The steps of a wait; see wait_until.
void wait_begin(const char *call, std::uint32_t awaited, Nanoseconds deadline, Signals &saved);
void wait_for_question();
void wait_answer();
void wait_end(const Signals &saved);

/// Waits until `check` is true (returns true) or the clock reaches `deadline` (returns false). `check` looks
/// without waiting, with `mask` as the signal mask when it is not null, and notes what it found. It is called
/// at moments of the coordinator's choice only, so that the order of events is the same in every run: all
/// signals are held back between two looks. `awaited`: the kinds of what it waits for.
template <typename Check>
bool wait_until(const char *call, std::uint32_t awaited, Nanoseconds deadline, const Signals *mask,
                Check check)
{
    if (check(mask))
        return true;
    if (now() >= deadline)
        return false;
    Signals saved = 0;
    wait_begin(call, awaited, deadline, saved);
    bool found = check(mask != nullptr ? mask : &saved);
    if (!found)
        wait_answer();
    while (!found) {
        wait_for_question();
        found = check(mask != nullptr ? mask : &saved);
        if (!found && now() >= deadline)
            break;
        if (!found)
            wait_answer();
    }
    wait_end(saved);
    return found;
}

}  // namespace vclock

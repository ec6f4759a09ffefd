// A clock that a test can set forward: the program's own clock_gettime, which adds `clock_shift` to what the
// system says. Included by one source file of a test program at most.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

static std::atomic<std::int64_t> clock_shift = 0;  // s
static std::atomic<int> clock_looks = 0;           // how often the clock was read

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const long result = syscall(SYS_clock_gettime, clock, now);
    now->tv_sec += clock_shift;
    ++clock_looks;
    return static_cast<int>(result);
}

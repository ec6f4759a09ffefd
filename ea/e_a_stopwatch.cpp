// The AC-failure stopwatch: the process's real-time interval timer, set far ahead and read back. Setting the
// wall clock does not disturb it. Nothing waits for its end, which would be a SIGALRM that ends a daemon
// started by init; so it is set anew long before. Called by the status monitor and the timer.
#include "e_a_internal.h"

#include <cstdio>

static constexpr std::time_t STOPWATCH_SPAN = 1'000'000;  // s, 11.6 days
static constexpr std::int64_t MICROSECONDS = 1'000'000;

static std::int64_t time_left(const itimerval &timer)
{
    return timer.it_value.tv_sec * MICROSECONDS + timer.it_value.tv_usec;
}

static void add_time(itimerval &timer, std::int64_t microseconds)
{
    const std::int64_t sum = time_left(timer) + microseconds;
    timer.it_value.tv_sec = sum / MICROSECONDS;
    timer.it_value.tv_usec = sum % MICROSECONDS;
}

void starttimer(itimerval *ov, itimerval *value)
{
    *ov = {};
    ov->it_value.tv_sec = STOPWATCH_SPAN;
    if (setitimer(ITIMER_REAL, ov, nullptr) != 0 || getitimer(ITIMER_REAL, value) != 0)
        std::perror("starttimer");
}

void getduration(itimerval *ov, const itimerval *value, std::time_t *out)
{
    if (getitimer(ITIMER_REAL, ov) != 0)
        std::perror("getduration");
    *out = (time_left(*value) - time_left(*ov)) / MICROSECONDS;
}

void stoptimer(itimerval *ov, itimerval *value)
{
    *ov = {};
    *value = {};
    if (setitimer(ITIMER_REAL, ov, nullptr) != 0)
        std::perror("stoptimer");
}

// The start moves back by what has passed, so that the time on battery goes on.
static void set_anew()
{
    const std::int64_t passed = time_left(engine.valuep) - time_left(engine.ovaluep);
    starttimer(&engine.ovaluep, &engine.valuep);
    add_time(engine.valuep, passed);
}

std::time_t acfail_elapsed()
{
    if (engine.just_fail == 0)
        return 0;
    std::time_t elapsed = 0;
    getduration(&engine.ovaluep, &engine.valuep, &elapsed);
    if (engine.ovaluep.it_value.tv_sec < STOPWATCH_SPAN / 2)
        set_anew();
    return elapsed;
}

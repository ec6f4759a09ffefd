// A clock that runs as fast as the process does, for tests in which both processes of the daemon really work
// at the same moment: preloaded, it ends every wait of the loops at once, or nearly, and lets the interval
// timer show that the whole wait has passed. A wait for the bytes of a reply, the only one on a terminal
// alone, keeps its real time: a unit that is slow on a loaded machine is not one that is silent. The wall
// clock stays the machine's.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#define RACE_CALL extern "C" __attribute__((visibility("default")))

using Microseconds = std::int64_t;

static constexpr Microseconds SECOND = 1'000'000;
static constexpr Microseconds IDLE = SECOND / 2;     // from here on a wait is a loop's
static constexpr Microseconds IDLE_REALLY = 100;     // what becomes of it
static constexpr Microseconds PAUSES_PER_REAL = 50;  // shorter pauses are divided by this

static Microseconds passed = 0;    // of this process's own clock
static Microseconds armed_at = 0;  // when the interval timer was set
static Microseconds armed_for = 0;

static bool is_terminal(int fd)
{
    termios line{};
    const int kept = errno;
    const bool terminal = syscall(SYS_ioctl, fd, TCGETS, &line) == 0;
    errno = kept;
    return terminal;
}

static bool is_reply_wait(int count, const fd_set *reading, const fd_set *writing)
{
    int watched = 0;
    int last = -1;
    for (int fd = 0; fd < std::min(count, FD_SETSIZE); ++fd)
        if ((reading != nullptr && FD_ISSET(fd, reading)) || (writing != nullptr && FD_ISSET(fd, writing))) {
            ++watched;
            last = fd;
        }
    return watched == 1 && is_terminal(last);
}

RACE_CALL int select(int count, fd_set *reading, fd_set *writing, fd_set *failing, timeval *timeout)
{
    if (timeout == nullptr || is_reply_wait(count, reading, writing))
        return static_cast<int>(syscall(SYS_select, count, reading, writing, failing, timeout));
    const Microseconds wanted = timeout->tv_sec * SECOND + timeout->tv_usec;
    timeval brief = {0, wanted >= IDLE ? IDLE_REALLY : wanted / PAUSES_PER_REAL};
    const auto result = static_cast<int>(syscall(SYS_select, count, reading, writing, failing, &brief));
    if (result == 0) {
        passed += wanted;
        *timeout = {};
    }
    return result;
}

RACE_CALL unsigned sleep(unsigned seconds)
{
    passed += seconds * SECOND;
    return 0;
}

RACE_CALL int getitimer(__itimer_which_t, itimerval *value) noexcept
{
    // A timer that is read back has always run for a moment.
    const Microseconds left =
        armed_for > 0 ? std::max<Microseconds>(armed_for - (passed - armed_at) - 1, 1) : 0;
    *value = {};
    value->it_value = {left / SECOND, left % SECOND};
    return 0;
}

RACE_CALL int setitimer(__itimer_which_t which, const itimerval *__restrict value,
                        itimerval *__restrict old) noexcept
{
    if (old != nullptr)
        getitimer(which, old);
    armed_at = passed;
    armed_for = value->it_value.tv_sec * SECOND + value->it_value.tv_usec;
    return 0;
}

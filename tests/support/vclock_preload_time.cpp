// The preloaded library's calls that read a clock or wait: each is the system's call of that name, with the
// clock of the coordinator in place of the machine's. The descriptors are really looked at, by the kernel.

#include "vclock_preload.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <termios.h>

using vclock::Nanoseconds;
using vclock::NEVER;
using vclock::Signals;

static const Signals *signals_of(const sigset_t *set)
{
    return reinterpret_cast<const Signals *>(set);
}

static bool is_interrupt(long result)
{
    return result < 0 && errno == EINTR;
}

// ---- reading the clock

VCLOCK_CALL int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    if (vclock::shared() != nullptr) {
        switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
        case CLOCK_TAI:
            *time = vclock::to_timespec(vclock::wall_now());
            return 0;
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_BOOTTIME:
            *time = vclock::to_timespec(vclock::now());
            return 0;
        default:
            break;
        }
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

VCLOCK_CALL int gettimeofday(timeval *time, void *) noexcept
{
    timespec now = {};
    const int result = clock_gettime(CLOCK_REALTIME, &now);
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return result;
}

VCLOCK_CALL time_t time(time_t *where) noexcept
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (where != nullptr)
        *where = now.tv_sec;
    return now.tv_sec;
}

VCLOCK_CALL int timespec_get(timespec *time, int base) noexcept
{
    return base == TIME_UTC && clock_gettime(CLOCK_REALTIME, time) == 0 ? base : 0;
}

// ---- waiting for descriptors

// One look at three sets of descriptors; they are changed only when the look found something, or nothing.
struct SelectLook {
    int count;
    fd_set *sets[3];
    fd_set asked[3];
    long result;

    bool look(const Signals *mask)
    {
        const timespec none = {};
        const struct {
            const Signals *mask;
            std::size_t size;
        } masked = {mask, sizeof(Signals)};
        restore();
        result = syscall(SYS_pselect6, count, sets[0], sets[1], sets[2], &none,
                         mask != nullptr ? &masked : nullptr);
        return result != 0;
    }

    // Only the part that the caller promised to exist is touched.
    [[nodiscard]] std::size_t bytes() const
    {
        const auto bits = static_cast<std::size_t>(std::clamp(count, 0, FD_SETSIZE));
        return (bits + 63) / 64 * 8;
    }

    void restore()
    {
        for (int i = 0; i < 3; ++i)
            if (sets[i] != nullptr)
                std::copy_n(reinterpret_cast<const char *>(&asked[i]), bytes(),
                            reinterpret_cast<char *>(sets[i]));
    }

    [[nodiscard]] std::uint32_t awaited() const
    {
        std::uint32_t kinds = sets[1] != nullptr ? vclock::ROOM : 0U;
        for (int fd = 0; fd < std::min(count, FD_SETSIZE); ++fd)
            for (int i = 0; i < 3; ++i)
                if (sets[i] != nullptr && FD_ISSET(fd, &asked[i]))
                    kinds |= vclock::kind_of(fd);
        return kinds;
    }

    void keep()
    {
        for (int i = 0; i < 3; ++i)
            if (sets[i] != nullptr)
                std::copy_n(reinterpret_cast<const char *>(sets[i]), bytes(),
                            reinterpret_cast<char *>(&asked[i]));
    }
};

static int select_until(SelectLook &look, const char *call, Nanoseconds deadline, const Signals *mask)
{
    look.keep();
    vclock::wait_until(call, look.awaited(), deadline, mask,
                       [&look](const Signals *now) { return look.look(now); });
    return static_cast<int>(look.result);
}

VCLOCK_CALL int select(int count, fd_set *reading, fd_set *writing, fd_set *failing, timeval *timeout)
{
    if (vclock::self() == nullptr)
        return static_cast<int>(syscall(SYS_select, count, reading, writing, failing, timeout));
    SelectLook look = {count, {reading, writing, failing}, {}, 0};
    const Nanoseconds deadline = timeout != nullptr ? vclock::deadline_after(vclock::from(*timeout)) : NEVER;
    const int result = select_until(look, "select", deadline, nullptr);
    if (timeout != nullptr && deadline != NEVER)
        *timeout = vclock::to_timeval(std::max<Nanoseconds>(deadline - vclock::now(), 0));
    return result;
}

VCLOCK_CALL int pselect(int count, fd_set *reading, fd_set *writing, fd_set *failing, const timespec *timeout,
                        const sigset_t *mask)
{
    SelectLook look = {count, {reading, writing, failing}, {}, 0};
    if (vclock::self() == nullptr) {
        timespec left = timeout != nullptr ? *timeout : timespec{};
        const struct {
            const sigset_t *mask;
            std::size_t size;
        } masked = {mask, sizeof(Signals)};
        return static_cast<int>(syscall(SYS_pselect6, count, reading, writing, failing,
                                        timeout != nullptr ? &left : nullptr, &masked));
    }
    const Nanoseconds deadline = timeout != nullptr ? vclock::deadline_after(vclock::from(*timeout)) : NEVER;
    return select_until(look, "pselect", deadline, signals_of(mask));
}

static std::uint32_t awaited_by(const pollfd *entries, nfds_t count)
{
    std::uint32_t kinds = 0;
    for (nfds_t i = 0; i < count; ++i)
        kinds |= vclock::kind_of(entries[i].fd) | ((entries[i].events & POLLOUT) != 0 ? vclock::ROOM : 0U);
    return kinds;
}

static int poll_until(pollfd *entries, nfds_t count, const char *call, Nanoseconds deadline,
                      const Signals *mask)
{
    long result = 0;
    vclock::wait_until(call, awaited_by(entries, count), deadline, mask, [&](const Signals *now) {
        const timespec none = {};
        result = syscall(SYS_ppoll, entries, count, &none, now, sizeof(Signals));
        return result != 0;
    });
    return static_cast<int>(result);
}

VCLOCK_CALL int poll(pollfd *entries, nfds_t count, int milliseconds)
{
    if (vclock::self() == nullptr)
        return static_cast<int>(syscall(SYS_poll, entries, count, milliseconds));
    const Nanoseconds deadline =
        milliseconds >= 0 ? vclock::deadline_after(milliseconds * Nanoseconds(1'000'000)) : NEVER;
    return poll_until(entries, count, "poll", deadline, nullptr);
}

VCLOCK_CALL int ppoll(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask)
{
    if (vclock::self() == nullptr) {
        timespec left = timeout != nullptr ? *timeout : timespec{};
        return static_cast<int>(
            syscall(SYS_ppoll, entries, count, timeout != nullptr ? &left : nullptr, mask, sizeof(Signals)));
    }
    const Nanoseconds deadline = timeout != nullptr ? vclock::deadline_after(vclock::from(*timeout)) : NEVER;
    return poll_until(entries, count, "ppoll", deadline, signals_of(mask));
}

VCLOCK_CALL int epoll_pwait(int set, epoll_event *events, int count, int milliseconds, const sigset_t *mask)
{
    if (vclock::self() == nullptr)
        return static_cast<int>(
            syscall(SYS_epoll_pwait, set, events, count, milliseconds, mask, sizeof(Signals)));
    const Nanoseconds deadline =
        milliseconds >= 0 ? vclock::deadline_after(milliseconds * Nanoseconds(1'000'000)) : NEVER;
    long result = 0;
    vclock::wait_until("epoll_wait", vclock::EVERYTHING, deadline, signals_of(mask), [&](const Signals *now) {
        result = syscall(SYS_epoll_pwait, set, events, count, 0, now, sizeof(Signals));
        return result != 0;
    });
    return static_cast<int>(result);
}

VCLOCK_CALL int epoll_wait(int set, epoll_event *events, int count, int milliseconds)
{
    return epoll_pwait(set, events, count, milliseconds, nullptr);
}

// ---- reading what is not there yet

static bool is_ready(int fd, short events)
{
    pollfd entry = {fd, events, 0};
    const timespec none = {};
    return syscall(SYS_ppoll, &entry, 1, &none, nullptr, 0) != 0;
}

static bool is_patient(int fd)
{
    const long flags = syscall(SYS_fcntl, fd, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK) == 0;
}

static Nanoseconds receive_timeout(int fd)
{
    timeval limit = {};
    socklen_t size = sizeof limit;
    const bool set = syscall(SYS_getsockopt, fd, SOL_SOCKET, SO_RCVTIMEO, &limit, &size) == 0;
    return set && (limit.tv_sec != 0 || limit.tv_usec != 0) ? vclock::from(limit) : NEVER;
}

// Waits until the descriptor can be read, if a read would wait. False when the call ends before, with errno.
static bool wait_readable(int fd, const char *call, bool patient)
{
    vclock::note_done(vclock::ROOM);
    if (!patient || is_ready(fd, POLLIN) || vclock::self() == nullptr || !is_patient(fd))
        return true;
    bool broken = false;
    const bool found =
        vclock::wait_until(call, vclock::kind_of(fd), vclock::deadline_after(receive_timeout(fd)), nullptr,
                           [&](const Signals *mask) {
                               return is_ready(fd, POLLIN) || (broken = vclock::handle_signals(mask, true));
                           });
    errno = broken ? EINTR : EAGAIN;
    return found && !broken;
}

VCLOCK_CALL ssize_t read(int fd, void *buffer, size_t size)
{
    return wait_readable(fd, "read", true) ? syscall(SYS_read, fd, buffer, size) : -1;
}

VCLOCK_CALL ssize_t recvfrom(int fd, void *__restrict buffer, size_t size, int flags,
                             sockaddr *__restrict address, socklen_t *__restrict length)
{
    return wait_readable(fd, "recvfrom", (flags & MSG_DONTWAIT) == 0)
               ? syscall(SYS_recvfrom, fd, buffer, size, flags, address, length)
               : -1;
}

VCLOCK_CALL ssize_t recv(int fd, void *buffer, size_t size, int flags)
{
    return recvfrom(fd, buffer, size, flags, nullptr, nullptr);
}

VCLOCK_CALL ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    return wait_readable(fd, "recvmsg", (flags & MSG_DONTWAIT) == 0)
               ? syscall(SYS_recvmsg, fd, message, flags)
               : -1;
}

VCLOCK_CALL int accept4(int fd, sockaddr *__restrict address, socklen_t *__restrict length, int flags)
{
    return wait_readable(fd, "accept", true)
               ? static_cast<int>(syscall(SYS_accept4, fd, address, length, flags))
               : -1;
}

VCLOCK_CALL int accept(int fd, sockaddr *__restrict address, socklen_t *__restrict length)
{
    return accept4(fd, address, length, 0);
}

// ---- what others may wait for

// A packet may still be on its way when the call returns.
template <typename Result> static Result noting_sent(Result result)
{
    vclock::note_done(vclock::SOCKET);
    if (vclock::shared() != nullptr)
        vclock::shared()->sent.fetch_add(1);
    return result;
}

static void note_change_of(int fd)
{
    if (vclock::shared() == nullptr)
        return;
    const int kept = errno;
    vclock::note_done(vclock::kind_of(fd));
    errno = kept;
}

VCLOCK_CALL ssize_t write(int fd, const void *buffer, size_t size)
{
    note_change_of(fd);
    return syscall(SYS_write, fd, buffer, size);
}

VCLOCK_CALL ssize_t writev(int fd, const iovec *parts, int count)
{
    note_change_of(fd);
    return syscall(SYS_writev, fd, parts, count);
}

// The other end may see a hang-up, or packets that had been waiting.
VCLOCK_CALL int close(int fd)
{
    note_change_of(fd);
    return static_cast<int>(syscall(SYS_close, fd));
}

VCLOCK_CALL int kill(pid_t pid, int signal) noexcept
{
    vclock::note_done(vclock::EVERYTHING);
    return static_cast<int>(syscall(SYS_kill, pid, signal));
}

VCLOCK_CALL int tcflush(int fd, int queue) noexcept
{
    vclock::note_done(vclock::TERMINAL | vclock::ROOM);
    return static_cast<int>(syscall(SYS_ioctl, fd, TCFLSH, queue));
}

VCLOCK_CALL int tcflow(int fd, int action) noexcept
{
    vclock::note_done(vclock::TERMINAL | vclock::ROOM);
    return static_cast<int>(syscall(SYS_ioctl, fd, TCXONC, action));
}

VCLOCK_CALL ssize_t sendto(int fd, const void *buffer, size_t size, int flags, const sockaddr *address,
                           socklen_t length)
{
    return noting_sent(syscall(SYS_sendto, fd, buffer, size, flags, address, length));
}

VCLOCK_CALL ssize_t send(int fd, const void *buffer, size_t size, int flags)
{
    return sendto(fd, buffer, size, flags, nullptr, 0);
}

VCLOCK_CALL ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    return noting_sent(syscall(SYS_sendmsg, fd, message, flags));
}

VCLOCK_CALL int connect(int fd, const sockaddr *address, socklen_t length)
{
    return noting_sent(static_cast<int>(syscall(SYS_connect, fd, address, length)));
}

VCLOCK_CALL int shutdown(int fd, int how) noexcept
{
    return noting_sent(static_cast<int>(syscall(SYS_shutdown, fd, how)));
}

// ---- sleeping

// What is left of the time when a handler ended the sleep, otherwise 0.
static Nanoseconds sleep_until(const char *call, Nanoseconds deadline)
{
    const bool broken = vclock::wait_until(call, vclock::ALARM, deadline, nullptr, [](const Signals *mask) {
        return vclock::handle_signals(mask, false);
    });
    if (broken)
        errno = EINTR;
    return broken ? std::max<Nanoseconds>(deadline - vclock::now(), 1) : 0;
}

static bool is_valid(const timespec *time)
{
    return time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < vclock::SECOND;
}

// Returns an error number, as clock_nanosleep does.
VCLOCK_CALL int clock_nanosleep(clockid_t clock, int flags, const timespec *wanted, timespec *left)
{
    if (vclock::self() == nullptr ||
        (clock != CLOCK_REALTIME && clock != CLOCK_MONOTONIC && clock != CLOCK_BOOTTIME))
        return syscall(SYS_clock_nanosleep, clock, flags, wanted, left) == 0 ? 0 : errno;
    if (!is_valid(wanted))
        return EINVAL;
    const Nanoseconds offset = clock == CLOCK_REALTIME ? vclock::wall_now() - vclock::now() : 0;
    const bool absolute = (flags & TIMER_ABSTIME) != 0;
    const Nanoseconds deadline =
        absolute ? vclock::from(*wanted) - offset : vclock::deadline_after(vclock::from(*wanted));
    const int kept = errno;
    const Nanoseconds rest = sleep_until("nanosleep", deadline);
    errno = kept;
    if (rest > 0 && left != nullptr && !absolute)
        *left = vclock::to_timespec(rest);
    return rest > 0 ? EINTR : 0;
}

VCLOCK_CALL int nanosleep(const timespec *wanted, timespec *left)
{
    const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, left);
    if (error != 0)
        errno = error;
    return error == 0 ? 0 : -1;
}

VCLOCK_CALL int usleep(useconds_t microseconds)
{
    const timespec wanted = vclock::to_timespec(Nanoseconds(microseconds) * 1000);
    return nanosleep(&wanted, nullptr);
}

VCLOCK_CALL unsigned sleep(unsigned seconds)
{
    timespec left = {};
    const timespec wanted = {static_cast<time_t>(seconds), 0};
    return nanosleep(&wanted, &left) == 0 ? 0 : static_cast<unsigned>(left.tv_sec);
}

VCLOCK_CALL int pause()
{
    if (vclock::self() == nullptr)
        return static_cast<int>(syscall(SYS_pause));
    sleep_until("pause", NEVER);
    return -1;
}

VCLOCK_CALL int sigsuspend(const sigset_t *mask)
{
    if (vclock::self() == nullptr)
        return static_cast<int>(syscall(SYS_rt_sigsuspend, mask, sizeof(Signals)));
    vclock::wait_until("sigsuspend", vclock::ALARM, NEVER, signals_of(mask),
                       [](const Signals *now) { return vclock::handle_signals(now, false); });
    errno = EINTR;
    return -1;
}

VCLOCK_CALL int sigtimedwait(const sigset_t *set, siginfo_t *info, const timespec *timeout)
{
    if (vclock::self() == nullptr)
        return static_cast<int>(syscall(SYS_rt_sigtimedwait, set, info, timeout, sizeof(Signals)));
    const Nanoseconds deadline = timeout != nullptr ? vclock::deadline_after(vclock::from(*timeout)) : NEVER;
    long result = -1;
    bool broken = false;
    vclock::wait_until("sigwait", vclock::ALARM, deadline, nullptr, [&](const Signals *mask) {
        const timespec none = {};
        result = syscall(SYS_rt_sigtimedwait, set, info, &none, sizeof(Signals));
        return result > 0 || is_interrupt(result) || (broken = vclock::handle_signals(mask, false));
    });
    if (result < 0)
        errno = broken ? EINTR : EAGAIN;
    return static_cast<int>(result);
}

VCLOCK_CALL int sigwaitinfo(const sigset_t *set, siginfo_t *info)
{
    return sigtimedwait(set, info, nullptr);
}

// ---- the interval timer

// Always a microsecond less than was set: a timer read back has always run for a moment.
static itimerval timer_left(const vclock::Participant &mine)
{
    if (mine.timer_at == NEVER)
        return {};
    const Nanoseconds left = std::max<Nanoseconds>(mine.timer_at - vclock::now() - 1000, 1000);
    return {vclock::to_timeval(mine.timer_every), vclock::to_timeval(left)};
}

VCLOCK_CALL int getitimer(__itimer_which_t which, itimerval *value) noexcept
{
    const vclock::Participant *mine = which == ITIMER_REAL ? vclock::self() : nullptr;
    if (mine == nullptr)
        return static_cast<int>(syscall(SYS_getitimer, which, value));
    *value = timer_left(*mine);
    return 0;
}

VCLOCK_CALL int setitimer(__itimer_which_t which, const itimerval *__restrict value,
                          itimerval *__restrict old) noexcept
{
    vclock::Participant *mine = which == ITIMER_REAL ? vclock::self() : nullptr;
    if (mine == nullptr)
        return static_cast<int>(syscall(SYS_setitimer, which, value, old));
    if (old != nullptr)
        *old = timer_left(*mine);
    const Nanoseconds wanted = vclock::from(value->it_value);
    mine->timer_at = wanted == 0 ? NEVER : vclock::deadline_after(wanted);
    mine->timer_every = vclock::from(value->it_interval);
    return 0;
}

// The seconds that were left, rounded to the nearest, never to 0.
VCLOCK_CALL unsigned alarm(unsigned seconds) noexcept
{
    itimerval value = {};
    itimerval old = {};
    value.it_value.tv_sec = static_cast<time_t>(seconds);
    setitimer(ITIMER_REAL, &value, &old);
    const bool more =
        old.it_value.tv_usec >= 500'000 || (old.it_value.tv_sec == 0 && old.it_value.tv_usec > 0);
    return static_cast<unsigned>(old.it_value.tv_sec + (more ? 1 : 0));
}

// The preloaded library's calls that make processes and wait for them. A child has its place in the table
// before it exists and begins when its parent waits, so that time never passes a process at work and the
// order of events is the same in every run. Programs without the library (started in a way that leaves it
// out, or linked statically) hold the time until they end or sleep for good.

#include "vclock_preload.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

using vclock::NEVER;
using vclock::Participant;
using vclock::Signals;

template <typename Function> static Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

static Participant *claim_for_child()
{
    return vclock::self() != nullptr ? vclock::claim(*vclock::shared()) : nullptr;
}

static void give_back(Participant *place)
{
    if (place != nullptr)
        place->state.store(vclock::State::Free);
}

VCLOCK_CALL pid_t fork() noexcept
{
    static auto *const real = next<pid_t()>("fork");
    Participant *place = claim_for_child();
    const pid_t pid = real();
    if (place == nullptr)
        return pid;
    if (pid == 0)
        vclock::become(place);
    else if (pid > 0)
        place->pid.store(pid);
    else
        give_back(place);
    return pid;
}

// A child that shares its parent's memory could not wait for its turn.
VCLOCK_CALL pid_t vfork() noexcept
{
    return fork();
}

// ---- other programs

VCLOCK_CALL int execve(const char *path, char *const arguments[], char *const environment[]) noexcept
{
    return static_cast<int>(syscall(SYS_execve, path, arguments, vclock::clocked_environment(environment)));
}

VCLOCK_CALL int execv(const char *path, char *const arguments[]) noexcept
{
    return execve(path, arguments, environ);
}

VCLOCK_CALL int execvpe(const char *file, char *const arguments[], char *const environment[]) noexcept
{
    static auto *const real = next<int(const char *, char *const[], char *const[])>("execvpe");
    return real(file, arguments, vclock::clocked_environment(environment));
}

VCLOCK_CALL int execvp(const char *file, char *const arguments[]) noexcept
{
    return execvpe(file, arguments, environ);
}

static constexpr std::size_t MOST_ARGUMENTS = 256;

// Reads a list of arguments that ends with a null pointer.
static void gather(char *(&list)[MOST_ARGUMENTS], const char *first, va_list &rest)
{
    std::size_t count = 0;
    for (const char *argument = first; argument != nullptr && count < MOST_ARGUMENTS - 1;
         argument = va_arg(rest, const char *))
        list[count++] = const_cast<char *>(argument);
    list[count] = nullptr;
}

VCLOCK_CALL int execl(const char *path, const char *first, ...) noexcept
{
    char *list[MOST_ARGUMENTS];
    va_list rest;
    va_start(rest, first);
    gather(list, first, rest);
    va_end(rest);
    return execve(path, list, environ);
}

VCLOCK_CALL int execlp(const char *file, const char *first, ...) noexcept
{
    char *list[MOST_ARGUMENTS];
    va_list rest;
    va_start(rest, first);
    gather(list, first, rest);
    va_end(rest);
    return execvpe(file, list, environ);
}

VCLOCK_CALL int execle(const char *path, const char *first, ...) noexcept
{
    char *list[MOST_ARGUMENTS];
    va_list rest;
    va_start(rest, first);
    gather(list, first, rest);
    char *const *environment = va_arg(rest, char *const *);
    va_end(rest);
    return execve(path, list, environment);
}

using Spawn = int(pid_t *, const char *, const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
                  char *const[], char *const[]);

// The new program may have found a place for itself before its parent knows its id; see join in
// vclock_preload.cpp, which takes the same lock.
static void settle_place(Participant *place, pid_t pid)
{
    vclock::Shared &shared = *vclock::shared();
    const auto mine = static_cast<pid_t>(syscall(SYS_getpid));
    for (pid_t holder = 0; !shared.lock.compare_exchange_weak(holder, mine); holder = 0) {
    }
    bool known = false;
    for (std::uint32_t i = 0; i < shared.top.load(); ++i)
        known |= shared.participants[i].pid.load() == pid &&
                 shared.participants[i].state.load() != vclock::State::Free;
    if (known)
        give_back(place);
    else
        place->pid.store(pid);
    shared.lock.store(0);
}

static int spawn(Spawn *real, pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                 const posix_spawnattr_t *attributes, char *const arguments[], char *const environment[])
{
    Participant *place = claim_for_child();
    if (place != nullptr)
        place->must_start = 1;
    pid_t child = 0;
    const int error =
        real(&child, path, actions, attributes, arguments, vclock::clocked_environment(environment));
    if (error != 0)
        give_back(place);
    else if (place != nullptr)
        settle_place(place, child);
    if (error == 0 && pid != nullptr)
        *pid = child;
    return error;
}

VCLOCK_CALL int posix_spawn(pid_t *__restrict pid, const char *__restrict path,
                            const posix_spawn_file_actions_t *__restrict actions,
                            const posix_spawnattr_t *__restrict attributes, char *const arguments[],
                            char *const environment[])
{
    static auto *const real = next<Spawn>("posix_spawn");
    return spawn(real, pid, path, actions, attributes, arguments, environment);
}

VCLOCK_CALL int posix_spawnp(pid_t *pid, const char *file, const posix_spawn_file_actions_t *actions,
                             const posix_spawnattr_t *attributes, char *const arguments[],
                             char *const environment[])
{
    static auto *const real = next<Spawn>("posix_spawnp");
    return spawn(real, pid, file, actions, attributes, arguments, environment);
}

// ---- waiting for children

VCLOCK_CALL pid_t wait4(pid_t pid, int *status, int options, rusage *usage) noexcept
{
    if ((options & WNOHANG) != 0 || vclock::self() == nullptr)
        return static_cast<pid_t>(syscall(SYS_wait4, pid, status, options, usage));
    long result = 0;
    bool broken = false;
    vclock::wait_until("waitpid", vclock::ALARM, NEVER, nullptr, [&](const Signals *mask) {
        result = syscall(SYS_wait4, pid, status, options | WNOHANG, usage);
        return result != 0 || (broken = vclock::handle_signals(mask, true));
    });
    if (broken)
        errno = EINTR;
    return broken ? -1 : static_cast<pid_t>(result);
}

VCLOCK_CALL pid_t wait3(int *status, int options, rusage *usage) noexcept
{
    return wait4(-1, status, options, usage);
}

VCLOCK_CALL pid_t waitpid(pid_t pid, int *status, int options)
{
    return wait4(pid, status, options, nullptr);
}

VCLOCK_CALL pid_t wait(int *status)
{
    return wait4(-1, status, 0, nullptr);
}

VCLOCK_CALL int waitid(idtype_t type, id_t id, siginfo_t *info, int options)
{
    if ((options & WNOHANG) != 0 || vclock::self() == nullptr)
        return static_cast<int>(syscall(SYS_waitid, type, id, info, options, nullptr));
    siginfo_t own = {};
    siginfo_t *found = info != nullptr ? info : &own;
    long result = 0;
    bool broken = false;
    vclock::wait_until("waitid", vclock::ALARM, NEVER, nullptr, [&](const Signals *mask) {
        found->si_pid = 0;
        result = syscall(SYS_waitid, type, id, found, options | WNOHANG, nullptr);
        return result != 0 || found->si_pid != 0 || (broken = vclock::handle_signals(mask, true));
    });
    if (broken)
        errno = EINTR;
    return broken ? -1 : static_cast<int>(result);
}

// ---- the shell

struct ShellSignals {
    struct sigaction interrupt;
    struct sigaction quit;
    sigset_t mask;
};

static void hold_signals(ShellSignals &kept)
{
    struct sigaction ignore {
    };
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &kept.interrupt);
    sigaction(SIGQUIT, &ignore, &kept.quit);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, &kept.mask);
}

static void release_signals(const ShellSignals &kept)
{
    sigaction(SIGINT, &kept.interrupt, nullptr);
    sigaction(SIGQUIT, &kept.quit, nullptr);
    sigprocmask(SIG_SETMASK, &kept.mask, nullptr);
}

VCLOCK_CALL int system(const char *command)
{
    if (vclock::self() == nullptr || command == nullptr)
        return next<int(const char *)>("system")(command);
    ShellSignals kept;
    hold_signals(kept);
    int status = -1;
    const pid_t pid = fork();
    if (pid == 0) {
        release_signals(kept);
        execl("/bin/sh", "sh", "-c", command, nullptr);
        _exit(127);
    }
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    release_signals(kept);
    return pid > 0 ? status : -1;
}

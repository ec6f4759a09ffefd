// Linked into every program of a coverage build, and into nothing else: brings the counters out of processes
// that do not come to the end of main. The C library's way out writes them; here it is done before `_exit`,
// before a program is replaced by another, and before SIGKILL, which this project's tests and the daemon send
// themselves: the process that is to be killed gets a signal first whose handler writes the counters and ends
// it as SIGKILL would. The linker's --wrap leads the calls here, so no source knows of it.

#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
// Both are missing in a program that is not measured, the sandbox, which only sends signals.
void __gcov_dump() __attribute__((weak));
void __gcov_reset() __attribute__((weak));

int __real_kill(pid_t pid, int number) noexcept;
[[noreturn]] void __real__exit(int status);
int __real_execve(const char *path, char *const arguments[], char *const environment[]) noexcept;

int __wrap_kill(pid_t pid, int number) noexcept;
[[noreturn]] void __wrap__exit(int status);
int __wrap_execve(const char *path, char *const arguments[], char *const environment[]) noexcept;
int __wrap_execl(const char *path, const char *first, ...) noexcept;
}

static constexpr int LAST_WORD_STEPS = 2000;       // waits for a process that is writing its counters
static constexpr long LAST_WORD_STEP = 2'000'000;  // ns
static constexpr std::size_t ARGUMENTS_MOST = 64;  // of execl
static constexpr rlim_t DESCRIPTORS = 4096;
static constexpr std::size_t STATUS_ROOM = 4096;  // bytes of /proc/PID/status that are looked at

static int last_word()
{
    return SIGRTMAX - 2;
}

// Whatever a test has limited is not meant for this.
static void lift(__rlimit_resource which, rlim_t wanted)
{
    rlimit limit{};
    getrlimit(which, &limit);
    const rlimit high{wanted, limit.rlim_max < wanted ? wanted : limit.rlim_max};
    if (setrlimit(which, &high) == 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(which, &limit);
}

static void write_counters()
{
    if (__gcov_dump == nullptr)
        return;
    const int error = errno;
    rlimit files{};
    rlimit size{};
    getrlimit(RLIMIT_NOFILE, &files);
    getrlimit(RLIMIT_FSIZE, &size);
    lift(RLIMIT_NOFILE, DESCRIPTORS);
    lift(RLIMIT_FSIZE, RLIM_INFINITY);
    __gcov_dump();
    setrlimit(RLIMIT_NOFILE, &files);
    setrlimit(RLIMIT_FSIZE, &size);
    errno = error;
}

static void forget_counters()
{
    if (__gcov_reset != nullptr)
        __gcov_reset();
}

// Before the library's own turn, which knows of no limits.
__attribute__((destructor)) static void write_at_exit()
{
    write_counters();
}

static void write_and_die(int)
{
    write_counters();
    __real_kill(getpid(), SIGKILL);
}

__attribute__((constructor)) static void listen()
{
    if (__gcov_dump == nullptr)
        return;
    struct sigaction action {
    };
    action.sa_handler = write_and_die;
    action.sa_flags = SA_RESTART;
    sigaction(last_word(), &action, nullptr);
    // What the parent has counted it writes itself.
    pthread_atfork(nullptr, nullptr, forget_counters);
}

// ---------------------------------------------------------------------------------------- the processes
// killed

// The value of a field of /proc/PID/status; null when the process is gone.
static const char *field_of(const char *status, const char *name, std::size_t length)
{
    for (const char *at = status; *at != '\0'; ++at)
        if ((at == status || at[-1] == '\n') && std::char_traits<char>::compare(at, name, length) == 0)
            return at + length;
    return nullptr;
}

typedef std::array<char, STATUS_ROOM> STATUS;

static bool read_status(pid_t pid, STATUS &status)
{
    std::array<char, 64> path{};
    std::snprintf(path.data(), path.size(), "/proc/%d/status", pid);
    const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.data(), O_RDONLY | O_CLOEXEC));
    if (fd < 0)
        return false;
    const long got = syscall(SYS_read, fd, status.data(), status.size() - 1);
    syscall(SYS_close, fd);
    status[got > 0 ? static_cast<std::size_t>(got) : 0] = '\0';
    return got > 0;
}

// Is it there, does it catch the signal, and is it not one that waits to be reaped?
static bool would_write(pid_t pid)
{
    STATUS status{};
    if (!read_status(pid, status))
        return false;
    const char *state = field_of(status.data(), "State:\t", 7);
    const char *caught = field_of(status.data(), "SigCgt:\t", 8);
    if (state == nullptr || caught == nullptr || *state == 'Z' || *state == 'X')
        return false;
    return (std::strtoull(caught, nullptr, 16) >> (last_word() - 1) & 1) != 0;
}

static bool is_meant(pid_t pid, pid_t whom)
{
    if (pid == getpid())
        return false;
    if (whom == -1)
        return pid != 1;
    return whom > 0 ? pid == whom : getpgid(pid) == (whom == 0 ? getpgrp() : -whom);
}

// One round over all of them; true while there is one left that would write.
static bool ask_all(pid_t whom, bool first)
{
    DIR *directory = opendir("/proc");
    bool left = false;
    while (const dirent *entry = directory != nullptr ? readdir(directory) : nullptr) {
        const pid_t pid = std::isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0
                              ? static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10))
                              : 0;
        if (pid == 0 || !is_meant(pid, whom) || !would_write(pid))
            continue;
        left = true;
        if (first) {
            __real_kill(pid, last_word());
            __real_kill(pid, SIGCONT);
        }
    }
    if (directory != nullptr)
        closedir(directory);
    return left;
}

// The clock of the process may be a virtual one: steps are counted, and slept by the system's own call.
static void hear_last_words(pid_t whom)
{
    for (int step = 0; step < LAST_WORD_STEPS && ask_all(whom, step == 0); ++step) {
        const timespec pause{0, LAST_WORD_STEP};
        syscall(SYS_nanosleep, &pause, nullptr);
    }
}

extern "C" int __wrap_kill(pid_t pid, int number) noexcept
{
    const bool self = number == SIGKILL && (pid == 0 || pid == getpid());
    if (number == SIGKILL)
        hear_last_words(pid);
    if (self)
        write_counters();
    const int result = __real_kill(pid, number);
    if (self)
        forget_counters();  // a test may have spared it
    return result;
}

// ------------------------------------------------------------------------------------------- the other ways
// out

extern "C" void __wrap__exit(int status)
{
    write_counters();
    __real__exit(status);
}

extern "C" int __wrap_execve(const char *path, char *const arguments[], char *const environment[]) noexcept
{
    write_counters();
    const int result = __real_execve(path, arguments, environment);
    forget_counters();
    return result;
}

extern "C" int __wrap_execl(const char *path, const char *first, ...) noexcept
{
    std::array<char *, ARGUMENTS_MOST> list{const_cast<char *>(first)};
    va_list rest;
    va_start(rest, first);
    for (std::size_t i = 1; list[i - 1] != nullptr && i + 1 < list.size(); ++i)
        list[i] = va_arg(rest, char *);
    va_end(rest);
    return __wrap_execve(path, list.data(), environ);
}

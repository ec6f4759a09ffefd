// The preloaded library's core: how a process comes under the clock, and how it waits. The calls of the
// system that it replaces are in vclock_preload_time.cpp (reading clocks, waiting) and
// vclock_preload_process.cpp (children and programs).

#include "vclock_preload.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace vclock
{

static Shared *memory = nullptr;
static Participant *place = nullptr;         // of this process, or of the parent right after an unseen fork
static std::array<char, 512> preload_entry;  // "LD_PRELOAD=..." for programs started from here
static std::array<char, 512> file_entry;     // "VCLOCK_FILE=..."
static constexpr Signals ALL_SIGNALS = ~Signals(0);
static constexpr Nanoseconds LOOK_AROUND =
    SECOND;  // real time between two looks whether the coordinator lives
static constexpr Nanoseconds RELEASED_LOOK =
    SECOND / 200;  // real time between two looks at descriptors without one

Shared *shared()
{
    return memory;
}

Nanoseconds now()
{
    return memory->now.load();
}

Nanoseconds wall_now()
{
    return memory->now.load() + memory->wall_offset.load();
}

Nanoseconds deadline_after(Nanoseconds patience)
{
    return patience >= NEVER / 2 ? NEVER : now() + patience;
}

static void ring()
{
    memory->bell.fetch_add(1);
    futex_wake(memory->bell);
}

static void set_signals(const Signals *fresh, Signals *old)
{
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, fresh, old, sizeof(Signals));
}

// ---- taking part

static void note_program()
{
    const char *name = program_invocation_short_name;
    std::strncpy(place->program.data(), name != nullptr ? name : "?", place->program.size() - 1);
}

// Two sides may look for the same new process at once: its parent and itself.
static void lock_table(pid_t pid)
{
    pid_t holder = 0;
    for (int looks = 0; !memory->lock.compare_exchange_weak(holder, pid); holder = 0) {
        poll(nullptr, 0, 0);
        if (++looks % 1000 == 0 && holder > 0 && syscall(SYS_kill, holder, 0) != 0)
            memory->lock.compare_exchange_strong(holder, 0);
    }
}

static Participant *find(pid_t pid)
{
    for (std::uint32_t i = 0; i < memory->top.load(); ++i) {
        Participant &candidate = memory->participants[i];
        if (candidate.pid.load() == pid && candidate.state.load() != State::Free)
            return &candidate;
    }
    return nullptr;
}

static void wait_for_leave()
{
    place->must_start = 0;
    // The two looks on entering a wait are not the coordinator's.
    int looks = 0;
    wait_until("start", ALARM, NEVER, nullptr, [&looks](const Signals *) { return ++looks > 2; });
}

void become(Participant *mine)
{
    place = mine;
    place->pid.store(static_cast<pid_t>(syscall(SYS_getpid)));
    note_program();
    wait_for_leave();
}

// A program that replaced another keeps its process's place; any other process gets one.
static void join(pid_t pid)
{
    lock_table(pid);
    Participant *mine = find(pid);
    const bool known = mine != nullptr;
    if (!known && (mine = claim(*memory)) != nullptr)
        mine->pid.store(pid);
    memory->lock.store(0);
    if (mine == nullptr) {
        std::fputs("vclock: too many processes\n", stderr);
        _exit(98);
    }
    place = mine;
    note_done(EVERYTHING);  // descriptors were closed as the program started
    note_program();
    place->exact = std::getenv(EXACT_VARIABLE) != nullptr;
    if (!known || place->must_start != 0)
        wait_for_leave();
}

Participant *self()
{
    if (memory == nullptr)
        return nullptr;
    const auto thread = static_cast<pid_t>(syscall(SYS_gettid));
    if (place != nullptr && place->pid.load() == thread)
        return place;
    if (static_cast<pid_t>(syscall(SYS_getpid)) != thread)
        return nullptr;  // threads beside the first live in real time
    join(thread);
    return place;
}

static void *map_file(const char *path)
{
    const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    if (fd < 0)
        return nullptr;
    void *address = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    syscall(SYS_close, fd);
    return address == MAP_FAILED ? nullptr : address;
}

__attribute__((constructor)) static void start()
{
    const int kept = errno;
    const char *path = std::getenv(FILE_VARIABLE);
    const char *preload = std::getenv("LD_PRELOAD");
    if (path != nullptr && preload != nullptr)
        memory = static_cast<Shared *>(map_file(path));
    if (memory != nullptr && (memory->released.load() != 0 || syscall(SYS_kill, memory->coordinator, 0) != 0))
        memory = nullptr;
    if (memory != nullptr) {
        std::snprintf(preload_entry.data(), preload_entry.size(), "LD_PRELOAD=%s", preload);
        std::snprintf(file_entry.data(), file_entry.size(), "%s=%s", FILE_VARIABLE, path);
        self();
    }
    errno = kept;
}

static bool has_variable(char *const environment[], const char *entry)
{
    const std::size_t length = static_cast<std::size_t>(std::strchr(entry, '=') - entry) + 1;
    for (; *environment != nullptr; ++environment)
        if (std::strncmp(*environment, entry, length) == 0)
            return true;
    return false;
}

// The list is never freed: the program is about to be replaced, or starts another once in a while.
char **clocked_environment(char *const environment[])
{
    static char *none[] = {nullptr};
    if (environment == nullptr)
        environment = none;
    if (memory == nullptr)
        return const_cast<char **>(environment);
    std::size_t count = 0;
    while (environment[count] != nullptr)
        ++count;
    auto **list = static_cast<char **>(std::calloc(count + 3, sizeof(char *)));
    if (list == nullptr)
        return const_cast<char **>(environment);
    std::memcpy(list, environment, count * sizeof(char *));
    for (char *entry : {preload_entry.data(), file_entry.data()})
        if (!has_variable(environment, entry))
            list[count++] = entry;
    return list;
}

// ---- what others may wait for

std::uint32_t kind_of(int fd)
{
    static constexpr unsigned MEMORY_DEVICES = 1;  // /dev/null and its like
    struct stat status {
    };
    if (fstat(fd, &status) != 0)
        return 0;
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
    case S_IFDIR:
        return 0;
    case S_IFCHR:
        return major(status.st_rdev) == MEMORY_DEVICES ? 0U : TERMINAL;
    case S_IFIFO:
        return PIPE;
    case S_IFSOCK:
        return SOCKET;
    default:
        return OTHER;
    }
}

void note_done(std::uint32_t kinds)
{
    if (place != nullptr)
        place->done |= kinds;
}

// ---- waiting

static bool asks_for_restart(int signal)
{
    struct sigaction action {
    };
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN ||
        action.sa_handler == SIG_DFL)
        return true;
    return (action.sa_flags & SA_RESTART) != 0;
}

static bool breaks_a_call(const Signals *mask)
{
    Signals pending = 0;
    Signals blocked = mask != nullptr ? *mask : ALL_SIGNALS;
    syscall(SYS_rt_sigpending, &pending, sizeof pending);
    pending &= ~blocked;
    for (int signal = 1; signal < 64; ++signal)
        if ((pending >> (signal - 1) & 1) != 0 && !asks_for_restart(signal))
            return true;
    return false;
}

bool handle_signals(const Signals *mask, bool restarting)
{
    const bool breaks = !restarting || breaks_a_call(mask);
    const timespec none = {};
    const bool handled = syscall(SYS_ppoll, nullptr, 0, &none, mask, sizeof(Signals)) < 0 && errno == EINTR;
    return handled && breaks;
}

// Raises SIGALRM when the interval timer has run out; it stays pending until the next look.
static void run_timer()
{
    if (now() < place->timer_at)
        return;
    place->timer_at = place->timer_every > 0 ? place->timer_at + place->timer_every : NEVER;
    syscall(SYS_kill, static_cast<pid_t>(syscall(SYS_getpid)), SIGALRM);
}

void wait_begin(const char *call, std::uint32_t awaited, Nanoseconds deadline, Signals &saved)
{
    set_signals(&ALL_SIGNALS, &saved);
    std::strncpy(place->call.data(), call, place->call.size() - 1);
    place->awaited = awaited | ALARM;
    place->deadline = deadline;
    place->patience = deadline == NEVER ? NEVER : deadline - now();
}

void wait_answer()
{
    place->answered.store(place->asked.load());
    place->state.store(State::Waiting);
    ring();
}

// Nobody is left to ask: this process serves its descriptors while time stands still, or ends if the
// coordinator died without a word.
static bool alone()
{
    if (memory->released.load() != 0)
        return true;
    if (syscall(SYS_kill, memory->coordinator, 0) != 0)
        _exit(98);
    return false;
}

void wait_for_question()
{
    while (place->asked.load() == place->answered.load()) {
        const bool released = memory->released.load() != 0;
        futex_wait(place->asked, place->answered.load(), released ? RELEASED_LOOK : LOOK_AROUND);
        if (place->asked.load() == place->answered.load() && alone())
            return;
    }
    run_timer();
}

void wait_end(const Signals &saved)
{
    place->deadline = NEVER;
    place->left.fetch_add(1);
    place->state.store(State::Working);
    const int kept = errno;
    set_signals(&saved, nullptr);
    errno = kept;
}

}  // namespace vclock

// Asking systemd, by its own program and without a shell. The unit stops the daemon by running this program
// in the unit's own control group, with the variable SERVICE_RESULT; an event's command runs in the same
// group, without it.
#include "control_unit.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static constexpr char UNIT[] = "voltariad.service";
static constexpr char SYSTEMCTL[] = "/bin/systemctl";
static constexpr milliseconds ANSWER_PATIENCE{5000};

static bool in_group(const SYSTEM &system)
{
    return system_in_unit(system, "self", UNIT);
}

static bool is_stopper(const SYSTEM &system)
{
    return in_group(system) && std::getenv("SERVICE_RESULT") != nullptr;  // NOLINT(concurrency-mt-unsafe)
}

bool unit_owns(const SYSTEM &system, const PROCESS &process)
{
    return system_in_unit(system, std::to_string(process.pid), UNIT) && !is_stopper(system);
}

bool unit_runs_us(const SYSTEM &system)
{
    return in_group(system) && !is_stopper(system);
}

// ---- Running systemctl ----

using ARGUMENTS = std::array<const char *, 6>;

struct RUN {
    int status = -1;  // as from waitpid
    bool ended = false;
    std::string output;
};

[[noreturn]] static void become(const ARGUMENTS &arguments, int output)
{
    std::array<char *, std::tuple_size_v<ARGUMENTS>> words{};
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = const_cast<char *>(arguments[i]);  // execv does not change them
    if (output >= 0 && dup2(output, STDOUT_FILENO) < 0)
        _exit(127);
    execv(SYSTEMCTL, words.data());
    _exit(127);
}

static int left_until(steady_clock::time_point limit)
{
    const auto left = std::chrono::duration_cast<milliseconds>(limit - steady_clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Until something is there to be read, or the end of what is to be waited for.
static bool await_ready(int fd, steady_clock::time_point limit)
{
    for (;;) {
        pollfd entry{fd, POLLIN, 0};
        const int ready = poll(&entry, 1, left_until(limit));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

static std::string read_all(int fd, steady_clock::time_point limit)
{
    std::string text;
    std::array<char, 256> part;
    while (await_ready(fd, limit)) {
        const ssize_t got = read(fd, part.data(), part.size());
        if (got <= 0)
            break;
        text.append(part.data(), static_cast<std::size_t>(got));
    }
    return text;
}

// One that does not end in time is killed; what it has asked systemd for goes on.
static void await_end(pid_t pid, steady_clock::time_point limit, RUN &result)
{
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    result.ended = handle >= 0 && await_ready(handle, limit);
    if (handle >= 0)
        close(handle);
    if (!result.ended)
        kill(pid, SIGKILL);
    while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
    }
}

static RUN run_systemctl(const ARGUMENTS &arguments, bool read, milliseconds patience)
{
    const auto limit = steady_clock::now() + patience;
    RUN result;
    std::array<int, 2> ends{-1, -1};
    if (read && pipe2(ends.data(), O_CLOEXEC) != 0)
        return result;
    const pid_t pid = fork();
    if (pid == 0)
        become(arguments, ends[1]);
    if (ends[1] >= 0)
        close(ends[1]);
    if (pid > 0) {
        if (read)
            result.output = read_all(ends[0], limit);
        await_end(pid, limit, result);
    }
    if (ends[0] >= 0)
        close(ends[0]);
    return result;
}

// ---- What it is asked ----

bool unit_restarts(const SYSTEM &system)
{
    if (!system_exists(system, "/run/systemd/system") || !system_executable(system, SYSTEMCTL) ||
        in_group(system))
        return false;
    const RUN result = run_systemctl(
        {"systemctl", "show", "--property=ActiveState", "--value", UNIT, nullptr}, true, ANSWER_PATIENCE);
    return result.output.starts_with("activating") || result.output.starts_with("active");
}

std::string unit_stop(const SYSTEM &system, milliseconds patience)
{
    const std::string owner = std::string("voltariad belongs to systemd's ") + UNIT;
    if (!system_executable(system, SYSTEMCTL))
        return owner + ", but there is no " + SYSTEMCTL + " to stop it with";
    const bool wait = !unit_runs_us(system);
    const RUN result = run_systemctl(wait ? ARGUMENTS{"systemctl", "stop", UNIT}
                                          : ARGUMENTS{"systemctl", "--no-block", "stop", UNIT},
                                     false, patience);
    if (!result.ended)
        return owner + ", and \"systemctl stop " + UNIT + "\" has not come to an end in time; it goes on";
    if (!WIFEXITED(result.status) || WEXITSTATUS(result.status) != 0)
        return owner + ", and \"systemctl stop " + UNIT + "\" failed: see \"systemctl status " + UNIT + "\"";
    return "";
}

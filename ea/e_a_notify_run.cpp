// The programs that the engine starts. They must never hold it up: a program gets its text from a file, not
// from a pipe that it may leave unread, and is waited for only so long. One that is left runs on in a session
// of its own, so that a mail on its way outlives the daemon; the agent's SIGCHLD handler reaps it.
#include "e_a_notify_run.h"

#include "agent_utils.h"
#include "e_a_error.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

int program_errors = -1;
std::vector<pid_t> *program_pids = nullptr;

static constexpr char NOSHELL[] = "SHELL=/bin/false";
static constexpr int FIRST_OTHER_DESCRIPTOR = 3;
static constexpr int DESCRIPTORS_CLOSED = 1024;  // by hand, where the kernel cannot; the agent has far fewer

static void failed(const char *what)
{
    ea_error(std::string(what) + ": " + std::strerror(errno));
}

static bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

int program_text(std::string_view text)
{
    const int fd = memfd_create("text", MFD_CLOEXEC);
    if (fd < 0) {
        failed("Cannot hold a text");
        return -1;
    }
    if (write_all(fd, text) && lseek(fd, 0, SEEK_SET) == 0)
        return fd;
    failed("Cannot hold a text");
    close(fd);
    return -1;
}

// ---------------------------------------------------------------------- between fork and the program's start

void signals_default()
{
    for (int signo = 1; signo < NSIG; ++signo)
        std::signal(signo, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

static void close_others()
{
    if (close_range(FIRST_OTHER_DESCRIPTOR, ~0U, 0) == 0)
        return;
    for (int fd = FIRST_OTHER_DESCRIPTOR; fd < DESCRIPTORS_CLOSED; ++fd)
        close(fd);
}

void program_closeothers()
{
    if (close_range(FIRST_OTHER_DESCRIPTOR, ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    for (int fd = FIRST_OTHER_DESCRIPTOR; fd < DESCRIPTORS_CLOSED; ++fd)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
}

// The daemon's own standard descriptors may be closed, so any of the three may have a number below 3 already.
static bool set_standard(int input, int output)
{
    const int null = open("/dev/null", O_RDWR);
    const int in = fcntl(input >= 0 ? input : null, F_DUPFD, FIRST_OTHER_DESCRIPTOR);
    const int out = fcntl(output >= 0 ? output : null, F_DUPFD, FIRST_OTHER_DESCRIPTOR);
    const int errors = fcntl(program_errors >= 0 ? program_errors : null, F_DUPFD, FIRST_OTHER_DESCRIPTOR);
    return in >= 0 && out >= 0 && errors >= 0 && dup2(in, STDIN_FILENO) >= 0 &&
           dup2(out, STDOUT_FILENO) >= 0 && dup2(errors, STDERR_FILENO) >= 0;
}

[[noreturn]] static void become(const PROGRAM &program, char *const *arguments, char *const *environment)
{
    setsid();
    signals_default();
    umask(022);
    if (chdir("/") == 0 && set_standard(program.input, program.output)) {
        close_others();
        execve(program.path, arguments, environment);
    }
    _exit(127);
}

// ------------------------------------------------------------------------------------------------- starting

// execve takes pointers to characters that it does not change.
static char *word(const char *text)
{
    return const_cast<char *>(text);
}

static std::vector<char *> argument_list(const PROGRAM &program)
{
    std::vector<char *> list{word(program.name)};
    for (const char *argument : program.arguments)
        if (argument != nullptr)
            list.push_back(word(argument));
    list.push_back(nullptr);
    return list;
}

static std::vector<char *> environment_list(const PROGRAM &program)
{
    std::vector<char *> list;
    for (char **variable = environ; variable != nullptr && *variable != nullptr; ++variable)
        if (!program.noshell || !std::string_view(*variable).starts_with("SHELL="))
            list.push_back(*variable);
    if (program.noshell)
        list.push_back(word(NOSHELL));
    list.push_back(nullptr);
    return list;
}

// Signals wait meanwhile: the child must not run the daemon's handlers, and one that ends at once must not be
// reaped, and its number given away, before there is a descriptor for it.
int program_start(const PROGRAM &program)
{
    const std::vector<char *> arguments = argument_list(program);
    const std::vector<char *> environment = environment_list(program);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    const pid_t pid = fork();
    if (pid == 0)
        become(program, arguments.data(), environment.data());
    if (pid < 0)
        failed(program.path);
    else if (program_pids != nullptr)
        program_pids->push_back(pid);
    const int started = pid < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return started;
}

static bool ended_by(int started, std::int64_t deadline)
{
    for (;;) {
        const std::int64_t left = std::clamp<std::int64_t>(deadline - utils_monotonicms(), 0, INT_MAX);
        pollfd end{started, POLLIN, 0};
        const int ready = poll(&end, 1, static_cast<int>(left));
        if (ready > 0)
            return true;
        if (left == 0 || (ready < 0 && errno != EINTR))
            return false;
    }
}

bool program_wait(int started, std::int64_t deadline)
{
    if (started < 0)
        return false;
    const bool ended = ended_by(started, deadline);
    siginfo_t status;
    // Most often the SIGCHLD handler was first.
    if (ended)
        waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(started), &status, WEXITED | WNOHANG);
    close(started);
    return ended;
}

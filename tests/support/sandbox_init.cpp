// Process 1 of a sandbox. It starts the command, adopts and reaps orphans (their parent id becomes 1, as
// under a real init), passes signals on, reads the console so that nobody who prints there ever waits for a
// reader, and when the command has ended kills whatever is left and looks for sanitizer reports. Called by
// sandbox.cpp, once.

#include "sandbox.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

static constexpr off_t CONSOLE_KEPT = 16
                                      << 20;  // bytes of console output that are kept; the rest is read away

// Rights that even the real root does without in here: stopping the machine, its modules, memory, clock and
// log, and making device nodes.
static constexpr std::array DROPPED = {CAP_SYS_BOOT, CAP_SYS_MODULE, CAP_SYS_RAWIO,
                                       CAP_SYS_TIME, CAP_SYSLOG,     CAP_MKNOD};

typedef struct _CONSOLE {
    int master;  // what the console's users print
    int user;    // held open, so that the master never sees an end of file
    int record;  // file the output is kept in
} CONSOLE;

// The console is a pty. This process leads a session of its own with the console as its controlling terminal:
// a daemon that opens /dev/console as a session leader must not get a controlling terminal by it, and does
// not when the terminal belongs to another session.
static CONSOLE open_console()
{
    CONSOLE console = {};
    console.master = sandbox_check(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK), "new console");
    sandbox_check(unlockpt(console.master), "unlockpt");
    std::array<char, 64> name{};
    if (ptsname_r(console.master, name.data(), name.size()) != 0)
        sandbox_fail("ptsname");
    sandbox_write_file("/dev/console", "", 0600);
    sandbox_check(mount(name.data(), "/dev/console", nullptr, MS_BIND, nullptr), "bind /dev/console");
    sandbox_check(setsid(), "setsid");
    console.user = sandbox_check(open("/dev/console", O_RDWR | O_CLOEXEC), "/dev/console");
    ioctl(console.user, TIOCSCTTY, 0);

    termios settings = {};
    sandbox_check(tcgetattr(console.user, &settings), "console settings");
    cfmakeraw(&settings);
    sandbox_check(tcsetattr(console.user, TCSANOW, &settings), "console settings");
    console.record =
        sandbox_check(open((std::string(RECORD_DIR) + "/console").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC),
                      "console record");
    return console;
}

static void drain_console(const CONSOLE &console)
{
    std::array<char, 4096> part{};
    ssize_t count = 0;
    while ((count = read(console.master, part.data(), part.size())) > 0) {
        struct stat st = {};
        if (fstat(console.record, &st) == 0 && st.st_size < CONSOLE_KEPT &&
            write(console.record, part.data(), static_cast<std::size_t>(count)) != count)
            std::fputs("sandbox: console output is incomplete\n", stderr);
    }
}

static void set_environment(const SANDBOX_OPTIONS &options)
{
    const std::string log = "log_path=" + std::string(RECORD_DIR) + "/sanitizer/report";
    setenv("VOLTARIA_SANDBOX", "1", 1);
    setenv("HOME", "/root", 1);
    unsetenv("TMPDIR");
    if (!options.sanitizer_logs)
        return;
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        const char *given = getenv(name);
        std::string value = given != nullptr && *given != '\0' ? std::string(given) + ":" : "";
        value += log + ":print_stacktrace=1";
        setenv(name, value.c_str(), 1);
    }
}

static pid_t start_command(const SANDBOX_OPTIONS &options, const sigset_t &mask)
{
    for (const int capability : DROPPED)
        sandbox_check(prctl(PR_CAPBSET_DROP, capability), "dropping rights");
    set_environment(options);
    const pid_t pid = sandbox_check(fork(), "fork");
    if (pid != 0)
        return pid;
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    execvp(options.command.front(), options.command.data());
    const int error = errno;
    std::fprintf(stderr, "sandbox: cannot run %s: ", options.command.front());
    errno = error;
    std::perror("");
    _exit(error == ENOENT ? EXIT_NOT_FOUND : EXIT_NOT_EXECUTABLE);
}

// Reaps every finished process; true once the command is among them.
static bool reap(pid_t command, int &status)
{
    bool ended = false;
    int one = 0;
    pid_t pid = 0;
    while ((pid = waitpid(-1, &one, WNOHANG)) > 0) {
        if (pid != command)
            continue;
        ended = true;
        status = WIFEXITED(one) ? WEXITSTATUS(one) : 128 + WTERMSIG(one);
    }
    return ended;
}

static void serve(const CONSOLE &console, pid_t command, int signals, int &status)
{
    for (;;) {
        std::array<pollfd, 2> wanted = {pollfd{signals, POLLIN, 0}, pollfd{console.master, POLLIN, 0}};
        if (poll(wanted.data(), wanted.size(), -1) < 0 && errno != EINTR)
            sandbox_fail("poll");
        if (wanted[1].revents != 0)
            drain_console(console);
        signalfd_siginfo info = {};
        if (wanted[0].revents == 0 || read(signals, &info, sizeof info) != sizeof info)
            continue;
        if (info.ssi_signo != SIGCHLD)
            kill(command, static_cast<int>(info.ssi_signo));
        else if (reap(command, status))
            return;
    }
}

static void kill_the_rest(const CONSOLE &console)
{
    kill(-1, SIGKILL);
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR)
        drain_console(console);
    drain_console(console);
}

// A process that is killed in the middle of its leak check leaves this and nothing else: no finding.
static bool was_cut_off(std::string_view report)
{
    while (!report.empty()) {
        const std::size_t end = std::min(report.find('\n'), report.size());
        if (report.substr(0, end).find("Unable to get registers from thread") == std::string_view::npos)
            return false;
        report.remove_prefix(std::min(end + 1, report.size()));
    }
    return true;
}

// Prints what sanitizers left; true when there was anything.
static bool print_sanitizer_reports()
{
    const std::string directory = std::string(RECORD_DIR) + "/sanitizer";
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr)
        return false;
    bool found = false;
    while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        const std::string text = sandbox_read_file(directory + "/" + entry->d_name);
        if (was_cut_off(text))
            continue;
        found = true;
        std::fprintf(stderr, "sandbox: sanitizer report %s\n%s\n", entry->d_name, text.c_str());
    }
    closedir(dir);
    return found;
}

int sandbox_init(const SANDBOX_OPTIONS &options, const void *signals)
{
    const CONSOLE console = open_console();
    sigset_t watched;
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);  // all that the launcher forwards, and SIGCHLD
    watched = now;
    const int fd = sandbox_check(signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd");
    const pid_t command = start_command(options, *static_cast<const sigset_t *>(signals));
    int status = EXIT_LAUNCHER;
    serve(console, command, fd, status);
    kill_the_rest(console);
    return print_sanitizer_reports() ? EXIT_SANITIZER : status;
}

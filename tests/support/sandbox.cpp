// sandbox: runs one command in a private world of its own, so that a test may start the real daemon as root,
// let it open its fixed ports, write its fixed files and call the fixed programs, next to any number of
// others doing the same, and never touch the machine. This file owns the command line, the namespaces with
// their id maps, and the wait for the end. Used by every sandboxed test through CTest, and by ./demo.

#include "sandbox.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static constexpr char USAGE[] =
    "usage: sandbox [options] -- command [arguments]\n"
    "  --interfaces N           N interfaces eth0, eth1 ... with the addresses 10.77.0.1/24, 10.77.1.1/24 "
    "...\n"
    "  --iface NAME=ADDR/BITS   an interface of this name and address; may be repeated (default: eth0 "
    "alone)\n"
    "  --bridge NAME            a bridge inside, to which sandboxes started inside can be joined\n"
    "  --port-of BRIDGE         join the interfaces to this bridge, which the sandbox around this one has\n"
    "  --default-route          a default route through the first interface: the limited broadcast leaves by "
    "it\n"
    "  --hostname NAME          host name inside (default: voltaria-test)\n"
    "  --share DIR              keep this host directory, writable, at the same path; may be repeated\n"
    "  --sanitizer-logs         collect sanitizer reports; status 99 when one was left\n"
    "  --no-overlay             build the root from bind mounts instead of overlays\n"
    "  --no-catalogue           install no message catalogue: the installation directory is empty\n";

// Signals that are passed on to the command.
static constexpr std::array FORWARDED = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGWINCH};

void sandbox_fail(const std::string &what)
{
    const int error = errno;
    if (error != 0)
        std::fprintf(stderr, "sandbox: %s: %s\n", what.c_str(), std::strerror(error));
    else
        std::fprintf(stderr, "sandbox: %s\n", what.c_str());
    std::fflush(stderr);
    _exit(EXIT_LAUNCHER);
}

int sandbox_check(int result, const std::string &what)
{
    if (result < 0)
        sandbox_fail(what);
    return result;
}

void sandbox_write_file(const std::string &path, std::string_view text, unsigned mode)
{
    const int fd =
        sandbox_check(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode), path);
    while (!text.empty()) {
        const ssize_t done = write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            sandbox_fail(path);
        text.remove_prefix(static_cast<std::size_t>(done));
    }
    sandbox_check(fchmod(fd, mode), path);
    close(fd);
}

std::string sandbox_read_file(const std::string &path)
{
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return text;
    std::array<char, 16384> part{};
    ssize_t count = 0;
    while ((count = read(fd, part.data(), part.size())) > 0 || (count < 0 && errno == EINTR)) {
        if (count > 0)
            text.append(part.data(), static_cast<std::size_t>(count));
    }
    close(fd);
    return text;
}

[[noreturn]] static void usage_error(const std::string &what)
{
    std::fprintf(stderr, "sandbox: %s\n%s", what.c_str(), USAGE);
    std::exit(EXIT_LAUNCHER);
}

static int parse_number(std::string_view text, int low, int high, const std::string &what)
{
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < low || number > high)
        usage_error(what + ": " + std::string(text));
    return number;
}

static std::string interface_name(const std::string &text)
{
    if (text.empty() || text.size() > 15)
        usage_error("not the name of an interface: " + text);
    return text;
}

static SANDBOX_INTERFACE parse_interface(const std::string &text)
{
    const std::size_t equals = text.find('=');
    const std::size_t slash = text.find('/', equals == std::string::npos ? 0 : equals);
    if (equals == std::string::npos || slash == std::string::npos || equals == 0 || equals > 15)
        usage_error("--iface wants NAME=ADDR/BITS, not " + text);
    return {text.substr(0, equals), text.substr(equals + 1, slash - equals - 1),
            parse_number(std::string_view(text).substr(slash + 1), 1, 30, "bad netmask")};
}

static std::vector<SANDBOX_INTERFACE> numbered_interfaces(int count)
{
    std::vector<SANDBOX_INTERFACE> list;
    for (int i = 0; i < count; i++)
        list.push_back({"eth" + std::to_string(i), "10.77." + std::to_string(i) + ".1", 24});
    return list;
}

static std::string existing_directory(const std::string &path)
{
    std::array<char, PATH_MAX> real{};
    struct stat st = {};
    if (realpath(path.c_str(), real.data()) == nullptr || stat(real.data(), &st) != 0 || !S_ISDIR(st.st_mode))
        usage_error("--share: not a directory: " + path);
    return real.data();
}

// One option with its value; answers false when `name` is none that takes a value.
static bool take_valued_option(SANDBOX_OPTIONS &options, const std::string &name, const std::string &value,
                               bool &named_interfaces)
{
    if (name == "--interfaces") {
        options.interfaces = numbered_interfaces(parse_number(value, 0, 200, "bad number of interfaces"));
    } else if (name == "--iface") {
        if (!named_interfaces)
            options.interfaces.clear();
        named_interfaces = true;
        options.interfaces.push_back(parse_interface(value));
    } else if (name == "--bridge") {
        options.bridge = interface_name(value);
    } else if (name == "--port-of") {
        options.port_of = interface_name(value);
    } else if (name == "--hostname") {
        options.hostname = value;
    } else if (name == "--share") {
        options.shares.push_back(existing_directory(value));
    } else {
        return false;
    }
    return true;
}

static SANDBOX_OPTIONS parse_options(int argc, char **argv)
{
    SANDBOX_OPTIONS options;
    bool named_interfaces = false;
    int i = 1;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; i++) {
        const std::string name = argv[i];
        if (name == "--help") {
            std::fputs(USAGE, stdout);
            std::exit(0);
        } else if (name == "--sanitizer-logs") {
            options.sanitizer_logs = true;
        } else if (name == "--default-route") {
            options.default_route = true;
        } else if (name == "--no-overlay") {
            options.overlay = false;
        } else if (name == "--no-catalogue") {
            options.catalogue = false;
        } else if (name.size() < 2 || name.compare(0, 2, "--") != 0) {
            break;  // the command, "--" left out
        } else if (i + 1 >= argc || !take_valued_option(options, name, argv[i + 1], named_interfaces)) {
            usage_error("unknown option or missing value: " + name);
        } else {
            i++;
        }
    }
    if (i < argc && std::strcmp(argv[i], "--") == 0)
        i++;
    options.command.assign(argv + i, argv + argc);
    if (options.command.empty())
        usage_error("no command");
    options.command.push_back(nullptr);
    return options;
}

static std::string own_directory()
{
    std::array<char, PATH_MAX> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (length < 0)
        sandbox_fail("/proc/self/exe");
    const std::string_view own(path.data(), static_cast<std::size_t>(length));
    return std::string(own.substr(0, own.rfind('/')));
}

// The first id of the range that `file` (/etc/subuid or /etc/subgid) lends to this user, and its length.
static bool lent_range(const std::string &file, std::string &first, std::string &count)
{
    const passwd *account = getpwuid(getuid());
    const std::string name = account != nullptr ? account->pw_name : "";
    const std::string number = std::to_string(getuid());
    const std::string text = sandbox_read_file(file);
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const std::size_t one = line.find(':');
        const std::size_t two = one == std::string::npos ? one : line.find(':', one + 1);
        if (two == std::string::npos || (line.substr(0, one) != name && line.substr(0, one) != number))
            continue;
        first = line.substr(one + 1, two - one - 1);
        count = line.substr(two + 1);
        return true;
    }
    return false;
}

static void run_map_program(const char *program, pid_t child, unsigned own, const std::string &file)
{
    std::string first;
    std::string count;
    errno = 0;
    if (!lent_range(file, first, count))
        sandbox_fail(
            file + " lends this user no range of ids; an administrator can add one (usermod --add-subuids)");
    const pid_t pid = sandbox_check(fork(), "fork");
    if (pid == 0) {
        execlp(program, program, std::to_string(child).c_str(), "0", std::to_string(own).c_str(), "1", "1",
               first.c_str(), count.c_str(), nullptr);
        sandbox_fail(std::string(program) + " (package uidmap)");
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    errno = 0;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        sandbox_fail(std::string(program) + " refused the id map");
}

// Only the machine's own user namespace has every id. A sandbox inside a sandbox may be root in another one.
static bool has_every_id()
{
    std::istringstream map(sandbox_read_file("/proc/self/uid_map"));
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    map >> inside >> outside >> count;
    return inside == 0 && outside == 0 && count == 4294967295UL;
}

static sigset_t watched_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    for (const int number : FORWARDED)
        sigaddset(&set, number);
    return set;
}

// The first process of the new namespaces.
[[noreturn]] static void inside(const SANDBOX_OPTIONS &options, int go, const sigset_t &mask)
{
    // When the launcher dies, however it dies, this process dies, and with it the whole pid namespace. A
    // launcher that died before this line never sends the byte.
    sandbox_check(prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
    char byte = 0;
    if (read(go, &byte, 1) != 1)
        _exit(EXIT_LAUNCHER);
    close(go);
    umask(022);
    sandbox_root(options);
    sandbox_check(sethostname(options.hostname.c_str(), options.hostname.size()), "sethostname");
    sandbox_net(options);
    _exit(sandbox_init(options, &mask));
}

static int wait_for_end(pid_t child, const sigset_t &set)
{
    for (;;) {
        siginfo_t info = {};
        const int number = sigwaitinfo(&set, &info);
        if (number < 0)
            continue;
        if (number != SIGCHLD) {
            kill(child, number);
            continue;
        }
        int status = 0;
        if (waitpid(child, &status, WNOHANG) != child)
            continue;
        if (WIFEXITED(status))
            return WEXITSTATUS(status);
        errno = 0;
        sandbox_fail("the first process was ended by signal " + std::to_string(WTERMSIG(status)));
    }
}

int main(int argc, char **argv)
{
    SANDBOX_OPTIONS options = parse_options(argc, argv);
    options.programs = own_directory();
    // Programs of another build may lie where the private root has nothing.
    if (const char *programs = getenv("VOLTARIA_PROGRAMS"))
        options.shares.push_back(existing_directory(std::string(programs) + "/.."));
    options.new_user_namespace = geteuid() != 0;
    options.user_namespace = options.new_user_namespace || !has_every_id();

    const sigset_t watched = watched_signals();
    sigset_t mask;
    sigprocmask(SIG_BLOCK, &watched, &mask);
    std::array<int, 2> go{};
    sandbox_check(pipe2(go.data(), O_CLOEXEC), "pipe");

    unsigned long flags = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWPID | CLONE_NEWUTS | SIGCHLD;
    if (options.new_user_namespace)
        flags |= CLONE_NEWUSER;
    const long child = syscall(SYS_clone, flags, nullptr, nullptr, nullptr, nullptr);
    if (child < 0)
        sandbox_fail("new namespaces");
    if (child == 0) {
        close(go[1]);
        inside(options, go[0], mask);
    }
    close(go[0]);
    if (options.new_user_namespace) {
        run_map_program("newuidmap", static_cast<pid_t>(child), getuid(), "/etc/subuid");
        run_map_program("newgidmap", static_cast<pid_t>(child), getgid(), "/etc/subgid");
    }
    if (!options.port_of.empty())
        sandbox_net_ports(options, static_cast<int>(child));
    if (write(go[1], "g", 1) != 1)
        sandbox_fail("starting the first process");
    close(go[1]);
    return wait_for_end(static_cast<pid_t>(child), watched);
}

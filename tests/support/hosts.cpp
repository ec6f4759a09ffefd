// Hosts of a test: sandboxes inside the test's own, joined by a bridge. See hosts.h.

#include "hosts.h"

#include "shared_word.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace testbed
{

using Clock = std::chrono::steady_clock;

static constexpr char UP_MARK[] = "/run/voltaria-test/up";
static constexpr char OUTPUT[] = "/tmp/hosts";  // and the host's name: what its launcher printed
static constexpr int SANITIZER_STATUS = 99;     // of a launcher that found a report
static constexpr std::uint16_t PROBE_PORT = 9;
static constexpr std::string_view PROBE = "probe";

[[noreturn]] static void fail(const std::string &what)
{
    throw TestbedError(what + ": " + std::strerror(errno));
}

// ---- the host itself ----

// The command says when the host is complete and then only stays.
Host::Host(const std::string &programs, HostOptions options)
    : options_(std::move(options)), programs_(programs)
{
    std::vector<std::string> command = {programs + "/sandbox",
                                        "--hostname",
                                        options_.name,
                                        "--port-of",
                                        BRIDGE,
                                        "--iface",
                                        "eth0=" + options_.address + "/24",
                                        "--sanitizer-logs"};
    if (options_.limited_broadcast)
        command.emplace_back("--default-route");
    const std::string stay = std::string("echo up > ") + UP_MARK + "; exec sleep infinity";
    command.insert(command.end(), {"--", "/bin/sh", "-c", stay});
    launcher_.start(command, {}, OUTPUT + ("." + options_.name));
}

// A report that a sanitizer left in the host becomes one of the test's own sandbox.
Host::~Host()
{
    if (handle_ >= 0)
        close(handle_);
    const bool ended = !launcher_.running();
    if (!ended)
        launcher_.send_signal(SIGTERM);
    int status = -1;
    try {
        status = launcher_.wait(seconds(40));
    } catch (const TestbedError &error) {
        std::fprintf(stderr, "host %s: %s\n", options_.name.c_str(), error.what());
    }
    const std::string printed = read_file(OUTPUT + ("." + options_.name));
    if (status == SANITIZER_STATUS)
        write_file("/run/voltaria-test/sanitizer/report." + options_.name, printed);
    else if (!printed.empty())
        std::fprintf(stderr, "host %s: %s\n", options_.name.c_str(), printed.c_str());
}

static pid_t child_of(pid_t parent, const std::string &program)
{
    for (const ProcessInfo &process : processes_of(program))
        if (process.parent == parent)
            return process.pid;
    return 0;
}

// The port of a new interface forwards a moment after the interface is there.
static bool reaches(const Wire &wire, const Host &host)
{
    host.run_inside([] { UdpSocket().send("10.78.0.255", PROBE_PORT, PROBE); });
    while (const std::optional<Arrival> seen = wire.next(milliseconds(50)))
        if (seen->from == host.address() && seen->port == PROBE_PORT)
            return true;
    return false;
}

void Host::wait_up(milliseconds limit)
{
    const std::string what = "the host " + options_.name;
    const auto printed = [this] { return read_file(OUTPUT + ("." + options_.name)); };
    const auto complete = [this, &what, &printed] {
        if (!launcher_.running())
            throw TestbedError(what + " ended: " + printed());
        first_ = child_of(launcher_.pid(), programs_ + "/sandbox");
        return first_ > 0 &&
               access(("/proc/" + std::to_string(first_) + "/root" + UP_MARK).c_str(), F_OK) == 0;
    };
    wait_until(what, limit, complete, printed);
    handle_ = static_cast<int>(syscall(SYS_pidfd_open, first_, 0));
    if (handle_ < 0)
        fail(what);
    const Wire wire;
    wait_until(what + " to be on the bridge", limit, [this, &wire] { return reaches(wire, *this); });
}

// ---- work in a host ----

// Entering a process namespace concerns the children only, so there is a process in between.
[[noreturn]] static void work_there(int handle, int result, const std::function<std::string()> &work)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    constexpr int all = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWPID;
    std::string text;
    if (setns(handle, all) != 0) {
        text = std::string("!cannot enter: ") + std::strerror(errno);
    } else if (const pid_t pid = fork(); pid != 0) {
        close(result);
        waitpid(pid, nullptr, 0);
        _exit(0);
    } else {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            text = "." + work();
        } catch (const std::exception &error) {
            text = std::string("!") + error.what();
        }
    }
    std::fflush(nullptr);
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t count = write(result, rest.data(), rest.size());
        if (count < 0 && errno != EINTR)
            break;
        rest.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    _exit(0);
}

static std::string read_until_end(int fd, milliseconds limit)
{
    const auto end = Clock::now() + limit;
    std::string text;
    std::array<char, 65536> part{};
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
        pollfd wanted = {fd, POLLIN, 0};
        if (left <= 0 || poll(&wanted, 1, static_cast<int>(left)) == 0)
            return "!not done in time";
        const ssize_t count = read(fd, part.data(), part.size());
        if (count == 0)
            return text;
        if (count > 0)
            text.append(part.data(), static_cast<std::size_t>(count));
    }
}

std::string Host::inside(const std::function<std::string()> &work, milliseconds limit) const
{
    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0)
        fail("pipe");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        fail("fork");
    if (pid == 0) {
        close(pipe[0]);
        work_there(handle_, pipe[1], work);
    }
    close(pipe[1]);
    const std::string text = read_until_end(pipe[0], limit);
    close(pipe[0]);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    if (text.empty() || text.front() != '.')
        throw TestbedError("on the host " + options_.name + ": " +
                           (text.empty() ? "crashed" : text.substr(1)));
    return text.substr(1);
}

void Host::run_inside(const std::function<void()> &work, milliseconds limit) const
{
    inside(
        [&work] {
            work();
            return std::string();
        },
        limit);
}

void Host::start_unit(const std::string &model) const
{
    run_inside([this, &model] {
        SimulatorOptions options;
        options.model = model;
        new Simulator(programs_ + "/upssim", options);  // stays when this process is gone
    });
}

void Host::start_agent(std::string_view config) const
{
    run_inside([this, config] {
        write_config(config);
        auto *daemon = new Daemon(programs_ + "/voltariad");  // stays likewise
        if (const int status = daemon->launch(seconds(40)); status != 0)
            throw TestbedError("the daemon ended with status " + std::to_string(status));
        daemon->wait_ready(seconds(40));
    });
}

void Host::unit(const std::string &command) const
{
    const Visit visit(*this);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    SimulatorOptions().control.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit = {20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const std::string line = command + "\n";
    std::string answer;
    char byte = 0;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size()))
        while (read(fd, &byte, 1) == 1 && byte != '\n')
            answer += byte;
    close(fd);
    if (answer != "ok")
        throw TestbedError("the unit of " + options_.name + " answered to \"" + command + "\": " + answer);
}

static bool request_pending()
{
    try {
        return shared_load(SharedBlock()->isagentchg) != 0;
    } catch (const TestbedError &) {
        return false;  // gone with the agent
    }
}

// The agent looks at the word when something arrives, and not while the block is locked: it is reminded.
void Host::request(std::int32_t word) const
{
    const Visit visit(*this);
    SharedBlock::request(word);
    const UdpSocket socket;
    wait_until("the agent on " + options_.name + " to take the request", seconds(40), [&socket] {
        socket.send("127.0.0.1", AGENT_UDP_PORT, std::string_view("\0", 1));
        return !request_pending();
    });
}

// ---- a look into a host ----

namespace
{

// The way back: this process's own namespaces and directory.
struct Home {
    static constexpr std::array NAMES = {"net", "ipc", "uts", "mnt"};
    std::array<int, NAMES.size()> namespaces{};
    int directory = -1;

    Home() : directory(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC))
    {
        for (std::size_t i = 0; i < NAMES.size(); ++i)
            namespaces[i] = open((std::string("/proc/self/ns/") + NAMES[i]).c_str(), O_RDONLY | O_CLOEXEC);
    }
};

}  // namespace

static const Home &home()
{
    static const Home only;
    return only;
}

Visit::Visit(const Host &host)
{
    home();
    if (setns(host.handle(), CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0)
        fail("visiting " + host.name());
}

Visit::~Visit()
{
    bool back = true;
    for (const int one : home().namespaces)
        back = setns(one, 0) == 0 && back;
    if (!back || fchdir(home().directory) != 0) {
        std::perror("coming back from a host");
        std::abort();
    }
}

// ---- the bridge ----

Wire::Wire() : fd_(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    if (fd_ < 0)
        fail("packet socket");
    const int room = 8 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETHERTYPE_IP);
    address.sll_ifindex = static_cast<int>(if_nametoindex(BRIDGE));
    if (address.sll_ifindex == 0 ||
        bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd_);
        fail(std::string("listening on the bridge ") + BRIDGE);
    }
}

Wire::~Wire()
{
    close(fd_);
}

static std::string dotted(std::uint32_t address)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

static std::optional<Arrival> udp_in(std::string_view frame)
{
    iphdr ip = {};
    udphdr udp = {};
    if (frame.size() < sizeof ip)
        return std::nullopt;
    std::memcpy(&ip, frame.data(), sizeof ip);
    const std::size_t at = static_cast<std::size_t>(ip.ihl) * 4;
    if (ip.protocol != IPPROTO_UDP || frame.size() < at + sizeof udp)
        return std::nullopt;
    std::memcpy(&udp, frame.data() + at, sizeof udp);
    const std::size_t length = std::max<std::size_t>(ntohs(udp.len), sizeof udp) - sizeof udp;
    return Arrival{std::string(frame.substr(at + sizeof udp, length)), dotted(ip.saddr), dotted(ip.daddr),
                   ntohs(udp.dest)};
}

std::optional<Arrival> Wire::next(milliseconds limit) const
{
    const auto end = Clock::now() + limit;
    std::array<char, 2048> frame{};
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
        pollfd wanted = {fd_, POLLIN, 0};
        if (poll(&wanted, 1, left > 0 ? static_cast<int>(left) : 0) == 0)
            return std::nullopt;
        const ssize_t count = recv(fd_, frame.data(), frame.size(), MSG_DONTWAIT);
        if (count <= 0)
            continue;
        if (std::optional<Arrival> seen = udp_in({frame.data(), static_cast<std::size_t>(count)}))
            return seen;
    }
}

unsigned Wire::missed() const
{
    tpacket_stats counted = {};
    socklen_t size = sizeof counted;
    if (getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &counted, &size) != 0)
        fail("counters of the bridge's socket");
    return counted.tp_drops;
}

}  // namespace testbed

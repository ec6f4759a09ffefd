// Test bed: raw bytes to the ports, and the simulated UPS with its control socket.

#include "testbed.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace testbed
{

using Clock = std::chrono::steady_clock;

[[noreturn]] static void fail(const std::string &what)
{
    throw TestbedError(what + ": " + std::strerror(errno));
}

static sockaddr_in socket_address(const std::string &address, std::uint16_t port)
{
    sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &sin.sin_addr) != 1)
        throw TestbedError("not an address: " + address);
    return sin;
}

// Waits for `events` on `fd`; false when the moment `end` comes first.
static bool wait_for(int fd, short events, Clock::time_point end)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
        pollfd wanted = {fd, events, 0};
        const int count = poll(&wanted, 1, left > 0 ? static_cast<int>(left) : 0);
        if (count > 0)
            return true;
        if (count == 0 || errno != EINTR)
            return false;
    }
}

static std::string shown(std::string_view bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 15];
        text += ' ';
    }
    return std::to_string(bytes.size()) + " bytes " + text;
}

TcpClient::TcpClient(const std::string &address, std::uint16_t port, milliseconds limit)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    const sockaddr_in sin = socket_address(address, port);
    const std::string peer = "connection to " + address + " port " + std::to_string(port);
    if (fd_ < 0)
        fail("socket");
    int error = 0;
    socklen_t size = sizeof error;
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&sin), sizeof sin) != 0) {
        error = errno;
        if (error == EINPROGRESS && wait_for(fd_, POLLOUT, Clock::now() + limit))
            getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size);
    }
    if (error != 0) {
        close(fd_);
        errno = error == EINPROGRESS ? ETIMEDOUT : error;
        fail(peer);
    }
}

TcpClient::~TcpClient()
{
    if (fd_ >= 0)
        close(fd_);
}

void TcpClient::send(std::string_view bytes) const
{
    const auto end = Clock::now() + seconds(10);
    while (!bytes.empty()) {
        const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if ((errno != EAGAIN && errno != EINTR) || !wait_for(fd_, POLLOUT, end))
            fail("send");
    }
}

std::string TcpClient::receive(std::size_t count, milliseconds limit) const
{
    std::string bytes(count, '\0');
    std::size_t got = 0;
    const auto end = Clock::now() + limit;
    while (got < count) {
        if (!wait_for(fd_, POLLIN, end))
            throw TestbedError("wanted " + std::to_string(count) + " bytes, in time came " +
                               shown(std::string_view(bytes).substr(0, got)));
        const ssize_t part = recv(fd_, bytes.data() + got, count - got, 0);
        if (part == 0 || (part < 0 && errno == ECONNRESET))
            throw TestbedError("wanted " + std::to_string(count) + " bytes, before the end came " +
                               shown(std::string_view(bytes).substr(0, got)));
        if (part > 0)
            got += static_cast<std::size_t>(part);
    }
    return bytes;
}

std::string TcpClient::receive_all(milliseconds quiet) const
{
    std::string bytes;
    std::array<char, 4096> part{};
    while (wait_for(fd_, POLLIN, Clock::now() + quiet)) {
        const ssize_t count = recv(fd_, part.data(), part.size(), 0);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR))
            break;
        if (count > 0)
            bytes.append(part.data(), static_cast<std::size_t>(count));
    }
    return bytes;
}

void TcpClient::expect_close(milliseconds limit) const
{
    const auto end = Clock::now() + limit;
    std::array<char, 4096> part{};
    while (wait_for(fd_, POLLIN, end)) {
        const ssize_t count = recv(fd_, part.data(), part.size(), 0);
        if (count == 0 || (count < 0 && errno == ECONNRESET))
            return;
    }
    throw TestbedError("the peer did not close within " + std::to_string(limit.count()) + " ms");
}

void TcpClient::shutdown_writing() const
{
    if (shutdown(fd_, SHUT_WR) != 0)
        fail("shutdown");
}

void TcpClient::reset()
{
    const linger hard = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(fd_);
    fd_ = -1;
}

UdpSocket::UdpSocket(std::uint16_t port, const std::string &address)
    : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_in sin = socket_address(address, port);
    const int yes = 1;
    if (fd_ < 0)
        fail("socket");
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&sin), sizeof sin) != 0) {
        close(fd_);
        fail("bind to UDP port " + std::to_string(port));
    }
}

UdpSocket::~UdpSocket()
{
    close(fd_);
}

void UdpSocket::send(const std::string &address, std::uint16_t port, std::string_view bytes) const
{
    const sockaddr_in sin = socket_address(address, port);
    const ssize_t count =
        sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&sin), sizeof sin);
    if (count != static_cast<ssize_t>(bytes.size()))
        fail("sendto " + address);
}

std::optional<Datagram> UdpSocket::receive(milliseconds limit) const
{
    if (!wait_for(fd_, POLLIN, Clock::now() + limit))
        return std::nullopt;
    std::array<char, 65536> bytes{};
    std::array<char, INET_ADDRSTRLEN> from{};
    sockaddr_in sin = {};
    socklen_t size = sizeof sin;
    const ssize_t count =
        recvfrom(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&sin), &size);
    if (count < 0)
        fail("recvfrom");
    inet_ntop(AF_INET, &sin.sin_addr, from.data(), from.size());
    return Datagram{std::string(bytes.data(), static_cast<std::size_t>(count)), from.data(),
                    ntohs(sin.sin_port)};
}

std::uint16_t UdpSocket::port() const
{
    sockaddr_in sin = {};
    socklen_t size = sizeof sin;
    if (getsockname(fd_, reinterpret_cast<sockaddr *>(&sin), &size) != 0)
        fail("getsockname");
    return ntohs(sin.sin_port);
}

bool tcp_listening(std::uint16_t port)
{
    std::istringstream lines(read_file("/proc/net/tcp"));
    std::string line;
    std::getline(lines, line);  // heading
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string number;
        std::string local;
        std::string remote;
        std::string state;
        fields >> number >> local >> remote >> state;
        const std::size_t colon = local.find(':');
        if (state == "0A" && colon != std::string::npos &&
            std::stoi(local.substr(colon + 1), nullptr, 16) == port)
            return true;
    }
    return false;
}

static std::vector<std::string> simulator_command(const std::string &program, const SimulatorOptions &options)
{
    std::vector<std::string> command = {program,
                                        "--model",
                                        options.model,
                                        "--link",
                                        options.link,
                                        "--control",
                                        options.control,
                                        "--log",
                                        options.log,
                                        "--seed",
                                        std::to_string(options.seed)};
    if (!options.pace)
        command.emplace_back("--no-pace");
    if (!options.scenario.empty())
        command.insert(command.end(), {"--scenario", options.scenario});
    return command;
}

Simulator::Simulator(const std::string &program, SimulatorOptions options) : options_(std::move(options))
{
    const std::string output = options_.log + ".output";
    child_.start(simulator_command(program, options_), options_.environment, output);
    const auto ready = [this] {
        return !child_.running() ||
               (access(options_.link.c_str(), F_OK) == 0 && access(options_.control.c_str(), F_OK) == 0);
    };
    wait_until("the simulated UPS on " + options_.link, seconds(10), ready,
               [&] { return read_file(output); });
    if (!child_.running())
        throw TestbedError(program + " ended at once: " + read_file(output));
}

// One connection a command: nothing is left over for the next one.
std::string Simulator::ask(const std::string &text)
{
    sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    if (options_.control.size() >= sizeof sun.sun_path)
        throw TestbedError("path too long: " + options_.control);
    options_.control.copy(sun.sun_path, options_.control.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string line = text + "\n";
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&sun), sizeof sun) != 0 ||
        ::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        const int error = errno;
        close(fd);
        errno = error;
        fail("control socket " + options_.control);
    }
    std::string answer;
    const auto end = Clock::now() + seconds(10);
    char byte = 0;
    while (wait_for(fd, POLLIN, end) && read(fd, &byte, 1) == 1 && byte != '\n')
        answer += byte;
    close(fd);
    return answer;
}

void Simulator::command(const std::string &text)
{
    const std::string answer = ask(text);
    if (answer != "ok")
        throw TestbedError("the simulated UPS answered to \"" + text + "\": " + answer);
}

std::string Simulator::status()
{
    return ask("status");
}

std::string Simulator::log() const
{
    return read_file(options_.log);
}

void Simulator::wait_for_log(const std::string &part, milliseconds limit) const
{
    wait_until("\"" + part + "\" in the UPS's log", limit,
               [&] { return log().find(part) != std::string::npos; });
}

void Simulator::stop()
{
    child_.stop();
}

}  // namespace testbed

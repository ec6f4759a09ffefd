// The sockets of discovery: one that asks and gets the answers, one on the announcements' port.
#include "monitor_discover.h"
#include "monitor_records.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

static std::string system_text(int error)
{
    std::array<char, 128> buffer{};
    return strerror_r(error, buffer.data(), buffer.size());
}

// ---- Opening ----

// A bound datagram socket, or -1 with errno.
static int bound_socket(std::uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    // Several programs that allow it may listen to the same broadcasts; one that does not keeps the port to
    // itself.
    if (setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == 0 &&
        (port == 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0) &&
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

static MONITOR_RESULT look_up(const std::string &host, std::vector<in_addr> &addresses)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &found);
    if (error != 0)
        return {MONITOR_ERROR::NameNotFound, "cannot find the host " + host + ": " + gai_strerror(error)};
    sockaddr_in address{};
    std::memcpy(&address, found->ai_addr, sizeof address);
    addresses.push_back(address.sin_addr);
    freeaddrinfo(found);
    return {};
}

MONITOR_RESULT discover_open(const DISCOVERY_OPTIONS &options, DISCOVERY &discovery)
{
    discovery = {};
    discovery.inquiry_port = options.inquiry_port;
    for (const std::string &host : options.addresses) {
        MONITOR_RESULT result = look_up(host, discovery.addresses);
        if (!monitor_ok(result))
            return result;
    }
    discovery.inquiry_fd = bound_socket(0);
    if (discovery.inquiry_fd < 0)
        return {MONITOR_ERROR::Unreachable, "no socket to ask with: " + system_text(errno)};
    discovery.announce_fd = bound_socket(options.announce_port);
    if (discovery.announce_fd < 0)
        discovery.deaf_because = system_text(errno);
    return {};
}

void discover_close(DISCOVERY &discovery)
{
    for (int *fd : {&discovery.inquiry_fd, &discovery.announce_fd}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

// ---- Asking ----

static std::vector<std::uint8_t> inquiry()
{
    UPS_INQAGENT question{};
    question.cmd = static_cast<std::int32_t>(NSCommands::Add);
    const WIRE_BYTES data = monitor_encode(question);
    UPS_PACKET_HEAD head{};
    head.Version = PACKET_VERSION;
    head.Prototype = 1;
    head.DataId = DATAID_INQAGENT;
    head.Length = static_cast<std::uint32_t>(PACKET_HEAD_SIZE + data.size());
    const HEAD_BYTES head_bytes = monitor_encode_head(head);
    std::vector<std::uint8_t> packet(head_bytes.begin(), head_bytes.end());
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

// The limited broadcast leaves by one interface only; the interfaces' own broadcasts reach the other
// networks.
static std::vector<in_addr> broadcast_addresses()
{
    std::vector<in_addr> addresses{{INADDR_BROADCAST}};
    ifaddrs *interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0)
        return addresses;
    for (const ifaddrs *it = interfaces; it != nullptr; it = it->ifa_next) {
        constexpr unsigned wanted = IFF_UP | IFF_BROADCAST;
        if (it->ifa_broadaddr == nullptr || it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET ||
            (it->ifa_flags & wanted) != wanted)
            continue;
        sockaddr_in address{};
        std::memcpy(&address, it->ifa_broadaddr, sizeof address);
        addresses.push_back(address.sin_addr);
    }
    freeifaddrs(interfaces);
    return addresses;
}

// True when it went out; else errno says why not.
static bool send_to(const DISCOVERY &discovery, in_addr to, std::span<const std::uint8_t> packet)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(discovery.inquiry_port);
    address.sin_addr = to;
    return sendto(discovery.inquiry_fd, packet.data(), packet.size(), 0,
                  reinterpret_cast<const sockaddr *>(&address),
                  sizeof address) == static_cast<ssize_t>(packet.size());
}

MONITOR_RESULT discover_inquire(const DISCOVERY &discovery)
{
    const std::vector<std::uint8_t> packet = inquiry();
    std::vector<in_addr> targets = broadcast_addresses();
    targets.insert(targets.end(), discovery.addresses.begin(), discovery.addresses.end());
    bool sent = false;
    int error = ENETUNREACH;
    for (const in_addr &target : targets) {
        if (send_to(discovery, target, packet))
            sent = true;
        else
            error = errno;
    }
    // Without any network there may still be an agent on this machine.
    if (!sent && !send_to(discovery, {htonl(INADDR_LOOPBACK)}, packet))
        return {MONITOR_ERROR::Unreachable, "cannot ask for agents: " + system_text(error)};
    return {};
}

// ---- Hearing ----

static std::optional<FOUND_AGENT> take(int fd)
{
    std::array<std::uint8_t, 2048> buffer{};
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t got =
        recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&from), &size);
    if (got <= 0)  // nothing, or the word that an inquiry found nobody at some address
        return std::nullopt;
    std::array<char, INET_ADDRSTRLEN> address{};
    if (inet_ntop(AF_INET, &from.sin_addr, address.data(), address.size()) == nullptr)
        return std::nullopt;
    return discover_decode(std::span(buffer).first(static_cast<std::size_t>(got)), address.data());
}

std::optional<FOUND_AGENT> discover_receive(const DISCOVERY &discovery,
                                            std::chrono::steady_clock::time_point deadline, int cancel_fd)
{
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0)
            return std::nullopt;
        std::array<pollfd, 3> watched{
            {{discovery.inquiry_fd, POLLIN, 0}, {discovery.announce_fd, POLLIN, 0}, {cancel_fd, POLLIN, 0}}};
        const int ready =
            poll(watched.data(), watched.size(), static_cast<int>(std::min<std::int64_t>(left, 60'000)));
        if (ready > 0 && watched[2].revents != 0)
            return std::nullopt;
        for (std::size_t i = 0; ready > 0 && i < 2; ++i)
            if (watched[i].revents != 0)
                if (auto agent = take(watched[i].fd))
                    return agent;
    }
}

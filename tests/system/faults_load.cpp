// What an agent may have to bear from its network.
#include "faults_load.h"

#include "wire_records.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <poll.h>
#include <utility>

namespace load
{

// ---- connections

static sockaddr_in address_of(const char *dotted, std::uint16_t port)
{
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    inet_pton(AF_INET, dotted, &sin.sin_addr);
    return sin;
}

CONNECTION::CONNECTION(const char *to, const char *from)
    : fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    // Short segments, too: by their length the agent's machine decides how much it takes off the agent.
    const int small = 1024;
    const int segment = 536;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    setsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
    if (from != nullptr) {
        const sockaddr_in own = address_of(from, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own), 0) << std::strerror(errno);
    }
    const sockaddr_in agent = address_of(to, testbed::TCP_PORT);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&agent), sizeof agent) != 0 && errno != EINPROGRESS)
        ADD_FAILURE() << "connect: " << std::strerror(errno);
}

CONNECTION::~CONNECTION()
{
    close(fd);
}

static bool is_ready(int fd, short events, int limit)
{
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, limit) == 1 && entry.revents == events;
}

bool CONNECTION::established(int limit) const
{
    return is_ready(fd, POLLOUT, limit);
}

bool CONNECTION::readable(int limit) const
{
    return is_ready(fd, POLLIN, limit);
}

void CONNECTION::send_now(std::string_view bytes) const
{
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()))
        << std::strerror(errno);
}

bool CONNECTION::send_endlessly(std::string_view bytes)
{
    for (;;) {
        const ssize_t sent = send(fd, bytes.data() + at, bytes.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0)
            return errno == EAGAIN;
        at = (at + static_cast<std::size_t>(sent)) % bytes.size();
    }
}

void CONNECTION::drain() const
{
    std::array<char, 4096> part{};
    while (recv(fd, part.data(), part.size(), MSG_DONTWAIT) > 0) {
    }
}

CONNECTIONP connection(std::chrono::milliseconds limit, const char *to, const char *from)
{
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + limit;
    do {
        auto made = std::make_unique<CONNECTION>(to, from);
        if (made->established(1))
            return made;
    } while (Clock::now() < end);
    return nullptr;
}

// ---- monitors that stall

static std::string a_part_of_a_packet(std::size_t number)
{
    const std::string settings = bed::header(DATAID_CONFIG, PACKET_HEAD_SIZE + sizeof(UPS_PARAM));
    const std::array<std::string, 3> parts = {bed::packet(DATAID_GETUPSINFO).substr(0, 1),
                                              bed::packet(DATAID_GETUPSINFO).substr(0, 5),
                                              settings + std::string(100, 'x')};
    return parts[number % parts.size()];
}

static CONNECTIONP must_connect()
{
    CONNECTIONP made = connection(bed::PATIENCE);
    if (made == nullptr)
        throw testbed::TestbedError("the agent takes no connection");
    return made;
}

CROWD::CROWD(std::size_t each)
{
    for (std::size_t i = 0; i < each; ++i) {
        deaf.push_back(must_connect());
        halted.push_back(must_connect());
        halted.back()->send_now(a_part_of_a_packet(i));
    }
}

static constexpr auto AGAIN = std::chrono::milliseconds(20);

static std::string many_requests()
{
    std::string all;
    for (int i = 0; i < 500; ++i)
        all += bed::packet(DATAID_GETUPSINFO);
    return all;
}

void CROWD::ask()
{
    static const std::string requests = many_requests();
    for (CONNECTIONP &monitor : deaf) {
        if (monitor != nullptr && monitor->send_endlessly(requests))
            continue;
        monitor = connection(AGAIN);
    }
}

// ---- thousands of connections

static constexpr std::size_t HELD = 800;  // at a time, of a thousand descriptors

void MULTITUDE::come(int more)
{
    for (; more > 0; --more, ++count) {
        CONNECTIONP next = connection(AGAIN);
        if (next == nullptr)
            return;
        open.push_back(std::move(next));
        if (open.size() > HELD)
            open.pop_front();
    }
}

// ---- datagrams

static std::vector<std::string> mixture()
{
    const UPS_INQAGENT inquiry{};
    return {bed::packet(DATAID_INQAGENT,
                        std::string_view(reinterpret_cast<const char *>(&inquiry), sizeof inquiry)),
            bed::packet(DATAID_GETUPSINFO),
            "",
            bed::header(DATAID_INQAGENT, 28),
            bed::packet(DATAID_PASSWORD, std::string(60, 'x')),
            std::string(900, '\xFF'),
            bed::packet(DATAID_GETPROTECTOR),
            bed::packet(255) + '\0',
            "\x10"};
}

DATAGRAMS::DATAGRAMS() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), texts(mixture())
{
    agent = address_of("127.0.0.1", testbed::AGENT_UDP_PORT);
    for (std::size_t i = 0; i < messages.size(); ++i) {
        std::string &bytes = texts[i % texts.size()];
        parts[i] = {bytes.data(), bytes.size()};
        messages[i].msg_hdr.msg_name = &agent;
        messages[i].msg_hdr.msg_namelen = sizeof agent;
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
}

DATAGRAMS::~DATAGRAMS()
{
    close(fd);
}

void DATAGRAMS::pour(int count)
{
    while (count > 0) {
        const std::size_t some = std::min(messages.size(), static_cast<std::size_t>(count));
        const int sent = sendmmsg(fd, messages.data(), static_cast<unsigned>(some), 0);
        if (sent <= 0)
            throw testbed::TestbedError(std::string("sendmmsg: ") + std::strerror(errno));
        count -= sent;
    }
}

}  // namespace load

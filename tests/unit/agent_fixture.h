// What the tests of the agent process share: the agent's record with a shared block in plain memory, peers on
// socket pairs, and packets put together byte by byte, independently of the code under test.
#pragma once

#include "agent.h"
#include "agent_daemon_buffer.h"
#include "agent_daemon_clients.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <initializer_list>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

using BYTES = std::vector<std::uint8_t>;

inline constexpr int PATIENCE = 40000;  // ms; how long a test waits for what must come

inline BYTES le16(int value)
{
    return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)};
}

inline BYTES le32(std::int64_t value)
{
    return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
            static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

/// Text in a field of `width` bytes, zeros behind it.
inline BYTES field(std::string_view text, std::size_t width)
{
    BYTES bytes(text.begin(), text.end());
    bytes.resize(width);
    return bytes;
}

inline BYTES join(std::initializer_list<BYTES> parts)
{
    BYTES all;
    for (const BYTES &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

/// The 8 header bytes, whatever length they claim.
inline BYTES header(int version, int prototype, int dataid, std::int64_t length)
{
    return join({le16(version),
                 {static_cast<std::uint8_t>(prototype), static_cast<std::uint8_t>(dataid)},
                 le32(length)});
}

/// A whole packet with a true Length.
inline BYTES packet(int dataid, const BYTES &data = {}, int version = 0x0110, int prototype = 0)
{
    return join({header(version, prototype, dataid, static_cast<std::int64_t>(data.size() + 8)), data});
}

/// Bytes that tell their place.
inline BYTES counting(std::size_t count)
{
    BYTES bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 256 + 1);
    return bytes;
}

template <std::size_t N> void set_text(std::array<char, N> &to, std::string_view text)
{
    to.fill('\0');
    std::copy_n(text.begin(), std::min(N, text.size()), to.begin());
}

inline bool readable(int fd, int wait = PATIENCE)
{
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, wait) > 0;
}

inline int bytes_waiting(int fd)
{
    int count = 0;
    return ioctl(fd, FIONREAD, &count) == 0 ? count : -1;
}

/// What lies in a descriptor now; `wanted` > 0 waits for that many bytes.
inline BYTES receive(int fd, std::size_t wanted = 0)
{
    BYTES all;
    std::array<std::uint8_t, 65536> part;
    while (readable(fd, all.size() < wanted ? PATIENCE : 0)) {
        const ssize_t got = read(fd, part.data(), part.size());
        if (got <= 0)
            break;
        all.insert(all.end(), part.begin(), part.begin() + got);
    }
    return all;
}

inline void send_all(int fd, const BYTES &bytes)
{
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

inline sockaddr_in ip_address(std::uint32_t host, int port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(host);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    return addr;
}

/// The agent with a shared block of its own, no clients and an empty working buffer of the usual size.
class AgentTest : public testing::Test
{
  protected:
    AgentTest()
    {
        agent = AGENT{};
        agent.chna2u = agent.chnu2a = chnpair{{-1, -1}, {-1, -1}};
        agent.shmid = -1;
        agent.aip = &block;
        agent.agnet.ufd = -1;
        agent.agnet.cnc.sockfd = -1;
        net_client_p.fill(NETCLI{});
        clients_reset(&agent.agnet);
        fresh_buffer();
        block.ups.protocol = 1;
    }

    ~AgentTest() override
    {
        for (const int fd : opened)
            close(fd);
        agent.aip = nullptr;
    }

    AgentTest(const AgentTest &) = delete;
    AgentTest &operator=(const AgentTest &) = delete;

    static void fresh_buffer()
    {
        delete[] Daemon_Buffer;
        Daemon_Buffer = nullptr;
        Daemon_NetBufLen = Daemon_BufferLen = 0;
        ASSERT_EQ(daemon_reallocbuf(DAEMON_BUFFER_START), 0);
    }

    int keep(int fd)
    {
        EXPECT_GE(fd, 0);
        opened.push_back(fd);
        return fd;
    }

    /// Closes what `keep` was given.
    void drop(int fd)
    {
        close(fd);
        std::erase(opened, fd);
    }

    /// A connected pair: the agent's end, the peer's end.
    std::pair<int, int> pair()
    {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        return {keep(ends[0]), keep(ends[1])};
    }

    std::array<int, 2> make_pipe()
    {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(pipe(ends.data()), 0);
        return {keep(ends[0]), keep(ends[1])};
    }

    /// Registers a monitor; the result is its end.
    int connect_monitor(std::int32_t lang = 0, int port = 1000)
    {
        const auto [ours, theirs] = pair();
        clients_register(&agent.agnet, ours, ip_address(0x0A4D0002, port));
        NETCLI *client = client_bysocket(&agent.agnet, ours);
        EXPECT_NE(client, nullptr);
        client->lang = lang;
        client->auth = 0;
        return theirs;
    }

    /// A UDP socket bound to `port` of every address.
    int listen_udp(int port)
    {
        const int fd = keep(socket(AF_INET, SOCK_DGRAM, 0));
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in local = ip_address(INADDR_ANY, port);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
        return fd;
    }

    /// Puts a request into the working buffer as the loop does for a client, or with `from` null as if from
    /// nobody.
    static void hold(const BYTES &bytes, const NETCLI *from)
    {
        ASSERT_EQ(daemon_reallocbuf(static_cast<std::uint32_t>(bytes.size())), 0);
        std::copy(bytes.begin(), bytes.end(), packet_bytes().begin());
        if (from == nullptr)
            return;
        packet_setorigin({from->sockfd, from->addr, from->os, from->lang});
        agent.agnet.cnc = *from;
    }

    AGINFO block{};
    std::vector<int> opened;
};

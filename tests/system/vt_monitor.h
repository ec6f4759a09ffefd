// The monitor of the stages in virtual time: a connection that reads English and is read without waiting,
// while the clock stands.
//
// No packet, of either side, may wait for the acknowledgement of the one before: that would be 40 ms of real
// time, which are minutes of virtual time.
#pragma once

#include "bed.h"
#include "wire_records.h"

#include <array>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>

namespace bed
{

/// A new connection that has said that it reads English, and so is sent the English of every notice. The
/// answer to its hello is still to come; notices of the very start may come before or behind it.
inline std::unique_ptr<testbed::TcpClient> connect_english_monitor()
{
    auto monitor = std::make_unique<testbed::TcpClient>();
    const int yes = 1;
    setsockopt(monitor->fd(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    VTOSINFO about{};
    about.lang = 2;
    about.os = 2;
    monitor->send(packet(DATAID_OSINFO, {reinterpret_cast<const char *>(&about), sizeof about}));
    return monitor;
}

/// Takes what has come and hands on each whole packet; the beginning of the next stays in `unread`.
template <typename TAKE> void take_packets(const testbed::TcpClient &monitor, std::string &unread, TAKE take)
{
    std::array<char, 16384> part{};
    const int yes = 1;
    for (;;) {
        setsockopt(monitor.fd(), IPPROTO_TCP, TCP_QUICKACK, &yes, sizeof yes);
        const ssize_t count = recv(monitor.fd(), part.data(), part.size(), MSG_DONTWAIT);
        if (count <= 0)
            break;
        unread.append(part.data(), static_cast<std::size_t>(count));
    }
    while (unread.size() >= PACKET_HEAD_SIZE && unread.size() >= word_at(unread, 4)) {
        const std::size_t length = word_at(unread, 4);
        if (length < PACKET_HEAD_SIZE)
            throw testbed::TestbedError("a packet of " + std::to_string(length) + " bytes");
        take(unread.substr(0, length));
        unread.erase(0, length);
    }
}

inline bool is_notice(const std::string &packet)
{
    return packet[3] == NOTICE;
}

/// What a packet carries behind its header.
inline std::string data_of(const std::string &packet)
{
    return packet.substr(PACKET_HEAD_SIZE);
}

}  // namespace bed

// What an agent may have to bear from its network, with or without virtual time: connections that never wait,
// monitors that stall, thousands of connections, floods of datagrams.
#pragma once

#include "bed.h"

#include <array>
#include <deque>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace load
{

// A connection of a monitor that takes as little as its socket can.
struct CONNECTION {
    explicit CONNECTION(const char *to = "127.0.0.1", const char *from = nullptr);
    CONNECTION(const CONNECTION &) = delete;
    CONNECTION &operator=(const CONNECTION &) = delete;
    ~CONNECTION();

    /// Whether the agent's machine has taken it, after at most so many ms of real time.
    [[nodiscard]] bool established(int limit) const;
    /// All of it, at once.
    void send_now(std::string_view bytes) const;
    /// As much of it, over and over, as the socket takes. False once the agent has ended the connection.
    bool send_endlessly(std::string_view bytes);
    /// Whether something has come, after at most so many ms of real time.
    [[nodiscard]] bool readable(int limit) const;
    void drain() const;

    int fd;
    std::size_t at = 0;
};
using CONNECTIONP = std::unique_ptr<CONNECTION>;

/// One that has been taken within so much real time; null otherwise. A listener holds few at a time, and what
/// it let fall would come again a second later only: it comes anew at once.
CONNECTIONP connection(std::chrono::milliseconds limit, const char *to = "127.0.0.1",
                       const char *from = nullptr);

// Monitors that ask and never read, and monitors that stopped in mid-packet.
struct CROWD {
    explicit CROWD(std::size_t each);
    /// Asks for as much as the sockets take. Whoever was ended comes back, as soon as the agent takes him.
    void ask();

    std::vector<CONNECTIONP> deaf;
    std::vector<CONNECTIONP> halted;
};

// Connections that come as fast as they are taken and stay as long as there are descriptors.
struct MULTITUDE {
    /// So many more, or fewer when the agent takes none for a while.
    void come(int more);

    std::deque<CONNECTIONP> open;
    int count = 0;
};

// Datagrams of every kind: inquiries, which are answered; questions that datagrams get no answer to; no
// packets of any kind; nothing at all.
struct DATAGRAMS {
    DATAGRAMS();
    DATAGRAMS(const DATAGRAMS &) = delete;
    DATAGRAMS &operator=(const DATAGRAMS &) = delete;
    ~DATAGRAMS();

    void pour(int count);

    static constexpr std::size_t AT_ONCE = 250;
    int fd;
    sockaddr_in agent{};
    std::vector<std::string> texts;
    std::array<iovec, AT_ONCE> parts{};
    std::array<mmsghdr, AT_ONCE> messages{};
};

}  // namespace load

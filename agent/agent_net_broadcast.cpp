// What goes to many at once: messages to the connected monitors, and datagrams to every interface where the
// limited broadcast cannot be sent.
#include "agent_net.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_clients.h"
#include "agent_utils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

static constexpr int SELECT_BOUND = 32;
static constexpr int READY_WAIT_US = 30;

// A monitor that still has bytes to take is not ready: a message never lands inside an answer.
static bool ready_for_message(const NETCLI *client)
{
    if (client_haspending(client) || client->sockfd >= FD_SETSIZE)
        return false;
    fd_set writable;
    fd_set failed;
    FD_ZERO(&writable);
    FD_ZERO(&failed);
    FD_SET(client->sockfd, &writable);
    FD_SET(client->sockfd, &failed);
    timeval wait{0, READY_WAIT_US};
    const int ready = select(SELECT_BOUND, nullptr, &writable, &failed, &wait);
    return client->sockfd < SELECT_BOUND && ready > 0 && FD_ISSET(client->sockfd, &writable) &&
           !FD_ISSET(client->sockfd, &failed);
}

static int write_to_monitors(AGENT *ag, bool (*wanted)(const NETCLI *, int), int lang)
{
    int result = 0;
    const WIREVIEW packet = packet_bytes().first(std::min(packet_head().Length, Daemon_NetBufLen));
    for (NETCLI *client = ag->agnet.clilist; client != nullptr; client = client->next) {
        if (client->sockfd < 0)
            return -1;
        if (!wanted(client, lang) || !ready_for_message(client))
            continue;
        if (client_send(client, packet) == -1)
            result = -1;
    }
    return result;
}

int net_broadcastmsg2monitor(AGENT *ag)
{
    return write_to_monitors(
        ag, [](const NETCLI *, int) { return true; }, 0);
}

// A monitor that named neither language is sent the first.
static bool wants_language(const NETCLI *client, int lang)
{
    return client->lang == 1 || client->lang == 2 ? client->lang == lang : lang != 2;
}

int broadcastmsg2monitor(AGENT *ag, int lang)
{
    return write_to_monitors(ag, wants_language, lang);
}

// Sends to one interface. Returns whether the walk may go on to the next record.
static bool send_over(int sockfd, std::span<const std::uint8_t> packet, ifreq record, sockaddr_in *addr)
{
    if (ioctl(sockfd, SIOCGIFFLAGS, &record) == -1) {
        printf("net_sendbrdmsgovereachinterface: can't get interface(%.*s)'s flags\n", IFNAMSIZ,
               record.ifr_name);
        fflush(stdout);
        return false;
    }
    if ((record.ifr_flags & IFF_BROADCAST) == 0)
        return true;
    if (ioctl(sockfd, SIOCGIFBRDADDR, &record) == -1) {
        perror("net_sendbrdmsgovereachinterface: ioctl(SIOCGIFBRDADDR)");
        return false;
    }
    sockaddr_in broadcast;
    std::memcpy(&broadcast, &record.ifr_broadaddr, sizeof broadcast);
    addr->sin_addr = broadcast.sin_addr;
    if (sendto(sockfd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr *>(addr), sizeof *addr) == -1) {
        perror("net_sendbrdmsgovereachinterface: send");
        return false;
    }
    return true;
}

int net_sendbrdmsgovereachinterface(int sockfd, std::span<const std::uint8_t> packet, sockaddr_in *addr)
{
    ifconf list{};
    const int count = utils_findmultihome(sockfd, &list, "realloc error");
    if (count < 0)
        return -1;
    int at = 0;
    for (int step = 0; step < count; ++step) {
        ifreq record;
        std::memcpy(&record, list.ifc_buf + static_cast<std::size_t>(at) * sizeof(ifreq), sizeof record);
        // After a failure the same record is tried again and the last interfaces are left out. Kept: the
        // order and number of the datagrams is what other hosts have always seen.
        if (send_over(sockfd, packet, record, addr))
            ++at;
    }
    std::free(list.ifc_buf);
    return 0;
}

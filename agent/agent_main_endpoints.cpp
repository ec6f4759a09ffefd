// The network endpoints: the UDP socket and one TCP listener per local address, never one on the wildcard
// address. Called once at the start; an address that appears later is served after a restart.
#include "agent_main.h"

#include "agent_utils.h"
#include "agent_utils_output.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr int LISTEN_BACKLOG = 5;

int init_uport(NETINFO *agnet, int port)
{
    const int on = 1;
    agnet->ufd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (agnet->ufd == -1)
        return -1;
    setsockopt(agnet->ufd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (setsockopt(agnet->ufd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) {
        printf0("set sockt opt error, exit\n");
        std::exit(1);
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    return bind(agnet->ufd, reinterpret_cast<const sockaddr *>(&local), sizeof local) == -1 ? -1 : 0;
}

static void append_listener(NETINFO *agnet, NETSERV *listener)
{
    NETSERV **tail = &agnet->tfdlist;
    while (*tail != nullptr)
        tail = &(*tail)->next;
    *tail = listener;
}

// Opens, binds and listens on the address of one interface record. On failure the node stays in the list,
// to be closed with it.
static int init_bindaddress(NETINFO *agnet, const ifreq *record, int port)
{
    const int on = 1;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd == -1)
        return -1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    auto *listener = new (std::nothrow) NETSERV{};
    if (listener == nullptr) {
        close(fd);
        return -1;
    }
    append_listener(agnet, listener);
    listener->tcpfd = fd;
    std::memcpy(&listener->addr, &record->ifr_addr, sizeof listener->addr);
    inet_ntop(AF_INET, &listener->addr.sin_addr, listener->addrstr.data(),
              static_cast<socklen_t>(listener->addrstr.size()));
    listener->addr.sin_family = AF_INET;
    listener->addr.sin_port = htons(static_cast<std::uint16_t>(port));
    if (bind(fd, reinterpret_cast<const sockaddr *>(&listener->addr), sizeof listener->addr) == -1)
        return -1;
    return listen(fd, LISTEN_BACKLOG) == -1 ? -1 : 0;
}

static int bind_each(NETINFO *agnet, int scratch, const ifconf &list, int port)
{
    for (int at = 0; at + static_cast<int>(sizeof(ifreq)) <= list.ifc_len;
         at += static_cast<int>(sizeof(ifreq))) {
        ifreq record;
        std::memcpy(&record, list.ifc_buf + at, sizeof record);
        if (ioctl(scratch, SIOCGIFADDR, &record) == -1 || init_bindaddress(agnet, &record, port) == -1)
            return -1;
    }
    return 0;
}

int init_tport(NETINFO *agnet, int port)
{
    const int scratch = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (scratch == -1)
        return -1;
    ifconf list{};
    int result = utils_findmultihome(scratch, &list);
    if (result >= 0) {
        result = bind_each(agnet, scratch, list, port);
        std::free(list.ifc_buf);
    }
    if (result < 0)
        init_freeservlist(agnet);
    close(scratch);
    return result;
}

void init_freeservlist(NETINFO *agnet)
{
    while (agnet->tfdlist != nullptr) {
        NETSERV *listener = agnet->tfdlist;
        agnet->tfdlist = listener->next;
        if (listener->tcpfd > 0)
            close(listener->tcpfd);
        delete listener;
    }
}

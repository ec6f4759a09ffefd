// The client table. Used entries are always the first n, each `next` pointing at the following element; the
// collecting state moves along when entries shift. Only the agent's loop calls in here.
#include "agent_daemon_clients.h"

#include "agent_utils.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

std::array<NETCLI, CLIENT_COUNT> net_client_p{};

static std::array<CLIENTIO, CLIENT_COUNT> client_io_p;  // slot by slot with net_client_p

// Connections beyond the table, oldest first from `surplus_next` on once the ring is full; -1: no entry.
static constexpr std::size_t SURPLUS_COUNT = 256;
static std::array<int, SURPLUS_COUNT> surplus;
static std::size_t surplus_next = 0;

static constexpr std::int64_t STALL_LIMIT = 5000;  // ms

void wipe_bytes(std::span<std::uint8_t> bytes)
{
    if (!bytes.empty())
        explicit_bzero(bytes.data(), bytes.size());
}

static void wipe(std::vector<std::uint8_t> &bytes)
{
    wipe_bytes(bytes);
    bytes = std::vector<std::uint8_t>();
}

static void io_clear(CLIENTIO &io)
{
    io.headlen = 0;
    io.split = false;
    wipe(io.body);  // with its memory: a slot may have held a megabyte
    io.out = std::vector<std::uint8_t>();
    io.outsent = 0;
    io.outsince = 0;
    wipe(io.login);
    io.ticket = 0;
}

void clients_reset(NETINFO *netinfo)
{
    for (NETCLI &client : net_client_p)
        client.sockfd = -1;
    for (CLIENTIO &io : client_io_p)
        io_clear(io);
    surplus.fill(-1);
    netinfo->clilist = nullptr;
}

static void keep_surplus(int sockfd)
{
    int &slot = surplus[surplus_next];
    surplus_next = (surplus_next + 1) % SURPLUS_COUNT;
    if (slot != -1)
        close(slot);
    slot = sockfd;
}

void clients_register(NETINFO *netinfo, int sockfd, const sockaddr_in &addr)
{
    std::size_t index = 0;
    while (index < net_client_p.size() && net_client_p[index].sockfd != -1)
        ++index;
    if (index == net_client_p.size()) {
        keep_surplus(sockfd);
        return;
    }
    NETCLI &client = net_client_p[index];
    client.next = nullptr;
    client.sockfd = sockfd;
    client.addr = addr;
    client.os = 0;
    client.auth = 0;  // a right belongs to the one who proved it
    io_clear(client_io_p[index]);
    if (index == 0)
        netinfo->clilist = &client;
    else
        net_client_p[index - 1].next = &client;
}

static void move_client(std::size_t to)
{
    const NETCLI &from = net_client_p[to + 1];
    NETCLI &client = net_client_p[to];
    client.auth = from.auth;
    client.os = from.os;
    client.lang = from.lang;
    client.addrstr = from.addrstr;
    client.addr = from.addr;
    std::swap(client_io_p[to], client_io_p[to + 1]);
}

void free_client_sockfd(NETINFO *netinfo, int sockfd)
{
    constexpr std::size_t last = CLIENT_COUNT - 1;
    std::size_t index = 0;
    for (std::size_t i = 0; i < net_client_p.size(); ++i)
        if (net_client_p[i].sockfd == sockfd) {
            index = i;
            break;
        }
    io_clear(client_io_p[index]);
    if (index == last) {
        net_client_p[last].sockfd = -1;
        net_client_p[last - 1].next = nullptr;
        return;
    }
    if (net_client_p[index + 1].sockfd == -1) {
        net_client_p[index].sockfd = -1;
        if (index == 0) {
            net_client_p[0].os = 0;
            netinfo->clilist = nullptr;
        } else {
            net_client_p[index - 1].next = nullptr;
        }
        return;
    }
    for (std::size_t i = index; i < last; ++i) {
        net_client_p[i].sockfd = net_client_p[i + 1].sockfd;
        if (net_client_p[i].sockfd == -1) {
            net_client_p[i - 1].next = nullptr;
            return;
        }
        move_client(i);
    }
    net_client_p[last].sockfd = -1;
    net_client_p[last - 1].next = nullptr;
}

CLIENTIO &client_io(const NETCLI *client)
{
    return client_io_p[static_cast<std::size_t>(client - net_client_p.data())];
}

NETCLI *client_bysocket(const NETINFO *netinfo, int sockfd)
{
    for (NETCLI *client = netinfo->clilist; client != nullptr; client = client->next)
        if (client->sockfd == sockfd)
            return client;
    return nullptr;
}

NETCLI *client_bypeer(const NETINFO *netinfo, int sockfd, const sockaddr_in &addr)
{
    NETCLI *client = client_bysocket(netinfo, sockfd);
    return client != nullptr && std::memcmp(&client->addr, &addr, sizeof addr) == 0 ? client : nullptr;
}

void client_forgetlogin(const NETCLI *client)
{
    wipe(client_io(client).login);
}

bool client_haspending(const NETCLI *client)
{
    const CLIENTIO &io = client_io(client);
    return io.outsent < io.out.size();
}

// What the peer takes now: a count, 0 when it takes nothing, -1 when the connection is dead.
static ssize_t send_some(int sockfd, std::span<const std::uint8_t> bytes)
{
    const ssize_t sent = send(sockfd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent == -1 && (errno == EAGAIN || errno == EINTR))
        return 0;
    return sent;
}

// Without memory the connection ends: its peer must not take the next answer for the rest of this one.
static int queue(const NETCLI *client, std::span<const std::uint8_t> bytes)
{
    std::vector<std::uint8_t> &out = client_io(client).out;
    try {
        out.insert(out.end(), bytes.begin(), bytes.end());
        return 0;
    } catch (const std::bad_alloc &) {
        shutdown(client->sockfd, SHUT_RDWR);
        return -1;
    }
}

int client_send(NETCLI *client, std::span<const std::uint8_t> bytes)
{
    CLIENTIO &io = client_io(client);
    ssize_t sent = 0;
    if (!client_haspending(client)) {
        sent = send_some(client->sockfd, bytes);
        if (sent == -1)
            return -1;
        io.outsince = utils_monotonicms();
    }
    return queue(client, bytes.subspan(static_cast<std::size_t>(sent)));
}

int client_flush(NETCLI *client)
{
    CLIENTIO &io = client_io(client);
    if (!client_haspending(client))
        return 0;
    const ssize_t sent = send_some(client->sockfd, std::span(io.out).subspan(io.outsent));
    if (sent == -1)
        return -1;
    const std::int64_t now = utils_monotonicms();
    if (sent > 0) {
        io.outsent += static_cast<std::size_t>(sent);
        io.outsince = now;
    }
    if (io.outsent == io.out.size()) {
        io.out = std::vector<std::uint8_t>();
        io.outsent = 0;
    }
    return sent == 0 && now - io.outsince >= STALL_LIMIT ? -1 : 0;
}

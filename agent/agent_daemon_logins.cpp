// The queue of logins. Each waits at its client (CLIENTIO) with a ticket, and the lowest ticket is next: who
// logs in again and again stands behind everybody else each time. Only the agent's loop calls in here.
#include "agent_daemon_logins.h"

#include "agent_daemon.h"
#include "agent_daemon_buffer.h"
#include "agent_daemon_clients.h"
#include "agent_net.h"

#include <cstring>
#include <new>
#include <span>

static constexpr std::uint32_t LOGIN_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_PASSWORD);

static std::uint64_t last_ticket = 0;

bool login_inhand()
{
    const UPS_PACKET_HEAD head = packet_head();
    return head.DataId == DATAID_PASSWORD && head.Length == LOGIN_LENGTH;
}

int login_hold(NETCLI *client)
{
    CLIENTIO &io = client_io(client);
    const auto packet = packet_bytes().first(LOGIN_LENGTH);
    int result = 0;
    try {
        io.login.assign(packet.begin(), packet.end());
        io.ticket = ++last_ticket;
    } catch (const std::bad_alloc &) {
        result = -1;
    }
    explicit_bzero(packet.data(), packet.size());
    return result;
}

bool login_waits(const NETCLI *client)
{
    return !client_io(client).login.empty();
}

static NETCLI *next_login(const NETINFO *netinfo)
{
    NETCLI *next = nullptr;
    for (NETCLI *client = netinfo->clilist; client != nullptr; client = client->next)
        if (login_waits(client) && !client_haspending(client) &&
            (next == nullptr || client_io(client).ticket < client_io(next).ticket))
            next = client;
    return next;
}

bool logins_ready(const NETINFO *netinfo)
{
    return next_login(netinfo) != nullptr;
}

void logins_checkone(AGENT *ag)
{
    NETCLI *client = next_login(&ag->agnet);
    if (client == nullptr)
        return;
    std::vector<std::uint8_t> &login = client_io(client).login;
    if (net_takeinhand(&ag->agnet, client, login) == 0)
        daemon_procnetmsg(ag, 1, 1);
    client_forgetlogin(client);
}

// Packets in and out. A TCP packet is collected as its bytes arrive, never waiting for a peer, in just the
// pieces that a blocking reader would take: one byte, the other seven, the data. So what a peer sees does
// not depend on how the network cut its bytes.
#include "agent_net.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_clients.h"
#include "agent_wire.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <sys/socket.h>

static constexpr std::uint32_t LENGTH_LIMIT = 1024 * 1024;  // longer packets are refused
static constexpr std::size_t READ_CHUNK = 65536;            // most that one client is read in one turn
static constexpr std::size_t SMALL_BODY = 1024;             // never moved while it grows
static constexpr std::uint8_t KEEPALIVE_BYTE = 0xFF;

bool net_checkisvalidpacket(const UPS_PACKET_HEAD &head)
{
    const std::uint8_t id = head.DataId;
    return head.Prototype <= 1 && ((id >= 16 && id <= 26) || (id >= 28 && id <= 35) ||
                                   (id >= 80 && id <= 82) || id == DATAID_INQAGENT);
}

bool net_acceptdatagram(std::size_t size)
{
    if (size < PACKET_HEAD_SIZE)
        return false;
    const std::size_t length = packet_head().Length;
    return length == size || length + 1 == size;
}

void net_forbidagentorder()
{
    const WIREBYTES data = packet_data();
    if (packet_head().DataId == DATAID_SHUTDOWN && data.size() >= offsetof(UPS_AGENTDOWNINFO, Agent))
        wire_put32(data, offsetof(UPS_AGENTDOWNINFO, AgentType), 0);
}

// What one non-blocking read of a socket gave.
enum class TAKEN { some, nothing, dead };

static TAKEN take(int sockfd, std::span<std::uint8_t> into, std::size_t &count)
{
    const ssize_t got = recv(sockfd, into.data(), into.size(), MSG_DONTWAIT);
    count = got > 0 ? static_cast<std::size_t>(got) : 0;
    if (got > 0)
        return TAKEN::some;
    if (got == -1 && (errno == EAGAIN || errno == EINTR))
        return TAKEN::nothing;
    return TAKEN::dead;
}

// Result of net_readpacketfromtcpsocket for a step of the header that did not complete it.
static constexpr int HEADER_COMPLETE = 2;

static int take_first_byte(const NETCLI *client, CLIENTIO &io)
{
    std::size_t count = 0;
    switch (take(client->sockfd, std::span(io.head).first(1), count)) {
    case TAKEN::dead:
        return -1;
    case TAKEN::nothing:
        return 0;
    case TAKEN::some:
        break;
    }
    if (io.head[0] == KEEPALIVE_BYTE)
        return 1;
    io.headlen = 1;
    return HEADER_COMPLETE;
}

static int take_header(const NETCLI *client, CLIENTIO &io)
{
    if (io.headlen == 0)
        if (const int result = take_first_byte(client, io); result != HEADER_COMPLETE)
            return result;
    std::size_t count = 0;
    switch (take(client->sockfd, std::span(io.head).subspan(io.headlen), count)) {
    case TAKEN::dead:
        if (!io.split)
            perror("net_readpacketfromtcpsocket: read");
        return -1;
    case TAKEN::nothing:
        return 0;
    case TAKEN::some:
        break;
    }
    // The first byte alone is no split; a second read that brings fewer than the other seven is.
    if (io.headlen == 1 && count < PACKET_HEAD_SIZE - 1)
        io.split = true;
    io.headlen += static_cast<std::uint32_t>(count);
    if (io.headlen < PACKET_HEAD_SIZE)
        return 0;
    return io.split && io.head[2] != 1 ? -1 : HEADER_COMPLETE;
}

static void next_packet(CLIENTIO &io)
{
    io.headlen = 0;
    io.split = false;
    wipe_bytes(io.body);
    if (io.body.capacity() > READ_CHUNK)
        io.body = std::vector<std::uint8_t>();
    else
        io.body.clear();
}

// A body that grew in pieces would leave copies of its first ones behind: a password is too short for that.
static bool append(std::vector<std::uint8_t> &to, std::span<const std::uint8_t> bytes, std::size_t wanted)
{
    try {
        to.reserve(std::min(wanted, SMALL_BODY));
        to.insert(to.end(), bytes.begin(), bytes.end());
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// Collects data bytes; `wanted` is how many the packet has. -1 dead, 0 more to come, HEADER_COMPLETE whole.
static int take_body(const NETCLI *client, CLIENTIO &io, std::size_t wanted)
{
    static std::array<std::uint8_t, READ_CHUNK> chunk;
    if (io.body.size() < wanted) {
        std::size_t count = 0;
        const std::size_t room = std::min(wanted - io.body.size(), chunk.size());
        const TAKEN taken = take(client->sockfd, std::span(chunk).first(room), count);
        const bool kept = taken != TAKEN::dead && append(io.body, std::span(chunk).first(count), wanted);
        wipe_bytes(std::span(chunk).first(count));
        if (!kept)
            return -1;
    }
    return io.body.size() == wanted ? HEADER_COMPLETE : 0;
}

// Makes room for a packet of this client, which its answer will go to.
static int receive_from(NETINFO *netinfo, const NETCLI *client, std::uint32_t length)
{
    if (daemon_reallocbuf(length) == -1)
        return -1;
    packet_setorigin({client->sockfd, client->addr, client->os, client->lang});
    netinfo->cnc.sockfd = client->sockfd;
    netinfo->cnc.addr = client->addr;
    netinfo->cnc.os = client->os;
    netinfo->cnc.lang = client->lang;
    return 0;
}

int net_takeinhand(NETINFO *netinfo, const NETCLI *client, std::span<const std::uint8_t> packet)
{
    if (receive_from(netinfo, client, static_cast<std::uint32_t>(packet.size())) == -1)
        return -1;
    std::copy(packet.begin(), packet.end(), packet_bytes().begin());
    return 0;
}

// The packet of `io` is whole: it becomes the one in hand.
static int deliver(NETINFO *netinfo, const NETCLI *client, CLIENTIO &io, std::uint32_t length, int *outlen)
{
    if (receive_from(netinfo, client, length) == -1)
        return -1;
    const auto packet = packet_bytes();
    std::copy(io.head.begin(), io.head.end(), packet.begin());
    std::copy(io.body.begin(), io.body.end(), packet.begin() + PACKET_HEAD_SIZE);
    next_packet(io);
    *outlen = static_cast<int>(length);
    return static_cast<int>(length + sizeof(UPS_CLIADDR));
}

int net_readpacketfromtcpsocket(NETINFO *netinfo, NETCLI *client, int *outlen)
{
    CLIENTIO &io = client_io(client);
    *outlen = 0;
    if (io.headlen < PACKET_HEAD_SIZE)
        if (const int result = take_header(client, io); result != HEADER_COMPLETE)
            return result;
    const UPS_PACKET_HEAD head = wire_gethead(io.head);
    // The data of a header that is not valid stays in the stream and is met as the next header. Peers rely
    // on this, odd as it is.
    if (!net_checkisvalidpacket(head)) {
        next_packet(io);
        return 0;
    }
    if (head.Length < PACKET_HEAD_SIZE) {
        next_packet(io);
        return receive_from(netinfo, client, head.Length);
    }
    if (head.Length > LENGTH_LIMIT)
        return -1;
    if (const int result = take_body(client, io, head.Length - PACKET_HEAD_SIZE); result != HEADER_COMPLETE)
        return result;
    return deliver(netinfo, client, io, head.Length, outlen);
}

static bool goes_by_datagram(std::uint8_t dataid)
{
    return dataid == DATAID_ANSAGENT || dataid == DATAID_ANSPROT || dataid == DATAID_SHUTDOWN;
}

static int send_datagram(int sockfd, WIREVIEW packet, sockaddr_in addr)
{
    const ssize_t sent = sendto(sockfd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    return sent == -1 ? net_sendbrdmsgovereachinterface(sockfd, packet, &addr) : 0;
}

int net_sendpacketout(AGENT *ag)
{
    const UPS_PACKET_HEAD head = packet_head();
    const UPS_CLIADDR origin = packet_origin();
    const WIREVIEW packet = packet_bytes().first(std::min(head.Length, Daemon_NetBufLen));
    if (origin.sockfd == ag->agnet.ufd && goes_by_datagram(head.DataId))
        return send_datagram(origin.sockfd, packet, origin.addr);
    if (head.DataId == DATAID_MESSAGE)
        return net_broadcastmsg2monitor(ag);
    if (NETCLI *client = client_bysocket(&ag->agnet, origin.sockfd); client != nullptr)
        return client_send(client, packet);
    // Other answers to UDP requests go to the unconnected socket, where they fail.
    const ssize_t sent = send(origin.sockfd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent == static_cast<ssize_t>(packet.size()) ? 0 : -1;
}

int sendpacketout_msg(AGENT *ag, int lang)
{
    if (packet_head().DataId == DATAID_MESSAGE && broadcastmsg2monitor(ag, lang) == -1)
        return -1;
    return 0;
}

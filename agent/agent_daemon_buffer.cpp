// Owner of the working buffer. Requests are copied here when they are whole, and every answer is built here
// before it leaves through net_sendpacketout.
#include "agent_daemon_buffer.h"

#include "agent_daemon.h"
#include "agent_utils_output.h"
#include "shared_word.h"

#include <algorithm>
#include <cstring>
#include <new>

std::uint8_t *Daemon_Buffer = nullptr;
std::uint32_t Daemon_NetBufLen = 0;
std::uint32_t Daemon_BufferLen = 0;

static constexpr std::uint32_t PREFIX = sizeof(UPS_CLIADDR);

int daemon_reallocbuf(std::uint32_t length)
{
    if (length <= Daemon_NetBufLen && Daemon_Buffer != nullptr)
        return 0;
    auto *fresh = new (std::nothrow) std::uint8_t[static_cast<std::size_t>(length) + PREFIX]();
    if (fresh == nullptr) {
        if (length < DAEMON_BUFFER_START - PREFIX) {
            printf0("alloc : len<need\n");
            net_netexit(&agent);
        }
        return -1;
    }
    delete[] Daemon_Buffer;
    Daemon_Buffer = fresh;
    Daemon_NetBufLen = length;
    Daemon_BufferLen = length + PREFIX;
    return 0;
}

WIREBYTES packet_bytes()
{
    return {Daemon_Buffer + PREFIX, Daemon_NetBufLen};
}

UPS_PACKET_HEAD packet_head()
{
    return wire_gethead(packet_bytes());
}

WIREBYTES packet_data()
{
    const std::uint32_t length = std::clamp(packet_head().Length, PACKET_HEAD_SIZE, Daemon_NetBufLen);
    return packet_bytes().subspan(PACKET_HEAD_SIZE, length - PACKET_HEAD_SIZE);
}

UPS_CLIADDR packet_origin()
{
    UPS_CLIADDR origin;
    std::memcpy(&origin, Daemon_Buffer, sizeof origin);
    return origin;
}

void packet_setorigin(const UPS_CLIADDR &origin)
{
    std::memcpy(Daemon_Buffer, &origin, sizeof origin);
}

WIREBYTES packet_answer(const AGENT *ag, std::uint8_t dataid, std::uint32_t length)
{
    if (daemon_reallocbuf(length) == -1)
        return {};
    const NETCLI &client = ag->agnet.cnc;
    packet_setorigin({client.sockfd, client.addr, client.os, client.lang});
    const auto prototype = static_cast<std::uint8_t>(shared_load(ag->aip->ups.protocol));
    const WIREBYTES packet = packet_bytes().first(length);
    std::fill(packet.begin(), packet.end(), std::uint8_t{0});
    wire_puthead(packet, {PACKET_VERSION, prototype, dataid, length});
    return packet.subspan(PACKET_HEAD_SIZE);
}

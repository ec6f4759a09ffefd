// The working buffer: the one packet in hand, preceded by a 28-byte prefix that says where it came from and
// where its answer goes.
#pragma once

#include "agent.h"
#include "agent_wire.h"

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

// Where the packet in hand came from and where its answer goes.
typedef struct _UPS_CLIADDR {
    std::int32_t sockfd;  // the client's TCP socket, or the UDP socket
    sockaddr_in addr;     // the peer
    std::int32_t os;
    std::int32_t lang;
} UPS_CLIADDR;
static_assert(sizeof(UPS_CLIADDR) == 28);

typedef struct _UPS_MSGBLOCK_HEAD {
    UPS_CLIADDR cliaddr;
    UPS_PACKET_HEAD head;
} UPS_MSGBLOCK_HEAD;
static_assert(sizeof(UPS_MSGBLOCK_HEAD) == 36);

inline constexpr std::size_t DAEMON_BUFFER_START = 32768;  // packet bytes before the loop starts

extern std::uint8_t *Daemon_Buffer;     // the prefix, then the packet
extern std::uint32_t Daemon_NetBufLen;  // room for packet bytes
extern std::uint32_t Daemon_BufferLen;  // allocated: Daemon_NetBufLen + 28; kept, not read

/// Makes room for a packet of `length` bytes; the buffer never shrinks and its contents are lost when it
/// grows. 0, or -1 when there is no memory for a large packet (the old buffer stays). Failing to get memory
/// for an ordinary length ends the agent.
int daemon_reallocbuf(std::uint32_t length);

/// The packet area, `Daemon_NetBufLen` bytes.
[[nodiscard]] WIREBYTES packet_bytes();

/// The header of the packet in hand.
[[nodiscard]] UPS_PACKET_HEAD packet_head();

/// The data bytes of the packet in hand: `Length` - 8, or none when `Length` is below 8.
[[nodiscard]] WIREBYTES packet_data();

/// The prefix.
[[nodiscard]] UPS_CLIADDR packet_origin();
void packet_setorigin(const UPS_CLIADDR &origin);

/// Starts an answer to the current client (`agnet.cnc`) in the buffer: prefix, header, zeroed data.
/// Returns the data area, `length` - 8 bytes, or an empty span when there is no memory for it.
[[nodiscard]] WIREBYTES packet_answer(const AGENT *ag, std::uint8_t dataid, std::uint32_t length);

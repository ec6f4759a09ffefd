// Framing of TCP packets, the one routine by which answers leave, and what goes to many at once.
#pragma once

#include "agent.h"
#include "wire_records.h"

#include <netinet/in.h>
#include <span>

/// Whether a TCP packet with this header is valid: Prototype 0 or 1 and a DataId that TCP may carry.
[[nodiscard]] bool net_checkisvalidpacket(const UPS_PACKET_HEAD &head);

/// Whether the datagram of `size` bytes in the working buffer is a packet: it holds a header whose Length is
/// the size, or one less, since some peers send a NUL behind.
[[nodiscard]] bool net_acceptdatagram(std::size_t size);

/// Clears the AgentType of a shutdown order in the working buffer: a monitor must not pose as another agent.
void net_forbidagentorder();

/// Takes what a readable client has sent, without waiting. Result: -1 the connection is dead and the caller
/// closes it; 0 nothing to handle now; 1 a byte was ignored; else the packet in the working buffer is whole
/// and the result is its length plus 28. `outlen` receives the packet length, or 0.
int net_readpacketfromtcpsocket(NETINFO *netinfo, NETCLI *client, int *outlen);

/// Makes a whole packet of this client the one in hand. 0, or -1 when there is no memory for it.
int net_takeinhand(NETINFO *netinfo, const NETCLI *client, std::span<const std::uint8_t> packet);

/// Sends the packet in the working buffer to where its prefix says. 0, or -1.
int net_sendpacketout(AGENT *ag);

/// Sends the message packet in the working buffer to the monitors of a language. 0, or -1.
int sendpacketout_msg(AGENT *ag, int lang);

/// Writes the packet in the working buffer to every connected monitor that is ready. 0, or -1.
int net_broadcastmsg2monitor(AGENT *ag);

/// The same for the monitors that want this language.
int broadcastmsg2monitor(AGENT *ag, int lang);

/// Sends `packet` to the broadcast address of each interface; `addr` keeps its port. 0, or -1.
int net_sendbrdmsgovereachinterface(int sockfd, std::span<const std::uint8_t> packet, sockaddr_in *addr);

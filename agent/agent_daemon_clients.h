// The fixed table of connected monitors and what is being collected from and owed to each.
#pragma once

#include "agent.h"
#include "wire_records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

inline constexpr int CLIENT_COUNT = 64;

extern std::array<NETCLI, CLIENT_COUNT> net_client_p;

// The packet that is arriving from a client and the bytes that still have to go to it. Kept beside the client
// table, slot by slot; memory grows with the bytes that arrive, not with those that were promised.
typedef struct _CLIENTIO {
    std::array<std::uint8_t, PACKET_HEAD_SIZE> head;
    std::uint32_t headlen;            // header bytes collected
    bool split;                       // the header did not come in one piece
    std::vector<std::uint8_t> body;   // data bytes collected
    std::vector<std::uint8_t> out;    // answer bytes not yet taken by the peer
    std::size_t outsent;              // of these, already sent
    std::int64_t outsince;            // ms on the monotonic clock: when the peer last took a byte
    std::vector<std::uint8_t> login;  // a whole login packet that waits to be checked; empty: none
    std::uint64_t ticket;             // its place in the queue, the lowest first
} CLIENTIO;

/// Overwrites bytes that may have been a password, so that the memory does not tell them later.
void wipe_bytes(std::span<std::uint8_t> bytes);

/// Marks every slot free.
void clients_reset(NETINFO *netinfo);

/// Registers a connection that was just accepted, without a right. When all slots are taken it is left open,
/// unregistered and unread, the oldest such connection being closed beyond 256 of them.
void clients_register(NETINFO *netinfo, int sockfd, const sockaddr_in &addr);

/// Removes the client with this socket from the table, shifting the later ones down. Does not close it.
void free_client_sockfd(NETINFO *netinfo, int sockfd);

/// The collecting state of a client of the table.
[[nodiscard]] CLIENTIO &client_io(const NETCLI *client);

/// The connected client with this socket, or null.
[[nodiscard]] NETCLI *client_bysocket(const NETINFO *netinfo, int sockfd);

/// The connected client with this socket and this peer, or null.
[[nodiscard]] NETCLI *client_bypeer(const NETINFO *netinfo, int sockfd, const sockaddr_in &addr);

/// Wipes the login that waits at a client.
void client_forgetlogin(const NETCLI *client);

/// Whether the client still has answer bytes to take.
[[nodiscard]] bool client_haspending(const NETCLI *client);

/// Sends bytes to a client and queues what it does not take at once. 0, or -1 when the connection is dead.
int client_send(NETCLI *client, std::span<const std::uint8_t> bytes);

/// Sends on what is queued. 0, or -1 when the connection is dead or its peer took nothing for 5 s.
int client_flush(NETCLI *client);

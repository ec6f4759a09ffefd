// Finding agents: inquiries by UDP, the answers, and what agents announce by themselves. Used by `voltaria
// discover`.
//
// An agent answers an inquiry to the port it came from, so asking works without the announcements' own port,
// which only one ordinary program of a machine can have.
#pragma once

#include "monitor.h"

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <string>
#include <vector>

// An agent as it was last heard of. Texts are UTF-8 and harmless.
struct FOUND_AGENT {
    std::string address{};  // dotted; where its packets come from, and what tells agents apart
    bool protector = false;
    bool gone = false;  // it said that it goes down
    std::string name{};
    std::string group{};
    std::string protected_by{};  // a protector's agent
    std::string model{};         // upper case
    std::uint32_t type = 0;
    std::int32_t ups = 0;
    std::int32_t battery = 0;
    std::int32_t link = 0;
    std::int32_t ignore = 0;

    bool operator==(const FOUND_AGENT &) const = default;
};

/// What a datagram says; nullopt when it is no answer and no announcement of an agent.
[[nodiscard]] std::optional<FOUND_AGENT> discover_decode(std::span<const std::uint8_t> datagram,
                                                         const std::string &address);

// The most agents that a list takes; what claims to be more is no network that this protocol was made for.
inline constexpr std::size_t FOUND_AGENTS_MAX = 4096;

/// Puts the news into the list, which is in the order of first appearance, one entry for each address. True
/// when anything changed by it.
bool discover_merge(std::vector<FOUND_AGENT> &agents, const FOUND_AGENT &news);

/// State of UPS, battery and link in words.
[[nodiscard]] std::string discover_state(const FOUND_AGENT &agent);

/// A heading and a line for each agent.
[[nodiscard]] std::string discover_table(const std::vector<FOUND_AGENT> &agents);
/// One agent in a line of its own.
[[nodiscard]] std::string discover_line(const FOUND_AGENT &agent);

struct DISCOVERY_OPTIONS {
    std::vector<std::string> addresses{};  // hosts or addresses to ask besides the broadcasts
    std::uint16_t inquiry_port = PORT_UDP;
    std::uint16_t announce_port = PORT_ANNOUNCE;
};

struct DISCOVERY {
    int inquiry_fd = -1;
    int announce_fd = -1;        // -1: announcements are not heard
    std::string deaf_because{};  // why not
    std::uint16_t inquiry_port = PORT_UDP;
    std::vector<in_addr> addresses{};
};

/// Opens the sockets and looks the addresses up. That announcements cannot be heard is no failure.
[[nodiscard]] MONITOR_RESULT discover_open(const DISCOVERY_OPTIONS &options, DISCOVERY &discovery);
void discover_close(DISCOVERY &discovery);

/// Sends one inquiry to every network of this machine and to each address. Unreachable, with the last reason,
/// when none could be sent.
[[nodiscard]] MONITOR_RESULT discover_inquire(const DISCOVERY &discovery);

/// The next answer or announcement until `deadline`; nullopt when there was none or `cancel_fd` became
/// readable.
[[nodiscard]] std::optional<FOUND_AGENT> discover_receive(const DISCOVERY &discovery,
                                                          std::chrono::steady_clock::time_point deadline,
                                                          int cancel_fd = -1);

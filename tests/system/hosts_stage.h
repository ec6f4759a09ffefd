// What the tests of several hosts share: agents with their settings, monitors on hosts without an agent, and
// the packets that pass between them.
#pragma once

#include "bed.h"
#include "hosts.h"

#include "wire_records.h"

#include <memory>
#include <string>
#include <vector>

namespace bed
{

inline constexpr char LIMITED_BROADCAST[] = "255.255.255.255";
inline constexpr char NETWORK_BROADCAST[] = "10.78.0.255";

inline constexpr int ROLE_PROTECTOR = 1;
inline constexpr int ROLE_LOW = 4;
inline constexpr int ROLE_NORMAL = 5;
inline constexpr int ROLE_HIGH = 6;

/// The configuration file of an agent that heeds the others of its group, with more lines for the section
/// UPS.
std::string settings(int role, const std::string &group = "Group A", bool ignores = false,
                     const std::string &more = {});

/// Texts of the wire, up to their NUL.
std::string text_at(std::string_view bytes, std::size_t at, std::size_t width);
std::string field(std::string_view text, std::size_t width);

/// What an agent tells of itself, in an answer or unasked.
struct Told {
    std::string from;  // address
    int dataid = 0;
    int cmd = -1;  // 0 there or changed, 1 goes down, 2 answer
    int nt = 0;
    std::string agent;
    std::string myname;  // a protector's
    std::string model;   // the rest: not a protector's
    std::string group;
    int status = 0;
    int role = 0;
    int link = 0;
    int ignores = 0;
};
Told told(const std::string &bytes, const std::string &from);
std::ostream &operator<<(std::ostream &out, const Told &one);

/// A monitor's UDP socket on a host.
std::unique_ptr<testbed::UdpSocket> udp_on(const testbed::Host &host, std::uint16_t port = 0);
/// A monitor's connection from one host to another's agent.
std::unique_ptr<testbed::TcpClient> connect_from(const testbed::Host &host, const testbed::Host &agent);

/// What comes to a socket from one host until one of them satisfies the predicate; that one is the last.
/// Throws when none does.
std::vector<Told> hear_until(const testbed::UdpSocket &socket, const testbed::Host &from,
                             const std::string &what, const std::function<bool(const Told &)> &predicate);

/// An agent's state as its shared block has it. Made for a host with a running agent.
class Watched
{
  public:
    explicit Watched(const testbed::Host &host);
    /// Until the agent's unit has answered.
    void wait_for_link() const;
    void wait_for_group(const std::string &group) const;
    /// Until it has begun to shut down.
    void wait_for_shutdown() const;
    [[nodiscard]] bool shutting_down() const;

  private:
    const testbed::Host &host_;
    std::unique_ptr<testbed::SharedBlock> block_;
};

/// Until /sbin/shutdown was called there.
void wait_until_halted(const testbed::Host &host);
[[nodiscard]] bool halted(const testbed::Host &host);

/// The events in the host's log, oldest first.
std::vector<int> events_of(const testbed::Host &host);
void wait_for_event(const testbed::Host &host, int id);

/// An inquiry and its answer: whatever reached the agent before has been handled when it comes.
Told ask(const testbed::Host &monitor, const testbed::Host &agent);
std::string inquiry(std::string_view monitor);

/// A monitor's order over its connection: this agent goes down in `delay` seconds.
std::string down_order(int delay, std::string_view monitor);

}  // namespace bed

// The stage of the soak: the real daemon, a simulated unit and an English monitor under the stepped clock,
// for weeks. Unlike the stage of the short tests it outlives machines: the daemon may end, be killed and be
// started again. Every time everyone waits it takes what is new (lines of the event log, notices, calls,
// orders to the unit, announcements) and hands it to whoever judges; nothing is kept, so that a month costs
// no more memory than an hour.
#pragma once

#include "vt_stage.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace soak
{

using namespace std::chrono_literals;
using bed::LoggedEvent;

// What is there to be seen at one moment at which everyone waits, and what has come since the moment before.
struct Look {
    double now = 0;      // s since the beginning, by the clock that nobody sets
    std::int64_t wall;   // s since the epoch, by the clock that is set
    bool there = false;  // the daemon has a shared block
    int comm = 0;
    int code = 0;
    std::uint32_t bits = 0;
    std::uint32_t battery_result = 0;
    std::uint32_t ups_result = 0;
    std::int64_t nextdown = 0;        // s since the epoch; 0 when not set
    std::vector<LoggedEvent> events;  // `at` in seconds since the epoch
    std::size_t log_lines = 0;
    bool log_shrank = false;  // it holds less than before for another reason than its limit
    std::vector<std::string> notices;
    std::vector<std::string> walls;
    std::vector<std::string> orders;
    int shutdowns = 0;
    int announced = 0;  // by broadcast: the agent is there, or has changed
    int goodbyes = 0;   // by broadcast: the agent goes
};

struct Holdings {
    long rss = 0;   // kB
    long data = 0;  // kB
    long descriptors = 0;
};

class Stage
{
  public:
    using Judge = std::function<bool(const Look &)>;  // false: time stops here
    using Duration = testbed::VirtualClock::Duration;

    Stage(std::int64_t start, unsigned seed, const std::string &model, const std::string &settings);

    testbed::VirtualClock clock;
    testbed::Daemon daemon{bed::VOLTARIAD};
    Judge judge;

    void start_daemon();
    /// Cuts the machine's power: no process is left, no descriptor, no shared block.
    void power_off();
    [[nodiscard]] bool up() const
    {
        return up_;
    }

    void run(Duration time);
    /// In leaps: for stretches in which nothing but time passes.
    void leap(Duration time, Duration step);
    /// Looks without letting time pass; what the judge says.
    bool look();
    [[nodiscard]] double now() const;

    void unit(const std::string &command);
    std::string ask_unit(const std::string &command);
    /// A packet from the monitor, served at this moment.
    void monitor_sends(const std::string &packet);
    /// The answer to a question, served at this moment; notices that come before it are kept.
    std::string monitor_asks(const std::string &packet);
    void datagram(const std::string &bytes) const;

    /// A sanitizer keeps freed memory back on purpose: what a process holds says nothing there.
    [[nodiscard]] bool sanitized() const;
    [[nodiscard]] Holdings agent_holdings() const;
    [[nodiscard]] Holdings ups_holdings() const;

  private:
    std::unique_ptr<testbed::Simulator> unit_;
    std::unique_ptr<testbed::TcpClient> monitor_;
    std::unique_ptr<testbed::UdpSocket> announcements_;
    std::optional<testbed::SharedBlock> block_;
    std::string unread_;
    std::deque<std::string> notices_;
    std::deque<std::string> answers_;
    std::string log_;
    std::size_t unit_log_at_ = 0;
    bool up_ = false;

    void connect_monitor();
    std::string await_answer();
    void read_monitor();
    void look_at_block(Look &look) const;
    void look_at_log(Look &look);
    void look_at_calls(Look &look) const;
    void look_at_unit(Look &look);
    void look_at_network(Look &look) const;
};

}  // namespace soak

// The stage of tests in virtual time: the real daemon, a simulated unit and, if wanted, a monitor under the
// stepped clock, with everything that comes out of them and when: lines of the event log, calls of wall and
// shutdown, notices on the monitor, commands on the serial line.
//
//     Stage stage({.model = "ZR401", .settings = {{"UPS", "AgentType", "4"}}});
//     stage.link_up();
//     stage.unit("mains fail");
//     stage.run(70s);
//     EXPECT_THAT(stage.events(), ElementsAre(...));
//
// All times are seconds since the beginning. Events, calls and the times that are shown to monitors go by the
// wall clock, which a test may set; notices and orders by the clock that nobody sets.
#pragma once

#include "bed.h"
#include "shared_word.h"
#include "vclock.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace bed
{

inline constexpr std::int64_t STAGE_START = 1'700'000'000;  // Tuesday 14 November 2023, 22:13:20 UTC

struct Setting {
    std::string section;
    std::string key;
    std::string value;
};
using Settings = std::vector<Setting>;

/// The settings file with these, in their order, under the headers of their sections.
std::string settings_text(const Settings &settings);

struct StageOptions {
    std::string model = "ZR900PL";
    Settings settings = {};  // none: no settings file
    std::int64_t start = STAGE_START;
    std::string zone = "UTC0";
    unsigned seed = 1;
    bool monitor = true;  // one is connected from the moment the daemon serves; it reads English
};

struct LoggedEvent {
    std::int64_t at = 0;
    int id = 0;
    int cause = 0;
    std::string name;

    bool operator==(const LoggedEvent &) const = default;
};
std::ostream &operator<<(std::ostream &out, const LoggedEvent &event);

// Something said or sent at a moment: a notice, a wall, a command to the unit.
struct Said {
    double at = 0;
    std::string text;

    bool operator==(const Said &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Said &said);

std::vector<std::string> texts(const std::vector<Said> &all);
std::vector<Said> containing(const std::vector<Said> &all, const std::string &part);
std::vector<int> ids(const std::vector<LoggedEvent> &all);

class Stage
{
  public:
    explicit Stage(StageOptions options = {});
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;
    ~Stage();

    testbed::VirtualClock clock;
    testbed::Daemon daemon{VOLTARIAD};

    /// Until the link is established and the agent has noticed, and a little beyond: between two turns.
    void link_up();
    /// Runs; the monitor reads as it goes.
    void run(testbed::VirtualClock::Duration time);
    void run_until(const std::string &what, const testbed::VirtualClock::Predicate &predicate,
                   testbed::VirtualClock::Duration limit);
    /// The same in leaps, for long stretches in which nothing but time passes.
    void leap(testbed::VirtualClock::Duration time, testbed::VirtualClock::Duration step);
    /// Until the agent has become the shutdown program; false when it has not within the limit.
    bool goes_down(testbed::VirtualClock::Duration limit);

    /// A command to the simulator, carried out at this moment.
    void unit(const std::string &command);
    [[nodiscard]] std::string unit_log() const;
    /// A packet from the monitor, served at this moment.
    void monitor_sends(const std::string &packet);
    /// An order of a monitor that calls itself `name`, and its cancel.
    void order_down(int delay, const std::string &name);
    void cancel_order(const std::string &name);
    /// A shutdown order of another agent, as a datagram to this one.
    void other_agent_orders(const std::string &agent, const std::string &group, int agenttype);

    /// Seconds since the clock began.
    [[nodiscard]] double now() const;
    /// What a monitor asks for, read where it lies.
    [[nodiscard]] UPS_UPSINFO info() const;
    [[nodiscard]] std::uint32_t bits() const;
    /// `nextdown` and `nextboot` of the record in seconds since the clock began; 0 when not set.
    [[nodiscard]] std::int64_t nextdown() const;
    [[nodiscard]] std::int64_t nextboot() const;

    [[nodiscard]] std::vector<LoggedEvent> events() const;
    /// The moments of one event.
    [[nodiscard]] std::vector<std::int64_t> times_of(int id) const;
    /// Calls of wall: the text without the newline behind it.
    [[nodiscard]] std::vector<Said> walls() const;
    /// What the monitor was told, in English.
    [[nodiscard]] std::vector<Said> notices() const;
    /// Commands that do something to the unit, as its log shows them ("S10\\r"), by the clock that is never
    /// set; those from this moment on.
    [[nodiscard]] std::vector<Said> orders(double from = 0) const;
    /// Calls of /sbin/shutdown with their arguments.
    [[nodiscard]] std::vector<Said> shutdowns() const;
    /// All of it, one line each, as it was left: the same for two runs that went the same way.
    [[nodiscard]] std::string story() const;

  private:
    StageOptions options_;
    std::unique_ptr<testbed::Simulator> unit_;
    std::unique_ptr<testbed::TcpClient> monitor_;
    std::string unread_;
    std::vector<Said> notices_;

    void connect_monitor();
    void read_monitor();
    [[nodiscard]] std::int64_t since_start(const UPS_TIMEINFO &time) const;
    [[nodiscard]] double since_start(const testbed::Call &call) const;
};

}  // namespace bed

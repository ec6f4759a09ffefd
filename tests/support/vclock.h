// Virtual time for system tests: the unmodified programs run under a clock that is stepped, not scaled. Time
// moves only when every process under the clock waits and nothing is on its way to one of them, and then to
// the next moment at which one of them has something to do. Only one process works at a time and the order is
// fixed, so that the same test gives the same run, to the byte, however busy the machine is.
//
// How to write a test:
//
//     VirtualClock clock({.start = 1'700'000'000, .zone = "UTC0"});  // first: it must outlive the rest
//     testbed::Daemon daemon(bed::VOLTARIAD);
//     testbed::SimulatorOptions options;
//     clock.attach(options);
//     clock.attach(daemon);
//     testbed::Simulator simulator(bed::UPSSIM, options);
//     daemon.start();                                        // takes no virtual time
//     clock.run_until("the link", [&] { return shared_load(block->ups.ui.CommStatus) == 2; }, 60s);
//     simulator.command("mains fail");                       // happens now
//     clock.at(clock.now() + 90s, [&] { simulator.command("mains return"); });
//     clock.run_for(10min);
//     clock.shift_wall(2h);                                  // somebody sets the clock; timers do not notice
//     clock.leap_for(24h * 30, 600s);                        // a month in seconds of real time
//     clock.stop(daemon);
//
// Between the run calls time stands still, but the processes serve their descriptors: a request to the daemon
// is answered, a command to the simulator works, stand-ins run to their end. Waits of the test bed
// (wait_for_link, wait_until ...) do not move time: use run_until for whatever needs it. Call::time of the
// stand-ins is the virtual wall clock. A stand-in at work holds the time; one told to hang lets it flow.
//
// What it costs, on one processor: 3 to 5 ms for a second of the clock while a unit with
// SimulatorOptions::pace is polled (every byte on the line is a moment of its own), well below 1 ms without
// pace or without a unit; about 1 ms for a leap. A predicate is looked at in each of these moments: let it
// read memory or a small file.
//
// Limits: processes with one thread. A program that sleeps in the kernel by a call that the clock does not
// know (a lock of a file, a full pipe) is found out after 50 ms of real time and counts as waiting; so is one
// that was stopped, and it does nothing until it is continued.
#pragma once

#include "testbed.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace testbed
{

struct ClockOptions {
    std::int64_t start = 1'700'000'000;  // wall clock, seconds since the epoch
    std::string zone = "UTC0";           // TZ of the processes, and of the test while the clock exists
    seconds patience = seconds(30);      // real time without any progress after which a run throws
};

class VirtualClock
{
  public:
    using Duration = std::chrono::nanoseconds;
    using Predicate = std::function<bool()>;

    explicit VirtualClock(const ClockOptions &options = {});
    VirtualClock(const VirtualClock &) = delete;
    VirtualClock &operator=(const VirtualClock &) = delete;
    ~VirtualClock();  // ends nobody: destroy the processes first

    /// What a process under the clock needs in its environment.
    [[nodiscard]] Environment environment() const;
    void attach(Daemon &daemon) const;
    /// The simulator keeps its moments exactly, in leaps too.
    void attach(SimulatorOptions &options) const;

    /// Since the clock was made; moved by the run calls only.
    [[nodiscard]] Duration now() const;
    /// The wall clock, seconds since the epoch, and the same with its fraction.
    [[nodiscard]] std::int64_t wall() const;
    [[nodiscard]] Duration wall_exact() const;
    void set_wall(std::int64_t seconds_since_epoch);
    void shift_wall(Duration by);

    void run_for(Duration time);
    void run_to(Duration moment);  // a value of now(); a moment that has passed only lets everyone settle
    /// Looks at every step, when everyone waits; throws TestbedError when `limit` of virtual time passed
    /// before.
    void run_until(const std::string &what, const Predicate &predicate, Duration limit);

    /// Like run_for and run_until, but while everyone idles (waits of 0.9 s and more, nothing on its way)
    /// time moves by `step` at once, as if the machine had been too busy to let the processes run. Never
    /// beyond a moment that was registered, nor beyond a deadline of the simulator or the end of an interval
    /// timer.
    void leap_for(Duration time, Duration step);
    void leap_until(const std::string &what, const Predicate &predicate, Duration limit, Duration step);

    /// Calls `action` in a run when now() is `when` and everyone waits; in order of time, then of
    /// registration.
    void at(Duration when, std::function<void()> action);
    /// The same for a moment of the wall clock as it is set now.
    void at_wall(std::int64_t seconds_since_epoch, std::function<void()> action);

    /// Asks the daemon to end through the shared block, and runs until it has.
    void stop(const Daemon &daemon, Duration limit = seconds(120));

    /// Who waits for what, one line a process.
    [[nodiscard]] std::string picture() const;
    /// How many processes there are under the clock.
    [[nodiscard]] std::size_t participants() const;

  private:
    struct State;
    std::unique_ptr<State> state_;

    void run(Duration end, Duration leap, const Predicate *predicate);
};

}  // namespace testbed

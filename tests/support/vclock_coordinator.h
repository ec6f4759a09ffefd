// The stepping itself: who works, who waits, who is asked next, and when time may move. Used by VirtualClock
// (vclock.cpp) alone, by one thread at a time.
#pragma once

#include "vclock_shared.h"

#include <array>
#include <chrono>
#include <string>
#include <vector>

namespace vclock
{

class Coordinator
{
  public:
    /// Makes the shared file; `start` is the wall clock in nanoseconds since the epoch.
    Coordinator(Nanoseconds start, std::chrono::nanoseconds patience);
    Coordinator(const Coordinator &) = delete;
    Coordinator &operator=(const Coordinator &) = delete;
    ~Coordinator();

    [[nodiscard]] const std::string &path() const
    {
        return path_;
    }
    [[nodiscard]] Nanoseconds now() const
    {
        return shared_->now.load();
    }
    [[nodiscard]] Nanoseconds wall() const
    {
        return shared_->now.load() + shared_->wall_offset.load();
    }
    void set_wall(Nanoseconds wall)
    {
        shared_->wall_offset.store(wall - shared_->now.load());
    }

    /// Something may have happened that the coordinator did not see: everyone is to be asked again.
    void expect_anything();
    /// Lets everyone who has something to do at this moment do it, until all wait and nothing is on its way.
    /// Returns whether anyone did anything. Throws TestbedError when nothing moves for the time of patience.
    bool settle();
    /// Moves time to the next deadline, at most to `limit`; by `leap` (0 none) at once when everyone idles.
    void step(Nanoseconds limit, Nanoseconds leap);

    [[nodiscard]] std::string picture() const;
    [[nodiscard]] std::size_t participants() const;

  private:
    using RealTime = std::chrono::steady_clock::time_point;

    // What is known of the process at one place of the table.
    struct Known {
        pid_t pid = 0;
        int handle = -1;          // becomes readable when the process ends
        std::uint32_t birth = 0;  // of the claim that this is about
        std::uint32_t left = 0;   // as last seen
        std::uint64_t seen = 0;   // the activity after which it was last found with nothing to do
        bool stuck = false;       // sleeps in the kernel outside the library
        std::string sleep;        // how it looked when it was last found asleep there
    };

    [[nodiscard]] Participant &place(std::size_t i) const
    {
        return shared_->participants[i];
    }
    [[nodiscard]] std::size_t top() const
    {
        return shared_->top.load();
    }
    [[nodiscard]] bool is_busy(std::size_t i) const;
    [[nodiscard]] bool is_stale(std::size_t i) const;
    [[nodiscard]] bool all_wait() const;
    [[nodiscard]] bool all_idle() const;
    void meet();
    bool bury();
    void find_stuck();
    void look_at_stuck();
    void await_all();
    void note_done(std::uint32_t kinds);
    bool note_activity();
    bool ask_next();
    bool settle_once();
    [[noreturn]] void give_up() const;

    std::string path_;  // before shared_, whose making sets it
    Shared *shared_ = nullptr;
    std::chrono::nanoseconds patience_;
    std::vector<Known> known_;
    std::uint64_t activity_ = 1;               // grows with everything that may concern somebody else
    std::array<std::uint64_t, KINDS> done_{};  // the last activity that concerned each kind
    std::uint32_t sent_ = 0;                   // as last seen
    bool in_flight_ = false;                   // something may still be on its way in the kernel
};

}  // namespace vclock

// The stage of the race: the daemon with a simulated unit that says distinctive things, a monitor that
// changes distinctive settings, and what the shared block may therefore hold. Distinctive means that no
// mixture of two legal values of one field, byte by byte, is legal itself.
#pragma once

#include "bed.h"
#include "race_block.h"
#include "vclock.h"
#include "wire_records.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace race
{

enum class Pace {
    Stepped,  // the stepped clock: one of the processes works at a time, the watcher beside it
    Racing,   // both at full speed at the same moment
};

class Stage
{
  public:
    explicit Stage(Pace pace);
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;
    ~Stage();

    testbed::Daemon daemon{bed::VOLTARIAD};

    [[nodiscard]] LegalBlock legal() const;
    [[nodiscard]] static Announced announced();

    /// Sends `count` changes of settings and waits until they are in force.
    void change_settings(int count);
    /// What the unit says from now on: another value of everything that it says while mains is well. (In a
    /// race its status line changes all the time besides.)
    void say_something_else();
    /// Mains fails, as the unit tells it, and stays so until the agent's block shows it and longer; then
    /// returns.
    void mains_failure(Watcher &watcher);
    /// The line is lost with mains well and found again with mains failed; then mains returns.
    void find_failing_unit(Watcher &watcher);

    [[nodiscard]] long passes() const;
    [[nodiscard]] long changes() const
    {
        return changes_;
    }

  private:
    const Pace pace_;
    std::unique_ptr<testbed::VirtualClock> clock_;
    std::unique_ptr<testbed::Simulator> unit_;
    std::unique_ptr<testbed::TcpClient> monitor_;
    std::unique_ptr<testbed::SharedBlock> block_;
    long changes_ = 0;
    unsigned said_ = 0;
    std::mutex saying_;   // of what the unit says next
    bool hushed_ = true;  // the status line stays as it is
    std::atomic<bool> ending_ = false;
    std::thread chatter_;
    mutable std::size_t log_read_ = 0;
    mutable long passes_ = 0;

    void until(const std::string &what, const std::function<bool()> &predicate);
    void some_passes();
    void say(unsigned state);
    void say_q1(unsigned state);
    void fail_mains();
    void return_mains();
    void chatter();
    [[nodiscard]] std::string change(long number) const;
    void fence();
    [[nodiscard]] bool shows_failure() const;
};

}  // namespace race

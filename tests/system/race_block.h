// What every word of the shared block may hold while a race is on, and a third process that looks. The
// guarantee that is checked is the block's own: each field of a number or of a date, each aligned word of a
// text, is stored whole, so a reader finds in it what one side wrote, at some time, and nothing in between.
// What is not named may hold nothing but zero. Beside single words it is checked what the order of the stores
// promises:
//   - the event bits of the first pass after the line was found appear after CommStatus 2, never before;
//   - whoever finds an event bit that has come up finds the code and the measurements that belong to it, and
//     right after the line was found the model too.
#pragma once

#include "testbed.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace race
{

using Values = std::vector<std::uint32_t>;

class LegalBlock
{
  public:
    /// A field of 1, 2 or 4 bytes at `offset` of the block holds one of these; may be repeated to add more.
    void field(std::size_t offset, std::size_t size, const Values &values);
    /// Each aligned word of a text holds what one of these, filled with zeros, has there.
    void text(std::size_t offset, std::size_t size, const std::vector<std::string> &texts);
    /// The word of year, month, day and hour holds no date, or one of these days (year since 1900, month,
    /// day) at hour 0.
    void days(std::size_t offset, const std::vector<std::array<std::uint32_t, 3>> &days);
    /// A date and time: each of its fields is of no date, of about now or of one of these days.
    void times(std::size_t offset, const std::vector<std::array<std::uint32_t, 3>> &days = {});

    /// What is wrong with the word at `index`; empty when it is legal.
    [[nodiscard]] std::string complaint(std::size_t index, std::uint32_t word) const;

  private:
    struct Part {
        unsigned shift;
        std::uint32_t mask;
        Values values;
    };
    std::array<std::vector<Part>, sizeof(AGINFO) / 4> words_;
};

// What the unit is made to do, so that more than single words can be judged.
enum class Phase : std::uint64_t {
    Anything,
    Failing,  // it has told a mains failure and goes on telling it
    Finding,  // a line on which mains is well is lost and found again, with mains failed
};

// What a failing unit's state must look like as soon as its bit is up.
struct Announced {
    std::int8_t upsstat = 0;
    std::int16_t input = 0;
    std::string model;
};

// The third process: reads the block all the time, on any processor, until it is destroyed.
class Watcher
{
  public:
    Watcher(const LegalBlock &legal, Announced announced);
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;
    ~Watcher();

    void enter(Phase phase);
    /// Ends it. What was found wrong, one line each, the first few of them.
    std::vector<std::string> stop();
    /// How many times the whole block was read, how many words were seen to have changed, and how many times
    /// what must stand there with the bits was looked at.
    [[nodiscard]] std::uint64_t scans() const
    {
        return scans_;
    }
    [[nodiscard]] std::uint64_t changes() const
    {
        return changes_;
    }
    [[nodiscard]] std::uint64_t judged() const
    {
        return judged_;
    }

  private:
    const LegalBlock &legal_;
    const Announced announced_;
    testbed::SharedBlock block_;
    std::array<std::uint32_t, sizeof(AGINFO) / 4> seen_{};
    std::atomic<std::uint64_t> phase_ = 0;  // how many there were, and in the low byte which
    std::atomic<bool> ending_ = false;
    std::atomic<std::uint64_t> scans_ = 0;
    std::atomic<std::uint64_t> changes_ = 0;
    std::atomic<std::uint64_t> judged_ = 0;
    std::vector<std::string> complaints_;
    std::thread thread_;

    void watch();
    void look_at_words();
    void look_at_order();
    void complain(const std::string &text);
    [[nodiscard]] std::string contradiction(Phase phase) const;
};

}  // namespace race

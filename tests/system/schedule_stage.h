// The stage of the tests about schedules and logs: the stage of tests in virtual time, told by the calendar.
// What happened is a list of notes such as "2024-03-05 22:30:00 S10R00050", by the wall clock in its zone.
#pragma once

#include "vt_stage.h"

#include <cstdint>
#include <string>
#include <vector>

namespace stage
{

using namespace std::chrono_literals;
using bed::Settings;
using Notes = std::vector<std::string>;

/// Reads "2024-03-05 22:30:00" as local time of the clock's zone, and "2024-03-05 22:30:00 UTC" as what it
/// says.
std::int64_t moment(const std::string &text);
std::string shown(std::int64_t moment);
std::string shown_utc(std::int64_t moment);
/// "none" for a time that is not set.
std::string shown(const UPS_TIMEINFO &time);

Notes together(Notes notes, const Notes &more);
/// `count` notes of the same text, `spacing` apart.
Notes every(const std::string &first, testbed::seconds spacing, int count, const std::string &text);

struct Scene {
    Settings settings;
    std::string start;  // UTC
    std::string zone = "UTC0";
    std::string model = "ZR900PL";
    std::vector<std::string> unit = {};  // commands to the unit before anything is known of it
};

class DatedStage : public bed::Stage
{
  public:
    /// Returns with the link established.
    explicit DatedStage(const Scene &scene);

    void run_to(const std::string &when);
    void leap_to(const std::string &when, testbed::seconds step);
    void set_wall(const std::string &when);
    void wait_for_link(int commstatus);
    [[nodiscard]] bool agent_runs() const;

    /// What a monitor is shown; "none" when there is none.
    [[nodiscard]] std::string goes_down_at() const;
    [[nodiscard]] std::string boots_at() const;
    /// Ids of the events since the link was there first.
    [[nodiscard]] std::vector<int> happened() const;
    [[nodiscard]] Notes logged() const;
    [[nodiscard]] Notes walled() const;
    [[nodiscard]] Notes noticed() const;
    /// Since the link was there first, by the clock that nobody sets.
    [[nodiscard]] Notes ordered() const;
    [[nodiscard]] Notes shut_down() const;

  private:
    std::int64_t start_;
    double linked_at_ = 0;
    std::size_t events_before_ = 0;

    [[nodiscard]] Notes noted(const std::vector<bed::Said> &all) const;
};

}  // namespace stage

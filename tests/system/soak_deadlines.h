// What brings the machine down, and when: a small model of the rules for competing deadlines, made from what
// the manual says and from nothing of the daemon. The checker of the soak compares the daemon with it.
//
// Times called `wall` are seconds since the epoch by the clock that may be set, times called `now` seconds by
// the clock that nobody sets.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace soak
{

inline constexpr char HOST[] = "voltaria-test";

enum class Reason {
    none = -1,
    special = 1,
    weekly,
    monthly,
    ac_fail,
    battery_low,
    event,
    user,
    user_low,
    agent
};

[[nodiscard]] inline bool is_scheduled(Reason reason)
{
    return reason == Reason::special || reason == Reason::weekly || reason == Reason::monthly;
}

// The working configuration, as far as the rules depend on it. Times in seconds.
struct Config {
    int on_battery = 60;
    int turn_off = 600;
    int first_warning = 30;
    int interval = 30;
    int warn_schedule = 600;
    bool event_log = true;
    int event_lines = 200;
    bool data_log = true;
    int data_lines = 200;
    int data_interval = 60;
    int agenttype = 4;
    bool ignore = true;
    std::string group = "Group A";

    [[nodiscard]] int grace() const
    {
        return agenttype == 6 ? 120 : agenttype == 5 ? 60 : 0;
    }
    [[nodiscard]] int shown_grace() const
    {
        return ignore ? 0 : grace();
    }
};

// One entry of the schedules, UTC.
struct Entry {
    Reason kind = Reason::weekly;
    bool test = false;
    bool on = true;
    int day = 0;    // of the week from Sunday, of the month; of a special date its month's
    int month = 0;  // 0 to 11
    int year = 0;   // since 1900
    int hour = 0;
    int minute = 0;
    int off_minutes = 60;

    [[nodiscard]] std::int64_t
    next(std::int64_t from) const;  // its first minute that begins then or later; 0 none
};

// The deadlines of one life of the daemon.
class Deadlines
{
  public:
    explicit Deadlines(const Config &config, const std::vector<Entry> &entries)
        : config_(&config), entries_(&entries)
    {
    }

    double ac_since = -1;  // mains has been away, by `now`; -1 it has not
    std::int64_t user_off = 0;
    std::int64_t next_off = 0;
    Reason reason = Reason::none;
    std::int64_t schedule_off = 0;
    Reason schedule_kind = Reason::none;
    std::int64_t next_test = 0;
    Reason test_kind = Reason::none;
    bool reached = false;  // keeps events from beginning a shutdown of their own
    bool going = false;    // the machine goes down
    double grace_began = 0;
    std::int64_t event_off = 0;
    bool warned = false;  // the event that announces a schedule has come
    std::int64_t last_warning = 0;
    std::int64_t last_schedule_warning = 0;
    bool user_told = false;
    std::string orderer, orderer_host;  // of the last user's order in force
    std::string agent;                  // host that stands in the log with 80 and 134
    int cause = 255;                    // the last event that may bring the machine down
    int teller = 255;                   // the event whose settings say who hears of the shutdown

    /// What one turn of the agent looks at before it acts.
    void turn(double now, std::int64_t wall, bool link);
    [[nodiscard]] std::int64_t ac_off(double now, std::int64_t wall) const;

    void link_found(std::int64_t wall);
    void link_lost(std::int64_t wall);
    void mains_back();
    void order(const std::string &name, int delay, double now, std::int64_t wall, bool link);
    void cancel();
    /// An event whose settings ask for a shutdown has come.
    void event(int id, double now, std::int64_t wall);
    void begin(double now, bool link);
    void call_off();
    /// What a scheduled moment leaves behind once it is over, carried out or not.
    void pass_schedule();
    void pass_test();
    void clock_set(std::int64_t from, std::int64_t to);

  private:
    const Config *config_;
    const std::vector<Entry> *entries_;
    Reason last_ = Reason::none;
    Reason before_last_ = Reason::none;
    bool suspended_ = false;  // the schedule went with the link
    std::int64_t schedule_done_ = 0;
    std::int64_t test_done_ = 0;

    void note_reason();
    void find_schedule(std::int64_t wall);
    void choose(double now, std::int64_t wall);
};

}  // namespace soak

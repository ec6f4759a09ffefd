// The life of the soak: what happens to a machine, its unit, its line and its network within weeks, drawn by
// a seed from a table of what may happen and how often. Nothing here knows what the daemon should make of it:
// the life tells the checker what it does, and the checker (soak_rules.h) judges what comes.
#pragma once

#include "soak_rules.h"
#include "soak_stage.h"

#include <functional>
#include <iosfwd>
#include <random>
#include <string>
#include <vector>

namespace soak
{

struct Options {
    unsigned seed = 1;
    int days = 30;
    std::ostream *story = nullptr;     // everything that was done and seen; the same for the same seed
    std::ostream *progress = nullptr;  // a line a day, with figures of the processes
};

struct Figures {
    double days = 0;
    Tally tally;
    int starts = 0;
    int shutdowns = 0;
    int kills = 0;
    int deeds = 0;
    std::size_t monitors = 0;
    std::size_t answers = 0;
    Holdings agent_first, agent_worst, ups_first, ups_worst;
    std::size_t event_log = 0;  // bytes, the most that there were
    std::size_t data_log = 0;
    std::size_t settings_first = 0;
    std::size_t settings = 0;
};

class Life
{
  public:
    explicit Life(const Options &options);

    /// Lives its days, or until the first fault.
    void live();
    [[nodiscard]] const std::vector<std::string> &faults() const
    {
        return faults_;
    }
    [[nodiscard]] const Figures &figures() const
    {
        return figures_;
    }
    /// What was done and seen last, for whoever has to find out why.
    [[nodiscard]] std::string last_words() const;

  private:
    struct Deed {
        const char *name;
        int per_month;
        void (Life::*act)();
    };
    static const std::vector<Deed> DEEDS;

    Options options_;
    std::mt19937_64 random_;
    std::string model_;
    Rules rules_;
    Stage stage_;
    Truth truth_;
    Figures figures_;
    std::vector<std::string> faults_;
    std::deque<std::string> recent_;
    double logged_steadily_since_ = 0;

    [[nodiscard]] int below(int limit);
    [[nodiscard]] int between(int low, int high);
    [[nodiscard]] bool chance(int percent);
    template <typename T, std::size_t N> T any(const T (&of)[N])
    {
        return of[static_cast<std::size_t>(below(static_cast<int>(N)))];
    }

    // ---- living
    void tell(const std::string &what);
    void saw(const Look &look);
    [[nodiscard]] bool goes_on() const;
    void pass(double seconds);
    void idle(double until);
    void settle(double limit = 900);
    void day();
    void do_one();
    void inspect();
    void inspect_logs();
    void measure();
    void report();

    // ---- the machine
    void start();
    void machine_off(const std::string &why);
    void restore_unit();
    void come_back();

    // ---- the unit
    void unit(const std::string &command);
    void set_mains(bool on);
    void set_reachable(bool reachable, const std::string &command);
    void ask(const std::string &packet);

    // ---- deeds
    void short_failure();
    void long_failure();
    void failure_with_low_battery();
    void flicker();
    void failure_with_line_cut();
    void low_battery();
    void line_lost();
    void port_unplugged();
    void short_silence();
    void user_test();
    void long_test();
    void failing_test();
    void condition();
    void condition_brings_down();
    void monitors_visit();
    void inquiries();
    void change_settings();
    void change_events();
    void change_schedules();
    void log_off_for_a_while();
    void order_and_cancel();
    void order_to_the_end();
    void order_with_line_cut();
    void order_of_agent_ignored();
    void order_of_agent_heeded();
    void set_clock();
    void clear_logs();
    void switches();
    void tool_announces();
    void tool_stops();
    void killed();
    void ups_process_killed();

    void send_settings(const Config &settings);
    void send_events(const std::array<EventSetting, 256> &events);
    [[nodiscard]] Entry draw_entry(bool test);
    [[nodiscard]] bool near_schedule(std::int64_t wall, int within) const;
    void order(int delay);
    void cancel();
    void agent_has_ended();
    void agent_order(const std::string &name, const std::string &group, int agenttype);
    void condition_for(const char *on, const char *off, bool Truth::*what, double seconds);
};

}  // namespace soak

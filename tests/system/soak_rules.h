// The checker of the soak: it knows the rules, is told what the life does to the daemon, the unit and the
// line, sees what comes out, and wants every line of the event log, every notice, every wall and every order
// to switch the unit off to have its cause, and every cause to have led to what it must within its time.
//
// Two layers. What the unit is must stand in the shared block within seconds; what stands there must become
// the events and deadlines that belong to it. The first fault ends the soak: what follows it means nothing.
#pragma once

#include "soak_deadlines.h"
#include "soak_stage.h"

#include <array>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace soak
{

struct EventSetting {
    bool record = true;
    bool shutdown = false;
    unsigned broadcast = 3;
};

// What the unit and its line really are.
struct Truth {
    bool reachable = true;  // a question is answered
    bool mains = true;
    bool low = false;
    bool weak = false;
    bool disconnected = false;
    bool fault = false;
    bool overload = false;
    bool bypass = false;
};

struct Tally {
    std::size_t events = 0;
    std::size_t notices = 0;
    std::size_t walls = 0;
    std::size_t duties = 0;  // that were met
    std::array<std::size_t, 256> of_event{};
};

class Rules
{
  public:
    Rules(Config config, std::string model);

    // ---- what is in force; the life changes it in the moment in which it changes the daemon's
    Config config;
    std::array<EventSetting, 256> events;
    std::vector<Entry> entries;
    std::string model;

    // ---- what the life does
    void daemon_starts(double now);
    void daemon_gone();   // nothing may come from it any more
    void daemon_stops();  // was asked to
    void truth(const Truth &truth, double now);
    /// Test results that the unit tells show as bits that nobody switched on.
    void tests_find_faults();
    void takes_settings(const Config &settings);
    void takes_events(const std::array<EventSetting, 256> &settings);
    void takes_schedules(const std::vector<Entry> &schedules);
    void orders(const std::string &name, int delay);
    void cancels(const std::string &name);
    void agent_orders(const std::string &orderer, const std::string &group, int agenttype);
    void orders_test(Reason reason);  // none: cancels one
    /// An order that is an event and nothing else.
    void switches(int event);
    void clears_log();
    void clock_set(std::int64_t from, std::int64_t to);

    // ---- what comes out
    void look(const Look &look);

    /// Something is under way: time must not leap.
    [[nodiscard]] bool busy() const;
    /// The wall clock's next moment from which time must not leap; 0 none.
    [[nodiscard]] std::int64_t next_moment() const;
    [[nodiscard]] bool machine_down() const
    {
        return down_;
    }
    [[nodiscard]] const std::vector<std::string> &faults() const
    {
        return faults_;
    }
    [[nodiscard]] const Tally &tally() const
    {
        return tally_;
    }
    [[nodiscard]] const Deadlines &deadlines() const
    {
        return deadlines_;
    }

  private:
    enum class Kind { event, notice, order };
    // What must come, or may.
    struct Duty {
        Kind kind;
        int id;            // of an event
        std::string text;  // a notice, the begin of an order; the name that stands with an event
        double by;
        bool must;
    };
    struct Wall {
        std::string text;
        bool must;
    };

    Deadlines deadlines_;
    Deadlines earlier_;  // as they were when the look began
    std::list<Duty> duties_;
    std::vector<Wall> walls_;
    std::vector<std::string> faults_;
    Tally tally_;
    Look before_;
    double now_ = 0;
    std::int64_t wall_ = 0;
    bool alive_ = false;
    bool stopping_ = false;
    bool down_ = false;
    bool established_ = false;  // the link has been, in this life of the daemon
    bool fault_told_ = false;
    bool log_cleared_ = false;
    bool scheduled_before_ = false;
    std::uint32_t spoilt_bits_ = 0;
    Reason test_reason_ = Reason::none;
    Truth truth_;
    double truth_since_ = 0;
    double reachable_since_ = 0;
    double comm_since_ = 0;
    double steady_since_ = 0;  // nothing that is shown to monitors has changed
    double due_since_ = -1;    // the deadline in force has passed
    double warn_since_ = -1;   // a warning is due
    double final_since_ = -1;  // the grace is over
    double goodbyes_until_ = -1;
    double grace_told_ = -1e9;
    int goodbyes_ = 0;
    bool ordered_off_ = false;
    std::int64_t shown_off_ = 0;
    Reason shown_reason_ = Reason::none;

    void fault(const std::string &what);
    void want_event(int id, const std::string &name = "", double within = 0, bool must = true);
    void want_notice(const std::string &text, bool must = true);
    bool meets(Kind kind, int id, const std::string &text);
    void look_for_overdue();

    // ---- the shared block (soak_rules_record.cpp)
    void judge_truth(const Look &look);
    void judge_link(const Look &look);
    void judge_bits(const Look &look);
    void judge_test(const Look &look);
    void judge_shown(const Look &look);

    // ---- the event log (soak_rules_events.cpp)
    void happens(int event);
    void take_effect(int event);
    void judge_event(const LoggedEvent &event);
    void judge_arrival(const LoggedEvent &event);
    void judge_announcement(const LoggedEvent &event);
    void judge_end(const LoggedEvent &event);
    void begin_shutdown();
    void judge_test_start();
    void judge_missing();
    [[nodiscard]] bool grace_over() const;

    // ---- what is told (soak_rules_told.cpp)
    void tell_of(int id, const std::string &name);
    void wall_of(int id, const std::string &text);
    void judge_walls(const Look &look);
    void judge_notice(const std::string &text);
    void judge_ac_warning(const std::string &text);
    void judge_schedule_warning(const std::string &text);
    void judge_goodbyes(const Look &look);
    void judge_orders(const Look &look);

    [[nodiscard]] bool link() const
    {
        return before_.comm == 2;
    }
};

}  // namespace soak

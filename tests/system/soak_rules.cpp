// The checker of the soak: what it is told and what it owes. What the life does to the daemon becomes duties,
// and each look at the daemon meets them or finds a fault. What is judged in a look has files of its own: the
// shared block soak_rules_record.cpp, the event log soak_rules_events.cpp, and what is told to monitors, on
// terminals and to the unit soak_rules_told.cpp.
#include "soak_rules_internal.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace soak
{

static constexpr double START = 12;  // s until a daemon that was started has said so

Rules::Rules(Config settings, std::string name)
    : config(std::move(settings)), model(std::move(name)), deadlines_(config, entries),
      earlier_(config, entries)
{
    for (const int id : {128, 129, 130, 131, 132, 133, 134})
        events[static_cast<std::size_t>(id)] = {true, true, 0};
    for (const int id : {65, 74, 75, 76, 79, 80, 0})
        events[static_cast<std::size_t>(id)] = {true, false, 0};
}

void Rules::fault(const std::string &what)
{
    std::ostringstream text;
    text << std::fixed;
    text.precision(3);
    text << now_ << ": " << what << " [reason " << static_cast<int>(deadlines_.reason) << ", next "
         << deadlines_.next_off - wall_ << ", order " << deadlines_.user_off - wall_ << ", schedule "
         << deadlines_.schedule_off - wall_ << ", mains away since " << deadlines_.ac_since << ", going "
         << deadlines_.going << ", link " << before_.comm << "]";
    faults_.push_back(text.str());
}

// ---- duties

void Rules::want_event(int id, const std::string &name, double within, bool must)
{
    const EventSetting &setting = events[static_cast<std::size_t>(id)];
    const double by = now_ + (within > 0 ? within : PROMPT);
    if (!setting.record || !config.event_log)
        return;
    duties_.push_back({Kind::event, id, name, by, must});
}

void Rules::want_notice(const std::string &text, bool must)
{
    duties_.push_back({Kind::notice, 0, text, now_ + PROMPT, must});
}

bool Rules::meets(Kind kind, int id, const std::string &text)
{
    const auto duty = std::find_if(duties_.begin(), duties_.end(), [&](const Duty &candidate) {
        if (candidate.kind != kind || candidate.id != id)
            return false;
        return kind == Kind::order ? text.starts_with(candidate.text) : text == candidate.text;
    });
    if (duty == duties_.end())
        return false;
    duties_.erase(duty);
    ++tally_.duties;
    return true;
}

void Rules::look_for_overdue()
{
    for (const Duty &duty : duties_)
        if (duty.must && duty.by < now_)
            fault("missing: " + (duty.kind == Kind::event ? "event " + std::to_string(duty.id) + " " : "") +
                  (duty.kind == Kind::order ? "order " : "") + "\"" + duty.text + "\"");
    duties_.remove_if([this](const Duty &duty) { return duty.by < now_; });
}

// ---- what the life does

void Rules::daemon_starts(double now)
{
    now_ = now;
    deadlines_ = Deadlines(config, entries);
    duties_.clear();
    walls_.clear();
    const Look &last = before_;
    Look first;
    first.now = last.now;
    first.wall = last.wall;
    before_ = first;
    alive_ = true;
    stopping_ = down_ = established_ = fault_told_ = false;
    ordered_off_ = false;
    test_reason_ = Reason::none;
    spoilt_bits_ = 0;
    reachable_since_ = comm_since_ = steady_since_ = now_;
    due_since_ = warn_since_ = final_since_ = -1;
    grace_told_ = -1e9;
    want_event(7, "", START);
}

void Rules::daemon_gone()
{
    alive_ = false;
    duties_.clear();
}

void Rules::daemon_stops()
{
    stopping_ = true;
    goodbyes_until_ = now_ + 2 * PROMPT;
    want_event(8, "", 2 * PROMPT);
}

void Rules::truth(const Truth &truth, double now)
{
    if (truth.reachable != truth_.reachable)
        reachable_since_ = now;
    truth_ = truth;
    truth_since_ = now;
}

void Rules::tests_find_faults()
{
    spoilt_bits_ |= BIT_WEAK | BIT_FAULT;
}

void Rules::takes_settings(const Config &settings)
{
    goodbyes_until_ = now_ + PROMPT;
    config = settings;
    steady_since_ = now_;
    warn_since_ = due_since_ = -1;
    want_event(9);
}

void Rules::takes_events(const std::array<EventSetting, 256> &settings)
{
    events = settings;
    want_event(11);
}

void Rules::takes_schedules(const std::vector<Entry> &schedules)
{
    entries = schedules;
    steady_since_ = now_;
    warn_since_ = due_since_ = -1;
    want_event(10);
}

void Rules::orders(const std::string &name, int delay)
{
    if (!link())
        return;
    deadlines_.order(name, delay, now_, wall_, link());
    want_notice("Receive shutdown Command From Users on " + name);
    want_event(79, name);
}

void Rules::cancels(const std::string &name)
{
    deadlines_.cancel();
    want_notice("The Shutdown is Canceled by Users on " + name);
    want_event(21, name);
}

// Only an order of the same group, from an agent of the same or a higher role, to one that does not ignore.
// Names of agents travel in capitals.
void Rules::agent_orders(const std::string &orderer, const std::string &group, int agenttype)
{
    if (config.ignore || group != config.group || agenttype < 4 || config.agenttype > agenttype ||
        deadlines_.going)
        return;
    std::string name = orderer;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return static_cast<char>(std::toupper(c)); });
    deadlines_.reason = Reason::agent;
    deadlines_.agent = name;
    deadlines_.next_off = wall_;
    want_event(80, name);
    want_notice("The system will begin shutdown process due to agent on " + name);
    deadlines_.teller = 80;
    begin_shutdown();
}

void Rules::orders_test(Reason reason)
{
    if (reason == Reason::none || link())
        test_reason_ = reason;
    if (reason == Reason::user_low && (deadlines_.ac_since >= 0 || deadlines_.reason == Reason::ac_fail))
        want_notice("Selftest Till Battery Low Failed Because of AC Fail!!!", false);
}

void Rules::switches(int event)
{
    want_event(event);
}

void Rules::clears_log()
{
    log_cleared_ = true;
}

void Rules::clock_set(std::int64_t from, std::int64_t to)
{
    deadlines_.clock_set(from, to);
    wall_ = to;
    steady_since_ = now_;
    warn_since_ = due_since_ = -1;
}

// ---- a look

void Rules::look(const Look &look)
{
    now_ = look.now;
    wall_ = look.wall;
    scheduled_before_ = is_scheduled(deadlines_.reason);
    if (look.log_shrank && !log_cleared_)
        fault("the event log lost lines");
    log_cleared_ = log_cleared_ && !look.log_shrank;
    if (alive_ && look.there) {
        judge_truth(look);
        deadlines_.turn(now_, wall_, link());
        earlier_ = deadlines_;
        judge_link(look);
        judge_bits(look);
        judge_test(look);
        before_ = look;
    }
    before_.now = look.now;
    if (!look.events.empty() && look.log_lines > static_cast<std::size_t>(config.event_lines))
        fault("the event log has " + std::to_string(look.log_lines) + " lines");
    for (const LoggedEvent &event : look.events)
        judge_event(event);
    if (alive_ && look.there) {
        deadlines_.turn(now_, wall_, link());
        judge_test_start();
    }
    for (const std::string &notice : look.notices)
        judge_notice(notice);
    judge_orders(look);
    judge_walls(look);
    judge_goodbyes(look);
    if (look.shutdowns > 0) {
        if (!ordered_off_ && link() && truth_.reachable)
            fault("the machine goes down without an order to the unit");
        if (!stopping_ || look.shutdowns > 1)
            fault("a shutdown too many");
        down_ = true;
    }
    if (alive_ && look.there && !down_) {
        judge_missing();
        judge_shown(look);
    }
    look_for_overdue();
}

bool Rules::busy() const
{
    return !duties_.empty() || deadlines_.going || deadlines_.ac_since >= 0 || stopping_ ||
           (before_.bits & BIT_TESTING) != 0 || truth_.reachable != link() ||
           now_ - std::max(truth_since_, comm_since_) < 2 * SEEN;
}

std::int64_t Rules::next_moment() const
{
    std::int64_t next = 0;
    const auto consider = [&](std::int64_t moment) {
        if (moment != 0 && (next == 0 || moment < next))
            next = moment;
    };
    if (deadlines_.schedule_off != 0)
        consider(deadlines_.schedule_off - config.warn_schedule);
    if (deadlines_.user_off != 0)
        consider(deadlines_.user_told ? deadlines_.user_off : deadlines_.user_off - config.warn_schedule);
    consider(deadlines_.next_test);
    return next;
}

}  // namespace soak

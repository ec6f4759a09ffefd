// The checker of the soak: what happens to the daemon, and its events. Notices, walls and orders to the unit
// are in soak_rules_told.cpp.
#include "soak_rules.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace soak
{

static constexpr double PROMPT = 2.6;          // s: a look once a second, and what it leads to
static constexpr double START = 12;            // s until a daemon that was started has said so
static constexpr double SEEN = 4;              // s until what the unit is stands in the record
static constexpr double NO_REPLY = 80;         // s until an order to a unit that is silent has failed
static constexpr double LOSS = 25;             // s until a silent line counts as lost
static constexpr double FINDING = 60;          // s until a line that answers is a link
static constexpr double GRACE_NOTICE = 10000;  // s between two notices of the grace

static constexpr std::uint32_t BIT_LOW = 0x100;
static constexpr std::uint32_t BIT_DISCONNECTED = 0x200;
static constexpr std::uint32_t BIT_WEAK = 0x400;
static constexpr std::uint32_t BIT_ACFAIL = 0x1000;
static constexpr std::uint32_t BIT_FAULT = 0x2000;
static constexpr std::uint32_t BIT_OVERLOAD = 0x4000;
static constexpr std::uint32_t BIT_BYPASS = 0x8000;
static constexpr std::uint32_t BIT_TESTING = 0x10000;
static constexpr std::uint32_t BIT_STANDBY = 0x40000;  // such a unit has no bypass
static constexpr std::uint32_t BIT_BATTERY_TEST = 0x80000;

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

// ---- the first layer: the unit and its line

void Rules::judge_truth(const Look &look)
{
    if (truth_.reachable && look.comm != 2 && now_ - reachable_since_ > FINDING)
        fault("a line that answers is no link");
    if (!truth_.reachable && look.comm == 2 && now_ - reachable_since_ > LOSS)
        fault("a silent line counts as a link");
    if (look.comm != 2 || before_.comm != 2 || now_ - std::max(truth_since_, comm_since_) < SEEN)
        return;
    std::uint32_t bits = 0;
    std::uint32_t looked_at = BIT_ACFAIL | BIT_FAULT | BIT_OVERLOAD | BIT_BYPASS | BIT_LOW | BIT_WEAK;
    const bool sees_battery =
        !model.starts_with("ZR401") && !model.starts_with("ZR6020") && !model.starts_with("ZQ");
    if (sees_battery)
        looked_at |= BIT_DISCONNECTED;
    bits |= truth_.mains ? 0 : BIT_ACFAIL;
    bits |= truth_.fault ? BIT_FAULT : 0;
    bits |= truth_.overload ? BIT_OVERLOAD : 0;
    bits |= truth_.bypass && (look.bits & BIT_STANDBY) == 0 ? BIT_BYPASS : 0;
    bits |= truth_.low ? BIT_LOW : 0;
    bits |= truth_.weak ? BIT_WEAK : 0;
    bits |= truth_.disconnected ? BIT_DISCONNECTED : 0;
    looked_at &= ~spoilt_bits_;
    if ((look.bits & looked_at) != (bits & looked_at)) {
        std::ostringstream text;
        text << std::hex << "the unit's bits are " << (bits & looked_at) << ", those of the record "
             << (look.bits & looked_at);
        fault(text.str());
    }
}

// ---- the second layer: what the record says must become events

// An event whose place in the log tells when it has its effect.
void Rules::happens(int event)
{
    const std::size_t duties = duties_.size();
    want_event(event);
    if (duties_.size() == duties)
        take_effect(event);
}

void Rules::take_effect(int event)
{
    steady_since_ = now_;
    due_since_ = warn_since_ = -1;
    switch (event) {
    case 0:
        return deadlines_.mains_back();
    case 1:
        return deadlines_.link_found(wall_);
    case 64:
        final_since_ = -1;
        return deadlines_.link_lost(wall_);
    default:
        deadlines_.ac_since = now_;
    }
}

void Rules::judge_link(const Look &look)
{
    if (look.comm == before_.comm || stopping_)
        return;
    comm_since_ = steady_since_ = now_;
    if (look.comm == 2) {
        established_ = true;
        happens(1);
        want_notice("UPS Communication established");
    } else if (look.comm == 17) {
        if (established_) {
            happens(64);
            want_notice("UPS communication Lost");
        } else {
            take_effect(64);
        }
    } else {
        fault("CommStatus " + std::to_string(look.comm));
    }
}

// What goes with a link says nothing about the unit; what comes with one does.
void Rules::judge_bits(const Look &look)
{
    const std::uint32_t raised = look.bits & ~before_.bits;
    const std::uint32_t cleared = ~look.bits & before_.bits;
    if (look.comm != 2 || stopping_)
        return;
    const bool found_failing = before_.comm != 2 && (look.bits & BIT_ACFAIL) != 0;
    if ((raised & BIT_ACFAIL) != 0 || found_failing) {
        happens(65);
    }
    if ((look.bits & BIT_FAULT) != 0 && !fault_told_)
        want_event(77);
    fault_told_ = (look.bits & BIT_FAULT) != 0;
    if ((raised & BIT_OVERLOAD) != 0)
        want_event(78);
    if ((raised & BIT_BYPASS) != 0)
        want_event(67);
    if ((cleared & BIT_ACFAIL) != 0) {
        happens(0);
        want_notice("UPS AC Restore");
    }
    if ((raised & BIT_LOW) != 0) {
        want_event(128);
        want_notice("UPS Battery Low");
    }
    if ((raised & BIT_WEAK) != 0) {
        want_event(68);
        want_notice(
            "Ups battery is weak.Please change the battery as soon as possible.\nIf you don't change the "
            "battery UPS can't action when UPS AC Fail.");
    }
    if ((raised & BIT_DISCONNECTED) != 0) {
        want_event(66);
        want_notice("UPS Battery Disconnect");
    }
}

void Rules::judge_test(const Look &look)
{
    if (look.comm != 2 || before_.comm != 2 || stopping_)
        return;
    if ((look.bits & ~before_.bits & BIT_TESTING) != 0 && (look.bits & BIT_DISCONNECTED) != 0)
        want_notice("UPS Battery Disconnect", false);
    if ((~look.bits & before_.bits & BIT_TESTING) == 0)
        return;
    if ((look.bits & BIT_BATTERY_TEST) != 0) {
        if (look.battery_result < 2)
            want_event(look.battery_result == 1 ? 6 : 73);
    } else {
        const bool passed = look.ups_result != 0;
        const Reason reason = test_reason_;
        if (reason == Reason::none || reason == Reason::user)
            want_event(passed ? 2 : 69);
        else if (is_scheduled(reason))
            want_event((passed ? 2 : 69) + static_cast<int>(reason));
    }
    test_reason_ = Reason::none;
}

// A scheduled self-test is left out without a link, in a mains failure and without a battery.
void Rules::judge_test_start()
{
    if (deadlines_.next_test == 0 || deadlines_.next_test > wall_ || deadlines_.going)
        return;
    const bool impossible = !link() || deadlines_.ac_since >= 0 || deadlines_.reason == Reason::ac_fail ||
                            (before_.bits & BIT_DISCONNECTED) != 0;
    test_reason_ = impossible ? Reason::none : deadlines_.test_kind;
    if (!impossible)
        duties_.push_back({Kind::order, 0, "T", now_ + 2 * PROMPT, before_.code == 0});
    deadlines_.pass_test();
}

// ---- events

void Rules::judge_event(const LoggedEvent &event)
{
    ++tally_.events;
    ++tally_.of_event[static_cast<std::size_t>(event.id & 0xFF)];
    if (!alive_)
        fault("event " + std::to_string(event.id) + " of a daemon that is gone");
    if (std::abs(event.at - wall_) > 1)
        fault("event " + std::to_string(event.id) + " is stamped " + std::to_string(event.at - wall_) +
              " s off");
    if (!events[static_cast<std::size_t>(event.id & 0xFF)].record || !config.event_log)
        fault("event " + std::to_string(event.id) + " is not to be logged");
    if (event.id != 22 && event.cause != 255)
        fault("event " + std::to_string(event.id) + " with cause " + std::to_string(event.cause));
    if (event.id >= 129 && event.id <= 133)
        judge_arrival(event);
    else if (event.id >= 74 && event.id <= 76)
        judge_announcement(event);
    else if (event.id == 22 || event.id == 134 || (event.id == 8 && deadlines_.going))
        judge_end(event);
    else if (!meets(Kind::event, event.id, event.name))
        fault("event " + std::to_string(event.id) + " \"" + event.name + "\" without a cause");
    tell_of(event.id, event.name);
    if (event.id == 0 || event.id == 1 || event.id == 64 || event.id == 65)
        take_effect(event.id);
    if (event.id == 8)
        stopping_ = true;
    const bool brings_down = events[static_cast<std::size_t>(event.id & 0xFF)].shutdown;
    if (brings_down)
        deadlines_.event(event.id, now_, wall_);
    if (event.id == 128) {
        deadlines_.reason = Reason::battery_low;
        deadlines_.next_off = wall_;
    }
    const bool grace = deadlines_.going;
    if (brings_down && !grace && (event.id == 128 || deadlines_.reason == Reason::event)) {
        deadlines_.teller = event.id;
        want_notice(event.id == 128 ? "The system will begin shutdown process due to Battery Low" : "*");
        begin_shutdown();
    }
    if (event.id >= 129 && event.id <= 133) {
        deadlines_.teller = event.id == 129 ? 65 : event.id;
        begin_shutdown();
    }
}

static Reason reason_of_arrival(int id)
{
    static constexpr std::array REASONS = {Reason::ac_fail, Reason::special, Reason::weekly, Reason::monthly,
                                           Reason::user};
    return REASONS[static_cast<std::size_t>(id - 129)];
}

// The time has come, and it was the time in force. A failure of mains must be over its time, not at it.
void Rules::judge_arrival(const LoggedEvent &event)
{
    const std::string what = "event " + std::to_string(event.id);
    if (deadlines_.going)
        fault(what + " while the machine goes down");
    else if (deadlines_.reason != reason_of_arrival(event.id))
        fault(what + " is not what is due");
    else if (event.id == 129 && std::abs(now_ - deadlines_.ac_since - config.on_battery - 1) > 1.5)
        fault(what + " after " + std::to_string(now_ - deadlines_.ac_since) + " s on battery");
    else if (event.id != 129 && deadlines_.next_off > wall_)
        fault(what + " too early");
    deadlines_.reached = true;
}

void Rules::judge_announcement(const LoggedEvent &event)
{
    const std::string what = "event " + std::to_string(event.id);
    if (static_cast<int>(deadlines_.reason) != event.id - 73)
        fault(what + " of a schedule that is not the next");
    else if (deadlines_.warned)
        fault(what + " a second time");
    else if (deadlines_.schedule_off - wall_ > config.warn_schedule || !link())
        fault(what + " too early, or without a link");
    deadlines_.warned = true;
}

bool Rules::grace_over() const
{
    return config.ignore || wall_ >= deadlines_.next_off + config.grace() ||
           now_ - deadlines_.grace_began >= config.grace() - 0.5;
}

// The last three: another agent's time has come, the system goes down, the agent stops.
void Rules::judge_end(const LoggedEvent &event)
{
    const std::string what = "event " + std::to_string(event.id);
    if (!deadlines_.going)
        return fault(what + " although the machine stays up");
    if (event.id != 8 && !grace_over())
        fault(what + " within the grace");
    const bool elsewhere = !config.ignore && deadlines_.orderer != deadlines_.orderer_host;
    if (event.id == 134) {
        if (!elsewhere || event.name != deadlines_.agent)
            fault(what + " \"" + event.name + "\" although nobody else has ordered it");
        deadlines_.orderer = deadlines_.orderer_host;  // once
    } else if (event.id == 22) {
        if (elsewhere)
            fault(what + " without 134");
        if (event.cause != deadlines_.cause)
            fault(what + " with cause " + std::to_string(event.cause) + " instead of " +
                  std::to_string(deadlines_.cause));
        stopping_ = true;
        goodbyes_until_ = now_ + NO_REPLY;
        want_event(8, "", truth_.reachable ? PROMPT : NO_REPLY);
        final_since_ = -1;
    } else if (!meets(Kind::event, 8, "")) {
        fault(what + " before 22");
    }
}

void Rules::begin_shutdown()
{
    const Reason reason = deadlines_.reason;
    due_since_ = warn_since_ = -1;
    if (reason != Reason::agent) {
        want_notice("Time is up! System shutdown will be executed soon");
        goodbyes_until_ = now_ + PROMPT;
        if (!config.ignore && (reason != Reason::user || deadlines_.orderer != deadlines_.orderer_host))
            want_event(80, HOST);
    }
    deadlines_.begin(now_, link());
    if (!deadlines_.going || config.ignore || config.grace() == 0)
        return;
    if (now_ - grace_told_ > GRACE_NOTICE) {
        want_notice("The system will shutdown in " + std::to_string(config.grace() / 60) + " minutes");
        grace_told_ = now_;
    }
}

// ---- what should have happened by itself

void Rules::judge_missing()
{
    const auto overdue = [this](double &since, bool due, const std::string &what, double within = PROMPT) {
        if (!due)
            since = -1;
        else if (since < 0)
            since = now_;
        else if (now_ - since > within)
            fault("missing: " + what);
    };
    const bool ac = deadlines_.reason == Reason::ac_fail;
    const bool due = ac ? now_ - deadlines_.ac_since > config.on_battery + 1
                        : deadlines_.next_off != 0 && deadlines_.next_off <= wall_ &&
                              (link() || !is_scheduled(deadlines_.reason));
    overdue(due_since_, due && !deadlines_.going, "the shutdown that is due");
    overdue(final_since_, deadlines_.going && !stopping_ && grace_over(), "the end of the grace");
    const std::int64_t left = deadlines_.next_off - wall_;
    const bool warns = (ac &&
                        left <= static_cast<std::int64_t>(
                                    static_cast<std::uint32_t>(config.on_battery - config.first_warning)) &&
                        wall_ - deadlines_.last_warning > config.interval) ||
                       (is_scheduled(deadlines_.reason) && left <= config.warn_schedule &&
                        wall_ - deadlines_.last_schedule_warning > (left > 600 ? 300 : 60));
    overdue(warn_since_, warns && !due && link() && !deadlines_.going, "a warning");
    if (!link() && is_scheduled(deadlines_.reason) && deadlines_.schedule_off <= wall_)
        deadlines_.pass_schedule();
}

// What monitors are shown: the deadline in force, and the grace.
void Rules::judge_shown(const Look &look)
{
    const bool steady = shown_reason_ == deadlines_.reason &&
                        std::abs(shown_off_ - deadlines_.next_off) <= 1 && !deadlines_.going;
    if (!steady) {
        shown_reason_ = deadlines_.reason;
        shown_off_ = deadlines_.next_off;
        steady_since_ = now_;
    }
    if (now_ - std::max(steady_since_, comm_since_) < PROMPT || deadlines_.going)
        return;
    const bool shown = deadlines_.next_off != 0 && link();
    const std::int64_t expected = shown ? deadlines_.next_off + config.shown_grace() : 0;
    if (std::abs(look.nextdown - expected) > (shown ? 2 : 0))
        fault("monitors are shown " + std::to_string(look.nextdown - wall_) +
              " s to the shutdown, and it is " + std::to_string(expected - wall_));
}

}  // namespace soak

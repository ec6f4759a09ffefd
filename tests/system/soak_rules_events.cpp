// The checker of the soak: the event log. Each line of it must be due at that moment and has its effect; and
// what should have happened by now must stand in it.
#include "soak_rules_internal.h"

#include <cmath>

namespace soak
{

static constexpr double NO_REPLY = 80;         // s until an order to a unit that is silent has failed
static constexpr double GRACE_NOTICE = 10000;  // s between two notices of the grace

// ---- what an event does

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

// ---- events that came

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

}  // namespace soak

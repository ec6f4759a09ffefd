// The checker of the soak: the shared block. What the unit is must stand in it within seconds, what comes and
// goes in it must become events, and what it shows to monitors is the deadline in force.
#include "soak_rules_internal.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace soak
{

static constexpr double LOSS = 25;     // s until a silent line counts as lost
static constexpr double FINDING = 60;  // s until a line that answers is a link

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

// ---- what monitors are shown

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

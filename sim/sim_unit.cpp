// The unit's life. Physics runs in ticks of a fixed length, whatever the steps in which time is passed in, so
// that the same seed gives the same measurements; deadlines (end of a test, switch-off, restart) are met
// exactly.
#include "sim_unit.h"

#include <algorithm>
#include <cmath>

namespace sim
{

static constexpr Time TICK = std::chrono::milliseconds(250);
static constexpr Time SHORTEST_OFF =
    std::chrono::seconds(10);                           // so that what hangs on the output really restarts
static constexpr Time WATCH = std::chrono::seconds(1);  // how often a discharging unit wants to be looked at
static constexpr double INPUT_LAG = 0.3;                // s
static constexpr double INPUT_LOWEST = 80.0;            // V: below, and above the highest, battery takes over
static constexpr double INPUT_HIGHEST = 120.0;
static constexpr std::size_t LONGEST_COMMAND = 64;

static void note(Unit &unit, std::string text)
{
    unit.events.push_back(std::move(text));
}

Unit unit_new(const Model &model, const Surroundings &around, std::uint64_t seed, Time now)
{
    Unit unit;
    unit.model = &model;
    unit.around = around;
    unit.random.state = seed;
    unit.now = now;
    unit.next_tick = now + TICK;
    unit.battery = battery_full(model);
    unit.standby = model.standby;
    unit.mains_was_good = unit_mains_good(unit);
    unit.input_volts = around.mains ? around.mains_volts : 0.0;
    return unit;
}

bool unit_mains_good(const Unit &unit)
{
    return unit.around.mains && unit.around.mains_volts >= INPUT_LOWEST &&
           unit.around.mains_volts <= INPUT_HIGHEST;
}

static bool battery_usable(const Unit &unit)
{
    return unit.battery.charge > 0.0 && !unit.battery_disconnected;
}

bool unit_powered(const Unit &unit)
{
    return unit_mains_good(unit) || battery_usable(unit);
}

bool unit_on_battery(const Unit &unit)
{
    return !unit_mains_good(unit) && battery_usable(unit);
}

bool unit_battery_low(const Unit &unit)
{
    if (unit.battery_low != LowShown::automatic)
        return unit.battery_low == LowShown::on;
    return unit.battery.charge * 100.0 < unit.model->low_percent;
}

double unit_load(const Unit &unit)
{
    return unit.output.on ? std::clamp(unit.around.load + unit.load_drift, 0.0, 999.0) : 0.0;
}

double unit_output_volts(const Unit &unit)
{
    if (!unit.output.on)
        return 0.0;
    return unit.bypass && unit_mains_good(unit) ? unit.input_volts : NOMINAL_VOLTS;
}

// ---- output ----

static void switch_output_on(Unit &unit)
{
    unit.output = Output{};
    note(unit, "output on");
}

static void switch_output_off(Unit &unit, Comeback comeback, Time not_before)
{
    unit.output = Output{.on = false, .comeback = comeback, .not_before = not_before};
    if (unit.test.running != TestKind::none)
        note(unit, "self-test aborted");
    unit.test.running = TestKind::none;
    note(unit, "output off");
}

// Counts an ordered switch-off as done. Without a timed restart the unit comes back with mains, if it may: at
// once when the order fell into an outage that is over by now, else only after the next outage.
static void carry_out_order(Unit &unit)
{
    const SwitchOff order = unit.order;
    unit.order = SwitchOff{};
    if (order.stay_off) {
        switch_output_off(unit, Comeback::when_mains, unit.now + std::max(*order.stay_off, SHORTEST_OFF));
        return;
    }
    Comeback comeback = Comeback::never;
    if (!order.for_good && unit.auto_restart)
        comeback = order.saw_outage ? Comeback::when_mains : Comeback::after_outage;
    switch_output_off(unit, comeback, unit.now + SHORTEST_OFF);
}

static void come_back_if_possible(Unit &unit)
{
    if (!unit.output.on && unit.output.comeback == Comeback::when_mains &&
        unit.now >= unit.output.not_before && unit_mains_good(unit))
        switch_output_on(unit);
}

// Without any power the output drops and every order is forgotten; with auto restart it returns with mains.
static void lose_power(Unit &unit)
{
    note(unit, "no power left");
    if (unit.output.on)
        switch_output_off(unit, unit.auto_restart ? Comeback::when_mains : Comeback::never, unit.now);
    unit.order = SwitchOff{};
    unit.received.clear();
    unit.too_long = false;
}

// Called after everything that may have changed where the power comes from.
static void follow_power(Unit &unit)
{
    const bool good = unit_mains_good(unit);
    if (good != unit.mains_was_good) {
        unit.mains_was_good = good;
        unit.transfer_volts = unit.input_volts;
        note(unit, good ? "mains good" : "mains failure");
        if (!good && unit.test.running != TestKind::none) {
            unit.test.running = TestKind::none;
            note(unit, "self-test aborted");
        }
        if (!good && unit.output.comeback == Comeback::after_outage)
            unit.output.comeback = Comeback::when_mains;
    }
    if (!good && unit.order.counting)
        unit.order.saw_outage = true;
    const bool powered = unit_powered(unit);
    if (powered != unit.was_powered) {
        unit.was_powered = powered;
        unit.woke = powered;
        if (!powered)
            lose_power(unit);
    }
    come_back_if_possible(unit);
}

// ---- self-tests ----

static void finish_test(Unit &unit)
{
    unit.test.running = TestKind::none;
    unit.test.found_weak = unit.test.will_be == TestResult::weak;
    unit.test.found_failure = unit.test.will_be == TestResult::fail;
    note(unit, "self-test ended");
}

// A test cannot be run without mains to fall back on, without a battery to test, or twice at once.
bool unit_start_test(Unit &unit, TestKind kind)
{
    if (unit.test.running != TestKind::none || !unit_mains_good(unit) || unit.battery_disconnected ||
        unit_battery_low(unit) || !unit.output.on)
        return false;
    unit.test.running = kind;
    if (kind == TestKind::brief)
        unit.test.ends = unit.now + unit.test.brief_lasts;
    else
        unit.test.ends =
            unit.test.long_lasts ? std::optional(unit.now + *unit.test.long_lasts) : std::nullopt;
    note(unit, kind == TestKind::brief ? "self-test started" : "long self-test started");
    return true;
}

bool unit_cancel_test(Unit &unit)
{
    if (unit.test.running == TestKind::none)
        return false;
    unit.test.running = TestKind::none;
    note(unit, "self-test cancelled");
    return true;
}

// A test until the battery gets low stops on the brink: charging starts before the unit calls the battery
// low.
static void end_test_when_low(Unit &unit)
{
    const double brink = unit.model->low_percent / 100.0;
    if (unit.test.running == TestKind::none || unit.battery.charge > brink)
        return;
    unit.battery.charge = brink;
    finish_test(unit);
}

// ---- orders ----

bool unit_order_off(Unit &unit, Time delay, std::optional<Time> stay_off, bool for_good)
{
    if (!unit.output.on)
        return false;
    unit.order = SwitchOff{.counting = true,
                           .at = unit.now + delay,
                           .stay_off = stay_off,
                           .for_good = for_good,
                           .saw_outage = !unit_mains_good(unit)};
    note(unit, "switch-off ordered");
    return true;
}

// Calls the order off at whatever stage it is: a countdown ends, an output that waits to come back does so at
// once.
bool unit_cancel_order(Unit &unit)
{
    if (unit.order.counting) {
        unit.order = SwitchOff{};
        note(unit, "switch-off cancelled");
        return true;
    }
    if (!unit.output.on && unit.output.comeback != Comeback::never && unit_mains_good(unit)) {
        switch_output_on(unit);
        return true;
    }
    return false;
}

// ---- time ----

static BatteryUse battery_use(const Unit &unit)
{
    if (unit.battery_disconnected)
        return BatteryUse::idle;
    if (unit.test.running != TestKind::none || !unit_mains_good(unit))
        return BatteryUse::discharging;
    return BatteryUse::charging;
}

// Wanders by up to `step` a tick, drawn back to 0, and never beyond `most`.
static double wander(Random &random, double value, double step, double most)
{
    return std::clamp(value * 0.995 + random_swing(random) * step, -most, most);
}

static void tick(Unit &unit)
{
    const double real_seconds = to_seconds(TICK);
    const double seconds = real_seconds * unit.around.rate;
    const double input = unit.around.mains ? unit.around.mains_volts : 0.0;
    unit.load_drift = wander(unit.random, unit.load_drift, 0.1, 2.0);
    unit.temperature_drift = wander(unit.random, unit.temperature_drift, 0.02, 0.9);
    unit.input_volts += (input - unit.input_volts) * (1.0 - std::exp(-real_seconds / INPUT_LAG));
    const bool was_low = unit_battery_low(unit);
    battery_pass(unit.battery, *unit.model, battery_use(unit), unit_load(unit) / 100.0, seconds);
    end_test_when_low(unit);
    if (unit_battery_low(unit) && !was_low)
        note(unit, "battery low");
    follow_power(unit);
}

static std::optional<Time> next_deadline(const Unit &unit)
{
    std::optional<Time> next;
    const auto consider = [&next](Time time) { next = next ? std::min(*next, time) : time; };
    if (unit.order.counting)
        consider(unit.order.at);
    if (unit.test.running != TestKind::none && unit.test.ends)
        consider(*unit.test.ends);
    if (!unit.output.on && unit.output.comeback == Comeback::when_mains && unit_mains_good(unit))
        consider(unit.output.not_before);
    return next;
}

static void meet_deadlines(Unit &unit)
{
    if (unit.test.running != TestKind::none && unit.test.ends && unit.now >= *unit.test.ends)
        finish_test(unit);
    if (unit.order.counting && unit.now >= unit.order.at)
        carry_out_order(unit);
    come_back_if_possible(unit);
}

void unit_advance(Unit &unit, Time now)
{
    while (unit.now < now) {
        const Time deadline = next_deadline(unit).value_or(now);
        unit.now = std::max(unit.now, std::min({now, unit.next_tick, deadline}));
        if (unit.now >= unit.next_tick) {
            unit.next_tick += TICK;
            tick(unit);
        }
        meet_deadlines(unit);
    }
    meet_deadlines(unit);
}

std::optional<Time> unit_next_event(const Unit &unit)
{
    std::optional<Time> next = next_deadline(unit);
    if (unit_powered(unit) && battery_use(unit) == BatteryUse::discharging)
        next = std::min(next.value_or(unit.now + WATCH), unit.now + WATCH);
    return next;
}

// ---- influences ----

void unit_set_mains(Unit &unit, bool on)
{
    unit.around.mains = on;
    follow_power(unit);
}

void unit_set_input(Unit &unit, double volts)
{
    unit.around.mains_volts = volts;
    follow_power(unit);
}

void unit_set_disconnected(Unit &unit, bool disconnected)
{
    unit.battery_disconnected = disconnected;
    if (disconnected)
        unit_cancel_test(unit);
    follow_power(unit);
}

void unit_set_charge(Unit &unit, double charge)
{
    battery_set_charge(unit.battery, *unit.model, charge);
    follow_power(unit);
}

void unit_press_output(Unit &unit, bool on)
{
    if (on && !unit.output.on && unit_powered(unit))
        switch_output_on(unit);
    if (!on && unit.output.on)
        switch_output_off(unit, Comeback::never, unit.now);
    if (!on)
        unit.order = SwitchOff{};
}

// ---- commands coming in ----

std::optional<std::string> unit_receive(Unit &unit, char byte)
{
    if (!unit_powered(unit))
        return std::nullopt;
    if (byte == '\r') {
        std::string command = unit.too_long ? std::string() : std::move(unit.received);
        unit.received.clear();
        unit.too_long = false;
        return command;
    }
    if (unit.received.size() == LONGEST_COMMAND)
        unit.too_long = true;
    else
        unit.received.push_back(byte);
    return std::nullopt;
}

}  // namespace sim

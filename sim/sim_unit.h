// One UPS as a state machine without input or output: time and outside influences are passed in, its
// condition is read from the record. It owns mains, battery, output, self-test, the ordered switch-off and
// the unit's own switches. The protocol (sim_protocol) turns commands into calls of these functions and the
// record into replies.
#pragma once

#include "sim_battery.h"
#include "sim_models.h"
#include "sim_random.h"
#include "sim_time.h"

#include <optional>
#include <string>
#include <vector>

namespace sim
{

inline constexpr double NOMINAL_VOLTS = 100.0;
inline constexpr double NOMINAL_HERTZ = 50.0;

enum class TestKind { none, brief, until_low };
enum class TestResult { pass, weak, fail };
enum class LowShown { automatic, on, off };

// What makes the output come back after it went off.
enum class Comeback {
    never,         // switched off for good
    after_outage,  // when mains has failed and returned
    when_mains,    // as soon as mains is there, not before Output::not_before
};

// The world around the unit. It stays when the unit is exchanged.
struct Surroundings {
    bool mains = true;
    double mains_volts = NOMINAL_VOLTS;  // when mains is there
    double load = 35.0;                  // percent of the rated load
    std::optional<double> temperature = 25.0;
    double rate = 1.0;  // how much faster than real time the battery runs
};

struct SelfTest {
    TestKind running = TestKind::none;
    std::optional<Time> ends;               // empty: when the battery gets low
    TestResult will_be = TestResult::pass;  // what a test that runs to its end finds
    Time brief_lasts = std::chrono::seconds(10);
    std::optional<Time> long_lasts;  // empty: until the battery gets low
    bool found_weak = false;         // by the last finished test
    bool found_failure = false;
};

struct Output {
    bool on = true;
    Comeback comeback = Comeback::never;
    Time not_before{0};
};

// An ordered switch-off that counts down.
struct SwitchOff {
    bool counting = false;
    Time at{0};
    std::optional<Time> stay_off;  // timed restart after this
    bool for_good = false;         // "Sf"
    bool saw_outage = false;       // mains was away at some moment of the countdown
};

struct Unit {
    const Model *model = nullptr;
    Surroundings around;
    Random random;
    Time now{0};
    Time next_tick{0};

    double input_volts = NOMINAL_VOLTS;     // measured: follows mains with a short lag
    double transfer_volts = NOMINAL_VOLTS;  // the input voltage at the last change between mains and battery
    double load_drift = 0.0;                // percent
    double temperature_drift = 0.0;         // degrees Celsius
    bool mains_was_good = true;
    bool was_powered = true;

    Battery battery;
    bool battery_disconnected = false;
    bool battery_weak = false;
    LowShown battery_low = LowShown::automatic;
    bool bypass = false;
    bool fault = false;
    bool standby = false;

    SelfTest test;
    Output output;
    SwitchOff order;

    bool buzzer_enabled = true;
    bool periodic_test = true;
    bool auto_restart = true;
    char detection_level = 'A';
    std::string battery_date = "20240401";  // YYYYMMDD

    std::string received;   // the command that is coming in
    bool too_long = false;  // it outgrew every command; the rest up to the carriage return is passed over
    bool woke = false;      // came back to life without being asked about it yet
    std::vector<std::string> events;  // what happened, in words, until somebody takes them away
};

// A unit of this model, charged and in order, at `now` in these surroundings.
Unit unit_new(const Model &model, const Surroundings &around, std::uint64_t seed, Time now);

// Lets time pass up to `now`. Time never runs back; an earlier `now` does nothing.
void unit_advance(Unit &unit, Time now);

// The next moment at which something may happen by itself; empty when nothing is under way.
std::optional<Time> unit_next_event(const Unit &unit);

// One byte from the line. Returns the whole command when this was its carriage return (empty text: an empty
// or an overlong one). A unit without power hears nothing.
std::optional<std::string> unit_receive(Unit &unit, char byte);

// Conditions, as the status bits show them.
bool unit_mains_good(const Unit &unit);
bool unit_on_battery(const Unit &unit);
bool unit_powered(const Unit &unit);
bool unit_battery_low(const Unit &unit);
double unit_load(const Unit &unit);  // percent, drift included; 0 with the output off
double unit_output_volts(const Unit &unit);

// Influences from outside. Each takes effect at once.
void unit_set_mains(Unit &unit, bool on);
void unit_set_input(Unit &unit, double volts);
void unit_set_disconnected(Unit &unit, bool disconnected);
void unit_set_charge(Unit &unit, double charge);
void unit_press_output(Unit &unit, bool on);  // the button on the front

// Commands from the line: false when the unit refuses.
bool unit_start_test(Unit &unit, TestKind kind);
bool unit_cancel_test(Unit &unit);
bool unit_order_off(Unit &unit, Time delay, std::optional<Time> stay_off, bool for_good);
bool unit_cancel_order(Unit &unit);

}  // namespace sim

// The status line of the control channel: one JSON object, one line, every part of the state under a fixed
// name.
#include "sim.h"

#include "sim_protocol.h"

#include <array>
#include <cstdio>

namespace sim
{

static void add_raw(std::string &json, std::string_view name, std::string_view value)
{
    json += json.empty() ? "{\"" : ",\"";
    json += name;
    json += "\":";
    json += value;
}

static void add(std::string &json, std::string_view name, bool value)
{
    add_raw(json, name, value ? "true" : "false");
}

static void add(std::string &json, std::string_view name, double value)
{
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.3f", value);
    add_raw(json, name, text.data());
}

// For texts that need no escapes beyond quotes: all that are shown here are printable.
static void add(std::string &json, std::string_view name, std::string_view value)
{
    add_raw(json, name, "\"" + std::string(value) + "\"");
}

static std::string_view test_name(TestKind kind)
{
    switch (kind) {
    case TestKind::none:
        return "none";
    case TestKind::brief:
        return "short";
    case TestKind::until_low:
        break;
    }
    return "long";
}

static std::string_view result_name(TestResult result)
{
    switch (result) {
    case TestResult::pass:
        return "pass";
    case TestResult::weak:
        return "weak";
    case TestResult::fail:
        break;
    }
    return "fail";
}

static std::string_view comeback_name(const Output &output)
{
    if (output.on || output.comeback == Comeback::never)
        return "never";
    return output.comeback == Comeback::after_outage ? "after outage" : "with mains";
}

static void add_power(std::string &json, const Unit &unit)
{
    add(json, "mains", unit.around.mains);
    add(json, "mains_good", unit_mains_good(unit));
    add(json, "input_volts", unit.input_volts);
    add(json, "output", unit.output.on);
    add(json, "output_volts", unit_output_volts(unit));
    add(json, "load", unit_load(unit));
    add(json, "powered", unit_powered(unit));
    add(json, "on_battery", unit_on_battery(unit));
    add(json, "battery", unit.battery.charge * 100.0);
    add(json, "battery_volts", unit.battery.volts);
    add(json, "battery_low", unit_battery_low(unit));
    add(json, "battery_weak", unit.battery_weak);
    add(json, "battery_disconnected", unit.battery_disconnected);
    if (unit.around.temperature)
        add(json, "temperature", *unit.around.temperature + unit.temperature_drift);
    else
        add_raw(json, "temperature", "null");
}

static void add_state(std::string &json, const Unit &unit)
{
    add(json, "bypass", unit.bypass);
    add(json, "fault", unit.fault);
    add(json, "standby", unit.standby);
    add(json, "test", test_name(unit.test.running));
    add(json, "test_result", result_name(unit.test.will_be));
    add(json, "counting_down", unit.order.counting);
    if (unit.order.counting)
        add(json, "off_in", to_seconds(unit.order.at - unit.now));
    if (unit.order.counting && unit.order.stay_off)
        add(json, "stay_off", to_seconds(*unit.order.stay_off));
    add(json, "comeback", comeback_name(unit.output));
    if (!unit.output.on && unit.output.comeback == Comeback::when_mains)
        add(json, "back_in", to_seconds(std::max(unit.output.not_before - unit.now, Time(0))));
    add(json, "buzzer", unit.buzzer_enabled);
    add(json, "periodic_test", unit.periodic_test);
    add(json, "auto_restart", unit.auto_restart);
    add(json, "detection_level", std::string_view(&unit.detection_level, 1));
    add(json, "battery_date", unit.battery_date);
    add(json, "rate", unit.around.rate);
}

static void add_line(std::string &json, const Sim &sim)
{
    add(json, "plugged", sim.plugged);
    add(json, "line_cut", sim.line.cut);
    add(json, "pace", sim.line.paced);
    add(json, "noise", sim.line.noise.interval > Time(0));
    add(json, "silence", sim.faults.silent);
    add(json, "wrong_checks", sim.faults.wrong_checks);
    add(json, "late", to_seconds(sim.faults.late));
    add(json, "script_steps_left", static_cast<double>(sim.script.steps.size() - sim.script.next));
}

std::string sim_status(const Sim &sim)
{
    std::string json;
    add(json, "time", to_seconds(sim.unit.now));
    add(json, "model", sim.unit.model->name);
    add_power(json, sim.unit);
    add_state(json, sim.unit);
    add_line(json, sim);
    add(json, "q1", status_line(sim.unit));
    add(json, "v", state_line(sim.unit));
    return json + "}";
}

}  // namespace sim

// One table of commands. A row tells by which text a command is known, which feature a unit must have to know
// it, and whether it is a control command: those stay without any reply on the units with bracketed queries.
#include "sim_protocol.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace sim
{

static constexpr std::string_view OK = "OK";
static constexpr std::string_view NAK = "NAK";

static std::string done_if(bool done)
{
    return std::string(done ? OK : NAK);
}

template <typename... Values> static std::string formatted(const char *format, Values... values)
{
    std::array<char, 80> text{};
    const int length = std::snprintf(text.data(), text.size(), format, values...);
    return std::string(text.data(), static_cast<std::size_t>(std::clamp(length, 0, 79)));
}

static char bit(bool set)
{
    return set ? '1' : '0';
}

// ---- measurements ----

// Two digits, a point and one digit, or for a cell one digit, a point and two.
static std::string battery_text(const Unit &unit)
{
    const double volts = unit.battery_disconnected ? 0.0 : unit.battery.volts;
    if (unit.model->per_cell)
        return formatted("%.2f", std::clamp(volts, 0.0, 9.99));
    return formatted("%04.1f", std::clamp(volts, 0.0, 99.9));
}

static std::string temperature_text(const Unit &unit)
{
    if (!unit.around.temperature)
        return "--.-";
    return formatted("%04.1f", std::clamp(*unit.around.temperature + unit.temperature_drift, 0.0, 99.9));
}

static std::string output_hertz_text(const Unit &unit)
{
    return formatted("%04.1f", unit.output.on ? NOMINAL_HERTZ : 0.0);
}

// Units without "V" have no other place than the status bits to tell what a self-test found.
static std::string status_bits(const Unit &unit)
{
    const bool only_here = !has_feature(*unit.model, FEATURE_V);
    const std::array<bool, 8> bits = {
        !unit_mains_good(unit),
        unit_battery_low(unit),
        unit.bypass,
        unit.fault || (only_here && unit.test.found_failure),
        unit.standby,
        unit.test.running != TestKind::none,
        unit.order.counting,
        unit.battery_weak || (only_here && unit.test.found_weak),
    };
    std::string text;
    for (bool set : bits)
        text.push_back(bit(set));
    return text;
}

std::string status_line(const Unit &unit)
{
    const double hertz = unit.input_volts < 10.0 ? 0.0 : NOMINAL_HERTZ;
    std::string line =
        formatted("(%05.1f %05.1f %05.1f %03d %04.1f ", std::clamp(unit.input_volts, 0.0, 999.9),
                  std::clamp(unit.transfer_volts, 0.0, 999.9), unit_output_volts(unit),
                  static_cast<int>(unit_load(unit)), hertz);
    return line + battery_text(unit) + " " + temperature_text(unit) + " " + status_bits(unit);
}

// Characters 3, 4 and 6 tell the detection level. The four commands set the four levels that 3 and 4 can
// tell.
std::string state_line(const Unit &unit)
{
    constexpr std::string_view order = "ABHL";
    const std::size_t level = order.find(unit.detection_level);
    std::string line;
    line.push_back(bit(unit.battery_disconnected));
    line.push_back(bit(!unit.buzzer_enabled));
    line.push_back(bit(!unit.periodic_test));
    line.push_back(bit((level & 2U) != 0));
    line.push_back(bit((level & 1U) != 0));
    line.push_back(bit(unit.test.found_failure));
    line.push_back('0');
    line.push_back(bit(unit.battery_weak || unit.test.found_weak));
    return line;
}

// ---- handlers: the text after the command's name in, the reply without carriage return out ----

static std::string tell_status(Unit &unit, std::string_view)
{
    return status_line(unit);
}

static std::string tell_identity(Unit &unit, std::string_view)
{
    return std::string(unit.model->identity);
}

static std::string tell_capabilities(Unit &unit, std::string_view)
{
    return capability_text(*unit.model);
}

static std::string tell_state(Unit &unit, std::string_view)
{
    return state_line(unit);
}

static std::string tell_restart_status(Unit &unit, std::string_view)
{
    return unit.auto_restart ? "00000000" : "10000000";
}

static std::string tell_battery_volts(Unit &unit, std::string_view)
{
    return "[" + battery_text(unit) + "V]";
}

static std::string tell_hertz(Unit &unit, std::string_view)
{
    return output_hertz_text(unit);
}

static std::string tell_hertz_bracketed(Unit &unit, std::string_view)
{
    return "[" + output_hertz_text(unit) + "Hz]";
}

static std::string tell_capacity(Unit &unit, std::string_view)
{
    const double charge = unit.battery_disconnected ? 0.0 : unit.battery.charge;
    return formatted("%03d", static_cast<int>(std::lround(charge * 100.0)));
}

static std::string tell_battery_date(Unit &unit, std::string_view)
{
    return unit.battery_date;
}

static bool all_digits(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Value of a text of digits; callers have checked that it is one and short.
static int digits_value(std::string_view digits)
{
    int value = 0;
    for (char c : digits)
        value = value * 10 + (c - '0');
    return value;
}

static std::string set_battery_date(Unit &unit, std::string_view date)
{
    if (date.size() != 8 || !all_digits(date))
        return std::string(NAK);
    const int month = digits_value(date.substr(4, 2));
    const int day = digits_value(date.substr(6, 2));
    if (month < 1 || month > 12 || day < 1 || day > 31)
        return std::string(NAK);
    unit.battery_date = date;
    return std::string(OK);
}

static std::string test_briefly(Unit &unit, std::string_view)
{
    return done_if(unit_start_test(unit, TestKind::brief));
}

static std::string test_until_low(Unit &unit, std::string_view)
{
    return done_if(unit_start_test(unit, TestKind::until_low));
}

static std::string cancel_test(Unit &unit, std::string_view)
{
    return done_if(unit_cancel_test(unit));
}

// Delay before the switch-off: two digits of minutes, or a point and tenths of a minute.
static std::optional<Time> switch_off_delay(std::string_view field)
{
    if (field.size() != 2 || !all_digits(field.substr(1)))
        return std::nullopt;
    const int last = digits_value(field.substr(1));
    if (field[0] == '.')
        return std::chrono::seconds(6 * last);
    if (!all_digits(field))
        return std::nullopt;
    return std::chrono::minutes(digits_value(field));
}

static std::string switch_off(Unit &unit, std::string_view fields)
{
    const std::optional<Time> delay = switch_off_delay(fields.substr(0, 2));
    if (!delay)
        return std::string(NAK);
    const std::string_view rest = fields.substr(2);
    if (rest.empty())
        return done_if(unit_order_off(unit, *delay, std::nullopt, false));
    if (rest.size() != unit.model->restart_digits + 1 || rest[0] != 'R' || !all_digits(rest.substr(1)))
        return std::string(NAK);
    return done_if(unit_order_off(unit, *delay, std::chrono::minutes(digits_value(rest.substr(1))), false));
}

static std::string switch_off_for_good(Unit &unit, std::string_view fields)
{
    const std::optional<Time> delay = switch_off_delay(fields);
    return done_if(delay && unit_order_off(unit, *delay, std::nullopt, true));
}

static std::string cancel_order(Unit &unit, std::string_view)
{
    return done_if(unit_cancel_order(unit));
}

template <bool Unit::*Switch, bool Value> static std::string set_switch(Unit &unit, std::string_view)
{
    unit.*Switch = Value;
    return std::string(OK);
}

static std::string test_buzzer(Unit &unit, std::string_view)
{
    if (unit.buzzer_enabled)
        unit.events.emplace_back("buzzer sounds");
    return done_if(unit.buzzer_enabled);
}

template <char Level> static std::string set_level(Unit &unit, std::string_view)
{
    unit.detection_level = Level;
    return std::string(OK);
}

struct CommandRow {
    std::string_view name;
    bool with_fields;        // a number follows the name; else the command is the name alone
    std::uint32_t features;  // any of these
    bool control;
    std::string (*handle)(Unit &unit, std::string_view fields);
};

static constexpr std::uint32_t ANY_UNIT = FEATURE_PLAIN | FEATURE_BRACKETED;

static constexpr std::array<CommandRow, 29> COMMANDS = {{
    {"Q1", false, ANY_UNIT, false, tell_status},
    {"Si ?", false, FEATURE_PLAIN, false, tell_identity},
    {"(SiCC)", false, FEATURE_BRACKETED, false, tell_identity},
    {"CF", false, FEATURE_CF, false, tell_capabilities},
    {"V", false, FEATURE_V, false, tell_state},
    {"V2", false, FEATURE_V2, false, tell_restart_status},
    {"(BvB8)", false, FEATURE_BRACKETED, false, tell_battery_volts},
    {"Lf ?", false, FEATURE_LF, false, tell_hertz},
    {"(Lf ?11)", false, FEATURE_BRACKETED, false, tell_hertz_bracketed},
    {"Bl ?", false, FEATURE_BL, false, tell_capacity},
    {"BRR", false, FEATURE_BRR, false, tell_battery_date},
    {"BRW", true, FEATURE_BRR, false, set_battery_date},
    {"T", false, ANY_UNIT, true, test_briefly},
    {"TL", false, FEATURE_PLAIN, true, test_until_low},
    {"CT", false, ANY_UNIT, true, cancel_test},
    {"C", false, ANY_UNIT, true, cancel_order},
    {"AR", false, FEATURE_PLAIN, true, set_switch<&Unit::periodic_test, true>},
    {"AC", false, FEATURE_PLAIN, true, set_switch<&Unit::periodic_test, false>},
    {"Bn", false, FEATURE_BUZZER, true, set_switch<&Unit::buzzer_enabled, true>},
    {"Bf", false, FEATURE_BUZZER, true, set_switch<&Unit::buzzer_enabled, false>},
    {"Bt", false, FEATURE_PLAIN, true, test_buzzer},
    {"An", false, FEATURE_RESTART, true, set_switch<&Unit::auto_restart, true>},
    {"Af", false, FEATURE_RESTART, true, set_switch<&Unit::auto_restart, false>},
    {"VA", false, FEATURE_V, true, set_level<'A'>},
    {"VB", false, FEATURE_V, true, set_level<'B'>},
    {"VH", false, FEATURE_V, true, set_level<'H'>},
    {"VL", false, FEATURE_V, true, set_level<'L'>},
    {"Sf", true, FEATURE_SF | FEATURE_BRACKETED, true, switch_off_for_good},
    {"S", true, ANY_UNIT, true, switch_off},
}};

// Fields of a command begin with a number; any other text is not this command.
static bool command_with_fields(const CommandRow &row, std::string_view command)
{
    if (!command.starts_with(row.name) || command.size() == row.name.size())
        return false;
    const char first = command[row.name.size()];
    return first == '.' || (first >= '0' && first <= '9');
}

static const CommandRow *find_row(std::string_view command)
{
    for (const CommandRow &row : COMMANDS)
        if (row.with_fields ? command_with_fields(row, command) : command == row.name)
            return &row;
    return nullptr;
}

std::string_view command_name(std::string_view command)
{
    const CommandRow *row = find_row(command);
    return row != nullptr ? row->name : command;
}

std::string answer(Unit &unit, std::string_view command)
{
    const CommandRow *row = find_row(command);
    if (row == nullptr)
        return std::string(NAK) + '\r';
    const bool known = (unit.model->features & row->features) != 0;
    const std::string_view fields = command.substr(row->name.size());
    const std::string reply = known ? row->handle(unit, fields) : std::string(NAK);
    if (row->control && has_feature(*unit.model, FEATURE_BRACKETED))
        return {};
    return reply + '\r';
}

}  // namespace sim

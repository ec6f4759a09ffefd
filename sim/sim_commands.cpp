// What can be told to the simulator. One row a command: its words, its parameters, its help and what it does;
// parsing, usage texts and `help` all come from here. Values have been checked against the row before `run`
// sees them.
#include "sim.h"

#include <algorithm>

namespace sim
{

static const std::string OK = "ok";

// ---- mains, load, surroundings ----

template <bool On> static std::string mains(Sim &sim, Time, const Values &)
{
    unit_set_mains(sim.unit, On);
    return OK;
}

static std::string input(Sim &sim, Time, const Values &values)
{
    unit_set_input(sim.unit, values[0].number);
    return OK;
}

static std::string load(Sim &sim, Time, const Values &values)
{
    sim.unit.around.load = values[0].number;
    sim.unit.load_drift = 0.0;
    return OK;
}

static std::string temperature(Sim &sim, Time, const Values &values)
{
    sim.unit.around.temperature = values[0].keyword ? std::nullopt : std::optional(values[0].number);
    sim.unit.temperature_drift = 0.0;
    return OK;
}

static std::string rate(Sim &sim, Time, const Values &values)
{
    sim.unit.around.rate = values[0].number;
    return OK;
}

// ---- battery ----

static std::string battery(Sim &sim, Time, const Values &values)
{
    unit_set_charge(sim.unit, values[0].number / 100.0);
    return OK;
}

static std::string battery_low(Sim &sim, Time, const Values &values)
{
    if (values[0].keyword)
        sim.unit.battery_low = LowShown::automatic;
    else
        sim.unit.battery_low = values[0].on ? LowShown::on : LowShown::off;
    return OK;
}

static std::string battery_disconnect(Sim &sim, Time, const Values &values)
{
    unit_set_disconnected(sim.unit, values[0].on);
    return OK;
}

// ---- the unit ----

template <bool Unit::*Condition> static std::string condition(Sim &sim, Time, const Values &values)
{
    sim.unit.*Condition = values[0].on;
    return OK;
}

static std::string output(Sim &sim, Time, const Values &values)
{
    unit_press_output(sim.unit, values[0].on);
    return sim.unit.output.on == values[0].on ? OK : "error: the unit has no power";
}

template <TestResult Result> static std::string test_result(Sim &sim, Time, const Values &)
{
    sim.unit.test.will_be = Result;
    return OK;
}

static std::string test_duration(Sim &sim, Time, const Values &values)
{
    sim.unit.test.brief_lasts = values[0].duration;
    return OK;
}

static std::string test_long(Sim &sim, Time, const Values &values)
{
    sim.unit.test.long_lasts = values[0].keyword ? std::nullopt : std::optional(values[0].duration);
    return OK;
}

// The new unit is a fresh one in the same surroundings, on the same port.
static std::string exchange(Sim &sim, Time now, const Values &values)
{
    sim.unit = unit_new(*find_model(values[0].text), sim.unit.around, sim.seed, now);
    sim.replies.clear();
    return OK;
}

// ---- the line ----

template <bool Cut> static std::string line_state(Sim &sim, Time, const Values &)
{
    sim.line.cut = Cut;
    return OK;
}

template <bool Plugged> static std::string port(Sim &sim, Time, const Values &)
{
    sim.plugged = Plugged;
    line_clear(sim.line);
    return OK;
}

static std::string pace(Sim &sim, Time, const Values &values)
{
    sim.line.paced = values[0].on;
    return OK;
}

static std::string disturb(Sim &sim, Time now, std::string_view bytes)
{
    log_add(sim.log, now, LOG_NOISE, bytes);
    line_disturb(sim.line, now, bytes);
    return OK;
}

static std::string garbage(Sim &sim, Time now, const Values &values)
{
    return disturb(sim, now, values[0].text);
}

static std::string garbage_stream(Sim &sim, Time now, const Values &values)
{
    const std::uint64_t seed = values[1].given ? static_cast<std::uint64_t>(values[1].number) : sim.seed;
    line_set_noise(sim.line, now, values[0].number, seed);
    return OK;
}

static std::string garbage_off(Sim &sim, Time now, const Values &)
{
    line_set_noise(sim.line, now, 0.0, 0);
    return OK;
}

static std::string xoff(Sim &sim, Time now, const Values &)
{
    return disturb(sim, now, "\x13");
}

static std::string xon(Sim &sim, Time now, const Values &)
{
    return disturb(sim, now, "\x11");
}

static std::string wake(Sim &sim, Time now, const Values &)
{
    sim.replies.push_back({now, "WAKE\r"});
    return OK;
}

// ---- faults in the replies ----

static std::string silence(Sim &sim, Time, const Values &values)
{
    sim.faults.silent = values[0].on;
    return OK;
}

static std::string late(Sim &sim, Time, const Values &values)
{
    sim.faults.late = values[0].duration;
    return OK;
}

static std::string wrong_checks(Sim &sim, Time, const Values &values)
{
    sim.faults.wrong_checks = values[0].on;
    return OK;
}

static std::string truncate(Sim &sim, Time, const Values &values)
{
    sim.faults.truncate.reset();
    if (!values[0].keyword)
        sim.faults.truncate = static_cast<std::size_t>(values[0].number);
    return OK;
}

static std::string lag(Sim &sim, Time, const Values &values)
{
    sim.faults.behind.clear();
    sim.faults.lag = values[0].keyword ? 0 : static_cast<std::size_t>(values[0].number);
    return OK;
}

static std::string nak(Sim &sim, Time, const Values &values)
{
    if (values[1].on)
        sim.faults.refused.insert(values[0].text);
    else
        sim.faults.refused.erase(values[0].text);
    return OK;
}

static std::string reply(Sim &sim, Time, const Values &values)
{
    if (values[1].keyword)
        sim.faults.in_place.erase(values[0].text);
    else
        sim.faults.in_place[values[0].text] = values[1].text;
    return OK;
}

// ---- the simulator itself ----

static std::string status(Sim &sim, Time, const Values &)
{
    return sim_status(sim);
}

static std::string show_log(Sim &sim, Time, const Values &values)
{
    const std::size_t all = sim.log.entries.size();
    const std::size_t count =
        values[0].given ? std::min(all, static_cast<std::size_t>(values[0].number)) : all;
    std::string lines;
    for (std::size_t i = all - count; i < all; ++i)
        lines += log_line(sim.log.entries[i]) + "\n";
    return lines + OK;
}

static std::string help(Sim &, Time, const Values &)
{
    std::string lines;
    for (const Command &command : commands()) {
        std::string usage = command_usage(command);
        usage.resize(std::max<std::size_t>(usage.size() + 1, 34), ' ');
        lines += usage + std::string(command.help) + "\n";
    }
    return lines + OK;
}

static std::string quit(Sim &sim, Time, const Values &)
{
    sim.quit = true;
    return OK;
}

static constexpr Param NONE{};
static constexpr Param SWITCH{.kind = ParamKind::on_off};
static constexpr Param COMMAND{.kind = ParamKind::word, .name = "COMMAND"};

static constexpr Param number(std::string_view name, double least, double most, std::string_view keyword = {},
                              bool optional = false)
{
    return {.kind = ParamKind::number,
            .name = name,
            .keyword = keyword,
            .least = least,
            .most = most,
            .optional = optional};
}

static constexpr Param duration(std::string_view keyword = {})
{
    return {.kind = ParamKind::duration, .name = "SECONDS", .keyword = keyword};
}

static constexpr Param text(std::string_view keyword = {})
{
    return {.kind = ParamKind::text, .name = "TEXT", .keyword = keyword};
}

static constexpr std::array COMMANDS = {
    Command{"mains fail", {NONE}, "mains goes away", mains<false>},
    Command{"mains return", {NONE}, "mains comes back", mains<true>},
    Command{"input",
            {number("VOLTS", 0, 999)},
            "mains voltage; outside 80 to 120 V the battery takes over",
            input},
    Command{"load", {number("PERCENT", 0, 999)}, "load on the output", load},
    Command{"temperature",
            {number("DEGREES", 0, 99, "none")},
            "temperature, or a unit without a sensor",
            temperature},
    Command{"rate", {number("FACTOR", 0, 1e6)}, "speed of the battery; 1 is real time", rate},
    Command{"battery", {number("PERCENT", 0, 100)}, "charge of the battery", battery},
    Command{"battery low",
            {Param{.kind = ParamKind::on_off, .keyword = "auto"}},
            "what the unit says",
            battery_low},
    Command{"battery weak", {SWITCH}, "battery needs replacement", condition<&Unit::battery_weak>},
    Command{"battery disconnect", {SWITCH}, "battery disconnected", battery_disconnect},
    Command{"bypass", {SWITCH}, "on bypass (standby unit: voltage regulation)", condition<&Unit::bypass>},
    Command{"fault", {SWITCH}, "the unit's fault indication", condition<&Unit::fault>},
    Command{"standby", {SWITCH}, "the unit calls itself a standby unit", condition<&Unit::standby>},
    Command{"output", {SWITCH}, "the button on the front", output},
    Command{"test result pass", {NONE}, "what the next self-tests find", test_result<TestResult::pass>},
    Command{"test result weak", {NONE}, "a weak battery", test_result<TestResult::weak>},
    Command{"test result fail", {NONE}, "a hardware failure", test_result<TestResult::fail>},
    Command{"test duration", {duration()}, "length of a self-test", test_duration},
    Command{
        "test long", {duration("auto")}, "length of a long self-test; auto: until battery low", test_long},
    Command{"model",
            {Param{.kind = ParamKind::model, .name = "NAME"}},
            "another unit on the same port",
            exchange},
    Command{"line cut", {NONE}, "bytes vanish in both directions", line_state<true>},
    Command{"line restore", {NONE}, "the line is whole again", line_state<false>},
    Command{"port unplug", {NONE}, "the port goes away", port<false>},
    Command{"port plug", {NONE}, "the port is there again", port<true>},
    Command{"pace", {SWITCH}, "bytes take their time at 2400 baud", pace},
    Command{"garbage", {text()}, "these bytes arrive at the host", garbage},
    Command{"garbage stream",
            {number("RATE", 0.01, 10000), number("SEED", 0, 4e9, {}, true)},
            "random bytes, so many a second",
            garbage_stream},
    Command{"garbage off", {NONE}, "no more random bytes", garbage_off},
    Command{"xoff", {NONE}, "the unit sends XOFF", xoff},
    Command{"xon", {NONE}, "the unit sends XON", xon},
    Command{"wake", {NONE}, "the unit sends a WAKE line unasked", wake},
    Command{"silence", {SWITCH}, "the unit hears and obeys but does not answer", silence},
    Command{"late", {duration()}, "delay before each reply", late},
    Command{"wrong checks", {SWITCH}, "replies of broken form", wrong_checks},
    Command{"truncate", {number("BYTES", 0, 1000, "off")}, "replies end after so many bytes", truncate},
    Command{
        "lag", {number("BYTES", 0, 1000, "off")}, "the last bytes of each reply come with the next one", lag},
    Command{"nak", {COMMAND, SWITCH}, "the command is refused", nak},
    Command{
        "reply", {COMMAND, text("off")}, "raw reply to the command; it is carried out all the same", reply},
    Command{"status", {NONE}, "the whole state, one line of JSON", status},
    Command{"log", {number("ENTRIES", 0, 1e6, {}, true)}, "the last log entries", show_log},
    Command{"help", {NONE}, "this list", help},
    Command{"quit", {NONE}, "end of the simulation", quit},
};

std::span<const Command> commands()
{
    return COMMANDS;
}

}  // namespace sim

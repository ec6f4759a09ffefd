// The order of things: whatever is due is done in the order of its time, one moment after the other, so that
// a long step gives the same result as many short ones.
#include "sim.h"

#include "sim_protocol.h"

#include <algorithm>

namespace sim
{

static constexpr std::string_view WAKE_LINE = "WAKE\r";

Sim sim_new(const Model &model, std::uint64_t seed)
{
    Sim sim;
    sim.seed = seed;
    sim.unit = unit_new(model, Surroundings{}, seed, Time(0));
    return sim;
}

static void log_events(Sim &sim, Time now)
{
    for (const std::string &event : sim.unit.events)
        log_add(sim.log, now, LOG_EVENT, event);
    sim.unit.events.clear();
}

static void send(Sim &sim, Time now, std::string_view text)
{
    log_add(sim.log, now, LOG_SENT, text);
    line_from_unit(sim.line, now, text);
}

// Passes on what the unit has to tell: events to the log, and a line to the host when it came back to life.
static void report(Sim &sim, Time now)
{
    log_events(sim, now);
    if (sim.unit.woke && !sim.faults.silent)
        send(sim, now, WAKE_LINE);
    sim.unit.woke = false;
}

static void answer_command(Sim &sim, Time now, const std::string &command)
{
    log_add(sim.log, now, LOG_RECEIVED, command + '\r');
    const bool refused = faults_refuse(sim.faults, command);
    std::string reply = refused ? "NAK\r" : answer(sim.unit, command);
    log_events(sim, now);
    reply = faults_spoil(sim.faults, command, std::move(reply));
    if (!reply.empty())
        sim.replies.push_back({now + sim.faults.late, std::move(reply)});
}

void sim_from_host(Sim &sim, Time now, std::string_view bytes)
{
    line_from_host(sim.line, now, bytes);
}

static void receive_bytes(Sim &sim, Time now)
{
    while (const std::optional<LineByte> byte = line_take_for_unit(sim.line, now))
        if (const std::optional<std::string> command = unit_receive(sim.unit, byte->byte))
            answer_command(sim, now, *command);
}

// A delay that was shortened lets no reply overtake an earlier one.
static void send_replies(Sim &sim, Time now)
{
    while (!sim.replies.empty() && sim.replies.front().due <= now) {
        const std::string text = faults_lag(sim.faults, std::move(sim.replies.front().text));
        sim.replies.pop_front();
        if (unit_powered(sim.unit))
            send(sim, now, text);
    }
}

static void run_script(Sim &sim, Time now)
{
    while (sim.script.next < sim.script.steps.size() && sim.script.steps[sim.script.next].at <= now) {
        const ParsedCommand &action = sim.script.steps[sim.script.next].action;
        ++sim.script.next;
        log_add(sim.log, now, LOG_CONTROL, action.text);
        const std::string result = action.command->run(sim, now, action.values);
        if (result.starts_with("error"))
            log_add(sim.log, now, LOG_CONTROL, result);
    }
}

// Everything that is due at this one moment.
static void do_moment(Sim &sim, Time now)
{
    unit_advance(sim.unit, now);
    run_script(sim, now);
    report(sim, now);
    receive_bytes(sim, now);
    send_replies(sim, now);
}

std::optional<Time> sim_next_due(const Sim &sim)
{
    std::optional<Time> next = line_next_due(sim.line);
    const auto consider = [&next](Time time) { next = next ? std::min(*next, time) : time; };
    if (!sim.replies.empty())
        consider(sim.replies.front().due);
    if (sim.script.next < sim.script.steps.size())
        consider(sim.script.steps[sim.script.next].at);
    if (const std::optional<Time> event = unit_next_event(sim.unit))
        consider(*event);
    return next;
}

std::string sim_run(Sim &sim, Time now)
{
    std::string to_host;
    for (;;) {
        const std::optional<Time> due = sim_next_due(sim);
        const Time moment = due && *due < now ? std::max(*due, sim.unit.now) : now;
        do_moment(sim, moment);
        to_host += line_take_for_host(sim.line, moment);
        if (moment == now)
            return to_host;
    }
}

std::string sim_command(Sim &sim, Time now, std::string_view line)
{
    const ParsedCommand parsed = parse_command(line);
    if (!parsed.error.empty())
        return "error: " + parsed.error;
    if (parsed.command == nullptr)
        return {};
    const bool changes = parsed.command->words != "status" && parsed.command->words != "log";
    if (changes)
        log_add(sim.log, now, LOG_CONTROL, parsed.text);
    std::string result = parsed.command->run(sim, now, parsed.values);
    report(sim, now);
    return result;
}

}  // namespace sim

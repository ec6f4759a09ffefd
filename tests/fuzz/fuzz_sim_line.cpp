// Any bytes from the host to a unit of any model, with things happening in between: the first byte chooses
// the model, a byte above 0xE8 lets time pass or something happen, all others are sent. Each command gets at
// most one reply, each reply is whole, and the status line never loses its form.
#include "fuzz_support.h"
#include "sim/sim.h"
#include "sim/sim_protocol.h"

#include <algorithm>
#include <cstdint>

static void happen(sim::Sim &simulation, sim::Time &now, unsigned what)
{
    static constexpr std::array<std::string_view, 10> EVENTS = {
        "mains fail", "mains return",           "battery 1",        "battery 100", "battery disconnect on",
        "output off", "battery disconnect off", "test result weak", "load 300",    "rate 1000"};
    if (what < EVENTS.size())
        sim::sim_command(simulation, now, EVENTS[what]);
    else
        now += std::chrono::seconds(1LL << (2 * (what - EVENTS.size())));
    sim::sim_run(simulation, now);
}

// What a line suffers.
static void disturb(sim::Sim &simulation, sim::Time now, unsigned what)
{
    static constexpr std::array<std::string_view, 8> EVENTS = {
        "garbage stream 5", "garbage off", "garbage \"Q1\\r\"", "line cut",
        "line restore",     "port unplug", "port plug",         "pace off"};
    sim::sim_command(simulation, now, EVENTS[what]);
    sim::sim_run(simulation, now);
}

static void check_status_line(const sim::Unit &unit)
{
    const std::string line = sim::status_line(unit);
    require(line.size() == 46 && line[0] == '(' && (line[29] == '.' || line[30] == '.'));
    for (std::size_t point : {4U, 10U, 16U, 25U, 35U})
        require(line[point] == '.');
    for (std::size_t blank : {6U, 12U, 18U, 22U, 27U, 32U, 37U})
        require(line[blank] == ' ');
    require(line.find_first_not_of("01", 38) == std::string::npos);
    require(sim::state_line(unit).size() == 8);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0 || size > 2048)
        return 0;
    sim::Sim simulation = sim::sim_new(sim::models()[data[0] % sim::models().size()], data[0]);
    sim::Time now{0};
    for (std::size_t i = 1; i < size; ++i) {
        const char byte = static_cast<char>(data[i]);
        if (data[i] > 0xF0)
            happen(simulation, now, data[i] - 0xF1U);
        else if (data[i] > 0xE8)
            disturb(simulation, now, data[i] - 0xE9U);
        else
            sim::sim_from_host(simulation, now, {&byte, 1});
    }
    sim::sim_run(simulation, now + std::chrono::seconds(60));
    check_status_line(simulation.unit);
    for (const sim::LogEntry &entry : simulation.log.entries)
        require(entry.direction != sim::LOG_SENT || (entry.text.ends_with("\\r") && entry.text.size() <= 48));
    return 0;
}

// A whole simulated UPS: unit, line, faults, scenario and log tied together. Nothing here does input or
// output but the log's file: the caller passes in the time and the bytes from the host, and takes out the
// bytes for the host. Times passed in never run back.
#pragma once

#include "sim_faults.h"
#include "sim_line.h"
#include "sim_log.h"
#include "sim_script.h"
#include "sim_time.h"
#include "sim_unit.h"

#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace sim
{

struct PendingReply {
    Time due;
    std::string text;
};

struct Sim {
    Unit unit;
    Line line;
    Faults faults;
    Script script;
    Log log;
    std::deque<PendingReply> replies;  // late ones, by time
    bool plugged = true;               // the port exists; who owns the port follows this
    bool quit = false;                 // the simulation is to end
    std::uint64_t seed = 1;
};

// A simulation of this model, time 0.
Sim sim_new(const Model &model, std::uint64_t seed);

// Bytes that the host wrote at `now`.
void sim_from_host(Sim &sim, Time now, std::string_view bytes);

// Lets everything happen that is due by `now` and returns the bytes that have reached the host.
std::string sim_run(Sim &sim, Time now);

// When sim_run has something to do again; empty when only the host or a command can start something.
std::optional<Time> sim_next_due(const Sim &sim);

// Carries out one command line of the control channel at `now`; sim_run has been called for `now`. Returns
// the answer (lines joined by newlines, no newline at the end), empty for a line without a command.
std::string sim_command(Sim &sim, Time now, std::string_view line);

// The whole state as one line of JSON.
std::string sim_status(const Sim &sim);

}  // namespace sim

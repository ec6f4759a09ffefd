// Commands of scenarios and of the control channel: how they are written and checked. The commands themselves
// are a table (sim_commands); parsing needs nothing but that table, so a scenario is checked whole before it
// starts.
#pragma once

#include "sim_text.h"
#include "sim_time.h"

#include <array>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim
{

struct Sim;

enum class ParamKind { none, number, duration, on_off, text, word, model };

struct Param {
    ParamKind kind = ParamKind::none;
    std::string_view name = {};     // as help shows it
    std::string_view keyword = {};  // a word that may stand instead of a value; empty: none
    double least = 0.0;             // of a number
    double most = std::numeric_limits<double>::max();
    bool optional = false;
};

struct Value {
    bool given = false;
    bool keyword = false;  // the parameter's keyword was written
    bool on = false;
    double number = 0.0;
    Time duration{0};
    std::string text;
};

using Values = std::array<Value, 2>;

struct Command {
    std::string_view words;  // literal words that the line begins with
    std::array<Param, 2> params;
    std::string_view help;
    // Carries it out and returns the answer, lines joined by newlines: "ok", "error: reason" or what was
    // asked for.
    std::string (*run)(Sim &sim, Time now, const Values &values);
};

// The table of all commands (sim_commands.cpp).
std::span<const Command> commands();

// How a command is written, parameters included.
std::string command_usage(const Command &command);

struct ParsedCommand {
    const Command *command = nullptr;  // null: see error
    Values values;
    std::string text;  // the line as it was written
    std::string error;
};

// Parses one command. A line without words gives neither command nor error.
ParsedCommand parse_command(std::string_view line);

struct ScriptStep {
    Time at;
    ParsedCommand action;
};

struct Script {
    std::vector<ScriptStep> steps;  // by time; steps of one time in the order in which they were written
    std::size_t next = 0;           // the first step that is not done yet
};

struct ParsedScript {
    Script script;
    std::string error;  // "line N: reason" of the first bad line; empty if all are good
};

// Parses a scenario: lines "at TIME COMMAND" or "after TIME COMMAND" (that long after the line before),
// comments (#) and empty lines.
ParsedScript parse_script(std::string_view text);

}  // namespace sim

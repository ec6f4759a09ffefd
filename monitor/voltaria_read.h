// The commands that only look: what their command lines say, the registrations, and the work behind each,
// which returns the program's exit status.
#pragma once

#include "voltaria_command.h"

#include <string>
#include <vector>

void add_status(CLI::App &app, int &status);
void add_watch(CLI::App &app, int &status);
void add_discover(CLI::App &app, int &status);
void add_notices(CLI::App &app, int &status);
void add_log(CLI::App &app, int &status);
void add_data(CLI::App &app, int &status);

struct STATUS_LINE {
    CONNECTION connection{};
    bool json = false;
};

/// Prints the status once.
[[nodiscard]] int show_status(const STATUS_LINE &line);

struct DISCOVER_LINE {
    std::vector<std::string> addresses{};  // asked besides the broadcasts
    double timeout = 3;                    // s
    bool follow = false;
    bool json = false;
};

/// Asks the network for agents and prints those that answer or announce themselves; with `follow`, a line for
/// each change until a signal ends it.
[[nodiscard]] int discover(const DISCOVER_LINE &line);

/// Prints every notice of the agent with its time until a signal ends it; reconnects.
[[nodiscard]] int follow_notices(const CONNECTION &connection);

struct LOG_LINE {
    CONNECTION connection{};
    int first = -1;  // the oldest line is 0; -1: the newest `count` lines
    int count = 20;
    bool all = false;
    bool json = false;
    bool csv = false;
};

/// Prints lines of the agent's event log.
[[nodiscard]] int show_eventlog(const LOG_LINE &line);
/// Prints lines of the agent's data log.
[[nodiscard]] int show_datalog(const LOG_LINE &line);

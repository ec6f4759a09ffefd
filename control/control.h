// The commands of `voltariactl`: what each is asked, and its exit status.
#pragma once

#include "control_system.h"

#include <string>
#include <string_view>

// Exit statuses; scripts depend on these. Success is 0.
inline constexpr int EXIT_PROBLEM = 1;  // it did not work, or doctor found a problem
inline constexpr int EXIT_USAGE = 2;
inline constexpr int EXIT_NOTRUNNING = 3;

inline constexpr char NOT_RUNNING[] = "voltariad is not running";

/// `status`: what the shared block tells. EXIT_NOTRUNNING unless both processes are alive.
int control_status(bool json);

/// `stop`: asks the agent to stop and waits at most `patience` seconds for the end of both processes.
/// Success, too, when nothing runs.
int control_stop(double patience);

/// `reload`: announces changed settings and waits at most `patience` seconds until the agent has taken
/// notice.
int control_reload(double patience);

/// `doctor`: every check of this machine. EXIT_PROBLEM when one found a problem; warnings are none.
int control_doctor(bool json);

/// `before-start`: removes a lock file that a killed process left behind, and says what would end the
/// daemon's start. EXIT_PROBLEM when something would.
int control_before_start();

struct NOTIFY_LINE {
    std::string user;  // only this one; empty: everybody who is told of anything
    int command = -1;  // also run the command of this event; -1: none
};

/// `notify-test`: sends one text by each configured way. EXIT_PROBLEM when one did not deliver it.
int control_notify(const NOTIFY_LINE &line);

/// Writes to standard output and flushes. Returns the exit status: success, or EXIT_PROBLEM after saying what
/// is wrong with standard output.
[[nodiscard]] int print(std::string_view text);

/// Prints "voltariactl: TEXT" on standard error and returns `status`.
[[nodiscard]] int fail(std::string_view text, int status = EXIT_PROBLEM);

/// Text from files, blocks and names of processes, safe for a terminal: what steers one, and what is no
/// UTF-8, becomes "?".
[[nodiscard]] std::string plain(std::string_view text);

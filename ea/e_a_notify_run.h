// Starting the notification programs and an event's command, and waiting for them within bounds. Seen by
// e_a_notify*.cpp and the final shutdown only.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <sys/types.h>
#include <vector>

// Arguments after the program's own name; null behind the last.
using ARGUMENTS = std::array<const char *, 4>;

typedef struct _PROGRAM {
    const char *path;
    const char *name;  // what it is told it is called
    ARGUMENTS arguments;
    int input = -1;        // descriptor; -1: /dev/null
    int output = -1;       // descriptor; -1: /dev/null
    bool noshell = false;  // leave it no shell to run what it takes for a command
} PROGRAM;

/// Where programs write their errors: a descriptor; -1, as it stays in the daemon: /dev/null. A tool that
/// tries the ways of telling users sets it.
extern int program_errors;

/// Where the numbers of started programs are kept; null, as it stays in the daemon: nowhere. Set likewise.
extern std::vector<pid_t> *program_pids;

/// A descriptor, at its beginning, of a file without a name that holds `text`; -1 on failure. The caller
/// closes it.
int program_text(std::string_view text);

/// Starts a program in a session of its own, with default signals, umask 022, "/" as directory and no
/// descriptor but the three. Returns what program_wait takes, -1 when there is nothing to wait for.
int program_start(const PROGRAM &program);

/// Waits for the end of a started program until `deadline` (utils_monotonicms); then it is left to itself.
/// Closes `started`. Returns whether the program has ended.
bool program_wait(int started, std::int64_t deadline);

/// Sets every signal to its default action and unblocks all: as a program expects to be started.
void signals_default();

/// Has every descriptor above 2 closed at the start of a program in this process's place.
void program_closeothers();

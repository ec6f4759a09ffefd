// `voltaria watch`.
#pragma once

#include "monitor.h"

/// Watches until the user, a signal or the terminal's end says otherwise; the program's exit status. Draws a
/// page when standard output is a terminal, else prints a line for each change.
[[nodiscard]] int watch(const MONITOR_OPTIONS &options);

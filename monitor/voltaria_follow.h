// What the commands that run until they are told to end share: the signals that tell them, the viewer's
// clock, and how a notice is shown.
#pragma once

#include <ctime>
#include <string>

/// From now on SIGINT, SIGTERM and SIGHUP end nothing by themselves but make quit_fd() readable for good.
/// False, with errno, when that cannot be.
[[nodiscard]] bool catch_quit_signals();

/// For poll; -1 before catch_quit_signals.
[[nodiscard]] int quit_fd();

/// Waits; true when the user wants to go.
[[nodiscard]] bool quit_within(int milliseconds);

/// Local time by a strftime pattern.
[[nodiscard]] std::string clock_text(std::time_t when, const char *pattern);

/// A notice as it came, in one line that is harmless to a terminal.
[[nodiscard]] std::string notice_text(const std::string &message);

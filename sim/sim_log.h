// The record of everything that crossed the line and happened to the unit: the last entries in memory, all of
// them in a file if one was named, each line whole and at once so that a reader may wait for it.
#pragma once

#include "sim_time.h"

#include <deque>
#include <string>
#include <string_view>

namespace sim
{

inline constexpr std::string_view LOG_RECEIVED = "rx";  // a command, as the unit heard it
inline constexpr std::string_view LOG_SENT = "tx";      // a reply, at the moment its first bit goes out
inline constexpr std::string_view LOG_EVENT = "ev";     // something happened to the unit
inline constexpr std::string_view LOG_CONTROL = "do";   // a command of the scenario or of a control program
inline constexpr std::string_view LOG_NOISE = "nz";     // bytes thrown onto the line

struct LogEntry {
    Time time;
    std::string_view direction;
    std::string text;  // escaped
};

struct Log {
    std::deque<LogEntry> entries;
    int file = -1;  // descriptor; -1: memory only
    bool file_failed = false;
};

// Opens (and empties) the file. False with errno set when it cannot be opened.
bool log_open(Log &log, const std::string &path);
void log_close(Log &log);

// Records raw bytes or a text in plain words; both are stored escaped.
void log_add(Log &log, Time time, std::string_view direction, std::string_view text);

// "seconds.milliseconds direction text", without line end.
std::string log_line(const LogEntry &entry);

}  // namespace sim

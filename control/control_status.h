// The daemon's state as its shared block and the process table tell it; as a page and as a JSON document.
#pragma once

#include "control_block.h"
#include "ups_records.h"

#include <string>
#include <string_view>

// Why the system is going to be shut down, as far as the block tells.
enum class CAUSE { None, Schedule, MainsFailure, BatteryLow, User, Agent, Event };

struct STATE {
    DAEMON daemon;
    UPS ups;
    std::string host;  // this host's name: an agent names its host in events
};

/// The cause of the pending shutdown; Schedule when it is only the next one by schedule.
[[nodiscard]] CAUSE shutdown_cause(const STATE &state);
/// "a mains failure" and the like.
[[nodiscard]] std::string_view cause_words(CAUSE cause);
/// A name of one word for programs; empty for None.
[[nodiscard]] std::string_view cause_name(CAUSE cause);
/// True when a shutdown is pending that no schedule planned, or one whose time has come.
[[nodiscard]] bool shutdown_pending(const STATE &state);

[[nodiscard]] std::string status_page(const STATE &state);

// clang-format off
/// The document. Its key names are a promise; new ones may be added. All are there in any case, null where
/// nothing is known or nothing runs; a code object has `code`, a number, and `text`, its words or null:
///
///   running                   both processes are alive
///   reason                    why not, else null
///   agent_pid, ups_pid        numbers
///   link                      code object
///   port                      "/dev/ttyS0" to "/dev/ttyS3"
///   model                     text
///   state, battery            code objects; null while agent and UPS are not in touch
///   measurements              likewise, else input_voltage, output_voltage (V), battery_capacity, load (percent)
///   shutdown.pending          a shutdown that no schedule planned is to come, or one has begun
///   shutdown.underway         it has begun
///   shutdown.cause            "schedule", "mains-failure", "battery-low", "user", "agent" or "event"
///   shutdown.at, .restart_at  times, "2005-03-05T09:07:02" in local time; of the next schedule when none pends
///   agent                     the role, a code object
///   group                     text
///   last_events               at most two, oldest first: id, text, time
///   time                      when the agent last looked
// clang-format on
[[nodiscard]] std::string status_json(const STATE &state);
/// The same when nothing runs.
[[nodiscard]] std::string status_json_stopped(std::string_view reason);

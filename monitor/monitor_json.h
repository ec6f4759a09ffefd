// clang-format off
// What there is to know as JSON documents for programs. The key names are a promise; new ones may be added.
//
// The status:
//
//   agent.host, agent.port       whom we asked
//   agent.type                   code object (below)
//   agent.group                  text, "" when none
//   time                         time of the status, "2005-03-05T09:07:02" in the agent's local time, or null
//   link                         code object, and
//   link.port_code               the serial port's number as it travels: 1 to 4, or negative
//   link.device                  "/dev/ttyS0" to "/dev/ttyS3", or null
//   model                        text, or null when not known
//   ups                          code object; its text is null while agent and UPS are not in touch
//   battery                      code object, and
//   battery.replaced             date "2005-03-05", or null
//   measurements                 null while agent and UPS are not in touch, else
//     .input_voltage .output_voltage .battery_voltage   V
//     .input_frequency .output_frequency                Hz
//     .temperature                                      degrees Celsius, or null when not reported
//     .load .battery_capacity                           percent; capacity 0 may also mean "cannot tell"
//   shutdown.next, .restart      times, or null
//   shutdown.ordered, .in_progress   the two shutdown flags as numbers, 0 for no
//   settings.buzzer, .periodic_self_test, .auto_restart, .ignore_other_agents   1 on, 0 off
//   settings.detection_level     number
//   self_tests.battery, .ups     code object, and `time`
//   events                       the last two, oldest first, only those that exist: id, text, cause (number of the
//                                event that led to a shutdown, or null), time, agent
//   capabilities.mask            number
//   capabilities.names           texts; bits without a fixed meaning as "0x0800"
//
// A code object has `code`, the number as it came, and `text`, its words or null when the code is unknown. A
// measurement whose tenths part is no digit is null. A date or time with fields out of range is the text
// "invalid (...)" with the raw numbers.
//
// A log is a document with one list, oldest line first:
//
//   events    of the event log: each as in the status
//   records   of the data log: time, and the keys of measurements, all null when a number cannot be, but no
//             battery_capacity, which no agent tells in its log
//
// What discovery found is a document with the list `agents`, or with --follow one agent in a line:
//
//   address, name, group   texts; of a protector, its host's name and ""
//   protector              true or false
//   protected_by           a protector's agent, else null
//   gone                   true when its last word was that it goes down
//   type                   code object
//   model                  text, or null when not known
//   ups, battery, link     code objects; null for a protector
//   ignore_other_agents    1 on, 0 off; null for a protector
// clang-format on
#pragma once

#include "monitor_discover.h"
#include "ups_records.h"

#include <cstdint>
#include <string>
#include <vector>

/// The document, indented, without a final line end.
[[nodiscard]] std::string status_json(const UPS_UPSINFO &status, const std::string &host, std::uint16_t port);

/// The same for a log's lines.
[[nodiscard]] std::string eventlog_json(const std::vector<UPS_EVENTLOGINFO> &lines);
[[nodiscard]] std::string datalog_json(const std::vector<UPS_DATALOGINFO> &lines);

/// The agents found; and one of them in one line.
[[nodiscard]] std::string agents_json(const std::vector<FOUND_AGENT> &agents);
[[nodiscard]] std::string agent_json_line(const FOUND_AGENT &agent);

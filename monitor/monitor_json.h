// The status as a JSON document for programs. The key names are a promise; new ones may be added.
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
//   events                       the last two, oldest first, only those that exist: id, text, cause (number
//   of the
//                                event that led to a shutdown, or null), time, agent
//   capabilities.mask            number
//   capabilities.names           texts; bits without a fixed meaning as "0x0800"
//
// A code object has `code`, the number as it came, and `text`, its words or null when the code is unknown. A
// measurement whose tenths part is no digit is null. A date or time with fields out of range is the text
// "invalid (...)" with the raw numbers.
#pragma once

#include "ups_records.h"

#include <cstdint>
#include <string>

/// The document, indented, without a final line end.
[[nodiscard]] std::string status_json(const UPS_UPSINFO &status, const std::string &host, std::uint16_t port);

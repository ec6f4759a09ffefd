// clang-format off
// Settings as JSON documents for programs. The key names are a promise; new ones may be added.
//
//   configuration   an object: the key of each setting, as in the agent's settings file, with seconds and lines
//                   as numbers, switches as booleans, roles and ports as words (a number when there is none)
//   events          an array of {id, text, log, shutdown, terminals, mail, command}; terminals is "all" or an
//                   array of user names, empty for nobody; mail is an array of user names
//   users           an array of {number, name, address, email}
//   schedules       an array of {number, action, kind, on, start, end, text}; start and end are {day, time}, or
//                   null when the entry has none or is not valid
// clang-format on
#pragma once

#include "monitor_eventset.h"
#include "monitor_settings.h"
#include "schedule_records.h"

#include <span>
#include <string>

[[nodiscard]] std::string config_json(const UPS_PARAM &config, std::span<const SETTING> which);
[[nodiscard]] std::string events_json(const EVENT_SET &set, std::span<const UPS_EVENTINFO> which);
[[nodiscard]] std::string users_json(const EVENT_SET &set);
[[nodiscard]] std::string schedules_json(std::span<const SCHEDULEINFO> entries);

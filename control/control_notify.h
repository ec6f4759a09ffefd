// `voltariactl notify-test`: who would be told of events, by which ways, and whether these ways work.
#pragma once

#include "control_settings.h"

#include <cstdint>
#include <string>
#include <vector>

// One user of the settings file, in the slot by which events pick users.
struct NOTIFY_USER {
    std::string name;   // login name; empty: not told on terminals
    std::string email;  // empty: not mailed
    std::uint32_t slot = 0;
    bool written = false;  // some event writes to this user's terminals
    bool mailed = false;   // some event is mailed to this user
};

// What the settings make of events.
struct NOTIFY_PLAN {
    bool walled = false;  // some event is shown on all terminals
    std::vector<NOTIFY_USER> users;
    std::vector<std::uint32_t> nobody;  // slots that events pick and no user of the list has
};

[[nodiscard]] NOTIFY_PLAN notify_plan(const SETTINGS &settings);
/// The command line of an event; empty when there is none.
[[nodiscard]] std::string notify_command(const SETTINGS &settings, int event);
/// Patience for a command, s.
[[nodiscard]] long notify_patience(const SETTINGS &settings);

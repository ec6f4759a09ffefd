// The unit's side of the command protocol: which command gets which reply, byte for byte. Pure: reads and
// changes the unit's record, sends nothing itself.
#pragma once

#include "sim_unit.h"

#include <string>
#include <string_view>

namespace sim
{

// The name under which a command is listed ("S" for "S05R00010", "BRW" for "BRW20250101"); the command itself
// when no unit knows it. This is what a user names a command by.
std::string_view command_name(std::string_view command);

// Carries the command (without its carriage return) out and returns the reply, with its carriage return;
// empty when this unit leaves such a command unanswered.
std::string answer(Unit &unit, std::string_view command);

// The status line and the state line as they would be sent now, without carriage return.
std::string status_line(const Unit &unit);
std::string state_line(const Unit &unit);

}  // namespace sim

// The UPS process: finds the unit on a serial port, polls it about once a second, keeps the UPS record of the
// shared block current and carries out what the agent process asks. Entered once, by the child of the fork.
#pragma once

#include "agent.h"

/// Runs the UPS process for ever. `record` holds the shared block and this process's ends of the pipes;
/// sockets inherited from the parent are closed. Ends only by leaving the process: when the agent process has
/// gone or the command pipe fails, with errno as status.
[[noreturn]] void ups_doupschan(AGENT *record);

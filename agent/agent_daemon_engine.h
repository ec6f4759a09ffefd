// Filling the engine's argument blocks and calling it: what the loop and the request handlers share.
#pragma once

#include "agent_daemon.h"
#include "e_a.h"

/// Makes both blocks point at the status and the configuration in the shared block.
void engine_sharedstatus(const AGENT *ag);

/// Makes both blocks point at the agent's event settings and at its users, none of them counted.
void engine_tables(AGENT *ag);

/// Runs one command of the engine on the shared status; the caller has filled whatever else it needs. 0, or
/// -1.
int engine_call(const AGENT *ag, std::int32_t cmd, std::uint32_t datatype);

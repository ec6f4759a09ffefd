// Filling the engine's argument blocks and calling it: what the loop and the request handlers share.
#pragma once

#include "agent.h"
#include "e_a.h"
#include "engine_records.h"

// The argument blocks of Event_Action, shared by all callers in the agent process: each call site fills the
// members it needs and leaves the others as the previous call left them.
extern int ein_cmd;
extern UPS_EIN_DATA ein;
extern int eout_cmd;
extern UPS_EOUT_DATA eout;

/// Makes both blocks point at the agent's event settings and at its users, none of them counted.
void engine_tables(AGENT *ag);

/// Runs one command of the engine on the shared status; the caller has filled whatever else it needs. 0, or
/// -1.
int engine_call(const AGENT *ag, std::int32_t cmd, std::uint32_t datatype);

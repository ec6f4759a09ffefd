// The event engine's door. The rest of the agent process enters the engine through Event_Action and
// nowhere else; the engine reaches monitors, other agents and the UPS process through Event_CallBack.
#pragma once

#include "engine_records.h"

#include <cstdint>

/// Runs one command of the engine (E_COMMAND) and then, whatever the command was, one step of the
/// schedule and shutdown timers. `ein->DATA.upsinfop` must be valid on every call; the other pointers as
/// the command needs them. `eoutcmd` is the caller's own word and is not touched. A command that does
/// not exist only advances the timers. Not re-entrant; called by the agent process's main thread alone.
/// Returns 0, or -1 when the command or the timer step failed.
int Event_Action(std::int32_t cmd, UPS_EIN_DATA *ein, std::int32_t *eoutcmd, UPS_EOUT_DATA *eout);

/// Carries one request of the engine (E_CALLBACK) to the network side or the UPS process. `data`, `arg`
/// and `value` as engine_records.h lists them by code. Provided by the agent process; called by the
/// engine only. Returns 0 or more on success, -1 on failure.
int Event_CallBack(int code, void *data, int arg, int value);

typedef struct _AGENT AGENT;

/// Tells monitors and other agents that this agent goes down: three rounds, other agents being ordered down
/// only by a server agent. The second way out of the engine, used at the very end of a shutdown. Provided by
/// the agent process.
void net_broadcastdown(AGENT *ag);

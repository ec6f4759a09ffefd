// The agent process: its loop, the dispatch of requests, and its way out.
#pragma once

#include "agent.h"

/// The whole life of the agent process after the fork. Never returns.
[[noreturn]] void daemon_doagent(AGENT *ag);

/// Ends the agent process: monitors are told three times, the stop is logged, the shared block is removed.
[[noreturn]] void net_netexit(AGENT *ag);

/// Hands the packet in the working buffer to its handler. `privileged` 1 admits the commands and settings;
/// `fromtcp` 1 says that it came from a monitor's connection, 0 that it came by UDP. -1 for a packet that no
/// handler took or that its handler refused.
int daemon_procnetmsg(AGENT *ag, int privileged, int fromtcp);

/// Tells the engine that the agent stops. 0, or -1.
int daemon_logagentstop(AGENT *ag);

// Start-up of the daemon, its signal handlers and its exit path.
#pragma once

#include "agent.h"

/// The whole life of `voltariad`. Returns -1 when the start fails; otherwise the process ends elsewhere.
int agent_main();

/// Whether the SIGCHLD handler has reaped the UPS process. For the agent's loop.
bool agent_upsprocess_ended();

/// Creates `agnet->ufd` on UDP `port`. 0, or -1.
int init_uport(NETINFO *agnet, int port);

/// Fills `agnet->tfdlist` with one TCP listener per interface address. 0, or -1 with none left open.
int init_tport(NETINFO *agnet, int port);

/// Closes and frees all listeners.
void init_freeservlist(NETINFO *agnet);

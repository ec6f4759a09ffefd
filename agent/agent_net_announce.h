// What the agent tells the whole network of itself, by broadcast.
#pragma once

#include "agent.h"

/// Announces this agent and its state to monitors. 0, or -1.
int net_announce(AGENT *ag);

/// Tells monitors that this agent goes down. 0, or -1.
int net_broadcastdown2monitor(AGENT *ag);

/// Orders the other agents of the group to shut down. 0, or -1.
int net_broadcastdown2agent(AGENT *ag);

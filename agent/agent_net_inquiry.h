// Monitors that look for agents on the network.
#pragma once

#include "agent.h"

/// DataId 241: tells the inquiring monitor of this agent. 0, also when this agent does not show itself, or
/// -1.
int net_answermonitorinq(AGENT *ag);

/// Whether the address is the first one of this host's name: 0 yes, 1 no, -1 when the name or its address
/// cannot be found. Name and address are looked up once and kept.
int daemon_islocalmonitor(const sockaddr_in *addr);

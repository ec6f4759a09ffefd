// One handler a request. Each works on the packet in the working buffer, answers through net_sendpacketout
// where the request has an answer, and returns 0, or -1 when it refused or failed.
#pragma once

#include "agent.h"

/// DataId 16: the status of the UPS.
int daemon_ansgetupsinfo(AGENT *ag);

/// DataId 17: the monitor's language and system.
int daemon_recvsendosinfo(AGENT *ag);

/// DataId 18: a shutdown order, from a monitor (`fromtcp` 1) or from another agent.
int daemon_shutdownups(AGENT *ag, int fromtcp);

/// DataId 24: by sub-request.
int daemon_command(AGENT *ag);

/// DataId 24, sub-request 6: an empty answer.
int daemon_answernullcloseapp(AGENT *ag);

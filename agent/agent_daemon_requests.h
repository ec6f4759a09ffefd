// One handler a request. Each works on the packet in the working buffer, answers through net_sendpacketout
// where the request has an answer, and returns 0, or -1 when it refused or failed.
#pragma once

#include "agent.h"

/// DataId 16: the status of the UPS.
int daemon_ansgetupsinfo(AGENT *ag);

/// DataId 17: the monitor's language and system.
int daemon_recvsendosinfo(AGENT *ag);

/// DataId 18: a shutdown order, from a monitor (`fromtcp` 1) or from another agent. 0 also when another
/// agent's order is not for this one.
int daemon_shutdownups(AGENT *ag, int fromtcp);

/// DataId 19: a monitor takes its shutdown order back.
int daemon_cancelshutdown(AGENT *ag);

/// DataId 20: a self-test.
int daemon_selftest(AGENT *ag);

/// DataIds 21, 22, 25, 26, 28, 29, 32, 33, 35: the orders that carry nothing.
int daemon_docmd(AGENT *ag);

/// DataId 24: by sub-request.
int daemon_command(AGENT *ag);

/// DataId 24, sub-request 6: an empty answer.
int daemon_answernullcloseapp(AGENT *ag);

/// DataId 30: the battery-change date; answered with DataId 31.
int daemon_getbattime(AGENT *ag);

/// DataId 31: sets the battery-change date.
int daemon_setbattime(AGENT *ag);

/// DataId 34: the output detection level.
int daemon_setupsmodelvl(AGENT *ag);

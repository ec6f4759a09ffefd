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

/// DataId 23: a user proves who he is; answered with his right. Over UDP (`fromtcp` 0) nobody can be told.
int daemon_password(AGENT *ag, int fromtcp);

/// DataId 24, sub-requests 1 to 5: event log, data log, schedules, event settings and users, configuration.
int daemon_geteventlog(AGENT *ag);
int daemon_getdatalog(AGENT *ag);
int daemon_getschedule(AGENT *ag);
int daemon_getevents(AGENT *ag);
int daemon_getconfig(AGENT *ag);

/// DataId 24, sub-request 6: an empty answer.
int daemon_answernullcloseapp(AGENT *ag);

/// DataId 30: the battery-change date; answered with DataId 31.
int daemon_getbattime(AGENT *ag);

/// DataId 31: sets the battery-change date.
int daemon_setbattime(AGENT *ag);

/// DataId 34: the output detection level.
int daemon_setupsmodelvl(AGENT *ag);

/// DataIds 80, 81, 82: replace the schedules, the event settings and users, the configuration.
int daemon_scheduleset(AGENT *ag);
int daemon_eventset(AGENT *ag);
int daemon_configset(AGENT *ag);

/// DataId 192: another host asks the agent that protects it for time.
int daemon_prot2agent(AGENT *ag);

/// DataIds 194, 195: sets and tells which agent protects this host.
int daemon_setprotector(AGENT *ag);
int daemon_getprotector(AGENT *ag);

/// DataId 197: the event log, for a protector.
int daemon_getprteventlog(AGENT *ag);

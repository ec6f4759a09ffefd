// The handlers of new settings.
#include "agent_daemon_requests.h"

int daemon_scheduleset(AGENT *)
{
    return -1;
}

int daemon_eventset(AGENT *)
{
    return -1;
}

int daemon_configset(AGENT *)
{
    return -1;
}

int daemon_setprotector(AGENT *)
{
    return -1;
}

int daemon_prot2agent(AGENT *)
{
    return -1;
}

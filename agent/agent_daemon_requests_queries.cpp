// The handlers of questions for logs, schedules and settings.
#include "agent_daemon_requests.h"

int daemon_geteventlog(AGENT *)
{
    return -1;
}

int daemon_getdatalog(AGENT *)
{
    return -1;
}

int daemon_getschedule(AGENT *)
{
    return -1;
}

int daemon_getevents(AGENT *)
{
    return -1;
}

int daemon_getconfig(AGENT *)
{
    return -1;
}

int daemon_getprotector(AGENT *)
{
    return -1;
}

int daemon_getprteventlog(AGENT *ag)
{
    return daemon_geteventlog(ag);
}

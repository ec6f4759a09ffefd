// Logins of monitors.
#include "agent_daemon_requests.h"

int daemon_password(AGENT *, int)
{
    return -1;
}

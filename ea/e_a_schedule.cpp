// The schedules: shutdowns and self-tests on special days, weekly and monthly. Owns their loading and
// saving. Called by the dispatcher and the status monitor.
#include "e_a_internal.h"

SCHEDULELIST *getschlist()
{
    return nullptr;
}

int setschedule([[maybe_unused]] SCHEDULELIST *list, [[maybe_unused]] UPS_EIN_DATA *ein,
                [[maybe_unused]] UPS_EOUT_DATA *eout)
{
    return -1;
}

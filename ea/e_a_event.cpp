// The event settings: what each event does, and who is told. Owns their loading and saving. Called by the
// dispatcher for monitors' requests and at start-up.
#include "e_a_internal.h"

#include "e_a_event_table.h"

#include <algorithm>

const char *eventmsg(int id)
{
    const auto *event = std::find_if(EventMsg.begin(), EventMsg.end(),
                                     [id](const EVENTMSG &candidate) { return candidate.eID == id; });
    return event != EventMsg.end() ? event->msg : nullptr;
}

static void clearusers(UPS_USERSINFO *users)
{
    if (users == nullptr)
        return;
    users->nusers = 0;
    if (users->udp != nullptr)
        std::for_each_n(users->udp, USER_COUNT, [](USERSDATA &user) { user.UserID = USER_NONE; });
}

int getevent(UPS_EVENTINFO *events, [[maybe_unused]] UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (events == nullptr)
        return -1;
    std::copy(DEFAULTEVENTSET.begin(), DEFAULTEVENTSET.end(), events);
    clearusers(eout->DATA.eu.uip);
    return 0;
}

int setevent([[maybe_unused]] UPS_EIN_DATA *ein, [[maybe_unused]] UPS_EOUT_DATA *eout)
{
    return -1;
}

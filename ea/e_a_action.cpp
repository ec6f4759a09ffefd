// What is done about an event: remembered, logged, told, acted on. Called wherever the engine raises one.
#include "e_a_internal.h"

#include "e_a_event_table.h"
#include "wp_field.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

// What an event's line in the log says besides its number.
typedef struct _ORIGIN {
    int cause;  // the event that led to a shutdown, EVENT_NONE
    const char *name;
} ORIGIN;

static void set_monitorname(std::string_view name)
{
    field_set(engine.monitorname, name);
}

// The order in hand names the monitor or agent that gave it; the names on the wire may lack their end.
static ORIGIN origin_of(int id, const UPS_EIN_DATA *ein)
{
    const AGENTCMD *order = ein->DATA.acp;
    switch (id) {
    case EVENT_CANCELEDBYUSER:
        if (order != nullptr && order->cmd == DATAID_CANCELSHUTDOWN && order->arg.hp != nullptr)
            set_monitorname({order->arg.hp, strnlen(order->arg.hp, sizeof(UPS_AGENTDOWNINFO::Agent))});
        return {EVENT_NONE, engine.monitorname.data()};
    case EVENT_ORDEREDBYUSER:
        if (order != nullptr && order->cmd == DATAID_SHUTDOWN && order->arg.adip != nullptr)
            set_monitorname(field_view(order->arg.adip->Agent));
        return {EVENT_NONE, engine.monitorname.data()};
    case EVENT_ORDEREDBYAGENT:
    case EVENT_ARRIVEDBYAGENT:
        return {EVENT_NONE, engine.agentname.data()};
    case EVENT_SYSTEMDOWN:
        return {engine.DOWNEVENTID, ""};
    default:
        return {EVENT_NONE, ""};
    }
}

int updatelastevent(int id, int cause, const char *name)
{
    UPS_EVENTLOGINFO &newer = engine.last2event[1];
    newer.EventId = static_cast<std::uint8_t>(id);
    newer.byDownToEvt = static_cast<std::int8_t>(cause);
    field_set(newer.AgentName, name);
    return gettime(timenow(), &newer.timeinfo);
}

static int remember(int id, const ORIGIN &origin)
{
    engine.last2event[0] = engine.last2event[1];
    if (engine.bfirst2event != 0)
        engine.last2event[0].EventId = EVENT_NONE;
    engine.bfirst2event = 0;
    return updatelastevent(id, origin.cause, origin.name);
}

// A get of the event settings brings its own table; every other call works with the caller's.
static const UPS_EVENTINFO *find_event(int id, const UPS_EIN_DATA *ein, const UPS_EOUT_DATA *eout)
{
    const UPS_EVENTINFO *table = engine.CURRENTCMD == E_CMD_GETEVENT ? eout->DATA.eu.eap : ein->DATA.eu.eap;
    if (table == nullptr || eventmsg(id) == nullptr)
        return nullptr;
    const UPS_EVENTINFO *end = table + EVENT_COUNT;
    const UPS_EVENTINFO *event =
        std::find_if(table, end, [id](const UPS_EVENTINFO &row) { return row.EventID == id; });
    return event != end ? event : nullptr;
}

static int log_event(int id, const ORIGIN &origin, const UPS_PARAM *param)
{
    const int limit = static_cast<int>(std::min<std::uint32_t>(param->logparam.MaxEventRec, INT_MAX));
    eventlog(id, limit, origin.cause, origin.name);
    return engine.eventlogfailed;
}

int eventaction(int id, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const ORIGIN origin = origin_of(id, ein);
    int failures = remember(id, origin) != 0;
    const UPS_EVENTINFO *event = find_event(id, ein, eout);
    if (event == nullptr)
        return -1;
    if (event->Record != 0 && engine.EVENTLOGENABLED != 0)
        failures += log_event(id, origin, eout->DATA.upsconfigp);
    return failures != 0 ? -1 : 0;
}

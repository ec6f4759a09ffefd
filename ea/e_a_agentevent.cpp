// What happens to agents: this one's settings were changed by a tool, another one orders this one down, this
// one stops. Called by the dispatcher, never once the machine is on its way down.
#include "e_a_internal.h"

#include "shared_word.h"
#include "wp_field.h"

static void reread_settings(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    shared_store(eout->DATA.upsconfigp->commparam.AgentType, read_agenttype());
    fill_group(eout->DATA.upsinfop);
    field_share(ein->DATA.upsconfigp->commparam.Group, field_view(eout->DATA.upsinfop->Group));
}

// Due at once; the timer's grace and whether orders are ignored decide what follows.
static int take_order(const UPS_AGENTDOWNINFO *order)
{
    if (order == nullptr)
        return -1;
    if (engine.downreason == OTHERAGEDOWN)
        return 0;
    engine.downreason = OTHERAGEDOWN;
    field_set(engine.agentname, field_view(order->Agent));
    engine.next_off = engine.OTHERAG_off = timenow();
    return 0;
}

// The role is forgotten whatever happened and comes back with the settings only; the grace that it gave
// stays.
int checkagent(AGENTEVENT *agentevent, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (agentevent == nullptr)
        return -1;
    setrole(0);
    switch (agentevent->id) {
    case AGENTEVENT_SETTINGS:
        reread_settings(ein, eout);
        return 0;
    case AGENTEVENT_ORDERSDOWN:
        return take_order(agentevent->adip);
    case AGENTEVENT_STOP:
        return eventaction(EVENT_AGENTSTOP, ein, eout) != 0 ? -1 : 0;
    default:
        return 0;
    }
}

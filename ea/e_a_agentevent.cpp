// What happens to agents: this one's settings were changed by a tool, another one orders this one down, this
// one stops. Called by the dispatcher, never once the machine is on its way down.
#include "e_a_internal.h"

#include "e_a_error.h"
#include "filehandle.h"
#include "shared_word.h"
#include "wp_field.h"

#include <cstdlib>
#include <string_view>

// Kinds of agent events.
static constexpr std::int32_t AGENT_SETTINGS = 1;
static constexpr std::int32_t AGENT_ORDERSDOWN = 2;
static constexpr std::int32_t AGENT_STOPS = 4;

// As the status fill has it, what the configuration takes for 4 is 6 here.
static std::uint32_t read_agenttype()
{
    const char *text = readparam("UPS", "AgentType");
    if (text == nullptr)
        ea_error("Cannot read AgentType from config file");
    const std::uint32_t stored =
        text != nullptr ? static_cast<std::uint32_t>(std::atoi(text)) : AGENTTYPE_HIGH;
    if (setrole(stored))
        return stored;
    setrole(AGENTTYPE_HIGH);
    return AGENTTYPE_HIGH;
}

static void read_group(UPS_UPSINFO *upsinfo)
{
    const char *text = readparam("UPS", "Group");
    if (text != nullptr) {
        field_share(upsinfo->Group, text);
        return;
    }
    ea_error("Cannot read Group from config file");
    field_share(upsinfo->Group, "Group A");
    writeparam("UPS", "Group", "Group A");
}

static void reread_settings(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    shared_store(eout->DATA.upsconfigp->commparam.AgentType, read_agenttype());
    read_group(eout->DATA.upsinfop);
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
    case AGENT_SETTINGS:
        reread_settings(ein, eout);
        return 0;
    case AGENT_ORDERSDOWN:
        return take_order(agentevent->adip);
    case AGENT_STOPS:
        return eventaction(EVENT_AGENTSTOP, ein, eout) != 0 ? -1 : 0;
    default:
        return 0;
    }
}

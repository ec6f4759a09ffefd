// The engine's argument blocks. All callers in the agent process share them; each fills the members it needs
// and leaves the others as the call before left them.
#include "agent_daemon_engine.h"

int ein_cmd = 0;
UPS_EIN_DATA ein{};
int eout_cmd = 0;
UPS_EOUT_DATA eout{};

static UPS_USERSINFO loop_users{};  // {0, agent.us}: the users as the engine is handed them

static void engine_sharedstatus(const AGENT *ag)
{
    ein.DATA.upsinfop = eout.DATA.upsinfop = &ag->aip->ups.ui;
    ein.DATA.upsconfigp = eout.DATA.upsconfigp = &ag->aip->ups.up;
}

void engine_tables(AGENT *ag)
{
    loop_users = {0, ag->us.data()};
    ein.DATA.eu = eout.DATA.eu = {ag->el.data(), &loop_users};
}

int engine_call(const AGENT *ag, std::int32_t cmd, std::uint32_t datatype)
{
    ein_cmd = cmd;
    ein.datatype = datatype;
    engine_sharedstatus(ag);
    return Event_Action(ein_cmd, &ein, &eout_cmd, &eout);
}

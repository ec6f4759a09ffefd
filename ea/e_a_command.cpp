// The agent's commands: what monitors and other agents ask for beyond settings, and the battery-change
// date that some of them keep in the settings file. Called by the dispatcher and the status fill.
#include "e_a_internal.h"

#include "filehandle.h"
#include "filehandle_battdate.h"

#include <cstdio>

int docommand([[maybe_unused]] AGENTCMD *acp, [[maybe_unused]] UPS_EIN_DATA *ein,
              [[maybe_unused]] UPS_EOUT_DATA *eout)
{
    return -1;
}

int checkagent([[maybe_unused]] AGENTEVENT *agentevent, [[maybe_unused]] UPS_EIN_DATA *ein,
               [[maybe_unused]] UPS_EOUT_DATA *eout)
{
    return -1;
}

int getbattime(UPS_TIMEINFO *timeinfo)
{
    *timeinfo = UPS_TIMEINFO{};
    return battdate_read(*timeinfo);
}

int setbattime(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const UPS_TIMEINFO &date = ein->DATA.acp->arg.bctp->BattTime;
    std::array<char, 40> text;
    std::snprintf(text.data(), text.size(), "%03d,%02d,%02d,%02d,%02d,%02d", date.year, date.month, date.day,
                  date.hour, date.minute, date.second);
    const int failures = writeparam("UPS", "ChangeBattTime", text.data()) != 0;
    eout->DATA.upsinfop->PreChangeBatt = date;
    return failures;
}

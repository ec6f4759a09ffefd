// The engine's entry: the state that its files share, the dispatch of commands, and the start-up. Entered
// by the agent process's main thread through Event_Action, once a turn and once for every request.
#include "e_a.h"

#include "e_a_internal.h"
#include "filehandle.h"
#include "shared_word.h"

#include <algorithm>
#include <new>

ENGINE engine;

// Start-up. Whatever fails, the rest is still loaded; only the start-up event needs it all.
static int initial(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    int failures = 0;
    failures += getconfig(eout) != 0;
    if (shared_load(eout->DATA.upsconfigp->workparam.ComSet) == COMSET_NOUPS)
        shared_store(eout->DATA.upsinfop->CommStatus, COMM_NOUPS);
    eout->DATA.schlist = getschlist();
    failures += getevent(eout->DATA.eu.eap, ein, eout) != 0;
    failures += getupsstatus(eout->DATA.upsinfop) != 0;
    shared_store(ein->DATA.upsinfop->sftResBattery.Result, SELFTEST_NONE);
    shared_store(ein->DATA.upsinfop->sftResUPS.Result, SELFTEST_NONE);
    if (failures != 0)
        return -1;
    eventaction(EVENT_AGENTSTART, ein, eout);
    Event_CallBack(E_CB_STATUSCHANGED, nullptr, 0, 0);
    return 0;
}

static int run_getconfig([[maybe_unused]] UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    return getconfig(eout);
}

static int run_getevent(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    return getevent(eout->DATA.eu.eap, ein, eout);
}

static int run_getschedule([[maybe_unused]] UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    eout->DATA.schlist = getschlist();
    return 0;
}

static int run_geteventlog(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    return geteventlog(ein->DATA.range, &eout->DATA.eventlog);
}

static int run_getdatalog(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    return getdatalog(ein->DATA.range, &eout->DATA.datalog);
}

// Each of the set commands answers with the settings now in force, stored or not.
static int run_setconfig(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const int result = setconfig(ein, eout);
    getconfig(eout);
    return result;
}

static int run_setevent(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const int result = setevent(ein, eout);
    getevent(eout->DATA.eu.eap, ein, eout);
    return result;
}

static int run_setschedule(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const int result = setschedule(ein->DATA.schlist, ein, eout);
    eout->DATA.schlist = getschlist();
    return result;
}

// The timer step of the same call reads beDoCmdDown: a refused order still names its host.
static int run_docommand(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (ein->DATA.acp == nullptr)
        return -1;
    const int result = docommand(ein->DATA.acp, ein, eout);
    engine.beDoCmdDown = ein->DATA.acp->cmd == DATAID_SHUTDOWN;
    return result;
}

static int run_checkagent(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    return checkagent(ein->DATA.agentevent, ein, eout);
}

// When a command says in `eout` what it filled there.
enum class SAYS { NOTHING, BEFORE, AFTER };

typedef struct _COMMAND {
    std::int32_t cmd;
    int (*run)(UPS_EIN_DATA *, UPS_EOUT_DATA *);
    SAYS says;
    std::uint32_t datatype;
    bool whiledown;  // also carried out once the machine is on its way down
} COMMAND;

static constexpr std::uint32_t ALL_SETTINGS = E_UPSTAT | E_UPSCONFIG | E_SCHEDULE | E_EVENTACTION;

static constexpr std::array<COMMAND, 12> COMMANDS = {{
    {E_CMD_INIT, initial, SAYS::AFTER, ALL_SETTINGS, false},
    {E_CMD_GETCONFIG, run_getconfig, SAYS::AFTER, E_UPSCONFIG, true},
    {E_CMD_GETEVENT, run_getevent, SAYS::AFTER, E_EVENTACTION, true},
    {E_CMD_GETSCHEDULE, run_getschedule, SAYS::AFTER, E_SCHEDULE, true},
    {E_CMD_GETEVENTLOG, run_geteventlog, SAYS::BEFORE, E_EVENTLOG, true},
    {E_CMD_GETDATALOG, run_getdatalog, SAYS::BEFORE, E_DATALOG, true},
    {E_CMD_SETCONFIG, run_setconfig, SAYS::BEFORE, E_NULLEVENT, true},
    {E_CMD_SETEVENT, run_setevent, SAYS::BEFORE, E_NULLEVENT, true},
    {E_CMD_SETSCHEDULE, run_setschedule, SAYS::BEFORE, E_NULLEVENT, true},
    {E_CMD_DOCOMMAND, run_docommand, SAYS::NOTHING, E_NULLEVENT, true},
    {E_CMD_CHECKSTATUS, checkupsstatus, SAYS::NOTHING, E_NULLEVENT, true},
    {E_CMD_AGENTEVENT, run_checkagent, SAYS::NOTHING, E_NULLEVENT, false},
}};

// What does not exist, or is refused now, succeeds silently.
static int dispatch(std::int32_t cmd, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const auto *command = std::find_if(COMMANDS.begin(), COMMANDS.end(),
                                       [cmd](const COMMAND &candidate) { return candidate.cmd == cmd; });
    if (command == COMMANDS.end() || (engine.ISSHUTTINGDOWN != 0 && !command->whiledown))
        return 0;
    if (command->says == SAYS::BEFORE)
        eout->datatype = command->datatype;
    const int result = command->run(ein, eout);
    if (command->says == SAYS::AFTER)
        eout->datatype = command->datatype;
    return result;
}

// Without memory a step fails like any other, and the agent stays: whoever asked is told, the next turn tries
// again.
template <typename STEP> static int carried_out(STEP step)
{
    try {
        return step();
    } catch (const std::bad_alloc &) {
        close_write_batch();  // of a save that was cut off; an open one would be written to for ever
        return -1;
    }
}

// Every call advances the timers, a monitor's request too: a busy network must not hold a shutdown back.
int Event_Action(std::int32_t cmd, UPS_EIN_DATA *ein, [[maybe_unused]] std::int32_t *eoutcmd,
                 UPS_EOUT_DATA *eout)
{
    engine.CURRENTCMD = cmd;
    engine.ISCOMLST = shared_load(ein->DATA.upsinfop->CommStatus) == COMM_LOST;
    const bool failed = carried_out([=] { return dispatch(cmd, ein, eout); }) != 0;
    const bool timerfailed = carried_out([=] { return schedule(ein, eout); }) != 0;
    return failed || timerfailed ? -1 : 0;
}

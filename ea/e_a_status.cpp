// The status monitor: what has changed since the last turn? Compares the record that the UPS process keeps
// with what was seen before, has each change told as an event, and sets the deadlines that the shutdown timer
// goes by. Owns the order of a pass and the countdown of an AC failure. Called by the dispatcher on every
// turn; the memory between two passes is in `engine`.
#include "e_a_status.h"

#include "agent.h"
#include "shared_word.h"
#include "wp_field.h"

static constexpr int READ_TRIES = 4;
// What a loss takes from the event bits, a moment after the link counts as lost.
static constexpr std::uint32_t BITS_OF_A_LINK = UPSBIT_TESTING | UPSBIT_BATTTEST | UPSBIT_BATTDISCONNECT;

// ---- what the chapters share

void status_raise(STATUSPASS &pass, int id)
{
    pass.failures += eventaction(id, pass.ein, pass.eout) != 0;
}

void status_announce()
{
    Event_CallBack(E_CB_SETTINGSCHANGED, nullptr, 0, 0);
}

void status_reload(STATUSPASS &pass)
{
    pass.eout->DATA.schlist = getschlist();
}

bool status_linkdown(const STATUSPASS &pass)
{
    return !is_linkup(pass.seen);
}

// A link that is found while mains is failed starts the countdown before the bits are looked at; the bit that
// has come up with the link is the same failure.
void status_startcountdown(STATUSPASS &pass)
{
    if (pass.counting)
        return;
    pass.counting = true;
    engine.just_fail = 1;
    status_raise(pass, EVENT_ACFAIL);
    pass.now = timenow();
    engine.ACFAIL_off = pass.now + span(engine.EXPBLIFE);
    starttimer(&engine.ovaluep, &engine.valuep);
    engine.ACFAIL_duration = 0;
}

void status_stopstopwatch()
{
    if (engine.just_fail != 0)
        stoptimer(&engine.ovaluep, &engine.valuep);
    engine.just_fail = 0;
}

// ---- the pass

// Codes that change while the bits are read do not belong to them.
static void read_status(STATUSPASS &pass)
{
    const UPS_UPSINFO &record = *pass.ein->DATA.upsinfop;
    for (int i = 0; i < READ_TRIES; ++i) {
        pass.seen = shared_copy(record);
        pass.u_status = shared_load(agent.aip->ups.upsstat);
        if (shared_load(record.upsstat) == pass.seen.upsstat &&
            shared_load(record.CommStatus) == pass.seen.CommStatus)
            break;
    }
    // Else a self-test that the loss has cut off would be seen to end on the next pass.
    if (pass.seen.CommStatus == COMM_LOST)
        pass.u_status &= ~BITS_OF_A_LINK;
}

static void watch_settings(STATUSPASS &pass)
{
    const UPS_COMMPARAM &live = pass.eout->DATA.upsconfigp->commparam;
    pass.modelchanged = field_view(pass.seen.upsmodel) != field_view(engine.model_lasttime);
    if (pass.modelchanged)
        status_announce();
    if (field_view(live.Group) != field_view(engine.group_last))
        status_announce();
    if (pass.seen.AgentType != static_cast<std::uint32_t>(engine.agenttype_last))
        status_announce();
    if (live.bIgnore != engine.ignore_last)
        status_announce();
}

// Only units whose name begins so, and that do not tell their capabilities, are switched by the schedules'
// common switch.
static void judge_reboot(STATUSPASS &pass)
{
    const bool switched = field_view(pass.seen.upsmodel).starts_with("ZM");
    if (!switched || CheckBit(pass.u_status, UPSBIT_CF)) {
        engine.sche_on = 0;
        return;
    }
    pass.rebootchanged = pass.seen.bAutoReboot != engine.reboot_old;
    engine.sche_on = pass.seen.bAutoReboot != 0 ? 1 : -1;
    engine.reboot_old = pass.seen.bAutoReboot;
}

static bool is_ignored_order(const STATUSPASS &pass)
{
    return engine.downreason == OTHERAGEDOWN && pass.eout->DATA.upsconfigp->commparam.bIgnore != 0;
}

static bool has_test_ended(const STATUSPASS &pass)
{
    return engine.ACFAIL_off == 0 && engine.ISSHUTTINGDOWN == 0 && engine.LASTUPSSTAT == UPSSTAT_TESTING &&
           pass.seen.upsstat == UPSSTAT_NORMAL;
}

static void reload_settings(STATUSPASS &pass)
{
    if (pass.modelchanged) {
        getconfig(pass.eout);
        status_reload(pass);
    } else if (has_test_ended(pass)) {
        status_reload(pass);
    }
    if (pass.rebootchanged)
        status_reload(pass);
}

static void remember_settings(const STATUSPASS &pass)
{
    const UPS_COMMPARAM &live = pass.eout->DATA.upsconfigp->commparam;
    field_set(engine.model_lasttime, field_view(pass.seen.upsmodel));
    engine.ignore_last = live.bIgnore;
    engine.agenttype_last = static_cast<std::int32_t>(shared_load(pass.ein->DATA.upsinfop->AgentType));
    field_set(engine.group_last, field_view(live.Group));
}

static void remember_status(const STATUSPASS &pass)
{
    engine.LASTUPSSTAT = pass.seen.upsstat;
    engine.LASTBATTSTATUS = pass.seen.BattStatus;
    engine.LASTCOMMSTATUS = pass.seen.CommStatus;
    engine.last_u_status = pass.u_status;
}

int checkupsstatus(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    acfail_elapsed();  // keeps a stopwatch alive that nobody else looks at
    STATUSPASS pass{};
    pass.ein = ein;
    pass.eout = eout;
    read_status(pass);
    watch_settings(pass);
    judge_reboot(pass);
    pass.now = timenow();
    if (is_ignored_order(pass))
        return 0;
    engine.beDoCmdDown = 0;
    reload_settings(pass);
    remember_settings(pass);
    status_link(pass);
    status_bits(pass);
    remember_status(pass);
    status_shown(pass);
    return pass.failures != 0 ? -1 : 0;
}

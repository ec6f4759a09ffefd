// What the status record shows beside the unit's own values: the last events, the time, and the next shutdown
// and restart. The last chapter of the status pass.
#include "e_a_status.h"

#include "shared_word.h"

static void show_time(STATUSPASS &pass, UPS_TIMEINFO &shown, std::time_t t)
{
    UPS_TIMEINFO date = shown;
    if (gettime(t, &date) == 0)
        shared_assign(shown, date);
    else
        ++pass.failures;
}

static std::time_t with_grace(std::time_t deadline)
{
    return deadline != 0 ? deadline + engine.dispgrace : 0;
}

typedef struct _SHOWNTIMES {
    std::time_t down;
    std::time_t boot;
} SHOWNTIMES;

static SHOWNTIMES shown_times(const STATUSPASS &pass)
{
    const bool linkup = !status_linkdown(pass);
    switch (engine.downreason) {
    case AC_FAIL:
        return {with_grace(engine.ACFAIL_off), 0};
    case USER_SPECIFY:
        return {linkup ? with_grace(engine.USR_off) : 0, 0};
    case SPECIAL:
    case WEEKLY:
    case MONTHLY:
        return {linkup ? with_grace(engine.SCH_off) : 0, linkup ? with_grace(engine.SCH_boot) : 0};
    case OTHERAGEDOWN:
        return {pass.eout->DATA.upsconfigp->commparam.bIgnore != 0 ? 0 : with_grace(engine.OTHERAG_off), 0};
    case BATT_LOW:
        return {with_grace(engine.BATTLOW_off), 0};
    case EVENT_TRIGGER:
        return {with_grace(engine.EVENTTRIGGER_off), 0};
    default:
        return {0, 0};
    }
}

void status_shown(STATUSPASS &pass)
{
    UPS_UPSINFO &record = *pass.eout->DATA.upsinfop;
    std::array<UPS_EVENTLOGINFO, 2> events = record.events;
    if (getlasttwoevents(events) == 0)
        shared_assign(record.events, events);
    show_time(pass, record.timeinfo, pass.now);
    engine.dispgrace = pass.eout->DATA.upsconfigp->commparam.bIgnore == 0 ? engine.GRACE_PERIOD : 0;
    if (engine.downreason == AC_FAIL && engine.ACFAIL_off != 0)
        engine.ACFAIL_duration = acfail_elapsed();
    const SHOWNTIMES times = shown_times(pass);
    show_time(pass, record.nextdown, times.down);
    show_time(pass, record.nextboot, times.boot);
}

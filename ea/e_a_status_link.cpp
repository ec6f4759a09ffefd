// The link to the unit, found or lost: what its state ends, and what it begins. A chapter of the status pass.
#include "e_a_status.h"

#include "agent_utils_output.h"
#include "shared_word.h"

#include <array>
#include <cstdio>

static constexpr std::time_t MISSED = 10;  // s; a deadline older than this passed while the link was down

// What every shutdown that is called off with the link leaves behind; its own deadline is cleared beside it.
static void call_off(const STATUSPASS &pass)
{
    UPS_UPSINFO &record = *pass.eout->DATA.upsinfop;
    shared_store(record.ShutdownS, 0);
    shared_store(record.CommandDownS, 0);
    engine.downreason = NONE;
    engine.next_off = 0;
    engine.ISSHUTTINGDOWN = 0;
    engine.DOWNREACHED = 0;
}

// ---- found

static void forget_ordered_shutdown(const STATUSPASS &pass)
{
    UPS_UPSINFO &record = *pass.eout->DATA.upsinfop;
    shared_store(record.ShutdownS, 0);
    shared_store(record.CommandDownS, 0);
    engine.downreason = NONE;
    engine.OTHERAG_off = 0;
    engine.next_off = 0;
    engine.ISSHUTTINGDOWN = 0;
}

// A shutdown under way has not missed its deadline. It is met here when the link was back before the shutdown
// saw the loss, and without a deadline it would stay under way for ever and keep every other from beginning.
static bool is_missed(const STATUSPASS &pass)
{
    return engine.ISSHUTTINGDOWN == 0 && engine.next_off + MISSED < pass.now;
}

static void forget_missed_deadlines()
{
    engine.next_off = 0;
    engine.USR_off = 0;
    engine.SCH_off = 0;
    engine.SCH_boot = 0;
    engine.downreason = NONE;
}

// A repeating schedule is found again until its minute is over, but what came due without a link is missed.
static void drop_missed_schedule(STATUSPASS &pass)
{
    if (engine.lostat == 0 || engine.SCH_off <= engine.lostat || engine.SCH_off >= pass.now)
        return;
    engine.lastdownstart = engine.SCH_off;
    engine.renewal = pass.now + SCHEDULE_STALE;
    status_reload(pass);
}

static void link_established(STATUSPASS &pass)
{
    engine.com_estab_once = 1;
    getconfig(pass.eout);
    status_raise(pass, EVENT_COMMESTABLISHED);
    engine.ISCOMLST = 0;
    pass.now = timenow();
    if (engine.downreason == OTHERAGEDOWN)
        forget_ordered_shutdown(pass);
    if (is_missed(pass))
        forget_missed_deadlines();
    if (CheckBit(pass.u_status, UPSBIT_ACFAIL))
        status_startcountdown(pass);
    engine.LASTCOMESTTIME = pass.now;
    status_reload(pass);
    drop_missed_schedule(pass);
    notify("UPS Communication established");
    Event_CallBack(E_CB_STATUSCHANGED, nullptr, 0, 0);
}

// ---- lost

static void print_loss(const STATUSPASS &pass)
{
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "ups comm lost, comset:%d\n",
                  shared_load(pass.eout->DATA.upsconfigp->workparam.ComSet));
    printf1(text.data());
}

// These go before the loss is told; what mains or a user began goes after it.
static void call_off_before_the_event(const STATUSPASS &pass)
{
    switch (engine.downreason) {
    case OTHERAGEDOWN:
        engine.OTHERAG_off = 0;
        break;
    case EVENT_TRIGGER:
        engine.EVENTTRIGGER_off = 0;
        break;
    case SPECIAL:
    case WEEKLY:
    case MONTHLY:
        engine.SCH_off = 0;
        engine.SCH_boot = 0;
        break;
    default:
        return;
    }
    call_off(pass);
}

// A link that has come back while the loss was being told has brought a code of its own. Overwritten with
// "normal" a mains failure would be taken for ended.
static void forget_code(STATUSPASS &pass)
{
    UPS_UPSINFO &record = *pass.ein->DATA.upsinfop;
    if (shared_load(record.CommStatus) == pass.seen.CommStatus)
        shared_store(record.upsstat, UPSSTAT_NORMAL);
    pass.seen.upsstat = UPSSTAT_NORMAL;
    engine.LASTUPSSTAT = UPSSTAT_NORMAL;
}

// Its shutdown, if already under way, is abandoned by the shutdown itself, which finds the link down.
static void end_acfailure(const STATUSPASS &pass)
{
    engine.ACFAIL_off = 0;
    engine.BATTLOW_off = 0;
    engine.downreason = NONE;
    status_stopstopwatch();
    engine.ACFAIL_duration = 0;
    engine.DOWNREACHED = 0;
    shared_store(pass.eout->DATA.upsinfop->CommandDownS, 0);
}

static void end_user_order(const STATUSPASS &pass)
{
    engine.USR_off = 0;
    call_off(pass);
}

static void link_lost(STATUSPASS &pass)
{
    UPS_UPSINFO &record = *pass.eout->DATA.upsinfop;
    const bool lost = pass.seen.CommStatus == COMM_LOST;
    engine.lostat = pass.now;
    print_loss(pass);
    call_off_before_the_event(pass);
    shared_store(record.ShutdownS, 0);
    shared_assign(record.upsdata, {});
    if (lost && engine.com_estab_once != 0)
        status_raise(pass, EVENT_COMMLOST);
    engine.ISCOMLST = 1;
    forget_code(pass);
    if (engine.downreason == AC_FAIL)
        end_acfailure(pass);
    if (engine.downreason == USER_SPECIFY)
        end_user_order(pass);
    if (lost)
        notify("UPS communication Lost");
    Event_CallBack(E_CB_STATUSCHANGED, nullptr, 0, 0);
}

// ---- the chapter

void status_link(STATUSPASS &pass)
{
    if (pass.seen.CommStatus != engine.LASTCOMMSTATUS) {
        status_announce();
        if (pass.seen.CommStatus == COMM_ESTABLISHED)
            link_established(pass);
        else if (status_linkdown(pass))
            link_lost(pass);
    }
    // On every pass: without a link nothing is known about mains.
    if (status_linkdown(pass) && engine.downreason == AC_FAIL)
        engine.downreason = NONE;
}

// What monitors order beyond settings: a user's shutdown, self-tests, the logs, the unit's switches and its
// battery date. One row of a table each; whatever changes the unit goes on through Event_CallBack, is raised
// as an event and, where the setting is kept, lands in the settings file. Called by the dispatcher;
// getbattime by the configuration and the status fill, too.
#include "e_a_internal.h"

#include "agent_daemon_text.h"
#include "filehandle.h"
#include "filehandle_battdate.h"
#include "shared_word.h"
#include "wp_field.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unistd.h>

// ---- a user's shutdown

// A deadline in force that is earlier stays in force. A negative delay is due now and no earlier: a user's
// order takes neither the grace nor the place of a shutdown that has begun.
static void take_deadline(std::int16_t delay)
{
    engine.USR_off = timenow() + std::max<std::int16_t>(delay, 0);
    if (engine.next_off != 0 && engine.USR_off >= engine.next_off)
        return;
    engine.downreason = USER_SPECIFY;
    engine.next_off = engine.USR_off;
}

static int order_down(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    UPS_UPSINFO &info = *ein->DATA.upsinfop;
    if (!is_linkup(info)) {
        shared_store(info.CommandDownS, 0);
        return -1;
    }
    const UPS_AGENTDOWNINFO *order = acp->arg.adip;
    const char *text = eventmsg(EVENT_ORDEREDBYUSER);
    if (order == nullptr || text == nullptr)
        return -1;
    take_deadline(order->delay);
    const std::string_view name = field_view(order->Agent);
    field_set(engine.monitorname, name);
    notify(text, {notice_arg(name)});
    eventaction(EVENT_ORDEREDBYUSER, ein, eout);
    shared_store(info.CommandDownS, 1);
    engine.bShutdownByUserCanceled = 0;
    return 0;
}

// A shutdown that has begun and now has no cause is called off, or no other could ever begin.
static void call_off(UPS_UPSINFO &info)
{
    engine.ISSHUTTINGDOWN = 0;
    engine.DOWNREACHED = 0;
    shared_store(info.ShutdownS, 0);
}

// A shutdown for any other reason stays.
static void drop_deadline(UPS_UPSINFO &info)
{
    if (engine.downreason == USER_SPECIFY) {
        engine.downreason = NONE;
        if (engine.next_off == engine.USR_off)
            engine.next_off = 0;
        if (engine.ISSHUTTINGDOWN != 0)
            call_off(info);
    }
    shared_store(info.CommandDownS, 0);
    engine.USR_off = 0;
}

// The monitor's name arrives as a field of the wire, whose NUL may be missing. It is kept as monitors read
// it. A notice is converted whole on its way out, so its name must be the host's, like the translation around
// it.
static int order_canceldown(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const char *field = acp->arg.hp;
    const char *text = eventmsg(EVENT_CANCELEDBYUSER);
    if (field == nullptr || text == nullptr)
        return -1;
    engine.shutdownMsgSendOnce = 0;
    drop_deadline(*ein->DATA.upsinfop);
    const std::string_view name(field, strnlen(field, sizeof(UPS_AGENTDOWNINFO::Agent)));
    engine.monitorname.fill('\0');
    JConvForDataOutToNetwork(name, engine.monitorname, 1);
    std::array<char, 2 * sizeof(UPS_AGENTDOWNINFO::Agent) + 1> host{};
    shift2euc(field_view(engine.monitorname), host, CODE_SJIS, 0);
    notify(text, {notice_arg(field_view(host))});
    eventaction(EVENT_CANCELEDBYUSER, ein, eout);
    engine.bShutdownByUserCanceled = 1;
    return 0;
}

// ---- self-tests

static int order_selftest(AGENTCMD *acp, UPS_EIN_DATA *, UPS_EOUT_DATA *)
{
    if (engine.ISCOMLST != 0)
        return 0;
    engine.testreason = USER_SPECIFY;
    Event_CallBack(E_CB_SELFTEST, nullptr, 0, acp->arg.last);
    return 0;
}

// The unit cannot drain its battery while the machine lives on it: that counts as a test that failed.
static void refuse_selftest_long(UPS_UPSINFO &info)
{
    UPS_TIMEINFO now;
    if (gettime(timenow(), &now) == 0)
        shared_assign(info.sftResUPS.timeinfo, now);
    shared_store(info.sftResUPS.Result, SELFTEST_FAILED);
    notice_send(E_CB_MESSAGE, "Selftest Till Battery Low Failed Because of AC Fail!!!", 0);
}

static int order_selftest_long(AGENTCMD *, UPS_EIN_DATA *ein, UPS_EOUT_DATA *)
{
    if (engine.ISCOMLST != 0)
        return 0;
    if (engine.ACFAIL_off != 0 || engine.downreason == AC_FAIL) {
        refuse_selftest_long(*ein->DATA.upsinfop);
        return 0;
    }
    engine.testreason = USER_SPECIFY_LOW;
    Event_CallBack(E_CB_SELFTEST_LONG, nullptr, 0, 0);
    return 0;
}

static int order_selftest_cancel(AGENTCMD *, UPS_EIN_DATA *, UPS_EOUT_DATA *)
{
    engine.testreason = NONE;
    Event_CallBack(E_CB_SELFTEST_CANCEL, nullptr, 0, 0);
    return 0;
}

// ---- the logs

static int order_clear_datalog(AGENTCMD *, UPS_EIN_DATA *, UPS_EOUT_DATA *)
{
    return truncate(Datalogfile, 0) == 0 ? 0 : -1;
}

static int order_clear_eventlog(AGENTCMD *, UPS_EIN_DATA *, UPS_EOUT_DATA *)
{
    const bool cleared = truncate(Evelogfile, 0) == 0;
    engine.SHALLCOPY = 1;
    return cleared ? 0 : -1;
}

// ---- the unit's switches

typedef struct _SWITCH {
    std::int32_t cmd;
    int event;
    int callback;
    const char *key;  // in section UPS
    const char *value;
    bool onlysent;  // the file follows only when the order reached the UPS process
} SWITCH;

// The unlike behaviour of the two buzzer orders is wanted: a buzzer is kept silent rather than loud.
static constexpr std::array<SWITCH, 4> SWITCHES = {{
    {DATAID_BUZZER_ON, EVENT_BUZZER_ON, E_CB_BUZZER_ON, "BuzzerCan", "on", true},
    {DATAID_BUZZER_OFF, EVENT_BUZZER_OFF, E_CB_BUZZER_OFF, "BuzzerCan", "off", false},
    {DATAID_AUTOTEST_ON, EVENT_AUTOTEST_ON, E_CB_AUTOTEST_ON, "AutoTestCan", "on", false},
    {DATAID_AUTOTEST_OFF, EVENT_AUTOTEST_OFF, E_CB_AUTOTEST_OFF, "AutoTestCan", "off", false},
}};

static int order_switch(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const auto *row = std::find_if(SWITCHES.begin(), SWITCHES.end(),
                                   [acp](const SWITCH &candidate) { return candidate.cmd == acp->cmd; });
    if (row == SWITCHES.end())
        return -1;
    eventaction(row->event, ein, eout);
    const bool sent = Event_CallBack(row->callback, acp->arg.hp, 0, 0) == 0;
    if (sent || !row->onlysent)
        writeparam("UPS", row->key, row->value);
    return 0;
}

static constexpr std::int32_t LEVELS = 4;

// A level that does not exist is stored all the same.
static int order_level(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const std::int32_t level = acp->arg.nupsmodel;
    if (level >= 1 && level <= LEVELS) {
        eventaction(EVENT_LEVEL_FIRST + level - 1, ein, eout);
        Event_CallBack(E_CB_DETECTIONLVL, nullptr, 0, level);
    }
    writeparam("UPS", "OutputDetectionLevel", itoc(static_cast<std::uint32_t>(level)));
    return 0;
}

static int order_buzzer_test(AGENTCMD *, UPS_EIN_DATA *, UPS_EOUT_DATA *)
{
    Event_CallBack(E_CB_BUZZER_TEST, nullptr, 0, 0);
    return 0;
}

// ---- the battery-change date

int getbattime(UPS_TIMEINFO *timeinfo)
{
    *timeinfo = UPS_TIMEINFO{};
    return battdate_read(*timeinfo);
}

int setbattime(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const UPS_TIMEINFO &date = ein->DATA.acp->arg.bctp->BattTime;
    const int failures = battdate_write(date) != 0;
    shared_assign(eout->DATA.upsinfop->PreChangeBatt, date);
    return failures;
}

// The first question brings the battery's state, for every model; the date of series ZQ is in the file.
static int order_getbattime(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *)
{
    BATTCHGTIME *answer = acp->arg.bctp;
    if (answer == nullptr)
        return -1;
    int failures = Event_CallBack(E_CB_GETBATTIME, answer, 0, 0) != 0;
    if (field_view(ein->DATA.upsinfop->upsmodel).starts_with("ZQ"))
        getbattime(&answer->BattTime);
    else
        failures += Event_CallBack(E_CB_GETBATTIME, answer, 0, 0) != 0;
    return failures != 0 ? -1 : 0;
}

static int order_setbattime(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (acp->arg.bctp == nullptr)
        return -1;
    int failures = setbattime(ein, eout);
    failures += Event_CallBack(E_CB_SETBATTIME, acp->arg.bctp, 0, 0) != 0;
    eventaction(EVENT_BATTCHANGED, ein, eout);
    return failures != 0 ? -1 : 0;
}

// ---- which order it is

typedef struct _ORDER {
    std::int32_t cmd;
    int (*run)(AGENTCMD *, UPS_EIN_DATA *, UPS_EOUT_DATA *);
} ORDER;

static constexpr std::array<ORDER, 15> ORDERS = {{
    {DATAID_SHUTDOWN, order_down},
    {DATAID_CANCELSHUTDOWN, order_canceldown},
    {DATAID_SELFTEST, order_selftest},
    {DATAID_SELFTEST_LONG, order_selftest_long},
    {DATAID_SELFTEST_CANCEL, order_selftest_cancel},
    {DATAID_CLEAR_DATALOG, order_clear_datalog},
    {DATAID_CLEAR_EVENTLOG, order_clear_eventlog},
    {DATAID_BUZZER_ON, order_switch},
    {DATAID_BUZZER_OFF, order_switch},
    {DATAID_GETBATTIME, order_getbattime},
    {DATAID_SETBATTIME, order_setbattime},
    {DATAID_AUTOTEST_ON, order_switch},
    {DATAID_AUTOTEST_OFF, order_switch},
    {DATAID_DETECTIONLVL, order_level},
    {DATAID_BUZZER_TEST, order_buzzer_test},
}};

// What does not exist succeeds silently.
int docommand(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const auto *order = std::find_if(ORDERS.begin(), ORDERS.end(),
                                     [acp](const ORDER &candidate) { return candidate.cmd == acp->cmd; });
    return order != ORDERS.end() ? order->run(acp, ein, eout) : 0;
}

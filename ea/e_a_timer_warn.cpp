// The warnings on the way to a shutdown, by its reason: who hears what, and how often, and whether the
// deadline has been reached. Called by the timer in e_a_timer.cpp.
#include "e_a_timer.h"

#include "agent_main_message.h"
#include "wp_field.h"

#include <algorithm>
#include <optional>
#include <string>
#include <unistd.h>

// What a deadline led to on this pass.
typedef struct _OUTCOME {
    bool reached;
    std::optional<NOTICE> notice;
} OUTCOME;

// What differs between the three kinds of schedules.
typedef struct _SCHEDULEWARNING {
    REASON reason;
    int arrived;
    int warning;
    std::int32_t ENGINE::*warned;
    const char *localised;
    const char *english;
} SCHEDULEWARNING;

static constexpr std::array<SCHEDULEWARNING, 3> SCHEDULEWARNINGS = {{
    {SPECIAL, EVENT_ARRIVED_SPECIAL, EVENT_WARNING_SPECIAL, &ENGINE::HASBGNSPE,
     "system shutdown warning begin(schedule:specialday) %04dyear %2dmonth %2dday %s.",
     "system shutdown warning begin(schedule:specialday) Date:%s Time: %s."},
    {WEEKLY, EVENT_ARRIVED_WEEKLY, EVENT_WARNING_WEEKLY, &ENGINE::HASBGNWEE,
     "system shutdown warning begin(schedule:weekly) %04dyear %2dmonth %2dday %s.",
     "system shutdown warning begin(schedule:weekly) Date:%s Time: %s."},
    {MONTHLY, EVENT_ARRIVED_MONTHLY, EVENT_WARNING_MONTHLY, &ENGINE::HASBGNMON,
     "system shutdown warning begin(schedule:monthly) %04dyear %2dmonth %2dday %s.",
     "system shutdown warning begin(schedule:monthly) Date:%s Time: %s."},
}};

int read_hostname(std::array<char, NAME_SIZE> &name)
{
    std::array<char, NAME_SIZE> found{};
    if (gethostname(found.data(), found.size() - 1) != 0)
        return -1;
    name = found;
    return 0;
}

// A lost log line fails no step: the agent must start, and answer its monitors, on a full disk too.
static void raise(int id, const PASS &pass)
{
    eventaction(id, pass.ein, pass.eout);
}

// A wall clock that was set back must not silence the warnings.
static bool is_time_again(const PASS &pass, std::time_t interval)
{
    return pass.now < engine.lastdowncount || pass.now - engine.lastdowncount >= interval;
}

static std::string_view name_of(const std::array<char, NAME_SIZE> &name)
{
    return field_view(name);
}

static NOTICE schedule_notice(const SCHEDULEWARNING &kind, std::time_t remaining)
{
    return {
        notice_format(GETTEXTj(kind.localised),
                      {notice_arg(user_year(remaining)), notice_arg(user_month(remaining)),
                       notice_arg(user_day(remaining)), notice_arg(user_time(remaining))}),
        notice_format(kind.english, {notice_arg(user_date(remaining)), notice_arg(user_time(remaining))})};
}

// Neither carried out nor found again when the link is back within its minute.
static void miss_schedule(const PASS &pass)
{
    engine.DOWNREACHED = 0;
    engine.lastdownstart = engine.next_off;
    engine.renewal = pass.now + SCHEDULE_STALE;
    engine.next_off = 0;
    engine.SCH_off = 0;
}

static OUTCOME schedule_due(const SCHEDULEWARNING &kind, const PASS &pass)
{
    if (!is_linkup(*pass.eout->DATA.upsinfop)) {
        miss_schedule(pass);
        return {};
    }
    engine.DOWNREACHED = 1;
    raise(kind.arrived, pass);
    engine.shutdowneventid = static_cast<std::uint8_t>(kind.arrived);
    return {true, {}};
}

static OUTCOME warn_schedule(const PASS &pass)
{
    const auto &kind =
        *std::find_if(SCHEDULEWARNINGS.begin(), SCHEDULEWARNINGS.end(),
                      [](const SCHEDULEWARNING &row) { return row.reason == engine.downreason; });
    engine.lastdowncount = engine.lastschdowncount;
    if (engine.next_off <= pass.now)
        return schedule_due(kind, pass);
    if (engine.next_off - pass.now > span(engine.SCHCOUNT) || !is_linkup(*pass.eout->DATA.upsinfop) ||
        !is_time_again(pass, engine.scheinterval))
        return {};
    if (engine.*kind.warned == 0)
        raise(kind.warning, pass);
    engine.*kind.warned = 1;
    engine.shutdowneventid = static_cast<std::uint8_t>(kind.warning);
    return {false, schedule_notice(kind, pass.grace + engine.next_off - pass.now)};
}

static OUTCOME warn_acfail(const PASS &pass)
{
    engine.shutdowneventid = EVENT_ACFAIL;
    if (engine.ACFAIL_off < pass.now) {
        engine.DOWNREACHED = 1;
        raise(EVENT_ACFAIL_RUNOUT, pass);
        return {true, {}};
    }
    if (engine.ACFAIL_off - pass.now > static_cast<std::time_t>(engine.PFAILCOUNT) ||
        !is_linkup(*pass.eout->DATA.upsinfop) || !is_time_again(pass, span(engine.INTERVAL)))
        return {};
    const std::time_t remaining = pass.grace + engine.ACFAIL_off - pass.now;
    return {false, notice_compose("UPS Ac fail, System will be shut down in %d minute(s) and %d second(s).",
                                  {notice_arg(user_time_m(remaining)), notice_arg(user_time_s(remaining))})};
}

static OUTCOME warn_battlow(const PASS &pass)
{
    engine.shutdowneventid = EVENT_BATTLOW;
    const bool reached = engine.BATTLOW_off <= pass.now;
    if (reached)
        engine.DOWNREACHED = 1;
    return {reached, notice_compose("The system will begin shutdown process due to Battery Low")};
}

static OUTCOME warn_trigger(const PASS &pass)
{
    engine.shutdowneventid = engine.DOWNEVENTID;
    OUTCOME outcome{engine.EVENTTRIGGER_off <= pass.now, {}};
    const char *text = eventmsg(engine.DOWNEVENTID);
    if (text == nullptr)
        return outcome;
    // The events that name a monitor are told with its name.
    const NOTICE event = notice_compose(text, {notice_arg(name_of(engine.monitorname))});
    constexpr char FORMAT[] = "%s, The system will begin shutdown process.";
    outcome.notice = NOTICE{notice_format(GETTEXTj(FORMAT), {notice_arg(event.localised)}),
                            notice_format(FORMAT, {notice_arg(event.english)})};
    return outcome;
}

// The order is there to be read only during the call that brought it.
static int take_orderer(const PASS &pass)
{
    if (engine.beDoCmdDown == 0)
        return 0;
    engine.beDoCmdDown = 0;
    const AGENTCMD *order = pass.ein->DATA.acp;
    if (engine.CURRENTCMD != E_CMD_DOCOMMAND || order == nullptr || order->arg.adip == nullptr)
        return 0;
    field_set(engine.g_agent_name, field_view(order->arg.adip->Agent));
    return read_hostname(engine.g_localname) != 0;
}

static OUTCOME warn_user(const PASS &pass, int &failures)
{
    failures += take_orderer(pass);
    if (engine.USR_off <= pass.now) {
        engine.DOWNREACHED = 1;
        engine.shutdowneventid = EVENT_ARRIVEDBYUSER;
        raise(EVENT_ARRIVEDBYUSER, pass);
        return {true, {}};
    }
    if (engine.USR_off - pass.now > span(engine.SCHCOUNT) || engine.shutdownMsgSendOnce != 0)
        return {};
    engine.shutdownMsgSendOnce = 1;
    engine.shutdowneventid = EVENT_ORDEREDBYUSER;
    return {false, notice_compose(eventmsg(EVENT_ORDEREDBYUSER), {notice_arg(name_of(engine.g_localname))})};
}

// An order in this host's own name is an echo, or comes from a host with the same name. It is dropped, or it
// would keep every other deadline from being chosen.
static void drop_order()
{
    engine.downreason = NONE;
    engine.OTHERAG_off = 0;
    engine.next_off = 0;
}

static OUTCOME warn_agent(const PASS &pass, int &failures)
{
    failures += read_hostname(engine.g_localname) != 0;
    if (engine.agentname == engine.g_localname) {
        drop_order();
        return {};
    }
    if (pass.eout->DATA.upsconfigp->commparam.bIgnore != 0)
        return {};
    raise(EVENT_ORDEREDBYAGENT, pass);
    engine.shutdowneventid = EVENT_ORDEREDBYAGENT;
    return {engine.OTHERAG_off <= pass.now,
            notice_compose("The system will begin shutdown process due to agent on %s",
                           {notice_arg(name_of(engine.agentname))})};
}

static OUTCOME outcome_of(const PASS &pass, int &failures)
{
    switch (engine.downreason) {
    case SPECIAL:
    case WEEKLY:
    case MONTHLY:
        return warn_schedule(pass);
    case AC_FAIL:
        return warn_acfail(pass);
    case BATT_LOW:
        return warn_battlow(pass);
    case EVENT_TRIGGER:
        return warn_trigger(pass);
    case USER_SPECIFY:
        return warn_user(pass, failures);
    case OTHERAGEDOWN:
        return warn_agent(pass, failures);
    default:
        return {};
    }
}

static int tell(const NOTICE &notice, const PASS &pass)
{
    engine.lastdowncount = pass.now;
    if (is_scheduled(engine.downreason))
        engine.lastschdowncount = pass.now;
    const int failures = notify(notice) != 0;
    if (engine.shutdowneventid != EVENT_NONE)
        wallornot(engine.shutdowneventid, notice.english, pass.ein);
    return failures;
}

bool warn(const PASS &pass, int &failures)
{
    const OUTCOME outcome = outcome_of(pass, failures);
    if (outcome.notice)
        failures += tell(*outcome.notice, pass);
    return outcome.reached;
}

int say_timeisup()
{
    const NOTICE notice = notice_compose("Time is up! System shutdown will be executed soon");
    int failures = notice_send(E_CB_TIMEISUP, notice.localised, 1) != 0;
    failures += notify(notice) != 0;
    return failures != 0 ? -1 : 0;
}

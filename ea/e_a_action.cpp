// What is done about an event: remembered, logged, told, acted on. Called wherever the engine raises one.
#include "e_a_internal.h"

#include "agent_main_message.h"
#include "e_a_notify.h"
#include "wp_field.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <span>
#include <string_view>

// BroadcastType: up to the first to every terminal, the second to the chosen users, anything else to nobody.
static constexpr std::uint32_t BROADCASTTYPE_ALL = 1;
static constexpr std::uint32_t BROADCASTTYPE_USERS = 2;

// What an event's line in the log says besides its number.
typedef struct _ORIGIN {
    int cause;  // the event that led to a shutdown, EVENT_NONE
    const char *name;
} ORIGIN;

static void set_monitorname(std::string_view name)
{
    field_set(engine.monitorname, name);
}

// The order in hand names the monitor or agent that gave it; the names on the wire may lack their end.
static ORIGIN origin_of(int id, const UPS_EIN_DATA *ein)
{
    const AGENTCMD *order = ein->DATA.acp;
    switch (id) {
    case EVENT_CANCELEDBYUSER:
        if (order != nullptr && order->cmd == DATAID_CANCELSHUTDOWN && order->arg.hp != nullptr)
            set_monitorname({order->arg.hp, strnlen(order->arg.hp, sizeof(UPS_AGENTDOWNINFO::Agent))});
        return {EVENT_NONE, engine.monitorname.data()};
    case EVENT_ORDEREDBYUSER:
        if (order != nullptr && order->cmd == DATAID_SHUTDOWN && order->arg.adip != nullptr)
            set_monitorname(field_view(order->arg.adip->Agent));
        return {EVENT_NONE, engine.monitorname.data()};
    case EVENT_ORDEREDBYAGENT:
    case EVENT_ARRIVEDBYAGENT:
        return {EVENT_NONE, engine.agentname.data()};
    case EVENT_SYSTEMDOWN:
        return {engine.DOWNEVENTID, ""};
    default:
        return {EVENT_NONE, ""};
    }
}

int updatelastevent(int id, int cause, const char *name)
{
    UPS_EVENTLOGINFO &newer = engine.last2event[1];
    newer.EventId = static_cast<std::uint8_t>(id);
    newer.byDownToEvt = static_cast<std::int8_t>(cause);
    field_set(newer.AgentName, name);
    return gettime(timenow(), &newer.timeinfo);
}

static int remember(int id, const ORIGIN &origin)
{
    engine.last2event[0] = engine.last2event[1];
    if (engine.bfirst2event != 0)
        engine.last2event[0].EventId = EVENT_NONE;
    engine.bfirst2event = 0;
    return updatelastevent(id, origin.cause, origin.name);
}

static const UPS_EVENTINFO *find_row(int id, const UPS_EVENTINFO *table)
{
    if (table == nullptr)
        return nullptr;
    const UPS_EVENTINFO *end = table + EVENT_COUNT;
    const UPS_EVENTINFO *event =
        std::find_if(table, end, [id](const UPS_EVENTINFO &row) { return row.EventID == id; });
    return event != end ? event : nullptr;
}

static int log_event(int id, const ORIGIN &origin, const UPS_PARAM *param)
{
    const int limit = static_cast<int>(std::min<std::uint32_t>(param->logparam.MaxEventRec, INT_MAX));
    eventlog(id, limit, origin.cause, origin.name);
    return engine.eventlogfailed;
}

// ------------------------------------------------------------------------------------------- telling users

// The texts in which a name stands. Every other is a text as it is, whatever it holds.
static bool names_monitor(int id)
{
    return id == EVENT_ORDEREDBYUSER || id == EVENT_CANCELEDBYUSER;
}

static std::string english_text(int id)
{
    if (!names_monitor(id))
        return eventmsg(id);
    return notice_format(eventmsg(id), {notice_arg(field_view(engine.monitorname))});
}

// The name is the only part that comes from the network.
static std::string mail_text(int id)
{
    const std::string name = one_line(field_view(engine.monitorname));
    return notice_format(GETTEXTj(eventmsg(id)), {notice_arg(name)});
}

// While a scheduled shutdown is pending only its own arrival is shown, and a mains failure never is: the
// warnings of the countdown take its place.
static bool is_shown_to_all(int id)
{
    if (is_scheduled(engine.downreason))
        return id == EVENT_ARRIVED_SPECIAL || id == EVENT_ARRIVED_WEEKLY || id == EVENT_ARRIVED_MONTHLY;
    return id != EVENT_ACFAIL;
}

static bool goes_to_all(const UPS_EVENTINFO &event)
{
    return event.BroadcastType <= BROADCASTTYPE_ALL;
}

static bool is_chosen(std::uint32_t mask, std::size_t user)
{
    return CheckBit(mask, std::uint32_t{1} << user);
}

static void tell_on_terminals(const UPS_EVENTINFO &event, std::size_t index, const USERSDATA &user,
                              std::string_view text)
{
    const std::string_view name = field_view(user.UserName);
    if (event.BroadcastType == BROADCASTTYPE_USERS && is_chosen(event.BroadcastUser, index) && !name.empty())
        tell_user(name, text);
}

static void tell_by_mail(const UPS_EVENTINFO &event, std::size_t index, const USERSDATA &user)
{
    const std::string_view address = field_view(user.Email);
    if (is_chosen(event.MailUser, index) && !address.empty())
        tell_mail(address, mail_text(event.EventID));
}

// The users are picked by slot, whatever their number is.
static std::span<const USERSDATA> users_of(const EVENTUSERS &tables)
{
    if (tables.uip == nullptr || tables.uip->udp == nullptr)
        return {};
    return {tables.uip->udp, USER_COUNT};
}

static void tell_users(const UPS_EVENTINFO &event, std::span<const USERSDATA> users)
{
    const int id = event.EventID;
    const std::string text = english_text(id);
    if (goes_to_all(event) && is_shown_to_all(id))
        tell_wall(text);
    for (std::size_t i = 0; i < users.size(); ++i) {
        if (id != EVENT_ACFAIL)
            tell_on_terminals(event, i, users[i], text);
        tell_by_mail(event, i, users[i]);
    }
}

int wallornot(int id, const std::string &text, UPS_EIN_DATA *ein)
{
    const EVENTUSERS &tables = ein->DATA.eu;
    const UPS_EVENTINFO *event = find_row(id, tables.eap);
    if (event == nullptr)
        return -1;
    tell_begin();
    if (goes_to_all(*event))
        tell_wall(text);
    const std::span<const USERSDATA> users = users_of(tables);
    for (std::size_t i = 0; i < users.size(); ++i)
        tell_on_terminals(*event, i, users[i], text);
    return 0;
}

// -------------------------------------------------------------------------------------------- acting on it

static void carry_out(const UPS_EVENTINFO &event, const UPS_PARAM *param)
{
    const std::string_view command = field_view(event.Command);
    if (!command.empty())
        run_command(command, span(param->workparam.nCloseAppTime));
}

// A shutdown that an event started, and whose time has come, is not started over.
static bool is_under_way(std::time_t now)
{
    return engine.next_off != 0 && engine.next_off <= engine.EVENTTRIGGER_off && engine.next_off < now &&
           engine.ACFAIL_off < now;
}

static void start_shutdown(int id)
{
    const std::time_t now = timenow();
    engine.DOWNEVENTID = static_cast<std::uint8_t>(id);
    if (id == EVENT_ORDEREDBYUSER || id == EVENT_SYSTEMDOWN || id == EVENT_ORDEREDBYAGENT ||
        engine.DOWNREACHED != 0 || is_under_way(now))
        return;
    engine.EVENTTRIGGER_off = now;
    engine.downreason = EVENT_TRIGGER;
    engine.next_off = now;
}

int eventaction(int id, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    const ORIGIN origin = origin_of(id, ein);
    int failures = remember(id, origin) != 0;
    // A get of the event settings brings its own tables; every other call works with the caller's.
    const EVENTUSERS &tables = engine.CURRENTCMD == E_CMD_GETEVENT ? eout->DATA.eu : ein->DATA.eu;
    const UPS_EVENTINFO *event = eventmsg(id) != nullptr ? find_row(id, tables.eap) : nullptr;
    if (event == nullptr)
        return -1;
    tell_begin();
    tell_mesg();
    if (event->Record != 0 && engine.EVENTLOGENABLED != 0)
        failures += log_event(id, origin, eout->DATA.upsconfigp);
    tell_users(*event, users_of(tables));
    carry_out(*event, eout->DATA.upsconfigp);
    if (event->Shutdown != 0)
        start_shutdown(id);
    return failures != 0 ? -1 : 0;
}

// The handlers of questions for logs, schedules and settings. Each takes what it needs of the request before
// it asks the engine, whose notices go through the same buffer, and answers without data when the engine
// fails.
#include "agent_daemon_requests.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_engine.h"
#include "agent_daemon_peer.h"
#include "agent_daemon_requests_internal.h"
#include "agent_net.h"

#include <algorithm>
#include <memory>
#include <span>

static constexpr LOGRANGE WHOLE_LOG = {0, 65536};  // what a protector tells of its event log

static int answer_empty(AGENT *ag, std::uint8_t dataid)
{
    (void)packet_answer(ag, dataid, PACKET_HEAD_SIZE);
    return net_sendpacketout(ag);
}

// Sends an answer of `count` records of `size` bytes, put there by `put`, or the empty answer when there are
// none, and when there is no memory for them: whoever asked must not wait for ever.
template <typename PUT>
static int answer_records(AGENT *ag, std::uint8_t dataid, std::size_t count, std::size_t size, PUT put)
{
    const auto length = static_cast<std::uint32_t>(PACKET_HEAD_SIZE + count * size);
    const WIREBYTES data = packet_answer(ag, dataid, length);
    if (data.size() != count * size)
        return answer_empty(ag, dataid);
    for (std::size_t i = 0; i < count; ++i)
        put(data, i * size, i);
    return net_sendpacketout(ag);
}

// ---- logs

static LOGRANGE requested_range()
{
    const WIREVIEW data = packet_data();
    return {static_cast<std::int16_t>(wire_get16(data, offsetof(UPS_COMMAND_PACKET, firstline))),
            static_cast<std::int16_t>(wire_get16(data, offsetof(UPS_COMMAND_PACKET, linecounts)))};
}

// Asks the engine for a page of a log. The array that it may leave in `eout` is the caller's, whatever the
// result.
static int read_log(const AGENT *ag, std::int32_t cmd, std::uint32_t datatype, LOGRANGE range)
{
    eout.DATA.eventlog = EVENTLOGARRAY{};
    eout.DATA.datalog = DATALOGARRAY{};
    ein.DATA.range = &range;
    const int result = engine_call(ag, cmd, datatype);
    ein.DATA.range = nullptr;
    return result;
}

static std::size_t records_of(int result, std::int32_t count, const void *array)
{
    return result == 0 && array != nullptr && count > 0 ? static_cast<std::size_t>(count) : 0;
}

int daemon_geteventlog(AGENT *ag)
{
    if (packet_data().size() < sizeof(UPS_COMMAND_PACKET))
        return -1;
    const bool protector = is_protector(ag);
    const int result = read_log(ag, E_CMD_GETEVENTLOG, E_EVENTLOG, protector ? WHOLE_LOG : requested_range());
    const std::unique_ptr<UPS_EVENTLOGINFO[]> log(eout.DATA.eventlog.eventlogarray);
    const std::size_t count = records_of(result, eout.DATA.eventlog.rnum, log.get());
    eout.DATA.eventlog = EVENTLOGARRAY{};
    return answer_records(
        ag, protector ? DATAID_ANSPRTEVENTLOG : DATAID_ANSEVENTLOG, count, sizeof(UPS_EVENTLOGINFO),
        [&log](WIREBYTES data, std::size_t at, std::size_t i) { wire_puteventlog(data, at, log[i]); });
}

int daemon_getprteventlog(AGENT *ag)
{
    return daemon_geteventlog(ag);
}

int daemon_getdatalog(AGENT *ag)
{
    if (packet_data().size() < sizeof(UPS_COMMAND_PACKET))
        return -1;
    if (is_protector(ag))
        return answer_empty(ag, DATAID_ANSDATALOG);
    const int result = read_log(ag, E_CMD_GETDATALOG, E_DATALOG, requested_range());
    const std::unique_ptr<UPS_DATALOGINFO[]> log(eout.DATA.datalog.datalogarray);
    const std::size_t count = records_of(result, eout.DATA.datalog.rnum, log.get());
    eout.DATA.datalog = DATALOGARRAY{};
    return answer_records(
        ag, DATAID_ANSDATALOG, count, sizeof(UPS_DATALOGINFO),
        [&log](WIREBYTES data, std::size_t at, std::size_t i) { wire_putdatalog(data, at, log[i]); });
}

// ---- schedules

static void month_for_monitor(UPS_TIMEINFO &time)
{
    if (time.month >= 0)
        time.month = static_cast<std::int8_t>(time.month + 1);
}

static SCHEDULEINFO schedule_for_monitor(const AGENT *ag, SCHEDULEINFO info)
{
    if (counts_months_from_1(ag)) {
        month_for_monitor(info.stimeInfo);
        month_for_monitor(info.etimeInfo);
    }
    return info;
}

static std::size_t length_of(const SCHEDULELIST *list)
{
    std::size_t count = 0;
    for (const SCHEDULELIST *node = list; node != nullptr; node = node->next)
        ++count;
    return count;
}

int daemon_getschedule(AGENT *ag)
{
    if (is_protector(ag))
        return answer_empty(ag, DATAID_SCHEDULES);
    const int result = engine_call(ag, E_CMD_GETSCHEDULE, E_SCHEDULE);
    ag->sl = eout.DATA.schlist;  // the engine's own list, until it looks through the schedules again
    const SCHEDULELIST *node = result == 0 ? ag->sl : nullptr;
    return answer_records(ag, DATAID_SCHEDULES, length_of(node), sizeof(SCHEDULEINFO),
                          [ag, &node](WIREBYTES data, std::size_t at, std::size_t) {
                              wire_putschedule(data, at, schedule_for_monitor(ag, node->info));
                              node = node->next;
                          });
}

// ---- event settings and users

static void user_for_monitor(USERSDATA &user)
{
    field_cut(user.Address, USER_TEXT_LIMIT);
    field_cut(user.Email, USER_TEXT_LIMIT);
    field_tonetwork(user.UserName, TEXTMODE_JAPANESE);
    field_tonetwork(user.Address, TEXTMODE_JAPANESE);
    field_tonetwork(user.Email, TEXTMODE_JAPANESE);
}

static int answer_events(AGENT *ag, std::span<const USERSDATA> users)
{
    const auto length =
        static_cast<std::uint32_t>(PACKET_HEAD_SIZE + EVENTS_BYTES + users.size() * sizeof(USERSDATA));
    const WIREBYTES data = packet_answer(ag, DATAID_EVENTS, length);
    if (data.empty())
        return -1;
    for (std::size_t i = 0; i < EVENTS_SENT; ++i)
        wire_putevent(data, i * sizeof(UPS_EVENTINFO), ag->el[i]);
    for (std::size_t i = 0; i < users.size(); ++i)
        wire_putuser(data, EVENTS_BYTES + i * sizeof(USERSDATA), users[i]);
    return net_sendpacketout(ag);
}

int daemon_getevents(AGENT *ag)
{
    if (is_protector(ag))
        return answer_empty(ag, DATAID_EVENTS);
    engine_tables(ag);
    if (engine_call(ag, E_CMD_GETEVENT, E_EVENTACTION) != 0)
        return answer_empty(ag, DATAID_EVENTS);
    ag->nusers = std::clamp(eout.DATA.eu.uip->nusers, 0, static_cast<std::int32_t>(USER_COUNT));
    const std::span<USERSDATA> users = std::span(ag->us).first(static_cast<std::size_t>(ag->nusers));
    for (USERSDATA &user : users)
        user_for_monitor(user);
    return answer_events(ag, users);
}

// ---- the working configuration

// In place, loaded just now or not: the shared block keeps what the last monitor was shown, and so do
// announcements and tools that read it there.
static void texts_for_monitor(UPS &ups, int mode)
{
    field_tonetwork(ups.up.commparam.Agent, mode);
    field_tonetwork(ups.up.commparam.Group, mode);
    field_tonetwork(ups.ui.Group, mode);
    field_tonetwork(ups.up.commparam.lpszAccount, mode);
    field_tonetwork(ups.up.commparam.lpszDomain, mode);
}

int daemon_getconfig(AGENT *ag)
{
    const UPS_PACKET_HEAD head = packet_head();
    UPS &ups = ag->aip->ups;
    const int result = is_protector(ag) ? -1 : engine_call(ag, E_CMD_GETCONFIG, E_UPSCONFIG);
    texts_for_monitor(ups, text_mode(head));
    if (result != 0)
        return answer_empty(ag, DATAID_CONFIG);
    UPS_PARAM param = shared_copy(ups.up);
    if (beMonitorWin110(head))
        param.workparam.ComSet = static_cast<std::int32_t>(param.workparam.TurnOffDelay);
    return answer_records(ag, DATAID_CONFIG, 1, sizeof(UPS_PARAM),
                          [&param](WIREBYTES data, std::size_t, std::size_t) { wire_putparam(data, param); });
}

// ---- protectors

int daemon_getprotector(AGENT *ag)
{
    if (!is_protector(ag) || engine_call(ag, E_CMD_GETCONFIG, E_UPSCONFIG) != 0)
        return answer_empty(ag, DATAID_PROTECTORCFG);
    std::array<char, sizeof(UPS_COMMPARAM::Agent)> name = ag->aip->ups.up.commparam.Agent;
    PROTECTORCFG config{};
    field_cut(name, config.lpszAgentName.size() - 1);
    field_set(config.lpszAgentName, field_view(name));
    return answer_records(
        ag, DATAID_PROTECTORCFG, 1, sizeof(PROTECTORCFG),
        [&config](WIREBYTES data, std::size_t, std::size_t) { wire_putprotectorcfg(data, config); });
}

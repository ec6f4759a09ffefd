// The handlers of new settings: each checks its packet, makes what it carries the agent's own and has the
// engine store it. None of them is answered; what is refused changes nothing.
#include "agent_daemon_requests.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_engine.h"
#include "agent_daemon_peer.h"
#include "agent_daemon_requests_internal.h"

#include <algorithm>
#include <new>
#include <vector>

// The list that a monitor sent last; `agent.sl` points into it until the schedules are asked for.
static std::vector<SCHEDULELIST> schedules;

// ---- schedules

// Storing an entry takes several writes, and each of them looks through the settings: some thousand entries
// would keep the agent from everything else for minutes, and would not all be read back.
static constexpr std::size_t MOST_SCHEDULES = 400;

static void month_from_monitor(UPS_TIMEINFO &time)
{
    if (time.month > 0)
        time.month = static_cast<std::int8_t>(time.month - 1);
}

static SCHEDULEINFO schedule_from_monitor(const AGENT *ag, WIREVIEW data, std::size_t at)
{
    SCHEDULEINFO info = wire_getschedule(data, at);
    if (counts_months_from_1(ag)) {
        month_from_monitor(info.stimeInfo);
        month_from_monitor(info.etimeInfo);
    }
    return info;
}

// -1 when there is no memory for the new list; the old one stays.
static int take_schedules(const AGENT *ag, WIREVIEW data)
{
    try {
        schedules = std::vector<SCHEDULELIST>(data.size() / sizeof(SCHEDULEINFO));
    } catch (const std::bad_alloc &) {
        return -1;
    }
    for (std::size_t i = 0; i < schedules.size(); ++i) {
        schedules[i].info = schedule_from_monitor(ag, data, i * sizeof(SCHEDULEINFO));
        schedules[i].next = i + 1 < schedules.size() ? &schedules[i + 1] : nullptr;
    }
    return 0;
}

int daemon_scheduleset(AGENT *ag)
{
    const WIREVIEW data = packet_data();
    if (is_protector(ag) || packet_head().Length < PACKET_HEAD_SIZE ||
        data.size() % sizeof(SCHEDULEINFO) != 0 || data.size() > MOST_SCHEDULES * sizeof(SCHEDULEINFO) ||
        take_schedules(ag, data) == -1)
        return -1;
    ag->sl = schedules.empty() ? nullptr : schedules.data();
    ein.DATA.schlist = ag->sl;
    return engine_call(ag, E_CMD_SETSCHEDULE, E_SCHEDULE);
}

// ---- event settings and users

// Names go through the conversion for monitors on their way in, too: they are kept as monitors write them.
static USERSDATA user_from_monitor(WIREVIEW data, std::size_t at)
{
    USERSDATA user = wire_getuser(data, at);
    field_cut(user.Address, USER_TEXT_LIMIT);
    field_cut(user.Email, USER_TEXT_LIMIT);
    field_tonetwork(user.UserName, TEXTMODE_JAPANESE);
    field_tonetwork(user.Address, TEXTMODE_JAPANESE);
    field_tonetwork(user.Email, TEXTMODE_JAPANESE);
    return user;
}

// Users beyond the table are left out. Returns how many were taken.
static std::size_t take_users(AGENT *ag, WIREVIEW data)
{
    const std::size_t count = std::min(data.size() / sizeof(USERSDATA), USER_COUNT);
    for (std::size_t i = 0; i < count; ++i)
        ag->us[i] = user_from_monitor(data, i * sizeof(USERSDATA));
    USERSDATA empty{};
    empty.UserID = USER_NONE;
    std::fill(ag->us.begin() + static_cast<std::ptrdiff_t>(count), ag->us.end(), empty);
    return count;
}

int daemon_eventset(AGENT *ag)
{
    const WIREVIEW data = packet_data();
    if (is_protector(ag) || data.size() < EVENTS_BYTES ||
        (data.size() - EVENTS_BYTES) % sizeof(USERSDATA) != 0)
        return -1;
    for (std::size_t i = 0; i < EVENTS_SENT; ++i)
        ag->el[i] = wire_getevent(data, i * sizeof(UPS_EVENTINFO));
    engine_tables(ag);
    ein.DATA.eu.uip->nusers = static_cast<std::int32_t>(take_users(ag, data.subspan(EVENTS_BYTES)));
    const int result = engine_call(ag, E_CMD_SETEVENT, E_EVENTACTION);
    ag->nusers = eout.DATA.eu.uip->nusers;  // the users as they were read back
    return result;
}

// ---- the working configuration

static void texts_from_monitor(UPS_COMMPARAM &comm, int mode)
{
    field_fromnetwork(comm.Agent, mode);
    field_fromnetwork(comm.Group, mode);
    field_fromnetwork(comm.lpszAccount, mode);
    field_fromnetwork(comm.lpszDomain, mode);
}

// The engine is handed the live record as the request: what was asked for is in force when it stores it. The
// UPS process reads and writes words of the record meanwhile.
int daemon_configset(AGENT *ag)
{
    const WIREVIEW data = packet_data();
    if (is_protector(ag) || data.size() < sizeof(UPS_PARAM))
        return -1;
    UPS_PARAM requested = wire_getparam(data);
    texts_from_monitor(requested.commparam, text_mode(packet_head()));
    shared_assign(ag->aip->ups.up, requested);
    return engine_call(ag, E_CMD_SETCONFIG, E_UPSCONFIG);
}

// ---- protectors

int daemon_setprotector(AGENT *ag)
{
    const WIREVIEW data = packet_data();
    if (data.size() != sizeof(PROTECTORCFG) || !is_protector(ag))
        return -1;
    const PROTECTORCFG config = wire_getprotectorcfg(data);
    field_share(ag->aip->ups.up.commparam.Agent, field_view(config.lpszAgentName));
    return engine_call(ag, E_CMD_SETCONFIG, E_UPSCONFIG);
}

int daemon_prot2agent(AGENT *ag)
{
    const WIREVIEW data = packet_data();
    if (data.size() != sizeof(UPS_PROTECTORINFO) || packet_head().DataId != DATAID_PROT2AGENT ||
        is_protector(ag))
        return -1;
    UPS_PROTECTORINFO info = wire_getprotectorinfo(data);
    AGENTCMD command{DATAID_PROT2AGENT, {.pip = &info}};
    ein.DATA.acp = &command;
    const int result = engine_call(ag, E_CMD_DOCOMMAND, E_UPSCMD);
    ein.DATA.acp = nullptr;
    return result;
}

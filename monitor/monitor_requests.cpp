// One call for each request beyond the hello and the status: what is sent, which answer is right.
#include "monitor_records.h"

#include <algorithm>
#include <string_view>

// Sub-requests of DataId 24.
enum class QUERY : std::uint8_t { EventLog = 1, DataLog, Schedules, Events, Config, Nothing };

// Closes the session: what follows on it cannot be trusted either.
static MONITOR_RESULT wrong_data(MONITOR_SESSION &session, const char *what)
{
    monitor_close(session);
    return {MONITOR_ERROR::BadAnswer, std::string("the agent's answer holds no ") + what};
}

static MONITOR_RESULT send_query(MONITOR_SESSION &session, QUERY query, std::int16_t first,
                                 std::int16_t count)
{
    UPS_COMMAND_PACKET command{};
    command.cmd = static_cast<std::uint8_t>(query);
    command.firstline = first;
    command.linecounts = count;
    return monitor_send(session, DATAID_COMMAND, monitor_encode(command));
}

static MONITOR_RESULT ask(MONITOR_SESSION &session, QUERY query, std::uint8_t answer_id,
                          MONITOR_PACKET &packet, std::int16_t first = 0, std::int16_t count = 0)
{
    MONITOR_RESULT result = send_query(session, query, first, count);
    return monitor_ok(result) ? monitor_receive(session, answer_id, 0, packet) : result;
}

// ---- Logs ----

MONITOR_RESULT monitor_eventlog(MONITOR_SESSION &session, std::int16_t first, std::int16_t count,
                                std::vector<UPS_EVENTLOGINFO> &lines, bool &whole)
{
    lines.clear();
    MONITOR_RESULT result = send_query(session, QUERY::EventLog, first, count);
    MONITOR_PACKET packet;
    if (monitor_ok(result))
        result = monitor_receive_either(session, DATAID_ANSEVENTLOG, DATAID_ANSPRTEVENTLOG, packet);
    if (!monitor_ok(result))
        return result;
    whole = packet.head.DataId == DATAID_ANSPRTEVENTLOG;
    const bool too_many =
        !whole && packet.data.size() / sizeof(UPS_EVENTLOGINFO) > static_cast<std::size_t>(count);
    if (too_many || !monitor_decode(packet.data, lines))
        return wrong_data(session, "event log");
    return {};
}

MONITOR_RESULT monitor_datalog(MONITOR_SESSION &session, std::int16_t first, std::int16_t count,
                               std::vector<UPS_DATALOGINFO> &lines)
{
    lines.clear();
    MONITOR_PACKET packet;
    MONITOR_RESULT result = ask(session, QUERY::DataLog, DATAID_ANSDATALOG, packet, first, count);
    if (!monitor_ok(result))
        return result;
    if (packet.data.size() / sizeof(UPS_DATALOGINFO) > static_cast<std::size_t>(count) ||
        !monitor_decode(packet.data, lines))
        return wrong_data(session, "data log");
    return {};
}

// ---- Settings ----

MONITOR_RESULT monitor_schedules(MONITOR_SESSION &session, std::vector<SCHEDULEINFO> &entries)
{
    entries.clear();
    MONITOR_PACKET packet;
    MONITOR_RESULT result = ask(session, QUERY::Schedules, DATAID_SCHEDULES, packet);
    if (monitor_ok(result) && !monitor_decode(packet.data, entries))
        return wrong_data(session, "schedules");
    return result;
}

MONITOR_RESULT monitor_events(MONITOR_SESSION &session, EVENT_TABLE &events, std::vector<USERSDATA> &users,
                              bool &empty)
{
    users.clear();
    MONITOR_PACKET packet;
    MONITOR_RESULT result = ask(session, QUERY::Events, DATAID_EVENTS, packet);
    if (!monitor_ok(result))
        return result;
    empty = packet.data.empty();
    if (!empty && (!monitor_decode(packet.data, events, users) || users.size() > USER_COUNT))
        return wrong_data(session, "event settings");
    return {};
}

MONITOR_RESULT monitor_config(MONITOR_SESSION &session, UPS_PARAM &param, bool &empty)
{
    MONITOR_PACKET packet;
    MONITOR_RESULT result = ask(session, QUERY::Config, DATAID_CONFIG, packet);
    if (!monitor_ok(result))
        return result;
    empty = packet.data.empty();
    if (!empty && !monitor_decode(packet.data, param))
        return wrong_data(session, "settings");
    return {};
}

MONITOR_RESULT monitor_set_schedules(MONITOR_SESSION &session, std::span<const SCHEDULEINFO> entries)
{
    WIRE_BYTES bytes;
    for (const SCHEDULEINFO &entry : entries) {
        const WIRE_BYTES record = monitor_encode(entry);
        bytes.insert(bytes.end(), record.begin(), record.end());
    }
    return monitor_send(session, DATAID_SCHEDULES, bytes);
}

MONITOR_RESULT monitor_set_events(MONITOR_SESSION &session, const EVENT_TABLE &events,
                                  std::span<const USERSDATA> users)
{
    return monitor_send(session, DATAID_EVENTS, monitor_encode(events, users));
}

MONITOR_RESULT monitor_set_config(MONITOR_SESSION &session, const UPS_PARAM &param)
{
    return monitor_send(session, DATAID_CONFIG, monitor_encode(param));
}

// ---- Orders ----

MONITOR_RESULT monitor_order(MONITOR_SESSION &session, std::uint8_t data_id,
                             std::span<const std::uint8_t> data)
{
    return monitor_send(session, data_id, data);
}

MONITOR_RESULT monitor_battery_date(MONITOR_SESSION &session, BATTCHGTIME &date)
{
    MONITOR_PACKET packet;
    MONITOR_RESULT result = monitor_request(session, DATAID_GETBATTIME, {}, DATAID_SETBATTIME,
                                            PACKET_HEAD_SIZE + sizeof(BATTCHGTIME), packet);
    if (monitor_ok(result) && !monitor_decode(packet.data, date))
        return wrong_data(session, "battery date");
    return result;
}

MONITOR_RESULT monitor_login(MONITOR_SESSION &session, const std::string &user, const std::string &password,
                             std::uint32_t &right)
{
    UPS_PASSWORD proof{};
    if (user.size() > proof.username.size() || password.size() > proof.password.size())
        return {MONITOR_ERROR::BadAnswer, "the name or the password is longer than the protocol can carry"};
    std::copy(user.begin(), user.end(), proof.username.begin());
    std::copy(password.begin(), password.end(), proof.password.begin());
    MONITOR_PACKET packet;
    MONITOR_RESULT result = monitor_request(session, DATAID_PASSWORD, monitor_encode(proof),
                                            DATAID_ANSPASSWORD, PACKET_HEAD_SIZE + sizeof right, packet);
    if (monitor_ok(result) && !monitor_decode(packet.data, right))
        return wrong_data(session, "right");
    return result;
}

MONITOR_RESULT monitor_settle(MONITOR_SESSION &session)
{
    MONITOR_PACKET packet;
    MONITOR_RESULT result = ask(session, QUERY::Nothing, DATAID_ANSNULL, packet);
    if (monitor_ok(result) && !packet.data.empty())
        return wrong_data(session, "mere sign of life");
    return result;
}

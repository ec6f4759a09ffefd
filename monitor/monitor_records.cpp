// The settings, log, order and discovery records as bytes and back. Each record's fields stand once, for both
// directions.
#include "monitor_records.h"

#include "monitor_fields.h"

// ---- Fields in the order of the wire ----

template <typename PARAM, typename FIELD> static void each_work_field(PARAM &work, FIELD field)
{
    field(work.BSuspend);
    field(work.BattLife);
    field(work.ComSet);
    field(work.TurnOffDelay);
    field(work.AutoReboot);
    field(work.FirstWarningTime);
    field(work.CountDownTime);
    field(work.WarningBeforeSchel);
    field(work.nCloseAppTime);
}

template <typename PARAM, typename FIELD> static void each_log_field(PARAM &log, FIELD field)
{
    field(log.EnableEventLog);
    field(log.MaxEventRec);
    field(log.EnableDataLog);
    field(log.MaxDataRec);
    field(log.DataLogInterval);
}

template <typename PARAM, typename FIELD> static void each_comm_field(PARAM &comm, FIELD field)
{
    field(comm.AgentType);
    field(comm.ClientTime);
    field(comm.LowServerTime);
    field(comm.NormalTime);
    field(comm.bIgnore);
    field(comm.Agent);
    field(comm.lpszAccount);
    field(comm.lpszDomain);
    field(comm.Group);
}

// The record's type may be const or not; CONST_OF picks the overload for both.
template <typename T, typename RECORD>
concept CONST_OF = std::same_as<std::remove_const_t<T>, RECORD>;

template <typename FIELD> static void each_field(CONST_OF<UPS_PARAM> auto &param, FIELD field)
{
    each_work_field(param.workparam, field);
    each_log_field(param.logparam, field);
    each_comm_field(param.commparam, field);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_EVENTINFO> auto &event, FIELD field)
{
    field(event.EventID);
    field(event.Reserved);
    field(event.Record);
    field(event.Shutdown);
    field(event.BroadcastType);
    field(event.BroadcastUser);
    field(event.MailUser);
    field(event.Command);
}

template <typename FIELD> static void each_field(CONST_OF<USERSDATA> auto &user, FIELD field)
{
    field(user.UserID);
    field(user.Reserved);
    field(user.UserName);
    field(user.Address);
    field(user.Email);
}

template <typename FIELD> static void each_field(CONST_OF<SCHEDULEINFO> auto &entry, FIELD field)
{
    field(entry.ID);
    field(entry.ActionID);
    field(entry.ScheduleOn);
    each_time_field(entry.stimeInfo, field);
    each_time_field(entry.etimeInfo, field);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_EVENTLOGINFO> auto &line, FIELD field)
{
    each_event_field(line, field);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_DATALOGINFO> auto &line, FIELD field)
{
    each_time_field(line.timeinfo, field);
    each_measurement_field(line.upsdata, field);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_COMMAND_PACKET> auto &command, FIELD field)
{
    field(command.cmd);
    field(command.reserver);
    field(command.firstline);
    field(command.linecounts);
    field(command.reserved);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_PASSWORD> auto &password, FIELD field)
{
    field(password.username);
    field(password.password);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_AGENTDOWNINFO> auto &order, FIELD field)
{
    field(order.DownId);
    field(order.reserved);
    field(order.delay);
    field(order.AgentType);
    field(order.Agent);
    field(order.Group);
}

template <typename FIELD> static void each_field(CONST_OF<BATTCHGTIME> auto &date, FIELD field)
{
    field(date.uBattStatus);
    each_time_field(date.BattTime, field);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_INQAGENT> auto &inquiry, FIELD field)
{
    field(inquiry.cmd);
    field(inquiry.Monitor);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_ANSAGENT> auto &agent, FIELD field)
{
    field(agent.cmd);
    field(agent.Agent);
    field(agent.upsmodel);
    field(agent.UPSStatus);
    field(agent.cReserve);
    field(agent.sReserve);
    field(agent.NT);
    field(agent.Group);
    field(agent.AgentType);
    field(agent.BattStatus);
    field(agent.CommStatus);
    field(agent.bIgnore);
}

template <typename FIELD> static void each_field(CONST_OF<UPS_ANSPROT> auto &protector, FIELD field)
{
    field(protector.cmd);
    field(protector.NT);
    field(protector.Agent);
    field(protector.myname);
}

// ---- One record ----

// Every record's width in memory is its width on the wire, by the assertions beside its definition.
template <typename RECORD> static WIRE_BYTES encoded(const RECORD &record)
{
    WIRE_BYTES bytes(sizeof(RECORD));
    WRITE_CURSOR out{bytes};
    each_field(record, [&out](const auto &field) { put(out, field); });
    return bytes;
}

template <typename RECORD> static bool decoded(std::span<const std::uint8_t> bytes, RECORD &record)
{
    if (bytes.size() != sizeof(RECORD))
        return false;
    READ_CURSOR in{bytes};
    each_field(record, [&in](auto &field) { take(in, field); });
    return true;
}

WIRE_BYTES monitor_encode(const UPS_PARAM &param)
{
    return encoded(param);
}

WIRE_BYTES monitor_encode(const UPS_EVENTINFO &event)
{
    return encoded(event);
}

WIRE_BYTES monitor_encode(const USERSDATA &user)
{
    return encoded(user);
}

WIRE_BYTES monitor_encode(const SCHEDULEINFO &entry)
{
    return encoded(entry);
}

WIRE_BYTES monitor_encode(const UPS_EVENTLOGINFO &line)
{
    return encoded(line);
}

WIRE_BYTES monitor_encode(const UPS_DATALOGINFO &line)
{
    return encoded(line);
}

WIRE_BYTES monitor_encode(const UPS_COMMAND_PACKET &command)
{
    return encoded(command);
}

WIRE_BYTES monitor_encode(const UPS_PASSWORD &password)
{
    return encoded(password);
}

WIRE_BYTES monitor_encode(const UPS_AGENTDOWNINFO &order)
{
    return encoded(order);
}

WIRE_BYTES monitor_encode(const BATTCHGTIME &date)
{
    return encoded(date);
}

WIRE_BYTES monitor_encode(const UPS_INQAGENT &inquiry)
{
    return encoded(inquiry);
}

WIRE_BYTES monitor_encode(const UPS_ANSAGENT &agent)
{
    return encoded(agent);
}

WIRE_BYTES monitor_encode(const UPS_ANSPROT &protector)
{
    return encoded(protector);
}

WIRE_BYTES monitor_encode(std::uint32_t word)
{
    WIRE_BYTES bytes(sizeof word);
    WRITE_CURSOR out{bytes};
    put(out, word);
    return bytes;
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_PARAM &param)
{
    return decoded(bytes, param);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_EVENTINFO &event)
{
    return decoded(bytes, event);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, USERSDATA &user)
{
    return decoded(bytes, user);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, SCHEDULEINFO &entry)
{
    return decoded(bytes, entry);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_EVENTLOGINFO &line)
{
    return decoded(bytes, line);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_DATALOGINFO &line)
{
    return decoded(bytes, line);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_COMMAND_PACKET &command)
{
    return decoded(bytes, command);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_PASSWORD &password)
{
    return decoded(bytes, password);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_AGENTDOWNINFO &order)
{
    return decoded(bytes, order);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, BATTCHGTIME &date)
{
    return decoded(bytes, date);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_INQAGENT &inquiry)
{
    return decoded(bytes, inquiry);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_ANSAGENT &agent)
{
    return decoded(bytes, agent);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, UPS_ANSPROT &protector)
{
    return decoded(bytes, protector);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, std::uint32_t &word)
{
    if (bytes.size() != sizeof word)
        return false;
    READ_CURSOR in{bytes};
    take(in, word);
    return true;
}

// ---- Several records ----

template <typename RECORD>
static bool decoded(std::span<const std::uint8_t> bytes, std::vector<RECORD> &records)
{
    if (bytes.size() % sizeof(RECORD) != 0)
        return false;
    records.resize(bytes.size() / sizeof(RECORD));
    for (RECORD &record : records) {
        if (!decoded(bytes.first(sizeof(RECORD)), record))
            return false;
        bytes = bytes.subspan(sizeof(RECORD));
    }
    return true;
}

bool monitor_decode(std::span<const std::uint8_t> bytes, std::vector<UPS_EVENTLOGINFO> &lines)
{
    return decoded(bytes, lines);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, std::vector<UPS_DATALOGINFO> &lines)
{
    return decoded(bytes, lines);
}

bool monitor_decode(std::span<const std::uint8_t> bytes, std::vector<SCHEDULEINFO> &entries)
{
    return decoded(bytes, entries);
}

WIRE_BYTES monitor_encode(const EVENT_TABLE &events, std::span<const USERSDATA> users)
{
    WIRE_BYTES bytes;
    bytes.reserve(sizeof(EVENT_TABLE) + users.size_bytes());
    const auto append = [&bytes](const WIRE_BYTES &record) {
        bytes.insert(bytes.end(), record.begin(), record.end());
    };
    for (const UPS_EVENTINFO &event : events)
        append(monitor_encode(event));
    for (const USERSDATA &user : users)
        append(monitor_encode(user));
    return bytes;
}

bool monitor_decode(std::span<const std::uint8_t> bytes, EVENT_TABLE &events, std::vector<USERSDATA> &users)
{
    if (bytes.size() < sizeof(EVENT_TABLE) || (bytes.size() - sizeof(EVENT_TABLE)) % sizeof(USERSDATA) != 0)
        return false;
    for (UPS_EVENTINFO &event : events) {
        if (!decoded(bytes.first(sizeof event), event))
            return false;
        bytes = bytes.subspan(sizeof event);
    }
    return decoded(bytes, users);
}

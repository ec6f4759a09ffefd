// The records of logs, schedules, settings and battery dates, field by field at the offsets of the wire.
// Called by the request handlers, and by agent_wire.cpp for the parts that the status record shares with
// them.
#include "agent_wire.h"

static std::int32_t get_signed(WIREVIEW bytes, std::size_t at)
{
    return static_cast<std::int32_t>(wire_get32(bytes, at));
}

static void put_signed(WIREBYTES bytes, std::size_t at, std::int32_t value)
{
    wire_put32(bytes, at, static_cast<std::uint32_t>(value));
}

static std::int16_t get_short(WIREVIEW bytes, std::size_t at)
{
    return static_cast<std::int16_t>(wire_get16(bytes, at));
}

static std::int8_t get_byte(WIREVIEW bytes, std::size_t at)
{
    return static_cast<std::int8_t>(bytes[at]);
}

// ---- dates and measurements

UPS_TIMEINFO wire_gettime(WIREVIEW bytes, std::size_t at)
{
    UPS_TIMEINFO time{};
    time.year = bytes[at];
    time.month = get_byte(bytes, at + 1);
    time.day = get_byte(bytes, at + 2);
    time.hour = get_byte(bytes, at + 3);
    time.minute = get_byte(bytes, at + 4);
    time.second = get_byte(bytes, at + 5);
    time.wReserver = get_short(bytes, at + 6);
    return time;
}

void wire_puttime(WIREBYTES bytes, std::size_t at, const UPS_TIMEINFO &time)
{
    wire_put8(bytes, at, time.year);
    wire_put8(bytes, at + 1, time.month);
    wire_put8(bytes, at + 2, time.day);
    wire_put8(bytes, at + 3, time.hour);
    wire_put8(bytes, at + 4, time.minute);
    wire_put8(bytes, at + 5, time.second);
    wire_put16(bytes, at + 6, time.wReserver);
}

void wire_putupsdata(WIREBYTES bytes, std::size_t at, const UPSDATA &data)
{
    wire_put16(bytes, at, data.InPutINT);
    wire_put16(bytes, at + 2, data.OutPutINT);
    wire_put8(bytes, at + 4, data.InPutREM);
    wire_put8(bytes, at + 5, data.OutPutREM);
    wire_put8(bytes, at + 6, data.FreqInputINT);
    wire_put8(bytes, at + 7, data.FreqInputREM);
    wire_put8(bytes, at + 8, data.FreqOutputINT);
    wire_put8(bytes, at + 9, data.FreqOutputREM);
    wire_put8(bytes, at + 10, data.TempINT);
    wire_put8(bytes, at + 11, data.TempREM);
    wire_put8(bytes, at + 12, data.BattVolINT);
    wire_put8(bytes, at + 13, data.BattVolREM);
    wire_put8(bytes, at + 14, data.BattCap);
    wire_put8(bytes, at + 15, data.Load);
}

BATTCHGTIME wire_getbattime(WIREVIEW bytes)
{
    return {wire_get32(bytes, 0), wire_gettime(bytes, 4)};
}

void wire_putbattime(WIREBYTES bytes, const BATTCHGTIME &record)
{
    wire_put32(bytes, 0, record.uBattStatus);
    wire_puttime(bytes, 4, record.BattTime);
}

// ---- logs

void wire_puteventlog(WIREBYTES bytes, std::size_t at, const UPS_EVENTLOGINFO &event)
{
    wire_put8(bytes, at, event.EventId);
    wire_put8(bytes, at + 1, event.byDownToEvt);
    wire_put16(bytes, at + 2, event.wReserve);
    wire_puttime(bytes, at + 4, event.timeinfo);
    wire_putfield(bytes, at + 12, event.AgentName);
}

void wire_putdatalog(WIREBYTES bytes, std::size_t at, const UPS_DATALOGINFO &record)
{
    wire_puttime(bytes, at, record.timeinfo);
    wire_putupsdata(bytes, at + 8, record.upsdata);
}

// ---- schedules

SCHEDULEINFO wire_getschedule(WIREVIEW bytes, std::size_t at)
{
    return {get_byte(bytes, at), get_byte(bytes, at + 1), get_short(bytes, at + 2),
            wire_gettime(bytes, at + 4), wire_gettime(bytes, at + 12)};
}

void wire_putschedule(WIREBYTES bytes, std::size_t at, const SCHEDULEINFO &info)
{
    wire_put8(bytes, at, info.ID);
    wire_put8(bytes, at + 1, info.ActionID);
    wire_put16(bytes, at + 2, info.ScheduleOn);
    wire_puttime(bytes, at + 4, info.stimeInfo);
    wire_puttime(bytes, at + 12, info.etimeInfo);
}

// ---- event settings and users

UPS_EVENTINFO wire_getevent(WIREVIEW bytes, std::size_t at)
{
    UPS_EVENTINFO event{};
    event.EventID = wire_get16(bytes, at);
    event.Reserved = get_short(bytes, at + 2);
    event.Record = get_signed(bytes, at + 4);
    event.Shutdown = get_signed(bytes, at + 8);
    event.BroadcastType = wire_get32(bytes, at + 12);
    event.BroadcastUser = wire_get32(bytes, at + 16);
    event.MailUser = wire_get32(bytes, at + 20);
    wire_gettext(bytes, at + 24, event.Command);
    return event;
}

void wire_putevent(WIREBYTES bytes, std::size_t at, const UPS_EVENTINFO &event)
{
    wire_put16(bytes, at, event.EventID);
    wire_put16(bytes, at + 2, event.Reserved);
    put_signed(bytes, at + 4, event.Record);
    put_signed(bytes, at + 8, event.Shutdown);
    wire_put32(bytes, at + 12, event.BroadcastType);
    wire_put32(bytes, at + 16, event.BroadcastUser);
    wire_put32(bytes, at + 20, event.MailUser);
    wire_putfield(bytes, at + 24, event.Command);
}

USERSDATA wire_getuser(WIREVIEW bytes, std::size_t at)
{
    USERSDATA user{};
    user.UserID = bytes[at];
    user.Reserved = get_byte(bytes, at + 1);
    wire_gettext(bytes, at + 2, user.UserName);
    wire_gettext(bytes, at + 23, user.Address);
    wire_gettext(bytes, at + 283, user.Email);
    return user;
}

void wire_putuser(WIREBYTES bytes, std::size_t at, const USERSDATA &user)
{
    wire_put8(bytes, at, user.UserID);
    wire_put8(bytes, at + 1, user.Reserved);
    wire_putfield(bytes, at + 2, user.UserName);
    wire_putfield(bytes, at + 23, user.Address);
    wire_putfield(bytes, at + 283, user.Email);
}

// ---- the working configuration

static UPS_WORKPARAM get_workparam(WIREVIEW bytes)
{
    UPS_WORKPARAM work{};
    work.BSuspend = get_signed(bytes, 0);
    work.BattLife = wire_get32(bytes, 4);
    work.ComSet = get_signed(bytes, 8);
    work.TurnOffDelay = wire_get32(bytes, 12);
    work.AutoReboot = get_signed(bytes, 16);
    work.FirstWarningTime = wire_get32(bytes, 20);
    work.CountDownTime = wire_get32(bytes, 24);
    work.WarningBeforeSchel = wire_get32(bytes, 28);
    work.nCloseAppTime = wire_get32(bytes, 32);
    return work;
}

static void put_workparam(WIREBYTES bytes, const UPS_WORKPARAM &work)
{
    put_signed(bytes, 0, work.BSuspend);
    wire_put32(bytes, 4, work.BattLife);
    put_signed(bytes, 8, work.ComSet);
    wire_put32(bytes, 12, work.TurnOffDelay);
    put_signed(bytes, 16, work.AutoReboot);
    wire_put32(bytes, 20, work.FirstWarningTime);
    wire_put32(bytes, 24, work.CountDownTime);
    wire_put32(bytes, 28, work.WarningBeforeSchel);
    wire_put32(bytes, 32, work.nCloseAppTime);
}

static UPS_LOGPARAM get_logparam(WIREVIEW bytes)
{
    UPS_LOGPARAM log{};
    log.EnableEventLog = get_signed(bytes, 0);
    log.MaxEventRec = wire_get32(bytes, 4);
    log.EnableDataLog = get_signed(bytes, 8);
    log.MaxDataRec = wire_get32(bytes, 12);
    log.DataLogInterval = wire_get32(bytes, 16);
    return log;
}

static void put_logparam(WIREBYTES bytes, const UPS_LOGPARAM &log)
{
    put_signed(bytes, 0, log.EnableEventLog);
    wire_put32(bytes, 4, log.MaxEventRec);
    put_signed(bytes, 8, log.EnableDataLog);
    wire_put32(bytes, 12, log.MaxDataRec);
    wire_put32(bytes, 16, log.DataLogInterval);
}

static UPS_COMMPARAM get_commparam(WIREVIEW bytes)
{
    UPS_COMMPARAM comm{};
    comm.AgentType = wire_get32(bytes, 0);
    comm.ClientTime = wire_get32(bytes, 4);
    comm.LowServerTime = wire_get32(bytes, 8);
    comm.NormalTime = wire_get32(bytes, 12);
    comm.bIgnore = get_signed(bytes, 16);
    wire_gettext(bytes, 20, comm.Agent);
    wire_gettext(bytes, 280, comm.lpszAccount);
    wire_gettext(bytes, 540, comm.lpszDomain);
    wire_gettext(bytes, 800, comm.Group);
    return comm;
}

static void put_commparam(WIREBYTES bytes, const UPS_COMMPARAM &comm)
{
    wire_put32(bytes, 0, comm.AgentType);
    wire_put32(bytes, 4, comm.ClientTime);
    wire_put32(bytes, 8, comm.LowServerTime);
    wire_put32(bytes, 12, comm.NormalTime);
    put_signed(bytes, 16, comm.bIgnore);
    wire_putfield(bytes, 20, comm.Agent);
    wire_putfield(bytes, 280, comm.lpszAccount);
    wire_putfield(bytes, 540, comm.lpszDomain);
    wire_putfield(bytes, 800, comm.Group);
}

UPS_PARAM wire_getparam(WIREVIEW bytes)
{
    return {get_workparam(bytes), get_logparam(bytes.subspan(offsetof(UPS_PARAM, logparam))),
            get_commparam(bytes.subspan(offsetof(UPS_PARAM, commparam)))};
}

void wire_putparam(WIREBYTES bytes, const UPS_PARAM &param)
{
    put_workparam(bytes, param.workparam);
    put_logparam(bytes.subspan(offsetof(UPS_PARAM, logparam)), param.logparam);
    put_commparam(bytes.subspan(offsetof(UPS_PARAM, commparam)), param.commparam);
}

// ---- protectors

PROTECTORCFG wire_getprotectorcfg(WIREVIEW bytes)
{
    PROTECTORCFG config{};
    config.TimeDelay = wire_get32(bytes, 0);
    wire_gettext(bytes, 4, config.lpszAgentName);
    return config;
}

void wire_putprotectorcfg(WIREBYTES bytes, const PROTECTORCFG &config)
{
    wire_put32(bytes, 0, config.TimeDelay);
    wire_putfield(bytes, 4, config.lpszAgentName);
}

UPS_PROTECTORINFO wire_getprotectorinfo(WIREVIEW bytes)
{
    UPS_PROTECTORINFO info{};
    info.TimeNeeded = bytes[0];
    info.creserved = get_byte(bytes, 1);
    info.sreserved = get_short(bytes, 2);
    wire_gettext(bytes, 4, info.Protector);
    return info;
}

// Encoders and decoders of whole records, field by field at the offsets of the wire.
#include "agent_wire.h"

VTOSINFO wire_getosinfo(WIREVIEW bytes)
{
    VTOSINFO info{};
    info.lang = static_cast<std::int32_t>(wire_get32(bytes, 0));
    info.os = static_cast<std::int32_t>(wire_get32(bytes, 4));
    info.reserved = static_cast<std::int32_t>(wire_get32(bytes, 8));
    wire_gettext(bytes, 12, info.osname);
    return info;
}

void wire_putosinfo(WIREBYTES bytes, const VTOSINFO &info)
{
    wire_put32(bytes, 0, static_cast<std::uint32_t>(info.lang));
    wire_put32(bytes, 4, static_cast<std::uint32_t>(info.os));
    wire_put32(bytes, 8, static_cast<std::uint32_t>(info.reserved));
    wire_puttext(bytes, 12, info.osname);
}

static void puttime(WIREBYTES bytes, std::size_t at, const UPS_TIMEINFO &time)
{
    wire_put8(bytes, at, time.year);
    wire_put8(bytes, at + 1, time.month);
    wire_put8(bytes, at + 2, time.day);
    wire_put8(bytes, at + 3, time.hour);
    wire_put8(bytes, at + 4, time.minute);
    wire_put8(bytes, at + 5, time.second);
    wire_put16(bytes, at + 6, time.wReserver);
}

static void putupsdata(WIREBYTES bytes, std::size_t at, const UPSDATA &data)
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

static void puteventlog(WIREBYTES bytes, std::size_t at, const UPS_EVENTLOGINFO &event)
{
    wire_put8(bytes, at, event.EventId);
    wire_put8(bytes, at + 1, event.byDownToEvt);
    wire_put16(bytes, at + 2, event.wReserve);
    puttime(bytes, at + 4, event.timeinfo);
    wire_puttext(bytes, at + 12, event.AgentName);
}

static void puttestresult(WIREBYTES bytes, std::size_t at, const SELFTESTRESULT &result)
{
    wire_put32(bytes, at, result.Result);
    puttime(bytes, at + 4, result.timeinfo);
}

void wire_putupsinfo(WIREBYTES bytes, const UPS_UPSINFO &info)
{
    wire_put8(bytes, 0, info.ComId);
    wire_put8(bytes, 1, info.upsstat);
    wire_put8(bytes, 2, info.BattStatus);
    wire_put8(bytes, 3, info.CommStatus);
    wire_put32(bytes, 4, static_cast<std::uint32_t>(info.CommandDownS));
    wire_put32(bytes, 8, static_cast<std::uint32_t>(info.ShutdownS));
    wire_put32(bytes, 12, static_cast<std::uint32_t>(info.BuzzerCan));
    wire_put32(bytes, 16, static_cast<std::uint32_t>(info.AutoTestCan));
    wire_put32(bytes, 20, static_cast<std::uint32_t>(info.bIgnoreDown));
    wire_put32(bytes, 24, static_cast<std::uint32_t>(info.bAutoReboot));
    wire_put32(bytes, 28, static_cast<std::uint32_t>(info.iDetectionLvl));
    wire_put32(bytes, 32, info.AgentType);
    wire_puttext(bytes, 36, info.upsmodel);
    putupsdata(bytes, 68, info.upsdata);
    puttime(bytes, 84, info.timeinfo);
    puttime(bytes, 92, info.nextdown);
    puttime(bytes, 100, info.nextboot);
    puttime(bytes, 108, info.PreChangeBatt);
    wire_puttext(bytes, 116, info.Group);
    puteventlog(bytes, 132, info.events[0]);
    puteventlog(bytes, 160, info.events[1]);
    puttestresult(bytes, 188, info.sftResBattery);
    puttestresult(bytes, 200, info.sftResUPS);
    wire_put16(bytes, 212, info.ufStatus);
    wire_put16(bytes, 214, info.wReserve);
    wire_put32(bytes, 216, static_cast<std::uint32_t>(info.bACPI));
}

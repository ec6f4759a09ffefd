// The status record and what monitors say of themselves, field by field at the offsets of the wire. The other
// records are in agent_wire_records.cpp.
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

static void puttestresult(WIREBYTES bytes, std::size_t at, const SELFTESTRESULT &result)
{
    wire_put32(bytes, at, result.Result);
    wire_puttime(bytes, at + 4, result.timeinfo);
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
    wire_putfield(bytes, 36, info.upsmodel);
    wire_putupsdata(bytes, 68, info.upsdata);
    wire_puttime(bytes, 84, info.timeinfo);
    wire_puttime(bytes, 92, info.nextdown);
    wire_puttime(bytes, 100, info.nextboot);
    wire_puttime(bytes, 108, info.PreChangeBatt);
    wire_putfield(bytes, 116, info.Group);
    wire_puteventlog(bytes, 132, info.events[0]);
    wire_puteventlog(bytes, 160, info.events[1]);
    puttestresult(bytes, 188, info.sftResBattery);
    puttestresult(bytes, 200, info.sftResUPS);
    wire_put16(bytes, 212, info.ufStatus);
    wire_put16(bytes, 214, info.wReserve);
    wire_put32(bytes, 216, static_cast<std::uint32_t>(info.bACPI));
}

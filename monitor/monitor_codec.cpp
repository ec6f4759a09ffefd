// Header, hello and status as bytes and back; the other records are monitor_records.cpp's. Called by the
// sessions, by tests, and by whoever plays the agent for this monitor.
#include "monitor.h"
#include "monitor_fields.h"

// Each record once, for both directions: `field` is called with every field in the order of the wire.
template <typename HEAD, typename FIELD> static void each_head_field(HEAD &head, FIELD field)
{
    field(head.Version);
    field(head.Prototype);
    field(head.DataId);
    field(head.Length);
}

template <typename OSINFO, typename FIELD> static void each_osinfo_field(OSINFO &info, FIELD field)
{
    field(info.lang);
    field(info.os);
    field(info.reserved);
    field(info.osname);
}

template <typename RESULT, typename FIELD> static void each_selftest_field(RESULT &result, FIELD field)
{
    field(result.Result);
    each_time_field(result.timeinfo, field);
}

template <typename INFO, typename FIELD> static void each_upsinfo_field(INFO &info, FIELD field)
{
    field(info.ComId);
    field(info.upsstat);
    field(info.BattStatus);
    field(info.CommStatus);
    field(info.CommandDownS);
    field(info.ShutdownS);
    field(info.BuzzerCan);
    field(info.AutoTestCan);
    field(info.bIgnoreDown);
    field(info.bAutoReboot);
    field(info.iDetectionLvl);
    field(info.AgentType);
    field(info.upsmodel);
    each_measurement_field(info.upsdata, field);
    each_time_field(info.timeinfo, field);
    each_time_field(info.nextdown, field);
    each_time_field(info.nextboot, field);
    each_time_field(info.PreChangeBatt, field);
    field(info.Group);
    for (auto &event : info.events)
        each_event_field(event, field);
    each_selftest_field(info.sftResBattery, field);
    each_selftest_field(info.sftResUPS, field);
    field(info.ufStatus);
    field(info.wReserve);
    field(info.bACPI);
}

HEAD_BYTES monitor_encode_head(const UPS_PACKET_HEAD &head)
{
    HEAD_BYTES bytes{};
    WRITE_CURSOR out{bytes};
    each_head_field(head, [&out](const auto &field) { put(out, field); });
    return bytes;
}

OSINFO_BYTES monitor_encode_osinfo(const VTOSINFO &info)
{
    OSINFO_BYTES bytes{};
    WRITE_CURSOR out{bytes};
    each_osinfo_field(info, [&out](const auto &field) { put(out, field); });
    return bytes;
}

UPSINFO_BYTES monitor_encode_upsinfo(const UPS_UPSINFO &info)
{
    UPSINFO_BYTES bytes{};
    WRITE_CURSOR out{bytes};
    each_upsinfo_field(info, [&out](const auto &field) { put(out, field); });
    return bytes;
}

bool monitor_decode_head(std::span<const std::uint8_t> bytes, UPS_PACKET_HEAD &head)
{
    if (bytes.size() != PACKET_HEAD_SIZE)
        return false;
    READ_CURSOR in{bytes};
    each_head_field(head, [&in](auto &field) { take(in, field); });
    return true;
}

bool monitor_decode_osinfo(std::span<const std::uint8_t> bytes, VTOSINFO &info)
{
    if (bytes.size() != OSINFO_WIRE_SIZE)
        return false;
    READ_CURSOR in{bytes};
    each_osinfo_field(info, [&in](auto &field) { take(in, field); });
    return true;
}

bool monitor_decode_upsinfo(std::span<const std::uint8_t> bytes, UPS_UPSINFO &info)
{
    if (bytes.size() != UPSINFO_WIRE_SIZE)
        return false;
    READ_CURSOR in{bytes};
    each_upsinfo_field(info, [&in](auto &field) { take(in, field); });
    return true;
}

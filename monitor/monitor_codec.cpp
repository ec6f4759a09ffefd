// The records of the protocol as bytes and back. The wire is little-endian and has no padding, so each
// record is written and read as a run of fields in their order, whatever the machine's own byte order.
// Called by the sessions, by tests, and by whoever plays the agent for this monitor.
#include "monitor.h"

#include <concepts>
#include <type_traits>

// Where the next field goes to or comes from. Every user has checked the record's size beforehand.
struct WRITE_CURSOR {
    std::span<std::uint8_t> bytes;
    std::size_t at = 0;
};

struct READ_CURSOR {
    std::span<const std::uint8_t> bytes;
    std::size_t at = 0;
};

template <std::integral T> static void put(WRITE_CURSOR &out, T value)
{
    const auto bits = static_cast<std::make_unsigned_t<T>>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        out.bytes[out.at++] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(bits) >> (8 * i));
}

template <std::size_t N> static void put(WRITE_CURSOR &out, const std::array<char, N> &text)
{
    for (const char c : text)
        out.bytes[out.at++] = static_cast<std::uint8_t>(c);
}

template <std::integral T> static void take(READ_CURSOR &in, T &value)
{
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bits |= static_cast<std::uint64_t>(in.bytes[in.at++]) << (8 * i);
    value = static_cast<T>(static_cast<std::make_unsigned_t<T>>(bits));
}

template <std::size_t N> static void take(READ_CURSOR &in, std::array<char, N> &text)
{
    for (char &c : text)
        c = static_cast<char>(in.bytes[in.at++]);
}

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

template <typename TIMEINFO, typename FIELD> static void each_time_field(TIMEINFO &time, FIELD field)
{
    field(time.year);
    field(time.month);
    field(time.day);
    field(time.hour);
    field(time.minute);
    field(time.second);
    field(time.wReserver);
}

template <typename DATA, typename FIELD> static void each_measurement_field(DATA &data, FIELD field)
{
    field(data.InPutINT);
    field(data.OutPutINT);
    field(data.InPutREM);
    field(data.OutPutREM);
    field(data.FreqInputINT);
    field(data.FreqInputREM);
    field(data.FreqOutputINT);
    field(data.FreqOutputREM);
    field(data.TempINT);
    field(data.TempREM);
    field(data.BattVolINT);
    field(data.BattVolREM);
    field(data.BattCap);
    field(data.Load);
}

template <typename EVENT, typename FIELD> static void each_event_field(EVENT &event, FIELD field)
{
    field(event.EventId);
    field(event.byDownToEvt);
    field(event.wReserve);
    each_time_field(event.timeinfo, field);
    field(event.AgentName);
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

// How records become bytes: a cursor over either side and the fields in the order of the wire. Internal to
// the codecs (monitor_codec.cpp, monitor_records.cpp).
//
// The wire is little-endian and has no padding, so each record is written and read as a run of fields,
// whatever the machine's own byte order.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
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

template <std::integral T> void put(WRITE_CURSOR &out, T value)
{
    const auto bits = static_cast<std::make_unsigned_t<T>>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        out.bytes[out.at++] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(bits) >> (8 * i));
}

template <std::size_t N> void put(WRITE_CURSOR &out, const std::array<char, N> &text)
{
    for (const char c : text)
        out.bytes[out.at++] = static_cast<std::uint8_t>(c);
}

template <std::integral T> void take(READ_CURSOR &in, T &value)
{
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bits |= static_cast<std::uint64_t>(in.bytes[in.at++]) << (8 * i);
    value = static_cast<T>(static_cast<std::make_unsigned_t<T>>(bits));
}

template <std::size_t N> void take(READ_CURSOR &in, std::array<char, N> &text)
{
    for (char &c : text)
        c = static_cast<char>(in.bytes[in.at++]);
}

// Each record once, for both directions: `field` is called with every field in the order of the wire. These
// are the records within records.
template <typename TIMEINFO, typename FIELD> void each_time_field(TIMEINFO &time, FIELD field)
{
    field(time.year);
    field(time.month);
    field(time.day);
    field(time.hour);
    field(time.minute);
    field(time.second);
    field(time.wReserver);
}

template <typename DATA, typename FIELD> void each_measurement_field(DATA &data, FIELD field)
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

template <typename EVENT, typename FIELD> void each_event_field(EVENT &event, FIELD field)
{
    field(event.EventId);
    field(event.byDownToEvt);
    field(event.wReserve);
    each_time_field(event.timeinfo, field);
    field(event.AgentName);
}

// Little-endian access to packets, and the encoders and decoders of the records that handlers take off
// the wire or put there. Offsets are those of the wire, whatever this host's own layout is.
#pragma once

#include "wire_records.h"
#include "wp_field.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

using WIREBYTES = std::span<std::uint8_t>;
using WIREVIEW = std::span<const std::uint8_t>;

[[nodiscard]] constexpr std::uint16_t wire_get16(WIREVIEW bytes, std::size_t at)
{
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

[[nodiscard]] constexpr std::uint32_t wire_get32(WIREVIEW bytes, std::size_t at)
{
    return wire_get16(bytes, at) | static_cast<std::uint32_t>(wire_get16(bytes, at + 2)) << 16;
}

constexpr void wire_put8(WIREBYTES bytes, std::size_t at, int value)
{
    bytes[at] = static_cast<std::uint8_t>(value);
}

constexpr void wire_put16(WIREBYTES bytes, std::size_t at, int value)
{
    bytes[at] = static_cast<std::uint8_t>(value);
    bytes[at + 1] = static_cast<std::uint8_t>(value >> 8);
}

constexpr void wire_put32(WIREBYTES bytes, std::size_t at, std::uint32_t value)
{
    for (std::size_t i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

/// Copies a char array field, NUL or not, as it stands.
template <std::size_t N>
inline void wire_puttext(WIREBYTES bytes, std::size_t at, const std::array<char, N> &text)
{
    std::memcpy(bytes.subspan(at, N).data(), text.data(), N);
}

template <std::size_t N> inline void wire_gettext(WIREVIEW bytes, std::size_t at, std::array<char, N> &text)
{
    std::memcpy(text.data(), bytes.subspan(at, N).data(), N);
}

/// Decodes the 8 header bytes at the start of `bytes`.
[[nodiscard]] constexpr UPS_PACKET_HEAD wire_gethead(WIREVIEW bytes)
{
    return {static_cast<std::int16_t>(wire_get16(bytes, 0)), bytes[2], bytes[3], wire_get32(bytes, 4)};
}

/// Encodes a header into the first 8 bytes of `bytes`.
constexpr void wire_puthead(WIREBYTES bytes, const UPS_PACKET_HEAD &head)
{
    wire_put16(bytes, 0, head.Version);
    bytes[2] = head.Prototype;
    bytes[3] = head.DataId;
    wire_put32(bytes, 4, head.Length);
}

/// Copies the text of a char array field, zeros behind it. A field without a NUL goes out as it stands.
template <std::size_t N>
inline void wire_putfield(WIREBYTES bytes, std::size_t at, const std::array<char, N> &text)
{
    const WIREBYTES to = bytes.subspan(at, N);
    const std::string_view shown = field_view(text);
    std::fill(std::copy(shown.begin(), shown.end(), to.begin()), to.end(), std::uint8_t{0});
}

/// A date in 8 bytes at `at`.
[[nodiscard]] UPS_TIMEINFO wire_gettime(WIREVIEW bytes, std::size_t at);
void wire_puttime(WIREBYTES bytes, std::size_t at, const UPS_TIMEINFO &time);

/// Measurements in 16 bytes at `at`.
void wire_putupsdata(WIREBYTES bytes, std::size_t at, const UPSDATA &data);

/// One record of the event log in 28 bytes, one of the data log in 24, each at `at`.
void wire_puteventlog(WIREBYTES bytes, std::size_t at, const UPS_EVENTLOGINFO &event);
void wire_putdatalog(WIREBYTES bytes, std::size_t at, const UPS_DATALOGINFO &record);

/// Decodes the 28 bytes of a VTOSINFO.
[[nodiscard]] VTOSINFO wire_getosinfo(WIREVIEW bytes);

/// Encodes a VTOSINFO into 28 bytes.
void wire_putosinfo(WIREBYTES bytes, const VTOSINFO &info);

/// Encodes a status record into 220 bytes.
void wire_putupsinfo(WIREBYTES bytes, const UPS_UPSINFO &info);

/// A battery-change date, 12 bytes.
[[nodiscard]] BATTCHGTIME wire_getbattime(WIREVIEW bytes);
void wire_putbattime(WIREBYTES bytes, const BATTCHGTIME &record);

/// A schedule entry, 20 bytes at `at`. Months stand as they are counted there.
[[nodiscard]] SCHEDULEINFO wire_getschedule(WIREVIEW bytes, std::size_t at);
void wire_putschedule(WIREBYTES bytes, std::size_t at, const SCHEDULEINFO &info);

/// One event's settings, 284 bytes at `at`.
[[nodiscard]] UPS_EVENTINFO wire_getevent(WIREVIEW bytes, std::size_t at);
void wire_putevent(WIREBYTES bytes, std::size_t at, const UPS_EVENTINFO &event);

/// One notification user, 543 bytes at `at`.
[[nodiscard]] USERSDATA wire_getuser(WIREVIEW bytes, std::size_t at);
void wire_putuser(WIREBYTES bytes, std::size_t at, const USERSDATA &user);

/// The working configuration, 872 bytes.
[[nodiscard]] UPS_PARAM wire_getparam(WIREVIEW bytes);
void wire_putparam(WIREBYTES bytes, const UPS_PARAM &param);

/// Which agent protects a host, 20 bytes.
[[nodiscard]] PROTECTORCFG wire_getprotectorcfg(WIREVIEW bytes);
void wire_putprotectorcfg(WIREBYTES bytes, const PROTECTORCFG &config);

/// A protected host's request for time, 46 bytes.
[[nodiscard]] UPS_PROTECTORINFO wire_getprotectorinfo(WIREVIEW bytes);

// What the handlers of queries and of settings share.
#pragma once

#include "agent.h"
#include "agent_daemon_text.h"
#include "shared_word.h"
#include "wp_field.h"

#include <array>
#include <cstddef>

inline constexpr std::size_t EVENTS_SENT = 47;  // rows of the event table that monitors see and set
inline constexpr std::size_t EVENTS_BYTES = EVENTS_SENT * sizeof(UPS_EVENTINFO);
static_assert(EVENTS_BYTES == 13348);

inline constexpr std::size_t USER_TEXT_LIMIT = 255;  // longest address and mail address
inline constexpr std::int32_t OS_MONTHS_FROM_0 =
    2;  // systems below this count the months of schedules from 1

/// Whether this host has no unit of its own and is shut down by another agent. A protector answers queries
/// with empty packets and refuses settings.
[[nodiscard]] inline bool is_protector(const AGENT *ag)
{
    return shared_load(ag->aip->ups.up.commparam.AgentType) == AGENTTYPE_PROTECTOR;
}

/// Whether the monitor whose packet is in hand counts the months of schedules from 1.
[[nodiscard]] inline bool counts_months_from_1(const AGENT *ag)
{
    return ag->agnet.cnc.os < OS_MONTHS_FROM_0;
}

/// Cuts the text of a field to at most `limit` bytes of whole characters and clears what is behind it.
template <std::size_t N> inline void field_cut(std::array<char, N> &field, std::size_t limit)
{
    const std::string_view text = field_view(field);
    const std::size_t kept = text_fit(text, limit, DetectCodeType(text));
    std::fill(field.begin() + static_cast<std::ptrdiff_t>(kept), field.end(), '\0');
}

/// Converts a field for monitors, or from them, in place; zeros behind the text.
template <std::size_t N> inline void field_tonetwork(std::array<char, N> &field, int mode)
{
    std::array<char, N> text{};
    JConvForDataOutToNetwork(field_view(field), text, mode);
    field = text;
}

template <std::size_t N> inline void field_fromnetwork(std::array<char, N> &field, int mode)
{
    std::array<char, N> text{};
    JConvForDataInFromNetwork(field_view(field), text, mode);
    field = text;
}

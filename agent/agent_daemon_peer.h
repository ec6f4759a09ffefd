// What a request's header tells of the monitor that sent it.
#pragma once

#include "wire_records.h"

inline constexpr std::int16_t VERSION_OTHERTEXT = 5;  // both bits: texts in another language than Japanese
inline constexpr int TEXTMODE_JAPANESE = 1;           // conversion modes of agent_daemon_text.h
inline constexpr int TEXTMODE_OTHER = 2;

/// Whether the monitor's texts are in another language than Japanese.
[[nodiscard]] constexpr bool sends_othertext(const UPS_PACKET_HEAD &head)
{
    return (head.Version & VERSION_OTHERTEXT) == VERSION_OTHERTEXT;
}

/// The conversion mode of a request's texts and of its answer's.
[[nodiscard]] constexpr int text_mode(const UPS_PACKET_HEAD &head)
{
    return sends_othertext(head) ? TEXTMODE_OTHER : TEXTMODE_JAPANESE;
}

/// Whether this is an old monitor, to which status codes of later versions mean nothing.
[[nodiscard]] constexpr bool beMonitorWin110less(const UPS_PACKET_HEAD &head)
{
    return head.Version < PACKET_VERSION;
}

/// Whether this is an old monitor, which reads the switch-off delay where later ones read the port setting.
[[nodiscard]] constexpr bool beMonitorWin110(const UPS_PACKET_HEAD &head)
{
    return beMonitorWin110less(head);
}

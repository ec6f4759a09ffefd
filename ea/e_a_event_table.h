// The events that exist: number, English text (also the key of the translation) and what each does until
// the settings say otherwise. The order is that of the agent's event table, of the settings file and of
// what monitors are sent.
#pragma once

#include "event_records.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

typedef struct _EVENTMSG {
    std::int32_t eID;
    const char *msg;
} EVENTMSG;

inline constexpr std::array<EVENTMSG, EVENT_COUNT> EventMsg = {{
    {128, "UPS Battery Low"},
    {129, "UPS AC Fail Delay Run out"},
    {130, "specified date to turn off UPS is arrived at"},
    {131, "weekly time to turn off UPS is arrived at"},
    {132, "monthly time to turn off UPS is arrived at"},
    {133, "Shutdown Time Initiated by Users is arrived at"},
    {134, "Shut Down Time Initiated by other Agent is arrived at"},
    {64, "UPS communication Lost"},
    {65, "UPS Ac fail"},
    {66, "UPS Battery Disconnect"},
    {67, "UPS is Bypass"},
    {68, "UPS Battery is weak"},
    {69, "UPS SelfTest by User Failed"},
    {70, "UPS Special Day SelfTest Failed"},
    {71, "UPS Weekly SelfTest Failed"},
    {72, "UPS Monthly SelfTest Failed"},
    {73, "Battery SelfTest Failed"},
    {74, "System begin specially turn off UPS warning"},
    {75, "System begin weekly turn off UPS Warning"},
    {76, "System begin monthly turn off UPS Warning"},
    {77, "UPS abnormal"},
    {78, "UPS overload"},
    {79, "Receive shutdown Command From Users on %s"},
    {80, "Network Shutdown Triggered by Other Agent"},
    {0, "UPS AC Restore"},
    {1, "UPS Communication established"},
    {2, "SelfTest by User succeeded"},
    {3, "Special Day Selftest succeeded"},
    {4, "Weekly SelfTest succeeded"},
    {5, "Monthly Selftest succeeded"},
    {6, "UPS Battery Selftest succeeded"},
    {7, "UPS Agent Start up"},
    {8, "UPS Agent stop"},
    {9, "UPS Working SetParameters is changed"},
    {10, "UPS Schedule Setparameters is changed"},
    {11, "UPS Smart Event Setparameters is changed"},
    {12, "Disable UPS Automatic Selftest Timer"},
    {13, "Enable UPS Automatic Selftest Timer"},
    // 15 stands before 14: monitors know the rows by their place.
    {15, "Enable the Buzzer"},
    {14, "Disable the Buzzer"},
    {16, "The Battery is Changed"},
    {17, "Set up to output voltage 100V standard sensitivity"},
    {18, "Set up to output voltage 100V low sensitivity"},
    {19, "Set up to output voltage 115V standard sensitivity"},
    {20, "Set up to output voltage 115V low sensitivity"},
    {21, "The Shutdown is Canceled by Users on %s"},
    {22, "System is shutdown"},
    {255, "No event"},
    {48, "Protector start"},
    {49, "Protector stop"},
    {50, "Protector not find Agent"},
    {51, "Protector find Agent"},
    {52, "Protector's parameters is set"},
    {53, "Protector shutdown to Agent"},
}};

// Kinds of BroadcastType that the defaults use.
inline constexpr std::uint32_t BROADCAST_WALL = 0;
inline constexpr std::uint32_t BROADCAST_NONE = 3;

// What sets one event's default apart; everything else is the same for all.
typedef struct _EVENTDEFAULT {
    std::uint16_t EventID;
    std::int32_t Shutdown;
    std::uint32_t BroadcastType;
} EVENTDEFAULT;

inline constexpr std::array<EVENTDEFAULT, EVENT_COUNT> EVENT_DEFAULTS = {{
    {128, 1, BROADCAST_WALL}, {129, 1, BROADCAST_WALL}, {130, 1, BROADCAST_WALL}, {131, 1, BROADCAST_WALL},
    {132, 1, BROADCAST_WALL}, {133, 1, BROADCAST_WALL}, {134, 1, BROADCAST_WALL}, {64, 0, BROADCAST_NONE},
    {65, 0, BROADCAST_WALL},  {66, 0, BROADCAST_NONE},  {67, 0, BROADCAST_NONE},  {68, 0, BROADCAST_NONE},
    {69, 0, BROADCAST_NONE},  {70, 0, BROADCAST_NONE},  {71, 0, BROADCAST_NONE},  {72, 0, BROADCAST_NONE},
    {73, 0, BROADCAST_NONE},  {74, 0, BROADCAST_WALL},  {75, 0, BROADCAST_WALL},  {76, 0, BROADCAST_WALL},
    {77, 0, BROADCAST_NONE},  {78, 0, BROADCAST_NONE},  {79, 0, BROADCAST_WALL},  {80, 0, BROADCAST_WALL},
    {0, 0, BROADCAST_WALL},   {1, 0, BROADCAST_NONE},   {2, 0, BROADCAST_NONE},   {3, 0, BROADCAST_NONE},
    {4, 0, BROADCAST_NONE},   {5, 0, BROADCAST_NONE},   {6, 0, BROADCAST_NONE},   {7, 0, BROADCAST_NONE},
    {8, 0, BROADCAST_NONE},   {9, 0, BROADCAST_NONE},   {10, 0, BROADCAST_NONE},  {11, 0, BROADCAST_NONE},
    {12, 0, BROADCAST_NONE},  {13, 0, BROADCAST_NONE},  {15, 0, BROADCAST_NONE},  {14, 0, BROADCAST_NONE},
    {16, 0, BROADCAST_NONE},  {17, 0, BROADCAST_NONE},  {18, 0, BROADCAST_NONE},  {19, 0, BROADCAST_NONE},
    {20, 0, BROADCAST_NONE},  {21, 0, BROADCAST_NONE},  {22, 0, BROADCAST_NONE},  {255, 0, BROADCAST_NONE},
    {48, 0, BROADCAST_WALL},  {49, 0, BROADCAST_WALL},  {50, 0, BROADCAST_WALL},  {51, 0, BROADCAST_WALL},
    {52, 0, BROADCAST_WALL},  {53, 0, BROADCAST_WALL},
}};

[[nodiscard]] consteval std::array<UPS_EVENTINFO, EVENT_COUNT> default_events()
{
    std::array<UPS_EVENTINFO, EVENT_COUNT> events{};
    for (std::size_t i = 0; i < EVENT_COUNT; i++) {
        events[i].EventID = EVENT_DEFAULTS[i].EventID;
        events[i].Record = 1;
        events[i].Shutdown = EVENT_DEFAULTS[i].Shutdown;
        events[i].BroadcastType = EVENT_DEFAULTS[i].BroadcastType;
    }
    return events;
}

inline constexpr std::array<UPS_EVENTINFO, EVENT_COUNT> DEFAULTEVENTSET = default_events();

// The two tables go by the same order, and no event is in them twice or without a text.
static_assert(std::equal(EventMsg.begin(), EventMsg.end(), DEFAULTEVENTSET.begin(),
                         [](const EVENTMSG &text, const UPS_EVENTINFO &event) {
                             return text.eID == event.EventID;
                         }));
static_assert(std::all_of(EventMsg.begin(), EventMsg.end(), [](const EVENTMSG &event) {
    return std::count_if(EventMsg.begin(), EventMsg.end(),
                         [&event](const EVENTMSG &other) { return other.eID == event.eID; }) == 1 &&
           !std::string_view(event.msg).empty();
}));

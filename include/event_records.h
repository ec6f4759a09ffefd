// Per-event settings and notification users, as stored in the agent and as monitors send them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t EVENT_COUNT = 54;       // events that exist
inline constexpr std::size_t EVENT_TABLE_SIZE = 55;  // rows of the agent's table; the last is unused
inline constexpr std::size_t USER_COUNT = 32;
inline constexpr std::uint8_t USER_NONE = 0xFF;  // UserID of an empty slot

typedef struct _UPS_EVENTINFO {
    std::uint16_t EventID;
    std::int16_t Reserved;
    std::int32_t Record;          // 1: write to the event log
    std::int32_t Shutdown;        // 1: starts a system shutdown
    std::uint32_t BroadcastType;  // 0, 1: wall; 2: write to the chosen users; other: none
    std::uint32_t BroadcastUser;  // bit i: user i
    std::uint32_t MailUser;       // bit i: user i
    std::array<char, 260> Command;
} UPS_EVENTINFO;
static_assert(sizeof(UPS_EVENTINFO) == 284);
static_assert(offsetof(UPS_EVENTINFO, Record) == 4);
static_assert(offsetof(UPS_EVENTINFO, MailUser) == 20);
static_assert(offsetof(UPS_EVENTINFO, Command) == 24);

typedef struct _USERSDATA {
    std::uint8_t UserID;  // USER_NONE marks an empty slot
    std::int8_t Reserved;
    std::array<char, 21> UserName;
    std::array<char, 260> Address;
    std::array<char, 260> Email;
} USERSDATA;
static_assert(sizeof(USERSDATA) == 543);
static_assert(alignof(USERSDATA) == 1);
static_assert(offsetof(USERSDATA, UserName) == 2);
static_assert(offsetof(USERSDATA, Address) == 23);
static_assert(offsetof(USERSDATA, Email) == 283);

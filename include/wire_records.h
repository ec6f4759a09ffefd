// The packets of the monitor protocol, TCP 4112 and UDP 4114/4113: sizes, offsets and numbers.
// Everything on the wire is little-endian; whoever puts a record there or takes one off does so
// field by field. char arrays are NUL-terminated text, filled with zeros behind it.
#pragma once

#include "event_records.h"
#include "schedule_records.h"
#include "ups_records.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::uint16_t PORT_TCP = 4112;       // monitor sessions
inline constexpr std::uint16_t PORT_ANNOUNCE = 4113;  // announcements to monitors
inline constexpr std::uint16_t PORT_UDP = 4114;       // inquiries, orders between agents

inline constexpr std::int16_t PACKET_VERSION = 0x0110;
inline constexpr std::uint32_t PACKET_HEAD_SIZE = 8;

typedef struct _UPS_PACKET_HEAD {
    std::int16_t Version;
    std::uint8_t Prototype;
    std::uint8_t DataId;
    std::uint32_t Length;  // bytes, this header included
} UPS_PACKET_HEAD;
static_assert(sizeof(UPS_PACKET_HEAD) == PACKET_HEAD_SIZE);
static_assert(offsetof(UPS_PACKET_HEAD, Prototype) == 2);
static_assert(offsetof(UPS_PACKET_HEAD, DataId) == 3);
static_assert(offsetof(UPS_PACKET_HEAD, Length) == 4);

typedef struct _UPS_PACKET_DATA {
    UPS_PACKET_HEAD head;
    std::array<char, 1016> datap;
} UPS_PACKET_DATA;
static_assert(sizeof(UPS_PACKET_DATA) == 1024);

// Packet kinds.
inline constexpr std::uint8_t DATAID_GETUPSINFO = 16;
inline constexpr std::uint8_t DATAID_OSINFO = 17;
inline constexpr std::uint8_t DATAID_SHUTDOWN = 18;
inline constexpr std::uint8_t DATAID_CANCELSHUTDOWN = 19;
inline constexpr std::uint8_t DATAID_SELFTEST = 20;
inline constexpr std::uint8_t DATAID_SELFTEST_LONG = 21;
inline constexpr std::uint8_t DATAID_SELFTEST_CANCEL = 22;
inline constexpr std::uint8_t DATAID_PASSWORD = 23;
inline constexpr std::uint8_t DATAID_COMMAND = 24;
inline constexpr std::uint8_t DATAID_CLEAR_DATALOG = 25;
inline constexpr std::uint8_t DATAID_CLEAR_EVENTLOG = 26;
inline constexpr std::uint8_t DATAID_BUZZER_ON = 28;
inline constexpr std::uint8_t DATAID_BUZZER_OFF = 29;
inline constexpr std::uint8_t DATAID_GETBATTIME = 30;
inline constexpr std::uint8_t DATAID_SETBATTIME = 31;
inline constexpr std::uint8_t DATAID_AUTOTEST_ON = 32;
inline constexpr std::uint8_t DATAID_AUTOTEST_OFF = 33;
inline constexpr std::uint8_t DATAID_DETECTIONLVL = 34;
inline constexpr std::uint8_t DATAID_BUZZER_TEST = 35;
inline constexpr std::uint8_t DATAID_ANSUPSINFO = 64;
inline constexpr std::uint8_t DATAID_ANSEVENTLOG = 65;
inline constexpr std::uint8_t DATAID_ANSDATALOG = 66;
inline constexpr std::uint8_t DATAID_ANSPASSWORD = 67;
inline constexpr std::uint8_t DATAID_ANSNULL = 68;
inline constexpr std::uint8_t DATAID_MESSAGE = 79;
inline constexpr std::uint8_t DATAID_SCHEDULES = 80;
inline constexpr std::uint8_t DATAID_EVENTS = 81;
inline constexpr std::uint8_t DATAID_CONFIG = 82;
inline constexpr std::uint8_t DATAID_PROT2AGENT = 192;
inline constexpr std::uint8_t DATAID_PROTECTORCFG = 194;
inline constexpr std::uint8_t DATAID_GETPROTECTOR = 195;
inline constexpr std::uint8_t DATAID_GETPRTEVENTLOG = 197;
inline constexpr std::uint8_t DATAID_ANSPRTEVENTLOG = 198;
inline constexpr std::uint8_t DATAID_ANSAGENT = 240;
inline constexpr std::uint8_t DATAID_INQAGENT = 241;
inline constexpr std::uint8_t DATAID_ANSPROT = 242;

// Sub-request of DATAID_COMMAND.
typedef struct _UPS_COMMAND_PACKET {
    std::uint8_t cmd;  // 1 event log, 2 data log, 3 schedules, 4 events, 5 configuration, 6 empty
    std::uint8_t reserver;
    std::int16_t firstline;
    std::int16_t linecounts;
    std::int16_t reserved;
} UPS_COMMAND_PACKET;
static_assert(sizeof(UPS_COMMAND_PACKET) == 8);
static_assert(offsetof(UPS_COMMAND_PACKET, firstline) == 2);
static_assert(offsetof(UPS_COMMAND_PACKET, linecounts) == 4);

typedef struct _UPS_PASSWORD {
    std::array<char, 40> username;
    std::array<char, 20> password;
} UPS_PASSWORD;
static_assert(sizeof(UPS_PASSWORD) == 60);

// What a monitor says of itself and hears of the agent.
typedef struct _VTOSINFO {
    std::int32_t lang;  // 1 Japanese, 2 English
    std::int32_t os;
    std::int32_t reserved;
    std::array<char, 16> osname;
} VTOSINFO;
static_assert(sizeof(VTOSINFO) == 28);
static_assert(offsetof(VTOSINFO, os) == 4);
static_assert(offsetof(VTOSINFO, osname) == 12);

// A shutdown order, from a monitor or from another agent.
typedef struct _UPS_AGENTDOWNINFO {
    std::uint8_t DownId;
    std::int8_t reserved;
    std::int16_t delay;  // s
    std::uint32_t AgentType;
    std::array<char, 16> Agent;
    std::array<char, 16> Group;
} UPS_AGENTDOWNINFO;
static_assert(sizeof(UPS_AGENTDOWNINFO) == 40);
static_assert(offsetof(UPS_AGENTDOWNINFO, AgentType) == 4);
static_assert(offsetof(UPS_AGENTDOWNINFO, Agent) == 8);
static_assert(offsetof(UPS_AGENTDOWNINFO, Group) == 24);

typedef struct _BATTCHGTIME {
    std::uint32_t uBattStatus;
    UPS_TIMEINFO BattTime;
} BATTCHGTIME;
static_assert(sizeof(BATTCHGTIME) == 12);
static_assert(offsetof(BATTCHGTIME, BattTime) == 4);

typedef struct _UPS_PROTECTORINFO {
    std::uint8_t TimeNeeded;
    std::int8_t creserved;
    std::int16_t sreserved;
    std::array<char, 42> Protector;
} UPS_PROTECTORINFO;
static_assert(sizeof(UPS_PROTECTORINFO) == 46);
static_assert(offsetof(UPS_PROTECTORINFO, Protector) == 4);

typedef struct _PROTECTORCFG {
    std::uint32_t TimeDelay;
    std::array<char, 16> lpszAgentName;
} PROTECTORCFG;
static_assert(sizeof(PROTECTORCFG) == 20);

enum class NSCommands : std::int32_t { Add = 0, Delete = 1, Reply = 2 };

typedef struct _UPS_INQAGENT {
    std::int32_t cmd;  // NSCommands
    std::array<char, 16> Monitor;
} UPS_INQAGENT;
static_assert(sizeof(UPS_INQAGENT) == 20);

typedef struct _UPS_ANSAGENT {
    std::int32_t cmd;  // NSCommands
    std::array<char, 16> Agent;
    std::array<char, 32> upsmodel;
    std::uint8_t UPSStatus;
    std::int8_t cReserve;
    std::int16_t sReserve;
    std::int32_t NT;
    std::array<char, 16> Group;
    std::uint32_t AgentType;
    std::uint32_t BattStatus;
    std::uint32_t CommStatus;
    std::int32_t bIgnore;
} UPS_ANSAGENT;
static_assert(sizeof(UPS_ANSAGENT) == 92);
static_assert(offsetof(UPS_ANSAGENT, Agent) == 4);
static_assert(offsetof(UPS_ANSAGENT, upsmodel) == 20);
static_assert(offsetof(UPS_ANSAGENT, UPSStatus) == 52);
static_assert(offsetof(UPS_ANSAGENT, NT) == 56);
static_assert(offsetof(UPS_ANSAGENT, Group) == 60);
static_assert(offsetof(UPS_ANSAGENT, AgentType) == 76);
static_assert(offsetof(UPS_ANSAGENT, BattStatus) == 80);
static_assert(offsetof(UPS_ANSAGENT, CommStatus) == 84);
static_assert(offsetof(UPS_ANSAGENT, bIgnore) == 88);

typedef struct _UPS_ANSPROT {
    std::int32_t cmd;  // NSCommands
    std::int32_t NT;
    std::array<char, 16> Agent;
    std::array<char, 16> myname;
} UPS_ANSPROT;
static_assert(sizeof(UPS_ANSPROT) == 40);
static_assert(offsetof(UPS_ANSPROT, Agent) == 8);
static_assert(offsetof(UPS_ANSPROT, myname) == 24);

// The shared block: the one System V segment through which the agent process, the UPS process and
// outside management tools see each other. Its layout is fixed in every byte. Fields are read and
// written whole, through shared_word.h where both processes touch them.
#pragma once

#include "ups_records.h"

#include <array>
#include <cstddef>
#include <cstdint>

// The key file and project id of the segment (and of nothing else).
inline constexpr char AGINFO_KEYFILE[] = "/etc/.KAVEXUPS";
inline constexpr int AGINFO_PROJECT = 1029;

// Argument or result of one command of the agent channel.
typedef struct _AUMSG {
    std::int32_t msglen;  // bytes used in buf
    std::int32_t msgseqno;
    std::int32_t msgremained;
    std::array<char, 256> buf;
} AUMSG;
static_assert(sizeof(AUMSG) == 268);
static_assert(offsetof(AUMSG, buf) == 12);

// Command words of the agent channel: the command in the upper half; the lower is 0 in a request and the
// outcome in a reply.
inline constexpr std::uint32_t UPSCMD_MASK = 0xFFFF0000;
inline constexpr std::uint32_t UPSCMD_GETBATTIME = 0x00050000;
inline constexpr std::uint32_t UPSCMD_SELFTEST_LONG = 0x02000000;
inline constexpr std::uint32_t UPSCMD_SELFTEST = 0x03000000;
inline constexpr std::uint32_t UPSCMD_SELFTEST_CANCEL = 0x04000000;
inline constexpr std::uint32_t UPSCMD_SHUTDOWN = 0x06000000;
inline constexpr std::uint32_t UPSCMD_CANCELDOWN = 0x07000000;
inline constexpr std::uint32_t UPSCMD_AC = 0x08000000;
inline constexpr std::uint32_t UPSCMD_AR = 0x09000000;
inline constexpr std::uint32_t UPSCMD_BUZZER_ON = 0x0A000000;
inline constexpr std::uint32_t UPSCMD_BUZZER_OFF = 0x0B000000;
inline constexpr std::uint32_t UPSCMD_SETBATTIME = 0x0C000000;
inline constexpr std::uint32_t UPSCMD_BUZZER_TEST = 0x0D000000;
inline constexpr std::uint32_t UPSCMD_AUTORESTART_OFF = 0x0E000000;
inline constexpr std::uint32_t UPSCMD_AUTORESTART_ON = 0x0F000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_A = 0x30000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_B = 0x40000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_H = 0x50000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_L = 0x60000000;
inline constexpr std::uint32_t UPSCMD_STATUS = 0xF0000000;
inline constexpr std::uint32_t UPSCMD_DONE = 1;         // outcome
inline constexpr std::uint32_t UPSCMD_FAILED = 0xFFFF;  // outcome

// Argument of the "turn the UPS off" command; seconds.
typedef struct _UPSDOWNARG {
    std::int32_t downdelay;
    std::int32_t downlast;
} UPSDOWNARG;
static_assert(sizeof(UPSDOWNARG) == 8);

typedef struct _AGINFO {
    std::int32_t agpid;   // the launching process, see agent_main
    std::int32_t upspid;  // the UPS process
    std::int32_t locked;  // 1 while one side holds the logical lock
    UPS ups;
    std::int32_t isagentchg;  // 0 nothing, 1 agent event pending, negative: stop the agent
    AUMSG ba2u;               // agent to UPS process
    AUMSG bu2a;               // UPS process to agent
    std::int32_t udinfo;      // bit 0: the unit answers the restart-status query
} AGINFO, *AGINFOP;
static_assert(sizeof(AGINFO) == 1660);
static_assert(offsetof(AGINFO, agpid) == 0);
static_assert(offsetof(AGINFO, upspid) == 4);
static_assert(offsetof(AGINFO, locked) == 8);
static_assert(offsetof(AGINFO, ups) == 12);
static_assert(offsetof(AGINFO, isagentchg) == 1116);
static_assert(offsetof(AGINFO, ba2u) == 1120);
static_assert(offsetof(AGINFO, bu2a) == 1388);
static_assert(offsetof(AGINFO, udinfo) == 1656);

inline constexpr std::int32_t UDINFO_V2 = 1;

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

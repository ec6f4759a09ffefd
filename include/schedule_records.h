// One schedule entry, as monitors send it and as the engine keeps it.
#pragma once

#include "ups_records.h"

#include <cstddef>
#include <cstdint>

typedef struct _SCHEDULEINFO {
    std::int8_t ID;           // 1 special date, 2 weekly, 3 monthly
    std::int8_t ActionID;     // 0 shutdown, 1 self-test
    std::int16_t ScheduleOn;  // 1: active
    UPS_TIMEINFO stimeInfo;
    UPS_TIMEINFO etimeInfo;
} SCHEDULEINFO;
static_assert(sizeof(SCHEDULEINFO) == 20);
static_assert(offsetof(SCHEDULEINFO, stimeInfo) == 4);
static_assert(offsetof(SCHEDULEINFO, etimeInfo) == 12);

typedef struct _SCHEDULELIST {
    struct _SCHEDULELIST *next;  // null at the end
    SCHEDULEINFO info;
} SCHEDULELIST, *SCHEDULELISTP;

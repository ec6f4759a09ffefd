// What goes into the event engine and comes out of it. These records stay inside the agent process,
// so they hold pointers; whoever fills them owns what they point at unless a comment says otherwise.
#pragma once

#include "event_records.h"
#include "schedule_records.h"
#include "ups_records.h"
#include "wire_records.h"

#include <cstdint>

// Which members of a record's DATA are filled.
enum E_DATATYPE : std::uint32_t {
    E_NULLEVENT = 0,
    E_UPSTAT = 1,
    E_UPSCONFIG = 2,
    E_SCHEDULE = 4,
    E_EVENTACTION = 8,
    E_EVENTLOG = 16,
    E_DATALOG = 32,
    E_AGENTEVENT = 64,
    E_UPSCMD = 128,
};

// Commands of Event_Action.
enum E_COMMAND : std::int32_t {
    E_CMD_INIT = 1,
    E_CMD_GETCONFIG = 2,
    E_CMD_GETEVENT = 3,
    E_CMD_GETSCHEDULE = 4,
    E_CMD_GETEVENTLOG = 5,
    E_CMD_GETDATALOG = 6,
    E_CMD_SETCONFIG = 8,
    E_CMD_SETEVENT = 9,
    E_CMD_SETSCHEDULE = 10,
    E_CMD_DOCOMMAND = 11,
    E_CMD_CHECKSTATUS = 17,
    E_CMD_AGENTEVENT = 18,
};

// Codes of Event_CallBack.
enum E_CALLBACK : std::int32_t {
    E_CB_NOTHING = 0,
    E_CB_MESSAGE = 1,  // data: text; arg: language
    E_CB_UPSDOWN = 2,  // arg: delay, value: off time; s
    E_CB_CANCELDOWN = 4,
    E_CB_SELFTEST = 8,  // value: length
    E_CB_SELFTEST_LONG = 16,
    E_CB_SELFTEST_CANCEL = 32,
    E_CB_BUZZER_ON = 64,
    E_CB_BUZZER_OFF = 128,
    E_CB_AUTOTEST_ON = 256,
    E_CB_AUTOTEST_OFF = 512,
    E_CB_SETBATTIME = 1024,  // data: BATTCHGTIME
    E_CB_GETBATTIME = 2048,  // data: BATTCHGTIME
    E_CB_TIMEISUP = 4096,    // data: text; arg: language
    E_CB_STATUSCHANGED = 8192,
    E_CB_GROUPCHANGED = 16384,
    E_CB_AUTOREBOOT_ON = 32768,
    E_CB_AUTOREBOOT_OFF = 0x10000,
    E_CB_DETECTIONLVL = 0x20000,  // value: level
    E_CB_BUZZER_TEST = 0x40000,
    E_CB_SETTINGSCHANGED = 0x80000,
};

typedef struct _UPS_USERSINFO {
    std::int32_t nusers;
    USERSDATA *udp;
} UPS_USERSINFO;

typedef struct _LOGRANGE {
    std::int32_t firstline;
    std::int32_t counts;
} LOGRANGE;

// The arrays are allocated by the engine (new[]) and freed by the caller (delete[]).
typedef struct _DATALOGARRAY {
    std::int32_t rnum;
    UPS_DATALOGINFO *datalogarray;
} DATALOGARRAY;

typedef struct _EVENTLOGARRAY {
    std::int32_t rnum;
    UPS_EVENTLOGINFO *eventlogarray;
} EVENTLOGARRAY;

inline constexpr std::int32_t AGENTEVENT_SETTINGS = 1;    // a tool changed this agent's settings
inline constexpr std::int32_t AGENTEVENT_ORDERSDOWN = 2;  // another agent's order
inline constexpr std::int32_t AGENTEVENT_STOP = 4;        // this agent stops

typedef struct _AGENTEVENT {
    std::int32_t id;          // AGENTEVENT_ value
    UPS_AGENTDOWNINFO *adip;  // may be null
} AGENTEVENT;

typedef struct _AGENTCMD {
    std::int32_t cmd;
    union {
        UPS_AGENTDOWNINFO *adip;
        std::int32_t last;
        char *hp;
        BATTCHGTIME *bctp;
        UPS_PROTECTORINFO *pip;
        std::int32_t nupsmodel;
    } arg;
} AGENTCMD;

typedef struct _EVENTUSERS {
    UPS_EVENTINFO *eap;
    UPS_USERSINFO *uip;
} EVENTUSERS;

typedef struct _UPS_EIN_DATA {
    std::uint32_t datatype;  // E_DATATYPE bits
    struct {
        UPS_UPSINFO *upsinfop;  // valid on every call
        UPS_PARAM *upsconfigp;
        SCHEDULELIST *schlist;
        EVENTUSERS eu;
        LOGRANGE *range;
        AGENTCMD *acp;
        AGENTEVENT *agentevent;
    } DATA;
} UPS_EIN_DATA;

typedef struct _UPS_EOUT_DATA {
    std::uint32_t datatype;
    struct {
        UPS_UPSINFO *upsinfop;
        UPS_PARAM *upsconfigp;
        SCHEDULELIST *schlist;
        EVENTUSERS eu;
        DATALOGARRAY datalog;
        EVENTLOGARRAY eventlog;
        AGENTCMD *acp;
        AGENTEVENT *agentevent;
    } DATA;
} UPS_EOUT_DATA;

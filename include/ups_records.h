// The UPS state record: what is known about the unit on the serial line and about the settings that
// are in force. It lies in the shared block, is written mostly by the UPS process, read by the agent
// process and by outside tools, and its first member travels to monitors unchanged, so every width
// and offset here is binding. Nothing in this header allocates, and no record holds a pointer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// One unsigned capability mask; the bits are the UPSFUNCTION_ constants below.
using UPSFUNCTION = std::uint16_t;

// A packed local date and time. All zero means "no date".
typedef struct _UPS_TIMEINFO {
    std::uint8_t year;  // years since 1900
    std::int8_t month;  // 1-12
    std::int8_t day;    // 1-31
    std::int8_t hour;
    std::int8_t minute;
    std::int8_t second;
    std::int16_t wReserver;
} UPS_TIMEINFO;
static_assert(sizeof(UPS_TIMEINFO) == 8);
static_assert(offsetof(UPS_TIMEINFO, wReserver) == 6);

// The outcome of a self-test and when it was recorded.
typedef struct _SELFTESTRESULT {
    std::uint32_t Result;  // SELFTEST_FAILED, SELFTEST_PASSED or SELFTEST_NONE
    UPS_TIMEINFO timeinfo;
} SELFTESTRESULT;
static_assert(sizeof(SELFTESTRESULT) == 12);

// The measurements: each quantity as an integer part and one tenths digit.
typedef struct _UPSDATA {
    std::int16_t InPutINT;   // V
    std::int16_t OutPutINT;  // V
    std::int8_t InPutREM;
    std::int8_t OutPutREM;
    std::int8_t FreqInputINT;  // Hz
    std::int8_t FreqInputREM;
    std::int8_t FreqOutputINT;  // Hz
    std::int8_t FreqOutputREM;
    std::int8_t TempINT;  // degrees Celsius; -1 with TempREM -1: the unit reports none
    std::int8_t TempREM;
    std::int8_t BattVolINT;  // V
    std::int8_t BattVolREM;
    std::int8_t BattCap;  // percent
    std::uint8_t Load;    // percent; 101 and more is overload
} UPSDATA;
static_assert(sizeof(UPSDATA) == 16);
static_assert(offsetof(UPSDATA, InPutREM) == 4);
static_assert(offsetof(UPSDATA, FreqInputINT) == 6);
static_assert(offsetof(UPSDATA, TempINT) == 10);
static_assert(offsetof(UPSDATA, BattVolINT) == 12);
static_assert(offsetof(UPSDATA, BattCap) == 14);
static_assert(offsetof(UPSDATA, Load) == 15);

// Model description, used by the model-settings requests only.
typedef struct _UPSMODEL {
    std::array<char, 32> Model;
    std::int8_t FirmVersion;
    std::int8_t Reserved;
    std::int8_t OutPutINT;  // nominal output voltage
    std::int8_t OutPutREM;
    std::int8_t BattNominalINT;  // nominal battery voltage
    std::int8_t BattNominalREM;
} UPSMODEL;
static_assert(sizeof(UPSMODEL) == 38);

// One recorded event, as the log serves it and as the status record shows the last two.
typedef struct _UPS_EVENTLOGINFO {
    std::uint8_t EventId;
    std::int8_t byDownToEvt;  // the event that led to a shutdown; 255 (-1) when none
    std::int16_t wReserve;
    UPS_TIMEINFO timeinfo;
    std::array<char, 16> AgentName;
} UPS_EVENTLOGINFO;
static_assert(sizeof(UPS_EVENTLOGINFO) == 28);
static_assert(offsetof(UPS_EVENTLOGINFO, timeinfo) == 4);
static_assert(offsetof(UPS_EVENTLOGINFO, AgentName) == 12);

// One record of the data log.
typedef struct _UPS_DATALOGINFO {
    UPS_TIMEINFO timeinfo;
    UPSDATA upsdata;
} UPS_DATALOGINFO;
static_assert(sizeof(UPS_DATALOGINFO) == 24);
static_assert(offsetof(UPS_DATALOGINFO, upsdata) == 8);

// The status that monitors are sent.
typedef struct _UPS_UPSINFO {
    std::int8_t ComId;       // 0-3: /dev/ttyS0-3; COMID_NONE; COMID_NOUPS
    std::int8_t upsstat;     // UPSSTAT_
    std::int8_t BattStatus;  // BATT_
    std::int8_t CommStatus;  // COMM_
    std::int32_t CommandDownS;
    std::int32_t ShutdownS;
    std::int32_t BuzzerCan;      // 1: the buzzer may sound
    std::int32_t AutoTestCan;    // 1: the unit's own periodic self-test is on
    std::int32_t bIgnoreDown;    // 1: shutdown orders of other agents are ignored
    std::int32_t bAutoReboot;    // 1: the unit restarts by itself when mains returns
    std::int32_t iDetectionLvl;  // 0-4
    std::uint32_t AgentType;
    std::array<char, 32> upsmodel;
    UPSDATA upsdata;
    UPS_TIMEINFO timeinfo;
    UPS_TIMEINFO nextdown;
    UPS_TIMEINFO nextboot;
    UPS_TIMEINFO PreChangeBatt;
    std::array<char, 16> Group;
    std::array<UPS_EVENTLOGINFO, 2> events;
    SELFTESTRESULT sftResBattery;
    SELFTESTRESULT sftResUPS;
    UPSFUNCTION ufStatus;
    std::int16_t wReserve;
    std::int32_t bACPI;
} UPS_UPSINFO;
static_assert(sizeof(UPS_UPSINFO) == 220);
static_assert(offsetof(UPS_UPSINFO, ComId) == 0);
static_assert(offsetof(UPS_UPSINFO, upsstat) == 1);
static_assert(offsetof(UPS_UPSINFO, BattStatus) == 2);
static_assert(offsetof(UPS_UPSINFO, CommStatus) == 3);
static_assert(offsetof(UPS_UPSINFO, CommandDownS) == 4);
static_assert(offsetof(UPS_UPSINFO, ShutdownS) == 8);
static_assert(offsetof(UPS_UPSINFO, BuzzerCan) == 12);
static_assert(offsetof(UPS_UPSINFO, AutoTestCan) == 16);
static_assert(offsetof(UPS_UPSINFO, bIgnoreDown) == 20);
static_assert(offsetof(UPS_UPSINFO, bAutoReboot) == 24);
static_assert(offsetof(UPS_UPSINFO, iDetectionLvl) == 28);
static_assert(offsetof(UPS_UPSINFO, AgentType) == 32);
static_assert(offsetof(UPS_UPSINFO, upsmodel) == 36);
static_assert(offsetof(UPS_UPSINFO, upsdata) == 68);
static_assert(offsetof(UPS_UPSINFO, timeinfo) == 84);
static_assert(offsetof(UPS_UPSINFO, nextdown) == 92);
static_assert(offsetof(UPS_UPSINFO, nextboot) == 100);
static_assert(offsetof(UPS_UPSINFO, PreChangeBatt) == 108);
static_assert(offsetof(UPS_UPSINFO, Group) == 116);
static_assert(offsetof(UPS_UPSINFO, events) == 132);
static_assert(offsetof(UPS_UPSINFO, sftResBattery) == 188);
static_assert(offsetof(UPS_UPSINFO, sftResUPS) == 200);
static_assert(offsetof(UPS_UPSINFO, ufStatus) == 212);
static_assert(offsetof(UPS_UPSINFO, wReserve) == 214);
static_assert(offsetof(UPS_UPSINFO, bACPI) == 216);

// Working parameters; all times in seconds.
typedef struct _UPS_WORKPARAM {
    std::int32_t BSuspend;
    std::uint32_t BattLife;  // time on battery before the shutdown sequence starts
    std::int32_t ComSet;     // COMSET_NOUPS, COMSET_AUTO, 1-4: fixed port
    std::uint32_t TurnOffDelay;
    std::int32_t AutoReboot;
    std::uint32_t FirstWarningTime;
    std::uint32_t CountDownTime;
    std::uint32_t WarningBeforeSchel;
    std::uint32_t nCloseAppTime;
} UPS_WORKPARAM;
static_assert(sizeof(UPS_WORKPARAM) == 36);

typedef struct _UPS_LOGPARAM {
    std::int32_t EnableEventLog;
    std::uint32_t MaxEventRec;  // lines
    std::int32_t EnableDataLog;
    std::uint32_t MaxDataRec;       // lines
    std::uint32_t DataLogInterval;  // s
} UPS_LOGPARAM;
static_assert(sizeof(UPS_LOGPARAM) == 20);

typedef struct _UPS_COMMPARAM {
    std::uint32_t AgentType;  // AGENTTYPE_
    std::uint32_t ClientTime;
    std::uint32_t LowServerTime;
    std::uint32_t NormalTime;
    std::int32_t bIgnore;
    std::array<char, 260> Agent;
    std::array<char, 260> lpszAccount;
    std::array<char, 260> lpszDomain;
    std::array<char, 16> Group;
} UPS_COMMPARAM;
static_assert(sizeof(UPS_COMMPARAM) == 816);

// The working configuration.
typedef struct _UPS_PARAM {
    UPS_WORKPARAM workparam;
    UPS_LOGPARAM logparam;
    UPS_COMMPARAM commparam;
} UPS_PARAM;
static_assert(sizeof(UPS_PARAM) == 872);
static_assert(offsetof(UPS_PARAM, workparam) == 0);
static_assert(offsetof(UPS_PARAM, workparam.BSuspend) == 0);
static_assert(offsetof(UPS_PARAM, workparam.BattLife) == 4);
static_assert(offsetof(UPS_PARAM, workparam.ComSet) == 8);
static_assert(offsetof(UPS_PARAM, workparam.TurnOffDelay) == 12);
static_assert(offsetof(UPS_PARAM, workparam.AutoReboot) == 16);
static_assert(offsetof(UPS_PARAM, workparam.FirstWarningTime) == 20);
static_assert(offsetof(UPS_PARAM, workparam.CountDownTime) == 24);
static_assert(offsetof(UPS_PARAM, workparam.WarningBeforeSchel) == 28);
static_assert(offsetof(UPS_PARAM, workparam.nCloseAppTime) == 32);
static_assert(offsetof(UPS_PARAM, logparam) == 36);
static_assert(offsetof(UPS_PARAM, logparam.EnableEventLog) == 36);
static_assert(offsetof(UPS_PARAM, logparam.MaxEventRec) == 40);
static_assert(offsetof(UPS_PARAM, logparam.EnableDataLog) == 44);
static_assert(offsetof(UPS_PARAM, logparam.MaxDataRec) == 48);
static_assert(offsetof(UPS_PARAM, logparam.DataLogInterval) == 52);
static_assert(offsetof(UPS_PARAM, commparam) == 56);
static_assert(offsetof(UPS_PARAM, commparam.AgentType) == 56);
static_assert(offsetof(UPS_PARAM, commparam.ClientTime) == 60);
static_assert(offsetof(UPS_PARAM, commparam.LowServerTime) == 64);
static_assert(offsetof(UPS_PARAM, commparam.NormalTime) == 68);
static_assert(offsetof(UPS_PARAM, commparam.bIgnore) == 72);
static_assert(offsetof(UPS_PARAM, commparam.Agent) == 76);
static_assert(offsetof(UPS_PARAM, commparam.lpszAccount) == 336);
static_assert(offsetof(UPS_PARAM, commparam.lpszDomain) == 596);
static_assert(offsetof(UPS_PARAM, commparam.Group) == 856);

// The whole state record of the shared block.
typedef struct _UPS {
    UPS_UPSINFO ui;
    UPS_PARAM up;
    std::int32_t protocol;   // 1 once the UPS process runs
    std::int32_t isstandby;  // 1: the unit reports itself a standby (line-interactive) unit
    std::uint32_t upsstat;   // event bits, UPSBIT_; distinct from ui.upsstat
} UPS, *UPSP;
static_assert(sizeof(UPS) == 1104);
static_assert(offsetof(UPS, ui) == 0);
static_assert(offsetof(UPS, up) == 220);
static_assert(offsetof(UPS, protocol) == 1092);
static_assert(offsetof(UPS, isstandby) == 1096);
static_assert(offsetof(UPS, upsstat) == 1100);

// ui.ComId
inline constexpr std::int8_t COMID_NONE = -1;
inline constexpr std::int8_t COMID_NOUPS = -2;

// workparam.ComSet
inline constexpr std::int32_t COMSET_NOUPS = -2;
inline constexpr std::int32_t COMSET_AUTO = 0;

// commparam.AgentType
inline constexpr std::uint32_t AGENTTYPE_PROTECTOR = 1;
inline constexpr std::uint32_t AGENTTYPE_LOW = 4;
inline constexpr std::uint32_t AGENTTYPE_NORMAL = 5;
inline constexpr std::uint32_t AGENTTYPE_HIGH = 6;

// ui.upsstat
inline constexpr std::int8_t UPSSTAT_NORMAL = 0;
inline constexpr std::int8_t UPSSTAT_TESTING = 3;
inline constexpr std::int8_t UPSSTAT_SHUTDOWN = 4;
inline constexpr std::int8_t UPSSTAT_BYPASS = 16;
inline constexpr std::int8_t UPSSTAT_FAULT = 20;
inline constexpr std::int8_t UPSSTAT_OVERLOAD = 21;
inline constexpr std::int8_t UPSSTAT_ACFAIL = 33;

// ui.BattStatus
inline constexpr std::int8_t BATT_UNKNOWN = 0;
inline constexpr std::int8_t BATT_NORMAL = 1;
inline constexpr std::int8_t BATT_TESTING = 5;
inline constexpr std::int8_t BATT_WEAK = 18;
inline constexpr std::int8_t BATT_DISCONNECTED = 19;
inline constexpr std::int8_t BATT_LOW_CAPACITY = 34;

// ui.CommStatus
inline constexpr std::int8_t COMM_ESTABLISHED = 2;
inline constexpr std::int8_t COMM_NOUPS = 6;
inline constexpr std::int8_t COMM_LOST = 17;

// SELFTESTRESULT.Result
inline constexpr std::uint32_t SELFTEST_FAILED = 0;
inline constexpr std::uint32_t SELFTEST_PASSED = 1;
inline constexpr std::uint32_t SELFTEST_NONE = 2;

// UPS.upsstat: the event bits
inline constexpr std::uint32_t UPSBIT_CF = 0x10;  // the capability query was answered in full
inline constexpr std::uint32_t UPSBIT_BATTLOW = 0x100;
inline constexpr std::uint32_t UPSBIT_BATTDISCONNECT = 0x200;
inline constexpr std::uint32_t UPSBIT_BATTWEAK = 0x400;
inline constexpr std::uint32_t UPSBIT_ACFAIL = 0x1000;
inline constexpr std::uint32_t UPSBIT_FAULT = 0x2000;
inline constexpr std::uint32_t UPSBIT_OVERLOAD = 0x4000;
inline constexpr std::uint32_t UPSBIT_BYPASS = 0x8000;
inline constexpr std::uint32_t UPSBIT_TESTING = 0x10000;
inline constexpr std::uint32_t UPSBIT_SHUTDOWN = 0x20000;
inline constexpr std::uint32_t UPSBIT_STANDBY = 0x40000;
inline constexpr std::uint32_t UPSBIT_BATTTEST = 0x80000;

// ui.ufStatus: what the unit can do. The bits without a name of their own are only passed on.
inline constexpr UPSFUNCTION UPSFUNCTION_SFN = 0x0004;  // shutdown without restart
inline constexpr UPSFUNCTION UPSFUNCTION_V2 = 0x0008;   // restart status query
inline constexpr UPSFUNCTION UPSFUNCTION_AUTORESTART = 0x0080;
inline constexpr UPSFUNCTION UPSFUNCTION_BRR = 0x0200;  // battery replacement date
inline constexpr UPSFUNCTION UPSFUNCTION_BUZZER = 0x1000;

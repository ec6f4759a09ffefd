// What the engine's own files share: the one state record and the functions by which the files call
// each other. Seen by e_a*.cpp and the engine's unit tests only; the agent sees e_a.h.
#pragma once

#include "e_a.h"
#include "wp_strings.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

// Why a shutdown or a self-test is pending or running.
enum REASON : std::int32_t {
    NONE = -1,
    SPECIAL = 1,
    WEEKLY = 2,
    MONTHLY = 3,
    AC_FAIL = 4,
    BATT_LOW = 5,
    EVENT_TRIGGER = 6,
    USER_SPECIFY = 7,
    USER_SPECIFY_LOW = 8,
    OTHERAGEDOWN = 9,
};

// Events that this engine's own code raises or treats apart; the texts are in e_a_event_table.h.
inline constexpr int EVENT_AGENTSTART = 7;
inline constexpr int EVENT_CONFIGCHANGED = 9;
inline constexpr int EVENT_CANCELEDBYUSER = 21;
inline constexpr int EVENT_SYSTEMDOWN = 22;
inline constexpr int EVENT_ORDEREDBYUSER = 79;
inline constexpr int EVENT_ORDEREDBYAGENT = 80;
inline constexpr int EVENT_ARRIVEDBYAGENT = 134;
inline constexpr std::uint8_t EVENT_NONE = 255;

inline constexpr char Evelogfile[] = "/usr/lib/voltaria/events.log";
inline constexpr char Datalogfile[] = "/usr/lib/voltaria/data.log";
inline constexpr char Errlogfile[] = "/usr/lib/voltaria/errorlog";  // named only, never written
inline constexpr int EVENTLOG_WIDTH = 44;                           // bytes a line, its newline included

// What stands where nothing has happened yet: "00/00/0000 00:00:00 255 255".
inline constexpr UPS_EVENTLOGINFO NO_EVENT{EVENT_NONE, -1, 0, {}, {}};

inline constexpr std::size_t NAME_SIZE = 100;  // monitor, agent and host names held between calls

// The state that several engine files share. Times are seconds since the epoch, 0: not set; flags are
// 0 or 1. One engine per process, touched by the agent process's main thread only.
typedef struct _ENGINE {
    // The call in hand; Event_Action.
    std::int32_t CURRENTCMD = 0;
    std::int32_t ISCOMLST = 0;     // the UPS link is down
    std::int32_t beDoCmdDown = 0;  // the call in hand brought a user's shutdown order

    // The configuration's mirrors; getconfig and setconfig. Roles also by the status fill and agent events.
    std::int32_t ISPROTECTOR = 0;
    std::int32_t ISSERVERAGLOW = 0;
    std::int32_t ISSERVERAGNORMAL = 0;
    std::int32_t ISSERVERAGHIGH = 0;
    std::uint32_t BSUSPEND = 0;      // suspend instead of shutdown; not loaded from anywhere
    std::uint32_t EXPBLIFE = 0;      // time on battery before the shutdown; s
    std::uint32_t TURNOFFDELAY = 0;  // s
    std::uint32_t PFAILCOUNT = 0;    // time left on battery at which the warnings start; s, modulo 2^32
    std::uint32_t SCHCOUNT = 0;      // lead of the warnings before a schedule; s
    std::uint32_t INTERVAL = 0;      // between repeated warnings; s
    std::uint32_t EVENTLOGENABLED = 0;
    std::uint32_t DATALOGENABLED = 0;
    std::uint32_t DLOGINTERVAL = 0;  // s
    std::int32_t lastdatalog = 0;    // last record of the data log; 0 has one taken at once

    // The competing deadlines and what they led to; status monitor, commands, schedules and timer.
    std::int32_t SCH_off = 0;
    std::int32_t SCH_boot = 0;
    std::int32_t ACFAIL_off = 0;
    std::int32_t USR_off = 0;
    std::int32_t BATTLOW_off = 0;
    std::int32_t EVENTTRIGGER_off = 0;
    std::int32_t OTHERAG_off = 0;
    std::int32_t next_off = 0;         // the deadline in force
    std::int32_t ACFAIL_duration = 0;  // s on battery so far
    REASON downreason = NONE;
    REASON testreason = NONE;  // cause of the running self-test
    std::int32_t ISSHUTTINGDOWN = 0;
    std::int32_t DOWNREACHED = 0;
    std::int32_t bBattConnect = 0;
    std::int32_t sche_on = 0;  // above 0: all schedules on, below 0: all off, 0: as each says

    // Who and what caused it; event actions and commands.
    std::uint8_t DOWNEVENTID = EVENT_NONE;
    std::array<char, NAME_SIZE> monitorname{};  // the monitor of the last user action
    std::array<char, NAME_SIZE> agentname{};    // the host that caused a network shutdown

    // The logs.
    std::array<UPS_EVENTLOGINFO, 2> last2event{NO_EVENT, NO_EVENT};  // [0] older, [1] newer
    std::int32_t last2loaded = 0;
    std::int32_t bfirst2event = 1;  // the first event after start empties the older slot
    std::int32_t SHALLCOPY = 1;
    std::int32_t eventlogfailed = 0;  // the last append really failed, see eventlog
    std::int32_t glob_ne = 0;         // the next number that itoc writes is negative
} ENGINE;

extern ENGINE engine;

// e_a_config.cpp

/// Loads the working configuration into `eout`'s records and the mirrors, a default for every missing
/// key, and tells the network side the auto-reboot setting. Returns -1 when the host has no name.
int getconfig(UPS_EOUT_DATA *eout);

/// Stores `ein`'s configuration and makes it live in `eout`'s records; the two may be the same record.
/// Returns 0 when every counted write succeeded; then the change is also raised as an event.
int setconfig(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// The stored model number, -1 when there is none; `*autodetect` gets its flag, 0 when missing.
int getupsmodel(std::int32_t *autodetect);

/// Stores model number and flag. Returns -1 when the file cannot be opened; lost writes are not reported.
int setupsmodel(std::int32_t model, std::int32_t autodetect);

/// Clears the four role flags and sets the one of `agenttype`. Returns whether there is one.
bool setrole(std::uint32_t agenttype);

// e_a_event.cpp

/// Fills `events` (EVENT_COUNT rows) and the users of `eout`. Returns 0, -1 without a table.
int getevent(UPS_EVENTINFO *events, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// Stores `ein`'s event table and users. Returns 0 or -1.
int setevent(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// The English text of event `id`, which is also its key in the message catalogue; null when unknown.
const char *eventmsg(int id);

// e_a_action.cpp

/// Carries out what the settings of event `id` ask for. Returns -1 when the event is unknown, there is no
/// event table, or the log could not be written.
int eventaction(int id, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

// e_a_status.cpp

/// One pass of the status monitor. Returns 0 or -1.
int checkupsstatus(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// Fills the status record at start-up from the configuration and the log. Returns -1 when a time could
/// not be converted.
int getupsstatus(UPS_UPSINFO *upsinfo);

// e_a_command.cpp

/// Carries out one request of a monitor. Returns 0 or -1.
int docommand(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// Carries out one agent event. Returns 0 or -1.
int checkagent(AGENTEVENT *agentevent, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// The stored battery-change date; all zero and -1 when there is none.
int getbattime(UPS_TIMEINFO *timeinfo);

/// Stores the battery-change date of `ein`'s command and shows it in `eout`'s status record. Returns the
/// number of failed writes.
int setbattime(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

// e_a_schedule.cpp, e_a_timer.cpp

/// The schedules in force as a newly allocated list, null when there are none.
SCHEDULELIST *getschlist();

/// Stores a list of schedules. Returns 0 or -1.
int setschedule(SCHEDULELIST *list, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// One step of the shutdown timer and the schedules. Returns 0 or -1.
int schedule(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

// e_a_log.cpp

/// Appends one line to the event log and trims it to `linelimit` lines. `eventid` is the event that led to
/// a shutdown (255: none); a null name is empty, and a name ends at its first newline. Returns -1 for every
/// append to a file that was not empty, and on failures; `engine.eventlogfailed` tells a real failure apart.
int eventlog(int id, int linelimit, int eventid, const char *computername);

/// Cuts `file` to its last `line` lines, counting lines as file size over `width`. Returns 0 or -1.
int lengthcheck(const char *file, int line, int width);

/// Serves a page of the event log, oldest line first. Returns 0 or -1.
int geteventlog(const LOGRANGE *range, EVENTLOGARRAY *out);

/// Serves the newest lines of the data log. Returns 0 or -1.
int getdatalog(const LOGRANGE *range, DATALOGARRAY *out);

/// Copies the last two events, [0] the older. The first call reads them from the log when logging is on;
/// returns -1, `out` untouched, when that log cannot be opened.
int getlasttwoevents(std::array<UPS_EVENTLOGINFO, 2> &out);

/// Makes event `id` the newer of the last two, with the time now. Returns -1 when now has no date.
int updatelastevent(int id, int cause, const char *name);

// e_a_log_parse.cpp

/// Takes one line of the event log apart. Returns -1 when a field was missing; the others are filled.
int evelogtoinfo(const char *line, UPS_EVENTLOGINFO *rec);

/// Sets the parse cursor to the start of `line`.
void logfield_start(const char *line);

/// Takes the next number from the cursor on, as decimal text, when it lies in [min, max]; else null. The
/// last field of a line is read past but never returned.
const char *next_logfield(std::int32_t min, std::int32_t max, bool last);

/// What the cursor has not passed yet; empty at the end, never null.
const char *logfield_rest();

// e_a_time.cpp; the texts stay valid until the next call of the same function.

/// The time now as a record's 32-bit time.
std::int32_t timenow();

/// Local date and time of `t`; 0 gives an all-zero record. Returns -1, the record untouched, for t < 0.
int gettime(std::int32_t t, UPS_TIMEINFO *timeinfo);

/// 1-12 for the English abbreviation at the start of `name`, -1 for anything else or null.
int montoid(const char *name);

/// Decimal text of `n`; with a "-" in front when `glob_ne` was set, which it clears.
const char *itoc(std::uint32_t n);

/// Year (four digits), month (1-12) and day of the local date `offset` seconds from now.
int user_year(std::int32_t offset);
int user_month(std::int32_t offset);
int user_day(std::int32_t offset);

/// "year-month-day" and "hh:mm:00" of the local time `offset` seconds from now.
const char *user_date(std::int32_t offset);
const char *user_time(std::int32_t offset);

/// "year-month-day" and "hh:mm:ss" of the local time `t`.
const char *user_date_real(std::time_t t);
const char *user_time_real(std::time_t t);

/// Whole minutes in `seconds`, and the seconds over.
int user_time_m(std::int32_t seconds);
int user_time_s(std::int32_t seconds);

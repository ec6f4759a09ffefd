// What the engine's own files share: the one state record and the functions by which the files call
// each other. Seen by e_a*.cpp and the engine's unit tests only; the agent sees e_a.h.
#pragma once

#include "e_a.h"
#include "shared_word.h"
#include "wp_strings.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <string>
#include <string_view>
#include <sys/time.h>

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
inline constexpr int EVENT_ACRESTORE = 0;
inline constexpr int EVENT_COMMESTABLISHED = 1;
inline constexpr int EVENT_TESTPASSED_USER = 2;
inline constexpr int EVENT_TESTPASSED_SPECIAL = 3;
inline constexpr int EVENT_TESTPASSED_WEEKLY = 4;
inline constexpr int EVENT_TESTPASSED_MONTHLY = 5;
inline constexpr int EVENT_TESTPASSED_BATTERY = 6;
inline constexpr int EVENT_AGENTSTART = 7;
inline constexpr int EVENT_AGENTSTOP = 8;
inline constexpr int EVENT_CONFIGCHANGED = 9;
inline constexpr int EVENT_SCHEDULECHANGED = 10;
inline constexpr int EVENT_EVENTSCHANGED = 11;
inline constexpr int EVENT_AUTOTEST_OFF = 12;
inline constexpr int EVENT_AUTOTEST_ON = 13;
inline constexpr int EVENT_BUZZER_OFF = 14;
inline constexpr int EVENT_BUZZER_ON = 15;
inline constexpr int EVENT_BATTCHANGED = 16;
inline constexpr int EVENT_LEVEL_FIRST = 17;  // 17 to 20: output detection levels 1 to 4
inline constexpr int EVENT_CANCELEDBYUSER = 21;
inline constexpr int EVENT_SYSTEMDOWN = 22;
inline constexpr int EVENT_COMMLOST = 64;
inline constexpr int EVENT_ACFAIL = 65;
inline constexpr int EVENT_BATTDISCONNECT = 66;
inline constexpr int EVENT_BYPASS = 67;
inline constexpr int EVENT_BATTWEAK = 68;
inline constexpr int EVENT_TESTFAILED_USER = 69;
inline constexpr int EVENT_TESTFAILED_SPECIAL = 70;
inline constexpr int EVENT_TESTFAILED_WEEKLY = 71;
inline constexpr int EVENT_TESTFAILED_MONTHLY = 72;
inline constexpr int EVENT_TESTFAILED_BATTERY = 73;
inline constexpr int EVENT_WARNING_SPECIAL = 74;
inline constexpr int EVENT_WARNING_WEEKLY = 75;
inline constexpr int EVENT_WARNING_MONTHLY = 76;
inline constexpr int EVENT_FAULT = 77;
inline constexpr int EVENT_OVERLOAD = 78;
inline constexpr int EVENT_ORDEREDBYUSER = 79;
inline constexpr int EVENT_ORDEREDBYAGENT = 80;
inline constexpr int EVENT_BATTLOW = 128;
inline constexpr int EVENT_ACFAIL_RUNOUT = 129;
inline constexpr int EVENT_ARRIVED_SPECIAL = 130;
inline constexpr int EVENT_ARRIVED_WEEKLY = 131;
inline constexpr int EVENT_ARRIVED_MONTHLY = 132;
inline constexpr int EVENT_ARRIVEDBYUSER = 133;
inline constexpr int EVENT_ARRIVEDBYAGENT = 134;
inline constexpr std::uint8_t EVENT_NONE = 255;

inline constexpr char Evelogfile[] = "/usr/lib/voltaria/events.log";
inline constexpr char Datalogfile[] = "/usr/lib/voltaria/data.log";
inline constexpr char Errlogfile[] = "/usr/lib/voltaria/errorlog";  // named only, never written
inline constexpr int EVENTLOG_WIDTH = 44;                           // bytes a line, its newline included
inline constexpr int DATALOG_WIDTH = 60;

// What stands where nothing has happened yet: "00/00/0000 00:00:00 255 255".
inline constexpr UPS_EVENTLOGINFO NO_EVENT{EVENT_NONE, -1, 0, {}, {}};

inline constexpr std::size_t NAME_SIZE = 100;  // monitor, agent and host names held between calls

/// A setting in seconds as a signed span: above 2147483647 it is negative, as it has always been taken.
[[nodiscard]] inline std::time_t span(std::uint32_t seconds)
{
    return static_cast<std::int32_t>(seconds);
}

/// A shutdown or self-test by schedule.
[[nodiscard]] inline bool is_scheduled(REASON reason)
{
    return reason == SPECIAL || reason == WEEKLY || reason == MONTHLY;
}

/// Whether the link is neither lost nor without a port.
[[nodiscard]] inline bool is_linkup(const UPS_UPSINFO &info)
{
    const std::int8_t status = shared_load(info.CommStatus);
    return status != COMM_LOST && status != COMM_NOUPS;
}

// Kind of a schedule entry, and with it of its text.
inline constexpr int SCHEDULE_KINDS = 3;  // 1 special date, 2 weekly, 3 monthly

// After this a scheduled time has been missed; no entry starts twice within it. s
inline constexpr std::time_t SCHEDULE_STALE = 60;

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
    std::time_t lastdatalog = 0;     // last record of the data log; 0 has one taken at once

    // The competing deadlines and what they led to; status monitor, commands, schedules and timer.
    std::time_t SCH_off = 0;
    std::time_t SCH_boot = 0;
    std::time_t ACFAIL_off = 0;
    std::time_t USR_off = 0;
    std::time_t BATTLOW_off = 0;
    std::time_t EVENTTRIGGER_off = 0;
    std::time_t OTHERAG_off = 0;
    std::time_t next_off = 0;         // the deadline in force
    std::time_t downpoint = 0;        // next_off + GRACE_PERIOD: when the system really goes down
    std::time_t ACFAIL_duration = 0;  // s on battery so far
    REASON downreason = NONE;
    REASON testreason = NONE;  // cause of the running self-test
    std::int32_t ISSHUTTINGDOWN = 0;
    std::int32_t DOWNREACHED = 0;
    std::int32_t SHUTTINGDOWNINLOST = 0;  // a shutdown was abandoned because the link was lost
    std::int32_t bBattConnect = 0;
    std::int32_t sche_on = 0;       // above 0: schedules show as on, below 0: as off, without timed restart
    std::int32_t GRACE_PERIOD = 0;  // by the agent's role; s

    // What getschlist found for the timer.
    REASON schdownreason = NONE;    // kind of the entry behind SCH_off
    std::int32_t DownDuration = 0;  // how long the unit stays off, 0: no timed restart; s
    std::int64_t offBootSpan = 0;   // SCH_boot - SCH_off; s
    std::time_t next_test = 0;      // next scheduled self-test
    REASON schtestreason = NONE;
    std::time_t renewal = 0;        // when the schedules are looked through again, 0: no need
    std::time_t lastturn = 0;       // the timer's last step
    std::int32_t TestDuration = 0;  // min
    std::time_t lastdownstart = 0;  // start of a scheduled shutdown that is over or was missed
    std::time_t lastteststart = 0;  // the same for a scheduled self-test

    // The warnings of the timer.
    REASON lastdownreason = NONE;  // the two reasons before downreason
    REASON lastlastdownreason = NONE;
    std::int32_t HASBGNSPE = 0;  // the warning event of this kind of schedule has been raised
    std::int32_t HASBGNWEE = 0;
    std::int32_t HASBGNMON = 0;
    std::time_t lastdowncount = 0;     // last warning
    std::time_t lastschdowncount = 0;  // last warning of a schedule
    std::int32_t scheinterval = 300;   // between warnings of a schedule; s
    std::int32_t shutdownMsgSendOnce = 0;
    std::int32_t bShutdownByUserCanceled = 0;

    // Who and what caused it; event actions, commands and timer.
    std::uint8_t DOWNEVENTID = EVENT_NONE;
    std::uint8_t shutdowneventid = EVENT_NONE;   // whose broadcast settings the warnings use
    std::array<char, NAME_SIZE> monitorname{};   // the monitor of the last user action
    std::array<char, NAME_SIZE> agentname{};     // the host that caused a network shutdown
    std::array<char, NAME_SIZE> g_agent_name{};  // the host named in a user's shutdown order
    std::array<char, NAME_SIZE> g_localname{};   // this host
    std::int64_t lastgracenotice = 0;  // utils_monotonicms at the last "will shutdown in n minutes", 0: none
    std::int64_t gracestart = 0;       // utils_monotonicms at the begin of the shutdown

    // What the status monitor saw on the previous call.
    std::int8_t LASTUPSSTAT = 0;
    std::int8_t LASTBATTSTATUS = 1;  // kept, not read
    std::int8_t LASTCOMMSTATUS = 0;
    std::uint32_t last_u_status = 0;
    std::array<char, 255> model_lasttime{};
    std::array<char, 255> group_last{};
    std::int32_t agenttype_last = 0;
    std::int32_t ignore_last = 0;
    std::int32_t reboot_old = -1;
    std::int32_t com_estab_once = 0;   // communication has been established at least once
    std::int32_t just_fail = 0;        // the stopwatch is running
    std::int32_t iFirstgetHWfail = 0;  // "UPS abnormal" has been raised for the present fault
    std::int32_t ISTESTTING = 0;       // a self-test is under way; kept, not read
    std::time_t LASTCOMESTTIME = 0;    // communication was last established; kept, not read
    std::time_t lostat = 0;            // communication was last lost
    std::int32_t dispgrace = 0;        // grace added to displayed shutdown times; s

    // The AC-failure stopwatch: what the interval timer showed last, and right after it was armed (moved back
    // by what had passed before).
    itimerval ovaluep{};
    itimerval valuep{};

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

/// The next item of the list `text` from `*pos` on, in a static buffer; null at the end or for an empty item.
/// Items end at commas and blanks.
const char *nextitem(const char *text, std::size_t *pos);

/// The English text of event `id`, which is also its key in the message catalogue; null when unknown.
const char *eventmsg(int id);

// e_a_action.cpp

/// Carries out what the settings of event `id` ask for. Returns -1 when the event is unknown, there is no
/// event table, or the log could not be written.
int eventaction(int id, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// Broadcasts `text` with the broadcast settings of event `id`. Returns -1 when `id` is not in `ein`'s table.
int wallornot(int id, const std::string &text, UPS_EIN_DATA *ein);

/// Makes event `id` the newer of the last two, with the time now. Returns -1 when now has no date.
int updatelastevent(int id, int cause, const char *name);

// e_a_down.cpp

/// One step of the final shutdown, on every pass once ISSHUTTINGDOWN is set: waits out the grace, then tells
/// everybody and replaces this process by the system's shutdown program. Returns 0, or -1 when the unit could
/// not be told.
int shutdown_system(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// The grace before a network shutdown by the configured role; min.
int getnetshutdowntime(const UPS_EIN_DATA *ein);

// e_a_notice.cpp

// One argument of a notice's text.
typedef struct _NOTICEARG {
    bool isnumber;
    long number;
    std::string_view text;
} NOTICEARG;
[[nodiscard]] inline NOTICEARG notice_arg(long number)
{
    return {true, number, {}};
}
[[nodiscard]] inline NOTICEARG notice_arg(std::string_view text)
{
    return {false, 0, text};
}

/// A text for users, twice: for Japanese monitors (EUC-JP) and in English.
typedef struct _NOTICE {
    std::string localised;
    std::string english;
} NOTICE;

/// `format` with its "%s", "%d", "%02d" and the like replaced by `arguments`, in order or numbered ("%2$s").
/// What does not fit together is left out; never fails, whatever the format.
std::string notice_format(const char *format, std::initializer_list<NOTICEARG> arguments);

/// The text `format` through the message catalogue and as it stands, both formatted.
NOTICE notice_compose(const char *format, std::initializer_list<NOTICEARG> arguments = {});

/// Shows a notice on the monitors, the localised text first. Returns 0, or -1 when a send failed.
int notify(const NOTICE &notice);
int notify(const char *format, std::initializer_list<NOTICEARG> arguments = {});

/// Sends one text to monitors or agents through Event_CallBack `code` with language `lang`.
int notice_send(int code, const std::string &text, int lang);

// e_a_status.cpp

/// One pass of the status monitor. Returns 0 or -1.
int checkupsstatus(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

// e_a_status_start.cpp

/// Fills the status record at start-up from the configuration and the log. Returns -1 when a time could
/// not be converted.
int getupsstatus(UPS_UPSINFO *upsinfo);

/// The stored role of the agent, the high one where there is none or an unknown one; it becomes the engine's.
std::uint32_t read_agenttype();

/// The stored group into the record; "Group A", which is stored too, where there is none.
void fill_group(UPS_UPSINFO *upsinfo);

// e_a_stopwatch.cpp: the real-time interval timer as a stopwatch that does not jump with the wall clock.

/// Arms the timer from `ov` and reads it back into `value`.
void starttimer(itimerval *ov, itimerval *value);

/// Reads the timer into `ov` and stores in `out` the seconds since starttimer.
void getduration(itimerval *ov, const itimerval *value, std::time_t *out);

/// Zeroes both records and disarms the timer.
void stoptimer(itimerval *ov, itimerval *value);

/// The seconds on battery so far by the stopwatch of the AC failure; 0 when it is not running.
std::time_t acfail_elapsed();

// e_a_command.cpp

/// Carries out one request of a monitor. Returns 0 or -1.
int docommand(AGENTCMD *acp, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// The stored battery-change date; all zero and -1 when there is none.
int getbattime(UPS_TIMEINFO *timeinfo);

/// Stores the battery-change date of `ein`'s command and shows it in `eout`'s status record. Returns the
/// number of failed writes.
int setbattime(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

// e_a_agentevent.cpp

/// Carries out one agent event. Returns 0 or -1.
int checkagent(AGENTEVENT *agentevent, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

// e_a_schedule.cpp

/// Reads the schedules and derives SCH_off, SCH_boot, next_test and what belongs to them. The list is the
/// engine's own, null when there are none, and is good until the next call.
SCHEDULELIST *getschlist();

/// Stores a list of schedules. Returns 0 or -1.
int setschedule(SCHEDULELIST *list, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

/// Parses a time text of `kind` into `timeinfo`. Returns 0, or 1, the record unchanged, when a field that the
/// kind needs is missing or out of bounds.
int timetoinfo(const char *text, UPS_TIMEINFO *timeinfo, int kind);

/// The time text of `timeinfo` for `kind`, in a static buffer; minute and hour alone for other kinds.
const char *infototime(const UPS_TIMEINFO *timeinfo, int kind);

// e_a_timer*.cpp

/// One step of the shutdown timer and the schedules. Returns 0, or -1 when a callback, a host-name lookup or
/// the final shutdown failed.
int schedule(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout);

// e_a_log.cpp

/// Appends one line to the event log and trims it to `linelimit` lines. `eventid` is the event that led to
/// a shutdown (255: none); a null name is empty, and a name ends at its first newline. Returns -1 for every
/// append to a file that was not empty, and on failures; `engine.eventlogfailed` tells a real failure apart.
int eventlog(int id, int linelimit, int eventid, const char *computername);

/// Appends one line of measurements to the data log and trims it to `linelimit` lines. Nothing is written for
/// an all-zero record. Returns 0, or -1 as eventlog does.
int datalog(const UPSDATA &upsdata, int linelimit);

/// Cuts `file` to its last `line` lines, counting lines as file size over `width`. Returns 0 or -1.
int lengthcheck(const char *file, int line, int width);

// e_a_log_page.cpp

/// Serves a page of the event log, oldest line first. Returns 0 or -1.
int geteventlog(const LOGRANGE *range, EVENTLOGARRAY *out);

/// Serves the newest lines of the data log. Returns 0 or -1.
int getdatalog(const LOGRANGE *range, DATALOGARRAY *out);

/// Copies the last two events, [0] the older. The first call reads them from the log when logging is on;
/// returns -1, `out` untouched, when that log cannot be opened.
int getlasttwoevents(std::array<UPS_EVENTLOGINFO, 2> &out);

// e_a_log_parse.cpp

/// Takes one line of the event log apart. Returns -1 when a field was missing; the others are filled.
int evelogtoinfo(const char *line, UPS_EVENTLOGINFO *rec);

/// Takes one line of the data log apart. Returns -1 when a field was missing, which is always so: the last
/// field, the battery capacity, is never read.
int datalogtoinfo(const char *line, UPS_DATALOGINFO *rec);

/// Sets the parse cursor to the start of `line`.
void logfield_start(const char *line);

/// Takes the next number from the cursor on, as decimal text, when it lies in [min, max]; else null. The
/// last field of a line is read past but never returned.
const char *next_logfield(std::int32_t min, std::int32_t max, bool last);

/// What the cursor has not passed yet; empty at the end, never null.
const char *logfield_rest();

// e_a_time.cpp; the texts stay valid until the next call of the same function.

/// The time now. Wider than the 32 bits that end in 2038; nothing stores it as a number.
std::time_t timenow();

/// Local date and time of `t`; 0 gives an all-zero record. Returns -1, the record untouched, for t < 0.
int gettime(std::time_t t, UPS_TIMEINFO *timeinfo);

/// 1-12 for the English abbreviation at the start of `name`, -1 for anything else or null.
int montoid(const char *name);

/// Decimal text of `n`; with a "-" in front when `glob_ne` was set, which it clears.
const char *itoc(std::uint32_t n);

/// Year (four digits), month (1-12) and day of the local date `offset` seconds from now.
int user_year(std::time_t offset);
int user_month(std::time_t offset);
int user_day(std::time_t offset);

/// "year-month-day" and "hh:mm:00" of the local time `offset` seconds from now.
const char *user_date(std::time_t offset);
const char *user_time(std::time_t offset);

/// "year-month-day" and "hh:mm:ss" of the local time `t`.
const char *user_date_real(std::time_t t);
const char *user_time_real(std::time_t t);

/// Whole minutes in `seconds`, and the seconds over.
int user_time_m(std::time_t seconds);
int user_time_s(std::time_t seconds);

// What the files of the UPS process share: the one state record of the module and the functions that cross
// from file to file. Seen by agent_ups*.cpp and by their tests alone.
#pragma once

#include "agent.h"
#include "agent_ups_reply.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <string_view>
#include <sys/time.h>

// Descriptors that take part in a wait lie below this.
inline constexpr int UPS_FDLIMIT = 32;

inline constexpr int COMPORT_COUNT = 4;

// Everything the UPS process remembers. One instance, `upschan`, in agent_ups.cpp; all flags are 0 or 1.
typedef struct _UPSCHAN {
    AGINFO *aip;  // the shared block, or a private one when there is none
    std::uint32_t
        *u_status;  // the published event mask: aip->ups.upsstat, or `upsstatus` without shared block
    std::uint32_t upsstatus;  // the private status word; event bits
    std::uint32_t heldmask;   // event bits gathered before the line is established
    int maskheld;             // `heldmask` is to be published

    // The serial line.
    int comfd = -1;          // the open port; -1: none
    int comid = COMID_NONE;  // index 0-3 into comlist; COMID_NONE; COMID_NOUPS
    // Device names in the order of the search.
    std::array<const char *, COMPORT_COUNT> comlist{"/dev/ttyS0", "/dev/ttyS1", "/dev/ttyS2", "/dev/ttyS3"};
    int comtry;      // index of the port being opened, for messages
    int portdead;    // a read of comfd reported its end: no wait on it until the next status pass
    int old_comset;  // ComSet for which the port was last searched
    int estab;       // successful queries of this turn of the loop; kept, not read

    // The command channel.
    int u_wait;       // the command in hand still owes a reply word
    int buzzerStep;   // step 1-3 of the buzzer test, 0: idle
    int wakefd = -1;  // socket by which the agent process is woken; -1: none

    // The polling clock, on the process's one real-time interval timer.
    itimerval value;   // what the clock was set to
    itimerval ovalue;  // what it showed right after that
    int deltatime;     // whole seconds since then
    itimerval tvalue;  // the same two at the start of a self-test
    itimerval tovalue;

    // The model and what it can do.
    std::array<char, 100> ups_model_s;     // model name found by the search, later that of the last pass
    std::array<char, 255> model_lasttime;  // model name at the previous read
    int model_changed;                     // the last read gave another name than the one before
    int modelknown;                        // the last status pass read the model
    CAPABILITY cf;                         // cf_ flags: from the capability reply
    CAPABILITY cmd;                        // cmd_ flags: from the model when there is no such reply
    int cmd_BvB8;
    int cf_support;           // cleared only
    int bAutoRebootByV2;      // bAutoReboot comes from the unit
    int upsRebootStatusGetV;  // cleared only

    // Self-test tracking.
    int beTesting;             // a test is running, as Q1 says
    int beRealtest;            // the running test was seen in Q1
    int beBattTest;            // the test that ended was a battery test; until its result has been recorded
    int beUpsTest;             // the same for a UPS test
    int lasttest;              // beTesting as it was at the previous unit state query
    int bSendTestCmd;          // a test command was just sent
    int testcommanded;         // the test was asked for by a command
    std::time_t start_test_t;  // when it started, s since the epoch
    int gb_upstest_ok;         // the UPS test ended without fault

    // Fault characters as they were last seen.
    int gb_Battest_HWFail;
    int gb_Battest_Weak;
    int gb_CommandV_BattDisconect;  // kept, not read
    int gb_Funtest_HWFail;
} UPSCHAN;

extern UPSCHAN upschan;

// One exchange with the unit.
typedef struct _UPSREPLY {
    int count;                 // bytes of the reply; 0, or one of the two below
    std::array<char, 64> buf;  // NUL behind the reply
} UPSREPLY;

inline constexpr int UPSREPLY_NONE = -1;     // nothing acceptable came
inline constexpr int UPSREPLY_NOTSENT = -2;  // the command could not be written

// ---- agent_ups.cpp

/// Puts the state record to its start values and attaches it to the shared block of `record`.
void ups_attach(AGENT *record);

/// One turn of the loop: search when there is no port, wait up to 1 s, serve pipe and port, poll.
void ups_turn(AGENT *record);

/// Closes what the parent left open for itself and moves this process's pipe ends below UPS_FDLIMIT. 0, or -1
/// when an end cannot be moved.
[[nodiscard]] int ups_takedescriptors(AGENT *record);

/// Reads one command word from the agent process, executes it and answers it when it owes an answer. Leaves
/// the process when the pipe fails.
void ups_procagentcmd(AGENT *record);

/// The command in hand owes no reply word. Called by commands that answer at once.
void response_nowait();

/// Arms the real-time interval timer, `set` becoming what it was set to and `snapshot` what it shows.
void ups_setstartitimer(itimerval *set, itimerval *snapshot);

/// Arms the polling clock anew when less than half of it is left, for it must never run out.
void ups_keepclock();

/// Whole seconds since the polling clock was armed; kept in `deltatime` too.
[[nodiscard]] int ups_elapsed();

/// The event mask as the queries see it: the published word, or what was gathered since the line was found.
[[nodiscard]] std::uint32_t ups_getmask();

/// Stores the event mask: at once on an established line, else when ups_established is called.
void ups_setmask(std::uint32_t mask);

/// Declares the line established and publishes the mask that was gathered.
void ups_established();

/// The configured port selection, COMSET_NOUPS, COMSET_AUTO or 1-4.
[[nodiscard]] int ups_comset();

// ---- agent_ups_line.cpp

/// Waits up to `usec` microseconds until `fd` can be read (or written). 1 ready, 0 not, -1 failed. A signal
/// does not end the wait.
[[nodiscard]] int ups_waitfd(int fd, bool forwriting, long usec);

/// Pauses for `usec` microseconds, signals notwithstanding.
void ups_pause(long usec);

/// Searches the port that ComSet selects. The port index, or -1; after an automatic search that found none,
/// the previous index.
int ups_comsearch(AGENT *record);

/// Searches the port and reads the model. The length of the model name, or -1.
int ups_comsearch_model(AGENT *record);

/// Sets `comfd` up as the unit's line. 0, or -1 after a message on standard error.
int ups_cominit();

/// Closes and reopens the port `comid`. 0, or -1 with no port open.
int ups_reopen(AGENT *record);

/// Closes the port, if one is open, without waiting for output that does not drain.
void ups_closeport();

/// Empties both queues of the port.
void ups_flushport();

/// Writes one command in one write, without blocking for more than a second. The bytes written, or -1.
int ups_writetoups(std::string_view command);

/// Reads one reply of at most `max` bytes into `buf`, which has room for a NUL behind them. The byte count, 0
/// after a wake-up notice with nothing behind it, or -1.
int ups_readdatafromups(AGENT *record, char *buf, int max);

/// Flushes the port, writes one order in one write and waits, within a bound, until it has left the port, so
/// that no later flush can take it back. The bytes written, or -1; errno when they are fewer than asked for.
int ups_order(std::string_view order);

/// Flushes the port, writes a command and reads its reply of at most `max` (at most 63) bytes. The count of
/// `reply`.
int ups_query(AGENT *record, std::string_view command, int max, UPSREPLY &reply);

/// The bytes of a reply; empty when there are none.
[[nodiscard]] std::string_view ups_replytext(const UPSREPLY &reply);

// ---- agent_ups_model.cpp

/// Reads the model: into `ups_model_s` when `search` is 1, else into the record, where a unit that does not
/// answer has the port reopened. The length of the record's model name, or -1.
int ups_getupsmodel(AGENT *record, int search);

/// The two model queries. 0 model read, 1 no usable answer, -1 failure.
int get_nozr_model(AGENT *record, int search);
int get_zr_model(AGENT *record, int search);

/// Probes what the unit can do; `modelknown` tells that the previous pass read the model. Below 0: failure.
int ups_getupsfunction(AGENT *record, int modelknown);

/// The model in hand: the record's, or the one that the search found while the record has none yet.
[[nodiscard]] std::string_view ups_model();

/// Whether the model in hand begins with `prefix`.
[[nodiscard]] bool ups_ismodel(std::string_view prefix);

/// Whether the model in hand is of the older family ("ZR401", "ZR6020").
[[nodiscard]] bool ups_isoldmodel();

/// Stores the record's model name.
void ups_setmodel(std::string_view name);

// ---- agent_ups_status.cpp: the pass and the loss of the line

/// The status pass: every query once. 0, or -1.
int ups_getupsstatus(AGENT *record);

/// Looks whether the unit still answers. -1 no UPS is configured, 0 it does, 1 the line was declared lost.
int verify_commlost(AGENT *record);

/// Declares the line lost: closes the port and clears what is known about the unit.
void ups_lostcomm(AGENT *record);

/// The same for a machine without UPS.
void ups_comnone(AGENT *record);

/// Records the result of a self-test with the present local time.
void ups_savetestrslt(SELFTESTRESULT *slot, std::uint32_t result);

// ---- agent_ups_status_q1.cpp, _v.cpp and _query.cpp: each query 0 or -1

int ups_q1(AGENT *record, int tries);
int ups_getupsinfo(AGENT *record);
int ups_getcomplstatus(AGENT *record);
int ups_getoutputfreq(AGENT *record);
int ups_getbattcapacity(AGENT *record);
int ups_getbatteryvoltage(AGENT *record);
int ups_getrebootstatus(AGENT *record);
int ups_getbattchgtime(AGENT *record);

/// For the agent's command: the unit state, then the battery date.
int ups_getbattchgtimeforcmd(AGENT *record);

/// Stores the battery date of the configuration, no date when there is none.
void ups_configbattchgtime();

/// Stores a battery date, all of it.
void ups_setbattdate(const UPS_TIMEINFO &date);

// ---- agent_ups_control.cpp

/// Carries out one command of the agent process. 0 or more: success.
int ups_control(AGENT *record, std::uint32_t word);

/// Sends the order that is nothing but a text to its command word. 0 when the unit agreed, or is of the older
/// family, which answers no order; -1 for a failed or refused order and a word without such an order.
int ups_docommand(AGENT *record, std::uint32_t word);

/// The self-test of a command word, with what belongs before and after it. 0, except on the older family,
/// where it is the result of ups_selftest.
int ups_selftest1(AGENT *record, std::uint32_t word);

/// Starts the plain self-test if none is running; its argument lies in `ba2u`. 0 or -1.
int ups_selftest(AGENT *record);

/// Orders the unit to switch its output off, with or without a timed restart, as `ba2u` says. 0 or -1.
int ups_shutdownups(AGENT *record);

/// Stores the battery replacement date of `ba2u` in the unit. 0 or -1.
int ups_setbattchgtime(AGENT *record);

/// Takes an order to switch off back, without reading the unit's reply. 0, or -1 after a message.
int ups_cancelshutdown();

/// One step of the buzzer test; `buzzerStep` is 1 to 3. The result of the step's order.
int doBuzzer(AGENT *record);

// ---- agent_ups_wake.cpp

/// Opens the socket by which the agent process is woken. Once, at the start of the UPS process.
void ups_openwake();

/// Makes the agent process look at the shared block at once. Called when everything that it is to see has
/// been stored; keeps no result and never waits.
void ups_wakeagent();

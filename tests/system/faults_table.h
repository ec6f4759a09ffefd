// clang-format off
// THE FAULT MATRIX: what comes of each fault (rows) in each phase of the agent's life (columns).
//
// How to read it. A cell says what is expected when the fault begins in that phase; the test Faults.FAULT/PHASE
// proves it with the real programs. In every cell the unit reports mains failure and then battery low, and the
// machine must be ordered down within its deadline: the unit told to switch off, /sbin/shutdown called, the events
// logged. The deadline follows from the settings: with battery low at once, in the grace when the grace of 60 s is
// over; and 5 s for the next questions to the unit and for the order. COST is what the fault may add, in seconds.
//
//   PROTECTS  all of that happens while the fault lasts, or after it where it lasts a moment only
//   NO_LOG    the same, but nothing can be written to the event log
//   AT_ONCE   the same, and what was left of the grace is skipped
//   FINDS     the unit is not there to be found while the fault lasts; with its end it is found, then PROTECTS
//   LOSES     the link is lost (event 64), monitors are served, nothing is ordered, nobody goes down; with the end of
//             the fault the link is back (event 1), then PROTECTS
//   ANEW      as LOSES, and what was counted down ends with the link; mains is still failed when the link is back, so
//             a new countdown begins from its start; then PROTECTS
//   CATCHES   nothing can happen while the fault lasts; the deadline counts from its end
//   RESTARTS  the agent announces its end three times, logs it (event 8) and ends; whoever supervises it starts it
//             again; then PROTECTS
//   QUIETLY   as RESTARTS, but not logged: once the machine goes down the engine takes no more events of agents
//   UNTOLD    the countdown in hand runs out and the machine goes down, but nobody is left to tell the unit
//   NOBODY    no such cell: the agent knows of no failure, and nobody is left to tell it of one
//
// In the grace an agent goes down AT_ONCE when it learns that there is nothing to wait for: the clock has passed the
// end, or it heeds no others any more. It heeds none either where its settings cannot be read: that is the default.
//
// COST: noise spoils replies, which are asked for again. A UPS process that does not answer is waited for during a
// minute. A notification is waited for during 10 s, a command of an event for its CloseAppTime, here 20 s; both come
// with two events. Of 10,000 orders to read the battery's date, 16 are before the order to switch off.
#pragma once

#include "faults_stage.h"

namespace faults
{

using enum Outcome;

inline constexpr CELL NOBODY("the agent knows of no failure, and nobody is left to tell it of one");

#define FAULT_NAMED(name) {#name, name##_begin, name##_end}
#define FAULT_WITH_SETTINGS(name) {#name, name##_begin, name##_end, name##_settings}

inline const std::array TABLE = {
//                                       COST   SEARCHING  ON MAINS   ON BATTERY IN GRACE   SELF-TEST  LONG ANSWER
ROW{FAULT_NAMED(LineCut),                   0, {FINDS,     LOSES,     ANEW,      ANEW,      LOSES,     LOSES}},
ROW{FAULT_NAMED(Garbage),                   5, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(NoiseWithoutEnd),           5, {FINDS,     LOSES,     ANEW,      ANEW,      LOSES,     LOSES}},
ROW{FAULT_NAMED(XoffInTheNoise),            0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(RepliesOneByteLate),        0, {FINDS,     LOSES,     ANEW,      ANEW,      LOSES,     LOSES}},
ROW{FAULT_NAMED(RepliesOfAnotherModel),     0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(PortFileGone),              0, {FINDS,     LOSES,     ANEW,      ANEW,      LOSES,     LOSES}},
ROW{FAULT_NAMED(NoUnitFor150Days),          0, {FINDS,     LOSES,     ANEW,      ANEW,      LOSES,     LOSES}},

ROW{FAULT_NAMED(UpsProcessKilled),          0, {RESTARTS,  RESTARTS,  RESTARTS,  QUIETLY,   RESTARTS,  RESTARTS}},
ROW{FAULT_NAMED(UpsProcessStopped),         0, {CATCHES,   CATCHES,   CATCHES,   CATCHES,   CATCHES,   CATCHES}},
ROW{FAULT_NAMED(UpsProcessHangs),          60, {NOBODY,    NOBODY,    UNTOLD,    UNTOLD,    NOBODY,    NOBODY}},
ROW{FAULT_NAMED(AgentStopped),              0, {CATCHES,   CATCHES,   CATCHES,   CATCHES,   CATCHES,   CATCHES}},

ROW{FAULT_NAMED(ClockADayForward),          0, {PROTECTS,  PROTECTS,  PROTECTS,  AT_ONCE,   PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(ClockADayBackward),         0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_WITH_SETTINGS(OrderWhileOthersAreIgnored),
                                            0, {PROTECTS,  PROTECTS,  PROTECTS,  AT_ONCE,   PROTECTS,  PROTECTS}},

ROW{FAULT_NAMED(DiskFull),                  0, {NO_LOG,    NO_LOG,    NO_LOG,    NO_LOG,    NO_LOG,    NO_LOG}},
ROW{FAULT_NAMED(SettingsFileADirectory),    0, {PROTECTS,  PROTECTS,  PROTECTS,  AT_ONCE,   PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(LogsUnwritable),            0, {NO_LOG,    NO_LOG,    NO_LOG,    NO_LOG,    NO_LOG,    NO_LOG}},
ROW{FAULT_WITH_SETTINGS(NotificationHangs),40, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_WITH_SETTINGS(CommandNeverEnds), 40, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(BlockLockedByADeadTool),    0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},

ROW{FAULT_NAMED(ClientsStalled),            0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(FloodOfConnections),        0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(MonitorsVanish),            0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(FloodOfDateRequests),      12, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(InterfaceVanishes),         0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
ROW{FAULT_NAMED(FloodOfDatagrams),          0, {PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS,  PROTECTS}},
};

#undef FAULT_NAMED
#undef FAULT_WITH_SETTINGS
// clang-format on

}  // namespace faults

// The matrix of competing deadlines: what happens to the unit and its agent, and what the agent makes of it.
//
// The agent is a normal server agent: between the begin of a shutdown and the order to the unit lies a grace
// of 60 s, in which users can end their work. It obeys other agents. Its settings:
//
//   schedule    a special date unless the row says else; warned of 60 s before; the unit is to come
//               back on an hour after the shutdown's time
//   mains fail  the machine runs on battery for 60 s; the deadline itself still belongs to the battery,
//               so the shutdown begins a second after it
//   user        "user orders 90" at a monitor called "desk": down in 90 s
//   battery     low: down at once
//   event       the unit goes on bypass; the event settings say that this brings the machine down: at once
//   agent       another agent of the group orders everybody down: at once
//
// Requests of a second are handled before the unit's state is looked at, as in the agent's loop.
//
// Events: 0 mains restored, 1 link established, 8 agent stops, 9 settings changed, 21 user cancels, 22 system
// is shut down (in brackets the event that led to it), 64 link lost, 65 mains failed, 67 bypass, 74 to 76
// schedule is near (special, weekly, monthly), 79 user orders, 80 shutdown told to the network, 128 battery
// low, 129 time on battery has run out, 130 to 132 schedule has arrived (special, weekly, monthly), 133
// user's time has arrived, 134 the same of an order from another host.
//
// The unit is told "delay/off time": it goes off 180 s after the order. After a schedule it comes back on
// 3420 s later, which is the hour less the delay; after anything else (-1) it does not restart by itself.
#pragma once

#include "tests/unit/engine_matrix.h"

// clang-format off
inline constexpr ROW ALONE[] = {
    // what happens
    // wins, begins, ordered off, events, told, shown
    {"0 schedule at 120",
     "schedule", "120", "180", "74 130 80 22(130) 8", "180/3420", "60: 180 3780"},
    {"0 weekly schedule at 120",
     "weekly", "120", "180", "75 131 80 22(131) 8", "180/3420", "60: 180 3780"},
    {"0 monthly schedule at 120",
     "monthly", "120", "180", "76 132 80 22(132) 8", "180/3420", "60: 180 3780"},
    {"10 mains fail",
     "mains", "71", "130", "65 129 80 22(129) 8", "180/-1", "30: 130 -"},
    {"10 user orders 90",
     "user", "100", "160", "79 133 80 134 22(134) 8", "180/-1", "50: 160 -"},
    // An order that names this very host comes from no other.
    {"10 user here orders 90",
     "user", "100", "160", "79 133 22(133) 8", "180/-1", "50: 160 -"},
    {"10 battery low",
     "battery", "10", "70", "128 80 22(128) 8", "180/-1", "10: 70 -"},
    {"10 bypass",
     "event", "10", "70", "67 80 22(67) 8", "180/-1", "10: 70 -"},
    {"10 agent orders",
     "agent", "10", "70", "80 134 22(134) 8", "180/-1", "20: 70 -"},
};

inline constexpr ROW PAIRS[] = {
    // schedule and mains: schedule first, mains first, both due at 120: mains' time, the schedule's reason
    {"0 schedule at 120 | 70 mains fail",
     "schedule", "120", "180", "74 65 130 80 22(130) 8", "180/3420", "100: 180 3780"},
    {"0 schedule at 120 | 40 mains fail",
     "mains", "101", "160", "65 129 80 22(129) 8", "180/-1", "80: 160 -"},
    {"0 schedule at 120 | 60 mains fail",
     "schedule", "120", "180", "65 74 130 80 22(130) 8", "180/3420", "100: 180 3780"},

    // schedule and user
    {"0 schedule at 120 | 10 user orders 150",
     "schedule", "120", "180", "79 74 130 80 22(130) 8", "180/3420", "100: 180 3780"},
    {"0 schedule at 120 | 10 user orders 90",
     "user", "100", "160", "79 133 80 134 22(134) 8", "180/-1", "50: 160 -"},
    {"0 schedule at 120 | 10 user orders 110",
     "schedule", "120", "180", "79 74 130 80 22(130) 8", "180/3420", "100: 180 3780"},

    // schedule and battery: a low battery in the grace does not prolong it, but the unit stays off
    {"0 schedule at 120 | 130 battery low",
     "schedule then battery", "120", "180", "74 130 80 128 22(128) 8", "180/-1", "150: 190 -"},
    {"0 schedule at 120 | 80 battery low",
     "battery", "80", "140", "74 128 80 22(128) 8", "180/-1", "100: 140 -"},
    {"0 schedule at 120 | 120 battery low",
     "battery", "120", "180", "74 128 80 22(128) 8", "180/-1", "120: 180 -"},

    // schedule and event: in the grace the event changes nothing but the cause in the log
    {"0 schedule at 120 | 130 bypass",
     "schedule", "120", "180", "74 130 80 67 22(67) 8", "180/3420", "150: 180 3780"},
    {"0 schedule at 120 | 80 bypass",
     "event", "80", "140", "74 67 80 22(67) 8", "180/-1", "100: 140 -"},
    {"0 schedule at 120 | 120 bypass",
     "event", "120", "180", "74 67 80 22(67) 8", "180/-1", "120: 180 -"},

    // schedule and agent: once a shutdown is under way no agent's order is taken
    {"0 schedule at 120 | 130 agent orders",
     "schedule", "120", "180", "74 130 80 22(130) 8", "180/3420", "150: 180 3780"},
    {"0 schedule at 120 | 80 agent orders",
     "agent", "80", "140", "74 80 134 22(134) 8", "180/-1", "100: 140 -"},
    {"0 schedule at 120 | 120 agent orders",
     "agent", "120", "180", "74 80 134 22(134) 8", "180/-1", "120: 180 -"},

    // mains and user; both due at 70: the reason is mains, and so is the second more
    {"10 mains fail | 20 user orders 90",
     "mains", "71", "130", "65 79 129 80 22(129) 8", "180/-1", "50: 130 -"},
    {"10 mains fail | 20 user orders 30",
     "user", "50", "110", "65 79 133 80 134 22(134) 8", "180/-1", "40: 110 -"},
    {"10 mains fail | 20 user orders 50",
     "mains", "71", "130", "65 79 129 80 22(129) 8", "180/-1", "50: 130 -"},

    // mains and battery: the grace that began at 71 ends after its 60 s
    {"10 mains fail | 90 battery low",
     "mains then battery", "71", "131", "65 129 80 128 22(128) 8", "180/-1", "100: 150 -"},
    {"10 mains fail | 40 battery low",
     "battery", "40", "100", "65 128 80 22(128) 8", "180/-1", "50: 100 -"},
    {"10 mains fail | 71 battery low",
     "battery", "71", "131", "65 128 80 22(128) 8", "180/-1", "71: 131 -"},
    {"10 mains fail, battery low",
     "battery", "10", "70", "65 128 80 22(128) 8", "180/-1", "10: 70 -"},

    // mains and event
    {"10 mains fail | 90 bypass",
     "mains", "71", "130", "65 129 80 67 22(67) 8", "180/-1", "100: 130 -"},
    {"10 mains fail | 40 bypass",
     "event", "40", "100", "65 67 80 22(67) 8", "180/-1", "50: 100 -"},
    {"10 mains fail | 71 bypass",
     "event", "71", "131", "65 67 80 22(67) 8", "180/-1", "71: 131 -"},
    {"10 mains fail, bypass",
     "event", "10", "70", "65 67 80 22(67) 8", "180/-1", "10: 70 -"},

    // mains and agent
    {"10 mains fail | 90 agent orders",
     "mains", "71", "130", "65 129 80 22(129) 8", "180/-1", "100: 130 -"},
    {"10 mains fail | 40 agent orders",
     "agent", "40", "100", "65 80 134 22(134) 8", "180/-1", "50: 100 -"},
    {"10 mains fail | 71 agent orders",
     "agent", "71", "131", "65 80 134 22(134) 8", "180/-1", "71: 131 -"},

    // user and battery: the name of the user's host is not forgotten, so 134 is told whatever wins
    {"10 user orders 60 | 90 battery low",
     "user then battery", "70", "130", "79 133 80 128 134 22(134) 8", "180/-1", "100: 150 -"},
    {"10 user orders 60 | 40 battery low",
     "battery", "40", "100", "79 128 80 134 22(134) 8", "180/-1", "50: 100 -"},
    {"10 user orders 60 | 70 battery low",
     "battery", "70", "130", "79 128 80 134 22(134) 8", "180/-1", "70: 130 -"},

    // user and event
    {"10 user orders 60 | 90 bypass",
     "user", "70", "130", "79 133 80 67 134 22(134) 8", "180/-1", "100: 130 -"},
    {"10 user orders 60 | 40 bypass",
     "event", "40", "100", "79 67 80 134 22(134) 8", "180/-1", "50: 100 -"},
    {"10 user orders 60 | 70 bypass",
     "event", "70", "130", "79 67 80 134 22(134) 8", "180/-1", "70: 130 -"},

    // user and agent
    {"10 user orders 60 | 90 agent orders",
     "user", "70", "130", "79 133 80 134 22(134) 8", "180/-1", "100: 130 -"},
    {"10 user orders 60 | 40 agent orders",
     "agent", "40", "100", "79 80 134 22(134) 8", "180/-1", "50: 100 -"},
    {"10 user orders 60 | 70 agent orders",
     "agent", "70", "130", "79 80 134 22(134) 8", "180/-1", "70: 130 -"},

    // battery and event: whichever comes second, the grace runs from the first
    {"10 battery low | 30 bypass",
     "battery", "10", "70", "128 80 67 22(67) 8", "180/-1", "40: 70 -"},
    {"10 bypass | 30 battery low",
     "event then battery", "10", "70", "67 80 128 22(128) 8", "180/-1", "40: 90 -"},
    {"10 bypass, battery low",
     "battery", "10", "70", "67 128 80 22(128) 8", "180/-1", "10: 70 -"},

    // battery and agent
    {"10 battery low | 30 agent orders",
     "battery", "10", "70", "128 80 22(128) 8", "180/-1", "40: 70 -"},
    {"10 agent orders | 30 battery low",
     "agent then battery", "10", "70", "80 128 134 22(134) 8", "180/-1", "40: 90 -"},
    {"10 agent orders, battery low",
     "agent then battery", "10", "70", "80 128 134 22(134) 8", "180/-1", "10: 70 -"},

    // event and agent: an event starts its own shutdown in the grace of an agent's order
    {"10 bypass | 30 agent orders",
     "event", "10", "70", "67 80 22(67) 8", "180/-1", "40: 70 -"},
    {"10 agent orders | 30 bypass",
     "agent then event", "10", "70", "80 67 134 22(134) 8", "180/-1", "40: 90 -"},
    {"10 agent orders, bypass",
     "agent then event", "10", "70", "80 67 134 22(134) 8", "180/-1", "10: 70 -"},
};

inline constexpr ROW MAINS_RETURN[] = {
    // before the point of no return, up to the very second in which the shutdown would have begun
    {"10 mains fail | 40 mains return",
     "-", "-", "-", "65 0", "-", "40: - -"},
    {"10 mains fail | 70 mains return",
     "-", "-", "-", "65 0", "-", "70: - -"},
    {"10 mains fail | 71 mains return",
     "-", "-", "-", "65 0", "-", "71: - -"},
    // after it: told, and no help
    {"10 mains fail | 72 mains return",
     "mains", "71", "130", "65 129 80 0 22(129) 8", "180/-1", "72: 130 -"},
    {"10 mains fail | 90 mains return",
     "mains", "71", "130", "65 129 80 0 22(129) 8", "180/-1", "100: 130 -"},
    // a second failure has its whole time on battery
    {"10 mains fail | 40 mains return | 50 mains fail",
     "mains", "111", "170", "65 0 65 129 80 22(129) 8", "180/-1", "60: 170 -"},
    // the other cause stays
    {"0 schedule at 120 | 40 mains fail | 80 mains return",
     "schedule", "120", "180", "65 0 74 130 80 22(130) 8", "180/3420", "100: 180 3780"},
    {"0 schedule at 120 | 60 mains fail | 80 mains return",
     "schedule", "120", "180", "65 74 0 130 80 22(130) 8", "180/3420", "100: 180 3780"},
    {"0 schedule at 120, schedules are warned of before 100 | 30 mains fail | 60 mains return",
     "schedule", "120", "180", "74 65 0 130 80 22(130) 8", "180/3420", "50: 150 -"},
    {"10 mains fail | 20 user orders 30 | 40 mains return",
     "user", "50", "110", "65 79 0 133 80 134 22(134) 8", "180/-1", "45: 110 -"},
    // A user's order that was not in force when it came has left no name: it counts as this host's own.
    {"10 mains fail | 20 user orders 90 | 40 mains return",
     "user", "110", "170", "65 79 0 133 22(133) 8", "180/-1", "45: 170 -"},
    {"10 mains fail | 40 battery low | 60 mains return",
     "battery", "40", "100", "65 128 80 0 22(128) 8", "180/-1", "70: 100 -"},
    {"10 mains fail | 40 bypass | 60 mains return",
     "event", "40", "100", "65 67 80 0 22(67) 8", "180/-1", "70: 100 -"},
    {"10 mains fail | 40 agent orders | 60 mains return",
     "agent", "40", "100", "65 80 0 134 22(134) 8", "180/-1", "70: 100 -"},
};

inline constexpr ROW LINK_BEFORE[] = {
    // mains: the countdown ends with the link; a link that finds mains failed starts it anew
    {"10 mains fail | 40 link lost",
     "-", "-", "-", "65 64", "-", "50: - -"},
    {"10 mains fail | 40 link lost | 50 link back",
     "mains", "111", "170", "65 64 1 65 129 80 22(129) 8", "180/-1", "60: 170 -"},
    {"10 mains fail | 40 link lost | 50 link back, mains return",
     "-", "-", "-", "65 64 1 0", "-", "60: - -"},
    // a lost link is no mains failure, and mains that fail meanwhile are found with it
    {"10 link lost | 50 link back",
     "-", "-", "-", "64 1", "-", "30: - -"},
    {"10 link lost | 50 link back, mains fail",
     "mains", "111", "170", "64 1 65 129 80 22(129) 8", "180/-1", "60: 170 -"},
    {"10 mains fail, link lost | 50 link back",
     "mains", "111", "170", "64 1 65 129 80 22(129) 8", "180/-1", "60: 170 -"},
    // a battery that is low in the last reading begins what the same moment abandons
    {"10 battery low, link lost | 50 link back",
     "-", "-", "-", "64 128 80 1", "-", "20: - -"},
    // a port that is taken away is a lost link without an event
    {"10 mains fail | 40 port closed",
     "-", "-", "-", "65", "-", "50: - -"},
    // a schedule comes back with the link; one that was missed meanwhile does not
    {"0 schedule at 120 | 70 link lost | 80 link back",
     "schedule", "120", "180", "74 64 1 130 80 22(130) 8", "180/3420", "90: 180 3780"},
    {"0 schedule at 120 | 70 link lost | 80 link back",
     "schedule", "120", "180", "74 64 1 130 80 22(130) 8", "180/3420", "75: - -"},
    {"0 schedule at 120 | 100 link lost | 130 link back",
     "-", "-", "-", "74 64 1", "-", "140: - -"},
    {"0 schedule at 120 | 40 mains fail | 50 link lost | 150 link back, mains return",
     "-", "-", "-", "65 64 1 0", "-", "160: - -"},
    {"0 weekly schedule at 120 | 100 link lost | 120 link back",
     "weekly", "120", "180", "75 64 1 131 80 22(131) 8", "180/3420", "150: 180 3780"},
    {"0 weekly schedule at 120 | 100 link lost | 130 link back",
     "-", "-", "-", "75 64 1", "-", "140: - -"},
    {"0 weekly schedule at 120 | 40 mains fail | 50 link lost | 130 link back, mains return",
     "-", "-", "-", "65 64 1 0", "-", "140: - -"},
    // a user's order is gone, and is not taken without a link
    {"10 user orders 60 | 30 link lost | 40 link back",
     "-", "-", "-", "79 64 1", "-", "50: - -"},
    {"10 link lost | 20 user orders 30 | 30 link back",
     "-", "-", "-", "64 1", "-", "40: - -"},
    // another agent's order needs no link of ours, and goes with one that comes back
    {"10 link lost | 20 agent orders",
     "agent", "20", "80", "64 80 134 22(134) 8", "180/-1", "30: 80 -"},
    {"10 link lost | 20 agent orders | 40 link back",
     "agent", "20", "-", "64 80 1", "-", "50: - -"},
};

inline constexpr ROW LINK_GRACE[] = {
    // every shutdown is abandoned
    {"0 schedule at 120 | 140 link lost",
     "schedule", "120", "-", "74 130 80 64", "-", "150: - -"},
    {"0 schedule at 120 | 140 link lost | 150 link back",
     "schedule", "120", "-", "74 130 80 64 1", "-", "160: - -"},
    {"10 mains fail | 90 link lost",
     "mains", "71", "-", "65 129 80 64", "-", "100: - -"},
    {"10 mains fail | 90 port closed",
     "mains", "71", "-", "65 129 80", "-", "100: - -"},
    {"10 user orders 60 | 90 link lost | 100 link back",
     "user", "70", "-", "79 133 80 64 1", "-", "110: - -"},
    {"10 battery low | 30 link lost | 40 link back",
     "battery", "10", "-", "128 80 64 1", "-", "50: - -"},
    {"10 bypass | 30 link lost | 40 link back",
     "event", "10", "-", "67 80 64 1", "-", "50: - -"},
    {"10 agent orders | 30 link lost | 40 link back",
     "agent", "10", "-", "80 64 1", "-", "50: - -"},
    // mains still failed when the link is back: a whole new time on battery
    {"10 mains fail | 90 link lost | 100 link back",
     "mains", "71, 161", "220", "65 129 80 64 1 65 129 80 22(129) 8", "180/-1", "110: 220 -"},
    {"10 mains fail, battery low | 30 link lost | 40 link back",
     "mains", "10, 101", "160", "65 128 80 64 1 65 129 80 22(129) 8", "180/-1", "50: 160 -"},
    {"10 mains fail | 90 link lost | 100 link back, mains return",
     "mains", "71", "-", "65 129 80 64 1 0", "-", "110: - -"},
    // a weekly schedule whose minute is not over is found again
    {"0 weekly schedule at 120 | 140 link lost | 150 link back",
     "weekly", "120, 150", "180", "75 131 80 64 1 131 80 22(131) 8", "180/3420", "160: 180 3780"},
    {"0 weekly schedule at 120 | 140 link lost | 190 link back",
     "weekly", "120", "-", "75 131 80 64 1", "-", "145: - -"},
};

inline constexpr ROW CANCELS[] = {
    {"10 user orders 60 | 30 user cancels",
     "-", "-", "-", "79 21", "-", "40: - -"},
    {"10 user orders 60 | 90 user cancels",
     "user", "70", "-", "79 133 80 21", "-", "100: - -"},
    // the other cause stays
    {"0 schedule at 120 | 10 user orders 60 | 30 user cancels",
     "schedule", "120", "180", "79 21 74 130 80 134 22(134) 8", "180/3420", "100: 180 3780"},
    {"0 schedule at 120 | 10 user orders 110 | 30 user cancels",
     "schedule", "120", "180", "79 21 74 130 80 22(130) 8", "180/3420", "100: 180 3780"},
    {"0 schedule at 120 | 10 user orders 150 | 140 user cancels",
     "schedule", "120", "180", "79 74 130 80 21 22(130) 8", "180/3420", "150: 180 3780"},
    {"10 mains fail | 20 user orders 30 | 30 user cancels",
     "mains", "71", "130", "65 79 21 129 80 134 22(134) 8", "180/-1", "40: 130 -"},
    {"10 mains fail | 20 user orders 90 | 30 user cancels",
     "mains", "71", "130", "65 79 21 129 80 22(129) 8", "180/-1", "40: 130 -"},
    {"10 mains fail | 20 user orders 90 | 90 user cancels",
     "mains", "71", "130", "65 79 129 80 21 22(129) 8", "180/-1", "100: 130 -"},
    {"10 battery low | 20 user orders 0 | 30 user cancels",
     "battery", "10", "70", "128 80 79 21 22(128) 8", "180/-1", "40: 70 -"},
    {"10 bypass | 20 user orders 0 | 30 user cancels",
     "event", "10", "70", "67 80 79 21 22(67) 8", "180/-1", "40: 70 -"},
    {"10 agent orders | 20 user orders 0 | 30 user cancels",
     "agent", "10", "70", "80 79 21 134 22(134) 8", "180/-1", "40: 70 -"},
    // a shutdown that was called off bars no other
    {"10 user orders 60 | 90 user cancels | 100 mains fail",
     "mains", "70, 161", "220", "79 133 80 21 65 129 80 134 22(134) 8", "180/-1", "110: 220 -"},
};

inline constexpr ROW IGNORES[] = {
    // another agent's order is dropped, and bars no other cause
    {"10 agent orders | 30 ignore on",
     "agent", "10", "-", "80 9", "-", "40: - -"},
    {"10 ignore on | 20 agent orders",
     "-", "-", "-", "9", "-", "30: - -"},
    {"10 agent orders | 30 ignore on | 40 mains fail",
     "mains", "10, 101", "101", "80 9 65 129 22(129) 8", "180/-1", "60: 100 -"},
    // who ignores the others gives no grace and tells them nothing of his own
    {"0 schedule at 120 | 30 ignore on",
     "schedule", "120", "120", "9 74 130 22(130) 8", "180/3420", "100: 120 3720"},
    {"10 ignore on | 20 user orders 60",
     "user", "80", "80", "9 79 133 22(133) 8", "180/-1", "30: 80 -"},
    {"10 ignore on | 20 battery low",
     "battery", "20", "20", "9 128 22(128) 8", "180/-1", "20: 20 -"},
    {"10 ignore on | 20 bypass",
     "event", "20", "20", "9 67 22(67) 8", "180/-1", "20: 20 -"},
    // in the grace it ends it
    {"0 schedule at 120 | 140 ignore on",
     "schedule", "120", "140", "74 130 80 9 22(130) 8", "180/3420", "130: 180 3780"},
    {"10 mains fail | 90 ignore on",
     "mains", "71", "90", "65 129 80 9 22(129) 8", "180/-1", "80: 130 -"},
    {"10 user orders 60 | 90 ignore on",
     "user", "70", "90", "79 133 80 9 22(133) 8", "180/-1", "80: 130 -"},
    {"10 battery low | 30 ignore on",
     "battery", "10", "30", "128 80 9 22(128) 8", "180/-1", "20: 70 -"},
};

inline constexpr ROW NO_WAY_BACK[] = {
    {"10 battery low | 30 battery recovers",
     "battery", "10", "70", "128 80 22(128) 8", "180/-1", "40: 70 -"},
    {"10 bypass | 30 bypass ends",
     "event", "10", "70", "67 80 22(67) 8", "180/-1", "40: 70 -"},
    {"10 mains fail | 90 user orders 10",
     "mains", "71", "130", "65 129 80 79 22(129) 8", "180/-1", "110: 130 -"},
    {"10 agent orders | 20 agent orders",
     "agent", "10", "70", "80 134 22(134) 8", "180/-1", "30: 70 -"},
};
// clang-format on

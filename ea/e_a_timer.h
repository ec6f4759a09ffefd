// What the files of the shutdown timer share; seen by e_a_timer*.cpp alone.
#pragma once

#include "e_a_internal.h"

// One step of the timer.
typedef struct _PASS {
    UPS_EIN_DATA *ein;
    UPS_EOUT_DATA *eout;
    std::time_t now;
    std::int32_t grace;  // as announced; s
} PASS;

/// This host's name, cut to the field. Returns 0, or -1, the field unchanged, when there is none.
int read_hostname(std::array<char, NAME_SIZE> &name);

/// Says what there is to say about the deadline in force and raises its events. Returns whether it is
/// reached; `failures` counts what failed.
bool warn(const PASS &pass, int &failures);

/// Tells other agents and the monitors that the shutdown begins. Returns 0, or -1 when a send failed.
int say_timeisup();

// One pass of the status monitor, as its files hand it on. Seen by e_a_status*.cpp only.
#pragma once

#include "e_a_internal.h"

// What a pass compares the memory in `engine` with. The UPS process goes on writing the record meanwhile, and
// telling an event may take seconds: a pass judges one reading of it from its begin to its end, and the next
// pass sees what has changed since.
typedef struct _STATUSPASS {
    UPS_EIN_DATA *ein;
    UPS_EOUT_DATA *eout;
    UPS_UPSINFO seen;        // the status record
    std::uint32_t u_status;  // the event bits, UPSBIT_
    std::time_t now;
    bool modelchanged;
    bool rebootchanged;
    bool counting;  // this pass has started the AC-failure countdown
    int failures;   // of event actions and time conversions
} STATUSPASS;

// e_a_status.cpp

/// Raises event `id`; a failure counts.
void status_raise(STATUSPASS &pass, int id);

/// Tells the network side that settings or states differ from the last pass.
void status_announce();

/// Reads the schedules again.
void status_reload(STATUSPASS &pass);

/// Whether there is no link: lost, or no port configured.
[[nodiscard]] bool status_linkdown(const STATUSPASS &pass);

/// Raises "UPS Ac fail" and starts its countdown afresh; once in a pass.
void status_startcountdown(STATUSPASS &pass);

/// Stops the stopwatch of the AC failure if it is running.
void status_stopstopwatch();

// The chapters of a pass, in their order.

/// A link found or lost (e_a_status_link.cpp).
void status_link(STATUSPASS &pass);

/// The event bits and the self-tests (e_a_status_bits.cpp).
void status_bits(STATUSPASS &pass);

/// What the record shows (e_a_status_shown.cpp): the last events, the time, the next shutdown and restart.
void status_shown(STATUSPASS &pass);

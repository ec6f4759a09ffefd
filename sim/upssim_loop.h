// The program's loop: waits for the port, the control channel, a signal or the next moment at which the
// simulation has something to do, and is the only place that reads a clock.
#pragma once

#include "sim.h"
#include "upssim_control.h"
#include "upssim_pty.h"

namespace upssim
{

struct Program {
    sim::Sim simulation;
    Port port;
    std::string link;  // where the port is to appear; empty: no link
    Control control;
    int signals = -1;      // SIGTERM, SIGINT and SIGHUP arrive here
    sim::Time started{0};  // the clock at the simulation's time 0
};

// The monotonic clock.
sim::Time clock_now();

// Runs until a signal or `quit`. Returns an exit status.
int run_loop(Program &program);

}  // namespace upssim

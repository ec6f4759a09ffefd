// The daemon as a service of systemd: whoever ends one of its processes otherwise than through systemd has it
// started again, because the unit restarts it always.
#pragma once

#include "control_system.h"

#include <chrono>
#include <string>

/// Whether systemd has to be asked for the end of this process of the daemon: it belongs to the unit, and we
/// are not what the unit runs for that very purpose.
[[nodiscard]] bool unit_owns(const SYSTEM &system, const PROCESS &process);

/// Whether the unit, of which no process runs, is about to be started again.
[[nodiscard]] bool unit_restarts(const SYSTEM &system);

/// Has systemd stop the unit and waits for that, at most `patience`. Returns what went wrong as a sentence
/// without a full stop, empty when nothing did.
[[nodiscard]] std::string unit_stop(const SYSTEM &system, std::chrono::milliseconds patience);

/// Whether we ourselves are run by the daemon, as an event's command: the daemon waits for our end.
[[nodiscard]] bool unit_runs_us(const SYSTEM &system);

// The shared block as an outside tool holds it: found by its key, looked at without a lock, asked through its
// request word under the lock that both processes of the daemon keep to.
#pragma once

#include "aginfo.h"
#include "control_system.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The lock's token: it exists while somebody holds the file lock.
inline constexpr char LOCK_HELD[] = "/usr/lib/voltaria/.pipelock";

// An attached block. Detach it when done: the daemon's segment lives on while somebody is attached.
struct BLOCK {
    AGINFO *block = nullptr;
    std::string complaint;  // why there is none, as a sentence; empty when the daemon simply does not run
};

/// Attaches this machine's block, for reading only or to make a request.
[[nodiscard]] BLOCK block_attach(bool writable);
void block_detach(BLOCK &block);

// The daemon's two processes, as far as they are alive. The block records the number of the process that
// launched the daemon, so the agent process is found as the parent of the UPS process.
struct DAEMON {
    std::optional<PROCESS> agent;
    std::optional<PROCESS> ups;
};

inline constexpr char DAEMON_NAME[] = "voltariad";
inline constexpr char CONTROL_NAME[] = "voltariactl";

/// Whether it is this machine's program of that name that root has started: anybody may call a script or
/// a program so.
[[nodiscard]] bool is_roots(const PROCESS &process, std::string_view name);
[[nodiscard]] bool is_daemon(const PROCESS &process);

[[nodiscard]] DAEMON daemon_processes(const SYSTEM &system, const AGINFO &block);
[[nodiscard]] bool daemon_alive(const DAEMON &daemon);

// The request word.
inline constexpr std::int32_t REQUEST_NOTHING = 0;
inline constexpr std::int32_t REQUEST_AGENTEVENT = 1;
inline constexpr std::int32_t REQUEST_STOP = -1;

/// Stores a request, a stop never being replaced by anything else, and wakes the agent. Returns what was
/// wrong as a sentence, empty when all is well. Waits at most `patience` for the lock.
[[nodiscard]] std::string block_request(AGINFO &block, std::int32_t word, std::chrono::milliseconds patience);

/// Makes the agent's loop look at the request word: it does so when something has come in.
void block_wake();

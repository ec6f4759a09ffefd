// What the commands that change something share: a session around the work, naming the agent in a question,
// and looking for the change afterwards, because the agent answers neither settings nor orders.
#pragma once

#include "monitor.h"
#include "voltaria_command.h"

#include <functional>
#include <string>

/// Opens a session, does the work and closes it. Returns the work's exit status, or that of the failure to
/// open.
[[nodiscard]] int with_session(const CONNECTION &connection,
                               const std::function<int(MONITOR_SESSION &)> &work);

/// "server1 (10.0.0.1)", or the address alone when that is what the user gave.
[[nodiscard]] std::string agent_name(const CONNECTION &connection, const MONITOR_SESSION &session);

/// Asks, unless `yes` was given; when the answer is no, says that nothing was sent.
[[nodiscard]] bool agreed(bool yes, const std::string &question);

/// The result for an agent that keeps no such settings because it is a protector.
[[nodiscard]] MONITOR_RESULT protector_result();
/// What an answer without settings means, by the agent's role: it is a protector, or it cannot read them.
[[nodiscard]] MONITOR_RESULT told_nothing(MONITOR_SESSION &session);

/// A result that came after something had been sent, and says so when it is a failure.
[[nodiscard]] MONITOR_RESULT after_sending(MONITOR_RESULT result);

/// Writes a setting and reads it back, a second time when it is not found: a settings file that has no
/// section yet loses the first key that is written into it. `taken` says whether it was found at the end.
[[nodiscard]] MONITOR_RESULT write_and_read_back(const std::function<MONITOR_RESULT()> &write,
                                                 const std::function<MONITOR_RESULT()> &read_back,
                                                 const std::function<bool()> &found, bool &taken);

/// After an order: asks for the status several times a second until it shows what is looked for or the
/// session's time limit has passed; `seen` says which, `status` is the last answer.
[[nodiscard]] MONITOR_RESULT wait_for_status(MONITOR_SESSION &session,
                                             const std::function<bool(const UPS_UPSINFO &)> &shows,
                                             UPS_UPSINFO &status, bool &seen);

/// Prints "voltaria: note: TEXT" on standard error.
void remark(const std::string &text);

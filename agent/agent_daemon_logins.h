// Logins that wait. Checking a password may take long, by design of the hash, and anybody may ask for it; so
// a turn of the loop checks one, and the other clients are served as if there were no logins.
#pragma once

#include "agent.h"

/// Whether the packet in hand is a login.
[[nodiscard]] bool login_inhand();

/// Keeps the login in hand, just read from this client, at the client, whose next packet is not read before
/// it has been checked. The working buffer no longer holds it then. 0, or -1 without memory.
int login_hold(NETCLI *client);

/// Whether a login of this client waits.
[[nodiscard]] bool login_waits(const NETCLI *client);

/// Whether a login waits that can be checked now: its client has taken all earlier answers.
[[nodiscard]] bool logins_ready(const NETINFO *netinfo);

/// Checks and answers the one that has waited longest, if there is any.
void logins_checkone(AGENT *ag);

// The agent's side of the pipes to the UPS process.
#pragma once

#include "agent.h"

#include <cstdint>

/// Sends one command word to the UPS process; its argument, if any, lies in `ba2u`. Waits for the answer of
/// UPSCMD_STATUS and UPSCMD_SHUTDOWN only. 0 (also when no port is open: nothing is sent then), or -1.
int daemon_sendcmdtoups(AGENT *ag, std::uint32_t word);

/// Receives one message that the UPS process starts: a word and 12 bytes of `bu2a`. 0, or -1 for a message
/// that is not the expected one. The UPS process sends no such messages.
int daemon_readdatafromups(AGENT *ag, std::uint32_t *word, void *out);

/// Keeps the last of the reply words that nobody read and drops the others. Once a turn.
void daemon_dropreplies(AGENT *ag);

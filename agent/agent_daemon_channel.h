// The agent's side of the pipes to the UPS process.
#pragma once

#include "agent.h"

#include <cstdint>

// Command words; the low half is 0 in a request.
inline constexpr std::uint32_t UPSCMD_GETBATTIME = 0x00050000;
inline constexpr std::uint32_t UPSCMD_SELFTEST_LONG = 0x02000000;
inline constexpr std::uint32_t UPSCMD_SELFTEST = 0x03000000;
inline constexpr std::uint32_t UPSCMD_SELFTEST_CANCEL = 0x04000000;
inline constexpr std::uint32_t UPSCMD_SHUTDOWN = 0x06000000;
inline constexpr std::uint32_t UPSCMD_CANCELDOWN = 0x07000000;
inline constexpr std::uint32_t UPSCMD_AC = 0x08000000;
inline constexpr std::uint32_t UPSCMD_AR = 0x09000000;
inline constexpr std::uint32_t UPSCMD_BUZZER_ON = 0x0A000000;
inline constexpr std::uint32_t UPSCMD_BUZZER_OFF = 0x0B000000;
inline constexpr std::uint32_t UPSCMD_SETBATTIME = 0x0C000000;
inline constexpr std::uint32_t UPSCMD_BUZZER_TEST = 0x0D000000;
inline constexpr std::uint32_t UPSCMD_AUTORESTART_OFF = 0x0E000000;
inline constexpr std::uint32_t UPSCMD_AUTORESTART_ON = 0x0F000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_A = 0x30000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_B = 0x40000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_H = 0x50000000;
inline constexpr std::uint32_t UPSCMD_LEVEL_L = 0x60000000;
inline constexpr std::uint32_t UPSCMD_STATUS = 0xF0000000;

/// Sends one command word to the UPS process; its argument, if any, lies in `ba2u`. Waits for the answer of
/// UPSCMD_STATUS and UPSCMD_SHUTDOWN only. 0 (also when no port is open: nothing is sent then), or -1.
int daemon_sendcmdtoups(AGENT *ag, std::uint32_t word);

/// Receives one message that the UPS process starts: a word and 12 bytes of `bu2a`. 0, or -1 for a message
/// that is not the expected one. Nothing in the UPS process sends such messages at present.
int daemon_readdatafromups(AGENT *ag, std::uint32_t *word, void *out);

/// Keeps the last of the reply words that nobody read and drops the others. Once a turn.
void daemon_dropreplies(AGENT *ag);

// clang-format off
// Between UTF-8, which this program keeps and prints, and the encodings of the protocol.
//
// This program speaks as a Japanese client of version 0x0110: what the agent converts for the network arrives
// as Shift_JIS, and Shift_JIS is what it expects and turns into its host's EUC-JP. Which of the fields the
// agent converts differs from record to record:
//
//   field                                          from the agent   to the agent
//   UPS_PARAM Agent, Group, account, domain        Shift_JIS        Shift_JIS
//   UPS_UPSINFO Group; notices; discovery answers  Shift_JIS        -
//   UPS_AGENTDOWNINFO Agent, Group (18)            -                Shift_JIS
//   agent name of a cancellation (19)              -                EUC
//   UPS_EVENTLOGINFO AgentName; announcements      EUC              -
//   USERSDATA UserName, Address, Email             Shift_JIS        charset_keep_user (below)
//   UPS_EVENTINFO Command                          bytes            bytes: UTF-8, as the agent's shell runs it
//   login name and password (23)                   -                bytes: UTF-8
//
// Reading is text_safe's (monitor_text.h): it never fails, shows what cannot be converted as "\xNN" and makes
// control characters harmless. Writing is exact or refused; nothing is cut or replaced.
// clang-format on
#pragma once

#include "monitor_text.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

/// The text in an encoding; nullopt when it is no UTF-8 or has a character that the encoding or the agent
/// does not know, or a NUL.
[[nodiscard]] std::optional<std::string> charset_encode(std::string_view utf8, TEXT_CODE code);

/// Puts a text into a record's field, zeros behind it, with room for the NUL kept. Otherwise the field stays
/// as it is and the returned text says why in words ("is too long by 3 bytes", "has a character that the
/// agent cannot store"). Success returns "".
[[nodiscard]] std::string charset_put(std::string_view utf8, TEXT_CODE code, std::span<char> field);

/// The same for a field of USERSDATA. The settings use charset_put for a new text and then charset_keep_user
/// for all users; this is both in one. The agent runs its outgoing conversion over these both when they
/// arrive and when they are told again, so what is sent is the shortest run of bytes that those two make into
/// the text. For some rare characters there is none; then the returned text says so.
[[nodiscard]] std::string charset_put_user(std::string_view utf8, std::span<char> field);

/// What a USERSDATA field that was read (Shift_JIS) must be sent as to read the same again: for users that
/// are sent back unchanged. Returns "" or, as above, why that cannot be.
[[nodiscard]] std::string charset_keep_user(std::span<char> field);

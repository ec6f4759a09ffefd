// Telling the users of this host, by mesg, wall, write and mail, and running an event's command. Called by
// the event actions alone. No text or name ever passes through a shell; only an event's command does.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr std::size_t TERMINAL_SIZE = 32;
inline constexpr std::size_t TERMINAL_COUNT = 64;

/// The terminals on which the user being notified is logged in; an empty entry ends the list.
extern std::array<std::array<char, TERMINAL_SIZE>, TERMINAL_COUNT> gszUserList;

/// Starts the ten seconds that the programs of one event, or of one warning, have together.
void tell_begin();

/// When they end; utils_monotonicms.
[[nodiscard]] std::int64_t tell_until();

/// Opens the daemon's own terminal, if it has one, for messages.
void tell_mesg();

/// Shows `text` on every terminal.
void tell_wall(std::string_view text);

/// Shows `text` on each terminal where `user` is logged in.
void tell_user(std::string_view user, std::string_view text);

/// Mails `text`. An address that mail would take for an option, a program or a file gets none.
void tell_mail(std::string_view address, std::string_view text);

/// Runs `command` through the shell as it stands and waits for its end, at most `patience` seconds.
void run_command(std::string_view command, std::int64_t patience);

/// `text` in one line: control characters, which a name from the network may hold, become "?".
std::string one_line(std::string_view text);

/// Fills gszUserList with the terminals of `user`. Returns 1, or -1, the list empty, when who is logged in
/// cannot be found out.
int UpdateUserList(std::string_view user);

/// Splits a line of the list of logged-in users: its first word and its second. Both are empty when the first
/// has 32 characters or more.
void ParseWho(std::string_view line, std::string_view *user, std::string_view *tty);

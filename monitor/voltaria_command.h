// What the commands of `voltaria` share: how one registers, the connection options, printing, asking, ending.
//
// A command is one function  void add_NAME(CLI::App &app, int &status)  declared in voltaria_read.h,
// voltaria_settings.h or voltaria_orders.h and listed in voltaria_main.cpp. It adds its subcommand with
// options bound to a record that a std::shared_ptr keeps alive, and a callback that does the work and stores
// the exit status in `status`:
//
//     void add_thing(CLI::App &app, int &status)
//     {
//         auto line = std::make_shared<THING_LINE>();
//         CLI::App *thing = app.add_subcommand("thing", "Do the thing");
//         add_connection_options(*thing, line->connection);
//         thing->footer(example("voltaria thing --host server1"));
//         thing->callback([line, &status] { status = run_thing(*line); });
//     }
#pragma once

#include "monitor.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace CLI
{
class App;
}

// Exit statuses; scripts depend on these. Success is 0.
inline constexpr int EXIT_REFUSED = 1;  // an agent was there and did not answer, not rightly, or refused
inline constexpr int EXIT_USAGE = 2;    // also a value that cannot be sent
inline constexpr int EXIT_UNREACHED = 3;

inline constexpr char EXIT_HELP[] =
    "Exit status: 0 success; 1 the agent did not answer, answered wrongly or refused;\n"
    "2 wrong usage; 3 no agent could be reached.";

// Languages of the protocol.
inline constexpr std::int32_t LANG_JAPANESE = 1;
inline constexpr std::int32_t LANG_ENGLISH = 2;

// Whom to talk to; one for each command.
struct CONNECTION {
    std::string host = "127.0.0.1";
    int port = PORT_TCP;
    double timeout = 5;                // s
    std::int32_t lang = LANG_ENGLISH;  // of the agent's notices; add_language_option sets the environment's
};

/// --host, --port and --timeout.
void add_connection_options(CLI::App &command, CONNECTION &connection);
/// An option that takes seconds, 0.001 to 3600.
void add_seconds_option(CLI::App &command, const char *name, double &seconds, const char *help);
/// --lang ja|en; the default is what LC_ALL, LC_MESSAGES or LANG says.
void add_language_option(CLI::App &command, CONNECTION &connection);
/// A help footer: the example lines, one command line each, then the exit statuses.
[[nodiscard]] std::string example(std::string_view lines);

[[nodiscard]] MONITOR_OPTIONS connection_options(const CONNECTION &connection);
/// Connects and says hello. On failure the session is closed. Waiting ends when `cancel_fd` becomes readable.
[[nodiscard]] MONITOR_RESULT open_session(const CONNECTION &connection, MONITOR_SESSION &session,
                                          int cancel_fd = -1);
/// "server1:4112", made safe for a terminal.
[[nodiscard]] std::string connection_place(const CONNECTION &connection);

/// Writes to standard error: control characters but the line end escaped, '?' for UTF-8 on a terminal that is
/// not UTF-8.
void complain(std::string_view text);
/// Prints "voltaria: TEXT" on standard error and returns the exit status that fits the result.
[[nodiscard]] int fail(const MONITOR_RESULT &result);
/// Prints "voltaria: TEXT" on standard error and returns `status`.
[[nodiscard]] int fail(std::string_view text, int status = EXIT_REFUSED);

/// Writes to standard output and flushes. UTF-8 is turned into '?' on a terminal that is not UTF-8. Returns
/// the exit status: success, or EXIT_REFUSED after saying what is wrong with standard output.
[[nodiscard]] int print(std::string_view text);
/// The same, byte for byte whatever the terminal is, for documents.
[[nodiscard]] int print_raw(std::string_view text);
/// True when standard output may be sent UTF-8.
[[nodiscard]] bool utf8_output();

/// Asks "QUESTION [y/N] " on the terminal and reads one line; true for y or yes. Without a terminal on
/// standard input nobody is asked and the answer is no, after saying that --yes is needed.
[[nodiscard]] bool ask_yes(std::string_view question);

/// Reads one line: from the controlling terminal without echo, or, when there is none or standard input is no
/// terminal, the first line of standard input. False, after saying why, when nothing could be read. Never
/// logged.
[[nodiscard]] bool read_password(std::string_view prompt, std::string &password);
/// Reads one line with echo from standard input. False, after saying so, when it is empty.
[[nodiscard]] bool read_line(std::string_view prompt, std::string &text);

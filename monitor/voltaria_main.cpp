// `voltaria`, the command-line monitor: the command line, the exit statuses, and `voltaria status`.
#include "monitor.h"
#include "monitor_json.h"
#include "monitor_page.h"
#include "monitor_text.h"
#include "voltaria_watch.h"

#include <CLI/CLI.hpp>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <unistd.h>

// Scripts depend on these.
static constexpr int EXIT_REFUSED = 1;  // an agent was there and did not answer, or not rightly
static constexpr int EXIT_USAGE = 2;
static constexpr int EXIT_UNREACHED = 3;

static constexpr char EXIT_HELP[] =
    "Exit status: 0 success; 1 the agent did not answer or answered wrongly;\n"
    "2 wrong usage; 3 no agent could be reached.";

// What the command line says.
struct COMMAND_LINE {
    std::string host = "127.0.0.1";
    int port = PORT_TCP;
    double timeout = 5;  // s
    bool json = false;
};

static MONITOR_OPTIONS options_of(const COMMAND_LINE &line)
{
    MONITOR_OPTIONS options;
    options.host = line.host;
    options.port = static_cast<std::uint16_t>(line.port);
    options.timeout = std::chrono::milliseconds(std::lround(line.timeout * 1000));
    return options;
}

// ---- voltaria status ----

static bool ascii_only_terminal()
{
    return isatty(STDOUT_FILENO) != 0 &&
           (std::setlocale(LC_CTYPE, "") == nullptr || std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0);
}

static std::string status_text(const UPS_UPSINFO &status, const COMMAND_LINE &line)
{
    std::string text;
    for (const std::string &row : page_status(status, line.host + ":" + std::to_string(line.port)))
        text += row + "\n";
    return ascii_only_terminal() ? text_ascii(text) : text;
}

static int fail(const MONITOR_RESULT &result)
{
    std::fprintf(stderr, "voltaria: %s\n", result.text.c_str());
    return monitor_unreached(result) ? EXIT_UNREACHED : EXIT_REFUSED;
}

static MONITOR_RESULT ask_status(const COMMAND_LINE &line, UPS_UPSINFO &status)
{
    MONITOR_SESSION session;
    MONITOR_RESULT result = monitor_connect(options_of(line), session);
    VTOSINFO answer{};
    if (monitor_ok(result))
        result = monitor_hello(session, monitor_own_osinfo(), answer);
    if (monitor_ok(result))
        result = monitor_status(session, status);
    monitor_close(session);
    return result;
}

static int show_status(const COMMAND_LINE &line)
{
    UPS_UPSINFO status{};
    const MONITOR_RESULT result = ask_status(line, status);
    if (!monitor_ok(result))
        return fail(result);
    const std::string text =
        line.json ? status_json(status, line.host, static_cast<std::uint16_t>(line.port)) + "\n"
                  : status_text(status, line);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        std::perror("voltaria: standard output");
        return EXIT_REFUSED;
    }
    return EXIT_SUCCESS;
}

// ---- The command line ----

// Says what is wrong, nothing when all is well. A plain range would let "nan" pass.
static std::string valid_seconds(const std::string &text)
{
    double seconds = 0;
    if (!CLI::detail::lexical_cast(text, seconds) || !(seconds >= 0.001 && seconds <= 3600))
        return "a number of seconds from 0.001 to 3600 is wanted, not " + text;
    return "";
}

static void add_connection_options(CLI::App &command, COMMAND_LINE &line)
{
    command.add_option("--host", line.host, "The agent's host name or IPv4 address")->capture_default_str();
    command.add_option("--port", line.port, "The agent's TCP port")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    command.add_option("--timeout", line.timeout, "Seconds to wait for the connection and for each answer")
        ->check(valid_seconds)
        ->capture_default_str();
}

static int run(int argc, char **argv)
{
    COMMAND_LINE line;
    CLI::App app{"Shows the state of an uninterruptible power supply as its agent reports it.", "voltaria"};
    app.set_version_flag("--version", "voltaria " VOLTARIA_VERSION);
    app.require_subcommand(1);
    app.footer(std::string("Example: voltaria status --host server1\n\n") + EXIT_HELP);

    CLI::App *status = app.add_subcommand("status", "Show the status once");
    add_connection_options(*status, line);
    status->add_flag("--json", line.json, "Print a JSON document instead of a page");
    status->footer(std::string("Examples: voltaria status --host server1\n"
                               "          voltaria status --json --timeout 2\n\n") +
                   EXIT_HELP);

    CLI::App *watched = app.add_subcommand("watch", "Follow the status until q or Ctrl-C");
    add_connection_options(*watched, line);
    watched->footer("Draws a page once a second on a terminal; elsewhere prints a line for each change.\n"
                    "Reconnects when the connection is lost.\n\n"
                    "Example: voltaria watch --host server1");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
    }
    return status->parsed() ? show_status(line) : watch(options_of(line));
}

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "voltaria: %s\n", error.what());
        return EXIT_REFUSED;
    }
}

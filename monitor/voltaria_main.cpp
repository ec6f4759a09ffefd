// `voltaria`, the command-line monitor: the list of its commands, and the options that they share.
#include "voltaria_command.h"
#include "voltaria_orders.h"
#include "voltaria_read.h"
#include "voltaria_settings.h"

#include <CLI/CLI.hpp>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

// ---- Shared options ----

// Says what is wrong, nothing when all is well. A plain range would let "nan" pass.
static std::string valid_seconds(const std::string &text)
{
    double seconds = 0;
    if (!CLI::detail::lexical_cast(text, seconds) || !(seconds >= 0.001 && seconds <= 3600))
        return "a number of seconds from 0.001 to 3600 is wanted, not " + text;
    return "";
}

void add_seconds_option(CLI::App &command, const char *name, double &seconds, const char *help)
{
    command.add_option(name, seconds, help)->check(valid_seconds)->capture_default_str();
}

void add_connection_options(CLI::App &command, CONNECTION &connection)
{
    command.add_option("--host", connection.host, "The agent's host name or IPv4 address")
        ->capture_default_str();
    command.add_option("--port", connection.port, "The agent's TCP port")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    add_seconds_option(command, "--timeout", connection.timeout,
                       "Seconds to wait for the connection and for each answer");
}

// The first of them that is set to something speaks.
static std::int32_t environment_language()
{
    for (const char *name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char *value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): before any thread
        if (value != nullptr && *value != '\0')
            return std::strncmp(value, "ja", 2) == 0 ? LANG_JAPANESE : LANG_ENGLISH;
    }
    return LANG_ENGLISH;
}

void add_language_option(CLI::App &command, CONNECTION &connection)
{
    connection.lang = environment_language();
    command
        .add_option_function<std::string>(
            "--lang",
            [&connection](const std::string &name) {
                connection.lang = name == "ja" ? LANG_JAPANESE : LANG_ENGLISH;
            },
            "Language of the agent's notices: ja or en, else as LC_ALL, LC_MESSAGES or LANG say")
        ->check(CLI::IsMember({"ja", "en"}));
}

std::string example(std::string_view lines)
{
    const bool several = lines.find('\n') != std::string_view::npos;
    std::string text = several ? "Examples:\n  " : "Example:\n  ";
    for (const char c : lines)
        text += c == '\n' ? std::string("\n  ") : std::string(1, c);
    return text + "\n\n" + EXIT_HELP;
}

// ---- The command line ----

using REGISTRATION = void (*)(CLI::App &app, int &status);

// In the order of the help text.
static constexpr std::array<REGISTRATION, 16> REGISTRATIONS{
    add_status, add_watch,  add_discover,     add_notices,  add_log,      add_data,
    add_config, add_events, add_users,        add_schedule, add_selftest, add_shutdown,
    add_cancel, add_buzzer, add_battery_date, add_login,
};

// Help and version, which were asked for, or what is wrong with the command line.
static int end_of_parsing(const CLI::App &app, const CLI::ParseError &error)
{
    std::ostringstream wanted;
    std::ostringstream wrong;
    const bool usage = app.exit(error, wanted, wrong) != 0;
    complain(wrong.str());
    const int printed = print(wanted.str());
    return usage ? EXIT_USAGE : printed;
}

static int run(int argc, char **argv)
{
    CLI::App app{
        "Shows the state of an uninterruptible power supply as its agent reports it, and directs the agent.",
        "voltaria"};
    app.set_version_flag("--version", "voltaria " VOLTARIA_VERSION);
    app.require_subcommand(1);
    app.footer(example("voltaria discover\nvoltaria status --host server1"));
    int status = EXIT_SUCCESS;
    for (const REGISTRATION add : REGISTRATIONS)
        add(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return end_of_parsing(app, error);
    }
    return status;
}

// A standard descriptor that is closed would become the first socket, and what is printed would go to the
// agent. In its place comes one that can be neither read nor written, so that whoever tries is told.
static void fill_standard_descriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) == -1)
            static_cast<void>(open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

int main(int argc, char **argv)
{
    fill_standard_descriptors();
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        return fail(error.what());
    }
}

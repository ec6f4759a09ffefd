// `voltariactl`, the local management tool: its command line.
#include "control.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>
#include <sstream>

static constexpr char EXIT_HELP[] =
    "Exit status: 0 success; 1 a problem; 2 wrong usage; 3 voltariad is not running.";

struct LINE {
    bool json = false;
    double timeout = 60;  // s
    NOTIFY_LINE notify;
};

// A plain range would let "nan" pass.
static std::string valid_seconds(const std::string &text)
{
    double seconds = 0;
    if (!CLI::detail::lexical_cast(text, seconds) || !(seconds >= 0.001 && seconds <= 3600))
        return "a number of seconds from 0.001 to 3600 is wanted, not " + text;
    return "";
}

static void add_json(CLI::App &command, LINE &line)
{
    command.add_flag("--json", line.json, "Print a JSON document");
}

static void add_timeout(CLI::App &command, LINE &line)
{
    command.add_option("--timeout", line.timeout, "Seconds to wait until it has come about")
        ->check(valid_seconds)
        ->capture_default_str();
}

static void add_commands(CLI::App &app, LINE &line, int &status)
{
    CLI::App *show = app.add_subcommand("status", "Show the state of voltariad and of the UPS");
    add_json(*show, line);
    show->callback([&] { status = control_status(line.json); });

    CLI::App *stop = app.add_subcommand("stop", "Stop voltariad in order and wait until it is gone");
    add_timeout(*stop, line);
    stop->callback([&] { status = control_stop(line.timeout); });

    CLI::App *reload = app.add_subcommand("reload", "Make voltariad read its role and its group again");
    add_timeout(*reload, line);
    reload->callback([&] { status = control_reload(line.timeout); });

    CLI::App *doctor =
        app.add_subcommand("doctor", "Look for what keeps voltariad from protecting this machine");
    add_json(*doctor, line);
    doctor->callback([&] { status = control_doctor(line.json); });

    app.add_subcommand("before-start", "Clear a left lock file away and say what would end voltariad's start")
        ->callback([&] { status = control_before_start(); });

    CLI::App *notify = app.add_subcommand("notify-test", "Send a test text by every configured way");
    notify->add_option("--user", line.notify.user, "Only to this user");
    notify->add_option("--command", line.notify.command, "Also run the command of this event")
        ->check(CLI::Range(0, 255))
        ->type_name("EVENT");
    notify->callback([&] { status = control_notify(line.notify); });
}

static int run(int argc, char **argv)
{
    CLI::App app{"Manages the UPS agent voltariad on this machine.", "voltariactl"};
    app.set_version_flag("--version", "voltariactl " VOLTARIA_VERSION);
    app.require_subcommand(1);
    app.footer(EXIT_HELP);
    LINE line;
    int status = EXIT_SUCCESS;
    add_commands(app, line, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        std::ostringstream wanted;
        const bool usage = app.exit(error, wanted, std::cerr) != 0;
        const int printed = print(wanted.str());
        return usage ? EXIT_USAGE : printed;
    }
    return status;
}

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        return fail(error.what());
    }
}

// The command lines of the commands that only look.
#include "voltaria_read.h"

#include "voltaria_watch.h"

#include <CLI/CLI.hpp>

#include <memory>

void add_status(CLI::App &app, int &status)
{
    auto line = std::make_shared<STATUS_LINE>();
    CLI::App *command = app.add_subcommand("status", "Show the status once");
    add_connection_options(*command, line->connection);
    command->add_flag("--json", line->json, "Print a JSON document instead of a page");
    command->footer(example("voltaria status --host server1\nvoltaria status --json --timeout 2"));
    command->callback([line, &status] { status = show_status(*line); });
}

void add_watch(CLI::App &app, int &status)
{
    auto connection = std::make_shared<CONNECTION>();
    CLI::App *command = app.add_subcommand("watch", "Follow the status until q or Ctrl-C");
    add_connection_options(*command, *connection);
    add_language_option(*command, *connection);
    command->footer("Draws a page once a second on a terminal; elsewhere prints a line for each change.\n"
                    "Reconnects when the connection is lost.\n\n"
                    "Example:\n  voltaria watch --host server1");
    command->callback([connection, &status] { status = watch(connection_options(*connection)); });
}

void add_discover(CLI::App &app, int &status)
{
    auto line = std::make_shared<DISCOVER_LINE>();
    CLI::App *command = app.add_subcommand("discover", "Find the agents of the network");
    command->add_option("--address", line->addresses,
                        "Ask this host or address too; may be given several times");
    add_seconds_option(*command, "--timeout", line->timeout, "Seconds to wait for answers and announcements");
    command->add_flag("--follow", line->follow, "Print a line for each change until Ctrl-C");
    command->add_flag("--json", line->json,
                      "Print a JSON document; with --follow, one for each change in a line");
    command->footer(example("voltaria discover\n"
                            "voltaria discover --address server1 --address 10.0.3.255\n"
                            "voltaria discover --follow --json"));
    command->callback([line, &status] { status = discover(*line); });
}

void add_notices(CLI::App &app, int &status)
{
    auto connection = std::make_shared<CONNECTION>();
    CLI::App *command = app.add_subcommand("notices", "Print every notice of the agent until Ctrl-C");
    add_connection_options(*command, *connection);
    add_language_option(*command, *connection);
    command->footer("Reconnects when the connection is lost.\n\n"
                    "Example:\n  voltaria notices --host server1 --lang ja");
    command->callback([connection, &status] { status = follow_notices(*connection); });
}

static std::shared_ptr<LOG_LINE> add_log_options(CLI::App &command)
{
    auto line = std::make_shared<LOG_LINE>();
    add_connection_options(command, line->connection);
    CLI::Option *first = command.add_option("--first", line->first, "Begin with this line; the oldest is 0");
    first->check(CLI::Range(0, 65534));
    CLI::Option *count =
        command.add_option("--count", line->count, "How many lines; without --first the newest");
    count->check(CLI::Range(1, 65534))->capture_default_str();
    CLI::Option *all = command.add_flag("--all", line->all, "Every line");
    all->excludes(first)->excludes(count);
    CLI::Option *json = command.add_flag("--json", line->json, "Print a JSON document");
    command.add_flag("--csv", line->csv, "Print comma-separated values with a line of names")->excludes(json);
    return line;
}

void add_log(CLI::App &app, int &status)
{
    CLI::App *command = app.add_subcommand("log", "Show the agent's event log");
    auto line = add_log_options(*command);
    command->footer(example("voltaria log --host server1\nvoltaria log --first 0 --count 100 --json\n"
                            "voltaria log --all --csv > events.csv"));
    command->callback([line, &status] { status = show_eventlog(*line); });
}

void add_data(CLI::App &app, int &status)
{
    CLI::App *command = app.add_subcommand("data", "Show the agent's log of measurements");
    auto line = add_log_options(*command);
    command->footer(example("voltaria data --host server1 --count 60\nvoltaria data --all --csv > data.csv"));
    command->callback([line, &status] { status = show_datalog(*line); });
}

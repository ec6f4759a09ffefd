// The command lines of `voltaria selftest`, `shutdown`, `cancel`, `buzzer`, `battery-date` and `login`.
#include "voltaria_orders.h"

#include <CLI/CLI.hpp>

#include <memory>

static constexpr int LONGEST_DELAY = 32767;  // s; an order carries 16 bits
static constexpr char YES_HELP[] = "Do not ask";

// The record that a command's options fill, kept alive by the callback.
template <typename LINE>
static std::shared_ptr<LINE> add_work(CLI::App &command, int (*work)(const LINE &), std::string_view examples,
                                      int &status)
{
    auto line = std::make_shared<LINE>();
    add_connection_options(command, line->connection);
    command.footer(example(examples));
    command.callback([line, work, &status] { status = work(*line); });
    return line;
}

void add_selftest(CLI::App &app, int &status)
{
    CLI::App *test = app.add_subcommand("selftest", "Let the UPS test itself");
    auto line = add_work(*test, order_selftest,
                         "voltaria selftest --host server1\nvoltaria selftest --cancel", status);
    CLI::Option *low =
        test->add_flag("--until-low", line->until_low, "Run the battery down until it is low; asks first");
    test->add_flag("--cancel", line->cancel, "Cancel the self-test that is running")->excludes(low);
    test->add_flag("--yes", line->yes, YES_HELP);
}

void add_shutdown(CLI::App &app, int &status)
{
    CLI::App *down =
        app.add_subcommand("shutdown", "Shut the agent's host down and switch its UPS off; asks first");
    auto line = add_work(
        *down, order_shutdown,
        "voltaria shutdown --in 300 --host server1\nvoltaria shutdown --in 60 --host server1 --yes", status);
    down->add_option("--in", line->seconds, "Seconds until the shutdown begins")
        ->required()
        ->check(CLI::Range(0, LONGEST_DELAY));
    down->add_flag("--yes", line->yes, YES_HELP);
}

void add_cancel(CLI::App &app, int &status)
{
    CLI::App *cancel = app.add_subcommand("cancel", "Cancel a shutdown that a user has ordered; asks first");
    auto line =
        add_work(*cancel, order_cancel, "voltaria cancel --host server1\nvoltaria cancel --yes", status);
    cancel->add_flag("--yes", line->yes, YES_HELP);
}

void add_buzzer(CLI::App &app, int &status)
{
    CLI::App *buzzer = app.add_subcommand("buzzer", "Switch the buzzer of the UPS, or let it sound");
    auto line =
        add_work(*buzzer, order_buzzer, "voltaria buzzer off --host server1\nvoltaria buzzer test", status);
    buzzer->add_option("WHAT", line->what, "on, off or test")
        ->required()
        ->check(CLI::IsMember({"on", "off", "test"}));
}

void add_battery_date(CLI::App &app, int &status)
{
    CLI::App *date =
        app.add_subcommand("battery-date", "Read or set the date on which the battery was changed");
    date->require_subcommand(1);
    date->footer(example("voltaria battery-date get\nvoltaria battery-date set 2024-02-29"));
    CLI::App *get = date->add_subcommand("get", "Show the date");
    add_work(*get, battery_date_get, "voltaria battery-date get --host server1", status);
    CLI::App *set = date->add_subcommand("set", "Set the date");
    auto line =
        add_work(*set, battery_date_set, "voltaria battery-date set 2024-02-29 --host server1", status);
    set->add_option("DATE", line->date, "The date: YYYY-MM-DD")->required();
}

void add_login(CLI::App &app, int &status)
{
    CLI::App *command =
        app.add_subcommand("login", "Ask an agent whether it knows a user and what he may do");
    auto line =
        add_work(*command, login, "voltaria login --host server1\nvoltaria login --user root", status);
    command->add_option("--user", line->user, "The user's name on the agent's host; else it is asked for");
    command->footer(
        "The password is asked for and crosses the network in clear text. Where standard input is\n"
        "no terminal, user and password are its lines.\n\n" +
        example("voltaria login --host server1\nvoltaria login --user root"));
}

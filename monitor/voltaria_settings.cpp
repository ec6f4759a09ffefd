// The command lines of `voltaria config`, `events`, `users` and `schedule`.
#include "voltaria_settings.h"

#include <CLI/CLI.hpp>

#include <memory>

// A command and the record that its options fill, kept alive by the callback.
template <typename LINE> struct COMMAND {
    CLI::App *app;
    std::shared_ptr<LINE> line;
};

template <typename LINE>
static COMMAND<LINE> add_command(CLI::App &group, const char *name, const char *what,
                                 int (*work)(const LINE &), std::string_view examples, int &status)
{
    COMMAND<LINE> command{group.add_subcommand(name, what), std::make_shared<LINE>()};
    add_connection_options(*command.app, command.line->connection);
    command.app->footer(example(examples));
    command.app->callback([line = command.line, work, &status] { status = work(*line); });
    return command;
}

static CLI::App &add_group(CLI::App &app, const char *name, const char *what, std::string_view examples)
{
    CLI::App *group = app.add_subcommand(name, what);
    group->require_subcommand(1);
    group->footer(example(examples));
    return *group;
}

static constexpr char JSON_HELP[] = "Print a JSON document instead of a table";

// ---- config ----

void add_config(CLI::App &app, int &status)
{
    CLI::App &group = add_group(app, "config", "Read and change the working configuration",
                                "voltaria config get\nvoltaria config set battery-time 5min");
    auto get = add_command(group, "get", "Show the settings, or one of them", config_get,
                           "voltaria config get --host server1\nvoltaria config get EXPECTBLIFE", status);
    get.app->add_option("KEY", get.line->key,
                        "One setting, by its key or its friendlier name: its value alone");
    get.app->add_flag("--json", get.line->json, "Print a JSON document instead of text");

    auto set = add_command(group, "set", "Change one setting and say whether the agent took it", config_set,
                           "voltaria config set EXPECTBLIFE 300 --host server1\n"
                           "voltaria config set battery-time 5min\n"
                           "voltaria config set role high",
                           status);
    set.app->add_option("KEY", set.line->key, "The setting, by its key or its friendlier name")->required();
    set.app->add_option("VALUE", set.line->value, "Its new value; times in seconds or as 90s, 10min, 2h")
        ->required();
    set.app->add_flag("--yes", set.line->yes, "Do not ask");
}

// ---- events ----

static void add_event_options(CLI::App &set, EVENTS_LINE &line)
{
    const CLI::IsMember on_off({"on", "off"});
    set.add_option("ID", line.id, "The event's number")->required()->check(CLI::Range(0, 255));
    set.add_option("--record", line.record, "Write it to the event log: on or off")->check(on_off);
    set.add_option("--shutdown", line.shutdown, "Shut the system down at it: on or off")->check(on_off);
    CLI::Option *wall = set.add_flag("--wall", line.wall, "Tell all terminals of the host");
    CLI::Option *write = set.add_option("--write", line.write,
                                        "Tell the terminals of these users: names with commas, or none");
    CLI::Option *nobody = set.add_flag("--no-broadcast", line.no_broadcast, "Tell no terminal");
    wall->excludes(write)->excludes(nobody);
    write->excludes(nobody);
    set.add_option("--mail", line.mail, "Send mail to these users: names with commas, or none");
    set.add_option("--command", line.command, "Run this shell command as root; empty: none");
    set.add_flag("--yes", line.yes, "Do not ask");
}

void add_events(CLI::App &app, int &status)
{
    CLI::App &group = add_group(app, "events", "Read and change what happens at an event",
                                "voltaria events list\nvoltaria events set 65 --mail root");
    auto list = add_command(group, "list", "Show what happens at each event, or at one", events_list,
                            "voltaria events list --host server1\nvoltaria events list 65 --json", status);
    list.app->add_option("ID", list.line->id, "One event's number")->check(CLI::Range(0, 255));
    list.app->add_flag("--json", list.line->json, JSON_HELP);

    auto set = add_command(group, "set", "Change what happens at an event", events_set,
                           "voltaria events set 65 --mail root,ops --command '/usr/local/bin/on-battery'\n"
                           "voltaria events set 78 --shutdown on --write root\n"
                           "voltaria events set 0 --no-broadcast --mail none --command ''",
                           status);
    add_event_options(*set.app, *set.line);
}

// ---- users ----

void add_users(CLI::App &app, int &status)
{
    CLI::App &group = add_group(app, "users", "Read and change the users whom events can be told to",
                                "voltaria users list\nvoltaria users add root --email root@example.org");
    auto list = add_command(group, "list", "Show the users", users_list,
                            "voltaria users list --host server1\nvoltaria users list --json", status);
    list.app->add_flag("--json", list.line->json, JSON_HELP);

    auto add = add_command(group, "add", "Add a user; an agent keeps 32", users_add,
                           "voltaria users add root\nvoltaria users add ops --email ops@example.org", status);
    add.app->add_option("NAME", add.line->name, "The login name on the agent's host")->required();
    add.app->add_option("--email", add.line->email, "Where mail for this user goes");

    auto remove = add_command(group, "remove", "Remove a user, from all events too", users_remove,
                              "voltaria users remove ops\nvoltaria users remove 3", status);
    remove.app->add_option("USER", remove.line->name, "The name or the number")->required();
}

// ---- schedule ----

static void add_schedule_options(CLI::App &add, SCHEDULE_LINE &line)
{
    add.add_option("ACTION", line.action, "What is done: shutdown or selftest")
        ->required()
        ->check(CLI::IsMember({"shutdown", "selftest"}));
    CLI::Option_group *when = add.add_option_group("When", "One of");
    when->add_option("--date", line.date, "On this date: YYYY-MM-DD");
    when->add_option("--weekly", line.weekly, "On this day of each week: monday or mon");
    when->add_option("--monthly", line.monthly, "On this day of each month: 1 to 31");
    when->require_option(1);
    add.add_option("--from", line.from, "Time it begins, by the agent's clock: HH:MM")->required();
    add.add_option("--until", line.until,
                   "Time the UPS switches on again: HH:MM, the next such time, or a day and a time");
    add.add_flag("--off", line.off, "Keep the entry without carrying it out");
}

void add_schedule(CLI::App &app, int &status)
{
    CLI::App &group =
        add_group(app, "schedule", "Read and change scheduled shutdowns and self-tests",
                  "voltaria schedule list\n"
                  "voltaria schedule add shutdown --weekly friday --from 22:00 --until 'mon 6:00'");
    auto list = add_command(group, "list", "Show the schedule", schedule_list,
                            "voltaria schedule list --host server1\nvoltaria schedule list --json", status);
    list.app->add_flag("--json", list.line->json, JSON_HELP);

    auto add = add_command(
        group, "add", "Add an entry", schedule_add,
        "voltaria schedule add shutdown --weekly mon --from 22:00 --until 06:00\n"
        "voltaria schedule add shutdown --date 2030-12-24 --from 18:00 --until '2030-12-27 06:00'\n"
        "voltaria schedule add selftest --monthly 1 --from 10:00",
        status);
    add_schedule_options(*add.app, *add.line);

    auto remove = add_command(group, "remove", "Remove an entry", schedule_remove,
                              "voltaria schedule list\nvoltaria schedule remove 2", status);
    remove.app->add_option("NUMBER", remove.line->number, "Its number in the list")
        ->required()
        ->check(CLI::Range(1, 100000));
}

// The commands that read and change an agent's settings: what their command lines say, the registrations, and
// the work behind each. The agent answers no setting, so every change is read back; the exit status says
// whether it was taken.
#pragma once

#include "voltaria_command.h"

#include <optional>
#include <string>

void add_config(CLI::App &app, int &status);
void add_events(CLI::App &app, int &status);
void add_users(CLI::App &app, int &status);
void add_schedule(CLI::App &app, int &status);

struct CONFIG_LINE {
    CONNECTION connection{};
    std::string key{};  // empty: all
    std::string value{};
    bool json = false;
    bool yes = false;
};

struct EVENTS_LINE {
    CONNECTION connection{};
    std::optional<int> id{};
    std::optional<std::string> record{};    // on, off
    std::optional<std::string> shutdown{};  // on, off
    bool wall = false;
    bool no_broadcast = false;
    std::optional<std::string> write{};  // users, comma-separated
    std::optional<std::string> mail{};
    std::optional<std::string> command{};
    bool json = false;
    bool yes = false;
};

struct USERS_LINE {
    CONNECTION connection{};
    std::string name{};
    std::string email{};
    bool json = false;
};

struct SCHEDULE_LINE {
    CONNECTION connection{};
    std::string action{};  // shutdown, selftest
    std::optional<std::string> date{};
    std::optional<std::string> weekly{};
    std::optional<std::string> monthly{};
    std::string from{};
    std::string until{};
    bool off = false;
    int number = 0;
    bool json = false;
    bool yes = false;
};

// All return the program's exit status.
[[nodiscard]] int config_get(const CONFIG_LINE &line);
[[nodiscard]] int config_set(const CONFIG_LINE &line);
[[nodiscard]] int events_list(const EVENTS_LINE &line);
[[nodiscard]] int events_set(const EVENTS_LINE &line);
[[nodiscard]] int users_list(const USERS_LINE &line);
[[nodiscard]] int users_add(const USERS_LINE &line);
[[nodiscard]] int users_remove(const USERS_LINE &line);
[[nodiscard]] int schedule_list(const SCHEDULE_LINE &line);
[[nodiscard]] int schedule_add(const SCHEDULE_LINE &line);
[[nodiscard]] int schedule_remove(const SCHEDULE_LINE &line);

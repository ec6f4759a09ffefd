// The commands that give an agent and its unit orders, and the login: what their command lines say, the
// registrations, and the work behind each. The agent answers no order, so the status is watched for what it
// does; what cannot be seen there is said to be sent, no more.
#pragma once

#include "voltaria_command.h"

#include <string>

void add_selftest(CLI::App &app, int &status);
void add_shutdown(CLI::App &app, int &status);
void add_cancel(CLI::App &app, int &status);
void add_buzzer(CLI::App &app, int &status);
void add_battery_date(CLI::App &app, int &status);
void add_login(CLI::App &app, int &status);

struct SELFTEST_LINE {
    CONNECTION connection{};
    bool until_low = false;
    bool cancel = false;
    bool yes = false;
};

struct DOWN_LINE {
    CONNECTION connection{};
    int seconds = 0;
    bool yes = false;
};

struct BUZZER_LINE {
    CONNECTION connection{};
    std::string what{};  // on, off, test
};

struct BATTERY_LINE {
    CONNECTION connection{};
    std::string date{};  // YYYY-MM-DD
};

struct LOGIN_LINE {
    CONNECTION connection{};
    std::string user{};  // empty: ask
};

// All return the program's exit status.
[[nodiscard]] int order_selftest(const SELFTEST_LINE &line);
[[nodiscard]] int order_shutdown(const DOWN_LINE &line);
[[nodiscard]] int order_cancel(const DOWN_LINE &line);
[[nodiscard]] int order_buzzer(const BUZZER_LINE &line);
[[nodiscard]] int battery_date_get(const BATTERY_LINE &line);
[[nodiscard]] int battery_date_set(const BATTERY_LINE &line);
[[nodiscard]] int login(const LOGIN_LINE &line);

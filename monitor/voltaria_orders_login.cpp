// `voltaria login`: whether an agent knows a user, and what he may do there.
#include "voltaria_orders.h"

#include "monitor_records.h"
#include "voltaria_change.h"

static int report(std::uint32_t right, const std::string &agent)
{
    switch (right) {
    case RIGHT_ADMINISTRATOR:
        return print("Accepted by " + agent + ": administrator, who owns the agent's settings.\n");
    case RIGHT_USER:
        return print("Accepted by " + agent + ": user, who does not own the agent's settings.\n");
    case RIGHT_REFUSED:
        return fail("refused by " + agent + ": unknown user or wrong password");
    default:
        return fail("the agent answered with a right that is not known: " + std::to_string(right));
    }
}

// Texts go out as they are typed, in fields that need no end.
static std::string too_long(const std::string &user, const std::string &password)
{
    if (user.size() > sizeof(UPS_PASSWORD::username))
        return "a user's name has at most 40 bytes";
    return password.size() > sizeof(UPS_PASSWORD::password) ? "a password has at most 20 bytes" : "";
}

int login(const LOGIN_LINE &line)
{
    return with_session(line.connection, [&](MONITOR_SESSION &session) {
        const std::string agent = agent_name(line.connection, session);
        std::string user = line.user;
        std::string password;
        if (user.empty() && !read_line("User at " + agent + ": ", user))
            return EXIT_USAGE;
        if (!read_password("Password: ", password))
            return EXIT_USAGE;
        if (const std::string wrong = too_long(user, password); !wrong.empty())
            return fail(wrong, EXIT_USAGE);
        std::uint32_t right = 0;
        const MONITOR_RESULT result = monitor_login(session, user, password, right);
        return monitor_ok(result) ? report(right, agent) : fail(result);
    });
}

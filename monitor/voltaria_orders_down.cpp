// `voltaria shutdown` and `voltaria cancel`.
#include "voltaria_orders.h"

#include "monitor_charset.h"
#include "monitor_records.h"
#include "monitor_words.h"
#include "voltaria_change.h"

#include <algorithm>
#include <array>
#include <unistd.h>

// This host's name as far as it fits into the 15 bytes that an order has for it.
static std::string own_name()
{
    std::array<char, 256> buffer{};
    if (gethostname(buffer.data(), buffer.size() - 1) != 0)
        return "voltaria";
    const std::string name = buffer.data();
    return name.substr(0, std::min<std::size_t>(name.find('.'), 15));
}

static MONITOR_RESULT send_shutdown(MONITOR_SESSION &session, int seconds)
{
    UPS_AGENTDOWNINFO order{};
    order.delay = static_cast<std::int16_t>(seconds);
    if (!charset_put(own_name(), TEXT_CODE::ShiftJis, order.Agent).empty())
        order.Agent = {'v', 'o', 'l', 't', 'a', 'r', 'i', 'a'};
    return monitor_order(session, DATAID_SHUTDOWN, monitor_encode(order));
}

static MONITOR_RESULT send_cancel(MONITOR_SESSION &session)
{
    std::array<char, 16> name{};
    if (!charset_put(own_name(), TEXT_CODE::Euc, name).empty())
        name = {'v', 'o', 'l', 't', 'a', 'r', 'i', 'a'};
    return monitor_order(session, DATAID_CANCELSHUTDOWN, WIRE_BYTES(name.begin(), name.end()));
}

// ---- shutdown ----

static std::string when_words(const UPS_UPSINFO &status)
{
    return time_absent(status.nextdown) ? "" : " at " + time_words(status.nextdown) + " (its clock)";
}

static bool shows_shutdown(const UPS_UPSINFO &status)
{
    return status.ShutdownS != 0 || (status.CommandDownS != 0 && !time_absent(status.nextdown));
}

// Watches what becomes of an order that has gone out.
static int report_shutdown(MONITOR_SESSION &session, const std::string &agent)
{
    UPS_UPSINFO status{};
    bool seen = false;
    const MONITOR_RESULT result = wait_for_status(session, shows_shutdown, status, seen);
    if (result.error == MONITOR_ERROR::Closed)
        return print("Sent; " + agent + " has closed the connection: it goes down.\n");
    if (!monitor_ok(result))
        return fail(result);
    if (!seen)
        return fail("sent, but the agent's status shows no shutdown");
    return print(agent + (status.ShutdownS != 0 ? " is going down" : " will go down") + when_words(status) +
                 ".\n");
}

static int shut_down(MONITOR_SESSION &session, const DOWN_LINE &line)
{
    const std::string agent = agent_name(line.connection, session);
    UPS_UPSINFO status{};
    MONITOR_RESULT result = monitor_status(session, status);
    if (!monitor_ok(result))
        return fail(result);
    if (status_silent(status))
        return fail("the agent and its UPS are not in touch (" +
                    words_or_code(words_comm(status.CommStatus), status.CommStatus) +
                    "); it takes no such order now");
    if (!time_absent(status.nextdown))
        remark("a shutdown is pending already" + when_words(status));
    if (!agreed(line.yes,
                "Shut down " + agent + " in " + std::to_string(line.seconds) + " s and switch its UPS off?"))
        return EXIT_REFUSED;
    result = send_shutdown(session, line.seconds);
    return monitor_ok(result) ? report_shutdown(session, agent) : fail(result);
}

int order_shutdown(const DOWN_LINE &line)
{
    return with_session(line.connection, [&](MONITOR_SESSION &session) { return shut_down(session, line); });
}

// ---- cancel ----

static int report_cancel(MONITOR_SESSION &session, const std::string &agent)
{
    UPS_UPSINFO status{};
    bool seen = false;
    const MONITOR_RESULT result = wait_for_status(
        session, [](const UPS_UPSINFO &now) { return now.CommandDownS == 0; }, status, seen);
    if (!monitor_ok(result))
        return fail(result);
    if (!seen)
        return fail("sent, but the agent's status still shows the order");
    return print("The shutdown of " + agent + " is cancelled.\n");
}

static int cancel(MONITOR_SESSION &session, const DOWN_LINE &line)
{
    const std::string agent = agent_name(line.connection, session);
    UPS_UPSINFO status{};
    MONITOR_RESULT result = monitor_status(session, status);
    if (!monitor_ok(result))
        return fail(result);
    if (status.CommandDownS == 0)
        return fail("no user has ordered " + agent +
                    " down; shutdowns for other reasons cannot be cancelled");
    if (!agreed(line.yes, "Cancel the shutdown of " + agent + when_words(status) + "?"))
        return EXIT_REFUSED;
    result = send_cancel(session);
    return monitor_ok(result) ? report_cancel(session, agent) : fail(result);
}

int order_cancel(const DOWN_LINE &line)
{
    return with_session(line.connection, [&](MONITOR_SESSION &session) { return cancel(session, line); });
}

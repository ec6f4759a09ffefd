// `voltaria status`.
#include "monitor_json.h"
#include "monitor_page.h"
#include "voltaria_read.h"

static std::string status_text(const UPS_UPSINFO &status, const CONNECTION &connection)
{
    std::string text;
    for (const std::string &row : page_status(status, connection_place(connection)))
        text += row + "\n";
    return text;
}

int show_status(const STATUS_LINE &line)
{
    MONITOR_SESSION session;
    UPS_UPSINFO status{};
    MONITOR_RESULT result = open_session(line.connection, session);
    if (monitor_ok(result))
        result = monitor_status(session, status);
    monitor_close(session);
    if (!monitor_ok(result))
        return fail(result);
    if (line.json)
        return print_raw(
            status_json(status, line.connection.host, static_cast<std::uint16_t>(line.connection.port)) +
            "\n");
    return print(status_text(status, line.connection));
}

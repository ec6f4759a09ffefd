// `voltaria log` and `voltaria data`.
#include "monitor_json.h"
#include "monitor_log.h"
#include "voltaria_read.h"

static LOG_RANGE range_of(const LOG_LINE &line)
{
    if (line.all)
        return {};
    return {line.first, line.count};
}

// What both logs have in common: one session, the reading, one of three ways to print.
template <typename LINE, typename READ>
static int show(const LOG_LINE &line, READ read, std::string (*json)(const std::vector<LINE> &))
{
    MONITOR_SESSION session;
    std::vector<LINE> lines;
    bool more = false;
    MONITOR_RESULT result = open_session(line.connection, session);
    if (monitor_ok(result))
        result = read(session, range_of(line), lines, more);
    monitor_close(session);
    if (!monitor_ok(result))
        return fail(result);
    if (more)
        static_cast<void>(fail("the log may be longer than the protocol can reach"));
    if (line.json)
        return print_raw(json(lines) + "\n");
    if (line.csv)
        return print_raw(log_csv(lines));
    return print(lines.empty() ? "no such lines\n" : log_table(lines));
}

int show_eventlog(const LOG_LINE &line)
{
    return show<UPS_EVENTLOGINFO>(line, log_read_events, eventlog_json);
}

int show_datalog(const LOG_LINE &line)
{
    return show<UPS_DATALOGINFO>(line, log_read_data, datalog_json);
}

// Every request of the monitor's library to an agent that answers with any bytes: the first byte chooses the
// request, the second how long the agent lives, the rest is all it ever sends. Each call ends at once,
// because the agent has said all it will say and has gone; one that fails has closed the session, and one
// that succeeds keeps it; what is handed out is what the request could be answered with.
#include "fuzz_support.h"
#include "monitor/monitor.h"
#include "monitor/monitor_log.h"
#include "monitor/monitor_records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

static MONITOR_RESULT ask_hello(MONITOR_SESSION &session)
{
    VTOSINFO answer{};
    MONITOR_RESULT result = monitor_hello(session, monitor_own_osinfo(1), answer);
    UPS_UPSINFO status{};
    return monitor_ok(result) ? monitor_status(session, status) : result;
}

// In the range that the choice says; what comes is never more than what was asked for.
static MONITOR_RESULT ask_eventlog(MONITOR_SESSION &session, std::uint8_t choice)
{
    static constexpr std::array<LOG_RANGE, 6> ranges{{{-1, -1}, {-1, 3}, {0, 5}, {2, -1}, {40, 400}, {0, 0}}};
    const LOG_RANGE range = ranges[choice % ranges.size()];
    std::vector<UPS_EVENTLOGINFO> lines;
    bool more = false;
    MONITOR_RESULT result = log_read_events(session, range, lines, more);
    require(!monitor_ok(result) || range.count < 0 || lines.size() <= static_cast<std::size_t>(range.count));
    return result;
}

static MONITOR_RESULT ask_datalog(MONITOR_SESSION &session, std::uint8_t choice)
{
    static constexpr std::array<LOG_RANGE, 4> ranges{{{-1, -1}, {-1, 3}, {1, 5}, {-1, 0}}};
    const LOG_RANGE range = ranges[choice % ranges.size()];
    std::vector<UPS_DATALOGINFO> lines;
    bool more = false;
    MONITOR_RESULT result = log_read_data(session, range, lines, more);
    require(!monitor_ok(result) || range.count < 0 || lines.size() <= static_cast<std::size_t>(range.count));
    return result;
}

// Read and sent back, as a change does it.
static MONITOR_RESULT ask_settings(MONITOR_SESSION &session)
{
    bool empty = false;
    UPS_PARAM param{};
    MONITOR_RESULT result = monitor_config(session, param, empty);
    return monitor_ok(result) && !empty ? monitor_set_config(session, param) : result;
}

static MONITOR_RESULT ask_events(MONITOR_SESSION &session)
{
    bool empty = false;
    EVENT_TABLE events{};
    std::vector<USERSDATA> users;
    MONITOR_RESULT result = monitor_events(session, events, users, empty);
    require(!monitor_ok(result) || users.size() <= USER_COUNT);
    return monitor_ok(result) && !empty ? monitor_set_events(session, events, users) : result;
}

static MONITOR_RESULT ask_schedules(MONITOR_SESSION &session)
{
    std::vector<SCHEDULEINFO> entries;
    MONITOR_RESULT result = monitor_schedules(session, entries);
    return monitor_ok(result) ? monitor_set_schedules(session, entries) : result;
}

static MONITOR_RESULT ask_login(MONITOR_SESSION &session, std::uint8_t choice)
{
    std::uint32_t right = 0;
    return monitor_login(session, std::string(choice % 48U, 'n'), std::string(choice % 24U, 'p'), right);
}

static MONITOR_RESULT ask_rest(MONITOR_SESSION &session)
{
    BATTCHGTIME date{};
    MONITOR_RESULT result = monitor_battery_date(session, date);
    if (monitor_ok(result))
        result = monitor_order(session, DATAID_SETBATTIME, monitor_encode(date));
    if (monitor_ok(result))
        result = monitor_settle(session);
    return monitor_ok(result) ? monitor_listen(session, std::chrono::steady_clock::now()) : result;
}

static MONITOR_RESULT ask(MONITOR_SESSION &session, std::uint8_t request, std::uint8_t choice)
{
    switch (request % 9) {
    case 0:
        return ask_hello(session);
    case 1:
        return ask_eventlog(session, choice);
    case 2:
        return ask_datalog(session, choice);
    case 3:
        return ask_settings(session);
    case 4:
        return ask_events(session);
    case 5:
        return ask_schedules(session);
    case 6:
        return ask_login(session, choice);
    case 7:
        return ask_rest(session);
    default:
        return monitor_listen(session,
                              std::chrono::steady_clock::now() + std::chrono::milliseconds(choice % 2));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::array<int, 2> ends{};
    if (size < 2 || size > 60000 ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0)
        return 0;
    MONITOR_SESSION session;
    session.fd = ends[0];
    if ((data[1] & 0x80) != 0)
        session.timeout = std::chrono::milliseconds(0);
    require(send(ends[1], data + 2, size - 2, 0) == static_cast<ssize_t>(size - 2));
    if ((data[1] & 0x40) != 0 && (data[1] & 0x80) == 0)
        close(ends[1]);
    else
        shutdown(ends[1], SHUT_WR);
    const MONITOR_RESULT result = ask(session, data[0], data[1]);
    // A name that is too long is refused before anything is sent.
    require((session.fd >= 0) == monitor_ok(result) || data[0] % 9 == 6);
    require(monitor_ok(result) == result.text.empty());
    require(session.messages.size() <= MONITOR_MESSAGES_MAX);
    for (const std::string &message : session.messages)
        require(message.size() <= MONITOR_MESSAGE_BYTES);
    monitor_close(session);
    if ((data[1] & 0x40) == 0 || (data[1] & 0x80) != 0)
        close(ends[1]);
    return 0;
}

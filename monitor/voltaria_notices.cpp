// `voltaria notices`: one connection kept for as long as it holds, made anew when it is lost.
#include "monitor_records.h"
#include "voltaria_follow.h"
#include "voltaria_read.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <poll.h>

static constexpr int RETRY_INTERVAL = 1000;   // ms between two attempts
static constexpr int SILENCE_LIMIT = 10'000;  // ms after which a silent agent is asked for a sign of life

// Prints and forgets what has come; false when nobody can read it any more.
static bool print_messages(MONITOR_SESSION &session)
{
    for (const std::string &message : session.messages)
        if (print(clock_text(std::time(nullptr), "%Y-%m-%d %H:%M:%S ") + notice_text(message) + "\n") !=
            EXIT_SUCCESS)
            return false;
    session.messages.clear();
    return true;
}

// Takes what has arrived, notice by notice: the session keeps only so many, and no flood may push one out
// unseen.
static MONITOR_RESULT take_messages(MONITOR_SESSION &session, bool &readable)
{
    for (;;) {
        MONITOR_RESULT result = monitor_listen(session, std::chrono::steady_clock::now());
        const bool more = !session.messages.empty();
        readable = print_messages(session);
        if (!monitor_ok(result) || !readable || !more)
            return result;
    }
}

// Follows one connection; returns what ended it. `readable` becomes false when standard output is gone,
// `told` is emptied once there is a connection whose loss is worth telling.
static MONITOR_RESULT follow(const CONNECTION &connection, MONITOR_SESSION &session, bool &readable,
                             std::string &told)
{
    MONITOR_RESULT result = open_session(connection, session, quit_fd());
    if (monitor_ok(result))
        told.clear();
    while (monitor_ok(result) && readable) {
        result = take_messages(session, readable);
        if (!monitor_ok(result) || !readable)
            break;
        std::array<pollfd, 2> watched{{{session.fd, POLLIN, 0}, {quit_fd(), POLLIN, 0}}};
        const int ready = poll(watched.data(), watched.size(), SILENCE_LIMIT);
        if (ready > 0 && watched[1].revents != 0)
            return {MONITOR_ERROR::Cancelled, "cancelled"};
        if (ready == 0)
            result = monitor_settle(session);
    }
    return result;
}

int follow_notices(const CONNECTION &connection)
{
    if (!catch_quit_signals()) {
        std::perror("voltaria: notices");
        return EXIT_FAILURE;
    }
    MONITOR_SESSION session;
    std::string told;
    bool readable = true;
    for (;;) {
        const MONITOR_RESULT result = follow(connection, session, readable, told);
        if (!readable || !print_messages(session))
            return EXIT_REFUSED;
        if (result.error == MONITOR_ERROR::Cancelled)
            break;
        if (result.text != told)
            static_cast<void>(fail(result.text + "; trying again"));
        told = result.text;
        if (quit_within(RETRY_INTERVAL))
            break;
    }
    monitor_close(session);
    return EXIT_SUCCESS;
}

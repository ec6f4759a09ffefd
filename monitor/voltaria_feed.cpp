// The thread behind `voltaria watch`. It never touches the terminal.
#include "voltaria_feed.h"

#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

using STEADY = std::chrono::steady_clock;

static constexpr std::chrono::seconds INTERVAL{1};         // between two questions, and between two attempts
static constexpr std::chrono::milliseconds PATIENCE{500};  // for the thread's end

static void signal_event(int fd)
{
    // An event descriptor takes 2^64 - 2 of these before it refuses one.
    static_cast<void>(eventfd_write(fd, 1));
}

template <typename CHANGE> static void publish(FEED &feed, CHANGE change)
{
    {
        const std::lock_guard lock(feed.mutex);
        change(feed.state);
    }
    signal_event(feed.news_fd);
}

// Announcements move over to the state, where a reader that is slow to take them loses the oldest.
static void hand_over(MONITOR_SESSION &session, FEED_STATE &state)
{
    for (std::string &message : session.messages)
        state.messages.push_back(std::move(message));
    session.messages.clear();
    while (state.messages.size() > MONITOR_MESSAGES_MAX)
        state.messages.pop_front();
}

static void publish_lost(FEED &feed, MONITOR_SESSION &session, const MONITOR_RESULT &result)
{
    publish(feed, [&session, &result](FEED_STATE &state) {
        hand_over(session, state);
        if (state.connected || state.reason.empty())
            state.since = std::time(nullptr);
        state.connected = false;
        state.reason = result.text;
    });
}

static void publish_status(FEED &feed, MONITOR_SESSION &session, const UPS_UPSINFO &status)
{
    publish(feed, [&session, &status](FEED_STATE &state) {
        if (!state.connected)
            state.since = std::time(nullptr);
        state.connected = true;
        state.has_status = true;
        state.status = status;
        hand_over(session, state);
    });
}

// Stays on one connection; returns what ended it.
static MONITOR_RESULT follow(FEED &feed, MONITOR_SESSION &session)
{
    MONITOR_RESULT result = monitor_connect(feed.options, session);
    VTOSINFO answer{};
    if (monitor_ok(result))
        result = monitor_hello(session, monitor_own_osinfo(feed.options.lang), answer);
    while (monitor_ok(result)) {
        const STEADY::time_point next = STEADY::now() + INTERVAL;
        UPS_UPSINFO status{};
        result = monitor_status(session, status);
        if (!monitor_ok(result))
            break;
        publish_status(feed, session, status);
        result = monitor_listen(session, next);
    }
    return result;
}

// True when the thread is to end.
static bool rest(const FEED &feed)
{
    pollfd cancel{feed.cancel_fd, POLLIN, 0};
    constexpr int wait = static_cast<int>(std::chrono::milliseconds(INTERVAL).count());
    return poll(&cancel, 1, wait) > 0;
}

static void run(FEED &feed)
{
    MONITOR_SESSION session;
    for (;;) {
        const MONITOR_RESULT result = follow(feed, session);
        if (result.error == MONITOR_ERROR::Cancelled)
            break;
        publish_lost(feed, session, result);
        if (rest(feed))
            break;
    }
    monitor_close(session);
    const std::lock_guard lock(feed.mutex);
    feed.ended = true;
    feed.ended_condition.notify_all();
}

bool feed_start(FEED &feed, const MONITOR_OPTIONS &options)
{
    feed.cancel_fd = eventfd(0, EFD_CLOEXEC);
    feed.news_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (feed.cancel_fd < 0 || feed.news_fd < 0)
        return false;
    feed.options = options;
    feed.options.cancel_fd = feed.cancel_fd;
    // Signals belong to the thread that owns the terminal.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    feed.thread = std::thread(run, std::ref(feed));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return true;
}

FEED_STATE feed_take(FEED &feed)
{
    eventfd_t count = 0;
    static_cast<void>(eventfd_read(feed.news_fd, &count));  // empty when there is no news; that is fine
    const std::lock_guard lock(feed.mutex);
    FEED_STATE state = feed.state;
    feed.state.messages.clear();
    return state;
}

bool feed_stop(FEED &feed)
{
    signal_event(feed.cancel_fd);
    {
        std::unique_lock lock(feed.mutex);
        if (!feed.ended_condition.wait_for(lock, PATIENCE, [&feed] { return feed.ended; })) {
            feed.thread.detach();
            return false;
        }
    }
    feed.thread.join();
    close(feed.cancel_fd);
    close(feed.news_fd);
    return true;
}

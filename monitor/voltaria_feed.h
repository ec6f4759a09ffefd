// The watcher's connection, in a thread of its own: asks for the status once a second on one kept
// connection, reconnects when it is lost, and leaves what it knows for the drawing thread to take.
#pragma once

#include "monitor.h"

#include <condition_variable>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

// What the thread knows at one moment.
struct FEED_STATE {
    bool connected = false;
    std::time_t since = 0;  // when the connection was made or lost
    std::string reason{};   // why it is lost; empty while the first attempt runs
    bool has_status = false;
    UPS_UPSINFO status{};
    std::deque<std::string> messages{};  // announcements since the last take, raw bytes, oldest first
};

struct FEED {
    MONITOR_OPTIONS options{};
    int cancel_fd = -1;  // event descriptor: ends every wait of the thread
    int news_fd = -1;    // event descriptor: readable when the state has changed
    std::mutex mutex{};
    std::condition_variable ended_condition{};
    bool ended = false;  // under mutex
    FEED_STATE state{};  // under mutex
    std::thread thread{};
};

/// Starts the thread with every signal blocked in it. False, with errno, when descriptors are short.
[[nodiscard]] bool feed_start(FEED &feed, const MONITOR_OPTIONS &options);

/// The present state with the announcements that came since the last call.
[[nodiscard]] FEED_STATE feed_take(FEED &feed);

/// Ends the thread. False when it does not end soon, held up by a name look-up that cannot be interrupted:
/// the program must then end without waiting for it.
[[nodiscard]] bool feed_stop(FEED &feed);

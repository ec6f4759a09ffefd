// The demo's stage: the real daemon, a simulated UPS and a monitor, and an eye on everything that any of them
// lets out. demo_play plays on it, demo_live lets the user play.
#pragma once

#include "testbed.h"

#include "monitor.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

// One thing that somebody let out: into the event log, onto the users' terminals, to monitors, over the
// serial line, to the system.
struct News {
    const char *who;
    std::string text;
};

struct Stage {
    std::string programs;  // directory
    testbed::Simulator &ups;
    testbed::Daemon &daemon;
    std::chrono::steady_clock::time_point start;
    int act = 0;
    MONITOR_SESSION monitor{};    // connected for the notices
    std::string heard{};          // every notice that it got
    std::size_t logged_seen = 0;  // bytes of the event log
    std::size_t calls_seen = 0;   // calls of other programs
    std::size_t line_seen = 0;    // bytes of the unit's log
    bool ordered = false;         // the last thing heard on the line was an order to the unit
};

/// Set by a signal; whoever waits gives up.
extern volatile std::sig_atomic_t stop_asked;

/// Connects the monitor that receives the notices. Throws when the agent does not take it.
void connect_monitor(Stage &stage);

/// Lets the monitor listen for a moment.
void listen_briefly(Stage &stage);

/// What has been let out since the last time, in the order in which the daemon goes about it: log, users,
/// monitors, line, and its own end with that of the system.
std::vector<News> take_news(Stage &stage);

/// True once the event stands in the event log.
bool is_logged(int event);

/// True once the stand-in of the system's shutdown program was called.
bool system_is_down();

/// What `voltaria status` prints. Throws when it fails.
std::string status_page(const Stage &stage);

/// Plays the story to its end; throws where an act does not come about.
void play(Stage &stage);

/// Shows the monitor's live page on the terminal, with keys for the weather, until q. After `battery_time`
/// seconds without mains the machine goes down.
void live(Stage &stage, int battery_time);

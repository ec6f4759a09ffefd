// The watching itself: a feed thread brings the status, this thread owns terminal, keys and signals and waits
// for whichever comes first. The clock on the page is the only reason to wake without one of them.
#include "voltaria_watch.h"

#include "monitor_page.h"
#include "voltaria_command.h"
#include "voltaria_feed.h"
#include "voltaria_follow.h"
#include "voltaria_screen.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <unistd.h>

// ---- Times ----

static int milliseconds_to_next_second()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int>(1000 - now.tv_nsec / 1'000'000);
}

// ---- On a terminal ----

static WATCH_VIEW view_of(const FEED_STATE &state, const MONITOR_OPTIONS &options, const std::string &message)
{
    WATCH_VIEW view;
    view.place = options.host + ":" + std::to_string(options.port);
    view.now = clock_text(std::time(nullptr), "%H:%M:%S");
    view.connected = state.connected;
    view.since = clock_text(state.since, "%H:%M:%S");
    view.reason = state.reason;
    view.message = message;
    view.has_status = state.has_status;
    view.status = state.status;
    return view;
}

// True when the user wants to go.
static bool handle_keys()
{
    for (;;) {
        switch (screen_key()) {
        case SCREEN_KEY::Quit:
            return true;
        case SCREEN_KEY::None:
            return false;
        case SCREEN_KEY::Redraw:
            break;  // the page is drawn after this anyway
        }
    }
}

static void watch_on_screen(FEED &feed, const MONITOR_OPTIONS &options, bool utf8)
{
    const int keys = isatty(STDIN_FILENO) != 0 ? STDIN_FILENO : -1;
    std::string message;
    for (;;) {
        const FEED_STATE state = feed_take(feed);
        if (!state.messages.empty())
            message = clock_text(std::time(nullptr), "%H:%M:%S ") + notice_text(state.messages.back());
        screen_draw(page_watch(view_of(state, options, message), screen_size()), utf8);
        std::array<pollfd, 3> watched{{{quit_fd(), POLLIN, 0}, {keys, POLLIN, 0}, {feed.news_fd, POLLIN, 0}}};
        const int ready = poll(watched.data(), watched.size(), milliseconds_to_next_second());
        const bool terminal_gone = ready > 0 && (watched[1].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
        if ((ready > 0 && watched[0].revents != 0) || terminal_gone)
            return;
        // An interrupted wait may be a change of size, which arrives as a key.
        if (handle_keys())
            return;
    }
}

// ---- Without a terminal ----

static std::string line_of(const FEED_STATE &state)
{
    if (state.connected)
        return page_one_line(state.status);
    return state.reason.empty() ? "" : "LOST: " + state.reason;
}

// False when nobody can read it any more.
static bool print_line(const std::string &line)
{
    return print(clock_text(std::time(nullptr), "%Y-%m-%d %H:%M:%S ") + line + "\n") == EXIT_SUCCESS;
}

static bool print_messages(const FEED_STATE &state)
{
    for (const std::string &message : state.messages)
        if (!print_line("message: " + notice_text(message)))
            return false;
    return true;
}

static int watch_in_lines(FEED &feed)
{
    std::string shown;
    for (;;) {
        const FEED_STATE state = feed_take(feed);
        const std::string line = line_of(state);
        if (!print_messages(state) || (line != shown && !print_line(line)))
            return EXIT_REFUSED;
        shown = line;
        std::array<pollfd, 2> watched{{{quit_fd(), POLLIN, 0}, {feed.news_fd, POLLIN, 0}}};
        if (poll(watched.data(), watched.size(), -1) > 0 && watched[0].revents != 0)
            return EXIT_SUCCESS;
    }
}

int watch(const MONITOR_OPTIONS &options)
{
    FEED feed;
    if (!catch_quit_signals() || !feed_start(feed, options)) {
        std::perror("voltaria: watch");
        return EXIT_FAILURE;
    }
    int status = EXIT_SUCCESS;
    const bool utf8 = utf8_output();
    if (screen_open()) {
        watch_on_screen(feed, options, utf8);
        screen_close();
    } else {
        status = watch_in_lines(feed);
    }
    if (!feed_stop(feed))
        _exit(status);  // the thread still uses `feed`; standard output is flushed
    return status;
}

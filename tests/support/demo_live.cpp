// The demo with the user at the weather: the monitor's live page on the simulated UPS, and keys that fail
// mains, drain the battery, cut the line, load the unit. When the agent has taken the machine down, a key
// starts it again.
#include "demo_live.h"

#include "demo.h"
#include "demo_terminal.h"

#include "monitor_text.h"
#include "monitor_words.h"
#include "voltaria_feed.h"
#include "voltaria_follow.h"
#include "voltaria_screen.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <poll.h>
#include <unistd.h>

static constexpr std::size_t NEWS_KEPT = 40;
static constexpr int LOOK_AGAIN = 200;  // ms; logs and calls of programs have no descriptor to wait for
static constexpr std::chrono::seconds SHUTDOWN_WITHIN{3};
static constexpr int LOAD_AT_FIRST = 35;
static constexpr int LOAD_STEP = 20;
static constexpr int LOAD_MOST = 115;
static constexpr char FIRST_PORT[] = "/dev/ttyS0";

// What goes on. In lines an advice is printed when this changes; on the page always.
enum class SITUATION { Searching, Cut, Well, Countdown, OnBattery, GoingDown, Down, Died };

struct LIVE {
    Stage &stage;
    LIVE_VIEW view{};
    SITUATION situation = SITUATION::Searching;
    int load = LOAD_AT_FIRST;                       // percent
    bool cut = false;                               // by the user
    std::string order{};                            // the last one that the unit got
    std::size_t unprinted = 0;                      // news, in lines
    std::chrono::steady_clock::time_point alive{};  // when the daemon was seen last
};

// The thread that asks may outlive a turn of bad luck at the end of the program, and with it this.
static FEED feed;

// The terminal is ours, and the thread asks, for as long as this lives.
class Opened
{
  public:
    Opened()
    {
        if (!catch_quit_signals() || !feed_start(feed, MONITOR_OPTIONS{}))
            throw testbed::TestbedError("no descriptors are left");
        kind = terminal_open();
    }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;
    ~Opened()
    {
        terminal_close();
        static_cast<void>(feed_stop(feed));
    }

    DEMO_TERMINAL kind;
};

// ---- The world ----

static void write_settings(int battery_time)
{
    const std::string on_battery = std::to_string(battery_time);
    testbed::write_config(
        "[ UPS ]\n\n AgentType = 4\n\n[ ShutDown ]\n\n EXPECTBLIFE = " + on_battery +
        "\n FIRSTWARN = 10\n INTERVAL = 10\n TurnOffDelay = " + std::to_string(TURN_OFF_DELAY) + "\n\n");
}

static void start_daemon(Stage &stage)
{
    testbed::forget_calls();
    stage.calls_seen = 0;
    stage.daemon.start();
}

static void tell(LIVE &live, const std::string &who, const std::string &text)
{
    live.view.news.push_back({clock_text(std::time(nullptr), "%H:%M:%S"), who, text});
    live.unprinted++;
    while (live.view.news.size() > NEWS_KEPT)
        live.view.news.pop_front();
}

// A fresh unit in fine weather. A daemon that was killed has left its lock behind.
static void start_again(LIVE &live)
{
    for (const std::string &command : {"model " + live.stage.ups.options().model, std::string("mains return"),
                                       std::string("line restore"), "load " + std::to_string(LOAD_AT_FIRST)})
        live.stage.ups.command(command);
    live.load = LOAD_AT_FIRST;
    live.cut = false;
    live.order.clear();
    live.stage.daemon.kill();
    std::filesystem::remove(std::string(testbed::INSTALL_DIRECTORY) + ".LCK");
    start_daemon(live.stage);
}

static std::string changed_load(LIVE &live, int by)
{
    live.load = std::clamp(live.load + by, LOAD_AT_FIRST - LOAD_STEP, LOAD_MOST);
    return "load " + std::to_string(live.load);
}

// False when the user wants to go.
static bool press(LIVE &live, int pressed)
{
    const LIVE_KEY *key = live_key(pressed == 'Q' ? 'q' : pressed);
    if (key == nullptr)
        return true;
    if (key->key == 'q')
        return false;
    const bool stopped = !live.view.ending.empty();
    std::string done = key->done;
    if (key->key == 'b' && !stopped) {
        done = "nothing: the machine is up";
    } else if (key->key == 'b') {
        start_again(live);
    } else if (key->command != nullptr) {
        live.stage.ups.command(key->command);
    } else {
        live.stage.ups.command(changed_load(live, key->key == '+' ? LOAD_STEP : -LOAD_STEP));
        done += ": " + std::to_string(live.load) + " %";
    }
    if (key->key == 'l' || key->key == 'p')
        live.cut = key->key == 'l';
    tell(live, "you", done);
    return true;
}

// ---- What is told ----

// Seconds from now until a local time; 0 when it is over.
static long seconds_until(const UPS_TIMEINFO &when)
{
    std::tm local{};
    local.tm_year = when.year;
    local.tm_mon = when.month - 1;
    local.tm_mday = when.day;
    local.tm_hour = when.hour;
    local.tm_min = when.minute;
    local.tm_sec = when.second;
    local.tm_isdst = -1;
    return std::max(0L, static_cast<long>(std::mktime(&local) - std::time(nullptr)));
}

static std::string unit_after_order(LIVE &live)
{
    static constexpr std::string_view key = "\"off_in\":";
    const std::string status = live.stage.ups.status();
    const std::size_t at = status.find(key);
    if (at != std::string::npos)
        return "it cuts its output in " + std::to_string(std::atoi(status.c_str() + at + key.size())) + " s.";
    return status.find("\"output\":false") != std::string::npos
               ? "its output is off: the machine has no power."
               : "its output is on.";
}

static std::vector<std::string> down_text(LIVE &live)
{
    const testbed::Call call = testbed::calls_of("shutdown").front();
    std::string command = call.path;
    for (const std::string &argument : call.arguments)
        command += " " + argument;
    const std::string order = live.order.substr(0, live.order.find("\\r"));
    return {"The agent has taken this machine down, and has ended.",
            "",
            "System  It called " + command,
            "        (a stand-in here; your machine would power off now).",
            "UPS     " + (order.empty() ? "" : "It was ordered " + order + "; ") + unit_after_order(live),
            "",
            "b starts the machine again, with mains and a full battery.",
            "q ends the demo."};
}

static std::vector<std::string> ending_text(LIVE &live)
{
    switch (live.situation) {
    case SITUATION::Down:
        return down_text(live);
    case SITUATION::Died:
        return {"voltariad has ended, and not by an order of its own.", "",
                "b starts the machine again, with mains and a full battery.", "q ends the demo."};
    default:
        return {};
    }
}

// The agent becomes the shutdown program, whose call is noted a moment later.
static SITUATION situation_without_daemon(const LIVE &live)
{
    if (system_is_down())
        return SITUATION::Down;
    const bool moment = std::chrono::steady_clock::now() - live.alive < SHUTDOWN_WITHIN;
    return moment ? SITUATION::GoingDown : SITUATION::Died;
}

static SITUATION situation_of(LIVE &live)
{
    const UPS_UPSINFO &status = live.view.watch.status;
    if (!live.stage.daemon.running())
        return situation_without_daemon(live);
    live.alive = std::chrono::steady_clock::now();
    if (live.view.watch.has_status && status.ShutdownS != 0)
        return SITUATION::GoingDown;
    if (!live.view.watch.connected || status_silent(status))
        return live.cut ? SITUATION::Cut : SITUATION::Searching;
    if (!time_absent(status.nextdown))
        return SITUATION::Countdown;
    return status.upsstat == UPSSTAT_ACFAIL ? SITUATION::OnBattery : SITUATION::Well;
}

static std::string advice(const LIVE &live)
{
    switch (live.situation) {
    case SITUATION::Searching:
        return "voltariad looks for the UPS on its serial ports ...";
    case SITUATION::Cut:
        return "Nothing comes over the line. p plugs it in again.";
    case SITUATION::Well:
        return live.cut ? "The line is cut; soon the agent will notice." : "All is well. f lets mains fail.";
    case SITUATION::Countdown:
        return "Shutdown in " + std::to_string(seconds_until(live.view.watch.status.nextdown)) +
               " s, unless mains returns (r).";
    case SITUATION::OnBattery:
        return "Mains is off; the battery carries the load.";
    case SITUATION::GoingDown:
        return "The agent takes the machine down.";
    case SITUATION::Down:
        return "b starts the machine again, q ends the demo.";
    case SITUATION::Died:
        break;
    }
    return "voltariad has ended. b starts the machine again, q ends the demo.";
}

// Users and monitors are told the same, and it is shown once. Until the agent has heard a monitor's language
// it tells it everything in Japanese, which not every terminal can show.
static bool is_told_already(const LIVE &live, const News &latest)
{
    if (text_ascii(latest.text) != latest.text)
        return true;
    return std::ranges::any_of(
        live.view.news, [&latest](const LIVE_NEWS &shown) { return shown.text.ends_with(latest.text); });
}

static void take_all_news(LIVE &live, FEED_STATE &state)
{
    static constexpr std::string_view SENDS = "voltariad sends  ";
    std::ranges::move(state.messages, std::back_inserter(live.stage.monitor.messages));
    for (const News &latest : take_news(live.stage)) {
        if (std::string_view(latest.who) == "monitor" && is_told_already(live, latest))
            continue;
        if (latest.text.starts_with(SENDS))
            live.order = latest.text.substr(SENDS.size());
        tell(live, latest.who, latest.text);
    }
}

// Everything that is shown, as it is now.
static void look(LIVE &live)
{
    FEED_STATE state = feed_take(feed);
    take_all_news(live, state);
    WATCH_VIEW &watch = live.view.watch;
    watch.place = "127.0.0.1:4112, with a simulated UPS";
    watch.now = clock_text(std::time(nullptr), "%H:%M:%S");
    watch.connected = state.connected;
    watch.since = clock_text(state.since, "%H:%M:%S");
    watch.reason = state.reason;
    watch.has_status = state.has_status;
    watch.status = state.status;
    live.situation = situation_of(live);
    live.view.ending = ending_text(live);
    watch.message = advice(live);
}

// ---- On the terminal ----

static void print_lines(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines)
        std::puts(line.c_str());
}

// For terminals without a cursor: what is new, a line each.
static void show_lines(LIVE &live)
{
    static constexpr std::size_t columns = 72;
    static bool begun = false;
    static SITUATION told = SITUATION::Searching;
    if (!begun) {
        print_lines(live_keys_text(columns));
        std::puts(live_times_text(live.view.battery_time).c_str());
    }
    const std::deque<LIVE_NEWS> &news = live.view.news;
    for (std::size_t at = news.size() - std::min(news.size(), live.unprinted); at < news.size(); at++)
        std::puts(live_news_text(news[at]).c_str());
    live.unprinted = 0;
    if (!begun || told != live.situation) {
        print_lines(live.view.ending.empty() ? std::vector{live.view.watch.message} : live.view.ending);
        if (live.view.ending.empty() && live.view.watch.has_status)
            std::puts(page_one_line(live.view.watch.status).c_str());
    }
    begun = true;
    told = live.situation;
    std::fflush(stdout);
}

// Until there may be something new.
static void wait_for_news()
{
    std::array<pollfd, 3> watched{
        {{quit_fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}, {feed.news_fd, POLLIN, 0}}};
    poll(watched.data(), watched.size(), LOOK_AGAIN);
}

// False when the demo is to end.
static bool take_keys(LIVE &live)
{
    if (stop_asked != 0 || quit_within(0))
        return false;
    for (int key = terminal_key(); key != TERMINAL_NO_KEY; key = terminal_key())
        if (key == TERMINAL_GONE || !press(live, key))
            return false;
    return true;
}

static void run(LIVE &live)
{
    const Opened opened;
    for (;;) {
        look(live);
        if (opened.kind == DEMO_TERMINAL::Page)
            screen_draw(live_page(live.view, screen_size()), false);
        else
            show_lines(live);
        wait_for_news();
        if (!take_keys(live))
            return;
    }
}

void live(Stage &stage, int battery_time)
{
    write_settings(battery_time);
    start_daemon(stage);
    LIVE live{.stage = stage};
    live.view.battery_time = battery_time;
    tell(live, "demo", "the UPS is simulated, on " + std::string(FIRST_PORT) + " of a machine of its own");
    run(live);
    std::puts("The demo has ended; nothing of it is left running.");
}

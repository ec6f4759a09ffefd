// What the demo sees of the daemon, the unit and the machine. Every source is read from where it was left.
#include "demo.h"

#include "monitor_text.h"
#include "monitor_words.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <thread>

using testbed::milliseconds;
using testbed::seconds;

static constexpr milliseconds MOMENT{20};
static constexpr char SHUTDOWN[] = "shutdown";
static constexpr std::size_t LOG_EVENT = 20;  // columns in a line of the event log
static constexpr std::size_t LOG_CAUSE = 24;
static constexpr std::size_t LOG_NUMBER_WIDTH = 4;
static constexpr int AGENT_STOP = 8;
static constexpr int NO_EVENT = 255;

void connect_monitor(Stage &stage)
{
    VTOSINFO answer{};
    MONITOR_RESULT result = monitor_connect(MONITOR_OPTIONS{}, stage.monitor);
    if (monitor_ok(result))
        result = monitor_hello(stage.monitor, monitor_own_osinfo(), answer);
    if (!monitor_ok(result))
        throw testbed::TestbedError("a monitor: " + result.text);
}

void listen_briefly(Stage &stage)
{
    if (stage.monitor.fd < 0) {
        std::this_thread::sleep_for(MOMENT);
        return;
    }
    // A connection that ends is no news: the agent is going then.
    static_cast<void>(monitor_listen(stage.monitor, std::chrono::steady_clock::now() + MOMENT));
}

bool system_is_down()
{
    return !testbed::calls_of(SHUTDOWN).empty();
}

std::string status_page(const Stage &stage)
{
    const testbed::RunResult result = testbed::run({stage.programs + "/voltaria", "status"}, seconds(15));
    if (result.status != 0)
        throw testbed::TestbedError("voltaria status ended with status " + std::to_string(result.status) +
                                    ": " + result.output + result.errors);
    return result.output;
}

// The whole lines behind `seen`, which moves behind them.
static std::vector<std::string> new_lines(const std::string &text, std::size_t &seen)
{
    std::vector<std::string> lines;
    for (std::size_t end = text.find('\n', seen); end != std::string::npos; end = text.find('\n', seen)) {
        lines.push_back(text.substr(seen, end - seen));
        seen = end + 1;
    }
    return lines;
}

static int number_at(const std::string &line, std::size_t at)
{
    return line.size() > at ? std::atoi(line.substr(at, LOG_NUMBER_WIDTH).c_str()) : NO_EVENT;
}

bool is_logged(int event)
{
    std::size_t seen = 0;
    return std::ranges::any_of(
        new_lines(testbed::read_file(testbed::EVENT_LOG), seen),
        [event](const std::string &line) { return number_at(line, LOG_EVENT) == event; });
}

// The agent logs its own stop when everybody else has been told.
static void take_logged(Stage &stage, std::vector<News> &news, std::vector<News> &last)
{
    for (const std::string &line : new_lines(testbed::read_file(testbed::EVENT_LOG), stage.logged_seen)) {
        const int event = number_at(line, LOG_EVENT);
        const int cause = number_at(line, LOG_CAUSE);
        std::string text = "event " + std::to_string(event) + ", " + words_or_code(words_event(event), event);
        text += cause != NO_EVENT ? ", because of " + std::to_string(cause) : "";
        (event == AGENT_STOP ? last : news).push_back({"log", text});
    }
}

static std::string call_text(const testbed::Call &call)
{
    std::string text = call.name();
    for (const std::string &argument : call.arguments)
        text += " " + argument;
    return call.input.empty() ? text
                              : text + ": " + call.input.substr(0, call.input.find_last_not_of('\n') + 1);
}

// The programs by which users are told, and the one by which the system is told, which comes last.
static void take_calls(Stage &stage, std::vector<News> &users, std::vector<News> &last)
{
    const std::vector<testbed::Call> calls = testbed::calls();
    for (; stage.calls_seen < calls.size(); stage.calls_seen++) {
        const testbed::Call &call = calls[stage.calls_seen];
        if (call.name() == SHUTDOWN)
            last.push_back({"system", call.path.substr(0, call.path.rfind('/') + 1) + call_text(call)});
        else if (call.name() != "mesg" && call.name() != "who")
            users.push_back({"users", call_text(call)});
    }
}

static void take_messages(Stage &stage, std::vector<News> &news)
{
    for (const std::string &message : stage.monitor.messages) {
        news.push_back({"monitor", text_safe(message, TEXT_CODE::ShiftJis)});
        stage.heard += news.back().text + "\n";
    }
    stage.monitor.messages.clear();
}

// Switching off and cancelling; everything else that the unit hears all the time is questions.
static bool is_order(const std::string &text)
{
    return text == "C\\r" || (text.starts_with('S') && !text.starts_with("Si"));
}

// An order and the answer to it, and what happens to the unit.
static void take_line(Stage &stage, std::vector<News> &news)
{
    for (const std::string &line : new_lines(stage.ups.log(), stage.line_seen)) {
        std::istringstream fields(line);
        std::string time;
        std::string direction;
        std::string text;
        std::getline(fields >> time >> direction >> std::ws, text);
        if (direction == "ev") {
            news.push_back({"unit", text});
            continue;
        }
        if (direction == "rx" && is_order(text))
            news.push_back({"serial", "voltariad sends  " + text});
        else if (direction == "tx" && stage.ordered)
            news.push_back({"serial", "the unit answers " + text});
        stage.ordered = direction == "rx" && is_order(text);
    }
}

std::vector<News> take_news(Stage &stage)
{
    std::vector<News> news;
    std::vector<News> last;
    take_logged(stage, news, last);
    take_calls(stage, news, last);
    take_messages(stage, news);
    take_line(stage, news);
    news.insert(news.end(), last.begin(), last.end());
    return news;
}

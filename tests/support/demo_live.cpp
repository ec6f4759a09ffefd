// The demo with the user at the weather: the status is drawn once a second above the latest news, and keys
// fail mains, drain the battery, cut the line. Once the machine was shut down, a key boots it again.
#include "demo.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <deque>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

using testbed::seconds;

struct LiveKey {
    char key;
    const char *label;
    const char *command;  // for the simulated UPS
};
static constexpr std::array LIVE_KEYS = {
    LiveKey{'f', "mains fails", "mains fail"},     LiveKey{'r', "mains returns", "mains return"},
    LiveKey{'d', "battery drained", "battery 10"}, LiveKey{'c', "battery charged", "battery 100"},
    LiveKey{'l', "line cut", "line cut"},          LiveKey{'p', "line back", "line restore"}};
static constexpr char KEY_BOOT = 'b';
static constexpr char KEY_QUIT = 'q';

static constexpr std::size_t NEWS_KEPT = 5;

// Short enough to wait for, long enough to change one's mind.
static constexpr char CONFIG[] = "[ UPS ]\n\n AgentType = 4\n\n"
                                 "[ ShutDown ]\n\n EXPECTBLIFE = 60\n FIRSTWARN = 10\n INTERVAL = 10\n"
                                 " TurnOffDelay = 30\n\n";

// The user's terminal, giving each key at once; as before when the object ends.
class KeyTerminal
{
  public:
    KeyTerminal()
    {
        usable_ = tcgetattr(0, &before_) == 0;
        termios keys = before_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        if (usable_)
            tcsetattr(0, TCSANOW, &keys);
        std::fputs("\033[?1049h", stdout);
    }
    KeyTerminal(const KeyTerminal &) = delete;
    KeyTerminal &operator=(const KeyTerminal &) = delete;
    ~KeyTerminal()
    {
        std::fputs("\033[?1049l", stdout);
        std::fflush(stdout);
        if (usable_)
            tcsetattr(0, TCSANOW, &before_);
    }

  private:
    termios before_ = {};
    bool usable_ = false;
};

// The first lines of a text, as many as fit.
static std::string top_of(const std::string &text, int lines)
{
    std::size_t end = 0;
    for (int i = 0; i < lines && end < text.size(); i++)
        end = std::min(text.find('\n', end), text.size() - 1) + 1;
    return text.substr(0, end);
}

static std::string keys_text()
{
    std::string text;
    for (const LiveKey &key : LIVE_KEYS)
        text += std::string(1, key.key) + " " + key.label + "   ";
    return text + "q quit\n";
}

static std::string page_text(const Stage &stage)
{
    if (!stage.daemon.running() && system_is_down())
        return "The machine has been shut down. b boots it again.\n";
    const testbed::RunResult result = testbed::run({stage.programs + "/voltaria", "status"}, seconds(15));
    return result.status == 0 ? result.output : result.errors;
}

// The keys and the news stand above the page: of a page that is longer than the terminal the end is left out.
static void draw(const Stage &stage, const std::deque<std::string> &news)
{
    std::string page = keys_text() + "\n";
    for (const std::string &line : news)
        page += line + "\n";
    page += std::string(NEWS_KEPT + 1 - news.size(), '\n') + page_text(stage);
    winsize size = {};
    const bool known = ioctl(1, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    std::fputs(("\033[H\033[2J" + top_of(page, known ? size.ws_row - 1 : 24)).c_str(), stdout);
    std::fflush(stdout);
}

// One key, or 0 when none came within a second, or 'q' when there will be none.
static char next_key()
{
    pollfd wanted = {0, POLLIN, 0};
    const int count = poll(&wanted, 1, 1000);
    if (count <= 0)
        return 0;
    char key = 0;
    return read(0, &key, 1) == 1 ? key : KEY_QUIT;
}

static void keep(std::deque<std::string> &news, const std::string &line)
{
    news.push_back(line);
    while (news.size() > NEWS_KEPT)
        news.pop_front();
}

static void boot(Stage &stage)
{
    testbed::forget_calls();
    stage.calls_seen = 0;
    stage.ups.ask("output on");
    stage.daemon.start();
    connect_monitor(stage);
}

static void press(Stage &stage, char pressed, std::deque<std::string> &news)
{
    if (pressed == KEY_BOOT && !stage.daemon.running())
        boot(stage);
    for (const LiveKey &key : LIVE_KEYS)
        if (key.key == pressed)
            keep(news, std::string(key.label) + ": " + stage.ups.ask(key.command));
}

void live(Stage &stage)
{
    testbed::write_config(CONFIG);
    boot(stage);
    const KeyTerminal terminal;
    std::deque<std::string> news;
    while (stop_asked == 0) {
        listen_briefly(stage);
        for (const News &latest : take_news(stage))
            keep(news, std::string(latest.who) + ": " + latest.text);
        draw(stage, news);
        const char pressed = next_key();
        if (pressed == KEY_QUIT)
            return;
        press(stage, pressed, news);
    }
}

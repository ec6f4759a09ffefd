// The demo's player. It runs inside a sandbox that ./demo has opened, beside the real daemon and a simulated
// UPS, and plays one evening in the life of a server as a timeline of acts. An act that does not come about
// ends the play with status 1. With --live there is no play: the status is drawn once a second, and keys are
// the weather.

#include "testbed.h"

#include "shared_word.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using testbed::milliseconds;
using testbed::seconds;
using Clock = std::chrono::steady_clock;

// What both ways of playing have on stage.
struct Stage {
    std::string programs;  // directory
    testbed::Simulator &ups;
    testbed::Daemon &daemon;
    Clock::time_point start;
    std::size_t calls_shown = 0;
    int act = 0;
};

struct LiveKey {
    char key;
    const char *label;
    const char *command;  // for the simulated UPS
};
static constexpr std::array LIVE_KEYS = {
    LiveKey{'f', "mains fails", "mains fail"},     LiveKey{'r', "mains returns", "mains return"},
    LiveKey{'d', "battery drained", "battery 10"}, LiveKey{'c', "battery charged", "battery 100"},
    LiveKey{'l', "line cut", "line cut"},          LiveKey{'p', "line back", "line restore"}};

static volatile std::sig_atomic_t stop_asked = 0;

static double passed(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

static void say(const Stage &stage, const std::string &text)
{
    std::printf("  %6.1f s  %s\n", passed(stage.start), text.c_str());
    std::fflush(stdout);
}

static void open_act(Stage &stage, const char *title)
{
    std::printf("\n-- Act %d: %s\n", ++stage.act, title);
    std::fflush(stdout);
}

static std::string tenths(int whole, int digit)
{
    return std::to_string(whole) + "." + std::to_string(digit);
}

static std::string measured(const UPSDATA &data)
{
    return "input " + tenths(data.InPutINT, data.InPutREM) + " V, output " +
           tenths(data.OutPutINT, data.OutPutREM) + " V, battery " +
           tenths(data.BattVolINT, data.BattVolREM) + " V " + std::to_string(data.BattCap) + " %, load " +
           std::to_string(data.Load) + " %";
}

// What the machine's users and its mail were told since the last time.
static void show_notices(Stage &stage)
{
    const std::vector<testbed::Call> calls = testbed::calls();
    for (; stage.calls_shown < calls.size(); stage.calls_shown++) {
        const testbed::Call &call = calls[stage.calls_shown];
        if (call.name() == "mesg" || call.name() == "who")
            continue;
        std::string text = call.name();
        for (const std::string &argument : call.arguments)
            text += " " + argument;
        text += call.input.empty() ? "" : ": " + call.input.substr(0, call.input.find_last_not_of('\n') + 1);
        say(stage, "(" + text + ")");
    }
}

// Waits for a state of the daemon's record and says how long it took.
static void see(Stage &stage, const std::string &what, milliseconds limit, const testbed::SharedBlock &block,
                const std::function<bool()> &predicate)
{
    const Clock::time_point since = Clock::now();
    const auto seen_or_stopped = [&] {
        if (stop_asked != 0)
            throw testbed::TestbedError("interrupted");
        return predicate();
    };
    testbed::wait_until(what, limit, seen_or_stopped, [&] {
        return "CommStatus " + std::to_string(shared_load(block->ups.ui.CommStatus)) + ", upsstat " +
               std::to_string(shared_load(block->ups.ui.upsstat)) + ", " + measured(block->ups.ui.upsdata);
    });
    std::array<char, 32> time{};
    std::snprintf(time.data(), time.size(), " after %.1f s", passed(since));
    say(stage, what + time.data());
    show_notices(stage);
}

static bool communicates(const testbed::SharedBlock &block)
{
    return shared_load(block->ups.ui.CommStatus) == COMM_ESTABLISHED && shared_load(block->ups.ui.ComId) >= 0;
}

static int battery_tenths(const testbed::SharedBlock &block)
{
    return shared_load(block->ups.ui.upsdata.BattVolINT) * 10 + shared_load(block->ups.ui.upsdata.BattVolREM);
}

static std::string status_page(const Stage &stage)
{
    const testbed::RunResult result = testbed::run({stage.programs + "/voltaria", "status"}, seconds(15));
    if (result.status != 0)
        throw testbed::TestbedError("voltaria status ended with status " + std::to_string(result.status) +
                                    ": " + result.output + result.errors);
    return result.output;
}

static void act_found(Stage &stage, const testbed::SharedBlock &block)
{
    open_act(stage, "a UPS on /dev/ttyS0 is found");
    say(stage, "simulated " + stage.ups.options().model + " connected, voltariad started: agent process " +
                   std::to_string(stage.daemon.agent_pid()) + ", UPS process " +
                   std::to_string(stage.daemon.ups_pid()));
    see(stage, "UPS found", seconds(30), block, [&] { return communicates(block); });
    const std::array<char, 32> &model = block->ups.ui.upsmodel;
    say(stage, "it calls itself " + std::string(model.data(), strnlen(model.data(), model.size())));
}

static void act_status(Stage &stage)
{
    open_act(stage, "a monitor asks for the status over TCP");
    const std::string page = status_page(stage);
    say(stage, "$ voltaria status");
    for (std::size_t at = 0; at < page.size();) {
        const std::size_t end = std::min(page.find('\n', at), page.size());
        std::printf("%s%s\n", end > at ? "            " : "", page.substr(at, end - at).c_str());
        at = end + 1;
    }
}

static void act_battery(Stage &stage, const testbed::SharedBlock &block)
{
    open_act(stage, "mains fails");
    stage.ups.command("mains fail");
    say(stage, "mains is off");
    see(stage, "voltariad sees the failure", seconds(15), block,
        [&] { return shared_load(block->ups.ui.upsstat) == UPSSTAT_ACFAIL; });
    see(stage, "input reads 0 V", seconds(15), block,
        [&] { return shared_load(block->ups.ui.upsdata.InPutINT) == 0; });

    open_act(stage, "the battery drains");
    stage.ups.command("rate 30");
    const int before = battery_tenths(block);
    for (int i = 0; i < 5; i++) {
        say(stage, measured(block->ups.ui.upsdata));
        std::this_thread::sleep_for(seconds(1));
    }
    see(stage, "the battery's voltage has fallen", seconds(25), block,
        [&] { return battery_tenths(block) < before; });
    say(stage, measured(block->ups.ui.upsdata));
    stage.ups.command("rate 1");
}

static void act_return(Stage &stage, const testbed::SharedBlock &block)
{
    open_act(stage, "mains returns");
    stage.ups.command("mains return");
    say(stage, "mains is on");
    see(stage, "voltariad sees mains again", seconds(15), block, [&] {
        return shared_load(block->ups.ui.upsstat) == UPSSTAT_NORMAL &&
               shared_load(block->ups.ui.upsdata.InPutINT) > 10;
    });
    say(stage, measured(block->ups.ui.upsdata));
}

static void act_line(Stage &stage, const testbed::SharedBlock &block)
{
    open_act(stage, "the serial line is cut");
    stage.ups.command("line cut");
    say(stage, "nothing passes any more; voltariad asks again before it believes it");
    see(stage, "communication lost", seconds(30), block, [&] {
        return shared_load(block->ups.ui.CommStatus) == COMM_LOST && shared_load(block->ups.ui.ComId) < 0;
    });

    open_act(stage, "the line is back");
    stage.ups.command("line restore");
    see(stage, "UPS found again", seconds(30), block, [&] { return communicates(block); });
}

static void play(Stage &stage)
{
    {
        const testbed::SharedBlock block;
        act_found(stage, block);
        act_status(stage);
        act_battery(stage, block);
        act_return(stage, block);
        act_line(stage, block);
    }
    open_act(stage, "the end");
    stage.daemon.stop();
    say(stage, "voltariad was asked to stop and has ended, its shared block is " +
                   std::string(testbed::SharedBlock::exists() ? "still there" : "gone"));
    if (testbed::SharedBlock::exists())
        throw testbed::TestbedError("the shared block was left behind");
}

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

// The keys stand above the page: of a page that is longer than the terminal the end is left out.
static void draw_live(const Stage &stage, const std::string &said)
{
    const testbed::RunResult result = testbed::run({stage.programs + "/voltaria", "status"}, seconds(15));
    std::string page = "\033[H\033[2J";
    for (const LiveKey &key : LIVE_KEYS) {
        page += key.key;
        page += " ";
        page += key.label;
        page += "   ";
    }
    page += "q quit\n" + said + "\n\n" + (result.status == 0 ? result.output : result.errors);
    winsize size = {};
    const bool known = ioctl(1, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    std::fputs(top_of(page, known ? size.ws_row - 1 : 24).c_str(), stdout);
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
    return read(0, &key, 1) == 1 ? key : 'q';
}

static void live(Stage &stage)
{
    const KeyTerminal terminal;
    std::string said;
    while (stop_asked == 0) {
        draw_live(stage, said);
        const char pressed = next_key();
        if (pressed == 'q')
            return;
        for (const LiveKey &key : LIVE_KEYS)
            if (key.key == pressed)
                said = std::string(key.label) + ": " + stage.ups.ask(key.command);
    }
}

static void on_signal(int)
{
    stop_asked = 1;
}

static int perform(const std::string &programs, const std::string &model, bool is_live)
{
    testbed::SimulatorOptions options;
    options.model = model;
    options.pace = true;
    testbed::Simulator ups(programs + "/upssim", options);
    testbed::Daemon daemon(programs + "/voltariad");
    Stage stage = {programs, ups, daemon, Clock::now(), 0, 0};
    daemon.start();
    if (is_live)
        live(stage);
    else
        play(stage);
    return 0;
}

int main(int argc, char **argv)
{
    std::string model = "ZR900PL";
    bool is_live = false;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--live") == 0) {
            is_live = true;
        } else if (std::strcmp(argv[i], "--model") == 0 && i + 1 < argc) {
            model = argv[++i];
        } else {
            std::fputs("usage: demo_play [--live] [--model NAME], inside a sandbox\n", stderr);
            return 2;
        }
    }
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    try {
        return perform(VOLTARIA_PROGRAMS, model, is_live);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "the play ends here: %s\n", error.what());
        return 1;
    }
}

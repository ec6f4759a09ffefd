// The play: one evening in the life of a server, as a timeline of acts. Nothing is timed but by the daemon
// and the unit themselves; the play waits for what they do, and says what it sees.
#include "demo.h"

#include "shared_word.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

using testbed::milliseconds;
using testbed::seconds;

// Much longer than anything takes on a quiet machine.
static constexpr seconds PATIENCE{90};

// Times that are shorter than anybody would want them, so that the evening passes in a minute.
static constexpr char CONFIG[] = "[ UPS ]\n\n AgentType = 4\n\n"
                                 "[ ShutDown ]\n\n EXPECTBLIFE = 20\n FIRSTWARN = 5\n INTERVAL = 5\n"
                                 " TurnOffDelay = 12\n\n";

static constexpr int COMMUNICATION_ESTABLISHED = 1;  // event

static void say(const Stage &stage, const char *who, const std::string &text)
{
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - stage.start;
    std::printf("  %5.1f s  %-9s  %s\n", passed.count(), who, text.c_str());
    std::fflush(stdout);
}

static void open_act(Stage &stage, const char *title)
{
    std::printf("\n-- Act %d: %s\n\n", ++stage.act, title);
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

static std::string state_text(const testbed::SharedBlock &block)
{
    return "CommStatus " + std::to_string(shared_load(block->ups.ui.CommStatus)) + ", upsstat " +
           std::to_string(shared_load(block->ups.ui.upsstat)) + ", " +
           measured(shared_copy(block->ups.ui).upsdata);
}

// Waits for a thing to come about and tells meanwhile what else does.
static void see(Stage &stage, const std::string &what, const std::function<bool()> &predicate,
                const std::function<std::string()> &seen = {})
{
    const auto look = [&] {
        if (stop_asked != 0)
            throw testbed::TestbedError("interrupted");
        listen_briefly(stage);
        const bool there = predicate();
        for (const News &news : take_news(stage))
            say(stage, news.who, news.text);
        return there;
    };
    testbed::wait_until(what, PATIENCE, look, seen);
}

static bool users_were_told(const std::string &part)
{
    return std::ranges::any_of(testbed::calls_of("wall"), [&part](const testbed::Call &call) {
        return call.input.find(part) != std::string::npos;
    });
}

static bool is_pending(const testbed::SharedBlock &block)
{
    return shared_copy(block->ups.ui).nextdown.month != 0;
}

static void say_pending(const Stage &stage, const testbed::SharedBlock &block)
{
    const UPS_TIMEINFO next = shared_copy(block->ups.ui).nextdown;
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "shutdown at %02d:%02d:%02d unless mains returns", next.hour,
                  next.minute, next.second);
    say(stage, "voltariad", text.data());
}

// ---- the acts ----

static void print_page(const std::string &page)
{
    for (std::size_t at = 0; at < page.size();) {
        const std::size_t end = std::min(page.find('\n', at), page.size());
        std::printf("%s%s\n", end > at ? "                      " : "", page.substr(at, end - at).c_str());
        at = end + 1;
    }
}

static void act_status(Stage &stage, const testbed::SharedBlock &block)
{
    open_act(stage, "a UPS is found and a monitor asks for its status");
    say(stage, "voltariad",
        "started: agent process " + std::to_string(stage.daemon.agent_pid()) + ", UPS process " +
            std::to_string(stage.daemon.ups_pid()));
    see(
        stage, "a UPS on the serial line",
        [&] {
            return shared_load(block->ups.ui.CommStatus) == COMM_ESTABLISHED &&
                   shared_load(block->ups.ui.ComId) >= 0 && is_logged(COMMUNICATION_ESTABLISHED);
        },
        [&] { return state_text(block); });
    connect_monitor(stage);
    const std::string page = status_page(stage);
    say(stage, "monitor", "$ voltaria status");
    print_page(page.substr(0, page.find("\nSettings")));  // what follows is for the curious
}

static void fail_mains(Stage &stage, const testbed::SharedBlock &block)
{
    stage.ups.command("mains fail");
    say(stage, "weather", "mains is off");
    see(
        stage, "the countdown to the shutdown",
        [&] { return shared_load(block->ups.ui.upsstat) == UPSSTAT_ACFAIL && is_pending(block); },
        [&] { return state_text(block); });
    say_pending(stage, block);
}

static void act_flicker(Stage &stage, const testbed::SharedBlock &block)
{
    open_act(stage, "mains flickers and returns in time");
    fail_mains(stage, block);
    see(
        stage, "a warning to users and monitors",
        [&stage] {
            return users_were_told("UPS Ac fail") && stage.heard.find("UPS Ac fail") != std::string::npos;
        },
        [&] { return state_text(block); });
    say(stage, "voltariad", measured(shared_copy(block->ups.ui).upsdata));
    stage.ups.command("mains return");
    say(stage, "weather", "mains is on");
    see(
        stage, "the end of the countdown",
        [&] {
            if (system_is_down())
                throw testbed::TestbedError("mains was back, and the system was shut down all the same");
            return shared_load(block->ups.ui.upsstat) == UPSSTAT_NORMAL && !is_pending(block) &&
                   users_were_told("UPS AC Restore");
        },
        [&] { return state_text(block); });
    say(stage, "voltariad", "no shutdown is pending");
}

static void act_outage(Stage &stage, const testbed::SharedBlock &block)
{
    open_act(stage, "mains fails for good");
    fail_mains(stage, block);
    see(
        stage, "the shutdown of the system", [] { return system_is_down(); },
        [&] { return state_text(block); });
    const testbed::Call call = testbed::calls_of("shutdown").front();
    if (call.path != "/sbin/shutdown" || call.arguments != std::vector<std::string>{"-h", "-t0", "0"})
        throw testbed::TestbedError("the system was shut down in another way than ordered");
    see(stage, "the last notice to monitors",
        [&stage] { return stage.heard.find("Time is up!") != std::string::npos; });
    see(stage, "the end of voltariad", [&stage] { return !stage.daemon.running(); });
    say(stage, "voltariad", "both processes have ended; the power stays on for 12 s more");
    see(
        stage, "the unit's output going off",
        [&stage] { return stage.ups.log().find(" ev output off") != std::string::npos; },
        [&stage] { return stage.ups.status(); });
}

void play(Stage &stage)
{
    testbed::write_config(CONFIG);
    stage.daemon.start();
    {
        const testbed::SharedBlock block;
        act_status(stage, block);
        act_flicker(stage, block);
        act_outage(stage, block);
    }
    if (testbed::calls_of("shutdown").size() != 1)
        throw testbed::TestbedError("the system was shut down more than once");
    std::puts("\nThe server went down in order, and the battery is spared for the next time.");
}

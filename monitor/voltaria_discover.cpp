// `voltaria discover`: asks several times, because datagrams get lost, and collects what comes.
#include "monitor_discover.h"
#include "monitor_json.h"
#include "voltaria_follow.h"
#include "voltaria_read.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

using STEADY = std::chrono::steady_clock;

static constexpr std::chrono::seconds ASKING_INTERVAL{1};
static constexpr std::chrono::seconds FOLLOWING_INTERVAL{10};  // announcements bring the changes before

static DISCOVERY_OPTIONS options_of(const DISCOVER_LINE &line)
{
    DISCOVERY_OPTIONS options;
    options.addresses = line.addresses;
    return options;
}

// ---- Once ----

static int print_found(const DISCOVER_LINE &line, const std::vector<FOUND_AGENT> &agents)
{
    const int status = line.json ? print_raw(agents_json(agents) + "\n")
                                 : print(agents.empty() ? "" : discover_table(agents));
    if (status == EXIT_SUCCESS && agents.empty())
        return fail("no agent answered", EXIT_UNREACHED);
    return status;
}

static int discover_once(const DISCOVER_LINE &line, const DISCOVERY &discovery)
{
    std::vector<FOUND_AGENT> agents;
    const STEADY::time_point end =
        STEADY::now() + std::chrono::milliseconds(std::lround(line.timeout * 1000));
    while (STEADY::now() < end) {
        const MONITOR_RESULT result = discover_inquire(discovery);
        if (!monitor_ok(result))
            return fail(result);
        const STEADY::time_point next = std::min<STEADY::time_point>(STEADY::now() + ASKING_INTERVAL, end);
        while (const auto agent = discover_receive(discovery, next))
            discover_merge(agents, *agent);
    }
    return print_found(line, agents);
}

// ---- For good ----

static int print_change(const DISCOVER_LINE &line, const FOUND_AGENT &agent)
{
    if (line.json)
        return print_raw(agent_json_line(agent) + "\n");
    return print(clock_text(std::time(nullptr), "%Y-%m-%d %H:%M:%S  ") + discover_line(agent));
}

static int discover_changes(const DISCOVER_LINE &line, const DISCOVERY &discovery)
{
    std::vector<FOUND_AGENT> agents;
    std::string told;
    for (int round = 0;; ++round) {
        const MONITOR_RESULT result = discover_inquire(discovery);
        if (result.text != told && !monitor_ok(result))
            static_cast<void>(fail(result));
        told = result.text;
        const STEADY::time_point next = STEADY::now() + (round < 3 ? ASKING_INTERVAL : FOLLOWING_INTERVAL);
        while (const auto agent = discover_receive(discovery, next, quit_fd()))
            if (discover_merge(agents, *agent) && print_change(line, *agent) != EXIT_SUCCESS)
                return EXIT_REFUSED;
        if (quit_within(0))
            return EXIT_SUCCESS;
    }
}

int discover(const DISCOVER_LINE &line)
{
    DISCOVERY discovery;
    const MONITOR_RESULT result = discover_open(options_of(line), discovery);
    if (!monitor_ok(result))
        return fail(result);
    if (discovery.announce_fd < 0)
        static_cast<void>(fail("announcements cannot be heard on UDP port 4113 (" + discovery.deaf_because +
                               "); going on with the answers to inquiries"));
    if (line.follow && !catch_quit_signals()) {
        std::perror("voltaria: discover");
        return EXIT_FAILURE;
    }
    const int status = line.follow ? discover_changes(line, discovery) : discover_once(line, discovery);
    discover_close(discovery);
    return status;
}

// `voltariactl stop` and `reload`: a request through the shared block, and waiting until it has come about. A
// daemon that systemd looks after is stopped through systemd, which then makes the same request.
#include "control.h"
#include "control_block.h"
#include "control_unit.h"
#include "shared_word.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <unistd.h>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static constexpr double LOCK_PATIENCE = 10;  // s; it is held for moments
static constexpr double START_PATIENCE = 5;  // s; until a daemon that has just come can be asked
static constexpr milliseconds STEP{20};      // between two looks
static constexpr milliseconds AGAIN{500};    // between two datagrams that wake the agent

// Until `done`, at most `patience` seconds.
static bool wait_for(double patience, const std::function<bool()> &done)
{
    const auto begin = steady_clock::now();
    const auto limit =
        begin + std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(patience));
    for (auto wake = begin + AGAIN; !done(); std::this_thread::sleep_for(STEP)) {
        const auto now = steady_clock::now();
        if (now >= limit)
            return false;
        if (now >= wake) {
            block_wake();
            wake = now + AGAIN;
        }
    }
    return true;
}

static milliseconds lock_patience(double patience)
{
    return std::chrono::duration_cast<milliseconds>(
        std::chrono::duration<double>(std::min(patience, LOCK_PATIENCE)));
}

static bool is_root()
{
    return geteuid() == 0;
}

static std::string seconds_words(double seconds)
{
    std::string text = std::to_string(seconds);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.')
        text.pop_back();
    return text + " s";
}

// ---- stop ----

static bool still_there(const PROCESS &process)
{
    const auto found = system_process(SYSTEM{}, process.pid);
    return found && found->start == process.start;
}

static bool any_left(const std::vector<PROCESS> &processes)
{
    for (const PROCESS &process : processes)
        if (still_there(process))
            return true;
    return false;
}

static std::vector<PROCESS> members(const DAEMON &daemon)
{
    std::vector<PROCESS> list;
    for (const auto &process : {daemon.agent, daemon.ups})
        if (process)
            list.push_back(*process);
    return list;
}

static int await_end(const std::vector<PROCESS> &processes, double patience)
{
    if (wait_for(patience, [&] { return !any_left(processes); }))
        return print("voltariad has stopped\n");
    std::string left;
    for (const PROCESS &process : processes)
        if (still_there(process))
            left += (left.empty() ? "" : " and ") + process_words(process);
    return fail("voltariad was asked to stop, but " + left + " is still there after " +
                seconds_words(patience));
}

static int await_unit(const std::vector<PROCESS> &processes, double patience)
{
    const SYSTEM system;
    const std::string complaint =
        unit_stop(system, std::chrono::duration_cast<milliseconds>(std::chrono::duration<double>(patience)));
    if (!complaint.empty())
        return fail(complaint);
    if (unit_runs_us(system))
        return print("systemd stops voltariad once this command has ended\n");
    return await_end(processes, patience);
}

// Processes that cannot be asked: what is left of a daemon that was killed, or one whose block is not to be
// found.
static int unasked(const std::vector<PROCESS> &processes, const std::string &complaint)
{
    std::string names;
    std::string numbers;
    for (const PROCESS &process : processes) {
        names += (names.empty() ? "" : " and ") + process_words(process);
        numbers += " " + std::to_string(process.pid);
    }
    const std::string why = complaint.empty() ? "the agent process is gone, or not to be found" : complaint;
    return fail(names + " cannot be asked to stop (" + why + "): run \"kill -9" + numbers + "\"");
}

static std::vector<PROCESS> running_daemons()
{
    std::vector<PROCESS> list = system_processes(SYSTEM{});
    list.erase(
        std::remove_if(list.begin(), list.end(), [](const PROCESS &process) { return !is_daemon(process); }),
        list.end());
    return list;
}

// A daemon that has just been started has no block yet, or not both processes; one that ends no longer has.
static BLOCK attach_running(double patience, DAEMON &daemon)
{
    BLOCK block;
    static_cast<void>(wait_for(std::min(patience, START_PATIENCE), [&] {
        block_detach(block);
        block = block_attach(true);
        daemon = block.block != nullptr ? daemon_processes(SYSTEM{}, *block.block) : DAEMON{};
        return daemon.agent || running_daemons().empty();
    }));
    return block;
}

static int nothing_runs(const BLOCK &block, double patience)
{
    const SYSTEM system;
    const std::vector<PROCESS> left = running_daemons();
    if (std::any_of(left.begin(), left.end(),
                    [&](const PROCESS &process) { return unit_owns(system, process); }))
        return await_unit(left, patience);
    if (!left.empty())
        return unasked(left, block.complaint);
    if (unit_restarts(system))
        return await_unit({}, patience);
    return block.complaint.empty() ? print(std::string(NOT_RUNNING) + "\n") : fail(block.complaint);
}

int control_stop(double patience)
{
    if (!is_root())
        return fail("only root can stop voltariad");
    DAEMON daemon;
    BLOCK block = attach_running(patience, daemon);
    if (!daemon.agent) {
        block_detach(block);
        return nothing_runs(block, patience);
    }
    if (unit_owns(SYSTEM{}, *daemon.agent)) {
        block_detach(block);
        return await_unit(members(daemon), patience);
    }
    const std::string complaint = block_request(*block.block, REQUEST_STOP, lock_patience(patience));
    block_detach(block);
    return complaint.empty() ? await_end(members(daemon), patience) : fail(complaint);
}

// ---- reload ----

static int await_taken(const AGINFO &block, const PROCESS &agent, double patience)
{
    const auto taken = [&] { return shared_load(block.isagentchg) == REQUEST_NOTHING; };
    const bool ended = wait_for(patience, [&] { return taken() || !still_there(agent); });
    if (ended && taken())
        return print("voltariad has read its role and its group again\n");
    if (ended)
        return fail("voltariad ended before it took the request", EXIT_NOTRUNNING);
    return fail("voltariad has not taken the request within " + seconds_words(patience) +
                "; it will when it gets to it");
}

static int reload(AGINFO &block, double patience)
{
    const DAEMON daemon = daemon_processes(SYSTEM{}, block);
    if (!daemon.agent)
        return fail(NOT_RUNNING, EXIT_NOTRUNNING);
    if (shared_load(block.isagentchg) < 0)
        return fail("voltariad has been asked to stop and takes no other request");
    const std::string complaint = block_request(block, REQUEST_AGENTEVENT, lock_patience(patience));
    return complaint.empty() ? await_taken(block, *daemon.agent, patience) : fail(complaint);
}

int control_reload(double patience)
{
    if (!is_root())
        return fail("only root can make voltariad read its role and its group again");
    BLOCK block = block_attach(true);
    if (block.block == nullptr)
        return block.complaint.empty() ? fail(NOT_RUNNING, EXIT_NOTRUNNING) : fail(block.complaint);
    const int status = reload(*block.block, patience);
    block_detach(block);
    return status;
}

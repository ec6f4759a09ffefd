// VirtualClock: runs, scripted events, and the thread that lets the processes serve their descriptors while
// the test does something else than run.

#include "vclock.h"

#include "vclock_coordinator.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <list>
#include <mutex>
#include <optional>
#include <random>
#include <sched.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace testbed
{

using Duration = VirtualClock::Duration;

static constexpr auto QUICK = std::chrono::microseconds(200);  // between two rounds while things happen
static constexpr auto SLOW = std::chrono::milliseconds(1);
static constexpr int ROUNDS_BEFORE_SLOW = 20;

struct Scripted {
    vclock::Nanoseconds when;
    std::function<void()> action;
};

struct VirtualClock::State {
    vclock::Coordinator coordinator;
    std::mutex mutex;  // of the coordinator
    std::list<Scripted> script;
    std::string trouble;  // what the serving thread met
    std::optional<std::string> old_zone;
    std::string zone;
    cpu_set_t old_processors{};
    std::atomic<bool> ending = false;
    std::thread server;

    State(const ClockOptions &options)
        : coordinator(options.start * vclock::SECOND, options.patience), zone(options.zone)
    {
    }
    void serve();
    bool serve_once();
};

static void set_zone(const std::optional<std::string> &zone)
{
    if (zone)
        setenv("TZ", zone->c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

// Only one process works at a time, so one processor is enough, and handing on is much cheaper within one.
// It passes on to the processes that the test starts. Their priority stays as it is: tests that run in real
// time beside this one need the machine too.
static void prefer_one_processor(cpu_set_t &old_processors)
{
    CPU_ZERO(&old_processors);
    if (sched_getaffinity(0, sizeof old_processors, &old_processors) != 0)
        return;
    std::vector<int> allowed;
    for (int i = 0; i < CPU_SETSIZE; ++i)
        if (CPU_ISSET(i, &old_processors))
            allowed.push_back(i);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(allowed[static_cast<std::size_t>(std::random_device()()) % allowed.size()], &one);
    sched_setaffinity(0, sizeof one, &one);
}

static void take_any_processor(const cpu_set_t &old_processors)
{
    if (CPU_COUNT(&old_processors) > 0)
        sched_setaffinity(0, sizeof old_processors, &old_processors);
}

VirtualClock::VirtualClock(const ClockOptions &options) : state_(std::make_unique<State>(options))
{
    if (const char *zone = std::getenv("TZ"))
        state_->old_zone = zone;
    set_zone(options.zone);
    prefer_one_processor(state_->old_processors);
    state_->server = std::thread([state = state_.get()] { state->serve(); });
}

VirtualClock::~VirtualClock()
{
    state_->ending = true;
    state_->server.join();
    take_any_processor(state_->old_processors);
    set_zone(state_->old_zone);
}

bool VirtualClock::State::serve_once()
{
    const std::lock_guard lock(mutex);
    try {
        coordinator.expect_anything();
        return coordinator.settle();
    } catch (const std::exception &error) {
        trouble = error.what();
        return false;
    }
}

void VirtualClock::State::serve()
{
    int quiet = 0;
    while (!ending) {
        quiet = serve_once() ? 0 : quiet + 1;
        if (quiet < ROUNDS_BEFORE_SLOW)
            std::this_thread::sleep_for(QUICK);
        else
            std::this_thread::sleep_for(SLOW);
    }
}

// ---- attaching

Environment VirtualClock::environment() const
{
    return {{"LD_PRELOAD", VOLTARIA_VCLOCK},
            {vclock::FILE_VARIABLE, state_->coordinator.path()},
            {"TZ", state_->zone}};
}

static void add(Environment &to, const Environment &more)
{
    to.insert(to.end(), more.begin(), more.end());
}

void VirtualClock::attach(Daemon &daemon) const
{
    add(daemon.environment, environment());
}

void VirtualClock::attach(SimulatorOptions &options) const
{
    add(options.environment, environment());
    options.environment.emplace_back(vclock::EXACT_VARIABLE, "1");
}

// ---- the clocks

Duration VirtualClock::now() const
{
    return Duration(state_->coordinator.now() - vclock::BOOTED);
}

Duration VirtualClock::wall_exact() const
{
    return Duration(state_->coordinator.wall());
}

std::int64_t VirtualClock::wall() const
{
    return std::chrono::floor<seconds>(wall_exact()).count();
}

void VirtualClock::set_wall(std::int64_t seconds_since_epoch)
{
    const std::lock_guard lock(state_->mutex);
    state_->coordinator.set_wall(seconds_since_epoch * vclock::SECOND);
}

void VirtualClock::shift_wall(Duration by)
{
    const std::lock_guard lock(state_->mutex);
    state_->coordinator.set_wall(state_->coordinator.wall() + by.count());
}

// ---- runs

void VirtualClock::at(Duration when, std::function<void()> action)
{
    const vclock::Nanoseconds moment = when.count() + vclock::BOOTED;
    const auto later = [moment](const Scripted &other) { return other.when > moment; };
    const auto behind = std::find_if(state_->script.begin(), state_->script.end(), later);
    state_->script.insert(behind, {moment, std::move(action)});
}

void VirtualClock::at_wall(std::int64_t seconds_since_epoch, std::function<void()> action)
{
    at(now() + (seconds(seconds_since_epoch) - wall_exact()), std::move(action));
}

// The lock is given up while code of the test runs: it may ask the processes something.
void VirtualClock::run(Duration end, Duration leap, const Predicate *predicate)
{
    const vclock::Nanoseconds target = end.count() + vclock::BOOTED;
    vclock::Coordinator &coordinator = state_->coordinator;
    std::unique_lock lock(state_->mutex);
    if (!state_->trouble.empty())
        throw TestbedError(std::exchange(state_->trouble, ""));
    coordinator.expect_anything();
    for (;;) {
        coordinator.settle();
        if (!state_->script.empty() && state_->script.front().when <= coordinator.now()) {
            const std::function<void()> action = std::move(state_->script.front().action);
            state_->script.pop_front();
            lock.unlock();
            action();
            lock.lock();
            coordinator.expect_anything();
            continue;
        }
        if (predicate != nullptr) {
            lock.unlock();
            const bool fulfilled = (*predicate)();
            lock.lock();
            if (fulfilled)
                return;
        }
        if (coordinator.now() >= target)
            return;
        const vclock::Nanoseconds limit =
            state_->script.empty() ? target : std::min(target, state_->script.front().when);
        coordinator.step(limit, leap.count());
    }
}

void VirtualClock::run_for(Duration time)
{
    run(now() + time, Duration(0), nullptr);
}

void VirtualClock::run_to(Duration moment)
{
    run(moment, Duration(0), nullptr);
}

void VirtualClock::leap_for(Duration time, Duration step)
{
    run(now() + time, step, nullptr);
}

void VirtualClock::leap_until(const std::string &what, const Predicate &predicate, Duration limit,
                              Duration step)
{
    run(now() + limit, step, &predicate);
    if (!predicate())
        throw TestbedError("no " + what + " within " +
                           std::to_string(std::chrono::duration<double>(limit).count()) +
                           " s of the clock; at its end:\n" + picture());
}

void VirtualClock::run_until(const std::string &what, const Predicate &predicate, Duration limit)
{
    leap_until(what, predicate, limit, Duration(0));
}

// The agent looks at the request only on a turn on which something arrived.
void VirtualClock::stop(const Daemon &daemon, Duration limit)
{
    SharedBlock::request(-1);
    const UdpSocket socket;
    socket.send("127.0.0.1", AGENT_UDP_PORT, std::string_view("\0", 1));
    run_until(
        "end of the daemon", [&] { return !daemon.running(); }, limit);
}

std::string VirtualClock::picture() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->coordinator.picture();
}

std::size_t VirtualClock::participants() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->coordinator.participants();
}

}  // namespace testbed

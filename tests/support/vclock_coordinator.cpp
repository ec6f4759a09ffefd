// How a moment of the clock goes: all who work are waited for; then one who waits and may have something to
// do (its deadline has come, or somebody did something since it last looked) is asked to look, the eldest
// first; if it finds something it works until it waits again. When everybody has looked in vain, time moves.
// The looks are the kernel's own: a look at a terminal waits for the bytes that the kernel is still carrying
// to it, so nothing that was written before is missed.

#include "vclock_coordinator.h"

#include "testbed.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <utility>

namespace vclock
{

using Clock = std::chrono::steady_clock;
using testbed::TestbedError;

static constexpr Nanoseconds IDLE = 900'000'000;  // a wait that was asked to take this long is idle
static constexpr Nanoseconds LONG_STEP = 100'000'000;
static constexpr Nanoseconds LOOK_FOR_DEATHS = 200'000;  // ns of real time
static constexpr auto BEFORE_STUCK = std::chrono::milliseconds(50);
static constexpr auto BETWEEN_LOOKS = std::chrono::milliseconds(20);  // at a process that seems stuck
static constexpr useconds_t FLIGHT = 50;                              // us that a packet may need

static Shared *make_shared_file(std::string &path)
{
    path = "/tmp/vclock.XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0 || fchmod(fd, 0666) != 0 || ftruncate(fd, sizeof(Shared)) != 0)
        throw TestbedError(path + ": " + std::strerror(errno));
    void *address = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (address == MAP_FAILED)
        throw TestbedError(path + ": " + std::strerror(errno));
    return static_cast<Shared *>(address);
}

Coordinator::Coordinator(Nanoseconds start, std::chrono::nanoseconds patience)
    : shared_(make_shared_file(path_)), patience_(patience), known_(MOST_PARTICIPANTS)
{
    shared_->coordinator = getpid();
    shared_->now.store(BOOTED);
    shared_->wall_offset.store(start - BOOTED);
}

// The processes that are still there find out by themselves and serve their descriptors in a standing time.
Coordinator::~Coordinator()
{
    shared_->released.store(1);
    for (std::size_t i = 0; i < top(); ++i)
        futex_wake(place(i).asked);
    for (const Known &known : known_)
        if (known.handle >= 0)
            close(known.handle);
    unlink(path_.c_str());
    munmap(shared_, sizeof(Shared));
}

// ---- who is there

static int open_handle(pid_t pid)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

static void forget(Participant &place)
{
    place.pid.store(0);
    place.asked.store(place.answered.load());
    place.state.store(State::Free);
}

// Takes up whoever has claimed a place since the last look.
void Coordinator::meet()
{
    for (std::size_t i = 0; i < top(); ++i) {
        Known &known = known_[i];
        const pid_t pid = place(i).pid.load();
        if (place(i).state.load() == State::Free || pid == 0 || known.pid == pid)
            continue;
        if (known.handle >= 0)
            close(known.handle);
        known = {};
        known.pid = pid;
        known.handle = open_handle(pid);
        known.birth = place(i).birth;
        known.left = place(i).left.load();
        if (known.handle < 0)
            forget(place(i));  // it came and went
    }
}

// Frees the places of those who have ended. True when there were any; then their parents have been told.
bool Coordinator::bury()
{
    meet();
    std::vector<pollfd> handles;
    std::vector<std::size_t> owners;
    for (std::size_t i = 0; i < top(); ++i) {
        if (known_[i].pid == 0 || place(i).state.load() == State::Free)
            continue;
        handles.push_back({known_[i].handle, POLLIN, 0});
        owners.push_back(i);
    }
    if (handles.empty() || poll(handles.data(), handles.size(), 0) <= 0)
        return false;
    for (std::size_t i = 0; i < handles.size(); ++i) {
        if (handles[i].revents == 0)
            continue;
        close(known_[owners[i]].handle);
        known_[owners[i]] = {};
        forget(place(owners[i]));
    }
    // A handle becomes readable a moment before SIGCHLD is sent, under a lock that this call takes too.
    getpriority(PRIO_PGRP, 0);
    expect_anything();
    return true;
}

// ---- who works

bool Coordinator::is_busy(std::size_t i) const
{
    const Participant &one = place(i);
    const State state = one.state.load();
    if (state == State::Free || known_[i].stuck)
        return false;
    return state == State::Working || one.asked.load() != one.answered.load();
}

bool Coordinator::all_wait() const
{
    for (std::size_t i = 0; i < top(); ++i)
        if (is_busy(i))
            return false;
    return true;
}

static std::string read_line(const std::string &path, const char *start)
{
    std::string text = testbed::read_file(path);
    const std::size_t at = text.find(start);
    return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) - at);
}

// How a process sleeps: changes when it has run in between. Empty when it does not sleep.
static std::string sleep_of(pid_t pid)
{
    const std::string status = "/proc/" + std::to_string(pid) + "/status";
    const std::string state = read_line(status, "State:");
    if (state.find("\tS") == std::string::npos && state.find("\tT") == std::string::npos)
        return "";
    return state + read_line(status, "voluntary_ctxt") + read_line(status, "nonvoluntary");
}

static bool is_stopped(const std::string &sleep)
{
    return sleep.find("\tT") != std::string::npos;
}

// Finds those who work and yet sleep: in a call that the library does not replace, or without the library;
// and those who were stopped and do not answer.
void Coordinator::find_stuck()
{
    for (std::size_t i = 0; i < top(); ++i) {
        Known &known = known_[i];
        if (known.pid == 0 || !is_busy(i))
            continue;
        const std::string sleep = sleep_of(known.pid);
        const bool may_sleep = place(i).state.load() == State::Working || is_stopped(sleep);
        known.stuck = may_sleep && !sleep.empty() && sleep == known.sleep;
        known.sleep = sleep;
    }
}

// One who has run on since is waited for again.
void Coordinator::look_at_stuck()
{
    for (std::size_t i = 0; i < top(); ++i) {
        Known &known = known_[i];
        const bool waits = place(i).state.load() != State::Working && !is_stopped(known.sleep);
        if (known.stuck && (waits || sleep_of(known.pid) != known.sleep)) {
            known.stuck = false;
            known.sleep.clear();
            expect_anything();
        }
    }
}

// Waits in real time until nobody works.
void Coordinator::await_all()
{
    RealTime progress = Clock::now();
    RealTime next_look = progress + BEFORE_STUCK;
    std::uint32_t last_bell = shared_->bell.load();
    for (;;) {
        const std::uint32_t bell = shared_->bell.load();
        if (all_wait())
            return;
        futex_wait(shared_->bell, bell, LOOK_FOR_DEATHS);
        const RealTime time = Clock::now();
        if (shared_->bell.load() != last_bell || bury()) {
            last_bell = shared_->bell.load();
            progress = time;
            next_look = std::max(next_look, time + BEFORE_STUCK);
        } else if (time - progress > patience_) {
            give_up();
        }
        if (time >= next_look) {
            find_stuck();
            next_look = time + BETWEEN_LOOKS;
        }
    }
}

// ---- who is asked

bool Coordinator::is_stale(std::size_t i) const
{
    const Participant &one = place(i);
    if (one.state.load() != State::Waiting || known_[i].stuck)
        return false;
    const Nanoseconds time = now();
    if (known_[i].seen == 0 || one.deadline <= time || one.timer_at <= time)
        return true;
    for (std::size_t kind = 0; kind < KINDS; ++kind)
        if ((one.awaited >> kind & 1) != 0 && known_[i].seen < done_[kind])
            return true;
    return false;
}

void Coordinator::note_done(std::uint32_t kinds)
{
    ++activity_;
    for (std::size_t kind = 0; kind < KINDS; ++kind)
        if ((kinds >> kind & 1) != 0)
            done_[kind] = activity_;
}

// Notes who has worked since the last look, and what that may have brought to others.
bool Coordinator::note_activity()
{
    int count = 0;
    std::uint32_t kinds = 0;
    std::size_t last = 0;
    for (std::size_t i = 0; i < top(); ++i) {
        const std::uint32_t left = place(i).left.load();
        if (known_[i].pid == 0 || (std::exchange(known_[i].left, left) == left && place(i).done == 0))
            continue;
        kinds |= std::exchange(place(i).done, 0);
        last = i;
        ++count;
    }
    if (count == 0)
        return false;
    note_done(kinds);
    if (count == 1)
        known_[last].seen = activity_;  // it looked when its work was done
    const std::uint32_t sent = shared_->sent.load();
    if (std::exchange(sent_, sent) != sent)
        in_flight_ = true;
    return true;
}

// Asks the eldest of those who may have something to do. False when there is none.
bool Coordinator::ask_next()
{
    std::size_t next = MOST_PARTICIPANTS;
    for (std::size_t i = 0; i < top(); ++i)
        if (is_stale(i) && (next == MOST_PARTICIPANTS || place(i).birth < place(next).birth))
            next = i;
    if (next == MOST_PARTICIPANTS)
        return false;
    known_[next].seen = activity_;
    place(next).asked.fetch_add(1);
    futex_wake(place(next).asked);
    return true;
}

void Coordinator::expect_anything()
{
    note_done(EVERYTHING);
    in_flight_ = true;
}

bool Coordinator::settle_once()
{
    const RealTime start = Clock::now();
    bool worked = false;
    do {
        await_all();
        meet();
        const bool active = note_activity();
        worked |= active;
        if (active && Clock::now() - start > patience_)
            give_up();
    } while (ask_next());
    return worked;
}

bool Coordinator::settle()
{
    bury();
    look_at_stuck();
    bool worked = settle_once();
    while (std::exchange(in_flight_, false)) {
        usleep(FLIGHT);
        bury();
        look_at_stuck();
        note_done(EVERYTHING);
        worked |= settle_once();
    }
    return worked;
}

// ---- time

bool Coordinator::all_idle() const
{
    for (std::size_t i = 0; i < top(); ++i)
        if (place(i).state.load() == State::Waiting && !known_[i].stuck && place(i).exact == 0 &&
            place(i).patience < IDLE)
            return false;
    return true;
}

void Coordinator::step(Nanoseconds limit, Nanoseconds leap)
{
    Nanoseconds next = NEVER;   // the first deadline
    Nanoseconds bound = limit;  // what a leap keeps
    for (std::size_t i = 0; i < top(); ++i) {
        const Participant &one = place(i);
        if (one.state.load() != State::Waiting || known_[i].stuck)
            continue;
        next = std::min({next, one.deadline, one.timer_at});
        bound = std::min({bound, one.timer_at, one.exact != 0 ? one.deadline : NEVER});
    }
    Nanoseconds target = std::min(next, limit);
    if (leap > 0 && all_idle())
        target = std::max(target, std::min(bound, now() + leap));
    // What was done without the library's notice is found at the next longer wait at the latest.
    if (target - now() >= LONG_STEP)
        note_done(EVERYTHING);
    shared_->now.store(std::max(target, now()));
}

// ---- what it looks like

std::size_t Coordinator::participants() const
{
    std::size_t count = 0;
    for (std::size_t i = 0; i < top(); ++i)
        count += place(i).state.load() != State::Free;
    return count;
}

std::string Coordinator::picture() const
{
    std::string text;
    for (std::size_t i = 0; i < top(); ++i) {
        const Participant &one = place(i);
        const State state = one.state.load();
        if (state == State::Free)
            continue;
        text += "process " + std::to_string(one.pid.load()) + " " + one.program.data() + ": ";
        if (state == State::Working)
            text += std::string(known_[i].stuck ? "sleeps in the kernel, " : "works, ") +
                    read_line("/proc/" + std::to_string(one.pid.load()) + "/status", "State:");
        else
            text += std::string("waits in ") + one.call.data() +
                    (one.deadline == NEVER
                         ? " without a deadline"
                         : " for " + std::to_string((one.deadline - now()) / 1000) + " us more");
        text += '\n';
    }
    return text.empty() ? "no process under the clock\n" : text;
}

void Coordinator::give_up() const
{
    throw TestbedError("time stands still at " + std::to_string((now() - BOOTED) / 1000) +
                       " us of the clock:\n" + picture());
}

}  // namespace vclock

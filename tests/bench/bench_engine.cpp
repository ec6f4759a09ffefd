// Figures of the event engine, entered in this process as the agent process enters it, printed as tables. It
// writes the fixed files, so run it in the sandbox:
//   build/dev/bin/sandbox -- build/dev/bin/bench_engine [turn|settings|paging]
#include "agent.h"
#include "e_a.h"
#include "e_a_internal.h"
#include "testbed.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace testbed;
using Clock = std::chrono::steady_clock;

// ---- what stands for the agent process ----

AGENT agent{};

static int callbacks;  // calls of Event_CallBack

int Event_CallBack(int, void *, int, int)
{
    ++callbacks;
    return 0;
}

void net_broadcastdown(AGENT *)
{
}

// ---- allocations: every one of this process passes here ----

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
}

static std::atomic<long> allocations;

extern "C" void *malloc(std::size_t size) noexcept
{
    ++allocations;
    return __libc_malloc(size);
}

extern "C" void *calloc(std::size_t count, std::size_t size) noexcept
{
    ++allocations;
    return __libc_calloc(count, size);
}

extern "C" void *realloc(void *block, std::size_t size) noexcept
{
    ++allocations;
    return __libc_realloc(block, size);
}

// ---- the records that the agent process hands in ----

static AGINFO block;
static UPS_PARAM request;
static UPS_USERSINFO userinfo{0, agent.us.data()};
static UPS_EIN_DATA ein;
static UPS_EOUT_DATA eout;

static int act(std::int32_t cmd)
{
    std::int32_t answer = 0;
    return Event_Action(cmd, &ein, &answer, &eout);
}

// A machine on mains with an established link, its start-up events logged.
static void start_engine()
{
    agent.aip = &block;
    UPS_UPSINFO &info = block.ups.ui;
    field_set(info.upsmodel, "ZR900PL");
    info.CommStatus = COMM_ESTABLISHED;
    info.BattStatus = 1;
    info.upsdata.InPutINT = 100;
    info.upsdata.OutPutINT = 100;
    info.upsdata.BattCap = 100;
    ein.DATA.upsinfop = eout.DATA.upsinfop = &info;
    ein.DATA.upsconfigp = &request;
    eout.DATA.upsconfigp = &block.ups.up;
    ein.DATA.eu = eout.DATA.eu = {agent.el.data(), &userinfo};
    act(E_CMD_INIT);
    for (int i = 0; i < 3; ++i)
        act(E_CMD_CHECKSTATUS);
}

static double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Milliseconds that one call takes; the median of `runs`.
template <typename CALL> static double milliseconds_of(int runs, CALL call)
{
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        const auto start = Clock::now();
        call();
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    return median(times);
}

// ---- one idle turn ----

// Bounds the turns that are counted: a call that does nothing and that the engine never makes.
static void mark()
{
    syscall(SYS_getppid);
}

// Child: some turns between two marks, for a parent that looks at every system call.
[[noreturn]] static void run_traced(int turns)
{
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    std::raise(SIGSTOP);
    mark();
    for (int i = 0; i < turns; ++i)
        act(E_CMD_CHECKSTATUS);
    mark();
    _exit(0);
}

// How often each system call was made between the two marks.
static std::map<long, long> count_calls(pid_t child)
{
    std::map<long, long> counts;
    int marks = 0;
    bool entry = false;
    int status = 0;
    waitpid(child, &status, 0);
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
    while (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child &&
           WIFSTOPPED(status)) {
        if (WSTOPSIG(status) != (SIGTRAP | 0x80))
            continue;
        entry = !entry;
        if (!entry)
            continue;
        __ptrace_syscall_info info{};
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        const long number = static_cast<long>(info.entry.nr);
        if (number == SYS_getppid)
            ++marks;
        else if (marks == 1)
            ++counts[number];
    }
    return counts;
}

static std::string call_name(long number)
{
    static const std::map<long, const char *> names = {{SYS_read, "read"},
                                                       {SYS_write, "write"},
                                                       {SYS_openat, "openat"},
                                                       {SYS_close, "close"},
                                                       {SYS_fstat, "fstat"},
                                                       {SYS_lseek, "lseek"},
                                                       {SYS_newfstatat, "newfstatat"},
                                                       {SYS_brk, "brk"},
                                                       {SYS_mmap, "mmap"},
                                                       {SYS_munmap, "munmap"},
                                                       {SYS_uname, "uname"},
                                                       {SYS_futex, "futex"},
                                                       {SYS_clock_gettime, "clock_gettime"}};
    const auto name = names.find(number);
    return name != names.end() ? name->second : "call " + std::to_string(number);
}

static void bench_turn()
{
    start_engine();
    constexpr int BATCHES = 41;
    constexpr int TURNS = 10'000;
    std::vector<double> times;
    long allocated = 0;
    const int called = callbacks;
    for (int i = 0; i < BATCHES; ++i) {
        const double time = milliseconds_of(1, [&allocated] {
            const long before = allocations;
            for (int turn = 0; turn < TURNS; ++turn)
                act(E_CMD_CHECKSTATUS);
            allocated += allocations - before;
        });
        times.push_back(time * 1000 / TURNS);
    }
    std::printf("one idle turn, median of %d batches of %d: %.3f us (slowest batch %.3f us)\n", BATCHES,
                TURNS, median(times), *std::max_element(times.begin(), times.end()));
    std::printf("allocations in these %d turns: %ld, callbacks: %d\n", BATCHES * TURNS, allocated,
                callbacks - called);
    std::fflush(stdout);
    constexpr int TRACED = 1000;
    const pid_t child = fork();
    if (child == 0)
        run_traced(TRACED);
    const std::map<long, long> counts = count_calls(child);
    std::printf("system calls in %d idle turns:", TRACED);
    for (const auto &[number, count] : counts)
        std::printf(" %s %ld", call_name(number).c_str(), count);
    std::puts(counts.empty() ? " none" : "");
}

// ---- the event settings ----

static void fill_settings()
{
    act(E_CMD_GETEVENT);
    for (std::size_t i = 0; i < EVENT_COUNT; ++i)
        field_set(agent.el[i].Command, "/usr/local/sbin/ups-event " + std::to_string(agent.el[i].EventID));
    userinfo.nusers = static_cast<std::int32_t>(USER_COUNT);
    for (std::size_t i = 0; i < USER_COUNT; ++i) {
        USERSDATA &user = agent.us[i];
        user.UserID = static_cast<std::uint8_t>(i + 1);
        field_set(user.UserName, "operator" + std::to_string(i + 1));
        field_set(user.Address, "server1.example.org");
        field_set(user.Email, "operator" + std::to_string(i + 1) + "@example.org");
    }
}

// Settings of others, in front of ours: every look-up passes them.
static std::string others(std::size_t size)
{
    std::string text;
    for (int section = 0; text.size() < size; ++section) {
        text += "[ Other" + std::to_string(section) + " ]\n\n";
        for (int key = 0; key < 6; ++key)
            text += " Key" + std::to_string(key) + " = a value of usual length\n";
        text += "\n";
    }
    return text;
}

static void bench_settings()
{
    start_engine();
    fill_settings();
    for (int i = 0; i < 3; ++i)
        setevent(&ein, &eout);
    const std::string full = read_config();
    std::puts("54 event settings and 32 users, on a file that holds them already (medians)");
    std::puts("file kB  load ms  save ms");
    for (const std::size_t factor : {1U, 4U, 16U}) {
        write_config(others((factor - 1) * full.size()) + full);
        const int runs = factor > 4 ? 5 : 11;
        int failures = 0;
        const double load =
            milliseconds_of(runs, [&] { failures += getevent(agent.el.data(), &ein, &eout); });
        const double save = milliseconds_of(runs, [&] { failures += setevent(&ein, &eout); });
        std::printf("%7.1f  %7.2f  %7.2f%s\n", static_cast<double>(read_config().size()) / 1024, load, save,
                    failures != 0 || userinfo.nusers != 32 ? "  FAILED" : "");
        std::fflush(stdout);
    }
}

// ---- paging ----

static void bench_paging()
{
    start_engine();
    std::puts("10 records out of the event log (medians)");
    std::puts(" lines  first line      us");
    for (const int lines : {200, 200'000}) {
        std::string log;
        for (int i = 0; i < lines; ++i)
            log += " 5/ 3/2004  9: 7: 2  65 255                \n";
        write_file(EVENT_LOG, log);
        for (const int first : {0, lines / 2, lines - 10}) {
            const LOGRANGE range{first, 10};
            int records = 0;
            const double time = milliseconds_of(101, [&] {
                EVENTLOGARRAY page{};
                geteventlog(&range, &page);
                records = page.rnum;
                delete[] page.eventlogarray;
            });
            std::printf("%6d  %10d  %6.0f%s\n", lines, first, time * 1000, records == 10 ? "" : "  FAILED");
        }
    }
}

int main(int argc, char **argv)
{
    const std::string wanted = argc > 1 ? argv[1] : "";
    if (!in_sandbox()) {
        std::fputs("writes the fixed files: runs in the sandbox only\n", stderr);
        return 1;
    }
    const std::vector<std::pair<std::string, void (*)()>> benches = {
        {"turn", bench_turn}, {"settings", bench_settings}, {"paging", bench_paging}};
    for (const auto &[name, run_bench] : benches)
        if (wanted.empty() || wanted == name)
            run_bench();
    return 0;
}

// How fast the real daemon acts when it matters, against the simulated unit at 2400 baud, printed as tables.
// Run in the sandbox:
//   build/dev/bin/sandbox -- build/dev/bin/bench_shutdown [failure|deadline] [RUNS]
#include "testbed.h"

#include "shared_word.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <poll.h>
#include <random>
#include <sstream>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using namespace testbed;

static const std::string VOLTARIAD = VOLTARIA_PROGRAMS "/voltariad";
static const std::string UPSSIM = VOLTARIA_PROGRAMS "/upssim";
static constexpr double BYTE_TIME = 10.0 / 2400;  // s
static constexpr auto PATIENCE = 120s;
static constexpr char NOTICE = 79;  // DataId

// The clock that everything is told by; s since the epoch.
static double now()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

static SimulatorOptions paced()
{
    SimulatorOptions options;
    options.pace = true;
    return options;
}

// When the unit's own clock was 0; of a few answers the one that came fastest tells best.
static double unit_start(Simulator &unit)
{
    double start = 0;
    double fastest = 1;
    for (int i = 0; i < 20; ++i) {
        const double asked = now();
        const std::string status = unit.status();
        const double answered = now();
        if (answered - asked >= fastest)
            continue;
        fastest = answered - asked;
        start = (asked + answered) / 2 - std::stod(status.substr(status.find("\"time\":") + 7));
    }
    return start;
}

// The first line behind `from` in the unit's log that holds `part`: its time by the unit's clock and its
// text.
struct LINE {
    double at;
    std::string text;
};

static std::optional<LINE> line_with(const Simulator &unit, std::size_t from, const std::string &part)
{
    std::istringstream log(unit.log().substr(from));
    for (std::string line; std::getline(log, line);)
        if (line.find(part) != std::string::npos)
            return LINE{std::stod(line), line.substr(line.find(part))};
    return std::nullopt;
}

// The status line that told the failure, and when its last byte had crossed the line.
static std::optional<double> failure_told(const Simulator &unit, std::size_t from)
{
    const std::string log = unit.log();
    const std::size_t failed = log.find(" ev mains failure\n", from);
    if (failed == std::string::npos)
        return std::nullopt;
    std::istringstream lines(log.substr(failed + 1));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t reply = line.find(" tx (");
        const std::size_t flags = line.rfind(' ');
        if (reply != std::string::npos && line.ends_with("\\r") && line.size() - flags == 11 &&
            line[flags + 1] == '1')
            return std::stod(line) + static_cast<double>(line.size() - reply - 5) * BYTE_TIME;
    }
    return std::nullopt;
}

// Tells when a file grows.
class Growth
{
  public:
    explicit Growth(const char *path) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        inotify_add_watch(fd_, path, IN_MODIFY);
    }
    Growth(const Growth &) = delete;
    Growth &operator=(const Growth &) = delete;
    ~Growth()
    {
        close(fd_);
    }
    [[nodiscard]] int fd() const
    {
        return fd_;
    }
    void pass() const
    {
        std::array<char, 4096> events;
        while (read(fd_, events.data(), events.size()) > 0)
            continue;
    }

  private:
    int fd_;
};

// True when the event stands in the log behind its first `from` bytes.
static bool is_logged(std::size_t from, int event)
{
    std::array<char, 8> id{};
    std::snprintf(id.data(), id.size(), " %3d ", event);
    const std::string text = read_file(EVENT_LOG);
    std::istringstream log(text.substr(std::min(from, text.size())));
    for (std::string line; std::getline(log, line);)
        if (line.size() > 24 && line.compare(19, 5, id.data()) == 0)
            return true;
    return false;
}

// How a monitor that only listens, and so is told in Japanese, learns of it: the notice's beginning in
// Shift_JIS.
static const std::string MAINS_FAILED = "\x92\xe2\x93\x64";

// True when a notice with the text has come.
static bool take_notice(const TcpClient &monitor, std::string &bytes, const std::string &part)
{
    std::array<char, 4096> piece;
    for (ssize_t count; (count = read(monitor.fd(), piece.data(), piece.size())) > 0;)
        bytes.append(piece.data(), static_cast<std::size_t>(count));
    return bytes.size() > 3 && bytes[3] == NOTICE && bytes.find(part) != std::string::npos;
}

static void wait_for_link()
{
    const SharedBlock block;
    wait_until("the link", PATIENCE,
               [&] { return shared_load(block->ups.ui.CommStatus) == COMM_ESTABLISHED; });
}

// The settings with which a mains failure is told to users and monitors at once.
static void write_settings(int expectblife, int firstwarn)
{
    write_config("[ UPS ]\n\n AgentType = 4\n\n[ ShutDown ]\n\n EXPECTBLIFE = " +
                 std::to_string(expectblife) + "\n FIRSTWARN = " + std::to_string(firstwarn) +
                 "\n INTERVAL = 60\n TurnOffDelay = 600\n\n[ Event65 ]\n\n BroadcastType = 0\n\n");
}

static void print_row(const char *what, std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    std::printf("%-34s  %8.1f  %8.1f  %8.1f\n", what, times.front() * 1000, times[times.size() / 2] * 1000,
                times.back() * 1000);
}

// ---- from the mains failure to what is said about it ----

struct SEEN {
    double logged = 0;
    double noticed = 0;
};

// Waits, asleep, for the event's line and for the notice.
static SEEN watch(const TcpClient &monitor, const Growth &growth, std::size_t from)
{
    SEEN seen;
    std::string bytes;
    std::array<pollfd, 2> polled = {{{growth.fd(), POLLIN, 0}, {monitor.fd(), POLLIN, 0}}};
    const double end = now() + 60;
    while ((seen.logged == 0 || seen.noticed == 0) && now() < end) {
        poll(polled.data(), polled.size(), 1000);
        const double woke = now();
        growth.pass();
        if (seen.logged == 0 && is_logged(from, 65))
            seen.logged = woke;
        if (seen.noticed == 0 && take_notice(monitor, bytes, MAINS_FAILED))
            seen.noticed = woke;
    }
    if (seen.logged == 0 || seen.noticed == 0)
        throw TestbedError("no event line or no notice within a minute");
    return seen;
}

static void bench_failure(int runs)
{
    write_settings(3600, 0);
    Simulator unit(UPSSIM, paced());
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link();
    const SharedBlock block;
    const Growth growth(EVENT_LOG);
    const double start = unit_start(unit);
    std::mt19937 random(1);
    std::vector<double> polled;
    std::vector<double> logged;
    std::vector<double> noticed;
    std::vector<double> walled;
    for (int i = 0; i < runs; ++i) {
        const std::chrono::milliseconds phase(std::uniform_int_distribution(1000, 3000)(random));
        eventually(phase, [] { return false; });
        const TcpClient monitor;
        const std::size_t from = read_file(EVENT_LOG).size();
        const std::size_t line = unit.log().size();
        forget_calls();
        unit.command("mains fail");
        const SEEN seen = watch(monitor, growth, from);
        wait_until("wall", PATIENCE, [] { return !calls_of("wall").empty(); });
        const double told = start + failure_told(unit, line).value();
        polled.push_back(told - (start + line_with(unit, line, "ev mains failure")->at));
        logged.push_back(seen.logged - told);
        noticed.push_back(seen.noticed - told);
        walled.push_back(calls_of("wall").front().time - told);
        unit.command("mains return");
        unit.command("battery 100");
        wait_until("mains", PATIENCE, [&] {
            return shared_load(block->ups.ui.upsstat) == UPSSTAT_NORMAL && is_logged(from, 0);
        });
    }
    std::printf("mains failure, ZR900PL, %d failures at random moments; ms\n", runs);
    std::puts("                                     minimum    median   maximum");
    print_row("failure to the reply that tells it", polled);
    print_row("reply to the line in the event log", logged);
    print_row("reply to the notice at a monitor", noticed);
    print_row("reply to the call of wall", walled);
}

// ---- from the deadline to the end ----

static double shown_deadline(const SharedBlock &block)
{
    const UPS_TIMEINFO shown = shared_copy(block->ups.ui).nextdown;
    std::tm date{};
    date.tm_year = shown.year;
    date.tm_mon = shown.month - 1;
    date.tm_mday = shown.day;
    date.tm_hour = shown.hour;
    date.tm_min = shown.minute;
    date.tm_sec = shown.second;
    date.tm_isdst = -1;
    return shown.month != 0 ? static_cast<double>(std::mktime(&date)) : 0;
}

struct END {
    double deadline = 0;
    double reached = 0;  // event 129 in the log
};

static END watch_end(const SharedBlock &block, const Growth &growth)
{
    END end;
    pollfd polled{growth.fd(), POLLIN, 0};
    const double last = now() + 60;
    while (end.reached == 0 && now() < last) {
        if (const double shown = shown_deadline(block); shown != 0)
            end.deadline = shown;
        poll(&polled, 1, 200);
        const double woke = now();
        growth.pass();
        if (is_logged(0, 129))
            end.reached = woke;
    }
    return end;
}

static void bench_deadline(int runs)
{
    std::vector<double> reached;
    std::vector<double> ordered;
    std::vector<double> down;
    std::vector<double> behind_order;
    std::vector<double> behind_down;
    for (int i = 0; i < runs; ++i) {
        write_settings(5, 5);
        unlink(EVENT_LOG);
        forget_calls();
        Simulator unit(UPSSIM, paced());
        Daemon daemon(VOLTARIAD);
        daemon.start();
        wait_for_link();
        const SharedBlock block;
        const Growth growth(EVENT_LOG);
        const double start = unit_start(unit);
        unit.command("mains fail");
        const END end = watch_end(block, growth);
        wait_until("shutdown", PATIENCE, [] { return !calls_of("shutdown").empty(); });
        const double order = start + line_with(unit, 0, " rx S10\\r").value().at;
        const double shutdown = calls_of("shutdown").front().time;
        reached.push_back(end.reached - end.deadline);
        ordered.push_back(order - end.deadline);
        down.push_back(shutdown - end.deadline);
        behind_order.push_back(order - end.reached);
        behind_down.push_back(shutdown - end.reached);
    }
    std::printf("deadline of a mains failure, ZR900PL, %d shutdowns; ms\n", runs);
    std::puts("                                     minimum    median   maximum");
    print_row("shown deadline to event 129", reached);
    print_row("shown deadline to order heard", ordered);
    print_row("shown deadline to /sbin/shutdown", down);
    print_row("event 129 to order heard", behind_order);
    print_row("event 129 to /sbin/shutdown", behind_down);
}

int main(int argc, char **argv)
{
    const std::string wanted = argc > 1 ? argv[1] : "";
    const int runs = argc > 2 ? std::atoi(argv[2]) : 0;
    try {
        if (wanted.empty() || wanted == "failure")
            bench_failure(runs > 0 ? runs : 30);
        if (wanted.empty() || wanted == "deadline")
            bench_deadline(runs > 0 ? runs : 10);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}

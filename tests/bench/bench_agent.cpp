// Figures of the real daemon against the simulated unit at 2400 baud, printed as tables. Run in the sandbox:
//   build/dev/bin/sandbox -- build/dev/bin/bench_agent [models|flips|requests|idle]
#include "testbed.h"
#include "wire_records.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <poll.h>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using namespace testbed;
using Clock = std::chrono::steady_clock;

static const std::string VOLTARIAD = VOLTARIA_PROGRAMS "/voltariad";
static const std::string UPSSIM = VOLTARIA_PROGRAMS "/upssim";
static constexpr double BYTE_TIME = 10.0 / 2400;  // s
static constexpr auto PATIENCE = 60s;

static std::string status_request()
{
    return {"\x10\x01\x01\x10\x08\0\0\0", 8};
}

// The body of the next packet that is no notice.
static std::string next_answer(const TcpClient &client)
{
    for (;;) {
        const std::string head = client.receive(8, PATIENCE);
        std::uint32_t length = 0;
        std::memcpy(&length, head.data() + 4, sizeof length);
        std::string body = length > 8 ? client.receive(length - 8, PATIENCE) : "";
        if (head[3] != DATAID_MESSAGE)
            return body;
    }
}

static UPS_UPSINFO ask(const TcpClient &client)
{
    client.send(status_request());
    const std::string answer = next_answer(client);
    UPS_UPSINFO info{};
    std::memcpy(&info, answer.data(), std::min(answer.size(), sizeof info));
    return info;
}

static void wait_for_link()
{
    const SharedBlock block;
    wait_until("the link", PATIENCE, [&] {
        return __atomic_load_n(&block->ups.ui.CommStatus, __ATOMIC_SEQ_CST) == COMM_ESTABLISHED;
    });
}

static SimulatorOptions paced(const std::string &model)
{
    SimulatorOptions options;
    options.model = model;
    options.pace = true;
    return options;
}

// One line of the simulator's log; `bytes` counts the characters on the line.
struct LOGLINE {
    double at = 0;
    bool received = false;
    std::string text;
    double bytes = 0;
};

static std::vector<LOGLINE> parse_log(const std::string &log)
{
    std::vector<LOGLINE> lines;
    std::istringstream input(log);
    for (std::string line; std::getline(input, line);) {
        LOGLINE entry;
        std::istringstream fields(line);
        std::string direction;
        if (!(fields >> entry.at >> direction) || (direction != "rx" && direction != "tx"))
            continue;
        entry.received = direction == "rx";
        std::getline(fields >> std::ws, entry.text);
        // "\r" and other escapes stand for one character each.
        entry.bytes = static_cast<double>(entry.text.size()) -
                      static_cast<double>(std::count(entry.text.begin(), entry.text.end(), '\\'));
        lines.push_back(entry);
    }
    return lines;
}

struct PASS {
    double start = 0;
    double measured = 0;
    double line = 0;
};

// The passes in a log: from one "Q1" to the end of the last reply before the next.
static std::vector<PASS> passes_of(const std::vector<LOGLINE> &lines)
{
    std::vector<PASS> passes;
    for (const LOGLINE &line : lines) {
        if (line.received && line.text.starts_with("Q1"))
            passes.push_back({line.at - line.bytes * BYTE_TIME, 0, 0});
        if (passes.empty())
            continue;
        PASS &pass = passes.back();
        pass.line += line.bytes * BYTE_TIME;
        pass.measured = (line.received ? line.at : line.at + line.bytes * BYTE_TIME) - pass.start;
    }
    if (!passes.empty())
        passes.pop_back();  // perhaps cut short
    return passes;
}

static double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? NAN : values[values.size() / 2];
}

static double percentile(std::vector<double> values, double part)
{
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1,
                           static_cast<std::size_t>(part * static_cast<double>(values.size())))];
}

static void bench_models()
{
    std::puts("status pass at 2400 baud (medians of the passes in 20 s)");
    std::puts("model      passes  line s  measured s  added %  period s");
    for (const char *model : {"ZR401", "ZR6020", "ZR900PL", "ZR950PL", "ZM300LT", "ZQ500"}) {
        const Simulator unit(UPSSIM, paced(model));
        Daemon daemon(VOLTARIAD);
        daemon.start();
        wait_for_link();
        const std::size_t from = unit.log().size();
        eventually(20s, [] { return false; });
        const auto passes = passes_of(parse_log(unit.log().substr(from)));
        std::vector<double> line;
        std::vector<double> measured;
        std::vector<double> period;
        for (std::size_t i = 0; i < passes.size(); ++i) {
            line.push_back(passes[i].line);
            measured.push_back(passes[i].measured);
            if (i > 0)
                period.push_back(passes[i].start - passes[i - 1].start);
        }
        std::printf("%-9s  %6zu  %6.3f  %10.3f  %7.1f  %8.3f\n", model, passes.size(), median(line),
                    median(measured), (median(measured) / median(line) - 1) * 100, median(period));
        std::fflush(stdout);
    }
}

static void bench_flips()
{
    Simulator unit(UPSSIM, paced("ZR900PL"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link();
    const TcpClient client;
    std::mt19937 random(1);
    std::vector<double> delays;
    for (int i = 0; i < 30; ++i) {
        const std::chrono::milliseconds phase(std::uniform_int_distribution(0, 2000)(random));
        eventually(phase, [] { return false; });
        unit.command("mains fail");
        const auto flipped = Clock::now();
        wait_until("upsstat 33", PATIENCE, [&] { return ask(client).upsstat == UPSSTAT_ACFAIL; });
        delays.push_back(std::chrono::duration<double>(Clock::now() - flipped).count());
        unit.command("mains return");
        unit.command("battery 100");
        wait_until("upsstat 0", PATIENCE, [&] { return ask(client).upsstat == UPSSTAT_NORMAL; });
    }
    std::printf("mains failure to a polling monitor, ZR900PL, 30 flips: minimum %.2f s, median %.2f s, "
                "maximum %.2f s\n",
                percentile(delays, 0), median(delays), percentile(delays, 1));
}

static void bench_requests()
{
    const Simulator unit(UPSSIM, paced("ZR900PL"));
    std::puts("status requests, each connection asks again as soon as it is answered, 5 s");
    std::puts("connections  served  requests/s  median us  99th us");
    for (const int count : {1, 16, 64}) {
        Daemon daemon(VOLTARIAD);
        daemon.start();
        wait_for_link();
        std::vector<std::unique_ptr<TcpClient>> clients;
        for (int i = 0; i < count; ++i)
            clients.push_back(std::make_unique<TcpClient>());
        std::vector<pollfd> polled;
        std::vector<Clock::time_point> asked;
        std::vector<std::size_t> pending(clients.size(), 228);
        std::vector<bool> answered(clients.size(), false);
        for (const auto &client : clients) {
            polled.push_back({client->fd(), POLLIN, 0});
            asked.push_back(Clock::now());
            client->send(status_request());
        }
        std::vector<double> trips;
        const auto end = Clock::now() + 5s;
        while (Clock::now() < end) {
            poll(polled.data(), polled.size(), 100);
            for (std::size_t i = 0; i < polled.size(); ++i) {
                if ((polled[i].revents & POLLIN) == 0)
                    continue;
                std::array<char, 228> bytes;
                const ssize_t got = read(polled[i].fd, bytes.data(), pending[i]);
                pending[i] -= got > 0 ? static_cast<std::size_t>(got) : 0;
                if (pending[i] > 0)
                    continue;
                answered[i] = true;
                trips.push_back(std::chrono::duration<double, std::micro>(Clock::now() - asked[i]).count());
                pending[i] = 228;
                asked[i] = Clock::now();
                clients[i]->send(status_request());
            }
        }
        std::printf("%11d  %6td  %10.0f  %9.0f  %7.0f\n", count,
                    std::count(answered.begin(), answered.end(), true), static_cast<double>(trips.size()) / 5,
                    median(trips), percentile(trips, 0.99));
        std::fflush(stdout);
    }
}

struct USAGE {
    double cpu = 0;  // s
    double switches = 0;
};

static USAGE usage_of(pid_t pid)
{
    USAGE usage;
    const std::string schedstat = read_file("/proc/" + std::to_string(pid) + "/schedstat");
    usage.cpu = std::stod(schedstat.substr(0, schedstat.find(' '))) / 1e9;
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/status");
    usage.switches = std::stod(text.substr(text.find("\nvoluntary_ctxt_switches:") + 25));
    return usage;
}

static long pss_of(pid_t pid)
{
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    const std::size_t at = text.find("\nPss:");
    return at == std::string::npos ? -1 : std::stol(text.substr(at + 5));
}

static void bench_idle()
{
    const Simulator unit(UPSSIM, paced("ZR900PL"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link();
    constexpr double SECONDS = 60;
    const std::vector<std::pair<const char *, pid_t>> processes = {{"agent process", daemon.agent_pid()},
                                                                   {"UPS process", daemon.ups_pid()}};
    std::vector<USAGE> before;
    for (const auto &[name, pid] : processes)
        before.push_back(usage_of(pid));
    eventually(60s, [] { return false; });
    std::printf("idle on mains, ZR900PL at 2400 baud, %.0f s\n", SECONDS);
    std::puts("process        CPU s/hour  wake-ups/s  PSS kB");
    for (std::size_t i = 0; i < processes.size(); ++i) {
        const USAGE now = usage_of(processes[i].second);
        std::printf("%-13s  %10.2f  %10.1f  %6ld\n", processes[i].first,
                    (now.cpu - before[i].cpu) / SECONDS * 3600, (now.switches - before[i].switches) / SECONDS,
                    pss_of(processes[i].second));
    }
}

int main(int argc, char **argv)
{
    const std::string wanted = argc > 1 ? argv[1] : "";
    const std::vector<std::pair<std::string, void (*)()>> benches = {
        {"models", bench_models}, {"flips", bench_flips}, {"requests", bench_requests}, {"idle", bench_idle}};
    try {
        for (const auto &[name, run_bench] : benches)
            if (wanted.empty() || wanted == name)
                run_bench();
    } catch (const TestbedError &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}

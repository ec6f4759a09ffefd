// Figures of the real daemon as monitors meet it: requests per second and latencies by kind of request, and
// what the agent process holds after many requests and connections. Printed as tables. Run in the sandbox:
//   build/dev/bin/sandbox -- build/dev/bin/bench_protocol [rates|memory|connects]
#include "testbed.h"
#include "tests/system/mixed_requests.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <poll.h>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using namespace testbed;
using Clock = std::chrono::steady_clock;

static const std::string VOLTARIAD = VOLTARIA_PROGRAMS "/voltariad";
static const std::string UPSSIM = VOLTARIA_PROGRAMS "/upssim";

static constexpr int LOG_LINES = 200;
static constexpr int USERS = 4;

static void wait_for_link()
{
    const SharedBlock block;
    wait_until("the link", 60s, [&] {
        return __atomic_load_n(&block->ups.ui.CommStatus, __ATOMIC_SEQ_CST) == COMM_ESTABLISHED;
    });
}

static void write_log(int lines)
{
    std::string log;
    for (int i = 0; i < lines; ++i)
        log += " 5/ 3/2004  9: 7: 2  65 255                \n";
    write_file(EVENT_LOG, log);
}

// ---- rates

static std::string with_users(std::string events, int count)
{
    events.resize(PACKET_HEAD_SIZE + 47 * sizeof(UPS_EVENTINFO));
    for (int i = 0; i < count; ++i) {
        const std::string number = std::to_string(i + 1);
        events += std::string(1, static_cast<char>(i + 1)) + std::string(1, '\0') +
                  mixed::text_field("operator" + number, 21) + mixed::text_field("server1.example.org", 260) +
                  mixed::text_field("operator" + number + "@example.org", 260);
    }
    const auto length = static_cast<std::uint32_t>(events.size());
    std::memcpy(events.data() + 4, &length, sizeof length);
    return events;
}

// What a monitor sends and the DataId of the answer that ends it. Settings are not answered: a status request
// behind each proves that it was handled.
struct KIND {
    const char *name;
    std::string request;
    std::uint8_t answer;
};

static std::vector<KIND> kinds_of(const TcpClient &client)
{
    const mixed::SETTINGS settings = mixed::read_settings(client);
    const std::string events = with_users(settings.events, USERS);
    const std::string status = mixed::packet(DATAID_GETUPSINFO);
    // A section of users that is new to the file is found only once it has been written again.
    for (int i = 0; i < 3; ++i)
        (void)mixed::ask(client, events + status);
    return {{"16 status", status, DATAID_ANSUPSINFO},
            {"24(1) event log, 200 lines", mixed::command(1, 0, LOG_LINES), DATAID_ANSEVENTLOG},
            {"24(4) event settings", mixed::command(4), DATAID_EVENTS},
            {"24(5) configuration", mixed::command(5), DATAID_CONFIG},
            {"82 configuration, then 16", settings.config + status, DATAID_ANSUPSINFO},
            {"81 event settings, then 16", events + status, DATAID_ANSUPSINFO}};
}

// One connection that asks again as soon as it is answered.
struct ASKER {
    TcpClient client;
    std::string heard;
    Clock::time_point asked;
};

static void ask(ASKER &asker, const KIND &kind)
{
    asker.asked = Clock::now();
    asker.client.send(kind.request);
}

// Takes whole packets out of what was heard. The length of the answer waited for, or 0 when it is not there.
static std::size_t take_answer(ASKER &asker, const KIND &kind)
{
    std::array<char, 65536> bytes;
    const ssize_t got = read(asker.client.fd(), bytes.data(), bytes.size());
    if (got <= 0)
        throw TestbedError("the agent closed a connection");
    asker.heard.append(bytes.data(), static_cast<std::size_t>(got));
    std::size_t answered = 0;
    for (;;) {
        std::uint32_t length = PACKET_HEAD_SIZE;
        if (asker.heard.size() >= PACKET_HEAD_SIZE)
            std::memcpy(&length, asker.heard.data() + 4, sizeof length);
        if (asker.heard.size() < length)
            return answered;
        if (static_cast<std::uint8_t>(asker.heard[3]) == kind.answer)
            answered = length;
        asker.heard.erase(0, length);
    }
}

static double percentile(std::vector<double> values, double part)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1,
                           static_cast<std::size_t>(part * static_cast<double>(values.size())))];
}

static void measure(const KIND &kind, std::vector<std::unique_ptr<ASKER>> &askers)
{
    constexpr auto SPAN = 5s;
    std::vector<pollfd> polled;
    for (const auto &asker : askers) {
        polled.push_back({asker->client.fd(), POLLIN, 0});
        ask(*asker, kind);
    }
    std::vector<double> trips;  // us
    std::size_t length = 0;
    const auto start = Clock::now();
    std::size_t waiting = askers.size();
    while (waiting > 0) {
        poll(polled.data(), polled.size(), 1000);
        for (std::size_t i = 0; i < polled.size(); ++i) {
            if ((polled[i].revents & POLLIN) == 0)
                continue;
            const std::size_t answered = take_answer(*askers[i], kind);
            if (answered == 0)
                continue;
            length = answered;
            trips.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - askers[i]->asked).count());
            if (Clock::now() - start < SPAN)
                ask(*askers[i], kind);
            else
                --waiting;
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("%-27s  %11zu  %12zu  %10.0f  %9.0f  %8.0f\n", kind.name, askers.size(), length,
                static_cast<double>(trips.size()) / seconds, percentile(trips, 0.5), percentile(trips, 0.99));
    std::fflush(stdout);
}

static void bench_rates()
{
    const Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    write_log(LOG_LINES);
    daemon.start();
    wait_for_link();
    std::printf("each connection asks again as soon as it is answered, 5 s; %d users in the event settings\n",
                USERS);
    std::puts("request                      connections  answer bytes  requests/s  median us   99th us");
    const TcpClient first;
    for (const KIND &kind : kinds_of(first))
        for (const int count : {1, 16}) {
            std::vector<std::unique_ptr<ASKER>> askers;
            for (int i = 0; i < count; ++i)
                askers.push_back(std::make_unique<ASKER>());
            measure(kind, askers);
        }
}

// ---- what the agent process holds

static void print_holdings(const char *when, long count, const mixed::HOLDINGS &holdings)
{
    std::printf("%-24s  %9ld  %6ld  %9ld  %11ld\n", when, count, holdings.rss, holdings.data,
                holdings.descriptors);
    std::fflush(stdout);
}

static void head_of_holdings()
{
    std::puts("after                         count  RSS kB  VmData kB  descriptors");
}

static void send_mixed(const std::vector<std::unique_ptr<TcpClient>> &clients,
                       const mixed::SETTINGS &settings, std::mt19937 &random, long count)
{
    constexpr int BATCH = 50;  // the fence included
    for (long sent = 0; sent < count;) {
        for (const auto &client : clients) {
            client->send(mixed::batch(random, settings, BATCH - 1));
            sent += BATCH;
        }
        for (const auto &client : clients)
            mixed::await_fence(*client);
    }
}

static void bench_memory()
{
    const Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    write_log(LOG_LINES);
    daemon.start();
    wait_for_link();
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int i = 0; i < 16; ++i)
        clients.push_back(std::make_unique<TcpClient>());
    const mixed::SETTINGS settings = mixed::read_settings(*clients.front());
    std::mt19937 random(1);
    std::puts("mixed requests of every kind over 16 connections");
    head_of_holdings();
    print_holdings("start", 0, mixed::holdings_of(daemon.agent_pid()));
    send_mixed(clients, settings, random, 50'000);
    print_holdings("mixed requests (warm-up)", 50'000, mixed::holdings_of(daemon.agent_pid()));
    for (int part = 1; part <= 4; ++part) {
        send_mixed(clients, settings, random, 250'000);
        print_holdings("mixed requests", part * 250'000L, mixed::holdings_of(daemon.agent_pid()));
    }
}

// Until the agent has closed its ends of what was closed here.
static void wait_for_descriptors(pid_t pid, long descriptors)
{
    eventually(10s, [&] { return mixed::holdings_of(pid).descriptors <= descriptors; });
}

static void connect_often(int count)
{
    for (int i = 0; i < count; ++i) {
        const TcpClient client;
        (void)mixed::ask(client, mixed::packet(DATAID_GETUPSINFO));
    }
}

static void bench_connects()
{
    const Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link();
    const pid_t pid = daemon.agent_pid();
    std::puts("connections, each with one status request, closed again");
    head_of_holdings();
    const mixed::HOLDINGS start = mixed::holdings_of(pid);
    print_holdings("start", 0, start);
    for (const int count : {1'000, 10'000}) {
        connect_often(count);
        wait_for_descriptors(pid, start.descriptors);
        print_holdings(count < 10'000 ? "connections (warm-up)" : "connections", count,
                       mixed::holdings_of(pid));
    }
}

int main(int argc, char **argv)
{
    const std::string wanted = argc > 1 ? argv[1] : "";
    const std::vector<std::pair<std::string, void (*)()>> benches = {
        {"rates", bench_rates}, {"memory", bench_memory}, {"connects", bench_connects}};
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

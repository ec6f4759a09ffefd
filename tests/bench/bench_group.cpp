// How fast a group goes down: agents on hosts of their own on one bridge, all of one rank, so that each that
// goes down orders all the others once more. Printed as a table. Run in the sandbox:
//   build/dev/bin/sandbox --bridge lan -- build/dev/bin/bench_group [AGENTS]
#include "hosts.h"

#include "shared_word.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using namespace testbed;

static const std::string PROGRAMS = VOLTARIA_PROGRAMS;
static constexpr char SETTINGS[] = "[ UPS ]\n\n AgentType = 4\n Group = Group A\n IgnoreOtherAgentDown = 0\n";
static constexpr auto PATIENCE = 300s;
static constexpr unsigned char ORDER = 18;  // DataId

static double now()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

struct Member {
    std::unique_ptr<Host> host;
    std::unique_ptr<SharedBlock> block;
    double begun = 0;   // s since the epoch; 0 not yet
    double halted = 0;  // when /sbin/shutdown was called
};

struct Traffic {
    double first_order = 0;  // s since the epoch
    unsigned orders = 0;
    unsigned announcements = 0;
    unsigned missed = 0;  // by the one who counts
};

static std::vector<Member> start_group(int count)
{
    std::vector<Member> group(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        group[static_cast<std::size_t>(i)].host = std::make_unique<Host>(
            PROGRAMS, HostOptions{"agent" + std::to_string(i + 1), "10.78.0." + std::to_string(i + 11)});
    for (const Member &member : group)
        member.host->wait_up(PATIENCE);
    group.front().host->start_unit();
    for (Member &member : group) {
        member.host->start_agent(SETTINGS);
        const Visit visit(*member.host);
        member.block = std::make_unique<SharedBlock>();
    }
    wait_until("the first agent's unit", PATIENCE,
               [&] { return shared_load((*group.front().block)->ups.ui.CommStatus) == COMM_ESTABLISHED; });
    return group;
}

// A monitor's order to go down now. The monitor stays: one that leaves a broken connection behind keeps the
// agent's first rounds from going out.
static std::unique_ptr<TcpClient> order_down(const Host &host)
{
    std::string packet({0x10, 0x01, 1, ORDER, 48, 0, 0, 0, 22, 0, 0, 0, 0, 0, 0, 0});
    packet += "monitor";
    packet.resize(48, '\0');
    const Visit visit(host);
    auto monitor = std::make_unique<TcpClient>();
    monitor->send(packet);
    return monitor;
}

static void count_traffic(const Wire &wire, Traffic &traffic)
{
    while (const auto seen = wire.next(0ms)) {
        if (seen->port == AGENT_UDP_PORT && seen->bytes.size() == 48 &&
            static_cast<unsigned char>(seen->bytes[3]) == ORDER) {
            if (traffic.orders++ == 0)
                traffic.first_order = now();
        } else if (seen->port == MONITOR_UDP_PORT) {
            ++traffic.announcements;
        }
    }
}

static bool all_begun(std::vector<Member> &group)
{
    bool all = true;
    for (Member &member : group) {
        if (member.begun == 0 && shared_load((*member.block)->ups.ui.ShutdownS) == 1)
            member.begun = now();
        all = all && member.begun != 0;
    }
    return all;
}

static bool all_halted(std::vector<Member> &group)
{
    for (Member &member : group) {
        if (member.halted != 0)
            continue;
        const Visit visit(*member.host);
        const std::vector<Call> halts = calls_of("shutdown");
        if (halts.empty())
            return false;
        member.halted = halts.front().time;
    }
    return true;
}

// The number in this column of the line that begins with `name` and has only numbers behind it.
static unsigned long column(const std::string &text, const std::string &name, int number)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string word;
        unsigned long value = 0;
        fields >> word;
        if (word != name || !(fields >> value))
            continue;
        for (int i = 1; i < number; ++i)
            fields >> value;
        return value;
    }
    throw TestbedError("no counter " + name);
}

// Datagrams that a host's sockets had no room for, and frames that its interface did not take or give.
struct Lost {
    unsigned long in_sockets = 0;
    unsigned long on_interfaces = 0;
};

static Lost lost_at(const Host &host)
{
    const Visit visit(host);
    const std::string device = read_file("/proc/1/net/dev");
    return {column(read_file("/proc/1/net/snmp"), "Udp:", 5),
            column(device, "eth0:", 4) + column(device, "eth0:", 12)};
}

static void print_times(const char *what, std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    std::printf("%-44s %8.3f %8.3f %8.3f\n", what, times.front(), times[times.size() / 2], times.back());
}

static void print(const std::vector<Member> &group, const Traffic &traffic)
{
    std::vector<double> begun;
    std::vector<double> halted;
    Lost lost;
    for (const Member &member : group) {
        if (&member != &group.front())
            begun.push_back(member.begun - traffic.first_order);
        halted.push_back(member.halted - traffic.first_order);
        const Lost here = lost_at(*member.host);
        lost.in_sockets += here.in_sockets;
        lost.on_interfaces += here.on_interfaces;
    }
    const std::size_t others = group.size() - 1;
    std::printf("a group of %zu agents; s from the first order on the wire\n", group.size());
    std::puts("                                                first   median     last");
    print_times("the others begin their shutdown", begun);
    print_times("/sbin/shutdown is called", halted);
    std::printf("orders sent %u, announcements sent %u, each to %zu others (not counted: %u)\n",
                traffic.orders, traffic.announcements, others, traffic.missed);
    std::printf("of %zu deliveries lost in sockets %lu, on interfaces %lu\n",
                others * (traffic.orders + traffic.announcements), lost.in_sockets, lost.on_interfaces);
}

static void bench(int count)
{
    std::vector<Member> group = start_group(count);
    const Wire wire;
    Traffic traffic;
    const auto monitor = order_down(*group.front().host);
    wait_until("the group to begin", PATIENCE, [&] {
        count_traffic(wire, traffic);
        return all_begun(group);
    });
    wait_until("the group to go down", PATIENCE, [&] { return all_halted(group); });
    count_traffic(wire, traffic);
    traffic.missed = wire.missed();
    print(group, traffic);
}

int main(int argc, char **argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 50;
    try {
        bench(std::clamp(count, 2, 200));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}

// How many monitors the agent reaches on a host with so many addresses: whom it reads and whom it tells, as
// the table in docs/operations.md has it.
#include "bed.h"

#include "wire_records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <deque>
#include <ifaddrs.h>
#include <sstream>
#include <sys/socket.h>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;

namespace
{

constexpr std::size_t FEW = 28;  // while there are no more, the bound stays
constexpr std::size_t TABLE = 64;
constexpr char SETTINGS_WITHOUT_UNIT[] = "[ UPS ]\n\n AgentType = 4\n ComSet = -2\n";

// One row of the table.
struct Reach {
    std::size_t told = 0;
    std::size_t read_of_few = 0;
    std::size_t read_of_table = 0;
};

Reach documented(std::size_t addresses)
{
    std::istringstream document(testbed::read_file(VOLTARIA_DOCS "/operations.md"));
    const std::string row = "| " + std::to_string(addresses) + " | ";
    for (std::string line; std::getline(document, line);) {
        Reach reach;
        if (line.starts_with(row) && std::sscanf(line.c_str() + row.size(), "%zu | %zu | %zu |", &reach.told,
                                                 &reach.read_of_few, &reach.read_of_table) == 3)
            return reach;
    }
    throw testbed::TestbedError("no row for " + std::to_string(addresses) + " addresses");
}

std::size_t count_addresses()
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        throw testbed::TestbedError("getifaddrs");
    std::size_t count = 0;
    for (const ifaddrs *one = list; one != nullptr; one = one->ifa_next)
        count += one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET ? 1 : 0;
    freeifaddrs(list);
    return count;
}

std::size_t count_sockets(pid_t pid)
{
    std::size_t count = 0;
    for (int fd = 0; fd < 128; ++fd)
        count += testbed::descriptor_target(pid, fd).starts_with("socket:") ? 1 : 0;
    return count;
}

// The packets that have come to one monitor.
struct Monitor {
    TcpClient client;
    std::string bytes;

    void take()
    {
        std::array<char, 4096> part{};
        for (ssize_t got = 0; (got = recv(client.fd(), part.data(), part.size(), MSG_DONTWAIT)) > 0;)
            bytes.append(part.data(), static_cast<std::size_t>(got));
    }

    bool has(char dataid)
    {
        take();
        bool found = false;
        for (std::size_t at = 0; at + 8 <= bytes.size(); at += word_at(bytes, at + 4))
            found = found || bytes[at + 3] == dataid;
        return found;
    }
};

class Bound : public testing::TestWithParam<std::size_t>
{
  protected:
    Bound()
    {
        testbed::write_config(SETTINGS_WITHOUT_UNIT);
        daemon.start();
        testbed::wait_until("the agent's start to be over", PATIENCE,
                            [] { return status().CommStatus == COMM_NOUPS; });
        testbed::wait_until("the connections to be closed", PATIENCE,
                            [&] { return count_sockets(daemon.agent_pid()) == own_sockets; });
    }

    // One by one, so that the agent's queue of connections never runs over.
    void connect_up_to(std::size_t count)
    {
        while (monitors.size() < count) {
            monitors.emplace_back();
            testbed::wait_until("a connection to be accepted", PATIENCE, [&] {
                return count_sockets(daemon.agent_pid()) == own_sockets + monitors.size();
            });
        }
    }

    // The first monitor is always reached. When it has its second answer, a whole turn has passed since.
    void let_a_turn_pass()
    {
        for (int i = 0; i < 2; ++i)
            (void)ask_status(monitors.front().client);
    }

    std::size_t count_with(char dataid)
    {
        return static_cast<std::size_t>(std::count_if(
            monitors.begin(), monitors.end(), [dataid](Monitor &monitor) { return monitor.has(dataid); }));
    }

    // Those whose request is answered.
    std::size_t count_read()
    {
        for (Monitor &monitor : monitors) {
            monitor.take();
            monitor.bytes.clear();
        }
        for (std::size_t i = 1; i < monitors.size(); ++i)
            monitors[i].client.send(packet(DATAID_GETUPSINFO));
        let_a_turn_pass();
        return 1 + count_with(DATAID_ANSUPSINFO);
    }

    std::size_t count_told()
    {
        monitors.front().client.send(
            packet(DATAID_CANCELSHUTDOWN, std::string("desk", 4) + std::string(12, '\0')));
        const std::string notice = receive_packet(monitors.front().client);
        EXPECT_EQ(notice.at(3), NOTICE);
        let_a_turn_pass();
        return 1 + count_with(NOTICE);
    }

    const std::size_t own_sockets = 1 + GetParam();  // one for datagrams, one for each address
    Daemon daemon{VOLTARIAD};
    std::deque<Monitor> monitors;
};

INSTANTIATE_TEST_SUITE_P(Addresses, Bound, testing::Values(VOLTARIA_ADDRESSES),
                         testing::PrintToStringParamName());

TEST_P(Bound, IsWhereTheDocumentSays)
{
    ASSERT_EQ(count_addresses(), GetParam());
    const Reach reach = documented(GetParam());
    connect_up_to(FEW);
    EXPECT_EQ(count_read(), reach.read_of_few);
    EXPECT_EQ(count_told(), reach.told);
    connect_up_to(TABLE);
    EXPECT_EQ(count_read(), reach.read_of_table);
    EXPECT_EQ(count_told(), reach.told);
}

}  // namespace

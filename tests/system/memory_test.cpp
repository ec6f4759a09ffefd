// A monitor that asks all day costs the agent nothing that stays: neither memory nor descriptors.
#include "bed.h"

#include "tests/system/mixed_requests.h"

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;

namespace
{

constexpr int BATCH = 100;  // requests, the fence included
constexpr int WARM_UP = 5'000;
constexpr int REQUESTS = 20'000;

// Freed memory stays with the process in chunks that fill and empty; what grows with every request does not
// stop at this. A sanitizer keeps freed memory back on purpose, so there only the descriptors count.
constexpr long SLACK = 512;  // kB

// A sanitizer's shadow of the memory takes terabytes of addresses.
bool is_sanitized(pid_t process)
{
    const std::string status = testbed::read_file("/proc/" + std::to_string(process) + "/status");
    const std::size_t size = status.find("VmSize:");
    return size != std::string::npos && std::stoll(status.substr(size + 7)) > (1LL << 30);  // kB
}

void send_mixed(const TcpClient &client, const mixed::SETTINGS &settings, std::mt19937 &random, int count)
{
    for (int sent = 0; sent < count; sent += BATCH) {
        client.send(mixed::batch(random, settings, BATCH - 1));
        mixed::await_fence(client);
    }
}

}  // namespace

TEST(Memory, TwentyThousandMixedRequestsAndAThousandConnectionsLeaveMemoryAndDescriptorsAsTheyWere)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const pid_t agent = daemon.agent_pid();
    const TcpClient client;
    const mixed::SETTINGS settings = mixed::read_settings(client);
    std::mt19937 random(4112);
    send_mixed(client, settings, random, WARM_UP);
    const mixed::HOLDINGS before = mixed::holdings_of(agent);
    send_mixed(client, settings, random, REQUESTS);
    for (int i = 0; i < 1'000; ++i) {
        const TcpClient passing;
        (void)mixed::ask(passing, mixed::packet(DATAID_GETUPSINFO));
    }
    EXPECT_TRUE(testbed::eventually(
        PATIENCE, [&] { return mixed::holdings_of(agent).descriptors == before.descriptors; }))
        << mixed::holdings_of(agent).descriptors << " descriptors, before " << before.descriptors;
    EXPECT_EQ(daemon.agent_pid(), agent);
    const mixed::HOLDINGS after = mixed::holdings_of(agent);
    if (!is_sanitized(agent)) {
        EXPECT_LE(after.data, before.data + SLACK);
        EXPECT_LE(after.rss, before.rss + SLACK);
    }
}

// A crowd of monitors that ask and never read: the rest is served as if they were not there, and each of them
// is ended.
#include "bed.h"

#include <algorithm>
#include <memory>
#include <sys/socket.h>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;

namespace
{

using Clock = std::chrono::steady_clock;

// The last of a full table lie beyond the descriptors that the agent watches; they are never read, and so
// never owed anything.
constexpr int CROWD = 63;
constexpr int SURELY_SERVED = 50;

// A monitor that takes as little as its socket can.
struct DEAF_MONITOR {
    DEAF_MONITOR()
    {
        const int small = 1024;
        setsockopt(client.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    }

    /// Asks for as much as the socket takes.
    void ask(std::string_view requests)
    {
        for (;;) {
            const ssize_t sent =
                send(client.fd(), requests.data() + at, requests.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent < 0)
                return;
            at = (at + static_cast<std::size_t>(sent)) % requests.size();
        }
    }

    TcpClient client;
    std::size_t at = 0;  // how far the requests have been sent: the socket may take a part of one
};

}  // namespace

TEST(Crowd, SixtyThreeMonitorsThatNeverReadDelayNobodyAndThoseServedAreEnded)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const TcpClient healthy;
    (void)ask_status(healthy);
    const int without = socket_count(daemon.agent_pid());
    std::vector<std::unique_ptr<DEAF_MONITOR>> deaf;
    for (int i = 0; i < CROWD; ++i)
        deaf.push_back(std::make_unique<DEAF_MONITOR>());
    testbed::wait_until("all of them to be accepted", PATIENCE,
                        [&] { return socket_count(daemon.agent_pid()) == without + CROWD; });
    std::string requests;
    for (int i = 0; i < 500; ++i)
        requests += packet(16);

    // Their end is seen at the agent: with both windows closed they hear of it at their next probe only,
    // which may be minutes away.
    auto slowest = Clock::duration{};
    EXPECT_TRUE(testbed::eventually(5 * PATIENCE, [&] {
        for (const auto &monitor : deaf)
            monitor->ask(requests);
        const auto asked = Clock::now();
        (void)ask_status(healthy);
        slowest = std::max(slowest, Clock::now() - asked);
        return socket_count(daemon.agent_pid()) <= without + CROWD - SURELY_SERVED;
    }));
    EXPECT_LT(slowest, bed::NOT_HELD_UP);
    EXPECT_EQ(ask_status(healthy).size(), 220u);
}

// What the stepped clock cannot show: the agent in real time under all that a network can do to it. Datagrams
// as fast as they can be sent, thousands of connections, a table full of monitors that stall, and then mains
// fails and the battery is low.
#include "faults_load.h"

#include <algorithm>
#include <atomic>
#include <iostream>
#include <sys/resource.h>
#include <thread>

using namespace bed;
using testbed::Daemon;

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int DATAGRAMS_A_SECOND = 50'000;
constexpr int CONNECTIONS = 5'000;

// The daemon and its unit: each status pass of that unit takes a fraction of a second.
class Flood : public testing::Test
{
  protected:
    void SetUp() override
    {
        const rlimit descriptors = {1024, 1024};  // what a service has where nothing else was said
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
        testbed::write_config("[ UPS ]\n\n AgentType = 4\n IgnoreOtherAgentDown = 0\n ComSet = 1\n");
        daemon.start();
        wait_for_link(2);
    }

    testbed::Simulator unit{UPSSIM, {}};
    Daemon daemon{VOLTARIAD};
};

// Something done by a thread of its own, over and over, until the end.
class Going
{
  public:
    explicit Going(const std::function<void()> &step)
        : thread_([this, step] {
              while (!ending_)
                  step();
          })
    {
    }
    Going(const Going &) = delete;
    Going &operator=(const Going &) = delete;
    ~Going()
    {
        ending_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> ending_ = false;
    std::thread thread_;
};

// At least 50,000 a second, in slices of 10 ms; a sender that was kept from its processor catches up.
class DatagramFlood
{
  public:
    [[nodiscard]] int offered() const
    {
        return offered_;
    }

  private:
    void step()
    {
        constexpr int SLICE = DATAGRAMS_A_SECOND / 100;
        constexpr double SOME_MORE = 1.2;
        const auto passed = std::chrono::duration<double>(Clock::now() - begun_).count();
        if (offered_ >= SOME_MORE * DATAGRAMS_A_SECOND * passed) {
            std::this_thread::sleep_for(1ms);
            return;
        }
        datagrams_.pour(SLICE);
        offered_ += SLICE;
    }

    Clock::time_point begun_ = Clock::now();
    std::atomic<int> offered_ = 0;
    load::DATAGRAMS datagrams_;
    Going going_{[this] { step(); }};
};

double seconds_since(Clock::time_point moment)
{
    return std::chrono::duration<double>(Clock::now() - moment).count();
}

void tell(const std::string &what, double figure)
{
    std::cout << what << ": " << figure << "\n";
}

// Mains fails and the battery is low: the unit is ordered off and the machine goes down.
void expect_order_and_shutdown(testbed::Simulator &unit)
{
    unit.command("mains fail");
    unit.command("battery low on");
    const auto reported = Clock::now();
    unit.wait_for_log("rx S10\\r", PATIENCE);
    testbed::wait_until("shutdown", PATIENCE, [] { return !testbed::calls_of("shutdown").empty(); });
    tell("seconds to the shutdown", seconds_since(reported));
    EXPECT_LT(seconds_since(reported), 30.0);
}

}  // namespace

TEST_F(Flood, OfDatagramsKeepsNoMonitorWaitingAndNoShutdown)
{
    const testbed::TcpClient monitor;
    const DatagramFlood flood;
    const auto begun = Clock::now();
    auto slowest = Clock::duration{};
    while (Clock::now() < begun + 1s || flood.offered() < DATAGRAMS_A_SECOND) {
        const auto asked = Clock::now();
        (void)ask_status(monitor);
        slowest = std::max(slowest, Clock::now() - asked);
    }
    tell("slowest answer in seconds", std::chrono::duration<double>(slowest).count());
    EXPECT_LT(slowest, bed::NOT_HELD_UP);
    expect_order_and_shutdown(unit);
    tell("datagrams a second", flood.offered() / seconds_since(begun));
}

TEST_F(Flood, OfEverythingDoesNotKeepTheMachineUp)
{
    load::CROWD crowd(32);
    const DatagramFlood datagrams;
    load::MULTITUDE multitude;
    {
        const auto begun = Clock::now();
        while (multitude.count < CONNECTIONS && Clock::now() < begun + PATIENCE)
            multitude.come(CONNECTIONS - multitude.count);
        tell("connections a second", multitude.count / seconds_since(begun));
        EXPECT_GE(multitude.count, CONNECTIONS);
    }
    const Going monitors([&] {
        crowd.ask();
        multitude.open.clear();
        multitude.come(50);
    });
    expect_order_and_shutdown(unit);
    testbed::wait_until("datagrams enough", PATIENCE,
                        [&] { return datagrams.offered() >= DATAGRAMS_A_SECOND; });
}

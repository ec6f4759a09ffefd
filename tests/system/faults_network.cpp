// Faults of the network: an interface that goes while another comes, and more datagrams than anybody could
// look at. And what these faults have in common.
#include "faults_load.h"
#include "faults_repeat.h"

namespace faults
{

using namespace std::chrono_literals;
using Duration = testbed::VirtualClock::Duration;

// ---- what goes on by itself

static std::shared_ptr<bool> going_on;  // one fault at a time

static void again(Scene &scene, Duration period, const std::function<void()> &step,
                  const std::shared_ptr<bool> &on)
{
    if (!*on)
        return;
    step();
    scene.stage.clock.at(scene.stage.clock.now() + period,
                         [&scene, period, step, on] { again(scene, period, step, on); });
}

void repeat(Scene &scene, Duration period, const std::function<void()> &step)
{
    const auto on = std::make_shared<bool>(true);
    going_on = on;
    scene.cleanups.emplace_back([on] { *on = false; });
    again(scene, period, step, on);
}

void end_repetition(Scene &)
{
    *going_on = false;
}

std::string ip(const std::vector<std::string> &arguments)
{
    std::vector<std::string> command = {"ip"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const testbed::RunResult result = testbed::run(command);
    return result.status == 0 ? "" : "status " + std::to_string(result.status) + ": " + result.errors;
}

// ---- interfaces

// A dummy where the kernel has them, else one end of a pair.
static void add_interface(const std::string &name, const std::string &address)
{
    if (!ip({"link", "add", name, "type", "dummy"}).empty()) {
        EXPECT_EQ(ip({"link", "add", name, "type", "veth", "peer", "name", name + "p"}), "");
    }
    EXPECT_EQ(ip({"addr", "add", address + "/24", "broadcast", "+", "dev", name}), "");
    EXPECT_EQ(ip({"link", "set", name, "up"}), "");
}

void InterfaceVanishes_begin(Scene &scene)
{
    EXPECT_EQ(ip({"link", "del", "eth0"}), "");
    add_interface("eth7", "10.88.0.1");
    scene.cleanups.emplace_back([] {
        (void)ip({"link", "del", "eth7"});
        add_interface("eth0", "10.77.0.1");
    });
}

void InterfaceVanishes_end(Scene &)
{
    EXPECT_EQ(ip({"addr", "del", "10.88.0.1/24", "dev", "eth7"}), "");
    EXPECT_EQ(ip({"addr", "add", "10.89.0.1/24", "broadcast", "+", "dev", "eth7"}), "");
}

// ---- datagrams

static constexpr int DATAGRAMS_A_SECOND = 50'000;
static constexpr int STEPS_A_SECOND = 10;

// Every other second: it is the sending that costs this test its time.
void FloodOfDatagrams_begin(Scene &scene)
{
    const auto flood = std::make_shared<load::DATAGRAMS>();
    const double begun = scene.stage.now();
    repeat(scene, Duration(1s) / STEPS_A_SECOND, [flood, begun, &scene] {
        if (static_cast<int>(scene.stage.now() - begun) % 2 == 0)
            flood->pour(DATAGRAMS_A_SECOND / STEPS_A_SECOND);
    });
}

void FloodOfDatagrams_end(Scene &scene)
{
    end_repetition(scene);
}

}  // namespace faults

// Faults of monitors: a full table of monitors that do not do their part, thousands of connections, monitors
// that lose their power, monitors that ask for the battery's date without end.
#include "faults_load.h"
#include "faults_repeat.h"

#include "wire_records.h"

#include <array>
#include <sys/resource.h>

namespace faults
{

using namespace std::chrono_literals;

static constexpr std::size_t TABLE = 64;  // monitors that the agent knows at a time

// ---- monitors that stall

static std::weak_ptr<load::CROWD> crowd;

void ClientsStalled_begin(Scene &scene)
{
    const auto all = std::make_shared<load::CROWD>(TABLE / 2);
    crowd = all;
    scene.kept.push_back(all);
    repeat(scene, 1s, [all] { all->ask(); });
}

void ClientsStalled_end(Scene &scene)
{
    end_repetition(scene);
    crowd.lock()->deaf.clear();
    crowd.lock()->halted.clear();
}

// ---- thousands of connections

static constexpr int FLOOD = 5000;  // connections, as fast as they are taken
static constexpr int SLICE = 250;   // in one moment of virtual time: the agent may wait for the next one
static constexpr int LATER = 100;   // closed and opened again from time to time
static std::weak_ptr<load::MULTITUDE> multitude;

void FloodOfConnections_begin(Scene &scene)
{
    const rlimit descriptors = {1024, 1024};  // what a service has where nothing else was said
    EXPECT_EQ(prlimit(scene.stage.daemon.agent_pid(), RLIMIT_NOFILE, &descriptors, nullptr), 0);
    const auto all = std::make_shared<load::MULTITUDE>();
    multitude = all;
    scene.kept.push_back(all);
    for (int slices = 0; all->count < FLOOD && slices < 40 * FLOOD / SLICE; ++slices) {
        all->come(SLICE);
        scene.stage.run(10ms);
    }
    EXPECT_GE(all->count, FLOOD);
    repeat(scene, 1s, [all] {
        all->open.clear();
        all->come(LATER);
    });
}

void FloodOfConnections_end(Scene &scene)
{
    end_repetition(scene);
    multitude.lock()->open.clear();
}

// ---- monitors that lose their power

static constexpr char LOST_HOST[] = "10.99.0.2";
static constexpr char LOST_HOSTS_ADDRESS[] = "10.99.0.2/32";

static load::CONNECTIONP english_monitor()
{
    load::CONNECTIONP monitor = load::connection(bed::PATIENCE, "10.77.0.1", LOST_HOST);
    if (monitor == nullptr)
        throw testbed::TestbedError("no monitor on another host");
    VTOSINFO about{};
    about.lang = 2;
    about.os = 2;
    monitor->send_now(
        bed::packet(DATAID_OSINFO, std::string_view(reinterpret_cast<const char *>(&about), sizeof about)));
    return monitor;
}

// The last of a full table lie beyond the descriptors that the agent watches.
static constexpr std::size_t SURELY_SERVED = 50;

// Nothing of them arrives any more and nothing reaches them: their host's address is no longer there when
// their sockets are closed.
void MonitorsVanish_begin(Scene &scene)
{
    EXPECT_EQ(ip({"addr", "add", LOST_HOSTS_ADDRESS, "dev", "lo"}), "");
    std::vector<load::CONNECTIONP> monitors;
    for (std::size_t i = 0; i < TABLE; ++i)
        monitors.push_back(english_monitor());
    for (std::size_t i = 0; i < SURELY_SERVED; ++i)
        EXPECT_TRUE(monitors[i]->readable(40'000));
    EXPECT_EQ(ip({"addr", "del", LOST_HOSTS_ADDRESS, "dev", "lo"}), "");
    EXPECT_EQ(ip({"route", "add", "blackhole", LOST_HOST}), "");
    scene.cleanups.emplace_back([] { (void)ip({"route", "del", "blackhole", LOST_HOST}); });
}

void MonitorsVanish_end(Scene &)
{
    EXPECT_EQ(ip({"addr", "add", LOST_HOSTS_ADDRESS, "dev", "lo"}), "");
    EXPECT_EQ(ip({"addr", "del", LOST_HOSTS_ADDRESS, "dev", "lo"}), "");
}

// ---- the battery's date, again and again

static constexpr int DATE_REQUESTS = 10'000;

struct CURIOUS {
    std::array<load::CONNECTIONP, 4> monitors;

    void ask(int in_all)
    {
        std::string requests;
        for (std::size_t i = 0; i < static_cast<std::size_t>(in_all) / monitors.size(); ++i)
            requests += bed::packet(DATAID_GETBATTIME);
        for (const load::CONNECTIONP &monitor : monitors) {
            ASSERT_NE(monitor, nullptr);
            monitor->drain();
            monitor->send_now(requests);
        }
    }
};

void FloodOfDateRequests_begin(Scene &scene)
{
    const auto all = std::make_shared<CURIOUS>();
    scene.kept.push_back(all);
    for (load::CONNECTIONP &monitor : all->monitors)
        monitor = load::connection(bed::PATIENCE);
    all->ask(DATE_REQUESTS);
    repeat(scene, 250ms, [all] { all->ask(DATE_REQUESTS / 100); });
}

void FloodOfDateRequests_end(Scene &scene)
{
    end_repetition(scene);
}

}  // namespace faults

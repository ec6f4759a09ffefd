// The stepped clock with the real daemon and a simulated unit: the link comes up, time passes exactly, a
// month goes by in seconds, and the same run happens twice.
#include "bed.h"
#include "shared_word.h"
#include "vclock.h"

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace
{

using namespace bed;
using testbed::VirtualClock;

constexpr std::int64_t START = 1'700'000'000;

int commstatus()
{
    const testbed::SharedBlock block;
    return shared_load(block->ups.ui.CommStatus);
}

// A unit, the daemon and the clock, up to the established link.
struct Bed {
    VirtualClock clock;
    testbed::Daemon daemon{VOLTARIAD};
    std::unique_ptr<testbed::Simulator> unit;

    explicit Bed(bool pace = true) : clock({.start = START})
    {
        testbed::SimulatorOptions options;
        options.pace = pace;
        testbed::forget_calls();
        clock.attach(options);
        clock.attach(daemon);
        unit = std::make_unique<testbed::Simulator>(UPSSIM, options);
        daemon.start();
    }

    void link_up()
    {
        clock.run_until(
            "link", [] { return commstatus() == 2; }, 60s);
    }
};

std::size_t count(const std::string &text, const std::string &part)
{
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++found;
    return found;
}

TEST(VirtualClock, LinkComesUpAndTheMonitorIsServedWhileTimeStands)
{
    Bed bed;
    EXPECT_EQ(bed.clock.now(), 0s);
    bed.link_up();
    const auto up = bed.clock.now();
    EXPECT_GT(up, 3s);
    EXPECT_LT(up, 20s);
    const UPS_UPSINFO info = status();
    EXPECT_EQ(model_of(info), "ZR900PL");
    EXPECT_EQ(bed.clock.now(), up);
    EXPECT_EQ(bed.clock.wall(), START + std::chrono::floor<std::chrono::seconds>(up).count());
}

TEST(VirtualClock, TenMinutesOfPollingAreSixHundredPolls)
{
    Bed bed;
    bed.link_up();
    const std::size_t before = count(bed.unit->log(), "Q1\\r");
    bed.clock.run_for(600s);
    const std::size_t polls = count(bed.unit->log(), "Q1\\r") - before;
    EXPECT_GT(polls, 300u);
    EXPECT_LE(polls, 601u);
    EXPECT_EQ(commstatus(), 2);
}

TEST(VirtualClock, MonthGoesByInLeaps)
{
    Bed bed(false);
    bed.link_up();
    bool seen = false;
    bed.clock.at_wall(START + 86400 * 20, [&] {
        seen = true;
        EXPECT_EQ(bed.clock.wall_exact(), 86400s * 20 + std::chrono::seconds(START));
    });
    bed.clock.leap_for(24h * 30, 600s);
    EXPECT_TRUE(seen);
    EXPECT_EQ(commstatus(), 2);
    EXPECT_GE(bed.clock.wall(), START + 86400 * 30);
}

// All that a run leaves, to the byte.
std::string story()
{
    for (const char *file : {testbed::EVENT_LOG, testbed::DATA_LOG, testbed::CONFIG_FILE})
        std::filesystem::remove(file);
    Bed bed;
    bed.clock.at(30s, [&] { bed.unit->command("mains fail"); });
    bed.clock.at(45s + 1ms, [&] { bed.unit->command("mains return"); });
    bed.clock.at(60s, [&] { bed.unit->command("mains fail"); });
    bed.clock.run_for(50s);
    const UPS_UPSINFO info = status();
    bed.clock.run_for(150s);
    return bed.unit->log() + std::string(reinterpret_cast<const char *>(&info), sizeof info) +
           testbed::read_file("/run/voltaria-test/calls") + testbed::read_file(testbed::EVENT_LOG);
}

TEST(VirtualClock, SameStoryHappensTwice)
{
    const std::string first = story();
    EXPECT_GT(count(first, "Q1\\r"), 40u);
    EXPECT_EQ(count(first, "/sbin/shutdown"), 1u);
    EXPECT_EQ(story(), first);
}

TEST(VirtualClock, WallClockJumpsDisturbNoPolling)
{
    Bed bed;
    bed.link_up();
    const auto polls_of_a_minute = [&] {
        const std::size_t before = count(bed.unit->log(), "Q1\\r");
        bed.clock.run_for(60s);
        return count(bed.unit->log(), "Q1\\r") - before;
    };
    const std::size_t undisturbed = polls_of_a_minute();
    bed.clock.shift_wall(2h);
    EXPECT_NEAR(static_cast<double>(polls_of_a_minute()), static_cast<double>(undisturbed), 1);
    bed.clock.shift_wall(-5h);
    EXPECT_NEAR(static_cast<double>(polls_of_a_minute()), static_cast<double>(undisturbed), 1);
    EXPECT_EQ(bed.clock.wall(),
              START + std::chrono::floor<std::chrono::seconds>(bed.clock.now()).count() - 3 * 3600);
    EXPECT_EQ(commstatus(), 2);
}

std::vector<double> moments_of(const std::string &program)
{
    std::vector<double> moments;
    for (const testbed::Call &call : testbed::calls_of(program))
        moments.push_back(call.time - START);
    return moments;
}

TEST(VirtualClock, NotificationsBearVirtualTimesAndAHangingOneDoesNotStopTheStory)
{
    Bed bed;
    bed.link_up();
    const auto failed = std::chrono::duration<double>(bed.clock.now()).count();
    bed.unit->command("mains fail");
    bed.clock.run_until(
        "a wall", [] { return !moments_of("wall").empty(); }, 2min);
    EXPECT_EQ(bed.clock.participants(), 3u);
    testbed::set_stand_in("wall", "hang");
    bed.clock.run_until(
        "another", [] { return moments_of("wall").size() > 1; }, 2min);
    EXPECT_EQ(bed.clock.participants(), 4u);
    EXPECT_THAT(bed.clock.picture(), testing::HasSubstr("wall: waits in pause"));
    bed.clock.run_until(
        "shutdown", [] { return !moments_of("shutdown").empty(); }, 5min);
    EXPECT_GT(moments_of("shutdown").front(), moments_of("wall").at(1));
    EXPECT_NEAR(moments_of("shutdown").front(), failed + 80, 30);
    testbed::set_stand_in("wall", "");
}

TEST(VirtualClock, KilledAgentIsNoticedAndTimeGoesOn)
{
    Bed bed;
    bed.link_up();
    bed.daemon.kill();
    bed.clock.run_for(10s);
    EXPECT_EQ(bed.clock.participants(), 1u);
}

TEST(VirtualClock, StoppedProcessHoldsNoTimeAndGoesOnWhenContinued)
{
    Bed bed;
    bed.link_up();
    const pid_t ups = bed.daemon.ups_pid();
    const auto polls = [&] { return count(bed.unit->log(), "Q1\\r"); };
    kill(ups, SIGSTOP);
    bed.clock.run_for(1s);
    const std::size_t stopped = polls();
    bed.clock.run_for(30s);
    EXPECT_EQ(polls(), stopped);
    kill(ups, SIGCONT);
    bed.clock.run_for(10s);
    EXPECT_GE(polls(), stopped + 4);
}

TEST(VirtualClock, DaemonOfInitEndsWhenAsked)
{
    VirtualClock clock({.start = START});
    testbed::Daemon daemon(VOLTARIAD);
    clock.attach(daemon);
    daemon.start_by_init();
    clock.run_for(20s);
    EXPECT_EQ(clock.participants(), 2u);
    clock.stop(daemon);
    EXPECT_EQ(clock.participants(), 0u);
}

}  // namespace

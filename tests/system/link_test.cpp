// The link to the unit, seen through the status that a monitor is told: every family found, lost and found
// again, exchanged, moved to another port, and lines that misbehave.
#include "bed.h"
#include "shared_word.h"

#include <csignal>
#include <cstring>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace bed;
using testbed::Daemon;
using testbed::SharedBlock;
using testbed::Simulator;
using testbed::SimulatorOptions;

namespace
{

SimulatorOptions on_port(int port, const std::string &model = "ZR900PL")
{
    SimulatorOptions options;
    const std::string number = std::to_string(port);
    options.model = model;
    options.link = "/dev/ttyS" + number;
    options.control = "/run/voltaria-test/ups" + number + ".control";
    options.log = "/run/voltaria-test/ups" + number + ".log";
    return options;
}

std::string config_with_port(const std::string &comset)
{
    return "[ UPS ]\n\n ComSet = " + comset + "\n";
}

void wait_for_model(const std::string &model)
{
    wait_for_status("model " + model,
                    [&](const UPS_UPSINFO &info) { return info.CommStatus == 2 && model_of(info) == model; });
}

bool all_zero(const UPSDATA &data)
{
    const UPSDATA none{};
    return std::memcmp(&data, &none, sizeof none) == 0;
}

void expect_lost(const UPS_UPSINFO &info)
{
    EXPECT_EQ(static_cast<std::uint8_t>(info.ComId), 255);
    EXPECT_EQ(info.BattStatus, 0);
    EXPECT_EQ(info.BuzzerCan, 0);
    EXPECT_EQ(info.AutoTestCan, 0);
    EXPECT_EQ(model_of(info), "");
    EXPECT_TRUE(all_zero(info.upsdata));
}

// Context switches so far: a process that spins or waits too often shows it here.
long switches(pid_t pid)
{
    const std::string text = testbed::read_file("/proc/" + std::to_string(pid) + "/status");
    long sum = 0;
    for (const char *key : {"\nvoluntary_ctxt_switches:", "nonvoluntary_ctxt_switches:"})
        sum += std::stol(text.substr(text.find(key) + std::strlen(key)));
    return sum;
}

// Processor time so far, in clock ticks.
long ticks(pid_t pid)
{
    const std::string stat = testbed::read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return user + system;
}

class EveryModel : public testing::TestWithParam<const char *>
{
};

INSTANTIATE_TEST_SUITE_P(Link, EveryModel,
                         testing::Values("ZR401", "ZR6020", "ZR900PL", "ZR950PL", "ZM300LT", "ZQ500"),
                         [](const auto &which) { return std::string(which.param); });

}  // namespace

TEST_P(EveryModel, IsFoundReadLostAndFoundAgain)
{
    Simulator unit(UPSSIM, on_port(0, GetParam()));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    UPS_UPSINFO info = wait_for_link(2);
    EXPECT_EQ(model_of(info), GetParam());
    EXPECT_EQ(info.ComId, 1);
    EXPECT_EQ(info.upsstat, 0);
    EXPECT_EQ(info.BattStatus, 1);
    EXPECT_NEAR(info.upsdata.InPutINT, 100, 10);
    EXPECT_NEAR(info.upsdata.OutPutINT, 100, 10);
    EXPECT_NEAR(info.upsdata.FreqOutputINT, 50, 10);
    EXPECT_GT(info.upsdata.Load, 0);
    EXPECT_EQ(info.sftResBattery.Result, 2u);
    EXPECT_EQ(info.sftResUPS.Result, 2u);

    unit.command("line cut");
    expect_lost(wait_for_link(17));
    unit.command("line restore");
    wait_for_model(GetParam());
    const SharedBlock block;
    EXPECT_EQ(block->ups.ui.ComId, 0);
}

TEST_P(EveryModel, AMainsFailureAndItsEndAreSeen)
{
    Simulator unit(UPSSIM, on_port(0, GetParam()));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    const SharedBlock block;
    unit.command("mains fail");
    const UPS_UPSINFO info =
        wait_for_status("mains failure", [](const UPS_UPSINFO &now) { return now.upsstat == 33; });
    EXPECT_LT(info.upsdata.InPutINT, 60);
    EXPECT_NE(block->ups.upsstat & UPSBIT_ACFAIL, 0u);
    unit.command("mains return");
    wait_for_status("mains return", [](const UPS_UPSINFO &now) { return now.upsstat == 0; });
    EXPECT_EQ(block->ups.upsstat & UPSBIT_ACFAIL, 0u);
}

TEST(Link, AUnitOnTheSecondPortIsFoundWhenTheFirstDoesNotAnswer)
{
    Simulator deaf(UPSSIM, on_port(0));
    deaf.command("silence on");
    Simulator unit(UPSSIM, on_port(1, "ZM300LT"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const UPS_UPSINFO info = wait_for_link(2);
    EXPECT_EQ(info.ComId, 2);
    EXPECT_EQ(model_of(info), "ZM300LT");
}

TEST(Link, AFixedPortIsTheOnlyOneTried)
{
    Simulator first(UPSSIM, on_port(0, "ZR401"));
    Simulator third(UPSSIM, on_port(2, "ZQ500"));
    testbed::write_config(config_with_port("3"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const UPS_UPSINFO info = wait_for_link(2);
    EXPECT_EQ(info.ComId, 3);
    EXPECT_EQ(model_of(info), "ZQ500");
    EXPECT_EQ(first.log().find("Q1"), std::string::npos);
}

TEST(Link, AWrongFixedPortFindsNothing)
{
    Simulator unit(UPSSIM, on_port(0));
    testbed::write_config(config_with_port("2"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const SharedBlock block;
    testbed::wait_until("the UPS process to have searched", PATIENCE,
                        [&] { return block->ups.protocol == 1; });
    const long before = switches(daemon.ups_pid());
    testbed::wait_until("some turns of its loop", PATIENCE,
                        [&] { return switches(daemon.ups_pid()) > before + 2; });
    EXPECT_EQ(status().CommStatus, 17);
    EXPECT_EQ(unit.log().find("Q1"), std::string::npos);
}

TEST(Link, APortSettingOutOfRangeSearchesAllPortsAndIsRewritten)
{
    Simulator unit(UPSSIM, on_port(3));
    testbed::write_config(config_with_port("7"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(wait_for_link(2).ComId, 4);
    // The engine reads the file once more when the link is there, and the unit is searched once more.
    const SharedBlock block;
    testbed::wait_until("the setting to be rewritten", PATIENCE,
                        [&] { return shared_load(block->ups.up.workparam.ComSet) == 0; });
}

TEST(Link, WithNoUpsConfiguredThePortsAreLeftAlone)
{
    Simulator unit(UPSSIM, on_port(0));
    testbed::write_config(config_with_port("-2"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const SharedBlock block;
    testbed::wait_until("the UPS process", PATIENCE, [&] { return block->ups.ui.ComId == -2; });
    const UPS_UPSINFO info = wait_for_link(6);
    EXPECT_EQ(static_cast<std::uint8_t>(info.ComId), 254);
    EXPECT_EQ(info.upsstat, 0);
    EXPECT_EQ(info.BattStatus, 0);
    EXPECT_EQ(info.ufStatus, 0);
    EXPECT_TRUE(all_zero(info.upsdata));
    EXPECT_EQ(unit.log().find("Q1"), std::string::npos);
}

TEST(Link, AnOldMonitorIsToldThatTheLinkIsLostWhenNoUpsIsConfigured)
{
    testbed::write_config(config_with_port("-2"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(6);
    const testbed::TcpClient old;
    old.send(packet(16, {}, 1, 0x0100));
    const std::string answer = old.receive(228, PATIENCE);
    EXPECT_EQ(answer[8], '\xFF');
    EXPECT_EQ(answer[11], 17);
}

TEST(Link, AnotherModelOnTheSamePortIsRecognised)
{
    Simulator unit(UPSSIM, on_port(0, "ZR900PL"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_model("ZR900PL");
    for (const char *model : {"ZM300LT", "ZR6020", "ZQ500", "ZR401", "ZR950PL"}) {
        unit.command(std::string("model ") + model);
        wait_for_model(model);
    }
}

TEST(Link, AnUnpluggedPortIsLostWithoutSpinningAndFoundAgain)
{
    Simulator unit(UPSSIM, on_port(0));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    unit.command("port unplug");
    expect_lost(wait_for_link(17));
    const long before = switches(daemon.ups_pid());
    const long used = ticks(daemon.ups_pid());
    const auto from = std::chrono::steady_clock::now();
    testbed::wait_until("some turns", PATIENCE, [&] { return switches(daemon.ups_pid()) > before + 3; });
    EXPECT_GT(std::chrono::steady_clock::now() - from, 1500ms) << "the UPS process is busy without a port";
    EXPECT_LT(ticks(daemon.ups_pid()) - used, 20);
    unit.command("port plug");
    wait_for_model("ZR900PL");
}

TEST(Link, AUnitThatComesBackOnAnotherPortIsFoundThere)
{
    Daemon daemon(VOLTARIAD);
    {
        Simulator unit(UPSSIM, on_port(0));
        daemon.start();
        EXPECT_EQ(wait_for_link(2).ComId, 1);
    }
    wait_for_link(17);
    Simulator unit(UPSSIM, on_port(2));
    EXPECT_EQ(wait_for_link(2).ComId, 3);
}

TEST(Link, AUnitThatIsConnectedAfterTheStartIsFound)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const SharedBlock block;
    testbed::wait_until("the UPS process to search", PATIENCE, [&] { return block->ups.protocol == 1; });
    Simulator unit(UPSSIM, on_port(1));
    EXPECT_EQ(wait_for_link(2).ComId, 2);
}

TEST(Link, APortThatIsNoTerminalIsPassedOver)
{
    testbed::write_file("/dev/ttyS0", "not a terminal");
    Simulator unit(UPSSIM, on_port(1));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(wait_for_link(2).ComId, 2);
}

TEST(Link, OneLateReplyIsNoLossButLastingSilenceIs)
{
    Simulator unit(UPSSIM, on_port(0));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    unit.command("silence on");
    wait_for_link(17);
    unit.command("silence off");
    wait_for_link(2);
    unit.command("late 0.5");
    const SharedBlock block;
    const std::size_t seen = unit.log().size();
    testbed::wait_until("a whole late pass", PATIENCE, [&] {
        EXPECT_EQ(block->ups.ui.CommStatus, 2);
        return unit.log().find("V2", seen) != std::string::npos;
    });
}

TEST(Link, RepliesOfBrokenFormLoseTheLink)
{
    Simulator unit(UPSSIM, on_port(0));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    unit.command("wrong checks on");
    wait_for_link(17);
    unit.command("wrong checks off");
    wait_for_link(2);
}

TEST(Link, AnXoffFromTheLineHangsNothing)
{
    Simulator unit(UPSSIM, on_port(0));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    const std::size_t before = unit.log().size();
    unit.command("xoff");
    // Output stops, the link is lost, the port opened anew, and output goes again.
    testbed::wait_until("queries after the XOFF", PATIENCE,
                        [&] { return unit.log().find("rx Q1", before + 64) != std::string::npos; });
    wait_for_link(2);
}

TEST(Link, AWakeLineIsNoReply)
{
    Simulator unit(UPSSIM, on_port(0));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    const SharedBlock block;
    for (int i = 0; i < 10; ++i) {
        unit.command("wake");
        EXPECT_EQ(status().CommStatus, 2);
    }
    const std::size_t before = unit.log().size();
    testbed::wait_until("a pass", PATIENCE,
                        [&] { return unit.log().find("V2", before) != std::string::npos; });
    EXPECT_EQ(block->ups.ui.CommStatus, 2);
}

TEST(Link, ABatteryLowSeenInTheFirstPassAppearsTogetherWithTheEstablishedLink)
{
    Simulator unit(UPSSIM, on_port(0));
    unit.command("battery low on");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const SharedBlock block;
    bool early = false;
    testbed::wait_until("battery low", PATIENCE, [&] {
        const std::uint32_t mask = __atomic_load_n(&block->ups.upsstat, __ATOMIC_SEQ_CST);
        // CommStatus is stored first: whoever has seen the bit sees the link established.
        early = early || ((mask & UPSBIT_BATTLOW) != 0 &&
                          __atomic_load_n(&block->ups.ui.CommStatus, __ATOMIC_SEQ_CST) != 2);
        return (mask & UPSBIT_BATTLOW) != 0;
    });
    EXPECT_FALSE(early);
}

TEST(Link, AChangedPortSettingIsFollowedByTheNextStart)
{
    Simulator first(UPSSIM, on_port(0, "ZR401"));
    Simulator second(UPSSIM, on_port(1, "ZM300LT"));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_model("ZR401");
    testbed::write_config(config_with_port("2"));
    daemon.stop();
    daemon.start();
    wait_for_model("ZM300LT");
}

TEST(Link, AnIdleDaemonHardlyRuns)
{
    SimulatorOptions options = on_port(0);
    options.pace = true;
    Simulator unit(UPSSIM, options);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    const long agent_before = switches(daemon.agent_pid());
    const auto from = std::chrono::steady_clock::now();
    const std::size_t log = unit.log().size();
    testbed::wait_until("three passes", PATIENCE, [&] {
        const std::string text = unit.log().substr(log);
        std::size_t count = 0;
        for (std::size_t at = text.find("rx Q1"); at != std::string::npos; at = text.find("rx Q1", at + 1))
            ++count;
        return count >= 4;
    });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - from;
    EXPECT_LT(static_cast<double>(switches(daemon.agent_pid()) - agent_before) / took.count(), 4.0);
}

TEST(Link, AMinuteOfGarbageAtFullRateNeverEndsTheProcessNorShowsAValueThatNoReplyCarried)
{
    SimulatorOptions options = on_port(0);
    options.pace = true;
    Simulator unit(UPSSIM, options);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    const pid_t ups = daemon.ups_pid();
    const SharedBlock block;
    unit.command("garbage stream 240 7");
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < end) {
        const UPS_UPSINFO info = status();
        ASSERT_EQ(daemon.ups_pid(), ups);
        ASSERT_THAT(info.CommStatus, testing::AnyOf(2, 17));
        if (info.CommStatus == 17) {
            expect_lost(info);
        } else {
            ASSERT_THAT(info.upsdata.InPutINT, testing::AllOf(testing::Ge(90), testing::Le(110)));
            ASSERT_THAT(info.upsstat, testing::AnyOf(0, 3));
        }
        testbed::eventually(50ms, [] { return false; });
    }
    unit.command("garbage off");
    wait_for_model("ZR900PL");
    EXPECT_EQ(daemon.ups_pid(), ups);
}

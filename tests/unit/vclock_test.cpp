// The stepped clock, seen through a program that makes the calls it is told to make (vclock_actor).
#include "testbed.h"
#include "vclock.h"
#include "vclock_shared.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <list>
#include <sstream>
#include <sys/stat.h>

namespace
{

using namespace std::chrono_literals;
using testbed::TestbedError;
using testbed::VirtualClock;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string ACTOR = VOLTARIA_PROGRAMS "/vclock_actor";
constexpr std::int64_t START = 1'700'000'000;

struct Said {
    std::int64_t time = 0;  // microseconds since the start of the clock
    std::int64_t wall = 0;  // microseconds since the epoch
    std::string text;
};

class SteppedClock : public testing::Test
{
  protected:
    SteppedClock() : clock({.start = START, .zone = "UTC0", .patience = 30s})
    {
        std::array<char, 32> name = {"/tmp/vclock_test.XXXXXX"};
        if (mkdtemp(name.data()) == nullptr)
            throw TestbedError("mkdtemp");
        directory = name.data();
    }
    ~SteppedClock() override
    {
        actors.clear();
        std::filesystem::remove_all(directory);
    }

    // Starts an actor that says things into a file of this name, in the clock's order.
    testbed::Child &act(const std::vector<std::string> &words, const std::string &file = "said",
                        bool exact = false)
    {
        std::vector<std::string> command = {ACTOR};
        command.insert(command.end(), words.begin(), words.end());
        testbed::Environment environment = clock.environment();
        if (exact)
            environment.emplace_back(vclock::EXACT_VARIABLE, "1");
        actors.emplace_back(command, environment, directory + "/" + file);
        testbed::wait_until("the actor", 10s, [&] {
            const std::string mine = "process " + std::to_string(actors.back().pid()) + " ";
            return clock.picture().find(mine) != std::string::npos || !actors.back().running();
        });
        return actors.back();
    }

    [[nodiscard]] std::vector<Said> said(const std::string &file = "said") const
    {
        std::vector<Said> list;
        std::istringstream lines(testbed::read_file(directory + "/" + file));
        Said one;
        while (lines >> one.time >> one.wall && std::getline(lines >> std::ws, one.text)) {
            one.time -= vclock::BOOTED / 1000;
            list.push_back(one);
        }
        return list;
    }

    [[nodiscard]] std::vector<std::int64_t> times(const std::string &file = "said") const
    {
        std::vector<std::int64_t> list;
        for (const Said &one : said(file))
            list.push_back(one.time);
        return list;
    }

    void run_until_ended(testbed::Child &actor)
    {
        clock.run_until(
            "end of the actor", [&] { return !actor.running(); }, 1h);
    }

    std::string directory;
    VirtualClock clock;
    std::list<testbed::Child> actors;
};

TEST_F(SteppedClock, EveryWayToWaitTakesExactlyItsTime)
{
    for (const char *call : {"select", "pselect", "poll", "ppoll", "sleep", "usleep", "nanosleep",
                             "clock_nanosleep", "until", "std"}) {
        const std::string file = call;
        const std::int64_t start = clock.now() / 1us;
        run_until_ended(act({call, "3000", "say", "woke"}, file));
        EXPECT_THAT(times(file), ElementsAre(start + 3'000'000)) << call;
    }
}

TEST_F(SteppedClock, AllClocksTellTheSame)
{
    run_until_ended(act({"usleep", "1234", "clocks"}));
    ASSERT_EQ(said().size(), 1u);
    EXPECT_EQ(said()[0].text, "0");
    EXPECT_EQ(said()[0].wall, START * 1'000'000 + 1'234'000);
}

TEST_F(SteppedClock, SumOfManyWaitsDoesNotDrift)
{
    run_until_ended(act({"loop", "1000", "usleep", "7", "say", "x"}));
    const std::vector<std::int64_t> seen = times();
    ASSERT_EQ(seen.size(), 1000u);
    for (std::size_t i = 0; i < seen.size(); ++i)
        ASSERT_EQ(seen[i], static_cast<std::int64_t>(i + 1) * 7000);
}

TEST_F(SteppedClock, TimeStandsStillBetweenRuns)
{
    act({"loop", "9", "poll", "10", "say", "x"});
    EXPECT_FALSE(testbed::eventually(50ms, [&] { return !said().empty(); }));
    clock.run_for(25ms);
    EXPECT_THAT(times(), ElementsAre(10'000, 20'000));
    EXPECT_EQ(clock.now(), 25ms);
}

TEST_F(SteppedClock, ChildAtWorkHoldsTheTime)
{
    act({"loop", "1000", "usleep", "10"}, "other");
    act({"usleep", "15", "say", "before", "shell",
         "i=0; while [ $i -lt 30000 ]; do i=$((i+1)); done; /bin/true", "say", "after"});
    clock.run_for(1s);
    EXPECT_THAT(times(), ElementsAre(15'000, 15'000, 15'000));
    EXPECT_EQ(said()[1].text, "0");
}

TEST_F(SteppedClock, SleepOfAProgramOfTheShellIsItsParentsTime)
{
    run_until_ended(act({"shell", "sleep 2; sleep 0.5"}));
    EXPECT_THAT(times(), ElementsAre(2'500'000));
}

TEST_F(SteppedClock, ProgramStartedWithoutEnvironmentStaysUnderTheClock)
{
    run_until_ended(act({"child", "bare", ACTOR, "usleep", "40", "say", "x"}));
    EXPECT_THAT(times(), ElementsAre(40'000));
}

TEST_F(SteppedClock, HangingChildLetsTimeFlowUntilItsParentsPatienceEnds)
{
    testbed::Child &parent = act({"hang", "reap", "10000"});
    run_until_ended(parent);
    EXPECT_THAT(times(), ElementsAre(10'000'000));
    EXPECT_EQ(said()[0].text, "not ended");
    EXPECT_EQ(clock.participants(), 1u);
    const std::string picture = clock.picture();
    EXPECT_THAT(picture, HasSubstr("waits in pause without a deadline"));
    kill(std::stoi(picture.substr(picture.find(' '))), SIGTERM);
    testbed::wait_until("its end", 5s, [&] { return clock.participants() == 0; });
}

TEST_F(SteppedClock, EndOfAChildIsSeenAtTheNextLook)
{
    run_until_ended(act({"brief", "305", "reap", "10000"}));
    EXPECT_THAT(times(), ElementsAre(310'000));
    EXPECT_EQ(said()[0].text, "ended");
    run_until_ended(act({"child", "usleep", "70", "say", "child"}, "second"));
    EXPECT_THAT(times("second"), ElementsAre(380'000));
}

TEST_F(SteppedClock, KilledProcessDoesNotHoldTheOthers)
{
    testbed::Child &waiting = act({"pause"}, "waiting");
    act({"loop", "100", "poll", "100", "say", "x"});
    testbed::Child &spinning = act({"poll", "250", "spin"}, "spinning");
    clock.run_for(200ms);
    waiting.send_signal(SIGKILL);
    waiting.wait(5s);
    clock.at(240ms, [&] { spinning.send_signal(SIGKILL); });
    clock.run_for(200ms);
    EXPECT_THAT(times(), ElementsAre(100'000, 200'000, 300'000, 400'000));
    EXPECT_EQ(clock.participants(), 1u);
}

TEST_F(SteppedClock, WallClockJumpsAndTheRestDoesNotNotice)
{
    act({"timer", "3500", "loop", "8", "select", "1000", "say", "x"});
    clock.at(1500ms, [&] { clock.shift_wall(2h); });
    clock.at(2500ms, [&] { clock.set_wall(START - 86400); });
    clock.run_for(4s);
    EXPECT_THAT(times(), ElementsAre(1'000'000, 2'000'000, 3'000'000, 3'500'000));
    std::vector<std::int64_t> wall;
    for (const Said &one : said())
        wall.push_back(one.wall - START * 1'000'000);
    EXPECT_THAT(wall, ElementsAre(1'000'000, 7'202'000'000, -86'399'500'000, -86'399'000'000));
}

TEST_F(SteppedClock, IntervalTimerShowsLessThanItWasSetToAndRingsExactly)
{
    run_until_ended(act({"timer", "2500", "left", "poll", "1000", "left", "pause", "left", "alarms"}));
    ASSERT_EQ(said().size(), 4u);
    EXPECT_EQ(said()[0].text, "2499999");
    EXPECT_EQ(said()[1].text, "1499999");
    EXPECT_EQ(said()[2].text, "0");
    EXPECT_EQ(said()[3].text, "1");
    EXPECT_EQ(said()[3].time, 2'500'000);
}

TEST_F(SteppedClock, PeriodicTimerInterruptsWaits)
{
    run_until_ended(act({"period", "400", "loop", "5", "select", "1000", "say", "x"}));
    EXPECT_THAT(times(), ElementsAre(400'000, 800'000, 1'200'000, 1'600'000, 2'000'000));
}

TEST_F(SteppedClock, ByteReachesItsReaderAtTheMomentItIsWritten)
{
    const std::string pipe = directory + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    act({"take", pipe, "say", "taken", "take", pipe, "say", "taken"});
    act({"usleep", "123", "give", pipe, "usleep", "500", "give", pipe, "say", "given"}, "giver");
    clock.run_for(1s);
    EXPECT_THAT(times(), ElementsAre(123'000, 623'000));
    EXPECT_THAT(times("giver"), ElementsAre(623'000));
}

TEST_F(SteppedClock, ProcessAsleepInACallOutsideTheClockLetsTimeFlow)
{
    const std::string pipe = directory + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    act({"shell", "read line < " + pipe});  // opening it waits for a writer
    act({"loop", "5", "poll", "1000", "say", "x"}, "other");
    clock.run_for(3s);
    EXPECT_THAT(times("other"), ElementsAre(1'000'000, 2'000'000, 3'000'000));
    testbed::write_file(pipe, "now\n");
    clock.run_for(10ms);
    EXPECT_EQ(said().size(), 1u);
}

TEST_F(SteppedClock, LeapOversleepsIdleWaitsButNoRegisteredMoment)
{
    act({"loop", "1000000", "poll", "1000", "say", "x"});
    VirtualClock::Duration seen{};
    clock.at(1234s, [&] { seen = clock.now(); });
    clock.leap_for(1h, 600s);
    EXPECT_EQ(seen, 1234s);
    EXPECT_THAT(times(), ElementsAre(600'000'000, 1'200'000'000, 1'234'000'000, 1'834'000'000, 2'434'000'000,
                                     3'034'000'000, 3'600'000'000));
}

TEST_F(SteppedClock, LeapWaitsWhileSomebodyIsBusyAndKeepsExactMoments)
{
    act({"poll", "100", "say", "x", "poll", "100", "say", "x", "poll", "1000", "say", "x", "pause"});
    act({"loop", "100000", "poll", "1700", "say", "x"}, "exact", true);
    clock.leap_for(10s, 600s);
    EXPECT_THAT(times(), ElementsAre(100'000, 200'000, 1'700'000));
    EXPECT_THAT(times("exact"), ElementsAre(1'700'000, 3'400'000, 5'100'000, 6'800'000, 8'500'000));
}

TEST_F(SteppedClock, ScriptedActionsHappenInOrderAndMaySchedule)
{
    std::string order;
    clock.at(2s, [&] { order += "b"; });
    clock.at(1s, [&] {
        order += "a";
        clock.at(1500ms, [&] { order += "+"; });
    });
    clock.at(2s, [&] { order += "c"; });
    clock.at_wall(START + 3, [&] { order += clock.wall() == START + 3 ? "d" : "?"; });
    clock.run_for(2500ms);
    EXPECT_EQ(order, "a+bc");
    clock.run_for(1s);
    EXPECT_EQ(order, "a+bcd");
}

TEST_F(SteppedClock, RunThatSeesNothingTellsWhoWaitsForWhat)
{
    act({"pause"});
    try {
        clock.run_until(
            "miracle", [] { return false; }, 5s);
        FAIL();
    } catch (const TestbedError &error) {
        EXPECT_THAT(error.what(), HasSubstr("no miracle within 5"));
        EXPECT_THAT(error.what(), HasSubstr("vclock_actor: waits in pause"));
    }
    EXPECT_EQ(clock.now(), 5s);
}

TEST(SteppedClockWatch, ProcessThatNeverWaitsEndsTheRunWithAPicture)
{
    VirtualClock clock({.start = START, .zone = "UTC0", .patience = 1s});
    testbed::Child spinning({ACTOR, "spin"}, clock.environment(), "/dev/null");
    testbed::wait_until("the actor", 5s, [&] { return clock.participants() == 1; });
    try {
        clock.run_for(1s);
        FAIL();
    } catch (const TestbedError &error) {
        EXPECT_THAT(error.what(), HasSubstr("vclock_actor: works"));
    }
    spinning.send_signal(SIGKILL);
}

TEST_F(SteppedClock, ManyProcessesTakeTurnsInTheSameOrderEveryTime)
{
    const auto run = [&](const std::string &file) {
        for (int i = 0; i < 5; ++i)
            act({"child", "loop", "40", "poll", std::to_string(10 + i % 2), "say", std::to_string(i)}, file);
        clock.run_for(2s);
        std::string order;
        for (const Said &one : said(file))
            order += one.text;
        return order;
    };
    const std::string first = run("first");
    EXPECT_EQ(first.size(), 200u);
    EXPECT_EQ(run("second"), first);
}

}  // namespace

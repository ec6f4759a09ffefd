// A mains failure from its first second to the shutdown, and every other way in which the machine is brought
// down at once or later, in virtual time: what is logged, told, ordered and run, and when.
#include "power_stage.h"

#include <algorithm>
#include <sys/stat.h>
#include <thread>

using namespace bed;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

const std::string MINUTES_LEFT = "UPS Ac fail, System will be shut down in ";
constexpr char TIME_IS_UP[] = "Time is up! System shutdown will be executed soon";

double real_time()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// When the simulator did this last, by its own clock.
double when_done(const std::string &log, const std::string &command)
{
    const std::size_t done = log.rfind(" do " + command);
    return std::stod(log.substr(log.rfind('\n', done) + 1));
}

// When the reply was out that first told what this command did.
double reply_sent(const std::string &log, const std::string &command)
{
    const std::size_t reply = log.find(" tx (", log.rfind(" do " + command));
    constexpr double LINE_TIME = 47 * 10 / 2400.0;  // s
    return std::stod(log.substr(log.rfind('\n', reply) + 1)) + LINE_TIME;
}

int times_logged(int id)
{
    const std::string log = testbed::read_file(testbed::EVENT_LOG);
    int count = 0;
    for (std::size_t line = 0; line + 44 <= log.size(); line += 44)
        count += std::stoi(log.substr(line + 20, 4)) == id ? 1 : 0;
    return count;
}

double log_written()
{
    struct stat state = {};
    EXPECT_EQ(stat(testbed::EVENT_LOG, &state), 0);
    return static_cast<double>(state.st_mtim.tv_sec) + static_cast<double>(state.st_mtim.tv_nsec) / 1e9;
}

}  // namespace

// ---- the countdown

TEST(MainsFailure, DefaultCountdownEndsInAnOrderlyShutdown)
{
    Stage stage;
    stage.link_up();
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(120s));
    const std::int64_t failed = failed_at(stage);
    EXPECT_THAT(stage.events(),
                ElementsAre(LoggedEvent{0, 7, 255, ""}, LoggedEvent{3, 1, 255, ""},
                            LoggedEvent{failed, 65, 255, ""}, LoggedEvent{failed + 61, 129, 255, ""},
                            LoggedEvent{failed + 61, 22, 129, ""}, LoggedEvent{failed + 61, 8, 255, ""}));
    const std::string half = MINUTES_LEFT + "0 minute(s) and 30 second(s).";
    const std::string now = MINUTES_LEFT + "0 minute(s) and 0 second(s).";
    EXPECT_THAT(texts(stage.walls()), ElementsAre(half, now, "UPS AC Fail Delay Run out"));
    EXPECT_THAT(seconds_after(failed, stage.walls()), ElementsAre(30, 60, 61));
    EXPECT_THAT(texts(stage.notices()), ElementsAre("UPS Communication established", half, now, TIME_IS_UP));
    EXPECT_THAT(seconds_after(failed, containing(stage.notices(), "i")), ElementsAre(3 - failed, 30, 60, 61));
    const std::vector<Said> orders = stage.orders(static_cast<double>(failed));
    EXPECT_THAT(texts(orders), ElementsAre("S10\\r"));
    EXPECT_THAT(seconds_after(failed, orders), ElementsAre(61));
    EXPECT_THAT(texts(stage.shutdowns()), ElementsAre(DOWN));
    EXPECT_THAT(seconds_after(failed, stage.shutdowns()), ElementsAre(61));
    EXPECT_LE(orders.at(0).at, stage.shutdowns().at(0).at);
}

TEST(MainsFailure, AnAgentThatHeedsOthersNamesItselfAsTheCause)
{
    Stage stage({.settings = heeding()});
    stage.link_up();
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 129, 80, 22, 8));
    EXPECT_EQ(stage.events().at(4).name, "voltaria-test");
    EXPECT_THAT(texts(stage.walls()),
                ElementsAre(HasSubstr("30 second"), HasSubstr("0 second"), "UPS AC Fail Delay Run out",
                            "Network Shutdown Triggered by Other Agent"));
}

TEST(MainsFailure, UnitSwitchesOffAfterItsDelayAndComesBackWithMains)
{
    Stage stage({.settings = {{"ShutDown", "TurnOffDelay", "45"}}});
    stage.link_up();
    stage.unit("rate 0.1");  // the battery lasts
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(texts(switch_offs(stage)), ElementsAre("S.7\\r"));
    stage.run(41s);  // seven tenths of a minute are 42 s
    EXPECT_THAT(stage.unit_log(), Not(HasSubstr("output off")));
    stage.run(2s);
    EXPECT_THAT(stage.unit_log(), HasSubstr("output off"));
    stage.run(60s);
    stage.unit("mains return");
    stage.run(15s);
    EXPECT_THAT(stage.unit_log(), HasSubstr("output on"));
}

TEST(MainsFailure, WithoutAnyTimeOnBatteryItEndsWithTheNextSecond)
{
    Stage stage({.settings = {{"ShutDown", "EXPECTBLIFE", "0"}, {"ShutDown", "FIRSTWARN", "0"}}});
    stage.link_up();
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(5s));
    EXPECT_THAT(stage.times_of(129), ElementsAre(failed_at(stage) + 1));
}

TEST(MainsFailure, FlickerBetweenTwoQuestionsIsNone)
{
    Stage stage;
    stage.link_up();
    for (int i = 0; i < 5; ++i) {
        stage.unit("mains fail");
        stage.run(100ms);
        stage.unit("mains return");
        stage.run(2900ms);
    }
    EXPECT_THAT(events_since_link(stage), IsEmpty());
}

TEST(MainsFailure, IsCountedAcrossTheEndOfThirtyTwoBitTime)
{
    Stage stage({.start = 2'147'483'648 - 40});
    stage.link_up();
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 129, 22, 8));
    EXPECT_THAT(stage.times_of(129), ElementsAre(failed_at(stage) + 61));
    EXPECT_THAT(seconds_after(failed_at(stage), stage.walls()), ElementsAre(30, 60, 61));
    EXPECT_EQ(stage.nextdown(), failed_at(stage) + 60);
}

// ---- nothing that stands in the way holds it up

TEST(MainsFailure, UnitThatDoesNotAnswerAtTheDeadlineDoesNotKeepTheMachineUp)
{
    for (const char *trouble : {"silence on", "line cut", "nak S on"}) {
        SCOPED_TRACE(trouble);
        Stage stage;
        stage.link_up();
        stage.unit("mains fail");
        stage.run(59s);
        stage.unit(trouble);
        ASSERT_TRUE(stage.goes_down(20s));
        EXPECT_THAT(events_since_link(stage), ElementsAre(65, 129, 22, 8));
    }
}

TEST(MainsFailure, TerminalThatTakesNoTextDelaysItByTenSecondsAMessage)
{
    Stage stage;
    stage.link_up();
    testbed::set_stand_in("wall", "hang");
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 129, 22, 8));
    EXPECT_EQ(stage.walls().size(), 3u);
    EXPECT_LE(stage.shutdowns().at(0).at, static_cast<double>(failed_at(stage)) + 61 + 2 * 10 + 2);
}

TEST(MainsFailure, ShortTroubleOnTheLineDoesNotDisturbTheCountdown)
{
    Stage stage;
    stage.link_up();
    stage.unit("mains fail");
    for (const char *trouble : {"line cut", "silence on"}) {
        stage.run(10s);
        stage.unit(trouble);
        stage.run(3s);
        stage.unit("line restore");
        stage.unit("silence off");
    }
    ASSERT_TRUE(stage.goes_down(60s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 129, 22, 8));
    EXPECT_THAT(stage.times_of(129), ElementsAre(failed_at(stage) + 61));
}

TEST(MainsFailure, LongCountdownWarnsFromItsFirstWarningAtItsInterval)
{
    Stage stage({.settings = {{"ShutDown", "EXPECTBLIFE", "1200"},
                              {"ShutDown", "FIRSTWARN", "300"},
                              {"ShutDown", "INTERVAL", "120"}}});
    stage.link_up();
    stage.unit("rate 0.1");  // the battery lasts
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(1300s));
    const std::vector<Said> warnings = containing(stage.walls(), MINUTES_LEFT);
    EXPECT_THAT(seconds_after(failed_at(stage), warnings),
                ElementsAre(300, 420, 540, 660, 780, 900, 1020, 1140));
    EXPECT_EQ(warnings.at(0).text, MINUTES_LEFT + "15 minute(s) and 0 second(s).");
    EXPECT_EQ(warnings.at(7).text, MINUTES_LEFT + "1 minute(s) and 0 second(s).");
    const std::vector<Said> notices = containing(stage.notices(), MINUTES_LEFT);
    EXPECT_EQ(texts(notices), texts(warnings));
    EXPECT_EQ(seconds_after(0, notices), seconds_after(0, warnings));
    EXPECT_THAT(stage.times_of(129), ElementsAre(failed_at(stage) + 1201));
    EXPECT_THAT(seconds_after(failed_at(stage), stage.shutdowns()), ElementsAre(1201));
}

TEST(MainsFailure, TheNextShutdownIsShownWhileItIsCountedDown)
{
    Stage stage;
    stage.link_up();
    EXPECT_EQ(stage.nextdown(), 0);
    stage.unit("mains fail");
    stage.run(30s);
    EXPECT_EQ(stage.nextdown(), failed_at(stage) + 60);
    EXPECT_EQ(stage.info().ShutdownS, 0);
    stage.unit("mains return");
    stage.run(2s);
    EXPECT_EQ(stage.nextdown(), 0);
}

// ---- mains returns

TEST(MainsFailure, ReturnInTimeEndsItAndTheNextOneCountsAnew)
{
    Stage stage;
    stage.link_up();
    stage.unit("mains fail");
    stage.run(59s);
    stage.unit("mains return");
    stage.run(120s);
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 0));
    EXPECT_THAT(texts(containing(stage.notices(), "Restore")), ElementsAre("UPS AC Restore"));
    EXPECT_THAT(texts(containing(stage.walls(), "Restore")), ElementsAre("UPS AC Restore"));
    expect_up(stage);
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 0, 65, 129, 22, 8));
    EXPECT_EQ(stage.times_of(129).at(0), stage.times_of(65).at(1) + 61);
}

TEST(MainsFailure, OneFailureAfterAnotherIsNeverAddedUp)
{
    Stage stage;
    stage.link_up();
    for (int i = 0; i < 4; ++i) {
        stage.unit("mains fail");
        stage.run(40s);
        stage.unit("mains return");
        stage.run(3s);
    }
    expect_up(stage);
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 0, 65, 0, 65, 0, 65, 0));
}

TEST(MainsFailure, ReturnAfterTheDeadlineHoldsNothingUp)
{
    Stage stage({.settings = heeding(5)});
    stage.link_up();
    stage.unit("mains fail");
    run_until_event(stage, 129, 1, 70s);
    stage.unit("mains return");
    ASSERT_TRUE(stage.goes_down(70s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 129, 80, 0, 22, 8));
    EXPECT_EQ(cause_of_the_shutdown(stage), 129);
    EXPECT_THAT(texts(stage.orders(static_cast<double>(failed_at(stage)))), ElementsAre("S10\\r"));
}

TEST(MainsFailure, OneThatIsThereWhenTheUnitIsFoundIsCountedFromThere)
{
    Stage stage;
    stage.unit("mains fail");
    stage.link_up();
    ASSERT_TRUE(stage.goes_down(120s));
    EXPECT_THAT(ids(stage.events()), ElementsAre(7, 1, 65, 129, 22, 8));
    EXPECT_EQ(stage.times_of(65), stage.times_of(1));
    EXPECT_EQ(stage.times_of(129).at(0), failed_at(stage) + 61);
}

TEST(MainsFailure, IsNotMadeUpForAUnitThatWasNeverFound)
{
    Stage stage;
    stage.unit("mains fail");
    stage.unit("line cut");
    stage.run(200s);
    expect_up(stage);
    EXPECT_THAT(ids(stage.events()), ElementsAre(7));  // and what was never there is not lost
}

// ---- the wall clock is set

TEST(MainsFailure, ClocksSetByHoursDoNotDisturbTheCountdown)
{
    Stage stage({.settings = {{"ShutDown", "EXPECTBLIFE", "300"}}});
    stage.link_up();
    stage.unit("mains fail");
    stage.run(60s);
    const std::int64_t deadline = failed_at(stage) + 300;
    std::int64_t shift = 0;
    for (const int hours : {3, -7, 2}) {
        stage.clock.shift_wall(std::chrono::hours(hours));
        shift += 3600 * hours;
        stage.run(40s);
        EXPECT_NEAR(static_cast<double>(stage.nextdown()), static_cast<double>(deadline + shift), 1) << hours;
        expect_up(stage);
        const std::vector<Said> warnings = containing(stage.notices(), MINUTES_LEFT);
        EXPECT_GT(warnings.back().at, stage.now() - 40) << "silent after " << hours << " hours";
    }
    ASSERT_TRUE(stage.goes_down(300s));
    const std::vector<Said> orders = stage.orders(static_cast<double>(failed_at(stage)));
    EXPECT_THAT(texts(orders), ElementsAre("S10\\r"));
    EXPECT_NEAR(orders.at(0).at, static_cast<double>(deadline) + 1, 1);
}

// ---- at once

TEST(BatteryLow, BringsTheMachineDownAtOnce)
{
    Stage stage;
    stage.link_up();
    stage.unit("mains fail");
    stage.run(10s);
    stage.unit("battery low on");
    ASSERT_TRUE(stage.goes_down(3s));
    const std::int64_t low = stage.times_of(128).at(0);
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 128, 22, 8));
    EXPECT_EQ(cause_of_the_shutdown(stage), 128);
    EXPECT_THAT(seconds_after(low, stage.shutdowns()), ElementsAre(0));
    const std::string text = "The system will begin shutdown process due to Battery Low";
    EXPECT_THAT(texts(stage.walls()), ElementsAre("UPS Battery Low", text));
    EXPECT_THAT(texts(stage.notices()),
                ElementsAre("UPS Communication established", "UPS Battery Low", text, TIME_IS_UP));
    EXPECT_THAT(texts(stage.orders(static_cast<double>(low))), ElementsAre("S10\\r"));
}

TEST(BatteryLow, IsNotHeldUpByMainsThatReturns)
{
    Stage stage({.settings = heeding(5)});
    stage.link_up();
    stage.unit("mains fail");
    stage.run(10s);
    stage.unit("battery low on");
    stage.run(5s);
    stage.unit("battery low off");
    stage.unit("mains return");
    ASSERT_TRUE(stage.goes_down(70s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(65, 128, 80, 0, 22, 8));
}

TEST(BatteryLow, ThatIsThereWhenTheUnitIsFoundBringsTheMachineDown)
{
    Stage stage;
    stage.unit("mains fail");
    stage.unit("battery low on");
    ASSERT_TRUE(stage.goes_down(20s));
    EXPECT_THAT(ids(stage.events()), ElementsAre(7, 1, 65, 128, 22, 8));
}

TEST(EventWithShutdown, BringsTheMachineDownAtOnce)
{
    Stage stage({.settings = {{"Event66", "ShutDown", "1"}, {"Event66", "BroadcastType", "0"}}});
    stage.link_up();
    stage.unit("battery disconnect on");
    ASSERT_TRUE(stage.goes_down(3s));
    EXPECT_THAT(events_since_link(stage), ElementsAre(66, 22, 8));
    EXPECT_EQ(cause_of_the_shutdown(stage), 66);
    const std::string text = "UPS Battery Disconnect, The system will begin shutdown process.";
    EXPECT_THAT(texts(stage.walls()), ElementsAre("UPS Battery Disconnect", text));
    EXPECT_THAT(texts(containing(stage.notices(), "begin")), ElementsAre(text));
    EXPECT_THAT(texts(stage.orders(static_cast<double>(stage.times_of(66).at(0)))), ElementsAre("S10\\r"));
}

TEST(EventWithShutdown, WithoutItNothingGoesDown)
{
    Stage stage;
    stage.link_up();
    for (const char *trouble :
         {"battery weak on", "battery disconnect on", "fault on", "bypass on", "load 120"}) {
        stage.unit(trouble);
        stage.run(20s);
    }
    expect_up(stage);
    EXPECT_THAT(events_since_link(stage), testing::Not(testing::Contains(testing::AnyOf(65, 128, 129, 22))));
    EXPECT_THAT(events_since_link(stage), testing::IsSupersetOf({66, 68, 77, 78}));
}

// ---- how fast, and how exactly

// The agent's own turns are brought half a second behind the passes, so that it notices at the time of the
// reply only because the reply wakes it.
TEST(StatusChange, IsNoticedAtTheVeryMomentOfTheReply)
{
    Stage stage;
    stage.link_up();
    const testbed::UdpSocket nudge;
    for (const char *mains : {"mains fail", "mains return"}) {
        stage.run(5s);
        nudge.send("127.0.0.1", testbed::AGENT_UDP_PORT, "?");
        const std::size_t before = testbed::calls_of("mesg").size();
        stage.unit(mains);
        stage.run(2s);
        const std::string log = stage.unit_log();
        const std::size_t asked = log.find("rx Q1", log.rfind(mains));
        const double replied = std::stod(log.substr(log.rfind('\n', asked) + 1));
        EXPECT_NEAR(testbed::calls_of("mesg").at(before).time - static_cast<double>(STAGE_START), replied,
                    0.002)
            << mains;
    }
}

// The same in real time, at the speed of a real line: from the end of the reply to the line in the log. A
// machine that does something else for a moment is forgiven; without the waking every delay would be longer.
TEST(StatusChange, IsInTheLogFiftyMillisecondsAfterTheReply)
{
    testbed::SimulatorOptions options;
    options.pace = true;
    testbed::Simulator unit(UPSSIM, options);
    testbed::Daemon daemon(VOLTARIAD);
    const double begun = real_time();
    unit.command("test result pass");
    const double offset = begun - when_done(unit.log(), "test result pass");
    daemon.start();
    testbed::wait_until("event 1", PATIENCE, [] { return times_logged(1) == 1; });
    const testbed::UdpSocket nudge;
    std::vector<double> delays;
    for (int i = 0; i < 3; ++i)
        for (const bool fails : {true, false}) {
            std::this_thread::sleep_for(400ms);
            nudge.send("127.0.0.1", testbed::AGENT_UDP_PORT, "?");
            const std::string what = fails ? "mains fail" : "mains return";
            const int before = times_logged(fails ? 65 : 0);
            unit.command(what);
            testbed::wait_until(what, PATIENCE, [&] { return times_logged(fails ? 65 : 0) > before; });
            delays.push_back(log_written() - (offset + reply_sent(unit.log(), what)));
        }
    std::sort(delays.begin(), delays.end());
    RecordProperty("delays_in_seconds", testing::PrintToString(delays));
    EXPECT_LT(delays.front(), 0.05) << testing::PrintToString(delays);
}

TEST(MainsFailure, SameStoryHappensTwice)
{
    const auto story = [] {
        Stage stage({.settings = heeding(), .seed = 7});
        stage.link_up();
        stage.unit("mains fail");
        stage.goes_down(120s);
        stage.run(5s);
        return stage.story();
    };
    const std::string first = story();
    EXPECT_THAT(first, HasSubstr("S10"));
    EXPECT_THAT(first, HasSubstr(DOWN));
    EXPECT_THAT(first, HasSubstr(TIME_IS_UP));
    EXPECT_EQ(story(), first);
}

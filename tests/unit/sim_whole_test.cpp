// The whole simulation, as the host and the control channel see it, in time that the test sets.
#include "sim/sim.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;
using sim::Sim;

Sim simulation(std::string_view model = "ZR900PL")
{
    return sim::sim_new(*sim::find_model(model), 1);
}

// Sends a command at `now` and returns all that the host has got a second later.
std::string ask(Sim &s, sim::Time now, std::string_view command)
{
    sim::sim_run(s, now);
    sim::sim_from_host(s, now, std::string(command) + "\r");
    return sim::sim_run(s, now + 1s);
}

std::string tell(Sim &s, std::string_view line)
{
    return sim::sim_command(s, s.unit.now, line);
}

bool logged(const Sim &s, std::string_view line)
{
    return std::any_of(s.log.entries.begin(), s.log.entries.end(),
                       [&](const sim::LogEntry &entry) { return sim::log_line(entry) == line; });
}

TEST(Sim, CommandAndReplyTakeTheirLineTime)
{
    Sim s = simulation();
    sim::sim_from_host(s, 0s, "Q1\r");
    EXPECT_EQ(sim::sim_run(s, 3 * sim::CHARACTER_TIME), "");
    EXPECT_EQ(sim::sim_run(s, 50 * sim::CHARACTER_TIME - 1ns).size(), 46U);
    EXPECT_EQ(sim::sim_run(s, 50 * sim::CHARACTER_TIME), "\r");
}

TEST(Sim, OneLongStepGivesTheSameAsManyShortOnes)
{
    Sim coarse = simulation();
    Sim fine = simulation();
    for (Sim *s : {&coarse, &fine}) {
        s->script = sim::parse_script("at 1s mains fail\nat 3s load 80\nat 5s mains return").script;
        sim::sim_from_host(*s, 0s, "Q1\rT\rV\r");
    }
    std::string pieces;
    for (sim::Time now = 0s; now <= 20s; now += 7ms)
        pieces += sim::sim_run(fine, now);
    pieces += sim::sim_run(fine, 20s);
    EXPECT_EQ(sim::sim_run(coarse, 20s), pieces);
    EXPECT_EQ(sim::sim_status(coarse), sim::sim_status(fine));
}

TEST(Sim, FollowingItsDueTimesMissesNothing)
{
    Sim s = simulation();
    sim::sim_from_host(s, 0s, "S.1R00001\r");
    sim::Time now = 0s;
    for (std::optional<sim::Time> due = sim::sim_next_due(s); due && *due < 2min;
         due = sim::sim_next_due(s)) {
        ASSERT_GE(*due, now);
        now = *due;
        sim::sim_run(s, now);
    }
    EXPECT_TRUE(s.unit.output.on);
    EXPECT_TRUE(logged(s, "0.041 rx S.1R00001\\r"));
    EXPECT_TRUE(logged(s, "6.041 ev output off"));
    EXPECT_TRUE(logged(s, "66.041 ev output on"));
    EXPECT_EQ(sim::sim_next_due(s), std::nullopt);
}

TEST(Sim, ScenarioStepsHappenAtTheirTime)
{
    Sim s = simulation();
    s.script = sim::parse_script("at 10s mains fail\nafter 30s mains return").script;
    EXPECT_EQ(sim::sim_next_due(s), 10s);
    EXPECT_EQ(ask(s, 9s, "Q1").substr(38), "00000000\r");
    EXPECT_EQ(ask(s, 11s, "Q1").substr(38), "10000000\r");
    EXPECT_EQ(ask(s, 41s, "Q1").substr(38), "00000000\r");
    EXPECT_TRUE(logged(s, "10.000 do mains fail"));
    EXPECT_TRUE(logged(s, "10.000 ev mains failure"));
}

TEST(Sim, CutLineAndSilence)
{
    Sim s = simulation();
    EXPECT_EQ(tell(s, "line cut"), "ok");
    EXPECT_EQ(ask(s, 1s, "V"), "");
    EXPECT_FALSE(logged(s, "1.008 rx V\\r"));
    EXPECT_EQ(tell(s, "line restore"), "ok");
    EXPECT_EQ(tell(s, "silence on"), "ok");
    EXPECT_EQ(ask(s, 3s, "Bf"), "");
    EXPECT_TRUE(logged(s, "3.012 rx Bf\\r"));
    EXPECT_EQ(tell(s, "silence off"), "ok");
    EXPECT_EQ(ask(s, 5s, "V"), "01000000\r") << "it obeyed in silence";
}

TEST(Sim, LateReplies)
{
    Sim s = simulation();
    tell(s, "late 2.5s");
    sim::sim_from_host(s, 0s, "V\r");
    const sim::Time heard = 2 * sim::CHARACTER_TIME;
    EXPECT_EQ(sim::sim_run(s, heard + 2500ms), "");
    EXPECT_EQ(sim::sim_run(s, heard + 2500ms + 9 * sim::CHARACTER_TIME), "00000000\r");
    EXPECT_TRUE(logged(s, "2.508 tx 00000000\\r"));
}

TEST(Sim, RefusedAndReplacedReplies)
{
    Sim s = simulation("ZM300LT");
    tell(s, "nak CF on");
    EXPECT_EQ(ask(s, 1s, "CF"), "NAK\r");
    tell(s, "nak CF off");
    EXPECT_EQ(ask(s, 3s, "CF").size(), 40U);
    tell(s, "nak S on");
    EXPECT_EQ(ask(s, 5s, "S05"), "NAK\r");
    EXPECT_FALSE(s.unit.order.counting);
    tell(s, "reply \"Lf ?\" 60.1\\r");
    EXPECT_EQ(ask(s, 7s, "Lf ?"), "60.1\r");
    tell(s, "reply \"Lf ?\" off");
    EXPECT_EQ(ask(s, 9s, "Lf ?"), "50.0\r");
    tell(s, "reply BRR \"\"");
    EXPECT_EQ(ask(s, 11s, "BRR"), "");
}

TEST(Sim, BrokenAndShortReplies)
{
    Sim s = simulation();
    tell(s, "wrong checks on");
    EXPECT_EQ(ask(s, 1s, "V"), "?0000000\r");
    tell(s, "wrong checks off");
    tell(s, "truncate 39");
    EXPECT_EQ(ask(s, 3s, "CF").size(), 39U);
    tell(s, "truncate off");
    EXPECT_EQ(ask(s, 5s, "CF").size(), 40U);
}

TEST(Sim, LastBytesOfAReplyComeWithTheNextOne)
{
    Sim s = simulation();
    const std::string whole = ask(s, 1s, "V");
    tell(s, "lag 1");
    EXPECT_EQ(ask(s, 3s, "V"), whole.substr(0, whole.size() - 1));
    EXPECT_EQ(ask(s, 5s, "V"), "\r" + whole.substr(0, whole.size() - 1));
    tell(s, "lag off");
    EXPECT_EQ(ask(s, 7s, "V"), whole);
}

TEST(Sim, GarbageWakeAndFlowControlArriveAtTheHost)
{
    Sim s = simulation();
    EXPECT_EQ(tell(s, "garbage \"a b\"\\x00"), "error: missing blank after the closing quote");
    tell(s, "garbage \"a b\\x00\\r\"");
    EXPECT_EQ(sim::sim_run(s, 2s), std::string("a b\0\r", 5));
    tell(s, "wake");
    EXPECT_EQ(sim::sim_run(s, 3s), "WAKE\r");
    tell(s, "xoff");
    EXPECT_EQ(sim::sim_run(s, 4s), "\x13");
    tell(s, "xon");
    EXPECT_EQ(sim::sim_run(s, 5s), "\x11");
    tell(s, "garbage stream 50 9");
    EXPECT_EQ(sim::sim_run(s, 6s).size(), 50U);
    tell(s, "garbage off");
    EXPECT_EQ(sim::sim_run(s, 7s), "");
}

TEST(Sim, AnotherUnitOnTheSamePort)
{
    Sim s = simulation();
    tell(s, "mains fail");
    tell(s, "load 60");
    EXPECT_EQ(tell(s, "model ZR401"), "ok");
    EXPECT_EQ(ask(s, 1s, "(SiCC)"), "[ZR401 V1.2]\r");
    const std::string status = ask(s, 3s, "Q1");
    EXPECT_EQ(status.substr(38), "10001000\r") << "mains is still away";
    EXPECT_EQ(s.unit.around.load, 60.0);
}

TEST(Sim, ADeadUnitSaysNothingAndWakesWithMains)
{
    Sim s = simulation();
    tell(s, "battery 0");
    tell(s, "mains fail");
    EXPECT_EQ(ask(s, 1s, "Q1"), "");
    tell(s, "mains return");
    EXPECT_EQ(sim::sim_run(s, 3s), "WAKE\r");
    EXPECT_EQ(ask(s, 4s, "V"), "00000000\r");
}

TEST(Sim, EveryConditionCanBeSet)
{
    Sim s = simulation();
    for (const char *line :
         {"battery weak on", "battery disconnect on", "battery low on", "bypass on", "fault on", "standby on",
          "temperature none", "load 120", "input 95.5", "rate 10"})
        EXPECT_EQ(tell(s, line), "ok") << line;
    const std::string status = ask(s, 10s, "Q1");
    EXPECT_EQ(status.substr(0, 6), "(095.5");
    EXPECT_EQ(status.substr(33), "--.- 01111001\r");
    EXPECT_EQ(ask(s, 12s, "V"), "10000001\r");
    for (const char *line : {"battery weak off", "battery disconnect off", "battery low auto", "bypass off",
                             "fault off", "standby off", "temperature 31.5"})
        EXPECT_EQ(tell(s, line), "ok") << line;
    EXPECT_EQ(ask(s, 14s, "Q1").substr(38), "00000000\r");
    EXPECT_EQ(tell(s, "output off"), "ok");
    EXPECT_FALSE(s.unit.output.on);
    EXPECT_EQ(tell(s, "output on"), "ok");
    EXPECT_EQ(tell(s, "test duration 16s"), "ok");
    EXPECT_EQ(tell(s, "test long 30"), "ok");
    EXPECT_EQ(s.unit.test.brief_lasts, 16s);
    EXPECT_EQ(s.unit.test.long_lasts, sim::Time(30s));
    EXPECT_EQ(tell(s, "test long auto"), "ok");
    EXPECT_EQ(s.unit.test.long_lasts, std::nullopt);
    EXPECT_EQ(tell(s, "test result weak"), "ok");
    EXPECT_EQ(s.unit.test.will_be, sim::TestResult::weak);
}

TEST(Sim, ControlAnswers)
{
    Sim s = simulation();
    EXPECT_EQ(tell(s, ""), "");
    EXPECT_EQ(tell(s, "nonsense"), "error: unknown command 'nonsense'");
    EXPECT_EQ(tell(s, "load -1"), "error: bad value '-1', usage: load PERCENT");
    EXPECT_TRUE(tell(s, "help").find("battery low on|off|auto") != std::string::npos);
    const std::string status = tell(s, "status");
    EXPECT_TRUE(status.starts_with("{\"time\":0.000,\"model\":\"ZR900PL\",\"mains\":true")) << status;
    EXPECT_EQ(status.find('\n'), std::string::npos);
    EXPECT_EQ(tell(s, "port unplug"), "ok");
    EXPECT_FALSE(s.plugged);
    EXPECT_EQ(tell(s, "port plug"), "ok");
    EXPECT_TRUE(s.plugged);
    EXPECT_EQ(tell(s, "pace off"), "ok");
    EXPECT_FALSE(s.line.paced);
    tell(s, "mains fail");
    EXPECT_EQ(tell(s, "log 2"), "0.000 do mains fail\n0.000 ev mains failure\nok");
    EXPECT_EQ(tell(s, "quit"), "ok");
    EXPECT_TRUE(s.quit);
}

TEST(Sim, AMonthPassesQuickly)
{
    Sim s = simulation();
    s.script = sim::parse_script("at 100h mains fail\nafter 60s mains return").script;
    sim::sim_run(s, 24h * 30);
    EXPECT_EQ(s.unit.battery.charge, 1.0);
    EXPECT_TRUE(logged(s, "360060.000 ev mains good"));
}

}  // namespace

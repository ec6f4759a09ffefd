// Pacing and the line's faults.
#include "sim/sim_line.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;
using sim::Line;

TEST(SimLine, ACharacterTakesTenBitsAt2400Baud)
{
    EXPECT_EQ(sim::CHARACTER_TIME, 4166666ns);
}

TEST(SimLine, BytesArriveOneAfterTheOther)
{
    Line line;
    sim::line_from_unit(line, 1s, "abc");
    EXPECT_EQ(sim::line_next_due(line), 1s + sim::CHARACTER_TIME);
    EXPECT_EQ(sim::line_take_for_host(line, 1s + sim::CHARACTER_TIME - 1ns), "");
    EXPECT_EQ(sim::line_take_for_host(line, 1s + sim::CHARACTER_TIME), "a");
    EXPECT_EQ(sim::line_take_for_host(line, 1s + 3 * sim::CHARACTER_TIME), "bc");
    EXPECT_EQ(sim::line_next_due(line), std::nullopt);
}

TEST(SimLine, TwoHundredAndFortyCharactersTakeASecond)
{
    Line line;
    sim::line_from_unit(line, 0s, std::string(240, 'x'));
    EXPECT_EQ(sim::line_take_for_host(line, 999ms).size(), 239U);
    EXPECT_EQ(sim::line_take_for_host(line, 1s).size(), 1U);
}

TEST(SimLine, WhatIsSentWhileTheLineIsBusyFollowsBehind)
{
    Line line;
    sim::line_from_unit(line, 0s, "ab");
    sim::line_from_unit(line, 1ms, "c");
    EXPECT_EQ(sim::line_take_for_host(line, 3 * sim::CHARACTER_TIME - 1ns), "ab");
    EXPECT_EQ(sim::line_take_for_host(line, 3 * sim::CHARACTER_TIME), "c");
}

TEST(SimLine, BothDirectionsAreIndependent)
{
    Line line;
    sim::line_from_unit(line, 0s, std::string(100, 'x'));
    sim::line_from_host(line, 0s, "Q");
    const auto byte = sim::line_take_for_unit(line, sim::CHARACTER_TIME);
    ASSERT_TRUE(byte);
    EXPECT_EQ(byte->byte, 'Q');
    EXPECT_EQ(byte->due, sim::CHARACTER_TIME);
    EXPECT_EQ(sim::line_take_for_unit(line, 1s), std::nullopt);
}

TEST(SimLine, WithoutPacingBytesArriveAtOnce)
{
    Line line;
    line.paced = false;
    sim::line_from_unit(line, 5s, "abc");
    EXPECT_EQ(sim::line_take_for_host(line, 5s), "abc");
}

TEST(SimLine, FlowControlCharactersDoNotReachTheUnit)
{
    Line line;
    line.paced = false;
    sim::line_from_host(line, 0s, "\x11Q\x13\x31\x11");
    EXPECT_EQ(sim::line_take_for_unit(line, 0s)->byte, 'Q');
    EXPECT_EQ(sim::line_take_for_unit(line, 0s)->byte, '1');
    EXPECT_EQ(sim::line_take_for_unit(line, 0s), std::nullopt);
}

TEST(SimLine, ACutLineSwallowsWhatArrivesInBothDirections)
{
    Line line;
    line.cut = true;
    sim::line_from_host(line, 0s, "Q1\r");
    sim::line_from_unit(line, 0s, "abc");
    EXPECT_EQ(sim::line_take_for_unit(line, 1s), std::nullopt);
    EXPECT_EQ(sim::line_take_for_host(line, 2 * sim::CHARACTER_TIME), "");
    line.cut = false;
    EXPECT_EQ(sim::line_take_for_host(line, 1s), "c");
}

TEST(SimLine, DisturbancesStandBetweenTheBytesOfAReply)
{
    Line line;
    sim::line_from_unit(line, 0s, "abc");
    sim::line_disturb(line, sim::CHARACTER_TIME + 1ms, "##");
    EXPECT_EQ(sim::line_take_for_host(line, 1s), "a##bc");
}

TEST(SimLine, NoiseComesAtItsRateAndRepeatsWithItsSeed)
{
    Line first;
    Line second;
    sim::line_set_noise(first, 0s, 100, 5);
    sim::line_set_noise(second, 0s, 100, 5);
    EXPECT_EQ(sim::line_next_due(first), 10ms);
    const std::string bytes = sim::line_take_for_host(first, 1s);
    EXPECT_EQ(bytes.size(), 100U);
    EXPECT_EQ(sim::line_take_for_host(second, 1s), bytes);
    sim::line_set_noise(first, 1s, 0, 0);
    EXPECT_EQ(sim::line_take_for_host(first, 10s), "");
}

}  // namespace

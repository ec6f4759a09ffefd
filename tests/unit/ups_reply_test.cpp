// The unit's replies as text: each form, each position, and what is not a reply.
#include "agent_ups_reply.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

static const std::string Q1_LINE = "(100.3 101.0 099.7 030 50.1 13.6 25.4 10000000\n";

static std::string q1_with(std::size_t at, char c)
{
    std::string line = Q1_LINE;
    line[at] = c;
    return line;
}

TEST(UpsReplyQ1, WellFormedLineIsAccepted)
{
    ASSERT_EQ(Q1_LINE.size(), 47U);
    EXPECT_TRUE(q1_wellformed(Q1_LINE));
    EXPECT_TRUE(q1_wellformed(q1_with(46, '\r')));
}

TEST(UpsReplyQ1, EverySeparatorIsRequired)
{
    for (const std::size_t at :
         std::vector<std::size_t>{0, 4, 6, 10, 12, 16, 18, 22, 25, 27, 30, 32, 35, 37, 46})
        EXPECT_FALSE(q1_wellformed(q1_with(at, 'x'))) << "position " << at;
}

TEST(UpsReplyQ1, DigitsAndStatusCharactersAreNotPartOfTheForm)
{
    for (const std::size_t at :
         std::vector<std::size_t>{1, 5, 7, 11, 13, 17, 19, 21, 23, 26, 28, 31, 33, 36, 38, 45})
        EXPECT_TRUE(q1_wellformed(q1_with(at, '?'))) << "position " << at;
}

TEST(UpsReplyQ1, OtherLengthsAreRefused)
{
    EXPECT_FALSE(q1_wellformed(""));
    EXPECT_FALSE(q1_wellformed(Q1_LINE.substr(0, 46)));
    EXPECT_FALSE(q1_wellformed(Q1_LINE + "\n"));
}

TEST(UpsReplyQ1, MeasurementsAreReadFromTheirPositions)
{
    const Q1REPLY q1 = q1_parse(Q1_LINE);
    EXPECT_EQ(q1.input.whole, 100);
    EXPECT_EQ(q1.input.tenth, 3);
    EXPECT_EQ(q1.output.whole, 99);
    EXPECT_EQ(q1.output.tenth, 7);
    EXPECT_EQ(q1.load, 30);
    EXPECT_EQ(q1.freq.whole, 50);
    EXPECT_EQ(q1.freq.tenth, 1);
    EXPECT_EQ(q1.battery.whole, 13);
    EXPECT_EQ(q1.battery.tenth, 6);
    EXPECT_EQ(q1.temp.whole, 25);
    EXPECT_EQ(q1.temp.tenth, 4);
}

TEST(UpsReplyQ1, BatteryVoltageWithTwoDecimalsGivesItsLastDigit)
{
    const std::string line = "(100.3 101.0 099.7 030 50.1 2.27 25.4 10000000\n";
    ASSERT_TRUE(q1_wellformed(line));
    EXPECT_EQ(q1_parse(line).battery.whole, 2);
    EXPECT_EQ(q1_parse(line).battery.tenth, 7);
}

TEST(UpsReplyQ1, TemperatureThatBeginsWithADashMeansNone)
{
    const Q1REPLY q1 = q1_parse(q1_with(33, '-'));
    EXPECT_EQ(q1.temp.whole, -1);
    EXPECT_EQ(q1.temp.tenth, -1);
}

TEST(UpsReplyQ1, WhatIsNoDigitEndsTheNumber)
{
    EXPECT_EQ(q1_parse(q1_with(2, 'x')).input.whole, 1);
    EXPECT_EQ(q1_parse(q1_with(1, 'x')).input.whole, 0);
    EXPECT_EQ(q1_parse(q1_with(5, 'x')).input.tenth, 0);
    EXPECT_EQ(q1_parse(q1_with(19, '-')).load, 0);
    EXPECT_EQ(q1_parse(q1_with(19, ' ')).load, 30);
    EXPECT_EQ(q1_parse(q1_with(33, '\xff')).temp.whole, 0);
}

TEST(UpsReplyQ1, StatusBitsAreCountedFromTheRight)
{
    for (unsigned bit = 0; bit < 8; ++bit) {
        std::string line = Q1_LINE;
        line.replace(38, 8, "00000000");
        line[45 - bit] = '1';
        const Q1REPLY q1 = q1_parse(line);
        for (unsigned other = 0; other < 8; ++other) {
            EXPECT_EQ(q1_bit(q1, other), other == bit) << bit << " " << other;
            EXPECT_EQ(q1_bitclear(q1, other), other != bit) << bit << " " << other;
        }
    }
}

TEST(UpsReplyQ1, StatusCharacterThatIsNoBitIsNeitherSetNorClear)
{
    const Q1REPLY q1 = q1_parse(q1_with(43, '2'));
    EXPECT_FALSE(q1_bit(q1, Q1_TESTING));
    EXPECT_FALSE(q1_bitclear(q1, Q1_TESTING));
}

// ---- models

struct MODELCASE {
    std::string reply;
    MODELREPLY outcome;
    std::string name;
};

TEST(UpsReplyModel, AnswerToSi)
{
    const std::vector<MODELCASE> cases{
        {"ZR900PL\n", MODELREPLY::Read, "ZR900PL"},
        {"ZR900PL 1.02\n", MODELREPLY::Read, "ZR900PL"},
        {"ZQ300 x\n", MODELREPLY::Read, "ZQ300"},
        {"ZM300LT 100V\n", MODELREPLY::Read, "ZM300LT"},
        {"ZM300LT 100V 50", MODELREPLY::Read, "ZM300LT"},
        {"ZM300LT\n", MODELREPLY::Foreign, ""},           // this series ends its name with a space
        {"ZQ1234567890123", MODELREPLY::Foreign, ""},     // no newline within 15 bytes
        {"ZQ12345678901234\n", MODELREPLY::Foreign, ""},  // the same, longer than that
        {"ZR900PL", MODELREPLY::Foreign, ""},
        {std::string("ZR9\0PL\n", 7), MODELREPLY::Foreign, ""},
        {"XX900PL\n", MODELREPLY::Foreign, ""},
        {"Z\n", MODELREPLY::Foreign, ""},
        {"ZR9\xb1PL\n", MODELREPLY::Foreign, ""},  // a name is printable text
        {"ZR900PL\x11\n", MODELREPLY::Foreign, ""},
        {"ZM300\x7fLT 100V\n", MODELREPLY::Foreign, ""},
        {"\n", MODELREPLY::Foreign, ""},
        {"NAK\n", MODELREPLY::Unusable, ""},
        {"", MODELREPLY::Unusable, ""},
    };
    for (const MODELCASE &c : cases) {
        std::string_view name;
        EXPECT_EQ(model_parse(c.reply, name), c.outcome) << c.reply;
        EXPECT_EQ(name, c.name) << c.reply;
    }
}

TEST(UpsReplyModel, AnswerToBracketedSi)
{
    const std::vector<MODELCASE> cases{
        {"[ZR6020 100V]\n", MODELREPLY::Read, "ZR6020"},
        {"[ZR401 1234567890", MODELREPLY::Read, "ZR401"},
        {"ZR6020 100V]\n", MODELREPLY::Unusable, ""},
        {"[ZR6020\n", MODELREPLY::Unusable, ""},
        {"[ZR60201234567 100V", MODELREPLY::Read, "ZR60201234567"},
        {"[ZR602012345678 100V", MODELREPLY::Unusable, ""},  // the space lies behind 15 bytes
        {"[AB6020 100V\n", MODELREPLY::Foreign, ""},
        {"[ ZR6020\n", MODELREPLY::Foreign, ""},
        {"[ZR4\x1bPL 100V]\n", MODELREPLY::Foreign, ""},
        {"NAK\n", MODELREPLY::Unusable, ""},
        {"", MODELREPLY::Unusable, ""},
    };
    for (const MODELCASE &c : cases) {
        std::string_view name;
        EXPECT_EQ(model_parsebracket(c.reply, name), c.outcome) << c.reply;
        EXPECT_EQ(name, c.name) << c.reply;
    }
}

// ---- capabilities

static std::string cf_with(const std::vector<std::size_t> &ones)
{
    std::string reply = "00000000 00000000 00000000 00000000    \n";
    for (const std::size_t at : ones)
        reply[at] = '1';
    return reply;
}

struct CFCASE {
    std::vector<std::size_t> ones;
    unsigned mask;
};

TEST(UpsReplyCapability, EachPositionHasItsBit)
{
    const std::vector<CFCASE> cases{
        {{}, 0x4000},
        {{2}, 0xC000},
        {{32}, 0x4008},
        {{32, 33}, 0x400C},
        {{33}, 0x4000},
        {{10}, 0x4000},
        {{11}, 0x4000},
        {{10, 11}, 0x4800},
        {{12}, 0x4000},
        {{12, 13}, 0x5000},
        {{15}, 0x4000},
        {{15, 16}, 0x4200},
        {{22}, 0x6000},
        {{23}, 0x4000},
        {{23, 24}, 0x4080},
        {{27, 28}, 0x4000},
        {{27, 30}, 0x4000},
        {{28, 30}, 0x4000},
        {{27, 28, 30}, 0x4400},
        {{27, 29, 30}, 0x4100},
        {{27, 28, 31}, 0x4040},
        {{27, 29, 31}, 0x4020},
        {{27, 28, 29, 30, 31}, 0x4560},
    };
    for (const CFCASE &c : cases) {
        CAPABILITY flags{};
        UPSFUNCTION mask = 0;
        ASSERT_TRUE(capability_parse(cf_with(c.ones), flags, mask));
        EXPECT_EQ(mask, c.mask) << testing::PrintToString(c.ones);
    }
}

TEST(UpsReplyCapability, EachQueryHasItsPosition)
{
    const std::vector<std::pair<std::size_t, int CAPABILITY::*>> cases{
        {1, &CAPABILITY::V},    {14, &CAPABILITY::BTt}, {18, &CAPABILITY::Six}, {19, &CAPABILITY::Bv},
        {20, &CAPABILITY::Lfx}, {21, &CAPABILITY::Blx}, {33, &CAPABILITY::Sfn},
    };
    for (const auto &[at, flag] : cases) {
        CAPABILITY flags{1, 1, 1, 1, 1, 1, 1};
        UPSFUNCTION mask = 0;
        ASSERT_TRUE(capability_parse(cf_with({at}), flags, mask));
        EXPECT_EQ(flags.*flag, 1) << at;
        EXPECT_EQ(flags.V + flags.BTt + flags.Six + flags.Bv + flags.Lfx + flags.Blx + flags.Sfn, 1) << at;
    }
}

TEST(UpsReplyCapability, AnythingButZerosAndOnesInAGroupIsNoReply)
{
    CAPABILITY flags{};
    UPSFUNCTION mask = 7;
    for (const std::size_t at : std::vector<std::size_t>{0, 7, 9, 16, 18, 25, 27, 34}) {
        std::string reply = cf_with({});
        reply[at] = '2';
        EXPECT_FALSE(capability_parse(reply, flags, mask)) << at;
    }
    for (const std::size_t at : std::vector<std::size_t>{8, 17, 26, 35, 39}) {
        std::string reply = cf_with({});
        reply[at] = '2';
        EXPECT_TRUE(capability_parse(reply, flags, mask)) << at;
    }
}

TEST(UpsReplyCapability, OneByteLessOrMoreIsNoReply)
{
    CAPABILITY flags{};
    UPSFUNCTION mask = 7;
    const std::string reply = cf_with({});
    ASSERT_EQ(reply.size(), 40U);
    EXPECT_FALSE(capability_parse(reply.substr(0, 39), flags, mask));
    EXPECT_FALSE(capability_parse(reply + "\n", flags, mask));
    EXPECT_FALSE(capability_parse("NAK\n", flags, mask));
    EXPECT_FALSE(capability_parse("", flags, mask));
    EXPECT_EQ(mask, 7);
}

// ---- state, measurements, dates

TEST(UpsReplyState, NineBytesOfWhichEightAreBits)
{
    EXPECT_TRUE(state_wellformed("01010101\n"));
    EXPECT_FALSE(state_wellformed("0101010\n"));
    EXPECT_FALSE(state_wellformed("010101012\n"));
    EXPECT_FALSE(state_wellformed("01210101\n"));
    EXPECT_FALSE(state_wellformed("NAK\n"));
    EXPECT_FALSE(state_wellformed(""));
}

TEST(UpsReplyState, NinthStateCharacterMeansThatNoiseShiftedTheOthers)
{
    EXPECT_FALSE(state_wellformed("100000000"));
    EXPECT_FALSE(state_wellformed("000000001"));
}

TEST(UpsReplyState, DetectionLevel)
{
    EXPECT_EQ(state_detectionlevel("00011010\n"), 0);
    EXPECT_EQ(state_detectionlevel("00000000\n"), 1);
    EXPECT_EQ(state_detectionlevel("00001000\n"), 2);
    EXPECT_EQ(state_detectionlevel("00010000\n"), 3);
    EXPECT_EQ(state_detectionlevel("00011000\n"), 4);
}

TEST(UpsReplyFrequency, TwoDigitsPointDigit)
{
    TENTHS freq{};
    EXPECT_TRUE(freq_parse("50.2\n", freq));
    EXPECT_EQ(freq.whole, 50);
    EXPECT_EQ(freq.tenth, 2);
    for (const char *bad : {"", "50.", "5.02\n", "50,2\n", "a0.2\n", "50.x\n", "NAK\n"})
        EXPECT_FALSE(freq_parse(bad, freq)) << bad;
}

TEST(UpsReplyFrequency, FurtherDigitMeansThatNoiseShiftedTheOthers)
{
    TENTHS freq{};
    EXPECT_FALSE(freq_parse("50.92", freq));
}

TEST(UpsReplyFrequency, OlderFamilyPutsItInBrackets)
{
    TENTHS freq{};
    EXPECT_TRUE(freq_parsebracket("[60.1Hz]\n", freq));
    EXPECT_EQ(freq.whole, 60);
    EXPECT_EQ(freq.tenth, 1);
    for (const char *bad : {"", "[", "[60.1", "[60.1H", "60.1Hz", "[60.1V]", "[6O.1Hz", "NAK\n"})
        EXPECT_FALSE(freq_parsebracket(bad, freq)) << bad;
}

TEST(UpsReplyBattery, Voltage)
{
    TENTHS volt{};
    EXPECT_TRUE(battvolt_parse("[13.4V]\n", volt));
    EXPECT_EQ(volt.whole, 13);
    EXPECT_EQ(volt.tenth, 4);
    for (const char *bad : {"", "[13.4", "13.4V", "[13.4Hz", "[1.34V", "NAK\n"})
        EXPECT_FALSE(battvolt_parse(bad, volt)) << bad;
}

TEST(UpsReplyBattery, CapacityIsThreeDigits)
{
    std::int8_t percent = 0;
    EXPECT_TRUE(battcap_parse("100\n", percent));
    EXPECT_EQ(percent, 100);
    EXPECT_TRUE(battcap_parse("007\n", percent));
    EXPECT_EQ(percent, 7);
    for (const char *bad : {"", "10", "10\n", "1 0\n", "NAK\n"})
        EXPECT_FALSE(battcap_parse(bad, percent)) << bad;
}

TEST(UpsReplyBattery, FurtherDigitMeansThatNoiseShiftedTheOthers)
{
    std::int8_t percent = 5;
    UPS_TIMEINFO date{};
    EXPECT_FALSE(battcap_parse("0198\n", percent));
    EXPECT_EQ(percent, 5);
    EXPECT_FALSE(battdate_parse("200510412\n", date));
    EXPECT_EQ(date.month, 0);
}

TEST(UpsReplyBattery, CapacityBeyondItsFieldIsTheMostItHolds)
{
    std::int8_t percent = 0;
    EXPECT_TRUE(battcap_parse("999\n", percent));
    EXPECT_EQ(percent, 127);
}

TEST(UpsReplyBattery, Date)
{
    UPS_TIMEINFO date{};
    EXPECT_TRUE(battdate_parse("20050412\n", date));
    EXPECT_EQ(date.year, 105);
    EXPECT_EQ(date.month, 4);
    EXPECT_EQ(date.day, 12);
    for (const char *bad : {"", "2005041\n", "2005-4-12", "NAK\n"})
        EXPECT_FALSE(battdate_parse(bad, date)) << bad;
}

TEST(UpsReplyBattery, YearThatDoesNotFitIsZero)
{
    UPS_TIMEINFO date{};
    EXPECT_TRUE(battdate_parse("18991231\n", date));
    EXPECT_EQ(date.year, 0);
    EXPECT_EQ(date.month, 12);
    EXPECT_EQ(date.day, 31);
    EXPECT_TRUE(battdate_parse("19000101\n", date));
    EXPECT_EQ(date.year, 0);
    EXPECT_TRUE(battdate_parse("19010101\n", date));
    EXPECT_EQ(date.year, 1);
    EXPECT_TRUE(battdate_parse("21550101\n", date));
    EXPECT_EQ(date.year, 255);
    EXPECT_TRUE(battdate_parse("21560101\n", date));
    EXPECT_EQ(date.year, 0);
}

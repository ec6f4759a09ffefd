// Times and numbers as texts: what logs, settings and notices are made of.
#include "tests/unit/engine_fixture.h"

#include <climits>
#include <limits>

static UPS_TIMEINFO packed(int year, int month, int day, int hour, int minute, int second)
{
    return {static_cast<std::uint8_t>(year - 1900),
            static_cast<std::int8_t>(month),
            static_cast<std::int8_t>(day),
            static_cast<std::int8_t>(hour),
            static_cast<std::int8_t>(minute),
            static_cast<std::int8_t>(second),
            0};
}

static auto fields(const UPS_TIMEINFO &t)
{
    return std::tuple<int, int, int, int, int, int, int>(t.year, t.month, t.day, t.hour, t.minute, t.second,
                                                         t.wReserver);
}

#define EXPECT_TIME(t, expected)                                                                             \
    do {                                                                                                     \
        UPS_TIMEINFO result{};                                                                               \
        EXPECT_EQ(gettime(static_cast<std::int32_t>(t), &result), 0);                                        \
        EXPECT_EQ(fields(result), fields(expected));                                                         \
    } while (false)

class EngineTime : public Engine
{
};

TEST_F(EngineTime, ATimeIsTakenApartInTheLocalZone)
{
    EXPECT_TIME(1'078'477'622, packed(2004, 3, 5, 9, 7, 2));
    set_time_zone("JST-9");
    EXPECT_TIME(1'078'477'622, packed(2004, 3, 5, 18, 7, 2));
}

TEST_F(EngineTime, TwoDigitDaysAreReadWhole)
{
    EXPECT_TIME(local_time(2026, 11, 21, 23, 59, 59), packed(2026, 11, 21, 23, 59, 59));
}

TEST_F(EngineTime, ZeroIsNoDateAndClearsTheWholeRecord)
{
    UPS_TIMEINFO result = packed(2004, 3, 5, 9, 7, 2);
    result.wReserver = 77;
    EXPECT_EQ(gettime(0, &result), 0);
    EXPECT_EQ(fields(result), fields(UPS_TIMEINFO{}));
}

TEST_F(EngineTime, ANegativeTimeIsRefusedAndLeavesTheRecord)
{
    UPS_TIMEINFO result = packed(2004, 3, 5, 9, 7, 2);
    EXPECT_EQ(gettime(-1, &result), -1);
    EXPECT_EQ(gettime(INT_MIN, &result), -1);
    EXPECT_EQ(fields(result), fields(packed(2004, 3, 5, 9, 7, 2)));
}

TEST_F(EngineTime, TheReservedWordIsLeftAlone)
{
    UPS_TIMEINFO result{};
    result.wReserver = 77;
    EXPECT_EQ(gettime(1'078'477'622, &result), 0);
    EXPECT_EQ(result.wReserver, 77);
}

TEST_F(EngineTime, LeapDaysExist)
{
    EXPECT_TIME(local_time(2004, 2, 29, 12, 0, 0), packed(2004, 2, 29, 12, 0, 0));
    EXPECT_TIME(local_time(2000, 2, 29, 0, 0, 1), packed(2000, 2, 29, 0, 0, 1));
}

TEST_F(EngineTime, TheFirstAndTheLastSecondOfThirtyTwoBitsHaveADate)
{
    EXPECT_TIME(1, packed(1970, 1, 1, 0, 0, 1));
    EXPECT_TIME(INT_MAX, packed(2038, 1, 19, 3, 14, 7));
}

TEST_F(EngineTime, DaylightSavingMovesTheHour)
{
    set_time_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    const auto spring = static_cast<std::int32_t>(local_time(2026, 3, 29, 1, 59, 59));
    EXPECT_TIME(spring, packed(2026, 3, 29, 1, 59, 59));
    EXPECT_TIME(spring + 1, packed(2026, 3, 29, 3, 0, 0));
    const auto autumn = static_cast<std::int32_t>(1'792'889'999);  // 2026-10-25 00:59:59 UTC
    EXPECT_TIME(autumn, packed(2026, 10, 25, 2, 59, 59));
    EXPECT_TIME(autumn + 1, packed(2026, 10, 25, 2, 0, 0));
}

TEST_F(EngineTime, MonthsAreKnownByTheirEnglishAbbreviation)
{
    const std::array<const char *, 12> names = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (std::size_t i = 0; i < names.size(); i++)
        EXPECT_EQ(montoid(names[i]), static_cast<int>(i) + 1);
    EXPECT_EQ(montoid("December"), 12);
}

TEST_F(EngineTime, WhatIsNoMonthIsMinusOne)
{
    for (const char *name : {"", "J", "Ja", "jan", "JAN", "Foo", " Jan"})
        EXPECT_EQ(montoid(name), -1) << name;
    EXPECT_EQ(montoid(nullptr), -1);
}

TEST_F(EngineTime, NumbersAreWrittenUnsigned)
{
    EXPECT_STREQ(itoc(0), "0");
    EXPECT_STREQ(itoc(7), "7");
    EXPECT_STREQ(itoc(600), "600");
    EXPECT_STREQ(itoc(UINT_MAX), "4294967295");
    EXPECT_STREQ(itoc(static_cast<std::uint32_t>(-2)), "4294967294");
}

TEST_F(EngineTime, TheNegativeFlagPutsOneMinusInFrontOfOneNumber)
{
    engine.glob_ne = 1;
    EXPECT_STREQ(itoc(5), "-5");
    EXPECT_EQ(engine.glob_ne, 0);
    EXPECT_STREQ(itoc(5), "5");
    engine.glob_ne = 1;
    EXPECT_STREQ(itoc(UINT_MAX), "-4294967295");
}

TEST_F(EngineTime, DatePartsCountFromNow)
{
    EXPECT_EQ(user_year(0), 2004);
    EXPECT_EQ(user_month(0), 3);
    EXPECT_EQ(user_day(0), 5);
    EXPECT_EQ(user_day(86400), 6);
    EXPECT_EQ(user_month(27 * 86400), 4);
    EXPECT_EQ(user_year(-65 * 86400), 2003);
}

TEST_F(EngineTime, NoticesShowTheDateUnpaddedAndTheMinuteWithoutSeconds)
{
    EXPECT_STREQ(user_date(0), "2004-3-5");
    EXPECT_STREQ(user_time(0), "09:07:00");
    EXPECT_STREQ(user_time(3600), "10:07:00");
    EXPECT_STREQ(user_date(86400), "2004-3-6");
}

TEST_F(EngineTime, DateAndTimeOfOneNoticeDoNotOverwriteEachOther)
{
    const char *date = user_date(0);
    const char *clock = user_time(0);
    EXPECT_STREQ(date, "2004-3-5");
    EXPECT_STREQ(clock, "09:07:00");
}

TEST_F(EngineTime, ATimeOfItsOwnIsShownToTheSecond)
{
    EXPECT_STREQ(user_date_real(1'078'477'622), "2004-3-5");
    EXPECT_STREQ(user_time_real(1'078'477'622), "09:07:02");
    set_time_zone("JST-9");
    EXPECT_STREQ(user_date_real(1'078'499'222), "2004-3-6");
    EXPECT_STREQ(user_time_real(1'078'499'222), "00:07:02");
}

TEST_F(EngineTime, ATimeBeyondTheCalendarIsHarmless)
{
    EXPECT_STREQ(user_time_real(std::numeric_limits<std::time_t>::max()), "00:00:00");
    EXPECT_STREQ(user_date_real(std::numeric_limits<std::time_t>::min()), "1900-1-0");
}

TEST_F(EngineTime, SecondsSplitIntoMinutesAndTheRest)
{
    EXPECT_EQ(user_time_m(125), 2);
    EXPECT_EQ(user_time_s(125), 5);
    EXPECT_EQ(user_time_m(59), 0);
    EXPECT_EQ(user_time_s(0), 0);
}

// The time arithmetic of the schedules by example: fields, repeating times, special dates, lengths.
#include "ea/auto.h"
#include "tests/unit/auto_oracle.h"

#include <array>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <string>

std::time_t clock_now;

// The clock reads of the code under test end here.
extern "C" std::time_t time(std::time_t *out) noexcept
{
    if (out != nullptr)
        *out = clock_now;
    return clock_now;
}

static constexpr char BERLIN[] = "CET-1CEST,M3.5.0,M10.5.0/3";
static constexpr char LORD_HOWE[] = "LHST-10:30LHDT-11,M10.1.0,M4.1.0";

static void set_zone(const char *zone)
{
    ASSERT_EQ(setenv("TZ", zone, 1), 0);
    tzset();
}

static std::time_t utc(int year, int month, int day, int hour, int minute, int second = 0)
{
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    date.tm_hour = hour;
    date.tm_min = minute;
    date.tm_sec = second;
    return timegm(&date);
}

static std::string text_of(std::time_t t)
{
    std::array<char, 80> text{};
    std::tm local{};
    if (t == 0 || localtime_r(&t, &local) == nullptr)
        return "never";
    std::strftime(text.data(), text.size(), "%F %T %Z", &local);
    return text.data();
}

// The next time of a repeating text, seen from `now`.
static std::string next_from(std::time_t now, const char *timetext)
{
    clock_now = now;
    return text_of(autod(timetext));
}

static std::string special_from(std::time_t now, const char *timetext)
{
    clock_now = now;
    return text_of(specialdayautod(timetext));
}

// Tuesday, 10 November 2026, 12:00:30.
static const std::time_t TUESDAY = utc(2026, 11, 10, 12, 0, 30);

class Auto : public testing::Test
{
  protected:
    void SetUp() override
    {
        set_zone("UTC0");
        clock_now = TUESDAY;
    }
};

// --------------------------------------------------------------------------------------------- fields

TEST_F(Auto, AFieldIsReturnedAsItStandsAndTheTextMovesBehindIt)
{
    const char *text = "  30\t1,5-7,022 *";
    EXPECT_STREQ(next_field(&text, 0, 59, false), "30");
    EXPECT_STREQ(text, "\t1,5-7,022 *");
    EXPECT_STREQ(next_field(&text, 0, 23, false), "1,5-7,022");
    EXPECT_STREQ(text, " *");
    EXPECT_STREQ(next_field(&text, 1, 31, true), "*");
    EXPECT_STREQ(text, "");
}

TEST_F(Auto, AFieldEndsAtABlankAndTheLastAtTheEndOfTheText)
{
    for (const char *malformed : {"5", "5x", "5\n6", "*", "*5 ", "**  ", "5;6 "}) {
        const char *text = malformed;
        EXPECT_EQ(next_field(&text, 0, 59, false), nullptr) << malformed;
        EXPECT_EQ(text, malformed);
    }
    for (const char *malformed : {"5 ", "5 6", "5\t", "5\n", "* "}) {
        const char *text = malformed;
        EXPECT_EQ(next_field(&text, 0, 59, true), nullptr) << malformed;
    }
}

TEST_F(Auto, AFieldIsAStarOrAListOfNumbersAndRangesWithinBounds)
{
    for (const char *good :
         {"1", "31", "01", "0000000000000000000031", "1-31", "31-1", "5-5", "1,1", "7,1-3,9"}) {
        const char *text = good;
        EXPECT_STREQ(next_field(&text, 1, 31, true), good);
    }
    for (const char *malformed : {"",      " ",    "0",    "32",   "4294967297", "18446744073709551617",
                                  "-1",    "+1",   "1-",   "-",    "1--2",       "1-2-3",
                                  ",",     "1,",   ",1",   "1,,2", "1-0",        "1-32",
                                  "0-5",   "1, 2", "1 -2", "*,1",  "1,*",        "*-5",
                                  "*/5",   "a",    "1a",   "1.5",  "0x1",        "\xb2",
                                  "1-2,40"}) {
        const char *text = malformed;
        EXPECT_EQ(next_field(&text, 1, 31, true), nullptr) << malformed;
        EXPECT_EQ(text, malformed);
    }
}

TEST_F(Auto, TheLongestFieldOfASettingsLineFitsAndALongerOneIsRefused)
{
    std::string longest = "1";
    while (longest.size() < 511)
        longest += ",1";
    const char *text = longest.c_str();
    EXPECT_EQ(next_field(&text, 0, 59, true), longest);
    longest += "1";
    text = longest.c_str();
    EXPECT_EQ(next_field(&text, 0, 59, true), nullptr);
    EXPECT_EQ(text, longest.c_str());
}

TEST_F(Auto, NoTextHasNoField)
{
    const char *text = nullptr;
    EXPECT_EQ(next_field(&text, 0, 59, true), nullptr);
    EXPECT_EQ(next_field(nullptr, 0, 59, true), nullptr);
}

// ------------------------------------------------------------------------------------ repeating times

TEST_F(Auto, TheMinuteThatNowLiesInCountsFromItsStart)
{
    EXPECT_EQ(next_from(TUESDAY, "* * * * *"), "2026-11-10 12:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "0 12 * * *"), "2026-11-10 12:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY + 29, "0 12 * * *"), "2026-11-10 12:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY + 30, "0 12 * * *"), "2026-11-11 12:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY - 31, "0 12 * * *"), "2026-11-10 12:00:00 UTC");
}

TEST_F(Auto, AWeeklyTimeIsOnItsWeekday)
{
    EXPECT_EQ(next_from(TUESDAY, "30 22 * * 2"), "2026-11-10 22:30:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "30 11 * * 2"), "2026-11-17 11:30:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "30 11 * * 0"), "2026-11-15 11:30:00 UTC");
}

TEST_F(Auto, AMonthlyTimeIsInEveryMonthThatHasItsDay)
{
    EXPECT_EQ(next_from(TUESDAY, "5 8 15 * *"), "2026-11-15 08:05:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "5 8 10 * *"), "2026-12-10 08:05:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "5 8 31 * *"), "2026-12-31 08:05:00 UTC");
    EXPECT_EQ(next_from(utc(2027, 2, 1, 0, 0), "0 0 30 * *"), "2027-03-30 00:00:00 UTC");
}

TEST_F(Auto, WithBothDayFieldsGivenEitherIsEnough)
{
    EXPECT_EQ(next_from(TUESDAY, "0 0 13 * 4"), "2026-11-12 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2026, 11, 13, 0, 0), "0 0 13 * 4"), "2026-11-13 00:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "0 0 13 1 4"), "2027-01-07 00:00:00 UTC");
    // A list of every weekday is given, unlike a star.
    EXPECT_EQ(next_from(TUESDAY, "0 0 13 * 0-6"), "2026-11-11 00:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "0 0 1-31 * 0"), "2026-11-11 00:00:00 UTC");
}

TEST_F(Auto, ListsAndRangesMatchTheirNumbers)
{
    EXPECT_EQ(next_from(TUESDAY, "5,50,20 * * * *"), "2026-11-10 12:05:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "59 9-11,13-15 * * *"), "2026-11-10 13:59:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "0 8-11 * * *"), "2026-11-11 08:00:00 UTC");
}

TEST_F(Auto, ARangeFromFiveToTwoWraps)
{
    const char *timetext = "0 0 * * 5-2";
    EXPECT_EQ(next_from(utc(2026, 11, 11, 0, 1), timetext),
              "2026-11-13 00:00:00 UTC");  // its own first number
    EXPECT_EQ(next_from(utc(2026, 11, 13, 0, 1), timetext), "2026-11-14 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2026, 11, 14, 0, 1), timetext), "2026-11-15 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2026, 11, 16, 0, 1), timetext), "2026-11-17 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2026, 11, 17, 0, 1), timetext), "2026-11-20 00:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "0 0 * 12-1 *"), "2026-12-01 00:00:00 UTC");
}

TEST_F(Auto, ARangeFromANumberToItselfGoesAllTheWayRound)
{
    EXPECT_EQ(next_from(TUESDAY, "5-5 * * * *"), "2026-11-10 12:00:00 UTC");
    EXPECT_EQ(next_from(TUESDAY, "0 0 * * 6-6"), "2026-11-11 00:00:00 UTC");
}

TEST_F(Auto, TheSearchCarriesOverHourDayMonthAndYear)
{
    EXPECT_EQ(next_from(utc(2026, 12, 31, 23, 59, 59), "59 * * * *"), "2026-12-31 23:59:00 UTC");
    EXPECT_EQ(next_from(utc(2026, 12, 31, 23, 59, 59), "58 * * * *"), "2027-01-01 00:58:00 UTC");
    EXPECT_EQ(next_from(utc(2026, 12, 31, 23, 59, 59), "0 0 1 2 *"), "2027-02-01 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2026, 2, 28, 23, 59), "0 * * * *"), "2026-03-01 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2028, 2, 28, 23, 59), "0 * * * *"), "2028-02-29 00:00:00 UTC");
}

TEST_F(Auto, TheLeapDayIsFoundEvenAcrossACommonCentury)
{
    EXPECT_EQ(next_from(TUESDAY, "0 0 29 2 *"), "2028-02-29 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2096, 2, 29, 0, 1), "0 0 29 2 *"), "2104-02-29 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(2096, 1, 1, 0, 0), "0 0 29 2 *"), "2096-02-29 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(1999, 3, 1, 0, 0), "0 0 29 2 *"), "2000-02-29 00:00:00 UTC");
}

TEST_F(Auto, ADayThatNoMonthHasNeverMatches)
{
    EXPECT_EQ(next_from(TUESDAY, "0 0 30 2 *"), "never");
    EXPECT_EQ(next_from(TUESDAY, "0 0 31 4,6,9,11 *"), "never");
    EXPECT_EQ(next_from(TUESDAY, "0 0 31 2 1"), "2027-02-01 00:00:00 UTC");  // its Mondays do
}

TEST_F(Auto, MalformedTextNeverMatches)
{
    for (const char *text : {"",
                             " ",
                             "*",
                             "* * * *",
                             "* * * * * *",
                             "* * * * * ",
                             "* * * * *\n",
                             "60 * * * *",
                             "* 24 * * *",
                             "* * 0 * *",
                             "* * 32 * *",
                             "* * * 0 *",
                             "* * * 13 *",
                             "* * * * 7",
                             "a * * * *",
                             "1,, * * * *",
                             "* * * * 1-",
                             "-1 * * * *",
                             "0 0 * * Mon",
                             "@daily",
                             "0 0 1 1 * 126",
                             "*,1 * * * *"})
        EXPECT_EQ(autod(text), 0) << text;
    EXPECT_EQ(autod(nullptr), 0);
}

TEST_F(Auto, BlanksBeforeAndBetweenFieldsDoNotMatter)
{
    EXPECT_EQ(next_from(TUESDAY, " \t 30\t\t22  *   * \t2"), "2026-11-10 22:30:00 UTC");
}

TEST_F(Auto, TheSearchGoesOnBeyondThirtyTwoBits)
{
    EXPECT_EQ(next_from(utc(2038, 1, 19, 3, 14, 7), "15 3 * * *"), "2038-01-19 03:15:00 UTC");
    EXPECT_EQ(next_from(utc(2037, 12, 31, 0, 0), "0 0 29 2 *"), "2040-02-29 00:00:00 UTC");
    EXPECT_EQ(next_from(utc(9999, 12, 31, 23, 59, 59), "0 0 * * *"), "10000-01-01 00:00:00 UTC");
}

TEST_F(Auto, AClockBeyondTheCalendarIsHarmless)
{
    for (const std::time_t now :
         {std::numeric_limits<std::time_t>::min(), std::numeric_limits<std::time_t>::max(),
          std::time_t{67'768'036'191'676'799}, std::time_t{-67'768'040'609'740'800}}) {
        clock_now = now;
        autod("0 0 29 2 *");
        EXPECT_EQ(specialdayautod("0 0 1 0 * 300"), now < 0 ? utc(2200, 1, 1, 0, 0) : 0);
        std::int32_t minutes = 0;
        time2duration({126, 1, 1, 0, 0, 0, 0}, {126, 1, 1, 1, 0, 0, 0}, &minutes, 2, 0);
    }
}

// -------------------------------------------------------------------------------------- daylight saving

TEST_F(Auto, AnHourThatIsSkippedDoesNotMatchThatDay)
{
    set_zone(BERLIN);
    const std::time_t evening = utc(2026, 3, 28, 20, 0);
    EXPECT_EQ(next_from(evening, "30 2 * * *"), "2026-03-30 02:30:00 CEST");
    EXPECT_EQ(next_from(evening, "30 2 * * 0"), "2026-04-05 02:30:00 CEST");
    EXPECT_EQ(next_from(evening, "30 3 * * 0"), "2026-03-29 03:30:00 CEST");
    EXPECT_EQ(next_from(evening, "59 1 * * 0"), "2026-03-29 01:59:00 CET");
    EXPECT_EQ(next_from(evening, "0 3 * * 0"), "2026-03-29 03:00:00 CEST");
}

TEST_F(Auto, AnHourThatIsRepeatedMatchesTwice)
{
    set_zone(BERLIN);
    EXPECT_EQ(next_from(utc(2026, 10, 24, 20, 0), "30 2 * * 0"), "2026-10-25 02:30:00 CEST");
    EXPECT_EQ(next_from(utc(2026, 10, 25, 0, 31), "30 2 * * 0"), "2026-10-25 02:30:00 CET");
    EXPECT_EQ(next_from(utc(2026, 10, 25, 1, 31), "30 2 * * 0"), "2026-11-01 02:30:00 CET");
    EXPECT_EQ(next_from(utc(2026, 10, 25, 0, 59), "0 2 * * *"), "2026-10-25 02:00:00 CET");
    // Within the hour, too, when the plain calendar's match is a year and two changes away.
    EXPECT_EQ(next_from(utc(2026, 10, 25, 0, 31), "30 2 25 10 *"), "2026-10-25 02:30:00 CET");
}

TEST_F(Auto, AWeeklyTimeKeepsItsHourAcrossTheChange)
{
    set_zone(BERLIN);
    EXPECT_EQ(next_from(utc(2026, 3, 23, 8, 0), "0 8 * * 1"), "2026-03-30 08:00:00 CEST");
    EXPECT_EQ(next_from(utc(2026, 10, 19, 8, 0), "0 8 * * 1"), "2026-10-26 08:00:00 CET");
}

TEST_F(Auto, TheLeapDayIsFoundAcrossManyChanges)
{
    set_zone(BERLIN);
    EXPECT_EQ(next_from(utc(2096, 2, 29, 12, 0), "0 2 29 2 *"), "2104-02-29 02:00:00 CET");
}

TEST_F(Auto, AShiftOfHalfAnHourIsFollowed)
{
    set_zone(LORD_HOWE);
    EXPECT_EQ(next_from(utc(2026, 10, 3, 12, 0), "15 2 * * 0"), "2026-10-11 02:15:00 LHDT");
    EXPECT_EQ(next_from(utc(2026, 10, 3, 12, 0), "30 2 * * 0"), "2026-10-04 02:30:00 LHDT");
    EXPECT_EQ(next_from(utc(2026, 4, 4, 14, 46), "45 1 * * *"), "2026-04-05 01:45:00 LHST");
}

TEST_F(Auto, AChangeJustAfterMidnightRepeatsTheEndOfTheDayBefore)
{
    set_zone("NST3:30NDT,M4.1.0/0:01,M10.5.0/0:01");
    EXPECT_EQ(next_from(utc(2026, 10, 25, 2, 30), "30 23 * * 6"), "2026-10-24 23:30:00 NST");
    EXPECT_EQ(next_from(utc(2026, 4, 4, 20, 0), "0 0 * * 0"), "2026-04-05 00:00:00 NST");
    EXPECT_EQ(next_from(utc(2026, 4, 4, 20, 0), "30 0 * * *"), "2026-04-06 00:30:00 NDT");
}

TEST_F(Auto, AMinuteThatIsSkippedEveryYearNeverMatches)
{
    set_zone("STD0DST,J88/2,J300/2");
    EXPECT_EQ(next_from(TUESDAY, "30 2 29 3 *"), "never");
    EXPECT_EQ(next_from(TUESDAY, "30 3 29 3 *"), "2027-03-29 03:30:00 DST");
}

TEST_F(Auto, OffsetsInSecondsEndTheSearchToo)
{
    set_zone("AAA-1:00:30BBB-2:00:15,M3.5.0/2:00:20,M10.5.0/3:00:40");
    EXPECT_EQ(next_from(utc(2026, 3, 28, 20, 0), "0 12 * * *"), "2026-03-29 12:00:00 BBB");
    EXPECT_EQ(next_from(utc(2026, 10, 24, 20, 0), "0 12 * * *"), "2026-10-25 12:00:00 AAA");
    EXPECT_EQ(next_from(utc(2026, 3, 29, 1, 0), "0 0 30 2 *"), "never");
}

TEST_F(Auto, AChangedTimeZoneIsNoticed)
{
    EXPECT_EQ(next_from(TUESDAY, "0 13 * * *"), "2026-11-10 13:00:00 UTC");
    ASSERT_EQ(setenv("TZ", "JST-9", 1), 0);
    EXPECT_EQ(next_from(TUESDAY, "0 13 * * *"), "2026-11-11 13:00:00 JST");
}

// ---------------------------------------------------------------------------------------- special dates

TEST_F(Auto, ASpecialDateCountsMonthsFromZeroAndYearsFrom1900)
{
    EXPECT_EQ(special_from(TUESDAY, "30 22 24 11 * 126"), "2026-12-24 22:30:00 UTC");
    EXPECT_EQ(special_from(TUESDAY, "0 0 1 0 * 127"), "2027-01-01 00:00:00 UTC");
    EXPECT_EQ(special_from(TUESDAY, "0 0 29 1 * 204"), "2104-02-29 00:00:00 UTC");
}

TEST_F(Auto, ASpecialDateIsOverAsSoonAsItIsReached)
{
    const std::time_t when = utc(2026, 12, 24, 22, 30);
    EXPECT_EQ(special_from(when - 1, "30 22 24 11 * 126"), "2026-12-24 22:30:00 UTC");
    EXPECT_EQ(special_from(when, "30 22 24 11 * 126"), "never");
    EXPECT_EQ(special_from(when + 1, "30 22 24 11 * 126"), "never");
    EXPECT_EQ(special_from(TUESDAY, "30 22 24 11 * 26"), "never");
    EXPECT_EQ(special_from(TUESDAY, "59 23 31 11 * 0"), "never");
}

TEST_F(Auto, TheWeekdayOfASpecialDateIsReadAndIgnored)
{
    for (const char *text : {"30 22 24 11 0 126", "30 22 24 11 6 126", "30 22 24 11 1-3,5 126"})
        EXPECT_EQ(special_from(TUESDAY, text), "2026-12-24 22:30:00 UTC") << text;
    EXPECT_EQ(special_from(TUESDAY, "30 22 24 11 7 126"), "never");
}

TEST_F(Auto, ASpecialDateIsLocalTime)
{
    set_zone(BERLIN);
    EXPECT_EQ(special_from(TUESDAY, "30 22 24 11 * 126"), "2026-12-24 22:30:00 CET");
    EXPECT_EQ(special_from(TUESDAY, "30 22 24 6 * 127"), "2027-07-24 22:30:00 CEST");
}

TEST_F(Auto, ADateThatTheMonthDoesNotHaveRunsIntoTheNext)
{
    EXPECT_EQ(special_from(TUESDAY, "0 12 31 3 * 127"), "2027-05-01 12:00:00 UTC");
    EXPECT_EQ(special_from(TUESDAY, "0 12 30 1 * 127"), "2027-03-02 12:00:00 UTC");
}

TEST_F(Auto, OfAListOrRangeInASpecialDateTheFirstNumberCounts)
{
    EXPECT_EQ(special_from(TUESDAY, "30,10 22-23 24,1 11-0 * 126-200"), "2026-12-24 22:30:00 UTC");
}

TEST_F(Auto, MalformedSpecialDatesAreNone)
{
    for (const char *text :
         {"", "0 0 1 0 *", "0 0 1 0 * 200 ", "0 0 1 0 * 200 1", "60 0 1 0 * 200", "0 24 1 0 * 200",
          "0 0 0 0 * 200", "0 0 32 0 * 200", "0 0 1 12 * 200", "0 0 1 0 * 301", "0 0 1 0 * 2030",
          "0 0 1 0 * x", "* 0 1 0 * 200", "0 * 1 0 * 200", "0 0 * 0 * 200", "0 0 1 * * 200", "0 0 1 0 * *"})
        EXPECT_EQ(specialdayautod(text), 0) << text;
    EXPECT_EQ(specialdayautod(nullptr), 0);
    EXPECT_EQ(special_from(TUESDAY, "0 0 1 11 * 300"), "2200-12-01 00:00:00 UTC");
}

// --------------------------------------------------------------------------------------------- lengths

static UPS_TIMEINFO entry(int year, int month, int day, int hour, int minute, int second = 0)
{
    return {static_cast<std::uint8_t>(year),
            static_cast<std::int8_t>(month),
            static_cast<std::int8_t>(day),
            static_cast<std::int8_t>(hour),
            static_cast<std::int8_t>(minute),
            static_cast<std::int8_t>(second),
            0};
}

// -9999 when it fails and stores nothing.
static std::int32_t length(int type, const UPS_TIMEINFO &start, const UPS_TIMEINFO &end, int flag = 0)
{
    std::int32_t minutes = -9999;
    const int result = time2duration(start, end, &minutes, type, flag);
    EXPECT_EQ(result, minutes == -9999 ? -1 : 0);
    return minutes;
}

TEST_F(Auto, ASpecialDateLastsFromItsStartToItsEnd)
{
    EXPECT_EQ(length(1, entry(126, 11, 24, 22, 30), entry(126, 11, 25, 6, 0)), 450);
    EXPECT_EQ(length(1, entry(126, 11, 31, 23, 59), entry(127, 0, 1, 0, 0)), 1);
    EXPECT_EQ(length(1, entry(100, 0, 1, 0, 0), entry(200, 0, 1, 0, 0)), 36525 * 1440);
    EXPECT_EQ(length(1, entry(126, 0, 1, 0, 0, 1), entry(126, 0, 1, 0, 2, 0)), 1);
    EXPECT_EQ(length(1, entry(126, 0, 1, 0, 0, 0), entry(126, 0, 1, 0, 0, 59)), 0);
}

TEST_F(Auto, ASpecialDateThatDoesNotEndAfterItsStartFails)
{
    EXPECT_EQ(length(1, entry(126, 11, 24, 22, 30), entry(126, 11, 24, 22, 30)), -9999);
    EXPECT_EQ(length(1, entry(126, 11, 24, 22, 30), entry(126, 11, 24, 6, 0)), -9999);
}

TEST_F(Auto, AWeeklyEntryRunsIntoTheNextWeekWhenItEndsBeforeItsStart)
{
    EXPECT_EQ(length(2, entry(0, 0, 2, 22, 30), entry(0, 0, 3, 6, 0)), 450);
    EXPECT_EQ(length(2, entry(0, 0, 5, 18, 0), entry(0, 0, 1, 6, 0)), (3 * 24 - 12) * 60);
    EXPECT_EQ(length(2, entry(0, 0, 6, 18, 0), entry(0, 0, 0, 18, 0)), 1440);
    EXPECT_EQ(length(2, entry(0, 0, 2, 22, 30), entry(0, 0, 2, 22, 30)), 7 * 1440);
    EXPECT_EQ(length(2, entry(0, 0, 2, 22, 30), entry(0, 0, 2, 22, 29)), 7 * 1440 - 1);
    clock_now = utc(2026, 11, 1, 0, 0);  // the week reaches back into October from Sunday on
    EXPECT_EQ(length(2, entry(0, 0, 0, 1, 0), entry(0, 0, 6, 1, 0)), 6 * 1440);
}

TEST_F(Auto, AMonthlyEntryRunsIntoTheNextMonthAfterThirtyOneDays)
{
    EXPECT_EQ(length(3, entry(0, 0, 15, 8, 5), entry(0, 0, 16, 8, 4)), 1439);
    EXPECT_EQ(length(3, entry(0, 0, 15, 8, 5), entry(0, 0, 15, 8, 5)), 31 * 1440);
    EXPECT_EQ(length(3, entry(0, 0, 30, 20, 0), entry(0, 0, 1, 8, 0)), 2 * 1440 - 720);
    clock_now = utc(2027, 2, 10, 0, 0);  // 31 February is 3 March, and 1 March 1 February
    EXPECT_EQ(length(3, entry(0, 0, 31, 20, 0), entry(0, 0, 1, 20, 0)), 1440);
}

TEST_F(Auto, TheYearAndMonthOfARepeatingEntryDoNotMatter)
{
    EXPECT_EQ(length(2, entry(99, 4, 2, 22, 30), entry(3, 9, 3, 6, 0)), 450);
    EXPECT_EQ(length(3, entry(99, 4, 2, 22, 30), entry(3, 9, 3, 6, 0)), 450);
}

TEST_F(Auto, DaylightSavingChangesTheLengthOfItsNight)
{
    set_zone(BERLIN);
    EXPECT_EQ(length(1, entry(126, 2, 28, 22, 0), entry(126, 2, 29, 6, 0)), 7 * 60);
    clock_now = utc(2026, 10, 20, 0, 0);
    EXPECT_EQ(length(3, entry(0, 0, 24, 22, 0), entry(0, 0, 25, 6, 0)), 9 * 60);
}

TEST_F(Auto, WithTheFlagEveryEntryLastsTenMinutes)
{
    for (const int type : {0, 1, 2, 3, 4})
        EXPECT_EQ(length(type, entry(126, 11, 24, 22, 30), entry(126, 11, 24, 6, 0), 1), 10);
    EXPECT_EQ(length(2, entry(0, 0, 2, 22, 30), entry(0, 0, 3, 6, 0), 2), 450);
}

TEST_F(Auto, AnEntryOfNoKindHasNoLength)
{
    EXPECT_EQ(length(0, entry(126, 0, 1, 0, 0), entry(126, 0, 2, 0, 0)), -9999);
    EXPECT_EQ(length(4, entry(126, 0, 1, 0, 0), entry(126, 0, 2, 0, 0)), -9999);
}

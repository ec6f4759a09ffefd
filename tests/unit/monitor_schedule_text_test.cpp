// Schedule entries in words and from words, as a person reads and writes them.
#include "monitor/monitor_schedule_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

static SCHEDULE_WISH wish(std::int8_t kind, std::string day, std::string from, std::string until)
{
    SCHEDULE_WISH made;
    made.kind = kind;
    made.day = std::move(day);
    made.from = std::move(from);
    made.until = std::move(until);
    return made;
}

static std::string words(const SCHEDULE_WISH &from)
{
    SCHEDULEINFO entry{};
    const std::string wrong = schedule_from_wish(from, entry);
    return wrong.empty() ? schedule_words(entry) : "WRONG: " + wrong;
}

static UPS_TIMEINFO moment(int year, int month, int day, int hour, int minute)
{
    UPS_TIMEINFO time{};
    time.year = static_cast<std::uint8_t>(year - 1900);
    time.month = static_cast<std::int8_t>(month);
    time.day = static_cast<std::int8_t>(day);
    time.hour = static_cast<std::int8_t>(hour);
    time.minute = static_cast<std::int8_t>(minute);
    return time;
}

TEST(ScheduleWords, AnEndWithoutADayIsTheNextSuchTime)
{
    EXPECT_EQ(words(wish(SCHEDULE_WEEKLY, "mon", "22:00", "06:00")), "every Monday 22:00 to Tuesday 06:00");
    EXPECT_EQ(words(wish(SCHEDULE_WEEKLY, "Saturday", "22:00", "6:00")),
              "every Saturday 22:00 to Sunday 06:00");
    EXPECT_EQ(words(wish(SCHEDULE_WEEKLY, "sun", "8:05", "9:00")), "every Sunday 08:05 to 09:00");
    EXPECT_EQ(words(wish(SCHEDULE_DATE, "2024-02-28", "22:00", "06:00")),
              "2024-02-28 22:00 to 2024-02-29 06:00");
    EXPECT_EQ(words(wish(SCHEDULE_DATE, "2026-12-31", "23:30", "23:30")),
              "2026-12-31 23:30 to 2027-01-01 23:30");
    EXPECT_EQ(words(wish(SCHEDULE_MONTHLY, "15", "08:05", "10:00")), "every month on day 15 08:05 to 10:00");
    EXPECT_EQ(words(wish(SCHEDULE_MONTHLY, "31", "22:00", "06:00")),
              "every month on day 31 22:00 to day 1 06:00");
}

TEST(ScheduleWords, AnEndMayNameItsDay)
{
    EXPECT_EQ(words(wish(SCHEDULE_WEEKLY, "fri", "22:00", "monday 06:00")),
              "every Friday 22:00 to Monday 06:00");
    EXPECT_EQ(words(wish(SCHEDULE_WEEKLY, "fri", "22:00", "fri 06:00")),
              "every Friday 22:00 to Friday 06:00 of the next week");
    EXPECT_EQ(words(wish(SCHEDULE_DATE, "2026-12-24", "18:00", "2026-12-27 06:00")),
              "2026-12-24 18:00 to 2026-12-27 06:00");
    EXPECT_EQ(words(wish(SCHEDULE_MONTHLY, "1", "00:00", "2 00:00")),
              "every month on day 1 00:00 to day 2 00:00");
}

TEST(ScheduleWords, MonthsOfDatesCountFromZeroAndWeekdaysFromSunday)
{
    SCHEDULEINFO entry{};
    ASSERT_EQ(schedule_from_wish(wish(SCHEDULE_DATE, "2026-12-24", "18:07", "19:00"), entry), "");
    EXPECT_EQ(entry.ID, 1);
    EXPECT_EQ(entry.ActionID, 0);
    EXPECT_EQ(entry.ScheduleOn, 1);
    EXPECT_EQ(entry.stimeInfo.year, 126);
    EXPECT_EQ(entry.stimeInfo.month, 11);
    EXPECT_EQ(entry.stimeInfo.day, 24);
    EXPECT_EQ(entry.stimeInfo.hour, 18);
    EXPECT_EQ(entry.stimeInfo.minute, 7);
    ASSERT_EQ(schedule_from_wish(wish(SCHEDULE_WEEKLY, "sunday", "0:00", "1:00"), entry), "");
    EXPECT_EQ(entry.stimeInfo.day, 0);
}

TEST(ScheduleWords, ASelfTestHasAnEndForTheAgentAndNoneInWords)
{
    SCHEDULE_WISH test = wish(SCHEDULE_WEEKLY, "sat", "23:55", "");
    test.action = SCHEDULE_SELFTEST;
    SCHEDULEINFO entry{};
    ASSERT_EQ(schedule_from_wish(test, entry), "");
    EXPECT_EQ(schedule_words(entry), "every Saturday 23:55");
    EXPECT_EQ(schedule_action_words(entry), "self-test");
    EXPECT_EQ(entry.etimeInfo.day, 0);
    EXPECT_EQ(schedule_clock(entry.etimeInfo), "00:05");
}

TEST(ScheduleWords, NonsenseIsRefusedWithWhatIsWanted)
{
    EXPECT_THAT(words(wish(SCHEDULE_WEEKLY, "mo", "22:00", "06:00")), HasSubstr("a day such as monday"));
    EXPECT_THAT(words(wish(SCHEDULE_WEEKLY, "mondays", "22:00", "06:00")), HasSubstr("a day such as monday"));
    EXPECT_THAT(words(wish(SCHEDULE_MONTHLY, "0", "22:00", "06:00")), HasSubstr("a day from 1 to 31"));
    EXPECT_THAT(words(wish(SCHEDULE_MONTHLY, "32", "22:00", "06:00")), HasSubstr("a day from 1 to 31"));
    EXPECT_THAT(words(wish(SCHEDULE_MONTHLY, "-1", "22:00", "06:00")), HasSubstr("a day from 1 to 31"));
    for (const char *date : {"2023-02-29", "2024-13-01", "2024-00-10", "24-02-03", "2024-2-3", "1899-12-31",
                             "2156-01-01", "2024-04-31", "2024-04-00", ""})
        EXPECT_THAT(words(wish(SCHEDULE_DATE, date, "22:00", "06:00")), HasSubstr("a date such as")) << date;
    for (const char *time : {"24:00", "22:60", "2200", "22", "22:0", ":30", "22:00:00", "a:00", ""})
        EXPECT_THAT(words(wish(SCHEDULE_DATE, "2026-12-24", time, "06:00")), HasSubstr("must be HH:MM"))
            << time;
    EXPECT_THAT(words(wish(SCHEDULE_WEEKLY, "mon", "22:00", "tomorrow 06:00")),
                HasSubstr("before the end's time"));
    EXPECT_THAT(words(wish(SCHEDULE_WEEKLY, "mon", "22:00", "")), HasSubstr("the end must be"));
}

TEST(ScheduleWords, AnEndBeforeItsStartIsRefused)
{
    EXPECT_THAT(words(wish(SCHEDULE_DATE, "2026-12-24", "22:00", "2026-12-24 21:59")),
                HasSubstr("after the start"));
}

TEST(ScheduleWords, ATimeThatTheUnitCannotStayOffIsRefused)
{
    SCHEDULE_WISH longer = wish(SCHEDULE_DATE, "2026-01-01", "00:00", "2026-01-07 22:40");
    longer.longest = 9999;
    EXPECT_THAT(words(longer), HasSubstr("9999 minutes at most, not for 10000"));
    longer.until = "2026-01-07 22:39";
    EXPECT_EQ(words(longer), "2026-01-01 00:00 to 2026-01-07 22:39");
}

TEST(ScheduleWords, ADateThatHasPassedByTheAgentsClockIsRefused)
{
    SCHEDULE_WISH past = wish(SCHEDULE_DATE, "2026-03-01", "10:00", "11:00");
    past.now = moment(2026, 3, 1, 10, 0);
    EXPECT_THAT(words(past), HasSubstr("it is 2026-03-01 10:00 at the agent"));
    past.now = moment(2026, 3, 1, 9, 59);
    EXPECT_EQ(words(past), "2026-03-01 10:00 to 11:00");
    past.now = UPS_TIMEINFO{};
    EXPECT_EQ(words(past), "2026-03-01 10:00 to 11:00");
}

TEST(ScheduleWords, ImpossibleEntriesAreShownWithTheirNumbers)
{
    SCHEDULEINFO entry{};
    entry.ID = 2;
    entry.stimeInfo.day = 7;
    EXPECT_EQ(schedule_words(entry), "invalid (0-0-7 0:0 to 0-0-0 0:0)");
    entry.ID = 9;
    entry.ActionID = 5;
    EXPECT_THAT(schedule_words(entry), HasSubstr("invalid"));
    EXPECT_EQ(schedule_kind_words(entry), "kind 9");
    EXPECT_EQ(schedule_action_words(entry), "action 5");
}

TEST(ScheduleWords, EntriesAreTheSameWhenTheAgentStoresThemAlike)
{
    SCHEDULEINFO left{};
    ASSERT_EQ(schedule_from_wish(wish(SCHEDULE_MONTHLY, "15", "08:05", "10:00"), left), "");
    SCHEDULEINFO right = left;
    right.stimeInfo.month = 3;
    right.etimeInfo.second = 5;
    EXPECT_TRUE(schedule_same(left, right));
    right.ScheduleOn = 0;
    EXPECT_FALSE(schedule_same(left, right));
    left.ActionID = right.ActionID = SCHEDULE_SELFTEST;
    right.etimeInfo.hour = 1;
    EXPECT_TRUE(schedule_same(left, right));
    right.stimeInfo.minute = 6;
    EXPECT_FALSE(schedule_same(left, right));
}

TEST(ScheduleWords, ACalendarDateCountsItsMonthsFromOne)
{
    UPS_TIMEINFO date{};
    ASSERT_TRUE(parse_calendar_date("2024-02-29", date));
    EXPECT_EQ(date.year, 124);
    EXPECT_EQ(date.month, 2);
    EXPECT_EQ(date.day, 29);
    EXPECT_FALSE(parse_calendar_date("2023-02-29", date));
    EXPECT_EQ(date.day, 29);
}

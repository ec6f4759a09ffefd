// What the schedules in a settings file become: the list that monitors read, and what the timer is given.
#include "tests/unit/engine_fixture.h"

#include <chrono>
#include <climits>
#include <functional>
#include <utility>

// All of it starts on Friday, 5 March 2004, 09:07:02.
class Schedules : public Engine
{
  protected:
    static SCHEDULELIST *load(const std::string &shutdowns, const std::string &tests = "")
    {
        write_file(CONFIG_PATH, "\n[ ScheShutDown ]\n" + shutdowns + "\n[ ScheTest ]\n" + tests);
        return getschlist();
    }

    static std::vector<SCHEDULEINFO> entries(const SCHEDULELIST *list)
    {
        std::vector<SCHEDULEINFO> found;
        for (; list != nullptr; list = list->next)
            found.push_back(list->info);
        return found;
    }
};

static constexpr std::int32_t HOUR = 3600;
static constexpr char TUESDAYS[] = "WEEKLYNO = 1\nWEEKLYSTART1 = 30 22 * * 2\nWEEKLYEND1 = 0 6 * * 3\n";
static constexpr char TODAY[] =
    "SPECIALNO = 1\nSPECIALDAYSTART1 = 0 22 5 2 * 104\nSPECIALDAYEND1 = 30 6 8 2 * 104\n";

static UPS_TIMEINFO time_info(int year, int month, int day, int hour, int minute)
{
    return {static_cast<std::uint8_t>(year),
            static_cast<std::int8_t>(month),
            static_cast<std::int8_t>(day),
            static_cast<std::int8_t>(hour),
            static_cast<std::int8_t>(minute),
            0,
            0};
}

static std::string shown(const UPS_TIMEINFO &t)
{
    return std::to_string(t.year) + "-" + std::to_string(t.month) + "-" + std::to_string(t.day) + " " +
           std::to_string(t.hour) + ":" + std::to_string(t.minute) + ":" + std::to_string(t.second);
}

// ------------------------------------------------------------------------------------------------ texts

TEST(ScheduleText, EachKindWritesItsFieldsAndStarsForTheOthers)
{
    const UPS_TIMEINFO when = time_info(104, 11, 15, 8, 5);
    EXPECT_STREQ(infototime(&when, SPECIAL), "5 8 15 11 * 104");
    EXPECT_STREQ(infototime(&when, MONTHLY), "5 8 15 * *");
    const UPS_TIMEINFO tuesday = time_info(0, 0, 2, 22, 30);
    EXPECT_STREQ(infototime(&tuesday, WEEKLY), "30 22 * * 2");
    EXPECT_STREQ(infototime(&when, 4), "5 8");
    EXPECT_STREQ(infototime(&when, 0), "5 8");
}

TEST(ScheduleText, ReadBackFillsWhatTheKindHas)
{
    UPS_TIMEINFO when{9, 9, 9, 9, 9, 9, 77};
    EXPECT_EQ(timetoinfo("30 22 * * 2", &when, WEEKLY), 0);
    EXPECT_EQ(shown(when), "9-9-2 22:30:0");
    EXPECT_EQ(timetoinfo("5 8 15 12 *", &when, MONTHLY), 0);
    EXPECT_EQ(shown(when), "9-12-15 8:5:0");
    EXPECT_EQ(timetoinfo(" 59\t23  31 0 * 255", &when, SPECIAL), 0);
    EXPECT_EQ(shown(when), "255-0-31 23:59:0");
    EXPECT_EQ(when.wReserver, 77);
}

TEST(ScheduleText, FirstNumberOfAListOrRangeIsShown)
{
    UPS_TIMEINFO when{};
    EXPECT_EQ(timetoinfo("15,45 8-17 * * 1-5", &when, WEEKLY), 0);
    EXPECT_EQ(shown(when), "0-0-1 8:15:0");
    EXPECT_EQ(timetoinfo("* 8 * * *", &when, WEEKLY), 0);
    EXPECT_EQ(shown(when), "0-0-0 8:0:0");
}

TEST(ScheduleText, BadFieldLeavesTheRecordAlone)
{
    const std::vector<std::pair<const char *, int>> bad = {
        {"60 22 * * 2", WEEKLY},     {"30 24 * * 2", WEEKLY},
        {"30 22 * * 7", WEEKLY},     {"30 22 * *", WEEKLY},
        {"30 22 * * 2 ", WEEKLY},    {"30 22 * 13 2", WEEKLY},
        {"30 22 0 * *", MONTHLY},    {"30 22 32 * *", MONTHLY},
        {"30 22 1 0 *", MONTHLY},    {"0 0 1 12 * 104", SPECIAL},
        {"0 0 1 0 * 301", SPECIAL},  {"0 0 1 0 *", SPECIAL},
        {"0 0 1 0 7 104", SPECIAL},  {"", WEEKLY},
        {"-1 22 * * 2", WEEKLY},     {"30;22;*;*;2", WEEKLY},
        {"0 0 1 0 * 104 ", SPECIAL},
    };
    for (const auto &[text, kind] : bad) {
        UPS_TIMEINFO when{9, 9, 9, 9, 9, 9, 9};
        EXPECT_EQ(timetoinfo(text, &when, kind), 1) << text;
        EXPECT_EQ(shown(when), "9-9-9 9:9:9") << text;
    }
    UPS_TIMEINFO when{};
    EXPECT_EQ(timetoinfo(nullptr, &when, WEEKLY), 1);
}

// ----------------------------------------------------------------------------------------- what comes next

TEST_F(Schedules, WithoutASettingsFileThereAreNone)
{
    engine.SCH_off = engine.SCH_boot = engine.next_test = 1;
    engine.schdownreason = engine.schtestreason = SPECIAL;
    EXPECT_EQ(getschlist(), nullptr);
    EXPECT_EQ(engine.SCH_off, 0);
    EXPECT_EQ(engine.SCH_boot, 0);
    EXPECT_EQ(engine.schdownreason, NONE);
    EXPECT_EQ(engine.DownDuration, 0);
    EXPECT_EQ(engine.offBootSpan, 0);
    EXPECT_EQ(engine.next_test, 0);
    EXPECT_EQ(engine.schtestreason, NONE);
}

TEST_F(Schedules, SpecialDateCountsItsMonthsFromZero)
{
    const auto list = entries(load(TODAY));
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].ID, 1);
    EXPECT_EQ(list[0].ActionID, 0);
    EXPECT_EQ(list[0].ScheduleOn, 1);
    EXPECT_EQ(shown(list[0].stimeInfo), "104-2-5 22:0:0");
    EXPECT_EQ(shown(list[0].etimeInfo), "104-2-8 6:30:0");
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 5, 22, 0, 0));
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 8, 6, 30, 0));
    EXPECT_EQ(engine.schdownreason, SPECIAL);
    EXPECT_EQ(engine.offBootSpan, 56 * HOUR + 1800);
    EXPECT_EQ(engine.DownDuration, 56 * HOUR + 1800);
}

TEST_F(Schedules, SpecialDateThatHasPassedIsGone)
{
    set_clock(local_time(2004, 3, 5, 22, 0, 0));
    EXPECT_EQ(load(TODAY), nullptr);
    EXPECT_EQ(engine.SCH_off, 0);
}

TEST_F(Schedules, SpecialDateThatEndsBeforeItStartsHasNoTimedRestart)
{
    load("SPECIALNO = 1\nSPECIALDAYSTART1 = 0 22 8 2 * 104\nSPECIALDAYEND1 = 0 6 8 2 * 104\n");
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 8, 22, 0, 0));
    EXPECT_EQ(engine.DownDuration, 0);
    EXPECT_EQ(engine.offBootSpan, -16 * HOUR);
}

TEST_F(Schedules, SpecialDateWhoseEndHasPassedIsDropped)
{
    EXPECT_EQ(load("SPECIALNO = 1\nSPECIALDAYSTART1 = 0 22 8 2 * 104\nSPECIALDAYEND1 = 0 6 5 2 * 104\n"),
              nullptr);
    EXPECT_EQ(engine.SCH_off, 0);
}

TEST_F(Schedules, OffTimeOfCenturiesIsShortenedToWhatItsFieldHolds)
{
    load("SPECIALNO = 1\nSPECIALDAYSTART1 = 0 22 5 2 * 104\nSPECIALDAYEND1 = 0 0 1 0 * 255\n");
    EXPECT_EQ(engine.DownDuration, INT_MAX);
    EXPECT_EQ(engine.offBootSpan, local_time(2155, 1, 1, 0, 0, 0) - local_time(2004, 3, 5, 22, 0, 0));
}

TEST_F(Schedules, WeeklyEntryComesOnItsNextWeekday)
{
    const auto list = entries(load(TUESDAYS));
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].ID, 2);
    EXPECT_EQ(shown(list[0].stimeInfo), "0-0-2 22:30:0");
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 9, 22, 30, 0));
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 10, 6, 0, 0));
    EXPECT_EQ(engine.schdownreason, WEEKLY);
    EXPECT_EQ(engine.DownDuration, 7 * HOUR + 1800);
}

TEST_F(Schedules, InsideAWeeklyEntryBothItsTimesAreNextWeeks)
{
    set_clock(local_time(2004, 3, 9, 23, 0, 0));
    load(TUESDAYS);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 16, 22, 30, 0));
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 17, 6, 0, 0));
    EXPECT_EQ(engine.offBootSpan, 7 * HOUR + 1800);
}

TEST_F(Schedules, WeeklyEntryThatEndsAsItStartsTakesAWeek)
{
    load("WEEKLYNO = 1\nWEEKLYSTART1 = 0 6 * * 3\nWEEKLYEND1 = 0 6 * * 3\n");
    EXPECT_EQ(engine.offBootSpan, 604800);
    EXPECT_EQ(engine.DownDuration, 604800);
}

TEST_F(Schedules, WeekInWhichTheClocksChange)
{
    set_time_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    const std::string nights = "WEEKLYNO = 1\nWEEKLYSTART1 = 0 22 * * 6\nWEEKLYEND1 = 0 6 * * 0\n";
    set_clock(local_time(2004, 3, 26, 12, 0, 0));
    load(nights);
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 28, 6, 0, 0));
    EXPECT_EQ(engine.offBootSpan, 7 * HOUR);  // what really passes
    EXPECT_EQ(engine.DownDuration, 8 * HOUR);
    set_clock(local_time(2004, 10, 29, 12, 0, 0));
    load(nights);
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 10, 31, 6, 0, 0));
    EXPECT_EQ(engine.offBootSpan, 9 * HOUR);
}

// The week that an end is moved on by has 168 hours, always.
TEST_F(Schedules, EndMovedOnAcrossAChangeOfTheClocksIsAnHourLater)
{
    set_time_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    set_clock(local_time(2004, 3, 24, 5, 0, 0));
    load(TUESDAYS);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 30, 22, 30, 0));
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 31, 7, 0, 0));
}

TEST_F(Schedules, MonthlyEntryLastsAsLongAsItsDurationSays)
{
    const std::string entry = "MONTHLYNO = 1\nMONTHLYSTART1 = 0 22 30 * *\nMONTHLYEND1 = 0 6 1 * *\n";
    load(entry + "MONTHLYDUR1 = 480\n");
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 30, 22, 0, 0));
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 31, 6, 0, 0));
    EXPECT_EQ(engine.schdownreason, MONTHLY);
    EXPECT_EQ(engine.offBootSpan, 8 * HOUR);
    load(entry);
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 4, 1, 6, 0, 0));
}

TEST_F(Schedules, EarliestEntryOfAllKindsIsChosen)
{
    const std::string monthly = "MONTHLYNO = 2\nMONTHLYSTART1 = 0 22 7 * *\nMONTHLYEND1 = 0 23 7 * *\n"
                                "MONTHLYSTART2 = 0 22 6 * *\nMONTHLYEND2 = 0 23 6 * *\n";
    EXPECT_EQ(entries(load(TUESDAYS + monthly)).size(), 3U);
    EXPECT_EQ(engine.schdownreason, MONTHLY);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 6, 22, 0, 0));
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 6, 23, 0, 0));
    EXPECT_EQ(engine.DownDuration, HOUR);
    EXPECT_EQ(entries(load(TODAY + std::string(TUESDAYS) + monthly)).size(), 4U);
    EXPECT_EQ(engine.schdownreason, SPECIAL);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 5, 22, 0, 0));
}

TEST_F(Schedules, OfTwoThatStartTogetherTheFirstKindStays)
{
    load("SPECIALNO = 1\nSPECIALDAYSTART1 = 30 22 9 2 * 104\nSPECIALDAYEND1 = 0 12 10 2 * 104\n" +
         std::string(TUESDAYS));
    EXPECT_EQ(engine.schdownreason, SPECIAL);
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 10, 12, 0, 0));
}

TEST_F(Schedules, EntryThatIsOffIsListedAndNeverChosen)
{
    const std::string entries_off = std::string(TODAY) + "SpecScheduleOn1 = 0\n" + TUESDAYS;
    const auto list = entries(load(entries_off));
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].ScheduleOn, 0);
    EXPECT_EQ(list[1].ScheduleOn, 1) << "its own key counts, not the special date's of its number";
    EXPECT_EQ(engine.schdownreason, WEEKLY);
    EXPECT_EQ(entries(load(entries_off + "WeekScheduleOn1 = 0\n")).at(1).ScheduleOn, 0);
    EXPECT_EQ(engine.SCH_off, 0);
    EXPECT_EQ(engine.schdownreason, NONE);
}

TEST_F(Schedules, RestartSwitchedOnShowsEveryEntryOn)
{
    engine.sche_on = 1;
    const auto list = entries(load(std::string(TODAY) + "SpecScheduleOn1 = 0\n" + TUESDAYS));
    EXPECT_EQ(list.at(0).ScheduleOn, 1);
    EXPECT_EQ(list.at(1).ScheduleOn, 1);
    EXPECT_EQ(engine.schdownreason, WEEKLY) << "what the user switched off must not bring the machine down";
    EXPECT_EQ(engine.DownDuration, 7 * HOUR + 1800);
}

TEST_F(Schedules, RestartSwitchedOffStillShutsDownButForGood)
{
    engine.sche_on = -1;
    const auto list = entries(load(TUESDAYS));
    EXPECT_EQ(list.at(0).ScheduleOn, 0);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 9, 22, 30, 0));
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 10, 6, 0, 0));
    EXPECT_EQ(engine.DownDuration, 0);
}

TEST_F(Schedules, SelfTestsAreListedBehindTheShutdownsAndChosenApart)
{
    const auto list = entries(load(TUESDAYS, "SPECIALNO = 1\nSPECIALDAYSTART1 = 0 22 1 3 * 104\n"
                                             "SPECIALDAYEND1 = 0 23 1 3 * 104\n"
                                             "WEEKLYNO = 1\nWEEKLYSTART1 = 0 12 * * 6\n"
                                             "WEEKLYEND1 = 30 12 * * 6\nWeekScheduleOn1 = 0\n"));
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[0].ActionID, 0);
    EXPECT_EQ(list[1].ActionID, 1);
    EXPECT_EQ(list[2].ActionID, 1);
    EXPECT_EQ(engine.schdownreason, WEEKLY);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 9, 22, 30, 0));
    EXPECT_EQ(engine.next_test, local_time(2004, 3, 6, 12, 0, 0));
    EXPECT_EQ(engine.schtestreason, WEEKLY);
    EXPECT_EQ(engine.TestDuration, 10);
}

// A self-test has no switch of its own: it shows the one of the special-date shutdown of its number.
TEST_F(Schedules, SelfTestIsChosenWhateverItsSwitchShows)
{
    engine.sche_on = -1;
    const std::string test = "WEEKLYNO = 1\nWEEKLYSTART1 = 0 12 * * 6\nWEEKLYEND1 = 30 12 * * 6\n";
    EXPECT_EQ(entries(load("", test)).at(0).ScheduleOn, 1);
    EXPECT_EQ(entries(load("SpecScheduleOn1 = 0\n", test)).at(0).ScheduleOn, 0);
    EXPECT_EQ(engine.next_test, local_time(2004, 3, 6, 12, 0, 0));
    EXPECT_EQ(engine.TestDuration, 10);
}

TEST_F(Schedules, EntryCarriedOutIsNotFoundAgainInItsMinute)
{
    const std::string now = "WEEKLYNO = 2\nWEEKLYSTART1 = 7 9 * * 5\nWEEKLYEND1 = 0 12 * * 5\n"
                            "WEEKLYSTART2 = 30 22 * * 2\nWEEKLYEND2 = 0 6 * * 3\n";
    load(now, now);
    const std::time_t minute = local_time(2004, 3, 5, 9, 7, 0);
    EXPECT_EQ(engine.SCH_off, minute);
    EXPECT_EQ(engine.next_test, minute);
    engine.lastdownstart = minute;
    EXPECT_EQ(entries(load(now, now)).size(), 3U);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 9, 22, 30, 0));
    EXPECT_EQ(engine.next_test, minute) << "a shutdown says nothing about the self-tests";
    engine.lastteststart = minute;
    EXPECT_EQ(entries(load(now, now)).size(), 2U);
    EXPECT_EQ(engine.next_test, local_time(2004, 3, 9, 22, 30, 0));
    set_clock(minute + 60);
    EXPECT_EQ(entries(load(now, now)).size(), 4U);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 9, 22, 30, 0));
}

TEST_F(Schedules, WhileAScheduledShutdownIsUnderWayItsChoiceStays)
{
    load(TUESDAYS);
    engine.ISSHUTTINGDOWN = 1;
    engine.downreason = WEEKLY;
    EXPECT_EQ(entries(load(TODAY)).at(0).ID, 1);
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 3, 10, 6, 0, 0));
    EXPECT_EQ(engine.DownDuration, 7 * HOUR + 1800);
    engine.downreason = USER_SPECIFY;
    load(TODAY);
    EXPECT_EQ(engine.schdownreason, SPECIAL);
}

// --------------------------------------------------------------------------------------------- bad input

TEST_F(Schedules, MissingOrMalformedEntriesAreDroppedAndTheOthersLoad)
{
    const auto list = entries(load("SPECIALNO = 2\nSPECIALDAYSTART1 = 0 22 5 12 * 104\n"
                                   "SPECIALDAYEND1 = 0 23 5 12 * 104\nSPECIALDAYSTART2 = 0 22 6 2 * 104\n"
                                   "WEEKLYNO = 7\n"
                                   "WEEKLYSTART2 = 0 10 * * 1\nWEEKLYEND2 = 0 11 * * 1\n"
                                   "WEEKLYSTART3 = 0 10 * * 9\nWEEKLYEND3 = 0 11 * * 1\n"
                                   "WEEKLYSTART4 = 0 10 * * 2\nWEEKLYEND4 = soon\n"
                                   "WEEKLYSTART5 = 0 10 30 2 *\nWEEKLYEND5 = 0 11 * * 1\n"
                                   "WEEKLYSTART7 = 0 10 * * 3\nWEEKLYEND7 = 0 11 * * 3\n"
                                   "WEEKLYSTART8 = 0 10 * * 4\nWEEKLYEND8 = 0 11 * * 4\n"));
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].stimeInfo.day, 1);
    EXPECT_EQ(list[1].stimeInfo.day, 3);
    EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 8, 10, 0, 0));
}

TEST_F(Schedules, EntryWithoutACountIsNotRead)
{
    const std::string entry = "WEEKLYSTART1 = 30 22 * * 2\nWEEKLYEND1 = 0 6 * * 3\n";
    for (const char *count : {"", "WEEKLYNO = -5\n", "WEEKLYNO = 0\n", "WEEKLYNO = \n", "WEEKLYNO = many\n",
                              "WEEKLYNO = -99999999999999999999\n"})
        EXPECT_EQ(load(entry + count), nullptr) << count;
    EXPECT_EQ(engine.SCH_off, 0);
}

static double seconds_of(const std::function<void()> &what)
{
    const auto begin = std::chrono::steady_clock::now();
    what();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST_F(Schedules, EnormousCountsCostBoundedTime)
{
    for (const char *count : {"2147483647", "99999999999999999999"}) {
        const std::string file = std::string("WEEKLYSTART1 = 30 22 * * 2\nWEEKLYEND1 = 0 6 * * 3\n"
                                             "WEEKLYSTART900 = 30 21 * * 2\nWEEKLYEND900 = 0 6 * * 3\n") +
                                 "SPECIALNO = " + count + "\nWEEKLYNO = " + count + "\nMONTHLYNO = " + count;
        EXPECT_LT(seconds_of([&] { EXPECT_EQ(entries(load(file + "\n")).size(), 2U); }), 5);
        EXPECT_EQ(engine.SCH_off, local_time(2004, 3, 9, 21, 30, 0));
    }
}

TEST_F(Schedules, EnormousFileCostsBoundedTime)
{
    std::string file = TUESDAYS;
    file.replace(file.find("= 1"), 3, "= 2147483647");
    while (file.size() < 4'000'000)
        file += "Unknown = " + std::string(400, 'x') + "\n";
    EXPECT_LT(seconds_of([&] { EXPECT_EQ(entries(load(file)).size(), 1U); }), 10);
}

TEST_F(Schedules, EveryCallReplacesTheList)
{
    EXPECT_EQ(entries(load(TODAY + std::string(TUESDAYS))).size(), 2U);
    EXPECT_EQ(entries(load(TUESDAYS)).size(), 1U);
    EXPECT_EQ(load(""), nullptr);
}

TEST_F(Schedules, ASpecialDateThatIsDueStaysUntilTheTimerHasActed)
{
    load(TODAY);
    const std::time_t due = local_time(2004, 3, 5, 22, 0, 0);
    for (const int late : {0, 1, 60}) {
        set_clock(due + late);
        getschlist();
        EXPECT_EQ(engine.SCH_off, due);
    }
    set_clock(due + 61);
    getschlist();
    EXPECT_EQ(engine.SCH_off, 0);
}

TEST_F(Schedules, ASpecialDateThatWasMissedOrTakenOutIsNotKept)
{
    load(TODAY);
    engine.lastdownstart = local_time(2004, 3, 5, 22, 0, 0);
    set_clock(engine.lastdownstart);
    getschlist();
    EXPECT_EQ(engine.SCH_off, 0);
    engine.lastdownstart = 0;
    set_clock(local_time(2004, 3, 5, 21, 0, 0));
    getschlist();
    set_clock(local_time(2004, 3, 5, 22, 0, 0));
    EXPECT_EQ(setschedule(nullptr, &ein, &eout), 0);
    getschlist();
    EXPECT_EQ(engine.SCH_off, 0);
}

TEST_F(Schedules, ASelfTestThatIsDueStaysUntilTheTimerHasActedOrItIsTakenOut)
{
    load("", TODAY);
    const std::time_t due = local_time(2004, 3, 5, 22, 0, 0);
    set_clock(due + 1);
    getschlist();
    EXPECT_EQ(engine.next_test, due);
    EXPECT_EQ(setschedule(nullptr, &ein, &eout), 0);
    getschlist();
    EXPECT_EQ(engine.next_test, 0);
}

TEST_F(Schedules, SavingDoesNotTakeAwayWhatAShutdownUnderWayWasChosenFor)
{
    load(TUESDAYS);
    const std::time_t off = engine.SCH_off;
    engine.ISSHUTTINGDOWN = 1;
    engine.downreason = WEEKLY;
    EXPECT_EQ(setschedule(nullptr, &ein, &eout), 0);
    EXPECT_EQ(engine.SCH_off, off);
    engine.ISSHUTTINGDOWN = 0;
    EXPECT_EQ(setschedule(nullptr, &ein, &eout), 0);
    EXPECT_EQ(engine.SCH_off, 0);
}

// Saving schedules: what the settings file then says, byte for byte, and what is read back from it.
#include "tests/unit/engine_fixture.h"

#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>

static constexpr char HEADERS[] = "\n[ ScheShutDown ]\n\n[ ScheTest ]\n";

class ScheduleSave : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        events[0].EventID = EVENT_SCHEDULECHANGED;
        events[0].Record = 1;
        engine.EVENTLOGENABLED = 1;
        ups.up.logparam.MaxEventRec = 200;
    }

    // Saves `entries` as a monitor's list.
    int save(const std::vector<SCHEDULEINFO> &entries)
    {
        nodes.clear();
        for (const SCHEDULEINFO &info : entries)
            nodes.push_back({nullptr, info});
        for (std::size_t i = 1; i < nodes.size(); i++)
            nodes[i - 1].next = &nodes[i];
        return setschedule(nodes.empty() ? nullptr : nodes.data(), &ein, &eout);
    }

    std::vector<SCHEDULELIST> nodes;
};

static UPS_TIMEINFO at(int year, int month, int day, int hour, int minute)
{
    return {static_cast<std::uint8_t>(year),
            static_cast<std::int8_t>(month),
            static_cast<std::int8_t>(day),
            static_cast<std::int8_t>(hour),
            static_cast<std::int8_t>(minute),
            0,
            0};
}

static SCHEDULEINFO entry(int kind, int action, UPS_TIMEINFO start, UPS_TIMEINFO end, int on = 1)
{
    return {static_cast<std::int8_t>(kind), static_cast<std::int8_t>(action), static_cast<std::int16_t>(on),
            start, end};
}

static const SCHEDULEINFO EASTER = entry(SPECIAL, 0, at(104, 3, 9, 18, 0), at(104, 3, 13, 6, 30));
static const SCHEDULEINFO MAYDAY = entry(SPECIAL, 0, at(104, 4, 1, 0, 5), at(104, 4, 2, 0, 5), 0);
static const SCHEDULEINFO TUESDAY = entry(WEEKLY, 0, at(0, 0, 2, 22, 30), at(0, 0, 3, 6, 0));
static const SCHEDULEINFO TESTDAY = entry(WEEKLY, 1, at(0, 0, 6, 12, 0), at(0, 0, 6, 12, 10));
static const SCHEDULEINFO FIFTEENTH = entry(MONTHLY, 0, at(104, 3, 15, 8, 5), at(104, 3, 15, 9, 35));

// The settings of a section in the order of the file, its header left out.
static std::vector<std::string> settings_of(const std::string &section)
{
    std::vector<std::string> found;
    std::istringstream file(read_file(CONFIG_PATH));
    bool inside = false;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with('['))
            inside = line == "[ " + section + " ]";
        else if (inside && !line.empty())
            found.push_back(line);
    return found;
}

static bool same(const SCHEDULEINFO &a, const SCHEDULEINFO &b)
{
    const auto image = [](const SCHEDULEINFO &info) {
        const auto parts = [](const UPS_TIMEINFO &t) {
            return std::tuple(t.year, t.month, t.day, t.hour, t.minute, t.second);
        };
        return std::tuple(info.ID, info.ActionID, info.ScheduleOn, parts(info.stimeInfo),
                          parts(info.etimeInfo));
    };
    return image(a) == image(b);
}

static std::vector<SCHEDULEINFO> loaded()
{
    std::vector<SCHEDULEINFO> found;
    for (const SCHEDULELIST *node = getschlist(); node != nullptr; node = node->next)
        found.push_back(node->info);
    return found;
}

TEST_F(ScheduleSave, TwoSpecialDatesAndAWeeklySelfTest)
{
    write_file(CONFIG_PATH, HEADERS);
    EXPECT_EQ(save({EASTER, TESTDAY, MAYDAY}), 0);
    EXPECT_EQ(read_file(CONFIG_PATH), "\n[ ScheShutDown ]\n"
                                      "\n SPECIALDAYSTART1 = 0 18 9 3 * 104\n"
                                      "\n SPECIALDAYEND1 = 30 6 13 3 * 104\n"
                                      "\n SpecScheduleOn1 = 1\n"
                                      "\n SPECIALDAYSTART2 = 5 0 1 4 * 104\n"
                                      "\n SPECIALDAYEND2 = 5 0 2 4 * 104\n"
                                      "\n SpecScheduleOn2 = 0\n"
                                      "\n SPECIALNO = 2\n"
                                      "\n WEEKLYNO = 0\n"
                                      "\n MONTHLYNO = 0\n"
                                      "\n[ ScheTest ]\n"
                                      "\n WEEKLYSTART1 = 0 12 * * 6\n"
                                      "\n WEEKLYEND1 = 10 12 * * 6\n"
                                      "\n SPECIALNO = 0\n"
                                      "\n WEEKLYNO = 1\n"
                                      "\n MONTHLYNO = 0\n");
    const auto list = loaded();
    ASSERT_EQ(list.size(), 3U);
    EXPECT_TRUE(same(list[0], EASTER));
    EXPECT_TRUE(same(list[1], MAYDAY));
    EXPECT_EQ(list[2].ActionID, 1);
}

TEST_F(ScheduleSave, WeeklyAndMonthlyFormsWithTheLengthOfTheMonthlyOne)
{
    write_file(CONFIG_PATH, HEADERS);
    EXPECT_EQ(save({TUESDAY, FIFTEENTH, entry(MONTHLY, 1, at(0, 0, 1, 2, 3), at(0, 0, 1, 2, 4), 0)}), 0);
    EXPECT_EQ(settings_of("ScheShutDown"),
              (std::vector<std::string>{
                  " WEEKLYSTART1 = 30 22 * * 2", " WEEKLYEND1 = 0 6 * * 3", " WeekScheduleOn1 = 1",
                  " MONTHLYSTART1 = 5 8 15 * *", " MONTHLYEND1 = 35 9 15 * *", " MONTHLYDUR1 = 90",
                  " MonthScheduleOn1 = 1", " SPECIALNO = 0", " WEEKLYNO = 1", " MONTHLYNO = 1"}));
    EXPECT_EQ(settings_of("ScheTest"),
              (std::vector<std::string>{" MONTHLYSTART1 = 3 2 1 * *", " MONTHLYEND1 = 4 2 1 * *",
                                        " SPECIALNO = 0", " WEEKLYNO = 0", " MONTHLYNO = 1"}));
}

TEST_F(ScheduleSave, MonthlyEntryOverTheEndOfTheMonthLastsIntoTheNext)
{
    write_file(CONFIG_PATH, HEADERS);
    save({entry(MONTHLY, 0, at(0, 0, 31, 22, 0), at(0, 0, 1, 6, 0))});
    EXPECT_EQ(settings_of("ScheShutDown").at(2), " MONTHLYDUR1 = 480");
    getschlist();
    EXPECT_EQ(engine.SCH_boot, local_time(2004, 4, 1, 6, 0, 0));
}

// Without its header a section's first setting lands above the header: the file is read back shifted. A
// second save repairs it. Files in the field look like this.
TEST_F(ScheduleSave, FirstSaveIntoAFileWithoutHeadersIsReadBackShifted)
{
    EXPECT_EQ(save({TUESDAY, TESTDAY}), 0);
    EXPECT_EQ(read_file(CONFIG_PATH), "\n WEEKLYSTART1 = 30 22 * * 2\n"
                                      "\n[ ScheShutDown ]\n"
                                      "\n WEEKLYEND1 = 0 6 * * 3\n"
                                      "\n WeekScheduleOn1 = 1\n"
                                      "\n WEEKLYSTART1 = 0 12 * * 6\n"
                                      "\n SPECIALNO = 0\n"
                                      "\n WEEKLYNO = 1\n"
                                      "\n MONTHLYNO = 0\n"
                                      "\n[ ScheTest ]\n"
                                      "\n WEEKLYEND1 = 10 12 * * 6\n"
                                      "\n SPECIALNO = 0\n"
                                      "\n WEEKLYNO = 1\n"
                                      "\n MONTHLYNO = 0\n");
    const auto list = loaded();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].stimeInfo.day, 6) << "the self-test's start has become the shutdown's";
    EXPECT_EQ(save({TUESDAY, TESTDAY}), 0);
    const auto repaired = loaded();
    ASSERT_EQ(repaired.size(), 2U);
    EXPECT_TRUE(same(repaired[0], TUESDAY));
    EXPECT_TRUE(same(repaired[1], TESTDAY));
}

TEST_F(ScheduleSave, ShorterListLeavesTheKeysOfTheLongerOneUnread)
{
    write_file(CONFIG_PATH, HEADERS);
    EXPECT_EQ(save({EASTER, MAYDAY}), 0);
    EXPECT_EQ(save({MAYDAY}), 0);
    EXPECT_EQ(
        settings_of("ScheShutDown"),
        (std::vector<std::string>{" SPECIALDAYSTART1 = 5 0 1 4 * 104", " SPECIALDAYEND1 = 5 0 2 4 * 104",
                                  " SpecScheduleOn1 = 0", " SPECIALDAYSTART2 = 5 0 1 4 * 104",
                                  " SPECIALDAYEND2 = 5 0 2 4 * 104", " SpecScheduleOn2 = 0", " SPECIALNO = 1",
                                  " WEEKLYNO = 0", " MONTHLYNO = 0"}));
    EXPECT_EQ(loaded().size(), 1U);
    EXPECT_EQ(save({}), 0);
    EXPECT_EQ(loaded().size(), 0U);
    EXPECT_NE(read_file(CONFIG_PATH).find(" SPECIALDAYSTART2 = 5 0 1 4 * 104\n"), std::string::npos);
}

TEST_F(ScheduleSave, EntriesOfUnknownActionOrKindAreNotSaved)
{
    write_file(CONFIG_PATH, HEADERS);
    EXPECT_EQ(save({entry(WEEKLY, 2, TUESDAY.stimeInfo, TUESDAY.etimeInfo),
                    entry(WEEKLY, -1, TUESDAY.stimeInfo, TUESDAY.etimeInfo),
                    entry(0, 0, TUESDAY.stimeInfo, TUESDAY.etimeInfo),
                    entry(4, 1, TUESDAY.stimeInfo, TUESDAY.etimeInfo),
                    entry(-128, 0, TUESDAY.stimeInfo, TUESDAY.etimeInfo), TUESDAY}),
              0);
    EXPECT_EQ(settings_of("ScheShutDown").size(), 6U);
    EXPECT_EQ(settings_of("ScheTest").size(), 3U);
    EXPECT_EQ(loaded().size(), 1U);
}

TEST_F(ScheduleSave, WhatASwitchHoldsIsStoredAsItIs)
{
    write_file(CONFIG_PATH, HEADERS);
    EXPECT_EQ(save({entry(WEEKLY, 0, TUESDAY.stimeInfo, TUESDAY.etimeInfo, -7)}), 0);
    EXPECT_EQ(settings_of("ScheShutDown").at(2), " WeekScheduleOn1 = -7");
    EXPECT_EQ(loaded().at(0).ScheduleOn, -7);
}

TEST_F(ScheduleSave, TimesThatDoNotExistAreStoredAndNotReadBack)
{
    write_file(CONFIG_PATH, HEADERS);
    EXPECT_EQ(save({entry(WEEKLY, 0, at(0, 0, 7, 22, 30), at(0, 0, 3, 6, 0)),
                    entry(MONTHLY, 0, at(0, 0, -128, -128, -128), at(0, 0, 127, 127, 127)), TUESDAY}),
              0);
    EXPECT_EQ(settings_of("ScheShutDown").at(0), " WEEKLYSTART1 = 30 22 * * 7");
    EXPECT_EQ(settings_of("ScheShutDown").at(3), " MONTHLYSTART1 = -128 -128 -128 * *");
    EXPECT_EQ(loaded().size(), 1U);
}

TEST_F(ScheduleSave, SuccessIsLoggedAsAChangeOfTheSchedules)
{
    write_file(CONFIG_PATH, HEADERS);
    EXPECT_EQ(save({TUESDAY}), 0);
    EXPECT_EQ(logged(), (std::vector<int>{10}));
}

TEST_F(ScheduleSave, FileThatCannotBeOpenedFailsAndIsNoChange)
{
    std::filesystem::create_directory(CONFIG_PATH);
    EXPECT_EQ(save({TUESDAY}), -1);
    EXPECT_TRUE(logged().empty());
}

TEST_F(ScheduleSave, EveryEntryIsWrittenThoughOneWriteFails)
{
    // The value would not fit its line any more.
    write_file(CONFIG_PATH,
               "\n[ ScheShutDown ]\n" + std::string(490, ' ') + "WEEKLYSTART1 =\n\n[ ScheTest ]\n");
    EXPECT_EQ(save({TUESDAY, FIFTEENTH}), -1);
    EXPECT_TRUE(logged().empty());
    const auto list = loaded();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].ID, MONTHLY);
}

TEST_F(ScheduleSave, SetCommandAnswersWithTheListInForce)
{
    write_file(CONFIG_PATH, HEADERS);
    nodes = {{nullptr, TUESDAY}};
    ein.DATA.schlist = nodes.data();
    ups.ui.CommStatus = 2;
    EXPECT_EQ(act(E_CMD_SETSCHEDULE), 0);
    ASSERT_NE(eout.DATA.schlist, nullptr);
    EXPECT_TRUE(same(eout.DATA.schlist->info, TUESDAY));
    EXPECT_EQ(engine.schdownreason, WEEKLY);
    ein.DATA.schlist = eout.DATA.schlist;  // the engine's own list may come back
    EXPECT_EQ(act(E_CMD_SETSCHEDULE), 0);
    EXPECT_TRUE(same(eout.DATA.schlist->info, TUESDAY));
}

// A list of future entries, in any order, comes back by action and kind, each in its order.
TEST_F(ScheduleSave, AnyListIsReadBackWhole)
{
    std::mt19937 random(20040305);
    const auto upto = [&random](unsigned most) { return static_cast<int>(random() % (most + 1)); };
    const auto moment = [&](int kind) {
        if (kind == SPECIAL)
            return at(105 + upto(100), upto(11), 1 + upto(27), upto(23), upto(59));
        if (kind == WEEKLY)
            return at(0, 0, upto(6), upto(23), upto(59));
        return at(0, 0, 1 + upto(27), upto(23), upto(59));
    };
    for (int round = 0; round < 25; round++) {
        write_file(CONFIG_PATH, HEADERS);
        std::vector<SCHEDULEINFO> list;
        for (int i = upto(12); i > 0; i--) {
            const int kind = 1 + upto(2);
            list.push_back(entry(kind, upto(1), moment(kind), moment(kind), upto(1)));
        }
        ASSERT_EQ(save(list), 0);
        std::stable_sort(list.begin(), list.end(), [](const SCHEDULEINFO &a, const SCHEDULEINFO &b) {
            return std::tuple(a.ActionID, a.ID) < std::tuple(b.ActionID, b.ID);
        });
        const auto found = loaded();
        ASSERT_EQ(found.size(), list.size()) << read_file(CONFIG_PATH);
        for (std::size_t i = 0; i < list.size(); i++) {
            SCHEDULEINFO wanted = list[i];
            if (wanted.ActionID == 1)
                wanted.ScheduleOn = found[i].ScheduleOn;
            EXPECT_TRUE(same(found[i], wanted)) << "entry " << i << " of\n" << read_file(CONFIG_PATH);
        }
    }
}

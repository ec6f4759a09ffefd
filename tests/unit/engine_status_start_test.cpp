// The status record as it is filled at start-up: settings that the unit does not tell, and the last events.
#include "tests/unit/engine_fixture.h"

#include "wp_field.h"

class EngineStatus : public Engine
{
  protected:
    int fill(std::string_view settings)
    {
        write_file(CONFIG_PATH, "\n[ UPS ]\n" + std::string(settings));
        return getupsstatus(&ups.ui);
    }

    void set_unit(std::string_view model, std::int8_t port = 0)
    {
        field_set(ups.ui.upsmodel, model);
        ups.ui.ComId = port;
    }

    /// Where the battery date of a model comes from: "file", "unit" or "nowhere".
    std::string date_source(std::string_view model)
    {
        recorder.calls.clear();
        recorder.battdate = {99, 1, 1, 0, 0, 0, 0};
        set_unit(model);
        ups.ui.PreChangeBatt = {};
        fill(" Group = G\n ChangeBattTime = 105,02,03,04,05,06\n");
        const bool asked = !recorder.calls.empty();
        if (ups.ui.PreChangeBatt.year == 105 && !asked)
            return "file";
        return ups.ui.PreChangeBatt.year == 99 && asked ? "unit" : "nowhere";
    }
};

TEST_F(EngineStatus, EachRoleIsShownWithItsFlag)
{
    const std::array<std::pair<const char *, const std::int32_t *>, 4> cases = {{
        {"1", &engine.ISPROTECTOR},
        {"4", &engine.ISSERVERAGLOW},
        {"5", &engine.ISSERVERAGNORMAL},
        {"6", &engine.ISSERVERAGHIGH},
    }};
    for (const auto &[text, flag] : cases) {
        EXPECT_EQ(fill(" AgentType = " + std::string(text) + "\n"), 0);
        EXPECT_EQ(std::to_string(ups.ui.AgentType), text);
        EXPECT_EQ(*flag, 1);
        EXPECT_EQ(engine.ISPROTECTOR + engine.ISSERVERAGLOW + engine.ISSERVERAGNORMAL + engine.ISSERVERAGHIGH,
                  1);
    }
}

TEST_F(EngineStatus, ARoleThatDoesNotExistIsShownAsHighPriority)
{
    EXPECT_EQ(fill(" AgentType = 2\n Group = G\n BuzzerCan = on\n AutoTestCan = on\n"), 0);
    EXPECT_EQ(ups.ui.AgentType, 6u);
    EXPECT_EQ(engine.ISSERVERAGHIGH, 1);
    EXPECT_EQ(error_text(), "");
}

TEST_F(EngineStatus, AMissingRoleIsHighPriorityAndComplainedAbout)
{
    EXPECT_EQ(fill(" Group = G\n BuzzerCan = on\n AutoTestCan = on\n"), 0);
    EXPECT_EQ(ups.ui.AgentType, 6u);
    EXPECT_EQ(engine.ISSERVERAGHIGH, 1);
    EXPECT_EQ(error_text(), "Cannot read AgentType from config file");
}

TEST_F(EngineStatus, TheBuzzerIsOnUnlessTheTextBeginsWithOff)
{
    const std::array<std::pair<const char *, int>, 6> cases = {
        {{"on", 1}, {"off", 0}, {"offline", 0}, {"Off", 1}, {"", 1}, {"0", 1}}};
    for (const auto &[text, can] : cases) {
        EXPECT_EQ(fill(" BuzzerCan = " + std::string(text) + "\n"), 0);
        EXPECT_EQ(ups.ui.BuzzerCan, can) << text;
    }
}

TEST_F(EngineStatus, AMissingBuzzerSettingLeavesTheField)
{
    ups.ui.BuzzerCan = 7;
    EXPECT_EQ(fill(" AgentType = 4\n Group = G\n AutoTestCan = on\n"), 0);
    EXPECT_EQ(ups.ui.BuzzerCan, 7);
    EXPECT_EQ(error_text(), "Cannot read BuzzerCan from config file");
}

TEST_F(EngineStatus, TheSelfTestTimerIsOnOffOrAsItWas)
{
    const std::array<std::pair<const char *, int>, 5> cases = {
        {{"on", 1}, {"off", 0}, {"maybe", 7}, {"", 7}, {"ON", 7}}};
    for (const auto &[text, can] : cases) {
        ups.ui.AutoTestCan = 7;
        EXPECT_EQ(fill(" AutoTestCan = " + std::string(text) + "\n"), 0);
        EXPECT_EQ(ups.ui.AutoTestCan, can) << text;
    }
}

TEST_F(EngineStatus, AMissingTimerSettingLeavesTheField)
{
    ups.ui.AutoTestCan = 7;
    EXPECT_EQ(fill(" AgentType = 4\n Group = G\n BuzzerCan = on\n"), 0);
    EXPECT_EQ(ups.ui.AutoTestCan, 7);
    EXPECT_EQ(error_text(), "Cannot read AutoTestCan from config file");
}

TEST_F(EngineStatus, TheBatteryDateComesFromTheUnitOrTheFileByModel)
{
    EXPECT_EQ(date_source("ZR900PL"), "file");
    EXPECT_EQ(date_source("ZR950PL-2"), "file");
    EXPECT_EQ(date_source("ZQ100"), "file");
    EXPECT_EQ(date_source("ZM750"), "unit");
    EXPECT_EQ(date_source("ZR401"), "unit");
    EXPECT_EQ(date_source("ZR900P"), "unit");
    EXPECT_EQ(date_source("ZX100"), "file");
    EXPECT_EQ(date_source("UNKNOWN"), "file");
    EXPECT_EQ(date_source(""), "file");
}

TEST_F(EngineStatus, TheUnitIsAskedWithARecordOfItsOwn)
{
    set_unit("ZM750");
    EXPECT_EQ(fill(" Group = G\n"), 0);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{2048, 0, 0}}));
    EXPECT_NE(recorder.data.at(0), nullptr);
}

TEST_F(EngineStatus, AUnitThatDoesNotAnswerLeavesTheDateAndIsComplainedAbout)
{
    set_unit("ZM750");
    ups.ui.PreChangeBatt.year = 77;
    recorder.battdate.year = 99;
    recorder.results[2048] = -1;
    EXPECT_EQ(fill(" AgentType = 4\n Group = G\n BuzzerCan = on\n AutoTestCan = on\n"), 0);
    EXPECT_EQ(ups.ui.PreChangeBatt.year, 77);
    EXPECT_EQ(error_text(), "Cannot get change battery time");
}

TEST_F(EngineStatus, AModelWithoutADateInTheFileHasNone)
{
    for (const char *model : {"UNKNOWN", "ZQ100", "ZR900PL"}) {
        set_unit(model);
        ups.ui.PreChangeBatt.year = 77;
        EXPECT_EQ(fill(" Group = G\n"), 0);
        EXPECT_EQ(ups.ui.PreChangeBatt.year, 0) << model;
    }
}

TEST_F(EngineStatus, WithoutAPortTheDateIsLeftAlone)
{
    for (const std::int8_t port : {COMID_NONE, COMID_NOUPS}) {
        set_unit("ZM750", port);
        ups.ui.PreChangeBatt.year = 77;
        EXPECT_EQ(fill(" ChangeBattTime = 105,02,03,04,05,06\n Group = G\n"), 0);
        EXPECT_EQ(ups.ui.PreChangeBatt.year, 77);
        EXPECT_TRUE(recorder.calls.empty());
    }
}

TEST_F(EngineStatus, AGroupIsShownCutToFifteen)
{
    EXPECT_EQ(fill(" Group = ABCDEFGHIJKLMNOPQRST\n"), 0);
    EXPECT_EQ(field_view(ups.ui.Group), "ABCDEFGHIJKLMNO");
}

TEST_F(EngineStatus, AMissingGroupIsShownAndWrittenBack)
{
    EXPECT_EQ(fill(" AgentType = 4\n"), 0);
    EXPECT_EQ(field_view(ups.ui.Group), "Group A");
    EXPECT_EQ(error_text(), "Cannot read Group from config file");
    EXPECT_EQ(read_file(CONFIG_PATH), "\n[ UPS ]\n AgentType = 4\n\n Group = Group A\n");
}

TEST_F(EngineStatus, TimesShowNowAndTheNextSchedule)
{
    engine.SCH_off = 1'078'477'623;
    ups.ui.nextboot.year = 7;
    EXPECT_EQ(fill(" Group = G\n"), 0);
    EXPECT_EQ(ups.ui.timeinfo.second, 2);
    EXPECT_EQ(ups.ui.timeinfo.year, 104);
    EXPECT_EQ(ups.ui.nextdown.second, 3);
    EXPECT_EQ(ups.ui.nextboot.year, 0);
}

TEST_F(EngineStatus, ATimeWithoutADateFails)
{
    set_clock(-1);
    EXPECT_EQ(fill(" Group = G\n"), -1);
    set_clock(1);
    engine.SCH_boot = -1;
    EXPECT_EQ(fill(" Group = G\n"), -1);
}

TEST_F(EngineStatus, TheLastEventsAreShownAndTheReservedFlagCleared)
{
    engine.EVENTLOGENABLED = 1;
    ups.ui.bACPI = 5;
    write_file(LOG_PATH,
               "21/11/2026 13:14:15  65 255            host\n21/11/2026 13:14:16   0 255            host\n");
    EXPECT_EQ(fill(" Group = G\n"), 0);
    EXPECT_EQ(ups.ui.events[0].EventId, 65);
    EXPECT_EQ(ups.ui.events[1].EventId, 0);
    EXPECT_EQ(ups.ui.bACPI, 0);
}

TEST_F(EngineStatus, AMissingLogDoesNotFailTheFill)
{
    engine.EVENTLOGENABLED = 1;
    EXPECT_EQ(fill(" Group = G\n"), 0);
}

TEST_F(EngineStatus, AMissingBatteryDateIsZeroAndMinusOne)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n");
    UPS_TIMEINFO date{105, 1, 2, 3, 4, 5, 6};
    EXPECT_EQ(getbattime(&date), -1);
    EXPECT_EQ(date.year, 0);
    EXPECT_EQ(date.second, 0);
}

TEST_F(EngineStatus, ABatteryDateThatBreaksOffKeepsWhatItHas)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n ChangeBattTime = 105,12\n");
    UPS_TIMEINFO date{1, 1, 2, 3, 4, 5, 6};
    EXPECT_EQ(getbattime(&date), 0);
    EXPECT_EQ(date.year, 105);
    EXPECT_EQ(date.month, 12);
    EXPECT_EQ(date.day, 0);
}

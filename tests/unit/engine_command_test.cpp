// The orders of monitors: what each does to the pending shutdowns, what the UPS process
// is told, which event is raised, what users hear and what is kept in the settings file.
#include "tests/unit/engine_fixture.h"

#include "e_a_event_table.h"
#include "wp_field.h"

#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <sys/stat.h>

static constexpr std::time_t NOW = 1'078'477'622;
static const std::string ORDERED = "Receive shutdown Command From Users on ";
static const std::string CANCELED = "The Shutdown is Canceled by Users on ";

using callbacks = std::vector<callback>;
using texts = std::vector<std::string>;
using ids = std::vector<int>;

class Orders : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        write_file(CONFIG_PATH, "\n[ UPS ]\n AgentType = 4\n Group = Lab\n");
        // Every event is logged and does nothing else.
        for (std::size_t i = 0; i < EventMsg.size(); ++i) {
            events[i] = UPS_EVENTINFO{};
            events[i].EventID = static_cast<std::uint16_t>(EventMsg[i].eID);
            events[i].Record = 1;
            events[i].BroadcastType = 3;
        }
        engine.EVENTLOGENABLED = 1;
        ups.up.logparam.MaxEventRec = 200;
        ups.ui.CommStatus = COMM_ESTABLISHED;
    }

    int command(AGENTCMD order)
    {
        ein.DATA.acp = &order;
        engine.ISCOMLST = ups.ui.CommStatus == COMM_LOST;
        const int result = docommand(&order, &ein, &eout);
        ein.DATA.acp = nullptr;
        return result;
    }

    int plain(int cmd)
    {
        return command({cmd, {}});
    }

    int order_down(int delay, std::string_view name = "monitor")
    {
        down = UPS_AGENTDOWNINFO{};
        down.delay = static_cast<std::int16_t>(delay);
        std::copy_n(name.begin(), std::min<std::size_t>(name.size(), 16), down.Agent.begin());
        return command({18, {.adip = &down}});
    }

    /// The name lies in 16 bytes of its own, so that a look behind them is found.
    int cancel(std::string_view name = "monitor")
    {
        const auto wire = std::make_unique<std::array<char, 16>>();
        std::copy_n(name.begin(), std::min<std::size_t>(name.size(), 16), wire->begin());
        return command({19, {.hp = wire->data()}});
    }

    static std::optional<std::string> setting(const std::string &key)
    {
        const std::string file = read_file(CONFIG_PATH);
        const std::size_t at = file.find("\n " + key + " = ");
        if (at == std::string::npos)
            return std::nullopt;
        const std::size_t value = at + key.size() + 5;
        return file.substr(value, file.find('\n', value) - value);
    }

    UPS_AGENTDOWNINFO down{};
};

// ---- a user's shutdown

TEST_F(Orders, AUsersOrderIsTheNextShutdownWhenThereIsNone)
{
    engine.bShutdownByUserCanceled = 1;
    EXPECT_EQ(order_down(90, "desk"), 0);
    EXPECT_EQ(engine.USR_off, NOW + 90);
    EXPECT_EQ(engine.next_off, NOW + 90);
    EXPECT_EQ(engine.downreason, USER_SPECIFY);
    EXPECT_EQ(ups.ui.CommandDownS, 1);
    EXPECT_EQ(engine.bShutdownByUserCanceled, 0);
    EXPECT_EQ(field_view(engine.monitorname), "desk");
    EXPECT_EQ(recorder.localised, texts{ORDERED + "desk"});
    EXPECT_EQ(recorder.english, texts{ORDERED + "desk"});
    EXPECT_EQ(recorder.calls, (callbacks{{1, 1, 0}, {1, 2, 0}}));
    EXPECT_EQ(logged(), ids{79});
    EXPECT_NE(read_file(LOG_PATH).find("desk"), std::string::npos);
}

struct deadline_row {
    const char *name;
    std::time_t pending;  // s from now, 0: none
    int delay;
    bool taken;
};

TEST_F(Orders, TheEarlierDeadlineIsInForceAndTheOrderIsKeptInAnyCase)
{
    const std::array<deadline_row, 6> rows = {{
        {"nothing pending", 0, 600, true},
        {"later one pending", 601, 600, true},
        {"the same second", 600, 600, false},
        {"earlier one pending", 599, 600, false},
        {"due one pending", -5, 0, false},
        {"at once", 1, 0, true},
    }};
    for (const deadline_row &row : rows) {
        engine.downreason = row.pending != 0 ? AC_FAIL : NONE;
        engine.next_off = row.pending != 0 ? NOW + row.pending : 0;
        recorder = Recorder{};
        std::filesystem::remove(LOG_PATH);
        EXPECT_EQ(order_down(row.delay), 0) << row.name;
        EXPECT_EQ(engine.USR_off, NOW + row.delay) << row.name;
        EXPECT_EQ(engine.downreason, row.taken ? USER_SPECIFY : AC_FAIL) << row.name;
        EXPECT_EQ(engine.next_off, NOW + (row.taken ? row.delay : row.pending)) << row.name;
        EXPECT_EQ(logged(), ids{79}) << row.name;
        EXPECT_EQ(recorder.english.size(), 1U) << row.name;
        EXPECT_EQ(ups.ui.CommandDownS, 1) << row.name;
    }
}

TEST_F(Orders, WithoutALinkAUsersOrderIsRefused)
{
    for (const std::int8_t link : {COMM_LOST, COMM_NOUPS}) {
        ups.ui.CommStatus = link;
        ups.ui.CommandDownS = 1;
        engine.bShutdownByUserCanceled = 1;
        EXPECT_EQ(order_down(5), -1);
        EXPECT_EQ(ups.ui.CommandDownS, 0);
        EXPECT_EQ(engine.bShutdownByUserCanceled, 1);
    }
    EXPECT_EQ(engine.USR_off, 0);
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_TRUE(logged().empty());
}

TEST_F(Orders, WhileTheLinkIsStillSoughtAUsersOrderIsTaken)
{
    for (const std::int8_t link : std::array<std::int8_t, 3>{0, 1, 16}) {
        ups.ui.CommStatus = link;
        EXPECT_EQ(order_down(5), 0) << int{link};
    }
}

TEST_F(Orders, ANegativeDelayIsDueNow)
{
    for (const int delay : {-1, -32768}) {
        engine.next_off = 0;
        EXPECT_EQ(order_down(delay), 0);
        EXPECT_EQ(engine.USR_off, NOW) << delay;
        EXPECT_EQ(engine.next_off, NOW) << delay;
    }
}

TEST_F(Orders, ADeadlineBehindTheThirtyTwoBitLimitIsRight)
{
    set_clock(5'000'000'000);
    EXPECT_EQ(order_down(32767), 0);
    EXPECT_EQ(engine.USR_off, 5'000'032'767);
    EXPECT_EQ(engine.next_off, 5'000'032'767);
}

TEST_F(Orders, ANameWithoutItsEndIsTakenToItsFieldsEnd)
{
    EXPECT_EQ(order_down(60, "ABCDEFGHIJKLMNOP"), 0);
    EXPECT_EQ(field_view(engine.monitorname), "ABCDEFGHIJKLMNOP");
    EXPECT_EQ(recorder.english, texts{ORDERED + "ABCDEFGHIJKLMNOP"});
    recorder = Recorder{};
    EXPECT_EQ(cancel("abcdefghijklmnop"), 0);
    EXPECT_EQ(field_view(engine.monitorname), "abcdefghijklmnop");
    EXPECT_EQ(recorder.english, texts{CANCELED + "abcdefghijklmnop"});
}

TEST_F(Orders, AShorterNameLeavesNothingOfALongerOne)
{
    order_down(60, "ABCDEFGHIJKLMNOP");
    order_down(60, "x");
    EXPECT_EQ(recorder.english.back(), ORDERED + "x");
    cancel("abcdefghijklmnop");
    cancel("y");
    EXPECT_EQ(recorder.english.back(), CANCELED + "y");
    EXPECT_EQ(field_view(engine.monitorname), "y");
}

TEST_F(Orders, ANameThatLooksLikeAFormatIsShownAsItIs)
{
    EXPECT_EQ(order_down(60, "%s%n$(reboot)`id`"), 0);
    EXPECT_EQ(recorder.english, texts{ORDERED + "%s%n$(reboot)`id"});
}

TEST_F(Orders, AnEmptyNameIsNone)
{
    EXPECT_EQ(order_down(60, ""), 0);
    EXPECT_EQ(recorder.english, texts{ORDERED});
}

// The handler has made EUC-JP of an ordering monitor's name; monitors are told in Shift_JIS.
TEST_F(Orders, AJapaneseNameReachesMonitorsInShiftJis)
{
    EXPECT_EQ(order_down(60, "\xC5\xC5\xB8\xBB"), 0);
    EXPECT_EQ(recorder.english, texts{ORDERED + "\x93\x64\x8C\xB9"});
    EXPECT_EQ(field_view(engine.monitorname), "\xC5\xC5\xB8\xBB");
}

TEST_F(Orders, ACancelingMonitorsNameIsConvertedOnceWhateverItWasIn)
{
    for (const char *name : {"\xC5\xC5\xB8\xBB", "\x93\x64\x8C\xB9"}) {
        recorder = Recorder{};
        EXPECT_EQ(cancel(name), 0);
        EXPECT_EQ(recorder.english, texts{CANCELED + "\x93\x64\x8C\xB9"});
        EXPECT_EQ(recorder.localised, texts{CANCELED + "\x93\x64\x8C\xB9"});
    }
    recorder = Recorder{};
    EXPECT_EQ(cancel("\x8E\xB1\x8E\xB2"), 0);
    EXPECT_EQ(recorder.english, texts{CANCELED + "\xB1\xB2"});  // not converted once more
}

TEST_F(Orders, AnOrderWithoutItsRecordIsRefused)
{
    for (const int cmd : {18, 19, 30, 31})
        EXPECT_EQ(plain(cmd), -1) << cmd;
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_TRUE(recorder.calls.empty());
}

TEST_F(Orders, TheTimerLearnsOfAnOrderInTheSameCall)
{
    down.delay = 3600;
    AGENTCMD order{18, {.adip = &down}};
    ein.DATA.acp = &order;
    engine.TURNOFFDELAY = 600;
    EXPECT_EQ(act(11), 0);
    EXPECT_EQ(engine.next_off, NOW + 3600);
    EXPECT_EQ(engine.downreason, USER_SPECIFY);
    AGENTCMD other{22, {}};
    ein.DATA.acp = &other;
    EXPECT_EQ(act(11), 0);
    EXPECT_EQ(engine.beDoCmdDown, 0);
    ein.DATA.acp = nullptr;
}

// ---- its cancel

TEST_F(Orders, ACancelDropsTheUsersShutdown)
{
    engine.downreason = USER_SPECIFY;
    engine.USR_off = engine.next_off = NOW + 60;
    engine.shutdownMsgSendOnce = 1;
    ups.ui.CommandDownS = 1;
    EXPECT_EQ(cancel("desk"), 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_EQ(engine.USR_off, 0);
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_EQ(engine.shutdownMsgSendOnce, 0);
    EXPECT_EQ(ups.ui.CommandDownS, 0);
    EXPECT_EQ(engine.bShutdownByUserCanceled, 1);
    EXPECT_EQ(recorder.localised, texts{CANCELED + "desk"});
    EXPECT_EQ(recorder.english, texts{CANCELED + "desk"});
    EXPECT_EQ(recorder.calls, (callbacks{{1, 1, 0}, {1, 2, 0}}));
    EXPECT_EQ(logged(), ids{21});
    EXPECT_NE(read_file(LOG_PATH).find("desk"), std::string::npos);
}

TEST_F(Orders, ACancelLeavesADeadlineThatIsNotTheUsers)
{
    engine.downreason = USER_SPECIFY;
    engine.USR_off = NOW + 60;
    engine.next_off = NOW + 30;
    EXPECT_EQ(cancel(), 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_EQ(engine.next_off, NOW + 30);
}

TEST_F(Orders, ACancelLeavesEveryOtherShutdownInForce)
{
    for (const REASON reason :
         {SPECIAL, WEEKLY, MONTHLY, AC_FAIL, BATT_LOW, EVENT_TRIGGER, OTHERAGEDOWN, NONE}) {
        engine.downreason = reason;
        engine.next_off = engine.USR_off = engine.ACFAIL_off = engine.SCH_off = NOW + 60;
        engine.ISSHUTTINGDOWN = engine.DOWNREACHED = ups.ui.ShutdownS = 1;
        EXPECT_EQ(cancel(), 0);
        EXPECT_EQ(engine.downreason, reason);
        EXPECT_EQ(engine.next_off, NOW + 60);
        EXPECT_EQ(engine.ACFAIL_off, NOW + 60);
        EXPECT_EQ(engine.SCH_off, NOW + 60);
        EXPECT_EQ(engine.USR_off, 0);
        EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
        EXPECT_EQ(engine.DOWNREACHED, 1);
        EXPECT_EQ(ups.ui.ShutdownS, 1);
    }
}

TEST_F(Orders, ACancelWithinTheGraceLeavesAnAgentThatCanGoDownAgain)
{
    engine.downreason = USER_SPECIFY;
    engine.USR_off = engine.next_off = NOW - 10;
    engine.ISSHUTTINGDOWN = engine.DOWNREACHED = ups.ui.ShutdownS = 1;
    EXPECT_EQ(cancel(), 0);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    EXPECT_EQ(engine.DOWNREACHED, 0);
    EXPECT_EQ(ups.ui.ShutdownS, 0);
    EXPECT_EQ(order_down(5), 0);
    EXPECT_EQ(engine.next_off, NOW + 5);
}

// ---- self-tests

TEST_F(Orders, ASelfTestCarriesItsLength)
{
    EXPECT_EQ(command({20, {.last = 25}}), 0);
    EXPECT_EQ(recorder.calls, (callbacks{{8, 0, 25}}));
    EXPECT_EQ(engine.testreason, USER_SPECIFY);
}

TEST_F(Orders, ALostLinkStartsNoSelfTest)
{
    ups.ui.CommStatus = COMM_LOST;
    engine.ACFAIL_off = NOW;
    EXPECT_EQ(command({20, {.last = 25}}), 0);
    EXPECT_EQ(plain(21), 0);
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_EQ(engine.testreason, NONE);
}

TEST_F(Orders, WithoutAPortASelfTestIsOrderedAllTheSame)
{
    ups.ui.CommStatus = COMM_NOUPS;
    EXPECT_EQ(command({20, {.last = 25}}), 0);
    EXPECT_EQ(plain(21), 0);
    EXPECT_EQ(recorder.calls, (callbacks{{8, 0, 25}, {16, 0, 0}}));
}

TEST_F(Orders, TheResultOfASelfTestOrderIsNotLookedAt)
{
    recorder.results = {{8, -1}, {16, -1}, {32, -1}, {0x40000, -1}};
    EXPECT_EQ(command({20, {.last = 0}}), 0);
    for (const int cmd : {21, 22, 35})
        EXPECT_EQ(plain(cmd), 0) << cmd;
    EXPECT_EQ(recorder.calls, (callbacks{{8, 0, 0}, {16, 0, 0}, {32, 0, 0}, {0x40000, 0, 0}}));
}

TEST_F(Orders, ATestTillBatteryLowStartsWhileMainsIsThere)
{
    engine.downreason = WEEKLY;
    EXPECT_EQ(plain(21), 0);
    EXPECT_EQ(recorder.calls, (callbacks{{16, 0, 0}}));
    EXPECT_EQ(engine.testreason, USER_SPECIFY_LOW);
}

TEST_F(Orders, ATestTillBatteryLowFailsAtOnceWhileMainsHasFailed)
{
    for (const bool counting : {true, false}) {
        engine.ACFAIL_off = counting ? NOW + 60 : 0;
        engine.downreason = counting ? NONE : AC_FAIL;
        ups.ui.sftResUPS = {SELFTEST_NONE, {}};
        recorder = Recorder{};
        EXPECT_EQ(plain(21), 0);
        EXPECT_EQ(recorder.calls, (callbacks{{1, 0, 0}}));
        EXPECT_EQ(recorder.plain, texts{"Selftest Till Battery Low Failed Because of AC Fail!!!"});
        EXPECT_EQ(ups.ui.sftResUPS.Result, SELFTEST_FAILED);
        const UPS_TIMEINFO now{104, 3, 5, 9, 7, 2, 0};
        EXPECT_EQ(std::memcmp(&ups.ui.sftResUPS.timeinfo, &now, sizeof now), 0);
        EXPECT_EQ(engine.testreason, NONE);
    }
}

TEST_F(Orders, CancelingATestForgetsItsReason)
{
    for (const std::int8_t link : {COMM_ESTABLISHED, COMM_LOST}) {
        ups.ui.CommStatus = link;
        engine.testreason = WEEKLY;
        EXPECT_EQ(plain(22), 0);
        EXPECT_EQ(engine.testreason, NONE);
    }
    EXPECT_EQ(recorder.calls, (callbacks{{32, 0, 0}, {32, 0, 0}}));
}

// ---- the logs

TEST_F(Orders, ClearingALogLeavesAnEmptyFileAndTheOtherLog)
{
    write_file(DATALOG_PATH, "data\n");
    write_file(LOG_PATH, "events\n");
    EXPECT_EQ(plain(25), 0);
    EXPECT_TRUE(std::filesystem::exists(DATALOG_PATH));
    EXPECT_EQ(read_file(DATALOG_PATH), "");
    EXPECT_EQ(read_file(LOG_PATH), "events\n");
    write_file(DATALOG_PATH, "data\n");
    engine.SHALLCOPY = 0;
    EXPECT_EQ(plain(26), 0);
    EXPECT_TRUE(std::filesystem::exists(LOG_PATH));
    EXPECT_EQ(read_file(LOG_PATH), "");
    EXPECT_EQ(read_file(DATALOG_PATH), "data\n");
    EXPECT_EQ(engine.SHALLCOPY, 1);
    EXPECT_TRUE(recorder.calls.empty());
}

TEST_F(Orders, ALogThatCannotBeClearedIsAFailure)
{
    engine.SHALLCOPY = 0;
    EXPECT_EQ(plain(25), -1);
    EXPECT_EQ(plain(26), -1);
    EXPECT_FALSE(std::filesystem::exists(DATALOG_PATH));
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
    EXPECT_EQ(engine.SHALLCOPY, 1);
}

TEST_F(Orders, ALogThatIsAPipeHoldsNobodyUp)
{
    ASSERT_EQ(mkfifo(LOG_PATH, 0600), 0);
    ASSERT_EQ(mkfifo(DATALOG_PATH, 0600), 0);
    EXPECT_EQ(plain(25), -1);
    EXPECT_EQ(plain(26), -1);
}

// ---- the unit's switches

struct switch_row {
    int cmd;
    int event;
    int code;
    const char *key;
    const char *value;
    bool kept_unsent;
};

static constexpr std::array<switch_row, 4> SWITCHES = {{
    {28, 15, 64, "BuzzerCan", "on", false},
    {29, 14, 128, "BuzzerCan", "off", true},
    {32, 13, 256, "AutoTestCan", "on", true},
    {33, 12, 512, "AutoTestCan", "off", true},
}};

TEST_F(Orders, ASwitchIsRaisedSentAndKept)
{
    char argument = 'x';
    for (const switch_row &row : SWITCHES) {
        recorder = Recorder{};
        std::filesystem::remove(LOG_PATH);
        EXPECT_EQ(command({row.cmd, {.hp = &argument}}), 0) << row.cmd;
        EXPECT_EQ(recorder.calls, (callbacks{{row.code, 0, 0}})) << row.cmd;
        EXPECT_EQ(recorder.data, std::vector<const void *>{&argument}) << row.cmd;
        EXPECT_EQ(logged(), ids{row.event}) << row.cmd;
        EXPECT_EQ(setting(row.key), row.value) << row.cmd;
    }
    EXPECT_EQ(setting("Group"), "Lab");
}

TEST_F(Orders, ASwitchIsRaisedBeforeItIsSentAndKeptAfterwards)
{
    for (const switch_row &row : SWITCHES) {
        write_file(CONFIG_PATH, "\n[ UPS ]\n Other = 1\n");
        std::filesystem::remove(LOG_PATH);
        ids before;
        bool kept = true;
        recorder.watch = [&](int) {
            before = logged();
            kept = setting(row.key).has_value();
        };
        EXPECT_EQ(plain(row.cmd), 0) << row.cmd;
        EXPECT_EQ(before, ids{row.event}) << row.cmd;
        EXPECT_FALSE(kept) << row.cmd;
    }
}

TEST_F(Orders, ASwitchThatWasNotSentIsKeptExceptForTheBuzzersOn)
{
    for (const switch_row &row : SWITCHES) {
        write_file(CONFIG_PATH, "\n[ UPS ]\n Other = 1\n");
        recorder.results = {{row.code, -1}};
        std::filesystem::remove(LOG_PATH);
        EXPECT_EQ(plain(row.cmd), 0) << row.cmd;
        EXPECT_EQ(logged(), ids{row.event}) << row.cmd;
        EXPECT_EQ(setting(row.key).has_value(), row.kept_unsent) << row.cmd;
    }
}

TEST_F(Orders, ALostSettingOfASwitchIsNoFailure)
{
    std::filesystem::remove(CONFIG_PATH);
    std::filesystem::create_directory(CONFIG_PATH);
    for (const switch_row &row : SWITCHES)
        EXPECT_EQ(plain(row.cmd), 0) << row.cmd;
    EXPECT_EQ(command({34, {.nupsmodel = 1}}), 0);
}

TEST_F(Orders, EachDetectionLevelIsRaisedSentAndKept)
{
    for (int level = 1; level <= 4; ++level) {
        recorder = Recorder{};
        recorder.results = {{0x20000, level % 2 == 0 ? -1 : 0}};
        std::filesystem::remove(LOG_PATH);
        EXPECT_EQ(command({34, {.nupsmodel = level}}), 0) << level;
        EXPECT_EQ(recorder.calls, (callbacks{{0x20000, 0, level}})) << level;
        EXPECT_EQ(logged(), ids{16 + level}) << level;
        EXPECT_EQ(setting("OutputDetectionLevel"), std::to_string(level)) << level;
    }
}

TEST_F(Orders, ADetectionLevelIsRaisedBeforeItIsSentAndKeptAfterwards)
{
    ids before;
    bool kept = true;
    recorder.watch = [&](int) {
        before = logged();
        kept = setting("OutputDetectionLevel").has_value();
    };
    EXPECT_EQ(command({34, {.nupsmodel = 3}}), 0);
    EXPECT_EQ(before, ids{19});
    EXPECT_FALSE(kept);
    EXPECT_EQ(setting("OutputDetectionLevel"), "3");
}

TEST_F(Orders, ALevelThatDoesNotExistIsKeptAndNothingElse)
{
    for (const int level : {7, 0, 5, 2147483647}) {
        EXPECT_EQ(command({34, {.nupsmodel = level}}), 0) << level;
        EXPECT_EQ(setting("OutputDetectionLevel"), std::to_string(level)) << level;
    }
    EXPECT_EQ(command({34, {.nupsmodel = -1}}), 0);
    EXPECT_EQ(setting("OutputDetectionLevel"), "4294967295");
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_TRUE(logged().empty());
}

// ---- the battery-change date

TEST_F(Orders, SeriesZqReadsTheBatteryDateFromTheFile)
{
    field_set(ups.ui.upsmodel, "ZQ500");
    write_file(CONFIG_PATH, "\n[ UPS ]\n ChangeBattTime = 104,02,29,12,13,14\n");
    recorder.battdate = {99, 9, 9, 9, 9, 9, 9};
    BATTCHGTIME date{};
    EXPECT_EQ(command({30, {.bctp = &date}}), 0);
    EXPECT_EQ(recorder.calls, (callbacks{{2048, 0, 0}}));
    EXPECT_EQ(recorder.data, std::vector<const void *>{&date});
    const UPS_TIMEINFO stored{104, 2, 29, 12, 13, 14, 0};
    EXPECT_EQ(std::memcmp(&date.BattTime, &stored, sizeof stored), 0);
}

TEST_F(Orders, SeriesZqWithoutAStoredDateShowsNone)
{
    field_set(ups.ui.upsmodel, "ZQ500");
    recorder.battdate = {99, 9, 9, 9, 9, 9, 9};
    BATTCHGTIME date{};
    EXPECT_EQ(command({30, {.bctp = &date}}), 0);
    const UPS_TIMEINFO none{};
    EXPECT_EQ(std::memcmp(&date.BattTime, &none, sizeof none), 0);
}

TEST_F(Orders, OtherSeriesAreAskedTwice)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n ChangeBattTime = 104,02,29,12,13,14\n");
    for (const char *model : {"ZM700", "ZR900PL", "zq500", ""}) {
        field_set(ups.ui.upsmodel, model);
        recorder = Recorder{};
        recorder.battdate = {99, 9, 8, 7, 6, 5, 4};
        BATTCHGTIME date{};
        EXPECT_EQ(command({30, {.bctp = &date}}), 0) << model;
        EXPECT_EQ(recorder.calls, (callbacks{{2048, 0, 0}, {2048, 0, 0}})) << model;
        EXPECT_EQ(date.BattTime.day, 8) << model;
    }
}

TEST_F(Orders, AnUnansweredBatteryDateIsAFailureAndStillLookedUp)
{
    recorder.results = {{2048, -1}};
    BATTCHGTIME date{};
    field_set(ups.ui.upsmodel, "ZM700");
    EXPECT_EQ(command({30, {.bctp = &date}}), -1);
    EXPECT_EQ(recorder.calls.size(), 2U);
    field_set(ups.ui.upsmodel, "ZQ500");
    write_file(CONFIG_PATH, "\n[ UPS ]\n ChangeBattTime = 104,02,29,12,13,14\n");
    EXPECT_EQ(command({30, {.bctp = &date}}), -1);
    EXPECT_EQ(date.BattTime.day, 29);
}

TEST_F(Orders, ANewBatteryDateIsStoredShownSentAndRaised)
{
    BATTCHGTIME date{1, {104, 2, 9, 1, 2, 3, 0}};
    EXPECT_EQ(command({31, {.bctp = &date}}), 0);
    EXPECT_EQ(setting("ChangeBattTime"), "104,02,09,01,02,03");
    EXPECT_EQ(std::memcmp(&ups.ui.PreChangeBatt, &date.BattTime, sizeof date.BattTime), 0);
    EXPECT_EQ(recorder.calls, (callbacks{{1024, 0, 0}}));
    EXPECT_EQ(recorder.data, std::vector<const void *>{&date});
    EXPECT_EQ(logged(), ids{16});
    UPS_TIMEINFO read;
    EXPECT_EQ(getbattime(&read), 0);
    EXPECT_EQ(std::memcmp(&read, &date.BattTime, sizeof read), 0);
}

TEST_F(Orders, ANewBatteryDateIsStoredBeforeItIsSentAndRaisedAfterwards)
{
    BATTCHGTIME date{1, {104, 2, 9, 1, 2, 3, 0}};
    bool stored = false;
    ids before{99};
    recorder.watch = [&](int) {
        stored = setting("ChangeBattTime").has_value();
        before = logged();
    };
    EXPECT_EQ(command({31, {.bctp = &date}}), 0);
    EXPECT_TRUE(stored);
    EXPECT_TRUE(before.empty());
}

TEST_F(Orders, MonitorsHearOfAnOrderAndOfItsCancelBeforeTheEventIsRaised)
{
    std::vector<ids> before;
    recorder.watch = [&](int) { before.push_back(logged()); };
    order_down(60);
    cancel();
    EXPECT_EQ(before, (std::vector<ids>{{}, {}, {79}, {79}}));
    EXPECT_EQ(logged(), (ids{79, 21}));
}

TEST_F(Orders, ADateOfAnyBytesIsStoredWithinItsBounds)
{
    BATTCHGTIME date{0, {255, -128, 127, -1, -128, -128, -1}};
    EXPECT_EQ(command({31, {.bctp = &date}}), 0);
    EXPECT_EQ(setting("ChangeBattTime"), "255,-128,127,-1,-128,-128");
}

TEST_F(Orders, ALostBatteryDateIsAFailureAndStillRaised)
{
    BATTCHGTIME date{1, {104, 2, 9, 1, 2, 3, 0}};
    recorder.results = {{1024, -1}};
    EXPECT_EQ(command({31, {.bctp = &date}}), -1);
    recorder = Recorder{};
    std::filesystem::remove(CONFIG_PATH);
    std::filesystem::create_directory(CONFIG_PATH);
    EXPECT_EQ(command({31, {.bctp = &date}}), -1);
    EXPECT_EQ(recorder.calls, (callbacks{{1024, 0, 0}}));
    EXPECT_EQ(logged(), (ids{16, 16}));
}

TEST_F(Orders, TheBuzzerTestIsOneCall)
{
    EXPECT_EQ(plain(35), 0);
    EXPECT_EQ(recorder.calls, (callbacks{{0x40000, 0, 0}}));
    EXPECT_TRUE(logged().empty());
}

TEST_F(Orders, OrdersThatDoNotExistDoNothing)
{
    const std::string before = read_file(CONFIG_PATH);
    for (const int cmd : {-1, 0, 1, 16, 17, 23, 24, 27, 36, 192, 255, 2147483647})
        EXPECT_EQ(plain(cmd), 0) << cmd;
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_TRUE(logged().empty());
    EXPECT_EQ(read_file(CONFIG_PATH), before);
}

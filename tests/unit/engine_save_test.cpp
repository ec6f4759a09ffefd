// Storing the working configuration that a monitor sent: which keys are written, in which order, under which
// condition, and what the network side hears of it. The store is a stand-in that notes every access and can
// lose writes.
#include "tests/unit/engine_fixture.h"

#include "filehandle.h"
#include "wp_field.h"

#include <algorithm>
#include <set>

struct Store {
    std::map<std::string, std::string> values;                // "section/key"
    std::vector<std::pair<std::string, std::string>> writes;  // in order
    std::set<std::string> lost;                               // keys whose writes fail
    int opened = 0;
    int closed = 0;
    bool unopenable = false;
    bool close_fails = false;
    bool written_outside = false;  // a write before the batch or behind it
    std::string buffer;
};
static Store store;

const char *readparam(const char *section, const char *key)
{
    const auto found = store.values.find(std::string(section) + "/" + key);
    if (found == store.values.end())
        return nullptr;
    store.buffer = found->second;
    return store.buffer.c_str();
}

int writeparam(const char *section, const char *key, const char *value)
{
    const std::string name = std::string(section) + "/" + key;
    store.written_outside |= store.opened != store.closed + 1;
    store.writes.emplace_back(name, value);
    if (store.lost.contains(name))
        return -1;
    store.values[name] = value;
    return 0;
}

int open_write_batch()
{
    if (store.unopenable)
        return -1;
    store.opened++;
    return 0;
}

int close_write_batch()
{
    store.closed++;
    return store.close_fails ? -1 : 0;
}

using writes = std::vector<std::pair<std::string, std::string>>;

static const callback GROUP_CHANGED{16384, 0, 0};
static const callback STATUS_CHANGED{8192, 0, 0};
static const callback REBOOT_ON{32768, 0, 0};
static const callback REBOOT_OFF{65536, 0, 0};

class EngineSave : public Engine
{
  protected:
    /// The file holds what is live, and the request asks for the same.
    void SetUp() override
    {
        Engine::SetUp();
        store = Store{};
        store.values = {
            {"ShutDown/EXPECTBLIFE", "60"},
            {"ShutDown/TurnOffDelay", "600"},
            {"ShutDown/FIRSTWARN", "30"},
            {"ShutDown/WARNBEFORESCHE", "600"},
            {"ShutDown/INTERVAL", "30"},
            {"ShutDown/CloseAppTime", "300"},
            {"EventLog/EventLogEnabled", "1"},
            {"EventLog/EventLogMaxSize", "200"},
            {"DataLog/DataLogEnabled", "1"},
            {"DataLog/DataLogInterval", "60"},
            {"DataLog/DataLogMaxSize", "200"},
            {"UPS/IgnoreOtherAgentDown", "1"},
            {"UPS/Group", "Group A"},
            {"UPS/AutoBoot", "1"},
            {"UPS/ComSet", "1"},
            {"UPS/AgentType", "4"},
        };
        ASSERT_EQ(getconfig(&eout), 0);
        request = ups.up;
        recorder.calls.clear();
        engine.CURRENTCMD = E_CMD_SETCONFIG;
        getevent(events.data(), &ein, &eout);
    }

    int save()
    {
        return setconfig(&ein, &eout);
    }

    /// Everything written to one key, joined by "|"; "-" for nothing.
    static std::string written(const std::string &name)
    {
        std::string all;
        for (const auto &[key, value] : store.writes)
            if (key == name)
                all += (all.empty() ? "" : "|") + value;
        return all.empty() ? "-" : all;
    }
};

TEST_F(EngineSave, ASaveOfWhatIsInForceWritesTheFixedKeysInTheirOrder)
{
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(store.writes, (writes{
                                {"ShutDown/EXPECTBLIFE", "60"},
                                {"ShutDown/TurnOffDelay", "600"},
                                {"ShutDown/FIRSTWARN", "30"},
                                {"ShutDown/WARNBEFORESCHE", "600"},
                                {"ShutDown/INTERVAL", "30"},
                                {"ShutDown/BSUSPEND", "0"},
                                {"ShutDown/CloseAppTime", "300"},
                                {"EventLog/EventLogEnabled", "1"},
                                {"EventLog/EventLogMaxSize", "200"},
                                {"DataLog/DataLogEnabled", "1"},
                                {"DataLog/DataLogMaxSize", "200"},
                                {"UPS/IgnoreOtherAgentDown", "1"},
                            }));
    EXPECT_EQ(recorder.calls, (std::vector<callback>{REBOOT_ON}));
}

TEST_F(EngineSave, AFullChangeWritesEveryKeyInItsOrder)
{
    store.values.clear();
    request.workparam = {0, 61, 2, 601, 1, 31, 32, 602, 301};
    request.logparam = {1, 201, 0, 202, 62};
    request.commparam.AgentType = 5;
    request.commparam.bIgnore = 0;
    field_set(request.commparam.Group, "Group B");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(store.writes, (writes{
                                {"ShutDown/EXPECTBLIFE", "61"},
                                {"ShutDown/TurnOffDelay", "601"},
                                {"ShutDown/FIRSTWARN", "31"},
                                {"ShutDown/WARNBEFORESCHE", "602"},
                                {"ShutDown/INTERVAL", "32"},
                                {"ShutDown/BSUSPEND", "0"},
                                {"ShutDown/CloseAppTime", "301"},
                                {"EventLog/EventLogEnabled", "1"},
                                {"EventLog/EventLogMaxSize", "201"},
                                {"DataLog/DataLogEnabled", "0"},
                                {"DataLog/DataLogInterval", "62"},
                                {"DataLog/DataLogMaxSize", "202"},
                                {"UPS/IgnoreOtherAgentDown", "0"},
                                {"UPS/Group", "Group B"},
                                {"UPS/AutoBoot", "1"},
                                {"UPS/ComSet", "2"},
                                {"UPS/AgentType", "5"},
                            }));
    EXPECT_EQ(recorder.calls, (std::vector<callback>{GROUP_CHANGED, STATUS_CHANGED, REBOOT_ON, GROUP_CHANGED,
                                                     STATUS_CHANGED, GROUP_CHANGED, STATUS_CHANGED}));
}

TEST_F(EngineSave, WhatIsWrittenIsLiveAtOnce)
{
    request.workparam = {0, 61, 1, 601, 1, 31, 32, 602, 301};
    request.logparam = {0, 201, 0, 202, 62};
    request.commparam.bIgnore = 0;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(ups.up.workparam.BattLife, 61u);
    EXPECT_EQ(ups.up.workparam.TurnOffDelay, 601u);
    EXPECT_EQ(ups.up.workparam.FirstWarningTime, 31u);
    EXPECT_EQ(ups.up.workparam.CountDownTime, 32u);
    EXPECT_EQ(ups.up.workparam.WarningBeforeSchel, 602u);
    EXPECT_EQ(ups.up.workparam.nCloseAppTime, 301u);
    EXPECT_EQ(ups.up.logparam.EnableEventLog, 0);
    EXPECT_EQ(ups.up.logparam.MaxEventRec, 201u);
    EXPECT_EQ(ups.up.logparam.EnableDataLog, 0);
    EXPECT_EQ(ups.up.logparam.MaxDataRec, 202u);
    EXPECT_EQ(ups.up.logparam.DataLogInterval, 62u);
    EXPECT_EQ(ups.up.commparam.bIgnore, 0);
    EXPECT_EQ(ups.ui.bIgnoreDown, 0);
    EXPECT_EQ(engine.EXPBLIFE, 61u);
    EXPECT_EQ(engine.TURNOFFDELAY, 601u);
    EXPECT_EQ(engine.PFAILCOUNT, 30u);
    EXPECT_EQ(engine.SCHCOUNT, 602u);
    EXPECT_EQ(engine.INTERVAL, 32u);
    EXPECT_EQ(engine.EVENTLOGENABLED, 0u);
    EXPECT_EQ(engine.DATALOGENABLED, 0u);
    EXPECT_EQ(engine.DLOGINTERVAL, 62u);
}

TEST_F(EngineSave, SuspendIsTheEnginesOwnAndGoesIntoBothRecords)
{
    engine.BSUSPEND = 1;
    request.workparam.BSuspend = 7;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("ShutDown/BSUSPEND"), "1");
    EXPECT_EQ(request.workparam.BSuspend, 1);
    EXPECT_EQ(ups.up.workparam.BSuspend, 1);
}

TEST_F(EngineSave, ARunningCountdownFollowsTheChangeOfItsLength)
{
    engine.ACFAIL_off = 1'078'477'700;
    request.workparam.BattLife = 90;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'730);
    request.workparam.BattLife = 10;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'650);
}

TEST_F(EngineSave, ARunningCountdownFollowsARequestMadeInTheLiveRecord)
{
    ein.DATA.upsconfigp = &ups.up;
    engine.ACFAIL_off = 1'078'477'700;
    ups.up.workparam.BattLife = 90;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'730);
    EXPECT_EQ(written("ShutDown/EXPECTBLIFE"), "90");
}

TEST_F(EngineSave, WithoutACountdownNoneIsStarted)
{
    request.workparam.BattLife = 90;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(engine.ACFAIL_off, 0);
    EXPECT_EQ(written("ShutDown/EXPECTBLIFE"), "90");
    EXPECT_EQ(engine.EXPBLIFE, 90u);
}

TEST_F(EngineSave, ANewLogIntervalTakesTheNextRecordAtOnce)
{
    engine.lastdatalog = 1'078'477'000;
    request.logparam.DataLogInterval = 10;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("DataLog/DataLogInterval"), "10");
    EXPECT_EQ(engine.lastdatalog, 0);
    EXPECT_EQ(engine.DLOGINTERVAL, 10u);
}

TEST_F(EngineSave, TheSameLogIntervalIsNotWrittenAndKeepsTheRhythm)
{
    engine.lastdatalog = 1'078'477'000;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("DataLog/DataLogInterval"), "-");
    EXPECT_EQ(engine.lastdatalog, 1'078'477'000);
}

TEST_F(EngineSave, AMissingLogIntervalIsWritten)
{
    store.values.erase("DataLog/DataLogInterval");
    engine.lastdatalog = 5;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("DataLog/DataLogInterval"), "60");
    EXPECT_EQ(engine.lastdatalog, 0);
}

TEST_F(EngineSave, ALostLogIntervalIsNotCounted)
{
    store.lost = {"DataLog/DataLogInterval"};
    request.logparam.DataLogInterval = 10;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(engine.DLOGINTERVAL, 10u);
}

TEST_F(EngineSave, AGroupIsWrittenWhenTheLiveOneDiffersFromTheFile)
{
    field_set(ups.up.commparam.Group, "Live");
    field_set(request.commparam.Group, "Requested");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/Group"), "Requested");
    EXPECT_EQ(field_view(ups.ui.Group), "Requested");
    EXPECT_EQ(recorder.calls, (std::vector<callback>{GROUP_CHANGED, STATUS_CHANGED, REBOOT_ON}));
}

TEST_F(EngineSave, ARequestedGroupIsNotWrittenWhileTheLiveOneEqualsTheFile)
{
    field_set(request.commparam.Group, "Requested");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/Group"), "-");
    EXPECT_EQ(field_view(ups.ui.Group), "Requested");
    EXPECT_EQ(recorder.calls, (std::vector<callback>{REBOOT_ON}));
}

TEST_F(EngineSave, AGroupRequestedInTheLiveRecordIsWritten)
{
    ein.DATA.upsconfigp = &ups.up;
    field_set(ups.up.commparam.Group, "Requested");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/Group"), "Requested");
}

TEST_F(EngineSave, GroupsAreComparedOverFifteenCharacters)
{
    store.values["UPS/Group"] = "ABCDEFGHIJKLMNOPQRST";
    field_set(ups.up.commparam.Group, "ABCDEFGHIJKLMNO");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/Group"), "-");
    store.values["UPS/Group"] = "ABCDEFGHIJKLMNX";
    EXPECT_EQ(save(), 0);
    EXPECT_NE(written("UPS/Group"), "-");
}

TEST_F(EngineSave, AMissingGroupIsWrittenEvenWhenItIsEmpty)
{
    store.values.erase("UPS/Group");
    ups.up.commparam.Group = {};
    request.commparam.Group = {};
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(store.writes.back(), (std::pair<std::string, std::string>("UPS/Group", "")));
}

TEST_F(EngineSave, AGroupWithoutItsEndIsCutAtFifteen)
{
    field_set(ups.up.commparam.Group, "Live");
    request.commparam.Group.fill('G');
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/Group"), std::string(15, 'G'));
}

TEST_F(EngineSave, TheRequestedRestartIsNotTaken)
{
    request.workparam.AutoReboot = 0;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/AutoBoot"), "-");
    EXPECT_EQ(ups.up.workparam.AutoReboot, 1);
    EXPECT_EQ(ups.ui.bAutoReboot, 1);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{REBOOT_ON}));
}

TEST_F(EngineSave, ALiveRestartThatDiffersFromTheFileIsWrittenBack)
{
    ups.up.workparam.AutoReboot = 0;
    request.workparam.AutoReboot = 1;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/AutoBoot"), "0");
    EXPECT_EQ(ups.ui.bAutoReboot, 0);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{REBOOT_OFF}));
}

TEST_F(EngineSave, AMissingRestartIsWrittenBack)
{
    store.values.erase("UPS/AutoBoot");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/AutoBoot"), "1");
}

struct PORT {
    const char *file;  // null: missing
    int live;
    int requested;
    const char *written;
    int after;
};

static const std::array<PORT, 13> PORTS = {{
    {"2", 1, 7, "2", 2},  // out of range: the file's stays
    {"2", 1, -3, "2", 2},
    {"2", 1, 3, "3", 3},
    {"2", 1, 4, "4", 4},
    {"2", 1, 5, "2", 2},
    {"2", 1, 0, "0", 0},
    {"2", 1, -2, "-2", -2},
    {"2", 1, -1, "4294967295", -1},
    {"2", 2, 3, "-", 2},  // live equals the file: nothing is written
    {"-2", -2, 9, "-", -2},
    {nullptr, 1, 3, "3", 3},
    {nullptr, 1, 7, "0", 0},
    {nullptr, 0, -3, "0", 0},
}};

TEST_F(EngineSave, ThePortChoiceIsBoundedAndWrittenOnlyOnAChange)
{
    for (const PORT &port : PORTS) {
        SCOPED_TRACE(testing::Message() << (port.file != nullptr ? port.file : "missing") << " live "
                                        << port.live << " requested " << port.requested);
        store.writes.clear();
        recorder.calls.clear();
        if (port.file != nullptr)
            store.values["UPS/ComSet"] = port.file;
        else
            store.values.erase("UPS/ComSet");
        ups.up.workparam.ComSet = port.live;
        request.workparam.ComSet = port.requested;
        EXPECT_EQ(save(), 0);
        EXPECT_EQ(written("UPS/ComSet"), port.written);
        EXPECT_EQ(ups.up.workparam.ComSet, port.after);
        const bool told = recorder.calls == std::vector<callback>{REBOOT_ON, GROUP_CHANGED, STATUS_CHANGED};
        EXPECT_EQ(told, std::string_view(port.written) != "-");
    }
}

TEST_F(EngineSave, ARoleIsWrittenWhenTheLiveOneDiffersFromTheFile)
{
    ups.up.commparam.AgentType = 5;
    request.commparam.AgentType = 6;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/AgentType"), "6");
    EXPECT_EQ(ups.up.commparam.AgentType, 6u);
    EXPECT_EQ(ups.ui.AgentType, 6u);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{REBOOT_ON, GROUP_CHANGED, STATUS_CHANGED}));
}

TEST_F(EngineSave, ARequestedRoleIsNotTakenWhileTheLiveOneEqualsTheFile)
{
    request.commparam.AgentType = 6;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/AgentType"), "-");
    EXPECT_EQ(ups.up.commparam.AgentType, 4u);
}

TEST_F(EngineSave, AMissingRoleIsWritten)
{
    store.values.erase("UPS/AgentType");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(written("UPS/AgentType"), "4");
}

TEST_F(EngineSave, EveryLostWriteFailsTheSaveButTheRestIsStillDone)
{
    const std::array<const char *, 16> counted = {"ShutDown/EXPECTBLIFE",
                                                  "ShutDown/TurnOffDelay",
                                                  "ShutDown/FIRSTWARN",
                                                  "ShutDown/WARNBEFORESCHE",
                                                  "ShutDown/INTERVAL",
                                                  "ShutDown/BSUSPEND",
                                                  "ShutDown/CloseAppTime",
                                                  "EventLog/EventLogEnabled",
                                                  "EventLog/EventLogMaxSize",
                                                  "DataLog/DataLogEnabled",
                                                  "DataLog/DataLogMaxSize",
                                                  "UPS/IgnoreOtherAgentDown",
                                                  "UPS/Group",
                                                  "UPS/AutoBoot",
                                                  "UPS/ComSet",
                                                  "UPS/AgentType"};
    for (const char *key : counted) {
        store.values.clear();
        store.writes.clear();
        store.lost = {key};
        EXPECT_EQ(save(), -1) << key;
        EXPECT_EQ(store.writes.size(), 17u) << key;
    }
    EXPECT_EQ(store.opened, store.closed);
}

TEST_F(EngineSave, AValueWhoseWriteWasLostIsStillLive)
{
    store.lost = {"ShutDown/EXPECTBLIFE"};
    request.workparam.BattLife = 90;
    EXPECT_EQ(save(), -1);
    EXPECT_EQ(ups.up.workparam.BattLife, 90u);
    EXPECT_EQ(engine.EXPBLIFE, 90u);
}

TEST_F(EngineSave, AFileThatCannotBeOpenedLeavesEverythingAsItWas)
{
    store.unopenable = true;
    request.workparam.BattLife = 90;
    EXPECT_EQ(save(), -1);
    EXPECT_TRUE(store.writes.empty());
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_EQ(ups.up.workparam.BattLife, 60u);
    EXPECT_EQ(store.closed, 0);
}

TEST_F(EngineSave, AFailingCloseFailsTheSave)
{
    store.close_fails = true;
    EXPECT_EQ(save(), -1);
}

TEST_F(EngineSave, TheWritesAreOneBatch)
{
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(store.opened, 1);
    EXPECT_EQ(store.closed, 1);
    EXPECT_FALSE(store.written_outside);
}

TEST_F(EngineSave, ASuccessfulSaveIsAnEvent)
{
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(LOG_PATH), " 5/ 3/2004  9: 7: 2   9 255                \n");
}

TEST_F(EngineSave, AFailedSaveIsNoEvent)
{
    store.lost = {"UPS/IgnoreOtherAgentDown"};
    EXPECT_EQ(save(), -1);
    EXPECT_EQ(read_file(LOG_PATH), "");
}

TEST_F(EngineSave, AProtectorStoresItsLiveNameAlone)
{
    engine.ISPROTECTOR = 1;
    field_set(ups.up.commparam.Agent, "guarded");
    field_set(request.commparam.Agent, "requested");
    request.workparam.BattLife = 90;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(store.writes, (writes{{"UPS/AgentName", "guarded"}}));
    EXPECT_EQ(store.closed, 1);
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_EQ(read_file(LOG_PATH), "");
    EXPECT_EQ(ups.up.workparam.BattLife, 60u);
}

TEST_F(EngineSave, AProtectorWhoseNameIsLostFails)
{
    engine.ISPROTECTOR = 1;
    store.lost = {"UPS/AgentName"};
    EXPECT_EQ(save(), -1);
    store.unopenable = true;
    EXPECT_EQ(save(), -1);
}

TEST_F(EngineSave, AFailedSetCommandStillAnswersWithWhatIsInForce)
{
    store.lost = {"ShutDown/EXPECTBLIFE"};
    request.workparam.BattLife = 90;
    eout.datatype = 99;
    EXPECT_EQ(act(E_CMD_SETCONFIG), -1);
    EXPECT_EQ(eout.datatype, 0u);
    EXPECT_EQ(ups.up.workparam.BattLife, 60u);
}

TEST_F(EngineSave, TheSetCommandStoresAndReloads)
{
    request.workparam.BattLife = 90;
    ups.up.commparam.AgentType = 5;
    request.commparam.AgentType = 6;
    EXPECT_EQ(act(E_CMD_SETCONFIG), 0);
    EXPECT_EQ(ups.up.workparam.BattLife, 90u);
    EXPECT_EQ(engine.ISSERVERAGHIGH, 1);
}

TEST_F(EngineSave, LostModelWritesAreNotReported)
{
    store.lost = {"UPSModel/UPSModel", "UPSModel/AutoDetect"};
    EXPECT_EQ(setupsmodel(12, 1), 0);
    EXPECT_EQ(store.writes, (writes{{"UPSModel/UPSModel", "12"}, {"UPSModel/AutoDetect", "1"}}));
    EXPECT_EQ(store.closed, 1);
    store.unopenable = true;
    EXPECT_EQ(setupsmodel(12, 1), -1);
}

TEST_F(EngineSave, ASetBatteryDateIsStoredPaddedAndShown)
{
    BATTCHGTIME date{0, {105, 3, 9, 1, 2, 3, 0}};
    AGENTCMD order{31, {}};
    order.arg.bctp = &date;
    ein.DATA.acp = &order;
    EXPECT_EQ(setbattime(&ein, &eout), 0);
    EXPECT_EQ(written("UPS/ChangeBattTime"), "105,03,09,01,02,03");
    EXPECT_EQ(ups.ui.PreChangeBatt.year, 105);
    EXPECT_EQ(ups.ui.PreChangeBatt.second, 3);
    store.lost = {"UPS/ChangeBattTime"};
    EXPECT_EQ(setbattime(&ein, &eout), 1);
}

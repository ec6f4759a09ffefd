// Loading the working configuration from the settings file, and the chosen model.
#include "tests/unit/engine_fixture.h"

#include "wp_field.h"

#include <algorithm>
#include <climits>

class EngineConfig : public Engine
{
  protected:
    /// Loads a file of one section.
    int load(std::string_view section, std::string_view settings)
    {
        write_file(CONFIG_PATH, "\n[ " + std::string(section) + " ]\n" + std::string(settings));
        return getconfig(&eout);
    }

    int load_ups(std::string_view settings)
    {
        return load("UPS", settings);
    }
};

TEST_F(EngineConfig, AnEmptyFileLoadsEveryDefault)
{
    write_file(CONFIG_PATH, "");
    EXPECT_EQ(getconfig(&eout), 0);
    const UPS_WORKPARAM &work = ups.up.workparam;
    EXPECT_EQ(work.BSuspend, 0);
    EXPECT_EQ(work.BattLife, 60u);
    EXPECT_EQ(work.ComSet, 0);
    EXPECT_EQ(work.TurnOffDelay, 600u);
    EXPECT_EQ(work.AutoReboot, 1);
    EXPECT_EQ(work.FirstWarningTime, 30u);
    EXPECT_EQ(work.CountDownTime, 30u);
    EXPECT_EQ(work.WarningBeforeSchel, 600u);
    EXPECT_EQ(work.nCloseAppTime, 300u);
    const UPS_LOGPARAM &log = ups.up.logparam;
    EXPECT_EQ(log.EnableEventLog, 1);
    EXPECT_EQ(log.MaxEventRec, 200u);
    EXPECT_EQ(log.EnableDataLog, 1);
    EXPECT_EQ(log.MaxDataRec, 200u);
    EXPECT_EQ(log.DataLogInterval, 60u);
    EXPECT_EQ(ups.up.commparam.AgentType, 4u);
    EXPECT_EQ(ups.up.commparam.bIgnore, 1);
    EXPECT_EQ(field_view(ups.up.commparam.Group), "Group A");
}

TEST_F(EngineConfig, AMissingFileLoadsTheSameDefaults)
{
    EXPECT_EQ(getconfig(&eout), 0);
    EXPECT_EQ(ups.up.workparam.BattLife, 60u);
    EXPECT_EQ(ups.up.logparam.MaxDataRec, 200u);
    EXPECT_EQ(field_view(ups.up.commparam.Group), "Group A");
}

TEST_F(EngineConfig, TheMirrorsFollowTheDefaults)
{
    EXPECT_EQ(getconfig(&eout), 0);
    EXPECT_EQ(engine.EXPBLIFE, 60u);
    EXPECT_EQ(engine.TURNOFFDELAY, 600u);
    EXPECT_EQ(engine.PFAILCOUNT, 30u);
    EXPECT_EQ(engine.SCHCOUNT, 600u);
    EXPECT_EQ(engine.INTERVAL, 30u);
    EXPECT_EQ(engine.EVENTLOGENABLED, 1u);
    EXPECT_EQ(engine.DATALOGENABLED, 1u);
    EXPECT_EQ(engine.DLOGINTERVAL, 60u);
    EXPECT_EQ(engine.ISSERVERAGLOW, 1);
}

TEST_F(EngineConfig, TheStatusRecordShowsRoleGroupAndWhatIsIgnored)
{
    EXPECT_EQ(getconfig(&eout), 0);
    EXPECT_EQ(ups.ui.AgentType, 4u);
    EXPECT_EQ(ups.ui.bIgnoreDown, 1);
    EXPECT_EQ(field_view(ups.ui.Group), "Group A");
    EXPECT_EQ(ups.ui.bAutoReboot, 1);
}

struct Stored {
    const char *section;
    const char *key;
    std::uint32_t (*value)(const UPS_PARAM &);
    std::uint32_t (*mirror)();
};

static std::uint32_t no_mirror()
{
    return 77;
}

static const std::array<Stored, 13> STORED = {{
    {"ShutDown", "EXPECTBLIFE", [](const UPS_PARAM &p) { return p.workparam.BattLife; },
     [] { return engine.EXPBLIFE; }},
    {"ShutDown", "TurnOffDelay", [](const UPS_PARAM &p) { return p.workparam.TurnOffDelay; },
     [] { return engine.TURNOFFDELAY; }},
    {"ShutDown", "FIRSTWARN", [](const UPS_PARAM &p) { return p.workparam.FirstWarningTime; }, no_mirror},
    {"ShutDown", "WARNBEFORESCHE", [](const UPS_PARAM &p) { return p.workparam.WarningBeforeSchel; },
     [] { return engine.SCHCOUNT; }},
    {"ShutDown", "INTERVAL", [](const UPS_PARAM &p) { return p.workparam.CountDownTime; },
     [] { return engine.INTERVAL; }},
    {"ShutDown", "CloseAppTime", [](const UPS_PARAM &p) { return p.workparam.nCloseAppTime; }, no_mirror},
    {"EventLog", "EventLogEnabled",
     [](const UPS_PARAM &p) { return static_cast<std::uint32_t>(p.logparam.EnableEventLog); },
     [] { return engine.EVENTLOGENABLED; }},
    {"EventLog", "EventLogMaxSize", [](const UPS_PARAM &p) { return p.logparam.MaxEventRec; }, no_mirror},
    {"DataLog", "DataLogEnabled",
     [](const UPS_PARAM &p) { return static_cast<std::uint32_t>(p.logparam.EnableDataLog); },
     [] { return engine.DATALOGENABLED; }},
    {"DataLog", "DataLogInterval", [](const UPS_PARAM &p) { return p.logparam.DataLogInterval; },
     [] { return engine.DLOGINTERVAL; }},
    {"DataLog", "DataLogMaxSize", [](const UPS_PARAM &p) { return p.logparam.MaxDataRec; }, no_mirror},
    {"UPS", "IgnoreOtherAgentDown",
     [](const UPS_PARAM &p) { return static_cast<std::uint32_t>(p.commparam.bIgnore); }, no_mirror},
    {"UPS", "ComSet", [](const UPS_PARAM &p) { return static_cast<std::uint32_t>(p.workparam.ComSet); },
     no_mirror},
}};

TEST_F(EngineConfig, EveryStoredNumberIsLoadedWithItsMirror)
{
    for (const Stored &stored : STORED) {
        SCOPED_TRACE(stored.key);
        ASSERT_EQ(load(stored.section, " " + std::string(stored.key) + " = 77\n"), 0);
        EXPECT_EQ(stored.value(ups.up), 77u);
        EXPECT_EQ(stored.mirror(), 77u);
    }
}

TEST_F(EngineConfig, AKeyInAnotherSectionIsNotFound)
{
    EXPECT_EQ(load("UPS", " EXPECTBLIFE = 77\n TurnOffDelay = 78\n"), 0);
    EXPECT_EQ(ups.up.workparam.BattLife, 60u);
    EXPECT_EQ(ups.up.workparam.TurnOffDelay, 600u);
}

TEST_F(EngineConfig, NumbersAreReadLeniently)
{
    EXPECT_EQ(load("ShutDown", " EXPECTBLIFE = 90 seconds\n TurnOffDelay = soon\n FIRSTWARN = \n"), 0);
    EXPECT_EQ(ups.up.workparam.BattLife, 90u);
    EXPECT_EQ(ups.up.workparam.TurnOffDelay, 0u);
    EXPECT_EQ(ups.up.workparam.FirstWarningTime, 0u);
}

TEST_F(EngineConfig, TheLargestUnsignedNumberSurvives)
{
    EXPECT_EQ(load("ShutDown", " EXPECTBLIFE = 4294967295\n"), 0);
    EXPECT_EQ(ups.up.workparam.BattLife, UINT_MAX);
}

TEST_F(EngineConfig, WarningsLongerThanTheBatteryWrapAround)
{
    EXPECT_EQ(load("ShutDown", " EXPECTBLIFE = 10\n FIRSTWARN = 30\n"), 0);
    EXPECT_EQ(engine.PFAILCOUNT, static_cast<std::uint32_t>(-20));
}

TEST_F(EngineConfig, SuspendComesFromTheEngineNotFromTheFile)
{
    engine.BSUSPEND = 1;
    EXPECT_EQ(load("ShutDown", " BSUSPEND = 5\n"), 0);
    EXPECT_EQ(ups.up.workparam.BSuspend, 1);
    EXPECT_EQ(engine.BSUSPEND, 1u);
}

TEST_F(EngineConfig, ANegativePortChoiceIsRead)
{
    EXPECT_EQ(load_ups(" ComSet = -2\n"), 0);
    EXPECT_EQ(ups.up.workparam.ComSet, COMSET_NOUPS);
    EXPECT_EQ(load_ups(" ComSet = 4294967295\n"), 0);
    EXPECT_EQ(ups.up.workparam.ComSet, -1);
}

using roles = std::array<int, 4>;

static roles flags()
{
    return {engine.ISPROTECTOR, engine.ISSERVERAGLOW, engine.ISSERVERAGNORMAL, engine.ISSERVERAGHIGH};
}

TEST_F(EngineConfig, EachRoleSetsExactlyItsFlag)
{
    const std::array<std::tuple<const char *, std::uint32_t, roles>, 4> cases = {{
        {"1", 1, {1, 0, 0, 0}},
        {"4", 4, {0, 1, 0, 0}},
        {"5", 5, {0, 0, 1, 0}},
        {"6", 6, {0, 0, 0, 1}},
    }};
    for (const auto &[text, type, expected] : cases) {
        EXPECT_EQ(load_ups(" AgentType = " + std::string(text) + "\n"), 0);
        EXPECT_EQ(ups.up.commparam.AgentType, type);
        EXPECT_EQ(ups.ui.AgentType, type);
        EXPECT_EQ(flags(), expected) << text;
    }
}

TEST_F(EngineConfig, ARoleThatDoesNotExistIsALowPriorityServer)
{
    for (const char *text : {"2", "0", "7", "-1", "high"}) {
        EXPECT_EQ(load_ups(" AgentType = " + std::string(text) + "\n"), 0);
        EXPECT_EQ(ups.up.commparam.AgentType, 4u) << text;
        EXPECT_EQ(flags(), (roles{0, 1, 0, 0})) << text;
        EXPECT_NE(error_text(), "Cannot read AgentType from config file");
    }
}

TEST_F(EngineConfig, OnlyAMissingRoleIsComplainedAbout)
{
    EXPECT_EQ(load_ups(" Group = G\n"), 0);
    EXPECT_EQ(ups.up.commparam.AgentType, 4u);
    EXPECT_EQ(error_text(), "Cannot read AgentType from config file");
}

TEST_F(EngineConfig, AGroupOfTwentyCharactersLoadsAsItsFirstFifteen)
{
    ups.up.commparam.Group.fill('x');
    EXPECT_EQ(load_ups(" Group = ABCDEFGHIJKLMNOPQRST\n"), 0);
    EXPECT_EQ(field_view(ups.up.commparam.Group), "ABCDEFGHIJKLMNO");
    EXPECT_EQ(field_view(ups.ui.Group), "ABCDEFGHIJKLMNO");
}

TEST_F(EngineConfig, AGroupIsFilledWithZerosBehindItsText)
{
    ups.up.commparam.Group.fill('x');
    EXPECT_EQ(load_ups(" Group = Lab\n"), 0);
    EXPECT_TRUE(std::all_of(ups.up.commparam.Group.begin() + 3, ups.up.commparam.Group.end(),
                            [](char c) { return c == '\0'; }));
}

TEST_F(EngineConfig, AnEmptyGroupIsEmpty)
{
    EXPECT_EQ(load_ups(" Group = \n"), 0);
    EXPECT_EQ(field_view(ups.up.commparam.Group), "");
}

TEST_F(EngineConfig, HostNamesAreCutOnlyWhenTheyAreTooLong)
{
    const std::array<std::pair<std::string_view, std::string_view>, 7> cases = {{
        {"host", "host"},
        {"pc1.example.net", "pc1.example.net"},         // 15: whole, dots included
        {"pc01.example.net", "pc01"},                   // 16
        {"abcde.office.example", "abcde"},              // 20, dot behind the fifth
        {"abcdefghijklmnop", "abcdefghijklmno"},        // 16 without a dot
        {"abcdefghijklmnopqr.net", "abcdefghijklmno"},  // dot behind the fifteenth
        {"abcdefghijklmno.net", "abcdefghijklmno"},
    }};
    for (const auto &[host, name] : cases) {
        set_host_name(host);
        ups.up.commparam.Agent.fill('x');
        EXPECT_EQ(getconfig(&eout), 0);
        EXPECT_EQ(field_view(ups.up.commparam.Agent), name);
        EXPECT_EQ(ups.up.commparam.Agent.back(), '\0');
    }
}

TEST_F(EngineConfig, AProtectorLoadsItsLogAndNothingElse)
{
    ups.up.workparam.BattLife = 11;
    ups.up.logparam.MaxDataRec = 12;
    ups.ui.bAutoReboot = 13;
    engine.EXPBLIFE = 14;
    EXPECT_EQ(load_ups(" AgentType = 1\n ComSet = 3\n Group = Lab\n AutoBoot = 0\n"), 0);
    EXPECT_EQ(ups.up.commparam.AgentType, 1u);
    EXPECT_EQ(ups.up.workparam.ComSet, 3);
    EXPECT_EQ(ups.up.logparam.EnableEventLog, 1);
    EXPECT_EQ(ups.up.logparam.MaxEventRec, 200u);
    EXPECT_EQ(ups.up.workparam.BattLife, 11u);
    EXPECT_EQ(ups.up.logparam.MaxDataRec, 12u);
    EXPECT_EQ(ups.ui.bAutoReboot, 13);
    EXPECT_EQ(engine.EXPBLIFE, 14u);
    EXPECT_EQ(field_view(ups.up.commparam.Group), "");
    EXPECT_EQ(field_view(ups.up.commparam.Agent), "voltaria-test");
    EXPECT_TRUE(recorder.calls.empty());
}

TEST_F(EngineConfig, AProtectorLogsItsEvents)
{
    EXPECT_EQ(load_ups(" AgentType = 1\n"), 0);
    EXPECT_EQ(engine.EVENTLOGENABLED, 1u);
}

TEST_F(EngineConfig, TheNetworkSideIsToldWhetherTheUnitRestarts)
{
    EXPECT_EQ(load_ups(" AutoBoot = 1\n"), 0);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{32768, 0, 0}}));
    recorder.calls.clear();
    EXPECT_EQ(load_ups(" AutoBoot = 0\n"), 0);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{65536, 0, 0}}));
    EXPECT_EQ(ups.up.workparam.AutoReboot, 0);
    EXPECT_EQ(ups.ui.bAutoReboot, 0);
}

TEST_F(EngineConfig, AUnitThatTellsWhetherItRestartsWinsOverTheFile)
{
    block.udinfo = UDINFO_V2;
    ups.ui.bAutoReboot = 1;
    EXPECT_EQ(load_ups(" AutoBoot = 0\n"), 0);
    EXPECT_EQ(ups.up.workparam.AutoReboot, 1);
    EXPECT_EQ(ups.ui.bAutoReboot, 1);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{65536, 0, 0}}));
}

TEST_F(EngineConfig, OtherBitsOfTheUnitWordMeanNothingHere)
{
    block.udinfo = ~UDINFO_V2;
    ups.ui.bAutoReboot = 1;
    EXPECT_EQ(load_ups(" AutoBoot = 0\n"), 0);
    EXPECT_EQ(ups.ui.bAutoReboot, 0);
}

TEST_F(EngineConfig, TheBatteryDateComesFromTheFile)
{
    EXPECT_EQ(load_ups(" ChangeBattTime = 105,11,30,07,08,09\n"), 0);
    EXPECT_EQ(ups.ui.PreChangeBatt.year, 105);
    EXPECT_EQ(ups.ui.PreChangeBatt.month, 11);
    EXPECT_EQ(ups.ui.PreChangeBatt.day, 30);
    EXPECT_EQ(ups.ui.PreChangeBatt.hour, 7);
    EXPECT_EQ(ups.ui.PreChangeBatt.minute, 8);
    EXPECT_EQ(ups.ui.PreChangeBatt.second, 9);
}

TEST_F(EngineConfig, WithoutABatteryDateTheLiveOneStays)
{
    ups.ui.PreChangeBatt.year = 104;
    EXPECT_EQ(load_ups(" Group = G\n"), 0);
    EXPECT_EQ(ups.ui.PreChangeBatt.year, 104);
}

TEST_F(EngineConfig, WhatIsNotStoredIsNotTouched)
{
    ups.up.commparam.ClientTime = 1;
    ups.up.commparam.LowServerTime = 2;
    ups.up.commparam.NormalTime = 3;
    field_set(ups.up.commparam.lpszAccount, "account");
    engine.lastdatalog = 99;
    EXPECT_EQ(getconfig(&eout), 0);
    EXPECT_EQ(ups.up.commparam.ClientTime, 1u);
    EXPECT_EQ(ups.up.commparam.LowServerTime, 2u);
    EXPECT_EQ(ups.up.commparam.NormalTime, 3u);
    EXPECT_EQ(field_view(ups.up.commparam.lpszAccount), "account");
    EXPECT_EQ(engine.lastdatalog, 99);
}

class EngineModel : public EngineConfig
{
};

TEST_F(EngineModel, NoModelStoredIsMinusOne)
{
    std::int32_t autodetect = 9;
    EXPECT_EQ(getupsmodel(&autodetect), -1);
    EXPECT_EQ(autodetect, 0);
}

TEST_F(EngineModel, ModelAndFlagAreRead)
{
    write_file(CONFIG_PATH, "\n[ UPSModel ]\n UPSModel = 12\n AutoDetect = 1\n");
    std::int32_t autodetect = 0;
    EXPECT_EQ(getupsmodel(&autodetect), 12);
    EXPECT_EQ(autodetect, 1);
}

TEST_F(EngineModel, ModelAndFlagAreReplacedInPlace)
{
    write_file(CONFIG_PATH, "\n[ UPSModel ]\n UPSModel = 12\n AutoDetect = 1\n");
    EXPECT_EQ(setupsmodel(3, 0), 0);
    EXPECT_EQ(read_file(CONFIG_PATH), "\n[ UPSModel ]\n UPSModel = 3\n AutoDetect = 0\n");
}

TEST_F(EngineModel, AFileThatCannotBeOpenedIsMinusOne)
{
    ASSERT_EQ(system("rm -rf /usr/lib/voltaria/config; mkdir /usr/lib/voltaria/config"), 0);
    EXPECT_EQ(setupsmodel(3, 0), -1);
}

TEST_F(EngineConfig, AConfigurationSavedToTheRealFileComesBack)
{
    write_file(CONFIG_PATH, "\n[ ShutDown ]\n\n[ EventLog ]\n\n[ DataLog ]\n\n[ UPS ]\n");
    ASSERT_EQ(getconfig(&eout), 0);
    ups.up.workparam.BattLife = 90;
    ups.up.workparam.FirstWarningTime = 20;
    ups.up.workparam.ComSet = COMSET_NOUPS;
    ups.up.logparam.DataLogInterval = 5;
    ups.up.commparam.AgentType = 6;
    field_set(ups.up.commparam.Group, "Group B");
    ein.DATA.upsconfigp = &ups.up;
    ASSERT_EQ(setconfig(&ein, &eout), 0);
    const UPS_PARAM saved = ups.up;
    ups.up = UPS_PARAM{};
    ASSERT_EQ(getconfig(&eout), 0);
    EXPECT_EQ(ups.up.workparam.BattLife, saved.workparam.BattLife);
    EXPECT_EQ(ups.up.workparam.FirstWarningTime, 20u);
    EXPECT_EQ(ups.up.workparam.ComSet, COMSET_NOUPS);
    EXPECT_EQ(ups.up.logparam.DataLogInterval, 5u);
    EXPECT_EQ(ups.up.commparam.AgentType, 6u);
    EXPECT_EQ(field_view(ups.up.commparam.Group), "Group B");
    EXPECT_EQ(engine.PFAILCOUNT, 70u);
}

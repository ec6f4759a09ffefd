// What the status pass makes of a unit's replies, as the agent process and the monitors see it.
#include "ups_unit.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

class UpsStatus : public UpsTest
{
  protected:
    // One status line on an established line with `model`.
    void status_line(const std::string &model, const Q1FIELDS &fields)
    {
        Unit unit("/dev/ttyS0");
        unit.answer("Q1", {q1_line(fields)});
        connect(model);
        EXPECT_EQ(ups_getupsinfo(&record), 0);
        ups_closeport();
    }
};

static Q1FIELDS with_status(const std::string &status, const std::string &load = "030")
{
    Q1FIELDS fields;
    fields.status = status;
    fields.load = load;
    return fields;
}

static void expect_now(const UPS_TIMEINFO &t)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    local.tm_year = t.year;
    local.tm_mon = t.month - 1;
    local.tm_mday = t.day;
    local.tm_hour = t.hour;
    local.tm_min = t.minute;
    local.tm_sec = t.second;
    EXPECT_LE(std::abs(std::mktime(&local) - now), 2);
}

// ---- the probe

TEST_F(UpsStatus, ProbeTriesAsOftenAsItIsTold)
{
    Unit unit("/dev/ttyS0");
    unit.answer("Q1", {"NAK\r", "short\r", q1_line()});
    connect("ZR900PL");
    EXPECT_EQ(ups_q1(&record, 3), 0);
    unit.answer("Q1", {"NAK\r", "short\r", q1_line()});
    unit.clear();
    EXPECT_EQ(ups_q1(&record, 2), -1);
    EXPECT_EQ(unit.count("Q1"), 2);
}

TEST_F(UpsStatus, ProbeRefusesALineOfWrongForm)
{
    Unit unit("/dev/ttyS0");
    std::string line = q1_line();
    line[4] = ',';
    unit.answer("Q1", {line});
    connect("ZR900PL");
    EXPECT_EQ(ups_q1(&record, 1), -1);
}

TEST_F(UpsStatus, LostStatusLineIsAskedForAgainOnAReopenedPort)
{
    Unit unit("/dev/ttyS0");
    unit.answer("Q1", {"NAK\r", q1_line()});
    connect("ZR900PL");
    EXPECT_EQ(ups_getupsinfo(&record), 0);
    unit.answer("Q1", {"NAK\r"});
    unit.clear();
    EXPECT_EQ(ups_getupsinfo(&record), -1);
    EXPECT_EQ(unit.count("Q1"), 2);
}

TEST_F(UpsStatus, PortIsReopenedBetweenTheTwoAttemptsForAStatusLineOnly)
{
    Unit unit("/dev/ttyS0");
    unit.answer("Q1", {"NAK\r"});
    connect("ZR900PL");
    upschan.comid = 1;  // nothing there: reopening leaves no port
    EXPECT_EQ(ups_q1(&record, 2), -1);
    EXPECT_EQ(unit.count("Q1"), 2);
    EXPECT_EQ(ups_getupsinfo(&record), -1);
    EXPECT_EQ(unit.count("Q1"), 3);
    EXPECT_EQ(upschan.comfd, -1);
}

// ---- measurements

TEST_F(UpsStatus, MeasurementsAreStored)
{
    status_line("ZR900PL", {});
    const UPSDATA &d = ui().upsdata;
    EXPECT_EQ(d.InPutINT, 100);
    EXPECT_EQ(d.InPutREM, 3);
    EXPECT_EQ(d.OutPutINT, 99);
    EXPECT_EQ(d.OutPutREM, 7);
    EXPECT_EQ(d.Load, 30);
    EXPECT_EQ(d.FreqInputINT, 50);
    EXPECT_EQ(d.FreqInputREM, 1);
    EXPECT_EQ(d.BattVolINT, 13);
    EXPECT_EQ(d.BattVolREM, 6);
    EXPECT_EQ(d.TempINT, 25);
    EXPECT_EQ(d.TempREM, 4);
}

TEST_F(UpsStatus, BatteryVoltageOfTwoDecimalsAndMissingTemperature)
{
    Q1FIELDS fields;
    fields.battery = "2.27";
    fields.temp = "--.-";
    status_line("ZR900PL", fields);
    EXPECT_EQ(ui().upsdata.BattVolINT, 2);
    EXPECT_EQ(ui().upsdata.BattVolREM, 7);
    EXPECT_EQ(ui().upsdata.TempINT, -1);
    EXPECT_EQ(ui().upsdata.TempREM, -1);
}

TEST_F(UpsStatus, LoadBeyondItsFieldIsTheMostItHolds)
{
    status_line("ZR900PL", with_status("00000000", "999"));
    EXPECT_EQ(ui().upsdata.Load, 255);
    EXPECT_EQ(ui().upsstat, UPSSTAT_OVERLOAD);
}

TEST_F(UpsStatus, GarbageInTheDigitsShowsNoMadeUpValue)
{
    Q1FIELDS fields;
    fields.input = "\xff\xff\xff.\xff";
    fields.load = "zzz";
    status_line("ZR900PL", fields);
    EXPECT_EQ(ui().upsdata.InPutINT, 0);
    EXPECT_EQ(ui().upsdata.InPutREM, 0);
    EXPECT_EQ(ui().upsdata.Load, 0);
}

// ---- status codes

struct CODECASE {
    const char *status;
    const char *load;
    int upsstat;
    std::uint32_t mask;
};

TEST_F(UpsStatus, StatusCodeByPrecedence)
{
    const std::vector<CODECASE> cases{
        {"00000000", "030", 0, 0},
        {"10000000", "030", 33, UPSBIT_ACFAIL},
        {"00010000", "030", 20, UPSBIT_FAULT},
        {"10010000", "030", 20, UPSBIT_FAULT | UPSBIT_ACFAIL},
        {"00100000", "030", 16, UPSBIT_BYPASS},
        {"10100000", "030", 33, UPSBIT_ACFAIL | UPSBIT_BYPASS},
        {"00100100", "030", 16, UPSBIT_BYPASS | UPSBIT_TESTING},
        {"00101000", "030", 0, UPSBIT_STANDBY},
        {"00101100", "030", 3, UPSBIT_STANDBY | UPSBIT_TESTING},
        {"00000100", "030", 3, UPSBIT_TESTING},
        {"10000100", "030", 33, UPSBIT_ACFAIL | UPSBIT_TESTING},
        {"00000010", "030", 0, UPSBIT_SHUTDOWN},
        {"00001000", "030", 0, UPSBIT_STANDBY},
        {"00000000", "100", 0, 0},
        {"00000000", "101", 21, UPSBIT_OVERLOAD},
        {"10000000", "101", 21, UPSBIT_OVERLOAD | UPSBIT_ACFAIL},
        {"00010000", "150", 21, UPSBIT_OVERLOAD | UPSBIT_FAULT},
        {"01000000", "030", 0, UPSBIT_BATTLOW},
        {"00000001", "030", 0, UPSBIT_BATTWEAK},
        {"00000200", "030", 0, 0},
        {"222222 2", "030", 0, 0},
    };
    for (const CODECASE &c : cases) {
        upschan.beTesting = 0;
        mask() = 0;
        status_line("ZR900PL", with_status(c.status, c.load));
        EXPECT_EQ(ui().upsstat, c.upsstat) << c.status << " " << c.load;
        EXPECT_EQ(mask(), c.mask) << c.status << " " << c.load;
        EXPECT_EQ(block.ups.isstandby, c.status[4] == '1' ? 1 : 0) << c.status;
    }
}

TEST_F(UpsStatus, BitsAreClearedByTheLineThatShowsThemGone)
{
    const std::uint32_t kept = UPSBIT_CF | UPSBIT_BATTDISCONNECT | UPSBIT_BATTTEST | UPSBIT_TESTING;
    mask() = kept | UPSBIT_BATTLOW | UPSBIT_BATTWEAK | UPSBIT_ACFAIL | UPSBIT_FAULT | UPSBIT_OVERLOAD |
             UPSBIT_BYPASS | UPSBIT_SHUTDOWN | UPSBIT_STANDBY;
    status_line("ZR900PL", {});
    EXPECT_EQ(mask(), kept);
}

TEST_F(UpsStatus, BatteryLowIsNeitherSetNorClearedByACharacterThatIsNoBit)
{
    mask() = UPSBIT_BATTLOW | UPSBIT_BATTWEAK;
    status_line("ZR900PL", with_status("02000002"));
    EXPECT_EQ(mask(), UPSBIT_BATTLOW | UPSBIT_BATTWEAK);
}

TEST_F(UpsStatus, TestCharacterThatIsNoBitClearsTheTestBit)
{
    mask() = UPSBIT_TESTING;
    status_line("ZR900PL", with_status("00000200"));
    EXPECT_EQ(mask(), 0U);
    EXPECT_EQ(ui().upsstat, 0);
}

TEST_F(UpsStatus, FaultOfTheLastBatteryTestCountsAsUnitFault)
{
    upschan.gb_Battest_HWFail = 1;
    status_line("ZR900PL", with_status("10000000"));
    EXPECT_EQ(ui().upsstat, UPSSTAT_FAULT);
    EXPECT_EQ(mask(), UPSBIT_FAULT | UPSBIT_ACFAIL);
}

// ---- battery codes

struct BATTCASE {
    const char *model;
    const char *status;
    bool disconnected;
    int before;
    int after;
    std::uint32_t mask;  // without the disconnected bit
};

TEST_F(UpsStatus, BatteryCodeBySeries)
{
    const std::vector<BATTCASE> cases{
        {"ZQ300", "01000001", false, 1, 34, UPSBIT_BATTLOW},
        {"ZQ300", "00000101", false, 1, 18, UPSBIT_BATTWEAK},
        {"ZQ300", "00000101", true, 1, 18, UPSBIT_BATTWEAK},
        {"ZQ300", "00000100", true, 1, 5, 0},
        {"ZQ300", "00000000", true, 19, 1, 0},
        {"ZR900PL", "01000001", true, 19, 34, UPSBIT_BATTLOW},
        {"ZR900PL", "00000001", false, 1, 18, UPSBIT_BATTWEAK},
        {"ZR900PL", "00000001", true, 19, 19, 0},
        {"ZR900PL", "00000000", true, 19, 1, 0},
        {"ZR900PL", "00000000", false, 34, 1, 0},
        {"ZM500", "00000000", true, 19, 19, 0},
        {"ZM500", "00000000", false, 19, 1, 0},
        {"ZM500", "00000100", true, 19, 19, 0},
        {"ZM500", "00000100", false, 1, 5, 0},
        {"ZR900PL", "00000100", false, 1, 5, 0},
        {"ZR900PL", "00000100", true, 19, 19, 0},
        {"ZR401", "00000100", false, 5, 1, 0},
        {"ZR6020", "00000100", false, 5, 1, 0},
        {"ZR401", "00000100", true, 19, 19, 0},
    };
    for (const BATTCASE &c : cases) {
        upschan.beTesting = 0;
        mask() = c.disconnected ? UPSBIT_BATTDISCONNECT : 0;
        ui().BattStatus = static_cast<std::int8_t>(c.before);
        status_line(c.model, with_status(c.status));
        EXPECT_EQ(ui().BattStatus, c.after) << c.model << " " << c.status << " " << c.disconnected;
        EXPECT_EQ(mask() & (UPSBIT_BATTLOW | UPSBIT_BATTWEAK), c.mask) << c.model << " " << c.status;
    }
}

TEST_F(UpsStatus, WeakBatteryOfTheUnitStateKeepsTheBit)
{
    upschan.gb_Battest_Weak = 1;
    status_line("ZR900PL", with_status("00000000"));
    EXPECT_EQ(ui().BattStatus, BATT_WEAK);
    EXPECT_EQ(mask(), UPSBIT_BATTWEAK);
    upschan.gb_Battest_Weak = 0;
    status_line("ZR900PL", with_status("00000000"));
    EXPECT_EQ(ui().BattStatus, BATT_NORMAL);
    EXPECT_EQ(mask(), 0U);
}

// ---- the pass

TEST_F(UpsStatus, PassAsksEverythingInItsOrder)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(unit.commands(), (std::vector<std::string>{"Q1", "CF", "Si ?", "Lf ?", "Bl ?", "V", "BRR"}));
    EXPECT_EQ(upschan.estab, 9);
    EXPECT_EQ(upschan.modelknown, 1);
    EXPECT_EQ(model(), "ZR900PL");
    EXPECT_EQ(ui().upsdata.BattCap, 98);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
}

TEST_F(UpsStatus, PassOfTheOlderFamily)
{
    Unit unit("/dev/ttyS0");
    script_zr401(unit);
    connect("ZR401");
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(unit.commands(), (std::vector<std::string>{"Q1", "(SiCC)", "(BvB8)", "(Lf ?11)"}));
    EXPECT_EQ(ui().upsdata.BattVolINT, 27);
    EXPECT_EQ(ui().upsdata.FreqOutputINT, 60);
}

TEST_F(UpsStatus, PassEndsWithAStatusLineThatFailsTwice)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Q1", {"NAK\r", "NAK\r", "NAK\r", q1_line()});
    connect("ZR900PL");
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    unit.answer("Q1", {"NAK\r"});
    unit.clear();
    EXPECT_EQ(ups_getupsstatus(&record), -1);
    EXPECT_EQ(unit.commands(), (std::vector<std::string>{"Q1", "Q1", "Q1", "Q1"}));
}

TEST_F(UpsStatus, PassToleratesAModelThatCannotBeReadOnce)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Si ?", {"XX\r", "ZR900PL\r"});
    connect("ZR900PL");
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(upschan.modelknown, 1);
    unit.answer("Si ?", {"XX\r"});
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(upschan.modelknown, 0);
}

TEST_F(UpsStatus, PassToleratesTwoFailures)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    unit.answer("Lf ?", {"NAK\r"});
    unit.answer("BRR", {"NAK\r"});
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    unit.answer("Bl ?", {"NAK\r"});
    unit.clear();
    EXPECT_EQ(ups_getupsstatus(&record), -1);
    EXPECT_EQ(unit.count("V"), 1);
    EXPECT_EQ(unit.count("BRR"), 1);
    unit.answer("V", {"NAK\r"});
    unit.clear();
    EXPECT_EQ(ups_getupsstatus(&record), -1);
    EXPECT_EQ(unit.count("BRR"), 0);
}

TEST_F(UpsStatus, PassEndsAfterThreeFailuresOfTheMeasurements)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    unit.answer("Si ?", {"XX\r"});
    unit.answer("Lf ?", {"NAK\r"});
    unit.answer("Bl ?", {"NAK\r"});
    EXPECT_EQ(ups_getupsstatus(&record), -1);
    EXPECT_EQ(unit.count("V"), 0);
}

TEST_F(UpsStatus, BatteryVoltageCountsAmongTheFailures)
{
    Unit unit("/dev/ttyS0");
    script_zr401(unit);
    connect("ZR401");
    unit.answer("(BvB8)", {"NAK\r"});
    unit.answer("(Lf ?11)", {"NAK\r"});
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    unit.answer("(SiCC)", {"NAK\r"});
    EXPECT_EQ(ups_getupsstatus(&record), -1);
}

TEST_F(UpsStatus, RestartStateIsAskedLastAndCountsAmongTheFailures)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("CF", {cf_line({1, 15, 16, 20, 21, 32})});
    unit.answer("Lf ?", {"NAK\r"});
    unit.answer("Bl ?", {"NAK\r"});
    unit.answer("V2", {"00000000\r"});
    connect("ZR900PL");
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(unit.commands(),
              (std::vector<std::string>{"Q1", "CF", "Si ?", "Lf ?", "Bl ?", "V", "BRR", "V2"}));
    unit.answer("V2", {"NAK\r"});
    EXPECT_EQ(ups_getupsstatus(&record), -1);
}

TEST_F(UpsStatus, FailedProbeAndModelEndThePass)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Si ?", {"XX\r"});
    connect("AA");
    EXPECT_EQ(ups_getupsstatus(&record), -1);
    EXPECT_EQ(unit.count("Lf ?"), 0);
}

TEST_F(UpsStatus, ExchangedUnitIsRecognisedWithinAPass)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    ASSERT_EQ(ups_getupsstatus(&record), 0);
    unit.answer("Si ?", {"ZR950PL\r"});
    ui().sftResUPS.Result = SELFTEST_PASSED;
    ui().sftResBattery.Result = SELFTEST_PASSED;
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(model(), "ZR950PL");
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_NONE);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_NONE);
}

// ---- what is published when

TEST_F(UpsStatus, MaskOfTheFirstPassAppearsTogetherWithTheEstablishedLine)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Q1", {q1_line(with_status("11000000"))});
    unit.answer("V", {"10000000\r"});
    connect("ZR900PL");
    ui().CommStatus = COMM_LOST;
    mask() = UPSBIT_CF;
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(mask(), UPSBIT_CF);
    EXPECT_EQ(ui().upsstat, UPSSTAT_ACFAIL);
    ups_established();
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
    EXPECT_EQ(mask(), UPSBIT_ACFAIL | UPSBIT_BATTLOW | UPSBIT_BATTDISCONNECT);
}

TEST_F(UpsStatus, FailedFirstPassesGatherOn)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Q1", {q1_line(with_status("01000000")), q1_line(with_status("10000000"))});
    unit.answer("V", {"10000000\r", "NAK\r"});
    unit.answer("BRR", {"NAK\r", "20050412\r"});
    unit.answer("Lf ?", {"NAK\r", "50.2\r"});
    unit.answer("Bl ?", {"NAK\r", "098\r"});
    connect("ZR900PL");
    ui().CommStatus = COMM_LOST;
    EXPECT_EQ(ups_getupsstatus(&record), -1);
    EXPECT_EQ(mask(), 0U);
    EXPECT_EQ(ups_getupsstatus(&record), 0);
    EXPECT_EQ(mask(), 0U);
    ups_established();
    EXPECT_EQ(mask() & UPSBIT_BATTLOW, 0U);
    EXPECT_EQ(mask() & UPSBIT_ACFAIL, UPSBIT_ACFAIL);
}

TEST_F(UpsStatus, WhatWasGatheredOnALineThatIsLostIsNotPublished)
{
    Unit unit("/dev/ttyS0");
    unit.answer("Q1", {q1_line(with_status("01000000"))});
    connect("ZR900PL");
    ui().CommStatus = COMM_LOST;
    mask() = UPSBIT_ACFAIL;
    EXPECT_EQ(ups_getupsinfo(&record), 0);
    ups_lostcomm(&record);
    EXPECT_EQ(mask(), UPSBIT_ACFAIL);
    EXPECT_EQ(ups_getmask(), UPSBIT_ACFAIL);
}

TEST_F(UpsStatus, PassOnALostLineRecordsNoResultForBothTests)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    ui().CommStatus = COMM_LOST;
    EXPECT_EQ(ups_getupsinfo(&record), 0);
    EXPECT_EQ(ui().sftResBattery.Result, SELFTEST_NONE);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_NONE);
    expect_now(ui().sftResBattery.timeinfo);
    expect_now(ui().sftResUPS.timeinfo);
}

// ---- loss

TEST_F(UpsStatus, UnitThatAnswersIsNotLost)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    EXPECT_EQ(verify_commlost(&record), 0);
    unit.answer("Q1", {"NAK\r", q1_line()});
    EXPECT_EQ(verify_commlost(&record), 0);
    unit.answer("Q1", {"NAK\r", "NAK\r", q1_line()});
    EXPECT_EQ(verify_commlost(&record), 1);
    EXPECT_EQ(ui().CommStatus, COMM_LOST);
    block.ups.up.workparam.ComSet = -2;
    EXPECT_EQ(verify_commlost(&record), -1);
}

static void fill(UPS_UPSINFO &ui)
{
    ui.BattStatus = BATT_WEAK;
    ui.upsstat = UPSSTAT_ACFAIL;
    ui.BuzzerCan = ui.AutoTestCan = ui.bAutoReboot = ui.iDetectionLvl = ui.bACPI = 1;
    ui.ufStatus = 0xFFFF;
    ui.wReserve = 1;
    ui.upsdata = {1, 2, 3, 4, 5, 6, 7, 8, 9, 1, 2, 3, 4, 5};
    ui.AgentType = 6;
    ui.PreChangeBatt = {105, 4, 12, 0, 0, 0, 0};
}

static void fill_link()
{
    upschan.cf_support = upschan.upsRebootStatusGetV = upschan.beUpsTest = upschan.beBattTest = 1;
    upschan.bAutoRebootByV2 = upschan.model_changed = upschan.estab = 1;
    upschan.upsstatus = 1;
}

static int sum(const CAPABILITY &c)
{
    return c.V + c.BTt + c.Six + c.Bv + c.Lfx + c.Blx + c.Sfn;
}

// What a lost line and a machine without UPS have in common.
static void expect_link_cleared()
{
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_EQ(sum(upschan.cf) + sum(upschan.cmd) + upschan.cf_support, 0);
    EXPECT_EQ(upschan.upsRebootStatusGetV + upschan.bAutoRebootByV2, 0);
    EXPECT_EQ(upschan.beUpsTest + upschan.beBattTest + upschan.bSendTestCmd, 0);
    EXPECT_EQ(upschan.model_changed + upschan.buzzerStep + upschan.estab, 0);
    EXPECT_EQ(upschan.upsstatus, 0U);
    EXPECT_STREQ(upschan.ups_model_s.data(), "");
}

static bool all_zero(const UPSDATA &d)
{
    const UPSDATA zero{};
    return std::memcmp(&d, &zero, sizeof d) == 0;
}

TEST_F(UpsStatus, LossClearsWhatIsKnownOfTheUnit)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    fill(ui());
    mask() = 0xFFFFFFFF;
    upschan.cf = upschan.cmd = {1, 1, 1, 1, 1, 1, 1};
    upschan.cmd_BvB8 = upschan.beTesting = upschan.bSendTestCmd = upschan.buzzerStep = upschan.lasttest = 1;
    fill_link();
    ups_lostcomm(&record);
    expect_link_cleared();
    EXPECT_EQ(ui().ComId, -1);
    EXPECT_EQ(ui().CommStatus, 17);
    EXPECT_EQ(ui().BattStatus, 0);
    EXPECT_EQ(ui().BuzzerCan, 0);
    EXPECT_EQ(ui().AutoTestCan, 0);
    EXPECT_EQ(model(), "");
    EXPECT_TRUE(all_zero(ui().upsdata));
    EXPECT_EQ(mask(), 0xFFFFFFFF & ~(0x10000U | 0x80000U | 0x200U));
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_EQ(upschan.comid, -1);
    EXPECT_EQ(upschan.cf.V + upschan.cmd.Blx + upschan.beTesting + upschan.bSendTestCmd + upschan.buzzerStep,
              0);
    EXPECT_EQ(upschan.cmd_BvB8, 1);
    EXPECT_EQ(upschan.lasttest, 1);
}

TEST_F(UpsStatus, LossLeavesTheRestOfTheRecord)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    fill(ui());
    ups_lostcomm(&record);
    EXPECT_EQ(ui().upsstat, UPSSTAT_ACFAIL);
    EXPECT_EQ(ui().bAutoReboot, 1);
    EXPECT_EQ(ui().iDetectionLvl, 1);
    EXPECT_EQ(ui().ufStatus, 0xFFFF);
    EXPECT_EQ(ui().AgentType, 6U);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
}

TEST_F(UpsStatus, LossOfASeriesZqUnitReloadsItsBatteryDate)
{
    Unit unit("/dev/ttyS0");
    write_config("\n[ UPS ]\n\n ChangeBattTime = 101,02,03,04,05,06\n");
    connect("ZQ300");
    fill(ui());
    ups_lostcomm(&record);
    EXPECT_EQ(ui().PreChangeBatt.year, 101);
    EXPECT_EQ(ui().PreChangeBatt.second, 6);
}

TEST_F(UpsStatus, LossWithoutADateInTheConfigurationLeavesNone)
{
    Unit unit("/dev/ttyS0");
    write_config("\n[ UPS ]\n");
    connect("ZQ300");
    fill(ui());
    ups_lostcomm(&record);
    EXPECT_EQ(ui().PreChangeBatt.year, 0);
    EXPECT_EQ(ui().PreChangeBatt.day, 0);
}

TEST_F(UpsStatus, SeriesOfALostUnitIsThatOfTheNameLastProbed)
{
    Unit unit("/dev/ttyS0");
    write_config("\n[ UPS ]\n\n ChangeBattTime = 101,02,03,04,05,06\n");
    connect("ZR900PL");
    fill(ui());
    ups_setmodel("ZQ300");
    ups_lostcomm(&record);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
    connect("ZQ300");
    ups_setmodel("ZR900PL");
    ups_lostcomm(&record);
    EXPECT_EQ(ui().PreChangeBatt.year, 101);
}

TEST_F(UpsStatus, NoUpsLeavesTheBatteryDateWhateverTheSeries)
{
    Unit unit("/dev/ttyS0");
    write_config("\n[ UPS ]\n\n ChangeBattTime = 101,02,03,04,05,06\n");
    connect("ZQ300");
    fill(ui());
    ups_comnone(&record);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
}

TEST_F(UpsStatus, NoUpsClearsTheCodesToo)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    fill(ui());
    mask() = 0xFFFFFFFF;
    upschan.beTesting = upschan.bSendTestCmd = upschan.buzzerStep = upschan.cmd_BvB8 = 1;
    upschan.cf = upschan.cmd = {1, 1, 1, 1, 1, 1, 1};
    fill_link();
    ups_comnone(&record);
    expect_link_cleared();
    EXPECT_EQ(ui().BuzzerCan, 0);
    EXPECT_EQ(ui().AutoTestCan, 0);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
    EXPECT_EQ(upschan.cmd_BvB8, 1);
    EXPECT_EQ(ui().ComId, -2);
    EXPECT_EQ(ui().CommStatus, 6);
    EXPECT_EQ(ui().upsstat, 0);
    EXPECT_EQ(ui().BattStatus, 0);
    EXPECT_EQ(ui().bAutoReboot, 0);
    EXPECT_EQ(ui().iDetectionLvl, 0);
    EXPECT_EQ(ui().ufStatus, 0);
    EXPECT_EQ(ui().wReserve, 0);
    EXPECT_EQ(ui().bACPI, 0);
    EXPECT_TRUE(all_zero(ui().upsdata));
    EXPECT_EQ(model(), "");
    EXPECT_EQ(mask(), 0xFFFFFFFF);
    EXPECT_EQ(upschan.comid, -2);
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_EQ(upschan.beTesting, 1);
}

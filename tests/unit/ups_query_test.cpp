// The unit state query and the small queries of the status pass, each by itself.
#include "ups_unit.h"

class UpsQuery : public UpsTest
{
  protected:
    // One unit state on an established line with `model`.
    void unit_state(const std::string &model, const std::string &state)
    {
        Unit unit("/dev/ttyS0");
        unit.answer("V", {state + "\r"});
        connect(model);
        upschan.cf.V = 1;
        EXPECT_EQ(ups_getcomplstatus(&record), 0);
        ups_closeport();
    }
};

// ---- unit state

struct STATECASE {
    const char *model;
    const char *state;
    int buzzer;
    int autotest;
    int level;
};

TEST_F(UpsQuery, UnitStateSettings)
{
    const std::vector<STATECASE> cases{
        {"ZR900PL", "00000000", 1, 1, 1}, {"ZR900PL", "01000000", 0, 1, 1}, {"ZR900PL", "00100000", 1, 0, 1},
        {"ZR900PL", "00011000", 1, 1, 4}, {"ZR900PL", "00010000", 1, 1, 3}, {"ZR900PL", "00001000", 1, 1, 2},
        {"ZR900PL", "00011010", 1, 1, 0}, {"ZQ300", "01111010", 0, 0, 1},
    };
    for (const STATECASE &c : cases) {
        unit_state(c.model, c.state);
        EXPECT_EQ(ui().BuzzerCan, c.buzzer) << c.model << " " << c.state;
        EXPECT_EQ(ui().AutoTestCan, c.autotest) << c.model << " " << c.state;
        EXPECT_EQ(ui().iDetectionLvl, c.level) << c.model << " " << c.state;
    }
}

TEST_F(UpsQuery, DisconnectedBatteryIsShownAndClearedByTheUnitState)
{
    ui().BattStatus = BATT_NORMAL;
    unit_state("ZR900PL", "10000000");
    EXPECT_EQ(ui().BattStatus, BATT_DISCONNECTED);
    EXPECT_EQ(mask(), UPSBIT_BATTDISCONNECT);
    EXPECT_EQ(upschan.gb_CommandV_BattDisconect, 1);
    unit_state("ZR900PL", "00000000");
    EXPECT_EQ(mask(), 0U);
    EXPECT_EQ(upschan.gb_CommandV_BattDisconect, 0);
}

TEST_F(UpsQuery, SeriesZqReportsNoDisconnectedBattery)
{
    ui().BattStatus = BATT_NORMAL;
    unit_state("ZQ300", "10000000");
    EXPECT_EQ(ui().BattStatus, BATT_NORMAL);
    EXPECT_EQ(mask(), 0U);
}

TEST_F(UpsQuery, UnitStateOfWrongFormFails)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    upschan.cmd.V = 1;
    for (const char *bad : {"0000000\r", "00000002\r", "0\r", "NAK\r"}) {
        unit.answer("V", {bad});
        EXPECT_EQ(ups_getcomplstatus(&record), -1) << bad;
    }
}

TEST_F(UpsQuery, OlderFamilyHasFixedSettingsWithoutAQuery)
{
    Unit unit("/dev/ttyS0");
    connect("ZR401");
    ui().BuzzerCan = 1;
    ui().iDetectionLvl = 3;
    EXPECT_EQ(ups_getcomplstatus(&record), 0);
    EXPECT_EQ(ui().BuzzerCan, 0);
    EXPECT_EQ(ui().AutoTestCan, 1);
    EXPECT_EQ(ui().iDetectionLvl, 0);
    EXPECT_TRUE(unit.commands().empty());
}

TEST_F(UpsQuery, OtherUnitsWithoutUnitStateFail)
{
    Unit unit("/dev/ttyS0");
    connect("ZQ300");
    EXPECT_EQ(ups_getcomplstatus(&record), -1);
    EXPECT_TRUE(unit.commands().empty());
}

// ---- the small queries

TEST_F(UpsQuery, BatteryVoltageQuery)
{
    Unit unit("/dev/ttyS0");
    unit.answer("(BvB8)", {"[27.3V]\r", "NAK\r"});
    connect("ZR401");
    EXPECT_EQ(ups_getbatteryvoltage(&record), 0);
    EXPECT_TRUE(unit.commands().empty());
    upschan.cmd_BvB8 = 1;
    EXPECT_EQ(ups_getbatteryvoltage(&record), 0);
    EXPECT_EQ(ui().upsdata.BattVolINT, 27);
    EXPECT_EQ(ui().upsdata.BattVolREM, 3);
    EXPECT_EQ(ups_getbatteryvoltage(&record), -1);
    EXPECT_EQ(ui().upsdata.BattVolINT, 27);
}

// What the unit sends for a newline may be lost: at its full length a reply is taken without.
TEST_F(UpsQuery, RepliesOfFullLengthNeedNoEnd)
{
    Unit unit("/dev/ttyS0");
    unit.answer("Lf ?", {"50.2 "});
    unit.answer("Bl ?", {"098  "});
    unit.answer("(Lf ?11)", {"[60.1Hz]     "});
    unit.answer("(BvB8)", {"[27.3V]     "});
    connect("ZR900PL");
    upschan.cmd.Lfx = 1;
    upschan.cmd.Blx = 1;
    upschan.cmd_BvB8 = 1;
    EXPECT_EQ(ups_getoutputfreq(&record), 0);
    EXPECT_EQ(ups_getbattcapacity(&record), 0);
    EXPECT_EQ(ups_getbatteryvoltage(&record), 0);
    ups_closeport();
    upschan.cmd.Lfx = 0;
    connect("ZR6020");
    EXPECT_EQ(ups_getoutputfreq(&record), 0);
}

TEST_F(UpsQuery, OutputFrequencyQuery)
{
    Unit unit("/dev/ttyS0");
    unit.answer("Lf ?", {"50.2\r", "5x.2\r"});
    unit.answer("(Lf ?11)", {"[60.1Hz]\r"});
    connect("ZR900PL");
    EXPECT_EQ(ups_getoutputfreq(&record), -1);
    upschan.cmd.Lfx = 1;
    EXPECT_EQ(ups_getoutputfreq(&record), 0);
    EXPECT_EQ(ui().upsdata.FreqOutputINT, 50);
    EXPECT_EQ(ui().upsdata.FreqOutputREM, 2);
    EXPECT_EQ(ups_getoutputfreq(&record), -1);
    ups_closeport();
    upschan.cmd.Lfx = 0;
    connect("ZR6020");
    EXPECT_EQ(ups_getoutputfreq(&record), 0);
    EXPECT_EQ(ui().upsdata.FreqOutputINT, 60);
    EXPECT_EQ(ui().upsdata.FreqOutputREM, 1);
}

TEST_F(UpsQuery, BatteryCapacityQuery)
{
    Unit unit("/dev/ttyS0");
    unit.answer("Bl ?", {"098\r", "NAK\r"});
    connect("ZR900PL");
    EXPECT_EQ(ups_getbattcapacity(&record), -1);
    upschan.cf.Blx = 1;
    EXPECT_EQ(ups_getbattcapacity(&record), 0);
    EXPECT_EQ(ui().upsdata.BattCap, 98);
    EXPECT_EQ(ups_getbattcapacity(&record), -1);
    EXPECT_EQ(ui().upsdata.BattCap, 98);
    ups_closeport();
    upschan.cf.Blx = 0;
    connect("ZR401");
    EXPECT_EQ(ups_getbattcapacity(&record), 0);
    EXPECT_EQ(ui().upsdata.BattCap, 0);
}

TEST_F(UpsQuery, RestartStateQuery)
{
    Unit unit("/dev/ttyS0");
    unit.answer("V2", {"00000000\r", "10000000\r", "NAK\r"});
    connect("ZR900PL");
    ui().ufStatus = UPSFUNCTION_V2;
    EXPECT_EQ(ups_getrebootstatus(&record), 0);
    EXPECT_EQ(ui().bAutoReboot, 1);
    EXPECT_EQ(block.ups.up.workparam.AutoReboot, 1);
    EXPECT_EQ(block.udinfo, UDINFO_V2);
    EXPECT_EQ(ups_getrebootstatus(&record), 0);
    EXPECT_EQ(ui().bAutoReboot, 0);
    EXPECT_EQ(block.ups.up.workparam.AutoReboot, 0);
    EXPECT_EQ(ups_getrebootstatus(&record), -1);
    EXPECT_EQ(block.udinfo, UDINFO_V2);
    block.udinfo |= 6;
    ui().ufStatus = 0;
    EXPECT_EQ(ups_getrebootstatus(&record), 0);
    EXPECT_EQ(block.udinfo, 6);
    EXPECT_EQ(unit.count("V2"), 3);
}

TEST_F(UpsQuery, BatteryDateQuery)
{
    Unit unit("/dev/ttyS0");
    unit.answer("BRR", {"20050412\r", "18991231\r", "2005-04\r"});
    connect("ZR900PL");
    ui().ufStatus = UPSFUNCTION_BRR;
    ui().PreChangeBatt.hour = 7;
    EXPECT_EQ(ups_getbattchgtime(&record), 0);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
    EXPECT_EQ(ui().PreChangeBatt.month, 4);
    EXPECT_EQ(ui().PreChangeBatt.day, 12);
    EXPECT_EQ(ui().PreChangeBatt.hour, 7);
    EXPECT_EQ(ups_getbattchgtime(&record), 0);
    EXPECT_EQ(ui().PreChangeBatt.year, 0);
    EXPECT_EQ(ui().PreChangeBatt.month, 12);
    EXPECT_EQ(ui().PreChangeBatt.day, 31);
    EXPECT_EQ(ups_getbattchgtime(&record), -1);
    EXPECT_EQ(ui().PreChangeBatt.day, 31);
}

TEST_F(UpsQuery, BatteryDateThatCannotBeAskedIsForgottenForOneModelOnly)
{
    for (const char *name : {"ZM300LT", "ZM500"}) {
        Unit unit("/dev/ttyS0");
        connect(name);
        ups_closeport();
        ui().ufStatus = UPSFUNCTION_BRR;
        ui().PreChangeBatt = {105, 4, 12, 1, 2, 3, 0};
        EXPECT_EQ(ups_getbattchgtime(&record), -1);
        EXPECT_EQ(ui().PreChangeBatt.year, std::string(name) == "ZM500" ? 105 : 0);
    }
}

TEST_F(UpsQuery, BatteryDateWithoutTheQueryDependsOnTheSeries)
{
    Unit unit("/dev/ttyS0");
    connect("ZM500");
    ui().PreChangeBatt = {105, 4, 12, 1, 2, 3, 0};
    EXPECT_EQ(ups_getbattchgtime(&record), 0);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
    ups_setmodel("ZR900PL");
    EXPECT_EQ(ups_getbattchgtime(&record), -1);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
    ups_setmodel("ZR401");
    EXPECT_EQ(ups_getbattchgtime(&record), 0);
    EXPECT_EQ(ui().PreChangeBatt.year, 0);
    EXPECT_EQ(ui().PreChangeBatt.second, 0);
}

TEST_F(UpsQuery, SeriesZqTakesItsBatteryDateFromTheConfiguration)
{
    Unit unit("/dev/ttyS0");
    connect("ZQ300");
    write_config("\n[ UPS ]\n\n ChangeBattTime = 105,04,12,13,14,15\n");
    EXPECT_EQ(ups_getbattchgtime(&record), 0);
    const UPS_TIMEINFO &t = ui().PreChangeBatt;
    EXPECT_EQ(t.year, 105);
    EXPECT_EQ(t.month, 4);
    EXPECT_EQ(t.day, 12);
    EXPECT_EQ(t.hour, 13);
    EXPECT_EQ(t.minute, 14);
    EXPECT_EQ(t.second, 15);
    write_config("\n[ UPS ]\n");
    EXPECT_EQ(ups_getbattchgtime(&record), 0);
    EXPECT_EQ(t.year, 0);
    EXPECT_EQ(t.day, 0);
}

TEST_F(UpsQuery, BatteryDateCommandAsksForTheUnitStateFirst)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    upschan.cmd.V = 1;
    ui().ufStatus = UPSFUNCTION_BRR;
    EXPECT_EQ(ups_getbattchgtimeforcmd(&record), 0);
    EXPECT_EQ(unit.commands(), (std::vector<std::string>{"V", "BRR"}));
    unit.answer("V", {"NAK\r"});
    EXPECT_EQ(ups_getbattchgtimeforcmd(&record), -1);
}

TEST_F(UpsQuery, SilentQueriesReopenThePort)
{
    Unit unit("/dev/ttyS0");
    const std::vector<std::function<int(AGENT *)>> queries{ups_getbatteryvoltage, ups_getoutputfreq,
                                                           ups_getbattcapacity,   ups_getcomplstatus,
                                                           ups_getrebootstatus,   ups_getbattchgtime};
    for (const auto &query : queries) {
        connect("ZR900PL");
        upschan.cf = {1, 1, 1, 1, 1, 1, 1};
        upschan.cmd_BvB8 = 1;
        ui().ufStatus = UPSFUNCTION_V2 | UPSFUNCTION_BRR;
        upschan.comid = 1;  // nothing there: reopening leaves no port
        EXPECT_EQ(query(&record), -1);
        EXPECT_EQ(upschan.comfd, -1);
    }
}

// A notice alone is no reply: measurements leave the port as it is, the others take it for silence.
TEST_F(UpsQuery, WakeNoticeAloneReopensThePortForSomeQueriesOnly)
{
    Unit unit("/dev/ttyS0");
    unit.answer("", {"WAKE\r"});
    const std::vector<std::pair<int (*)(AGENT *), bool>> queries{
        {ups_getbatteryvoltage, true}, {ups_getoutputfreq, false},  {ups_getbattcapacity, false},
        {ups_getcomplstatus, true},    {ups_getrebootstatus, true}, {ups_getbattchgtime, true},
    };
    for (const auto &[query, reopens] : queries) {
        connect("ZR900PL");
        upschan.cf = {1, 1, 1, 1, 1, 1, 1};
        upschan.cmd_BvB8 = 1;
        ui().ufStatus = UPSFUNCTION_V2 | UPSFUNCTION_BRR;
        upschan.comid = 1;  // nothing there: reopening leaves no port
        EXPECT_EQ(query(&record), -1);
        EXPECT_EQ(upschan.comfd < 0, reopens);
        ups_closeport();
    }
}

// Which unit it is and what it can do, against a scripted unit.
#include "ups_unit.h"

#include "wp_field.h"

#include <cstring>

class UpsModel : public UpsTest
{
};

TEST_F(UpsModel, IsReadWithTheFirstQuery)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("");
    EXPECT_EQ(ups_getupsmodel(&record, 0), 7);
    EXPECT_EQ(model(), "ZR900PL");
    EXPECT_EQ(unit.commands(), std::vector<std::string>{"Si ?"});
}

TEST_F(UpsModel, RefusedFirstQueryIsFollowedByTheSecond)
{
    Unit unit("/dev/ttyS0");
    script_zr401(unit);
    connect("");
    EXPECT_EQ(ups_getupsmodel(&record, 0), 5);
    EXPECT_EQ(model(), "ZR401");
    EXPECT_EQ(unit.commands(), (std::vector<std::string>{"Si ?", "(SiCC)"}));
}

TEST_F(UpsModel, OlderFamilyIsAskedTheOtherWayRound)
{
    Unit unit("/dev/ttyS0");
    script_zr401(unit);
    connect("ZR401");
    EXPECT_EQ(ups_getupsmodel(&record, 0), 5);
    EXPECT_EQ(unit.commands(), std::vector<std::string>{"(SiCC)"});
}

TEST_F(UpsModel, BracketedReplyWithoutBracketTriesTheOtherQuery)
{
    Unit unit("/dev/ttyS0");
    unit.answer("(SiCC)", {"ZR6020 100V]\r"});
    unit.answer("Si ?", {"ZR900PL\r"});
    connect("ZR6020");
    EXPECT_EQ(ups_getupsmodel(&record, 0), 7);
    EXPECT_EQ(unit.commands(), (std::vector<std::string>{"(SiCC)", "Si ?"}));
}

TEST_F(UpsModel, UnknownSeriesIsAFailureWithoutSecondQuery)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Si ?", {"AB900\r"});
    connect("ZR900PL");
    EXPECT_EQ(ups_getupsmodel(&record, 0), -1);
    EXPECT_EQ(unit.count("(SiCC)"), 0);
    EXPECT_EQ(model(), "ZR900PL");
}

TEST_F(UpsModel, ForeignNameInBracketsIsAFailureWithoutTheOtherQuery)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("(SiCC)", {"[AB6020 100V]\r"});
    connect("ZR6020");
    EXPECT_EQ(ups_getupsmodel(&record, 0), -1);
    EXPECT_EQ(unit.count("Si ?"), 0);
    EXPECT_EQ(model(), "ZR6020");
    ups_setmodel("");
    unit.answer("Si ?", {"NAK\r"});
    EXPECT_EQ(ups_getupsmodel(&record, 0), -1);
    EXPECT_EQ(model(), "");
}

TEST_F(UpsModel, TwoRefusalsAreAFailure)
{
    Unit unit("/dev/ttyS0");
    unit.answer("", {"NAK\r"});
    connect("ZR900PL");
    EXPECT_EQ(ups_getupsmodel(&record, 0), -1);
}

TEST_F(UpsModel, SilentUnitHasThePortReopenedOutsideTheSearchOnly)
{
    Unit unit("/dev/ttyS0");
    connect("");
    upschan.comid = 1;  // reopening would fail here and close the port
    EXPECT_EQ(get_nozr_model(&record, 1), 1);
    EXPECT_GE(upschan.comfd, 0);
    EXPECT_EQ(get_nozr_model(&record, 0), 1);
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_EQ(get_nozr_model(&record, 0), -1);
    EXPECT_EQ(get_zr_model(&record, 0), -1);
}

TEST_F(UpsModel, ChangeIsNoticedOnce)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Si ?", {"ZR900PL\r", "ZR950PL\r"});
    connect("ZR900PL");
    ups_getupsmodel(&record, 0);
    EXPECT_EQ(upschan.model_changed, 0);
    ups_getupsmodel(&record, 0);
    EXPECT_EQ(upschan.model_changed, 1);
    ups_getupsmodel(&record, 0);
    EXPECT_EQ(upschan.model_changed, 0);
}

// ---- the capability probe

TEST_F(UpsModel, OlderFamilyIsNotProbed)
{
    for (const char *name : {"ZR401", "ZR6020"}) {
        Unit unit("/dev/ttyS0");
        script_zr401(unit);
        connect(name);
        upschan.cmd = {1, 1, 1, 1, 1, 1, 1};
        EXPECT_EQ(ups_getupsfunction(&record, 1), 0);
        EXPECT_TRUE(unit.commands().empty());
        EXPECT_EQ(ui().ufStatus, 0x8004);
        EXPECT_EQ(upschan.cmd_BvB8, 1);
        EXPECT_EQ(upschan.cmd.Bv, 1);
        EXPECT_EQ(upschan.cmd.V + upschan.cmd.BTt + upschan.cmd.Six + upschan.cmd.Lfx + upschan.cmd.Blx +
                      upschan.cmd.Sfn,
                  0);
        ups_closeport();
    }
}

TEST_F(UpsModel, AnsweredProbeSetsMaskAndQueries)
{
    Unit unit("/dev/ttyS0");
    unit.answer("CF", {cf_line({1, 20, 21, 32, 33, 15, 16})});
    connect("ZR900PL");
    upschan.cmd_BvB8 = 1;
    EXPECT_EQ(ups_getupsfunction(&record, 1), 0);
    EXPECT_EQ(ui().ufStatus, 0x420C);
    EXPECT_EQ(mask(), UPSBIT_CF);
    EXPECT_EQ(upschan.cf.V + upschan.cf.Lfx + upschan.cf.Blx + upschan.cf.Sfn, 4);
    EXPECT_EQ(upschan.cmd_BvB8, 0);
}

struct UNANSWERED {
    const char *name;
    unsigned functions;
    int cmd;
    int outcome;
};

TEST_F(UpsModel, UnansweredProbeFallsBackToTheModel)
{
    const std::vector<UNANSWERED> cases{
        {"ZR900PL", 0xFA80, 1, 0},
        {"ZR950PL", 0xFA80, 1, 0},
        {"ZM300LT", 0xFFE0, 1, 0},
        {"ZM500", 0xFFE0, 1, 0},
        {"ZQ300", 0, 0, 1},
        {"ZR800", 0, 0, 1},
        {"", 0, 0, -1},
    };
    for (const UNANSWERED &c : cases) {
        Unit unit("/dev/ttyS0");
        unit.answer("CF", {"NAK\r"});
        connect(c.name);
        upschan.cf = {1, 1, 1, 1, 1, 1, 1};
        upschan.cmd = {.V = 0, .BTt = 0, .Six = 0, .Bv = 0, .Lfx = 0, .Blx = 0, .Sfn = 1};
        mask() = UPSBIT_CF | UPSBIT_ACFAIL;
        const int outcome = ups_getupsfunction(&record, 1);
        EXPECT_EQ(outcome > 0, c.outcome > 0) << c.name;
        EXPECT_EQ(outcome < 0, c.outcome < 0) << c.name;
        EXPECT_EQ(ui().ufStatus, c.functions) << c.name;
        EXPECT_EQ(mask(), UPSBIT_ACFAIL) << c.name;
        EXPECT_EQ(upschan.cf.V + upschan.cf.BTt + upschan.cf.Six + upschan.cf.Bv, 0) << c.name;
        EXPECT_EQ(upschan.cf.Lfx + upschan.cf.Blx + upschan.cf.Sfn, 0) << c.name;
        for (const int flag : {upschan.cmd.V, upschan.cmd.BTt, upschan.cmd.Six, upschan.cmd.Bv,
                               upschan.cmd.Lfx, upschan.cmd.Blx})
            EXPECT_EQ(flag, c.cmd) << c.name;
        // Without a rule for the model its flags stay what they were.
        EXPECT_EQ(upschan.cmd.Sfn, 1 - c.cmd) << c.name;
        ups_closeport();
    }
}

TEST_F(UpsModel, MalformedProbeReplyCountsAsUnanswered)
{
    Unit unit("/dev/ttyS0");
    std::string two = cf_line({1});
    two[20] = '2';
    unit.answer("CF", {two, cf_line({1}).erase(38, 1)});
    connect("ZR900PL");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ups_getupsfunction(&record, 1), 0);
        EXPECT_EQ(ui().ufStatus, 0xFA80);
        EXPECT_EQ(upschan.cf.V, 0);
    }
}

TEST_F(UpsModel, ProbeUsesTheModelOfThePreviousPass)
{
    Unit unit("/dev/ttyS0");
    unit.answer("CF", {"NAK\r"});
    connect("ZM500");
    field_set(upschan.ups_model_s, "ZR900PL");
    EXPECT_EQ(ups_getupsfunction(&record, 0), 0);
    EXPECT_EQ(ui().ufStatus, 0xFA80);
    EXPECT_EQ(ups_getupsfunction(&record, 1), 0);
    EXPECT_EQ(ui().ufStatus, 0xFFE0);
}

TEST_F(UpsModel, ProbeThatCannotBeSentFails)
{
    field_set(upschan.ups_model_s, "ZR900PL");
    EXPECT_EQ(ups_getupsfunction(&record, 0), -1);
}

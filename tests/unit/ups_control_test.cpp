// The orders to the unit, as the bytes that it receives, and what the agent process is told about them.
#include "ups_unit.h"

#include "agent_daemon_channel.h"
#include "agent_wire.h"

#include <chrono>
#include <optional>
#include <poll.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

static constexpr UPSFUNCTION AUTORESTART_AND_BUZZER = UPSFUNCTION_AUTORESTART | UPSFUNCTION_BUZZER;

static double seconds_of(const std::function<void()> &action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class UpsControl : public UpsTest
{
  protected:
    // An established line to a unit of this model that says OK to everything.
    void start(const std::string &model)
    {
        unit.emplace("/dev/ttyS0");
        unit->answer("", {"OK\r"});
        connect(model);
    }

    void start_old(const std::string &model = "ZR401")
    {
        unit.emplace("/dev/ttyS0");
        connect(model);
    }

    void finish()
    {
        ups_closeport();
        unit.reset();
    }

    void argument(const std::vector<std::uint8_t> &bytes)
    {
        block.ba2u.msglen = static_cast<std::int32_t>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), block.ba2u.buf.begin());
    }

    int order_down(std::int32_t downdelay, std::int32_t downlast)
    {
        std::vector<std::uint8_t> bytes(sizeof(UPSDOWNARG));
        wire_put32(bytes, 0, static_cast<std::uint32_t>(downdelay));
        wire_put32(bytes, 4, static_cast<std::uint32_t>(downlast));
        argument(bytes);
        return ups_control(&record, UPSCMD_SHUTDOWN);
    }

    int order_date(std::uint8_t year, std::int8_t month, std::int8_t day)
    {
        std::vector<std::uint8_t> bytes(sizeof(BATTCHGTIME));
        bytes[4] = year;
        bytes[5] = static_cast<std::uint8_t>(month);
        bytes[6] = static_cast<std::uint8_t>(day);
        argument(bytes);
        return ups_control(&record, UPSCMD_SETBATTIME);
    }

    // The bytes of an order that did not get its carriage return, found by sending one.
    std::string unfinished()
    {
        EXPECT_THAT(unit->commands(), IsEmpty());
        EXPECT_EQ(ups_writetoups("\r"), 1);
        while (unit->commands().empty())
            std::this_thread::yield();
        const std::string text = unit->commands().front();
        unit->clear();
        return text;
    }

    void await_commands(std::size_t count)
    {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (unit->commands().size() < count && std::chrono::steady_clock::now() < limit)
            std::this_thread::yield();
    }

    std::optional<Unit> unit;
};

// ---- orders that are a text

struct ORDER {
    std::uint32_t word;
    const char *text;
};

static const std::vector<ORDER> ORDERS{
    {UPSCMD_SELFTEST_CANCEL, "CT"},
    {UPSCMD_CANCELDOWN, "C"},
    {UPSCMD_AC, "AC"},
    {UPSCMD_AR, "AR"},
    {UPSCMD_BUZZER_ON, "Bn"},
    {UPSCMD_BUZZER_OFF, "Bf"},
    {UPSCMD_AUTORESTART_OFF, "Af"},
    {UPSCMD_AUTORESTART_ON, "An"},
    {UPSCMD_LEVEL_A, "VA"},
    {UPSCMD_LEVEL_B, "VB"},
    {UPSCMD_LEVEL_H, "VH"},
    {UPSCMD_LEVEL_L, "VL"},
};

TEST_F(UpsControl, EachWordHasItsOrderAndNoReplyWord)
{
    start("ZR900PL");
    for (const ORDER &order : ORDERS) {
        unit->clear();
        send_word(order.word);
        ups_procagentcmd(&record);
        EXPECT_THAT(unit->commands(), ElementsAre(order.text));
        EXPECT_FALSE(reply_waiting()) << order.text;
    }
}

TEST_F(UpsControl, TestsAndDatesGetNoReplyWord)
{
    start("ZR900PL");
    for (const std::uint32_t word :
         {UPSCMD_SELFTEST, UPSCMD_SELFTEST_LONG, UPSCMD_BUZZER_TEST, UPSCMD_SETBATTIME}) {
        send_word(word);
        ups_procagentcmd(&record);
        EXPECT_FALSE(reply_waiting()) << word;
    }
}

TEST_F(UpsControl, LowHalfOfTheWordDoesNotMatter)
{
    start("ZR900PL");
    EXPECT_EQ(ups_control(&record, UPSCMD_BUZZER_ON | 0x1234), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("Bn"));
}

TEST_F(UpsControl, WordWithoutOrderSendsNothing)
{
    start("ZR900PL");
    for (const std::uint32_t word : {0U, 0x01000000U, 0x70000000U, UPSCMD_SHUTDOWN, UPSCMD_STATUS})
        EXPECT_EQ(ups_docommand(&record, word), -1);
    EXPECT_EQ(ups_control(&record, 0x01000000), -1);
    EXPECT_THAT(unit->commands(), IsEmpty());
}

TEST_F(UpsControl, OnlyAReplyThatBeginsWithOkIsAgreement)
{
    start("ZR900PL");
    for (const char *reply : {"OK\r", "OKAY", "OK!\r"}) {
        unit->answer("C", {reply});
        EXPECT_EQ(ups_control(&record, UPSCMD_CANCELDOWN), 0) << reply;
    }
    for (const char *reply : {"NAK\r", "ok\r", " OK\r", "\r", "O\r"}) {
        unit->answer("C", {reply});
        EXPECT_EQ(ups_control(&record, UPSCMD_CANCELDOWN), -1) << reply;
    }
}

TEST_F(UpsControl, SilenceIsNoAgreement)
{
    start("ZR900PL");
    unit->answer("C", {""});
    EXPECT_EQ(ups_control(&record, UPSCMD_CANCELDOWN), -1);
    EXPECT_EQ(unit->count("C"), 1);
}

TEST_F(UpsControl, WhatArrivedBeforeAnOrderIsNoReplyToIt)
{
    start("ZR900PL");
    unit->answer("C", {"NAK\r"});
    unit->send("OK\r");
    pollfd arrived{upschan.comfd, POLLIN, 0};
    ASSERT_EQ(poll(&arrived, 1, 5000), 1);
    EXPECT_EQ(ups_control(&record, UPSCMD_CANCELDOWN), -1);
}

TEST_F(UpsControl, OlderFamilyIsNotAskedForItsAgreement)
{
    for (const char *model : {"ZR401", "ZR6020"}) {
        start_old(model);
        EXPECT_LT(seconds_of([this] { EXPECT_EQ(ups_control(&record, UPSCMD_CANCELDOWN), 0); }), 0.5);
        EXPECT_EQ(order_down(300, 0), 0);
        await_commands(2);
        EXPECT_THAT(unit->commands(), ElementsAre("C", "S05"));
        finish();
    }
}

TEST_F(UpsControl, NothingIsDoneOnALostLine)
{
    start("ZR900PL");
    ui().CommStatus = COMM_LOST;
    for (const std::uint32_t word : {UPSCMD_CANCELDOWN, UPSCMD_SHUTDOWN, UPSCMD_SELFTEST, 0x12340000U}) {
        send_word(word);
        ups_procagentcmd(&record);
    }
    EXPECT_THAT(unit->commands(), IsEmpty());
    EXPECT_FALSE(reply_waiting());
    EXPECT_EQ(upschan.bSendTestCmd, 0);
}

TEST_F(UpsControl, OrderWithoutPortFails)
{
    block.ups.ui.CommStatus = COMM_ESTABLISHED;
    EXPECT_EQ(ups_control(&record, UPSCMD_CANCELDOWN), -1);
}

// ---- leaving the port

// The next query flushes both queues.
TEST_F(UpsControl, UnreadOrderSurvivesTheNextFlush)
{
    start_old();
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(ups_control(&record, UPSCMD_CANCELDOWN), 0);
        ups_flushport();
    }
    await_commands(40);
    EXPECT_EQ(unit->count("C"), 40);
}

TEST_F(UpsControl, UnreadOrderTakesItsTimeOnTheLine)
{
    start_old();
    EXPECT_GE(seconds_of([this] { order_down(120, 3600); }), 9 * 10 / 2400.0);
}

TEST_F(UpsControl, StopCharacterInNoiseDoesNotHoldAnOrderBack)
{
    start_old();
    unit->send("\x13x");
    pollfd arrived{upschan.comfd, POLLIN, 0};
    ASSERT_EQ(poll(&arrived, 1, 5000), 1);
    EXPECT_EQ(order_down(300, -1), 0);
    await_commands(1);
    EXPECT_THAT(unit->commands(), ElementsAre("S05"));
}

// ---- self-tests

TEST_F(UpsControl, SelfTestIsWrappedInThePeriodicTestsSwitch)
{
    start("ZR900PL");
    argument({10, 0, 0, 0});
    ui().AutoTestCan = 0;
    EXPECT_EQ(ups_control(&record, UPSCMD_SELFTEST), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("AR", "T", "AC"));
    EXPECT_EQ(upschan.bSendTestCmd, 1);
    unit->clear();
    ui().AutoTestCan = 1;
    EXPECT_EQ(ups_control(&record, UPSCMD_SELFTEST_LONG), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("AR", "TL"));
    EXPECT_FALSE(reply_waiting());
}

TEST_F(UpsControl, RefusedSelfTestIsNoFailure)
{
    start("ZR900PL");
    unit->answer("", {"NAK\r"});
    argument({10, 0, 0, 0});
    EXPECT_EQ(ups_control(&record, UPSCMD_SELFTEST), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("AR", "T", "AC"));
    EXPECT_EQ(ups_selftest(&record), -1);
    unit->answer("T", {"what"});
    EXPECT_EQ(ups_selftest(&record), 0);
}

TEST_F(UpsControl, SelfTestWithoutAReplyFailsAndIsNotRepeated)
{
    start("ZR900PL");
    unit->answer("T", {""});
    argument({10, 0, 0, 0});
    EXPECT_EQ(ups_selftest(&record), -1);
    EXPECT_EQ(unit->count("T"), 1);
}

TEST_F(UpsControl, LongTestNeedsNoArgument)
{
    start("ZR900PL");
    argument({});
    EXPECT_EQ(ups_control(&record, UPSCMD_SELFTEST_LONG), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("AR", "TL", "AC"));
    unit->clear();
    EXPECT_EQ(ups_control(&record, UPSCMD_SELFTEST), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("AR", "AC"));
}

TEST_F(UpsControl, OlderFamilyKnowsThePlainTestOnly)
{
    for (const std::uint32_t word : {UPSCMD_SELFTEST, UPSCMD_SELFTEST_LONG}) {
        start_old();
        argument({10, 0, 0, 0});
        EXPECT_EQ(ups_control(&record, word), 0);
        await_commands(1);
        EXPECT_THAT(unit->commands(), ElementsAre("T"));
        EXPECT_EQ(upschan.bSendTestCmd, 1);
        finish();
    }
}

TEST_F(UpsControl, PlainTestNeedsAnArgumentOfFourBytes)
{
    start_old();
    for (const std::size_t size : {0U, 3U, 5U, 8U}) {
        argument(std::vector<std::uint8_t>(size));
        EXPECT_EQ(ups_selftest(&record), -1) << size;
    }
    EXPECT_THAT(unit->commands(), IsEmpty());
}

TEST_F(UpsControl, RunningTestIsNotStartedAgain)
{
    start("ZR900PL");
    argument({10, 0, 0, 0});
    ui().upsstat = UPSSTAT_TESTING;
    EXPECT_EQ(ups_selftest(&record), 0);
    EXPECT_THAT(unit->commands(), IsEmpty());
}

TEST_F(UpsControl, CommandedTestIsShownByTheNextPass)
{
    start_old();
    script_zr401(*unit);
    argument({10, 0, 0, 0});
    ups_control(&record, UPSCMD_SELFTEST);
    ASSERT_EQ(ups_getupsinfo(&record), 0);
    EXPECT_EQ(mask() & UPSBIT_TESTING, UPSBIT_TESTING);
    EXPECT_EQ(unit->count("T"), 1);
}

TEST_F(UpsControl, CancelledTestCountsAsFailed)
{
    start("ZR900PL");
    unit->answer("CT", {"NAK\r"});
    ui().sftResUPS.Result = SELFTEST_PASSED;
    EXPECT_EQ(ups_control(&record, UPSCMD_SELFTEST_CANCEL), -1);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_FAILED);
    EXPECT_NE(ui().sftResUPS.timeinfo.year, 0);
}

TEST_F(UpsControl, TestCountsAsFailedBeforeItsCancelIsSent)
{
    ui().sftResUPS.Result = SELFTEST_PASSED;
    EXPECT_EQ(ups_control(&record, UPSCMD_SELFTEST_CANCEL), -1);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_FAILED);
}

TEST_F(UpsControl, TestThatCannotBeWrittenIsTold)
{
    argument({10, 0, 0, 0});
    testing::internal::CaptureStderr();
    EXPECT_EQ(ups_selftest(&record), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ups_selftest: write: Input/output error\n");
}

// ---- the buzzer test

TEST_F(UpsControl, AudibleBuzzerIsTestedAtOnce)
{
    start("ZR900PL");
    ui().BuzzerCan = 1;
    EXPECT_EQ(ups_control(&record, UPSCMD_BUZZER_TEST), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("Bt"));
    EXPECT_EQ(upschan.buzzerStep, 0);
}

// A word that is not known gets each turn over without its wait.
TEST_F(UpsControl, SilencedBuzzerIsTestedInThreeTurns)
{
    const std::vector<std::string> orders{"Bn", "Bt", "Bf"};
    start("ZR900PL");
    script_zr900pl(*unit);
    for (const std::string &order : orders)
        unit->answer(order, {"OK\r"});
    ui().BuzzerCan = 0;
    ui().ufStatus = UPSFUNCTION_BUZZER;
    send_word(UPSCMD_BUZZER_TEST);
    for (std::size_t turn = 1; turn <= orders.size() + 1; ++turn) {
        ups_turn(&record);
        for (std::size_t i = 0; i < orders.size(); ++i)
            EXPECT_EQ(unit->count(orders[i]), i < turn ? 1 : 0) << orders[i] << " in turn " << turn;
        send_word(0x12340000);
    }
    EXPECT_EQ(upschan.buzzerStep, 0);
}

TEST_F(UpsControl, BuzzerWithoutSwitchIsJustTested)
{
    for (const int step : {1, 2, 3}) {
        start("ZR900PL");
        ui().ufStatus = 0;
        upschan.buzzerStep = step;
        EXPECT_EQ(doBuzzer(&record), 0);
        EXPECT_THAT(unit->commands(), ElementsAre("Bt")) << step;
        EXPECT_EQ(upschan.buzzerStep, 0);
        finish();
    }
    EXPECT_EQ(doBuzzer(&record), -1);
}

TEST_F(UpsControl, RefusedStepOfTheBuzzerTestIsNotRepeated)
{
    start("ZR900PL");
    unit->answer("", {"NAK\r"});
    ui().ufStatus = UPSFUNCTION_BUZZER;
    upschan.buzzerStep = 1;
    for (const int next : {2, 3, 0}) {
        EXPECT_EQ(doBuzzer(&record), -1);
        EXPECT_EQ(upschan.buzzerStep, next);
    }
    EXPECT_THAT(unit->commands(), ElementsAre("Bn", "Bt", "Bf"));
}

TEST_F(UpsControl, LostLineEndsTheBuzzerTest)
{
    start("ZR900PL");
    upschan.buzzerStep = 2;
    ups_lostcomm(&record);
    EXPECT_EQ(upschan.buzzerStep, 0);
}

// ---- switching the unit off

struct DOWN {
    const char *model;
    std::int32_t delay;
    std::int32_t last;
    const char *order;
};

TEST_F(UpsControl, OrderToSwitchOffSaysWhenAndForHowLong)
{
    const std::vector<DOWN> cases{
        {"ZR900PL", 30, 600, "S.5R00010"},
        {"ZR900PL", 59, 60, "S.9R00001"},
        {"ZR900PL", 60, 59, "S01R00000"},
        {"ZR900PL", 0, 1, "S.0R00000"},
        {"ZR900PL", 5999, 359940, "S99R05999"},
        {"ZR900PL", 6, 5999940, "S.1R99999"},
        {"ZM300LT", 119, 3600, "S01R00060"},
        {"ZR900PL", 300, -1, "S05"},
        {"ZR900PL", 59, -600, "S.9"},
        {"ZR900PL", 60, 0, "S01"},
        {"ZR401", 120, 3600, "S02R0060"},
        {"ZR6020", 30, 600, "S.5R0010"},
        {"ZR401", 300, -1, "S05"},
        {"ZR401", 12, 0, "S.2"},
    };
    for (const DOWN &c : cases) {
        start(c.model);
        EXPECT_EQ(order_down(c.delay, c.last), 0);
        await_commands(1);
        EXPECT_THAT(unit->commands(), ElementsAre(c.order)) << c.model << " " << c.delay << " " << c.last;
        finish();
    }
}

TEST_F(UpsControl, RestartByItselfIsSwitchedBeforeTheOrder)
{
    start("ZR900PL");
    unit->answer("An", {"NAK\r"});
    unit->answer("Af", {"\r"});
    ui().ufStatus = AUTORESTART_AND_BUZZER;
    EXPECT_EQ(order_down(60, 60), 0);
    EXPECT_EQ(order_down(60, 0), 0);
    EXPECT_EQ(order_down(60, -1), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("An", "S01R00001", "Af", "S01", "S01"));
}

TEST_F(UpsControl, SilenceBehindTheSwitchOfTheRestartDoesNotHoldTheOrderBack)
{
    start("ZR900PL");
    unit->answer("An", {""});
    ui().ufStatus = UPSFUNCTION_AUTORESTART;
    EXPECT_EQ(order_down(60, 60), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("An", "S01R00001"));
}

TEST_F(UpsControl, UnitThatKnowsAnOrderForGoodGetsIt)
{
    start("ZR900PL");
    ui().ufStatus = UPSFUNCTION_AUTORESTART;
    upschan.cf.Sfn = 1;
    unit->answer("", {"NAK\r"});
    EXPECT_LT(seconds_of([this] { EXPECT_EQ(order_down(120, 0), 0); }), 0.5);
    upschan.cf.Sfn = 0;
    upschan.cmd.Sfn = 1;
    EXPECT_EQ(order_down(42, 0), 0);
    await_commands(2);
    EXPECT_THAT(unit->commands(), ElementsAre("Sf02", "Sf.7"));
    unit->answer("", {"OK\r"});
    EXPECT_EQ(order_down(42, 60), 0);
    EXPECT_THAT(unit->commands(), ElementsAre("Sf02", "Sf.7", "An", "S.7R00001"));
}

TEST_F(UpsControl, DelayOfThreeDigitsCutsTheOrder)
{
    start_old();
    EXPECT_EQ(order_down(6000, 600), 0);
    EXPECT_EQ(unfinished(), "S100R0010");
    EXPECT_EQ(order_down(60000, 600), 0);
    EXPECT_EQ(unfinished(), "S1000R001");
    EXPECT_EQ(order_down(6000, -1), 0);
    EXPECT_EQ(unfinished(), "S100");
    EXPECT_EQ(order_down(60, 600000), 0);
    EXPECT_EQ(unfinished(), "S01R10000");
    upschan.cmd.Sfn = 1;
    EXPECT_EQ(order_down(6000, 0), 0);
    EXPECT_EQ(unfinished(), "Sf100");
}

TEST_F(UpsControl, CutOrderOfANewerUnitGetsNoAgreement)
{
    start("ZR900PL");
    EXPECT_EQ(order_down(6000, 600), -1);
    EXPECT_EQ(unfinished(), "S100R00010");
}

TEST_F(UpsControl, ArgumentsOutOfRangeDoNoHarm)
{
    start_old();
    for (const std::int32_t delay : {INT32_MIN, -30, INT32_MAX})
        for (const std::int32_t last : {INT32_MIN, INT32_MAX}) {
            EXPECT_EQ(order_down(delay, last), 0);
            const std::string sent = unfinished();
            EXPECT_LE(sent.size(), 9U) << sent;
        }
}

TEST_F(UpsControl, OrderToSwitchOffIsAnswered)
{
    start("ZR900PL");
    order_down(60, 60);
    send_word(UPSCMD_SHUTDOWN);
    ups_procagentcmd(&record);
    EXPECT_EQ(read_reply(), UPSCMD_SHUTDOWN | 1);
    unit->answer("", {"NAK\r"});
    send_word(UPSCMD_SHUTDOWN);
    ups_procagentcmd(&record);
    EXPECT_EQ(read_reply(), UPSCMD_SHUTDOWN | 0xFFFF);
    argument({1, 2, 3, 4});
    send_word(UPSCMD_SHUTDOWN);
    ups_procagentcmd(&record);
    EXPECT_EQ(read_reply(), UPSCMD_SHUTDOWN | 0xFFFF);
    EXPECT_EQ(unit->commands().size(), 3U);
}

TEST_F(UpsControl, OrderToSwitchOffThatCannotBeWrittenIsTold)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(order_down(60, 60), -1);
    EXPECT_EQ(ups_cancelshutdown(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ups_shutdwonups: write: Input/output error\nups_shutdwonups: write: Input/output error\n");
}

// Neither is the order itself tried behind a switch of the restart that could not be written.
TEST_F(UpsControl, EachFormOfTheOrderThatCannotBeWrittenIsToldOnce)
{
    const std::string told = "ups_shutdwonups: write: Input/output error\n";
    ui().ufStatus = UPSFUNCTION_AUTORESTART;
    for (const std::int32_t last : {600, 0, -1}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(order_down(60, last), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), told) << last;
    }
    upschan.cf.Sfn = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(order_down(60, 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), told);
}

TEST_F(UpsControl, CancellingDoesNotReadAReply)
{
    start("ZR900PL");
    unit->answer("C", {"NAK\r"});
    EXPECT_EQ(ups_cancelshutdown(), 0);
    await_commands(1);
    EXPECT_THAT(unit->commands(), ElementsAre("C"));
}

// ---- the battery date

TEST_F(UpsControl, BatteryDateIsWrittenWithItsCentury)
{
    start("ZM300LT");
    EXPECT_EQ(order_date(105, 4, 12), 0);
    EXPECT_EQ(order_date(0, 12, 31), 0);
    unit->answer("BRW20261109", {"NAK\r"});
    EXPECT_EQ(order_date(126, 11, 9), -1);
    EXPECT_THAT(unit->commands(), ElementsAre("BRW20050412", "BRW19001231", "BRW20261109"));
    EXPECT_FALSE(reply_waiting());
}

TEST_F(UpsControl, BatteryDateNeedsItsTwelveBytesAndANewerUnit)
{
    start("ZM300LT");
    argument(std::vector<std::uint8_t>(8));
    EXPECT_EQ(ups_setbattchgtime(&record), -1);
    finish();
    start_old();
    EXPECT_EQ(order_date(105, 4, 12), -1);
    EXPECT_THAT(unit->commands(), IsEmpty());
}

TEST_F(UpsControl, BatteryDateOutOfRangeIsCut)
{
    start("ZM300LT");
    EXPECT_EQ(order_date(105, -1, -128), -1);
    EXPECT_EQ(unfinished(), "BRW2005-1-12");
}

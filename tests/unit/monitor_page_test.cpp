// Words, pages and the JSON-free drawing of a status record.
#include "monitor/monitor_page.h"

#include "monitor/monitor_text.h"
#include "monitor_fake_agent.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <utility>

using testing::HasSubstr;

// ---- Words ----

TEST(MonitorWords, EveryUpsStateHasItsWords)
{
    EXPECT_EQ(words_upsstat(0).words, "on mains");
    EXPECT_EQ(words_upsstat(3).words, "self-test running");
    EXPECT_EQ(words_upsstat(4).words, "shutting down");
    EXPECT_EQ(words_upsstat(16).words, "on bypass");
    EXPECT_EQ(words_upsstat(20).words, "UPS fault");
    EXPECT_EQ(words_upsstat(21).words, "overload");
    EXPECT_EQ(words_upsstat(33).words, "mains failure, on battery");
}

TEST(MonitorWords, EveryBatteryAndLinkStateHasItsWords)
{
    EXPECT_EQ(words_battery(0).words, "unknown");
    EXPECT_EQ(words_battery(1).words, "normal");
    EXPECT_EQ(words_battery(5).words, "under test");
    EXPECT_EQ(words_battery(18).words, "weak, replace it");
    EXPECT_EQ(words_battery(19).words, "disconnected");
    EXPECT_EQ(words_battery(34).words, "low");
    EXPECT_EQ(words_comm(2).words, "established");
    EXPECT_EQ(words_comm(6).words, "no UPS configured");
    EXPECT_EQ(words_comm(17).words, "lost");
}

TEST(MonitorWords, UnknownCodesAreShownAsNumbers)
{
    EXPECT_EQ(words_or_code(words_upsstat(77), 77), "code 77");
    EXPECT_EQ(words_or_code(words_battery(-1), -1), "code -1");
    EXPECT_EQ(words_or_code(words_comm(0), 0), "code 0");
    EXPECT_EQ(words_or_code(words_selftest(4294967295), 4294967295), "code 4294967295");
    EXPECT_EQ(words_or_code(words_event(200), 200), "code 200");
    EXPECT_EQ(words_onoff(2), "code 2");
}

TEST(MonitorWords, PortsOnTheWireCountFromOne)
{
    EXPECT_EQ(words_device(1), "/dev/ttyS0");
    EXPECT_EQ(words_device(4), "/dev/ttyS3");
    EXPECT_EQ(words_device(0), "");
    EXPECT_EQ(words_device(5), "");
    EXPECT_EQ(words_device(-1), "");
    EXPECT_EQ(words_device(-2), "");
}

TEST(MonitorWords, DatesAreSpelledOrSaidToBeInvalid)
{
    EXPECT_EQ(time_words({105, 3, 5, 9, 7, 2, 0}), "2005-03-05 09:07:02");
    EXPECT_EQ(date_words({255, 12, 31, 0, 0, 0, 0}), "2155-12-31");
    EXPECT_EQ(time_words({}), "none");
    EXPECT_EQ(time_words({105, 13, 5, 9, 7, 2, 0}), "invalid (105 13 5 9 7 2)");
    EXPECT_EQ(time_words({0, -128, -128, -128, -128, -128, 0}), "invalid (0 -128 -128 -128 -128 -128)");
    EXPECT_EQ(date_words({105, 4, 0, 0, 0, 0, 0}), "invalid (105 4 0)");
}

TEST(MonitorWords, QuantitiesKeepAnImpossibleTenthsPartVisible)
{
    EXPECT_EQ(tenths_words(100, 3), "100.3");
    EXPECT_EQ(tenths_words(-5, 3), "-5.3");
    EXPECT_EQ(tenths_words(100, 17), "100 (tenths 17)");
    EXPECT_EQ(tenths_words(-32768, -128), "-32768 (tenths -128)");
}

TEST(MonitorWords, CapabilitiesWithoutAFixedMeaningStayNumbers)
{
    EXPECT_THAT(words_capabilities(0x8808), testing::ElementsAre("restart status query", "0x0800", "0x8000"));
    EXPECT_EQ(words_capabilities(0xFFFF).size(), 16U);
    EXPECT_TRUE(words_capabilities(0).empty());
}

// ---- The long page ----

static std::string long_page(const UPS_UPSINFO &status)
{
    std::string text;
    for (const std::string &line : page_status(status, "server1:4112"))
        text += line + "\n";
    return text;
}

TEST(MonitorPage, StatusPageTellsEverythingInWords)
{
    const std::string page = long_page(sample_status());
    for (const char *expected : {"Agent server1:4112\n",
                                 "established, /dev/ttyS0\n",
                                 "ZR900PL\n",
                                 "on mains\n",
                                 "100.3 V\n",
                                 "101.4 V\n",
                                 "50.1 Hz\n",
                                 "60.2 Hz\n",
                                 "35 %\n",
                                 "27.6 V\n",
                                 "98 %\n",
                                 "25.5 C\n",
                                 "2005-12-24 22:00:00\n",
                                 "2003-04-01\n",
                                 "passed, 2005-01-01 03:00:00\n",
                                 "no result\n",
                                 "\u7ba1\u7406\n",
                                 "server, normal priority\n",
                                 "2005-03-04 01:02:03   UPS Ac fail (65)\n",
                                 "2005-03-04 01:05:03   Receive shutdown Command From Users on pc7 (79)\n",
                                 "  battery replacement date\n"})
        EXPECT_THAT(page, HasSubstr(expected));
}

TEST(MonitorPage, LostLinkShowsNoMeasurementsAndNoUpsState)
{
    UPS_UPSINFO status = sample_status();
    status.CommStatus = COMM_LOST;
    status.ComId = -1;
    status.BattStatus = BATT_UNKNOWN;
    status.upsdata = {};
    status.upsmodel.fill('\0');
    const std::string page = long_page(status);
    EXPECT_THAT(page, HasSubstr("Link                  lost\n"));
    EXPECT_THAT(page, HasSubstr("State                 not known\n"));
    EXPECT_THAT(page, HasSubstr("Model                 not known\n"));
    EXPECT_THAT(page, HasSubstr("Load                  -\n"));
    EXPECT_THAT(page, testing::Not(HasSubstr("0.0 V")));
}

TEST(MonitorPage, MissingTemperatureAndCapacityAreNotTakenForValues)
{
    UPS_UPSINFO status = sample_status();
    status.upsdata.TempINT = -1;
    status.upsdata.TempREM = -1;
    status.upsdata.BattCap = 0;
    EXPECT_EQ(page_temperature(status), "not reported");
    EXPECT_EQ(page_capacity(status), "0 % or not reported");
}

TEST(MonitorPage, BlankModelIsNotKnown)
{
    UPS_UPSINFO status = sample_status();
    status.upsmodel.fill('\0');
    std::fill_n(status.upsmodel.begin(), 9, ' ');
    EXPECT_EQ(page_model(status), "not known");
}

TEST(MonitorPage, ShutdownLineTellsPlannedOrderedAndRunning)
{
    UPS_UPSINFO status = sample_status();
    EXPECT_EQ(page_shutdown(status).text, "2005-12-24 22:00:00");
    status.CommandDownS = 1;
    EXPECT_EQ(page_shutdown(status).text, "2005-12-24 22:00:00 ordered");
    status.ShutdownS = 1;
    EXPECT_EQ(page_shutdown(status).text, "in progress");
}

TEST(MonitorPage, EventsTellTheirCauseAndNone)
{
    EXPECT_EQ(page_event({22, static_cast<std::int8_t>(128), 0, {105, 1, 1, 0, 0, 0, 0}, {}}).text,
              "System is shutdown (22) after UPS Battery Low (128)");
    EXPECT_EQ(page_event({255, -1, 0, {}, {}}).text, "none");
    EXPECT_EQ(page_event({}).text, "none");
    EXPECT_EQ(page_event({80, -1, 0, {105, 1, 1, 0, 0, 0, 0}, {'p', 'c', '7'}}).text,
              "Network Shutdown Triggered by Other Agent (80), pc7");
    EXPECT_EQ(page_event({99, -1, 0, {105, 1, 1, 0, 0, 0, 0}, {}}).text, "code 99 (99)");
}

TEST(MonitorPage, OneLineHoldsStateAndMeasurements)
{
    EXPECT_EQ(
        page_one_line(sample_status()),
        "UPS on mains; battery normal; link established, /dev/ttyS0; in 100.3 V; out 101.4 V; load 35 %; "
        "battery 27.6 V, 98 %; shutdown 2005-12-24 22:00:00");
}

// ---- The watch page ----

static WATCH_VIEW sample_view()
{
    WATCH_VIEW view;
    view.place = "server1:4112";
    view.now = "21:14:05";
    view.connected = true;
    view.since = "21:10:00";
    view.has_status = true;
    view.status = sample_status();
    return view;
}

// A record in which every text is as long as it gets, full of bytes that are not fit for a terminal.
static WATCH_VIEW unruly_view()
{
    WATCH_VIEW view = sample_view();
    UPS_UPSINFO &status = view.status;
    view.place = std::string(300, 'h') + ":65535";
    view.message = std::string(500, 'm');
    status.upsmodel.fill('\x1b');
    status.upsstat = -100;
    status.BattStatus = -100;
    status.iDetectionLvl = std::numeric_limits<std::int32_t>::min();
    status.BuzzerCan = status.AutoTestCan = status.bAutoReboot = std::numeric_limits<std::int32_t>::min();
    status.upsdata = {-32768, -32768, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, 255};
    status.timeinfo = status.nextdown = status.nextboot =
        status.PreChangeBatt = {255, -128, -128, -128, -128, -128, -1};
    for (UPS_EVENTLOGINFO &event : status.events) {
        event = {134, static_cast<std::int8_t>(134), 0, status.timeinfo, {}};
        event.AgentName.fill('\xff');
    }
    status.sftResBattery = status.sftResUPS = {0xFFFFFFFF, status.timeinfo};
    status.ufStatus = 0xFFFF;
    return view;
}

static std::string watch_page(const WATCH_VIEW &view, PAGE_SIZE size)
{
    std::string text;
    for (const PAGE_LINE &line : page_watch(view, size))
        text += page_text(line) + "\n";
    return text;
}

static void expect_to_fit(const WATCH_VIEW &view, PAGE_SIZE size)
{
    const std::vector<PAGE_LINE> page = page_watch(view, size);
    EXPECT_LE(page.size(), size.rows);
    for (const PAGE_LINE &line : page)
        EXPECT_LE(text_columns(page_text(line)), size.columns) << page_text(line);
}

TEST(MonitorWatchPage, FitsEveryTerminal)
{
    for (std::size_t columns = 1; columns <= 200; ++columns)
        for (const std::size_t rows : {1U, 2U, 3U, 10U, 24U, 50U}) {
            expect_to_fit(sample_view(), {columns, rows});
            expect_to_fit(unruly_view(), {columns, rows});
        }
}

TEST(MonitorWatchPage, NothingIsLeftOutAtFortyByTwentyFour)
{
    const std::string page = watch_page(sample_view(), {40, 24});
    for (const char *expected : {"Voltaria server1:4112",
                                 "21:14:05\n",
                                 "connected since 21:10:00",
                                 "on mains",
                                 "normal",
                                 "established, /dev/ttyS0",
                                 "ZR900PL",
                                 "100.3 V  50.1 Hz",
                                 "101.4 V  60.2 Hz",
                                 "[#######-------------]  35 %",
                                 "[###################-]  98 %",
                                 "27.6 V  25.5 C",
                                 "2003-04-01",
                                 "2005-12-24 22:00:00",
                                 "passed, 2005-01-01 03:00:00",
                                 "no result",
                                 "on, self-test off",
                                 "on, level 3",
                                 "2005-03-04 01:05:03",
                                 "Receive shutdown Command",
                                 "2005-03-04 01:02:03",
                                 "UPS Ac fail (65)",
                                 "restart status query",
                                 "q quits"})
        EXPECT_THAT(page, HasSubstr(expected)) << page;
}

TEST(MonitorWatchPage, EightyColumnsHoldTwoFieldsSideBySide)
{
    const std::string page = watch_page(sample_view(), {80, 24});
    EXPECT_THAT(page, HasSubstr("UPS        on mains"));
    EXPECT_THAT(page, testing::ContainsRegex("on mains +Battery +normal"));
    EXPECT_THAT(page, HasSubstr("2005-03-04 01:05:03  Receive shutdown Command From Users on pc7 (79)"));
}

TEST(MonitorWatchPage, TheTimeOfASelfTestLosesItsSecondsRatherThanBeingCut)
{
    WATCH_VIEW view = sample_view();
    view.status.sftResBattery.Result = SELFTEST_NONE;
    for (const std::size_t columns : {40U, 80U, 83U})
        EXPECT_THAT(watch_page(view, {columns, 24}),
                    testing::ContainsRegex("no result, 2005-01-01 03:00[ \n]"))
            << columns;
    EXPECT_THAT(watch_page(view, {100, 24}), HasSubstr("no result, 2005-01-01 03:00:00"));
    view.status.sftResBattery.timeinfo = {};
    EXPECT_THAT(watch_page(view, {20, 24}), HasSubstr("Batt. test no result"));
}

TEST(MonitorWatchPage, FewRowsKeepTheStateAndDropTheRest)
{
    const std::string page = watch_page(sample_view(), {40, 5});
    EXPECT_THAT(page, HasSubstr("Voltaria"));
    EXPECT_THAT(page, HasSubstr("connected"));
    EXPECT_THAT(page, HasSubstr("on mains"));
    EXPECT_THAT(page, HasSubstr("normal"));
    EXPECT_THAT(page, HasSubstr("established"));
}

TEST(MonitorWatchPage, LossIsShownWithItsTimeOverTheFadedLastStatus)
{
    WATCH_VIEW view = sample_view();
    view.connected = false;
    view.since = "21:13:00";
    view.reason = "the agent closed the connection";
    const std::vector<PAGE_LINE> page = page_watch(view, {80, 24});
    EXPECT_THAT(page_text(page[1]), HasSubstr("LOST since 21:13:00: the agent closed the connection"));
    EXPECT_EQ(page[1].spans[0].tone, TONE::Alarm);
    for (std::size_t i = 2; i + 1 < page.size(); ++i)
        for (const PAGE_SPAN &span : page[i].spans)
            EXPECT_NE(span.tone, TONE::Good) << span.text;
    EXPECT_THAT(page_text(page[2]), HasSubstr("on mains"));
}

TEST(MonitorWatchPage, FirstAttemptIsNoLossYet)
{
    WATCH_VIEW view;
    view.place = "server1:4112";
    view.now = "21:14:05";
    EXPECT_THAT(watch_page(view, {40, 24}), HasSubstr("connecting ..."));
}

TEST(MonitorWatchPage, AnnouncementTakesTheFoot)
{
    WATCH_VIEW view = sample_view();
    view.message = "21:14:00 UPS Ac fail";
    EXPECT_THAT(watch_page(view, {40, 24}), HasSubstr("21:14:00 UPS Ac fail"));
}

TEST(MonitorWatchPage, OverloadIsAnAlarmAndItsBarStaysInItsBox)
{
    WATCH_VIEW view = sample_view();
    view.status.upsdata.Load = 255;
    EXPECT_THAT(watch_page(view, {40, 24}), HasSubstr("[####################] 255 %"));
}

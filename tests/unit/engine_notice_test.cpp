// Notices: how a format and its arguments become a text, in which order a text is sent, what a failed send
// does. The format of a translation may be damaged; it must never do more than look odd.
#include "tests/unit/engine_fixture.h"

#include "agent_main_message.h"

#include <filesystem>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

static const std::string LONG_NUMBER(400, '9');

// ---- the text ----

TEST(Notice, PlainTextStaysAsItIs)
{
    EXPECT_EQ(notice_format("", {}), "");
    EXPECT_EQ(notice_format("UPS Battery Low", {}), "UPS Battery Low");
    EXPECT_EQ(notice_format("UPS Battery Low", {notice_arg(5), notice_arg("x")}), "UPS Battery Low");
}

TEST(Notice, ArgumentsReplaceTheirPlaceholdersInOrder)
{
    EXPECT_EQ(notice_format("in %d minute(s) and %d second(s).", {notice_arg(2), notice_arg(30)}),
              "in 2 minute(s) and 30 second(s).");
    EXPECT_EQ(notice_format("Date:%s Time: %s.", {notice_arg("2004-3-5"), notice_arg("09:07:00")}),
              "Date:2004-3-5 Time: 09:07:00.");
    EXPECT_EQ(notice_format("%s%d%s", {notice_arg("a"), notice_arg(-7), notice_arg("b")}), "a-7b");
}

TEST(Notice, NumbersAreTakenWhole)
{
    EXPECT_EQ(notice_format("%d %d", {notice_arg(9223372036854775807L), notice_arg(-9223372036854775807L)}),
              "9223372036854775807 -9223372036854775807");
    EXPECT_EQ(notice_format("%i %u", {notice_arg(1), notice_arg(2)}), "1 2");
}

TEST(Notice, AWidthIsFilledWithBlanksOrZeros)
{
    EXPECT_EQ(notice_format("%04dyear %2dmonth %2dday %s.",
                            {notice_arg(2004), notice_arg(3), notice_arg(15), notice_arg("09:07:00")}),
              "2004year  3month 15day 09:07:00.");
    EXPECT_EQ(notice_format("%02d|%2d|%1d", {notice_arg(5), notice_arg(-5), notice_arg(123)}), "05|-5|123");
    EXPECT_EQ(notice_format("%05d|%5d", {notice_arg(-42), notice_arg(-42)}), "-0042|  -42");
    EXPECT_EQ(notice_format("%04d", {notice_arg(12345)}), "12345");
}

TEST(Notice, ATranslationMayChangeTheOrder)
{
    EXPECT_EQ(notice_format("%2$s before %1$s", {notice_arg("a"), notice_arg("b")}), "b before a");
    EXPECT_EQ(notice_format("%2$02d:%1$02d, %2$d", {notice_arg(7), notice_arg(9)}), "09:07, 9");
    EXPECT_EQ(notice_format("%1$s %1$s", {notice_arg("twice")}), "twice twice");
    EXPECT_EQ(notice_format("%2$s %s", {notice_arg("a"), notice_arg("b")}), "b a");
}

TEST(Notice, TwoPercentSignsAreOne)
{
    EXPECT_EQ(notice_format("100%%", {}), "100%");
    EXPECT_EQ(notice_format("%d%% of %d%%", {notice_arg(5), notice_arg(6)}), "5% of 6%");
    EXPECT_EQ(notice_format("%%s %%%s%%", {notice_arg("x")}), "%s %x%");
}

TEST(Notice, WhatANameHoldsIsNoFormat)
{
    EXPECT_EQ(notice_format("on %s, %d", {notice_arg("%s%n%99d%%"), notice_arg(1)}), "on %s%n%99d%%, 1");
}

TEST(Notice, ANumberMayStandWhereATextIsWantedButNoTextWhereANumberIs)
{
    EXPECT_EQ(notice_format("<%s>", {notice_arg(17)}), "<17>");
    EXPECT_EQ(notice_format("<%d>", {notice_arg("seventeen")}), "<>");
    EXPECT_EQ(notice_format("<%05d>", {notice_arg("seventeen")}), "<>");
}

TEST(Notice, PlaceholdersWithoutAnArgumentAreLeftOut)
{
    EXPECT_EQ(notice_format("<%s><%d><%s>", {notice_arg("a")}), "<a><><>");
    EXPECT_EQ(notice_format("<%s>", {}), "<>");
    EXPECT_EQ(notice_format("<%3$s><%1$s>", {notice_arg("a")}), "<><a>");
    EXPECT_EQ(notice_format(("<%" + LONG_NUMBER + "$s>").c_str(), {notice_arg("a")}), "<>");
}

TEST(Notice, PlaceholdersThatAreUnknownOrCutOffAreLeftOut)
{
    for (const char *format : {"<%n>", "<%x>", "<%p>", "<%c>", "<%f>"}) {
        EXPECT_EQ(notice_format(format, {notice_arg(17)}), "<>") << format;
        EXPECT_EQ(notice_format(format, {notice_arg("x")}), "<>") << format;
    }
    for (const char *format : {"<%", "<%0", "<%02", "<%1$", "<%1$0", "<%l", "<%12"}) {
        EXPECT_EQ(notice_format(format, {notice_arg(17)}), "<") << format;
        EXPECT_EQ(notice_format(format, {notice_arg("x")}), "<") << format;
    }
}

TEST(Notice, AnEnormousWidthIsBounded)
{
    for (const std::string &width : {std::string("100"), std::string("2147483648"), LONG_NUMBER}) {
        EXPECT_EQ(notice_format(("%" + width + "d").c_str(), {notice_arg(7)}), std::string(98, ' ') + "7");
        EXPECT_EQ(notice_format(("%0" + width + "d").c_str(), {notice_arg(7)}), std::string(98, '0') + "7");
        EXPECT_EQ(notice_format(("%0" + width + "d").c_str(), {notice_arg(-9223372036854775807L)}).size(),
                  99u);
    }
}

TEST(Notice, BytesOfJapaneseTextAreNoPlaceholders)
{
    EXPECT_EQ(notice_format("\xc4\xe4\xc5\xc5 %d \xc9\xc3", {notice_arg(30)}),
              "\xc4\xe4\xc5\xc5 30 \xc9\xc3");
}

TEST(Notice, WithoutATranslationBothTextsAreEnglish)
{
    const NOTICE notice = notice_compose("in %d minutes", {notice_arg(2)});
    EXPECT_EQ(notice.localised, "in 2 minutes");
    EXPECT_EQ(notice.english, "in 2 minutes");
}

// ---- sending it ----

class NoticeSending : public Engine
{
};

TEST_F(NoticeSending, ATranslationGoesToMonitorsBeforeTheEnglishText)
{
    const std::filesystem::path messages = "/usr/lib/voltaria/locale/ja/LC_MESSAGES";
    std::filesystem::create_directories(messages);
    std::filesystem::copy_file(TEXT_CATALOGUE_EUC, messages / "voltariad.mo");
    message_start();
    EXPECT_EQ(notify("UPS Ac fail"), 0);
    EXPECT_THAT(recorder.localised, ElementsAre("\x92\xe2\x93\x64\x82\xc5\x82\xb7"));  // Shift-JIS
    EXPECT_THAT(recorder.english, ElementsAre("UPS Ac fail"));
    EXPECT_EQ(notice_compose("UPS Ac fail").localised, "\xc4\xe4\xc5\xc5\xa4\xc7\xa4\xb9");
}

TEST_F(NoticeSending, TheLocalisedTextGoesFirstAndThenTheEnglishOne)
{
    EXPECT_EQ(notify({"first", "second"}), 0);
    EXPECT_THAT(recorder.calls, ElementsAre(callback(E_CB_MESSAGE, 1, 0), callback(E_CB_MESSAGE, 2, 0)));
    EXPECT_THAT(recorder.localised, ElementsAre("first"));
    EXPECT_THAT(recorder.english, ElementsAre("second"));
}

TEST_F(NoticeSending, AFormatIsComposedForBoth)
{
    EXPECT_EQ(notify("%s is %d%%", {notice_arg("load"), notice_arg(55)}), 0);
    EXPECT_THAT(recorder.localised, ElementsAre("load is 55%"));
    EXPECT_THAT(recorder.english, ElementsAre("load is 55%"));
}

TEST_F(NoticeSending, BothLeaveInTheCharacterSetOfTheMonitors)
{
    EXPECT_EQ(notify({"\xc4\xe4\xc5\xc5", "\xc4\xe4\xc5\xc5"}), 0);  // EUC-JP
    EXPECT_THAT(recorder.localised, ElementsAre("\x92\xe2\x93\x64"));
    EXPECT_THAT(recorder.english, ElementsAre("\x92\xe2\x93\x64"));
}

TEST_F(NoticeSending, AnEmptyTextIsSentToo)
{
    EXPECT_EQ(notify({"", ""}), 0);
    EXPECT_THAT(recorder.english, ElementsAre(""));
}

TEST_F(NoticeSending, AFailedSendIsCountedAndTheOtherTextStillSent)
{
    recorder.results[E_CB_MESSAGE] = -1;
    EXPECT_EQ(notify({"first", "second"}), -1);
    EXPECT_THAT(recorder.localised, ElementsAre("first"));
    EXPECT_THAT(recorder.english, ElementsAre("second"));
    EXPECT_EQ(notify("text"), -1);
    EXPECT_EQ(notice_send(E_CB_TIMEISUP, "text", 1), 0);
    recorder.results[E_CB_TIMEISUP] = -1;
    EXPECT_EQ(notice_send(E_CB_TIMEISUP, "text", 1), -1);
}

// Event_CallBack returns how many it reached.
TEST_F(NoticeSending, AnyNumberOfReceiversIsASuccess)
{
    recorder.results[E_CB_MESSAGE] = 3;
    EXPECT_EQ(notify({"first", "second"}), 0);
    EXPECT_EQ(notice_send(E_CB_MESSAGE, "text", 0), 0);
    EXPECT_THAT(recorder.plain, ElementsAre("text"));
    EXPECT_THAT(recorder.agents, IsEmpty());
}

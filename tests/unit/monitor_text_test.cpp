// Foreign text on its way to a terminal.
#include "monitor/monitor_text.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

static std::string safe(std::string_view bytes, TEXT_CODE first = TEXT_CODE::ShiftJis)
{
    return text_safe(bytes, first);
}

TEST(MonitorText, PlainTextStaysAsItIs)
{
    EXPECT_EQ(safe("ZR900PL"), "ZR900PL");
    EXPECT_EQ(safe(""), "");
    EXPECT_EQ(safe(R"(a\b~c)"), R"(a\b~c)");
}

TEST(MonitorText, TextEndsAtItsNulOrAtTheEndOfTheField)
{
    EXPECT_EQ(safe(std::string_view("pc7\0junk", 8)), "pc7");
    constexpr std::array<char, 4> full{'a', 'b', 'c', 'd'};
    EXPECT_EQ(text_safe(full, TEXT_CODE::Euc), "abcd");
}

TEST(MonitorText, TrailingBlanksAreDropped)
{
    EXPECT_EQ(safe("         "), "");
    EXPECT_EQ(safe("ab  "), "ab");
}

TEST(MonitorText, ControlCharactersAreEscaped)
{
    EXPECT_EQ(safe("a\x1b[2Jb\r\n\t\x7f"), R"(a\x1B[2Jb\x0D\x0A\x09\x7F)");
}

TEST(MonitorText, ShiftJisBecomesUtf8)
{
    EXPECT_EQ(safe("\x88\x9f"), "\u4e9c");
    EXPECT_EQ(safe("UPS\x8a\xc7\x97\x9d!"), "UPS\u7ba1\u7406!");
    EXPECT_EQ(safe("\xb1"), "\uff71");
}

TEST(MonitorText, EucBecomesUtf8EvenWhenShiftJisWasExpected)
{
    EXPECT_EQ(safe("\xb1\xa6\xb4\xfd"), "\u53f3\u68cb") << "no Shift-JIS";
    EXPECT_EQ(safe("\xb4\xc9\xcd\xfd", TEXT_CODE::Euc), "\u7ba1\u7406");
    EXPECT_EQ(safe("\xa4\xfd\xa1\xa1\xf4\xa6"), "\\xA4\\xFD\\xA1\\xA1\\xF4\\xA6") << "valid in neither";
}

TEST(MonitorText, BytesValidInBothAreReadAsTheEncodingExpected)
{
    EXPECT_EQ(safe("\xb4\xc9", TEXT_CODE::ShiftJis), "\uff74\uff89");
    EXPECT_EQ(safe("\xb4\xc9", TEXT_CODE::Euc), "\u7ba1");
}

TEST(MonitorText, BytesThatDecodeNeitherWayAreEscaped)
{
    EXPECT_EQ(safe("a\xff\xff"), R"(a\xFF\xFF)");
    EXPECT_EQ(safe("\x88"), R"(\x88)");
}

TEST(MonitorText, ControlsHiddenBehindADecoderAreEscaped)
{
    EXPECT_EQ(safe("\x8a\xc7\x1b[31m"), "\u7ba1\\x1B[31m");
    const std::string eight_bit_control = safe("\x80", TEXT_CODE::ShiftJis);
    EXPECT_EQ(eight_bit_control, "\\x80");
}

TEST(MonitorText, FullWidthCharactersTakeTwoColumns)
{
    EXPECT_EQ(text_columns("abc"), 3U);
    EXPECT_EQ(text_columns("\u7ba1\u7406"), 4U);
    EXPECT_EQ(text_columns("\uff71"), 1U) << "half-width";
    EXPECT_EQ(text_columns("\uff21"), 2U) << "full-width Latin";
}

TEST(MonitorText, CuttingNeverSplitsACharacter)
{
    EXPECT_EQ(text_fit("\u7ba1\u7406", 3), "\u7ba1");
    EXPECT_EQ(text_padded("\u7ba1\u7406", 3), "\u7ba1 ");
    EXPECT_EQ(text_padded("abc", 5), "abc  ");
    EXPECT_EQ(text_padded("abc", 0), "");
}

TEST(MonitorText, AsciiTerminalsGetQuestionMarksOfTheSameWidth)
{
    EXPECT_EQ(text_ascii("a\u7ba1\uff71"), "a???");
}

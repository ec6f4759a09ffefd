// Which Japanese encoding a text is taken for.
#include "agent_daemon_text.h"

#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <string_view>

using namespace std::string_view_literals;

struct detection {
    const char *name;
    std::string_view text;
    int code;
};

static void PrintTo(const detection &param, std::ostream *out)
{
    *out << param.name;
}

class Detection : public testing::TestWithParam<detection>
{
};

TEST_P(Detection, FindsTheCodeType)
{
    EXPECT_EQ(DetectCodeType(GetParam().text), GetParam().code);
    const std::string text(GetParam().text);
    EXPECT_EQ(DetectCodeType(text.c_str(), static_cast<int>(text.size())), GetParam().code);
}

static constexpr detection PLAIN[] = {
    {"empty", "", 7},
    {"ascii", "UPS Ac fail\n", 7},
    {"lastSevenBitByte", "\x7f", 7},
    {"byte80", "\x80", 7},
    {"byteA0", "\xa0", 7},
    {"byteFF", "\xff", 7},
    {"byte80DoesNotHideWhatFollows", "\x80\x81", 5},
};

static constexpr detection ESCAPES[] = {
    {"new", "\x1b$B", 1},
    {"old", "\x1b$@", 2},
    {"kana", "\x1bK", 3},
    {"behindAscii", "abc\x1b$B0!", 1},
    {"firstDesignationDecides", "\x1b$@\x1b$B", 2},
    {"lone", "\x1b", 7},
    {"withoutThird", "\x1b$", 7},
    {"otherThird", "\x1b$A", 7},
    {"otherThirdIsTakenIn", "\x1b$\x81", 7},
    {"otherSecond", "\x1b(B", 7},
    {"otherSecondIsTakenIn", "\x1b\x81", 7},
    {"escapeAsSecondIsTakenIn", "\x1b\x1b$B", 7},
    {"endsTheUndecided", "\xa4\xa2\x1b$B", 1},
};

static constexpr detection LEADS[] = {
    {"byte81", "\x81", 5},
    {"byte8D", "\x8d", 5},
    {"byte8F", "\x8f", 5},
    {"byte9F", "\x9f", 5},
    {"pair", "\x88\x9f", 5},
    {"behindAscii",
     "abc\x83"
     "A",
     5},
    {"byteF0", "\xf0", 4},
    {"byteFE", "\xfe", 4},
    {"behindUndecided", "\xa4\xa2\xfe\xa1", 4},
    {"sjisBehindUndecided", "\xa4\xa2\x81", 5},
};

static constexpr detection SS2_RULES[] = {
    {"atTheEnd", "\x8e", 7},
    {"then3F", "\x8e\x3f", 7},
    {"then40", "\x8e\x40", 5},
    {"then7E", "\x8e\x7e", 5},
    {"then7F", "\x8e\x7f", 7},
    {"then80", "\x8e\x80", 5},
    {"thenA0", "\x8e\xa0", 5},
    {"thenA1", "\x8e\xa1", 6},
    {"thenDF", "\x8e\xdf", 6},
    {"thenE0", "\x8e\xe0", 5},
    {"thenFC", "\x8e\xfc", 5},
    {"thenFD", "\x8e\xfd", 7},
    {"followerIsTakenIn",
     "\x8e\xb1"
     "a",
     6},
    {"thenFDIsTakenIn",
     "\x8e\xfd"
     "a",
     7},
};

static constexpr detection KANA[] = {
    {"alone", "\xb1", 5},
    {"thenAscii",
     "\xb1"
     "A",
     5},
    {"thenControl", "\xa1\x01", 5},
    {"then9F", "\xdf\x9f", 5},
    {"thenA0", "\xb1\xa0", 7},
    {"thenA1", "\xa1\xa1", 6},
    {"thenDF", "\xdf\xdf", 6},
    {"thenF0", "\xb1\xf0", 4},
    {"thenFE", "\xb1\xfe", 4},
    {"thenFF", "\xb1\xff", 7},
    {"pairs", "\xa4\xa2\xa4\xa4", 6},
    {"threeOfThem", "\xb1\xb2\xb3", 5},
    {"followerIsTakenIn",
     "\xb1\xa0"
     "A",
     7},
};

static constexpr detection RUNS[] = {
    {"thenE0", "\xb1\xe0", 6},
    {"thenEF", "\xb1\xef", 6},
    {"sjis81", "\xb1\xe0\x81", 5},
    {"sjis8D", "\xb1\xe0\x8d", 5},
    {"sjis8F", "\xb1\xe0\x8f", 5},
    {"sjis9F", "\xb1\xe0\x9f", 5},
    {"ss2Leaves", "\xb1\xe0\x8e", 6},
    {"euc", "\xb1\xe0\xfd", 4},
    {"eucFE", "\xb1\xe0\xfe", 4},
    {"fcLeaves", "\xb1\xe0\xfc", 6},
    {"f0LeavesInARun", "\xb1\xe0\xf0", 6},
    {"letterLeaves",
     "\xb1\xe0"
     "A\x40\x7f\x80\xa0\xff",
     6},
    {"decidedFarBehind",
     "\xb1\xe0"
     "ABC\xb1\xb2\x9f",
     5},
    {"endsBelow40", "\xb1\xe0\x3f\xf0", 4},
    {"escapeBehindTheRunCounts", "\xb1\xe0\xa1\x1b$B", 1},
    {"goesOnBehindTheRun", "\xb1\xe0 \xf0", 4},
};

static constexpr detection HIGH_LEADS[] = {
    {"atTheEnd", "\xe0", 7},   {"then3F", "\xe0\x3f", 7}, {"then40", "\xe0\x40", 5},
    {"then7E", "\xef\x7e", 5}, {"then7F", "\xe0\x7f", 7}, {"then80", "\xe0\x80", 5},
    {"thenA0", "\xe0\xa0", 5}, {"thenA1", "\xe0\xa1", 6}, {"thenFC", "\xef\xfc", 6},
    {"thenFD", "\xe0\xfd", 4}, {"thenFE", "\xe0\xfe", 4}, {"thenFF", "\xe0\xff", 7},
};

static std::string name_of(const testing::TestParamInfo<detection> &info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Plain, Detection, testing::ValuesIn(PLAIN), name_of);
INSTANTIATE_TEST_SUITE_P(Escape, Detection, testing::ValuesIn(ESCAPES), name_of);
INSTANTIATE_TEST_SUITE_P(Lead, Detection, testing::ValuesIn(LEADS), name_of);
INSTANTIATE_TEST_SUITE_P(KatakanaPrefix, Detection, testing::ValuesIn(SS2_RULES), name_of);
INSTANTIATE_TEST_SUITE_P(Katakana, Detection, testing::ValuesIn(KANA), name_of);
INSTANTIATE_TEST_SUITE_P(Run, Detection, testing::ValuesIn(RUNS), name_of);
INSTANTIATE_TEST_SUITE_P(HighLead, Detection, testing::ValuesIn(HIGH_LEADS), name_of);

TEST(DetectCodeType, NullIsNoString)
{
    EXPECT_EQ(DetectCodeType(nullptr, 5), -1);
}

TEST(DetectCodeType, LooksAtTheFirstBytesOnly)
{
    EXPECT_EQ(DetectCodeType("abc\x88\x9f", 3), 7);
    EXPECT_EQ(DetectCodeType("abc\x88\x9f", 4), 5);
    EXPECT_EQ(DetectCodeType("\xb1\xfe", 1), 5);  // the cut end counts as the NUL
    EXPECT_EQ(DetectCodeType("\x88", 0), 7);
    EXPECT_EQ(DetectCodeType("\x88", -1), 7);
}

TEST(DetectCodeType, LengthIsClampedToTheText)
{
    EXPECT_EQ(DetectCodeType("ab\0\x88\x9f", 5), 7);
    EXPECT_EQ(DetectCodeType("\xb1", 100), 5);
}

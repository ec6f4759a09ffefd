// The null-safe string functions and the two helpers beside them.
#include "wp_strings.h"

#include <array>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

// Typed, because a bare nullptr would fit two overloads.
static constexpr const char *NONE = nullptr;
static char *const NOWHERE = nullptr;

static int sign(int order)
{
    return (order > 0) - (order < 0);
}

TEST(WpStrings, NullAndEmptyAreNoText)
{
    EXPECT_TRUE(wp_isnull(NONE));
    EXPECT_TRUE(wp_isnull(""));
    EXPECT_FALSE(wp_isnull(" "));
}

struct comparison {
    const char *a;
    const char *b;
    int order;
};

TEST(WpStrings, ComparisonPutsNoTextBeforeAnyText)
{
    static constexpr comparison CASES[] = {
        {NONE, NONE, 0}, {NONE, "", 0},  {"", NONE, 0}, {"", "", 0},         {NONE, "a", -1},
        {"", "a", -1},   {"a", NONE, 1}, {"a", "", 1},  {"a", "b", -1},      {"b", "a", 1},
        {"ab", "ab", 0}, {"ab", "a", 1}, {"a", "A", 1}, {"\x80", "\x7f", 1},
    };
    for (const auto &[a, b, order] : CASES) {
        const std::string which =
            std::string(a != nullptr ? a : "(null)") + " and " + (b != nullptr ? b : "(null)");
        EXPECT_EQ(sign(wp_strcmp(a, b)), order) << which;
        EXPECT_EQ(sign(wp_strncmp(a, b, 10)), order) << which;
    }
}

TEST(WpStrings, BoundedComparisonLooksAtTheFirstBytesOnly)
{
    EXPECT_EQ(wp_strncmp("abcd", "abce", 3), 0);
    EXPECT_LT(wp_strncmp("abcd", "abce", 4), 0);
    EXPECT_EQ(wp_strncmp("x", "y", 0), 0);
    EXPECT_EQ(sign(wp_strncmp(NONE, "y", 0)), -1);
    EXPECT_EQ(sign(wp_strncmp("x", "", 0)), 1);
}

TEST(WpStrings, CopyOfNoTextStoresAnEmptyString)
{
    for (const char *source : {NONE, ""}) {
        std::array<char, 8> dst{"before"};
        EXPECT_EQ(wp_strcpy(dst.data(), source), dst.data());
        EXPECT_STREQ(dst.data(), "");
    }
}

TEST(WpStrings, CopyStoresTheTextAndItsNulOnly)
{
    std::array<char, 8> dst{};
    dst.fill('#');
    EXPECT_EQ(wp_strcpy(dst.data(), "four"), dst.data());
    EXPECT_EQ(std::string(dst.data(), dst.size()), std::string("four\0###", 8));
}

TEST(WpStrings, BoundedCopyFillsWithZerosAndStopsAtTheBound)
{
    std::array<char, 6> dst{};
    dst.fill('#');
    EXPECT_EQ(wp_strncpy(dst.data(), "ab", 5), dst.data());
    EXPECT_EQ(std::string(dst.data(), dst.size()), std::string("ab\0\0\0#", 6));
    dst.fill('#');
    wp_strncpy(dst.data(), "abcdef", 3);
    EXPECT_EQ(std::string(dst.data(), dst.size()), "abc###");
    for (const char *source : {NONE, ""}) {
        dst.fill('#');
        EXPECT_EQ(wp_strncpy(dst.data(), source, 2), dst.data());
        EXPECT_EQ(std::string(dst.data(), dst.size()), std::string("\0\0####", 6));
    }
}

TEST(WpStrings, JoiningNoTextLeavesTheDestination)
{
    for (const char *source : {NONE, ""}) {
        std::array<char, 8> dst{"kept"};
        EXPECT_EQ(wp_strcat(dst.data(), source), dst.data());
        EXPECT_EQ(wp_strncat(dst.data(), source, 3), dst.data());
        EXPECT_STREQ(dst.data(), "kept");
    }
}

TEST(WpStrings, JoiningAppends)
{
    std::array<char, 16> dst{"a"};
    EXPECT_EQ(wp_strcat(dst.data(), "bc"), dst.data());
    EXPECT_STREQ(dst.data(), "abc");
    EXPECT_EQ(wp_strncat(dst.data(), "defg", 2), dst.data());
    EXPECT_STREQ(dst.data(), "abcde");
    wp_strncat(dst.data(), "f", 9);
    EXPECT_STREQ(dst.data(), "abcdef");
    wp_strncat(dst.data(), "x", 0);
    EXPECT_STREQ(dst.data(), "abcdef");
}

TEST(WpStrings, NullDestinationGivesNull)
{
    EXPECT_EQ(wp_strcpy(NOWHERE, "a"), nullptr);
    EXPECT_EQ(wp_strncpy(NOWHERE, "a", 1), nullptr);
    EXPECT_EQ(wp_strcat(NOWHERE, "a"), nullptr);
    EXPECT_EQ(wp_strncat(NOWHERE, "a", 1), nullptr);
}

TEST(WpStrings, DuplicateIsACopyOfItsOwn)
{
    const char *text = "copy me";
    const std::unique_ptr<char, decltype(&std::free)> copy(wp_strdup(text), &std::free);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy.get(), text);
    EXPECT_NE(copy.get(), text);
}

TEST(WpStrings, DuplicateAndSearchOfNoTextGiveNull)
{
    for (const char *none : {NONE, ""}) {
        EXPECT_EQ(wp_strdup(none), nullptr);
        EXPECT_EQ(wp_strchr(none, 'a'), nullptr);
        EXPECT_EQ(wp_strchr(none, '\0'), nullptr);
        EXPECT_EQ(wp_strrchr(none, 'a'), nullptr);
        EXPECT_EQ(wp_strstr(none, "a"), nullptr);
        EXPECT_EQ(wp_strstr("a", none), nullptr);
        EXPECT_EQ(wp_strlen(none), 0U);
    }
    EXPECT_EQ(wp_strchr(NOWHERE, 'a'), nullptr);
    EXPECT_EQ(wp_strrchr(NOWHERE, 'a'), nullptr);
    EXPECT_EQ(wp_strstr(NOWHERE, "a"), nullptr);
}

TEST(WpStrings, SearchFindsFirstAndLast)
{
    const char *path = "a/b/c";
    EXPECT_EQ(wp_strchr(path, '/'), path + 1);
    EXPECT_EQ(wp_strrchr(path, '/'), path + 3);
    EXPECT_EQ(wp_strchr(path, '\0'), path + 5);
    EXPECT_EQ(wp_strchr(path, 'x'), nullptr);
    EXPECT_EQ(wp_strrchr(path, 'x'), nullptr);
    EXPECT_EQ(wp_strstr(path, "/c"), path + 3);
    EXPECT_EQ(wp_strstr(path, "cc"), nullptr);
    EXPECT_EQ(wp_strlen(path), 5U);
}

TEST(WpStrings, SearchInAWritableTextGivesAWritablePlace)
{
    std::array<char, 8> text{"a=b=c"};
    *wp_strchr(text.data(), '=') = '1';
    *wp_strrchr(text.data(), '=') = '2';
    *wp_strstr(text.data(), "c") = 'C';
    EXPECT_STREQ(text.data(), "a1b2C");
}

struct number {
    const char *text;
    int value;
    std::uint32_t value_unsigned;
};

TEST(WpStrings, NumbersAreReadInBaseTen)
{
    static constexpr number CASES[] = {
        {NONE, 0, 0},
        {"", 0, 0},
        {"abc", 0, 0},
        {"-", 0, 0},
        {"0", 0, 0},
        {"42", 42, 42},
        {" \t\n\v\f\r42", 42, 42},
        {"+7", 7, 7},
        {"- 7", 0, 0},
        {"12ab", 12, 12},
        {"0x10", 0, 0},
        {"010", 10, 10},
        {"-1", -1, UINT_MAX},
        {"-5", -5, UINT_MAX - 4},
        {"2147483647", INT_MAX, INT_MAX},
        {"2147483648", INT_MAX, 2147483648U},
        {"-2147483648", INT_MIN, 2147483648U},
        {"-2147483649", INT_MIN, 2147483647U},
        {"4294967295", INT_MAX, UINT_MAX},
        {"4294967296", INT_MAX, UINT_MAX},
        {"-4294967296", INT_MIN, UINT_MAX},
        {"99999999999999999999999999", INT_MAX, UINT_MAX},
        {"-99999999999999999999999999", INT_MIN, UINT_MAX},
    };
    for (const auto &[text, value, value_unsigned] : CASES) {
        EXPECT_EQ(wp_atoi(text), value) << (text != nullptr ? text : "(null)");
        EXPECT_EQ(wp_uatoi(text), value_unsigned) << (text != nullptr ? text : "(null)");
    }
}

TEST(CheckBit, IsTrueWhenAnyOfTheBitsIsSet)
{
    EXPECT_TRUE(CheckBit(0x1100, 0x1000));
    EXPECT_TRUE(CheckBit(0x1100, 0x1001));
    EXPECT_FALSE(CheckBit(0x1100, 0x0011));
    EXPECT_FALSE(CheckBit(0x1100, 0));
    EXPECT_TRUE(CheckBit(0x80000000U, 0x80000000U));
}

TEST(UpStrings, RaisesAsciiLettersInPlace)
{
    std::array<char, 16> text{"az AZ`{09_\xe9"};
    EXPECT_EQ(UpStrings(text.data()), text.data());
    EXPECT_STREQ(text.data(), "AZ AZ`{09_\xe9");
}

TEST(UpStrings, NullStaysNullAndEmptyStaysEmpty)
{
    std::array<char, 1> empty{};
    EXPECT_EQ(UpStrings(NOWHERE), nullptr);
    EXPECT_STREQ(UpStrings(empty.data()), "");
}

// Texts on their way to the agent, against what the agent itself makes of them.
#include "agent/agent_daemon_text.h"
#include "monitor/monitor_charset.h"

#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

static std::string text_in(std::span<const char> field)
{
    return {field.begin(), std::find(field.begin(), field.end(), '\0')};
}

static std::string to_host(const std::string &wire)
{
    std::vector<char> host(2 * wire.size() + 1);
    JConvForDataInFromNetwork(wire.c_str(), host.data(), 1);
    return host.data();
}

static std::string to_network(const std::string &host)
{
    std::vector<char> wire(2 * host.size() + 1);
    JConvForDataOutToNetwork(host.c_str(), wire.data(), 1);
    return wire.data();
}

// Kanji, kana, half-width kana, second bytes that look like ASCII, and characters of the makers' own rows.
static const std::vector<std::string> NAMES{"server1",    "日本",  "電源サーバー", "表示機能", "ﾃｽﾄ",
                                            "ｱ",          "aｱ",    "自社の者",     "ソフト十", "①Ⅳ㈱",
                                            "漢字ｶﾅ混り", "～－∥", "名前 with A",  "社"};

TEST(MonitorCharset, TextsSurviveTheWayToTheHostAndBack)
{
    for (const std::string &name : NAMES) {
        std::array<char, 260> field{};
        ASSERT_EQ(charset_put(name, TEXT_CODE::ShiftJis, field), "") << name;
        EXPECT_EQ(text_safe(to_network(to_host(text_in(field))), TEXT_CODE::ShiftJis), name);
    }
}

TEST(MonitorCharset, EucIsWhatTheAgentsHostKeeps)
{
    for (const char *name : {"日本", "電源サーバー", "ﾃｽﾄ", "自社の者"})
        EXPECT_EQ(charset_encode(name, TEXT_CODE::Euc),
                  to_host(charset_encode(name, TEXT_CODE::ShiftJis).value()))
            << name;
}

// The agent converts them once when they arrive and once when they are told.
TEST(MonitorCharset, UsersNamesAreToldAsTheyWereWritten)
{
    for (const std::string &name : NAMES) {
        std::array<char, 260> field{};
        ASSERT_EQ(charset_put_user(name, field), "") << name;
        EXPECT_EQ(text_safe(to_network(to_network(text_in(field))), TEXT_CODE::ShiftJis), name);
    }
}

TEST(MonitorCharset, UsersSentBackUnchangedStayAsTheyAre)
{
    for (const std::string &name : NAMES) {
        std::array<char, 260> field{};
        const std::string told = charset_encode(name, TEXT_CODE::ShiftJis).value();
        std::copy(told.begin(), told.end(), field.begin());
        ASSERT_EQ(charset_keep_user(field), "") << name;
        EXPECT_EQ(to_network(to_network(text_in(field))), told) << name;
    }
}

TEST(MonitorCharset, AUsersNameThatCannotBeToldIsRefusedAndLeavesTheField)
{
    std::array<char, 21> field{'o', 'l', 'd'};
    // Both bytes lie where the conversion changes every pair, and no pair becomes this one after two of them.
    EXPECT_EQ(charset_put_user("魍", field), "has a character that the agent would tell as another one");
    EXPECT_EQ(text_in(field), "old");
}

TEST(MonitorCharset, LongTextsOfDifficultNamesAreDoneQuickly)
{
    std::string name;
    for (int i = 0; i < 40; ++i)
        name += "自ｱ日";
    std::array<char, 260> field{};
    ASSERT_EQ(charset_put_user(name, field), "");
    EXPECT_EQ(text_safe(to_network(to_network(text_in(field))), TEXT_CODE::ShiftJis), name);
}

TEST(MonitorCharset, LengthsCountBytesAndNothingIsCut)
{
    std::array<char, 16> field{};
    EXPECT_EQ(charset_put("1234567890ABCDE", TEXT_CODE::ShiftJis, field), "");
    EXPECT_EQ(text_in(field), "1234567890ABCDE");
    EXPECT_EQ(charset_put("1234567890ABCDEF", TEXT_CODE::ShiftJis, field), "is too long by 1 byte");
    EXPECT_EQ(charset_put("日本日本日本日本", TEXT_CODE::ShiftJis, field), "is too long by 1 byte");
    // On the host, each of these takes two bytes.
    EXPECT_EQ(charset_put("ｱｱｱｱｱｱｱｱｱ", TEXT_CODE::ShiftJis, field), "is too long by 3 bytes");
    EXPECT_EQ(text_in(field), "1234567890ABCDE");
    EXPECT_EQ(charset_put("x", TEXT_CODE::ShiftJis, field), "");
    EXPECT_EQ(std::string(field.data(), field.size()), std::string("x") + std::string(15, '\0'));
}

TEST(MonitorCharset, AddressesOfUsersHaveTheRoomThatTheAgentReads)
{
    std::array<char, 260> field{};
    EXPECT_EQ(charset_put_user(std::string(255, 'a'), field), "");
    EXPECT_EQ(charset_put_user(std::string(256, 'a'), field), "is too long by 1 byte");
}

TEST(MonitorCharset, CharactersThatTheAgentCannotStoreAreRefused)
{
    std::array<char, 260> field{};
    for (const char *text : {"한국", "😀", "髙", "\xff", "\xe3\x81", "a\x1b[2J", "two\nlines"})
        EXPECT_EQ(charset_put(text, TEXT_CODE::ShiftJis, field),
                  "has a character that the agent cannot store")
            << text;
    EXPECT_EQ(charset_put(std::string("a\0b", 3), TEXT_CODE::ShiftJis, field),
              "has a character that the agent cannot store");
}

TEST(MonitorCharset, SignsOfKeyboardsAreTakenAsTheUsualOnes)
{
    EXPECT_EQ(charset_encode("\u301C\u2212", TEXT_CODE::ShiftJis), "\x81\x60\x81\x7C");
}

TEST(MonitorCharset, CommandsStayUtf8)
{
    std::array<char, 260> field{};
    ASSERT_EQ(charset_put("/usr/bin/通知", TEXT_CODE::Utf8, field), "");
    EXPECT_EQ(text_in(field), "/usr/bin/通知");
    EXPECT_EQ(text_safe(field, TEXT_CODE::Utf8), "/usr/bin/通知");
    EXPECT_NE(charset_put("/bin/\xff", TEXT_CODE::Utf8, field), "");
}

TEST(MonitorCharset, WritingThatTurnsTheDirectionIsShownAsNumbers)
{
    EXPECT_EQ(text_safe(std::string_view("a\u202Eb"), TEXT_CODE::Utf8), "a\\x202Eb");
}

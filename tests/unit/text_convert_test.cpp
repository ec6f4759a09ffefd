// The converters and the network boundary. Each text is converted through the form with a bare pointer, into
// exactly the room that its documentation asks for, so that a sanitizer sees a byte too many.
#include "agent_daemon_text.h"

#include <array>
#include <gtest/gtest.h>
#include <iconv.h>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using namespace std::string_literals;

using converter = int (*)(const char *, char *, int, int);
using boundary = int (*)(const char *, char *, int);
using bounded_boundary = int (*)(std::string_view, std::span<char>, int);

static constexpr int NARROW = 0;
static constexpr int FULL = 1;

// Converts and expects that all of `in` was consumed.
static std::string converted(converter convert, std::size_t room, const std::string &in, int incode,
                             int tofull)
{
    const auto out = std::make_unique<char[]>(room);
    EXPECT_EQ(convert(in.c_str(), out.get(), incode, tofull), static_cast<int>(in.size()));
    return out.get();
}

static std::string to_euc(const std::string &in, int tofull = NARROW, int incode = CODE_SJIS)
{
    return converted(shift2euc, 2 * in.size() + 1, in, incode, tofull);
}

static std::string to_sjis(const std::string &in, int tofull = NARROW, int incode = CODE_EUC)
{
    return converted(euc2shift, in.size() + 1, in, incode, tofull);
}

static std::string same_euc(const std::string &in, int tofull = NARROW, int incode = CODE_EUC)
{
    return converted(euc2euc, in.size() + 1, in, incode, tofull);
}

static std::string same_sjis(const std::string &in, int tofull = NARROW, int incode = CODE_SJIS)
{
    return converted(shift2shift, 2 * in.size() + 1, in, incode, tofull);
}

static std::string across(boundary convert, std::size_t room, const std::string &in, int lang)
{
    const auto out = std::make_unique<char[]>(room);
    const int length = convert(in.c_str(), out.get(), lang);
    EXPECT_EQ(length, static_cast<int>(std::string_view(out.get()).size()));
    return out.get();
}

static std::string arriving(const std::string &in, int lang)
{
    return across(JConvForDataInFromNetwork, 2 * in.size() + 1, in, lang);
}

static std::string leaving(const std::string &in, int lang)
{
    return across(JConvForDataOutToNetwork, in.size() + 1, in, lang);
}

// ---- One code ----

static std::string bytes(int b1, int b2)
{
    return {static_cast<char>(b1), static_cast<char>(b2)};
}

TEST(OneCode, KnownPairs)
{
    static constexpr std::array<std::array<int, 4>, 9> PAIRS = {{
        {0x81, 0x40, 0x21, 0x21},
        {0x81, 0x7E, 0x21, 0x5F},
        {0x81, 0x80, 0x21, 0x60},
        {0x81, 0x9E, 0x21, 0x7E},
        {0x81, 0x9F, 0x22, 0x21},
        {0x88, 0x9F, 0x30, 0x21},
        {0x9F, 0xFC, 0x5E, 0x7E},
        {0xE0, 0x40, 0x5F, 0x21},
        {0xEF, 0xFC, 0x7E, 0x7E},
    }};
    for (const auto &[lead, trail, row, cell] : PAIRS) {
        int b1 = lead;
        int b2 = trail;
        sjis2jis(&b1, &b2);
        EXPECT_EQ(bytes(b1, b2), bytes(row, cell)) << std::hex << lead << trail;
        jis2sjis(&b1, &b2);
        EXPECT_EQ(bytes(b1, b2), bytes(lead, trail)) << std::hex << lead << trail;
    }
}

// No pair has it; noise may.
TEST(OneCode, ASecondByteOf127IsTakenForTheLastBelowTheGap)
{
    int b1 = 0x88;
    int b2 = 0x7F;
    sjis2jis(&b1, &b2);
    EXPECT_EQ(bytes(b1, b2), bytes(0x2F, 0x60));
}

TEST(OneCode, EveryRowAndCellGoesToAPairOfShiftJisAndBack)
{
    for (int row = 0x21; row <= 0x7E; ++row)
        for (int cell = 0x21; cell <= 0x7E; ++cell) {
            int b1 = row;
            int b2 = cell;
            jis2sjis(&b1, &b2);
            EXPECT_TRUE((b1 >= 0x81 && b1 <= 0x9F) || (b1 >= 0xE0 && b1 <= 0xEF)) << row << ' ' << cell;
            EXPECT_TRUE(b2 >= 0x40 && b2 <= 0xFC && b2 != 0x7F) << row << ' ' << cell;
            sjis2jis(&b1, &b2);
            EXPECT_EQ(bytes(b1, b2), bytes(row, cell));
        }
}

// `text` as the C library converts it; empty when it has no mapping.
static std::string by_c_library(iconv_t conversion, std::string text)
{
    std::array<char, 8> out{};
    char *from = text.data();
    char *to = out.data();
    std::size_t from_left = text.size();
    std::size_t to_left = out.size();
    iconv(conversion, nullptr, nullptr, nullptr, nullptr);
    if (iconv(conversion, &from, &from_left, &to, &to_left) != 0)
        return {};
    return {out.data(), out.size() - to_left};
}

static void compare_with_c_library(const char *from, const char *to, int tested, int (*compare)(iconv_t))
{
    const iconv_t conversion = iconv_open(to, from);
    ASSERT_NE(conversion, reinterpret_cast<iconv_t>(-1));
    EXPECT_GE(compare(conversion), tested) << "too few codes were mapped";
    iconv_close(conversion);
}

static int compare_all_euc(iconv_t conversion)
{
    int mapped = 0;
    for (int b1 = 0xA1; b1 <= 0xFE; ++b1)
        for (int b2 = 0xA1; b2 <= 0xFE; ++b2) {
            const std::string expected = by_c_library(conversion, bytes(b1, b2));
            if (expected.size() != 2)
                continue;
            ++mapped;
            EXPECT_EQ(to_sjis(bytes(b1, b2)), expected) << std::hex << b1 << b2;
        }
    return mapped;
}

static int compare_all_sjis(iconv_t conversion)
{
    int mapped = 0;
    for (int b1 = 0x81; b1 <= 0xEF; ++b1)
        for (int b2 = 0x40; b2 <= 0xFC; ++b2) {
            const std::string expected =
                b1 >= 0xA0 && b1 <= 0xDF ? ""s : by_c_library(conversion, bytes(b1, b2));
            if (expected.size() != 2)
                continue;
            ++mapped;
            EXPECT_EQ(to_euc(bytes(b1, b2)), expected) << std::hex << b1 << b2;
        }
    return mapped;
}

TEST(Converters, EucPairsBecomeWhatTheCLibraryMakesOfThem)
{
    compare_with_c_library("EUC-JP", "SHIFT_JIS", 6800, compare_all_euc);
}

TEST(Converters, ShiftJisPairsBecomeWhatTheCLibraryMakesOfThem)
{
    compare_with_c_library("SHIFT_JIS", "EUC-JP", 6800, compare_all_sjis);
}

TEST(Converters, EveryEucPairSurvivesTheRoundTrip)
{
    for (int b1 = 0xA1; b1 <= 0xFE; ++b1)
        for (int b2 = 0xA1; b2 <= 0xFE; ++b2)
            EXPECT_EQ(to_euc(to_sjis(bytes(b1, b2))), bytes(b1, b2));
}

TEST(Converters, EveryHalfWidthKatakanaSurvivesTheRoundTrip)
{
    for (int kana = 0xA1; kana <= 0xDF; ++kana) {
        const std::string sjis(1, static_cast<char>(kana));
        EXPECT_EQ(to_euc(sjis), bytes(0x8E, kana));
        EXPECT_EQ(to_sjis(bytes(0x8E, kana)), sjis);
    }
}

// ---- The four converters ----

struct conversion {
    std::string in;
    std::string out;
};

TEST(ShiftToEuc, TakesCharactersAsTheyCome)
{
    const std::vector<conversion> cases = {
        {"", ""},
        {"plain \x7f", "plain \x7f"},
        {"\x88\x9f", "\xb0\xa1"},
        {"a\x88\x9fz", "a\xb0\xa1z"},
        {"\x81\x5c\x5c", "\xa1\xbd\x5c"},  // a backslash as trail byte, and one by itself
        {"\x88\x3f", "\x88\x3f"},          // no trail byte: both as they are
        {"\x88\xfd\x88\x9f", "\x88\xfd\xb0\xa1"},
        {"\xef\xfc", "\xfe\xfe"},
        {"a\x88", "a\x88"},  // a lead byte at the end
        {"\xb1", "\x8e\xb1"},
        {"\xa1\xdf", "\x8e\xa1\x8e\xdf"},
        {"\xf0\x40\xfc", "\xf0\x40\xfc"},  // F0 and above are no lead bytes here
        {"\x80\xa0\xff", "\x80\xa0\xff"},
        {"\xb6\xde", "\x8e\xb6\x8e\xde"},  // marks stay by themselves while nothing is widened
    };
    for (const auto &[in, out] : cases)
        EXPECT_EQ(to_euc(in), out);
}

TEST(EucToShift, TakesCharactersAsTheyCome)
{
    const std::vector<conversion> cases = {
        {"", ""},
        {"plain \x7f", "plain \x7f"},
        {"\xb0\xa1", "\x88\x9f"},
        {"a\xb0\xa1z", "a\x88\x9fz"},
        {"\xb0 \xb0\xa1", "\xb0 \x88\x9f"},  // no second half: both as they are
        {"\xb0\xff", "\xb0\xff"},
        {"a\xb0", "a\xb0"},  // a first half at the end
        {"\x8e\xb1", "\xb1"},
        {"\x8e\xe0z", "\x8e\xe0z"},  // the prefix before something else
        {"\x8e\x41", "\x8e\x41"},
        {"a\x8e", "a\x8e"},
        {"\x8f\xb0\xa1", "\x8f\x88\x9f"},  // the supplementary set is not known here
        {"\x80\xa0\xff", "\x80\xa0\xff"},
    };
    for (const auto &[in, out] : cases)
        EXPECT_EQ(to_sjis(in), out);
}

TEST(EucToEuc, DropsBrokenPairs)
{
    const std::vector<conversion> cases = {
        {"", ""},
        {"a\xb0\xa1z", "a\xb0\xa1z"},
        {"a\xb0 z", "az"},
        {"a\xb0\xff\xb0\xa1", "a\xb0\xa1"},
        {"a\xb0", "a"},
        {"\x8e\xb1", "\x8e\xb1"},
        {"\x8e\x41z", "\x8e\x41z"},
        {"a\x8e", "a\x8e"},
        {"\x8f\xb0\xa1", "\x8f\xb0\xa1"},
    };
    for (const auto &[in, out] : cases)
        EXPECT_EQ(same_euc(in), out);
}

TEST(ShiftToShift, DropsBrokenPairs)
{
    const std::vector<conversion> cases = {
        {"", ""},
        {"a\x88\x9fz", "a\x88\x9fz"},
        {"a\x88\x3fz", "az"},
        {"a\x88\xfd\x88\x9f", "a\x88\x9f"},
        {"a\x88", "a"},
        {"\xb1\xb6\xde", "\xb1\xb6\xde"},
        {"\xf0\x40", "\xf0\x40"},
    };
    for (const auto &[in, out] : cases)
        EXPECT_EQ(same_sjis(in), out);
}

TEST(Converters, NullInputLeavesAnEmptyOutput)
{
    for (const converter convert :
         std::initializer_list<converter>{shift2euc, euc2shift, euc2euc, shift2shift}) {
        char out[] = "before";
        EXPECT_EQ(convert(nullptr, out, CODE_SJIS, NARROW), 0);
        EXPECT_STREQ(out, "");
        EXPECT_EQ(convert("abc", nullptr, CODE_SJIS, NARROW), 0);
    }
}

// ---- Widening ----

// The full-width forms of 0xA1-0xDF in EUC-JP.
static const std::string WIDE_EUC =
    "\xa1\xa3\xa1\xd6\xa1\xd7\xa1\xa2\xa1\xa6\xa5\xf2"
    "\xa5\xa1\xa5\xa3\xa5\xa5\xa5\xa7\xa5\xa9\xa5\xe3\xa5\xe5\xa5\xe7\xa5\xc3\xa1\xbc"
    "\xa5\xa2\xa5\xa4\xa5\xa6\xa5\xa8\xa5\xaa\xa5\xab\xa5\xad\xa5\xaf\xa5\xb1\xa5\xb3"
    "\xa5\xb5\xa5\xb7\xa5\xb9\xa5\xbb\xa5\xbd\xa5\xbf\xa5\xc1\xa5\xc4\xa5\xc6\xa5\xc8"
    "\xa5\xca\xa5\xcb\xa5\xcc\xa5\xcd\xa5\xce\xa5\xcf\xa5\xd2\xa5\xd5\xa5\xd8\xa5\xdb"
    "\xa5\xde\xa5\xdf\xa5\xe0\xa5\xe1\xa5\xe2\xa5\xe4\xa5\xe6\xa5\xe8\xa5\xe9\xa5\xea"
    "\xa5\xeb\xa5\xec\xa5\xed\xa5\xef\xa5\xf3\xa1\xab\xa1\xac";

TEST(Widening, EveryKatakanaHasItsFullWidthForm)
{
    ASSERT_EQ(WIDE_EUC.size(), 2 * 63U);
    for (int kana = 0xA1; kana <= 0xDF; ++kana) {
        const std::string wide = WIDE_EUC.substr(2 * static_cast<std::size_t>(kana - 0xA1), 2);
        const std::string half(1, static_cast<char>(kana));
        EXPECT_EQ(to_euc(half, FULL), wide) << std::hex << kana;
        EXPECT_EQ(same_euc("\x8e" + half, FULL), wide) << std::hex << kana;
        EXPECT_EQ(same_sjis(half, FULL), to_sjis(wide)) << std::hex << kana;
        EXPECT_EQ(to_sjis("\x8e" + half, FULL), to_sjis(wide)) << std::hex << kana;
    }
}

// In EUC-JP the voiced form stands one behind the plain one, the semi-voiced two; U alone has it elsewhere.
static int voiced_cell(int kana, int cell)
{
    return kana == 0xB3 ? 0xF4 : cell + 1;
}

static bool takes_mark(int kana, int mark)
{
    const bool ha_row = kana >= 0xCA && kana <= 0xCE;
    return ha_row || (mark == 0xDE && ((kana >= 0xB6 && kana <= 0xC4) || kana == 0xB3));
}

static std::string expected_wide(int kana, int mark)
{
    const std::size_t at = 2 * static_cast<std::size_t>(kana - 0xA1);
    std::string wide = WIDE_EUC.substr(at, 2);
    if (!takes_mark(kana, mark))
        return wide + WIDE_EUC.substr(2 * static_cast<std::size_t>(mark - 0xA1), 2);
    const int cell = static_cast<unsigned char>(wide[1]);
    wide[1] = static_cast<char>(mark == 0xDE ? voiced_cell(kana, cell) : cell + 2);
    return wide;
}

TEST(Widening, MarksJoinTheKatakanaThatTakeThemAndNoOthers)
{
    for (const int mark : {0xDE, 0xDF})
        for (int kana = 0xA1; kana <= 0xDF; ++kana) {
            const std::string wide = expected_wide(kana, mark);
            const std::string half = bytes(kana, mark);
            const std::string half_euc = bytes(0x8E, kana) + bytes(0x8E, mark);
            EXPECT_EQ(to_euc(half, FULL), wide) << std::hex << kana << mark;
            EXPECT_EQ(same_sjis(half, FULL), to_sjis(wide)) << std::hex << kana << mark;
            EXPECT_EQ(same_euc(half_euc, FULL), wide) << std::hex << kana << mark;
            EXPECT_EQ(to_sjis(half_euc, FULL), to_sjis(wide)) << std::hex << kana << mark;
        }
}

TEST(Widening, InEucTheMarkNeedsItsPrefix)
{
    EXPECT_EQ(to_sjis("\x8e\xb6\xde", FULL), "\x83\x4a\xde");
    EXPECT_EQ(same_euc("\x8e\xb6\x8e", FULL), "\xa5\xab\x8e");
}

TEST(Widening, WithAnotherCodeNoMarkIsLookedFor)
{
    for (const int incode : {1, 2, 3, 6, 7}) {
        EXPECT_EQ(to_euc("\xb6\xde", FULL, incode), "\xa5\xab\xa1\xab");
        EXPECT_EQ(to_sjis("\x8e\xb6\x8e\xde", FULL, incode), "\x83\x4a\x81\x4a");
    }
}

TEST(Widening, AKatakanaAtTheEndIsWidenedAlone)
{
    EXPECT_EQ(to_euc("\xb6", FULL), "\xa5\xab");
    EXPECT_EQ(to_sjis("\x8e\xb6", FULL), "\x83\x4a");
}

TEST(Widening, TakesInTheMarkItUsed)
{
    const char text[] = "\xb6\xde";
    const char *p = text + 1;
    int b1 = 0xB6;
    int b2 = 0;
    int count = 1;
    han2zen(&p, &b1, &b2, CODE_SJIS, &count, 2);
    EXPECT_EQ(bytes(b1, b2), "\x83\x4b");
    EXPECT_EQ(p, text + 2);
    EXPECT_EQ(count, 2);
}

TEST(Widening, TakesInBothBytesOfAMarkInEuc)
{
    const char text[] = "\x8e\xca\x8e\xdf";
    const char *p = text + 2;
    int b1 = 0xCA;
    int b2 = 0;
    int count = 2;
    han2zen(&p, &b1, &b2, CODE_EUC, &count, 4);
    EXPECT_EQ(bytes(b1, b2), "\x83\x70");
    EXPECT_EQ(p, text + 4);
    EXPECT_EQ(count, 4);
}

TEST(Widening, TakesInNothingElse)
{
    const char text[] = "\xb1\xde";
    const char *p = text + 1;
    int b1 = 0xB1;
    int b2 = 0;
    int count = 1;
    han2zen(&p, &b1, &b2, CODE_SJIS, &count, 2);
    EXPECT_EQ(bytes(b1, b2), "\x83\x41");
    EXPECT_EQ(p, text + 1);
    EXPECT_EQ(count, 1);
}

TEST(Widening, LooksForNoMarkBehindTheEndOfTheText)
{
    const char text[] = "\xb6\xde";
    const char *p = text + 1;
    int b1 = 0xB6;
    int b2 = 0;
    int count = 1;
    han2zen(&p, &b1, &b2, CODE_SJIS, &count, 1);
    EXPECT_EQ(bytes(b1, b2), "\x83\x4a");
    EXPECT_EQ(p, text + 1);
    EXPECT_EQ(count, 1);
}

TEST(Widening, LeavesOtherBytesAlone)
{
    const char *p = "";
    int b1 = 'A';
    int b2 = 5;
    int count = 1;
    han2zen(&p, &b1, &b2, CODE_SJIS, &count, 1);
    EXPECT_EQ(b1, 'A');
    EXPECT_EQ(b2, 5);
}

// ---- The network boundary ----

TEST(Boundary, AsciiPassesUnchanged)
{
    for (const int lang : {0, 1, 2}) {
        EXPECT_EQ(arriving("UPS Ac fail", lang), "UPS Ac fail");
        EXPECT_EQ(leaving("UPS Ac fail", lang), "UPS Ac fail");
    }
}

TEST(Boundary, ShiftJisArrivesAsEucWhateverTheLanguage)
{
    for (const int lang : {0, 1, 2})
        EXPECT_EQ(arriving("a\x88\x9f", lang), "a\xb0\xa1");
}

TEST(Boundary, ALoneHalfWidthKatakanaArrivesWithItsPrefix)
{
    for (const int lang : {0, 1, 2})
        EXPECT_EQ(arriving("\xb1", lang), "\x8e\xb1");
}

TEST(Boundary, UndecidedTextOfAJapaneseClientArrivesAsShiftJis)
{
    for (const int lang : {-1, 0, 1})
        EXPECT_EQ(arriving("\xb1\xb2", lang), "\x8e\xb1\x8e\xb2");
}

TEST(Boundary, UndecidedTextOfAnotherClientIsCopied)
{
    EXPECT_EQ(arriving("\xb1\xb2", 2), "\xb1\xb2");
}

TEST(Boundary, EucAndSevenBitTextsArriveAsTheyAre)
{
    for (const int lang : {1, 2})
        for (const char *text : {"\xf0\xa1\xb0\xa1", "\x1b$B0!\x1b(B", "\x1b$@0!", "\x1bK1", "\x8e", "\xe0"})
            EXPECT_EQ(arriving(text, lang), text);
}

TEST(Boundary, HalfWidthKatakanaStayHalfWidth)
{
    EXPECT_EQ(arriving("\x88\x9f\xb6\xde", 1), "\xb0\xa1\x8e\xb6\x8e\xde");
    EXPECT_EQ(leaving("\xb0\xa1\x8e\xb6\x8e\xde", 1), "\x88\x9f\xb6\xde");
}

TEST(Boundary, EucLeavesAsShiftJisForAJapaneseClient)
{
    for (const int lang : {0, 1})
        EXPECT_EQ(leaving("a\xb0\xa1", lang), "a\x88\x9f");
}

TEST(Boundary, TextLeavesAsItIsForAnotherClient)
{
    EXPECT_EQ(leaving("a\xb0\xa1\x8e\xb1", 2), "a\xb0\xa1\x8e\xb1");
}

// Whatever was detected, what leaves is read as EUC-JP.
TEST(Boundary, ShiftJisLeavingIsReadAsEuc)
{
    EXPECT_EQ(leaving("\x88\x9f", 1), "\x88\x9f");
    EXPECT_EQ(leaving("\x88\xb0\xa1", 1), "\x88\x88\x9f");
}

TEST(Boundary, EmptyTextGivesAnEmptyOutput)
{
    for (const boundary convert :
         std::initializer_list<boundary>{JConvForDataInFromNetwork, JConvForDataOutToNetwork})
        for (const int lang : {1, 2}) {
            char out[] = "before";
            EXPECT_EQ(convert("", out, lang), 0);
            EXPECT_STREQ(out, "");
        }
}

TEST(Boundary, NullAndTheSameBufferAreRefused)
{
    for (const boundary convert :
         std::initializer_list<boundary>{JConvForDataInFromNetwork, JConvForDataOutToNetwork}) {
        char text[] = "\x88\x9f";
        EXPECT_EQ(convert(nullptr, text, 1), -1);
        EXPECT_EQ(convert(text, nullptr, 1), -1);
        EXPECT_EQ(convert(text, text, 1), -1);
        EXPECT_STREQ(text, "\x88\x9f");
    }
}

// ---- Too little room ----

// Every room from 1 byte up: the longest prefix of whole characters, with its NUL, in the room and no
// further.
static void expect_whole_characters(bounded_boundary convert, const std::string &in, int lang,
                                    const std::vector<std::string> &characters)
{
    std::string all;
    for (const auto &character : characters)
        all += character;
    for (std::size_t room = 1; room <= all.size() + 2; ++room) {
        std::string expected;
        for (const auto &character : characters) {
            if (expected.size() + character.size() >= room)
                break;
            expected += character;
        }
        const auto out = std::make_unique<char[]>(room);
        EXPECT_EQ(convert(in, {out.get(), room}, lang), static_cast<int>(expected.size())) << room;
        EXPECT_EQ(std::string(out.get()), expected) << room;
    }
}

TEST(TooLittleRoom, ArrivingShiftJisIsCutBehindACharacter)
{
    expect_whole_characters(JConvForDataInFromNetwork, "a\x88\x9f\xb1z\x88\x9f", 1,
                            {"a", "\xb0\xa1", "\x8e\xb1", "z", "\xb0\xa1"});
}

TEST(TooLittleRoom, ArrivingEucIsCutBehindACharacter)
{
    expect_whole_characters(JConvForDataInFromNetwork,
                            "\xf0\xa1\x8e\xb1"
                            "a\x8f\xb0\xa1\xb0",
                            1, {"\xf0\xa1", "\x8e\xb1", "a", "\x8f\xb0\xa1", "\xb0"});
}

TEST(TooLittleRoom, ArrivingSevenBitTextIsCutBehindACharacter)
{
    expect_whole_characters(JConvForDataInFromNetwork, "a\x1b$B0!0!\x1b(Bz", 1,
                            {"a", "\x1b$B", "0!", "0!", "\x1b(B", "z"});
    expect_whole_characters(JConvForDataInFromNetwork, "\x1bK12", 1, {"\x1bK", "1", "2"});
}

TEST(TooLittleRoom, UndecidedTextIsCutAsEuc)
{
    expect_whole_characters(JConvForDataInFromNetwork, "\xa4\xa2\xa4\xa4", 2, {"\xa4\xa2", "\xa4\xa4"});
}

TEST(TooLittleRoom, LeavingTextIsCutBehindACharacter)
{
    expect_whole_characters(JConvForDataOutToNetwork, "a\xb0\xa1\x8e\xb1z\xb0\xa1", 1,
                            {"a", "\x88\x9f", "\xb1", "z", "\x88\x9f"});
}

TEST(TooLittleRoom, CopiedShiftJisIsCutBehindACharacter)
{
    expect_whole_characters(JConvForDataOutToNetwork, "a\x88\x9f\xb1\xfa\x40", 2,
                            {"a", "\x88\x9f", "\xb1", "\xfa\x40"});
}

TEST(TooLittleRoom, ConvertersSayWhatTheyConsumed)
{
    std::array<char, 4> out{};
    EXPECT_EQ(shift2euc(std::string_view("\x88\x9f\xb1z"), out, CODE_SJIS, NARROW), 2);
    EXPECT_STREQ(out.data(), "\xb0\xa1");
    EXPECT_EQ(euc2shift(std::string_view("a\x8e\xb1\xb0\xa1"), out, CODE_EUC, NARROW), 3);
    EXPECT_STREQ(out.data(), "a\xb1");
    EXPECT_EQ(euc2euc(std::string_view("a\xb0\xa1\x8e\xb1"), out, CODE_EUC, NARROW), 3);
    EXPECT_STREQ(out.data(), "a\xb0\xa1");
    EXPECT_EQ(shift2shift(std::string_view("a\xb6\xde\xb6"), out, CODE_SJIS, FULL), 3);
    EXPECT_STREQ(out.data(), "a\x83\x4b");
}

TEST(TooLittleRoom, NoRoomAtAllIsRefused)
{
    EXPECT_EQ(JConvForDataInFromNetwork(std::string_view("a"), std::span<char>(), 1), -1);
    EXPECT_EQ(JConvForDataOutToNetwork(std::string_view("a"), std::span<char>(), 1), -1);
    EXPECT_EQ(shift2euc(std::string_view("a"), std::span<char>(), CODE_SJIS, NARROW), 0);
}

TEST(Bounded, TextEndsAtItsFirstNul)
{
    std::array<char, 16> out{};
    const std::string_view in("ab\0\x88\x9f", 5);
    EXPECT_EQ(JConvForDataInFromNetwork(in, out, 1), 2);
    EXPECT_STREQ(out.data(), "ab");
    EXPECT_EQ(shift2euc(in, out, CODE_SJIS, NARROW), 2);
}

TEST(Bounded, EmptyViewGivesAnEmptyOutput)
{
    std::array<char, 8> out{"before"};
    EXPECT_EQ(JConvForDataOutToNetwork(std::string_view(), out, 1), 0);
    EXPECT_STREQ(out.data(), "");
}

TEST(Bounded, TheSameBufferIsRefused)
{
    std::array<char, 8> text{"\x88\x9f"};
    EXPECT_EQ(JConvForDataInFromNetwork(std::string_view(text.data()), text, 1), -1);
    EXPECT_STREQ(text.data(), "\x88\x9f");
}

TEST(TextFit, CountsWholeCharacters)
{
    EXPECT_EQ(text_fit("abc", 2, CODE_ASCII), 2U);
    EXPECT_EQ(text_fit("abc", 9, CODE_ASCII), 3U);
    EXPECT_EQ(text_fit("", 9, CODE_EUC), 0U);
    EXPECT_EQ(text_fit("a\xb0\xa1", 2, CODE_EUC), 1U);
    EXPECT_EQ(text_fit("a\xb0\xa1", 3, CODE_EUC), 3U);
    EXPECT_EQ(text_fit("\x8f\xb0\xa1", 2, CODE_EUC), 0U);
    EXPECT_EQ(text_fit("\x88\x9f", 1, CODE_SJIS), 0U);
    EXPECT_EQ(text_fit("\x88", 1, CODE_SJIS), 1U);
}

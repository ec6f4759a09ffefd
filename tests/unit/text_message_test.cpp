// Message lookup in a catalogue that lies where the daemon looks for it; in the sandbox only. The C library
// loads a catalogue once in a process and reads the locale once, so lookups under other conditions happen in
// a process started anew.
#include "agent_main_message.h"

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <malloc.h>
#include <ostream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

static constexpr char CATALOGUE[] = "/usr/lib/voltaria/locale/ja/LC_MESSAGES/voltariad.mo";
static constexpr char SYSTEM_CATALOGUE[] = "/usr/share/locale/ja/LC_MESSAGES/libc.mo";
static constexpr std::array<const char *, 4> VARIABLES = {"LANG", "LANGUAGE", "KDE_LANG", "LC_ALL"};

// "UPS Ac fail" in Japanese, in EUC-JP.
static constexpr char AC_FAIL[] = "\xc4\xe4\xc5\xc5\xa4\xc7\xa4\xb9";
static constexpr char HALF_WIDTH[] = "\x8e\xb6\x8e\xde";
static const std::string KAN = "\xb4\xc1";

// Puts a file in its place whole: a catalogue in use is mapped into memory.
static void install(const std::string &from, const fs::path &to)
{
    fs::create_directories(to.parent_path());
    const fs::path aside = to.string() + ".new";
    fs::copy_file(from, aside, fs::copy_options::overwrite_existing);
    fs::rename(aside, to);
}

static void clear_environment()
{
    for (const char *name : VARIABLES)
        unsetenv(name);
    unsetenv("LC_MESSAGES");
    unsetenv("LC_CTYPE");
}

class Message : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_NE(getenv("VOLTARIA_SANDBOX"), nullptr) << "runs in the sandbox only";
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        install(TEXT_CATALOGUE_EUC, CATALOGUE);
        clear_environment();
    }
};

static std::string variable(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr ? value : "(not set)";
}

static std::string repeated(const std::string &text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i)
        all += text;
    return all;
}

// ---- Any start ----

// Ends this process with 0 when the notices come out in Japanese.
[[noreturn]] static void expect_japanese_and_exit()
{
    message_start();
    const bool first = std::string(GETTEXTj("UPS Ac fail")) == AC_FAIL;
    const bool second = std::string(GETTEXTj("Half width")) == HALF_WIDTH;
    const bool again = std::string(GETTEXTj("UPS Ac fail")) == AC_FAIL;
    std::_Exit(first && second && again ? 0 : 1);
}

struct start {
    const char *name;
    const char *lang;      // null: not set
    const char *lc_all;    // null: not set
    const char *language;  // null: not set
    const char *catalogue;
};

static void PrintTo(const start &param, std::ostream *out)
{
    *out << param.name;
}

class MessageStart : public Message, public testing::WithParamInterface<start>
{
};

static void set_if(const char *name, const char *value)
{
    if (value != nullptr)
        setenv(name, value, 1);
}

TEST_P(MessageStart, GivesJapaneseInEuc)
{
    install(GetParam().catalogue, CATALOGUE);
    set_if("LANG", GetParam().lang);
    set_if("LC_ALL", GetParam().lc_all);
    set_if("LANGUAGE", GetParam().language);
    EXPECT_EXIT(expect_japanese_and_exit(), testing::ExitedWithCode(0), "");
}

static constexpr start STARTS[] = {
    {"NothingSet", nullptr, nullptr, nullptr, TEXT_CATALOGUE_EUC},
    {"C", "C", nullptr, nullptr, TEXT_CATALOGUE_EUC},
    {"Posix", nullptr, "POSIX", nullptr, TEXT_CATALOGUE_EUC},
    {"CUtf8", "C.UTF-8", "C.UTF-8", nullptr, TEXT_CATALOGUE_EUC},
    {"Japanese", "ja_JP.UTF-8", nullptr, nullptr, TEXT_CATALOGUE_EUC},
    {"JapaneseEuc", "ja_JP.eucJP", "ja_JP.eucJP", "ja", TEXT_CATALOGUE_EUC},
    {"German", "de_DE.UTF-8", nullptr, "de:en", TEXT_CATALOGUE_EUC},
    {"GermanByAll", nullptr, "de_DE.UTF-8", nullptr, TEXT_CATALOGUE_EUC},
    {"Nonsense", "\xff/../x", "%n", ":::", TEXT_CATALOGUE_EUC},
    {"CatalogueInUtf8", nullptr, nullptr, nullptr, TEXT_CATALOGUE_UTF8},
    {"CatalogueInUtf8German", "de_DE.UTF-8", "de_DE.UTF-8", "de", TEXT_CATALOGUE_UTF8},
};

static std::string name_of(const testing::TestParamInfo<start> &info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Any, MessageStart, testing::ValuesIn(STARTS), name_of);

[[noreturn]] static void expect_english_and_exit()
{
    message_start();
    std::_Exit(std::string(GETTEXTj("UPS Ac fail")) == "UPS Ac fail" ? 0 : 1);
}

TEST_F(Message, WithoutACatalogueTheTextIsEnglish)
{
    fs::remove(CATALOGUE);
    EXPECT_EXIT(expect_english_and_exit(), testing::ExitedWithCode(0), "");
}

TEST_F(Message, ADamagedCatalogueLeavesTheTextEnglish)
{
    fs::remove(CATALOGUE);
    std::ofstream(CATALOGUE) << "no catalogue at all";
    EXPECT_EXIT(expect_english_and_exit(), testing::ExitedWithCode(0), "");
}

[[noreturn]] static void expect_english_errors_and_exit()
{
    message_start();
    static_cast<void>(GETTEXTj("UPS Ac fail"));
    std::_Exit(std::string(strerror(ENOENT)) == "No such file or directory" ? 0 : 1);
}

TEST_F(Message, SystemErrorTextsStayEnglish)
{
    install(TEXT_CATALOGUE_EUC, SYSTEM_CATALOGUE);
    EXPECT_EXIT(expect_english_errors_and_exit(), testing::ExitedWithCode(0), "");
}

// ---- The start ----

TEST_F(Message, StartPutsJapaneseIntoTheFourVariables)
{
    setenv("LANG", "de_DE.UTF-8", 1);
    message_start();
    for (const char *name : VARIABLES)
        EXPECT_EQ(variable(name), "ja") << name;
}

TEST_F(Message, TheProcessLocaleStaysC)
{
    message_start();
    EXPECT_STREQ(GETTEXTj("UPS Ac fail"), AC_FAIL);
    EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(uselocale(locale_t{}), LC_GLOBAL_LOCALE);
}

// ---- One lookup ----

TEST_F(Message, IsTranslatedWithoutTheStartToo)
{
    EXPECT_STREQ(GETTEXTj("UPS Ac fail"), AC_FAIL);
}

TEST_F(Message, UnknownIdComesBack)
{
    EXPECT_STREQ(GETTEXTj("no such message"), "no such message");
}

TEST_F(Message, NoIdGivesAnEmptyText)
{
    EXPECT_STREQ(GETTEXTj("UPS Ac fail"), AC_FAIL);
    EXPECT_STREQ(GETTEXTj(""), "");
    EXPECT_STREQ(GETTEXTj(nullptr), "");
}

TEST_F(Message, EveryLookupOverwritesTheLast)
{
    const char *first = GETTEXTj("UPS Ac fail");
    const char *second = GETTEXTj("Half width");
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, HALF_WIDTH);
}

TEST_F(Message, ResultOfALookupMayBeLookedUp)
{
    EXPECT_STREQ(GETTEXTj(GETTEXTj("no such message")), "no such message");
}

TEST_F(Message, LongTranslationIsCutBehindACharacter)
{
    EXPECT_EQ(GETTEXTj("Even and long"), repeated(KAN, 127));
    EXPECT_EQ(GETTEXTj("Odd and long"), "A" + repeated(KAN, 127));
}

TEST_F(Message, LongUnknownIdIsCutAt255)
{
    EXPECT_EQ(GETTEXTj(std::string(300, 'x').c_str()), std::string(255, 'x'));
}

TEST_F(Message, EnglishIsTheIdItself)
{
    const char *id = "UPS Ac fail";
    EXPECT_EQ(GETTEXTe(id), id);
    EXPECT_EQ(GETTEXTe(nullptr), nullptr);
}

// ---- The environment ----

TEST_F(Message, VariablesKeepTheirValues)
{
    for (const char *name : VARIABLES)
        setenv(name, (std::string("value of ") + name).c_str(), 1);
    EXPECT_STREQ(GETTEXTj("UPS Ac fail"), AC_FAIL);
    for (const char *name : VARIABLES)
        EXPECT_EQ(variable(name), std::string("value of ") + name);
}

TEST_F(Message, VariableThatWasNotSetIsEmptyAfterwards)
{
    setenv("LANG", "C", 1);
    EXPECT_STREQ(GETTEXTj("UPS Ac fail"), AC_FAIL);
    EXPECT_EQ(variable("LANG"), "C");
    EXPECT_EQ(variable("LANGUAGE"), "");
    EXPECT_EQ(variable("KDE_LANG"), "");
    EXPECT_EQ(variable("LC_ALL"), "");
}

TEST_F(Message, LangThatWasNotSetIsEmptyAfterwards)
{
    EXPECT_STREQ(GETTEXTj("UPS Ac fail"), AC_FAIL);
    EXPECT_EQ(variable("LANG"), "");
}

TEST_F(Message, LongValueIsKeptUpTo255Characters)
{
    setenv("LANGUAGE", std::string(255, 'a').c_str(), 1);
    setenv("LANG", std::string(300, 'b').c_str(), 1);
    EXPECT_STREQ(GETTEXTj("UPS Ac fail"), AC_FAIL);
    EXPECT_EQ(variable("LANGUAGE"), std::string(255, 'a'));
    EXPECT_EQ(variable("LANG"), std::string(255, 'b'));
}

TEST_F(Message, LookupsForYearsTakeNoMemory)
{
    message_start();
    const std::vector<const char *> ids = {"UPS Ac fail", "Half width", "no such message"};
    for (const char *id : ids)
        static_cast<void>(GETTEXTj(id));
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 20000; ++i)
        static_cast<void>(GETTEXTj(ids[static_cast<std::size_t>(i) % ids.size()]));
    EXPECT_EQ(mallinfo2().uordblks, before);
}

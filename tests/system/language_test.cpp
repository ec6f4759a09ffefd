// Languages side by side: every monitor is sent notices in its own, whatever language the machine was started
// in and with no Japanese locale installed; terminals are told in English, mail is in Japanese. In virtual
// time.
#include "vt_stage.h"

#include "tests/support/catalogue_file.h"
#include "wire_records.h"

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <iconv.h>
#include <regex>

using namespace bed;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::SizeIs;

namespace
{

constexpr char CATALOGUE[] = "/usr/lib/voltaria/locale/ja/LC_MESSAGES/voltariad.mo";
constexpr std::int32_t JAPANESE = 1;
constexpr std::int32_t ENGLISH = 2;

// What a notice is in UTF-8; a byte that does not belong there ends the test.
std::string utf8(std::string text, const char *from)
{
    const iconv_t converter = iconv_open("UTF-8", from);
    std::string out(4 * text.size() + 8, '\0');
    char *in = text.data();
    char *at = out.data();
    std::size_t left = text.size();
    std::size_t room = out.size();
    if (iconv(converter, &in, &left, &at, &room) != 0)
        ADD_FAILURE() << "not in " << from << ", at byte " << text.size() - left;
    iconv_close(converter);
    out.resize(out.size() - room);
    return out;
}

// The catalogue's texts in UTF-8, by their English form.
const std::map<std::string, std::string> &catalogue()
{
    static const auto messages = [] {
        auto all = testbed::read_catalogue(CATALOGUE);
        for (auto &[id, text] : all)
            text = utf8(text, "EUC-JP");
        return all;
    }();
    return messages;
}

// The texts in which `found` matches a placeholder's value.
std::regex pattern_of(const std::string &id)
{
    const std::string plain = std::regex_replace(id, std::regex(R"([.()!?*+])"), R"(\$&)");
    return std::regex(std::regex_replace(plain, std::regex("%[0-9]*[a-z]"), "(.*)"));
}

// What the catalogue makes of an English notice: the same arguments in the same order.
std::string in_japanese(const std::string &english)
{
    for (const auto &[id, text] : catalogue()) {
        std::smatch found;
        if (id.empty() || !std::regex_match(english, found, pattern_of(id)))
            continue;
        std::string japanese = text;
        for (std::size_t i = 1; i < found.size(); ++i)
            japanese = std::regex_replace(japanese, std::regex("%[0-9]*[a-z]"), found[i].str(),
                                          std::regex_constants::format_first_only);
        return japanese;
    }
    return "no translation of: " + english;
}

// A monitor that says its language in its greeting.
class Monitor
{
  public:
    explicit Monitor(std::int32_t lang)
    {
        VTOSINFO about{};
        about.lang = lang;
        about.os = 2;
        client_.send(
            packet(DATAID_OSINFO, std::string_view(reinterpret_cast<const char *>(&about), sizeof about)));
        EXPECT_EQ(receive_answer(client_).at(3), static_cast<char>(DATAID_OSINFO));
    }

    // The next `count` notices, as they were sent.
    [[nodiscard]] std::vector<std::string> notices(std::size_t count) const
    {
        std::vector<std::string> texts;
        while (texts.size() < count) {
            const std::string bytes = receive_packet(client_);
            if (bytes.at(3) == NOTICE)
                texts.push_back(bytes.substr(8));
        }
        return texts;
    }

  private:
    testbed::TcpClient client_;
};

std::vector<std::string> from_shift_jis(std::vector<std::string> texts)
{
    for (std::string &text : texts)
        text = utf8(text, "SHIFT_JIS");
    return texts;
}

std::vector<std::string> in_japanese(std::vector<std::string> texts)
{
    for (std::string &text : texts)
        text = in_japanese(text);
    return texts;
}

// What the daemon inherits of languages is this alone; null: not even LANG.
void start_in(const char *lang)
{
    for (const char *name :
         {"LANG", "LANGUAGE", "LC_ALL", "LC_CTYPE", "LC_MESSAGES", "KDE_LANG", "LOCPATH", "OUTPUT_CHARSET"})
        unsetenv(name);
    if (lang != nullptr)
        setenv("LANG", lang, 1);
}

// A developer's machine may have others than the one that every system has.
void remove_locales()
{
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator("/usr/lib/locale", ignored))
        if (!entry.path().filename().string().starts_with("C."))
            std::filesystem::remove_all(entry, ignored);
    for (const char *name : {"ja_JP.UTF-8", "ja_JP.eucJP", "ja_JP"})
        ASSERT_EQ(newlocale(LC_ALL_MASK, name, locale_t{}), locale_t{}) << name << " is installed";
}

// The time on battery is told as soon as mains fail.
const Settings TOLD_AT_ONCE = {{"UPS", "AgentType", "4"},
                               {"ShutDown", "EXPECTBLIFE", "3600"},
                               {"ShutDown", "FIRSTWARN", "0"},
                               {"ShutDown", "INTERVAL", "60"}};

struct Start {
    const char *name;
    const char *lang;
};

class Language : public testing::TestWithParam<Start>
{
  protected:
    void SetUp() override
    {
        remove_locales();
        start_in(GetParam().lang);
    }
};

INSTANTIATE_TEST_SUITE_P(StartedIn, Language,
                         testing::Values(Start{"NothingSet", nullptr}, Start{"C", "C"},
                                         Start{"Japanese", "ja_JP.UTF-8"}, Start{"German", "de_DE.UTF-8"}),
                         [](const auto &start) { return std::string(start.param.name); });

}  // namespace

TEST_P(Language, EveryMonitorIsSentNoticesInItsOwn)
{
    Stage stage({.settings = TOLD_AT_ONCE});
    const Monitor japanese(JAPANESE);
    const Monitor english(ENGLISH);
    const Monitor neither(0);
    stage.link_up();
    stage.unit("mains fail");
    stage.run(5s);
    stage.unit("mains return");
    stage.run(5s);
    stage.order_down(600, "desk");
    stage.cancel_order("desk");
    stage.run(2s);
    const std::vector<std::string> told = texts(stage.notices());
    ASSERT_THAT(told,
                IsSupersetOf(std::vector<testing::Matcher<std::string>>{
                    "UPS Communication established", HasSubstr("UPS Ac fail, System will be shut down in "),
                    "UPS AC Restore", "Receive shutdown Command From Users on desk",
                    "The Shutdown is Canceled by Users on desk"}));
    EXPECT_EQ(english.notices(told.size()), told);
    const std::vector<std::string> localised = from_shift_jis(japanese.notices(told.size()));
    EXPECT_EQ(localised, in_japanese(told));
    EXPECT_THAT(localised, Contains("復電"));
    EXPECT_THAT(localised, Contains("deskのユーザからのシャットダウン指示を受信"));
    EXPECT_EQ(from_shift_jis(neither.notices(told.size())), localised);
}

TEST_P(Language, TerminalsAreToldInEnglishMailIsInJapaneseAndTheLogHoldsNumbers)
{
    testbed::set_logged_in("ann pts/1\n");
    Settings settings = TOLD_AT_ONCE;
    const Settings users = {{"Event65", "BroadcastType", "0"},
                            {"Event65", "MailUser", "1"},
                            {"Event0", "BroadcastType", "2"},
                            {"Event0", "BroadcastUser", "1"},
                            {"Event0", "MailUser", "1"},
                            {"UserInfo", "UserID", "1"},
                            {"1", "Name", "ann"},
                            {"1", "Email", "ann@example.org"}};
    settings.insert(settings.end(), users.begin(), users.end());
    Stage stage({.settings = settings, .monitor = false});
    stage.link_up();
    stage.unit("mains fail");
    stage.run(5s);
    stage.unit("mains return");
    stage.run(5s);
    EXPECT_FALSE(stage.walls().empty());
    EXPECT_THAT(texts(stage.walls()), Each(HasSubstr("UPS Ac fail, System will be shut down in ")));
    ASSERT_THAT(testbed::calls_of("write"), SizeIs(1));
    EXPECT_EQ(testbed::calls_of("write").at(0).input, "UPS AC Restore\n");
    const std::vector<testbed::Call> mails = testbed::calls_of("mail");
    ASSERT_THAT(mails, SizeIs(2));
    EXPECT_EQ(utf8(mails.at(0).input, "EUC-JP"), in_japanese("UPS Ac fail") + "\n");
    EXPECT_EQ(utf8(mails.at(1).input, "EUC-JP"), "復電\n");
    EXPECT_THAT(ids(stage.events()), ElementsAre(7, 1, 65, 0));
    for (const char c : testbed::read_file(testbed::EVENT_LOG))
        EXPECT_LT(static_cast<unsigned char>(c), 0x80);
}

// The date of a schedule's warning has a form of its own in Japanese.
TEST(Languages, AScheduledShutdownIsAnnouncedWithItsDateInBoth)
{
    start_in(nullptr);
    Stage stage({.settings = {{"UPS", "AgentType", "4"},
                              {"ScheShutDown", "SPECIALNO", "1"},
                              {"ScheShutDown", "SPECIALDAYSTART1", "30 22 5 2 * 124"},
                              {"ScheShutDown", "SPECIALDAYEND1", "30 23 5 2 * 124"}},
                 .start = 1'709'677'440});  // Tuesday 5 March 2024, 22:24 UTC
    const Monitor japanese(JAPANESE);
    stage.link_up();
    stage.run(5s);
    EXPECT_THAT(
        texts(stage.notices()),
        ElementsAre("UPS Communication established",
                    "system shutdown warning begin(schedule:specialday) Date:2024-3-5 Time: 22:30:00."));
    EXPECT_THAT(from_shift_jis(japanese.notices(2)),
                ElementsAre("UPSとの通信確立",
                            "シャットダウン予告(指定日スケジュール): 2024年 3月 5日 22:30:00 "
                            "にシステムをシャットダウンします。"));
}

// A monitor's Japanese name comes in Shift_JIS and stands as it came in every notice, whatever the language.
TEST(Languages, AMonitorsJapaneseNameStandsInTheNoticesOfBoth)
{
    start_in(nullptr);
    Stage stage;
    const Monitor japanese(JAPANESE);
    stage.link_up();
    stage.order_down(1200, "\x8e\x96\x96\xb1\x8e\xba");  // 事務室
    stage.cancel_order("\x8e\x96\x96\xb1\x8e\xba");
    stage.run(2s);
    EXPECT_THAT(from_shift_jis(texts(stage.notices())),
                ElementsAre("UPS Communication established", "Receive shutdown Command From Users on 事務室",
                            "The Shutdown is Canceled by Users on 事務室"));
    EXPECT_THAT(from_shift_jis(japanese.notices(3)),
                ElementsAre("UPSとの通信確立", "事務室のユーザからのシャットダウン指示を受信",
                            "事務室のユーザによるシャットダウンの取り消し"));
}

// The Japanese catalogue as it is installed, against the texts that the sources look up: nothing is missing,
// nothing is left over, and every text survives the buffers, the formats and the way to a monitor.
#include "agent_daemon_text.h"
#include "e_a_error.h"
#include "e_a_event_table.h"
#include "e_a_internal.h"
#include "tests/support/catalogue_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iconv.h>
#include <set>

using testing::HasSubstr;
using testing::IsEmpty;

using Messages = std::map<std::string, std::string>;

// From id to translation, the header left out.
static const Messages &catalogue()
{
    static const Messages messages = [] {
        Messages all = testbed::read_catalogue(CATALOGUE);
        all.erase("");
        return all;
    }();
    return messages;
}

// What the sources look up.
static std::set<std::string> looked_up()
{
    std::set<std::string> ids;
    for (const auto &[id, text] : testbed::read_catalogue(LOOKED_UP))
        ids.insert(id);
    ids.erase("");
    return ids;
}

static std::string translation(const std::string &id)
{
    const auto found = catalogue().find(id);
    return found != catalogue().end() ? found->second : "(none)";
}

// The text in another encoding, or "(impossible)".
static std::string converted(std::string text, const char *to, const char *from)
{
    const iconv_t converter = iconv_open(to, from);
    std::string out(4 * text.size() + 8, '\0');
    char *in = text.data();
    char *at = out.data();
    std::size_t left = text.size();
    std::size_t room = out.size();
    const bool whole = iconv(converter, &in, &left, &at, &room) == 0 && left == 0;
    iconv_close(converter);
    out.resize(out.size() - room);
    return whole ? out : "(impossible)";
}

// The placeholders of a format, in their order: "%04d", "%s".
static std::vector<std::string> placeholders(const std::string &format)
{
    std::vector<std::string> found;
    for (std::size_t at = format.find('%'); at != std::string::npos; at = format.find('%', at)) {
        const std::size_t end = std::min(format.find_first_not_of("0123456789$", at + 1), format.size() - 1);
        found.push_back(format.substr(at, end + 1 - at));
        at = end + 1;
    }
    return found;
}

// ---- complete ----

TEST(Catalogue, HasATranslationOfItsOwnForEveryTextThatIsLookedUp)
{
    for (const std::string &id : looked_up()) {
        EXPECT_EQ(catalogue().count(id), 1u) << id;
        EXPECT_NE(translation(id), id);
        EXPECT_THAT(translation(id), testing::Not(IsEmpty())) << id;
    }
}

TEST(Catalogue, HasNoTranslationOfATextThatIsNotLookedUp)
{
    const std::set<std::string> wanted = looked_up();
    for (const auto &[id, text] : catalogue())
        EXPECT_EQ(wanted.count(id), 1u) << id;
}

TEST(Catalogue, EveryEventIsTranslated)
{
    const std::set<std::string> wanted = looked_up();
    for (const EVENTMSG &event : EventMsg) {
        EXPECT_EQ(catalogue().count(event.msg), 1u) << event.eID << ' ' << event.msg;
        EXPECT_EQ(wanted.count(event.msg), 1u) << "not found in the sources: " << event.msg;
    }
}

TEST(Catalogue, DifferentEventsReadDifferently)
{
    std::set<std::string> texts;
    for (const EVENTMSG &event : EventMsg)
        EXPECT_TRUE(texts.insert(translation(event.msg)).second) << event.msg;
}

// People who write a monitor look the numbers up there.
TEST(Catalogue, EventsAreDocumentedWithTheirTexts)
{
    std::ifstream document(DOCUMENT);
    std::set<std::string> rows;
    for (std::string line; std::getline(document, line);)
        rows.insert(line);
    for (const EVENTMSG &event : EventMsg) {
        const std::string japanese = converted(translation(event.msg), "UTF-8", "EUC-JP");
        const std::string row =
            "| " + std::to_string(event.eID) + " | " + event.msg + " | " + japanese + " |";
        EXPECT_EQ(rows.count(row), event.eID != 255 ? 1u : 0u) << row;
    }
}

// ---- usable ----

TEST(Catalogue, TranslationsTakeTheSameArgumentsInTheSameOrder)
{
    for (const auto &[id, text] : catalogue())
        EXPECT_EQ(placeholders(text), placeholders(id)) << id;
}

TEST(Catalogue, ACountdownReadsWellWithItsNumbers)
{
    const auto in_japanese = [](const char *id, std::initializer_list<NOTICEARG> arguments) {
        return converted(notice_format(translation(id).c_str(), arguments), "UTF-8", "EUC-JP");
    };
    EXPECT_EQ(in_japanese("UPS Ac fail, System will be shut down in %d minute(s) and %d second(s).",
                          {notice_arg(2), notice_arg(5)}),
              "停電が発生しました。システムは2分5秒後にシャットダウンします。");
    EXPECT_EQ(
        in_japanese("system shutdown warning begin(schedule:weekly) %04dyear %2dmonth %2dday %s.",
                    {notice_arg(2026), notice_arg(3), notice_arg(14), notice_arg("22:30:00")}),
        "シャットダウン予告(毎週スケジュール): 2026年 3月14日 22:30:00 にシステムをシャットダウンします。");
    EXPECT_EQ(
        in_japanese("%s, The system will begin shutdown process.", {notice_arg(translation("UPS overload"))}),
        "UPS過負荷のため、システムのシャットダウン処理を開始します。");
}

// A notice ends its line where the English one does.
TEST(Catalogue, LinesEndWhereTheEnglishOnesEnd)
{
    for (const auto &[id, text] : catalogue()) {
        EXPECT_EQ(text.ends_with('\n'), id.ends_with('\n')) << id;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), std::count(id.begin(), id.end(), '\n')) << id;
    }
}

// The engine's error buffer is the smallest that a text must fit, and cuts anywhere.
TEST(Catalogue, EveryTextFitsWhole)
{
    for (const auto &[id, text] : catalogue())
        EXPECT_LT(text.size(), ERRBUFFER_SIZE) << id;
}

// ---- for every monitor ----

TEST(Catalogue, IsInEucJp)
{
    const Messages all = testbed::read_catalogue(CATALOGUE);
    ASSERT_EQ(all.count(""), 1u);
    EXPECT_THAT(all.at(""), HasSubstr("charset=EUC-JP\n"));
}

// Two bytes of the rows that JIS X 0208 fills, or ASCII: no half-width katakana, nothing of a vendor's.
TEST(Catalogue, HoldsNoCharacterThatAMonitorMayNotKnow)
{
    for (const auto &[id, text] : catalogue())
        for (std::size_t i = 0; i < text.size(); ++i) {
            const int lead = static_cast<unsigned char>(text[i]);
            if (lead < 0x80) {
                EXPECT_TRUE((lead >= ' ' && lead < 0x7F && lead != '\\' && lead != '~') || lead == '\n')
                    << id;
                continue;
            }
            const int row = lead - 0xA0;
            const int cell = i + 1 < text.size() ? static_cast<unsigned char>(text[++i]) - 0xA0 : 0;
            EXPECT_TRUE((row >= 1 && row <= 8) || (row >= 16 && row <= 84)) << id << ": row " << row;
            EXPECT_TRUE(cell >= 1 && cell <= 94) << id << ": cell " << cell;
        }
}

TEST(Catalogue, ReachesAMonitorInShiftJisAsTheSameText)
{
    for (const auto &[id, text] : catalogue()) {
        std::string sent(2 * text.size() + 1, '\0');
        sent.resize(static_cast<std::size_t>(JConvForDataOutToNetwork(text, std::span<char>(sent), 1)));
        EXPECT_EQ(sent, converted(text, "SHIFT_JIS", "EUC-JP")) << id;
        EXPECT_EQ(converted(sent, "UTF-8", "SHIFT_JIS"), converted(text, "UTF-8", "EUC-JP")) << id;
    }
}

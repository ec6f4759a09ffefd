// Scenarios and commands as they are written.
#include "sim/sim.h"
#include "sim/sim_text.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;

TEST(SimText, DurationsInTheirForms)
{
    EXPECT_EQ(sim::duration_of("10"), 10s);
    EXPECT_EQ(sim::duration_of("10s"), 10s);
    EXPECT_EQ(sim::duration_of("1.5s"), 1500ms);
    EXPECT_EQ(sim::duration_of("200ms"), 200ms);
    EXPECT_EQ(sim::duration_of("1m30s"), 90s);
    EXPECT_EQ(sim::duration_of("2h"), 2h);
    EXPECT_EQ(sim::duration_of("0"), 0s);
    for (const char *bad :
         {"", "s", "10x", "-1", "1m30", ".", "1..5s", "1e3", "10 s", "99999999999", "999999999h"})
        EXPECT_EQ(sim::duration_of(bad), std::nullopt) << bad;
}

TEST(SimText, NumbersInTheirForms)
{
    EXPECT_EQ(sim::number_of("0"), 0.0);
    EXPECT_EQ(sim::number_of("-5"), -5.0);
    EXPECT_DOUBLE_EQ(sim::number_of("12.25").value_or(0), 12.25);
    for (const char *bad : {"", "-", ".", "1.2.3", "0x10", "1e5", "inf", "nan", "5 "})
        EXPECT_EQ(sim::number_of(bad), std::nullopt) << bad;
}

TEST(SimText, WordsWithQuotesEscapesAndComments)
{
    const sim::Words words = sim::split_words("reply \"Lf ?\" 60.0\\r \"a\\\"b\" \\x41\\x00 # rest");
    EXPECT_EQ(words.error, "");
    ASSERT_EQ(words.words.size(), 5U);
    EXPECT_EQ(words.words[1].text, "Lf ?");
    EXPECT_TRUE(words.words[1].quoted);
    EXPECT_EQ(words.words[2].text, "60.0\r");
    EXPECT_EQ(words.words[3].text, "a\"b");
    EXPECT_EQ(words.words[4].text, std::string("A\0", 2));
    EXPECT_EQ(sim::split_words("a \"b").error, "missing closing quote");
    EXPECT_EQ(sim::split_words("a \\q").error, "bad escape");
    EXPECT_EQ(sim::split_words("a \\x4").error, "bad escape");
    EXPECT_EQ(sim::split_words("a \\").error, "bad escape");
}

TEST(SimText, EscapedBytesAreReadBackTheSame)
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes.push_back(static_cast<char>(i));
    const sim::Words words = sim::split_words("\"" + sim::escaped(bytes) + "\"");
    ASSERT_EQ(words.words.size(), 1U);
    EXPECT_EQ(words.words[0].text, bytes);
    EXPECT_EQ(sim::escaped("Q1\r"), "Q1\\r");
    EXPECT_EQ(sim::escaped("\x13\xFF"), "\\x13\\xFF");
}

TEST(SimScript, StepsAreSortedByTimeAndKeepTheirOrderWithinOne)
{
    const sim::ParsedScript parsed = sim::parse_script("# an evening\n"
                                                       "\n"
                                                       "at 40s mains return\r\n"
                                                       "at 10s mains fail\n"
                                                       "after 5s load 50   # at 15 s\n"
                                                       "at 10s battery 50");
    EXPECT_EQ(parsed.error, "");
    ASSERT_EQ(parsed.script.steps.size(), 4U);
    EXPECT_EQ(parsed.script.steps[0].action.text, "mains fail");
    EXPECT_EQ(parsed.script.steps[1].action.text, "battery 50");
    EXPECT_EQ(parsed.script.steps[2].at, 15s);
    EXPECT_EQ(parsed.script.steps[3].at, 40s);
}

TEST(SimScript, BadLinesAreToldWithTheirNumber)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"at 1s mains fail\nmains return\n", "line 2: expected 'at TIME COMMAND' or 'after TIME COMMAND'"},
        {"at\n", "line 1: expected a time such as 10s, 1m30s or 500ms"},
        {"at soon mains fail", "line 1: expected a time such as 10s, 1m30s or 500ms"},
        {"\n\nat 1s\n", "line 3: expected a command after the time"},
        {"at 1s mainz fail", "line 1: unknown command 'mainz'"},
        {"at 1s mains", "line 1: unknown command 'mains'"},
        {"at 1s load", "line 1: missing PERCENT, usage: load PERCENT"},
        {"at 1s load much", "line 1: bad value 'much', usage: load PERCENT"},
        {"at 1s battery 101", "line 1: bad value '101', usage: battery PERCENT"},
        {"at 1s battery low maybe", "line 1: bad value 'maybe', usage: battery low on|off|auto"},
        {"at 1s mains fail now", "line 1: 'now' is too much, usage: mains fail"},
        {"at 1s model ZX1", "line 1: bad value 'ZX1', usage: model NAME"},
        {"at 1s garbage \"x", "line 1: missing closing quote"},
        {"at 1s \"mains\" fail", "line 1: unknown command 'mains'"},
        {"at 1s garbage stream 0", "line 1: bad value '0', usage: garbage stream RATE [SEED]"},
    };
    for (const auto &[text, error] : cases)
        EXPECT_EQ(sim::parse_script(text).error, error) << text;
}

TEST(SimScript, TheLongestMatchingWordsMakeTheCommand)
{
    EXPECT_EQ(sim::parse_command("battery 50").command->words, "battery");
    EXPECT_EQ(sim::parse_command("battery low auto").command->words, "battery low");
    EXPECT_EQ(sim::parse_command("garbage stream 10 3").command->words, "garbage stream");
    EXPECT_EQ(sim::parse_command("garbage \"stream\" 10").command->words, "garbage");
    EXPECT_EQ(sim::parse_command("garbage off").command->words, "garbage off");
    const sim::ParsedCommand text = sim::parse_command("reply V \"off\"");
    EXPECT_FALSE(text.values[1].keyword);
    EXPECT_TRUE(sim::parse_command("reply V off").values[1].keyword);
    EXPECT_EQ(sim::parse_command("reply V (1 2\\r").values[1].text, "(1 2\r");
}

TEST(SimScript, EmptyLinesAreNeitherCommandNorError)
{
    for (const char *line : {"", "   ", "# comment"}) {
        EXPECT_EQ(sim::parse_command(line).command, nullptr);
        EXPECT_EQ(sim::parse_command(line).error, "");
    }
}

TEST(SimScript, EveryCommandHasHelpAndANameOfItsOwn)
{
    std::set<std::string_view> seen;
    for (const sim::Command &command : sim::commands()) {
        EXPECT_FALSE(command.help.empty()) << command.words;
        EXPECT_NE(command.run, nullptr) << command.words;
        EXPECT_TRUE(seen.insert(command.words).second) << command.words;
    }
}

}  // namespace

// The commands of `voltaria` that only look, against a scripted agent: hostile answers, helps, ends.
#include "monitor/monitor_records.h"
#include "monitor_fake_agent.h"
#include "monitor_terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using testing::HasSubstr;

// Answers the hello, then everything else with `answer`.
static auto answering(const BYTES &answer)
{
    return [answer](int fd) {
        for (BYTES request = read_request(fd); !request.empty(); request = read_request(fd))
            if (!send_bytes(fd, request[3] == 17 ? packet(17, std::span(request).subspan(8)) : answer))
                return;
    };
}

static PROGRAM_RESULT run_against(const BYTES &answer, std::vector<std::string> arguments)
{
    FAKE_AGENT agent(answering(answer));
    arguments.insert(arguments.end(), {"--port", std::to_string(agent.port)});
    return run_program(arguments);
}

TEST(VoltariaRead, HostileLogsAreShownHarmless)
{
    UPS_EVENTLOGINFO line{99, 98, 0, {255, 99, -1, 77, 0, 0, 0}, {}};
    line.AgentName.fill('\x1b');
    const BYTES answer = packet(65, monitor_encode(line));
    for (const char *form : {"--all", "--json", "--csv"}) {
        const PROGRAM_RESULT result = run_against(answer, {"log", form});
        EXPECT_EQ(result.status, 0) << form;
        EXPECT_EQ(result.output.find('\x1b'), std::string::npos) << form;
        EXPECT_THAT(result.output, HasSubstr("invalid (255 99 -1 77 0 0)")) << form;
    }
}

TEST(VoltariaRead, AnswersOfWrongLengthEndWithOne)
{
    for (const BYTES &answer : {packet(65, BYTES(27)), packet(66, BYTES(25)), packet(64, {})}) {
        EXPECT_EQ(run_against(answer, {"log"}).status, 1);
        EXPECT_EQ(run_against(answer, {"data"}).status, 1);
    }
}

TEST(VoltariaRead, AProtectorsLogIsCutToTheLinesAskedFor)
{
    std::vector<std::uint8_t> lines;
    for (const std::uint8_t id : BYTES{0, 65, 129}) {
        const BYTES line = monitor_encode(UPS_EVENTLOGINFO{id, -1, 0, {105, 3, 4, 1, 2, 3, 0}, {}});
        lines.insert(lines.end(), line.begin(), line.end());
    }
    const PROGRAM_RESULT result = run_against(packet(198, lines), {"log", "--count", "1", "--json"});
    const nlohmann::json events = nlohmann::json::parse(result.output).at("events");
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events.at(0).at("id"), 129);
}

TEST(VoltariaRead, HelpOfEveryCommandHasAnExample)
{
    for (const char *command : {"status", "watch", "discover", "notices", "log", "data"}) {
        const PROGRAM_RESULT result = run_program({command, "--help"});
        EXPECT_EQ(result.status, 0) << command;
        EXPECT_THAT(result.output, HasSubstr(std::string("voltaria ") + command)) << command;
        EXPECT_THAT(result.output, HasSubstr("Example")) << command;
    }
}

TEST(VoltariaRead, OptionsThatContradictEachOtherAreWrongUsage)
{
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"log", "--all", "--first", "0"},
                                               {"log", "--json", "--csv"},
                                               {"data", "--count", "0"},
                                               {"notices", "--lang", "de"},
                                               {"discover", "--timeout", "nan"}})
        EXPECT_EQ(run_program(arguments).status, 2) << testing::PrintToString(arguments);
}

// The agent prepares every notice in Shift_JIS, whichever the language.
TEST(VoltariaNotices, EachIsALineInUtf8AndTheLanguageIsTheOneAskedFor)
{
    std::atomic<int> lang = 0;
    FAKE_AGENT agent([&lang](int fd) {
        const BYTES hello = read_request(fd);
        lang = hello.empty() ? 0 : hello.at(8);
        send_bytes(fd, packet(17, std::span(hello).subspan(std::min<std::size_t>(8, hello.size()))));
        for (const std::string text : {"\x93\xfa\x96{\n", "two\nlines", "bell\a"})
            send_bytes(fd, packet(79, BYTES(text.begin(), text.end())));
        wait_for_end(fd);
    });
    PTY_RUN run({"notices", "--lang", "ja", "--port", std::to_string(agent.port)}, 80, 24);
    EXPECT_TRUE(run.draw_until([](const std::string &screen) {
        return screen.find("two lines") != std::string::npos && screen.find("bell\\x07") != std::string::npos;
    })) << run.terminal.text();
    EXPECT_EQ(lang, 1);
    run.type("\x03");
    EXPECT_EQ(run.wait(), 0);
}

TEST(VoltariaNotices, OneOfSeveralLinesIsALineForAWatcherToo)
{
    FAKE_AGENT agent([](int fd) {
        const BYTES hello = read_request(fd);
        send_bytes(fd, packet(17, std::span(hello).subspan(std::min<std::size_t>(8, hello.size()))));
        const std::string text = "two\nlines\n";
        send_bytes(fd, packet(79, BYTES(text.begin(), text.end())));
        converse(fd, sample_status);
    });
    PTY_RUN run({"watch", "--port", std::to_string(agent.port)}, 60, 24);
    EXPECT_TRUE(run.draw_until([](const std::string &screen) {
        return screen.find("two lines") != std::string::npos;
    })) << run.terminal.text();
    EXPECT_THAT(run.terminal.text(), testing::Not(HasSubstr("\\x")));
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
}

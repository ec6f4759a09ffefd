// `voltaria watch`: on terminals of several sizes, through losses of the agent, and without a terminal.
#include "monitor_fake_agent.h"
#include "monitor_terminal.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;

static std::vector<std::string> watch_arguments(std::uint16_t port)
{
    return {"watch", "--port", std::to_string(port)};
}

static std::function<bool(const std::string &)> showing(const std::string &text)
{
    return [text](const std::string &screen) { return screen.find(text) != std::string::npos; };
}

static void expect_same_settings(const termios &before, const termios &after)
{
    EXPECT_EQ(before.c_iflag, after.c_iflag);
    EXPECT_EQ(before.c_oflag, after.c_oflag);
    EXPECT_EQ(before.c_cflag, after.c_cflag);
    EXPECT_EQ(before.c_lflag, after.c_lflag);
    EXPECT_EQ(std::memcmp(before.c_cc, after.c_cc, sizeof before.c_cc), 0);
}

static void expect_page_on(int columns, int rows)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    PTY_RUN run(watch_arguments(agent.port), columns, rows);
    EXPECT_TRUE(run.draw_until(showing("q quits"))) << run.terminal.text();
    EXPECT_TRUE(run.draw_until(showing("UPS Ac fail"))) << run.terminal.text();
    for (const char *expected : {"Voltaria 127.0.0.1", "connected since", "on mains", "ZR900PL", "100.3 V",
                                 "[#######-------------]  35 %", "2005-12-24 22:00:00"})
        EXPECT_THAT(run.terminal.text(), HasSubstr(expected));
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
    EXPECT_FALSE(run.terminal.overran);
}

TEST(VoltariaWatch, PageFitsFortyByTwentyFour)
{
    expect_page_on(40, 24);
}

TEST(VoltariaWatch, PageFitsEightyByTwentyFour)
{
    expect_page_on(80, 24);
}

TEST(VoltariaWatch, PageFitsALargeTerminal)
{
    expect_page_on(200, 60);
}

TEST(VoltariaWatch, TinyTerminalShowsWhatMattersMost)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    PTY_RUN run(watch_arguments(agent.port), 20, 4);
    EXPECT_TRUE(run.draw_until(showing("on mains"))) << run.terminal.text();
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
    EXPECT_FALSE(run.terminal.overran);
}

TEST(VoltariaWatch, EveryWayOutLeavesTheTerminalAsItWas)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    for (const std::string &way : {std::string("q"), std::string("\x03"), std::string("SIGTERM")}) {
        PTY_RUN run(watch_arguments(agent.port), 80, 24);
        ASSERT_TRUE(run.draw_until(showing("on mains")));
        EXPECT_NE(run.settings().c_lflag, run.before.c_lflag) << "the terminal was never taken over";
        if (way == "SIGTERM")
            kill(run.pid, SIGTERM);
        else
            run.type(way);
        EXPECT_EQ(run.wait(), 0) << way;
        expect_same_settings(run.before, run.settings());
    }
}

TEST(VoltariaWatch, QuitDoesNotWaitForAnAgentThatDoesNotAnswer)
{
    FAKE_AGENT agent(wait_for_end);
    PTY_RUN run({"watch", "--port", std::to_string(agent.port), "--timeout", "3600"}, 80, 24);
    ASSERT_TRUE(run.draw_until(showing("connecting ...")));
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
}

TEST(VoltariaWatch, NewSizeIsDrawnAnew)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    PTY_RUN run(watch_arguments(agent.port), 80, 24);
    ASSERT_TRUE(run.draw_until(showing("on pc7 (79)")));
    run.resize(40, 24);
    ASSERT_TRUE(run.draw_until([](const std::string &screen) {
        return screen.find("\nBattery    normal\n") != std::string::npos &&
               screen.find("q quits") != std::string::npos;
    })) << run.terminal.text();
    run.resize(100, 30);
    EXPECT_TRUE(run.draw_until(showing("on pc7 (79)"))) << run.terminal.text();
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
}

TEST(VoltariaWatch, ChangesAreSeenOnTheKeptConnection)
{
    std::atomic<bool> failed = false;
    FAKE_AGENT agent([&failed](int fd) {
        converse(fd, [&failed] {
            UPS_UPSINFO status = sample_status();
            if (failed)
                status.upsstat = UPSSTAT_ACFAIL;
            return status;
        });
    });
    PTY_RUN run(watch_arguments(agent.port), 80, 24);
    ASSERT_TRUE(run.draw_until(showing("on mains")));
    failed = true;
    EXPECT_TRUE(run.draw_until(showing("mains failure, on battery")));
    EXPECT_EQ(agent.connections, 1);
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
}

TEST(VoltariaWatch, LossIsShownAndTheConnectionMadeAgain)
{
    std::atomic<bool> refusing = false;
    FAKE_AGENT agent([&refusing](int fd) {
        if (!refusing)
            converse(fd, sample_status);
    });
    PTY_RUN run(watch_arguments(agent.port), 80, 24);
    ASSERT_TRUE(run.draw_until(showing("connected since")));
    refusing = true;
    agent.drop_connection();
    ASSERT_TRUE(run.draw_until(showing("LOST since"))) << run.terminal.text();
    EXPECT_THAT(run.terminal.text(), HasSubstr("on mains")) << "the last status stays readable";
    refusing = false;
    EXPECT_TRUE(run.draw_until(showing("connected since"))) << run.terminal.text();
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
}

TEST(VoltariaWatch, AnnouncementAppearsAtTheFoot)
{
    FAKE_AGENT agent([](int fd) {
        const std::string_view text = "UPS \x1b]0;x\x07 fail";
        send_bytes(fd, packet(79, BYTES{text.begin(), text.end()}));
        converse(fd, sample_status);
    });
    PTY_RUN run(watch_arguments(agent.port), 80, 24);
    EXPECT_TRUE(run.draw_until(showing(R"(UPS \x1B]0;x\x07 fail)"))) << run.terminal.text();
    run.type("q");
    EXPECT_EQ(run.wait(), 0);
}

// ---- Without a terminal ----

// The program with its output on a pipe, read line by line.
struct PIPE_RUN {
    explicit PIPE_RUN(std::uint16_t port)
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        std::vector<std::string> words = watch_arguments(port);
        words.insert(words.begin(), VOLTARIA_PROGRAM);
        std::vector<std::string> environment = test_environment();
        const std::vector<char *> argv = pointers_to(words);
        const std::vector<char *> envp = pointers_to(environment);
        pid = fork();
        if (pid == 0) {
            if (dup2(ends[1], 1) == 1)
                execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        close(ends[1]);
        output = fdopen(ends[0], "r");
    }
    ~PIPE_RUN()
    {
        std::fclose(output);
    }
    PIPE_RUN(const PIPE_RUN &) = delete;
    PIPE_RUN &operator=(const PIPE_RUN &) = delete;

    std::string line()
    {
        std::array<char, 512> buffer{};
        return std::fgets(buffer.data(), buffer.size(), output) != nullptr ? buffer.data() : "";
    }
    int stop() const
    {
        kill(pid, SIGINT);
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t pid = -1;
    FILE *output = nullptr;
};

TEST(VoltariaWatch, WithoutATerminalEachChangeIsOneLine)
{
    std::atomic<int> asked = 0;
    FAKE_AGENT agent([&asked](int fd) {
        converse(fd, [&asked] {
            UPS_UPSINFO status = sample_status();
            if (++asked >= 3)
                status.upsstat = UPSSTAT_ACFAIL;
            return status;
        });
    });
    PIPE_RUN run(agent.port);
    EXPECT_THAT(run.line(),
                testing::ContainsRegex("^....-..-.. ..:..:.. UPS on mains; battery normal; .*\n$"));
    EXPECT_THAT(run.line(), HasSubstr("UPS mains failure, on battery;")) << "a repetition is no change";
    agent.drop_connection();
    EXPECT_THAT(run.line(), HasSubstr("LOST: "));
    EXPECT_THAT(run.line(), HasSubstr("UPS mains failure, on battery;"));
    EXPECT_EQ(run.stop(), 0);
}

TEST(VoltariaWatch, WithoutATerminalAnUnreachableAgentIsWaitedFor)
{
    PIPE_RUN run(unused_port());
    EXPECT_THAT(run.line(), HasSubstr("LOST: cannot reach 127.0.0.1"));
    EXPECT_EQ(run.stop(), 0);
}

// The real program on a pseudo-terminal: what a host on the port, a control program and whoever started it
// see. Every wait is for a condition.
#include "sim/sim_line.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int PATIENCE = 20'000;  // ms

std::string read_until(int descriptor, std::string_view end)
{
    std::string text;
    while (!text.ends_with(end)) {
        pollfd entry{descriptor, POLLIN, 0};
        std::array<char, 4096> buffer{};
        if (::poll(&entry, 1, PATIENCE) <= 0)
            break;
        // The end may stand anywhere in what is waiting, so bytes are taken one by one.
        if (::read(descriptor, buffer.data(), 1) <= 0)
            break;
        text.push_back(buffer[0]);
    }
    return text;
}

struct Result {
    int status;
    std::string output;
};

// Runs the program with these arguments in a child; its output and errors come through the returned
// descriptor.
pid_t start(const std::vector<std::string> &arguments, int &output)
{
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0)
        return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], 1);
        ::dup2(ends[1], 2);
        ::close(ends[0]);
        ::close(ends[1]);
        std::vector<std::string> all = {UPSSIM};
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &argument : all)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        ::execv(UPSSIM, argv.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    output = ends[0];
    return child;
}

int ended(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Result run(const std::vector<std::string> &arguments)
{
    int output = -1;
    const pid_t child = start(arguments, output);
    std::string text;
    for (std::string more = read_until(output, "\n"); !more.empty(); more = read_until(output, "\n"))
        text += more;
    ::close(output);
    return {ended(child), text};
}

class UpsSim : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "upssim-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory = pattern;
    }

    void TearDown() override
    {
        stop(SIGTERM);
        if (port >= 0)
            ::close(port);
        if (control >= 0)
            ::close(control);
        fs::remove_all(directory);
    }

    void launch(std::vector<std::string> more)
    {
        std::vector<std::string> arguments = {"--link", link(), "--control", socket(), "--log", log()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        child = start(arguments, output);
        greeting = read_until(output, "\n");
        ASSERT_NE(greeting.find(" on /dev/"), std::string::npos) << greeting;
        open_port();
        connect_control();
    }

    void open_port()
    {
        port = ::open(link().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(port, 0);
    }

    void connect_control()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket().copy(address.sun_path, sizeof(address.sun_path) - 1);
        control = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::connect(control, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }

    int stop(int signal)
    {
        if (child <= 0)
            return -1;
        ::kill(child, signal);
        const int status = ended(child);
        child = -1;
        ::close(output);
        return status;
    }

    std::string ask(std::string_view command) const
    {
        const std::string text = std::string(command) + "\r";
        EXPECT_EQ(::write(port, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        return read_until(port, "\r");
    }

    std::string tell(std::string_view command) const
    {
        const std::string text = std::string(command) + "\n";
        EXPECT_EQ(::send(control, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
        return read_until(control, "\n");
    }

    bool log_has(std::string_view text) const
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(PATIENCE);
        while (std::chrono::steady_clock::now() < deadline) {
            std::ifstream file(log());
            std::stringstream content;
            content << file.rdbuf();
            if (content.str().find(text) != std::string::npos)
                return true;
            ::poll(nullptr, 0, 5);
        }
        return false;
    }

    std::string link() const
    {
        return (directory / "ttyS0").string();
    }
    std::string socket() const
    {
        return (directory / "control").string();
    }
    std::string log() const
    {
        return (directory / "log").string();
    }

    fs::path directory;
    pid_t child = -1;
    int output = -1;
    int port = -1;
    int control = -1;
    std::string greeting;
};

TEST_F(UpsSim, AnswersOnThePortAtTheSpeedOfTheLine)
{
    launch({"--model", "ZR900PL"});
    const auto begin = std::chrono::steady_clock::now();
    const std::string reply = ask("Q1");
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(reply.size(), 47U);
    EXPECT_GE(took, 50 * sim::CHARACTER_TIME);
    EXPECT_TRUE(log_has(" rx Q1\\r\n"));
    EXPECT_TRUE(log_has(" tx (100.0 100.0 100.0 "));
}

TEST_F(UpsSim, ThePortIsRawAndSurvivesItsUsers)
{
    launch({"--no-pace"});
    termios settings{};
    ASSERT_EQ(::tcgetattr(port, &settings), 0);
    EXPECT_EQ(settings.c_lflag & static_cast<tcflag_t>(ICANON | ECHO), 0U);
    EXPECT_EQ(::cfgetospeed(&settings), static_cast<speed_t>(B2400));
    for (int i = 0; i < 5; ++i) {
        ::close(port);
        open_port();
        EXPECT_EQ(ask("V"), "00000000\r");
    }
}

TEST_F(UpsSim, ControlChannelAnswersEachLine)
{
    launch({"--no-pace"});
    EXPECT_EQ(tell("mains fail"), "ok\n");
    EXPECT_EQ(ask("Q1").substr(38), "10000000\r");
    EXPECT_EQ(tell("mains reborn"), "error: unknown command 'mains'\n");
    EXPECT_TRUE(tell("status").starts_with("{\"time\":"));
    EXPECT_EQ(tell("model ZR401"), "ok\n");
    EXPECT_EQ(ask("(SiCC)"), "[ZR401 V1.2]\r");
}

TEST_F(UpsSim, SeveralLinesInOnePieceAndOneLineInSeveral)
{
    launch({"--no-pace"});
    EXPECT_EQ(tell("load 40\nload 50\nload"), "ok\n");
    EXPECT_EQ(read_until(control, "\n"), "ok\n");
    EXPECT_EQ(read_until(control, "\n"), "error: missing PERCENT, usage: load PERCENT\n");
    ASSERT_EQ(::send(control, "mains", 5, 0), 5);
    EXPECT_EQ(tell(" fail"), "ok\n");
}

TEST_F(UpsSim, AClientThatLeavesOrNeverReadsDisturbsNobody)
{
    launch({"--no-pace"});
    ASSERT_EQ(::send(control, "status\nstatus\nlog\n", 18, 0), 18);
    ::close(control);
    connect_control();
    const std::string endless(20000, 'x');
    ASSERT_EQ(::send(control, endless.data(), endless.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(endless.size()));
    EXPECT_EQ(read_until(control, "\n"), "") << "a line without end is not kept";
    ::close(control);
    connect_control();
    EXPECT_EQ(tell("mains fail"), "ok\n");
    EXPECT_EQ(ask("V"), "00000000\r");
}

TEST_F(UpsSim, PortIsUnpluggedAndPluggedAgain)
{
    launch({"--no-pace"});
    EXPECT_EQ(tell("port unplug"), "ok\n");
    EXPECT_TRUE(tell("status").find("\"plugged\":false") != std::string::npos);
    EXPECT_FALSE(fs::exists(fs::symlink_status(link())));
    EXPECT_EQ(read_until(port, "\r"), "") << "the old port is hung up";
    ::close(port);
    EXPECT_EQ(tell("port plug"), "ok\n");
    tell("status");
    open_port();
    EXPECT_EQ(ask("V"), "00000000\r");
}

TEST_F(UpsSim, XoffStopsTheHostsTerminalUntilXon)
{
    launch({"--no-pace"});
    termios settings{};
    ASSERT_EQ(::tcgetattr(port, &settings), 0);
    settings.c_iflag |= IXON | IXOFF | ICRNL;
    ASSERT_EQ(::tcsetattr(port, TCSANOW, &settings), 0);
    EXPECT_EQ(tell("xoff"), "ok\n");
    pollfd entry{port, POLLOUT, 0};
    EXPECT_EQ(tell("status").substr(0, 8), "{\"time\":");
    while (::poll(&entry, 1, 0) > 0 && (entry.revents & POLLOUT) != 0)
        ::poll(nullptr, 0, 5);
    EXPECT_EQ(tell("xon"), "ok\n");
    EXPECT_EQ(::poll(&entry, 1, PATIENCE), 1);
    EXPECT_EQ(::write(port, "V\r", 2), 2);
    EXPECT_EQ(read_until(port, "\n"), "00000000\n");
}

TEST_F(UpsSim, ScenarioRunsAndQuits)
{
    std::ofstream(directory / "scenario")
        << "at 100ms mains fail\nafter 100ms mains return\nafter 100ms quit\n";
    launch({"--scenario", (directory / "scenario").string()});
    EXPECT_TRUE(log_has(" ev mains good\n"));
    EXPECT_TRUE(log_has(" do quit\n"));
    EXPECT_EQ(ended(child), 0);
    child = -1;
    ::close(output);
    EXPECT_FALSE(fs::exists(fs::symlink_status(link())));
    EXPECT_FALSE(fs::exists(socket()));
}

TEST_F(UpsSim, SignalsEndItCleanly)
{
    for (int signal : {SIGTERM, SIGINT}) {
        launch({});
        EXPECT_EQ(stop(signal), 0);
        EXPECT_FALSE(fs::exists(fs::symlink_status(link())));
        EXPECT_FALSE(fs::exists(socket()));
        ::close(port);
        ::close(control);
        port = control = -1;
    }
}

TEST_F(UpsSim, LeavesForeignFilesAlone)
{
    std::ofstream(link()) << "precious";
    const Result refused = run({"--link", link()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "upssim: " + link() + ": exists and is not a link\n");
    EXPECT_TRUE(fs::is_regular_file(link()));
    std::ofstream(socket()) << "precious";
    EXPECT_EQ(run({"--control", socket()}).status, 1);
    EXPECT_TRUE(fs::is_regular_file(socket()));
    fs::remove(link());
    fs::remove(socket());
    fs::create_symlink("/dev/null", link());
    launch({});
    EXPECT_NE(fs::read_symlink(link()), "/dev/null") << "an older link is replaced";
}

TEST_F(UpsSim, AskSendsCommandsToARunningSimulator)
{
    launch({});
    const Result good = run({"--control", socket(), "--ask", "mains fail", "--ask", "log 1"});
    EXPECT_EQ(good.status, 0);
    EXPECT_TRUE(good.output.starts_with("ok\n") && good.output.ends_with(" ev mains failure\nok\n"))
        << good.output;
    EXPECT_EQ(run({"--control", socket(), "--ask", "nonsense"}).status, 1);
    EXPECT_EQ(run({"--control", link(), "--ask", "status"}).status, 1);
}

TEST_F(UpsSim, BadArgumentsAreToldAndRefused)
{
    EXPECT_EQ(run({"--model", "ZX1"}).output, "upssim: unknown model 'ZX1', see --list-models\n");
    EXPECT_NE(run({"--nonsense"}).status, 0);
    EXPECT_EQ(run({"--scenario", (directory / "none").string()}).status, 1);
    std::ofstream(directory / "bad") << "at 1s mains fail\nat 2s explode\n";
    const Result bad = run({"--scenario", (directory / "bad").string()});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.output,
              "upssim: " + (directory / "bad").string() + ": line 2: unknown command 'explode'\n");
    EXPECT_EQ(run({"--list-models"}).output, "ZR401\nZR6020\nZR900PL\nZR950PL\nZM300LT\nZQ500\n");
}

TEST_F(UpsSim, TheExampleScenarioIsAccepted)
{
    launch({"--scenario", EVENING});
    EXPECT_TRUE(tell("status").find("\"script_steps_left\":0.000") == std::string::npos);
}

}  // namespace

// The debug output file. It has one fixed place, so these tests run in the sandbox, where that place is
// private.
#include "agent_utils_output.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr char RULE[] = "-------------------------------\n";

class DebugOutput : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_NE(getenv("VOLTARIA_SANDBOX"), nullptr) << "runs in the sandbox only";
        std::filesystem::remove_all(DEBUG_FILE);
    }
};

static std::string content()
{
    std::ifstream file(DEBUG_FILE, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

static void put(const std::string &text)
{
    std::ofstream(DEBUG_FILE, std::ios::binary) << text;
}

static struct stat state_of_file()
{
    struct stat state = {};
    EXPECT_EQ(lstat(DEBUG_FILE, &state), 0);
    return state;
}

// Whether this process may give a file to group 1; an ordinary user's sandbox may not.
static bool group_can_be_given()
{
    static constexpr char PROBE[] = "/.group-probe";
    std::ofstream(PROBE) << "x";
    const bool given = chown(PROBE, 0, 1) == 0;
    std::filesystem::remove(PROBE);
    return given;
}

TEST_F(DebugOutput, FirstTextCreatesAPrivateFile)
{
    EXPECT_EQ(user_printf("first\n"), 0);
    EXPECT_EQ(content(), "first\n");
    const struct stat state = state_of_file();
    EXPECT_EQ(state.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(state.st_uid, 0U);
    if (group_can_be_given()) {
        EXPECT_EQ(state.st_gid, 1U);
    }
}

TEST_F(DebugOutput, FurtherTextsAreAppendedAndReportMinusOne)
{
    EXPECT_EQ(user_printf("first\n"), 0);
    EXPECT_EQ(user_printf("second\n"), -1);
    EXPECT_EQ(user_printf("third\n"), -1);
    EXPECT_EQ(content(), "first\nsecond\nthird\n");
}

TEST_F(DebugOutput, AnExistingEmptyFileIsUsedAsItIs)
{
    put("");
    ASSERT_EQ(chmod(DEBUG_FILE, 0644), 0);
    EXPECT_EQ(user_printf("text"), 0);
    EXPECT_EQ(content(), "text");
    EXPECT_EQ(state_of_file().st_mode, S_IFREG | 0644U);
}

TEST_F(DebugOutput, AFileOf1024BlocksStillGrows)
{
    const std::string full(1024 * 512, 'x');
    put(full);
    ASSERT_EQ(state_of_file().st_blocks, 1024);
    EXPECT_EQ(user_printf("more"), -1);
    EXPECT_EQ(content(), full + "more");
}

TEST_F(DebugOutput, AFileAbove1024BlocksIsStartedAnew)
{
    put(std::string(1024 * 512 + 1, 'x'));
    ASSERT_GT(state_of_file().st_blocks, 1024);
    EXPECT_EQ(user_printf("anew"), 0);
    EXPECT_EQ(content(), "anew");
}

TEST_F(DebugOutput, SizeCountsByBlocksAndNotByLength)
{
    put("x");
    std::filesystem::resize_file(DEBUG_FILE, 4 * 1024 * 1024);
    ASSERT_LE(state_of_file().st_blocks, 1024);
    EXPECT_EQ(user_printf("behind the hole"), -1);
    EXPECT_EQ(std::filesystem::file_size(DEBUG_FILE), 4U * 1024 * 1024 + 15);
}

TEST_F(DebugOutput, AFileThatCannotBeOpenedIsNoFailure)
{
    std::filesystem::create_directory(DEBUG_FILE);
    EXPECT_EQ(user_printf("lost"), 0);
    EXPECT_EQ(printf1("lost"), 0);
    EXPECT_TRUE(std::filesystem::is_empty(DEBUG_FILE));
}

TEST_F(DebugOutput, ALinkInItsPlaceIsNotFollowed)
{
    static constexpr char TARGET[] = "/.link-target";
    std::ofstream(TARGET) << "precious";
    std::filesystem::create_symlink(TARGET, DEBUG_FILE);
    EXPECT_EQ(user_printf("text"), 0);
    EXPECT_EQ(std::filesystem::file_size(TARGET), 8U);
    std::filesystem::remove(TARGET);
}

TEST_F(DebugOutput, APipeInItsPlaceDoesNotBlock)
{
    ASSERT_EQ(mkfifo(DEBUG_FILE, 0600), 0);
    const int reader = open(DEBUG_FILE, O_RDONLY | O_NONBLOCK);  // keeps what is written, and never reads
    ASSERT_GE(reader, 0);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(user_printf(std::string(4096, 'x').c_str()), -1);
    close(reader);
}

TEST_F(DebugOutput, AShortWriteReportsMinusOne)
{
    put("");
    struct rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlim_t before = limit.rlim_cur;
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    limit.rlim_cur = 4;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const int result = user_printf("abcdef");
    limit.rlim_cur = before;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    signal(SIGXFSZ, old_handler);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(content(), "abcd");
}

TEST_F(DebugOutput, NoTextWritesNothing)
{
    EXPECT_EQ(user_printf(nullptr), 0);
    EXPECT_EQ(user_printf(""), 0);
    EXPECT_EQ(content(), "");
}

TEST_F(DebugOutput, LeavesNoDescriptorOpen)
{
    const int before = dup(0);
    close(before);
    for (int i = 0; i < 10; ++i)
        printf0("text");
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

static constexpr int LINES = 5000;  // of 21 bytes; both shares stay below the size that starts the file anew

static void write_lines(char letter)
{
    const std::string line = std::string(20, letter) + "\n";
    for (int i = 0; i < LINES; ++i)
        printf0(line.c_str());
}

TEST_F(DebugOutput, TwoProcessesLoseNothing)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        write_lines('c');
        _exit(0);
    }
    write_lines('p');
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(content().size(), 2U * LINES * 21);
}

TEST_F(DebugOutput, Printf0WritesTheText)
{
    EXPECT_EQ(printf0("net_netexit called\n"), 0);
    EXPECT_EQ(content(), "net_netexit called\n");
}

TEST_F(DebugOutput, Printf1WritesTheTextBetweenTwoLines)
{
    EXPECT_EQ(printf1("can debug echo on\n"), -1);
    EXPECT_EQ(content(), std::string(RULE) + "can debug echo on\n" + RULE);
}

TEST_F(DebugOutput, PrintfnAddsANewline)
{
    std::array<char, 256> text{"line"};
    EXPECT_EQ(printfn(text.data()), 0);
    EXPECT_EQ(content(), "line\n");
    EXPECT_STREQ(text.data(), "line");
}

TEST_F(DebugOutput, PrintfnCutsTheTextAt254Characters)
{
    for (const std::size_t length : {253U, 254U, 255U, 300U}) {
        std::filesystem::remove(DEBUG_FILE);
        std::string text(length, 'x');
        EXPECT_EQ(printfn(text.data()), 0);
        const std::string kept(std::min<std::size_t>(length, 254), 'x');
        EXPECT_EQ(content(), kept + "\n") << length;
        EXPECT_STREQ(text.c_str(), kept.c_str()) << length;
    }
}

TEST_F(DebugOutput, PrintfnOfNoTextIsAnEmptyLine)
{
    EXPECT_EQ(printfn(nullptr), 0);
    EXPECT_EQ(content(), "\n");
}

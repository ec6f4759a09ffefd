// The agent process where the system refuses a call: what is said, what is given up, and that nothing stays
// open.
#include "agent_daemon_channel.h"
#include "agent_fixture.h"
#include "agent_main.h"
#include "agent_main_message.h"
#include "agent_net_inquiry.h"
#include "agent_net_records.h"
#include "agent_utils.h"
#include "agent_utils_lock.h"
#include "agent_utils_output.h"
#include "refusal.h"

#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <libintl.h>
#include <net/if.h>
#include <sys/utsname.h>

REFUSABLE(int, socket, (int domain, int type, int protocol), (domain, type, protocol), noexcept, -1)
REFUSABLE(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size),
          (fd, level, name, value, size), noexcept, -1)
REFUSABLE(int, setenv, (const char *name, const char *value, int replace), (name, value, replace), noexcept,
          -1)
REFUSABLE(char *, textdomain, (const char *domain), (domain), noexcept, nullptr)
REFUSABLE(locale_t, newlocale, (int mask, const char *name, locale_t base), (mask, name, base), noexcept,
          locale_t{})
REFUSABLE(int, unlink, (const char *path), (path), noexcept, -1)
REFUSABLE(int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), noexcept, -1)
REFUSABLE(int, uname, (utsname * host), (host), noexcept, -1)
REFUSABLE(int, select, (int bound, fd_set *reading, fd_set *writing, fd_set *failed, timeval *limit),
          (bound, reading, writing, failed, limit), , -1)

// The linker leads the calls here: a program with sanitizers has memory functions of its own.
extern "C" void *__real_realloc(void *memory, std::size_t size) noexcept;
extern "C" void *__wrap_realloc(void *memory, std::size_t size) noexcept;

extern "C" void *__wrap_realloc(void *memory, std::size_t size) noexcept
{
    return refusal::is_due("realloc") ? nullptr : __real_realloc(memory, size);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    static auto *const real = refusal::original<int(int, unsigned long, void *)>("ioctl");
    va_list rest;
    va_start(rest, request);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    return refusal::is_due("ioctl") ? -1 : real(fd, request, argument);
}

static std::string text_of(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

static std::size_t bytes_in(int fd)
{
    std::array<char, 64> room{};
    const ssize_t got = readable(fd, 0) ? read(fd, room.data(), room.size()) : 0;
    return static_cast<std::size_t>(got);
}

static std::ptrdiff_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

class Refusal : public AgentTest
{
  protected:
    ~Refusal() override
    {
        init_freeservlist(&agent.agnet);
        if (agent.agnet.ufd >= 0)
            close(agent.agnet.ufd);
        agent.agnet.ufd = -1;
    }

    static std::string said_by(void (*action)())
    {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }
};

using RefusalDeathTest = Refusal;

// ---- endpoints

TEST_F(Refusal, WithoutASocketForDatagramsTheStartFails)
{
    const Refused refused("socket", EMFILE);
    EXPECT_EQ(init_uport(&agent.agnet, 4114), -1);
}

TEST_F(RefusalDeathTest, ASocketThatMayNotBroadcastEndsTheStart)
{
    unlink("/.erra");
    EXPECT_EXIT(
        {
            const Refused refused("setsockopt", EACCES);
            init_uport(&agent.agnet, 4114);
        },
        testing::ExitedWithCode(1), "");
    EXPECT_EQ(text_of("/.erra"), "set sockt opt error, exit\n");
}

// The first is for asking for the interfaces.
TEST_F(Refusal, WithoutASocketForAListenerNoneStays)
{
    const std::ptrdiff_t before = open_descriptors();
    for (int sockets = 0; sockets < 3; ++sockets) {
        const Refused refused("socket", EMFILE, sockets);
        EXPECT_EQ(init_tport(&agent.agnet, 4112), -1) << sockets;
        EXPECT_EQ(agent.agnet.tfdlist, nullptr) << sockets;
        EXPECT_EQ(open_descriptors(), before) << sockets;
    }
}

TEST_F(Refusal, WithoutMemoryForTheInterfacesTheReasonIsNamed)
{
    const std::string said = said_by([] {
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        const Refused refused("realloc", ENOMEM);
        ifconf list{};
        EXPECT_EQ(utils_findmultihome(fd, &list, "realloc error"), -1);
        EXPECT_EQ(list.ifc_buf, nullptr);
        close(fd);
    });
    EXPECT_EQ(said, "realloc error: Cannot allocate memory\n");
}

TEST_F(Refusal, WithoutMemoryForTheInterfacesThereIsNoListenerAndTheReasonIsNamed)
{
    const std::ptrdiff_t before = open_descriptors();
    const std::string said = said_by([] {
        const Refused refused("realloc", ENOMEM);
        EXPECT_EQ(init_tport(&agent.agnet, 4112), -1);
    });
    EXPECT_EQ(said, "error in realloc: Cannot allocate memory\n");
    EXPECT_EQ(agent.agnet.tfdlist, nullptr);
    EXPECT_EQ(open_descriptors(), before);
}

// ---- the file lock

TEST_F(Refusal, ALockWhoseSourceStaysIsTakenAllTheSame)
{
    const std::string said = said_by([] {
        const Refused refused("unlink", EIO, 0, 1);
        EXPECT_TRUE(utils_tryatomlock());
    });
    EXPECT_EQ(said, "utils_setatomlock: unlink: Input/output error\n");
    EXPECT_FALSE(utils_tryatomlock());
    releaseatomlock();
}

// ---- messages

TEST_F(Refusal, AMessageThatCannotBeLookedUpIsEnglishAndTheReasonIsTold)
{
    EXPECT_NE(said_by([] {
                  const Refused refused("setenv", ENOMEM);
                  EXPECT_STREQ(GETTEXTj("UPS Ac fail"), "UPS Ac fail");
              }).find("GETTEXTj: setenv: Cannot allocate memory\n"),
              std::string::npos);
    EXPECT_NE(said_by([] {
                  const Refused refused("textdomain", ENOMEM);
                  EXPECT_STREQ(GETTEXTj("UPS Ac fail"), "UPS Ac fail");
              }).find("GETTEXTj: textdomain: Cannot allocate memory\n"),
              std::string::npos);
}

TEST_F(RefusalDeathTest, WithoutALocaleForTheLookUpMessagesAreEnglish)
{
    // Made once in a process.
    EXPECT_EXIT(
        {
            const Refused refused("newlocale", ENOENT);
            std::exit(std::string(GETTEXTj("UPS Ac fail")) == "UPS Ac fail" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "GETTEXTj: newlocale: No such file or directory");
}

TEST_F(Refusal, ADebugFileOfTheWrongOwnerStillTakesTheText)
{
    unlink("/.erra");
    const std::string said = said_by([] {
        const Refused refused("fchown", EPERM);
        printf0("a text\n");
    });
    EXPECT_EQ(said, "user_printf: fchown: Operation not permitted\n");
    EXPECT_EQ(text_of("/.erra"), "a text\n");
}

TEST_F(Refusal, AHostWithoutANameHasAnEmptyOne)
{
    const Refused refused("uname", EFAULT);
    EXPECT_EQ(node_name(NODENAME::cut), NAME16{});
}

// ---- the channel

TEST_F(Refusal, AChannelThatCannotBeLookedIntoCountsAsEmpty)
{
    agent.chna2u = {make_pipe(), make_pipe()};
    const Refused refused("ioctl", ENOTTY);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON), 0);
    EXPECT_EQ(bytes_in(agent.chna2u.actpipe[0]), 4U);
}

TEST_F(Refusal, AWaitForTheUpsProcessThatIsInterruptedGoesOn)
{
    agent.chnu2a = {make_pipe(), make_pipe()};
    const std::uint32_t sent = 0x00010000;  // not what is expected
    ASSERT_EQ(write(agent.chnu2a.actpipe[1], &sent, sizeof sent), 4);
    const Refused refused("select", EINTR, 0, 1);
    std::uint32_t word = 0x00020000;
    std::array<char, 256> room{};
    EXPECT_EQ(daemon_readdatafromups(&agent, &word, room.data()), -1);
    EXPECT_EQ(word, sent);
    EXPECT_EQ(bytes_in(agent.chnu2a.paspipe[0]), 4U);
}

TEST_F(RefusalDeathTest, AWaitForTheUpsProcessThatFailsEndsTheAgent)
{
    agent.chnu2a = {make_pipe(), make_pipe()};
    unlink("/.erra");
    std::uint32_t word = 0x00020000;
    std::array<char, 256> room{};
    EXPECT_EXIT(
        {
            const Refused refused("select", EBADF);
            daemon_readdatafromups(&agent, &word, room.data());
        },
        testing::ExitedWithCode(EBADF), "");
    EXPECT_NE(text_of("/.erra").find("daemon_readdatafromups: select\n"), std::string::npos);
}

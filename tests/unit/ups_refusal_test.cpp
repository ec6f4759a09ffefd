// The UPS process where the system refuses a call, and where the output queue of its line does not empty.
#include "agent_daemon_channel.h"
#include "agent_ups.h"
#include "refusal.h"
#include "shared_word.h"
#include "ups_unit.h"
#include "wire_records.h"

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

REFUSABLE(int, select, (int bound, fd_set *reading, fd_set *writing, fd_set *failed, timeval *limit),
          (bound, reading, writing, failed, limit), , -1)
REFUSABLE(int, socket, (int domain, int type, int protocol), (domain, type, protocol), noexcept, -1)
REFUSABLE(int, tcsetattr, (int fd, int when, const termios *line), (fd, when, line), noexcept, -1)
REFUSABLE(int, setitimer, (__itimer_which_t which, const itimerval *value, itimerval *old),
          (which, value, old), noexcept, -1)

static int queued = 0;               // looks at an output queue that still see characters
static int restarts = 0;             // of the output
static void (*on_stat)() = nullptr;  // called when the search looks for a port

extern "C" int fcntl(int fd, int command, ...)
{
    static auto *const real = refusal::original<int(int, int, long)>("fcntl");
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    return refusal::is_due("fcntl") ? -1 : real(fd, command, argument);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    static auto *const real = refusal::original<int(int, unsigned long, void *)>("ioctl");
    va_list rest;
    va_start(rest, request);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    const int result = real(fd, request, argument);
    if (result == 0 && request == TIOCOUTQ)
        *static_cast<int *>(argument) = queued > 0 ? queued-- : 0;
    return result;
}

extern "C" int tcflow(int fd, int action) noexcept
{
    static auto *const real = refusal::original<int(int, int)>("tcflow");
    restarts += action == TCOON;
    return real(fd, action);
}

extern "C" int stat(const char *path, struct stat *status) noexcept
{
    static auto *const real = refusal::original<int(const char *, struct stat *)>("stat");
    if (on_stat != nullptr && std::string_view(path).starts_with("/dev/tty"))
        on_stat();
    return real(path, status);
}

class UpsRefusal : public UpsTest
{
  protected:
    ~UpsRefusal() override
    {
        queued = 0;
        on_stat = nullptr;
    }
};

using UpsRefusalDeathTest = UpsRefusal;

static double seconds_of(const std::function<void()> &action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

static std::string said_by(const std::function<void()> &action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

// ---- the line

TEST_F(UpsRefusal, APortWhoseStateCannotBeReadOrSetIsNotWrittenTo)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    for (int calls = 0; calls < 2; ++calls) {
        const Refused refused("fcntl", EBADF, calls);
        EXPECT_EQ(ups_writetoups("Q1\r"), -1) << calls;
    }
    EXPECT_EQ(unit.count("Q1"), 0);
}

// What was sent is out; but the port would no longer hold a write until it is taken.
TEST_F(UpsRefusal, APortThatCannotBeSetBackCountsAsFailed)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    const Refused refused("fcntl", EBADF, 2);
    EXPECT_EQ(ups_writetoups("Q1\r"), -1);
}

TEST_F(UpsRefusal, AnOrderBehindAQueueWaitsUntilItHasLeft)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    const int before = restarts;
    queued = 20;
    EXPECT_GE(seconds_of([] { EXPECT_EQ(ups_order("S.2\r"), 4); }), 0.09);
    EXPECT_EQ(queued, 0);
    EXPECT_EQ(restarts, before);
}

// A character of the noise may have stopped the output: it is started again, once, and the order is done.
TEST_F(UpsRefusal, AnOrderBehindAQueueThatDoesNotEmptyRestartsTheOutput)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    const int before = restarts;
    queued = INT_MAX;
    const double took = seconds_of([] { EXPECT_EQ(ups_order("S.2\r"), 4); });
    EXPECT_EQ(restarts, before + 1);
    EXPECT_GE(took, 1.0);
    EXPECT_LT(took, 10.0);
}

TEST_F(UpsRefusal, AWaitThatFailsEndsTheReply)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    std::array<char, 10> reply{};
    const Refused refused("select", EBADF);
    EXPECT_LT(seconds_of([&] { EXPECT_EQ(ups_readdatafromups(&record, reply.data(), 8), UPSREPLY_NONE); }),
              0.5);
}

TEST_F(UpsRefusal, APortThatGoesBehindAWakeNoticeGivesNoReply)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    unit.send("WAKE\r");
    std::array<char, 60> reply{};
    ASSERT_EQ(ups_waitfd(upschan.comfd, false, 5000000), 1);
    const Refused refused("select", EBADF, 5);  // one for each byte of the notice
    EXPECT_EQ(ups_readdatafromups(&record, reply.data(), 50), UPSREPLY_NONE);
}

TEST_F(UpsRefusal, EachStepOfTheSetUpIsNamedWhenItFails)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    EXPECT_EQ(said_by([] {
                  const Refused refused("fcntl", EPERM, 1);
                  EXPECT_EQ(ups_cominit(), -1);
              }),
              "ups_cominit: cannot set status of port /dev/ttyS0:: Operation not permitted\n");
    EXPECT_EQ(said_by([] {
                  const Refused refused("tcsetattr", EIO);
                  EXPECT_EQ(ups_cominit(), -1);
              }),
              "ups_cominit: cannot set /dev/ttyS0 settings:: Input/output error\n");
}

TEST_F(UpsRefusal, APortThatCannotBeSetUpIsPassedOverByTheSearch)
{
    Unit first("/dev/ttyS0");
    Unit second("/dev/ttyS1");
    script_zr900pl(first);
    script_zr900pl(second);
    EXPECT_EQ(said_by([this] {
                  const Refused refused("tcsetattr", EIO, 0, 1);
                  EXPECT_EQ(ups_comsearch(&record), 1);
              }),
              "ups_cominit: cannot set /dev/ttyS0 settings:: Input/output error\n");
    EXPECT_TRUE(first.commands().empty());
}

TEST_F(UpsRefusal, AFixedPortThatCannotBeSetUpIsClosed)
{
    Unit unit("/dev/ttyS1");
    script_zr900pl(unit);
    block.ups.up.workparam.ComSet = 2;
    EXPECT_EQ(said_by([this] {
                  const Refused refused("tcsetattr", EIO);
                  EXPECT_EQ(ups_comsearch(&record), -1);
              }),
              "ups_cominit: cannot set /dev/ttyS1 settings:: Input/output error\n");
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_TRUE(unit.commands().empty());
}

TEST_F(UpsRefusal, APortThatIsNoTerminalAnyMoreIsNotReopened)
{
    unlink("/dev/ttyS1");
    std::ofstream{"/dev/ttyS1"};
    upschan.comid = 1;
    EXPECT_NE(said_by([this] { EXPECT_EQ(ups_reopen(&record), -1); }).find("/dev/ttyS1"), std::string::npos);
    EXPECT_EQ(upschan.comfd, -1);
    unlink("/dev/ttyS1");
}

TEST_F(UpsRefusal, ABatteryDateThatDoesNotGetOutIsAFailure)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    block.ba2u.msglen = sizeof(BATTCHGTIME);
    block.ba2u.msgseqno = 1;
    const Refused refused("fcntl", EBADF);
    EXPECT_LT(ups_control(&record, UPSCMD_SETBATTIME), 0);
    EXPECT_TRUE(unit.commands().empty());
}

// ---- the loop

TEST_F(UpsRefusal, ASearchThatIsCalledOffEndsTheLine)
{
    static AGINFO *shared = nullptr;
    shared = &block;
    block.ups.up.workparam.ComSet = COMSET_AUTO;
    on_stat = [] { shared_store(shared->ups.up.workparam.ComSet, COMSET_NOUPS); };
    EXPECT_LT(seconds_of([this] { ups_turn(&record); }), 0.9);  // the next turn begins at once
    EXPECT_EQ(ui().CommStatus, COMM_NOUPS);
}

TEST_F(UpsRefusalDeathTest, AWordThatIsCutOffAndCannotBeAnsweredEndsTheProcess)
{
    std::signal(SIGPIPE, SIG_IGN);
    unlink("/.erra");
    ASSERT_EQ(write(record.chna2u.actpipe[1], "ab", 2), 2);
    close(record.chna2u.paspipe[0]);
    record.chna2u.paspipe[0] = -1;
    EXPECT_EXIT(ups_procagentcmd(&record), testing::ExitedWithCode(EPIPE), "");
    std::ifstream file("/.erra");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
              "2. read actpipe error, exit\nups:write to paspipe error, --no exit\n");
}

TEST_F(UpsRefusal, AClockThatCannotBeArmedIsTold)
{
    EXPECT_EQ(said_by([] {
                  const Refused refused("setitimer", EINVAL);
                  ups_setstartitimer(&upschan.value, &upschan.ovalue);
              }),
              "ups_setstartitimer: Invalid argument\n");
}

TEST_F(UpsRefusal, WithoutASocketTheAgentIsNotWokenAndItIsTold)
{
    EXPECT_EQ(said_by([] {
                  const Refused refused("socket", EMFILE);
                  ups_openwake();
              }),
              "ups_openwake: socket: Too many open files\n");
}

// ---- the pipe ends

static void lift(int &fd, int to)
{
    ASSERT_EQ(dup2(fd, to), to);
    close(fd);
    fd = to;
}

TEST_F(UpsRefusal, PipeEndsBelowTheLimitStayWhereTheyAre)
{
    const int commands = record.chna2u.actpipe[0];
    ASSERT_LT(commands, UPS_FDLIMIT);
    EXPECT_EQ(ups_takedescriptors(&record), 0);
    EXPECT_EQ(record.chna2u.actpipe[0], commands);
    EXPECT_EQ(fcntl(commands, F_GETFD, 0), FD_CLOEXEC);
}

TEST_F(UpsRefusalDeathTest, WithoutRoomBelowTheLimitTheProcessEnds)
{
    lift(record.chna2u.actpipe[0], 60);
    EXPECT_EXIT(
        {
            while (dup(0) < UPS_FDLIMIT) {
            }
            ups_doupschan(&record);
        },
        testing::ExitedWithCode(EMFILE), "ups_doupschan: fcntl: Too many open files");
}

TEST_F(UpsRefusalDeathTest, WithoutDescriptorsTheProcessEnds)
{
    lift(record.chna2u.paspipe[1], 60);
    EXPECT_EXIT(
        {
            const Refused refused("fcntl", EINVAL, 1);
            ups_doupschan(&record);
        },
        testing::ExitedWithCode(EINVAL), "ups_doupschan: fcntl: Invalid argument");
}

// The serial line against a scripted unit: settings, search, reply reading, noise and vanished adapters.
#include "ups_unit.h"

#include <chrono>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

// The port's flags when it was last written to, and what it says is still in its queue: a pseudo-terminal has
// none.
static int flags_at_write = -1;
static std::vector<int> queued;
static int queue_questions = 0;

// What it takes of one write, and the waits for a byte from it that end without one, byte by byte.
static constexpr std::size_t ALL = SIZE_MAX;
static std::size_t port_takes = ALL;
static std::vector<int> silent_waits;

extern "C" ssize_t write(int fd, const void *bytes, std::size_t size)
{
    if (fd != upschan.comfd)
        return syscall(SYS_write, fd, bytes, size);
    flags_at_write = fcntl(fd, F_GETFL);
    return syscall(SYS_write, fd, bytes, std::min(size, port_takes));
}

extern "C" int select(int bound, fd_set *reading, fd_set *writing, fd_set *failed, timeval *limit)
{
    const int port = upschan.comfd;
    if (!silent_waits.empty() && reading != nullptr && port >= 0 && FD_ISSET(port, reading)) {
        if (silent_waits.front()-- > 0)
            return 0;
        silent_waits.erase(silent_waits.begin());
    }
    return static_cast<int>(syscall(SYS_select, bound, reading, writing, failed, limit));
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (request != TIOCOUTQ)
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    const int left = static_cast<std::size_t>(queue_questions) < queued.size()
                         ? queued[static_cast<std::size_t>(queue_questions)]
                         : 0;
    ++queue_questions;
    std::memcpy(argument, &left, sizeof left);
    return 0;
}

class UpsLine : public UpsTest
{
  protected:
    UpsLine()
    {
        queued.clear();
        queue_questions = 0;
        port_takes = ALL;
        silent_waits.clear();
    }
};

static std::string reply_to(AGENT &record, const std::string &command, int max)
{
    UPSREPLY reply{};
    ups_query(&record, command, max, reply);
    return std::string(ups_replytext(reply));
}

// Waits until the terminal side holds input.
static void await_input()
{
    ASSERT_EQ(ups_waitfd(upschan.comfd, false, 5000000), 1);
}

static double seconds_of(const std::function<void()> &action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---- settings

TEST_F(UpsLine, IsSetTo2400BaudRawWithBothFlowControls)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    termios line{};
    ASSERT_EQ(tcgetattr(upschan.comfd, &line), 0);
    EXPECT_EQ(cfgetispeed(&line), static_cast<speed_t>(B2400));
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B2400));
    EXPECT_EQ(line.c_cflag & (CSIZE | PARENB | CSTOPB | CLOCAL), static_cast<tcflag_t>(CS8 | CLOCAL));
    EXPECT_EQ(line.c_iflag & (ISTRIP | IGNCR | ICRNL | IXON | IXOFF),
              static_cast<tcflag_t>(ICRNL | IXON | IXOFF));
    EXPECT_EQ(line.c_oflag & (ONLCR | ONOCR), 0U);
    EXPECT_EQ(line.c_lflag & (ICANON | ECHO | FLUSHO), static_cast<tcflag_t>(FLUSHO));
    EXPECT_EQ(line.c_cc[VMIN], 1);
    EXPECT_EQ(line.c_cc[VTIME], 10);
}

TEST_F(UpsLine, DescriptorBlocksAndIsClosedOnExec)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    EXPECT_EQ(fcntl(upschan.comfd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(upschan.comfd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(reply_to(record, "Bl ?\r", BATTCAP_MAX), "098\n");
    EXPECT_EQ(fcntl(upschan.comfd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(UpsLine, FailedStepNamesThePort)
{
    upschan.comtry = 2;
    testing::internal::CaptureStderr();
    EXPECT_EQ(ups_cominit(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ups_cominit: cannot get status of port /dev/ttyS2:: Bad file descriptor\n");
}

TEST_F(UpsLine, FileThatIsNoTerminalReportsItsSettings)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    upschan.comfd = ends[0];
    testing::internal::CaptureStderr();
    EXPECT_EQ(ups_cominit(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ups_cominit: cannot get /dev/ttyS0 settings:: Inappropriate ioctl for device\n");
    close(ends[1]);
}

// ---- the search

TEST_F(UpsLine, SearchTakesTheFirstPortThatAnswers)
{
    Unit unit("/dev/ttyS2");
    script_zr900pl(unit);
    EXPECT_EQ(ups_comsearch(&record), 2);
    EXPECT_EQ(upschan.comid, 2);
    EXPECT_GE(upschan.comfd, 0);
}

TEST_F(UpsLine, SearchPassesAPortThatIsNoTerminal)
{
    Unit unit("/dev/ttyS1");
    script_zr900pl(unit);
    ASSERT_EQ(symlink("/dev/null", "/dev/ttyS0"), 0);
    EXPECT_EQ(ups_comsearch(&record), 1);
    unlink("/dev/ttyS0");
}

// What is there in place of the first port cannot be opened: a socket.
class UpsLineNoPort : public UpsLine
{
  protected:
    UpsLineNoPort() : fd(socket(AF_UNIX, SOCK_STREAM, 0))
    {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        std::strcpy(name.sun_path, "/dev/ttyS0");
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&name), sizeof name), 0);
        unlink("/.erra");
    }
    ~UpsLineNoPort() override
    {
        close(fd);
        unlink("/dev/ttyS0");
        unlink("/.erra");
    }

    // Once, and nothing else: four texts, each between two rules.
    static void expect_told()
    {
        const std::string rule = "-------------------------------\n";
        std::string expected;
        for (const char *text : {"\n", "OPEN COM\n", "No such device or address", "\n"})
            expected += rule + text + rule;
        std::ifstream said("/.erra");
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(said), {}), expected);
    }

    int fd;
};

TEST_F(UpsLineNoPort, IsToldAndPassedByTheSearch)
{
    Unit unit("/dev/ttyS1");
    script_zr900pl(unit);
    EXPECT_EQ(ups_comsearch(&record), 1);
    expect_told();
}

TEST_F(UpsLineNoPort, IsToldWhenItIsTheFixedOne)
{
    Unit unit("/dev/ttyS1");
    script_zr900pl(unit);
    block.ups.up.workparam.ComSet = 1;
    EXPECT_EQ(ups_comsearch(&record), -1);
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_TRUE(unit.commands().empty());
    expect_told();
}

TEST_F(UpsLineNoPort, IsToldWhenItIsReopened)
{
    upschan.comid = 0;
    EXPECT_EQ(ups_reopen(&record), -1);
    EXPECT_EQ(upschan.comfd, -1);
    expect_told();
}

TEST_F(UpsLine, PortWithoutDescriptorBelowTheLimitIsNotUsed)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < UPS_FDLIMIT)
        taken.push_back(dup(0));
    EXPECT_EQ(ups_comsearch(&record), -1);
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_EQ(unit.count("Q1"), 0);
    for (const int fd : taken)
        close(fd);
    EXPECT_EQ(ups_comsearch(&record), 0);
    EXPECT_LT(upschan.comfd, UPS_FDLIMIT);
}

TEST_F(UpsLine, SearchPassesAPortWhoseUnitSpeaksAnotherProtocol)
{
    Unit other("/dev/ttyS0");
    other.answer("", {"NAK\r"});
    Unit unit("/dev/ttyS1");
    script_zr900pl(unit);
    EXPECT_EQ(ups_comsearch(&record), 1);
    EXPECT_EQ(other.count("Q1"), 4);
}

TEST_F(UpsLine, SearchOfAnUnknownSelectionRewritesItAndTriesAllPorts)
{
    Unit unit("/dev/ttyS3");
    script_zr900pl(unit);
    block.ups.up.workparam.ComSet = 7;
    EXPECT_EQ(ups_comsearch(&record), 3);
    EXPECT_EQ(block.ups.up.workparam.ComSet, 0);
    EXPECT_EQ(upschan.old_comset, 0);
}

TEST_F(UpsLine, SearchOfMinusOneSearchesAllPorts)
{
    block.ups.up.workparam.ComSet = -1;
    EXPECT_EQ(ups_comsearch(&record), -1);
    EXPECT_EQ(block.ups.up.workparam.ComSet, 0);
}

TEST_F(UpsLine, FixedSelectionTriesItsPortOnly)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    block.ups.up.workparam.ComSet = 2;
    EXPECT_EQ(ups_comsearch(&record), -1);
    EXPECT_TRUE(unit.commands().empty());
    block.ups.up.workparam.ComSet = 1;
    EXPECT_EQ(ups_comsearch(&record), 0);
}

TEST_F(UpsLine, FixedPortWhoseUnitDoesNotAnswerIsClosed)
{
    Unit unit("/dev/ttyS1");
    unit.answer("", {"NAK\r"});
    block.ups.up.workparam.ComSet = 2;
    upschan.comid = 3;
    EXPECT_EQ(ups_comsearch(&record), -1);
    EXPECT_EQ(upschan.comid, -1);
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_EQ(unit.count("Q1"), 4);
}

TEST_F(UpsLine, FixedPortThatIsNoTerminalIsClosed)
{
    ASSERT_EQ(symlink("/dev/null", "/dev/ttyS0"), 0);
    Unit unit("/dev/ttyS1");
    script_zr900pl(unit);
    block.ups.up.workparam.ComSet = 1;
    EXPECT_EQ(ups_comsearch(&record), -1);
    EXPECT_EQ(upschan.comfd, -1);
    EXPECT_TRUE(unit.commands().empty());
    unlink("/dev/ttyS0");
}

TEST_F(UpsLine, AutomaticSearchThatFindsNoneGivesThePreviousPort)
{
    upschan.comid = 3;
    EXPECT_EQ(ups_comsearch(&record), 3);
    EXPECT_EQ(upschan.comfd, -1);
}

TEST_F(UpsLine, SearchWithoutUpsOpensNothing)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    block.ups.up.workparam.ComSet = -2;
    EXPECT_EQ(ups_comsearch(&record), -1);
    EXPECT_TRUE(unit.commands().empty());
}

TEST_F(UpsLine, NewSearchClosesThePortOfTheOldOne)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ASSERT_EQ(ups_comsearch(&record), 0);
    const int before = upschan.comfd;
    ASSERT_EQ(ups_comsearch(&record), 0);
    EXPECT_EQ(upschan.comfd, before);
}

TEST_F(UpsLine, SearchReadsTheModel)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    EXPECT_EQ(ups_comsearch_model(&record), 7);
    EXPECT_STREQ(upschan.ups_model_s.data(), "ZR900PL");
    EXPECT_EQ(model(), "");
}

TEST_F(UpsLine, SearchTriesTheModelTwice)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Si ?", {"XX\r", "ZR900PL\r"});
    EXPECT_EQ(ups_comsearch_model(&record), 7);
    unit.answer("Si ?", {"XX\r", "XX\r", "ZR900PL\r"});
    EXPECT_EQ(ups_comsearch_model(&record), -1);
}

// ---- reading

TEST_F(UpsLine, ReplyEndsAtItsNewline)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"abc\rdef\r"});
    connect("ZR900PL");
    EXPECT_EQ(reply_to(record, "X\r", 40), "abc\n");
}

TEST_F(UpsLine, ReplyEndsAtItsMaximum)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"abcdefgh"});
    connect("ZR900PL");
    EXPECT_EQ(reply_to(record, "X\r", 4), "abcd");
}

TEST_F(UpsLine, SilenceEndsAfterThreeWaits)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    UPSREPLY reply{};
    const double established = seconds_of([&] { EXPECT_EQ(ups_query(&record, "X\r", 4, reply), -1); });
    EXPECT_GE(established, 1.75);
    EXPECT_LT(established, 2.8);
    block.ups.ui.CommStatus = COMM_LOST;
    const double lost = seconds_of([&] { EXPECT_EQ(ups_query(&record, "X\r", 4, reply), -1); });
    EXPECT_GE(lost, 2.95);
}

TEST_F(UpsLine, EachByteIsWaitedForThreeTimes)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    std::array<char, 64> buf{};
    unit.send("abc\r");
    await_input();
    silent_waits = {2, 2, 2, 2};
    EXPECT_EQ(ups_readdatafromups(&record, buf.data(), 40), 4);
    EXPECT_STREQ(buf.data(), "abc\n");
    unit.send("abc\r");
    await_input();
    silent_waits = {0, 3};
    EXPECT_EQ(ups_readdatafromups(&record, buf.data(), 40), -1);
}

TEST_F(UpsLine, ReplyWithoutEndIsNoReply)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"abc"});
    connect("ZR900PL");
    UPSREPLY reply{};
    EXPECT_EQ(ups_query(&record, "X\r", 40, reply), -1);
}

TEST_F(UpsLine, WakeNoticeBeforeAReplyIsDiscarded)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"WAKE\rabc\r"});
    connect("ZR900PL");
    EXPECT_EQ(reply_to(record, "X\r", 40), "abc\n");
}

TEST_F(UpsLine, WakeNoticeFollowedBySilenceYieldsNoBytesAndNoError)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"WAKE\r"});
    connect("ZR900PL");
    UPSREPLY reply{};
    EXPECT_EQ(ups_query(&record, "X\r", 40, reply), 0);
    EXPECT_EQ(ups_replytext(reply), "");
}

TEST_F(UpsLine, TwoWakeNoticesYieldNoBytes)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"WAKE\rWAKE up\rabc\r"});
    connect("ZR900PL");
    UPSREPLY reply{};
    EXPECT_EQ(ups_query(&record, "X\r", 40, reply), 0);
}

TEST_F(UpsLine, WakeNoticeFollowedByAnUnfinishedReplyIsAnError)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"WAKE\rabc"});
    connect("ZR900PL");
    UPSREPLY reply{};
    EXPECT_EQ(ups_query(&record, "X\r", 40, reply), -1);
}

TEST_F(UpsLine, StatusLineWithoutEndGetsItsNewlineAndTheRestIsDropped)
{
    Unit unit("/dev/ttyS0");
    std::string line = q1_line();
    line.replace(46, 1, "XYZ\r");
    unit.answer("Q1", {line});
    connect("ZR900PL");
    UPSREPLY reply{};
    const double took = seconds_of([&] { EXPECT_EQ(ups_query(&record, "Q1\r", Q1_MAX, reply), 47); });
    EXPECT_GE(took, 0.95);
    EXPECT_TRUE(q1_wellformed(ups_replytext(reply)));
    EXPECT_EQ(ups_waitfd(upschan.comfd, false, 0), 0);
}

TEST_F(UpsLine, OtherReplyOfItsMaximumIsLeftAsItIs)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {std::string(60, 'a')});
    connect("ZR900PL");
    const double took = seconds_of([&] { EXPECT_EQ(reply_to(record, "X\r", 49), std::string(49, 'a')); });
    EXPECT_LT(took, 0.9);
}

TEST_F(UpsLine, InputThatCameUnaskedDoesNotReachTheNextReply)
{
    Unit unit("/dev/ttyS0");
    unit.answer("X", {"abc\r"});
    connect("ZR900PL");
    unit.send("noise\r");
    await_input();
    EXPECT_EQ(reply_to(record, "X\r", 40), "abc\n");
}

// ---- reopening, noise, vanished adapters

TEST_F(UpsLine, ReopenWithoutPortLeavesNoneOpen)
{
    EXPECT_EQ(ups_reopen(&record), -1);
    upschan.comid = 1;
    EXPECT_EQ(ups_reopen(&record), -1);
    EXPECT_EQ(upschan.comfd, -1);
}

TEST_F(UpsLine, QueryWithoutPortIsNotSent)
{
    UPSREPLY reply{};
    EXPECT_EQ(ups_query(&record, "X\r", 4, reply), UPSREPLY_NOTSENT);
    EXPECT_EQ(ups_replytext(reply), "");
}

TEST_F(UpsLine, CommandThatIsTakenInPartIsNotSent)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    port_takes = 2;
    UPSREPLY reply{};
    EXPECT_EQ(ups_query(&record, "Q1\r", Q1_MAX, reply), UPSREPLY_NOTSENT);
    EXPECT_EQ(unit.count("Q1"), 0);
}

TEST_F(UpsLine, ACommandIsWrittenWithoutWaitingOnAPortThatWaitsOtherwise)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    EXPECT_EQ(ups_writetoups("X\r"), 2);
    EXPECT_NE(flags_at_write & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(upschan.comfd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(UpsLine, AnOrderIsLookedAfterWhileItsQueueIsNotEmptyOnly)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    const std::string order(20, 'X');
    EXPECT_EQ(ups_order(order), 20);
    EXPECT_EQ(queue_questions, 1);
    queued = {0, 5, 3, 1};
    const double took = seconds_of([&] { EXPECT_EQ(ups_order(order), 20); });
    EXPECT_EQ(queue_questions, 5);
    EXPECT_GT(took, 2 * 20 * 10 / 2400.0) << "the line time passes once more";
}

TEST_F(UpsLine, StopCharacterInNoiseBlocksTheWriteForASecondOnly)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    unit.send("\x13garbage");
    await_input();
    UPSREPLY reply{};
    const double took =
        seconds_of([&] { EXPECT_EQ(ups_query(&record, "Bl ?\r", 5, reply), UPSREPLY_NOTSENT); });
    EXPECT_LT(took, 2.0);
    EXPECT_EQ(ups_reopen(&record), 0);
    EXPECT_EQ(reply_to(record, "Bl ?\r", BATTCAP_MAX), "098\n");
}

TEST_F(UpsLine, StopCharacterDoesNotHoldUpTheClosing)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    unit.send("\x13x");
    await_input();
    EXPECT_LT(seconds_of([] { ups_closeport(); }), 1.0);
    connect("ZR900PL");
    EXPECT_EQ(ups_writetoups("X\r"), 2);
}

TEST_F(UpsLine, UnpluggedAdapterEndsTheReadAtOnce)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    unit.unplug();
    std::array<char, 64> buf{};
    const double took = seconds_of([&] { EXPECT_EQ(ups_readdatafromups(&record, buf.data(), 47), -1); });
    EXPECT_LT(took, 0.5);
    EXPECT_EQ(upschan.portdead, 1);
    UPSREPLY reply{};
    EXPECT_LT(ups_query(&record, "Q1\r", Q1_MAX, reply), 0);
}

TEST_F(UpsLine, WaitRefusesDescriptorsBeyondItsLimit)
{
    EXPECT_EQ(ups_waitfd(-1, false, 0), -1);
    EXPECT_EQ(ups_waitfd(UPS_FDLIMIT, false, 0), -1);
}

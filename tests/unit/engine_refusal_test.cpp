// The engine where the system refuses a call: the programs that tell users, the settings file, the logs and
// the clock. What could not be done is told as an error, nothing stays open, and what was there stays whole.
#include "agent_utils.h"
#include "auto.h"
#include "e_a_notify.h"
#include "e_a_notify_run.h"
#include "e_a_timer.h"
#include "filehandle.h"
#include "refusal.h"
#include "testbed.h"
#include "tests/unit/engine_fixture.h"
#include "wp_field.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

REFUSABLE(int, memfd_create, (const char *name, unsigned flags), (name, flags), noexcept, -1)
REFUSABLE(ssize_t, write, (int fd, const void *bytes, std::size_t count), (fd, bytes, count), , -1)
REFUSABLE(ssize_t, pread64, (int fd, void *bytes, std::size_t count, off64_t at), (fd, bytes, count, at), ,
          -1)
REFUSABLE(ssize_t, pread, (int fd, void *bytes, std::size_t count, off_t at), (fd, bytes, count, at), , -1)
REFUSABLE(int, pipe2, (int ends[2], int flags), (ends, flags), noexcept, -1)
REFUSABLE(int, close_range, (unsigned first, unsigned last, int flags), (first, last, flags), noexcept, -1)
REFUSABLE(pid_t, fork, (), (), noexcept, -1)
REFUSABLE(int, unlink, (const char *path), (path), noexcept, -1)
REFUSABLE(int, gethostname, (char *name, std::size_t size), (name, size), noexcept, -1)
REFUSABLE(int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), noexcept, -1)
REFUSABLE(int, ftruncate, (int fd, off_t size), (fd, size), noexcept, -1)
REFUSABLE(int, fseeko, (std::FILE * file, off_t off, int whence), (file, off, whence), , -1)
REFUSABLE(std::FILE *, fdopen, (int fd, const char *mode), (fd, mode), noexcept, nullptr)

// The stream is closed all the same.
extern "C" int fclose(std::FILE *file)
{
    static auto *const real = refusal::original<int(std::FILE *)>("fclose");
    const int result = real(file);
    return refusal::is_due("fclose") ? EOF : result;
}

static std::ptrdiff_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

// ---- programs

class Programs : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        testbed::forget_calls();
        tell_begin();
        descriptors = open_descriptors();
    }

    void TearDown() override
    {
        EXPECT_EQ(open_descriptors(), descriptors);
        Engine::TearDown();
    }

    /// Runs a line of shell and gives its output.
    static std::string output_of(const char *line)
    {
        const int file = memfd_create("output", MFD_CLOEXEC);
        PROGRAM shell{"/bin/sh", "sh", {"-c", line}};
        shell.output = file;
        EXPECT_TRUE(program_wait(program_start(shell), tell_until()));
        std::array<char, 4096> text{};
        const ssize_t got = ::pread(file, text.data(), text.size(), 0);
        close(file);
        return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    }

    std::ptrdiff_t descriptors = 0;
};

TEST_F(Programs, WhereATextCannotBeHeldNobodyIsTold)
{
    {
        const Refused refused("memfd_create", ENOMEM);
        tell_wall("a text");
        EXPECT_EQ(error_text(), "Cannot hold a text: Cannot allocate memory");
    }
    const Refused refused("write", ENOSPC);
    tell_wall("a text");
    EXPECT_EQ(error_text(), "Cannot hold a text: No space left on device");
    EXPECT_TRUE(testbed::calls().empty());
}

TEST_F(Programs, AnInterruptedWriteOfATextGoesOn)
{
    {
        const Refused refused("write", EINTR, 0, 1);
        tell_wall("a text");
    }
    ASSERT_EQ(testbed::calls_of("wall").size(), 1U);
    EXPECT_EQ(testbed::calls_of("wall").front().input, "a text\n");
}

TEST_F(Programs, WithoutAProcessTheProgramIsNamedAndNothingWaitedFor)
{
    const Refused refused("fork", EAGAIN);
    tell_wall("a text");
    EXPECT_EQ(error_text(), "/usr/bin/wall: Resource temporarily unavailable");
    EXPECT_TRUE(testbed::calls().empty());
}

TEST_F(Programs, WhereTheKernelCannotCloseARangeTheyAreClosedOneByOne)
{
    const int kept = fcntl(0, F_DUPFD, 50);
    ASSERT_GE(kept, 50);
    const Refused refused("close_range", ENOSYS);
    EXPECT_EQ(output_of("test -e /proc/self/fd/50 && echo open || echo closed"), "closed\n");
    program_closeothers();
    EXPECT_EQ(fcntl(kept, F_GETFD), FD_CLOEXEC);
    close(kept);
}

TEST_F(Programs, WhoeverWantsToKnowIsToldTheProcesses)
{
    std::vector<pid_t> started;
    program_pids = &started;
    tell_wall("a text");
    program_pids = nullptr;
    ASSERT_EQ(started.size(), 1U);
    EXPECT_GT(started.front(), 1);
}

TEST_F(Programs, ALinkThatCannotBeTakenOutOfTheListsPlaceIsNotFollowed)
{
    tell_begin();
    testbed::set_logged_in("ann pts/3\n");
    write_file("/victim", "precious");
    std::filesystem::create_symlink("/victim", "/tmp/PROG_NAME.list");
    {
        const Refused refused("unlink", EPERM);
        EXPECT_EQ(UpdateUserList("ann"), 1);
    }
    EXPECT_EQ(field_view(gszUserList[0]), "pts/3");
    EXPECT_EQ(read_file("/victim"), "precious");
    std::filesystem::remove("/tmp/PROG_NAME.list");
}

TEST_F(Programs, WithoutAFileAndAPipeThereIsNoListOfUsers)
{
    std::filesystem::create_directories("/tmp/PROG_NAME.list/in-the-way");
    {
        const Refused refused("pipe2", EMFILE);
        EXPECT_EQ(UpdateUserList("ann"), -1);
    }
    EXPECT_EQ(error_text(), "Cannot open the list of users: Too many open files");
    EXPECT_TRUE(testbed::calls().empty());
    std::filesystem::remove_all("/tmp/PROG_NAME.list");
}

// ---- the settings file

static constexpr char BEFORE[] = "[ A ]\n K = 12345\n L = 2\n\n[ B ]\n M = 3\n";

class Store : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        write_file(CONFIG_PATH, BEFORE);
    }

    /// With `call` refused, at first from the beginning and then each time one call later, up to `calls`:
    /// what is tried fails every time and leaves the file as it was.
    static void expect_failure_without_trace(const char *call, int calls, const std::function<int()> &attempt)
    {
        for (int before = 0; before < calls; ++before) {
            {
                const Refused refused(call, EIO, before);
                EXPECT_EQ(attempt(), -1) << before;
            }
            EXPECT_EQ(read_file(CONFIG_PATH), BEFORE) << before;
        }
    }
};

TEST_F(Store, AnInterruptedReadGoesOn)
{
    const Refused refused("pread", EINTR, 0, 1);
    EXPECT_STREQ(readparam("A", "K"), "12345");
}

TEST_F(Store, AFileThatCannotBeReadToItsEndStaysAsItIs)
{
    expect_failure_without_trace("pread", 3, [] { return writeparam("A", "K", "1"); });
}

// Neither is a section or a key that could not be looked for taken for one that is not there.
TEST_F(Store, WhatCannotBeReadToItsEndIsNotRemovedAndIsAFailure)
{
    for (const char *key : {"", "L"}) {
        SCOPED_TRACE(key);
        expect_failure_without_trace("pread", 4, [key] { return removeitem("A", key, 0); });
    }
}

// Larger than what is read at once.
TEST_F(Store, AKeyThatCannotBeLookedForToItsEndIsNeitherAddedNorTakenForRemoved)
{
    std::string text = "[ A ]\n";
    while (text.size() < 200'000)
        text += "; a line of somebody else's\n";
    text += " K = 12345\n";
    write_file(CONFIG_PATH, text);
    const Refused refused("pread", EIO, 1);
    EXPECT_EQ(writeparam("A", "K", "1"), -1);
    refusal::before = 1;
    EXPECT_EQ(removeitem("A", "K", 0), -1);
    EXPECT_EQ(read_file(CONFIG_PATH), text);
}

TEST_F(Store, AFileThatCannotBeShortenedFailsTheWrite)
{
    const Refused refused("ftruncate", EIO);
    EXPECT_EQ(writeparam("A", "K", "1"), -1);
}

TEST_F(Store, AStreamThatCannotBePlacedFailsTheWriteAndChangesNothing)
{
    expect_failure_without_trace("fseeko", 3, [] { return writeparam("A", "K", "1"); });
}

TEST_F(Store, AGroupThatCannotBeWrittenBackIsShownAndTold)
{
    write_file(CONFIG_PATH, "[ UPS ]\n");
    UPS_UPSINFO shown{};
    {
        const Refused refused("fseeko", EIO);
        fill_group(&shown);
    }
    EXPECT_EQ(field_view(shown.Group), "Group A");
    EXPECT_EQ(error_text(), "Cannot write Group to config file");
    EXPECT_EQ(read_file(CONFIG_PATH), "[ UPS ]\n");
}

TEST_F(Store, AWriteWhoseStreamFailsToCloseIsAFailure)
{
    for (int closes = 0; closes < 2; ++closes) {
        const Refused refused("fclose", EIO, closes, 1);
        EXPECT_EQ(writeparam("A", "K", "1"), -1) << closes;
        EXPECT_EQ(wfps, nullptr);
        EXPECT_EQ(wfpd, nullptr);
    }
    const Refused refused("fclose", EIO);
    EXPECT_EQ(removeitem("A", "L", 0), -1);
}

TEST_F(Store, NothingHasNoItems)
{
    std::size_t at = 0;
    EXPECT_EQ(nextitem(nullptr, &at), nullptr);
    EXPECT_EQ(nextitem("", &at), nullptr);
}

// ---- the logs

TEST_F(Store, ALogOfTheWrongOwnerIsWrittenAllTheSame)
{
    const Refused refused("fchown", EPERM);
    EXPECT_EQ(eventlog(7, 100, 255, "host"), 0);
    EXPECT_EQ(error_text(), "Evelog:Cannot create Evelogfile");
    EXPECT_EQ(logged(), std::vector<int>{7});
}

TEST_F(Store, APartOfALineThatCannotBeTakenOffAgainIsTold)
{
    write_file(LOG_PATH, "");
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{10, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    const Refused refused("ftruncate", EIO);
    EXPECT_EQ(eventlog(7, 100, 255, "host"), -1);
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(error_text(), "Cannot shorten log: Input/output error");
    EXPECT_EQ(read_file(LOG_PATH).size(), 10U);
}

TEST_F(Store, ALogThatCannotBeTrimmedKeepsItsLinesUntilItCan)
{
    for (int id = 1; id <= 3; ++id)
        eventlog(id, 100, 255, "host");
    {
        const Refused refused("ftruncate", EIO);
        EXPECT_EQ(eventlog(4, 2, 255, "host"), -1);
        EXPECT_EQ(engine.eventlogfailed, 1);
    }
    EXPECT_EQ(logged().size(), 4U);
    eventlog(5, 2, 255, "host");
    EXPECT_EQ(engine.eventlogfailed, 0);
    EXPECT_EQ(logged(), (std::vector{4, 5}));
}

TEST_F(Store, ADirectoryInThePlaceOfTheDataLogIsNoFailure)
{
    std::filesystem::create_directory(DATALOG_PATH);
    UPSDATA measured{};
    measured.InPutINT = 100;
    EXPECT_EQ(datalog(measured, 100), 0);
    EXPECT_EQ(error_text(), "datalog:Cannot open Datalogfile");
    std::filesystem::remove_all(DATALOG_PATH);
}

TEST_F(Store, ALogWithoutAStreamIsNotRead)
{
    write_file(LOG_PATH, "");
    const std::ptrdiff_t before = open_descriptors();
    const LOGRANGE range{0, 10};
    EVENTLOGARRAY page{};
    const Refused refused("fdopen", ENOMEM);
    EXPECT_EQ(geteventlog(&range, &page), -1);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Store, ADirectoryInThePlaceOfALogIsNotRead)
{
    std::filesystem::create_directory(LOG_PATH);
    const LOGRANGE range{0, 10};
    EVENTLOGARRAY page{};
    EXPECT_EQ(geteventlog(&range, &page), -1);
    EXPECT_EQ(page.rnum, 0);
    std::filesystem::remove_all(LOG_PATH);
}

TEST_F(Store, ALineWithoutMeasurementsHasNone)
{
    UPS_DATALOGINFO measured{};
    EXPECT_EQ(datalogtoinfo(" 5/ 3/2004  9: 7: 2\n", &measured), -1);
    EXPECT_EQ(measured.timeinfo.day, 5);
}

// ---- names and times

TEST_F(Store, AHostThatDoesNotTellItsNameHasNone)
{
    write_file(CONFIG_PATH, "[ UserInfo ]\n UserID = 11\n[ 11 ]\n Name = ann\n");
    std::array<char, NAME_SIZE> name{};
    {
        const Refused refused("gethostname", EFAULT);
        EXPECT_EQ(read_hostname(name), -1);
        act(E_CMD_GETEVENT);
    }
    EXPECT_EQ(std::string(field_view(users[0].Address)), "");
}

TEST_F(Store, AHostThatDoesNotTellItsNameFailsTheStepAndStillGoesDown)
{
    const Refused refused("gethostname", EFAULT);
    engine.ISSERVERAGNORMAL = 1;  // in the grace nothing else is done
    ups.ui.CommStatus = COMM_ESTABLISHED;
    UPS_AGENTDOWNINFO order{};
    order.delay = 3600;
    AGENTCMD command{DATAID_SHUTDOWN, {.adip = &order}};
    ein.DATA.acp = &command;
    EXPECT_EQ(act(E_CMD_DOCOMMAND), -1);
    EXPECT_EQ(engine.downreason, USER_SPECIFY);
    ein.DATA.acp = nullptr;
    EXPECT_EQ(act(0), 0) << "the name was looked for in the order's own step";
    engine.downreason = OTHERAGEDOWN;
    engine.OTHERAG_off = engine.next_off = timenow() + 10;
    field_set(engine.agentname, "elsewhere");
    EXPECT_EQ(act(0), -1);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    advance(10);
    EXPECT_EQ(act(0), -1);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    engine.ISSHUTTINGDOWN = 0;
    engine.downreason = NONE;
    engine.USR_off = timenow();
    EXPECT_EQ(act(0), -1);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(act(0), 0);
}

// Beyond the calendar, and beyond the room that a text of the date has.
TEST_F(Store, ATimeThatHasNoTextIsRefusedAndLeavesTheRecord)
{
    UPS_TIMEINFO info{};
    info.day = 7;
    for (const std::time_t t : {std::time_t{1} << 60, std::time_t{300'000'000'000}}) {
        EXPECT_EQ(gettime(t, &info), -1) << t;
        EXPECT_EQ(info.day, 7) << t;
    }
}

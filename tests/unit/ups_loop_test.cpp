// The loop of the UPS process turn by turn, its command channel, its clock and its descriptors.
#include "ups_unit.h"

#include "shared_word.h"
#include "wp_field.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <unistd.h>

class UpsLoop : public UpsTest
{
};

class UpsLoopDeathTest : public UpsTest
{
};

static constexpr std::uint32_t STATUS_NOW = 0xF0000000;
static constexpr std::uint32_t BATTERY_DATE = 0x00050000;
static constexpr std::uint32_t UNKNOWN = 0x12340000;

static double seconds_of(const std::function<void()> &action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---- link states

TEST_F(UpsLoop, FirstTurnFindsTheUnitAndEstablishesTheLine)
{
    Unit unit("/dev/ttyS1");
    script_zr900pl(unit);
    ups_turn(&record);
    EXPECT_EQ(ui().ComId, 1);
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
    EXPECT_EQ(model(), "ZR900PL");
    EXPECT_EQ(ui().upsdata.BattCap, 98);
    EXPECT_EQ(ui().sftResUPS.Result, SELFTEST_NONE);
}

TEST_F(UpsLoop, MaskOfTheFirstTurnIsPublishedWithTheLine)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    Q1FIELDS fields;
    fields.status = "10000000";
    unit.answer("Q1", {q1_line(fields)});
    ups_turn(&record);
    EXPECT_EQ(mask(), UPSBIT_ACFAIL);
}

TEST_F(UpsLoop, TurnWithoutUnitIsLostAndTakesASecond)
{
    const double took = seconds_of([this] { ups_turn(&record); });
    EXPECT_GE(took, 0.9);
    EXPECT_EQ(ui().ComId, -1);
    EXPECT_EQ(ui().CommStatus, COMM_LOST);
}

TEST_F(UpsLoop, PollsAboutOnceASecond)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    unit.clear();
    ups_turn(&record);
    ups_turn(&record);
    const int polls = unit.count("Q1");
    EXPECT_GE(polls, 1);
    EXPECT_LE(polls, 2);
}

// The clock as it stands some seconds after it was armed.
static void let_clock_run(int seconds)
{
    itimerval now{};
    now.it_value.tv_sec = upschan.ovalue.it_value.tv_sec - seconds;
    ASSERT_EQ(setitimer(ITIMER_REAL, &now, nullptr), 0);
}

TEST_F(UpsLoop, CommandsDoNotHastenThePolls)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    let_clock_run(5);
    unit.clear();
    const double took = seconds_of([this] {
        for (int i = 0; i < 10; ++i) {
            send_word(UNKNOWN);
            ups_turn(&record);
        }
    });
    const int polls = unit.count("Q1");
    EXPECT_GE(polls, 1);
    EXPECT_LE(polls, 2 + static_cast<int>(took));
}

TEST_F(UpsLoop, FailedPassOfAUnitThatStillAnswersKeepsTheLine)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    for (const char *command : {"Lf ?", "Bl ?", "BRR"})
        unit.answer(command, {"NAK\r"});
    let_clock_run(5);
    unit.clear();
    send_word(UNKNOWN);
    ups_turn(&record);
    EXPECT_EQ(unit.count("BRR"), 1);
    EXPECT_EQ(unit.count("Q1"), 2) << "the pass, and the look whether the unit is there";
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
    EXPECT_EQ(ui().ComId, 0);
    EXPECT_EQ(model(), "ZR900PL");
    EXPECT_EQ(ui().upsdata.BattCap, 98);
}

TEST_F(UpsLoop, TrickleOfNoiseKeepsNoQuestionWaiting)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    unit.clear();
    std::atomic<bool> stop{false};
    std::thread noise([&] {
        while (!stop) {
            unit.send("~");
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    const double took = seconds_of([&] {
        while (unit.count("CF") == 0)
            ups_turn(&record);
    });
    stop = true;
    noise.join();
    EXPECT_LT(took, 6);
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
}

TEST_F(UpsLoop, NoUpsIdles)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    block.ups.up.workparam.ComSet = -2;
    const double took = seconds_of([this] { ups_turn(&record); });
    EXPECT_GE(took, 0.9);
    EXPECT_EQ(ui().ComId, -2);
    EXPECT_EQ(ui().CommStatus, COMM_NOUPS);
    EXPECT_TRUE(unit.commands().empty());
}

TEST_F(UpsLoop, ChangedSelectionLeadsToANewSearch)
{
    Unit first("/dev/ttyS0");
    Unit second("/dev/ttyS1");
    script_zr900pl(first);
    script_zr401(second);
    ups_turn(&record);
    EXPECT_EQ(ui().ComId, 0);
    block.ups.up.workparam.ComSet = 2;
    ups_turn(&record);
    EXPECT_EQ(ui().ComId, 1);
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
    EXPECT_EQ(upschan.old_comset, 2);
}

TEST_F(UpsLoop, SelectionThatBecomesNoUpsEndsTheLine)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    block.ups.up.workparam.ComSet = -2;
    ups_turn(&record);
    EXPECT_EQ(ui().ComId, -2);
    EXPECT_EQ(ui().CommStatus, COMM_NOUPS);
    block.ups.up.workparam.ComSet = 0;
    ups_turn(&record);
    EXPECT_EQ(ui().ComId, 0);
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
}

TEST_F(UpsLoop, SearchThatIsGivenUpForNoUpsEndsItsTurn)
{
    Unit silent("/dev/ttyS0");
    send_word(STATUS_NOW);
    std::thread setting([&] {
        while (silent.commands().empty())
            std::this_thread::yield();
        shared_store(block.ups.up.workparam.ComSet, COMSET_NOUPS);
    });
    ups_turn(&record);
    setting.join();
    EXPECT_EQ(ui().CommStatus, COMM_NOUPS);
    EXPECT_FALSE(reply_waiting()) << "commands are the next turn's";
}

TEST_F(UpsLoop, UnpluggedUnitIsLostWithoutSpinningAndFoundOnAnotherPort)
{
    {
        Unit unit("/dev/ttyS0");
        script_zr900pl(unit);
        ups_turn(&record);
        ASSERT_EQ(ui().CommStatus, COMM_ESTABLISHED);
        mask() |= UPSBIT_ACFAIL | UPSBIT_BATTDISCONNECT;
    }
    int turns = 0;
    const double took = seconds_of([&] {
        while (ui().CommStatus != COMM_LOST && turns < 50) {
            ups_turn(&record);
            ++turns;
        }
    });
    EXPECT_LE(turns, 4);
    EXPECT_LT(took, 6.0);
    EXPECT_EQ(ui().ComId, -1);
    EXPECT_EQ(mask(), UPSBIT_ACFAIL);
    Unit unit("/dev/ttyS3");
    script_zr900pl(unit);
    ups_turn(&record);
    EXPECT_EQ(ui().ComId, 3);
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
    EXPECT_EQ(mask(), 0U);
}

TEST_F(UpsLoop, UnitOfTheOlderFamilyFoundAgainIsNeverAskedForItsCapabilities)
{
    for (int i = 0; i < 2; ++i) {
        Unit unit("/dev/ttyS0");
        script_zr401(unit);
        while (ui().CommStatus != COMM_ESTABLISHED)
            ups_turn(&record);
        EXPECT_EQ(ui().ufStatus, 0x8004);
        EXPECT_EQ(unit.count("CF"), 0);
        ups_lostcomm(&record);
    }
}

TEST_F(UpsLoop, StopCharacterInNoiseDoesNotLoseTheUnit)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    for (int i = 0; i < 3; ++i) {
        unit.send("\x13 noise \x13\n");
        ups_turn(&record);
        EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
    }
    unit.clear();
    while (unit.count("BRR") == 0)
        ups_turn(&record);
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
}

TEST_F(UpsLoop, UnaskedDataIsDiscarded)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    unit.send("(999.9 999.9 999.9 200 99.9 99.9 99.9 11111111\r");
    ups_turn(&record);
    EXPECT_EQ(ui().upsdata.InPutINT, 100);
    EXPECT_EQ(ui().upsstat, UPSSTAT_NORMAL);
}

TEST_F(UpsLoop, FirstPassIsRepeatedUntilOneSucceeds)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Lf ?", {"NAK\r", "50.2\r"});
    unit.answer("Bl ?", {"NAK\r", "098\r"});
    unit.answer("BRR", {"NAK\r", "20050412\r"});
    ups_turn(&record);
    EXPECT_GE(unit.count("CF"), 2);
    EXPECT_EQ(ui().CommStatus, COMM_ESTABLISHED);
    EXPECT_EQ(ui().upsdata.BattCap, 98);
}

TEST_F(UpsLoop, UnitThatFallsSilentInItsFirstPassIsLost)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("Q1", {q1_line(), "NAK\r"});
    ups_turn(&record);
    EXPECT_EQ(unit.count("Si ?"), 1) << "the search found it";
    EXPECT_EQ(ui().CommStatus, COMM_LOST);
    EXPECT_EQ(ui().ComId, -1);
    EXPECT_EQ(upschan.comfd, -1);
}

TEST_F(UpsLoop, FirstPassEndsWhenNoUpsIsConfigured)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("BRR", {"NAK\r"});
    unit.answer("V", {"NAK\r"});
    unit.answer("Bl ?", {"NAK\r"});
    std::thread setting([&] {
        while (unit.count("CF") < 2)
            std::this_thread::yield();
        shared_store(block.ups.up.workparam.ComSet, COMSET_NOUPS);
    });
    ups_turn(&record);
    setting.join();
    EXPECT_EQ(ui().CommStatus, COMM_LOST);
    ups_turn(&record);
    EXPECT_EQ(ui().CommStatus, COMM_NOUPS);
}

TEST_F(UpsLoop, ClockIsKeptWhileTheFirstPassDoesNotSucceed)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    unit.answer("BRR", {"NAK\r"});
    unit.answer("V", {"NAK\r"});
    unit.answer("Bl ?", {"NAK\r"});
    itimerval during{};
    std::thread watch([&] {
        itimerval nearly{};
        nearly.it_value.tv_sec = 1000;
        while (unit.count("CF") < 1)
            std::this_thread::yield();
        setitimer(ITIMER_REAL, &nearly, nullptr);
        const auto then = unit.count("CF");
        while (unit.count("CF") < then + 2)
            std::this_thread::yield();
        getitimer(ITIMER_REAL, &during);
        shared_store(block.ups.up.workparam.ComSet, COMSET_NOUPS);
    });
    ups_turn(&record);
    watch.join();
    EXPECT_GT(during.it_value.tv_sec, 9999000);
}

TEST_F(UpsLoop, WaitThatFailsIsToldAndDoesNotSpin)
{
    upschan.comfd = open("/dev/null", O_RDWR | O_CLOEXEC);
    close(record.chna2u.actpipe[0]);
    record.chna2u.actpipe[0] = UPS_FDLIMIT - 1;  // nothing is open there
    testing::internal::CaptureStderr();
    const double took = seconds_of([this] { ups_turn(&record); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ups_doupschan: select: Bad file descriptor\n");
    EXPECT_GE(took, 0.9);
    record.chna2u.actpipe[0] = -1;
}

// ---- commands

TEST_F(UpsLoop, StatusCommandRunsAPassAndIsAnswered)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    send_word(STATUS_NOW);
    ups_procagentcmd(&record);
    EXPECT_EQ(unit.count("Q1"), 1);
    EXPECT_EQ(read_reply(), STATUS_NOW | 1);
}

TEST_F(UpsLoop, FailedStatusCommandIsAnsweredWithFailure)
{
    Unit unit("/dev/ttyS0");
    unit.answer("", {"NAK\r"});
    connect("ZR900PL");
    send_word(STATUS_NOW);
    ups_procagentcmd(&record);
    EXPECT_EQ(read_reply(), STATUS_NOW | 0xFFFF);
}

TEST_F(UpsLoop, BatteryDateCommandIsAnswered)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    upschan.cmd.V = 1;
    ui().ufStatus = UPSFUNCTION_BRR;
    send_word(BATTERY_DATE);
    ups_procagentcmd(&record);
    EXPECT_EQ(read_reply(), BATTERY_DATE | 1);
    EXPECT_EQ(ui().PreChangeBatt.year, 105);
}

TEST_F(UpsLoop, UnknownCommandIsAnsweredWithFailure)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    for (const std::uint32_t code : {0x12340000U, 0U, 0x7FFF0000U}) {
        send_word(code);
        ups_procagentcmd(&record);
        EXPECT_EQ(read_reply(), code | 0xFFFF);
    }
    EXPECT_TRUE(unit.commands().empty());
}

TEST_F(UpsLoop, LowHalfOfARequestDoesNotMatter)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    send_word(STATUS_NOW | 7);
    ups_procagentcmd(&record);
    EXPECT_EQ(read_reply(), STATUS_NOW | 1);
}

TEST_F(UpsLoop, CommandOnALostLineGetsNoReply)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    connect("ZR900PL");
    ui().CommStatus = COMM_LOST;
    send_word(STATUS_NOW);
    ups_procagentcmd(&record);
    EXPECT_FALSE(reply_waiting());
    EXPECT_TRUE(unit.commands().empty());
}

TEST_F(UpsLoop, CommandIsExecutedByTheTurnThatFindsIt)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    send_word(BATTERY_DATE);
    ups_turn(&record);
    EXPECT_TRUE(reply_waiting());
}

TEST_F(UpsLoop, CommandsAreExecutedOneATurnInTheOrderTheyCame)
{
    Unit unit("/dev/ttyS0");
    script_zr900pl(unit);
    ups_turn(&record);
    send_word(UNKNOWN);
    send_word(BATTERY_DATE);
    ups_turn(&record);
    EXPECT_EQ(read_reply(), UNKNOWN | 0xFFFF);
    EXPECT_FALSE(reply_waiting());
    ups_turn(&record);
    EXPECT_EQ(read_reply(), BATTERY_DATE | 1);
}

TEST_F(UpsLoop, RepliesThatNobodyReadsDoNotHoldTheProcess)
{
    Unit unit("/dev/ttyS0");
    connect("ZR900PL");
    for (int i = 0; i < 20000; ++i) {
        send_word(0x12340000);
        ups_procagentcmd(&record);
    }
    EXPECT_EQ(read_reply(), 0x1234FFFFU);
}

TEST_F(UpsLoopDeathTest, AgentThatHasGoneEndsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "fast";
    close(record.chna2u.actpipe[1]);
    record.chna2u.actpipe[1] = -1;
    EXPECT_EXIT(ups_procagentcmd(&record), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(ups_turn(&record), testing::ExitedWithCode(0), "");
}

TEST_F(UpsLoopDeathTest, AgentThatHasGoneIsNoticedWithoutUpsToo)
{
    block.ups.up.workparam.ComSet = -2;
    close(record.chna2u.actpipe[1]);
    record.chna2u.actpipe[1] = -1;
    EXPECT_EXIT(ups_turn(&record), testing::ExitedWithCode(0), "");
}

TEST_F(UpsLoopDeathTest, ReplyThatCannotBeWrittenEndsTheProcess)
{
    std::signal(SIGPIPE, SIG_IGN);
    block.ups.ui.CommStatus = COMM_ESTABLISHED;
    send_word(0x12340000);
    close(record.chna2u.paspipe[0]);
    record.chna2u.paspipe[0] = -1;
    unlink("/.erra");
    EXPECT_EXIT(ups_procagentcmd(&record), testing::ExitedWithCode(EPIPE), "");
    std::ifstream said("/.erra");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(said), {}), "ups:write to paspipe error, exit\n");
}

TEST_F(UpsLoopDeathTest, ShortCommandIsAnsweredWithFailureAndEndsTheProcess)
{
    ASSERT_EQ(write(record.chna2u.actpipe[1], "ab", 2), 2);
    EXPECT_EXIT(ups_procagentcmd(&record), testing::ExitedWithCode(0), "");
    EXPECT_EQ(read_reply(), 0xFFFFU);
}

// ---- clock and descriptors

TEST_F(UpsLoop, ClockCountsWholeSeconds)
{
    ups_setstartitimer(&upschan.value, &upschan.ovalue);
    EXPECT_EQ(upschan.value.it_value.tv_sec, 10000000);
    EXPECT_EQ(upschan.value.it_interval.tv_sec, 0);
    EXPECT_EQ(ups_elapsed(), 0);
    ups_pause(1100000);
    EXPECT_EQ(ups_elapsed(), 1);
}

TEST_F(UpsLoop, ClockIsArmedAnewWhenLessThanHalfIsLeft)
{
    itimerval nearly{};
    nearly.it_value.tv_sec = 4999000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &nearly, nullptr), 0);
    ups_keepclock();
    itimerval now{};
    getitimer(ITIMER_REAL, &now);
    EXPECT_GT(now.it_value.tv_sec, 9999990);
    nearly.it_value.tv_sec = 6000000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &nearly, nullptr), 0);
    ups_keepclock();
    getitimer(ITIMER_REAL, &now);
    EXPECT_LE(now.it_value.tv_sec, 6000000);
}

TEST_F(UpsLoop, SignalsDoNotShortenAPause)
{
    struct sigaction action {
    };
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const pthread_t self = pthread_self();
    std::thread sender([self] {
        for (int i = 0; i < 10; ++i) {
            usleep(20000);
            pthread_kill(self, SIGUSR1);
        }
    });
    const double took = seconds_of([] { ups_pause(500000); });
    sender.join();
    EXPECT_GE(took, 0.49);
    EXPECT_LT(took, 5.0);
}

TEST_F(UpsLoop, PipeEndsAreMovedBelowTheLimitAndSocketsClosed)
{
    const auto lift = [](int &fd, int to) {
        ASSERT_EQ(dup2(fd, to), to);
        close(fd);
        fd = to;
    };
    lift(record.chna2u.actpipe[0], 60);
    lift(record.chna2u.paspipe[1], 61);
    NETSERV second{};
    NETSERV first{};
    first.next = &second;
    first.tcpfd = dup(0);
    second.tcpfd = dup(0);
    record.agnet.tfdlist = &first;
    record.agnet.ufd = dup(0);
    const int ufd = record.agnet.ufd;
    ASSERT_EQ(ups_takedescriptors(&record), 0);
    EXPECT_EQ(first.tcpfd, -1);
    EXPECT_EQ(second.tcpfd, -1);
    EXPECT_EQ(record.agnet.ufd, -1);
    EXPECT_LT(record.chna2u.actpipe[0], UPS_FDLIMIT);
    EXPECT_LT(record.chna2u.paspipe[1], UPS_FDLIMIT);
    EXPECT_EQ(fcntl(record.chna2u.actpipe[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(60, F_GETFD), -1);
    EXPECT_LE(record.chna2u.actpipe[0], ufd + 2);
    send_word(5);
    std::uint32_t word = 0;
    EXPECT_EQ(read(record.chna2u.actpipe[0], &word, sizeof word), 4);
}

TEST_F(UpsLoop, WithoutSharedBlockAPrivateOneStandsIn)
{
    AGENT bare{};
    ups_attach(&bare);
    EXPECT_EQ(upschan.u_status, &upschan.upsstatus);
    ups_comnone(&bare);
    EXPECT_EQ(upschan.aip->ups.ui.ComId, COMID_NOUPS);
}

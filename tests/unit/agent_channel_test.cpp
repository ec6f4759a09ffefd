// Command words to the UPS process and their answers.
#include "agent_channel_fixture.h"
#include "agent_clock.h"

#include <csignal>
#include <fstream>
#include <iterator>
#include <sys/syscall.h>

static std::vector<int> last_waited;  // the descriptors of the last wait for reading

extern "C" int select(int bound, fd_set *reading, fd_set *writing, fd_set *failed, timeval *limit)
{
    last_waited.clear();
    for (int fd = 0; reading != nullptr && fd < bound; ++fd)
        if (FD_ISSET(fd, reading))
            last_waited.push_back(fd);
    return static_cast<int>(syscall(SYS_select, bound, reading, writing, failed, limit));
}

static std::string debug_text()
{
    std::ifstream file("/.erra", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class Channel : public ChannelTest
{
  protected:
    Channel()
    {
        clock_shift = 0;
        unlink("/.erra");
    }
};

TEST_F(Channel, WithoutAPortEveryCommandSucceedsAndNothingIsSent)
{
    for (const auto comid : std::array<std::int8_t, 3>{-1, -2, -128}) {
        block.ups.ui.ComId = comid;
        EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), 0);
        EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_SHUTDOWN), 0);
        EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON), 0);
    }
    EXPECT_TRUE(words().empty());
    EXPECT_EQ(debug_text(), "");
}

TEST_F(Channel, CommandsWithoutAnAnswerAreSentAndNotWaitedFor)
{
    const std::vector<std::uint32_t> sent = {UPSCMD_GETBATTIME, UPSCMD_SELFTEST_LONG,
                                             UPSCMD_SELFTEST,   UPSCMD_SELFTEST_CANCEL,
                                             UPSCMD_CANCELDOWN, UPSCMD_AC,
                                             UPSCMD_AR,         UPSCMD_BUZZER_OFF,
                                             UPSCMD_SETBATTIME, UPSCMD_LEVEL_A};
    for (const std::uint32_t word : sent)
        EXPECT_EQ(daemon_sendcmdtoups(&agent, word), 0);
    EXPECT_EQ(words(), sent);
}

TEST_F(Channel, TheCommandIsNotedInTheDebugFile)
{
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_CANCELDOWN), 0);
    EXPECT_NE(debug_text().find("write actpipe, sendcmdtoups, 117440512."), std::string::npos);
    reply(UPSCMD_STATUS | DONE);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), 0);
    EXPECT_NE(debug_text().find("write actpipe, sendcmdtoups, -268435456."), std::string::npos);
}

TEST_F(Channel, AWaitedCommandSucceedsWithItsOwnAnswer)
{
    for (const std::uint32_t word : {UPSCMD_STATUS, UPSCMD_SHUTDOWN})
        EXPECT_EQ(send_while(word, [this](std::uint32_t got) { reply(got | DONE); }), 0);
}

TEST_F(Channel, AnyOtherAnswerIsAFailure)
{
    for (const std::uint32_t answer :
         {UPSCMD_STATUS | FAILED, UPSCMD_STATUS | 0U, UPSCMD_STATUS | 2U, UPSCMD_SHUTDOWN | DONE, DONE})
        EXPECT_EQ(send_while(UPSCMD_STATUS, [&](std::uint32_t) { reply(answer); }), -1);
    EXPECT_EQ(send_while(UPSCMD_SHUTDOWN, [this](std::uint32_t got) { reply(got | FAILED); }), -1);
    EXPECT_EQ(send_while(UPSCMD_STATUS, [this](std::uint32_t got) { reply(got | DONE); }), 0);
}

TEST_F(Channel, AnUnreadAnswerSpoilsTheNextWaitedCommandOnly)
{
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_GETBATTIME), 0);
    reply(UPSCMD_GETBATTIME | DONE);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
    EXPECT_EQ(words(), (std::vector<std::uint32_t>{UPSCMD_GETBATTIME, UPSCMD_STATUS}));
    EXPECT_EQ(send_while(UPSCMD_SHUTDOWN, [this](std::uint32_t got) { reply(got | DONE); }), 0);
}

TEST_F(Channel, TheAnswerOfASpoiledCommandSpoilsTheNext)
{
    reply(UPSCMD_GETBATTIME | DONE);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
    reply(UPSCMD_STATUS | DONE);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_SHUTDOWN), -1);
}

TEST_F(Channel, OfManyUnreadAnswersTheLastIsKept)
{
    reply(UPSCMD_STATUS | DONE);
    reply(UPSCMD_GETBATTIME | DONE);
    daemon_dropreplies(&agent);
    EXPECT_EQ(bytes_waiting(agent.chna2u.paspipe[0]), 0);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
    reply(UPSCMD_GETBATTIME | DONE);
    reply(UPSCMD_STATUS | DONE);
    daemon_dropreplies(&agent);
    daemon_dropreplies(&agent);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), 0);  // taken for this command's own
}

TEST_F(Channel, AnUnreadAnswerIsNotTakenByACommandThatDoesNotWait)
{
    reply(UPSCMD_GETBATTIME | DONE);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON), 0);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
}

TEST_F(Channel, UnreadAnswersNeverFillThePipe)
{
    for (int i = 0; i < 40000; ++i) {
        reply(UPSCMD_GETBATTIME | DONE);
        if (i % 1000 == 999)
            daemon_dropreplies(&agent);
    }
    EXPECT_EQ(bytes_waiting(agent.chna2u.paspipe[0]), 0);
}

TEST_F(Channel, LossOfThePortEndsTheWait)
{
    EXPECT_EQ(send_while(UPSCMD_STATUS, [this](std::uint32_t) { shared_store(block.ups.ui.ComId, -1); }), -1);
    block.ups.ui.ComId = 3;
    EXPECT_EQ(send_while(UPSCMD_SHUTDOWN, [this](std::uint32_t) { shared_store(block.ups.ui.ComId, -2); }),
              -1);
}

TEST_F(Channel, AnAnswerThatComesAfterTheLossSpoilsTheNextCommand)
{
    EXPECT_EQ(send_while(UPSCMD_STATUS, [this](std::uint32_t) { shared_store(block.ups.ui.ComId, -1); }), -1);
    reply(UPSCMD_STATUS | FAILED);
    block.ups.ui.ComId = 0;
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
}

// Lets the waiting side look at the clock a few times.
static void let_it_look()
{
    const int before = clock_looks;
    while (clock_looks < before + 8)
        usleep(1000);
}

TEST_F(Channel, AProcessThatTookTheCommandAMinuteAgoIsNotWaitedForAnyLonger)
{
    block.upspid = getpid();
    std::atomic<bool> over = false;
    std::jthread ups([&] {
        EXPECT_TRUE(readable(agent.chna2u.actpipe[0]));
        EXPECT_EQ(take_word(), UPSCMD_STATUS);
        let_it_look();
        clock_shift += 50;
        let_it_look();
        EXPECT_FALSE(over);
        while (!over) {
            clock_shift += 11;
            usleep(10000);
        }
    });
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
    over = true;
}

TEST_F(Channel, AProcessThatDoesNotRunIsNotWaitedForLongerThanAMinute)
{
    block.upspid = 0x3FFFFFFF;
    std::atomic<bool> over = false;
    std::jthread clock([&] {
        while (!over) {
            clock_shift += 61;
            usleep(10000);
        }
    });
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
    over = true;
    EXPECT_EQ(words().size(), 1U);
}

TEST_F(Channel, AProcessThatIsBusyWithSomethingElseIsWaitedForWithoutLimit)
{
    block.upspid = getpid();  // its sign of life: it goes on running
    std::jthread ups([&] {
        EXPECT_TRUE(readable(agent.chna2u.actpipe[0]));
        for (int i = 0; i < 10; ++i) {
            clock_shift += 30;
            let_it_look();
        }
        reply(take_word() | DONE);
    });
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), 0);
}

TEST_F(Channel, AUnitThatNeverPassesItsFirstQueriesIsNotWaitedForLongerThanAMinute)
{
    block.upspid = getpid();
    block.ups.ui.CommStatus = COMM_LOST;
    std::atomic<bool> over = false;
    std::jthread clock([&] {
        while (!over) {
            clock_shift += 10;
            usleep(10000);
        }
    });
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_SHUTDOWN), -1);
    over = true;
}

TEST_F(Channel, WordsThatNobodyExecutesAreRefusedBeyondALimitButNeverTheShutdown)
{
    for (int i = 0; i < 17; ++i)
        EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON), 0) << i;
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON), -1);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), -1);
    reply(UPSCMD_SHUTDOWN | DONE);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_SHUTDOWN), 0);
    std::vector<std::uint32_t> expected(17, UPSCMD_BUZZER_ON);
    expected.push_back(UPSCMD_SHUTDOWN);
    EXPECT_EQ(words(), expected);
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON), 0);
}

TEST_F(Channel, AFullPipeIsWaitedForAndThenAFailure)
{
    fcntl(agent.chna2u.actpipe[1], F_SETFL, O_NONBLOCK);
    const BYTES filling(4096);
    while (write(agent.chna2u.actpipe[1], filling.data(), filling.size()) > 0)
        ;
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_SHUTDOWN), -1);
    EXPECT_TRUE(readable(agent.chna2u.actpipe[0], 0));
}

TEST_F(Channel, APipeThatGetsRoomInTimeTakesTheCommand)
{
    const int looks = clock_looks;
    fcntl(agent.chna2u.actpipe[1], F_SETFL, O_NONBLOCK);
    const BYTES filling(4096);
    while (write(agent.chna2u.actpipe[1], filling.data(), filling.size()) > 0)
        ;
    std::jthread ups([&] {
        BYTES lying(65536);
        while (clock_looks < looks + 2)  // it waits
            usleep(1000);
        // In one read, which the command cannot come into.
        EXPECT_GT(read(agent.chna2u.actpipe[0], lying.data(), lying.size()), 0);
        if (readable(agent.chna2u.actpipe[0]))
            reply(take_word() | DONE);
    });
    EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_SHUTDOWN), 0);
}

// Runs `act` in a process of its own and returns how that ended.
static int ending_of(const std::function<void()> &act)
{
    const pid_t child = fork();
    if (child == 0) {
        std::signal(SIGPIPE, SIG_IGN);
        act();
        _exit(200);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status);
}

TEST_F(Channel, TheAgentLeavesWhenACommandCannotBeWritten)
{
    drop(agent.chna2u.actpipe[0]);
    const int status = ending_of([] { daemon_sendcmdtoups(&agent, UPSCMD_BUZZER_ON); });
    EXPECT_NE(status, 200);
    EXPECT_NE(debug_text().find("actpipe dm-sendcmdtoups: write\n"), std::string::npos);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
}

TEST_F(Channel, TheAgentLeavesWhenNoAnswerCanComeAnyMore)
{
    drop(agent.chna2u.paspipe[1]);
    const int status = ending_of([] { daemon_sendcmdtoups(&agent, UPSCMD_STATUS); });
    EXPECT_NE(status, 200);
    EXPECT_NE(debug_text().find("paspipe. daemon_sendcmdtoups: read\n"), std::string::npos);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
}

class Receiving : public Channel
{
  protected:
    Receiving()
    {
        block.bu2a.msglen = 12;
        block.bu2a.msgseqno = 1;
        block.bu2a.msgremained = 0;
        const BYTES marks = counting(12);
        std::copy(marks.begin(), marks.end(), block.bu2a.buf.begin());
    }

    /// Receives what the UPS process sends: result, word, the bytes handed over, and the answer it gets.
    void receive_word(std::uint32_t sent, std::uint32_t expected)
    {
        EXPECT_EQ(write(agent.chnu2a.actpipe[1], &sent, sizeof sent), 4);
        word = expected;
        out.assign(12, 0xEE);
        result = daemon_readdatafromups(&agent, &word, out.data());
        EXPECT_EQ(receive(agent.chnu2a.paspipe[0]), le32(result));
        EXPECT_EQ(word, sent);
        EXPECT_TRUE(result == 0 || out == BYTES(12, 0xEE));
    }

    int result = 7;
    std::uint32_t word = 0;
    BYTES out;
};

TEST_F(Receiving, AValidMessageIsHandedOverAndAnswered)
{
    receive_word(0x000500 << 8 | 128, 0x00050000);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(out, counting(12));
}

TEST_F(Receiving, AMessageOfAnotherKindIsRefused)
{
    receive_word(0x00060080, 0x00050000);
    EXPECT_EQ(result, -1);
}

TEST_F(Receiving, AWordWithoutTheMessageMarkIsRefused)
{
    for (const std::uint32_t low : {0U, 1U, 127U, 129U, 0x8080U, 0xFFFFU}) {
        receive_word(0x00050000 | low, 0x00050000);
        EXPECT_EQ(result, -1) << low;
    }
}

TEST_F(Receiving, EachFieldOfTheMessageAreaMustFit)
{
    const AUMSG good = block.bu2a;
    for (const int length : {0, 11, 13, -12}) {
        block.bu2a.msglen = length;
        receive_word(0x00050080, 0x00050000);
        EXPECT_EQ(result, -1) << "msglen " << length;
    }
    block.bu2a = good;
    for (const int number : {0, 2, -1}) {
        block.bu2a.msgseqno = number;
        receive_word(0x00050080, 0x00050000);
        EXPECT_EQ(result, -1) << "msgseqno " << number;
    }
    block.bu2a = good;
    block.bu2a.msgremained = 1;
    receive_word(0x00050080, 0x00050000);
    EXPECT_EQ(result, -1);
    block.bu2a = good;
    receive_word(0x00050080, 0x0005FFFF);  // only the high half of what is expected counts
    EXPECT_EQ(result, 0);
}

TEST_F(Receiving, WithoutAPortNothingIsReadAndTheResultIsSuccess)
{
    block.ups.ui.ComId = -1;
    word = 5;
    out.assign(12, 0xEE);
    EXPECT_EQ(daemon_readdatafromups(&agent, &word, out.data()), 0);
    EXPECT_EQ(word, 5U);
    EXPECT_EQ(out, BYTES(12, 0xEE));
    EXPECT_FALSE(readable(agent.chnu2a.paspipe[0], 0));
}

TEST_F(Receiving, TheMessageIsWaitedFor)
{
    std::jthread ups([] {
        const std::uint32_t sent = 0x00050080;
        usleep(1000);
        EXPECT_EQ(write(agent.chnu2a.actpipe[1], &sent, sizeof sent), 4);
    });
    word = 0x00050000;
    out.assign(12, 0xEE);
    EXPECT_EQ(daemon_readdatafromups(&agent, &word, out.data()), 0);
    EXPECT_EQ(out, counting(12));
}

// The stack below the caller, where the next call has its variables.
[[gnu::noinline]] static void leave_rubbish()
{
    std::array<unsigned char, 4096> rubbish;
    rubbish.fill(0xFF);
    asm volatile("" : : "r"(rubbish.data()) : "memory");
}

TEST_F(Receiving, OnlyThePipeIsWaitedFor)
{
    const std::uint32_t sent = 0x00050080;
    EXPECT_EQ(write(agent.chnu2a.actpipe[1], &sent, sizeof sent), 4);
    word = 0x00050000;
    out.assign(12, 0xEE);
    leave_rubbish();
    EXPECT_EQ(daemon_readdatafromups(&agent, &word, out.data()), 0);
    EXPECT_EQ(last_waited, std::vector<int>{agent.chnu2a.actpipe[0]});
}

TEST_F(Receiving, TheAgentLeavesWhenTheUpsProcessHasGone)
{
    drop(agent.chnu2a.actpipe[1]);
    ending_of([this] { daemon_readdatafromups(&agent, &word, out.data()); });
    EXPECT_NE(debug_text().find("daemon_readdatafromups: read\n"), std::string::npos);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
}

TEST_F(Receiving, TheAgentLeavesWhenItsAnswerCannotBeWritten)
{
    drop(agent.chnu2a.paspipe[0]);
    const int status = ending_of([this] {
        const std::uint32_t sent = 0x00050080;
        EXPECT_EQ(write(agent.chnu2a.actpipe[1], &sent, sizeof sent), 4);
        out.assign(12, 0);
        daemon_readdatafromups(&agent, &word, out.data());
    });
    EXPECT_NE(status, 200);
    EXPECT_NE(debug_text().find("paspipe daemon_readdatafromups: write\n"), std::string::npos);
}

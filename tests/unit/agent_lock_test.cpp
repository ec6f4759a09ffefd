// The cross-process lock of the shared block and the two files behind it.
#include "agent_fixture.h"
#include "agent_utils_lock.h"

#include <csignal>
#include <fstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

static constexpr char SOURCE[] = "/usr/lib/voltaria/.LCK";
static constexpr char HELD[] = "/usr/lib/voltaria/.pipelock";

static bool exists(const char *path)
{
    struct stat info;
    return stat(path, &info) == 0;
}

class FileLock : public AgentTest
{
  protected:
    FileLock()
    {
        unlink(SOURCE);
        unlink(HELD);
    }

    ~FileLock() override
    {
        unlink(SOURCE);
        unlink(HELD);
    }
};

TEST_F(FileLock, WhileHeldOnlyTheTokenExists)
{
    utils_setatomlock();
    EXPECT_TRUE(exists(HELD));
    EXPECT_FALSE(exists(SOURCE));
    releaseatomlock();
    EXPECT_FALSE(exists(HELD));
    EXPECT_FALSE(exists(SOURCE));
}

TEST_F(FileLock, ALeftOverSourceIsUsed)
{
    std::ofstream{SOURCE};
    EXPECT_TRUE(utils_tryatomlock());
    EXPECT_TRUE(exists(HELD));
    EXPECT_FALSE(exists(SOURCE));
    releaseatomlock();
}

TEST_F(FileLock, TryingAHeldLockReturnsAtOnceAndLeavesItHeld)
{
    std::ofstream{HELD};
    EXPECT_FALSE(utils_tryatomlock());
    EXPECT_FALSE(utils_tryatomlock());
    EXPECT_TRUE(exists(HELD));
    EXPECT_TRUE(exists(SOURCE));  // made for the next taker
    EXPECT_EQ(net_trytestandsetlock(), -1);
    EXPECT_EQ(block.locked, 0);
}

TEST_F(FileLock, ReleasingWhatNobodyHoldsIsReported)
{
    testing::internal::CaptureStderr();
    releaseatomlock();
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("net_releaselock: unlink: ", 0), 0U);
}

TEST_F(FileLock, ALinkThatCannotBeMadeIsReported)
{
    testing::internal::CaptureStderr();
    ASSERT_EQ(mkdir(SOURCE, 0755), 0);  // a directory cannot be linked
    EXPECT_FALSE(utils_tryatomlock());
    rmdir(SOURCE);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("utils_setatomlock: link: ", 0), 0U);
}

TEST_F(FileLock, WaitingForAHeldLockEndsWithItsRelease)
{
    utils_setatomlock();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        utils_setatomlock();
        releaseatomlock();
        _exit(7);
    }
    while (!exists(SOURCE))  // the child has tried
        usleep(100);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WNOHANG), 0);
    releaseatomlock();
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(FileLock, TheWordIsSetOnceUntilItIsCleared)
{
    EXPECT_EQ(net_testandsetlock(), 0);
    EXPECT_EQ(block.locked, 1);
    EXPECT_EQ(net_testandsetlock(), -1);
    EXPECT_EQ(net_trytestandsetlock(), -1);
    EXPECT_EQ(block.locked, 1);
    net_clearlock();
    EXPECT_EQ(block.locked, 0);
    EXPECT_EQ(net_trytestandsetlock(), 0);
    net_clearlock();
    EXPECT_FALSE(exists(HELD));
}

TEST_F(FileLock, TryingToClearTheWordDoesNotWaitForTheFileLock)
{
    EXPECT_EQ(net_testandsetlock(), 0);
    std::ofstream{HELD};
    EXPECT_FALSE(net_tryclearlock());
    EXPECT_EQ(block.locked, 1);
    EXPECT_TRUE(exists(HELD));
    unlink(HELD);
    EXPECT_TRUE(net_tryclearlock());
    EXPECT_EQ(block.locked, 0);
    EXPECT_FALSE(exists(HELD));
}

TEST_F(FileLock, WithoutASharedBlockTheLockIsFree)
{
    agent.aip = nullptr;
    EXPECT_EQ(net_testandsetlock(), 0);
    EXPECT_EQ(net_testandsetlock(), 0);
    net_clearlock();
    EXPECT_FALSE(exists(HELD));
}

// Counts of two processes that meet at each round.
struct race {
    std::atomic<int> arrived;
    std::atomic<int> won;
    std::atomic<int> decided;
    AGINFO block;
};

static constexpr int ROUNDS = 500;

// One side of the race: each round exactly one side gets the word and clears it when both have tried.
static void run_side(race &shared)
{
    for (int round = 1; round <= ROUNDS; ++round) {
        ++shared.arrived;
        while (shared.arrived < 2 * round)
            sched_yield();
        const bool mine = net_testandsetlock() == 0;
        shared.won += mine;
        ++shared.decided;
        while (shared.decided < 2 * round)
            sched_yield();
        if (mine)
            net_clearlock();
        // Nobody starts the next round before the word is clear.
        while (std::atomic_ref<std::int32_t>(shared.block.locked).load() != 0)
            sched_yield();
    }
}

TEST_F(FileLock, OfTwoProcessesThatTryAtOnceExactlyOneGetsIt)
{
    void *memory = mmap(nullptr, sizeof(race), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    race *shared = new (memory) race{};
    agent.aip = &shared->block;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        run_side(*shared);
        _exit(0);
    }
    run_side(*shared);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(shared->won, ROUNDS);
    EXPECT_FALSE(exists(HELD));
    munmap(memory, sizeof(race));
}

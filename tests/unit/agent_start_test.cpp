// The start of the daemon where the system refuses a step of it: what is left behind, and what is said. The
// process is a real one, the system calls that must fail are replaced; nothing listens beyond the test.
#include "agent_main.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sched.h>
#include <string>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

// What is refused. Set in the process that starts, before it does.
static int forks_left = INT_MAX;
static bool by_init = true;        // the parent id is that of init
static bool no_session = false;    // a session of its own
static bool no_attaching = false;  // the shared block
static bool exists = false;        // the first creation of the block says that there is one
static bool unkillable = false;    // SIGKILL to the group spares this process
static bool ups_leaves = false;    // the UPS process ends where it was to sleep

static pid_t launcher = 0;

// What the test sees of the process that starts.
struct watched_start {
    AGINFO block;          // when the processes were to part
    pid_t pid;             // of the process that was refused
    unsigned slept;        // s that the UPS process was to sleep at first
    AGENT of_ups_process;  // at that moment
};

static watched_start *const watched = static_cast<watched_start *>(
    mmap(nullptr, sizeof(watched_start), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

template <typename CALL> static CALL *system_call(const char *name)
{
    return reinterpret_cast<CALL *>(dlsym(RTLD_NEXT, name));
}

extern "C" pid_t getppid() noexcept
{
    return by_init ? 1 : system_call<pid_t()>("getppid")();
}

extern "C" pid_t fork() noexcept
{
    if (forks_left-- > 0)
        return system_call<pid_t()>("fork")();
    if (agent.aip != nullptr)
        std::memcpy(&watched->block, agent.aip, sizeof watched->block);
    watched->pid = getpid();
    errno = EAGAIN;
    return -1;
}

extern "C" pid_t setsid() noexcept
{
    if (!no_session)
        return system_call<pid_t()>("setsid")();
    // The launcher ignores its children: while it is there, nobody would learn how this one ends.
    while (system_call<pid_t()>("getppid")() == launcher)
        sched_yield();
    errno = EPERM;
    return -1;
}

extern "C" unsigned sleep(unsigned seconds)
{
    if (!ups_leaves)
        return system_call<unsigned(unsigned)>("sleep")(seconds);
    watched->slept = seconds;
    watched->of_ups_process = agent;
    _exit(0);
}

extern "C" int shmget(key_t key, std::size_t size, int flags) noexcept
{
    if (!exists || (flags & IPC_CREAT) == 0)
        return system_call<int(key_t, std::size_t, int)>("shmget")(key, size, flags);
    errno = EEXIST;
    return -1;
}

extern "C" void *shmat(int id, const void *address, int flags) noexcept
{
    if (!no_attaching)
        return system_call<void *(int, const void *, int)>("shmat")(id, address, flags);
    errno = ENOMEM;
    return reinterpret_cast<void *>(-1);
}

extern "C" int kill(pid_t pid, int number) noexcept
{
    return unkillable && pid == 0 ? 0 : system_call<int(pid_t, int)>("kill")(pid, number);
}

static constexpr int REFUSED = 100;  // status of a start that returned with -1
static constexpr int RETURNED = 101;

static std::string debug_text()
{
    std::ifstream file("/.erra", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

static int block_id()
{
    return system_call<int(key_t, std::size_t, int)>("shmget")(ftok(AGINFO_KEYFILE, AGINFO_PROJECT), 0, 0);
}

// Starts a daemon in a process and a group of its own. `refuse` says what it is refused. Returns how it
// ended, whether the launcher, which ends with 0, is met before that or behind it.
static int start(void (*refuse)())
{
    unlink("/.erra");
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        launcher = getpid();
        refuse();
        _exit(agent_main() == -1 ? REFUSED : RETURNED);
    }
    int status = 0;
    int ending = 0;
    while (wait(&status) > 0)
        if (status != 0)
            ending = status;
    return ending;
}

TEST(AgentStart, WithoutAProcessForTheDaemonTheLauncherFails)
{
    const int status = start([] {
        by_init = false;
        forks_left = 0;
    });
    EXPECT_EQ(WEXITSTATUS(status), REFUSED);
    EXPECT_EQ(block_id(), -1);
}

TEST(AgentStart, WithoutASessionOfItsOwnItEnds)
{
    const int status = start([] {
        by_init = false;
        no_session = true;
    });
    EXPECT_EQ(WEXITSTATUS(status), REFUSED);
    EXPECT_EQ(block_id(), -1);
}

TEST(AgentStart, ABlockThatCannotBeAttachedIsRemovedAndTold)
{
    EXPECT_EQ(WEXITSTATUS(start([] { no_attaching = true; })), REFUSED);
    EXPECT_EQ(debug_text(), "main, shmat, error\n");
    EXPECT_EQ(block_id(), -1);
}

// Whatever size it has.
TEST(AgentStart, ABlockThatIsSaidToExistIsTakenAsItIs)
{
    const key_t key = ftok(AGINFO_KEYFILE, AGINFO_PROJECT);
    const int id = shmget(key, 2 * sizeof(AGINFO), IPC_CREAT | 0666);
    ASSERT_NE(id, -1);
    EXPECT_EQ(WEXITSTATUS(start([] {
                  exists = true;
                  unkillable = true;
                  forks_left = 0;
              })),
              REFUSED);
    EXPECT_EQ(debug_text(), "agent out, kill everyone\n");
    EXPECT_EQ(block_id(), -1);  // it was this one: the end has removed it
}

TEST(AgentStart, WithoutAUpsProcessTheWholeGroupIsKilled)
{
    const int status = start([] { forks_left = 0; });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    EXPECT_EQ(debug_text(), "agent out, kill everyone\n");
}

TEST(AgentStart, WhereNothingIsKilledTheBlockIsRemovedAllTheSame)
{
    EXPECT_EQ(WEXITSTATUS(start([] {
                  forks_left = 0;
                  unkillable = true;
              })),
              REFUSED);
    EXPECT_EQ(block_id(), -1);
}

// Whatever an earlier daemon left in it.
TEST(AgentStart, TheBlockIsZeroButForTheUnknownPortTheLostLinkTheUnreadSettingAndTheLauncher)
{
    const int id = shmget(ftok(AGINFO_KEYFILE, AGINFO_PROJECT), sizeof(AGINFO), IPC_CREAT | 0666);
    void *left = shmat(id, nullptr, 0);
    ASSERT_NE(left, reinterpret_cast<void *>(-1));
    std::memset(left, 0x5A, sizeof(AGINFO));
    shmdt(left);
    start([] {
        forks_left = 0;
        unkillable = true;
    });
    AGINFO expected{};
    expected.agpid = watched->pid;
    expected.ups.ui.ComId = -1;
    expected.ups.ui.CommStatus = 17;
    expected.ups.up.workparam.ComSet = -1;
    EXPECT_EQ(std::memcmp(&watched->block, &expected, sizeof expected), 0);
}

TEST(AgentStart, TheUpsProcessSleepsThreeSecondsWithItsOwnEndsOfThePipesAndItsEndIsNoticed)
{
    start([] { ups_leaves = true; });
    EXPECT_EQ(watched->slept, 3U);
    const AGENT &ups = watched->of_ups_process;
    EXPECT_GE(ups.chna2u.actpipe[0], 0);
    EXPECT_EQ(ups.chna2u.actpipe[1], -1);
    EXPECT_EQ(ups.chna2u.paspipe[0], -1);
    EXPECT_GE(ups.chna2u.paspipe[1], 0);
    EXPECT_EQ(ups.chnu2a.actpipe[0], -1);
    EXPECT_GE(ups.chnu2a.actpipe[1], 0);
    EXPECT_GE(ups.chnu2a.paspipe[0], 0);
    EXPECT_EQ(ups.chnu2a.paspipe[1], -1);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
    EXPECT_EQ(block_id(), -1);
}

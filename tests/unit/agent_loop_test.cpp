// The agent process as a whole, in a process of its own: its loop over real sockets, and its ways out. The
// UPS process is the test's end of the pipes.
#include "agent_daemon.h"
#include "agent_fixture.h"
#include "agent_main.h"
#include "shared_word.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>

static std::string debug_text()
{
    std::ifstream file("/.erra", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

static void *shared_memory(std::size_t size)
{
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
}

// What the test and the agent's process both see.
struct watched_agent {
    std::atomic<int> links_left;  // so often the file lock can be taken; then somebody else has it
    std::atomic<int> block_left;  // on the way out: 1 a pointer to the removed block was left, 0 none
    std::atomic<int> turns;       // so often it began to wait for something to read
    std::atomic<int> bound;       // the descriptors that it looks at then lie below this
    std::atomic<long> logged;     // bytes that the event log had when the last datagram was sent
    std::atomic<int> aborted;     // so many connections are gone when they are to be accepted
    std::atomic<int> again;       // 1: something else fails while it tells that it ends
    std::atomic<int> epoch;       // 1: the clock stands before the beginning of time
};

static watched_agent *const watched =
    new (shared_memory(sizeof(watched_agent))) watched_agent{INT_MAX, -1, 0, 0, 0, 0, 0, 0};

extern "C" int link(const char *from, const char *to) noexcept
{
    if (watched->links_left-- > 0)
        return static_cast<int>(syscall(SYS_link, from, to));
    watched->links_left = 0;
    errno = EEXIST;
    return -1;
}

extern "C" int select(int bound, fd_set *reading, fd_set *writing, fd_set *failed, timeval *limit)
{
    static const auto real = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
    if (reading != nullptr) {
        watched->bound = bound;
        ++watched->turns;
    }
    return real(bound, reading, writing, failed, limit);
}

static long log_size()
{
    struct stat state = {};
    return stat("/usr/lib/voltaria/events.log", &state) == 0 ? static_cast<long>(state.st_size) : 0;
}

extern "C" ssize_t sendto(int fd, const void *bytes, size_t size, int flags, const sockaddr *to,
                          socklen_t length)
{
    static const auto real = reinterpret_cast<decltype(&sendto)>(dlsym(RTLD_NEXT, "sendto"));
    watched->logged = log_size();
    if (watched->again.exchange(0) == 1) {
        errno = EPIPE;
        net_netexit(&agent);
    }
    return real(fd, bytes, size, flags, to, length);
}

extern "C" int accept4(int fd, sockaddr *peer, socklen_t *length, int flags)
{
    static const auto real = reinterpret_cast<decltype(&accept4)>(dlsym(RTLD_NEXT, "accept4"));
    if (watched->aborted-- <= 0) {
        watched->aborted = 0;
        return real(fd, peer, length, flags);
    }
    errno = ECONNABORTED;
    return -1;
}

extern "C" std::time_t time(std::time_t *out) noexcept
{
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
    const std::time_t seconds = watched->epoch == 1 ? -5 : now.tv_sec;
    if (out != nullptr)
        *out = seconds;
    return seconds;
}

static bool host_has_name = true;  // set before the agent's process parts

extern "C" int uname(utsname *name) noexcept
{
    if (host_has_name)
        return static_cast<int>(syscall(SYS_uname, name));
    errno = EFAULT;
    return -1;
}

template <typename PREDICATE> static bool eventually(PREDICATE holds)
{
    const int step = 20;
    for (int waited = 0; waited < PATIENCE && !holds(); waited += step)
        poll(nullptr, 0, step);
    return holds();
}

static double seconds_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The agent ready to run.
class Ready : public AgentTest
{
  protected:
    Ready()
    {
        watched->links_left = INT_MAX;
        watched->block_left = -1;
        watched->aborted = watched->again = watched->epoch = 0;
        unlink("/.erra");
        std::ofstream{"/usr/lib/voltaria/config"};
        monitors = listen_udp(4113);
        attach();
        agent.chna2u = {make_pipe(), make_pipe()};
        agent.chnu2a = {make_pipe(), make_pipe()};
        EXPECT_EQ(init_uport(&agent.agnet, 4114), 0);
        EXPECT_EQ(init_tport(&agent.agnet, 4112), 0);
    }

    ~Ready() override
    {
        if (child > 0) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        shmdt(shared);
        shmctl(agent.shmid, IPC_RMID, nullptr);
        init_freeservlist(&agent.agnet);
        close(agent.agnet.ufd);
    }

    void attach()
    {
        agent.shmid = shmget(IPC_PRIVATE, sizeof(AGINFO), 0600);
        shared = static_cast<AGINFO *>(shmat(agent.shmid, nullptr, 0));
        agent.aip = shared;
        *shared = AGINFO{};
        shared->ups.ui.ComId = -1;
        shared->ups.ui.CommStatus = 0;  // as from the start: nothing to tell monitors about
        shared->ups.protocol = 1;
    }

    void start()
    {
        child = fork();
        ASSERT_GE(child, 0);
        if (child != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(agent.chnu2a.actpipe[1]);
        std::signal(SIGPIPE, SIG_IGN);
        std::atexit([] { watched->block_left = agent.aip != nullptr ? 1 : 0; });
        daemon_doagent(&agent);
    }

    int monitor()
    {
        const int fd = keep(socket(AF_INET, SOCK_STREAM, 0));
        const sockaddr_in to = ip_address(INADDR_LOOPBACK, 4112);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
        return fd;
    }

    /// Asks for the status and waits for it.
    static bool is_served(int fd)
    {
        send_all(fd, packet(16));
        const BYTES answer = receive(fd, 228);
        return answer.size() == 228 && answer[3] == 64;
    }

    static void wait_for_turns(int count)
    {
        const int before = watched->turns;
        EXPECT_TRUE(eventually([&] { return watched->turns >= before + count; }));
    }

    int ending()
    {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        child = -1;
        EXPECT_TRUE(WIFEXITED(status)) << status;
        return WEXITSTATUS(status);
    }

    void send_datagram(const BYTES &bytes)
    {
        const int fd = keep(socket(AF_INET, SOCK_DGRAM, 0));
        const sockaddr_in to = ip_address(INADDR_LOOPBACK, 4114);
        EXPECT_EQ(
            sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
            static_cast<ssize_t>(bytes.size()));
    }

    AGINFO *shared = nullptr;
    pid_t child = -1;
    int monitors = -1;
};

// The agent running.
class Loop : public Ready
{
  protected:
    Loop()
    {
        start();
    }
};

TEST_F(Loop, AStatusRequestIsAnsweredWith228Bytes)
{
    EXPECT_TRUE(is_served(monitor()));
}

TEST_F(Loop, KeepAliveBytesAreNotAnsweredAndTheConnectionStays)
{
    const int fd = monitor();
    send_all(fd, {0xFF});
    send_all(fd, {0xFF, 0xFF});
    EXPECT_TRUE(is_served(fd));
    EXPECT_FALSE(readable(fd, 0));
}

TEST_F(Loop, AMonitorThatStallsInMidPacketHoldsNobodyUp)
{
    const int stalled = monitor();
    const BYTES request = packet(17, counting(28));
    send_all(stalled, {request.begin(), request.begin() + 20});
    EXPECT_TRUE(is_served(monitor()));
    send_all(stalled, {request.begin() + 20, request.end()});
    EXPECT_EQ(receive(stalled, 36).size(), 36U);
}

TEST_F(Loop, ADeadConnectionIsClosedAndTheNextMonitorIsStillServed)
{
    const int first = monitor();
    const int second = monitor();
    EXPECT_TRUE(is_served(first));
    EXPECT_TRUE(is_served(second));
    send_all(first, header(0x0110, 0, 82, 0x7FFFFFFF));
    EXPECT_TRUE(readable(first));
    std::array<char, 8> rest;
    EXPECT_EQ(read(first, rest.data(), rest.size()), 0);
    EXPECT_TRUE(is_served(second));
}

TEST_F(Loop, A65thMonitorIsConnectedAndNeverServed)
{
    const int first = monitor();
    EXPECT_TRUE(is_served(first));
    for (int i = 1; i < 64; ++i) {
        monitor();
        EXPECT_TRUE(is_served(first));  // few connections can wait to be accepted
    }
    const int extra = monitor();
    send_all(extra, packet(16));
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(is_served(first));
    EXPECT_FALSE(readable(extra, 0));
}

TEST_F(Loop, DatagramsOfAnySizeDoNotDisturbIt)
{
    for (std::size_t size = 0; size < 60; ++size)
        send_datagram(BYTES(size, static_cast<std::uint8_t>(size)));
    send_datagram(packet(16));
    send_datagram(join({packet(17, counting(28)), {0}}));
    send_datagram(join({packet(18, counting(40)), {0, 0}}));
    send_datagram(packet(81, counting(40000)));
    EXPECT_TRUE(is_served(monitor()));
}

TEST_F(Loop, TheEndOfTheUpsProcessEndsIt)
{
    EXPECT_TRUE(is_served(monitor()));
    shared_store(shared->ups.up.commparam.AgentType, 5);
    drop(agent.chnu2a.actpipe[1]);
    ending();
    EXPECT_NE(debug_text().find("actpipe. daemon_doagent: ups module failed\n"), std::string::npos);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
    EXPECT_EQ(shmctl(agent.shmid, IPC_RMID, nullptr), 0);  // still attached here, removed already
}

TEST_F(Loop, AToolStopsItWithANegativeWord)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    shared_store(shared->isagentchg, -1);
    send_all(fd, {0xFF});  // the word is looked at when something happens
    ending();
    EXPECT_NE(debug_text().find("daemon_doagent: receive agentmanage stop command\n"), std::string::npos);
    EXPECT_EQ(shared->locked, 0);
    shmid_ds state{};
    EXPECT_TRUE(shmctl(agent.shmid, IPC_STAT, &state) == -1 || (state.shm_perm.mode & SHM_DEST) != 0);
}

TEST_F(Loop, AToolsRequestWaitsWhileTheBlockIsLocked)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    shared_store(shared->locked, 1);
    shared_store(shared->isagentchg, -1);
    EXPECT_TRUE(is_served(fd));
    EXPECT_TRUE(is_served(fd));
    shared_store(shared->locked, 0);
    send_all(fd, {0xFF});
    ending();
}

TEST_F(Loop, AToolsSettingsEventIsTakenOnce)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    shared_store(shared->isagentchg, 1);
    EXPECT_TRUE(is_served(fd));
    EXPECT_TRUE(is_served(fd));
    EXPECT_EQ(shared_load(shared->isagentchg), 0);
    EXPECT_EQ(shared_load(shared->locked), 0);
}

TEST_F(Loop, AWordThatAsksForNothingKnownIsLeftAsItIs)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    shared_store(shared->isagentchg, 2);
    EXPECT_TRUE(is_served(fd));
    EXPECT_TRUE(is_served(fd));
    EXPECT_TRUE(eventually([&] { return shared_load(shared->locked) == 0; }));
    EXPECT_EQ(shared_load(shared->isagentchg), 2);
}

TEST_F(Loop, AFileLockThatIsTakenWhileTheBlockIsLockedHoldsNobodyUp)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    watched->links_left = 1;  // enough to lock the block, not to unlock it
    shared_store(shared->isagentchg, 1);
    ASSERT_TRUE(is_served(fd));
    ASSERT_TRUE(is_served(fd));
    EXPECT_EQ(shared_load(shared->isagentchg), 0);
    EXPECT_EQ(shared_load(shared->locked), 1);
    watched->links_left = INT_MAX;
    EXPECT_TRUE(is_served(fd));
    EXPECT_TRUE(is_served(fd));
    EXPECT_EQ(shared_load(shared->locked), 0);
}

// A tool waits for the word as long as it is set.
TEST_F(Loop, ABlockThatCouldNotBeUnlockedIsUnlockedThoughNothingHappensAnyMore)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    watched->links_left = 1;
    shared_store(shared->isagentchg, 1);
    ASSERT_TRUE(is_served(fd));
    ASSERT_TRUE(is_served(fd));
    wait_for_turns(1);  // it waits, with the word set
    ASSERT_EQ(shared_load(shared->locked), 1);
    watched->links_left = INT_MAX;
    EXPECT_TRUE(eventually([&] { return shared_load(shared->locked) == 0; }));
}

TEST_F(Loop, AToolsRequestThatMetTheFileLockTakenIsServedThoughNothingHappensAnyMore)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    watched->links_left = 0;
    shared_store(shared->isagentchg, 1);
    ASSERT_TRUE(is_served(fd));
    ASSERT_TRUE(is_served(fd));
    wait_for_turns(1);
    ASSERT_EQ(shared_load(shared->isagentchg), 1);
    watched->links_left = INT_MAX;
    EXPECT_TRUE(eventually([&] { return shared_load(shared->isagentchg) == 0; }));
}

TEST_F(Loop, AToolsRequestIsLookedForWhenSomethingHappensOnly)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    wait_for_turns(1);
    shared_store(shared->locked, 1);
    shared_store(shared->isagentchg, 1);
    EXPECT_TRUE(is_served(fd));
    EXPECT_TRUE(is_served(fd));
    wait_for_turns(1);
    shared_store(shared->locked, 0);
    wait_for_turns(2);
    EXPECT_EQ(shared_load(shared->isagentchg), 1);
    send_all(fd, {0xFF});
    EXPECT_TRUE(eventually([&] { return shared_load(shared->isagentchg) == 0; }));
}

TEST_F(Loop, AToolStopsItThoughTheFileLockIsTakenMeanwhile)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    watched->links_left = 1;
    shared_store(shared->isagentchg, -1);
    send_all(fd, {0xFF});
    EXPECT_TRUE(readable(fd));  // closed
    if (!HasFailure())
        ending();
}

// The SIGCHLD handler may still run then, for a program that some event started.
TEST_F(Loop, OnItsWayOutNothingPointsAtTheRemovedBlockAnyMore)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    shared_store(shared->isagentchg, -1);
    send_all(fd, {0xFF});
    ending();
    EXPECT_EQ(watched->block_left, 0);
}

TEST_F(Loop, WithNobodyConnectedItGoesOnTurning)
{
    for (int i = 0; i < 2; ++i) {
        const std::uint32_t unread = 0x00050001;  // dropped once a turn
        EXPECT_EQ(write(agent.chna2u.paspipe[1], &unread, sizeof unread), 4);
        const int step = 100;
        for (int waited = 0; waited < PATIENCE && bytes_waiting(agent.chna2u.paspipe[0]) > 0; waited += step)
            poll(nullptr, 0, step);
        EXPECT_EQ(bytes_waiting(agent.chna2u.paspipe[0]), 0);
    }
}

TEST_F(Loop, ATurnInWhichNothingHappensLastsASecond)
{
    EXPECT_TRUE(is_served(monitor()));
    const double begin = seconds_now();
    const int before = watched->turns;
    EXPECT_TRUE(eventually([&] { return watched->turns >= before + 3; }));
    const int passed = watched->turns - before;
    // The turn under way, and those of the monitor that has come and gone, may be shorter.
    EXPECT_LE(passed, 3 + seconds_now() - begin);
}

// The entries are the pipe, the socket for datagrams, the listeners together, and each monitor.
TEST_F(Loop, WhatIsLookedAtIsBoundedByTheNumberOfEntries)
{
    const int first = monitor();
    for (int monitors_now = 1; monitors_now <= 40; ++monitors_now) {
        EXPECT_TRUE(is_served(first));
        EXPECT_TRUE(is_served(first));  // a turn that began with all of them
        const int entries = 3 + monitors_now;
        EXPECT_EQ(watched->bound, entries <= 31 ? 32 : entries + 1) << monitors_now << " monitors";
        monitor();
    }
}

TEST_F(Ready, AnEngineThatCannotBeginEndsItAtOnce)
{
    const long logged = log_size();
    host_has_name = false;
    start();
    host_has_name = true;
    EXPECT_EQ(ending(), 255);
    EXPECT_NE(debug_text().find("daemon_doagent: Event_Action(Init) failed\n"), std::string::npos);
    EXPECT_EQ(debug_text().find("net_netexit called\n"), std::string::npos);
    EXPECT_EQ(log_size(), logged);  // neither the start nor the stop
}

TEST_F(Ready, ASelectThatFailsEndsIt)
{
    const int ufd = std::exchange(agent.agnet.ufd, 31);  // below the bound
    ASSERT_EQ(fcntl(31, F_GETFD), -1);
    start();
    EXPECT_EQ(ending(), EBADF);
    agent.agnet.ufd = ufd;
    EXPECT_NE(debug_text().find("daemon_doagent: select\n"), std::string::npos);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
}

TEST_F(Ready, AListenerThatFailsEndsIt)
{
    const int deaf = keep(socket(AF_INET, SOCK_STREAM, 0));  // bound to nothing, not listening
    EXPECT_GE(dup2(deaf, agent.agnet.tfdlist->tcpfd), 0);
    start();
    EXPECT_EQ(ending(), EINVAL);
    EXPECT_NE(debug_text().find("daemon_doagent: accept\n"), std::string::npos);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
}

TEST_F(Loop, AConnectionThatIsGoneBeforeItIsAcceptedHoldsNobodyUp)
{
    watched->aborted = 3;
    EXPECT_TRUE(is_served(monitor()));
    EXPECT_TRUE(is_served(monitor()));
    EXPECT_EQ(watched->aborted, 0);
}

TEST_F(Loop, AFailureOnItsWayOutEndsItAtOnce)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    shared_store(shared->ups.up.commparam.AgentType, 5);
    watched->again = 1;
    shared_store(shared->isagentchg, -1);
    send_all(fd, {0xFF});
    EXPECT_EQ(ending(), EPIPE);
    EXPECT_EQ(debug_text().find("net_netexit called\n"), std::string::npos);
}

TEST_F(Ready, AnEngineThatCannotBeStartedEndsIt)
{
    watched->epoch = 1;
    start();
    EXPECT_EQ(ending(), 255);
    EXPECT_NE(debug_text().find("daemon_doagent: Event_Action(Init) failed\n"), std::string::npos);
}

TEST_F(Loop, GoingMonitorsAreToldThreeTimes)
{
    const int fd = monitor();
    EXPECT_TRUE(is_served(fd));
    receive(monitors);
    shared_store(shared->ups.up.commparam.AgentType, 5);
    shared_store(shared->isagentchg, -1);
    send_all(fd, {0xFF});
    ending();
    const BYTES told = receive(monitors);
    ASSERT_EQ(told.size(), 300U);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(told[i * 100 + 3], 240);
        EXPECT_EQ(told[i * 100 + 8], 1);  // Delete
    }
    EXPECT_GT(log_size(), watched->logged) << "the stop is logged behind that";
}

// How the daemon starts and ends: from a shell and by init, its endpoints, the shared block, and what ends
// it.
#include "bed.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace bed;
using testbed::Daemon;
using testbed::SharedBlock;
using testbed::TcpClient;

namespace
{

std::string descriptors_0_to_2(pid_t pid)
{
    return testbed::descriptor_target(pid, 0) + " " + testbed::descriptor_target(pid, 1) + " " +
           testbed::descriptor_target(pid, 2);
}

constexpr char CONSOLE_THRICE[] = "/dev/console /dev/console /dev/console";

int open_descriptors(pid_t pid)
{
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd)
        if (!testbed::descriptor_target(pid, fd).empty())
            ++count;
    return count;
}

// SigIgn of /proc/PID/status as a bit mask.
std::uint64_t ignored_signals(pid_t pid)
{
    const std::string text = testbed::read_file("/proc/" + std::to_string(pid) + "/status");
    return std::stoull(text.substr(text.find("SigIgn:") + 7), nullptr, 16);
}

bool ignores(pid_t pid, int signo)
{
    return (ignored_signals(pid) >> (signo - 1) & 1) != 0;
}

int bind_to(int fd, std::uint32_t address, std::uint16_t port)
{
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = htonl(address);
    return bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local);
}

// Waits until no process of the daemon is left and says whether the block went, too.
void expect_all_gone(Daemon &daemon)
{
    daemon.wait_gone(PATIENCE);
    EXPECT_TRUE(testbed::eventually(PATIENCE, [] { return !SharedBlock::exists(); }));
}

}  // namespace

TEST(Start, FromAShellTheLauncherEndsWithZeroAndTheDaemonLivesOnInASessionOfItsOwnOnTheConsole)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const auto agent = testbed::process_info(daemon.agent_pid());
    ASSERT_TRUE(agent);
    EXPECT_EQ(agent->session, agent->pid);
    EXPECT_EQ(agent->parent, 1);
    EXPECT_EQ(agent->terminal, 0);
    EXPECT_EQ(descriptors_0_to_2(daemon.agent_pid()), CONSOLE_THRICE);
    EXPECT_EQ(descriptors_0_to_2(daemon.ups_pid()), CONSOLE_THRICE);
}

TEST(Start, FromAShellTheTerminalAndEndSignalsAreIgnored)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    for (const int signo : {SIGTTOU, SIGTTIN, SIGTSTP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGALRM, SIGIO,
                            SIGXCPU, SIGXFSZ, SIGSEGV, SIGHUP})
        EXPECT_TRUE(ignores(daemon.agent_pid(), signo)) << strsignal(signo);
    EXPECT_FALSE(ignores(daemon.agent_pid(), SIGCHLD));
    kill(daemon.agent_pid(), SIGTERM);
    EXPECT_EQ(ask_status(TcpClient{}).size(), 220u);
}

TEST(Start, WithParentIdOneNothingIsForkedAndSignalsAreUntouched)
{
    Daemon daemon(VOLTARIAD);
    daemon.start_by_init();
    const auto agent = testbed::process_info(daemon.agent_pid());
    ASSERT_TRUE(agent);
    EXPECT_EQ(agent->parent, 1);
    for (const int signo : {SIGTTOU, SIGINT, SIGTERM, SIGPIPE, SIGALRM, SIGHUP})
        EXPECT_FALSE(ignores(daemon.agent_pid(), signo)) << strsignal(signo);
    EXPECT_EQ(descriptors_0_to_2(daemon.agent_pid()), CONSOLE_THRICE);
    const SharedBlock block;
    EXPECT_EQ(block->agpid, daemon.agent_pid());
}

TEST(Start, UnderInitSigtermEndsTheAgentAndTheUpsProcessFollows)
{
    Daemon daemon(VOLTARIAD);
    daemon.start_by_init();
    kill(daemon.agent_pid(), SIGTERM);
    daemon.wait_gone(PATIENCE);
}

TEST(Start, TheRecordedAgentIdIsThatOfTheLauncherThatHasGone)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const SharedBlock block;
    EXPECT_NE(block->agpid, daemon.agent_pid());
    EXPECT_NE(block->agpid, 0);
    EXPECT_FALSE(testbed::process_info(block->agpid));
    EXPECT_EQ(block->upspid, daemon.ups_pid());
}

TEST(Start, TheBlockIsInitialisedBeforeAnyUnitIsFound)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const SharedBlock block;
    EXPECT_EQ(block->ups.ui.ComId, -1);
    EXPECT_EQ(block->ups.ui.CommStatus, 17);
    EXPECT_EQ(block->locked, 0);
    EXPECT_EQ(block->isagentchg, 0);
    struct shmid_ds info;
    const int id = shmget(ftok("/etc/.KAVEXUPS", 1029), 0, 0);
    ASSERT_EQ(shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_segsz, 1660u);
    EXPECT_EQ(info.shm_perm.mode & 0777, 0666);
}

TEST(Start, ALeftoverBlockOfTheRightSizeIsUsedAgainAndZeroed)
{
    const int id = shmget(ftok("/etc/.KAVEXUPS", 1029), 1660, IPC_CREAT | 0666);
    ASSERT_NE(id, -1);
    void *block = shmat(id, nullptr, 0);
    std::memset(block, 0x5A, 1660);
    shmdt(block);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(shmget(ftok("/etc/.KAVEXUPS", 1029), 0, 0), id);
    const SharedBlock fresh;
    EXPECT_EQ(fresh->udinfo, 0);
    EXPECT_EQ(fresh->bu2a.msglen, 0);
    EXPECT_EQ(fresh->ups.up.commparam.ClientTime, 0u);
    EXPECT_EQ(fresh->ups.ui.upsdata.InPutINT, 0);
}

TEST(Start, ALeftoverBlockThatIsTooSmallEndsTheStartAndIsNamed)
{
    ASSERT_NE(shmget(ftok("/etc/.KAVEXUPS", 1029), 100, IPC_CREAT | 0666), -1);
    Daemon daemon(VOLTARIAD);
    EXPECT_EQ(daemon.launch(), 0);
    daemon.wait_gone(PATIENCE);
    EXPECT_THAT(testbed::read_debug(), testing::HasSubstr("main-shmget: identifier removed\n"));
}

TEST(Start, WithoutTheKeyFileItEndsAtOnceAndSilently)
{
    ASSERT_EQ(unlink("/etc/.KAVEXUPS"), 0);
    const auto result = testbed::run({VOLTARIAD});
    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(result.output + result.errors, "");
    EXPECT_EQ(testbed::read_debug(), "");
    EXPECT_EQ(testbed::read_console(), "");
}

TEST(Start, WithoutAConsoleItEnds)
{
    Daemon daemon(VOLTARIAD);
    umount2("/dev/console", MNT_DETACH);
    ASSERT_EQ(unlink("/dev/console"), 0);
    EXPECT_EQ(daemon.launch(), 0);
    daemon.wait_gone(PATIENCE);
    EXPECT_FALSE(SharedBlock::exists());
}

TEST(Start, WithTheUdpPortInUseItEnds)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(bind_to(fd, INADDR_ANY, testbed::AGENT_UDP_PORT), 0);
    Daemon daemon(VOLTARIAD);
    EXPECT_EQ(daemon.launch(), 0);
    daemon.wait_gone(PATIENCE);
    EXPECT_FALSE(SharedBlock::exists());
    close(fd);
}

TEST(Start, WithOneTcpPortInUseItEnds)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind_to(fd, 0x0A4D0001, testbed::TCP_PORT), 0);  // 10.77.0.1
    ASSERT_EQ(listen(fd, 1), 0);
    Daemon daemon(VOLTARIAD);
    EXPECT_EQ(daemon.launch(), 0);
    daemon.wait_gone(PATIENCE);
    EXPECT_FALSE(SharedBlock::exists());
    close(fd);
}

TEST(Start, WithoutDescriptorsForItsPipesItEndsItsWholeGroup)
{
    Daemon daemon(VOLTARIAD);
    // Console three times, UDP socket, two listeners, two pipes; one is left for the debug file.
    EXPECT_EQ(testbed::run({"/bin/sh", "-c", "ulimit -n 11; exec " + VOLTARIAD}).status, 0);
    testbed::wait_until("the reason in the debug file", PATIENCE, [] {
        return testbed::read_debug().find("agent out, kill everyone\n") != std::string::npos;
    });
    daemon.wait_gone(PATIENCE);
}

TEST(Start, WithoutItsDirectoryItServesOnDefaults)
{
    umount2("/usr/lib/voltaria", MNT_DETACH);
    ASSERT_EQ(rename("/usr/lib/voltaria", "/usr/lib/elsewhere"), 0);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(ask_status(TcpClient{}).size(), 220u);
}

TEST(Start, EveryLocalAddressHasAListenerOfItsOwnAndNoneIsTheWildcard)
{
    ASSERT_EQ(testbed::run({"ip", "address", "add", "10.99.0.1/24", "dev", "lo"}).status, 0);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    for (const char *address : {"127.0.0.1", "10.77.0.1", "10.99.0.1"})
        EXPECT_EQ(ask_status(TcpClient(address)).size(), 220u) << address;
    EXPECT_THROW(TcpClient("127.0.0.2"), testbed::TestbedError);
    const std::string sockets = testbed::read_file("/proc/net/tcp");
    EXPECT_THAT(sockets, testing::Not(testing::HasSubstr("00000000:1010")));
    EXPECT_THAT(sockets, testing::HasSubstr("0100007F:1010"));
    EXPECT_THAT(sockets, testing::HasSubstr("01004D0A:1010"));
    EXPECT_THAT(sockets, testing::HasSubstr("0100630A:1010"));
    EXPECT_THAT(testbed::read_file("/proc/net/udp"), testing::HasSubstr("00000000:1012"));
}

TEST(Start, AnAddressAddedLaterIsNotServed)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    ASSERT_EQ(testbed::run({"ip", "address", "add", "10.99.0.1/24", "dev", "lo"}).status, 0);
    EXPECT_THROW(TcpClient("10.99.0.1"), testbed::TestbedError);
}

TEST(Start, TheEngineLogsTheStart)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::wait_until("the start in the event log", PATIENCE,
                        [] { return testbed::read_file(testbed::EVENT_LOG).size() == 44; });
    const std::string log = testbed::read_file(testbed::EVENT_LOG);
    EXPECT_EQ(log.substr(19), "   7 255                \n");
    struct stat info;
    ASSERT_EQ(stat(testbed::EVENT_LOG, &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(info.st_gid, 1u);
    EXPECT_THAT(testbed::read_debug(), testing::HasSubstr("-------------------------------\n"
                                                          "can debug echo on\n"
                                                          "-------------------------------\n"));
}

TEST(Start, DescriptorsThatTheLauncherHadOpenDoNotReachTheDaemon)
{
    const int extra = open("/dev/null", O_RDONLY);
    const int last = fcntl(extra, F_DUPFD, 255);
    const int beyond = fcntl(extra, F_DUPFD, 256);
    ASSERT_EQ(last, 255);
    ASSERT_EQ(beyond, 256);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(testbed::descriptor_target(daemon.agent_pid(), last), "");
    EXPECT_EQ(testbed::descriptor_target(daemon.agent_pid(), beyond), "/dev/null");
    // The one beyond, console three times, UDP socket, two listeners, four pipe ends; the shared block has
    // none. While users are told of the start there are more for a moment.
    testbed::wait_until(
        "eleven descriptors", PATIENCE, [&] { return open_descriptors(daemon.agent_pid()) == 11; },
        [&] { return std::to_string(open_descriptors(daemon.agent_pid())); });
    close(beyond);
    close(last);
    close(extra);
}

TEST(Start, BothProcessesStandInItsDirectoryAndCreateFilesWithTheModesTheyAskFor)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    for (const pid_t pid : {daemon.agent_pid(), daemon.ups_pid()}) {
        const std::string process = "/proc/" + std::to_string(pid);
        EXPECT_EQ(std::filesystem::read_symlink(process + "/cwd"), "/usr/lib/voltaria");
        EXPECT_THAT(testbed::read_file(process + "/status"), testing::HasSubstr("Umask:\t0000\n"));
    }
}

TEST(Start, OnAHostWithThirtyAddressesTheUpsProcessKeepsItsPipesAndPortBelowThirtyTwo)
{
    for (int i = 1; i <= 30; ++i)
        ASSERT_EQ(testbed::run({"ip", "address", "add", "10.98.0." + std::to_string(i) + "/32", "dev", "lo"})
                      .status,
                  0);
    testbed::Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const SharedBlock block;
    testbed::wait_until("the unit to be found", PATIENCE, [&] { return block->ups.ui.CommStatus == 2; });
    int pipes = 0;
    bool port = false;
    for (int fd = 0; fd < 32; ++fd) {
        const std::string target = testbed::descriptor_target(daemon.ups_pid(), fd);
        pipes += target.starts_with("pipe:") ? 1 : 0;
        port = port || target.starts_with("/dev/pts/");
    }
    EXPECT_GE(pipes, 2);
    EXPECT_TRUE(port);
    // A command still finds its way: a change of the port setting is not needed for the link to stay up.
    EXPECT_EQ(block->ups.ui.ComId, 0);
}

TEST(End, WhenTheUpsProcessIsKilledTheAgentAnnouncesItThreeTimesAndGoes)
{
    Daemon daemon(VOLTARIAD);
    const testbed::UdpSocket monitor(testbed::MONITOR_UDP_PORT);
    daemon.start();
    kill(daemon.ups_pid(), SIGKILL);
    int down = 0;
    while (down < 3) {
        const auto announcement = monitor.receive(PATIENCE);
        ASSERT_TRUE(announcement) << "announcements of going down seen: " << down;
        if (static_cast<unsigned char>(announcement->bytes.at(3)) == 240 &&
            word_at(announcement->bytes, 8) == 1)
            ++down;
    }
    expect_all_gone(daemon);
    EXPECT_FALSE(monitor.receive(0ms));
    EXPECT_THAT(testbed::read_debug(), testing::HasSubstr("net_netexit called\n"));
    EXPECT_THAT(testbed::read_debug(), testing::AnyOf(testing::HasSubstr("receive sigchild, exit\n"),
                                                      testing::HasSubstr("ups module failed\n")));
}

TEST(End, WhenTheAgentIsKilledTheUpsProcessGoesAndAFreshStartServes)
{
    testbed::Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    kill(daemon.agent_pid(), SIGKILL);
    daemon.wait_gone(PATIENCE);
    daemon.start();
    wait_for_link(2);
}

TEST(End, ANegativeRequestWordStopsTheAgentAndRemovesTheBlock)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    SharedBlock::request(-1);
    const TcpClient wake;  // the word is looked at on turns in which something happened
    expect_all_gone(daemon);
    EXPECT_THAT(testbed::read_debug(),
                testing::HasSubstr("daemon_doagent: receive agentmanage stop command\n"));
}

TEST(End, AnAgentEventRequestIsTakenAndTheWordCleared)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    SharedBlock::request(1);
    const SharedBlock block;
    const TcpClient client;
    testbed::wait_until("the request word to be cleared", PATIENCE, [&] {
        (void)ask_status(client);
        return block->isagentchg == 0;
    });
    EXPECT_EQ(block->locked, 0);
}

TEST(End, ALockFileThatAKilledToolLeftBehindHoldsUpItsRequestsAndNothingElse)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::write_file("/usr/lib/voltaria/.pipelock", "");
    SharedBlock::request(-1);
    const TcpClient client;
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(ask_status(client).size(), 220u);
    EXPECT_TRUE(daemon.running());
    ASSERT_EQ(unlink("/usr/lib/voltaria/.pipelock"), 0);
    client.send(packet(16));
    expect_all_gone(daemon);
}

TEST(End, RequestsWaitWhileSomebodyHoldsTheBlock)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    auto *block = static_cast<AGINFO *>(shmat(shmget(ftok("/etc/.KAVEXUPS", 1029), 0, 0), nullptr, 0));
    ASSERT_NE(block, reinterpret_cast<AGINFO *>(-1));
    __atomic_store_n(&block->locked, 1, __ATOMIC_SEQ_CST);
    SharedBlock::request(1);
    const TcpClient client;
    for (int i = 0; i < 20; ++i)
        (void)ask_status(client);
    EXPECT_EQ(__atomic_load_n(&block->isagentchg, __ATOMIC_SEQ_CST), 1);
    __atomic_store_n(&block->locked, 0, __ATOMIC_SEQ_CST);
    testbed::wait_until("the request to be taken", PATIENCE, [&] {
        (void)ask_status(client);
        return __atomic_load_n(&block->isagentchg, __ATOMIC_SEQ_CST) == 0;
    });
    shmdt(block);
}

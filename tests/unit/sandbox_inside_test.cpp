// What a program finds inside a sandbox with three interfaces, and what the test bed does there.

#include "tests/support/testbed.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/capability.h>
#include <linux/reboot.h>
#include <map>
#include <net/if.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using testbed::Call;
using testbed::milliseconds;
using testbed::seconds;
using testbed::TcpClient;
using testbed::TestbedError;
using testbed::UdpSocket;

static std::string dotted(const sockaddr *address)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    sockaddr_in sin = {};
    std::memcpy(&sin, address, sizeof sin);
    inet_ntop(AF_INET, &sin.sin_addr, text.data(), text.size());
    return text.data();
}

TEST(SandboxInside, MachineCannotBeStopped)
{
    for (const int capability : {CAP_SYS_BOOT, CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_SYS_TIME, CAP_MKNOD})
        ASSERT_EQ(prctl(PR_CAPBSET_READ, capability), 0) << capability;
    // A request that would change no more than the meaning of Ctrl-Alt-Del; the right is asked for before the
    // request is looked at.
    EXPECT_EQ(
        syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2, LINUX_REBOOT_CMD_CAD_OFF, nullptr), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST(SandboxInside, PidNamespaceIsNotTheMachines)
{
    EXPECT_EQ(getppid(), 1);
    const std::optional<testbed::ProcessInfo> first = testbed::process_info(1);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->program.substr(first->program.rfind('/') + 1), "sandbox");
}

TEST(SandboxInside, EmergencyKeysAndKernelSettingsAreOutOfReach)
{
    const int keys = open("/proc/sysrq-trigger", O_WRONLY);
    if (keys >= 0) {
        struct stat keys_stat = {};
        struct stat null_stat = {};
        ASSERT_EQ(fstat(keys, &keys_stat), 0);
        ASSERT_EQ(stat("/dev/null", &null_stat), 0);
        EXPECT_EQ(keys_stat.st_rdev, null_stat.st_rdev);
        close(keys);
    }
    EXPECT_LT(open("/proc/sys/kernel/hostname", O_WRONLY), 0);
}

TEST(SandboxInside, InterfacesAreUpWithTheirAddresses)
{
    std::map<std::string, std::string> found;
    ifaddrs *list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    for (const ifaddrs *one = list; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET)
            continue;
        found[one->ifa_name] = dotted(one->ifa_addr);
        EXPECT_TRUE((one->ifa_flags & IFF_UP) != 0) << one->ifa_name;
        if ((one->ifa_flags & IFF_LOOPBACK) == 0) {
            EXPECT_TRUE((one->ifa_flags & IFF_BROADCAST) != 0) << one->ifa_name;
            EXPECT_EQ(dotted(one->ifa_netmask), "255.255.255.0");
        }
    }
    freeifaddrs(list);
    EXPECT_THAT(found,
                testing::ElementsAre(testing::Pair("eth0", "10.77.0.1"), testing::Pair("eth1", "10.77.1.1"),
                                     testing::Pair("eth2", "10.77.2.1"), testing::Pair("lo", "127.0.0.1")));
}

TEST(SandboxInside, BroadcastComesBackOnceToThisMachine)
{
    const UdpSocket listener(testbed::MONITOR_UDP_PORT);
    const UdpSocket sender;
    for (const std::string network : {"10.77.0", "10.77.1", "10.77.2"}) {
        sender.send(network + ".255", testbed::MONITOR_UDP_PORT, "hello " + network);
        const std::optional<testbed::Datagram> datagram = listener.receive();
        ASSERT_TRUE(datagram) << network;
        EXPECT_EQ(datagram->bytes, "hello " + network);
        EXPECT_EQ(datagram->from, network + ".1");
        EXPECT_EQ(datagram->port, sender.port());
        EXPECT_FALSE(listener.receive(milliseconds(50))) << network;
    }
}

TEST(SandboxInside, NoOtherNetworkIsReachable)
{
    try {
        const TcpClient client("192.0.2.1", 80, seconds(2));
        FAIL() << "connected";
    } catch (const TestbedError &error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("Network is unreachable"));
    }
}

TEST(Testbed, WaitThatFailsSaysForWhatAndWhatWasSeen)
{
    int looks = 0;
    testbed::wait_until("three looks", seconds(5), [&] { return ++looks == 3; });
    EXPECT_EQ(looks, 3);
    try {
        testbed::wait_until(
            "rain", milliseconds(20), [] { return false; }, [] { return std::string("sun"); });
        FAIL();
    } catch (const TestbedError &error) {
        EXPECT_STREQ(error.what(), "waited 20 ms for rain; seen instead: sun");
    }
}

TEST(Testbed, CallsAreReadBackWithArgumentsAndInput)
{
    const testbed::RunResult result = testbed::run(
        {"sh", "-c",
         "printf 'a\\tb\\\\c\\n' | /usr/bin/write root 'pts/1 x'; /usr/bin/mesg y; /sbin/shutdown -h -t0 0"});
    ASSERT_EQ(result.status, 0) << result.errors;
    const std::vector<Call> list = testbed::calls();
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[0].path, "/usr/bin/write");
    EXPECT_THAT(list[0].arguments, testing::ElementsAre("root", "pts/1 x"));
    EXPECT_EQ(list[0].input, "a\tb\\c\n");
    EXPECT_EQ(list[1].name(), "mesg");
    EXPECT_THAT(list[2].arguments, testing::ElementsAre("-h", "-t0", "0"));
    EXPECT_EQ(testbed::calls_of("shutdown").size(), 1U);
    EXPECT_GT(list[0].time, 1.6e9);
    testbed::forget_calls();
    EXPECT_TRUE(testbed::calls().empty());
}

TEST(Testbed, WhoPrintsWhatTheTestSaid)
{
    testbed::set_logged_in("anna pts/3 2024-01-01 10:00\n");
    EXPECT_EQ(testbed::run({"who"}).output, "anna pts/3 2024-01-01 10:00\n");
}

TEST(Testbed, RunGivesStatusOutputAndErrors)
{
    const testbed::RunResult result =
        testbed::run({"sh", "-c", "echo out; echo err >&2; exit 9"}, seconds(5));
    EXPECT_EQ(result.status, 9);
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.errors, "err\n");
    EXPECT_THROW((void)testbed::run({"sleep", "20"}, milliseconds(50)), TestbedError);
}

TEST(Testbed, ChildEndsWithItsObject)
{
    pid_t pid = 0;
    {
        testbed::Child child({"sleep", "1000"}, {}, "");
        pid = child.pid();
        EXPECT_TRUE(child.running());
    }
    EXPECT_EQ(kill(pid, 0), -1);
    testbed::Child other({"sh", "-c", "exit 5"}, {}, "");
    EXPECT_EQ(other.wait(seconds(5)), 5);
}

TEST(Testbed, ListeningPortIsSeenWithoutConnecting)
{
    EXPECT_FALSE(testbed::tcp_listening(testbed::TCP_PORT));
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(testbed::TCP_PORT);
    sin.sin_addr.s_addr = inet_addr("10.77.1.1");
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin), 0);
    ASSERT_EQ(listen(fd, 5), 0);
    EXPECT_TRUE(testbed::tcp_listening(testbed::TCP_PORT));

    TcpClient client("10.77.1.1");
    const int peer = accept(fd, nullptr, nullptr);
    client.send("ask");
    std::array<char, 3> got{};
    EXPECT_EQ(recv(peer, got.data(), got.size(), MSG_WAITALL), 3);
    EXPECT_EQ(send(peer, "answer", 6, 0), 6);
    EXPECT_EQ(client.receive(6), "answer");
    EXPECT_THROW((void)client.receive(1, milliseconds(20)), TestbedError);
    EXPECT_THROW(client.expect_close(milliseconds(20)), TestbedError);
    close(peer);
    client.expect_close();
    close(fd);
}

TEST(Testbed, SharedBlockIsAbsentBeforeTheDaemonStarts)
{
    EXPECT_FALSE(testbed::SharedBlock::exists());
    EXPECT_THROW((void)testbed::SharedBlock(), TestbedError);
}

// The one way by which packets leave, and what goes to all monitors at once.
#include "agent_fixture.h"
#include "agent_net.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <net/if.h>
#include <string>
#include <sys/syscall.h>

// The interface request that fails from now on, for one interface; each interface that is asked is noted.
static unsigned long failing_request = 0;
static std::string failing_interface;
static std::string asked_interfaces;

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (failing_request != 0 && request == SIOCGIFFLAGS)
        asked_interfaces += std::string(static_cast<ifreq *>(argument)->ifr_name) + " ";
    if (request == failing_request && failing_interface == static_cast<ifreq *>(argument)->ifr_name) {
        errno = ENODEV;
        return -1;
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

class Sending : public AgentTest
{
  protected:
    /// The agent's UDP socket, allowed to broadcast.
    int open_agent_udp()
    {
        agent.agnet.ufd = keep(socket(AF_INET, SOCK_DGRAM, 0));
        const int on = 1;
        EXPECT_EQ(setsockopt(agent.agnet.ufd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on), 0);
        return agent.agnet.ufd;
    }

    static void hold_for(const BYTES &bytes, int sockfd, const sockaddr_in &to)
    {
        hold(bytes, nullptr);
        packet_setorigin({sockfd, to, 0, 0});
    }

    /// A monitor whose socket takes no more byte.
    int connect_full_monitor(std::int32_t lang = 0)
    {
        const int peer = connect_monitor(lang);
        int sockfd = -1;
        for (const NETCLI *client = agent.agnet.clilist; client != nullptr; client = client->next)
            sockfd = client->sockfd;
        const BYTES filling(4096);
        while (send(sockfd, filling.data(), filling.size(), MSG_DONTWAIT) > 0)
            ;
        return peer;
    }

    /// The same over TCP: the agent's end, the monitor's end.
    std::pair<int, int> connect_by_tcp()
    {
        const int listener = keep(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in addr = ip_address(INADDR_LOOPBACK, 0);
        socklen_t size = sizeof addr;
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&addr), size), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &size), 0);
        const int theirs = keep(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(connect(theirs, reinterpret_cast<const sockaddr *>(&addr), size), 0);
        const int ours = keep(accept(listener, nullptr, nullptr));
        clients_register(&agent.agnet, ours, addr);
        return {ours, theirs};
    }

    /// How many of these monitors have got exactly the packet.
    static std::vector<bool> got(const std::vector<int> &peers, const BYTES &bytes)
    {
        std::vector<bool> result;
        for (const int peer : peers) {
            const BYTES received = receive(peer);
            EXPECT_TRUE(received.empty() || received == bytes);
            result.push_back(!received.empty());
        }
        return result;
    }
};

TEST_F(Sending, AnswersToInquiriesAndOrdersGoOutAsOneDatagram)
{
    open_agent_udp();
    const int peer = listen_udp(20001);
    for (const int id : {240, 242, 18}) {
        const BYTES bytes = packet(id, counting(40));
        hold_for(bytes, agent.agnet.ufd, ip_address(INADDR_LOOPBACK, 20001));
        EXPECT_EQ(net_sendpacketout(&agent), 0) << id;
        EXPECT_EQ(receive(peer, bytes.size()), bytes) << id;
    }
}

TEST_F(Sending, OtherAnswersToADatagramFail)
{
    open_agent_udp();
    const int peer = listen_udp(20001);
    for (const int id : {64, 65, 194, 198}) {
        hold_for(packet(id, counting(20)), agent.agnet.ufd, ip_address(INADDR_LOOPBACK, 20001));
        EXPECT_EQ(net_sendpacketout(&agent), -1) << id;
    }
    EXPECT_FALSE(readable(peer, 0));
}

TEST_F(Sending, AnAnswerGoesToTheMonitorThatAsked)
{
    const int first = connect_monitor();
    const int second = connect_monitor();
    const BYTES bytes = packet(64, counting(220));
    hold(bytes, agent.agnet.clilist->next);
    EXPECT_EQ(net_sendpacketout(&agent), 0);
    EXPECT_EQ(receive(second), bytes);
    EXPECT_TRUE(receive(first).empty());
}

TEST_F(Sending, AnswersToAMonitorAreNotDatagramsWhateverTheirKind)
{
    open_agent_udp();
    const int peer = connect_monitor();
    for (const int id : {240, 242, 18}) {
        hold(packet(id), agent.agnet.clilist);
        EXPECT_EQ(net_sendpacketout(&agent), 0);
        EXPECT_EQ(receive(peer), packet(id));
    }
}

TEST_F(Sending, AnAnswerToAMonitorThatHasGoneFails)
{
    const int peer = connect_monitor();
    shutdown(peer, SHUT_RDWR);
    hold(packet(64, counting(220)), agent.agnet.clilist);
    EXPECT_EQ(net_sendpacketout(&agent), -1);
}

TEST_F(Sending, AMessageGoesToEveryMonitorInEveryLanguage)
{
    std::vector<int> peers;
    for (const int lang : {0, 1, 2, 3, -1})
        peers.push_back(connect_monitor(lang));
    hold(packet(79, counting(30)), agent.agnet.clilist->next);
    EXPECT_EQ(net_sendpacketout(&agent), 0);
    EXPECT_EQ(got(peers, packet(79, counting(30))), std::vector<bool>(5, true));
}

TEST_F(Sending, AMessageWithNobodyConnectedSucceeds)
{
    hold(packet(79), nullptr);
    EXPECT_EQ(net_sendpacketout(&agent), 0);
    EXPECT_EQ(net_broadcastmsg2monitor(&agent), 0);
    EXPECT_EQ(broadcastmsg2monitor(&agent, 1), 0);
    EXPECT_EQ(sendpacketout_msg(&agent, 2), 0);
}

TEST_F(Sending, AMonitorWithALanguageGetsMessagesOfThatLanguageOnly)
{
    const std::vector<int> langs = {0, 1, 2, 3, -1, 257};
    std::vector<int> peers;
    for (const int lang : langs)
        peers.push_back(connect_monitor(lang));
    const BYTES bytes = packet(79, counting(30));
    hold(bytes, nullptr);
    EXPECT_EQ(broadcastmsg2monitor(&agent, 1), 0);
    EXPECT_EQ(got(peers, bytes), (std::vector<bool>{true, true, false, true, true, true}));
    EXPECT_EQ(broadcastmsg2monitor(&agent, 2), 0);
    EXPECT_EQ(got(peers, bytes), (std::vector<bool>{false, false, true, false, false, false}));
    EXPECT_EQ(sendpacketout_msg(&agent, 2), 0);
    EXPECT_EQ(got(peers, bytes), (std::vector<bool>{false, false, true, false, false, false}));
}

TEST_F(Sending, OnlyMessagesGoOutByLanguage)
{
    const int peer = connect_monitor(1);
    hold(packet(64), agent.agnet.clilist);
    EXPECT_EQ(sendpacketout_msg(&agent, 1), 0);
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(Sending, AMonitorWhoseSocketIsFullMissesTheMessageAndTheOthersDoNot)
{
    std::vector<int> peers;
    peers.push_back(connect_monitor());
    const int full = connect_full_monitor();
    peers.push_back(connect_monitor());
    const BYTES bytes = packet(79, counting(30));
    hold(bytes, nullptr);
    EXPECT_EQ(net_broadcastmsg2monitor(&agent), 0);
    EXPECT_EQ(got(peers, bytes), (std::vector<bool>{true, true}));
    const BYTES held = receive(full);
    EXPECT_EQ(std::count(held.begin(), held.end(), std::uint8_t{0}), static_cast<long>(held.size()));
    EXPECT_FALSE(client_haspending(agent.agnet.clilist->next));
}

TEST_F(Sending, AMonitorWithUrgentDataMissesTheMessage)
{
    const auto [ours, peer] = connect_by_tcp();
    const BYTES bytes = packet(79, counting(30));
    hold(bytes, nullptr);
    EXPECT_EQ(net_broadcastmsg2monitor(&agent), 0);
    EXPECT_EQ(receive(peer, bytes.size()), bytes);
    ASSERT_EQ(send(peer, "!", 1, MSG_OOB), 1);
    pollfd urgent{ours, POLLPRI, 0};
    ASSERT_EQ(poll(&urgent, 1, PATIENCE), 1);
    EXPECT_EQ(net_broadcastmsg2monitor(&agent), 0);
    EXPECT_FALSE(readable(peer, 0));
}

TEST_F(Sending, AMonitorThatIsOwedBytesMissesTheMessage)
{
    const int peer = connect_monitor();
    NETCLI *client = agent.agnet.clilist;
    const BYTES answer = packet(81, counting(400000));
    EXPECT_EQ(client_send(client, answer), 0);
    ASSERT_TRUE(client_haspending(client));
    BYTES got = receive(peer);  // its socket has room again
    hold(packet(79, counting(30)), nullptr);
    EXPECT_EQ(net_broadcastmsg2monitor(&agent), 0);
    while (client_haspending(client)) {
        ASSERT_EQ(client_flush(client), 0);
        const BYTES part = receive(peer);
        got.insert(got.end(), part.begin(), part.end());
    }
    EXPECT_EQ(got, answer);
}

TEST_F(Sending, AMonitorThatHasGoneMakesTheResultFailAndTheOthersStillGetTheMessage)
{
    const int first = connect_monitor();
    const int second = connect_monitor();
    shutdown(first, SHUT_RDWR);
    const BYTES bytes = packet(79, counting(30));
    hold(bytes, nullptr);
    EXPECT_EQ(net_broadcastmsg2monitor(&agent), -1);
    EXPECT_EQ(broadcastmsg2monitor(&agent, 1), -1);
    EXPECT_EQ(sendpacketout_msg(&agent, 1), -1);
    EXPECT_EQ(receive(second), join({bytes, bytes, bytes}));
}

TEST_F(Sending, AFreeSlotInTheListEndsTheWalk)
{
    const int first = connect_monitor();
    connect_monitor();
    const int third = connect_monitor();
    agent.agnet.clilist->next->sockfd = -1;
    const BYTES bytes = packet(79, counting(30));
    hold(bytes, nullptr);
    EXPECT_EQ(net_broadcastmsg2monitor(&agent), -1);
    EXPECT_EQ(receive(first), bytes);
    EXPECT_TRUE(receive(third).empty());
}

TEST_F(Sending, WithoutARouteADatagramGoesToTheBroadcastAddressOfEachInterface)
{
    open_agent_udp();
    const int peer = listen_udp(20002);
    const BYTES bytes = packet(240, counting(92));
    hold_for(bytes, agent.agnet.ufd, ip_address(0xC0000201, 20002));  // 192.0.2.1
    EXPECT_EQ(net_sendpacketout(&agent), 0);
    EXPECT_EQ(receive(peer, 2 * bytes.size()), join({bytes, bytes}));
}

TEST_F(Sending, EachInterfaceThatCanBroadcastIsServedOnceOnTheSamePort)
{
    open_agent_udp();
    const int all = keep(socket(AF_INET, SOCK_DGRAM, 0));
    const int on = 1;
    setsockopt(all, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    const sockaddr_in local = ip_address(INADDR_ANY, 20003);
    ASSERT_EQ(bind(all, reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
    sockaddr_in to = ip_address(INADDR_BROADCAST, 20003);
    EXPECT_EQ(net_sendbrdmsgovereachinterface(agent.agnet.ufd, packet(240), &to), 0);
    EXPECT_EQ(to.sin_port, htons(20003));
    std::vector<std::uint32_t> targets;
    while (readable(all, targets.size() < 2 ? PATIENCE : 0)) {
        std::array<std::uint8_t, 64> data;
        alignas(cmsghdr) std::array<char, 128> control;
        iovec part{data.data(), data.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        ASSERT_EQ(recvmsg(all, &message, 0), 8);
        in_pktinfo info{};
        std::copy_n(CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof info,
                    reinterpret_cast<unsigned char *>(&info));
        targets.push_back(ntohl(info.ipi_addr.s_addr));
    }
    EXPECT_EQ(targets, (std::vector<std::uint32_t>{0x0A4D00FF, 0x0A4D01FF}));  // never lo
}

static void set_interface_up(const std::string &name, bool up)
{
    const int control = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq record{};
    std::copy(name.begin(), name.end(), record.ifr_name);
    ASSERT_EQ(ioctl(control, SIOCGIFFLAGS, &record), 0);
    const int flags = up ? record.ifr_flags | IFF_UP : record.ifr_flags & ~IFF_UP;
    record.ifr_flags = static_cast<short>(flags);
    ASSERT_EQ(ioctl(control, SIOCSIFFLAGS, &record), 0);
    close(control);
}

static std::size_t occurrences(const std::string &text, const std::string &part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

static constexpr char SEND_FAILED[] = "net_sendbrdmsgovereachinterface: send: ";

TEST_F(Sending, AnInterfaceThatFailsIsTriedAgainInPlaceOfTheLast)
{
    open_agent_udp();
    const int peer = listen_udp(20004);
    sockaddr_in to = ip_address(INADDR_BROADCAST, 20004);
    set_interface_up("eth0", false);
    testing::internal::CaptureStderr();
    EXPECT_EQ(net_sendbrdmsgovereachinterface(agent.agnet.ufd, packet(240), &to), 0);
    EXPECT_EQ(occurrences(testing::internal::GetCapturedStderr(), SEND_FAILED), 2U);
    EXPECT_FALSE(readable(peer, 0));
    set_interface_up("eth0", true);
}

TEST_F(Sending, AnInterfaceWhoseBroadcastAddressCannotBeAskedIsTriedInPlaceOfTheLast)
{
    open_agent_udp();
    const int peer = listen_udp(20004);
    sockaddr_in to = ip_address(INADDR_BROADCAST, 20004);
    asked_interfaces.clear();
    failing_interface = "eth0";
    failing_request = SIOCGIFBRDADDR;
    testing::internal::CaptureStderr();
    EXPECT_EQ(net_sendbrdmsgovereachinterface(agent.agnet.ufd, packet(240), &to), 0);
    failing_request = 0;
    EXPECT_EQ(occurrences(testing::internal::GetCapturedStderr(),
                          "net_sendbrdmsgovereachinterface: ioctl(SIOCGIFBRDADDR): "),
              2U);
    EXPECT_EQ(asked_interfaces, "lo eth0 eth0 ");
    EXPECT_FALSE(readable(peer, 0));
}

TEST_F(Sending, AnInterfaceWhoseFlagsCannotBeAskedIsReportedOnStandardOutput)
{
    open_agent_udp();
    const int peer = listen_udp(20004);
    sockaddr_in to = ip_address(INADDR_BROADCAST, 20004);
    asked_interfaces.clear();
    failing_interface = "eth1";
    failing_request = SIOCGIFFLAGS;
    testing::internal::CaptureStdout();
    EXPECT_EQ(net_sendbrdmsgovereachinterface(agent.agnet.ufd, packet(240), &to), 0);
    failing_request = 0;
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "net_sendbrdmsgovereachinterface: can't get interface(eth1)'s flags\n");
    EXPECT_EQ(asked_interfaces, "lo eth0 eth1 ");
    EXPECT_EQ(receive(peer, 8), packet(240));  // over eth0
    EXPECT_FALSE(readable(peer, 0));
}

TEST_F(Sending, AFailureOfTheLastInterfaceIsMetOnce)
{
    open_agent_udp();
    const int peer = listen_udp(20004);
    sockaddr_in to = ip_address(INADDR_BROADCAST, 20004);
    set_interface_up("eth1", false);
    testing::internal::CaptureStderr();
    EXPECT_EQ(net_sendbrdmsgovereachinterface(agent.agnet.ufd, packet(240), &to), 0);
    EXPECT_EQ(occurrences(testing::internal::GetCapturedStderr(), SEND_FAILED), 1U);
    EXPECT_EQ(receive(peer, 8), packet(240));
    set_interface_up("eth1", true);
}

TEST_F(Sending, ABroadcastOverNoSocketIsAFailure)
{
    sockaddr_in to = ip_address(INADDR_BROADCAST, 20004);
    testing::internal::CaptureStderr();
    EXPECT_EQ(net_sendbrdmsgovereachinterface(-1, packet(240), &to), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("SIOCGIFCONF: ", 0), 0U);
}

// The UDP socket, the listeners and the list of interface addresses they are made from.
#include "agent_fixture.h"
#include "agent_main.h"
#include "agent_utils.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <netinet/tcp.h>
#include <set>

class Endpoints : public AgentTest
{
  protected:
    ~Endpoints() override
    {
        init_freeservlist(&agent.agnet);
        if (agent.agnet.ufd >= 0)
            close(agent.agnet.ufd);
    }

    static std::vector<std::string> listed()
    {
        std::vector<std::string> texts;
        for (const NETSERV *listener = agent.agnet.tfdlist; listener != nullptr; listener = listener->next)
            texts.emplace_back(listener->addrstr.data());
        return texts;
    }

    /// Connects to `host`; the result is the socket, or -1.
    int reach(const std::string &host, int port)
    {
        const int fd = keep(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in to = ip_address(0, port);
        inet_pton(AF_INET, host.c_str(), &to.sin_addr);
        return connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0 ? fd : -1;
    }

    static int open_descriptors()
    {
        int count = 0;
        for (int fd = 0; fd < 256; ++fd)
            count += fcntl(fd, F_GETFD) != -1;
        return count;
    }
};

TEST_F(Endpoints, TheUdpSocketHearsEveryAddressAndMayBroadcast)
{
    ASSERT_EQ(init_uport(&agent.agnet, 4114), 0);
    int on = 0;
    socklen_t size = sizeof on;
    EXPECT_EQ(getsockopt(agent.agnet.ufd, SOL_SOCKET, SO_BROADCAST, &on, &size), 0);
    EXPECT_NE(on, 0);
    sockaddr_in local{};
    size = sizeof local;
    EXPECT_EQ(getsockname(agent.agnet.ufd, reinterpret_cast<sockaddr *>(&local), &size), 0);
    EXPECT_EQ(local.sin_port, htons(4114));
    EXPECT_EQ(local.sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST_F(Endpoints, AUdpPortInUseIsAFailure)
{
    const int other = keep(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in local = ip_address(INADDR_ANY, 4114);
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
    EXPECT_EQ(init_uport(&agent.agnet, 4114), -1);
}

TEST_F(Endpoints, EachAddressHasAListenerOfItsOwn)
{
    ASSERT_EQ(init_tport(&agent.agnet, 4112), 0);
    EXPECT_EQ(listed(), (std::vector<std::string>{"127.0.0.1", "10.77.0.1", "10.77.1.1"}));
    for (const NETSERV *listener = agent.agnet.tfdlist; listener != nullptr; listener = listener->next) {
        sockaddr_in local{};
        socklen_t size = sizeof local;
        EXPECT_EQ(getsockname(listener->tcpfd, reinterpret_cast<sockaddr *>(&local), &size), 0);
        EXPECT_STREQ(inet_ntoa(local.sin_addr), listener->addrstr.data());
        EXPECT_EQ(local.sin_port, htons(4112));
        EXPECT_EQ(local.sin_addr.s_addr, listener->addr.sin_addr.s_addr);
        EXPECT_EQ(listener->addr.sin_port, htons(4112));
    }
}

TEST_F(Endpoints, FiveConnectionsMayWaitAtAListener)
{
    ASSERT_EQ(init_tport(&agent.agnet, 4112), 0);
    tcp_info info{};
    socklen_t size = sizeof info;
    ASSERT_EQ(getsockopt(agent.agnet.tfdlist->tcpfd, IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    EXPECT_EQ(info.tcpi_sacked, 5U);  // of a listener: how many it lets wait
}

TEST_F(Endpoints, AConnectionArrivesAtTheListenerOfItsAddress)
{
    ASSERT_EQ(init_tport(&agent.agnet, 4112), 0);
    for (const NETSERV *listener = agent.agnet.tfdlist; listener != nullptr; listener = listener->next) {
        EXPECT_GE(reach(listener->addrstr.data(), 4112), 0) << listener->addrstr.data();
        ASSERT_TRUE(readable(listener->tcpfd));
        const int accepted = accept(listener->tcpfd, nullptr, nullptr);
        EXPECT_GE(accepted, 0);
        keep(accepted);
    }
    EXPECT_EQ(reach("127.0.0.2", 4112), -1);  // no wildcard listener
}

TEST_F(Endpoints, APortInUseOnOneAddressLeavesNoListenerOpen)
{
    const int other = keep(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in local = ip_address(0x0A4D0101, 4112);  // 10.77.1.1, the last in the list
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
    ASSERT_EQ(listen(other, 1), 0);
    const int before = open_descriptors();
    EXPECT_EQ(init_tport(&agent.agnet, 4112), -1);
    EXPECT_EQ(agent.agnet.tfdlist, nullptr);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(reach("127.0.0.1", 4112), -1);
}

TEST_F(Endpoints, FreeingTheListClosesAllAndMayBeRepeated)
{
    const int before = open_descriptors();
    ASSERT_EQ(init_tport(&agent.agnet, 4112), 0);
    EXPECT_EQ(open_descriptors(), before + 3);
    init_freeservlist(&agent.agnet);
    EXPECT_EQ(agent.agnet.tfdlist, nullptr);
    EXPECT_EQ(open_descriptors(), before);
    init_freeservlist(&agent.agnet);
    EXPECT_EQ(init_tport(&agent.agnet, 4112), 0);
}

TEST_F(Endpoints, InterfacesAreListedWithTheirAddresses)
{
    const int scratch = keep(socket(AF_INET, SOCK_STREAM, 0));
    ifconf list{};
    ASSERT_EQ(utils_findmultihome(scratch, &list), 3);
    EXPECT_EQ(list.ifc_len, static_cast<int>(3 * sizeof(ifreq)));
    std::vector<std::string> names;
    for (std::size_t i = 0; i < 3; ++i) {
        ifreq record;
        std::memcpy(&record, list.ifc_buf + i * sizeof record, sizeof record);
        names.emplace_back(record.ifr_name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"lo", "eth0", "eth1"}));
    std::free(list.ifc_buf);
}

TEST_F(Endpoints, AListThatCannotBeReadIsReportedAndLeavesNothingAllocated)
{
    const int no_socket = make_pipe()[0];
    ifconf list{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(utils_findmultihome(no_socket, &list), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("SIOCGIFCONF: ", 0), 0U);
    EXPECT_EQ(list.ifc_buf, nullptr);
}

// A machine with many more addresses than the interface list has room for at first.
#include "agent_fixture.h"
#include "agent_main.h"
#include "agent_net.h"
#include "agent_utils.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sys/syscall.h>

static constexpr int INTERFACES = 45;  // with lo 46: the list of 30 grows twice

static bool last_is_gone = false;  // the last interface has gone since the list was read

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (last_is_gone && request == SIOCGIFADDR &&
        std::strcmp(static_cast<const ifreq *>(argument)->ifr_name, "eth44") == 0) {
        errno = ENODEV;
        return -1;
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

TEST(ManyInterfaces, AllAreListed)
{
    const int scratch = socket(AF_INET, SOCK_STREAM, 0);
    ifconf list{};
    ASSERT_EQ(utils_findmultihome(scratch, &list), INTERFACES + 1);
    std::set<std::string> names;
    for (std::size_t i = 0; i <= INTERFACES; ++i) {
        ifreq record;
        std::memcpy(&record, list.ifc_buf + i * sizeof record, sizeof record);
        names.insert(record.ifr_name);
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(INTERFACES + 1));
    EXPECT_EQ(names.count("eth44"), 1U);
    std::free(list.ifc_buf);
    close(scratch);
}

TEST(ManyInterfaces, AllAddressesHaveAListener)
{
    NETINFO net{};
    ASSERT_EQ(init_tport(&net, 4112), 0);
    int count = 0;
    for (const NETSERV *listener = net.tfdlist; listener != nullptr; listener = listener->next)
        ++count;
    EXPECT_EQ(count, INTERFACES + 1);
    init_freeservlist(&net);
}

static bool tcp_port_is_free(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in local = ip_address(INADDR_ANY, port);
    const int bound = bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local);
    close(fd);
    return bound == 0;
}

TEST(ManyInterfaces, OneWhoseAddressCannotBeAskedLeavesNoListenerOpen)
{
    NETINFO net{};
    last_is_gone = true;
    EXPECT_EQ(init_tport(&net, 4112), -1);
    last_is_gone = false;
    EXPECT_EQ(net.tfdlist, nullptr);
    EXPECT_TRUE(tcp_port_is_free(4112));
}

TEST(ManyInterfaces, AllAreSentABroadcast)
{
    const int on = 1;
    const int from = socket(AF_INET, SOCK_DGRAM, 0);
    setsockopt(from, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    const int to = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr = ip_address(INADDR_ANY, 20010);
    ASSERT_EQ(bind(to, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(net_sendbrdmsgovereachinterface(from, packet(240), &addr), 0);
    EXPECT_EQ(receive(to, INTERFACES * 8).size(), INTERFACES * 8U);
    close(from);
    close(to);
}

// A machine with many more addresses than the interface list has room for at first.
#include "agent_fixture.h"
#include "agent_main.h"
#include "agent_net.h"
#include "agent_utils.h"

#include <cstdlib>
#include <cstring>
#include <set>

static constexpr int INTERFACES = 45;  // with lo 46: the list of 30 grows twice

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

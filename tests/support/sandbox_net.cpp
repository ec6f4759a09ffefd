// The private network of a sandbox: lo, and broadcast-capable interfaces that lead nowhere. Everything sent
// to their broadcast address comes back to the sockets of this machine and goes no further. Called by
// sandbox.cpp, once.

#include "sandbox.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

// One request to the kernel's link table, growing attribute by attribute.
typedef struct _LINK_REQUEST {
    nlmsghdr head;
    ifinfomsg link;
    std::array<char, 256> attributes;
} LINK_REQUEST;

static rtattr *add_attribute(LINK_REQUEST &request, unsigned short type, const std::string &value)
{
    char *place = reinterpret_cast<char *>(&request) + NLMSG_ALIGN(request.head.nlmsg_len);
    rtattr *attribute = reinterpret_cast<rtattr *>(place);
    attribute->rta_type = type;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(value.size()));
    std::memcpy(RTA_DATA(attribute), value.data(), value.size());
    request.head.nlmsg_len =
        static_cast<std::uint32_t>(NLMSG_ALIGN(request.head.nlmsg_len) + RTA_ALIGN(attribute->rta_len));
    return attribute;
}

// Asks for a new interface of one kind; 0, or the kernel's error number.
static int add_link(const std::string &name, const char *kind)
{
    LINK_REQUEST request = {};
    request.head.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
    request.head.nlmsg_type = RTM_NEWLINK;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
    add_attribute(request, IFLA_IFNAME, std::string(name.c_str(), name.size() + 1));
    rtattr *info = add_attribute(request, IFLA_LINKINFO, "");
    add_attribute(request, IFLA_INFO_KIND, kind);
    info->rta_len = static_cast<unsigned short>(reinterpret_cast<char *>(&request) + request.head.nlmsg_len -
                                                reinterpret_cast<char *>(info));

    const int fd =
        sandbox_check(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE), "netlink socket");
    sandbox_check(static_cast<int>(send(fd, &request, request.head.nlmsg_len, 0)), "netlink send");
    alignas(nlmsghdr) std::array<char, 4096> answer{};
    sandbox_check(static_cast<int>(recv(fd, answer.data(), answer.size(), 0)), "netlink answer");
    close(fd);
    const nlmsghdr *head = reinterpret_cast<const nlmsghdr *>(answer.data());
    if (head->nlmsg_type != NLMSG_ERROR)
        return EPROTO;
    return -static_cast<const nlmsgerr *>(NLMSG_DATA(head))->error;
}

static ifreq interface_request(const std::string &name)
{
    ifreq request = {};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
}

static void bring_up(int fd, const std::string &name)
{
    ifreq request = interface_request(name);
    sandbox_check(ioctl(fd, SIOCGIFFLAGS, &request), "flags of " + name);
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
    sandbox_check(ioctl(fd, SIOCSIFFLAGS, &request), "bringing up " + name);
}

static void set_address(int fd, const std::string &name, unsigned long what, in_addr address)
{
    ifreq request = interface_request(name);
    sockaddr_in value = {};
    value.sin_family = AF_INET;
    value.sin_addr = address;
    std::memcpy(&request.ifr_addr, &value, sizeof value);
    sandbox_check(ioctl(fd, what, &request), "address of " + name);
}

// A dummy interface where the kernel has them, else one end of a pair whose other end is up too.
static void make_interface(int fd, const SANDBOX_INTERFACE &interface)
{
    int error = add_link(interface.name, "dummy");
    if (error == EOPNOTSUPP || error == ENOENT) {
        error = add_link(interface.name, "veth");
        std::string peer = "veth0";
        for (int i = 0; i < 200 && if_nametoindex(peer.c_str()) != 0; i++) {
            bring_up(fd, peer);
            peer = "veth" + std::to_string(i + 1);
        }
    }
    errno = error;
    if (error != 0)
        sandbox_fail("new interface " + interface.name);

    in_addr address = {};
    errno = 0;
    if (inet_pton(AF_INET, interface.address.c_str(), &address) != 1)
        sandbox_fail("not an address: " + interface.address);
    const std::uint32_t mask = ~((1U << (32 - interface.prefix)) - 1);
    set_address(fd, interface.name, SIOCSIFADDR, address);
    set_address(fd, interface.name, SIOCSIFNETMASK, in_addr{htonl(mask)});
    set_address(fd, interface.name, SIOCSIFBRDADDR, in_addr{address.s_addr | htonl(~mask)});
    bring_up(fd, interface.name);
}

void sandbox_net(const SANDBOX_OPTIONS &options)
{
    const int fd = sandbox_check(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    bring_up(fd, "lo");
    for (const SANDBOX_INTERFACE &interface : options.interfaces)
        make_interface(fd, interface);
    close(fd);
}

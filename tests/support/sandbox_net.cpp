// The private network of a sandbox: lo, and broadcast-capable interfaces that lead nowhere. Everything sent
// to their broadcast address comes back to the sockets of this machine and goes no further. Sandboxes inside
// one sandbox can be joined by a bridge that the outer one has; then that is how far it goes. Called by
// sandbox.cpp.

#include "sandbox.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <net/route.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

// One request to the kernel's link table, growing attribute by attribute.
typedef struct _LINK_REQUEST {
    nlmsghdr head;
    ifinfomsg link;
    std::array<char, 256> attributes;
} LINK_REQUEST;

static std::size_t add_attribute(LINK_REQUEST &request, unsigned short type, std::string_view value)
{
    const std::size_t at = NLMSG_ALIGN(request.head.nlmsg_len);
    char *place = reinterpret_cast<char *>(&request) + at;
    rtattr *attribute = reinterpret_cast<rtattr *>(place);
    attribute->rta_type = type;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(value.size()));
    std::memcpy(RTA_DATA(attribute), value.data(), value.size());
    request.head.nlmsg_len = static_cast<std::uint32_t>(at + RTA_ALIGN(attribute->rta_len));
    return at;
}

static void add_text(LINK_REQUEST &request, unsigned short type, const std::string &text)
{
    add_attribute(request, type, std::string_view(text.c_str(), text.size() + 1));
}

static void add_number(LINK_REQUEST &request, unsigned short type, std::uint32_t number)
{
    add_attribute(request, type, std::string_view(reinterpret_cast<const char *>(&number), sizeof number));
}

// What is added until end_nest is the value of one attribute, behind `start`.
static std::size_t begin_nest(LINK_REQUEST &request, unsigned short type, std::string_view start = {})
{
    return add_attribute(request, type, start);
}

static void end_nest(LINK_REQUEST &request, std::size_t at)
{
    rtattr *attribute = reinterpret_cast<rtattr *>(reinterpret_cast<char *>(&request) + at);
    attribute->rta_len = static_cast<unsigned short>(request.head.nlmsg_len - at);
}

static LINK_REQUEST new_link(const std::string &name)
{
    LINK_REQUEST request = {};
    request.head.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
    request.head.nlmsg_type = RTM_NEWLINK;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
    add_text(request, IFLA_IFNAME, name);
    return request;
}

// Sends the request; 0, or the kernel's error number.
static int ask_kernel(const LINK_REQUEST &request)
{
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

// Asks for a new interface of one kind; 0, or the kernel's error number.
static int add_link(const std::string &name, const char *kind)
{
    LINK_REQUEST request = new_link(name);
    const std::size_t info = begin_nest(request, IFLA_LINKINFO);
    add_attribute(request, IFLA_INFO_KIND, kind);
    end_nest(request, info);
    return ask_kernel(request);
}

// Asks for a pair: `name` here, up, in the bridge `master`, and `peer` in the network of the process `child`.
static int add_port(const std::string &name, unsigned master, const std::string &peer, int child)
{
    LINK_REQUEST request = new_link(name);
    request.link.ifi_flags = IFF_UP;
    request.link.ifi_change = IFF_UP;
    add_number(request, IFLA_MASTER, master);
    const std::size_t info = begin_nest(request, IFLA_LINKINFO);
    add_attribute(request, IFLA_INFO_KIND, "veth");
    const std::size_t data = begin_nest(request, IFLA_INFO_DATA);
    const ifinfomsg link = {};
    const std::size_t other = begin_nest(
        request, VETH_INFO_PEER, std::string_view(reinterpret_cast<const char *>(&link), sizeof link));
    add_text(request, IFLA_IFNAME, peer);
    add_number(request, IFLA_NET_NS_PID, static_cast<unsigned>(child));
    end_nest(request, other);
    end_nest(request, data);
    end_nest(request, info);
    return ask_kernel(request);
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
}

static void give_address(int fd, const SANDBOX_INTERFACE &interface)
{
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

// Whatever no other route takes leaves through this interface.
static void add_default_route(int fd, std::string name)
{
    rtentry route = {};
    for (sockaddr *address : {&route.rt_dst, &route.rt_genmask})
        address->sa_family = AF_INET;
    route.rt_flags = RTF_UP;
    route.rt_dev = name.data();
    sandbox_check(ioctl(fd, SIOCADDRT, &route), "default route through " + name);
}

static void make_bridge(int fd, const std::string &name)
{
    errno = add_link(name, "bridge");
    if (errno != 0)
        sandbox_fail("new bridge " + name);
    bring_up(fd, name);
}

void sandbox_net_ports(const SANDBOX_OPTIONS &options, int child)
{
    const unsigned bridge = if_nametoindex(options.port_of.c_str());
    if (bridge == 0)
        sandbox_fail("bridge " + options.port_of);
    int number = 0;
    for (const SANDBOX_INTERFACE &interface : options.interfaces) {
        const std::string port = "p" + std::to_string(child) + "." + std::to_string(number++);
        errno = add_port(port, bridge, interface.name, child);
        if (errno != 0)
            sandbox_fail("joining " + interface.name + " to " + options.port_of);
    }
}

void sandbox_net(const SANDBOX_OPTIONS &options)
{
    const int fd = sandbox_check(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
    bring_up(fd, "lo");
    for (const SANDBOX_INTERFACE &interface : options.interfaces) {
        if (options.port_of.empty())
            make_interface(fd, interface);
        give_address(fd, interface);
    }
    if (!options.bridge.empty())
        make_bridge(fd, options.bridge);
    if (options.default_route && !options.interfaces.empty())
        add_default_route(fd, options.interfaces.front().name);
    close(fd);
}

// Trying the daemon's addresses: who holds a port can be read from /proc, but not whether the kernel lets two
// programs share it, nor whether an address can be bound at all, which takes more than an interface that has
// it. So each socket is bound as the daemon binds it, and closed again.
#include "control_system.h"

#include "wire_records.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <unistd.h>

static int bind_one(int fd, SOCKETS kind, const std::string &address)
{
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(kind == SOCKETS::Tcp ? PORT_TCP : PORT_UDP);
    if (inet_pton(AF_INET, address.c_str(), &local.sin_addr) != 1)
        return EINVAL;
    return bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0 ? 0 : errno;
}

// A socket that is bound like this but does not listen is in nobody's way, not in a starting daemon's either.
static void try_one(SOCKETS kind, const std::string &address, std::vector<REFUSAL> &refused)
{
    const int type = kind == SOCKETS::Tcp ? SOCK_STREAM : SOCK_DGRAM;
    const int fd = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (const int error = fd < 0 ? errno : bind_one(fd, kind, address))
        refused.push_back({kind, address, error});
    if (fd >= 0)
        close(fd);
}

std::vector<REFUSAL> system_refusals(const std::vector<std::string> &addresses)
{
    std::vector<REFUSAL> refused;
    try_one(SOCKETS::Udp, "0.0.0.0", refused);
    for (const std::string &address : addresses)
        try_one(SOCKETS::Tcp, address, refused);
    return refused;
}

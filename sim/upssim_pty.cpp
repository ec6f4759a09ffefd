// Nothing here waits: the master is non-blocking, and a reader that is slow loses bytes.
#include "upssim_pty.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace upssim
{

static std::string failed(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

static void close_descriptor(int &descriptor)
{
    if (descriptor >= 0 && ::close(descriptor) != 0)
        std::perror("upssim: close");
    descriptor = -1;
}

static std::string open_master(Port &port)
{
    std::array<char, 128> name{};
    port.master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (port.master < 0)
        return failed("posix_openpt");
    if (::grantpt(port.master) != 0)
        return failed("grantpt");
    if (::unlockpt(port.master) != 0)
        return failed("unlockpt");
    if (::ptsname_r(port.master, name.data(), name.size()) != 0)
        return failed("ptsname_r");
    port.slave = name.data();
    const int flags = ::fcntl(port.master, F_GETFL);
    if (flags < 0 || ::fcntl(port.master, F_SETFL, flags | O_NONBLOCK) != 0)
        return failed("fcntl");
    return {};
}

static std::string open_slave(Port &port)
{
    termios settings{};
    port.keeper = ::open(port.slave.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (port.keeper < 0)
        return failed(port.slave);
    if (::tcgetattr(port.keeper, &settings) != 0)
        return failed("tcgetattr");
    ::cfmakeraw(&settings);
    if (::cfsetspeed(&settings, B2400) != 0 || ::tcsetattr(port.keeper, TCSANOW, &settings) != 0)
        return failed("tcsetattr");
    return {};
}

// The link is made under another name and renamed, so that the port appears at once and whole.
static std::string make_link(Port &port, const std::string &link)
{
    struct stat status {
    };
    if (::lstat(link.c_str(), &status) == 0 && !S_ISLNK(status.st_mode))
        return link + ": exists and is not a link";
    const std::string fresh = link + ".new";
    if (::unlink(fresh.c_str()) != 0 && errno != ENOENT)
        return failed(fresh);
    if (::symlink(port.slave.c_str(), fresh.c_str()) != 0)
        return failed(fresh);
    if (::rename(fresh.c_str(), link.c_str()) != 0)
        return failed(link);
    port.link = link;
    return {};
}

std::string port_open(Port &port, const std::string &link)
{
    std::string error = open_master(port);
    if (error.empty())
        error = open_slave(port);
    if (error.empty() && !link.empty())
        error = make_link(port, link);
    if (!error.empty())
        port_close(port);
    return error;
}

static bool link_is_ours(const Port &port)
{
    std::array<char, 256> target{};
    const ssize_t length = ::readlink(port.link.c_str(), target.data(), target.size());
    return length > 0 && std::string_view(target.data(), static_cast<std::size_t>(length)) == port.slave;
}

void port_close(Port &port)
{
    if (!port.link.empty() && link_is_ours(port) && ::unlink(port.link.c_str()) != 0)
        std::perror("upssim: unlink");
    close_descriptor(port.keeper);
    close_descriptor(port.master);
    port = Port{};
}

std::optional<std::string> port_read(const Port &port)
{
    std::array<char, 1024> buffer{};
    const ssize_t count = ::read(port.master, buffer.data(), buffer.size());
    if (count > 0)
        return std::string(buffer.data(), static_cast<std::size_t>(count));
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return std::string();
    return std::nullopt;
}

void port_write(const Port &port, std::string_view bytes)
{
    while (!bytes.empty() && port.master >= 0) {
        const ssize_t count = ::write(port.master, bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            std::perror("upssim: write to the port");
            return;
        }
    }
}

}  // namespace upssim

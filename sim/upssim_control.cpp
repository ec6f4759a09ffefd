// A client may come, go, send half lines or never read: nothing of it holds the simulation. One that lets its
// answers pile up, or sends a line beyond any command, is dropped.
#include "upssim_control.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace upssim
{

static constexpr std::size_t MOST_CLIENTS = 16;
static constexpr std::size_t LONGEST_LINE = 8192;
static constexpr std::size_t MOST_UNREAD = 8U << 20;  // a whole log fits

static std::string failed(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

static void close_socket(int &socket)
{
    if (socket >= 0 && ::close(socket) != 0)
        std::perror("upssim: close");
    socket = -1;
}

static bool make_address(const std::string &path, sockaddr_un &address)
{
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        return false;
    path.copy(address.sun_path, path.size());
    return true;
}

// A socket left by an earlier run makes way; anything else stays and bind fails.
static void remove_stale(const std::string &path)
{
    struct stat status {
    };
    if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && ::unlink(path.c_str()) != 0)
        std::perror("upssim: unlink");
}

std::string control_open(Control &control, const std::string &path)
{
    sockaddr_un address{};
    if (!make_address(path, address))
        return path + ": path too long for a socket";
    control.listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (control.listener < 0)
        return failed("socket");
    remove_stale(path);
    const mode_t mask = ::umask(0077);
    const int bound = ::bind(control.listener, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    std::string error = bound == 0 ? std::string() : failed(path);
    ::umask(mask);
    if (!error.empty()) {
        close_socket(control.listener);
        return error;
    }
    control.path = path;
    return ::listen(control.listener, 8) == 0 ? std::string() : failed(path);
}

void control_close(Control &control)
{
    for (ControlClient &client : control.clients)
        close_socket(client.socket);
    control.clients.clear();
    close_socket(control.listener);
    if (!control.path.empty() && ::unlink(control.path.c_str()) != 0)
        std::perror("upssim: unlink");
    control.path.clear();
}

void control_poll_entries(const Control &control, std::vector<pollfd> &entries)
{
    if (control.listener < 0)
        return;
    const bool room = control.clients.size() < MOST_CLIENTS;
    entries.push_back({control.listener, static_cast<short>(room ? POLLIN : 0), 0});
    for (const ControlClient &client : control.clients) {
        const int wanted = (client.ended ? 0 : POLLIN) | (client.to_send.empty() ? 0 : POLLOUT);
        entries.push_back({client.socket, static_cast<short>(wanted), 0});
    }
}

static void accept_client(Control &control)
{
    ControlClient client;
    client.socket = ::accept4(control.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client.socket >= 0)
        control.clients.push_back(std::move(client));
    else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
        std::perror("upssim: accept");
}

static void run_lines(ControlClient &client, CommandRunner run, void *context)
{
    std::size_t end = 0;
    while ((end = client.received.find('\n')) != std::string::npos) {
        std::string_view line = std::string_view(client.received).substr(0, end);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        const std::string reply = run(context, line);
        if (!reply.empty())
            client.to_send += reply + "\n";
        client.received.erase(0, end + 1);
    }
}

static void read_client(ControlClient &client, CommandRunner run, void *context)
{
    std::array<char, 4096> buffer{};
    const ssize_t count = ::read(client.socket, buffer.data(), buffer.size());
    if (count > 0) {
        client.received.append(buffer.data(), static_cast<std::size_t>(count));
        run_lines(client, run, context);
        if (client.received.size() > LONGEST_LINE || client.to_send.size() > MOST_UNREAD)
            close_socket(client.socket);
    } else if (count == 0) {
        client.ended = true;
    } else if (errno != EAGAIN && errno != EINTR) {
        close_socket(client.socket);
    }
}

static void write_client(ControlClient &client)
{
    if (client.socket < 0 || client.to_send.empty())
        return;
    const ssize_t count = ::send(client.socket, client.to_send.data(), client.to_send.size(), MSG_NOSIGNAL);
    if (count > 0)
        client.to_send.erase(0, static_cast<std::size_t>(count));
    else if (errno != EAGAIN && errno != EINTR)
        close_socket(client.socket);
}

// The entries stand in the order in which control_poll_entries made them: the listener, then each client.
void control_serve(Control &control, const pollfd *entries, std::size_t count, CommandRunner run,
                   void *context)
{
    if (control.listener < 0 || count == 0)
        return;
    for (std::size_t i = 1; i < count; ++i) {
        ControlClient &client = control.clients[i - 1];
        if ((entries[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !client.ended)
            read_client(client, run, context);
        else if ((entries[i].revents & (POLLHUP | POLLERR)) != 0)
            close_socket(client.socket);
        write_client(client);
        if (client.ended && client.to_send.empty())
            close_socket(client.socket);
    }
    std::erase_if(control.clients, [](const ControlClient &client) { return client.socket < 0; });
    if ((entries[0].revents & POLLIN) != 0)
        accept_client(control);
}

static int ask_failed(const std::string &path)
{
    std::perror(("upssim: " + path).c_str());
    return 1;
}

static bool send_all(int socket, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR)
            return false;
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

// Prints all that comes until the other side is done; true when no answer was an error.
static bool print_answers(int socket)
{
    std::string answers;
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t count = ::read(socket, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        answers.append(buffer.data(), static_cast<std::size_t>(count));
    }
    std::fputs(answers.c_str(), stdout);
    return !answers.empty() && !answers.starts_with("error") && answers.find("\nerror") == std::string::npos;
}

int control_ask(const std::string &path, const std::vector<std::string> &lines)
{
    sockaddr_un address{};
    if (!make_address(path, address)) {
        std::fprintf(stderr, "upssim: --ask needs --control PATH\n");
        return 1;
    }
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0)
        return ask_failed("socket");
    const bool sent = ::connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                      send_all(socket, text) && ::shutdown(socket, SHUT_WR) == 0;
    const int result = !sent ? ask_failed(path) : print_answers(socket) ? 0 : 1;
    close_socket(socket);
    return result;
}

}  // namespace upssim

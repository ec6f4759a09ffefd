// The end of a command by signal, as something to poll for; times and notices in words.
#include "voltaria_follow.h"

#include "monitor_text.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

static std::array<int, 2> quit_pipe{-1,
                                    -1};  // written by the signal handler, read by nobody: readable is enough

extern "C" {
static void on_quit_signal(int)
{
    const int error = errno;
    const char byte = 0;
    // A full pipe already says what this byte would.
    if (write(quit_pipe[1], &byte, 1) < 0)
        errno = error;
}
}

bool catch_quit_signals()
{
    if (pipe2(quit_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action {
    };
    action.sa_handler = on_quit_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        if (sigaction(number, &action, nullptr) != 0)
            return false;
    return true;
}

int quit_fd()
{
    return quit_pipe[0];
}

bool quit_within(int milliseconds)
{
    pollfd watched{quit_pipe[0], POLLIN, 0};
    return poll(&watched, 1, milliseconds) > 0;
}

std::string clock_text(std::time_t when, const char *pattern)
{
    std::tm local{};
    std::array<char, 32> buffer{};
    if (localtime_r(&when, &local) == nullptr)
        return "?";
    const std::size_t length = std::strftime(buffer.data(), buffer.size(), pattern, &local);
    return {buffer.data(), length};
}

std::string notice_text(const std::string &message)
{
    std::string bytes = message;
    for (char &c : bytes)
        if (c == '\n' || c == '\r')
            c = ' ';
    return text_safe(bytes, TEXT_CODE::ShiftJis);
}

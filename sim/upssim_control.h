// The control channel: a Unix stream socket on which programs send commands, one a line, and read the
// answers. The loop owns the waiting; this module owns the sockets and the lines.
#pragma once

#include <poll.h>
#include <string>
#include <string_view>
#include <vector>

namespace upssim
{

struct ControlClient {
    int socket = -1;
    bool ended = false;  // it sends no more; its answers are still delivered
    std::string received;
    std::string to_send;
};

struct Control {
    int listener = -1;
    std::string path;
    std::vector<ControlClient> clients;
};

// Carries one command line out and returns the answer without line end; empty for an empty line.
using CommandRunner = std::string (*)(void *context, std::string_view line);

// Listens at this path, replacing a socket that was left there. Returns what failed, or an empty text.
std::string control_open(Control &control, const std::string &path);
void control_close(Control &control);

// Appends what to wait for.
void control_poll_entries(const Control &control, std::vector<pollfd> &entries);

// Serves what poll found in the entries that control_poll_entries made.
void control_serve(Control &control, const pollfd *entries, std::size_t count, CommandRunner run,
                   void *context);

// The other end: sends the commands, prints all answers to standard output. Returns an exit status.
int control_ask(const std::string &path, const std::vector<std::string> &lines);

}  // namespace upssim

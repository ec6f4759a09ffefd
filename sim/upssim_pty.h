// The port that the simulated unit hangs on: the master of a pseudo-terminal, and a link to its slave under
// the name of a serial port.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace upssim
{

struct Port {
    int master = -1;  // -1: no port
    int keeper = -1;  // a descriptor of the slave, so that the master sees no hang-up between two users of it
    std::string slave;  // its name
    std::string link;   // the name under which it was asked for; empty: none
};

// Makes the terminal, its slave in raw mode, and the link (replacing an older link, never anything else).
// Returns what failed, or an empty text.
std::string port_open(Port &port, const std::string &link);

// Closes the terminal and removes the link, if it is still ours.
void port_close(Port &port);

// What the host has written since the last call; empty when there is nothing, none when the port is broken.
std::optional<std::string> port_read(const Port &port);

// Sends to the host. What does not fit because nobody reads is lost, as on a serial line.
void port_write(const Port &port, std::string_view bytes);

}  // namespace upssim

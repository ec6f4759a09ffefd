// How the UPS process gets the agent process to look at once instead of at its next second: an empty datagram
// to the agent's own UDP port. The agent drops it, for it is shorter than any packet, and has woken all the
// same. Owns `wakefd` of the module record. Nothing here may fail or wait: the agent's turn a second later
// stays.
#include "agent_ups_internal.h"
#include "wire_records.h"

#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>

void ups_openwake()
{
    upschan.wakefd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (upschan.wakefd < 0)
        std::perror("ups_openwake: socket");
}

// The address is named each time: a socket tied to it at a start without a loopback interface would stay
// useless.
void ups_wakeagent()
{
    if (upschan.wakefd < 0)
        return;
    sockaddr_in agentport{};
    agentport.sin_family = AF_INET;
    agentport.sin_port = htons(PORT_UDP);
    agentport.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Whatever becomes of it is of no consequence.
    static_cast<void>(sendto(upschan.wakefd, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr *>(&agentport), sizeof agentport));
}

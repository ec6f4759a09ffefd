// One datagram: the input behind its first byte. What the loop would accept is dispatched.
#include "agent_net_inquiry.h"
#include "fuzz_support.h"
#include "packet_world.h"

#include <netinet/in.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    world_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    world_reset(data[0]);
    const std::size_t got = std::min<std::size_t>(size - 1, packet_bytes().size());
    std::copy_n(data + 1, got, packet_bytes().begin());
    if (!net_acceptdatagram(got))
        return 0;
    UPS_CLIADDR origin = packet_origin();
    origin.sockfd = agent.agnet.ufd;
    origin.addr = {};
    origin.addr.sin_family = AF_INET;
    origin.addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    origin.addr.sin_port = htons(9);
    packet_setorigin(origin);
    agent.agnet.uaddr = agent.agnet.cnc.addr = origin.addr;
    agent.agnet.cnc.sockfd = agent.agnet.ufd;
    require(daemon_islocalmonitor(&origin.addr) <= 1);
    daemon_procnetmsg(&agent, 1, 0);
    world_sound();
    return 0;
}

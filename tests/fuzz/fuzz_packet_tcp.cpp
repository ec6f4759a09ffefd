// A monitor's connection: the input, behind its first byte, is a row of pieces, each a count and that many
// bytes; the count 255 stands for a byte that comes many times. Every piece is read as the loop would, and
// each whole packet is dispatched.
#include "fuzz_support.h"
#include "packet_world.h"

#include <poll.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    world_start();
    return 0;
}

static bool readable(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

static void drain(int fd)
{
    static std::array<std::uint8_t, 65536> bin;
    while (recv(fd, bin.data(), bin.size(), MSG_DONTWAIT) > 0)
        ;
}

// One look at the connection. Returns whether it lives.
static bool serve(NETCLI *client)
{
    int length = -1;
    const int result = net_readpacketfromtcpsocket(&agent.agnet, client, &length);
    if (result > 1) {
        require(result == length + static_cast<int>(sizeof(UPS_CLIADDR)));
        require(packet_head().Length == static_cast<std::uint32_t>(length));
        require(net_checkisvalidpacket(packet_head()));
        require(packet_origin().sockfd == client->sockfd);
        net_forbidagentorder();
        daemon_procnetmsg(&agent, 1, 1);
    } else {
        require(length == 0);
    }
    world_sound();
    return result >= 0;
}

static constexpr std::size_t RUN_STEP = 1024;  // bytes
static constexpr std::size_t RUN_STEPS = 24;
static constexpr int MOST_RUNS = 4;  // in one input, which would take seconds otherwise

// Sends one piece and serves until it is used up. Returns whether the connection lives.
static bool feed(NETCLI *client, int peer, const std::uint8_t *piece, std::size_t size)
{
    if (send(peer, piece, size, MSG_DONTWAIT) != static_cast<ssize_t>(size))
        return false;
    while (readable(client->sockfd)) {
        if (!serve(client))
            return false;
        drain(peer);
        if (client_flush(client) == -1)
            return false;
    }
    return true;
}

static bool feed_run(NETCLI *client, int peer, std::size_t steps, std::uint8_t byte)
{
    std::array<std::uint8_t, RUN_STEP> run;
    run.fill(byte);
    bool lives = true;
    for (std::size_t i = 0; i < steps && lives; ++i)
        lives = feed(client, peer, run.data(), run.size());
    return lives;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    world_reset(data[0]);
    std::array<int, 2> ends;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == -1)
        return 0;
    clients_register(&agent.agnet, ends[0], sockaddr_in{});
    NETCLI *client = agent.agnet.clilist;
    int runs = 0;
    bool lives = serve(client);  // woken for nothing
    for (std::size_t at = 1; at < size && lives;) {
        if (data[at] == 255 && size - at > 2 && runs++ < MOST_RUNS) {
            lives = feed_run(client, ends[1], data[at + 1] % RUN_STEPS, data[at + 2]);
            at += 3;
            continue;
        }
        const std::size_t count = std::min<std::size_t>(data[at], size - at - 1);
        lives = feed(client, ends[1], data + at + 1, count);
        at += 1 + count;
    }
    if (lives) {
        shutdown(ends[1], SHUT_WR);
        for (int i = 0; i < 3 && lives; ++i)
            lives = serve(client);
        require(!lives);
    }
    free_client_sockfd(&agent.agnet, ends[0]);
    require(agent.agnet.clilist == nullptr);
    close(ends[0]);
    close(ends[1]);
    return 0;
}

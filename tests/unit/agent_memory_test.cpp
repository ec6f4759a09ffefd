// What happens when there is no memory for what a peer sends or is owed: never more than the end of that one
// connection, and of the agent only when it cannot hold a packet of the usual size.
#include "agent_fixture.h"
#include "agent_net.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <new>
#include <sys/wait.h>

static std::size_t largest_allocation = SIZE_MAX;  // anything larger fails

static void *allocate(std::size_t size) noexcept
{
    return size > largest_allocation ? nullptr : std::malloc(size > 0 ? size : 1);
}

static void *allocate_or_throw(std::size_t size)
{
    if (void *memory = allocate(size); memory != nullptr)
        return memory;
    throw std::bad_alloc();
}

void *operator new(std::size_t size)
{
    return allocate_or_throw(size);
}

void *operator new[](std::size_t size)
{
    return allocate_or_throw(size);
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size);
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size);
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete[](void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void *memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, const std::nothrow_t &) noexcept
{
    std::free(memory);
}

void operator delete[](void *memory, const std::nothrow_t &) noexcept
{
    std::free(memory);
}

class ShortOfMemory : public AgentTest
{
  protected:
    ShortOfMemory()
    {
        unlink("/.erra");
        peer = connect_monitor();
        client = agent.agnet.clilist;
    }

    ~ShortOfMemory() override
    {
        largest_allocation = SIZE_MAX;
    }

    /// Sends a packet piece by piece; the result of the read that ended it.
    int feed(const BYTES &bytes)
    {
        constexpr std::size_t PIECE = 50000;
        int result = 0;
        int length = 0;
        for (std::size_t at = 0; at < bytes.size() && result == 0; at += PIECE) {
            const BYTES piece(bytes.begin() + static_cast<long>(at),
                              bytes.begin() + static_cast<long>(std::min(at + PIECE, bytes.size())));
            send_all(peer, piece);
            while (result == 0 && bytes_waiting(client->sockfd) > 0)
                result = net_readpacketfromtcpsocket(&agent.agnet, client, &length);
        }
        return result;
    }

    int peer = -1;
    NETCLI *client = nullptr;
};

static std::string debug_text()
{
    std::ifstream file("/.erra", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST_F(ShortOfMemory, ALargeBufferIsRefusedSilentlyAndTheOldOneStays)
{
    const std::uint8_t *before = Daemon_Buffer;
    largest_allocation = 32796;
    EXPECT_EQ(daemon_reallocbuf(32769), -1);
    EXPECT_EQ(Daemon_Buffer, before);
    EXPECT_EQ(Daemon_NetBufLen, 32768U);
    EXPECT_EQ(Daemon_BufferLen, 32796U);
    EXPECT_EQ(debug_text(), "");
}

// How making a buffer of `length` bytes where there is none yet ends: 200 for a refusal.
static int ending_of_first_buffer(std::uint32_t length)
{
    const pid_t child = fork();
    if (child == 0) {
        delete[] std::exchange(Daemon_Buffer, nullptr);
        Daemon_NetBufLen = 0;
        largest_allocation = 30000;
        agent.aip->ups.up.commparam.AgentType = 0;
        _exit(daemon_reallocbuf(length) == -1 ? 200 : 201);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status);
}

TEST_F(ShortOfMemory, ABufferOfTheUsualSizeThatCannotBeHadEndsTheAgent)
{
    EXPECT_LT(ending_of_first_buffer(32739), 200);
    EXPECT_NE(debug_text().find("alloc : len<need\n"), std::string::npos);
    EXPECT_NE(debug_text().find("net_netexit called\n"), std::string::npos);
    unlink("/.erra");
    EXPECT_EQ(ending_of_first_buffer(32740), 200);
    EXPECT_EQ(debug_text(), "");
}

TEST_F(ShortOfMemory, APacketThatCannotBeHandedOverEndsItsConnection)
{
    const BYTES request = packet(80, counting(60000));
    client_io(client).body.reserve(60000);
    largest_allocation = 50000;
    EXPECT_EQ(feed(request), -1);
    EXPECT_EQ(Daemon_NetBufLen, 32768U);
}

TEST_F(ShortOfMemory, APacketThatCannotBeCollectedEndsItsConnection)
{
    const BYTES request = packet(80, counting(1000000));
    largest_allocation = 300000;
    EXPECT_EQ(feed(request), -1);
}

TEST_F(ShortOfMemory, AnAnswerThatCannotBeQueuedEndsItsConnection)
{
    const int small = 4096;
    setsockopt(client->sockfd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const BYTES answer = packet(81, counting(500000));
    largest_allocation = 100000;
    EXPECT_EQ(client_send(client, answer), -1);
    EXPECT_FALSE(client_haspending(client));
    int length = 0;
    EXPECT_EQ(net_readpacketfromtcpsocket(&agent.agnet, client, &length), -1);
}

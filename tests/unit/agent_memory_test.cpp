// What happens when there is no memory for what a peer sends or is owed: never more than the end of that one
// connection, and of the agent only when it cannot hold a packet of the usual size.
#include "agent_daemon.h"
#include "agent_daemon_engine.h"
#include "agent_daemon_logins.h"
#include "agent_fixture.h"
#include "agent_main.h"
#include "agent_net.h"
#include "e_a_internal.h"
#include "filehandle.h"

#include <cstdlib>
#include <filesystem>
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

TEST_F(ShortOfMemory, ANoticeThatDoesNotFitTheBufferIsNotSent)
{
    const std::string text(DAEMON_BUFFER_START, 'x');
    largest_allocation = DAEMON_BUFFER_START;
    EXPECT_EQ(Event_CallBack(E_CB_MESSAGE, const_cast<char *>(text.c_str()), 0, 0), -1);
    EXPECT_EQ(Daemon_NetBufLen, DAEMON_BUFFER_START);
    largest_allocation = SIZE_MAX;
    EXPECT_EQ(Event_CallBack(E_CB_MESSAGE, const_cast<char *>("text"), 0, 0), 0);
    EXPECT_EQ(receive(peer, 12).size(), 12U);
}

TEST_F(ShortOfMemory, ALoginThatCannotBeKeptEndsItsConnectionAndLeavesNoPassword)
{
    hold(packet(23, join({field("root", 40), field("secret", 20)})), client);
    ASSERT_TRUE(login_inhand());
    largest_allocation = 60;
    EXPECT_EQ(login_hold(client), -1);
    largest_allocation = SIZE_MAX;
    EXPECT_FALSE(login_waits(client));
    const WIREBYTES held = packet_bytes().first(68);
    EXPECT_EQ(std::count(held.begin(), held.end(), 0), 68);
}

static std::ptrdiff_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

TEST_F(ShortOfMemory, AListenerThatCannotBeKeptIsClosed)
{
    const std::ptrdiff_t before = open_descriptors();
    largest_allocation = sizeof(NETSERV) - 1;
    EXPECT_EQ(init_tport(&agent.agnet, 4112), -1);
    largest_allocation = SIZE_MAX;
    EXPECT_EQ(open_descriptors(), before);
}

// ---- requests, handed to the dispatcher

static constexpr char EVENTLOG[] = "/usr/lib/voltaria/events.log";

static std::string contents(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

static BYTES question(int sub, int lines = 0)
{
    return packet(24, join({{static_cast<std::uint8_t>(sub), 0}, le16(0), le16(lines), le16(0)}));
}

static BYTES empty_answer(int dataid)
{
    return packet(dataid, {}, 0x0110, 1);
}

class RequestsShortOfMemory : public ShortOfMemory
{
  protected:
    RequestsShortOfMemory()
    {
        std::filesystem::create_directories("/usr/lib/voltaria");
        write(CONFIG_FILE, "");
        write(EVENTLOG, "");
        engine = ENGINE{};
        ein = UPS_EIN_DATA{};
        eout = UPS_EOUT_DATA{};
        block.ups.up.commparam.AgentType = AGENTTYPE_LOW;
        block.ups.ui.CommStatus = COMM_ESTABLISHED;
    }

    ~RequestsShortOfMemory() override
    {
        largest_allocation = SIZE_MAX;
        std::filesystem::remove(CONFIG_FILE);
        std::filesystem::remove(EVENTLOG);
    }

    static void write(const char *path, std::string_view text)
    {
        std::ofstream(path, std::ios::trunc | std::ios::binary) << text;
    }

    /// Hands a request to the dispatcher while nothing larger than `largest` can be had.
    int ask(const BYTES &request, std::size_t largest)
    {
        hold(request, client);
        largest_allocation = largest;
        const int result = daemon_procnetmsg(&agent, 1, 1);
        largest_allocation = SIZE_MAX;
        return result;
    }

    void expect_served()
    {
        EXPECT_EQ(ask(question(6), SIZE_MAX), 0);
        EXPECT_EQ(receive(peer, 8), empty_answer(68));
    }
};

TEST_F(RequestsShortOfMemory, SchedulesThatCannotBeKeptChangeNothing)
{
    SCHEDULELIST kept{};
    agent.sl = &kept;
    EXPECT_EQ(ask(packet(80, BYTES(20 * 400)), 400 * sizeof(SCHEDULELIST) - 1), -1);
    EXPECT_EQ(agent.sl, &kept);
    EXPECT_EQ(contents(CONFIG_FILE), "");
    expect_served();
}

TEST_F(RequestsShortOfMemory, ALogThatCannotBeReadOrSentIsAnsweredEmpty)
{
    constexpr std::size_t LINES = 2000;
    std::string lines;
    for (std::size_t i = 0; i < LINES; ++i)
        lines += " 5/ 3/2004  9: 7: 2   7 255          host-7\n";
    write(EVENTLOG, lines);
    constexpr std::size_t ARRAY = LINES * sizeof(UPS_EVENTLOGINFO);
    // Not even the array; the array, but not the longer packet.
    for (const std::size_t largest : {ARRAY - 1, ARRAY}) {
        EXPECT_EQ(ask(question(1, LINES), largest), 0) << largest;
        EXPECT_EQ(receive(peer, 8), empty_answer(65)) << largest;
        EXPECT_EQ(Daemon_NetBufLen, DAEMON_BUFFER_START) << largest;
    }
    EXPECT_EQ(ask(question(1, LINES), SIZE_MAX), 0);
    EXPECT_EQ(receive(peer, 8 + ARRAY).size(), 8 + ARRAY);
}

TEST_F(RequestsShortOfMemory, SettingsThatCannotBeReadAreAnsweredEmpty)
{
    const std::string users = "11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28";
    write(CONFIG_FILE, "[ UserInfo ]\n\n UserID = " + users + "\n");
    EXPECT_EQ(ask(question(4), users.size()), 0);  // no room for the NUL
    EXPECT_EQ(receive(peer, 8), empty_answer(81));
    expect_served();
}

TEST_F(RequestsShortOfMemory, SettingsThatCannotBeStoredLeaveTheFileWholeAndClosed)
{
    const std::string before = "[ ScheShutDown ]\n\n SPECIALNO = 0\n[ Rest ]\n\n" + std::string(5000, '#');
    write(CONFIG_FILE, before);
    EXPECT_EQ(ask(packet(80, BYTES(20)), 4000), -1);
    EXPECT_EQ(contents(CONFIG_FILE), before);
    EXPECT_EQ(wfps, nullptr);
    EXPECT_EQ(wfpd, nullptr);
    expect_served();
    EXPECT_EQ(ask(packet(80), SIZE_MAX), 0);
    EXPECT_NE(contents(CONFIG_FILE), before);
}

TEST_F(RequestsShortOfMemory, TheTimersRunThoughTheCommandFailed)
{
    engine.USR_off = timenow() + 1000;
    engine.downreason = NONE;
    write(CONFIG_FILE, "[ UserInfo ]\n\n UserID = 11,12,13,14,15,16,17,18,19,20\n");
    EXPECT_EQ(ask(question(4), 20), 0);
    EXPECT_EQ(engine.next_off, engine.USR_off);
}

TEST_F(RequestsShortOfMemory, ALoginThatCannotBeCheckedIsRefused)
{
    ASSERT_EQ(access("/run/voltaria-test", F_OK), 0) << "run this in the sandbox";
    write("/etc/passwd", "root:x:0:0::/root:/bin/sh\n");
    write("/etc/shadow", "root:" + std::string(100, 'h') + ":19000:0:99999:7:::\n");
    client->auth = 0;
    EXPECT_EQ(ask(packet(23, join({field("root", 40), field("secret", 20)})), 80), 0);
    EXPECT_EQ(receive(peer, 12), packet(67, le32(4), 0x0110, 1));
    EXPECT_EQ(client->auth, 0);
}

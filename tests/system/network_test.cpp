// The network service as its peers see it: packets whole and in pieces, bad packets, many clients, and
// clients that do not do their part.
#include "bed.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;

namespace
{

class Network : public testing::Test
{
  protected:
    // Behind the notice that there is no unit, the agent says nothing unasked.
    void SetUp() override
    {
        daemon.start();
        testbed::wait_until("the loss to be told", PATIENCE,
                            [] { return testbed::read_debug().find("ups comm lost") != std::string::npos; });
    }
    Daemon daemon{VOLTARIAD};
};

using Clock = std::chrono::steady_clock;

// An answer of so many bytes, with whatever should not be behind it.
std::string receive_whole(const TcpClient &client, std::size_t size)
{
    const std::string answer = client.receive(size, PATIENCE);
    return answer + client.receive_all();
}

// The longest that `count` status requests of one healthy monitor had to wait.
Clock::duration slowest_answer(const TcpClient &client, int count)
{
    Clock::duration slowest{};
    for (int i = 0; i < count; ++i) {
        const auto asked = Clock::now();
        (void)ask_status(client);
        slowest = std::max(slowest, Clock::now() - asked);
    }
    return slowest;
}

std::string osinfo(std::uint32_t lang, std::uint32_t os, std::string_view name)
{
    std::string data;
    for (const std::uint32_t word : {lang, os, 0u})
        for (int shift = 0; shift < 32; shift += 8)
            data.push_back(static_cast<char>(word >> shift));
    data.append(name);
    data.resize(28, '\0');
    return data;
}

using Clients = std::vector<std::unique_ptr<TcpClient>>;

Clients connect_many(int count)
{
    Clients clients;
    for (int i = 0; i < count; ++i)
        clients.push_back(std::make_unique<TcpClient>());
    return clients;
}

// Whether the agent answers this connection within `limit`.
bool is_served(const TcpClient &client, testbed::milliseconds limit)
{
    client.send(packet(16));
    try {
        (void)client.receive(228, limit);
    } catch (const testbed::TestbedError &) {
        return false;
    }
    return true;
}

// Connections are registered in order; asked one by one from the front, all that can be served have answered
// once the first has.
std::size_t count_served(const Clients &clients)
{
    (void)ask_status(*clients.front());
    for (const auto &client : clients)
        client->send(packet(16));
    (void)ask_status(*clients.front());
    (void)ask_status(*clients.front());
    std::size_t served = 0;
    for (const auto &client : clients)
        served += client->receive_all(std::chrono::milliseconds(50)).empty() ? 0 : 1;
    return served;
}

}  // namespace

TEST_F(Network, AStatusRequestIsAnsweredWith228Bytes)
{
    const TcpClient client;
    client.send(packet(16));
    const std::string answer = receive_whole(client, 228);
    ASSERT_EQ(answer.size(), 228u);
    EXPECT_EQ(answer.substr(0, 2), std::string("\x10\x01", 2));
    EXPECT_EQ(answer[3], 64);
    EXPECT_EQ(word_at(answer, 4), 228u);
}

TEST_F(Network, TheAnswersPrototypeIsTheProtocolThatTheUpsProcessSets)
{
    const testbed::SharedBlock block;
    testbed::wait_until("the UPS process", PATIENCE, [&] { return block->ups.protocol == 1; });
    const TcpClient client;
    client.send(packet(16));
    EXPECT_EQ(client.receive(228, PATIENCE)[2], 1);
}

TEST_F(Network, WithoutAUnitAMonitorSeesALostLink)
{
    const UPS_UPSINFO info = status();
    EXPECT_EQ(info.CommStatus, 17);
    EXPECT_EQ(static_cast<std::uint8_t>(info.ComId), 255);
    EXPECT_EQ(info.BattStatus, 0);
    EXPECT_EQ(info.BuzzerCan, 0);
    EXPECT_EQ(info.AutoTestCan, 0);
    EXPECT_EQ(model_of(info), "");
    EXPECT_EQ(info.PreChangeBatt.year, 0);
    const UPSDATA none{};
    EXPECT_EQ(std::memcmp(&info.upsdata, &none, sizeof none), 0);
    EXPECT_STREQ(info.Group.data(), "Group A");
}

TEST_F(Network, TheSystemInquiryIsEchoedWithTheAgentsOwnCode)
{
    const TcpClient client;
    client.send(packet(17, osinfo(1, 0, "monitor-os")));
    const std::string answer = receive_whole(client, 36);
    ASSERT_EQ(answer.size(), 36u);
    EXPECT_EQ(answer[3], 17);
    EXPECT_EQ(answer.substr(8), osinfo(1, 2, "monitor-os"));
}

TEST_F(Network, ASystemInquiryOfAnotherLengthIsIgnored)
{
    const TcpClient client;
    client.send(packet(17, osinfo(1, 0, "x").substr(0, 27)));
    client.send(packet(17, osinfo(1, 0, "x") + "y"));
    EXPECT_EQ(ask_status(client).size(), 220u);
}

TEST_F(Network, AnEmptyAnswerIsSentToSubRequestSix)
{
    const TcpClient client;
    client.send(packet(24, std::string("\6\0\0\0\0\0\0\0", 8)));
    EXPECT_EQ(receive_whole(client, 8).substr(3), header(68, 8).substr(3));
}

TEST_F(Network, OnePacketInEveryPossibleCutIsOnePacket)
{
    const std::string request = packet(17, osinfo(2, 1, "cut"));
    for (std::size_t cut = 1; cut < request.size(); ++cut) {
        const TcpClient client;
        client.send(request.substr(0, cut));
        (void)ask_status(TcpClient{});  // a turn in between
        client.send(request.substr(cut));
        EXPECT_EQ(client.receive(36, PATIENCE)[3], 17) << "cut at " << cut;
    }
}

TEST_F(Network, ASplitHeaderMustCarryPrototypeOne)
{
    const std::string request = packet(16, {}, 0);
    for (const std::size_t cut : {2u, 5u, 7u}) {
        const TcpClient client;
        client.send(request.substr(0, cut));
        (void)ask_status(TcpClient{});
        client.send(request.substr(cut));
        client.expect_close(PATIENCE);
    }
    const TcpClient whole;
    whole.send(request);
    EXPECT_EQ(whole.receive(228, PATIENCE)[3], 64);
}

TEST_F(Network, TheFirstByteAloneIsNoSplit)
{
    const std::string request = packet(16, {}, 0);
    const TcpClient client;
    client.send(request.substr(0, 1));
    (void)ask_status(TcpClient{});
    client.send(request.substr(1));
    EXPECT_EQ(client.receive(228, PATIENCE)[3], 64);
}

TEST_F(Network, KeepAliveBytesAreEatenOneByOne)
{
    const TcpClient client;
    client.send("\xFF");
    EXPECT_EQ(client.receive_all(), "");
    client.send("\xFF\xFF\xFF" + packet(16));
    EXPECT_EQ(client.receive(228, PATIENCE)[3], 64);
}

TEST_F(Network, TheBodyOfAnInvalidHeaderIsTakenAsTheNextHeader)
{
    const TcpClient client;
    // DataId 27 with 4 data bytes: those 4 and the 4 that follow are the next header, a status request.
    client.send(header(27, 12) + std::string("\x10\x01\x01\x10", 4) + std::string("\x08\0\0\0", 4));
    EXPECT_EQ(receive_whole(client, 228).size(), 228u);
}

TEST_F(Network, AnotherPrototypeIsNotValid)
{
    const TcpClient client;
    client.send(packet(16, {}, 2));
    EXPECT_EQ(client.receive_all(), "");
    EXPECT_EQ(ask_status(client).size(), 220u);
}

TEST_F(Network, ALengthBelowEightIsPassedOver)
{
    const TcpClient client;
    for (std::uint32_t length = 0; length < 8; ++length)
        client.send(header(16, length));
    EXPECT_EQ(ask_status(client).size(), 220u);
    EXPECT_EQ(client.receive_all(), "");
}

TEST_F(Network, ALengthOf40000IsCollectedAndTheConnectionServesOn)
{
    const TcpClient client;
    client.send(packet(16, std::string(40000 - 8, 'x')));
    EXPECT_EQ(receive_whole(client, 228).size(), 228u);
    EXPECT_EQ(ask_status(client).size(), 220u);
}

TEST_F(Network, AMegabyteIsTheLimit)
{
    const TcpClient large;
    large.send(packet(16, std::string(1024 * 1024 - 8, 'x')));
    EXPECT_EQ(large.receive(228, PATIENCE)[3], 64);
    for (const std::uint32_t length : {1024u * 1024 + 1, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        const TcpClient client;
        client.send(header(16, length));
        client.expect_close(PATIENCE);
    }
}

TEST_F(Network, MemoryIsTakenAsBytesArriveNotAsTheyArePromised)
{
    const auto rss = [&] {
        const std::string text =
            testbed::read_file("/proc/" + std::to_string(daemon.agent_pid()) + "/status");
        return std::stol(text.substr(text.find("VmData:") + 7));
    };
    (void)ask_status(TcpClient{});
    const long before = rss();
    const auto clients = connect_many(20);
    for (const auto &client : clients)
        client->send(header(16, 1024 * 1024));
    (void)ask_status(*connect_many(1).front());
    EXPECT_LT(rss() - before, 4096) << "kB, for 20 MiB promised";
}

TEST_F(Network, UnknownAndRefusedRequestsAreNotAnsweredAndCloseNothing)
{
    const TcpClient client;
    for (int dataid = 0; dataid < 256; ++dataid)
        if (dataid != 16 && dataid != 17 && dataid != 23 && dataid != 24 && dataid != 241 && dataid != 18 &&
            dataid != 30)
            client.send(packet(static_cast<std::uint8_t>(dataid)));
    EXPECT_EQ(ask_status(client).size(), 220u);
    EXPECT_EQ(client.receive_all(), "");
}

TEST_F(Network, ManyRequestsInOneSegmentAreAllAnswered)
{
    const TcpClient client;
    std::string requests;
    for (int i = 0; i < 200; ++i)
        requests += packet(16);
    client.send(requests);
    EXPECT_EQ(client.receive(200 * 228, PATIENCE).size(), 200u * 228);
}

TEST_F(Network, ALaterClientMovesUpWithItsLanguage)
{
    // Only a message to monitors shows the language, so the order of slots is looked at through service: the
    // clients behind the one that left are still served on their own connections.
    auto clients = connect_many(3);
    for (std::uint32_t i = 0; i < 3; ++i) {
        clients[i]->send(packet(17, osinfo(i, i, "slot")));
        EXPECT_EQ(clients[i]->receive(36, PATIENCE).substr(8, 4), osinfo(i, 2, "slot").substr(0, 4));
    }
    clients.erase(clients.begin() + 1);
    (void)ask_status(*clients[0]);
    (void)ask_status(*clients[1]);
    EXPECT_EQ(ask_status(TcpClient{}).size(), 220u);
}

TEST_F(Network, AClientBeyondTheSixtyFourthIsAcceptedAndNeverServedOrClosed)
{
    const auto clients = connect_many(64);
    const std::size_t served = count_served(clients);
    const TcpClient extra;
    EXPECT_FALSE(is_served(extra, 1500ms));
    extra.send("x");
    EXPECT_EQ(extra.receive_all(), "");
    // Of the 64 those are served that lie within the bound of select.
    EXPECT_GE(served, 55u);
    EXPECT_EQ(ask_status(*clients.front()).size(), 220u);
}

TEST_F(Network, ASlotThatBecomesFreeServesTheNextConnection)
{
    auto clients = connect_many(64);
    (void)ask_status(*clients.front());
    clients.erase(clients.begin() + 5);
    (void)ask_status(*clients.front());
    (void)ask_status(*clients.front());
    const TcpClient next;
    EXPECT_TRUE(is_served(next, PATIENCE));
}

TEST_F(Network, ConnectionsBeyondTheTableAreBoundedAndTheOldestGoes)
{
    const auto clients = connect_many(64);
    (void)ask_status(*clients.front());
    const TcpClient oldest;
    (void)ask_status(*clients.front());
    const auto more = connect_many(255);
    (void)ask_status(*clients.front());
    EXPECT_FALSE(is_served(oldest, 300ms));
    const TcpClient last;
    oldest.expect_close(PATIENCE);
    EXPECT_EQ(ask_status(*clients.front()).size(), 220u);
}

TEST_F(Network, SixtyFourClientsStalledInMidPacketHoldUpNobody)
{
    const TcpClient healthy;
    (void)ask_status(healthy);
    const auto clients = connect_many(63);
    for (std::size_t i = 0; i < clients.size(); ++i)
        clients[i]->send(i % 3 == 0   ? packet(16).substr(0, 1)
                         : i % 3 == 1 ? packet(16).substr(0, 5)
                                      : header(82, 880) + std::string(100, 'x'));
    EXPECT_LT(slowest_answer(healthy, 50), bed::NOT_HELD_UP);
}

TEST_F(Network, ClientsThatNeverReadHoldUpNobodyAndAreEndedAfterFiveSeconds)
{
    const TcpClient healthy;
    (void)ask_status(healthy);
    const int before = socket_count(daemon.agent_pid());
    const TcpClient deaf;
    testbed::wait_until("the client to be accepted", PATIENCE,
                        [&] { return socket_count(daemon.agent_pid()) == before + 1; });
    std::string requests;
    for (int i = 0; i < 1000; ++i)
        requests += packet(16);
    // The agent stops reading this client once an answer is not taken; then so does the sending. What the
    // socket takes may end within a request, where the next piece goes on. That the agent ends the connection
    // is seen at the agent: with both windows closed the client hears of it at its next probe only, which may
    // be half a minute away.
    std::size_t at = 0;
    auto slowest = Clock::duration{};
    testbed::wait_until("the client to be ended", PATIENCE, [&] {
        const ssize_t sent =
            send(deaf.fd(), requests.data() + at, requests.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
        at = (at + static_cast<std::size_t>(std::max<ssize_t>(sent, 0))) % requests.size();
        slowest = std::max(slowest, slowest_answer(healthy, 1));
        return socket_count(daemon.agent_pid()) == before;
    });
    EXPECT_LT(slowest, bed::NOT_HELD_UP);
    EXPECT_EQ(ask_status(healthy).size(), 220u);
}

TEST_F(Network, AMonitorThatResetsItsConnectionLeavesNoTrace)
{
    for (int i = 0; i < 100; ++i) {
        TcpClient client;
        client.send(packet(16).substr(0, static_cast<std::size_t>(i % 9)));
        client.reset();
    }
    EXPECT_EQ(ask_status(TcpClient{}).size(), 220u);
    testbed::wait_until("the connections to be closed", PATIENCE, [&] {
        (void)status();
        int sockets = 0;
        for (int fd = 0; fd < 200; ++fd)
            sockets += testbed::descriptor_target(daemon.agent_pid(), fd).starts_with("socket:") ? 1 : 0;
        return sockets <= 4;  // UDP, two listeners, the connection of the last look
    });
}

TEST_F(Network, DatagramsOfEveryKindHarmNothing)
{
    const testbed::UdpSocket peer;
    for (std::size_t size = 0; size < 60; ++size)
        peer.send("127.0.0.1", testbed::AGENT_UDP_PORT, std::string(size, '\x10'));
    for (int dataid = 0; dataid < 256; ++dataid) {
        peer.send("127.0.0.1", testbed::AGENT_UDP_PORT, packet(static_cast<std::uint8_t>(dataid)));
        peer.send("127.0.0.1", testbed::AGENT_UDP_PORT,
                  packet(static_cast<std::uint8_t>(dataid), std::string(92, 'x')) + '\0');
    }
    EXPECT_EQ(ask_status(TcpClient{}).size(), 220u);
}

TEST_F(Network, AcceptedSocketsAskForLifeAndSurviveNoExec)
{
    const TcpClient client;
    (void)ask_status(client);
    const std::string timers =
        testbed::run({"ss", "-tno", "state", "established", "sport", "=", ":4112"}).output;
    EXPECT_THAT(timers, testing::HasSubstr("keepalive"));
}

TEST_F(Network, AStoppedUpsProcessDoesNotStopTheService)
{
    testbed::wait_until("the UPS process", PATIENCE, [&] { return daemon.ups_pid() != 0; });
    kill(daemon.ups_pid(), SIGSTOP);
    EXPECT_LT(slowest_answer(TcpClient{}, 20), bed::NOT_HELD_UP);
    kill(daemon.ups_pid(), SIGCONT);
}

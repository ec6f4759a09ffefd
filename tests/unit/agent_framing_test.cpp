// How packets are taken off a monitor's connection, whatever pieces its bytes arrive in, and the working
// buffer that they are handed over in.
#include "agent_fixture.h"
#include "agent_net.h"

#include <numeric>

TEST(PacketValidity, OnlyTheRequestsOfMonitorsAndTwoPrototypesAreValid)
{
    for (int prototype = 0; prototype < 256; ++prototype)
        for (int id = 0; id < 256; ++id) {
            const bool known =
                (id >= 16 && id <= 26) || (id >= 28 && id <= 35) || (id >= 80 && id <= 82) || id == 241;
            const UPS_PACKET_HEAD head{0x0110, static_cast<std::uint8_t>(prototype),
                                       static_cast<std::uint8_t>(id), 8};
            EXPECT_EQ(net_checkisvalidpacket(head), known && prototype <= 1) << prototype << " " << id;
        }
}

TEST(PacketValidity, VersionAndLengthAreNotLookedAt)
{
    EXPECT_TRUE(net_checkisvalidpacket({-1, 0, 16, 0}));
    EXPECT_TRUE(net_checkisvalidpacket({0, 1, 16, 0xFFFFFFFF}));
}

class Datagram : public AgentTest
{
  protected:
    // Whether a datagram of `size` bytes whose header claims `length` is taken.
    static bool taken(std::size_t size, std::int64_t length)
    {
        const BYTES head = header(0x0110, 0, 240, length);
        std::copy(head.begin(), head.end(), packet_bytes().begin());
        return net_acceptdatagram(size);
    }
};

TEST_F(Datagram, LengthIsItsSizeOrOneLess)
{
    EXPECT_TRUE(taken(100, 100));
    EXPECT_TRUE(taken(101, 100));
    EXPECT_FALSE(taken(102, 100));
    EXPECT_FALSE(taken(99, 100));
    EXPECT_FALSE(taken(100, 0xFFFFFFFF));
}

TEST_F(Datagram, ItHoldsAWholeHeader)
{
    for (std::size_t size = 0; size < 8; ++size)
        EXPECT_FALSE(taken(size, static_cast<std::int64_t>(size))) << size;
    EXPECT_TRUE(taken(8, 8));
    EXPECT_TRUE(taken(8, 7));
}

TEST_F(Datagram, AMonitorsShutdownOrderNeverClaimsAnAgentType)
{
    const BYTES order = packet(18, counting(40));
    std::copy(order.begin(), order.end(), packet_bytes().begin());
    net_forbidagentorder();
    BYTES expected = order;
    std::fill_n(expected.begin() + 12, 4, std::uint8_t{0});
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), packet_bytes().begin()));
}

TEST_F(Datagram, OtherPacketsAndShortOrdersAreLeftAsTheyCame)
{
    for (const BYTES &bytes : {packet(19, counting(40)), packet(18, counting(7)), packet(18)}) {
        std::fill(packet_bytes().begin(), packet_bytes().begin() + 64, std::uint8_t{0xA5});
        std::copy(bytes.begin(), bytes.end(), packet_bytes().begin());
        net_forbidagentorder();
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), packet_bytes().begin()));
        EXPECT_EQ(packet_bytes()[bytes.size()], 0xA5);
    }
}

// What one or more calls of the reader made of the bytes that were there.
struct taken {
    std::vector<int> results;    // other than 0
    std::vector<BYTES> packets;  // handed over
};

class Framing : public AgentTest
{
  protected:
    Framing()
    {
        peer = connect_monitor();
        client = agent.agnet.clilist;
        client->os = 3;
        client->lang = 2;
    }

    int take_once()
    {
        int length = -7;
        const int result = net_readpacketfromtcpsocket(&agent.agnet, client, &length);
        if (result > 1) {
            EXPECT_EQ(result, length + 28);
            seen.packets.emplace_back(packet_bytes().begin(), packet_bytes().begin() + length);
        } else {
            EXPECT_EQ(length, 0);
        }
        if (result != 0)
            seen.results.push_back(result);
        return result;
    }

    /// Reads until nothing is left or the connection is dead; true while it lives.
    bool take_all()
    {
        do
            if (take_once() == -1)
                return false;
        while (bytes_waiting(client->sockfd) > 0);
        return true;
    }

    /// Sends `stream` cut at these positions, each piece being read before the next is sent.
    bool feed(const BYTES &stream, const std::vector<std::size_t> &cuts)
    {
        std::size_t from = 0;
        for (std::size_t i = 0; i <= cuts.size(); ++i) {
            const std::size_t to = i < cuts.size() ? cuts[i] : stream.size();
            send_all(peer,
                     {stream.begin() + static_cast<long>(from), stream.begin() + static_cast<long>(to)});
            from = to;
            if (!take_all())
                return false;
        }
        return true;
    }

    void restart()
    {
        free_client_sockfd(&agent.agnet, client->sockfd);
        seen = taken{};
        peer = connect_monitor();
        client = agent.agnet.clilist;
    }

    int peer = -1;
    NETCLI *client = nullptr;
    taken seen;
};

TEST_F(Framing, RequestWithoutDataIsHandedOverWithItsOrigin)
{
    const BYTES request = packet(16);
    send_all(peer, request);
    EXPECT_EQ(take_once(), 36);
    ASSERT_EQ(seen.packets.size(), 1U);
    EXPECT_EQ(seen.packets[0], request);
    const UPS_CLIADDR origin = packet_origin();
    EXPECT_EQ(origin.sockfd, client->sockfd);
    EXPECT_EQ(origin.addr.sin_port, htons(1000));
    EXPECT_EQ(origin.addr.sin_addr.s_addr, htonl(0x0A4D0002));
    EXPECT_EQ(origin.os, 3);
    EXPECT_EQ(origin.lang, 2);
    EXPECT_EQ(agent.agnet.cnc.sockfd, client->sockfd);
    EXPECT_EQ(agent.agnet.cnc.addr.sin_port, htons(1000));
    EXPECT_EQ(agent.agnet.cnc.os, 3);
    EXPECT_EQ(agent.agnet.cnc.lang, 2);
}

TEST_F(Framing, NothingThereIsNothingToHandle)
{
    EXPECT_EQ(take_once(), 0);
    EXPECT_EQ(take_once(), 0);
}

// Whether a reader that takes one byte, then the rest of the header, meets a header that is cut short.
static bool cut_header(const std::vector<std::size_t> &cuts)
{
    if (cuts.empty() || cuts[0] >= 8)
        return false;
    return cuts[0] != 1 || (cuts.size() > 1 && cuts[1] < 8);
}

static std::string cut_text(int prototype, const std::vector<std::size_t> &cuts)
{
    return std::accumulate(
        cuts.begin(), cuts.end(), "prototype " + std::to_string(prototype) + " cut",
        [](const std::string &text, std::size_t cut) { return text + " " + std::to_string(cut); });
}

TEST_F(Framing, AnyTwoPiecesMakeAPacketUnlessTheyCutAHeaderOfPrototypeNought)
{
    for (int prototype = 0; prototype <= 1; ++prototype) {
        const BYTES request = packet(20, {1, 2, 3, 4}, 0x0110, prototype);
        for (std::size_t cut = 1; cut < request.size(); ++cut) {
            const bool lives = feed(request, {cut});
            EXPECT_EQ(lives, prototype == 1 || !cut_header({cut})) << cut_text(prototype, {cut});
            EXPECT_EQ(seen.packets, lives ? std::vector<BYTES>{request} : std::vector<BYTES>{})
                << cut_text(prototype, {cut});
            restart();
        }
    }
}

TEST_F(Framing, AnyThreePiecesMakeAPacketUnlessTheyCutAHeaderOfPrototypeNought)
{
    for (int prototype = 0; prototype <= 1; ++prototype) {
        const BYTES request = packet(20, {1, 2, 3, 4}, 0x0110, prototype);
        for (std::size_t first = 1; first < request.size(); ++first)
            for (std::size_t second = first + 1; second < request.size(); ++second) {
                const bool lives = feed(request, {first, second});
                EXPECT_EQ(lives, prototype == 1 || !cut_header({first, second}))
                    << cut_text(prototype, {first, second});
                EXPECT_EQ(seen.packets, lives ? std::vector<BYTES>{request} : std::vector<BYTES>{})
                    << cut_text(prototype, {first, second});
                restart();
            }
    }
}

TEST_F(Framing, ByteByByteMakesAPacketOfPrototypeOneAndEndsTheOther)
{
    const std::vector<std::size_t> every = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    EXPECT_TRUE(feed(packet(20, {1, 2, 3, 4}, 0x0110, 1), every));
    EXPECT_EQ(seen.packets.size(), 1U);
    EXPECT_FALSE(feed(packet(20, {1, 2, 3, 4}, 0x0110, 0), every));
    EXPECT_EQ(seen.packets.size(), 1U);
}

TEST_F(Framing, ASplitHeaderLeavesTheNextPacketAlone)
{
    EXPECT_TRUE(feed(packet(16, {}, 0x0110, 1), {3}));
    send_all(peer, packet(16, {}, 0x0110, 0));
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets.size(), 2U);
}

TEST_F(Framing, ASplitInvalidHeaderIsRefusedBeforeItIsDropped)
{
    EXPECT_FALSE(feed(header(0x0110, 0, 27, 8), {4}));
    restart();
    EXPECT_TRUE(feed(header(0x0110, 1, 27, 8), {4}));
    EXPECT_TRUE(seen.results.empty());
}

TEST_F(Framing, KeepAliveByteIsEatenAlone)
{
    send_all(peer, join({{0xFF}, packet(16), {0xFF, 0xFF}, packet(19)}));
    EXPECT_EQ(take_once(), 1);
    EXPECT_EQ(bytes_waiting(client->sockfd), 18);
    EXPECT_EQ(take_once(), 36);
    EXPECT_EQ(take_once(), 1);
    EXPECT_EQ(take_once(), 1);
    EXPECT_EQ(take_once(), 36);
    EXPECT_EQ(seen.packets, (std::vector<BYTES>{packet(16), packet(19)}));
}

TEST_F(Framing, KeepAliveByteCountsAtTheStartOfAPacketOnly)
{
    const BYTES request = packet(16, {0xFF, 0xFF}, -256, 0);  // Version bytes 00 FF
    send_all(peer, request);
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets, std::vector<BYTES>{request});
    restart();
    EXPECT_TRUE(feed(packet(16, {0xFF, 0xFF}, -256, 1), {1, 9}));
    EXPECT_EQ(seen.packets.size(), 1U);
}

TEST_F(Framing, VersionWithLowByte0xFFLosesItsFirstByte)
{
    send_all(peer, packet(16, {}, 0x01FF));
    EXPECT_EQ(take_once(), 1);
    EXPECT_EQ(take_once(), 0);
    EXPECT_TRUE(seen.packets.empty());
}

TEST_F(Framing, DataBehindAnInvalidHeaderIsReadAsTheNextHeader)
{
    send_all(peer, join({header(0x0110, 0, 27, 12), {0x10, 0x01, 0x00, 0x10}, le32(8)}));
    EXPECT_EQ(take_once(), 0);
    EXPECT_EQ(bytes_waiting(client->sockfd), 8);
    EXPECT_EQ(take_once(), 36);
    EXPECT_EQ(seen.packets, std::vector<BYTES>{packet(16)});
}

TEST_F(Framing, InvalidHeaderIsDroppedWhateverItsLengthSays)
{
    send_all(peer, join({header(0x0110, 0, 27, 0xFFFFFFFF), header(0x0110, 2, 16, 8), packet(16)}));
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets, std::vector<BYTES>{packet(16)});
}

TEST_F(Framing, LengthBelowTheHeaderIsNoPacket)
{
    for (int length = 0; length < 8; ++length) {
        send_all(peer, join({header(0x0110, 0, 16, length), packet(16)}));
        EXPECT_EQ(take_once(), 0) << length;
        EXPECT_EQ(bytes_waiting(client->sockfd), 8) << length;
        EXPECT_EQ(take_once(), 36) << length;
    }
}

TEST_F(Framing, WhoSentALengthBelowTheHeaderIsTheCurrentClientAllTheSame)
{
    send_all(peer, header(0x0110, 0, 16, 7));
    EXPECT_EQ(take_once(), 0);
    EXPECT_EQ(packet_origin().sockfd, client->sockfd);
    EXPECT_EQ(agent.agnet.cnc.sockfd, client->sockfd);
    EXPECT_EQ(agent.agnet.cnc.os, 3);
    EXPECT_EQ(agent.agnet.cnc.lang, 2);
}

TEST_F(Framing, TwoPacketsBackToBackAreHandedOverOneByOne)
{
    const BYTES first = packet(23, counting(60));
    const BYTES second = packet(17, counting(28));
    send_all(peer, join({first, second}));
    EXPECT_EQ(take_once(), 68 + 28);
    EXPECT_EQ(bytes_waiting(client->sockfd), 36);
    EXPECT_EQ(take_once(), 36 + 28);
    EXPECT_EQ(seen.packets, (std::vector<BYTES>{first, second}));
    EXPECT_EQ(take_once(), 0);
}

TEST_F(Framing, DataMayComeInAnyNumberOfPieces)
{
    const BYTES request = packet(80, counting(1000));
    std::vector<std::size_t> cuts;
    for (std::size_t cut = 8; cut < request.size(); ++cut)
        cuts.push_back(cut);
    EXPECT_TRUE(feed(request, cuts));
    EXPECT_EQ(seen.packets, std::vector<BYTES>{request});
}

TEST_F(Framing, TheRestOfAPacketIsTakenWithoutThePacketBehindIt)
{
    const BYTES first = packet(23, counting(60));
    const BYTES second = packet(17, counting(28));
    EXPECT_TRUE(feed(join({first, second}), {40}));
    EXPECT_EQ(seen.packets, (std::vector<BYTES>{first, second}));
}

TEST_F(Framing, AnUnfinishedPacketLeavesTheWorkingBufferAlone)
{
    packet_bytes()[0] = 0x5A;
    const BYTES request = packet(80, counting(100));
    EXPECT_TRUE(feed({request.begin(), request.begin() + 60}, {}));
    EXPECT_TRUE(seen.results.empty());
    EXPECT_EQ(packet_bytes()[0], 0x5A);
    EXPECT_EQ(agent.agnet.cnc.sockfd, -1);
}

TEST_F(Framing, UnfinishedPacketsOfTwoMonitorsDoNotMix)
{
    const int other = connect_monitor();
    const BYTES first = packet(17, counting(28));
    const BYTES second = packet(23, counting(60));
    send_all(peer, {first.begin(), first.begin() + 20});
    send_all(other, {second.begin(), second.begin() + 30});
    EXPECT_TRUE(take_all());
    client = client->next;
    EXPECT_TRUE(take_all());
    send_all(other, {second.begin() + 30, second.end()});
    EXPECT_TRUE(take_all());
    client = agent.agnet.clilist;
    send_all(peer, {first.begin() + 20, first.end()});
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets, (std::vector<BYTES>{second, first}));
}

TEST_F(Framing, AMonitorThatMovesToAnotherSlotKeepsItsUnfinishedPacket)
{
    const int other = connect_monitor();
    const BYTES request = packet(17, counting(28));
    client = client->next;
    send_all(other, {request.begin(), request.begin() + 20});
    EXPECT_TRUE(take_all());
    client = agent.agnet.clilist;
    free_client_sockfd(&agent.agnet, client->sockfd);
    send_all(other, {request.begin() + 20, request.end()});
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets, std::vector<BYTES>{request});
}

TEST_F(Framing, ANewMonitorDoesNotInheritAnUnfinishedPacket)
{
    send_all(peer, {0x10, 0x01, 0x00});
    EXPECT_TRUE(take_all());
    restart();
    send_all(peer, packet(16));
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets, std::vector<BYTES>{packet(16)});
}

TEST_F(Framing, EndOfStreamEndsTheConnectionAtEveryPosition)
{
    const BYTES request = packet(20, {1, 2, 3, 4}, 0x0110, 1);
    for (std::size_t length = 0; length < request.size(); ++length) {
        send_all(peer, {request.begin(), request.begin() + static_cast<long>(length)});
        shutdown(peer, SHUT_WR);
        int result = 0;
        for (int i = 0; i < 4 && result == 0; ++i)
            result = take_once();
        EXPECT_EQ(result, -1) << length;
        EXPECT_TRUE(seen.packets.empty()) << length;
        restart();
    }
}

TEST_F(Framing, EndOfStreamBehindAPacketComesAfterIt)
{
    send_all(peer, packet(16));
    shutdown(peer, SHUT_WR);
    EXPECT_EQ(take_once(), 36);
    EXPECT_EQ(take_once(), -1);
}

TEST_F(Framing, EndOfStreamFurtherInAHeaderIsNotReported)
{
    send_all(peer, {0x10});
    EXPECT_EQ(take_once(), 0);
    send_all(peer, {0x01, 0x01});
    EXPECT_EQ(take_once(), 0);
    shutdown(peer, SHUT_WR);
    testing::internal::CaptureStderr();
    EXPECT_EQ(take_once(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Framing, EndOfStreamBehindTheFirstByteIsReported)
{
    send_all(peer, {0x10});
    shutdown(peer, SHUT_WR);
    testing::internal::CaptureStderr();
    int result = 0;
    for (int i = 0; i < 4 && result == 0; ++i)
        result = take_once();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("net_readpacketfromtcpsocket: read: ", 0), 0U);
}

TEST_F(Framing, APacketOfOneMebibyteIsTakenALongerOneEndsTheConnection)
{
    constexpr std::size_t LIMIT = 1024 * 1024;
    const BYTES request = packet(80, counting(LIMIT - 8));
    for (std::size_t at = 0; at < request.size(); at += 50000) {
        const std::size_t end = std::min(at + 50000, request.size());
        send_all(peer, {request.begin() + static_cast<long>(at), request.begin() + static_cast<long>(end)});
        ASSERT_TRUE(take_all());
    }
    ASSERT_EQ(seen.packets.size(), 1U);
    EXPECT_EQ(seen.packets[0], request);
    send_all(peer, header(0x0110, 0, 80, LIMIT + 1));
    EXPECT_EQ(take_once(), -1);
}

TEST_F(Framing, HugeLengthsEndTheConnectionAndTakeNoMemory)
{
    for (const std::int64_t length : {0x00200000LL, 0x7FFFFFFFLL, 0x80000000LL, 0xFFFFFFFFLL}) {
        send_all(peer, header(0x0110, 0, 82, length));
        EXPECT_EQ(take_once(), -1) << length;
        EXPECT_EQ(Daemon_NetBufLen, DAEMON_BUFFER_START);
        restart();
    }
}

TEST_F(Framing, APromisedLengthTakesNoMemoryBeforeItsBytesArrive)
{
    BYTES().swap(client_io(client).body);
    send_all(peer, join({header(0x0110, 0, 82, 1000000), counting(10)}));
    EXPECT_TRUE(take_all());
    EXPECT_EQ(Daemon_NetBufLen, DAEMON_BUFFER_START);
    EXPECT_LT(client_io(client).body.capacity(), 200000U);
}

TEST_F(Framing, ALongPacketKeepsNoMemoryOfItsMonitor)
{
    send_all(peer, packet(80, counting(100000)));
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets.size(), 1U);
    EXPECT_TRUE(feed(packet(23, counting(60)), {}));
    EXPECT_EQ(seen.packets.size(), 2U);
    EXPECT_LE(client_io(client).body.capacity(), 65536U);
}

TEST_F(Framing, ALongPacketGrowsTheBufferForGood)
{
    EXPECT_EQ(Daemon_NetBufLen, 32768U);
    EXPECT_EQ(Daemon_BufferLen, 32796U);
    send_all(peer, packet(80, counting(39992)));
    EXPECT_TRUE(take_all());
    EXPECT_EQ(Daemon_NetBufLen, 40000U);
    EXPECT_EQ(Daemon_BufferLen, 40028U);
    send_all(peer, packet(16));
    EXPECT_TRUE(take_all());
    EXPECT_EQ(seen.packets.size(), 2U);
    EXPECT_EQ(Daemon_NetBufLen, 40000U);
    EXPECT_EQ(Daemon_BufferLen, 40028U);
}

TEST_F(Framing, TheBufferOnlyGrows)
{
    const std::uint8_t *before = Daemon_Buffer;
    EXPECT_EQ(daemon_reallocbuf(32768), 0);
    EXPECT_EQ(daemon_reallocbuf(1), 0);
    EXPECT_EQ(daemon_reallocbuf(0), 0);
    EXPECT_EQ(Daemon_Buffer, before);
    EXPECT_EQ(daemon_reallocbuf(32769), 0);
    EXPECT_EQ(Daemon_NetBufLen, 32769U);
    EXPECT_EQ(Daemon_BufferLen, 32797U);
    EXPECT_EQ(packet_bytes().size(), 32769U);
}

TEST_F(Framing, DataOfAPacketEndWithItsLength)
{
    hold(packet(16, counting(5)), nullptr);
    EXPECT_EQ(packet_data().size(), 5U);
    hold(header(0x0110, 0, 16, 3), nullptr);
    EXPECT_TRUE(packet_data().empty());
    hold(header(0x0110, 0, 16, 0xFFFFFFFF), nullptr);
    EXPECT_EQ(packet_data().size(), Daemon_NetBufLen - 8);
}

TEST_F(Framing, AnAnswerStartsWithItsHeaderAndZeros)
{
    hold(packet(23, BYTES(60, 0xAA)), client);
    block.ups.protocol = 0x0307;
    const WIREBYTES data = packet_answer(&agent, 64, 40);
    EXPECT_EQ(data.size(), 32U);
    EXPECT_EQ(BYTES(packet_bytes().begin(), packet_bytes().begin() + 40),
              join({{0x10, 0x01, 7, 64}, le32(40), BYTES(32)}));
    EXPECT_EQ(packet_origin().sockfd, client->sockfd);
    EXPECT_EQ(packet_origin().os, client->os);
}

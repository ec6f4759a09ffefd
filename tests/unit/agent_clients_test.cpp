// The table of connected monitors against a simple model of it, the connections beyond it, and what is owed
// to a monitor that does not read.
#include "agent_clock.h"
#include "agent_fixture.h"

#include <random>

static constexpr int FAKE_SOCKET = 100000;  // descriptors that no test has open

class ClientTable : public AgentTest
{
  protected:
    void add(int sockfd)
    {
        clients_register(&agent.agnet, sockfd,
                         ip_address(static_cast<std::uint32_t>(sockfd), sockfd % 60000));
    }

    /// The sockets of the list, in its order; fails the test where the list is not the first elements.
    static std::vector<int> listed()
    {
        std::vector<int> sockets;
        for (const NETCLI *client = agent.agnet.clilist; client != nullptr; client = client->next) {
            if (sockets.size() >= net_client_p.size()) {
                ADD_FAILURE() << "the list has no end";
                break;
            }
            EXPECT_EQ(client, &net_client_p[sockets.size()]);
            sockets.push_back(client->sockfd);
        }
        for (std::size_t i = sockets.size(); i < net_client_p.size(); ++i)
            EXPECT_EQ(net_client_p[i].sockfd, -1) << "slot " << i;
        return sockets;
    }

    void fill_table()
    {
        for (int i = 0; i < CLIENT_COUNT; ++i)
            add(FAKE_SOCKET + i);
    }
};

static std::vector<int> sockets_from(int first, int count)
{
    std::vector<int> sockets;
    for (int i = 0; i < count; ++i)
        sockets.push_back(FAKE_SOCKET + first + i);
    return sockets;
}

TEST_F(ClientTable, NobodyConnectedIsNoList)
{
    EXPECT_EQ(agent.agnet.clilist, nullptr);
    EXPECT_TRUE(listed().empty());
}

TEST_F(ClientTable, MonitorsAreListedInTheOrderTheyCame)
{
    for (int count = 1; count <= CLIENT_COUNT; ++count) {
        add(FAKE_SOCKET + count - 1);
        EXPECT_EQ(listed(), sockets_from(0, count));
    }
}

TEST_F(ClientTable, RegistrationSetsSocketAndAddressAndClearsSystemAndRightOnly)
{
    for (NETCLI &client : net_client_p) {
        client.auth = 5;
        client.os = 6;
        client.lang = 7;
        set_text(client.addrstr, "10.0.0.9");
    }
    add(FAKE_SOCKET);
    add(FAKE_SOCKET + 1);
    for (const NETCLI &client : {net_client_p[0], net_client_p[1]}) {
        EXPECT_EQ(client.addr.sin_addr.s_addr, htonl(static_cast<std::uint32_t>(client.sockfd)));
        EXPECT_EQ(client.os, 0);
        EXPECT_EQ(client.auth, 0);
        EXPECT_EQ(client.lang, 7);
        EXPECT_STREQ(client.addrstr.data(), "10.0.0.9");
    }
}

TEST_F(ClientTable, ResetFreesEverySlot)
{
    fill_table();
    clients_reset(&agent.agnet);
    EXPECT_TRUE(listed().empty());
}

static void mark_client(NETCLI &client, int mark)
{
    client.auth = mark;
    client.os = mark + 1;
    client.lang = mark + 2;
    set_text(client.addrstr, "10.77.0." + std::to_string(mark));
}

static void expect_marked(const NETCLI &client, int mark)
{
    EXPECT_EQ(client.auth, mark);
    EXPECT_EQ(client.os, mark + 1);
    EXPECT_EQ(client.lang, mark + 2);
    EXPECT_EQ(std::string(client.addrstr.data()), "10.77.0." + std::to_string(mark));
    EXPECT_EQ(client.addr.sin_addr.s_addr, htonl(static_cast<std::uint32_t>(client.sockfd)));
}

TEST_F(ClientTable, WhenTheSecondOfThreeLeavesTheThirdTakesItsPlaceWithAllItHas)
{
    for (int i = 0; i < 3; ++i) {
        add(FAKE_SOCKET + i);
        mark_client(net_client_p[static_cast<std::size_t>(i)], 10 * (i + 1));
    }
    free_client_sockfd(&agent.agnet, FAKE_SOCKET + 1);
    EXPECT_EQ(listed(), (std::vector<int>{FAKE_SOCKET, FAKE_SOCKET + 2}));
    expect_marked(net_client_p[0], 10);
    expect_marked(net_client_p[1], 30);
}

TEST_F(ClientTable, TheLastToLeaveClearsTheListAndTheSystem)
{
    add(FAKE_SOCKET);
    mark_client(net_client_p[0], 10);
    free_client_sockfd(&agent.agnet, FAKE_SOCKET);
    EXPECT_EQ(agent.agnet.clilist, nullptr);
    EXPECT_EQ(net_client_p[0].os, 0);
    EXPECT_EQ(net_client_p[0].auth, 10);
    EXPECT_EQ(net_client_p[0].lang, 12);
}

TEST_F(ClientTable, TheLastOfTheListLeavesTheOthersInPlace)
{
    fill_table();
    for (int left = CLIENT_COUNT - 1; left >= 0; --left) {
        free_client_sockfd(&agent.agnet, FAKE_SOCKET + left);
        EXPECT_EQ(listed(), sockets_from(0, left));
    }
}

TEST_F(ClientTable, TheFirstOfAFullTableMovesAllOthersDown)
{
    fill_table();
    for (int gone = 0; gone < CLIENT_COUNT; ++gone) {
        free_client_sockfd(&agent.agnet, FAKE_SOCKET + gone);
        EXPECT_EQ(listed(), sockets_from(gone + 1, CLIENT_COUNT - gone - 1));
    }
}

TEST_F(ClientTable, AnySlotOfAFullTableCanBeFreedAndTakenAgain)
{
    for (int gone = 0; gone < CLIENT_COUNT; ++gone) {
        clients_reset(&agent.agnet);
        fill_table();
        std::vector<int> expected = sockets_from(0, CLIENT_COUNT);
        expected.erase(expected.begin() + gone);
        free_client_sockfd(&agent.agnet, FAKE_SOCKET + gone);
        EXPECT_EQ(listed(), expected) << gone;
        add(FAKE_SOCKET + 1000);
        expected.push_back(FAKE_SOCKET + 1000);
        EXPECT_EQ(listed(), expected) << gone;
    }
}

TEST_F(ClientTable, AnUnknownSocketRemovesTheFirst)
{
    for (int i = 0; i < 3; ++i)
        add(FAKE_SOCKET + i);
    free_client_sockfd(&agent.agnet, FAKE_SOCKET + 7);
    EXPECT_EQ(listed(), sockets_from(1, 2));
    free_client_sockfd(&agent.agnet, FAKE_SOCKET + 7);
    free_client_sockfd(&agent.agnet, FAKE_SOCKET + 7);
    EXPECT_TRUE(listed().empty());
    free_client_sockfd(&agent.agnet, FAKE_SOCKET + 7);
    EXPECT_EQ(agent.agnet.clilist, nullptr);
}

// What a slot is expected to hold. A freed slot keeps what it held last.
struct slot_model {
    int sockfd = -1;
    int auth = 0;
    int os = 0;
    int lang = 0;
    std::string addrstr;
};

static void expect_slots(const std::vector<slot_model> &slots)
{
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].sockfd == -1)
            continue;
        EXPECT_EQ(net_client_p[i].auth, slots[i].auth) << i;
        EXPECT_EQ(net_client_p[i].os, slots[i].os) << i;
        EXPECT_EQ(net_client_p[i].lang, slots[i].lang) << i;
        EXPECT_EQ(net_client_p[i].addrstr.data(), slots[i].addrstr) << i;
        EXPECT_EQ(net_client_p[i].addr.sin_addr.s_addr, htonl(static_cast<std::uint32_t>(slots[i].sockfd)));
    }
}

TEST_F(ClientTable, RandomComingsAndGoingsMatchTheModel)
{
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 random(seed);
        clients_reset(&agent.agnet);
        net_client_p.fill(
            NETCLI{.next = nullptr, .sockfd = -1, .addr = {}, .auth = 0, .os = 0, .lang = 0, .addrstr = {}});
        std::vector<slot_model> slots(CLIENT_COUNT);
        std::size_t used = 0;
        const unsigned growth = seed % 2 != 0 ? 60 : 45;  // percent of comings
        for (int step = 0; step < 600 && !HasFailure(); ++step) {
            if (used < slots.size() && (used == 0 || random() % 100 < growth)) {
                add(FAKE_SOCKET + step);
                slots[used].sockfd = FAKE_SOCKET + step;
                slots[used].os = slots[used].auth = 0;
                ++used;
            } else if (random() % 4 == 0) {
                const std::size_t i = random() % used;
                mark_client(net_client_p[i], step % 200);
                slots[i] = {slots[i].sockfd, step % 200, step % 200 + 1, step % 200 + 2,
                            "10.77.0." + std::to_string(step % 200)};
            } else {
                const std::size_t gone = random() % used;
                free_client_sockfd(&agent.agnet, slots[gone].sockfd);
                for (std::size_t i = gone; i + 1 < used; ++i)
                    slots[i] = slots[i + 1];
                slots[--used].sockfd = -1;
            }
            std::vector<int> expected;
            for (std::size_t i = 0; i < used; ++i)
                expected.push_back(slots[i].sockfd);
            EXPECT_EQ(listed(), expected) << "seed " << seed << " step " << step;
            expect_slots(slots);
        }
    }
}

TEST_F(ClientTable, AConnectedSocketIsFoundAndOthersAreNot)
{
    for (int i = 0; i < 3; ++i)
        add(FAKE_SOCKET + i);
    EXPECT_EQ(client_bysocket(&agent.agnet, FAKE_SOCKET + 2), &net_client_p[2]);
    EXPECT_EQ(client_bysocket(&agent.agnet, FAKE_SOCKET + 3), nullptr);
    EXPECT_EQ(client_bysocket(&agent.agnet, -1), nullptr);
}

class SurplusConnections : public ClientTable
{
  protected:
    SurplusConnections()
    {
        fill_table();
        end = make_pipe()[0];
    }

    int add_surplus()
    {
        const int fd = dup(end);
        EXPECT_GE(fd, 0);
        add(fd);
        return fd;
    }

    static bool is_open(int fd)
    {
        return fcntl(fd, F_GETFD) != -1;
    }

    int end = -1;
};

TEST_F(SurplusConnections, The65thStaysOpenAndUnregistered)
{
    const int fd = add_surplus();
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(listed(), sockets_from(0, CLIENT_COUNT));
    EXPECT_EQ(client_bysocket(&agent.agnet, fd), nullptr);
    keep(fd);
}

TEST_F(SurplusConnections, TheyStayOutsideWhenASlotBecomesFree)
{
    const int fd = add_surplus();
    free_client_sockfd(&agent.agnet, FAKE_SOCKET + 5);
    EXPECT_EQ(listed().size(), 63U);
    EXPECT_EQ(client_bysocket(&agent.agnet, fd), nullptr);
    EXPECT_TRUE(is_open(fd));
    keep(fd);
}

TEST_F(SurplusConnections, TheOldestIsClosedBeyond256)
{
    std::vector<int> surplus;
    for (int i = 0; i < 256; ++i)
        surplus.push_back(add_surplus());
    for (const int fd : surplus)
        ASSERT_TRUE(is_open(fd));
    // Room that the test holds, so that a closed number is not given out again at once.
    const int hold = keep(dup(end));
    for (std::size_t i = 0; i < 3; ++i) {
        const int fresh = fcntl(end, F_DUPFD, 700 + static_cast<int>(i));
        add(fresh);
        keep(fresh);
        EXPECT_FALSE(is_open(surplus[i])) << i;
        EXPECT_TRUE(is_open(surplus[i + 1])) << i;
        EXPECT_TRUE(is_open(fresh)) << i;
    }
    EXPECT_TRUE(is_open(hold));
    for (std::size_t i = 3; i < surplus.size(); ++i)
        keep(surplus[i]);
}

class OwedBytes : public AgentTest
{
  protected:
    OwedBytes()
    {
        clock_shift = 0;
        peer = connect_monitor();
        client = agent.agnet.clilist;
        const int small = 4096;
        setsockopt(client->sockfd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    }

    int peer = -1;
    NETCLI *client = nullptr;
};

TEST_F(OwedBytes, WhatThePeerTakesAtOnceIsNotOwed)
{
    EXPECT_EQ(client_send(client, packet(64, counting(20))), 0);
    EXPECT_FALSE(client_haspending(client));
    EXPECT_EQ(receive(peer), packet(64, counting(20)));
}

TEST_F(OwedBytes, ALongAnswerArrivesWholeHoweverSlowlyThePeerReads)
{
    const BYTES answer = packet(81, counting(200000));
    const BYTES next = packet(64, counting(20));
    EXPECT_EQ(client_send(client, answer), 0);
    EXPECT_TRUE(client_haspending(client));
    EXPECT_EQ(client_send(client, next), 0);
    BYTES got;
    for (int turn = 0; turn < 10000 && client_haspending(client); ++turn) {
        std::array<std::uint8_t, 1500> part;
        const ssize_t count = recv(peer, part.data(), part.size(), MSG_DONTWAIT);
        if (count > 0)
            got.insert(got.end(), part.begin(), part.begin() + count);
        ASSERT_EQ(client_flush(client), 0);
    }
    const BYTES rest = receive(peer);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_EQ(got, join({answer, next}));
}

TEST_F(OwedBytes, APeerThatTakesNothingForFiveSecondsIsEnded)
{
    EXPECT_EQ(client_send(client, packet(81, counting(200000))), 0);
    while (client_flush(client) == 0 && bytes_waiting(peer) < 1)
        ;
    EXPECT_EQ(client_flush(client), 0);
    clock_shift += 4;
    EXPECT_EQ(client_flush(client), 0);
    clock_shift += 1;
    EXPECT_EQ(client_flush(client), -1);
}

TEST_F(OwedBytes, EachTakenByteGivesThePeerFiveSecondsMore)
{
    EXPECT_EQ(client_send(client, packet(81, counting(200000))), 0);
    for (int i = 0; i < 5; ++i) {
        clock_shift += 4;
        while (bytes_waiting(peer) > 0)
            receive(peer);
        EXPECT_EQ(client_flush(client), 0) << i;
        ASSERT_TRUE(client_haspending(client));
    }
    clock_shift += 5;
    EXPECT_EQ(client_flush(client), -1);
}

TEST_F(OwedBytes, NothingOwedIsNeverTooLate)
{
    clock_shift += 100;
    EXPECT_EQ(client_flush(client), 0);
}

TEST_F(OwedBytes, APeerThatHasGoneIsDead)
{
    shutdown(peer, SHUT_RDWR);
    EXPECT_EQ(client_send(client, packet(64)), -1);
}

TEST_F(OwedBytes, APeerThatGoesWithBytesOwedIsDead)
{
    EXPECT_EQ(client_send(client, packet(81, counting(200000))), 0);
    shutdown(peer, SHUT_RDWR);
    EXPECT_EQ(client_flush(client), -1);
}

TEST_F(OwedBytes, TheNextMonitorInASlotIsOwedNothing)
{
    EXPECT_EQ(client_send(client, packet(81, counting(200000))), 0);
    free_client_sockfd(&agent.agnet, client->sockfd);
    const int fresh = connect_monitor();
    EXPECT_FALSE(client_haspending(agent.agnet.clilist));
    EXPECT_EQ(bytes_waiting(fresh), 0);
}

TEST_F(OwedBytes, WhatIsOwedMovesWithTheMonitor)
{
    connect_monitor();
    const int third = connect_monitor();
    NETCLI *last = client->next->next;
    const int small = 4096;
    setsockopt(last->sockfd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const BYTES answer = packet(81, counting(60000));
    EXPECT_EQ(client_send(last, answer), 0);
    EXPECT_TRUE(client_haspending(last));
    free_client_sockfd(&agent.agnet, client->sockfd);
    NETCLI *moved = client->next;
    EXPECT_FALSE(client_haspending(client));
    EXPECT_TRUE(client_haspending(moved));
    BYTES got;
    while (client_haspending(moved)) {
        const BYTES part = receive(third);
        got.insert(got.end(), part.begin(), part.end());
        ASSERT_EQ(client_flush(moved), 0);
    }
    const BYTES rest = receive(third);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_EQ(got, answer);
}

// Memory of a monitor that has left is given back: 64 slots that once held a mebibyte must not keep it.
TEST_F(OwedBytes, AMonitorThatLeavesTakesItsMemoryAlong)
{
    CLIENTIO &io = client_io(client);
    io.body.assign(500000, 1);
    EXPECT_EQ(client_send(client, packet(81, counting(500000))), 0);
    free_client_sockfd(&agent.agnet, client->sockfd);
    EXPECT_LT(io.body.capacity(), 1000U);
    EXPECT_LT(io.out.capacity(), 1000U);
}

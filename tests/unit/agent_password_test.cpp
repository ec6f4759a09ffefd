// Logins: who is let in with which right, and how they wait for each other. The accounts are those of the
// sandbox.
#include "agent_daemon.h"
#include "agent_daemon_logins.h"
#include "agent_daemon_requests.h"
#include "agent_fixture.h"
#include "agent_net.h"

#include <crypt.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fstream>
#include <sys/stat.h>

static constexpr char CONFIG[] = "/usr/lib/voltaria/config";

// What crypt does: the real thing, or this text (null: none at all).
static bool crypt_replaced = false;
static const char *crypt_result = nullptr;
static int crypt_calls = 0;

extern "C" char *crypt(const char *phrase, const char *setting) noexcept
{
    ++crypt_calls;
    if (crypt_replaced)
        return const_cast<char *>(crypt_result);
    static const auto real =
        reinterpret_cast<char *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "crypt"));
    return real(phrase, setting);
}

// These tests replace the accounts of the machine.
static void refuse_host()
{
    if (access("/run/voltaria-test", F_OK) == 0)
        return;
    std::fputs("run this in the sandbox: bin/sandbox -- PROGRAM\n", stderr);
    std::_Exit(1);
}

static std::string hashed(const std::string &password, const char *kind)
{
    const std::array<char, 16> salt = {'v', 'o', 'l', 't', 'a', 'r', 'i', 'a', 1, 2, 3, 4, 5, 6, 7, 8};
    const unsigned long cost = std::strcmp(kind, "$y$") == 0 ? 1 : 0;
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
    EXPECT_NE(crypt_gensalt_rn(kind, cost, salt.data(), salt.size(), setting.data(), setting.size()),
              nullptr);
    return crypt(password.c_str(), setting.data());
}

static BYTES login(std::string_view name, std::string_view password)
{
    return packet(23, join({field(name, 40), field(password, 20)}));
}

static BYTES right_answer(int right)
{
    return packet(67, le32(right), 0x0110, 1);
}

static std::size_t open_descriptors()
{
    std::size_t count = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr)
        ++count;
    closedir(dir);
    return count;
}

static bool holds(const WIREBYTES &memory, std::string_view text)
{
    return std::search(memory.begin(), memory.end(), text.begin(), text.end()) != memory.end();
}

class Logins : public AgentTest
{
  protected:
    Logins()
    {
        refuse_host();
        crypt_replaced = false;
        crypt_result = nullptr;
        std::ofstream("/etc/passwd", std::ios::trunc) << "root:x:0:0::/root:/bin/sh\n";
        std::ofstream("/etc/shadow", std::ios::trunc) << "root:*:19000:0:99999:7:::\n";
        std::ofstream{CONFIG};
        EXPECT_EQ(chown(CONFIG, 0, 1), 0);
        peer = connect_monitor();
        client = agent.agnet.clilist;
        crypt_calls = 0;
    }

    ~Logins() override
    {
        unlink(CONFIG);
    }

    /// An account whose hash is in the shadow file, or in the password file when `shadow` is false.
    static void add_account(const std::string &name, int uid, const std::string &hash, bool shadow = true)
    {
        std::ofstream("/etc/passwd", std::ios::app)
            << name << ":" << (shadow ? "x" : hash) << ":" << uid << ":100::/:/bin/sh\n";
        if (shadow)
            std::ofstream("/etc/shadow", std::ios::app) << name << ":" << hash << ":19000:0:99999:7:::\n";
    }

    /// Hands a login to the dispatcher; the result is the answer.
    BYTES answer_to(const BYTES &request)
    {
        hold(request, client);
        daemon_procnetmsg(&agent, 1, 1);
        return receive(peer);
    }

    int peer = -1;
    NETCLI *client = nullptr;
};

TEST_F(Logins, TheOwnerOfTheSettingsIsOneAnotherUserTwoAndNobodyFour)
{
    add_account("keeper", 1001, hashed("secret", "$6$"));
    add_account("guest", 1002, hashed("welcome", "$6$"));
    ASSERT_EQ(chown(CONFIG, 1001, 1), 0);
    EXPECT_EQ(answer_to(login("keeper", "secret")), right_answer(1));
    EXPECT_EQ(client->auth, 1);
    EXPECT_EQ(answer_to(login("guest", "welcome")), right_answer(2));
    EXPECT_EQ(client->auth, 2);
    EXPECT_EQ(answer_to(login("guest", "secret")), right_answer(4));
    EXPECT_EQ(answer_to(login("stranger", "welcome")), right_answer(4));
    EXPECT_EQ(answer_to(login("", "")), right_answer(4));
}

TEST_F(Logins, RootOwnsTheSettingsAsTheyAreMade)
{
    std::ofstream("/etc/shadow", std::ios::trunc) << "root:" << hashed("deep", "$6$") << ":19000::::::\n";
    EXPECT_EQ(answer_to(login("root", "deep")), right_answer(1));
}

TEST_F(Logins, HashesOfEveryKindOfTheHostAreChecked)
{
    for (const char *kind : {"$y$", "$6$", "$5$", "$1$"}) {
        const std::string name = std::string("user") + kind[1];
        add_account(name, 1100 + kind[1], hashed("right", kind));
        EXPECT_EQ(answer_to(login(name, "right")), right_answer(2)) << kind;
        EXPECT_EQ(answer_to(login(name, "Right")), right_answer(4)) << kind;
        EXPECT_EQ(answer_to(login(name, "")), right_answer(4)) << kind;
    }
}

TEST_F(Logins, LockedAccountsAreRefused)
{
    const std::string hash = hashed("right", "$6$");
    int uid = 1200;
    for (const std::string &stored : {std::string("!"), std::string("*"), std::string("!!"), "!" + hash}) {
        const std::string name = "locked" + std::to_string(++uid);
        add_account(name, uid, stored);
        for (const std::string &password : {std::string("right"), std::string(), stored.substr(0, 20)})
            EXPECT_EQ(answer_to(login(name, password)), right_answer(4)) << stored;
    }
}

TEST_F(Logins, WithoutAShadowEntryThePasswordFileCounts)
{
    add_account("old", 1301, hashed("right", "$1$"), false);
    add_account("lost", 1302, "x", false);
    EXPECT_EQ(answer_to(login("old", "right")), right_answer(2));
    EXPECT_EQ(answer_to(login("old", "x")), right_answer(4));
    EXPECT_EQ(answer_to(login("lost", "x")), right_answer(4));
    EXPECT_EQ(answer_to(login("lost", "")), right_answer(4));
}

TEST_F(Logins, AShadowEntryCountsMoreThanThePasswordFile)
{
    add_account("both", 1311, hashed("former", "$1$"), false);
    add_account("bare", 1312, "", false);
    for (const char *name : {"both", "bare"})
        std::ofstream("/etc/shadow", std::ios::app)
            << name << ":" << hashed("right", "$6$") << ":19000::::::\n";
    EXPECT_EQ(answer_to(login("both", "right")), right_answer(2));
    EXPECT_EQ(answer_to(login("both", "former")), right_answer(4));
    EXPECT_EQ(answer_to(login("bare", "right")), right_answer(2));
    EXPECT_EQ(answer_to(login("bare", "")), right_answer(4));
}

TEST_F(Logins, AnEmptyPasswordOpensOnlyAnAccountThatHasNone)
{
    add_account("open", 1401, "");
    add_account("openold", 1402, "", false);
    for (const char *name : {"open", "openold"}) {
        EXPECT_EQ(answer_to(login(name, "")), right_answer(2)) << name;
        EXPECT_EQ(answer_to(login(name, "x")), right_answer(4)) << name;
    }
    ASSERT_EQ(chown(CONFIG, 1401, 1), 0);
    EXPECT_EQ(answer_to(login("open", "")), right_answer(1));
    EXPECT_EQ(crypt_calls, 0);
}

TEST_F(Logins, NamesAndPasswordsMayFillTheirFieldsWithoutANul)
{
    const std::string name = "n123456789n123456789n123456789n123456789";
    const std::string password = "p123456789p123456789";
    add_account(name, 1501, hashed(password, "$6$"));
    EXPECT_EQ(answer_to(login(name, password)), right_answer(2));
    EXPECT_EQ(answer_to(login(name, password.substr(0, 19))), right_answer(4));
    EXPECT_EQ(answer_to(login(name.substr(0, 39), password)), right_answer(4));
    // What follows a NUL is no part of a field.
    BYTES request = login("keeper", "secret");
    add_account("keeper", 1502, hashed("secret", "$6$"));
    request[8 + 7] = request[8 + 40 + 7] = 'x';
    EXPECT_EQ(answer_to(request), right_answer(2));
}

TEST_F(Logins, AHashThatCannotBeMadeIsARefusal)
{
    add_account("token", 1601, "*0");
    add_account("other", 1602, "*1");
    add_account("user", 1603, hashed("right", "$6$"));
    crypt_replaced = true;
    EXPECT_EQ(answer_to(login("user", "right")), right_answer(4));
    crypt_result = "*0";
    EXPECT_EQ(answer_to(login("token", "right")), right_answer(4));
    crypt_result = "*1";
    EXPECT_EQ(answer_to(login("other", "right")), right_answer(4));
}

TEST_F(Logins, WithoutSettingsEveryLoginIsRefused)
{
    add_account("user", 1701, hashed("right", "$6$"));
    unlink(CONFIG);
    EXPECT_EQ(answer_to(login("user", "right")), right_answer(4));
    EXPECT_EQ(client->auth, 0);
}

TEST_F(Logins, AFailedAttemptTakesNoRightAway)
{
    add_account("user", 1801, hashed("right", "$6$"));
    EXPECT_EQ(answer_to(login("user", "right")), right_answer(2));
    EXPECT_EQ(answer_to(login("user", "wrong")), right_answer(4));
    EXPECT_EQ(client->auth, 2);
    client->auth = 1;
    EXPECT_EQ(answer_to(login("stranger", "")), right_answer(4));
    EXPECT_EQ(client->auth, 1);
}

TEST_F(Logins, TheRightGoesToTheConnectionThatAskedAlone)
{
    add_account("user", 1901, "");
    connect_monitor(0, 1001);
    EXPECT_EQ(answer_to(login("user", "")), right_answer(2));
    EXPECT_EQ(client->next->auth, 0);
    client->auth = 0;
    NETCLI elsewhere = *client;
    elsewhere.addr.sin_port = htons(7);
    hold(login("user", ""), &elsewhere);
    EXPECT_EQ(daemon_procnetmsg(&agent, 1, 1), 0);
    EXPECT_EQ(client->auth, 0);
}

TEST_F(Logins, AnotherLengthIsNotAnswered)
{
    add_account("user", 2001, "");
    const BYTES whole = login("user", "");
    for (const std::size_t size : {0U, 40U, 59U, 61U, 1000U}) {
        BYTES data(whole.begin() + 8, whole.end());
        data.resize(size);
        hold(packet(23, data), client);
        EXPECT_EQ(daemon_procnetmsg(&agent, 1, 1), -1) << size;
    }
    EXPECT_TRUE(receive(peer).empty());
    EXPECT_EQ(client->auth, 0);
}

TEST_F(Logins, ADatagramIsNeitherCheckedNorAnswered)
{
    add_account("user", 2101, hashed("right", "$6$"));
    crypt_calls = 0;
    hold(login("user", "right"), client);
    EXPECT_EQ(daemon_procnetmsg(&agent, 1, 0), -1);
    EXPECT_EQ(crypt_calls, 0);
    EXPECT_TRUE(receive(peer).empty());
    EXPECT_EQ(client->auth, 0);
    EXPECT_FALSE(holds(packet_bytes(), "right"));
}

TEST_F(Logins, ThePasswordIsGoneFromTheBufferAfterwards)
{
    add_account("user", 2201, hashed("right-answer", "$6$"));
    for (const char *password : {"right-answer", "wrong-answer"}) {
        hold(login("user", password), client);
        ASSERT_TRUE(holds(packet_bytes(), password));
        daemon_procnetmsg(&agent, 1, 1);
        EXPECT_FALSE(holds(packet_bytes(), password));
        BYTES tooLong = login("user", password);
        tooLong.push_back(0);
        hold(packet(23, {tooLong.begin() + 8, tooLong.end()}), client);
        daemon_procnetmsg(&agent, 1, 1);
        EXPECT_FALSE(holds(packet_bytes(), password));
    }
}

TEST_F(Logins, NoDescriptorStaysOpen)
{
    add_account("user", 2301, "");
    const std::size_t before = open_descriptors();
    answer_to(login("user", ""));
    answer_to(login("user", "x"));
    answer_to(login("stranger", ""));
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Logins, AnAccountMadeLaterIsKnown)
{
    EXPECT_EQ(answer_to(login("late", "")), right_answer(4));
    add_account("late", 2401, "");
    EXPECT_EQ(answer_to(login("late", "")), right_answer(2));
}

// ---- waiting

class WaitingLogins : public Logins
{
  protected:
    WaitingLogins()
    {
        add_account("user", 3001, "$test$hash");
        crypt_replaced = true;
        crypt_result = "$test$hash";
    }

    /// Sends a login and has it read as the loop does.
    static void log_in(NETCLI *from, int end)
    {
        send_all(end, login("user", "right"));
        int length = 0;
        ASSERT_GT(net_readpacketfromtcpsocket(&agent.agnet, from, &length), 1);
        ASSERT_TRUE(login_inhand());
        ASSERT_EQ(login_hold(from), 0);
    }
};

TEST_F(WaitingLogins, SixtyAreCheckedOneATurnInTheOrderTheyCame)
{
    std::vector<int> ends = {peer};
    while (ends.size() < 60)
        ends.push_back(connect_monitor(0, 1000 + static_cast<int>(ends.size())));
    for (std::size_t i = 0; i < ends.size(); ++i)
        log_in(&net_client_p[i], ends[i]);
    EXPECT_EQ(crypt_calls, 0);
    for (std::size_t i = 0; i < ends.size(); ++i) {
        EXPECT_TRUE(logins_ready(&agent.agnet));
        logins_checkone(&agent);
        EXPECT_EQ(crypt_calls, static_cast<int>(i) + 1);
        EXPECT_EQ(receive(ends[i]), right_answer(2)) << i;
        EXPECT_EQ(net_client_p[i].auth, 2);
        EXPECT_FALSE(login_waits(&net_client_p[i]));
    }
    EXPECT_FALSE(logins_ready(&agent.agnet));
    logins_checkone(&agent);
    EXPECT_EQ(crypt_calls, 60);
}

TEST_F(WaitingLogins, WhoLogsInAgainStandsBehindTheOthers)
{
    const int second = connect_monitor(0, 1001);
    log_in(client, peer);
    log_in(client->next, second);
    logins_checkone(&agent);
    EXPECT_EQ(receive(peer), right_answer(2));
    log_in(client, peer);
    logins_checkone(&agent);
    EXPECT_EQ(receive(second), right_answer(2));
    EXPECT_TRUE(receive(peer).empty());
    logins_checkone(&agent);
    EXPECT_EQ(receive(peer), right_answer(2));
}

TEST_F(WaitingLogins, AMonitorThatLeavesTakesItsLoginAlongAndTheOthersKeepTheirs)
{
    const int second = connect_monitor(0, 1001);
    log_in(client, peer);
    log_in(client->next, second);
    free_client_sockfd(&agent.agnet, client->sockfd);
    logins_checkone(&agent);
    EXPECT_EQ(receive(second), right_answer(2));
    EXPECT_EQ(net_client_p[0].auth, 2);
    EXPECT_FALSE(logins_ready(&agent.agnet));
    EXPECT_EQ(crypt_calls, 1);
}

TEST_F(WaitingLogins, TheNextMonitorInASlotInheritsNone)
{
    log_in(client, peer);
    free_client_sockfd(&agent.agnet, client->sockfd);
    const int next = connect_monitor(0, 1001);
    EXPECT_FALSE(logins_ready(&agent.agnet));
    logins_checkone(&agent);
    EXPECT_EQ(crypt_calls, 0);
    EXPECT_TRUE(receive(next).empty());
    EXPECT_EQ(net_client_p[0].auth, 0);
}

TEST_F(WaitingLogins, ALoginWaitsUntilItsMonitorHasTakenWhatItIsOwed)
{
    log_in(client, peer);
    const BYTES much(1024 * 1024);
    ASSERT_EQ(client_send(client, much), 0);
    ASSERT_TRUE(client_haspending(client));
    EXPECT_FALSE(logins_ready(&agent.agnet));
    logins_checkone(&agent);
    EXPECT_EQ(crypt_calls, 0);
    std::size_t taken = 0;
    while (client_haspending(client)) {
        taken += receive(peer).size();
        ASSERT_EQ(client_flush(client), 0);
    }
    taken += receive(peer).size();
    EXPECT_EQ(taken, much.size());
    EXPECT_TRUE(logins_ready(&agent.agnet));
    logins_checkone(&agent);
    EXPECT_EQ(receive(peer), right_answer(2));
}

TEST_F(WaitingLogins, OneThatMayNotBeCheckedYetHoldsNoneUpThatCameLater)
{
    const int second = connect_monitor(0, 1001);
    log_in(client, peer);
    log_in(client->next, second);
    ASSERT_EQ(client_send(client, BYTES(1024 * 1024)), 0);
    ASSERT_TRUE(client_haspending(client));
    EXPECT_TRUE(logins_ready(&agent.agnet));
    logins_checkone(&agent);
    EXPECT_EQ(receive(second), right_answer(2));
    EXPECT_TRUE(login_waits(client));
    EXPECT_FALSE(logins_ready(&agent.agnet));
}

TEST_F(WaitingLogins, OnlyWholeLoginsWait)
{
    for (const BYTES &other : {packet(16), packet(23), packet(23, counting(59)), packet(23, counting(61))}) {
        hold(other, client);
        EXPECT_FALSE(login_inhand());
    }
    EXPECT_FALSE(login_waits(client));
}

TEST_F(WaitingLogins, WhatWaitsLiesNowhereElse)
{
    log_in(client, peer);
    EXPECT_FALSE(holds(packet_bytes(), "right"));
    EXPECT_TRUE(client_io(client).body.empty());
    logins_checkone(&agent);
    EXPECT_FALSE(holds(packet_bytes(), "right"));
}

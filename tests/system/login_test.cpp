// Logins with accounts of this machine: the sandbox's own password and shadow files, and hashes made by the
// C library as the system's tools make them.
#include "bed.h"

#include <array>
#include <crypt.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sstream>
#include <unistd.h>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;
using testbed::UdpSocket;

namespace
{

constexpr char SERVER_SETTINGS[] = "[ UPS ]\nAgentType = 5\nAgent = server1\nGroup = office\n";

// A login is far cheaper than usual, so that tests are quick; none here depends on how long it takes.
std::string hashed(const std::string &password, const char *kind, unsigned long cost = 0)
{
    const std::array<char, 16> salt = {'v', 'o', 'l', 't', 'a', 'r', 'i', 'a', 1, 2, 3, 4, 5, 6, 7, 8};
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
    EXPECT_NE(crypt_gensalt_rn(kind, cost, salt.data(), salt.size(), setting.data(), setting.size()),
              nullptr);
    return crypt(password.c_str(), setting.data());
}

// Adds an account with a shadow entry.
void add_account(const std::string &name, int uid, const std::string &hash)
{
    std::ofstream("/etc/passwd", std::ios::app) << name << ":x:" << uid << ":100::/:/bin/sh\n";
    std::ofstream("/etc/shadow", std::ios::app) << name << ":" << hash << ":19000:0:99999:7:::\n";
}

// Adds an account that only the password file knows.
void add_old_account(const std::string &name, int uid, const std::string &hash)
{
    std::ofstream("/etc/passwd", std::ios::app) << name << ":" << hash << ":" << uid << ":100::/:/bin/sh\n";
}

std::string login(std::string name, std::string password)
{
    name.resize(40);
    password.resize(20);
    return packet(23, name + password);
}

std::uint32_t right_in(const std::string &answer)
{
    EXPECT_EQ(answer.size(), 12u);
    EXPECT_EQ(answer.substr(0, 2), std::string("\x10\x01", 2));
    EXPECT_EQ(answer[3], 67);
    return word_at(answer, 8);
}

std::uint32_t right_of(const TcpClient &client, const std::string &name, const std::string &password)
{
    client.send(login(name, password));
    return right_in(receive_answer(client));
}

class Login : public testing::Test
{
  protected:
    Login()
    {
        if (!testbed::in_sandbox())
            throw testbed::TestbedError("these tests add accounts: run them in the sandbox");
        testbed::write_config(SERVER_SETTINGS);
        daemon.start();
    }

    Daemon daemon{VOLTARIAD};
};

// Processor time of a process, in clock ticks.
long ticks_of(pid_t pid)
{
    const std::string text = testbed::read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    long user = 0;
    long system = 0;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    fields >> user >> system;
    return user + system;
}

// Whether a text lies anywhere in the memory of a process.
bool remembers(pid_t pid, const std::string &text)
{
    constexpr std::size_t SANITIZERS_OWN = std::size_t{256} << 20;
    const std::string process = "/proc/" + std::to_string(pid);
    std::ifstream maps(process + "/maps");
    const int memory = open((process + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(memory, 0);
    bool found = false;
    for (std::string line; std::getline(maps, line) && !found;) {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) != 2 || end - begin > SANITIZERS_OWN)
            continue;
        std::string bytes(end - begin, '\0');
        const ssize_t got = pread(memory, bytes.data(), bytes.size(), static_cast<off_t>(begin));
        found = got > 0 && std::string_view(bytes).substr(0, static_cast<std::size_t>(got)).find(text) !=
                               std::string_view::npos;
    }
    close(memory);
    return found;
}

std::size_t descriptors_of(pid_t pid)
{
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

typedef std::vector<std::unique_ptr<TcpClient>> Clients;

// Connects more monitors. In between the agent answers `known`, for few connections can wait to be accepted.
Clients connect_many(std::size_t count, const TcpClient &known)
{
    Clients clients;
    while (clients.size() < count) {
        clients.push_back(std::make_unique<TcpClient>());
        (void)ask_status(known);
    }
    return clients;
}

struct attempt {
    std::string name;
    std::string password;
    std::uint32_t right;
};

}  // namespace

TEST_F(Login, EveryKindOfAccountGetsItsRight)
{
    const std::string name = "n123456789n123456789n123456789n123456789";
    const std::string password = "p123456789p123456789";
    add_account("keeper", 5001, hashed("of the house", "$y$", 1));
    add_account("yes", 5002, hashed("secret-y", "$y$", 1));
    add_account("sha", 5003, hashed("secret-6", "$6$"));
    add_account("md5", 5004, hashed("secret-1", "$1$"));
    add_account("locked", 5005, "!");
    add_account("star", 5006, "*");
    add_account("lockedlater", 5007, "!" + hashed("secret", "$6$"));
    add_account("open", 5008, "");
    add_old_account("shadowless", 5009, "x");
    add_old_account("old", 5010, hashed("secret", "$1$"));
    add_account(name, 5011, hashed(password, "$6$"));
    ASSERT_EQ(chown(testbed::CONFIG_FILE, 5001, 1), 0);

    const std::vector<attempt> attempts = {{"keeper", "of the house", 1},
                                           {"keeper", "of the hous", 4},
                                           {"keeper", "", 4},
                                           {"yes", "secret-y", 2},
                                           {"yes", "secret-6", 4},
                                           {"sha", "secret-6", 2},
                                           {"sha", "secret-1", 4},
                                           {"md5", "secret-1", 2},
                                           {"md5", "Secret-1", 4},
                                           {"locked", "!", 4},
                                           {"locked", "", 4},
                                           {"star", "*", 4},
                                           {"star", "", 4},
                                           {"lockedlater", "secret", 4},
                                           {"open", "", 2},
                                           {"open", "x", 4},
                                           {"shadowless", "x", 4},
                                           {"shadowless", "", 4},
                                           {"old", "secret", 2},
                                           {"old", "x", 4},
                                           {name, password, 2},
                                           {name, password + "x", 2},  // the field ends there
                                           {name, "p123456789", 4},
                                           {name.substr(1), password, 4},
                                           {"stranger", "", 4},
                                           {"stranger", "secret", 4},
                                           {"", "", 4},
                                           {"root", "", 4}};
    const TcpClient client;
    for (const attempt &one : attempts)
        EXPECT_EQ(right_of(client, one.name, one.password), one.right) << one.name << " / " << one.password;
    unlink(testbed::CONFIG_FILE);
    EXPECT_EQ(right_of(client, "yes", "secret-y"), 4u);
}

TEST_F(Login, AnotherLengthIsNotAnsweredAndTheConnectionStays)
{
    const TcpClient client;
    client.send(packet(23, std::string(59, 'x')));
    client.send(packet(23, std::string(61, 'x')));
    EXPECT_EQ(ask_status(client).size(), 220u);
}

TEST_F(Login, RequestsBehindALoginAreAnsweredAfterIt)
{
    add_account("user", 5101, hashed("secret", "$6$"));
    const TcpClient client;
    client.send(login("user", "secret") + packet(16) + login("user", "wrong") + packet(16));
    for (const std::uint32_t right : {2u, 4u}) {
        EXPECT_EQ(right_in(receive_answer(client)), right);
        EXPECT_EQ(receive_answer(client)[3], 64);
    }
}

// One check a turn, and a turn serves everybody else: were the logins checked in one go, the status could
// be asked for once or twice in that time.
TEST_F(Login, ManyAtOnceAreAllAnsweredAndOthersAreServedBetweenThem)
{
    constexpr std::size_t MANY = 45;
    constexpr std::size_t IDLE = 18;  // the last of all lie beyond the descriptors that the agent watches
    constexpr int TURNS_SEEN = 5;     // this test may be kept from running for most of them
    add_account("user", 5201, hashed("secret", "$6$", 10000));
    const TcpClient healthy;
    (void)ask_status(healthy);
    const Clients waiting = connect_many(MANY, healthy);
    const Clients idle = connect_many(IDLE, healthy);
    for (std::size_t i = 0; i < MANY; ++i)
        waiting[i]->send(login("user", i % 2 == 0 ? "secret" : "wrong"));
    std::vector<std::uint32_t> rights(MANY);
    int turns = 0;
    EXPECT_TRUE(testbed::eventually(2 * PATIENCE, [&] {
        (void)ask_status(healthy);
        ++turns;
        for (std::size_t i = 0; i < MANY; ++i) {
            pollfd entry{waiting[i]->fd(), POLLIN, 0};
            if (rights[i] != 0 || poll(&entry, 1, 0) == 0)
                continue;
            if (const std::string answer = receive_packet(*waiting[i]); answer.at(3) != NOTICE)
                rights[i] = right_in(answer);
        }
        return std::count(rights.begin(), rights.end(), 0u) == 0;
    }));
    for (std::size_t i = 0; i < MANY; ++i)
        EXPECT_EQ(rights[i], i % 2 == 0 ? 2u : 4u) << i;
    EXPECT_GE(turns, TURNS_SEEN);
}

// While the logins before it are checked, a monitor's own waits, and so does what it has sent behind.
TEST_F(Login, NothingOvertakesALoginThatWaits)
{
    constexpr std::size_t MANY = 10;
    add_account("user", 5251, hashed("secret", "$6$", 10000));
    const TcpClient known;
    const Clients clients = connect_many(MANY, known);
    for (const auto &client : clients)
        client->send(login("user", "secret") + packet(16) + login("user", "wrong"));
    for (const auto &client : clients) {
        EXPECT_EQ(right_in(receive_answer(*client)), 2u);
        EXPECT_EQ(receive_answer(*client)[3], 64);
        EXPECT_EQ(right_in(receive_answer(*client)), 4u);
    }
}

// A turn in which nothing happens lasts a second, but not while there is something to check.
TEST_F(Login, LoginsThatWaitAreCheckedWithoutAPause)
{
    constexpr std::size_t MANY = 20;
    add_account("user", 5261, hashed("secret", "$6$"));
    const TcpClient known;
    const Clients clients = connect_many(MANY, known);
    const auto begin = std::chrono::steady_clock::now();
    for (const auto &client : clients)
        client->send(login("user", "secret"));
    for (const auto &client : clients)
        EXPECT_EQ(right_in(receive_answer(*client)), 2u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(MANY / 2));
}

TEST_F(Login, AFloodOfDatagramsMakesTheAgentHashNothing)
{
    constexpr int MANY = 50;
    add_account("user", 5301, hashed("secret", "$6$", 100000));
    const TcpClient client;
    const UdpSocket socket;
    const long start = ticks_of(daemon.agent_pid());
    EXPECT_EQ(right_of(client, "user", "secret"), 2u);
    const long once = ticks_of(daemon.agent_pid()) - start;
    ASSERT_GE(once, 1);
    const long before = ticks_of(daemon.agent_pid());
    for (int i = 0; i < MANY; ++i)
        socket.send("127.0.0.1", testbed::AGENT_UDP_PORT, login("user", "secret"));
    socket.send("127.0.0.1", testbed::AGENT_UDP_PORT, packet(241, std::string(20, '\0')));
    const auto answer = socket.receive(PATIENCE);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->bytes.size(), 100u);
    EXPECT_EQ(answer->bytes[3], static_cast<char>(240));
    EXPECT_LT(ticks_of(daemon.agent_pid()) - before, MANY / 4 * once);
}

TEST_F(Login, NeitherPasswordsNorDescriptorsStay)
{
    const std::string password = "zebra crossing 4711";
    add_account("user", 5401, hashed(password, "$y$", 1));
    const TcpClient client;
    (void)ask_status(client);
    const std::size_t descriptors = descriptors_of(daemon.agent_pid());
    EXPECT_EQ(right_of(client, "user", password), 2u);
    EXPECT_EQ(right_of(client, "stranger", password), 4u);
    client.send(packet(23, password));
    const std::string request = login("user", password);
    for (const char byte : request) {  // in pieces
        client.send({&byte, 1});
        usleep(1000);
    }
    EXPECT_EQ(right_in(receive_answer(client)), 2u);
    EXPECT_EQ(descriptors_of(daemon.agent_pid()), descriptors);
    EXPECT_TRUE(remembers(daemon.agent_pid(), testbed::CONFIG_FILE));
    // The answer leaves a moment before the packet that waited is wiped.
    EXPECT_TRUE(testbed::eventually(PATIENCE, [&] { return !remembers(daemon.agent_pid(), password); }));
    for (const std::string &text :
         {testbed::read_console(), testbed::read_debug(), testbed::read_file(testbed::EVENT_LOG)})
        EXPECT_EQ(text.find(password), std::string::npos);
}

// An answer to one who does not listen is lost like any other.
TEST_F(Login, AMonitorThatLeavesBeforeItsAnswerHarmsNobody)
{
    add_account("user", 5501, hashed("secret", "$6$", 10000));
    const TcpClient client;
    for (const auto &gone : connect_many(20, client)) {
        gone->send(login("user", "secret"));
        gone->reset();
    }
    EXPECT_EQ(right_of(client, "user", "secret"), 2u);
    EXPECT_TRUE(daemon.running());
}

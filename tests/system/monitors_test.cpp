// Many monitors on one agent: as many as it can tell anything, and more; those that do not read; languages
// side by side; who keeps what when another leaves. Taking back a shutdown order makes a notice at will, with
// or without a unit.
#include "vt_stage.h"

#include "wire_records.h"

#include <algorithm>
#include <array>
#include <deque>
#include <filesystem>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

using namespace bed;
using testbed::Daemon;
using testbed::TcpClient;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using Clock = std::chrono::steady_clock;

// The agent looks at descriptors below this when it asks whether a monitor can take a notice.
constexpr int NOTICE_BOUND = 32;
constexpr std::size_t TABLE = 64;

// One connected monitor, and the notices that have come to it.
class Monitor
{
  public:
    Monitor()
    {
        const int yes = 1;
        setsockopt(client.fd(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    }

    void names_language(std::int32_t lang) const
    {
        VTOSINFO info{};
        info.lang = lang;
        info.os = 2;
        client.send(packet(DATAID_OSINFO, {reinterpret_cast<const char *>(&info), sizeof info}));
        EXPECT_EQ(receive_answer(client).at(3), static_cast<char>(DATAID_OSINFO));
    }

    /// Takes what is there. Returns whether a notice was among it.
    bool listen()
    {
        std::array<char, 65536> part{};
        for (;;) {
            const ssize_t count = recv(client.fd(), part.data(), part.size(), MSG_DONTWAIT);
            if (count <= 0)
                break;
            unread_.append(part.data(), static_cast<std::size_t>(count));
        }
        const std::size_t before = notices.size();
        while (unread_.size() >= 8 && unread_.size() >= word_at(unread_, 4)) {
            const std::size_t length = word_at(unread_, 4);
            if (unread_[3] == NOTICE)
                notices.push_back(unread_.substr(8, length - 8));
            else
                ++answers;
            unread_.erase(0, length);
        }
        return notices.size() > before;
    }

    TcpClient client;
    std::vector<std::string> notices;
    std::size_t answers = 0;

  private:
    std::string unread_;
};

using Monitors = std::deque<Monitor>;

// The agent's descriptors that are sockets.
std::vector<int> sockets_of(pid_t pid)
{
    std::vector<int> sockets;
    for (int fd = 0; fd < 128; ++fd)
        if (testbed::descriptor_target(pid, fd).starts_with("socket:"))
            sockets.push_back(fd);
    return sockets;
}

// How many of the connections that were made since `before` can be told anything: the first of them, for the
// lowest descriptor that is free is taken.
std::size_t count_hearing(pid_t agent, const std::vector<int> &before)
{
    const std::vector<int> now = sockets_of(agent);
    const auto low = [](int fd) { return fd < NOTICE_BOUND; };
    return static_cast<std::size_t>(std::count_if(now.begin(), now.end(), low) -
                                    std::count_if(before.begin(), before.end(), low));
}

std::string cancel(const std::string &name)
{
    std::string field = name;
    field.resize(16, '\0');
    return packet(DATAID_CANCELSHUTDOWN, field);
}

std::string cancelled_by(const std::string &name)
{
    return "The Shutdown is Canceled by Users on " + name;
}

// As a machine without the unit: nobody is told anything unasked.
constexpr char SETTINGS_WITHOUT_UNIT[] = "[ UPS ]\n\n AgentType = 4\n ComSet = -2\n";

// Has one of them take back an order and waits for the notice on each. How long until the last one had it.
Clock::duration delay_of_notice(Monitors &monitors, std::size_t so_far)
{
    std::vector<pollfd> waiting;
    for (const Monitor &monitor : monitors)
        waiting.push_back({monitor.client.fd(), POLLIN, 0});
    const auto begin = Clock::now();
    const auto limit = begin + PATIENCE;
    monitors[so_far].client.send(cancel("desk" + std::to_string(so_far)));
    for (std::size_t heard = 0; heard < monitors.size() && Clock::now() < limit;) {
        poll(waiting.data(), waiting.size(), 1000);
        for (std::size_t i = 0; i < monitors.size(); ++i) {
            if (waiting[i].fd < 0 || !monitors[i].listen())
                continue;
            ++heard;
            waiting[i].fd = -1;
        }
    }
    const auto delay = Clock::now() - begin;
    for (std::size_t i = 0; i < monitors.size(); ++i)
        EXPECT_EQ(monitors[i].notices.size(), so_far + 1) << "monitor " << i;
    return delay;
}

// What the agent has not read yet of this monitor's requests.
std::size_t unread_by_the_agent(const TcpClient &client)
{
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(client.fd(), reinterpret_cast<sockaddr *>(&own), &size);
    std::array<char, 64> wanted{};
    std::snprintf(wanted.data(), wanted.size(), ":%04X 0100007F:%04X ", testbed::TCP_PORT,
                  ntohs(own.sin_port));
    const std::string table = testbed::read_file("/proc/net/tcp");
    const std::size_t at = table.find(wanted.data());
    if (at == std::string::npos)
        throw testbed::TestbedError("no connection" + std::string(wanted.data()));
    const std::size_t queues = table.find(':', at + std::string(wanted.data()).size());
    return std::stoul(table.substr(queues + 1, 8), nullptr, 16);
}

// A catalogue of one message, as installed: EUC-JP.
void install_catalogue()
{
    const std::string directory = "/usr/lib/voltaria/locale/ja/LC_MESSAGES";
    std::filesystem::create_directories(directory);
    testbed::write_file("/tmp/one.po",
                        "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=EUC-JP\\n\"\n\n"
                        "msgid \"The Shutdown is Canceled by Users on %s\"\n"
                        "msgstr \"\xBC\xE8\xBE\xC3 %s\"\n");
    const testbed::RunResult result =
        testbed::run({"msgfmt", "-o", directory + "/voltariad.mo", "/tmp/one.po"});
    ASSERT_EQ(result.status, 0) << result.errors;
}

constexpr char CANCELLED_IN_SHIFT_JIS[] = "\x8E\xE6\x8F\xC1 ";

// A stage on which nothing happens but what the test does.
StageOptions quiet()
{
    return {.settings = {{"UPS", "AgentType", "4"}, {"UPS", "ComSet", "-2"}}, .monitor = false};
}

void hear(Stage &stage, Monitors &monitors)
{
    stage.clock.run_for(0s);
    for (Monitor &monitor : monitors)
        monitor.listen();
}

void forget(Stage &stage, Monitors &monitors)
{
    hear(stage, monitors);
    for (Monitor &monitor : monitors)
        monitor.notices.clear();
}

}  // namespace

TEST(Monitors, AsManyAsTheAgentCanTellHearEveryNoticeInOrderAndWithinATenthOfASecond)
{
    testbed::write_config(SETTINGS_WITHOUT_UNIT);
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::wait_until("the agent's start to be over", PATIENCE, [] { return status().CommStatus == 6; });
    testbed::wait_until("the connections to be closed", PATIENCE,
                        [&] { return sockets_of(daemon.agent_pid()).size() == 3; });  // UDP, two listeners
    const std::vector<int> before = sockets_of(daemon.agent_pid());
    Monitors monitors(NOTICE_BOUND);
    testbed::wait_until("the connections to be accepted", PATIENCE, [&] {
        return sockets_of(daemon.agent_pid()).size() == before.size() + monitors.size();
    });
    const std::size_t hearing = count_hearing(daemon.agent_pid(), before);
    EXPECT_GE(hearing, 20u);
    EXPECT_LT(hearing, monitors.size());
    while (monitors.size() > hearing)
        monitors.pop_back();
    for (Monitor &monitor : monitors) {
        monitor.names_language(2);
        monitor.listen();
        monitor.notices.clear();
    }

    constexpr std::size_t ROUNDS = 10;
    auto best = Clock::duration::max();
    for (std::size_t round = 0; round < ROUNDS; ++round)
        best = std::min(best, delay_of_notice(monitors, round));
    EXPECT_LT(best, 100ms) << "from the order until the last monitor had heard, in the best of " << ROUNDS;
    for (const Monitor &monitor : monitors)
        for (std::size_t round = 0; round < ROUNDS; ++round)
            EXPECT_EQ(monitor.notices.at(round), cancelled_by("desk" + std::to_string(round)));
}

TEST(Monitors, OfAFullTableThoseBeyondTheBoundHearNothingAndTheSixtyFifthIsNotServedAtAll)
{
    Stage stage(quiet());
    stage.run(10s);
    const std::vector<int> before = sockets_of(stage.daemon.agent_pid());
    Monitors monitors;
    while (monitors.size() < TABLE + 1) {
        monitors.emplace_back();
        stage.clock.run_for(0s);
    }
    const std::size_t hearing = count_hearing(stage.daemon.agent_pid(), before);
    monitors.back().client.send(packet(DATAID_GETUPSINFO));
    monitors.front().client.send(cancel("desk"));
    hear(stage, monitors);
    for (std::size_t i = 0; i < monitors.size(); ++i)
        EXPECT_EQ(monitors[i].notices.size(), i < hearing ? 1u : 0u) << "monitor " << i;
    EXPECT_EQ(monitors.back().answers, 0u);
    monitors.pop_front();  // a place becomes free, and it is not for the one that came too late
    stage.run(2s);
    monitors.back().listen();
    EXPECT_EQ(monitors.back().answers, 0u);
}

TEST(Monitors, OneThatDoesNotReadLosesTheNoticeAndDelaysNobody)
{
    Stage stage(quiet());
    stage.run(10s);
    Monitors monitors(3);
    for (Monitor &monitor : monitors)
        monitor.names_language(2);
    forget(stage, monitors);
    Monitor &deaf = monitors[1];
    std::string question(8, '\0');
    question[0] = 4;
    std::size_t asked = 0;
    while (unread_by_the_agent(deaf.client) == 0 && asked < 1000) {
        for (int i = 0; i < 50; ++i, ++asked)
            deaf.client.send(packet(DATAID_COMMAND, question));
        stage.clock.run_for(0s);
    }
    ASSERT_LT(asked, 1000u) << "the agent's answers are all taken";

    const auto before = stage.clock.now();
    monitors[0].client.send(cancel("lost"));
    stage.clock.run_for(0s);
    monitors[0].listen();
    monitors[2].listen();
    EXPECT_EQ(stage.clock.now(), before);
    EXPECT_THAT(monitors[0].notices, ElementsAre(cancelled_by("lost")));
    EXPECT_THAT(monitors[2].notices, ElementsAre(cancelled_by("lost")));

    testbed::wait_until(
        "every answer", PATIENCE,
        [&] {
            stage.clock.run_for(0s);
            deaf.listen();
            return deaf.answers == asked;
        },
        [&] { return std::to_string(deaf.answers) + " of " + std::to_string(asked); });
    EXPECT_THAT(deaf.notices, IsEmpty());
    monitors[0].client.send(cancel("heard"));
    hear(stage, monitors);
    EXPECT_THAT(deaf.notices, ElementsAre(cancelled_by("heard")));
}

TEST(Monitors, HearEachInTheirLanguageSideBySide)
{
    install_catalogue();
    Stage stage(quiet());
    stage.run(10s);
    Monitors monitors(5);
    monitors[0].names_language(1);
    monitors[1].names_language(2);
    monitors[2].names_language(3);  // neither: is told the first
    monitors[3].names_language(1);
    forget(stage, monitors);  // the last has named none
    monitors[4].client.send(cancel("desk"));
    hear(stage, monitors);
    const std::string japanese = std::string(CANCELLED_IN_SHIFT_JIS) + "desk";
    EXPECT_THAT(monitors[0].notices, ElementsAre(japanese));
    EXPECT_THAT(monitors[1].notices, ElementsAre(cancelled_by("desk")));
    EXPECT_THAT(monitors[2].notices, ElementsAre(japanese));
    EXPECT_THAT(monitors[3].notices, ElementsAre(japanese));
    EXPECT_THAT(monitors[4].notices, ElementsAre(japanese));
}

TEST(Monitors, TheThirdKeepsItsLanguageWhenTheSecondLeaves)
{
    install_catalogue();
    Stage stage(quiet());
    stage.run(10s);
    Monitors monitors(1);
    auto second = std::make_unique<Monitor>();
    stage.clock.run_for(0s);
    monitors.emplace_back();
    monitors[0].names_language(1);
    second->names_language(1);
    monitors[1].names_language(2);
    forget(stage, monitors);
    second.reset();
    stage.clock.run_for(0s);
    monitors[0].client.send(cancel("desk"));
    hear(stage, monitors);
    EXPECT_THAT(monitors[0].notices, ElementsAre(std::string(CANCELLED_IN_SHIFT_JIS) + "desk"));
    EXPECT_THAT(monitors[1].notices, ElementsAre(cancelled_by("desk")));
}

TEST(Monitors, APlaceKeepsItsLanguageForTheNextWhoTakesIt)
{
    install_catalogue();
    Stage stage(quiet());
    stage.run(10s);
    Monitors monitors(2);
    monitors[0].names_language(1);
    monitors[1].names_language(2);
    forget(stage, monitors);
    monitors.pop_back();
    stage.clock.run_for(0s);
    monitors.emplace_back();  // says nothing of its language
    forget(stage, monitors);
    monitors[0].client.send(cancel("desk"));
    hear(stage, monitors);
    EXPECT_THAT(monitors[1].notices, ElementsAre(cancelled_by("desk")));
}

// The monitor that takes a long log slowly.
#include "faults_answer.h"

#include "wire_records.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace faults
{

using namespace std::chrono_literals;

static constexpr std::size_t LINES = 32'000;
static constexpr std::size_t RECORD = 24;        // bytes of a line in the answer
static constexpr std::size_t SLICE = 16 * 1024;  // bytes a second: less would look like a stalled monitor

struct SLOW_READER {
    SLOW_READER();
    SLOW_READER(const SLOW_READER &) = delete;
    SLOW_READER &operator=(const SLOW_READER &) = delete;
    ~SLOW_READER()
    {
        close(fd);
    }

    void ask() const;
    void take();

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::size_t taken = 0;
    bool ended = false;
    std::string unread;
};

static std::weak_ptr<SLOW_READER> reader;

// Short segments and a small window: what the kernel would take off the agent's hands at once is no long
// answer.
SLOW_READER::SLOW_READER()
{
    const int segment = 536;
    const int room = 8 * 1024;
    const int yes = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_port = htons(testbed::TCP_PORT);
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&agent), sizeof agent) != 0)
        throw testbed::TestbedError(std::string("connect: ") + std::strerror(errno));
}

// The data log, sub-request 2, from its first line on.
void SLOW_READER::ask() const
{
    static constexpr char HIGH = static_cast<char>(LINES >> 8);
    static constexpr char LOW = static_cast<char>(LINES & 0xFF);
    const std::string request = bed::packet(DATAID_COMMAND, std::string{2, 0, 0, 0, LOW, HIGH, 0, 0});
    EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
}

void SLOW_READER::take()
{
    std::array<char, SLICE> part{};
    const int yes = 1;
    for (std::size_t got = 0; got < SLICE && !ended;) {
        setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &yes, sizeof yes);
        const ssize_t count = recv(fd, part.data(), SLICE - got, MSG_DONTWAIT);
        ended = count == 0 || (count < 0 && errno != EAGAIN);
        if (count <= 0)
            break;
        got += static_cast<std::size_t>(count);
        unread.append(part.data(), static_cast<std::size_t>(count));
    }
}

static void put_log()
{
    std::string log;
    for (std::size_t i = 0; i < LINES; ++i)
        log += "14/11/2023 22:13:20,100.0,100.0, 50,50.0,24.9,27.0,50.0,  0\n";
    testbed::write_file(testbed::DATA_LOG, log, 0600);
}

static void take_and_go_on(Scene &scene, const std::shared_ptr<SLOW_READER> &monitor)
{
    if (!scene.monitor_reads || monitor->ended)
        return;
    const std::size_t before = monitor->unread.size();
    monitor->take();
    monitor->taken += monitor->unread.size() - before;
    while (monitor->unread.size() >= PACKET_HEAD_SIZE &&
           monitor->unread.size() >= bed::word_at(monitor->unread, 4)) {
        const std::size_t length = bed::word_at(monitor->unread, 4);
        if (monitor->unread.at(3) != bed::NOTICE) {
            EXPECT_EQ(length, PACKET_HEAD_SIZE + LINES * RECORD);
            monitor->ask();
        }
        monitor->unread.erase(0, std::max(length, std::size_t{PACKET_HEAD_SIZE}));
    }
    scene.stage.clock.at(scene.stage.clock.now() + 1s, [&scene, monitor] { take_and_go_on(scene, monitor); });
}

void ask_for_a_long_answer(Scene &scene)
{
    put_log();
    const auto monitor = std::make_shared<SLOW_READER>();
    reader = monitor;
    scene.kept.push_back(monitor);
    monitor->ask();
    take_and_go_on(scene, monitor);
    scene.stage.run(3s);
    EXPECT_GT(monitor->taken, 0U);
    EXPECT_LT(monitor->taken, LINES * RECORD);
}

std::size_t bytes_of_the_answer(const Scene &scene)
{
    const std::shared_ptr<SLOW_READER> monitor = reader.lock();
    return scene.phase == Phase::LONG_ANSWER && monitor ? monitor->taken : 0;
}

}  // namespace faults

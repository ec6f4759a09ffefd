// The world in which fuzz_session runs: the agent's record with a shared block in plain memory, the real
// event engine on the sandbox's fixed files, a thread that takes the UPS process's place at the pipes, and a
// clock that the input moves. No program is ever started: what starts programs is replaced, and so is the
// call that would become the system's shutdown.
#pragma once

#include "agent.h"
#include "agent_daemon.h"
#include "agent_daemon_buffer.h"
#include "agent_daemon_channel.h"
#include "agent_daemon_clients.h"
#include "agent_daemon_engine.h"
#include "agent_daemon_logins.h"
#include "agent_net.h"
#include "e_a_internal.h"
#include "filehandle.h"
#include "fuzz_support.h"
#include "no_programs.h"
#include "session_grammar.h"
#include "wp_field.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <crypt.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

static AGINFO world_block;
static std::time_t world_now;
static std::atomic<int> world_inputs;   // begun; the thread notices an input that does not end
static std::atomic<bool> world_inside;  // an input is being run
static const char *world_what = "";     // what is checked, for the report

static constexpr std::time_t WORLD_BEGIN = 1'078'477'622;  // 5 March 2004, 09:07:02
static constexpr int WORLD_PATIENCE = 120;                 // s for one input

#define WORLD_CHECK(holds)                                                                                   \
    do {                                                                                                     \
        if (!(holds))                                                                                        \
            world_broken(#holds, __LINE__);                                                                  \
    } while (false)

[[noreturn]] static void world_broken(const char *rule, int line)
{
    const UPS_PACKET_HEAD head = Daemon_Buffer != nullptr ? packet_head() : UPS_PACKET_HEAD{};
    std::fprintf(stderr, "line %d: %s%s does not hold; in hand: DataId %d Length %u\n", line, world_what,
                 rule, head.DataId, head.Length);
    std::abort();
}

// ---- what the daemon would reach outside itself

extern "C" std::time_t time(std::time_t *out) noexcept
{
    if (out != nullptr)
        *out = world_now;
    return world_now;
}

// The stopwatch of the time on battery, by the same clock.
static itimerval world_timer;
static std::time_t world_timerstart;

extern "C" int setitimer(__itimer_which_t, const itimerval *set, itimerval *) noexcept
{
    world_timer = *set;
    world_timerstart = world_now;
    return 0;
}

extern "C" int getitimer(__itimer_which_t, itimerval *now) noexcept
{
    *now = itimerval{};
    if (world_timer.it_value.tv_sec != 0)
        now->it_value = {world_timer.it_value.tv_sec - (world_now - world_timerstart) - 1, 999'990};
    return 0;
}

// On the way to the shutdown program; the names of the inputs are relative to where the target was started.
extern "C" int chdir(const char *) noexcept
{
    return 0;
}

extern "C" int execl(const char *path, const char *, ...) noexcept
{
    if (std::string_view(path) != "/sbin/shutdown")
        world_broken("the agent becomes nothing else", __LINE__);
    errno = ENOENT;
    return -1;
}

// ---- the UPS process's end of the pipes

// Every word is carried out. Also the watch over inputs that do not end.
static void stand_for_ups(int words, int replies)
{
    int seen = -1;
    auto since = std::chrono::steady_clock::now();
    for (;;) {
        pollfd entry{words, POLLIN, 0};
        if (poll(&entry, 1, 1000) > 0) {
            std::uint32_t word = 0;
            if (read(words, &word, sizeof word) != sizeof word)
                return;
            word |= 1;
            if (write(replies, &word, sizeof word) != sizeof word)
                return;
        }
        const auto now = std::chrono::steady_clock::now();
        if (!world_inside || world_inputs != seen) {
            seen = world_inputs;
            since = now;
        }
        if (now - since > std::chrono::seconds(WORLD_PATIENCE))
            world_broken("an input ends", __LINE__);
    }
}

// ---- the start

static void put_file(const char *path, std::string_view text)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    WORLD_CHECK(fd >= 0);
    WORLD_CHECK(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    close(fd);
}

// Accounts whose passwords cost little to check: with a password, without one, locked.
static void make_accounts()
{
    const std::string hash = crypt("secret", "$1$salt$");
    put_file("/etc/passwd", "root:x:0:0::/:/bin/sh\noperator:x:1000:1000::/:/bin/sh\n"
                            "Office:x:1001:1001::/:/bin/sh\nmonitor-1:x:1002:1002::/:/bin/sh\n");
    put_file("/etc/shadow", "root:" + hash + ":1::::::\noperator:" + hash + ":1::::::\nOffice::1::::::\n" +
                                "monitor-1:*:1::::::\n");
}

static int bound_socket(std::uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);  // a merge runs one target in another
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    WORLD_CHECK(bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0);
    return fd;
}

static void open_channel()
{
    WORLD_CHECK(pipe2(agent.chna2u.actpipe.data(), O_CLOEXEC) == 0);
    WORLD_CHECK(pipe2(agent.chna2u.paspipe.data(), O_CLOEXEC) == 0);
    agent.chnu2a = chnpair{{-1, -1}, {-1, -1}};
    std::thread(stand_for_ups, agent.chna2u.actpipe[0], agent.chna2u.paspipe[1]).detach();
}

// The agent's way out ends the process, with a status that could be 0.
static void notice_exit()
{
    if (world_inside)
        std::abort();
}

static void world_start()
{
    refuse_host();
    std::atexit(notice_exit);
    std::signal(SIGPIPE, SIG_IGN);
    setenv("TZ", "UTC0", 1);
    tzset();
    unlink("/sbin/shutdown");
    make_accounts();
    agent.shmid = -1;
    agent.aip = &world_block;
    agent.agnet.ufd = bound_socket(PORT_UDP);
    open_channel();
    daemon_reallocbuf(DAEMON_BUFFER_START);
}

// ---- before each input

// What the file holds at first: nothing, a server agent's settings, a protector's, one full of text.
static constexpr std::array<std::string_view, 4> CONFIGS = {
    "",
    "[ UPS ]\n AgentType = 5\n Group = Office\n IgnoreOtherAgentDown = 0\n ComSet = 1\n"
    "[ ShutDown ]\n TurnOffDelay = 120\n EXPECTBLIFE = 60\n[ EventLog ]\n EventLogMaxSize = 40\n"
    "[ DataLog ]\n DataLogInterval = 10\n",
    "[ UPS ]\n AgentType = 1\n AgentName = guard\n",
    "[ UPS ]\n AgentType = 6\n Group = \xa5\xc6\xa5\xb9\n ComSet = -2\n ChangeBattTime = 104,01,02,03,04,05\n"
    "[ EventLog ]\n EventLogEnabled = 1\n"};

static std::string log_lines(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += " 5/ 3/2004  9: 7: 2  65 255 monitor-1      \n";
    return text;
}

static void put_status(std::uint8_t choice)
{
    static constexpr std::array<std::string_view, 4> MODELS = {"ZR900PL", "ZQ500", "UNKNOWN", "ZR401"};
    static constexpr std::array<std::int8_t, 4> LINKS = {COMM_ESTABLISHED, COMM_NOUPS, COMM_LOST, 0};
    UPS_UPSINFO &info = world_block.ups.ui;
    field_set(info.upsmodel, MODELS[choice & 3]);
    info.CommStatus = LINKS[choice >> 2 & 3];
    info.ComId = static_cast<std::int8_t>((choice >> 4 & 3) - 1);
    info.upsdata.InPutINT = static_cast<std::int16_t>((choice & 0x40) != 0 ? 230 : 0);
}

static std::string file_text(const char *path)
{
    std::string text;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    std::array<char, 16384> part;
    for (ssize_t got = 0; fd >= 0 && (got = read(fd, part.data(), part.size())) > 0;)
        text.append(part.data(), static_cast<std::size_t>(got));
    close(fd);
    return text;
}

// An agent that has just started. Reading the settings in takes much longer than most packets do, so each
// start is made once and copied afterwards.
typedef struct _START {
    std::string config;
    std::string log;
    UPS ups;
    ENGINE state;
    std::array<UPS_EVENTINFO, EVENT_TABLE_SIZE> el;
    std::array<USERSDATA, USER_COUNT> us;
} START;

static std::array<START, 16> world_starts;

static void world_tables()
{
    ein.DATA.schlist = eout.DATA.schlist = nullptr;
    engine_tables(&agent);
}

static START make_start(std::size_t choice)
{
    world_now = WORLD_BEGIN;
    world_block = AGINFO{};
    world_block.ups.protocol = 1;
    world_block.ups.ui.ComId = -1;
    put_file(CONFIG_FILE, CONFIGS[choice & 3]);
    put_file(Evelogfile, log_lines(static_cast<int>(choice >> 2) * 70));
    engine = ENGINE{};
    agent.el = {};
    agent.us = {};
    for (USERSDATA &user : agent.us)
        user.UserID = USER_NONE;
    world_tables();
    engine_call(&agent, E_CMD_INIT, E_UPSTAT | E_UPSCONFIG | E_SCHEDULE | E_EVENTACTION);
    return {file_text(CONFIG_FILE), file_text(Evelogfile), world_block.ups, engine, agent.el, agent.us};
}

static void world_reset(std::uint8_t choice, std::uint8_t status)
{
    ++world_inputs;
    START &start = world_starts[choice & 15];
    if (start.log.empty())
        start = make_start(choice & 15);
    world_now = WORLD_BEGIN;
    world_timer = itimerval{};
    world_block = AGINFO{};
    world_block.upspid = getpid();
    world_block.ups = start.ups;
    put_status(status);
    put_file(CONFIG_FILE, start.config);
    put_file(Evelogfile, start.log);
    put_file(Datalogfile, "");
    engine = start.state;
    agent.el = start.el;
    agent.us = start.us;
    agent.nusers = 0;
    agent.agnet.cnc = NETCLI{};
    clients_reset(&agent.agnet);
    world_tables();
}

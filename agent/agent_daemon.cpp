// The agent process. One thread, one select loop over the UDP socket, the listeners, the connected monitors
// and the pipe whose end means that the UPS process has died; the event engine runs once a turn. Nothing in a
// turn waits for a peer.
#include "agent_daemon.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_channel.h"
#include "agent_daemon_clients.h"
#include "agent_daemon_engine.h"
#include "agent_daemon_logins.h"
#include "agent_main.h"
#include "agent_net.h"
#include "agent_net_announce.h"
#include "agent_utils.h"
#include "agent_utils_lock.h"
#include "agent_utils_output.h"
#include "e_a.h"
#include "shared_word.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

static bool unlock_owed = false;   // this process holds `AGINFO.locked` and has yet to clear it
static bool tool_put_off = false;  // a tool's request was met when the file lock was taken

static constexpr int SELECT_BOUND = 32;       // first argument of select while there are few descriptors
static constexpr int DOWN_ANNOUNCEMENTS = 3;  // monitors are told this often that the agent ends
static constexpr int KEEPALIVE_IDLE = 60;     // s without traffic before a monitor is asked for life
static constexpr int KEEPALIVE_STEP = 10;     // s
static constexpr int KEEPALIVE_TRIES = 6;

static int raise_agent_event(AGENT *ag, std::int32_t id)
{
    AGENTEVENT event{id, nullptr};
    ein.DATA.agentevent = &event;
    const int result = engine_call(ag, E_CMD_AGENTEVENT, E_AGENTEVENT | E_UPSCONFIG | E_UPSTAT);
    ein.DATA.agentevent = nullptr;
    return result;
}

int daemon_logagentstop(AGENT *ag)
{
    return raise_agent_event(ag, AGENTEVENT_STOP);
}

void net_netexit(AGENT *ag)
{
    static bool leaving = false;
    const int status = errno;
    // A failure on the way out, met inside the engine, must not start it again.
    if (std::exchange(leaving, true))
        std::exit(status);
    for (int i = 0; i < DOWN_ANNOUNCEMENTS; ++i)
        net_broadcastdown2monitor(ag);
    daemon_logagentstop(ag);
    shmdt(std::exchange(ag->aip, nullptr));  // the SIGCHLD handler looks into it while it is there
    shmctl(ag->shmid, IPC_RMID, nullptr);
    printf0("net_netexit called\n");
    std::exit(status);
}

static void no_schedules()
{
    ein.DATA.schlist = eout.DATA.schlist = nullptr;
}

static void start_engine(AGENT *ag)
{
    no_schedules();
    engine_tables(ag);
    const int result = engine_call(ag, E_CMD_INIT, E_UPSTAT | E_UPSCONFIG | E_SCHEDULE | E_EVENTACTION);
    if (result < 0) {
        printf0("daemon_doagent: Event_Action(Init) failed\n");
        std::exit(result);
    }
}

static void run_engine(AGENT *ag)
{
    no_schedules();
    engine_tables(ag);
    engine_call(ag, E_CMD_CHECKSTATUS, E_UPSTAT);
}

// The descriptors of one turn. Only those below `bound` are ever looked at.
typedef struct _WATCHED {
    fd_set reading;
    fd_set writing;
    int bound;
} WATCHED;

static void watch(fd_set &set, int fd)
{
    if (fd >= 0 && fd < FD_SETSIZE)
        FD_SET(fd, &set);
}

static bool is_ready(const WATCHED &watched, int fd)
{
    return fd >= 0 && fd < watched.bound && FD_ISSET(fd, &watched.reading);
}

// The bound follows from the number of entries, not from the highest descriptor: with many monitors some lie
// beyond it and are not served. Kept: monitors know the agent to serve no more than this.
static void gather(const AGENT *ag, WATCHED &watched)
{
    FD_ZERO(&watched.reading);
    FD_ZERO(&watched.writing);
    watch(watched.reading, ag->chnu2a.actpipe[0]);
    watch(watched.reading, ag->agnet.ufd);
    for (const NETSERV *listener = ag->agnet.tfdlist; listener != nullptr; listener = listener->next)
        watch(watched.reading, listener->tcpfd);
    int entries = 3;  // the pipe, the UDP socket, all listeners together
    for (const NETCLI *client = ag->agnet.clilist; client != nullptr; client = client->next) {
        ++entries;
        // A monitor that has not taken its answer, or waits for one, is not asked for its next request.
        if (client_haspending(client))
            watch(watched.writing, client->sockfd);
        else if (!login_waits(client))
            watch(watched.reading, client->sockfd);
    }
    watched.bound = entries < SELECT_BOUND ? SELECT_BOUND : entries + 1;
}

// Waits at most a second, and not at all while there is a login to check. Returns whether something is ready.
static bool wait_for_turn(AGENT *ag, WATCHED &watched)
{
    timeval limit{logins_ready(&ag->agnet) ? 0 : 1, 0};
    const int ready = select(watched.bound, &watched.reading, &watched.writing, nullptr, &limit);
    if (ready == -1 && errno != EINTR) {
        printf1("daemon_doagent: select\n");
        net_netexit(ag);
    }
    return ready > 0;
}

// Whether a failed accept is the fault of the one connection that it was about.
static bool failed_connection(int error)
{
    switch (error) {
    case EAGAIN:
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
    case EPERM:
    case ETIMEDOUT:
        return true;
    default:
        return false;
    }
}

// So that a monitor that lost its power frees its slot, and that a second notice does not wait for the first
// to be acknowledged.
static void set_options(int sockfd)
{
    const int on = 1;
    setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(sockfd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(sockfd, IPPROTO_TCP, TCP_KEEPIDLE, &KEEPALIVE_IDLE, sizeof KEEPALIVE_IDLE);
    setsockopt(sockfd, IPPROTO_TCP, TCP_KEEPINTVL, &KEEPALIVE_STEP, sizeof KEEPALIVE_STEP);
    setsockopt(sockfd, IPPROTO_TCP, TCP_KEEPCNT, &KEEPALIVE_TRIES, sizeof KEEPALIVE_TRIES);
}

static void accept_clients(AGENT *ag, const WATCHED &watched)
{
    for (const NETSERV *listener = ag->agnet.tfdlist; listener != nullptr; listener = listener->next) {
        if (!is_ready(watched, listener->tcpfd))
            continue;
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const int sockfd = accept4(listener->tcpfd, reinterpret_cast<sockaddr *>(&peer), &size,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (sockfd == -1) {
            if (failed_connection(errno))
                continue;
            printf1("daemon_doagent: accept\n");
            net_netexit(ag);
        }
        set_options(sockfd);
        clients_register(&ag->agnet, sockfd, peer);
    }
}

static void serve_datagram(AGENT *ag, const WATCHED &watched)
{
    if (!is_ready(watched, ag->agnet.ufd))
        return;
    const WIREBYTES room = packet_bytes();
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const ssize_t got = recvfrom(ag->agnet.ufd, room.data(), room.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr *>(&peer), &size);
    if (got < 0 || !net_acceptdatagram(static_cast<std::size_t>(got)))
        return;
    UPS_CLIADDR origin = packet_origin();  // its os and lang stay as the last TCP packet left them
    origin.sockfd = ag->agnet.ufd;
    origin.addr = peer;
    packet_setorigin(origin);
    ag->agnet.uaddr = peer;
    ag->agnet.cnc.sockfd = ag->agnet.ufd;
    ag->agnet.cnc.addr = peer;
    daemon_procnetmsg(ag, 1, 0);
}

// One client's part of a turn. -1 when the connection is dead.
static int serve_client(AGENT *ag, NETCLI *client, const WATCHED &watched)
{
    if (client_haspending(client))
        return client_flush(client);
    if (!is_ready(watched, client->sockfd))
        return 0;
    int length = 0;
    const int result = net_readpacketfromtcpsocket(&ag->agnet, client, &length);
    if (result <= 1)
        return result < 0 ? -1 : 0;
    if (login_inhand())
        return login_hold(client);
    net_forbidagentorder();
    daemon_procnetmsg(ag, 1, 1);
    return 0;
}

static void serve_clients(AGENT *ag, const WATCHED &watched)
{
    for (NETCLI *client = ag->agnet.clilist; client != nullptr;) {
        const int sockfd = client->sockfd;
        if (sockfd >= 0 && serve_client(ag, client, watched) == -1) {
            close(sockfd);
            free_client_sockfd(&ag->agnet, sockfd);
            // The same element now holds the next client, or none.
            if (client->sockfd == -1)
                return;
            continue;
        }
        client = client->next;
    }
}

static void watch_ups_process(AGENT *ag, const WATCHED &watched)
{
    // The UPS process never writes here, so that this pipe is readable means that it has died.
    if (!is_ready(watched, ag->chnu2a.actpipe[0]))
        return;
    printf1("actpipe. daemon_doagent: ups module failed\n");
    net_netexit(ag);
}

// A tool that was stopped or killed with the file lock in its hands keeps the word set, but not the loop.
static void unlock_block()
{
    unlock_owed = !net_tryclearlock();
}

// What an outside management tool asks for through the shared block.
static void serve_tools(AGENT *ag)
{
    tool_put_off = false;
    const std::int32_t request = shared_load(ag->aip->isagentchg);
    if (request == 0)
        return;
    if (unlock_owed || net_trytestandsetlock() != 0) {
        tool_put_off = unlock_owed || shared_load(ag->aip->locked) == 0;
        return;
    }
    if (request < 0) {
        printf1("daemon_doagent: receive agentmanage stop command\n");
        unlock_block();
        net_netexit(ag);
    }
    if (request == 1) {
        shared_store(ag->aip->isagentchg, 0);
        raise_agent_event(ag, AGENTEVENT_SETTINGS);
    }
    unlock_block();
}

static void notice_child(AGENT *ag)
{
    if (!agent_upsprocess_ended())
        return;
    printf0("receive sigchild, exit\n");
    net_netexit(ag);
}

static void turn(AGENT *ag)
{
    WATCHED watched;
    gather(ag, watched);
    const bool something = wait_for_turn(ag, watched);
    notice_child(ag);
    if (something) {
        accept_clients(ag, watched);
        serve_datagram(ag, watched);
    } else {
        FD_ZERO(&watched.reading);
    }
    serve_clients(ag, watched);
    logins_checkone(ag);
    if (unlock_owed)
        unlock_block();  // also in a quiet turn: a tool may wait for the word
    if (something)
        watch_ups_process(ag, watched);
    // They are looked for when something happened; one that the file lock kept back need not wait for more.
    if (something || tool_put_off)
        serve_tools(ag);
    daemon_dropreplies(ag);
    run_engine(ag);
}

void daemon_doagent(AGENT *ag)
{
    printf1("can debug echo on\n");
    for (USERSDATA &user : ag->us)
        user.UserID = USER_NONE;
    clients_reset(&ag->agnet);
    daemon_reallocbuf(DAEMON_BUFFER_START);
    start_engine(ag);
    for (;;)
        turn(ag);
}

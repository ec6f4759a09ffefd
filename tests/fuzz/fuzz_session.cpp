// Whole sessions: several monitors on connections and datagrams from anywhere, valid packets of every DataId
// with bent fields, cut into pieces, between turns in which the unit changes and time passes, against the
// dispatcher with the event engine behind it. Held against each packet: what the client table, the settings
// and the descriptors must look like afterwards, and that each monitor hears whole answers, in order, with
// nothing behind the end of a text.
#include "session_answers.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// A monitor's connection, seen from both ends.
typedef struct _MONITOR {
    int agentfd;
    int fd;
    bool lives;    // on the agent's side
    bool reads;    // takes what it is sent
    bool dropped;  // beyond the table
    SESSIONBYTES heard;
    std::deque<OWED> owed;
} MONITOR;

static std::deque<MONITOR> monitors;
static int announced = -1;  // hears what goes to all monitors
static int caller = -1;     // sends datagrams and hears their answers

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    world_start();
    announced = bound_socket(PORT_ANNOUNCE);
    caller = bound_socket(0);
    return 0;
}

// ---- what is heard

// An answer settles the first debt that it fits; uncertain ones before it were not paid.
static void settle(MONITOR &monitor, const UPS_PACKET_HEAD &head)
{
    while (!monitor.owed.empty() && !monitor.owed.front().certain &&
           monitor.owed.front().dataid != head.DataId)
        monitor.owed.pop_front();
    WORLD_CHECK(!monitor.owed.empty());
    WORLD_CHECK(monitor.owed.front().dataid == head.DataId);
    WORLD_CHECK(has_length(monitor.owed.front(), head.Length));
    monitor.owed.pop_front();
}

static void hear_packets(MONITOR &monitor)
{
    WIREVIEW left = monitor.heard;
    while (left.size() >= PACKET_HEAD_SIZE) {
        const UPS_PACKET_HEAD head = wire_gethead(left);
        check_head(head);
        if (left.size() < head.Length)
            break;
        const WIREVIEW data = left.subspan(PACKET_HEAD_SIZE, head.Length - PACKET_HEAD_SIZE);
        if (head.DataId == DATAID_MESSAGE) {
            WORLD_CHECK(std::find(data.begin(), data.end(), 0) == data.end());
        } else {
            settle(monitor, head);
            check_texts(head.DataId, data);
        }
        left = left.subspan(head.Length);
    }
    monitor.heard.erase(monitor.heard.begin(),
                        monitor.heard.end() - static_cast<std::ptrdiff_t>(left.size()));
}

static void hear(MONITOR &monitor)
{
    static std::array<std::uint8_t, 65536> bin;
    if (monitor.fd < 0 || !monitor.reads)
        return;
    for (ssize_t got = 0; (got = recv(monitor.fd, bin.data(), bin.size(), MSG_DONTWAIT)) > 0;)
        monitor.heard.insert(monitor.heard.end(), bin.begin(), bin.begin() + got);
    hear_packets(monitor);
}

// Datagrams are whole packets.
static void hear_datagrams(int fd)
{
    static std::array<std::uint8_t, 65536> bin;
    for (ssize_t got = 0; (got = recv(fd, bin.data(), bin.size(), MSG_DONTWAIT)) > 0;) {
        const WIREVIEW packet = WIREVIEW(bin).first(static_cast<std::size_t>(got));
        WORLD_CHECK(packet.size() >= PACKET_HEAD_SIZE);
        const UPS_PACKET_HEAD head = wire_gethead(packet);
        check_head(head);
        WORLD_CHECK(head.Length == packet.size());
        WORLD_CHECK(head.DataId == DATAID_ANSAGENT || head.DataId == DATAID_ANSPROT);
        check_texts(head.DataId, packet.subspan(PACKET_HEAD_SIZE));
    }
}

// ---- what must hold after each packet

static void check_clients()
{
    std::size_t used = 0;
    while (used < net_client_p.size() && net_client_p[used].sockfd != -1)
        ++used;
    for (std::size_t i = used; i < net_client_p.size(); ++i)
        WORLD_CHECK(net_client_p[i].sockfd == -1);
    const NETCLI *client = agent.agnet.clilist;
    for (std::size_t i = 0; i < used; ++i, client = client->next)
        WORLD_CHECK(client == &net_client_p[i]);
    WORLD_CHECK(client == nullptr);
}

static bool has_end(std::span<const char> text)
{
    return std::find(text.begin(), text.end(), '\0') != text.end();
}

static void check_users()
{
    WORLD_CHECK(agent.nusers >= 0 && agent.nusers <= static_cast<int>(USER_COUNT));
    WORLD_CHECK(ein.DATA.eu.uip == nullptr ||
                (ein.DATA.eu.uip->nusers >= 0 && ein.DATA.eu.uip->nusers <= static_cast<int>(USER_COUNT)));
    for (const USERSDATA &user : agent.us)
        WORLD_CHECK(has_end(user.UserName) && has_end(user.Address) && has_end(user.Email));
    for (const UPS_EVENTINFO &event : agent.el)
        WORLD_CHECK(has_end(event.Command));
}

static void check_block()
{
    const UPS_COMMPARAM &comm = settings().commparam;
    WORLD_CHECK(has_end(comm.Agent) && has_end(comm.lpszAccount) && has_end(comm.lpszDomain));
    WORLD_CHECK(has_end(comm.Group) && has_end(world_block.ups.ui.Group));
    WORLD_CHECK(world_block.locked == 0);
}

// Pointers into a handler's stack must not stay behind.
static void check_arguments()
{
    WORLD_CHECK(ein.DATA.acp == nullptr && ein.DATA.agentevent == nullptr && eout.DATA.acp == nullptr);
    WORLD_CHECK(Daemon_BufferLen == Daemon_NetBufLen + sizeof(UPS_CLIADDR));
    WORLD_CHECK(Daemon_NetBufLen >= DAEMON_BUFFER_START);
}

static int lowest_descriptor()
{
    const int fd = fcntl(agent.agnet.ufd, F_DUPFD_CLOEXEC, 0);
    close(fd);
    return fd;
}

// Kept from before a packet.
typedef struct _BEFORE {
    UPS_PARAM settings;
    std::string file;
    int descriptor;
} BEFORE;

// Whether a packet is one that may change the settings in the block or in the file.
static bool may_set(const UPS_PACKET_HEAD &head, std::size_t size)
{
    switch (head.DataId) {
    case DATAID_SCHEDULES:
        return !is_protector() && size % sizeof(SCHEDULEINFO) == 0 && size <= 400 * sizeof(SCHEDULEINFO);
    case DATAID_EVENTS:
        return !is_protector() && size >= EVENTS_BYTES && (size - EVENTS_BYTES) % sizeof(USERSDATA) == 0;
    case DATAID_CONFIG:
        return !is_protector() && size >= sizeof(UPS_PARAM);
    case DATAID_PROTECTORCFG:
        return is_protector() && size == sizeof(PROTECTORCFG);
    case DATAID_GETPROTECTOR:
    case DATAID_COMMAND:  // loads the settings and keeps the converted texts
    case DATAID_SHUTDOWN:
        return true;
    case DATAID_BUZZER_ON:
    case DATAID_BUZZER_OFF:
    case DATAID_AUTOTEST_ON:
    case DATAID_AUTOTEST_OFF:
        return size == 0;
    case DATAID_DETECTIONLVL:
        return size == 4;
    case DATAID_SETBATTIME:
        return size == sizeof(BATTCHGTIME);
    default:
        return false;
    }
}

static void dispatch(int fromtcp)
{
    const UPS_PACKET_HEAD head = packet_head();
    const std::size_t size = packet_data().size();
    BEFORE before{settings(), {}, lowest_descriptor()};
    const bool sets = may_set(head, size);
    if (!sets)
        before.file = file_text(CONFIG_FILE);
    daemon_procnetmsg(&agent, 1, fromtcp);
    if (!sets) {
        WORLD_CHECK(std::memcmp(&before.settings, &settings(), sizeof before.settings) == 0);
        WORLD_CHECK(before.file == file_text(CONFIG_FILE));
    }
    WORLD_CHECK(lowest_descriptor() == before.descriptor);
    check_clients();
    check_users();
    check_block();
    check_arguments();
}

// ---- the agent's turn

static MONITOR *monitor_of(int agentfd)
{
    const auto found = std::find_if(monitors.begin(), monitors.end(), [agentfd](const MONITOR &monitor) {
        return monitor.lives && monitor.agentfd == agentfd;
    });
    return found != monitors.end() ? &*found : nullptr;
}

static bool readable(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

// -1 when the connection is dead.
static int serve_client(NETCLI *client)
{
    if (client_haspending(client))
        return client_flush(client);
    if (login_waits(client) || !readable(client->sockfd))
        return 0;
    int length = -1;
    const int result = net_readpacketfromtcpsocket(&agent.agnet, client, &length);
    if (result <= 1) {
        WORLD_CHECK(length == 0);
        return result;
    }
    WORLD_CHECK(result == length + static_cast<int>(sizeof(UPS_CLIADDR)));
    WORLD_CHECK(packet_head().Length == static_cast<std::uint32_t>(length));
    WORLD_CHECK(net_checkisvalidpacket(packet_head()));
    WORLD_CHECK(packet_origin().sockfd == client->sockfd);
    MONITOR *monitor = monitor_of(client->sockfd);
    WORLD_CHECK(monitor != nullptr);
    for (const OWED &owed : owed_for_packet(packet_head(), packet_data()))
        monitor->owed.push_back(owed);
    if (login_inhand())
        return login_hold(client);
    net_forbidagentorder();
    dispatch(1);
    return 0;
}

// A login is answered before anything else of its client is read.
static void serve_login()
{
    const bool ready = logins_ready(&agent.agnet);
    logins_checkone(&agent);
    WORLD_CHECK(ready || !logins_ready(&agent.agnet));
    check_clients();
    check_arguments();
}

static void serve_clients()
{
    for (NETCLI *client = agent.agnet.clilist; client != nullptr;) {
        const int sockfd = client->sockfd;
        if (serve_client(client) == -1) {
            MONITOR *monitor = monitor_of(sockfd);
            WORLD_CHECK(monitor != nullptr);
            monitor->lives = false;
            close(sockfd);
            free_client_sockfd(&agent.agnet, sockfd);
            check_clients();
            if (client->sockfd == -1)
                return;
            continue;
        }
        client = client->next;
    }
}

static void serve_datagrams()
{
    for (int i = 0; i < 8 && readable(agent.agnet.ufd); ++i) {
        const WIREBYTES room = packet_bytes();
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const ssize_t got = recvfrom(agent.agnet.ufd, room.data(), room.size(), MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr *>(&peer), &size);
        if (got < 0 || !net_acceptdatagram(static_cast<std::size_t>(got)))
            continue;
        UPS_CLIADDR origin = packet_origin();
        origin.sockfd = agent.agnet.ufd;
        origin.addr = peer;
        packet_setorigin(origin);
        agent.agnet.uaddr = agent.agnet.cnc.addr = peer;
        agent.agnet.cnc.sockfd = agent.agnet.ufd;
        dispatch(0);
    }
}

static void hear_all()
{
    for (MONITOR &monitor : monitors)
        hear(monitor);
    hear_datagrams(announced);
    hear_datagrams(caller);
}

static void agent_turn()
{
    serve_datagrams();
    serve_clients();
    serve_login();
    daemon_dropreplies(&agent);
    ein.DATA.schlist = eout.DATA.schlist = nullptr;
    engine_tables(&agent);
    engine_call(&agent, E_CMD_CHECKSTATUS, E_UPSTAT);
    check_arguments();
    hear_all();
}

// ---- what the input does

static constexpr std::size_t MONITORS_LIMIT = 80;

static void connect_monitor()
{
    std::array<int, 2> ends;
    if (monitors.size() >= MONITORS_LIMIT ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == -1)
        return;
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(40000 + monitors.size()));
    clients_register(&agent.agnet, ends[0], peer);
    const bool registered = client_bysocket(&agent.agnet, ends[0]) != nullptr;
    monitors.push_back({ends[0], ends[1], registered, true, !registered, {}, {}});
    check_clients();
}

static MONITOR &some_monitor(SESSIONINPUT &in)
{
    if (monitors.empty())
        connect_monitor();
    return monitors[choose(in, monitors.size())];
}

static void send_piece(MONITOR &monitor, std::span<const std::uint8_t> piece)
{
    if (monitor.fd >= 0)
        (void)!send(monitor.fd, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Whole, in two pieces with a turn between them, or a byte a turn.
static void send_cut(SESSIONINPUT &in, MONITOR &monitor, const SESSIONBYTES &packet)
{
    const std::uint8_t cut = take8(in);
    const std::span<const std::uint8_t> bytes = packet;
    if (cut < 160)
        return send_piece(monitor, bytes);
    if (cut >= 248 && bytes.size() < 64) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            send_piece(monitor, bytes.subspan(i, 1));
            agent_turn();
        }
        return;
    }
    const std::size_t first =
        cut < 200 ? std::min<std::size_t>(cut - 159U, bytes.size()) : take16(in) % (bytes.size() + 1);
    send_piece(monitor, bytes.first(first));
    agent_turn();
    send_piece(monitor, bytes.subspan(first));
}

static void op_packet(SESSIONINPUT &in)
{
    MONITOR &monitor = some_monitor(in);
    send_cut(in, monitor, take_packet(in, {&settings(), agent.el.data(), agent.us.data()}));
    agent_turn();
}

static void op_datagram(SESSIONINPUT &in)
{
    SESSIONBYTES packet = take_packet(in, {&settings(), agent.el.data(), agent.us.data()});
    if (packet.size() % 5 == 0)
        packet.push_back(0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(PORT_UDP);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    (void)!sendto(caller, packet.data(), packet.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to),
                  sizeof to);
    agent_turn();
}

static void op_bytes(SESSIONINPUT &in)
{
    MONITOR &monitor = some_monitor(in);
    SESSIONBYTES bytes(take8(in) % 32);
    for (std::uint8_t &byte : bytes)
        byte = take8(in);
    send_piece(monitor, bytes);
    agent_turn();
}

static void op_connect(SESSIONINPUT &in)
{
    const std::uint8_t choice = take8(in);
    for (std::size_t i = choice < 250 ? 1 : 66; i > 0; --i)
        connect_monitor();
}

static void op_disconnect(SESSIONINPUT &in)
{
    MONITOR &monitor = some_monitor(in);
    if (monitor.fd < 0)
        return;
    if (take8(in) % 4 == 0) {
        shutdown(monitor.fd, SHUT_WR);
    } else {
        close(monitor.fd);
        monitor.fd = -1;
    }
    agent_turn();
}

// One that does not take its answers until it is told again.
static void op_stall(SESSIONINPUT &in)
{
    MONITOR &monitor = some_monitor(in);
    const int small = 4096;
    setsockopt(monitor.agentfd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    monitor.reads = !monitor.reads;
}

static void op_unit(SESSIONINPUT &in)
{
    put_status(take8(in));
    world_block.ups.upsstat = static_cast<std::uint32_t>(take16(in)) << 4;
    world_block.ups.ui.upsstat = static_cast<std::int8_t>(take8(in));
    world_block.ups.ui.BattStatus = static_cast<std::int8_t>(take8(in));
    world_block.udinfo = take8(in) & 1;
    agent_turn();
}

static void op_time(SESSIONINPUT &in)
{
    static constexpr std::array<std::time_t, 8> STEPS = {1, 10, 30, 60, 600, 3600, 86400, -3600};
    world_now += STEPS[choose(in, STEPS.size())];
    for (int i = 0; i < 3; ++i)
        agent_turn();
}

// The request of an outside tool.
static void op_tool(SESSIONINPUT &)
{
    AGENTEVENT event{1, nullptr};
    ein.DATA.agentevent = &event;
    engine_call(&agent, E_CMD_AGENTEVENT, E_AGENTEVENT | E_UPSCONFIG | E_UPSTAT);
    ein.DATA.agentevent = nullptr;
    agent_turn();
}

static constexpr std::array OPERATIONS = {
    op_packet, op_packet,  op_packet, op_packet,   op_packet, op_datagram,   op_packet, op_packet,
    op_bytes,  op_connect, op_stall,  op_datagram, op_unit,   op_disconnect, op_time,   op_tool};

// Everybody reads on, and nobody may be left without an answer.
static void finish()
{
    for (MONITOR &monitor : monitors)
        monitor.reads = true;
    for (int i = 0; i < 400; ++i) {
        agent_turn();
        const NETCLI *client = agent.agnet.clilist;
        while (client != nullptr && !client_haspending(client) && !login_waits(client) &&
               !readable(client->sockfd))
            client = client->next;
        if (client == nullptr)
            break;
    }
    for (const MONITOR &monitor : monitors)
        if (monitor.lives && monitor.fd >= 0) {
            WORLD_CHECK(monitor.heard.empty());
            WORLD_CHECK(std::none_of(monitor.owed.begin(), monitor.owed.end(),
                                     [](const OWED &owed) { return owed.certain; }));
        }
}

static void disconnect_all()
{
    for (MONITOR &monitor : monitors) {
        if (monitor.lives)
            free_client_sockfd(&agent.agnet, monitor.agentfd);
        if (monitor.lives || monitor.dropped)
            close(monitor.agentfd);
        if (monitor.fd >= 0)
            close(monitor.fd);
    }
    monitors.clear();
    WORLD_CHECK(agent.agnet.clilist == nullptr);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    SESSIONINPUT in{data, data + std::min<std::size_t>(size, 4096)};
    const int descriptor = lowest_descriptor();
    world_inside = true;
    const std::uint8_t world = take8(in);
    world_reset(world, take8(in));
    connect_monitor();
    while (in.at < in.end)
        OPERATIONS[choose(in, OPERATIONS.size())](in);
    finish();
    disconnect_all();
    world_inside = false;
    WORLD_CHECK(lowest_descriptor() == descriptor);
    return 0;
}

// What the fuzz targets of the agent's packets share: the agent's record with a shared block in plain memory,
// whose state the first byte of an input chooses. The engine is behind it, writes the fixed files and carries
// out orders, so an input is only ever run in the sandbox. Even there no program is started, and a shutdown
// that an input orders is still in its grace when the next input begins.
#pragma once

#include "agent.h"
#include "agent_daemon.h"
#include "agent_daemon_buffer.h"
#include "agent_daemon_clients.h"
#include "agent_daemon_engine.h"
#include "agent_net.h"
#include "e_a_internal.h"
#include "fuzz_support.h"
#include "no_programs.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

static AGINFO world_block;
static UPS_USERSINFO world_users;

// Once: the parts that do not change from input to input.
static void world_start()
{
    refuse_host();
    std::signal(SIGPIPE, SIG_IGN);
    unlink("/sbin/shutdown");
    agent.chna2u = agent.chnu2a = chnpair{{-1, -1}, {-1, -1}};
    agent.shmid = -1;
    agent.aip = &world_block;
    for (USERSDATA &user : agent.us)
        user.UserID = USER_NONE;
    world_users = {0, agent.us.data()};
    ein.DATA.eu = eout.DATA.eu = {agent.el.data(), &world_users};
    agent.agnet.ufd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(agent.agnet.ufd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    daemon_reallocbuf(DAEMON_BUFFER_START);
}

// Before each input: no port is open, so that no command waits for a UPS process.
static void world_reset(std::uint8_t choice)
{
    static constexpr std::array<std::string_view, 4> MODELS = {"ZR900PL", "ZQ500", "UNKNOWN", "ZR401"};
    static constexpr std::array<std::int8_t, 4> LINKS = {2, 6, 17, 0};
    static constexpr std::array<std::uint32_t, 4> TYPES = {5, 1, 0, 4};
    world_block = AGINFO{};
    world_block.ups.protocol = 1;
    world_block.ups.ui.ComId = -1;
    const std::string_view model = MODELS[choice & 3];
    std::copy(model.begin(), model.end(), world_block.ups.ui.upsmodel.begin());
    world_block.ups.ui.CommStatus = LINKS[choice >> 2 & 3];
    world_block.ups.up.commparam.AgentType = TYPES[choice >> 4 & 3];
    field_set(world_block.ups.up.commparam.Group, "Office");
    world_block.ups.ui.bIgnoreDown = choice >> 6 & 1;
    engine = ENGINE{};
    engine.GRACE_PERIOD = 120;
    engine.ACFAIL_off = choice >> 7 != 0 ? std::time(nullptr) + 3600 : 0;
    clients_reset(&agent.agnet);
}

// What must hold after every packet.
static void world_sound()
{
    require(ein.DATA.acp == nullptr && ein.DATA.agentevent == nullptr && eout.DATA.acp == nullptr);
    require(engine.ISSHUTTINGDOWN == 0 || engine.next_off != 0);
    require(engine.downreason != OTHERAGEDOWN || world_block.ups.ui.bIgnoreDown == 0);
    require(Daemon_BufferLen == Daemon_NetBufLen + sizeof(UPS_CLIADDR));
    require(Daemon_NetBufLen >= DAEMON_BUFFER_START);
    int listed = 0;
    for (const NETCLI *client = agent.agnet.clilist; client != nullptr; client = client->next)
        require(client == &net_client_p[static_cast<std::size_t>(listed++)] && client->sockfd >= 0);
}

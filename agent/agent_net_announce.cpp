// Announcements by limited broadcast from the agent's UDP socket: this agent is there or has changed, it goes
// down, the group is to go down with it. Built in the working buffer like every packet; called by
// Event_CallBack and on the way out.
#include "agent_net_announce.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_text.h"
#include "agent_net.h"
#include "e_a.h"
#include "shared_word.h"
#include "wp_field.h"
#include "wp_strings.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <string_view>
#include <sys/utsname.h>

static constexpr std::uint32_t ANSAGENT_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_ANSAGENT);
static constexpr std::uint32_t ANSPROT_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_ANSPROT);
static constexpr std::uint32_t AGENTDOWN_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_AGENTDOWNINFO);

static constexpr std::uint32_t AGENTTYPE_UNSET = 0;
static constexpr std::uint32_t AGENTTYPE_NOGROUP = 2;  // announced without its group
static constexpr std::uint8_t DOWNID_SYSTEM = 22;      // "System is shutdown"
static constexpr std::int32_t NT_AGENT = 2;
static constexpr std::int32_t NT_PROTECTOR_DOWN = 1;
static constexpr std::size_t NODE_NAME_LIMIT = 15;
static constexpr int DOWN_ROUNDS = 3;
static constexpr std::string_view MODEL_UNNAMED = "          ";

// The wire's 16- and 32-character text fields.
typedef std::array<char, 16> NAME16;
typedef std::array<char, 32> NAME32;

// Starts a broadcast packet: prefix, header, zeroed data.
static WIREBYTES start_broadcast(AGENT *ag, std::uint16_t port, std::uint8_t dataid, std::uint32_t length)
{
    const WIREBYTES data = packet_answer(ag, dataid, length);
    UPS_CLIADDR to{};
    to.sockfd = ag->agnet.ufd;
    to.addr.sin_family = AF_INET;
    to.addr.sin_port = htons(port);
    to.addr.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    packet_setorigin(to);
    return data;
}

template <std::size_t N> static NAME16 name_of(const std::array<char, N> &text)
{
    NAME16 name;
    field_set(name, field_view(text));
    return name;
}

template <std::size_t N> static NAME16 name_for_network(const std::array<char, N> &text)
{
    NAME16 name{};
    JConvForDataOutToNetwork(field_view(text), name, 0);
    return name;
}

static NAME16 node_name()
{
    utsname host{};
    NAME16 name{};
    if (uname(&host) == 0)
        field_set(name, std::string_view(host.nodename).substr(0, NODE_NAME_LIMIT));
    return name;
}

static NAME32 upper_model(const UPS_UPSINFO &info)
{
    NAME32 model;
    field_set(model, field_view(info.upsmodel));
    UpStrings(model.data());
    return model;
}

static int send_protector(AGENT *ag, NSCommands cmd, std::int32_t nt)
{
    const NAME16 guard = name_of(ag->aip->ups.up.commparam.Agent);
    const WIREBYTES data = start_broadcast(ag, PORT_ANNOUNCE, DATAID_ANSPROT, ANSPROT_LENGTH);
    if (data.empty())
        return -1;
    wire_put32(data, offsetof(UPS_ANSPROT, cmd), static_cast<std::uint32_t>(cmd));
    wire_put32(data, offsetof(UPS_ANSPROT, NT), static_cast<std::uint32_t>(nt));
    wire_puttext(data, offsetof(UPS_ANSPROT, Agent), guard);
    wire_puttext(data, offsetof(UPS_ANSPROT, myname), node_name());
    return net_sendpacketout(ag);
}

static std::uint32_t sign_extended(std::int8_t code)
{
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(code));
}

static int send_agent(AGENT *ag, NSCommands cmd, const NAME16 &name, const NAME16 &group, const NAME32 &model)
{
    const UPS_UPSINFO info = shared_copy(ag->aip->ups.ui);
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    const WIREBYTES data = start_broadcast(ag, PORT_ANNOUNCE, DATAID_ANSAGENT, ANSAGENT_LENGTH);
    if (data.empty())
        return -1;
    wire_put32(data, offsetof(UPS_ANSAGENT, cmd), static_cast<std::uint32_t>(cmd));
    wire_puttext(data, offsetof(UPS_ANSAGENT, Agent), name);
    wire_puttext(data, offsetof(UPS_ANSAGENT, upsmodel), model);
    wire_put8(data, offsetof(UPS_ANSAGENT, UPSStatus), info.upsstat);
    wire_put32(data, offsetof(UPS_ANSAGENT, NT), NT_AGENT);
    wire_puttext(data, offsetof(UPS_ANSAGENT, Group), group);
    wire_put32(data, offsetof(UPS_ANSAGENT, AgentType), settings.AgentType);
    wire_put32(data, offsetof(UPS_ANSAGENT, BattStatus), sign_extended(info.BattStatus));
    wire_put32(data, offsetof(UPS_ANSAGENT, CommStatus), sign_extended(info.CommStatus));
    wire_put32(data, offsetof(UPS_ANSAGENT, bIgnore), static_cast<std::uint32_t>(settings.bIgnore));
    return net_sendpacketout(ag);
}

int net_announce(AGENT *ag)
{
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    if (settings.AgentType == AGENTTYPE_PROTECTOR)
        return send_protector(ag, NSCommands::Add, NT_AGENT);
    const UPS_UPSINFO info = shared_copy(ag->aip->ups.ui);
    const NAME32 upper = upper_model(info);
    NAME32 model;
    if (field_view(upper) != "UNKNOWN" && upper[0] == 'Z')
        field_set(model, field_view(info.upsmodel));
    else
        field_set(model, MODEL_UNNAMED);
    const NAME16 group = settings.AgentType == AGENTTYPE_NOGROUP ? NAME16{} : name_of(settings.Group);
    return send_agent(ag, NSCommands::Add, name_of(settings.Agent), group, model);
}

int net_broadcastdown2monitor(AGENT *ag)
{
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    if (settings.AgentType == AGENTTYPE_UNSET)
        return 0;
    if (settings.AgentType == AGENTTYPE_PROTECTOR)
        return send_protector(ag, NSCommands::Delete, NT_PROTECTOR_DOWN);
    NAME32 model = upper_model(shared_copy(ag->aip->ups.ui));
    if (field_view(model) == "UNKNOWN")
        model.fill('\0');
    return send_agent(ag, NSCommands::Delete, name_for_network(settings.Agent),
                      name_for_network(settings.Group), model);
}

int net_broadcastdown2agent(AGENT *ag)
{
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    const WIREBYTES data = start_broadcast(ag, PORT_UDP, DATAID_SHUTDOWN, AGENTDOWN_LENGTH);
    if (data.empty())
        return -1;
    wire_put8(data, offsetof(UPS_AGENTDOWNINFO, DownId), DOWNID_SYSTEM);
    wire_put32(data, offsetof(UPS_AGENTDOWNINFO, AgentType), settings.AgentType);
    wire_puttext(data, offsetof(UPS_AGENTDOWNINFO, Agent), name_for_network(settings.Agent));
    wire_puttext(data, offsetof(UPS_AGENTDOWNINFO, Group), name_for_network(settings.Group));
    return net_sendpacketout(ag);
}

void net_broadcastdown(AGENT *ag)
{
    for (int round = 0; round < DOWN_ROUNDS; ++round) {
        net_broadcastdown2monitor(ag);
        if (ag->aip->ups.up.commparam.AgentType > 2)
            net_broadcastdown2agent(ag);
    }
}

// Announcements by limited broadcast from the agent's UDP socket: this agent is there or has changed, it goes
// down, the group is to go down with it. Built in the working buffer like every packet; called by
// Event_CallBack and on the way out.
#include "agent_net_announce.h"

#include "agent_daemon_buffer.h"
#include "agent_net.h"
#include "agent_net_records.h"
#include "e_a.h"
#include "shared_word.h"

#include <arpa/inet.h>

static constexpr std::uint32_t AGENTDOWN_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_AGENTDOWNINFO);

static constexpr std::uint32_t AGENTTYPE_NOGROUP = 2;  // announced without its group
static constexpr std::uint8_t DOWNID_SYSTEM = 22;      // "System is shutdown"
static constexpr int DOWN_ROUNDS = 3;
static constexpr int TEXTMODE_BROADCAST = 0;
static constexpr std::string_view MODEL_UNNAMED = "          ";

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

static int send_protector(AGENT *ag, NSCommands cmd, std::int32_t nt)
{
    const WIREBYTES data = start_broadcast(ag, PORT_ANNOUNCE, DATAID_ANSPROT, ANSPROT_LENGTH);
    if (data.empty())
        return -1;
    record_putprotector(data, cmd, nt, ag->aip->ups.up.commparam, NODENAME::whole);
    return net_sendpacketout(ag);
}

static int send_agent(AGENT *ag, NSCommands cmd, const UPS_UPSINFO &info, const AGENTTEXTS &texts)
{
    const WIREBYTES data = start_broadcast(ag, PORT_ANNOUNCE, DATAID_ANSAGENT, ANSAGENT_LENGTH);
    if (data.empty())
        return -1;
    record_putagent(data, cmd, info, ag->aip->ups.up.commparam, texts);
    return net_sendpacketout(ag);
}

// The model as it stands, if it is one of the supported series.
static NAME32 announced_model(const UPS_UPSINFO &info)
{
    const NAME32 upper = upper_model(info);
    NAME32 model;
    if (field_view(upper) != "UNKNOWN" && upper[0] == 'Z')
        field_set(model, field_view(info.upsmodel));
    else
        field_set(model, MODEL_UNNAMED);
    return model;
}

int net_announce(AGENT *ag)
{
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    if (settings.AgentType == AGENTTYPE_PROTECTOR)
        return send_protector(ag, NSCommands::Add, NT_AGENT);
    const UPS_UPSINFO info = shared_copy(ag->aip->ups.ui);
    const NAME16 group = settings.AgentType == AGENTTYPE_NOGROUP ? NAME16{} : name_asitis(settings.Group);
    return send_agent(ag, NSCommands::Add, info, {name_asitis(settings.Agent), group, announced_model(info)});
}

int net_broadcastdown2monitor(AGENT *ag)
{
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    if (settings.AgentType == AGENTTYPE_UNSET)
        return 0;
    if (settings.AgentType == AGENTTYPE_PROTECTOR)
        return send_protector(ag, NSCommands::Delete, NT_PROTECTOR_DOWN);
    const UPS_UPSINFO info = shared_copy(ag->aip->ups.ui);
    NAME32 model = upper_model(info);
    if (field_view(model) == "UNKNOWN")
        model.fill('\0');
    return send_agent(ag, NSCommands::Delete, info,
                      {name_fornetwork(settings.Agent, TEXTMODE_BROADCAST),
                       name_fornetwork(settings.Group, TEXTMODE_BROADCAST), model});
}

int net_broadcastdown2agent(AGENT *ag)
{
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    const WIREBYTES data = start_broadcast(ag, PORT_UDP, DATAID_SHUTDOWN, AGENTDOWN_LENGTH);
    if (data.empty())
        return -1;
    wire_put8(data, offsetof(UPS_AGENTDOWNINFO, DownId), DOWNID_SYSTEM);
    wire_put32(data, offsetof(UPS_AGENTDOWNINFO, AgentType), settings.AgentType);
    wire_puttext(data, offsetof(UPS_AGENTDOWNINFO, Agent),
                 name_fornetwork(settings.Agent, TEXTMODE_BROADCAST));
    wire_puttext(data, offsetof(UPS_AGENTDOWNINFO, Group),
                 name_fornetwork(settings.Group, TEXTMODE_BROADCAST));
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

// Answers to monitors that look for agents. Every inquiry that has its length is answered, whatever it says
// and whoever sent it; the answer goes back the way it came.
#include "agent_net_inquiry.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_peer.h"
#include "agent_net.h"
#include "agent_net_records.h"
#include "shared_word.h"

#include <netdb.h>
#include <netinet/in.h>
#include <optional>
#include <unistd.h>

static constexpr std::uint32_t INQUIRY_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_INQAGENT);
static constexpr std::size_t HOST_NAME_LIMIT = 160;

static int answer_as_protector(AGENT *ag)
{
    const WIREBYTES data = packet_answer(ag, DATAID_ANSPROT, ANSPROT_LENGTH);
    if (data.empty())
        return -1;
    record_putprotector(data, NSCommands::Reply, NT_AGENT, ag->aip->ups.up.commparam, NODENAME::cut);
    return net_sendpacketout(ag);
}

// Without a link the model is that of some earlier unit.
static NAME32 model_to_tell(const UPS_UPSINFO &info)
{
    const NAME32 model = upper_model(info);
    const bool linked = info.CommStatus != COMM_LOST && info.CommStatus != COMM_NOUPS;
    return linked && field_view(model) != "UNKNOWN" ? model : NAME32{};
}

// With no port configured the shared block itself is put right, whatever the UPS process last found there.
static std::int8_t status_to_tell(AGENT *ag, std::int8_t stored, bool old_monitor)
{
    if (shared_load(ag->aip->ups.up.workparam.ComSet) == COMSET_NOUPS) {
        shared_store(ag->aip->ups.ui.CommStatus, COMM_NOUPS);
        return COMM_NOUPS;
    }
    return old_monitor && stored == COMM_NOUPS ? COMM_LOST : stored;
}

static int answer_as_agent(AGENT *ag, const UPS_PACKET_HEAD &request)
{
    const UPS_COMMPARAM &settings = ag->aip->ups.up.commparam;
    const int mode = text_mode(request);
    UPS_UPSINFO info = shared_copy(ag->aip->ups.ui);
    const AGENTTEXTS texts = {name_fornetwork(settings.Agent, mode), name_fornetwork(settings.Group, mode),
                              model_to_tell(info)};
    info.CommStatus = status_to_tell(ag, info.CommStatus, beMonitorWin110less(request));
    const WIREBYTES data = packet_answer(ag, DATAID_ANSAGENT, ANSAGENT_LENGTH);
    if (data.empty())
        return -1;
    record_putagent(data, NSCommands::Reply, info, settings, texts);
    return net_sendpacketout(ag);
}

int net_answermonitorinq(AGENT *ag)
{
    const UPS_PACKET_HEAD request = packet_head();
    if (request.Length != INQUIRY_LENGTH)
        return -1;
    switch (ag->aip->ups.up.commparam.AgentType) {
    case AGENTTYPE_UNSET:
        return 0;
    case AGENTTYPE_PROTECTOR:
        return answer_as_protector(ag);
    default:
        return answer_as_agent(ag, request);
    }
}

static std::optional<in_addr> first_address()
{
    std::array<char, HOST_NAME_LIMIT + 1> name{};
    if (gethostname(name.data(), HOST_NAME_LIMIT) == -1)
        return std::nullopt;
    const hostent *host = gethostbyname(name.data());
    if (host == nullptr || host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr)
        return std::nullopt;
    in_addr address;
    std::memcpy(&address, host->h_addr_list[0], sizeof address);
    return address;
}

int daemon_islocalmonitor(const sockaddr_in *addr)
{
    static std::optional<in_addr> own;
    if (!own)
        own = first_address();
    if (!own)
        return -1;
    return addr->sin_addr.s_addr == own->s_addr ? 0 : 1;
}

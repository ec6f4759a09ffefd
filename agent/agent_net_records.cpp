// The records by which this agent is known on the network, filled from the shared block and the host's name.
#include "agent_net_records.h"

#include "wp_strings.h"

#include <sys/utsname.h>

NAME16 node_name(NODENAME form)
{
    utsname host{};
    NAME16 name{};
    if (uname(&host) != 0)
        return name;
    std::string_view node = host.nodename;
    if (form == NODENAME::cut)
        node = node.substr(0, node.find('.'));
    field_set(name, node);
    return name;
}

NAME32 upper_model(const UPS_UPSINFO &info)
{
    NAME32 model;
    field_set(model, field_view(info.upsmodel));
    UpStrings(model.data());
    return model;
}

static std::uint32_t sign_extended(std::int8_t code)
{
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(code));
}

void record_putagent(WIREBYTES data, NSCommands cmd, const UPS_UPSINFO &info, const UPS_COMMPARAM &settings,
                     const AGENTTEXTS &texts)
{
    wire_put32(data, offsetof(UPS_ANSAGENT, cmd), static_cast<std::uint32_t>(cmd));
    wire_puttext(data, offsetof(UPS_ANSAGENT, Agent), texts.name);
    wire_puttext(data, offsetof(UPS_ANSAGENT, upsmodel), texts.model);
    wire_put8(data, offsetof(UPS_ANSAGENT, UPSStatus), info.upsstat);
    wire_put32(data, offsetof(UPS_ANSAGENT, NT), NT_AGENT);
    wire_puttext(data, offsetof(UPS_ANSAGENT, Group), texts.group);
    wire_put32(data, offsetof(UPS_ANSAGENT, AgentType), settings.AgentType);
    wire_put32(data, offsetof(UPS_ANSAGENT, BattStatus), sign_extended(info.BattStatus));
    wire_put32(data, offsetof(UPS_ANSAGENT, CommStatus), sign_extended(info.CommStatus));
    wire_put32(data, offsetof(UPS_ANSAGENT, bIgnore), static_cast<std::uint32_t>(settings.bIgnore));
}

void record_putprotector(WIREBYTES data, NSCommands cmd, std::int32_t nt, const UPS_COMMPARAM &settings,
                         NODENAME form)
{
    wire_put32(data, offsetof(UPS_ANSPROT, cmd), static_cast<std::uint32_t>(cmd));
    wire_put32(data, offsetof(UPS_ANSPROT, NT), static_cast<std::uint32_t>(nt));
    wire_puttext(data, offsetof(UPS_ANSPROT, Agent), name_asitis(settings.Agent));
    wire_puttext(data, offsetof(UPS_ANSPROT, myname), node_name(form));
}

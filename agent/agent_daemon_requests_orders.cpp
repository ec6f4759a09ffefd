// The handlers of orders: shutdown, self-tests, logs, switches, battery date. None of them acts itself: each
// checks its packet, copies what the packet carries and hands the copy to the event engine. Only the battery
// date has an answer.
#include "agent_daemon_requests.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_engine.h"
#include "agent_daemon_peer.h"
#include "agent_daemon_text.h"
#include "agent_net.h"
#include "shared_word.h"
#include "wp_field.h"
#include "wp_strings.h"

#include <algorithm>
#include <array>
#include <string_view>

static constexpr std::uint32_t SHUTDOWN_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_AGENTDOWNINFO);
static constexpr std::uint32_t NAME_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_AGENTDOWNINFO::Agent);
static constexpr std::uint32_t NUMBER_LENGTH = PACKET_HEAD_SIZE + sizeof(std::uint32_t);
static constexpr std::uint32_t BATTIME_LENGTH = PACKET_HEAD_SIZE + sizeof(BATTCHGTIME);

static constexpr int TEXTMODE_ORDER = 0;  // names in a shutdown order, unless they are in another language

// The wire's 16-character names.
typedef std::array<char, 16> NAME16;

// ---- the engine's argument blocks

// The command lives on the caller's stack, so nothing keeps it afterwards.
static int order(const AGENT *ag, AGENTCMD command)
{
    ein.DATA.acp = &command;
    const int result = engine_call(ag, E_CMD_DOCOMMAND, E_UPSCMD);
    ein.DATA.acp = nullptr;
    return result;
}

static int tell_agent_order(const AGENT *ag, UPS_AGENTDOWNINFO &info)
{
    AGENTEVENT event{AGENTEVENT_ORDERSDOWN, &info};
    ein.DATA.agentevent = &event;
    const int result = engine_call(ag, E_CMD_AGENTEVENT, E_AGENTEVENT);
    ein.DATA.agentevent = nullptr;
    return result;
}

// ---- which units take an order

static bool model_begins(const AGENT *ag, std::string_view name)
{
    const UPS_UPSINFO info = shared_copy(ag->aip->ups.ui);
    return field_view(info.upsmodel).starts_with(name);
}

static bool is_oldmodel(const AGENT *ag)
{
    return model_begins(ag, "ZR401") || model_begins(ag, "ZR6020");
}

static bool knows_battime(const AGENT *ag)
{
    return !is_oldmodel(ag) && !(model_begins(ag, "ZQ") && beMonitorWin110less(packet_head()));
}

// ---- shutdown

static NAME16 name_from_network(WIREVIEW data, std::size_t at, int mode)
{
    NAME16 name;
    wire_gettext(data, at, name);
    NAME16 host{};
    JConvForDataInFromNetwork(field_view(name), host, mode);
    return host;
}

static UPS_AGENTDOWNINFO downinfo_from_packet()
{
    const WIREVIEW data = packet_data();
    const int mode = sends_othertext(packet_head()) ? TEXTMODE_OTHER : TEXTMODE_ORDER;
    UPS_AGENTDOWNINFO info{};
    info.DownId = data[offsetof(UPS_AGENTDOWNINFO, DownId)];
    info.reserved = static_cast<std::int8_t>(data[offsetof(UPS_AGENTDOWNINFO, reserved)]);
    info.delay = static_cast<std::int16_t>(wire_get16(data, offsetof(UPS_AGENTDOWNINFO, delay)));
    info.AgentType = wire_get32(data, offsetof(UPS_AGENTDOWNINFO, AgentType));
    info.Agent = name_from_network(data, offsetof(UPS_AGENTDOWNINFO, Agent), mode);
    info.Group = name_from_network(data, offsetof(UPS_AGENTDOWNINFO, Group), mode);
    return info;
}

static NAME16 in_capitals(const NAME16 &text)
{
    NAME16 capitals;
    field_set(capitals, field_view(text));
    UpStrings(capitals.data());
    return capitals;
}

// Another agent's order goes down the ranks of its own group only.
static int take_agent_order(const AGENT *ag, UPS_AGENTDOWNINFO &info)
{
    const UPS_COMMPARAM &own = ag->aip->ups.up.commparam;
    if (info.AgentType < AGENTTYPE_LOW || own.AgentType > AGENTTYPE_HIGH)
        return -1;
    info.Agent = in_capitals(info.Agent);
    info.Group = in_capitals(info.Group);
    if (shared_load(ag->aip->ups.ui.bIgnoreDown) != 0 || info.Group != in_capitals(own.Group) ||
        own.AgentType > info.AgentType)
        return 0;
    return tell_agent_order(ag, info);
}

int daemon_shutdownups(AGENT *ag, int fromtcp)
{
    if (packet_head().Length != SHUTDOWN_LENGTH)
        return -1;
    UPS_AGENTDOWNINFO info = downinfo_from_packet();
    if (fromtcp == 0)
        return take_agent_order(ag, info);
    return order(ag, {DATAID_SHUTDOWN, {.adip = &info}});
}

int daemon_cancelshutdown(AGENT *ag)
{
    if (packet_head().Length != NAME_LENGTH || packet_head().DataId != DATAID_CANCELSHUTDOWN)
        return -1;
    NAME16 name;
    wire_gettext(packet_data(), 0, name);
    return order(ag, {DATAID_CANCELSHUTDOWN, {.hp = name.data()}});
}

// ---- orders of one number, or of nothing

int daemon_selftest(AGENT *ag)
{
    if (packet_head().Length != NUMBER_LENGTH)
        return -1;
    return order(ag, {DATAID_SELFTEST, {.last = static_cast<std::int32_t>(wire_get32(packet_data(), 0))}});
}

int daemon_setupsmodelvl(AGENT *ag)
{
    if (packet_head().Length != NUMBER_LENGTH || model_begins(ag, "ZR") || model_begins(ag, "ZQ"))
        return -1;
    return order(
        ag, {DATAID_DETECTIONLVL, {.nupsmodel = static_cast<std::int32_t>(wire_get32(packet_data(), 0))}});
}

// What the oldest models have no switch for.
static constexpr std::array SWITCHES = {DATAID_BUZZER_ON, DATAID_BUZZER_OFF, DATAID_AUTOTEST_ON,
                                        DATAID_AUTOTEST_OFF, DATAID_BUZZER_TEST};

int daemon_docmd(AGENT *ag)
{
    const UPS_PACKET_HEAD head = packet_head();
    if (head.Length != PACKET_HEAD_SIZE)
        return -1;
    if (std::find(SWITCHES.begin(), SWITCHES.end(), head.DataId) != SWITCHES.end() && is_oldmodel(ag))
        return -1;
    return order(ag, {head.DataId, {}});
}

// ---- the battery-change date

int daemon_setbattime(AGENT *ag)
{
    const UPS_PACKET_HEAD head = packet_head();
    if (head.Length != BATTIME_LENGTH || head.DataId != DATAID_SETBATTIME || !knows_battime(ag))
        return -1;
    BATTCHGTIME date = wire_getbattime(packet_data());
    return order(ag, {DATAID_SETBATTIME, {.bctp = &date}});
}

int daemon_getbattime(AGENT *ag)
{
    if (packet_head().Length != PACKET_HEAD_SIZE || !knows_battime(ag))
        return -1;
    BATTCHGTIME date{};
    AGENTCMD answered{DATAID_GETBATTIME, {.bctp = &date}};
    eout.datatype = E_UPSCMD;
    eout.DATA.acp = &answered;
    const int result = order(ag, answered);
    eout.DATA.acp = nullptr;
    if (result == -1)
        return -1;
    const WIREBYTES data = packet_answer(ag, DATAID_SETBATTIME, BATTIME_LENGTH);
    if (data.empty())
        return -1;
    wire_putbattime(data, date);
    return net_sendpacketout(ag);
}

// The handlers of monitors' inquiries. Every answer goes to the current client, `agnet.cnc`.
#include "agent_daemon_requests.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_clients.h"
#include "agent_daemon_peer.h"
#include "agent_daemon_text.h"
#include "agent_net.h"
#include "filehandle_battdate.h"
#include "shared_word.h"
#include "wp_field.h"
#include "wp_strings.h"

static constexpr std::uint32_t UPSINFO_ANSWER = PACKET_HEAD_SIZE + sizeof(UPS_UPSINFO);
static constexpr std::uint32_t OSINFO_LENGTH = PACKET_HEAD_SIZE + sizeof(VTOSINFO);
static constexpr std::int32_t OS_AGENT = 2;  // this agent's own system code
static constexpr std::int8_t COMID_UNUSED_SENT = static_cast<std::int8_t>(254);  // no port configured
static constexpr std::int8_t COMID_LOST_SENT = static_cast<std::int8_t>(255);

static void clear_battery_date(UPS_TIMEINFO &date)
{
    date = UPS_TIMEINFO{0, 0, 0, 0, 0, 0, date.wReserver};
}

// What a monitor may not take for live values while no unit is connected.
static void clear_live_values(UPS_UPSINFO &info)
{
    info.BattStatus = BATT_UNKNOWN;
    info.BuzzerCan = 0;
    info.AutoTestCan = 0;
    info.upsdata = UPSDATA{};
    info.upsmodel.fill('\0');
}

static void adjust_no_ups(UPS_UPSINFO &info, bool old_monitor)
{
    info.ComId = old_monitor ? COMID_LOST_SENT : COMID_UNUSED_SENT;
    if (old_monitor)
        info.CommStatus = COMM_LOST;
    if (wp_strncmp(info.upsmodel.data(), "ZQ", 2) == 0 && battdate_read(info.PreChangeBatt) == -1)
        clear_battery_date(info.PreChangeBatt);
    clear_live_values(info);
}

static void adjust_lost(UPS_UPSINFO &info)
{
    clear_battery_date(info.PreChangeBatt);
    info.ComId = COMID_LOST_SENT;
    clear_live_values(info);
}

// The status as a monitor is to see it.
static UPS_UPSINFO status_for_monitor(const AGENT *ag, bool old_monitor)
{
    UPS_UPSINFO info = shared_copy(ag->aip->ups.ui);
    std::array<char, sizeof info.Group> group{};
    JConvForDataOutToNetwork(field_view(info.Group), group, 0);
    info.Group = group;
    if (info.ComId >= 0)
        ++info.ComId;  // monitors count ports from 1
    if (field_view(info.upsmodel) == "UNKNOWN")
        field_set(info.upsmodel, "         ");
    switch (info.CommStatus) {
    case COMM_NOUPS:
        adjust_no_ups(info, old_monitor);
        break;
    case COMM_LOST:
        adjust_lost(info);
        break;
    default:
        break;
    }
    return info;
}

int daemon_ansgetupsinfo(AGENT *ag)
{
    const UPS_UPSINFO info = status_for_monitor(ag, beMonitorWin110less(packet_head()));
    const WIREBYTES data = packet_answer(ag, DATAID_ANSUPSINFO, UPSINFO_ANSWER);
    if (data.empty())
        return -1;
    wire_putupsinfo(data, info);
    return net_sendpacketout(ag);
}

int daemon_recvsendosinfo(AGENT *ag)
{
    if (packet_head().Length != OSINFO_LENGTH)
        return -1;
    VTOSINFO info = wire_getosinfo(packet_data());
    const UPS_CLIADDR origin = packet_origin();
    if (NETCLI *client = client_bypeer(&ag->agnet, origin.sockfd, origin.addr); client != nullptr) {
        client->os = info.os;
        client->lang = info.lang;
    }
    info.os = OS_AGENT;
    const WIREBYTES data = packet_answer(ag, DATAID_OSINFO, OSINFO_LENGTH);
    if (data.empty())
        return -1;
    wire_putosinfo(data, info);
    return net_sendpacketout(ag);
}

int daemon_answernullcloseapp(AGENT *ag)
{
    (void)packet_answer(ag, DATAID_ANSNULL, PACKET_HEAD_SIZE);
    return net_sendpacketout(ag);
}

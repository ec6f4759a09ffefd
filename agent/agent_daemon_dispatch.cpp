// Which handler a request goes to.
#include "agent_daemon.h"
#include "agent_daemon_buffer.h"
#include "agent_daemon_requests.h"
#include "agent_net_inquiry.h"

#include <algorithm>
#include <array>

// Handlers marked privileged are refused unless the caller admits them.
typedef struct _REQUEST {
    std::uint8_t dataid;
    bool privileged;
    int (*handle)(AGENT *ag, int fromtcp);
} REQUEST;

// Most handlers do not care how the packet came.
template <int (*handler)(AGENT *)> static int handle(AGENT *ag, int)
{
    return handler(ag);
}

// The packet that lies in the buffer afterwards is the answer, and it is handed on as if it were a shutdown
// order, which its length then rules out. Kept as it is; an inquiry that was refused, of whatever length,
// goes no further.
static int handle_osinfo(AGENT *ag, int fromtcp)
{
    if (daemon_recvsendosinfo(ag) == -1)
        return -1;
    return daemon_shutdownups(ag, fromtcp);
}

// The sub-requests of DataId 24, from 1 on.
static constexpr std::array SUBREQUESTS = {daemon_geteventlog, daemon_getdatalog, daemon_getschedule,
                                           daemon_getevents,   daemon_getconfig,  daemon_answernullcloseapp};

static int daemon_command(AGENT *ag)
{
    const WIREVIEW data = packet_data();
    if (data.size() < sizeof(UPS_COMMAND_PACKET))
        return -1;
    const std::size_t cmd = data[offsetof(UPS_COMMAND_PACKET, cmd)];
    return cmd >= 1 && cmd <= SUBREQUESTS.size() ? SUBREQUESTS[cmd - 1](ag) : -1;
}

static constexpr std::array REQUESTS = {
    REQUEST{DATAID_GETUPSINFO, false, handle<daemon_ansgetupsinfo>},
    REQUEST{DATAID_OSINFO, false, handle_osinfo},
    REQUEST{DATAID_SHUTDOWN, true, daemon_shutdownups},
    REQUEST{DATAID_CANCELSHUTDOWN, true, handle<daemon_cancelshutdown>},
    REQUEST{DATAID_SELFTEST, true, handle<daemon_selftest>},
    REQUEST{DATAID_SELFTEST_LONG, true, handle<daemon_docmd>},
    REQUEST{DATAID_SELFTEST_CANCEL, true, handle<daemon_docmd>},
    REQUEST{DATAID_PASSWORD, false, daemon_password},
    REQUEST{DATAID_COMMAND, false, handle<daemon_command>},
    REQUEST{DATAID_CLEAR_DATALOG, true, handle<daemon_docmd>},
    REQUEST{DATAID_CLEAR_EVENTLOG, true, handle<daemon_docmd>},
    REQUEST{DATAID_BUZZER_ON, true, handle<daemon_docmd>},
    REQUEST{DATAID_BUZZER_OFF, true, handle<daemon_docmd>},
    REQUEST{DATAID_GETBATTIME, false, handle<daemon_getbattime>},
    REQUEST{DATAID_SETBATTIME, true, handle<daemon_setbattime>},
    REQUEST{DATAID_AUTOTEST_ON, true, handle<daemon_docmd>},
    REQUEST{DATAID_AUTOTEST_OFF, true, handle<daemon_docmd>},
    REQUEST{DATAID_DETECTIONLVL, true, handle<daemon_setupsmodelvl>},
    REQUEST{DATAID_BUZZER_TEST, true, handle<daemon_docmd>},
    REQUEST{DATAID_SCHEDULES, true, handle<daemon_scheduleset>},
    REQUEST{DATAID_EVENTS, true, handle<daemon_eventset>},
    REQUEST{DATAID_CONFIG, true, handle<daemon_configset>},
    REQUEST{DATAID_PROT2AGENT, false, handle<daemon_prot2agent>},
    REQUEST{DATAID_PROTECTORCFG, true, handle<daemon_setprotector>},
    REQUEST{DATAID_GETPROTECTOR, false, handle<daemon_getprotector>},
    REQUEST{DATAID_GETPRTEVENTLOG, false, handle<daemon_getprteventlog>},
    REQUEST{DATAID_INQAGENT, false, handle<net_answermonitorinq>},
};

int daemon_procnetmsg(AGENT *ag, int privileged, int fromtcp)
{
    const std::uint8_t dataid = packet_head().DataId;
    const auto *request = std::find_if(REQUESTS.begin(), REQUESTS.end(),
                                       [dataid](const REQUEST &row) { return row.dataid == dataid; });
    if (request == REQUESTS.end() || (request->privileged && privileged != 1))
        return -1;
    return request->handle(ag, fromtcp);
}

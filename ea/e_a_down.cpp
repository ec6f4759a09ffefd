// The final shutdown, a step on every pass once it has begun: the grace, then everybody and the unit are told
// and the agent process becomes the system's shutdown program. Called by the timer.
#include "e_a_internal.h"

#include "agent.h"
#include "agent_utils.h"
#include "agent_utils_output.h"
#include "e_a_error.h"
#include "e_a_notify_run.h"
#include "shared_word.h"
#include "wp_field.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

static std::optional<std::int64_t> announced_for;  // `gracestart` of the shutdown that was announced
static bool upsordered = false;                    // in that shutdown the unit took its order

static constexpr std::int64_t NOTICE_SPACING = 10'000'000;  // ms
static constexpr int NO_RESTART = -1;
static constexpr char SHUTDOWN_PROGRAM[] = "/sbin/shutdown";

int getnetshutdowntime(const UPS_EIN_DATA *ein)
{
    if (ein->DATA.upsconfigp == nullptr)
        return 0;
    switch (ein->DATA.upsconfigp->commparam.AgentType) {
    case AGENTTYPE_NORMAL:
        return 1;
    case AGENTTYPE_HIGH:
        return 2;
    default:
        return 0;
    }
}

// The timer reads the schedules again when the link is back.
static void abandon(UPS_UPSINFO &info)
{
    engine.ISSHUTTINGDOWN = 0;
    engine.SHUTTINGDOWNINLOST = 1;
    engine.DOWNREACHED = 0;
    engine.downreason = NONE;
    engine.USR_off = engine.SCH_off = engine.SCH_boot = 0;
    shared_store(info.ShutdownS, 0);
    shared_store(info.CommandDownS, 0);
    info.nextdown = info.nextboot = UPS_TIMEINFO{};
}

// A wall clock that is set back must not keep the machine up: the grace also ends by the other clock.
static bool is_grace()
{
    const std::int64_t passed = utils_monotonicms() - engine.gracestart;
    return timenow() < engine.downpoint && passed < std::int64_t{engine.GRACE_PERIOD} * 1000;
}

static void give_notice(UPS_EIN_DATA *ein)
{
    const std::int64_t now = utils_monotonicms();
    if (engine.lastgracenotice != 0 && now - engine.lastgracenotice < NOTICE_SPACING)
        return;
    engine.lastgracenotice = now;
    const NOTICE notice =
        notice_compose("The system will shutdown in %d minutes", {notice_arg(getnetshutdowntime(ein))});
    notify(notice);
    if (engine.shutdowneventid != EVENT_NONE)
        wallornot(engine.shutdowneventid, notice.english, ein);
}

// Seconds after which the unit comes back on; for a schedule at the time to boot. A unit that went off for
// any other reason waits for mains or its user.
static int restart_time()
{
    if (!is_scheduled(engine.downreason))
        return NO_RESTART;
    if (engine.DownDuration <= 0)
        return 0;
    const std::int64_t delay = engine.TURNOFFDELAY;
    const std::int64_t restart =
        engine.offBootSpan > delay ? engine.offBootSpan - delay : engine.DownDuration;
    return static_cast<int>(std::min<std::int64_t>(restart, INT_MAX));
}

static bool order_ups_off()
{
    return Event_CallBack(E_CB_UPSDOWN, nullptr, static_cast<int>(engine.TURNOFFDELAY), restart_time()) >= 0;
}

static bool is_ordered_elsewhere()
{
    return field_view(engine.g_agent_name) != field_view(engine.g_localname);
}

static void announce(bool ignoring, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (!ignoring && is_ordered_elsewhere())
        eventaction(EVENT_ARRIVEDBYAGENT, ein, eout);
    eventaction(EVENT_SYSTEMDOWN, ein, eout);
    upsordered = order_ups_off();
    net_broadcastdown(&agent);
    eventaction(EVENT_AGENTSTOP, ein, eout);
}

// ------------------------------------------------------------------------- becoming the shutdown program

// What a started program must not inherit, kept in case it cannot be started.
typedef struct _PROCESSSTATE {
    std::array<struct sigaction, NSIG> actions;
    sigset_t mask;
    mode_t umask;
} PROCESSSTATE;

static PROCESSSTATE leave_state()
{
    PROCESSSTATE state{};
    for (int signo = 1; signo < NSIG; ++signo)
        sigaction(signo, nullptr, &state.actions[static_cast<std::size_t>(signo)]);
    sigprocmask(SIG_SETMASK, nullptr, &state.mask);
    state.umask = umask(022);
    signals_default();
    return state;
}

static void restore_state(const PROCESSSTATE &state)
{
    for (int signo = 1; signo < NSIG; ++signo)
        sigaction(signo, &state.actions[static_cast<std::size_t>(signo)], nullptr);
    sigprocmask(SIG_SETMASK, &state.mask, nullptr);
    umask(state.umask);
}

// Returns only when there is no such program; the agent then goes on as it was.
static void become_shutdown()
{
    if (chdir("/") != 0)
        ea_error(std::string("chdir: ") + std::strerror(errno));
    printf1("Enter shutdown_system(). send shutdown to sys\n");
    program_closeothers();
    const PROCESSSTATE state = leave_state();
    execl(SHUTDOWN_PROGRAM, "shutdown", "-h", "-t0", "0", static_cast<char *>(nullptr));
    const int error = errno;
    restore_state(state);
    ea_error(std::string(SHUTDOWN_PROGRAM) + ": " + std::strerror(error));
}

// Where the program is missing the next pass tries again. What everybody has been told is not told again
// every second, and a unit that took its order is not ordered again: that would put the end off for ever.
static int go_down(bool ignoring, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (announced_for != engine.gracestart) {
        announced_for = engine.gracestart;
        announce(ignoring, ein, eout);
    } else if (!upsordered) {
        upsordered = order_ups_off();
    }
    become_shutdown();
    return upsordered ? 0 : -1;
}

int shutdown_system(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    UPS_UPSINFO &info = *eout->DATA.upsinfop;
    const bool ignoring = eout->DATA.upsconfigp->commparam.bIgnore != 0;
    if (!is_linkup(info) && engine.downreason != OTHERAGEDOWN) {
        abandon(info);
        return 0;
    }
    if (!ignoring && is_grace()) {
        give_notice(ein);
        return 0;
    }
    printf1("Enter shutdown_system(). send command to ups\n");
    if (ignoring && engine.downreason == OTHERAGEDOWN)
        return 0;
    return go_down(ignoring, ein, eout);
}

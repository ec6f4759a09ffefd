// `voltariactl status`: the page, and what a record says about a shutdown that is to come.
#include "control_status.h"

#include "control.h"
#include "monitor_text.h"
#include "monitor_words.h"
#include "shared_word.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <unistd.h>

// ---- What is going to happen ----

struct CAUSE_ROW {
    CAUSE cause;
    std::string_view name;
    std::string_view words;
};

static constexpr auto CAUSES = std::to_array<CAUSE_ROW>({
    {CAUSE::None, "", "nothing"},
    {CAUSE::Schedule, "schedule", "a schedule"},
    {CAUSE::MainsFailure, "mains-failure", "a mains failure"},
    {CAUSE::BatteryLow, "battery-low", "a low battery"},
    {CAUSE::User, "user", "an order of a user"},
    {CAUSE::Agent, "agent", "an order of another agent"},
    {CAUSE::Event, "event", "an event that is set to shut the system down"},
});

static const CAUSE_ROW &cause_row(CAUSE cause)
{
    for (const CAUSE_ROW &row : CAUSES)
        if (row.cause == cause)
            return row;
    return CAUSES.front();
}

std::string_view cause_words(CAUSE cause)
{
    return cause_row(cause).words;
}

std::string_view cause_name(CAUSE cause)
{
    return cause_row(cause).name;
}

struct EVENT_ROW {
    std::uint8_t id;
    CAUSE cause;
};

static constexpr std::uint8_t EVENT_RESTORED = 0;
static constexpr std::uint8_t EVENT_CANCELED = 21;
static constexpr std::uint8_t EVENT_SYSTEMDOWN = 22;
static constexpr std::uint8_t EVENT_OTHERAGENT = 80;

// Events that say why the system goes down.
static constexpr auto EVENT_CAUSES = std::to_array<EVENT_ROW>({
    {EVENT_OTHERAGENT, CAUSE::Agent},
    {128, CAUSE::BatteryLow},
    {129, CAUSE::MainsFailure},
    {130, CAUSE::Schedule},
    {131, CAUSE::Schedule},
    {132, CAUSE::Schedule},
    {133, CAUSE::User},
    {134, CAUSE::Agent},
});

static CAUSE cause_of_event(std::uint8_t id)
{
    const auto *row = std::find_if(EVENT_CAUSES.begin(), EVENT_CAUSES.end(),
                                   [id](const EVENT_ROW &candidate) { return candidate.id == id; });
    return row != EVENT_CAUSES.end() ? row->cause : CAUSE::None;
}

// An agent that takes others down with it tells them so, and raises their event itself, with its own name.
static bool is_own_order(const UPS_EVENTLOGINFO &event, std::string_view host)
{
    const std::string_view name = field_view(event.AgentName);
    return event.EventId == EVENT_OTHERAGENT && !name.empty() &&
           name == host.substr(0, event.AgentName.size() - 1);
}

// An agent that is set to ignore others goes down for none of them.
static bool is_no_cause(const STATE &state, const UPS_EVENTLOGINFO &event)
{
    return !event_present(event) || is_own_order(event, state.host) ||
           (event.EventId == EVENT_OTHERAGENT && state.ups.up.commparam.bIgnore != 0);
}

// The newer of the last two events is the second. What stands before a cancellation has been called off,
// unless the shutdown is under way all the same.
static CAUSE cause_by_events(const STATE &state)
{
    const auto &events = state.ups.ui.events;
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        if (is_no_cause(state, *event))
            continue;
        if (event->EventId == EVENT_CANCELED && state.ups.ui.ShutdownS == 0)
            break;
        const std::uint8_t id = event->EventId == EVENT_SYSTEMDOWN
                                    ? static_cast<std::uint8_t>(event->byDownToEvt)
                                    : event->EventId;
        if (const CAUSE cause = cause_of_event(id); cause != CAUSE::None)
            return cause;
    }
    return CAUSE::None;
}

// What is left to go by once other events have pushed out the one that says it. Mains that have returned were
// away before.
static CAUSE likely_cause(const UPS &ups)
{
    const auto &events = ups.ui.events;
    const bool returned = std::any_of(events.begin(), events.end(), [](const UPS_EVENTLOGINFO &event) {
        return event_present(event) && event.EventId == EVENT_RESTORED;
    });
    return returned || (ups.upsstat & UPSBIT_ACFAIL) != 0 ? CAUSE::MainsFailure : CAUSE::Event;
}

// The block holds the time but not the reason, which follows from what stands beside it. A time to come back
// is shown with schedules alone.
CAUSE shutdown_cause(const STATE &state)
{
    const UPS &ups = state.ups;
    const UPS_UPSINFO &info = ups.ui;
    if (time_absent(info.nextdown) && info.ShutdownS == 0)
        return CAUSE::None;
    if (!time_absent(info.nextboot))
        return CAUSE::Schedule;
    const CAUSE told = cause_by_events(state);
    const bool failing = (ups.upsstat & UPSBIT_ACFAIL) != 0;
    if (info.ShutdownS != 0)
        return told != CAUSE::None ? told : likely_cause(ups);
    if (told == CAUSE::Agent || (told == CAUSE::BatteryLow && (ups.upsstat & UPSBIT_BATTLOW) != 0))
        return told;
    if (failing)
        return CAUSE::MainsFailure;
    return info.CommandDownS != 0 ? CAUSE::User : CAUSE::Schedule;
}

bool shutdown_pending(const STATE &state)
{
    const CAUSE cause = shutdown_cause(state);
    return state.ups.ui.ShutdownS != 0 || (cause != CAUSE::None && cause != CAUSE::Schedule);
}

// ---- The page ----

static void row(std::string &page, std::string_view name, std::string_view text)
{
    constexpr std::size_t WIDTH = 18;
    page += name;
    page.append(name.size() < WIDTH ? WIDTH - name.size() : 1, ' ');
    page += plain(text);
    page += '\n';
}

static std::string alive(const std::optional<PROCESS> &process)
{
    return process ? "process " + std::to_string(process->pid) : "gone";
}

static std::string link_words(const UPS_UPSINFO &info)
{
    std::string words = words_or_code(words_comm(info.CommStatus), info.CommStatus);
    const std::string device = info.ComId < 0 ? "" : words_device(static_cast<std::int8_t>(info.ComId + 1));
    return device.empty() ? words : words + " on " + device;
}

static std::string next_words(const UPS_UPSINFO &info)
{
    if (time_absent(info.nextdown))
        return "none";
    const std::string down = time_words(info.nextdown);
    return time_absent(info.nextboot) ? down : down + ", back on " + time_words(info.nextboot);
}

static void shutdown_rows(std::string &page, const STATE &state)
{
    const UPS_UPSINFO &info = state.ups.ui;
    if (!shutdown_pending(state)) {
        row(page, "Shutdown", "none pending");
        row(page, "Next schedule", next_words(info));
        return;
    }
    const std::string because = " because of " + std::string(cause_words(shutdown_cause(state)));
    row(page, "Shutdown", (info.ShutdownS != 0 ? "under way" : "pending") + because);
    row(page, "Shutdown at", next_words(info));
}

static std::string battery_words(const UPS_UPSINFO &info)
{
    std::string words = words_or_code(words_battery(info.BattStatus), info.BattStatus);
    if (info.upsdata.BattCap > 0)
        words += ", " + std::to_string(info.upsdata.BattCap) + " %";
    return words;
}

static void unit_rows(std::string &page, const UPS &ups)
{
    const UPS_UPSINFO &info = ups.ui;
    const std::string model = text_safe(info.upsmodel, TEXT_CODE::Euc);
    row(page, "Model", model.empty() ? "unknown" : model);
    row(page, "State", words_or_code(words_upsstat(info.upsstat), info.upsstat));
    row(page, "Battery", battery_words(info));
    row(page, "Input", tenths_words(info.upsdata.InPutINT, info.upsdata.InPutREM) + " V");
    row(page, "Load", std::to_string(info.upsdata.Load) + " %");
    if ((ups.upsstat & UPSBIT_SHUTDOWN) != 0)
        row(page, "Output", "the unit is about to switch it off");
}

static void event_rows(std::string &page, const UPS_UPSINFO &info)
{
    for (const UPS_EVENTLOGINFO &event : info.events)
        if (event_present(event))
            row(page, "Event",
                time_words(event.timeinfo) + "  " + words_or_code(words_event(event.EventId), event.EventId));
}

std::string status_page(const STATE &state)
{
    const UPS_UPSINFO &info = state.ups.ui;
    std::string page;
    row(page, "Agent", alive(state.daemon.agent));
    row(page, "UPS process", alive(state.daemon.ups));
    row(page, "Link", link_words(info));
    if (!status_silent(info))
        unit_rows(page, state.ups);
    shutdown_rows(page, state);
    event_rows(page, info);
    row(page, "Role", words_or_code(words_agenttype(info.AgentType), info.AgentType));
    row(page, "Group", text_safe(info.Group, TEXT_CODE::Euc));
    row(page, "Status of", time_words(info.timeinfo));
    return page;
}

// ---- The command ----

static int stopped(const std::string &complaint, bool json)
{
    const std::string reason = complaint.empty() ? NOT_RUNNING : complaint;
    const int status = complaint.empty() ? EXIT_NOTRUNNING : EXIT_PROBLEM;
    if (!json)
        return fail(reason, status);
    const int printed = print(status_json_stopped(reason) + "\n");
    return printed != EXIT_SUCCESS ? printed : status;
}

static constexpr char HIDDEN[] = "the processes of voltariad are hidden from this user: run as root";

static std::string host_name()
{
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// Some machines show a user nobody else's processes.
static bool processes_hidden(const SYSTEM &system)
{
    return !system.privileged && !system_process(system, 1);
}

int control_status(bool json)
{
    BLOCK block = block_attach(false);
    if (block.block == nullptr)
        return stopped(block.complaint, json);
    const SYSTEM system = system_here();
    const STATE state{daemon_processes(system, *block.block), shared_copy(block.block->ups), host_name()};
    block_detach(block);
    if (!state.daemon.agent && !state.daemon.ups)
        return stopped(processes_hidden(system) ? HIDDEN : "", json);
    const int printed = print(json ? status_json(state) + "\n" : status_page(state));
    if (printed != EXIT_SUCCESS)
        return printed;
    return daemon_alive(state.daemon) ? EXIT_SUCCESS : EXIT_NOTRUNNING;
}

// What may happen in the life of the soak, and how often. Every deed leaves the unit and the line as it found
// them, unless the machine goes down in it. Those of the network are in soak_deeds_network.cpp.
#include "soak.h"

#include "wire_records.h"

namespace soak
{

using bed::packet;

const std::vector<Life::Deed> Life::DEEDS = {
    {"mains fails shortly", 60, &Life::short_failure},
    {"mains fails for long", 12, &Life::long_failure},
    {"mains fails and the battery gets low", 8, &Life::failure_with_low_battery},
    {"mains flickers", 15, &Life::flicker},
    {"mains fails and the line is cut", 10, &Life::failure_with_line_cut},
    {"battery low on mains", 2, &Life::low_battery},
    {"the line is cut", 30, &Life::line_lost},
    {"the port is unplugged", 10, &Life::port_unplugged},
    {"the unit is silent", 15, &Life::short_silence},
    {"a user's self-test", 30, &Life::user_test},
    {"a self-test until battery low", 8, &Life::long_test},
    {"a self-test that finds something", 6, &Life::failing_test},
    {"a condition of the unit", 40, &Life::condition},
    {"a condition that brings the machine down", 3, &Life::condition_brings_down},
    {"monitors visit", 90, &Life::monitors_visit},
    {"inquiries", 30, &Life::inquiries},
    {"the configuration is changed", 40, &Life::change_settings},
    {"the events are changed", 10, &Life::change_events},
    {"the schedules are changed", 30, &Life::change_schedules},
    {"the event log is off for a while", 5, &Life::log_off_for_a_while},
    {"an order that is taken back", 25, &Life::order_and_cancel},
    {"an order to the end", 6, &Life::order_to_the_end},
    {"an order and the line is cut", 8, &Life::order_with_line_cut},
    {"an order of another agent that is none of ours", 15, &Life::order_of_agent_ignored},
    {"an order of another agent", 5, &Life::order_of_agent_heeded},
    {"the clock is set", 12, &Life::set_clock},
    {"a log is cleared", 8, &Life::clear_logs},
    {"switches of the unit", 20, &Life::switches},
    {"a tool announces a change", 15, &Life::tool_announces},
    {"a tool stops the agent", 6, &Life::tool_stops},
    {"both processes are killed", 3, &Life::killed},
    {"the UPS process is killed", 3, &Life::ups_process_killed},
};

// ---- mains, battery, line

void Life::unit(const std::string &command)
{
    tell("unit: " + command);
    stage_.unit(command);
}

void Life::set_mains(bool on)
{
    truth_.mains = on;
    rules_.truth(truth_, stage_.now());
    unit(on ? "mains return" : "mains fail");
}

void Life::set_reachable(bool reachable, const std::string &command)
{
    truth_.reachable = reachable;
    rules_.truth(truth_, stage_.now());
    logged_steadily_since_ = stage_.now();
    unit(command);
}

void Life::ask(const std::string &packet)
{
    stage_.monitor_sends(packet);
}

void Life::short_failure()
{
    set_mains(false);
    pass(between(3, std::max(4, rules_.config.on_battery - 6)));
    if (goes_on())
        set_mains(true);
}

// Mains does not come back in time, or comes back when the machine has begun to go.
void Life::long_failure()
{
    set_mains(false);
    const int moment = rules_.config.on_battery + between(-3, 100);
    pass(moment);
    if (goes_on() && chance(40))
        set_mains(true);
    settle();
    if (goes_on() && !truth_.mains)
        set_mains(true);
}

void Life::failure_with_low_battery()
{
    set_mains(false);
    pass(between(1, 30));
    if (!goes_on())
        return;
    low_battery();
    if (goes_on())
        set_mains(true);
}

void Life::low_battery()
{
    condition_for("battery low on", "battery low auto", &Truth::low, 200);
}

void Life::flicker()
{
    for (int i = between(2, 5); i > 0 && goes_on(); --i) {
        set_mains(false);
        pass(between(2, 12));
        if (!goes_on())
            return;
        set_mains(true);
        pass(between(1, 12));
    }
}

void Life::failure_with_line_cut()
{
    set_mains(false);
    pass(between(1, rules_.config.on_battery));
    if (!goes_on())
        return;
    set_reachable(false, "line cut");
    pass(between(1, 90));
    const bool comes_back_meanwhile = chance(30);
    if (goes_on() && comes_back_meanwhile)
        set_mains(true);
    if (goes_on())
        set_reachable(true, "line restore");
    pass(between(1, 50));
    if (goes_on() && !truth_.mains)
        set_mains(true);
}

void Life::line_lost()
{
    set_reachable(false, "line cut");
    pass(between(1, 40));
    if (chance(50))
        idle(stage_.now() + between(60, 5400));
    if (goes_on())
        set_reachable(true, "line restore");
}

void Life::port_unplugged()
{
    set_reachable(false, "port unplug");
    pass(between(1, 60));
    if (goes_on())
        set_reachable(true, "port plug");
}

void Life::short_silence()
{
    const bool wrong = chance(50);
    set_reachable(false, wrong ? "wrong checks on" : "silence on");
    pass(between(1, 15));
    if (goes_on())
        set_reachable(true, wrong ? "wrong checks off" : "silence off");
}

// ---- self-tests

void Life::user_test()
{
    unit("test duration " + std::to_string(between(3, 40)));
    rules_.orders_test(Reason::user);
    ask(packet(DATAID_SELFTEST, std::string("\x0A\0\0\0", 4)));
    if (!chance(25))
        return;
    pass(between(1, 20));
    if (!goes_on())
        return;
    tell("cancelled");
    rules_.orders_test(Reason::none);
    ask(packet(DATAID_SELFTEST_CANCEL));
}

void Life::long_test()
{
    unit("test long " + std::to_string(between(20, 200)));
    rules_.orders_test(Reason::user_low);
    ask(packet(DATAID_SELFTEST_LONG));
}

void Life::failing_test()
{
    unit(chance(50) ? "test result weak" : "test result fail");
    rules_.tests_find_faults();
    user_test();
    settle();
    if (!goes_on())
        return;
    unit("test result pass");
    unit("test duration 20");
    rules_.orders_test(Reason::user);
    ask(packet(DATAID_SELFTEST, std::string("\x0A\0\0\0", 4)));
}

// ---- conditions

void Life::condition_for(const char *on, const char *off, bool Truth::*what, double seconds)
{
    truth_.*what = true;
    rules_.truth(truth_, stage_.now());
    unit(on);
    pass(seconds);
    if (!goes_on())
        return;
    truth_.*what = false;
    rules_.truth(truth_, stage_.now());
    unit(off);
}

struct Condition {
    const char *on;
    const char *off;
    bool Truth::*what;
};

static constexpr Condition CONDITIONS[] = {
    {"fault on", "fault off", &Truth::fault},
    {"load 130", "load 30", &Truth::overload},
    {"bypass on", "bypass off", &Truth::bypass},
    {"battery weak on", "battery weak off", &Truth::weak},
    {"battery disconnect on", "battery disconnect off", &Truth::disconnected},
};

void Life::condition()
{
    const Condition &one = any(CONDITIONS);
    condition_for(one.on, one.off, one.what, between(5, 120));
}

// An event whose settings say that it shuts the system down.
void Life::condition_brings_down()
{
    std::array<EventSetting, 256> events = rules_.events;
    events[78].shutdown = true;
    send_events(events);
    settle();
    if (!goes_on())
        return;
    condition_for("load 130", "load 30", &Truth::overload, 140);
    if (!goes_on())
        return;
    events[78].shutdown = false;
    send_events(events);
}

}  // namespace soak

// The life of the soak: what monitors, other agents, tools and the administrator do. The table of deeds is in
// soak_deeds.cpp.
#include "soak.h"

#include "mixed_requests.h"
#include "wire_records.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>

namespace soak
{

using bed::packet;

static constexpr const char *NAMES[] = {"desk1", "desk2", "ops-room", "voltaria-test", "a-host-of-15-ch"};

// ---- monitors

struct Question {
    std::string packet;
    std::uint8_t answer;  // 0: none comes
};

static const std::vector<Question> &questions()
{
    static const std::vector<Question> ALL = {
        {packet(DATAID_GETUPSINFO), DATAID_ANSUPSINFO},
        {packet(DATAID_GETUPSINFO, {}, 1, 0x0100), DATAID_ANSUPSINFO},
        {mixed::command(1, 0, 300), DATAID_ANSEVENTLOG},
        {mixed::command(1, 5, 10), DATAID_ANSEVENTLOG},
        {mixed::command(2, 0, 300), DATAID_ANSDATALOG},
        {mixed::command(3), DATAID_SCHEDULES},
        {mixed::command(4), DATAID_EVENTS},
        {mixed::command(5), DATAID_CONFIG},
        {mixed::command(6), DATAID_ANSNULL},
        {packet(DATAID_INQAGENT, std::string(20, '\0')), DATAID_ANSAGENT},
        {packet(DATAID_PASSWORD, std::string(60, 'x')), DATAID_ANSPASSWORD},
        {packet(DATAID_SHUTDOWN, "short"), 0},
        {packet(DATAID_SCHEDULES, std::string(21, '\1')), 0},
        {packet(DATAID_CONFIG, std::string(100, '\x7f')), 0},
        {packet(DATAID_EVENTS, std::string(300, '\x7f')), 0},
        {packet(250), 0},
    };
    return ALL;
}

static std::size_t lines_of_the_event_log()
{
    return testbed::read_file(testbed::EVENT_LOG).size() / 44;
}

// Each asks, some nonsense too; the answer is of the kind that belongs to the question, and an event log that
// is asked for whole has its lines.
void Life::monitors_visit()
{
    for (int visitors = between(1, 6); visitors > 0; --visitors) {
        testbed::TcpClient client;
        for (int i = between(1, 12); i > 0; --i) {
            const std::size_t number = static_cast<std::size_t>(below(static_cast<int>(questions().size())));
            const Question &question = questions()[number];
            client.send(question.packet);
            if (question.answer == 0)
                continue;
            const std::string answer = mixed::next_answer(client);
            ++figures_.answers;
            if (static_cast<std::uint8_t>(answer[3]) != question.answer)
                faults_.push_back("question " + std::to_string(number) + " is answered by " +
                                  std::to_string(static_cast<std::uint8_t>(answer[3])));
            if (number == 2 && answer.size() != PACKET_HEAD_SIZE + 28 * lines_of_the_event_log())
                faults_.push_back("an event log of " + std::to_string(answer.size()) + " bytes");
        }
        ++figures_.monitors;
        if (chance(30))
            client.reset();
    }
    stage_.clock.run_for(0s);
    stage_.look();
}

void Life::inquiries()
{
    for (int i = between(1, 5); i > 0; --i) {
        const testbed::UdpSocket socket;
        socket.send("127.0.0.1", testbed::AGENT_UDP_PORT, packet(DATAID_INQAGENT, std::string(20, '\0')));
        const std::optional<testbed::Datagram> answer = socket.receive(bed::PATIENCE);
        if (!answer || answer->bytes.size() != 100)
            faults_.push_back("an inquiry is not answered");
        ++figures_.answers;
    }
    stage_.look();
}

// ---- settings

template <typename T> static void put(std::string &bytes, std::size_t at, T value)
{
    std::memcpy(bytes.data() + at, &value, sizeof value);
}

void Life::send_settings(const Config &settings)
{
    std::string bytes = stage_.monitor_asks(mixed::command(5));
    const auto number = [&bytes](std::size_t offset, int value) {
        put(bytes, PACKET_HEAD_SIZE + offset, static_cast<std::int32_t>(value));
    };
    number(offsetof(UPS_PARAM, workparam.BattLife), settings.on_battery);
    number(offsetof(UPS_PARAM, workparam.TurnOffDelay), settings.turn_off);
    number(offsetof(UPS_PARAM, workparam.FirstWarningTime), settings.first_warning);
    number(offsetof(UPS_PARAM, workparam.CountDownTime), settings.interval);
    number(offsetof(UPS_PARAM, workparam.WarningBeforeSchel), settings.warn_schedule);
    number(offsetof(UPS_PARAM, logparam.EnableEventLog), settings.event_log ? 1 : 0);
    number(offsetof(UPS_PARAM, logparam.MaxEventRec), settings.event_lines);
    number(offsetof(UPS_PARAM, logparam.EnableDataLog), settings.data_log ? 1 : 0);
    number(offsetof(UPS_PARAM, logparam.MaxDataRec), settings.data_lines);
    number(offsetof(UPS_PARAM, logparam.DataLogInterval), settings.data_interval);
    number(offsetof(UPS_PARAM, commparam.AgentType), settings.agenttype);
    number(offsetof(UPS_PARAM, commparam.bIgnore), settings.ignore ? 1 : 0);
    std::string group = settings.group;
    group.resize(16);
    bytes.replace(PACKET_HEAD_SIZE + offsetof(UPS_PARAM, commparam.Group), group.size(), group);
    tell("settings: " + std::to_string(settings.on_battery) + " s on battery, first warning " +
         std::to_string(settings.first_warning) + ", every " + std::to_string(settings.interval) +
         ", schedules " + std::to_string(settings.warn_schedule) + ", off after " +
         std::to_string(settings.turn_off) + ", type " + std::to_string(settings.agenttype) +
         (settings.ignore ? ", ignores, " : ", heeds, ") + settings.group + ", event log " +
         std::to_string(settings.event_log) + "/" + std::to_string(settings.event_lines) + ", data log " +
         std::to_string(settings.data_log) + "/" + std::to_string(settings.data_lines) + " every " +
         std::to_string(settings.data_interval));
    logged_steadily_since_ = stage_.now();
    rules_.takes_settings(settings);
    ask(bytes);
}

void Life::change_settings()
{
    Config settings = rules_.config;
    settings.on_battery = between(15, 240);
    settings.first_warning = between(0, settings.on_battery);
    settings.interval = between(2, 60);
    settings.turn_off = any({30, 60, 90, 300, 600});
    settings.warn_schedule = any({0, 60, 300, 600, 900});
    settings.event_lines = between(30, 200);
    settings.data_log = chance(90);
    settings.data_lines = between(20, 200);
    settings.data_interval = between(5, 300);
    settings.agenttype = between(4, 6);
    settings.ignore = chance(50);
    settings.group = chance(50) ? "Group A" : "Second floor";
    const bool in_a_failure = chance(20);
    if (in_a_failure) {
        set_mains(false);
        pass(between(1, 10));
    }
    if (goes_on() && !rules_.deadlines().going)
        send_settings(settings);
    if (in_a_failure) {
        pass(between(1, 60));
        if (goes_on())
            set_mains(true);
    }
}

void Life::log_off_for_a_while()
{
    Config settings = rules_.config;
    settings.event_log = false;
    send_settings(settings);
    pass(between(3, 40));
    if (!goes_on())
        return;
    settings = rules_.config;
    settings.event_log = true;
    send_settings(settings);
}

void Life::send_events(const std::array<EventSetting, 256> &events)
{
    std::string bytes = stage_.monitor_asks(mixed::command(4));
    for (std::size_t row = 0; row < 47; ++row) {
        const std::size_t at = PACKET_HEAD_SIZE + row * sizeof(UPS_EVENTINFO);
        std::uint16_t id = 0;
        std::memcpy(&id, bytes.data() + at, sizeof id);
        const EventSetting &setting = events.at(id);
        put(bytes, at + offsetof(UPS_EVENTINFO, Record), std::int32_t{setting.record});
        put(bytes, at + offsetof(UPS_EVENTINFO, Shutdown), std::int32_t{setting.shutdown});
        put(bytes, at + offsetof(UPS_EVENTINFO, BroadcastType), setting.broadcast);
    }
    rules_.takes_events(events);
    ask(bytes);
}

// What need not be logged: events that nothing else here is judged by.
void Life::change_events()
{
    static constexpr int QUIET[] = {2, 6, 9, 10, 11, 14, 15, 66, 67, 68};
    static constexpr int LOUD[] = {0, 64, 66, 77, 78, 79, 129, 131, 133};
    std::array<EventSetting, 256> events = rules_.events;
    for (int i = between(1, 4); i > 0; --i) {
        EventSetting &setting = events[static_cast<std::size_t>(any(QUIET))];
        setting.record = !setting.record;
        setting.broadcast = 3;
    }
    EventSetting &told = events[static_cast<std::size_t>(any(LOUD))];
    told.broadcast = told.record ? static_cast<unsigned>(any({0, 1, 3})) : 3;
    send_events(events);
}

// ---- schedules

bool Life::near_schedule(std::int64_t wall, int within) const
{
    for (const Entry &entry : rules_.entries) {
        const std::int64_t next = entry.next(wall - within);
        if (next != 0 && next <= wall + within)
            return true;
    }
    return false;
}

// Minutes of their own for shutdowns and tests, so that no two are due at once.
Entry Life::draw_entry(bool test)
{
    const std::time_t soon = stage_.clock.wall() + between(1800, 5 * 86400);
    std::tm fields{};
    gmtime_r(&soon, &fields);
    Entry entry;
    entry.test = test;
    entry.kind = any({Reason::special, Reason::weekly, Reason::monthly});
    entry.on = test || chance(80);
    entry.hour = fields.tm_hour;
    entry.minute = fields.tm_min - fields.tm_min % 10 + (test ? 5 : 0);
    entry.day = entry.kind == Reason::weekly ? fields.tm_wday : fields.tm_mday;
    entry.month = fields.tm_mon;
    entry.year = fields.tm_year;
    entry.off_minutes = between(10, 300);
    return entry;
}

static UPS_TIMEINFO time_of(const Entry &entry, int later)
{
    UPS_TIMEINFO time{};
    const int minutes = entry.hour * 60 + entry.minute + later;
    time.year = static_cast<std::uint8_t>(entry.year);
    time.month = static_cast<std::int8_t>(entry.month);
    time.day = static_cast<std::int8_t>(entry.day);
    time.hour = static_cast<std::int8_t>(minutes / 60 % 24);
    time.minute = static_cast<std::int8_t>(minutes % 60);
    return time;
}

// At most two shutdowns and two tests, none within the next half hour.
void Life::change_schedules()
{
    std::vector<Entry> entries;
    for (int i = below(3); i > 0; --i)
        entries.push_back(draw_entry(false));
    for (int i = below(3); i > 0; --i)
        entries.push_back(draw_entry(true));
    const std::int64_t wall = stage_.clock.wall();
    const auto twins = [&](const Entry &entry) {
        const std::int64_t next = entry.next(wall);
        return next == 0 || next < wall + 900 ||
               std::count_if(entries.begin(), entries.end(),
                             [&](const Entry &other) { return other.next(wall) == next; }) > 1;
    };
    std::erase_if(entries, twins);
    std::string bytes;
    for (const Entry &entry : entries) {
        SCHEDULEINFO info{};
        info.ID = static_cast<std::int8_t>(entry.kind);
        info.ActionID = entry.test ? 1 : 0;
        info.ScheduleOn = entry.on ? 1 : 0;
        info.stimeInfo = time_of(entry, 0);
        info.etimeInfo = time_of(entry, entry.off_minutes);
        bytes.append(reinterpret_cast<const char *>(&info), sizeof info);
        tell(std::string(entry.test ? "test" : "shutdown") + " schedule of kind " +
             std::to_string(static_cast<int>(entry.kind)) + (entry.on ? "" : " (off)") + " at " +
             std::to_string(entry.next(wall) - wall) + " s from now");
    }
    rules_.takes_schedules(entries);
    ask(packet(DATAID_SCHEDULES, bytes));
}

// ---- orders

static std::string down_order(int delay, int agenttype, const std::string &agent, const std::string &group)
{
    UPS_AGENTDOWNINFO order{};
    order.DownId = 22;
    order.delay = static_cast<std::int16_t>(delay);
    order.AgentType = static_cast<std::uint32_t>(agenttype);
    std::copy_n(agent.begin(), std::min<std::size_t>(agent.size(), 15), order.Agent.begin());
    std::copy_n(group.begin(), std::min<std::size_t>(group.size(), 15), order.Group.begin());
    return packet(DATAID_SHUTDOWN, {reinterpret_cast<const char *>(&order), sizeof order});
}

void Life::order(int delay)
{
    const std::string name = any(NAMES);
    tell("order of " + name + " in " + std::to_string(delay) + " s");
    rules_.orders(name, delay);
    ask(down_order(delay, 0, name, ""));
}

void Life::cancel()
{
    std::string name = any(NAMES);
    tell("cancel of " + name);
    rules_.cancels(name);
    name.resize(16, '\0');
    ask(packet(DATAID_CANCELSHUTDOWN, name));
}

void Life::order_and_cancel()
{
    const int delay = between(5, 2000);
    order(delay);
    const bool in_the_grace = chance(20);
    const int moment = delay + (in_the_grace ? 30 : -3);
    idle(stage_.now() + between(1, moment));
    if (goes_on() && stage_.up())
        cancel();
}

void Life::order_to_the_end()
{
    const int delay = between(0, 1500);
    order(delay);
    idle(stage_.now() + delay + 200);
}

void Life::order_with_line_cut()
{
    const int delay = between(5, 200);
    order(delay);
    pass(between(1, delay));
    if (!goes_on())
        return;
    set_reachable(false, "line cut");
    pass(between(1, 120));
    if (goes_on())
        set_reachable(true, "line restore");
    pass(delay);
    if (goes_on())
        cancel();
}

void Life::agent_order(const std::string &name, const std::string &group, int agenttype)
{
    tell("order of the agent on " + name + ", type " + std::to_string(agenttype) + ", " + group);
    rules_.agent_orders(name, group, agenttype);
    stage_.datagram(down_order(0, agenttype, name, group));
    stage_.clock.run_for(0s);
    stage_.look();
}

// Of another group, of a lower role, of no server agent, or whatever, to an agent that ignores them.
void Life::order_of_agent_ignored()
{
    const Config &config = rules_.config;
    if (config.ignore)
        agent_order("other-host", config.group, 6);
    else
        switch (below(3)) {
        case 0:
            agent_order("other-host", "Third floor", 6);
            break;
        case 1:
            agent_order("other-host", config.group, 3);
            break;
        default:
            agent_order("other-host", config.agenttype > 4 ? config.group : "Third floor",
                        config.agenttype - 1);
        }
}

void Life::order_of_agent_heeded()
{
    Config settings = rules_.config;
    settings.ignore = false;
    settings.agenttype = between(4, 6);
    send_settings(settings);
    settle();
    if (!goes_on())
        return;
    agent_order("other-host", settings.group, between(settings.agenttype, 6));
    if (!chance(30)) {
        pass(200);
        return;
    }
    // The line goes: the agent does not know whether it may stay up, and stays.
    pass(between(1, 100));
    if (!goes_on())
        return;
    set_reachable(false, "line cut");
    pass(30);
    if (goes_on())
        set_reachable(true, "line restore");
}

// ---- the rest

void Life::set_clock()
{
    static constexpr int SHIFTS[] = {-18000, -3600, -301, -40, -2, 1, 7, 59, 400, 3600, 40000};
    const bool in_a_failure = chance(40);
    if (in_a_failure) {
        set_mains(false);
        pass(between(1, 10));
    }
    const int shift = any(SHIFTS);
    const std::int64_t wall = stage_.clock.wall();
    if (goes_on() && !rules_.deadlines().going && !near_schedule(wall, 200) &&
        !near_schedule(wall + shift, 200)) {
        tell("the clock is set by " + std::to_string(shift));
        stage_.clock.shift_wall(std::chrono::seconds(shift));
        logged_steadily_since_ = stage_.now();
        rules_.clock_set(wall, wall + shift);
    }
    if (in_a_failure) {
        pass(between(1, rules_.config.on_battery));
        if (goes_on())
            set_mains(true);
    }
}

void Life::clear_logs()
{
    const bool events = chance(50);
    tell(events ? "the event log" : "the data log");
    if (events)
        rules_.clears_log();
    logged_steadily_since_ = stage_.now();
    ask(packet(events ? DATAID_CLEAR_EVENTLOG : DATAID_CLEAR_DATALOG));
}

// The two oldest models have no switches, and only one family has sensitivity levels.
void Life::switches()
{
    static constexpr std::array<std::pair<std::uint8_t, int>, 4> SWITCHES = {{{DATAID_BUZZER_ON, 15},
                                                                              {DATAID_BUZZER_OFF, 14},
                                                                              {DATAID_AUTOTEST_ON, 13},
                                                                              {DATAID_AUTOTEST_OFF, 12}}};
    if (!truth_.reachable)
        return;
    const bool oldest = model_ == "ZR401" || model_ == "ZR6020";
    const int which = below(6);
    if (which < 4) {
        const auto &[dataid, event] = SWITCHES[static_cast<std::size_t>(which)];
        if (!oldest)
            rules_.switches(event);
        ask(packet(dataid));
    } else if (which == 4) {
        const int level = between(1, 4);
        if (!model_.starts_with("ZR") && !model_.starts_with("ZQ"))
            rules_.switches(16 + level);
        ask(packet(DATAID_DETECTIONLVL, std::string(1, static_cast<char>(level)) + std::string(3, '\0')));
    } else {
        BATTCHGTIME date{};
        date.BattTime.year = 126;
        date.BattTime.month = static_cast<std::int8_t>(between(1, 12));
        date.BattTime.day = static_cast<std::int8_t>(between(1, 28));
        if (!oldest)
            rules_.switches(16);
        ask(packet(DATAID_SETBATTIME, {reinterpret_cast<const char *>(&date), sizeof date}));
    }
}

void Life::tool_announces()
{
    testbed::SharedBlock::request(1);
    stage_.datagram(std::string(1, '\0'));
}

void Life::tool_stops()
{
    rules_.daemon_stops();
    testbed::SharedBlock::request(-1);
    stage_.datagram(std::string(1, '\0'));
    pass(4);
    agent_has_ended();
}

void Life::agent_has_ended()
{
    if (!faults_.empty())
        return;
    if (stage_.daemon.running())
        faults_.push_back("the agent does not end");
    tell("the agent has ended");
    rules_.daemon_gone();
    stage_.power_off();
    start();
}

void Life::killed()
{
    ++figures_.kills;
    rules_.daemon_gone();
    stage_.power_off();
    start();
}

// The agent process says so and ends; whoever supervises it starts it again.
void Life::ups_process_killed()
{
    ++figures_.kills;
    rules_.daemon_stops();
    kill(stage_.daemon.ups_pid(), SIGKILL);
    pass(4);
    agent_has_ended();
}

}  // namespace soak

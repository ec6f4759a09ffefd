// The stage of tests in virtual time.
#include "vt_stage.h"

#include "vt_monitor.h"
#include "wire_records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <ostream>
#include <sstream>

namespace bed
{

using Duration = testbed::VirtualClock::Duration;

static constexpr std::size_t LOG_LINE = 44;
static constexpr auto SETTLED = 400ms;  // the turns that follow a link are over by then

static double to_seconds(Duration time)
{
    return std::chrono::duration<double>(time).count();
}

std::string settings_text(const Settings &settings)
{
    std::string text;
    std::string section;
    for (const Setting &setting : settings) {
        if (setting.section != section)
            text += (text.empty() ? "[ " : "\n[ ") + setting.section + " ]\n\n";
        section = setting.section;
        text += " " + setting.key + " = " + setting.value + "\n";
    }
    return text;
}

std::ostream &operator<<(std::ostream &out, const LoggedEvent &event)
{
    return out << event.at << " event " << event.id << " cause " << event.cause << " \"" << event.name << '"';
}

std::ostream &operator<<(std::ostream &out, const Said &said)
{
    return out << said.at << " \"" << said.text << '"';
}

std::vector<std::string> texts(const std::vector<Said> &all)
{
    std::vector<std::string> found;
    for (const Said &said : all)
        found.push_back(said.text);
    return found;
}

std::vector<Said> containing(const std::vector<Said> &all, const std::string &part)
{
    std::vector<Said> found;
    for (const Said &said : all)
        if (said.text.find(part) != std::string::npos)
            found.push_back(said);
    return found;
}

std::vector<int> ids(const std::vector<LoggedEvent> &all)
{
    std::vector<int> found;
    for (const LoggedEvent &event : all)
        found.push_back(event.id);
    return found;
}

// ---- coming and going

Stage::Stage(StageOptions options)
    : clock({.start = options.start, .zone = options.zone}), options_(std::move(options))
{
    for (const char *file : {testbed::EVENT_LOG, testbed::DATA_LOG, testbed::CONFIG_FILE})
        std::filesystem::remove(file);
    if (!options_.settings.empty())
        testbed::write_config(settings_text(options_.settings));
    testbed::forget_calls();
    testbed::SimulatorOptions unit;
    unit.model = options_.model;
    unit.seed = options_.seed;
    clock.attach(unit);
    clock.attach(daemon);
    unit_ = std::make_unique<testbed::Simulator>(UPSSIM, unit);
    daemon.start();
    if (options_.monitor)
        connect_monitor();
}

Stage::~Stage() = default;

void Stage::connect_monitor()
{
    monitor_ = connect_english_monitor();
    EXPECT_EQ(receive_answer(*monitor_).at(3), static_cast<char>(DATAID_OSINFO));
}

void Stage::read_monitor()
{
    if (monitor_ == nullptr)
        return;
    take_packets(*monitor_, unread_, [this](const std::string &packet) {
        if (is_notice(packet))
            notices_.push_back({now(), data_of(packet)});
    });
}

// ---- time

double Stage::now() const
{
    return to_seconds(clock.now());
}

void Stage::run_until(const std::string &what, const testbed::VirtualClock::Predicate &predicate,
                      Duration limit)
{
    clock.run_until(
        what,
        [&] {
            read_monitor();
            return predicate();
        },
        limit);
}

void Stage::run(Duration time)
{
    const Duration end = clock.now() + time;
    run_until(
        "end of the time", [&] { return clock.now() >= end; }, time);
}

void Stage::leap(Duration time, Duration step)
{
    const Duration end = clock.now() + time;
    clock.leap_until(
        "end of the time",
        [&] {
            read_monitor();
            return clock.now() >= end;
        },
        time, step);
}

void Stage::link_up()
{
    run_until(
        "event 1 in the log", [&] { return !times_of(1).empty(); }, 60s);
    run(SETTLED);
}

bool Stage::goes_down(Duration limit)
{
    const Duration end = clock.now() + limit;
    run_until(
        "shutdown", [&] { return !testbed::calls_of("shutdown").empty() || clock.now() >= end; }, limit);
    return !testbed::calls_of("shutdown").empty();
}

// ---- what is done to them

void Stage::unit(const std::string &command)
{
    unit_->command(command);
}

std::string Stage::unit_log() const
{
    return unit_->log();
}

void Stage::monitor_sends(const std::string &packet)
{
    monitor_->send(packet);
    clock.run_for(0s);
    read_monitor();
}

static std::string field(std::string_view text, std::size_t width)
{
    std::string bytes(text);
    bytes.resize(width, '\0');
    return bytes;
}

static std::string down_order(int delay, int agenttype, const std::string &agent, const std::string &group)
{
    std::string bytes = {22,
                         0,
                         static_cast<char>(delay & 0xFF),
                         static_cast<char>(delay >> 8),
                         static_cast<char>(agenttype),
                         0,
                         0,
                         0};
    return packet(DATAID_SHUTDOWN, bytes + field(agent, 16) + field(group, 16));
}

void Stage::order_down(int delay, const std::string &name)
{
    monitor_sends(down_order(delay, 0, name, ""));
}

void Stage::cancel_order(const std::string &name)
{
    monitor_sends(packet(DATAID_CANCELSHUTDOWN, field(name, 16)));
}

void Stage::other_agent_orders(const std::string &agent, const std::string &group, int agenttype)
{
    const testbed::UdpSocket socket;
    socket.send("127.0.0.1", testbed::AGENT_UDP_PORT, down_order(0, agenttype, agent, group));
    clock.run_for(0s);
    read_monitor();
}

// ---- what comes out

UPS_UPSINFO Stage::info() const
{
    const testbed::SharedBlock block;
    return shared_copy(block->ups.ui);
}

std::uint32_t Stage::bits() const
{
    const testbed::SharedBlock block;
    return shared_load(block->ups.upsstat);
}

std::int64_t Stage::since_start(const UPS_TIMEINFO &time) const
{
    if (time.month == 0)
        return 0;
    std::tm local{};
    local.tm_year = static_cast<unsigned char>(time.year);
    local.tm_mon = time.month - 1;
    local.tm_mday = time.day;
    local.tm_hour = time.hour;
    local.tm_min = time.minute;
    local.tm_sec = time.second;
    local.tm_isdst = -1;
    return std::mktime(&local) - options_.start;
}

std::int64_t Stage::nextdown() const
{
    return since_start(info().nextdown);
}

std::int64_t Stage::nextboot() const
{
    return since_start(info().nextboot);
}

static std::string without_blanks(const std::string &text)
{
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? "" : text.substr(begin);
}

std::vector<LoggedEvent> Stage::events() const
{
    const std::string log = testbed::read_file(testbed::EVENT_LOG);
    std::vector<LoggedEvent> found;
    for (std::size_t line = 0; line + LOG_LINE <= log.size(); line += LOG_LINE) {
        const std::string text = log.substr(line, LOG_LINE - 1);
        std::tm local{};
        LoggedEvent event;
        if (std::sscanf(text.c_str(), "%d/%d/%d %d:%d:%d %d %d", &local.tm_mday, &local.tm_mon,
                        &local.tm_year, &local.tm_hour, &local.tm_min, &local.tm_sec, &event.id,
                        &event.cause) != 8)
            ADD_FAILURE() << "no line of the event log: " << text;
        local.tm_mon -= 1;
        local.tm_year -= 1900;
        local.tm_isdst = -1;
        event.at = std::mktime(&local) - options_.start;
        event.name = without_blanks(text.substr(28));
        found.push_back(event);
    }
    return found;
}

std::vector<std::int64_t> Stage::times_of(int id) const
{
    std::vector<std::int64_t> found;
    for (const LoggedEvent &event : events())
        if (event.id == id)
            found.push_back(event.at);
    return found;
}

double Stage::since_start(const testbed::Call &call) const
{
    return call.time - static_cast<double>(options_.start);
}

static std::string without_newline(std::string text)
{
    if (text.ends_with('\n'))
        text.pop_back();
    return text;
}

std::vector<Said> Stage::walls() const
{
    std::vector<Said> found;
    for (const testbed::Call &call : testbed::calls_of("wall"))
        found.push_back({since_start(call), without_newline(call.input)});
    return found;
}

std::vector<Said> Stage::shutdowns() const
{
    std::vector<Said> found;
    for (const testbed::Call &call : testbed::calls_of("shutdown")) {
        std::string line = call.path;
        for (const std::string &argument : call.arguments)
            line += " " + argument;
        found.push_back({since_start(call), line});
    }
    return found;
}

std::vector<Said> Stage::notices() const
{
    return notices_;
}

// Whatever else the unit is sent are questions. A delay begins with a digit or a point.
static bool is_order(const std::string &command)
{
    static const std::array ORDERS = {"T\\r", "TL", "CT", "C\\r", "AC", "AR", "An",  "Af", "Bn",
                                      "Bf",   "Bt", "VA", "VB",   "VH", "VL", "BRW", "Sf"};
    if (command.size() > 1 && command[0] == 'S' &&
        (command[1] == '.' || (command[1] >= '0' && command[1] <= '9')))
        return true;
    return std::any_of(ORDERS.begin(), ORDERS.end(),
                       [&](const char *order) { return command.starts_with(order); });
}

std::vector<Said> Stage::orders(double from) const
{
    std::vector<Said> found;
    std::istringstream log(unit_->log());
    for (std::string line; std::getline(log, line);) {
        std::istringstream words(line);
        double at = 0;
        std::string what;
        std::string text;
        if (words >> at >> what && std::getline(words >> std::ws, text) && what == "rx" && at >= from &&
            is_order(text))
            found.push_back({at, text});
    }
    return found;
}

std::string Stage::story() const
{
    std::ostringstream out;
    out << unit_->log() << testbed::read_file(testbed::EVENT_LOG) << testbed::read_file(testbed::DATA_LOG);
    for (const testbed::Call &call : testbed::calls()) {
        out << std::to_string(call.time) << ' ' << call.path;
        for (const std::string &argument : call.arguments)
            out << ' ' << argument;
        out << " <" << call.input << '\n';
    }
    for (const Said &notice : notices_)
        out << "told " << notice << '\n';
    out << now() << '\n';
    return out.str();
}

}  // namespace bed

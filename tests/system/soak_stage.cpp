// The stage of the soak.
#include "soak_stage.h"

#include "mixed_requests.h"
#include "vt_monitor.h"
#include "wire_records.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace soak
{

using bed::word_at;

static constexpr std::size_t LOG_LINE = 44;
static constexpr char UNIT_LOG[] = "/run/voltaria-test/ups.log";
static constexpr char CALLS[] = "/run/voltaria-test/calls";
static constexpr off_t UNIT_LOG_LIMIT = 1 << 20;

Stage::Stage(std::int64_t start, unsigned seed, const std::string &model, const std::string &settings)
    : clock({.start = start, .zone = "UTC0"})
{
    for (const char *file : {testbed::EVENT_LOG, testbed::DATA_LOG})
        unlink(file);
    testbed::write_config(settings);
    testbed::forget_calls();
    testbed::SimulatorOptions unit;
    unit.model = model;
    unit.seed = seed;
    clock.attach(unit);
    clock.attach(daemon);
    unit_ = std::make_unique<testbed::Simulator>(bed::UPSSIM, unit);
    announcements_ = std::make_unique<testbed::UdpSocket>(testbed::MONITOR_UDP_PORT);
}

void Stage::start_daemon()
{
    daemon.start();
    block_.emplace();
    connect_monitor();
    clock.run_for(0s);
    read_monitor();
    notices_.clear();
    up_ = true;
    look();
}

void Stage::power_off()
{
    up_ = false;
    monitor_.reset();
    unread_.clear();
    block_.reset();
    daemon.kill();
    look();
}

void Stage::connect_monitor()
{
    monitor_ = bed::connect_english_monitor();
    await_answer();
}

void Stage::read_monitor()
{
    if (monitor_ == nullptr)
        return;
    bed::take_packets(*monitor_, unread_, [this](const std::string &packet) {
        if (bed::is_notice(packet))
            notices_.push_back(bed::data_of(packet));
        else
            answers_.push_back(packet);
    });
}

// ---- time

double Stage::now() const
{
    return std::chrono::duration<double>(clock.now()).count();
}

void Stage::leap(Duration time, Duration step)
{
    const Duration end = clock.now() + time;
    clock.leap_until(
        "end of the time", [&] { return !look() || clock.now() >= end; }, time, step);
}

void Stage::run(Duration time)
{
    leap(time, Duration(0));
}

// ---- what is done to them

void Stage::unit(const std::string &command)
{
    unit_->command(command);
}

std::string Stage::ask_unit(const std::string &command)
{
    return unit_->ask(command);
}

void Stage::monitor_sends(const std::string &packet)
{
    monitor_->send(packet);
    clock.run_for(0s);
    look();
}

std::string Stage::await_answer()
{
    testbed::wait_until("an answer", bed::PATIENCE, [&] {
        read_monitor();
        return !answers_.empty();
    });
    const std::string answer = answers_.front();
    answers_.pop_front();
    return answer;
}

std::string Stage::monitor_asks(const std::string &packet)
{
    monitor_->send(packet);
    std::string answer = await_answer();
    clock.run_for(0s);
    look();
    return answer;
}

void Stage::datagram(const std::string &bytes) const
{
    const testbed::UdpSocket socket;
    socket.send("127.0.0.1", testbed::AGENT_UDP_PORT, bytes);
}

// ---- what there is to be seen

static std::int64_t seconds_of(const UPS_TIMEINFO &time)
{
    if (time.month == 0)
        return 0;
    std::tm fields{};
    fields.tm_year = static_cast<unsigned char>(time.year);
    fields.tm_mon = time.month - 1;
    fields.tm_mday = time.day;
    fields.tm_hour = time.hour;
    fields.tm_min = time.minute;
    fields.tm_sec = time.second;
    return timegm(&fields);
}

void Stage::look_at_block(Look &look) const
{
    look.there = up_ && block_.has_value();
    if (!look.there)
        return;
    const UPS_UPSINFO info = shared_copy((*block_)->ups.ui);
    look.comm = info.CommStatus;
    look.code = info.upsstat;
    look.bits = shared_load((*block_)->ups.upsstat);
    look.battery_result = info.sftResBattery.Result;
    look.ups_result = info.sftResUPS.Result;
    look.nextdown = seconds_of(info.nextdown);
}

static LoggedEvent event_of(const std::string &line)
{
    std::tm fields{};
    LoggedEvent event;
    if (std::sscanf(line.c_str(), "%d/%d/%d %d:%d:%d %d %d", &fields.tm_mday, &fields.tm_mon, &fields.tm_year,
                    &fields.tm_hour, &fields.tm_min, &fields.tm_sec, &event.id, &event.cause) != 8)
        throw testbed::TestbedError("no line of the event log: " + line);
    fields.tm_mon -= 1;
    fields.tm_year -= 1900;
    event.at = timegm(&fields);
    const std::size_t name = line.find_first_not_of(' ', 28);
    if (name != std::string::npos)
        event.name = line.substr(name, LOG_LINE - 1 - name);
    return event;
}

// The lines behind the longest end of the old log with which the new one begins.
static std::size_t lines_kept(const std::string &before, const std::string &after)
{
    const std::size_t lines = before.size() / LOG_LINE;
    for (std::size_t gone = 0; gone < lines; ++gone)
        if (after.compare(0, before.size() - gone * LOG_LINE, before, gone * LOG_LINE) == 0)
            return lines - gone;
    return 0;
}

void Stage::look_at_log(Look &look)
{
    std::string log = testbed::read_file(testbed::EVENT_LOG);
    look.log_lines = log.size() / LOG_LINE;
    if (log == log_)
        return;
    const std::size_t kept = lines_kept(log_, log);
    look.log_shrank = kept == 0 && !log_.empty();
    for (std::size_t at = kept * LOG_LINE; at + LOG_LINE <= log.size(); at += LOG_LINE)
        look.events.push_back(event_of(log.substr(at, LOG_LINE)));
    log_ = std::move(log);
}

void Stage::look_at_calls(Look &look) const
{
    struct stat about {
    };
    if (stat(CALLS, &about) != 0 || about.st_size == 0)
        return;
    for (const testbed::Call &call : testbed::calls()) {
        if (call.name() == "wall")
            look.walls.push_back(call.input.substr(0, call.input.find_last_not_of('\n') + 1));
        if (call.name() == "shutdown")
            ++look.shutdowns;
    }
    testbed::forget_calls();
}

// Whatever else the unit is sent are questions. A delay begins with a digit or a point.
static bool is_order(const std::string &command)
{
    static const std::array ORDERS = {"T\\r", "TL", "CT", "C\\r", "AC", "AR", "An",  "Af", "Bn",
                                      "Bf",   "Bt", "VA", "VB",   "VH", "VL", "BRW", "Sf"};
    if (command.size() > 1 && (command[0] == 'S' || command[0] == 'T') &&
        (command[1] == '.' || (command[1] >= '0' && command[1] <= '9')))
        return true;
    return std::any_of(ORDERS.begin(), ORDERS.end(),
                       [&](const char *order) { return command.starts_with(order); });
}

// The unit waits while this reads, so its log can be emptied.
void Stage::look_at_unit(Look &look)
{
    const int file = open(UNIT_LOG, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return;
    std::string news;
    std::array<char, 16384> part{};
    for (ssize_t count = 0;
         (count = pread(file, part.data(), part.size(), static_cast<off_t>(unit_log_at_ + news.size()))) > 0;)
        news.append(part.data(), static_cast<std::size_t>(count));
    close(file);
    news.resize(news.rfind('\n') + 1);
    unit_log_at_ += news.size();
    std::istringstream lines(news);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t at = line.find(" rx ");
        if (at != std::string::npos && is_order(line.substr(at + 4)))
            look.orders.push_back(line.substr(at + 4));
    }
    if (static_cast<off_t>(unit_log_at_) > UNIT_LOG_LIMIT && truncate(UNIT_LOG, 0) == 0)
        unit_log_at_ = 0;
}

void Stage::look_at_network(Look &look) const
{
    while (const std::optional<testbed::Datagram> datagram = announcements_->receive(0ms)) {
        if (datagram->bytes.size() < 12 || static_cast<std::uint8_t>(datagram->bytes[3]) != DATAID_ANSAGENT)
            continue;
        ++(word_at(datagram->bytes, 8) == 1 ? look.goodbyes : look.announced);
    }
}

bool Stage::look()
{
    Look look;
    look.now = now();
    look.wall = clock.wall();
    look_at_block(look);
    look_at_log(look);
    look_at_calls(look);
    look_at_unit(look);
    look_at_network(look);
    read_monitor();
    look.notices.assign(notices_.begin(), notices_.end());
    notices_.clear();
    return !judge || judge(look);
}

static Holdings holdings(pid_t pid)
{
    const mixed::HOLDINGS found = mixed::holdings_of(pid);
    return {found.rss, found.data, found.descriptors};
}

// By its shadow of the memory, terabytes of addresses.
bool Stage::sanitized() const
{
    const std::string status = testbed::read_file("/proc/" + std::to_string(daemon.agent_pid()) + "/status");
    return mixed::status_number(status, "VmSize:") > (1L << 30);
}

Holdings Stage::agent_holdings() const
{
    return holdings(daemon.agent_pid());
}

Holdings Stage::ups_holdings() const
{
    return holdings(daemon.ups_pid());
}

}  // namespace soak

// The life of the soak: how it goes on. What may happen is in soak_deeds.cpp.
#include "soak.h"

#include "mixed_requests.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iomanip>
#include <ostream>
#include <sstream>

namespace soak
{

static constexpr double DAY = 86400;
static constexpr auto STEP = 60s;          // of a leap
static constexpr std::size_t RECENT = 60;  // lines kept for the last words
static constexpr std::size_t EVENT_LINE = 44;
static constexpr std::size_t DATA_LINE = 60;
static constexpr double DATA_LATE = 70;  // s: a leap, and a look
static constexpr long GROWTH = 3000;     // kB that a process may hold beyond what it began with

// Those that an installation begins with; they are what the checker begins with, too.
static std::string first_settings()
{
    const std::optional<std::string> text = testbed::read_file_if_there(VOLTARIA_INITIAL_SETTINGS);
    if (!text)
        throw testbed::TestbedError("no initial settings " VOLTARIA_INITIAL_SETTINGS);
    return *text;
}

Life::Life(const Options &options)
    : options_(options), random_(options.seed),
      model_(any<const char *>({"ZR401", "ZR6020", "ZR900PL", "ZR950PL", "ZM300LT", "ZQ500"})),
      rules_(Config{}, model_),
      stage_(bed::STAGE_START + below(86400 * 300), options.seed, model_, first_settings())
{
    stage_.judge = [this](const Look &look) {
        saw(look);
        return goes_on();
    };
    tell("seed " + std::to_string(options_.seed) + ", a unit " + model_);
    figures_.settings_first = testbed::read_config().size();
    unit("rate 0.02");
    start();
    figures_.agent_first = stage_.agent_holdings();
    figures_.ups_first = stage_.ups_holdings();
}

// ---- chance

int Life::below(int limit)
{
    return static_cast<int>(random_() % static_cast<std::uint64_t>(limit));
}

int Life::between(int low, int high)
{
    return low + below(high - low + 1);
}

bool Life::chance(int percent)
{
    return below(100) < percent;
}

// ---- the story

void Life::tell(const std::string &what)
{
    std::ostringstream line;
    line << std::fixed << std::setprecision(3) << stage_.now() << ' ' << what;
    if (options_.story != nullptr)
        *options_.story << line.str() << '\n';
    recent_.push_back(line.str());
    if (recent_.size() > RECENT)
        recent_.pop_front();
}

void Life::saw(const Look &look)
{
    for (const LoggedEvent &event : look.events)
        tell("  event " + std::to_string(event.id) + " cause " + std::to_string(event.cause) + " \"" +
             event.name + "\" at " + std::to_string(event.at));
    for (const std::string &notice : look.notices)
        tell("  notice \"" + notice + '"');
    for (const std::string &wall : look.walls)
        tell("  wall \"" + wall + '"');
    for (const std::string &order : look.orders)
        tell("  order " + order);
    if (look.shutdowns > 0)
        tell("  shutdown");
    rules_.look(look);
    if (!faults_.empty())
        return;
    faults_ = rules_.faults();
    for (const std::string &fault : faults_)
        tell("FAULT " + fault);
}

std::string Life::last_words() const
{
    std::string words;
    for (const std::string &line : recent_)
        words += line + '\n';
    return words;
}

// ---- time

// False once the machine goes down by itself, or a fault was found: whoever lets time pass stops there.
bool Life::goes_on() const
{
    return faults_.empty() && !(stage_.up() && rules_.machine_down());
}

// At least a little: what is left until a moment may be less than a millisecond.
void Life::pass(double seconds)
{
    if (goes_on() && stage_.up())
        stage_.run(std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000) + 1));
}

// Until nothing is under way any more.
void Life::settle(double limit)
{
    const double end = stage_.now() + limit;
    pass(3);
    while (goes_on() && stage_.up() && rules_.busy() && stage_.now() < end)
        pass(2);
}

// Second by second where something is due, in leaps where nothing is.
void Life::idle(double until)
{
    while (stage_.now() < until && goes_on() && stage_.up()) {
        const std::int64_t moment = rules_.next_moment();
        const double left = until - stage_.now();
        const double quiet =
            moment == 0 ? left : std::min(left, static_cast<double>(moment - stage_.clock.wall() - 10));
        if (rules_.busy() || quiet < 70) {
            pass(std::min(left, 20.0));
            continue;
        }
        stage_.leap(std::chrono::milliseconds(static_cast<std::int64_t>(quiet * 1000)), STEP);
        pass(3);
        inspect_logs();
    }
}

// ---- the machine

void Life::start()
{
    ++figures_.starts;
    tell("starts");
    rules_.daemon_starts(stage_.now());
    logged_steadily_since_ = stage_.now();
    stage_.start_daemon();
    settle(120);
}

void Life::restore_unit()
{
    for (const char *command :
         {"mains return", "line restore", "port plug", "silence off", "battery low auto", "battery weak off",
          "battery disconnect off", "fault off", "bypass off", "load 30", "test result pass", "battery 95"})
        stage_.ask_unit(command);
    truth_ = Truth{};
    rules_.truth(truth_, stage_.now());
    stage_.clock.run_for(15s);  // a countdown that saw an outage is over
    stage_.ask_unit("output on");
}

// The power is gone, whatever was running; after a while the machine boots.
void Life::machine_off(const std::string &why)
{
    tell("the machine is off: " + why);
    rules_.daemon_gone();
    stage_.power_off();
    stage_.clock.leap_for(std::chrono::seconds(between(660, 2400)), STEP);
    restore_unit();
    start();
}

void Life::come_back()
{
    ++figures_.shutdowns;
    stage_.clock.run_for(2s);
    machine_off("it went down");
}

// ---- days

void Life::do_one()
{
    int all = 0;
    for (const Deed &deed : DEEDS)
        all += deed.per_month;
    int drawn = below(all);
    const Deed *deed = DEEDS.data();
    for (; drawn >= deed->per_month; ++deed)
        drawn -= deed->per_month;
    ++figures_.deeds;
    tell(deed->name);
    (this->*deed->act)();
    settle();
    if (faults_.empty() && rules_.machine_down())
        come_back();
}

void Life::day()
{
    int per_day = 0;
    for (const Deed &deed : DEEDS)
        per_day += deed.per_month;
    const double evening = (std::floor(stage_.now() / DAY) + 1) * DAY;
    const int mean = static_cast<int>(DAY) * 30 / per_day;
    while (faults_.empty() && stage_.now() < evening) {
        idle(std::min(evening, stage_.now() + between(mean / 4, mean * 7 / 4)));
        if (faults_.empty() && rules_.machine_down())
            come_back();
        if (faults_.empty() && stage_.now() < evening)
            do_one();
    }
}

void Life::live()
{
    for (int i = 0; i < options_.days && faults_.empty(); ++i) {
        day();
        if (faults_.empty())
            inspect();
        figures_.days = stage_.now() / DAY;
        figures_.tally = rules_.tally();
        report();
    }
}

// ---- what the processes hold

void Life::inspect()
{
    settle();
    if (faults_.empty() && rules_.machine_down())
        come_back();
    if (faults_.empty())
        measure();
}

static void keep_worst(Holdings &worst, const Holdings &found)
{
    worst.rss = std::max(worst.rss, found.rss);
    worst.data = std::max(worst.data, found.data);
    worst.descriptors = std::max(worst.descriptors, found.descriptors);
}

void Life::measure()
{
    const Holdings agent = stage_.agent_holdings();
    const Holdings ups = stage_.ups_holdings();
    keep_worst(figures_.agent_worst, agent);
    keep_worst(figures_.ups_worst, ups);
    const auto bounded = [this](const char *who, const Holdings &first, const Holdings &found) {
        if (!stage_.sanitized() && (found.rss > first.rss + GROWTH || found.data > first.data + GROWTH))
            faults_.push_back(std::string(who) + " grows: " + std::to_string(found.rss) + " kB, at first " +
                              std::to_string(first.rss));
        if (found.descriptors != first.descriptors)
            faults_.push_back(std::string(who) + " has " + std::to_string(found.descriptors) +
                              " descriptors, at first " + std::to_string(first.descriptors));
    };
    bounded("the agent process", figures_.agent_first, agent);
    bounded("the UPS process", figures_.ups_first, ups);
    figures_.settings = testbed::read_config().size();
}

// No longer than the settings say; and while there is a link, never too old.
void Life::inspect_logs()
{
    const std::string events = testbed::read_file(testbed::EVENT_LOG);
    const std::string data = testbed::read_file(testbed::DATA_LOG);
    figures_.event_log = std::max(figures_.event_log, events.size());
    figures_.data_log = std::max(figures_.data_log, data.size());
    if (events.size() % EVENT_LINE != 0 || data.size() % DATA_LINE != 0)
        faults_.push_back("a log has a broken line");
    const Config &config = rules_.config;
    if (rules_.busy() || stage_.now() - logged_steadily_since_ < config.data_interval + DATA_LATE ||
        !truth_.reachable)
        return;
    if (!config.data_log)
        return;
    if (data.size() > static_cast<std::size_t>(config.data_lines) * DATA_LINE)
        faults_.push_back("the data log is too long");
    std::tm fields{};
    if (data.size() >= DATA_LINE)
        std::sscanf(data.c_str() + data.size() - DATA_LINE, "%d/%d/%d %d:%d:%d", &fields.tm_mday,
                    &fields.tm_mon, &fields.tm_year, &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
    fields.tm_mon -= 1;
    fields.tm_year -= 1900;
    const std::int64_t age = stage_.clock.wall() - timegm(&fields);
    if (age < 0 || age > config.data_interval + static_cast<std::int64_t>(DATA_LATE))
        faults_.push_back("the last line of the data log is " + std::to_string(age) + " s old");
}

void Life::report()
{
    if (options_.progress == nullptr)
        return;
    const Holdings agent = faults_.empty() ? stage_.agent_holdings() : Holdings{};
    const Holdings ups = faults_.empty() ? stage_.ups_holdings() : Holdings{};
    std::ostream &out = *options_.progress;
    out << "day " << std::lround(figures_.days) << ": " << figures_.tally.events << " events, "
        << figures_.deeds << " deeds, " << figures_.starts << " starts, " << figures_.monitors
        << " monitors; agent " << agent.rss << '/' << agent.data << " kB, " << agent.descriptors
        << " fds; ups " << ups.rss << '/' << ups.data << " kB, " << ups.descriptors << " fds; logs "
        << std::filesystem::file_size(testbed::EVENT_LOG) << " + "
        << testbed::read_file(testbed::DATA_LOG).size() << " B, settings " << testbed::read_config().size()
        << " B" << std::endl;
}

}  // namespace soak

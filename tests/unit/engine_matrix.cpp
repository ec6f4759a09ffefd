#include "tests/unit/engine_matrix.h"

#include "wp_field.h"

#include <algorithm>
#include <charconv>
#include <sstream>

static constexpr int LONGEST = 300;  // s; in any row nothing is due later
static constexpr int HOUR = 3600;    // a schedule's unit comes back on after it
static constexpr char NEVER[] = "-";

static constexpr int WARNED_BEFORE = 60;  // s; of a schedule

// A normal server agent (grace 60 s) that obeys other agents, on a unit whose bypass is an event that brings
// the machine down. On battery for 60 s; the unit takes 180 s to switch off.
static constexpr char SETTINGS[] = "\n[ UPS ]\n AgentType = 5\n Group = Lab\n IgnoreOtherAgentDown = 0\n"
                                   " AutoBoot = 1\n ComSet = 0\n"
                                   "\n[ EventLog ]\n EventLogEnabled = 1\n"
                                   "\n[ DataLog ]\n DataLogEnabled = 0\n"
                                   "\n[ Event67 ]\n ShutDown = 1\n"
                                   "\n[ ShutDown ]\n EXPECTBLIFE = 60\n TurnOffDelay = 180\n"
                                   " WARNBEFORESCHE = ";

// ---- the clock that does not jump: it stands between turns, and never shows the same twice

static std::time_t steady;

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *now) noexcept;
extern "C" int __wrap_clock_gettime(clockid_t, timespec *now) noexcept
{
    *now = {steady, 0};
    return 0;
}

static void pass_time(std::time_t seconds)
{
    advance(seconds);
    steady += seconds;
}

// ---- what can happen

const std::vector<Matrix::WORDS> Matrix::VOCABULARY = {
    {"schedule at", &Matrix::schedule_at, true},
    {"weekly schedule at", &Matrix::weekly_at, true},
    {"monthly schedule at", &Matrix::monthly_at, true},
    {"schedules are warned of before", &Matrix::warn_before, true},
    {"mains fail", &Matrix::mains_fail, false},
    {"mains return", &Matrix::mains_return, false},
    {"battery low", &Matrix::battery_low, false},
    {"battery recovers", &Matrix::battery_recovers, false},
    {"bypass", &Matrix::bypass, false},
    {"bypass ends", &Matrix::bypass_ends, false},
    {"link lost", &Matrix::link_lost, false},
    {"link back", &Matrix::link_back, false},
    {"port closed", &Matrix::port_closed, false},
    {"user orders", &Matrix::user_orders, false},
    {"user here orders", &Matrix::user_here_orders, false},
    {"user cancels", &Matrix::user_cancels, false},
    {"agent orders", &Matrix::agent_orders, false},
    {"ignore on", &Matrix::ignore_on, false},
};

static std::string date_fields(std::time_t moment, const char *format)
{
    std::array<char, 40> text{};
    std::strftime(text.data(), text.size(), format, std::localtime(&moment));
    return text.data();
}

// Months count from 0 in special dates, years from 1900: all of it happens in March 2004.
void Matrix::schedule_at(int second)
{
    constexpr char FORMAT[] = "%M %H %d 2 * 104\n";
    schedules += " SPECIALNO = 1\n SPECIALDAYSTART1 = " + date_fields(origin + second, FORMAT) +
                 " SPECIALDAYEND1 = " + date_fields(origin + second + HOUR, FORMAT);
}

void Matrix::weekly_at(int second)
{
    constexpr char FORMAT[] = "%M %H * * %w\n";
    schedules += " WEEKLYNO = 1\n WEEKLYSTART1 = " + date_fields(origin + second, FORMAT) +
                 " WEEKLYEND1 = " + date_fields(origin + second + HOUR, FORMAT);
}

void Matrix::monthly_at(int second)
{
    constexpr char FORMAT[] = "%M %H %d * *\n";
    schedules +=
        " MONTHLYNO = 1\n MONTHLYDUR1 = 60\n MONTHLYSTART1 = " + date_fields(origin + second, FORMAT) +
        " MONTHLYEND1 = " + date_fields(origin + second + HOUR, FORMAT);
}

void Matrix::warn_before(int seconds)
{
    lead = seconds;
}

// Of the codes that one unit can show at once, the one that it shows.
void Matrix::show_code()
{
    ups.ui.upsstat = (ups.upsstat & UPSBIT_ACFAIL) != 0   ? UPSSTAT_ACFAIL
                     : (ups.upsstat & UPSBIT_BYPASS) != 0 ? UPSSTAT_BYPASS
                                                          : UPSSTAT_NORMAL;
    ups.ui.BattStatus = (ups.upsstat & UPSBIT_BATTLOW) != 0 ? BATT_LOW_CAPACITY : BATT_NORMAL;
}

void Matrix::set_bit(std::uint32_t bit, bool on)
{
    ups.upsstat = on ? ups.upsstat | bit : ups.upsstat & ~bit;
    if (ups.ui.CommStatus == COMM_ESTABLISHED)
        show_code();
}

void Matrix::mains_fail(int)
{
    set_bit(UPSBIT_ACFAIL, true);
}

void Matrix::mains_return(int)
{
    set_bit(UPSBIT_ACFAIL, false);
}

void Matrix::battery_low(int)
{
    set_bit(UPSBIT_BATTLOW, true);
}

void Matrix::battery_recovers(int)
{
    set_bit(UPSBIT_BATTLOW, false);
}

void Matrix::bypass(int)
{
    set_bit(UPSBIT_BYPASS, true);
}

void Matrix::bypass_ends(int)
{
    set_bit(UPSBIT_BYPASS, false);
}

// The unit's name goes with the link, its bits and its code keep what they were.
void Matrix::link_lost(int)
{
    ups.ui.CommStatus = COMM_LOST;
    ups.ui.ComId = -1;
    ups.ui.BattStatus = BATT_UNKNOWN;
    field_set(ups.ui.upsmodel, "");
}

void Matrix::port_closed(int)
{
    ups.ui.CommStatus = COMM_NOUPS;
    ups.ui.ComId = -2;
    ups.ui.upsstat = UPSSTAT_NORMAL;
    ups.ui.BattStatus = BATT_UNKNOWN;
    field_set(ups.ui.upsmodel, "");
}

void Matrix::link_back(int)
{
    ups.ui.ComId = 0;
    field_set(ups.ui.upsmodel, "ZR900PL");
    show_code();
    ups.ui.CommStatus = COMM_ESTABLISHED;
}

void Matrix::order(std::string_view name, int delay)
{
    UPS_AGENTDOWNINFO info{};
    info.delay = static_cast<std::int16_t>(delay);
    field_set(info.Agent, name);
    AGENTCMD command{DATAID_SHUTDOWN, {.adip = &info}};
    ein.DATA.acp = &command;
    call(E_CMD_DOCOMMAND);
    ein.DATA.acp = nullptr;
}

void Matrix::user_orders(int delay)
{
    order("desk", delay);
}

void Matrix::user_here_orders(int delay)
{
    order("voltaria-test", delay);
}

void Matrix::user_cancels(int)
{
    std::array<char, 16> name{};
    field_set(name, "desk");
    AGENTCMD command{DATAID_CANCELSHUTDOWN, {.hp = name.data()}};
    ein.DATA.acp = &command;
    call(E_CMD_DOCOMMAND);
    ein.DATA.acp = nullptr;
}

void Matrix::agent_orders(int)
{
    UPS_AGENTDOWNINFO info{};
    info.AgentType = AGENTTYPE_HIGH;
    field_set(info.Agent, "RACK");
    AGENTEVENT event{2, &info};
    ein.DATA.agentevent = &event;
    call(E_CMD_AGENTEVENT);
    ein.DATA.agentevent = nullptr;
}

// A monitor's request arrives in the live record.
void Matrix::ignore_on(int)
{
    ups.up.commparam.bIgnore = 1;
    call(E_CMD_SETCONFIG);
}

// ---- playing

void Matrix::call(std::int32_t cmd)
{
    act(cmd);
    watch();
}

static const char *name_of(REASON reason)
{
    static const std::map<REASON, const char *> NAMES = {
        {SPECIAL, "schedule"}, {WEEKLY, "weekly"},       {MONTHLY, "monthly"},   {AC_FAIL, "mains"},
        {BATT_LOW, "battery"}, {EVENT_TRIGGER, "event"}, {USER_SPECIFY, "user"}, {OTHERAGEDOWN, "agent"},
    };
    const auto name = NAMES.find(reason);
    return name != NAMES.end() ? name->second : NEVER;
}

static void append(std::string &list, std::string_view separator, std::string_view item)
{
    list.append(list.empty() ? "" : separator).append(item);
}

// Looked at after every call: has the shutdown begun, has another cause taken over, was the unit told?
void Matrix::watch()
{
    const std::string cause = name_of(engine.downreason);
    const auto isorder = [](const callback &call) { return std::get<0>(call) == E_CB_UPSDOWN; };
    const auto told_off = std::find_if(recorder.calls.begin(), recorder.calls.end(), isorder);
    if (ups.ui.ShutdownS != 0 && !downing) {
        append(begins, ", ", std::to_string(now));
        wins = cause;
    } else if (ups.ui.ShutdownS != 0 && told_off == recorder.calls.end() && !wins.ends_with(cause)) {
        append(wins, " then ", cause);
    }
    downing = ups.ui.ShutdownS != 0;
    if (told_off != recorder.calls.end()) {
        append(off, ", ", std::to_string(now));
        append(told, ", ",
               std::to_string(std::get<1>(*told_off)) + "/" + std::to_string(std::get<2>(*told_off)));
    }
    recorder.calls.clear();
}

// "user orders 90": the words, and the number behind them.
static int take_number(std::string_view &words)
{
    const std::size_t blank = words.rfind(' ');
    int number = 0;
    if (blank == std::string_view::npos)
        return 0;
    const char *digits = words.data() + blank + 1;
    const char *end = words.data() + words.size();
    if (std::from_chars(digits, end, number).ptr != end)
        return 0;
    words = words.substr(0, blank);
    return number;
}

static std::vector<std::string_view> split(std::string_view text, std::string_view separator)
{
    std::vector<std::string_view> parts;
    for (std::size_t end; (end = text.find(separator)) != std::string_view::npos;) {
        parts.push_back(text.substr(0, end));
        text.remove_prefix(end + separator.size());
    }
    parts.push_back(text);
    return parts;
}

void Matrix::perform(std::string_view items, bool settings)
{
    if (items.empty())
        return;
    for (std::string_view words : split(items, ", ")) {
        const int number = take_number(words);
        const auto entry = std::find_if(VOCABULARY.begin(), VOCABULARY.end(),
                                        [words](const WORDS &known) { return known.words == words; });
        ASSERT_NE(entry, VOCABULARY.end()) << "nothing known as \"" << words << "\"";
        if (entry->setting != settings)
            continue;
        (this->*entry->act)(number);
        ++played;
    }
}

// What is written behind `at` in the list of seconds; empty when there is nothing.
static std::string_view items_at(std::string_view happens, int at)
{
    const std::string prefix = std::to_string(at) + " ";
    for (const std::string_view second : split(happens, " | "))
        if (second.starts_with(prefix))
            return second.substr(prefix.size());
    return {};
}

static std::size_t count_items(std::string_view happens)
{
    std::size_t count = 0;
    for (const std::string_view second : split(happens, " | "))
        count += split(second, ", ").size();
    return count;
}

// Nothing of the row before is left but the programs' own memory, which goes by the steady clock.
void Matrix::prepare(const ROW &row)
{
    pass_time(HOUR);
    block = AGINFO{};
    events = {};
    Engine::SetUp();
    ein.DATA.upsconfigp = &ups.up;
    origin = local_time(2004, 3, 5, 9, 0, 0);
    downing = false;
    played = 0;
    schedules = wins = begins = off = told = shown = "";
    lead = WARNED_BEFORE;
    perform(items_at(row.happens, 0), true);
    write_file(CONFIG_PATH, SETTINGS + std::to_string(lead) + "\n\n[ ScheShutDown ]\n" + schedules);
}

// The agent starts, and the unit is found, a second before all begins.
void Matrix::start()
{
    set_clock(origin - 1);
    ups.ui.CommStatus = COMM_LOST;
    ASSERT_EQ(act(E_CMD_INIT), 0);
    for (UPS_EVENTINFO &event : events)
        event.BroadcastType = 3;  // no terminals
    link_back(0);
    ASSERT_EQ(act(E_CMD_CHECKSTATUS), 0);
    ASSERT_EQ(logged(), (std::vector<int>{7, 1}));
    write_file(LOG_PATH, "");
    recorder = Recorder{};
}

void Matrix::second(const ROW &row, int at)
{
    pass_time(1);
    now = at;
    perform(items_at(row.happens, at), false);
    call(E_CMD_CHECKSTATUS);
    if (std::string_view(row.shown).starts_with(std::to_string(at) + ":"))
        shown = std::to_string(at) + ": " + shown_now();
}

static std::string or_never(const std::string &text)
{
    return text.empty() ? NEVER : text;
}

void Matrix::play(const ROW &row)
{
    SCOPED_TRACE(row.happens);
    prepare(row);
    start();
    for (int at = 0; at <= LONGEST && off.empty() && !HasFatalFailure(); ++at)
        second(row, at);
    EXPECT_EQ(played, count_items(row.happens)) << "something was to happen too late";
    const std::vector<std::string> seen = {or_never(wins), or_never(begins), or_never(off),
                                           event_list(),   or_never(told),   shown};
    EXPECT_EQ(seen,
              (std::vector<std::string>{row.wins, row.begins, row.off, row.events, row.told, row.shown}));
}

// ---- what was seen

std::string Matrix::seconds_of(std::time_t moment) const
{
    return std::to_string(moment - origin);
}

std::string Matrix::shown_now() const
{
    std::string text;
    for (const UPS_TIMEINFO &date : {ups.ui.nextdown, ups.ui.nextboot}) {
        const std::time_t moment =
            local_time(date.year + 1900, date.month, date.day, date.hour, date.minute, date.second);
        append(text, " ", date.year != 0 ? seconds_of(moment) : NEVER);
    }
    return text;
}

// The event that led to the shutdown stands in the line of event 22 alone.
std::string Matrix::event_list()
{
    std::string list;
    std::istringstream log(read_file(LOG_PATH));
    for (std::string line; std::getline(log, line);) {
        const int id = std::stoi(line.substr(20, 4));
        const int cause = std::stoi(line.substr(24, 4));
        append(list, " ", std::to_string(id) + (id == 22 ? "(" + std::to_string(cause) + ")" : ""));
    }
    return list;
}

// The schedules: shutdowns and self-tests on special dates, weekly and monthly. Owns the list that monitors
// read, its stored form in the settings file, and the choice of what comes next. Called by the dispatcher,
// the status monitor and the timer; the timer acts on what is chosen here.
#include "e_a_internal.h"

#include "auto.h"
#include "filehandle.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <sys/stat.h>

static constexpr std::int8_t ACTION_SHUTDOWN = 0;
static constexpr std::int8_t ACTION_TEST = 1;
static constexpr std::array<const char *, 2> SECTIONS = {"ScheShutDown", "ScheTest"};  // by action

// The keys of one kind of entry. All but the count are followed by the entry's number, which runs from 1 in
// each kind and section.
typedef struct _KINDKEYS {
    REASON kind;
    const char *count;
    const char *start;
    const char *end;
    const char *on;        // shutdowns only
    const char *duration;  // shutdowns only, min; null: none
} KINDKEYS;

static constexpr std::array<KINDKEYS, SCHEDULE_KINDS> KINDS = {{
    {SPECIAL, "SPECIALNO", "SPECIALDAYSTART", "SPECIALDAYEND", "SpecScheduleOn", nullptr},
    {WEEKLY, "WEEKLYNO", "WEEKLYSTART", "WEEKLYEND", "WeekScheduleOn", nullptr},
    {MONTHLY, "MONTHLYNO", "MONTHLYSTART", "MONTHLYEND", "MonthScheduleOn", "MONTHLYDUR"},
}};

static constexpr std::int16_t ON_UNLESS_SAID = 1;
static constexpr std::time_t WEEK = 604800;     // s
static constexpr std::time_t SAME_MOMENT = 20;  // starts so close together count as equal; s

// A count in the file may claim any number of entries, and every look-up reads the file from its start. The
// first bound is beyond what a monitor can send at once, the second keeps a huge file from holding the agent.
static constexpr std::int64_t MOST_ENTRIES = 2000;         // of a kind
static constexpr std::int64_t LEAST_ENTRIES = 10;          // are always looked for
static constexpr std::int64_t MOST_BYTES = 1'000'000'000;  // read for one kind
static constexpr std::int64_t LOOKUPS = 5;                 // at most, for one entry

// The list handed out last. A deque, because its nodes stay where they are while it grows.
static std::deque<SCHEDULELIST> nodes;

// ---------------------------------------------------------------------------------------- time texts

const char *infototime(const UPS_TIMEINFO *timeinfo, int kind)
{
    static std::array<char, 64> text;
    std::array<char, 16> moment{};
    const UPS_TIMEINFO &t = *timeinfo;
    std::snprintf(moment.data(), moment.size(), "%i %i", t.minute, t.hour);
    if (kind == SPECIAL)
        std::snprintf(text.data(), text.size(), "%s %i %i * %i", moment.data(), t.day, t.month, t.year);
    else if (kind == WEEKLY)
        std::snprintf(text.data(), text.size(), "%s * * %i", moment.data(), t.day);
    else if (kind == MONTHLY)
        std::snprintf(text.data(), text.size(), "%s %i * *", moment.data(), t.day);
    else
        std::snprintf(text.data(), text.size(), "%s", moment.data());
    return text.data();
}

// The first number of the next field; 0 for "*".
static bool take_number(const char **text, int min, int max, bool last, int &number)
{
    const char *field = next_field(text, min, max, last);
    number = field != nullptr ? wp_atoi(field) : 0;
    return field != nullptr;
}

// What a time text says.
typedef struct _TIMEFIELDS {
    int minute, hour, day, month, weekday, year;
} TIMEFIELDS;

// Special dates count their months from 0, the repeating kinds from 1, as autod and specialdayautod do.
static bool take_fields(const char *text, int kind, TIMEFIELDS &fields)
{
    const bool special = kind == SPECIAL;
    return take_number(&text, 0, 59, false, fields.minute) && take_number(&text, 0, 23, false, fields.hour) &&
           take_number(&text, 1, 31, false, fields.day) &&
           take_number(&text, special ? 0 : 1, special ? 11 : 12, false, fields.month) &&
           take_number(&text, 0, 6, !special, fields.weekday) &&
           (!special || take_number(&text, 0, 300, true, fields.year));
}

int timetoinfo(const char *text, UPS_TIMEINFO *timeinfo, int kind)
{
    TIMEFIELDS fields{};
    if (text == nullptr || !take_fields(text, kind, fields))
        return 1;
    if (kind == SPECIAL)
        timeinfo->year = static_cast<std::uint8_t>(fields.year);
    if (kind == SPECIAL || kind == MONTHLY) {
        timeinfo->month = static_cast<std::int8_t>(fields.month);
        timeinfo->day = static_cast<std::int8_t>(fields.day);
    }
    if (kind == WEEKLY)
        timeinfo->day = static_cast<std::int8_t>(fields.weekday);
    timeinfo->hour = static_cast<std::int8_t>(fields.hour);
    timeinfo->minute = static_cast<std::int8_t>(fields.minute);
    timeinfo->second = 0;
    return 0;
}

// ------------------------------------------------------------------------------------------- loading

static std::string numbered(const char *key, std::int64_t n)
{
    return std::string(key).append(std::to_string(n));
}

static const char *read_numbered(const char *section, const char *key, std::int64_t n)
{
    return readparam(section, numbered(key, n).c_str());
}

static std::int16_t read_on(const char *section, const char *key, std::int64_t n)
{
    const char *text = read_numbered(section, key, n);
    return text != nullptr ? static_cast<std::int16_t>(wp_atoi(text)) : ON_UNLESS_SAID;
}

// When an entry comes next.
typedef struct _OCCURRENCE {
    std::time_t start = 0;
    std::time_t end = 0;
    SCHEDULEINFO info{};
} OCCURRENCE;

static std::time_t next_time(REASON kind, const char *text)
{
    return kind == SPECIAL ? specialdayautod(text) : autod(text);
}

static SCHEDULELIST *append(SCHEDULELIST *prev, const SCHEDULEINFO &info)
{
    SCHEDULELIST &node = nodes.emplace_back();
    node.info = info;
    if (prev != nullptr)
        prev->next = &node;
    return &node;
}

// Reads entry `n` of a kind, appends it behind `prev` and says in `found` when it comes next. Null when a key
// is missing or says no time to come, and when the entry starts at `done`, where the last one of its action
// was carried out: it must not start twice within its minute.
static SCHEDULELIST *fetch(SCHEDULELIST *prev, std::int8_t action, const KINDKEYS &keys, const char *section,
                           std::int64_t n, std::time_t done, OCCURRENCE &found)
{
    const char *text = read_numbered(section, keys.start, n);
    found = OCCURRENCE{};
    if (text != nullptr)
        found.start = next_time(keys.kind, text);
    if (found.start == 0 || found.start == done)
        return nullptr;
    found.info.ID = static_cast<std::int8_t>(keys.kind);
    found.info.ActionID = action;
    timetoinfo(text, &found.info.stimeInfo, keys.kind);
    // Whatever the kind and the action. Shutdowns are given their own key's value by the caller; a self-test
    // shows what the special date of its number has.
    found.info.ScheduleOn = read_on(SECTIONS[ACTION_SHUTDOWN], KINDS[0].on, n);
    text = read_numbered(section, keys.end, n);
    if (text != nullptr)
        found.end = next_time(keys.kind, text);
    if (found.end == 0)
        return nullptr;
    timetoinfo(text, &found.info.etimeInfo, keys.kind);
    if (action == ACTION_SHUTDOWN && keys.duration != nullptr) {
        const char *minutes = read_numbered(section, keys.duration, n);
        if (minutes != nullptr)
            found.end = found.start + std::time_t{wp_atoi(minutes)} * 60;
    }
    return append(prev, found.info);
}

static std::int64_t settings_size()
{
    struct stat status;
    return stat(CONFIG_FILE, &status) == 0 ? status.st_size : 0;
}

// How many entries of a kind are looked for.
static std::int64_t entries_of(const char *section, const KINDKEYS &keys)
{
    const char *text = readparam(section, keys.count);
    const std::int64_t count = text != nullptr ? std::strtoll(text, nullptr, 10) : 0;
    const std::int64_t affordable = MOST_BYTES / LOOKUPS / std::max<std::int64_t>(settings_size(), 1);
    return std::min(count, std::clamp(affordable, LEAST_ENTRIES, MOST_ENTRIES));
}

// What monitors see: a unit that is told when to restart shows with every entry whether it will.
static std::int16_t shown_on(std::int16_t stored)
{
    if (engine.sche_on == 0)
        return stored;
    return engine.sche_on > 0 ? 1 : 0;
}

// The first of several that start together stays.
static void keep_earliest(OCCURRENCE &earliest, const OCCURRENCE &found)
{
    if (earliest.start == 0 || earliest.start > found.start + SAME_MOMENT)
        earliest = found;
}

// Appends the entries of one kind and returns the last node of the list. An entry that is stored as off is
// shown but never chosen, whatever monitors see of it.
static SCHEDULELIST *load_kind(SCHEDULELIST *last, std::int8_t action, const KINDKEYS &keys, std::time_t done,
                               OCCURRENCE &earliest)
{
    const char *section = SECTIONS[static_cast<std::size_t>(action)];
    const std::int64_t count = entries_of(section, keys);
    OCCURRENCE found;
    for (std::int64_t n = 1; n <= count; n++) {
        SCHEDULELIST *node = fetch(last, action, keys, section, n, done, found);
        if (node == nullptr)
            continue;
        last = node;
        std::int16_t stored = ON_UNLESS_SAID;
        if (action == ACTION_SHUTDOWN) {
            stored = read_on(section, keys.on, n);
            node->info.ScheduleOn = shown_on(stored);
        }
        if (stored != 0)
            keep_earliest(earliest, found);
    }
    return last;
}

// What comes first of one action, over all kinds; its start is 0 when nothing does.
static SCHEDULELIST *load_action(SCHEDULELIST *last, std::int8_t action, std::time_t done,
                                 OCCURRENCE &earliest)
{
    for (const KINDKEYS &keys : KINDS)
        last = load_kind(last, action, keys, done, earliest);
    // Both ends of a weekly entry are looked for from now on: within it, this week's end comes first.
    if (earliest.info.ID == WEEKLY && earliest.end <= earliest.start)
        earliest.end += WEEK;
    return last;
}

// ------------------------------------------------------------------------------------ what comes next

static REASON reason_of(const OCCURRENCE &earliest)
{
    return earliest.start != 0 ? static_cast<REASON>(earliest.info.ID) : NONE;
}

// The length of the entry; min, 0 when there is none.
static std::int32_t minutes_of(const OCCURRENCE &earliest, int flag)
{
    std::int32_t minutes = 0;
    const SCHEDULEINFO &info = earliest.info;
    if (earliest.start == 0 || time2duration(info.stimeInfo, info.etimeInfo, &minutes, info.ID, flag) != 0)
        return 0;
    return std::max(minutes, 0);
}

// With automatic restart switched off in the unit a scheduled shutdown still happens, but for good.
static std::int32_t downduration(const OCCURRENCE &earliest)
{
    const std::int64_t seconds = std::int64_t{minutes_of(earliest, 0)} * 60;
    return engine.sche_on < 0 ? 0 : static_cast<std::int32_t>(std::min<std::int64_t>(seconds, INT32_MAX));
}

// The unit has not been told yet when to switch off and for how long.
static bool shutting_down_by_schedule()
{
    return engine.ISSHUTTINGDOWN != 0 && is_scheduled(engine.downreason);
}

// A special date has no next time once its second has come, and the timer may not have acted on it yet.
static bool is_due(std::time_t start, REASON kind, std::time_t done)
{
    const std::time_t now = timenow();
    return kind == SPECIAL && start != 0 && start != done && start <= now && now - start <= SCHEDULE_STALE;
}

static void choose_shutdown(const OCCURRENCE &earliest)
{
    engine.SCH_off = earliest.start;
    engine.SCH_boot = earliest.end;
    engine.schdownreason = reason_of(earliest);
    engine.offBootSpan = std::int64_t{earliest.end} - earliest.start;
    engine.DownDuration = downduration(earliest);
}

// Tests all have the one length.
static void choose_test(const OCCURRENCE &earliest)
{
    engine.next_test = earliest.start;
    engine.schtestreason = reason_of(earliest);
    engine.TestDuration = minutes_of(earliest, 1);
}

// While a scheduled shutdown is due or under way, what was chosen for it stays, whoever asks for the list.
SCHEDULELIST *getschlist()
{
    nodes.clear();
    OCCURRENCE shutdown;
    OCCURRENCE test;
    SCHEDULELIST *last = load_action(nullptr, ACTION_SHUTDOWN, engine.lastdownstart, shutdown);
    load_action(last, ACTION_TEST, engine.lastteststart, test);
    if (!shutting_down_by_schedule() && !is_due(engine.SCH_off, engine.schdownreason, engine.lastdownstart))
        choose_shutdown(shutdown);
    if (!is_due(engine.next_test, engine.schtestreason, engine.lastteststart))
        choose_test(test);
    return nodes.empty() ? nullptr : &nodes.front();
}

// -------------------------------------------------------------------------------------------- saving

// The entries of each kind written so far.
using COUNTS = std::array<int, SCHEDULE_KINDS>;

// One write of a save: 1 when it was lost.
static int store(const char *section, const std::string &key, const std::string &value)
{
    return writeparam(section, key.c_str(), value.c_str()) != 0;
}

// What only shutdowns have.
static int store_shutdown(const SCHEDULEINFO &info, const KINDKEYS &keys, const char *section, int n)
{
    int lost = 0;
    if (keys.duration != nullptr) {
        std::int32_t minutes = 0;
        if (time2duration(info.stimeInfo, info.etimeInfo, &minutes, info.ID, 0) != 0)
            minutes = 0;
        lost += store(section, numbered(keys.duration, n), std::to_string(minutes));
    }
    return lost + store(section, numbered(keys.on, n), std::to_string(info.ScheduleOn));
}

static int store_entry(const SCHEDULEINFO &info, std::array<COUNTS, 2> &counts)
{
    const bool known = info.ID >= SPECIAL && info.ID <= MONTHLY;
    if (!known || (info.ActionID != ACTION_SHUTDOWN && info.ActionID != ACTION_TEST))
        return 0;
    const auto action = static_cast<std::size_t>(info.ActionID);
    const auto row = static_cast<std::size_t>(info.ID - SPECIAL);
    const KINDKEYS &keys = KINDS[row];
    const int n = ++counts[action][row];
    int lost = store(SECTIONS[action], numbered(keys.start, n), infototime(&info.stimeInfo, info.ID));
    lost += store(SECTIONS[action], numbered(keys.end, n), infototime(&info.etimeInfo, info.ID));
    if (info.ActionID == ACTION_SHUTDOWN)
        lost += store_shutdown(info, keys, SECTIONS[action], n);
    return lost;
}

static int store_counts(const std::array<COUNTS, 2> &counts)
{
    int lost = 0;
    for (std::size_t action = 0; action < SECTIONS.size(); action++)
        for (std::size_t row = 0; row < KINDS.size(); row++)
            lost += store(SECTIONS[action], KINDS[row].count, std::to_string(counts[action][row]));
    return lost;
}

// The counts alone say how many entries there are: what a longer list had left in the file stays there.
int setschedule(SCHEDULELIST *list, UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    std::array<COUNTS, 2> counts{};
    int lost = 0;
    if (open_write_batch() != 0)
        return -1;
    for (const SCHEDULELIST *node = list; node != nullptr; node = node->next)
        lost += store_entry(node->info, counts);
    lost += store_counts(counts);
    lost += close_write_batch() != 0;
    if (lost != 0)
        return -1;
    if (!shutting_down_by_schedule())
        engine.SCH_off = 0;
    engine.next_test = 0;
    eventaction(EVENT_SCHEDULECHANGED, ein, eout);
    return 0;
}

// `voltaria schedule`: shutdowns and self-tests on dates, weekly and monthly. The list travels whole; entries
// whose date has passed are no longer in what the agent tells, and so leave its file with the next change.
#include "voltaria_settings.h"

#include "monitor_records.h"
#include "monitor_schedule_text.h"
#include "monitor_settings_json.h"
#include "monitor_text.h"
#include "monitor_words.h"
#include "voltaria_change.h"

#include <algorithm>

using ENTRIES = std::vector<SCHEDULEINFO>;

// A protector's answer looks like that of an agent without schedules, so its role is looked at.
static MONITOR_RESULT read_all(MONITOR_SESSION &session, UPS_UPSINFO &status, ENTRIES &entries)
{
    MONITOR_RESULT result = monitor_status(session, status);
    if (monitor_ok(result) && status.AgentType == AGENTTYPE_PROTECTOR)
        return protector_result();
    return monitor_ok(result) ? monitor_schedules(session, entries) : result;
}

static std::string entry_row(const SCHEDULEINFO &entry)
{
    const bool off = entry.ActionID == SCHEDULE_SHUTDOWN && entry.ScheduleOn == 0;
    return text_padded(schedule_action_words(entry), 11) + schedule_words(entry) + (off ? "  (off)" : "");
}

static std::string entry_table(const ENTRIES &entries)
{
    std::string table;
    for (std::size_t i = 0; i < entries.size(); i++)
        table += text_padded(std::to_string(i + 1), 5) + entry_row(entries[i]) + "\n";
    return table.empty() ? "Nothing is scheduled.\n" : table;
}

int schedule_list(const SCHEDULE_LINE &line)
{
    return with_session(line.connection, [&](MONITOR_SESSION &session) {
        UPS_UPSINFO status{};
        ENTRIES entries;
        const MONITOR_RESULT result = read_all(session, status, entries);
        if (!monitor_ok(result))
            return fail(result);
        return line.json ? print_raw(schedules_json(entries)) : print(entry_table(entries));
    });
}

// ---- Changes ----

static std::size_t count_of(const ENTRIES &entries, const SCHEDULEINFO &entry)
{
    return static_cast<std::size_t>(
        std::count_if(entries.begin(), entries.end(),
                      [&entry](const SCHEDULEINFO &other) { return schedule_same(entry, other); }));
}

// `done` looks at the list that was read back.
static int store(MONITOR_SESSION &session, const ENTRIES &wanted,
                 const std::function<bool(const ENTRIES &)> &done, const std::string &success)
{
    ENTRIES now;
    bool taken = false;
    const MONITOR_RESULT result = write_and_read_back([&] { return monitor_set_schedules(session, wanted); },
                                                      [&] { return monitor_schedules(session, now); },
                                                      [&] { return done(now); }, taken);
    if (!monitor_ok(result))
        return fail(result);
    if (!taken)
        return fail("the agent did not take it: its schedule is now\n" + entry_table(now));
    return print(success);
}

// Of these units the agent shows all shutdowns alike, on or off as the unit restarts by itself or not.
static void warn_of_common_switch(const UPS_UPSINFO &status, const ENTRIES &entries)
{
    const std::string model = text_safe(status.upsmodel, TEXT_CODE::ShiftJis);
    const bool any = std::any_of(entries.begin(), entries.end(), [](const SCHEDULEINFO &entry) {
        return entry.ActionID == SCHEDULE_SHUTDOWN;
    });
    if (any && model.starts_with("ZM"))
        remark("with a " + model +
               " the agent may show all shutdowns alike as on or as off, "
               "and this change stores them as shown");
}

// Units of these models take the time they stay off as four digits of minutes, the others as five.
static long longest_off(const UPS_UPSINFO &status)
{
    const std::string model = text_safe(status.upsmodel, TEXT_CODE::ShiftJis);
    return model.starts_with("ZR401") || model.starts_with("ZR6020") ? 9999 : 99999;
}

static SCHEDULE_WISH wish_of(const SCHEDULE_LINE &line)
{
    SCHEDULE_WISH wish;
    wish.action = line.action == "selftest" ? SCHEDULE_SELFTEST : SCHEDULE_SHUTDOWN;
    wish.kind = line.date ? SCHEDULE_DATE : line.weekly ? SCHEDULE_WEEKLY : SCHEDULE_MONTHLY;
    wish.day = line.date ? *line.date : line.weekly ? *line.weekly : line.monthly.value_or("");
    wish.from = line.from;
    wish.until = line.until;
    wish.on = !line.off;
    return wish;
}

static int add_entry(MONITOR_SESSION &session, SCHEDULE_WISH wish)
{
    UPS_UPSINFO status{};
    ENTRIES entries;
    const MONITOR_RESULT result = read_all(session, status, entries);
    if (!monitor_ok(result))
        return fail(result);
    wish.longest = longest_off(status);
    if (time_valid(status.timeinfo))
        wish.now = status.timeinfo;
    SCHEDULEINFO entry{};
    if (const std::string wrong = schedule_from_wish(wish, entry); !wrong.empty())
        return fail(wrong, EXIT_USAGE);
    if (count_of(entries, entry) != 0)
        return fail("that is scheduled already: " + entry_row(entry));
    if (wish.kind == SCHEDULE_MONTHLY && entry.stimeInfo.day > 28)
        remark("shorter months have no day " + std::to_string(entry.stimeInfo.day) + " and are passed over");
    warn_of_common_switch(status, entries);
    entries.push_back(entry);
    return store(
        session, entries, [&](const ENTRIES &now) { return count_of(now, entry) != 0; },
        "Added: " + entry_row(entry) + "\n");
}

int schedule_add(const SCHEDULE_LINE &line)
{
    const SCHEDULE_WISH wish = wish_of(line);
    const bool test = wish.action == SCHEDULE_SELFTEST;
    if (!test && line.until.empty())
        return fail("a shutdown needs --until: when the UPS switches on again", EXIT_USAGE);
    if (test && (!line.until.empty() || line.off))
        return fail("a self-test has neither an end nor a switch", EXIT_USAGE);
    SCHEDULEINFO any{};
    if (const std::string wrong = schedule_from_wish(wish, any); !wrong.empty())
        return fail(wrong, EXIT_USAGE);
    return with_session(line.connection, [&](MONITOR_SESSION &session) { return add_entry(session, wish); });
}

static int remove_entry(MONITOR_SESSION &session, const SCHEDULE_LINE &line)
{
    UPS_UPSINFO status{};
    ENTRIES entries;
    const MONITOR_RESULT result = read_all(session, status, entries);
    if (!monitor_ok(result))
        return fail(result);
    const auto place = static_cast<std::size_t>(line.number) - 1;
    if (place >= entries.size())
        return fail("there is no entry " + std::to_string(line.number) + "; the schedule is\n" +
                    entry_table(entries));
    const SCHEDULEINFO entry = entries[place];
    const std::size_t before = count_of(entries, entry);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(place));
    warn_of_common_switch(status, entries);
    return store(
        session, entries, [&](const ENTRIES &now) { return count_of(now, entry) < before; },
        "Removed: " + entry_row(entry) + "\n");
}

int schedule_remove(const SCHEDULE_LINE &line)
{
    return with_session(line.connection,
                        [&](MONITOR_SESSION &session) { return remove_entry(session, line); });
}

// The two directions of a schedule entry's text. An entry's day means something else in each kind: a date, a
// day of the week from Sunday 0, a day of the month.
#include "monitor_schedule_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>

static constexpr std::array<std::string_view, 7> WEEKDAYS = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                             "Thursday", "Friday", "Saturday"};
static constexpr int FIRST_YEAR = 1900;
static constexpr long MINUTES_OF_DAY = 24 * 60;
static constexpr long MINUTES_OF_WEEK = 7 * MINUTES_OF_DAY;

template <typename... VALUES> static std::string format(const char *pattern, VALUES... values)
{
    std::array<char, 160> buffer{};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): every pattern is a literal of this file
    std::snprintf(buffer.data(), buffer.size(), pattern, values...);
    return buffer.data();
}

// ---- Entries in words ----

static bool within(int value, int low, int high)
{
    return value >= low && value <= high;
}

static bool day_possible(const UPS_TIMEINFO &time, int kind)
{
    switch (kind) {
    case SCHEDULE_DATE:
        return within(time.month, 0, 11) && within(time.day, 1, 31);
    case SCHEDULE_WEEKLY:
        return within(time.day, 0, 6);
    default:
        return within(time.day, 1, 31);
    }
}

static bool possible(const UPS_TIMEINFO &time, int kind)
{
    return within(time.hour, 0, 23) && within(time.minute, 0, 59) && day_possible(time, kind);
}

std::string schedule_clock(const UPS_TIMEINFO &time)
{
    return format("%02d:%02d", time.hour, time.minute);
}

std::string schedule_day(const UPS_TIMEINFO &time, int kind)
{
    if (kind == SCHEDULE_WEEKLY)
        return std::string(WEEKDAYS[static_cast<std::size_t>(time.day)]);
    if (kind == SCHEDULE_MONTHLY)
        return std::to_string(time.day);
    return format("%04d-%02d-%02d", FIRST_YEAR + time.year, time.month + 1, time.day);
}

static std::string day_words(const UPS_TIMEINFO &time, int kind)
{
    return (kind == SCHEDULE_MONTHLY ? "day " : "") + schedule_day(time, kind);
}

static std::string start_words(const SCHEDULEINFO &entry)
{
    static constexpr std::array<const char *, 4> leads = {"", "", "every ", "every month on "};
    return leads[static_cast<std::size_t>(entry.ID)] + day_words(entry.stimeInfo, entry.ID) + " " +
           schedule_clock(entry.stimeInfo);
}

static int minute_of_day(const UPS_TIMEINFO &time)
{
    return time.hour * 60 + time.minute;
}

static std::string end_words(const SCHEDULEINFO &entry)
{
    const UPS_TIMEINFO &end = entry.etimeInfo;
    const bool same_day = day_words(entry.stimeInfo, entry.ID) == day_words(end, entry.ID);
    const bool later = minute_of_day(end) > minute_of_day(entry.stimeInfo);
    if (same_day && (later || entry.ID == SCHEDULE_DATE))
        return " to " + schedule_clock(end);
    std::string text = " to " + day_words(end, entry.ID) + " " + schedule_clock(end);
    if (!same_day)
        return text;
    return text + (entry.ID == SCHEDULE_WEEKLY ? " of the next week" : " of the next month");
}

static std::string raw_words(const SCHEDULEINFO &entry)
{
    const auto numbers = [](const UPS_TIMEINFO &t) {
        return format("%d-%d-%d %d:%d", t.year, t.month, t.day, t.hour, t.minute);
    };
    return "invalid (" + numbers(entry.stimeInfo) + " to " + numbers(entry.etimeInfo) + ")";
}

bool schedule_possible(const SCHEDULEINFO &entry)
{
    return within(entry.ID, SCHEDULE_DATE, SCHEDULE_MONTHLY) && possible(entry.stimeInfo, entry.ID) &&
           (entry.ActionID == SCHEDULE_SELFTEST || possible(entry.etimeInfo, entry.ID));
}

std::string schedule_words(const SCHEDULEINFO &entry)
{
    if (!schedule_possible(entry))
        return raw_words(entry);
    return start_words(entry) + (entry.ActionID == SCHEDULE_SELFTEST ? "" : end_words(entry));
}

std::string schedule_action_words(const SCHEDULEINFO &entry)
{
    if (entry.ActionID == SCHEDULE_SHUTDOWN)
        return "shutdown";
    return entry.ActionID == SCHEDULE_SELFTEST ? "self-test" : format("action %d", entry.ActionID);
}

std::string schedule_kind_words(const SCHEDULEINFO &entry)
{
    static constexpr std::array<const char *, 4> names = {"", "date", "weekly", "monthly"};
    if (!within(entry.ID, SCHEDULE_DATE, SCHEDULE_MONTHLY))
        return format("kind %d", entry.ID);
    return names[static_cast<std::size_t>(entry.ID)];
}

static bool same_time(const UPS_TIMEINFO &left, const UPS_TIMEINFO &right, int kind)
{
    const bool date = kind != SCHEDULE_DATE || (left.year == right.year && left.month == right.month);
    return date && left.day == right.day && left.hour == right.hour && left.minute == right.minute;
}

bool schedule_same(const SCHEDULEINFO &left, const SCHEDULEINFO &right)
{
    if (left.ID != right.ID || left.ActionID != right.ActionID ||
        !same_time(left.stimeInfo, right.stimeInfo, left.ID))
        return false;
    return left.ActionID == SCHEDULE_SELFTEST || (same_time(left.etimeInfo, right.etimeInfo, left.ID) &&
                                                  (left.ScheduleOn != 0) == (right.ScheduleOn != 0));
}

// ---- Entries from words ----

// A number of one to `digits` digits that is all of `text`.
static std::optional<int> number(std::string_view text, std::size_t digits)
{
    int value = 0;
    const char *end = text.data() + text.size();
    if (text.empty() || text.size() > digits || text[0] == '-')
        return std::nullopt;
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

static std::optional<UPS_TIMEINFO> parse_clock(std::string_view text)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || text.size() - colon != 3)
        return std::nullopt;
    const auto hour = number(text.substr(0, colon), 2);
    const auto minute = number(text.substr(colon + 1), 2);
    if (!hour || !minute || *hour > 23 || *minute > 59)
        return std::nullopt;
    UPS_TIMEINFO time{};
    time.hour = static_cast<std::int8_t>(*hour);
    time.minute = static_cast<std::int8_t>(*minute);
    return time;
}

static char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// A whole name or its first letters, three at least.
static std::optional<int> parse_weekday(std::string_view text)
{
    const auto begins = [text](std::string_view name) {
        return text.size() >= 3 && text.size() <= name.size() &&
               std::equal(text.begin(), text.end(), name.begin(),
                          [](char a, char b) { return lower(a) == lower(b); });
    };
    const auto *const found = std::find_if(WEEKDAYS.begin(), WEEKDAYS.end(), begins);
    if (found == WEEKDAYS.end())
        return std::nullopt;
    return static_cast<int>(found - WEEKDAYS.begin());
}

static std::chrono::year_month_day calendar_day(const UPS_TIMEINFO &time)
{
    return {std::chrono::year(FIRST_YEAR + time.year),
            std::chrono::month(static_cast<unsigned>(time.month) + 1),
            std::chrono::day(static_cast<unsigned>(time.day))};
}

static bool parse_date(std::string_view text, UPS_TIMEINFO &time)
{
    if (text.size() != 10 || text[4] != '-' || text[7] != '-')
        return false;
    const auto year = number(text.substr(0, 4), 4);
    const auto month = number(text.substr(5, 2), 2);
    const auto day = number(text.substr(8, 2), 2);
    if (!year || !month || !day || !within(*year, FIRST_YEAR, FIRST_YEAR + 255) || *month < 1)
        return false;
    time.year = static_cast<std::uint8_t>(*year - FIRST_YEAR);
    time.month = static_cast<std::int8_t>(*month - 1);
    time.day = static_cast<std::int8_t>(*day);
    return calendar_day(time).ok();
}

bool parse_calendar_date(std::string_view text, UPS_TIMEINFO &date)
{
    UPS_TIMEINFO parsed{};
    if (!parse_date(text, parsed))
        return false;
    parsed.month = static_cast<std::int8_t>(parsed.month + 1);
    date = parsed;
    return true;
}

static bool parse_day(std::string_view text, int kind, UPS_TIMEINFO &time)
{
    if (kind == SCHEDULE_DATE)
        return parse_date(text, time);
    const auto day = kind == SCHEDULE_WEEKLY ? parse_weekday(text) : number(text, 2);
    if (!day || (kind == SCHEDULE_MONTHLY && !within(*day, 1, 31)))
        return false;
    time.day = static_cast<std::int8_t>(*day);
    return true;
}

static std::string wanted_day(int kind)
{
    static constexpr std::array<const char *, 4> wanted = {"", "a date such as 2026-12-24",
                                                           "a day such as monday", "a day from 1 to 31"};
    return wanted[static_cast<std::size_t>(kind)];
}

// Minutes from a beginning that is the same for both ends of an entry.
static long minutes(const UPS_TIMEINFO &time, int kind)
{
    long days = time.day;
    if (kind == SCHEDULE_DATE)
        days = std::chrono::sys_days(calendar_day(time)).time_since_epoch().count();
    return days * MINUTES_OF_DAY + minute_of_day(time);
}

static void next_day(UPS_TIMEINFO &time, int kind)
{
    if (kind != SCHEDULE_DATE) {
        const int last = kind == SCHEDULE_WEEKLY ? 6 : 31;
        const int first = kind == SCHEDULE_WEEKLY ? 0 : 1;
        time.day = static_cast<std::int8_t>(time.day == last ? first : time.day + 1);
        return;
    }
    const std::chrono::year_month_day next(std::chrono::sys_days(calendar_day(time)) + std::chrono::days(1));
    time.year = static_cast<std::uint8_t>(static_cast<int>(next.year()) - FIRST_YEAR);
    time.month = static_cast<std::int8_t>(static_cast<unsigned>(next.month()) - 1);
    time.day = static_cast<std::int8_t>(static_cast<unsigned>(next.day()));
}

// The end without a day: today, or tomorrow when that is past.
static std::string parse_end(const SCHEDULE_WISH &wish, SCHEDULEINFO &entry)
{
    const std::size_t blank = wish.until.rfind(' ');
    const bool has_day = blank != std::string::npos;
    const auto clock = parse_clock(std::string_view(wish.until).substr(has_day ? blank + 1 : 0));
    if (!clock)
        return "the end must be HH:MM or a day and HH:MM, not \"" + wish.until + "\"";
    UPS_TIMEINFO &end = entry.etimeInfo = *clock;
    if (has_day)
        return parse_day(std::string_view(wish.until).substr(0, blank), wish.kind, end)
                   ? ""
                   : wanted_day(wish.kind) + " is wanted before the end's time, not \"" + wish.until + "\"";
    end.year = entry.stimeInfo.year;
    end.month = entry.stimeInfo.month;
    end.day = entry.stimeInfo.day;
    if (minute_of_day(end) <= minute_of_day(entry.stimeInfo))
        next_day(end, wish.kind);
    return "";
}

// How long the entry lasts, as the agent will reckon; min.
static long length(const SCHEDULEINFO &entry)
{
    const long span = minutes(entry.etimeInfo, entry.ID) - minutes(entry.stimeInfo, entry.ID);
    if (span > 0 || entry.ID == SCHEDULE_DATE)
        return span;
    return span + (entry.ID == SCHEDULE_WEEKLY ? MINUTES_OF_WEEK : 31 * MINUTES_OF_DAY);
}

static std::string judge_length(const SCHEDULE_WISH &wish, const SCHEDULEINFO &entry)
{
    const long lasts = length(entry);
    if (lasts <= 0)
        return "the end must lie after the start";
    if (lasts > wish.longest)
        return "the unit can stay off for " + std::to_string(wish.longest) + " minutes at most, not for " +
               std::to_string(lasts);
    return "";
}

static std::string judge_start(const SCHEDULE_WISH &wish, const SCHEDULEINFO &entry)
{
    UPS_TIMEINFO now = wish.now;
    if (wish.kind != SCHEDULE_DATE || now.month == 0)
        return "";
    now.month = static_cast<std::int8_t>(now.month - 1);
    if (minutes(entry.stimeInfo, SCHEDULE_DATE) > minutes(now, SCHEDULE_DATE))
        return "";
    return "that time has passed: it is " + day_words(now, SCHEDULE_DATE) + " " + schedule_clock(now) +
           " at the agent";
}

std::string schedule_from_wish(const SCHEDULE_WISH &wish, SCHEDULEINFO &entry)
{
    SCHEDULEINFO made{};
    made.ID = wish.kind;
    made.ActionID = wish.action;
    made.ScheduleOn = wish.on ? 1 : 0;
    const auto clock = parse_clock(wish.from);
    if (!clock)
        return "the start must be HH:MM, not \"" + wish.from + "\"";
    made.stimeInfo = *clock;
    if (!parse_day(wish.day, wish.kind, made.stimeInfo))
        return wanted_day(wish.kind) + " is wanted, not \"" + wish.day + "\"";
    const bool test = wish.action == SCHEDULE_SELFTEST;
    SCHEDULE_WISH whole = wish;
    if (test) {  // the agent wants an end, too, and makes every test last ten minutes
        const int end = (minute_of_day(made.stimeInfo) + 10) % static_cast<int>(MINUTES_OF_DAY);
        whole.until = format("%02d:%02d", end / 60, end % 60);
    }
    std::string wrong = parse_end(whole, made);
    if (wrong.empty() && !test)
        wrong = judge_length(wish, made);
    if (wrong.empty())
        wrong = judge_start(wish, made);
    if (wrong.empty())
        entry = made;
    return wrong;
}

// Time arithmetic of the schedules: the next time that a repeating text matches, the time of a special date,
// the length of an entry. Called by the schedule list and the timer. Nothing here allocates, and the work is
// bounded whatever the text: it reads the calendar of at most nine years.
//
// A repeating text is matched against the plain calendar first; then the way from now to the match is
// searched for a change of the zone's offset. If there is one, the calendar is read again from the change on.
// So an hour that is skipped never matches, and one that is repeated matches twice.
#include "auto_internal.h"

#include <algorithm>
#include <array>
#include <cstddef>

static constexpr int HOUR = 60;  // min
static constexpr int DAY = 1440;
static constexpr std::time_t MINUTE_SECONDS = 60;
static constexpr std::time_t DAY_SECONDS = 86400;

// 29 February 2096 and 2104 are eight years apart, the most between two equal dates.
static constexpr int SEARCH_MONTHS = 9 * 12;
static constexpr std::time_t SEARCH_SECONDS = 9 * 366 * DAY_SECONDS;

// Kinds of schedule entries.
static constexpr int SPECIALDAY = 1;
static constexpr int WEEKDAY = 2;
static constexpr int MONTHDAY = 3;

// Days of each month; February's 29th is days_in_mon's.
static constexpr std::array<int, 12> dom = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

typedef struct _DATE {
    std::int64_t year;  // wide enough for any tm_year + 1900
    int month;          // 1-12
    int day;            // 1-31
} DATE;

// A repeating time.
typedef struct _TIMESETS {
    FIELDSET minute;
    FIELDSET hour;
    FIELDSET day;
    FIELDSET month;
    FIELDSET weekday;
} TIMESETS;

typedef struct _TIMEFIELD {
    int min;
    int max;
    FIELDSET TIMESETS::*set;
} TIMEFIELD;

// The fields of a repeating time, in their order in the text.
static constexpr std::array<TIMEFIELD, 5> TIMEFIELDS = {{
    {0, 59, &TIMESETS::minute},
    {0, 23, &TIMESETS::hour},
    {1, 31, &TIMESETS::day},
    {1, 12, &TIMESETS::month},
    {0, 6, &TIMESETS::weekday},
}};

typedef struct _DATEFIELD {
    int min;
    int max;
    int std::tm::*part;
} DATEFIELD;

// The fields of a special date. Its months count from 0, those of a repeating time from 1: both are in the
// settings files of running machines.
static constexpr std::array<DATEFIELD, 6> DATEFIELDS = {{
    {0, 59, &std::tm::tm_min},
    {0, 23, &std::tm::tm_hour},
    {1, 31, &std::tm::tm_mday},
    {0, 11, &std::tm::tm_mon},
    {0, 6, &std::tm::tm_wday},
    {0, 300, &std::tm::tm_year},
}};

// ------------------------------------------------------------------------------------------- calendar

static int days_in_mon(int month, std::int64_t year)
{
    const bool isleap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return dom[static_cast<std::size_t>(month) - 1] + (month == 2 && isleap ? 1 : 0);
}

static DATE first_of_next_month(const DATE &date)
{
    return date.month == 12 ? DATE{date.year + 1, 1, 1} : DATE{date.year, date.month + 1, 1};
}

// Days from one date to another that is not before it.
static int days_btwn(DATE from, const DATE &to)
{
    int days = 0;
    while (from.year != to.year || from.month != to.month) {
        days += days_in_mon(from.month, from.year) - from.day + 1;
        from = first_of_next_month(from);
    }
    return days + to.day - from.day;
}

static bool lists(FIELDSET field, int value)
{
    return (field >> value & 1U) != 0;
}

// Both given: either is enough. "*" alone is not given, and matches only when the other is not given either.
static bool day_matches(const TIMESETS &times, int day, int weekday)
{
    if (times.day == EVERY)
        return lists(times.weekday, weekday);
    return lists(times.day, day) || (times.weekday != EVERY && lists(times.weekday, weekday));
}

// Days from `today`, which is a `weekday`, to the first date that matches, skipping the first `ahead` days;
// -1 when no date ever matches.
static int next_day(const TIMESETS &times, const DATE &today, int weekday, int ahead)
{
    DATE date = today;
    for (int month = 0; month <= SEARCH_MONTHS; ++month, date = first_of_next_month(date)) {
        if (!lists(times.month, date.month))
            continue;
        int days = days_btwn(today, date);
        for (int day = date.day; day <= days_in_mon(date.month, date.year); ++day, ++days)
            if (days >= ahead && day_matches(times, day, (weekday + days) % 7))
                return days;
    }
    return -1;
}

// The first listed minute of the day at or after `minute`, -1 when none is left.
static int next_minute(const TIMESETS &times, int minute)
{
    const int hour = minute / HOUR;
    if (next_ge(hour, times.hour) == hour && next_ge(minute % HOUR, times.minute) >= minute % HOUR)
        return hour * HOUR + next_ge(minute % HOUR, times.minute);
    const int later = next_ge(hour + 1, times.hour);
    return later > hour && later * HOUR < DAY ? later * HOUR + next_ge(0, times.minute) : -1;
}

// Minutes from the local minute `from` to the first one that matches, by a calendar in which every day has 24
// hours; -1 when none ever does.
static int next_time(const TIMESETS &times, const std::tm &from)
{
    const DATE today = {std::int64_t{from.tm_year} + 1900, from.tm_mon + 1, from.tm_mday};
    const int now = from.tm_hour * HOUR + from.tm_min;
    const int left = next_minute(times, now);
    const int days = next_day(times, today, from.tm_wday, left >= 0 ? 0 : 1);
    if (days < 0)
        return -1;
    return days * DAY + (days == 0 ? left : next_minute(times, 0)) - now;
}

// ------------------------------------------------------------------------------------------ real time

static long offset_at(std::time_t t)
{
    std::tm local{};
    localtime_r(&t, &local);
    return local.tm_gmtoff;
}

// The first second after `from` and up to `to` whose offset is another, 0 when there is none. No zone changes
// back within a day, so one look a day is enough.
static std::time_t offset_change(std::time_t from, std::time_t to)
{
    const long offset = offset_at(from);
    std::time_t probe = from;
    while (probe < to && offset_at(probe) == offset) {
        from = probe;
        probe = std::min(probe + DAY_SECONDS, to);
    }
    if (offset_at(probe) == offset)
        return 0;
    while (probe - from > 1) {
        const std::time_t middle = from + (probe - from) / 2;
        (offset_at(middle) == offset ? from : probe) = middle;
    }
    return probe;
}

static std::time_t first_match(const TIMESETS &times, std::time_t now)
{
    std::tm local{};
    std::time_t from = localtime_r(&now, &local) != nullptr ? now - local.tm_sec : now;
    while (from - now <= SEARCH_SECONDS && localtime_r(&from, &local) != nullptr) {
        if (local.tm_sec != 0) {  // an offset in seconds has put the minutes elsewhere
            from += std::max(1, 60 - local.tm_sec);
            continue;
        }
        const int ahead = next_time(times, local);
        if (ahead < 0)
            return 0;
        const std::time_t found = from + ahead * MINUTE_SECONDS;
        const std::time_t change = offset_change(from, found);
        if (change == 0)
            return found;
        from = change;
    }
    return 0;
}

static bool read_times(const char *text, TIMESETS &times)
{
    for (const TIMEFIELD &field : TIMEFIELDS) {
        const bool last = &field == &TIMEFIELDS.back();
        const std::string_view found = take_field(&text, field.min, field.max, last);
        if (found.empty())
            return false;
        times.*field.set = field_numbers(found, field.min, field.max);
    }
    return true;
}

std::time_t autod(const char *text)
{
    TIMESETS times{};
    if (!read_times(text, times))
        return 0;
    tzset();  // localtime_r alone would not notice that the zone was changed
    return first_match(times, std::time(nullptr));
}

static bool read_date(const char *text, std::tm &date)
{
    for (const DATEFIELD &field : DATEFIELDS) {
        const bool last = &field == &DATEFIELDS.back();
        const std::string_view found = take_field(&text, field.min, field.max, last);
        if (found.empty())
            return false;
        const char *number = found.data();
        date.*field.part = num(&number, field.min, field.max);
        if (date.*field.part < 0 && field.part != &std::tm::tm_wday)
            return false;
    }
    return true;
}

std::time_t specialdayautod(const char *text)
{
    std::tm date{};
    if (!read_date(text, date))
        return 0;
    date.tm_isdst = -1;
    const std::time_t when = std::mktime(&date);
    return when > std::time(nullptr) ? when : 0;
}

// ------------------------------------------------------------------------------------------- duration

// A weekly entry lies in the present week, Sunday first, a monthly one in the present month.
static std::time_t entry_time(const UPS_TIMEINFO &entry, int type, const std::tm &today)
{
    std::tm date{};
    date.tm_year = type == SPECIALDAY ? entry.year : today.tm_year;
    date.tm_mon = type == SPECIALDAY ? entry.month : today.tm_mon;
    date.tm_mday = type == WEEKDAY ? today.tm_mday - (today.tm_wday - entry.day) : entry.day;
    date.tm_hour = entry.hour;
    date.tm_min = entry.minute;
    date.tm_sec = entry.second;
    date.tm_isdst = -1;
    return std::mktime(&date);
}

int time2duration(const UPS_TIMEINFO &start, const UPS_TIMEINFO &end, std::int32_t *minutes, int type,
                  int flag)
{
    if (flag == 1) {
        *minutes = 10;
        return 0;
    }
    if (type < SPECIALDAY || type > MONTHDAY)
        return -1;
    const std::time_t now = std::time(nullptr);
    std::tm today{};
    tzset();
    if (localtime_r(&now, &today) == nullptr)
        return -1;
    std::time_t seconds = entry_time(end, type, today) - entry_time(start, type, today);
    if (seconds <= 0 && type == SPECIALDAY)
        return -1;
    if (seconds <= 0)
        seconds += (type == WEEKDAY ? 7 : 31) * DAY_SECONDS;
    *minutes = static_cast<std::int32_t>(seconds / MINUTE_SECONDS);
    return 0;
}

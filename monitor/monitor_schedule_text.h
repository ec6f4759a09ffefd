// Schedules in words and from words: what `voltaria schedule` prints of an entry and what it makes of the
// options of a new one. Months of special dates count from 0 here, as the agent sends them to a monitor that
// calls itself a Linux one. Nothing here asks the agent or the clock.
#pragma once

#include "schedule_records.h"

#include <string>
#include <string_view>

inline constexpr std::int8_t SCHEDULE_DATE = 1;
inline constexpr std::int8_t SCHEDULE_WEEKLY = 2;
inline constexpr std::int8_t SCHEDULE_MONTHLY = 3;

inline constexpr std::int8_t SCHEDULE_SHUTDOWN = 0;
inline constexpr std::int8_t SCHEDULE_SELFTEST = 1;

// A new entry as a person wrote it.
struct SCHEDULE_WISH {
    std::int8_t action = SCHEDULE_SHUTDOWN;
    std::int8_t kind = SCHEDULE_DATE;
    std::string day{};     // "2026-12-24", "monday" or "mon", "15"
    std::string from{};    // "22:00"
    std::string until{};   // "06:00", or a day of the kind in front of it; empty for a self-test
    bool on = true;        // an entry that is off is kept and not carried out
    UPS_TIMEINFO now{};    // the agent's clock, month 1 to 12; all zero: not known
    long longest = 99999;  // min; how long the unit can stay off
};

/// Makes the entry. Returns what is wrong with the wish, "" when the entry is made. An end that names no day
/// is the first such time after the start.
[[nodiscard]] std::string schedule_from_wish(const SCHEDULE_WISH &wish, SCHEDULEINFO &entry);

/// "every Monday 22:00 to Tuesday 06:00", "2026-12-24 22:00 to 23:30", "every month on day 15 08:05 to
/// 10:00"; a self-test has no end. Entries with impossible fields are shown as "invalid (...)" with their
/// numbers.
[[nodiscard]] std::string schedule_words(const SCHEDULEINFO &entry);

/// True when every field that belongs to the entry's kind is within its range.
[[nodiscard]] bool schedule_possible(const SCHEDULEINFO &entry);

/// Parts of a possible entry's times: "2026-12-24", "Monday" or "15"; "22:00".
[[nodiscard]] std::string schedule_day(const UPS_TIMEINFO &time, int kind);
[[nodiscard]] std::string schedule_clock(const UPS_TIMEINFO &time);

/// "shutdown", "self-test" or "action N".
[[nodiscard]] std::string schedule_action_words(const SCHEDULEINFO &entry);

/// "date", "weekly", "monthly" or "kind N".
[[nodiscard]] std::string schedule_kind_words(const SCHEDULEINFO &entry);

/// True when the agent would store both alike: fields that do not belong to the kind are passed over, and so
/// are the end and the switch of a self-test.
[[nodiscard]] bool schedule_same(const SCHEDULEINFO &left, const SCHEDULEINFO &right);

/// "2024-02-29" as a date with month 1 to 12 and no time of day. False, with `date` as it was, for what is no
/// day of the calendar from 1900 to 2155.
[[nodiscard]] bool parse_calendar_date(std::string_view text, UPS_TIMEINFO &date);

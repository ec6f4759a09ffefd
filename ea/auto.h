// Time arithmetic of the schedules: when does a time text match next, how long is an entry. Pure functions of
// the clock and the process's time zone. Called by the schedule list and the timer.
//
// A time text is a row of fields between blanks or tabs. A field is "*" or a list, separated by commas, of
// numbers and ranges such as "8-17". A range whose second number is not above its first wraps round the ends
// of the field: "22-5" is 22, 23, 0 to 5 for an hour, and "5-5" is everything.
#pragma once

#include "ups_records.h"

#include <cstdint>
#include <ctime>

/// The next minute at or after the one that now lies in whose local time matches `text`: minute, hour, day of
/// month, month (1-12), day of week (0-6, Sunday 0). Days are matched as cron does: when both day fields are
/// given, either is enough. Returns the minute's start; 0 when a field is malformed or nothing matches within
/// nine years.
std::time_t autod(const char *text);

/// The local time that `text` names: minute, hour, day, month (0-11), day of week (ignored), year (since
/// 1900). Of a list or range the first number counts; "*" stands for the day of week only. 0 when that time
/// is not in the future or a field is malformed. A date that the month does not have is the one as many days
/// later: 31 April is 1 May.
std::time_t specialdayautod(const char *text);

/// The length of a schedule entry of `type` (1 special date, 2 weekly, 3 monthly) in `*minutes`; always 10
/// with `flag` 1. Returns 0, or -1, `*minutes` unchanged, when a special date does not end after its start or
/// the type is another one.
int time2duration(const UPS_TIMEINFO &start, const UPS_TIMEINFO &end, std::int32_t *minutes, int type,
                  int flag);

/// Takes the next field of `*text`, whose numbers lie in [min, max], and moves `*text` behind it. `last`: the
/// text must end there; otherwise a blank or tab must follow. Returns the field ("*", or text that starts
/// with its first number) in a static buffer that is good until the next call; null, `*text` unchanged, when
/// it is malformed or longer than any setting.
const char *next_field(const char **text, int min, int max, bool last);

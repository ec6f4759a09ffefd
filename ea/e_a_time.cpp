// Time and number texts that the logs, the settings and the notices share. Pure functions of the clock
// and the process's time zone; the only state is the static text buffers. Called by every engine file.
#include "e_a_internal.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

static constexpr std::array<std::string_view, 12> MONTHS = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Room for three decimal ints and their separators.
using time_text = std::array<char, 40>;

std::time_t timenow()
{
    return std::time(nullptr);
}

int montoid(const char *name)
{
    if (name == nullptr)
        return -1;
    for (std::size_t i = 0; i < MONTHS.size(); i++)
        if (std::string_view(name).starts_with(MONTHS[i]))
            return static_cast<int>(i) + 1;
    return -1;
}

static std::int8_t byte_at(const char *text)
{
    return static_cast<std::int8_t>(std::atoi(text));
}

static std::int8_t digit_pair(const char *text)
{
    return static_cast<std::int8_t>((text[0] - '0') * 10 + (text[1] - '0'));
}

// Looking whether the machine's time zone was changed costs a file look-up and memory: once a minute is
// enough.
static void refresh_zone()
{
    static std::time_t refreshed = -1;  // minutes since the epoch
    const std::time_t minute = timenow() / 60;
    if (minute != refreshed)
        tzset();
    refreshed = minute;
}

// wReserver belongs to the caller and is left alone, except by the all-zero time.
int gettime(std::time_t t, UPS_TIMEINFO *timeinfo)
{
    if (t < 0)
        return -1;
    if (t == 0) {
        *timeinfo = UPS_TIMEINFO{};
        return 0;
    }
    refresh_zone();
    std::tm parts;
    std::array<char, 64> buffer;
    if (localtime_r(&t, &parts) == nullptr)
        return -1;
    const char *text = asctime_r(&parts, buffer.data());  // "Fri Mar  5 09:07:02 2004\n"
    if (text == nullptr)
        return -1;
    timeinfo->year = static_cast<std::uint8_t>(std::atoi(text + 19) - 1900);
    const int month = montoid(text + 4);
    if (month < 0)
        return -1;
    timeinfo->month = static_cast<std::int8_t>(month);
    timeinfo->day = byte_at(text + 8);
    timeinfo->hour = digit_pair(text + 11);
    timeinfo->minute = digit_pair(text + 14);
    timeinfo->second = digit_pair(text + 17);
    return 0;
}

const char *itoc(std::uint32_t n)
{
    static std::array<char, 100> ruler;
    char *digit = ruler.data() + ruler.size() - 1;
    *digit = '\0';
    do {
        *--digit = static_cast<char>('0' + n % 10);
        n /= 10;
    } while (n != 0);
    if (engine.glob_ne != 0) {
        *--digit = '-';
        engine.glob_ne = 0;
    }
    return digit;
}

// A time beyond the calendar reads as all zeros instead of a null record.
static std::tm local(std::time_t t)
{
    const std::tm *parts = std::localtime(&t);
    return parts != nullptr ? *parts : std::tm{};
}

static std::tm local_from_now(std::time_t offset)
{
    return local(std::time(nullptr) + offset);
}

static const char *date_text(time_text &text, const std::tm &date)
{
    std::snprintf(text.data(), text.size(), "%d-%d-%d", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday);
    return text.data();
}

static const char *clock_text(time_text &text, int hour, int minute, int second)
{
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d", hour, minute, second);
    return text.data();
}

int user_year(std::time_t offset)
{
    return local_from_now(offset).tm_year + 1900;
}

int user_month(std::time_t offset)
{
    return local_from_now(offset).tm_mon + 1;
}

int user_day(std::time_t offset)
{
    return local_from_now(offset).tm_mday;
}

const char *user_date(std::time_t offset)
{
    static time_text text;
    return date_text(text, local_from_now(offset));
}

// Notices announce a minute, never a second.
const char *user_time(std::time_t offset)
{
    static time_text text;
    const std::tm when = local_from_now(offset);
    return clock_text(text, when.tm_hour, when.tm_min, 0);
}

const char *user_date_real(std::time_t t)
{
    static time_text text;
    return date_text(text, local(t));
}

const char *user_time_real(std::time_t t)
{
    static time_text text;
    const std::tm when = local(t);
    return clock_text(text, when.tm_hour, when.tm_min, when.tm_sec);
}

int user_time_m(std::time_t seconds)
{
    return static_cast<int>(seconds / 60);
}

int user_time_s(std::time_t seconds)
{
    return static_cast<int>(seconds % 60);
}

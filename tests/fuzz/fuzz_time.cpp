// The time arithmetic of the schedules on any text, clock and entry. Input: a byte that chooses the zone,
// four that are the clock, sixteen that are the start and end of an entry; the rest is the time text. An
// answer is a minute that matches, not before now, and none before it within the next hours; malformed text
// has none.
#include "ea/auto.h"
#include "fuzz_support.h"
#include "tests/unit/auto_oracle.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

std::time_t clock_now;

extern "C" std::time_t time(std::time_t *out) noexcept
{
    if (out != nullptr)
        *out = clock_now;
    return clock_now;
}

static constexpr std::array<const char *, 8> ZONES = {
    "UTC0",
    "JST-9",
    "CET-1CEST,M3.5.0,M10.5.0/3",
    "EST5EDT,M3.2.0,M11.1.0",
    "LHST-10:30LHDT-11,M10.1.0,M4.1.0",
    "NST3:30NDT,M4.1.0/0:01,M10.5.0/0:01",
    "AAA11BBB-13,M3.2.5,M10.3.2/4",
    "STD0DST,J88/2,J300/2",
};
static constexpr int WALK = 600;  // min

template <typename T> static T take(std::string_view &input)
{
    T value{};
    std::memcpy(&value, input.data(), std::min(sizeof value, input.size()));
    input.remove_prefix(std::min(sizeof value, input.size()));
    return value;
}

static void set_clock(std::string_view &input)
{
    setenv("TZ", ZONES[take<std::uint8_t>(input) % ZONES.size()], 1);
    tzset();
    clock_now = std::time_t{take<std::uint32_t>(input)} + 60;  // the first minute is "not set"
}

// Whether the text is taken field by field as it is split into fields.
static void check_fields(const std::string &timetext, const std::vector<auto_oracle::bounds> &form,
                         bool wellformed)
{
    const char *text = timetext.c_str();
    bool taken = true;
    for (std::size_t i = 0; i < form.size() && taken; ++i) {
        const bool last = i + 1 == form.size();
        const char *before = text;
        const char *found = next_field(&text, form[i].first, form[i].second, last);
        taken = found != nullptr;
        if (taken)
            require(text >= before + std::strlen(found) && text <= timetext.c_str() + timetext.size(),
                    "way through a text");
        else
            require(text == before, "a malformed field stays");
    }
    require(taken == wellformed || timetext.size() > 511, "which texts are well formed");
}

static void check_repeating(const std::string &timetext)
{
    const auto fields = auto_oracle::fields(timetext, auto_oracle::REPEATING);
    check_fields(timetext, auto_oracle::REPEATING, fields.has_value());
    const std::time_t found = autod(timetext.c_str());
    if (!fields || found == 0) {
        require(found == 0, "malformed text");
        require(!fields || !auto_oracle::matches(*fields, auto_oracle::minute_at(clock_now)), "now");
        return;
    }
    require(found > clock_now - 60 && auto_oracle::matches(*fields, auto_oracle::minute_at(found)),
            "a match");
    require(found % 60 == 0 && found - clock_now <= 9 * 366 * 86400L, "a minute's start");
    std::time_t minute = clock_now - clock_now % 60;
    for (int i = 0; i < WALK && minute < found; ++i, minute += 60)
        require(!auto_oracle::matches(*fields, auto_oracle::minute_at(minute)), "the first match");
}

static void check_special(const std::string &timetext)
{
    const auto fields = auto_oracle::fields(timetext, auto_oracle::SPECIAL);
    check_fields(timetext, auto_oracle::SPECIAL, fields.has_value());
    const std::time_t found = specialdayautod(timetext.c_str());
    require(found == 0 || (fields && found > clock_now), "a special date");
    if (found == 0)
        return;
    // A day that the month does not have is up to three days on, a skipped or repeated hour up to a day off.
    std::tm date{};
    date.tm_year = (*fields)[5].first;
    date.tm_mon = (*fields)[3].first;
    date.tm_mday = (*fields)[2].first;
    date.tm_hour = (*fields)[1].first;
    date.tm_min = (*fields)[0].first;
    require(std::abs(static_cast<double>(found - timegm(&date))) <= 2 * 86400, "the date of a special date");
}

static void check_length(std::string_view &input)
{
    const auto start = take<UPS_TIMEINFO>(input);
    const auto end = take<UPS_TIMEINFO>(input);
    for (const int type : {0, 1, 2, 3}) {
        std::int32_t minutes = -1;
        require(time2duration(start, end, &minutes, type, 1) == 0 && minutes == 10, "the flag");
        minutes = 77;
        const int result = time2duration(start, end, &minutes, type, 0);
        require(result == 0 || (result == -1 && type < 2 && minutes == 77), "which lengths fail");
        require(result != 0 || type != 1 || minutes >= 0, "the length of a special date");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    set_clock(input);
    check_length(input);
    const std::string timetext(input.substr(0, input.find('\0')));
    check_repeating(timetext);
    check_special(timetext);
    return 0;
}

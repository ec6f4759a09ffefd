// Lines of the logs taken apart: a cursor that walks one line of text and hands out its numbers, and the
// records built from them. Called by e_a_log_page.cpp.
#include "e_a_internal.h"

#include "wp_field.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

// Where the next field is looked for; points into the caller's line, never null.
static const char *cursor = "";

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// A minus sign that no number followed must not end up in front of the next number that is stored.
void logfield_start(const char *line)
{
    cursor = line;
    engine.glob_ne = 0;
}

const char *logfield_rest()
{
    return cursor;
}

// Beyond any bound that a field has, so that a run of digits of any length stays a number.
static constexpr std::int64_t NUMBER_CAP = 1'000'000'000'000;

static std::int64_t take_number()
{
    std::int64_t number = 0;
    for (; is_digit(*cursor); cursor++)
        number = std::min(number * 10 + (*cursor - '0'), NUMBER_CAP);
    return number;
}

// The last field of a line is never handed out: the battery capacity of a served data log record is
// therefore 0, and monitors are used to it.
const char *next_logfield(std::int32_t min, std::int32_t max, bool last)
{
    for (; !is_digit(*cursor); cursor++) {
        if (*cursor == '\0')
            return nullptr;
        if (*cursor == '-')
            engine.glob_ne = 1;
    }
    const std::int64_t number = take_number();
    const bool fits = number >= min && number <= max;
    const bool ends = *cursor == '\0';
    if (fits && !last && !ends)
        return itoc(static_cast<std::uint32_t>(number));
    if (!(fits && last && ends))
        engine.glob_ne = 0;
    return nullptr;
}

// The number of the next field less `base`, in a byte; a missing field leaves `to` alone.
template <typename T> static int take_field(T &to, std::int32_t min, std::int32_t max, int base = 0)
{
    const char *text = next_logfield(min, max, false);
    if (text == nullptr)
        return 1;
    to = static_cast<T>(std::atoi(text) - base);
    return 0;
}

// What stands behind the numbers, from its first letter on. The newline goes; of a name that fills its 15
// columns the 14th character goes with it.
static std::string_view take_name()
{
    std::string_view name = logfield_rest();
    const auto *first = std::find_if(name.begin(), name.end(), is_letter);
    name.remove_prefix(static_cast<std::size_t>(first - name.begin()));
    if (name.size() > 15)
        name = name.substr(0, 14);
    if (!name.empty())
        name.remove_suffix(1);
    return name;
}

static int take_clock(UPS_TIMEINFO &timeinfo)
{
    int missing = take_field(timeinfo.hour, 0, 23);
    missing += take_field(timeinfo.minute, 0, 59);
    missing += take_field(timeinfo.second, 0, 59);
    return missing;
}

int evelogtoinfo(const char *line, UPS_EVENTLOGINFO *rec)
{
    int missing = 0;
    logfield_start(line);
    missing += take_field(rec->timeinfo.day, 1, 31);
    missing += take_field(rec->timeinfo.month, 1, 31);  // loose on purpose, as logs have always been read
    missing += take_field(rec->timeinfo.year, 1900, 2100, 1900);
    missing += take_clock(rec->timeinfo);
    missing += take_field(rec->EventId, 0, 999);
    missing += take_field(rec->byDownToEvt, 0, 999);
    field_set(rec->AgentName, take_name());
    logfield_start("");
    return missing != 0 ? -1 : 0;
}

static constexpr std::int32_t VALUE_MAX = 300;

template <typename T> static int take_value(T &to)
{
    return take_field(to, 0, VALUE_MAX);
}

// A voltage is kept in a byte, so that 256 V and more come out small.
static int take_voltage(std::int16_t &to)
{
    std::uint8_t low = 0;
    if (take_value(low) != 0)
        return 1;
    to = low;
    return 0;
}

// In the order of the line; each step moves the cursor.
static int take_measurements(UPSDATA &data)
{
    int missing = take_voltage(data.InPutINT);
    missing += take_value(data.InPutREM);
    missing += take_voltage(data.OutPutINT);
    missing += take_value(data.OutPutREM);
    missing += take_value(data.Load);
    missing += take_value(data.FreqInputINT);
    missing += take_value(data.FreqInputREM);
    missing += take_value(data.TempINT);
    missing += take_value(data.TempREM);
    missing += take_value(data.BattVolINT);
    missing += take_value(data.BattVolREM);
    missing += take_value(data.FreqOutputINT);
    missing += take_value(data.FreqOutputREM);
    missing += next_logfield(0, VALUE_MAX, true) == nullptr;
    return missing;
}

int datalogtoinfo(const char *line, UPS_DATALOGINFO *rec)
{
    int missing = 0;
    logfield_start(line);
    missing += take_field(rec->timeinfo.day, 1, 31);
    missing += take_field(rec->timeinfo.month, 1, 12);
    missing += take_field(rec->timeinfo.year, 1900, 2100, 1900);
    missing += take_clock(rec->timeinfo);
    missing += take_measurements(rec->upsdata);
    logfield_start("");
    return missing != 0 ? -1 : 0;
}

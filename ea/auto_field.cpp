// The fields of a time text: what is well formed, and which numbers a field lists. Called by the schedule
// arithmetic, and by the schedule list, which shows the fields as they stand.
#include "auto_internal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>

// Longer than any line of the settings file, so that every field that can be stored fits.
static constexpr std::size_t FIELD_SIZE = 512;

// One item of a list.
typedef struct _ITEM {
    int first;
    int last;    // a single number: first
    bool wraps;  // contains first to the end and the beginning to last
} ITEM;

int num(const char **text, int min, int max)
{
    const char *digit = *text;
    int value = 0;
    for (; *digit >= '0' && *digit <= '9'; ++digit)
        value = std::min(value * 10 + (*digit - '0'), max + 1);
    if (digit == *text || value < min || value > max)
        return -1;
    *text = digit;
    return value;
}

static bool take_item(const char **text, int min, int max, ITEM &item)
{
    item.first = item.last = num(text, min, max);
    const bool isrange = item.first >= 0 && **text == '-';
    if (isrange) {
        ++*text;
        item.last = num(text, min, max);
    }
    item.wraps = isrange && item.last <= item.first;
    return item.first >= 0 && item.last >= 0;
}

// Behind the list or "*" at `text`, whatever follows; null when there is none.
static const char *field_end(const char *text, int min, int max)
{
    if (*text == '*')
        return text + 1;
    for (ITEM item; take_item(&text, min, max, item); ++text)
        if (*text != ',')
            return text;
    return nullptr;
}

static bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

std::string_view take_field(const char **text, int min, int max, bool last)
{
    if (*text == nullptr)
        return {};
    const char *field = *text;
    while (is_blank(*field))
        ++field;
    const char *end = field_end(field, min, max);
    if (end == nullptr || !(last ? *end == '\0' : is_blank(*end)))
        return {};
    *text = end;
    return {field, static_cast<std::size_t>(end - field)};
}

const char *next_field(const char **text, int min, int max, bool last)
{
    static std::array<char, FIELD_SIZE> copy;
    if (text == nullptr)
        return nullptr;
    const char *behind = *text;
    const std::string_view field = take_field(&behind, min, max, last);
    if (field.empty() || field.size() >= copy.size())
        return nullptr;
    *std::copy(field.begin(), field.end(), copy.begin()) = '\0';
    *text = behind;
    return copy.data();
}

static bool contains(const ITEM &item, int value)
{
    return item.wraps ? value >= item.first || value <= item.last : value >= item.first && value <= item.last;
}

FIELDSET field_numbers(std::string_view field, int min, int max)
{
    if (field == "*")
        return EVERY;
    FIELDSET set = 0;
    const char *text = field.data();
    for (ITEM item; take_item(&text, min, max, item); ++text) {
        for (int value = min; value <= max; ++value)
            if (contains(item, value))
                set |= FIELDSET{1} << value;
        if (*text != ',')
            break;
    }
    return set;
}

int next_ge(int value, FIELDSET field)
{
    const FIELDSET from = field >> value << value;
    return std::countr_zero(from != 0 ? from : field);
}

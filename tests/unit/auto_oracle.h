// A second opinion on time texts: taken apart by splitting, matched by looking. Shared by the tests of the
// time arithmetic and its fuzz target; knows nothing of the code under test.
#pragma once

#include <array>
#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What time() returns; defined, with time(), by each program that uses this.
extern std::time_t clock_now;

namespace auto_oracle
{

using bounds = std::pair<int, int>;
inline const std::vector<bounds> REPEATING = {{0, 59}, {0, 23}, {1, 31}, {1, 12}, {0, 6}};
inline const std::vector<bounds> SPECIAL = {{0, 59}, {0, 23}, {1, 31}, {0, 11}, {0, 6}, {0, 300}};

struct Field {
    bool given = false;  // not "*"
    int first = -1;      // the first number
    std::array<bool, 301> listed{};
};

inline std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == separator)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

inline std::optional<int> number(std::string text, bounds within)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    while (text.size() > 1 && text.front() == '0')
        text.erase(0, 1);
    if (text.size() > 3)
        return std::nullopt;
    const int value = std::stoi(text);
    return value < within.first || value > within.second ? std::nullopt : std::optional(value);
}

// Goes through the range as on a clock's face, at most once round.
inline bool add_item(Field &field, const std::string &text, bounds within)
{
    const std::vector<std::string> ends = split(text, '-');
    const auto first = number(ends.front(), within);
    const auto last = number(ends.back(), within);
    if (ends.size() > 2 || !first || !last)
        return false;
    if (field.first < 0)
        field.first = *first;
    int value = *first;
    field.listed[static_cast<std::size_t>(value)] = true;
    while (ends.size() == 2) {
        value = value == within.second ? within.first : value + 1;
        field.listed[static_cast<std::size_t>(value)] = true;
        if (value == *last)
            break;
    }
    return true;
}

inline std::optional<Field> field(const std::string &text, bounds within)
{
    Field result;
    if (text == "*") {
        result.listed.fill(true);
        return result;
    }
    result.given = true;
    for (const std::string &item : split(text, ','))
        if (!add_item(result, item, within))
            return std::nullopt;
    return result;
}

inline std::optional<std::vector<Field>> fields(std::string text, const std::vector<bounds> &form)
{
    for (char &c : text)
        c = c == '\t' ? ' ' : c;
    std::vector<std::string> words;
    for (const std::string &word : split(text, ' '))
        if (!word.empty())
            words.push_back(word);
    if (words.size() != form.size() || text.back() == ' ')
        return std::nullopt;
    std::vector<Field> result;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const auto one = field(words[i], form[i]);
        if (!one)
            return std::nullopt;
        result.push_back(*one);
    }
    return result;
}

// A local minute as small as a table of a whole year of them needs it.
struct Minute {
    unsigned char minute, hour, day, month, weekday;
};

inline Minute minute_at(std::time_t t)
{
    std::tm local{};
    localtime_r(&t, &local);
    const auto byte = [](int value) { return static_cast<unsigned char>(value); };
    return {byte(local.tm_min), byte(local.tm_hour), byte(local.tm_mday), byte(local.tm_mon + 1),
            byte(local.tm_wday)};
}

inline bool matches(const std::vector<Field> &wanted, const Minute &at)
{
    if (!wanted[0].listed[at.minute] || !wanted[1].listed[at.hour] || !wanted[3].listed[at.month])
        return false;
    if (wanted[2].given && wanted[4].given)
        return wanted[2].listed[at.day] || wanted[4].listed[at.weekday];
    return wanted[2].listed[at.day] && wanted[4].listed[at.weekday];
}

}  // namespace auto_oracle

// Everything here meets text from users and control programs, so every function takes any bytes.
#include "sim_text.h"

#include <array>
#include <cstdio>

namespace sim
{

static constexpr double LONGEST_SECONDS = 3.2e9;  // a century; keeps all times in range

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static int hex_value(char c)
{
    if (is_digit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

struct Escape {
    char letter;
    char byte;
};

static constexpr std::array<Escape, 6> ESCAPES = {
    {{'r', '\r'}, {'n', '\n'}, {'t', '\t'}, {'e', '\x1b'}, {'\\', '\\'}, {'"', '"'}}};

// Takes the escape that begins at `at` (its backslash) and moves `at` behind it; empty if there is no such
// escape.
static std::optional<char> take_escape(std::string_view line, std::size_t &at)
{
    if (at + 1 >= line.size())
        return std::nullopt;
    const char letter = line[at + 1];
    if (letter == 'x' && at + 3 < line.size() && hex_value(line[at + 2]) >= 0 &&
        hex_value(line[at + 3]) >= 0) {
        const int byte = hex_value(line[at + 2]) * 16 + hex_value(line[at + 3]);
        at += 4;
        return static_cast<char>(byte);
    }
    for (const Escape &escape : ESCAPES)
        if (escape.letter == letter) {
            at += 2;
            return escape.byte;
        }
    return std::nullopt;
}

// Takes one word that begins at `at` and moves `at` behind it. Returns what is wrong with it, or an empty
// text.
static std::string take_word(std::string_view line, std::size_t &at, Word &word)
{
    word.quoted = line[at] == '"';
    if (word.quoted)
        ++at;
    while (at < line.size()) {
        const char c = line[at];
        if (word.quoted ? c == '"' : c == ' ' || c == '\t')
            break;
        if (c != '\\') {
            word.text.push_back(c);
            ++at;
            continue;
        }
        const std::optional<char> byte = take_escape(line, at);
        if (!byte)
            return "bad escape";
        word.text.push_back(*byte);
    }
    if (!word.quoted)
        return {};
    if (at == line.size())
        return "missing closing quote";
    ++at;
    return at == line.size() || line[at] == ' ' || line[at] == '\t' ? ""
                                                                    : "missing blank after the closing quote";
}

Words split_words(std::string_view line)
{
    Words result;
    std::size_t at = 0;
    while (result.error.empty()) {
        while (at < line.size() && (line[at] == ' ' || line[at] == '\t'))
            ++at;
        if (at == line.size() || line[at] == '#')
            break;
        Word word;
        result.error = take_word(line, at, word);
        result.words.push_back(std::move(word));
    }
    return result;
}

std::string escaped(std::string_view bytes)
{
    std::string text;
    for (char byte : bytes) {
        const Escape *known = nullptr;
        for (const Escape &escape : ESCAPES)
            if (escape.byte == byte)
                known = &escape;
        if (known != nullptr) {
            text += {'\\', known->letter};
        } else if (byte >= ' ' && byte <= '~') {
            text.push_back(byte);
        } else {
            std::array<char, 8> code{};
            std::snprintf(code.data(), code.size(), "\\x%02X",
                          static_cast<unsigned>(static_cast<unsigned char>(byte)));
            text += code.data();
        }
    }
    return text;
}

// Takes a number that begins at `at`; empty when there is none.
static std::optional<double> take_number(std::string_view text, std::size_t &at)
{
    double value = 0.0;
    double scale = 0.0;  // of the next digit behind the point; 0 before it
    bool any = false;
    for (; at < text.size(); ++at) {
        const char c = text[at];
        if (c == '.' && scale == 0.0) {
            scale = 0.1;
        } else if (!is_digit(c)) {
            break;
        } else if (scale == 0.0) {
            value = value * 10.0 + (c - '0');
            any = true;
        } else {
            value += (c - '0') * scale;
            scale /= 10.0;
            any = true;
        }
    }
    return any ? std::optional(value) : std::nullopt;
}

std::optional<double> number_of(std::string_view text)
{
    std::size_t at = text.starts_with('-') ? 1 : 0;
    const bool negative = at == 1;
    const std::optional<double> value = take_number(text, at);
    if (!value || at != text.size())
        return std::nullopt;
    return negative ? -*value : *value;
}

struct DurationUnit {
    std::string_view name;
    double seconds;
};

// "ms" stands before "m", which begins it.
static constexpr std::array<DurationUnit, 4> DURATION_UNITS = {
    {{"ms", 0.001}, {"s", 1}, {"m", 60}, {"h", 3600}}};

std::optional<Time> duration_of(std::string_view text)
{
    if (const std::optional<double> seconds = number_of(text))
        return *seconds >= 0.0 && *seconds <= LONGEST_SECONDS ? std::optional(from_seconds(*seconds))
                                                              : std::nullopt;
    double total = 0.0;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::optional<double> value = take_number(text, at);
        const DurationUnit *unit = nullptr;
        for (const DurationUnit &candidate : DURATION_UNITS)
            if (unit == nullptr && text.substr(at).starts_with(candidate.name))
                unit = &candidate;
        if (!value || unit == nullptr)
            return std::nullopt;
        total += *value * unit->seconds;
        at += unit->name.size();
    }
    return text.empty() || !(total <= LONGEST_SECONDS) ? std::nullopt : std::optional(from_seconds(total));
}

}  // namespace sim

// Foreign text made harmless. Nobody who can write an agent's group name or event log may move the cursor,
// set a window title or hide a line on the terminal of the person who looks.
#include "monitor_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <iconv.h>
#include <optional>
#include <utility>

// One character of a UTF-8 text: its code point and how many bytes it takes.
struct CHARACTER {
    std::uint32_t code;
    std::size_t bytes;
};

// The texts that get here come from iconv or are ASCII; a byte that does not begin a whole character is taken
// as a character of its own.
static CHARACTER first_character(std::string_view text)
{
    const auto byte = [&text](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byte(0);
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    if (length == 1 || length > text.size())
        return {lead, 1};
    std::uint32_t code = lead & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i)
        code = (code << 6) | (byte(i) & 0x3FU);
    return {code, length};
}

static bool control(std::uint32_t code)
{
    const auto within = [code](std::uint32_t first, std::uint32_t last) {
        return code >= first && code <= last;
    };
    return code < 0x20 || within(0x7F, 0x9F) || code == 0x061C || within(0x200E, 0x200F) ||
           within(0x2028, 0x202E) || within(0x2066, 0x2069);
}

static bool wide(std::uint32_t code)
{
    struct RANGE {
        std::uint32_t first, last;
    };
    static constexpr std::array<RANGE, 7> ranges{{{0x1100, 0x115F},
                                                  {0x2E80, 0x303E},
                                                  {0x3041, 0xA4CF},
                                                  {0xAC00, 0xD7A3},
                                                  {0xF900, 0xFAFF},
                                                  {0xFF01, 0xFF60},
                                                  {0xFFE0, 0xFFE6}}};
    return std::any_of(ranges.begin(), ranges.end(),
                       [code](const RANGE &range) { return code >= range.first && code <= range.last; });
}

// ---- Decoding ----

static const char *charset(TEXT_CODE code)
{
    if (code == TEXT_CODE::Utf8)
        return "UTF-8";
    return code == TEXT_CODE::ShiftJis ? "CP932" : "EUC-JP";
}

// The order in which encodings are tried. UTF-8 leaves little to chance and is looked for only where it can
// be.
static std::span<const TEXT_CODE> codes_from(TEXT_CODE first)
{
    static constexpr std::array<TEXT_CODE, 4> order{TEXT_CODE::Utf8, TEXT_CODE::Euc, TEXT_CODE::ShiftJis,
                                                    TEXT_CODE::Euc};
    switch (first) {
    case TEXT_CODE::Utf8:
        return std::span(order).first(3);
    case TEXT_CODE::Euc:
        return std::span(order).subspan(1, 2);
    case TEXT_CODE::ShiftJis:
        break;
    }
    return std::span(order).last(2);
}

static std::optional<std::string> decoded(std::string bytes, TEXT_CODE code)
{
    const iconv_t converter = iconv_open("UTF-8", charset(code));
    if (converter ==
        reinterpret_cast<iconv_t>(-1))  // NOLINT(performance-no-int-to-ptr): iconv's own error value
        return std::nullopt;
    std::string text(bytes.size() * 4, '\0');
    char *from = bytes.data();
    char *to = text.data();
    std::size_t left = bytes.size();
    std::size_t room = text.size();
    const std::size_t result = iconv(converter, &from, &left, &to, &room);
    iconv_close(converter);
    if (result == static_cast<std::size_t>(-1) || left != 0)
        return std::nullopt;
    text.resize(text.size() - room);
    return text;
}

static std::string escaped(std::uint32_t code)
{
    std::array<char, 16> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "\\x%02X", static_cast<unsigned>(code));
    return buffer.data();
}

static std::string with_controls_escaped(std::string_view text)
{
    std::string safe;
    while (!text.empty()) {
        const CHARACTER character = first_character(text);
        if (control(character.code))
            safe += escaped(character.code);
        else
            safe += text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return safe;
}

static std::string with_bytes_escaped(std::string_view bytes)
{
    std::string safe;
    for (const char c : bytes) {
        const auto byte = static_cast<std::uint8_t>(c);
        if (byte >= 0x80 || control(byte))
            safe += escaped(byte);
        else
            safe += c;
    }
    return safe;
}

std::string text_safe(std::span<const char> field, TEXT_CODE first)
{
    std::string bytes(field.begin(), std::find(field.begin(), field.end(), '\0'));
    bytes.erase(bytes.find_last_not_of(' ') + 1);
    const bool ascii =
        std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<std::uint8_t>(c) < 0x80; });
    if (ascii)
        return with_bytes_escaped(bytes);
    for (const TEXT_CODE code : codes_from(first))
        if (const auto text = decoded(bytes, code))
            return with_controls_escaped(*text);
    return with_bytes_escaped(bytes);
}

// ---- Columns ----

std::size_t text_columns(std::string_view text)
{
    std::size_t columns = 0;
    while (!text.empty()) {
        const CHARACTER character = first_character(text);
        columns += wide(character.code) ? 2 : 1;
        text.remove_prefix(character.bytes);
    }
    return columns;
}

std::string_view text_fit(std::string_view text, std::size_t columns)
{
    std::size_t bytes = 0;
    while (bytes < text.size()) {
        const CHARACTER character = first_character(text.substr(bytes));
        const std::size_t width = wide(character.code) ? 2 : 1;
        if (width > columns)
            break;
        columns -= width;
        bytes += character.bytes;
    }
    return text.substr(0, bytes);
}

std::string text_padded(std::string_view text, std::size_t columns)
{
    std::string padded(text_fit(text, columns));
    padded.append(columns - text_columns(padded), ' ');
    return padded;
}

std::string text_ascii(std::string_view text)
{
    std::string ascii;
    while (!text.empty()) {
        const CHARACTER character = first_character(text);
        if (character.code < 0x80)
            ascii += static_cast<char>(character.code);
        else
            ascii.append(wide(character.code) ? 2 : 1, '?');
        text.remove_prefix(character.bytes);
    }
    return ascii;
}

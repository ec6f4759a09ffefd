// Output of `voltariactl`.
#include "control.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

// One character of a text, and how many bytes it takes.
struct LETTER {
    std::uint32_t code = 0;
    std::size_t bytes = 0;
};

// Nothing for a byte that does not begin a whole character of UTF-8.
static std::optional<LETTER> first_letter(std::string_view text)
{
    constexpr auto LEAST = std::to_array<std::uint32_t>({0, 0, 0x80, 0x800, 0x10000});  // by length
    const auto lead = static_cast<std::uint8_t>(text[0]);
    if (lead < 0x80)
        return LETTER{lead, 1};
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc0 || lead >= 0xf8 || length > text.size())
        return std::nullopt;
    std::uint32_t code = lead & (0xffU >> (length + 1));
    for (const char c : text.substr(1, length - 1)) {
        const auto byte = static_cast<std::uint8_t>(c);
        if ((byte & 0xc0U) != 0x80)
            return std::nullopt;
        code = (code << 6) | (byte & 0x3fU);
    }
    const bool valid = code >= LEAST[length] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
    return valid ? std::optional(LETTER{code, length}) : std::nullopt;
}

// Controls, also those beyond ASCII, and marks that turn the direction of writing.
static bool steers(std::uint32_t code)
{
    const auto within = [code](std::uint32_t first, std::uint32_t last) {
        return code >= first && code <= last;
    };
    return code < 0x20 || within(0x7f, 0x9f) || code == 0x061c || within(0x200e, 0x200f) ||
           within(0x2028, 0x202e) || within(0x2066, 0x2069);
}

std::string plain(std::string_view text)
{
    std::string line;
    while (!text.empty()) {
        const auto letter = first_letter(text);
        const std::size_t bytes = letter ? letter->bytes : 1;
        line += letter && !steers(letter->code) ? text.substr(0, bytes) : "?";
        text.remove_prefix(bytes);
    }
    return line;
}

int fail(std::string_view text, int status)
{
    const std::string line = "voltariactl: " + std::string(text) + "\n";
    std::fputs(line.c_str(), stderr);
    return status;
}

int print(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0)
        return EXIT_SUCCESS;
    return fail(std::string("standard output: ") + std::strerror(errno));  // NOLINT(concurrency-mt-unsafe)
}

// Random bytes through the Japanese text conversion: every converter, with a bare pointer and with a span,
// both ways over the network boundary. Input: one byte of options, one byte for the room, the text.
#include "agent_daemon_text.h"
#include "fuzz_support.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

using plain_converter = int (*)(const char *, char *, int, int);
using bounded_converter = int (*)(std::string_view, std::span<char>, int, int);
using plain_boundary = int (*)(const char *, char *, int);
using bounded_boundary = int (*)(std::string_view, std::span<char>, int);

struct converter_pair {
    plain_converter plain;
    bounded_converter bounded;
    std::size_t growth;
};

struct boundary_pair {
    plain_boundary plain;
    bounded_boundary bounded;
    std::size_t growth;
};

static constexpr std::array<converter_pair, 4> CONVERTERS = {{
    {shift2euc, shift2euc, 2},
    {euc2shift, euc2shift, 1},
    {euc2euc, euc2euc, 1},
    {shift2shift, shift2shift, 2},
}};

static constexpr std::array<boundary_pair, 2> BOUNDARIES = {{
    {JConvForDataInFromNetwork, JConvForDataInFromNetwork, 2},
    {JConvForDataOutToNetwork, JConvForDataOutToNetwork, 1},
}};

// Exactly `size` bytes on the heap, none of them a NUL, so that a sanitizer sees the byte behind.
static std::unique_ptr<char[]> room_of(std::size_t size)
{
    auto room = std::make_unique<char[]>(size);
    for (std::size_t i = 0; i < size; ++i)
        room[i] = '#';
    return room;
}

static void require_prefix(std::string_view part, std::string_view whole)
{
    require(whole.substr(0, part.size()) == part);
}

static void run_converter(const converter_pair &converter, const std::string &text, std::size_t room,
                          int incode, int tofull)
{
    const std::size_t needed = converter.growth * text.size() + 1;
    const auto whole = room_of(needed);
    const int consumed = converter.plain(text.c_str(), whole.get(), incode, tofull);
    require(consumed == static_cast<int>(text.size()));
    require(std::string_view(whole.get(), needed).find('\0') != std::string_view::npos);

    const auto part = room_of(room);
    const int taken = converter.bounded(text, {part.get(), room}, incode, tofull);
    require(taken >= 0 && taken <= consumed);
    require(std::string_view(part.get(), room).find('\0') != std::string_view::npos);
    require_prefix(part.get(), whole.get());
}

static void run_boundary(const boundary_pair &boundary, const std::string &text, std::size_t room, int lang)
{
    const std::size_t needed = boundary.growth * text.size() + 1;
    const auto whole = room_of(needed);
    const int length = boundary.plain(text.c_str(), whole.get(), lang);
    require(length >= 0 && static_cast<std::size_t>(length) < needed);
    require(std::string_view(whole.get()).size() == static_cast<std::size_t>(length));

    const auto part = room_of(room);
    const int kept = boundary.bounded(text, {part.get(), room}, lang);
    require(kept >= 0 && static_cast<std::size_t>(kept) < room && kept <= length);
    require(std::string_view(part.get()).size() == static_cast<std::size_t>(kept));
    require_prefix(part.get(), whole.get());
}

// What no caller of the agent does: there is no text, or no room for it.
static void run_nothing(const std::string &text, int incode, int tofull, int lang)
{
    char kept = '#';
    require(DetectCodeType(nullptr, 5) == CODE_NOSTRING);
    for (const auto &converter : CONVERTERS) {
        require(converter.plain(text.c_str(), nullptr, incode, tofull) == 0);
        require(converter.bounded(text, {}, incode, tofull) == 0);
    }
    for (const auto &boundary : BOUNDARIES) {
        require(boundary.plain(nullptr, &kept, lang) == -1 &&
                boundary.plain(text.c_str(), nullptr, lang) == -1);
        require(boundary.bounded(text, {}, lang) == -1);
    }
    require(kept == '#');
}

// A half-width katakana and the mark behind it become one full-width character.
static void run_widening(const std::string &text, int incode)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char *rest = text.c_str() + i + 1;
        int lead = static_cast<unsigned char>(text[i]);
        int trail = 0;
        int count = static_cast<int>(i) + 1;
        han2zen(&rest, &lead, &trail, incode, &count, static_cast<int>(text.size()));
        require(count >= 0 && count <= static_cast<int>(text.size()) && rest == text.c_str() + count);
    }
}

static void run_detection(const std::string &text)
{
    const int code = DetectCodeType(text);
    require(code >= CODE_JIS_1983 && code <= CODE_ASCII);
    require(DetectCodeType(text.c_str(), static_cast<int>(text.size()) + 5) == code);
    const std::size_t half = text.size() / 2;
    require(text_fit(text, half, code) <= half);
    require(text_fit(text, text.size(), code) == text.size());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    const int incode = data[0] & 7;
    const int tofull = data[0] >> 3 & 1;
    const int lang = data[0] >> 4 & 3;
    const std::size_t room = data[1] + std::size_t{1};
    std::string text(reinterpret_cast<const char *>(data + 2), size - 2);
    text.resize(text.find('\0') != std::string::npos ? text.find('\0') : text.size());

    run_detection(text);
    run_nothing(text, incode, tofull, lang);
    run_widening(text, incode);
    for (const auto &converter : CONVERTERS)
        run_converter(converter, text, room, incode, tofull);
    for (const auto &boundary : BOUNDARIES)
        run_boundary(boundary, text, room, lang);
    return 0;
}

// Writing texts for the wire. The second half is about the users' names: it knows the agent's outgoing
// conversion as a machine that takes bytes and gives bytes, runs two of them in a row, and searches what to
// feed them.
#include "monitor_charset.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iconv.h>
#include <utility>
#include <vector>

static constexpr char UNKNOWN_CHARACTER[] = "has a character that the agent cannot store";

static std::uint8_t byte_of(char c)
{
    return static_cast<std::uint8_t>(c);
}

static bool ascii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return byte_of(c) < 0x80; });
}

// ---- Encoding ----

static std::optional<std::string> converted(std::string text, const char *from, const char *to)
{
    const iconv_t converter = iconv_open(to, from);
    if (converter ==
        reinterpret_cast<iconv_t>(-1))  // NOLINT(performance-no-int-to-ptr): iconv's own error value
        return std::nullopt;
    std::string bytes(text.size() * 4, '\0');
    char *in = text.data();
    char *out = bytes.data();
    std::size_t left = text.size();
    std::size_t room = bytes.size();
    const std::size_t result = iconv(converter, &in, &left, &out, &room);
    iconv_close(converter);
    if (result != 0 || left != 0)  // a positive count: characters replaced by similar ones
        return std::nullopt;
    bytes.resize(bytes.size() - room);
    return bytes;
}

// Keyboards write some signs with another code than the one this encoding's table has for them.
static std::string with_usual_signs(std::string_view utf8)
{
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 7> signs{
        {{"\u301C", "\uFF5E"},
         {"\u2016", "\u2225"},
         {"\u2212", "\uFF0D"},
         {"\u2014", "\u2015"},
         {"\u00A2", "\uFFE0"},
         {"\u00A3", "\uFFE1"},
         {"\u00AC", "\uFFE2"}}};
    std::string text(utf8);
    for (const auto &[written, usual] : signs)
        for (std::size_t at = 0; (at = text.find(written, at)) != std::string::npos; at += usual.size())
            text.replace(at, written.size(), usual);
    return text;
}

static bool lead(std::uint8_t byte)
{
    return (byte >= 0x81 && byte <= 0x9F) || byte >= 0xE0;
}

// The agent's arithmetic ends with the lead byte 0xEF; the makers' own characters lie behind it.
static bool known_to_the_agent(std::string_view shift_jis)
{
    for (std::size_t i = 0; i < shift_jis.size(); i += lead(byte_of(shift_jis[i])) ? 2 : 1)
        if (byte_of(shift_jis[i]) >= 0xF0 || byte_of(shift_jis[i]) == 0x80 || byte_of(shift_jis[i]) == 0xA0)
            return false;
    return true;
}

// EUC-JP as the agent makes it of Shift_JIS.
static std::string euc_of(std::string_view shift_jis)
{
    std::string euc;
    for (std::size_t i = 0; i < shift_jis.size(); ++i) {
        const unsigned first = byte_of(shift_jis[i]);
        if (first >= 0xA1 && first <= 0xDF) {
            euc += '\x8E';
            euc += shift_jis[i];
        } else if (lead(byte_of(shift_jis[i])) && i + 1 < shift_jis.size()) {
            const unsigned second = byte_of(shift_jis[++i]);
            const unsigned half = second < 0x9F ? 1 : 0;
            const unsigned row = (first - (first < 0xA0 ? 0x70 : 0xB0)) * 2 - half;
            const unsigned cell = second - (half == 0 ? 0x7E : second > 0x7F ? 0x20 : 0x1F);
            euc += static_cast<char>(row + 0x80);
            euc += static_cast<char>(cell + 0x80);
        } else {
            euc += shift_jis[i];
        }
    }
    return euc;
}

std::optional<std::string> charset_encode(std::string_view utf8, TEXT_CODE code)
{
    if (std::any_of(utf8.begin(), utf8.end(), [](char c) { return byte_of(c) < 0x20 || c == '\x7F'; }))
        return std::nullopt;
    if (ascii(utf8))
        return std::string(utf8);
    if (code == TEXT_CODE::Utf8)
        return converted(std::string(utf8), "UTF-8", "UTF-8");
    std::optional<std::string> bytes = converted(with_usual_signs(utf8), "UTF-8", "CP932");
    if (!bytes || !known_to_the_agent(*bytes))
        return std::nullopt;
    return code == TEXT_CODE::Euc ? euc_of(*bytes) : bytes;
}

static std::string too_long(std::size_t by)
{
    return "is too long by " + std::to_string(by) + (by == 1 ? " byte" : " bytes");
}

static void fill(std::span<char> field, std::string_view bytes)
{
    std::fill(std::copy(bytes.begin(), bytes.end(), field.begin()), field.end(), '\0');
}

std::string charset_put(std::string_view utf8, TEXT_CODE code, std::span<char> field)
{
    const std::optional<std::string> bytes = charset_encode(utf8, code);
    if (!bytes)
        return UNKNOWN_CHARACTER;
    // On the agent's host, half-width katakana take two bytes.
    const std::size_t needed = code == TEXT_CODE::ShiftJis ? euc_of(*bytes).size() : bytes->size();
    if (needed >= field.size())
        return too_long(needed + 1 - field.size());
    fill(field, *bytes);
    return "";
}

// ---- The agent's outgoing conversion ----

// EUC-JP to Shift_JIS, a byte at a time. What it makes of bytes that are no EUC-JP is as sure as the rest.
struct CONVERSION {
    std::uint8_t pending = 0;  // a byte that waits for its follower; 0: none
};

// At most two bytes come out for one that goes in.
struct OUTPUT {
    std::array<std::uint8_t, 2> bytes{};
    std::size_t count = 0;
};

static constexpr std::uint8_t KANA = 0x8E;

static bool high(std::uint8_t byte)
{
    return byte >= 0xA1 && byte <= 0xFE;
}

static OUTPUT shift_jis_pair(unsigned first, unsigned second)
{
    const unsigned row = first - 0x80;
    const unsigned cell = second - 0x80;
    const unsigned trail = cell + (row % 2 == 0 ? 0x7E : cell > 0x5F ? 0x20 : 0x1F);
    const unsigned leading = ((row + 1) >> 1) + (row < 0x5F ? 0x70 : 0xB0);
    return {{static_cast<std::uint8_t>(leading), static_cast<std::uint8_t>(trail)}, 2};
}

static OUTPUT feed(CONVERSION &conversion, std::uint8_t byte)
{
    const std::uint8_t before = std::exchange(conversion.pending, std::uint8_t{0});
    if (before == 0 && (byte == KANA || high(byte))) {
        conversion.pending = byte;
        return {};
    }
    if (before == 0)
        return {{byte, 0}, 1};
    if (before == KANA && byte >= 0xA1 && byte <= 0xDF)
        return {{byte, 0}, 1};
    if (before != KANA && high(byte))
        return shift_jis_pair(before, byte);
    return {{before, byte}, 2};
}

// ---- What two of them make into a text ----

// How far a search has come: this much of the text has come out, and this waits inside the two conversions.
struct PROGRESS {
    std::size_t told = 0;
    CONVERSION arriving{};
    CONVERSION leaving{};
};

static bool tell(PROGRESS &progress, std::uint8_t byte, std::string_view text)
{
    if (progress.told >= text.size() || byte_of(text[progress.told]) != byte)
        return false;
    ++progress.told;
    return true;
}

// Whether a byte that waits in the second conversion can still become what the text goes on with.
static bool hopeful(const PROGRESS &progress, std::string_view text)
{
    const std::uint8_t pending = progress.leaving.pending;
    if (pending == 0 || pending == KANA)
        return true;
    const std::string_view rest = text.substr(progress.told);
    if (!rest.empty() && byte_of(rest[0]) == pending)
        return true;
    return rest.size() > 1 && lead(byte_of(rest[0])) && byte_of(euc_of(rest.substr(0, 2))[0]) == pending;
}

// One byte more; false when something else than the text would come out.
static bool advance(PROGRESS &progress, std::uint8_t byte, std::string_view text)
{
    const OUTPUT stored = feed(progress.arriving, byte);
    for (std::size_t i = 0; i < stored.count; ++i) {
        const OUTPUT out = feed(progress.leaving, stored.bytes[i]);
        for (std::size_t k = 0; k < out.count; ++k)
            if (!tell(progress, out.bytes[k], text))
                return false;
    }
    return hopeful(progress, text);
}

// At the end of the text each conversion gives out what waits in it.
static bool complete(PROGRESS progress, std::string_view text)
{
    if (progress.arriving.pending != 0) {
        const OUTPUT out = feed(progress.leaving, progress.arriving.pending);
        for (std::size_t i = 0; i < out.count; ++i)
            if (!tell(progress, out.bytes[i], text))
                return false;
    }
    if (progress.leaving.pending != 0 && !tell(progress, progress.leaving.pending, text))
        return false;
    return progress.told == text.size();
}

// A way found: the progress, the byte that led here and from which step.
struct STEP {
    PROGRESS progress{};
    std::size_t from = 0;
    std::uint8_t byte = 0;
};

static std::string bytes_up_to(const std::vector<STEP> &steps, std::size_t at)
{
    std::string bytes;
    for (; at != 0; at = steps[at].from)
        bytes += static_cast<char>(steps[at].byte);
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

static std::size_t key_of(const PROGRESS &progress)
{
    return progress.told << 16 | static_cast<std::size_t>(progress.arriving.pending) << 8 |
           progress.leaving.pending;
}

// The shortest run of bytes that becomes `text` (Shift_JIS) after both conversions; breadth first, so that
// the first whole one is the shortest.
static std::optional<std::string> converted_twice_into(std::string_view text)
{
    std::vector<STEP> steps{STEP{}};
    std::vector<bool> seen((text.size() + 1) << 16);
    for (std::size_t at = 0; at < steps.size(); ++at) {
        if (complete(steps[at].progress, text))
            return bytes_up_to(steps, at);
        for (unsigned byte = 1; byte <= 0xFF; ++byte) {
            STEP next{steps[at].progress, at, static_cast<std::uint8_t>(byte)};
            if (!advance(next.progress, next.byte, text) || seen[key_of(next.progress)])
                continue;
            seen[key_of(next.progress)] = true;
            steps.push_back(next);
        }
    }
    return std::nullopt;
}

// The agent takes 255 characters of the longer fields and needs the NUL behind the name.
static std::size_t user_room(std::span<const char> field)
{
    return std::min<std::size_t>(field.size() - 1, 255);
}

static std::string put_told(std::string_view shift_jis, std::span<char> field)
{
    if (shift_jis.size() > user_room(field))
        return too_long(shift_jis.size() - user_room(field));
    const std::optional<std::string> bytes =
        ascii(shift_jis) ? std::string(shift_jis) : converted_twice_into(shift_jis);
    if (!bytes)
        return "has a character that the agent would tell as another one";
    if (bytes->size() > user_room(field))
        return too_long(bytes->size() - user_room(field));
    fill(field, *bytes);
    return "";
}

std::string charset_put_user(std::string_view utf8, std::span<char> field)
{
    const std::optional<std::string> bytes = charset_encode(utf8, TEXT_CODE::ShiftJis);
    return bytes ? put_told(*bytes, field) : UNKNOWN_CHARACTER;
}

std::string charset_keep_user(std::span<char> field)
{
    const std::string told(field.begin(), std::find(field.begin(), field.end(), '\0'));
    return put_told(told, field);
}

// Japanese text conversion: which encoding is it, Shift_JIS to EUC-JP and back, half-width katakana to
// full-width. A leaf without state, called by the request handlers, the engine's notices and the message
// lookup. Every converter is a function from the front of the text to one character of output; one loop
// drives them all.
#include "agent_daemon_text.h"

#include "wp_strings.h"

#include <algorithm>
#include <array>
#include <cstdint>

using std::size_t;
using std::string_view;

namespace
{
// One step of a conversion: bytes taken off the front of the text, bytes to write for them.
struct step {
    size_t taken;
    size_t size;
    std::array<int, 2> bytes;
};
using step_function = step (*)(string_view rest, int incode, bool tofull);

// A full-width Shift_JIS code and the input bytes that a voicing mark took.
struct widened {
    int lead;
    int trail;
    size_t mark;
};

// How a span took a conversion.
struct outcome {
    size_t consumed;
    size_t written;
};
}  // namespace

static constexpr int ESC = 0x1B;
static constexpr int SS2 = 0x8E;  // announces a half-width katakana in EUC-JP
static constexpr int SS3 = 0x8F;  // announces a two-byte code of the supplementary set in EUC-JP
static constexpr int HIGH_BIT = 0x80;
static constexpr int LANG_JAPANESE = 1;

static constexpr int KANA_FIRST = 0xA1;
static constexpr int KANA_LAST = 0xDF;
static constexpr int MARK_VOICED = 0xDE;
static constexpr int MARK_SEMIVOICED = 0xDF;

// Full-width Shift_JIS code of each half-width katakana byte 0xA1-0xDF.
static constexpr std::array<std::uint16_t, KANA_LAST - KANA_FIRST + 1> FULL_WIDTH = {
    0x8142, 0x8175, 0x8176, 0x8141, 0x8145, 0x8392, 0x8340, 0x8342, 0x8344, 0x8346, 0x8348, 0x8383, 0x8385,
    0x8387, 0x8362, 0x815B, 0x8341, 0x8343, 0x8345, 0x8347, 0x8349, 0x834A, 0x834C, 0x834E, 0x8350, 0x8352,
    0x8354, 0x8356, 0x8358, 0x835A, 0x835C, 0x835E, 0x8360, 0x8363, 0x8365, 0x8367, 0x8369, 0x836A, 0x836B,
    0x836C, 0x836D, 0x836E, 0x8371, 0x8374, 0x8377, 0x837A, 0x837D, 0x837E, 0x8380, 0x8381, 0x8382, 0x8384,
    0x8386, 0x8388, 0x8389, 0x838A, 0x838B, 0x838C, 0x838D, 0x838F, 0x8393, 0x814A, 0x814B,
};

static constexpr bool within(int c, int first, int last)
{
    return c >= first && c <= last;
}

static constexpr bool is_kana(int c)
{
    return within(c, KANA_FIRST, KANA_LAST);
}

static constexpr bool is_euc(int c)
{
    return within(c, 0xA1, 0xFE);
}

static constexpr bool is_sjis_lead(int c)
{
    return within(c, 0x81, 0x9F) || within(c, 0xE0, 0xEF);
}

static constexpr bool is_sjis_trail(int c)
{
    return within(c, 0x40, 0xFC);
}

// A byte that stands for Shift_JIS wherever it leads: not the EUC-JP katakana prefix among them.
static constexpr bool is_sjis_only(int c)
{
    return within(c, 0x81, 0x9F) && c != SS2;
}

// Behind the last byte stands the NUL.
static int byte_at(string_view text, size_t i)
{
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
}

static string_view up_to_nul(string_view text)
{
    return text.substr(0, text.find('\0'));
}

// ---- Which encoding is it? Each rule gives a code type, or CODE_ASCII when it leaves things as they are.
// ----

static int designated(int c2, int c3)
{
    if (c2 == 0x4B)
        return CODE_JIS_KANA;
    if (c2 == 0x24 && c3 == 0x42)
        return CODE_JIS_1983;
    if (c2 == 0x24 && c3 == 0x40)
        return CODE_JIS_1978;
    return CODE_ASCII;
}

static int after_ss2(int c2)
{
    if (within(c2, 0x40, 0x7E) || within(c2, 0x80, 0xA0) || within(c2, 0xE0, 0xFC))
        return CODE_SJIS;
    return is_kana(c2) ? CODE_UNDECIDED : CODE_ASCII;
}

// The NUL behind a last katakana is a `c2` too: a text that ends in a lone one is Shift_JIS.
static int after_kana(int c2)
{
    if (within(c2, 0xF0, 0xFE))
        return CODE_EUC;
    if (c2 <= 0x9F)
        return CODE_SJIS;
    return within(c2, 0xA1, 0xEF) ? CODE_UNDECIDED : CODE_ASCII;
}

static int after_high_lead(int c2)
{
    if (within(c2, 0x40, 0x7E) || within(c2, 0x80, 0xA0))
        return CODE_SJIS;
    if (within(c2, 0xFD, 0xFE))
        return CODE_EUC;
    return within(c2, 0xA1, 0xFC) ? CODE_UNDECIDED : CODE_ASCII;
}

// A katakana or first half of an EUC-JP pair, then a byte 0xE0-0xEF: the run of bytes 0x40 and above behind
// them may decide. Advances `*i` over the bytes of the run that it looked at.
static int decide_by_run(string_view text, size_t *i)
{
    for (; byte_at(text, *i) >= 0x40; ++*i) {
        const int c = byte_at(text, *i);
        if (is_sjis_only(c) || within(c, 0xFD, 0xFE)) {
            ++*i;
            return is_sjis_only(c) ? CODE_SJIS : CODE_EUC;
        }
    }
    return CODE_UNDECIDED;
}

// Judges the byte at `*i` and what follows it, and advances over what it looked at.
static int judge(string_view text, size_t *i)
{
    const int c = byte_at(text, (*i)++);
    if (is_sjis_only(c))
        return CODE_SJIS;
    if (within(c, 0xF0, 0xFE))
        return CODE_EUC;
    if (c != ESC && c != SS2 && !within(c, KANA_FIRST, 0xEF))
        return CODE_ASCII;
    const int c2 = byte_at(text, (*i)++);
    if (c == ESC)
        return designated(c2, c2 == 0x24 ? byte_at(text, (*i)++) : 0);
    if (c == SS2)
        return after_ss2(c2);
    if (!is_kana(c))
        return after_high_lead(c2);
    return within(c2, 0xE0, 0xEF) ? decide_by_run(text, i) : after_kana(c2);
}

int DetectCodeType(string_view text)
{
    int code = CODE_ASCII;
    for (size_t i = 0; i < text.size() && (code == CODE_ASCII || code == CODE_UNDECIDED);) {
        const int found = judge(text, &i);
        if (found != CODE_ASCII)
            code = found;
    }
    return code;
}

int DetectCodeType(const char *s, int n)
{
    if (s == nullptr)
        return CODE_NOSTRING;
    return DetectCodeType(string_view(s).substr(0, n > 0 ? static_cast<size_t>(n) : 0));
}

// ---- One code ----

void sjis2jis(int *b1, int *b2)
{
    const int adjust = *b2 < 159 ? 1 : 0;
    *b1 = (*b1 - (*b1 < 160 ? 112 : 176)) * 2 - adjust;
    *b2 -= adjust != 0 ? (*b2 > 127 ? 32 : 31) : 126;
}

void jis2sjis(int *b1, int *b2)
{
    *b2 += (*b1 & 1) != 0 ? (*b2 > 95 ? 32 : 31) : 126;
    *b1 = ((*b1 + 1) >> 1) + (*b1 < 95 ? 112 : 176);
}

static bool takes_voicing(int kana)
{
    return within(kana, 0xB6, 0xC4) || within(kana, 0xCA, 0xCE) || kana == 0xB3;
}

static bool takes_semivoicing(int kana)
{
    return within(kana, 0xCA, 0xCE);
}

// The bytes behind a katakana among which a mark may stand: in EUC-JP behind its prefix. 0: no mark is looked
// for.
static size_t mark_size(string_view rest, int incode)
{
    if (incode == CODE_EUC)
        return byte_at(rest, 0) == SS2 ? 2 : 0;
    return incode == CODE_SJIS ? 1 : 0;
}

static int voiced_trail(int trail)
{
    return within(trail, 0x4A, 0x67) || within(trail, 0x6E, 0x7A) ? trail + 1 : trail;
}

// Widens `kana`; `rest` is the text behind it.
static widened widen(int kana, string_view rest, int incode)
{
    const int code = FULL_WIDTH[static_cast<size_t>(kana - KANA_FIRST)];
    widened full = {code >> 8, code & 0xFF, 0};
    const size_t size = mark_size(rest, incode);
    const int mark = size > 0 ? byte_at(rest, size - 1) : 0;
    if (mark == MARK_VOICED && takes_voicing(kana)) {
        full.trail = code == 0x8345 ? 0x94 : voiced_trail(full.trail);  // U has its voiced form elsewhere
        full.mark = size;
    } else if (mark == MARK_SEMIVOICED && takes_semivoicing(kana)) {
        full.trail += within(full.trail, 0x6E, 0x7A) ? 2 : 0;
        full.mark = size;
    }
    return full;
}

void han2zen(const char **p, int *b1, int *b2, int incode, int *count, int n)
{
    if (!is_kana(*b1))
        return;
    const size_t left = n > *count ? static_cast<size_t>(n - *count) : 0;
    const widened full = widen(*b1, string_view(*p, left), incode);
    *b1 = full.lead;
    *b2 = full.trail;
    *p += full.mark;
    *count += static_cast<int>(full.mark);
}

// ---- One character: what the converters do with the front of the text, which is not empty ----

static step one(size_t taken, int byte)
{
    return {taken, 1, {byte, 0}};
}

static step pair(size_t taken, int first, int second)
{
    return {taken, 2, {first, second}};
}

static step nothing(size_t taken)
{
    return {taken, 0, {}};
}

static step pair_as_euc(size_t taken, int lead, int trail)
{
    sjis2jis(&lead, &trail);
    return pair(taken, lead + HIGH_BIT, trail + HIGH_BIT);
}

static step pair_as_sjis(size_t taken, int first, int second)
{
    first -= HIGH_BIT;
    second -= HIGH_BIT;
    jis2sjis(&first, &second);
    return pair(taken, first, second);
}

// The half-width katakana `kana` behind `prefix` bytes that have been dealt with.
static step kana_as_wide_euc(string_view rest, size_t prefix, int kana, int incode)
{
    const widened full = widen(kana, rest.substr(prefix + 1), incode);
    return pair_as_euc(prefix + 1 + full.mark, full.lead, full.trail);
}

static step kana_as_wide_sjis(string_view rest, size_t prefix, int kana, int incode)
{
    const widened full = widen(kana, rest.substr(prefix + 1), incode);
    return pair(prefix + 1 + full.mark, full.lead, full.trail);
}

static step step_shift2euc(string_view rest, int incode, bool tofull)
{
    const int c = byte_at(rest, 0);
    const int c2 = byte_at(rest, 1);
    if (is_sjis_lead(c) && rest.size() > 1)
        return is_sjis_trail(c2) ? pair_as_euc(2, c, c2) : pair(2, c, c2);
    if (is_kana(c))
        return tofull ? kana_as_wide_euc(rest, 0, c, incode) : pair(1, SS2, c);
    return one(1, c);
}

static step step_euc2shift(string_view rest, int incode, bool tofull)
{
    const int c = byte_at(rest, 0);
    const int c2 = byte_at(rest, 1);
    if (rest.size() == 1)
        return one(1, c);
    if (is_euc(c))
        return is_euc(c2) ? pair_as_sjis(2, c, c2) : pair(2, c, c2);
    if (c == SS2 && is_kana(c2))
        return tofull ? kana_as_wide_sjis(rest, 1, c2, incode) : one(2, c2);
    return c == SS2 ? pair(2, c, c2) : one(1, c);
}

static step step_euc2euc(string_view rest, int incode, bool tofull)
{
    const int c = byte_at(rest, 0);
    const int c2 = byte_at(rest, 1);
    if (is_euc(c))
        return is_euc(c2) ? pair(2, c, c2) : nothing(std::min<size_t>(2, rest.size()));
    if (c != SS2 || rest.size() == 1)
        return one(1, c);
    return tofull && is_kana(c2) ? kana_as_wide_euc(rest, 1, c2, incode) : pair(2, c, c2);
}

static step step_shift2shift(string_view rest, int incode, bool tofull)
{
    const int c = byte_at(rest, 0);
    const int c2 = byte_at(rest, 1);
    if (is_sjis_lead(c))
        return is_sjis_trail(c2) ? pair(2, c, c2) : nothing(std::min<size_t>(2, rest.size()));
    return tofull && is_kana(c) ? kana_as_wide_sjis(rest, 0, c, incode) : one(1, c);
}

// ---- The loop ----

// Converts as long as whole characters fit and puts the NUL behind them. `out` has room for that at least.
static outcome convert(string_view in, std::span<char> out, step_function next, int incode, bool tofull)
{
    outcome so_far = {0, 0};
    while (so_far.consumed < in.size()) {
        const step now = next(in.substr(so_far.consumed), incode, tofull);
        if (so_far.written + now.size >= out.size())
            break;
        for (size_t i = 0; i < now.size; ++i)
            out[so_far.written++] = static_cast<char>(now.bytes[i]);
        so_far.consumed += now.taken;
    }
    out[so_far.written] = '\0';
    return so_far;
}

static int convert_into(string_view in, std::span<char> out, step_function next, int incode, int tofull)
{
    if (out.empty())
        return 0;
    return static_cast<int>(convert(up_to_nul(in), out, next, incode, tofull != 0).consumed);
}

// For callers that answer for the room themselves: `growth` bytes of output at most for one of input.
static int convert_unbounded(const char *in, char *out, step_function next, size_t growth, int incode,
                             int tofull)
{
    if (out == nullptr)
        return 0;
    const string_view text(in, wp_strlen(in));
    return convert_into(text, std::span(out, growth * text.size() + 1), next, incode, tofull);
}

int shift2euc(string_view in, std::span<char> out, int incode, int tofull)
{
    return convert_into(in, out, step_shift2euc, incode, tofull);
}

int shift2euc(const char *in, char *out, int incode, int tofull)
{
    return convert_unbounded(in, out, step_shift2euc, 2, incode, tofull);
}

int euc2shift(string_view in, std::span<char> out, int incode, int tofull)
{
    return convert_into(in, out, step_euc2shift, incode, tofull);
}

int euc2shift(const char *in, char *out, int incode, int tofull)
{
    return convert_unbounded(in, out, step_euc2shift, 1, incode, tofull);
}

int euc2euc(string_view in, std::span<char> out, int incode, int tofull)
{
    return convert_into(in, out, step_euc2euc, incode, tofull);
}

int euc2euc(const char *in, char *out, int incode, int tofull)
{
    return convert_unbounded(in, out, step_euc2euc, 1, incode, tofull);
}

int shift2shift(string_view in, std::span<char> out, int incode, int tofull)
{
    return convert_into(in, out, step_shift2shift, incode, tofull);
}

int shift2shift(const char *in, char *out, int incode, int tofull)
{
    return convert_unbounded(in, out, step_shift2shift, 2, incode, tofull);
}

// ---- Copies that end with a whole character ----

// Bytes of the character at the front of 7-bit JIS text. `*wide` says whether a two-byte set is designated.
static size_t jis_character_size(string_view rest, bool *wide)
{
    if (byte_at(rest, 0) != ESC)
        return *wide ? 2 : 1;
    *wide = byte_at(rest, 1) == 0x24;
    return byte_at(rest, 1) == 0x4B ? 2 : 3;
}

// Undecided text is taken as EUC-JP: what the host keeps.
static size_t character_size(string_view rest, int code)
{
    const int c = byte_at(rest, 0);
    if (code == CODE_SJIS)
        return is_sjis_lead(c) || within(c, 0xF0, 0xFC) ? 2 : 1;
    if (code != CODE_EUC && code != CODE_UNDECIDED)
        return 1;
    if (c == SS3)
        return 3;
    return is_euc(c) || c == SS2 ? 2 : 1;
}

size_t text_fit(string_view text, size_t limit, int code)
{
    bool wide = false;
    size_t fit = 0;
    while (fit < text.size()) {
        const string_view rest = text.substr(fit);
        const size_t size = within(code, CODE_JIS_1983, CODE_JIS_KANA) ? jis_character_size(rest, &wide)
                                                                       : character_size(rest, code);
        const size_t whole = std::min(size, rest.size());
        if (fit + whole > limit)
            break;
        fit += whole;
    }
    return fit;
}

static int copy_text(string_view in, std::span<char> out, int code)
{
    const size_t length = text_fit(in, out.size() - 1, code);
    std::copy_n(in.begin(), length, out.begin());
    out[length] = '\0';
    return static_cast<int>(length);
}

// ---- The network boundary. Half-width katakana stay half-width in both directions. ----

int JConvForDataInFromNetwork(string_view in, std::span<char> out, int lang)
{
    if (out.empty() || in.data() == out.data())
        return -1;
    const string_view text = up_to_nul(in);
    const int code = DetectCodeType(text);
    if (code == CODE_SJIS || (code == CODE_UNDECIDED && lang <= LANG_JAPANESE))
        return static_cast<int>(convert(text, out, step_shift2euc, code, false).written);
    return copy_text(text, out, code);
}

int JConvForDataInFromNetwork(const char *in, char *out, int lang)
{
    if (in == nullptr || out == nullptr)
        return -1;
    const string_view text(in);
    return JConvForDataInFromNetwork(text, std::span(out, 2 * text.size() + 1), lang);
}

int JConvForDataOutToNetwork(string_view in, std::span<char> out, int lang)
{
    if (out.empty() || in.data() == out.data())
        return -1;
    const string_view text = up_to_nul(in);
    const int code = DetectCodeType(text);
    if (lang > LANG_JAPANESE)
        return copy_text(text, out, code);
    return static_cast<int>(convert(text, out, step_euc2shift, code, false).written);
}

int JConvForDataOutToNetwork(const char *in, char *out, int lang)
{
    if (in == nullptr || out == nullptr)
        return -1;
    const string_view text(in);
    return JConvForDataOutToNetwork(text, std::span(out, text.size() + 1), lang);
}

// Japanese text: monitors send and receive Shift_JIS, the host keeps EUC-JP. Each conversion exists twice:
// with a span, which it never overruns, and with a bare pointer, for which the caller answers. The span forms
// always leave a NUL behind the text and leave out whole characters when the room ends; so does every caller
// that fills a field of a record.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

// What DetectCodeType finds.
enum CODETYPE : int {
    CODE_NOSTRING = -1,
    CODE_JIS_1983 = 1,  // 7-bit, designated by ESC 0x24 0x42
    CODE_JIS_1978 = 2,  // 7-bit, designated by ESC 0x24 0x40
    CODE_JIS_KANA = 3,  // 7-bit, designated by ESC 0x4B
    CODE_EUC = 4,
    CODE_SJIS = 5,
    CODE_UNDECIDED = 6,  // EUC-JP or Shift_JIS
    CODE_ASCII = 7,      // no eight-bit byte seen
};

/// The code type of the first `n` bytes of `s`, or of all of it when it is shorter; -1 for a null pointer.
[[nodiscard]] int DetectCodeType(const char *s, int n);
[[nodiscard]] int DetectCodeType(std::string_view text);

/// Text from a monitor, for the host. `lang`: 1 and less Japanese, above 1 another language, whose undecided
/// texts stay as they are. Returns the length of `out`; 0 for an empty text; -1 for a null pointer, for `out`
/// in place of `in`, or for an empty span. The bare `out` needs 2 * strlen(in) + 1 bytes.
int JConvForDataInFromNetwork(const char *in, char *out, int lang);
int JConvForDataInFromNetwork(std::string_view in, std::span<char> out, int lang);

/// Text from the host, for a monitor that speaks `lang`; above 1 it is copied. Results as above. The text
/// never grows: the bare `out` needs strlen(in) + 1 bytes.
int JConvForDataOutToNetwork(const char *in, char *out, int lang);
int JConvForDataOutToNetwork(std::string_view in, std::span<char> out, int lang);

/// The converters. `incode`: CODETYPE of the text, which decides how the mark behind a half-width katakana is
/// found; `tofull` not 0: half-width katakana become full-width. They return the bytes of `in` consumed: all,
/// unless a span was too short. A null `in` leaves `out` empty. The bare `out` needs 2 * strlen(in) + 1 bytes
/// for shift2euc and shift2shift, strlen(in) + 1 for euc2shift and euc2euc.
int shift2euc(const char *in, char *out, int incode, int tofull);
int shift2euc(std::string_view in, std::span<char> out, int incode, int tofull);
int euc2shift(const char *in, char *out, int incode, int tofull);
int euc2shift(std::string_view in, std::span<char> out, int incode, int tofull);
int euc2euc(const char *in, char *out, int incode, int tofull);
int euc2euc(std::string_view in, std::span<char> out, int incode, int tofull);
int shift2shift(const char *in, char *out, int incode, int tofull);
int shift2shift(std::string_view in, std::span<char> out, int incode, int tofull);

/// One two-byte code in place, Shift_JIS to JIS X 0208 row and cell (each plus 32) and back.
void sjis2jis(int *b1, int *b2);
void jis2sjis(int *b1, int *b2);

/// Widens the half-width katakana in `*b1` to a full-width Shift_JIS pair in `*b1`, `*b2`. `*p` stands behind
/// the katakana, at byte `*count` of `n`; both move on when a voicing mark found there is taken in. A byte
/// that is no katakana is left alone.
void han2zen(const char **p, int *b1, int *b2, int incode, int *count, int n);

/// How many bytes of `text`, at most `limit`, make whole characters in the encoding `code`.
[[nodiscard]] std::size_t text_fit(std::string_view text, std::size_t limit, int code);

// The standard string operations made safe against null pointers, and two helpers used beside them. Every
// room of the daemon calls these; fixed-size fields of records go through wp_field.h instead, because the
// copying functions here know no bounds beyond those the caller gives.
#pragma once

#include <cstddef>
#include <cstdint>

/// Whether there is no text: a null pointer or an empty string.
[[nodiscard]] bool wp_isnull(const char *s);

/// Orders like strcmp; no text comes before any text, and two of none are equal.
[[nodiscard]] int wp_strcmp(const char *a, const char *b);

/// Orders the first `n` bytes like strncmp. No text comes before any text, for n = 0 too.
[[nodiscard]] int wp_strncmp(const char *a, const char *b, std::size_t n);

/// Appends `src`; no text leaves `dst` as it is. `dst` needs strlen(dst) + strlen(src) + 1 bytes. Returns
/// `dst`, null when it is null.
char *wp_strcat(char *dst, const char *src);

/// Appends at most `n` bytes of `src` and a NUL. `dst` needs strlen(dst) + min(n, strlen(src)) + 1 bytes.
char *wp_strncat(char *dst, const char *src, std::size_t n);

/// Copies `src`; no text stores an empty string. `dst` needs strlen(src) + 1 bytes. Returns `dst`, null when
/// it is null.
char *wp_strcpy(char *dst, const char *src);

/// Copies at most `n` bytes of `src` and fills `dst` up to `n` bytes with zeros, like strncpy: a source of
/// `n` bytes or more leaves no NUL. No text stores only zeros. `dst` needs `n` bytes.
char *wp_strncpy(char *dst, const char *src, std::size_t n);

/// A copy from malloc, for the caller to free; null for no text or without memory.
[[nodiscard]] char *wp_strdup(const char *s);

/// Bytes before the NUL; 0 for a null pointer.
[[nodiscard]] std::size_t wp_strlen(const char *s);

/// First `c` in `s`, last `c` in `s`, first `what` in `s`; null when there is none or any text is missing.
[[nodiscard]] const char *wp_strchr(const char *s, int c);
[[nodiscard]] char *wp_strchr(char *s, int c);
[[nodiscard]] const char *wp_strrchr(const char *s, int c);
[[nodiscard]] char *wp_strrchr(char *s, int c);
[[nodiscard]] const char *wp_strstr(const char *s, const char *what);
[[nodiscard]] char *wp_strstr(char *s, const char *what);

/// The decimal number at the front of `s` (after white space, with an optional sign), 0 for none. A number
/// out of range gives the nearest limit of int.
[[nodiscard]] int wp_atoi(const char *s);

/// The same, unsigned: a minus sign counts down from 2^32, a number out of range gives 4294967295.
[[nodiscard]] std::uint32_t wp_uatoi(const char *s);

/// Whether any of the bits of `bit` is set in `value`. Every test of status bits goes through it.
[[nodiscard]] constexpr bool CheckBit(std::uint32_t value, std::uint32_t bit)
{
    return (value & bit) != 0;
}

/// Upper-cases the ASCII letters a to z in place, whatever the locale, and returns `s`; null stays null.
char *UpStrings(char *s);

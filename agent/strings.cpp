// The wp_ functions: the standard string operations made safe against null pointers. A null pointer and an
// empty string are the same to all of them. Called from every room of the daemon.
#include "wp_strings.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace
{
// A decimal number as it was written; `magnitude` stays at UINT_MAX + 1 once it is larger than that.
struct decimal {
    bool negative;
    std::uint64_t magnitude;
};
constexpr std::uint64_t TOO_LARGE = std::uint64_t{UINT_MAX} + 1;
}  // namespace

bool wp_isnull(const char *s)
{
    return s == nullptr || *s == '\0';
}

// Decides a comparison in which at least one side is no text.
static int order_of_missing(const char *a, const char *b)
{
    return static_cast<int>(wp_isnull(b)) - static_cast<int>(wp_isnull(a));
}

int wp_strcmp(const char *a, const char *b)
{
    if (wp_isnull(a) || wp_isnull(b))
        return order_of_missing(a, b);
    return std::strcmp(a, b);
}

int wp_strncmp(const char *a, const char *b, std::size_t n)
{
    if (wp_isnull(a) || wp_isnull(b))
        return order_of_missing(a, b);
    return std::strncmp(a, b, n);
}

char *wp_strcat(char *dst, const char *src)
{
    return wp_strncat(dst, src, wp_strlen(src));
}

char *wp_strncat(char *dst, const char *src, std::size_t n)
{
    if (dst == nullptr || wp_isnull(src))
        return dst;
    const std::size_t length = strnlen(src, n);
    char *end = dst + std::strlen(dst);
    std::memmove(end, src, length);
    end[length] = '\0';
    return dst;
}

char *wp_strcpy(char *dst, const char *src)
{
    if (dst == nullptr)
        return nullptr;
    const std::size_t length = wp_strlen(src);
    if (length > 0)
        std::memmove(dst, src, length);
    dst[length] = '\0';
    return dst;
}

char *wp_strncpy(char *dst, const char *src, std::size_t n)
{
    if (dst == nullptr)
        return nullptr;
    const std::size_t length = wp_isnull(src) ? 0 : strnlen(src, n);
    if (length > 0)
        std::memmove(dst, src, length);
    std::memset(dst + length, 0, n - length);
    return dst;
}

char *wp_strdup(const char *s)
{
    return wp_isnull(s) ? nullptr : strdup(s);
}

std::size_t wp_strlen(const char *s)
{
    return s == nullptr ? 0 : std::strlen(s);
}

const char *wp_strchr(const char *s, int c)
{
    return wp_isnull(s) ? nullptr : std::strchr(s, c);
}

char *wp_strchr(char *s, int c)
{
    return wp_isnull(s) ? nullptr : std::strchr(s, c);
}

const char *wp_strrchr(const char *s, int c)
{
    return wp_isnull(s) ? nullptr : std::strrchr(s, c);
}

char *wp_strrchr(char *s, int c)
{
    return wp_isnull(s) ? nullptr : std::strrchr(s, c);
}

const char *wp_strstr(const char *s, const char *what)
{
    return wp_isnull(s) || wp_isnull(what) ? nullptr : std::strstr(s, what);
}

char *wp_strstr(char *s, const char *what)
{
    return wp_isnull(s) || wp_isnull(what) ? nullptr : std::strstr(s, what);
}

static bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

static decimal read_decimal(const char *s)
{
    decimal number{false, 0};
    if (wp_isnull(s))
        return number;
    while (is_space(*s))
        ++s;
    number.negative = *s == '-';
    if (*s == '-' || *s == '+')
        ++s;
    for (; *s >= '0' && *s <= '9'; ++s) {
        number.magnitude = number.magnitude * 10 + static_cast<std::uint64_t>(*s - '0');
        if (number.magnitude > UINT_MAX)
            number.magnitude = TOO_LARGE;
    }
    return number;
}

int wp_atoi(const char *s)
{
    const decimal number = read_decimal(s);
    const auto value = static_cast<std::int64_t>(number.magnitude);
    if (number.negative)
        return -value < INT_MIN ? INT_MIN : static_cast<int>(-value);
    return value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

std::uint32_t wp_uatoi(const char *s)
{
    const decimal number = read_decimal(s);
    if (number.magnitude > UINT_MAX)
        return UINT_MAX;
    const auto value = static_cast<std::uint32_t>(number.magnitude);
    return number.negative ? 0U - value : value;
}

char *UpStrings(char *s)
{
    if (s == nullptr)
        return nullptr;
    for (char *p = s; *p != '\0'; ++p)
        if (*p >= 'a' && *p <= 'z')
            *p = static_cast<char>(*p - 'a' + 'A');
    return s;
}

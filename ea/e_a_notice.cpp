// Texts for users: each is made twice, through the message catalogue and in English, and shown on the
// monitors in that order. Called by the status monitor, the commands and the timer.
#include "e_a_internal.h"

#include "agent_daemon_text.h"
#include "agent_main_message.h"

#include <algorithm>
#include <cstdio>
#include <vector>

static constexpr int JAPANESE = 1;
static constexpr int ENGLISH = 2;

// One placeholder, taken apart.
typedef struct _PLACEHOLDER {
    std::size_t length;    // of its text in the format
    std::size_t position;  // 1-based number of its argument, 0: the next one
    bool zeros;
    int width;
    char conversion;
} PLACEHOLDER;

static constexpr int WIDTH_LIMIT = 99;  // a wider one is a damaged catalogue

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static std::size_t number_at(std::string_view text, std::size_t &at)
{
    std::size_t number = 0;
    for (; at < text.size() && is_digit(text[at]); ++at)
        number = std::min<std::size_t>(number * 10 + static_cast<std::size_t>(text[at] - '0'), 1000);
    return number;
}

// `text` starts with "%".
static PLACEHOLDER placeholder_at(std::string_view text)
{
    PLACEHOLDER found{};
    std::size_t at = 1;
    std::size_t digits = at;
    const std::size_t number = number_at(text, digits);
    if (digits > at && digits < text.size() && text[digits] == '$') {
        found.position = number;
        at = digits + 1;
    }
    found.zeros = at < text.size() && text[at] == '0';
    found.width = static_cast<int>(std::min<std::size_t>(number_at(text, at), WIDTH_LIMIT));
    found.conversion = at < text.size() ? text[at] : '\0';
    found.length = std::min(at + 1, text.size());
    return found;
}

// Those that a number needs; any other but "s" is a damaged catalogue.
static bool is_numeric(char conversion)
{
    return conversion == 'd' || conversion == 'i' || conversion == 'u';
}

static std::string converted(const PLACEHOLDER &placeholder, const NOTICEARG &argument)
{
    if (placeholder.conversion == 's')
        return argument.isnumber ? std::to_string(argument.number) : std::string(argument.text);
    if (!is_numeric(placeholder.conversion) || !argument.isnumber)
        return {};
    std::array<char, WIDTH_LIMIT + 24> text;
    std::snprintf(text.data(), text.size(), placeholder.zeros ? "%0*ld" : "%*ld", placeholder.width,
                  argument.number);
    return text.data();
}

std::string notice_format(const char *format, std::initializer_list<NOTICEARG> arguments)
{
    std::string text;
    std::size_t next = 0;
    for (std::string_view rest(format); !rest.empty();) {
        const std::size_t plain = std::min(rest.find('%'), rest.size());
        text += rest.substr(0, plain);
        rest.remove_prefix(plain);
        if (rest.empty())
            break;
        const PLACEHOLDER placeholder = placeholder_at(rest);
        rest.remove_prefix(placeholder.length);
        if (placeholder.conversion == '%') {
            text += '%';
            continue;
        }
        const std::size_t index = placeholder.position != 0 ? placeholder.position - 1 : next++;
        if (index < arguments.size())
            text += converted(placeholder, arguments.begin()[index]);
    }
    return text;
}

NOTICE notice_compose(const char *format, std::initializer_list<NOTICEARG> arguments)
{
    return {notice_format(GETTEXTj(format), arguments), notice_format(GETTEXTe(format), arguments)};
}

int notice_send(int code, const std::string &text, int lang)
{
    std::vector<char> outgoing(text.size() + 1);
    JConvForDataOutToNetwork(text, outgoing, 1);
    return Event_CallBack(code, outgoing.data(), lang, 0) < 0 ? -1 : 0;
}

int notify(const NOTICE &notice)
{
    int failures = notice_send(E_CB_MESSAGE, notice.localised, JAPANESE) != 0;
    failures += notice_send(E_CB_MESSAGE, notice.english, ENGLISH) != 0;
    return failures != 0 ? -1 : 0;
}

int notify(const char *format, std::initializer_list<NOTICEARG> arguments)
{
    return notify(notice_compose(format, arguments));
}

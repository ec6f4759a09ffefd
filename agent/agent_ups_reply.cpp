// Reads the unit's replies. The line may bring any bytes at any time, so nothing here trusts a length or a
// digit; called by the queries of agent_ups_model and agent_ups_status.
#include "agent_ups_reply.h"

#include "wp_strings.h"

#include <algorithm>
#include <cstddef>
#include <limits>

static constexpr std::size_t Q1_SIZE = Q1_MAX;
static constexpr std::size_t Q1_END = 46;
static constexpr std::size_t Q1_STATUS = 38;

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static int digit(char c)
{
    return is_digit(c) ? c - '0' : 0;
}

// Leading blanks are padding; then as many digits as there are. `text` has at most four characters.
static std::int16_t number(std::string_view text)
{
    int n = 0;
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    for (const char c : text) {
        if (!is_digit(c))
            break;
        n = n * 10 + digit(c);
    }
    return static_cast<std::int16_t>(n);
}

static TENTHS tenths(std::string_view whole, char tenth)
{
    return {number(whole), static_cast<std::int8_t>(digit(tenth))};
}

static bool all_binary(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '0' || c == '1'; });
}

static bool all_digits(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), is_digit);
}

// Text ends at a NUL, like everything the unit says.
static std::string_view text_of(std::string_view reply, std::size_t max)
{
    reply = reply.substr(0, max);
    return reply.substr(0, reply.find('\0'));
}

// A character like the wanted ones right behind them: noise brought one more, and every value before it may
// have moved by a place. No unit sent what could be read there.
static bool is_shifted(std::string_view reply, std::size_t end)
{
    return reply.size() > end && is_digit(reply[end]);
}

// ---- the status line

bool q1_wellformed(std::string_view reply)
{
    static constexpr std::array<std::size_t, 5> points{4, 10, 16, 25, 35};
    static constexpr std::array<std::size_t, 7> spaces{6, 12, 18, 22, 27, 32, 37};
    if (reply.size() != Q1_SIZE || reply[0] != '(')
        return false;
    const auto holds = [reply](char c) { return [reply, c](std::size_t at) { return reply[at] == c; }; };
    return std::all_of(points.begin(), points.end(), holds('.')) &&
           std::all_of(spaces.begin(), spaces.end(), holds(' ')) && (reply[29] == '.' || reply[30] == '.') &&
           (reply[Q1_END] == '\r' || reply[Q1_END] == '\n');
}

Q1REPLY q1_parse(std::string_view reply)
{
    Q1REPLY q1{};
    q1.input = tenths(reply.substr(1, 3), reply[5]);
    q1.output = tenths(reply.substr(13, 3), reply[17]);
    q1.load = number(reply.substr(19, 3));
    q1.freq = tenths(reply.substr(23, 2), reply[26]);
    q1.battery = tenths(reply.substr(28, 2), reply[31]);
    q1.temp = reply[33] == '-' ? TENTHS{-1, -1} : tenths(reply.substr(33, 2), reply[36]);
    for (unsigned bit = 0; bit < 8; ++bit)
        q1.status[bit] = reply[Q1_STATUS + 7 - bit];
    return q1;
}

bool q1_bit(const Q1REPLY &q1, unsigned bit)
{
    return q1.status[bit] == '1';
}

bool q1_bitclear(const Q1REPLY &q1, unsigned bit)
{
    return q1.status[bit] == '0';
}

bool reply_isnak(std::string_view reply)
{
    return reply.starts_with("NAK");
}

bool reply_iswake(std::string_view reply)
{
    return reply.starts_with("WAKE");
}

// ---- the model

static bool is_printable(char c)
{
    return c > ' ' && c < '\x7f';
}

static bool known_series(std::string_view name)
{
    return name.starts_with("ZQ") || name.starts_with("ZM") || name.starts_with("ZR");
}

MODELREPLY model_parse(std::string_view reply, std::string_view &name)
{
    if (reply.empty() || reply_isnak(reply))
        return MODELREPLY::Unusable;
    const std::string_view text = text_of(reply, MODEL_MAX);
    if (!known_series(text))
        return MODELREPLY::Foreign;
    const std::size_t end = text.find(text.starts_with("ZM") ? ' ' : '\n');
    if (end == std::string_view::npos)
        return MODELREPLY::Foreign;
    const std::string_view found = text.substr(0, std::min(end, text.find(' ')));
    if (!std::all_of(found.begin(), found.end(), is_printable))
        return MODELREPLY::Foreign;
    name = found;
    return MODELREPLY::Read;
}

MODELREPLY model_parsebracket(std::string_view reply, std::string_view &name)
{
    const std::string_view text = text_of(reply, MODEL_MAX);
    const std::size_t end = text.find(' ');
    if (!text.starts_with("[") || end == std::string_view::npos)
        return MODELREPLY::Unusable;
    const std::string_view found = text.substr(1, end - 1);
    if (!known_series(found) || !std::all_of(found.begin(), found.end(), is_printable))
        return MODELREPLY::Foreign;
    name = found;
    return MODELREPLY::Read;
}

// ---- what the unit can do

// One capability: it is there when all its characters are "1". Unused positions repeat the first.
typedef struct _CAPABILITYBIT {
    UPSFUNCTION bit;
    std::array<std::uint8_t, 3> at;
} CAPABILITYBIT;

static constexpr UPSFUNCTION UPSFUNCTION_ANSWERED = 0x4000;

static constexpr std::array<CAPABILITYBIT, 11> capability_bits{{
    {0x8000, {2, 2, 2}},
    {UPSFUNCTION_V2, {32, 32, 32}},
    {0x0800, {10, 11, 11}},
    {UPSFUNCTION_BUZZER, {12, 13, 13}},
    {UPSFUNCTION_BRR, {15, 16, 16}},
    {0x2000, {22, 22, 22}},
    {UPSFUNCTION_AUTORESTART, {23, 24, 24}},
    {0x0400, {27, 28, 30}},
    {0x0100, {27, 29, 30}},
    {0x0040, {27, 28, 31}},
    {0x0020, {27, 29, 31}},
}};

// Four groups of eight with one separator behind each.
static bool capability_wellformed(std::string_view reply)
{
    return reply.size() == CAPABILITY_MAX && all_binary(reply.substr(0, 8)) &&
           all_binary(reply.substr(9, 8)) && all_binary(reply.substr(18, 8)) &&
           all_binary(reply.substr(27, 8));
}

bool capability_parse(std::string_view reply, CAPABILITY &flags, UPSFUNCTION &functions)
{
    if (!capability_wellformed(reply))
        return false;
    const auto one = [reply](std::size_t at) { return reply[at] == '1' ? 1 : 0; };
    flags = {one(1), one(14), one(18), one(19), one(20), one(21), one(33)};
    unsigned mask = UPSFUNCTION_ANSWERED;
    for (const CAPABILITYBIT &c : capability_bits)
        if (one(c.at[0]) + one(c.at[1]) + one(c.at[2]) == 3)
            mask |= c.bit;
    // Switching off for good is offered only where the restart state can be asked for.
    if (CheckBit(mask, UPSFUNCTION_V2) && flags.Sfn == 1)
        mask |= UPSFUNCTION_SFN;
    functions = static_cast<UPSFUNCTION>(mask);
    return true;
}

// ---- unit state, measurements, dates

bool state_wellformed(std::string_view reply)
{
    return reply.size() == STATE_MAX && all_binary(reply.substr(0, 8)) && !is_shifted(reply, 8);
}

int state_detectionlevel(std::string_view reply)
{
    if (reply[6] == '1')
        return 0;
    return 1 + (reply[3] == '1' ? 2 : 0) + (reply[4] == '1' ? 1 : 0);
}

bool freq_parse(std::string_view reply, TENTHS &freq)
{
    if (reply.size() < 4 || !all_digits(reply.substr(0, 2)) || reply[2] != '.' || !is_digit(reply[3]) ||
        is_shifted(reply, 4))
        return false;
    freq = tenths(reply.substr(0, 2), reply[3]);
    return true;
}

static bool bracket_parse(std::string_view reply, std::string_view unit, TENTHS &quantity)
{
    return reply.starts_with("[") && reply.size() > 5 && reply.substr(5).starts_with(unit) &&
           freq_parse(reply.substr(1), quantity);
}

bool freq_parsebracket(std::string_view reply, TENTHS &freq)
{
    return bracket_parse(reply, "Hz", freq);
}

bool battvolt_parse(std::string_view reply, TENTHS &volt)
{
    return bracket_parse(reply, "V", volt);
}

bool battcap_parse(std::string_view reply, std::int8_t &percent)
{
    if (reply.size() < 3 || !all_digits(reply.substr(0, 3)) || is_shifted(reply, 3))
        return false;
    constexpr std::int16_t most = std::numeric_limits<std::int8_t>::max();
    percent = static_cast<std::int8_t>(std::min(number(reply.substr(0, 3)), most));
    return true;
}

bool battdate_parse(std::string_view reply, UPS_TIMEINFO &date)
{
    if (reply.size() < 8 || !all_digits(reply.substr(0, 8)) || is_shifted(reply, 8))
        return false;
    const int year = number(reply.substr(0, 4)) - 1900;
    date.year = year >= 1 && year <= 255 ? static_cast<std::uint8_t>(year) : std::uint8_t{0};
    date.month = static_cast<std::int8_t>(number(reply.substr(4, 2)));
    date.day = static_cast<std::int8_t>(number(reply.substr(6, 2)));
    return true;
}

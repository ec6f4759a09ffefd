// The unit's replies as text: what is a well-formed one and what stands in it. Pure functions on the bytes
// that the line brought, which may be anything; every reader of the UPS process goes through these. A value
// with one more digit behind it than it has places is refused: it is not the one that the unit sent.
#pragma once

#include "ups_records.h"

#include <array>
#include <cstdint>
#include <string_view>

// Largest reply of each query, bytes with the final newline.
inline constexpr int Q1_MAX = 47;
inline constexpr int MODEL_MAX = 15;
inline constexpr int CAPABILITY_MAX = 40;
inline constexpr int STATE_MAX = 9;
inline constexpr int BATTVOLT_MAX = 12;
inline constexpr int FREQ_MAX = 5;
inline constexpr int OLDFREQ_MAX = 13;
inline constexpr int BATTCAP_MAX = 5;
inline constexpr int BATTDATE_MAX = 10;
inline constexpr int UNASKED_MAX = 49;

// Status bits of Q1.
inline constexpr unsigned Q1_ACFAIL = 7;
inline constexpr unsigned Q1_BATTLOW = 6;
inline constexpr unsigned Q1_BYPASS = 5;
inline constexpr unsigned Q1_FAULT = 4;
inline constexpr unsigned Q1_STANDBY = 3;
inline constexpr unsigned Q1_TESTING = 2;
inline constexpr unsigned Q1_SHUTDOWN = 1;
inline constexpr unsigned Q1_BATTWEAK = 0;

// A measurement: integer part and one tenths digit.
typedef struct _TENTHS {
    std::int16_t whole;
    std::int8_t tenth;
} TENTHS;

// The status line.
typedef struct _Q1REPLY {
    TENTHS input;                // V
    TENTHS output;               // V
    int load;                    // percent, 0-999
    TENTHS freq;                 // Hz
    TENTHS battery;              // V
    TENTHS temp;                 // degrees Celsius; -1 and -1: the unit reports none
    std::array<char, 8> status;  // the character of each status bit, by bit number; not always '0' or '1'
} Q1REPLY;

// Which queries the unit answers; each 0 or 1.
typedef struct _CAPABILITY {
    int V;
    int BTt;
    int Six;
    int Bv;
    int Lfx;
    int Blx;
    int Sfn;
} CAPABILITY;

enum class MODELREPLY { Read = 0, Unusable = 1, Foreign = -1 };

/// Whether the status line has its form: length, separators, points. Digits and status bits are not looked
/// at.
[[nodiscard]] bool q1_wellformed(std::string_view reply);

/// Reads a well-formed status line. Digits are converted leniently: leading digits, else 0.
[[nodiscard]] Q1REPLY q1_parse(std::string_view reply);

/// Whether status bit `bit` (0-7) is "1".
[[nodiscard]] bool q1_bit(const Q1REPLY &q1, unsigned bit);

/// Whether status bit `bit` is "0".
[[nodiscard]] bool q1_bitclear(const Q1REPLY &q1, unsigned bit);

/// Whether this is the unit's refusal.
[[nodiscard]] bool reply_isnak(std::string_view reply);

/// Whether this is an unasked wake-up notice.
[[nodiscard]] bool reply_iswake(std::string_view reply);

/// The model name in the answer to "Si ?"; `name` points into `reply`.
[[nodiscard]] MODELREPLY model_parse(std::string_view reply, std::string_view &name);

/// The model name in the answer to "(SiCC)".
[[nodiscard]] MODELREPLY model_parsebracket(std::string_view reply, std::string_view &name);

/// Reads the capability reply. False when it is not one; flags and mask are then as they were.
[[nodiscard]] bool capability_parse(std::string_view reply, CAPABILITY &flags, UPSFUNCTION &functions);

/// Whether this is the reply of "V" or "V2": nine bytes, the first eight "0" or "1".
[[nodiscard]] bool state_wellformed(std::string_view reply);

/// The output voltage detection level 0-4 in a well-formed unit state.
[[nodiscard]] int state_detectionlevel(std::string_view reply);

/// Two digits, a point, a digit.
[[nodiscard]] bool freq_parse(std::string_view reply, TENTHS &freq);

/// The same between "[" and "Hz".
[[nodiscard]] bool freq_parsebracket(std::string_view reply, TENTHS &freq);

/// The same between "[" and "V".
[[nodiscard]] bool battvolt_parse(std::string_view reply, TENTHS &volt);

/// Three digits: percent, at most the 127 that its field holds.
[[nodiscard]] bool battcap_parse(std::string_view reply, std::int8_t &percent);

/// Eight digits YYYYMMDD. Sets year, month and day of `date`; a year that does not fit is 0.
[[nodiscard]] bool battdate_parse(std::string_view reply, UPS_TIMEINFO &date);

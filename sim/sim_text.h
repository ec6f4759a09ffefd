// Texts of scenarios, of the control channel and of the log: words with quotes and escapes, numbers,
// durations.
#pragma once

#include "sim_time.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim
{

struct Word {
    std::string text;
    bool quoted = false;  // a quoted word is never a keyword
};

struct Words {
    std::vector<Word> words;
    std::string error;  // empty: the line could be split
};

// Splits a line at blanks. "..." holds blanks together; \r \n \t \e \\ \" and \xHH stand for bytes, in quotes
// and out. An unquoted word that begins with # starts a comment.
Words split_words(std::string_view line);

// Bytes as printable text that split_words turns back into the same bytes.
std::string escaped(std::string_view bytes);

// The whole text as a decimal number without exponent; empty if it is anything else.
std::optional<double> number_of(std::string_view text);

// "90", "90s", "1.5s", "200ms", "2m", "1h", and sums such as "1m30s"; empty if it is anything else.
std::optional<Time> duration_of(std::string_view text);

}  // namespace sim

// A compiled message catalogue, read by its published format: what the C library would find in it, without
// the C library. For tests.
#pragma once

#include "testbed.h"

#include <cstring>
#include <map>
#include <string>

namespace testbed
{

/// Every message id with its translation; the header's id is empty. Throws TestbedError for anything that is
/// no catalogue of this machine's byte order.
inline std::map<std::string, std::string> read_catalogue(const std::string &path)
{
    constexpr std::uint32_t MAGIC = 0x950412de;
    const std::string bytes = read_file(path);
    const auto word = [&](std::size_t at) {
        std::uint32_t value = 0;
        if (at + sizeof value > bytes.size())
            throw TestbedError(path + " is cut off");
        std::memcpy(&value, bytes.data() + at, sizeof value);
        return value;
    };
    // A table's row: the text's length and its place.
    const auto text = [&](std::size_t row) {
        if (std::size_t{word(row)} + word(row + 4) > bytes.size())
            throw TestbedError(path + " is cut off");
        return bytes.substr(word(row + 4), word(row));
    };
    if (word(0) != MAGIC)
        throw TestbedError(path + " is no catalogue");
    std::map<std::string, std::string> messages;
    for (std::uint32_t i = 0; i < word(8); ++i)
        messages[text(word(12) + 8 * i)] = text(word(16) + 8 * i);
    return messages;
}

}  // namespace testbed

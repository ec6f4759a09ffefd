// The configuration file as a plain text and what each operation makes of it: a second opinion on the store,
// for tests that compare the bytes after thousands of operations. It knows no files, streams or positions.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace config_model
{

inline constexpr std::size_t LONGEST = 511;  // bytes of a line that is accepted, newline included

// A line, or as much of it as is met at once.
struct Piece {
    std::size_t at;    // where it stands in the text
    std::size_t line;  // where the line that it is part of begins
    std::string bytes;

    bool accepted() const
    {
        return bytes.back() == '\n' && bytes.find('\0') == std::string::npos;
    }
    std::size_t end() const
    {
        return at + bytes.size();
    }
};

// The pieces of `text` from `from` on, as if a line began there.
inline std::vector<Piece> pieces(const std::string &text, std::size_t from)
{
    std::vector<Piece> all;
    for (std::size_t line = from; line < text.size();) {
        const std::size_t newline = text.find('\n', line);
        const std::size_t end = newline == std::string::npos ? text.size() : newline + 1;
        for (std::size_t at = line; at < end; at += LONGEST)
            all.push_back({at, line, text.substr(at, std::min(LONGEST, end - at))});
        line = end;
    }
    return all;
}

inline std::string without_leading(std::string_view characters, std::string text)
{
    text.erase(0, std::min(text.find_first_not_of(characters), text.size()));
    return text;
}

inline bool is_header_of(const Piece &piece, const std::string &section)
{
    if (piece.bytes[0] != '[' || !piece.accepted())
        return false;
    const std::string inside = without_leading(" ", piece.bytes.substr(1));
    return inside.compare(0, section.size(), section) == 0 && inside.size() >= section.size() &&
           without_leading(" ", inside.substr(section.size()))[0] == ']';
}

// Where in the piece the value of that key begins, if the piece is a setting of it.
inline std::optional<std::size_t> value_column(const Piece &piece, const std::string &key)
{
    if (!piece.accepted())
        return std::nullopt;
    const std::string line = piece.bytes.substr(0, piece.bytes.size() - 1);
    const std::string body = without_leading(" ", line);
    if (body.substr(0, key.size()) != key)
        return std::nullopt;
    const std::string behind = body.substr(key.size());
    const std::string value = without_leading(" =", behind);
    if (behind.substr(0, behind.size() - value.size()).find('=') == std::string::npos)
        return std::nullopt;
    return line.size() - value.size();
}

// What stands between a section's header and the next one.
struct Section {
    std::vector<Piece> lines;
    std::optional<Piece> next;  // the header that ends it
};

inline Section section_from(const std::string &text, std::size_t from)
{
    Section section;
    for (const Piece &piece : pieces(text, from)) {
        if (piece.bytes[0] == '[') {
            section.next = piece;
            break;
        }
        section.lines.push_back(piece);
    }
    return section;
}

inline std::optional<Piece> find_header(const std::string &text, const std::string &section)
{
    for (const Piece &piece : pieces(text, 0))
        if (is_header_of(piece, section))
            return piece;
    return std::nullopt;
}

inline std::optional<std::string> read(const std::string &text, const std::string &section,
                                       const std::string &key)
{
    const auto header = find_header(text, section);
    if (!header)
        return std::nullopt;
    if (key.empty())
        return header->bytes.substr(0, header->bytes.size() - 1);
    for (const Piece &piece : section_from(text, header->end()).lines)
        if (const auto column = value_column(piece, key))
            return piece.bytes.substr(*column, piece.bytes.size() - 1 - *column);
    return std::nullopt;
}

// Stores a setting in a text that has `from` behind the section's header; false when it is refused.
inline bool put(std::string &text, std::size_t from, const std::string &key, const std::string &value)
{
    const Section section = section_from(text, from);
    for (const Piece &piece : section.lines)
        if (const auto column = value_column(piece, key)) {
            if (*column + value.size() + 1 > LONGEST)
                return false;
            text.replace(piece.at + *column, piece.bytes.size() - 1 - *column, value);
            return true;
        }
    const std::string line = " " + key + " = " + value + "\n";
    if (line.size() > LONGEST)
        return false;
    if (section.next)
        text.replace(section.next->line - 1, 1, "\n" + line + "\n");
    else
        text += "\n" + line;
    return true;
}

inline bool write(std::string &text, const std::string &section, const std::string &key, std::string value)
{
    if ((section + key).find('\n') != std::string::npos)
        return false;
    value = value.substr(0, value.find('\n'));
    const auto header = find_header(text, section);
    const std::size_t from = header ? header->end() : text.size();
    if (!header) {
        const std::string line = "[ " + section + " ]\n";
        if (line.size() > LONGEST)
            return false;
        text += "\n" + line;
    }
    return key.empty() || put(text, from, key, value);
}

// Removes one setting; false when there was none.
inline bool remove_setting(std::string &text, const std::string &section, const std::string &key)
{
    const auto header = find_header(text, section);
    if (!header)
        return false;
    for (const Piece &piece : section_from(text, header->end()).lines)
        if (value_column(piece, key)) {
            text.erase(piece.at, piece.bytes.size());
            return true;
        }
    return false;
}

// The result of the store's operation, which is told whether to go on to further settings of that key.
inline int remove(std::string &text, const std::string &section, const std::string &key, bool all)
{
    const auto header = find_header(text, section);
    if (!header)
        return 1;
    if (key.empty()) {
        const auto next = section_from(text, header->end()).next;
        text.erase(header->at, next ? next->at - header->at : std::string::npos);
        return 0;
    }
    while (remove_setting(text, section, key) && all)
        ;
    return 0;
}

}  // namespace config_model

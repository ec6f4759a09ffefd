// Reading the settings file. The rules are those of the daemon's store: a header starts in the first column,
// a blank is the space character only, a line is at most 511 bytes with its newline, there are no comments,
// and of two sections or two keys of one name the first is used.
#include "control_settings.h"

#include <algorithm>
#include <cstdlib>
#include <set>

static constexpr std::size_t LINE_LIMIT = 511;  // bytes with the newline

// Where the parser stands.
struct PLACE {
    SETTINGS &settings;
    std::string section;    // the header above; empty before the first
    bool repeated = false;  // a header of this name stood higher up
    bool unknown = false;
    std::set<std::string> sections;
    std::set<std::string> keys;  // of this section
    int line = 0;
};

static void complain(PLACE &place, std::string text)
{
    place.settings.complaints.push_back({place.line, std::move(text)});
}

static std::string_view without_blanks(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// What follows belongs to no section.
static void leave_section(PLACE &place)
{
    place.section = "?";
    place.unknown = true;
}

static void take_header(PLACE &place, std::string_view line)
{
    const std::size_t end = line.find(']');
    if (end == std::string_view::npos) {
        leave_section(place);
        complain(place, "the header has no \"]\", so what follows belongs to no section");
        return;
    }
    place.section = without_blanks(line.substr(1, end - 1));
    place.keys.clear();
    place.unknown = !known_section(place.section);
    place.repeated = !place.sections.insert(place.section).second;
    if (place.unknown)
        complain(place, "voltariad knows no section \"" + place.section + "\"");
    else if (place.repeated)
        complain(place, "section \"" + place.section + "\" stood higher up; this one is never read");
}

static void check_setting(PLACE &place, const SETTING &setting)
{
    if (!known_key(setting.section, setting.key)) {
        complain(place,
                 "voltariad knows no key \"" + setting.key + "\" in section \"" + setting.section + "\"");
        return;
    }
    const std::string wrong = value_complaint(setting.section, setting.key, setting.value);
    if (!wrong.empty())
        complain(place, setting.key + " " + wrong + ", not \"" + setting.value + "\"");
}

static void store_setting(PLACE &place, SETTING setting)
{
    // One complaint, at the header, is enough.
    if (place.unknown || place.repeated)
        return;
    if (place.section.empty()) {
        complain(place, "\"" + setting.key + "\" stands above the first section and is never found");
        return;
    }
    if (!place.keys.insert(setting.key).second) {
        complain(place, "\"" + setting.key + "\" stood higher up in the section; this one is never read");
        return;
    }
    check_setting(place, setting);
    place.settings.list.push_back(std::move(setting));
}

static void take_setting(PLACE &place, std::string_view line)
{
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    if (line.empty())
        return;
    const std::size_t end = std::min(line.find_first_of(" ="), line.size());
    const std::size_t value = std::min(line.find_first_not_of(" =", end), line.size());
    if (line.substr(end, value - end).find('=') == std::string_view::npos || end == 0) {
        complain(place, "this is neither a section nor a setting and is passed over");
        return;
    }
    store_setting(place, {place.line, place.section, std::string(line.substr(0, end)),
                          std::string(line.substr(value))});
}

// A piece of the file without its newline, one that the daemon takes for no setting; even so it ends a
// section.
static void pass_over(PLACE &place, std::string_view piece, std::string why)
{
    complain(place, std::move(why));
    if (piece.starts_with('['))
        leave_section(place);
}

static void take_line(PLACE &place, std::string_view line)
{
    if (line.find('\0') != std::string_view::npos)
        return pass_over(place, line, "the line holds a NUL byte and is passed over");
    if (line.ends_with('\r'))
        complain(place, "the line ends in a carriage return, which is taken for a part of it");
    if (line.starts_with('['))
        take_header(place, line);
    else
        take_setting(place, line);
}

// The next piece as a reader with room for a line of the limit gets it: of a longer line, one part after the
// other, the last of which counts as a line of its own.
static std::string_view next_piece(std::string_view text)
{
    const std::string_view room = text.substr(0, LINE_LIMIT);
    const std::size_t end = room.find('\n');
    return end == std::string_view::npos ? room : room.substr(0, end + 1);
}

static void take_piece(PLACE &place, std::string_view piece, bool last)
{
    if (piece.ends_with('\n'))
        take_line(place, piece.substr(0, piece.size() - 1));
    else if (last)
        pass_over(place, piece, "the last line does not end in a newline and is passed over");
    else
        pass_over(place, piece, "the line is longer than 510 characters and is passed over");
}

SETTINGS settings_parse(std::string_view text)
{
    SETTINGS settings;
    settings.there = settings.readable = true;
    PLACE place{settings, "", false, false, {}, {}, 0};
    for (bool begins = true; !text.empty();) {
        const std::string_view piece = next_piece(text);
        place.line += begins ? 1 : 0;
        take_piece(place, piece, piece.size() == text.size());
        begins = piece.ends_with('\n');
        text.remove_prefix(piece.size());
    }
    return settings;
}

SETTINGS settings_read(const SYSTEM &system)
{
    if (const auto text = system_read(system, SETTINGS_PATH))
        return settings_parse(*text);
    SETTINGS settings;
    settings.there = system_exists(system, SETTINGS_PATH);
    return settings;
}

const std::string *settings_value(const SETTINGS &settings, std::string_view section, std::string_view key)
{
    for (const SETTING &setting : settings.list)
        if (setting.section == section && setting.key == key)
            return &setting.value;
    return nullptr;
}

long settings_number(const SETTINGS &settings, std::string_view section, std::string_view key, long missing)
{
    const std::string *value = settings_value(settings, section, key);
    return value != nullptr ? std::strtol(value->c_str(), nullptr, 10) : missing;
}

// The settings file as the daemon's store reads it, line by line, with everything in it that the daemon would
// pass over or take otherwise than it was meant.
#pragma once

#include "control_system.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr char SETTINGS_PATH[] = "/usr/lib/voltaria/config";

struct SETTING {
    int line = 0;
    std::string section;
    std::string key;
    std::string value;
};

struct COMPLAINT {
    int line = 0;
    std::string text;  // what is wrong and what comes of it, without a full stop
};

struct SETTINGS {
    bool there = false;         // there is a file
    bool readable = false;      // and it could be read
    std::vector<SETTING> list;  // those that the daemon finds
    std::vector<COMPLAINT> complaints;
};

[[nodiscard]] SETTINGS settings_read(const SYSTEM &system);
[[nodiscard]] SETTINGS settings_parse(std::string_view text);

/// A value as the daemon finds it; nullptr when it would take its default.
[[nodiscard]] const std::string *settings_value(const SETTINGS &settings, std::string_view section,
                                                std::string_view key);
/// The number at the begin of a value, 0 when there is none, as the daemon reads it; `missing` without a
/// value.
[[nodiscard]] long settings_number(const SETTINGS &settings, std::string_view section, std::string_view key,
                                   long missing);

// ---- What may stand in it (control_settings_keys.cpp) ----

[[nodiscard]] bool known_section(std::string_view section);
[[nodiscard]] bool known_key(std::string_view section, std::string_view key);
/// What is wrong with the value of a known key: "must be 0 to 4"; empty when nothing is.
[[nodiscard]] std::string value_complaint(std::string_view section, std::string_view key,
                                          std::string_view value);

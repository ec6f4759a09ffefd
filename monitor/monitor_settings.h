// The agent's working configuration as keys and values: what each field of UPS_PARAM is called, what it may
// hold, and how it is written. Keys are those of the agent's settings file; each has a friendlier name, too.
// Fields that the agent keeps nowhere have no key. Used by `voltaria config`.
#pragma once

#include "ups_records.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

enum class SETTING_KIND {
    Seconds,
    Lines,
    Switch,  // on, off
    Role,    // low, normal, high, protector
    Port,    // auto, none, 1 to 4
    Text,
};

// One key. Numbers are handed over as 64-bit ones whatever the field's width is; `text` is set for texts.
struct SETTING {
    std::string_view key;    // as in the settings file
    std::string_view alias;  // "battery-time"
    SETTING_KIND kind;
    std::int64_t lowest;  // of what `config set` accepts, as are `highest` and `fixed`
    std::int64_t highest;
    std::string_view fixed;  // not empty: cannot be set, and why
    std::string_view meaning;
    std::int64_t (*get)(const UPS_PARAM &);
    void (*set)(UPS_PARAM &, std::int64_t);
    std::span<char> (*text)(UPS_PARAM &);
};

[[nodiscard]] std::span<const SETTING> settings();

/// By key or by alias, in any case of letters; null when there is none.
[[nodiscard]] const SETTING *setting_named(std::string_view name);

/// For people: "60 s", "200 lines", "on", "normal", "auto", the text itself; "code N" for what has no words.
[[nodiscard]] std::string setting_words(const SETTING &setting, const UPS_PARAM &config);
/// For scripts: "60", "200", "on", "normal", "auto", the text itself. What `setting_put` takes.
[[nodiscard]] std::string setting_value(const SETTING &setting, const UPS_PARAM &config);

/// Takes a value as a person writes it: seconds also as "90s", "10min" or "2h", switches also as yes, no,
/// true, false, 1 and 0, roles and ports also as their numbers, a port also as its device. Returns what is
/// wrong with it, with what is allowed, and leaves the configuration as it was; "" when it is put in.
[[nodiscard]] std::string setting_put(const SETTING &setting, std::string_view value, UPS_PARAM &config);

/// What `value` may be: "0 s to 86400 s", "on or off", ...
[[nodiscard]] std::string setting_range(const SETTING &setting);

/// A remark on a configuration that the agent accepts and that is hardly meant; "" when there is none.
[[nodiscard]] std::string setting_remark(const SETTING &setting, const UPS_PARAM &config);

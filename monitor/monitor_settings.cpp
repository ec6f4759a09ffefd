// The table of the settings and the four ways in which values are written.
#include "monitor_settings.h"

#include "monitor_charset.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

// A field of a part of UPS_PARAM as a number.
template <auto PART, auto FIELD> static std::int64_t get_number(const UPS_PARAM &config)
{
    return config.*PART.*FIELD;
}

template <auto PART, auto FIELD> static void set_number(UPS_PARAM &config, std::int64_t value)
{
    auto &field = config.*PART.*FIELD;
    field = static_cast<std::remove_reference_t<decltype(field)>>(value);
}

template <auto FIELD> static std::span<char> text_field(UPS_PARAM &config)
{
    return config.commparam.*FIELD;
}

template <auto PART, auto FIELD>
static constexpr SETTING number(std::string_view key, std::string_view alias, SETTING_KIND kind,
                                std::int64_t lowest, std::int64_t highest, std::string_view meaning,
                                std::string_view fixed = {})
{
    return {key,
            alias,
            kind,
            lowest,
            highest,
            fixed,
            meaning,
            get_number<PART, FIELD>,
            set_number<PART, FIELD>,
            nullptr};
}

template <auto FIELD>
static constexpr SETTING text(std::string_view key, std::string_view alias, std::string_view meaning,
                              std::string_view fixed = {})
{
    return {key, alias, SETTING_KIND::Text, 0, 0, fixed, meaning, nullptr, nullptr, text_field<FIELD>};
}

static constexpr auto WORK = &UPS_PARAM::workparam;
static constexpr auto LOGS = &UPS_PARAM::logparam;
static constexpr auto COMM = &UPS_PARAM::commparam;

static constexpr std::int64_t DAY = 86400;  // s
// The unit takes its delay as at most two digits of minutes.
static constexpr std::int64_t LONGEST_TURNOFF = 5999;  // s
// Monitors ask for log lines by 16-bit numbers.
static constexpr std::int64_t MOST_LINES = 32767;

using enum SETTING_KIND;

static constexpr auto SETTINGS = std::to_array<SETTING>({
    number<WORK, &UPS_WORKPARAM::BattLife>("EXPECTBLIFE", "battery-time", Seconds, 0, DAY,
                                           "time on battery before the shutdown begins"),
    number<WORK, &UPS_WORKPARAM::TurnOffDelay>(
        "TurnOffDelay", "turn-off-delay", Seconds, 0, LONGEST_TURNOFF,
        "time the UPS waits before it switches off; from 60 s on it counts whole minutes"),
    number<WORK, &UPS_WORKPARAM::FirstWarningTime>("FIRSTWARN", "first-warning", Seconds, 0, DAY,
                                                   "time on battery before the first warning"),
    number<WORK, &UPS_WORKPARAM::CountDownTime>("INTERVAL", "warning-interval", Seconds, 1, DAY,
                                                "time between two warnings"),
    number<WORK, &UPS_WORKPARAM::WarningBeforeSchel>("WARNBEFORESCHE", "schedule-warning", Seconds, 0, DAY,
                                                     "how long before a scheduled shutdown users are warned"),
    number<WORK, &UPS_WORKPARAM::nCloseAppTime>("CloseAppTime", "close-time", Seconds, 0, DAY,
                                                "time for applications to close"),
    number<WORK, &UPS_WORKPARAM::AutoReboot>("AutoBoot", "auto-restart", Switch, 0, 1,
                                             "the UPS switches on again when mains returns"),
    number<WORK, &UPS_WORKPARAM::ComSet>("ComSet", "port", Port, COMSET_NOUPS, 4, "serial port of the UPS"),
    number<WORK, &UPS_WORKPARAM::BSuspend>("BSUSPEND", "suspend", Switch, 0, 1,
                                           "suspend instead of shutting down", "the agent always shuts down"),
    number<LOGS, &UPS_LOGPARAM::EnableEventLog>("EventLogEnabled", "event-log", Switch, 0, 1,
                                                "events are logged"),
    number<LOGS, &UPS_LOGPARAM::MaxEventRec>("EventLogMaxSize", "event-log-size", Lines, 1, MOST_LINES,
                                             "events kept in the log"),
    number<LOGS, &UPS_LOGPARAM::EnableDataLog>("DataLogEnabled", "data-log", Switch, 0, 1,
                                               "measurements are logged"),
    number<LOGS, &UPS_LOGPARAM::MaxDataRec>("DataLogMaxSize", "data-log-size", Lines, 1, MOST_LINES,
                                            "measurements kept in the log"),
    number<LOGS, &UPS_LOGPARAM::DataLogInterval>("DataLogInterval", "data-log-interval", Seconds, 1, DAY,
                                                 "time between two logged measurements"),
    number<COMM, &UPS_COMMPARAM::AgentType>("AgentType", "role", Role, AGENTTYPE_PROTECTOR, AGENTTYPE_HIGH,
                                            "priority of this server in its group"),
    number<COMM, &UPS_COMMPARAM::bIgnore>("IgnoreOtherAgentDown", "ignore-group", Switch, 0, 1,
                                          "shutdown orders of other agents are ignored"),
    text<&UPS_COMMPARAM::Group>("Group", "group", "group of agents that go down together"),
    text<&UPS_COMMPARAM::Agent>("AgentName", "agent-name", "this agent's name", "it is the host's name"),
});

std::span<const SETTING> settings()
{
    return SETTINGS;
}

static char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

static bool same_name(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

const SETTING *setting_named(std::string_view name)
{
    for (const SETTING &setting : SETTINGS)
        if (same_name(setting.key, name) || same_name(setting.alias, name))
            return &setting;
    return nullptr;
}

// ---- Words for numbers ----

struct WORD {
    SETTING_KIND kind;
    std::int64_t code;
    std::string_view word;
};

// Several words may stand for one number; the first is the one that is shown.
static constexpr auto WORDS = std::to_array<WORD>({
    {Switch, 1, "on"},
    {Switch, 0, "off"},
    {Switch, 1, "yes"},
    {Switch, 0, "no"},
    {Switch, 1, "true"},
    {Switch, 0, "false"},
    {Switch, 1, "1"},
    {Switch, 0, "0"},
    {Role, AGENTTYPE_LOW, "low"},
    {Role, AGENTTYPE_NORMAL, "normal"},
    {Role, AGENTTYPE_HIGH, "high"},
    {Role, AGENTTYPE_PROTECTOR, "protector"},
    {Role, AGENTTYPE_LOW, "4"},
    {Role, AGENTTYPE_NORMAL, "5"},
    {Role, AGENTTYPE_HIGH, "6"},
    {Role, AGENTTYPE_PROTECTOR, "1"},
    {Port, COMSET_AUTO, "auto"},
    {Port, COMSET_NOUPS, "none"},
    {Port, 1, "1"},
    {Port, 2, "2"},
    {Port, 3, "3"},
    {Port, 4, "4"},
    {Port, COMSET_AUTO, "0"},
    {Port, COMSET_NOUPS, "-2"},
    {Port, 1, "/dev/ttyS0"},
    {Port, 2, "/dev/ttyS1"},
    {Port, 3, "/dev/ttyS2"},
    {Port, 4, "/dev/ttyS3"},
});

static std::string_view word_of(SETTING_KIND kind, std::int64_t code)
{
    for (const WORD &row : WORDS)
        if (row.kind == kind && row.code == code)
            return row.word;
    return {};
}

static std::optional<std::int64_t> code_of(SETTING_KIND kind, std::string_view word)
{
    for (const WORD &row : WORDS)
        if (row.kind == kind && same_name(row.word, word))
            return row.code;
    return std::nullopt;
}

static std::string field_text(const SETTING &setting, const UPS_PARAM &config)
{
    UPS_PARAM copy = config;
    return text_safe(setting.text(copy), TEXT_CODE::ShiftJis);
}

std::string setting_value(const SETTING &setting, const UPS_PARAM &config)
{
    if (setting.kind == Text)
        return field_text(setting, config);
    const std::int64_t value = setting.get(config);
    const std::string_view word = word_of(setting.kind, value);
    return word.empty() ? std::to_string(value) : std::string(word);
}

std::string setting_words(const SETTING &setting, const UPS_PARAM &config)
{
    std::string value = setting_value(setting, config);
    if (setting.kind == Seconds)
        return value + " s";
    if (setting.kind == Lines)
        return value + " lines";
    if (setting.kind == Text || !word_of(setting.kind, setting.get(config)).empty())
        return value;
    return "code " + value;
}

// ---- Values from people ----

std::string setting_range(const SETTING &setting)
{
    switch (setting.kind) {
    case Seconds:
        return std::to_string(setting.lowest) + " s to " + std::to_string(setting.highest) +
               " s (90, 90s, 10min, 2h)";
    case Lines:
        return std::to_string(setting.lowest) + " to " + std::to_string(setting.highest) + " lines";
    case Switch:
        return "on or off";
    case Role:
        return "low, normal, high or protector";
    case Port:
        return "auto, none or 1 to 4 (for /dev/ttyS0 to /dev/ttyS3)";
    case Text:
        break;
    }
    return "a text of at most 15 bytes";
}

// How many seconds, or how many of the thing itself, a unit behind the number stands for; 0: no such unit.
static std::int64_t unit_factor(SETTING_KIND kind, std::string_view unit)
{
    if (unit.empty())
        return 1;
    if (kind == Lines)
        return unit == "lines" ? 1 : 0;
    if (unit == "s")
        return 1;
    return unit == "min" ? 60 : unit == "h" ? 3600 : 0;
}

static std::optional<std::int64_t> quantity_of(SETTING_KIND kind, std::string_view text)
{
    std::int64_t value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc())
        return std::nullopt;
    std::string_view unit(stop, static_cast<std::size_t>(end - stop));
    unit.remove_prefix(std::min(unit.find_first_not_of(' '), unit.size()));
    const std::int64_t factor = unit_factor(kind, unit);
    if (factor == 0 || value < 0 || value > INT32_MAX)
        return std::nullopt;
    return value * factor;
}

static std::string put_text(const SETTING &setting, std::string_view value, UPS_PARAM &config)
{
    if (value.empty() || value.find_first_not_of(' ') == std::string_view::npos)
        return std::string(setting.key) + " must not be empty";
    // The settings file drops some of these, and agents compare the rest of them, which nobody sees.
    if (value.front() == ' ' || value.front() == '=' || value.back() == ' ')
        return std::string(setting.key) + " must neither begin with a blank or \"=\" nor end with a blank";
    const std::string wrong = charset_put(value, TEXT_CODE::ShiftJis, setting.text(config));
    return wrong.empty() ? "" : std::string(setting.key) + " " + wrong;
}

std::string setting_put(const SETTING &setting, std::string_view value, UPS_PARAM &config)
{
    if (!setting.fixed.empty())
        return std::string(setting.key) + " cannot be set: " + std::string(setting.fixed);
    if (setting.kind == Text)
        return put_text(setting, value, config);
    const bool counted = setting.kind == Seconds || setting.kind == Lines;
    const auto number = counted ? quantity_of(setting.kind, value) : code_of(setting.kind, value);
    if (!number || *number < setting.lowest || *number > setting.highest)
        return std::string(setting.key) + " must be " + setting_range(setting) + ", not \"" +
               std::string(value) + "\"";
    setting.set(config, *number);
    return "";
}

std::string setting_remark(const SETTING &setting, const UPS_PARAM &config)
{
    const UPS_WORKPARAM &work = config.workparam;
    if ((setting.key == "EXPECTBLIFE" || setting.key == "FIRSTWARN") && work.FirstWarningTime > work.BattLife)
        return "the first warning (FIRSTWARN) comes later than the shutdown (EXPECTBLIFE)";
    if (setting.key == "TurnOffDelay" && work.TurnOffDelay > 60 && work.TurnOffDelay % 60 != 0)
        return "the UPS counts whole minutes: it will wait " + std::to_string(work.TurnOffDelay / 60) +
               " min";
    return "";
}

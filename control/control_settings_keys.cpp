// Which sections and keys the daemon reads, and what their values may be. In a name "#" stands for a number.
#include "control_settings.h"

#include "e_a_event_table.h"

#include <algorithm>
#include <charconv>
#include <limits>

enum class VALUE { Number, OnOff, YesNo, Role, Group, Text };

struct KEY_ROW {
    std::string_view section;
    std::string_view key;
    VALUE value = VALUE::Text;
    std::int64_t low = 0;
    std::int64_t high = 0;
};

static constexpr std::int64_t MOST = std::numeric_limits<std::int32_t>::max();
static constexpr std::int64_t MASK = std::numeric_limits<std::uint32_t>::max();
static constexpr std::size_t GROUP_LENGTH = 15;

static constexpr auto KEYS = std::to_array<KEY_ROW>({
    {"ShutDown", "BSUSPEND", VALUE::Number, 0, 1},
    {"ShutDown", "EXPECTBLIFE", VALUE::Number, 0, MOST},
    {"ShutDown", "TurnOffDelay", VALUE::Number, 0, MOST},
    {"ShutDown", "FIRSTWARN", VALUE::Number, 0, MOST},
    {"ShutDown", "INTERVAL", VALUE::Number, 0, MOST},
    {"ShutDown", "WARNBEFORESCHE", VALUE::Number, 0, MOST},
    {"ShutDown", "CloseAppTime", VALUE::Number, 0, MOST},
    {"EventLog", "EventLogEnabled", VALUE::Number, 0, 1},
    {"EventLog", "EventLogMaxSize", VALUE::Number, 0, MOST},
    {"DataLog", "DataLogEnabled", VALUE::Number, 0, 1},
    {"DataLog", "DataLogMaxSize", VALUE::Number, 0, MOST},
    {"DataLog", "DataLogInterval", VALUE::Number, 0, MOST},
    {"UPS", "ComSet", VALUE::Number, -2, 4},
    {"UPS", "AutoBoot", VALUE::Number, 0, 1},
    {"UPS", "AgentType", VALUE::Role},
    {"UPS", "IgnoreOtherAgentDown", VALUE::Number, 0, 1},
    {"UPS", "AgentName"},
    {"UPS", "Group", VALUE::Group},
    {"UPS", "BuzzerCan", VALUE::OnOff},
    {"UPS", "AutoTestCan", VALUE::OnOff},
    {"UPS", "OutputDetectionLevel", VALUE::Number, -MOST - 1, MOST},
    {"UPS", "ChangeBattTime"},
    {"UPSModel", "UPSModel", VALUE::Number, -MOST - 1, MOST},
    {"UPSModel", "AutoDetect", VALUE::Number, 0, MOST},
    {"Event#", "Record", VALUE::YesNo},
    {"Event#", "ShutDown", VALUE::Number, 0, 1},
    {"Event#", "BroadcastType", VALUE::Number, 0, MASK},
    {"Event#", "BroadcastUser", VALUE::Number, 0, MASK},
    {"Event#", "MailUser", VALUE::Number, 0, MASK},
    {"Event#", "Command"},
    {"UserInfo", "UserID"},
    {"#", "Name"},
    {"#", "Address"},
    {"#", "Email"},
    {"ScheShutDown", "SPECIALNO", VALUE::Number, 0, MOST},
    {"ScheShutDown", "WEEKLYNO", VALUE::Number, 0, MOST},
    {"ScheShutDown", "MONTHLYNO", VALUE::Number, 0, MOST},
    {"ScheShutDown", "SPECIALDAYSTART#"},
    {"ScheShutDown", "SPECIALDAYEND#"},
    {"ScheShutDown", "SpecScheduleOn#", VALUE::Number, -32768, 32767},
    {"ScheShutDown", "WEEKLYSTART#"},
    {"ScheShutDown", "WEEKLYEND#"},
    {"ScheShutDown", "WeekScheduleOn#", VALUE::Number, -32768, 32767},
    {"ScheShutDown", "MONTHLYSTART#"},
    {"ScheShutDown", "MONTHLYEND#"},
    {"ScheShutDown", "MONTHLYDUR#", VALUE::Number, 0, MOST},
    {"ScheShutDown", "MonthScheduleOn#", VALUE::Number, -32768, 32767},
    {"ScheTest", "SPECIALNO", VALUE::Number, 0, MOST},
    {"ScheTest", "WEEKLYNO", VALUE::Number, 0, MOST},
    {"ScheTest", "MONTHLYNO", VALUE::Number, 0, MOST},
    {"ScheTest", "SPECIALDAYSTART#"},
    {"ScheTest", "SPECIALDAYEND#"},
    {"ScheTest", "WEEKLYSTART#"},
    {"ScheTest", "WEEKLYEND#"},
    {"ScheTest", "MONTHLYSTART#"},
    {"ScheTest", "MONTHLYEND#"},
});

static bool to_number(std::string_view text, std::int64_t &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// A name that is a number alone is looked for as another setting has it, all others without leading zeros.
static bool matches(std::string_view pattern, std::string_view name)
{
    if (!pattern.ends_with('#'))
        return pattern == name;
    pattern.remove_suffix(1);
    if (!name.starts_with(pattern))
        return false;
    const std::string_view digits = name.substr(pattern.size());
    std::int64_t number = 0;
    return to_number(digits, number) && number >= 0 && (pattern.empty() || digits == std::to_string(number));
}

static bool is_event(std::string_view section)
{
    std::int64_t id = 0;
    return to_number(section.substr(std::string_view("Event").size()), id) &&
           std::any_of(EventMsg.begin(), EventMsg.end(),
                       [id](const EVENTMSG &event) { return event.eID == id; });
}

bool known_section(std::string_view section)
{
    const bool known = std::any_of(KEYS.begin(), KEYS.end(),
                                   [section](const KEY_ROW &row) { return matches(row.section, section); });
    return known && (!section.starts_with("Event") || section == "EventLog" || is_event(section));
}

static const KEY_ROW *key_row(std::string_view section, std::string_view key)
{
    const auto *row = std::find_if(KEYS.begin(), KEYS.end(), [&](const KEY_ROW &candidate) {
        return matches(candidate.section, section) && matches(candidate.key, key);
    });
    return row != KEYS.end() ? row : nullptr;
}

bool known_key(std::string_view section, std::string_view key)
{
    return key_row(section, key) != nullptr;
}

static std::string number_complaint(const KEY_ROW &row, std::string_view value)
{
    std::int64_t number = 0;
    if (to_number(value.substr(0, value.find_last_not_of(' ') + 1), number) && number >= row.low &&
        number <= row.high)
        return "";
    return "must be a number from " + std::to_string(row.low) + " to " + std::to_string(row.high);
}

std::string value_complaint(std::string_view section, std::string_view key, std::string_view value)
{
    const KEY_ROW *row = key_row(section, key);
    switch (row != nullptr ? row->value : VALUE::Text) {
    case VALUE::Number:
        return number_complaint(*row, value);
    case VALUE::OnOff:
        return value == "on" || value == "off" ? "" : "must be on or off";
    case VALUE::YesNo:
        return value == "Yes" || value == "No" ? "" : "must be Yes or No";
    case VALUE::Role:
        return value == "1" || value == "4" || value == "5" || value == "6" ? "" : "must be 1, 4, 5 or 6";
    case VALUE::Group:
        return value.size() <= GROUP_LENGTH ? "" : "has at most 15 characters";
    case VALUE::Text:
        break;
    }
    return "";
}

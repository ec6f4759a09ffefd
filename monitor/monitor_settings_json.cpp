// The documents that monitor_settings_json.h describes.
#include "monitor_settings_json.h"

#include "monitor_parts_json.h"
#include "monitor_schedule_text.h"

static std::string document(const JSON &json)
{
    return text_of(json) + "\n";
}

static JSON setting_json(const SETTING &setting, const UPS_PARAM &config)
{
    const std::string value = setting_value(setting, config);
    if (setting.kind == SETTING_KIND::Text)
        return value;
    const std::int64_t number = setting.get(config);
    if (setting.kind == SETTING_KIND::Switch && (number == 0 || number == 1))
        return number == 1;
    return value == std::to_string(number) ? JSON(number) : JSON(value);
}

std::string config_json(const UPS_PARAM &config, std::span<const SETTING> which)
{
    JSON json = JSON::object();
    for (const SETTING &setting : which)
        json[std::string(setting.key)] = setting_json(setting, config);
    return document(json);
}

static JSON names(const EVENT_SET &set, std::uint32_t mask)
{
    JSON json = JSON::array();
    for (std::size_t place = 0; place < USER_COUNT; place++)
        if ((mask >> place & 1U) != 0)
            json.push_back(eventset_mask_words(set, 1U << place));
    return json;
}

static JSON terminals(const EVENT_SET &set, const UPS_EVENTINFO &event)
{
    if (event.BroadcastType <= 1)
        return "all";
    return names(set, event.BroadcastType == TELL_USERS ? event.BroadcastUser : 0);
}

std::string events_json(const EVENT_SET &set, std::span<const UPS_EVENTINFO> which)
{
    JSON json = JSON::array();
    for (const UPS_EVENTINFO &event : which)
        json.push_back({{"id", event.EventID},
                        {"text", words_or_code(words_event(event.EventID), event.EventID)},
                        {"log", event.Record != 0},
                        {"shutdown", event.Shutdown != 0},
                        {"terminals", terminals(set, event)},
                        {"mail", names(set, event.MailUser)},
                        {"command", eventset_command_words(event)}});
    return document(json);
}

std::string users_json(const EVENT_SET &set)
{
    JSON json = JSON::array();
    for (const USERSDATA &user : set.users)
        json.push_back({{"number", user.UserID},
                        {"name", user_name(user)},
                        {"address", user_address(user)},
                        {"email", user_email(user)}});
    return document(json);
}

static JSON moment(const SCHEDULEINFO &entry, const UPS_TIMEINFO &time)
{
    return {{"day", schedule_day(time, entry.ID)}, {"time", schedule_clock(time)}};
}

std::string schedules_json(std::span<const SCHEDULEINFO> entries)
{
    JSON json = JSON::array();
    int number = 0;
    for (const SCHEDULEINFO &entry : entries) {
        const bool valid = schedule_possible(entry);
        const bool has_end = valid && entry.ActionID == SCHEDULE_SHUTDOWN;
        json.push_back({{"number", ++number},
                        {"action", schedule_action_words(entry)},
                        {"kind", schedule_kind_words(entry)},
                        {"on", entry.ScheduleOn != 0},
                        {"start", valid ? moment(entry, entry.stimeInfo) : JSON(nullptr)},
                        {"end", has_end ? moment(entry, entry.etimeInfo) : JSON(nullptr)},
                        {"text", schedule_words(entry)}});
    }
    return document(json);
}

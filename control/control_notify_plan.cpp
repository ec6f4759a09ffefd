// What the settings say about telling users, with the daemon's defaults for what they do not say.
#include "control_notify.h"

#include "e_a_event_table.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

static constexpr std::uint32_t TYPE_ALL = 1;  // and 0
static constexpr std::uint32_t TYPE_USERS = 2;
static constexpr long CLOSEAPPTIME = 300;  // s

static std::string section_of(const UPS_EVENTINFO &event)
{
    return "Event" + std::to_string(event.EventID);
}

static std::uint32_t number(const SETTINGS &settings, const std::string &section, std::string_view key,
                            std::uint32_t missing)
{
    const std::string *value = settings_value(settings, section, key);
    return value != nullptr ? static_cast<std::uint32_t>(std::strtoul(value->c_str(), nullptr, 10)) : missing;
}

static UPS_EVENTINFO event_of(const SETTINGS &settings, const UPS_EVENTINFO &defaults)
{
    UPS_EVENTINFO event = defaults;
    const std::string section = section_of(event);
    event.BroadcastType = number(settings, section, "BroadcastType", event.BroadcastType);
    event.BroadcastUser = number(settings, section, "BroadcastUser", event.BroadcastUser);
    event.MailUser = number(settings, section, "MailUser", event.MailUser);
    return event;
}

// Cut as the daemon's fields cut them.
static std::string cut(const SETTINGS &settings, const std::string &section, std::string_view key,
                       std::size_t size)
{
    const std::string *value = settings_value(settings, section, key);
    return value != nullptr ? value->substr(0, size - 1) : std::string();
}

static NOTIFY_USER user_of(const SETTINGS &settings, const std::string &section, std::uint32_t slot)
{
    NOTIFY_USER user;
    user.name = cut(settings, section, "Name", sizeof(USERSDATA::UserName));
    user.email = cut(settings, section, "Email", sizeof(USERSDATA::Email));
    user.slot = slot;
    return user;
}

// The numbers stand between blanks and commas.
static std::vector<NOTIFY_USER> users_of(const SETTINGS &settings)
{
    std::vector<NOTIFY_USER> users;
    const std::string *stored = settings_value(settings, "UserInfo", "UserID");
    const std::string list = stored != nullptr ? *stored : "";
    for (std::size_t at = 0; users.size() < USER_COUNT;) {
        at = list.find_first_not_of(" ,", at);
        if (at == std::string::npos)
            break;
        const std::size_t end = std::min(list.find_first_of(" ,", at), list.size());
        users.push_back(
            user_of(settings, list.substr(at, end - at), static_cast<std::uint32_t>(users.size())));
        at = end;
    }
    return users;
}

// Who is picked by any event.
struct PICKED {
    std::uint32_t written = 0;  // bit masks of slots
    std::uint32_t mailed = 0;
};

static bool has_slot(std::uint32_t mask, std::uint32_t slot)
{
    return (mask & (std::uint32_t{1} << slot)) != 0;
}

static void pick(PICKED &picked, const UPS_EVENTINFO &event)
{
    if (event.BroadcastType == TYPE_USERS)
        picked.written |= event.BroadcastUser;
    picked.mailed |= event.MailUser;
}

NOTIFY_PLAN notify_plan(const SETTINGS &settings)
{
    NOTIFY_PLAN plan;
    PICKED picked;
    for (const UPS_EVENTINFO &defaults : DEFAULTEVENTSET) {
        const UPS_EVENTINFO event = event_of(settings, defaults);
        plan.walled = plan.walled || event.BroadcastType <= TYPE_ALL;
        pick(picked, event);
    }
    plan.users = users_of(settings);
    for (NOTIFY_USER &user : plan.users) {
        user.written = has_slot(picked.written, user.slot);
        user.mailed = has_slot(picked.mailed, user.slot);
    }
    for (auto slot = static_cast<std::uint32_t>(plan.users.size()); slot < USER_COUNT; ++slot)
        if (has_slot(picked.written | picked.mailed, slot))
            plan.nobody.push_back(slot);
    return plan;
}

std::string notify_command(const SETTINGS &settings, int event)
{
    return cut(settings, "Event" + std::to_string(event), "Command", sizeof(UPS_EVENTINFO::Command));
}

long notify_patience(const SETTINGS &settings)
{
    return settings_number(settings, "ShutDown", "CloseAppTime", CLOSEAPPTIME);
}

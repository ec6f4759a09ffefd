// Changes of the event table and the user list.
#include "monitor_eventset.h"

#include "monitor_charset.h"

#include <algorithm>
#include <charconv>

// ---- Events ----

const UPS_EVENTINFO *eventset_row(const EVENT_SET &set, int id)
{
    for (const UPS_EVENTINFO &event : set.events)
        if (event.EventID == id)
            return &event;
    return nullptr;
}

UPS_EVENTINFO *eventset_row(EVENT_SET &set, int id)
{
    const auto row = std::find_if(set.events.begin(), set.events.end(),
                                  [id](const UPS_EVENTINFO &event) { return event.EventID == id; });
    return row != set.events.end() ? &*row : nullptr;
}

static bool has_control(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) == 0x7F;
    });
}

static std::string put_command(UPS_EVENTINFO &event, std::string_view command)
{
    if (has_control(command))
        return "the command must be one line without control characters";
    if (command.size() >= event.Command.size())
        return "the command is too long by " + std::to_string(command.size() - event.Command.size() + 1) +
               " bytes";
    // The settings file drops what stands between "=" and the value.
    if (!command.empty() && (command[0] == ' ' || command[0] == '='))
        return "the command must not begin with a blank or \"=\"";
    event.Command.fill('\0');
    std::copy(command.begin(), command.end(), event.Command.begin());
    return "";
}

std::string eventset_change(UPS_EVENTINFO &event, const EVENT_CHANGE &change)
{
    if (change.command)
        if (std::string wrong = put_command(event, *change.command); !wrong.empty())
            return wrong;
    if (change.record)
        event.Record = *change.record ? 1 : 0;
    if (change.shutdown)
        event.Shutdown = *change.shutdown ? 1 : 0;
    event.BroadcastType = change.tell.value_or(event.BroadcastType);
    event.BroadcastUser = change.tell_users.value_or(event.BroadcastUser);
    event.MailUser = change.mail_users.value_or(event.MailUser);
    return "";
}

static std::string_view command_of(const UPS_EVENTINFO &event)
{
    const auto end = std::find(event.Command.begin(), event.Command.end(), '\0');
    return {event.Command.data(), static_cast<std::size_t>(end - event.Command.begin())};
}

static std::uint32_t tell_of(const UPS_EVENTINFO &event)
{
    if (event.BroadcastType <= 1)
        return TELL_ALL;
    return event.BroadcastType == TELL_USERS ? TELL_USERS : TELL_NOBODY;
}

bool eventset_same(const UPS_EVENTINFO &left, const UPS_EVENTINFO &right)
{
    return left.EventID == right.EventID && (left.Record != 0) == (right.Record != 0) &&
           (left.Shutdown != 0) == (right.Shutdown != 0) && tell_of(left) == tell_of(right) &&
           left.BroadcastUser == right.BroadcastUser && left.MailUser == right.MailUser &&
           command_of(left) == command_of(right);
}

// An order of users, one of other agents, and the end of the system itself.
bool eventset_shutdown_idle(int id)
{
    return id == 79 || id == 80 || id == 22;
}

std::string eventset_mask_words(const EVENT_SET &set, std::uint32_t mask)
{
    std::string words;
    for (std::size_t place = 0; place < USER_COUNT; place++) {
        if ((mask >> place & 1U) == 0)
            continue;
        words += words.empty() ? "" : ", ";
        words += place < set.users.size() ? user_name(set.users[place]) : "slot " + std::to_string(place);
    }
    return words;
}

std::string eventset_tell_words(const EVENT_SET &set, const UPS_EVENTINFO &event)
{
    if (tell_of(event) == TELL_ALL)
        return "all terminals";
    const std::string users =
        tell_of(event) == TELL_USERS ? eventset_mask_words(set, event.BroadcastUser) : "";
    return users.empty() ? "nobody" : users;
}

std::string eventset_command_words(const UPS_EVENTINFO &event)
{
    return text_safe(command_of(event), TEXT_CODE::Utf8);
}

// ---- Users ----

std::string user_name(const USERSDATA &user)
{
    return text_safe(user.UserName, TEXT_CODE::ShiftJis);
}

std::string user_address(const USERSDATA &user)
{
    return text_safe(user.Address, TEXT_CODE::ShiftJis);
}

std::string user_email(const USERSDATA &user)
{
    return text_safe(user.Email, TEXT_CODE::ShiftJis);
}

static std::optional<std::size_t>
place_of(const EVENT_SET &set, bool (*fits)(const USERSDATA &, std::string_view), std::string_view who)
{
    for (std::size_t place = 0; place < set.users.size(); place++)
        if (fits(set.users[place], who))
            return place;
    return std::nullopt;
}

std::optional<std::size_t> user_find(const EVENT_SET &set, std::string_view who)
{
    const auto named = place_of(
        set, [](const USERSDATA &user, std::string_view name) { return user_name(user) == name; }, who);
    if (named)
        return named;
    return place_of(
        set, [](const USERSDATA &user, std::string_view text) { return std::to_string(user.UserID) == text; },
        who);
}

std::string user_mask(const EVENT_SET &set, std::string_view list, std::uint32_t &mask)
{
    std::uint32_t bits = 0;
    for (std::string_view rest = list == "none" ? "" : list; !rest.empty();) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        const std::string_view who = rest.substr(0, comma);
        const auto place = user_find(set, who);
        if (!place)
            return "there is no user \"" + std::string(who) + "\" (see: voltaria users list)";
        bits |= 1U << *place;
        rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
    mask = bits;
    return "";
}

// A name is one word of the host's list of logged-in users; an address is one argument of the mail program.
static std::string judge_user(const EVENT_SET &set, std::string_view name, std::string_view email)
{
    if (name.empty() || has_control(name) || name.find_first_of(" ,=") != std::string_view::npos)
        return "a user's name must be one word without commas";
    if (name == "none" || user_find(set, name))
        return "there is a user \"" + std::string(name) + "\" already";
    if (has_control(email) || email.find_first_of(" ,=") != std::string_view::npos)
        return "a mail address must be one word";
    if (email.starts_with('-'))
        return "a mail address must not begin with \"-\"";
    if (set.users.size() >= USER_COUNT)
        return "the agent keeps no more than " + std::to_string(USER_COUNT) + " users";
    return "";
}

static std::uint8_t free_number(const EVENT_SET &set)
{
    std::uint8_t number = 1;
    while (place_of(
        set, [](const USERSDATA &user, std::string_view text) { return std::to_string(user.UserID) == text; },
        std::to_string(number)))
        number++;
    return number;
}

// Kept as it would be read, like the others, until everything is prepared for sending.
std::string user_add(EVENT_SET &set, std::string_view name, std::string_view email)
{
    std::string wrong = judge_user(set, name, email);
    if (!wrong.empty())
        return wrong;
    USERSDATA user{};
    user.UserID = free_number(set);
    if (wrong = charset_put(name, TEXT_CODE::ShiftJis, user.UserName); !wrong.empty())
        return "the name " + wrong;
    if (wrong = charset_put(email, TEXT_CODE::ShiftJis, user.Email); !wrong.empty())
        return "the mail address " + wrong;
    set.users.push_back(user);
    return "";
}

// Bit `place` out, those above it down by one.
static std::uint32_t without(std::uint32_t mask, std::size_t place)
{
    const std::uint32_t below = (1U << place) - 1;
    return (mask & below) | (mask >> 1 & ~below);
}

std::vector<int> user_remove(EVENT_SET &set, std::size_t place)
{
    std::vector<int> told;
    for (UPS_EVENTINFO &event : set.events) {
        if (((event.BroadcastUser | event.MailUser) >> place & 1U) != 0)
            told.push_back(event.EventID);
        event.BroadcastUser = without(event.BroadcastUser, place);
        event.MailUser = without(event.MailUser, place);
    }
    set.users.erase(set.users.begin() + static_cast<std::ptrdiff_t>(place));
    return told;
}

bool user_same(const USERSDATA &left, const USERSDATA &right)
{
    return left.UserID == right.UserID && user_name(left) == user_name(right) &&
           user_email(left) == user_email(right);
}

std::string users_prepare(std::vector<USERSDATA> &users)
{
    for (USERSDATA &user : users)
        for (const std::span<char> field :
             {std::span<char>(user.UserName), std::span<char>(user.Address), std::span<char>(user.Email)})
            if (const std::string wrong = charset_keep_user(field); !wrong.empty())
                return "user " + std::to_string(user.UserID) + ": " + text_safe(field, TEXT_CODE::ShiftJis) +
                       " " + wrong;
    return "";
}

// What happens at an event, and the users who are told of it: lookups, changes and words for the event table
// and the user list as an agent sends them. Users are picked in an event by their place in the list, not by
// their number, so a user who leaves moves the marks of those behind. Used by `voltaria events` and
// `voltaria users`. Nothing here talks to the agent.
#pragma once

#include "monitor_records.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct EVENT_SET {
    EVENT_TABLE events{};            // those of protectors and "no event" stay with the agent
    std::vector<USERSDATA> users{};  // at most 32; fields as they are read, in Shift_JIS
};

// Who is told on terminals. The agent takes any other number as nobody.
inline constexpr std::uint32_t TELL_ALL = 0;
inline constexpr std::uint32_t TELL_USERS = 2;
inline constexpr std::uint32_t TELL_NOBODY = 3;

// A change of one event; what has no value stays as it is. Masks have bit i for user i of the list.
struct EVENT_CHANGE {
    std::optional<bool> record{};
    std::optional<bool> shutdown{};
    std::optional<std::uint32_t> tell{};  // TELL_
    std::optional<std::uint32_t> tell_users{};
    std::optional<std::uint32_t> mail_users{};
    std::optional<std::string> command{};
};

/// The row of an event number; null when the event is not in the table.
[[nodiscard]] UPS_EVENTINFO *eventset_row(EVENT_SET &set, int id);
[[nodiscard]] const UPS_EVENTINFO *eventset_row(const EVENT_SET &set, int id);

/// Makes the change. Returns what is wrong with the command, "" when all is made.
[[nodiscard]] std::string eventset_change(UPS_EVENTINFO &event, const EVENT_CHANGE &change);

/// True when the agent would do the same at both.
[[nodiscard]] bool eventset_same(const UPS_EVENTINFO &left, const UPS_EVENTINFO &right);

/// True for the events whose shutdown switch the agent never follows.
[[nodiscard]] bool eventset_shutdown_idle(int id);

/// "all terminals", "root, ops" (terminals of these), "nobody".
[[nodiscard]] std::string eventset_tell_words(const EVENT_SET &set, const UPS_EVENTINFO &event);
/// "root, ops", or "" for nobody. Places that no user has appear as "slot 7", counted from 0.
[[nodiscard]] std::string eventset_mask_words(const EVENT_SET &set, std::uint32_t mask);
/// The command in UTF-8, control characters escaped.
[[nodiscard]] std::string eventset_command_words(const UPS_EVENTINFO &event);

// ---- Users ----

[[nodiscard]] std::string user_name(const USERSDATA &user);
[[nodiscard]] std::string user_address(const USERSDATA &user);
[[nodiscard]] std::string user_email(const USERSDATA &user);

/// The place of a user by name or, when nobody has that name, by number; nullopt when there is none.
[[nodiscard]] std::optional<std::size_t> user_find(const EVENT_SET &set, std::string_view who);

/// A list such as "root,ops" as a mask; "none" is nobody. Returns what is wrong, "" when `mask` is set.
[[nodiscard]] std::string user_mask(const EVENT_SET &set, std::string_view list, std::uint32_t &mask);

/// Puts a new user at the end with the lowest free number. Returns what is wrong, "" when added.
[[nodiscard]] std::string user_add(EVENT_SET &set, std::string_view name, std::string_view email);

/// Takes the user at this place out and moves the marks of those behind him in every event. Returns the
/// events that had told him or sent him mail.
std::vector<int> user_remove(EVENT_SET &set, std::size_t place);

/// True when number, name and mail address agree; the agent puts its own host's name in the address.
[[nodiscard]] bool user_same(const USERSDATA &left, const USERSDATA &right);

/// Replaces the fields of the users by what must be sent for them to be read the same again. Returns which
/// user's field cannot be sent, "" when all can.
[[nodiscard]] std::string users_prepare(std::vector<USERSDATA> &users);

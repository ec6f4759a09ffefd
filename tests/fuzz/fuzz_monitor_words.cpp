// What a person writes on the command line of `voltaria`: values of settings, schedules, users, commands and
// texts for the agent. Input: one byte of choices, then words, each ended by a zero byte. What is taken is
// read back as the same, and a refusal says why and changes nothing.
#include "fuzz_support.h"
#include "monitor/monitor_charset.h"
#include "monitor/monitor_eventset.h"
#include "monitor/monitor_schedule_text.h"
#include "monitor/monitor_settings.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

static std::string take_text(std::string_view &input)
{
    const std::size_t length = std::min(input.find('\0'), input.size());
    const std::string text(input.substr(0, length));
    input.remove_prefix(std::min(length + 1, input.size()));
    return text;
}

static void check_setting(const SETTING &setting, const std::string &value)
{
    UPS_PARAM config{};
    const UPS_PARAM before = config;
    if (!setting_put(setting, value, config).empty()) {
        require(std::memcmp(&before, &config, sizeof config) == 0);
        return;
    }
    const std::string told = setting_value(setting, config);
    UPS_PARAM again{};
    require(setting_put(setting, told, again).empty());
    require(setting_value(setting, again) == told && !setting_words(setting, config).empty());
    static_cast<void>(setting_remark(setting, config));
}

static void check_settings(const std::string &name, const std::string &value)
{
    const SETTING *named = setting_named(name);
    require(named == nullptr || named->key.size() == name.size() || named->alias.size() == name.size());
    for (const SETTING &setting : settings()) {
        require(!setting_range(setting).empty() || !setting.fixed.empty());
        check_setting(setting, value);
    }
}

static void check_schedule(std::uint8_t choice, std::string_view &words)
{
    SCHEDULE_WISH wish;
    wish.action = static_cast<std::int8_t>(choice & 1);
    wish.kind = static_cast<std::int8_t>((choice >> 1 & 3) % 3 + 1);
    wish.on = (choice >> 3 & 1) != 0;
    if ((choice >> 4 & 1) != 0)
        wish.now = {104, 3, 5, 9, 7, 2, 0};
    wish.longest = (choice >> 5 & 1) != 0 ? 99999 : 600;
    wish.day = take_text(words);
    wish.from = take_text(words);
    wish.until = take_text(words);
    SCHEDULEINFO entry{};
    if (!schedule_from_wish(wish, entry).empty())
        return;
    require(schedule_possible(entry) && schedule_same(entry, entry) && !schedule_words(entry).empty());
    require(!schedule_action_words(entry).empty() && !schedule_kind_words(entry).empty());
    // Its own words make it again.
    wish.day = schedule_day(entry.stimeInfo, entry.ID);
    wish.from = schedule_clock(entry.stimeInfo);
    if (entry.ActionID == SCHEDULE_SHUTDOWN)
        wish.until = schedule_day(entry.etimeInfo, entry.ID) + " " + schedule_clock(entry.etimeInfo);
    SCHEDULEINFO again{};
    require(schedule_from_wish(wish, again).empty() && schedule_same(entry, again));
}

// An entry as an agent may send it.
static void check_words(const std::string &bytes)
{
    SCHEDULEINFO entry{};
    std::memcpy(&entry, bytes.data(), std::min(bytes.size(), sizeof entry));
    require(!schedule_words(entry).empty() && schedule_words(entry).find('\n') == std::string::npos);
    require(!schedule_kind_words(entry).empty() && !schedule_action_words(entry).empty());
    SCHEDULEINFO other = entry;
    other.ID = static_cast<decltype(other.ID)>(other.ID ^ 1);
    require(schedule_same(entry, entry) && !schedule_same(entry, other));
}

static void check_date(const std::string &text)
{
    UPS_TIMEINFO date{};
    if (parse_calendar_date(text, date))
        require(date.month >= 1 && date.month <= 12 && date.day >= 1 && date.day <= 31);
}

static void check_texts(const std::string &text)
{
    std::array<char, 21> field{};
    for (const TEXT_CODE code : {TEXT_CODE::ShiftJis, TEXT_CODE::Euc, TEXT_CODE::Utf8})
        if (charset_put(text, code, field).empty())
            require(field.back() == '\0' && charset_encode(text, code) == std::string(field.data()));
    std::array<char, 21> name{};
    if (charset_put_user(text, name).empty())
        require(name.back() == '\0');
    std::copy_n(text.begin(), std::min(text.size(), field.size()), field.begin());
    static_cast<void>(charset_keep_user(field));
}

static void add_users(EVENT_SET &set, std::string_view &words)
{
    for (int i = 0; i < 34 && !words.empty(); ++i) {
        const std::string name = take_text(words);
        const std::string email = take_text(words);
        const std::size_t before = set.users.size();
        const bool added = user_add(set, name, email).empty();
        require(set.users.size() == before + (added ? 1 : 0) && set.users.size() <= 32);
        if (!added)
            continue;
        const USERSDATA &user = set.users.back();
        require(user_find(set, user_name(user)).has_value() && user_same(user, user));
        require(user_address(user).empty() && user_email(user).size() <= 4 * sizeof user.Email);
    }
}

static void check_events(std::uint8_t choice, const std::string &list, const std::string &command,
                         std::string_view &words)
{
    EVENT_SET set;
    for (std::size_t i = 0; i < set.events.size(); ++i)
        set.events[i].EventID = static_cast<std::uint16_t>(i);
    add_users(set, words);
    std::uint32_t mask = 0;
    const bool understood = user_mask(set, list, mask).empty();
    UPS_EVENTINFO *event = eventset_row(set, choice % 64);
    require(event == eventset_row(std::as_const(set), choice % 64));
    if (event == nullptr)
        return;
    EVENT_CHANGE change;
    change.record = (choice & 1) != 0;
    change.shutdown = (choice & 2) != 0;
    change.tell = choice % 4;
    if (understood)
        change.tell_users = change.mail_users = mask;
    change.command = command;
    const UPS_EVENTINFO before = *event;
    if (eventset_change(*event, change).empty()) {
        require(event->Command.back() == '\0' && eventset_same(*event, *event));
        require(understood || event->MailUser == before.MailUser);
    }
    require(!eventset_tell_words(set, *event).empty());
    static_cast<void>(eventset_mask_words(set, event->MailUser));
    static_cast<void>(eventset_command_words(*event));
    static_cast<void>(eventset_shutdown_idle(choice));
    if (!set.users.empty())
        static_cast<void>(user_remove(set, choice % set.users.size()));
    static_cast<void>(users_prepare(set.users));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0 || size > 4096)
        return 0;
    std::string_view words(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::string first = take_text(words);
    const std::string second = take_text(words);
    check_settings(first, second);
    check_date(first);
    check_words(second);
    check_texts(second);
    std::string_view wish = words;
    check_schedule(data[0], wish);
    check_events(data[0], first, second, words);
    return 0;
}

// The event settings: what each event does, and who is told. Owns their loading from the settings file and
// their saving. Called by the dispatcher for monitors' requests and at start-up.
#include "e_a_internal.h"

#include "agent_main_message.h"
#include "e_a_error.h"
#include "e_a_event_table.h"
#include "filehandle.h"
#include "wp_field.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <unistd.h>

const char *eventmsg(int id)
{
    const auto *event = std::find_if(EventMsg.begin(), EventMsg.end(),
                                     [id](const EVENTMSG &candidate) { return candidate.eID == id; });
    return event != EventMsg.end() ? event->msg : nullptr;
}

// One number of an event's section. Every member is 4 bytes and is stored as an unsigned number; signed ones
// hold their two's complement.
typedef struct _EVENTNUMBER {
    const char *key;
    std::size_t offset;  // of the member in UPS_EVENTINFO
} EVENTNUMBER;

static constexpr std::array<EVENTNUMBER, 4> EVENT_NUMBERS = {{
    {"ShutDown", offsetof(UPS_EVENTINFO, Shutdown)},
    {"BroadcastType", offsetof(UPS_EVENTINFO, BroadcastType)},
    {"BroadcastUser", offsetof(UPS_EVENTINFO, BroadcastUser)},
    {"MailUser", offsetof(UPS_EVENTINFO, MailUser)},
}};

static std::uint32_t number_of(const UPS_EVENTINFO &event, const EVENTNUMBER &number)
{
    std::uint32_t value;
    std::memcpy(&value, reinterpret_cast<const char *>(&event) + number.offset, sizeof(value));
    return value;
}

static void set_number(UPS_EVENTINFO &event, const EVENTNUMBER &number, std::uint32_t value)
{
    std::memcpy(reinterpret_cast<char *>(&event) + number.offset, &value, sizeof(value));
}

static std::string event_section(const UPS_EVENTINFO &event)
{
    return "Event" + std::to_string(event.EventID);
}

static const char *text_or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

// ------------------------------------------------------------------------------------------------- loading

// `event` holds the defaults; what the file says replaces them. Anything but "No..." records the event.
static void load_event(UPS_EVENTINFO &event)
{
    const std::string section = event_section(event);
    if (readparam(section.c_str(), "") == nullptr)
        return;
    event.Record = !std::string_view(text_or_empty(readparam(section.c_str(), "Record"))).starts_with("No");
    for (const EVENTNUMBER &number : EVENT_NUMBERS)
        if (const char *text = readparam(section.c_str(), number.key))
            set_number(event, number, wp_uatoi(text));
    field_set(event.Command, text_or_empty(readparam(section.c_str(), "Command")));
}

// What stands between two items; blanks alone do not make an empty item.
static bool is_separator(char c)
{
    return c == ' ' || c == ',';
}

const char *nextitem(const char *text, std::size_t *pos)
{
    static std::array<char, STORE_LINE_SIZE> item;  // no item of a setting is longer
    if (text == nullptr || text[*pos] == '\0')
        return nullptr;
    const char *start = text + *pos + std::strspn(text + *pos, " ");
    const char *end = start;
    while (*end != '\0' && !is_separator(*end))
        end++;
    const char *next = end;
    while (is_separator(*next))
        next++;
    *pos = static_cast<std::size_t>(next - text);
    field_set(item, {start, static_cast<std::size_t>(end - start)});
    return start != end ? item.data() : nullptr;
}

// Users are told of events on this host, wherever they were entered.
static void load_user(USERSDATA &user, const char *section, std::string_view host)
{
    user.UserID = static_cast<std::uint8_t>(wp_atoi(section));
    field_set(user.UserName, text_or_empty(readparam(section, "Name")));
    field_set(user.Address, host);
    field_set(user.Email, text_or_empty(readparam(section, "Email")));
}

// A name of the longest kind comes without its end.
static std::string hostname()
{
    std::array<char, 260> name{};
    if (gethostname(name.data(), name.size()) != 0)
        return {};
    return std::string(field_view(name));
}

// The slots behind the last user are emptied whole: users are picked by slot, and a removed one whose name
// had stayed would still be told.
static void load_users(UPS_USERSINFO &users)
{
    users.nusers = 0;
    if (users.udp == nullptr)
        return;
    USERSDATA empty{};
    empty.UserID = USER_NONE;
    std::fill_n(users.udp, USER_COUNT, empty);
    const char *stored = readparam("UserInfo", "UserID");
    if (stored == nullptr) {
        ea_error(GETTEXTj("Missing User Info in config file"));
        return;
    }
    const std::string list = stored;  // the lookups that follow overwrite it
    const std::string host = hostname();
    for (std::size_t pos = 0; pos < list.size() && users.nusers < static_cast<std::int32_t>(USER_COUNT);)
        if (const char *item = nextitem(list.c_str(), &pos))
            load_user(users.udp[users.nusers++], item, host);
}

int getevent(UPS_EVENTINFO *events, [[maybe_unused]] UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (events == nullptr)
        return -1;
    std::copy(DEFAULTEVENTSET.begin(), DEFAULTEVENTSET.end(), events);
    std::for_each_n(events, EVENT_COUNT, load_event);
    if (eout->DATA.eu.uip != nullptr)
        load_users(*eout->DATA.eu.uip);
    return 0;
}

// -------------------------------------------------------------------------------------------------- saving

// One write of a save: 1 when it was lost.
static int store(const std::string &section, const char *key, const char *value)
{
    return writeparam(section.c_str(), key, value) != 0;
}

// A field that came from the network may lack its end.
template <std::size_t N>
static int store_field(const std::string &section, const char *key, const std::array<char, N> &field)
{
    return store(section, key, std::string(field_view(field)).c_str());
}

static int store_event(const UPS_EVENTINFO &event)
{
    const std::string section = event_section(event);
    int lost = store(section, "Record", event.Record != 0 ? "Yes" : "No");
    for (const EVENTNUMBER &number : EVENT_NUMBERS)
        lost += store(section, number.key, itoc(number_of(event, number)));
    return lost + store_field(section, "Command", event.Command);
}

static int store_user(const USERSDATA &user, std::string &list)
{
    const std::string section = itoc(user.UserID);
    list += section + ",";
    int lost = store_field(section, "Name", user.UserName);
    lost += store_field(section, "Address", user.Address);
    return lost + store_field(section, "Email", user.Email);
}

// Sections of users who are no longer in the list stay in the file.
static int store_users(const UPS_USERSINFO *users)
{
    const bool any = users != nullptr && users->udp != nullptr;
    const int count = any ? std::clamp(users->nusers, 0, static_cast<std::int32_t>(USER_COUNT)) : 0;
    std::string list;
    int lost = 0;
    for (int i = 0; i < count; i++)
        if (users->udp[i].UserID != USER_NONE)
            lost += store_user(users->udp[i], list);
    if (!list.empty())
        list.pop_back();
    return lost + store("UserInfo", "UserID", list.c_str());
}

// Whatever is lost, the rest is still written.
static int store_all(const UPS_EVENTINFO *events, const UPS_USERSINFO *users)
{
    if (events == nullptr || open_write_batch() != 0)
        return -1;
    int lost = 0;
    for (std::size_t i = 0; i < EVENT_COUNT; i++)
        lost += store_event(events[i]);
    lost += store_users(users);
    lost += close_write_batch() != 0;
    return lost != 0 ? -1 : 0;
}

int setevent(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    if (store_all(ein->DATA.eu.eap, ein->DATA.eu.uip) != 0)
        return -1;
    if (engine.CURRENTCMD == E_CMD_SETEVENT)
        eventaction(EVENT_EVENTSCHANGED, ein, eout);
    return 0;
}

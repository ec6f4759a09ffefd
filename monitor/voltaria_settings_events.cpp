// `voltaria events` and `voltaria users`: what happens at an event, and whom the agent can tell. Both travel
// in one packet, so either is read whole, changed and sent back whole.
#include "voltaria_settings.h"

#include "monitor_eventset.h"
#include "monitor_settings_json.h"
#include "monitor_text.h"
#include "monitor_words.h"
#include "voltaria_change.h"

#include <algorithm>

static MONITOR_RESULT read_set(MONITOR_SESSION &session, EVENT_SET &set)
{
    bool empty = false;
    MONITOR_RESULT result = monitor_events(session, set.events, set.users, empty);
    return monitor_ok(result) && empty ? told_nothing(session) : result;
}

// Reads the set and hands it to the work; the work's exit status, or that of the failure.
static int with_set(const CONNECTION &connection,
                    const std::function<int(MONITOR_SESSION &, EVENT_SET &)> &work)
{
    return with_session(connection, [&](MONITOR_SESSION &session) {
        EVENT_SET set;
        const MONITOR_RESULT result = read_set(session, set);
        return monitor_ok(result) ? work(session, set) : fail(result);
    });
}

static bool same_set(const EVENT_SET &left, const EVENT_SET &right)
{
    return std::equal(left.events.begin(), left.events.end(), right.events.begin(), eventset_same) &&
           std::equal(left.users.begin(), left.users.end(), right.users.begin(), right.users.end(),
                      user_same);
}

// Sends the set and looks for it; success prints `done`.
static int store(MONITOR_SESSION &session, const EVENT_SET &wanted, const std::string &done)
{
    EVENT_SET sent = wanted;
    if (const std::string wrong = users_prepare(sent.users); !wrong.empty())
        return fail(wrong);
    EVENT_SET now;
    bool taken = false;
    const MONITOR_RESULT result = write_and_read_back(
        [&] { return monitor_set_events(session, sent.events, sent.users); },
        [&] { return read_set(session, now); }, [&] { return same_set(now, wanted); }, taken);
    if (!monitor_ok(result))
        return fail(result);
    if (!taken)
        return fail("the agent did not take it, or not as it was sent");
    return print(done);
}

// ---- events ----

static std::string event_words(int id)
{
    return words_or_code(words_event(id), id);
}

static std::string or_dash(std::string text)
{
    return text.empty() ? "-" : std::move(text);
}

static std::string event_row(const EVENT_SET &set, const UPS_EVENTINFO &event, std::size_t tell,
                             std::size_t mail)
{
    std::string row = text_padded(std::to_string(event.EventID), 5) +
                      text_padded(event.Record != 0 ? "on" : "off", 5) +
                      text_padded(event.Shutdown != 0 ? "on" : "off", 10) +
                      text_padded(eventset_tell_words(set, event), tell + 2) +
                      text_padded(or_dash(eventset_mask_words(set, event.MailUser)), mail + 2) +
                      event_words(event.EventID) + "\n";
    const std::string command = eventset_command_words(event);
    return command.empty() ? row : row + "     command: " + command + "\n";
}

static std::string event_table(const EVENT_SET &set, std::span<const UPS_EVENTINFO> which)
{
    std::size_t tell = std::string_view("terminals").size();
    std::size_t mail = std::string_view("mail").size();
    for (const UPS_EVENTINFO &event : which) {
        tell = std::max(tell, text_columns(eventset_tell_words(set, event)));
        mail = std::max(mail, text_columns(eventset_mask_words(set, event.MailUser)));
    }
    std::string table = text_padded("ID", 5) + text_padded("log", 5) + text_padded("shutdown", 10) +
                        text_padded("terminals", tell + 2) + text_padded("mail", mail + 2) + "event\n";
    for (const UPS_EVENTINFO &event : which)
        table += event_row(set, event, tell, mail);
    return table;
}

static int no_event(int id)
{
    return fail("there is no event " + std::to_string(id) + "; voltaria events list shows them all",
                EXIT_USAGE);
}

int events_list(const EVENTS_LINE &line)
{
    return with_set(line.connection, [&](MONITOR_SESSION &, EVENT_SET &set) {
        std::span<const UPS_EVENTINFO> which = set.events;
        if (line.id) {
            const UPS_EVENTINFO *one = eventset_row(set, *line.id);
            if (one == nullptr)
                return no_event(*line.id);
            which = std::span(one, 1);
        }
        return line.json ? print_raw(events_json(set, which)) : print(event_table(set, which));
    });
}

static std::optional<bool> switch_of(const std::optional<std::string> &word)
{
    return word ? std::optional(*word == "on") : std::nullopt;
}

// The command line as a change; says what is wrong with it, "" when nothing is.
static std::string change_of(const EVENTS_LINE &line, const EVENT_SET &set, EVENT_CHANGE &change)
{
    change.record = switch_of(line.record);
    change.shutdown = switch_of(line.shutdown);
    change.command = line.command;
    if (line.wall)
        change.tell = TELL_ALL;
    if (line.no_broadcast)
        change.tell = TELL_NOBODY;
    std::uint32_t mask = 0;
    if (line.write) {
        if (std::string wrong = user_mask(set, *line.write, mask); !wrong.empty())
            return wrong;
        change.tell = mask != 0 ? TELL_USERS : TELL_NOBODY;
        change.tell_users = mask;
    }
    if (line.mail) {
        if (std::string wrong = user_mask(set, *line.mail, mask); !wrong.empty())
            return wrong;
        change.mail_users = mask;
    }
    return "";
}

static constexpr int EVENTS_CHANGED = 11;  // raised by every change of the event settings

static bool agreed_to_shutdown(const EVENTS_LINE &line, const UPS_EVENTINFO &before,
                               const UPS_EVENTINFO &after)
{
    const int id = after.EventID;
    if (after.Shutdown == 0 || before.Shutdown != 0)
        return true;
    if (eventset_shutdown_idle(id)) {
        remark("agents start no shutdown at event " + std::to_string(id) + ", whatever this switch says");
        return true;
    }
    std::string question = "Shut the system down whenever \"" + event_words(id) + "\" happens?";
    if (id == EVENTS_CHANGED)
        question = "This change is such an event itself. Shut the system down NOW, and at each later one?";
    return agreed(line.yes, question);
}

static int change_event(MONITOR_SESSION &session, const EVENTS_LINE &line, EVENT_SET &set)
{
    UPS_EVENTINFO *event = eventset_row(set, line.id.value_or(-1));
    if (event == nullptr)
        return no_event(line.id.value_or(-1));
    EVENT_CHANGE change;
    if (const std::string wrong = change_of(line, set, change); !wrong.empty())
        return fail(wrong);
    const UPS_EVENTINFO before = *event;
    if (const std::string wrong = eventset_change(*event, change); !wrong.empty())
        return fail(wrong, EXIT_USAGE);
    const std::string table = event_table(set, std::span(event, 1));
    if (eventset_same(before, *event))
        return print(table + "Nothing to change.\n");
    if (!agreed_to_shutdown(line, before, *event))
        return EXIT_REFUSED;
    return store(session, set, table);
}

int events_set(const EVENTS_LINE &line)
{
    const bool any = line.record || line.shutdown || line.wall || line.no_broadcast || line.write ||
                     line.mail || line.command;
    if (!any)
        return fail("what is to change? See: voltaria events set --help", EXIT_USAGE);
    return with_set(line.connection, [&](MONITOR_SESSION &session, EVENT_SET &set) {
        return change_event(session, line, set);
    });
}

// ---- users ----

static std::string user_table(const EVENT_SET &set)
{
    std::size_t name = std::string_view("name").size();
    std::size_t email = std::string_view("mail").size();
    for (const USERSDATA &user : set.users) {
        name = std::max(name, text_columns(user_name(user)));
        email = std::max(email, text_columns(user_email(user)));
    }
    std::string table =
        text_padded("No.", 5) + text_padded("name", name + 2) + text_padded("mail", email + 2) + "host\n";
    for (const USERSDATA &user : set.users)
        table += text_padded(std::to_string(user.UserID), 5) + text_padded(user_name(user), name + 2) +
                 text_padded(or_dash(user_email(user)), email + 2) + user_address(user) + "\n";
    return table;
}

int users_list(const USERS_LINE &line)
{
    return with_set(line.connection, [&](MONITOR_SESSION &, EVENT_SET &set) {
        if (line.json)
            return print_raw(users_json(set));
        return print(set.users.empty() ? "The agent has no users.\n" : user_table(set));
    });
}

int users_add(const USERS_LINE &line)
{
    EVENT_SET nobody;
    if (const std::string wrong = user_add(nobody, line.name, line.email); !wrong.empty())
        return fail(wrong, EXIT_USAGE);
    return with_set(line.connection, [&](MONITOR_SESSION &session, EVENT_SET &set) {
        if (const std::string wrong = user_add(set, line.name, line.email); !wrong.empty())
            return fail(wrong);
        return store(session, set,
                     "Added user " + std::to_string(set.users.back().UserID) + ", " + line.name + ".\n");
    });
}

static std::string removed_words(const std::string &name, const std::vector<int> &told)
{
    std::string text = "Removed user " + name + ".\n";
    if (told.empty())
        return text;
    text += "No longer told of:";
    for (const int id : told)
        text += " " + std::to_string(id);
    return text + "\n";
}

int users_remove(const USERS_LINE &line)
{
    return with_set(line.connection, [&](MONITOR_SESSION &session, EVENT_SET &set) {
        const auto place = user_find(set, line.name);
        if (!place)
            return fail("there is no user \"" + line.name + "\"");
        const std::string name = user_name(set.users[*place]);
        const std::vector<int> told = user_remove(set, *place);
        return store(session, set, removed_words(name, told));
    });
}

// `voltaria config`: the working configuration, key by key.
#include "voltaria_settings.h"

#include "monitor_records.h"
#include "monitor_settings.h"
#include "monitor_settings_json.h"
#include "monitor_text.h"
#include "voltaria_change.h"

#include <algorithm>

static int unknown_key(const std::string &key)
{
    return fail("there is no setting \"" + key + "\"; voltaria config get shows them all", EXIT_USAGE);
}

static MONITOR_RESULT read_config(MONITOR_SESSION &session, UPS_PARAM &config)
{
    bool empty = false;
    MONITOR_RESULT result = monitor_config(session, config, empty);
    return monitor_ok(result) && empty ? told_nothing(session) : result;
}

// ---- get ----

static std::string config_table(const UPS_PARAM &config)
{
    std::size_t width = 0;
    for (const SETTING &setting : settings())
        width = std::max(width, text_columns(setting_words(setting, config)));
    std::string table;
    for (const SETTING &setting : settings())
        table += text_padded(setting.key, 22) + text_padded(setting_words(setting, config), width + 2) +
                 text_padded(setting.alias, 19) + std::string(setting.meaning) + "\n";
    return table;
}

static int show_config(const UPS_PARAM &config, const SETTING *one, bool json)
{
    if (json)
        return print_raw(config_json(config, one != nullptr ? std::span(one, 1) : settings()));
    return print(one != nullptr ? setting_value(*one, config) + "\n" : config_table(config));
}

int config_get(const CONFIG_LINE &line)
{
    const SETTING *one = line.key.empty() ? nullptr : setting_named(line.key);
    if (!line.key.empty() && one == nullptr)
        return unknown_key(line.key);
    return with_session(line.connection, [&](MONITOR_SESSION &session) {
        UPS_PARAM config{};
        const MONITOR_RESULT result = read_config(session, config);
        return monitor_ok(result) ? show_config(config, one, line.json) : fail(result);
    });
}

// ---- set ----

static bool becomes_protector(const UPS_PARAM &wanted)
{
    return wanted.commparam.AgentType == AGENTTYPE_PROTECTOR;
}

// A protector tells no configuration, so the role itself is looked at.
static MONITOR_RESULT read_back_role(MONITOR_SESSION &session, const UPS_PARAM &wanted, UPS_PARAM &now)
{
    UPS_UPSINFO status{};
    MONITOR_RESULT result = monitor_status(session, status);
    if (monitor_ok(result)) {
        now = wanted;
        now.commparam.AgentType = status.AgentType;
    }
    return result;
}

static MONITOR_RESULT read_back(MONITOR_SESSION &session, const UPS_PARAM &wanted, UPS_PARAM &now)
{
    if (becomes_protector(wanted))
        return read_back_role(session, wanted, now);
    return read_config(session, now);
}

static int store(MONITOR_SESSION &session, const SETTING &setting, const UPS_PARAM &before,
                 const UPS_PARAM &wanted)
{
    UPS_PARAM now{};
    bool taken = false;
    const MONITOR_RESULT result = write_and_read_back(
        [&] { return monitor_set_config(session, wanted); }, [&] { return read_back(session, wanted, now); },
        [&] { return setting_value(setting, now) == setting_value(setting, wanted); }, taken);
    if (!monitor_ok(result))
        return fail(result);
    const std::string key(setting.key);
    if (!taken)
        return fail("the agent did not take it: " + key + " is " + setting_words(setting, now));
    return print(key + ": " + setting_words(setting, before) + " -> " + setting_words(setting, now) + "\n");
}

static int change(MONITOR_SESSION &session, const CONFIG_LINE &line, const SETTING &setting)
{
    UPS_PARAM before{};
    const MONITOR_RESULT result = read_config(session, before);
    if (!monitor_ok(result))
        return fail(result);
    UPS_PARAM wanted = before;
    if (const std::string wrong = setting_put(setting, line.value, wanted); !wrong.empty())
        return fail(wrong, EXIT_USAGE);
    if (const std::string text = setting_remark(setting, wanted); !text.empty())
        remark(text);
    if (setting_value(setting, before) == setting_value(setting, wanted))
        return print(std::string(setting.key) + " is " + setting_words(setting, before) + " already\n");
    if (becomes_protector(wanted) &&
        !agreed(line.yes, "Make " + agent_name(line.connection, session) +
                              " a protector, which has no UPS and takes no more settings from here?"))
        return EXIT_REFUSED;
    return store(session, setting, before, wanted);
}

int config_set(const CONFIG_LINE &line)
{
    const SETTING *setting = setting_named(line.key);
    if (setting == nullptr)
        return unknown_key(line.key);
    UPS_PARAM any{};
    if (const std::string wrong = setting_put(*setting, line.value, any); !wrong.empty())
        return fail(wrong, EXIT_USAGE);
    return with_session(line.connection,
                        [&](MONITOR_SESSION &session) { return change(session, line, *setting); });
}

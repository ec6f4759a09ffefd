// The long page, the single line, and the phrases that the pages have in common.
#include "monitor_page.h"

#include "monitor_text.h"

// ---- Phrases ----

PAGE_SPAN page_ups_state(const UPS_UPSINFO &status)
{
    if (status_silent(status))
        return {"not known", TONE::Faint};
    const CODE_WORDS words = words_upsstat(status.upsstat);
    return {words_or_code(words, status.upsstat), words.tone};
}

PAGE_SPAN page_battery_state(const UPS_UPSINFO &status)
{
    const CODE_WORDS words = words_battery(status.BattStatus);
    return {words_or_code(words, status.BattStatus), words.tone};
}

PAGE_SPAN page_link_state(const UPS_UPSINFO &status)
{
    const CODE_WORDS words = words_comm(status.CommStatus);
    const std::string device = words_device(status.ComId);
    return {words_or_code(words, status.CommStatus) + (device.empty() ? "" : ", " + device), words.tone};
}

std::string page_model(const UPS_UPSINFO &status)
{
    const std::string model = text_safe(status.upsmodel, TEXT_CODE::Euc);
    return model.empty() ? "not known" : model;
}

std::string page_quantity(const UPS_UPSINFO &status, int whole, int tenths, const char *unit)
{
    return status_silent(status) ? "-" : tenths_words(whole, tenths) + " " + unit;
}

std::string page_temperature(const UPS_UPSINFO &status)
{
    if (!status_silent(status) && temperature_absent(status.upsdata))
        return "not reported";
    return page_quantity(status, status.upsdata.TempINT, status.upsdata.TempREM, "C");
}

std::string page_capacity(const UPS_UPSINFO &status)
{
    if (status_silent(status))
        return "-";
    if (status.upsdata.BattCap == 0)
        return "0 % or not reported";
    return std::to_string(status.upsdata.BattCap) + " %";
}

std::string page_load(const UPS_UPSINFO &status)
{
    return status_silent(status) ? "-" : std::to_string(status.upsdata.Load) + " %";
}

PAGE_SPAN page_shutdown(const UPS_UPSINFO &status)
{
    if (status.ShutdownS != 0)
        return {"in progress", TONE::Alarm};
    const std::string ordered = status.CommandDownS != 0 ? " ordered" : "";
    const bool none = time_absent(status.nextdown) && ordered.empty();
    return {time_words(status.nextdown) + ordered, none ? TONE::Plain : TONE::Warning};
}

PAGE_SPAN page_selftest(const SELFTESTRESULT &result)
{
    const CODE_WORDS words = words_selftest(result.Result);
    const std::string when = time_absent(result.timeinfo) ? "" : ", " + time_words(result.timeinfo);
    return {words_or_code(words, result.Result) + when, words.tone};
}

// Events 21 and 79 end in the name of the monitor that the order came from.
static bool names_monitor(std::uint8_t event_id)
{
    return event_id == 21 || event_id == 79;
}

static std::string numbered(const CODE_WORDS &words, int id, const std::string &name = "")
{
    const std::string on = name.empty() ? "" : " on " + name;
    return words_or_code(words, id) + on + " (" + std::to_string(id) + ")";
}

PAGE_SPAN page_event(const UPS_EVENTLOGINFO &event)
{
    if (!event_present(event))
        return {"none", TONE::Plain};
    const CODE_WORDS words = words_event(event.EventId);
    const std::string name = text_safe(event.AgentName, TEXT_CODE::Euc);
    const bool on_name = names_monitor(event.EventId);
    std::string text = numbered(words, event.EventId, on_name ? name : "");
    if (event_has_cause(event))
        text += " after " + numbered(words_event(event_cause(event)), event_cause(event));
    if (!on_name && !name.empty())
        text += ", " + name;
    return {text, words.tone};
}

// ---- The long page ----

static void add(std::vector<std::string> &page, const char *label, const std::string &value)
{
    page.push_back("  " + text_padded(label, 22) + value);
}

static void add_heading(std::vector<std::string> &page, const char *heading)
{
    page.emplace_back();
    page.emplace_back(heading);
}

static std::string text_or_none(const std::string &text)
{
    return text.empty() ? "none" : text;
}

static void add_states(std::vector<std::string> &page, const UPS_UPSINFO &status)
{
    add_heading(page, "UPS");
    add(page, "Link", page_link_state(status).text);
    add(page, "Model", page_model(status));
    add(page, "State", page_ups_state(status).text);
    add(page, "Battery", page_battery_state(status).text);
    add(page, "Battery replaced", date_words(status.PreChangeBatt));
    add(page, "Status of", time_words(status.timeinfo));
}

static void add_measurements(std::vector<std::string> &page, const UPS_UPSINFO &status)
{
    const UPSDATA &data = status.upsdata;
    add_heading(page, "Measurements");
    add(page, "Input voltage", page_quantity(status, data.InPutINT, data.InPutREM, "V"));
    add(page, "Output voltage", page_quantity(status, data.OutPutINT, data.OutPutREM, "V"));
    add(page, "Input frequency", page_quantity(status, data.FreqInputINT, data.FreqInputREM, "Hz"));
    add(page, "Output frequency", page_quantity(status, data.FreqOutputINT, data.FreqOutputREM, "Hz"));
    add(page, "Load", page_load(status));
    add(page, "Battery voltage", page_quantity(status, data.BattVolINT, data.BattVolREM, "V"));
    add(page, "Battery capacity", page_capacity(status));
    add(page, "Temperature", page_temperature(status));
}

static void add_plans(std::vector<std::string> &page, const UPS_UPSINFO &status)
{
    add_heading(page, "Shutdown and self-test");
    add(page, "Next shutdown", page_shutdown(status).text);
    add(page, "Next restart", time_words(status.nextboot));
    add(page, "Last battery test", page_selftest(status.sftResBattery).text);
    add(page, "Last UPS test", page_selftest(status.sftResUPS).text);
}

static void add_settings(std::vector<std::string> &page, const UPS_UPSINFO &status)
{
    add_heading(page, "Settings");
    add(page, "Buzzer", words_onoff(status.BuzzerCan));
    add(page, "Periodic self-test", words_onoff(status.AutoTestCan));
    add(page, "Automatic restart", words_onoff(status.bAutoReboot));
    add(page, "Detection level", std::to_string(status.iDetectionLvl));
    add(page, "Agent type", words_or_code(words_agenttype(status.AgentType), status.AgentType));
    add(page, "Group", text_or_none(text_safe(status.Group, TEXT_CODE::ShiftJis)));
    add(page, "Ignores other agents", words_onoff(status.bIgnoreDown));
}

static void add_events(std::vector<std::string> &page, const UPS_UPSINFO &status)
{
    add_heading(page, "Last events");
    for (const UPS_EVENTLOGINFO &event : status.events)
        add(page, event_present(event) ? time_words(event.timeinfo).c_str() : "-", page_event(event).text);
}

static void add_capabilities(std::vector<std::string> &page, const UPS_UPSINFO &status)
{
    add_heading(page, "Capabilities");
    const std::vector<std::string> names = words_capabilities(status.ufStatus);
    for (const std::string &name : names)
        page.push_back("  " + name);
    if (names.empty())
        page.emplace_back("  none");
}

std::vector<std::string> page_status(const UPS_UPSINFO &status, const std::string &place)
{
    std::vector<std::string> page{"Agent " + place};
    add_states(page, status);
    add_measurements(page, status);
    add_plans(page, status);
    add_settings(page, status);
    add_events(page, status);
    add_capabilities(page, status);
    return page;
}

// ---- One line ----

std::string page_one_line(const UPS_UPSINFO &status)
{
    const UPSDATA &data = status.upsdata;
    std::string line = "UPS " + page_ups_state(status).text + "; battery " + page_battery_state(status).text +
                       "; link " + page_link_state(status).text;
    if (!status_silent(status))
        line += "; in " + page_quantity(status, data.InPutINT, data.InPutREM, "V") + "; out " +
                page_quantity(status, data.OutPutINT, data.OutPutREM, "V") + "; load " + page_load(status) +
                "; battery " + page_quantity(status, data.BattVolINT, data.BattVolREM, "V") + ", " +
                page_capacity(status);
    const PAGE_SPAN shutdown = page_shutdown(status);
    if (shutdown.text != "none")
        line += "; shutdown " + shutdown.text;
    return line;
}

// The JSON documents that monitor_json.h describes.
#include "monitor_json.h"

#include "monitor_parts_json.h"
#include "monitor_text.h"

static JSON date_or_null(const UPS_TIMEINFO &time)
{
    return time_absent(time) ? JSON(nullptr) : JSON(date_words(time));
}

// Made from whole tenths, so that 100 and 3 become 100.3 and not its neighbour.
static JSON quantity(int whole, int tenths)
{
    if (tenths < 0 || tenths > 9)
        return nullptr;
    const int sign = whole < 0 ? -1 : 1;
    return (whole * 10 + sign * tenths) / 10.0;
}

static JSON quantities(const UPSDATA &data)
{
    return {{"input_voltage", quantity(data.InPutINT, data.InPutREM)},
            {"output_voltage", quantity(data.OutPutINT, data.OutPutREM)},
            {"input_frequency", quantity(data.FreqInputINT, data.FreqInputREM)},
            {"output_frequency", quantity(data.FreqOutputINT, data.FreqOutputREM)},
            {"battery_voltage", quantity(data.BattVolINT, data.BattVolREM)},
            {"temperature", temperature_absent(data) ? JSON(nullptr) : quantity(data.TempINT, data.TempREM)},
            {"load", data.Load}};
}

static JSON measurements(const UPS_UPSINFO &status)
{
    if (status_silent(status))
        return nullptr;
    JSON object = quantities(status.upsdata);
    object["battery_capacity"] = status.upsdata.BattCap;
    return object;
}

static JSON link_object(const UPS_UPSINFO &status)
{
    JSON link = code_object(status.CommStatus, words_comm(status.CommStatus));
    link["port_code"] = status.ComId;
    link["device"] = text_or_null(words_device(status.ComId));
    return link;
}

static JSON ups_object(const UPS_UPSINFO &status)
{
    const CODE_WORDS words =
        status_silent(status) ? CODE_WORDS{"", TONE::Plain} : words_upsstat(status.upsstat);
    return code_object(status.upsstat, words);
}

static JSON battery_object(const UPS_UPSINFO &status)
{
    JSON battery = code_object(status.BattStatus, words_battery(status.BattStatus));
    battery["replaced"] = date_or_null(status.PreChangeBatt);
    return battery;
}

static JSON selftest_object(const SELFTESTRESULT &result)
{
    JSON test = code_object(result.Result, words_selftest(result.Result));
    test["time"] = time_or_null(result.timeinfo);
    return test;
}

static JSON event_object(const UPS_EVENTLOGINFO &event)
{
    return {{"id", event.EventId},
            {"text", text_or_null(words_event(event.EventId).words)},
            {"cause", event_has_cause(event) ? JSON(event_cause(event)) : JSON(nullptr)},
            {"time", time_or_null(event.timeinfo)},
            {"agent", text_safe(event.AgentName, TEXT_CODE::Euc)}};
}

static JSON event_list(const UPS_UPSINFO &status)
{
    JSON events = JSON::array();
    for (const UPS_EVENTLOGINFO &event : status.events)
        if (event_present(event))
            events.push_back(event_object(event));
    return events;
}

static JSON settings_object(const UPS_UPSINFO &status)
{
    return {{"buzzer", status.BuzzerCan},
            {"periodic_self_test", status.AutoTestCan},
            {"auto_restart", status.bAutoReboot},
            {"ignore_other_agents", status.bIgnoreDown},
            {"detection_level", status.iDetectionLvl}};
}

std::string status_json(const UPS_UPSINFO &status, const std::string &host, std::uint16_t port)
{
    JSON document;
    document["agent"] = {{"host", host},
                         {"port", port},
                         {"type", code_object(status.AgentType, words_agenttype(status.AgentType))},
                         {"group", text_safe(status.Group, TEXT_CODE::ShiftJis)}};
    document["time"] = time_or_null(status.timeinfo);
    document["link"] = link_object(status);
    document["model"] = text_or_null(text_safe(status.upsmodel, TEXT_CODE::Euc));
    document["ups"] = ups_object(status);
    document["battery"] = battery_object(status);
    document["measurements"] = measurements(status);
    document["shutdown"] = {{"next", time_or_null(status.nextdown)},
                            {"restart", time_or_null(status.nextboot)},
                            {"ordered", status.CommandDownS},
                            {"in_progress", status.ShutdownS}};
    document["settings"] = settings_object(status);
    document["self_tests"] = {{"battery", selftest_object(status.sftResBattery)},
                              {"ups", selftest_object(status.sftResUPS)}};
    document["events"] = event_list(status);
    document["capabilities"] = {{"mask", status.ufStatus}, {"names", words_capabilities(status.ufStatus)}};
    return text_of(document);
}

// ---- Logs ----

std::string eventlog_json(const std::vector<UPS_EVENTLOGINFO> &lines)
{
    JSON events = JSON::array();
    for (const UPS_EVENTLOGINFO &line : lines)
        events.push_back(event_object(line));
    return text_of({{"events", std::move(events)}});
}

std::string datalog_json(const std::vector<UPS_DATALOGINFO> &lines)
{
    JSON records = JSON::array();
    for (const UPS_DATALOGINFO &line : lines) {
        JSON record = {{"time", time_or_null(line.timeinfo)}};
        record.update(quantities(line.upsdata));
        records.push_back(std::move(record));
    }
    return text_of({{"records", std::move(records)}});
}

// ---- Discovery ----

static JSON agent_object(const FOUND_AGENT &agent)
{
    JSON object = {{"address", agent.address},
                   {"name", agent.name},
                   {"group", agent.group},
                   {"protector", agent.protector},
                   {"protected_by", agent.protector ? JSON(agent.protected_by) : JSON(nullptr)},
                   {"gone", agent.gone},
                   {"type", code_object(agent.type, words_agenttype(agent.type))},
                   {"model", text_or_null(agent.model)},
                   {"ups", nullptr},
                   {"battery", nullptr},
                   {"link", nullptr},
                   {"ignore_other_agents", nullptr}};
    if (agent.protector)
        return object;
    const bool silent = agent.link == COMM_LOST || agent.link == COMM_NOUPS;
    object["ups"] = code_object(agent.ups, silent ? CODE_WORDS{"", TONE::Plain} : words_upsstat(agent.ups));
    object["battery"] = code_object(agent.battery, words_battery(agent.battery));
    object["link"] = code_object(agent.link, words_comm(agent.link));
    object["ignore_other_agents"] = agent.ignore;
    return object;
}

std::string agents_json(const std::vector<FOUND_AGENT> &agents)
{
    JSON list = JSON::array();
    for (const FOUND_AGENT &agent : agents)
        list.push_back(agent_object(agent));
    return text_of({{"agents", std::move(list)}});
}

std::string agent_json_line(const FOUND_AGENT &agent)
{
    return agent_object(agent).dump(-1, ' ', false, JSON::error_handler_t::replace);
}

// The JSON documents of `voltariactl`.
#include "control_doctor.h"
#include "control_status.h"

#include "monitor_parts_json.h"
#include "monitor_text.h"

static JSON pid_or_null(const std::optional<PROCESS> &process)
{
    return process ? JSON(process->pid) : JSON(nullptr);
}

static JSON measurements(const UPS_UPSINFO &info)
{
    if (status_silent(info))
        return nullptr;
    const UPSDATA &data = info.upsdata;
    return {{"input_voltage", (data.InPutINT * 10 + data.InPutREM) / 10.0},
            {"output_voltage", (data.OutPutINT * 10 + data.OutPutREM) / 10.0},
            {"battery_capacity", data.BattCap},
            {"load", data.Load}};
}

static JSON shutdown_object(const STATE &state)
{
    return {{"pending", shutdown_pending(state)},
            {"underway", state.ups.ui.ShutdownS != 0},
            {"cause", text_or_null(cause_name(shutdown_cause(state)))},
            {"at", time_or_null(state.ups.ui.nextdown)},
            {"restart_at", time_or_null(state.ups.ui.nextboot)}};
}

static JSON last_events(const UPS_UPSINFO &info)
{
    JSON list = JSON::array();
    for (const UPS_EVENTLOGINFO &event : info.events)
        if (event_present(event))
            list.push_back({{"id", event.EventId},
                            {"text", text_or_null(words_event(event.EventId).words)},
                            {"time", time_or_null(event.timeinfo)}});
    return list;
}

std::string status_json(const STATE &state)
{
    const UPS_UPSINFO &info = state.ups.ui;
    const bool silent = status_silent(info);
    const JSON document = {
        {"running", daemon_alive(state.daemon)},
        {"reason", daemon_alive(state.daemon) ? JSON(nullptr) : JSON("one of the two processes is gone")},
        {"agent_pid", pid_or_null(state.daemon.agent)},
        {"ups_pid", pid_or_null(state.daemon.ups)},
        {"link", code_object(info.CommStatus, words_comm(info.CommStatus))},
        {"port", info.ComId < 0 ? JSON(nullptr)
                                : text_or_null(words_device(static_cast<std::int8_t>(info.ComId + 1)))},
        {"model", text_or_null(text_safe(info.upsmodel, TEXT_CODE::Euc))},
        {"state", silent ? JSON(nullptr) : code_object(info.upsstat, words_upsstat(info.upsstat))},
        {"battery", silent ? JSON(nullptr) : code_object(info.BattStatus, words_battery(info.BattStatus))},
        {"measurements", measurements(info)},
        {"shutdown", shutdown_object(state)},
        {"agent", code_object(info.AgentType, words_agenttype(info.AgentType))},
        {"group", text_or_null(text_safe(info.Group, TEXT_CODE::Euc))},
        {"last_events", last_events(info)},
        {"time", time_or_null(info.timeinfo)}};
    return text_of(document);
}

std::string status_json_stopped(std::string_view reason)
{
    JSON document = JSON::parse(status_json(STATE{}));
    for (auto &[name, value] : document.items())
        value = nullptr;
    document["running"] = false;
    document["reason"] = std::string(reason);
    return text_of(document);
}

std::string findings_json(const std::vector<FINDING> &findings)
{
    JSON checks = JSON::array();
    for (const FINDING &finding : findings)
        checks.push_back({{"check", std::string(finding.check)},
                          {"result", std::string(result_name(finding.result))},
                          {"finding", finding.found},
                          {"advice", text_or_null(finding.advice)}});
    return text_of({{"problems", count_of(findings, RESULT::Problem)},
                    {"warnings", count_of(findings, RESULT::Warning)},
                    {"checks", checks}});
}

// Reading logs whole and writing them down.
#include "monitor_log.h"

#include "monitor_records.h"
#include "monitor_text.h"
#include "monitor_words.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

static constexpr int PAGE = 4096;  // lines of one request, 112 KB

// ---- Reading ----

// Keeps what the range asks for of the lines from `base` on.
template <typename LINE> static void cut(std::vector<LINE> &lines, const LOG_RANGE &range, int base)
{
    const auto size = static_cast<std::ptrdiff_t>(lines.size());
    const std::ptrdiff_t count = range.count < 0 ? size : std::min<std::ptrdiff_t>(range.count, size);
    if (range.first < 0) {
        lines.erase(lines.begin(), lines.end() - count);
        return;
    }
    lines.erase(lines.begin(), lines.begin() + std::min<std::ptrdiff_t>(range.first - base, size));
    if (range.count >= 0 && lines.size() > static_cast<std::size_t>(range.count))
        lines.resize(static_cast<std::size_t>(range.count));
}

MONITOR_RESULT log_read_events(MONITOR_SESSION &session, const LOG_RANGE &range,
                               std::vector<UPS_EVENTLOGINFO> &lines, bool &more)
{
    const int base = std::max(range.first, 0);
    const int end = range.first < 0 || range.count < 0 ? INT32_MAX : base + range.count;
    lines.clear();
    more = false;
    for (int at = base; at < end; at += PAGE) {
        if (at > LOG_COUNT_MAX) {
            more = true;
            break;
        }
        const int count = std::min(PAGE, end - at);
        std::vector<UPS_EVENTLOGINFO> page;
        bool whole = false;
        MONITOR_RESULT result = monitor_eventlog(session, static_cast<std::int16_t>(at),
                                                 static_cast<std::int16_t>(count), page, whole);
        if (!monitor_ok(result))
            return result;
        if (whole) {
            lines = std::move(page);
            cut(lines, range, 0);
            return {};
        }
        lines.insert(lines.end(), page.begin(), page.end());
        if (page.size() < static_cast<std::size_t>(count))
            break;
    }
    cut(lines, range, base);
    return {};
}

MONITOR_RESULT log_read_data(MONITOR_SESSION &session, const LOG_RANGE &range,
                             std::vector<UPS_DATALOGINFO> &lines, bool &more)
{
    const bool all = range.first >= 0 || range.count < 0 || range.count > LOG_COUNT_MAX;
    const std::int16_t count = all ? LOG_COUNT_MAX : static_cast<std::int16_t>(range.count);
    MONITOR_RESULT result = monitor_datalog(session, 0, count, lines);
    if (!monitor_ok(result))
        return result;
    more = all && lines.size() == static_cast<std::size_t>(LOG_COUNT_MAX);
    cut(lines, range, 0);
    return {};
}

// ---- Events ----

static std::string event_text(const UPS_EVENTLOGINFO &line)
{
    return words_or_code(words_event(line.EventId), line.EventId);
}

// What led to the event, "" when nothing did.
static std::string cause_text(const UPS_EVENTLOGINFO &line)
{
    if (!event_has_cause(line))
        return "";
    return words_or_code(words_event(event_cause(line)), event_cause(line));
}

// Short texts to the column's width; a long one pushes the rest of its line aside.
static std::string padded(const std::string &text, std::size_t columns)
{
    return text_padded(text, std::max(columns, text_columns(text)));
}

std::string log_table(const std::vector<UPS_EVENTLOGINFO> &lines)
{
    std::string table;
    if (!lines.empty())
        table = "TIME                   ID  AGENT            EVENT\n";
    for (const UPS_EVENTLOGINFO &line : lines) {
        const std::string id = std::to_string(line.EventId);
        table += padded(time_words(line.timeinfo), 21) + std::string(4 - id.size(), ' ') + id + "  " +
                 padded(text_safe(line.AgentName, TEXT_CODE::Euc), 15) + "  " + event_text(line);
        const std::string cause = cause_text(line);
        table += cause.empty() ? "\n" : " (after: " + cause + ")\n";
    }
    return table;
}

// ---- Measurements ----

static std::string padded_left(const std::string &text, std::size_t columns)
{
    return text.size() < columns ? std::string(columns - text.size(), ' ') + text : text;
}

static std::string temperature_text(const UPSDATA &data)
{
    return temperature_absent(data) ? "-" : tenths_words(data.TempINT, data.TempREM);
}

std::string log_table(const std::vector<UPS_DATALOGINFO> &lines)
{
    std::string table;
    if (!lines.empty())
        table = "TIME                 INPUT V  OUTPUT V  LOAD %  INPUT HZ  OUTPUT HZ  TEMP C  BATTERY V\n";
    for (const UPS_DATALOGINFO &line : lines) {
        const UPSDATA &data = line.upsdata;
        table += padded(time_words(line.timeinfo), 21) +
                 padded_left(tenths_words(data.InPutINT, data.InPutREM), 7) + "  " +
                 padded_left(tenths_words(data.OutPutINT, data.OutPutREM), 8) + "  " +
                 padded_left(std::to_string(data.Load), 6) + "  " +
                 padded_left(tenths_words(data.FreqInputINT, data.FreqInputREM), 8) + "  " +
                 padded_left(tenths_words(data.FreqOutputINT, data.FreqOutputREM), 9) + "  " +
                 padded_left(temperature_text(data), 6) + "  " +
                 padded_left(tenths_words(data.BattVolINT, data.BattVolREM), 9) + "\n";
    }
    return table;
}

// ---- Comma-separated values ----

static std::string quoted(const std::string &text)
{
    std::string field = "\"";
    for (const char c : text)
        field += c == '"' ? std::string("\"\"") : std::string(1, c);
    return field + "\"";
}

static std::string time_value(const UPS_TIMEINFO &time)
{
    return time_absent(time) ? "" : time_words(time);
}

static std::string tenths_value(int whole, int tenths)
{
    return tenths < 0 || tenths > 9 ? "" : tenths_words(whole, tenths);
}

std::string log_csv(const std::vector<UPS_EVENTLOGINFO> &lines)
{
    std::string csv = "time,id,event,cause,agent\n";
    for (const UPS_EVENTLOGINFO &line : lines) {
        const std::string cause = event_has_cause(line) ? std::to_string(event_cause(line)) : "";
        csv += time_value(line.timeinfo) + "," + std::to_string(line.EventId) + "," +
               quoted(std::string(words_event(line.EventId).words)) + "," + cause + "," +
               quoted(text_safe(line.AgentName, TEXT_CODE::Euc)) + "\n";
    }
    return csv;
}

std::string log_csv(const std::vector<UPS_DATALOGINFO> &lines)
{
    std::string csv = "time,input_voltage,output_voltage,load,input_frequency,output_frequency,temperature,"
                      "battery_voltage\n";
    for (const UPS_DATALOGINFO &line : lines) {
        const UPSDATA &data = line.upsdata;
        csv += time_value(line.timeinfo) + "," + tenths_value(data.InPutINT, data.InPutREM) + "," +
               tenths_value(data.OutPutINT, data.OutPutREM) + "," + std::to_string(data.Load) + "," +
               tenths_value(data.FreqInputINT, data.FreqInputREM) + "," +
               tenths_value(data.FreqOutputINT, data.FreqOutputREM) + "," +
               (temperature_absent(data) ? "" : tenths_value(data.TempINT, data.TempREM)) + "," +
               tenths_value(data.BattVolINT, data.BattVolREM) + "\n";
    }
    return csv;
}

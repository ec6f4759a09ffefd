// The page of `voltaria watch`: fields one below the other on a narrow terminal, two side by side from 80
// columns on, and the least important lines left out when there are too few rows.
#include "monitor_page.h"
#include "monitor_text.h"

#include <algorithm>
#include <string_view>

// A label and its value. A field that is `whole` takes the full width even on a wide terminal.
struct FIELD {
    const char *label;
    PAGE_SPAN value;
    int rank;
    bool whole = false;
};

static constexpr std::size_t LABEL_COLUMNS = 10;
static constexpr std::size_t WIDE_COLUMNS = 80;
static constexpr std::size_t GAP_COLUMNS = 2;

std::string page_text(const PAGE_LINE &line)
{
    std::string text;
    for (const PAGE_SPAN &span : line.spans)
        text += span.text;
    return text;
}

// ---- The fields ----

// "[######--------------]  35 %": the bar shows at most 100 %, the number says the rest.
static std::string bar(int percent)
{
    constexpr int cells = 20;
    const int filled = std::clamp(percent * cells / 100, 0, cells);
    const std::string number = std::to_string(percent);
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(cells - filled), '-') + "] " +
           std::string(number.size() < 3 ? 3 - number.size() : 0, ' ') + number + " %";
}

static PAGE_SPAN load_bar(const UPS_UPSINFO &status)
{
    if (status_silent(status))
        return {"-", TONE::Plain};
    const int load = status.upsdata.Load;
    return {bar(load), load >= 101 ? TONE::Alarm : TONE::Plain};
}

static PAGE_SPAN capacity_bar(const UPS_UPSINFO &status)
{
    if (status_silent(status) || status.upsdata.BattCap <= 0)
        return {page_capacity(status), TONE::Plain};
    return {bar(status.upsdata.BattCap), TONE::Plain};
}

static PAGE_SPAN voltage_and_frequency(const UPS_UPSINFO &status, int volts, int volts_tenths, int hertz,
                                       int hertz_tenths)
{
    if (status_silent(status))
        return {"-", TONE::Plain};
    return {page_quantity(status, volts, volts_tenths, "V") + "  " +
                page_quantity(status, hertz, hertz_tenths, "Hz"),
            TONE::Plain};
}

static PAGE_SPAN battery_and_temperature(const UPS_UPSINFO &status)
{
    if (status_silent(status))
        return {"-", TONE::Plain};
    const std::string temperature = temperature_absent(status.upsdata) ? "" : "  " + page_temperature(status);
    return {page_quantity(status, status.upsdata.BattVolINT, status.upsdata.BattVolREM, "V") + temperature,
            TONE::Plain};
}

// The columns that a paired field has for its value, or on a narrow terminal every field.
static std::size_t value_columns(std::size_t columns)
{
    const std::size_t field = columns >= WIDE_COLUMNS ? (columns - GAP_COLUMNS) / 2 : columns;
    return field - std::min(field, LABEL_COLUMNS + 1);
}

// The time without its seconds where the last of them would be cut off.
static PAGE_SPAN selftest_within(const SELFTESTRESULT &result, std::size_t columns)
{
    static constexpr std::size_t seconds = std::string_view(":07").size();
    PAGE_SPAN span = page_selftest(result);
    if (span.text.size() > columns && !time_absent(result.timeinfo) && time_valid(result.timeinfo))
        span.text.resize(span.text.size() - seconds);
    return span;
}

static std::string capabilities(const UPS_UPSINFO &status)
{
    std::string text;
    for (const std::string &name : words_capabilities(status.ufStatus))
        text += (text.empty() ? "" : ", ") + name;
    return text.empty() ? "none" : text;
}

static void add_event_fields(std::vector<FIELD> &fields, const UPS_EVENTLOGINFO &event, int rank, bool wide)
{
    const PAGE_SPAN text = page_event(event);
    if (!event_present(event)) {
        fields.push_back({"Event", {"none", TONE::Plain}, rank, true});
    } else if (wide) {
        fields.push_back({"Event", {time_words(event.timeinfo) + "  " + text.text, text.tone}, rank, true});
    } else {
        fields.push_back({"Event", {time_words(event.timeinfo), TONE::Plain}, rank, true});
        fields.push_back({"", text, rank, true});
    }
}

static std::vector<FIELD> watch_fields(const UPS_UPSINFO &status, std::size_t columns)
{
    const UPSDATA &data = status.upsdata;
    const std::size_t room = value_columns(columns);
    std::vector<FIELD> fields{
        {"UPS", page_ups_state(status), 0},
        {"Battery", page_battery_state(status), 0},
        {"Link", page_link_state(status), 0},
        {"Model", {page_model(status), TONE::Plain}, 3},
        {"Input",
         voltage_and_frequency(status, data.InPutINT, data.InPutREM, data.FreqInputINT, data.FreqInputREM),
         1},
        {"Output",
         voltage_and_frequency(status, data.OutPutINT, data.OutPutREM, data.FreqOutputINT,
                               data.FreqOutputREM),
         2},
        {"Load", load_bar(status), 1},
        {"Capacity", capacity_bar(status), 1},
        {"Batt. now", battery_and_temperature(status), 3},
        {"Batt. from", {date_words(status.PreChangeBatt), TONE::Plain}, 7},
        {"Shutdown", page_shutdown(status), 1},
        {"Restart", {time_words(status.nextboot), TONE::Plain}, 4},
        {"Batt. test", selftest_within(status.sftResBattery, room), 6},
        {"UPS test", selftest_within(status.sftResUPS, room), 6},
        {"Buzzer", {words_onoff(status.BuzzerCan) + ", self-test " + words_onoff(status.AutoTestCan)}, 8},
        {"Autostart",
         {words_onoff(status.bAutoReboot) + ", level " + std::to_string(status.iDetectionLvl)},
         8},
    };
    // The record holds the older event first; the newer one is worth more when rows are short.
    const bool wide = columns >= WIDE_COLUMNS;
    add_event_fields(fields, status.events[1], 5, wide);
    add_event_fields(fields, status.events[0], 6, wide);
    fields.push_back({"Can", {capabilities(status), TONE::Faint}, 9, true});
    return fields;
}

// ---- The layout ----

static std::vector<PAGE_SPAN> field_spans(const FIELD &field, std::size_t columns, bool stale)
{
    const std::size_t label = std::min(columns, LABEL_COLUMNS);
    return {{text_padded(std::string(field.label), label), TONE::Faint},
            {text_padded(" " + field.value.text, columns - label), stale ? TONE::Faint : field.value.tone}};
}

static PAGE_LINE pair_line(const FIELD &left, const FIELD &right, std::size_t columns, bool stale)
{
    const std::size_t half = (columns - GAP_COLUMNS) / 2;
    PAGE_LINE line{field_spans(left, half, stale), std::min(left.rank, right.rank)};
    line.spans.push_back({std::string(GAP_COLUMNS, ' ')});
    for (PAGE_SPAN &span : field_spans(right, half, stale))
        line.spans.push_back(std::move(span));
    return line;
}

static void add_field_lines(std::vector<PAGE_LINE> &page, const std::vector<FIELD> &fields,
                            std::size_t columns, bool stale)
{
    const bool wide = columns >= WIDE_COLUMNS;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const bool paired = wide && !fields[i].whole && i + 1 < fields.size() && !fields[i + 1].whole;
        if (paired) {
            page.push_back(pair_line(fields[i], fields[i + 1], columns, stale));
            ++i;
        } else {
            page.push_back({field_spans(fields[i], columns, stale), fields[i].rank});
        }
    }
}

static PAGE_LINE title_line(const WATCH_VIEW &view, std::size_t columns)
{
    const std::size_t clock = std::min(columns, view.now.size());
    const std::string left = text_padded("Voltaria " + view.place, columns - clock);
    return {{{left, TONE::Heading}, {std::string(text_fit(view.now, clock)), TONE::Heading}}, 0};
}

static PAGE_LINE connection_line(const WATCH_VIEW &view, std::size_t columns)
{
    PAGE_SPAN span{"connected since " + view.since, TONE::Good};
    if (!view.connected && view.reason.empty())
        span = {"connecting ...", TONE::Warning};
    else if (!view.connected)
        span = {"LOST since " + view.since + ": " + view.reason, TONE::Alarm};
    span.text = text_padded(span.text, columns);
    return {{std::move(span)}, 0};
}

static PAGE_LINE foot_line(const WATCH_VIEW &view, std::size_t columns)
{
    if (view.message.empty())
        return {{{text_padded("q quits", columns), TONE::Faint}}, 9};
    return {{{text_padded(view.message, columns), TONE::Warning}}, 1};
}

// Takes out the least important line, the lowest of several, until the rest fits.
static void drop_to(std::vector<PAGE_LINE> &page, std::size_t rows)
{
    const auto more_important = [](const PAGE_LINE &a, const PAGE_LINE &b) { return a.rank <= b.rank; };
    while (page.size() > rows) {
        auto least = page.begin();
        for (auto line = page.begin(); line != page.end(); ++line)
            if (more_important(*least, *line))
                least = line;
        page.erase(least);
    }
}

std::vector<PAGE_LINE> page_watch(const WATCH_VIEW &view, PAGE_SIZE size)
{
    std::vector<PAGE_LINE> page{title_line(view, size.columns), connection_line(view, size.columns)};
    if (view.has_status)
        add_field_lines(page, watch_fields(view.status, size.columns), size.columns, !view.connected);
    page.push_back(foot_line(view, size.columns));
    drop_to(page, size.rows);
    return page;
}

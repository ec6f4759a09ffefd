// The picture of the live demo. The page of the monitor gets what the keys and a few lines of news leave; on
// a terminal that is too small for all of it the oldest news goes first.
#include "demo_live.h"

#include "monitor_text.h"

#include <algorithm>
#include <array>

static constexpr std::array LIVE_KEYS = {
    LIVE_KEY{'f', "mains", "fail", "mains fail", "mains fails"},
    LIVE_KEY{'r', "mains", "return", "mains return", "mains returns"},
    LIVE_KEY{'d', "battery", "drain", "battery 10", "the battery is drained to 10 %"},
    LIVE_KEY{'c', "battery", "charge", "battery 100", "the battery is charged"},
    LIVE_KEY{'l', "line", "cut", "line cut", "the serial line is cut"},
    LIVE_KEY{'p', "line", "plug", "line restore", "the serial line is plugged in again"},
    LIVE_KEY{'+', "load", "up", nullptr, "more load"},
    LIVE_KEY{'-', "load", "down", nullptr, "less load"},
    LIVE_KEY{'b', "machine", "start again", nullptr, "the machine starts again"},
    LIVE_KEY{'q', "", "quit", nullptr, ""}};

static constexpr std::size_t PAGE_WANTS = 13;  // rows of the monitor's page before the news gets more
static constexpr std::size_t NEWS_LEAST = 3;
static constexpr std::size_t NEWS_MOST = 12;

const LIVE_KEY *live_key(int key)
{
    const auto *found = std::ranges::find(LIVE_KEYS, key, &LIVE_KEY::key);
    return found == LIVE_KEYS.end() ? nullptr : found;
}

// ---- Texts ----

// "mains: f fail, r return", one for each group.
static std::vector<std::string> key_groups()
{
    std::vector<std::string> groups;
    std::string_view last = "none";
    for (const LIVE_KEY &key : LIVE_KEYS) {
        const std::string named = std::string(1, key.key) + " " + key.label;
        if (last == key.group)
            groups.back() += ", " + named;
        else
            groups.push_back(*key.group == '\0' ? named : std::string(key.group) + ": " + named);
        last = key.group;
    }
    return groups;
}

std::vector<std::string> live_keys_text(std::size_t columns)
{
    static constexpr std::string_view gap = "   ";
    std::vector<std::string> lines{""};
    for (const std::string &group : key_groups()) {
        if (!lines.back().empty() && lines.back().size() + gap.size() + group.size() > columns)
            lines.emplace_back();
        lines.back() += (lines.back().empty() ? "" : std::string(gap)) + group;
    }
    return lines;
}

std::string live_times_text(int battery_time)
{
    return "Shortened times: down after " + std::to_string(battery_time) + " s on battery, off " +
           std::to_string(TURN_OFF_DELAY) + " s later";
}

std::string live_news_text(const LIVE_NEWS &news)
{
    return news.time + " " + text_padded(news.who, 9) + news.text;
}

// ---- Lines ----

static PAGE_LINE line_of(const std::string &text, TONE tone, std::size_t columns)
{
    return {{{text_padded(text, columns), tone}}, 0};
}

static std::vector<PAGE_LINE> ending_page(const LIVE_VIEW &view, PAGE_SIZE size)
{
    std::vector<PAGE_LINE> page;
    for (const std::string &text : view.ending)
        if (page.size() < size.rows)
            page.push_back(line_of(text, page.empty() ? TONE::Alarm : TONE::Plain, size.columns));
    return page;
}

static void add_news(std::vector<PAGE_LINE> &page, const LIVE_VIEW &view, std::size_t rows,
                     std::size_t columns)
{
    const std::size_t shown = std::min(rows, view.news.size());
    for (auto news = view.news.end() - static_cast<std::ptrdiff_t>(shown); news != view.news.end(); ++news)
        page.push_back(line_of(live_news_text(*news), TONE::Plain, columns));
}

std::vector<PAGE_LINE> live_page(const LIVE_VIEW &view, PAGE_SIZE size)
{
    const std::vector<std::string> keys = live_keys_text(size.columns);
    const std::size_t frame = keys.size() + 1;  // and the line about the times
    const std::size_t rest = size.rows - std::min(size.rows, frame);
    const std::size_t spare = rest - std::min(rest, PAGE_WANTS);
    const std::size_t news = std::min(std::clamp(spare, NEWS_LEAST, NEWS_MOST), rest / 2);
    const PAGE_SIZE above{size.columns, std::max<std::size_t>(rest - news, 1)};
    std::vector<PAGE_LINE> page =
        view.ending.empty() ? page_watch(view.watch, above) : ending_page(view, above);
    page.resize(above.rows);  // the news and the keys keep their places
    page.push_back(line_of(live_times_text(view.battery_time), TONE::Faint, size.columns));
    add_news(page, view, news, size.columns);
    page.resize(above.rows + 1 + news);
    for (const std::string &line : keys)
        page.push_back(line_of(line, TONE::Heading, size.columns));
    page.resize(std::min(page.size(), size.rows));
    return page;
}

// What the live demo shows, as a pure picture: the page of `voltaria watch`, below it the news and the keys.
#pragma once

#include "monitor_page.h"

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

inline constexpr int TURN_OFF_DELAY = 20;  // s from the shutdown until the unit cuts its output

// One key that works the world around the unit.
struct LIVE_KEY {
    char key;
    const char *group;
    const char *label;
    const char *command;  // for the simulated unit; null: the demo computes it
    const char *done;     // what is told of it
};

struct LIVE_NEWS {
    std::string time;
    std::string who;
    std::string text;
};

struct LIVE_VIEW {
    WATCH_VIEW watch{};                 // its message is the advice: what goes on and what to press
    std::vector<std::string> ending{};  // stands in place of the page when the daemon is gone
    std::deque<LIVE_NEWS> news{};       // oldest first
    int battery_time = 0;               // s without mains until the shutdown
};

/// The key of this name; null for any other.
[[nodiscard]] const LIVE_KEY *live_key(int key);

/// The keys in as many lines as these columns need.
[[nodiscard]] std::vector<std::string> live_keys_text(std::size_t columns);

/// In how much less time than usual everything happens.
[[nodiscard]] std::string live_times_text(int battery_time);

[[nodiscard]] std::string live_news_text(const LIVE_NEWS &news);

/// The whole page: never more than `size.rows` lines, none wider than `size.columns`.
[[nodiscard]] std::vector<PAGE_LINE> live_page(const LIVE_VIEW &view, PAGE_SIZE size);

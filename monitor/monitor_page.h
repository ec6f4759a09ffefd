// The status drawn as text: the long page of `voltaria status`, the fixed-size page of `voltaria watch`, and
// the one line that stands for it where there is no terminal. Pure functions of what they are given: they
// read no clock and ask nobody, so that a demo or a test can draw any moment it likes.
#pragma once

#include "monitor_words.h"
#include "ups_records.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A stretch of one line in one tone.
struct PAGE_SPAN {
    std::string text;
    TONE tone = TONE::Plain;
};

struct PAGE_LINE {
    std::vector<PAGE_SPAN> spans{};
    int rank = 0;  // when rows are short, lines of the highest rank go first
};

// Size of the terminal, in character cells.
struct PAGE_SIZE {
    std::size_t columns;
    std::size_t rows;
};

// What the watch page shows beside the status record itself.
struct WATCH_VIEW {
    std::string place{};  // host and port
    std::string now{};    // "21:14:05", the viewer's clock
    bool connected = false;
    std::string since{};    // when the connection was made or lost; the viewer's clock
    std::string reason{};   // why it is lost; empty while the first attempt runs
    std::string message{};  // the agent's last announcement, made safe; may be empty
    bool has_status = false;
    UPS_UPSINFO status{};  // the last one received; stale while not connected
};

/// The page of `voltaria status`, one line an element, without line ends.
[[nodiscard]] std::vector<std::string> page_status(const UPS_UPSINFO &status, const std::string &place);

/// The watch page: never more than `size.rows` lines, none wider than `size.columns`. Two columns of fields
/// from 80 columns on.
[[nodiscard]] std::vector<PAGE_LINE> page_watch(const WATCH_VIEW &view, PAGE_SIZE size);

/// The text of a line without its tones.
[[nodiscard]] std::string page_text(const PAGE_LINE &line);

/// State and measurements in one line, without any clock: it changes only when they do.
[[nodiscard]] std::string page_one_line(const UPS_UPSINFO &status);

// ---- Shared by the pages ----

/// UPS state in words; unknown while agent and UPS are not in touch.
[[nodiscard]] PAGE_SPAN page_ups_state(const UPS_UPSINFO &status);
/// Battery state in words.
[[nodiscard]] PAGE_SPAN page_battery_state(const UPS_UPSINFO &status);
/// Link state and device.
[[nodiscard]] PAGE_SPAN page_link_state(const UPS_UPSINFO &status);
/// The model name, or "not known".
[[nodiscard]] std::string page_model(const UPS_UPSINFO &status);
/// A measurement, or "-" while there is none. `unit` follows the number.
[[nodiscard]] std::string page_quantity(const UPS_UPSINFO &status, int whole, int tenths, const char *unit);
/// The temperature, "-", or "not reported".
[[nodiscard]] std::string page_temperature(const UPS_UPSINFO &status);
/// Remaining battery capacity; a unit that cannot tell sends 0.
[[nodiscard]] std::string page_capacity(const UPS_UPSINFO &status);
/// The output load.
[[nodiscard]] std::string page_load(const UPS_UPSINFO &status);
/// When the next shutdown comes, or that it is under way.
[[nodiscard]] PAGE_SPAN page_shutdown(const UPS_UPSINFO &status);
/// A self-test's result and when it was recorded.
[[nodiscard]] PAGE_SPAN page_selftest(const SELFTESTRESULT &result);
/// An event's text with its number; what led to it and the agent's name when there is one.
[[nodiscard]] PAGE_SPAN page_event(const UPS_EVENTLOGINFO &event);

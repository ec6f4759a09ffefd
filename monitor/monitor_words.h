// Codes, masks, dates and measurements in words. A code that no table knows has no words: it is shown as
// its number and never as the nearest guess. Used by the pages and by the JSON document.
#pragma once

#include "ups_records.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// How urgent a thing is; the screen turns it into colour, plain text ignores it.
enum class TONE { Plain, Faint, Heading, Good, Warning, Alarm };

struct CODE_WORDS {
    std::string_view words;  // empty: the code is unknown
    TONE tone;
};

/// `ui.upsstat`, `BattStatus`, `CommStatus`, self-test `Result`, `AgentType` and event number as words.
[[nodiscard]] CODE_WORDS words_upsstat(std::int32_t code);
[[nodiscard]] CODE_WORDS words_battery(std::int32_t code);
[[nodiscard]] CODE_WORDS words_comm(std::int32_t code);
[[nodiscard]] CODE_WORDS words_selftest(std::int64_t code);
[[nodiscard]] CODE_WORDS words_agenttype(std::int64_t code);
[[nodiscard]] CODE_WORDS words_event(std::int32_t id);

/// The words, or "code N" when there are none.
[[nodiscard]] std::string words_or_code(const CODE_WORDS &words, std::int64_t code);

/// A 0/1 setting: "on", "off", or "code N".
[[nodiscard]] std::string words_onoff(std::int32_t value);

/// The names of the set capability bits, lowest bit first. Bits whose meaning is not fixed appear as their
/// hexadecimal value.
[[nodiscard]] std::vector<std::string> words_capabilities(UPSFUNCTION mask);

/// The device behind the port number of a status answer (1 to 4), empty for every other number.
[[nodiscard]] std::string words_device(std::int8_t wire_comid);

/// True while the agent and the UPS are not in touch (lost, or none configured): measurements and states are
/// then zeros that mean nothing.
[[nodiscard]] bool status_silent(const UPS_UPSINFO &status);

/// True when there is no such date.
[[nodiscard]] bool time_absent(const UPS_TIMEINFO &time);
/// "2005-03-05 09:07:02", "none", or "invalid (...)" with the raw numbers.
[[nodiscard]] std::string time_words(const UPS_TIMEINFO &time);
/// The date alone: "2005-03-05", "none" or "invalid (...)".
[[nodiscard]] std::string date_words(const UPS_TIMEINFO &time);
/// True when every field is within its range.
[[nodiscard]] bool time_valid(const UPS_TIMEINFO &time);

/// True when the event slot holds an event: not the "no event" number and not an untouched record.
[[nodiscard]] bool event_present(const UPS_EVENTLOGINFO &event);

/// The number of the event that led to a shutdown, and whether there is one.
[[nodiscard]] std::uint8_t event_cause(const UPS_EVENTLOGINFO &event);
[[nodiscard]] bool event_has_cause(const UPS_EVENTLOGINFO &event);

/// A quantity as "100.3"; a tenths part that is no digit is shown as it is: "100 (tenths 17)".
[[nodiscard]] std::string tenths_words(int whole, int tenths);
/// True when the unit reports no temperature.
[[nodiscard]] bool temperature_absent(const UPSDATA &data);

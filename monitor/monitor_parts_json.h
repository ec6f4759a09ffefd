// What the JSON documents of the tools have in common; seen only by the files that make them.
#pragma once

#include "monitor_words.h"
#include "ups_records.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

using JSON = nlohmann::ordered_json;

/// The document as text. Names may come in any encoding: whatever is no UTF-8 is replaced rather than
/// refused.
[[nodiscard]] std::string text_of(const JSON &document);
/// null for an empty text.
[[nodiscard]] JSON text_or_null(std::string_view text);
/// Members code and text; text is null for a code without words.
[[nodiscard]] JSON code_object(std::int64_t code, const CODE_WORDS &words);
/// "2026-11-22T03:00:00", local time of the agent's host; null for none.
[[nodiscard]] JSON time_or_null(const UPS_TIMEINFO &time);

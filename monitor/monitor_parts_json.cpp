// The parts that monitor_parts_json.h describes.
#include "monitor_parts_json.h"

#include "monitor_text.h"

std::string text_of(const JSON &document)
{
    return document.dump(2, ' ', false, JSON::error_handler_t::replace);
}

JSON text_or_null(std::string_view text)
{
    return text.empty() ? JSON(nullptr) : JSON(std::string(text));
}

JSON code_object(std::int64_t code, const CODE_WORDS &words)
{
    return {{"code", code}, {"text", text_or_null(words.words)}};
}

JSON time_or_null(const UPS_TIMEINFO &time)
{
    if (time_absent(time))
        return nullptr;
    std::string text = time_words(time);
    if (time_valid(time))
        text[10] = 'T';
    return text;
}

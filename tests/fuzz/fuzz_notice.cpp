// Notices out of any format, as a damaged translation may hold it. Input: a byte that says how many arguments
// there are, one bit for each that says which are numbers, eight bytes that are the numbers, then a format
// and the texts, each ended by a zero byte. The text is no longer than what its parts can give, and of a
// format without placeholders it is the format.
#include "e_a_internal.h"
#include "fuzz_support.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

static constexpr std::size_t MOST_ARGUMENTS = 4;
static constexpr std::size_t WIDEST = 99;  // bytes of one number

// The engine's way to the agent; a text is composed without it.
int Event_CallBack(int, void *, int, int)
{
    return 0;
}

template <typename T> static T take(std::string_view &input)
{
    T value{};
    const std::size_t length = std::min(sizeof value, input.size());
    std::memcpy(&value, input.data(), length);
    input.remove_prefix(length);
    return value;
}

static std::string take_text(std::string_view &input)
{
    const std::size_t length = std::min(input.find('\0'), input.size());
    const std::string text(input.substr(0, length));
    input.remove_prefix(std::min(length + 1, input.size()));
    return text;
}

static std::string format_with(const char *format, std::size_t count,
                               const std::array<NOTICEARG, MOST_ARGUMENTS> &a)
{
    switch (count) {
    case 0:
        return notice_format(format, {});
    case 1:
        return notice_format(format, {a[0]});
    case 2:
        return notice_format(format, {a[0], a[1]});
    case 3:
        return notice_format(format, {a[0], a[1], a[2]});
    default:
        return notice_format(format, {a[0], a[1], a[2], a[3]});
    }
}

static void check_text(const std::string &format, const std::string &text, std::size_t longest)
{
    const auto signs = static_cast<std::size_t>(std::count(format.begin(), format.end(), '%'));
    require(text.size() <= format.size() + signs * std::max(longest, WIDEST), "the length of a text");
    require(signs != 0 || text == format, "a text without placeholders");
    require(text.compare(0, format.find('%'), format, 0, format.find('%')) == 0, "what stands before them");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    const auto kinds = take<std::uint8_t>(input);
    const std::size_t count = kinds % (MOST_ARGUMENTS + 1);
    const long number = take<long>(input);
    const std::string format = take_text(input);
    std::array<std::string, MOST_ARGUMENTS> texts;
    std::array<NOTICEARG, MOST_ARGUMENTS> arguments{};
    std::size_t longest = 0;
    for (std::size_t i = 0; i < count; ++i) {
        texts[i] = take_text(input);
        arguments[i] = (kinds >> (4 + i) & 1) != 0 ? notice_arg(number) : notice_arg(texts[i]);
        longest = std::max(longest, texts[i].size());
    }
    check_text(format, format_with(format.c_str(), count, arguments), longest);
    return 0;
}

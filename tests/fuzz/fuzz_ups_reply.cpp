// The readers of the unit's replies: the first byte chooses the reader, the rest is the reply. What a reader
// accepts lies in the range of its field.
#include "agent_ups_reply.h"
#include "fuzz_support.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

static bool digit_range(const TENTHS &t)
{
    return t.whole >= 0 && t.whole <= 999 && t.tenth >= 0 && t.tenth <= 9;
}

static void read_q1(std::string_view reply)
{
    if (!q1_wellformed(reply))
        return;
    const Q1REPLY q1 = q1_parse(reply);
    require(digit_range(q1.input) && digit_range(q1.output) && digit_range(q1.freq) &&
            digit_range(q1.battery));
    require(digit_range(q1.temp) || (q1.temp.whole == -1 && q1.temp.tenth == -1));
    for (unsigned bit = 0; bit < 8; ++bit)
        require(!q1_bit(q1, bit) || !q1_bitclear(q1, bit));
    require(q1.load >= 0 && q1.load <= 999);
}

static void read_model(std::string_view reply, bool bracket)
{
    std::string_view name;
    const MODELREPLY outcome = bracket ? model_parsebracket(reply, name) : model_parse(reply, name);
    require((outcome == MODELREPLY::Read) == !name.empty());
    require(name.size() < MODEL_MAX);
}

static void read_numbers(std::string_view reply)
{
    TENTHS quantity{};
    std::int8_t percent = 0;
    UPS_TIMEINFO date{};
    require(!freq_parse(reply, quantity) || digit_range(quantity));
    require(!freq_parsebracket(reply, quantity) || digit_range(quantity));
    require(!battvolt_parse(reply, quantity) || digit_range(quantity));
    require(!battcap_parse(reply, percent) || percent >= 0);
    require(!battdate_parse(reply, date) || (date.month >= 0 && date.day >= 0));
}

static void read_states(std::string_view reply)
{
    CAPABILITY flags{};
    UPSFUNCTION functions = 0;
    require(!capability_parse(reply, flags, functions) || (functions & 0x4010) == 0x4000);
    if (state_wellformed(reply))
        require(state_detectionlevel(reply) >= 0 && state_detectionlevel(reply) <= 4);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string_view reply(reinterpret_cast<const char *>(data) + 1, size - 1);
    require(!reply_isnak(reply) || !reply_iswake(reply));
    switch (data[0] % 5) {
    case 0:
        read_q1(reply);
        break;
    case 1:
    case 2:
        read_model(reply, data[0] % 5 == 2);
        break;
    case 3:
        read_numbers(reply);
        break;
    default:
        read_states(reply);
        break;
    }
    return 0;
}

// Two queues of bytes with the time at which each has crossed, in order of that time.
#include "sim_line.h"

#include <algorithm>

namespace sim
{

static constexpr char XON = 0x11;
static constexpr char XOFF = 0x13;

static void put(std::deque<LineByte> &bytes, Time &line_free, Time now, bool paced, std::string_view text)
{
    for (char byte : text) {
        line_free = std::max(now, line_free) + (paced ? CHARACTER_TIME : Time(0));
        bytes.push_back({byte, line_free});
    }
}

void line_from_host(Line &line, Time now, std::string_view bytes)
{
    put(line.to_unit, line.to_unit_free, now, line.paced, bytes);
}

// Noise may stand at the end of the queue, earlier than the last byte that the unit sent, so the place of
// each new byte is found by its time.
void line_from_unit(Line &line, Time now, std::string_view bytes)
{
    std::deque<LineByte> sent;
    put(sent, line.to_host_free, now, line.paced, bytes);
    for (const LineByte &byte : sent) {
        const auto place =
            std::upper_bound(line.to_host.begin(), line.to_host.end(), byte,
                             [](const LineByte &a, const LineByte &b) { return a.due < b.due; });
        line.to_host.insert(place, byte);
    }
}

void line_disturb(Line &line, Time now, std::string_view bytes)
{
    for (char byte : bytes) {
        const LineByte noise{byte, now};
        const auto place =
            std::upper_bound(line.to_host.begin(), line.to_host.end(), noise,
                             [](const LineByte &a, const LineByte &b) { return a.due < b.due; });
        line.to_host.insert(place, noise);
    }
}

void line_set_noise(Line &line, Time now, double bytes_per_second, std::uint64_t seed)
{
    line.noise = Noise{};
    if (bytes_per_second <= 0.0)
        return;
    line.noise.interval = from_seconds(1.0 / bytes_per_second);
    line.noise.next = now + line.noise.interval;
    line.noise.random.state = seed;
}

std::optional<LineByte> line_take_for_unit(Line &line, Time now)
{
    while (!line.to_unit.empty() && line.to_unit.front().due <= now) {
        const LineByte byte = line.to_unit.front();
        line.to_unit.pop_front();
        if (!line.cut && byte.byte != XON && byte.byte != XOFF)
            return byte;
    }
    return std::nullopt;
}

static void make_noise(Line &line, Time now)
{
    while (line.noise.interval > Time(0) && line.noise.next <= now) {
        const char byte = static_cast<char>(random_next(line.noise.random) >> 56);
        line_disturb(line, line.noise.next, {&byte, 1});
        line.noise.next += line.noise.interval;
    }
}

std::string line_take_for_host(Line &line, Time now)
{
    make_noise(line, now);
    std::string bytes;
    while (!line.to_host.empty() && line.to_host.front().due <= now) {
        if (!line.cut)
            bytes.push_back(line.to_host.front().byte);
        line.to_host.pop_front();
    }
    return bytes;
}

std::optional<Time> line_next_due(const Line &line)
{
    std::optional<Time> next;
    const auto consider = [&next](Time time) { next = next ? std::min(*next, time) : time; };
    if (!line.to_unit.empty())
        consider(line.to_unit.front().due);
    if (!line.to_host.empty())
        consider(line.to_host.front().due);
    if (line.noise.interval > Time(0))
        consider(line.noise.next);
    return next;
}

void line_clear(Line &line)
{
    line.to_unit.clear();
    line.to_host.clear();
    line.to_unit_free = Time(0);
    line.to_host_free = Time(0);
}

}  // namespace sim

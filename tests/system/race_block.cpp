// The words of the shared block during a race, and who watches them.
#include "race_block.h"

#include "shared_word.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sched.h>

namespace race
{

static constexpr std::size_t MOST_COMPLAINTS = 20;
static constexpr std::uint64_t KINDS = 256;

// ---- what is legal

void LegalBlock::field(std::size_t offset, std::size_t size, const Values &values)
{
    const auto shift = static_cast<unsigned>(8 * (offset % 4));
    const std::uint32_t mask = static_cast<std::uint32_t>((std::uint64_t{1} << (8 * size)) - 1);
    std::vector<Part> &parts = words_.at(offset / 4);
    auto part = std::find_if(parts.begin(), parts.end(), [&](const Part &one) { return one.shift == shift; });
    if (part == parts.end())
        part = parts.insert(parts.end(), {shift, mask, {}});
    for (const std::uint32_t value : values)
        part->values.push_back(value & mask);
}

void LegalBlock::text(std::size_t offset, std::size_t size, const std::vector<std::string> &texts)
{
    for (std::string filled : texts) {
        filled.resize(size);
        for (std::size_t at = 0; at < size; at += 4) {
            std::uint32_t word = 0;
            std::memcpy(&word, filled.data() + at, sizeof word);
            field(offset + at, 4, {word});
        }
    }
}

static Values range(std::uint32_t first, std::uint32_t last)
{
    Values values;
    for (std::uint32_t value = first; value <= last; ++value)
        values.push_back(value);
    return values;
}

void LegalBlock::days(std::size_t offset, const std::vector<std::array<std::uint32_t, 3>> &days)
{
    field(offset, 4, {0});
    for (const std::array<std::uint32_t, 3> &day : days)
        field(offset, 4, {day[0] | day[1] << 8 | day[2] << 16});
}

void LegalBlock::times(std::size_t offset, const std::vector<std::array<std::uint32_t, 3>> &days)
{
    std::vector<std::array<std::uint32_t, 3>> all = days;
    all.push_back({0, 0, 0});
    const std::time_t now = std::time(nullptr);
    for (const std::time_t time : {now, now + 3600}) {
        std::tm local{};
        localtime_r(&time, &local);
        all.push_back({static_cast<std::uint32_t>(local.tm_year),
                       static_cast<std::uint32_t>(local.tm_mon) + 1,
                       static_cast<std::uint32_t>(local.tm_mday)});
    }
    for (const std::array<std::uint32_t, 3> &day : all)
        for (std::size_t at = 0; at < day.size(); ++at)
            field(offset + at, 1, {day.at(at)});
    field(offset + offsetof(UPS_TIMEINFO, hour), 1, range(0, 23));
    field(offset + offsetof(UPS_TIMEINFO, minute), 1, range(0, 59));
    field(offset + offsetof(UPS_TIMEINFO, second), 1, range(0, 59));
}

std::string LegalBlock::complaint(std::size_t index, std::uint32_t word) const
{
    std::uint32_t rest = word;
    bool legal = true;
    for (const Part &part : words_.at(index)) {
        const std::uint32_t value = word >> part.shift & part.mask;
        legal = legal && std::find(part.values.begin(), part.values.end(), value) != part.values.end();
        rest &= ~(part.mask << part.shift);
    }
    if (legal && rest == 0)
        return "";
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "the word at offset %zu holds 0x%08x", 4 * index, word);
    return text.data();
}

// ---- who watches

// The stage may have tied the process to one processor, on which the watcher could never see two others at
// work.
static void take_any_processor()
{
    cpu_set_t all;
    CPU_ZERO(&all);
    for (int i = 0; i < CPU_SETSIZE; ++i)
        CPU_SET(i, &all);
    sched_setaffinity(0, sizeof all, &all);
}

Watcher::Watcher(const LegalBlock &legal, Announced announced)
    : legal_(legal), announced_(std::move(announced))
{
    seen_.fill(0xA5A5A5A5);
    thread_ = std::thread([this] { watch(); });
}

Watcher::~Watcher()
{
    stop();
}

void Watcher::enter(Phase phase)
{
    const std::uint64_t count = phase_.load() / KINDS + 1;
    phase_.store(count * KINDS + static_cast<std::uint64_t>(phase));
}

std::vector<std::string> Watcher::stop()
{
    ending_ = true;
    if (thread_.joinable())
        thread_.join();
    return complaints_;
}

void Watcher::complain(const std::string &text)
{
    if (complaints_.size() < MOST_COMPLAINTS &&
        std::find(complaints_.begin(), complaints_.end(), text) == complaints_.end())
        complaints_.push_back(text);
}

void Watcher::watch()
{
    take_any_processor();
    while (!ending_) {
        look_at_words();
        look_at_order();
        scans_.fetch_add(1, std::memory_order_relaxed);
    }
}

void Watcher::look_at_words()
{
    const auto *words = reinterpret_cast<const std::uint32_t *>(&*block_);
    for (std::size_t i = 0; i < seen_.size(); ++i) {
        const std::uint32_t word = shared_load(words[i]);
        if (word == seen_[i])
            continue;
        seen_[i] = word;
        if (scans_ != 0)
            changes_.fetch_add(1, std::memory_order_relaxed);
        if (const std::string text = legal_.complaint(i, word); !text.empty())
            complain(text);
    }
}

// What a reader finds that saw the bit first. The phase is the same before and after: nothing but what it
// names happened in between, however long this process was away from its processor.
void Watcher::look_at_order()
{
    const std::uint64_t before = phase_.load();
    const auto phase = static_cast<Phase>(before % KINDS);
    if (phase == Phase::Anything)
        return;
    if ((shared_load(block_->ups.upsstat) & UPSBIT_ACFAIL) == 0)
        return;
    judged_.fetch_add(1, std::memory_order_relaxed);
    const std::string text = contradiction(phase);
    if (!text.empty() && phase_.load() == before)
        complain(text);
}

std::string Watcher::contradiction(Phase phase) const
{
    const UPS_UPSINFO &ui = block_->ups.ui;
    const std::string when =
        phase == Phase::Finding ? "with the bits of a line just found: " : "with the bits up: ";
    if (const int comm = shared_load(ui.CommStatus); comm != COMM_ESTABLISHED)
        return when + "CommStatus " + std::to_string(comm);
    if (const int stat = shared_load(ui.upsstat); stat != announced_.upsstat)
        return when + "upsstat " + std::to_string(stat);
    if (const int volts = shared_load(ui.upsdata.InPutINT); volts != announced_.input)
        return when + "input voltage " + std::to_string(volts);
    // On a line that is up the model is read behind the bits.
    const UPS_UPSINFO copy = shared_copy(ui);
    if (const std::string model(copy.upsmodel.data(), strnlen(copy.upsmodel.data(), copy.upsmodel.size()));
        phase == Phase::Finding && model != announced_.model)
        return when + "model \"" + model + "\"";
    return "";
}

}  // namespace race

// Repeating times against a plain walk of the calendar: for thousands of random texts and starts in each
// zone, the answer is the first minute of the clock, one by one, that matches. The local times of nine months
// lie in a table, so that a walk is cheap; the zone's changes, the leap day and the ends of months are in it.
#include "ea/auto.h"
#include "tests/unit/auto_oracle.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

using auto_oracle::bounds;
using auto_oracle::Minute;

static constexpr int ROUNDS = 3000;
static constexpr std::size_t MINUTES = 290 * 1440;
static constexpr std::time_t FIRST = 1'832'976'000;  // 1 February 2028, 00:00 UTC

static std::mt19937 generator;

static int below(int bound)
{
    return static_cast<int>(generator() % static_cast<unsigned>(bound));
}

static std::string random_number(bounds within)
{
    return std::to_string(within.first + below(within.second - within.first + 1));
}

static std::string random_list(bounds within)
{
    std::string list = random_number(within);
    for (int items = below(4); items > 0; --items)
        list += (below(3) == 0 && list.back() != '-' && list.rfind('-') == std::string::npos ? "-" : ",") +
                random_number(within);
    return list;
}

// Mostly stars for days and months, so that most texts match within hours.
static std::string random_timetext()
{
    std::string timetext;
    const std::array<int, 5> stars = {5, 40, 85, 98, 80};  // percent
    for (std::size_t i = 0; i < stars.size(); ++i)
        timetext += (i == 0 ? "" : " ") +
                    (below(100) < stars[i] ? std::string("*") : random_list(auto_oracle::REPEATING[i]));
    return timetext;
}

class AutoWalk : public testing::TestWithParam<const char *>
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(setenv("TZ", GetParam(), 1), 0);
        tzset();
        generator.seed(4114);
        table.reserve(MINUTES);
        for (std::size_t i = 0; i < MINUTES; ++i)
            table.push_back(auto_oracle::minute_at(start_of(i)));
        for (std::size_t i = 1; i < MINUTES; ++i)
            if (table[i].minute != (table[i - 1].minute + 1) % 60 || table[i].hour > table[i - 1].hour + 1 ||
                (table[i].minute == 0 && table[i].hour == table[i - 1].hour) ||
                (table[i].hour == 0 && table[i].minute == 0 && table[i].day == 1))
                turns.push_back(i);
        ASSERT_GE(turns.size(), 9U);
    }

    static std::time_t start_of(std::size_t minute)
    {
        return FIRST + static_cast<std::time_t>(minute) * 60;
    }

    // Anywhere, or in the two days before the first of a month or a change of the zone.
    std::size_t random_start()
    {
        if (below(2) == 0)
            return generator() % MINUTES;
        const std::size_t turn = turns[generator() % turns.size()];
        return turn - std::min<std::size_t>(turn, generator() % 2880);
    }

    // The first minute at or after `start` that matches. Tests here run unoptimised, hence the bare pointers
    // for the glance that sends most minutes away.
    std::size_t walk(const std::vector<auto_oracle::Field> &fields, std::size_t start) const
    {
        const bool *minutes = fields[0].listed.data();
        const bool *hours = fields[1].listed.data();
        const Minute *at = table.data() + start;
        const Minute *end = table.data() + MINUTES;
        while (at < end && !(minutes[at->minute] && hours[at->hour] && auto_oracle::matches(fields, *at)))
            ++at;
        return static_cast<std::size_t>(at - table.data());
    }

    void check(const std::string &timetext, std::size_t start)
    {
        const auto fields = auto_oracle::fields(timetext, auto_oracle::REPEATING);
        ASSERT_TRUE(fields) << timetext;
        clock_now = start_of(start) + below(60);
        const std::time_t found = autod(timetext.c_str());
        const std::size_t walked = walk(*fields, start);
        const bool beyond = walked == MINUTES && (found == 0 || found >= start_of(MINUTES));
        EXPECT_TRUE(beyond || found == start_of(walked))
            << timetext << " from " << clock_now << ": " << found << ", not " << start_of(walked);
    }

    std::vector<Minute> table;
    std::vector<std::size_t> turns;  // minutes that begin a month or follow a change of the offset
};

TEST_P(AutoWalk, TheFirstMatchingMinuteIsFound)
{
    for (int i = 0; i < ROUNDS && !HasFailure(); ++i)
        check(random_timetext(), random_start());
}

INSTANTIATE_TEST_SUITE_P(Zones, AutoWalk,
                         testing::Values("UTC0", "JST-9", "CET-1CEST,M3.5.0,M10.5.0/3",
                                         "EST5EDT,M3.2.0,M11.1.0", "LHST-10:30LHDT-11,M10.1.0,M4.1.0",
                                         "NST3:30NDT,M4.1.0/0:01,M10.5.0/0:01",  // changes in the first hour
                                         "AAA11BBB-13,M3.2.5,M10.3.2/4"),        // skips and repeats a day
                         [](const auto &instance) { return "Zone" + std::to_string(instance.index); });

// Breaks a good text in one place; the second opinion says whether it is still good.
static std::string damaged(std::string timetext)
{
    static const std::string bytes = "0123456789,-* \tx\n/";
    const std::size_t at = generator() % timetext.size();
    const char byte = bytes[generator() % bytes.size()];
    switch (below(3)) {
    case 0:
        timetext[at] = byte;
        break;
    case 1:
        timetext.insert(at, 1, byte);
        break;
    default:
        timetext.erase(at, 1);
    }
    return timetext;
}

TEST(AutoText, DamagedTextsAreTakenExactlyWhenTheyAreStillWellFormed)
{
    ASSERT_EQ(setenv("TZ", "UTC0", 1), 0);
    generator.seed(4112);
    clock_now = FIRST;
    int good = 0;
    for (int i = 0; i < ROUNDS; ++i) {
        std::string timetext = damaged(random_timetext());
        while (below(2) == 0)
            timetext = damaged(timetext);
        const bool wellformed = auto_oracle::fields(timetext, auto_oracle::REPEATING).has_value();
        const char *text = timetext.c_str();
        bool taken = true;
        for (std::size_t field = 0; field < 5 && taken; ++field)
            taken = next_field(&text, auto_oracle::REPEATING[field].first,
                               auto_oracle::REPEATING[field].second, field == 4) != nullptr;
        EXPECT_EQ(taken, wellformed) << timetext;
        EXPECT_TRUE(wellformed || autod(timetext.c_str()) == 0) << timetext;
        good += wellformed ? 1 : 0;
    }
    EXPECT_GT(good, ROUNDS / 10);
    EXPECT_LT(good, ROUNDS - ROUNDS / 10);
}

TEST(AutoText, SpecialDatesAreTheTimesThatWereWrittenDown)
{
    ASSERT_EQ(setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1), 0);
    tzset();
    generator.seed(4113);
    clock_now = FIRST;
    for (int i = 0; i < ROUNDS; ++i) {
        const std::time_t when = FIRST - 86'400'000 + static_cast<std::time_t>(generator() % 4'000'000) * 60;
        std::tm local{};
        localtime_r(&when, &local);
        const std::string timetext = std::to_string(local.tm_min) + " " + std::to_string(local.tm_hour) +
                                     " " + std::to_string(local.tm_mday) + " " +
                                     std::to_string(local.tm_mon) + " * " + std::to_string(local.tm_year);
        const bool maybetwice = local.tm_hour == 2;
        const std::time_t found = specialdayautod(timetext.c_str());
        EXPECT_TRUE(maybetwice || found == (when > clock_now ? when : 0)) << timetext << ": " << found;
    }
}

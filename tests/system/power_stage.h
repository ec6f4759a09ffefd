// What the tests of mains failures, of the grace and of the families of units ask of their stage.
#pragma once

#include "vt_stage.h"

#include <cmath>

namespace bed
{

inline constexpr char DOWN[] = "/sbin/shutdown -h -t0 0";

/// The events behind those of the start and of the first link.
inline std::vector<int> events_since_link(const Stage &stage)
{
    std::vector<int> all = ids(stage.events());
    all.erase(all.begin(), all.begin() + 2);
    return all;
}

/// The whole seconds that lie between a moment and each of these.
inline std::vector<int> seconds_after(std::int64_t begin, const std::vector<Said> &all)
{
    std::vector<int> found;
    for (const Said &said : all)
        found.push_back(static_cast<int>(std::floor(said.at)) - static_cast<int>(begin));
    return found;
}

/// Orders to the unit to switch off. No other command has a capital S.
inline std::vector<Said> switch_offs(const Stage &stage)
{
    return containing(stage.orders(), "S");
}

/// When mains failed first, as the log tells it.
inline std::int64_t failed_at(const Stage &stage)
{
    return stage.times_of(65).at(0);
}

/// The event that the log gives as the cause of "System is shutdown"; -1 without one.
inline int cause_of_the_shutdown(const Stage &stage)
{
    for (const LoggedEvent &event : stage.events())
        if (event.id == 22)
            return event.cause;
    return -1;
}

inline void expect_up(const Stage &stage)
{
    EXPECT_THAT(stage.shutdowns(), testing::IsEmpty());
    EXPECT_THAT(switch_offs(stage), testing::IsEmpty());
    EXPECT_TRUE(stage.daemon.running());
}

inline void run_until_event(Stage &stage, int id, std::size_t times, testbed::VirtualClock::Duration limit)
{
    stage.run_until(
        "event " + std::to_string(id), [&] { return stage.times_of(id).size() >= times; }, limit);
}

/// Settings of an agent of this role that heeds the others.
inline Settings heeding(int agenttype = 4, const Settings &more = {})
{
    Settings settings = {{"UPS", "AgentType", std::to_string(agenttype)},
                         {"UPS", "IgnoreOtherAgentDown", "0"}};
    settings.insert(settings.end(), more.begin(), more.end());
    return settings;
}

}  // namespace bed

// The soak. As a test one day; weeks when VOLTARIA_SOAK_DAYS asks for them, with the seed in
// VOLTARIA_SOAK_SEED and the whole story left in the file that VOLTARIA_SOAK_STORY names.
#include "soak.h"

#include <cstdlib>
#include <fstream>
#include <iostream>

namespace
{

int number_from(const char *name, int otherwise)
{
    const char *text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::atoi(text) : otherwise;
}

void show(const soak::Figures &figures)
{
    std::cout << "soak: " << figures.days << " days, " << figures.tally.events << " events, "
              << figures.tally.notices << " notices, " << figures.tally.walls << " walls, "
              << figures.tally.duties << " duties met, " << figures.deeds << " deeds, " << figures.starts
              << " starts, " << figures.shutdowns << " shutdowns, " << figures.kills << " kills, "
              << figures.monitors << " monitors, " << figures.answers << " answers\n"
              << "soak: agent process " << figures.agent_first.rss << " kB at first, "
              << figures.agent_worst.rss << " at most (data " << figures.agent_first.data << ", "
              << figures.agent_worst.data << "), " << figures.agent_worst.descriptors
              << " descriptors; UPS process " << figures.ups_first.rss << ", " << figures.ups_worst.rss
              << " kB (data " << figures.ups_first.data << ", " << figures.ups_worst.data << "), "
              << figures.ups_worst.descriptors << " descriptors\n"
              << "soak: event log at most " << figures.event_log << " B, data log " << figures.data_log
              << " B, settings " << figures.settings_first << " B at first, " << figures.settings
              << " at the end\nsoak: events";
    for (std::size_t id = 0; id < figures.tally.of_event.size(); ++id)
        if (figures.tally.of_event[id] != 0)
            std::cout << ' ' << id << ':' << figures.tally.of_event[id];
    std::cout << std::endl;
}

TEST(Soak, EveryTransitionOfAnUnquietLifeIsExplained)
{
    soak::Options options;
    options.seed = static_cast<unsigned>(number_from("VOLTARIA_SOAK_SEED", 1));
    options.days = number_from("VOLTARIA_SOAK_DAYS", 1);
    std::ofstream story;
    if (const char *path = std::getenv("VOLTARIA_SOAK_STORY")) {
        story.open(path);
        options.story = &story;
    }
    if (std::getenv("VOLTARIA_SOAK_DAYS") != nullptr)
        options.progress = &std::cout;
    std::cout << "soak: seed " << options.seed << ", " << options.days << " days" << std::endl;
    soak::Life life(options);
    life.live();
    show(life.figures());
    for (const std::string &fault : life.faults())
        ADD_FAILURE() << "seed " << options.seed << ": " << fault << "\n" << life.last_words();
}

}  // namespace

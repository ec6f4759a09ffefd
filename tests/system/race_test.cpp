// Status passes and changes of settings with both processes at full speed, and a third that reads the shared
// block all the time: it never finds a value that neither side wrote. VOLTARIA_RACE=N makes it N passes and N
// changes in place of what every check has time for.
#include "race_stage.h"

#include <cstdlib>

using namespace race;

namespace
{

constexpr int CHANGES_A_ROUND = 40;

// Sanitized programs are slow, and no likelier to be caught.
long wanted(long usual)
{
    if (const char *text = std::getenv("VOLTARIA_RACE"))
        return std::atol(text);
    return VOLTARIA_SANITIZED && std::getenv("VOLTARIA_PROGRAMS") == nullptr ? usual / 5 : usual;
}

void race_on(Pace pace, long count)
{
    Stage stage(pace);
    const LegalBlock legal = stage.legal();
    Watcher watcher(legal, Stage::announced());
    long failures = 0;
    long findings = 0;
    for (int round = 0; stage.passes() < count || stage.changes() < count; ++round) {
        if (stage.changes() < count)
            stage.change_settings(CHANGES_A_ROUND);
        stage.say_something_else();
        stage.mains_failure(watcher);
        ++failures;
        if (round % 3 == 2) {
            stage.find_failing_unit(watcher);
            ++findings;
        }
        ASSERT_NE(stage.daemon.agent_pid(), 0) << testbed::read_console();
    }
    EXPECT_THAT(watcher.stop(), testing::IsEmpty());
    EXPECT_GT(watcher.changes(), static_cast<std::uint64_t>(count));
    EXPECT_GT(watcher.judged(), 0U);
    std::printf("%ld passes, %ld changes, %ld mains failures, %ld findings; block read %lu times, %lu words "
                "changed, %lu times judged with the bits up\n",
                stage.passes(), stage.changes(), failures, findings,
                static_cast<unsigned long>(watcher.scans()), static_cast<unsigned long>(watcher.changes()),
                static_cast<unsigned long>(watcher.judged()));
}

}  // namespace

TEST(Race, BothProcessesAtFullSpeedLeaveNoValueThatNeitherWrote)
{
    race_on(Pace::Racing, wanted(800));
}

TEST(Race, TheSteppedClockLeavesNoValueThatNeitherWrote)
{
    race_on(Pace::Stepped, wanted(200));
}

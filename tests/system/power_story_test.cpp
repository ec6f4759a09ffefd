// Long stories of failures, tests and trouble on the line, drawn by a seed, in virtual time. Whatever
// happens, the machine goes down for mains after exactly the time on battery that was set, with the link
// there all the time and mains never back, and for nothing else; and when mains stays away, it does go down.
#include "power_stage.h"

#include <array>
#include <random>
#include <sstream>

using namespace bed;

namespace
{

constexpr int MOVES = 60;
constexpr int LONGEST_PAUSE = 30;  // s between two moves
constexpr int ON_BATTERY = 61;     // s from the failure to the deadline's event
constexpr int LOOSE = 2;           // s between what happens and what a look once a second sees
constexpr int FINDING = 45;        // s until a line that is whole again has become a link

constexpr std::array<const char *, 6> MODELS = {"ZR401", "ZR6020", "ZR900PL", "ZR950PL", "ZM300LT", "ZQ500"};

// What troubles a unit without bringing the machine down.
constexpr std::array<const char *, 12> CONDITIONS = {
    "fault on",         "fault off",        "load 130",        "load 30",
    "bypass on",        "bypass off",       "battery weak on", "battery weak off",
    "test result weak", "test result fail", "standby on",      "standby off"};

class Story : public testing::TestWithParam<unsigned>
{
  protected:
    unsigned below(unsigned limit)
    {
        return static_cast<unsigned>(random() % limit);
    }

    void tell(const std::string &what)
    {
        story << stage.now() << " " << what << "\n";
    }

    void to_unit(const std::string &command)
    {
        tell(command);
        stage.unit(command);
    }

    void move();
    void look();
    void pass(unsigned seconds);

    std::mt19937 random{GetParam()};
    Stage stage{{.model = MODELS[below(MODELS.size())]}};
    std::ostringstream story;
    std::size_t seen = 0;  // events looked at
    double counting = -1;  // since the failure in force was told
    double failing = -1;   // mains away and the line whole since
    bool mains = true;
    bool line = true;
};

void Story::move()
{
    switch (below(8)) {
    case 0:
    case 1:
        mains = !mains;
        to_unit(mains ? "mains return" : "mains fail");
        break;
    case 2:
        line = !line;
        to_unit(line ? "line restore" : "line cut");
        break;
    case 3:
        tell("self-test");
        stage.monitor_sends(packet(20, std::string("\x0A\0\0\0", 4)));
        break;
    case 4:
        tell("self-test, long or cancelled");
        stage.monitor_sends(packet(below(2) == 0 ? 21 : 22));
        break;
    case 5:
        tell("wall clock");
        stage.clock.shift_wall(std::chrono::hours(below(11)) - 5h);
        break;
    case 6:
        to_unit(CONDITIONS[below(CONDITIONS.size())]);
        break;
    default:
        to_unit(below(2) == 0 ? "silence on" : "wrong checks on");
        pass(1 + below(15));
        to_unit("silence off");
        to_unit("wrong checks off");
        failing = -1;
    }
}

void Story::look()
{
    const std::vector<LoggedEvent> all = stage.events();
    for (; seen < all.size(); ++seen) {
        const int id = all[seen].id;
        tell("event " + std::to_string(id));
        if (id == 65)
            counting = stage.now();
        if (id == 0 || id == 64)
            counting = -1;
        if (id == 129) {
            EXPECT_GE(counting, 0) << "no failure was in force\n" << story.str();
            EXPECT_NEAR(stage.now() - counting, ON_BATTERY, LOOSE) << story.str();
        }
    }
}

void Story::pass(unsigned seconds)
{
    for (; seconds > 0 && stage.shutdowns().empty(); --seconds) {
        stage.run(1s);
        look();
    }
}

TEST_P(Story, GoesDownForMainsThatFailedForItsTimeAndForNothingElse)
{
    stage.link_up();
    stage.unit("rate 0.05");  // the battery lasts
    stage.unit("test duration " + std::to_string(5 + below(40)));
    for (int i = 0; i < MOVES && stage.shutdowns().empty() && !HasFailure(); ++i) {
        move();
        if (mains || !line)
            failing = -1;
        else if (failing < 0)
            failing = stage.now();
        pass(1 + below(LONGEST_PAUSE));
        if (failing >= 0 && stage.now() - failing > FINDING + ON_BATTERY + LOOSE) {
            EXPECT_EQ(stage.shutdowns().size(), 1u) << "still up\n" << story.str();
        }
    }
    if (!stage.shutdowns().empty()) {
        EXPECT_EQ(cause_of_the_shutdown(stage), 129) << story.str();
        EXPECT_EQ(stage.shutdowns().size(), 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(Seed, Story, testing::Range(1u, 13u));

}  // namespace

// The stage of the fault matrix: how each phase comes about, what is played in a cell, and what is asked of
// it.
#include "faults_stage.h"

#include "faults_answer.h"
#include "power_stage.h"

#include "wire_records.h"

#include <algorithm>

namespace faults
{

using namespace std::chrono_literals;
using Duration = testbed::VirtualClock::Duration;

// ---- the deadlines, in seconds

static constexpr int LIFE = 60;         // on battery until the machine goes down: EXPECTBLIFE
static constexpr int GRACE = 60;        // that an agent of type 5 gives the others
static constexpr double NOTICED = 3;    // a question to the unit a second, of which one may be lost
static constexpr double ORDERED = 2;    // the unit's order, and what is announced
static constexpr double SEARCHED = 30;  // all ports, and the first questions to the unit

static Duration seconds_of(double time)
{
    return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(time));
}

// ---- phases

static void set(bed::Settings &settings, const bed::Setting &setting)
{
    const auto same_key = [&](const bed::Setting &one) {
        return one.section == setting.section && one.key == setting.key;
    };
    const auto same_section = [&](const bed::Setting &one) { return one.section == setting.section; };
    const auto old = std::find_if(settings.begin(), settings.end(), same_key);
    if (old != settings.end()) {
        old->value = setting.value;
        return;
    }
    const auto last = std::find_if(settings.rbegin(), settings.rend(), same_section);
    settings.insert(last == settings.rend() ? settings.end() : last.base(), setting);
}

static bed::Settings settings_of(Phase phase, const bed::Settings &more)
{
    bed::Settings settings = bed::heeding(4, {{"ShutDown", "EXPECTBLIFE", std::to_string(LIFE)},
                                              {"ShutDown", "FIRSTWARN", "30"},
                                              {"ShutDown", "INTERVAL", "30"}});
    for (const bed::Setting &setting : more)
        set(settings, setting);
    if (phase == Phase::LONG_ANSWER)
        set(settings, {"DataLog", "DataLogEnabled", "0"});  // it would cut the log to size
    if (phase == Phase::IN_GRACE) {
        set(settings, {"UPS", "AgentType", "5"});
        set(settings, {"UPS", "IgnoreOtherAgentDown", "0"});
    }
    return settings;
}

Scene::Scene(Phase phase_now, const bed::Settings &more)
    : phase(phase_now),
      owned_(std::make_unique<bed::Stage>(bed::StageOptions{.settings = settings_of(phase_now, more)})),
      stage(*owned_)
{
}

Scene::~Scene()
{
    for (; !cleanups.empty(); cleanups.pop_back())
        cleanups.back()();
    kept.clear();
}

static int link_state()
{
    const testbed::SharedBlock block;
    return shared_load(block->ups.ui.CommStatus);
}

static bool has_failed(Phase phase)
{
    return phase == Phase::ON_BATTERY || phase == Phase::IN_GRACE;
}

static void fail_mains(Scene &scene)
{
    scene.stage.unit("mains fail");
    bed::run_until_event(scene.stage, 65, 1, seconds_of(NOTICED));
    scene.stage.run(15s);
}

static void reach_grace(Scene &scene)
{
    fail_mains(scene);
    bed::run_until_event(scene.stage, 129, 1, seconds_of(LIFE));
    scene.grace_ends = scene.stage.now() + GRACE;
    scene.stage.run(10s);
}

static void begin_self_test(Scene &scene)
{
    scene.stage.unit("test duration 1h");
    scene.stage.monitor_sends(bed::packet(DATAID_SELFTEST, std::string("\x0a\0\0\0", 4)));
    scene.stage.run_until(
        "self-test", [&] { return (scene.stage.bits() & UPSBIT_TESTING) != 0; }, 10s);
    scene.stage.run(2s);
}

static void bring_about(Scene &scene)
{
    bed::Stage &stage = scene.stage;
    stage.unit("rate 0");  // the battery lasts
    if (scene.phase == Phase::SEARCHING) {
        stage.unit("silence on");
        stage.run(15s);
        ASSERT_EQ(link_state(), COMM_LOST);
        return;
    }
    stage.link_up();
    if (scene.phase == Phase::ON_BATTERY)
        fail_mains(scene);
    if (scene.phase == Phase::IN_GRACE)
        reach_grace(scene);
    if (scene.phase == Phase::SELF_TEST)
        begin_self_test(scene);
    if (scene.phase == Phase::LONG_ANSWER)
        ask_for_a_long_answer(scene);
}

// ---- what is played in all cells

// Only a phase of searching needs it: everywhere else the unit answers, unless the fault is that it cannot.
static void let_the_unit_answer(Scene &scene)
{
    if (scene.phase == Phase::SEARCHING)
        scene.stage.unit("silence off");
}

static void find_the_unit(Scene &scene, double more)
{
    scene.stage.run_until(
        "link", [] { return link_state() == COMM_ESTABLISHED; }, seconds_of(SEARCHED + more));
    scene.stage.run(2400ms);  // the agent looks once a second, and shows what it saw with the next look
}

static bool contains_in_order(const std::vector<int> &all, const std::vector<int> &wanted)
{
    auto next = wanted.begin();
    for (const int id : all)
        if (next != wanted.end() && id == *next)
            ++next;
    return next == wanted.end();
}

static void expect_logged(const Scene &scene, const std::vector<int> &wanted)
{
    const std::vector<int> all = bed::ids(scene.stage.events());
    EXPECT_TRUE(contains_in_order(all, wanted))
        << "logged " << testing::PrintToString(all) << ", not " << testing::PrintToString(wanted);
}

// The machine goes down by then: the unit is told, and /sbin/shutdown called, once each. Gives the moment.
static double expect_down(Scene &scene, double deadline)
{
    bed::Stage &stage = scene.stage;
    const double limit = deadline + NOTICED + ORDERED;
    const bool goes = stage.goes_down(seconds_of(std::max(limit - stage.now(), 0.0) + 120));
    const double down = stage.now();
    EXPECT_TRUE(goes) << "it stays up; events " << testing::PrintToString(bed::ids(stage.events()));
    EXPECT_LE(down, limit) << "down " << down - deadline << " s after the deadline";
    if (bed::switch_offs(stage).empty())
        stage.run(1s);  // an order needs its time on the line
    EXPECT_THAT(bed::texts(stage.shutdowns()), testing::ElementsAre(bed::DOWN));
    EXPECT_THAT(bed::texts(bed::switch_offs(stage)), testing::ElementsAre("S10\\r"));
    return down;
}

// What the agent has in hand is carried out at this time, and not before.
static double deadline_of(const Scene &scene)
{
    return std::max(scene.stage.now(), scene.grace_ends);
}

// Mains failure if there is none yet, then battery low, and the end.
static void protects(const ROW &row, Scene &scene, bool failed, bool grace)
{
    if (!failed)
        scene.stage.unit("mains fail");
    scene.stage.run(10s);
    ASSERT_THAT(scene.stage.shutdowns(), testing::IsEmpty());
    scene.stage.unit("battery low on");
    const double begun = scene.stage.now();
    const double deadline = grace ? begun + GRACE : deadline_of(scene);
    const double down = expect_down(scene, deadline + row.cost);
    if (deadline > begun) {
        EXPECT_GE(down, deadline - 1) << "the others were not given their time";
    }
}

// ---- the outcomes

static void play_protects(const ROW &row, Scene &scene)
{
    row.fault.begin(scene);
    let_the_unit_answer(scene);
    find_the_unit(scene, row.cost);
    const std::size_t taken = bytes_of_the_answer(scene);
    protects(row, scene, has_failed(scene.phase), false);
    if (scene.phase == Phase::LONG_ANSWER) {
        EXPECT_GT(bytes_of_the_answer(scene), taken) << "the answer did not go on";
    }
    row.fault.end(scene);
}

static void play_logged(const ROW &row, Scene &scene)
{
    play_protects(row, scene);
    if (scene.phase == Phase::IN_GRACE)
        expect_logged(scene, {1, 65, 129, 128, 22, 8});
    else
        expect_logged(scene, {1, 65, 128, 22, 8});
}

static void play_no_log(const ROW &row, Scene &scene)
{
    play_protects(row, scene);
    EXPECT_THAT(scene.stage.times_of(22), testing::IsEmpty());
}

static void play_at_once(const ROW &row, Scene &scene)
{
    const double begun = scene.stage.now();
    row.fault.begin(scene);
    expect_down(scene, begun + row.cost);
    expect_logged(scene, {1, 65, 129, 22, 8});
    row.fault.end(scene);
}

static void expect_lost(const Scene &scene)
{
    bed::expect_up(scene.stage);
    const UPS_UPSINFO told = bed::status();
    EXPECT_EQ(told.CommStatus, COMM_LOST);
    EXPECT_EQ(told.ShutdownS, 0);
    EXPECT_EQ(told.nextdown.month, 0);
    EXPECT_EQ(scene.stage.times_of(64).size(), scene.phase == Phase::SEARCHING ? 0U : 1U);
}

static void lose_and_find(const ROW &row, Scene &scene)
{
    row.fault.begin(scene);
    scene.stage.run_until(
        "loss", [] { return link_state() == COMM_LOST; }, 60s);
    scene.stage.run(seconds_of(has_failed(scene.phase) ? LIFE + GRACE + 10 : 30));  // longer than what ran
    expect_lost(scene);
    const std::size_t found = scene.stage.times_of(1).size();
    row.fault.end(scene);
    let_the_unit_answer(scene);
    find_the_unit(scene, row.cost);
    EXPECT_EQ(scene.stage.times_of(1).size(), found + 1);
}

static void play_loses(const ROW &row, Scene &scene)
{
    lose_and_find(row, scene);
    bed::expect_up(scene.stage);
    protects(row, scene, false, false);
    expect_logged(scene, {1, 65, 128, 22, 8});
}

static void play_anew(const ROW &row, Scene &scene)
{
    lose_and_find(row, scene);
    const bool graced = scene.phase == Phase::IN_GRACE;
    scene.grace_ends = 0;
    const std::vector<std::int64_t> failed = scene.stage.times_of(65);
    ASSERT_EQ(failed.size(), 2U);
    EXPECT_EQ(scene.stage.nextdown(), failed.at(1) + LIFE + (graced ? GRACE : 0));
    protects(row, scene, true, graced);
    expect_logged(scene, {1, 65, 64, 1, 65, 128, 22, 8});
}

static void play_catches(const ROW &row, Scene &scene)
{
    row.fault.begin(scene);
    let_the_unit_answer(scene);
    if (!has_failed(scene.phase))
        scene.stage.unit("mains fail");
    scene.stage.run(10s);
    scene.stage.unit("battery low on");
    scene.stage.run(10s);
    EXPECT_THAT(scene.stage.shutdowns(), testing::IsEmpty());
    row.fault.end(scene);
    expect_down(scene, deadline_of(scene) + (scene.phase == Phase::SEARCHING ? SEARCHED : 0));
    expect_logged(scene, {1, 65, 128, 22, 8});
}

// Announcements that this agent goes.
static int farewells(const testbed::UdpSocket &monitor)
{
    int count = 0;
    while (const auto heard = monitor.receive(testbed::milliseconds(0)))
        if (static_cast<std::uint8_t>(heard->bytes.at(3)) == DATAID_ANSAGENT &&
            bed::word_at(heard->bytes, PACKET_HEAD_SIZE) == 1)
            ++count;
    return count;
}

static void restart(const ROW &row, Scene &scene, bool logged)
{
    const testbed::UdpSocket monitor(testbed::MONITOR_UDP_PORT);
    row.fault.begin(scene);
    scene.stage.run_until(
        "end of the agent", [&] { return !scene.stage.daemon.running(); }, seconds_of(NOTICED));
    EXPECT_EQ(farewells(monitor), 3);
    EXPECT_EQ(scene.stage.times_of(8).size(), logged ? 1U : 0U);
    EXPECT_FALSE(testbed::SharedBlock::exists());
    EXPECT_THAT(scene.stage.shutdowns(), testing::IsEmpty());
    scene.stage.daemon.start_by_init();
    row.fault.end(scene);
    let_the_unit_answer(scene);
    find_the_unit(scene, row.cost);
    scene.grace_ends = 0;
    protects(row, scene, has_failed(scene.phase), scene.phase == Phase::IN_GRACE);
    expect_logged(scene, {7, 7, 1, 65, 128, 22, 8});
}

static void play_restarts(const ROW &row, Scene &scene)
{
    restart(row, scene, true);
}

static void play_quietly(const ROW &row, Scene &scene)
{
    restart(row, scene, false);
}

static void play_untold(const ROW &row, Scene &scene)
{
    const double failed = static_cast<double>(bed::failed_at(scene.stage));
    row.fault.begin(scene);
    const double limit = std::max(failed + LIFE, scene.grace_ends) + row.cost + NOTICED + ORDERED;
    ASSERT_TRUE(scene.stage.goes_down(seconds_of(limit - scene.stage.now())));
    EXPECT_THAT(bed::texts(scene.stage.shutdowns()), testing::ElementsAre(bed::DOWN));
    EXPECT_THAT(bed::switch_offs(scene.stage), testing::IsEmpty());
    expect_logged(scene, {1, 65, 129, 22, 8});
    row.fault.end(scene);
}

struct PLAY {
    Outcome outcome;
    void (*play)(const ROW &, Scene &);
};

static constexpr std::array PLAYS = {
    PLAY{Outcome::PROTECTS, play_logged}, PLAY{Outcome::NO_LOG, play_no_log},
    PLAY{Outcome::AT_ONCE, play_at_once}, PLAY{Outcome::FINDS, play_loses},
    PLAY{Outcome::LOSES, play_loses},     PLAY{Outcome::ANEW, play_anew},
    PLAY{Outcome::CATCHES, play_catches}, PLAY{Outcome::RESTARTS, play_restarts},
    PLAY{Outcome::QUIETLY, play_quietly}, PLAY{Outcome::UNTOLD, play_untold},
};

static_assert(PLAYS.size() == static_cast<std::size_t>(Outcome::NOT));

void play(const ROW &row, Phase phase)
{
    Scene scene(phase, row.fault.settings != nullptr ? row.fault.settings() : bed::Settings{});
    bring_about(scene);
    if (testing::Test::HasFatalFailure())
        return;
    const Outcome outcome = row.cells.at(static_cast<std::size_t>(phase)).outcome;
    for (const PLAY &one : PLAYS)
        if (one.outcome == outcome)
            one.play(row, scene);
}

}  // namespace faults

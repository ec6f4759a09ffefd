// An hour in the life of the daemon, in virtual time: mains failures that return, monitors that come and go
// in every way, changes of settings, self-tests ordered and scheduled, the data log, a line that is lost and
// found. At its end both processes hold the descriptors that they held at its beginning.
// VOLTARIA_LIFE_HOURS=N makes it N hours. With a runner (testbed.h) around the daemon this is also what is
// looked at for memory.
#include "vt_stage.h"

#include "tests/system/mixed_requests.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <random>

using namespace bed;

namespace
{

const Settings SETTINGS = {{"ShutDown", "EXPECTBLIFE", "600"},
                           {"EventLog", "EventLogEnabled", "1"},
                           {"EventLog", "EventLogMaxSize", "100"},
                           {"DataLog", "DataLogEnabled", "1"},
                           {"DataLog", "DataLogInterval", "30"},
                           {"DataLog", "DataLogMaxSize", "100"},
                           {"UPS", "AgentType", "4"},
                           {"ScheTest", "WEEKLYNO", "1"},
                           {"ScheTest", "WEEKLYSTART1", "30 22 * * 2"},
                           {"ScheTest", "WEEKLYEND1", "40 22 * * 2"}};

int hours()
{
    const char *text = std::getenv("VOLTARIA_LIFE_HOURS");
    return text != nullptr ? std::atoi(text) : 1;
}

std::string battery_date(int day)
{
    BATTCHGTIME date{};
    date.BattTime = {.year = 120,
                     .month = 5,
                     .day = static_cast<std::int8_t>(day),
                     .hour = 0,
                     .minute = 0,
                     .second = 0,
                     .wReserver = 0};
    return packet(DATAID_SETBATTIME, {reinterpret_cast<const char *>(&date), sizeof date});
}

std::string number(std::uint8_t dataid, int value)
{
    const std::int32_t word = value;
    return packet(dataid, {reinterpret_cast<const char *>(&word), sizeof word});
}

// What happens beside the monitors, at the minute of ten.
void happen(Stage &stage, const mixed::SETTINGS &settings, int minute)
{
    switch (minute % 10) {
    case 0:
        stage.unit("mains fail");
        stage.run(40s);
        stage.unit("mains return");
        break;
    case 1:
        stage.monitor_sends(settings.config);
        stage.monitor_sends(settings.schedules);
        break;
    case 2:
        stage.monitor_sends(number(DATAID_SELFTEST, 10));
        break;
    case 3:
        stage.monitor_sends(settings.events);
        break;
    case 4:
        stage.unit("port unplug");
        stage.run(15s);
        stage.unit("port plug");
        break;
    case 5:
        stage.monitor_sends(battery_date(1 + minute % 28));
        stage.monitor_sends(packet(DATAID_BUZZER_TEST));
        break;
    case 6:
        stage.monitor_sends(packet(minute % 20 == 6 ? DATAID_BUZZER_OFF : DATAID_BUZZER_ON));
        stage.monitor_sends(packet(minute % 20 == 6 ? DATAID_AUTOTEST_OFF : DATAID_AUTOTEST_ON));
        break;
    case 7:
        stage.order_down(60, "desk");
        stage.run(10s);
        stage.cancel_order("desk");
        break;
    case 8:
        testbed::SharedBlock::request(1);
        break;
    default:
        stage.unit("garbage stream 20 " + std::to_string(minute));
        stage.run(5s);
        stage.unit("garbage off");
        break;
    }
}

// One that asks and leaves in order, one that leaves in the middle of a packet, one that is torn away, one
// that never reads what it asked for, and datagrams.
void monitors_pass(std::mt19937 &random, const mixed::SETTINGS &settings)
{
    {
        const testbed::TcpClient polite;
        polite.send(mixed::batch(random, settings, 20));
        mixed::await_fence(polite);
    }
    const testbed::TcpClient hasty;
    hasty.send(packet(DATAID_GETUPSINFO).substr(0, 5));
    testbed::TcpClient torn;
    torn.send(mixed::batch(random, settings, 5));
    torn.reset();
    const testbed::TcpClient deaf;
    deaf.send(mixed::command(4) + mixed::command(1, 0, 50));
    const testbed::UdpSocket socket;
    socket.send("127.0.0.1", testbed::AGENT_UDP_PORT, packet(DATAID_INQAGENT, std::string(20, '\0')));
    socket.send("127.0.0.1", testbed::AGENT_UDP_PORT, std::string(3000, 'x'));
}

long descriptors(pid_t pid)
{
    return mixed::holdings_of(pid).descriptors;
}

struct Held {
    long agent = 0;
    long ups = 0;

    bool operator==(const Held &) const = default;
};

void PrintTo(const Held &held, std::ostream *out)
{
    *out << held.agent << " in the agent process, " << held.ups << " in the UPS process";
}

}  // namespace

TEST(Life, AnHourLeavesTheDescriptorsAsTheyWere)
{
    Stage stage({.settings = SETTINGS, .monitor = true});
    stage.link_up();
    std::mt19937 random(60);
    const mixed::SETTINGS settings = [] {
        const testbed::TcpClient client;
        return mixed::read_settings(client);
    }();
    stage.run(10s);
    const pid_t agent = stage.daemon.agent_pid();
    const pid_t ups = stage.daemon.ups_pid();
    const Held before = {descriptors(agent), descriptors(ups)};
    for (int minute = 0; minute < 60 * hours(); ++minute) {
        const double begun = stage.now();
        happen(stage, settings, minute);
        monitors_pass(random, settings);
        stage.run(std::chrono::duration_cast<testbed::VirtualClock::Duration>(
            std::chrono::duration<double>(60 - (stage.now() - begun))));
        const Held now = {descriptors(agent), descriptors(ups)};
        ASSERT_EQ(now, before) << "after minute " << minute;
    }
    ASSERT_EQ(stage.daemon.agent_pid(), agent);
    ASSERT_EQ(stage.daemon.ups_pid(), ups);
    EXPECT_EQ(stage.times_of(65).empty(), hours() == 0);
    EXPECT_EQ(stage.times_of(64).empty(), hours() == 0);
    EXPECT_THAT(stage.shutdowns(), testing::IsEmpty());
    std::printf("%d h: %ld descriptors in the agent process, %ld in the UPS process\n", hours(), before.agent,
                before.ups);
    stage.clock.stop(stage.daemon);
}

TEST(Life, EndsInAShutdownWhenMainsStaysAway)
{
    Settings settings = SETTINGS;
    settings[0].value = "60";
    Stage stage({.settings = settings, .monitor = true});
    stage.link_up();
    stage.unit("mains fail");
    ASSERT_TRUE(stage.goes_down(900s));
    // The UPS process, left alone, ends too.
    stage.run_until(
        "the end of the UPS process", [&] { return !stage.daemon.running(); }, 120s);
}

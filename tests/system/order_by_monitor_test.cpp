// A monitor's orders through the real daemon: to the unit, into the settings file, to the other monitors and
// into the event log.
#include "bed.h"

#include "shared_word.h"

#include <algorithm>
#include <filesystem>

using namespace bed;
using testbed::Daemon;
using testbed::Simulator;
using testbed::SimulatorOptions;
using testbed::TcpClient;

namespace
{

constexpr char CONFIG[] = "/usr/lib/voltaria/config";
constexpr char EVENTS[] = "/usr/lib/voltaria/events.log";

std::string field(std::string_view text, std::size_t width)
{
    std::string bytes(text);
    bytes.resize(width, '\0');
    return bytes;
}

std::string down_order(char delay, std::string_view name)
{
    return std::string({22, 0, delay, 0, 0, 0, 0, 0}) + field(name, 16) + field("", 16);
}

// One packet as it comes, header and data.
std::string next_packet(const TcpClient &client)
{
    const std::string head = client.receive(8, PATIENCE);
    return head + client.receive(word_at(head, 4) - 8, PATIENCE);
}

// The data of the next packet of this kind; messages to monitors may come before it.
std::string wait_for_packet(const TcpClient &client, int dataid)
{
    for (;;) {
        const std::string bytes = next_packet(client);
        if (static_cast<unsigned char>(bytes[3]) == dataid)
            return bytes.substr(8);
    }
}

void wait_for_message(const TcpClient &client, const std::string &part)
{
    while (wait_for_packet(client, 79).find(part) == std::string::npos)
        ;
}

void wait_for_setting(const std::string &line)
{
    testbed::wait_until(line, PATIENCE,
                        [&] { return testbed::read_file(CONFIG).find(line) != std::string::npos; });
}

void wait_for_wall(const std::string &text)
{
    testbed::wait_until("wall: " + text, PATIENCE, [&] {
        const auto calls = testbed::calls_of("wall");
        return std::any_of(calls.begin(), calls.end(),
                           [&](const testbed::Call &call) { return call.input == text; });
    });
}

// The lines of the event log that name this event.
int events_logged(int id)
{
    const std::string log = testbed::read_file(EVENTS);
    int count = 0;
    for (std::size_t line = 0; line + 44 <= log.size(); line += 44)
        count += std::stoi(log.substr(line + 20, 4)) == id ? 1 : 0;
    return count;
}

class OrderByMonitor : public testing::Test
{
  protected:
    void SetUp() override
    {
        testbed::write_config("[ UPS ]\n\n AgentType = 4\n");
        daemon.start();
        wait_for_word("the link to the unit", [](const UPS_UPSINFO &info) {
            return shared_load(info.CommStatus) == COMM_ESTABLISHED;
        });
    }

    // Monitors are sent messages between their answers, so the status is read where it lies.
    static void wait_for_word(const std::string &what, bool (*holds)(const UPS_UPSINFO &))
    {
        const testbed::SharedBlock block;
        testbed::wait_until(what, PATIENCE, [&] { return holds(block->ups.ui); });
    }

    Simulator unit{UPSSIM, SimulatorOptions{}};
    Daemon daemon{VOLTARIAD};
};

}  // namespace

TEST_F(OrderByMonitor, SwitchesAndTestsReachTheUnitAndTheFile)
{
    const TcpClient monitor;
    monitor.send(packet(29));
    unit.wait_for_log("rx Bf", PATIENCE);
    wait_for_setting("BuzzerCan = off\n");
    monitor.send(packet(28));
    unit.wait_for_log("rx Bn", PATIENCE);
    wait_for_setting("BuzzerCan = on\n");
    monitor.send(packet(31, std::string("\0\0\0\0\x68\x02\x1D\x01\x02\x03\0\0", 12)));  // 29 February 2004
    unit.wait_for_log("rx BRW20040229", PATIENCE);
    wait_for_setting("ChangeBattTime = 104,02,29,01,02,03\n");
    monitor.send(packet(30));
    EXPECT_EQ(wait_for_packet(monitor, 31).substr(4, 3), "\x68\x02\x1D");
    monitor.send(packet(20, std::string("\x0A\0\0\0", 4)));
    unit.wait_for_log("rx T\\r", PATIENCE);
}

TEST_F(OrderByMonitor, AHostileNameIsShownOnTerminalsAsItStandsAndRunsNothing)
{
    const TcpClient monitor;
    for (const std::string name : {"$(touch /pwned)", "`touch /pwned`", "; touch /pwned"}) {
        monitor.send(packet(18, down_order(120, name)));
        wait_for_wall("Receive shutdown Command From Users on " + name + "\n");
        monitor.send(packet(19, field(name, 16)));
    }
    EXPECT_FALSE(std::filesystem::exists("/pwned"));
}

TEST_F(OrderByMonitor, AShutdownIsAnnouncedAndTakenBack)
{
    const TcpClient monitor;
    const TcpClient other;
    other.send(packet(16));  // it is known once it is answered
    (void)wait_for_packet(other, 64);
    monitor.send(packet(18, down_order(120, "desk")));
    wait_for_message(other, "desk");
    wait_for_word("the order", [](const UPS_UPSINFO &info) { return shared_load(info.CommandDownS) == 1; });
    monitor.send(packet(19, field("table", 16)));
    wait_for_message(other, "table");
    wait_for_word("the cancel", [](const UPS_UPSINFO &info) { return shared_load(info.CommandDownS) == 0; });
    daemon.stop();
    EXPECT_EQ(events_logged(79), 1);
    EXPECT_EQ(events_logged(21), 1);
    EXPECT_EQ(events_logged(8), 1);  // the agent's stop, once
}

// What passes between the two processes besides the status record. Orders to a unit of the older family,
// which answers none of them: each must have left the port before the next command flushes it. The command
// words are put into the daemon's own pipe, faster than the agent process would send them. And the other way
// round, that a change of the status gets the agent process to look at once.
#include "bed.h"

#include "agent_daemon_channel.h"
#include "shared_word.h"

#include <cstring>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <thread>
#include <unistd.h>

using namespace bed;
using testbed::Daemon;
using testbed::Simulator;
using testbed::SimulatorOptions;

namespace
{

// The write end of the pipe by which the UPS process is commanded: of the two pipes that it reads from, the
// one made first.
int open_command_pipe(pid_t ups)
{
    const std::string process = "/proc/" + std::to_string(ups);
    for (int fd = 3; fd < 32; ++fd) {
        const std::string number = std::to_string(fd);
        const std::string info = testbed::read_file(process + "/fdinfo/" + number);
        const bool reads =
            info.find("flags:") != std::string::npos &&
            (std::stoi(info.substr(info.find("flags:") + 6), nullptr, 8) & O_ACCMODE) == O_RDONLY;
        if (reads && testbed::descriptor_target(ups, fd).starts_with("pipe:"))
            return open((process + "/fd/" + number).c_str(), O_WRONLY | O_CLOEXEC);
    }
    return -1;
}

SimulatorOptions old_unit()
{
    SimulatorOptions options;
    options.model = "ZR401";
    return options;
}

// Where the agent process puts the argument of the next command.
AUMSG &argument_of(void *block)
{
    return static_cast<AGINFO *>(block)->ba2u;
}

long lines_with(const Simulator &unit, const std::string &text)
{
    const std::string log = unit.log();
    long count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        ++count;
    return count;
}

// How often the process has gone to wait.
long waits(pid_t pid)
{
    const std::string text = testbed::read_file("/proc/" + std::to_string(pid) + "/status");
    const std::string key = "\nvoluntary_ctxt_switches:";
    return std::stol(text.substr(text.find(key) + key.size()));
}

class Orders : public testing::Test
{
  protected:
    Orders()
    {
        daemon.start();
        const testbed::SharedBlock shown;
        testbed::wait_until("the link to the unit", PATIENCE,
                            [&] { return shared_load(shown->ups.ui.CommStatus) == COMM_ESTABLISHED; });
        pipe = open_command_pipe(daemon.ups_pid());
        block = shmat(shmget(ftok(AGINFO_KEYFILE, AGINFO_PROJECT), 0, 0), nullptr, 0);
    }
    ~Orders() override
    {
        close(pipe);
        shmdt(block);
    }

    void set_down(std::int32_t delay, std::int32_t last) const
    {
        const UPSDOWNARG down{delay, last};
        std::memcpy(argument_of(block).buf.data(), &down, sizeof down);
        shared_store(argument_of(block).msglen, static_cast<std::int32_t>(sizeof down));
    }

    void send(std::uint32_t word) const
    {
        EXPECT_EQ(write(pipe, &word, sizeof word), static_cast<ssize_t>(sizeof word));
    }

    Simulator unit{UPSSIM, old_unit()};
    Daemon daemon{VOLTARIAD};
    int pipe = -1;
    void *block = nullptr;
};

}  // namespace

TEST_F(Orders, BackToBackAreAllHeard)
{
    set_down(600, -1);
    for (int i = 0; i < 150; ++i) {
        send(UPSCMD_SHUTDOWN);
        send(UPSCMD_CANCELDOWN);
    }
    send(UPSCMD_LEVEL_A);  // behind them all
    unit.wait_for_log("rx VA", PATIENCE);
    EXPECT_EQ(lines_with(unit, " rx S10\\r"), 150);
    EXPECT_EQ(lines_with(unit, " rx C\\r"), 150);

    // And the longest order at the speed of a real line.
    unit.command("pace on");
    set_down(600, 3600);
    for (int i = 0; i < 8; ++i)
        send(UPSCMD_SHUTDOWN);
    send(UPSCMD_LEVEL_B);
    unit.wait_for_log("rx VB", PATIENCE);
    EXPECT_EQ(lines_with(unit, " rx S10R0060\\r"), 8);
}

// The passes and the agent's own turns are a second apart each. A byte sent half a second after a pass brings
// the agent's turns between the passes, so that only the pass itself can wake it at the time of the next one.
TEST_F(Orders, AgentWakesWithTheStatusWord)
{
    const testbed::SharedBlock shown;
    const testbed::UdpSocket nudge;
    const pid_t pid = daemon.agent_pid();
    const auto change = [&](const char *mains) {
        const std::uint32_t before = shared_load(shown->ups.upsstat);
        long idle = 0;
        unit.command(mains);
        testbed::wait_until("another status word", PATIENCE, [&] {
            const long now = waits(pid);
            if (shared_load(shown->ups.upsstat) != before)
                return true;
            idle = now;
            return false;
        });
        return idle;
    };
    change("mains fail");
    for (const char *mains : {"mains return", "mains fail"}) {
        std::this_thread::sleep_for(500ms);
        nudge.send("127.0.0.1", testbed::AGENT_UDP_PORT, "?");
        const long idle = change(mains);
        EXPECT_TRUE(testbed::eventually(200ms, [&] { return waits(pid) > idle; })) << mains;
    }
}

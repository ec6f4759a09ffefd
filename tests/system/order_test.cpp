// Orders to a unit of the older family, which answers none of them: each must have left the port before the
// next command flushes it. The command words are put into the daemon's own pipe, faster than the agent
// process would send them. In stepped time the unit reads before time passes: on a loaded machine it might
// not be let to before the line time is over.
#include "vt_stage.h"

#include "agent_daemon_channel.h"
#include "shared_word.h"

#include <cstring>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

using namespace bed;
using namespace std::chrono_literals;

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

// Where the agent process puts the argument of the next command.
AUMSG &argument_of(void *block)
{
    return static_cast<AGINFO *>(block)->ba2u;
}

long lines_with(const std::string &log, const std::string &text)
{
    long count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        ++count;
    return count;
}

class Orders : public testing::Test
{
  protected:
    Orders()
    {
        stage.link_up();
        pipe = open_command_pipe(stage.daemon.ups_pid());
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

    // Until the unit has been sent this.
    void heard(const std::string &command)
    {
        stage.run_until(
            "the unit hears " + command,
            [&] { return stage.unit_log().find(" rx " + command) != std::string::npos; }, 5min);
    }

    Stage stage{{.model = "ZR401", .monitor = false}};
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
    heard("VA");
    EXPECT_EQ(lines_with(stage.unit_log(), " rx S10\\r"), 150);
    EXPECT_EQ(lines_with(stage.unit_log(), " rx C\\r"), 150);

    // And the longest order at the speed of a real line.
    stage.unit("pace on");
    set_down(600, 3600);
    for (int i = 0; i < 8; ++i)
        send(UPSCMD_SHUTDOWN);
    send(UPSCMD_LEVEL_B);
    heard("VB");
    EXPECT_EQ(lines_with(stage.unit_log(), " rx S10R0060\\r"), 8);
}

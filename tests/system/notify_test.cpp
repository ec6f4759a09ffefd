// What the real daemon does about an event, seen at its start: who is told and how, with names that a shell
// would run; commands that take long; what is left of the programs afterwards.
#include "bed.h"

#include <csignal>
#include <dirent.h>
#include <filesystem>
#include <unistd.h>

using namespace bed;
using testbed::Call;
using testbed::Daemon;

namespace
{

// "UPS Agent Start up" as a mail has it: in Japanese, in EUC-JP.
const std::string STARTED_UP = "UPS\xa5\xa8\xa1\xbc\xa5\xb8\xa5\xa7\xa5\xf3\xa5\xc8\xb5\xaf\xc6\xb0\n";

// The start-up event with these lines in its section.
std::string config(const std::string &event, int closeapptime = 300)
{
    return "[ UPS ]\n\n ComSet = 1\n\n[ ShutDown ]\n\n CloseAppTime = " + std::to_string(closeapptime) +
           "\n\n[ Event7 ]\n\n Record = Yes\n ShutDown = 0\n" + event +
           "\n[ UserInfo ]\n\n UserID = 1,2\n"
           "\n[ 1 ]\n\n Name = ann\n Email = $(touch /pwned)\n"
           "\n[ 2 ]\n\n Name = `touch /pwned`\n Email = ; touch /pwned\n";
}

std::vector<std::string> lines()
{
    std::vector<std::string> all;
    for (const Call &call : testbed::calls()) {
        std::string line = call.path;
        for (const std::string &argument : call.arguments)
            line += " " + argument;
        all.push_back(call.input.empty() ? line : line + " <" + call.input);
    }
    return all;
}

bool there(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

// Starts the daemon and waits until it serves: then the start-up event has been dealt with.
void start(Daemon &daemon)
{
    daemon.start();
    status();
}

// Children of the agent process that have ended and that nobody has reaped.
int zombies_of(pid_t parent)
{
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const auto info = testbed::process_info(std::stoi(name));
        count += info && info->parent == parent && info->state == 'Z';
    }
    return count;
}

}  // namespace

TEST(Notifications, TheChosenUsersAreToldAndNoNameIsRun)
{
    testbed::set_logged_in("ann pts/3 2026-11-21 18:27\n`touch pts/4\n");
    testbed::write_config(config(" BroadcastType = 2\n BroadcastUser = 3\n MailUser = 3\n"
                                 " Command = echo $((6*7)) > /tmp/answer\n"));
    Daemon daemon(VOLTARIAD);
    start(daemon);
    EXPECT_EQ(lines(), (std::vector<std::string>{"/usr/bin/mesg y", "/usr/bin/who",
                                                 "/usr/bin/write ann pts/3 <UPS Agent Start up\n",
                                                 "/bin/mail $(touch /pwned) <" + STARTED_UP, "/usr/bin/who",
                                                 "/bin/mail ; touch /pwned <" + STARTED_UP}));
    EXPECT_EQ(testbed::read_file("/tmp/answer"), "42\n");
    EXPECT_FALSE(there("/pwned"));
    EXPECT_FALSE(there("/tmp/PROG_NAME.list"));
}

TEST(Notifications, ProgramsAreGivenNoDescriptorOfTheDaemons)
{
    testbed::write_config(
        config(" BroadcastType = 3\n"
               " Command = exec > /tmp/open; for fd in /proc/$$/fd/*; do readlink $fd; done\n"));
    Daemon daemon(VOLTARIAD);
    start(daemon);
    EXPECT_EQ(testbed::read_file("/tmp/open"), "/dev/null\n/tmp/open\n/dev/null\n");
}

TEST(Notifications, ACommandThatTakesTooLongIsLeftAndReapedAfterItsEnd)
{
    testbed::write_config(config(" BroadcastType = 0\n"
                                 " Command = echo $$ > /tmp/command; exec sleep 2\n",
                                 1));
    Daemon daemon(VOLTARIAD);
    start(daemon);
    EXPECT_EQ(testbed::calls_of("wall").size(), 1u);
    testbed::wait_until("the command's number", PATIENCE,
                        [] { return testbed::read_file("/tmp/command").find('\n') != std::string::npos; });
    const pid_t command = std::stoi(testbed::read_file("/tmp/command"));
    testbed::wait_until("end of the command", PATIENCE, [&] { return !testbed::process_info(command); });
    EXPECT_EQ(zombies_of(daemon.agent_pid()), 0);
    EXPECT_TRUE(daemon.running());
}

TEST(Notifications, ACommandThatIsNotWaitedForOutlivesTheDaemon)
{
    testbed::write_config(
        config(" BroadcastType = 3\n"
               " Command = : > /tmp/begun; until test -e /tmp/go; do sleep 0.05; done; : > /tmp/ended\n",
               0));
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::wait_until("begin of the command", PATIENCE, [] { return there("/tmp/begun"); });
    daemon.stop();
    EXPECT_FALSE(there("/tmp/ended"));
    testbed::write_file("/tmp/go", "");
    testbed::wait_until("end of the command", PATIENCE, [] { return there("/tmp/ended"); });
}

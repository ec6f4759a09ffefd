// What the service manager runs before the daemon's start, and the end of a daemon that the service manager
// looks after. What is told of the start is held against the real daemon: it ends if, and only if, something
// is told.
#include "voltariactl_stage.h"

#include <csignal>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace bed;
using namespace control_stage;
using testbed::Daemon;
using testbed::RunResult;
using testing::HasSubstr;

namespace
{

void expect_silence()
{
    const RunResult result = control({"before-start"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output + result.errors, "");
    Daemon daemon(VOLTARIAD);
    daemon.start();
}

// One line, and the daemon does not stay.
void expect_obstacle(const std::string &line)
{
    const RunResult result = control({"before-start"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "voltariactl: " + line + "\n");
    Daemon daemon(VOLTARIAD);
    daemon.launch();
    daemon.wait_gone(PATIENCE);
}

}  // namespace

// ---- before-start: the lock file ----

TEST(ControlBeforeStart, WithNothingInTheWayItIsSilent)
{
    expect_silence();
}

TEST(ControlBeforeStart, RemovesALockFileThatAKilledDaemonLeftBehind)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::write_file(HELD, "");
    const RunResult refused = control({"before-start"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors,
                HasSubstr("voltariad runs already, as the processes " + std::to_string(daemon.agent_pid()) +
                          " and " + std::to_string(daemon.ups_pid()) + "."));
    EXPECT_EQ(access(HELD, F_OK), 0);
    kill(daemon.agent_pid(), SIGKILL);
    daemon.wait_gone(PATIENCE);
    const RunResult result = control({"before-start"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output,
              "removed the lock file /usr/lib/voltaria/.pipelock, which a killed process left behind\n");
    EXPECT_NE(access(HELD, F_OK), 0);
    expect_silence();
}

TEST(ControlBeforeStart, ALockFileIsLeftToAToolThatHasTheBlock)
{
    AGINFO *block = orphaned_block();
    ASSERT_NE(block, nullptr);
    testbed::write_file(HELD, "");
    EXPECT_EQ(control({"before-start"}).output, "");
    EXPECT_EQ(access(HELD, F_OK), 0);
    shmdt(block);
    EXPECT_EQ(control({"before-start"}).status, 0);
    EXPECT_NE(access(HELD, F_OK), 0);
}

TEST(ControlBeforeStart, ALinkInThePlaceOfTheLockFileIsNoLock)
{
    testbed::write_file("/tmp/precious", "");
    ASSERT_EQ(symlink("/tmp/precious", HELD), 0);
    const RunResult result = control({"before-start"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(access(HELD, F_OK), 0);
}

TEST(ControlBeforeStart, ALockFileThatCannotBeRemovedIsToldAndDoesNotEndTheStart)
{
    testbed::write_file(HELD, "");
    ASSERT_EQ(mount(nullptr, "/usr/lib/voltaria", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const RunResult result = control({"before-start"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.errors, HasSubstr("cannot be removed: Read-only file system\n"));
}

// ---- before-start: what would end the start ----

TEST(ControlBeforeStart, TheKeyFileIsMissing)
{
    ASSERT_EQ(unlink("/etc/.KAVEXUPS"), 0);
    expect_obstacle(
        "/etc/.KAVEXUPS is missing: voltariad ends at once and says nothing. Create it with \"touch "
        "/etc/.KAVEXUPS\" and start voltariad.");
}

TEST(ControlBeforeStart, TheConsoleIsMissing)
{
    static_cast<void>(umount2("/dev/console", MNT_DETACH));
    ASSERT_EQ(unlink("/dev/console"), 0);
    expect_obstacle(
        "/dev/console is missing: voltariad cannot start. Create it with \"mknod -m 600 /dev/console c "
        "5 1\", or give the container a console.");
}

TEST(ControlBeforeStart, AnotherProgramHasTheTcpPort)
{
    const int other = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(other, 0);
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(4112);
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
    ASSERT_EQ(listen(other, 1), 0);
    expect_obstacle("TCP port 4112 is held by system_voltaria (process " + std::to_string(getpid()) +
                    ") on 0.0.0.0: voltariad cannot start. Stop that program, or have it use another port.");
    close(other);
    expect_silence();
}

TEST(ControlBeforeStart, AnotherProgramHasTheUdpPortForItself)
{
    const int other = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(testbed::AGENT_UDP_PORT);
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
    expect_obstacle("UDP port 4114 is held by system_voltaria (process " + std::to_string(getpid()) +
                    ") on 0.0.0.0: voltariad cannot start. Stop that program, or have it use another port.");
    close(other);
    const testbed::UdpSocket sharing(testbed::AGENT_UDP_PORT);
    expect_silence();
}

// An interface has it, and the kernel does not take it for one of its own.
const std::vector<std::string> DISOWN = {"ip",  "route", "del",   "local", "10.77.0.1",
                                         "dev", "eth0",  "table", "local"};

TEST(ControlBeforeStart, AnAddressThatNobodyCanListenOn)
{
    ASSERT_EQ(testbed::run(DISOWN).status, 0);
    expect_obstacle(
        "voltariad cannot start, because nobody can listen on 10.77.0.1 (Cannot assign requested "
        "address). See \"ip address\" and \"ip route show table local\": take the address off its "
        "interface, or make it a local one again.");
}

TEST(ControlBeforeStart, AnAddressOnTwoInterfaces)
{
    ASSERT_EQ(testbed::run({"ip", "address", "add", "10.77.0.1/32", "dev", "lo"}).status, 0);
    expect_obstacle(
        "voltariad cannot start, because more than one interface has 10.77.0.1. See \"ip address\": "
        "leave such an address to one interface.");
}

TEST(ControlBeforeStart, TwoFaultsAreTwoLines)
{
    ASSERT_EQ(testbed::run(DISOWN).status, 0);
    ASSERT_NE(orphaned_block(100), nullptr);
    const RunResult result = control({"before-start"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, testing::MatchesRegex(
                                   "voltariactl: The segment on voltariad's key 0x[0-9a-f]* has 100 bytes "
                                   "instead of 1660: [^\n]*\nvoltariactl: voltariad cannot start, [^\n]*\n"));
}

TEST(ControlBeforeStart, AnObstacleOfMonitorsAloneIsNone)
{
    testbed::write_config("nonsense\n");
    ASSERT_EQ(orphaned_block(4096) != nullptr, true);  // voltariad takes a larger one
    expect_silence();
}

// ---- stop under systemd ----

namespace
{

constexpr char SYSTEMCTL_CALLS[] = "/tmp/systemctl.calls";

// Makes a process belong to the unit, as far as anybody can see.
void put_into_unit(pid_t pid)
{
    testbed::write_file("/tmp/cgroup", "0::/system.slice/voltariad.service\n");
    const std::string place = "/proc/" + std::to_string(pid) + "/cgroup";
    ASSERT_EQ(mount("/tmp/cgroup", place.c_str(), nullptr, MS_BIND, nullptr), 0);
}

// A program in the place of systemctl that notes how it is called and then does as `script` says.
void set_systemctl(const std::string &script)
{
    unlink("/bin/systemctl");
    testbed::write_file("/bin/systemctl",
                        std::string("#!/bin/sh\necho \"$*\" >>") + SYSTEMCTL_CALLS + "\n" + script + "\n",
                        0755);
}

// The unit's way to stop the daemon: this very program, in the unit's control group.
const std::string RUN_EXECSTOP = "mount --bind /tmp/cgroup /proc/$$/cgroup && SERVICE_RESULT=success exec " +
                                 VOLTARIACTL + " stop >/tmp/execstop 2>&1";

}  // namespace

TEST(ControlStopUnit, SystemdIsAskedAndStopsTheDaemonInOrder)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    put_into_unit(daemon.agent_pid());
    set_systemctl(RUN_EXECSTOP);
    const RunResult result = control({"stop"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "voltariad has stopped\n");
    // Asked once: what the unit runs does not ask again.
    EXPECT_EQ(testbed::read_file(SYSTEMCTL_CALLS), "stop voltariad.service\n");
    EXPECT_EQ(testbed::read_file("/tmp/execstop"), "voltariad has stopped\n");
    EXPECT_FALSE(daemon.running());
    EXPECT_THAT(testbed::read_file(testbed::EVENT_LOG), HasSubstr("   8 255"));
}

TEST(ControlStopUnit, AStopThatSystemdRefusesIsTold)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    put_into_unit(daemon.agent_pid());
    set_systemctl("exit 4");
    const RunResult result = control({"stop"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors,
              "voltariactl: voltariad belongs to systemd's voltariad.service, and \"systemctl stop "
              "voltariad.service\" failed: see \"systemctl status voltariad.service\"\n");
    EXPECT_TRUE(daemon.running());
    set_systemctl("exec sleep 600");
    const RunResult hanging = control({"stop", "--timeout", "0.3"});
    EXPECT_EQ(hanging.status, 1);
    EXPECT_THAT(hanging.errors, HasSubstr("has not come to an end in time"));
    ASSERT_EQ(unlink("/bin/systemctl"), 0);
    EXPECT_THAT(control({"stop"}).errors, HasSubstr("there is no /bin/systemctl to stop it with"));
    EXPECT_TRUE(daemon.running());
}

// Ended by a signal, it would be started again.
TEST(ControlStopUnit, ADaemonThatCannotBeAskedIsLeftToSystemd)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    put_into_unit(daemon.agent_pid());
    set_systemctl("kill -9 " + std::to_string(daemon.agent_pid()));
    ASSERT_EQ(rename("/etc/.KAVEXUPS", "/etc/old"), 0);
    testbed::write_file("/etc/.KAVEXUPS", "");
    const RunResult result = control({"stop", "--timeout", "5"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(testbed::read_file(SYSTEMCTL_CALLS), "stop voltariad.service\n");
    ASSERT_EQ(rename("/etc/old", "/etc/.KAVEXUPS"), 0);
}

TEST(ControlStopUnit, AnEventsCommandDoesNotWaitForTheDaemonThatWaitsForIt)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    put_into_unit(daemon.agent_pid());
    set_systemctl("exit 0");
    const RunResult result = testbed::run(
        {"sh", "-c", "mount --bind /tmp/cgroup /proc/$$/cgroup && exec " + VOLTARIACTL + " stop"}, PATIENCE);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "systemd stops voltariad once this command has ended\n");
    EXPECT_EQ(testbed::read_file(SYSTEMCTL_CALLS), "--no-block stop voltariad.service\n");
    EXPECT_TRUE(daemon.running());
}

TEST(ControlStopUnit, AUnitThatIsAboutToBeStartedAgainIsStopped)
{
    ASSERT_EQ(testbed::run({"mkdir", "-p", "/run/systemd/system"}).status, 0);
    set_systemctl("[ \"$1\" = stop ] || echo activating");
    EXPECT_EQ(control({"stop"}).status, 0);
    EXPECT_THAT(testbed::read_file(SYSTEMCTL_CALLS), testing::EndsWith("\nstop voltariad.service\n"));
    ASSERT_EQ(unlink(SYSTEMCTL_CALLS), 0);
    set_systemctl("[ \"$1\" = stop ] || echo inactive");
    EXPECT_EQ(control({"stop"}).output, "voltariad is not running\n");
    EXPECT_THAT(testbed::read_file(SYSTEMCTL_CALLS), testing::StartsWith("show "));
    EXPECT_THAT(testbed::read_file(SYSTEMCTL_CALLS), testing::Not(HasSubstr("\nstop")));
}

TEST(ControlStopUnit, ADaemonStartedByHandIsStoppedWithoutSystemd)
{
    ASSERT_EQ(testbed::run({"mkdir", "-p", "/run/systemd/system"}).status, 0);
    set_systemctl("exit 0");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(control({"stop"}).output, "voltariad has stopped\n");
    EXPECT_EQ(testbed::read_file(SYSTEMCTL_CALLS), "");
}

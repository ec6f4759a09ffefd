// The first day of an administrator: whatever is wrong with the machine, doctor has one clear sentence on it,
// and one on what to do.
#include "voltariactl_stage.h"

#include <csignal>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace bed;
using namespace control_stage;
using testbed::Daemon;
using testbed::RunResult;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace
{

// One line of doctor's report: "NAME  RESULT  FINDING".
std::string line_of(const std::string &report, const std::string &name)
{
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(name + " "))
            return line;
    return "";
}

std::string doctor_line(const std::string &name)
{
    return line_of(control({"doctor"}).output, name);
}

// The kernel's list of its consoles, whatever those of the machine below are.
bool set_consoles(const std::string &list)
{
    testbed::write_file("/tmp/active", list);
    return mount("/tmp/active", "/sys/class/tty/console/active", nullptr, MS_BIND, nullptr) == 0;
}

testbed::SimulatorOptions unit_on(const std::string &port)
{
    testbed::SimulatorOptions options;
    options.link = port;
    options.control = "/run/voltaria-test/" + port.substr(5) + ".control";
    options.log = "/run/voltaria-test/" + port.substr(5) + ".log";
    return options;
}

}  // namespace

TEST(ControlDoctor, FindsTheRunningDaemonWell)
{
    testbed::Simulator unit(UPSSIM, {});
    testbed::write_config("[ UPS ]\n\n AgentType = 4\n Group = Group A\n");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    const auto report = document({"doctor", "--json"});
    nlohmann::json checks;
    for (const auto &check : report["checks"])
        checks[check["check"].get<std::string>()] = check;
    for (const char *name : {"key file", "directory", "settings", "console", "lock files", "shared block",
                             "daemon", "TCP port", "UDP port", "listeners", "serial ports", "link"})
        EXPECT_EQ(checks[name]["result"], "ok") << checks[name];
    EXPECT_THAT(checks["daemon"]["finding"].get<std::string>(), HasSubstr(std::to_string(daemon.ups_pid())));
    EXPECT_EQ(checks["serial ports"]["finding"], "voltariad has /dev/ttyS0 open.");
    // The simulated unit keeps its own end of the line open, and is in nobody's way.
    EXPECT_EQ(checks["port holders"]["result"], "warning");
    EXPECT_THAT(checks["port holders"]["finding"].get<std::string>(),
                HasSubstr("/dev/ttyS0 is a pseudo-terminal of upssim (process "));
}

TEST(ControlDoctor, NothingIsInstalled)
{
    ASSERT_EQ(unlink("/etc/.KAVEXUPS"), 0);
    ASSERT_EQ(umount2("/usr/lib/voltaria", MNT_DETACH), 0);
    static_cast<void>(rmdir("/usr/lib/voltaria"));
    const RunResult result = control({"doctor"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(line_of(result.output, "key file"),
              "key file        problem  /etc/.KAVEXUPS is missing: voltariad ends at once and says nothing.");
    EXPECT_THAT(line_of(result.output, "directory"),
                HasSubstr("The directory /usr/lib/voltaria is missing: no settings, no logs"));
    EXPECT_EQ(line_of(result.output, "daemon"),
              "daemon          warning  voltariad does not run: this machine is not protected.");
    // As a user who has not read anything begins.
    EXPECT_THAT(control({"status"}).errors, MatchesRegex("voltariactl: the key file [^\n]*\n"));
}

TEST(ControlDoctor, NoSerialPortAtAll)
{
    EXPECT_EQ(
        doctor_line("serial ports"),
        "serial ports    problem  There is none of the serial ports /dev/ttyS0, /dev/ttyS1, /dev/ttyS2 and "
        "/dev/ttyS3: no UPS can be found.");
}

TEST(ControlDoctor, APortThatAnswersNothing)
{
    testbed::Simulator unit(UPSSIM, {});
    unit.command("line cut");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(doctor_line("link"),
              "link            problem  No UPS answers on /dev/ttyS0, /dev/ttyS1, /dev/ttyS2 and /dev/ttyS3: "
              "voltariad sees no mains failure.");
    EXPECT_THAT(control({"status"}).output, HasSubstr("Link              lost"));
}

TEST(ControlDoctor, OfTwoUnitsOneIsServedAndItIsSaidWhich)
{
    testbed::Simulator first(UPSSIM, unit_on("/dev/ttyS0"));
    testbed::Simulator second(UPSSIM, unit_on("/dev/ttyS1"));
    testbed::write_config("[ UPS ]\n\n ComSet = 2\n");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_link(2);
    EXPECT_EQ(doctor_line("serial ports"), "serial ports    ok       voltariad has /dev/ttyS1 open.");
    daemon.stop();
    testbed::write_config("");
    daemon.start();
    wait_for_link(2);
    EXPECT_EQ(
        doctor_line("serial ports"),
        "serial ports    ok       voltariad has /dev/ttyS0 open. It serves one UPS, the first that answers; "
        "ComSet picks a port.");
    EXPECT_THAT(doctor_line("link"), HasSubstr("answers on /dev/ttyS0."));
}

TEST(ControlDoctor, AReadOnlyDirectoryIsAProblem)
{
    ASSERT_EQ(mount(nullptr, "/usr/lib/voltaria", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const RunResult result = control({"doctor"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(line_of(result.output, "directory"),
                HasSubstr("problem  /usr/lib/voltaria lies on a read-only file system"));
}

TEST(ControlDoctor, ADiskWithoutLimitIsNotAFullOne)
{
    ASSERT_EQ(mount("tmpfs", "/usr/lib/voltaria", "tmpfs", 0, "size=64k"), 0);
    static_cast<void>(testbed::run({"dd", "if=/dev/zero", "of=/usr/lib/voltaria/all", "bs=64k", "count=2"}));
    EXPECT_THAT(doctor_line("directory"), HasSubstr("problem  The file system of /usr/lib/voltaria is full"));
    ASSERT_EQ(umount2("/usr/lib/voltaria", MNT_DETACH), 0);
    ASSERT_EQ(mount("tmpfs", "/usr/lib/voltaria", "tmpfs", 0, "size=0"), 0);
    EXPECT_THAT(doctor_line("directory"), Not(HasSubstr("full")));
}

TEST(ControlDoctor, AnAddressThatCameLaterAndProgramsOnThePortsAreNamed)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    ASSERT_EQ(testbed::run({"ip", "address", "add", "10.99.0.1/24", "dev", "lo"}).status, 0);
    EXPECT_THAT(doctor_line("listeners"), HasSubstr("warning  voltariad does not listen on 10.99.0.1"));
    daemon.stop();
    testbed::Child other;
    other.start({"perl", "-MIO::Socket::INET", "-e",
                 "$s = IO::Socket::INET->new(Listen => 1, LocalPort => 4112, Proto => 'tcp'); sleep 600"});
    testbed::wait_until("the other program", PATIENCE, [] { return testbed::tcp_listening(4112); });
    const testbed::UdpSocket sharing(testbed::AGENT_UDP_PORT);
    const RunResult result = control({"doctor"});
    EXPECT_EQ(line_of(result.output, "TCP port"),
              "TCP port        problem  TCP port 4112 is held by perl (process " +
                  std::to_string(other.pid()) + ") on 0.0.0.0: voltariad cannot start.");
    // The kernel lets two programs that both ask for it share a UDP port.
    EXPECT_THAT(line_of(result.output, "UDP port"),
                HasSubstr("warning  UDP port 4114 is held by system_voltaria (process " +
                          std::to_string(getpid()) + ") on 0.0.0.0, which shares it"));
}

TEST(ControlDoctor, AnOrdinaryUserSeesLessAndIsTold)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::write_file("/usr/lib/voltaria/config", "[ UPS ]\n", 0600);
    const RunResult result = control_as_nobody({"doctor"});
    EXPECT_EQ(result.errors,
              "voltariactl: without root not everything can be seen: run doctor as root for a full answer\n");
    EXPECT_THAT(line_of(result.output, "settings"), HasSubstr("warning  The settings file"));
    EXPECT_THAT(line_of(result.output, "TCP port"), HasSubstr("ok       TCP port 4112 is voltariad's."));
    EXPECT_THAT(line_of(result.output, "port holders"), HasSubstr("only root can tell"));
    EXPECT_THAT(line_of(result.output, "daemon"), HasSubstr("ok       voltariad runs"));
}

TEST(ControlDoctor, ASegmentOfTheWrongSizeIsNamedWithTheWayToRemoveIt)
{
    ASSERT_NE(orphaned_block(100), nullptr);
    const std::string id = std::to_string(shmget(ftok("/etc/.KAVEXUPS", 1029), 0, 0));
    const RunResult result = control({"doctor"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(line_of(result.output, "shared block"), HasSubstr("has 100 bytes instead of 1660"));
    EXPECT_THAT(result.output, HasSubstr("ipcrm -m " + id));
}

TEST(ControlDoctor, ALoginOnASearchedPort)
{
    testbed::Simulator unit(UPSSIM, {});
    if (!set_consoles("tty0\n"))
        GTEST_SKIP() << "no /sys to play the kernel's list in";
    testbed::write_file("/etc/inittab", "T0:23:respawn:/sbin/getty -L ttyS0 9600 vt100\n");
    EXPECT_EQ(doctor_line("serial console"),
              "serial console  problem  A login waits on /dev/ttyS0 and talks to the UPS, by /etc/inittab.");
}

TEST(ControlDoctor, AConsoleOfTheKernelOnASearchedPort)
{
    testbed::Simulator unit(UPSSIM, {});
    if (!set_consoles("tty0 ttyS0\n"))
        GTEST_SKIP() << "no /sys to play the kernel's list in";
    EXPECT_EQ(doctor_line("serial console"),
              "serial console  problem  /dev/ttyS0 is a console of the kernel, whose "
              "messages go to the UPS as orders.");
}

TEST(ControlDoctor, OtherSoftwareForAUps)
{
    ASSERT_EQ(testbed::run({"cp", "/bin/sleep", "/tmp/upsd"}).status, 0);
    testbed::Child other;
    other.start({"/tmp/upsd", "600"});
    const std::string expected = "other software  warning  upsd (process " + std::to_string(other.pid()) +
                                 ") seems to be other software for a UPS.";
    testbed::wait_until("the other program to be named", PATIENCE,
                        [&] { return doctor_line("other software") == expected; });
    other.stop();
    ASSERT_EQ(testbed::run({"mkdir", "-p", "/etc/systemd/system/multi-user.target.wants"}).status, 0);
    ASSERT_EQ(symlink("/lib/systemd/system/apcupsd.service",
                      "/etc/systemd/system/multi-user.target.wants/apcupsd.service"),
              0);
    EXPECT_EQ(doctor_line("other software"),
              "other software  warning  Other software for a UPS seems to be started at "
              "boot: apcupsd.service.");
}

TEST(ControlDoctor, AShutdownThatReachesNobody)
{
    ASSERT_EQ(testbed::run({"mkdir", "-p", "/run/systemd/system"}).status, 0);
    EXPECT_EQ(doctor_line("shutdown"),
              "shutdown        problem  Under systemd D-Bus does not run and systemd-logind does not run: "
              "/sbin/shutdown may do nothing, and the UPS would switch off a running machine.");
}

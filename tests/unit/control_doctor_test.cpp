// Each check of doctor, on a directory tree that stands for a machine: a sound one, and one that has the
// fault.
#include "control_doctor.h"

#include "aginfo.h"
#include "control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/ipc.h>
#include <unistd.h>

using testing::HasSubstr;

namespace
{

namespace fs = std::filesystem;

constexpr std::time_t SOME_DAY = 1900000000;
constexpr char CATALOGUE[] = "/usr/lib/voltaria/locale/ja/LC_MESSAGES/voltariad.mo";

// A sound machine on which nothing runs yet.
class Doctor : public testing::Test
{
  protected:
    Doctor()
    {
        std::string pattern = testing::TempDir() + "doctor.XXXXXX";
        system.root = mkdtemp(pattern.data());
        system.now = SOME_DAY;
        system.addresses = {"127.0.0.1", "192.0.2.7"};
        file("/etc/.KAVEXUPS");
        file("/etc/localtime");
        file("/usr/lib/voltaria/config", "[ UPS ]\n ComSet = 0\n");
        file(CATALOGUE, "\xde\x12\x04\x95...");
        link("/dev/console", "/dev/null");
        link("/dev/ttyS0", "/dev/null");
        for (const char *path : {"/usr/bin/wall", "/usr/bin/write", "/usr/bin/mesg", "/usr/bin/who",
                                 "/bin/sh", "/bin/mail", "/sbin/shutdown"})
            program(path);
        directory("/run/systemd/system");
        process(1, "systemd", 0);
        process(80, "systemd-logind");
        file("/proc/net/unix", UNIX_TABLE);
        file("/proc/net/tcp", TABLE);
        file("/proc/net/udp", TABLE);
        file("/proc/sysvipc/shm", SEGMENTS);
        file("/proc/tty/driver/serial", "serinfo:1.0\n0: uart:16550A port:000003F8 irq:4\n1: uart:unknown\n");
        file("/sys/class/tty/console/active", "tty0\n");
    }

    ~Doctor() override
    {
        fs::remove_all(system.root);
    }

    static constexpr char TABLE[] = "  sl  local_address rem_address   st\n";
    static constexpr char UNIX_TABLE[] =
        "Num       RefCount Protocol Flags    Type St Inode Path\n"
        "0000000000000000: 00000002 00000000 00000000 0002 01 20 /run/dbus/a\n"
        "0000000000000000: 00000002 00000000 00010000 0001 01 21 /run/dbus/system_bus_socket\n";
    static constexpr char SEGMENTS[] =
        "       key      shmid perms                  size  cpid  lpid nattch\n";

    void directory(const std::string &path) const
    {
        fs::create_directories(system.root + path);
    }

    void file(const std::string &path, std::string_view text = "") const
    {
        fs::create_directories(fs::path(system.root + path).parent_path());
        std::ofstream(system.root + path, std::ios::binary) << text;
    }

    void link(const std::string &path, const std::string &target) const
    {
        fs::create_directories(fs::path(system.root + path).parent_path());
        fs::remove(system.root + path);
        fs::create_symlink(target, system.root + path);
    }

    void program(const std::string &path) const
    {
        file(path, "#!/bin/sh\n");
        fs::permissions(system.root + path, fs::perms(0755));
    }

    void remove(const std::string &path) const
    {
        fs::remove_all(system.root + path);
    }

    void process(int pid, const std::string &name, int parent = 1,
                 const std::string &users = "0\t0\t0\t0") const
    {
        const std::string number = std::to_string(pid);
        file("/proc/" + number + "/status", "Name:\tit\nUid:\t" + users + "\n");
        file("/proc/" + number + "/stat", number + " (" + name + ") S " + std::to_string(parent) +
                                              " 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 77 0\n");
    }

    void descriptor(int pid, int fd, const std::string &target) const
    {
        link("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd), target);
    }

    // A socket as /proc/net lists it; the address and port as it prints them.
    void socket(const std::string &kind, const std::string &local, int inode,
                const std::string &state = "0A") const
    {
        std::ofstream(system.root + "/proc/net/" + kind, std::ios::app)
            << "   0: " << local << " 00000000:0000 " << state
            << " 00000000:00000000 00:00000000 00000000     0        0 " << inode << " 1 0\n";
    }

    void segment(std::size_t size, int attached = 2) const
    {
        const key_t key = ftok((system.root + AGINFO_KEYFILE).c_str(), AGINFO_PROJECT);
        file("/proc/sysvipc/shm", std::string(SEGMENTS) + "  " + std::to_string(key) + "         42   666 " +
                                      std::to_string(size) + "   5   5   " + std::to_string(attached) + "\n");
    }

    void running_daemon() const
    {
        process(100, "voltariad");
        process(101, "voltariad", 100);
        segment(1660);
        descriptor(100, 3, "socket:[500]");
        descriptor(100, 4, "socket:[501]");
        descriptor(100, 5, "socket:[502]");
        socket("udp", "00000000:1012", 500, "07");
        socket("tcp", "0100007F:1010", 501);
        socket("tcp", "070200C0:1010", 502);
    }

    [[nodiscard]] FINDING find(std::string_view check) const
    {
        PATIENT patient = doctor_patient(system);
        patient.refused = refused;
        return doctor_finding(patient, check);
    }

    void expect(std::string_view check, RESULT result, const std::string &part) const
    {
        const FINDING finding = find(check);
        EXPECT_EQ(result_name(finding.result), result_name(result)) << finding.found;
        EXPECT_THAT(finding.found, HasSubstr(part));
        // What is wrong comes with what to do about it, in whole sentences.
        EXPECT_EQ(finding.advice.empty(), result == RESULT::Ok);
        EXPECT_TRUE(finding.found.ends_with('.'));
    }

    SYSTEM system;
    std::optional<std::vector<REFUSAL>> refused;
};

}  // namespace

TEST_F(Doctor, FindsNothingWrongWithASoundMachineButThatNothingRuns)
{
    for (const FINDING &finding : doctor_findings(doctor_patient(system))) {
        const RESULT expected = finding.check == "daemon" ? RESULT::Warning : RESULT::Ok;
        EXPECT_EQ(result_name(finding.result), result_name(expected))
            << finding.check << ": " << finding.found;
    }
    expect("daemon", RESULT::Warning, "does not run");
}

TEST_F(Doctor, FindsNothingWrongWithARunningDaemon)
{
    running_daemon();
    const std::vector<FINDING> findings = doctor_findings(doctor_patient(system));
    for (const FINDING &finding : findings)
        EXPECT_EQ(result_name(finding.result), "ok") << finding.check << ": " << finding.found;
    EXPECT_THAT(findings_text(findings), testing::EndsWith("no problems, no warnings\n"));
}

TEST_F(Doctor, NoTextFromAFileReachesTheTerminalAsAnOrder)
{
    EXPECT_EQ(plain("a\x1b[2J\n\x7f"), "a?[2J??");
    EXPECT_EQ(plain("\xc2\x9b"
                    "2J|\x9b"
                    "2J|\xc2"),
              "?2J|?2J|?");  // the same in one character
    EXPECT_EQ(plain("\xe9\x9b\xbb\xe6\xba\x90 \xc3\xbc \xf0\x9f\x94\x8b"),
              "\xe9\x9b\xbb\xe6\xba\x90 \xc3\xbc \xf0\x9f\x94\x8b");
    EXPECT_EQ(plain("\xc5\xc5\xce\xce|\xc1\x9b|\xed\xa0\x80|\xe0\x80\x9b|\xf5\x80\x80\x80"),
              "????|??|???|???|????");
    file("/usr/lib/voltaria/config", "[ \xc2\x9b"
                                     "2J ]\n");
    EXPECT_THAT(findings_text({find("settings")}), HasSubstr("no section \"?2J\""));
}

TEST_F(Doctor, TheReportNamesFindingAdviceAndCounts)
{
    remove("/etc/.KAVEXUPS");
    const std::vector<FINDING> findings = doctor_findings(doctor_patient(system));
    const std::string text = findings_text(findings);
    EXPECT_THAT(text, HasSubstr("key file        problem  /etc/.KAVEXUPS is missing"));
    EXPECT_THAT(text, HasSubstr("\n                         Create it with \"touch /etc/.KAVEXUPS\""));
    EXPECT_THAT(text, testing::EndsWith("1 problem, 1 warning\n"));
    EXPECT_THAT(findings_json(findings), HasSubstr("\"problems\": 1"));
}

// ---- Files and state ----

TEST_F(Doctor, AKeyFileThatIsMissingOrNoFile)
{
    remove("/etc/.KAVEXUPS");
    expect("key file", RESULT::Problem, "is missing");
    directory("/etc/.KAVEXUPS");
    expect("key file", RESULT::Warning, "no regular file");
}

TEST_F(Doctor, ADirectoryThatIsMissingOrOpenToOthers)
{
    fs::permissions(system.root + "/usr/lib/voltaria", fs::perms(0777));
    expect("directory", RESULT::Warning, "Others than root");
    remove("/usr/lib/voltaria");
    expect("directory", RESULT::Problem, "is missing");
    file("/usr/lib/voltaria");
    expect("directory", RESULT::Problem, "no directory");
}

TEST_F(Doctor, SettingsWithFaultsAreNamedByLine)
{
    file("/usr/lib/voltaria/config", "[ UPS ]\n ComSet = 9\n Colour = red\n");
    expect("settings", RESULT::Warning,
           "line 2: ComSet must be a number from -2 to 4, not \"9\"; line 3: voltariad "
           "knows no key \"Colour\" in section \"UPS\".");
    fs::permissions(system.root + "/usr/lib/voltaria/config", fs::perms(0666));
    expect("settings", RESULT::Problem, "Others than root may write");
    remove("/usr/lib/voltaria/config");
    expect("settings", RESULT::Ok, "no settings file");
}

TEST_F(Doctor, OfManyFaultyLinesTheFirstAreNamed)
{
    std::string text = "[ UPS ]\n";
    for (int i = 0; i < 20; ++i)
        text += "# " + std::to_string(i) + "\n";
    file("/usr/lib/voltaria/config", text);
    expect("settings", RESULT::Warning, "and 12 more.");
}

TEST_F(Doctor, ACatalogueThatIsMissingOrDamaged)
{
    file(CATALOGUE, "msgid");
    expect("catalogue", RESULT::Warning, "is no message catalogue");
    remove(CATALOGUE);
    expect("catalogue", RESULT::Warning, "is missing");
}

TEST_F(Doctor, AConsoleThatIsMissingOrDoesNotOpen)
{
    remove("/dev/console");
    expect("console", RESULT::Problem, "is missing");
    directory("/dev/console");
    expect("console", RESULT::Problem, "cannot be opened");
}

TEST_F(Doctor, ALockFileIsInUseWhileSomebodyCouldHoldIt)
{
    expect("lock files", RESULT::Ok, "No lock file");
    file("/usr/lib/voltaria/.pipelock");
    system.now = std::time(nullptr);
    EXPECT_TRUE(lock_left_behind(doctor_patient(system)));
    expect("lock files", RESULT::Problem, ".pipelock");
    segment(1660, 1);  // some tool has the block attached
    EXPECT_FALSE(lock_left_behind(doctor_patient(system)));
    expect("lock files", RESULT::Ok, "in use");
    segment(1660, 0);
    EXPECT_TRUE(lock_left_behind(doctor_patient(system)));
    for (const char *name : {"voltariad", "voltariactl"}) {
        process(100, name);
        EXPECT_FALSE(lock_left_behind(doctor_patient(system))) << name;
        expect("lock files", RESULT::Ok, "in use");
    }
    system.now += 60;  // it is held for moments
    expect("lock files", RESULT::Problem, ".pipelock");
}

TEST_F(Doctor, ASegmentOfAnotherSize)
{
    segment(1024);
    expect("shared block", RESULT::Problem, "has 1024 bytes instead of 1660");
    EXPECT_THAT(find("shared block").advice, HasSubstr("ipcrm -m 42"));
    segment(4096);
    expect("shared block", RESULT::Warning, "has 4096 bytes");
    segment(1660);
    expect("shared block", RESULT::Ok, "next start uses it again");
}

TEST_F(Doctor, AKeyFileThatWasReplacedUnderARunningDaemon)
{
    running_daemon();
    file("/proc/sysvipc/shm", SEGMENTS);
    expect("shared block", RESULT::Problem, "replaced while it ran");
    remove("/proc/101");  // one that has just been started has none yet
    expect("shared block", RESULT::Warning, "starting or ending");
}

TEST_F(Doctor, AClockThatIsBehind)
{
    system.now = 1000000;
    expect("clock", RESULT::Problem, "years behind");
    file("/usr/lib/voltaria/events.log");
    system.now = std::time(nullptr) - 86400;
    expect("clock", RESULT::Warning, "in the future");
}

// ---- Network ----

TEST_F(Doctor, DaemonsThatAreTooFewOrTooMany)
{
    process(100, "voltariad");
    expect("daemon", RESULT::Warning, "only one process");
    process(101, "voltariad", 100);
    expect("daemon", RESULT::Ok, "100 and 101");
    process(102, "voltariad");
    expect("daemon", RESULT::Problem, "More than two");
}

TEST_F(Doctor, AScriptOfTheDaemonsNameIsNoDaemon)
{
    process(100, "voltariad");
    link("/proc/100/exe", "/usr/bin/dash");
    expect("daemon", RESULT::Warning, "does not run");
    process(101, "voltariad");
    link("/proc/101/exe", "/usr/lib/voltaria/voltariad (deleted)");
    process(102, "voltariad", 101);
    link("/proc/102/exe", "/usr/lib/voltaria/voltariad (deleted)");
    expect("daemon", RESULT::Ok, "101 and 102");
}

TEST_F(Doctor, ADaemonThatTheNextBootDoesNotStart)
{
    running_daemon();
    file("/lib/systemd/system/voltariad.service");
    expect("daemon", RESULT::Warning, "the next boot does not start it");
    link("/etc/systemd/system/multi-user.target.wants/voltariad.service",
         "/lib/systemd/system/voltariad.service");
    expect("daemon", RESULT::Ok, "100 and 101");
}

TEST_F(Doctor, ADaemonInAContainerIsNotThisMachines)
{
    process(100, "voltariad");
    link("/proc/self/ns/pid", "pid:[1]");
    link("/proc/100/ns/pid", "pid:[2]");
    expect("daemon", RESULT::Warning, "does not run");
}

// Anybody may call a program so, and start one of root's under that name.
TEST_F(Doctor, AProcessThatRootDidNotStartIsNotTheDaemon)
{
    for (const char *users : {"1000\t1000\t1000\t1000", "1000\t0\t0\t0"}) {
        process(100, "voltariad", 1, users);
        process(101, "voltariactl", 1, users);
        expect("daemon", RESULT::Warning, "does not run");
        file("/usr/lib/voltaria/.pipelock");
        EXPECT_TRUE(lock_left_behind(doctor_patient(system)));
    }
}

TEST_F(Doctor, APortThatAnotherProgramHolds)
{
    process(300, "other (x)");
    descriptor(300, 7, "socket:[900]");
    socket("tcp", "0100007F:1010", 900, "01");  // a connection, no listener
    expect("TCP port", RESULT::Ok, "free");
    socket("tcp", "00000000:1010", 900);
    expect("TCP port", RESULT::Problem, "held by other (x) (process 300) on 0.0.0.0");
    socket("udp", "00000000:1012", 901, "07");
    expect("UDP port", RESULT::Problem, "held by a process that this user may not see");
}

TEST_F(Doctor, AnIpv6SocketThatTakesThePort)
{
    process(300, "other");
    descriptor(300, 7, "socket:[900]");
    file("/proc/net/tcp6", TABLE);
    socket("tcp6", "00000000000000000000000001000000:1010", 900);  // ::1
    expect("TCP port", RESULT::Ok, "free");
    socket("tcp6", "00000000000000000000000000000000:1010", 900);
    expect("TCP port", RESULT::Problem, "held by other");
}

TEST_F(Doctor, PortsThatARunningDaemonDoesNotHave)
{
    running_daemon();
    file("/proc/net/udp", TABLE);
    expect("UDP port", RESULT::Problem, "not open although voltariad runs");
}

TEST_F(Doctor, AnAddressWithoutAListener)
{
    running_daemon();
    system.addresses.emplace_back("198.51.100.3");
    expect("listeners", RESULT::Warning, "does not listen on 198.51.100.3:");
}

TEST_F(Doctor, AMachineWithoutAnAddress)
{
    system.addresses.clear();
    expect("listeners", RESULT::Warning, "no IPv4 address");
}

TEST_F(Doctor, AnAddressThatNobodyCanListenOn)
{
    refused = {{SOCKETS::Tcp, "192.0.2.7", EADDRNOTAVAIL}};
    expect("listeners", RESULT::Problem,
           "cannot start, because nobody can listen on 192.0.2.7 (Cannot assign requested address).");
    refused.reset();
    system.addresses.emplace_back("192.0.2.7");
    expect("listeners", RESULT::Problem, "more than one interface has 192.0.2.7.");
}

TEST_F(Doctor, APortThatTheKernelRefusesOrShares)
{
    refused = {{SOCKETS::Tcp, "192.0.2.7", EADDRINUSE}};
    expect("TCP port", RESULT::Problem, "taken on 192.0.2.7, by whom cannot be seen");
    expect("UDP port", RESULT::Ok, "free");
    process(300, "other");
    descriptor(300, 7, "socket:[900]");
    socket("udp", "00000000:1012", 900, "07");
    expect("UDP port", RESULT::Warning, "held by other (process 300) on 0.0.0.0, which shares it");
    refused->push_back({SOCKETS::Udp, "0.0.0.0", EADDRINUSE});
    expect("UDP port", RESULT::Problem, "held by other (process 300) on 0.0.0.0: voltariad cannot start.");
}

TEST_F(Doctor, AUserWhoSeesNoOtherProcessesIsTold)
{
    system.privileged = false;
    remove("/proc/1");
    expect("daemon", RESULT::Warning, "cannot be seen by this user");
}

// ---- The line to the unit ----

TEST_F(Doctor, NoSerialPort)
{
    remove("/dev/ttyS0");
    expect("serial ports", RESULT::Problem,
           "none of the serial ports /dev/ttyS0, /dev/ttyS1, /dev/ttyS2 and /dev/ttyS3");
    file("/usr/lib/voltaria/config", "[ UPS ]\n ComSet = 2\n");
    expect("serial ports", RESULT::Problem, "no serial port /dev/ttyS1");
    link("/dev/ttyS1", "/dev/null");  // the node is there, but the driver found nothing behind it
    expect("serial ports", RESULT::Problem, "no serial port /dev/ttyS1");
    file("/usr/lib/voltaria/config", "[ UPS ]\n ComSet = -2\n");
    expect("serial ports", RESULT::Warning, "ComSet = -2");
}

TEST_F(Doctor, ASerialPortThatAnotherProgramHas)
{
    process(300, "modem");
    descriptor(300, 4, "/dev/ttyS0");
    expect("port holders", RESULT::Problem, "/dev/ttyS0 is also held by modem (process 300)");
    file("/usr/lib/voltaria/config", "[ UPS ]\n ComSet = 2\n");
    expect("port holders", RESULT::Ok, "");
    file("/run/lock/LCK..ttyS1");
    expect("port holders", RESULT::Warning, "/run/lock/LCK..ttyS1");
}

TEST_F(Doctor, TwoPortsThatOtherProgramsHaveAreBothNamed)
{
    process(300, "modem");
    descriptor(300, 4, "/dev/ttyS0");
    descriptor(300, 5, "/dev/ttyS2");
    expect("port holders", RESULT::Problem,
           "/dev/ttyS0 is also held by modem (process 300) and /dev/ttyS2 is also held by modem");
}

TEST_F(Doctor, AProgramThatPlaysAUnitIsToldFromOneInTheWay)
{
    link("/dev/ttyS0", "/dev/pts/4");
    process(300, "upssim");
    descriptor(300, 4, "/dev/pts/ptmx");
    file("/proc/300/fdinfo/4", "pos:\t0\nflags:\t02\ntty-index:\t4\n");
    descriptor(300, 5, "/dev/pts/4");
    expect("port holders", RESULT::Warning, "/dev/ttyS0 is a pseudo-terminal of upssim (process 300)");
    process(301, "modem");
    descriptor(301, 3, "/dev/pts/4");
    expect("port holders", RESULT::Problem, "also held by modem (process 301)");
}

TEST_F(Doctor, OfTwoUnitsOnTwoPortsOneIsServed)
{
    link("/dev/ttyS2", "/dev/null");
    expect("serial ports", RESULT::Ok, "on /dev/ttyS0 and /dev/ttyS2. It serves one UPS");
}

TEST_F(Doctor, AnOrdinaryUserIsToldWhatOnlyRootCanSee)
{
    system.privileged = false;
    expect("port holders", RESULT::Ok, "only root can tell");
}

TEST_F(Doctor, AUnitThatDoesNotAnswer)
{
    running_daemon();
    PATIENT patient = doctor_patient(system);
    patient.ups = UPS{};
    patient.ups->ui.CommStatus = COMM_LOST;
    EXPECT_EQ(doctor_finding(patient, "link").result, RESULT::Problem);
    patient.ups->ui.CommStatus = COMM_ESTABLISHED;
    patient.ups->ui.upsmodel = {'Z', 'R'};
    EXPECT_EQ(doctor_finding(patient, "link").found, "The UPS ZR answers on /dev/ttyS0.");
}

TEST_F(Doctor, AConsoleOfTheKernelOnASearchedPort)
{
    file("/sys/class/tty/console/active", "tty0 ttyS0\n");
    expect("serial console", RESULT::Problem, "/dev/ttyS0 is a console of the kernel");
    remove("/sys/class/tty/console/active");
    file("/proc/cmdline", "quiet console=ttyS0,115200n8\n");
    expect("serial console", RESULT::Problem, "/dev/ttyS0 is a console of the kernel");
    file("/proc/cmdline", "quiet console=ttyS01\n");
    expect("serial console", RESULT::Ok, "");
}

TEST_F(Doctor, ALoginOnASearchedPort)
{
    link("/etc/systemd/system/getty.target.wants/serial-getty@ttyS0.service", "/lib/nowhere");
    expect("serial console", RESULT::Problem, "A login waits on /dev/ttyS0");
    link("/etc/systemd/system/serial-getty@ttyS0.service", "/dev/null");  // masked
    expect("serial console", RESULT::Ok, "");
    remove("/etc/systemd/system/serial-getty@ttyS0.service");
    remove("/etc/systemd/system/getty.target.wants");
    file("/etc/inittab", "#T0:23:respawn:/sbin/getty -L ttyS0 9600 vt100\n");
    expect("serial console", RESULT::Ok, "");
    file("/etc/inittab", "T0:23:respawn:/sbin/getty -L ttyS0 9600 vt100\n");
    expect("serial console", RESULT::Problem, "by /etc/inittab");
}

TEST_F(Doctor, OtherSoftwareForAUps)
{
    process(300, "cupsd");
    process(301, "backups");
    process(302, "upstart");
    expect("other software", RESULT::Ok, "");
    link("/etc/systemd/system/multi-user.target.wants/some-ups-monitor.service", "/lib/nowhere");
    expect("other software", RESULT::Warning, "some-ups-monitor.service");
    for (const char *name : {"upsd", "upsmon", "apcupsd"}) {
        process(303, name);
        expect("other software", RESULT::Warning, std::string(name) + " (process 303)");
    }
    remove("/proc/303");
    remove("/etc/systemd/system");
    link("/etc/rc2.d/S01apcupsd", "../init.d/apcupsd");  // nothing that systemd looks at
    expect("other software", RESULT::Ok, "");
    remove("/run/systemd");
    expect("other software", RESULT::Warning, "started at boot: apcupsd.");
}

// ---- Programs ----

TEST_F(Doctor, ProgramsThatAreMissingAreNamedWithTheirPackages)
{
    remove("/usr/bin/wall");
    fs::permissions(system.root + "/usr/bin/write", fs::perms(0644));
    expect("programs", RESULT::Problem,
           "/usr/bin/wall is missing: no terminal is told of anything; /usr/bin/write");
    EXPECT_EQ(find("programs").advice, "Install bsdutils and bsdextrautils.");
}

TEST_F(Doctor, AMailerIsAProblemOnlyWhenSomethingIsMailed)
{
    remove("/bin/mail");
    expect("mail", RESULT::Warning, "no event is set to be mailed");
    file("/usr/lib/voltaria/config", "[ Event65 ]\n MailUser = 1\n");
    expect("mail", RESULT::Problem, "/bin/mail is missing");
    program("/bin/mail");
    expect("mail", RESULT::Warning, "no /usr/sbin/sendmail");
    program("/usr/sbin/sendmail");
    expect("mail", RESULT::Ok, "");
}

TEST_F(Doctor, OfSettingsThatCannotBeReadNothingIsClaimed)
{
    remove("/bin/mail");
    remove("/usr/lib/voltaria/config");
    directory("/usr/lib/voltaria/config");
    expect("settings", RESULT::Problem, "cannot be read: every setting has its default");
    expect("mail", RESULT::Warning, "/bin/mail is missing");
    EXPECT_THAT(find("mail").found, testing::Not(HasSubstr("no event")));
    system.privileged = false;
    expect("settings", RESULT::Warning, "cannot be read by this user");
}

TEST_F(Doctor, AShutdownProgramThatCannotDoItsWork)
{
    file("/proc/net/unix", "");
    expect("shutdown", RESULT::Problem, "Under systemd D-Bus does not run:");
    remove("/proc/80");
    expect("shutdown", RESULT::Problem, "Under systemd D-Bus does not run and systemd-logind does not run");
    remove("/run/systemd");
    expect("shutdown", RESULT::Warning, "No init");
    file("/run/initctl");
    expect("shutdown", RESULT::Ok, "can reach init");
    link("/sbin/shutdown", system.root + "/bin/systemctl");
    program("/bin/systemctl");
    expect("shutdown", RESULT::Problem, "systemd's, but systemd does not run");
    remove("/sbin/shutdown");
    expect("shutdown", RESULT::Problem, "/sbin/shutdown is missing");
}

TEST_F(Doctor, AServiceIsKnownByItsControlGroup)
{
    file("/proc/100/cgroup", "0::/system.slice/voltariad.service\n");
    EXPECT_TRUE(system_in_unit(system, "100", "voltariad.service"));
    EXPECT_FALSE(system_in_unit(system, "101", "voltariad.service"));
    file("/proc/100/cgroup", "2:cpu:/\n1:name=systemd:/system.slice/voltariad.service/x\n0::/\n");
    EXPECT_TRUE(system_in_unit(system, "100", "voltariad.service"));
    file("/proc/100/cgroup", "0::/system.slice/not-voltariad.service\n");
    EXPECT_FALSE(system_in_unit(system, "100", "voltariad.service"));
}

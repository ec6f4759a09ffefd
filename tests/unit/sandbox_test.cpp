// What the sandbox launcher promises, seen from outside: each test runs a small script in a sandbox, started
// by whoever runs the tests and by the account `ordinary`, with overlays and with the mirrored root.

#include "tests/support/testbed.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <ostream>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using testbed::Child;
using testbed::eventually;
using testbed::RunResult;
using testbed::seconds;

static const std::string PROGRAMS = VOLTARIA_PROGRAMS;
static const std::string SANDBOX = PROGRAMS + "/sandbox";

// How the sandboxes of one test are started.
struct Starter {
    const char *name;
    bool ordinary;
    bool overlay;
};

static void PrintTo(const Starter &starter, std::ostream *out)
{
    *out << starter.name;
}

static std::vector<std::string> sandbox_command(const Starter &starter, std::vector<std::string> options,
                                                const std::vector<std::string> &command)
{
    std::vector<std::string> words;
    if (starter.ordinary)
        words = {"su", "-s", "/bin/sh", "-c", "exec \"$@\"", "--", "ordinary", "sh"};
    words.push_back(SANDBOX);
    if (!starter.overlay)
        words.emplace_back("--no-overlay");
    words.insert(words.end(), options.begin(), options.end());
    words.emplace_back("--");
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

// The pids of this machine's processes that have `marker` among their arguments.
static std::vector<pid_t> processes_with(const std::string &marker)
{
    std::vector<pid_t> found;
    DIR *dir = opendir("/proc");
    while (const dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
        const pid_t pid = std::atoi(entry->d_name);
        const std::string line = testbed::read_file("/proc/" + std::string(entry->d_name) + "/cmdline");
        if (pid > 0 && pid != getpid() && line.find(marker) != std::string::npos)
            found.push_back(pid);
    }
    if (dir != nullptr)
        closedir(dir);
    return found;
}

class Sandbox : public testing::TestWithParam<Starter>
{
  protected:
    void SetUp() override
    {
        if (!GetParam().ordinary)
            return;
        if (geteuid() != 0 || getpwnam("ordinary") == nullptr)
            GTEST_SKIP() << "only root can become the account `ordinary`, and only where it exists";
        if (testbed::run({"su", "-s", "/bin/sh", "-c", "test -x " + SANDBOX, "ordinary"}).status != 0)
            GTEST_SKIP() << "the account `ordinary` cannot reach " << SANDBOX;
    }

    static RunResult run(const std::string &script, const std::vector<std::string> &options = {})
    {
        return testbed::run(sandbox_command(GetParam(), options, {"sh", "-c", script}));
    }

    // The output of a script that must succeed.
    static std::string output(const std::string &script, const std::vector<std::string> &options = {})
    {
        const RunResult result = run(script, options);
        EXPECT_EQ(result.status, 0) << result.output << result.errors;
        return result.output;
    }
};

INSTANTIATE_TEST_SUITE_P(, Sandbox,
                         testing::Values(Starter{"Self", false, true}, Starter{"SelfMirrored", false, false},
                                         Starter{"Ordinary", true, true},
                                         Starter{"OrdinaryMirrored", true, false}),
                         [](const auto &parameter) { return parameter.param.name; });

TEST_P(Sandbox, CommandRunsAsRoot)
{
    EXPECT_EQ(output("id -u; id -g"), "0\n0\n");
}

TEST_P(Sandbox, OwnersZeroAndOneExist)
{
    EXPECT_EQ(output("cd /usr/lib/voltaria && touch f && chown 0:1 f && chmod 600 f && stat -c %u:%g:%a f"),
              "0:1:600\n");
    EXPECT_EQ(output("touch /tmp/f && chown 1:0 /tmp/f && stat -c %u:%g /tmp/f"), "1:0\n");
}

TEST_P(Sandbox, InstallDirectoryIsWritableAndHoldsTheCatalogueAlone)
{
    EXPECT_EQ(output("cd /usr/lib/voltaria; find . -type f; stat -c %u:%a . locale; "
                     "touch a && ln a b && rm a && ls"),
              "./locale/ja/LC_MESSAGES/voltariad.mo\n0:755\n0:755\nb\nlocale\n");
}

TEST_P(Sandbox, KeyFileIsThereAndDebugFileIsNot)
{
    EXPECT_EQ(
        output("test -f /etc/.KAVEXUPS && echo key; test -e /.erra || echo none; touch /.erra && echo made"),
        "key\nnone\nmade\n");
}

TEST_P(Sandbox, DevHoldsNothingOfTheMachinesHardware)
{
    EXPECT_EQ(
        output("cd /dev; for n in *; do case $n in "
               "console|fd|full|null|ptmx|pts|random|shm|stderr|stdin|stdout|tty|urandom|zero) ;; "
               "*) echo $n;; esac; done; test -c console -a -c null -a -c urandom -a -c ptmx && echo nodes"),
        "nodes\n");
    EXPECT_EQ(output("head -c 4 /dev/zero | wc -c; head -c 4 /dev/urandom | wc -c; echo x > /dev/null"),
              "4\n4\n");
}

TEST_P(Sandbox, SerialPortIsThereWhenATestMakesALink)
{
    EXPECT_EQ(
        output("ls /dev/ttyS* 2>/dev/null; ln -s /dev/pts/0 /dev/ttyS0 && test -c /dev/ttyS0 && echo port"),
        "port\n");
}

TEST_P(Sandbox, ConsoleIsATerminalAndItsOutputCanBeRead)
{
    EXPECT_EQ(
        output("test -t 3 3<>/dev/console && echo terminal; printf 'one\\ntwo\\n' > /dev/console; "
               "until grep -q two /run/voltaria-test/console; do :; done; cat /run/voltaria-test/console"),
        "terminal\none\ntwo\n");
}

TEST_P(Sandbox, FloodOnTheConsoleBlocksNobody)
{
    EXPECT_EQ(output("head -c 1000000 /dev/zero | tr '\\0' x > /dev/console && echo written; "
                     "until test $(stat -c %s /run/voltaria-test/console) = 1000000; do :; done"),
              "written\n");
}

TEST_P(Sandbox, SessionLeaderThatOpensTheConsoleGetsNoControllingTerminal)
{
    EXPECT_EQ(output("setsid sh -c 'exec 0<>/dev/console; cut -d\" \" -f7 /proc/self/stat'"), "0\n");
}

TEST_P(Sandbox, OnlyItsOwnProcessesAreSeen)
{
    EXPECT_EQ(output("cd /proc; for p in [0-9]*; do test -e $p && echo $p; done"), "1\n2\n");
}

TEST_P(Sandbox, TemporaryDirectoryIsEmptyAndOpenToAll)
{
    const std::string listed = output("stat -c %a /tmp; ls -A /tmp");
    // The build directory is kept at its own path, which may lie there.
    const std::string first =
        PROGRAMS.compare(0, 5, "/tmp/") == 0 ? PROGRAMS.substr(5, PROGRAMS.find('/', 5) - 5) + "\n" : "";
    EXPECT_EQ(listed, "1777\n" + first);
}

TEST_P(Sandbox, WhatIsWrittenToTheSystemDoesNotReachTheMachine)
{
    const std::vector<std::string> places = {"/etc/sandbox-probe", "/usr/lib/sandbox-probe",
                                             "/var/log/sandbox-probe", "/usr/bin/sandbox-probe",
                                             "/sandbox-probe"};
    for (const std::string &place : places) {
        EXPECT_EQ(output("echo here > " + place + " && cat " + place), "here\n");
        EXPECT_FALSE(std::filesystem::exists(place)) << place;
    }
    for (const std::string place : {"/home/sandbox-probe", "/var/lib/sandbox-probe", "/opt/sandbox-probe"}) {
        (void)run("touch " + place);
        EXPECT_FALSE(std::filesystem::exists(place)) << place;
    }
}

TEST_P(Sandbox, AccountsAreThePrivateOnesAndNobodyHasAPassword)
{
    EXPECT_EQ(output("grep -c '^root:' /etc/passwd; cut -d: -f2 /etc/shadow | sort -u; "
                     "echo 'x:$1$y:19000:0:99999:7:::' >> /etc/shadow && getent shadow x | cut -d: -f1"),
              "1\n*\nx\n");
}

TEST_P(Sandbox, HostNameIsTheGivenOneAndResolves)
{
    EXPECT_EQ(output("uname -n; getent hosts voltaria-test | cut -d' ' -f1"), "voltaria-test\n10.77.0.1\n");
    EXPECT_EQ(output("uname -n; getent hosts rack7 | cut -d' ' -f1",
                     {"--hostname", "rack7", "--iface", "en1=10.9.8.7/16"}),
              "rack7\n10.9.8.7\n");
}

TEST_P(Sandbox, EveryPathToAProgramThatStopsTheMachineIsTheStandIn)
{
    EXPECT_EQ(
        output(
            "for d in /bin /sbin /usr/bin /usr/sbin /usr/local/bin /usr/local/sbin; do "
            "for n in shutdown halt poweroff reboot telinit init systemctl wall write mesg mail who "
            "sendmail; "
            "do p=$d/$n; test -e $p || continue; "
            "test $(readlink -f $p) = /run/voltaria-test/standin || echo real: $p; done; done; "
            "for p in /usr/bin/wall /usr/bin/write /usr/bin/mesg /bin/mail /usr/bin/who /sbin/shutdown; do "
            "test -x $p || echo missing: $p; done"),
        "");
}

TEST_P(Sandbox, StandInsNoteHowTheyWereCalled)
{
    const std::string calls =
        output("printf 'mains\\nfailed\\n' | /usr/bin/wall; /sbin/shutdown -h -t0 0; echo 'root pts/1' > "
               "/run/voltaria-test/who; who; cut -f2- /run/voltaria-test/calls");
    EXPECT_EQ(
        calls,
        "root pts/1\n/usr/bin/wall\tmains\\x0afailed\\x0a\n/sbin/shutdown\t-h\t-t0\t0\t\n/usr/bin/who\t\n");
}

TEST_P(Sandbox, StandInCanBeToldToHangOrToFail)
{
    EXPECT_EQ(output("cd /run/voltaria-test; echo 'exit 4' > standin.mail; mail root </dev/null; echo $?; "
                     "echo hang > standin.wall; timeout 0.3 wall </dev/null; echo $?"),
              "4\n124\n");
}

TEST_P(Sandbox, ExitStatusIsTheCommands)
{
    EXPECT_EQ(run("exit 0").status, 0);
    EXPECT_EQ(run("exit 3").status, 3);
    EXPECT_EQ(run("kill -9 $$").status, 128 + SIGKILL);
    EXPECT_EQ(testbed::run(sandbox_command(GetParam(), {}, {"/no/such/program"})).status, 127);
    EXPECT_EQ(testbed::run(sandbox_command(GetParam(), {}, {"/etc"})).status, 126);
}

TEST_P(Sandbox, ItsOwnFailuresEndWith125AndAMessage)
{
    for (const std::vector<std::string> &options : {std::vector<std::string>{"--no-such-option"},
                                                    {"--interfaces", "many"},
                                                    {"--iface", "eth0"},
                                                    {"--iface", "eth0=nowhere/24"},
                                                    {"--share", "/no/such/directory"}}) {
        const RunResult result = run("echo ran", options);
        EXPECT_EQ(result.status, 125) << options.front();
        EXPECT_EQ(result.output, "");
        EXPECT_NE(result.errors.find("sandbox: "), std::string::npos);
    }
}

TEST_P(Sandbox, OrphanGetsProcessOneAsParent)
{
    EXPECT_EQ(output("sh -c 'sleep 20 & echo $! > /tmp/orphan'; cut -d' ' -f4 /proc/$(cat /tmp/orphan)/stat"),
              "1\n");
}

TEST_P(Sandbox, OrphansAreReaped)
{
    EXPECT_EQ(output("sh -c 'sleep 0 & echo $! > /tmp/orphan'; p=/proc/$(cat /tmp/orphan); "
                     "while test -d $p; do :; done; echo reaped"),
              "reaped\n");
}

TEST_P(Sandbox, ProcessesThatAreLeftEndWithTheCommand)
{
    const std::string marker = "31536.25" + std::to_string(getpid());
    EXPECT_EQ(output("setsid sleep " + marker + " & while ! pgrep sleep >/dev/null; do :; done; echo up"),
              "up\n");
    EXPECT_TRUE(eventually(seconds(5), [&] { return processes_with(marker).empty(); }));
}

TEST_P(Sandbox, KilledLauncherLeavesNothingBehind)
{
    const std::string marker = "31536.75" + std::to_string(getpid());
    Child child(
        sandbox_command(GetParam(), {}, {"sh", "-c", "setsid sleep " + marker + " & sleep " + marker}), {},
        "");
    // The shell, both sleeps, process 1 and the launcher have the marker; `su` may stand before them.
    ASSERT_TRUE(eventually(seconds(10), [&] { return processes_with(marker).size() >= 5; }));
    for (const pid_t pid : processes_with(marker)) {
        const std::optional<testbed::ProcessInfo> info = testbed::process_info(pid);
        if (info && info->program == SANDBOX) {
            kill(pid, SIGKILL);  // the lowest: the launcher
            break;
        }
    }
    EXPECT_TRUE(eventually(seconds(5), [&] { return processes_with(marker).empty(); }));
    child.wait(seconds(5));
    for (const pid_t pid : processes_with(marker))
        kill(pid, SIGKILL);
}

TEST_P(Sandbox, SignalReachesTheCommand)
{
    if (GetParam().ordinary)
        GTEST_SKIP() << "su stands between";
    std::string directory = "/tmp/sandbox-share-XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const std::string script = "trap 'exit 7' TERM; touch " + directory + "/up; while :; do sleep 0.01; done";
    Child child(sandbox_command(GetParam(), {"--share", directory}, {"sh", "-c", script}), {}, "");
    EXPECT_TRUE(eventually(seconds(10), [&] { return std::filesystem::exists(directory + "/up"); }));
    child.send_signal(SIGTERM);
    EXPECT_EQ(child.wait(seconds(10)), 7);
    std::filesystem::remove_all(directory);
}

TEST_P(Sandbox, SharedDirectoryIsTheMachines)
{
    std::string directory = "/tmp/sandbox-share-XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    chmod(directory.c_str(), 0777);
    EXPECT_EQ(output("echo result > " + directory + "/out", {"--share", directory}), "");
    EXPECT_EQ(testbed::read_file(directory + "/out"), "result\n");
    std::filesystem::remove_all(directory);
}

TEST_P(Sandbox, SourceTreeIsReadableOnlyAndProgramsAreReachable)
{
    EXPECT_EQ(output("test -r " VOLTARIA_SOURCE "/include/aginfo.h && echo source; "
                     "touch " VOLTARIA_SOURCE "/probe 2>/dev/null || echo read-only; test -x " +
                     PROGRAMS + "/standin && echo programs"),
              "source\nread-only\nprograms\n");
}

TEST_P(Sandbox, SystemVBlocksAreItsOwn)
{
    EXPECT_EQ(output("ipcmk -M 100 >/dev/null; ipcs -m | grep -c ^0x"), "1\n");
    EXPECT_EQ(output("ipcs -m | grep -c ^0x || true"), "0\n");
}

TEST_P(Sandbox, WorkingDirectoryAndEnvironmentAreKept)
{
    EXPECT_EQ(output("echo $VOLTARIA_SANDBOX $HOME"), "1 /root\n");
    if (!GetParam().ordinary) {
        EXPECT_EQ(output("pwd"), std::filesystem::current_path().string() + "\n");
    }
}

TEST_P(Sandbox, SanitizerReportFailsTheRun)
{
    const RunResult result =
        run("echo 'it was here' > /run/voltaria-test/sanitizer/report.17", {"--sanitizer-logs"});
    EXPECT_EQ(result.status, 99);
    EXPECT_NE(result.errors.find("it was here"), std::string::npos);
    EXPECT_EQ(run("true", {"--sanitizer-logs"}).status, 0);
}

TEST_P(Sandbox, LeakCheckOfAKilledProcessIsNoReport)
{
    const std::string line = "echo '==7==Unable to get registers from thread 5.' > "
                             "/run/voltaria-test/sanitizer/report.7";
    EXPECT_EQ(run(line, {"--sanitizer-logs"}).status, 0);
    EXPECT_EQ(run(line + "; echo leak >> /run/voltaria-test/sanitizer/report.7", {"--sanitizer-logs"}).status,
              99);
}

TEST_P(Sandbox, FaultOfADaemonWithoutDescriptorsFailsTheRun)
{
    const RunResult result =
        run(PROGRAMS + "/sandbox_faulty; until test -e /tmp/faulty; do sleep 0.01; done; "
                       "while pgrep -x sandbox_faulty >/dev/null; do sleep 0.01; done",
            {"--sanitizer-logs"});
    EXPECT_EQ(result.status, 99) << result.output << result.errors;
    EXPECT_NE(result.errors.find("heap-use-after-free"), std::string::npos) << result.errors;
}

// The mirrored root costs a mount for every program of the machine; it is the way out of a kernel without
// overlays. The best start counts, on a busy machine the best of many.
TEST_P(Sandbox, StartsInLessThanATenthOfASecond)
{
    const auto limit = std::chrono::milliseconds(GetParam().overlay ? 100 : 1000);
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    auto best = std::chrono::steady_clock::duration::max();
    while (best >= limit && std::chrono::steady_clock::now() < patience) {
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(testbed::run(sandbox_command(GetParam(), {}, {"true"})).status, 0);
        best = std::min(best, std::chrono::steady_clock::now() - start);
    }
    EXPECT_LT(best, limit);
}

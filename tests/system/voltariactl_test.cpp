// The local management tool against the real daemon: what it shows, what it asks for, and what it says when
// that does not come about.
#include "voltariactl_stage.h"

#include <csignal>
#include <sys/mount.h>
#include <unistd.h>

using namespace bed;
using namespace control_stage;
using testbed::Daemon;
using testbed::RunResult;
using testbed::SharedBlock;
using testing::HasSubstr;
using testing::Not;

namespace
{

void wait_for_answer()
{
    wait_for_link(2);
}

}  // namespace

// ---- status ----

TEST(ControlStatus, WithoutADaemonItSaysSo)
{
    const RunResult result = control({"status"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "voltariactl: voltariad is not running\n");
    const auto json = control({"status", "--json"});
    EXPECT_EQ(json.status, 3);
    const auto stopped = nlohmann::json::parse(json.output);
    EXPECT_EQ(stopped["running"], false);
    EXPECT_EQ(stopped["reason"], "voltariad is not running");
    // The document has its keys in any case.
    for (const char *key : {"agent_pid", "ups_pid", "link", "port", "model", "state", "battery",
                            "measurements", "shutdown", "agent", "group", "last_events", "time"})
        EXPECT_TRUE(stopped.contains(key) && stopped[key].is_null()) << key;
}

TEST(ControlStatus, ShowsBothProcessesTheLinkAndTheModel)
{
    testbed::Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_answer();
    const RunResult result = control({"status"});
    EXPECT_EQ(result.status, 0) << result.errors;
    // The recorded number is that of the launching process, which has gone.
    EXPECT_THAT(result.output,
                HasSubstr("Agent             process " + std::to_string(daemon.agent_pid()) + "\n"));
    EXPECT_THAT(result.output,
                HasSubstr("UPS process       process " + std::to_string(daemon.ups_pid()) + "\n"));
    EXPECT_THAT(result.output, HasSubstr("Link              established on /dev/ttyS0\n"));
    EXPECT_THAT(result.output, HasSubstr("Model             ZR900PL\n"));
    EXPECT_THAT(result.output, HasSubstr("State             on mains\n"));
    EXPECT_THAT(result.output, HasSubstr("Shutdown          none pending\n"));
}

TEST(ControlStatus, AsADocumentItHoldsWhatThePageShows)
{
    testbed::Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_answer();
    const auto status = document({"status", "--json"});
    EXPECT_EQ(status["running"], true);
    EXPECT_EQ(status["agent_pid"], daemon.agent_pid());
    EXPECT_EQ(status["ups_pid"], daemon.ups_pid());
    EXPECT_EQ(status["link"]["text"], "established");
    EXPECT_EQ(status["port"], "/dev/ttyS0");
    EXPECT_EQ(status["model"], "ZR900PL");
    EXPECT_EQ(status["shutdown"]["pending"], false);
    EXPECT_TRUE(status["shutdown"]["cause"].is_null());
}

TEST(ControlStatus, AMainsFailureIsThePendingShutdownsCause)
{
    testbed::Simulator unit(UPSSIM, {});
    testbed::write_config("[ ShutDown ]\n\n EXPECTBLIFE = 600\n FIRSTWARN = 300\n");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_answer();
    unit.command("mains fail");
    nlohmann::json status;
    testbed::wait_until(
        "a pending shutdown", PATIENCE,
        [&] {
            status = document({"status", "--json"});
            return status["shutdown"]["pending"] == true;
        },
        [&] { return status.dump(); });
    EXPECT_EQ(status["shutdown"]["cause"], "mains-failure");
    EXPECT_EQ(status["shutdown"]["underway"], false);
    EXPECT_FALSE(status["shutdown"]["at"].is_null());
    EXPECT_THAT(control({"status"}).output,
                HasSubstr("Shutdown          pending because of a mains failure\n"));
}

TEST(ControlStatus, ANextScheduleIsNoPendingShutdown)
{
    testbed::Simulator unit(UPSSIM, {});
    testbed::write_config("[ ScheShutDown ]\n\n SPECIALNO = 1\n WEEKLYNO = 0\n MONTHLYNO = 0\n"
                          " SPECIALDAYSTART1 = 30 12 24 11 * 140\n SPECIALDAYEND1 = 30 18 24 11 * 140\n"
                          " SpecScheduleOn1 = 1\n");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_answer();
    nlohmann::json status;
    testbed::wait_until(
        "the schedule", PATIENCE,
        [&] {
            status = document({"status", "--json"});
            return status["shutdown"]["cause"] == "schedule";
        },
        [&] { return status.dump(); });
    EXPECT_EQ(status["shutdown"]["pending"], false);
    EXPECT_EQ(status["shutdown"]["at"].get<std::string>().substr(0, 13), "2040-12-24T12");
    EXPECT_THAT(control({"status"}).output, HasSubstr("Next schedule     2040-12-24 12"));
}

TEST(ControlStatus, ABlockThatAKilledDaemonLeftBehindIsNoRunningDaemon)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    kill(daemon.agent_pid(), SIGKILL);
    daemon.wait_gone(PATIENCE);
    ASSERT_TRUE(SharedBlock::exists());
    EXPECT_EQ(control({"status"}).status, 3);
}

TEST(ControlStatus, ANumberThatAnotherProgramHasNowIsNotTheDaemon)
{
    AGINFO *block = orphaned_block();
    ASSERT_NE(block, nullptr);
    shared_store(block->upspid, getpid());
    EXPECT_EQ(control({"status"}).status, 3);
    shmdt(block);
}

TEST(ControlStatus, AForeignSegmentOnTheKeyIsNotRead)
{
    ASSERT_NE(orphaned_block(100), nullptr);
    const RunResult result = control({"status"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("another size"));
}

TEST(ControlStatus, WithoutTheKeyFileItSaysWhatToDo)
{
    ASSERT_EQ(unlink("/etc/.KAVEXUPS"), 0);
    const RunResult result = control({"status"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("/etc/.KAVEXUPS is missing"));
}

// ---- stop ----

TEST(ControlStop, EndsBothProcessesAndRemovesTheBlock)
{
    testbed::Simulator unit(UPSSIM, {});
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const RunResult result = control({"stop"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output, "voltariad has stopped\n");
    EXPECT_FALSE(daemon.running());
    EXPECT_FALSE(SharedBlock::exists());
    EXPECT_THAT(testbed::read_file(testbed::EVENT_LOG), HasSubstr("   8 255"));
    EXPECT_NE(access(HELD, F_OK), 0);
}

TEST(ControlStop, WorksForADaemonThatInitStarted)
{
    Daemon daemon(VOLTARIAD);
    daemon.start_by_init();
    EXPECT_EQ(control({"stop"}).status, 0);
    EXPECT_FALSE(daemon.running());
}

TEST(ControlStop, WithNothingToStopItIsDone)
{
    const RunResult result = control({"stop"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "voltariad is not running\n");
}

TEST(ControlStop, WaitsForTheLockFileAndGoesOnWhenItIsFree)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::write_file(HELD, "");
    testbed::Child stop;
    stop.start({VOLTARIACTL, "stop"});
    std::this_thread::sleep_for(100ms);  // whatever it has done by then, it cannot have asked
    EXPECT_EQ(shared_load(SharedBlock()->isagentchg), 0);
    EXPECT_TRUE(daemon.running());
    ASSERT_EQ(unlink(HELD), 0);
    EXPECT_EQ(stop.wait(PATIENCE), 0);
    EXPECT_FALSE(daemon.running());
}

TEST(ControlStop, ALockFileThatNobodyGivesBackIsNamed)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    testbed::write_file(HELD, "");
    const RunResult result = control({"stop", "--timeout", "0.5"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("/usr/lib/voltaria/.pipelock"));
    EXPECT_THAT(result.errors, HasSubstr("remove it"));
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(shared_load(SharedBlock()->isagentchg), 0);
}

TEST(ControlStop, WaitsWhileSomebodyHoldsTheBlock)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    AGINFO *block = writable_block();
    ASSERT_NE(block, nullptr);
    shared_store(block->locked, 1);
    testbed::Child stop;
    stop.start({VOLTARIACTL, "stop"});
    std::this_thread::sleep_for(100ms);  // as above
    EXPECT_EQ(shared_load(block->isagentchg), 0);
    shared_store(block->locked, 0);
    shmdt(block);
    EXPECT_EQ(stop.wait(PATIENCE), 0);
}

TEST(ControlStop, WithoutRoomForTheLockFileItIsToldWhereToLook)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    // A daemon that has just begun may still be writing there.
    testbed::wait_until("the directory to be read-only", PATIENCE, [] {
        return mount(nullptr, "/usr/lib/voltaria", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    });
    const RunResult result = control({"stop"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors,
              "voltariactl: the lock file /usr/lib/voltaria/.LCK cannot be made: Read-only file "
              "system; see what voltariactl doctor says about the directory\n");
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(shared_load(SharedBlock()->isagentchg), 0);
}

TEST(ControlStop, ABlockThatNobodyGivesBackIsToldWithWhatToDo)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    AGINFO *block = writable_block();
    ASSERT_NE(block, nullptr);
    shared_store(block->locked, 1);
    const RunResult result = control({"stop", "--timeout", "0.3"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors,
                HasSubstr("end voltariad with \"kill -9 " + std::to_string(daemon.agent_pid()) + " " +
                          std::to_string(daemon.ups_pid()) + "\""));
    EXPECT_EQ(shared_load(block->locked), 1);
    EXPECT_EQ(shared_load(block->isagentchg), 0);
    EXPECT_NE(access(HELD, F_OK), 0);
    shared_store(block->locked, 0);
    shmdt(block);
}

TEST(ControlStop, AProcessThatDoesNotEndIsNamed)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const pid_t agent = daemon.agent_pid();
    ASSERT_EQ(kill(agent, SIGSTOP), 0);
    const RunResult result = control({"stop", "--timeout", "0.3"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("voltariad (process " + std::to_string(agent) + ")"));
    kill(agent, SIGCONT);
    daemon.wait_gone(PATIENCE);
}

TEST(ControlStop, AUpsProcessWithoutItsAgentCannotBeAskedAndIsNamed)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const pid_t ups = daemon.ups_pid();
    ASSERT_EQ(kill(ups, SIGSTOP), 0);  // otherwise it would notice and end
    kill(daemon.agent_pid(), SIGKILL);
    testbed::wait_until("the agent's end", PATIENCE, [&] { return daemon.agent_pid() == 0; });
    const RunResult status = control({"status"});
    EXPECT_EQ(status.status, 3);
    EXPECT_THAT(status.output,
                HasSubstr("Agent             gone\nUPS process       process " + std::to_string(ups) + "\n"));
    EXPECT_EQ(document({"status", "--json"})["running"], false);
    const RunResult stop = control({"stop", "--timeout", "0.2"});
    EXPECT_EQ(stop.status, 1);
    EXPECT_THAT(stop.errors, HasSubstr("run \"kill -9 " + std::to_string(ups) + "\""));
    const RunResult before = control({"before-start"});
    EXPECT_EQ(before.status, 1);
    EXPECT_EQ(before.errors, "voltariactl: A process of an earlier voltariad, " + std::to_string(ups) +
                                 ", is still there. End it with \"kill -9 " + std::to_string(ups) + "\".\n");
    EXPECT_THAT(control({"doctor"}).output,
                HasSubstr("There is only one process of voltariad, " + std::to_string(ups)));
}

TEST(ControlStop, ADaemonWhoseKeyFileWasReplacedIsNamed)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    const std::string numbers = std::to_string(daemon.agent_pid()) + " " + std::to_string(daemon.ups_pid());
    ASSERT_EQ(rename("/etc/.KAVEXUPS", "/etc/old"), 0);
    testbed::write_file("/etc/.KAVEXUPS", "");
    const RunResult stop = control({"stop", "--timeout", "0.2"});
    EXPECT_EQ(stop.status, 1);
    EXPECT_THAT(stop.errors, HasSubstr("kill -9 " + numbers));
    EXPECT_THAT(control({"doctor"}).output, HasSubstr("the file was replaced while it ran"));
    ASSERT_EQ(rename("/etc/old", "/etc/.KAVEXUPS"), 0);
}

TEST(ControlOrdinaryUser, MayLookAndNotStop)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    EXPECT_EQ(control_as_nobody({"status"}).status, 0);
    const RunResult stop = control_as_nobody({"stop"});
    EXPECT_EQ(stop.status, 1);
    EXPECT_EQ(stop.errors, "voltariactl: only root can stop voltariad\n");
    for (const char *command : {"reload", "notify-test", "before-start"})
        EXPECT_EQ(control_as_nobody({command}).status, 1) << command;
    EXPECT_EQ(testbed::calls_of("wall").size(), 0u);
    EXPECT_TRUE(daemon.running());
}

// ---- reload ----

TEST(ControlReload, TheAgentReadsItsRoleAndGroupAgain)
{
    testbed::Simulator unit(UPSSIM, {});
    testbed::write_config("[ UPS ]\n\n AgentType = 4\n Group = Group A\n");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    wait_for_answer();
    testbed::write_config("[ UPS ]\n\n AgentType = 6\n Group = Hall 2\n");
    const RunResult result = control({"reload"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(shared_load(SharedBlock()->isagentchg), 0);
    wait_for_status("the new group",
                    [](const UPS_UPSINFO &info) { return std::string(info.Group.data()) == "Hall 2"; });
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(shared_load(SharedBlock()->locked), 0);
}

TEST(ControlReload, WithoutADaemonItSaysSo)
{
    const RunResult result = control({"reload"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "voltariactl: voltariad is not running\n");
}

TEST(ControlReload, ARequestThatIsNotTakenInTimeIsToldAndStays)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    ASSERT_EQ(kill(daemon.agent_pid(), SIGSTOP), 0);
    const RunResult result = control({"reload", "--timeout", "0.3"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("has not taken the request within 0.3 s"));
    kill(daemon.agent_pid(), SIGCONT);
    const SharedBlock block;
    testbed::wait_until("the request to be taken", PATIENCE,
                        [&] { return shared_load(block->isagentchg) == 0; });
}

TEST(ControlReload, DoesNotReplaceAStopThatIsPending)
{
    Daemon daemon(VOLTARIAD);
    daemon.start();
    ASSERT_EQ(kill(daemon.agent_pid(), SIGSTOP), 0);
    SharedBlock::request(-1);
    EXPECT_EQ(control({"reload"}).status, 1);
    EXPECT_EQ(shared_load(SharedBlock()->isagentchg), -1);
    kill(daemon.agent_pid(), SIGCONT);
    testbed::UdpSocket().send("127.0.0.1", testbed::AGENT_UDP_PORT, std::string_view("\0", 1));
    daemon.wait_gone(PATIENCE);
}

// ---- notify-test ----

namespace
{

// Events 64 and 65: written to the first user, mailed to the second; whatever else is said of them.
std::string notify_settings(const std::string &more = "")
{
    return "[ ShutDown ]\n\n CloseAppTime = 5\n\n[ Event64 ]\n\n BroadcastType = 2\n BroadcastUser = 1\n"
           " Command = echo $((6*7)) > /tmp/answer\n\n[ Event65 ]\n\n MailUser = 2\n" +
           more +
           "\n[ UserInfo ]\n\n UserID = 3,9\n\n[ 3 ]\n\n Name = ann\n\n[ 9 ]\n\n Name = bob\n Email = "
           "bob@host\n";
}

// A process of an ordinary user under the daemon's name.
struct StrangersProcess {
    StrangersProcess()
    {
        EXPECT_EQ(testbed::run({"cp", "/bin/sleep", "/tmp/voltariad"}).status, 0);
        child.start({"setpriv", "--reuid", "65534", "--clear-groups", "/tmp/voltariad", "600"},
                    {{"WHERE", "stranger"}});
        testbed::wait_until("the stranger's start", PATIENCE, [this] {
            const auto info = testbed::process_info(child.pid());
            return info && info->program == "/tmp/voltariad";
        });
    }

    testbed::Child child;
};

constexpr char TEST_TEXT[] =
    "This is a test of the notifications of voltariad; nothing has happened to the UPS.\n";

}  // namespace

TEST(ControlNotify, EveryConfiguredWayCarriesTheTextAndIsReported)
{
    testbed::write_config(notify_settings());
    testbed::set_logged_in("ann pts/3 2026-11-21 18:27\nbob pts/4 2026-11-21 18:27\n");
    const RunResult result = control({"notify-test"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output,
              "wall: delivered to every terminal that takes messages\n"
              "write to ann on pts/3: delivered\n"
              "mail to bob@host: handed to /bin/mail, which took it; see whether it arrives\n");
    for (const char *name : {"wall", "write", "mail"}) {
        const auto calls = testbed::calls_of(name);
        ASSERT_EQ(calls.size(), 1u) << name;
        EXPECT_EQ(calls[0].input, TEST_TEXT) << name;
    }
    EXPECT_EQ(testbed::calls_of("write")[0].arguments, (std::vector<std::string>{"ann", "pts/3"}));
    EXPECT_EQ(testbed::calls_of("mail")[0].arguments, (std::vector<std::string>{"bob@host"}));
    EXPECT_NE(access("/tmp/answer", F_OK), 0);
}

TEST(ControlNotify, OneUserAloneIsToldByTheWaysToThatUser)
{
    testbed::write_config(notify_settings());
    EXPECT_EQ(control({"notify-test", "--user", "bob"}).status, 0);
    EXPECT_EQ(testbed::calls_of("wall").size(), 0u);
    EXPECT_EQ(testbed::calls_of("mail").size(), 1u);
    const RunResult unknown = control({"notify-test", "--user", "carl"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.output, "user carl: NOT delivered: the settings know no user of this name\n");
}

TEST(ControlNotify, AUserWhomNoEventTellsIsNamed)
{
    testbed::write_config("[ UserInfo ]\n\n UserID = 3\n\n[ 3 ]\n\n Name = ann\n Email = ann@host\n");
    EXPECT_THAT(control({"notify-test"}).output, HasSubstr("user ann: nothing sent: no event writes"));
    const RunResult result = control({"notify-test", "--user", "ann"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("user ann: NOT delivered: no event writes"));
    EXPECT_EQ(testbed::calls_of("mail").size(), 0u);
}

TEST(ControlNotify, APlaceInTheListThatNobodyHasIsNamed)
{
    testbed::write_config("[ Event64 ]\n\n MailUser = 2\n\n[ UserInfo ]\n\n UserID = 3\n\n[ 3 ]\n\n"
                          " Name = ann\n");
    EXPECT_THAT(control({"notify-test"}).output,
                HasSubstr("user 2 of the list: nothing sent: events pick this user, but the list ends "
                          "before\n"));
}

TEST(ControlNotify, AUserWhoIsNotLoggedInGetsNothingAndItIsSaid)
{
    testbed::write_config(notify_settings());
    const RunResult result = control({"notify-test", "--user", "ann"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "write to ann: NOT delivered: ann is not logged in on any terminal\n");
}

TEST(ControlNotify, AProgramThatFailsIsReportedWithItsStatus)
{
    testbed::write_config(notify_settings());
    testbed::set_logged_in("ann pts/3 2026-11-21 18:27\nann pts/4 2026-11-21 18:27\n");
    testbed::set_stand_in("mail", "exit 36");
    testbed::set_stand_in("write", "exit 1");
    const RunResult result = control({"notify-test"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("wall: delivered"));
    for (const char *terminal : {"pts/3", "pts/4"})
        EXPECT_THAT(result.output,
                    HasSubstr("write to ann on " + std::string(terminal) +
                              ": NOT delivered: /usr/bin/write ended with status 1; there is no /dev/" +
                              terminal));
    EXPECT_THAT(result.output,
                HasSubstr("mail to bob@host: NOT delivered: /bin/mail ended with status 36\n"));
}

TEST(ControlNotify, WhatAProgramSaysIsPassedOn)
{
    testbed::write_config(notify_settings());
    for (const auto &[path, script] :
         {std::pair("/bin/mail", "#!/bin/sh\ncat >/dev/null\n(sleep 0.3; echo cannot send >&2) &\n"),
          std::pair("/usr/bin/wall",
                    "#!/bin/sh\necho no terminals >&2\nhead -c 9999999 /dev/zero >&2\nexit 2\n")}) {
        unlink(path);
        testbed::write_file(path, script, 0755);
    }
    const RunResult result = control({"notify-test"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                HasSubstr("wall: NOT delivered: /usr/bin/wall ended with status 2; it says: no "
                          "terminals\n"));
    // The process that the mail program left to deliver it is heard, too.
    EXPECT_THAT(result.output, HasSubstr("see whether it arrives; it says: cannot send\n"));
}

TEST(ControlNotify, ACommandRunsInTheDaemonsEnvironment)
{
    testbed::write_config("[ Event65 ]\n\n Command = echo $WHERE $LANG > /tmp/answer\n");
    Daemon daemon(VOLTARIAD);
    daemon.environment = {{"WHERE", "daemon"}};
    daemon.start();
    setenv("WHERE", "shell", 1);
    const RunResult result = control({"notify-test", "--user", "nobody", "--command", "65"});
    EXPECT_THAT(result.output, HasSubstr("command of event 65: it ran and ended well\n"));
    EXPECT_EQ(testbed::read_file("/tmp/answer"), "daemon ja\n");
}

// Its environment would say which program is run, and with which libraries, by root.
TEST(ControlNotify, AProcessOfAnOrdinaryUserThatIsCalledLikeTheDaemonLendsNoEnvironment)
{
    testbed::write_config("[ Event65 ]\n\n Command = echo $WHERE > /tmp/answer\n");
    const StrangersProcess stranger;
    setenv("WHERE", "shell", 1);
    static_cast<void>(control({"notify-test", "--user", "nobody", "--command", "65"}));
    EXPECT_EQ(testbed::read_file("/tmp/answer"), "shell\n");
    EXPECT_EQ(control({"stop"}).output, "voltariad is not running\n");
    EXPECT_EQ(control({"before-start"}).errors, "");
}

TEST(ControlNotify, AProgramThatIsMissingIsReported)
{
    testbed::write_config(notify_settings());
    for (const char *path : {"/bin/mail", "/usr/bin/mail"})
        unlink(path);
    const RunResult result = control({"notify-test", "--user", "bob"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output,
              "mail to bob@host: NOT delivered: /bin/mail is missing or no program; install it\n");
}

TEST(ControlNotify, WhatMailWouldTakeForACommandIsRefusedAsTheDaemonRefusesIt)
{
    testbed::write_config(
        "[ Event65 ]\n\n MailUser = 1\n\n[ UserInfo ]\n\n UserID = 1\n\n[ 1 ]\n\n Name = eve\n"
        " Email = |touch /pwned\n");
    const RunResult result = control({"notify-test", "--user", "eve"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("NOT delivered: Not a mail address: |touch /pwned\n"));
    EXPECT_EQ(testbed::calls_of("mail").size(), 0u);
}

TEST(ControlNotify, AProgramThatHangsIsLeftAndDoesNotHideTheOthers)
{
    testbed::write_config(notify_settings());
    testbed::set_stand_in("wall", "hang");
    const RunResult result = control({"notify-test"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("wall: NOT delivered: /usr/bin/wall did not end within 10 s"));
    EXPECT_THAT(result.output, HasSubstr("mail to bob@host: handed to /bin/mail"));
    for (const auto &left : testbed::processes_of("/run/voltaria-test/standin"))
        kill(left.pid, SIGKILL);
}

TEST(ControlNotify, OfTwoTerminalsTheOneThatHangsIsTheOneThatIsNamed)
{
    testbed::write_config(notify_settings());
    testbed::set_logged_in("ann pts/3 2026-11-21 18:27\nann pts/4 2026-11-21 18:27\n");
    unlink("/usr/bin/write");
    testbed::write_file("/usr/bin/write",
                        "#!/bin/sh\ncat >/dev/null\n[ $2 != pts/3 ] || echo $$ >/tmp/left && "
                        "[ $2 != pts/3 ] || exec sleep 600\n",
                        0755);
    const RunResult result = control({"notify-test", "--user", "ann"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output,
                HasSubstr("write to ann on pts/3: NOT delivered: /usr/bin/write did not end within 10 s"));
    EXPECT_THAT(result.output, HasSubstr("write to ann on pts/4: delivered\n"));
    kill(std::stoi(testbed::read_file("/tmp/left")), SIGKILL);
}

TEST(ControlNotify, AnEventsCommandRunsOnRequestOnly)
{
    testbed::write_config(notify_settings());
    const RunResult result = control({"notify-test", "--user", "bob", "--command", "64"});
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("command of event 64: it ran and ended well\n"));
    EXPECT_EQ(testbed::read_file("/tmp/answer"), "42\n");
    EXPECT_THAT(control({"notify-test", "--user", "bob", "--command", "65"}).output,
                HasSubstr("command of event 65: NOT delivered: none is set\n"));
    testbed::write_config(notify_settings(" Command = exit 3\n"));
    EXPECT_THAT(control({"notify-test", "--user", "bob", "--command", "65"}).output,
                HasSubstr("NOT delivered: \"exit 3\" ended with status 3\n"));
}

// The notification programs: who is logged in where, the ten seconds of an event, names that mean something
// to the programs.
#include "tests/unit/engine_action_fixture.h"

#include "agent_utils.h"
#include "e_a_notify.h"
#include "e_a_notify_run.h"

#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

static constexpr char LIST[] = "/tmp/PROG_NAME.list";

static std::vector<std::string> terminals()
{
    std::vector<std::string> all;
    for (const auto &terminal : gszUserList) {
        if (field_view(terminal).empty())
            break;
        all.emplace_back(field_view(terminal));
    }
    return all;
}

class UserList : public Action
{
  protected:
    void SetUp() override
    {
        Action::SetUp();
        std::filesystem::remove_all(LIST);
        tell_begin();
        testbed::set_logged_in("ann      pts/3        2026-11-21 18:27 (10.0.0.1)\nroot tty1\n");
    }
};

TEST(ParseWho, TakesTheFirstTwoWords)
{
    std::string_view user;
    std::string_view tty;
    ParseWho("ann      pts/3        2026-11-21 18:27 (10.0.0.1)", &user, &tty);
    EXPECT_EQ(user, "ann");
    EXPECT_EQ(tty, "pts/3");
    ParseWho("ann pts/3", &user, &tty);
    EXPECT_EQ(tty, "pts/3");
}

TEST(ParseWho, WhatIsMissingIsEmpty)
{
    std::string_view user = "old";
    std::string_view tty = "old";
    ParseWho("", &user, &tty);
    EXPECT_EQ(user, "");
    EXPECT_EQ(tty, "");
    ParseWho("ann", &user, &tty);
    EXPECT_EQ(user, "ann");
    EXPECT_EQ(tty, "");
    ParseWho("ann   ", &user, &tty);
    EXPECT_EQ(tty, "");
    ParseWho(" pts/1", &user, &tty);
    EXPECT_EQ(user, "");
    EXPECT_EQ(tty, "pts/1");
}

TEST(ParseWho, ALongNameLeavesBothEmpty)
{
    std::string_view user;
    std::string_view tty;
    const std::string fits = std::string(31, 'n') + " pts/1";
    ParseWho(fits, &user, &tty);
    EXPECT_EQ(user, std::string(31, 'n'));
    const std::string tooLong = std::string(32, 'n') + " pts/1";
    ParseWho(tooLong, &user, &tty);
    EXPECT_EQ(user, "");
    EXPECT_EQ(tty, "");
}

TEST_F(UserList, HoldsTheTerminalsOfTheUserAndLeavesNoFile)
{
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), Lines{"pts/3"});
    EXPECT_EQ(UpdateUserList("nobody"), 1);
    EXPECT_EQ(terminals(), Lines{});
    EXPECT_EQ(UpdateUserList("an"), 1);
    EXPECT_EQ(terminals(), Lines{});
    EXPECT_FALSE(std::filesystem::exists(LIST));
    EXPECT_EQ(calls_of("who").at(0).path, "/usr/bin/who");
}

TEST_F(UserList, ANameOfThirtyTwoCharactersIsNeverMatched)
{
    const std::string name(32, 'n');
    testbed::set_logged_in(name + " pts/1\n" + name.substr(1) + " pts/2\n");
    EXPECT_EQ(UpdateUserList(name), 1);
    EXPECT_EQ(terminals(), Lines{});
    EXPECT_EQ(UpdateUserList(name.substr(1)), 1);
    EXPECT_EQ(terminals(), Lines{"pts/2"});
}

TEST_F(UserList, ALongTerminalIsCutToThirtyOneCharacters)
{
    testbed::set_logged_in("ann " + std::string(40, 't') + "\n");
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), Lines{std::string(31, 't')});
}

TEST_F(UserList, HasRoomForSixtyThreeTerminalsAndTheirEnd)
{
    std::string list;
    for (int i = 0; i < 200; ++i)
        list += "ann pts/" + std::to_string(i) + "\n";
    testbed::set_logged_in(list);
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals().size(), 63u);
    EXPECT_EQ(terminals().back(), "pts/62");
    EXPECT_EQ(gszUserList.back()[0], '\0');
}

TEST_F(UserList, ALineThatIsTooLongIsOneLine)
{
    testbed::set_logged_in("ann pts/1 " + std::string(502, 'x') + "ann pts/9\nann pts/2 " +
                           std::string(9000, 'y') + "\nann pts/3");
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), (Lines{"pts/1", "pts/2", "pts/3"}));
}

TEST_F(UserList, ALinkInTheFilesPlaceIsNotFollowed)
{
    write_file("/victim", "precious");
    std::filesystem::create_symlink("/victim", LIST);
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), Lines{"pts/3"});
    EXPECT_EQ(read_file("/victim"), "precious");
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(LIST)));
    // Neither is one to nowhere, nor is a foreign file or a pipe that nobody writes taken over.
    std::filesystem::create_symlink("/nowhere", LIST);
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_FALSE(std::filesystem::exists("/nowhere"));
    write_file(LIST, "ann forged\n");
    EXPECT_EQ(UpdateUserList("ann"), 1);
    ASSERT_EQ(mkfifo(LIST, 0666), 0);
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), Lines{"pts/3"});
}

static std::size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST_F(UserList, WhereTheFileCannotBeMadeTheListComesAllTheSame)
{
    std::filesystem::create_directories(std::string(LIST) + "/inside");
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), Lines{"pts/3"});
    EXPECT_TRUE(std::filesystem::is_directory(std::string(LIST) + "/inside"));
    std::string crowd;
    for (int i = 0; i < 2000; ++i)
        crowd += "user" + std::to_string(i) + " pts/" + std::to_string(i) + "  2026-11-21 18:27 (10.0.0.1)\n";
    testbed::set_logged_in(crowd.substr(0, 65000) + "\nann tty9\n");
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), Lines{"tty9"});
    const std::size_t before = open_descriptors();
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(open_descriptors(), before);
    std::filesystem::remove_all(LIST);
}

TEST_F(UserList, OnAFullDiskTheListComesAllTheSame)
{
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=8k"), 0);
    write_file("/tmp/filler", std::string(16384, 'x'));
    EXPECT_EQ(UpdateUserList("ann"), 1);
    EXPECT_EQ(terminals(), Lines{"pts/3"});
    EXPECT_FALSE(std::filesystem::exists(LIST));
    EXPECT_EQ(umount("/tmp"), 0);
}

TEST_F(UserList, WhileItIsWrittenItIsItsOwnersOnly)
{
    const mode_t before = umask(0);
    std::filesystem::remove("/usr/bin/who");
    write_file("/usr/bin/who",
               "#!/bin/sh\nstat -c '%a %u' /tmp/PROG_NAME.list > /tmp/mode\necho ann pts/5\n");
    chmod("/usr/bin/who", 0755);
    EXPECT_EQ(UpdateUserList("ann"), 1);
    umask(before);
    EXPECT_EQ(terminals(), Lines{"pts/5"});
    EXPECT_EQ(read_file("/tmp/mode"), "600 0\n");
}

TEST_F(UserList, AWhoThatHangsGivesNoListAfterTenSeconds)
{
    UpdateUserList("ann");
    never_ends("who");
    const std::int64_t before = utils_monotonicms();
    EXPECT_EQ(UpdateUserList("ann"), -1);
    EXPECT_NEAR(static_cast<double>(utils_monotonicms() - before), 10'000, 2000);
    EXPECT_EQ(terminals(), Lines{});
    EXPECT_EQ(error_text(), "Cannot read the list of users");
    EXPECT_FALSE(std::filesystem::exists(LIST));
}

TEST_F(UserList, AfterTheTenSecondsThereIsNone)
{
    advance(10);
    EXPECT_EQ(UpdateUserList("ann"), -1);
    EXPECT_EQ(terminals(), Lines{});
}

// ---- the ten seconds ----

TEST_F(Action, AllProgramsOfAnEventHaveTenSecondsTogether)
{
    user(0, "ann", "a@example.org");
    event(0).MailUser = 1;
    never_ends("wall");
    const std::int64_t before = utils_monotonicms();
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    EXPECT_NEAR(static_cast<double>(utils_monotonicms() - before), 10'000, 2000);
    // What had not begun was still started.
    EXPECT_TRUE(testbed::eventually(testbed::seconds(10), [] { return calls_of("mail").size() == 1; }));
    EXPECT_EQ(calls_of("mail").at(0).input, "UPS AC Restore\n");
}

TEST_F(Action, TheNextEventHasTenSecondsOfItsOwn)
{
    never_ends("wall");
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    stuck = nullptr;
    testbed::set_stand_in("wall", "");
    testbed::forget_calls();
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    EXPECT_EQ(lines(), (Lines{"mesg y", "wall <UPS AC Restore\n"}));
}

TEST_F(Action, AProgramThatDoesNotReadHoldsNobody)
{
    testbed::set_stand_in("wall", "unread");
    stuck = [] { return !calls_of("wall").empty(); };
    EXPECT_EQ(wallornot(65, std::string(1 << 20, 'x'), &ein), 0);
    EXPECT_EQ(calls_of("wall").size(), 1u);
}

TEST_F(Action, WhoWantsToEndThemIsToldTheProcessesOfThePrograms)
{
    std::vector<pid_t> started;
    program_pids = &started;
    const PROGRAM who{"/usr/bin/who", "who", {}};
    EXPECT_TRUE(program_wait(program_start(who), utils_monotonicms() + 10000));
    program_pids = nullptr;
    ASSERT_EQ(started.size(), 1u);
    EXPECT_GT(started[0], 1);
    EXPECT_EQ(error_text(), "");
}

TEST_F(Action, ATextThatCannotBeHeldIsReported)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(program_text("text"), -1);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(error_text(), "Cannot hold a text: Too many open files");
}

TEST_F(Action, MissingProgramsAreNoFailure)
{
    for (const char *program : {"/usr/bin/mesg", "/usr/bin/wall", "/usr/bin/who", "/bin/mail"})
        std::filesystem::remove(program);
    user(0, "ann", "a@example.org");
    event(0).MailUser = event(0).BroadcastUser = 1;
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    event(0).BroadcastType = 2;
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    EXPECT_EQ(lines(), Lines{});
}

// ---- names that mean something to the programs ----

TEST_F(Action, WhatMailWouldNotTakeForAnAddressIsSentNothing)
{
    event(0).BroadcastType = 3;
    event(0).MailUser = 1;
    for (const char *address :
         {"-s", "--", "|touch /pwned", "/etc/passwd", "+folder", "&x", "a@example.org,|touch /pwned",
          "a@example.org, /etc/passwd", ",-s", "a@example.org,\t +folder", " |touch /pwned"}) {
        user(0, "ann", address);
        EXPECT_EQ(told(0), Lines{}) << address;
        EXPECT_EQ(error_text(), std::string("Not a mail address: ") + address);
    }
    user(0, "ann", "a@example.org, b@example.org");
    EXPECT_EQ(calls_of("mail").size(), 0u);
    EXPECT_EQ(told(0), Lines{"mail a@example.org, b@example.org <UPS AC Restore\n"});
    user(0, "ann", "a@example.org,");
    EXPECT_EQ(told(0), Lines{"mail a@example.org, <UPS AC Restore\n"});
}

TEST_F(Action, MailHasNoShellToRunAnAddressIn)
{
    setenv("SHELL", "/bin/sh", 1);
    std::filesystem::remove("/bin/mail");
    write_file("/bin/mail", "#!/bin/bash\necho $SHELL $1 > /tmp/mail; cat >> /tmp/mail\n");
    chmod("/bin/mail", 0755);
    user(0, "ann", "$(touch /pwned)");
    event(0).MailUser = 1;
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    EXPECT_EQ(read_file("/tmp/mail"), "/bin/false $(touch /pwned)\nUPS AC Restore\n");
    EXPECT_FALSE(std::filesystem::exists("/pwned"));
}

// Some mail programs run what stands behind a tilde at the start of a line.
TEST_F(Action, NoLineOfAMailBeginsWithATilde)
{
    tell_begin();
    tell_mail("a@example.org", "~!touch /pwned\n~~ ~\nplain ~");
    EXPECT_EQ(calls_of("mail").at(0).input, " ~!touch /pwned\n ~~ ~\nplain ~\n");
}

TEST_F(Action, AnOptionIsNoUserAndNoTerminal)
{
    user(0, "-h");
    user(1, "ann");
    event(0).BroadcastType = 2;
    event(0).BroadcastUser = 0b11;
    testbed::set_logged_in("-h pts/1\nann --help\nann pts/2\n");
    EXPECT_EQ(told(0), (Lines{"who", "write ann pts/2 <UPS AC Restore\n"}));
}

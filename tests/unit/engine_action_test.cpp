// What is done about an event: who is told what, in which order, the event's command, the shutdown it starts.
#include "tests/unit/engine_action_fixture.h"

#include "agent_utils.h"
#include "e_a_notify.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

TEST_F(Action, MessagesAreEnabledForEveryEvent)
{
    EXPECT_EQ(eventaction(7, &ein, &eout), 0);
    const std::vector<Call> seen = calls();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].path, "/usr/bin/mesg");
    EXPECT_EQ(seen[0].arguments, Lines{"y"});
}

TEST_F(Action, TypesZeroAndOneShowTheEnglishTextToAll)
{
    for (const std::uint32_t type : {0u, 1u}) {
        event(0).BroadcastType = type;
        EXPECT_EQ(told(0), Lines{"wall <UPS AC Restore\n"});
        EXPECT_EQ(calls_of("wall").at(0).path, "/usr/bin/wall");
    }
}

TEST_F(Action, AnyOtherTypeShowsNothingToAll)
{
    for (const std::uint32_t type : {2u, 3u, 4u, 0xFFFFFFFFu}) {
        event(0).BroadcastType = type;
        EXPECT_EQ(told(0), Lines{});
    }
}

TEST_F(Action, MainsFailureIsMailedButNotShown)
{
    user(3, "ann", "ann@example.org");
    event(65).MailUser = event(65).BroadcastUser = 1u << 3;
    testbed::set_logged_in("ann pts/1\n");
    EXPECT_EQ(told(65), Lines{"mail ann@example.org <UPS Ac fail\n"});
    EXPECT_EQ(calls_of("mail").at(0).path, "/bin/mail");
    event(65).BroadcastType = 2;
    EXPECT_EQ(told(65), Lines{"mail ann@example.org <UPS Ac fail\n"});
}

TEST_F(Action, WhileAScheduledShutdownIsPendingOnlyItsArrivalIsShown)
{
    for (const REASON reason : {SPECIAL, WEEKLY, MONTHLY}) {
        engine.downreason = reason;
        EXPECT_EQ(told(0), Lines{});
        event(21).BroadcastType = 0;
        EXPECT_EQ(told(21), Lines{});
        EXPECT_EQ(logged().back(), 21);
        engine.DOWNREACHED = 1;
        EXPECT_EQ(told(130), Lines{"wall <specified date to turn off UPS is arrived at\n"});
        EXPECT_EQ(told(131), Lines{"wall <weekly time to turn off UPS is arrived at\n"});
        EXPECT_EQ(told(132), Lines{"wall <monthly time to turn off UPS is arrived at\n"});
    }
    engine.downreason = USER_SPECIFY;
    EXPECT_EQ(told(0), Lines{"wall <UPS AC Restore\n"});
}

TEST_F(Action, AScheduledShutdownHoldsNoMailBack)
{
    engine.downreason = WEEKLY;
    user(0, "ann", "a@example.org");
    event(0).MailUser = 1;
    EXPECT_EQ(told(0), Lines{"mail a@example.org <UPS AC Restore\n"});
}

TEST_F(Action, ChosenUsersAreWrittenToOnEachOfTheirTerminals)
{
    user(0, "ann");
    user(1, "bob");
    user(2, "eve");
    event(0).BroadcastType = 2;
    event(0).BroadcastUser = 0b11;
    testbed::set_logged_in("bob  tty1   2026-11-21 18:00\n"
                           "ann  pts/0  2026-11-21 18:01 (host)\n"
                           "eve  pts/7  2026-11-21 18:02\n"
                           "ann  pts/12 2026-11-21 18:03\n");
    EXPECT_EQ(told(0),
              (Lines{"who", "write ann pts/0 <UPS AC Restore\n", "write ann pts/12 <UPS AC Restore\n", "who",
                     "write bob tty1 <UPS AC Restore\n"}));
    EXPECT_EQ(calls_of("write").at(0).path, "/usr/bin/write");
    // A scheduled shutdown keeps others off the terminals only where it is shown to all.
    engine.downreason = WEEKLY;
    EXPECT_EQ(told(0).size(), 5u);
}

TEST_F(Action, UserByUserTheTerminalsComeBeforeTheMailAndTheCommandIsLast)
{
    user(0, "ann", "a@example.org");
    user(31, "bob", "b@example.org");
    event(0).BroadcastType = 2;
    event(0).BroadcastUser = event(0).MailUser = 1u | 1u << 31;
    field_set(event(0).Command, "cp /run/voltaria-test/calls /tmp/at-command");
    testbed::set_logged_in("ann pts/0\nbob pts/1\n");
    EXPECT_EQ(told(0),
              (Lines{"who", "write ann pts/0 <UPS AC Restore\n", "mail a@example.org <UPS AC Restore\n",
                     "who", "write bob pts/1 <UPS AC Restore\n", "mail b@example.org <UPS AC Restore\n"}));
    EXPECT_EQ(read_file("/tmp/at-command"), read_file("/run/voltaria-test/calls"));
    EXPECT_EQ(logged(), std::vector{0});
}

// ---- in two languages ----

class Translated : public Action
{
  protected:
    void SetUp() override
    {
        Action::SetUp();
        const std::filesystem::path messages = "/usr/lib/voltaria/locale/ja/LC_MESSAGES";
        std::filesystem::create_directories(messages);
        std::filesystem::copy_file(TEXT_CATALOGUE_EUC, messages / "voltariad.mo");
        user(0, "ann", "a@example.org");
        testbed::set_logged_in("ann pts/1\n");
    }
};

TEST_F(Translated, MailIsInJapaneseAndTerminalsAreToldInEnglish)
{
    event(0).MailUser = event(0).BroadcastUser = 1;
    const std::string mail = "mail a@example.org <\xc9\xfc\xc5\xc5\xa4\xc7\xa4\xb9\n";
    EXPECT_EQ(told(0), (Lines{"wall <UPS AC Restore\n", mail}));
    event(0).BroadcastType = 2;
    EXPECT_EQ(told(0), (Lines{"who", "write ann pts/1 <UPS AC Restore\n", mail}));
}

TEST_F(Translated, ANameThatATranslationBeginsWithIsNoCommandToMail)
{
    UPS_AGENTDOWNINFO order{};
    AGENTCMD command{DATAID_SHUTDOWN, {&order}};
    ein.DATA.acp = &command;
    event(79).BroadcastType = 3;
    event(79).MailUser = 1;
    field_set(order.Agent, "~!touch /pwned");
    EXPECT_EQ(told(79), Lines{"mail a@example.org < ~!touch /pwned"
                              "\xa4\xab\xa4\xe9\xc4\xe4\xbb\xdf\xcc\xbf\xce\xe1\n"});
    field_set(order.Agent, "a\n~!touch /p");
    EXPECT_EQ(told(79), Lines{"mail a@example.org <a?~!touch /p"
                              "\xa4\xab\xa4\xe9\xc4\xe4\xbb\xdf\xcc\xbf\xce\xe1\n"});
}

TEST_F(Action, UsersArePickedBySlotWhateverTheirNumberIs)
{
    userinfo.nusers = 0;
    user(31, "bob", "b@example.org");
    event(0).BroadcastType = 3;
    event(0).MailUser = 0xFFFFFFFF;
    EXPECT_EQ(told(0), Lines{"mail b@example.org <UPS AC Restore\n"});
    userinfo.nusers = 1'000'000;
    EXPECT_EQ(told(0).size(), 1u);
}

TEST_F(Action, EmptySlotsAreSentNothing)
{
    event(0).BroadcastType = 2;
    event(0).BroadcastUser = event(0).MailUser = 0xFFFFFFFF;
    testbed::set_logged_in(" pts/1\nann pts/2\n");
    EXPECT_EQ(told(0), Lines{});
}

TEST_F(Action, FieldsWithoutTheirEndAreReadToTheirEnd)
{
    users[0].UserName.fill('u');
    users[0].Address.fill('h');
    users[0].Email.fill('m');
    event(0).BroadcastType = 2;
    event(0).BroadcastUser = event(0).MailUser = 1;
    const std::string name(21, 'u');
    testbed::set_logged_in(name + " pts/1\n");
    EXPECT_EQ(told(0), (Lines{"who", "write " + name + " pts/1 <UPS AC Restore\n",
                              "mail " + std::string(260, 'm') + " <UPS AC Restore\n"}));
}

TEST_F(Action, WithoutUsersTheRestStillHappens)
{
    event(0).BroadcastUser = event(0).MailUser = 0xFFFFFFFF;
    ein.DATA.eu.uip = nullptr;
    EXPECT_EQ(told(0), Lines{"wall <UPS AC Restore\n"});
    ein.DATA.eu.uip = &userinfo;
    userinfo.udp = nullptr;
    EXPECT_EQ(told(0), Lines{"wall <UPS AC Restore\n"});
}

TEST_F(Action, AnUnknownEventDoesNothingAtAll)
{
    EXPECT_EQ(eventaction(99, &ein, &eout), -1);
    event(0).EventID = 99;  // in the table but without a text; 0 has a text but is not in the table
    EXPECT_EQ(eventaction(99, &ein, &eout), -1);
    EXPECT_EQ(eventaction(0, &ein, &eout), -1);
    ein.DATA.eu.eap = nullptr;
    EXPECT_EQ(eventaction(7, &ein, &eout), -1);
    EXPECT_EQ(lines(), Lines{});
    EXPECT_EQ(logged(), std::vector<int>{});
}

TEST_F(Action, AGetOfTheEventSettingsBringsItsOwnTables)
{
    std::array<UPS_EVENTINFO, EVENT_TABLE_SIZE> others = events;
    std::array<USERSDATA, USER_COUNT> otherusers{};
    UPS_USERSINFO otherinfo{1, otherusers.data()};
    field_set(otherusers[0].Email, "other@example.org");
    for (UPS_EVENTINFO &row : others)
        row.MailUser = 1;
    eout.DATA.eu = {others.data(), &otherinfo};
    engine.CURRENTCMD = E_CMD_GETEVENT;
    EXPECT_EQ(told(9), Lines{"mail other@example.org <UPS Working SetParameters is changed\n"});
    engine.CURRENTCMD = E_CMD_SETEVENT;
    EXPECT_EQ(told(9), Lines{});
}

TEST_F(Action, AnEventIsInTheLogBeforeAnybodyIsTold)
{
    std::filesystem::remove("/usr/bin/wall");
    write_file("/usr/bin/wall", "#!/bin/sh\ncp /usr/lib/voltaria/events.log /tmp/at-wall\n");
    ASSERT_EQ(chmod("/usr/bin/wall", 0755), 0);
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    EXPECT_EQ(read_file("/tmp/at-wall").size(), 44u);
}

TEST_F(Action, AnEventThatCannotBeLoggedIsActedOnAllTheSame)
{
    std::filesystem::create_symlink("/dev/full", LOG_PATH);
    EXPECT_EQ(eventaction(0, &ein, &eout), -1);
    EXPECT_EQ(lines(), (Lines{"mesg y", "wall <UPS AC Restore\n"}));
}

TEST_F(Action, AnEventThatIsNotLoggedIsOneOfTheLastTwoAllTheSame)
{
    event(65).Record = 0;
    told(65);
    engine.EVENTLOGENABLED = 0;
    told(0);
    EXPECT_EQ(engine.last2event[0].EventId, 65);
    EXPECT_EQ(engine.last2event[1].EventId, 0);
    EXPECT_EQ(logged(), std::vector<int>{});
}

// ---- names from the network ----

TEST_F(Action, TheMonitorsNameStandsInTheTextsOfItsOrders)
{
    UPS_AGENTDOWNINFO order{};
    field_set(order.Agent, "desk7");
    AGENTCMD command{DATAID_SHUTDOWN, {&order}};
    ein.DATA.acp = &command;
    user(0, "ann", "a@example.org");
    event(79).MailUser = 1;
    EXPECT_EQ(told(79), (Lines{"wall <Receive shutdown Command From Users on desk7\n",
                               "mail a@example.org <Receive shutdown Command From Users on desk7\n"}));
    std::array<char, 16> name{"console"};
    command.cmd = DATAID_CANCELSHUTDOWN;
    command.arg.hp = name.data();
    event(21).BroadcastType = 2;
    event(21).BroadcastUser = 1;
    testbed::set_logged_in("ann pts/1\n");
    EXPECT_EQ(told(21), (Lines{"who", "write ann pts/1 <The Shutdown is Canceled by Users on console\n"}));
}

TEST_F(Action, AHostileNameIsShownAsItStandsAndRunsNothing)
{
    UPS_AGENTDOWNINFO order{};
    AGENTCMD command{DATAID_SHUTDOWN, {&order}};
    ein.DATA.acp = &command;
    event(79).BroadcastType = 0;
    for (const char *name :
         {"$(touch /pwned)", "`touch /pwned`", "; touch /pwned", "\nEOF\ntouch /p", "%n%s%1$s"}) {
        field_set(order.Agent, name);
        const std::string text = "Receive shutdown Command From Users on " + one_line(name) + "\n";
        EXPECT_EQ(told(79), Lines{"wall <" + text});
        // As a user and an address too.
        event(79).MailUser = event(79).BroadcastUser = 1;
        event(79).BroadcastType = 2;
        user(0, name, name);
        testbed::set_logged_in("x pts/1\n");
        EXPECT_EQ(told(79), (Lines{"who", "mail " + std::string(name) + " <" + text}));
        event(79).MailUser = event(79).BroadcastType = 0;
    }
    EXPECT_FALSE(std::filesystem::exists("/pwned"));
    EXPECT_FALSE(std::filesystem::exists("/p"));
}

TEST_F(Action, ANameCannotForgeLinesOnTerminals)
{
    UPS_AGENTDOWNINFO order{};
    order.Agent = {'a',  '\n',   'B',    '\r',   '\033', '[', '2', 'J',
                   '\a', '\x7f', '\x8e', '\xb1', 'c',    'd', 'e', 'f'};
    AGENTCMD command{DATAID_SHUTDOWN, {&order}};
    ein.DATA.acp = &command;
    EXPECT_EQ(told(79), Lines{"wall <Receive shutdown Command From Users on a?B??[2J??\x8e\xb1"
                              "cdef\n"});
}

// ---- the command ----

TEST_F(Action, TheCommandRunsThroughTheShellAsItStands)
{
    field_set(event(7).Command, "echo $((6*7)) \"a  b\" > /tmp/out; echo `echo second` >> /tmp/out");
    EXPECT_EQ(told(7), Lines{});
    EXPECT_EQ(read_file("/tmp/out"), "42 a  b\nsecond\n");
}

TEST_F(Action, TheCommandStartsWithNothingOfTheDaemons)
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    ASSERT_EQ(sigprocmask(SIG_BLOCK, &pipe, nullptr), 0);
    for (const int signo : {SIGTERM, SIGHUP, SIGINT, SIGALRM, SIGPIPE})
        std::signal(signo, SIG_IGN);
    const int leak = open("/dev/zero", O_RDONLY);
    ASSERT_GE(leak, 3);
    const mode_t before = umask(0);
    field_set(event(7).Command,
              std::string("exec > /tmp/state; umask; pwd; ") + SHOW_SIGNALS +
                  "ls -l /proc/$$/fd | sed -n 's/.*-> //p'; ps -o sid= -p $$ | grep -c \" *$$\\$\"");
    eventaction(7, &ein, &eout);
    umask(before);
    close(leak);
    const std::string state = read_file("/tmp/state");
    EXPECT_EQ(state.substr(0, state.find("/tmp/state")),
              "0022\n/\n0000000000000000\n0000000000000000\n/dev/null\n")
        << state;
    EXPECT_EQ(state.find("/dev/zero"), std::string::npos) << state;
    EXPECT_EQ(state.find("socket"), std::string::npos) << state;
    // The daemon itself is as it was.
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    EXPECT_TRUE(sigismember(&now, SIGPIPE));
    EXPECT_FALSE(sigismember(&now, SIGCHLD));
}

TEST_F(Action, TheCommandIsWaitedFor)
{
    field_set(event(7).Command, "sleep 0.3; touch /tmp/done");
    told(7);
    EXPECT_TRUE(std::filesystem::exists("/tmp/done"));
}

class CommandPatience : public Action
{
  protected:
    // Seconds that pass for a command that does not end.
    std::int64_t passed(std::uint32_t closeapptime)
    {
        ups.up.workparam.nCloseAppTime = closeapptime;
        field_set(event(7).Command, "touch /tmp/begun; exec sleep 600");
        std::filesystem::remove("/tmp/begun");
        stuck = [] { return std::filesystem::exists("/tmp/begun"); };
        const std::int64_t before = utils_monotonicms();
        EXPECT_EQ(eventaction(7, &ein, &eout), 0);
        return (utils_monotonicms() - before) / 1000;
    }
};

TEST_F(CommandPatience, ACommandIsLeftToItselfAfterTheSetTime)
{
    EXPECT_NEAR(static_cast<double>(passed(300)), 300, 20);
    EXPECT_NEAR(static_cast<double>(passed(1)), 1, 20);
}

TEST_F(CommandPatience, NoTimeMeansNotToWait)
{
    EXPECT_LT(passed(0), 20);
    EXPECT_LT(passed(0xFFFFFFFF), 20);
}

TEST_F(CommandPatience, NoSettingHoldsTheEngineLongerThanAnHour)
{
    EXPECT_NEAR(static_cast<double>(passed(0x7FFFFFFF)), 3600, 20);
}

TEST_F(CommandPatience, TheShutdownOfAnEventIsDueOnceItsCommandHasHadItsTime)
{
    const std::time_t before = timenow();
    event(7).Shutdown = 1;
    passed(300);
    EXPECT_GE(engine.next_off, before + 280);
    EXPECT_EQ(engine.EVENTTRIGGER_off, engine.next_off);
    EXPECT_EQ(engine.downreason, EVENT_TRIGGER);
}

// ---- the shutdown that an event starts ----

TEST_F(Action, AnEventWithItsShutdownSetMakesItDueAtOnce)
{
    EXPECT_EQ(eventaction(128, &ein, &eout), 0);
    EXPECT_EQ(engine.DOWNEVENTID, 128);
    EXPECT_EQ(engine.downreason, EVENT_TRIGGER);
    EXPECT_EQ(engine.EVENTTRIGGER_off, timenow());
    EXPECT_EQ(engine.next_off, timenow());
}

TEST_F(Action, AnEventWithoutItStartsNothing)
{
    EXPECT_EQ(eventaction(65, &ein, &eout), 0);
    EXPECT_EQ(engine.DOWNEVENTID, EVENT_NONE);
    EXPECT_EQ(engine.downreason, NONE);
}

TEST_F(Action, OrdersAndTheEndItselfNeverStartAShutdown)
{
    for (const int id : {79, 22, 80}) {
        event(id).Shutdown = 1;
        EXPECT_EQ(eventaction(id, &ein, &eout), 0);
        EXPECT_EQ(engine.DOWNEVENTID, id);
        EXPECT_EQ(engine.downreason, NONE);
        EXPECT_EQ(engine.next_off, 0);
    }
}

TEST_F(Action, NothingIsStartedOnceADeadlineIsReached)
{
    engine.DOWNREACHED = 1;
    engine.downreason = AC_FAIL;
    EXPECT_EQ(eventaction(128, &ein, &eout), 0);
    EXPECT_EQ(engine.downreason, AC_FAIL);
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_EQ(engine.DOWNEVENTID, 128);
}

TEST_F(Action, AShutdownUnderWayIsNotStartedOver)
{
    const std::time_t now = timenow();
    const auto starts = [&](std::time_t next, std::time_t trigger, std::time_t acfail) {
        engine.next_off = next;
        engine.EVENTTRIGGER_off = trigger;
        engine.ACFAIL_off = acfail;
        engine.downreason = NONE;
        EXPECT_EQ(eventaction(128, &ein, &eout), 0);
        return engine.downreason == EVENT_TRIGGER;
    };
    EXPECT_FALSE(starts(now - 5, now - 5, 0));
    EXPECT_FALSE(starts(now - 6, now - 5, now - 1));
    EXPECT_TRUE(starts(0, now - 5, 0));              // no deadline
    EXPECT_TRUE(starts(now - 4, now - 5, 0));        // later than the trigger
    EXPECT_TRUE(starts(now + 5, now + 5, 0));        // not passed
    EXPECT_TRUE(starts(now - 5, now - 5, now + 9));  // mains failure still to come
}

// ---- warnings ----

TEST_F(Action, AWarningGoesWhereItsEventGoes)
{
    user(0, "ann", "a@example.org");
    event(65).MailUser = event(65).BroadcastUser = 1;
    field_set(event(65).Command, "touch /tmp/ran");
    testbed::set_logged_in("ann pts/4\n");
    EXPECT_EQ(wallornot(65, "Going down in 5 minutes", &ein), 0);
    EXPECT_EQ(lines(), Lines{"wall <Going down in 5 minutes\n"});
    event(65).BroadcastType = 2;
    testbed::forget_calls();
    EXPECT_EQ(wallornot(65, "a\nb", &ein), 0);
    EXPECT_EQ(lines(), (Lines{"who", "write ann pts/4 <a?b\n"}));
    event(65).BroadcastType = 3;
    testbed::forget_calls();
    EXPECT_EQ(wallornot(65, "text", &ein), 0);
    EXPECT_EQ(lines(), Lines{});
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
    EXPECT_EQ(logged(), std::vector<int>{});
}

TEST_F(Action, AWarningOfAnUnknownEventFails)
{
    EXPECT_EQ(wallornot(99, "text", &ein), -1);
    ein.DATA.eu.eap = nullptr;
    EXPECT_EQ(wallornot(65, "text", &ein), -1);
    EXPECT_EQ(lines(), Lines{});
}

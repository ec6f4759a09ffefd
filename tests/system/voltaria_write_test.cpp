// The commands of `voltaria` that change settings and give orders, against the real daemon: what an
// administrator types, what he is told, how the program ends, and what the agent's files and its unit have of
// it afterwards.
#include "bed.h"

#include "tests/unit/monitor_terminal.h"

#include <crypt.h>
#include <fstream>
#include <nlohmann/json.hpp>

using namespace bed;
using testbed::Daemon;
using testbed::Simulator;
using testbed::SimulatorOptions;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace
{

using WORDS = std::vector<std::string>;

// Nothing here waits that long when all is well; a loaded machine may.
PROGRAM_RESULT voltaria(WORDS arguments)
{
    arguments.insert(arguments.end(), {"--timeout", "40"});
    return run_program(arguments);
}

// What a command prints that must succeed.
std::string done(const WORDS &arguments)
{
    const PROGRAM_RESULT result = voltaria(arguments);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(arguments) << result.errors;
    return result.output;
}

// What a command complains of that must end so.
std::string refused(const WORDS &arguments, int status)
{
    const PROGRAM_RESULT result = voltaria(arguments);
    EXPECT_EQ(result.status, status) << testing::PrintToString(arguments) << result.output;
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, StartsWith("voltaria: "));
    return result.errors;
}

nlohmann::json document(WORDS arguments)
{
    arguments.push_back("--json");
    return nlohmann::json::parse(done(arguments));
}

std::function<bool(const std::string &)> showing(const std::string &text)
{
    return [text](const std::string &screen) { return screen.find(text) != std::string::npos; };
}

// An agent without a unit and without a settings file.
class VoltariaSettings : public testing::Test
{
  protected:
    VoltariaSettings()
    {
        daemon.start();
    }

    Daemon daemon{VOLTARIAD};
};

// An agent in touch with its unit.
class VoltariaOrders : public testing::Test
{
  protected:
    void begin(const std::string &model)
    {
        SimulatorOptions options;
        options.model = model;
        unit = std::make_unique<Simulator>(UPSSIM, options);
        testbed::write_config("[ UPS ]\n\n AgentType = 4\n");
        daemon.start();
        wait_for_link(2);
    }

    std::unique_ptr<Simulator> unit;
    Daemon daemon{VOLTARIAD};
};

}  // namespace

// ---- config ----

TEST_F(VoltariaSettings, ASettingIsChangedInTheFileAndReadBack)
{
    EXPECT_EQ(done({"config", "get", "EXPECTBLIFE"}), "60\n");
    EXPECT_EQ(done({"config", "set", "battery-time", "5min"}), "EXPECTBLIFE: 60 s -> 300 s\n");
    EXPECT_EQ(done({"config", "get", "battery-time"}), "300\n");
    EXPECT_THAT(testbed::read_config(), HasSubstr(" EXPECTBLIFE = 300\n"));
    EXPECT_EQ(done({"config", "set", "battery-time", "300"}), "EXPECTBLIFE is 300 s already\n");
    // The first key of a section that the file does not have yet.
    EXPECT_EQ(done({"config", "set", "event-log", "off"}), "EventLogEnabled: on -> off\n");
    EXPECT_EQ(done({"config", "set", "auto-restart", "off"}), "AutoBoot: on -> off\n");
    EXPECT_EQ(done({"config", "set", "role", "high"}), "AgentType: low -> high\n");
    EXPECT_EQ(done({"config", "set", "group", "\u7ba1\u7406"}), "Group: Group A -> \u7ba1\u7406\n");
    EXPECT_THAT(testbed::read_config(), HasSubstr(" Group = \xB4\xC9\xCD\xFD\n"));
    const nlohmann::json config = document({"config", "get"});
    EXPECT_EQ(config.at("EXPECTBLIFE"), 300);
    EXPECT_EQ(config.at("EventLogEnabled"), false);
    EXPECT_EQ(config.at("AgentType"), "high");
    EXPECT_EQ(config.at("Group"), "\u7ba1\u7406");
    EXPECT_EQ(config.at("TurnOffDelay"), 600);
    EXPECT_EQ(config.at("ComSet"), "auto");
    EXPECT_THAT(done({"config", "get"}),
                AllOf(HasSubstr("EXPECTBLIFE           300 s"), HasSubstr("battery-time")));
}

TEST_F(VoltariaSettings, NonsenseIsRefusedAndChangesNothing)
{
    EXPECT_THAT(refused({"config", "set", "EXPECTBLIFE", "100000"}, 2), HasSubstr("must be 0 s to 86400 s"));
    EXPECT_THAT(refused({"config", "set", "colour", "red"}, 2), HasSubstr("no setting \"colour\""));
    EXPECT_THAT(refused({"config", "get", "colour"}, 2), HasSubstr("no setting \"colour\""));
    EXPECT_THAT(refused({"config", "set", "group", "sixteen letters!"}, 2), HasSubstr("too long by 1 byte"));
    EXPECT_THAT(refused({"config", "set", "BSUSPEND", "on"}, 2), HasSubstr("cannot be set"));
    EXPECT_THAT(refused({"config", "set", "role", "protector"}, 1), HasSubstr("nothing was sent"));
    EXPECT_EQ(done({"config", "get", "EXPECTBLIFE"}), "60\n");
    EXPECT_THAT(refused({"config", "get", "--port", "4100"}, 3), HasSubstr("cannot reach"));
}

TEST(VoltariaProtector, KeepsNoSettingsAndSaysSo)
{
    testbed::write_config("[ UPS ]\n\n AgentType = 1\n");
    Daemon daemon(VOLTARIAD);
    daemon.start();
    for (const WORDS &arguments :
         {WORDS{"config", "get"}, WORDS{"config", "set", "battery-time", "90"}, WORDS{"events", "list"},
          WORDS{"users", "add", "root"}, WORDS{"schedule", "list"},
          WORDS{"schedule", "add", "selftest", "--weekly", "mon", "--from", "10:00"}})
        EXPECT_THAT(refused(arguments, 1), HasSubstr("it is a protector"));
}

TEST_F(VoltariaSettings, AServerBecomesAProtectorWhenThatIsMeant)
{
    EXPECT_EQ(done({"config", "set", "role", "protector", "--yes"}), "AgentType: low -> protector\n");
    EXPECT_THAT(refused({"config", "get"}, 1), HasSubstr("it is a protector"));
}

// ---- events and users ----

TEST_F(VoltariaSettings, UsersAreAddedToldAndRemoved)
{
    EXPECT_EQ(done({"users", "list"}), "The agent has no users.\n");
    EXPECT_EQ(done({"users", "add", "root"}), "Added user 1, root.\n");
    EXPECT_EQ(done({"users", "add", "ops", "--email", "ops@example.org"}), "Added user 2, ops.\n");
    EXPECT_EQ(done({"users", "add", "\u7ba1\u7406"}), "Added user 3, \u7ba1\u7406.\n");
    EXPECT_THAT(
        done({"events", "set", "65", "--write", "root,ops", "--mail", "\u7ba1\u7406", "--record", "off"}),
        HasSubstr("root, ops"));
    EXPECT_EQ(done({"users", "remove", "root"}), "Removed user root.\nNo longer told of: 65\n");
    const nlohmann::json event = document({"events", "list", "65"}).at(0);
    EXPECT_EQ(event.at("terminals"), nlohmann::json({"ops"}));
    EXPECT_EQ(event.at("mail"), nlohmann::json({"\u7ba1\u7406"}));
    EXPECT_EQ(event.at("log"), false);
    const nlohmann::json users = document({"users", "list"});
    ASSERT_EQ(users.size(), 2U);
    EXPECT_EQ(users.at(0).at("number"), 2);
    EXPECT_EQ(users.at(0).at("email"), "ops@example.org");
    EXPECT_EQ(users.at(1).at("name"), "\u7ba1\u7406");
    EXPECT_THAT(testbed::read_config(), HasSubstr(" UserID = 2,3\n"));
}

TEST_F(VoltariaSettings, AnEventIsChangedWhereItWasNamedAndNowhereElse)
{
    const nlohmann::json before = document({"events", "list"});
    ASSERT_EQ(before.size(), 47U);
    EXPECT_THAT(done({"events", "set", "78", "--shutdown", "on", "--no-broadcast", "--command",
                      "logger '\u505c\u96fb'", "--yes"}),
                AllOf(HasSubstr("UPS overload"), HasSubstr("command: logger '\u505c\u96fb'")));
    const nlohmann::json after = document({"events", "list"});
    for (std::size_t i = 0; i < before.size(); i++)
        EXPECT_EQ(before.at(i) != after.at(i), before.at(i).at("id") == 78) << after.at(i);
    const nlohmann::json event = document({"events", "list", "78"}).at(0);
    EXPECT_EQ(event.at("shutdown"), true);
    EXPECT_EQ(event.at("command"), "logger '\u505c\u96fb'");
    EXPECT_THAT(testbed::read_config(), HasSubstr(" Command = logger '\u505c\u96fb'\n"));
}

TEST_F(VoltariaSettings, EventsAndUsersThatCannotBeAreRefused)
{
    EXPECT_THAT(refused({"events", "set", "200", "--record", "off"}, 2), HasSubstr("no event 200"));
    EXPECT_THAT(refused({"events", "set", "65", "--mail", "nobody"}, 1), HasSubstr("no user \"nobody\""));
    EXPECT_THAT(refused({"events", "set", "65"}, 2), HasSubstr("what is to change?"));
    EXPECT_EQ(voltaria({"events", "set", "65", "--wall", "--no-broadcast"}).status, 2);
    EXPECT_THAT(refused({"events", "set", "78", "--shutdown", "on"}, 1), HasSubstr("nothing was sent"));
    EXPECT_THAT(refused({"users", "remove", "nobody"}, 1), HasSubstr("no user \"nobody\""));
    EXPECT_THAT(refused({"users", "add", "two words"}, 2), HasSubstr("one word"));
    done({"users", "add", "root"});
    EXPECT_THAT(refused({"users", "add", "root"}, 1), HasSubstr("already"));
}

// ---- schedule ----

TEST_F(VoltariaSettings, ScheduleEntriesAreAddedListedAndRemoved)
{
    EXPECT_EQ(done({"schedule", "list"}), "Nothing is scheduled.\n");
    EXPECT_EQ(done({"schedule", "add", "shutdown", "--weekly", "mon", "--from", "22:00", "--until", "6:00"}),
              "Added: shutdown   every Monday 22:00 to Tuesday 06:00\n");
    EXPECT_EQ(done({"schedule", "add", "selftest", "--monthly", "1", "--from", "10:00"}),
              "Added: self-test  every month on day 1 10:00\n");
    EXPECT_EQ(done({"schedule", "add", "shutdown", "--date", "2037-01-02", "--from", "22:00", "--until",
                    "2037-01-05 06:00", "--off"}),
              "Added: shutdown   2037-01-02 22:00 to 2037-01-05 06:00  (off)\n");
    EXPECT_EQ(done({"schedule", "list"}), "1    shutdown   2037-01-02 22:00 to 2037-01-05 06:00  (off)\n"
                                          "2    shutdown   every Monday 22:00 to Tuesday 06:00\n"
                                          "3    self-test  every month on day 1 10:00\n");
    EXPECT_THAT(testbed::read_config(), AllOf(HasSubstr(" SPECIALDAYSTART1 = 0 22 2 0 * 137\n"),
                                              HasSubstr(" WEEKLYEND1 = 0 6 * * 2\n")));
    EXPECT_EQ(done({"schedule", "remove", "2"}), "Removed: shutdown   every Monday 22:00 to Tuesday 06:00\n");
    const nlohmann::json entries = document({"schedule", "list"});
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries.at(0).at("end"), nlohmann::json::parse(R"({"day": "2037-01-05", "time": "06:00"})"));
    EXPECT_EQ(entries.at(0).at("on"), false);
    EXPECT_EQ(entries.at(1).at("action"), "self-test");
}

TEST_F(VoltariaSettings, ScheduleEntriesThatCannotBeAreRefused)
{
    done({"schedule", "add", "selftest", "--weekly", "sun", "--from", "10:00"});
    EXPECT_THAT(refused({"schedule", "add", "selftest", "--weekly", "sunday", "--from", "10:00"}, 1),
                HasSubstr("scheduled already"));
    EXPECT_THAT(refused({"schedule", "remove", "2"}, 1), HasSubstr("there is no entry 2"));
    EXPECT_THAT(refused({"schedule", "add", "shutdown", "--weekly", "mon", "--from", "22:00"}, 2),
                HasSubstr("needs --until"));
    EXPECT_THAT(refused({"schedule", "add", "selftest", "--date", "2037-02-29", "--from", "10:00"}, 2),
                HasSubstr("a date such as"));
    EXPECT_EQ(voltaria({"schedule", "add", "selftest", "--from", "10:00"}).status, 2);
    EXPECT_EQ(
        voltaria({"schedule", "add", "selftest", "--weekly", "mon", "--monthly", "2", "--from", "10:00"})
            .status,
        2);
}

// ---- Orders ----

TEST_F(VoltariaOrders, ReachTheUnitAndAreSeenInTheStatus)
{
    begin("ZR900PL");
    EXPECT_THAT(refused({"selftest", "--cancel"}, 1), HasSubstr("no self-test is running"));
    EXPECT_THAT(done({"selftest", "--until-low", "--yes"}), HasSubstr("A self-test is running"));
    unit->wait_for_log("rx TL", PATIENCE);
    EXPECT_THAT(refused({"selftest"}, 1), HasSubstr("running already"));
    EXPECT_EQ(done({"selftest", "--cancel"}), "The self-test is cancelled.\n");
    EXPECT_EQ(done({"buzzer", "off"}), "The buzzer is off.\n");
    EXPECT_THAT(testbed::read_config(), HasSubstr(" BuzzerCan = off\n"));
    EXPECT_EQ(done({"buzzer", "on"}), "The buzzer is on.\n");
    EXPECT_EQ(done({"buzzer", "test"}), "Sent; the agent does not confirm this order.\n");
    unit->wait_for_log("rx Bt", PATIENCE);
    EXPECT_EQ(done({"battery-date", "set", "2024-02-29"}), "The battery was changed on 2024-02-29.\n");
    unit->wait_for_log("rx BRW20240229", PATIENCE);
    EXPECT_EQ(done({"battery-date", "get"}), "2024-02-29\n");
    EXPECT_THAT(refused({"battery-date", "set", "2155-01-01"}, 2), HasSubstr("yet to come"));
    EXPECT_THAT(refused({"battery-date", "set", "2023-02-29"}, 2), HasSubstr("a date such as"));
    EXPECT_EQ(voltaria({"buzzer", "louder"}).status, 2);
}

TEST_F(VoltariaOrders, AShutdownIsOrderedAndCancelled)
{
    begin("ZR900PL");
    EXPECT_THAT(refused({"cancel", "--yes"}, 1), HasSubstr("no user has ordered"));
    EXPECT_THAT(refused({"shutdown", "--in", "3000"}, 1),
                AllOf(HasSubstr("--yes"), HasSubstr("nothing was sent")));
    EXPECT_EQ(status().CommandDownS, 0);
    EXPECT_THAT(done({"shutdown", "--in", "3000", "--yes"}), HasSubstr("127.0.0.1 will go down at "));
    EXPECT_EQ(status().CommandDownS, 1);
    EXPECT_EQ(done({"cancel", "--yes", "--host", "localhost"}),
              "The shutdown of localhost (127.0.0.1) is cancelled.\n");
    EXPECT_EQ(status().CommandDownS, 0);
    EXPECT_EQ(voltaria({"shutdown", "--yes"}).status, 2);
    EXPECT_EQ(voltaria({"shutdown", "--in", "32768", "--yes"}).status, 2);
}

TEST_F(VoltariaOrders, AShutdownAsksOnATerminal)
{
    begin("ZR900PL");
    PTY_RUN no({"shutdown", "--in", "3000", "--host", "localhost", "--timeout", "40"}, 100, 24);
    EXPECT_TRUE(
        no.draw_until(showing("Shut down localhost (127.0.0.1) in 3000 s and switch its UPS off? [y/N]")))
        << no.terminal.text();
    no.type("\n");
    EXPECT_EQ(no.wait(), 1);
    EXPECT_EQ(status().CommandDownS, 0);
    PTY_RUN yes({"shutdown", "--in", "3000", "--timeout", "40"}, 100, 24);
    EXPECT_TRUE(yes.draw_until(showing("[y/N]"))) << yes.terminal.text();
    yes.type("y\n");
    EXPECT_TRUE(yes.draw_until(showing("will go down at"))) << yes.terminal.text();
    EXPECT_EQ(yes.wait(), 0);
    EXPECT_EQ(status().CommandDownS, 1);
}

TEST_F(VoltariaOrders, AModelWithoutBuzzerAndBatteryDateIsNotAsked)
{
    begin("ZR401");
    EXPECT_THAT(refused({"buzzer", "off"}, 1), HasSubstr("has no buzzer to switch"));
    EXPECT_THAT(refused({"battery-date", "get"}, 1), HasSubstr("keeps no battery date"));
    EXPECT_THAT(refused({"battery-date", "set", "2024-02-29"}, 1), HasSubstr("keeps no battery date"));
}

TEST_F(VoltariaSettings, WithoutAUnitNoOrderIsGiven)
{
    for (const WORDS &arguments : {WORDS{"selftest"}, WORDS{"buzzer", "on"}, WORDS{"battery-date", "get"},
                                   WORDS{"shutdown", "--in", "60", "--yes"}})
        EXPECT_THAT(refused(arguments, 1), HasSubstr("not in touch"));
}

// ---- login ----

TEST_F(VoltariaSettings, ALoginAsksForThePasswordAndDoesNotShowIt)
{
    std::ofstream("/etc/passwd", std::ios::app) << "keeper:x:1500:100::/:/bin/sh\n";
    std::ofstream("/etc/shadow", std::ios::app)
        << "keeper:" << crypt("open sesame", "$5$rounds=1000$voltaria$") << ":19000:0:99999:7:::\n";
    testbed::write_config("[ UPS ]\n");
    PTY_RUN right({"login", "--timeout", "40"}, 80, 24);
    EXPECT_TRUE(right.draw_until(showing("User at 127.0.0.1:"))) << right.terminal.text();
    right.type("keeper\n");
    EXPECT_TRUE(right.draw_until(showing("Password:"))) << right.terminal.text();
    right.type("open sesame\n");
    EXPECT_TRUE(right.draw_until(showing("Accepted by 127.0.0.1: user"))) << right.terminal.text();
    EXPECT_EQ(right.wait(), 0);
    EXPECT_THAT(right.terminal.text(), Not(HasSubstr("sesame")));
    PTY_RUN wrong({"login", "--user", "keeper", "--timeout", "40"}, 80, 24);
    EXPECT_TRUE(wrong.draw_until(showing("Password:"))) << wrong.terminal.text();
    wrong.type("open barley\n");
    EXPECT_TRUE(wrong.draw_until(showing("refused by 127.0.0.1"))) << wrong.terminal.text();
    EXPECT_EQ(wrong.wait(), 1);
}

// ---- Help ----

TEST(VoltariaHelp, EveryChangingCommandHasAnExampleAndNamesItsExitStatuses)
{
    for (const WORDS &arguments : {WORDS{"config"},
                                   WORDS{"config", "get"},
                                   WORDS{"config", "set"},
                                   WORDS{"events"},
                                   WORDS{"events", "list"},
                                   WORDS{"events", "set"},
                                   WORDS{"users"},
                                   WORDS{"users", "list"},
                                   WORDS{"users", "add"},
                                   WORDS{"users", "remove"},
                                   WORDS{"schedule"},
                                   WORDS{"schedule", "list"},
                                   WORDS{"schedule", "add"},
                                   WORDS{"schedule", "remove"},
                                   WORDS{"selftest"},
                                   WORDS{"shutdown"},
                                   WORDS{"cancel"},
                                   WORDS{"buzzer"},
                                   WORDS{"battery-date"},
                                   WORDS{"battery-date", "get"},
                                   WORDS{"battery-date", "set"},
                                   WORDS{"login"}}) {
        WORDS help = arguments;
        help.push_back("--help");
        const PROGRAM_RESULT result = run_program(help);
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.output, AllOf(HasSubstr("Example"), HasSubstr("voltaria " + arguments[0]),
                                         HasSubstr("Exit status: ")));
    }
}

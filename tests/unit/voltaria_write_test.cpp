// The commands that change something, told by scripted agents that do not do what they are asked, or answer
// what no agent should: `voltaria` says so and never claims what it has not seen.
#include "monitor_fake_agent.h"
#include "monitor_terminal.h"

#include "monitor/monitor_records.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::Not;

namespace
{

// Answers every question in the same way for ever, whatever is set or ordered in between.
struct STUBBORN_AGENT {
    UPS_UPSINFO status = sample_status();
    UPS_PARAM config{};
    EVENT_TABLE events{};
    std::vector<USERSDATA> users{};
    bool speechless = false;      // settings are asked for in vain
    std::vector<int> received{};  // DataIds, in their order

    BYTES answer_of(const BYTES &request)
    {
        switch (request[3]) {
        case DATAID_OSINFO:
            return packet(DATAID_OSINFO, std::span(request).subspan(8));
        case DATAID_GETUPSINFO:
            return status_answer(status);
        case DATAID_COMMAND:
            if (speechless)
                return packet(request[8] == 5 ? DATAID_CONFIG : DATAID_EVENTS, {});
            return request[8] == 5   ? packet(DATAID_CONFIG, monitor_encode(config))
                   : request[8] == 4 ? packet(DATAID_EVENTS, monitor_encode(events, users))
                   : request[8] == 3 ? packet(DATAID_SCHEDULES, {})
                                     : packet(DATAID_ANSNULL, {});
        default:
            return {};
        }
    }

    void operator()(int fd)
    {
        for (;;) {
            const BYTES request = read_request(fd);
            if (request.empty())
                return;
            received.push_back(request[3]);
            const BYTES answer = answer_of(request);
            if (!answer.empty() && !send_bytes(fd, answer))
                return;
        }
    }

    PROGRAM_RESULT asked(std::vector<std::string> arguments)
    {
        FAKE_AGENT agent([this](int fd) { (*this)(fd); });
        arguments.insert(arguments.end(), {"--port", std::to_string(agent.port)});
        return run_program(arguments);
    }

    [[nodiscard]] long times(int data_id) const
    {
        return std::count(received.begin(), received.end(), data_id);
    }
};

}  // namespace

TEST(VoltariaChange, ASettingThatIsNotReadBackIsSentTwiceAndReported)
{
    STUBBORN_AGENT agent;
    agent.config.workparam.BattLife = 60;
    const PROGRAM_RESULT result = agent.asked({"config", "set", "EXPECTBLIFE", "90"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "voltaria: the agent did not take it: EXPECTBLIFE is 60 s\n");
    EXPECT_EQ(agent.times(DATAID_CONFIG), 2);
}

TEST(VoltariaChange, ListsThatAreNotReadBackAreReported)
{
    STUBBORN_AGENT agent;
    agent.events[0].EventID = 65;
    EXPECT_THAT(agent.asked({"users", "add", "root"}).errors, HasSubstr("did not take it"));
    EXPECT_EQ(agent.asked({"events", "set", "65", "--record", "on"}).status, 1);
    const PROGRAM_RESULT result =
        agent.asked({"schedule", "add", "selftest", "--weekly", "mon", "--from", "10:00"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("its schedule is now\nNothing is scheduled."));
    EXPECT_EQ(agent.times(DATAID_EVENTS), 4);
    EXPECT_EQ(agent.times(DATAID_SCHEDULES), 2);
}

TEST(VoltariaChange, OrdersThatAreNotSeenInTheStatusAreReportedAsSent)
{
    STUBBORN_AGENT agent;
    agent.status.CommandDownS = agent.status.ShutdownS = 0;
    agent.status.BuzzerCan = 1;
    for (const std::vector<std::string> &order :
         std::vector<std::vector<std::string>>{{"selftest", "--timeout", "0.3"},
                                               {"shutdown", "--in", "60", "--yes", "--timeout", "0.3"},
                                               {"buzzer", "off", "--timeout", "0.3"},
                                               {"battery-date", "set", "2001-02-03", "--timeout", "0.3"}}) {
        const PROGRAM_RESULT result = agent.asked(order);
        EXPECT_EQ(result.status, 1) << order[0];
        EXPECT_EQ(result.output, "") << order[0];
        EXPECT_THAT(result.errors, HasSubstr("sent, but the agent's status")) << order[0];
    }
    EXPECT_EQ(agent.times(DATAID_SELFTEST) + agent.times(DATAID_SHUTDOWN) + agent.times(DATAID_BUZZER_OFF) +
                  agent.times(DATAID_SETBATTIME),
              4);
}

TEST(VoltariaChange, AnAgentThatHangsUpAfterAShutdownOrderIsTakenToGoDown)
{
    STUBBORN_AGENT agent;
    agent.status.CommandDownS = agent.status.ShutdownS = 0;
    FAKE_AGENT going([&](int fd) {
        for (BYTES request = read_request(fd); !request.empty() && request[3] != DATAID_SHUTDOWN;
             request = read_request(fd))
            send_bytes(fd, agent.answer_of(request));
    });
    const PROGRAM_RESULT result =
        run_program({"shutdown", "--in", "0", "--yes", "--port", std::to_string(going.port)});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("has closed the connection: it goes down"));
}

TEST(VoltariaChange, FieldsWithoutAnEndAndControlCharactersDoNoHarm)
{
    STUBBORN_AGENT agent;
    agent.events[0].EventID = 65;
    agent.events[0].MailUser = 0xFFFFFFFF;
    agent.events[0].Command.fill('\x1b');
    agent.config.commparam.Group.fill('\x07');
    agent.config.commparam.Agent.fill('\xff');
    USERSDATA user{};
    user.UserName.fill('\x1b');
    user.Address.fill('\x9b');
    user.Email.fill('e');
    agent.users.assign(32, user);
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"config", "get"},
                                               {"config", "get", "--json"},
                                               {"events", "list"},
                                               {"events", "list", "--json"},
                                               {"users", "list"},
                                               {"users", "list", "--json"}}) {
        const PROGRAM_RESULT result = agent.asked(arguments);
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_THAT(result.output,
                    Not(testing::AnyOf(HasSubstr("\x1b"), HasSubstr("\x07"), HasSubstr("\xff"))));
    }
}

TEST(VoltariaChange, APasswordIsNeverTakenFromTheCommandLine)
{
    const PROGRAM_RESULT result = run_program({"login", "--password", "x"});
    EXPECT_EQ(result.status, 2);
}

TEST(VoltariaChange, AQuestionThatIsNotAnsweredWithYesSendsNothing)
{
    STUBBORN_AGENT agent;
    agent.status.CommandDownS = agent.status.ShutdownS = 0;
    FAKE_AGENT asked([&agent](int fd) { agent(fd); });
    for (const std::string keys : {"n\n", "\n", "yy\n", "\x04", "\x03"}) {
        PTY_RUN run({"shutdown", "--in", "60", "--port", std::to_string(asked.port)}, 60, 24);
        EXPECT_TRUE(run.draw_until([](const std::string &screen) {
            return screen.find("[y/N]") != std::string::npos;
        })) << run.terminal.text();
        run.type(keys);
        EXPECT_EQ(run.wait(), keys == "\x03" ? -1 : 1) << testing::PrintToString(keys);
    }
    EXPECT_EQ(agent.times(DATAID_SHUTDOWN), 0);
}

TEST(VoltariaChange, APasswordQuestionThatASignalEndsGivesTheEchoBack)
{
    STUBBORN_AGENT agent;
    FAKE_AGENT asked([&agent](int fd) { agent(fd); });
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        PTY_RUN run({"login", "--user", "keeper", "--port", std::to_string(asked.port)}, 60, 24);
        EXPECT_TRUE(run.draw_until([](const std::string &screen) {
            return screen.find("Password:") != std::string::npos;
        })) << run.terminal.text();
        EXPECT_EQ(run.settings().c_lflag & ECHO, 0U);
        run.type(number == SIGINT ? "sesa\x03" : "sesa");
        if (number != SIGINT)
            kill(run.pid, number);
        EXPECT_EQ(run.wait(), -1);
        EXPECT_EQ(run.settings().c_lflag, run.before.c_lflag);
        EXPECT_THAT(run.terminal.text(), Not(HasSubstr("sesa")));
    }
    EXPECT_EQ(agent.times(DATAID_PASSWORD), 0);
}

TEST(VoltariaChange, ComplaintsCarryNoControlCharacters)
{
    STUBBORN_AGENT agent;
    agent.events[0].EventID = 65;
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"users", "remove", "k\x1b[31m"},
                                               {"events", "set", "65", "--mail", "k\x1b[31m"},
                                               {"config", "get", "k\x1b[31m"},
                                               {"buzzer", "k\x1b[31m"},
                                               {"status", "k\x1b[31m"}}) {
        const PROGRAM_RESULT result = agent.asked(arguments);
        EXPECT_NE(result.status, 0) << arguments[0];
        EXPECT_THAT(result.errors, testing::AllOf(HasSubstr("k\\x1B[31m"), Not(HasSubstr("\x1b"))));
    }
}

TEST(VoltariaChange, AnAgentThatTellsNoSettingsIsAProtectorOnlyWhenItsRoleSaysSo)
{
    STUBBORN_AGENT agent;
    agent.speechless = true;
    for (const std::vector<std::string> &arguments : std::vector<std::vector<std::string>>{
             {"config", "get"}, {"events", "list"}, {"config", "set", "battery-time", "90"}}) {
        agent.status.AgentType = AGENTTYPE_LOW;
        EXPECT_EQ(agent.asked(arguments).errors,
                  "voltaria: the agent told no settings: it cannot read them now\n");
        agent.status.AgentType = AGENTTYPE_PROTECTOR;
        EXPECT_THAT(agent.asked(arguments).errors, HasSubstr("it is a protector"));
    }
}

TEST(VoltariaChange, ARoleThatIsNotTakenIsReported)
{
    STUBBORN_AGENT agent;
    agent.status.AgentType = agent.config.commparam.AgentType = AGENTTYPE_LOW;
    EXPECT_THAT(agent.asked({"config", "set", "role", "protector", "--yes"}).errors,
                HasSubstr("did not take it: AgentType is low"));
}

TEST(VoltariaChange, ALoginWithoutAUserAsksForNoPassword)
{
    STUBBORN_AGENT agent;
    FAKE_AGENT asked([&agent](int fd) { agent(fd); });
    for (const std::string keys : {"\n", "\x04"}) {
        PTY_RUN run({"login", "--port", std::to_string(asked.port)}, 60, 24);
        EXPECT_TRUE(run.draw_until([](const std::string &screen) {
            return screen.find("User at") != std::string::npos;
        })) << run.terminal.text();
        run.type(keys);
        EXPECT_TRUE(run.draw_until([](const std::string &screen) {
            return screen.find("\nvoltaria: nothing was typed") != std::string::npos;
        })) << run.terminal.text();
        EXPECT_EQ(run.wait(), 2);
    }
}

TEST(VoltariaChange, AnAgentThatGoesAwayAfterAChangeIsNoReasonToThinkThatNothingWasSent)
{
    STUBBORN_AGENT agent;
    FAKE_AGENT going([&](int fd) {
        for (BYTES request = read_request(fd); !request.empty(); request = read_request(fd)) {
            const BYTES answer = agent.answer_of(request);
            if (answer.empty() || !send_bytes(fd, answer))
                return;
        }
    });
    for (std::vector<std::string> arguments : std::vector<std::vector<std::string>>{
             {"config", "set", "battery-time", "90"}, {"buzzer", "off"}, {"buzzer", "test"}}) {
        arguments.insert(arguments.end(), {"--port", std::to_string(going.port)});
        const PROGRAM_RESULT result = run_program(arguments);
        EXPECT_EQ(result.status, 1) << arguments[0];
        EXPECT_THAT(result.errors, testing::StartsWith("voltaria: sent, but the ")) << arguments[0];
    }
}

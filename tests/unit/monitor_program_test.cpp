// `voltaria status` as a user or a script runs it: what it prints and how it ends.
#include "monitor/monitor_records.h"
#include "monitor_fake_agent.h"
#include "monitor_terminal.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

using testing::HasSubstr;

static PROGRAM_RESULT status_of(const FAKE_AGENT &agent, std::vector<std::string> more = {})
{
    std::vector<std::string> arguments{"status", "--port", std::to_string(agent.port)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_program(arguments);
}

// ---- Exit statuses ----

TEST(VoltariaStatus, AnsweredStatusIsPrintedAndEndsWithZero)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    const PROGRAM_RESULT result = status_of(agent);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("Model                 ZR900PL\n"));
    EXPECT_THAT(result.output, HasSubstr("Group                 \u7ba1\u7406\n"));
    EXPECT_EQ(result.errors, "");
}

TEST(VoltariaStatus, HostNamesAreAccepted)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    EXPECT_EQ(status_of(agent, {"--host", "localhost"}).status, 0);
}

TEST(VoltariaStatus, AgentThatClosesWithoutAnAnswerEndsWithOne)
{
    FAKE_AGENT agent([](int fd) { read_request(fd); });
    const PROGRAM_RESULT result = status_of(agent);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("voltaria: the agent closed the connection"));
}

TEST(VoltariaStatus, WrongAnswerEndsWithOne)
{
    FAKE_AGENT agent([](int fd) {
        read_request(fd);
        send_bytes(fd, packet(68, {}));
        wait_for_end(fd);
    });
    EXPECT_EQ(status_of(agent).status, 1);
}

TEST(VoltariaStatus, AgentThatNeverAnswersEndsWithOneWithinTheTimeLimit)
{
    FAKE_AGENT agent(wait_for_end);
    const PROGRAM_RESULT result = status_of(agent, {"--timeout", "0.2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("did not answer in time"));
}

TEST(VoltariaStatus, RefusedConnectionEndsWithThree)
{
    const PROGRAM_RESULT result = run_program({"status", "--port", std::to_string(unused_port())});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, HasSubstr("cannot reach 127.0.0.1"));
}

TEST(VoltariaStatus, UnknownHostEndsWithThree)
{
    EXPECT_EQ(run_program({"status", "--host", "no such host"}).status, 3);
}

TEST(VoltariaStatus, WrongUsageEndsWithTwo)
{
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"nonsense"},
                                               {"status", "--nonsense"},
                                               {"status", "--port", "0"},
                                               {"status", "--port", "65536"},
                                               {"status", "--port", "x"},
                                               {"status", "--timeout", "0"},
                                               {"status", "--timeout", "nan"},
                                               {"watch", "--json"}}) {
        const PROGRAM_RESULT result = run_program(arguments);
        EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments);
        EXPECT_NE(result.errors, "");
    }
}

TEST(VoltariaProgram, HelpOfEveryCommandHasAnExampleAndEndsWithZero)
{
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"--help"}, {"status", "--help"}, {"watch", "--help"}}) {
        const PROGRAM_RESULT result = run_program(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.output, HasSubstr("Example"));
    }
}

TEST(VoltariaProgram, VersionIsPrinted)
{
    const PROGRAM_RESULT result = run_program({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, testing::ContainsRegex("^voltaria [0-9]+\\.[0-9]+\\.[0-9]+\n$"));
}

// ---- Standard descriptors ----

// By way of a shell, with its redirections; -1 for an end by signal.
static int status_of_shell(const std::string &arguments)
{
    const int status = std::system((VOLTARIA_PROGRAM " " + arguments).c_str());  // NOLINT: a text of ours
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(VoltariaProgram, WhatCannotBePrintedIsAFailureAndIsNotSentToTheAgent)
{
    std::atomic<int> strange = 0;
    FAKE_AGENT agent([&strange](int fd) {
        for (BYTES request = read_request(fd); !request.empty(); request = read_request(fd)) {
            const int asked = request.at(3);
            strange +=
                asked != DATAID_OSINFO && asked != DATAID_GETUPSINFO && asked != DATAID_COMMAND ? 1 : 0;
            if (!send_bytes(fd, asked == DATAID_OSINFO    ? packet(17, std::span(request).subspan(8))
                                : asked == DATAID_COMMAND ? packet(DATAID_CONFIG, monitor_encode(UPS_PARAM{}))
                                                          : status_answer(sample_status())))
                return;
        }
    });
    const std::string port = " --port " + std::to_string(agent.port);
    EXPECT_EQ(status_of_shell("config get" + port + " >&- 2>/dev/null"), 1);
    EXPECT_EQ(status_of_shell("status" + port + " >/dev/full 2>/dev/null"), 1);
    EXPECT_EQ(status_of_shell("watch" + port + " >&- 2>/dev/null"), 1);
    EXPECT_EQ(status_of_shell("log --help >/dev/full 2>/dev/null"), 1);
    EXPECT_EQ(status_of_shell("login --user x" + port + " <&- 2>/dev/null"), 2);
    EXPECT_EQ(status_of_shell("status" + port + " 2>&- >/dev/null"), 0);
    EXPECT_EQ(strange, 0);
}

// ---- JSON ----

static nlohmann::json json_of(const UPS_UPSINFO &status)
{
    FAKE_AGENT agent([&status](int fd) { converse(fd, [&status] { return status; }); });
    const PROGRAM_RESULT result = status_of(agent, {"--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    return nlohmann::json::parse(result.output);
}

TEST(VoltariaJson, EveryPromisedKeyIsThere)
{
    nlohmann::json document = json_of(sample_status());
    EXPECT_TRUE(document["agent"]["port"].is_number());
    document["agent"].erase("port");
    EXPECT_EQ(document, nlohmann::json::parse(R"({
        "agent": {"host": "127.0.0.1", "type": {"code": 5, "text": "server, normal priority"},
                  "group": "管理"},
        "time": "2005-03-05T09:07:02",
        "link": {"code": 2, "text": "established", "port_code": 1, "device": "/dev/ttyS0"},
        "model": "ZR900PL",
        "ups": {"code": 0, "text": "on mains"},
        "battery": {"code": 1, "text": "normal", "replaced": "2003-04-01"},
        "measurements": {"input_voltage": 100.3, "output_voltage": 101.4, "input_frequency": 50.1,
                         "output_frequency": 60.2, "battery_voltage": 27.6, "temperature": 25.5, "load": 35,
                         "battery_capacity": 98},
        "shutdown": {"next": "2005-12-24T22:00:00", "restart": null, "ordered": 0, "in_progress": 0},
        "settings": {"buzzer": 1, "periodic_self_test": 0, "auto_restart": 1, "ignore_other_agents": 0,
                     "detection_level": 3},
        "self_tests": {"battery": {"code": 1, "text": "passed", "time": "2005-01-01T03:00:00"},
                       "ups": {"code": 2, "text": "no result", "time": null}},
        "events": [{"id": 65, "text": "UPS Ac fail", "cause": null, "time": "2005-03-04T01:02:03",
                    "agent": ""},
                   {"id": 79, "text": "Receive shutdown Command From Users", "cause": null,
                    "time": "2005-03-04T01:05:03", "agent": "pc7"}],
        "capabilities": {"mask": 4744, "names": ["restart status query", "automatic restart on/off",
                                                 "battery replacement date", "buzzer on/off"]}
    })"));
}

TEST(VoltariaJson, LostLinkHasNoMeasurementsAndNoStateText)
{
    UPS_UPSINFO status = sample_status();
    status.CommStatus = COMM_LOST;
    status.ComId = -1;
    status.upsdata = {};
    status.upsmodel.fill('\0');
    const nlohmann::json document = json_of(status);
    EXPECT_TRUE(document.at("measurements").is_null());
    EXPECT_TRUE(document.at("ups").at("text").is_null());
    EXPECT_TRUE(document.at("model").is_null());
    EXPECT_TRUE(document.at("link").at("device").is_null());
    EXPECT_EQ(document.at("link").at("port_code"), -1);
    EXPECT_EQ(document.at("link").at("text"), "lost");
}

TEST(VoltariaJson, UnknownCodesKeepTheirNumberAndHaveNoText)
{
    UPS_UPSINFO status = sample_status();
    status.upsstat = 77;
    status.sftResUPS.Result = 0xFFFFFFFF;
    status.events.at(1).EventId = 99;
    status.upsdata.TempINT = -1;
    status.upsdata.TempREM = -1;
    status.upsdata.InPutREM = 17;
    const nlohmann::json document = json_of(status);
    EXPECT_EQ(document.at("ups"), (nlohmann::json{{"code", 77}, {"text", nullptr}}));
    EXPECT_EQ(document.at("self_tests").at("ups").at("code"), 4294967295);
    EXPECT_TRUE(document.at("events").at(1).at("text").is_null());
    EXPECT_TRUE(document.at("measurements").at("temperature").is_null());
    EXPECT_TRUE(document.at("measurements").at("input_voltage").is_null());
}

TEST(VoltariaJson, HostileTextsCannotBreakTheDocumentOrTheTerminal)
{
    UPS_UPSINFO status = sample_status();
    status.upsmodel.fill('\x1b');
    status.Group.fill('\xff');
    status.events.at(0).AgentName.fill('"');
    const nlohmann::json document = json_of(status);
    EXPECT_THAT(document.at("model").get<std::string>(), testing::StartsWith("\\x1B\\x1B"));
    EXPECT_THAT(document.at("agent").at("group").get<std::string>(), testing::StartsWith("\\xFF"));
    EXPECT_EQ(document.at("events").at(0).at("agent"), std::string(16, '"'));
}

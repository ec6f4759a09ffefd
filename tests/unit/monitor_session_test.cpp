// The client's side of a conversation, against agents that behave and agents that do not.
#include "monitor_fake_agent.h"

#include <arpa/inet.h>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;
using STEADY = std::chrono::steady_clock;

static MONITOR_OPTIONS options_for(std::uint16_t port, std::chrono::milliseconds timeout = 5s)
{
    MONITOR_OPTIONS options;
    options.port = port;
    options.timeout = timeout;
    return options;
}

static MONITOR_RESULT ask(const FAKE_AGENT &agent, UPS_UPSINFO &status,
                          std::chrono::milliseconds timeout = 5s)
{
    MONITOR_SESSION session;
    MONITOR_RESULT result = monitor_connect(options_for(agent.port, timeout), session);
    if (monitor_ok(result))
        result = monitor_status(session, status);
    monitor_close(session);
    return result;
}

// The outcome of a status request that is answered with these bytes and then with silence.
static MONITOR_RESULT outcome_of(const BYTES &answer, std::chrono::milliseconds timeout = 5s)
{
    FAKE_AGENT agent([&answer](int fd) {
        read_request(fd);
        send_bytes(fd, answer);
        wait_for_end(fd);
    });
    UPS_UPSINFO status{};
    return ask(agent, status, timeout);
}

// ---- What goes out ----

TEST(MonitorSession, StatusRequestIsTheEightByteHeader)
{
    BYTES request;
    UPS_UPSINFO status{};
    {
        FAKE_AGENT agent([&request](int fd) { request = read_request(fd); });
        EXPECT_FALSE(monitor_ok(ask(agent, status)));
    }
    EXPECT_EQ(request, (BYTES{0x10, 0x01, 0x01, 0x10, 0x08, 0, 0, 0}));
}

TEST(MonitorSession, HelloCarriesTheOsInformationAndReturnsTheAgents)
{
    BYTES request;
    VTOSINFO answer{};
    MONITOR_RESULT result;
    {
        FAKE_AGENT agent([&request](int fd) {
            request = read_request(fd);
            send_bytes(fd, packet(17, std::span(request).subspan(8)));
            wait_for_end(fd);
        });
        MONITOR_SESSION session;
        ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
        result = monitor_hello(session, monitor_own_osinfo(), answer);
        monitor_close(session);
    }
    ASSERT_TRUE(monitor_ok(result)) << result.text;
    BYTES expected{0x10, 1, 1, 0x11, 36, 0, 0, 0,   2,   0,   0,   0,  2,
                   0,    0, 0, 0,    0,  0, 0, 'L', 'i', 'n', 'u', 'x'};
    expected.resize(36);
    EXPECT_EQ(request, expected);
    EXPECT_EQ(answer.os, 2);
    EXPECT_STREQ(answer.osname.data(), "Linux");
}

TEST(MonitorSession, RequestWithDataIsHeaderAndDataAndAnyAnswerLengthIsTaken)
{
    BYTES request;
    MONITOR_PACKET answer;
    {
        FAKE_AGENT agent([&request](int fd) {
            request = read_request(fd);
            send_bytes(fd, packet(66, BYTES(48, 7)));
            wait_for_end(fd);
        });
        MONITOR_SESSION session;
        ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
        EXPECT_TRUE(monitor_ok(monitor_request(session, 24, BYTES{2, 0, 0, 0, 5, 0, 0, 0}, 66, 0, answer)));
        monitor_close(session);
    }
    EXPECT_EQ(request, (BYTES{0x10, 1, 1, 24, 16, 0, 0, 0, 2, 0, 0, 0, 5, 0, 0, 0}));
    EXPECT_EQ(answer.data, BYTES(48, 7));
}

// ---- Answers that are as they should be ----

TEST(MonitorSession, StatusAnswerIsDecoded)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    UPS_UPSINFO status{};
    const MONITOR_RESULT result = ask(agent, status);
    ASSERT_TRUE(monitor_ok(result)) << result.text;
    EXPECT_EQ(monitor_encode_upsinfo(status), monitor_encode_upsinfo(sample_status()));
}

TEST(MonitorSession, AnswerInSingleBytesIsPutTogether)
{
    FAKE_AGENT agent([](int fd) {
        read_request(fd);
        const BYTES answer = status_answer(sample_status());
        for (std::size_t i = 0; i < answer.size(); ++i)
            send_bytes(fd, std::span(answer).subspan(i, 1));
        wait_for_end(fd);
    });
    UPS_UPSINFO status{};
    ASSERT_TRUE(monitor_ok(ask(agent, status)));
    EXPECT_EQ(status.upsdata.InPutINT, 100);
    EXPECT_EQ(status.ufStatus, 0x1288);
}

TEST(MonitorSession, ManyRequestsGoOverOneConnection)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    MONITOR_SESSION session;
    ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
    for (int i = 0; i < 20; ++i) {
        UPS_UPSINFO status{};
        ASSERT_TRUE(monitor_ok(monitor_status(session, status)));
    }
    monitor_close(session);
    EXPECT_EQ(agent.connections, 1);
}

TEST(MonitorSession, AnnouncementsBeforeTheAnswerAreKeptAside)
{
    FAKE_AGENT agent([](int fd) {
        read_request(fd);
        send_bytes(fd, packet(79, BYTES{'f', 'i', 'r', 's', 't'}));
        send_bytes(fd, packet(79, {}));
        send_bytes(fd, status_answer(sample_status()));
        wait_for_end(fd);
    });
    MONITOR_SESSION session;
    UPS_UPSINFO status{};
    ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
    const MONITOR_RESULT result = monitor_status(session, status);
    EXPECT_TRUE(monitor_ok(result)) << result.text;
    EXPECT_EQ(status.upsdata.Load, 35);
    EXPECT_THAT(session.messages, testing::ElementsAre("first", ""));
    monitor_close(session);
}

TEST(MonitorSession, OfManyAndLongAnnouncementsTheLastAreKeptAndCut)
{
    FAKE_AGENT agent([](int fd) {
        read_request(fd);
        for (int i = 0; i < 40; ++i)
            send_bytes(fd, packet(79, BYTES(5000, static_cast<std::uint8_t>('A' + i))));
        send_bytes(fd, status_answer(sample_status()));
        wait_for_end(fd);
    });
    MONITOR_SESSION session;
    UPS_UPSINFO status{};
    ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
    EXPECT_TRUE(monitor_ok(monitor_status(session, status)));
    EXPECT_EQ(session.messages.size(), MONITOR_MESSAGES_MAX);
    EXPECT_EQ(session.messages.back(), std::string(MONITOR_MESSAGE_BYTES, static_cast<char>('A' + 39)));
    monitor_close(session);
}

// ---- Answers that are not ----

TEST(MonitorSession, WrongDataIdIsABadAnswer)
{
    const MONITOR_RESULT result = outcome_of(packet(65, BYTES(220)));
    EXPECT_EQ(result.error, MONITOR_ERROR::BadAnswer);
    EXPECT_THAT(result.text, testing::HasSubstr("DataId 65"));
}

TEST(MonitorSession, TooLongAnswerIsRefusedBeforeItsDataCome)
{
    EXPECT_EQ(outcome_of({0x10, 1, 1, 64, 229, 0, 0, 0}).error, MONITOR_ERROR::BadAnswer);
}

TEST(MonitorSession, TooShortAnswerIsABadAnswer)
{
    EXPECT_EQ(outcome_of(packet(64, BYTES(219))).error, MONITOR_ERROR::BadAnswer);
    EXPECT_EQ(outcome_of(packet(64, {})).error, MONITOR_ERROR::BadAnswer);
}

TEST(MonitorSession, GiantLengthIsABadAnswer)
{
    EXPECT_EQ(outcome_of({0x10, 1, 1, 64, 0xFF, 0xFF, 0xFF, 0xFF}).error, MONITOR_ERROR::BadAnswer);
}

TEST(MonitorSession, AnotherServiceOnThePortIsABadAnswer)
{
    const std::string_view page = "HTTP/1.1 400 Bad Request\r\n";
    EXPECT_EQ(outcome_of({page.begin(), page.end()}).error, MONITOR_ERROR::BadAnswer);
}

TEST(MonitorSession, CutOffAnswerIsAClosedConnection)
{
    FAKE_AGENT agent([](int fd) {
        const BYTES answer = status_answer(sample_status());
        read_request(fd);
        send_bytes(fd, std::span(answer).first(100));
    });
    UPS_UPSINFO status{};
    EXPECT_EQ(ask(agent, status).error, MONITOR_ERROR::Closed);
}

TEST(MonitorSession, ConnectionClosedWithoutAnAnswerIsSaid)
{
    FAKE_AGENT agent([](int fd) { read_request(fd); });
    UPS_UPSINFO status{};
    const MONITOR_RESULT result = ask(agent, status);
    EXPECT_EQ(result.error, MONITOR_ERROR::Closed);
    EXPECT_FALSE(result.text.empty());
    EXPECT_FALSE(monitor_unreached(result));
}

TEST(MonitorSession, AgentThatNeverAnswersRunsIntoTheTimeLimit)
{
    const STEADY::time_point start = STEADY::now();
    EXPECT_EQ(outcome_of({}, 200ms).error, MONITOR_ERROR::AnswerTimeout);
    EXPECT_GE(STEADY::now() - start, 200ms);
}

TEST(MonitorSession, AgentThatStopsInMidAnswerRunsIntoTheTimeLimit)
{
    BYTES half = status_answer(sample_status());
    half.resize(half.size() - 1);
    EXPECT_EQ(outcome_of(half, 200ms).error, MONITOR_ERROR::AnswerTimeout);
}

TEST(MonitorSession, FloodOfAnnouncementsDoesNotExtendTheTimeLimit)
{
    FAKE_AGENT agent([](int fd) {
        const BYTES message = packet(79, BYTES(100, 'x'));
        while (send_bytes(fd, message)) {
        }
    });
    UPS_UPSINFO status{};
    EXPECT_EQ(ask(agent, status, 200ms).error, MONITOR_ERROR::AnswerTimeout);
}

TEST(MonitorSession, FailedRequestClosesTheSession)
{
    FAKE_AGENT agent([](int fd) { wait_for_end(fd); });
    MONITOR_SESSION session;
    UPS_UPSINFO status{};
    ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port, 50ms), session)));
    EXPECT_EQ(monitor_status(session, status).error, MONITOR_ERROR::AnswerTimeout);
    EXPECT_EQ(session.fd, -1);
    EXPECT_EQ(monitor_status(session, status).error, MONITOR_ERROR::NotConnected);
}

// ---- Between answers ----

TEST(MonitorSession, ListeningCollectsAnnouncementsUntilItsTime)
{
    FAKE_AGENT agent([](int fd) {
        send_bytes(fd, packet(79, BYTES{'h', 'i'}));
        wait_for_end(fd);
    });
    MONITOR_SESSION session;
    ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
    while (session.messages.empty())
        ASSERT_TRUE(monitor_ok(monitor_listen(session, STEADY::now() + 20ms)));
    EXPECT_EQ(session.messages.front(), "hi");
    EXPECT_GE(session.fd, 0);
    monitor_close(session);
}

TEST(MonitorSession, ListeningNoticesTheLossOfTheConnectionAtOnce)
{
    FAKE_AGENT agent([](int) {});
    MONITOR_SESSION session;
    ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
    EXPECT_EQ(monitor_listen(session, STEADY::now() + 1h).error, MONITOR_ERROR::Closed);
    EXPECT_EQ(session.fd, -1);
}

TEST(MonitorSession, ListeningRefusesAnAnswerNobodyAskedFor)
{
    FAKE_AGENT agent([](int fd) {
        send_bytes(fd, status_answer(sample_status()));
        wait_for_end(fd);
    });
    MONITOR_SESSION session;
    ASSERT_TRUE(monitor_ok(monitor_connect(options_for(agent.port), session)));
    EXPECT_EQ(monitor_listen(session, STEADY::now() + 1h).error, MONITOR_ERROR::BadAnswer);
}

TEST(MonitorSession, CancelDescriptorEndsAWait)
{
    FAKE_AGENT agent([](int fd) { wait_for_end(fd); });
    MONITOR_OPTIONS options = options_for(agent.port, 1h);
    options.cancel_fd = eventfd(0, EFD_CLOEXEC);
    MONITOR_SESSION session;
    ASSERT_TRUE(monitor_ok(monitor_connect(options, session)));
    std::thread canceller([&options] { eventfd_write(options.cancel_fd, 1); });
    UPS_UPSINFO status{};
    EXPECT_EQ(monitor_status(session, status).error, MONITOR_ERROR::Cancelled);
    canceller.join();
    close(options.cancel_fd);
}

// ---- Not reaching anybody ----

static MONITOR_RESULT connect_outcome(const MONITOR_OPTIONS &options)
{
    MONITOR_SESSION session;
    MONITOR_RESULT result = monitor_connect(options, session);
    monitor_close(session);
    return result;
}

TEST(MonitorSession, RefusedConnectionIsUnreachable)
{
    const MONITOR_RESULT result = connect_outcome(options_for(unused_port()));
    EXPECT_EQ(result.error, MONITOR_ERROR::Unreachable);
    EXPECT_TRUE(monitor_unreached(result));
    EXPECT_THAT(result.text, testing::HasSubstr("refused"));
}

TEST(MonitorSession, UnknownNameIsSaid)
{
    MONITOR_OPTIONS options = options_for(4112);
    options.host = "no such host";
    const MONITOR_RESULT result = connect_outcome(options);
    EXPECT_EQ(result.error, MONITOR_ERROR::NameNotFound);
    EXPECT_TRUE(monitor_unreached(result));
}

TEST(MonitorSession, NobodyTakingTheConnectionIsATimeout)
{
    // A full backlog: the kernel leaves further attempts unanswered.
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size), 0);
    std::vector<int> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        static_cast<void>(connect(waiting.back(), reinterpret_cast<sockaddr *>(&address), sizeof address));
    }
    const MONITOR_RESULT result = connect_outcome(options_for(ntohs(address.sin_port), 200ms));
    EXPECT_EQ(result.error, MONITOR_ERROR::ConnectTimeout) << result.text;
    EXPECT_TRUE(monitor_unreached(result));
    for (const int fd : waiting)
        close(fd);
    close(listener);
}

TEST(MonitorSession, NameIsResolvedToAnAddress)
{
    FAKE_AGENT agent([](int fd) { converse(fd, sample_status); });
    MONITOR_OPTIONS options = options_for(agent.port);
    options.host = "localhost";
    EXPECT_TRUE(monitor_ok(connect_outcome(options)));
}

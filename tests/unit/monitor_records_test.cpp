// The settings, log and discovery records byte for byte, and the requests that carry them.
#include "monitor/monitor_log.h"
#include "monitor/monitor_records.h"
#include "monitor_fake_agent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>

using testing::HasSubstr;

static BYTES counting_bytes(std::size_t count)
{
    BYTES bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
    return bytes;
}

// ---- Codecs ----

template <typename RECORD> class MonitorRecords : public testing::Test
{
};

using RECORDS = testing::Types<UPS_PARAM, UPS_EVENTINFO, USERSDATA, SCHEDULEINFO, UPS_EVENTLOGINFO,
                               UPS_DATALOGINFO, UPS_COMMAND_PACKET, UPS_PASSWORD, UPS_AGENTDOWNINFO,
                               BATTCHGTIME, UPS_INQAGENT, UPS_ANSAGENT, UPS_ANSPROT>;
TYPED_TEST_SUITE(MonitorRecords, RECORDS);

TYPED_TEST(MonitorRecords, EncodeToTheBytesTheyWereDecodedFrom)
{
    const BYTES bytes = counting_bytes(sizeof(TypeParam));
    TypeParam record{};
    ASSERT_TRUE(monitor_decode(bytes, record));
    EXPECT_EQ(monitor_encode(record), bytes);
}

TYPED_TEST(MonitorRecords, OfAnotherSizeAreRefusedAndLeaveTheRecord)
{
    TypeParam record{};
    EXPECT_FALSE(monitor_decode(BYTES(sizeof(TypeParam) - 1, 1), record));
    EXPECT_FALSE(monitor_decode(BYTES(sizeof(TypeParam) + 1, 1), record));
    EXPECT_FALSE(monitor_decode(BYTES{}, record));
    EXPECT_EQ(monitor_encode(record), BYTES(sizeof(TypeParam), 0));
}

TEST(MonitorRecordFields, LieAtTheirOffsetsInLittleEndianOrder)
{
    UPS_PARAM param{};
    param.workparam.ComSet = -2;
    param.commparam.AgentType = 0x01020304;
    param.commparam.Group.back() = 'z';
    BYTES bytes = monitor_encode(param);
    EXPECT_EQ(BYTES(bytes.begin() + 8, bytes.begin() + 12), (BYTES{0xFE, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(BYTES(bytes.begin() + 56, bytes.begin() + 60), (BYTES{4, 3, 2, 1}));
    EXPECT_EQ(bytes.back(), 'z');
    UPS_ANSAGENT agent{};
    agent.UPSStatus = 33;
    agent.CommStatus = 17;
    bytes = monitor_encode(agent);
    EXPECT_EQ(bytes.at(52), 33);
    EXPECT_EQ(bytes.at(84), 17);
    UPS_COMMAND_PACKET command{1, 0, 0x0102, -1, 0};
    EXPECT_EQ(monitor_encode(command), (BYTES{1, 0, 2, 1, 0xFF, 0xFF, 0, 0}));
}

TEST(MonitorRecordFields, EventSettingsAreFortySevenEventsAndThenUsers)
{
    EVENT_TABLE events{};
    events.back().EventID = 0x0304;
    std::vector<USERSDATA> users(2);
    users.back().UserID = 9;
    const BYTES bytes = monitor_encode(events, users);
    ASSERT_EQ(bytes.size(), 13348U + 2 * 543);
    EXPECT_EQ(bytes.at(46 * 284), 4);
    EXPECT_EQ(bytes.at(13348 + 543), 9);
    EVENT_TABLE read{};
    std::vector<USERSDATA> readers;
    ASSERT_TRUE(monitor_decode(bytes, read, readers));
    EXPECT_EQ(monitor_encode(read, readers), bytes);
    EXPECT_FALSE(monitor_decode(std::span(bytes).first(13347), read, readers));
    EXPECT_FALSE(monitor_decode(std::span(bytes).first(13349), read, readers));
}

// ---- Requests ----

// An agent with one answer for every request; keeps what it was asked.
struct ANSWERING_AGENT {
    explicit ANSWERING_AGENT(BYTES with_answer) : answer(std::move(with_answer))
    {
        MONITOR_OPTIONS options;
        options.port = agent.port;
        EXPECT_TRUE(monitor_ok(monitor_connect(options, session)));
    }
    ~ANSWERING_AGENT()
    {
        monitor_close(session);
    }
    ANSWERING_AGENT(const ANSWERING_AGENT &) = delete;
    ANSWERING_AGENT &operator=(const ANSWERING_AGENT &) = delete;

    BYTES answer;
    BYTES asked;
    FAKE_AGENT agent{[this](int fd) {
        for (BYTES request = read_request(fd); !request.empty(); request = read_request(fd)) {
            asked = request;
            if (!send_bytes(fd, answer))
                return;
        }
    }};
    MONITOR_SESSION session;
};

TEST(MonitorRequests, EventLogIsAskedForByLineAndCount)
{
    ANSWERING_AGENT agent(packet(65, counting_bytes(56)));
    std::vector<UPS_EVENTLOGINFO> lines;
    bool whole = true;
    ASSERT_TRUE(monitor_ok(monitor_eventlog(agent.session, 300, 5, lines, whole)));
    EXPECT_EQ(agent.asked, packet(24, BYTES{1, 0, 0x2C, 1, 5, 0, 0, 0}));
    EXPECT_EQ(lines.size(), 2U);
    EXPECT_FALSE(whole);
}

TEST(MonitorRequests, AProtectorsEventLogIsTheWholeOne)
{
    ANSWERING_AGENT agent(packet(198, counting_bytes(56)));
    std::vector<UPS_EVENTLOGINFO> lines;
    bool whole = false;
    ASSERT_TRUE(monitor_ok(monitor_eventlog(agent.session, 0, 1, lines, whole)));
    EXPECT_TRUE(whole);
    EXPECT_EQ(lines.size(), 2U);
}

TEST(MonitorRequests, LinesThatNobodyAskedForAndHalfLinesAreBadAnswers)
{
    for (const std::size_t bytes : {56U, 27U, 29U}) {
        ANSWERING_AGENT agent(packet(65, counting_bytes(bytes)));
        std::vector<UPS_EVENTLOGINFO> lines;
        bool whole = false;
        EXPECT_EQ(monitor_eventlog(agent.session, 0, 1, lines, whole).error, MONITOR_ERROR::BadAnswer)
            << bytes;
        EXPECT_LT(agent.session.fd, 0);
    }
}

TEST(MonitorRequests, AnAnswerWithoutDataIsNoFailure)
{
    UPS_PARAM param{};
    EVENT_TABLE events{};
    std::vector<USERSDATA> users;
    bool empty = false;
    ANSWERING_AGENT config(packet(82, {}));
    EXPECT_TRUE(monitor_ok(monitor_config(config.session, param, empty)));
    EXPECT_TRUE(empty);
    empty = false;
    ANSWERING_AGENT table(packet(81, {}));
    EXPECT_TRUE(monitor_ok(monitor_events(table.session, events, users, empty)));
    EXPECT_TRUE(empty);
}

TEST(MonitorRequests, MoreUsersThanThereCanBeAreABadAnswer)
{
    EVENT_TABLE events{};
    std::vector<USERSDATA> users(33);
    bool empty = false;
    ANSWERING_AGENT agent(packet(81, monitor_encode(events, users)));
    EXPECT_EQ(monitor_events(agent.session, events, users, empty).error, MONITOR_ERROR::BadAnswer);
}

TEST(MonitorRequests, LoginSendsBothTextsFullLengthWithoutANul)
{
    ANSWERING_AGENT agent(packet(67, BYTES{2, 0, 0, 0}));
    std::uint32_t right = 0;
    ASSERT_TRUE(monitor_ok(monitor_login(agent.session, std::string(40, 'u'), std::string(20, 'p'), right)));
    EXPECT_EQ(right, RIGHT_USER);
    ASSERT_EQ(agent.asked.size(), 68U);
    EXPECT_EQ(agent.asked.at(47), 'u');
    EXPECT_EQ(agent.asked.at(48), 'p');
    EXPECT_FALSE(monitor_ok(monitor_login(agent.session, "u", std::string(21, 'p'), right)));
}

// ---- Whole logs ----

static const auto NO_ROOM = static_cast<std::size_t>(LOG_COUNT_MAX);

// An agent with a log of `total` lines, numbered in EventId and byDownToEvt.
static void serve_log(int fd, int total)
{
    for (BYTES request = read_request(fd); !request.empty(); request = read_request(fd)) {
        const int first = request.at(10) | request.at(11) << 8;
        const int count = request.at(12) | request.at(13) << 8;
        BYTES lines;
        for (int i = first; i < std::min(first + count, total); ++i) {
            UPS_EVENTLOGINFO line{};
            line.EventId = static_cast<std::uint8_t>(i & 0xFF);
            line.byDownToEvt = static_cast<std::int8_t>(i >> 8);
            const BYTES bytes = monitor_encode(line);
            lines.insert(lines.end(), bytes.begin(), bytes.end());
        }
        if (!send_bytes(fd, packet(65, lines)))
            return;
    }
}

static std::vector<int> lines_of(int total, const LOG_RANGE &range)
{
    FAKE_AGENT agent([total](int fd) { serve_log(fd, total); });
    MONITOR_OPTIONS options;
    options.port = agent.port;
    MONITOR_SESSION session;
    EXPECT_TRUE(monitor_ok(monitor_connect(options, session)));
    std::vector<UPS_EVENTLOGINFO> lines;
    bool more = true;
    const MONITOR_RESULT result = log_read_events(session, range, lines, more);
    EXPECT_TRUE(monitor_ok(result)) << result.text;
    EXPECT_EQ(more, static_cast<std::size_t>(total) > NO_ROOM && range.first < 0);
    monitor_close(session);
    std::vector<int> numbers;
    for (const UPS_EVENTLOGINFO &line : lines)
        numbers.push_back(line.EventId | static_cast<std::uint8_t>(line.byDownToEvt) << 8);
    return numbers;
}

static std::vector<int> numbers(int from, int to)
{
    std::vector<int> list(static_cast<std::size_t>(to - from));
    std::iota(list.begin(), list.end(), from);
    return list;
}

TEST(MonitorLog, AllLinesAreReadPageByPage)
{
    EXPECT_EQ(lines_of(0, {}), numbers(0, 0));
    EXPECT_EQ(lines_of(4096, {}), numbers(0, 4096));
    EXPECT_EQ(lines_of(9000, {}), numbers(0, 9000));
}

TEST(MonitorLog, TheNewestLinesAreTheDefault)
{
    EXPECT_EQ(lines_of(9000, {-1, 20}), numbers(8980, 9000));
    EXPECT_EQ(lines_of(5, {-1, 20}), numbers(0, 5));
}

TEST(MonitorLog, ARangeCountsFromTheOldestLine)
{
    EXPECT_EQ(lines_of(9000, {10, 5}), numbers(10, 15));
    EXPECT_EQ(lines_of(9000, {4000, 4200}), numbers(4000, 8200));
    EXPECT_EQ(lines_of(9, {7, 5}), numbers(7, 9));
    EXPECT_EQ(lines_of(9, {20, 5}), numbers(0, 0));
}

TEST(MonitorLog, ALogBeyondTheReachOfTheProtocolIsReadAsFarAsItGoes)
{
    EXPECT_EQ(lines_of(60000, {}).size(), 8U * 4096);
}

TEST(MonitorLog, TextsOfPeersCannotBreakTheTable)
{
    UPS_EVENTLOGINFO line{65, -1, 0, {105, 3, 4, 1, 2, 3, 0}, {}};
    line.AgentName.fill('\x1b');
    const std::string table = log_table(std::vector<UPS_EVENTLOGINFO>{line});
    EXPECT_THAT(table, HasSubstr("2005-03-04 01:02:03"));
    EXPECT_THAT(table, HasSubstr("UPS Ac fail"));
    EXPECT_EQ(table.find('\x1b'), std::string::npos);
    line.AgentName = {'a', '"', ',', 'b'};
    EXPECT_THAT(log_csv(std::vector<UPS_EVENTLOGINFO>{line}),
                HasSubstr("2005-03-04 01:02:03,65,\"UPS Ac fail\",,\"a\"\",b\"\n"));
}

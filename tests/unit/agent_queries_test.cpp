// Questions for logs, schedules and settings, from the packet to the files and back.
#include "agent_daemon_requests.h"
#include "agent_engine_fixture.h"

#include <sys/utsname.h>

std::vector<int> callbacks;
std::function<void(int)> during_callback;
bool host_has_name = true;
static int callback_result = 0;

int Event_CallBack(int code, void *, int, int)
{
    callbacks.push_back(code);
    if (during_callback)
        during_callback(code);
    std::fill_n(Daemon_Buffer, Daemon_BufferLen, std::uint8_t{0xEE});
    return callback_result;
}

extern "C" int uname(utsname *name) noexcept
{
    *name = utsname{};
    std::copy_n(HOST, sizeof HOST, name->nodename);
    return host_has_name ? 0 : -1;
}

// ---- logs

static constexpr std::string_view EVENT_LINES = " 5/ 3/2004  9: 7: 2   7 255          host-7\n"
                                                "31/12/2025 23:59:58  65 255          host-7\n"
                                                " 1/ 1/2026  0: 0: 0 129  65          host-7\n";

static BYTES event_record(int id, int cause, const BYTES &time)
{
    return join({{static_cast<std::uint8_t>(id), static_cast<std::uint8_t>(cause), 0, 0},
                 time,
                 {0, 0},
                 field("host-7", 16)});
}

static const BYTES EVENT_1 = event_record(7, 255, {104, 3, 5, 9, 7, 2});
static const BYTES EVENT_2 = event_record(65, 255, {125, 12, 31, 23, 59, 58});
static const BYTES EVENT_3 = event_record(129, 65, {126, 1, 1, 0, 0, 0});

class Logs : public Served
{
};

TEST_F(Logs, EventsComeFromTheOldestLineOn)
{
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    EXPECT_EQ(query(1, 0, 2), packet(65, join({EVENT_1, EVENT_2}), JAPANESE, 1));
    EXPECT_EQ(query(1, 1, 200), packet(65, join({EVENT_2, EVENT_3}), JAPANESE, 1));
    EXPECT_EQ(query(1, 2, 1), packet(65, EVENT_3, JAPANESE, 1));
}

TEST_F(Logs, APageThatDoesNotExistIsAnsweredEmpty)
{
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    EXPECT_EQ(query(1, 3, 10), empty_answer(65));
    EXPECT_EQ(query(1, 4, 10), empty_answer(65));
    EXPECT_EQ(query(1, 0, 0), empty_answer(65));
    EXPECT_EQ(query(1, 0, -1), empty_answer(65));  // a count of 65535 is a negative one
}

TEST_F(Logs, ALineNumberOf65535IsBeforeTheFirst)
{
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    EXPECT_EQ(query(1, -1, 1), packet(65, EVENT_1, JAPANESE, 1));
}

TEST_F(Logs, WithoutALogTheAnswerIsEmpty)
{
    EXPECT_EQ(query(1, 0, 10), empty_answer(65));
    EXPECT_EQ(query(2, 0, 10), empty_answer(66));
}

// Here by a self-test that is due and cannot be started.
TEST_F(Logs, WhatWasReadByACallThatFailedOtherwiseIsAnsweredEmpty)
{
    load("");
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    engine.bBattConnect = 1;
    engine.renewal = timenow() + 1000;
    engine.next_test = timenow();
    engine.schtestreason = WEEKLY;
    callback_result = -1;
    EXPECT_EQ(query(1, 0, 2), empty_answer(65));
    callback_result = 0;
    EXPECT_EQ(engine.next_test, 0);
    EXPECT_EQ(query(1, 0, 1), packet(65, EVENT_1, JAPANESE, 1));
}

TEST_F(Logs, NothingOfAnEarlierAnswerIsLeftInALaterOne)
{
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    (void)query(1, 0, 10);
    std::filesystem::remove(EVENTLOG_PATH);
    EXPECT_EQ(query(1, 0, 10), empty_answer(65));
    EXPECT_EQ(eout.DATA.eventlog.eventlogarray, nullptr);
}

TEST_F(Logs, ALongLogGrowsTheBuffer)
{
    std::string lines;
    for (int i = 0; i < 2000; ++i)
        lines += EVENT_LINES.substr(0, 44);
    write_whole(EVENTLOG_PATH, lines);
    const BYTES data = join({{1, 0}, le16(0), le16(2000), le16(0)});
    EXPECT_EQ(ask(packet(24, data)), 0);
    const BYTES answer = receive(peer, 8 + 28 * 2000);
    ASSERT_EQ(answer.size(), 8U + 28 * 2000);
    EXPECT_EQ(part(answer, 8 + 28 * 1999, 28), EVENT_1);
}

TEST_F(Logs, AProtectorTellsItsWholeEventLogUnderAnotherKind)
{
    become_protector();
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    const BYTES whole = packet(198, join({EVENT_1, EVENT_2, EVENT_3}), JAPANESE, 1);
    EXPECT_EQ(query(1, 2, 1), whole);
    EXPECT_EQ(ask(packet(197, {1, 0, 0, 0, 0, 0, 0, 0})), 0);
    EXPECT_EQ(receive(peer, 8), whole);
}

TEST_F(Logs, AProtectorTellsOfNoMeasurements)
{
    become_protector();
    write_whole(DATALOG_PATH, " 5/ 3/2004  9: 7:10,101.2,100.3, 45,50.1,25.4,27.5,60.6, 99\n");
    EXPECT_EQ(query(2, 0, 10), empty_answer(66));
}

TEST_F(Logs, Kind197AsksForTheEventLogToo)
{
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    EXPECT_EQ(ask(packet(197, join({{77, 0}, le16(1), le16(1), le16(0)}))), 0);
    EXPECT_EQ(receive(peer, 8), packet(65, EVENT_2, JAPANESE, 1));
    EXPECT_EQ(ask(packet(197, {1, 0, 0, 0, 0, 0, 0})), -1);
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(Logs, OverUdpTheAnswerCannotBeDelivered)
{
    write_whole(EVENTLOG_PATH, EVENT_LINES);
    agent.agnet.ufd = keep(socket(AF_INET, SOCK_DGRAM, 0));
    hold(packet(197, join({{1, 0}, le16(0), le16(1), le16(0)})), client);
    agent.agnet.cnc.sockfd = agent.agnet.ufd;
    EXPECT_EQ(daemon_procnetmsg(&agent, 1, 0), -1);
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(Logs, MeasurementsAreTheNewestLinesOldestOfThemFirst)
{
    std::string lines;
    for (int i = 10; i < 35; ++i)
        lines += " 5/ 3/2004  9: 7:" + std::to_string(i) + ",101.2,100.3, 45,50.1,25.4,27.5,60.6, 99\n";
    write_whole(DATALOG_PATH, lines);
    const BYTES answer = query(2, 0, 10);
    ASSERT_EQ(answer.size(), 8U + 24 * 10);
    EXPECT_EQ(part(answer, 0, 8), header(JAPANESE, 1, 66, 8 + 24 * 10));
    // The capacity is never read back.
    const BYTES measured = {101, 0, 100, 0, 2, 3, 50, 1, 60, 6, 25, 4, 27, 5, 0, 45};
    EXPECT_EQ(part(answer, 8, 24), join({{104, 3, 5, 9, 7, 25, 0, 0}, measured}));
    EXPECT_EQ(part(answer, 8 + 24 * 9, 24), join({{104, 3, 5, 9, 7, 34, 0, 0}, measured}));
    EXPECT_EQ(query(2, 1, 10), empty_answer(66));
}

TEST_F(Logs, AQueryWithoutItsRangeIsNotAnswered)
{
    hold(packet(24, {2, 0}), agent.agnet.clilist);
    EXPECT_EQ(daemon_getdatalog(&agent), -1);
    hold(packet(24, {1, 0}), agent.agnet.clilist);
    EXPECT_EQ(daemon_geteventlog(&agent), -1);
}

// ---- schedules

class Schedules : public Served
{
};

static constexpr char NEW_YEAR[] = "[ ScheShutDown ]\n\n SPECIALNO = 1\n SPECIALDAYSTART1 = 30 22 1 0 * 250\n"
                                   " SPECIALDAYEND1 = 5 8 31 11 * 250\n SpecScheduleOn1 = 0\n";

static BYTES new_year(int from, int to)
{
    return {1,  0, 0, 0, 250, static_cast<std::uint8_t>(from), 1,  22,
            30, 0, 0, 0, 250, static_cast<std::uint8_t>(to),   31, 8,
            5,  0, 0, 0};
}

TEST_F(Schedules, AreSentAsTheyAreKept)
{
    load(NEW_YEAR);
    EXPECT_EQ(query(3), packet(80, new_year(0, 11), JAPANESE, 1));
    ASSERT_NE(agent.sl, nullptr);
    EXPECT_EQ(agent.sl->info.stimeInfo.month, 0);
    client->os = 7;
    EXPECT_EQ(query(3), packet(80, new_year(0, 11), JAPANESE, 1));
}

TEST_F(Schedules, AnOldSystemCountsMonthsFromOne)
{
    load(NEW_YEAR);
    for (const int os : {0, 1, -1}) {
        client->os = os;
        EXPECT_EQ(query(3), packet(80, new_year(1, 12), JAPANESE, 1)) << os;
        EXPECT_EQ(agent.sl->info.stimeInfo.month, 0);
    }
}

TEST_F(Schedules, AllKindsComeInTheirOrderShutdownsFirst)
{
    load("[ ScheTest ]\n\n WEEKLYNO = 1\n WEEKLYSTART1 = 0 3 * * 6\n WEEKLYEND1 = 10 3 * * 6\n"
         "[ ScheShutDown ]\n\n MONTHLYNO = 1\n MONTHLYSTART1 = 5 8 15 * *\n MONTHLYEND1 = 0 9 15 * *\n"
         " WEEKLYNO = 1\n WEEKLYSTART1 = 30 22 * * 2\n WEEKLYEND1 = 0 6 * * 3\n");
    const BYTES answer = query(3);
    ASSERT_EQ(answer.size(), 8U + 3 * 20);
    EXPECT_EQ(part(answer, 8, 4), (BYTES{2, 0, 1, 0}));
    EXPECT_EQ(part(answer, 14, 3), (BYTES{2, 22, 30}));
    EXPECT_EQ(part(answer, 28, 4), (BYTES{3, 0, 1, 0}));
    EXPECT_EQ(part(answer, 34, 3), (BYTES{15, 8, 5}));
    EXPECT_EQ(part(answer, 48, 4), (BYTES{2, 1, 1, 0}));
}

TEST_F(Schedules, NoneIsAnEmptyAnswerAndSoIsAProtectors)
{
    load("");
    EXPECT_EQ(query(3), empty_answer(80));
    EXPECT_EQ(agent.sl, nullptr);
    become_protector();
    write_whole(CONFIG_PATH, NEW_YEAR);
    EXPECT_EQ(query(3), empty_answer(80));
}

// ---- event settings and users

class Events : public Served
{
  protected:
    BYTES ask_events(std::size_t users)
    {
        const BYTES data = {4, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(ask(packet(24, data)), 0);
        const BYTES answer = receive(peer, 8 + 13348 + 543 * users);
        EXPECT_EQ(answer.size(), 8 + 13348 + 543 * users);
        EXPECT_EQ(part(answer, 0, 8),
                  header(JAPANESE, 1, 81, static_cast<std::int64_t>(8 + 13348 + 543 * users)));
        return answer;
    }
};

TEST_F(Events, WithoutSettingsTheDefaultsAreSent)
{
    const BYTES answer = ask_events(0);
    EXPECT_EQ(agent.nusers, 0);
    const BYTES first =
        join({le16(128), le16(0), le32(1), le32(1), le32(0), le32(0), le32(0), field("", 260)});
    EXPECT_EQ(part(answer, 8, 284), first);
    const BYTES last = join({le16(22), le16(0), le32(1), le32(0), le32(3), le32(0), le32(0), field("", 260)});
    EXPECT_EQ(part(answer, 8 + 284 * 46, 284), last);
}

TEST_F(Events, FortySevenRowsAreSentOfFiftyFour)
{
    write_whole(CONFIG_PATH, "[ Event22 ]\n\n Command = last\n[ Event255 ]\n\n Command = unsent\n");
    const BYTES answer = ask_events(0);
    EXPECT_EQ(part(answer, 8 + 284 * 46 + 24, 260), field("last", 260));
    EXPECT_EQ(agent.el[47].EventID, 255);
    EXPECT_STREQ(agent.el[47].Command.data(), "unsent");
}

TEST_F(Events, UsersFollowTheTable)
{
    write_whole(CONFIG_PATH,
                "[ UserInfo ]\n\n UserID = 3,9\n[ 3 ]\n\n Name = root\n Email = r@x\n[ 9 ]\n\n Name = op\n");
    const BYTES answer = ask_events(2);
    EXPECT_EQ(agent.nusers, 2);
    std::array<char, 260> host{};
    ASSERT_EQ(gethostname(host.data(), host.size()), 0);
    const BYTES expected = join({{3, 0},
                                 field("root", 21),
                                 field(host.data(), 260),
                                 field("r@x", 260),
                                 {9, 0},
                                 field("op", 21),
                                 field(host.data(), 260),
                                 field("", 260)});
    EXPECT_EQ(part(answer, 8 + 13348, 2 * 543), expected);
}

TEST_F(Events, UsersTextsAreConvertedInPlaceAndCut)
{
    std::string mail(253, 'm');
    mail += KANJI_EUC;  // the second character would pass the 255th byte
    write_whole(CONFIG_PATH, "[ UserInfo ]\n\n UserID = 1\n[ 1 ]\n\n Name = " + std::string(KANJI_EUC) +
                                 "\n Email = " + mail + "\n");
    const BYTES answer = ask_events(1);
    EXPECT_EQ(part(answer, 8 + 13348 + 2, 21), field(KANJI_SJIS, 21));
    EXPECT_EQ(part(answer, 8 + 13348 + 283, 260),
              field(std::string(253, 'm') + std::string(KANJI_SJIS.substr(0, 2)), 260));
    EXPECT_EQ(std::string_view(agent.us[0].UserName.data()), KANJI_SJIS);
    // Whatever the monitor's own language.
    EXPECT_EQ(ask(packet(24, {4, 0, 0, 0, 0, 0, 0, 0}, ENGLISH)), 0);
    EXPECT_EQ(part(receive(peer, 8 + 13348 + 543), 8 + 13348 + 2, 21), field(KANJI_SJIS, 21));
}

TEST_F(Events, AProtectorAnswersEmpty)
{
    become_protector();
    EXPECT_EQ(query(4), empty_answer(81));
}

// ---- the working configuration

class Config : public Served
{
  protected:
    BYTES ask_config(int version = JAPANESE)
    {
        EXPECT_EQ(ask(packet(24, {5, 0, 0, 0, 0, 0, 0, 0}, version)), 0);
        return receive(peer, 880);
    }
};

TEST_F(Config, WithoutSettingsTheDefaultsAreSent)
{
    const BYTES expected = join({le32(0),
                                 le32(60),
                                 le32(0),
                                 le32(600),
                                 le32(1),
                                 le32(30),
                                 le32(30),
                                 le32(600),
                                 le32(300),
                                 le32(1),
                                 le32(200),
                                 le32(1),
                                 le32(200),
                                 le32(60),
                                 le32(4),
                                 le32(0),
                                 le32(0),
                                 le32(0),
                                 le32(1),
                                 field(HOST, 260),
                                 field("", 260),
                                 field("", 260),
                                 field("Group A", 16)});
    EXPECT_EQ(ask_config(), packet(82, expected, JAPANESE, 1));
}

TEST_F(Config, WhatTheFileSaysIsLoadedAnew)
{
    load("");
    write_whole(CONFIG_PATH,
                "[ UPS ]\n\n ComSet = -2\n AgentType = 6\n[ ShutDown ]\n\n TurnOffDelay = 720\n");
    const BYTES answer = ask_config();
    EXPECT_EQ(part(answer, 8 + 8, 8), join({le32(-2), le32(720)}));
    EXPECT_EQ(part(answer, 8 + 56, 4), le32(6));
    EXPECT_EQ(block.ups.up.workparam.TurnOffDelay, 720U);
}

TEST_F(Config, AnOldMonitorFindsTheSwitchOffDelayInThePlaceOfThePort)
{
    load("[ UPS ]\n\n ComSet = 3\n[ ShutDown ]\n\n TurnOffDelay = 720\n");
    EXPECT_EQ(part(ask_config(OLD), 8 + 8, 8), join({le32(720), le32(720)}));
    EXPECT_EQ(part(ask_config(0x010F), 8 + 8, 4), le32(720));
    EXPECT_EQ(part(ask_config(JAPANESE), 8 + 8, 4), le32(3));
    EXPECT_EQ(block.ups.up.workparam.ComSet, 3);
}

TEST_F(Config, TextsAreConvertedInPlaceInTheSharedBlock)
{
    load("[ UPS ]\n\n Group = " + std::string(KANJI_EUC) + "\n");
    set_text(block.ups.up.commparam.lpszAccount, KANJI_EUC);
    set_text(block.ups.up.commparam.lpszDomain, KANJI_EUC);
    const BYTES answer = ask_config();
    EXPECT_EQ(part(answer, 8 + 856, 16), field(KANJI_SJIS, 16));
    EXPECT_EQ(part(answer, 8 + 336, 520), join({field(KANJI_SJIS, 260), field(KANJI_SJIS, 260)}));
    EXPECT_EQ(std::string_view(block.ups.up.commparam.Group.data()), KANJI_SJIS);
    EXPECT_EQ(std::string_view(block.ups.ui.Group.data()), KANJI_SJIS);
    EXPECT_EQ(std::string_view(block.ups.up.commparam.lpszAccount.data()), KANJI_SJIS);
    EXPECT_EQ(std::string_view(block.ups.up.commparam.lpszDomain.data()), KANJI_SJIS);
}

TEST_F(Config, AMonitorInAnotherLanguageGetsTextsAsTheyAre)
{
    load("[ UPS ]\n\n Group = " + std::string(KANJI_EUC) + "\n");
    EXPECT_EQ(part(ask_config(ENGLISH), 8 + 856, 16), field(KANJI_EUC, 16));
    EXPECT_EQ(std::string_view(block.ups.ui.Group.data()), KANJI_EUC);
}

TEST_F(Config, GroupAndNameStayAsAFailedOrAProtectorsQueryLeavesThem)
{
    load("");
    host_has_name = false;
    set_text(block.ups.up.commparam.Agent, KANJI_EUC);
    set_text(block.ups.up.commparam.Group, KANJI_EUC);
    set_text(block.ups.ui.Group, KANJI_EUC);
    EXPECT_EQ(query(5), empty_answer(82));
    EXPECT_EQ(std::string_view(block.ups.up.commparam.Agent.data()), KANJI_SJIS);
    EXPECT_EQ(std::string_view(block.ups.up.commparam.Group.data()), KANJI_SJIS);
    EXPECT_EQ(std::string_view(block.ups.ui.Group.data()), KANJI_SJIS);
    host_has_name = true;
    become_protector();
    set_text(block.ups.up.commparam.Agent, KANJI_EUC);
    set_text(block.ups.ui.Group, KANJI_EUC);
    EXPECT_EQ(query(5), empty_answer(82));
    EXPECT_EQ(std::string_view(block.ups.up.commparam.Agent.data()), KANJI_SJIS);
    EXPECT_EQ(std::string_view(block.ups.ui.Group.data()), KANJI_SJIS);
}

TEST_F(Config, FieldsWithoutTheirEndAreSentWithOneAndZerosBehindIt)
{
    load("");
    block.ups.up.commparam.lpszAccount.fill('a');
    block.ups.up.commparam.lpszDomain.fill('d');
    block.ups.up.commparam.lpszDomain[3] = '\0';
    const BYTES answer = ask_config();
    EXPECT_EQ(part(answer, 8 + 336, 260), field(std::string(259, 'a'), 260));
    EXPECT_EQ(part(answer, 8 + 596, 260), field("ddd", 260));
}

// ---- protectors

TEST_F(Config, AProtectorTellsWhoProtectsIt)
{
    become_protector();
    EXPECT_EQ(ask(packet(195)), 0);
    EXPECT_EQ(receive(peer, 8), packet(194, join({le32(0), field(HOST, 16)}), JAPANESE, 1));
    host_has_name = false;
    EXPECT_EQ(ask(packet(195)), 0);
    EXPECT_EQ(receive(peer, 8), empty_answer(194));
}

TEST_F(Config, AnAgentWithAUnitOfItsOwnIsProtectedByNobody)
{
    load("");
    EXPECT_EQ(ask(packet(195)), 0);
    EXPECT_EQ(receive(peer, 8), empty_answer(194));
}

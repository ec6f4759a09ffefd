// The engine's door: what each command does, which answers carry what, start-up, and the event tables.
#include "tests/unit/engine_fixture.h"

#include "e_a_event_table.h"
#include "wp_field.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

static const std::string STARTED = " 5/ 3/2004  9: 7: 2   7 255                \n";
static constexpr std::uint32_t UNTOUCHED = 9999;

static bool nameless;  // the host tells no name

extern "C" int uname(utsname *host) noexcept
{
    return nameless ? -1 : static_cast<int>(syscall(SYS_uname, host));
}

class EngineEntry : public Engine
{
  protected:
    void SetUp() override
    {
        Engine::SetUp();
        write_file(CONFIG_PATH, "\n[ UPS ]\n AgentType = 4\n Group = Lab\n");
        eout.datatype = UNTOUCHED;
        ein.DATA.upsconfigp = &ups.up;
        order.cmd = 20;
        ein.DATA.acp = &order;
    }

    AGENTCMD order{};
};

TEST_F(EngineEntry, EachCommandSaysWhatItFilled)
{
    const std::array<std::tuple<int, std::uint32_t, int>, 12> cases = {{
        {1, 15, 0},
        {2, 2, 0},
        {3, 8, 0},
        {4, 4, 0},
        {5, 16, -1},
        {6, 32, -1},
        {8, 0, 0},
        {9, 0, 0},
        {10, 0, 0},
        {11, UNTOUCHED, 0},
        {17, UNTOUCHED, 0},
        {18, UNTOUCHED, -1},
    }};
    for (const auto &[cmd, datatype, result] : cases) {
        eout.datatype = UNTOUCHED;
        EXPECT_EQ(act(cmd), result) << cmd;
        EXPECT_EQ(eout.datatype, datatype) << cmd;
        EXPECT_EQ(engine.CURRENTCMD, cmd);
    }
}

TEST_F(EngineEntry, AGetThatFailsSaysWhatItWasAllTheSame)
{
    eout.DATA.eu.eap = nullptr;
    EXPECT_EQ(act(3), -1);
    EXPECT_EQ(eout.datatype, 8u);
    nameless = true;
    EXPECT_EQ(act(2), -1);
    nameless = false;
    EXPECT_EQ(eout.datatype, 2u);
}

TEST_F(EngineEntry, CommandsThatDoNotExistChangeNothing)
{
    for (const int cmd : {0, 7, 12, 13, 14, 15, 16, 19, -1, 1000}) {
        const UPS before = ups;
        EXPECT_EQ(act(cmd), 0) << cmd;
        EXPECT_EQ(eout.datatype, UNTOUCHED);
        EXPECT_EQ(std::memcmp(&before, &ups, sizeof(ups)), 0) << cmd;
        EXPECT_TRUE(recorder.calls.empty());
        EXPECT_EQ(engine.CURRENTCMD, cmd);
    }
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
}

TEST_F(EngineEntry, TheStateOfTheLinkIsNotedOnEveryCall)
{
    ups.ui.CommStatus = COMM_LOST;
    EXPECT_EQ(act(0), 0);
    EXPECT_EQ(engine.ISCOMLST, 1);
    for (const std::int8_t status : {COMM_ESTABLISHED, COMM_NOUPS}) {
        ups.ui.CommStatus = status;
        EXPECT_EQ(act(0), 0);
        EXPECT_EQ(engine.ISCOMLST, 0);
    }
}

TEST_F(EngineEntry, SchedulesAreAlwaysServed)
{
    SCHEDULELIST node{};
    eout.DATA.schlist = &node;
    EXPECT_EQ(act(4), 0);
    EXPECT_EQ(eout.DATA.schlist, nullptr);
}

TEST_F(EngineEntry, StartAndAgentEventsAreRefusedSilentlyOnTheWayDown)
{
    engine.ISSHUTTINGDOWN = 1;
    for (const int cmd : {1, 18}) {
        EXPECT_EQ(act(cmd), 0);
        EXPECT_EQ(eout.datatype, UNTOUCHED);
    }
    EXPECT_TRUE(recorder.calls.empty());
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
    EXPECT_EQ(act(2), 0);
    EXPECT_EQ(eout.datatype, 2u);
}

TEST_F(EngineEntry, MonitorsAreServedOnTheWayDownAsBefore)
{
    engine.ISSHUTTINGDOWN = 1;
    for (const auto &[cmd, datatype] :
         {std::pair{2, 2u}, {3, 8u}, {4, 4u}, {5, 16u}, {6, 32u}, {8, 0u}, {9, 0u}, {10, 0u}}) {
        eout.datatype = UNTOUCHED;
        act(cmd);
        EXPECT_EQ(eout.datatype, datatype) << cmd;
    }
    act(11);
    EXPECT_FALSE(recorder.calls.empty());
}

TEST_F(EngineEntry, AnOrderOfShutdownIsNotedThoughItFails)
{
    order.cmd = 18;
    EXPECT_EQ(act(11), -1);
    EXPECT_EQ(engine.beDoCmdDown, 1);
    order.cmd = 19;
    EXPECT_EQ(act(11), -1);
    EXPECT_EQ(engine.beDoCmdDown, 0);
}

TEST_F(EngineEntry, ACommandWithoutItsRecordIsRefused)
{
    ein.DATA.acp = nullptr;
    EXPECT_EQ(act(11), -1);
}

TEST_F(EngineEntry, TheSetCommandAnswersWithTheSettingsInForceEvenWhenItFails)
{
    std::filesystem::remove(CONFIG_PATH);
    std::filesystem::create_directory(CONFIG_PATH);
    ups.up.workparam.BattLife = 5;
    EXPECT_EQ(act(8), -1);
    EXPECT_EQ(eout.datatype, 0u);
    EXPECT_EQ(ups.up.workparam.BattLife, 60u);
}

TEST_F(EngineEntry, RefusedSetsOfEventsAndSchedulesAnswerWithWhatIsInForce)
{
    std::filesystem::remove(CONFIG_PATH);
    std::filesystem::create_directory(CONFIG_PATH);
    events[0].EventID = 999;
    EXPECT_EQ(act(9), -1);
    EXPECT_EQ(events[0].EventID, 128);
    SCHEDULELIST node{};
    ein.DATA.schlist = eout.DATA.schlist = &node;
    EXPECT_EQ(act(10), -1);
    EXPECT_EQ(eout.DATA.schlist, nullptr);
}

// Each call advances the timers: here by a self-test that is due and cannot be started.
TEST_F(EngineEntry, ATimerStepThatFailsFailsWhateverCallItCameWith)
{
    ups.ui.CommStatus = COMM_ESTABLISHED;
    engine.bBattConnect = 1;
    engine.renewal = timenow() + 1000;
    recorder.results[E_CB_SELFTEST] = -1;
    for (const int cmd : {0, 2, 3, 7, 9, 12, 19, 11}) {
        engine.next_test = timenow();
        engine.schtestreason = WEEKLY;
        EXPECT_EQ(act(cmd), -1) << cmd;
        EXPECT_EQ(engine.next_test, 0) << cmd;
        engine.testreason = NONE;
        EXPECT_EQ(act(0), 0);
    }
}

TEST_F(EngineEntry, TheAnswerWordIsTheCallersOwn)
{
    std::int32_t word = 4711;
    EXPECT_EQ(Event_Action(2, &ein, &word, &eout), 0);
    EXPECT_EQ(word, 4711);
    EXPECT_EQ(Event_Action(2, &ein, nullptr, &eout), 0);
}

class EngineStart : public EngineEntry
{
};

TEST_F(EngineStart, AStartLoadsLogsAndAnnounces)
{
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(eout.datatype, 15u);
    EXPECT_EQ(ups.up.workparam.BattLife, 60u);
    EXPECT_EQ(field_view(ups.ui.Group), "Lab");
    EXPECT_EQ(ups.ui.sftResBattery.Result, 2u);
    EXPECT_EQ(ups.ui.sftResUPS.Result, 2u);
    EXPECT_EQ(eout.DATA.schlist, nullptr);
    EXPECT_EQ(events[0].EventID, 128);
    EXPECT_EQ(read_file(LOG_PATH), STARTED);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{32768, 0, 0}, {8192, 0, 0}}));
}

TEST_F(EngineStart, AnnouncingTheStartComesAfterLoggingIt)
{
    std::string log;
    recorder.watch = [&log](int code) {
        if (code == E_CB_STATUSCHANGED)
            log = read_file(LOG_PATH);
    };
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(log, STARTED);
    EXPECT_EQ(std::get<0>(recorder.calls.back()), 8192);
    EXPECT_EQ(recorder.data.back(), nullptr);
}

TEST_F(EngineStart, ASecondStartAppends)
{
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(read_file(LOG_PATH), STARTED + STARTED);
}

TEST_F(EngineStart, WithoutAPortThereIsNoUps)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n ComSet = -2\n Group = Lab\n");
    ups.ui.CommStatus = COMM_LOST;
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(ups.ui.CommStatus, COMM_NOUPS);
}

TEST_F(EngineStart, WithAPortTheLinkIsLeftToTheUnit)
{
    ups.ui.CommStatus = COMM_LOST;
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(ups.ui.CommStatus, COMM_LOST);
}

TEST_F(EngineStart, AFailedStartIsNoEventButLoadsTheRest)
{
    eout.DATA.eu.eap = nullptr;
    EXPECT_EQ(act(1), -1);
    EXPECT_EQ(eout.datatype, 15u);
    EXPECT_EQ(field_view(ups.ui.Group), "Lab");
    EXPECT_EQ(ups.ui.sftResUPS.Result, 2u);
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{32768, 0, 0}}));
}

TEST_F(EngineStart, AStartWhoseLogLineIsLostIsAnnouncedAllTheSame)
{
    std::filesystem::create_symlink("/dev/full", LOG_PATH);
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(engine.eventlogfailed, 1);
    EXPECT_EQ(std::get<0>(recorder.calls.back()), 8192);
    std::filesystem::remove(LOG_PATH);
}

TEST_F(EngineStart, AFailedConfigurationFailsTheStart)
{
    nameless = true;
    EXPECT_EQ(act(1), -1);
    nameless = false;
    EXPECT_EQ(events[0].EventID, 128);
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
}

TEST_F(EngineStart, AFailedStatusFillFailsTheStart)
{
    set_clock(-1);
    EXPECT_EQ(act(1), -1);
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
}

TEST_F(EngineStart, AStartWithLoggingOffWritesNoLog)
{
    write_file(CONFIG_PATH, "\n[ EventLog ]\n EventLogEnabled = 0\n");
    EXPECT_EQ(act(1), 0);
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
    EXPECT_EQ(std::get<0>(recorder.calls.back()), 8192);
}

TEST_F(EngineStart, AProtectorStartsAndLogs)
{
    write_file(CONFIG_PATH, "\n[ UPS ]\n AgentType = 1\n Group = Lab\n");
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(read_file(LOG_PATH), STARTED);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{8192, 0, 0}}));
}

TEST_F(EngineStart, AStartHonoursTheLengthOfTheLog)
{
    write_file(CONFIG_PATH, "\n[ EventLog ]\n EventLogMaxSize = 2\n");
    write_file(LOG_PATH,
               "21/11/2026 13:14:15  65 255            host\n21/11/2026 13:14:16   0 255            host\n");
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(read_file(LOG_PATH), "21/11/2026 13:14:16   0 255            host\n" + STARTED);
}

TEST_F(EngineStart, ALengthBeyondAnIntKeepsEveryLine)
{
    write_file(CONFIG_PATH, "\n[ EventLog ]\n EventLogMaxSize = 4294967295\n");
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(act(1), 0);
    EXPECT_EQ(read_file(LOG_PATH), STARTED + STARTED);
}

class EngineEvents : public EngineEntry
{
  protected:
    void SetUp() override
    {
        EngineEntry::SetUp();
        ASSERT_EQ(getevent(events.data(), &ein, &eout), 0);
        engine.EVENTLOGENABLED = 1;
        ups.up.logparam.MaxEventRec = 200;
    }

    static std::string last_line()
    {
        const std::string log = read_file(LOG_PATH);
        return log.size() < 44 ? log : log.substr(log.size() - 44);
    }
};

TEST_F(EngineEvents, TheDefaultsStandInTheOrderOfTheTable)
{
    const std::array<int, EVENT_COUNT> order_of_ids = {
        128, 129, 130, 131, 132, 133, 134, 64, 65, 66, 67, 68,  69, 70, 71, 72, 73, 74,
        75,  76,  77,  78,  79,  80,  0,   1,  2,  3,  4,  5,   6,  7,  8,  9,  10, 11,
        12,  13,  15,  14,  16,  17,  18,  19, 20, 21, 22, 255, 48, 49, 50, 51, 52, 53};
    for (std::size_t i = 0; i < EVENT_COUNT; i++) {
        EXPECT_EQ(events[i].EventID, order_of_ids[i]);
        EXPECT_EQ(EventMsg[i].eID, order_of_ids[i]);
    }
}

TEST_F(EngineEvents, TheDefaultsRecordAllShutDownForTheirCausesAndTellTheTerminalsOfSome)
{
    const std::set<int> shutdown = {128, 129, 130, 131, 132, 133, 134};
    const std::set<int> walled = {128, 129, 130, 131, 132, 133, 134, 65, 74, 75,
                                  76,  79,  80,  0,   48,  49,  50,  51, 52, 53};
    for (std::size_t i = 0; i < EVENT_COUNT; i++) {
        const UPS_EVENTINFO &event = events[i];
        EXPECT_EQ(event.Record, 1);
        EXPECT_EQ(event.Shutdown, shutdown.contains(event.EventID)) << event.EventID;
        EXPECT_EQ(event.BroadcastType, walled.contains(event.EventID) ? 0u : 3u) << event.EventID;
        EXPECT_EQ(event.BroadcastUser, 0u);
        EXPECT_EQ(event.MailUser, 0u);
        EXPECT_EQ(field_view(event.Command), "");
        EXPECT_EQ(event.Reserved, 0);
    }
    EXPECT_EQ(events[EVENT_COUNT].EventID, 0);
}

// The texts are the keys of the translations, and shown to users: none may change by a letter.
TEST_F(EngineEvents, TextsAreFoundByTheirNumber)
{
    const std::array<std::pair<int, const char *>, EVENT_COUNT> texts = {{
        {128, "UPS Battery Low"},
        {129, "UPS AC Fail Delay Run out"},
        {130, "specified date to turn off UPS is arrived at"},
        {131, "weekly time to turn off UPS is arrived at"},
        {132, "monthly time to turn off UPS is arrived at"},
        {133, "Shutdown Time Initiated by Users is arrived at"},
        {134, "Shut Down Time Initiated by other Agent is arrived at"},
        {64, "UPS communication Lost"},
        {65, "UPS Ac fail"},
        {66, "UPS Battery Disconnect"},
        {67, "UPS is Bypass"},
        {68, "UPS Battery is weak"},
        {69, "UPS SelfTest by User Failed"},
        {70, "UPS Special Day SelfTest Failed"},
        {71, "UPS Weekly SelfTest Failed"},
        {72, "UPS Monthly SelfTest Failed"},
        {73, "Battery SelfTest Failed"},
        {74, "System begin specially turn off UPS warning"},
        {75, "System begin weekly turn off UPS Warning"},
        {76, "System begin monthly turn off UPS Warning"},
        {77, "UPS abnormal"},
        {78, "UPS overload"},
        {79, "Receive shutdown Command From Users on %s"},
        {80, "Network Shutdown Triggered by Other Agent"},
        {0, "UPS AC Restore"},
        {1, "UPS Communication established"},
        {2, "SelfTest by User succeeded"},
        {3, "Special Day Selftest succeeded"},
        {4, "Weekly SelfTest succeeded"},
        {5, "Monthly Selftest succeeded"},
        {6, "UPS Battery Selftest succeeded"},
        {7, "UPS Agent Start up"},
        {8, "UPS Agent stop"},
        {9, "UPS Working SetParameters is changed"},
        {10, "UPS Schedule Setparameters is changed"},
        {11, "UPS Smart Event Setparameters is changed"},
        {12, "Disable UPS Automatic Selftest Timer"},
        {13, "Enable UPS Automatic Selftest Timer"},
        {15, "Enable the Buzzer"},
        {14, "Disable the Buzzer"},
        {16, "The Battery is Changed"},
        {17, "Set up to output voltage 100V standard sensitivity"},
        {18, "Set up to output voltage 100V low sensitivity"},
        {19, "Set up to output voltage 115V standard sensitivity"},
        {20, "Set up to output voltage 115V low sensitivity"},
        {21, "The Shutdown is Canceled by Users on %s"},
        {22, "System is shutdown"},
        {255, "No event"},
        {48, "Protector start"},
        {49, "Protector stop"},
        {50, "Protector not find Agent"},
        {51, "Protector find Agent"},
        {52, "Protector's parameters is set"},
        {53, "Protector shutdown to Agent"},
    }};
    for (const auto &[id, text] : texts)
        EXPECT_STREQ(eventmsg(id), text) << id;
    EXPECT_EQ(eventmsg(23), nullptr);
    EXPECT_EQ(eventmsg(-1), nullptr);
}

TEST_F(EngineEvents, EveryUserSlotIsMarkedEmpty)
{
    userinfo.nusers = 5;
    users[31].UserID = 3;
    EXPECT_EQ(getevent(events.data(), &ein, &eout), 0);
    EXPECT_EQ(userinfo.nusers, 0);
    EXPECT_TRUE(
        std::all_of(users.begin(), users.end(), [](const USERSDATA &user) { return user.UserID == 255; }));
}

TEST_F(EngineEvents, AnEventIsLoggedWhenItAsksForItAndLoggingIsOn)
{
    EXPECT_EQ(eventaction(65, &ein, &eout), 0);
    EXPECT_EQ(last_line(), " 5/ 3/2004  9: 7: 2  65 255                \n");
    events[8].Record = 0;
    EXPECT_EQ(eventaction(65, &ein, &eout), 0);
    engine.EVENTLOGENABLED = 0;
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
    EXPECT_EQ(read_file(LOG_PATH).size(), 44u);
}

TEST_F(EngineEvents, ASecondLineIsNoFailure)
{
    EXPECT_EQ(eventaction(65, &ein, &eout), 0);
    EXPECT_EQ(eventaction(0, &ein, &eout), 0);
}

TEST_F(EngineEvents, ALostLogLineIsAFailure)
{
    std::filesystem::create_symlink("/dev/full", LOG_PATH);
    EXPECT_EQ(eventaction(65, &ein, &eout), -1);
    std::filesystem::remove(LOG_PATH);
}

TEST_F(EngineEvents, UnknownEventsAreRefused)
{
    EXPECT_EQ(eventaction(23, &ein, &eout), -1);
    events[7].EventID = 63;  // a table that lacks 64
    EXPECT_EQ(eventaction(64, &ein, &eout), -1);
    EXPECT_EQ(eventaction(63, &ein, &eout), -1);
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
}

TEST_F(EngineEvents, WithoutATableNothingIsDone)
{
    ein.DATA.eu.eap = nullptr;
    EXPECT_EQ(eventaction(65, &ein, &eout), -1);
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
}

TEST_F(EngineEvents, AGetOfTheSettingsBringsItsOwnTable)
{
    engine.CURRENTCMD = 3;
    ein.DATA.eu.eap = nullptr;
    EXPECT_EQ(eventaction(65, &ein, &eout), 0);
    eout.DATA.eu.eap = nullptr;
    ein.DATA.eu.eap = events.data();
    EXPECT_EQ(eventaction(65, &ein, &eout), -1);
}

TEST_F(EngineEvents, TheFirstEventAfterStartEmptiesTheOlderSlot)
{
    engine.last2event[1].EventId = 65;
    EXPECT_EQ(eventaction(7, &ein, &eout), 0);
    EXPECT_EQ(engine.last2event[0].EventId, 255);
    EXPECT_EQ(engine.last2event[1].EventId, 7);
    EXPECT_EQ(eventaction(65, &ein, &eout), 0);
    EXPECT_EQ(engine.last2event[0].EventId, 7);
    EXPECT_EQ(engine.last2event[1].EventId, 65);
    EXPECT_EQ(engine.last2event[1].byDownToEvt, -1);
    EXPECT_EQ(engine.last2event[1].timeinfo.year, 104);
}

TEST_F(EngineEvents, TheSystemsShutdownNamesItsCause)
{
    engine.DOWNEVENTID = 129;
    EXPECT_EQ(eventaction(22, &ein, &eout), 0);
    EXPECT_EQ(last_line(), " 5/ 3/2004  9: 7: 2  22 129                \n");
    EXPECT_EQ(engine.last2event[1].byDownToEvt, static_cast<std::int8_t>(129));
}

TEST_F(EngineEvents, AUsersOrderNamesItsMonitor)
{
    UPS_AGENTDOWNINFO down{};
    down.Agent.fill('m');
    order.cmd = 18;
    order.arg.adip = &down;
    EXPECT_EQ(eventaction(79, &ein, &eout), 0);
    EXPECT_EQ(read_file(LOG_PATH), " 5/ 3/2004  9: 7: 2  79 255 mmmmmmmmmmmmmmmm\n");
    EXPECT_EQ(field_view(engine.monitorname), std::string(16, 'm'));
    EXPECT_EQ(field_view(engine.last2event[1].AgentName), std::string(15, 'm'));
}

TEST_F(EngineEvents, AUsersCancelNamesItsMonitor)
{
    std::array<char, 16> name{};
    field_set(name, "console");
    order.cmd = 19;
    order.arg.hp = name.data();
    EXPECT_EQ(eventaction(21, &ein, &eout), 0);
    EXPECT_EQ(last_line(), " 5/ 3/2004  9: 7: 2  21 255         console\n");
    EXPECT_EQ(field_view(engine.monitorname), "console");
}

TEST_F(EngineEvents, AnotherAgentsShutdownNamesTheAgent)
{
    field_set(engine.agentname, "server2");
    for (const int id : {80, 134}) {
        std::filesystem::remove(LOG_PATH);
        EXPECT_EQ(eventaction(id, &ein, &eout), 0);
        EXPECT_EQ(last_line().substr(27), "         server2\n");
        EXPECT_EQ(field_view(engine.last2event[1].AgentName), "server2");
    }
}

TEST_F(EngineEvents, AnEventOfTheCallerWithoutAnOrderKeepsTheLastMonitor)
{
    ein.DATA.acp = nullptr;
    field_set(engine.monitorname, "before");
    EXPECT_EQ(eventaction(79, &ein, &eout), 0);
    EXPECT_EQ(last_line().substr(27), "          before\n");
}

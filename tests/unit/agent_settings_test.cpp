// New settings, from the packet to the settings file and to what is in force.
#include "agent_engine_fixture.h"

// ---- schedules

class ScheduleSet : public Served
{
  protected:
    static BYTES special(int from, int to)
    {
        return {1,  0, 1, 0, 250, static_cast<std::uint8_t>(from), 1,  22,
                30, 0, 0, 0, 250, static_cast<std::uint8_t>(to),   31, 8,
                5,  0, 0, 0};
    }

    static BYTES weekly_test()
    {
        return {2, 1, 1, 0, 0, 0, 6, 3, 0, 0, 0, 0, 0, 0, 6, 3, 10, 0, 0, 0};
    }
};

TEST_F(ScheduleSet, EntriesAreStoredInTheirOrder)
{
    load(sections({"ScheShutDown", "ScheTest"}));
    EXPECT_EQ(ask(packet(80, join({special(0, 11), weekly_test(), special(3, 4)}))), 0);
    EXPECT_EQ(stored("ScheShutDown", "SPECIALNO"), "2");
    EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYSTART1"), "30 22 1 0 * 250");
    EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYEND1"), "5 8 31 11 * 250");
    EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYSTART2"), "30 22 1 3 * 250");
    EXPECT_EQ(stored("ScheTest", "WEEKLYNO"), "1");
    EXPECT_EQ(stored("ScheTest", "WEEKLYSTART1"), "0 3 * * 6");
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(ScheduleSet, TheAgentKeepsTheListThatCame)
{
    load(sections({"ScheShutDown", "ScheTest"}));
    ASSERT_EQ(ask(packet(80, join({special(0, 11), weekly_test()}))), 0);
    ASSERT_NE(agent.sl, nullptr);
    EXPECT_EQ(agent.sl->info.ID, 1);
    ASSERT_NE(agent.sl->next, nullptr);
    EXPECT_EQ(agent.sl->next->info.ActionID, 1);
    EXPECT_EQ(agent.sl->next->next, nullptr);
}

TEST_F(ScheduleSet, AnOldSystemCountsMonthsFromOne)
{
    for (const int os : {1, 0, -1}) {
        load(sections({"ScheShutDown", "ScheTest"}));
        client->os = os;
        EXPECT_EQ(ask(packet(80, special(1, 12))), 0);
        EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYSTART1"), "30 22 1 0 * 250") << os;
        EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYEND1"), "5 8 31 11 * 250") << os;
        EXPECT_EQ(query(3), packet(80, special(1, 12), JAPANESE, 1)) << os;
    }
}

TEST_F(ScheduleSet, AMonthOfZeroOrLessIsNotCountedDown)
{
    load(sections({"ScheShutDown", "ScheTest"}));
    client->os = 1;
    EXPECT_EQ(ask(packet(80, special(0, 0xFF))), 0);
    EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYSTART1"), "30 22 1 0 * 250");
    EXPECT_EQ(stored("ScheShutDown", "SPECIALDAYEND1"), "5 8 31 -1 * 250");
}

TEST_F(ScheduleSet, AnEmptyPacketEmptiesTheList)
{
    load(sections({"ScheShutDown", "ScheTest"}));
    ASSERT_EQ(ask(packet(80, special(0, 11))), 0);
    ASSERT_EQ(ask(packet(80)), 0);
    EXPECT_EQ(stored("ScheShutDown", "SPECIALNO"), "0");
    EXPECT_EQ(agent.sl, nullptr);
    EXPECT_EQ(query(3), empty_answer(80));
}

TEST_F(ScheduleSet, ALengthThatFitsNoCountChangesNothing)
{
    load(sections({"ScheShutDown", "ScheTest"}));
    ASSERT_EQ(ask(packet(80, special(0, 11))), 0);
    const std::string before = config_file();
    for (const std::size_t size : {1U, 19U, 21U, 39U})
        EXPECT_EQ(ask(packet(80, counting(size))), -1) << size;
    EXPECT_EQ(ask(header(JAPANESE, 0, 80, 0)), -1);
    EXPECT_EQ(config_file(), before);
    EXPECT_NE(agent.sl, nullptr);
}

TEST_F(ScheduleSet, AProtectorRefuses)
{
    become_protector();
    const std::string before = config_file();
    EXPECT_EQ(ask(packet(80, special(0, 11))), -1);
    EXPECT_EQ(config_file(), before);
}

TEST_F(ScheduleSet, HundredsOfEntriesComeBack)
{
    load(sections({"ScheShutDown", "ScheTest"}));
    BYTES data;
    for (int i = 0; i < 300; ++i)
        data = join({data, special(i % 12, 11)});
    ASSERT_EQ(ask(packet(80, data)), 0);
    EXPECT_EQ(query(3).size(), 8 + data.size());
}

TEST_F(ScheduleSet, FourHundredEntriesAreStoredAndMoreAreRefused)
{
    load(sections({"ScheShutDown", "ScheTest"}));
    BYTES data;
    for (int i = 0; i < 400; ++i)
        data = join({data, special(i % 12, 11)});
    ASSERT_EQ(ask(packet(80, data)), 0);
    EXPECT_EQ(query(3).size(), 8 + data.size());
    const std::string before = config_file();
    EXPECT_EQ(ask(packet(80, join({data, weekly_test()}))), -1);
    EXPECT_EQ(config_file(), before);
    EXPECT_EQ(query(3).size(), 8 + data.size());
}

// ---- event settings and users

static BYTES event_row(int id, std::string_view command = {})
{
    return join({le16(id), le16(0), le32(0), le32(id >= 128), le32(2), le32(0x80000001), le32(5),
                 field(command, 260)});
}

// The ids of the 47 rows, as every monitor has them.
static std::vector<int> event_ids()
{
    std::vector<int> ids;
    for (int id = 128; id <= 134; ++id)
        ids.push_back(id);
    for (int id = 64; id <= 80; ++id)
        ids.push_back(id);
    for (int id = 0; id <= 22; ++id)
        ids.push_back(id == 14 || id == 15 ? 29 - id : id);
    return ids;
}

static BYTES event_rows()
{
    BYTES rows;
    for (const int id : event_ids())
        rows = join({rows, event_row(id, "run " + std::to_string(id))});
    return rows;
}

static BYTES user(int id, std::string_view name, std::string_view address = {}, std::string_view email = {})
{
    return join(
        {{static_cast<std::uint8_t>(id), 0}, field(name, 21), field(address, 260), field(email, 260)});
}

class EventSet : public Served
{
  protected:
    EventSet()
    {
        std::string config = sections({"UserInfo", "1", "2", "5", "7"});
        for (const int id : event_ids())
            config += sections({"Event" + std::to_string(id)});
        load(config + sections({"Event255"}));
    }
};

TEST_F(EventSet, EveryRowIsStored)
{
    EXPECT_EQ(ask(packet(81, event_rows())), 0);
    for (const int id : event_ids()) {
        const std::string section = "Event" + std::to_string(id);
        EXPECT_EQ(stored(section, "Record"), "No");
        EXPECT_EQ(stored(section, "ShutDown"), id >= 128 ? "1" : "0");
        EXPECT_EQ(stored(section, "BroadcastType"), "2");
        EXPECT_EQ(stored(section, "BroadcastUser"), "2147483649");
        EXPECT_EQ(stored(section, "MailUser"), "5");
        EXPECT_EQ(stored(section, "Command"), "run " + std::to_string(id));
    }
    EXPECT_EQ(stored("Event255", "Record"), "Yes");  // rows that monitors do not send stay
    EXPECT_EQ(stored("UserInfo", "UserID"), "");
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(EventSet, WhatWasStoredIsReadBack)
{
    const BYTES rows = event_rows();
    ASSERT_EQ(ask(packet(81, join({rows, user(2, "root", "here", "r@x"), user(5, "op")}))), 0);
    EXPECT_EQ(stored("UserInfo", "UserID"), "2,5");
    EXPECT_EQ(stored("2", "Address"), "here");
    EXPECT_EQ(agent.nusers, 2);
    EXPECT_EQ(ask(packet(24, {4, 0, 0, 0, 0, 0, 0, 0})), 0);
    const BYTES answer = receive(peer, 8 + 13348 + 2 * 543);
    EXPECT_EQ(part(answer, 8, 13348), rows);
    EXPECT_EQ(part(answer, 8 + 13348, 23), join({{2, 0}, field("root", 21)}));
    EXPECT_EQ(part(answer, 8 + 13348 + 283, 260), field("r@x", 260));
    EXPECT_EQ(part(answer, 8 + 13348 + 543, 23), join({{5, 0}, field("op", 21)}));
}

TEST_F(EventSet, TextsAreTurnedIntoTheFormOfMonitors)
{
    ASSERT_EQ(ask(packet(81, join({event_rows(), user(1, KANJI_EUC, KANJI_EUC, KANJI_EUC)}))), 0);
    EXPECT_EQ(stored("1", "Name"), KANJI_SJIS);
    EXPECT_EQ(stored("1", "Address"), KANJI_SJIS);
    EXPECT_EQ(stored("1", "Email"), KANJI_SJIS);
    ASSERT_EQ(ask(packet(81, join({event_rows(), user(1, KANJI_EUC)}), ENGLISH)), 0);
    EXPECT_EQ(stored("1", "Name"), KANJI_SJIS);
}

TEST_F(EventSet, TextsWithoutTheirEndAreCut)
{
    const BYTES wild = join({{7, 0},
                             field(std::string(21, 'n'), 21),
                             field(std::string(260, 'a'), 260),
                             field(std::string(254, 'e') + std::string(KANJI_SJIS) + "zz", 260)});
    ASSERT_EQ(ask(packet(81, join({event_rows(), wild}))), 0);
    EXPECT_EQ(stored("7", "Name"), std::string(20, 'n'));
    EXPECT_EQ(stored("7", "Address"), std::string(255, 'a'));
    EXPECT_EQ(stored("7", "Email"), std::string(254, 'e'));
}

TEST_F(EventSet, ThirtyTwoUsersAreTakenOfMore)
{
    for (const int count : {32, 33, 60}) {
        BYTES data = event_rows();
        for (int i = 0; i < count; ++i)
            data = join({data, user(i + 1, "u" + std::to_string(i + 1))});
        ASSERT_EQ(ask(packet(81, data)), 0);
        EXPECT_EQ(agent.nusers, 32);
        EXPECT_TRUE(stored("UserInfo", "UserID").ends_with(",31,32")) << count;
        EXPECT_EQ(stored("33", "Name"), "-");
    }
}

TEST_F(EventSet, SlotsBehindTheLastUserAreEmpty)
{
    ASSERT_EQ(ask(packet(81, join({event_rows(), user(1, "one"), user(2, "two", "at", "mail")}))), 0);
    ASSERT_EQ(ask(packet(81, join({event_rows(), user(1, "one")}))), 0);
    EXPECT_EQ(agent.nusers, 1);
    for (std::size_t i = 1; i < USER_COUNT; ++i) {
        EXPECT_EQ(agent.us[i].UserID, 0xFF);
        EXPECT_EQ(agent.us[i].UserName[0], '\0');
        EXPECT_EQ(agent.us[i].Address[0], '\0');
        EXPECT_EQ(agent.us[i].Email[0], '\0');
    }
}

TEST_F(EventSet, ALengthThatFitsNoCountChangesNothing)
{
    ASSERT_EQ(ask(packet(81, join({event_rows(), user(1, "one")}))), 0);
    const std::string before = config_file();
    const auto table = agent.el;
    for (const std::size_t size :
         {0U, 284U, 13347U, 13349U, 13348U + 542U, 13348U + 544U, 13348U + 33U * 543U + 1U})
        EXPECT_EQ(ask(packet(81, counting(size))), -1) << size;
    EXPECT_EQ(config_file(), before);
    EXPECT_EQ(agent.us[0].UserID, 1);
    EXPECT_EQ(std::memcmp(table.data(), agent.el.data(), sizeof table), 0);
}

TEST_F(EventSet, AProtectorRefuses)
{
    become_protector();
    const std::string before = config_file();
    const auto table = agent.el;
    EXPECT_EQ(ask(packet(81, join({event_rows(), user(1, "one")}))), -1);
    EXPECT_EQ(config_file(), before);
    EXPECT_EQ(std::memcmp(table.data(), agent.el.data(), sizeof table), 0);
    EXPECT_EQ(agent.us[0].UserID, 0xFF);
}

// ---- the working configuration

// A request for everything that a monitor can set, and the tests' changes to it.
struct PARAM {
    BYTES work =
        join({le32(1), le32(90), le32(2), le32(700), le32(0), le32(20), le32(25), le32(500), le32(100)});
    BYTES log = join({le32(0), le32(150), le32(0), le32(160), le32(30)});
    int type = 5;
    BYTES agent_name = field("ignored", 260);
    BYTES account = field("acc", 260);
    BYTES domain = field("dom", 260);
    BYTES group = field("Lab", 16);

    void set_work(std::size_t index, std::int64_t value)
    {
        const BYTES word = le32(value);
        std::copy(word.begin(), word.end(), work.begin() + static_cast<long>(4 * index));
    }

    [[nodiscard]] BYTES bytes() const
    {
        return join({work, log, le32(type), le32(11), le32(12), le32(13), le32(0), agent_name, account,
                     domain, group});
    }
};

enum : std::size_t { BATTLIFE = 1, COMSET = 2, AUTOREBOOT = 4 };

class ConfigSet : public Served
{
  protected:
    ConfigSet()
    {
        load(sections({"ShutDown", "EventLog", "DataLog"}) +
             "[ UPS ]\n\n AgentType = 4\n ComSet = 1\n AutoBoot = 1\n Group = Old\n");
    }

    int set(const PARAM &param, int version = JAPANESE)
    {
        callbacks.clear();
        return ask(packet(82, param.bytes(), version));
    }

    [[nodiscard]] static long count(int code)
    {
        return std::count(callbacks.begin(), callbacks.end(), code);
    }
};

TEST_F(ConfigSet, EverySettingIsInTheFile)
{
    EXPECT_EQ(set({}), 0);
    EXPECT_EQ(stored("ShutDown", "EXPECTBLIFE"), "90");
    EXPECT_EQ(stored("ShutDown", "TurnOffDelay"), "700");
    EXPECT_EQ(stored("ShutDown", "FIRSTWARN"), "20");
    EXPECT_EQ(stored("ShutDown", "WARNBEFORESCHE"), "500");
    EXPECT_EQ(stored("ShutDown", "INTERVAL"), "25");
    EXPECT_EQ(stored("ShutDown", "BSUSPEND"), "0");  // not the monitor's to say
    EXPECT_EQ(stored("ShutDown", "CloseAppTime"), "100");
    EXPECT_EQ(stored("EventLog", "EventLogEnabled"), "0");
    EXPECT_EQ(stored("EventLog", "EventLogMaxSize"), "150");
    EXPECT_EQ(stored("DataLog", "DataLogEnabled"), "0");
    EXPECT_EQ(stored("DataLog", "DataLogMaxSize"), "160");
    EXPECT_EQ(stored("DataLog", "DataLogInterval"), "30");
    EXPECT_EQ(stored("UPS", "IgnoreOtherAgentDown"), "0");
    EXPECT_EQ(stored("UPS", "Group"), "Lab");
    EXPECT_EQ(stored("UPS", "AutoBoot"), "0");
    EXPECT_EQ(stored("UPS", "ComSet"), "2");
    EXPECT_EQ(stored("UPS", "AgentType"), "5");
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(ConfigSet, WhatWasStoredIsReadBackAndInForce)
{
    EXPECT_EQ(set({}), 0);
    EXPECT_EQ(ask(packet(24, {5, 0, 0, 0, 0, 0, 0, 0})), 0);
    PARAM expected;
    expected.set_work(0, 0);
    expected.agent_name = field(HOST, 260);
    EXPECT_EQ(receive(peer, 880), packet(82, expected.bytes(), JAPANESE, 1));
    EXPECT_EQ(block.ups.ui.AgentType, 5U);
    EXPECT_EQ(block.ups.ui.bIgnoreDown, 0);
    EXPECT_EQ(block.ups.ui.bAutoReboot, 0);
    EXPECT_STREQ(block.ups.ui.Group.data(), "Lab");
    EXPECT_EQ(engine.TURNOFFDELAY, 700U);
    EXPECT_EQ(engine.PFAILCOUNT, 70U);
    EXPECT_EQ(engine.ISSERVERAGNORMAL, 1);
}

TEST_F(ConfigSet, ChangesOfGroupPortAndRoleAreAnnounced)
{
    EXPECT_EQ(set({}), 0);
    EXPECT_EQ(count(E_CB_GROUPCHANGED), 3);
    EXPECT_GE(count(E_CB_AUTOREBOOT_OFF), 1);
    EXPECT_EQ(set({}), 0);
    EXPECT_EQ(count(E_CB_GROUPCHANGED), 0);
    PARAM other;
    other.group = field("Lab 2", 16);
    EXPECT_EQ(set(other), 0);
    EXPECT_EQ(count(E_CB_GROUPCHANGED), 1);
}

TEST_F(ConfigSet, APortThatDoesNotExistLeavesTheStoredOne)
{
    for (const std::int64_t port : {5, 7, -3, 0x7FFFFFFF}) {
        PARAM param;
        param.set_work(COMSET, port);
        EXPECT_EQ(set(param), 0);
        EXPECT_EQ(stored("UPS", "ComSet"), "1") << port;
        EXPECT_EQ(block.ups.up.workparam.ComSet, 1) << port;
    }
    PARAM param;
    param.set_work(COMSET, -2);
    EXPECT_EQ(set(param), 0);
    EXPECT_EQ(stored("UPS", "ComSet"), "-2");
    EXPECT_EQ(block.ups.up.workparam.ComSet, -2);
}

TEST_F(ConfigSet, ARunningCountdownFollowsTheChange)
{
    const std::time_t off = time(nullptr) + 1000;
    engine.ACFAIL_off = off;
    engine.just_fail = 0;
    EXPECT_EQ(set({}), 0);
    EXPECT_EQ(engine.ACFAIL_off, off + 30);  // 90 s instead of 60
    PARAM shorter;
    shorter.set_work(BATTLIFE, 45);
    EXPECT_EQ(set(shorter), 0);
    EXPECT_EQ(engine.ACFAIL_off, off - 15);
}

TEST_F(ConfigSet, TextsAreConvertedOnTheirWayIn)
{
    PARAM param;
    param.group = field(KANJI_SJIS, 16);
    param.account = field(KANJI_SJIS, 260);
    param.domain = field(KANJI_SJIS, 260);
    EXPECT_EQ(set(param), 0);
    EXPECT_EQ(stored("UPS", "Group"), KANJI_EUC);
    EXPECT_EQ(std::string_view(block.ups.up.commparam.Group.data()), KANJI_EUC);
    EXPECT_EQ(std::string_view(block.ups.ui.Group.data()), KANJI_EUC);
    EXPECT_EQ(std::string_view(block.ups.up.commparam.lpszAccount.data()), KANJI_EUC);
    EXPECT_EQ(std::string_view(block.ups.up.commparam.lpszDomain.data()), KANJI_EUC);
}

TEST_F(ConfigSet, UndecidedTextOfAnotherLanguageStaysAsItIs)
{
    constexpr std::string_view UNDECIDED = "\xC4\xE3";
    PARAM param;
    param.group = field(UNDECIDED, 16);
    EXPECT_EQ(set(param, ENGLISH), 0);
    EXPECT_EQ(stored("UPS", "Group"), UNDECIDED);
    EXPECT_EQ(set(param), 0);
    EXPECT_NE(stored("UPS", "Group"), UNDECIDED);
}

TEST_F(ConfigSet, TextsWithoutTheirEndAreCut)
{
    PARAM param;
    param.agent_name = field(std::string(260, 'n'), 260);
    param.account = field(std::string(260, 'a'), 260);
    param.domain = field("dd\0garbage", 260);
    param.group = field(std::string(16, 'g'), 16);
    EXPECT_EQ(set(param), 0);
    EXPECT_EQ(stored("UPS", "Group"), std::string(15, 'g'));
    EXPECT_EQ(std::string_view(block.ups.up.commparam.lpszAccount.data()), std::string(259, 'a'));
    EXPECT_STREQ(block.ups.up.commparam.Agent.data(), HOST);
}

TEST_F(ConfigSet, AShortPacketChangesNothing)
{
    const std::string before = config_file();
    const AGINFO shared = block;
    const BYTES whole = PARAM{}.bytes();
    for (std::size_t size = 0; size < whole.size(); size += size == 868 ? 1 : 28)
        EXPECT_EQ(ask(packet(82, part(whole, 0, size))), -1) << size;
    EXPECT_EQ(config_file(), before);
    EXPECT_EQ(std::memcmp(&shared, &block, sizeof shared), 0);
}

TEST_F(ConfigSet, ALongPacketIsReadAsFarAsTheRecordGoes)
{
    EXPECT_EQ(ask(packet(82, join({PARAM{}.bytes(), counting(1000)}))), 0);
    EXPECT_EQ(stored("ShutDown", "TurnOffDelay"), "700");
    EXPECT_EQ(stored("UPS", "Group"), "Lab");
}

TEST_F(ConfigSet, AnUnknownRoleIsStoredAndTakenAsTheLowest)
{
    PARAM param;
    param.type = 2;
    EXPECT_EQ(set(param), 0);
    EXPECT_EQ(stored("UPS", "AgentType"), "2");
    EXPECT_EQ(block.ups.up.commparam.AgentType, 4U);
}

TEST_F(ConfigSet, AHostMadeAProtectorRefusesFromThenOn)
{
    PARAM param;
    param.type = 1;
    EXPECT_EQ(set(param), 0);
    EXPECT_EQ(stored("UPS", "AgentType"), "1");
    EXPECT_EQ(set({}), -1);
    EXPECT_EQ(stored("UPS", "AgentType"), "1");
    EXPECT_EQ(query(5), empty_answer(82));
}

TEST_F(ConfigSet, ALostSaveLeavesWhatTheFileSaysInForce)
{
    std::filesystem::remove(CONFIG_PATH);
    std::filesystem::create_directory(CONFIG_PATH);
    EXPECT_EQ(set({}), -1);
    EXPECT_EQ(block.ups.up.workparam.TurnOffDelay, 600U);
    EXPECT_EQ(block.ups.up.workparam.ComSet, 0);
}

TEST_F(ConfigSet, WhatTheUpsProcessWritesMeanwhileIsNotTakenForTheRequest)
{
    block.udinfo = UDINFO_V2;
    PARAM param;
    param.group = field("Meanwhile", 16);
    param.set_work(COMSET, 9);
    callbacks.clear();
    during_callback = [this](int code) {
        if (code != E_CB_GROUPCHANGED)
            return;
        block.ups.up.workparam.AutoReboot = 1;
        block.ups.up.workparam.ComSet = 0;
    };
    EXPECT_EQ(ask(packet(82, param.bytes())), 0);
    EXPECT_EQ(stored("UPS", "AutoBoot"), "0");
    EXPECT_EQ(stored("UPS", "ComSet"), "1");
    EXPECT_EQ(block.ups.up.workparam.ComSet, 1);
}

// ---- protectors

class Protector : public Served
{
  protected:
    static BYTES config(std::string_view name)
    {
        return join({le32(30), field(name, 16)});
    }

    static BYTES time_request()
    {
        return join({{60, 0, 0, 0}, BYTES(42, 'p')});
    }
};

TEST_F(Protector, StoresWhoProtectsIt)
{
    become_protector();
    EXPECT_EQ(ask(packet(194, config("guard"))), 0);
    EXPECT_EQ(stored("UPS", "AgentName"), "guard");
    EXPECT_EQ(ask(packet(194, config("0123456789ABCDEF"))), 0);
    EXPECT_EQ(stored("UPS", "AgentName"), "0123456789ABCDEF");
    EXPECT_TRUE(receive(peer).empty());
}

TEST_F(Protector, RefusesAnotherLength)
{
    become_protector();
    for (const std::size_t size : {0U, 19U, 21U})
        EXPECT_EQ(ask(packet(194, counting(size))), -1) << size;
    EXPECT_EQ(stored("UPS", "AgentName"), "-");
}

TEST_F(Protector, AnAgentWithAUnitOfItsOwnTakesNone)
{
    load("[ UPS ]\n\n AgentType = 6\n");
    EXPECT_EQ(ask(packet(194, config("guard"))), -1);
    EXPECT_EQ(stored("UPS", "AgentName"), "-");
}

TEST_F(Protector, TimeIsAskedOfAgentsThatAreNone)
{
    load("[ UPS ]\n\n AgentType = 6\n");
    EXPECT_EQ(ask(packet(192, time_request())), 0);
    EXPECT_EQ(ask(packet(192, counting(45))), -1);
    EXPECT_EQ(ask(packet(192, counting(47))), -1);
    become_protector();
    EXPECT_EQ(ask(packet(192, time_request())), -1);
    EXPECT_TRUE(receive(peer).empty());
}

// The initial settings file: that it says what holds without a file, that every section is in it that the
// engine can ever write, and that the manual describes it.
#include "tests/unit/engine_fixture.h"

#include "control_settings.h"
#include "e_a_event_table.h"
#include "filehandle.h"
#include "wp_field.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <set>

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

std::string initial()
{
    return read_file(VOLTARIA_INITIAL_SETTINGS);
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

struct SETTING_LINE {
    std::string section, key, value;
};

// Only lines as the store writes them: "[ SECTION ]", " KEY = VALUE" and empty ones.
struct FILE_TEXT {
    std::vector<std::string> sections;
    std::vector<SETTING_LINE> settings;
    std::vector<std::string> strangers;

    explicit FILE_TEXT(const std::string &text)
    {
        for (const std::string &line : lines_of(text)) {
            const std::size_t equals = line.find(" = ");
            if (line.starts_with("[ ") && line.ends_with(" ]"))
                sections.push_back(line.substr(2, line.size() - 4));
            else if (line.starts_with(" ") && equals != std::string::npos && !sections.empty())
                settings.push_back({sections.back(), line.substr(1, equals - 1), line.substr(equals + 3)});
            else if (!line.empty())
                strangers.push_back(line);
        }
    }

    [[nodiscard]] std::vector<std::string> keys_of(const std::string &section) const
    {
        std::vector<std::string> keys;
        for (const SETTING_LINE &setting : settings)
            if (setting.section == section)
                keys.push_back(setting.key);
        return keys;
    }
};

template <typename RECORD> std::string bytes_of(const RECORD &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

constexpr USERSDATA NOBODY{USER_NONE, 0, {}, {}, {}};

UPS_TIMEINFO date(int year, int month, int day, int hour)
{
    return {static_cast<std::uint8_t>(year),
            static_cast<std::int8_t>(month),
            static_cast<std::int8_t>(day),
            static_cast<std::int8_t>(hour),
            30,
            0,
            0};
}

}  // namespace

class InitialSettings : public Engine
{
  protected:
    // As a daemon starts: nothing but the settings is left of the start before.
    void restart()
    {
        std::filesystem::remove(LOG_PATH);
        block = AGINFO{};
        engine = ENGINE{};
        events = {};
        users = {};
        userinfo.nusers = 0;
        ASSERT_EQ(act(E_CMD_INIT), 0);
    }

    void start_with(const std::string &text)
    {
        write_file(CONFIG_PATH, text);
        restart();
    }

    // Events and users as they are in the agent's tables.
    [[nodiscard]] std::string tables() const
    {
        return bytes_of(events) + bytes_of(users);
    }

    // One event settings request of a monitor: every event and these users, none like its default. Returns
    // what was sent.
    std::string save_events(int firstuser, int count)
    {
        for (std::size_t i = 0; i < EVENT_COUNT; i++) {
            const auto number = static_cast<std::uint32_t>(i);
            events[i].Record = i % 3 == 0;
            events[i].Shutdown = 1 - DEFAULTEVENTSET[i].Shutdown;
            events[i].BroadcastType = DEFAULTEVENTSET[i].BroadcastType == 0 ? 2 : 1;
            events[i].BroadcastUser = 0x80000001U + 2 * number;
            events[i].MailUser = 0xC0000000U + number;
            field_set(events[i].Command, "echo " + std::to_string(i));
        }
        users.fill(NOBODY);
        for (int i = 0; i < count; i++) {
            const std::string number = std::to_string(firstuser + i);
            USERSDATA &user = users[static_cast<std::size_t>(i)];
            user.UserID = static_cast<std::uint8_t>(firstuser + i);
            field_set(user.UserName, "user" + number);
            field_set(user.Address, "voltaria-test");
            field_set(user.Email, number + "@example.org");
        }
        userinfo.nusers = count;
        std::string sent = tables();
        EXPECT_EQ(act(E_CMD_SETEVENT), 0);
        return sent;
    }

    void save_config()
    {
        UPS_PARAM &live = ups.up;
        live.workparam = {0, 61, 2, 601, 0, 31, 32, 602, 301};
        live.logparam = {1, 201, 0, 202, 62};
        live.commparam.AgentType = AGENTTYPE_NORMAL;
        live.commparam.bIgnore = 0;
        field_set(live.commparam.Group, "Rack 3");
        request = live;
        ASSERT_EQ(act(E_CMD_SETCONFIG), 0);
    }

    void save_schedules()
    {
        std::array<SCHEDULELIST, 6> list{};
        for (std::size_t i = 0; i < list.size(); i++) {
            SCHEDULEINFO &entry = list[i].info;
            entry.ID = static_cast<std::int8_t>(1 + i % 3);
            entry.ActionID = i >= 3;
            const int year = entry.ID == SPECIAL ? 250 : 0;
            entry.stimeInfo = date(year, entry.ID == SPECIAL ? 11 : 0, 3, 22);
            entry.etimeInfo = date(year, entry.ID == SPECIAL ? 11 : 0, 4, 6);
            list[i].next = i + 1 < list.size() ? &list[i + 1] : nullptr;
        }
        ein.DATA.schlist = list.data();
        ASSERT_EQ(act(E_CMD_SETSCHEDULE), 0);
    }

    void order(std::int32_t cmd, std::int32_t level = 0, BATTCHGTIME *battery = nullptr)
    {
        AGENTCMD command{};
        command.cmd = cmd;
        if (battery != nullptr)
            command.arg.bctp = battery;
        else
            command.arg.nupsmodel = level;
        ein.DATA.acp = &command;
        act(E_CMD_DOCOMMAND);
    }
};

// ---- what is in it

TEST_F(InitialSettings, IsMadeOfHeadersAndSettingsAlone)
{
    const std::string text = initial();
    EXPECT_TRUE(text.ends_with('\n'));
    EXPECT_FALSE(text.ends_with("\n\n"));
    const FILE_TEXT file(text);
    EXPECT_THAT(file.strangers, IsEmpty());
    EXPECT_EQ(std::set(file.sections.begin(), file.sections.end()).size(), file.sections.size());
    std::set<std::string> settings;
    for (const SETTING_LINE &setting : file.settings)
        EXPECT_TRUE(settings.insert(setting.section + "/" + setting.key).second) << setting.key;
}

TEST_F(InitialSettings, HoldsEveryEventInItsOrderAndEveryUser)
{
    const FILE_TEXT file(initial());
    std::vector<std::string> wanted;
    wanted.reserve(EVENT_COUNT + USER_NONE);
    for (const EVENTMSG &event : EventMsg)
        wanted.push_back("Event" + std::to_string(event.eID));
    for (int user = 0; user < USER_NONE; user++)
        wanted.push_back(std::to_string(user));
    const auto first = std::find(file.sections.begin(), file.sections.end(), wanted.front());
    EXPECT_EQ(std::vector(first, file.sections.end()), wanted);
    for (const std::string &section : wanted)
        if (section.starts_with("Event"))
            EXPECT_THAT(file.keys_of(section), ElementsAre("Record", "ShutDown", "BroadcastType",
                                                           "BroadcastUser", "MailUser", "Command"));
        else
            EXPECT_THAT(file.keys_of(section), ElementsAre("Name", "Address", "Email"));
}

TEST_F(InitialSettings, HoldsNoKeyThatSaysSomethingByBeingThere)
{
    for (const SETTING_LINE &setting : FILE_TEXT(initial()).settings)
        for (const char *key : {"ChangeBattTime", "UPSModel", "AgentName"})
            EXPECT_NE(setting.key, key);
    write_file(CONFIG_PATH, initial());
    std::int32_t autodetect = -1;
    EXPECT_EQ(getupsmodel(&autodetect), -1);
    EXPECT_EQ(autodetect, 0);
    UPS_TIMEINFO changed{};
    EXPECT_EQ(getbattime(&changed), -1);
}

TEST_F(InitialSettings, DoctorFindsNothingToSayOfIt)
{
    const SETTINGS settings = settings_parse(initial());
    for (const COMPLAINT &complaint : settings.complaints)
        ADD_FAILURE() << complaint.line << ": " << complaint.text;
    EXPECT_EQ(settings.list.size(), FILE_TEXT(initial()).settings.size());
}

// ---- what it says

TEST_F(InitialSettings, SaysWhatHoldsWithoutAFile)
{
    restart();
    ASSERT_EQ(act(E_CMD_GETCONFIG), 0);
    const std::string param = bytes_of(ups.up);
    const std::string info = bytes_of(ups.ui);
    const std::string unset = tables();
    const ENGINE before = engine;
    const std::vector<callback> calls = recorder.calls;

    recorder.calls.clear();
    start_with(initial());
    ASSERT_EQ(act(E_CMD_GETCONFIG), 0);
    EXPECT_EQ(bytes_of(ups.up), param);
    EXPECT_EQ(bytes_of(ups.ui), info);
    EXPECT_TRUE(tables() == unset);
    EXPECT_EQ(userinfo.nusers, 0);
    EXPECT_EQ(eout.DATA.schlist, nullptr);
    EXPECT_EQ(recorder.calls, calls);
    EXPECT_EQ(engine.EXPBLIFE, before.EXPBLIFE);
    EXPECT_EQ(engine.PFAILCOUNT, before.PFAILCOUNT);
    EXPECT_EQ(engine.SCHCOUNT, before.SCHCOUNT);
    EXPECT_EQ(engine.DLOGINTERVAL, before.DLOGINTERVAL);
    EXPECT_EQ(engine.ISSERVERAGLOW, 1);
}

TEST_F(InitialSettings, ShowsTheRoleInForceFromTheBeginning)
{
    restart();
    EXPECT_EQ(ups.ui.AgentType, AGENTTYPE_HIGH);  // and not 4, which the configuration has
    start_with(initial());
    EXPECT_EQ(ups.ui.AgentType, AGENTTYPE_LOW);
    EXPECT_EQ(ups.up.commparam.AgentType, AGENTTYPE_LOW);
}

// Until then a shutdown that another agent orders would wait two minutes.
TEST_F(InitialSettings, WithoutTheFileTheRoleIsHighUntilAUnitIsFound)
{
    restart();
    act(E_CMD_CHECKSTATUS);
    EXPECT_EQ(ups.ui.AgentType, AGENTTYPE_HIGH);
    EXPECT_EQ(engine.GRACE_PERIOD, 120);
    ups.ui.CommStatus = COMM_ESTABLISHED;
    act(E_CMD_CHECKSTATUS);
    EXPECT_EQ(ups.ui.AgentType, AGENTTYPE_LOW);
    EXPECT_EQ(engine.GRACE_PERIOD, 0);
}

TEST_F(InitialSettings, EachEventReadsAsItsDefault)
{
    start_with(initial());
    EXPECT_TRUE(std::equal(
        DEFAULTEVENTSET.begin(), DEFAULTEVENTSET.end(), events.begin(),
        [](const UPS_EVENTINFO &a, const UPS_EVENTINFO &b) { return bytes_of(a) == bytes_of(b); }));
}

// ---- what is saved first

TEST_F(InitialSettings, WhateverIsSavedFindsItsSection)
{
    start_with(initial());
    const FILE_TEXT before(initial());
    save_config();
    save_schedules();
    for (int first = 0; first < USER_NONE; first += 32)
        static_cast<void>(save_events(first, std::min(32, USER_NONE - first)));
    setupsmodel(7, 1);
    BATTCHGTIME battery{};
    battery.BattTime = date(124, 2, 29, 10);
    order(DATAID_BUZZER_ON);
    order(DATAID_AUTOTEST_ON);
    order(DATAID_DETECTIONLVL, 3);
    order(DATAID_SETBATTIME, 0, &battery);
    EXPECT_EQ(writeparam("UPS", "AgentName", "guard"), 0);  // a protector does

    const FILE_TEXT after(read_file(CONFIG_PATH));
    EXPECT_EQ(after.sections, before.sections);
    EXPECT_THAT(after.strangers, IsEmpty());
    for (const SETTING_LINE &setting : after.settings) {
        const char *found = readparam(setting.section.c_str(), setting.key.c_str());
        EXPECT_EQ(std::string(found != nullptr ? found : "missing"), setting.value) << setting.key;
    }
    EXPECT_STREQ(readparam("UPS", "BuzzerCan"), "on");
    EXPECT_STREQ(readparam("UPS", "ChangeBattTime"), "124,02,29,10,30,00");
    EXPECT_STREQ(readparam("UPSModel", "UPSModel"), "7");
    EXPECT_STREQ(readparam("ScheTest", "MONTHLYSTART1"), "30 22 3 * *");
    EXPECT_STREQ(readparam("254", "Email"), "254@example.org");
    EXPECT_STREQ(readparam("UPS", "Group"), "Rack 3");
}

TEST_F(InitialSettings, TheFirstSaveOfEveryEventAndOfUsersReadsBackAsItWasSent)
{
    for (const int first : {0, 100, 223}) {
        start_with(initial());
        const std::string sent = save_events(first, 32);
        restart();
        EXPECT_TRUE(tables() == sent) << first;
        EXPECT_EQ(userinfo.nusers, 32);
    }
}

TEST_F(InitialSettings, WithoutTheFileTheFirstSaveIsLost)
{
    start_with("");
    const std::string sent = save_events(223, 32);
    EXPECT_EQ(FILE_TEXT(read_file(CONFIG_PATH)).strangers.size(), 1U);  // a key above all headers
    restart();
    EXPECT_FALSE(tables() == sent);
    EXPECT_EQ(userinfo.nusers, 0);
}

// ---- what the manual says

// A row of a table in the page: its cells.
static std::set<std::vector<std::string>> manual_rows()
{
    std::set<std::vector<std::string>> rows;
    for (const std::string &line : lines_of(read_file(VOLTARIA_SETTINGS_PAGE))) {
        std::vector<std::string> cells{""};
        for (const char c : line)
            if (c == '\t')
                cells.emplace_back();
            else
                cells.back() += c;
        if (cells.size() > 1)
            rows.insert(cells);
    }
    return rows;
}

// In the page the value stands behind the key.
static bool described(const std::set<std::vector<std::string>> &rows, const std::string &key,
                      const std::string &value)
{
    return std::any_of(rows.begin(), rows.end(), [&](const std::vector<std::string> &cells) {
        const auto at = std::find(cells.begin(), cells.end(), key);
        return at != cells.end() && (value.empty() || (at + 1 != cells.end() && *(at + 1) == value));
    });
}

TEST_F(InitialSettings, EveryKeyIsInTheManualWithTheSameDefault)
{
    const auto rows = manual_rows();
    EXPECT_FALSE(described(rows, "NoSuchKey", ""));
    EXPECT_FALSE(described(rows, "EXPECTBLIFE", "61"));
    for (const SETTING_LINE &setting : FILE_TEXT(initial()).settings) {
        const bool switched = setting.key == "ShutDown" || setting.key == "BroadcastType";  // by event
        EXPECT_TRUE(described(rows, setting.key, switched ? "see below" : setting.value))
            << setting.section << "/" << setting.key << " = " << setting.value;
    }
    for (const EVENTMSG &event : EventMsg) {
        const std::string id = std::to_string(event.eID);
        write_file(CONFIG_PATH, initial());
        const std::string section = "Event" + id;
        const std::string shutdown = readparam(section.c_str(), "ShutDown");
        const std::string broadcast = readparam(section.c_str(), "BroadcastType");
        EXPECT_TRUE(rows.contains({id, shutdown, broadcast, event.msg})) << id;
    }
}

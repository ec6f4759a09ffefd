// The keys of the configuration, the event table and the user list, as `voltaria` reads and changes them.
#include "monitor/monitor_eventset.h"
#include "monitor/monitor_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using testing::ElementsAre;
using testing::HasSubstr;

// ---- The configuration ----

static const SETTING &named(std::string_view name)
{
    const SETTING *setting = setting_named(name);
    EXPECT_NE(setting, nullptr) << name;
    return *setting;
}

static std::string put(std::string_view name, std::string_view value, UPS_PARAM &config)
{
    return setting_put(named(name), value, config);
}

TEST(SettingTable, EveryKeyAndEveryAliasNamesOneSetting)
{
    std::set<std::string_view> names;
    for (const SETTING &setting : settings()) {
        EXPECT_TRUE(names.insert(setting.key).second) << setting.key;
        EXPECT_TRUE(names.insert(setting.alias).second) << setting.alias;
        EXPECT_EQ(setting_named(setting.key), &setting);
        EXPECT_EQ(setting_named(setting.alias), &setting);
    }
    EXPECT_EQ(setting_named("expectblife"), setting_named("EXPECTBLIFE"));
    EXPECT_EQ(setting_named("EXPECTBLIF"), nullptr);
    EXPECT_EQ(setting_named(""), nullptr);
}

TEST(SettingTable, EachNumberHasAFieldOfItsOwn)
{
    UPS_PARAM config{};
    std::int64_t next = 1;
    for (const SETTING &setting : settings())
        if (setting.set != nullptr)
            setting.set(config, next++);
    next = 1;
    for (const SETTING &setting : settings())
        if (setting.get != nullptr) {
            EXPECT_EQ(setting.get(config), next++) << setting.key;
        }
    EXPECT_EQ(config.workparam.BattLife, 1U);
    EXPECT_EQ(config.logparam.DataLogInterval, 14U);
    EXPECT_EQ(config.commparam.bIgnore, 16);
}

TEST(SettingValue, TimesAreTakenWithUnits)
{
    UPS_PARAM config{};
    EXPECT_EQ(put("battery-time", "90", config), "");
    EXPECT_EQ(config.workparam.BattLife, 90U);
    EXPECT_EQ(put("battery-time", "90s", config), "");
    EXPECT_EQ(put("battery-time", "10 min", config), "");
    EXPECT_EQ(config.workparam.BattLife, 600U);
    EXPECT_EQ(put("battery-time", "24h", config), "");
    EXPECT_EQ(setting_words(named("battery-time"), config), "86400 s");
    EXPECT_EQ(setting_value(named("battery-time"), config), "86400");
}

TEST(SettingValue, NonsenseIsRefusedWithTheRangeAndChangesNothing)
{
    UPS_PARAM config{};
    config.workparam.BattLife = 60;
    for (const char *value :
         {"", "-1", "86401", "25h", "1.5", "60x", "x", "0x10", " 60", "99999999999999999999"})
        EXPECT_THAT(put("EXPECTBLIFE", value, config), HasSubstr("must be 0 s to 86400 s")) << value;
    EXPECT_EQ(config.workparam.BattLife, 60U);
    EXPECT_THAT(put("TurnOffDelay", "6000", config), HasSubstr("0 s to 5999 s"));
    EXPECT_THAT(put("INTERVAL", "0", config), HasSubstr("1 s to 86400 s"));
    EXPECT_THAT(put("EventLogMaxSize", "32768", config), HasSubstr("1 to 32767 lines"));
    EXPECT_THAT(put("EventLogMaxSize", "10s", config), HasSubstr("1 to 32767 lines"));
    EXPECT_THAT(put("AutoBoot", "2", config), HasSubstr("on or off"));
    EXPECT_THAT(put("AgentType", "2", config), HasSubstr("low, normal, high or protector"));
    EXPECT_THAT(put("ComSet", "5", config), HasSubstr("auto, none or 1 to 4"));
    EXPECT_THAT(put("BSUSPEND", "on", config), HasSubstr("cannot be set"));
    EXPECT_THAT(put("agent-name", "x", config), HasSubstr("cannot be set"));
}

TEST(SettingValue, WordsStandForCodes)
{
    UPS_PARAM config{};
    EXPECT_EQ(put("role", "High", config), "");
    EXPECT_EQ(config.commparam.AgentType, 6U);
    EXPECT_EQ(put("role", "5", config), "");
    EXPECT_EQ(setting_words(named("role"), config), "normal");
    EXPECT_EQ(put("port", "none", config), "");
    EXPECT_EQ(config.workparam.ComSet, -2);
    EXPECT_EQ(put("port", "/dev/ttyS1", config), "");
    EXPECT_EQ(setting_value(named("port"), config), "2");
    EXPECT_EQ(put("event-log", "yes", config), "");
    EXPECT_EQ(setting_words(named("event-log"), config), "on");
    config.workparam.ComSet = -1;
    EXPECT_EQ(setting_words(named("port"), config), "code -1");
    EXPECT_EQ(setting_value(named("port"), config), "-1");
}

// Unseen, they would be lost in the settings file or keep a group apart.
TEST(SettingValue, ATextThatBeginsOrEndsWithBlanksIsRefused)
{
    UPS_PARAM config = {};
    for (const char *value : {"", "  ", " lead", "trail ", "=sign"}) {
        EXPECT_NE(put("group", value, config), "") << value;
        EXPECT_EQ(config.commparam.Group[0], '\0') << value;
    }
    EXPECT_EQ(put("group", "a=b c", config), "");
}

TEST(SettingValue, AGroupIsConvertedAndNeverCut)
{
    UPS_PARAM config{};
    EXPECT_EQ(put("group", "\u7ba1\u7406", config), "");
    EXPECT_EQ(std::string(config.commparam.Group.data()), "\x8A\xC7\x97\x9D");
    EXPECT_EQ(setting_words(named("group"), config), "\u7ba1\u7406");
    EXPECT_EQ(put("group", "123456789012345", config), "");
    EXPECT_THAT(put("group", "1234567890123456", config), HasSubstr("too long by 1 byte"));
    EXPECT_THAT(put("group", "", config), HasSubstr("must not be empty"));
    EXPECT_THAT(put("group", "  ", config), HasSubstr("must not be empty"));
    EXPECT_EQ(setting_words(named("group"), config), "123456789012345");
}

TEST(SettingRemark, AWarningAfterTheShutdownIsPointedOut)
{
    UPS_PARAM config{};
    config.workparam.BattLife = 20;
    config.workparam.FirstWarningTime = 30;
    EXPECT_THAT(setting_remark(named("EXPECTBLIFE"), config), HasSubstr("later than the shutdown"));
    EXPECT_EQ(setting_remark(named("INTERVAL"), config), "");
    config.workparam.TurnOffDelay = 90;
    EXPECT_THAT(setting_remark(named("TurnOffDelay"), config), HasSubstr("1 min"));
}

// ---- Events ----

static EVENT_SET sample_set()
{
    EVENT_SET set;
    for (std::size_t i = 0; i < set.events.size(); i++)
        set.events[i].EventID = static_cast<std::uint16_t>(i);
    for (const char *name : {"root", "ops", "night"})
        EXPECT_EQ(user_add(set, name, std::string(name) + "@example.org"), "");
    return set;
}

TEST(EventChanges, OnlyWhatIsNamedChanges)
{
    EVENT_SET set = sample_set();
    UPS_EVENTINFO &event = *eventset_row(set, 7);
    event.Record = 1;
    event.BroadcastUser = 5;
    event.MailUser = 2;
    EVENT_CHANGE change;
    change.tell = TELL_USERS;
    change.command = "logger down";
    EXPECT_EQ(eventset_change(event, change), "");
    EXPECT_EQ(event.Record, 1);
    EXPECT_EQ(event.MailUser, 2U);
    EXPECT_EQ(eventset_tell_words(set, event), "root, night");
    EXPECT_EQ(eventset_command_words(event), "logger down");
    change = EVENT_CHANGE{};
    change.record = false;
    change.shutdown = true;
    change.command = "";
    EXPECT_EQ(eventset_change(event, change), "");
    EXPECT_EQ(event.Record, 0);
    EXPECT_EQ(event.Shutdown, 1);
    EXPECT_EQ(event.BroadcastType, 2U);
    EXPECT_EQ(eventset_command_words(event), "");
}

TEST(EventChanges, ACommandThatCannotBeKeptIsRefusedWithAllTheRest)
{
    EVENT_SET set = sample_set();
    UPS_EVENTINFO &event = *eventset_row(set, 7);
    EVENT_CHANGE change;
    change.shutdown = true;
    for (const std::string &command : {std::string("two\nlines"), std::string(" begins with a blank"),
                                       std::string("= x"), std::string(1, '\x1b')}) {
        change.command = command;
        EXPECT_NE(eventset_change(event, change), "") << command;
    }
    change.command = std::string(262, 'x');
    EXPECT_THAT(eventset_change(event, change), HasSubstr("too long by 3 bytes"));
    EXPECT_EQ(event.Shutdown, 0);
    change.command = std::string(259, 'x');
    EXPECT_EQ(eventset_change(event, change), "");
}

TEST(EventChanges, ACommandIsShownAsUtf8AndItsControlCharactersAsNumbers)
{
    UPS_EVENTINFO event{};
    EVENT_CHANGE change;
    change.command = "logger \u505c\u96fb";
    ASSERT_EQ(eventset_change(event, change), "");
    EXPECT_EQ(eventset_command_words(event), "logger \u505c\u96fb");
    std::copy_n("\x1b[2Jx", 6, event.Command.begin());
    EXPECT_EQ(eventset_command_words(event), "\\x1B[2Jx");
    std::copy_n("a\u202Eb\u061Cc", 9, event.Command.begin());
    EXPECT_EQ(eventset_command_words(event), "a\\x202Eb\\x61Cc");
    event.Command.fill('y');
    EXPECT_EQ(eventset_command_words(event), std::string(260, 'y'));
}

TEST(EventChanges, TypesOfBroadcastThatDoTheSameAreTheSame)
{
    UPS_EVENTINFO left{};
    UPS_EVENTINFO right{};
    right.BroadcastType = 1;
    EXPECT_TRUE(eventset_same(left, right));
    left.BroadcastType = 3;
    right.BroadcastType = 77;
    EXPECT_TRUE(eventset_same(left, right));
    right.BroadcastType = 2;
    EXPECT_FALSE(eventset_same(left, right));
}

TEST(EventChanges, AnEventThatDoesNotTravelHasNoRow)
{
    EVENT_SET set = sample_set();
    EXPECT_EQ(eventset_row(set, 255), nullptr);
    EXPECT_EQ(eventset_row(set, -1), nullptr);
}

// ---- Users ----

TEST(MonitorUsers, NewOnesTakeTheLowestFreeNumber)
{
    EVENT_SET set = sample_set();
    user_remove(set, 1);
    ASSERT_EQ(user_add(set, "day", ""), "");
    EXPECT_EQ(set.users[2].UserID, 2);
    EXPECT_EQ(user_name(set.users[2]), "day");
}

TEST(MonitorUsers, RemovingOneMovesTheMarksOfThoseBehind)
{
    EVENT_SET set = sample_set();
    eventset_row(set, 3)->BroadcastUser = 0b111;
    eventset_row(set, 4)->MailUser = 0b100;
    eventset_row(set, 5)->MailUser = 0b001;
    eventset_row(set, 6)->BroadcastUser = 0x80000000U;
    EXPECT_THAT(user_remove(set, 1), ElementsAre(3));
    EXPECT_EQ(eventset_row(set, 3)->BroadcastUser, 0b11U);
    EXPECT_EQ(eventset_row(set, 4)->MailUser, 0b10U);
    EXPECT_EQ(eventset_mask_words(set, eventset_row(set, 4)->MailUser), "night");
    EXPECT_EQ(eventset_row(set, 5)->MailUser, 0b1U);
    EXPECT_EQ(eventset_row(set, 6)->BroadcastUser, 0x40000000U);
}

TEST(MonitorUsers, AreFoundByNameBeforeNumber)
{
    EVENT_SET set = sample_set();
    set.users[2].UserName = {'1'};
    EXPECT_EQ(user_find(set, "1"), 2U);
    EXPECT_EQ(user_find(set, "2"), 1U);
    EXPECT_FALSE(user_find(set, "nobody"));
}

TEST(MonitorUsers, AListIsAMask)
{
    EVENT_SET set = sample_set();
    std::uint32_t mask = 9;
    EXPECT_EQ(user_mask(set, "night,root", mask), "");
    EXPECT_EQ(mask, 0b101U);
    EXPECT_THAT(user_mask(set, "root,nobody", mask), HasSubstr("no user \"nobody\""));
    EXPECT_EQ(mask, 0b101U);
    EXPECT_EQ(user_mask(set, "none", mask), "");
    EXPECT_EQ(mask, 0U);
    EXPECT_EQ(eventset_mask_words(set, 0x11), "root, slot 4");
}

TEST(MonitorUsers, NamesAndAddressesThatCannotBeUsedAreRefused)
{
    EVENT_SET set = sample_set();
    for (const char *name : {"", "two words", "a,b", "none", "root", "x\ny", "1"})  // 1 is root's number
        EXPECT_NE(user_add(set, name, ""), "") << name;
    for (const char *email : {"two words", "-x", "a,b", "x\x1b"})
        EXPECT_NE(user_add(set, "new", email), "") << email;
    EXPECT_THAT(user_add(set, std::string(21, 'n'), ""), HasSubstr("too long by 1 byte"));
    EXPECT_EQ(set.users.size(), 3U);
    EXPECT_EQ(user_add(set, std::string(20, 'n'), ""), "");
}

TEST(MonitorUsers, ThirtyTwoAreTheMost)
{
    EVENT_SET set;
    for (int i = 0; i < 32; i++)
        ASSERT_EQ(user_add(set, "user" + std::to_string(i), ""), "");
    EXPECT_THAT(user_add(set, "more", ""), HasSubstr("no more than 32 users"));
}

// The settings file as doctor sees it: what the daemon finds in it, and every line that it would pass over.
#include "control_notify.h"
#include "control_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

namespace
{

// "LINE: TEXT" of each complaint.
std::vector<std::string> complaints(std::string_view text)
{
    std::vector<std::string> list;
    for (const COMPLAINT &complaint : settings_parse(text).complaints)
        list.push_back(std::to_string(complaint.line) + ": " + complaint.text);
    return list;
}

std::string value(const SETTINGS &settings, std::string_view section, std::string_view key)
{
    const std::string *found = settings_value(settings, section, key);
    return found != nullptr ? *found : "(none)";
}

}  // namespace

TEST(ControlSettings, WhatTheDaemonWritesIsReadAndNotComplainedOf)
{
    const SETTINGS settings =
        settings_parse("\n[ UPS ]\n\n ComSet = 2\n\n AgentType = 4\n Group = Group A\n"
                       " BuzzerCan = on\n\n[ Event10 ]\n\n Record = Yes\n Command = echo a=b \n"
                       " MailUser = 4294967295\n\n[ UserInfo ]\n\n UserID = \n\n[ 254 ]\n"
                       "\n[ ScheShutDown ]\n\n WEEKLYSTART12 = 30 22 * * 5\n");
    EXPECT_TRUE(settings.complaints.empty());
    EXPECT_EQ(value(settings, "UPS", "ComSet"), "2");
    EXPECT_EQ(value(settings, "Event10", "Command"), "echo a=b ");
    EXPECT_EQ(value(settings, "UserInfo", "UserID"), "");
    EXPECT_EQ(value(settings, "Event1", "Record"), "(none)");
}

TEST(ControlSettings, ANumberIsReadAsTheDaemonReadsIt)
{
    const SETTINGS settings = settings_parse("[ UPS ]\n ComSet = 3rd\n");
    EXPECT_EQ(settings_number(settings, "UPS", "ComSet", 0), 3);
    EXPECT_EQ(settings_number(settings, "UPS", "AgentType", 4), 4);
}

TEST(ControlSettings, OfTwoSectionsOrKeysTheFirstIsUsedAndTheSecondNamed)
{
    const SETTINGS settings =
        settings_parse("[ UPS ]\n ComSet = 1\n ComSet = 2\n[ UPSModel ]\n[ UPS ]\n ComSet = 3\n");
    EXPECT_EQ(value(settings, "UPS", "ComSet"), "1");
    ASSERT_EQ(settings.complaints.size(), 2u);
    EXPECT_EQ(settings.complaints[0].line, 3);
    EXPECT_EQ(settings.complaints[1].line, 5);
}

TEST(ControlSettings, EveryLineThatIsPassedOverIsNamed)
{
    EXPECT_THAT(complaints("ComSet = 1\n"),
                testing::ElementsAre(HasSubstr("1: \"ComSet\" stands above the first")));
    EXPECT_THAT(complaints("[ UPS ]\n# ComSet\n"), testing::ElementsAre(HasSubstr("2: this is neither")));
    EXPECT_THAT(complaints("[ UPS ]\n ComSet = 1"),
                testing::ElementsAre(HasSubstr("2: the last line does not end")));
    EXPECT_THAT(complaints("[ UPS\n ComSet = 1\n"),
                testing::ElementsAre(HasSubstr("1: the header has no \"]\"")));
    EXPECT_THAT(complaints("[ UPS ]\r\n"),
                testing::ElementsAre(HasSubstr("1: the line ends in a carriage return")));
    EXPECT_THAT(complaints(std::string("[ UPS ]\n Com\0Set = 1\n", 21)),
                testing::ElementsAre(HasSubstr("2: the line "
                                               "holds a NUL")));
    EXPECT_THAT(complaints("[ UPS ]\n AgentName = " + std::string(510 - 13, 'x') + "\n"), testing::IsEmpty());
    EXPECT_THAT(complaints("[ UPS ]\n AgentName = " + std::string(511 - 13, 'x') + "\n"),
                testing::ElementsAre(HasSubstr("2: the line is longer than 510")));
}

TEST(ControlSettings, UnknownSectionsAndKeysAreNamedOnce)
{
    EXPECT_THAT(complaints("[ Ups ]\n ComSet = 1\n AgentType = 4\n"),
                testing::ElementsAre("1: voltariad knows no section \"Ups\""));
    EXPECT_THAT(complaints("[ UPS ]\n comset = 1\n"),
                testing::ElementsAre("2: voltariad knows no key \"comset\" in section \"UPS\""));
    EXPECT_THAT(complaints("[ Event23 ]\n[ Eventx ]\n[ Event ]\n[ Event255 ]\n[ Event134 ]\n"),
                testing::SizeIs(3));
    EXPECT_THAT(complaints("[ UPS ]\n\tComSet = 1\n"), testing::SizeIs(1));  // a tab is part of the key
    // A number is looked for as the daemon writes it; a user's as the list has it.
    EXPECT_THAT(complaints("[ Event065 ]\n[ ScheTest ]\n WEEKLYSTART01 = 0\n[ 03 ]\n"),
                testing::ElementsAre("1: voltariad knows no section \"Event065\"",
                                     "3: voltariad knows no key \"WEEKLYSTART01\" in section \"ScheTest\""));
}

TEST(ControlSettings, ValuesOutOfTheirRangeAreNamed)
{
    EXPECT_THAT(complaints("[ UPS ]\n ComSet = 5\n"),
                testing::ElementsAre("2: ComSet must be a number from -2 to 4, not \"5\""));
    EXPECT_THAT(complaints("[ UPS ]\n AgentType = 2\n"),
                testing::ElementsAre("2: AgentType must be 1, 4, 5 or 6, not \"2\""));
    EXPECT_THAT(complaints("[ UPS ]\n BuzzerCan = yes\n"), testing::SizeIs(1));
    EXPECT_THAT(complaints("[ UPS ]\n Group = 0123456789abcdef\n"), testing::SizeIs(1));
    EXPECT_THAT(complaints("[ Event7 ]\n Record = no\n"), testing::SizeIs(1));
    EXPECT_THAT(complaints("[ ShutDown ]\n EXPECTBLIFE = sixty\n INTERVAL = 2147483648\n"),
                testing::SizeIs(2));
}

// ---- Who would be told ----

TEST(ControlNotifyPlan, WithoutSettingsEventsAreShownToAllAndNobodyIsKnown)
{
    const NOTIFY_PLAN plan = notify_plan(settings_parse(""));
    EXPECT_TRUE(plan.walled);
    EXPECT_TRUE(plan.users.empty());
}

TEST(ControlNotifyPlan, UsersArePickedByTheirPlaceInTheListAndNotByTheirNumber)
{
    const NOTIFY_PLAN plan =
        notify_plan(settings_parse("[ Event64 ]\n BroadcastType = 2\n BroadcastUser = 1\n"
                                   "[ Event66 ]\n BroadcastType = 3\n BroadcastUser = 2\n"
                                   " MailUser = 4\n[ UserInfo ]\n UserID = 3, 7,,9\n"
                                   "[ 3 ]\n Name = ann\n[ 7 ]\n Name = bob\n[ 9 ]\n Email = c@d\n"));
    ASSERT_EQ(plan.users.size(), 3u);
    EXPECT_EQ(plan.users[0].name, "ann");
    EXPECT_TRUE(plan.users[0].written);
    EXPECT_FALSE(plan.users[0].mailed);
    EXPECT_FALSE(plan.users[1].written);  // the event is shown to nobody
    EXPECT_TRUE(plan.users[2].mailed);
    EXPECT_EQ(plan.users[2].email, "c@d");
}

TEST(ControlNotifyPlan, WhenNoEventIsShownToAllNothingIsWalled)
{
    std::string text;
    for (const int id :
         {128, 129, 130, 131, 132, 133, 134, 65, 74, 75, 76, 79, 80, 0, 48, 49, 50, 51, 52, 53})
        text += "[ Event" + std::to_string(id) + " ]\n BroadcastType = 3\n";
    EXPECT_FALSE(notify_plan(settings_parse(text)).walled);
}

TEST(ControlNotifyPlan, APlaceInTheListThatEventsPickAndNobodyHasIsKnown)
{
    const NOTIFY_PLAN plan =
        notify_plan(settings_parse("[ UserInfo ]\n UserID = 3\n[ 3 ]\n Name = ann\n"
                                   "[ Event65 ]\n BroadcastType = 2\n BroadcastUser = 3\n MailUser = 8\n"
                                   "[ Event64 ]\n BroadcastType = 3\n BroadcastUser = 16\n"));
    EXPECT_EQ(plan.nobody, (std::vector<std::uint32_t>{1, 3}));
}

// The event settings and the users: what a settings file loads as, what a save writes, and both together.
#include "tests/unit/engine_fixture.h"
#include "tests/unit/filehandle_model.h"

#include "e_a_event_table.h"
#include "filehandle.h"
#include "wp_field.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>

class EventSettings : public Engine
{
  protected:
    int load(const std::string &text)
    {
        write_file(CONFIG_PATH, text);
        return getevent(events.data(), &ein, &eout);
    }

    const UPS_EVENTINFO &event(int id) const
    {
        return *std::find_if(events.begin(), events.end(),
                             [id](const UPS_EVENTINFO &row) { return row.EventID == id; });
    }

    bool defaults_loaded() const
    {
        return std::memcmp(events.data(), DEFAULTEVENTSET.data(), sizeof DEFAULTEVENTSET) == 0;
    }

    /// The numbers of the users that count, in the order of their slots.
    std::vector<int> user_ids() const
    {
        std::vector<int> ids;
        for (int i = 0; i < userinfo.nusers; i++)
            ids.push_back(users[static_cast<std::size_t>(i)].UserID);
        return ids;
    }

    std::vector<int> users_of(const std::string &list)
    {
        EXPECT_EQ(load("\n[ UserInfo ]\n UserID = " + list + "\n"), 0);
        return user_ids();
    }
};

TEST_F(EventSettings, AnEmptyFileLoadsTheDefaultsAndNoUsers)
{
    events.fill({});
    userinfo.nusers = 9;
    EXPECT_EQ(load(""), 0);
    EXPECT_TRUE(defaults_loaded());
    EXPECT_EQ(userinfo.nusers, 0);
    EXPECT_EQ(users[0].UserID, 255);
    EXPECT_EQ(error_text(), "Missing User Info in config file");
}

TEST_F(EventSettings, AMissingFileLoadsTheDefaultsToo)
{
    EXPECT_EQ(getevent(events.data(), &ein, &eout), 0);
    EXPECT_TRUE(defaults_loaded());
    EXPECT_EQ(userinfo.nusers, 0);
    EXPECT_FALSE(std::filesystem::exists(CONFIG_PATH));
}

TEST_F(EventSettings, ASectionReplacesItsEventAlone)
{
    EXPECT_EQ(load("\n[ Event65 ]\n\n Record = No\n ShutDown = 1\n BroadcastType = 2\n BroadcastUser = 5\n"
                   " MailUser = 4294967295\n Command = /bin/sync; echo a = b \n"),
              0);
    const UPS_EVENTINFO &read = event(65);
    EXPECT_EQ(read.Record, 0);
    EXPECT_EQ(read.Shutdown, 1);
    EXPECT_EQ(read.BroadcastType, 2u);
    EXPECT_EQ(read.BroadcastUser, 5u);
    EXPECT_EQ(read.MailUser, 4294967295u);
    EXPECT_EQ(field_view(read.Command), "/bin/sync; echo a = b ");
    events[8] = DEFAULTEVENTSET[8];
    EXPECT_TRUE(defaults_loaded());
}

TEST_F(EventSettings, AMissingKeyFallsBackToTheDefaultOfItsEvent)
{
    EXPECT_EQ(load("\n[ Event128 ]\n Record = No\n\n[ Event64 ]\n ShutDown = 1\n"), 0);
    EXPECT_EQ(event(128).Shutdown, 1);
    EXPECT_EQ(event(128).BroadcastType, 0u);
    EXPECT_EQ(event(64).Record, 1);
    EXPECT_EQ(event(64).BroadcastType, 3u);
}

TEST_F(EventSettings, OnlyAValueThatBeginsWithNoTurnsTheRecordOff)
{
    for (const auto &[text, record] :
         std::initializer_list<std::pair<const char *, int>>{{" Record = No\n", 0},
                                                             {" Record = Nope\n", 0},
                                                             {" Record = no\n", 1},
                                                             {" Record = N\n", 1},
                                                             {" Record = 0\n", 1},
                                                             {" Record =\n", 1},
                                                             {" Record = Yes\n", 1},
                                                             {"", 1}}) {
        EXPECT_EQ(load(std::string("[ Event0 ]\n") + text), 0);
        EXPECT_EQ(event(0).Record, record) << text;
    }
}

TEST_F(EventSettings, ASectionOfALongerNumberIsAnotherEvent)
{
    EXPECT_EQ(load("\n[ Event13 ]\n ShutDown = 1\n\n[ Event1 ]\n MailUser = 2\n"), 0);
    EXPECT_EQ(event(1).Shutdown, 0);
    EXPECT_EQ(event(1).MailUser, 2u);
    EXPECT_EQ(event(13).Shutdown, 1);
}

TEST_F(EventSettings, ACommandIsCutToItsField)
{
    EXPECT_EQ(load("\n[ Event7 ]\n Command = " + std::string(400, 'c') + "\n"), 0);
    EXPECT_EQ(field_view(event(7).Command), std::string(259, 'c'));
    EXPECT_EQ(load("\n[ Event7 ]\n Command =\n"), 0);
    EXPECT_EQ(field_view(event(7).Command), "");
}

TEST_F(EventSettings, WhatIsNoNumberIsNought)
{
    EXPECT_EQ(load("\n[ Event128 ]\n ShutDown = x\n BroadcastType =\n BroadcastUser = -1\n MailUser = 7x\n"),
              0);
    EXPECT_EQ(event(128).Shutdown, 0);
    EXPECT_EQ(event(128).BroadcastType, 0u);
    EXPECT_EQ(event(128).BroadcastUser, 4294967295u);
    EXPECT_EQ(event(128).MailUser, 7u);
}

TEST_F(EventSettings, WithoutATableNothingIsLoaded)
{
    EXPECT_EQ(getevent(nullptr, &ein, &eout), -1);
}

TEST_F(EventSettings, WithoutRoomForUsersTheEventsAreLoaded)
{
    userinfo = {7, nullptr};
    EXPECT_EQ(load("\n[ UserInfo ]\n UserID = 1\n"), 0);
    EXPECT_EQ(userinfo.nusers, 0);
    eout.DATA.eu.uip = nullptr;
    EXPECT_EQ(load("\n[ UserInfo ]\n UserID = 1\n"), 0);
    EXPECT_TRUE(defaults_loaded());
}

TEST_F(EventSettings, AMonitorsRequestBringsThemAll)
{
    write_file(CONFIG_PATH, "\n[ Event0 ]\n Record = No\n\n[ UserInfo ]\n UserID = 4\n");
    EXPECT_EQ(act(E_CMD_GETEVENT), 0);
    EXPECT_EQ(eout.datatype, 8u);
    EXPECT_EQ(event(0).Record, 0);
    EXPECT_EQ(user_ids(), std::vector{4});
}

TEST_F(EventSettings, ItemsEndAtCommasAndBlanks)
{
    for (const auto &[text, items] :
         std::initializer_list<std::pair<std::string, std::vector<std::string>>>{{"3, 7,,9", {"3", "7", "9"}},
                                                                                 {"  12 ab ", {"12", "ab"}},
                                                                                 {",3", {"", "3"}},
                                                                                 {"1 ,2", {"1", "2"}},
                                                                                 {"", {}},
                                                                                 {"   ", {""}},
                                                                                 {"\t1", {"\t1"}}}) {
        std::vector<std::string> read;
        for (std::size_t pos = 0; pos < text.size();) {
            const char *item = nextitem(text.c_str(), &pos);
            read.emplace_back(item != nullptr ? item : "");
        }
        EXPECT_EQ(read, items) << text;
    }
    std::size_t pos = 0;
    EXPECT_EQ(nextitem(nullptr, &pos), nullptr);
    EXPECT_EQ(nextitem("", &pos), nullptr);
    EXPECT_EQ(nextitem(std::string(2000, '1').c_str(), &pos), std::string(511, '1'));
    EXPECT_EQ(pos, 2000u);
}

TEST_F(EventSettings, TheListOfUsersFillsTheSlotsInItsOrder)
{
    EXPECT_EQ(users_of("3, 7,,9"), (std::vector{3, 7, 9}));
    EXPECT_EQ(users_of(",,3, ,7,"), (std::vector{3, 7}));
    EXPECT_EQ(users_of("9 1"), (std::vector{9, 1}));
    EXPECT_EQ(users_of("300,x"), (std::vector{44, 0}));
    EXPECT_EQ(users_of(""), std::vector<int>{});
    EXPECT_EQ(users_of(" , "), std::vector<int>{});
    EXPECT_EQ(error_text(), "");
}

TEST_F(EventSettings, ThirtyTwoSlotsAreFilledAndNoMore)
{
    std::string longest;
    for (int i = 1; longest.size() < 480; i++)
        longest += std::to_string(i % 10) + ",";
    EXPECT_EQ(users_of(longest).size(), 32u);
    EXPECT_EQ(users[31].UserID, 2);
}

TEST_F(EventSettings, AListTooLongForALineIsNoList)
{
    std::string endless;
    for (int i = 0; i < 10'000; i++)
        endless += std::to_string(i) + ",";
    EXPECT_EQ(users_of(endless), std::vector<int>{});
    EXPECT_EQ(error_text(), "Missing User Info in config file");
}

TEST_F(EventSettings, AUserHasNameAndMailAddressFromItsSectionAndThisHostsName)
{
    EXPECT_EQ(load("\n[ UserInfo ]\n UserID = 2,5\n\n[ 2 ]\n Name = root\n Address = elsewhere\n"
                   " Email = root@example.com\n\n[ 5 ]\n Name = operator\n"),
              0);
    ASSERT_EQ(userinfo.nusers, 2);
    EXPECT_EQ(field_view(users[0].UserName), "root");
    EXPECT_EQ(field_view(users[0].Address), "voltaria-test");
    EXPECT_EQ(field_view(users[0].Email), "root@example.com");
    EXPECT_EQ(field_view(users[1].UserName), "operator");
    EXPECT_EQ(field_view(users[1].Email), "");
    EXPECT_EQ(users[2].UserID, 255);
}

TEST_F(EventSettings, TheFieldsOfAUserAreCut)
{
    set_host_name(std::string(64, 'h'));
    EXPECT_EQ(load("\n[ UserInfo ]\n UserID = 1\n\n[ 1 ]\n Name = " + std::string(30, 'n') +
                   "\n Email = " + std::string(300, 'm') + "\n"),
              0);
    EXPECT_EQ(field_view(users[0].UserName), std::string(20, 'n'));
    EXPECT_EQ(field_view(users[0].Address), std::string(64, 'h'));
    EXPECT_EQ(field_view(users[0].Email), std::string(259, 'm'));
}

TEST_F(EventSettings, NothingOfARemovedUserStaysInItsSlot)
{
    std::memset(users.data(), 'x', sizeof users);
    EXPECT_EQ(users_of("1"), std::vector{1});
    USERSDATA empty{};
    empty.UserID = 255;
    for (std::size_t i = 1; i < users.size(); i++)
        EXPECT_EQ(std::memcmp(&users[i], &empty, sizeof empty), 0) << i;
    EXPECT_EQ(field_view(users[0].UserName), "");
}

class EventSave : public EventSettings
{
  protected:
    void SetUp() override
    {
        EventSettings::SetUp();
        request.logparam.MaxEventRec = ups.up.logparam.MaxEventRec = 200;
        for (std::size_t i = 0; i < EVENT_COUNT; i++) {
            const auto n = static_cast<std::uint32_t>(i);
            events[i] = DEFAULTEVENTSET[i];
            events[i].Record = i % 3 != 0;
            events[i].Shutdown = i % 2 != 0 ? 1 : 0;
            events[i].BroadcastType = n % 4;
            events[i].BroadcastUser = 0x80000000u + n;
            events[i].MailUser = 0xFFFFFFFFu - n;
            field_set(events[i].Command, "run " + std::to_string(i));
        }
        add_user(2, "root", "root@example.com");
        add_user(5, "operator", "");
        saved = events;
    }

    void add_user(std::uint8_t id, std::string_view name, std::string_view mail)
    {
        USERSDATA &user = users[static_cast<std::size_t>(userinfo.nusers++)];
        user.UserID = id;
        field_set(user.UserName, name);
        field_set(user.Address, "voltaria-test");
        field_set(user.Email, mail);
    }

    /// Whatever a save needs, without a setting.
    static std::string headers()
    {
        std::string text;
        for (const EVENTMSG &message : EventMsg)
            text += "\n[ Event" + std::to_string(message.eID) + " ]\n";
        return text + "\n[ 2 ]\n\n[ 5 ]\n\n[ UserInfo ]\n";
    }

    /// What a save of this test's tables makes of the file `text`.
    std::string after_save(std::string text) const
    {
        for (std::size_t i = 0; i < EVENT_COUNT; i++) {
            const UPS_EVENTINFO &row = saved[i];
            const std::string section = "Event" + std::to_string(row.EventID);
            config_model::write(text, section, "Record", row.Record != 0 ? "Yes" : "No");
            config_model::write(text, section, "ShutDown", std::to_string(row.Shutdown));
            config_model::write(text, section, "BroadcastType", std::to_string(row.BroadcastType));
            config_model::write(text, section, "BroadcastUser", std::to_string(row.BroadcastUser));
            config_model::write(text, section, "MailUser", std::to_string(row.MailUser));
            config_model::write(text, section, "Command", std::string(field_view(row.Command)));
        }
        for (const auto &[section, name, mail] :
             {std::tuple("2", "root", "root@example.com"), std::tuple("5", "operator", "")}) {
            config_model::write(text, section, "Name", name);
            config_model::write(text, section, "Address", "voltaria-test");
            config_model::write(text, section, "Email", mail);
        }
        config_model::write(text, "UserInfo", "UserID", "2,5");
        return text;
    }

    int save()
    {
        return setevent(&ein, &eout);
    }

    /// Whether loading brings back the tables of this test.
    bool reads_back()
    {
        const std::array<USERSDATA, USER_COUNT> told = users;
        events.fill({});
        users.fill({});
        EXPECT_EQ(getevent(events.data(), &ein, &eout), 0);
        return std::memcmp(events.data(), saved.data(), sizeof DEFAULTEVENTSET) == 0 &&
               userinfo.nusers == 2 && std::memcmp(users.data(), told.data(), 2 * sizeof(USERSDATA)) == 0;
    }

    std::array<UPS_EVENTINFO, EVENT_TABLE_SIZE> saved{};
};

TEST_F(EventSave, AFileThatHoldsTheHeadersReadsBackWhole)
{
    write_file(CONFIG_PATH, headers());
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(CONFIG_PATH), after_save(headers()));
    EXPECT_TRUE(reads_back());
}

TEST_F(EventSave, ASettingIsWrittenAsItsKeyAndValueBetweenEmptyLines)
{
    write_file(CONFIG_PATH, headers());
    EXPECT_EQ(save(), 0);
    EXPECT_NE(read_file(CONFIG_PATH)
                  .find("\n[ Event129 ]\n\n Record = Yes\n\n ShutDown = 1\n\n BroadcastType = 1\n\n"
                        " BroadcastUser = 2147483649\n\n MailUser = 4294967294\n\n Command = run 1\n\n"
                        "[ Event130 ]\n"),
              std::string::npos);
}

// Each section's first setting lands above its header, in the section before. The first of all is in none,
// and the list of users is in the section of the last of them: they are not loaded.
TEST_F(EventSave, AFirstSaveIntoAnEmptyFileReadsBackShifted)
{
    write_file(CONFIG_PATH, "");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(CONFIG_PATH), after_save(""));
    EXPECT_EQ(getevent(events.data(), &ein, &eout), 0);
    EXPECT_EQ(userinfo.nusers, 0);
    for (std::size_t i = 0; i + 1 < EVENT_COUNT; i++)
        EXPECT_EQ(events[i].Record, saved[i + 1].Record) << i;
    EXPECT_EQ(events[EVENT_COUNT - 1].Record, 1);
    for (std::size_t i = 0; i < EVENT_COUNT; i++) {
        events[i].Record = saved[i].Record;
        EXPECT_EQ(std::memcmp(&events[i], &saved[i], sizeof saved[i]), 0) << i;
    }
}

TEST_F(EventSave, ASecondSaveMendsTheFirst)
{
    EXPECT_EQ(save(), 0);
    const std::string first = read_file(CONFIG_PATH);
    EXPECT_EQ(save(), 0);
    const std::string text = read_file(CONFIG_PATH);
    EXPECT_EQ(text, after_save(first));
    EXPECT_TRUE(reads_back());
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(read_file(CONFIG_PATH), text);
}

TEST_F(EventSave, TheUsersAreListedByNumber)
{
    write_file(CONFIG_PATH, headers());
    EXPECT_EQ(save(), 0);
    EXPECT_STREQ(readparam("UserInfo", "UserID"), "2,5");
    users[0].UserID = USER_NONE;
    EXPECT_EQ(save(), 0);
    EXPECT_STREQ(readparam("UserInfo", "UserID"), "5");
    EXPECT_STREQ(readparam("2", "Name"), "root") << "the section of a removed user stays";
    for (const int none : {0, -1, -2147483647}) {
        userinfo.nusers = none;
        EXPECT_EQ(save(), 0);
        EXPECT_STREQ(readparam("UserInfo", "UserID"), "");
    }
    userinfo.udp = nullptr;
    userinfo.nusers = 2;
    EXPECT_EQ(save(), 0);
}

TEST_F(EventSave, NoMoreUsersAreTakenThanThereAreSlots)
{
    std::fill(users.begin(), users.end(), users[0]);
    write_file(CONFIG_PATH, headers());
    userinfo.nusers = 1000;
    EXPECT_EQ(save(), 0);
    const std::string_view list = readparam("UserInfo", "UserID");
    EXPECT_EQ(list.size(), 2 * 32u - 1);
}

TEST_F(EventSave, TextsWithoutAnEndAndWithNewlinesStayInTheirSettings)
{
    events[0].Command.fill('c');
    field_set(events[1].Command, "true\n[ Event0 ]\n ShutDown = 1");
    users[0].UserName.fill('n');
    users[0].Email.fill('m');
    write_file(CONFIG_PATH, headers());
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(readparam("Event128", "Command"), std::string(260, 'c'));
    EXPECT_STREQ(readparam("Event129", "Command"), "true");
    EXPECT_EQ(readparam("2", "Name"), std::string(21, 'n'));
    EXPECT_EQ(readparam("2", "Email"), std::string(260, 'm'));
    EXPECT_EQ(getevent(events.data(), &ein, &eout), 0);
    EXPECT_EQ(field_view(events[0].Command), std::string(259, 'c'));
}

TEST_F(EventSave, NumbersOfEitherSignComeBack)
{
    events[0].Shutdown = -1;
    events[0].BroadcastType = 0xFFFFFFFF;
    write_file(CONFIG_PATH, headers());
    EXPECT_EQ(save(), 0);
    EXPECT_STREQ(readparam("Event128", "ShutDown"), "4294967295");
    EXPECT_EQ(getevent(events.data(), &ein, &eout), 0);
    EXPECT_EQ(events[0].Shutdown, -1);
    EXPECT_EQ(events[0].BroadcastType, 0xFFFFFFFF);
}

TEST_F(EventSave, ANewFileBelongsToRootAndGroupOne)
{
    EXPECT_EQ(save(), 0);
    struct stat status;
    ASSERT_EQ(stat(CONFIG_PATH, &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0600u);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_gid, 1u);
}

TEST_F(EventSave, AMonitorsSaveIsAnEventOfItsOwn)
{
    write_file(CONFIG_PATH, headers());
    engine.EVENTLOGENABLED = 1;
    events[35] = DEFAULTEVENTSET[35];  // event 11 itself is to be logged and no more
    saved = events;
    EXPECT_EQ(act(E_CMD_SETEVENT), 0);
    EXPECT_EQ(eout.datatype, 0u);
    EXPECT_EQ(logged(), std::vector{11});
    EXPECT_TRUE(reads_back());
}

TEST_F(EventSave, AnySaveButAMonitorsIsNoEvent)
{
    engine.EVENTLOGENABLED = 1;
    write_file(CONFIG_PATH, headers());
    EXPECT_EQ(save(), 0);
    EXPECT_FALSE(std::filesystem::exists(LOG_PATH));
    EXPECT_EQ(engine.last2event[1].EventId, 255);
}

TEST_F(EventSave, ASaveThatCannotBeginIsRefusedAndIsNoEvent)
{
    std::filesystem::create_directory(CONFIG_PATH);
    EXPECT_EQ(act(E_CMD_SETEVENT), -1);
    EXPECT_EQ(engine.last2event[1].EventId, 255);
    EXPECT_TRUE(defaults_loaded()) << "the settings now in force";
    std::filesystem::remove(CONFIG_PATH);
    ein.DATA.eu.eap = nullptr;
    EXPECT_EQ(save(), -1);
    EXPECT_FALSE(std::filesystem::exists(CONFIG_PATH));
}

// A disk that fills up in the middle: the file ends where it did, the agent goes on with what it can read.
TEST_F(EventSave, AFullDiskFailsTheSaveAndTheNextOneWorks)
{
    write_file(CONFIG_PATH, headers());
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit = {read_file(CONFIG_PATH).size() + 700, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(act(E_CMD_SETEVENT), -1);
    EXPECT_EQ(engine.last2event[1].EventId, 255);
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_DFL);
    ein.DATA.eu.eap = saved.data();
    userinfo.nusers = 0;
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(getevent(events.data(), &ein, &eout), 0);
    EXPECT_EQ(std::memcmp(events.data(), saved.data(), sizeof DEFAULTEVENTSET), 0);
}

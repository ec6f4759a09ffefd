// The link under the status monitor: found, lost, without a port, and what each does to a pending shutdown.
#include "tests/unit/engine_status_fixture.h"

#include "agent_utils.h"
#include "agent_utils_output.h"
#include "shared_word.h"

#include <cstring>
#include <filesystem>
#include <thread>

class MonitorLink : public Monitor
{
  protected:
    /// A shutdown for `reason` that is under way in every respect.
    void begin_shutdown(REASON reason, std::time_t ENGINE::*deadline)
    {
        engine.downreason = reason;
        engine.*deadline = engine.next_off = timenow() + 100;
        engine.ISSHUTTINGDOWN = engine.DOWNREACHED = 1;
        ups.ui.ShutdownS = ups.ui.CommandDownS = 1;
    }

    void expect_called_off(std::time_t ENGINE::*deadline)
    {
        EXPECT_EQ(engine.downreason, NONE);
        EXPECT_EQ(engine.*deadline, 0);
        EXPECT_EQ(engine.next_off, 0);
        EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
        EXPECT_EQ(engine.DOWNREACHED, 0);
        EXPECT_EQ(ups.ui.ShutdownS, 0);
        EXPECT_EQ(ups.ui.CommandDownS, 0);
    }

    void lose(std::int8_t status = COMM_LOST)
    {
        set_link(status);
        ASSERT_EQ(pass(), 0);
    }
};

// ---- found

TEST_F(MonitorLink, AFoundLinkIsToldAndLoadsTheSettings)
{
    write_file(CONFIG_PATH, "\n[ ShutDown ]\n EXPECTBLIFE = 90\n");
    set_model("");
    EXPECT_EQ(pass(), 0);
    engine.ISCOMLST = 1;
    connect();
    EXPECT_EQ(raised, ids{1});
    EXPECT_EQ(recorder.english, texts{"UPS Communication established"});
    EXPECT_EQ(recorder.localised, texts{"UPS Communication established"});
    EXPECT_EQ(recorder.calls.back(), (callback{E_CB_STATUSCHANGED, 0, 0}));
    EXPECT_EQ(engine.EXPBLIFE, 90u);
    EXPECT_EQ(engine.com_estab_once, 1);
    EXPECT_EQ(engine.ISCOMLST, 0);
    EXPECT_EQ(engine.LASTCOMESTTIME, 1'078'477'622);
    EXPECT_TRUE(schedules_read());
}

TEST_F(MonitorLink, TheLocalisedNoticeGoesFirst)
{
    connect();
    const auto first = std::find_if(recorder.calls.begin(), recorder.calls.end(),
                                    [](const callback &call) { return std::get<0>(call) == 1; });
    ASSERT_NE(first, recorder.calls.end());
    EXPECT_EQ(first[0], (callback{1, 1, 0}));
    EXPECT_EQ(first[1], (callback{1, 2, 0}));
}

TEST_F(MonitorLink, AUnitFoundOnBatteryIsToldOnceAndCountsFromTheFullTime)
{
    connect(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    EXPECT_EQ(raised, (ids{1, 65}));
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'622 + 60);
    EXPECT_EQ(engine.just_fail, 1);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
}

TEST_F(MonitorLink, ALinkThatReturnsOnBatteryStartsAfresh)
{
    connect();
    fail_mains();
    advance(50);
    lose();
    EXPECT_EQ(engine.ACFAIL_off, 0);
    advance(50);
    connect(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    EXPECT_EQ(raised, (ids{1, 65}));
    EXPECT_EQ(engine.ACFAIL_off, 1'078'477'622 + 100 + 60);
    EXPECT_EQ(acfail_elapsed(), 0);
    advance(1);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    EXPECT_NE(engine.ACFAIL_off, 0);
}

TEST_F(MonitorLink, MainsThatReturnedWhileTheLinkWasDownAreTold)
{
    connect();
    fail_mains();
    lose();
    connect();
    EXPECT_EQ(raised, (ids{1, 0}));
    EXPECT_EQ(engine.ACFAIL_off, 0);
}

TEST_F(MonitorLink, ADeadlineMissedWithoutALinkIsForgotten)
{
    engine.downreason = USER_SPECIFY;
    engine.next_off = engine.USR_off = timenow() - 11;
    engine.SCH_boot = timenow() + 1000;
    connect();
    EXPECT_EQ(engine.next_off, 0);
    EXPECT_EQ(engine.USR_off, 0);
    EXPECT_EQ(engine.SCH_boot, 0);
    EXPECT_EQ(engine.downreason, NONE);
}

TEST_F(MonitorLink, ADeadlineTenSecondsAgoIsNotMissed)
{
    engine.downreason = USER_SPECIFY;
    engine.next_off = engine.USR_off = timenow() - 10;
    connect();
    EXPECT_EQ(engine.USR_off, timenow() - 10);
    EXPECT_EQ(engine.next_off, timenow() - 10);
    EXPECT_EQ(engine.downreason, USER_SPECIFY);
}

// Telling the loss may take so long that the link is back before the shutdown looks at it.
TEST_F(MonitorLink, AShutdownThatDidNotSeeTheLossIsFinished)
{
    const std::array<std::pair<REASON, std::time_t ENGINE::*>, 2> cases = {{
        {AC_FAIL, &ENGINE::ACFAIL_off},
        {BATT_LOW, &ENGINE::BATTLOW_off},
    }};
    for (const auto &[reason, deadline] : cases) {
        connect();
        begin_shutdown(reason, deadline);
        engine.gracestart = utils_monotonicms();
        const std::time_t due = engine.next_off;
        advance(300);
        lose();
        connect();
        EXPECT_EQ(engine.ISSHUTTINGDOWN, 1) << reason;
        EXPECT_EQ(engine.next_off, due) << reason;
        recorder = Recorder{};
        EXPECT_EQ(act(E_CMD_CHECKSTATUS), 0) << reason;
        EXPECT_EQ(count(E_CB_UPSDOWN), 1) << reason;
    }
}

TEST_F(MonitorLink, AnotherAgentsOrderIsForgottenWhenTheLinkIsFound)
{
    lose();
    begin_shutdown(OTHERAGEDOWN, &ENGINE::OTHERAG_off);
    connect();
    EXPECT_EQ(engine.DOWNREACHED, 1);
    engine.DOWNREACHED = 0;
    expect_called_off(&ENGINE::OTHERAG_off);
}

// The event goes before the other agent's order is forgotten: a shutdown that it triggers takes that one's
// place.
TEST_F(MonitorLink, AShutdownThatTheFoundLinkTriggersIsNotForgotten)
{
    lose();
    begin_shutdown(OTHERAGEDOWN, &ENGINE::OTHERAG_off);
    engine.DOWNREACHED = 0;
    events[25].Shutdown = 1;  // "UPS Communication established"
    connect();
    EXPECT_EQ(engine.downreason, EVENT_TRIGGER);
    EXPECT_EQ(engine.next_off, timenow());
    EXPECT_EQ(engine.OTHERAG_off, timenow() + 100);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
}

TEST_F(MonitorLink, WhatALinkTellsMonitorsHasItsOrder)
{
    const std::vector<callback> notice = {
        {E_CB_MESSAGE, 1, 0}, {E_CB_MESSAGE, 2, 0}, {E_CB_STATUSCHANGED, 0, 0}};
    std::vector<callback> lost = {{E_CB_SETTINGSCHANGED, 0, 0}};
    lost.insert(lost.end(), notice.begin(), notice.end());
    std::vector<callback> found = {{E_CB_SETTINGSCHANGED, 0, 0}, {E_CB_AUTOREBOOT_ON, 0, 0}};
    found.insert(found.end(), notice.begin(), notice.end());
    found.emplace_back(E_CB_SETTINGSCHANGED, 0, 0);  // for the bits
    EXPECT_EQ(pass(), 0);
    connect(UPSSTAT_ACFAIL, UPSBIT_ACFAIL);
    EXPECT_EQ(recorder.calls, found);
    lose();
    EXPECT_EQ(recorder.calls, lost);
}

// ---- lost

TEST_F(MonitorLink, ALossIsAnEventOnlyAfterALinkWasThere)
{
    lose();
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(recorder.english, texts{"UPS communication Lost"});
    connect();
    lose();
    EXPECT_EQ(raised, ids{64});
    EXPECT_EQ(recorder.english, texts{"UPS communication Lost"});
    EXPECT_EQ(recorder.localised, texts{"UPS communication Lost"});
    EXPECT_EQ(recorder.calls.back(), (callback{E_CB_STATUSCHANGED, 0, 0}));
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 1);
    EXPECT_EQ(engine.ISCOMLST, 1);
    EXPECT_EQ(pass(), 0);
    EXPECT_TRUE(recorder.calls.empty());
}

TEST_F(MonitorLink, WithoutAPortTheLossIsNeitherEventNorNotice)
{
    connect();
    lose(COMM_NOUPS);
    EXPECT_EQ(raised, ids{});
    EXPECT_TRUE(recorder.english.empty());
    EXPECT_EQ(recorder.calls.back(), (callback{E_CB_STATUSCHANGED, 0, 0}));
    EXPECT_EQ(engine.ISCOMLST, 1);
    EXPECT_EQ(ups.ui.upsstat, UPSSTAT_NORMAL);
}

TEST_F(MonitorLink, ALossBehindAMissingPortIsToldLikeAnyOther)
{
    connect();
    lose(COMM_NOUPS);
    lose();
    EXPECT_EQ(raised, ids{64});
    EXPECT_EQ(recorder.english, texts{"UPS communication Lost"});
}

TEST_F(MonitorLink, ALossIsPrintedWithThePortSetting)
{
    std::filesystem::remove(DEBUG_FILE);
    connect();
    ups.up.workparam.ComSet = -2;
    lose(COMM_NOUPS);
    EXPECT_NE(read_file(DEBUG_FILE).find("ups comm lost, comset:-2\n"), std::string::npos);
}

TEST_F(MonitorLink, ALossClearsMeasurementsAndCode)
{
    connect(UPSSTAT_BYPASS, UPSBIT_BYPASS);
    std::memset(&ups.ui.upsdata, 0x55, sizeof ups.ui.upsdata);
    ups.ui.ShutdownS = 1;
    lose();
    const UPSDATA zero{};
    EXPECT_EQ(std::memcmp(&ups.ui.upsdata, &zero, sizeof zero), 0);
    EXPECT_EQ(ups.ui.upsstat, UPSSTAT_NORMAL);
    EXPECT_EQ(engine.LASTUPSSTAT, UPSSTAT_NORMAL);
    EXPECT_EQ(ups.ui.ShutdownS, 0);
}

TEST_F(MonitorLink, ALossCallsOffWhatHangsOnTheUnit)
{
    const std::array<std::pair<REASON, std::time_t ENGINE::*>, 6> cases = {{
        {OTHERAGEDOWN, &ENGINE::OTHERAG_off},
        {EVENT_TRIGGER, &ENGINE::EVENTTRIGGER_off},
        {SPECIAL, &ENGINE::SCH_off},
        {WEEKLY, &ENGINE::SCH_off},
        {MONTHLY, &ENGINE::SCH_boot},
        {USER_SPECIFY, &ENGINE::USR_off},
    }};
    for (const std::int8_t status : {COMM_LOST, COMM_NOUPS}) {
        for (const auto &[reason, deadline] : cases) {
            connect();
            begin_shutdown(reason, deadline);
            lose(status);
            expect_called_off(deadline);
        }
    }
}

// What hung on the unit goes before the loss is told, what a user began goes after it.
TEST_F(MonitorLink, AShutdownThatTheLossTriggersIsNotCalledOff)
{
    events[7].Shutdown = 1;  // "UPS communication Lost"
    connect();
    begin_shutdown(EVENT_TRIGGER, &ENGINE::EVENTTRIGGER_off);
    lose();
    EXPECT_EQ(engine.downreason, EVENT_TRIGGER);
    EXPECT_EQ(engine.EVENTTRIGGER_off, timenow());
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 0);
    connect();
    engine.downreason = USER_SPECIFY;
    engine.USR_off = engine.next_off = timenow() + 100;
    lose();
    EXPECT_EQ(engine.downreason, EVENT_TRIGGER);
    EXPECT_EQ(engine.USR_off, timenow() + 100);
}

TEST_F(MonitorLink, AShutdownForLowBatteryIsLeftToTheShutdownItself)
{
    connect();
    begin_shutdown(BATT_LOW, &ENGINE::BATTLOW_off);
    lose();
    EXPECT_EQ(engine.downreason, BATT_LOW);
    EXPECT_EQ(engine.BATTLOW_off, engine.next_off);
    EXPECT_EQ(engine.ISSHUTTINGDOWN, 1);
    EXPECT_EQ(engine.DOWNREACHED, 1);
    EXPECT_EQ(ups.ui.ShutdownS, 0);
    EXPECT_EQ(ups.ui.CommandDownS, 1);
}

TEST_F(MonitorLink, ALossDuringAMainsFailureEndsTheCountdown)
{
    connect();
    fail_mains();
    engine.BATTLOW_off = 5;
    engine.DOWNREACHED = ups.ui.CommandDownS = 1;
    engine.ACFAIL_duration = 7;
    lose();
    EXPECT_EQ(raised, ids{64});
    EXPECT_EQ(engine.ACFAIL_off, 0);
    EXPECT_EQ(engine.BATTLOW_off, 0);
    EXPECT_EQ(engine.downreason, NONE);
    EXPECT_EQ(engine.ACFAIL_duration, 0);
    EXPECT_EQ(engine.just_fail, 0);
    EXPECT_EQ(engine.DOWNREACHED, 0);
    EXPECT_EQ(ups.ui.CommandDownS, 0);
}

TEST_F(MonitorLink, ACountdownBehindAnEarlierScheduleEndsWithTheLinkToo)
{
    connect();
    fail_mains();
    engine.downreason = WEEKLY;
    engine.SCH_off = timenow() + 10;
    lose();
    EXPECT_EQ(engine.ACFAIL_off, 0);
    EXPECT_EQ(engine.SCH_off, 0);
    EXPECT_EQ(engine.downreason, NONE);
}

TEST_F(MonitorLink, WhileTheLinkIsDownNoReasonIsAMainsFailure)
{
    for (const std::int8_t status : {COMM_LOST, COMM_NOUPS}) {
        connect();
        lose(status);
        engine.downreason = AC_FAIL;
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(engine.downreason, NONE);
    }
}

TEST_F(MonitorLink, ALinkStateThatIsNeitherIsAnnouncedAndNoMore)
{
    connect();
    set_link(3);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(recorder.calls, (std::vector<callback>{{E_CB_SETTINGSCHANGED, 0, 0}}));
    EXPECT_EQ(raised, ids{});
}

TEST_F(MonitorLink, AFailureThatHasNoCountdownIsToldOnlyOnAnEstablishedLink)
{
    connect();
    fail_mains();
    engine.ACFAIL_off = 0;
    set_link(3);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    set_link(COMM_ESTABLISHED);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, (ids{1, 65}));
}

TEST_F(MonitorLink, ATestThatEndedWithTheLinkIsToldBehindACodeOfFailure)
{
    connect();
    set_link(3);
    set_unit(UPSSTAT_ACFAIL, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    ups.ui.sftResUPS.Result = SELFTEST_PASSED;
    connect();
    EXPECT_EQ(raised, (ids{1, 2}));
}

TEST_F(MonitorLink, AnEventThatComesWithTheLossIsNotTold)
{
    connect();
    lose();
    set_unit(UPSSTAT_NORMAL, UPSBIT_OVERLOAD | UPSBIT_BYPASS | UPSBIT_ACFAIL);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
}

TEST_F(MonitorLink, AFaultThatComesWithoutALinkIsNeverTold)
{
    connect();
    lose();
    set_unit(UPSSTAT_NORMAL, UPSBIT_FAULT);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    EXPECT_EQ(count(E_CB_SETTINGSCHANGED), 2);
    set_link(COMM_ESTABLISHED);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{1});
}

TEST_F(MonitorLink, ASelfTestCutOffByALossHasNoResult)
{
    connect();
    set_unit(UPSSTAT_TESTING, UPSBIT_TESTING);
    EXPECT_EQ(pass(), 0);
    lose();  // the bit goes a moment after the link
    EXPECT_EQ(raised, ids{64});
    ups.upsstat = 0;
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, ids{});
    connect();
    EXPECT_EQ(raised, ids{1});
}

TEST_F(MonitorLink, ALinkThatReturnsWhileItsLossIsToldKeepsItsCode)
{
    static constexpr char TOLD[] = "/tmp/voltaria-loss-told";
    static constexpr char BACK[] = "/tmp/voltaria-link-back";
    std::filesystem::remove(TOLD);
    std::filesystem::remove(BACK);
    field_set(events[7].Command,
              ": >/tmp/voltaria-loss-told; until [ -e /tmp/voltaria-link-back ]; do :; done");
    connect();
    std::thread unit([this] {
        while (!std::filesystem::exists(TOLD))
            std::this_thread::yield();
        shared_store(ups.ui.upsstat, UPSSTAT_ACFAIL);
        shared_store(ups.ui.CommStatus, COMM_ESTABLISHED);
        shared_store(ups.upsstat, UPSBIT_ACFAIL);
        write_file(BACK, "");
    });
    set_link(COMM_LOST);
    EXPECT_EQ(pass(), 0);
    unit.join();
    EXPECT_EQ(raised, ids{64});
    EXPECT_EQ(ups.ui.upsstat, UPSSTAT_ACFAIL);
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(raised, (ids{1, 65}));
    EXPECT_EQ(pass(), 0);
    EXPECT_NE(engine.ACFAIL_off, 0);
}

// The event bits and the self-tests: what the unit reports, turned into events. A chapter of the status pass.
#include "e_a_status.h"

#include "shared_word.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <string_view>

// How the word differs from the last pass.
typedef struct _BITCHANGES {
    bool any;
    bool unanswered;  // mains failed on the last pass already, yet no countdown runs
    std::uint32_t raised;
    std::uint32_t cleared;
} BITCHANGES;

// The countdown may have been ended by a code that did not last; the failure then counts as new.
static bool is_unanswered(const STATUSPASS &pass)
{
    return pass.seen.CommStatus == COMM_ESTABLISHED && engine.LASTUPSSTAT == UPSSTAT_ACFAIL &&
           engine.ACFAIL_off == 0;
}

static BITCHANGES compare_bits(const STATUSPASS &pass)
{
    BITCHANGES changes{};
    changes.any = pass.u_status != engine.last_u_status;
    changes.unanswered = is_unanswered(pass);
    changes.raised = pass.u_status & ~engine.last_u_status;
    changes.cleared = ~pass.u_status & engine.last_u_status;
    return changes;
}

// ---- self-tests

typedef struct _TESTEVENTS {
    REASON reason;
    int passed;
    int failed;
} TESTEVENTS;

static constexpr std::array<TESTEVENTS, 5> TEST_EVENTS = {{
    {NONE, EVENT_TESTPASSED_USER, EVENT_TESTFAILED_USER},
    {USER_SPECIFY, EVENT_TESTPASSED_USER, EVENT_TESTFAILED_USER},
    {SPECIAL, EVENT_TESTPASSED_SPECIAL, EVENT_TESTFAILED_SPECIAL},
    {WEEKLY, EVENT_TESTPASSED_WEEKLY, EVENT_TESTFAILED_WEEKLY},
    {MONTHLY, EVENT_TESTPASSED_MONTHLY, EVENT_TESTFAILED_MONTHLY},
}};

// Units that cannot tell whether their battery is connected.
static constexpr std::array<std::string_view, 3> UNSURE_OF_BATTERY = {"ZR401", "ZR6020", "ZQ"};

static void selftest_begun(const STATUSPASS &pass)
{
    const std::string_view model = field_view(pass.seen.upsmodel);
    const bool unsure = std::any_of(UNSURE_OF_BATTERY.begin(), UNSURE_OF_BATTERY.end(),
                                    [model](std::string_view name) { return model.starts_with(name); });
    if (!unsure && CheckBit(pass.u_status, UPSBIT_BATTDISCONNECT))
        notify("UPS Battery Disconnect");
}

static void tell_battery_test(STATUSPASS &pass)
{
    const std::uint32_t result = shared_load(pass.ein->DATA.upsinfop->sftResBattery.Result);
    if (result == SELFTEST_PASSED)
        status_raise(pass, EVENT_TESTPASSED_BATTERY);
    else if (result == SELFTEST_FAILED)
        status_raise(pass, EVENT_TESTFAILED_BATTERY);
}

static void tell_ups_test(STATUSPASS &pass)
{
    const std::uint32_t result = shared_load(pass.ein->DATA.upsinfop->sftResUPS.Result);
    const auto *events =
        std::find_if(TEST_EVENTS.begin(), TEST_EVENTS.end(),
                     [](const TESTEVENTS &candidate) { return candidate.reason == engine.testreason; });
    if (events != TEST_EVENTS.end())
        status_raise(pass, result != SELFTEST_FAILED ? events->passed : events->failed);
}

static void selftest_ended(STATUSPASS &pass)
{
    if (CheckBit(pass.u_status, UPSBIT_BATTTEST))
        tell_battery_test(pass);
    else
        tell_ups_test(pass);
    engine.ISTESTTING = 0;
    engine.testreason = NONE;
}

static void watch_selftest(STATUSPASS &pass, const BITCHANGES &changes)
{
    if (CheckBit(changes.raised, UPSBIT_TESTING))
        selftest_begun(pass);
    else if (CheckBit(changes.cleared, UPSBIT_TESTING))
        selftest_ended(pass);
}

// A unit that says it runs, or tests itself, on mains has no AC failure; what its bits say comes in its turn.
static void end_quiet_countdown(const STATUSPASS &pass)
{
    const bool onmains = pass.seen.upsstat == UPSSTAT_TESTING || pass.seen.upsstat == UPSSTAT_NORMAL;
    if (engine.ACFAIL_off == 0 || engine.ISSHUTTINGDOWN != 0 || !onmains)
        return;
    engine.ACFAIL_off = 0;
    engine.downreason = NONE;
}

// Bits that came or went with the link itself tell nothing about a test.
static void judge_selftest(STATUSPASS &pass, const BITCHANGES &changes)
{
    const bool samelink = pass.seen.CommStatus == engine.LASTCOMMSTATUS;
    if ((changes.any && samelink) || changes.unanswered)
        watch_selftest(pass, changes);
    else
        end_quiet_countdown(pass);
}

// ---- bits of the unit

// A fault is told once until its bit clears, however often the bit is met.
static void judge_fault(const STATUSPASS &pass, BITCHANGES &changes)
{
    changes.raised &= ~UPSBIT_FAULT;
    if (!CheckBit(pass.u_status, UPSBIT_FAULT)) {
        engine.iFirstgetHWfail = 0;
    } else if (engine.iFirstgetHWfail == 0) {
        status_announce();
        changes.raised |= UPSBIT_FAULT;
        engine.iFirstgetHWfail = 1;
    }
}

static void judge_bits(const STATUSPASS &pass, BITCHANGES &changes)
{
    if (changes.any)
        status_announce();
    if (changes.unanswered)
        changes.raised |= pass.u_status & UPSBIT_ACFAIL;
    judge_fault(pass, changes);
}

// Once the machine has begun to go down for the failure, mains does not hold it up: its deadline stays.
static void ac_restored(STATUSPASS &pass)
{
    if (engine.ISSHUTTINGDOWN == 0 && engine.downreason == AC_FAIL) {
        engine.BATTLOW_off = 0;
        engine.ACFAIL_off = 0;
        engine.downreason = NONE;
    }
    if (engine.ISSHUTTINGDOWN == 0 || engine.downreason != AC_FAIL)
        engine.ACFAIL_off = 0;
    status_stopstopwatch();
    engine.ACFAIL_duration = 0;
    notify("UPS AC Restore");
    eventaction(EVENT_ACRESTORE, pass.ein, pass.eout);  // its failure does not fail the pass
}

typedef struct _BITEVENT {
    std::uint32_t bit;
    int event;
} BITEVENT;

// In the order in which they are told.
static constexpr std::array<BITEVENT, 3> BIT_EVENTS = {{
    {UPSBIT_FAULT, EVENT_FAULT},
    {UPSBIT_OVERLOAD, EVENT_OVERLOAD},
    {UPSBIT_BYPASS, EVENT_BYPASS},
}};

static void act_on_bits(STATUSPASS &pass, const BITCHANGES &changes)
{
    if (CheckBit(changes.raised, UPSBIT_ACFAIL))
        status_startcountdown(pass);
    for (const BITEVENT &row : BIT_EVENTS)
        if (CheckBit(changes.raised, row.bit))
            status_raise(pass, row.event);
    if (CheckBit(changes.cleared, UPSBIT_ACFAIL))
        ac_restored(pass);
}

// ---- bits of the battery

static void battery_low(STATUSPASS &pass)
{
    notify("UPS Battery Low");
    status_raise(pass, EVENT_BATTLOW);
    pass.now = timenow();
    engine.downreason = BATT_LOW;
    engine.BATTLOW_off = pass.now;
    engine.next_off = pass.now;
}

static void battery_weak(STATUSPASS &pass)
{
    status_raise(pass, EVENT_BATTWEAK);
    NOTICE notice = notice_compose("Ups battery is weak.Please change the battery as soon as possible.\n");
    const NOTICE more = notice_compose("If you don't change the battery UPS can't action when UPS AC Fail.");
    notice.localised += more.localised;
    notice.english += more.english;
    notify(notice);
}

static void battery_disconnected(STATUSPASS &pass)
{
    status_raise(pass, EVENT_BATTDISCONNECT);
    notify("UPS Battery Disconnect");
}

static void act_on_battery(STATUSPASS &pass, const BITCHANGES &changes)
{
    if (CheckBit(changes.raised, UPSBIT_BATTLOW))
        battery_low(pass);
    if (CheckBit(changes.raised, UPSBIT_BATTWEAK))
        battery_weak(pass);
    if (CheckBit(changes.raised, UPSBIT_BATTDISCONNECT))
        battery_disconnected(pass);
}

// ---- the chapter

void status_bits(STATUSPASS &pass)
{
    BITCHANGES changes = compare_bits(pass);
    judge_selftest(pass, changes);
    judge_bits(pass, changes);
    if (!status_linkdown(pass))
        act_on_bits(pass, changes);
    if (pass.seen.upsstat == UPSSTAT_TESTING)
        engine.ISTESTTING = 1;
    act_on_battery(pass, changes);
    engine.bBattConnect = !CheckBit(pass.u_status, UPSBIT_BATTDISCONNECT);
}

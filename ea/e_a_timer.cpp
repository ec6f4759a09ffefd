// The shutdown timer: which of the competing deadlines is in force, and what is due now. Runs at the end of
// every call into the engine. What is said on the way is in e_a_timer_warn.cpp, the last step in
// e_a_down.cpp.
#include "e_a_internal.h"

#include "agent_utils.h"
#include "e_a_timer.h"
#include "shared_word.h"
#include "wp_field.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

static constexpr std::time_t NEAR = 600;  // s before a scheduled shutdown from which warnings come more often
static constexpr std::int32_t SPACING_FAR = 300;
static constexpr std::int32_t SPACING_NEAR = 60;
static constexpr std::int32_t GRACE_LOW = 0;
static constexpr std::int32_t GRACE_NORMAL = 60;
static constexpr std::int32_t GRACE_HIGH = 120;

// After an agent event that cleared the roles the grace stays what it was.
static void set_grace()
{
    if (engine.ISSERVERAGLOW != 0)
        engine.GRACE_PERIOD = GRACE_LOW;
    else if (engine.ISSERVERAGNORMAL != 0)
        engine.GRACE_PERIOD = GRACE_NORMAL;
    else if (engine.ISSERVERAGHIGH != 0)
        engine.GRACE_PERIOD = GRACE_HIGH;
}

static void write_datalog(const PASS &pass)
{
    const UPS_UPSINFO *info = pass.eout->DATA.upsinfop;
    if (engine.DATALOGENABLED == 0 || !is_linkup(*info) || info->upsmodel[0] != 'Z')
        return;
    if (std::abs(pass.now - engine.lastdatalog) < static_cast<std::time_t>(engine.DLOGINTERVAL))
        return;
    const std::uint32_t limit = pass.eout->DATA.upsconfigp->logparam.MaxDataRec;
    datalog(shared_copy(*info).upsdata, static_cast<int>(std::min<std::uint32_t>(limit, INT_MAX)));
    engine.lastdatalog = pass.now;
}

static void set_warned(std::int32_t warned)
{
    engine.HASBGNSPE = warned;
    engine.HASBGNWEE = warned;
    engine.HASBGNMON = warned;
}

// A schedule that comes back into force behind an AC failure has been announced before.
static bool resumes_after_acfail()
{
    if (!is_scheduled(engine.downreason))
        return false;
    if (engine.lastdownreason == AC_FAIL)
        return is_scheduled(engine.lastlastdownreason);
    return engine.downreason == engine.lastdownreason && engine.lastlastdownreason == AC_FAIL;
}

static void note_reason()
{
    if (engine.SCH_off == 0 || engine.downreason != engine.lastdownreason)
        set_warned(0);
    if (engine.SCH_off != 0 && resumes_after_acfail())
        set_warned(1);
    if (engine.downreason == engine.lastdownreason && engine.lastdownreason != NONE)
        return;
    if (engine.lastdownreason != NONE)
        engine.lastlastdownreason = engine.lastdownreason;
    engine.lastdowncount = 0;
    engine.lastdownreason = engine.downreason;
}

// By the stopwatch: setting the wall clock neither shortens nor lengthens the time on battery.
static void refresh_acfail(const PASS &pass)
{
    if (engine.ACFAIL_off != 0 && engine.just_fail != 0)
        engine.ACFAIL_off = pass.now + span(engine.EXPBLIFE) - acfail_elapsed();
}

static void reload(const PASS &pass)
{
    pass.eout->DATA.schlist = getschlist();
}

// The schedule of a shutdown that a lost link broke off is read again once the link is back.
static void resume_after_lost(const PASS &pass)
{
    if (engine.SCH_off != 0 || engine.SHUTTINGDOWNINLOST == 0 || !is_linkup(*pass.eout->DATA.upsinfop))
        return;
    reload(pass);
    if (engine.SCH_off <= pass.now - SCHEDULE_STALE)
        engine.SCH_off = 0;
    engine.SHUTTINGDOWNINLOST = 0;
}

static void drop_stale(const PASS &pass)
{
    if (engine.SCH_off == 0 || engine.SCH_off >= pass.now - SCHEDULE_STALE)
        return;
    engine.SCH_off = 0;
    reload(pass);
}

// These keep the deadline that they were given.
static bool is_settled(REASON reason)
{
    return reason == BATT_LOW || reason == OTHERAGEDOWN || reason == EVENT_TRIGGER;
}

// What was due at once when the clock was set back still is: such a reason lets no other deadline in, and a
// battery that is low does not wait.
static void keep_due(const PASS &pass)
{
    for (std::time_t *deadline : {&engine.BATTLOW_off, &engine.EVENTTRIGGER_off, &engine.OTHERAG_off})
        *deadline = std::min(*deadline, pass.now);
    if (is_settled(engine.downreason))
        engine.next_off = std::min(engine.next_off, pass.now);
}

// Two moments at which the next times have to be worked out anew: the wall clock was set back, so that what
// had passed lies ahead again, and the minute of an entry that is done with is over, so that it finds its
// next.
static void renew_schedules(const PASS &pass)
{
    const bool setback = pass.now < engine.lastturn - SCHEDULE_STALE;
    const bool over = engine.renewal != 0 && pass.now >= engine.renewal;
    engine.lastturn = pass.now;
    if (!setback && !over)
        return;
    engine.renewal = 0;
    if (setback) {
        engine.lastdownstart = 0;
        engine.lastteststart = 0;
        keep_due(pass);
    }
    reload(pass);
}

// On equal times the user's deadline counts first, then that of the AC failure.
static std::time_t earlier(std::time_t user, std::time_t acfail)
{
    if (user == 0 || acfail == 0)
        return user + acfail;
    return std::min(user, acfail);
}

// On equal times the schedule's reason is recorded although the other deadline is used.
static REASON reason_of(std::time_t deadline)
{
    if (deadline == 0)
        return NONE;
    if (deadline == engine.SCH_off)
        return engine.schdownreason;
    if (deadline == engine.ACFAIL_off)
        return AC_FAIL;
    return deadline == engine.USR_off ? USER_SPECIFY : engine.downreason;
}

static void choose_deadline()
{
    if (is_settled(engine.downreason))
        return;
    const std::time_t urgent = earlier(engine.USR_off, engine.ACFAIL_off);
    const bool first = urgent != 0 && (engine.SCH_off == 0 || urgent <= engine.SCH_off);
    engine.next_off = first ? urgent : engine.SCH_off;
    engine.downreason = reason_of(engine.next_off);
}

static bool test_impossible(const PASS &pass)
{
    return !is_linkup(*pass.eout->DATA.upsinfop) || pass.now - engine.next_test > SCHEDULE_STALE ||
           engine.ACFAIL_off != 0 || engine.downreason == AC_FAIL || engine.bBattConnect == 0;
}

static int start_test(const PASS &pass)
{
    if (engine.next_test == 0 || engine.next_test > pass.now)
        return 0;
    int failures = 0;
    if (test_impossible(pass)) {
        engine.testreason = NONE;
    } else {
        engine.testreason = engine.schtestreason;
        if (engine.testreason != NONE)
            failures += Event_CallBack(E_CB_SELFTEST, nullptr, 0, engine.TestDuration) < 0;
    }
    engine.lastteststart = engine.next_test;
    engine.renewal = pass.now + SCHEDULE_STALE;
    engine.next_test = 0;
    return failures;
}

// Only a user's order that named this host itself is no news from another agent. For every other reason the
// event is raised with this host's own name.
static int begin_shutdown(const PASS &pass)
{
    int failures = 0;
    shared_store(pass.eout->DATA.upsinfop->ShutdownS, 1);
    if (engine.downreason != OTHERAGEDOWN) {
        if (pass.eout->DATA.upsconfigp->commparam.bIgnore == 0) {
            failures += read_hostname(engine.agentname) != 0;
            if (engine.downreason != USER_SPECIFY || engine.g_agent_name != engine.g_localname)
                eventaction(EVENT_ORDEREDBYAGENT, pass.ein, pass.eout);
        }
        failures += say_timeisup() != 0;
    }
    engine.ISSHUTTINGDOWN = 1;
    engine.gracestart = utils_monotonicms();
    return failures;
}

static int advance_shutdown(const PASS &pass)
{
    engine.downpoint = engine.next_off + engine.GRACE_PERIOD;
    return shutdown_system(pass.ein, pass.eout) != 0;
}

static int continue_shutdown(const PASS &pass)
{
    write_datalog(pass);
    if (engine.downreason == OTHERAGEDOWN && pass.eout->DATA.upsconfigp->commparam.bIgnore != 0) {
        shared_store(pass.eout->DATA.upsinfop->ShutdownS, 0);
        engine.next_off = 0;
        engine.OTHERAG_off = 0;
        engine.downreason = NONE;
        engine.ISSHUTTINGDOWN = 0;
        return 0;
    }
    return engine.next_off != 0 ? advance_shutdown(pass) : 0;
}

// No shutdown is under way: settle what is in force, warn, start what is due.
static int watch_deadlines(const PASS &pass)
{
    note_reason();
    refresh_acfail(pass);
    resume_after_lost(pass);
    drop_stale(pass);
    renew_schedules(pass);
    engine.scheinterval =
        engine.SCH_off == 0 || engine.SCH_off - pass.now > NEAR ? SPACING_FAR : SPACING_NEAR;
    choose_deadline();
    int failures = 0;
    const bool reached = warn(pass, failures);
    failures += start_test(pass);
    write_datalog(pass);
    if (!reached)
        return failures;
    failures += begin_shutdown(pass);
    return failures + advance_shutdown(pass);
}

int schedule(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    set_grace();
    const std::int32_t shown = eout->DATA.upsconfigp->commparam.bIgnore == 0 ? engine.GRACE_PERIOD : 0;
    const PASS pass{ein, eout, timenow(), shown};
    const int failures = engine.ISSHUTTINGDOWN != 0 ? continue_shutdown(pass) : watch_deadlines(pass);
    return failures != 0 ? -1 : 0;
}

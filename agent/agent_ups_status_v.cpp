// The unit state query "V": buzzer, periodic self-test, detection level, a disconnected battery, and the
// results of self-tests that ended. Called once in a status pass, and for the agent's battery date command.
#include "agent_ups_internal.h"
#include "shared_word.h"
#include "wp_strings.h"

// Characters of the reply.
static constexpr std::size_t STATE_DISCONNECTED = 0;
static constexpr std::size_t STATE_SILENCED = 1;
static constexpr std::size_t STATE_NOAUTOTEST = 2;
static constexpr std::size_t STATE_TESTHWFAIL = 5;
static constexpr std::size_t STATE_TESTWEAK = 7;

static bool is_set(std::string_view state, std::size_t at)
{
    return state[at] == '1';
}

static void store_settings(int buzzer, int autotest, int level)
{
    UPS_UPSINFO &ui = upschan.aip->ups.ui;
    shared_store(ui.BuzzerCan, buzzer);
    shared_store(ui.AutoTestCan, autotest);
    shared_store(ui.iDetectionLvl, level);
}

static void take_disconnection(std::string_view state, std::uint32_t &mask)
{
    if (is_set(state, STATE_DISCONNECTED)) {
        mask |= UPSBIT_BATTDISCONNECT;
        shared_store(upschan.aip->ups.ui.BattStatus, BATT_DISCONNECTED);
    } else {
        mask &= ~UPSBIT_BATTDISCONNECT;
    }
    upschan.gb_CommandV_BattDisconect = is_set(state, STATE_DISCONNECTED) ? 1 : 0;
}

// A test ended since the previous unit state.
static void record_battresult(bool failed)
{
    UPS_UPSINFO &ui = upschan.aip->ups.ui;
    if (upschan.lasttest == 0 || upschan.beTesting == 1)
        return;
    if (failed) {
        if (upschan.gb_Funtest_HWFail == 0)
            ups_savetestrslt(&ui.sftResBattery, SELFTEST_FAILED);
    } else if (upschan.beBattTest == 1 && shared_load(ui.CommStatus) != COMM_LOST) {
        ups_savetestrslt(&ui.sftResBattery, SELFTEST_PASSED);
    }
}

static void finish_upstest(bool failed, std::uint32_t &mask)
{
    if (failed && upschan.gb_upstest_ok == 1) {
        // The UPS itself is fine, so the engine is to look at the battery's result.
        mask |= UPSBIT_BATTTEST;
        mask &= ~UPSBIT_TESTING;
        return;
    }
    ups_savetestrslt(&upschan.aip->ups.ui.sftResUPS,
                     upschan.gb_upstest_ok == 1 ? SELFTEST_PASSED : SELFTEST_FAILED);
    mask &= ~(UPSBIT_BATTTEST | UPSBIT_TESTING);
}

static void forget_kind()
{
    upschan.beBattTest = 0;
    upschan.beUpsTest = 0;
}

// Results have been stored when the mask announces the end of the test.
static void finish_test(bool failed, std::uint32_t &mask)
{
    if (upschan.beBattTest == 1) {
        mask |= UPSBIT_BATTTEST;
        mask &= ~UPSBIT_TESTING;
    }
    if (upschan.beUpsTest == 1)
        finish_upstest(failed, mask);
    forget_kind();
}

// Units without the query: the older family has fixed settings, from any other it is a failure.
static int state_unqueried()
{
    if (!ups_isoldmodel()) {
        forget_kind();
        return -1;
    }
    store_settings(0, 1, 0);
    std::uint32_t mask = ups_getmask();
    finish_test(false, mask);
    ups_setmask(mask);
    return 0;
}

static void take_state(std::string_view state)
{
    const bool zq = ups_ismodel("ZQ");
    const bool failed = is_set(state, STATE_TESTHWFAIL) || is_set(state, STATE_TESTWEAK);
    std::uint32_t mask = ups_getmask();
    store_settings(is_set(state, STATE_SILENCED) ? 0 : 1, is_set(state, STATE_NOAUTOTEST) ? 0 : 1,
                   zq ? 1 : state_detectionlevel(state));
    if (!zq)
        take_disconnection(state, mask);
    record_battresult(failed);
    upschan.gb_Battest_HWFail = is_set(state, STATE_TESTHWFAIL) ? 1 : 0;
    upschan.gb_Battest_Weak = is_set(state, STATE_TESTWEAK) ? 1 : 0;
    finish_test(failed, mask);
    upschan.lasttest = upschan.beTesting;
    ups_setmask(mask);
}

int ups_getcomplstatus(AGENT *record)
{
    if (upschan.cf.V == 0 && upschan.cmd.V == 0)
        return state_unqueried();
    UPSREPLY reply{};
    if (ups_query(record, "V\r", STATE_MAX, reply) <= 0) {
        if (reply.count != UPSREPLY_NOTSENT)
            ups_reopen(record);
        return -1;
    }
    if (!state_wellformed(ups_replytext(reply)))
        return -1;
    take_state(ups_replytext(reply));
    return 0;
}

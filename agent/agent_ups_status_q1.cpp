// The status line of the unit, "Q1": the probe, and the status codes, event bits and measurements that come
// from it, with the tracking of self-tests from start to end. Codes and mask are worked out apart and each
// final value is stored once, because the agent process may look between any two stores: results first, then
// the codes, then the mask that announces them.
#include "agent_ups_internal.h"
#include "shared_word.h"
#include "wp_strings.h"

#include <algorithm>
#include <cstdint>
#include <limits>

static constexpr std::string_view Q1_COMMAND = "Q1\r";
static constexpr int OVERLOAD = 101;               // percent
static constexpr std::time_t UPSTEST_MAX = 15;     // s; a longer test is a battery test
static constexpr std::time_t UPSTEST_MAX_ZM = 20;  // s

// ---- the query

static bool query_q1(AGENT *record, UPSREPLY &reply)
{
    return ups_query(record, Q1_COMMAND, Q1_MAX, reply) == Q1_MAX && q1_wellformed(ups_replytext(reply));
}

int ups_q1(AGENT *record, int tries)
{
    UPSREPLY reply{};
    for (int i = 0; i < tries; ++i)
        if (query_q1(record, reply))
            return 0;
    return -1;
}

static bool query_q1_reopening(AGENT *record, UPSREPLY &reply)
{
    if (query_q1(record, reply))
        return true;
    // A port that does not come back fails the second attempt.
    ups_reopen(record);
    return query_q1(record, reply);
}

static void set_bits(std::uint32_t &mask, std::uint32_t bits, bool on)
{
    mask = on ? mask | bits : mask & ~bits;
}

// ---- self-tests

static void test_begins(const Q1REPLY &q1, std::uint32_t &mask)
{
    set_bits(mask, UPSBIT_TESTING, true);
    if (upschan.bSendTestCmd == 1)
        upschan.testcommanded = 1;
    upschan.bSendTestCmd = 0;
    if (!q1_bit(q1, Q1_TESTING) || upschan.beTesting == 1)
        return;
    upschan.start_test_t = std::time(nullptr);
    upschan.beTesting = 1;
    upschan.beRealtest = 1;
    upschan.beBattTest = 0;
    upschan.beUpsTest = 0;
    ups_setstartitimer(&upschan.tvalue, &upschan.tovalue);
}

static bool was_batttest(bool faulty)
{
    const std::time_t duration = std::time(nullptr) - upschan.start_test_t;
    if (faulty || ups_isoldmodel())
        return false;
    return duration > (ups_ismodel("ZM") ? UPSTEST_MAX_ZM : UPSTEST_MAX);
}

// The kind is decided here; the result is recorded by the unit state query, and until that has succeeded the
// kind is kept.
static void test_ends(const Q1REPLY &q1, std::uint32_t &mask)
{
    const bool faulty = q1_bit(q1, Q1_FAULT) || q1_bit(q1, Q1_BATTWEAK);
    upschan.beTesting = 0;
    upschan.beRealtest = 0;
    upschan.testcommanded = 0;
    upschan.beBattTest = was_batttest(faulty) ? 1 : 0;
    upschan.beUpsTest = 1 - upschan.beBattTest;
    if (upschan.beBattTest == 1)
        set_bits(mask, UPSBIT_BATTTEST, true);
    else
        upschan.gb_upstest_ok = faulty ? 0 : 1;
}

static void test_nevershown(std::uint32_t &mask)
{
    set_bits(mask, UPSBIT_BATTTEST | UPSBIT_TESTING, false);
    ups_savetestrslt(&upschan.aip->ups.ui.sftResUPS, SELFTEST_FAILED);
    upschan.testcommanded = 0;
}

static void no_test(const Q1REPLY &q1, std::uint32_t &mask)
{
    if (upschan.beTesting == 1)
        test_ends(q1, mask);
    else if (upschan.testcommanded == 1 && upschan.beRealtest == 0)
        test_nevershown(mask);
    else
        upschan.beRealtest = 0;
}

static void track_test(const Q1REPLY &q1, std::uint32_t &mask)
{
    if (q1_bit(q1, Q1_TESTING) || upschan.bSendTestCmd == 1)
        test_begins(q1, mask);
    else if (q1_bitclear(q1, Q1_TESTING))
        no_test(q1, mask);
    else
        set_bits(mask, UPSBIT_TESTING, false);
}

// ---- codes and bits

// The first that applies, except that an overload tops them all.
static std::int8_t upsstat_code(const Q1REPLY &q1, bool standby)
{
    if (q1.load >= OVERLOAD)
        return UPSSTAT_OVERLOAD;
    if (q1_bit(q1, Q1_FAULT) || upschan.gb_Battest_HWFail == 1)
        return UPSSTAT_FAULT;
    if (q1_bit(q1, Q1_ACFAIL))
        return UPSSTAT_ACFAIL;
    if (!q1_bit(q1, Q1_BYPASS) || standby)
        return q1_bit(q1, Q1_TESTING) ? UPSSTAT_TESTING : UPSSTAT_NORMAL;
    return UPSSTAT_BYPASS;
}

static void mark_states(const Q1REPLY &q1, bool standby, std::uint32_t &mask)
{
    upschan.gb_Funtest_HWFail = q1_bit(q1, Q1_FAULT) ? 1 : 0;
    set_bits(mask, UPSBIT_STANDBY, standby);
    set_bits(mask, UPSBIT_FAULT, q1_bit(q1, Q1_FAULT) || upschan.gb_Battest_HWFail == 1);
    set_bits(mask, UPSBIT_ACFAIL, q1_bit(q1, Q1_ACFAIL));
    set_bits(mask, UPSBIT_BYPASS, q1_bit(q1, Q1_BYPASS) && !standby);
    set_bits(mask, UPSBIT_SHUTDOWN, q1_bit(q1, Q1_SHUTDOWN));
    set_bits(mask, UPSBIT_OVERLOAD, q1.load >= OVERLOAD);
}

static bool battery_isweak(const Q1REPLY &q1)
{
    return q1_bit(q1, Q1_BATTWEAK) || upschan.gb_Battest_Weak == 1;
}

// Series "ZQ" does not report a disconnected battery.
static std::int8_t battery_zq(const Q1REPLY &q1, std::uint32_t &mask)
{
    if (battery_isweak(q1)) {
        set_bits(mask, UPSBIT_BATTWEAK, true);
        return BATT_WEAK;
    }
    return q1_bit(q1, Q1_TESTING) ? BATT_TESTING : BATT_NORMAL;
}

// On the other series a disconnected battery stays what it is, but "ZR" shows normal outside a test.
static std::int8_t battery_others(const Q1REPLY &q1, std::int8_t present, std::uint32_t &mask)
{
    const bool disconnected = CheckBit(mask, UPSBIT_BATTDISCONNECT);
    if (battery_isweak(q1)) {
        if (upschan.beBattTest == 1)
            ups_savetestrslt(&upschan.aip->ups.ui.sftResBattery, SELFTEST_FAILED);
        if (disconnected)
            return present;
        set_bits(mask, UPSBIT_BATTWEAK, true);
        return BATT_WEAK;
    }
    if (!q1_bit(q1, Q1_TESTING))
        return ups_ismodel("ZR") || !disconnected ? BATT_NORMAL : present;
    if (disconnected)
        return present;
    return ups_isoldmodel() ? BATT_NORMAL : BATT_TESTING;
}

static std::int8_t battery_code(const Q1REPLY &q1, std::int8_t present, std::uint32_t &mask)
{
    std::int8_t code = BATT_LOW_CAPACITY;
    if (q1_bit(q1, Q1_BATTLOW))
        set_bits(mask, UPSBIT_BATTLOW, true);
    else
        code = ups_ismodel("ZQ") ? battery_zq(q1, mask) : battery_others(q1, present, mask);
    if (q1_bitclear(q1, Q1_BATTLOW))
        set_bits(mask, UPSBIT_BATTLOW, false);
    if (q1_bitclear(q1, Q1_BATTWEAK) && upschan.gb_Battest_Weak == 0)
        set_bits(mask, UPSBIT_BATTWEAK, false);
    return code;
}

// ---- measurements and the whole

static void store_measurements(const Q1REPLY &q1)
{
    UPSDATA &d = upschan.aip->ups.ui.upsdata;
    shared_store(d.InPutINT, q1.input.whole);
    shared_store(d.InPutREM, q1.input.tenth);
    shared_store(d.OutPutINT, q1.output.whole);
    shared_store(d.OutPutREM, q1.output.tenth);
    shared_store(d.Load,
                 static_cast<std::uint8_t>(std::min<int>(q1.load, std::numeric_limits<std::uint8_t>::max())));
    shared_store(d.FreqInputINT, static_cast<std::int8_t>(q1.freq.whole));
    shared_store(d.FreqInputREM, q1.freq.tenth);
    shared_store(d.TempINT, static_cast<std::int8_t>(q1.temp.whole));
    shared_store(d.TempREM, q1.temp.tenth);
    shared_store(d.BattVolINT, static_cast<std::int8_t>(q1.battery.whole));
    shared_store(d.BattVolREM, q1.battery.tenth);
}

// The results of an earlier line or of another unit say nothing about this one.
static void forget_results()
{
    UPS_UPSINFO &ui = upschan.aip->ups.ui;
    if (shared_load(ui.CommStatus) != COMM_LOST && upschan.model_changed == 0)
        return;
    ups_savetestrslt(&ui.sftResBattery, SELFTEST_NONE);
    ups_savetestrslt(&ui.sftResUPS, SELFTEST_NONE);
}

int ups_getupsinfo(AGENT *record)
{
    UPSREPLY reply{};
    if (!query_q1_reopening(record, reply))
        return -1;
    const Q1REPLY q1 = q1_parse(ups_replytext(reply));
    const bool standby = q1_bit(q1, Q1_STANDBY);
    UPS_UPSINFO &ui = upschan.aip->ups.ui;
    std::uint32_t mask = ups_getmask();
    track_test(q1, mask);
    mark_states(q1, standby, mask);
    const std::int8_t battery = battery_code(q1, shared_load(ui.BattStatus), mask);
    forget_results();
    store_measurements(q1);
    shared_store(upschan.aip->ups.isstandby, standby ? 1 : 0);
    shared_store(ui.BattStatus, battery);
    shared_store(ui.upsstat, upsstat_code(q1, standby));
    ups_setmask(mask);
    return 0;
}

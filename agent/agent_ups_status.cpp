// The status pass, the recording of self-test results, and what happens when the unit is lost or none is
// configured. Called by the loop and by the agent's status command; the queries themselves are in the files
// agent_ups_status_q1, _v and _query.
#include "agent_ups_internal.h"
#include "shared_word.h"
#include "wp_field.h"

#include <ctime>

static constexpr int CHECK_TRIES = 2;

// ---- the pass

using UPSQUERY = int (*)(AGENT *);

static int counted(int outcome)
{
    if (outcome < 0)
        return -1;
    ++upschan.estab;
    return 0;
}

static int probe_function(AGENT *record)
{
    return ups_getupsfunction(record, upschan.modelknown);
}

static int read_model(AGENT *record)
{
    return ups_getupsmodel(record, 0);
}

static int with_retry(AGENT *record, UPSQUERY query)
{
    if (counted(query(record)) == 0)
        return 0;
    ups_flushport();
    return counted(query(record));
}

// The queries behind Q1, the probe and the model, with the failures of the pass that are one too many after
// each.
typedef struct _PASSSTEP {
    UPSQUERY query;
    int limit;  // 0: not judged here
} PASSSTEP;

static constexpr std::array<PASSSTEP, 6> pass_steps{{
    {ups_getbatteryvoltage, 0},
    {ups_getoutputfreq, 0},
    {ups_getbattcapacity, 3},
    {ups_getcomplstatus, 3},
    {ups_getbattchgtime, 3},
    {ups_getrebootstatus, 3},
}};

int ups_getupsstatus(AGENT *record)
{
    if (with_retry(record, ups_getupsinfo) < 0)
        return -1;
    int errors = counted(probe_function(record)) < 0 ? 1 : 0;
    upschan.modelknown = with_retry(record, read_model) == 0 ? 1 : 0;
    if (upschan.modelknown == 0)
        ++errors;
    if (errors > 1)
        return -1;
    for (const PASSSTEP &step : pass_steps) {
        if (counted(step.query(record)) < 0)
            ++errors;
        if (step.limit > 0 && errors >= step.limit)
            return -1;
    }
    return 0;
}

void ups_savetestrslt(SELFTESTRESULT *slot, std::uint32_t result)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    UPS_TIMEINFO t{};
    t.year = static_cast<std::uint8_t>(local.tm_year);
    t.month = static_cast<std::int8_t>(local.tm_mon + 1);
    t.day = static_cast<std::int8_t>(local.tm_mday);
    t.hour = static_cast<std::int8_t>(local.tm_hour);
    t.minute = static_cast<std::int8_t>(local.tm_min);
    t.second = static_cast<std::int8_t>(local.tm_sec);
    shared_assign(slot->timeinfo, t);
    shared_store(slot->Result, result);
}

// ---- loss

// What both ends of a line have in common, in this process and in the record. What is not named here keeps
// its value: the last fault characters, `lasttest` and `cmd_BvB8` outlive the line.
static void forget_unit()
{
    UPS_UPSINFO &ui = upschan.aip->ups.ui;
    ups_closeport();
    upschan.cf = {};
    upschan.cmd = {};
    upschan.cf_support = 0;
    upschan.upsRebootStatusGetV = 0;
    upschan.beUpsTest = 0;
    upschan.beBattTest = 0;
    upschan.bAutoRebootByV2 = 0;
    upschan.upsstatus = 0;
    upschan.maskheld = 0;
    upschan.bSendTestCmd = 0;
    upschan.model_changed = 0;
    upschan.buzzerStep = 0;
    upschan.estab = 0;
    upschan.ups_model_s.fill('\0');
    upschan.modelknown = 0;  // the next pass has no previous one
    shared_store(ui.BattStatus, BATT_UNKNOWN);
    shared_store(ui.BuzzerCan, 0);
    shared_store(ui.AutoTestCan, 0);
    shared_assign(ui.upsdata, {});
    ups_setmodel("");
}

void ups_lostcomm(AGENT * /*record*/)
{
    constexpr std::uint32_t gone = UPSBIT_TESTING | UPSBIT_BATTTEST | UPSBIT_BATTDISCONNECT;
    UPS_UPSINFO &ui = upschan.aip->ups.ui;
    if (field_view(upschan.ups_model_s).starts_with("ZQ"))
        ups_configbattchgtime();
    // The agent waits for a reply word until it sees ComId negative. It judges the mask by CommStatus: a test
    // bit that vanished on an established line would count as a test that ended, so the two change together.
    upschan.comid = COMID_NONE;
    shared_store(ui.ComId, COMID_NONE);
    shared_store(ui.CommStatus, COMM_LOST);
    shared_store(*upschan.u_status, shared_load(*upschan.u_status) & ~gone);
    upschan.beTesting = 0;
    forget_unit();
}

void ups_comnone(AGENT * /*record*/)
{
    UPS_UPSINFO &ui = upschan.aip->ups.ui;
    upschan.comid = COMID_NOUPS;
    shared_store(ui.ComId, COMID_NOUPS);
    shared_store(ui.CommStatus, COMM_NOUPS);
    forget_unit();
    shared_store(ui.upsstat, UPSSTAT_NORMAL);
    shared_store(ui.bAutoReboot, 0);
    shared_store(ui.iDetectionLvl, 0);
    shared_store(ui.ufStatus, 0);
    shared_store(ui.wReserve, 0);
    shared_store(ui.bACPI, 0);
}

int verify_commlost(AGENT *record)
{
    if (ups_comset() == COMSET_NOUPS)
        return -1;
    if (ups_q1(record, CHECK_TRIES) == 0)
        return 0;
    ups_lostcomm(record);
    return 1;
}

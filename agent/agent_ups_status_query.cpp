// The small queries of the status pass: battery voltage, output frequency, battery capacity, restart state
// and battery date. Each is sent only to a unit that answers it; for the others a fixed value, the
// configuration or a failure stands in.
#include "agent_ups_internal.h"
#include "filehandle_battdate.h"
#include "shared_word.h"
#include "wp_strings.h"

// Sends a query. 0 with a reply that is not empty; -1, and the port reopened when the command went out and
// nothing came (`reopenempty`: also when only a wake-up notice came).
static int ask(AGENT *record, std::string_view command, int max, bool reopenempty, UPSREPLY &reply)
{
    if (ups_query(record, command, max, reply) > 0)
        return 0;
    if (reply.count == UPSREPLY_NONE || (reply.count == 0 && reopenempty))
        ups_reopen(record);
    return -1;
}

int ups_getbatteryvoltage(AGENT *record)
{
    UPSREPLY reply{};
    TENTHS volt{};
    if (upschan.cmd_BvB8 == 0)
        return 0;
    if (ask(record, "(BvB8)\r", BATTVOLT_MAX, true, reply) < 0 || !battvolt_parse(ups_replytext(reply), volt))
        return -1;
    UPSDATA &d = upschan.aip->ups.ui.upsdata;
    shared_store(d.BattVolINT, static_cast<std::int8_t>(volt.whole));
    shared_store(d.BattVolREM, volt.tenth);
    return 0;
}

static int query_freq(AGENT *record, std::string_view command, int max,
                      bool (*parse)(std::string_view, TENTHS &))
{
    UPSREPLY reply{};
    TENTHS freq{};
    if (ask(record, command, max, false, reply) < 0 || !parse(ups_replytext(reply), freq))
        return -1;
    UPSDATA &d = upschan.aip->ups.ui.upsdata;
    shared_store(d.FreqOutputINT, static_cast<std::int8_t>(freq.whole));
    shared_store(d.FreqOutputREM, freq.tenth);
    return 0;
}

int ups_getoutputfreq(AGENT *record)
{
    if (upschan.cf.Lfx == 1 || upschan.cmd.Lfx == 1)
        return query_freq(record, "Lf ?\r", FREQ_MAX, freq_parse);
    if (ups_isoldmodel())
        return query_freq(record, "(Lf ?11)\r", OLDFREQ_MAX, freq_parsebracket);
    return -1;
}

int ups_getbattcapacity(AGENT *record)
{
    UPSREPLY reply{};
    std::int8_t percent = 0;
    if (upschan.cf.Blx == 1 || upschan.cmd.Blx == 1) {
        if (ask(record, "Bl ?\r", BATTCAP_MAX, false, reply) < 0 ||
            !battcap_parse(ups_replytext(reply), percent))
            return -1;
    } else if (!ups_isoldmodel()) {
        return -1;
    }
    shared_store(upschan.aip->ups.ui.upsdata.BattCap, percent);
    return 0;
}

// ---- restart state

static void set_autoreboot(int on)
{
    shared_store(upschan.aip->ups.ui.bAutoReboot, on);
    shared_store(upschan.aip->ups.up.workparam.AutoReboot, on);
}

static void set_answersv2(bool answers)
{
    std::int32_t &udinfo = upschan.aip->udinfo;
    upschan.bAutoRebootByV2 = answers ? 1 : 0;
    shared_store(udinfo, answers ? shared_load(udinfo) | UDINFO_V2 : shared_load(udinfo) & ~UDINFO_V2);
}

int ups_getrebootstatus(AGENT *record)
{
    UPSREPLY reply{};
    if (!CheckBit(shared_load(upschan.aip->ups.ui.ufStatus), UPSFUNCTION_V2)) {
        set_answersv2(false);
        return 0;
    }
    if (ask(record, "V2\r", STATE_MAX, true, reply) < 0 || !state_wellformed(ups_replytext(reply)))
        return -1;
    set_autoreboot(reply.buf[0] == '1' ? 0 : 1);
    set_answersv2(true);
    return 0;
}

// ---- battery date

void ups_setbattdate(const UPS_TIMEINFO &date)
{
    shared_assign(upschan.aip->ups.ui.PreChangeBatt, date);
}

void ups_configbattchgtime()
{
    UPS_TIMEINFO date{};
    // A missing key leaves no date.
    battdate_read(date);
    ups_setbattdate(date);
}

// The unit knows the day only; the time of day keeps what it had.
static int query_battdate(AGENT *record)
{
    UPSREPLY reply{};
    UPS_TIMEINFO date = upschan.aip->ups.ui.PreChangeBatt;
    if (ask(record, "BRR\r", BATTDATE_MAX, true, reply) < 0) {
        if (reply.count == UPSREPLY_NOTSENT && ups_ismodel("ZM300LT"))
            ups_setbattdate({});
        return -1;
    }
    if (!battdate_parse(ups_replytext(reply), date))
        return -1;
    ups_setbattdate(date);
    return 0;
}

int ups_getbattchgtime(AGENT *record)
{
    if (CheckBit(shared_load(upschan.aip->ups.ui.ufStatus), UPSFUNCTION_BRR))
        return query_battdate(record);
    if (ups_ismodel("ZQ")) {
        ups_configbattchgtime();
        return 0;
    }
    if (ups_isoldmodel()) {
        ups_setbattdate({});
        return 0;
    }
    return ups_ismodel("ZR") ? -1 : 0;
}

int ups_getbattchgtimeforcmd(AGENT *record)
{
    if (ups_getcomplstatus(record) < 0)
        return -1;
    return ups_getbattchgtime(record);
}

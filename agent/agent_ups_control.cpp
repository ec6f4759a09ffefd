// What the agent process asks of the UPS process: one command word, one row of a table. Called by the command
// channel in agent_ups, between two status passes, and once a turn by the loop while a buzzer test is under
// way. Each order has left the port before anything flushes it again; none is repeated.
#include "agent_main_message.h"
#include "agent_ups_internal.h"
#include "agent_wire.h"
#include "shared_word.h"
#include "wp_strings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>

static constexpr int ORDER_MAX = 4;     // largest reply to an order, bytes
static constexpr int SHORT_DELAY = 60;  // s; below it the unit is told tenths of a minute

// ---- orders and their replies

static int take_reply(AGENT *record, std::array<char, ORDER_MAX + 1> &reply)
{
    return ups_readdatafromups(record, reply.data(), ORDER_MAX);
}

// 0 when the unit agrees, else -1. The older family never answers an order.
static int agreement(AGENT *record)
{
    if (ups_isoldmodel())
        return 0;
    std::array<char, ORDER_MAX + 1> reply{};
    if (take_reply(record, reply) <= 0)
        return -1;
    return std::string_view(reply.data()).starts_with("OK") ? 0 : -1;
}

static int send_order(std::string_view order)
{
    return ups_order(order) == static_cast<int>(order.size()) ? 0 : -1;
}

// ---- orders that are nothing but a text

typedef struct _SIMPLEORDER {
    std::uint32_t code;
    std::string_view text;
} SIMPLEORDER;

static constexpr std::array<SIMPLEORDER, 14> simple_orders{{
    {UPSCMD_SELFTEST_LONG, "TL\r"},
    {UPSCMD_SELFTEST_CANCEL, "CT\r"},
    {UPSCMD_CANCELDOWN, "C\r"},
    {UPSCMD_AC, "AC\r"},
    {UPSCMD_AR, "AR\r"},
    {UPSCMD_BUZZER_ON, "Bn\r"},
    {UPSCMD_BUZZER_OFF, "Bf\r"},
    {UPSCMD_BUZZER_TEST, "Bt\r"},
    {UPSCMD_AUTORESTART_OFF, "Af\r"},
    {UPSCMD_AUTORESTART_ON, "An\r"},
    {UPSCMD_LEVEL_A, "VA\r"},
    {UPSCMD_LEVEL_B, "VB\r"},
    {UPSCMD_LEVEL_H, "VH\r"},
    {UPSCMD_LEVEL_L, "VL\r"},
}};

template <typename ROWS> static auto find_code(const ROWS &rows, std::uint32_t word)
{
    return std::find_if(rows.begin(), rows.end(),
                        [word](const auto &row) { return row.code == (word & UPSCMD_MASK); });
}

int ups_docommand(AGENT *record, std::uint32_t word)
{
    const auto order = find_code(simple_orders, word);
    if (order == simple_orders.end())
        return -1;
    if (order->code == UPSCMD_SELFTEST_CANCEL)
        ups_savetestrslt(&upschan.aip->ups.ui.sftResUPS, SELFTEST_FAILED);
    if (send_order(order->text) < 0)
        return -1;
    return agreement(record);
}

int ups_cancelshutdown()
{
    if (send_order("C\r") == 0)
        return 0;
    const int reason = errno;
    const char *text = GETTEXTj("ups_shutdwonups: write");
    errno = reason;
    std::perror(text);
    return -1;
}

// ---- arguments

// Takes the argument of `size` bytes that the agent process left in the shared block. False when one of
// another size lies there.
template <std::size_t SIZE> static bool take_argument(std::array<std::uint8_t, SIZE> &bytes)
{
    const AUMSG message = shared_copy(upschan.aip->ba2u);
    if (message.msglen != static_cast<std::int32_t>(SIZE))
        return false;
    std::transform(message.buf.begin(), message.buf.begin() + SIZE, bytes.begin(),
                   [](char c) { return static_cast<std::uint8_t>(c); });
    return true;
}

// ---- self-tests

int ups_selftest(AGENT *record)
{
    std::array<std::uint8_t, sizeof(std::int32_t)> seconds{};  // the unit decides how long its test takes
    if (!take_argument(seconds))
        return -1;
    if (shared_load(upschan.aip->ups.ui.upsstat) == UPSSTAT_TESTING)
        return 0;
    if (send_order("T\r") < 0) {
        std::perror("ups_selftest: write");
        return -1;
    }
    if (ups_isoldmodel())
        return 0;
    std::array<char, ORDER_MAX + 1> reply{};
    return take_reply(record, reply) < 0 || reply_isnak(reply.data()) ? -1 : 0;
}

// What the unit answers makes no difference here: whether it tests is seen in its status.
int ups_selftest1(AGENT *record, std::uint32_t word)
{
    upschan.bSendTestCmd = 1;
    if (ups_isoldmodel())
        return ups_selftest(record);
    ups_docommand(record, UPSCMD_AR);
    if ((word & UPSCMD_MASK) == UPSCMD_SELFTEST_LONG)
        ups_docommand(record, UPSCMD_SELFTEST_LONG);
    else
        ups_selftest(record);
    if (shared_load(upschan.aip->ups.ui.AutoTestCan) == 0)
        ups_docommand(record, UPSCMD_AC);
    return 0;
}

// ---- the buzzer test

static bool has_function(UPSFUNCTION function)
{
    return CheckBit(shared_load(upschan.aip->ups.ui.ufStatus), function);
}

static int start_buzzertest(AGENT *record, std::uint32_t word)
{
    if (shared_load(upschan.aip->ups.ui.BuzzerCan) == 1)
        return ups_docommand(record, word);
    upschan.buzzerStep = 1;
    return 0;
}

// A silenced buzzer is enabled, tested and silenced again, on one turn of the loop each.
typedef struct _BUZZERSTEP {
    std::uint32_t code;
    int next;
} BUZZERSTEP;

static constexpr std::array<BUZZERSTEP, 3> buzzer_steps{{
    {UPSCMD_BUZZER_ON, 2},
    {UPSCMD_BUZZER_TEST, 3},
    {UPSCMD_BUZZER_OFF, 0},
}};

int doBuzzer(AGENT *record)
{
    const int number = upschan.buzzerStep;
    if (number < 1 || number > static_cast<int>(buzzer_steps.size()))
        return -1;
    BUZZERSTEP step{UPSCMD_BUZZER_TEST, 0};
    if (has_function(UPSFUNCTION_BUZZER))
        step = buzzer_steps[static_cast<std::size_t>(number - 1)];
    upschan.buzzerStep = step.next;
    return ups_docommand(record, step.code);
}

// ---- switching the unit off

// Exactly `bytes` of the text go out. A delay of 6000 s or more makes the text longer than that, and it goes
// out without its end, as it stands.
static int send_cut(const char *text, std::size_t bytes)
{
    if (send_order(std::string_view(text).substr(0, bytes)) == 0)
        return 0;
    std::perror("ups_shutdwonups: write");
    return -1;
}

// Tenths of a minute or whole minutes.
static void write_delay(std::array<char, 16> &field, int downdelay)
{
    if (downdelay < SHORT_DELAY)
        std::snprintf(field.data(), field.size(), ".%1d", downdelay % 60 / 6);
    else
        std::snprintf(field.data(), field.size(), "%02d", downdelay / 60);
}

static int send_off(const char *delay)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "S%s\r", delay);
    return send_cut(text.data(), 4);
}

static int send_offforgood(const char *delay)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "Sf%s\r", delay);
    return send_cut(text.data(), 5);
}

static int send_offandon(const char *delay, int downlast)
{
    const bool old = ups_isoldmodel();
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "S%sR%0*d\r", delay, old ? 4 : 5, downlast / 60);
    return send_cut(text.data(), old ? 9 : 10);
}

// Whether the unit may start again by itself is said before the order, where it can be said. What the unit
// answers makes no difference to the order.
static int allow_restart(AGENT *record, bool allowed)
{
    if (!has_function(UPSFUNCTION_AUTORESTART))
        return 0;
    if (send_cut(allowed ? "An\r" : "Af\r", 3) < 0)
        return -1;
    std::array<char, ORDER_MAX + 1> reply{};
    take_reply(record, reply);
    return 0;
}

int ups_shutdownups(AGENT *record)
{
    std::array<std::uint8_t, sizeof(UPSDOWNARG)> bytes{};
    if (!take_argument(bytes))
        return -1;
    const auto downdelay = static_cast<std::int32_t>(wire_get32(bytes, offsetof(UPSDOWNARG, downdelay)));
    const auto downlast = static_cast<std::int32_t>(wire_get32(bytes, offsetof(UPSDOWNARG, downlast)));
    std::array<char, 16> delay{};
    write_delay(delay, downdelay);
    // The unit that knows this order does not answer it.
    if (downlast == 0 && (upschan.cf.Sfn == 1 || upschan.cmd.Sfn == 1))
        return send_offforgood(delay.data());
    if (downlast >= 0 && allow_restart(record, downlast > 0) < 0)
        return -1;
    if ((downlast > 0 ? send_offandon(delay.data(), downlast) : send_off(delay.data())) < 0)
        return -1;
    return agreement(record);
}

// ---- the battery date

int ups_setbattchgtime(AGENT *record)
{
    std::array<std::uint8_t, sizeof(BATTCHGTIME)> bytes{};
    if (!take_argument(bytes) || ups_isoldmodel())
        return -1;
    constexpr std::size_t at = offsetof(BATTCHGTIME, BattTime);
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "BRW%04d%02d%02d\r",
                  bytes[at + offsetof(UPS_TIMEINFO, year)] + 1900,
                  static_cast<std::int8_t>(bytes[at + offsetof(UPS_TIMEINFO, month)]),
                  static_cast<std::int8_t>(bytes[at + offsetof(UPS_TIMEINFO, day)]));
    if (send_order(std::string_view(text.data()).substr(0, 12)) < 0)
        return -1;
    return agreement(record);
}

// ---- the command words

static int run_battdate(AGENT *record, std::uint32_t /*word*/)
{
    return ups_getbattchgtimeforcmd(record);
}

static int run_shutdown(AGENT *record, std::uint32_t /*word*/)
{
    return ups_shutdownups(record);
}

static int run_setbattdate(AGENT *record, std::uint32_t /*word*/)
{
    return ups_setbattchgtime(record);
}

static int run_status(AGENT *record, std::uint32_t /*word*/)
{
    return ups_getupsstatus(record);
}

typedef struct _UPSCOMMANDROW {
    std::uint32_t code;  // high half of the command word
    bool answered;       // a reply word is written
    int (*run)(AGENT *, std::uint32_t word);
} UPSCOMMANDROW;

static constexpr std::array<UPSCOMMANDROW, 19> commands{{
    {UPSCMD_GETBATTIME, true, run_battdate},
    {UPSCMD_SELFTEST_LONG, false, ups_selftest1},
    {UPSCMD_SELFTEST, false, ups_selftest1},
    {UPSCMD_SELFTEST_CANCEL, false, ups_docommand},
    {UPSCMD_SHUTDOWN, true, run_shutdown},
    {UPSCMD_CANCELDOWN, false, ups_docommand},
    {UPSCMD_AC, false, ups_docommand},
    {UPSCMD_AR, false, ups_docommand},
    {UPSCMD_BUZZER_ON, false, ups_docommand},
    {UPSCMD_BUZZER_OFF, false, ups_docommand},
    {UPSCMD_SETBATTIME, false, run_setbattdate},
    {UPSCMD_BUZZER_TEST, false, start_buzzertest},
    {UPSCMD_AUTORESTART_OFF, false, ups_docommand},
    {UPSCMD_AUTORESTART_ON, false, ups_docommand},
    {UPSCMD_LEVEL_A, false, ups_docommand},
    {UPSCMD_LEVEL_B, false, ups_docommand},
    {UPSCMD_LEVEL_H, false, ups_docommand},
    {UPSCMD_LEVEL_L, false, ups_docommand},
    {UPSCMD_STATUS, true, run_status},
}};

int ups_control(AGENT *record, std::uint32_t word)
{
    const auto row = find_code(commands, word);
    if (row == commands.end())
        return -1;
    if (!row->answered)
        response_nowait();
    return row->run(record, word);
}

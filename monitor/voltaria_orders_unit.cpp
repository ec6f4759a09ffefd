// `voltaria selftest`, `voltaria buzzer` and `voltaria battery-date`: what the agent passes on to its unit.
#include "voltaria_orders.h"

#include "monitor_records.h"
#include "monitor_schedule_text.h"
#include "monitor_text.h"
#include "monitor_words.h"
#include "voltaria_change.h"

static constexpr std::uint32_t TEST_LENGTH = 10;  // as scheduled tests carry it

static std::string model_of(const UPS_UPSINFO &status)
{
    return text_safe(status.upsmodel, TEXT_CODE::ShiftJis);
}

// The agents of these units take neither buzzer nor battery date.
static bool bare_model(const UPS_UPSINFO &status)
{
    const std::string model = model_of(status);
    return model.starts_with("ZR401") || model.starts_with("ZR6020");
}

static int no_unit(const UPS_UPSINFO &status)
{
    return fail("the agent and its UPS are not in touch (" +
                words_or_code(words_comm(status.CommStatus), status.CommStatus) + ")");
}

// Asks for the status first; the work begins only when the unit is there.
static int with_unit(const CONNECTION &connection,
                     const std::function<int(MONITOR_SESSION &, const UPS_UPSINFO &)> &work)
{
    return with_session(connection, [&](MONITOR_SESSION &session) {
        UPS_UPSINFO status{};
        const MONITOR_RESULT result = monitor_status(session, status);
        if (!monitor_ok(result))
            return fail(result);
        return status_silent(status) ? no_unit(status) : work(session, status);
    });
}

// Sends an order and watches the status for it.
static int send_and_see(MONITOR_SESSION &session, std::uint8_t data_id, const WIRE_BYTES &data,
                        const std::function<bool(const UPS_UPSINFO &)> &shows, const std::string &done,
                        const std::string &unseen)
{
    UPS_UPSINFO status{};
    bool seen = false;
    MONITOR_RESULT result = monitor_order(session, data_id, data);
    if (monitor_ok(result))
        result = wait_for_status(session, shows, status, seen);
    if (!monitor_ok(result))
        return fail(result);
    return seen ? print(done) : fail(unseen);
}

// ---- selftest ----

static bool testing(const UPS_UPSINFO &status)
{
    return status.upsstat == UPSSTAT_TESTING || status.BattStatus == BATT_TESTING;
}

static int cancel_test(MONITOR_SESSION &session, const UPS_UPSINFO &status)
{
    // The agent notes a cancelled test as failed, also when none was running.
    if (!testing(status))
        return fail("no self-test is running");
    return send_and_see(
        session, DATAID_SELFTEST_CANCEL, {}, [](const UPS_UPSINFO &now) { return !testing(now); },
        "The self-test is cancelled.\n", "sent, but the agent's status still shows the self-test");
}

static int start_test(MONITOR_SESSION &session, const UPS_UPSINFO &status, const SELFTEST_LINE &line)
{
    if (testing(status))
        return fail("a self-test is running already");
    if (line.until_low && status.upsstat == UPSSTAT_ACFAIL)
        return fail("the UPS is on battery: its battery cannot be tested now");
    if (line.until_low && !agreed(line.yes, "Let the UPS of " + agent_name(line.connection, session) +
                                                " run its battery down until it is low?"))
        return EXIT_REFUSED;
    const std::uint8_t data_id = line.until_low ? DATAID_SELFTEST_LONG : DATAID_SELFTEST;
    return send_and_see(session, data_id, line.until_low ? WIRE_BYTES() : monitor_encode(TEST_LENGTH),
                        testing, "A self-test is running; voltaria status shows its result.\n",
                        "sent, but the agent's status shows no self-test");
}

int order_selftest(const SELFTEST_LINE &line)
{
    return with_unit(line.connection, [&](MONITOR_SESSION &session, const UPS_UPSINFO &status) {
        return line.cancel ? cancel_test(session, status) : start_test(session, status, line);
    });
}

// ---- buzzer ----

static int test_buzzer(MONITOR_SESSION &session)
{
    MONITOR_RESULT result = monitor_order(session, DATAID_BUZZER_TEST);
    if (monitor_ok(result))
        result = after_sending(monitor_settle(session));
    return monitor_ok(result) ? print("Sent; the agent does not confirm this order.\n") : fail(result);
}

int order_buzzer(const BUZZER_LINE &line)
{
    return with_unit(line.connection, [&](MONITOR_SESSION &session, const UPS_UPSINFO &status) {
        if (bare_model(status))
            return fail("a " + model_of(status) + " has no buzzer to switch: the agent takes no such order");
        if (line.what == "test")
            return test_buzzer(session);
        const std::int32_t wanted = line.what == "on" ? 1 : 0;
        return send_and_see(
            session, wanted != 0 ? DATAID_BUZZER_ON : DATAID_BUZZER_OFF, {},
            [wanted](const UPS_UPSINFO &now) { return now.BuzzerCan == wanted; },
            "The buzzer is " + line.what + ".\n",
            "sent, but the agent's status still shows the buzzer " + std::string(wanted != 0 ? "off" : "on"));
    });
}

// ---- battery-date ----

static int no_date(const UPS_UPSINFO &status)
{
    return fail("of a " + model_of(status) + " the agent keeps no battery date");
}

int battery_date_get(const BATTERY_LINE &line)
{
    return with_unit(line.connection, [&](MONITOR_SESSION &session, const UPS_UPSINFO &status) {
        if (bare_model(status))
            return no_date(status);
        BATTCHGTIME date{};
        const MONITOR_RESULT result = monitor_battery_date(session, date);
        if (result.error == MONITOR_ERROR::AnswerTimeout)
            return fail("the agent did not answer in time: this " + model_of(status) +
                        " may have no battery date to tell");
        return monitor_ok(result) ? print(date_words(date.BattTime) + "\n") : fail(result);
    });
}

static bool same_date(const UPS_TIMEINFO &left, const UPS_TIMEINFO &right)
{
    return left.year == right.year && left.month == right.month && left.day == right.day;
}

static bool later(const UPS_TIMEINFO &left, const UPS_TIMEINFO &right)
{
    const auto days = [](const UPS_TIMEINFO &t) { return (t.year * 12 + t.month) * 31 + t.day; };
    return days(left) > days(right);
}

static int set_date(MONITOR_SESSION &session, const UPS_UPSINFO &status, const UPS_TIMEINFO &date)
{
    if (bare_model(status))
        return no_date(status);
    if (time_valid(status.timeinfo) && later(date, status.timeinfo))
        return fail("that day is yet to come: it is " + date_words(status.timeinfo) + " at the agent",
                    EXIT_USAGE);
    BATTCHGTIME changed{};
    changed.BattTime = date;
    return send_and_see(
        session, DATAID_SETBATTIME, monitor_encode(changed),
        [&date](const UPS_UPSINFO &now) { return same_date(now.PreChangeBatt, date); },
        "The battery was changed on " + date_words(date) + ".\n",
        "sent, but the agent's status shows another date");
}

int battery_date_set(const BATTERY_LINE &line)
{
    UPS_TIMEINFO date{};
    if (!parse_calendar_date(line.date, date))
        return fail("a date such as 2024-02-29 is wanted, from 1900-01-01 to 2155-12-31, not \"" + line.date +
                        "\"",
                    EXIT_USAGE);
    return with_unit(line.connection, [&](MONITOR_SESSION &session, const UPS_UPSINFO &status) {
        return set_date(session, status, date);
    });
}

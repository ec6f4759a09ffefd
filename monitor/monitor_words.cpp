// The tables behind the words, and the small formats. Which number means what is fixed by the protocol; a
// number outside the tables may come from a newer agent and is passed on as a number.
#include "monitor_words.h"

#include <array>
#include <cstdio>
#include <span>

struct CODE_ROW {
    std::int32_t code;
    CODE_WORDS words;
};

static constexpr auto UPS_STATES = std::to_array<CODE_ROW>({
    {UPSSTAT_NORMAL, {"on mains", TONE::Good}},
    {UPSSTAT_TESTING, {"self-test running", TONE::Warning}},
    {UPSSTAT_SHUTDOWN, {"shutting down", TONE::Alarm}},
    {UPSSTAT_BYPASS, {"on bypass", TONE::Warning}},
    {UPSSTAT_FAULT, {"UPS fault", TONE::Alarm}},
    {UPSSTAT_OVERLOAD, {"overload", TONE::Alarm}},
    {UPSSTAT_ACFAIL, {"mains failure, on battery", TONE::Alarm}},
});

static constexpr auto BATTERY_STATES = std::to_array<CODE_ROW>({
    {BATT_UNKNOWN, {"unknown", TONE::Plain}},
    {BATT_NORMAL, {"normal", TONE::Good}},
    {BATT_TESTING, {"under test", TONE::Warning}},
    {BATT_WEAK, {"weak, replace it", TONE::Warning}},
    {BATT_DISCONNECTED, {"disconnected", TONE::Alarm}},
    {BATT_LOW_CAPACITY, {"low", TONE::Alarm}},
});

static constexpr auto COMM_STATES = std::to_array<CODE_ROW>({
    {COMM_ESTABLISHED, {"established", TONE::Good}},
    {COMM_NOUPS, {"no UPS configured", TONE::Plain}},
    {COMM_LOST, {"lost", TONE::Alarm}},
});

static constexpr auto SELFTEST_RESULTS = std::to_array<CODE_ROW>({
    {SELFTEST_FAILED, {"failed", TONE::Alarm}},
    {SELFTEST_PASSED, {"passed", TONE::Good}},
    {SELFTEST_NONE, {"no result", TONE::Plain}},
});

static constexpr auto AGENT_TYPES = std::to_array<CODE_ROW>({
    {0, {"not set up", TONE::Plain}},
    {AGENTTYPE_PROTECTOR, {"protector", TONE::Plain}},
    {AGENTTYPE_LOW, {"server, low priority", TONE::Plain}},
    {AGENTTYPE_NORMAL, {"server, normal priority", TONE::Plain}},
    {AGENTTYPE_HIGH, {"server, high priority", TONE::Plain}},
});

// The system's own event texts. In 21 and 79 it goes on " on "
// and the name that stands in the event's record.
static constexpr auto EVENT_TEXTS = std::to_array<CODE_ROW>({
    {0, {"UPS AC Restore", TONE::Good}},
    {1, {"UPS Communication established", TONE::Good}},
    {2, {"SelfTest by User succeeded", TONE::Plain}},
    {3, {"Special Day Selftest succeeded", TONE::Plain}},
    {4, {"Weekly SelfTest succeeded", TONE::Plain}},
    {5, {"Monthly Selftest succeeded", TONE::Plain}},
    {6, {"UPS Battery Selftest succeeded", TONE::Plain}},
    {7, {"UPS Agent Start up", TONE::Plain}},
    {8, {"UPS Agent stop", TONE::Plain}},
    {9, {"UPS Working SetParameters is changed", TONE::Plain}},
    {10, {"UPS Schedule Setparameters is changed", TONE::Plain}},
    {11, {"UPS Smart Event Setparameters is changed", TONE::Plain}},
    {12, {"Disable UPS Automatic Selftest Timer", TONE::Plain}},
    {13, {"Enable UPS Automatic Selftest Timer", TONE::Plain}},
    {14, {"Disable the Buzzer", TONE::Plain}},
    {15, {"Enable the Buzzer", TONE::Plain}},
    {16, {"The Battery is Changed", TONE::Plain}},
    {17, {"Set up to output voltage 100V standard sensitivity", TONE::Plain}},
    {18, {"Set up to output voltage 100V low sensitivity", TONE::Plain}},
    {19, {"Set up to output voltage 115V standard sensitivity", TONE::Plain}},
    {20, {"Set up to output voltage 115V low sensitivity", TONE::Plain}},
    {21, {"The Shutdown is Canceled by Users", TONE::Plain}},
    {22, {"System is shutdown", TONE::Alarm}},
    {48, {"Protector start", TONE::Plain}},
    {49, {"Protector stop", TONE::Plain}},
    {50, {"Protector not find Agent", TONE::Warning}},
    {51, {"Protector find Agent", TONE::Plain}},
    {52, {"Protector's parameters is set", TONE::Plain}},
    {53, {"Protector shutdown to Agent", TONE::Alarm}},
    {64, {"UPS communication Lost", TONE::Warning}},
    {65, {"UPS Ac fail", TONE::Warning}},
    {66, {"UPS Battery Disconnect", TONE::Warning}},
    {67, {"UPS is Bypass", TONE::Warning}},
    {68, {"UPS Battery is weak", TONE::Warning}},
    {69, {"UPS SelfTest by User Failed", TONE::Warning}},
    {70, {"UPS Special Day SelfTest Failed", TONE::Warning}},
    {71, {"UPS Weekly SelfTest Failed", TONE::Warning}},
    {72, {"UPS Monthly SelfTest Failed", TONE::Warning}},
    {73, {"Battery SelfTest Failed", TONE::Warning}},
    {74, {"System begin specially turn off UPS warning", TONE::Warning}},
    {75, {"System begin weekly turn off UPS Warning", TONE::Warning}},
    {76, {"System begin monthly turn off UPS Warning", TONE::Warning}},
    {77, {"UPS abnormal", TONE::Warning}},
    {78, {"UPS overload", TONE::Warning}},
    {79, {"Receive shutdown Command From Users", TONE::Warning}},
    {80, {"Network Shutdown Triggered by Other Agent", TONE::Warning}},
    {128, {"UPS Battery Low", TONE::Alarm}},
    {129, {"UPS AC Fail Delay Run out", TONE::Alarm}},
    {130, {"specified date to turn off UPS is arrived at", TONE::Alarm}},
    {131, {"weekly time to turn off UPS is arrived at", TONE::Alarm}},
    {132, {"monthly time to turn off UPS is arrived at", TONE::Alarm}},
    {133, {"Shutdown Time Initiated by Users is arrived at", TONE::Alarm}},
    {134, {"Shut Down Time Initiated by other Agent is arrived at", TONE::Alarm}},
    {255, {"No event", TONE::Plain}},
});
static_assert(EVENT_TEXTS.size() == 54);

struct CAPABILITY_ROW {
    UPSFUNCTION bit;
    std::string_view name;  // empty: only its number is fixed
};

static constexpr auto CAPABILITIES = std::to_array<CAPABILITY_ROW>({
    {0x0001, ""},
    {0x0002, ""},
    {UPSFUNCTION_SFN, "shutdown without restart"},
    {UPSFUNCTION_V2, "restart status query"},
    {0x0010, ""},
    {0x0020, ""},
    {0x0040, ""},
    {UPSFUNCTION_AUTORESTART, "automatic restart on/off"},
    {0x0100, ""},
    {UPSFUNCTION_BRR, "battery replacement date"},
    {0x0400, ""},
    {0x0800, ""},
    {UPSFUNCTION_BUZZER, "buzzer on/off"},
    {0x2000, ""},
    {0x4000, "capability query"},
    {0x8000, ""},
});
static_assert(CAPABILITIES.size() == 16);

// ---- Codes ----

static CODE_WORDS look_up(std::span<const CODE_ROW> table, std::int64_t code)
{
    for (const CODE_ROW &row : table)
        if (row.code == code)
            return row.words;
    return {"", TONE::Warning};
}

CODE_WORDS words_upsstat(std::int32_t code)
{
    return look_up(UPS_STATES, code);
}

CODE_WORDS words_battery(std::int32_t code)
{
    return look_up(BATTERY_STATES, code);
}

CODE_WORDS words_comm(std::int32_t code)
{
    return look_up(COMM_STATES, code);
}

CODE_WORDS words_selftest(std::int64_t code)
{
    return look_up(SELFTEST_RESULTS, code);
}

CODE_WORDS words_agenttype(std::int64_t code)
{
    return look_up(AGENT_TYPES, code);
}

CODE_WORDS words_event(std::int32_t id)
{
    return look_up(EVENT_TEXTS, id);
}

std::string words_or_code(const CODE_WORDS &words, std::int64_t code)
{
    return words.words.empty() ? "code " + std::to_string(code) : std::string(words.words);
}

std::string words_onoff(std::int32_t value)
{
    if (value == 0)
        return "off";
    return value == 1 ? "on" : "code " + std::to_string(value);
}

template <typename... VALUES> static std::string format(const char *pattern, VALUES... values)
{
    std::array<char, 128> buffer{};
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): every pattern is a literal of this file
    std::snprintf(buffer.data(), buffer.size(), pattern, values...);
    return buffer.data();
}

std::vector<std::string> words_capabilities(UPSFUNCTION mask)
{
    std::vector<std::string> names;
    for (const CAPABILITY_ROW &row : CAPABILITIES)
        if ((mask & row.bit) != 0)
            names.push_back(row.name.empty() ? format("0x%04X", static_cast<unsigned>(row.bit))
                                             : std::string(row.name));
    return names;
}

std::string words_device(std::int8_t wire_comid)
{
    if (wire_comid < 1 || wire_comid > 4)
        return "";
    return "/dev/ttyS" + std::to_string(wire_comid - 1);
}

bool status_silent(const UPS_UPSINFO &status)
{
    return status.CommStatus == COMM_LOST || status.CommStatus == COMM_NOUPS;
}

// ---- Dates ----

static bool within(int value, int low, int high)
{
    return value >= low && value <= high;
}

bool time_absent(const UPS_TIMEINFO &time)
{
    return time.year == 0 && time.month == 0 && time.day == 0 && time.hour == 0 && time.minute == 0 &&
           time.second == 0;
}

static bool date_valid(const UPS_TIMEINFO &time)
{
    return within(time.month, 1, 12) && within(time.day, 1, 31);
}

bool time_valid(const UPS_TIMEINFO &time)
{
    return date_valid(time) && within(time.hour, 0, 23) && within(time.minute, 0, 59) &&
           within(time.second, 0, 59);
}

std::string date_words(const UPS_TIMEINFO &time)
{
    if (time_absent(time))
        return "none";
    if (!date_valid(time))
        return format("invalid (%d %d %d)", time.year, time.month, time.day);
    return format("%04d-%02d-%02d", 1900 + time.year, time.month, time.day);
}

std::string time_words(const UPS_TIMEINFO &time)
{
    if (time_absent(time))
        return "none";
    if (!time_valid(time))
        return format("invalid (%d %d %d %d %d %d)", time.year, time.month, time.day, time.hour, time.minute,
                      time.second);
    return date_words(time) + format(" %02d:%02d:%02d", time.hour, time.minute, time.second);
}

static constexpr std::uint8_t NO_EVENT = 255;

bool event_present(const UPS_EVENTLOGINFO &event)
{
    const bool untouched = event.EventId == 0 && time_absent(event.timeinfo);
    return event.EventId != NO_EVENT && !untouched;
}

std::uint8_t event_cause(const UPS_EVENTLOGINFO &event)
{
    return static_cast<std::uint8_t>(event.byDownToEvt);
}

bool event_has_cause(const UPS_EVENTLOGINFO &event)
{
    return event_cause(event) != NO_EVENT;
}

// ---- Measurements ----

std::string tenths_words(int whole, int tenths)
{
    if (!within(tenths, 0, 9))
        return format("%d (tenths %d)", whole, tenths);
    return format("%d.%d", whole, tenths);
}

bool temperature_absent(const UPSDATA &data)
{
    return data.TempINT == -1 && data.TempREM == -1;
}

// The stage of the race.
#include "race_stage.h"

#include "shared_word.h"
#include "vt_stage.h"

#include "tests/system/mixed_requests.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace race
{

using namespace std::chrono_literals;

static constexpr std::uint32_t SETTINGS = 4;  // that are changed between
static constexpr int BATCH = 20;
static constexpr char HOST[] = "voltaria-test";
static constexpr std::array<std::array<std::uint32_t, 3>, 3> BATTERY_DATES = {
    {{101, 2, 3}, {106, 7, 9}, {112, 11, 28}}};
static constexpr std::int32_t PORT_OUT_OF_RANGE = 7;

// ---- what the unit says

struct Saying {
    int input;
    int output;
    const char *q1;
    const char *state;
    const char *freq;
    const char *capacity;
    const char *restart;
    const char *identity;
};

// The last is the failing one.
static constexpr std::array<Saying, 3> SAYINGS = {{
    {258, 270, "(258.1 258.0 270.2 021 50.3 24.4 31.5 00000000", "00000000", "49.1", "087", "00000000",
     "ZR900PL V2.1"},
    {772, 527, "(772.6 258.0 527.7 064 61.8 27.9 42.0 00000000", "01111000", "58.6", "099", "10000000",
     "ZR950PL V2.4"},
    {515, 785, "(515.4 258.0 785.5 093 54.6 21.2 26.8 10000000", "00000000", "49.1", "087", "00000000",
     "ZR900PL V2.1"},
}};
static constexpr unsigned FAILING = 2;
static constexpr std::array MODELS = {"ZR900PL", "ZR950PL"};

void Stage::say(unsigned state)
{
    const Saying &saying = SAYINGS.at(state);
    const auto reply = [this](const std::string &command, const std::string &text) {
        unit_->command("reply \"" + command + "\" \"" + text + "\\r\"");
    };
    reply("V", saying.state);
    reply("Lf ?", saying.freq);
    reply("Bl ?", saying.capacity);
    reply("V2", saying.restart);
    reply("Si ?", saying.identity);
    say_q1(state);
}

void Stage::say_q1(unsigned state)
{
    unit_->command(std::string("reply Q1 \"") + SAYINGS.at(state).q1 + "\\r\"");
}

void Stage::say_something_else()
{
    const std::lock_guard lock(saying_);
    said_ = 1 - said_;
    say(said_);
}

// Another status line in nearly every pass.
void Stage::chatter()
{
    for (unsigned next = 0; !ending_; next = 1 - next) {
        {
            const std::lock_guard lock(saying_);
            if (!hushed_)
                say_q1(next);
        }
        std::this_thread::sleep_for(200us);
    }
}

void Stage::fail_mains()
{
    const std::lock_guard lock(saying_);
    hushed_ = true;
    say(FAILING);
}

void Stage::return_mains()
{
    const std::lock_guard lock(saying_);
    say(said_);
    hushed_ = false;
}

// ---- the settings

// A word of the settings: full ones where the value means nothing to a machine that is not going down, small
// ones where it counts seconds. Bit 31 stays clear, and no byte of one is that of another.
static std::uint32_t full_word(std::uint32_t setting, std::uint32_t place)
{
    return 0x01010101U * (0x10 * (setting + 1) + place);
}

static std::uint32_t small_word(std::uint32_t setting, std::uint32_t place)
{
    return 0x0101U * (0x10 * (setting + 1) + place);
}

// More than a day, so that no countdown ends here.
static std::uint32_t battery_life(std::uint32_t setting)
{
    return 0x010203U * (2 + setting);
}

static std::string name(const char *what, std::uint32_t setting, std::size_t length)
{
    std::string text;
    while (text.size() < length)
        text += std::string(what) + static_cast<char>('0' + setting);
    text.resize(length);
    return text;
}

static std::string agent_name(std::uint32_t setting)
{
    return name("Agent", setting, 15);
}

static std::string group_name(std::uint32_t setting)
{
    return name("Group", setting, 5 + 3 * setting);
}

template <std::size_t N> static void put(std::array<char, N> &field, const std::string &text)
{
    text.copy(field.data(), N - 1);
}

static UPS_PARAM setting_record(std::uint32_t k)
{
    UPS_PARAM param{};
    UPS_WORKPARAM &work = param.workparam;
    work.BattLife = battery_life(k);
    work.ComSet = k % 2 == 0 ? COMSET_AUTO : 1;
    work.TurnOffDelay = full_word(k, 1);
    work.AutoReboot = static_cast<std::int32_t>(k % 2);
    work.FirstWarningTime = small_word(k, 2);
    work.CountDownTime = small_word(k, 3);
    work.WarningBeforeSchel = small_word(k, 4);
    work.nCloseAppTime = full_word(k, 5);
    UPS_LOGPARAM &log = param.logparam;  // neither log is kept: ten thousand lines are another test's matter
    log.MaxEventRec = full_word(k, 6);
    log.MaxDataRec = full_word(k, 7);
    log.DataLogInterval = full_word(k, 8);
    UPS_COMMPARAM &comm = param.commparam;
    comm.AgentType = AGENTTYPE_LOW + k % 3;
    comm.ClientTime = full_word(k, 9);
    comm.LowServerTime = full_word(k, 10);
    comm.NormalTime = full_word(k, 11);
    comm.bIgnore = static_cast<std::int32_t>(full_word(k, 12));
    put(comm.Agent, agent_name(k));
    put(comm.lpszAccount, name("Account", k, 250));
    put(comm.lpszDomain, name("Domain", k, 200));
    put(comm.Group, group_name(k));
    return param;
}

static std::string settings_packet(const UPS_PARAM &param)
{
    return bed::packet(DATAID_CONFIG, {reinterpret_cast<const char *>(&param), sizeof param});
}

// The same as the daemon keeps it: from the beginning nothing else is in force.
static std::string settings_file(const UPS_PARAM &param)
{
    const auto number = [](auto value) { return std::to_string(value); };
    const UPS_WORKPARAM &work = param.workparam;
    return bed::settings_text({{"ShutDown", "EXPECTBLIFE", number(work.BattLife)},
                               {"ShutDown", "TurnOffDelay", number(work.TurnOffDelay)},
                               {"ShutDown", "FIRSTWARN", number(work.FirstWarningTime)},
                               {"ShutDown", "WARNBEFORESCHE", number(work.WarningBeforeSchel)},
                               {"ShutDown", "INTERVAL", number(work.CountDownTime)},
                               {"ShutDown", "CloseAppTime", number(work.nCloseAppTime)},
                               {"EventLog", "EventLogEnabled", "0"},
                               {"EventLog", "EventLogMaxSize", number(param.logparam.MaxEventRec)},
                               {"DataLog", "DataLogEnabled", "0"},
                               {"DataLog", "DataLogInterval", number(param.logparam.DataLogInterval)},
                               {"DataLog", "DataLogMaxSize", number(param.logparam.MaxDataRec)},
                               {"UPS", "IgnoreOtherAgentDown", number(param.commparam.bIgnore)},
                               {"UPS", "Group", param.commparam.Group.data()},
                               {"UPS", "AutoBoot", "0"},
                               {"UPS", "ComSet", "0"},
                               {"UPS", "AgentType", number(param.commparam.AgentType)}});
}

static std::string battery_date_packet(std::size_t number)
{
    const auto &day = BATTERY_DATES.at(number % BATTERY_DATES.size());
    BATTCHGTIME date{};
    date.BattTime.year = static_cast<std::uint8_t>(day[0]);
    date.BattTime.month = static_cast<std::int8_t>(day[1]);
    date.BattTime.day = static_cast<std::int8_t>(day[2]);
    return bed::packet(DATAID_SETBATTIME, {reinterpret_cast<const char *>(&date), sizeof date});
}

std::string Stage::change(long number) const
{
    if (number % 23 == 7)
        return battery_date_packet(static_cast<std::size_t>(number));
    if (number % 23 == 15)
        return bed::packet(number % 2 == 0 ? DATAID_BUZZER_ON : DATAID_BUZZER_OFF);
    UPS_PARAM param = setting_record(static_cast<std::uint32_t>(number) % SETTINGS);
    // A change of the port has it searched again; mostly it is the one before.
    param.workparam.ComSet = number / 100 % 2 == 0 ? COMSET_AUTO : 1;
    if (number % 211 == 5)
        param.workparam.ComSet = PORT_OUT_OF_RANGE;
    return settings_packet(param);
}

// ---- what is legal

static std::uint32_t byte(int value)
{
    return static_cast<std::uint32_t>(value);
}

static std::size_t of_info(std::size_t offset)
{
    return offsetof(AGINFO, ups.ui) + offset;
}

static std::size_t of_param(std::size_t offset)
{
    return offsetof(AGINFO, ups.up) + offset;
}

// The tenths and the smaller quantities as the texts above have them; all are nothing while there is no line.
static void allow_measurements(LegalBlock &block)
{
    const std::size_t at = of_info(offsetof(UPS_UPSINFO, upsdata));
    for (const Saying &saying : SAYINGS) {
        const std::string q1 = saying.q1;
        const auto number = [&q1](std::size_t from, std::size_t count) {
            return byte(std::stoi(q1.substr(from, count)));
        };
        block.field(at + offsetof(UPSDATA, InPutINT), 2, {0, byte(saying.input)});
        block.field(at + offsetof(UPSDATA, OutPutINT), 2, {0, byte(saying.output)});
        block.field(at + offsetof(UPSDATA, InPutREM), 1, {0, number(5, 1)});
        block.field(at + offsetof(UPSDATA, OutPutREM), 1, {0, number(17, 1)});
        block.field(at + offsetof(UPSDATA, FreqInputINT), 1, {0, number(23, 2)});
        block.field(at + offsetof(UPSDATA, FreqInputREM), 1, {0, number(26, 1)});
        block.field(at + offsetof(UPSDATA, FreqOutputINT), 1, {0, byte(std::stoi(saying.freq))});
        block.field(at + offsetof(UPSDATA, FreqOutputREM), 1, {0, byte(saying.freq[3] - '0')});
        block.field(at + offsetof(UPSDATA, TempINT), 1, {0, number(33, 2)});
        block.field(at + offsetof(UPSDATA, TempREM), 1, {0, number(36, 1)});
        block.field(at + offsetof(UPSDATA, BattVolINT), 1, {0, number(28, 2)});
        block.field(at + offsetof(UPSDATA, BattVolREM), 1, {0, number(31, 1)});
        block.field(at + offsetof(UPSDATA, BattCap), 1, {0, byte(std::stoi(saying.capacity))});
        block.field(at + offsetof(UPSDATA, Load), 1, {0, number(19, 3)});
    }
}

// What the unit's process writes beside the measurements. A line that vanishes in the middle of a pass leaves
// the capabilities of a model that told none.
static void allow_unit(LegalBlock &block, std::uint32_t functions)
{
    block.field(of_info(offsetof(UPS_UPSINFO, ComId)), 1, {0, byte(COMID_NONE)});
    block.field(of_info(offsetof(UPS_UPSINFO, upsstat)), 1, {UPSSTAT_NORMAL, UPSSTAT_ACFAIL});
    block.field(of_info(offsetof(UPS_UPSINFO, BattStatus)), 1, {BATT_UNKNOWN, BATT_NORMAL});
    block.field(of_info(offsetof(UPS_UPSINFO, CommStatus)), 1, {COMM_ESTABLISHED, COMM_LOST});
    block.field(of_info(offsetof(UPS_UPSINFO, BuzzerCan)), 4, {0, 1});
    block.field(of_info(offsetof(UPS_UPSINFO, AutoTestCan)), 4, {0, 1});
    block.field(of_info(offsetof(UPS_UPSINFO, bAutoReboot)), 4, {0, 1});
    block.field(of_info(offsetof(UPS_UPSINFO, iDetectionLvl)), 4, {1, 4});
    block.text(of_info(offsetof(UPS_UPSINFO, upsmodel)), 32, {"", MODELS[0], MODELS[1]});
    for (const std::size_t test : {offsetof(UPS_UPSINFO, sftResBattery), offsetof(UPS_UPSINFO, sftResUPS)}) {
        block.field(of_info(test), 4, {SELFTEST_NONE});
        block.times(of_info(test + offsetof(SELFTESTRESULT, timeinfo)));
    }
    block.field(of_info(offsetof(UPS_UPSINFO, ufStatus)), 2, {functions, 0xFA80});
    block.field(offsetof(AGINFO, ups.protocol), 4, {1});
    block.field(offsetof(AGINFO, ups.upsstat), 4, {0, UPSBIT_CF, UPSBIT_ACFAIL, UPSBIT_CF | UPSBIT_ACFAIL});
    block.field(offsetof(AGINFO, udinfo), 4, {0, UDINFO_V2});
    block.days(of_info(offsetof(UPS_UPSINFO, PreChangeBatt)), {BATTERY_DATES.begin(), BATTERY_DATES.end()});
}

static void allow_settings(LegalBlock &block)
{
    for (std::uint32_t k = 0; k < SETTINGS; ++k) {
        const UPS_PARAM param = setting_record(k);
        const std::size_t texts = offsetof(UPS_PARAM, commparam.Agent);
        for (std::size_t at = 0; at < texts; at += 4) {
            std::uint32_t word = 0;
            std::memcpy(&word, reinterpret_cast<const char *>(&param) + at, sizeof word);
            block.field(of_param(at), 4, {word});
        }
        block.field(of_info(offsetof(UPS_UPSINFO, bIgnoreDown)), 4, {byte(param.commparam.bIgnore)});
        block.field(of_info(offsetof(UPS_UPSINFO, AgentType)), 4, {param.commparam.AgentType});
        block.text(of_param(offsetof(UPS_PARAM, commparam.Agent)), 260, {HOST, agent_name(k)});
        block.text(of_param(offsetof(UPS_PARAM, commparam.lpszAccount)), 260,
                   {param.commparam.lpszAccount.data()});
        block.text(of_param(offsetof(UPS_PARAM, commparam.lpszDomain)), 260,
                   {param.commparam.lpszDomain.data()});
        block.text(of_param(offsetof(UPS_PARAM, commparam.Group)), 16, {group_name(k)});
        block.text(of_info(offsetof(UPS_UPSINFO, Group)), 16, {group_name(k)});
    }
    block.field(of_param(offsetof(UPS_PARAM, workparam.ComSet)), 4, {byte(PORT_OUT_OF_RANGE)});
}

// What the agent's process shows of the events and times, and of the commands that it sends.
static void allow_shown(LegalBlock &block)
{
    block.times(of_info(offsetof(UPS_UPSINFO, timeinfo)));
    for (std::size_t i = 0; i < 2; ++i) {
        const std::size_t event = of_info(offsetof(UPS_UPSINFO, events) + i * sizeof(UPS_EVENTLOGINFO));
        block.times(event + offsetof(UPS_EVENTLOGINFO, timeinfo));
        block.field(event + offsetof(UPS_EVENTLOGINFO, EventId), 1, {0, 1, 7, 9, 14, 15, 16, 64, 65, 255});
        block.field(event + offsetof(UPS_EVENTLOGINFO, byDownToEvt), 1, {0, 255});
        std::vector<std::string> names = {"", HOST};
        for (std::uint32_t k = 0; k < SETTINGS; ++k)
            names.push_back(agent_name(k));
        block.text(event + offsetof(UPS_EVENTLOGINFO, AgentName), 16, names);
    }
    block.field(offsetof(AGINFO, locked), 4, {0, 1});
    block.field(offsetof(AGINFO, isagentchg), 4, {0, 1});
    block.field(offsetof(AGINFO, ba2u.msglen), 4, {0, sizeof(BATTCHGTIME)});
    block.field(offsetof(AGINFO, ba2u.msgseqno), 4, {0, 1});
    block.times(offsetof(AGINFO, ba2u.buf) + offsetof(BATTCHGTIME, BattTime),
                {BATTERY_DATES.begin(), BATTERY_DATES.end()});
}

LegalBlock Stage::legal() const
{
    LegalBlock block;
    block.field(offsetof(AGINFO, agpid), 4, {static_cast<std::uint32_t>((*block_)->agpid)});
    block.field(offsetof(AGINFO, upspid), 4, {static_cast<std::uint32_t>((*block_)->upspid)});
    allow_unit(block, shared_load((*block_)->ups.ui.ufStatus));
    allow_measurements(block);
    allow_settings(block);
    allow_shown(block);
    // Of a mains failure that is told while BattLife is in force: some day.
    std::vector<std::array<std::uint32_t, 3>> days;
    for (std::uint32_t k = 0; k < SETTINGS; ++k)
        for (const std::time_t more : {0, 3600}) {
            const std::time_t down = std::time(nullptr) + static_cast<std::time_t>(battery_life(k)) + more;
            std::tm local{};
            localtime_r(&down, &local);
            days.push_back({byte(local.tm_year), byte(local.tm_mon) + 1, byte(local.tm_mday)});
        }
    block.times(of_info(offsetof(UPS_UPSINFO, nextdown)), days);
    return block;
}

Announced Stage::announced()
{
    return {UPSSTAT_ACFAIL, static_cast<std::int16_t>(SAYINGS[FAILING].input), MODELS[0]};
}

// ---- coming and going

Stage::Stage(Pace pace) : pace_(pace)
{
    const UPS_PARAM first = setting_record(0);
    testbed::write_config(settings_file(first));
    // Asked for at every event, it would take most of the time.
    std::filesystem::remove("/usr/bin/mesg");
    testbed::SimulatorOptions options;
    if (pace == Pace::Stepped) {
        clock_ = std::make_unique<testbed::VirtualClock>(testbed::ClockOptions{.start = std::time(nullptr)});
        clock_->attach(options);
        clock_->attach(daemon);
    } else {
        daemon.environment.emplace_back("LD_PRELOAD", VOLTARIA_RACE_CLOCK);
    }
    unit_ = std::make_unique<testbed::Simulator>(bed::UPSSIM, options);
    unit_->command("reply BRR \"20010203\\r\"");
    say(said_);
    daemon.start();
    block_ = std::make_unique<testbed::SharedBlock>();
    until("the link", [&] { return shared_load((*block_)->ups.ui.CommStatus) == COMM_ESTABLISHED; });
    monitor_ = std::make_unique<testbed::TcpClient>();
    monitor_->send(settings_packet(first));
    fence();
    fence();
    hushed_ = false;
    if (pace == Pace::Racing)
        chatter_ = std::thread([this] { chatter(); });
}

Stage::~Stage()
{
    ending_ = true;
    if (chatter_.joinable())
        chatter_.join();
    daemon.kill();
}

void Stage::until(const std::string &what, const std::function<bool()> &predicate)
{
    if (pace_ == Pace::Stepped)
        clock_->run_until(what, predicate, 120s);
    else
        testbed::wait_until(what, bed::PATIENCE, predicate);
}

// Every answer of the agent's is one turn later than the one before, so what it was sent is in force, and
// whatever it was to notice it has noticed.
void Stage::fence()
{
    monitor_->send(bed::packet(DATAID_GETUPSINFO));
    while (static_cast<std::uint8_t>(mixed::next_answer(*monitor_)[3]) != DATAID_ANSUPSINFO)
        ;
}

void Stage::change_settings(int count)
{
    for (int sent = 0; sent < count; sent += BATCH) {
        std::string bytes;
        for (int i = 0; i < BATCH; ++i)
            bytes += change(changes_++);
        monitor_->send(bytes);
        if (pace_ == Pace::Stepped)
            clock_->run_for(2s);
        testbed::SharedBlock::request(1);  // a tool's request, which has the lock's word set and cleared
        fence();
    }
}

// ---- what happens

bool Stage::shows_failure() const
{
    return (shared_load((*block_)->ups.upsstat) & UPSBIT_ACFAIL) != 0;
}

long Stage::passes() const
{
    std::ifstream log(unit_->options().log);
    log.seekg(static_cast<std::streamoff>(log_read_));
    const std::string text{std::istreambuf_iterator<char>(log), {}};
    const std::size_t whole = text.rfind('\n') + 1;
    for (std::size_t at = text.find(" rx Q1"); at < whole; at = text.find(" rx Q1", at + 1))
        ++passes_;
    log_read_ += whole;
    return passes_;
}

void Stage::some_passes()
{
    const long from = passes();
    until("some status passes", [&] { return passes() >= from + 3; });
}

void Stage::mains_failure(Watcher &watcher)
{
    fail_mains();
    watcher.enter(Phase::Failing);
    until("the mains failure", [&] { return shows_failure(); });
    some_passes();
    watcher.enter(Phase::Anything);
    return_mains();
    until("the return of mains", [&] { return !shows_failure(); });
}

void Stage::find_failing_unit(Watcher &watcher)
{
    const auto comm = [&] { return shared_load((*block_)->ups.ui.CommStatus); };
    watcher.enter(Phase::Finding);
    unit_->command("port unplug");
    until("the loss of the line", [&] { return comm() == COMM_LOST; });
    fail_mains();
    if (pace_ == Pace::Stepped)
        clock_->run_for(3s);
    fence();
    fence();
    unit_->command("port plug");
    until("the line with mains failed", [&] { return shows_failure(); });
    some_passes();
    watcher.enter(Phase::Anything);
    return_mains();
    until("the return of mains", [&] { return !shows_failure(); });
}

}  // namespace race

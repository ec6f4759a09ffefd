#include "tests/unit/engine_fixture.h"

#include "agent.h"
#include "e_a_error.h"
#include "wp_field.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

Recorder recorder;

static std::time_t clock_now;

static std::time_t passed;  // s that advance() let pass
static itimerval armed;     // what the interval timer was set to, and when
static std::time_t armed_at;

// The engine's own clock reads end here.
extern "C" std::time_t time(std::time_t *out) noexcept
{
    if (out != nullptr)
        *out = clock_now;
    return clock_now;
}

// Runs on by itself too, so that waiting for a real program still ends.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const long result = syscall(SYS_clock_gettime, clock, now);
    now->tv_sec += passed;
    return static_cast<int>(result);
}

extern "C" int setitimer(__itimer_which_t, const itimerval *set, itimerval *old) noexcept
{
    if (old != nullptr)
        getitimer(ITIMER_REAL, old);
    armed = *set;
    armed_at = passed;
    return 0;
}

// Read back right after it was armed, a timer shows slightly less than it was set to.
extern "C" int getitimer(__itimer_which_t, itimerval *now) noexcept
{
    *now = itimerval{};
    if (armed.it_value.tv_sec != 0)
        now->it_value = {armed.it_value.tv_sec - (passed - armed_at) - 1, 999'990};
    return 0;
}

// Gives way to the agent's own record when a test links that part too.
__attribute__((weak)) AGENT agent{};

int Event_CallBack(int code, void *data, int arg, int value)
{
    recorder.calls.emplace_back(code, arg, value);
    recorder.data.push_back(data);
    if (recorder.watch)
        recorder.watch(code);
    if (code == E_CB_MESSAGE)
        (arg == 2   ? recorder.english
         : arg == 1 ? recorder.localised
                    : recorder.plain)
            .emplace_back(static_cast<const char *>(data));
    if (code == E_CB_TIMEISUP)
        recorder.agents.emplace_back(static_cast<const char *>(data));
    if (code == E_CB_GETBATTIME)
        static_cast<BATTCHGTIME *>(data)->BattTime = recorder.battdate;
    const auto result = recorder.results.find(code);
    return result != recorder.results.end() ? result->second : 0;
}

__attribute__((weak)) void net_broadcastdown(AGENT *)
{
    recorder.calls.emplace_back(BROADCASTDOWN, 0, 0);
    if (recorder.watch)
        recorder.watch(BROADCASTDOWN);
}

void set_clock(std::time_t now)
{
    clock_now = now;
}

void advance(std::time_t seconds)
{
    clock_now += seconds;
    passed += seconds;
}

void set_time_zone(const char *zone)
{
    ASSERT_EQ(setenv("TZ", zone, 1), 0);
    tzset();
}

void set_host_name(std::string_view name)
{
    ASSERT_EQ(sethostname(name.data(), name.size()), 0);
}

void write_file(const char *path, std::string_view text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string read_file(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string error_text()
{
    return std::string(field_view(errbuffer));
}

std::time_t local_time(int year, int month, int day, int hour, int minute, int second)
{
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    date.tm_hour = hour;
    date.tm_min = minute;
    date.tm_sec = second;
    date.tm_isdst = -1;
    return std::mktime(&date);
}

void Engine::SetUp()
{
    ASSERT_EQ(access("/run/voltaria-test", F_OK), 0) << "writes the fixed files: runs in the sandbox only";
    std::filesystem::create_directories("/usr/lib/voltaria");
    std::filesystem::remove_all(CONFIG_PATH);
    std::filesystem::remove_all(LOG_PATH);
    std::filesystem::remove_all(DATALOG_PATH);
    std::filesystem::remove_all("/sbin/shutdown");  // so that a test process outlives its shutdown
    set_time_zone("UTC0");
    set_clock(1'078'477'622);  // 5 March 2004, 09:07:02
    set_host_name("voltaria-test");
    recorder = Recorder{};
    engine = ENGINE{};
    ea_error("");
    agent.aip = &block;
    armed = itimerval{};
    userinfo = {0, users.data()};
    ein.DATA.upsinfop = &ups.ui;
    ein.DATA.upsconfigp = &request;
    ein.DATA.eu = {events.data(), &userinfo};
    eout.DATA.upsinfop = &ups.ui;
    eout.DATA.upsconfigp = &ups.up;
    eout.DATA.eu = {events.data(), &userinfo};
}

void Engine::TearDown()
{
    agent.aip = nullptr;
}

int Engine::act(std::int32_t cmd)
{
    std::int32_t answer = 0;
    return Event_Action(cmd, &ein, &answer, &eout);
}

std::vector<int> Engine::logged()
{
    std::vector<int> ids;
    std::istringstream log(read_file(LOG_PATH));
    for (std::string line; std::getline(log, line);)
        ids.push_back(std::stoi(line.substr(20, 4)));
    return ids;
}

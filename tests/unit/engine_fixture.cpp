#include "tests/unit/engine_fixture.h"

#include "agent.h"
#include "e_a_error.h"
#include "wp_field.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

Recorder recorder;

static std::time_t clock_now;

// The engine's own clock reads end here.
extern "C" std::time_t time(std::time_t *out) noexcept
{
    if (out != nullptr)
        *out = clock_now;
    return clock_now;
}

// Gives way to the agent's own record when a test links that part too.
__attribute__((weak)) AGENT agent{};

int Event_CallBack(int code, void *data, int arg, int value)
{
    recorder.calls.emplace_back(code, arg, value);
    recorder.data.push_back(data);
    if (code == E_CB_GETBATTIME)
        static_cast<BATTCHGTIME *>(data)->BattTime = recorder.battdate;
    const auto result = recorder.results.find(code);
    return result != recorder.results.end() ? result->second : 0;
}

void set_clock(std::time_t now)
{
    clock_now = now;
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
    set_time_zone("UTC0");
    set_clock(1'078'477'622);  // 5 March 2004, 09:07:02
    set_host_name("voltaria-test");
    recorder = Recorder{};
    engine = ENGINE{};
    ea_error("");
    agent.aip = &block;
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

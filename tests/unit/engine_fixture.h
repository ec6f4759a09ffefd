// What the engine's unit tests share: the records an agent hands in, a recording Event_CallBack, a clock that
// stands where the test puts it, and the fixed files.
#pragma once

#include "aginfo.h"
#include "e_a.h"
#include "e_a_internal.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

inline constexpr char CONFIG_PATH[] = "/usr/lib/voltaria/config";
inline constexpr char DATALOG_PATH[] = "/usr/lib/voltaria/data.log";
inline constexpr char LOG_PATH[] = "/usr/lib/voltaria/events.log";

// One call of Event_CallBack without its data: code, arg, value.
using callback = std::tuple<int, int, int>;

inline constexpr int BROADCASTDOWN = -1;  // in the list of calls: net_broadcastdown

// What Event_CallBack saw and what it answers.
struct Recorder {
    std::vector<callback> calls;
    std::map<int, int> results;  // by code; 0 for the others
    UPS_TIMEINFO battdate{};     // answer to E_CB_GETBATTIME
    std::vector<const void *> data;
    std::vector<std::string> english;    // texts for monitors, language 2
    std::vector<std::string> localised;  // language 1
    std::vector<std::string> agents;     // "time is up" for other agents
    std::vector<std::string> plain;      // language 0
    std::function<void(int)> watch;      // told each code as it comes, BROADCASTDOWN too
};
extern Recorder recorder;

/// Sets the wall clock alone, as an administrator does; neither the monotonic clock nor the interval timer
/// notices.
void set_clock(std::time_t now);
/// Lets time pass on every clock.
void advance(std::time_t seconds);
void set_time_zone(const char *zone);
void set_host_name(std::string_view name);
void write_file(const char *path, std::string_view text);
std::string read_file(const char *path);
std::string error_text();

// The time of a local date in the zone in force.
std::time_t local_time(int year, int month, int day, int hour, int minute, int second);

class Engine : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    /// Event_Action with this test's records.
    int act(std::int32_t cmd);

    /// The ids in the event log, oldest first.
    static std::vector<int> logged();

    AGINFO block{};
    UPS &ups = block.ups;
    UPS_PARAM request{};
    std::array<UPS_EVENTINFO, EVENT_TABLE_SIZE> events{};
    std::array<USERSDATA, USER_COUNT> users{};
    UPS_USERSINFO userinfo{};
    UPS_EIN_DATA ein{};
    UPS_EOUT_DATA eout{};
};

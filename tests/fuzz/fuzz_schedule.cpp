// The schedules on any settings file. Loading ends, whatever the file says; what is chosen lies ahead and is
// one of the listed entries; and saving the list that was loaded, twice, gives the same list again.
#include "ea/e_a_internal.h"
#include "ea/filehandle.h"

#include "agent.h"
#include "fuzz_support.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string_view>
#include <tuple>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

static constexpr std::time_t NOW = 1'078'477'622;  // 5 March 2004, 09:07:02

// Times of entries depend on the clock: it stands, so that a finding is found again.
extern "C" std::time_t time(std::time_t *out) noexcept
{
    if (out != nullptr)
        *out = NOW;
    return NOW;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    refuse_host();
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "silencing the store");
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    return 0;
}

using moment = std::tuple<int, int, int, int, int>;

static moment moment_of(const UPS_TIMEINFO &t)
{
    return {t.year, t.month, t.day, t.hour, t.minute};
}

using listed = std::tuple<int, int, moment, moment>;

static std::vector<listed> list_of(const SCHEDULELIST *list)
{
    std::vector<listed> found;
    for (; list != nullptr; list = list->next)
        found.emplace_back(list->info.ActionID, list->info.ID, moment_of(list->info.stimeInfo),
                           moment_of(list->info.etimeInfo));
    return found;
}

static void check_choice(const std::vector<listed> &list, int action, std::time_t start, REASON reason)
{
    require((start != 0) == (reason != NONE), "a reason for what is chosen and for nothing else");
    require(start == 0 || start > NOW - 60, "what is chosen lies ahead");
    bool found = start == 0;
    for (const listed &entry : list)
        found = found || (std::get<0>(entry) == action && std::get<1>(entry) == reason);
    require(found, "what is chosen is listed");
}

// As the notices of a shutdown tell it.
static void check_words(std::time_t start)
{
    const std::time_t offset = start - NOW;
    require(user_date(offset) == std::string_view(user_date_real(start)), "the date of a start");
    require(std::string_view(user_time(offset)).substr(0, 5) ==
                std::string_view(user_time_real(start)).substr(0, 5),
            "the minute of a start");
    require(user_year(offset) >= 1970 && user_month(offset) >= 1 && user_day(offset) >= 1,
            "a day of a start");
    require(std::time_t{user_time_m(offset)} * 60 + user_time_s(offset) == offset,
            "minutes and seconds until a start");
}

static std::vector<listed> load()
{
    const std::vector<listed> list = list_of(getschlist());
    check_choice(list, 0, engine.SCH_off, engine.schdownreason);
    check_choice(list, 1, engine.next_test, engine.schtestreason);
    require(engine.offBootSpan == engine.SCH_boot - engine.SCH_off, "the span lies between off and boot");
    require(engine.DownDuration >= 0, "no negative off time");
    check_words(engine.SCH_off);
    return list;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    engine = ENGINE{};
    engine.sche_on = size == 0 ? 0 : data[0] % 3 - 1;
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    std::ofstream(CONFIG_FILE, std::ios::binary | std::ios::trunc) << text;
    load();
    static UPS_UPSINFO info;
    static UPS_PARAM param;
    UPS_EIN_DATA ein{};
    UPS_EOUT_DATA eout{};
    ein.DATA.upsinfop = eout.DATA.upsinfop = &info;
    ein.DATA.upsconfigp = eout.DATA.upsconfigp = &param;
    // Lists and ranges become their first number by the first save; after that nothing changes any more.
    if (setschedule(getschlist(), &ein, &eout) != 0 || setschedule(getschlist(), &ein, &eout) != 0)
        return 0;
    const std::vector<listed> saved = load();
    if (setschedule(getschlist(), &ein, &eout) == 0)
        require(load() == saved, "a list saved is the list loaded");
    return 0;
}

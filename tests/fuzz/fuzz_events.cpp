// The event settings and the working configuration out of any settings file. Input: a byte, 15 asks for
// saving as well, which takes hundreds of writes; the rest is the file. Whatever it holds, every event and
// every slot of a user must come out whole; what has been saved twice must be read back. The configuration
// that was loaded and saved is loaded again as the same.
#include "e_a_internal.h"

#include "agent.h"
#include "e_a_event_table.h"
#include "filehandle.h"
#include "fuzz_support.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

static std::array<UPS_EVENTINFO, EVENT_TABLE_SIZE> events;
static std::array<USERSDATA, USER_COUNT> users;
static UPS_USERSINFO userinfo;
static UPS_EIN_DATA ein;
static UPS_EOUT_DATA eout;
static AGINFO block;
static UPS_UPSINFO info;
static UPS_PARAM param;

// The engine's way to the agent; loading and saving have nothing to say to it.
int Event_CallBack(int, void *, int, int)
{
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    refuse_host();
    require(std::freopen("/dev/null", "w", stdout) != nullptr, "silencing the store");
    userinfo.udp = users.data();
    ein.DATA.eu = eout.DATA.eu = {events.data(), &userinfo};
    ein.DATA.upsconfigp = eout.DATA.upsconfigp = &param;
    ein.DATA.upsinfop = eout.DATA.upsinfop = &info;
    agent.aip = &block;
    return 0;
}

static void check_event(const UPS_EVENTINFO &event, const UPS_EVENTINFO &standard)
{
    require(event.EventID == standard.EventID && event.Reserved == 0, "which event a row is");
    require(event.Record == 0 || event.Record == 1, "whether an event is recorded");
    require(event.Command.back() == '\0', "the end of a command");
}

static void check_user(const USERSDATA &user)
{
    require(user.UserName.back() == '\0' && user.Address.back() == '\0' && user.Email.back() == '\0',
            "the ends of a user's fields");
}

static void check_load()
{
    std::memset(events.data(), 'x', sizeof events);
    std::memset(users.data(), 'x', sizeof users);
    require(getevent(events.data(), &ein, &eout) == 0, "the result of loading");
    for (std::size_t i = 0; i < EVENT_COUNT; i++)
        check_event(events[i], DEFAULTEVENTSET[i]);
    require(userinfo.nusers >= 0 && userinfo.nusers <= 32, "the number of users");
    std::for_each(users.begin(), users.end(), check_user);
    for (auto i = static_cast<std::size_t>(userinfo.nusers); i < users.size(); i++)
        require(users[i].UserID == USER_NONE && users[i].UserName[0] == '\0', "the empty slots");
}

// A user with the number of an empty slot is not saved.
static std::vector<std::uint8_t> user_ids()
{
    std::vector<std::uint8_t> ids;
    for (int i = 0; i < userinfo.nusers; i++)
        if (const std::uint8_t id = users[static_cast<std::size_t>(i)].UserID; id != USER_NONE)
            ids.push_back(id);
    return ids;
}

// A save may be refused, when a line of the file would become too long.
static void check_save()
{
    const auto told = events;
    const auto ids = user_ids();
    if (setevent(&ein, &eout) != 0 || setevent(&ein, &eout) != 0)
        return;
    check_load();
    require(std::memcmp(events.data(), told.data(), sizeof DEFAULTEVENTSET) == 0, "the events read back");
    require(user_ids() == ids, "the users read back");
}

static void check_config()
{
    engine = ENGINE{};
    info = UPS_UPSINFO{};
    param = UPS_PARAM{};
    require(getconfig(&eout) == 0, "the result of loading the configuration");
    require(param.commparam.Agent.back() == '\0' && param.commparam.Group.back() == '\0' &&
                info.Group.back() == '\0',
            "the ends of the configuration's texts");
    require(engine.ISPROTECTOR + engine.ISSERVERAGLOW + engine.ISSERVERAGNORMAL + engine.ISSERVERAGHIGH <= 1,
            "one role at most");
}

static void check_config_save()
{
    engine.ACFAIL_off = 1000;
    UPS_PARAM told = param;
    ein.DATA.upsconfigp = &told;
    const bool stored = setconfig(&ein, &eout) == 0;
    const UPS_COMMPARAM before = param.commparam;
    check_config();
    require(!stored || engine.ISPROTECTOR != 0 || before.AgentType == param.commparam.AgentType,
            "the role read back");
    std::int32_t autodetect = 0;
    static_cast<void>(getupsmodel(&autodetect));
    if (setupsmodel(7, -1) == 0 && getupsmodel(&autodetect) == 7)
        require(autodetect == -1, "the model read back");
}

static void check_items(const std::string &text)
{
    std::size_t items = 0;
    for (std::size_t pos = 0; text.c_str()[pos] != '\0'; items++) {
        const std::size_t before = pos;
        const char *item = nextitem(text.c_str(), &pos);
        require(pos > before && pos <= text.size(), "the walk along a list");
        require(item == nullptr || std::strpbrk(item, ", ") == nullptr, "an item");
    }
    require(items <= text.size(), "the number of items");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    check_items(text);
    const char *told = eventmsg(data[0]);
    require(told == nullptr || *told != '\0', "the text of an event");
    std::ofstream(CONFIG_FILE, std::ios::binary | std::ios::trunc) << text;
    check_load();
    check_config();
    if (data[0] == 15)
        check_save();
    else if (data[0] % 16 == 14)
        check_config_save();
    return 0;
}

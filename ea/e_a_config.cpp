// The working configuration: loading it with a default for every missing key, storing what a monitor sent,
// and the chosen model. Owns the engine's mirrors of the settings. Called by the dispatcher, by the
// start-up and by the status monitor when the unit changes.
#include "e_a_internal.h"

#include "agent.h"
#include "agent_main_message.h"
#include "e_a_error.h"
#include "filehandle.h"
#include "shared_word.h"
#include "wp_field.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/utsname.h>

static constexpr char DEFAULT_GROUP[] = "Group A";
static constexpr std::uint32_t DEFAULT_AGENTTYPE = AGENTTYPE_LOW;
static constexpr std::int32_t DEFAULT_AUTOREBOOT = 1;
static constexpr std::int32_t COMSET_LAST = 4;
static constexpr std::size_t SHORT_NAME = 15;  // longest host name that is kept whole
static constexpr std::int32_t PROTECTOR_EVENTLOG = 1;
static constexpr std::uint32_t PROTECTOR_EVENTRECS = 200;

// How a setting goes between the file and the record.
enum class KEEP {
    ALWAYS,     // loaded, and written by every save
    ONCHANGE,   // loaded, and written when it differs from the file; a lost write is not counted
    WRITEONLY,  // taken from its mirror both ways
};

// One numeric setting. Every member is 4 bytes; signed ones hold their two's complement.
typedef struct _SETTING {
    const char *section;
    const char *key;
    std::uint32_t fallback;
    std::size_t offset;             // of the member in UPS_PARAM
    std::uint32_t ENGINE::*mirror;  // null: none
    KEEP keep;
} SETTING;

// In the order in which a save writes them.
static constexpr std::array<SETTING, 13> SETTINGS = {{
    {"ShutDown", "EXPECTBLIFE", 60, offsetof(UPS_PARAM, workparam.BattLife), &ENGINE::EXPBLIFE, KEEP::ALWAYS},
    {"ShutDown", "TurnOffDelay", 600, offsetof(UPS_PARAM, workparam.TurnOffDelay), &ENGINE::TURNOFFDELAY,
     KEEP::ALWAYS},
    {"ShutDown", "FIRSTWARN", 30, offsetof(UPS_PARAM, workparam.FirstWarningTime), nullptr, KEEP::ALWAYS},
    {"ShutDown", "WARNBEFORESCHE", 600, offsetof(UPS_PARAM, workparam.WarningBeforeSchel), &ENGINE::SCHCOUNT,
     KEEP::ALWAYS},
    {"ShutDown", "INTERVAL", 30, offsetof(UPS_PARAM, workparam.CountDownTime), &ENGINE::INTERVAL,
     KEEP::ALWAYS},
    {"ShutDown", "BSUSPEND", 0, offsetof(UPS_PARAM, workparam.BSuspend), &ENGINE::BSUSPEND, KEEP::WRITEONLY},
    {"ShutDown", "CloseAppTime", 300, offsetof(UPS_PARAM, workparam.nCloseAppTime), nullptr, KEEP::ALWAYS},
    {"EventLog", "EventLogEnabled", 1, offsetof(UPS_PARAM, logparam.EnableEventLog), &ENGINE::EVENTLOGENABLED,
     KEEP::ALWAYS},
    {"EventLog", "EventLogMaxSize", 200, offsetof(UPS_PARAM, logparam.MaxEventRec), nullptr, KEEP::ALWAYS},
    {"DataLog", "DataLogEnabled", 1, offsetof(UPS_PARAM, logparam.EnableDataLog), &ENGINE::DATALOGENABLED,
     KEEP::ALWAYS},
    {"DataLog", "DataLogInterval", 60, offsetof(UPS_PARAM, logparam.DataLogInterval), &ENGINE::DLOGINTERVAL,
     KEEP::ONCHANGE},
    {"DataLog", "DataLogMaxSize", 200, offsetof(UPS_PARAM, logparam.MaxDataRec), nullptr, KEEP::ALWAYS},
    {"UPS", "IgnoreOtherAgentDown", 1, offsetof(UPS_PARAM, commparam.bIgnore), nullptr, KEEP::ALWAYS},
}};

static std::uint32_t member(const UPS_PARAM &param, const SETTING &setting)
{
    std::uint32_t value;
    std::memcpy(&value, reinterpret_cast<const char *>(&param) + setting.offset, sizeof(value));
    return value;
}

static void set_member(UPS_PARAM &param, const SETTING &setting, std::uint32_t value)
{
    shared_store(*reinterpret_cast<std::uint32_t *>(reinterpret_cast<char *>(&param) + setting.offset),
                 value);
}

// Stored numbers run over the whole unsigned range; a negative one comes back from either form.
static std::uint32_t number(const char *text)
{
    return static_cast<std::uint32_t>(std::strtol(text, nullptr, 10));
}

static std::uint32_t number_or(const char *text, std::uint32_t fallback)
{
    return text != nullptr ? number(text) : fallback;
}

static void set_live(const SETTING &setting, UPS_PARAM &live, std::uint32_t value)
{
    set_member(live, setting, value);
    if (setting.mirror != nullptr)
        engine.*setting.mirror = value;
}

// What hangs on more than one setting.
static void derive(const UPS_PARAM &live, UPS_UPSINFO &info)
{
    engine.PFAILCOUNT = live.workparam.BattLife - live.workparam.FirstWarningTime;
    shared_store(info.bIgnoreDown, live.commparam.bIgnore);
}

bool setrole(std::uint32_t agenttype)
{
    engine.ISPROTECTOR = agenttype == AGENTTYPE_PROTECTOR;
    engine.ISSERVERAGLOW = agenttype == AGENTTYPE_LOW;
    engine.ISSERVERAGNORMAL = agenttype == AGENTTYPE_NORMAL;
    engine.ISSERVERAGHIGH = agenttype == AGENTTYPE_HIGH;
    return (engine.ISPROTECTOR | engine.ISSERVERAGLOW | engine.ISSERVERAGNORMAL | engine.ISSERVERAGHIGH) != 0;
}

// Only a name too long for its field loses its domain, and then what is still too long.
static int load_agent(UPS_PARAM &live)
{
    utsname host;
    if (uname(&host) != 0)
        return -1;
    std::string_view name = host.nodename;
    if (name.size() > SHORT_NAME)
        name = name.substr(0, name.find('.')).substr(0, SHORT_NAME);
    field_share(live.commparam.Agent, name);
    return 0;
}

static void load_agenttype(UPS_PARAM &live, UPS_UPSINFO &info)
{
    const char *text = readparam("UPS", "AgentType");
    std::uint32_t agenttype = number_or(text, DEFAULT_AGENTTYPE);
    if (!setrole(agenttype)) {
        agenttype = DEFAULT_AGENTTYPE;
        setrole(agenttype);
    }
    shared_store(live.commparam.AgentType, agenttype);
    shared_store(info.AgentType, agenttype);
    if (text == nullptr)
        ea_error(GETTEXTj("Cannot read AgentType from config file"));
}

static void load_settings(UPS_PARAM &live, UPS_UPSINFO &info)
{
    for (const SETTING &setting : SETTINGS) {
        if (setting.keep == KEEP::WRITEONLY)
            set_member(live, setting, engine.*setting.mirror);
        else
            set_live(setting, live, number_or(readparam(setting.section, setting.key), setting.fallback));
    }
    derive(live, info);
}

static void load_group(UPS_PARAM &live, UPS_UPSINFO &info)
{
    const char *text = readparam("UPS", "Group");
    field_share(live.commparam.Group, text != nullptr ? text : DEFAULT_GROUP);
    shared_assign(info.Group, live.commparam.Group);
}

static void announce_autoreboot(std::int32_t autoreboot)
{
    Event_CallBack(autoreboot != 0 ? E_CB_AUTOREBOOT_ON : E_CB_AUTOREBOOT_OFF, nullptr, 0, 0);
}

// A unit that can be asked knows better than the file.
static bool unit_tells_autoreboot()
{
    return agent.aip != nullptr &&
           CheckBit(static_cast<std::uint32_t>(shared_load(agent.aip->udinfo)), UDINFO_V2);
}

static void load_autoreboot(UPS_PARAM &live, UPS_UPSINFO &info)
{
    const auto stored =
        static_cast<std::int32_t>(number_or(readparam("UPS", "AutoBoot"), DEFAULT_AUTOREBOOT));
    shared_store(live.workparam.AutoReboot, stored);
    announce_autoreboot(stored);
    if (unit_tells_autoreboot())
        shared_store(live.workparam.AutoReboot, shared_load(info.bAutoReboot));
    else
        shared_store(info.bAutoReboot, stored);
}

int getconfig(UPS_EOUT_DATA *eout)
{
    UPS_PARAM &live = *eout->DATA.upsconfigp;
    UPS_UPSINFO &info = *eout->DATA.upsinfop;
    if (load_agent(live) != 0)
        return -1;
    load_agenttype(live, info);
    shared_store(live.workparam.ComSet,
                 static_cast<std::int32_t>(number_or(readparam("UPS", "ComSet"), COMSET_AUTO)));
    if (engine.ISPROTECTOR != 0) {
        shared_store(live.logparam.EnableEventLog, PROTECTOR_EVENTLOG);
        shared_store(live.logparam.MaxEventRec, PROTECTOR_EVENTRECS);
        engine.EVENTLOGENABLED = PROTECTOR_EVENTLOG;
        return 0;
    }
    load_settings(live, info);
    load_group(live, info);
    load_autoreboot(live, info);
    UPS_TIMEINFO changed;
    if (getbattime(&changed) == 0)
        shared_assign(info.PreChangeBatt, changed);
    return 0;
}

// One write of a save: 1 when it was lost.
static int store(const char *section, const char *key, const char *value)
{
    return writeparam(section, key, value) != 0;
}

// Monitors on both sides must hear of a change of role, group or port.
static void announce_change()
{
    Event_CallBack(E_CB_GROUPCHANGED, nullptr, 0, 0);
    Event_CallBack(E_CB_STATUSCHANGED, nullptr, 0, 0);
}

static int store_agentname(const UPS_PARAM &live)
{
    return store("UPS", "AgentName", std::string(field_view(live.commparam.Agent)).c_str());
}

static void store_if_changed(const SETTING &setting, UPS_PARAM &live, std::uint32_t requested)
{
    const char *text = readparam(setting.section, setting.key);
    if (text != nullptr && number(text) == requested)
        return;
    store(setting.section, setting.key, itoc(requested));
    set_live(setting, live, requested);
    engine.lastdatalog = 0;
}

static int store_setting(const SETTING &setting, UPS_PARAM &req, UPS_PARAM &live)
{
    if (setting.keep == KEEP::ONCHANGE) {
        store_if_changed(setting, live, member(req, setting));
        return 0;
    }
    if (setting.keep == KEEP::WRITEONLY)
        set_member(req, setting, engine.*setting.mirror);
    const int lost = store(setting.section, setting.key, itoc(member(req, setting)));
    set_live(setting, live, member(req, setting));
    return lost;
}

// A countdown that is running follows the change of its length. The length it was started with is in the
// mirror: the live record may be the request itself.
static int store_settings(UPS_PARAM &req, UPS_PARAM &live, UPS_UPSINFO &info)
{
    const std::uint32_t before = engine.EXPBLIFE;
    int lost = 0;
    for (const SETTING &setting : SETTINGS)
        lost += store_setting(setting, req, live);
    derive(live, info);
    if (engine.ACFAIL_off != 0)
        engine.ACFAIL_off += span(engine.EXPBLIFE) - span(before);
    return lost;
}

// The live group is the one compared, the requested one is written: a request that came through the live
// record is stored, one that came beside it is not until the live record has changed too.
static int store_group(const UPS_PARAM &req, const UPS_PARAM &live, UPS_UPSINFO &info)
{
    const char *text = readparam("UPS", "Group");
    const std::string_view now = field_view(live.commparam.Group).substr(0, SHORT_NAME);
    const bool differs = text == nullptr || std::string_view(text).substr(0, SHORT_NAME) != now;
    field_share(info.Group, field_view(req.commparam.Group));
    if (!differs)
        return 0;
    const int lost = store("UPS", "Group", info.Group.data());
    announce_change();
    return lost;
}

// The requested value is not taken: whether the unit restarts is settled with the unit itself.
static int store_autoreboot(std::int32_t now, UPS_UPSINFO &info)
{
    const char *text = readparam("UPS", "AutoBoot");
    int lost = 0;
    if (text == nullptr || static_cast<std::int32_t>(number(text)) != now)
        lost = store("UPS", "AutoBoot", itoc(static_cast<std::uint32_t>(now)));
    shared_store(info.bAutoReboot, now);
    announce_autoreboot(now);
    return lost;
}

static int store_comset(std::int32_t requested, UPS_PARAM &live)
{
    const char *text = readparam("UPS", "ComSet");
    const auto stored = static_cast<std::int32_t>(number_or(text, COMSET_AUTO));
    if (text != nullptr && shared_load(live.workparam.ComSet) == stored)
        return 0;
    const bool exists = requested >= COMSET_NOUPS && requested <= COMSET_LAST;
    const std::int32_t value = exists ? requested : stored;
    const char *decimal = value == COMSET_NOUPS ? "-2" : itoc(static_cast<std::uint32_t>(value));
    const int lost = store("UPS", "ComSet", decimal);
    shared_store(live.workparam.ComSet, value);
    announce_change();
    return lost;
}

static int store_agenttype(const UPS_PARAM &req, UPS_PARAM &live, UPS_UPSINFO &info)
{
    const char *text = readparam("UPS", "AgentType");
    if (text != nullptr && number(text) == live.commparam.AgentType)
        return 0;
    const int lost = store("UPS", "AgentType", itoc(req.commparam.AgentType));
    shared_store(live.commparam.AgentType, req.commparam.AgentType);
    shared_store(info.AgentType, req.commparam.AgentType);
    announce_change();
    return lost;
}

// The UPS process writes the port setting and the restart setting too. They are read before the writes, which
// take long enough for it to come in between: what it finds out meanwhile must not be stored as the request.
static int store_all(UPS_PARAM &req, UPS_PARAM &live, UPS_UPSINFO &info)
{
    const std::int32_t comset = shared_load(req.workparam.ComSet);
    const std::int32_t autoreboot = shared_load(live.workparam.AutoReboot);
    int lost = store_settings(req, live, info);
    lost += store_group(req, live, info);
    lost += store_autoreboot(autoreboot, info);
    lost += store_comset(comset, live);
    lost += store_agenttype(req, live, info);
    return lost;
}

int setconfig(UPS_EIN_DATA *ein, UPS_EOUT_DATA *eout)
{
    UPS_PARAM &live = *eout->DATA.upsconfigp;
    const bool protector = engine.ISPROTECTOR != 0;
    if (open_write_batch() != 0)
        return -1;
    int lost =
        protector ? store_agentname(live) : store_all(*ein->DATA.upsconfigp, live, *eout->DATA.upsinfop);
    lost += close_write_batch() != 0;
    if (lost != 0)
        return -1;
    if (!protector)
        eventaction(EVENT_CONFIGCHANGED, ein, eout);
    return 0;
}

int getupsmodel(std::int32_t *autodetect)
{
    *autodetect = static_cast<std::int32_t>(number_or(readparam("UPSModel", "AutoDetect"), 0));
    return static_cast<int>(number_or(readparam("UPSModel", "UPSModel"), static_cast<std::uint32_t>(-1)));
}

int setupsmodel(std::int32_t model, std::int32_t autodetect)
{
    if (open_write_batch() != 0)
        return -1;
    store("UPSModel", "UPSModel", itoc(static_cast<std::uint32_t>(model)));
    store("UPSModel", "AutoDetect", itoc(static_cast<std::uint32_t>(autodetect)));
    close_write_batch();
    return 0;
}

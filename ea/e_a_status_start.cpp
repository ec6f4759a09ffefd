// The status record's fill at start-up: what the unit itself does not know, from the settings file and the
// log. Called once, by the engine's start; role and group are read anew when a tool has changed the settings.
#include "e_a_internal.h"

#include "e_a_error.h"
#include "filehandle.h"
#include "shared_word.h"
#include "wp_field.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

// The status fill knows no low-priority default: what getconfig takes for 4 is shown as 6 here.
std::uint32_t read_agenttype()
{
    const char *text = readparam("UPS", "AgentType");
    if (text == nullptr)
        ea_error("Cannot read AgentType from config file");
    const std::uint32_t stored =
        text != nullptr ? static_cast<std::uint32_t>(std::atoi(text)) : AGENTTYPE_HIGH;
    if (setrole(stored))
        return stored;
    setrole(AGENTTYPE_HIGH);
    return AGENTTYPE_HIGH;
}

static void fill_buzzer(UPS_UPSINFO *upsinfo)
{
    const char *text = readparam("UPS", "BuzzerCan");
    if (text == nullptr)
        ea_error("Cannot read BuzzerCan from config file");
    else
        shared_store(upsinfo->BuzzerCan, !std::string_view(text).starts_with("off"));
}

static void fill_autotest(UPS_UPSINFO *upsinfo)
{
    const char *text = readparam("UPS", "AutoTestCan");
    if (text == nullptr)
        ea_error("Cannot read AutoTestCan from config file");
    else if (std::string_view(text).starts_with("off"))
        shared_store(upsinfo->AutoTestCan, 0);
    else if (std::string_view(text).starts_with("on"))
        shared_store(upsinfo->AutoTestCan, 1);
}

static void ask_battime(UPS_TIMEINFO *timeinfo)
{
    BATTCHGTIME answer{};
    if (Event_CallBack(E_CB_GETBATTIME, &answer, 0, 0) < 0)
        ea_error("Cannot get change battery time");
    else
        *timeinfo = answer.BattTime;
}

// These series keep no battery date of their own although their name begins like one that does.
static constexpr std::array<std::string_view, 3> DATE_IN_FILE = {"ZR900PL", "ZR950PL", "ZQ"};
static constexpr std::array<std::string_view, 2> DATE_IN_UNIT = {"ZM", "ZR"};

template <std::size_t N>
static bool begins_with_one_of(std::string_view model, const std::array<std::string_view, N> &names)
{
    return std::any_of(names.begin(), names.end(),
                       [model](std::string_view name) { return model.starts_with(name); });
}

static void fill_battime(UPS_UPSINFO *upsinfo)
{
    if (shared_load(upsinfo->ComId) < 0)
        return;
    const std::string_view model = field_view(upsinfo->upsmodel);
    if (!begins_with_one_of(model, DATE_IN_FILE) && begins_with_one_of(model, DATE_IN_UNIT))
        ask_battime(&upsinfo->PreChangeBatt);
    else
        getbattime(&upsinfo->PreChangeBatt);
}

void fill_group(UPS_UPSINFO *upsinfo)
{
    const char *text = readparam("UPS", "Group");
    if (text != nullptr) {
        field_share(upsinfo->Group, text);
        return;
    }
    ea_error("Cannot read Group from config file");
    field_share(upsinfo->Group, "Group A");
    if (writeparam("UPS", "Group", "Group A") != 0)
        ea_error("Cannot write Group to config file");
}

int getupsstatus(UPS_UPSINFO *upsinfo)
{
    shared_store(upsinfo->AgentType, read_agenttype());
    fill_buzzer(upsinfo);
    fill_autotest(upsinfo);
    fill_battime(upsinfo);
    fill_group(upsinfo);
    getlasttwoevents(upsinfo->events);
    shared_store(upsinfo->bACPI, 0);
    int failures = 0;
    failures += gettime(timenow(), &upsinfo->timeinfo) != 0;
    failures += gettime(engine.SCH_off, &upsinfo->nextdown) != 0;
    failures += gettime(engine.SCH_boot, &upsinfo->nextboot) != 0;
    return failures != 0 ? -1 : 0;
}

// Which unit is on the line and what it can do. The model read and the capability probe run in every status
// pass, so a unit that is exchanged on the same port is recognised within one; the search reads the model
// too. What is learnt here decides which queries and commands the other files use.
#include "agent_ups_internal.h"
#include "shared_word.h"
#include "wp_field.h"
#include "wp_strings.h"

#include <algorithm>
#include <array>

// Masks of units that do not answer the capability query.
static constexpr UPSFUNCTION FUNCTIONS_OLD = 0x8004;
static constexpr UPSFUNCTION FUNCTIONS_PL = 0xFA80;
static constexpr UPSFUNCTION FUNCTIONS_ZM = 0xFFE0;

static bool is_oldmodel(std::string_view name)
{
    return name.starts_with("ZR401") || name.starts_with("ZR6020");
}

std::string_view ups_model()
{
    const std::string_view name = field_view(upschan.aip->ups.ui.upsmodel);
    return name.empty() ? field_view(upschan.ups_model_s) : name;
}

bool ups_ismodel(std::string_view prefix)
{
    return ups_model().starts_with(prefix);
}

bool ups_isoldmodel()
{
    return is_oldmodel(ups_model());
}

void ups_setmodel(std::string_view name)
{
    auto &field = upschan.aip->ups.ui.upsmodel;
    std::array<char, sizeof field> text{};
    field_set(text, name);
    // The name is the same in nearly every pass; readers then never see it half written.
    if (text != field)
        shared_assign(field, text);
}

// ---- the model read

static int take_model(MODELREPLY outcome, std::string_view name, int search)
{
    if (outcome == MODELREPLY::Read && search == 1)
        field_set(upschan.ups_model_s, name);
    else if (outcome == MODELREPLY::Read)
        ups_setmodel(name);
    return static_cast<int>(outcome);
}

using MODELPARSER = MODELREPLY (*)(std::string_view, std::string_view &);

static int query_model(AGENT *record, int search, std::string_view command, MODELPARSER parse)
{
    UPSREPLY reply{};
    std::string_view name;
    if (ups_query(record, command, MODEL_MAX, reply) == UPSREPLY_NOTSENT)
        return -1;
    if (reply.count <= 0) {
        // Whether the port comes back shows in the next query.
        if (search == 0)
            ups_reopen(record);
        return 1;
    }
    const MODELREPLY outcome = parse(ups_replytext(reply), name);
    return take_model(outcome, name, search);
}

int get_nozr_model(AGENT *record, int search)
{
    return query_model(record, search, "Si ?\r", model_parse);
}

int get_zr_model(AGENT *record, int search)
{
    return query_model(record, search, "(SiCC)\r", model_parsebracket);
}

int ups_getupsmodel(AGENT *record, int search)
{
    const auto &model = upschan.aip->ups.ui.upsmodel;
    const bool old = is_oldmodel(field_view(model));
    int outcome = old ? get_zr_model(record, search) : get_nozr_model(record, search);
    if (outcome == 1)
        outcome = old ? get_nozr_model(record, search) : get_zr_model(record, search);
    if (outcome != 0)
        return -1;
    upschan.model_changed = field_view(model) != field_view(upschan.model_lasttime) ? 1 : 0;
    field_set(upschan.model_lasttime, field_view(model));
    return static_cast<int>(field_view(model).size());
}

// ---- the capability probe

static void set_functions(UPSFUNCTION functions)
{
    shared_store(upschan.aip->ups.ui.ufStatus, functions);
}

static int probe_oldmodel()
{
    set_functions(FUNCTIONS_OLD);
    upschan.cmd = {.V = 0, .BTt = 0, .Six = 0, .Bv = upschan.cmd.Bv, .Lfx = 0, .Blx = 0, .Sfn = 0};
    upschan.cmd_BvB8 = 1;
    return 0;
}

// The rules for a unit that does not answer the capability query.
static int probe_unanswered()
{
    const std::string_view model = field_view(upschan.ups_model_s);
    const bool pl = model.starts_with("ZR900PL") || model.starts_with("ZR950PL");
    upschan.cf = {};
    ups_setmask(ups_getmask() & ~UPSBIT_CF);
    if (!pl && !model.starts_with("ZM")) {
        set_functions(0);
        // As it stands: the sign of the comparison decides, so an unknown name that sorts before "ZM" fails.
        return wp_strncmp(upschan.ups_model_s.data(), "ZM", 2);
    }
    set_functions(pl ? FUNCTIONS_PL : FUNCTIONS_ZM);
    upschan.cmd = {.V = 1, .BTt = 1, .Six = 1, .Bv = 1, .Lfx = 1, .Blx = 1, .Sfn = 0};
    return 0;
}

int ups_getupsfunction(AGENT *record, int modelknown)
{
    UPSREPLY reply{};
    UPSFUNCTION functions = 0;
    if (modelknown == 1)
        field_set(upschan.ups_model_s, field_view(upschan.aip->ups.ui.upsmodel));
    if (is_oldmodel(field_view(upschan.ups_model_s)))
        return probe_oldmodel();
    upschan.cmd_BvB8 = 0;
    if (ups_query(record, "CF\r", CAPABILITY_MAX, reply) == UPSREPLY_NOTSENT)
        return -1;
    if (!capability_parse(ups_replytext(reply), upschan.cf, functions))
        return probe_unanswered();
    ups_setmask(ups_getmask() | UPSBIT_CF);
    set_functions(functions);
    return 0;
}

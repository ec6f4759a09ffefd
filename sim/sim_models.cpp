// The table of units. Each row answers enough queries for a status pass of its family to succeed: the two old
// units need none beyond the bracketed ones; a ZR unit must have the battery date; a ZR950PL is taken at its
// name because it has no capability reply; a ZQ unit must have one, since nothing is known of it without.
#include "sim_models.h"

#include <array>

namespace sim
{

static constexpr std::uint32_t FEATURES_MEASURED = FEATURE_PLAIN | FEATURE_V | FEATURE_LF | FEATURE_BL;
static constexpr std::uint32_t FEATURES_900 = FEATURES_MEASURED | FEATURE_CF | FEATURE_BTT | FEATURE_SIX |
                                              FEATURE_BV | FEATURE_V2 | FEATURE_SF | FEATURE_BUZZER |
                                              FEATURE_BRR | FEATURE_RESTART | FEATURE_CF2 | FEATURE_CF10 |
                                              FEATURE_CF22 | FEATURE_SELECTABLE;
static constexpr std::uint32_t FEATURES_950 =
    FEATURES_MEASURED | FEATURE_BUZZER | FEATURE_BRR | FEATURE_RESTART;
static constexpr std::uint32_t FEATURES_300 = FEATURES_MEASURED | FEATURE_CF | FEATURE_BTT | FEATURE_SIX |
                                              FEATURE_BV | FEATURE_V2 | FEATURE_BUZZER | FEATURE_BRR |
                                              FEATURE_RESTART | FEATURE_CF2 | FEATURE_CF10;
static constexpr std::uint32_t FEATURES_500 = FEATURES_MEASURED | FEATURE_CF | FEATURE_BUZZER | FEATURE_CF2;

static constexpr std::array<Model, 6> MODELS = {{
    {"ZR401", "[ZR401 V1.2]", FEATURE_BRACKETED, true, 12.0, false, 4, 300, 14400, 20},
    {"ZR6020", "[ZR6020 V1.4]", FEATURE_BRACKETED, false, 48.0, false, 4, 480, 14400, 20},
    {"ZR900PL", "ZR900PL V2.1", FEATURES_900, false, 24.0, false, 5, 600, 14400, 20},
    {"ZR950PL", "ZR950PL V2.4", FEATURES_950, true, 24.0, false, 5, 600, 14400, 20},
    {"ZM300LT", "ZM300LT V3.0", FEATURES_300, false, 2.0, true, 5, 1200, 28800, 20},
    {"ZQ500", "ZQ500 V1.0", FEATURES_500, true, 12.0, false, 5, 300, 10800, 25},
}};

// Which characters of the capability reply a feature sets.
struct CapabilityPlace {
    std::uint32_t feature;
    std::array<std::size_t, 5> positions;  // 0 ends the list: position 0 has no meaning
};

static constexpr std::array<CapabilityPlace, 15> CAPABILITY_PLACES = {{
    {FEATURE_V, {1}},
    {FEATURE_CF2, {2}},
    {FEATURE_CF10, {10, 11}},
    {FEATURE_BUZZER, {12, 13}},
    {FEATURE_BTT, {14}},
    {FEATURE_BRR, {15, 16}},
    {FEATURE_SIX, {18}},
    {FEATURE_BV, {19}},
    {FEATURE_LF, {20}},
    {FEATURE_BL, {21}},
    {FEATURE_CF22, {22}},
    {FEATURE_RESTART, {23, 24}},
    {FEATURE_SELECTABLE, {27, 28, 29, 30, 31}},
    {FEATURE_V2, {32}},
    {FEATURE_SF, {33}},
}};

std::span<const Model> models()
{
    return MODELS;
}

const Model *find_model(std::string_view name)
{
    for (const Model &model : MODELS)
        if (model.name == name)
            return &model;
    return nullptr;
}

std::string capability_text(const Model &model)
{
    std::string text = "00000000 00000000 00000000 00000000 1.0";
    for (const CapabilityPlace &place : CAPABILITY_PLACES) {
        if (!has_feature(model, place.feature))
            continue;
        for (std::size_t position : place.positions)
            if (position != 0)
                text[position] = '1';
    }
    return text;
}

}  // namespace sim

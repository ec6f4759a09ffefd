// The battery as a physical thing: charge and terminal voltage. Called by the unit once a tick.
#pragma once

#include "sim_models.h"

namespace sim
{

struct Battery {
    double charge = 1.0;  // 0 empty to 1 full
    double volts = 0.0;   // at the terminals (of one cell for a model that tells it so)
};

enum class BatteryUse { charging, idle, discharging };

// A full battery at rest on its charger.
Battery battery_full(const Model &model);

// Lets `seconds` of model time pass. `load` is the fraction of the rated load that the battery carries while
// discharging; 1.0 empties it in the model's run time.
void battery_pass(Battery &battery, const Model &model, BatteryUse use, double load, double seconds);

// Sets the charge (0 to 1) from outside and lets the voltage jump to what belongs to it on the charger.
void battery_set_charge(Battery &battery, const Model &model, double charge);

}  // namespace sim

// A lead battery in two straight lines: while it is charged the voltage runs from 1.04 to 1.135 of the
// nominal one (a 12 V battery floats at 13.6 V, a cell at 2.27 V), while it carries load from 0.875 to 1.04
// less the sag under load. The terminals follow with a lag, as a display shows it.
#include "sim_battery.h"

#include <algorithm>
#include <cmath>

namespace sim
{

static constexpr double VOLTAGE_LAG = 4.0;       // s
static constexpr double OWN_CONSUMPTION = 0.03;  // of the rated load, the inverter's own

static double settled_volts(const Battery &battery, const Model &model, BatteryUse use, double load)
{
    if (use == BatteryUse::discharging)
        return model.battery_nominal * (0.875 + 0.165 * battery.charge - 0.05 * std::min(load, 2.0));
    if (use == BatteryUse::charging)
        return model.battery_nominal * (1.04 + 0.095 * battery.charge);
    return model.battery_nominal * (0.90 + 0.15 * battery.charge);
}

Battery battery_full(const Model &model)
{
    Battery battery;
    battery_set_charge(battery, model, 1.0);
    return battery;
}

void battery_pass(Battery &battery, const Model &model, BatteryUse use, double load, double seconds)
{
    if (use == BatteryUse::discharging)
        battery.charge -= (OWN_CONSUMPTION + (1.0 - OWN_CONSUMPTION) * load) * seconds / model.runtime;
    else if (use == BatteryUse::charging)
        battery.charge += seconds / model.recharge;
    battery.charge = std::clamp(battery.charge, 0.0, 1.0);
    const double target = settled_volts(battery, model, use, load);
    battery.volts += (target - battery.volts) * (1.0 - std::exp(-seconds / VOLTAGE_LAG));
}

void battery_set_charge(Battery &battery, const Model &model, double charge)
{
    battery.charge = std::clamp(charge, 0.0, 1.0);
    battery.volts = settled_volts(battery, model, BatteryUse::charging, 0.0);
}

}  // namespace sim

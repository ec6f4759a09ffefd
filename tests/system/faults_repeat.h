// What the faults of monitors and of the network have in common.
#pragma once

#include "faults.h"

#include <functional>
#include <string>
#include <vector>

namespace faults
{

/// Does it now, and again after every `period` of virtual time, until end_repetition or the end of the cell.
void repeat(Scene &scene, testbed::VirtualClock::Duration period, const std::function<void()> &step);
void end_repetition(Scene &scene);

/// Runs `ip` with these arguments; empty when that went well, else what it said.
std::string ip(const std::vector<std::string> &arguments);

}  // namespace faults

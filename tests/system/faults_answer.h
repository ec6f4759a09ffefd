// The monitor of the phase LONG_ANSWER: it asks for a log of tens of thousands of lines, over and over, and
// takes it slowly.
#pragma once

#include "faults.h"

namespace faults
{

/// The data log gets its lines, and the monitor takes a part of them every second from now on.
void ask_for_a_long_answer(Scene &scene);

/// What it has taken in all; 0 in other phases.
std::size_t bytes_of_the_answer(const Scene &scene);

}  // namespace faults

// What can be wrong with a unit's answers: none at all, late ones, broken ones, refusals, or a text put in
// their place. The simulator asks this module between hearing a command and sending the reply.
#pragma once

#include "sim_time.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace sim
{

struct Faults {
    bool silent = false;                         // hears and obeys, but does not answer
    bool wrong_checks = false;                   // the first character of each reply is spoilt
    Time late{0};                                // delay before each reply
    std::optional<std::size_t> truncate;         // bytes that are left of each reply
    std::size_t lag = 0;                         // last bytes of a reply that come with the next
    std::string behind;                          // those
    std::set<std::string, std::less<>> refused;  // commands answered "NAK" and not carried out
    std::map<std::string, std::string, std::less<>> in_place;  // raw replies to commands
};

// Whether the command is to be refused. Commands are named whole or by their name in the command table.
bool faults_refuse(const Faults &faults, std::string_view command);

// What goes out instead of `reply`; empty for nothing.
std::string faults_spoil(const Faults &faults, std::string_view command, std::string reply);

// What is sent of a reply that goes out now: what lags behind of the one before, and this one without its
// own.
std::string faults_lag(Faults &faults, std::string reply);

}  // namespace sim

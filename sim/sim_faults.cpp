// A fault may be set for one text ("S05R00010") or for every form of a command ("S"); the whole text wins.
#include "sim_faults.h"

#include "sim_protocol.h"

#include <algorithm>
#include <utility>

namespace sim
{

bool faults_refuse(const Faults &faults, std::string_view command)
{
    return faults.refused.contains(command) || faults.refused.contains(command_name(command));
}

std::string faults_spoil(const Faults &faults, std::string_view command, std::string reply)
{
    auto raw = faults.in_place.find(command);
    if (raw == faults.in_place.end())
        raw = faults.in_place.find(command_name(command));
    if (raw != faults.in_place.end())
        reply = raw->second;
    if (faults.silent)
        return {};
    if (faults.wrong_checks && !reply.empty())
        reply[0] = '?';
    if (faults.truncate && reply.size() > *faults.truncate)
        reply.resize(*faults.truncate);
    return reply;
}

std::string faults_lag(Faults &faults, std::string reply)
{
    reply.insert(0, std::exchange(faults.behind, {}));
    const std::size_t sent = reply.size() - std::min(reply.size(), faults.lag);
    faults.behind = reply.substr(sent);
    reply.resize(sent);
    return reply;
}

}  // namespace sim

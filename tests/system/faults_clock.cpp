// Faults of the machine's clock, and an order of another agent to one that heeds none.
#include "faults.h"

#include <sys/ipc.h>
#include <sys/shm.h>

namespace faults
{

using namespace std::chrono_literals;

void ClockADayForward_begin(Scene &scene)
{
    scene.stage.clock.shift_wall(24h);
}

void ClockADayForward_end(Scene &)
{
}

void ClockADayBackward_begin(Scene &scene)
{
    scene.stage.clock.shift_wall(-24h);
}

void ClockADayBackward_end(Scene &)
{
}

// The live setting, where the daemon and its local tools keep it.
static void ignore_others_from_now_on()
{
    void *const block = shmat(shmget(ftok(AGINFO_KEYFILE, AGINFO_PROJECT), 0, 0), nullptr, 0);
    shared_store(static_cast<AGINFO *>(block)->ups.up.commparam.bIgnore, 1);
    shmdt(block);
}

// Only one that heeds the others has a grace; there the others are ignored from the moment of the order on,
// which has been taken.
void OrderWhileOthersAreIgnored_begin(Scene &scene)
{
    scene.stage.other_agent_orders("other", "Group A", 6);
    if (scene.phase == Phase::IN_GRACE)
        ignore_others_from_now_on();
}

void OrderWhileOthersAreIgnored_end(Scene &)
{
}

bed::Settings OrderWhileOthersAreIgnored_settings()
{
    return {{"UPS", "IgnoreOtherAgentDown", "1"}};
}

}  // namespace faults

// Faults of the daemon's two processes.
#include "faults.h"

#include <csignal>

namespace faults
{

// Until it has happened: a signal is only on its way when the call returns.
static void stop(pid_t pid)
{
    ASSERT_GT(pid, 0);
    kill(pid, SIGSTOP);
    testbed::wait_until("stopped process", bed::PATIENCE, [pid] {
        const auto process = testbed::process_info(pid);
        return process && process->state == 'T';
    });
}

void UpsProcessKilled_begin(Scene &scene)
{
    kill(scene.stage.daemon.ups_pid(), SIGKILL);
}

void UpsProcessKilled_end(Scene &)
{
}

void UpsProcessStopped_begin(Scene &scene)
{
    stop(scene.stage.daemon.ups_pid());
}

void UpsProcessStopped_end(Scene &scene)
{
    kill(scene.stage.daemon.ups_pid(), SIGCONT);
}

// As stopped, but for good.
void UpsProcessHangs_begin(Scene &scene)
{
    const pid_t pid = scene.stage.daemon.ups_pid();
    stop(pid);
    scene.cleanups.emplace_back([pid] { kill(pid, SIGKILL); });
}

void UpsProcessHangs_end(Scene &)
{
}

void AgentStopped_begin(Scene &scene)
{
    stop(scene.stage.daemon.agent_pid());
}

void AgentStopped_end(Scene &scene)
{
    kill(scene.stage.daemon.agent_pid(), SIGCONT);
}

}  // namespace faults

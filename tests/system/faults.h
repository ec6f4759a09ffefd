// What the fault matrix consists of: a scene, which is the real daemon in one of its phases under virtual
// time, and faults, which begin and end on it. The table (faults_table.h) says what each comes to in each
// phase, the stage (faults_stage.h) brings the phases about and judges.
//
// A fault is a pair of functions, NAME_begin and NAME_end: it begins at this moment of virtual time and is
// over at this moment. Either may do nothing, and either may let time pass (Scene::stage.run). What must live
// on between the two, or until the end of the cell, goes into `kept`; what must be put right before the
// sandbox is left goes into `cleanups`. `end` is called while the daemon runs, or after it went down; it must
// not depend on which. A fault that needs settings from the start of the daemon has NAME_settings as well.
#pragma once

#include "vt_stage.h"

#include <functional>
#include <memory>
#include <vector>

namespace faults
{

enum class Phase {
    SEARCHING,    // the unit does not answer yet
    ON_MAINS,     // the link is up and nothing happens
    ON_BATTERY,   // mains has failed, the countdown runs
    IN_GRACE,     // the deadline is over, the others are given their time
    SELF_TEST,    // the unit tests its battery
    LONG_ANSWER,  // a monitor has asked for a long log and takes it slowly
};

struct Scene {
    Scene(Phase phase_now, const bed::Settings &more);
    Scene(const Scene &) = delete;
    Scene &operator=(const Scene &) = delete;
    ~Scene();  // the cleanups, the last first; then what is kept; then the stage

    Phase phase;

  private:
    std::unique_ptr<bed::Stage> owned_;

  public:
    bed::Stage &stage;
    std::vector<std::shared_ptr<void>> kept;  // sockets, processes: whatever must not end before the cell
    std::vector<std::function<void()>> cleanups;
    bool monitor_reads = true;  // LONG_ANSWER: cleared, it takes nothing more
    double grace_ends = 0;      // IN_GRACE: when the machine is to go down, in seconds since the beginning
};

struct FAULT {
    const char *name;
    void (*begin)(Scene &);
    void (*end)(Scene &);
    bed::Settings (*settings)() = nullptr;  // beside those of the phase
};

// ---- the serial line (faults_line.cpp)

void LineCut_begin(Scene &scene);
void LineCut_end(Scene &scene);
void Garbage_begin(Scene &scene);
void Garbage_end(Scene &scene);
void RepliesOneByteLate_begin(Scene &scene);
void RepliesOneByteLate_end(Scene &scene);
void RepliesOfAnotherModel_begin(Scene &scene);
void RepliesOfAnotherModel_end(Scene &scene);
void NoiseWithoutEnd_begin(Scene &scene);
void NoiseWithoutEnd_end(Scene &scene);
void XoffInTheNoise_begin(Scene &scene);
void XoffInTheNoise_end(Scene &scene);
void PortFileGone_begin(Scene &scene);
void PortFileGone_end(Scene &scene);
void NoUnitFor150Days_begin(Scene &scene);
void NoUnitFor150Days_end(Scene &scene);

// ---- the two processes (faults_process.cpp)

void UpsProcessKilled_begin(Scene &scene);
void UpsProcessKilled_end(Scene &scene);
void UpsProcessStopped_begin(Scene &scene);
void UpsProcessStopped_end(Scene &scene);
void UpsProcessHangs_begin(Scene &scene);
void UpsProcessHangs_end(Scene &scene);
void AgentStopped_begin(Scene &scene);
void AgentStopped_end(Scene &scene);

// ---- the clock, and orders of others (faults_clock.cpp)

void ClockADayForward_begin(Scene &scene);
void ClockADayForward_end(Scene &scene);
void ClockADayBackward_begin(Scene &scene);
void ClockADayBackward_end(Scene &scene);
void OrderWhileOthersAreIgnored_begin(Scene &scene);
void OrderWhileOthersAreIgnored_end(Scene &scene);
bed::Settings OrderWhileOthersAreIgnored_settings();

// ---- files and programs (faults_files.cpp)

void DiskFull_begin(Scene &scene);
void DiskFull_end(Scene &scene);
void SettingsFileADirectory_begin(Scene &scene);
void SettingsFileADirectory_end(Scene &scene);
void LogsUnwritable_begin(Scene &scene);
void LogsUnwritable_end(Scene &scene);
void NotificationHangs_begin(Scene &scene);
void NotificationHangs_end(Scene &scene);
bed::Settings NotificationHangs_settings();
inline constexpr int COMMAND_TIME = 20;  // s that the agent waits for a command of an event
void CommandNeverEnds_begin(Scene &scene);
void CommandNeverEnds_end(Scene &scene);
bed::Settings CommandNeverEnds_settings();
void BlockLockedByADeadTool_begin(Scene &scene);
void BlockLockedByADeadTool_end(Scene &scene);

// ---- monitors (faults_clients.cpp)

void ClientsStalled_begin(Scene &scene);
void ClientsStalled_end(Scene &scene);
void FloodOfConnections_begin(Scene &scene);
void FloodOfConnections_end(Scene &scene);
void MonitorsVanish_begin(Scene &scene);
void MonitorsVanish_end(Scene &scene);
void FloodOfDateRequests_begin(Scene &scene);
void FloodOfDateRequests_end(Scene &scene);

// ---- the network (faults_network.cpp)

void InterfaceVanishes_begin(Scene &scene);
void InterfaceVanishes_end(Scene &scene);
void FloodOfDatagrams_begin(Scene &scene);
void FloodOfDatagrams_end(Scene &scene);

}  // namespace faults

// `voltariactl before-start`: what the service manager runs before the daemon. It clears away a lock file
// that a killed process left behind, and says in one line each what would end the daemon's start, which the
// daemon itself does without a word. It takes well under a second and opens no serial port.
#include "control.h"
#include "control_block.h"
#include "control_doctor.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

using std::chrono::milliseconds;

static constexpr int ENDING_LOOKS = 12;  // at a daemon that is about to be gone
static constexpr milliseconds ENDING_STEP{50};

// The checks whose problems end the start.
static constexpr auto START_CHECKS = std::to_array<std::string_view>(
    {"key file", "console", "shared block", "TCP port", "UDP port", "listeners"});

static PATIENT start_patient(const SYSTEM &system)
{
    PATIENT patient;
    patient.system = system;
    patient.processes = system_processes(system);
    return patient;
}

// ---- The lock file ----

// As long as it is there nobody can take the lock anew, so this file can only go, and two of us that found it
// at once take turns: the second then sees that it is gone, or another.
static bool remove_judged(int fd)
{
    struct stat judged;
    struct stat present;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || fstat(fd, &judged) != 0)
        return false;
    if (stat(LOCK_HELD, &present) != 0 || present.st_dev != judged.st_dev || present.st_ino != judged.st_ino)
        return false;
    return unlink(LOCK_HELD) == 0;
}

// The file is opened first and judged then: one that is made meanwhile by a program that has just come is
// another file.
static int clear_lockfile(const SYSTEM &system)
{
    const int fd = open(LOCK_HELD, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return EXIT_SUCCESS;
    int status = EXIT_SUCCESS;
    const bool left = lock_left_behind(start_patient(system));
    errno = 0;
    if (left && remove_judged(fd))
        status = print(std::string("removed the lock file ") + LOCK_HELD +
                       ", which a killed process left behind\n");
    else if (errno == EROFS || errno == EACCES || errno == EPERM)
        // It does not end the start: the daemon protects the machine all the same.
        static_cast<void>(fail(std::string("the lock file ") + LOCK_HELD +
                               ", which a killed process left behind, cannot be removed: " +
                               std::strerror(errno)));  // NOLINT(concurrency-mt-unsafe): one thread
    close(fd);
    return status;
}

// ---- The start ----

// A daemon whose agent process is gone, or is going, is waited for a little.
static PATIENT await_ending(const SYSTEM &system)
{
    PATIENT patient = start_patient(system);
    for (int i = 0; i < ENDING_LOOKS && daemon_of(patient).size() == 1; ++i) {
        std::this_thread::sleep_for(ENDING_STEP);
        patient = start_patient(system);
    }
    return patient;
}

static FINDING running_finding(const PATIENT &patient)
{
    const std::vector<PROCESS> daemon = daemon_of(patient);
    const std::string first = std::to_string(daemon.front().pid);
    if (daemon.size() == 1)
        return problem("A process of an earlier voltariad, " + first + ", is still there.",
                       "End it with \"kill -9 " + first + "\".");
    return problem("voltariad runs already, as the processes " + first + " and " +
                       std::to_string(daemon[1].pid) + ".",
                   "End it with \"voltariactl stop\" first.");
}

static std::vector<FINDING> obstacles(PATIENT &patient)
{
    std::vector<FINDING> list;
    if (daemon_runs(patient)) {
        list.push_back(running_finding(patient));
        return list;
    }
    patient.refused = system_refusals(patient.system.addresses);
    if (!patient.refused->empty())  // who it is takes a look at every process
        patient.descriptors = system_descriptors(patient.system);
    for (const std::string_view check : START_CHECKS)
        if (FINDING finding = doctor_finding(patient, check); finding.result == RESULT::Problem)
            list.push_back(std::move(finding));
    return list;
}

int control_before_start()
{
    if (geteuid() != 0)
        return fail("only root can prepare the start of voltariad");
    const SYSTEM system = system_here();
    PATIENT patient = await_ending(system);
    int status = clear_lockfile(system);
    for (const FINDING &obstacle : obstacles(patient))
        status = fail(plain(obstacle.found + " " + obstacle.advice));
    return status;
}

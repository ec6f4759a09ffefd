// What the tests of the local management tool share: running it, and what others may have left behind.
#pragma once

#include "bed.h"

#include "aginfo.h"
#include "shared_word.h"

#include <nlohmann/json.hpp>

#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <vector>

namespace control_stage
{

inline const std::string VOLTARIACTL = bed::PROGRAMS + "/voltariactl";
inline constexpr char HELD[] = "/usr/lib/voltaria/.pipelock";

inline testbed::RunResult control(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), VOLTARIACTL);
    return testbed::run(arguments, bed::PATIENCE + std::chrono::seconds(60));
}

/// As an ordinary user, with a copy: the build directory may be closed to others.
inline testbed::RunResult control_as_nobody(const std::vector<std::string> &arguments)
{
    EXPECT_EQ(testbed::run({"cp", VOLTARIACTL, "/tmp/voltariactl"}).status, 0);
    std::vector<std::string> line = {"setpriv", "--reuid", "65534", "--clear-groups", "/tmp/voltariactl"};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return testbed::run(line, bed::PATIENCE);
}

inline nlohmann::json document(const std::vector<std::string> &arguments)
{
    return nlohmann::json::parse(control(arguments).output);
}

/// The block for a test that plays another process of the daemon's.
inline AGINFO *writable_block()
{
    void *block = shmat(shmget(ftok("/etc/.KAVEXUPS", 1029), 0, 0), nullptr, 0);
    return block == reinterpret_cast<void *>(-1) ? nullptr : static_cast<AGINFO *>(block);
}

/// A block as a daemon leaves it, and nobody behind it.
inline AGINFO *orphaned_block(std::size_t size = sizeof(AGINFO))
{
    const int id = shmget(ftok("/etc/.KAVEXUPS", 1029), size, IPC_CREAT | 0666);
    return id < 0 ? nullptr : writable_block();
}

}  // namespace control_stage

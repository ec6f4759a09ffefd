// The cross-process file lock and the shared block's `locked` word. The lock's token is the existence of
// LOCK_HELD: a link made from LOCK_SOURCE, which the holder removes again at once and the next taker makes
// anew. Used by the agent process, and by outside tools that follow the same steps.
#include "agent_utils_lock.h"

#include "agent.h"
#include "shared_word.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char LOCK_SOURCE[] = "/usr/lib/voltaria/.LCK";
static constexpr char LOCK_HELD[] = "/usr/lib/voltaria/.pipelock";
static constexpr int LOCK_RETRY_US = 500;

static void make_lock_source()
{
    struct stat info;
    if (stat(LOCK_SOURCE, &info) == 0)
        return;
    const int fd = open(LOCK_SOURCE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd >= 0)
        close(fd);
}

bool utils_tryatomlock()
{
    make_lock_source();
    if (link(LOCK_SOURCE, LOCK_HELD) == -1) {
        if (errno != EEXIST)
            perror("utils_setatomlock: link");
        return false;
    }
    if (unlink(LOCK_SOURCE) == -1)
        perror("utils_setatomlock: unlink");
    return true;
}

void utils_setatomlock()
{
    while (!utils_tryatomlock()) {
        timeval pause{0, LOCK_RETRY_US};
        select(0, nullptr, nullptr, nullptr, &pause);
    }
}

void releaseatomlock()
{
    if (unlink(LOCK_HELD) == -1)
        perror("net_releaselock: unlink");
}

// With the file lock held.
static int test_and_set()
{
    if (agent.aip == nullptr)
        return 0;
    if (shared_load(agent.aip->locked) != 0)
        return -1;
    shared_store(agent.aip->locked, 1);
    return 0;
}

int net_testandsetlock()
{
    utils_setatomlock();
    const int result = test_and_set();
    releaseatomlock();
    return result;
}

int net_trytestandsetlock()
{
    if (!utils_tryatomlock())
        return -1;
    const int result = test_and_set();
    releaseatomlock();
    return result;
}

// With the file lock held.
static void clear_word()
{
    if (agent.aip != nullptr)
        shared_store(agent.aip->locked, 0);
}

void net_clearlock()
{
    utils_setatomlock();
    clear_word();
    releaseatomlock();
}

bool net_tryclearlock()
{
    if (!utils_tryatomlock())
        return false;
    clear_word();
    releaseatomlock();
    return true;
}

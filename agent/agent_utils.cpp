// The cross-process file lock and the interface listing. The lock's token is the existence of LOCK_HELD: a
// link made from LOCK_SOURCE, which the holder removes again at once and the next taker makes anew. Used
// by the agent process and the UPS process alike, and by outside tools that follow the same steps.
#include "agent_utils.h"

#include "agent.h"
#include "shared_word.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char LOCK_SOURCE[] = "/usr/lib/voltaria/.LCK";
static constexpr char LOCK_HELD[] = "/usr/lib/voltaria/.pipelock";
static constexpr int LOCK_RETRY_US = 500;

static constexpr std::size_t IFREQ_FIRST = 30;
static constexpr std::size_t IFREQ_GROW = 10;

std::int64_t utils_monotonicms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

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

int utils_findmultihome(int sockfd, struct ifconf *conf, const char *nomemory)
{
    std::size_t room = IFREQ_FIRST * sizeof(ifreq);
    conf->ifc_buf = nullptr;
    for (;; room += IFREQ_GROW * sizeof(ifreq)) {
        char *grown = static_cast<char *>(std::realloc(conf->ifc_buf, room));
        if (grown == nullptr) {
            perror(nomemory);
            std::free(conf->ifc_buf);
            conf->ifc_buf = nullptr;
            return -1;
        }
        conf->ifc_buf = grown;
        conf->ifc_len = static_cast<int>(room);
        if (ioctl(sockfd, SIOCGIFCONF, conf) == -1) {
            perror("SIOCGIFCONF");
            std::free(conf->ifc_buf);
            conf->ifc_buf = nullptr;
            return -1;
        }
        // A full buffer may hide further interfaces.
        if (static_cast<std::size_t>(conf->ifc_len) != room)
            return static_cast<int>(static_cast<std::size_t>(conf->ifc_len) / sizeof(ifreq));
    }
}

// The clock that the waits of every module go by, and the list of the interfaces' addresses, from which the
// agent process takes its endpoints and its broadcasts.
#include "agent_utils.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/ioctl.h>

static constexpr std::size_t IFREQ_FIRST = 30;
static constexpr std::size_t IFREQ_GROW = 10;

std::int64_t utils_monotonicms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
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

// The clock for waits and the list of interface addresses.
#pragma once

#include <cstdint>
#include <net/if.h>

/// Milliseconds on a clock that nobody sets.
[[nodiscard]] std::int64_t utils_monotonicms();

/// Reads the interface list (SIOCGIFCONF) into a buffer that it allocates in `conf`; the caller frees
/// `conf->ifc_buf` with free(). Returns the number of records, or -1 with nothing allocated. `nomemory` is
/// what a failed allocation is reported as.
int utils_findmultihome(int sockfd, struct ifconf *conf, const char *nomemory = "error in realloc");

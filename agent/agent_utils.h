// Helpers of both processes: the clock for waits, the file lock that makes the test-and-set of the shared
// block's `locked` word atomic, and the list of interface addresses.
#pragma once

#include <cstdint>
#include <net/if.h>

/// Milliseconds on a clock that nobody sets.
[[nodiscard]] std::int64_t utils_monotonicms();

/// Takes the file lock; waits for it without limit.
void utils_setatomlock();

/// Tries once to take the file lock. Returns whether it is held now.
bool utils_tryatomlock();

/// Releases the file lock.
void releaseatomlock();

/// Sets `AGINFO.locked` if it was clear. Returns 0 when it was, -1 when it was already set.
int net_testandsetlock();

/// The same without waiting for the file lock: -1 also when that is held by somebody.
int net_trytestandsetlock();

/// Clears `AGINFO.locked`.
void net_clearlock();

/// The same without waiting for the file lock. Returns whether the word is clear now.
[[nodiscard]] bool net_tryclearlock();

/// Reads the interface list (SIOCGIFCONF) into a buffer that it allocates in `conf`; the caller frees
/// `conf->ifc_buf` with free(). Returns the number of records, or -1 with nothing allocated. `nomemory` is
/// what a failed allocation is reported as.
int utils_findmultihome(int sockfd, struct ifconf *conf, const char *nomemory = "error in realloc");

// The lock of the shared block: its `locked` word, and the file lock that makes a test-and-set of that word
// atomic.
#pragma once

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

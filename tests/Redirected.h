// Calls of library functions that the linker redirects to these tests (--wrap in CMakeLists.txt): they show
// what cannot be seen from outside.
#pragma once

#include <atomic>
#include <string>
#include <vector>

// All bytes that were wiped since the last call of this function, as they were before. Thread-safe.
std::vector<std::string> TakeWiped();

// Blinding of RSA operations.
inline std::atomic<int> blindingSetUps = 0;
inline std::atomic<bool> blindingFails = false;
inline std::atomic<int> unblindings = 0;  // in constant time only

// What the generator was seeded with (srand(3)) since the last call of this function. Thread-safe.
std::vector<unsigned> TakeSeeds();

inline std::atomic<int> trims = 0;  // calls of malloc_trim(3)

// While this is true, getaddrinfo(3) does not return; so many threads wait for it.
inline std::atomic<bool> resolverIsStuck = false;
inline std::atomic<int> stuckLookups = 0;

// While this is true, nanosleep(2) takes no time, except on the thread of the test.
inline std::atomic<bool> waitsAreInstant = false;

// Views into the fast allocator's per-thread cache, for tests and reports.
#pragma once

#include <cstddef>
#include <vector>

namespace nrt::detail {

inline constexpr int kCacheEntries = 5;
inline constexpr int kThreadSlots = 1024;

struct CacheEntryView {
    const void* aligned = nullptr; // pointer given out
    std::size_t asked = 0;         // size last asked for
    std::size_t systemSize = 0;    // size of the system block
    bool busy = false;
};

// The calling thread's cache entries in use (empty before its first cached
// allocation). Reads the thread's own record, so call it on the owner thread.
std::vector<CacheEntryView> currentThreadCache();

// Returns the calling thread's idle cached blocks to the system heap; blocks
// still in use stay cached. For a thread about to go quiet for a long time,
// and for tests that need an empty cache.
void trimThreadCache();

// Thread slots taken so far.
int fastSlotsInUse() noexcept;

// Whether caching is on (reads the switch if not done yet).
bool fastCacheEnabled();

} // namespace nrt::detail

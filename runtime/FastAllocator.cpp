// Fast allocator: short-lived work blocks from a small per-thread cache.
//
// Dense kernels ask for the same few sizes in a loop. Each thread keeps up to
// five system blocks and hands them out again, so that a parallel kernel does
// not contend on the system heap at every call. The owner thread touches its
// record without a lock. Other threads come in only to release a block they
// were handed (under the runtime lock) and can then change nothing but the
// entry's busy flag; the fields they read for that are atomics.
//
// Blocks stay with their thread until the process ends. A thread that ends
// marks its slot dead; a later thread may adopt a dead slot whose blocks are all
// idle, so that a program creating many short threads does not run out of the
// 1024 slots and lose the cache.

#include "runtime/internal/FastAllocator.h"
#include "runtime/internal/Heap.h"
#include "runtime/internal/SpinLock.h"
#include "runtime/nrt.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include <sys/syscall.h>
#include <unistd.h>

namespace nrt::detail {
namespace {

struct Entry {
    void* block = nullptr;               // owner only
    std::size_t asked = 0;               // owner only
    std::size_t systemSize = 0;          // owner only
    std::atomic<void*> aligned{nullptr}; // read by foreign releases
    std::atomic<bool> busy{false};       // cleared by foreign releases
};

struct CacheRecord {
    Entry entries[kCacheEntries];
    std::atomic<int> count{0};
};

struct ThreadSlot {
    std::atomic<long> id{0};
    std::atomic<int> dead{0};
    std::atomic<CacheRecord*> cache{nullptr};
};

struct FastState {
    ThreadSlot slots[kThreadSlots]; // numbered from 1 by the index below
    std::atomic<int> used{0};
    std::atomic<int> cachingOn{-1}; // -1 until the switch is read
};

FastState& state() noexcept {
    static FastState s;
    return s;
}

long currentThreadId() noexcept {
    thread_local const long id = static_cast<long>(syscall(SYS_gettid));
    return id;
}

// The calling thread's record, once it has one. A trivial thread_local, unlike
// the slot index below, is reached without an initialisation check: this is
// the pointer the hot path reads.
thread_local CacheRecord* ownRecord = nullptr;

// The calling thread's slot number, 0 for none; its destructor runs at thread
// exit and marks the slot dead.
struct SlotIndex {
    int number = 0;
    ~SlotIndex() {
        if (number == 0) return;
        // A destructor of another thread_local object may still allocate:
        // from here on it must not touch the record, which a new thread can
        // adopt as soon as the slot is marked dead.
        ownRecord = nullptr;
        std::lock_guard guard(runtimeLock());
        state().slots[number - 1].dead.store(1, std::memory_order_relaxed);
    }
};
thread_local SlotIndex tlsSlot;

CacheRecord* adopt(int number, CacheRecord* record) noexcept {
    tlsSlot.number = number;
    ownRecord = record;
    return record;
}

bool cachingOn() {
    FastState& s = state();
    int on = s.cachingOn.load(std::memory_order_acquire);
    if (on >= 0) return on != 0;
    std::lock_guard guard(runtimeLock());
    on = s.cachingOn.load(std::memory_order_relaxed);
    if (on < 0) {
        // Presence alone switches caching off: even an empty value of any
        // length means someone wants plain malloc, e.g. for a memory checker.
        on = (std::getenv("NRT_DISABLE_FAST_MM") != nullptr ||
              std::getenv("NRT_MM_DISABLE") != nullptr)
                 ? 0
                 : 1;
        s.cachingOn.store(on, std::memory_order_release);
    }
    return on != 0;
}

CacheRecord* newRecord() noexcept {
    void* memory = heapCalloc(1, sizeof(CacheRecord));
    if (memory == nullptr) return nullptr;
    // Never destroyed: records live until the process ends, as their blocks do.
    return ::new (memory) CacheRecord;
}

bool allIdle(const CacheRecord& record) noexcept {
    const int count = record.count.load(std::memory_order_acquire);
    for (int i = 0; i < count; ++i)
        if (record.entries[i].busy.load(std::memory_order_acquire)) return false;
    return true;
}

// Finds or makes the calling thread's cache record; null when no slot or no
// record can be had.
CacheRecord* threadRecord() {
    // The record pointer is this thread's own: a slot changes hands only after
    // its thread has ended, so no id test is needed on this path.
    if (ownRecord != nullptr) return ownRecord;

    FastState& s = state();
    const long id = currentThreadId();
    std::lock_guard guard(runtimeLock());
    const int used = s.used.load(std::memory_order_relaxed);
    for (int i = used; i >= 1; --i) {
        ThreadSlot& slot = s.slots[i - 1];
        if (slot.id.load(std::memory_order_relaxed) == id &&
            slot.dead.load(std::memory_order_relaxed) == 0) {
            return adopt(i, slot.cache.load(std::memory_order_relaxed));
        }
    }
    for (int i = 1; i <= used; ++i) {
        ThreadSlot& slot = s.slots[i - 1];
        CacheRecord* record = slot.cache.load(std::memory_order_relaxed);
        if (slot.dead.load(std::memory_order_relaxed) != 0 && record != nullptr &&
            allIdle(*record)) {
            slot.id.store(id, std::memory_order_relaxed);
            slot.dead.store(0, std::memory_order_relaxed);
            return adopt(i, record);
        }
    }
    if (used >= kThreadSlots) return nullptr;
    CacheRecord* record = newRecord();
    if (record == nullptr) return nullptr;
    ThreadSlot& slot = s.slots[used];
    slot.id.store(id, std::memory_order_relaxed);
    slot.dead.store(0, std::memory_order_relaxed);
    slot.cache.store(record, std::memory_order_relaxed);
    s.used.store(used + 1, std::memory_order_relaxed);
    return adopt(used + 1, record);
}

void* alignInside(void* block, std::size_t alignment) noexcept {
    const auto b = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t mask = alignment - 1;
    if ((b & mask) == 0) return block;
    return reinterpret_cast<void*>((b - (b & mask)) + alignment);
}

void* handOut(Entry& entry, std::size_t size, std::size_t alignment) noexcept {
    entry.asked = size;
    void* p = alignInside(entry.block, alignment);
    entry.aligned.store(p, std::memory_order_release);
    entry.busy.store(true, std::memory_order_release);
    return p;
}

bool releaseIn(CacheRecord& record, void* p) noexcept {
    const int count = record.count.load(std::memory_order_acquire);
    for (int i = 0; i < count; ++i) {
        Entry& entry = record.entries[i];
        if (entry.aligned.load(std::memory_order_acquire) == p) {
            entry.busy.store(false, std::memory_order_release);
            return true;
        }
    }
    return false;
}

} // namespace

std::vector<CacheEntryView> currentThreadCache() {
    std::vector<CacheEntryView> view;
    const CacheRecord* record = ownRecord;
    if (record == nullptr) return view;
    const int count = record->count.load(std::memory_order_acquire);
    for (int i = 0; i < count; ++i) {
        const Entry& e = record->entries[i];
        view.push_back({e.aligned.load(std::memory_order_acquire), e.asked, e.systemSize,
                        e.busy.load(std::memory_order_acquire)});
    }
    return view;
}

void trimThreadCache() {
    CacheRecord* record = ownRecord;
    if (record == nullptr) return;
    // Entries move, so no foreign release may scan meanwhile.
    std::lock_guard guard(runtimeLock());
    const int count = record->count.load(std::memory_order_relaxed);
    int kept = 0;
    for (int i = 0; i < count; ++i) {
        Entry& entry = record->entries[i];
        if (!entry.busy.load(std::memory_order_acquire)) {
            heapFree(entry.block);
            continue;
        }
        if (kept != i) {
            Entry& to = record->entries[kept];
            to.block = entry.block;
            to.asked = entry.asked;
            to.systemSize = entry.systemSize;
            to.aligned.store(entry.aligned.load(std::memory_order_relaxed),
                             std::memory_order_relaxed);
            to.busy.store(true, std::memory_order_relaxed);
        }
        ++kept;
    }
    for (int i = kept; i < count; ++i) {
        Entry& entry = record->entries[i];
        entry.block = nullptr;
        entry.asked = entry.systemSize = 0;
        entry.aligned.store(nullptr, std::memory_order_relaxed);
        entry.busy.store(false, std::memory_order_relaxed);
    }
    record->count.store(kept, std::memory_order_release);
}

int fastSlotsInUse() noexcept {
    return state().used.load(std::memory_order_relaxed);
}

bool fastCacheEnabled() {
    return cachingOn();
}

} // namespace nrt::detail

using namespace nrt::detail;

extern "C" void* nrt_fast_malloc(size_t size, int alignment) {
    if (size == 0) return nullptr;
    if (!cachingOn() || size > NRT_FAST_MM_LIMIT) return heapMalloc(size);

    CacheRecord* record = threadRecord();
    if (record == nullptr) return heapMalloc(size);

    const std::size_t a = effectiveAlignment(alignment);
    const std::size_t t = size + (a > 1 ? a : 0);
    const int count = record->count.load(std::memory_order_relaxed);
    Entry* bigger = nullptr;
    Entry* smaller = nullptr;
    for (int i = 0; i < count; ++i) {
        Entry& entry = record->entries[i];
        if (entry.busy.load(std::memory_order_acquire)) continue;
        if (entry.systemSize == t) return handOut(entry, size, a);
        if (entry.systemSize > t) {
            if (bigger == nullptr) bigger = &entry;
        } else if (smaller == nullptr) {
            smaller = &entry;
        }
    }

    if (bigger != nullptr) return handOut(*bigger, size, a);

    if (count < kCacheEntries) {
        void* block = heapMalloc(t);
        if (block == nullptr) return nullptr;
        Entry& entry = record->entries[count];
        entry.block = block;
        entry.systemSize = t;
        void* p = handOut(entry, size, a);
        // Published last, so that a foreign scan never sees a half-made entry.
        record->count.store(count + 1, std::memory_order_release);
        return p;
    }

    if (smaller != nullptr) {
        // Unpublish the old address before the system can hand the block to
        // another thread: otherwise a foreign release of that thread's block
        // could match this stale entry and leave the real owner busy forever.
        smaller->aligned.store(nullptr, std::memory_order_release);
        heapFree(smaller->block);
        smaller->block = heapMalloc(t);
        if (smaller->block == nullptr) {
            // Left idle and empty; the next miss replaces it again.
            smaller->systemSize = 0;
            smaller->aligned.store(nullptr, std::memory_order_release);
            return nullptr;
        }
        smaller->systemSize = t;
        return handOut(*smaller, size, a);
    }

    // All five busy: this one comes straight from the system.
    return heapMalloc(size);
}

extern "C" void nrt_fast_free(void* p) {
    if (p == nullptr) return;
    if (!cachingOn()) {
        heapFree(p);
        return;
    }

    FastState& s = state();
    if (ownRecord != nullptr && releaseIn(*ownRecord, p)) return;
    {
        std::lock_guard guard(runtimeLock());
        const int used = s.used.load(std::memory_order_relaxed);
        for (int i = 0; i < used; ++i) {
            CacheRecord* record = s.slots[i].cache.load(std::memory_order_relaxed);
            if (record != nullptr && releaseIn(*record, p)) return;
        }
    }
    heapFree(p);
}

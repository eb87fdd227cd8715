// A heap that records what the runtime asks of the system, for tests that
// check sizes and which path a block took.
#pragma once

#include "runtime/nrt.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace nrt_test {

struct HeapLog {
    std::atomic<long> mallocs{0};
    std::atomic<long> callocs{0};
    std::atomic<long> reallocs{0};
    std::atomic<long> frees{0};
    std::atomic<std::size_t> lastSize{0};
    std::atomic<long> failAfter{-1}; // fail every allocation once this reaches 0
};

inline HeapLog& heapLog() {
    static HeapLog log;
    return log;
}

inline bool shouldFail() {
    HeapLog& log = heapLog();
    long left = log.failAfter.load();
    while (left >= 0) {
        if (left == 0) return true;
        if (log.failAfter.compare_exchange_weak(left, left - 1)) return false;
    }
    return false;
}

inline void* recordMalloc(std::size_t size) {
    heapLog().mallocs++;
    heapLog().lastSize = size;
    return shouldFail() ? nullptr : std::malloc(size);
}
inline void* recordCalloc(std::size_t count, std::size_t size) {
    heapLog().callocs++;
    heapLog().lastSize = count * size;
    return shouldFail() ? nullptr : std::calloc(count, size);
}
inline void* recordRealloc(void* p, std::size_t size) {
    heapLog().reallocs++;
    heapLog().lastSize = size;
    return shouldFail() ? nullptr : std::realloc(p, size);
}
inline void recordFree(void* p) {
    if (p != nullptr) heapLog().frees++;
    std::free(p);
}

// Installs the recording heap for the life of the object, with counters reset.
class RecordingHeap {
public:
    RecordingHeap() {
        HeapLog& log = heapLog();
        log.mallocs = 0;
        log.callocs = 0;
        log.reallocs = 0;
        log.frees = 0;
        log.lastSize = 0;
        log.failAfter = -1;
        const nrt_heap_ops ops{&recordMalloc, &recordCalloc, &recordRealloc, &recordFree};
        nrt_set_heap_ops(&ops);
    }
    ~RecordingHeap() { nrt_set_heap_ops(nullptr); }
    RecordingHeap(const RecordingHeap&) = delete;
    RecordingHeap& operator=(const RecordingHeap&) = delete;

    HeapLog& log() { return heapLog(); }
};

} // namespace nrt_test

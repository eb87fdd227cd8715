#include "runtime/internal/Heap.h"
#include "runtime/nrt.h"

#include <atomic>
#include <cstdlib>

namespace nrt::detail {
namespace {

// Each operation is its own atomic so that a test swapping the heap while a
// pool thread of an earlier test still winds down is not a data race.
struct HeapSlots {
    std::atomic<void* (*)(std::size_t)> malloc_fn{&std::malloc};
    std::atomic<void* (*)(std::size_t, std::size_t)> calloc_fn{&std::calloc};
    std::atomic<void* (*)(void*, std::size_t)> realloc_fn{&std::realloc};
    std::atomic<void (*)(void*)> free_fn{&std::free};
};

HeapSlots& slots() noexcept {
    static HeapSlots s;
    return s;
}

} // namespace

void* heapMalloc(std::size_t size) noexcept {
    return slots().malloc_fn.load(std::memory_order_acquire)(size);
}

void* heapCalloc(std::size_t count, std::size_t size) noexcept {
    return slots().calloc_fn.load(std::memory_order_acquire)(count, size);
}

void* heapRealloc(void* p, std::size_t size) noexcept {
    return slots().realloc_fn.load(std::memory_order_acquire)(p, size);
}

void heapFree(void* p) noexcept {
    slots().free_fn.load(std::memory_order_acquire)(p);
}

std::size_t effectiveAlignment(int alignment) noexcept {
    if (alignment < 4) return 1;
    const auto a = static_cast<std::size_t>(alignment);
    return (a & (a - 1)) == 0 ? a : 64;
}

} // namespace nrt::detail

using namespace nrt::detail;

extern "C" void nrt_set_heap_ops(const nrt_heap_ops* ops) {
    HeapSlots& s = slots();
    const bool custom = ops != nullptr;
    s.malloc_fn.store(custom && ops->malloc_fn ? ops->malloc_fn : &std::malloc,
                      std::memory_order_release);
    s.calloc_fn.store(custom && ops->calloc_fn ? ops->calloc_fn : &std::calloc,
                      std::memory_order_release);
    s.realloc_fn.store(custom && ops->realloc_fn ? ops->realloc_fn : &std::realloc,
                       std::memory_order_release);
    s.free_fn.store(custom && ops->free_fn ? ops->free_fn : &std::free, std::memory_order_release);
}

extern "C" nrt_heap_ops nrt_get_heap_ops(void) {
    HeapSlots& s = slots();
    return {
        s.malloc_fn.load(std::memory_order_acquire), s.calloc_fn.load(std::memory_order_acquire),
        s.realloc_fn.load(std::memory_order_acquire), s.free_fn.load(std::memory_order_acquire)};
}

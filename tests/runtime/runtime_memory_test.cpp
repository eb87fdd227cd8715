// Aligned and fast allocators: alignment rules, the sizes asked of the system,
// zeroing, reallocation across a moving system heap, and the per-thread cache
// (exact hits, reuse of bigger blocks, replacement, the sixth live block, the
// size limit, release on a foreign thread).

#include "HeapRecorder.h"
#include "runtime/internal/FastAllocator.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

using nrt::detail::currentThreadCache;
using nrt::detail::trimThreadCache;
using nrt_test::RecordingHeap;

namespace {

bool alignedTo(const void* p, std::size_t a) {
    return reinterpret_cast<std::uintptr_t>(p) % a == 0;
}

// Runs body on a new thread whose cache starts empty.
template <typename Body>
void onFreshThread(Body body) {
    std::thread t([&body] {
        trimThreadCache();
        body();
        trimThreadCache();
    });
    t.join();
}

// Fills and checks a block, so that an overlapping or short block shows up.
void fill(void* p, std::size_t size, unsigned char value) {
    std::memset(p, value, size);
}
bool holds(const void* p, std::size_t size, unsigned char value) {
    const auto* bytes = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < size; ++i)
        if (bytes[i] != value) return false;
    return true;
}

// ---- Aligned allocator ----------------------------------------------------

TEST(AlignedAllocator, SizeZeroGivesNullEverywhere) {
    RecordingHeap heap;
    EXPECT_EQ(nrt_malloc(0, 64), nullptr);
    EXPECT_EQ(nrt_calloc(0, 8, 64), nullptr);
    EXPECT_EQ(nrt_calloc(8, 0, 64), nullptr);
    EXPECT_EQ(nrt_fast_malloc(0, 64), nullptr);
    EXPECT_EQ(heap.log().mallocs + heap.log().callocs, 0);
}

TEST(AlignedAllocator, PowersOfTwoAreHonoured) {
    for (int a : {4, 8, 16, 32, 64, 128, 256, 4096}) {
        std::vector<void*> blocks;
        for (std::size_t size : {1u, 7u, 100u, 4097u}) {
            void* p = nrt_malloc(size, a);
            ASSERT_NE(p, nullptr);
            EXPECT_TRUE(alignedTo(p, a)) << "alignment " << a << " size " << size;
            fill(p, size, 0x5A);
            blocks.push_back(p);
        }
        for (void* p : blocks)
            nrt_free(p);
    }
}

TEST(AlignedAllocator, SystemSizeGrowsByTheAlignmentOnly) {
    RecordingHeap heap;
    constexpr std::size_t size = 1000;
    auto askedFor = [&](int alignment) {
        void* p = nrt_malloc(size, alignment);
        EXPECT_NE(p, nullptr);
        const std::size_t asked = heap.log().lastSize;
        nrt_free(p);
        return asked;
    };
    const std::size_t none = askedFor(0);
    EXPECT_GT(none, size); // room for the header
    // Below 4 counts as no alignment: nothing added.
    EXPECT_EQ(askedFor(1), none);
    EXPECT_EQ(askedFor(3), none);
    EXPECT_EQ(askedFor(-8), none);
    EXPECT_EQ(askedFor(4), none + 4);
    EXPECT_EQ(askedFor(128), none + 128);
    // Not a power of two: taken as 64.
    EXPECT_EQ(askedFor(48), none + 64);
    void* p = nrt_malloc(24, 48);
    EXPECT_TRUE(alignedTo(p, 64));
    nrt_free(p);
    EXPECT_EQ(askedFor(100), none + 64);
}

TEST(AlignedAllocator, FreeReturnsTheSystemBlockOnce) {
    RecordingHeap heap;
    void* p = nrt_malloc(333, 64);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(heap.log().mallocs, 1);
    nrt_free(p);
    EXPECT_EQ(heap.log().frees, 1);
    nrt_free(nullptr);
    EXPECT_EQ(heap.log().frees, 1);
}

TEST(AlignedAllocator, FailureOfTheSystemGivesNull) {
    RecordingHeap heap;
    heap.log().failAfter = 0;
    EXPECT_EQ(nrt_malloc(64, 64), nullptr);
    EXPECT_EQ(nrt_calloc(4, 16, 64), nullptr);
    EXPECT_EQ(nrt_realloc(nullptr, 64, 64), nullptr);
}

TEST(AlignedAllocator, CallocZeroesOverDirtyMemoryAndRefusesOverflow) {
    // Dirty the heap so that a missing zero fill cannot pass by luck.
    for (int i = 0; i < 8; ++i) {
        void* dirty = nrt_malloc(4099, 32);
        fill(dirty, 4099, 0xEE);
        nrt_free(dirty);
    }
    auto* p = static_cast<unsigned char*>(nrt_calloc(4099, 1, 32));
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(alignedTo(p, 32));
    EXPECT_TRUE(holds(p, 4099, 0));
    nrt_free(p);

    RecordingHeap heap;
    EXPECT_EQ(nrt_calloc(SIZE_MAX / 2, 3, 64), nullptr);
    EXPECT_EQ(nrt_malloc(SIZE_MAX - 8, 64), nullptr);
    EXPECT_EQ(heap.log().mallocs, 0);
}

// A system heap whose realloc always moves the block, each time to an address
// of another residue modulo 64, so that keeping the old offset would give a
// misaligned pointer: a bump arena that never frees.
class ArenaHeap {
public:
    static void* malloc(std::size_t size) { return take(size, nullptr, 0); }
    static void* realloc(void* old, std::size_t size) { return take(size, old, size); }
    static void free(void*) {}
    static void reset() { cursor() = 0; }

private:
    static unsigned char* arena() {
        alignas(64) static unsigned char memory[1 << 20];
        return memory;
    }
    static std::size_t& cursor() {
        static std::size_t c = 0;
        return c;
    }
    static void* take(std::size_t size, void* old, std::size_t copy) {
        // Each block starts 16 bytes further off a 64-byte boundary than the
        // last, so consecutive blocks never share a residue modulo 64.
        static int step = 0;
        step = (step + 1) % 4;
        std::size_t& c = cursor();
        c = (c + 63) / 64 * 64 + 16 * step;
        if (c + size > (1u << 20)) return nullptr;
        unsigned char* block = arena() + c;
        if (old != nullptr) std::memmove(block, old, copy);
        c += size;
        return block;
    }
};

TEST(AlignedAllocator, ReallocKeepsContentsAndAlignmentWhenTheSystemMovesTheBlock) {
    ArenaHeap::reset();
    const nrt_heap_ops arena{&ArenaHeap::malloc, nullptr, &ArenaHeap::realloc, &ArenaHeap::free};
    nrt_set_heap_ops(&arena);

    std::size_t size = 40;
    auto* p = static_cast<unsigned char*>(nrt_malloc(size, 64));
    ASSERT_NE(p, nullptr);
    for (std::size_t i = 0; i < size; ++i)
        p[i] = static_cast<unsigned char>(i * 7 + 1);
    for (int round = 0; round < 8; ++round) {
        const std::size_t grown = size + 24 + round;
        p = static_cast<unsigned char*>(nrt_realloc(p, grown, 0));
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(alignedTo(p, 64)) << "round " << round;
        for (std::size_t i = 0; i < size; ++i)
            ASSERT_EQ(p[i], static_cast<unsigned char>(i * 7 + 1)) << "round " << round;
        for (std::size_t i = size; i < grown; ++i)
            p[i] = static_cast<unsigned char>(i * 7 + 1);
        size = grown;
    }
    // Shrinking keeps the leading bytes.
    p = static_cast<unsigned char*>(nrt_realloc(p, 10, 0));
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(alignedTo(p, 64));
    for (std::size_t i = 0; i < 10; ++i)
        EXPECT_EQ(p[i], static_cast<unsigned char>(i * 7 + 1));
    nrt_free(p);
    nrt_set_heap_ops(nullptr);
}

TEST(AlignedAllocator, ReallocOfNullAllocatesAndOfSizeZeroFrees) {
    RecordingHeap heap;
    void* p = nrt_realloc(nullptr, 100, 64);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(alignedTo(p, 64));
    EXPECT_EQ(heap.log().mallocs, 1);
    EXPECT_EQ(nrt_realloc(p, 0, 64), nullptr);
    EXPECT_EQ(heap.log().frees, 1);
}

TEST(AlignedAllocator, FailedReallocLeavesTheOldBlockIntact) {
    RecordingHeap heap;
    auto* p = static_cast<unsigned char*>(nrt_malloc(64, 16));
    ASSERT_NE(p, nullptr);
    fill(p, 64, 0x3C);
    heap.log().failAfter = 0;
    EXPECT_EQ(nrt_realloc(p, 1 << 20, 16), nullptr);
    heap.log().failAfter = -1;
    EXPECT_TRUE(holds(p, 64, 0x3C));
    nrt_free(p);
    EXPECT_EQ(heap.log().frees, 1);
}

// ---- Fast allocator -------------------------------------------------------

TEST(FastAllocator, RepeatedSizeIsServedFromTheCache) {
    onFreshThread([] {
        RecordingHeap heap;
        void* first = nrt_fast_malloc(4096, 64);
        ASSERT_NE(first, nullptr);
        EXPECT_TRUE(alignedTo(first, 64));
        nrt_fast_free(first);
        for (int i = 0; i < 100; ++i) {
            void* p = nrt_fast_malloc(4096, 64);
            EXPECT_EQ(p, first);
            fill(p, 4096, static_cast<unsigned char>(i));
            nrt_fast_free(p);
        }
        EXPECT_EQ(heap.log().mallocs, 1);
        EXPECT_EQ(heap.log().frees, 0);
        const auto cache = currentThreadCache();
        ASSERT_EQ(cache.size(), 1u);
        EXPECT_FALSE(cache[0].busy);
        EXPECT_EQ(cache[0].systemSize, 4096u + 64u);
    });
}

TEST(FastAllocator, AlignmentRulesMatchTheAlignedAllocator) {
    onFreshThread([] {
        for (int a : {4, 16, 64, 256, 4096}) {
            void* p = nrt_fast_malloc(100, a);
            ASSERT_NE(p, nullptr);
            EXPECT_TRUE(alignedTo(p, a)) << a;
            fill(p, 100, 1);
            nrt_fast_free(p);
        }
        trimThreadCache();
        void* p = nrt_fast_malloc(100, 48);
        EXPECT_TRUE(alignedTo(p, 64));
        auto cache = currentThreadCache();
        ASSERT_EQ(cache.size(), 1u);
        EXPECT_EQ(cache[0].systemSize, 164u);
        nrt_fast_free(p);
        trimThreadCache();
        p = nrt_fast_malloc(100, 2);
        cache = currentThreadCache();
        ASSERT_EQ(cache.size(), 1u);
        EXPECT_EQ(cache[0].systemSize, 100u); // below 4: nothing added
        nrt_fast_free(p);
    });
}

TEST(FastAllocator, TheLimitItselfIsCachedOneByteMoreIsNot) {
    onFreshThread([] {
        RecordingHeap heap;
        void* atLimit = nrt_fast_malloc(NRT_FAST_MM_LIMIT, 64);
        ASSERT_NE(atLimit, nullptr);
        ASSERT_EQ(currentThreadCache().size(), 1u);
        EXPECT_TRUE(currentThreadCache()[0].busy);

        void* above = nrt_fast_malloc(NRT_FAST_MM_LIMIT + 1, 64);
        ASSERT_NE(above, nullptr);
        // Straight from the system, with no alignment step.
        EXPECT_EQ(heap.log().lastSize, NRT_FAST_MM_LIMIT + 1);
        EXPECT_EQ(currentThreadCache().size(), 1u);

        nrt_fast_free(above);
        EXPECT_EQ(heap.log().frees, 1);
        nrt_fast_free(atLimit);
        EXPECT_EQ(heap.log().frees, 1);
        EXPECT_FALSE(currentThreadCache()[0].busy);
    });
}

TEST(FastAllocator, SixthLiveBlockGoesToTheSystemAndBackToFree) {
    onFreshThread([] {
        RecordingHeap heap;
        std::vector<void*> live;
        for (int i = 0; i < 5; ++i) {
            live.push_back(nrt_fast_malloc(1024, 64));
            fill(live.back(), 1024, static_cast<unsigned char>(i + 1));
        }
        EXPECT_EQ(currentThreadCache().size(), 5u);
        const long mallocsBefore = heap.log().mallocs;

        void* sixth = nrt_fast_malloc(1024, 64);
        ASSERT_NE(sixth, nullptr);
        EXPECT_EQ(heap.log().mallocs, mallocsBefore + 1);
        EXPECT_EQ(heap.log().lastSize, 1024u); // no alignment step on this path
        fill(sixth, 1024, 0x66);
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(holds(live[i], 1024, static_cast<unsigned char>(i + 1)));

        nrt_fast_free(sixth);
        EXPECT_EQ(heap.log().frees, 1);
        for (void* p : live)
            nrt_fast_free(p);
        EXPECT_EQ(heap.log().frees, 1); // cached blocks stay with the thread
        for (const auto& entry : currentThreadCache())
            EXPECT_FALSE(entry.busy);
    });
}

TEST(FastAllocator, BiggerIdleBlockIsReusedAsItIs) {
    onFreshThread([] {
        RecordingHeap heap;
        void* big = nrt_fast_malloc(8000, 64);
        nrt_fast_free(big);
        void* small = nrt_fast_malloc(500, 64);
        EXPECT_EQ(small, big);
        EXPECT_EQ(heap.log().mallocs, 1);
        const auto cache = currentThreadCache();
        ASSERT_EQ(cache.size(), 1u);
        EXPECT_EQ(cache[0].systemSize, 8064u);
        EXPECT_EQ(cache[0].asked, 500u);
        nrt_fast_free(small);
    });
}

TEST(FastAllocator, FullCacheReplacesAnIdleSmallerBlock) {
    onFreshThread([] {
        RecordingHeap heap;
        std::vector<void*> blocks;
        for (std::size_t size : {100u, 200u, 300u, 400u, 500u})
            blocks.push_back(nrt_fast_malloc(size, 16));
        blocks.erase(blocks.begin() + 1); // 200 stays busy
        for (void* p : blocks)
            nrt_fast_free(p);
        const long frees = heap.log().frees;
        const long mallocs = heap.log().mallocs;

        void* large = nrt_fast_malloc(1000, 16);
        ASSERT_NE(large, nullptr);
        fill(large, 1000, 9);
        EXPECT_EQ(heap.log().frees, frees + 1);
        EXPECT_EQ(heap.log().mallocs, mallocs + 1);
        const auto cache = currentThreadCache();
        ASSERT_EQ(cache.size(), 5u);
        // The first idle smaller one (100) was replaced.
        EXPECT_EQ(cache[0].systemSize, 1016u);
        EXPECT_TRUE(cache[0].busy);
        EXPECT_TRUE(cache[1].busy); // 200, untouched
        nrt_fast_free(large);
    });
}

TEST(FastAllocator, BlockReleasedOnAnotherThreadBecomesIdleInTheOwnersCache) {
    RecordingHeap heap;
    onFreshThread([&heap] {
        void* p = nrt_fast_malloc(2048, 64);
        fill(p, 2048, 0x77);
        ASSERT_TRUE(currentThreadCache()[0].busy);

        std::thread other([p] {
            EXPECT_TRUE(holds(p, 2048, 0x77));
            nrt_fast_free(p);
        });
        other.join();

        EXPECT_EQ(heap.log().frees, 0);
        ASSERT_EQ(currentThreadCache().size(), 1u);
        EXPECT_FALSE(currentThreadCache()[0].busy);
        EXPECT_EQ(nrt_fast_malloc(2048, 64), p); // and is handed out again
        nrt_fast_free(p);
    });
}

TEST(FastAllocator, SystemFailureGivesNull) {
    onFreshThread([] {
        RecordingHeap heap;
        heap.log().failAfter = 0;
        EXPECT_EQ(nrt_fast_malloc(512, 64), nullptr);
        EXPECT_EQ(nrt_fast_malloc(NRT_FAST_MM_LIMIT + 10, 64), nullptr);
    });
}

TEST(FastAllocator, ShortLivedThreadsDoNotUseUpTheSlots) {
    onFreshThread([] { nrt_fast_free(nrt_fast_malloc(64, 64)); });
    const int before = nrt::detail::fastSlotsInUse();
    for (int i = 0; i < 50; ++i)
        onFreshThread([] { nrt_fast_free(nrt_fast_malloc(64, 64)); });
    EXPECT_LE(nrt::detail::fastSlotsInUse(), before + 1);
}

} // namespace

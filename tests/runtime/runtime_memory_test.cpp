// Aligned and fast allocators: alignment rules, the sizes asked of the system,
// zeroing, reallocation across a moving system heap, and the per-thread cache
// (hits, reuse of bigger blocks, replacement, the sixth live block, the size
// limit, release on a foreign thread).

#include "HeapRecorder.h"
#include "runtime/internal/FastAllocator.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <bit>
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

bool holds(const void* p, std::size_t size, unsigned char value) {
    const auto* bytes = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < size; ++i)
        if (bytes[i] != value) return false;
    return true;
}

TEST(AlignedAllocator, SizeZeroGivesNullEverywhere) {
    RecordingHeap heap;
    EXPECT_EQ(nrt_malloc(0, 64), nullptr);
    EXPECT_EQ(nrt_calloc(8, 0, 64), nullptr);
    EXPECT_EQ(nrt_fast_malloc(0, 64), nullptr);
    EXPECT_EQ(heap.log().mallocs + heap.log().callocs, 0);
}

TEST(AlignedAllocator, AlignmentIsHonouredAndRoundedUpToAPowerOfTwo) {
    RecordingHeap heap;
    auto askedFor = [&](int alignment) {
        void* p = nrt_malloc(1000, alignment);
        EXPECT_TRUE(alignedTo(p, alignment < 4                              ? 1
                                 : std::has_single_bit(unsigned(alignment)) ? alignment
                                                                            : 64))
            << alignment;
        std::memset(p, 0x5A, 1000);
        const std::size_t asked = heap.log().lastSize;
        nrt_free(p);
        return asked;
    };
    const std::size_t none = askedFor(0);
    EXPECT_GT(none, 1000u); // room for the header
    EXPECT_EQ(askedFor(3), none) << "below 4 counts as no alignment";
    EXPECT_EQ(askedFor(-8), none);
    EXPECT_EQ(askedFor(4), none + 4);
    EXPECT_EQ(askedFor(4096), none + 4096);
    EXPECT_EQ(askedFor(48), none + 64) << "not a power of two: taken as 64";
    EXPECT_EQ(askedFor(100), none + 64);
    EXPECT_EQ(heap.log().frees, heap.log().mallocs);
}

TEST(AlignedAllocator, CallocZeroesOverDirtyMemoryAndRefusesOverflow) {
    // Dirty the heap so that a missing zero fill cannot pass by luck.
    for (int i = 0; i < 8; ++i) {
        void* dirty = nrt_malloc(4099, 32);
        std::memset(dirty, 0xEE, 4099);
        nrt_free(dirty);
    }
    void* p = nrt_calloc(4099, 1, 32);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(alignedTo(p, 32));
    EXPECT_TRUE(holds(p, 4099, 0));
    nrt_free(p);

    RecordingHeap heap;
    EXPECT_EQ(nrt_calloc(SIZE_MAX / 2, 3, 64), nullptr);
    EXPECT_EQ(nrt_malloc(SIZE_MAX - 8, 64), nullptr);
    EXPECT_EQ(heap.log().mallocs, 0);
}

TEST(AlignedAllocator, SystemFailuresGiveNullAndKeepTheOldBlock) {
    RecordingHeap heap;
    void* p = nrt_realloc(nullptr, 64, 16);
    ASSERT_NE(p, nullptr);
    std::memset(p, 0x3C, 64);
    heap.log().failAfter = 0;
    EXPECT_EQ(nrt_malloc(64, 64), nullptr);
    EXPECT_EQ(nrt_calloc(4, 16, 64), nullptr);
    EXPECT_EQ(nrt_realloc(p, 1 << 20, 16), nullptr);
    heap.log().failAfter = -1;
    EXPECT_TRUE(holds(p, 64, 0x3C));
    EXPECT_EQ(nrt_realloc(p, 0, 16), nullptr) << "size zero frees";
    EXPECT_EQ(heap.log().frees, 1);
}

// A system heap whose realloc always moves the block to another residue
// modulo 64, so that keeping the old offset gives a misaligned pointer.
struct ArenaHeap {
    alignas(64) static inline unsigned char memory[1 << 20];
    static inline std::size_t cursor = 0;
    static inline int step = 0;
    static void* take(std::size_t size, void* old) {
        step = (step + 1) % 4;
        cursor = (cursor + 63) / 64 * 64 + 16 * step;
        if (cursor + size > sizeof memory) return nullptr;
        if (old != nullptr) std::memmove(memory + cursor, old, size);
        cursor += size;
        return memory + cursor - size;
    }
    static void* malloc(std::size_t size) { return take(size, nullptr); }
    static void* realloc(void* old, std::size_t size) { return take(size, old); }
    static void free(void*) {}
};

TEST(AlignedAllocator, ReallocKeepsContentsAndAlignmentWhenTheSystemMovesTheBlock) {
    const nrt_heap_ops arena{&ArenaHeap::malloc, nullptr, &ArenaHeap::realloc, &ArenaHeap::free};
    nrt_set_heap_ops(&arena);
    std::size_t size = 40;
    auto* p = static_cast<unsigned char*>(nrt_malloc(size, 64));
    ASSERT_NE(p, nullptr);
    for (int round = 0; round < 8; ++round) {
        for (std::size_t i = 0; i < size; ++i)
            p[i] = static_cast<unsigned char>(i * 7 + 1);
        p = static_cast<unsigned char*>(nrt_realloc(p, size + 24 + round, 0));
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(alignedTo(p, 64)) << "round " << round;
        for (std::size_t i = 0; i < size; ++i)
            ASSERT_EQ(p[i], static_cast<unsigned char>(i * 7 + 1)) << "round " << round;
        size += 24 + round;
    }
    nrt_free(p);
    nrt_set_heap_ops(nullptr);
}

TEST(FastAllocator, RepeatedSizeIsServedFromTheCache) {
    onFreshThread([] {
        RecordingHeap heap;
        void* first = nrt_fast_malloc(4096, 64);
        ASSERT_NE(first, nullptr);
        EXPECT_TRUE(alignedTo(first, 64));
        nrt_fast_free(first);
        for (int i = 0; i < 10; ++i) {
            void* p = nrt_fast_malloc(4096, 64);
            EXPECT_EQ(p, first);
            nrt_fast_free(p);
        }
        EXPECT_EQ(heap.log().mallocs, 1);
        EXPECT_EQ(heap.log().frees, 0);
        ASSERT_EQ(currentThreadCache().size(), 1u);
        EXPECT_EQ(currentThreadCache()[0].systemSize, 4096u + 64u);
    });
}

TEST(FastAllocator, AlignmentRulesMatchTheAlignedAllocator) {
    onFreshThread([] {
        for (auto [alignment, systemSize] : {std::pair{48, 164u}, {2, 100u}, {4096, 4196u}}) {
            void* p = nrt_fast_malloc(100, alignment);
            EXPECT_TRUE(alignedTo(p, alignment == 48 ? 64 : alignment));
            ASSERT_EQ(currentThreadCache().size(), 1u);
            EXPECT_EQ(currentThreadCache()[0].systemSize, systemSize) << alignment;
            nrt_fast_free(p);
            trimThreadCache();
        }
    });
}

TEST(FastAllocator, TheLimitItselfIsCachedOneByteMoreIsNot) {
    onFreshThread([] {
        RecordingHeap heap;
        void* atLimit = nrt_fast_malloc(NRT_FAST_MM_LIMIT, 64);
        ASSERT_EQ(currentThreadCache().size(), 1u);
        void* above = nrt_fast_malloc(NRT_FAST_MM_LIMIT + 1, 64);
        ASSERT_NE(above, nullptr);
        EXPECT_EQ(heap.log().lastSize, NRT_FAST_MM_LIMIT + 1) << "no alignment step";
        EXPECT_EQ(currentThreadCache().size(), 1u);
        nrt_fast_free(above);
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
            std::memset(live.back(), i + 1, 1024);
        }
        const long mallocsBefore = heap.log().mallocs;
        void* sixth = nrt_fast_malloc(1024, 64);
        ASSERT_NE(sixth, nullptr);
        EXPECT_EQ(heap.log().mallocs, mallocsBefore + 1);
        EXPECT_EQ(heap.log().lastSize, 1024u); // no alignment step on this path
        std::memset(sixth, 0x66, 1024);
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(holds(live[i], 1024, static_cast<unsigned char>(i + 1)));
        nrt_fast_free(sixth);
        for (void* p : live)
            nrt_fast_free(p);
        EXPECT_EQ(heap.log().frees, 1) << "cached blocks stay with the thread";
        EXPECT_EQ(currentThreadCache().size(), 5u);
    });
}

TEST(FastAllocator, BiggerIdleBlockIsReusedAndAFullCacheReplacesASmallerOne) {
    onFreshThread([] {
        RecordingHeap heap;
        void* big = nrt_fast_malloc(8000, 16);
        nrt_fast_free(big);
        EXPECT_EQ(nrt_fast_malloc(500, 16), big);
        EXPECT_EQ(heap.log().mallocs, 1);
        nrt_fast_free(big);
        trimThreadCache();

        std::vector<void*> blocks;
        for (std::size_t size : {100u, 200u, 300u, 400u, 500u})
            blocks.push_back(nrt_fast_malloc(size, 16));
        blocks.erase(blocks.begin() + 1); // 200 stays busy
        for (void* p : blocks)
            nrt_fast_free(p);
        const long frees = heap.log().frees;
        void* large = nrt_fast_malloc(1000, 16);
        EXPECT_EQ(heap.log().frees, frees + 1);
        const auto cache = currentThreadCache();
        ASSERT_EQ(cache.size(), 5u);
        EXPECT_EQ(cache[0].systemSize, 1016u) << "the first idle smaller one goes";
        EXPECT_TRUE(cache[1].busy);
        nrt_fast_free(large);
    });
}

TEST(FastAllocator, BlockReleasedOnAnotherThreadBecomesIdleInTheOwnersCache) {
    RecordingHeap heap;
    onFreshThread([&heap] {
        void* p = nrt_fast_malloc(2048, 64);
        std::memset(p, 0x77, 2048);
        std::thread other([p] {
            EXPECT_TRUE(holds(p, 2048, 0x77));
            nrt_fast_free(p);
        });
        other.join();
        EXPECT_EQ(heap.log().frees, 0);
        ASSERT_EQ(currentThreadCache().size(), 1u);
        EXPECT_FALSE(currentThreadCache()[0].busy);
        EXPECT_EQ(nrt_fast_malloc(2048, 64), p);
        nrt_fast_free(p);
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

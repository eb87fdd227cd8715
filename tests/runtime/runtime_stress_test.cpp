// Sixteen threads hammer the runtime at once: first use of thread control,
// processor detection and the clock from all of them together, then blocks of
// the fast and aligned allocators handed from thread to thread and released
// where they land. A block handed out twice, or released into the wrong cache
// entry, shows up as a damaged pattern; races show up under ThreadSanitizer
// (build with -DSKYRINSE_SANITIZE=thread).

#include "runtime/internal/FastAllocator.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 16;
// Fewer rounds under ThreadSanitizer, which slows each operation tenfold and
// more; the interleavings still number in the tens of thousands.
#if defined(__SANITIZE_THREAD__)
constexpr int kRounds = 300;
#else
constexpr int kRounds = 1000;
#endif

struct Block {
    void* p = nullptr;
    std::size_t size = 0;
    unsigned char stamp = 0;
    bool fast = true;
};

class Exchange {
public:
    void put(const Block& b) {
        std::lock_guard guard(mutex_);
        blocks_.push_back(b);
    }
    bool take(Block& b) {
        std::lock_guard guard(mutex_);
        if (blocks_.empty()) return false;
        b = blocks_.front();
        blocks_.pop_front();
        return true;
    }

private:
    std::mutex mutex_;
    std::deque<Block> blocks_;
};

bool intact(const Block& b) {
    const auto* bytes = static_cast<const unsigned char*>(b.p);
    for (std::size_t i = 0; i < b.size; i += 61)
        if (bytes[i] != b.stamp) return false;
    return bytes[b.size - 1] == b.stamp;
}

void release(const Block& b) {
    if (b.fast)
        nrt_fast_free(b.p);
    else
        nrt_free(b.p);
}

TEST(RuntimeStress, SixteenThreadsShareBlocksAcrossThreads) {
    Exchange exchange;
    std::atomic<int> damaged{0}, misaligned{0}, nulls{0}, firstUseMismatch{0};
    std::atomic<int> busyLeft{0};
    std::barrier start(kThreads), drained(kThreads);

    const std::size_t sizes[] = {48, 1024, 4096, 65536, 1 << 18};

    auto worker = [&](int id) {
        start.arrive_and_wait();
        // Everybody triggers the first-use paths together.
        const int threads = nrt_get_max_threads();
        const int type = nrt_cpu_detect();
        const double t0 = nrt_seconds();
        if (threads < 1 || type < 0 || type > 5 || nrt_seconds() < t0) firstUseMismatch++;

        std::mt19937 engine(static_cast<unsigned>(id) * 7919u + 1);
        for (int round = 0; round < kRounds; ++round) {
            for (int k = 0; k < 3; ++k) {
                Block b;
                b.size = sizes[engine() % std::size(sizes)];
                b.stamp = static_cast<unsigned char>(engine() | 1);
                b.fast = (engine() % 4) != 0;
                const int alignment = 1 << (engine() % 8); // 1 .. 128
                b.p = b.fast ? nrt_fast_malloc(b.size, alignment) : nrt_malloc(b.size, alignment);
                if (b.p == nullptr) {
                    nulls++;
                    continue;
                }
                // Cached blocks honour the alignment; system ones (all five
                // entries busy) carry only the system's 16 bytes.
                const std::uintptr_t align = alignment < 4 ? 1 : std::min(alignment, 16);
                if (reinterpret_cast<std::uintptr_t>(b.p) % align != 0) misaligned++;
                std::memset(b.p, b.stamp, b.size);
                exchange.put(b);
            }
            for (int k = 0; k < 3; ++k) {
                Block b;
                if (!exchange.take(b)) break;
                if (!intact(b)) damaged++;
                release(b);
            }
        }
        drained.arrive_and_wait();
        if (id == 0) {
            Block b;
            while (exchange.take(b)) {
                if (!intact(b)) damaged++;
                release(b);
            }
        }
        drained.arrive_and_wait();
        for (const auto& entry : nrt::detail::currentThreadCache())
            if (entry.busy) busyLeft++;
    };

    std::vector<std::thread> pool;
    for (int id = 0; id < kThreads; ++id)
        pool.emplace_back(worker, id);
    for (std::thread& t : pool)
        t.join();

    EXPECT_EQ(firstUseMismatch, 0);
    EXPECT_EQ(nulls, 0);
    EXPECT_EQ(misaligned, 0);
    EXPECT_EQ(damaged, 0);
    EXPECT_EQ(busyLeft, 0) << "every block was released, so every cache entry must be idle";
}

} // namespace

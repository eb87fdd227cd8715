// The one lock of the runtime services.
//
// Thread control, processor detection and the fast allocator's slot table all
// share it. It guards work that happens a handful of times per process (the
// environment step, the topology probe, a thread's first allocation, a block
// released by a foreign thread), so a busy loop costs less than a futex would
// and keeps the lock usable before any other part of the runtime is set up.
#pragma once

#include <atomic>
#include <thread>

namespace nrt::detail {

class SpinLock {
public:
    void lock() noexcept {
        int expected = 0;
        while (!word_.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            expected = 0;
            // Spin on a plain load so that waiters do not keep stealing the
            // cache line from the holder. When more threads than cores wait,
            // the holder may be off the processor: give the core away rather
            // than spin through its whole time slice.
            for (int spins = 0; word_.load(std::memory_order_relaxed) != 0; ++spins) {
                if (spins < kSpinsBeforeYield)
                    pause();
                else
                    std::this_thread::yield();
            }
        }
    }
    void unlock() noexcept { word_.store(0, std::memory_order_release); }

private:
    static constexpr int kSpinsBeforeYield = 64;

    static void pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }

    std::atomic<int> word_{0};
};

// The process-wide instance.
SpinLock& runtimeLock() noexcept;

} // namespace nrt::detail

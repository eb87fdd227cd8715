// The fast allocator against the C library's malloc/free for a work block of
// one size asked for again and again, as the dense kernels do: 4 KiB, 1 MiB and
// 16 MiB, on 1 and 2 threads. Each case is run in two modes: the pair of calls
// alone, and with the block written once per page, as a kernel would use it
// (which is where a system heap that returns big blocks to the kernel pays for
// page faults). Prints the time per allocate/release pair and the speed-up of
// the fast allocator (malloc time / fast time).
//
// Usage: bench_runtime [seconds per case, default 0.25]

#include "runtime/nrt.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPage = 4096;

struct System {
    static void* get(std::size_t size) { return std::malloc(size); }
    static void put(void* p) { std::free(p); }
};

struct Fast {
    static void* get(std::size_t size) { return nrt_fast_malloc(size, 64); }
    static void put(void* p) { nrt_fast_free(p); }
};

// Keeps the compiler from dropping writes to a block that is freed at once.
std::atomic<unsigned> sink{0};

template <typename Allocator>
long long loop(std::size_t size, bool touch, double seconds) {
    long long pairs = 0;
    unsigned acc = 0;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    do {
        for (int i = 0; i < 16; ++i) {
            auto* p = static_cast<volatile unsigned char*>(Allocator::get(size));
            if (p == nullptr) {
                std::fprintf(stderr, "allocation of %zu bytes failed\n", size);
                std::exit(1);
            }
            if (touch)
                for (std::size_t off = 0; off < size; off += kPage)
                    p[off] = static_cast<unsigned char>(off);
            else
                p[0] = 1;
            acc += p[size - 1];
            Allocator::put(const_cast<unsigned char*>(p));
        }
        pairs += 16;
    } while (Clock::now() < end);
    sink += acc;
    return pairs;
}

// Nanoseconds per pair, with `threads` threads each running the loop.
template <typename Allocator>
double measure(std::size_t size, bool touch, int threads, double seconds) {
    loop<Allocator>(size, touch, 0.02); // warm the cache and the heap
    std::atomic<long long> total{0};
    const auto start = Clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&] { total += loop<Allocator>(size, touch, seconds); });
    for (std::thread& t : pool)
        t.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    // Per pair and thread: what one kernel call waits.
    return elapsed * 1e9 * threads / static_cast<double>(total.load());
}

} // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0.25;
    std::printf("fast allocator vs malloc/free, same-size blocks, %.2f s per case\n", seconds);
    std::printf("%-8s %-7s %-6s %14s %14s %9s\n", "size", "threads", "mode", "malloc ns/pair",
                "fast ns/pair", "speed-up");
    struct Size {
        const char* label;
        std::size_t bytes;
    };
    const Size sizes[] = {{"4 KiB", 4 << 10}, {"1 MiB", 1 << 20}, {"16 MiB", 16 << 20}};
    for (const Size& size : sizes) {
        for (int threads : {1, 2}) {
            for (bool touch : {false, true}) {
                const double system = measure<System>(size.bytes, touch, threads, seconds);
                const double fast = measure<Fast>(size.bytes, touch, threads, seconds);
                std::printf("%-8s %-7d %-6s %14.1f %14.1f %8.2fx\n", size.label, threads,
                            touch ? "pages" : "bare", system, fast, system / fast);
            }
        }
    }
    return sink.load() == 0xFFFFFFFFu ? 1 : 0;
}

// The memory bandwidth that the image benchmarks measure themselves against,
// in the same run: bytes per second of a stream triad a = b + s c over
// arrays far larger than the caches (128 MiB each). Three arrays are counted
// as moved, as STREAM counts them (the write allocation of a is not).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace bench {

inline double triadBandwidth(int threads) {
    const std::size_t n = std::size_t{1} << 25;
    std::vector<float> a(n), b(n, 1.0f), c(n, 2.0f);
    double best = 1e30;
    for (int r = 0; r < 4; ++r) {
        const auto start = std::chrono::steady_clock::now();
#pragma omp parallel for schedule(static) num_threads(threads)
        for (std::size_t i = 0; i < n; ++i)
            a[i] = b[i] + 0.5f * c[i];
        best = std::min(
            best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    volatile float sink = a[n / 2];
    (void)sink;
    return 3.0 * static_cast<double>(n * sizeof(float)) / best;
}

} // namespace bench

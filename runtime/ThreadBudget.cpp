// How many threads a piece of work is worth, and what each thread costs in
// address space.
#include "runtime/internal/BlasThreads.h"
#include "runtime/nrt.h"
#include "runtime/nrt_work.h"

#include <algorithm>

namespace {

// glibc gives each thread that allocates an arena of its own, reserved whole
// (twice the largest mmap threshold on 64-bit systems).
constexpr std::size_t kArenaBytes = std::size_t{64} << 20;
// The default thread stack of the C library and of the OpenMP runtime.
constexpr std::size_t kStackBytes = std::size_t{8} << 20;

} // namespace

extern "C" {

int nrt_threads_for_work(long long work, long long grain, int limit) {
    if (limit < 1) limit = nrt_get_max_threads();
    if (work <= 0) return 1;
    const long long useful = grain > 0 ? work / grain : work;
    return static_cast<int>(std::clamp<long long>(useful, 1, limit));
}

size_t nrt_thread_reserve_bytes(int threads) {
    const auto team = static_cast<std::size_t>(std::max(1, threads));
    return team * nrt::detail::kBlasBufferBytes + (team - 1) * (kArenaBytes + kStackBytes);
}

} // extern "C"

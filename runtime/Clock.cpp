// The solver's clock: the time stamp counter divided by a tick rate measured
// once against the monotonic clock.
//
// Reading the counter costs a few cycles, which matters when every stage of a
// factorization is timed. The rate is measured over about 0.1 s of processor
// time at the first call; if that measurement is unusable (a counter that does
// not move, a monotonic clock that did not advance) the rate is taken as 1e9,
// which is right within a factor of a few on every current machine and keeps
// the figures printable.

#include "runtime/nrt.h"

#include <ctime>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace {

unsigned long long monotonicNanoseconds() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ull +
           static_cast<unsigned long long>(ts.tv_nsec);
}

double measureTickRate() noexcept {
    const unsigned long long ns0 = monotonicNanoseconds();
    const unsigned long long tsc0 = nrt_clocks();
    // Busy-wait on the processor-time clock for a tenth of a second, the same
    // span on every platform whatever its CLOCKS_PER_SEC.
    const std::clock_t start = std::clock();
    const std::clock_t span = CLOCKS_PER_SEC / 10;
    if (start != static_cast<std::clock_t>(-1)) {
        while (std::clock() - start < span) {
        }
    }
    const unsigned long long ns1 = monotonicNanoseconds();
    const unsigned long long tsc1 = nrt_clocks();

    const double seconds = static_cast<double>(ns1 - ns0) * 1e-9;
    if (seconds >= 0.0001 && tsc1 != tsc0) return static_cast<double>(tsc1 - tsc0) / seconds;
    return 1e9;
}

} // namespace

extern "C" unsigned long long nrt_clocks(void) {
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    return monotonicNanoseconds();
#endif
}

extern "C" double nrt_seconds(void) {
    // A guarded static rather than the runtime lock: threads that arrive during
    // the tenth of a second of calibration sleep instead of spinning.
    static const double rate = measureTickRate();
    return static_cast<double>(nrt_clocks()) / rate;
}

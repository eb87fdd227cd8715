// The solver's clock: the time stamp counter divided by a tick rate measured
// once against the monotonic clock.
//
// Reading the counter costs a few cycles, which matters when every stage of a
// factorization is timed. The rate is measured over 10 ms of the monotonic
// clock at the first call: the counter of every current x86 processor runs at
// a constant rate, so a longer span buys no accuracy that the reports could
// show (10 ms against a clock read to the nanosecond is within 1e-5), while
// every process that solves once pays the span. If that measurement is
// unusable (a counter that does not move, a monotonic clock that did not
// advance) the rate is taken as 1e9, which is right within a factor of a few
// on every current machine and keeps the figures printable.

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
    // A busy wait rather than a sleep, so that the two end readings are
    // taken back to back, not after a wake-up delay; bounded in reads too,
    // for a monotonic clock that does not advance.
    constexpr unsigned long long span = 10000000; // ns
    unsigned long long ns1 = ns0;
    for (long reads = 0; ns1 - ns0 < span && reads < 100000000; ++reads)
        ns1 = monotonicNanoseconds();
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

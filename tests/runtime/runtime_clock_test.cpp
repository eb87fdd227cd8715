// The calibrated clock: its seconds agree with the monotonic clock over a
// known span, and it never runs backwards, also across threads.

#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace {

TEST(Clock, SecondsAgreeWithTheMonotonicClock) {
    (void)nrt_seconds(); // calibration happens here, outside the measured span
    const auto wall0 = std::chrono::steady_clock::now();
    const double t0 = nrt_seconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double t1 = nrt_seconds();
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    // A wrong tick rate (for instance the 1e9 fallback on a 3 GHz counter) is
    // off by a factor; calibration error is well under a percent.
    EXPECT_NEAR((t1 - t0) / wall, 1.0, 0.05) << "clock " << t1 - t0 << " s, wall " << wall << " s";
}

TEST(Clock, NeverRunsBackwards) {
    std::vector<std::thread> pool;
    std::vector<int> backwards(2, 0);
    for (int t = 0; t < 2; ++t)
        pool.emplace_back([t, &backwards] {
            double last = nrt_seconds();
            unsigned long long lastClocks = nrt_clocks();
            for (int i = 0; i < 100000; ++i) {
                const double now = nrt_seconds();
                const unsigned long long clocks = nrt_clocks();
                backwards[t] += (now < last) + (clocks < lastClocks);
                last = now;
                lastClocks = clocks;
            }
        });
    for (std::thread& t : pool)
        t.join();
    EXPECT_EQ(backwards[0] + backwards[1], 0);
}

} // namespace

// Allocation failure sweep of the factorization and solve: after a good
// analysis, the k-th allocation of phase 23 fails, for k = 1, 2, ... until
// the phase gets through. Each failure must be -2 with the code of the
// block (factor values, numeric work, solve work), leave the handle usable
// for a repeated phase 23, and phase -1 must give back every block.
#include "NumericSupport.h"

#include "Handle.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

long long g_live = 0;
long long g_count = 0;
long long g_failAt = 0;

bool failNow() {
    return g_failAt > 0 && ++g_count == g_failAt;
}
void* testMalloc(std::size_t size) {
    if (failNow()) return nullptr;
    void* p = std::malloc(size);
    if (p) ++g_live;
    return p;
}
void* testCalloc(std::size_t count, std::size_t size) {
    if (failNow()) return nullptr;
    void* p = std::calloc(count, size);
    if (p) ++g_live;
    return p;
}
void* testRealloc(void* p, std::size_t size) {
    if (failNow()) return nullptr;
    void* q = std::realloc(p, size);
    if (q && !p) ++g_live;
    return q;
}
void testFree(void* p) {
    if (p) --g_live;
    std::free(p);
}

class NumericAllocationSweep : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        const nrt_heap_ops ops{testMalloc, testCalloc, testRealloc, testFree};
        nrt_set_heap_ops(&ops);
        g_live = g_count = g_failAt = 0;
    }
    void TearDown() override { nrt_set_heap_ops(nullptr); }
};

TEST_P(NumericAllocationSweep, EveryFailureIsReportedAndRecoverable) {
    std::mt19937 rng(3);
    const int mtype = GetParam();
    const numtest::System s =
        mtype == 11 ? numtest::fromEntries("unsymmetric", 11, 80,
                                           numtest::unsymmetricEntries(80, 0.05, rng))
                    : numtest::fromEntries("grid", mtype, 144, numtest::gridEntries(12, 12, 0.1));
    const std::vector<double> b = numtest::randomVector(static_cast<std::size_t>(s.n), 1);
    int failures = 0;
    for (long long k = 1; k < 200; ++k) {
        g_live = 0;
        {
            numtest::SpdsRun<double> run(s);
            g_failAt = 0;
            ASSERT_EQ(run.call(11), 0);
            g_count = 0;
            g_failAt = k;
            std::vector<double> bt = b, x(b.size());
            const int error = run.call(23, &bt, &x);
            g_failAt = 0;
            if (error == 0) {
                EXPECT_LE(numtest::relativeResidual(s, x, b, 1), 1e-12);
                break;
            }
            ++failures;
            EXPECT_EQ(error, -2) << "allocation " << k;
            const int code = skyrinse::spds::handleOf(run.pt)->internalCode;
            EXPECT_TRUE(code == -1100 || code == -1200 || code == -1300)
                << "allocation " << k << " code " << code;
            ASSERT_EQ(run.call(23, &bt, &x), 0) << "the handle works again after " << k;
            EXPECT_LE(numtest::relativeResidual(s, x, b, 1), 1e-12);
        }
        EXPECT_EQ(g_live, 0) << "blocks left after phase -1, failure at " << k;
    }
    EXPECT_GT(failures, 5) << "the phase allocates its factor and work blocks";
}

INSTANTIATE_TEST_SUITE_P(Types, NumericAllocationSweep, ::testing::Values(2, -2, 11));

} // namespace

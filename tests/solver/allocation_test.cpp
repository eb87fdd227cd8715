// Allocation failure sweep: the k-th allocation of the solver fails, for
// k = 1, 2, ... until the analysis gets through. Each failure must come back
// as -2 with a block code, keep the handle usable, and phase -1 must give
// back every byte.
#include "SpdsCall.h"

#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// Test heap: counts live blocks and fails the allocation numbered failAt.
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

class AllocationSweep : public ::testing::Test {
protected:
    void SetUp() override {
        const nrt_heap_ops ops{testMalloc, testCalloc, testRealloc, testFree};
        nrt_set_heap_ops(&ops);
        g_live = g_count = g_failAt = 0;
    }
    void TearDown() override { nrt_set_heap_ops(nullptr); }
};

void sweep(const spdstest::Matrix& m, int mtype, int ordering) {
    int failures = 0;
    for (long long k = 1; k < 1000; ++k) {
        g_live = 0;
        g_count = 0;
        g_failAt = k;
        int error = 0;
        int code = 0;
        {
            spdstest::Solver s;
            s.mtype = mtype;
            s.iparm[0] = 1;
            s.iparm[1] = ordering;
            error = s.call(11, m);
            // Without the handle's own block there is nowhere to keep a code.
            if (s.handle())
                code = s.handle()->internalCode;
            else
                code = k == 1 ? -100 : 0;
            if (error == 0) {
                // Succeeded past the last allocation: a second analysis on
                // the same handle must work without the failing heap.
                g_failAt = 0;
                EXPECT_EQ(s.call(11, m), 0);
            }
        } // phase -1
        EXPECT_EQ(g_live, 0) << "blocks leaked after failing allocation " << k;
        if (error == 0) break;
        ++failures;
        EXPECT_EQ(error, -2) << "allocation " << k;
        EXPECT_LE(code, -100) << "allocation " << k << " names no block";
    }
    EXPECT_GT(failures, 10) << "the sweep should meet the analysis' blocks";
}

TEST_F(AllocationSweep, UnsymmetricNestedDissection) {
    sweep(spdstest::stencilMatrix(20, 15, false), 11, 3);
}

TEST_F(AllocationSweep, SymmetricMinimumDegree) {
    sweep(spdstest::stencilMatrix(20, 15, true), -2, 1);
}

} // namespace

// Allocation failure sweeps through the entry: allocation k of a phase
// fails, for k = 0, 1, ... until the phase gets through. Every failure must
// be -2 with the code of a block, leave the handle usable and the caller's
// arrays as they were, and phase -1 must give back every block.
#include "SpdsTest.h"

#include <gtest/gtest.h>

using namespace spdstest;

namespace {

struct SweepCase {
    const char* what;
    System system;
    int phase;            // 11 or 23 (after a good analysis)
    bool fromThereOn;     // every allocation from k on fails, not k alone
    std::set<int> needed; // codes the failures must name between them
    int minFailures;
};

// Precision T; returns the codes met. Outside the sweep the heap never fails.
template <class T>
std::set<int> sweep(const SweepCase& c, int firstIparm1) {
    const System before = c.system;
    std::set<int> codes;
    int failures = 0;
    for (long k = 0; k < 2000; ++k) {
        FailingHeap heap(-1, c.fromThereOn);
        int error = 0;
        {
            Spds<T> s;
            s.solveDefaults(c.system.mtype);
            s.iparm[1] = firstIparm1;
            if (c.phase == 23) {
                EXPECT_EQ(s.call(11, c.system), 0);
            }
            std::vector<T> b = narrow<T>(randomVector(static_cast<std::size_t>(c.system.n), 1));
            std::vector<T> x(b.size());
            const std::vector<T> rhs = b;
            heap.failAt(k);
            error = s.call(c.phase, c.system, &b, &x);
            heap.stopFailing();
            // Without the handle's own block there is nowhere to keep a code.
            const int code = s.handle() ? s.internalCode() : -100;
            EXPECT_EQ(c.system.ia, before.ia);
            EXPECT_EQ(c.system.ja, before.ja);
            EXPECT_EQ(c.system.a, before.a);
            if (error != 0) {
                ++failures;
                codes.insert(code);
                EXPECT_EQ(error, -2) << "allocation " << k;
                EXPECT_LE(code, -100) << "allocation " << k << " names no block";
            }
            // The handle works again, now that the heap does.
            b = rhs;
            EXPECT_EQ(s.call(c.phase, c.system, &b, &x), 0) << "after failing allocation " << k;
            const double tolerance = std::is_same_v<T, float> ? 1e-5 : 1e-12;
            if (c.phase == 23) {
                EXPECT_LE(relativeResidual(c.system, widen(x), widen(rhs), 1), tolerance);
            }
        } // phase -1
        EXPECT_EQ(heap.live(), 0) << "blocks left after failing allocation " << k;
        if (error == 0) break;
    }
    EXPECT_GE(failures, c.minFailures) << c.what;
    for (int code : c.needed)
        EXPECT_EQ(codes.count(code), 1u) << c.what << ": no failure named " << code;
    return codes;
}

TEST(AllocationSweep, Analysis) {
    std::mt19937 rng(36);
    sweep<double>(
        {"unsymmetric, nested dissection", stencilPattern(20, 15, false), 11, false, {}, 10}, 3);
    // With the matching on, each of its four blocks must be met, in both precisions.
    sweep<double>({"saddle point with matching",
                   fromEntries("saddle", -2, 52, saddleEntries(8, 5, 12, rng)),
                   11,
                   true,
                   {-401, -402, -403, -404},
                   10},
                  2);
    sweep<float>({"unsymmetric with matching",
                  fromEntries("unsym", 11, 40, unsymmetricEntries(40, 0.08, rng)),
                  11,
                  true,
                  {-401, -402, -403, -404},
                  10},
                 2);
}

TEST(AllocationSweep, FactorizationAndSolve) {
    std::mt19937 rng(3);
    for (int mtype : {-2, 11}) {
        const System s = mtype == 11
                             ? fromEntries("unsym", 11, 80, unsymmetricEntries(80, 0.05, rng))
                             : fromEntries("grid", mtype, 144, gridEntries(12, 12, 0.1));
        const std::set<int> codes = sweep<double>({"phase 23", s, 23, false, {}, 5}, 2);
        for (int code : codes)
            EXPECT_TRUE(code == -1100 || code == -1200 || code == -1300) << mtype << ": " << code;
    }
}

} // namespace

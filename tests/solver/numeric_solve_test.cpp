// Factor and solve through the entry, checked against dense LAPACK solves:
// every real matrix type in both precisions, several right-hand sides
// against the same solves one at a time, the transposed solve, and the
// partial solves composing to the full one.
#include "SpdsTest.h"

#include <gtest/gtest.h>

#include <limits>

using namespace spdstest;

namespace {

std::vector<System> families() {
    std::mt19937 rng(20240611);
    std::vector<System> v;
    v.push_back(
        fromEntries("spd random, Cholesky", 2, 150, symmetricEntries(150, 0.03, rng, 1.0, false)));
    v.push_back(fromEntries("spd grid, Cholesky", 2, 400, gridEntries(20, 20, 0.01)));
    v.push_back(
        fromEntries("indefinite random", -2, 150, symmetricEntries(150, 0.03, rng, 1.0, true)));
    v.push_back(fromEntries("saddle point", -2, 144 + 30, saddleEntries(12, 12, 30, rng)));
    v.push_back(fromEntries("unsymmetric random", 11, 160, unsymmetricEntries(160, 0.02, rng)));
    {
        auto e = gridEntries(18, 18, 0.5);
        std::uniform_real_distribution<double> u(0.5, 1.5);
        for (auto& [pos, val] : e)
            if (pos.first != pos.second) val *= u(rng);
        v.push_back(fromEntries("structurally symmetric grid", 1, 324, e));
    }
    return v;
}

template <class T>
class NumericSolve : public ::testing::Test {
protected:
    // Residual after refinement that a well-conditioned system must reach.
    static double tolerance() { return std::is_same_v<T, float> ? 1e-5 : 1e-12; }
    static double eps() { return std::numeric_limits<T>::epsilon(); }
};

using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(NumericSolve, Precisions);

// One shot (13, refined, solution into x or into b) and split phases
// (11, 22, 33) give the same answer, that of the dense solve.
TYPED_TEST(NumericSolve, MatchesDenseSolveForEveryType) {
    using T = TypeParam;
    for (const System& s : families()) {
        SCOPED_TRACE(s.name);
        const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 7);
        SpdsRun<T> once(s), split(s), inPlace(s);
        std::vector<T> bt = narrow<T>(b), x(bt.size(), T(-99)), b2 = bt, x2(bt.size());
        ASSERT_EQ(once.call(13, &bt, &x), 0);
        EXPECT_EQ(widen(bt), widen(narrow<T>(b))) << "b must not be written";
        EXPECT_LE(backwardError(s, widen(x), widen(narrow<T>(b))), this->tolerance());
        EXPECT_LE(relativeDifference(widen(x), denseSolve(s, b, 1)), 1e4 * this->eps());
        EXPECT_LE(once.iparm[6], 2) << "no more steps than asked once the answer is trusted";
        if (s.mtype == 2) {
            EXPECT_EQ(once.iparm[13], 0) << "a definite matrix calls for no perturbed pivot";
        }
        ASSERT_EQ(split.call(11), 0);
        ASSERT_EQ(split.call(22), 0);
        ASSERT_EQ(split.call(33, &b2, &x2), 0);
        EXPECT_EQ(widen(x), widen(x2));
        EXPECT_EQ(once.iparm[21], split.iparm[21]);
        EXPECT_EQ(once.iparm[22], split.iparm[22]);
        inPlace.iparm[5] = 1;
        std::vector<T> b3 = narrow<T>(b), x3(bt.size());
        ASSERT_EQ(inPlace.call(13, &b3, &x3), 0);
        EXPECT_EQ(widen(b3), widen(x));
        EXPECT_EQ(widen(x3), widen(narrow<T>(b))) << "x keeps the right-hand side";
    }
}

// With one unrefined factor: several right-hand sides equal the same solves
// one at a time, the partial solves compose to the full one (a lone forward
// sweep does not), and unsymmetric types solve with A^T on request.
TYPED_TEST(NumericSolve, SolvesWithOneFactor) {
    using T = TypeParam;
    constexpr int kRhs = 5;
    for (const System& s : families()) {
        SCOPED_TRACE(s.name);
        const std::size_t n = static_cast<std::size_t>(s.n);
        SpdsRun<T> run(s);
        run.iparm[7] = 0;
        ASSERT_EQ(run.call(12), 0);
        if (run.iparm[13] > 0) continue; // perturbed: refinement would run anyway
        const std::vector<double> b = randomVector(n * kRhs, 3);
        std::vector<T> all = narrow<T>(b), xall(n * kRhs);
        ASSERT_EQ(run.call(33, &all, &xall, kRhs), 0);
        EXPECT_LE(relativeDifference(widen(xall), denseSolve(s, b, kRhs)), 1e4 * this->eps());
        for (std::size_t j = 0; j < kRhs; ++j) {
            std::vector<T> bj(all.begin() + j * n, all.begin() + (j + 1) * n), xj(n), w(n);
            ASSERT_EQ(run.call(33, &bj, &xj), 0);
            const std::vector<double> blocked(xall.begin() + j * n, xall.begin() + (j + 1) * n);
            // The blocked kernels sum in another order: equal up to rounding.
            EXPECT_LE(relativeDifference(blocked, widen(xj)), 100 * this->eps()) << "column " << j;
            if (j > 0) continue;
            ASSERT_EQ(run.call(331, &bj, &w), 0);
            EXPECT_GT(relativeDifference(widen(w), widen(xj)), 1e-3);
            std::vector<T> v(n);
            ASSERT_EQ(run.call(332, &w, &v), 0);
            ASSERT_EQ(run.call(333, &v, &w), 0);
            EXPECT_LE(relativeDifference(widen(w), widen(xj)), 10 * this->eps());
        }
        if (s.mtype != 11 && s.mtype != 1) continue;
        // Honoured when the caller's values are not taken as they stand.
        run.iparm[0] = 2;
        run.iparm[11] = 2;
        run.iparm[7] = 2;
        const std::vector<double> bt1(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(n));
        std::vector<T> bt = narrow<T>(bt1), x(n);
        ASSERT_EQ(run.call(33, &bt, &x), 0);
        EXPECT_LE(backwardError(s, widen(x), widen(narrow<T>(bt1)), true), this->tolerance());
        EXPECT_GT(relativeResidual(s, widen(x), bt1, 1, false), 1e-3) << "A^T's answer, not A's";
    }
}

} // namespace

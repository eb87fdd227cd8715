// Factor and solve through the entry, checked against dense LAPACK solves:
// every real matrix type in both precisions, several right-hand sides
// against the same solves one at a time, the transposed solve, and the
// partial solves composing to the full one.
#include "NumericSupport.h"

#include <gtest/gtest.h>

#include <limits>

using namespace numtest;

namespace {

std::vector<System> families() {
    std::mt19937 rng(20240611);
    std::vector<System> v;
    v.push_back(
        fromEntries("spd random, Cholesky", 2, 150, symmetricEntries(150, 0.03, rng, 1.0, false)));
    v.push_back(fromEntries("spd grid, Cholesky", 2, 400, gridEntries(20, 20, 0.01)));
    v.push_back(fromEntries("spd grid, LDLt", -2, 400, gridEntries(20, 20, 0.01)));
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

TYPED_TEST(NumericSolve, MatchesDenseSolveForEveryType) {
    using T = TypeParam;
    for (const System& s : families()) {
        SCOPED_TRACE(s.name);
        SpdsRun<T> run(s);
        const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 7);
        std::vector<T> bt = narrow<T>(b), x(static_cast<std::size_t>(s.n), T(-99));
        ASSERT_EQ(run.call(13, &bt, &x), 0);
        EXPECT_EQ(widen(bt), widen(narrow<T>(b))) << "b must not be written";
        const std::vector<double> xd = widen(x);
        EXPECT_LE(relativeResidual(s, xd, b, 1), this->tolerance());
        const std::vector<double> ref = denseSolve(s, b, 1);
        EXPECT_LE(relativeDifference(xd, ref), 1e4 * this->eps());
        EXPECT_EQ(run.iparm[6], 2) << "two refinement steps were asked for";
        if (s.name.rfind("spd", 0) == 0) {
            EXPECT_EQ(run.iparm[13], 0) << "a definite matrix calls for no perturbed pivot";
        }
    }
}

TYPED_TEST(NumericSolve, SplitPhasesEqualOneShot) {
    using T = TypeParam;
    for (const System& s : families()) {
        SCOPED_TRACE(s.name);
        const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 11);
        std::vector<T> b1 = narrow<T>(b), x1(b1.size()), b2 = b1, x2(b1.size());
        SpdsRun<T> once(s), split(s);
        ASSERT_EQ(once.call(13, &b1, &x1), 0);
        ASSERT_EQ(split.call(11), 0);
        ASSERT_EQ(split.call(22), 0);
        ASSERT_EQ(split.call(33, &b2, &x2), 0);
        EXPECT_EQ(widen(x1), widen(x2));
        EXPECT_EQ(once.iparm[21], split.iparm[21]);
        EXPECT_EQ(once.iparm[22], split.iparm[22]);
    }
}

TYPED_TEST(NumericSolve, SeveralRightHandSidesEqualSolvesOneAtATime) {
    using T = TypeParam;
    constexpr int kRhs = 5;
    for (const System& s : families()) {
        SCOPED_TRACE(s.name);
        const std::size_t n = static_cast<std::size_t>(s.n);
        SpdsRun<T> run(s);
        run.iparm[7] = 0; // the raw solves, without refinement
        ASSERT_EQ(run.call(12), 0);
        if (run.iparm[13] > 0) continue; // perturbed: refinement would run anyway
        const std::vector<double> b = randomVector(n * kRhs, 3);
        std::vector<T> all = narrow<T>(b), xall(n * kRhs);
        ASSERT_EQ(run.call(33, &all, &xall, kRhs), 0);
        for (int j = 0; j < kRhs; ++j) {
            std::vector<T> bj(all.begin() + static_cast<std::ptrdiff_t>(j * n),
                              all.begin() + static_cast<std::ptrdiff_t>((j + 1) * n));
            std::vector<T> xj(n);
            ASSERT_EQ(run.call(33, &bj, &xj, 1), 0);
            const std::vector<double> blocked(xall.begin() + static_cast<std::ptrdiff_t>(j * n),
                                              xall.begin() +
                                                  static_cast<std::ptrdiff_t>((j + 1) * n));
            // The blocked kernels sum in another order: equal up to rounding.
            EXPECT_LE(relativeDifference(blocked, widen(xj)), 100 * this->eps()) << "column " << j;
        }
        const std::vector<double> ref = denseSolve(s, b, kRhs);
        EXPECT_LE(relativeDifference(widen(xall), ref), 1e4 * this->eps());
    }
}

TYPED_TEST(NumericSolve, TransposedSolveOfUnsymmetricMatrices) {
    using T = TypeParam;
    for (const System& s : families()) {
        if (s.mtype != 11 && s.mtype != 1) continue;
        SCOPED_TRACE(s.name);
        SpdsRun<T> run(s);
        ASSERT_EQ(run.call(12), 0);
        // The transposed solve is honoured when the caller's values are not
        // taken as they stand (iparm[0] other than 1).
        run.iparm[0] = 2;
        run.iparm[11] = 2;
        const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 5);
        std::vector<T> bt = narrow<T>(b), x(bt.size());
        ASSERT_EQ(run.call(33, &bt, &x), 0);
        EXPECT_LE(relativeResidual(s, widen(x), b, 1, true), this->tolerance());
        EXPECT_GT(relativeResidual(s, widen(x), b, 1, false), 1e-3)
            << "the answer must be that of A^T, not of A";
    }
}

TYPED_TEST(NumericSolve, PartialSolvesComposeToTheFullSolve) {
    using T = TypeParam;
    for (const System& s : families()) {
        SCOPED_TRACE(s.name);
        SpdsRun<T> run(s);
        run.iparm[7] = 0;
        ASSERT_EQ(run.call(12), 0);
        if (run.iparm[13] > 0) continue;
        const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 13);
        std::vector<T> full = narrow<T>(b), xfull(full.size());
        ASSERT_EQ(run.call(33, &full, &xfull), 0);
        std::vector<T> v = narrow<T>(b), w(v.size());
        ASSERT_EQ(run.call(331, &v, &w), 0);
        ASSERT_EQ(run.call(332, &w, &v), 0);
        ASSERT_EQ(run.call(333, &v, &w), 0);
        EXPECT_LE(relativeDifference(widen(w), widen(xfull)), 10 * this->eps());
        // A lone forward sweep is not the solution.
        std::vector<T> f = narrow<T>(b), fx(f.size());
        ASSERT_EQ(run.call(331, &f, &fx), 0);
        EXPECT_GT(relativeDifference(widen(fx), widen(xfull)), 1e-3);
    }
}

TYPED_TEST(NumericSolve, SolutionIntoB) {
    using T = TypeParam;
    const std::vector<System> all = families();
    const System& s = all[3];
    SpdsRun<T> run(s);
    run.iparm[5] = 1;
    const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 17);
    std::vector<T> bt = narrow<T>(b), x(bt.size());
    ASSERT_EQ(run.call(13, &bt, &x), 0);
    EXPECT_LE(relativeResidual(s, widen(bt), b, 1), this->tolerance());
    EXPECT_EQ(widen(x), widen(narrow<T>(b))) << "x keeps the right-hand side";
}

} // namespace

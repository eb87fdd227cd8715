// Pivoting of the numeric factorization: inertia against a dense eigenvalue
// count, 2 x 2 pivots, perturbed and failing pivots, the progress hook.
#include "NumericFactorization.h"
#include "SpdsTest.h"

#include <gtest/gtest.h>

using namespace spdstest;

namespace {

System twoByTwo(int mtype, double a11, double a12, double a22) {
    return fromEntries("2x2", mtype, 2,
                       {{{0, 0}, a11}, {{0, 1}, a12}, {{1, 0}, a12}, {{1, 1}, a22}});
}

// Factor without the matching, so that the pivoting of the blocks alone
// decides.
template <class T>
void plainPivoting(SpdsRun<T>& run, int exponent, int bunchKaufman) {
    run.iparm[9] = exponent;
    run.iparm[10] = 0;
    run.iparm[12] = 0;
    run.iparm[20] = bunchKaufman;
}

// Small systems and systems whose fill makes a supernode several panels
// wide (the panels, their trailing products, a 2 x 2 pair at a panel's
// edge), factored without the matching so that the blocks' own pivoting
// decides: the refined answer against the dense solve, the inertia against
// the dense eigenvalue count when no pivot was perturbed.
TEST(Pivoting, MatchesDenseSolveAndInertia) {
    std::mt19937 rng(77);
    std::vector<System> systems;
    for (int n : {60, 70, 160})
        systems.push_back(fromEntries("random indefinite " + std::to_string(n), -2, n,
                                      symmetricEntries(n, n > 100 ? 0.4 : 0.08, rng, 0.5, true)));
    systems.push_back(fromEntries("saddle", -2, 100 + 20, saddleEntries(10, 10, 20, rng)));
    Entries zeroDiagonal = symmetricEntries(150, 0.4, rng, 0.0, false);
    for (int i = 0; i < 150; ++i)
        zeroDiagonal[{i, i}] = 0.0;
    systems.push_back(fromEntries("zero diagonal", -2, 150, zeroDiagonal));
    systems.push_back(fromEntries("unsymmetric", 11, 150, unsymmetricEntries(150, 0.4, rng)));
    for (const System& s : systems) {
        for (int bk : {1, 0}) {
            // Without 2 x 2 pivots a zero diagonal leaves nothing to pivot on.
            if (bk == 0 && (s.mtype == 11 || s.name == "zero diagonal")) continue;
            SCOPED_TRACE(s.name + (bk ? ", Bunch-Kaufman" : ", diagonal pivoting"));
            SpdsRun<double> run(s);
            plainPivoting(run, 8, bk);
            const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 5);
            std::vector<double> bb = b, x(b.size());
            ASSERT_EQ(run.call(13, &bb, &x), 0);
            EXPECT_LE(backwardError(s, x, b), 1e-13);
            EXPECT_LE(relativeDifference(x, denseSolve(s, b, 1)), 1e-9);
            if (s.mtype == 11 || run.iparm[13] != 0) continue; // a perturbed pivot may flip a sign
            const auto [pos, neg] = denseInertia(s);
            EXPECT_EQ(run.iparm[21], pos);
            EXPECT_EQ(run.iparm[22], neg);
        }
    }
}

// A dense matrix of rank r in a block of several panels: after r pivots
// what remains is rounding noise, and every 1 x 1 pivot of it is perturbed
// and counted but the last, which has nothing below it to grow.
TEST(Perturbation, CountsTheNoiseOfARankDeficientBlock) {
    const int n = 150, r = 50;
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> f(static_cast<std::size_t>(n) * r), g(f.size());
    for (std::size_t k = 0; k < f.size(); ++k) {
        f[k] = u(rng);
        g[k] = u(rng);
    }
    for (int mtype : {-2, 11}) {
        SCOPED_TRACE(mtype);
        const std::vector<double>& right = mtype == -2 ? f : g;
        Entries e;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                double v = 0;
                for (int k = 0; k < r; ++k)
                    v += f[static_cast<std::size_t>(k) * n + i] *
                         right[static_cast<std::size_t>(k) * n + j] * (k % 2 ? -1.0 : 1.0);
                e[{i, j}] = v;
            }
        const System s = fromEntries("rank 50", mtype, n, e);
        SpdsRun<double> run(s);
        plainPivoting(run, 8, 0);
        ASSERT_EQ(run.call(12), 0);
        EXPECT_GE(run.iparm[13], n - r - 1);
        EXPECT_LE(run.iparm[13], n - r);
        if (mtype == -2) {
            EXPECT_EQ(run.iparm[21] + run.iparm[22], n);
        }
    }
}

TEST(BunchKaufman, ZeroDiagonalTakesTwoByTwoPivot) {
    const System s = twoByTwo(-2, 0.0, 1.0, 0.0);
    SpdsRun<double> run(s);
    plainPivoting(run, 8, 1);
    std::vector<double> b{3.0, 5.0}, x(2);
    run.iparm[7] = 0;
    ASSERT_EQ(run.call(13, &b, &x), 0);
    EXPECT_EQ(run.iparm[13], 0) << "a 2 x 2 pivot needs no perturbation";
    EXPECT_EQ(run.iparm[21], 1);
    EXPECT_EQ(run.iparm[22], 1);
    EXPECT_NEAR(x[0], 5.0, 1e-14);
    EXPECT_NEAR(x[1], 3.0, 1e-14);
}

TEST(Perturbation, ZeroThresholdReplacesAnExactZeroPivot) {
    // Rank one: after the first pivot the remaining one is exactly zero.
    for (int mtype : {11, -2}) {
        SCOPED_TRACE(mtype);
        const System s = twoByTwo(mtype, 1.0, 1.0, 1.0);
        SpdsRun<double> run(s);
        plainPivoting(run, 0, 0);
        ASSERT_EQ(run.call(12), 0) << "a zero pivot is never a failure";
        EXPECT_EQ(run.iparm[13], 1);
        if (mtype == -2) {
            // The replaced pivot is +1e-8: zero counts as positive.
            EXPECT_EQ(run.iparm[21], 2);
            EXPECT_EQ(run.iparm[22], 0);
        }
    }
}

TEST(Cholesky, NonPositivePivotFailsWithItsEquation) {
    std::map<std::pair<int, int>, double> e;
    const int n = 12;
    for (int i = 0; i < n; ++i) {
        e[{i, i}] = i == 6 ? -5.0 : 4.0;
        if (i + 1 < n) e[{i, i + 1}] = e[{i + 1, i}] = -1.0;
    }
    const System s = fromEntries("indefinite", 2, n, e);
    SpdsRun<double> run(s);
    EXPECT_EQ(run.call(12), -4);
    EXPECT_EQ(run.iparm[29], 7);
    std::vector<double> b(n, 1.0), x(n);
    EXPECT_NE(run.call(33, &b, &x), 0) << "no solve from a failed factorization";
}

struct HookLog {
    std::vector<int> steps;
    std::string stage;
    int length = 0;
    int thread = 0;
    int cancelAt = 1000;
};
HookLog* hookLog = nullptr;

int recordingHook(const int* thread, const int* step, const char* stage, int length) {
    hookLog->steps.push_back(*step);
    hookLog->stage.assign(stage, static_cast<std::size_t>(length));
    hookLog->length = length;
    hookLog->thread = *thread;
    return *step >= hookLog->cancelAt ? 1 : 0;
}

class ProgressHook : public ::testing::Test {
protected:
    void SetUp() override {
        hookLog = &log;
        spds_set_progress(recordingHook);
    }
    void TearDown() override {
        spds_set_progress(nullptr);
        hookLog = nullptr;
    }
    HookLog log;
};

TEST_F(ProgressHook, ReportsRisingPercentagesAndCancels) {
    const System s = fromEntries("grid", -2, 900, gridEntries(30, 30, 0.1));
    SpdsRun<double> run(s);
    ASSERT_EQ(run.call(12), 0);
    ASSERT_GE(log.steps.size(), 3u);
    EXPECT_EQ(log.steps.front(), 0);
    EXPECT_EQ(log.steps.back(), 100);
    EXPECT_TRUE(std::is_sorted(log.steps.begin(), log.steps.end()));
    EXPECT_EQ(log.stage, "Spds: factorization phase");
    EXPECT_EQ(log.length, 25);
    EXPECT_EQ(log.thread, 1);
    EXPECT_EQ(spds_get_progress(), &recordingHook);
    log.cancelAt = 1;
    log.steps.clear();
    EXPECT_EQ(run.call(12), -4);
    EXPECT_EQ(run.iparm[29], -1);
    EXPECT_LT(log.steps.back(), 100) << "the loop stops at the cancel";
    std::vector<double> b(900, 1.0), x(900);
    EXPECT_NE(run.call(33, &b, &x), 0) << "a cancelled factor is not solved with";
    log.cancelAt = 1000;
    EXPECT_EQ(run.call(22), 0) << "factorizing again after a cancel works";
    EXPECT_EQ(run.call(33, &b, &x), 0);
}

} // namespace

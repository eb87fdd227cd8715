// Checked refinement, observed through iparm[6] (correction steps), the
// backward errors of spds_get_solve_info and the error of the call.
#include "AccuracyCorpus.h"

#include <gtest/gtest.h>

using namespace spdstest;

namespace {

// Every pivot given by `pivot(i)` but the last, which is 1: with iparm[9] = 1
// the threshold is 0.1, and the factor holds 0.1 in place of each small
// pivot, i.e. roughly 0.1 / pivot times A.
template <class F>
System scaledDiagonal(F pivot, int n = 30) {
    std::map<std::pair<int, int>, double> e;
    for (int i = 0; i < n; ++i) {
        e[{i, i}] = i + 1 == n ? 1.0 : pivot(i);
        if (i + 1 < n) e[{i, i + 1}] = e[{i + 1, i}] = pivot(i) * 1e-3;
    }
    return fromEntries("scaled diagonal", 11, n, e);
}

template <class T>
SpdsRun<T>& perturbing(SpdsRun<T>& run, int steps) {
    run.iparm[9] = 1;
    run.iparm[10] = 0;
    run.iparm[12] = 0;
    run.iparm[7] = steps;
    return run;
}

System wellConditioned() {
    std::mt19937 rng(5);
    return fromEntries("indefinite", -2, 120, symmetricEntries(120, 0.05, rng, 1.0, true));
}

spds_solve_info infoOf(void* const pt[64]) {
    spds_solve_info info{};
    EXPECT_EQ(spds_get_solve_info(pt, &info), 0);
    return info;
}

TEST(Refinement, PerturbedPivotsAreRefinedToTheTolerance) {
    // A factor of 1.25 A: each correction step leaves a fifth of the error.
    // A factor of 100 A: a step would remove 1 %, so the steps end and the
    // factor serves as the preconditioner of a Krylov search instead.
    for (double pivot : {0.08, 0.001})
        for (int steps : {0, 2}) {
            SCOPED_TRACE(std::to_string(pivot) + ", steps " + std::to_string(steps));
            const System s = scaledDiagonal([pivot](int) { return pivot; });
            SpdsRun<double> run(s);
            perturbing(run, steps);
            const std::vector<double> b = randomVector(30, 2);
            std::vector<double> bt = b, x(30);
            ASSERT_EQ(run.call(13, &bt, &x), 0);
            EXPECT_GT(run.iparm[13], 0);
            EXPECT_GT(run.iparm[6], 2) << "more steps than asked, as long as they pay";
            EXPECT_LE(backwardError(s, x, b), 1e-13);
            EXPECT_LE(infoOf(run.pt).backward_error, 1e-13);
        }
}

TEST(Refinement, NoContractionIsAReportedFailure) {
    // 200 pivots spread over four decades, each replaced by 0.1: the
    // preconditioned system has 200 distinct eigenvalues with a spread of
    // 1e4, beyond what steps or a short Krylov search can resolve.
    const int n = 200;
    const System s = scaledDiagonal([](int i) { return std::pow(10.0, -2.0 - 4.0 * i / n); }, n);
    SpdsRun<double> run(s);
    perturbing(run, 10);
    std::vector<double> b = randomVector(n, 3), x(n);
    EXPECT_EQ(run.call(13, &b, &x), -4);
    EXPECT_EQ(run.iparm[29], -112);
    EXPECT_GT(run.iparm[6], 30) << "the Krylov search ran before the refusal";
    EXPECT_GT(infoOf(run.pt).backward_error, 1e-10);
}

TEST(Refinement, ConvergedSolvesStopEarly) {
    const System s = wellConditioned();
    for (int steps : {0, 1, 3, 20}) {
        SCOPED_TRACE(steps);
        SpdsRun<double> run(s);
        run.iparm[7] = steps;
        const std::vector<double> b = randomVector(120, 5);
        std::vector<double> bt = b, x(120);
        ASSERT_EQ(run.call(13, &bt, &x), 0);
        EXPECT_LE(run.iparm[6], std::max(steps, 1));
        EXPECT_LE(backwardError(s, x, b), 1e-14);
    }
}

TEST(Refinement, ZeroRightHandSideGivesZeroWithoutAStep) {
    const System s = wellConditioned();
    SpdsRun<float> run(s);
    std::vector<float> b(120, 0.0f), x(120, 7.0f);
    ASSERT_EQ(run.call(13, &b, &x), 0);
    for (float v : x)
        ASSERT_EQ(v, 0.0f);
    EXPECT_EQ(run.iparm[6], 0);
    EXPECT_EQ(infoOf(run.pt).backward_error, 0.0);
}

TEST(Refinement, SingleFactorWithWideIterateReportsBothErrors) {
    // Moderately ill-conditioned: a grid Laplacian with a small shift, its
    // values as floats so that the wide iterate solves the same system.
    System s = fromEntries("grid", -2, 900, gridEntries(30, 30, 1e-3));
    for (double& v : s.a)
        v = static_cast<float>(v);
    const std::vector<double> b = widen(narrow<float>(randomVector(900, 7)));
    SpdsRun<float> run(s);
    run.iparm[7] = -2;
    std::vector<float> bt = narrow<float>(b), x(900);
    ASSERT_EQ(run.call(13, &bt, &x), 0);
    const spds_solve_info info = infoOf(run.pt);
    EXPECT_LE(info.wide_backward_error, 1e-14) << "a float factor, double answers";
    EXPECT_LE(info.backward_error, 1e-6);
    EXPECT_GE(info.backward_error, info.wide_backward_error);
    EXPECT_NEAR(backwardError(s, widen(x), b), info.backward_error, 0.1 * info.backward_error);
}

TEST(Refinement, RightHandSideAndSolutionInOneArray) {
    const System s = wellConditioned();
    for (int inB : {0, 1}) {
        SCOPED_TRACE(inB);
        SpdsRun<double> run(s);
        run.iparm[5] = inB;
        const std::vector<double> b = randomVector(120, 8);
        std::vector<double> both = b;
        ASSERT_EQ(run.call(13, &both, &both), 0);
        EXPECT_LE(backwardError(s, both, b), 1e-14);
    }
}

} // namespace

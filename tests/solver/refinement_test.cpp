// The stopping rules of iterative refinement, observed through iparm[6]
// (steps done), iparm[19] and the error of the call.
#include "SpdsTest.h"

#include <gtest/gtest.h>

using namespace spdstest;

namespace {

// Nearly diagonal with every pivot `pivot`, under the threshold 0.1 of
// iparm[9] = 1: the factor holds 0.1 instead, i.e. 0.1 / pivot times A.
System scaledDiagonal(double pivot, int n = 30) {
    std::map<std::pair<int, int>, double> e;
    for (int i = 0; i < n; ++i) {
        e[{i, i}] = pivot;
        if (i + 1 < n) e[{i, i + 1}] = e[{i + 1, i}] = pivot * 1e-3;
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

TEST(Refinement, PerturbedPivotsWithoutStepsAskedGetExactlyTwo) {
    const System s = scaledDiagonal(0.05);
    SpdsRun<double> run(s);
    perturbing(run, 0);
    std::vector<double> b = randomVector(30, 2), x(30);
    ASSERT_EQ(run.call(13, &b, &x), 0);
    EXPECT_GT(run.iparm[13], 0);
    EXPECT_EQ(run.iparm[6], 2);
    EXPECT_EQ(run.iparm[19], -34);
}

TEST(Refinement, NoContractionFailsWithStatus112) {
    // The factor is 100 A: each step removes only 1% of the error.
    const System s = scaledDiagonal(0.001);
    SpdsRun<double> run(s);
    perturbing(run, 10);
    std::vector<double> b = randomVector(30, 3), x(30);
    EXPECT_EQ(run.call(13, &b, &x), -4);
    EXPECT_EQ(run.iparm[29], -112);
    EXPECT_EQ(run.iparm[6], 4) << "three stalled steps are tolerated, the fourth ends";
}

TEST(Refinement, StopsAtTheStepsAsked) {
    const System s = wellConditioned();
    for (int steps : {1, 3}) {
        SCOPED_TRACE(steps);
        SpdsRun<double> run(s);
        run.iparm[7] = steps;
        std::vector<double> b = randomVector(120, 5), x(120);
        ASSERT_EQ(run.call(13, &b, &x), 0);
        EXPECT_EQ(run.iparm[6], steps);
    }
}

TEST(Refinement, StallsEndTheLoopBeforeALargeLimit) {
    // Converged after one step: later residuals are rounding noise that
    // does not shrink, and at most three stalled steps follow.
    const System s = wellConditioned();
    SpdsRun<double> run(s);
    run.iparm[7] = 20;
    std::vector<double> b = randomVector(120, 6), x(120);
    ASSERT_EQ(run.call(13, &b, &x), 0);
    EXPECT_GE(run.iparm[6], 2);
    EXPECT_LE(run.iparm[6], 8);
}

TEST(Refinement, ZeroRightHandSideGivesZeroWithoutDividingByZero) {
    const System s = wellConditioned();
    SpdsRun<float> run(s);
    std::vector<float> b(120, 0.0f), x(120, 7.0f);
    ASSERT_EQ(run.call(13, &b, &x), 0);
    for (float v : x)
        ASSERT_EQ(v, 0.0f);
    EXPECT_EQ(run.iparm[6], 2);
}

TEST(Refinement, WiderResidualForNegativeSteps) {
    // Moderately ill-conditioned: a grid Laplacian with a small shift. The
    // reference solves the matrix the solver sees, its values as floats.
    System s = fromEntries("grid", -2, 900, gridEntries(30, 30, 1e-3));
    for (double& v : s.a)
        v = static_cast<float>(v);
    const std::vector<double> b = widen(narrow<float>(randomVector(900, 7)));
    auto solveWith = [&](int steps) {
        SpdsRun<float> run(s);
        run.iparm[7] = steps;
        std::vector<float> bt = narrow<float>(b), x(900);
        EXPECT_EQ(run.call(13, &bt, &x), 0);
        EXPECT_EQ(run.iparm[6], std::abs(steps));
        return relativeDifference(widen(x), denseSolve(s, b, 1));
    };
    const double plain = solveWith(2);
    const double wide = solveWith(-2);
    // The plain residual is only as good as float arithmetic on A x; the
    // wide one brings x to what a float can hold.
    EXPECT_LE(wide, 1e-6);
    EXPECT_LT(wide, plain / 5);
}

} // namespace

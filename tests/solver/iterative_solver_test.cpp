// The iterative solvers of iparm[3] (CG for SPD, CGS for unsymmetric) with
// the factor of an earlier matrix, their fallback, reports and limits.
#include "IterativeSolvers.h"
#include "SpdsTest.h"

#include <gtest/gtest.h>

#include <limits>

using namespace spdstest;
using skyrinse::spds::iterationLimits;
using skyrinse::spds::iterativeTolerance;

namespace {

// Each value times (1 + delta u), u uniform in [-1, 1].
Entries perturbed(const Entries& e, double delta, unsigned seed, bool symmetric) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Entries out = e;
    for (auto& [pos, v] : out) {
        if (symmetric && pos.first > pos.second) continue;
        v *= 1.0 + delta * u(rng);
        if (symmetric) out[{pos.second, pos.first}] = v;
    }
    return out;
}

Entries spdGrid() {
    return gridEntries(20, 20, 0.5);
}

// Still SPD, but too far from the grid for its factor to precondition.
Entries farFromGrid() {
    Entries e = spdGrid();
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> exponent(-4.0, 4.0);
    for (int i = 0; i < 400; ++i)
        e[{i, i}] += std::pow(10.0, exponent(rng));
    return e;
}

Entries unsymmetricBase() {
    std::mt19937 rng(77);
    return unsymmetricEntries(160, 0.02, rng);
}

template <class T>
struct Config {
    static constexpr bool single = std::is_same_v<T, float>;
    static constexpr int L = single ? 5 : 10;
    static constexpr double delta = single ? 1e-4 : 1e-6;
    static double eps() { return std::numeric_limits<T>::epsilon(); }
};

template <class T>
class IterativeSolvers : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(IterativeSolvers, Precisions);

// Solves with phase `phase`, returns x in double.
template <class T>
std::vector<double> solve(SpdsSession<T>& s, int phase, const System& sys,
                          const std::vector<double>& b, int expectedError = 0) {
    std::vector<T> bt = narrow<T>(b), x(bt.size(), T(0));
    EXPECT_EQ(s.call(phase, sys, &bt, &x), expectedError) << "phase " << phase;
    return widen(x);
}

// Residual of a plain solve: tells which matrix the handle's factor belongs to.
template <class T>
double plainResidual(SpdsSession<T>& s, const System& sys, const std::vector<double>& b) {
    // The partial solves, one after the other, apply the factor on the
    // handle and nothing else: no refinement hides which factor it is.
    std::vector<double> x = b;
    for (int phase : {331, 332, 333})
        x = solve(s, phase, sys, x);
    return relativeResidual(sys, x, b, 1);
}

TYPED_TEST(IterativeSolvers, NearbyMatricesConvergeWithTheFirstFactor) {
    using T = TypeParam;
    using C = Config<T>;
    struct Case {
        const char* name;
        int mtype;
        int K; // 2: CG, 1: CGS
        Entries base;
        bool symmetric;
    };
    const std::vector<Case> cases = {{"SPD grid, CG", 2, 2, spdGrid(), true},
                                     {"unsymmetric, CGS", 11, 1, unsymmetricBase(), false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int n = c.mtype == 2 ? 400 : 160;
        const System a0 = fromEntries("A0", c.mtype, n, c.base);
        SpdsSession<T> s;
        s.matchingFor(c.mtype);
        s.iparm[7] = 2;
        const std::vector<double> b = randomVector(static_cast<std::size_t>(n), 1);
        const std::vector<double> x0 = solve(s, 13, a0, b);
        ASSERT_LE(relativeResidual(a0, x0, b, 1), 100 * C::eps());

        s.iparm[3] = 10 * C::L + c.K;
        for (unsigned step = 1; step <= 3; ++step) {
            SCOPED_TRACE("matrix " + std::to_string(step));
            const System ak = fromEntries("Ak", c.mtype, n,
                                          perturbed(c.base, C::delta * step, step, c.symmetric));
            s.iparm[19] = 12345;
            const std::vector<double> x = solve(s, 23, ak, b);
            EXPECT_GE(s.iparm[19], 1);
            EXPECT_LE(s.iparm[19], 2) << "a factor this close needs few steps";
            EXPECT_LE(relativeResidual(ak, x, b, 1), 10 * iterativeTolerance(s.iparm[3]));
            EXPECT_LE(relativeDifference(x, denseSolve(ak, b, 1)),
                      1e3 * iterativeTolerance(s.iparm[3]));
            // The handle still holds the factor of A0: nothing was factored.
            EXPECT_GT(plainResidual(s, ak, b), 1e3 * C::eps());
            EXPECT_LE(plainResidual(s, a0, b), 1e2 * C::eps());
        }
    }
}

TYPED_TEST(IterativeSolvers, MatrixTooFarIsFactoredAfterAll) {
    using T = TypeParam;
    using C = Config<T>;
    struct Case {
        const char* name;
        System a0;
        System far;
        int K;
    };
    const std::vector<Case> cases = {
        {"SPD grid, CG", fromEntries("A0", 2, 400, spdGrid()),
         fromEntries("far", 2, 400, farFromGrid()), 2},
        {"unsymmetric, CGS", fromEntries("A0", 11, 160, unsymmetricBase()),
         // Same pattern, values drawn anew.
         fromEntries("far", 11, 160, perturbed(unsymmetricBase(), 3.0, 99, false)), 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SpdsSession<T> s;
        s.matchingFor(c.a0.mtype);
        s.iparm[7] = 2;
        const std::vector<double> b = randomVector(static_cast<std::size_t>(c.a0.n), 2);
        solve(s, 13, c.a0, b);
        // The tightest tolerance the precision allows keeps any iteration
        // from reaching it by luck.
        s.iparm[3] = 10 * (Config<T>::single ? 7 : 14) + c.K;
        s.iparm[19] = 12345;
        const std::vector<double> x = solve(s, 23, c.far, b);
        const int report = s.iparm[19];
        EXPECT_LT(report, 0) << "the iteration must have failed";
        // status - 10 x steps: the status is -1, -2 or -3, at least one step.
        const int status = -((-report) % 10);
        EXPECT_TRUE(status == -1 || status == -2 || status == -3) << report;
        EXPECT_GE(-report / 10, 1) << report;
        // The fallback factored the new matrix and solved it as usual. In
        // single precision this system's residual floor is about 1e-4; where
        // it lands depends on the order in which the updates are summed.
        EXPECT_LE(relativeResidual(c.far, x, b, 1), Config<T>::single ? 3e-4 : 1e-11);
        EXPECT_LE(plainResidual(s, c.far, b), C::single ? 1e-3 : 1e-9)
            << "the new factor is on the handle";
        EXPECT_GT(plainResidual(s, c.a0, b), 1e3 * C::eps());
    }
}

// With the cost of the factorization given, so the step limit does not depend on the machine.
template <class T>
skyrinse::spds::IterativeResult iterateWith(SpdsSession<T>& s, const System& a,
                                            double factorSeconds, int control,
                                            const std::vector<double>& b, std::vector<double>& x) {
    skyrinse::spds::Handle& h = *skyrinse::spds::handleOf(s.pt);
    const std::vector<T> values(a.a.begin(), a.a.end());
    skyrinse::spds::IterativeRequest rq;
    rq.n = a.n;
    rq.nrhs = 1;
    rq.a = values.data();
    rq.ia = a.ia.data();
    rq.ja = a.ja.data();
    rq.symmetricStorage = a.mtype == 2 || a.mtype == -2;
    rq.control = control;
    rq.factorSeconds = factorSeconds;
    std::vector<T> bt = narrow<T>(b), xt(bt.size());
    const auto r = skyrinse::spds::iterativeSolve<T>(h, h.factors[0], rq, bt.data(), xt.data());
    x = widen(xt);
    return r;
}

TEST(IterativeSolverCounts, FailuresReportStatusAndSteps) {
    const System a0 = fromEntries("A0", 2, 400, spdGrid());
    const System far = fromEntries("far", 2, 400, farFromGrid());
    const std::vector<double> b = randomVector(400, 4);
    SpdsSession<double> s;
    ASSERT_EQ(s.call(12, a0), 0);
    std::vector<double> x;
    // A free factorization allows two steps, and the stall mark is 2: both
    // methods stall there, -2 - 10 x 2.
    for (int control : {142, 141}) {
        SCOPED_TRACE(control);
        const auto r = iterateWith(s, far, 0.0, control, b, x);
        EXPECT_EQ(r.limit, 2);
        EXPECT_EQ(r.status, -2);
        EXPECT_EQ(r.steps, 2);
        EXPECT_EQ(r.report(), -22);
    }
    // A limit of no steps is reported as -5 with nothing tried.
    const auto none = iterateWith(s, far, 0.0, 140, b, x);
    EXPECT_EQ(none.status, -5);
    EXPECT_EQ(none.report(), -5);
    EXPECT_EQ(x, std::vector<double>(400, 0.0));
}

// Phase 33 with refinement due: the iteration takes the refinement's place
// and solves the matrix of the call with the factor of the earlier one.
TYPED_TEST(IterativeSolvers, SolvePhaseIteratesInPlaceOfRefinement) {
    using T = TypeParam;
    const Entries base = spdGrid();
    const System a0 = fromEntries("A0", 2, 400, base);
    const System a1 = fromEntries("A1", 2, 400, perturbed(base, 1e-4, 9, true));
    const std::vector<double> b = randomVector(400, 10);
    SpdsSession<T> s;
    s.iparm[7] = 2;
    ASSERT_EQ(s.call(12, a0), 0);
    s.iparm[3] = 10 * Config<T>::L + 2;
    s.iparm[6] = 12345;
    const std::vector<double> x = solve(s, 33, a1, b);
    EXPECT_GE(s.iparm[19], 1);
    EXPECT_EQ(s.iparm[6], 12345) << "no refinement ran";
    EXPECT_LE(relativeResidual(a1, x, b, 1), 10 * iterativeTolerance(s.iparm[3]));

    // Without refinement asked the iteration is not tried (nothing in
    // iparm[19]), but the solve is still checked: the factor of A0 alone is
    // not good enough for A1, so correction steps follow.
    s.iparm[7] = 0;
    s.iparm[19] = 12345;
    const std::vector<double> plain = solve(s, 33, a1, b);
    EXPECT_EQ(s.iparm[19], 12345);
    EXPECT_GE(s.iparm[6], 1);
    EXPECT_LE(backwardError(a1, plain, widen(narrow<T>(b))), Config<T>::single ? 1e-5 : 1e-12);
}

TEST(IterativeSolverLimits, StepLimitFollowsTheCostOfAFactorization) {
    struct Row {
        int control;
        double factor, solve;
        bool ooc;
        int maximum, stall;
    };
    const Row rows[] = {
        {31, 1.0, 0.01, false, 100, 51},   // 1 + 0.45 x 3 x 100 = 136, capped
        {63, 1.0, 0.1, false, 41, 21},     // 1 + 0.45 x 9 x 10 = 41.5
        {61, 0.0, 0.1, false, 2, 2},       // never below two steps
        {61, 0.0, 0.1, true, 10, 6},       // out of core: at least ten
        {61, 1.0, 1e-11, false, 0, 1},     // a solve too fast to weigh
        {-61, 1.0, 1e-11, false, 150, 76}, // unless iparm[3] is negative
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.control);
        const auto lim = iterationLimits(r.control, r.factor, r.solve, r.ooc);
        EXPECT_EQ(lim.maximum, r.maximum);
        EXPECT_EQ(lim.stall, r.stall);
    }
    EXPECT_NEAR(iterativeTolerance(61), 1e-6, 1e-15);
    EXPECT_NEAR(iterativeTolerance(142), 1e-14, 1e-23);
}

} // namespace

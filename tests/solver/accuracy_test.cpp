// The promise of the solver: every call that returns 0 hands back an x whose
// normwise backward error, measured in double, is at most 1e-5 (single) or
// 1e-12 (double); otherwise the call reports a failure. Checked over the
// generated corpus (AccuracyCorpus.h) for every type it can be stored as,
// with and without the matching, against dense LAPACK in the same precision.
#include "AccuracyCorpus.h"

#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

extern "C" {
void sgesv_(const int* n, const int* nrhs, float* a, const int* lda, int* ipiv, float* b,
            const int* ldb, int* info);
}

using namespace spdstest;

namespace {

// Backward error of a dense LU solve with partial pivoting in precision T.
template <class T>
double lapackBackwardError(const System& s, const std::vector<double>& b) {
    const std::vector<double> d = dense(s);
    std::vector<T> m(d.begin(), d.end()), x(b.begin(), b.end());
    std::vector<int> ipiv(static_cast<std::size_t>(s.n));
    int info = 0, one = 1;
    if constexpr (std::is_same_v<T, float>)
        sgesv_(&s.n, &one, m.data(), &s.n, ipiv.data(), x.data(), &s.n, &info);
    else
        dgesv_(&s.n, &one, m.data(), &s.n, ipiv.data(), x.data(), &s.n, &info);
    return info == 0 ? backwardError(s, widen(x), b) : std::numeric_limits<double>::infinity();
}

template <class T>
class Accuracy : public ::testing::Test {};

using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Accuracy, Precisions);

TYPED_TEST(Accuracy, EveryAnswerIsRightOrReportedAsAFailure) {
    using T = TypeParam;
    const double tolerance = std::is_same_v<T, float> ? 1e-5 : 1e-12;
    int solved = 0, refused = 0, lapackSolved = 0;
    for (const CorpusMatrix& c : accuracyCorpus()) {
        for (int mtype : c.mtypes) {
            const System s = fromEntries(c.name, mtype, c.n, c.entries);
            // The values the solver sees, in its precision.
            System seen = s;
            for (double& v : seen.a)
                v = static_cast<double>(static_cast<T>(v));
            const std::vector<double> b = widen(narrow<T>(randomVector(c.n, 11)));
            const double reference = c.nonFinite ? 0 : lapackBackwardError<T>(seen, b);
            // Both orderings with and without the matching; the dissection
            // into several domains with it is the photo tool's call.
            for (int matching : {1, 0})
                for (int ordering : {2, 3}) {
                    SCOPED_TRACE(c.name + ", mtype " + std::to_string(mtype) +
                                 (matching ? ", matching" : ", no matching") + ", ordering " +
                                 std::to_string(ordering));
                    SpdsRun<T> run(s);
                    run.iparm[1] = ordering;
                    run.iparm[10] = run.iparm[12] = matching;
                    std::vector<T> bt = narrow<T>(b), x(bt.size(), T(0));
                    const int error = run.call(13, &bt, &x);
                    if (c.nonFinite) {
                        EXPECT_NE(error, 0) << "a non-finite matrix is refused";
                        continue;
                    }
                    if (matching == 0) {
                        // A non-finite right-hand side is refused too, and x is
                        // left as it was.
                        std::vector<T> bad = bt, y(bt.size(), T(3));
                        bad[static_cast<std::size_t>(c.n / 2)] = std::numeric_limits<T>::infinity();
                        EXPECT_NE(run.call(33, &bad, &y), 0);
                        EXPECT_EQ(y, std::vector<T>(bt.size(), T(3)));
                    }
                    const double omega = backwardError(seen, widen(x), b);
                    if (error == 0) {
                        EXPECT_LE(omega, tolerance);
                        ++solved;
                    } else {
                        ++refused;
                        std::printf(
                            "  reported failure %d (iparm[29] %d, %d perturbed, omega %.1e):"
                            " %s, mtype %d, %s; LAPACK %.1e\n",
                            error, run.iparm[29], run.iparm[13], omega, c.name.c_str(), mtype,
                            matching ? "matching" : "no matching", reference);
                    }
                    if (reference <= tolerance) {
                        ++lapackSolved;
                        EXPECT_EQ(error, 0) << "dense LAPACK solves it to " << reference;
                    }
                }
        }
    }
    std::printf("  solved %d, reported failures %d; dense LAPACK solved %d\n", solved, refused,
                lapackSolved);
    EXPECT_GT(solved, 0);
}

// The supernodes, the pivots and their perturbations must not depend on how
// many threads a call is granted.
TEST(ThreadCount, SameFactorAndAnswerForOneAndTwoThreads) {
    const int saved = nrt_get_max_threads();
    Entries e = laplacian5(30, 30, -2.3);
    for (int i = 1; i < 900; i += 3)
        e[{i, i}] = 0.0;
    // A dense coupling of the last 150 unknowns: a supernode wider than any
    // panel width that a thread count could choose.
    for (int i = 750; i < 900; ++i)
        for (int j = 750; j < 900; ++j)
            if (i != j) e[{i, j}] += 0.01 * std::sin(1.0 * i * j);
    for (int mtype : {-2, 11}) {
        SCOPED_TRACE(mtype);
        const System s = fromEntries("shifted laplacian", mtype, 900, e);
        std::vector<std::vector<float>> answers;
        std::vector<int> perturbed;
        for (int threads : {1, 2}) {
            nrt_set_num_threads(threads);
            SpdsRun<float> run(s);
            std::vector<float> b = narrow<float>(randomVector(900, 12)), x(900);
            ASSERT_EQ(run.call(13, &b, &x), 0);
            EXPECT_EQ(run.iparm[2], threads);
            answers.push_back(x);
            perturbed.push_back(run.iparm[13]);
        }
        EXPECT_EQ(answers[0], answers[1]);
        EXPECT_EQ(perturbed[0], perturbed[1]);
    }
    nrt_set_num_threads(saved);
}

} // namespace

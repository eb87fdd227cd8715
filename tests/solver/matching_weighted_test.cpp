// Maximum-product matching: optimality against a dense assignment solver,
// the scaling it implies, structurally singular input.
#include "SpdsTest.h"

#include "solver/WeightedMatching.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

using namespace spdstest;
using skyrinse::spds::AllocationFailure;
using skyrinse::spds::borrowView;
using skyrinse::spds::expandSymmetric;
using skyrinse::spds::MatchingResult;
using skyrinse::spds::SparseView;
using skyrinse::spds::symmetricWeightedMatching;
using skyrinse::spds::weightedMatching;

namespace {

template <class T>
struct Matched {
    MatchingResult result;
    std::vector<int> match;
    std::vector<T> u;
    std::vector<T> v;
};

template <class T>
Matched<T> runMatching(const Csr<T>& m) {
    Matched<T> r;
    r.match.assign(m.n, -7);
    r.u.assign(m.n, T(-7));
    r.v.assign(m.n, T(-7));
    r.result = weightedMatching<T>(borrowView(m.n, m.ia.data(), m.ja.data(), m.a.data()), r.match,
                                   r.u, r.v);
    return r;
}

template <class T>
double tolerance() {
    return std::is_same_v<T, float> ? 2e-4 : 1e-10;
}

template <class T>
class WeightedMatchingTest : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(WeightedMatchingTest, ElementTypes);

TYPED_TEST(WeightedMatchingTest, RandomMatricesReachTheOptimumAndScaleToOne) {
    using T = TypeParam;
    std::mt19937 rng(20240611);
    const int sizes[] = {1, 2, 3, 30, 200};
    for (int n : sizes) {
        for (int perRow : {1, 2, 4}) {
            const Csr<T> m = randomMatrix<T>(n, perRow, rng);
            const Csr<T> before = m;
            const Matched<T> r = runMatching(m);
            EXPECT_EQ(m, before);
            SCOPED_TRACE(::testing::Message() << "n=" << n << " perRow=" << perRow);
            ASSERT_EQ(r.result.status, 0);
            ASSERT_EQ(r.result.matched, n);
            ASSERT_TRUE(isPermutation(r.match.data(), n, 0));

            double sum = 0;
            for (int j = 0; j < n; ++j) {
                ASSERT_TRUE(m.stored(r.match[j], j));
                sum += std::log(std::abs(static_cast<double>(m.at(r.match[j], j))));
            }
            const double best = bestLogProduct(n, [&](int i, int j) { return m.at(i, j); });
            EXPECT_NEAR(sum, best, tolerance<T>() * (1 + std::abs(best)));

            // exp(u[i]) |a(i,j)| exp(v[j]) <= 1, = 1 on the matching.
            for (int i = 0; i < n; ++i)
                for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
                    const int j = m.ja[k] - 1;
                    const double s = std::exp(static_cast<double>(r.u[i])) *
                                     std::abs(static_cast<double>(m.a[k])) *
                                     std::exp(static_cast<double>(r.v[j]));
                    EXPECT_LE(s, 1 + 10 * tolerance<T>());
                    if (r.match[j] == i) {
                        EXPECT_NEAR(s, 1.0, 10 * tolerance<T>());
                    }
                }
        }
    }
}

TYPED_TEST(WeightedMatchingTest, SmallCasesWithAKnownOptimum) {
    using T = TypeParam;
    struct Case {
        const char* why;
        std::vector<std::vector<std::pair<int, T>>> rows;
        std::vector<int> match; // row of each column
    };
    const Case cases[] = {
        {"row 0's largest entry leaves row 1 nothing: an augmenting path undoes it",
         {{{0, T(10)}, {1, T(1)}}, {{0, T(1)}}},
         {1, 0}},
        {"the product 4 x 2 beats the diagonal that holds each column's largest",
         {{{0, T(1)}, {1, T(4)}}, {{0, T(2)}, {1, T(1)}}},
         {1, 0}},
        {"explicit zeros are not matched",
         {{{0, T(0)}, {1, T(1)}}, {{0, T(3)}, {1, T(5)}}, {{1, T(2)}, {2, T(0.5)}}},
         {1, 0, 2}},
    };
    for (const Case& c : cases) {
        const Matched<T> r = runMatching(csrFromRows<T>(static_cast<int>(c.rows.size()), c.rows));
        EXPECT_EQ(r.result.status, 0) << c.why;
        EXPECT_EQ(r.match, c.match) << c.why;
    }
}

TYPED_TEST(WeightedMatchingTest, StructurallySingularMatrixReportsMatchedCount) {
    using T = TypeParam;
    std::mt19937 rng(7);
    for (int n : {2, 17, 60}) {
        Csr<T> m = randomMatrix<T>(n, 3, rng);
        // Column n/2 of stored zeros: a perfect matching exists without it,
        // so n - 1 columns can still be matched.
        for (std::size_t k = 0; k < m.ja.size(); ++k)
            if (m.ja[k] - 1 == n / 2) m.a[k] = T(0);
        const Matched<T> r = runMatching(m);
        EXPECT_EQ(r.result.status, -1) << "n=" << n;
        EXPECT_EQ(r.result.matched, n - 1) << "n=" << n;
        EXPECT_TRUE(isPermutation(r.match.data(), n, 0)) << "n=" << n;
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(r.u[i], T(0));
            EXPECT_EQ(r.v[i], T(0));
        }
    }
}

TYPED_TEST(WeightedMatchingTest, StoredTriangleMatchesLikeItsFullMatrix) {
    // The triangle's own path must find exactly what the full matrix gives,
    // to the bit, and hand out the same full pattern; stored zeros on the
    // diagonal take the general path.
    using T = TypeParam;
    std::mt19937 rng(31);
    for (int n : {1, 5, 80, 300})
        for (bool zeroDiagonal : {false, true}) {
            SCOPED_TRACE(::testing::Message() << "n=" << n << " zeros=" << zeroDiagonal);
            const Csr<T> m = randomMatrix<T>(n, 3, rng, true, zeroDiagonal);
            const auto stored = borrowView(n, m.ia.data(), m.ja.data(), m.a.data());
            const SparseView<T> expanded = expandSymmetric(stored, nullptr, -401);
            std::vector<int> match(n), fullMatch(n);
            std::vector<T> u(n), v(n), fullU(n), fullV(n);
            SparseView<T> full;
            const MatchingResult r = symmetricWeightedMatching<T>(stored, full, match, u, v);
            const MatchingResult e = weightedMatching<T>(expanded, fullMatch, fullU, fullV);
            EXPECT_EQ(r.status, e.status);
            EXPECT_EQ(r.matched, e.matched);
            EXPECT_EQ(match, fullMatch);
            EXPECT_EQ(u, fullU);
            EXPECT_EQ(v, fullV);
            ASSERT_EQ(full.nnz, expanded.nnz);
            EXPECT_TRUE(std::equal(full.ia, full.ia + n + 1, expanded.ia));
            EXPECT_TRUE(std::equal(full.ja, full.ja + full.nnz, expanded.ja));
        }
}

} // namespace

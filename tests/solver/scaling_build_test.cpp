// Permutation and scalings from a matching: the three modes, the symmetric
// rule, and the scaled matrices they produce for unsymmetric and symmetric
// indefinite input.
#include "SpdsTest.h"

#include "solver/Scaling.h"
#include "solver/WeightedMatching.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

using namespace spdstest;
using skyrinse::spds::borrowView;
using skyrinse::spds::buildScaling;
using skyrinse::spds::expandSymmetric;
using skyrinse::spds::weightedMatching;

namespace {

struct Scaled {
    std::vector<int> perm;
    std::vector<double> r;
    std::vector<double> c;
};

template <class T>
Scaled build(int mode, int mtype, const std::vector<int>& match, const std::vector<T>& u,
             const std::vector<T>& v, int n) {
    Scaled s{std::vector<int>(n, -5), std::vector<double>(n, -5), std::vector<double>(n, -5)};
    buildScaling<T>(mode, mtype, match, u, v, s.perm, s.r, s.c);
    return s;
}

TEST(BuildScaling, UnsymmetricTypesScaleRowsAndColumnsApart) {
    const std::vector<float> u{0.5f, -1.0f}, v{2.0f, 0.25f};
    const Scaled s = build<float>(1, 11, {1, 0}, u, v, 2);
    EXPECT_EQ(s.perm, (std::vector<int>{2, 1}));
    EXPECT_NEAR(s.r[0], std::exp(0.5), 1e-6);
    EXPECT_NEAR(s.r[1], std::exp(-1.0), 1e-6);
    EXPECT_NEAR(s.c[0], std::exp(2.0), 1e-5);
    EXPECT_NEAR(s.c[1], std::exp(0.25), 1e-6);
}

TEST(BuildScaling, SymmetricTypesTakeTheGeometricMean) {
    const std::vector<double> u{0.5, -1.0, 800.0}, v{2.0, 0.25, -800.0};
    for (int mtype : {-2, -4, 6}) {
        const Scaled s = build<double>(1, mtype, {0, 1, 2}, u, v, 3);
        EXPECT_NEAR(s.r[0], std::sqrt(std::exp(0.5) * std::exp(2.0)), 1e-12) << mtype;
        EXPECT_NEAR(s.r[1], std::sqrt(std::exp(-1.0) * std::exp(0.25)), 1e-12) << mtype;
        // exp(800) alone overflows; the mean of the duals does not.
        EXPECT_DOUBLE_EQ(s.r[2], 1.0) << mtype;
        EXPECT_NEAR(s.c[1], std::exp(0.25), 1e-12) << mtype;
    }
    const Scaled unsym = build<double>(1, 1, {0, 1, 2}, u, v, 3);
    EXPECT_NEAR(unsym.r[0], std::exp(0.5), 1e-12);
}

template <class T>
double tolerance() {
    return std::is_same_v<T, float> ? 1e-3 : 1e-9;
}

template <class T>
class ScaledMatrixTest : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(ScaledMatrixTest, ElementTypes);

// Symmetric indefinite matrices, saddle-point ones among them: one diagonal
// scale on both sides keeps the matrix symmetric, bounds it by 1 and still
// puts 1 on every matched entry of the full matrix.
TYPED_TEST(ScaledMatrixTest, SymmetricScalingKeepsSymmetryAndMatchedOnes) {
    using T = TypeParam;
    std::mt19937 rng(12);
    for (int n : {3, 20, 200}) {
        for (bool zeroDiagonal : {false, true}) {
            const Csr<T> m = randomMatrix<T>(n, 3, rng, true, zeroDiagonal);
            const auto stored = borrowView(n, m.ia.data(), m.ja.data(), m.a.data());
            const auto full = expandSymmetric(stored, nullptr, -401);
            std::vector<int> match(n);
            std::vector<T> u(n), v(n);
            ASSERT_EQ(weightedMatching<T>(full, match, u, v).status, 0);
            const Scaled s = build<T>(1, -2, match, u, v, n);
            const Scaled unsym = build<T>(1, 11, match, u, v, n);
            bool unsymmetricScalingBreaksSymmetry = false;
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) {
                    const double aij = symmetricAt(m, i, j);
                    if (aij == 0) continue;
                    // One scale for rows and columns: symmetric by construction.
                    const double x = s.r[i] * std::abs(aij) * s.r[j];
                    EXPECT_LE(x, 1 + tolerance<T>()) << i << "," << j;
                    if (match[j] == i) {
                        EXPECT_NEAR(x, 1.0, tolerance<T>()) << i << "," << j;
                    }
                    const double y = unsym.r[i] * std::abs(aij) * unsym.c[j];
                    const double yt = unsym.r[j] * std::abs(aij) * unsym.c[i];
                    if (std::abs(y - yt) > 1e-2 * std::max(y, yt))
                        unsymmetricScalingBreaksSymmetry = true;
                }
            if (n >= 20) {
                // Otherwise the geometric mean would not be needed at all.
                EXPECT_TRUE(unsymmetricScalingBreaksSymmetry);
            }
        }
    }
}

} // namespace

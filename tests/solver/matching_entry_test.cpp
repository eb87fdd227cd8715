// The matching as the analysis runs it through the entry: symmetric
// systems ordered in pairs, structurally singular input, the caller's
// arrays left as they were.
#include "SpdsTest.h"

#include "Handle.h"
#include "SymmetricPairOrder.h"
#include "spds.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace spdstest;
namespace core = skyrinse::spds;

namespace {

// A handle for analyses with the matching and scaling on.
template <class T>
struct Analysis : Spds<T> {
    int mtype;
    Analysis(int type, int ordering) : mtype(type) {
        this->solveDefaults(type);
        this->iparm[1] = ordering;
        this->iparm[10] = this->iparm[12] = 1;
        this->iparm[17] = this->iparm[18] = -1;
    }
    int analyse(const Csr<T>& m) {
        return this->call(11, mtype, m.n, m.a.data(), m.ia.data(), m.ja.data());
    }
};

// Matting-like system of a w x h picture, weak diagonal shift.
template <class T>
Csr<T> imageSystem(int w, int h) {
    return csrOf<T>(fromEntries("image", -2, w * h, gridEntries(w, h, 8e-4)));
}

template <class T>
Csr<T> saddlePoint(int w, int h, int constraints, std::mt19937& rng) {
    return csrOf<T>(
        fromEntries("saddle", -2, w * h + constraints, saddleEntries(w, h, constraints, rng)));
}

// Pairs of the matching left on the handle must stand next to each other
// in the elimination order.
template <class T>
void expectPairsAdjacent(const Csr<T>& m, const core::Handle& h, int expectedPairs) {
    const int n = m.n;
    std::vector<int> match(n);
    for (int j = 0; j < n; ++j)
        match[j] = h.matchingPermutation[j] - 1;
    const core::CycleBlocks cb =
        core::cycleBlocks<T>(core::borrowView(n, m.ia.data(), m.ja.data(), m.a.data()), match);
    if (expectedPairs >= 0) {
        EXPECT_EQ(cb.pairs, expectedPairs);
    }
    for (int pos = 0; pos < n;) {
        if (cb.single.test(pos)) {
            ++pos;
            continue;
        }
        EXPECT_EQ(h.ordering_.invp[cb.list[pos + 1]], h.ordering_.invp[cb.list[pos]] + 1);
        pos += 2;
    }
}

template <class T>
class MatchingEntry : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatchingEntry, ElementTypes);

TYPED_TEST(MatchingEntry, ImageSystemAnalysesWithTheMatchingOn) {
    using T = TypeParam;
    const Csr<T> m = imageSystem<T>(40, 30);
    for (int ordering : {0, 2, 3}) {
        Analysis<T> s(-2, ordering);
        ASSERT_EQ(s.analyse(m), 0) << "iparm[1] = " << ordering;
        const core::Handle& h = *s.handle();
        ASSERT_TRUE(isPermutation(h.matchingPermutation.data(), m.n, 1));
        ASSERT_TRUE(isPermutation(h.ordering_.perm.data(), m.n, 1));
        // Diagonally dominant: matched to itself, scaled by the diagonal.
        for (int i = 0; i < m.n; ++i) {
            EXPECT_EQ(h.matchingPermutation[i], i + 1);
            const double d = std::abs(static_cast<double>(m.at(i, i)));
            EXPECT_NEAR(h.scalings[i] * d * h.scalings[i], 1.0, 1e-4);
        }
        expectPairsAdjacent(m, h, 0);
        // Without pairs the order must be that of the analysis without the matching.
        Analysis<T> plain(-2, ordering);
        plain.iparm[12] = 0;
        ASSERT_EQ(plain.analyse(m), 0);
        const core::Handle& p = *plain.handle();
        EXPECT_EQ(std::vector<int>(h.ordering_.perm.begin(), h.ordering_.perm.end()),
                  std::vector<int>(p.ordering_.perm.begin(), p.ordering_.perm.end()));
        EXPECT_EQ(h.ordering_.ndomains, p.ordering_.ndomains);
        if (ordering == 3) {
            EXPECT_GT(h.ordering_.ndomains, 1);
        }
    }
    EXPECT_EQ(m, imageSystem<T>(40, 30)) << "the caller's arrays stay as they were";
}

TYPED_TEST(MatchingEntry, SaddlePointSystemIsOrderedInPairs) {
    using T = TypeParam;
    std::mt19937 rng(31);
    const Csr<T> m = saddlePoint<T>(20, 15, 90, rng);
    const Csr<T> before = m;
    for (int ordering : {2, 3}) {
        Analysis<T> s(-2, ordering);
        ASSERT_EQ(s.analyse(m), 0) << "iparm[1] = " << ordering;
        const core::Handle& h = *s.handle();
        ASSERT_TRUE(isPermutation(h.ordering_.perm.data(), m.n, 1));
        for (int k = 0; k < m.n; ++k)
            EXPECT_EQ(h.ordering_.invp[h.ordering_.perm[k] - 1], k + 1);
        expectPairsAdjacent(m, h, -1);
    }
    EXPECT_EQ(m, before);
}

TYPED_TEST(MatchingEntry, ZeroColumnFailsWithMinusSixAndItsReport) {
    using T = TypeParam;
    std::mt19937 rng(35);
    for (int mtype : {11, -2}) {
        Csr<T> m = randomMatrix<T>(30, 3, rng, mtype == -2);
        // Column 4 (and row 4 when symmetric) of stored zeros.
        for (int i = 0; i < m.n; ++i)
            for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
                if (m.ja[k] == 5 || (mtype == -2 && i == 4)) m.a[k] = T(0);
        const Csr<T> before = m;
        Analysis<T> s(mtype, 2);
        s.msglvl = 1;
        ::testing::internal::CaptureStdout();
        const int error = s.analyse(m);
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(error, -6) << mtype;
        EXPECT_NE(out.find("preordering failed after 29 neqns out of 30"), std::string::npos)
            << out;
        EXPECT_NE(out.find("structure singular or input/parameter problem"), std::string::npos);
        EXPECT_EQ(s.internalCode(), -29);
        EXPECT_EQ(m, before);

        // Silent at message level 0, same error.
        Analysis<T> quiet(mtype, 2);
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(quiet.analyse(m), -6);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    }
}

} // namespace

// The matching step as the analysis (phase 11) runs it through the entry:
// symmetric indefinite systems ordered in pairs, the unsymmetric row
// permutation, structurally singular input with its report, and the
// caller's arrays left as they were.
#include "matching_support.h"

#include "Handle.h"
#include "SymmetricPairOrder.h"
#include "spds.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>
#include <string>
#include <vector>

using namespace matching_test;
namespace core = skyrinse::spds;

namespace {

// A handle released at scope exit, and one analysis call on it.
template <class T>
struct Analysis {
    void* pt[64] = {};
    int iparm[64] = {};
    int mtype = -2;
    int msglvl = 0;
    std::vector<int> perm;

    Analysis(int type, int ordering) : mtype(type) {
        iparm[0] = 1;
        iparm[1] = ordering;
        iparm[9] = 8;
        iparm[10] = 1;
        iparm[12] = 1;
        iparm[17] = -1;
        iparm[18] = -1;
        iparm[20] = 1;
        iparm[27] = std::is_same_v<T, float> ? 1 : 0;
    }
    ~Analysis() {
        int phase = -1, n = 1, one = 1, error = 0;
        spds(pt, &one, &one, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &one, iparm,
             &msglvl, nullptr, nullptr, &error);
    }
    Analysis(const Analysis&) = delete;
    Analysis& operator=(const Analysis&) = delete;

    int analyse(const Csr<T>& m) {
        int phase = 11, n = m.n, one = 1, error = 12345;
        perm.assign(static_cast<std::size_t>(n), 0);
        spds(pt, &one, &one, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(), perm.data(),
             &one, iparm, &msglvl, nullptr, nullptr, &error);
        return error;
    }
    core::Handle* handle() const { return core::handleOf(pt); }
};

// Matting-like system of a w x h picture: 3 x 3 neighbourhoods, symmetric,
// upper triangle, diagonal slightly above the sum of the row.
template <class T>
Csr<T> imageSystem(int w, int h) {
    std::vector<std::vector<std::pair<int, T>>> rows(w * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * w + x;
            int degree = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int xx = x + dx, yy = y + dy;
                    if ((dx == 0 && dy == 0) || xx < 0 || yy < 0 || xx >= w || yy >= h) continue;
                    ++degree;
                    if (yy * w + xx > i) rows[i].push_back({yy * w + xx, T(-0.125)});
                }
            rows[i].push_back({i, T(0.125) * T(degree) + T(1e-4)});
        }
    return fromEntries<T>(w * h, rows);
}

// [ A  B' ; B  0 ]: A tridiagonal n1 x n1, B n2 x n1 of full row rank. The
// zero block keeps its diagonal stored as 0, so that no row is empty.
template <class T>
Csr<T> saddlePoint(int n1, int n2, std::mt19937& rng) {
    std::vector<std::vector<std::pair<int, T>>> rows(n1 + n2);
    for (int r = 0; r < n2; ++r)
        rows[n1 + r].push_back({n1 + r, T(0)});
    for (int i = 0; i < n1; ++i) {
        rows[i].push_back({i, T(4)});
        if (i + 1 < n1) rows[i].push_back({i + 1, T(-1)});
    }
    std::uniform_int_distribution<int> col(0, n1 - 1);
    for (int r = 0; r < n2; ++r)
        for (int c : std::set<int>{r % n1, col(rng)})
            rows[c].push_back({n1 + r, randomValue<T>(rng)});
    return fromEntries<T>(n1 + n2, rows);
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
    const Csr<T> before = m;
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
        // Without pairs the block graph is the matrix graph: the order and
        // the domains must be those of the analysis without the matching.
        Analysis<T> plain(-2, ordering);
        plain.iparm[12] = 0;
        ASSERT_EQ(plain.analyse(m), 0);
        const core::Handle& p = *plain.handle();
        EXPECT_EQ(std::vector<int>(h.ordering_.perm.begin(), h.ordering_.perm.end()),
                  std::vector<int>(p.ordering_.perm.begin(), p.ordering_.perm.end()));
        EXPECT_EQ(h.ordering_.ndomains, p.ordering_.ndomains);
        EXPECT_EQ(std::vector<int>(h.ordering_.domainpairs.begin(), h.ordering_.domainpairs.end()),
                  std::vector<int>(p.ordering_.domainpairs.begin(), p.ordering_.domainpairs.end()));
        if (ordering == 3) {
            EXPECT_GT(h.ordering_.ndomains, 1);
        }
    }
    EXPECT_EQ(m.ia, before.ia);
    EXPECT_EQ(m.ja, before.ja);
    EXPECT_EQ(m.a, before.a);
}

TYPED_TEST(MatchingEntry, SaddlePointSystemIsOrderedInPairs) {
    using T = TypeParam;
    std::mt19937 rng(31);
    const Csr<T> m = saddlePoint<T>(300, 120, rng);
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
    EXPECT_EQ(m.ia, before.ia);
    EXPECT_EQ(m.ja, before.ja);
    EXPECT_EQ(m.a, before.a);
}

TEST(MatchingEntry, ScalingRequestWithoutMatchingScalesNothing) {
    std::mt19937 rng(32);
    const Csr<double> m = saddlePoint<double>(30, 10, rng);
    Analysis<double> s(-2, 2);
    s.iparm[12] = 0; // iparm[10] = 1 alone
    ASSERT_EQ(s.analyse(m), 0);
    EXPECT_TRUE(s.handle()->scalings.empty());
    EXPECT_TRUE(s.handle()->matchingPermutation.empty());
}

TEST(MatchingEntry, CallersPermutationWinsOverThePairOrder) {
    std::mt19937 rng(33);
    const Csr<double> m = saddlePoint<double>(30, 10, rng);
    Analysis<double> s(-2, 2);
    s.iparm[4] = 1;
    int phase = 11, n = m.n, one = 1, error = 0;
    std::vector<int> reversed(n);
    for (int k = 0; k < n; ++k)
        reversed[k] = n - k;
    spds(s.pt, &one, &one, &s.mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
         reversed.data(), &one, s.iparm, &s.msglvl, nullptr, nullptr, &error);
    ASSERT_EQ(error, 0);
    EXPECT_EQ(
        std::vector<int>(s.handle()->ordering_.perm.begin(), s.handle()->ordering_.perm.end()),
        reversed);
}

TEST(MatchingEntry, UnsymmetricRowsArePermutedBeforeTheOrdering) {
    // A permuted diagonal: row i holds its large entry in column (i + 3) % n.
    const int n = 12;
    std::vector<std::vector<std::pair<int, double>>> rows(n);
    for (int i = 0; i < n; ++i) {
        rows[i].push_back({(i + 3) % n, 100.0 + i});
        rows[i].push_back({(i + 5) % n, 1e-3});
    }
    const Csr<double> m = fromEntries<double>(n, rows);
    Analysis<double> s(11, 2);
    ASSERT_EQ(s.analyse(m), 0);
    const core::Handle& h = *s.handle();
    for (int j = 0; j < n; ++j)
        EXPECT_EQ(h.matchingPermutation[j] - 1, (j - 3 + n) % n) << "column " << j;
    for (int i = 0; i < n; ++i) {
        const int j = (i + 3) % n;
        EXPECT_NEAR(h.scalings[i] * (100.0 + i) * h.scalings[n + j], 1.0, 1e-12);
    }
}

TEST(MatchingEntry, RepeatedAnalysisKeepsTheHandleBlocks) {
    std::mt19937 rng(34);
    const Csr<double> m = saddlePoint<double>(30, 10, rng);
    Analysis<double> s(-2, 2);
    ASSERT_EQ(s.analyse(m), 0);
    const int* perm = s.handle()->matchingPermutation.data();
    const double* scalings = s.handle()->scalings.data();
    ASSERT_EQ(s.analyse(m), 0);
    EXPECT_EQ(s.handle()->matchingPermutation.data(), perm);
    EXPECT_EQ(s.handle()->scalings.data(), scalings);
}

TYPED_TEST(MatchingEntry, ZeroColumnFailsWithMinusSixAndItsReport) {
    using T = TypeParam;
    std::mt19937 rng(35);
    for (int mtype : {11, -2}) {
        Csr<T> m = mtype == 11 ? randomUnsymmetric<T>(30, 3, rng)
                               : randomSymmetricUpper<T>(30, 3, rng, false);
        // Column 4 (and for the symmetric type row 4) of zeros; the
        // structure itself stays valid for the checks of the entry.
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
        EXPECT_EQ(s.handle()->internalCode, -29);
        EXPECT_EQ(m.ia, before.ia);
        EXPECT_EQ(m.ja, before.ja);
        EXPECT_EQ(m.a, before.a);

        // Silent at message level 0, same error.
        Analysis<T> quiet(mtype, 2);
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(quiet.analyse(m), -6);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    }
}

// Failing the k-th allocation of an analysis with the matching on, for
// k = 0, 1, ... until it succeeds: each failure is -2 with the code of a
// block, phase -1 leaves nothing behind, and the caller's arrays stay.
template <class T>
void sweepAnalysis(const Csr<T>& m, int mtype) {
    const Csr<T> before = m;
    std::set<int> codes;
    bool succeeded = false;
    for (long k = 0; k < 2000 && !succeeded; ++k) {
        FailingHeap heap(k);
        int error = 0;
        int code = 0;
        {
            Analysis<T> s(mtype, 2);
            error = s.analyse(m);
            code = s.handle() ? s.handle()->internalCode : -100;
        } // phase -1
        EXPECT_EQ(heap.live(), 0) << "allocation " << k;
        EXPECT_EQ(m.ia, before.ia);
        EXPECT_EQ(m.ja, before.ja);
        EXPECT_EQ(m.a, before.a);
        if (error == 0) {
            succeeded = true;
            break;
        }
        EXPECT_EQ(error, -2) << "allocation " << k;
        codes.insert(code);
    }
    EXPECT_TRUE(succeeded);
    for (int code : {-401, -402, -403, -404})
        EXPECT_EQ(codes.count(code), 1u) << "no failure named " << code;
}

TEST(MatchingEntryMemory, SymmetricAnalysisFailuresAreReported) {
    std::mt19937 rng(36);
    sweepAnalysis(saddlePoint<double>(40, 15, rng), -2);
}

TEST(MatchingEntryMemory, UnsymmetricAnalysisFailuresAreReported) {
    std::mt19937 rng(37);
    sweepAnalysis(randomUnsymmetric<float>(40, 3, rng), 11);
}

} // namespace

// The matching step of the analysis: the choice by matrix type and
// parameters, what it leaves on the handle, structurally singular input,
// allocation failures, and that the caller's arrays never change.
#include "matching_support.h"

#include "solver/MatchingStep.h"

#include <gtest/gtest.h>
#include <metis.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <vector>

using namespace matching_test;
using skyrinse::spds::Block;
using skyrinse::spds::CompressedGraph;
using skyrinse::spds::CompressedOrdering;
using skyrinse::spds::IntBlock;
using skyrinse::spds::MatchingOutcome;
using skyrinse::spds::MatchingRequest;
using skyrinse::spds::runMatchingStep;

namespace {

CompressedOrdering identityOrder(const CompressedGraph& g) {
    CompressedOrdering o;
    o.order = IntBlock(g.nodes, -401, nullptr);
    for (int k = 0; k < g.nodes; ++k)
        o.order[k] = k;
    return o;
}

template <class T>
MatchingRequest requestFor(const Csr<T>& m, int mtype, int matching, bool scaling) {
    MatchingRequest rq;
    rq.mtype = mtype;
    rq.n = m.n;
    rq.maxfct = 2;
    rq.matching = matching;
    rq.scaling = scaling;
    rq.single = std::is_same_v<T, float>;
    rq.a = m.a.data();
    rq.ia = m.ia.data();
    rq.ja = m.ja.data();
    return rq;
}

struct HandleBlocks {
    IntBlock permutation;
    Block<double> scalings;
};

template <class T>
MatchingOutcome step(const Csr<T>& m, int mtype, int matching, bool scaling, HandleBlocks& h) {
    return runMatchingStep(requestFor(m, mtype, matching, scaling), h.permutation, h.scalings,
                           identityOrder);
}

// Matting-like system of an image: 3 x 3 neighbourhoods of a w x h grid,
// symmetric, with a weak diagonal shift; stored by its upper triangle.
template <class T>
Csr<T> gridSystem(int w, int h) {
    const int n = w * h;
    std::vector<std::vector<std::pair<int, T>>> rows(n);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * w + x;
            int degree = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int xx = x + dx, yy = y + dy;
                    if ((dx == 0 && dy == 0) || xx < 0 || yy < 0 || xx >= w || yy >= h) continue;
                    ++degree;
                    const int j = yy * w + xx;
                    if (j > i) rows[i].push_back({j, T(-1)});
                }
            rows[i].push_back({i, T(degree) + T(1e-4)});
        }
    return fromEntries<T>(n, rows);
}

// [ A  B' ; B  0 ] with A tridiagonal and B of full row rank.
Csr<double> saddlePoint(int n1, int n2, std::mt19937& rng) {
    const int n = n1 + n2;
    std::vector<std::vector<std::pair<int, double>>> rows(n);
    for (int i = 0; i < n1; ++i) {
        rows[i].push_back({i, 4.0});
        if (i + 1 < n1) rows[i].push_back({i + 1, -1.0});
    }
    std::uniform_int_distribution<int> col(0, n1 - 1);
    for (int r = 0; r < n2; ++r) {
        std::set<int> cols{r % n1, col(rng)};
        for (int c : cols)
            rows[c].push_back({n1 + r, randomValue<double>(rng)});
    }
    return fromEntries<double>(n, rows);
}

TEST(MatchingStep, UnsymmetricWithoutMatchingWritesIdentityAndUnitScalings) {
    std::mt19937 rng(1);
    const Csr<double> m = randomUnsymmetric<double>(9, 3, rng);
    HandleBlocks h;
    const MatchingOutcome out = step(m, 11, 0, true, h);
    EXPECT_EQ(out.error, 0);
    EXPECT_FALSE(out.ran);
    ASSERT_EQ(h.permutation.size(), 9 * 2 + 9 + 3);
    ASSERT_EQ(h.scalings.size(), 18);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(h.permutation[i], i + 1);
        EXPECT_EQ(h.scalings[i], 1.0);
        EXPECT_EQ(h.scalings[9 + i], 1.0);
    }
}

TEST(MatchingStep, SymmetricWithoutMatchingDoesNothing) {
    const Csr<double> m = gridSystem<double>(4, 3);
    HandleBlocks h;
    const MatchingOutcome out = step(m, -2, 0, true, h);
    EXPECT_EQ(out.error, 0);
    EXPECT_FALSE(out.ran);
    EXPECT_TRUE(h.permutation.empty());
    EXPECT_TRUE(h.scalings.empty());
}

template <class T>
class MatchingStepTyped : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatchingStepTyped, ElementTypes);

TYPED_TEST(MatchingStepTyped, UnsymmetricMatchingWithScaling) {
    using T = TypeParam;
    std::mt19937 rng(2);
    const Csr<T> m = randomUnsymmetric<T>(80, 4, rng);
    HandleBlocks h;
    const MatchingOutcome out = step(m, 11, 1, true, h);
    ASSERT_EQ(out.error, 0);
    EXPECT_TRUE(out.ran);
    EXPECT_FALSE(out.hasPairOrder);
    const int n = m.n;
    ASSERT_TRUE(isPermutation(h.permutation.data(), n, 1));
    const double tol = std::is_same_v<T, float> ? 1e-3 : 1e-9;
    for (int i = 0; i < n; ++i)
        for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
            const int j = m.ja[k] - 1;
            const double x =
                h.scalings[i] * std::abs(static_cast<double>(m.a[k])) * h.scalings[n + j];
            EXPECT_LE(x, 1 + tol);
            if (h.permutation[j] - 1 == i) {
                EXPECT_NEAR(x, 1.0, tol);
            }
        }
}

TYPED_TEST(MatchingStepTyped, MatchingWithoutScalingKeepsUnitScalings) {
    using T = TypeParam;
    // Rows swapped: the matching must move them, the scaling stays 1.
    const Csr<T> m = fromEntries<T>(2, {{{0, T(1e-3)}, {1, T(5)}}, {{0, T(7)}}});
    HandleBlocks h;
    const MatchingOutcome out = step(m, 11, 1, false, h);
    ASSERT_EQ(out.error, 0);
    EXPECT_EQ(h.permutation[0], 2);
    EXPECT_EQ(h.permutation[1], 1);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(h.scalings[i], 1.0);
}

TYPED_TEST(MatchingStepTyped, ImageSystemKeepsItsDiagonal) {
    using T = TypeParam;
    const Csr<T> m = gridSystem<T>(12, 9);
    HandleBlocks h;
    const MatchingOutcome out = step(m, -2, 1, true, h);
    ASSERT_EQ(out.error, 0);
    ASSERT_TRUE(out.hasPairOrder);
    // Diagonally dominant: every node is matched to itself, no pair is needed.
    for (int i = 0; i < m.n; ++i)
        EXPECT_EQ(h.permutation[i], i + 1);
    EXPECT_EQ(out.pairOrder.pairs, 0);
    EXPECT_TRUE(isPermutation(out.pairOrder.perm.data(), m.n, 1));
}

TEST(MatchingStep, SaddlePointSystemIsOrderedInPairsAndScaledSymmetrically) {
    std::mt19937 rng(3);
    const Csr<double> m = saddlePoint(60, 25, rng);
    const Csr<double> before = m;
    HandleBlocks h;
    const MatchingOutcome out = runMatchingStep(
        requestFor(m, -2, 1, true), h.permutation, h.scalings, [](const CompressedGraph& g) {
            idx_t nodes = g.nodes;
            std::vector<idx_t> xadj(g.xadj.begin(), g.xadj.end());
            std::vector<idx_t> adj(g.adjncy.begin(), g.adjncy.end());
            std::vector<idx_t> perm(nodes), iperm(nodes);
            METIS_NodeND(&nodes, xadj.data(), adj.data(), nullptr, nullptr, perm.data(),
                         iperm.data());
            CompressedOrdering o;
            o.order = IntBlock(nodes, -401, nullptr);
            for (int k = 0; k < nodes; ++k)
                o.order[k] = static_cast<int>(perm[k]);
            return o;
        });
    ASSERT_EQ(out.error, 0);
    ASSERT_TRUE(out.hasPairOrder);
    const int n = m.n;
    EXPECT_GT(out.pairOrder.pairs, 0);
    EXPECT_TRUE(isPermutation(out.pairOrder.perm.data(), n, 1));
    EXPECT_TRUE(isPermutation(h.permutation.data(), n, 1));
    // The zero block is matched outside itself.
    for (int j = 60; j < n; ++j)
        EXPECT_LT(h.permutation[j] - 1, 60) << j;
    // Full pattern handed on for the ordering graph: symmetric, each stored
    // entry once per row it touches.
    ASSERT_EQ(out.fullIa.size(), n + 1);
    EXPECT_EQ(out.fullIa[n], 2 * m.nnz() - 60);
    for (int i = 0; i < n; ++i) {
        const double d = h.scalings[i];
        for (int k = out.fullIa[i]; k < out.fullIa[i + 1]; ++k) {
            const int j = out.fullJa[k];
            const double x = d * std::abs(symmetricAt(m, i, j)) * h.scalings[j];
            EXPECT_LE(x, 1 + 1e-9);
        }
    }
    EXPECT_EQ(m.ia, before.ia);
    EXPECT_EQ(m.ja, before.ja);
    EXPECT_EQ(m.a, before.a);
}

TYPED_TEST(MatchingStepTyped, ZeroColumnIsStructurallySingular) {
    using T = TypeParam;
    std::mt19937 rng(4);
    for (int mtype : {11, -2}) {
        Csr<T> m = mtype == 11 ? randomUnsymmetric<T>(30, 3, rng)
                               : randomSymmetricUpper<T>(30, 3, rng, false);
        // Column (and, for the symmetric type, row) 7 holds zeros only.
        for (int i = 0; i < m.n; ++i)
            for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
                if (m.ja[k] - 1 == 7 || (mtype == -2 && i == 7)) m.a[k] = T(0);
        const Csr<T> before = m;
        HandleBlocks h;
        const MatchingOutcome out = step(m, mtype, 1, true, h);
        EXPECT_EQ(out.error, -6) << mtype;
        EXPECT_EQ(out.internalCode, -out.matched) << mtype;
        EXPECT_LT(out.matched, m.n) << mtype;
        EXPECT_GE(out.matched, m.n - 2) << mtype;
        EXPECT_EQ(m.ia, before.ia);
        EXPECT_EQ(m.ja, before.ja);
        EXPECT_EQ(m.a, before.a);
    }
}

TEST(MatchingStep, TypesWithoutAMatchingAreRefused) {
    std::mt19937 rng(5);
    const Csr<double> m = randomUnsymmetric<double>(5, 2, rng);
    for (int mtype : {1, 2, 3, -1, 4}) {
        HandleBlocks h;
        const MatchingOutcome out = step(m, mtype, 1, true, h);
        EXPECT_EQ(out.error, -5) << mtype;
        EXPECT_EQ(out.internalCode, skyrinse::spds::kGuardMessage) << mtype;
    }
}

// Complex values as (real, imaginary) pairs: the matching weighs moduli, so
// a large imaginary entry counts as much as a large real one.
TEST(MatchingStep, ComplexTypesAreMatchedByModulus) {
    // Row i holds 1 + 0i on the diagonal and 0 + 50i in column (i + 1) % n.
    const int n = 6;
    Csr<double> m;
    m.n = n;
    m.ia.push_back(1);
    std::vector<double> pairs;
    for (int i = 0; i < n; ++i) {
        const int j = (i + 1) % n;
        std::vector<std::pair<int, std::pair<double, double>>> row{{i, {1.0, 0.0}},
                                                                   {j, {0.0, 50.0 + i}}};
        std::sort(row.begin(), row.end());
        for (auto& [c, z] : row) {
            m.ja.push_back(c + 1);
            pairs.push_back(z.first);
            pairs.push_back(z.second);
        }
        m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
    }
    MatchingRequest rq;
    rq.mtype = 13;
    rq.n = n;
    rq.matching = 1;
    rq.scaling = true;
    rq.a = pairs.data();
    rq.ia = m.ia.data();
    rq.ja = m.ja.data();
    HandleBlocks h;
    const MatchingOutcome out = runMatchingStep(rq, h.permutation, h.scalings, identityOrder);
    ASSERT_EQ(out.error, 0);
    for (int i = 0; i < n; ++i) {
        const int j = (i + 1) % n;
        EXPECT_EQ(h.permutation[j], i + 1) << "column " << j;
        EXPECT_NEAR(h.scalings[i] * (50.0 + i) * h.scalings[n + j], 1.0, 1e-12);
        EXPECT_LE(h.scalings[i] * 1.0 * h.scalings[n + i], 1.0 + 1e-12);
    }

    // The same pattern stored as complex symmetric (upper triangle of a
    // cyclic band) goes through the pair order.
    for (int mtype : {-4, 6}) {
        rq.mtype = mtype;
        HandleBlocks hs;
        const MatchingOutcome sym = runMatchingStep(rq, hs.permutation, hs.scalings, identityOrder);
        EXPECT_EQ(sym.error, 0) << mtype;
        EXPECT_TRUE(sym.hasPairOrder) << mtype;
    }
}

TEST(MatchingStep, SecondAnalysisReusesTheHandleBlocks) {
    std::mt19937 rng(6);
    const Csr<double> m = randomUnsymmetric<double>(20, 3, rng);
    HandleBlocks h;
    ASSERT_EQ(step(m, 11, 1, true, h).error, 0);
    const int* perm = h.permutation.data();
    const double* scal = h.scalings.data();
    ASSERT_EQ(step(m, 11, 1, true, h).error, 0);
    EXPECT_EQ(h.permutation.data(), perm);
    EXPECT_EQ(h.scalings.data(), scal);
}

// Failing the k-th allocation for k = 0, 1, ... until the step succeeds:
// each failure is error -2 with the code of its block, the caller's arrays
// are unchanged, and once the handle's blocks are released nothing is live.
void sweepAllocationFailures(const Csr<double>& m, int mtype) {
    const Csr<double> before = m;
    std::set<int> codes;
    bool succeeded = false;
    for (long k = 0; k < 400 && !succeeded; ++k) {
        FailingHeap heap(k);
        {
            HandleBlocks h;
            const MatchingOutcome out = step(m, mtype, 1, true, h);
            if (out.error == 0) {
                succeeded = true;
            } else {
                EXPECT_EQ(out.error, -2) << "allocation " << k;
                EXPECT_LE(out.internalCode, -401);
                EXPECT_GE(out.internalCode, -404);
                codes.insert(out.internalCode);
            }
        }
        EXPECT_EQ(heap.live(), 0) << "allocation " << k;
        EXPECT_EQ(m.ia, before.ia);
        EXPECT_EQ(m.ja, before.ja);
    }
    EXPECT_TRUE(succeeded);
    EXPECT_EQ(codes, (std::set<int>{-401, -402, -403, -404}));
}

TEST(MatchingStepMemory, UnsymmetricFailuresAreReportedWithTheirCodes) {
    std::mt19937 rng(7);
    sweepAllocationFailures(randomUnsymmetric<double>(25, 3, rng), 11);
}

TEST(MatchingStepMemory, SymmetricFailuresAreReportedWithTheirCodes) {
    std::mt19937 rng(8);
    sweepAllocationFailures(saddlePoint(20, 8, rng), -2);
}

} // namespace

// The matching step of the analysis: the choice by type and parameters,
// what it leaves on the handle, the caller's arrays unchanged.
#include "SpdsTest.h"

#include "solver/MatchingStep.h"

#include <gtest/gtest.h>
#include <metis.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <vector>

using namespace spdstest;
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

TEST(MatchingStep, UnsymmetricWithoutMatchingWritesIdentityAndUnitScalings) {
    std::mt19937 rng(1);
    const Csr<double> m = randomMatrix<double>(9, 3, rng);
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

template <class T>
class MatchingStepTyped : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatchingStepTyped, ElementTypes);

TYPED_TEST(MatchingStepTyped, UnsymmetricMatchingWithScaling) {
    using T = TypeParam;
    std::mt19937 rng(2);
    const Csr<T> m = randomMatrix<T>(80, 4, rng);
    HandleBlocks h;
    const Csr<T> before = m;
    const MatchingOutcome out = step(m, 11, 1, true, h);
    EXPECT_EQ(m, before);
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

TEST(MatchingStep, SaddlePointSystemIsOrderedInPairsAndScaledSymmetrically) {
    std::mt19937 rng(3);
    const Csr<double> m =
        csrOf<double>(fromEntries("saddle", -2, 79, saddleEntries(10, 6, 19, rng)));
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
    EXPECT_EQ(out.fullIa[n], 2 * m.nnz() - n);
    for (int i = 0; i < n; ++i) {
        const double d = h.scalings[i];
        for (int k = out.fullIa[i]; k < out.fullIa[i + 1]; ++k) {
            const int j = out.fullJa[k];
            const double x = d * std::abs(symmetricAt(m, i, j)) * h.scalings[j];
            EXPECT_LE(x, 1 + 1e-9);
        }
    }
    EXPECT_EQ(m, before);
}

TEST(MatchingStep, TypesWithoutAMatchingAreRefused) {
    std::mt19937 rng(5);
    const Csr<double> m = randomMatrix<double>(5, 2, rng);
    for (int mtype : {1, 2, 3, -1, 4}) {
        HandleBlocks h;
        const MatchingOutcome out = step(m, mtype, 1, true, h);
        EXPECT_EQ(out.error, -5) << mtype;
        EXPECT_EQ(out.internalCode, skyrinse::spds::kGuardMessage) << mtype;
    }
}

} // namespace

// Blocks from the cycles of a matching, and the pair-keeping order of the
// block graph.
#include "SpdsTest.h"

#include "solver/SymmetricPairOrder.h"
#include "solver/WeightedMatching.h"

#include <gtest/gtest.h>
#include <metis.h>

using namespace spdstest;
using namespace skyrinse::spds;

namespace {

TEST(CycleBlocks, FromTheCyclesOfAMatching) {
    struct Case {
        const char* why;
        std::vector<double> diagonal; // 0: not stored
        std::vector<int> match, list, single;
        int pairs, blocks;
    };
    const Case cases[] = {
        {"fixed points", {0, 0, 0, 0}, {0, 1, 2, 3}, {0, 1, 2, 3}, {1, 1, 1, 1}, 0, 4},
        {"2-cycle, diagonals above the threshold", {2e-8, -2e-8}, {1, 0}, {0, 1}, {1, 1}, 0, 2},
        {"2-cycle, a diagonal missing", {2.0, 0.0}, {1, 0}, {0, 1}, {0, 0}, 1, 1},
        {"2-cycle, a diagonal at the threshold", {1.0, -1e-8}, {1, 0}, {0, 1}, {0, 0}, 1, 1},
        {"3-cycle: first node at the back", {0, 0, 0}, {1, 2, 0}, {1, 2, 0}, {0, 0, 1}, 1, 2},
        {"4-cycle: two pairs", {0, 0, 0, 0}, {1, 2, 3, 0}, {0, 1, 2, 3}, {0, 0, 0, 0}, 2, 2},
        {"singles first, cycles by smallest node",
         {0, 0, 0, 0, 0, 0, 0},
         {3, 1, 5, 0, 2, 4, 6},
         {1, 6, 0, 3, 5, 4, 2},
         {1, 1, 0, 0, 0, 0, 1},
         2,
         5},
    };
    for (const Case& c : cases) {
        const int n = static_cast<int>(c.diagonal.size());
        std::vector<std::vector<std::pair<int, double>>> rows(n);
        for (int i = 0; i < n; ++i)
            if (c.diagonal[i] != 0) rows[i].push_back({i, c.diagonal[i]});
        rows[0].push_back({1, 1.0});
        const Csr<double> m = csrFromRows<double>(n, rows);
        const CycleBlocks b =
            cycleBlocks<double>(borrowView(n, m.ia.data(), m.ja.data(), m.a.data()), c.match);
        std::vector<int> single;
        for (int k = 0; k < n; ++k)
            single.push_back(b.single.test(k) ? 1 : 0);
        EXPECT_EQ(std::vector<int>(b.list.begin(), b.list.end()), c.list) << c.why;
        EXPECT_EQ(single, c.single) << c.why;
        EXPECT_EQ(b.pairs, c.pairs) << c.why;
        EXPECT_EQ(b.blocks, c.blocks) << c.why;
    }
}

// The block graph of a saddle point ordered by METIS, as iparm[1] = 2 does:
// a permutation with every pair adjacent, the caller's arrays untouched.
TEST(SymmetricPairOrder, NestedDissectionKeepsPairsAdjacent) {
    std::mt19937 rng(23);
    const Csr<double> m =
        csrOf<double>(fromEntries("saddle", -2, 200, saddleEntries(15, 10, 50, rng)));
    const Csr<double> before = m;
    const int n = m.n;
    const auto stored = borrowView(n, m.ia.data(), m.ja.data(), m.a.data());
    const auto full = expandSymmetric(stored, nullptr, -401);
    std::vector<int> match(n);
    std::vector<double> u(n), v(n);
    ASSERT_EQ(weightedMatching<double>(full, match, u, v).status, 0);
    auto nd = [](const CompressedGraph& g) {
        idx_t nodes = g.nodes;
        std::vector<idx_t> xadj(g.xadj.begin(), g.xadj.end()),
            adj(g.adjncy.begin(), g.adjncy.end());
        std::vector<idx_t> vw(g.weights.begin(), g.weights.end()), perm(nodes), iperm(nodes);
        EXPECT_EQ(METIS_NodeND(&nodes, xadj.data(), adj.data(), vw.data(), nullptr, perm.data(),
                               iperm.data()),
                  METIS_OK);
        CompressedOrdering o;
        o.order = IntBlock(nodes, -401, nullptr);
        for (int k = 0; k < nodes; ++k)
            o.order[k] = static_cast<int>(perm[k]);
        return o;
    };
    const PairOrder po = symmetricPairOrder<double>(stored, full, match, nd);
    ASSERT_TRUE(isPermutation(po.perm.data(), n, 1));
    const CycleBlocks cb = cycleBlocks<double>(stored, match);
    EXPECT_GT(cb.pairs, 0) << "the zero block needs pairs";
    EXPECT_EQ(po.pairs, cb.pairs);
    for (int pos = 0; pos < n; pos += cb.single.test(pos) ? 1 : 2) {
        if (cb.single.test(pos)) continue;
        const int a = cb.list[pos], b = cb.list[pos + 1];
        EXPECT_EQ(po.invp[b], po.invp[a] + 1) << "pair " << a << "," << b;
        EXPECT_EQ(po.perm[po.invp[a] - 1], a + 1);
    }
    EXPECT_EQ(m, before);
}

} // namespace

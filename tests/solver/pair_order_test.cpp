// Blocks from the cycles of a matching and the pair-keeping order of the
// block graph.
#include "SpdsTest.h"

#include "solver/SymmetricPairOrder.h"
#include "solver/WeightedMatching.h"

#include <gtest/gtest.h>
#include <metis.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

using namespace spdstest;
using skyrinse::spds::borrowView;
using skyrinse::spds::CompressedGraph;
using skyrinse::spds::CompressedOrdering;
using skyrinse::spds::cycleBlocks;
using skyrinse::spds::CycleBlocks;
using skyrinse::spds::expandSymmetric;
using skyrinse::spds::IntBlock;
using skyrinse::spds::symmetricPairOrder;

namespace {

// Upper-stored symmetric matrix with the given diagonal (0 = not stored)
// and a few off-diagonal entries.
Csr<double> withDiagonal(const std::vector<double>& diagonal,
                         const std::vector<std::pair<int, int>>& offDiagonal = {}) {
    const int n = static_cast<int>(diagonal.size());
    std::vector<std::vector<std::pair<int, double>>> rows(n);
    for (int i = 0; i < n; ++i)
        if (diagonal[i] != 0) rows[i].push_back({i, diagonal[i]});
    for (auto [i, j] : offDiagonal)
        rows[std::min(i, j)].push_back({std::max(i, j), 1.0});
    return csrFromRows<double>(n, rows);
}

CycleBlocks blocksOf(const Csr<double>& m, const std::vector<int>& match) {
    return cycleBlocks<double>(borrowView(m.n, m.ia.data(), m.ja.data(), m.a.data()), match);
}

std::vector<int> listOf(const CycleBlocks& b) {
    return {b.list.begin(), b.list.end()};
}
std::vector<int> bitsOf(const CycleBlocks& b) {
    std::vector<int> bits;
    for (int k = 0; k < b.single.size(); ++k)
        bits.push_back(b.single.test(k) ? 1 : 0);
    return bits;
}

TEST(CycleBlocks, FromTheCyclesOfAMatching) {
    struct Case {
        const char* why;
        std::vector<double> diagonal; // 0: not stored
        std::vector<int> match;
        std::vector<int> list, single;
        int pairs, blocks;
    };
    const Case cases[] = {
        {"fixed points are single blocks in order",
         {0, 0, 0, 0},
         {0, 1, 2, 3},
         {0, 1, 2, 3},
         {1, 1, 1, 1},
         0,
         4},
        {"2-cycle with strong diagonals dissolves", {2.0, -3.0}, {1, 0}, {0, 1}, {1, 1}, 0, 2},
        {"2-cycle with diagonals just above the threshold dissolves",
         {2e-8, -2e-8},
         {1, 0},
         {0, 1},
         {1, 1},
         0,
         2},
        {"second diagonal not stored: a pair", {2.0, 0.0}, {1, 0}, {0, 1}, {0, 0}, 1, 1},
        {"first diagonal not stored: a pair", {0.0, 2.0}, {1, 0}, {0, 1}, {0, 0}, 1, 1},
        {"first diagonal below the threshold: a pair", {1e-9, 1.0}, {1, 0}, {0, 1}, {0, 0}, 1, 1},
        {"magnitude equal to the threshold is not above it",
         {1.0, -1e-8},
         {1, 0},
         {0, 1},
         {0, 0},
         1,
         1},
        {"odd cycle puts its first node at the back",
         {0, 0, 0},
         {1, 2, 0},
         {1, 2, 0},
         {0, 0, 1},
         1,
         2},
        {"4-cycle gives two consecutive pairs",
         {0, 0, 0, 0},
         {1, 2, 3, 0},
         {0, 1, 2, 3},
         {0, 0, 0, 0},
         2,
         2},
        {"singles first, then cycles by their smallest node",
         {0, 0, 0, 0, 0, 0, 0},
         {3, 1, 5, 0, 2, 4, 6},
         {1, 6, 0, 3, 5, 4, 2},
         {1, 1, 0, 0, 0, 0, 1},
         2,
         5},
    };
    for (const Case& c : cases) {
        const Csr<double> m = withDiagonal(c.diagonal, {{0, 1}});
        const CycleBlocks b = blocksOf(m, c.match);
        EXPECT_EQ(listOf(b), c.list) << c.why;
        EXPECT_EQ(bitsOf(b), c.single) << c.why;
        EXPECT_EQ(b.pairs, c.pairs) << c.why;
        EXPECT_EQ(b.blocks, c.blocks) << c.why;
    }
    // A stored 0 on the diagonal is found but is not above the threshold.
    Csr<double> m = withDiagonal({1.0, 1.0}, {{0, 1}});
    m.a[m.ia[1] - 1] = 0.0;
    EXPECT_EQ(blocksOf(m, {1, 0}).pairs, 1);
}

// An ordering of the block graph that records what it was given.
struct RecordingOrderer {
    std::vector<int> xadj, adjncy, weights;
    int nodes = 0;
    bool reverse = true;
    std::vector<int> domainpairs; // returned as given
    int ndomains = 1;

    CompressedOrdering operator()(const CompressedGraph& g) {
        nodes = g.nodes;
        xadj.assign(g.xadj.begin(), g.xadj.end());
        adjncy.assign(g.adjncy.begin(), g.adjncy.end());
        weights.assign(g.weights.begin(), g.weights.end());
        CompressedOrdering o;
        o.order = IntBlock(g.nodes, -401, nullptr);
        for (int k = 0; k < g.nodes; ++k)
            o.order[k] = reverse ? g.nodes - 1 - k : k;
        if (!domainpairs.empty()) {
            o.domainpairs = IntBlock(static_cast<std::int64_t>(domainpairs.size()), -401, nullptr);
            std::copy(domainpairs.begin(), domainpairs.end(), o.domainpairs.begin());
            o.ndomains = ndomains;
        }
        return o;
    }
};

struct Prepared {
    Csr<double> m;
    std::vector<int> match;
};

Prepared saddlePoint(int n1, int n2, std::mt19937& rng) {
    // [ A  B' ; B  0 ]: A diagonal-dominant n1 x n1, B n2 x n1 with a full
    // diagonal so the zero block can be matched through it.
    const int n = n1 + n2;
    std::vector<std::vector<std::pair<int, double>>> rows(n);
    std::uniform_int_distribution<int> col(0, n1 - 1);
    for (int i = 0; i < n1; ++i) {
        rows[i].push_back({i, 4.0});
        if (i + 1 < n1) rows[i].push_back({i + 1, -1.0});
    }
    for (int r = 0; r < n2; ++r) {
        std::set<int> cols{r % n1, col(rng)};
        for (int c : cols)
            rows[c].push_back({n1 + r, randomValue<double>(rng)});
    }
    for (auto& row : rows) { // merge duplicates that the random choice made
        std::sort(row.begin(), row.end());
        row.erase(std::unique(row.begin(), row.end(),
                              [](auto& x, auto& y) { return x.first == y.first; }),
                  row.end());
    }
    Prepared p{csrFromRows<double>(n, rows), std::vector<int>(n)};
    const auto stored = borrowView(n, p.m.ia.data(), p.m.ja.data(), p.m.a.data());
    const auto full = expandSymmetric(stored, nullptr, -401);
    std::vector<double> u(n), v(n);
    EXPECT_EQ(skyrinse::spds::weightedMatching<double>(full, p.match, u, v).status, 0);
    return p;
}

TEST(SymmetricPairOrder, BlockGraphMergesTheRowsOfEachPair) {
    std::mt19937 rng(21);
    const Prepared p = saddlePoint(12, 6, rng);
    const int n = p.m.n;
    const auto stored = borrowView(n, p.m.ia.data(), p.m.ja.data(), p.m.a.data());
    const auto full = expandSymmetric(stored, nullptr, -401);
    RecordingOrderer rec;
    const skyrinse::spds::PairOrder po = symmetricPairOrder<double>(
        stored, full, p.match, [&](const CompressedGraph& g) { return rec(g); });
    const CycleBlocks cb = cycleBlocks<double>(stored, p.match);
    ASSERT_EQ(rec.nodes, cb.blocks);
    EXPECT_EQ(po.pairs, cb.pairs);
    EXPECT_GT(cb.pairs, 0) << "the zero block needs pairs";

    // Members of each block from the cycle list.
    std::vector<std::vector<int>> members;
    for (int pos = 0; pos < n;) {
        const int size = cb.single.test(pos) ? 1 : 2;
        members.push_back({cb.list.begin() + pos, cb.list.begin() + pos + size});
        pos += size;
    }
    ASSERT_EQ(static_cast<int>(members.size()), rec.nodes);
    std::vector<int> blockOf(n);
    for (int b = 0; b < rec.nodes; ++b)
        for (int x : members[b])
            blockOf[x] = b;
    for (int b = 0; b < rec.nodes; ++b) {
        EXPECT_EQ(rec.weights[b], static_cast<int>(members[b].size()));
        std::set<int> expected;
        for (int x : members[b])
            for (int y = 0; y < n; ++y)
                if (blockOf[y] != b && (p.m.stored(std::min(x, y), std::max(x, y))))
                    expected.insert(blockOf[y]);
        const std::vector<int> got(rec.adjncy.begin() + rec.xadj[b],
                                   rec.adjncy.begin() + rec.xadj[b + 1]);
        EXPECT_EQ(std::set<int>(got.begin(), got.end()), expected) << "block " << b;
        EXPECT_EQ(got.size(), expected.size()) << "duplicates in block " << b;
    }
}

TEST(SymmetricPairOrder, ExpansionKeepsPairsTogetherAndInvertsCorrectly) {
    std::mt19937 rng(22);
    const Prepared p = saddlePoint(20, 9, rng);
    const int n = p.m.n;
    const auto stored = borrowView(n, p.m.ia.data(), p.m.ja.data(), p.m.a.data());
    const auto full = expandSymmetric(stored, nullptr, -401);
    RecordingOrderer rec;
    const skyrinse::spds::PairOrder po = symmetricPairOrder<double>(
        stored, full, p.match, [&](const CompressedGraph& g) { return rec(g); });
    ASSERT_TRUE(isPermutation(po.perm.data(), n, 1));
    for (int k = 0; k < n; ++k)
        EXPECT_EQ(po.invp[po.perm[k] - 1], k + 1);

    // Reversed block order: the last block of the list comes first, and each
    // pair appears as its two nodes in list order.
    const CycleBlocks cb = cycleBlocks<double>(stored, p.match);
    std::vector<std::vector<int>> members;
    for (int pos = 0; pos < n;) {
        const int size = cb.single.test(pos) ? 1 : 2;
        members.push_back({cb.list.begin() + pos, cb.list.begin() + pos + size});
        pos += size;
    }
    std::vector<int> expected;
    for (auto it = members.rbegin(); it != members.rend(); ++it)
        for (int x : *it)
            expected.push_back(x + 1);
    EXPECT_EQ(std::vector<int>(po.perm.begin(), po.perm.end()), expected);
}

TEST(SymmetricPairOrder, RangesOfTheOrderingCountTwoForAPair) {
    // Blocks in list order: [2], [3] single, then the pair [0 1] (n = 4).
    const Csr<double> m = withDiagonal({0, 0, 0, 0}, {{0, 1}, {1, 2}, {2, 3}});
    const std::vector<int> match{1, 0, 2, 3};
    const auto stored = borrowView(m.n, m.ia.data(), m.ja.data(), m.a.data());
    const auto full = expandSymmetric(stored, nullptr, -401);
    RecordingOrderer rec;
    rec.reverse = false;
    // Compressed positions: domain 1 = the pair, domain 2 = block [2],
    // separator tail and root separator = block [3].
    rec.domainpairs = {1, 1, 2, 2, 3, 3, 3, 3};
    rec.ndomains = 2;
    const skyrinse::spds::PairOrder po =
        symmetricPairOrder<double>(stored, full, match, [&](const CompressedGraph& g) {
            CompressedOrdering o = rec(g);
            o.order[0] = 2; // the pair first, then [2], then [3]
            o.order[1] = 0;
            o.order[2] = 1;
            return o;
        });
    EXPECT_EQ(std::vector<int>(po.perm.begin(), po.perm.end()), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(std::vector<int>(po.domainpairs.begin(), po.domainpairs.end()),
              (std::vector<int>{1, 2, 3, 3, 4, 4, 4, 4}));
    EXPECT_EQ(po.ndomains, 2);
    EXPECT_EQ(po.partitions, 2);
}

TEST(SymmetricPairOrder, NoRangesMeansOnePartition) {
    const Csr<double> m = withDiagonal({1, 1, 1});
    const auto stored = borrowView(m.n, m.ia.data(), m.ja.data(), m.a.data());
    const auto full = expandSymmetric(stored, nullptr, -401);
    RecordingOrderer rec;
    const skyrinse::spds::PairOrder po = symmetricPairOrder<double>(
        stored, full, std::vector<int>{0, 1, 2}, [&](const CompressedGraph& g) { return rec(g); });
    EXPECT_EQ(po.partitions, 1);
    EXPECT_TRUE(po.domainpairs.empty());
    EXPECT_EQ(std::vector<int>(po.perm.begin(), po.perm.end()), (std::vector<int>{3, 2, 1}));
}

// The block graph ordered by METIS nested dissection, as the solver does for
// iparm[1] = 2: the result is a permutation with every pair adjacent, and
// the caller's arrays are untouched.
TEST(SymmetricPairOrder, NestedDissectionOfTheBlockGraph) {
    std::mt19937 rng(23);
    const Prepared p = saddlePoint(150, 50, rng);
    const Csr<double> before = p.m;
    const int n = p.m.n;
    const auto stored = borrowView(n, p.m.ia.data(), p.m.ja.data(), p.m.a.data());
    const auto full = expandSymmetric(stored, nullptr, -401);
    auto nd = [](const CompressedGraph& g) {
        idx_t nodes = g.nodes;
        std::vector<idx_t> xadj(g.xadj.begin(), g.xadj.end());
        std::vector<idx_t> adj(g.adjncy.begin(), g.adjncy.end());
        std::vector<idx_t> vw(g.weights.begin(), g.weights.end());
        std::vector<idx_t> perm(nodes), iperm(nodes);
        EXPECT_EQ(METIS_NodeND(&nodes, xadj.data(), adj.data(), vw.data(), nullptr, perm.data(),
                               iperm.data()),
                  METIS_OK);
        CompressedOrdering o;
        o.order = IntBlock(nodes, -401, nullptr);
        for (int k = 0; k < nodes; ++k)
            o.order[k] = static_cast<int>(perm[k]);
        return o;
    };
    const skyrinse::spds::PairOrder po = symmetricPairOrder<double>(stored, full, p.match, nd);
    ASSERT_TRUE(isPermutation(po.perm.data(), n, 1));
    const CycleBlocks cb = cycleBlocks<double>(stored, p.match);
    for (int pos = 0; pos < n;) {
        if (cb.single.test(pos)) {
            ++pos;
            continue;
        }
        const int a = cb.list[pos], b = cb.list[pos + 1];
        EXPECT_EQ(po.invp[b], po.invp[a] + 1) << "pair " << a << "," << b;
        pos += 2;
    }
    EXPECT_EQ(p.m, before);
}

} // namespace

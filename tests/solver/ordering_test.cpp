// Ordering stage: the ordering graph, domains from a p-way dissection, the
// regrouping of domains, and the single-domain cases.
#include "SpdsTest.h"

#include "Ordering.h"

#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

using namespace skyrinse::spds;
using namespace spdstest;

namespace {

OrderingInput inputFor(const System& m, MemoryCounter& memory) {
    OrderingInput in;
    in.n = m.n;
    in.ia = m.ia.data();
    in.ja = m.ja.data();
    in.memory = &memory;
    return in;
}

std::vector<std::pair<int, int>> pairs(const OrderingResult& out) {
    std::vector<std::pair<int, int>> p;
    for (int k = 0; k < 2 * out.ndomains; ++k)
        p.push_back({out.domainpairs[2 * k], out.domainpairs[2 * k + 1]});
    return p;
}

TEST(OrderingGraph, IsTheSymmetrisedPatternWithoutDiagonalOrDuplicates) {
    // Unsorted rows, a repeated entry and both triangles of one coupling.
    System m;
    m.n = 4;
    m.ia = {1, 4, 6, 7, 9};
    m.ja = {3, 1, 3, 2, 1, 3, 4, 2};
    m.a.assign(8, 1.0);
    MemoryCounter memory;
    OrderingInput in = inputFor(m, memory);
    OrderingResult out;
    buildOrderingGraph(in, out);
    std::vector<std::vector<int>> rows;
    for (int i = 0; i < 4; ++i)
        rows.emplace_back(out.adjncy.data() + out.xadj[i] - 1,
                          out.adjncy.data() + out.xadj[i + 1] - 1);
    // Couplings 1-3, 2-1 and 4-2, each in both rows, ascending, once.
    EXPECT_EQ(rows, (std::vector<std::vector<int>>{{2, 3}, {1, 4}, {1}, {2}}));
}

TEST(OrderingGraph, RowPermutationIsAppliedToUnsymmetricPatterns) {
    System m;
    m.n = 3;
    m.ia = {1, 2, 3, 4};
    m.ja = {2, 3, 1}; // a cyclic pattern with no diagonal
    m.a.assign(3, 1.0);
    const int rowPermutation[] = {3, 1, 2}; // new row 1 is old row 3 (entry in column 1), ...
    MemoryCounter memory;
    OrderingInput in = inputFor(m, memory);
    in.rowPermutation = rowPermutation;
    OrderingResult out;
    buildOrderingGraph(in, out);
    EXPECT_EQ(out.xadj[3], 1) << "every moved entry lands on the diagonal";
}

TEST(Domains, FromDissectionSizesInNumberingOrder) {
    // p = 4: leaves 13 12 13 12, separators 3 3, root 8: the order is
    // leaf0 leaf1 sep01 leaf2 leaf3 sep23 root.
    const int sizes[] = {13, 12, 13, 12, 3, 3, 8};
    OrderingResult out;
    domainsFromDissection(64, 4, sizes, out);
    ASSERT_EQ(out.ndomains, 4);
    EXPECT_EQ(pairs(out),
              (std::vector<std::pair<int, int>>{
                  {1, 13}, {14, 25}, {29, 41}, {42, 53}, {54, 64}, {26, 28}, {54, 56}, {57, 64}}));
}

TEST(Domains, EmptyLeavesAreDropped) {
    const int sizes[] = {5, 0, 4, 3, 0, 2, 1}; // leaf 1 and separator 01 empty
    OrderingResult out;
    domainsFromDissection(15, 4, sizes, out);
    ASSERT_EQ(out.ndomains, 3);
    EXPECT_EQ(pairs(out), (std::vector<std::pair<int, int>>{
                              {1, 5}, {6, 9}, {10, 12}, {13, 15}, {13, 14}, {15, 15}}));
}

TEST(Domains, InconsistentSizesFallBackToOneDomain) {
    const int sizes[] = {5, 4, 3}; // do not add up to n
    OrderingResult out;
    domainsFromDissection(20, 2, sizes, out);
    EXPECT_EQ(out.ndomains, 1);
    EXPECT_EQ(pairs(out), (std::vector<std::pair<int, int>>{{1, 19}, {20, 20}}));
}

TEST(Domains, RegroupingMakesDomainsContiguousAndKeepsSeparatorOrder) {
    const int sizes[] = {3, 2, 3, 2, 1, 1, 2};
    const int n = 14;
    OrderingResult out;
    out.perm = IntBlock(n, -400, nullptr);
    out.invp = IntBlock(n, -400, nullptr);
    // Any columns will do; label position k with column 100 - k to tell them apart.
    std::vector<int> columns(n);
    std::iota(columns.begin(), columns.end(), 1);
    std::reverse(columns.begin(), columns.end());
    std::copy(columns.begin(), columns.end(), out.perm.data());
    domainsFromDissection(n, 4, sizes, out);
    ASSERT_EQ(out.ndomains, 4);
    regroupDomains(n, out);
    // Old order: d0(1-3) d1(4-5) s01(6) d2(7-9) d3(10-11) s23(12) root(13-14).
    const std::vector<int> expected{14, 13, 12, 11, 10, 8, 7, 6, 5, 4, 9, 3, 2, 1};
    EXPECT_EQ(std::vector<int>(out.perm.begin(), out.perm.end()), expected);
    for (int k = 0; k < n; ++k)
        EXPECT_EQ(out.invp[out.perm[k] - 1], k + 1);
    EXPECT_EQ(pairs(out),
              (std::vector<std::pair<int, int>>{
                  {1, 3}, {4, 5}, {6, 8}, {9, 10}, {11, 14}, {11, 11}, {12, 12}, {13, 14}}));
}

TEST(Domains, OneUnknownHasTheSingleDomainList) {
    System m;
    m.n = 1;
    m.ia = {1, 2};
    m.ja = {1};
    m.a = {1};
    MemoryCounter memory;
    OrderingInput in = inputFor(m, memory);
    in.method = kNestedDissectionParallel;
    in.partitions = 4;
    OrderingResult out;
    computeOrdering(in, out);
    EXPECT_EQ(out.perm[0], 1);
    EXPECT_EQ(pairs(out), (std::vector<std::pair<int, int>>{{1, 0}, {1, 1}}));
}

// Methods x sizes: 600 unknowns go to METIS as they are, 4550 unknowns of a
// wide stencil are contracted in pairs before the dissection.
class EveryMethod : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(EveryMethod, DeliversAPermutationAndAConsistentDomainList) {
    const int width = std::get<1>(GetParam());
    const System m = stencilPattern(width, width == 30 ? 20 : 65, false);
    MemoryCounter memory;
    OrderingInput in = inputFor(m, memory);
    in.method = std::get<0>(GetParam());
    in.partitions = 8;
    OrderingResult out;
    computeOrdering(in, out);
    std::vector<int> seen(static_cast<std::size_t>(m.n), 0);
    for (int k = 0; k < m.n; ++k) {
        ASSERT_GE(out.perm[k], 1);
        ASSERT_LE(out.perm[k], m.n);
        ++seen[static_cast<std::size_t>(out.perm[k] - 1)];
        EXPECT_EQ(out.invp[out.perm[k] - 1], k + 1);
    }
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](int c) { return c == 1; }));
    const auto p = pairs(out);
    const int nd = out.ndomains;
    if (in.method == kNestedDissectionParallel) {
        EXPECT_GT(nd, 1);
    } else {
        EXPECT_EQ(nd, 1);
    }
    // Domains tile 1 .. tail-1 in order, the tail runs to n, separators
    // tile the tail in order and the root ends at n.
    int next = 1;
    for (int d = 0; d < nd; ++d) {
        EXPECT_EQ(p[static_cast<std::size_t>(d)].first, next);
        next = p[static_cast<std::size_t>(d)].second + 1;
    }
    EXPECT_EQ(p[static_cast<std::size_t>(nd)], std::make_pair(next, m.n));
    for (int s = nd + 1; s < 2 * nd; ++s) {
        EXPECT_EQ(p[static_cast<std::size_t>(s)].first, next);
        next = p[static_cast<std::size_t>(s)].second + 1;
    }
    if (nd > 1) {
        EXPECT_EQ(next, m.n + 1);
    }
    // No coupling between two different domains: that is what separators are for.
    if (nd > 1) {
        std::vector<int> domainOf(static_cast<std::size_t>(m.n), -1);
        for (int d = 0; d < nd; ++d)
            for (int k = p[static_cast<std::size_t>(d)].first;
                 k <= p[static_cast<std::size_t>(d)].second; ++k)
                domainOf[static_cast<std::size_t>(out.perm[k - 1] - 1)] = d;
        for (int v = 0; v < m.n; ++v)
            for (int k = out.xadj[v] - 1; k < out.xadj[v + 1] - 1; ++k) {
                const int u = out.adjncy[k] - 1;
                const int dv = domainOf[static_cast<std::size_t>(v)],
                          du = domainOf[static_cast<std::size_t>(u)];
                EXPECT_FALSE(dv >= 0 && du >= 0 && dv != du) << v << " and " << u;
            }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Methods, EveryMethod,
    ::testing::Combine(::testing::Values(kMinimumDegree, kMinimumDegreeCompressed,
                                         kNestedDissection, kNestedDissectionParallel),
                       ::testing::Values(30, 70)));

TEST(MinimumDegree, CompressedOrderingKeepsIndistinguishableVerticesTogether) {
    // Cliques of four vertices joined in a ring: each clique's vertices have
    // equal closed neighbourhoods only if the ring couples all of them alike.
    const int cliques = 20, size = 4, n = cliques * size;
    std::vector<std::set<int>> rows(n);
    for (int c = 0; c < cliques; ++c)
        for (int a = 0; a < size; ++a)
            for (int b = 0; b < size; ++b) {
                const int i = c * size + a;
                rows[static_cast<std::size_t>(i)].insert(c * size + b);
                rows[static_cast<std::size_t>(i)].insert(((c + 1) % cliques) * size + b);
                rows[static_cast<std::size_t>(i)].insert(((c + cliques - 1) % cliques) * size + b);
            }
    const System m = fromRows(n, rows);
    MemoryCounter memory;
    OrderingInput in = inputFor(m, memory);
    in.method = kMinimumDegreeCompressed;
    OrderingResult out;
    computeOrdering(in, out);
    for (int k = 0; k < n; k += size) {
        const int clique = (out.perm[k] - 1) / size;
        for (int a = 1; a < size; ++a)
            EXPECT_EQ((out.perm[k + a] - 1) / size, clique) << "position " << k + a;
    }
}

} // namespace

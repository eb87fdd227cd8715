// Ordering stage: the ordering graph and the domains of a p-way dissection.
#include "SpdsTest.h"

#include "Ordering.h"

#include <gtest/gtest.h>

#include <numeric>
#include <thread>
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

TEST(OrderingGraph, TakenFromAFullPatternOnlyWhenEveryRowAscendsStrictly) {
    // The couplings above as a zero-based full pattern with its diagonal.
    auto block = [](const std::vector<int>& v) {
        IntBlock b(static_cast<std::int64_t>(v.size()), -400, nullptr);
        std::copy(v.begin(), v.end(), b.data());
        return b;
    };
    const std::vector<int> ia = {0, 3, 6, 8, 10};
    IntBlock xa = block(ia), clean = block({0, 1, 2, 0, 1, 3, 0, 2, 1, 3});
    OrderingResult out;
    ASSERT_TRUE(graphFromFullPattern(4, xa, clean, out));
    EXPECT_TRUE(xa.empty() && clean.empty());
    std::vector<std::vector<int>> rows;
    for (int i = 0; i < 4; ++i)
        rows.emplace_back(out.adjncy.data() + out.xadj[i] - 1,
                          out.adjncy.data() + out.xadj[i + 1] - 1);
    EXPECT_EQ(rows, (std::vector<std::vector<int>>{{2, 3}, {1, 4}, {1}, {2}}));
    // A repeated or a descending entry: the graph must be built from the matrix.
    for (const std::vector<int>& bad : {std::vector<int>{0, 1, 1, 0, 1, 3, 0, 2, 1, 3},
                                        std::vector<int>{0, 1, 2, 0, 1, 3, 2, 0, 1, 3}}) {
        IntBlock badIa = block(ia), badJa = block(bad);
        OrderingResult refused;
        EXPECT_FALSE(graphFromFullPattern(4, badIa, badJa, refused));
        EXPECT_TRUE(refused.xadj.empty());
        EXPECT_TRUE(std::equal(bad.begin(), bad.end(), badJa.data()));
    }
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
    ASSERT_TRUE(isPermutation(out.perm.data(), m.n, 1));
    for (int k = 0; k < m.n; ++k)
        EXPECT_EQ(out.invp[out.perm[k] - 1], k + 1);
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

// Without sharing, nothing is kept. A shared dissection is taken once by the
// next analysis of the same graph, which is what a dissection of it gives
// anyway; another graph, or another part count, is dissected. Two threads
// meeting one graph at once both get its order.
TEST(RememberedOrder, ASharedDissectionIsTakenOnce) {
    MemoryCounter memory;
    auto order = [&](const System& m, int partitions) {
        OrderingInput in = inputFor(m, memory);
        in.method = kNestedDissectionParallel;
        in.partitions = partitions;
        OrderingResult out;
        computeOrdering(in, out);
        return std::pair{std::vector<int>(out.perm.data(), out.perm.data() + m.n), pairs(out)};
    };
    const System a = stencilPattern(70, 65, true), b = stencilPattern(65, 70, true);
    const long long before = rememberedOrdersTaken();
    const auto first = order(a, 8);
    EXPECT_EQ(first, order(a, 8));
    EXPECT_EQ(before, rememberedOrdersTaken()) << "kept without being asked";

    spds_share_orders(1);
    order(a, 8);
    spds_share_orders(0);
    EXPECT_NE(first, order(a, 4));
    order(b, 8);
    EXPECT_EQ(before, rememberedOrdersTaken());
    EXPECT_EQ(first, order(a, 8));
    EXPECT_EQ(before + 1, rememberedOrdersTaken());
    order(a, 8);
    EXPECT_EQ(before + 1, rememberedOrdersTaken()) << "taken twice";

    spds_share_orders(1);
    order(a, 8);
    spds_share_orders(0);
    decltype(order(a, 8)) other;
    std::thread beside([&] { other = order(a, 8); });
    EXPECT_EQ(first, order(a, 8));
    beside.join();
    EXPECT_EQ(first, other);
    EXPECT_EQ(before + 2, rememberedOrdersTaken()) << "one of the two takes it";
}

INSTANTIATE_TEST_SUITE_P(
    Methods, EveryMethod,
    ::testing::Combine(::testing::Values(kMinimumDegree, kMinimumDegreeCompressed,
                                         kNestedDissection, kNestedDissectionParallel),
                       ::testing::Values(30, 70)));

} // namespace

// Blocks from the cycles of a matching (the pair-keeping order itself is
// checked through the entry, in matching_entry_test).
#include "SpdsTest.h"

#include "solver/SymmetricPairOrder.h"

#include <gtest/gtest.h>

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

} // namespace

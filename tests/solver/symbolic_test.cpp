// Symbolic factorization against a dense symbolic elimination, for random
// patterns of 1 to 300 unknowns under every ordering the solver offers: the
// fundamental supernodes exactly, and the merged ones as a coarsening of
// them whose rows hold every column's structure.
#include "SpdsTest.h"

#include "Ordering.h"
#include "SymbolicFactorization.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <string>

using namespace skyrinse::spds;
using namespace spdstest;
using Solver = Spds<double>;

namespace {

// The handle's analysis with fundamental supernodes (merging off).
void analyseFundamental(Solver& s, const System& m) {
    ASSERT_EQ(s.call(11, m), 0);
    s.handle()->relaxedSupernodes = false;
    ASSERT_EQ(s.call(11, m), 0);
}

// The structure against the dense elimination. Without `fundamental` the
// handle holds fundamental supernodes, checked exactly; with it, merged ones,
// checked as whole fundamental supernodes whose rows hold every column's
// structure, the zeros counted.
void expectMatchesBruteForce(const System& m, const Handle& h,
                             const SymbolicResult* fundamental = nullptr) {
    const int n = m.n;
    const SymbolicResult& sym = h.symbolic;
    std::vector<int> perm(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k)
        perm[static_cast<std::size_t>(k)] = h.ordering_.perm[k] - 1;
    ASSERT_TRUE(isPermutation(h.ordering_.perm.data(), n, 1));
    const auto cols = bruteForceFactor(m, perm);

    std::int64_t total = 0;
    for (int j = 1; j <= n; ++j) {
        const auto& c = cols[static_cast<std::size_t>(j - 1)];
        ASSERT_EQ(sym.parent[j - 1], c.empty() ? 0 : c.front() + 1) << "parent of " << j;
        if (!fundamental) {
            ASSERT_EQ(sym.colcnt[j - 1], static_cast<int>(c.size()) + 1) << "colcnt of " << j;
        }
        total += static_cast<std::int64_t>(c.size()) + 1;
    }
    EXPECT_EQ(sym.colcountSum, total);

    // A partition into runs no wider than maxsup; each supernode's rows
    // start with its own columns, ascend, and hold every column's structure
    // as a suffix; each column is stored as tall as its supernode.
    const int ns = sym.nsuper;
    ASSERT_GE(ns, 1);
    ASSERT_EQ(sym.xsup[0], 1);
    ASSERT_EQ(sym.xsup[ns], n + 1);
    int widest = 0;
    std::int64_t trapezoids = 0;
    for (int s = 1; s <= ns; ++s) {
        const int fst = sym.xsup[s - 1], lst = sym.xsup[s] - 1;
        const int w = lst - fst + 1;
        ASSERT_LE(fst, lst);
        ASSERT_LE(w, sym.maxsup);
        widest = std::max(widest, w);
        const std::vector<int> rows(sym.lindx.data() + sym.xlindx[s - 1] - 1,
                                    sym.lindx.data() + sym.xlindx[s] - 1);
        const int height = static_cast<int>(rows.size());
        ASSERT_TRUE(std::is_sorted(rows.begin(), rows.end()));
        for (int c = fst; c <= lst; ++c) {
            ASSERT_EQ(sym.snode[c - 1], s);
            ASSERT_EQ(rows[static_cast<std::size_t>(c - fst)], c);
            ASSERT_EQ(sym.colcnt[c - 1], height - (c - fst)) << "column " << c;
            ASSERT_EQ(sym.xlnz[c] - sym.xlnz[c - 1], height);
            ASSERT_EQ(sym.xunz[c] - sym.xunz[c - 1], height - w);
            for (int r : cols[static_cast<std::size_t>(c - 1)])
                ASSERT_TRUE(std::binary_search(rows.begin(), rows.end(), r + 1))
                    << "row " << r + 1 << " of column " << c << " not in supernode " << s;
        }
        trapezoids +=
            static_cast<std::int64_t>(w) * height - static_cast<std::int64_t>(w) * (w - 1) / 2;
        if (fundamental) {
            // Whole fundamental supernodes only.
            ASSERT_EQ(fundamental->xsup[fundamental->snode[fst - 1] - 1], fst) << "supernode " << s;
            ASSERT_EQ(fundamental->xsup[fundamental->snode[lst - 1]], lst + 1) << "supernode " << s;
        } else {
            ASSERT_EQ(height, static_cast<int>(cols[static_cast<std::size_t>(fst - 1)].size()) + 1)
                << "lindx of supernode " << s << " holds more than its first column";
            if (s > 1) {
                const int prevWidth = fst - sym.xsup[s - 2];
                const bool wouldJoin =
                    sym.parent[fst - 2] == fst && sym.colcnt[fst - 2] == sym.colcnt[fst - 1] + 1;
                EXPECT_FALSE(wouldJoin && prevWidth < sym.maxsup)
                    << "supernode " << s << " not maximal";
            }
        }
    }
    EXPECT_EQ(sym.largestSupernode, widest);
    EXPECT_GE(sym.largestFundamental, fundamental ? fundamental->largestSupernode : widest);
    EXPECT_EQ(sym.colcountSum + sym.relaxedZeros, trapezoids);
    EXPECT_EQ(sym.lnzSize, sym.xlnz[n] - 1);
    EXPECT_EQ(sym.unzSize, h.symmetricStorage ? 1 : sym.xunz[n] - 1);

    // Every update of d onto t fits the update buffer: rows of d from t's
    // first column on, times the rows of d inside t.
    for (int d = 1; d <= ns; ++d) {
        const int width = sym.xsup[d] - sym.xsup[d - 1];
        const int end = sym.xlindx[d];
        for (int k = sym.xlindx[d - 1] + width; k < end;) {
            const int t = sym.snode[sym.lindx[k - 1] - 1];
            int q = 0;
            while (k + q < end && sym.lindx[k + q - 1] < sym.xsup[t])
                ++q;
            const std::int64_t r = end - k;
            EXPECT_LE(r * q, sym.tmpsiz) << "update " << d << " -> " << t;
            k += q;
        }
    }
    for (int s = 1; s <= ns; ++s) {
        const int p = sym.parent[sym.xsup[s] - 2];
        ASSERT_EQ(sym.sparent[s - 1], p ? sym.snode[p - 1] : 0);
    }
}

// Fundamental, then merged supernodes of the same analysis; `merged` is
// set when the merge took any.
void expectBothPartitions(const System& m, Solver& s, bool* merged = nullptr) {
    analyseFundamental(s, m);
    expectMatchesBruteForce(m, *s.handle());
    if (::testing::Test::HasFatalFailure()) return;
    const SymbolicResult fundamental = std::move(s.handle()->symbolic);
    s.handle()->relaxedSupernodes = true;
    ASSERT_EQ(s.call(11, m), 0);
    expectMatchesBruteForce(m, *s.handle(), &fundamental);
    EXPECT_LE(s.handle()->symbolic.nsuper, fundamental.nsuper);
    if (merged) *merged = s.handle()->symbolic.nsuper < fundamental.nsuper;
    EXPECT_EQ(s.handle()->symbolic.domainsUnusable, fundamental.domainsUnusable);
}

struct Case {
    bool symmetric;
    int ordering; // iparm[1]; -1 for a random permutation of the caller
};

class SymbolicAgainstBruteForce : public ::testing::TestWithParam<Case> {};

TEST_P(SymbolicAgainstBruteForce, RandomPatterns) {
    const Case c = GetParam();
    std::mt19937 rng(1234 + c.ordering * 7 + (c.symmetric ? 1 : 0));
    for (int n : {2, 7, 51, 300}) {
        for (double density : {0.5 / n, 2.0 / n, 0.05}) {
            System m = randomPattern(n, density, c.symmetric, rng);
            Solver s;
            s.iparm[0] = 1;
            s.iparm[1] = c.ordering < 0 ? 2 : c.ordering;
            if (c.ordering < 0) {
                s.iparm[4] = 1;
                s.perm.resize(static_cast<std::size_t>(n));
                std::iota(s.perm.begin(), s.perm.end(), 1);
                std::shuffle(s.perm.begin(), s.perm.end(), rng);
            }
            SCOPED_TRACE("n " + std::to_string(n) + " density " + std::to_string(density));
            expectBothPartitions(m, s);
            if (HasFatalFailure()) return;
            if (c.ordering < 0) {
                for (int k = 0; k < n; ++k)
                    ASSERT_EQ(s.handle()->ordering_.perm[k], s.perm[static_cast<std::size_t>(k)]);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Orderings, SymbolicAgainstBruteForce,
    ::testing::Values(Case{true, -1}, Case{false, -1}, Case{true, 0}, Case{false, 0}, Case{true, 1},
                      Case{false, 1}, Case{true, 2}, Case{false, 2}, Case{true, 3}, Case{false, 3}),
    [](const ::testing::TestParamInfo<Case>& info) {
        const std::string kind = info.param.symmetric ? "Symmetric" : "Unsymmetric";
        return kind + (info.param.ordering < 0 ? std::string("UserPermutation")
                                               : "Ordering" + std::to_string(info.param.ordering));
    });

TEST(SymbolicStructure, StencilWithDomainsMatchesBruteForce) {
    // Large enough for the 32 parts that the dissection is asked for.
    const System m = stencilPattern(34, 30, false);
    Solver s;
    s.iparm[0] = 1;
    s.iparm[1] = 3;
    bool merged = false;
    expectBothPartitions(m, s, &merged);
    EXPECT_TRUE(merged);
    EXPECT_GT(s.handle()->ordering_.ndomains, 1);
}

TEST(SymbolicStructure, DenseChainIsCutAtPanelWidthAndReportsTheWholeRun) {
    const int n = 300;
    std::vector<std::set<int>> rows(n);
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j)
            rows[static_cast<std::size_t>(i)].insert(j);
    const System m = fromRows(n, rows, -2);
    Solver s;
    s.iparm[0] = 1;
    s.iparm[1] = 2;
    s.iparm[4] = 1;
    s.perm.resize(n);
    std::iota(s.perm.begin(), s.perm.end(), 1);
    analyseFundamental(s, m);
    const SymbolicResult& sym = s.handle()->symbolic;
    const int cut = sym.maxsup;
    ASSERT_LT(cut, n);
    EXPECT_EQ(sym.largestFundamental, n);
    EXPECT_EQ(sym.largestSupernode, cut);
    EXPECT_EQ(sym.nsuper, (n + cut - 1) / cut);
    for (int s2 = 1; s2 < sym.nsuper; ++s2)
        EXPECT_EQ(sym.xsup[s2] - sym.xsup[s2 - 1], cut);
}

TEST(SymbolicStructure, OneUnknownMatchesBruteForce) {
    System m;
    m.n = 1;
    m.ia = {1, 3};
    m.ja = {1, 1}; // a repeated entry keeps it off the diagonal path
    m.a = {2.0, 1.0};
    Solver s;
    expectBothPartitions(m, s);
}

TEST(SymbolicStructure, FactorPastThirtyTwoBitsIsAnOverflowNotAWrap) {
    // Three one-column supernodes so tall that the third starts past 32 bits.
    auto layout = [](int height) {
        const int n = 3;
        SymbolicResult sym;
        sym.snode = IntBlock(n, -600, nullptr);
        sym.xsup = IntBlock(n + 1, -700, nullptr);
        sym.colcnt = IntBlock(n, -600, nullptr);
        sym.xlnz = IntBlock(n + 1, -801, nullptr);
        sym.xunz = IntBlock(n + 1, -802, nullptr);
        for (int j = 0; j < n; ++j) {
            sym.snode[j] = j + 1;
            sym.xsup[j] = j + 1;
            sym.colcnt[j] = height;
        }
        sym.xsup[n] = n + 1;
        layoutValues(n, sym);
        return sym.lnzSize;
    };
    EXPECT_EQ(layout(700000000), 2100000000LL);
    try {
        layout(1100000000);
        ADD_FAILURE() << "no overflow reported";
    } catch (const SymbolicFailure& f) {
        EXPECT_EQ(f.status, -182);
    }
}

} // namespace

// nnz(L) of the analysis against the count CHOLMOD reports for the same
// permutation (CHOLMOD is a test peer only, never linked into the solver).
#include "SpdsTest.h"

#include <gtest/gtest.h>

#include <cholmod.h>

#include <numeric>
#include <set>

using namespace spdstest;
using Solver = Spds<double>;

namespace {

// CHOLMOD's count of L for A + A^T under perm (one-based), diagonal included.
double cholmodFactorEntries(const System& m, const std::vector<int>& perm) {
    cholmod_common c;
    cholmod_start(&c);
    const int n = m.n;
    std::vector<std::set<int>> cols(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        for (int k = m.ia[static_cast<std::size_t>(i)] - 1;
             k < m.ia[static_cast<std::size_t>(i) + 1] - 1; ++k) {
            const int j = m.ja[static_cast<std::size_t>(k)] - 1;
            cols[static_cast<std::size_t>(std::max(i, j))].insert(std::min(i, j));
        }
    std::size_t nnz = 0;
    for (const auto& s : cols)
        nnz += s.size();
    cholmod_sparse* a = cholmod_allocate_sparse(n, n, nnz, 1, 1, 1, CHOLMOD_PATTERN, &c);
    int* ap = static_cast<int*>(a->p);
    int* ai = static_cast<int*>(a->i);
    ap[0] = 0;
    for (int j = 0; j < n; ++j) {
        int k = ap[j];
        for (int i : cols[static_cast<std::size_t>(j)])
            ai[k++] = i;
        ap[j + 1] = k;
    }
    std::vector<int> userPerm(perm.size());
    for (std::size_t k = 0; k < perm.size(); ++k)
        userPerm[k] = perm[k] - 1;
    c.nmethods = 1;
    c.method[0].ordering = CHOLMOD_GIVEN;
    c.postorder = 0;
    c.supernodal = CHOLMOD_SIMPLICIAL;
    cholmod_factor* l = cholmod_analyze_p(a, userPerm.data(), nullptr, 0, &c);
    const double lnz = l ? c.method[0].lnz : -1;
    cholmod_free_factor(&l, &c);
    cholmod_free_sparse(&a, &c);
    cholmod_finish(&c);
    return lnz;
}

// ordering: iparm[1], or -1 for a random permutation of the caller.
void expectSameCount(const System& m, int ordering, std::mt19937& rng) {
    Solver s;
    s.iparm[0] = 1;
    s.iparm[1] = std::max(ordering, 0);
    s.iparm[4] = ordering < 0 ? 1 : 2; // take the permutation, or hand it out
    if (ordering < 0) {
        s.perm.resize(static_cast<std::size_t>(m.n));
        std::iota(s.perm.begin(), s.perm.end(), 1);
        std::shuffle(s.perm.begin(), s.perm.end(), rng);
    }
    ASSERT_EQ(s.call(11, m), 0);
    EXPECT_EQ(static_cast<double>(s.handle()->symbolic.colcountSum),
              cholmodFactorEntries(m, s.perm))
        << "n " << m.n << " mtype " << m.mtype << " ordering " << ordering;
}

TEST(AgainstCholmod, RandomPatternsAndMattingShapesUnderEveryOrdering) {
    std::mt19937 rng(7);
    for (int n : {5, 60, 300, 1000})
        for (int ordering = -1; ordering <= 3; ++ordering)
            for (bool symmetric : {false, true})
                expectSameCount(randomPattern(n, 3.0 / n, symmetric, rng), ordering, rng);
    expectSameCount(stencilPattern(60, 45, true), 3, rng);
    expectSameCount(stencilPattern(60, 45, false), 2, rng);
    expectSameCount(stencilPattern(50, 40, true), 0, rng);
    expectSameCount(stencilPattern(90, 80, true), 3, rng); // contracted dissection
}

} // namespace

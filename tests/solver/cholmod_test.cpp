// nnz(L) of the analysis against the count CHOLMOD reports for the same
// permutation (CHOLMOD is a test peer only, never linked into the solver).
#include "SpdsCall.h"

#include <gtest/gtest.h>

#include <cholmod.h>

#include <numeric>
#include <set>

using spdstest::Matrix;
using spdstest::Solver;

namespace {

// CHOLMOD's count of L for A + A^T under perm (one-based), diagonal included.
double cholmodFactorEntries(const Matrix& m, const std::vector<int>& perm) {
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

void expectSameCount(const Matrix& m, int mtype, int ordering) {
    Solver s;
    s.mtype = mtype;
    s.iparm[0] = 1;
    s.iparm[1] = ordering;
    s.iparm[4] = 2; // hand the permutation out
    ASSERT_EQ(s.call(11, m), 0);
    const double expected = cholmodFactorEntries(m, s.perm);
    EXPECT_EQ(static_cast<double>(s.handle()->symbolic.colcountSum), expected)
        << "n " << m.n << " mtype " << mtype << " ordering " << ordering;
}

TEST(AgainstCholmod, RandomPatternsUnderEveryOrdering) {
    std::mt19937 rng(7);
    for (int n : {5, 60, 300, 1000})
        for (int ordering = 0; ordering <= 3; ++ordering) {
            expectSameCount(spdstest::randomMatrix(n, 3.0 / n, false, rng), 11, ordering);
            expectSameCount(spdstest::randomMatrix(n, 3.0 / n, true, rng), -2, ordering);
        }
}

TEST(AgainstCholmod, MattingShapedSystems) {
    expectSameCount(spdstest::stencilMatrix(60, 45, true), -2, 3);
    expectSameCount(spdstest::stencilMatrix(60, 45, false), 11, 2);
    expectSameCount(spdstest::stencilMatrix(50, 40, true), -2, 0);
    expectSameCount(spdstest::stencilMatrix(90, 80, true), -2, 3); // contracted dissection
}

TEST(AgainstCholmod, CallersPermutation) {
    std::mt19937 rng(11);
    const Matrix m = spdstest::randomMatrix(500, 0.01, false, rng);
    Solver s;
    s.iparm[0] = 1;
    s.iparm[1] = 2;
    s.iparm[4] = 1;
    s.perm.resize(500);
    std::iota(s.perm.begin(), s.perm.end(), 1);
    std::shuffle(s.perm.begin(), s.perm.end(), rng);
    ASSERT_EQ(s.call(11, m), 0);
    EXPECT_EQ(static_cast<double>(s.handle()->symbolic.colcountSum),
              cholmodFactorEntries(m, s.perm));
}

} // namespace

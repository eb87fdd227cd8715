// The entry as a caller sees it: enquiry, the handle's lifecycle, the
// argument checks in their order, iparm in and out, the diagonal path.
#include "SpdsTest.h"

#include "Driver.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

using namespace skyrinse::spds;
using namespace spdstest;
using Solver = Spds<double>;
using Matrix = System;

namespace {

bool allZero(void* const pt[64]) {
    for (int k = 0; k < 64; ++k)
        if (pt[k]) return false;
    return true;
}

Matrix smallStencil() {
    return stencilPattern(6, 5, false);
}

TEST(Enquiry, PhaseMinusTwoAnswersWithoutTouchingTheHandle) {
    Solver s;
    int error = 0;
    s.iparm[0] = 1;
    int phase = -2, n = 5, mtype = 11;
    spds(s.pt, &s.maxfct, &s.mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &s.nrhs,
         s.iparm, &s.msglvl, nullptr, nullptr, &error);
    EXPECT_EQ(error, 16);
    EXPECT_EQ(s.iparm[0], 23);
    EXPECT_TRUE(allZero(s.pt));
    phase = -3;
    spds(s.pt, &s.maxfct, &s.mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &s.nrhs,
         s.iparm, &s.msglvl, nullptr, nullptr, &error);
    EXPECT_EQ(error, 300000);
    EXPECT_TRUE(allZero(s.pt));
}

TEST(Lifecycle, ReleaseOnAFreshHandleDoesNothing) {
    Solver s;
    EXPECT_EQ(s.call(-1, smallStencil()), 0);
    EXPECT_TRUE(allZero(s.pt));
}

TEST(Lifecycle, SolveBeforeAnalysisInitialisesAndFails) {
    const Matrix m = smallStencil();
    Solver s;
    EXPECT_EQ(s.call(33, m), -7); // msglvl 0: the silent form of -1
    ASSERT_NE(s.handle(), nullptr) << "the handle keeps its blocks until phase -1";
    EXPECT_EQ(s.internalCode(), 100000);
    EXPECT_EQ(s.iparm[63], kVersionStamp);
    s.msglvl = 1;
    EXPECT_EQ(s.call(22, m), -1);
    EXPECT_EQ(s.call(-1, m), 0);
    EXPECT_TRUE(allZero(s.pt));
}

TEST(Lifecycle, PhaseZeroChecksTheFactorNumber) {
    const Matrix m = smallStencil();
    Solver s;
    s.maxfct = 2;
    ASSERT_EQ(s.call(11, m), 0);
    s.mnum = 3;
    EXPECT_EQ(s.call(0, m), -7);
    EXPECT_EQ(s.internalCode(), 100);
    s.mnum = 0;
    EXPECT_EQ(s.call(0, m), -7);
    s.mnum = 2;
    EXPECT_EQ(s.call(0, m), 0);
    EXPECT_TRUE(s.handle()->hasAnalysis) << "phase 0 frees one factor, not the analysis";
}

TEST(Lifecycle, RepeatedAnalysisRebuildsTheSameStructure) {
    const Matrix m = stencilPattern(12, 9, false);
    Solver s;
    ASSERT_EQ(s.call(11, m), 0);
    const int nsuper = s.handle()->symbolic.nsuper;
    const std::int64_t lnz = s.handle()->symbolic.lnzSize;
    const int kept = s.iparm[15];
    EXPECT_EQ(reinterpret_cast<std::intptr_t>(s.pt[0]), 1);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(s.call(11, m), 0);
        EXPECT_EQ(s.handle()->symbolic.nsuper, nsuper);
        EXPECT_EQ(s.handle()->symbolic.lnzSize, lnz);
        EXPECT_EQ(s.iparm[15], kept) << "a repeated analysis must not pile up memory";
        EXPECT_EQ(reinterpret_cast<std::intptr_t>(s.pt[0]), 1) << "counter restarts per analysis";
    }
}

// ---- argument checks -------------------------------------------------------

struct CheckRow {
    const char* what;
    int code;
    // Applied to a valid call on a handle that holds an analysis of a
    // 30-unknown mtype 11 stencil; returns the phase to call.
    int (*breakIt)(Solver&, Matrix&);
};

const CheckRow kCheckRows[] = {
    {"phase above 33", 1, [](Solver&, Matrix&) { return 34; }},
    {"phase 334 is not a partial solve", 1, [](Solver&, Matrix&) { return 334; }},
    {"maxfct above the handle's", 2,
     [](Solver& s, Matrix&) {
         s.maxfct = 2;
         s.mnum = 9; // also breaks check 3, which comes later
         return 11;
     }},
    {"mnum above maxfct", 3,
     [](Solver& s, Matrix& m) {
         s.mnum = 2;
         m.mtype = 99; // also breaks check 15, which comes later
         return 11;
     }},
    {"mnum below 1 for a factorization", 4,
     [](Solver& s, Matrix& m) {
         s.mnum = 0;
         m.mtype = 99;
         return 22;
     }},
    {"mnum below 1 for an analysis that factors", 4,
     [](Solver& s, Matrix&) {
         s.mnum = 0;
         return 12;
     }},
    {"unknown mtype", 15,
     [](Solver&, Matrix& m) {
         m.mtype = 7;
         m.n = 0; // also breaks check 7
         return 11;
     }},
    {"mtype of another parity than the analysis", 5,
     [](Solver&, Matrix& m) {
         m.mtype = -2;
         m.n = 29;
         return 22;
     }},
    {"n differs from the analysis", 6,
     [](Solver&, Matrix& m) {
         m.n = 29;
         return 22;
     }},
    {"n below 1", 7,
     [](Solver& s, Matrix& m) {
         m.n = 0;
         s.nrhs = 0;
         return 11;
     }},
    {"fewer entries than rows", 8,
     [](Solver& s, Matrix& m) {
         m.ia = {1, 2, 2, 3};
         m.ja = {1, 2};
         m.n = 3;
         s.iparm[5] = 5;
         return 11;
     }},
    {"maxfct below 1", 2,
     [](Solver& s, Matrix&) {
         s.maxfct = 0;
         return 22;
     }},
    {"negative nrhs for a phase that solves", 9,
     [](Solver& s, Matrix&) {
         s.nrhs = -4;
         return 13;
     }},
    {"no right-hand side for a solve", 9,
     [](Solver& s, Matrix&) {
         s.nrhs = 0;
         s.iparm[5] = 7;
         return 33;
     }},
    {"iparm[5] not 0 or 1", 10,
     [](Solver& s, Matrix&) {
         s.iparm[5] = 2;
         s.iparm[1] = 9;
         return 11;
     }},
    {"iparm[1] outside 0..3", 11,
     [](Solver& s, Matrix&) {
         s.iparm[1] = 4;
         return 11;
     }},
    {"phase 21 does not exist", 20, [](Solver&, Matrix&) { return 21; }},
};

class ArgumentCheck : public ::testing::TestWithParam<CheckRow> {};

TEST_P(ArgumentCheck, CodeAndSilentError) {
    const CheckRow row = GetParam();
    for (int msglvl : {0, 1}) {
        Matrix m = smallStencil();
        Solver s;
        s.iparm[0] = 1;
        s.iparm[1] = 2;
        ASSERT_EQ(s.call(11, m), 0);
        s.msglvl = msglvl;
        const int phase = row.breakIt(s, m);
        const int error = s.call(phase, m);
        EXPECT_EQ(error, msglvl == 0 ? -7 : -1) << row.what;
        EXPECT_EQ(s.internalCode(), row.code) << row.what;
        EXPECT_EQ(s.iparm[63], kVersionStamp);
    }
}

INSTANTIATE_TEST_SUITE_P(InTableOrder, ArgumentCheck, ::testing::ValuesIn(kCheckRows));

TEST(ArgumentCheck, NegativePhaseIsReportedWithoutTheSilentForm) {
    Solver s;
    EXPECT_EQ(s.call(-5, smallStencil()), -1);
    EXPECT_EQ(s.iparm[63], kVersionStamp);
}

// ---- matrix checker through the entry ----------------------------------------

TEST(MatrixChecker, UnsortedAndRepeatedEntriesAreSummedButBoundsAreChecked) {
    // Rows in reverse order with one entry split in two halves: the same
    // matrix, hence the same answer, for an analysis and a factorization.
    const Matrix m = smallStencil();
    Matrix shuffled = m;
    for (int i = 0; i < m.n; ++i) {
        std::reverse(shuffled.ja.begin() + m.ia[i] - 1, shuffled.ja.begin() + m.ia[i + 1] - 1);
        std::reverse(shuffled.a.begin() + m.ia[i] - 1, shuffled.a.begin() + m.ia[i + 1] - 1);
    }
    shuffled.a[0] /= 2;
    shuffled.ja.insert(shuffled.ja.begin() + 1, shuffled.ja[0]);
    shuffled.a.insert(shuffled.a.begin() + 1, shuffled.a[0]);
    for (std::size_t i = 1; i < shuffled.ia.size(); ++i)
        ++shuffled.ia[i];
    const std::vector<double> b = randomVector(static_cast<std::size_t>(m.n), 4);
    std::vector<double> b1 = b, x1(b.size()), b2 = b, x2(b.size());
    Solver sorted, unsorted;
    ASSERT_EQ(sorted.call(13, m, &b1, &x1), 0);
    ASSERT_EQ(unsorted.call(13, shuffled, &b2, &x2), 0);
    EXPECT_LE(relativeDifference(x2, x1), 1e-13);
    ASSERT_EQ(unsorted.call(22, m), 0) << "a factorization may take the sorted arrays";

    Matrix outside = m;
    outside.ja[3] = m.n + 5;
    unsorted.msglvl = 1;
    EXPECT_EQ(unsorted.call(22, outside), -1);
    EXPECT_EQ(unsorted.internalCode(), 22);
    EXPECT_EQ(unsorted.iparm[30], 4);
}

// ---- what a user would expect of odd input ---------------------------------------

TEST(OddInput, FactorTableOfNoRowsIsRefusedBeforeAnythingIsMade) {
    const Matrix m = smallStencil();
    Solver s;
    s.maxfct = 0;
    EXPECT_EQ(s.call(11, m), -7);
    EXPECT_TRUE(allZero(s.pt)) << "no handle with an empty factor table";
    s.maxfct = 1;
    std::vector<double> b(static_cast<std::size_t>(m.n), 1.0), x(b.size());
    EXPECT_EQ(s.call(13, m, &b, &x), 0);
}

TEST(OddInput, MissingOrNonFiniteValuesAreArgumentErrors) {
    Matrix m = smallStencil();
    Solver s;
    s.msglvl = 1;
    ASSERT_EQ(s.call(11, m), 0);
    EXPECT_EQ(s.call(22, m.mtype, m.n, nullptr, m.ia.data(), m.ja.data()), -1);
    EXPECT_EQ(s.internalCode(), 28) << "no a for a factorization";
    m.a[5] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(s.call(22, m), -1);
    EXPECT_EQ(s.internalCode(), 26);
    m.a[5] = -0.1;
    ASSERT_EQ(s.call(22, m), 0);
    std::vector<double> b(static_cast<std::size_t>(m.n), 1.0), x(b.size(), 5.0);
    b[7] = -std::numeric_limits<double>::infinity();
    EXPECT_EQ(s.call(33, m, &b, &x), -1);
    EXPECT_EQ(s.internalCode(), 27);
    b[7] = 1.0;
    EXPECT_EQ(s.call(33, m.mtype, m.n, nullptr, m.ia.data(), m.ja.data(), &b, &x), -1);
    EXPECT_EQ(s.internalCode(), 28) << "the check of the answer needs A";
    EXPECT_EQ(x, std::vector<double>(b.size(), 5.0)) << "x is not written";
}

TEST(OddInput, EmptyEquationIsStructurallySingular) {
    // Row 3 of a general matrix is empty; with symmetric storage an empty
    // stored row is fine as long as its column holds an entry.
    for (int mtype : {11, -2}) {
        SCOPED_TRACE(mtype);
        Entries e;
        for (int i = 0; i < 6; ++i)
            e[{i, i}] = 2.0;
        e[{0, 3}] = e[{3, 0}] = 1.0;
        if (mtype == 11) {
            e.erase({3, 3});
            e.erase({3, 0});
        } else {
            e.erase({3, 3});
        }
        const Matrix m = fromEntries("empty row", mtype, 6, e);
        ASSERT_EQ(m.ia[3], m.ia[4]) << "row 4 is stored empty";
        Solver s;
        std::vector<double> b(6, 1.0), x(6);
        const int error = s.call(13, m, &b, &x);
        if (mtype == 11) {
            EXPECT_EQ(error, -6);
            EXPECT_EQ(s.iparm[29], 4);
        } else {
            EXPECT_EQ(error, 0) << "A(4, 1) = A(1, 4) makes the matrix regular";
            EXPECT_LE(backwardError(m, x, b), 1e-14);
        }
    }
}

TEST(OddInput, PermutationMatrixIsSolvedAfterADiagonalOne) {
    // n entries, one a row, but not on the diagonal: not the diagonal path.
    const int n = 5;
    Entries diag, perm;
    for (int i = 0; i < n; ++i) {
        diag[{i, i}] = 2.0;
        perm[{i, (i + 2) % n}] = 1.0 + i;
    }
    const Matrix d = fromEntries("diagonal", 11, n, diag);
    const Matrix p = fromEntries("permutation", 11, n, perm);
    Solver s;
    std::vector<double> b = randomVector(n, 3), x(n);
    ASSERT_EQ(s.call(13, d, &b, &x), 0);
    EXPECT_EQ(s.iparm[11], -1);
    ASSERT_EQ(s.call(13, p, &b, &x), 0) << "the diagonal mark does not swallow the call";
    EXPECT_LE(backwardError(p, x, b), 1e-15);
}

// ---- iparm in and out --------------------------------------------------------

TEST(Parameters, DefaultsFollowTheMatrixType) {
    const Matrix m = smallStencil();
    {
        Solver s;
        for (int& v : s.iparm)
            v = 77;
        s.iparm[0] = 0;
        s.iparm[26] = 0;
        s.iparm[27] = 0;
        s.iparm[25] = 0;
        ASSERT_EQ(s.call(11, m), 0);
        EXPECT_EQ(s.iparm[1], 2);
        EXPECT_EQ(s.iparm[9], 13);
        EXPECT_EQ(s.iparm[10], 1);
        EXPECT_EQ(s.iparm[12], 1);
        EXPECT_EQ(s.iparm[20], 0);
        EXPECT_EQ(s.iparm[59], 0);
        EXPECT_GT(s.iparm[17], 0) << "defaults ask for the non-zeros of the factors";
        EXPECT_EQ(s.iparm[17], s.handle()->symbolic.lnzSize + s.handle()->symbolic.unzSize);
    }
    {
        Matrix u = stencilPattern(6, 5, true);
        Solver s;
        ASSERT_EQ(s.call(11, u), 0);
        EXPECT_EQ(s.iparm[9], 8);
        EXPECT_EQ(s.iparm[10], 0);
        EXPECT_EQ(s.iparm[12], 0);
        EXPECT_EQ(s.iparm[20], 1);
        EXPECT_EQ(s.iparm[17], s.handle()->symbolic.lnzSize);
    }
}

TEST(Parameters, CallerValuesStandWhenIparm0IsSet) {
    Solver s;
    s.iparm[0] = 1;
    s.iparm[1] = 0;
    s.iparm[17] = 0; // not negative: the count is not wanted
    ASSERT_EQ(s.call(11, smallStencil()), 0);
    EXPECT_EQ(s.iparm[1], 0);
    EXPECT_EQ(s.iparm[17], 0);
    EXPECT_EQ(s.handle()->ordering, 0);
}

TEST(Parameters, PermutationIsReturnedOrTaken) {
    const Matrix m = stencilPattern(8, 7, false);
    Solver s;
    s.iparm[0] = 1;
    s.iparm[1] = 2;
    s.iparm[4] = 2;
    ASSERT_EQ(s.call(11, m), 0);
    std::vector<int> returned = s.perm;
    for (int k = 0; k < m.n; ++k)
        EXPECT_EQ(returned[static_cast<std::size_t>(k)], s.handle()->ordering_.perm[k]);

    Solver user;
    user.iparm[0] = 1;
    user.iparm[1] = 3; // ignored with a caller's permutation
    user.iparm[4] = 1;
    user.perm.resize(static_cast<std::size_t>(m.n));
    for (int k = 0; k < m.n; ++k)
        user.perm[static_cast<std::size_t>(k)] = m.n - k;
    ASSERT_EQ(user.call(11, m), 0);
    for (int k = 0; k < m.n; ++k)
        EXPECT_EQ(user.handle()->ordering_.perm[k], m.n - k);
    EXPECT_EQ(user.handle()->ordering_.ndomains, 1);

    user.perm[3] = user.perm[4]; // a repeated column is not a permutation
    EXPECT_EQ(user.call(11, m), -3);
    EXPECT_NE(user.iparm[29], 0);
}

// ---- diagonal matrices -------------------------------------------------------

template <class T>
class Diagonal : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Diagonal, Precisions);

TYPED_TEST(Diagonal, SolvedWithoutAHandle) {
    using T = TypeParam;
    std::vector<int> ia{1, 2, 3, 4, 5}, ja{1, 2, 3, 4};
    std::vector<T> a{2, -4, 0.5, 8}, b{1, 2, 3, 4, 5, 6, 7, 8}, x(8, T(-99));
    Spds<T> s;
    s.iparm[0] = 1;
    s.iparm[27] = std::is_same_v<T, float> ? 1 : 0;
    s.nrhs = 2;
    auto call = [&](int phase) {
        return s.call(phase, 11, 4, a.data(), ia.data(), ja.data(), &b, &x);
    };
    EXPECT_EQ(call(13), 0);
    EXPECT_TRUE(allZero(s.pt)) << "no handle is needed";
    EXPECT_EQ(s.iparm[11], -1);
    EXPECT_EQ(s.iparm[21], 3);
    EXPECT_EQ(s.iparm[22], 1);
    for (std::size_t k = 0; k < 8; ++k)
        EXPECT_EQ(x[k], b[k] / a[k % 4]);
    EXPECT_EQ(call(22), 0) << "a later factorization on the empty handle does nothing";

    s.iparm[5] = 1; // in place into b
    ASSERT_EQ(call(33), 0);
    EXPECT_EQ(b[1], T(2) / T(-4));

    // A zero on the diagonal: -7, and x is left alone.
    a[2] = 0;
    std::fill(x.begin(), x.end(), T(-99));
    s.iparm[5] = 0;
    EXPECT_EQ(call(33), -7);
    EXPECT_EQ(x, std::vector<T>(8, T(-99)));
}

} // namespace

// CSparseSingle: the two modes, at() and its symmetric redirection, compress()
// against a map model, and solve(): residuals, the solver's error number in
// the message, and the release of the solver's memory when a phase fails.
#include "ZImage/CSparseSingle.h"
#include "ZImage/ZException.h"
#include "solver/spds.h"

#include "RefineTestSupport.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <Eigen/Dense>

#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Model = std::map<std::pair<int, int>, float>;

// The compressed arrays hold exactly the model, columns ascending in each row.
void expectArraysMatch(const CSparseSingle& m, const Model& model, int rows) {
    ASSERT_EQ(rows + 1, m.iaSize());
    ASSERT_EQ(1, m.ia()[0]);
    ASSERT_EQ(static_cast<int>(model.size()), m.nnz());
    Model got;
    for (int r = 0; r < rows; ++r)
        for (int k = m.ia()[r] - 1; k < m.ia()[r + 1] - 1; ++k) {
            if (k > m.ia()[r] - 1) {
                EXPECT_LT(m.ja()[k - 1], m.ja()[k]) << "row " << r;
            }
            got[{r, m.ja()[k] - 1}] = m.a()[k];
        }
    EXPECT_EQ(model, got);
}

TEST(SparseStore, GrowingModeDoublesItsRowTableOrJumpsToTheNeededSize) {
    CSparseSingle m;
    EXPECT_EQ(0, m.iaSize());
    EXPECT_THROW(m.at(0, 0), ZException) << "at() before init()";
    m.init(0, 77); // the column count is ignored when growing
    EXPECT_EQ(8, m.rowCapacity());
    EXPECT_EQ(0, m.colCount());
    EXPECT_EQ(1, m.iaSize());
    Model model;
    for (int r = 0; r < 8; ++r)
        model[{r, 7 - r}] = m.at(r, 7 - r) = static_cast<float>(r + 1);
    EXPECT_EQ(8, m.rowCapacity());
    model[{8, 8}] = m.at(8, 8) = 9.0f;
    EXPECT_EQ(16, m.rowCapacity());
    EXPECT_EQ(9, m.rowCount());
    model[{100, 0}] = m.at(100, 0) = 1.0f;
    EXPECT_EQ(128, m.rowCapacity()) << "straight to the needed capacity";
    EXPECT_EQ(101, m.rowCount());
    EXPECT_EQ(0, m.rowSize(50)) << "rows in between exist and are empty";
    m.compress();
    expectArraysMatch(m, model, 101);
}

TEST(SparseStore, SameEntryIsOneSlotThatAccumulates) {
    CSparseSingle m;
    m.init(0, 0);
    float& first = m.at(2, 5);
    // Entries created in the same row do not move the slot.
    for (int c = 0; c < 40; ++c)
        if (c != 5) m.at(2, c) = -1.0f;
    EXPECT_EQ(&first, &m.at(2, 5));
    EXPECT_EQ(40, m.rowSize(2));
}

TEST(SparseStore, FixedModeGuessesADenseBlockAndCompressTrimsIt) {
    CSparseSingle m;
    m.init(3, 4);
    EXPECT_EQ(4, m.colCount());
    EXPECT_EQ(12, m.nnz());
    m.at(0, 3) = 1.0f;
    m.at(2, 0) = -2.0f;
    m.at(2, 2) = 4.0f;
    m.compress();
    expectArraysMatch(m, Model{{{0, 3}, 1.0f}, {{2, 0}, -2.0f}, {{2, 2}, 4.0f}}, 3);
}

TEST(SparseStore, RefusesIndicesAndSizesItCannotCount) {
    CSparseSingle m;
    m.init(0, 0);
    EXPECT_THROW(m.at(-1, 0), ZException);
    EXPECT_THROW(m.at(0, -3), ZException);
    EXPECT_THROW(m.init(-1, 4), ZException);
    // 50000 x 50000 would wrap a 32-bit entry count; refused before allocating.
    EXPECT_THROW(m.init(50000, 50000), ZException);
    EXPECT_THROW(m.initCompressed(-1, 4, 0), ZException);
    EXPECT_THROW(m.initCompressed(4, 4, std::int64_t{1} << 31), ZException);
    EXPECT_EQ(0, m.nnz());
    EXPECT_TRUE(m.a().empty());
}

TEST(SparseStore, SymmetricFlagStoresTheUpperTriangleOnly) {
    for (int rows : {0, 6}) {
        CSparseSingle m;
        m.init(rows, rows);
        m.setSymmetricFlag(true);
        m.at(4, 1) = 3.0f;
        m.at(1, 4) += 1.0f;
        EXPECT_EQ(&m.at(4, 1), &m.at(1, 4));
        m.at(5, 5) = 2.0f;
        m.compress();
        expectArraysMatch(m, Model{{{1, 4}, 4.0f}, {{5, 5}, 2.0f}}, 6);
        // init() and reset() clear the flag.
        m.init(rows, rows);
        EXPECT_EQ(0, m.symmetricFlag()) << rows;
    }
}

TEST(SparseStore, CompressMatchesAModelAndCanBeRepeated) {
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> index(0, 59);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    CSparseSingle m;
    m.init(0, 0);
    m.compress();
    expectArraysMatch(m, Model{}, 0);
    Model model;
    int rows = 0;
    auto add = [&](int count) {
        for (int k = 0; k < count; ++k) {
            const int r = index(rng), c = index(rng);
            const float v = value(rng);
            m.at(r, c) += v;
            model[{r, c}] += v;
            rows = std::max(rows, r + 1);
        }
    };
    add(400);
    m.compress();
    expectArraysMatch(m, model, rows);
    // The maps survive compress(): assembly goes on and the arrays follow.
    add(400);
    m.at(75, 2) = 1.0f;
    model[{75, 2}] = 1.0f;
    m.compress();
    expectArraysMatch(m, model, 76);
    // Released rows leave the arrays as they were and the rows empty.
    m.releaseRows();
    expectArraysMatch(m, model, 76);
    EXPECT_EQ(0, m.rowSize(75));

    CSparseSingle moved(std::move(m));
    EXPECT_EQ(0, m.rowCount());
    EXPECT_THROW(m.at(0, 0), ZException);
    expectArraysMatch(moved, model, 76);
}

// ---- solve ------------------------------------------------------------------

// A random diagonally dominant matrix of order n (condition near 10), in the
// store and in double: the upper triangle with a diagonal of both signs when
// `symmetric` (indefinite), else a general pattern.
struct System {
    CSparseSingle store;
    Eigen::MatrixXd dense;
    Eigen::VectorXd b;
};

System makeSystem(int n, bool symmetric, unsigned seed) {
    System s{CSparseSingle(), Eigen::MatrixXd::Zero(n, n), Eigen::VectorXd(n)};
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::uniform_int_distribution<int> column(0, n - 1);
    for (int i = 0; i < n; ++i) {
        s.dense(i, i) = (i % 3 == 0 ? -1.0f : 1.0f) * (8.0f + value(rng));
        for (int k = 0; k < 3; ++k) {
            const int j = column(rng);
            if (j == i) continue;
            s.dense(i, j) = static_cast<float>(s.dense(i, j) + value(rng));
            if (symmetric) s.dense(j, i) = s.dense(i, j);
        }
        s.b(i) = value(rng);
    }
    s.store.init(0, 0);
    for (int r = 0; r < n; ++r)
        for (int c = symmetric ? r : 0; c < n; ++c)
            if (s.dense(r, c) != 0.0) s.store.at(r, c) = static_cast<float>(s.dense(r, c));
    s.store.compress();
    return s;
}

std::vector<float> toFloat(const Eigen::VectorXd& v) {
    return {v.begin(), v.end()};
}

// ||A x - b|| / ||b|| in double. With condition numbers near 10 a float
// solution gives about 1e-7; a wrong pivot or a lost entry gives order one.
double relativeResidual(const System& s, const std::vector<float>& x) {
    const Eigen::VectorXd xd = Eigen::Map<const Eigen::VectorXf>(x.data(), x.size()).cast<double>();
    return (s.dense * xd - s.b).norm() / s.b.norm();
}

TEST(SparseStoreSolve, SymmetricIndefiniteSolutionReplacesTheRightHandSide) {
    System s = makeSystem(120, true, 3);
    // The solve needs the arrays only, as the refinement runs it.
    s.store.releaseRows();
    std::vector<float> rhs = toFloat(s.b);
    std::vector<float> x(rhs.size());
    s.store.solve(rhs, x, true, true);
    EXPECT_LT(relativeResidual(s, rhs), 1e-5);
}

TEST(SparseStoreSolve, UnsymmetricKeepsTheRightHandSideWhenAsked) {
    System s = makeSystem(90, false, 5);
    const std::vector<float> original = toFloat(s.b);
    std::vector<float> rhs = original;
    std::vector<float> x(rhs.size(), 0.0f);
    s.store.solve(rhs, x, false, false);
    EXPECT_LT(relativeResidual(s, x), 1e-5);
    EXPECT_EQ(original, rhs);
}

TEST(SparseStoreSolve, RefusesArraysThatDoNotFit) {
    CSparseSingle m;
    m.init(0, 0);
    m.at(0, 0) = 1.0f;
    m.at(1, 1) = 1.0f;
    std::vector<float> two(2), one(1);
    EXPECT_THROW(m.solve(two, two, true, true), ZException) << "not compressed";
    m.compress();
    EXPECT_THROW(m.solve(one, two, true, true), ZException);
    EXPECT_THROW(m.solve(two, one, true, true), ZException);
}

// The number in the message is the solver's own, the location names the
// store, the matrix is as it was, and the solver's memory is gone.
TEST(SparseStoreSolve, FailedAnalysisNamesTheErrorAndReleasesTheSolver) {
    refinetest::CountingHeap heap;
    {
        CSparseSingle m;
        m.init(0, 0);
        for (int i = 0; i < 4; ++i)
            m.at(i, i) = 2.0f;
        m.at(1, 9) = 1.0f; // a column past the order of the matrix
        m.compress();
        const long long ownBlocks = heap.live();
        const std::vector<int> ia(m.ia().begin(), m.ia().end());
        const std::vector<int> ja(m.ja().begin(), m.ja().end());
        const std::vector<float> a(m.a().begin(), m.a().end());

        std::vector<float> rhs(4, 1.0f), x(4, 0.0f);
        std::string text, location;
        try {
            m.solve(rhs, x, true, true);
            FAIL() << "a column out of range must fail the analysis";
        } catch (const ZException& e) {
            text = e.what();
            location = e.location()->toStdString();
        }
        EXPECT_EQ(ownBlocks, heap.live()) << "the solver's blocks must be released";

        // The same call made directly gives the number for the message.
        void* pt[64] = {};
        int iparm[64] = {};
        iparm[0] = 1;
        iparm[1] = 3;
        iparm[27] = 1;
        int maxfct = 1, mnum = 1, mtype = -2, phase = 11, n = 4, nrhs = 1, msglvl = 1;
        int perm = 0, error = 0, ignored = 0;
        float dummy = 0.0f;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), ia.data(), ja.data(), &perm, &nrhs,
             iparm, &msglvl, &dummy, &dummy, &error);
        ASSERT_NE(0, error);
        phase = -1;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, &dummy, ia.data(), ja.data(), &perm, &nrhs,
             iparm, &msglvl, &dummy, &dummy, &ignored);

        EXPECT_EQ("SPDS error during symbolic factorization: " + std::to_string(error), text);
        EXPECT_NE(std::string::npos, location.find("CSparseSingle.cpp")) << location;
        EXPECT_EQ(a, std::vector<float>(m.a().begin(), m.a().end()));
        EXPECT_EQ(std::vector<float>(4, 1.0f), rhs);
    }
    EXPECT_EQ(0, heap.live());
}

// Every allocation of the solver fails in turn: each failure is an exception
// that names its phase and error number, leaves no block of the solver
// behind, and the sweep ends with a solve that succeeds.
TEST(SparseStoreSolve, EveryFailingAllocationReleasesTheSolver) {
    const QRegularExpression pattern(QStringLiteral(
        "^SPDS error during (symbolic factorization|numerical factorization|solution): -[0-9]+$"));
    System s = makeSystem(40, true, 9);
    // The store's arrays are made again under the counting heap.
    refinetest::CountingHeap heap;
    s.store.compress();
    CSparseSingle m;
    m.init(0, 0);
    for (int r = 0; r < 40; ++r)
        for (int k = s.store.ia()[r] - 1; k < s.store.ia()[r + 1] - 1; ++k)
            m.at(r, s.store.ja()[k] - 1) = s.store.a()[k];
    m.compress();
    const long long ownBlocks = heap.live();

    std::map<QString, int> phasesMet;
    bool solved = false;
    for (long long k = 1; k < 5000 && !solved; ++k) {
        std::vector<float> rhs = toFloat(s.b);
        std::vector<float> x(rhs.size());
        heap.failAt(k);
        try {
            m.solve(rhs, x, true, true);
            solved = true;
            EXPECT_LT(relativeResidual(s, rhs), 1e-5);
        } catch (const ZException& e) {
            const QString text = QString::fromUtf8(e.what());
            ASSERT_TRUE(pattern.match(text).hasMatch()) << text.toStdString();
            ++phasesMet[text.section(QLatin1Char(':'), 0, 0)];
        }
        heap.failAt(0);
        ASSERT_EQ(ownBlocks, heap.live()) << "blocks left after failing allocation " << k;
    }
    EXPECT_TRUE(solved);
    EXPECT_GT(phasesMet.size(), 1u) << "the sweep should reach past the analysis";
}

} // namespace

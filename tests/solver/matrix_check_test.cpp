// Structure check of the caller's arrays: the four codes, their order, the
// last-find rule, the bounds-only scope, and that the arrays stay as they were.
#include "solver/MatrixCheck.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <vector>

using skyrinse::spds::checkMatrix;

namespace {

struct Matrix {
    int n;
    std::vector<int> ia;
    std::vector<int> ja;
};

std::array<int, 3> fresh() {
    return {-99, -99, -99};
}

// 3 x 3 unsymmetric, rows {1,3}, {2}, {1,2,3}: passes every test.
Matrix good() {
    return {3, {1, 3, 4, 7}, {1, 3, 2, 1, 2, 3}};
}

// Symmetric storage for even |mtype|, as the driver asks.
int run(const Matrix& m, int mtype, std::array<int, 3>& where,
        skyrinse::spds::MatrixCheckScope scope = skyrinse::spds::kCheckAll) {
    return checkMatrix(m.n, m.ia.data(), m.ja.data(), std::abs(mtype) % 2 == 0, scope,
                       where.data());
}

TEST(MatrixCheck, GoodMatrixPassesAndRecordsNothing) {
    auto where = fresh();
    EXPECT_EQ(run(good(), 11, where), 0);
    EXPECT_EQ(where, fresh());
}

TEST(MatrixCheck, BoundsOnlyScopeStopsAfterTheIndexTests) {
    // Unsorted columns pass the bounds-only scope but not the full check.
    Matrix m{3, {1, 3, 4, 7}, {2, 1, 3, 1, 2, 3}};
    auto where = fresh();
    EXPECT_EQ(run(m, 11, where, skyrinse::spds::kCheckBoundsOnly), 0);
    EXPECT_EQ(run(m, 11, where), 24);
    m.ja[3] = 9;
    EXPECT_EQ(run(m, 11, where, skyrinse::spds::kCheckBoundsOnly), 22);
    m.ia[2] = 2;
    EXPECT_EQ(run(m, 11, where, skyrinse::spds::kCheckBoundsOnly), 21);
}

TEST(MatrixCheck, RowStartsRecordTheLastFault) {
    auto where = fresh();
    // ia[0] = 0 is a fault, and rows 2 and 3 are empty: the last is row 3.
    Matrix m{3, {0, 3, 3, 3}, {1, 2}};
    EXPECT_EQ(run(m, 11, where), 21);
    EXPECT_EQ(where[0], 3);
    EXPECT_EQ(where[1], 3);
    EXPECT_EQ(where[2], 3);
}

TEST(MatrixCheck, FirstStartNotOneIsRecordedWithTheSecondStart) {
    auto where = fresh();
    Matrix m{2, {2, 3, 4}, {1, 2, 2}};
    EXPECT_EQ(run(m, 11, where), 21);
    EXPECT_EQ(where[0], 1);
    EXPECT_EQ(where[1], 2);
    EXPECT_EQ(where[2], 3);
}

TEST(MatrixCheck, DecreasingStartIsCaught) {
    auto where = fresh();
    Matrix m{3, {1, 4, 3, 5}, {1, 2, 3, 3}};
    EXPECT_EQ(run(m, 11, where), 21);
    EXPECT_EQ(where[0], 2);
    EXPECT_EQ(where[1], 4);
    EXPECT_EQ(where[2], 3);
}

TEST(MatrixCheck, ColumnOutOfRangeRecordsPositionValueAndN) {
    auto where = fresh();
    Matrix m = good();
    m.ja[1] = 0; // position 2
    m.ja[4] = 4; // position 5, the last fault
    EXPECT_EQ(run(m, 11, where), 22);
    EXPECT_EQ(where[0], 5);
    EXPECT_EQ(where[1], 4);
    EXPECT_EQ(where[2], 3);
}

TEST(MatrixCheck, LastColumnIndexIsCheckedToo) {
    auto where = fresh();
    Matrix m = good();
    m.ja[5] = 7;
    EXPECT_EQ(run(m, 11, where), 22);
    EXPECT_EQ(where[0], 6);
    EXPECT_EQ(where[1], 7);
}

TEST(MatrixCheck, LowerEntryOnlyMattersForSymmetricTypes) {
    // Upper storage, but row 3 starts at column 2.
    Matrix m{3, {1, 3, 4, 6}, {1, 2, 2, 2, 3}};
    auto unsym = fresh();
    EXPECT_EQ(run(m, 11, unsym), 0);
    auto sym = fresh();
    EXPECT_EQ(run(m, -2, sym), 23);
    EXPECT_EQ(sym[0], 3);
    EXPECT_EQ(sym[1], 4);
    EXPECT_EQ(sym[2], 2);
    auto odd = fresh();
    EXPECT_EQ(run(m, 1, odd), 0) << "|mtype| odd: structurally symmetric, full storage";
}

TEST(MatrixCheck, UnsortedAndDuplicateColumnsGive24WithTheLastPosition) {
    auto where = fresh();
    // Row 1: 2, 1 (unsorted at position 1); row 3: 2, 2 (duplicate at position 5).
    Matrix m{3, {1, 3, 4, 7}, {2, 1, 3, 1, 2, 2}};
    EXPECT_EQ(run(m, 11, where), 24);
    EXPECT_EQ(where[0], 5);
    EXPECT_EQ(where[1], 2);
    EXPECT_EQ(where[2], 2);
}

TEST(MatrixCheck, EarlierCodeWinsWhenSeveralFaultsExist) {
    auto where = fresh();
    // Out-of-range index (22) and unsorted columns (24) together: 22.
    Matrix m{2, {1, 3, 4}, {5, 1, 2}};
    EXPECT_EQ(run(m, 11, where), 22);
    // A lower entry (23) and unsorted columns (24) together: 23.
    auto sym = fresh();
    Matrix s{2, {1, 3, 5}, {2, 1, 1, 2}};
    EXPECT_EQ(run(s, -2, sym), 23);
}

TEST(MatrixCheck, ArraysAreNotModified) {
    auto where = fresh();
    Matrix m{3, {1, 3, 4, 7}, {2, 1, 3, 1, 2, 2}};
    const Matrix before = m;
    run(m, -2, where);
    EXPECT_EQ(m.ia, before.ia);
    EXPECT_EQ(m.ja, before.ja);
}

} // namespace

// Structure check of iparm[26]: the four codes, their order, the last-find
// rule, and that a passing check switches itself off.
#include "solver/MatrixCheck.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

using spds::checkMatrixStructure;

namespace {

struct Matrix {
    int n;
    std::vector<int> ia;
    std::vector<int> ja;
};

std::array<int, 64> checking() {
    std::array<int, 64> iparm{};
    iparm[26] = 1;
    iparm[30] = iparm[31] = iparm[32] = -99;
    return iparm;
}

// 3 x 3 unsymmetric, rows {1,3}, {2}, {1,2,3}: passes every test.
Matrix good() {
    return {3, {1, 3, 4, 7}, {1, 3, 2, 1, 2, 3}};
}

int run(const Matrix& m, int mtype, std::array<int, 64>& iparm) {
    return checkMatrixStructure(mtype, m.n, m.ia.data(), m.ja.data(), iparm.data());
}

TEST(MatrixCheck, GoodMatrixPassesAndClearsTheRequest) {
    auto iparm = checking();
    const Matrix m = good();
    EXPECT_EQ(run(m, 11, iparm), 0);
    EXPECT_EQ(iparm[26], 0);
    EXPECT_EQ(iparm[30], -99); // nothing recorded
}

TEST(MatrixCheck, NothingHappensWithoutTheRequest) {
    std::array<int, 64> iparm{};
    Matrix m = good();
    m.ja[0] = 99; // would be code 22
    EXPECT_EQ(run(m, 11, iparm), 0);
    EXPECT_EQ(iparm[30], 0);
}

TEST(MatrixCheck, FailedCheckStaysRequestedSoTheNextCallChecksAgain) {
    auto iparm = checking();
    Matrix m = good();
    m.ja[2] = 0;
    EXPECT_EQ(run(m, 11, iparm), 22);
    EXPECT_EQ(iparm[26], 1);
    m.ja[2] = 2;
    EXPECT_EQ(run(m, 11, iparm), 0);
    EXPECT_EQ(iparm[26], 0);
}

TEST(MatrixCheck, RowStartsRecordTheLastFault) {
    auto iparm = checking();
    // ia[0] = 0 is a fault, and rows 2 and 3 are empty: the last is row 3.
    Matrix m{3, {0, 3, 3, 3}, {1, 2}};
    EXPECT_EQ(run(m, 11, iparm), 21);
    EXPECT_EQ(iparm[30], 3);
    EXPECT_EQ(iparm[31], 3);
    EXPECT_EQ(iparm[32], 3);
}

TEST(MatrixCheck, FirstStartNotOneIsRecordedWithTheSecondStart) {
    auto iparm = checking();
    Matrix m{2, {2, 3, 4}, {1, 2, 2}};
    EXPECT_EQ(run(m, 11, iparm), 21);
    EXPECT_EQ(iparm[30], 1);
    EXPECT_EQ(iparm[31], 2);
    EXPECT_EQ(iparm[32], 3);
}

TEST(MatrixCheck, DecreasingStartIsCaught) {
    auto iparm = checking();
    Matrix m{3, {1, 4, 3, 5}, {1, 2, 3, 3}};
    EXPECT_EQ(run(m, 11, iparm), 21);
    EXPECT_EQ(iparm[30], 2);
    EXPECT_EQ(iparm[31], 4);
    EXPECT_EQ(iparm[32], 3);
}

TEST(MatrixCheck, ColumnOutOfRangeRecordsPositionValueAndN) {
    auto iparm = checking();
    Matrix m = good();
    m.ja[1] = 0; // position 2
    m.ja[4] = 4; // position 5, the last fault
    EXPECT_EQ(run(m, 11, iparm), 22);
    EXPECT_EQ(iparm[30], 5);
    EXPECT_EQ(iparm[31], 4);
    EXPECT_EQ(iparm[32], 3);
}

TEST(MatrixCheck, LastColumnIndexIsCheckedToo) {
    auto iparm = checking();
    Matrix m = good();
    m.ja[5] = 7;
    EXPECT_EQ(run(m, 11, iparm), 22);
    EXPECT_EQ(iparm[30], 6);
    EXPECT_EQ(iparm[31], 7);
}

TEST(MatrixCheck, LowerEntryOnlyMattersForSymmetricTypes) {
    // Upper storage, but row 3 starts at column 2.
    Matrix m{3, {1, 3, 4, 6}, {1, 2, 2, 2, 3}};
    auto unsym = checking();
    EXPECT_EQ(run(m, 11, unsym), 0);
    auto sym = checking();
    EXPECT_EQ(run(m, -2, sym), 23);
    EXPECT_EQ(sym[30], 3);
    EXPECT_EQ(sym[31], 4);
    EXPECT_EQ(sym[32], 2);
    EXPECT_EQ(sym[26], 1);
    auto odd = checking();
    EXPECT_EQ(run(m, 1, odd), 0) << "|mtype| odd: structurally symmetric, full storage";
}

TEST(MatrixCheck, UnsortedAndDuplicateColumnsGive24WithTheLastPosition) {
    auto iparm = checking();
    // Row 1: 2, 1 (unsorted at position 1); row 3: 2, 2 (duplicate at position 5).
    Matrix m{3, {1, 3, 4, 7}, {2, 1, 3, 1, 2, 2}};
    EXPECT_EQ(run(m, 11, iparm), 24);
    EXPECT_EQ(iparm[30], 5);
    EXPECT_EQ(iparm[31], 2);
    EXPECT_EQ(iparm[32], 2);
}

TEST(MatrixCheck, EarlierCodeWinsWhenSeveralFaultsExist) {
    auto iparm = checking();
    // Out-of-range index (22) and unsorted columns (24) together: 22.
    Matrix m{2, {1, 3, 4}, {5, 1, 2}};
    EXPECT_EQ(run(m, 11, iparm), 22);
    // A lower entry (23) and unsorted columns (24) together: 23.
    auto sym = checking();
    Matrix s{2, {1, 3, 5}, {2, 1, 1, 2}};
    EXPECT_EQ(run(s, -2, sym), 23);
}

TEST(MatrixCheck, ArraysAreNotModified) {
    auto iparm = checking();
    Matrix m{3, {1, 3, 4, 7}, {2, 1, 3, 1, 2, 2}};
    const Matrix before = m;
    run(m, -2, iparm);
    EXPECT_EQ(m.ia, before.ia);
    EXPECT_EQ(m.ja, before.ja);
}

} // namespace

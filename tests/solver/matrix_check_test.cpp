// Structure check of the caller's arrays: the four codes, which wins when
// several faults exist, the last-find report, the bounds-only scope, and
// that the arrays stay as they were.
#include "solver/MatrixCheck.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

using namespace skyrinse::spds;

namespace {

struct CheckRow {
    const char* what;
    int n;
    std::vector<int> ia, ja;
    bool symmetric;
    MatrixCheckScope scope;
    int code;
    std::array<int, 3> where; // -99: untouched
};

const std::array<int, 3> kUntouched{-99, -99, -99};

const CheckRow kRows[] = {
    {"valid", 3, {1, 3, 4, 7}, {1, 3, 2, 1, 2, 3}, false, kCheckAll, 0, kUntouched},
    {"ia[0] 0 and empty rows: the last one",
     3,
     {0, 3, 3, 3},
     {1, 2},
     false,
     kCheckAll,
     21,
     {3, 3, 3}},
    {"decreasing start", 3, {1, 4, 3, 5}, {1, 2, 3, 3}, false, kCheckAll, 21, {2, 4, 3}},
    {"column 0 and column n + 1: the last",
     3,
     {1, 3, 4, 7},
     {1, 0, 2, 1, 4, 3},
     false,
     kCheckAll,
     22,
     {5, 4, 3}},
    {"lower entry, symmetric storage",
     3,
     {1, 3, 4, 6},
     {1, 2, 2, 2, 3},
     true,
     kCheckAll,
     23,
     {3, 4, 2}},
    {"lower entry, full storage",
     3,
     {1, 3, 4, 6},
     {1, 2, 2, 2, 3},
     false,
     kCheckAll,
     0,
     kUntouched},
    {"unsorted and repeated: the last",
     3,
     {1, 3, 4, 7},
     {2, 1, 3, 1, 2, 2},
     false,
     kCheckAll,
     24,
     {5, 2, 2}},
    {"out of range before unsorted", 2, {1, 3, 4}, {5, 1, 2}, false, kCheckAll, 22, {1, 5, 2}},
    {"lower entry before unsorted", 2, {1, 3, 5}, {2, 1, 1, 2}, true, kCheckAll, 23, {2, 3, 1}},
    {"unsorted passes the bounds",
     3,
     {1, 3, 4, 7},
     {2, 1, 3, 1, 2, 3},
     false,
     kCheckBoundsOnly,
     0,
     kUntouched},
    {"bounds: index", 3, {1, 3, 4, 7}, {2, 1, 3, 9, 2, 3}, false, kCheckBoundsOnly, 22, {4, 9, 3}},
};

class MatrixCheck : public ::testing::TestWithParam<CheckRow> {};

TEST_P(MatrixCheck, CodeLastFindAndUntouchedArrays) {
    const CheckRow& row = GetParam();
    std::vector<int> ia = row.ia, ja = row.ja;
    std::array<int, 3> where = kUntouched;
    EXPECT_EQ(checkMatrix(row.n, ia.data(), ja.data(), row.symmetric, row.scope, where.data()),
              row.code);
    EXPECT_EQ(where, row.where);
    EXPECT_EQ(ia, row.ia);
    EXPECT_EQ(ja, row.ja);
}

INSTANTIATE_TEST_SUITE_P(Rows, MatrixCheck, ::testing::ValuesIn(kRows));

} // namespace

#include "MatrixCheck.h"

#include <cstdint>
#include <vector>

namespace skyrinse::spds {

int checkMatrix(int n, const int* ia, const int* ja, bool symmetricStorage, MatrixCheckScope scope,
                int* where) {
    auto record = [where](int a, int b, int c) {
        where[0] = a;
        where[1] = b;
        where[2] = c;
    };
    bool found = false;
    if (ia[0] != 1) {
        record(1, ia[0], ia[1]);
        found = true;
    }
    // The full check wants every row to hold an entry; reading the arrays
    // safely only needs ia not to go back (a row may be empty).
    const int emptyAllowed = scope == kCheckBoundsOnly ? 1 : 0;
    for (int i = 1; i <= n; ++i)
        if (ia[i] + emptyAllowed <= ia[i - 1]) {
            record(i, ia[i - 1], ia[i]);
            found = true;
        }
    if (found) return 21;

    const std::int64_t nnz = static_cast<std::int64_t>(ia[n]) - 1;
    for (std::int64_t k = 1; k <= nnz; ++k)
        if (ja[k - 1] < 1 || ja[k - 1] > n) {
            record(static_cast<int>(k), ja[k - 1], n);
            found = true;
        }
    if (found) return 22;
    if (scope == kCheckBoundsOnly) return 0;

    if (symmetricStorage) {
        for (int i = 1; i <= n; ++i)
            if (ja[ia[i - 1] - 1] < i) {
                record(i, ia[i - 1], ja[ia[i - 1] - 1]);
                found = true;
            }
        if (found) return 23;
    }

    for (int i = 1; i <= n; ++i)
        for (int k = ia[i - 1]; k < ia[i] - 1; ++k)
            if (ja[k - 1] >= ja[k]) {
                record(k, ja[k - 1], ja[k]);
                found = true;
            }
    return found ? 24 : 0;
}

int firstEmptyEquation(int n, const int* ia, const int* ja, bool symmetricStorage) {
    std::vector<char> column(static_cast<std::size_t>(n), 0);
    const std::int64_t nnz = static_cast<std::int64_t>(ia[n]) - 1;
    for (std::int64_t k = 0; k < nnz; ++k)
        column[static_cast<std::size_t>(ja[k] - 1)] = 1;
    for (int i = 1; i <= n; ++i) {
        const bool rowEmpty = ia[i] == ia[i - 1];
        const bool columnEmpty = !column[static_cast<std::size_t>(i - 1)];
        if (symmetricStorage ? (rowEmpty && columnEmpty) : (rowEmpty || columnEmpty)) return i;
    }
    return 0;
}

} // namespace skyrinse::spds

// Structure check of the caller's matrix; see MatrixCheck.h for the codes.
//
// The tests run in an order where each may rely on the one before: the
// column tests index ja only after the row starts were found monotone, so a
// damaged ia cannot make the checker itself read out of bounds.
#include "MatrixCheck.h"

#include <cstdlib>

namespace spds {

namespace {

void record(int* iparm, int a, int b, int c) {
    iparm[30] = a;
    iparm[31] = b;
    iparm[32] = c;
}

int checkRowStarts(int n, const int* ia, int* iparm) {
    bool found = false;
    if (ia[0] != 1) {
        record(iparm, 1, ia[0], ia[1]);
        found = true;
    }
    for (int i = 1; i <= n; ++i) {
        if (ia[i] <= ia[i - 1]) {
            record(iparm, i, ia[i - 1], ia[i]);
            found = true;
        }
    }
    return found ? kCheckRowStarts : 0;
}

int checkColumnRange(int n, const int* ia, const int* ja, int* iparm) {
    bool found = false;
    const long long nnz = static_cast<long long>(ia[n]) - 1;
    for (long long k = 1; k <= nnz; ++k) {
        const int j = ja[k - 1];
        if (j < 1 || j > n) {
            record(iparm, static_cast<int>(k), j, n);
            found = true;
        }
    }
    return found ? kCheckColumnRange : 0;
}

int checkLowerEntry(int n, const int* ia, const int* ja, int* iparm) {
    bool found = false;
    for (int i = 1; i <= n; ++i) {
        const int first = ja[ia[i - 1] - 1];
        if (first < i) {
            record(iparm, i, ia[i - 1], first);
            found = true;
        }
    }
    return found ? kCheckLowerEntry : 0;
}

int checkColumnOrder(int n, const int* ia, const int* ja, int* iparm) {
    bool found = false;
    for (int i = 1; i <= n; ++i) {
        // One-based positions k and k+1 of the same row.
        for (int k = ia[i - 1]; k + 1 < ia[i]; ++k) {
            if (ja[k - 1] >= ja[k]) {
                record(iparm, k, ja[k - 1], ja[k]);
                found = true;
            }
        }
    }
    return found ? kCheckColumnOrder : 0;
}

} // namespace

int checkMatrixStructure(int mtype, int n, const int* ia, const int* ja, int* iparm) {
    if (iparm[26] == 0) return 0;
    int code = checkRowStarts(n, ia, iparm);
    if (code == 0) code = checkColumnRange(n, ia, ja, iparm);
    if (code == 0 && std::abs(mtype) % 2 == 0) code = checkLowerEntry(n, ia, ja, iparm);
    if (code == 0) code = checkColumnOrder(n, ia, ja, iparm);
    if (code == 0) iparm[26] = 0;
    return code;
}

} // namespace spds

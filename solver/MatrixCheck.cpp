#include "MatrixCheck.h"

#include <cstdint>

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
    for (int i = 1; i <= n; ++i)
        if (ia[i] <= ia[i - 1]) {
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

} // namespace skyrinse::spds

#include "DiagonalSolve.h"

#include "internal/Scalar.h"

#include <complex>
#include <cstdint>
#include <type_traits>

namespace skyrinse::spds {

namespace {

template <class V>
bool isZero(const V& v) {
    return v == V(0);
}

template <class V>
int solveRows(int phase, int n, const V* diag, const int* ia, int nrhs, const int* iparm, V* b,
              V* x, bool conjugated = false) {
    for (int i = 1; i <= n; ++i)
        if (isZero(diag[ia[i - 1] - 1])) return -i;
    const bool solve = phase == 33 || phase % 10 == 3;
    if (!solve) return 0;
    if (nrhs < 1 || !b || (!x && iparm[5] != 1)) return 1;
    V* out = iparm[5] == 1 ? b : x;
    const std::int64_t rows = n;
    const std::int64_t total = rows * nrhs;
#pragma omp parallel for schedule(static) if (total > 65536)
    for (std::int64_t e = 0; e < total; ++e) {
        const std::int64_t i = e % rows;
        const V d = diag[ia[i] - 1];
        if constexpr (std::is_same_v<V, std::complex<float>> ||
                      std::is_same_v<V, std::complex<double>>)
            out[e] = b[e] / (conjugated ? std::conj(d) : d);
        else
            out[e] = b[e] / d;
    }
    return 0;
}

} // namespace

template <class T>
int diagonalPath(int mtype, int phase, int n, const T* a, const int* ia, const int* ja, int nrhs,
                 int* iparm, T* b, T* x, bool conjugated) {
    if (!a || !ja) return 1;
    for (int i = 1; i <= n; ++i)
        if (ia[i] - ia[i - 1] != 1) return i;
    // Every row holds one entry and ia[n] = n + 1, so ia[0] = 1 and the
    // entries are exactly a[0..n-1]; each must be its row's diagonal.
    for (int i = 1; i <= n; ++i)
        if (ja[ia[i - 1] - 1] != i) return i;
    const int base = mtype > 10 ? mtype - 10 : mtype;
    const bool complexValues = base > 2 || base < -2;
    if (complexValues) {
        using C = std::complex<T>;
        // A Hermitian diagonal is real: one that is not would be solved as
        // something else for A^H and A^T.
        if (mtype == 4 || mtype == -4)
            for (int i = 0; i < n; ++i)
                if (notReal(reinterpret_cast<const C*>(a)[i])) return i + 1;
        return solveRows(phase, n, reinterpret_cast<const C*>(a), ia, nrhs, iparm,
                         reinterpret_cast<C*>(b), reinterpret_cast<C*>(x), conjugated);
    }
    int positive = 0, others = 0;
    for (int i = 0; i < n; ++i)
        (a[i] > T(0) ? positive : others) += 1;
    const int r = solveRows(phase, n, a, ia, nrhs, iparm, b, x);
    if (r == 0) {
        iparm[21] = positive;
        iparm[22] = others;
    }
    return r;
}

template int diagonalPath<float>(int, int, int, const float*, const int*, const int*, int, int*,
                                 float*, float*, bool);
template int diagonalPath<double>(int, int, int, const double*, const int*, const int*, int, int*,
                                  double*, double*, bool);

} // namespace skyrinse::spds

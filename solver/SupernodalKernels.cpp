// Dense kernels of one supernode; the contract is in SupernodalKernels.h.
//
// Small panels are worked by plain loops: most supernodes of a sparse factor
// are a few columns wide, and below a few thousand operations the call into
// the dense library costs more than the arithmetic. Wide blocks go through
// it by blocks of kBlock columns.
#include "SupernodalKernels.h"

#include "internal/Blas.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

namespace skyrinse::spds {

namespace {

constexpr int kBlock = 32;
// Below this many multiply-adds a triangular solve runs as plain loops.
constexpr std::int64_t kSmallSolve = 8192;

template <class T>
T& at(T* a, int ld, int i, int j) {
    return a[i + static_cast<std::int64_t>(j) * ld];
}

// B (m x w) := B L^-T, or B L^-H with `conj`; L unit (unit) or non-unit
// lower triangular w x w.
template <class T>
void solveRightLowerTrans(T* b, int ldb, int m, const T* l, int ldl, int w, bool unit,
                          bool conj = false) {
    if (m <= 0 || w <= 0) return;
    if (static_cast<std::int64_t>(m) * w * w >= kSmallSolve) {
        blas::trsm('R', 'L', conj ? 'C' : 'T', unit ? 'U' : 'N', m, w, T(1), l, ldl, b, ldb);
        return;
    }
    for (int j = 0; j < w; ++j) {
        T* bj = b + static_cast<std::int64_t>(j) * ldb;
        for (int t = 0; t < j; ++t) {
            T f = l[j + static_cast<std::int64_t>(t) * ldl];
            if (conj) f = conjugate(f);
            if (f == T(0)) continue;
            const T* bt = b + static_cast<std::int64_t>(t) * ldb;
            for (int i = 0; i < m; ++i)
                bj[i] -= bt[i] * f;
        }
        if (!unit) {
            const T d = l[j + static_cast<std::int64_t>(j) * ldl];
            const T inv = T(1) / (conj ? conjugate(d) : d);
            for (int i = 0; i < m; ++i)
                bj[i] *= inv;
        }
    }
}

// B (m x w) := B U^-1, U non-unit upper triangular w x w.
template <class T>
void solveRightUpper(T* b, int ldb, int m, const T* u, int ldu, int w) {
    if (m <= 0 || w <= 0) return;
    if (static_cast<std::int64_t>(m) * w * w >= kSmallSolve) {
        blas::trsm('R', 'U', 'N', 'N', m, w, T(1), u, ldu, b, ldb);
        return;
    }
    for (int j = 0; j < w; ++j) {
        T* bj = b + static_cast<std::int64_t>(j) * ldb;
        for (int t = 0; t < j; ++t) {
            const T f = u[t + static_cast<std::int64_t>(j) * ldu];
            if (f == T(0)) continue;
            const T* bt = b + static_cast<std::int64_t>(t) * ldb;
            for (int i = 0; i < m; ++i)
                bj[i] -= bt[i] * f;
        }
        const T inv = T(1) / u[j + static_cast<std::int64_t>(j) * ldu];
        for (int i = 0; i < m; ++i)
            bj[i] *= inv;
    }
}

// Right-looking Cholesky of the first w columns of an m-row panel (L L^H for
// complex types: the diagonal is real).
template <class T>
int choleskyUnblocked(T* a, int ld, int m, int w) {
    using R = RealOf<T>;
    for (int j = 0; j < w; ++j) {
        T* cj = a + static_cast<std::int64_t>(j) * ld;
        R d = std::real(cj[j]);
        if (!(d > R(0)) || !std::isfinite(d)) return j;
        d = std::sqrt(d);
        cj[j] = d;
        const R inv = R(1) / d;
        for (int i = j + 1; i < m; ++i)
            cj[i] *= inv;
        for (int c = j + 1; c < w; ++c) {
            const T f = conjugate(cj[c]);
            if (f == T(0)) continue;
            T* cc = a + static_cast<std::int64_t>(c) * ld;
            for (int i = c; i < m; ++i)
                cc[i] -= cj[i] * f;
        }
    }
    return -1;
}

// Symmetric interchange of indices p < q of a block whose lower triangle is
// stored: rows p and q change places in every column, the columns likewise.
// In a Hermitian block the entries that cross the diagonal are conjugated.
template <class T>
void symmetricSwap(T* a, int ld, int w, int p, int q, bool hermitian = false) {
    if (p == q) return;
    if (p > q) std::swap(p, q);
    for (int j = 0; j < p; ++j)
        std::swap(at(a, ld, p, j), at(a, ld, q, j));
    for (int i = p + 1; i < q; ++i) {
        std::swap(at(a, ld, i, p), at(a, ld, q, i));
        if (hermitian) {
            at(a, ld, i, p) = conjugate(at(a, ld, i, p));
            at(a, ld, q, i) = conjugate(at(a, ld, q, i));
        }
    }
    if (hermitian) at(a, ld, q, p) = conjugate(at(a, ld, q, p));
    std::swap(at(a, ld, p, p), at(a, ld, q, q));
    for (int i = q + 1; i < w; ++i)
        std::swap(at(a, ld, i, p), at(a, ld, i, q));
}

template <class T>
void swapColumns(T* a, int ld, int m, int p, int q) {
    if (p == q) return;
    T* cp = a + static_cast<std::int64_t>(p) * ld;
    T* cq = a + static_cast<std::int64_t>(q) * ld;
    if (m >= 25) {
        blas::swap(m, cp, 1, cq, 1);
        return;
    }
    for (int i = 0; i < m; ++i)
        std::swap(cp[i], cq[i]);
}

// Applies PivotRule to the pivot `d`, the rest of whose column is the
// `count` entries at `rest`; returns whether it was replaced. The usual
// pivot is far above the threshold and nothing in its column reaches
// |d| / growth: that is settled by counting the entries beyond that bound,
// a loop that vectorises, and only a pivot in doubt has its column's
// largest magnitude taken.
template <class T>
bool settlePivot(T& d, const T* rest, int count, const PivotRule<T>& rule) {
    using R = RealOf<T>;
    const R m = magnitude(d);
    if (m > rule.threshold && m != R(0) && rule.growth > R(0)) {
        const R bound = m / rule.growth;
        int beyond = 0;
        for (int i = 0; i < count; ++i)
            beyond += magnitude(rest[i]) > bound ? 1 : 0;
        if (beyond == 0) return false;
    }
    R c = 0;
    for (int i = 0; i < count; ++i)
        c = std::max(c, magnitude(rest[i]));
    if (m != R(0) && !(m < rule.growth * c) && !(m <= rule.threshold && c > R(0))) return false;
    const R r = std::max(rule.replacement, rule.growth * c);
    if constexpr (isComplexV<T>)
        d = m == R(0) ? T(r) : d * (r / m);
    else
        d = d >= T(0) ? r : -r;
    return true;
}

// Column k of the panel below its diagonal entry.
template <class T>
const T* belowPivot(const T* a, int ld, int k) {
    return a + static_cast<std::int64_t>(k) * ld + k + 1;
}

} // namespace

template <class T>
BlockCounts choleskyPanel(T* a, int ld, int w) {
    BlockCounts counts;
    const int m = ld;
    if (w <= kBlock) {
        const int failed = choleskyUnblocked(a, ld, w, w);
        if (failed >= 0) {
            counts.failedColumn = failed;
            return counts;
        }
        solveRightLowerTrans(a + w, ld, m - w, a, ld, w, false, true);
        counts.positive = w;
        return counts;
    }
    for (int kb = 0; kb < w; kb += kBlock) {
        const int b = std::min(kBlock, w - kb);
        T* diag = &at(a, ld, kb, kb);
        const int failed = choleskyUnblocked(diag, ld, b, b);
        if (failed >= 0) {
            counts.failedColumn = kb + failed;
            return counts;
        }
        const int below = m - kb - b;
        solveRightLowerTrans(diag + b, ld, below, diag, ld, b, false, true);
        const int rest = w - kb - b;
        if (rest > 0)
            blas::gemm('N', 'C', below, rest, b, T(-1), diag + b, ld, diag + b, ld, T(1),
                       &at(a, ld, kb + b, kb + b), ld);
    }
    counts.positive = w;
    return counts;
}

template <class T>
BlockCounts ldltPanel(T* a, int ld, int w, bool bunchKaufman, PivotRule<T> rule, int* pivots,
                      bool hermitian) {
    using R = RealOf<T>;
    BlockCounts counts;
    // (1 + sqrt(17)) / 8: bounds the growth of a 1 x 1 step and a 2 x 2 step alike.
    const R alpha = R(0.6403882032022076);
    int k = 0;
    while (k < w) {
        int step = 1;
        int kp = k;
        if (bunchKaufman) {
            const R absakk = magnitude(at(a, ld, k, k));
            int imax = k;
            R colmax = 0;
            for (int i = k + 1; i < w; ++i) {
                const R v = magnitude(at(a, ld, i, k));
                if (v > colmax) {
                    colmax = v;
                    imax = i;
                }
            }
            if (absakk < alpha * colmax) {
                R rowmax = 0;
                for (int j = k; j < imax; ++j)
                    rowmax = std::max(rowmax, magnitude(at(a, ld, imax, j)));
                for (int i = imax + 1; i < w; ++i)
                    rowmax = std::max(rowmax, magnitude(at(a, ld, i, imax)));
                if (absakk >= alpha * colmax * (colmax / rowmax)) {
                    kp = k;
                } else if (magnitude(at(a, ld, imax, imax)) >= alpha * rowmax) {
                    kp = imax;
                } else {
                    kp = imax;
                    step = 2;
                }
            }
        } else {
            R best = magnitude(at(a, ld, k, k));
            for (int i = k + 1; i < w; ++i) {
                const R v = magnitude(at(a, ld, i, i));
                if (v > best) {
                    best = v;
                    kp = i;
                }
            }
        }
        const int kk = k + step - 1;
        symmetricSwap(a, ld, w, kk, kp, hermitian);
        // The diagonal of a Hermitian matrix is real; rounding may not say so.
        if (hermitian) at(a, ld, k, k) = std::real(at(a, ld, k, k));
        if (step == 1 && settlePivot(at(a, ld, k, k), belowPivot(a, ld, k), ld - k - 1, rule))
            ++counts.perturbed;
        if (step == 1) {
            const T d = at(a, ld, k, k);
            // A complex symmetric matrix has no inertia to count.
            if (!isComplexV<T> || hermitian)
                ++(std::real(d) >= RealOf<T>(0) ? counts.positive : counts.negative);
            const T r1 = T(1) / d;
            T* ck = a + static_cast<std::int64_t>(k) * ld;
            for (int j = k + 1; j < w; ++j) {
                const T f = (hermitian ? conjugate(ck[j]) : ck[j]) * r1;
                if (f == T(0)) continue;
                T* cj = a + static_cast<std::int64_t>(j) * ld;
                for (int i = j; i < w; ++i)
                    cj[i] -= ck[i] * f;
            }
            for (int i = k + 1; i < w; ++i)
                ck[i] *= r1;
            pivots[k] = kp;
        } else if (hermitian) {
            const R a11 = std::real(at(a, ld, k, k)), a22 = std::real(at(a, ld, k + 1, k + 1));
            const T a21 = at(a, ld, k + 1, k);
            const R det = a11 * a22 - std::norm(a21);
            if (det < R(0)) {
                ++counts.positive;
                ++counts.negative;
            } else {
                (a11 > R(0) ? counts.positive : counts.negative) += 2;
            }
            T* ck = a + static_cast<std::int64_t>(k) * ld;
            T* ck1 = ck + ld;
            for (int j = k + 2; j < w; ++j) {
                // Row j of the block below the pivot times D^-1.
                const T wk = (ck[j] * a22 - ck1[j] * a21) / det;
                const T wk1 = (ck1[j] * a11 - ck[j] * conjugate(a21)) / det;
                const T cwk = conjugate(wk), cwk1 = conjugate(wk1);
                T* cj = a + static_cast<std::int64_t>(j) * ld;
                for (int i = j; i < w; ++i)
                    cj[i] -= ck[i] * cwk + ck1[i] * cwk1;
                ck[j] = wk;
                ck1[j] = wk1;
            }
        } else {
            const T a11 = at(a, ld, k, k), a21 = at(a, ld, k + 1, k), a22 = at(a, ld, k + 1, k + 1);
            if constexpr (!isComplexV<T>) {
                const T t0 = (a11 / a21) * (a22 / a21) - T(1);
                if (t0 <= T(0)) {
                    ++counts.positive;
                    ++counts.negative;
                } else if (a11 <= T(0) || a22 <= T(0)) {
                    counts.negative += 2;
                } else {
                    counts.positive += 2;
                }
            }
            const T d11 = a22 / a21;
            const T d22 = a11 / a21;
            const T t = T(1) / (d11 * d22 - T(1));
            const T d21 = t / a21;
            T* ck = a + static_cast<std::int64_t>(k) * ld;
            T* ck1 = ck + ld;
            for (int j = k + 2; j < w; ++j) {
                const T wk = d21 * (d11 * ck[j] - ck1[j]);
                const T wk1 = d21 * (d22 * ck1[j] - ck[j]);
                T* cj = a + static_cast<std::int64_t>(j) * ld;
                for (int i = j; i < w; ++i)
                    cj[i] -= ck[i] * wk + ck1[i] * wk1;
                ck[j] = wk;
                ck1[j] = wk1;
            }
        }
        if (step == 2) {
            pivots[k] = pivots[k + 1] = -(kp + 1);
            // L is unit lower with a zero below a 2 x 2 pivot; the pivot's
            // off-diagonal entry moves to the unused upper triangle, so that
            // the triangular solves read L as a plain triangle.
            at(a, ld, k, k + 1) = at(a, ld, k + 1, k);
            at(a, ld, k + 1, k) = T(0);
        }
        k += step;
    }

    const int m = ld - w;
    if (m <= 0) return counts;
    T* below = a + w;
    for (int j = 0; j < w;) {
        if (pivots[j] >= 0) {
            swapColumns(below, ld, m, j, pivots[j]);
            ++j;
        } else {
            swapColumns(below, ld, m, j + 1, -pivots[j] - 1);
            j += 2;
        }
    }
    solveRightLowerTrans(below, ld, m, a, ld, w, true, hermitian);
    for (int j = 0; j < w;) {
        T* bj = below + static_cast<std::int64_t>(j) * ld;
        if (pivots[j] >= 0) {
            const T inv = T(1) / at(a, ld, j, j);
            for (int i = 0; i < m; ++i)
                bj[i] *= inv;
            ++j;
        } else {
            const T d11 = at(a, ld, j, j), d21 = at(a, ld, j, j + 1), d22 = at(a, ld, j + 1, j + 1);
            // D^-1 of [d11 d21'; d21 d22], d21' = d21 or its conjugate.
            const T d12 = hermitian ? conjugate(d21) : d21;
            const T det = d11 * d22 - d21 * d12;
            const T e11 = d22 / det, e21 = -d21 / det, e12 = -d12 / det, e22 = d11 / det;
            T* bj1 = bj + ld;
            for (int i = 0; i < m; ++i) {
                const T x = bj[i], y = bj1[i];
                bj[i] = x * e11 + y * e21;
                bj1[i] = x * e12 + y * e22;
            }
            j += 2;
        }
    }
    return counts;
}

template <class T>
BlockCounts luPanel(T* a, int ld, int w, T* upper, int ldu, PivotRule<T> rule, int* rowPivots,
                    int* colPivots) {
    using R = RealOf<T>;
    BlockCounts counts;
    const int m = ld - w;
    for (int k = 0; k < w; ++k) {
        R best = R(-1);
        int ip = k, jp = k;
        for (int j = k; j < w; ++j) {
            const T* cj = a + static_cast<std::int64_t>(j) * ld;
            for (int i = k; i < w; ++i) {
                const R v = magnitude(cj[i]);
                if (v >= best) {
                    best = v;
                    ip = i;
                    jp = j;
                }
            }
        }
        if (ip != k) {
            for (int j = 0; j < w; ++j)
                std::swap(at(a, ld, k, j), at(a, ld, ip, j));
            if (m > 0) swapColumns(upper, ldu, m, k, ip);
        }
        swapColumns(a, ld, ld, k, jp);
        rowPivots[k] = ip;
        colPivots[k] = jp;
        if (settlePivot(at(a, ld, k, k), belowPivot(a, ld, k), ld - k - 1, rule))
            ++counts.perturbed;
        const T p = at(a, ld, k, k);
        const T r = T(1) / p;
        T* ck = a + static_cast<std::int64_t>(k) * ld;
        for (int i = k + 1; i < w; ++i)
            ck[i] *= r;
        for (int j = k + 1; j < w; ++j) {
            T* cj = a + static_cast<std::int64_t>(j) * ld;
            const T f = cj[k];
            if (f == T(0)) continue;
            for (int i = k + 1; i < w; ++i)
                cj[i] -= ck[i] * f;
        }
    }
    if (m > 0) {
        solveRightUpper(a + w, ld, m, a, ld, w);
        solveRightLowerTrans(upper, ldu, m, a, ld, w, true);
    }
    return counts;
}

template BlockCounts choleskyPanel<float>(float*, int, int);
template BlockCounts choleskyPanel<double>(double*, int, int);
template BlockCounts ldltPanel<float>(float*, int, int, bool, PivotRule<float>, int*, bool);
template BlockCounts ldltPanel<double>(double*, int, int, bool, PivotRule<double>, int*, bool);
template BlockCounts luPanel<float>(float*, int, int, float*, int, PivotRule<float>, int*, int*);
template BlockCounts luPanel<double>(double*, int, int, double*, int, PivotRule<double>, int*,
                                     int*);

using ComplexF = std::complex<float>;
using ComplexD = std::complex<double>;
template BlockCounts choleskyPanel<ComplexF>(ComplexF*, int, int);
template BlockCounts choleskyPanel<ComplexD>(ComplexD*, int, int);
template BlockCounts ldltPanel<ComplexF>(ComplexF*, int, int, bool, PivotRule<ComplexF>, int*,
                                         bool);
template BlockCounts ldltPanel<ComplexD>(ComplexD*, int, int, bool, PivotRule<ComplexD>, int*,
                                         bool);
template BlockCounts luPanel<ComplexF>(ComplexF*, int, int, ComplexF*, int, PivotRule<ComplexF>,
                                       int*, int*);
template BlockCounts luPanel<ComplexD>(ComplexD*, int, int, ComplexD*, int, PivotRule<ComplexD>,
                                       int*, int*);

} // namespace skyrinse::spds

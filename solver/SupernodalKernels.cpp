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
// Columns of a panel of the pivoting kernels: their pivot search and the
// updates inside the panel are scalar, what the panel does to the rest of
// the block is one product.
constexpr int kPanel = 32;
// Below this many multiply-adds a triangular solve runs as plain loops.
constexpr std::int64_t kSmallSolve = 8192;
// Below this many multiply-adds a matrix-vector product runs as plain loops
// (eight times as many for a matrix product).
constexpr std::int64_t kSmallProduct = 2048;

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

// B (q x n) := L^-1 B, L unit lower triangular q x q.
template <class T>
void solveLeftLowerUnit(const T* l, int ldl, int q, T* b, int ldb, int n) {
    if (q <= 0 || n <= 0) return;
    if (static_cast<std::int64_t>(q) * q * n >= kSmallSolve) {
        blas::trsm('L', 'L', 'N', 'U', q, n, T(1), l, ldl, b, ldb);
        return;
    }
    for (int j = 0; j < n; ++j) {
        T* bj = b + static_cast<std::int64_t>(j) * ldb;
        for (int p = 0; p < q; ++p) {
            const T f = bj[p];
            if (f == T(0)) continue;
            const T* lp = l + static_cast<std::int64_t>(p) * ldl;
            for (int i = p + 1; i < q; ++i)
                bj[i] -= lp[i] * f;
        }
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

// Whether PivotRule would replace a pivot of magnitude d found at row ip of
// column `col` (rows from k on): the rest of that column is its other rows
// in the block and all rows below it.
template <class T>
bool wouldSettle(RealOf<T> d, const T* col, int k, int ip, int ld, const PivotRule<T>& rule) {
    using R = RealOf<T>;
    R c = 0;
    for (int i = k; i < ld; ++i)
        if (i != ip) c = std::max(c, magnitude(col[i]));
    return d == R(0) || d < rule.growth * c || (d <= rule.threshold && c > R(0));
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

namespace {

// The 2 x 2 pivot [a11 a21'; a21 a22] of an LDL^T step, a21' = a21 or its
// conjugate, and what it does to the rows below it.
template <class T>
struct PairPivot {
    T a11, a21, a22;
    bool hermitian;

    // Counts the inertia of the pair into `counts` (not for complex
    // symmetric pairs, which have none).
    void countInertia(BlockCounts& counts) const {
        using R = RealOf<T>;
        if (hermitian) {
            const R det = std::real(a11) * std::real(a22) - std::norm(a21);
            if (det < R(0)) {
                ++counts.positive;
                ++counts.negative;
            } else {
                (std::real(a11) > R(0) ? counts.positive : counts.negative) += 2;
            }
        } else if constexpr (!isComplexV<T>) {
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
    }

    // [x y] := [x y] D^-1 for the `count` rows of the two columns.
    void divide(T* x, T* y, int count) const {
        if (hermitian) {
            const RealOf<T> d11 = std::real(a11), d22 = std::real(a22);
            const RealOf<T> det = d11 * d22 - std::norm(a21);
            const T c21 = conjugate(a21);
            for (int i = 0; i < count; ++i) {
                const T u = x[i], v = y[i];
                x[i] = (u * d22 - v * a21) / det;
                y[i] = (v * d11 - u * c21) / det;
            }
            return;
        }
        // Scaled by a21 first: no overflow where a21 dominates the pair.
        const T d11 = a22 / a21;
        const T d22 = a11 / a21;
        const T d21 = (T(1) / (d11 * d22 - T(1))) / a21;
        for (int i = 0; i < count; ++i) {
            const T u = x[i], v = y[i];
            x[i] = d21 * (d11 * u - v);
            y[i] = d21 * (d22 * v - u);
        }
    }
};

// y[0..m) -= A (m x q, column-major) x, with x[p] = xs[p * incx], conjugated
// with `conj`. Long columns go to gemv; short ones stay in the loop.
template <class T>
void subtractColumns(T* y, int m, int q, const T* a, int lda, const T* xs, int incx, bool conj) {
    if (m <= 0 || q <= 0) return;
    if (static_cast<std::int64_t>(m) * q >= kSmallProduct) {
        T x[kPanel + 1];
        for (int p = 0; p < q; ++p)
            x[p] = conj ? conjugate(xs[static_cast<std::int64_t>(p) * incx])
                        : xs[static_cast<std::int64_t>(p) * incx];
        blas::gemv('N', m, q, T(-1), a, lda, x, 1, T(1), y, 1);
        return;
    }
    for (int p = 0; p < q; ++p) {
        T f = xs[static_cast<std::int64_t>(p) * incx];
        if (conj) f = conjugate(f);
        if (f == T(0)) continue;
        const T* ap = a + static_cast<std::int64_t>(p) * lda;
        for (int i = 0; i < m; ++i)
            y[i] -= ap[i] * f;
    }
}

// C (m x n) -= A (m x q) op(B), op(B) = B (n = B's columns, tb 'N') or B^T
// / B^H (tb 'T' / 'C', B n x q): the trailing update of a panel.
template <class T>
void subtractProduct(int m, int n, int q, const T* a, int lda, const T* b, int ldb, char tb, T* c,
                     int ldc) {
    if (m <= 0 || n <= 0 || q <= 0) return;
    if (static_cast<std::int64_t>(m) * n * q >= kSmallProduct * 8) {
        blas::gemm('N', tb, m, n, q, T(-1), a, lda, b, ldb, T(1), c, ldc);
        return;
    }
    for (int j = 0; j < n; ++j) {
        T* cj = c + static_cast<std::int64_t>(j) * ldc;
        if (tb == 'N')
            subtractColumns(cj, m, q, a, lda, b + static_cast<std::int64_t>(j) * ldb, 1, false);
        else
            subtractColumns(cj, m, q, a, lda, b + j, ldb, tb == 'C');
    }
}

// The trailing part of an LDL^T block, columns and rows from `from` on, less
// L W^T (L W^H) of the panel's q columns, lower triangle: by column blocks,
// each with its diagonal block whole (the strict upper triangle there is
// scratch until its columns are factored).
template <class T>
void updateTrailing(T* a, int ld, int w, int from, const T* l, const T* work, int q, char tb) {
    for (int c = from; c < w; c += kBlock) {
        const int nb = std::min(kBlock, w - c);
        subtractProduct(w - c, nb, q, l + c, ld, work + c, w, tb, &at(a, ld, c, c), ld);
    }
}

// The LDL^T kernel's state over one block: A the block in the panel, W the
// columns of the current panel as the updates left them before their pivot's
// division (L D, row by row of the block), `diagonal` the remaining diagonal
// as updated so far (for the largest-diagonal rule).
template <class T>
struct LdltBlock {
    T* a;
    int ld;
    int w;
    T* work;
    T* diagonal;
    bool hermitian;

    T* wcol(int j) const { return work + static_cast<std::int64_t>(j) * w; }

    // Column c of the trailing matrix, rows k..w-1, as the panel's first j
    // columns (from k0) leave it, into out[k..w-1].
    void updatedColumn(int c, int k, int k0, int j, T* out) const {
        for (int i = k; i < c; ++i)
            out[i] = hermitian ? conjugate(at(a, ld, c, i)) : at(a, ld, c, i);
        for (int i = c; i < w; ++i)
            out[i] = at(a, ld, i, c);
        subtractColumns(out + k, w - k, j, &at(a, ld, k, k0), ld, work + c, w, hermitian);
    }

    // Symmetric interchange of kk < kp inside the trailing part, whose
    // column kk is held updated in W and is written from there: only what
    // later columns read moves in A. The factored columns, the panel's
    // columns of W, the rows below the block and the updated diagonal move
    // whole.
    void interchange(int kk, int kp, int k, int wcols, T* below, int m) {
        at(a, ld, kp, kp) = at(a, ld, kk, kk);
        for (int i = kk + 1; i < kp; ++i)
            at(a, ld, kp, i) = hermitian ? conjugate(at(a, ld, i, kk)) : at(a, ld, i, kk);
        for (int i = kp + 1; i < w; ++i)
            at(a, ld, i, kp) = at(a, ld, i, kk);
        for (int j = 0; j < k; ++j)
            std::swap(at(a, ld, kk, j), at(a, ld, kp, j));
        for (int j = 0; j < wcols; ++j)
            std::swap(wcol(j)[kk], wcol(j)[kp]);
        if (m > 0) swapColumns(below, ld, m, kk, kp);
        if (diagonal) std::swap(diagonal[kk], diagonal[kp]);
    }
};

} // namespace

std::int64_t ldltWorkspace(int w) {
    return static_cast<std::int64_t>(w) * (std::min(w, kPanel + 1) + 1);
}

template <class T>
BlockCounts ldltPanel(T* a, int ld, int w, bool bunchKaufman, PivotRule<T> rule, int* pivots,
                      T* work, bool hermitian) {
    using R = RealOf<T>;
    BlockCounts counts;
    // (1 + sqrt(17)) / 8: bounds the growth of a 1 x 1 step and a 2 x 2 step alike.
    const R alpha = R(0.6403882032022076);
    const int m = ld - w;
    T* below = a + w;
    const int wcols = std::min(w, kPanel + 1);
    LdltBlock<T> blk{
        a,        ld, w, work, bunchKaufman ? nullptr : work + static_cast<std::int64_t>(w) * wcols,
        hermitian};
    if (!bunchKaufman)
        for (int i = 0; i < w; ++i)
            blk.diagonal[i] = hermitian ? T(std::real(at(a, ld, i, i))) : at(a, ld, i, i);
    const char tb = hermitian ? 'C' : 'T';
    int k = 0;
    while (k < w) {
        // One panel: its columns are formed left-looking in W, with the
        // pivot search of the whole remaining column; a 2 x 2 pivot on its
        // last column makes it one wider, so pairs are never split.
        const int k0 = k;
        while (k < w && k - k0 < kPanel) {
            const int j = k - k0;
            T* wk = blk.wcol(j);
            int step = 1;
            int kp = k;
            if (bunchKaufman) {
                blk.updatedColumn(k, k, k0, j, wk);
                const R absakk = magnitude(wk[k]);
                int imax = k;
                R colmax = 0;
                for (int i = k + 1; i < w; ++i) {
                    const R v = magnitude(wk[i]);
                    if (v > colmax) {
                        colmax = v;
                        imax = i;
                    }
                }
                if (absakk < alpha * colmax) {
                    T* wi = blk.wcol(j + 1);
                    blk.updatedColumn(imax, k, k0, j, wi);
                    R rowmax = 0;
                    for (int i = k; i < w; ++i)
                        if (i != imax) rowmax = std::max(rowmax, magnitude(wi[i]));
                    if (absakk >= alpha * colmax * (colmax / rowmax)) {
                        kp = k;
                    } else if (magnitude(wi[imax]) >= alpha * rowmax) {
                        kp = imax;
                        std::copy(wi + k, wi + w, wk + k);
                    } else {
                        kp = imax;
                        step = 2;
                    }
                }
            } else {
                R best = magnitude(blk.diagonal[k]);
                for (int i = k + 1; i < w; ++i) {
                    const R v = magnitude(blk.diagonal[i]);
                    if (v > best) {
                        best = v;
                        kp = i;
                    }
                }
                blk.updatedColumn(kp, k, k0, j, wk);
            }
            const int kk = k + step - 1;
            if (kp != kk) blk.interchange(kk, kp, k, j + step, below, m);
            T* ck = a + static_cast<std::int64_t>(k) * ld;
            if (step == 1) {
                // The diagonal of a Hermitian matrix is real; rounding may not say so.
                if (hermitian) wk[k] = std::real(wk[k]);
                std::copy(wk + k, wk + w, ck + k);
                if (settlePivot(ck[k], ck + k + 1, ld - k - 1, rule)) ++counts.perturbed;
                const T d = ck[k];
                // A complex symmetric matrix has no inertia to count.
                if (!isComplexV<T> || hermitian)
                    ++(std::real(d) >= R(0) ? counts.positive : counts.negative);
                const T r1 = T(1) / d;
                for (int i = k + 1; i < w; ++i)
                    ck[i] *= r1;
                if (blk.diagonal)
                    for (int i = k + 1; i < w; ++i)
                        blk.diagonal[i] -= ck[i] * (hermitian ? conjugate(wk[i]) : wk[i]);
                pivots[k] = kp;
            } else {
                T* wk1 = blk.wcol(j + 1);
                T* ck1 = ck + ld;
                PairPivot<T> d{wk[k], wk[k + 1], wk1[k + 1], hermitian};
                if (hermitian) {
                    d.a11 = std::real(d.a11);
                    d.a22 = std::real(d.a22);
                }
                d.countInertia(counts);
                std::copy(wk + k + 2, wk + w, ck + k + 2);
                std::copy(wk1 + k + 2, wk1 + w, ck1 + k + 2);
                d.divide(ck + k + 2, ck1 + k + 2, w - k - 2);
                // L is unit lower with a zero below a 2 x 2 pivot; the pivot's
                // off-diagonal entry moves to the unused upper triangle, so that
                // the triangular solves read L as a plain triangle.
                ck[k] = d.a11;
                ck1[k + 1] = d.a22;
                ck1[k] = d.a21;
                ck[k + 1] = T(0);
                pivots[k] = pivots[k + 1] = -(kp + 1);
            }
            k += step;
        }
        updateTrailing(a, ld, w, k, a + static_cast<std::int64_t>(k0) * ld, work, k - k0, tb);
    }

    if (m <= 0) return counts;
    solveRightLowerTrans(below, ld, m, a, ld, w, true, hermitian);
    for (int j = 0; j < w;) {
        T* bj = below + static_cast<std::int64_t>(j) * ld;
        if (pivots[j] >= 0) {
            const T inv = T(1) / at(a, ld, j, j);
            for (int i = 0; i < m; ++i)
                bj[i] *= inv;
            ++j;
        } else {
            const PairPivot<T> d{at(a, ld, j, j), at(a, ld, j, j + 1), at(a, ld, j + 1, j + 1),
                                 hermitian};
            d.divide(bj, bj + ld, m);
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
    // Brings the columns from pe on up to date with the panel's columns
    // k0..k-1: their rows of U, then the product for the rows below.
    auto flush = [&](int k0, int k, int pe) {
        if (k == k0 || pe >= w) return;
        T* u12 = &at(a, ld, k0, pe);
        solveLeftLowerUnit(&at(a, ld, k0, k0), ld, k - k0, u12, ld, w - pe);
        subtractProduct(w - k, w - pe, k - k0, &at(a, ld, k, k0), ld, u12, ld, 'N',
                        &at(a, ld, k, pe), ld);
    };
    bool blocked = true;
    int k = 0;
    while (k < w) {
        // One panel: complete pivoting over its remaining columns, which are
        // kept up to date; the rest of the block takes the panel's
        // interchanges at once and its update afterwards, as one product.
        // A pivot that the panel's columns cannot make acceptable ends the
        // blocking: the rest of the block is brought up to date and
        // searched whole at every step, so complete pivoting over the block
        // is only given up where it changes nothing.
        const int k0 = k;
        const int pe = blocked ? std::min(w, k0 + kPanel) : w;
        for (; k < pe; ++k) {
            R best = R(-1);
            int ip = k, jp = k;
            for (int j = k; j < pe; ++j) {
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
            if (pe < w &&
                wouldSettle(best, a + static_cast<std::int64_t>(jp) * ld, k, ip, ld, rule)) {
                blocked = false;
                break;
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
            const T r = T(1) / at(a, ld, k, k);
            T* ck = a + static_cast<std::int64_t>(k) * ld;
            for (int i = k + 1; i < w; ++i)
                ck[i] *= r;
            for (int j = k + 1; j < pe; ++j) {
                T* cj = a + static_cast<std::int64_t>(j) * ld;
                const T f = cj[k];
                if (f == T(0)) continue;
                for (int i = k + 1; i < w; ++i)
                    cj[i] -= ck[i] * f;
            }
        }
        flush(k0, k, pe);
    }
    if (m > 0) {
        solveRightUpper(a + w, ld, m, a, ld, w);
        solveRightLowerTrans(upper, ldu, m, a, ld, w, true);
    }
    return counts;
}

template BlockCounts choleskyPanel<float>(float*, int, int);
template BlockCounts choleskyPanel<double>(double*, int, int);
template BlockCounts ldltPanel<float>(float*, int, int, bool, PivotRule<float>, int*, float*, bool);
template BlockCounts ldltPanel<double>(double*, int, int, bool, PivotRule<double>, int*, double*,
                                       bool);
template BlockCounts luPanel<float>(float*, int, int, float*, int, PivotRule<float>, int*, int*);
template BlockCounts luPanel<double>(double*, int, int, double*, int, PivotRule<double>, int*,
                                     int*);

using ComplexF = std::complex<float>;
using ComplexD = std::complex<double>;
template BlockCounts choleskyPanel<ComplexF>(ComplexF*, int, int);
template BlockCounts choleskyPanel<ComplexD>(ComplexD*, int, int);
template BlockCounts ldltPanel<ComplexF>(ComplexF*, int, int, bool, PivotRule<ComplexF>, int*,
                                         ComplexF*, bool);
template BlockCounts ldltPanel<ComplexD>(ComplexD*, int, int, bool, PivotRule<ComplexD>, int*,
                                         ComplexD*, bool);
template BlockCounts luPanel<ComplexF>(ComplexF*, int, int, ComplexF*, int, PivotRule<ComplexF>,
                                       int*, int*);
template BlockCounts luPanel<ComplexD>(ComplexD*, int, int, ComplexD*, int, PivotRule<ComplexD>,
                                       int*, int*);

} // namespace skyrinse::spds

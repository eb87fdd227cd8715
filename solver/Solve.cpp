// Solve step; the contract is in Solve.h.
//
// The sweeps work on the permuted vectors Y (n x nrhs, leading dimension
// n). The rows of a diagonal block are consecutive in Y, so a block solve
// reads and writes Y in place; the rows below a block are scattered, so
// their contribution is formed in a buffer and then added row by row.
//
// The forward sweep gathers: before its own solve, a block subtracts what
// each of its sources (the supernodes below it with rows in it) contributes,
// in ascending order of the source. The backward sweep gathers as well, from
// the rows below the block. So every entry of Y is computed in one fixed
// order, and on several threads the sweeps follow the factorization's tree
// schedule (TreeSchedule.h) with the same bits: forward, each thread sweeps
// its subtrees, whose sources lie inside them, then the calling thread the
// top; backward, the top first, then each thread its subtrees, which only
// read rows outside them. No row is written by two threads.
#include "Solve.h"

#include "OutOfCoreStore.h"
#include "TreeSchedule.h"
#include "internal/Blas.h"
#include "internal/FactorLayout.h"
#include "internal/OneBased.h"
#include "internal/Scalar.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include <omp.h>

namespace skyrinse::spds {

namespace {

constexpr int kWorkCode = -1300;
// Blocks smaller than this many entries are solved by loops for one
// right-hand side; the dense library only pays off above it.
constexpr std::int64_t kSmallBlock = 4096;
// Factors with fewer entries are swept on one thread.
constexpr std::int64_t kParallelEntries = 50000;
// Vectors with fewer entries are gathered and scattered on one thread: the
// rows a thread takes must outweigh waking it.
constexpr std::int64_t kParallelRows = 50000;

enum class Kind { Cholesky, Indefinite, Lu };

// (u, v) <- D^-1 (u, v) for a 2 x 2 pivot stored by its lower triangle;
// Cramer's rule, as the factorization inverted it.
template <class T>
void solvePivotPair(T d11, T d21, T d22, bool hermitian, T& u, T& v) {
    const T d12 = hermitian ? conjugate(d21) : d21;
    const T det = d11 * d22 - d21 * d12;
    const T u0 = u, v0 = v;
    u = (u0 * d22 - v0 * d12) / det;
    v = (v0 * d11 - u0 * d21) / det;
}

} // namespace

template <class T>
struct FactorSolver<T>::Impl {
    Handle& h;
    const SymbolicResult& s;
    int n;
    int nrhs;
    Kind kind;
    bool transpose;
    bool hermitian = false; // the backward sweep takes L^H
    char backTrans = 'T';
    FactorView<T> f;
    Block<T> y;
    Block<T> buffer;
    IntBlock gatherIndex; // zero-based source row of permuted position k
    IntBlock scatterIndex;
    Block<T> gatherScale;
    Block<T> scatterScale;
    TreeSchedule plan;
    SourceLists sources;
    std::vector<Block<T>> buffers; // per thread: the rows below one block
    // Out of core: the factor's files, and the panels of the supernode at
    // hand as the reader hands them out.
    const OutOfCoreFactor* ooc = nullptr;
    const T* currentL = nullptr;
    const T* currentU = nullptr;

    const T* lpanel(int sn) const {
        return ooc ? currentL : f.lnz + s.xlnz[s.xsup[sn - 1] - 1] - 1;
    }
    const T* upanel(int sn) const {
        return ooc ? currentU : f.unz + s.xunz[s.xsup[sn - 1] - 1] - 1;
    }

    Impl(Handle& handle, const FactorRow& row, bool transposed, int rhs)
        : h(handle), s(handle.symbolic), n(handle.n), nrhs(rhs) {
        const int mtype = factorKind(h.mtype);
        kind = mtype == 2 ? Kind::Cholesky : (mtype == -2 ? Kind::Indefinite : Kind::Lu);
        hermitian = h.mtype == 4 || h.mtype == -4;
        backTrans = hermitian ? 'C' : 'T';
        transpose = transposed && kind == Kind::Lu;
        ooc = row.outOfCore.get();
        const FactorLayout layout(ooc ? 0 : s.lnzSize,
                                  ooc                ? 0
                                  : kind == Kind::Lu ? s.unzSize
                                                     : 1,
                                  n, sizeof(T));
        f = layout.view<T>(const_cast<std::byte*>(row.values.data()));
        y = Block<T>(checkedMul(n, nrhs), kWorkCode, &h.memory);
        buffer = Block<T>(checkedMul(std::max(1, s.largestColumn), nrhs), kWorkCode, &h.memory);
        // A small factor is swept faster than a team of threads wakes up.
        // Out of core the panels come in one stream, on one thread.
        const int threads = s.lnzSize >= kParallelEntries && !ooc ? nrt_get_max_threads() : 1;
        plan = scheduleTree(s, threads, kind == Kind::Lu);
        sources = sourceLists(s, &h.memory, kWorkCode);
        for (int k = 1; k < plan.threads; ++k)
            buffers.emplace_back(checkedMul(std::max(1, s.largestColumn), nrhs), kWorkCode,
                                 &h.memory);
        gatherIndex = IntBlock(n, kWorkCode, &h.memory);
        scatterIndex = IntBlock(n, kWorkCode, &h.memory);
        gatherScale = Block<T>(n, kWorkCode, &h.memory);
        scatterScale = Block<T>(n, kWorkCode, &h.memory);
        const int* perm = h.ordering_.perm.data();
        const bool scaled = h.scaling && !h.scalings.empty();
        const bool rowPermuted = kind == Kind::Lu && h.rowPermuted;
        const double* R = scaled ? h.scalings.data() : nullptr;
        const double* C = scaled ? h.scalings.data() + (kind == Kind::Lu ? n : 0) : nullptr;
        for (int k = 0; k < n; ++k) {
            const int col = perm[k] - 1;
            const int row = rowPermuted ? h.matchingPermutation[col] - 1 : col;
            // A x = b: the factor's rows are the rows of A through the
            // matching, its columns the columns of A; A^T x = b swaps them.
            const int g = transpose ? col : row;
            const int t = transpose ? row : col;
            gatherIndex[k] = g;
            scatterIndex[k] = t;
            gatherScale[k] = static_cast<T>(scaled ? (transpose ? C[g] : R[g]) : 1.0);
            scatterScale[k] = static_cast<T>(scaled ? (transpose ? R[t] : C[t]) : 1.0);
        }
        if (ooc) ooc->openForReading();
    }
    ~Impl() {
        if (ooc) ooc->closeFiles();
    }

    void swapRows(int a, int b) {
        if (a == b) return;
        for (int j = 0; j < nrhs; ++j)
            std::swap(y[a + static_cast<std::int64_t>(j) * n],
                      y[b + static_cast<std::int64_t>(j) * n]);
    }

    // Interchanges of supernode sn, in the order the factorization made them.
    void applySwaps(int fst, int ws, const int* record, bool symmetricPairs) {
        for (int k = 0; k < ws;) {
            const int p = record[fst - 1 + k];
            if (p > 0 || !symmetricPairs) {
                swapRows(fst - 1 + k, p - 1);
                ++k;
            } else {
                swapRows(fst + k, -p - 1);
                k += 2;
            }
        }
    }
    void undoSwaps(int fst, int ws, const int* record, bool symmetricPairs) {
        for (int k = ws - 1; k >= 0;) {
            const int p = record[fst - 1 + k];
            if (p > 0 || !symmetricPairs) {
                swapRows(fst - 1 + k, p - 1);
                --k;
            } else {
                swapRows(fst - 1 + k, -p - 1);
                k -= 2;
            }
        }
    }

    // Y(block) := op(B)^-1 Y(block), B the ws x ws block at `a` (ld hs).
    void blockSolve(const T* a, int hs, int ws, int fst, char uplo, char trans, char diag) {
        T* yb = y.data() + fst - 1;
        if (nrhs == 1 && static_cast<std::int64_t>(ws) * ws < kSmallBlock) {
            const bool lower = (uplo == 'L') == (trans == 'N');
            auto A = [&](int i, int j) {
                if (trans == 'C') return conjugate(a[j + static_cast<std::int64_t>(i) * hs]);
                return trans == 'T' ? a[j + static_cast<std::int64_t>(i) * hs]
                                    : a[i + static_cast<std::int64_t>(j) * hs];
            };
            if (lower) {
                for (int i = 0; i < ws; ++i) {
                    T v = yb[i];
                    for (int j = 0; j < i; ++j)
                        v -= A(i, j) * yb[j];
                    yb[i] = diag == 'U' ? v : v / A(i, i);
                }
            } else {
                for (int i = ws - 1; i >= 0; --i) {
                    T v = yb[i];
                    for (int j = i + 1; j < ws; ++j)
                        v -= A(i, j) * yb[j];
                    yb[i] = diag == 'U' ? v : v / A(i, i);
                }
            }
            return;
        }
        if (nrhs == 1)
            blas::trsv(uplo, trans, diag, ws, a, hs, yb, 1);
        else
            blas::trsm('L', uplo, trans, diag, ws, nrhs, T(1), a, hs, yb, n);
    }

    // Y(rows of sn) -= what each source of sn contributes: the source's
    // panel below its block (rows from its first one in sn) times its
    // solved block, in ascending order of the source.
    void pullFromSources(int sn, T* buf) {
        const OneBased<const int> xsup(s.xsup.data()), xlnz(s.xlnz.data()), xunz(s.xunz.data()),
            xlindx(s.xlindx.data());
        const int ls = xsup[sn + 1] - 1;
        for (int e = sources.xsource[sn - 1]; e < sources.xsource[sn]; ++e) {
            const int d = sources.source[e];
            const int r = sources.rows[e];
            const int fd = xsup[d];
            const int wd = xsup[d + 1] - fd;
            const int hd = xlnz[fd + 1] - xlnz[fd];
            const int p0 = hd - r;
            const int* rows = s.lindx.data() + xlindx[d] - 1 + p0;
            int q = 0;
            while (q < r && rows[q] <= ls)
                ++q;
            const bool upper = kind == Kind::Lu && transpose;
            const T* p = upper ? f.unz + xunz[fd] - 1 + (p0 - wd) : f.lnz + xlnz[fd] - 1 + p0;
            const int ldp = upper ? hd - wd : hd;
            subtractUpdate(p, ldp, rows, q, wd, y.data() + fd - 1, buf);
        }
    }

    // Y(rows) -= P Y(block of the source), P the q x wd part of the
    // source's panel at p.
    void subtractUpdate(const T* p, int ldp, const int* rows, int q, int wd, const T* yd, T* buf) {
        if (nrhs == 1) {
            // Four columns a pass: each entry of y takes the same products
            // in the same order as column by column, but is read and
            // written a quarter as often, and the four products overlap.
            int j = 0;
            for (; j + 4 <= wd; j += 4) {
                const T v0 = yd[j], v1 = yd[j + 1], v2 = yd[j + 2], v3 = yd[j + 3];
                if (v0 == T(0) && v1 == T(0) && v2 == T(0) && v3 == T(0)) continue;
                const T* p0 = p + static_cast<std::int64_t>(j) * ldp;
                const T* p1 = p0 + ldp;
                const T* p2 = p1 + ldp;
                const T* p3 = p2 + ldp;
                for (int i = 0; i < q; ++i) {
                    T& t = y[rows[i] - 1];
                    t = t - p0[i] * v0 - p1[i] * v1 - p2[i] * v2 - p3[i] * v3;
                }
            }
            for (; j < wd; ++j) {
                const T v = yd[j];
                if (v == T(0)) continue;
                const T* pj = p + static_cast<std::int64_t>(j) * ldp;
                for (int i = 0; i < q; ++i)
                    y[rows[i] - 1] -= pj[i] * v;
            }
            return;
        }
        blas::gemm('N', 'N', q, nrhs, wd, T(1), p, ldp, yd, n, T(0), buf, q);
        for (int j = 0; j < nrhs; ++j) {
            T* yj = y.data() + static_cast<std::int64_t>(j) * n;
            const T* bj = buf + static_cast<std::int64_t>(j) * q;
            for (int i = 0; i < q; ++i)
                yj[rows[i] - 1] -= bj[i];
        }
    }

    // The forward sweep by pushing: once the block of sn is solved, its
    // panel updates the rows below, one target supernode at a time. Each
    // row takes the same products in the same order as when the targets
    // pull them (ascending source), so the bits do not change; this way a
    // panel is needed once, when it streams by.
    void pushBelow(int sn, T* buf) {
        const OneBased<const int> xsup(s.xsup.data()), xlindx(s.xlindx.data());
        const int fst = xsup[sn];
        const int ws = xsup[sn + 1] - fst;
        const int hs = s.xlnz[fst] - s.xlnz[fst - 1];
        const int m = hs - ws;
        const int* rows = s.lindx.data() + xlindx[sn] - 1 + ws;
        const bool upper = kind == Kind::Lu && transpose;
        for (int k = 0; k < m;) {
            const int target = s.snode[rows[k] - 1];
            const int last = xsup[target + 1] - 1;
            int q = 0;
            while (k + q < m && rows[k + q] <= last)
                ++q;
            const T* p = upper ? upanel(sn) + k : lpanel(sn) + ws + k;
            subtractUpdate(p, upper ? m : hs, rows + k, q, ws, y.data() + fst - 1, buf);
            k += q;
        }
    }

    // yb -= P^T y(below), or P^H: four columns a pass, each sum taken in
    // the order of a single column's, so that the rows below are gathered a
    // quarter as often and four sums run side by side.
    template <bool Conj>
    void dotBelow(const T* p, int ldp, int m, int ws, const int* below, T* yb) {
        auto c = [](T v) {
            if constexpr (Conj)
                return conjugate(v);
            else
                return v;
        };
        int j = 0;
        for (; j + 4 <= ws; j += 4) {
            const T* p0 = p + static_cast<std::int64_t>(j) * ldp;
            const T* p1 = p0 + ldp;
            const T* p2 = p1 + ldp;
            const T* p3 = p2 + ldp;
            T v0 = 0, v1 = 0, v2 = 0, v3 = 0;
            for (int i = 0; i < m; ++i) {
                const T g = y[below[i] - 1];
                v0 += c(p0[i]) * g;
                v1 += c(p1[i]) * g;
                v2 += c(p2[i]) * g;
                v3 += c(p3[i]) * g;
            }
            yb[j] -= v0;
            yb[j + 1] -= v1;
            yb[j + 2] -= v2;
            yb[j + 3] -= v3;
        }
        for (; j < ws; ++j) {
            const T* pj = p + static_cast<std::int64_t>(j) * ldp;
            T v = 0;
            for (int i = 0; i < m; ++i)
                v += c(pj[i]) * y[below[i] - 1];
            yb[j] -= v;
        }
    }

    // Y(block) -= P^T Y(rows below), or P^H with trans 'C'.
    void pullBelow(const T* p, int ldp, int m, int ws, int fst, const int* below, T* buf,
                   char trans = 'T') {
        if (m <= 0) return;
        T* yb = y.data() + fst - 1;
        if (nrhs == 1) {
            if (trans == 'C')
                dotBelow<true>(p, ldp, m, ws, below, yb);
            else
                dotBelow<false>(p, ldp, m, ws, below, yb);
            return;
        }
        for (int j = 0; j < nrhs; ++j) {
            const T* yj = y.data() + static_cast<std::int64_t>(j) * n;
            T* bj = buf + static_cast<std::int64_t>(j) * m;
            for (int i = 0; i < m; ++i)
                bj[i] = yj[below[i] - 1];
        }
        blas::gemm(trans, 'N', ws, nrhs, m, T(-1), p, ldp, buf, m, T(1), yb, n);
    }

    void forwardNode(int sn, T* buf) {
        const OneBased<const int> xsup(s.xsup.data()), xlnz(s.xlnz.data());
        const int fst = xsup[sn];
        const int ws = xsup[sn + 1] - fst;
        const int hs = xlnz[fst + 1] - xlnz[fst];
        const T* L = lpanel(sn);
        if (!ooc) pullFromSources(sn, buf);
        if (kind == Kind::Cholesky) {
            blockSolve(L, hs, ws, fst, 'L', 'N', 'N');
        } else if (kind == Kind::Indefinite) {
            applySwaps(fst, ws, f.rowPivot, true);
            blockSolve(L, hs, ws, fst, 'L', 'N', 'U');
        } else if (!transpose) {
            applySwaps(fst, ws, f.rowPivot, false);
            blockSolve(L, hs, ws, fst, 'L', 'N', 'U');
        } else {
            applySwaps(fst, ws, f.colPivot, false);
            blockSolve(L, hs, ws, fst, 'U', 'T', 'N');
        }
    }

    T* bufferOf(int k) {
        return k == 0 ? buffer.data() : buffers[static_cast<std::size_t>(k) - 1].data();
    }

    // Y(block of sn) := D^-1 Y(block), the columns of sn one by one, as
    // diagonal() does for all of them.
    void diagonalBlock(int sn) {
        if (kind != Kind::Indefinite) return;
        const int fst = s.xsup[sn - 1];
        const int lst = s.xsup[sn] - 1;
        const int hs = s.xlnz[fst] - s.xlnz[fst - 1];
        const T* L = lpanel(sn);
        for (int j = 0; j < nrhs; ++j) {
            T* yj = y.data() + static_cast<std::int64_t>(j) * n;
            for (int c = fst; c <= lst;) {
                const int off = c - fst;
                const T* col = L + static_cast<std::int64_t>(off) * hs;
                if (f.rowPivot[c - 1] > 0) {
                    yj[c - 1] /= col[off];
                    ++c;
                } else {
                    const T* col1 = col + hs;
                    solvePivotPair(col[off], col1[off], col1[off + 1], hermitian, yj[c - 1], yj[c]);
                    c += 2;
                }
            }
        }
    }

    // One pass over the files, in the order the panels were written or its
    // reverse; `step` runs for each supernode with its panels at hand.
    template <class Step>
    void stream(bool ascending, Step step) {
        std::vector<int> order(static_cast<std::size_t>(s.nsuper));
        for (int i = 0; i < s.nsuper; ++i)
            order[static_cast<std::size_t>(i)] = ascending ? i + 1 : s.nsuper - i;
        // Two chunks in flight, each a quarter of the window at most.
        const std::int64_t chunk = std::clamp<std::int64_t>(
            h.ooc.windowBytes / 4, std::int64_t(64) << 10, std::int64_t(64) << 20);
        PanelReader reader(*ooc, std::move(order), chunk);
        for (int i = 0; i < s.nsuper; ++i) {
            const PanelReader::Panels p = reader.next();
            currentL = reinterpret_cast<const T*>(p.l);
            currentU = reinterpret_cast<const T*>(p.u);
            step(p.sn);
        }
        currentL = currentU = nullptr;
    }

    void sweepOutOfCore(int partial) {
        if (partial == 0 || partial == 1)
            stream(true, [&](int sn) {
                forwardNode(sn, buffer.data());
                pushBelow(sn, buffer.data());
                if (partial == 0) diagonalBlock(sn);
            });
        if (partial == 2 && kind == Kind::Indefinite)
            stream(true, [&](int sn) { diagonalBlock(sn); });
        if (partial == 0 || partial == 3)
            stream(false, [&](int sn) { backwardNode(sn, buffer.data()); });
    }

    void forward() {
        if (plan.threads == 1) {
            for (int sn = 1; sn <= s.nsuper; ++sn)
                forwardNode(sn, buffer.data());
            return;
        }
        const int t = plan.threads;
#pragma omp parallel num_threads(t)
        {
            const int k = omp_get_thread_num();
            for (int i = plan.start[static_cast<std::size_t>(k)];
                 i < plan.start[static_cast<std::size_t>(k) + 1]; ++i)
                forwardNode(plan.order[static_cast<std::size_t>(i)], bufferOf(k));
        }
        for (int i = plan.start[static_cast<std::size_t>(t)]; i < s.nsuper; ++i)
            forwardNode(plan.order[static_cast<std::size_t>(i)], buffer.data());
    }

    void diagonal() {
        if (kind != Kind::Indefinite) return;
        const OneBased<const int> xlnz(s.xlnz.data());
        for (int j = 0; j < nrhs; ++j) {
            T* yj = y.data() + static_cast<std::int64_t>(j) * n;
            for (int c = 1; c <= n;) {
                const T* col = f.lnz + xlnz[c] - 1;
                // The diagonal entry of column c sits at its offset in the block.
                const int off = c - s.xsup[s.snode[c - 1] - 1];
                if (f.rowPivot[c - 1] > 0) {
                    yj[c - 1] /= col[off];
                    ++c;
                } else {
                    const T* col1 = f.lnz + xlnz[c + 1] - 1;
                    solvePivotPair(col[off], col1[off], col1[off + 1], hermitian, yj[c - 1], yj[c]);
                    c += 2;
                }
            }
        }
    }

    void backwardNode(int sn, T* buf) {
        const OneBased<const int> xsup(s.xsup.data()), xlnz(s.xlnz.data()), xunz(s.xunz.data()),
            xlindx(s.xlindx.data());
        const int fst = xsup[sn];
        const int ws = xsup[sn + 1] - fst;
        const int hs = xlnz[fst + 1] - xlnz[fst];
        const T* L = lpanel(sn);
        const int* below = s.lindx.data() + xlindx[sn] - 1 + ws;
        if (kind == Kind::Cholesky) {
            pullBelow(L + ws, hs, hs - ws, ws, fst, below, buf, backTrans);
            blockSolve(L, hs, ws, fst, 'L', backTrans, 'N');
        } else if (kind == Kind::Indefinite) {
            pullBelow(L + ws, hs, hs - ws, ws, fst, below, buf, backTrans);
            blockSolve(L, hs, ws, fst, 'L', backTrans, 'U');
            undoSwaps(fst, ws, f.rowPivot, true);
        } else if (!transpose) {
            pullBelow(upanel(sn), hs - ws, hs - ws, ws, fst, below, buf);
            blockSolve(L, hs, ws, fst, 'U', 'N', 'N');
            undoSwaps(fst, ws, f.colPivot, false);
        } else {
            pullBelow(L + ws, hs, hs - ws, ws, fst, below, buf);
            blockSolve(L, hs, ws, fst, 'L', 'T', 'U');
            undoSwaps(fst, ws, f.rowPivot, false);
        }
    }

    void backward() {
        if (plan.threads == 1) {
            for (int sn = s.nsuper; sn >= 1; --sn)
                backwardNode(sn, buffer.data());
            return;
        }
        const int t = plan.threads;
        for (int i = s.nsuper - 1; i >= plan.start[static_cast<std::size_t>(t)]; --i)
            backwardNode(plan.order[static_cast<std::size_t>(i)], buffer.data());
#pragma omp parallel num_threads(t)
        {
            const int k = omp_get_thread_num();
            for (int i = plan.start[static_cast<std::size_t>(k) + 1] - 1;
                 i >= plan.start[static_cast<std::size_t>(k)]; --i)
                backwardNode(plan.order[static_cast<std::size_t>(i)], bufferOf(k));
        }
    }
};

template <class T>
FactorSolver<T>::FactorSolver(Handle& h, const FactorRow& row, bool transpose, int nrhs)
    : m(std::make_unique<Impl>(h, row, transpose, nrhs)) {}

template <class T>
FactorSolver<T>::~FactorSolver() = default;

template <class T>
void FactorSolver<T>::solve(const T* b, T* x, int partial) {
    Impl& s = *m;
    const int n = s.n;
    // Each entry of the gather and the scatter is one product of its own,
    // so splitting the rows over threads changes no bit.
    const std::int64_t count = static_cast<std::int64_t>(n) * s.nrhs;
    const int t = count >= kParallelRows ? nrt_get_max_threads() : 1;
    const int* gather = s.gatherIndex.data();
    const T* gatherScale = s.gatherScale.data();
    for (int j = 0; j < s.nrhs; ++j) {
        const T* bj = b + static_cast<std::int64_t>(j) * n;
        T* yj = s.y.data() + static_cast<std::int64_t>(j) * n;
#pragma omp parallel for schedule(static) num_threads(t) if (t > 1)
        for (int k = 0; k < n; ++k)
            yj[k] = bj[gather[k]] * gatherScale[k];
    }
    if (s.ooc) {
        s.sweepOutOfCore(partial);
    } else {
        if (partial == 0 || partial == 1) s.forward();
        if (partial == 0 || partial == 2) s.diagonal();
        if (partial == 0 || partial == 3) s.backward();
    }
    // A partial solve that stops before the end leaves the vector where the
    // next one gathers it from: the inverse of the gather.
    const bool toGather = partial == 1 || partial == 2;
    const int* scatter = toGather ? gather : s.scatterIndex.data();
    const T* scatterScale = s.scatterScale.data();
    for (int j = 0; j < s.nrhs; ++j) {
        T* xj = x + static_cast<std::int64_t>(j) * n;
        const T* yj = s.y.data() + static_cast<std::int64_t>(j) * n;
#pragma omp parallel for schedule(static) num_threads(t) if (t > 1)
        for (int k = 0; k < n; ++k)
            xj[scatter[k]] = toGather ? yj[k] / gatherScale[k] : yj[k] * scatterScale[k];
    }
}

template class FactorSolver<float>;
template class FactorSolver<double>;
template class FactorSolver<std::complex<float>>;
template class FactorSolver<std::complex<double>>;

} // namespace skyrinse::spds

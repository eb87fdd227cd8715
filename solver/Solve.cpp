// Solve step; the contract is in Solve.h.
//
// The sweeps work on the permuted vectors Y (n x nrhs, leading dimension
// n). The rows of a diagonal block are consecutive in Y, so a block solve
// reads and writes Y in place; the rows below a block are scattered, so
// their contribution is formed in a buffer and then added row by row.
//
// On several threads the sweeps follow the factorization's tree schedule
// (TreeSchedule.h): forward, each thread sweeps its subtrees and gathers
// what they push into rows of the top in a vector of its own; those are
// added to Y in thread order before the top is swept on the calling thread.
// Backward, the top goes first, then each thread its subtrees, which only
// read rows outside them. So no row is written by two threads; the sums into
// the top rows are grouped by thread, which changes their rounding only.
#include "Solve.h"

#include "TreeSchedule.h"
#include "internal/Blas.h"
#include "internal/FactorLayout.h"
#include "internal/OneBased.h"

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

enum class Kind { Cholesky, Indefinite, Lu };

} // namespace

template <class T>
struct FactorSolver<T>::Impl {
    Handle& h;
    const SymbolicResult& s;
    int n;
    int nrhs;
    Kind kind;
    bool transpose;
    FactorView<T> f;
    Block<T> y;
    Block<T> buffer;
    IntBlock gatherIndex; // zero-based source row of permuted position k
    IntBlock scatterIndex;
    Block<T> gatherScale;
    Block<T> scatterScale;
    TreeSchedule plan;
    std::vector<Block<T>> sinks;   // per thread: what its subtrees push into top rows
    std::vector<Block<T>> buffers; // per thread: the rows below one block
    std::vector<char> topRow;      // by position: the row lies in the top

    Impl(Handle& handle, const FactorRow& row, bool transposed, int rhs)
        : h(handle), s(handle.symbolic), n(handle.n), nrhs(rhs) {
        const int mtype = h.mtype;
        kind = mtype == 2 ? Kind::Cholesky : (mtype == -2 ? Kind::Indefinite : Kind::Lu);
        transpose = transposed && kind == Kind::Lu;
        const FactorLayout layout(s.lnzSize, kind == Kind::Lu ? s.unzSize : 1, n, sizeof(T));
        f = layout.view<T>(const_cast<std::byte*>(row.values.data()));
        y = Block<T>(checkedMul(n, nrhs), kWorkCode, &h.memory);
        buffer = Block<T>(checkedMul(std::max(1, s.largestColumn), nrhs), kWorkCode, &h.memory);
        plan = scheduleTree(s, nrt_get_max_threads(), kind == Kind::Lu);
        if (plan.threads > 1) {
            for (int k = 0; k < plan.threads; ++k) {
                sinks.emplace_back(checkedMul(n, nrhs), kWorkCode, &h.memory);
                buffers.emplace_back(checkedMul(std::max(1, s.largestColumn), nrhs), kWorkCode,
                                     &h.memory);
            }
            topRow.assign(static_cast<std::size_t>(n), 0);
            const OneBased<const int> xsup(s.xsup.data());
            for (int i = plan.start[static_cast<std::size_t>(plan.threads)]; i < s.nsuper; ++i) {
                const int sn = plan.order[static_cast<std::size_t>(i)];
                for (int c = xsup[sn]; c < xsup[sn + 1]; ++c)
                    topRow[static_cast<std::size_t>(c - 1)] = 1;
            }
        }
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
            const bool lower = (uplo == 'L') != (trans == 'T');
            auto A = [&](int i, int j) {
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

    // Y(rows below) -= P Y(block), P the m x ws panel at `p` (leading dim ldp).
    // With a sink, rows of the top take the contribution there instead.
    void pushBelow(const T* p, int ldp, int m, int ws, int fst, const int* below, T* sink, T* buf) {
        if (m <= 0) return;
        const T* yb = y.data() + fst - 1;
        auto target = [&](int row) {
            return sink && topRow[static_cast<std::size_t>(row)] ? sink : y.data();
        };
        if (nrhs == 1) {
            for (int j = 0; j < ws; ++j) {
                const T v = yb[j];
                if (v == T(0)) continue;
                const T* pj = p + static_cast<std::int64_t>(j) * ldp;
                for (int i = 0; i < m; ++i) {
                    const int r = below[i] - 1;
                    target(r)[r] -= pj[i] * v;
                }
            }
            return;
        }
        blas::gemm('N', 'N', m, nrhs, ws, T(1), p, ldp, yb, n, T(0), buf, m);
        for (int j = 0; j < nrhs; ++j) {
            const std::int64_t col = static_cast<std::int64_t>(j) * n;
            const T* bj = buf + static_cast<std::int64_t>(j) * m;
            for (int i = 0; i < m; ++i) {
                const int r = below[i] - 1;
                target(r)[col + r] -= bj[i];
            }
        }
    }

    // Y(block) -= P^T Y(rows below).
    void pullBelow(const T* p, int ldp, int m, int ws, int fst, const int* below, T* buf) {
        if (m <= 0) return;
        T* yb = y.data() + fst - 1;
        if (nrhs == 1) {
            for (int j = 0; j < ws; ++j) {
                const T* pj = p + static_cast<std::int64_t>(j) * ldp;
                T v = 0;
                for (int i = 0; i < m; ++i)
                    v += pj[i] * y[below[i] - 1];
                yb[j] -= v;
            }
            return;
        }
        for (int j = 0; j < nrhs; ++j) {
            const T* yj = y.data() + static_cast<std::int64_t>(j) * n;
            T* bj = buf + static_cast<std::int64_t>(j) * m;
            for (int i = 0; i < m; ++i)
                bj[i] = yj[below[i] - 1];
        }
        blas::gemm('T', 'N', ws, nrhs, m, T(-1), p, ldp, buf, m, T(1), yb, n);
    }

    void forwardNode(int sn, T* sink, T* buf) {
        const OneBased<const int> xsup(s.xsup.data()), xlnz(s.xlnz.data()), xunz(s.xunz.data()),
            xlindx(s.xlindx.data());
        const int fst = xsup[sn];
        const int ws = xsup[sn + 1] - fst;
        const int hs = xlnz[fst + 1] - xlnz[fst];
        const T* L = f.lnz + xlnz[fst] - 1;
        const int* below = s.lindx.data() + xlindx[sn] - 1 + ws;
        if (kind == Kind::Cholesky) {
            blockSolve(L, hs, ws, fst, 'L', 'N', 'N');
            pushBelow(L + ws, hs, hs - ws, ws, fst, below, sink, buf);
        } else if (kind == Kind::Indefinite) {
            applySwaps(fst, ws, f.rowPivot, true);
            blockSolve(L, hs, ws, fst, 'L', 'N', 'U');
            pushBelow(L + ws, hs, hs - ws, ws, fst, below, sink, buf);
        } else if (!transpose) {
            applySwaps(fst, ws, f.rowPivot, false);
            blockSolve(L, hs, ws, fst, 'L', 'N', 'U');
            pushBelow(L + ws, hs, hs - ws, ws, fst, below, sink, buf);
        } else {
            applySwaps(fst, ws, f.colPivot, false);
            blockSolve(L, hs, ws, fst, 'U', 'T', 'N');
            pushBelow(f.unz + xunz[fst] - 1, hs - ws, hs - ws, ws, fst, below, sink, buf);
        }
    }

    void forward() {
        if (plan.threads == 1) {
            for (int sn = 1; sn <= s.nsuper; ++sn)
                forwardNode(sn, nullptr, buffer.data());
            return;
        }
        const int t = plan.threads;
        const std::int64_t size = static_cast<std::int64_t>(n) * nrhs;
#pragma omp parallel num_threads(t)
        {
            const int k = omp_get_thread_num();
            T* sink = sinks[static_cast<std::size_t>(k)].data();
            std::fill(sink, sink + size, T(0));
            for (int i = plan.start[static_cast<std::size_t>(k)];
                 i < plan.start[static_cast<std::size_t>(k) + 1]; ++i)
                forwardNode(plan.order[static_cast<std::size_t>(i)], sink,
                            buffers[static_cast<std::size_t>(k)].data());
        }
        for (int k = 0; k < t; ++k) {
            const T* sink = sinks[static_cast<std::size_t>(k)].data();
            for (std::int64_t i = 0; i < size; ++i)
                y[i] += sink[i];
        }
        for (int i = plan.start[static_cast<std::size_t>(t)]; i < s.nsuper; ++i)
            forwardNode(plan.order[static_cast<std::size_t>(i)], nullptr, buffer.data());
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
                    const T d11 = col[off], d21 = col1[off], d22 = col1[off + 1];
                    const T det = d11 * d22 - d21 * d21;
                    const T u = yj[c - 1], v = yj[c];
                    yj[c - 1] = (u * d22 - v * d21) / det;
                    yj[c] = (v * d11 - u * d21) / det;
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
        const T* L = f.lnz + xlnz[fst] - 1;
        const int* below = s.lindx.data() + xlindx[sn] - 1 + ws;
        if (kind == Kind::Cholesky) {
            pullBelow(L + ws, hs, hs - ws, ws, fst, below, buf);
            blockSolve(L, hs, ws, fst, 'L', 'T', 'N');
        } else if (kind == Kind::Indefinite) {
            pullBelow(L + ws, hs, hs - ws, ws, fst, below, buf);
            blockSolve(L, hs, ws, fst, 'L', 'T', 'U');
            undoSwaps(fst, ws, f.rowPivot, true);
        } else if (!transpose) {
            pullBelow(f.unz + xunz[fst] - 1, hs - ws, hs - ws, ws, fst, below, buf);
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
                backwardNode(plan.order[static_cast<std::size_t>(i)],
                             buffers[static_cast<std::size_t>(k)].data());
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
    for (int j = 0; j < s.nrhs; ++j) {
        const T* bj = b + static_cast<std::int64_t>(j) * n;
        T* yj = s.y.data() + static_cast<std::int64_t>(j) * n;
        for (int k = 0; k < n; ++k)
            yj[k] = bj[s.gatherIndex[k]] * s.gatherScale[k];
    }
    if (partial == 0 || partial == 1) s.forward();
    if (partial == 0 || partial == 2) s.diagonal();
    if (partial == 0 || partial == 3) s.backward();
    // A partial solve that stops before the end leaves the vector where the
    // next one gathers it from: the inverse of the gather.
    const bool toGather = partial == 1 || partial == 2;
    for (int j = 0; j < s.nrhs; ++j) {
        T* xj = x + static_cast<std::int64_t>(j) * n;
        const T* yj = s.y.data() + static_cast<std::int64_t>(j) * n;
        if (toGather)
            for (int k = 0; k < n; ++k)
                xj[s.gatherIndex[k]] = yj[k] / s.gatherScale[k];
        else
            for (int k = 0; k < n; ++k)
                xj[s.scatterIndex[k]] = yj[k] * s.scatterScale[k];
    }
}

template class FactorSolver<float>;
template class FactorSolver<double>;

} // namespace skyrinse::spds

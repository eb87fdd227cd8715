// Numeric factorization; the contract is in NumericFactorization.h.
//
// Each supernode's panel is zeroed, receives its matrix entries, then the
// updates of every supernode below it that has rows in it (its sources, in
// ascending order), and is factorized by the kernels of SupernodalKernels.h.
// The supernodes are taken in the order of the tree schedule: whole
// subtrees per thread, then the top (TreeSchedule.h). Because every source
// of a supernode lies in its subtree, a subtree needs nothing from another
// one, and a top supernode finds all its sources finished.
//
// An update of source d onto target s takes the rows of d not yet used
// (r of them, the first q inside s) and is one of four shapes:
//   the rows of d are exactly those of s, or lie on consecutive rows of s:
//       one product straight into the panel of s;
//   d is one column wide: a rank-1 update by loops, no dense call;
//   otherwise: the product goes to the update buffer and is added to the
//       panel through relind (the local rows) and indmap.
// For LU every shape runs twice: on L (r x q) and on U ((r - q) x q).
#include "NumericFactorization.h"

#include "FactorMap.h"
#include "OutOfCoreStore.h"
#include "Progress.h"
#include "SupernodalKernels.h"
#include "TreeSchedule.h"
#include "internal/Blas.h"
#include "internal/FactorLayout.h"
#include "internal/OneBased.h"
#include "internal/Scalar.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include <omp.h>

namespace skyrinse::spds {

namespace {

constexpr int kFactorCode = -1100;
constexpr int kWorkCode = -1200;
constexpr char kStageText[] = "Spds: factorization phase";
constexpr int kStageLength = 25;
// Polls of a source's finished mark before a waiting thread sleeps.
constexpr int kWaitSpins = 2000;
// Below this many multiply-adds an update product runs as plain loops.
constexpr std::int64_t kSmallProduct = 2048;

bool isLu(int mtype) {
    return mtype == 1 || mtype == 11 || mtype == -11;
}

// C (m x n) -= A (m x k) B^T (n x k), or C = A B^T when `assign`; B^H in
// place of B^T with `conj`.
template <class T>
void productNT(int m, int n, int k, const T* a, int lda, const T* b, int ldb, T* c, int ldc,
               bool assign, bool conj = false) {
    if (m <= 0 || n <= 0) return;
    if (static_cast<std::int64_t>(m) * n * k >= kSmallProduct) {
        blas::gemm('N', conj ? 'C' : 'T', m, n, k, assign ? T(1) : T(-1), a, lda, b, ldb,
                   assign ? T(0) : T(1), c, ldc);
        return;
    }
    for (int j = 0; j < n; ++j) {
        T* cj = c + static_cast<std::int64_t>(j) * ldc;
        if (assign) std::fill(cj, cj + m, T(0));
        for (int t = 0; t < k; ++t) {
            T f = b[j + static_cast<std::int64_t>(t) * ldb];
            if (conj) f = conjugate(f);
            if (f == T(0)) continue;
            const T* at = a + static_cast<std::int64_t>(t) * lda;
            if (assign)
                for (int i = 0; i < m; ++i)
                    cj[i] += at[i] * f;
            else
                for (int i = 0; i < m; ++i)
                    cj[i] -= at[i] * f;
        }
    }
}

// What one thread owns while it factors: the maps of its current panel, its
// buffers and its counters. Nothing here is shared.
template <class T>
struct ThreadWork {
    IntBlock indmap; // global row -> offset from the end of the current panel
    IntBlock relind; // local rows of one update
    Block<T> temp;   // scattered update products
    Block<T> dlt;    // D L^T of the current source
    int perturbed = 0;
    int positive = 0;
    int negative = 0;
    // The first failure this thread met: the supernode's place in the
    // schedule and what it means.
    int failedAt = INT_MAX;
    int failure = 0; // kFailPivot or kFailFiles
    int pivotStatus = 0;
    int fileError = 0; // with kFailFiles: -10 or -11, 0 for memory
};

constexpr int kFailPivot = 1;
constexpr int kFailFiles = 2;
// Values of the shared stop flag.
constexpr int kRunning = 0;
constexpr int kStopFailed = 1;
constexpr int kStopCancelled = 2;

template <class T>
class Worker {
public:
    Worker(Handle& h, const NumericRequest& rq, FactorView<T> f)
        : h(h), rq(rq), s(h.symbolic), n(rq.n), nsuper(s.nsuper), lu(isLu(rq.mtype)),
          cholesky(rq.mtype == 2), hermitian(rq.hermitian), f(f), xsup(s.xsup.data()),
          xlindx(s.xlindx.data()), lindx(s.lindx.data()), xlnz(s.xlnz.data()), xunz(s.xunz.data()),
          snode(s.snode.data()) {}

    NumericResult run();

    // Out of core: panels live in this factor's files and a window of them
    // in memory instead of in f.lnz / f.unz.
    OutOfCoreFactor* outOfCore = nullptr;
    std::int64_t windowBytes = 0;

private:
    // The scaled values of the call's matrix and the map that places them;
    // false when the call's pattern has no place in the analysed structure.
    bool prepareEntries();
    // The L panel of supernode sn (ld its height) and its U panel.
    T* lpanel(int sn) const {
        if (window) return reinterpret_cast<T*>(window->at(sn));
        return f.lnz + xlnz[xsup[sn]] - 1;
    }
    T* upanel(int sn) const {
        if (window) return reinterpret_cast<T*>(window->at(sn) + outOfCore->lBytes(sn));
        return f.unz + xunz[xsup[sn]] - 1;
    }
    std::int64_t largestScatteredUpdate() const;
    // With `done`, each source is waited for until it is marked finished;
    // false with no failure recorded when the stop flag ended the wait.
    bool factorSupernode(int sn, ThreadWork<T>& w, const std::atomic<int>* done = nullptr);
    void scatter(int sn, int fst, int lst);
    // The rows of source d that an update reads: L from row p0 and U from
    // row p0 - width, each by columns with its leading dimension.
    struct SourceRows {
        const T* l;
        int ldl;
        const T* u;
        int ldu;
    };
    SourceRows inCoreRows(int d, int p0) const {
        const int fd = xsup[d];
        const int wd = xsup[d + 1] - fd;
        const int hd = xlnz[fd + 1] - xlnz[fd];
        return {lpanel(d) + p0, hd, lu ? upanel(d) + (p0 - wd) : nullptr, hd - wd};
    }
    // Entries (t, t) and (t, t + 1) of d's diagonal block: the pivots of
    // L D L^T, which a source read back without its first rows keeps aside.
    T diagonalAt(int d, int t) const {
        if (window) return pivotBlock[2 * static_cast<std::size_t>(xsup[d] - 1 + t)];
        const int hd = xlnz[xsup[d] + 1] - xlnz[xsup[d]];
        return lpanel(d)[static_cast<std::int64_t>(t) * hd + t];
    }
    T offDiagonalAt(int d, int t) const {
        if (window) return pivotBlock[2 * static_cast<std::size_t>(xsup[d] - 1 + t) + 1];
        const int hd = xlnz[xsup[d] + 1] - xlnz[xsup[d]];
        return lpanel(d)[static_cast<std::int64_t>(t + 1) * hd + t];
    }
    void keepPivotBlock(int sn);
    void update(int d, int r, int sn, ThreadWork<T>& w, const SourceRows& src);
    void formDLt(int d, const T* lrows, int ld, int q, T* out);
    void addScattered(const ThreadWork<T>& w, T* target, int ld, int q, int rowsFrom, int rowsTo,
                      int rowShift, bool lowerOnly);
    bool factorBlock(int fst, int hs, int ws, ThreadWork<T>& w);
    // Runs the supernodes order[from..to) on the calling thread. Returns
    // false when it stopped early (failure here, or the flag raised).
    // Runs the supernodes order[from..to) on the calling thread, marking
    // each finished one in `done` when given. False when it stopped early.
    bool runList(const int* order, int from, int to, ThreadWork<T>& w, bool reports,
                 std::atomic<int>* done);
    // Takes supernodes of order[from..to) by the shared cursor, waiting for
    // their sources; the top of the tree, or everything in the comparison
    // scheme (NumericRequest::queueSchedule).
    void runShared(const int* order, int from, int to, std::atomic<int>& cursor, ThreadWork<T>& w,
                   bool reports, std::atomic<int>* done);
    bool reportIfGrown();
    // factorSupernode, with a failure of the files (which throws) turned
    // into a failure of the thread, so that nothing is thrown out of a
    // parallel region; run() throws it again after the region.
    bool guarded(int sn, ThreadWork<T>& w, const std::atomic<int>* done) {
        if (!window) return factorSupernode(sn, w, done);
        try {
            return factorSupernode(sn, w, done);
        } catch (const OocFailure& e) {
            w.failure = kFailFiles;
            w.fileError = e.error;
        } catch (const std::bad_alloc&) {
            w.failure = kFailFiles;
            w.fileError = 0;
        }
        return false;
    }

    Handle& h;
    const NumericRequest& rq;
    const SymbolicResult& s;
    const int n;
    const int nsuper;
    const bool lu;
    const bool cholesky;
    const bool hermitian; // L D L^H: the updates take conjugates
    FactorView<T> f;
    const OneBased<const int> xsup, xlindx, lindx, xlnz, xunz, snode;
    PivotRule<T> rule;

    // A target always takes its updates in the order of these lists
    // (ascending source), whatever the thread that finished each source and
    // when, so the factor does not depend on the schedule.
    SourceLists sources;
    // The analysis's map when the call's pattern is the analysed one, else
    // one built for this call.
    const FactorMap* map = nullptr;
    FactorMap ownMap;
    Block<T> values;    // the call's entries as factored (scaled), by index in a
    double largest = 0; // largest magnitude of the matrix as factored

    std::unique_ptr<PanelWindow> window;
    // Out of core, L D L^T: per column the diagonal entry and the one right
    // of it in the block, kept when a panel is finished.
    std::vector<T> pivotBlock;

    std::atomic<int> stop{kRunning};
    std::atomic<std::int64_t> finishedEntries{0};
    int lastPercent = 0;
};

template <class T>
bool Worker<T>::prepareEntries() {
    const int* ia = rq.ia;
    const int* ja = rq.ja;
    const T* a = static_cast<const T*>(rq.a);
    const std::int64_t nnz = static_cast<std::int64_t>(ia[n]) - ia[0];
    const FactorMap& analysed = h.symbolic.factorMap;
    if (analysed.built() && analysed.fingerprint == patternFingerprint(n, ia, ja)) {
        map = &analysed;
    } else {
        if (!buildFactorMap(h, lu, ia, ja, kWorkCode, &h.memory, ownMap)) return false;
        map = &ownMap;
    }
    const bool scaled = h.scaling && !h.scalings.empty();
    const double* rowScale = scaled ? h.scalings.data() : nullptr;
    const double* colScale = scaled ? h.scalings.data() + (lu ? n : 0) : nullptr;
    values = Block<T>(std::max<std::int64_t>(1, nnz), kWorkCode, &h.memory);
    T* v = values.data();
    double big = 0;
    for (int r = 0; r < n; ++r)
        for (int p = ia[r] - 1; p < ia[r + 1] - 1; ++p) {
            WidenedTo<T, double> x = static_cast<WidenedTo<T, double>>(a[p]);
            if (scaled) x *= rowScale[r] * colScale[ja[p] - 1];
            big = std::max(big, static_cast<double>(magnitude(x)));
            v[p] = static_cast<T>(x);
        }
    largest = big;
    return true;
}

// The largest r x q of an update that goes through the buffer, so that the
// buffer never runs short whatever the shape of the tree.
template <class T>
std::int64_t Worker<T>::largestScatteredUpdate() const {
    std::int64_t best = 0;
    for (int d = 1; d <= nsuper; ++d) {
        const int wd = xsup[d + 1] - xsup[d];
        const int end = xlindx[d + 1];
        int k = xlindx[d] + wd;
        while (k < end) {
            const int t = snode[lindx[k]];
            const int tl = xsup[t + 1] - 1;
            int g = 0;
            while (k + g < end && lindx[k + g] <= tl)
                ++g;
            best = std::max(best, static_cast<std::int64_t>(end - k) * g);
            k += g;
        }
    }
    return best;
}

template <class T>
void Worker<T>::scatter(int sn, int fst, int lst) {
    const int* xentry = map->xentry.data();
    const int* source = map->source.data();
    const int* target = map->target.data();
    const T* v = values.data();
    // The map holds places in the whole factor; the panel may be a window's
    // copy out of core, so each place is taken relative to the panel's start.
    T* L = lpanel(sn);
    T* U = lu ? upanel(sn) : nullptr;
    const std::int64_t lfirst = static_cast<std::int64_t>(xlnz[fst]);
    const std::int64_t ufirst = lu ? static_cast<std::int64_t>(xunz[fst]) : 0;
    for (int e = xentry[fst - 1]; e < xentry[lst]; ++e) {
        const int t = target[e];
        const T x = v[source[e]];
        if (t > 0)
            L[t - lfirst] += x;
        else if (lu)
            U[-t - ufirst] += x;
        else
            L[-t - lfirst] += hermitian ? conjugate(x) : x;
    }
}

// out (q x wd) = L_d rows p0.. times D_d, the right operand of a symmetric
// indefinite update.
template <class T>
void Worker<T>::formDLt(int d, const T* lrows, int ld, int q, T* w) {
    const int fd = xsup[d];
    const int wd = xsup[d + 1] - fd;
    const int* piv = f.rowPivot + fd - 1;
    for (int t = 0; t < wd;) {
        const T* lt = lrows + static_cast<std::int64_t>(t) * ld;
        T* wt = w + static_cast<std::int64_t>(t) * q;
        if (piv[t] > 0) {
            const T dv = diagonalAt(d, t);
            for (int j = 0; j < q; ++j)
                wt[j] = lt[j] * dv;
            ++t;
        } else {
            const T d11 = diagonalAt(d, t);
            const T d21 = offDiagonalAt(d, t);
            const T d22 = diagonalAt(d, t + 1);
            const T* lt1 = lt + ld;
            T* wt1 = wt + q;
            // D is [d11 d12; d21 d22] with d12 = d21, or its conjugate.
            const T d12 = hermitian ? conjugate(d21) : d21;
            for (int j = 0; j < q; ++j) {
                wt[j] = lt[j] * d11 + lt1[j] * d21;
                wt1[j] = lt[j] * d12 + lt1[j] * d22;
            }
            t += 2;
        }
    }
}

// Subtracts the buffer (rows rowsFrom..rowsTo-1 of an r-row product, q
// columns) from `target` at local rows relind[t] - rowShift. The first q
// rows of an update lie in the diagonal block of the target, so their local
// rows are also the columns the product goes to.
template <class T>
void Worker<T>::addScattered(const ThreadWork<T>& w, T* target, int ld, int q, int rowsFrom,
                             int rowsTo, int rowShift, bool lowerOnly) {
    const int* rel = w.relind.data();
    const int m = rowsTo - rowsFrom;
    for (int j = 0; j < q; ++j) {
        T* cj = target + static_cast<std::int64_t>(rel[j]) * ld - rowShift;
        const T* tj = w.temp.data() + static_cast<std::int64_t>(j) * m - rowsFrom;
        for (int t = lowerOnly ? rowsFrom + j : rowsFrom; t < rowsTo; ++t)
            cj[rel[t]] -= tj[t];
    }
}

// The update of source d, whose last r rows start inside sn, onto sn.
template <class T>
void Worker<T>::update(int d, int r, int sn, ThreadWork<T>& w, const SourceRows& src) {
    const int fd = xsup[d];
    const int wd = xsup[d + 1] - fd;
    const int hd = xlnz[fd + 1] - xlnz[fd];
    const int p0 = hd - r;
    const T* Lr = src.l; // row p0 of d
    const int ldl = src.ldl;
    const int* rows = lindx.p + (xlindx[d] - 1) + p0;
    const int fs = xsup[sn];
    const int ls = xsup[sn + 1] - 1;
    const int ws = ls - fs + 1;
    const int hs = xlnz[fs + 1] - xlnz[fs];
    const OneBased<const int> map(w.indmap.data());
    int q = 0;
    while (q < r && rows[q] <= ls)
        ++q;
    T* Ls = lpanel(sn);
    const int c0 = rows[0] - fs;
    const int i0 = hs - map[rows[0]];
    const int i1 = hs - map[rows[r - 1]];

    if (!lu) {
        if (wd == 1) {
            const T* v = Lr;
            const T dv = cholesky ? T(1) : diagonalAt(d, 0);
            for (int j = 0; j < q; ++j) {
                const T coef = (hermitian ? conjugate(v[j]) : v[j]) * dv;
                if (coef == T(0)) continue;
                T* cs = Ls + static_cast<std::int64_t>(rows[j] - fs) * hs + hs;
                for (int t = j; t < r; ++t)
                    cs[-map[rows[t]]] -= coef * v[t];
            }
            return;
        }
        const T* right = Lr;
        int ldr = ldl;
        if (!cholesky) {
            formDLt(d, Lr, ldl, q, w.dlt.data());
            right = w.dlt.data();
            ldr = q;
        }
        if (i1 - i0 == r - 1) {
            productNT(r, q, wd, Lr, ldl, right, ldr, Ls + i0 + static_cast<std::int64_t>(c0) * hs,
                      hs, false, hermitian);
        } else {
            productNT(r, q, wd, Lr, ldl, right, ldr, w.temp.data(), r, true, hermitian);
            for (int t = 0; t < r; ++t)
                w.relind[t] = hs - map[rows[t]];
            addScattered(w, Ls, hs, q, 0, r, 0, true);
        }
        return;
    }

    // LU: the L part (r x q) and the U part ((r - q) x q) of the target.
    (void)ws;
    const int hud = src.ldu;
    const T* Ud = src.u;
    const int hus = hs - ws;
    T* Us = upanel(sn);
    const bool contiguous = i1 - i0 == r - 1;
    if (!contiguous)
        for (int t = 0; t < r; ++t)
            w.relind[t] = hs - map[rows[t]];
    if (contiguous) {
        productNT(r, q, wd, Lr, ldl, Ud, hud, Ls + i0 + static_cast<std::int64_t>(c0) * hs, hs,
                  false);
    } else {
        productNT(r, q, wd, Lr, ldl, Ud, hud, w.temp.data(), r, true);
        addScattered(w, Ls, hs, q, 0, r, 0, false);
    }
    if (r > q) {
        const int iq = hs - map[rows[q]];
        if (contiguous) {
            productNT(r - q, q, wd, Ud + q, hud, Lr, ldl,
                      Us + (iq - ws) + static_cast<std::int64_t>(c0) * hus, hus, false);
        } else {
            productNT(r - q, q, wd, Ud + q, hud, Lr, ldl, w.temp.data(), r - q, true);
            addScattered(w, Us, hus, q, q, r, ws, false);
        }
    }
}

template <class T>
void Worker<T>::keepPivotBlock(int sn) {
    if (cholesky || lu) return;
    const int fst = xsup[sn];
    const int ws = xsup[sn + 1] - fst;
    const int hs = xlnz[fst + 1] - xlnz[fst];
    const T* L = lpanel(sn);
    T* out = pivotBlock.data() + 2 * static_cast<std::size_t>(fst - 1);
    for (int t = 0; t < ws; ++t) {
        out[2 * t] = L[static_cast<std::int64_t>(t) * hs + t];
        out[2 * t + 1] = t + 1 < ws ? L[static_cast<std::int64_t>(t + 1) * hs + t] : T(0);
    }
}

template <class T>
bool Worker<T>::factorBlock(int fst, int hs, int ws, ThreadWork<T>& w) {
    const int sn = snode[fst];
    T* L = lpanel(sn);
    BlockCounts c;
    if (cholesky) {
        c = choleskyPanel(L, hs, ws);
        if (c.failedColumn >= 0) {
            w.pivotStatus = h.ordering_.perm[fst - 1 + c.failedColumn];
            return false;
        }
    } else if (!lu) {
        int* piv = f.rowPivot + fst - 1;
        c = ldltPanel(L, hs, ws, rq.bunchKaufman, rule, piv, w.dlt.data(), hermitian);
        for (int k = 0; k < ws; ++k)
            piv[k] = piv[k] >= 0 ? fst + piv[k] : -(fst + (-piv[k] - 1));
    } else {
        int* rp = f.rowPivot + fst - 1;
        int* cp = f.colPivot + fst - 1;
        c = luPanel(L, hs, ws, upanel(sn), hs - ws, rule, rp, cp);
        for (int k = 0; k < ws; ++k) {
            rp[k] += fst;
            cp[k] += fst;
        }
    }
    w.perturbed += c.perturbed;
    w.positive += c.positive;
    w.negative += c.negative;
    return true;
}

// Zero, scatter, take every update in the fixed order of the source list,
// factor the block and solve the panel. Every source of sn is finished
// before sn is taken: sources are descendants, and each thread's list and
// the top list are in postorder, the top after all subtrees.
template <class T>
bool Worker<T>::factorSupernode(int sn, ThreadWork<T>& w, const std::atomic<int>* done) {
    const int fst = xsup[sn];
    const int lst = xsup[sn + 1] - 1;
    const int ws = lst - fst + 1;
    const int hs = xlnz[fst + 1] - xlnz[fst];
    if (window) window->target(sn);
    T* L = lpanel(sn);
    std::fill(L, L + static_cast<std::int64_t>(hs) * ws, T(0));
    if (lu) {
        T* U = upanel(sn);
        std::fill(U, U + static_cast<std::int64_t>(hs - ws) * ws, T(0));
    }
    const OneBased<int> map(w.indmap.data());
    const int* rows = lindx.p + xlindx[sn] - 1;
    for (int i = 0; i < hs; ++i)
        map[rows[i]] = hs - i;
    scatter(sn, fst, lst);
    const int* source = sources.source.data();
    const int* sourceRows = sources.rows.data();
    // Out of core: the source served last, let go with the next one taken,
    // or before waiting for another thread, which may need it.
    int held = 0;
    auto letGo = [&] {
        if (held != 0) window->used(held);
        held = 0;
    };
    for (int e = sources.xsource[sn - 1]; e < sources.xsource[sn]; ++e) {
        // A short wait is spun through; a long one (a whole subtree of
        // another thread) sleeps, so that the waiting thread does not take
        // a core from the one it waits for on a busy machine.
        if (done && held != 0 && done[source[e]].load(std::memory_order_acquire) == 0) letGo();
        for (int spins = 0; done && done[source[e]].load(std::memory_order_acquire) == 0; ++spins) {
            if (stop.load(std::memory_order_relaxed) != kRunning) return false;
            if (spins < kWaitSpins)
                std::this_thread::yield();
            else
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        const int d = source[e];
        const int p0 = xlnz[xsup[d] + 1] - xlnz[xsup[d]] - sourceRows[e];
        if (window) {
            // A panel still whole since it was built has U's rows below the
            // diagonal block; one read back has as many rows of U as of L.
            const PanelWindow::Rows got = window->load(d, p0, held);
            held = d;
            const int hd = xlnz[xsup[d] + 1] - xlnz[xsup[d]];
            const int wd = xsup[d + 1] - xsup[d];
            const int ld = hd - got.from;
            const T* base = reinterpret_cast<const T*>(got.data);
            const T* ubase = base + static_cast<std::int64_t>(ld) * wd;
            const SourceRows rows =
                got.from == 0 ? SourceRows{base + p0, hd, ubase + (p0 - wd), hd - wd}
                              : SourceRows{base + (p0 - got.from), ld, ubase + (p0 - got.from), ld};
            update(d, sourceRows[e], sn, w, rows);
        } else {
            update(d, sourceRows[e], sn, w, inCoreRows(d, p0));
        }
    }
    if (!factorBlock(fst, hs, ws, w)) {
        letGo();
        w.failure = kFailPivot;
        return false;
    }
    if (window) {
        keepPivotBlock(sn);
        window->finish(sn, held);
    }
    return true;
}

// Percent of lnz in finished panels; reports only a grown value. Thread 1
// alone calls this. False when the hook asks to stop.
template <class T>
bool Worker<T>::reportIfGrown() {
    const std::int64_t total = std::max<std::int64_t>(1, s.lnzSize);
    const std::int64_t done = finishedEntries.load(std::memory_order_relaxed);
    const int percent =
        static_cast<int>(std::min<double>(99.0, 100.0 * static_cast<double>(done - 1) / total));
    if (percent <= lastPercent) return true;
    lastPercent = percent;
    if (reportProgress(1, percent, kStageText, kStageLength) == 0) return true;
    stop.store(kStopCancelled, std::memory_order_relaxed);
    return false;
}

template <class T>
bool Worker<T>::runList(const int* order, int from, int to, ThreadWork<T>& w, bool reports,
                        std::atomic<int>* done) {
    for (int i = from; i < to; ++i) {
        if (stop.load(std::memory_order_relaxed) != kRunning) return false;
        const int sn = order[i];
        if (!guarded(sn, w, nullptr)) {
            w.failedAt = std::min(w.failedAt, i);
            int expected = kRunning;
            stop.compare_exchange_strong(expected, kStopFailed, std::memory_order_relaxed);
            return false;
        }
        if (done) done[sn].store(1, std::memory_order_release);
        finishedEntries.fetch_add(static_cast<std::int64_t>(xlnz[xsup[sn + 1]]) - xlnz[xsup[sn]],
                                  std::memory_order_relaxed);
        if (reports && !reportIfGrown()) return false;
    }
    return true;
}

template <class T>
void Worker<T>::runShared(const int* order, int from, int to, std::atomic<int>& cursor,
                          ThreadWork<T>& w, bool reports, std::atomic<int>* done) {
    for (;;) {
        if (stop.load(std::memory_order_relaxed) != kRunning) return;
        const int i = from + cursor.fetch_add(1, std::memory_order_relaxed);
        if (i >= to) return;
        const int sn = order[i];
        if (!guarded(sn, w, done)) {
            if (w.failure == 0) return; // the stop flag ended a wait
            w.failedAt = std::min(w.failedAt, i);
            int expected = kRunning;
            stop.compare_exchange_strong(expected, kStopFailed, std::memory_order_relaxed);
            return;
        }
        done[sn].store(1, std::memory_order_release);
        finishedEntries.fetch_add(static_cast<std::int64_t>(xlnz[xsup[sn + 1]]) - xlnz[xsup[sn]],
                                  std::memory_order_relaxed);
        if (reports && !reportIfGrown()) return;
    }
}

template <class T>
NumericResult Worker<T>::run() {
    NumericResult result;
    // Out of core the schedule is that of in core, so that the dense
    // kernels run on as many threads and the factor is the same bits.
    const TreeSchedule plan = scheduleTree(s, std::max(1, rq.threads), lu);
    const int t = rq.queueSchedule ? std::max(1, rq.threads) : plan.threads;
    const std::int64_t tempSize = std::max<std::int64_t>(s.tmpsiz, largestScatteredUpdate());
    const std::int64_t panel = std::max(1, s.largestSupernode);
    std::vector<ThreadWork<T>> work(static_cast<std::size_t>(t));
    for (ThreadWork<T>& w : work) {
        w.indmap = IntBlock(n, kWorkCode, &h.memory);
        w.relind = IntBlock(std::max(1, s.largestColumn), kWorkCode, &h.memory);
        w.temp = Block<T>(tempSize, kWorkCode, &h.memory);
        // Also the workspace of the block kernel, which runs after the updates.
        w.dlt = Block<T>(std::max(panel * panel, ldltWorkspace(static_cast<int>(panel))), kWorkCode,
                         &h.memory);
    }
    if (!prepareEntries()) {
        result.outsideStructure = true;
        return result;
    }
    rule = pivotRule<T>(rq.pivotExponent, largest);
    sources = sourceLists(s, &h.memory, kWorkCode);
    if (outOfCore) {
        // Who reads each panel, by place in the schedule, so that the window
        // keeps the panels that are read next.
        std::vector<int> place(static_cast<std::size_t>(nsuper) + 1, 0);
        for (int i = 0; i < nsuper; ++i)
            place[static_cast<std::size_t>(plan.order[static_cast<std::size_t>(i)])] = i;
        std::vector<int> xreaders(static_cast<std::size_t>(nsuper) + 2, 0);
        const int updates = sources.xsource[nsuper];
        for (int e = 0; e < updates; ++e)
            ++xreaders[static_cast<std::size_t>(sources.source[e]) + 1];
        for (int d = 1; d <= nsuper; ++d)
            xreaders[static_cast<std::size_t>(d) + 1] += xreaders[static_cast<std::size_t>(d)];
        // (place, first row read) of each reader, by source.
        std::vector<std::pair<int, int>> byPlace(static_cast<std::size_t>(std::max(1, updates)));
        std::vector<int> fill(xreaders.begin(), xreaders.end() - 1);
        for (int t = 1; t <= nsuper; ++t)
            for (int e = sources.xsource[t - 1]; e < sources.xsource[t]; ++e) {
                const int d = sources.source[e];
                const int hd = xlnz[xsup[d] + 1] - xlnz[xsup[d]];
                byPlace[static_cast<std::size_t>(fill[static_cast<std::size_t>(d)]++)] = {
                    place[static_cast<std::size_t>(t)], hd - sources.rows[e]};
            }
        for (int d = 1; d <= nsuper; ++d)
            std::sort(byPlace.begin() + xreaders[static_cast<std::size_t>(d)],
                      byPlace.begin() + xreaders[static_cast<std::size_t>(d) + 1]);
        std::vector<int> readers(byPlace.size()), rows(byPlace.size());
        for (std::size_t k = 0; k < byPlace.size(); ++k) {
            readers[k] = byPlace[k].first;
            rows[k] = byPlace[k].second;
        }
        window = std::make_unique<PanelWindow>(*outOfCore, windowBytes, std::move(xreaders),
                                               std::move(readers), std::move(rows));
        if (!cholesky && !lu) pivotBlock.assign(2 * static_cast<std::size_t>(n), T(0));
    }

    if (reportProgress(1, 0, kStageText, kStageLength) != 0) {
        result.status = -1;
        return result;
    }
    const int* order = plan.order.data();
    if (t > 1) {
        // One region. First the subtrees, each thread its own: no update
        // crosses between them, so nothing is waited for. Then the top by a
        // shared cursor in postorder, each source waited for through its
        // finished mark (an atomic, no lock). The dense kernels run on one
        // thread in here (the runtime services see the region), which keeps
        // every product's rounding that of one thread.
        const bool queued = rq.queueSchedule;
        const int* shared = queued ? s.pnlsch.data() : order;
        std::vector<int> pnlschOrder;
        if (queued) {
            pnlschOrder.resize(static_cast<std::size_t>(nsuper));
            for (int i = 0; i < nsuper; ++i)
                pnlschOrder[static_cast<std::size_t>(i)] = std::abs(s.pnlsch[i]);
            shared = pnlschOrder.data();
        }
        const int sharedFrom = queued ? 0 : plan.start[static_cast<std::size_t>(t)];
        std::vector<std::atomic<int>> done(static_cast<std::size_t>(nsuper) + 1);
        std::atomic<int> cursor{0};
        std::atomic<int> working{t};
#pragma omp parallel num_threads(t)
        {
            const int id = omp_get_thread_num();
            ThreadWork<T>& w = work[static_cast<std::size_t>(id)];
            if (!queued)
                runList(order, plan.start[static_cast<std::size_t>(id)],
                        plan.start[static_cast<std::size_t>(id) + 1], w, id == 0, done.data());
            runShared(shared, sharedFrom, nsuper, cursor, w, id == 0, done.data());
            working.fetch_sub(1, std::memory_order_acq_rel);
            // Thread 1 goes on reporting, and so hears a cancel, while the
            // others finish.
            if (id == 0)
                while (working.load(std::memory_order_acquire) > 0 &&
                       stop.load(std::memory_order_relaxed) == kRunning) {
                    if (!reportIfGrown()) break;
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
        }
    } else {
        runList(order, 0, nsuper, work[0], true, nullptr);
    }

    for (const ThreadWork<T>& w : work) {
        result.perturbed += w.perturbed;
        result.positive += w.positive;
        result.negative += w.negative;
    }
    const int stopped = stop.load(std::memory_order_relaxed);
    if (stopped == kStopCancelled) {
        result.status = -1;
        return result;
    }
    if (stopped == kStopFailed) {
        // The failure met first in the schedule's order, whichever thread
        // met it.
        const ThreadWork<T>* first = nullptr;
        for (const ThreadWork<T>& w : work)
            if (w.failure != 0 && (!first || w.failedAt < first->failedAt)) first = &w;
        if (first->failure == kFailFiles) {
            if (first->fileError == 0) throw AllocationFailure{kFactorCode, s.largestSupernode};
            throw OocFailure{first->fileError};
        }
        result.status = first->pivotStatus;
        return result;
    }
    if (reportProgress(1, 100, kStageText, kStageLength) != 0) result.status = -1;
    return result;
}

} // namespace

bool numericSupported(int mtype) {
    return mtype == 1 || mtype == 2 || mtype == -2 || mtype == 11 || mtype == -11 || mtype == 3 ||
           mtype == 4 || mtype == -4 || mtype == 6 || mtype == 13;
}

template <class T>
PivotRule<T> pivotRule(int exponent, double largest) {
    const double scale = largest > 0 && std::isfinite(largest) ? largest : 1.0;
    using R = RealOf<T>;
    const double root = std::sqrt(std::numeric_limits<R>::epsilon() / 2);
    const double tiny = exponent == 0 ? 0.0 : std::pow(10.0, -std::abs(exponent));
    PivotRule<T> rule;
    rule.threshold = static_cast<R>(tiny * scale);
    rule.replacement = static_cast<R>(std::max(tiny, root) * scale);
    rule.growth = static_cast<R>(root);
    return rule;
}

double factorizationOperations(const SymbolicResult& s, int n, bool lu) {
    double ops = 0;
    const OneBased<const int> xsup(s.xsup.data());
    const OneBased<const int> xlnz(s.xlnz.data());
    for (int sn = 1; sn <= s.nsuper; ++sn) {
        const int fst = xsup[sn];
        const int ws = xsup[sn + 1] - fst;
        const double hs = xlnz[fst + 1] - xlnz[fst];
        for (int k = 0; k < ws; ++k) {
            const double below = hs - k - 1; // rows below the pivot in this column
            ops += lu ? 2.0 * below * below + below : below * below + below;
        }
    }
    (void)n;
    return ops / 1e6;
}

template <class T>
NumericResult numericFactorization(Handle& h, const NumericRequest& rq, FactorRow& row) {
    const SymbolicResult& s = h.symbolic;
    const bool lu = isLu(rq.mtype);
    // Out of core the block keeps the interchanges only; the panels go to
    // files that replace those of an earlier factorization of the slot.
    const bool ooc = h.ooc.active;
    // The row indices are needed whole, before this slot's files go.
    if (ooc) h.restoreIndex();
    // The new factor writes over the old one's files where they match.
    std::unique_ptr<OutOfCoreFactor> previous = std::move(row.outOfCore);
    if (!ooc) previous.reset();
    const FactorLayout layout(ooc ? 0 : s.lnzSize, ooc ? 0 : lu ? s.unzSize : 1, rq.n, sizeof(T));
    if (row.values.size() < layout.bytes || (ooc && row.values.size() > layout.bytes)) {
        row.values.reset();
        // Every panel is zeroed just before its supernode is assembled, so
        // only the parts that no panel covers start cleared here: a second
        // pass over the whole factor would cost as much as the assembly.
        row.values = Block<std::byte>(layout.bytes, kFactorCode, &h.memory, kNoFill);
        const std::int64_t cleared = lu ? layout.rowPivotOffset : layout.unzOffset;
        std::fill(row.values.data() + std::min(cleared, layout.bytes),
                  row.values.data() + layout.bytes, std::byte{0});
    }
    row.state = kNotComputed;
    Worker<T> worker(h, rq, layout.view<T>(row.values.data()));
    if (ooc) {
        const int slot = static_cast<int>(&row - h.factors.data()) + 1;
        row.outOfCore =
            std::make_unique<OutOfCoreFactor>(h.ooc, slot, lu, s.xsup.data(), s.xlnz.data(),
                                              s.xlindx.data(), s.nsuper, sizeof(T), &h.ooc.io);
        // The figures of the statistics are those since the last factorization.
        h.ooc.io = OocCounters{};
        row.outOfCore->createFiles(s.lindx.data(), std::max(1, rq.threads), previous.get());
        previous.reset();
        worker.outOfCore = row.outOfCore.get();
        worker.windowBytes = h.ooc.windowBytes;
    }
    NumericResult r;
    try {
        r = worker.run();
        if (ooc && r.status == 0 && !r.outsideStructure) row.outOfCore->finishWriting();
    } catch (...) {
        // Files of a factorization that did not finish are of no use.
        row.outOfCore.reset();
        throw;
    }
    if (r.status == 0 && !r.outsideStructure) {
        row.state = 0;
        // The solve reads the indices with the panels.
        if (ooc) h.symbolic.lindx.reset();
    } else {
        row.outOfCore.reset();
    }
    row.scalarWords = 1;
    return r;
}

template NumericResult numericFactorization<float>(Handle&, const NumericRequest&, FactorRow&);
template NumericResult numericFactorization<double>(Handle&, const NumericRequest&, FactorRow&);
template PivotRule<float> pivotRule<float>(int, double);
template PivotRule<double> pivotRule<double>(int, double);
template NumericResult numericFactorization<std::complex<float>>(Handle&, const NumericRequest&,
                                                                 FactorRow&);
template NumericResult numericFactorization<std::complex<double>>(Handle&, const NumericRequest&,
                                                                  FactorRow&);

} // namespace skyrinse::spds

// Solve with checked refinement; the contract is in IterativeRefinement.h.
#include "IterativeRefinement.h"

#include "Solve.h"
#include "internal/Scalar.h"
#include "runtime/nrt.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace skyrinse::spds {

namespace {

constexpr int kWorkCode = -1300;
constexpr int kStatusNoContraction = -112;
constexpr double kRoundoffUnits = 8;
// The Krylov fallback: basis vectors per cycle and cycles. A factor with k
// perturbed pivots is A plus a rank-k error, which a Krylov space of about
// k + 1 vectors removes; beyond 90 solves the factor is no preconditioner.
constexpr int kKrylovBasis = 30;
constexpr int kKrylovCycles = 3;
// A product with fewer entries runs on one thread.
constexpr std::int64_t kParallelEntries = 100000;

template <class T>
constexpr double unitRoundoff() {
    return std::numeric_limits<RealOf<T>>::epsilon() / 2;
}

template <class T, class W>
class Refinement {
public:
    Refinement(FactorSolver<T>& solver, const RefinementRequest& rq, MemoryCounter* mem)
        : solver(solver), rq(rq), mem(mem), n(rq.n), nrhs(rq.nrhs),
          count(static_cast<std::int64_t>(rq.n) * rq.nrhs), a(static_cast<const T*>(rq.a)),
          normA(infinityNorm(rq.n, a, rq.ia, rq.ja, rq.symmetricStorage, rq.transpose)),
          r(count, kWorkCode, mem), corr(count, kWorkCode, mem), xw(count, kWorkCode, mem),
          xprev(count, kWorkCode, mem), rw(count, kWorkCode, mem) {
        // The index pays for itself only where the product is split.
        const std::int64_t entries = static_cast<std::int64_t>(rq.ia[n]) - rq.ia[0];
        if (rq.symmetricStorage && entries >= kParallelEntries && nrt_get_max_threads() > 1)
            columns = storedColumns(n, rq.ia, rq.ja, mem);
    }

    RefinementResult run(const T* rhs, T* sol);

private:
    // Backward error of the iterate x against rhs; leaves the residual in res.
    double backwardError(const T* rhs, const W* x, W* res);
    // Flexible GMRES from x, the factor as right preconditioner; x and omega
    // improved in place. Returns the solves done.
    int krylov(const T* rhs, W* x, double& omega, bool wide);
    // corr = the factor's solve of v, rounded to the element type.
    void solveRounded(const W* v);
    // z = the same in W; false when it is not finite.
    bool precondition(const W* v, W* z);

    FactorSolver<T>& solver;
    const RefinementRequest& rq;
    MemoryCounter* mem;
    const int n;
    const int nrhs;
    const std::int64_t count;
    const T* a;
    const double normA;
    Block<T> r;    // residual handed to the solve
    Block<T> corr; // its correction
    Block<W> xw, xprev, rw;
    StoredColumns columns; // empty unless the residual is split
};

template <class T, class W>
double Refinement<T, W>::backwardError(const T* rhs, const W* x, W* res) {
    multiplyStored<W, T>(n, a, rq.ia, rq.ja, rq.symmetricStorage, rq.transpose, nrhs, x, res,
                         rq.hermitian, columns.start.size() > 0 ? &columns : nullptr);
    double worst = 0;
    for (int j = 0; j < nrhs; ++j) {
        const std::int64_t off = static_cast<std::int64_t>(j) * n;
        double rmax = 0, xmax = 0, bmax = 0;
        bool finite = true;
        for (int i = 0; i < n; ++i) {
            const W v = static_cast<W>(rhs[off + i]) - res[off + i];
            res[off + i] = v;
            const double rv = static_cast<double>(magnitude(v));
            const double xv = static_cast<double>(magnitude(x[off + i]));
            finite = finite && std::isfinite(rv) && std::isfinite(xv);
            rmax = std::max(rmax, rv);
            xmax = std::max(xmax, xv);
            bmax = std::max(bmax, static_cast<double>(magnitude(rhs[off + i])));
        }
        if (!finite) return std::numeric_limits<double>::infinity();
        const double scale = normA * xmax + bmax;
        if (rmax == 0) continue;
        worst = std::max(worst, scale > 0 ? rmax / scale : std::numeric_limits<double>::infinity());
    }
    return worst;
}

template <class T, class W>
RefinementResult Refinement<T, W>::run(const T* rhs, T* sol) {
    RefinementResult result;
    W* x = xw.data();
    W* prev = xprev.data();
    W* res = rw.data();
    // Whether the iterate lives in W (steps < 0) or in T, rounded at every step.
    const bool wide = rq.steps < 0;
    const int asked = std::abs(rq.steps);
    // Within a few units of roundoff the residual itself is rounding noise:
    // no step can do better. A wide iterate aims at the roundoff of its own
    // type, and only that, a stall or the cap end it; a T iterate also stops
    // once it did the steps asked and is within the tolerance.
    const double target = kRoundoffUnits * (wide ? unitRoundoff<W>() : unitRoundoff<T>());
    const double tolerance = refinementTolerance<RealOf<T>>();

    solver.solve(rhs, sol);
    for (std::int64_t i = 0; i < count; ++i)
        x[i] = static_cast<W>(sol[i]);
    double omega = backwardError(rhs, x, res);
    int k = 0;
    while (std::isfinite(omega) && omega > target && k < kMaxRefinementSteps &&
           (wide || k < asked || omega > tolerance)) {
        solveRounded(res);
        std::copy(x, x + count, prev);
        for (std::int64_t i = 0; i < count; ++i) {
            x[i] += static_cast<W>(corr[i]);
            if (!wide) x[i] = static_cast<W>(static_cast<T>(x[i]));
        }
        ++k;
        const double next = backwardError(rhs, x, res);
        if (!(next <= omega)) {
            // Worse (or not a number): the previous iterate stands.
            std::copy(prev, prev + count, x);
            break;
        }
        const bool halved = next <= 0.5 * omega;
        omega = next;
        if (!halved) break;
    }
    // Correction steps stall where perturbed pivots left the factor too far
    // from A; the same factor still makes a good preconditioner then.
    if (std::isfinite(omega) && omega > tolerance && omega > target) {
        try {
            k += krylov(rhs, x, omega, wide);
        } catch (const AllocationFailure&) {
            // Without room for a basis the refined answer stands as it is.
        }
    }
    result.steps = k;
    for (std::int64_t i = 0; i < count; ++i)
        sol[i] = static_cast<T>(x[i]);
    result.wideBackwardError = omega;
    if (wide) {
        // What the caller receives is the iterate rounded to T.
        for (std::int64_t i = 0; i < count; ++i)
            x[i] = static_cast<W>(sol[i]);
        omega = backwardError(rhs, x, res);
    }
    result.backwardError = omega;
    if (!(omega <= tolerance)) result.status = kStatusNoContraction;
    return result;
}

template <class T, class W>
void Refinement<T, W>::solveRounded(const W* v) {
    for (std::int64_t i = 0; i < count; ++i)
        r[i] = static_cast<T>(v[i]);
    solver.solve(r.data(), corr.data());
}

template <class T, class W>
bool Refinement<T, W>::precondition(const W* v, W* z) {
    solveRounded(v);
    bool finite = true;
    for (std::int64_t i = 0; i < count; ++i) {
        z[i] = static_cast<W>(corr[i]);
        finite = finite && isFiniteValue(corr[i]);
    }
    return finite;
}

// Each column of the right-hand side has its own basis and Hessenberg
// matrix; they advance together so that one solve serves them all. The
// factor is applied in the element type and so differs from step to step by
// its rounding, which the flexible form (keeping the preconditioned vectors)
// tolerates. A column stops when its implicit residual is a quarter of what
// the tolerance allows, or its space is exhausted; a cycle that does not
// lower the backward error is undone and ends the search.
template <class T, class W>
int Refinement<T, W>::krylov(const T* rhs, W* x, double& omega, bool wide) {
    using R = RealOf<W>;
    const int m = std::min(kKrylovBasis, n);
    std::vector<Block<W>> v, z;
    for (int j = 0; j <= m; ++j)
        v.emplace_back(count, kWorkCode, mem);
    for (int j = 0; j < m; ++j)
        z.emplace_back(count, kWorkCode, mem);
    Block<W> w(count, kWorkCode, mem);
    const std::size_t hs = static_cast<std::size_t>(m + 1) * m;
    std::vector<W> hess(hs * nrhs), g(static_cast<std::size_t>(m + 1) * nrhs),
        sn(static_cast<std::size_t>(m) * nrhs);
    std::vector<R> cs(static_cast<std::size_t>(m) * nrhs), eta(static_cast<std::size_t>(nrhs));
    std::vector<int> size(static_cast<std::size_t>(nrhs));
    const double tolerance = refinementTolerance<RealOf<T>>();
    W* res = rw.data();
    W* prev = xprev.data();
    int solves = 0;
    // The steps may have left the residual of an iterate they undid; each
    // cycle then leaves that of the x it keeps.
    omega = backwardError(rhs, x, res);
    for (int cycle = 0; cycle < kKrylovCycles && omega > tolerance; ++cycle) {
        std::copy(x, x + count, prev);
        int active = 0;
        for (int c = 0; c < nrhs; ++c) {
            const std::int64_t off = static_cast<std::int64_t>(c) * n;
            R norm = 0;
            double xmax = 0, bmax = 0;
            for (int i = 0; i < n; ++i) {
                norm += magnitude(res[off + i]) * magnitude(res[off + i]);
                xmax = std::max(xmax, static_cast<double>(magnitude(x[off + i])));
                bmax = std::max(bmax, static_cast<double>(magnitude(rhs[off + i])));
            }
            norm = std::sqrt(norm);
            eta[c] = static_cast<R>(0.25 * tolerance * (normA * xmax + bmax));
            std::fill_n(g.begin() + static_cast<std::ptrdiff_t>(c) * (m + 1), m + 1, W(0));
            g[static_cast<std::size_t>(c) * (m + 1)] = norm;
            size[c] = norm > eta[c] ? -1 : 0; // -1: still growing
            active += size[c] < 0;
            for (int i = 0; i < n; ++i)
                v[0][off + i] = size[c] < 0 ? res[off + i] / norm : W(0);
        }
        int j = 0;
        for (; j < m && active > 0; ++j) {
            ++solves;
            if (!precondition(v[j].data(), z[j].data())) {
                std::copy(prev, prev + count, x);
                omega = backwardError(rhs, x, res);
                return solves;
            }
            multiplyStored<W, T>(n, a, rq.ia, rq.ja, rq.symmetricStorage, rq.transpose, nrhs,
                                 z[j].data(), w.data(), rq.hermitian,
                                 columns.start.size() > 0 ? &columns : nullptr);
            for (int c = 0; c < nrhs; ++c) {
                const std::int64_t off = static_cast<std::int64_t>(c) * n;
                W* wc = w.data() + off;
                if (size[c] >= 0) {
                    std::fill_n(v[j + 1].data() + off, n, W(0));
                    continue;
                }
                W* h = hess.data() + hs * c + static_cast<std::size_t>(j) * (m + 1);
                for (int i = 0; i <= j; ++i) {
                    const W* vi = v[i].data() + off;
                    W dot = 0;
                    for (int q = 0; q < n; ++q)
                        dot += conjugate(vi[q]) * wc[q];
                    h[i] = dot;
                    for (int q = 0; q < n; ++q)
                        wc[q] -= dot * vi[q];
                }
                R norm = 0;
                for (int q = 0; q < n; ++q)
                    norm += magnitude(wc[q]) * magnitude(wc[q]);
                norm = std::sqrt(norm);
                h[j + 1] = norm;
                for (int q = 0; q < n; ++q)
                    v[j + 1][off + q] = norm > 0 ? wc[q] / norm : W(0);
                // The earlier rotations, then the one that clears h[j + 1].
                R* cc = cs.data() + static_cast<std::size_t>(c) * m;
                W* ss = sn.data() + static_cast<std::size_t>(c) * m;
                for (int i = 0; i < j; ++i) {
                    const W t = cc[i] * h[i] + ss[i] * h[i + 1];
                    h[i + 1] = -conjugate(ss[i]) * h[i] + cc[i] * h[i + 1];
                    h[i] = t;
                }
                const R ah = magnitude(h[j]);
                const R scale = std::hypot(ah, norm);
                if (scale == 0) {
                    size[c] = j; // nothing new in this direction
                    --active;
                    continue;
                }
                const W phase = ah > 0 ? h[j] / ah : W(1);
                cc[j] = ah / scale;
                ss[j] = phase * norm / scale;
                h[j] = phase * scale;
                h[j + 1] = 0;
                W* gc = g.data() + static_cast<std::size_t>(c) * (m + 1);
                gc[j + 1] = -conjugate(ss[j]) * gc[j];
                gc[j] = cc[j] * gc[j];
                if (magnitude(gc[j + 1]) <= eta[c] || norm == 0) {
                    size[c] = j + 1;
                    --active;
                }
            }
        }
        // x += Z y, y from the triangle of each column's basis.
        for (int c = 0; c < nrhs; ++c) {
            const int k = size[c] < 0 ? j : size[c];
            const std::int64_t off = static_cast<std::int64_t>(c) * n;
            const W* hc = hess.data() + hs * c;
            std::vector<W> y(g.begin() + static_cast<std::ptrdiff_t>(c) * (m + 1),
                             g.begin() + static_cast<std::ptrdiff_t>(c) * (m + 1) + k);
            for (int i = k - 1; i >= 0; --i) {
                for (int l = i + 1; l < k; ++l)
                    y[i] -= hc[static_cast<std::size_t>(l) * (m + 1) + i] * y[l];
                y[i] /= hc[static_cast<std::size_t>(i) * (m + 1) + i];
            }
            for (int i = 0; i < k; ++i)
                for (int q = 0; q < n; ++q)
                    x[off + q] += y[i] * z[i][off + q];
            if (!wide)
                for (int q = 0; q < n; ++q)
                    x[off + q] = static_cast<W>(static_cast<T>(x[off + q]));
        }
        const double next = backwardError(rhs, x, res);
        if (!(next < omega)) {
            std::copy(prev, prev + count, x);
            omega = backwardError(rhs, x, res);
            break;
        }
        omega = next;
    }
    return solves;
}

} // namespace

StoredColumns storedColumns(int n, const int* ia, const int* ja, MemoryCounter* mem) {
    StoredColumns c;
    c.start = IntBlock(static_cast<std::int64_t>(n) + 1, kWorkCode, mem);
    std::fill(c.start.data(), c.start.data() + n + 1, 0);
    for (int i = 0; i < n; ++i)
        for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p)
            if (ja[p] - 1 != i) ++c.start[ja[p]];
    for (int j = 0; j < n; ++j)
        c.start[j + 1] += c.start[j];
    const std::int64_t count = std::max(1, c.start[n]);
    c.entry = IntBlock(count, kWorkCode, mem);
    c.row = IntBlock(count, kWorkCode, mem);
    std::vector<int> next(c.start.data(), c.start.data() + n);
    for (int i = 0; i < n; ++i)
        for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p) {
            const int j = ja[p] - 1;
            if (j == i) continue;
            const int q = next[static_cast<std::size_t>(j)]++;
            c.entry[q] = p;
            c.row[q] = i;
        }
    return c;
}

template <class W, class T>
void multiplyStored(int n, const T* a, const int* ia, const int* ja, bool symmetricStorage,
                    bool transpose, int nrhs, const W* x, W* y, bool hermitian,
                    const StoredColumns* columns) {
    const std::int64_t entries = static_cast<std::int64_t>(ia[n]) - ia[0];
    const int t = entries >= kParallelEntries ? nrt_get_max_threads() : 1;
    for (int j = 0; j < nrhs; ++j) {
        const W* xj = x + static_cast<std::int64_t>(j) * n;
        W* yj = y + static_cast<std::int64_t>(j) * n;
        if (!symmetricStorage && !transpose) {
            // A row's sum is one thread's, in the order of the row: the
            // residual does not depend on the threads.
#pragma omp parallel for schedule(static) num_threads(t) if (t > 1)
            for (int i = 0; i < n; ++i) {
                W v = 0;
                for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p)
                    v += static_cast<W>(a[p]) * xj[ja[p] - 1];
                yj[i] = v;
            }
            continue;
        }
        if (columns && symmetricStorage) {
            // Entry c takes what the rows above it scatter into it, its own
            // row's sum, then what the rows below scatter (entries of the
            // other triangle), each in the order of the pass below.
            const int* start = columns->start.data();
            const int* entry = columns->entry.data();
            const int* row = columns->row.data();
#pragma omp parallel for schedule(static) num_threads(t) if (t > 1)
            for (int c = 0; c < n; ++c) {
                W acc = 0;
                int q = start[c];
                auto scatterFrom = [&](int rowsBelow) {
                    for (; q < start[c + 1] && row[q] < rowsBelow; ++q) {
                        const W av = static_cast<W>(a[entry[q]]);
                        acc += (hermitian ? conjugate(av) : av) * xj[row[q]];
                    }
                };
                scatterFrom(c);
                W v = 0;
                for (int p = ia[c] - 1; p < ia[c + 1] - 1; ++p)
                    v += static_cast<W>(a[p]) * xj[ja[p] - 1];
                acc += v;
                scatterFrom(n);
                yj[c] = acc;
            }
            continue;
        }
        std::fill(yj, yj + n, W(0));
        for (int i = 0; i < n; ++i) {
            const W xi = xj[i];
            W v = 0;
            for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p) {
                const int c = ja[p] - 1;
                const W av = static_cast<W>(a[p]);
                if (symmetricStorage) {
                    v += av * xj[c];
                    if (c != i) yj[c] += (hermitian ? conjugate(av) : av) * xi;
                } else {
                    yj[c] += av * xi;
                }
            }
            yj[i] += v;
        }
    }
}

template <class T>
double infinityNorm(int n, const T* a, const int* ia, const int* ja, bool symmetricStorage,
                    bool transpose) {
    std::vector<double> sums(static_cast<std::size_t>(n), 0.0);
    for (int i = 0; i < n; ++i)
        for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p) {
            const int c = ja[p] - 1;
            const double v = static_cast<double>(magnitude(a[p]));
            sums[static_cast<std::size_t>(transpose ? c : i)] += v;
            if (symmetricStorage && c != i) sums[static_cast<std::size_t>(c)] += v;
        }
    double m = 0;
    for (double s : sums)
        m = std::max(m, s);
    return m;
}

template <class T>
RefinementResult solveAndRefine(Handle& h, const FactorRow& row, const RefinementRequest& rq, T* b,
                                T* x) {
    const std::int64_t count = static_cast<std::int64_t>(rq.n) * rq.nrhs;
    // One array for both: the solution goes there, and the right-hand side,
    // which the refinement reads to the end, to a copy.
    Block<T> saved;
    SolutionPlace<T> place{b, x};
    if (b == x) {
        saved = Block<T>(count, kWorkCode, &h.memory);
        std::copy(b, b + count, saved.data());
        place = {saved.data(), x};
    } else {
        place = placeSolution(rq, b, x);
    }
    const T* rhs = place.rhs;
    T* sol = place.sol;
    FactorSolver<T> solver(h, row, rq.transpose, rq.nrhs);
    if (rq.partial != 0 || !rq.checked) {
        solver.solve(rhs, sol, rq.partial);
        return {};
    }
    // The residual is formed in the wider type: double, or long double for
    // a double iterate asked to stay wide (steps < 0).
    if constexpr (std::is_same_v<RealOf<T>, double>)
        if (rq.steps < 0)
            return Refinement<T, WidenedTo<T, long double>>(solver, rq, &h.memory).run(rhs, sol);
    return Refinement<T, WidenedTo<T, double>>(solver, rq, &h.memory).run(rhs, sol);
}

template RefinementResult solveAndRefine<float>(Handle&, const FactorRow&, const RefinementRequest&,
                                                float*, float*);
template RefinementResult solveAndRefine<double>(Handle&, const FactorRow&,
                                                 const RefinementRequest&, double*, double*);
template void multiplyStored<float, float>(int, const float*, const int*, const int*, bool, bool,
                                           int, const float*, float*, bool, const StoredColumns*);
template void multiplyStored<double, float>(int, const float*, const int*, const int*, bool, bool,
                                            int, const double*, double*, bool,
                                            const StoredColumns*);
template void multiplyStored<double, double>(int, const double*, const int*, const int*, bool, bool,
                                             int, const double*, double*, bool,
                                             const StoredColumns*);
template void multiplyStored<long double, double>(int, const double*, const int*, const int*, bool,
                                                  bool, int, const long double*, long double*, bool,
                                                  const StoredColumns*);
template double infinityNorm<float>(int, const float*, const int*, const int*, bool, bool);
template double infinityNorm<double>(int, const double*, const int*, const int*, bool, bool);

using ComplexF = std::complex<float>;
using ComplexD = std::complex<double>;
using ComplexL = std::complex<long double>;
template RefinementResult solveAndRefine<ComplexF>(Handle&, const FactorRow&,
                                                   const RefinementRequest&, ComplexF*, ComplexF*);
template RefinementResult solveAndRefine<ComplexD>(Handle&, const FactorRow&,
                                                   const RefinementRequest&, ComplexD*, ComplexD*);
template void multiplyStored<ComplexD, ComplexF>(int, const ComplexF*, const int*, const int*, bool,
                                                 bool, int, const ComplexD*, ComplexD*, bool,
                                                 const StoredColumns*);
template void multiplyStored<ComplexD, ComplexD>(int, const ComplexD*, const int*, const int*, bool,
                                                 bool, int, const ComplexD*, ComplexD*, bool,
                                                 const StoredColumns*);
template void multiplyStored<ComplexL, ComplexD>(int, const ComplexD*, const int*, const int*, bool,
                                                 bool, int, const ComplexL*, ComplexL*, bool,
                                                 const StoredColumns*);
template double infinityNorm<ComplexF>(int, const ComplexF*, const int*, const int*, bool, bool);
template double infinityNorm<ComplexD>(int, const ComplexD*, const int*, const int*, bool, bool);

} // namespace skyrinse::spds

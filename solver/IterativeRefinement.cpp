// Solve with iterative refinement; the contract is in IterativeRefinement.h.
//
// The sums that steer the loop are 1-norms over all right-hand sides,
// taken in double whatever the element type, so that a long vector of
// floats does not lose the small residuals the loop compares.
#include "IterativeRefinement.h"

#include "Solve.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace skyrinse::spds {

namespace {

constexpr int kWorkCode = -1300;
constexpr int kStatusNoContraction = -112;

template <class V>
double absSum(const V* v, std::int64_t count) {
    double s = 0;
    for (std::int64_t i = 0; i < count; ++i)
        s += std::abs(static_cast<double>(v[i]));
    return s;
}

template <class T>
using Wider = std::conditional_t<std::is_same_v<T, float>, double, long double>;

// The loop, with the solution and residual held in W (T, or wider).
template <class T, class W>
RefinementResult refine(FactorSolver<T>& solver, const RefinementRequest& rq, MemoryCounter* mem,
                        const T* rhs, T* sol) {
    RefinementResult result;
    const std::int64_t count = static_cast<std::int64_t>(rq.n) * rq.nrhs;
    const T* a = static_cast<const T*>(rq.a);
    const int limit = std::abs(rq.steps);
    Block<T> r(count, kWorkCode, mem);
    Block<W> xw, rw;
    constexpr bool wide = !std::is_same_v<T, W>;
    if constexpr (wide) {
        xw = Block<W>(count, kWorkCode, mem);
        rw = Block<W>(count, kWorkCode, mem);
    }

    const double sumrhs = absSum(rhs, count);
    solver.solve(rhs, sol);
    const double sumx = absSum(sol, count);
    if constexpr (wide)
        for (std::int64_t i = 0; i < count; ++i)
            xw[i] = static_cast<W>(sol[i]);
    double prev = sumrhs;
    int k = 0;
    for (;;) {
        ++k;
        double sumres = 0;
        if constexpr (wide) {
            multiplyStored<W, T>(rq.n, a, rq.ia, rq.ja, rq.symmetricStorage, rq.transpose, rq.nrhs,
                                 xw.data(), rw.data());
            for (std::int64_t i = 0; i < count; ++i) {
                const W res = static_cast<W>(rhs[i]) - rw[i];
                r[i] = static_cast<T>(res);
                sumres += std::abs(static_cast<double>(res));
            }
        } else {
            multiplyStored<T, T>(rq.n, a, rq.ia, rq.ja, rq.symmetricStorage, rq.transpose, rq.nrhs,
                                 sol, r.data());
            for (std::int64_t i = 0; i < count; ++i) {
                r[i] = rhs[i] - r[i];
                sumres += std::abs(static_cast<double>(r[i]));
            }
        }
        solver.solve(r.data(), r.data());
        const double sumdx = absSum(r.data(), count);
        if constexpr (wide) {
            for (std::int64_t i = 0; i < count; ++i) {
                xw[i] += static_cast<W>(r[i]);
                sol[i] = static_cast<T>(xw[i]);
            }
        } else {
            for (std::int64_t i = 0; i < count; ++i)
                sol[i] += r[i];
        }
        // With nothing to divide by, the loop compares absolute sums.
        const double relErr = sumx != 0 ? sumdx / sumx : sumdx;

        if (k == 2 && rq.steps == 0) {
            result.stoppedAtTwo = true;
            break;
        }
        if (k == 1 && sumres > sumrhs) prev = 2 * sumres;
        if (k == limit) break;
        if (0.9 * prev > sumres) {
            prev = sumres;
            continue;
        }
        if (k < 4 && k < limit) continue;
        if (std::abs(relErr) > 0.5) result.status = kStatusNoContraction;
        break;
    }
    result.steps = k;
    return result;
}

} // namespace

template <class W, class T>
void multiplyStored(int n, const T* a, const int* ia, const int* ja, bool symmetricStorage,
                    bool transpose, int nrhs, const W* x, W* y) {
    for (int j = 0; j < nrhs; ++j) {
        const W* xj = x + static_cast<std::int64_t>(j) * n;
        W* yj = y + static_cast<std::int64_t>(j) * n;
        if (!symmetricStorage && !transpose) {
            for (int i = 0; i < n; ++i) {
                W v = 0;
                for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p)
                    v += static_cast<W>(a[p]) * xj[ja[p] - 1];
                yj[i] = v;
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
                    if (c != i) yj[c] += av * xi;
                } else {
                    yj[c] += av * xi;
                }
            }
            yj[i] += v;
        }
    }
}

template <class T>
RefinementResult solveAndRefine(Handle& h, const FactorRow& row, const RefinementRequest& rq, T* b,
                                T* x) {
    const auto [rhs, sol] = placeSolution(rq, b, x);
    FactorSolver<T> solver(h, row, rq.transpose, rq.nrhs);
    if (!rq.refine || rq.partial != 0) {
        solver.solve(rhs, sol, rq.partial);
        return {};
    }
    if (rq.steps < 0) return refine<T, Wider<T>>(solver, rq, &h.memory, rhs, sol);
    return refine<T, T>(solver, rq, &h.memory, rhs, sol);
}

template RefinementResult solveAndRefine<float>(Handle&, const FactorRow&, const RefinementRequest&,
                                                float*, float*);
template RefinementResult solveAndRefine<double>(Handle&, const FactorRow&,
                                                 const RefinementRequest&, double*, double*);
template void multiplyStored<float, float>(int, const float*, const int*, const int*, bool, bool,
                                           int, const float*, float*);
template void multiplyStored<double, float>(int, const float*, const int*, const int*, bool, bool,
                                            int, const double*, double*);
template void multiplyStored<double, double>(int, const double*, const int*, const int*, bool, bool,
                                             int, const double*, double*);
template void multiplyStored<long double, double>(int, const double*, const int*, const int*, bool,
                                                  bool, int, const long double*, long double*);

} // namespace skyrinse::spds

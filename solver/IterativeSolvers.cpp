// Preconditioned CG and CGS; the contract is in IterativeSolvers.h.
//
// All right-hand sides iterate together, each with its own scalars, so that
// one blocked solve serves them all per preconditioning. A right-hand side
// whose measure is below the tolerance is frozen: its scalars would soon be
// ratios of vanishing numbers, and it must not spoil the others. Inner
// products run in double whatever the element type.
#include "IterativeSolvers.h"

#include "IterativeRefinement.h"
#include "Solve.h"

#include "runtime/nrt.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace skyrinse::spds {

namespace {

constexpr int kWorkCode = -1300;
constexpr double kDivergence = 10000.0;
// The floor under which a solve counts as not timed, and the weight of a
// factorization against a solve: the values the limits were tuned with,
// held in single precision.
constexpr double kUntimed = static_cast<double>(1e-10f);
constexpr double kFactorWeight = static_cast<double>(0.45f);

enum Status { kConverged = 0, kDiverged = -1, kStalled = -2, kLimit = -3, kNoSteps = -5 };

template <class T>
class Iteration {
public:
    Iteration(Handle& h, const FactorRow& row, const IterativeRequest& rq)
        : rq(rq), n(rq.n), nrhs(rq.nrhs), count(static_cast<std::int64_t>(rq.n) * rq.nrhs),
          solver(h, row, rq.transpose, rq.nrhs), mem(&h.memory), initial(nrhs, 0.0),
          ratio(nrhs, 0.0), active(nrhs, 1), broken(nrhs, 0) {}

    IterativeResult run(const T* rhs, T* sol);

private:
    double dot(const T* u, const T* v, int j) const {
        const std::int64_t o = static_cast<std::int64_t>(j) * n;
        double s = 0;
        for (int i = 0; i < n; ++i)
            s += static_cast<double>(u[o + i]) * static_cast<double>(v[o + i]);
        return s;
    }
    void multiply(const T* v, T* out) const {
        multiplyStored<T, T>(n, static_cast<const T*>(rq.a), rq.ia, rq.ja, rq.symmetricStorage,
                             rq.transpose, nrhs, v, out);
    }
    // Records the residual norms, freezes converged columns; the measure.
    double measure(const T* r);
    int conjugateGradients(T* x, Block<T>& r, int limit, int stall, double tol);
    int conjugateGradientsSquared(T* x, Block<T>& r, int limit, int stall, double tol);
    // The rules shared by both methods, after the measure q of step k.
    int verdict(double q, int k, int limit, int stall, double tol, bool stallFromMarkOn);

    const IterativeRequest& rq;
    const int n;
    const int nrhs;
    const std::int64_t count;
    FactorSolver<T> solver;
    MemoryCounter* mem;
    std::vector<double> initial; // ||b_j||
    std::vector<double> ratio;   // ||r_j|| / ||b_j|| of the last step
    std::vector<char> active;
    std::vector<char> broken; // a breakdown left the column without a step
    double best = 1e30;
    int steps = 0;
    double lastMeasure = 0;
};

template <class T>
double Iteration<T>::measure(const T* r) {
    double q = 0;
    for (int j = 0; j < nrhs; ++j) {
        if (broken[j]) {
            ratio[j] = std::numeric_limits<double>::infinity();
        } else if (active[j]) {
            const double norm = std::sqrt(dot(r, r, j));
            ratio[j] = initial[j] > 0 ? norm / initial[j] : 0.0;
        }
        // A NaN must read as divergence, never as convergence.
        if (!(ratio[j] <= q)) q = ratio[j];
    }
    return q;
}

template <class T>
int Iteration<T>::verdict(double q, int k, int limit, int stall, double tol, bool stallFromMarkOn) {
    lastMeasure = q;
    if (q < tol) return kConverged;
    if (!(q <= kDivergence)) return kDiverged;
    best = std::min(best, q);
    if ((stallFromMarkOn ? k >= stall : k == stall) && best > std::sqrt(tol)) return kStalled;
    if (k >= limit) return kLimit;
    return 1; // go on
}

template <class T>
int Iteration<T>::conjugateGradients(T* x, Block<T>& r, int limit, int stall, double tol) {
    Block<T> z(count, kWorkCode, mem), p(count, kWorkCode, mem), q(count, kWorkCode, mem);
    std::vector<double> rho(nrhs);
    solver.solve(r.data(), z.data());
    std::memcpy(p.data(), z.data(), static_cast<std::size_t>(count) * sizeof(T));
    for (int j = 0; j < nrhs; ++j)
        rho[j] = dot(r.data(), z.data(), j);
    for (int k = 1;; ++k) {
        multiply(p.data(), q.data());
        for (int j = 0; j < nrhs; ++j) {
            if (!active[j]) continue;
            const double pq = dot(p.data(), q.data(), j);
            const T alpha = static_cast<T>(pq != 0 ? rho[j] / pq : 0.0);
            const std::int64_t o = static_cast<std::int64_t>(j) * n;
            for (int i = 0; i < n; ++i) {
                x[o + i] += alpha * p[o + i];
                r[o + i] -= alpha * q[o + i];
            }
            // A direction with no curvature leaves the iteration without a
            // step: the matrix is not definite, which the measure must show.
            if (pq == 0) broken[j] = 1;
        }
        steps = k;
        const int v = verdict(measure(r.data()), k, limit, stall, tol, true);
        if (v <= 0) return v;
        for (int j = 0; j < nrhs; ++j)
            if (active[j] && ratio[j] < tol) active[j] = 0;
        solver.solve(r.data(), z.data());
        for (int j = 0; j < nrhs; ++j) {
            if (!active[j]) continue;
            const double rhoNew = dot(r.data(), z.data(), j);
            const T beta = static_cast<T>(rho[j] != 0 ? rhoNew / rho[j] : 0.0);
            rho[j] = rhoNew;
            const std::int64_t o = static_cast<std::int64_t>(j) * n;
            for (int i = 0; i < n; ++i)
                p[o + i] = z[o + i] + beta * p[o + i];
        }
    }
}

template <class T>
int Iteration<T>::conjugateGradientsSquared(T* x, Block<T>& r, int limit, int stall, double tol) {
    Block<T> shadow(count, kWorkCode, mem), u(count, kWorkCode, mem), p(count, kWorkCode, mem),
        q(count, kWorkCode, mem), w(count, kWorkCode, mem);
    std::memcpy(shadow.data(), r.data(), static_cast<std::size_t>(count) * sizeof(T));
    std::vector<double> rhoPrev(nrhs, 1.0);
    std::vector<T> alpha(nrhs);
    for (int k = 1;; ++k) {
        for (int j = 0; j < nrhs; ++j) {
            if (!active[j]) continue;
            const std::int64_t o = static_cast<std::int64_t>(j) * n;
            const double rho = dot(shadow.data(), r.data(), j);
            if (rho == 0) broken[j] = 1;
            if (k == 1) {
                for (int i = 0; i < n; ++i)
                    u[o + i] = p[o + i] = r[o + i];
            } else {
                const T beta = static_cast<T>(rhoPrev[j] != 0 ? rho / rhoPrev[j] : 0.0);
                for (int i = 0; i < n; ++i) {
                    u[o + i] = r[o + i] + beta * q[o + i];
                    p[o + i] = u[o + i] + beta * (q[o + i] + beta * p[o + i]);
                }
            }
            rhoPrev[j] = rho;
        }
        // w = A M^-1 p, the step length from it, then q and the update
        // direction M^-1 (u + q).
        solver.solve(p.data(), w.data());
        multiply(w.data(), q.data()); // q of the last step is spent: u and p hold it
        for (int j = 0; j < nrhs; ++j) {
            if (!active[j]) continue;
            const std::int64_t o = static_cast<std::int64_t>(j) * n;
            const double sv = dot(shadow.data(), q.data(), j);
            // A vanishing denominator is a breakdown: no step, and the
            // measure must not read it as progress.
            alpha[j] = static_cast<T>(sv != 0 ? rhoPrev[j] / sv : 0.0);
            if (sv == 0) broken[j] = 1;
            for (int i = 0; i < n; ++i) {
                const T qi = u[o + i] - alpha[j] * q[o + i];
                q[o + i] = qi;
                w[o + i] = u[o + i] + qi;
            }
        }
        solver.solve(w.data(), w.data());
        for (int j = 0; j < nrhs; ++j) {
            if (!active[j]) continue;
            const std::int64_t o = static_cast<std::int64_t>(j) * n;
            for (int i = 0; i < n; ++i)
                x[o + i] += alpha[j] * w[o + i];
        }
        multiply(w.data(), u.data()); // u is rebuilt at the next step
        for (int j = 0; j < nrhs; ++j) {
            if (!active[j]) continue;
            const std::int64_t o = static_cast<std::int64_t>(j) * n;
            for (int i = 0; i < n; ++i)
                r[o + i] -= alpha[j] * u[o + i];
        }
        steps = k;
        const int v = verdict(measure(r.data()), k, limit, stall, tol, false);
        if (v <= 0) return v;
        for (int j = 0; j < nrhs; ++j)
            if (active[j] && ratio[j] < tol) active[j] = 0;
    }
}

template <class T>
IterativeResult Iteration<T>::run(const T* rhs, T* sol) {
    IterativeResult result;
    const double tol = iterativeTolerance(rq.control);
    for (int j = 0; j < nrhs; ++j) {
        initial[j] = std::sqrt(dot(rhs, rhs, j));
        if (initial[j] == 0) active[j] = 0; // x = 0 is its exact answer
    }
    std::fill(sol, sol + count, T(0));
    Block<T> r(count, kWorkCode, mem);
    std::memcpy(r.data(), rhs, static_cast<std::size_t>(count) * sizeof(T));

    // One solve, timed, to weigh an iteration against a factorization; its
    // result is the first preconditioned residual of CG, and warms the
    // solver's buffers either way.
    Block<T> probe(count, kWorkCode, mem);
    const double t0 = nrt_seconds();
    solver.solve(r.data(), probe.data());
    const IterationLimits lim =
        iterationLimits(rq.control, rq.factorSeconds, nrt_seconds() - t0, rq.outOfCore);
    probe.reset();
    result.limit = lim.maximum;
    if (lim.maximum <= 0) {
        result.status = kNoSteps;
        return result;
    }
    if (std::none_of(active.begin(), active.end(), [](char a) { return a != 0; })) {
        result.status = kConverged;
        return result;
    }
    result.status = usesConjugateGradients(rq.control)
                        ? conjugateGradients(sol, r, lim.maximum, lim.stall, tol)
                        : conjugateGradientsSquared(sol, r, lim.maximum, lim.stall, tol);
    result.steps = steps;
    result.measure = lastMeasure;
    return result;
}

} // namespace

double iterativeTolerance(int control) {
    const int L = std::abs(control) / 10;
    return std::exp(-L * 2.302585092994046);
}

IterationLimits iterationLimits(int control, double factorSeconds, double solveSeconds,
                                bool outOfCore) {
    IterationLimits lim;
    const int K = std::abs(control % 10);
    if (solveSeconds <= kUntimed) {
        lim.maximum = control < 0 ? 150 : 0;
    } else if (K != 0) {
        const double weighed = 1.0 + kFactorWeight * 3.0 * K * factorSeconds / solveSeconds;
        lim.maximum = static_cast<int>(std::min(100.0, std::max(2.0, weighed)));
        if (outOfCore) lim.maximum = std::max(10, lim.maximum);
    }
    lim.stall = static_cast<int>(1 + 0.5 * lim.maximum);
    return lim;
}

template <class T>
IterativeResult iterativeSolve(Handle& h, const FactorRow& row, const IterativeRequest& rq, T* b,
                               T* x) {
    const auto [rhs, sol] = placeSolution(rq, b, x);
    Iteration<T> it(h, row, rq);
    return it.run(rhs, sol);
}

template IterativeResult iterativeSolve<float>(Handle&, const FactorRow&, const IterativeRequest&,
                                               float*, float*);
template IterativeResult iterativeSolve<double>(Handle&, const FactorRow&, const IterativeRequest&,
                                                double*, double*);

} // namespace skyrinse::spds

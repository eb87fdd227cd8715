// Helpers of the numeric tests: matrix families with values, the dense
// reference (LAPACK of the BLAS library the solver links), and one call of
// the whole factor-and-solve sequence through the entry.
#pragma once

#include "Handle.h"
#include "spds.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

extern "C" {
void dgesv_(const int* n, const int* nrhs, double* a, const int* lda, int* ipiv, double* b,
            const int* ldb, int* info);
void dsyev_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
            double* work, const int* lwork, int* info);
}

namespace numtest {

// A system as the entry takes it: one-based CSR, values in double (the
// tests convert for single precision), and the type it is meant for.
struct System {
    std::string name;
    int mtype = 11;
    int n = 0;
    std::vector<int> ia{1};
    std::vector<int> ja;
    std::vector<double> a;
};

// Builds the CSR of `entries` (zero-based row, col -> value); for symmetric
// types only the upper triangle is kept.
inline System fromEntries(std::string name, int mtype, int n,
                          const std::map<std::pair<int, int>, double>& entries) {
    System s;
    s.name = std::move(name);
    s.mtype = mtype;
    s.n = n;
    const bool symmetric = mtype == 2 || mtype == -2;
    int row = 0;
    for (const auto& [pos, v] : entries) {
        const auto [i, j] = pos;
        if (symmetric && j < i) continue;
        while (row < i) {
            s.ia.push_back(static_cast<int>(s.ja.size()) + 1);
            ++row;
        }
        s.ja.push_back(j + 1);
        s.a.push_back(v);
    }
    while (row < n) {
        s.ia.push_back(static_cast<int>(s.ja.size()) + 1);
        ++row;
    }
    return s;
}

// Random symmetric pattern (both triangles) with a stencil part, so that
// supernodes of several columns and scattered updates both arise.
inline std::map<std::pair<int, int>, double>
symmetricEntries(int n, double density, std::mt19937& rng, double diagonal, bool alternateSigns) {
    std::map<std::pair<int, int>, double> e;
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> pick(0, n - 1);
    for (int i = 0; i + 1 < n; ++i) {
        const double v = u(rng);
        e[{i, i + 1}] = v;
        e[{i + 1, i}] = v;
    }
    const long long extra = static_cast<long long>(density * n * n / 2);
    for (long long k = 0; k < extra; ++k) {
        const int i = pick(rng), j = pick(rng);
        if (i == j) continue;
        const double v = u(rng);
        e[{i, j}] = v;
        e[{j, i}] = v;
    }
    // Diagonal dominance keeps the system well conditioned whatever the signs.
    std::vector<double> rowSum(static_cast<std::size_t>(n), 0.0);
    for (const auto& [pos, v] : e)
        rowSum[static_cast<std::size_t>(pos.first)] += std::abs(v);
    for (int i = 0; i < n; ++i) {
        const double sign = alternateSigns && (i % 3 == 1) ? -1.0 : 1.0;
        e[{i, i}] = sign * (rowSum[static_cast<std::size_t>(i)] + diagonal);
    }
    return e;
}

// 2D Laplacian of a w x h grid with the 3 x 3 neighbourhood (9 points).
inline std::map<std::pair<int, int>, double> gridEntries(int w, int h, double shift) {
    std::map<std::pair<int, int>, double> e;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * w + x;
            double diag = shift;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int X = x + dx, Y = y + dy;
                    if ((dx == 0 && dy == 0) || X < 0 || Y < 0 || X >= w || Y >= h) continue;
                    e[{i, Y * w + X}] = -1.0;
                    diag += 1.0;
                }
            e[{i, i}] = diag;
        }
    return e;
}

// Saddle point [K B^T; B -delta I]: K a grid Laplacian (SPD), B picks
// differences of neighbouring unknowns; the lower right block is zero when
// delta is 0, which no factorization without pivoting survives.
inline std::map<std::pair<int, int>, double> saddleEntries(int w, int h, int constraints,
                                                           std::mt19937& rng) {
    auto e = gridEntries(w, h, 0.1);
    const int nk = w * h;
    // Distinct pairs keep the constraints independent, the system regular.
    std::uniform_int_distribution<int> jitter(0, 1);
    for (int c = 0; c < constraints; ++c) {
        const int row = nk + c;
        const int j = std::min(nk - 2, 3 * c + jitter(rng));
        e[{row, j}] = 1.0;
        e[{j, row}] = 1.0;
        e[{row, j + 1}] = -1.0;
        e[{j + 1, row}] = -1.0;
        e[{row, row}] = 0.0;
    }
    return e;
}

// Unsymmetric values on a structurally unsymmetric pattern.
inline std::map<std::pair<int, int>, double> unsymmetricEntries(int n, double density,
                                                                std::mt19937& rng) {
    std::map<std::pair<int, int>, double> e;
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> pick(0, n - 1);
    for (int i = 0; i + 1 < n; ++i) {
        e[{i, i + 1}] = u(rng);
        if (i % 2 == 0) e[{i + 1, i}] = u(rng);
    }
    const long long extra = static_cast<long long>(density * n * n);
    for (long long k = 0; k < extra; ++k)
        e[{pick(rng), pick(rng)}] = u(rng);
    for (int i = 0; i < n; ++i)
        e[{i, i}] = (i % 5 == 0 ? 0.01 : 2.0) + std::abs(u(rng));
    return e;
}

// Dense matrix of a system, column-major, both triangles filled.
inline std::vector<double> dense(const System& s, bool transpose = false) {
    const int n = s.n;
    std::vector<double> d(static_cast<std::size_t>(n) * n, 0.0);
    const bool symmetric = s.mtype == 2 || s.mtype == -2;
    for (int i = 0; i < n; ++i)
        for (int p = s.ia[i] - 1; p < s.ia[i + 1] - 1; ++p) {
            const int j = s.ja[p] - 1;
            const int r = transpose ? j : i, c = transpose ? i : j;
            d[static_cast<std::size_t>(c) * n + r] += s.a[p];
            if (symmetric && i != j) d[static_cast<std::size_t>(r) * n + c] += s.a[p];
        }
    return d;
}

// Dense solution of A X = B (or A^T X = B) in double, nrhs columns.
inline std::vector<double> denseSolve(const System& s, std::vector<double> b, int nrhs,
                                      bool transpose = false) {
    std::vector<double> d = dense(s, transpose);
    std::vector<int> ipiv(static_cast<std::size_t>(s.n));
    int info = 0;
    dgesv_(&s.n, &nrhs, d.data(), &s.n, ipiv.data(), b.data(), &s.n, &info);
    return b;
}

// Positive and negative eigenvalues of a symmetric system.
inline std::pair<int, int> denseInertia(const System& s) {
    std::vector<double> d = dense(s);
    std::vector<double> w(static_cast<std::size_t>(s.n));
    int lwork = -1, info = 0;
    double query = 0;
    dsyev_("N", "L", &s.n, d.data(), &s.n, w.data(), &query, &lwork, &info);
    lwork = static_cast<int>(query);
    std::vector<double> work(static_cast<std::size_t>(lwork));
    dsyev_("N", "L", &s.n, d.data(), &s.n, w.data(), work.data(), &lwork, &info);
    int pos = 0, neg = 0;
    for (double v : w)
        (v > 0 ? pos : neg) += 1;
    return {pos, neg};
}

// ||A x - b|| / ||b|| (2-norms, per column, largest), in double.
inline double relativeResidual(const System& s, const std::vector<double>& x,
                               const std::vector<double>& b, int nrhs, bool transpose = false) {
    const std::vector<double> d = dense(s, transpose);
    const std::size_t n = static_cast<std::size_t>(s.n);
    double worst = 0;
    for (int j = 0; j < nrhs; ++j) {
        double rr = 0, bb = 0;
        for (std::size_t i = 0; i < n; ++i) {
            double v = 0;
            for (std::size_t k = 0; k < n; ++k)
                v += d[k * n + i] * x[j * n + k];
            const double r = v - b[j * n + i];
            rr += r * r;
            bb += b[j * n + i] * b[j * n + i];
        }
        worst = std::max(worst, std::sqrt(rr) / std::sqrt(bb > 0 ? bb : 1.0));
    }
    return worst;
}

inline double relativeDifference(const std::vector<double>& x, const std::vector<double>& y) {
    double dd = 0, yy = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        dd += (x[i] - y[i]) * (x[i] - y[i]);
        yy += y[i] * y[i];
    }
    return std::sqrt(dd) / std::sqrt(yy > 0 ? yy : 1.0);
}

// One handle through the entry, in precision T; released on scope exit.
template <class T>
struct SpdsRun {
    void* pt[64] = {};
    int iparm[64] = {};
    int maxfct = 1, mnum = 1, msglvl = 0;
    const System& sys;
    std::vector<T> a;
    std::vector<int> perm;

    explicit SpdsRun(const System& s) : sys(s), a(s.a.begin(), s.a.end()), perm(s.n) {
        iparm[0] = 1;
        iparm[1] = 2;
        iparm[7] = 2;
        iparm[9] = (s.mtype == 11 || s.mtype == 1) ? 13 : 8;
        // Matching and scaling where the photo tool uses them: they bring
        // the large entries next to the diagonal, where a block can pivot.
        iparm[10] = (s.mtype == 11 || s.mtype == -2) ? 1 : 0;
        iparm[12] = (s.mtype == 11 || s.mtype == -2) ? 1 : 0;
        iparm[20] = 1;
        iparm[27] = std::is_same_v<T, float> ? 1 : 0;
    }
    ~SpdsRun() {
        int phase = -1, n = sys.n, nrhs = 1, error = 0;
        int mtype = sys.mtype;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
    }
    SpdsRun(const SpdsRun&) = delete;
    SpdsRun& operator=(const SpdsRun&) = delete;

    int call(int phase, std::vector<T>* b = nullptr, std::vector<T>* x = nullptr, int nrhs = 1) {
        int error = 12345, n = sys.n, mtype = sys.mtype;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), sys.ia.data(), sys.ja.data(),
             perm.data(), &nrhs, iparm, &msglvl, b ? b->data() : nullptr, x ? x->data() : nullptr,
             &error);
        return error;
    }
};

// One handle whose calls may change type and matrix, released on exit.
template <class T>
struct SpdsSession {
    void* pt[64] = {};
    int iparm[64] = {};
    int maxfct = 1, mnum = 1, msglvl = 0;

    SpdsSession() {
        iparm[0] = 1;
        iparm[1] = 2;
        iparm[7] = 20;
        // A structurally zero pivot that pivoting inside its block cannot
        // replace becomes 10^-iparm[9]; in single precision 10^-13 would
        // leave a factor that refinement cannot repair.
        iparm[9] = std::is_same_v<T, float> ? 6 : 13;
        iparm[10] = iparm[12] = 0;
        iparm[20] = 1;
        iparm[27] = std::is_same_v<T, float> ? 1 : 0;
    }
    ~SpdsSession() {
        int phase = -1, n = 1, nrhs = 1, error = 0, mtype = 11;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
    }
    SpdsSession(const SpdsSession&) = delete;
    SpdsSession& operator=(const SpdsSession&) = delete;

    // Matching and scaling as the type's defaults have them.
    void matchingFor(int mtype) { iparm[10] = iparm[12] = (mtype == 11 || mtype == -2) ? 1 : 0; }
    int call(int phase, const System& s, std::vector<T>* b = nullptr, std::vector<T>* x = nullptr,
             int nrhs = 1) {
        std::vector<T> a(s.a.begin(), s.a.end());
        std::vector<int> perm(static_cast<std::size_t>(s.n));
        int error = 12345, n = s.n, mtype = s.mtype;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), s.ia.data(), s.ja.data(),
             perm.data(), &nrhs, iparm, &msglvl, b ? b->data() : nullptr, x ? x->data() : nullptr,
             &error);
        return error;
    }
    int internalCode() const { return skyrinse::spds::handleOf(pt)->internalCode; }
};

template <class T>
std::vector<T> narrow(const std::vector<double>& v) {
    return std::vector<T>(v.begin(), v.end());
}
template <class T>
std::vector<double> widen(const std::vector<T>& v) {
    return std::vector<double>(v.begin(), v.end());
}

inline std::vector<double> randomVector(std::size_t count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(count);
    for (double& x : v)
        x = u(rng);
    return v;
}

} // namespace numtest

// Helpers of the solver tests: systems in the caller's one-based layout, a
// handle released on scope exit, dense references (LAPACK, a symbolic
// elimination, an assignment solver) and a heap that fails on demand.
#pragma once

#include "Handle.h"
#include "runtime/nrt.h"
#include "spds.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

extern "C" {
void dgesv_(const int* n, const int* nrhs, double* a, const int* lda, int* ipiv, double* b,
            const int* ldb, int* info);
void dsyev_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
            double* work, const int* lwork, int* info);
}

namespace spdstest {

using Entries = std::map<std::pair<int, int>, double>;

// One-based CSR with values, and the type it is meant for.
struct System {
    std::string name;
    int mtype = 11;
    int n = 0;
    std::vector<int> ia{1};
    std::vector<int> ja;
    std::vector<double> a;
};

inline bool symmetricType(int mtype) {
    return mtype == 2 || mtype == -2;
}

// CSR of `entries` (zero-based keys); symmetric types keep the upper triangle.
inline System fromEntries(std::string name, int mtype, int n, const Entries& entries) {
    System s;
    s.name = std::move(name);
    s.mtype = mtype;
    s.n = n;
    int row = 0;
    for (const auto& [pos, v] : entries) {
        if (symmetricType(mtype) && pos.second < pos.first) continue;
        for (; row < pos.first; ++row)
            s.ia.push_back(static_cast<int>(s.ja.size()) + 1);
        s.ja.push_back(pos.second + 1);
        s.a.push_back(v);
    }
    for (; row < n; ++row)
        s.ia.push_back(static_cast<int>(s.ja.size()) + 1);
    return s;
}

// A pattern with 4 on the diagonal and -0.1 elsewhere; rows as given.
inline System fromRows(int n, const std::vector<std::set<int>>& rows, int mtype = 11) {
    Entries e;
    for (int i = 0; i < n; ++i)
        for (int j : rows[static_cast<std::size_t>(i)])
            e[{i, j}] = i == j ? 4.0 : -0.1;
    System s = fromEntries("pattern", 11, n, e);
    s.mtype = mtype;
    return s;
}

// Random pattern with a full diagonal; symmetric: upper triangle stored.
inline System randomPattern(int n, double density, bool symmetric, std::mt19937& rng) {
    std::vector<std::set<int>> rows(static_cast<std::size_t>(n));
    std::uniform_int_distribution<int> pick(0, n - 1);
    for (int i = 0; i < n; ++i)
        rows[static_cast<std::size_t>(i)].insert(i);
    // One coupling at least, so that the pattern never takes the diagonal path.
    if (n > 1) rows[0].insert(n - 1);
    const long long target = static_cast<long long>(density * n * n);
    for (long long k = 0; k < target; ++k) {
        int i = pick(rng), j = pick(rng);
        if (symmetric && i > j) std::swap(i, j);
        rows[static_cast<std::size_t>(i)].insert(j);
    }
    return fromRows(n, rows, symmetric ? -2 : 11);
}

// Matting-Laplacian shape: each pixel of a w x h image coupled to its 5 x 5
// neighbourhood; upper triangle when symmetric.
inline System stencilPattern(int w, int h, bool symmetric) {
    std::vector<std::set<int>> rows(static_cast<std::size_t>(w * h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int dy = -2; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx) {
                    const int X = x + dx, Y = y + dy, i = y * w + x, j = Y * w + X;
                    if (X < 0 || Y < 0 || X >= w || Y >= h || (symmetric && j < i)) continue;
                    rows[static_cast<std::size_t>(i)].insert(j);
                }
    return fromRows(w * h, rows, symmetric ? -2 : 11);
}

// Random symmetric values (both triangles) on a chain plus random couplings,
// diagonally dominant; alternateSigns makes it indefinite.
inline Entries symmetricEntries(int n, double density, std::mt19937& rng, double diagonal,
                                bool alternateSigns) {
    Entries e;
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> pick(0, n - 1);
    for (int i = 0; i + 1 < n; ++i)
        e[{i, i + 1}] = e[{i + 1, i}] = u(rng);
    const long long extra = static_cast<long long>(density * n * n / 2);
    for (long long k = 0; k < extra; ++k) {
        const int i = pick(rng), j = pick(rng);
        if (i != j) e[{i, j}] = e[{j, i}] = u(rng);
    }
    std::vector<double> rowSum(static_cast<std::size_t>(n), 0.0);
    for (const auto& [pos, v] : e)
        rowSum[static_cast<std::size_t>(pos.first)] += std::abs(v);
    for (int i = 0; i < n; ++i)
        e[{i, i}] = (alternateSigns && i % 3 == 1 ? -1.0 : 1.0) *
                    (rowSum[static_cast<std::size_t>(i)] + diagonal);
    return e;
}

// 2D Laplacian of a w x h grid, 3 x 3 neighbourhood, diagonal shifted.
inline Entries gridEntries(int w, int h, double shift) {
    Entries e;
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

// Saddle point [K B^T; B 0]: K a grid Laplacian, B differences of
// neighbouring unknowns (independent), the zero block stored as zeros.
inline Entries saddleEntries(int w, int h, int constraints, std::mt19937& rng) {
    Entries e = gridEntries(w, h, 0.1);
    const int nk = w * h;
    std::uniform_int_distribution<int> jitter(0, 1);
    for (int c = 0; c < constraints; ++c) {
        const int row = nk + c, j = std::min(nk - 2, 3 * c + jitter(rng));
        e[{row, j}] = e[{j, row}] = 1.0;
        e[{row, j + 1}] = e[{j + 1, row}] = -1.0;
        e[{row, row}] = 0.0;
    }
    return e;
}

// Unsymmetric values on a structurally unsymmetric pattern.
inline Entries unsymmetricEntries(int n, double density, std::mt19937& rng) {
    Entries e;
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

// ---- dense references -----------------------------------------------------

// Column-major dense matrix, both triangles filled.
inline std::vector<double> dense(const System& s, bool transpose = false) {
    const std::size_t n = static_cast<std::size_t>(s.n);
    std::vector<double> d(n * n, 0.0);
    for (int i = 0; i < s.n; ++i)
        for (int p = s.ia[i] - 1; p < s.ia[i + 1] - 1; ++p) {
            const std::size_t j = static_cast<std::size_t>(s.ja[p] - 1), ii = i;
            const std::size_t r = transpose ? j : ii, c = transpose ? ii : j;
            d[c * n + r] += s.a[p];
            if (symmetricType(s.mtype) && ii != j) d[r * n + c] += s.a[p];
        }
    return d;
}

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
    std::vector<double> d = dense(s), w(static_cast<std::size_t>(s.n));
    int lwork = -1, info = 0;
    double query = 0;
    dsyev_("N", "L", &s.n, d.data(), &s.n, w.data(), &query, &lwork, &info);
    lwork = static_cast<int>(query);
    std::vector<double> work(static_cast<std::size_t>(lwork));
    dsyev_("N", "L", &s.n, d.data(), &s.n, w.data(), work.data(), &lwork, &info);
    const int pos =
        static_cast<int>(std::count_if(w.begin(), w.end(), [](double v) { return v > 0; }));
    return {pos, s.n - pos};
}

// Largest ||A x - b|| / ||b|| over the nrhs columns.
inline double relativeResidual(const System& s, const std::vector<double>& x,
                               const std::vector<double>& b, int nrhs, bool transpose = false) {
    const std::vector<double> d = dense(s, transpose);
    const std::size_t n = static_cast<std::size_t>(s.n);
    double worst = 0;
    for (std::size_t j = 0; j < static_cast<std::size_t>(nrhs); ++j) {
        double rr = 0, bb = 0;
        for (std::size_t i = 0; i < n; ++i) {
            double v = -b[j * n + i];
            for (std::size_t k = 0; k < n; ++k)
                v += d[k * n + i] * x[j * n + k];
            rr += v * v;
            bb += b[j * n + i] * b[j * n + i];
        }
        worst = std::max(worst, std::sqrt(rr) / std::sqrt(bb > 0 ? bb : 1.0));
    }
    return worst;
}

// Normwise backward error |b - A x|_inf / (|A|_inf |x|_inf + |b|_inf), in double.
inline double backwardError(const System& s, const std::vector<double>& x,
                            const std::vector<double>& b, bool transpose = false) {
    const std::vector<double> d = dense(s, transpose);
    const std::size_t n = static_cast<std::size_t>(s.n);
    double r = 0, an = 0, xn = 0, bn = 0;
    for (std::size_t i = 0; i < n; ++i) {
        double v = b[i], row = 0;
        for (std::size_t k = 0; k < n; ++k) {
            v -= d[k * n + i] * x[k];
            row += std::abs(d[k * n + i]);
        }
        r = std::max(r, std::abs(v));
        an = std::max(an, row);
        xn = std::max(xn, std::abs(x[i]));
        bn = std::max(bn, std::abs(b[i]));
    }
    if (!std::isfinite(r) || !std::isfinite(xn)) return std::numeric_limits<double>::infinity();
    return r == 0 ? 0 : r / (an * xn + bn);
}

inline double relativeDifference(const std::vector<double>& x, const std::vector<double>& y) {
    double dd = 0, yy = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        dd += (x[i] - y[i]) * (x[i] - y[i]);
        yy += y[i] * y[i];
    }
    return std::sqrt(dd) / std::sqrt(yy > 0 ? yy : 1.0);
}

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

// Dense symbolic elimination of the symmetrised pattern in the order perm
// (perm[k] = zero-based column at position k): rows i > k of column k of L.
inline std::vector<std::vector<int>> bruteForceFactor(const System& m,
                                                      const std::vector<int>& perm) {
    const std::size_t n = static_cast<std::size_t>(m.n);
    std::vector<std::size_t> invp(n);
    for (std::size_t k = 0; k < n; ++k)
        invp[static_cast<std::size_t>(perm[k])] = k;
    std::vector<std::vector<char>> d(n, std::vector<char>(n, 0));
    for (std::size_t i = 0; i < n; ++i)
        for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
            const std::size_t pi = invp[i], pj = invp[static_cast<std::size_t>(m.ja[k] - 1)];
            d[std::max(pi, pj)][std::min(pi, pj)] = 1;
        }
    std::vector<std::vector<int>> cols(n);
    for (std::size_t k = 0; k < n; ++k) {
        std::vector<int>& c = cols[k];
        for (std::size_t i = k + 1; i < n; ++i)
            if (d[i][k]) c.push_back(static_cast<int>(i));
        for (std::size_t a = 0; a < c.size(); ++a)
            for (std::size_t b = 0; b < a; ++b)
                d[static_cast<std::size_t>(c[a])][static_cast<std::size_t>(c[b])] = 1;
    }
    return cols;
}

// ---- the entry --------------------------------------------------------------

// One handle, calls in precision T (values converted from the system's),
// phase -1 at scope exit. iparm starts all zero: the solver's defaults.
template <class T = double>
struct Spds {
    void* pt[64] = {};
    int iparm[64] = {};
    int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0;
    std::vector<int> perm;

    Spds() = default;
    ~Spds() { release(); }
    Spds(const Spds&) = delete;
    Spds& operator=(const Spds&) = delete;

    // A factor-and-solve run: two refinement steps, matching where the photo tool uses it.
    Spds& solveDefaults(int mtype) {
        iparm[0] = 1;
        iparm[1] = 2;
        iparm[7] = 2;
        iparm[9] = (mtype == 11 || mtype == 1) ? 13 : 8;
        iparm[10] = iparm[12] = (mtype == 11 || mtype == -2) ? 1 : 0;
        iparm[20] = 1;
        iparm[27] = std::is_same_v<T, float> ? 1 : 0;
        return *this;
    }
    // Calls that change type and matrix; 10^-13 pivots would be beyond repair in single.
    Spds& sessionDefaults() {
        solveDefaults(0);
        iparm[7] = 20;
        iparm[9] = std::is_same_v<T, float> ? 6 : 13;
        return *this;
    }
    // Matching and scaling as the type's defaults have them.
    void matchingFor(int mtype) { iparm[10] = iparm[12] = (mtype == 11 || mtype == -2) ? 1 : 0; }

    // Double values are handed over as the caller's own arrays.
    int call(int phase, const System& s, std::vector<T>* b = nullptr, std::vector<T>* x = nullptr) {
        if constexpr (std::is_same_v<T, double>) {
            return call(phase, s.mtype, s.n, s.a.data(), s.ia.data(), s.ja.data(), b, x);
        } else {
            const std::vector<T> a(s.a.begin(), s.a.end());
            return call(phase, s.mtype, s.n, a.data(), s.ia.data(), s.ja.data(), b, x);
        }
    }
    int call(int phase, int mtype, int n, const void* a, const int* ia, const int* ja,
             std::vector<T>* b = nullptr, std::vector<T>* x = nullptr) {
        if (perm.size() < static_cast<std::size_t>(std::max(1, n)))
            perm.resize(static_cast<std::size_t>(std::max(1, n)));
        int error = 12345;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm.data(), &nrhs, iparm, &msglvl,
             b ? b->data() : nullptr, x ? x->data() : nullptr, &error);
        return error;
    }
    void release() {
        int phase = -1, n = 1, mtype = 11, error = 0;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
    }
    skyrinse::spds::Handle* handle() const { return skyrinse::spds::handleOf(pt); }
    int internalCode() const { return handle()->internalCode; }
};

// A handle bound to one system, with the parameters of a factor-and-solve run.
template <class T>
struct SpdsRun : Spds<T> {
    const System& sys;
    explicit SpdsRun(const System& s) : sys(s) { this->solveDefaults(s.mtype); }
    int call(int phase, std::vector<T>* b = nullptr, std::vector<T>* x = nullptr, int count = 1) {
        this->nrhs = count;
        return Spds<T>::call(phase, sys, b, x);
    }
};

// A handle whose calls change type and matrix.
template <class T>
struct SpdsSession : Spds<T> {
    SpdsSession() { this->sessionDefaults(); }
    int call(int phase, const System& s, std::vector<T>* b = nullptr, std::vector<T>* x = nullptr,
             int count = 1) {
        this->nrhs = count;
        return Spds<T>::call(phase, s, b, x);
    }
};

// ---- matching ---------------------------------------------------------------

// One-based compressed rows with sorted columns and values of type T.
template <class T>
struct Csr {
    int n = 0;
    std::vector<int> ia{1};
    std::vector<int> ja;
    std::vector<T> a;

    int nnz() const { return ia[n] - 1; }
    int find(int i, int j) const { // position of (i, j), zero-based; -1 if not stored
        for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k)
            if (ja[k] - 1 == j) return k;
        return -1;
    }
    T at(int i, int j) const { return find(i, j) < 0 ? T(0) : a[find(i, j)]; }
    bool stored(int i, int j) const { return find(i, j) >= 0; }
    bool operator==(const Csr&) const = default;
};

template <class T>
Csr<T> csrFromRows(int n, std::vector<std::vector<std::pair<int, T>>> rows) {
    Csr<T> m;
    m.n = n;
    for (auto& r : rows) {
        std::sort(r.begin(), r.end(),
                  [](const auto& x, const auto& y) { return x.first < y.first; });
        for (const auto& [j, v] : r) {
            m.ja.push_back(j + 1);
            m.a.push_back(v);
        }
        m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
    }
    return m;
}

template <class T>
Csr<T> csrOf(const System& s) {
    return {s.n, s.ia, s.ja, std::vector<T>(s.a.begin(), s.a.end())};
}

// Magnitude 10^-3 .. 10^3, random sign.
template <class T>
T randomValue(std::mt19937& rng) {
    std::uniform_real_distribution<double> e(-3.0, 3.0);
    std::bernoulli_distribution s(0.5);
    const double x = std::pow(10.0, e(rng));
    return static_cast<T>(s(rng) ? x : -x);
}

// About perRow entries a row around a hidden permutation, so that a perfect
// matching always exists. symmetric: upper triangle of a symmetric matrix,
// and with zeroDiagonal some diagonals missing or stored as 0.
template <class T>
Csr<T> randomMatrix(int n, int perRow, std::mt19937& rng, bool symmetric = false,
                    bool zeroDiagonal = false) {
    std::vector<int> hidden(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        hidden[i] = i;
    std::shuffle(hidden.begin(), hidden.end(), rng);
    std::uniform_int_distribution<int> col(0, n - 1);
    std::bernoulli_distribution coin(0.3);
    std::vector<std::set<int>> pattern(static_cast<std::size_t>(n));
    auto add = [&](int i, int j) {
        if (symmetric)
            pattern[std::min(i, j)].insert(std::max(i, j));
        else
            pattern[i].insert(j);
    };
    for (int i = 0; i < n; ++i) {
        add(i, hidden[i]);
        if (symmetric && (!zeroDiagonal || coin(rng))) add(i, i);
        for (int t = 1; t < perRow; ++t)
            add(i, col(rng));
    }
    std::vector<std::vector<std::pair<int, T>>> rows(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        for (int j : pattern[i])
            rows[i].push_back(
                {j, (zeroDiagonal && i == j && coin(rng)) ? T(0) : randomValue<T>(rng)});
    return csrFromRows<T>(n, rows);
}

template <class T>
double symmetricAt(const Csr<T>& m, int i, int j) {
    return static_cast<double>(i <= j ? m.at(i, j) : m.at(j, i));
}

// Largest sum of log|a| over perfect matchings of stored non-zero entries,
// by the O(n^3) Hungarian method on the costs -log|a|.
template <class F>
double bestLogProduct(int n, F value) {
    const double inf = std::numeric_limits<double>::infinity();
    auto cost = [&](int i, int j) {
        const double x = std::abs(static_cast<double>(value(i, j)));
        return x > 0 ? -std::log(x) : 1e7;
    };
    std::vector<double> u(n + 1, 0.0), v(n + 1, 0.0), minv(n + 1);
    std::vector<int> p(n + 1, 0), way(n + 1, 0);
    std::vector<char> used(n + 1);
    for (int i = 1; i <= n; ++i) {
        p[0] = i;
        int j0 = 0;
        std::fill(minv.begin(), minv.end(), inf);
        std::fill(used.begin(), used.end(), 0);
        do {
            used[j0] = 1;
            const int i0 = p[j0];
            double delta = inf;
            int j1 = 0;
            for (int j = 1; j <= n; ++j) {
                if (used[j]) continue;
                const double cur = cost(i0 - 1, j - 1) - u[i0] - v[j];
                if (cur < minv[j]) {
                    minv[j] = cur;
                    way[j] = j0;
                }
                if (minv[j] < delta) {
                    delta = minv[j];
                    j1 = j;
                }
            }
            for (int j = 0; j <= n; ++j) {
                if (used[j]) {
                    u[p[j]] += delta;
                    v[j] -= delta;
                } else {
                    minv[j] -= delta;
                }
            }
            j0 = j1;
        } while (p[j0] != 0);
        do {
            const int j1 = way[j0];
            p[j0] = p[j1];
            j0 = j1;
        } while (j0);
    }
    double sum = 0;
    for (int j = 1; j <= n; ++j)
        sum += std::log(std::abs(static_cast<double>(value(p[j] - 1, j - 1))));
    return sum;
}

inline bool isPermutation(const int* p, int n, int base) {
    std::vector<char> seen(static_cast<std::size_t>(n), 0);
    for (int k = 0; k < n; ++k) {
        const int x = p[k] - base;
        if (x < 0 || x >= n || seen[x]) return false;
        seen[x] = 1;
    }
    return true;
}

// ---- allocation failures ------------------------------------------------------

// Installs a system heap that fails allocation number failAt (counted from
// 0), or every one from failAt on, and counts the blocks not given back.
class FailingHeap {
public:
    explicit FailingHeap(long failAt, bool fromThereOn = true) {
        state() = {0, 0, failAt, fromThereOn};
        const nrt_heap_ops ops{&heapMalloc, &heapCalloc, &heapRealloc, &heapFree};
        nrt_set_heap_ops(&ops);
    }
    ~FailingHeap() { nrt_set_heap_ops(nullptr); }
    FailingHeap(const FailingHeap&) = delete;
    FailingHeap& operator=(const FailingHeap&) = delete;

    long live() const { return state().live; }
    void stopFailing() { state().failAt = -1; }
    void failAt(long index) {
        state().allocations = 0;
        state().failAt = index;
    }

private:
    struct State {
        long allocations, live, failAt;
        bool fromThereOn;
    };
    static State& state() {
        static State s{};
        return s;
    }
    static bool failNow() {
        State& s = state();
        const long index = s.allocations++;
        return s.failAt >= 0 && (s.fromThereOn ? index >= s.failAt : index == s.failAt);
    }
    static void* counted(void* p) {
        if (p) ++state().live;
        return p;
    }
    static void* heapMalloc(std::size_t size) {
        return failNow() ? nullptr : counted(std::malloc(size));
    }
    static void* heapCalloc(std::size_t count, std::size_t size) {
        return failNow() ? nullptr : counted(std::calloc(count, size));
    }
    static void* heapRealloc(void* old, std::size_t size) {
        if (failNow()) return nullptr;
        void* p = std::realloc(old, size);
        return old ? p : counted(p);
    }
    static void heapFree(void* p) {
        if (p) --state().live;
        std::free(p);
    }
};

} // namespace spdstest

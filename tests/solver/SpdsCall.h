// Helpers of the solver tests: a handle that is released on scope exit,
// random sparse patterns, and a dense symbolic elimination to compare with.
#pragma once

#include "Handle.h"
#include "spds.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

namespace spdstest {

// One-based CSR of a pattern (values 1 on the diagonal, small elsewhere).
struct Matrix {
    int n = 0;
    std::vector<int> ia{1};
    std::vector<int> ja;
    std::vector<double> a;
};

inline Matrix fromRows(int n, const std::vector<std::set<int>>& rows) {
    Matrix m;
    m.n = n;
    for (int i = 0; i < n; ++i) {
        for (int j : rows[static_cast<std::size_t>(i)]) {
            m.ja.push_back(j + 1);
            m.a.push_back(i == j ? 4.0 : -0.1);
        }
        m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
    }
    return m;
}

// Random pattern with a full diagonal. symmetric: upper triangle stored.
inline Matrix randomMatrix(int n, double density, bool symmetric, std::mt19937& rng) {
    std::vector<std::set<int>> rows(static_cast<std::size_t>(n));
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::uniform_int_distribution<int> pick(0, n - 1);
    const long long target = static_cast<long long>(density * n * n);
    for (int i = 0; i < n; ++i)
        rows[static_cast<std::size_t>(i)].insert(i);
    // One coupling at least, so that the pattern never takes the diagonal path.
    if (n > 1) rows[0].insert(n - 1);
    for (long long k = 0; k < target; ++k) {
        int i = pick(rng), j = pick(rng);
        if (symmetric && i > j) std::swap(i, j);
        rows[static_cast<std::size_t>(i)].insert(j);
    }
    return fromRows(n, rows);
}

// Matting-Laplacian shape: every pixel of a w x h image coupled to the
// pixels of its 5 x 5 neighbourhood; upper triangle when symmetric.
inline Matrix stencilMatrix(int w, int h, bool symmetric) {
    const int n = w * h;
    std::vector<std::set<int>> rows(static_cast<std::size_t>(n));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int dy = -2; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx) {
                    const int X = x + dx, Y = y + dy;
                    if (X < 0 || Y < 0 || X >= w || Y >= h) continue;
                    const int i = y * w + x, j = Y * w + X;
                    if (!symmetric || j >= i) rows[static_cast<std::size_t>(i)].insert(j);
                }
    return fromRows(n, rows);
}

// A handle with phase -1 at scope exit.
struct Solver {
    void* pt[64] = {};
    int iparm[64] = {};
    int maxfct = 1, mnum = 1, mtype = 11, nrhs = 1, msglvl = 0;
    std::vector<int> perm;

    Solver() { iparm[0] = 0; }
    ~Solver() { release(); }
    Solver(const Solver&) = delete;
    Solver& operator=(const Solver&) = delete;

    int call(int phase, const Matrix& m, void* b = nullptr, void* x = nullptr) {
        int error = 12345;
        int n = m.n;
        if (perm.size() < static_cast<std::size_t>(std::max(1, n)))
            perm.resize(static_cast<std::size_t>(std::max(1, n)));
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, m.a.data(), m.ia.data(), m.ja.data(),
             perm.data(), &nrhs, iparm, &msglvl, b, x, &error);
        return error;
    }
    void release() {
        int phase = -1, n = 1, error = 0;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
    }
    skyrinse::spds::Handle* handle() const { return skyrinse::spds::handleOf(pt); }
};

// Dense symbolic elimination of the symmetrised pattern in the order perm
// (perm[k] = zero-based column eliminated at position k). Returns the lower
// triangle pattern of L by position: pattern[j] = rows i > j of column j.
inline std::vector<std::vector<int>> bruteForceFactor(const Matrix& m,
                                                      const std::vector<int>& perm) {
    const int n = m.n;
    std::vector<int> invp(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k)
        invp[static_cast<std::size_t>(perm[static_cast<std::size_t>(k)])] = k;
    std::vector<std::vector<char>> d(static_cast<std::size_t>(n),
                                     std::vector<char>(static_cast<std::size_t>(n), 0));
    for (int i = 0; i < n; ++i)
        for (int k = m.ia[static_cast<std::size_t>(i)] - 1;
             k < m.ia[static_cast<std::size_t>(i) + 1] - 1; ++k) {
            const int j = m.ja[static_cast<std::size_t>(k)] - 1;
            const int pi = invp[static_cast<std::size_t>(i)],
                      pj = invp[static_cast<std::size_t>(j)];
            d[static_cast<std::size_t>(std::max(pi, pj))]
             [static_cast<std::size_t>(std::min(pi, pj))] = 1;
        }
    std::vector<std::vector<int>> cols(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k) {
        std::vector<int>& c = cols[static_cast<std::size_t>(k)];
        for (int i = k + 1; i < n; ++i)
            if (d[static_cast<std::size_t>(i)][static_cast<std::size_t>(k)]) c.push_back(i);
        for (std::size_t a = 0; a < c.size(); ++a)
            for (std::size_t b = 0; b < a; ++b)
                d[static_cast<std::size_t>(c[a])][static_cast<std::size_t>(c[b])] = 1;
    }
    return cols;
}

} // namespace spdstest

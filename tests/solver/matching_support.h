// Helpers shared by the tests of the matching, scaling and pair ordering:
// random sparse matrices in the caller's one-based layout, a dense
// assignment solver to compare optima with, and a heap that fails on demand.
#pragma once

#include "runtime/nrt.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <set>
#include <vector>

namespace matching_test {

// One-based compressed rows with sorted columns, as the solver's entry takes them.
template <class T>
struct Csr {
    int n = 0;
    std::vector<int> ia;
    std::vector<int> ja;
    std::vector<T> a;

    int nnz() const { return ia[n] - 1; }
    // Value of entry (i, j), zero-based; 0 when not stored.
    T at(int i, int j) const {
        for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k)
            if (ja[k] - 1 == j) return a[k];
        return T(0);
    }
    bool stored(int i, int j) const {
        for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k)
            if (ja[k] - 1 == j) return true;
        return false;
    }
};

// Builds compressed rows from (row, col) -> value, zero-based keys.
template <class T>
Csr<T> fromEntries(int n, const std::vector<std::vector<std::pair<int, T>>>& rows) {
    Csr<T> m;
    m.n = n;
    m.ia.push_back(1);
    for (int i = 0; i < n; ++i) {
        auto r = rows[i];
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

// A random value of magnitude 10^-3 .. 10^3 and random sign.
template <class T>
T randomValue(std::mt19937& rng) {
    std::uniform_real_distribution<double> e(-3.0, 3.0);
    std::bernoulli_distribution s(0.5);
    const double x = std::pow(10.0, e(rng));
    return static_cast<T>(s(rng) ? x : -x);
}

// Random unsymmetric matrix with about `perRow` entries a row; a hidden
// random permutation is stored too, so a perfect matching always exists.
template <class T>
Csr<T> randomUnsymmetric(int n, int perRow, std::mt19937& rng) {
    std::vector<std::vector<std::pair<int, T>>> rows(n);
    std::vector<int> hidden(n);
    for (int i = 0; i < n; ++i)
        hidden[i] = i;
    std::shuffle(hidden.begin(), hidden.end(), rng);
    std::uniform_int_distribution<int> col(0, n - 1);
    for (int i = 0; i < n; ++i) {
        std::set<int> cols{hidden[i]};
        for (int t = 1; t < perRow; ++t)
            cols.insert(col(rng));
        for (int j : cols)
            rows[i].push_back({j, randomValue<T>(rng)});
    }
    return fromEntries<T>(n, rows);
}

// Random symmetric matrix stored by its upper triangle. With zeroDiagonal a
// diagonal entry is stored only for some rows, and some stored ones are 0.
template <class T>
Csr<T> randomSymmetricUpper(int n, int perRow, std::mt19937& rng, bool zeroDiagonal) {
    std::vector<std::set<int>> pattern(n);
    std::uniform_int_distribution<int> col(0, n - 1);
    std::vector<int> hidden(n);
    for (int i = 0; i < n; ++i)
        hidden[i] = i;
    std::shuffle(hidden.begin(), hidden.end(), rng);
    std::bernoulli_distribution coin(0.3);
    for (int i = 0; i < n; ++i) {
        const int h = hidden[i];
        pattern[std::min(i, h)].insert(std::max(i, h));
        if (!zeroDiagonal || coin(rng)) pattern[i].insert(i);
        for (int t = 1; t < perRow; ++t) {
            const int j = col(rng);
            pattern[std::min(i, j)].insert(std::max(i, j));
        }
    }
    std::vector<std::vector<std::pair<int, T>>> rows(n);
    for (int i = 0; i < n; ++i)
        for (int j : pattern[i])
            rows[i].push_back(
                {j, (zeroDiagonal && i == j && coin(rng)) ? T(0) : randomValue<T>(rng)});
    return fromEntries<T>(n, rows);
}

// Dense full value of a symmetric matrix stored by its upper triangle.
template <class T>
double symmetricAt(const Csr<T>& m, int i, int j) {
    return static_cast<double>(i <= j ? m.at(i, j) : m.at(j, i));
}

// Minimum-cost perfect assignment of a dense n x n cost matrix (row-major),
// by the O(n^3) Hungarian method with potentials. Returns the row of each
// column.
inline std::vector<int> hungarian(int n, const std::vector<double>& cost) {
    const double inf = std::numeric_limits<double>::infinity();
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
                const double cur = cost[(i0 - 1) * n + (j - 1)] - u[i0] - v[j];
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
    std::vector<int> rowOfCol(n);
    for (int j = 1; j <= n; ++j)
        rowOfCol[j - 1] = p[j] - 1;
    return rowOfCol;
}

// Largest sum of log|a| over perfect matchings that use stored non-zero
// entries only; `value(i, j)` gives the entry or 0.
template <class F>
double bestLogProduct(int n, F value) {
    constexpr double kForbidden = 1e7;
    std::vector<double> cost(static_cast<std::size_t>(n) * n, kForbidden);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            const double x = std::abs(static_cast<double>(value(i, j)));
            if (x > 0) cost[i * n + j] = -std::log(x);
        }
    const std::vector<int> rowOf = hungarian(n, cost);
    double sum = 0;
    for (int j = 0; j < n; ++j)
        sum += std::log(std::abs(static_cast<double>(value(rowOf[j], j))));
    return sum;
}

// Size of a maximum matching on the non-zero pattern (augmenting paths).
template <class F>
int maximumCardinality(int n, F nonzero) {
    std::vector<int> rowOf(n, -1);
    std::vector<char> seen;
    auto tryRow = [&](auto&& self, int i) -> bool {
        for (int j = 0; j < n; ++j) {
            if (!nonzero(i, j) || seen[j]) continue;
            seen[j] = 1;
            if (rowOf[j] < 0 || self(self, rowOf[j])) {
                rowOf[j] = i;
                return true;
            }
        }
        return false;
    };
    int count = 0;
    for (int i = 0; i < n; ++i) {
        seen.assign(n, 0);
        if (tryRow(tryRow, i)) ++count;
    }
    return count;
}

inline bool isPermutation(const int* p, int n, int base) {
    std::vector<char> seen(n, 0);
    for (int k = 0; k < n; ++k) {
        const int x = p[k] - base;
        if (x < 0 || x >= n || seen[x]) return false;
        seen[x] = 1;
    }
    return true;
}

// A system heap that fails from a chosen allocation on and counts the
// blocks it handed out that were not given back.
struct FailingHeapState {
    std::atomic<long> allocations{0};
    std::atomic<long> live{0};
    long failAt = -1; // index of the first allocation that fails; -1 never
};

inline FailingHeapState& failingHeapState() {
    static FailingHeapState s;
    return s;
}

inline bool failNow() {
    FailingHeapState& s = failingHeapState();
    const long index = s.allocations++;
    return s.failAt >= 0 && index >= s.failAt;
}
inline void* failingMalloc(std::size_t size) {
    if (failNow()) return nullptr;
    void* p = std::malloc(size);
    if (p) ++failingHeapState().live;
    return p;
}
inline void* failingCalloc(std::size_t count, std::size_t size) {
    if (failNow()) return nullptr;
    void* p = std::calloc(count, size);
    if (p) ++failingHeapState().live;
    return p;
}
inline void* failingRealloc(void* old, std::size_t size) {
    if (failNow()) return nullptr;
    void* p = std::realloc(old, size);
    if (p && !old) ++failingHeapState().live;
    return p;
}
inline void failingFree(void* p) {
    if (p) --failingHeapState().live;
    std::free(p);
}

// Installs the failing heap for the life of the object.
class FailingHeap {
public:
    explicit FailingHeap(long failAt) {
        FailingHeapState& s = failingHeapState();
        s.allocations = 0;
        s.live = 0;
        s.failAt = failAt;
        const nrt_heap_ops ops{&failingMalloc, &failingCalloc, &failingRealloc, &failingFree};
        nrt_set_heap_ops(&ops);
    }
    ~FailingHeap() { nrt_set_heap_ops(nullptr); }
    FailingHeap(const FailingHeap&) = delete;
    FailingHeap& operator=(const FailingHeap&) = delete;

    long live() const { return failingHeapState().live; }
    long allocations() const { return failingHeapState().allocations; }
};

} // namespace matching_test

// Maximum-product matching by shortest augmenting paths.
//
// The product of |a| over a matching is largest when the sum of
//     c(i, j) = log(max over i' of |a(i', j)|) - log |a(i, j)|     (>= 0)
// is smallest, so the matching is an assignment problem on these costs. It
// is solved with dual values u (rows) and d (columns) kept feasible,
// c(i, j) - u[i] - d[j] >= 0, and tight on every matched entry:
//
//  1. A greedy start: u[i] is the smallest cost of row i, d is 0 (every
//     column has a cost of 0 at its largest entry), and each row takes a
//     free column at a cost of exactly u[i]; a second sweep lets a row take
//     such a column from a row that can move to another free one.
//  2. For each row still free, a Dijkstra search over the reduced costs,
//     driven by a binary heap of columns keyed by distance, finds the
//     cheapest way to a free column (an augmenting path). Columns whose
//     distance ties the current lowest one skip the heap and go on a list of
//     the current level; the search stops as soon as no column in the heap
//     can beat the best free column found. The duals then move by the final
//     distance minus each visited node's distance, which keeps them feasible
//     and makes the new path tight.
//
// At the end exp(u[i]) |a(i, j)| exp(d[j] - log max_j) = exp(u + d - c) is at
// most 1 and exactly 1 on the matching; that is the scaling handed out.
// Distances start at the largest float in both precisions, so that the two
// copies of the solver search the same graph the same way.
#include "WeightedMatching.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace skyrinse::spds {

namespace {

constexpr int kIntegerWork = -401;
constexpr int kCostWork = -402;
constexpr double kTieTolerance = 2.220446049250313e-16;

template <class T>
constexpr T unreached() {
    return static_cast<T>(std::numeric_limits<float>::max());
}

template <class T>
bool usable(T x) {
    const T m = std::abs(x);
    return m > T(0) && m <= std::numeric_limits<T>::max();
}

// Column i of the cost graph is row i of A; logMax[j] receives the log of the
// largest |a| of column j (0 for a column without entries).
template <class T>
CsrMatrix<T> buildCostGraph(const SparseView<T>& A, std::span<T> logMax, MemoryCounter* counter) {
    const int n = A.rows;
    std::int64_t kept = 0;
    for (int i = 0; i < n; ++i)
        for (std::int64_t k = A.begin(i); k < A.end(i); ++k)
            if (usable(A.a[k])) ++kept;
    if (kept > std::numeric_limits<int>::max()) throw AllocationFailure{kCostWork, kept};

    CsrMatrix<T> c = CsrMatrix<T>::create(n, static_cast<int>(kept), counter, kCostWork);
    std::fill(logMax.begin(), logMax.end(), T(0));
    int p = 0;
    for (int i = 0; i < n; ++i) {
        c.ia[i] = p;
        for (std::int64_t k = A.begin(i); k < A.end(i); ++k) {
            if (!usable(A.a[k])) continue;
            const int j = A.col(k);
            const T m = std::abs(A.a[k]);
            c.ja[p] = j;
            c.m[p++] = m;
            logMax[j] = std::max(logMax[j], m);
        }
    }
    c.ia[n] = p;
    for (T& x : logMax)
        x = x > T(0) ? std::log(x) : T(0);
    for (int k = 0; k < p; ++k)
        c.m[k] = std::max(T(0), logMax[c.ja[k]] - std::log(c.m[k]));
    return c;
}

// Binary min-heap of columns keyed by an outside distance array, with the
// position of each column so that a key can be lowered in place.
template <class T>
class ColumnHeap {
public:
    ColumnHeap(int n, MemoryCounter* counter)
        : m_heap(n, kIntegerWork, counter), m_pos(n, kIntegerWork, counter) {
        std::fill(m_pos.begin(), m_pos.end(), -1);
    }

    bool empty() const { return m_size == 0; }
    int top() const { return m_heap[0]; }
    bool contains(int j) const { return m_pos[j] >= 0; }

    void pushOrLower(int j, const T* key) {
        if (m_pos[j] < 0) {
            m_heap[m_size] = j;
            m_pos[j] = m_size++;
        }
        up(m_pos[j], key);
    }
    int pop(const T* key) {
        const int j = m_heap[0];
        removeAt(0, key);
        return j;
    }
    void remove(int j, const T* key) {
        if (m_pos[j] >= 0) removeAt(m_pos[j], key);
    }
    void clear() {
        for (int p = 0; p < m_size; ++p)
            m_pos[m_heap[p]] = -1;
        m_size = 0;
    }

private:
    void place(int p, int j) {
        m_heap[p] = j;
        m_pos[j] = p;
    }
    void up(int p, const T* key) {
        const int j = m_heap[p];
        while (p > 0) {
            const int parent = (p - 1) / 2;
            if (!(key[j] < key[m_heap[parent]])) break;
            place(p, m_heap[parent]);
            p = parent;
        }
        place(p, j);
    }
    void down(int p, const T* key) {
        const int j = m_heap[p];
        for (;;) {
            int child = 2 * p + 1;
            if (child >= m_size) break;
            if (child + 1 < m_size && key[m_heap[child + 1]] < key[m_heap[child]]) ++child;
            if (!(key[m_heap[child]] < key[j])) break;
            place(p, m_heap[child]);
            p = child;
        }
        place(p, j);
    }
    void removeAt(int p, const T* key) {
        m_pos[m_heap[p]] = -1;
        --m_size;
        if (p == m_size) return;
        const int moved = m_heap[m_size];
        place(p, moved);
        up(p, key);
        down(m_pos[moved], key);
    }

    IntBlock m_heap;
    IntBlock m_pos;
    int m_size = 0;
};

enum ColumnState : int { kUntouched = 0, kTentative = 1, kLevel = 2, kDone = 3 };

template <class T>
class AugmentingSearch {
public:
    AugmentingSearch(const CsrMatrix<T>& cost, std::span<int> match, std::span<int> colOfRow,
                     std::span<T> rowDual, std::span<T> colDual, MemoryCounter* counter)
        : m_cost(cost), m_match(match), m_colOfRow(colOfRow), m_u(rowDual), m_d(colDual),
          m_heap(cost.n, counter), m_dist(cost.n, kCostWork, counter),
          m_pred(cost.n, kIntegerWork, counter), m_state(cost.n, kIntegerWork, counter),
          m_touched(cost.n, kIntegerWork, counter), m_level(cost.n, kIntegerWork, counter),
          m_done(cost.n, kIntegerWork, counter) {
        std::fill(m_dist.begin(), m_dist.end(), unreached<T>());
    }

    // Augments the matching from free row i0; false when no free column can
    // be reached from it.
    bool augment(int i0) {
        m_bound = unreached<T>();
        m_end = -1;
        m_levelDist = T(0);
        relax(i0, T(0));
        for (;;) {
            if (m_levelCount == 0) {
                if (m_heap.empty()) break;
                const int j = m_heap.top();
                if (!(m_dist[j] < m_bound)) break;
                m_heap.pop(m_dist.data());
                m_levelDist = m_dist[j];
                m_state[j] = kLevel;
                m_level[m_levelCount++] = j;
            }
            const int j = m_level[--m_levelCount];
            m_state[j] = kDone;
            m_done[m_doneCount++] = j;
            relax(m_match[j], m_dist[j]);
        }
        const bool found = m_end >= 0;
        if (found) {
            updateDuals(i0);
            flipPath(i0);
        }
        reset();
        return found;
    }

private:
    void relax(int i, T di) {
        const T tolerance = static_cast<T>(kTieTolerance * m_levelDist);
        for (int k = m_cost.ia[i]; k < m_cost.ia[i + 1]; ++k) {
            const int j = m_cost.ja[k];
            if (m_state[j] >= kLevel) continue;
            const T d = di + m_cost.m[k] - m_u[i] - m_d[j];
            if (!(d < m_bound) || !(d < m_dist[j])) continue;
            if (m_state[j] == kUntouched) {
                m_state[j] = kTentative;
                m_touched[m_touchedCount++] = j;
            }
            m_dist[j] = d;
            m_pred[j] = i;
            if (m_match[j] < 0) {
                // A free column ends a path; nothing beyond it is searched.
                m_bound = d;
                m_end = j;
            } else if (d <= m_levelDist + tolerance) {
                m_heap.remove(j, m_dist.data());
                m_state[j] = kLevel;
                m_level[m_levelCount++] = j;
            } else {
                m_heap.pushOrLower(j, m_dist.data());
            }
        }
    }

    void updateDuals(int i0) {
        const T total = m_bound;
        m_u[i0] += total;
        for (int t = 0; t < m_doneCount; ++t) {
            const int j = m_done[t];
            const T delta = total - m_dist[j];
            m_u[m_match[j]] += delta;
            m_d[j] -= delta;
        }
    }

    void flipPath(int i0) {
        int j = m_end;
        for (;;) {
            const int i = m_pred[j];
            const int previous = m_colOfRow[i];
            m_match[j] = i;
            m_colOfRow[i] = j;
            if (i == i0) break;
            j = previous;
        }
    }

    void reset() {
        for (int t = 0; t < m_touchedCount; ++t) {
            m_dist[m_touched[t]] = unreached<T>();
            m_state[m_touched[t]] = kUntouched;
        }
        m_heap.clear();
        m_touchedCount = m_levelCount = m_doneCount = 0;
    }

    const CsrMatrix<T>& m_cost;
    std::span<int> m_match;
    std::span<int> m_colOfRow;
    std::span<T> m_u;
    std::span<T> m_d;
    ColumnHeap<T> m_heap;
    Block<T> m_dist;
    IntBlock m_pred;
    IntBlock m_state;
    IntBlock m_touched;
    IntBlock m_level;
    IntBlock m_done;
    int m_touchedCount = 0;
    int m_levelCount = 0;
    int m_doneCount = 0;
    T m_bound = unreached<T>();
    T m_levelDist = T(0);
    int m_end = -1;
};

// Rows take columns whose cost equals the row's smallest one.
template <class T>
int greedyStart(const CsrMatrix<T>& c, std::span<int> match, std::span<int> colOfRow,
                std::span<const T> u, BitVector& matchedRows) {
    const int n = c.n;
    int count = 0;
    for (int i = 0; i < n; ++i) {
        for (int k = c.ia[i]; k < c.ia[i + 1]; ++k) {
            const int j = c.ja[k];
            if (c.m[k] == u[i] && match[j] < 0) {
                match[j] = i;
                colOfRow[i] = j;
                matchedRows.set(i);
                ++count;
                break;
            }
        }
    }
    for (int i = 0; i < n && count < n; ++i) {
        if (matchedRows.test(i)) continue;
        for (int k = c.ia[i]; k < c.ia[i + 1] && !matchedRows.test(i); ++k) {
            if (c.m[k] != u[i]) continue;
            const int j = c.ja[k];
            const int p = match[j];
            if (p < 0) {
                match[j] = i;
                colOfRow[i] = j;
                matchedRows.set(i);
                ++count;
                break;
            }
            for (int k2 = c.ia[p]; k2 < c.ia[p + 1]; ++k2) {
                const int j2 = c.ja[k2];
                if (c.m[k2] == u[p] && match[j2] < 0) {
                    match[j2] = p;
                    colOfRow[p] = j2;
                    match[j] = i;
                    colOfRow[i] = j;
                    matchedRows.set(i);
                    ++count;
                    break;
                }
            }
        }
    }
    return count;
}

// Closes every chain of a partial matching into a cycle: a chain starts at a
// row no column holds and ends at a column without a row; that column takes
// the row. A node that is both maps to itself.
void completePermutation(std::span<int> match, std::span<const int> colOfRow) {
    const int n = static_cast<int>(match.size());
    for (int r = 0; r < n; ++r) {
        if (colOfRow[r] >= 0) continue;
        int x = r;
        while (match[x] >= 0)
            x = match[x];
        match[x] = r;
    }
}

// The search on a cost graph whose column maxima (as logarithms) are in v;
// match and u are cleared.
template <class T>
MatchingResult matchOnCosts(const CsrMatrix<T>& cost, std::span<int> match, std::span<T> u,
                            std::span<T> v, MemoryCounter* counter) {
    const int n = cost.n;
    IntBlock colOfRow(n, kIntegerWork, counter);
    std::fill(colOfRow.begin(), colOfRow.end(), -1);
    Block<T> colDual(n, kCostWork, counter);
    BitVector matchedRows(n, counter, kIntegerWork);

    for (int i = 0; i < n; ++i) {
        T least = unreached<T>();
        for (int k = cost.ia[i]; k < cost.ia[i + 1]; ++k)
            least = std::min(least, cost.m[k]);
        u[i] = cost.ia[i] < cost.ia[i + 1] ? least : T(0);
    }
    int count = greedyStart<T>(cost, match, colOfRow.span(), u, matchedRows);

    if (count < n) {
        AugmentingSearch<T> search(cost, match, colOfRow.span(), u, colDual.span(), counter);
        for (int i = matchedRows.nextClear(0); i < n; i = matchedRows.nextClear(i + 1)) {
            if (cost.ia[i] == cost.ia[i + 1]) continue;
            if (search.augment(i)) {
                matchedRows.set(i);
                ++count;
            }
        }
    }

    if (count < n) {
        completePermutation(match, colOfRow.span());
        std::fill(u.begin(), u.end(), T(0));
        std::fill(v.begin(), v.end(), T(0));
        return {-1, count};
    }
    for (int j = 0; j < n; ++j)
        v[j] = colDual[j] - v[j];
    return {0, count};
}

} // namespace

template <class T>
MatchingResult weightedMatching(const SparseView<T>& A, std::span<int> match, std::span<T> u,
                                std::span<T> v, MemoryCounter* counter) {
    std::fill(match.begin(), match.end(), -1);
    std::fill(u.begin(), u.end(), T(0));
    CsrMatrix<T> cost;
    try {
        cost = buildCostGraph(A, v, counter); // v holds log max_j until the end
    } catch (const AllocationFailure&) {
        std::fill(v.begin(), v.end(), T(0));
        return {-2, 0};
    }
    return matchOnCosts(cost, match, u, v, counter);
}

template <class T>
MatchingResult symmetricWeightedMatching(const SparseView<T>& stored, SparseView<T>& full,
                                         std::span<int> match, std::span<T> u, std::span<T> v,
                                         MemoryCounter* counter) {
    const int n = stored.rows;
    std::fill(match.begin(), match.end(), -1);
    std::fill(u.begin(), u.end(), T(0));
    // Row counts of the full matrix and the largest magnitude of each
    // column (v, until the end), which a mirrored entry gives to its row's
    // column as well.
    IntBlock ia(checkedAdd(n, 1), kIntegerWork, counter);
    std::fill(v.begin(), v.end(), T(0));
    bool clean = true;
    for (int i = 0; i < n; ++i)
        for (std::int64_t k = stored.begin(i); k < stored.end(i); ++k) {
            const int j = stored.col(k);
            ++ia[i + 1];
            if (j != i) ++ia[j + 1];
            if (!usable(stored.a[k])) {
                clean = false;
                continue;
            }
            const T m = std::abs(stored.a[k]);
            v[j] = std::max(v[j], m);
            v[i] = std::max(v[i], m);
        }
    if (!clean) {
        // Entries that take no part leave holes in the cost graph: the
        // general path drops them from a copy.
        ia.reset();
        full = expandSymmetric(stored, counter, kIntegerWork);
        return weightedMatching<T>(full, match, u, v, counter);
    }
    for (int i = 0; i < n; ++i)
        ia[i + 1] += ia[i];
    const int nnz = ia[n];
    IntBlock ja(nnz, kIntegerWork, counter, kNoFill);
    Block<T> costs;
    try {
        costs = Block<T>(nnz, kCostWork, counter, kNoFill);
    } catch (const AllocationFailure&) {
        std::fill(v.begin(), v.end(), T(0));
        return {-2, 0};
    }
    {
        // Each row receives its mirrored entries (from the rows above it)
        // before its own, so sorted rows stay sorted; one logarithm serves
        // an entry and its mirror.
        IntBlock next(n, kIntegerWork, counter, kNoFill);
        std::copy_n(ia.data(), n, next.data());
        int* pj = ja.data();
        T* pc = costs.data();
        for (int i = 0; i < n; ++i)
            for (std::int64_t k = stored.begin(i); k < stored.end(i); ++k) {
                const int j = stored.col(k);
                const T lg = std::log(std::abs(stored.a[k]));
                if (j != i) {
                    pj[next[j]] = i;
                    pc[next[j]++] = lg;
                }
                pj[next[i]] = j;
                pc[next[i]++] = lg;
            }
    }
    for (T& x : v)
        x = x > T(0) ? std::log(x) : T(0);
    for (int k = 0; k < nnz; ++k)
        costs[k] = std::max(T(0), v[ja[k]] - costs[k]);

    CsrMatrix<T> cost;
    cost.n = n;
    cost.nnz = nnz;
    cost.ia = std::move(ia);
    cost.ja = std::move(ja);
    cost.m = std::move(costs);
    const MatchingResult r = matchOnCosts(cost, match, u, v, counter);
    full = SparseView<T>{};
    full.rows = full.columns = n;
    full.nnz = nnz;
    full.base = 0;
    full.ownIa = std::move(cost.ia);
    full.ownJa = std::move(cost.ja);
    full.ia = full.ownIa.data();
    full.ja = full.ownJa.data();
    return r;
}

template MatchingResult weightedMatching<float>(const SparseView<float>&, std::span<int>,
                                                std::span<float>, std::span<float>, MemoryCounter*);
template MatchingResult weightedMatching<double>(const SparseView<double>&, std::span<int>,
                                                 std::span<double>, std::span<double>,
                                                 MemoryCounter*);
template MatchingResult symmetricWeightedMatching<float>(const SparseView<float>&,
                                                         SparseView<float>&, std::span<int>,
                                                         std::span<float>, std::span<float>,
                                                         MemoryCounter*);
template MatchingResult symmetricWeightedMatching<double>(const SparseView<double>&,
                                                          SparseView<double>&, std::span<int>,
                                                          std::span<double>, std::span<double>,
                                                          MemoryCounter*);

} // namespace skyrinse::spds

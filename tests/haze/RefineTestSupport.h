// Helpers of the sparse store and refinement tests: a heap for the runtime's
// allocator that counts live blocks and can fail the k-th allocation, and the
// stored upper triangle as a full double matrix for independent checks.
#pragma once

#include "ZImage/CSparseSingle.h"
#include "runtime/nrt.h"

#include <Eigen/Sparse>

#include <cstdlib>
#include <vector>

namespace refinetest {

struct HeapState {
    long long live = 0, count = 0, failAt = 0; // failAt 0: never fail
};

inline HeapState& heapState() {
    static HeapState state;
    return state;
}

inline bool failNow() {
    HeapState& s = heapState();
    return s.failAt > 0 && ++s.count == s.failAt;
}
inline void* countingMalloc(std::size_t size) {
    void* p = failNow() ? nullptr : std::malloc(size);
    if (p) ++heapState().live;
    return p;
}
inline void* countingCalloc(std::size_t count, std::size_t size) {
    void* p = failNow() ? nullptr : std::calloc(count, size);
    if (p) ++heapState().live;
    return p;
}
inline void* countingRealloc(void* p, std::size_t size) {
    if (failNow()) return nullptr;
    void* q = std::realloc(p, size);
    if (q && !p) ++heapState().live;
    if (!q && size == 0 && p) --heapState().live;
    return q;
}
inline void countingFree(void* p) {
    if (p) --heapState().live;
    std::free(p);
}

// Installs the counting heap for the life of the object. Blocks of the
// runtime allocator must not outlive it.
class CountingHeap {
public:
    CountingHeap() {
        heapState() = HeapState{};
        const nrt_heap_ops ops{countingMalloc, countingCalloc, countingRealloc, countingFree};
        nrt_set_heap_ops(&ops);
    }
    ~CountingHeap() { nrt_set_heap_ops(nullptr); }
    CountingHeap(const CountingHeap&) = delete;
    CountingHeap& operator=(const CountingHeap&) = delete;

    long long live() const { return heapState().live; }
    // Fails the k-th allocation from now on (counting from 1); 0 disarms.
    void failAt(long long k) {
        heapState().count = 0;
        heapState().failAt = k;
    }
};

// The compressed store (one-based) in double; the upper triangle is mirrored
// when the store is symmetric.
inline Eigen::SparseMatrix<double> toEigen(const CSparseSingle& m, bool symmetric) {
    std::vector<Eigen::Triplet<double>> entries;
    const auto ia = m.ia();
    const auto ja = m.ja();
    const auto a = m.a();
    int cols = m.rowCount();
    for (int r = 0; r < m.rowCount(); ++r)
        for (int k = ia[r] - 1; k < ia[r + 1] - 1; ++k) {
            entries.emplace_back(r, ja[k] - 1, a[k]);
            if (symmetric && ja[k] - 1 != r) entries.emplace_back(ja[k] - 1, r, a[k]);
            cols = std::max(cols, ja[k]);
        }
    Eigen::SparseMatrix<double> s(m.rowCount(), cols);
    s.setFromTriplets(entries.begin(), entries.end());
    return s;
}

} // namespace refinetest

// Helpers of the sparse store and refinement tests: a heap for the runtime's
// allocator that counts live blocks and can fail the k-th allocation, and a
// dense solve in double precision as the reference.
#pragma once

#include "runtime/nrt.h"

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <utility>
#include <vector>

namespace refinetest {

struct HeapState {
    long long live = 0;
    long long count = 0;
    long long failAt = 0; // 0: never fail
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
    if (failNow()) return nullptr;
    void* p = std::malloc(size);
    if (p) ++heapState().live;
    return p;
}
inline void* countingCalloc(std::size_t count, std::size_t size) {
    if (failNow()) return nullptr;
    void* p = std::calloc(count, size);
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

// Row-major dense matrix.
struct Dense {
    int n = 0;
    std::vector<double> v;
    explicit Dense(int size) : n(size), v(static_cast<std::size_t>(size) * size, 0.0) {}
    double& operator()(int r, int c) { return v[static_cast<std::size_t>(r) * n + c]; }
    double operator()(int r, int c) const { return v[static_cast<std::size_t>(r) * n + c]; }
};

// x = A^-1 b by Gaussian elimination with partial pivoting.
inline std::vector<double> denseSolve(Dense a, std::vector<double> b) {
    const int n = a.n;
    for (int k = 0; k < n; ++k) {
        int p = k;
        for (int r = k + 1; r < n; ++r)
            if (std::abs(a(r, k)) > std::abs(a(p, k))) p = r;
        if (p != k) {
            for (int c = 0; c < n; ++c)
                std::swap(a(k, c), a(p, c));
            std::swap(b[k], b[p]);
        }
        for (int r = k + 1; r < n; ++r) {
            const double f = a(r, k) / a(k, k);
            for (int c = k; c < n; ++c)
                a(r, c) -= f * a(k, c);
            b[r] -= f * b[k];
        }
    }
    for (int k = n - 1; k >= 0; --k) {
        double s = b[k];
        for (int c = k + 1; c < n; ++c)
            s -= a(k, c) * b[c];
        b[k] = s / a(k, k);
    }
    return b;
}

inline double norm2(const std::vector<double>& x) {
    double s = 0.0;
    for (double e : x)
        s += e * e;
    return std::sqrt(s);
}

} // namespace refinetest

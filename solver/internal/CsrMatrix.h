// Working matrices of the matching and of the pair ordering.
//
// CsrMatrix is the cost graph of the matching: one "column" per row of the
// input, holding the input's column indices as its "rows" and one cost per
// entry, all zero-based. SparseView is a thin header over compressed rows;
// it either borrows the caller's arrays (one-based, as the solver's entry
// receives them) or owns a zero-based deep copy, e.g. the full pattern of a
// symmetric matrix stored by its upper triangle. BitVector keeps one bit per
// node, 32 to a word.
//
// Nothing here modifies a borrowed array: a one-based input is read through
// its base instead of being shifted in place, so the caller's ia and ja are
// the same after every call, failed or not, and may live in read-only memory.
//
// Every array comes from Block, so it is counted against the handle when a
// counter is given, and an allocation failure throws AllocationFailure with
// the code passed in; whatever was built so far is released by the
// destructors.
#pragma once

#include "Memory.h"

#include <cmath>
#include <cstdint>

namespace skyrinse::spds {

// Cost graph of the matching, zero-based.
template <class T>
struct CsrMatrix {
    int n = 0;
    int nnz = 0;
    IntBlock ia; // n+1 starts
    IntBlock ja; // nnz indices of the other side
    Block<T> m;  // nnz costs

    static CsrMatrix create(int n, int nnz, MemoryCounter* counter, int failureCode) {
        CsrMatrix c;
        c.n = n;
        c.nnz = nnz;
        c.ia = IntBlock(checkedAdd(n, 1), failureCode, counter);
        c.ja = IntBlock(nnz, failureCode, counter);
        c.m = Block<T>(nnz, failureCode, counter);
        return c;
    }
};

// Compressed rows, one- or zero-based, borrowed or owned.
template <class T>
struct SparseView {
    int rows = 0;
    int columns = 0;
    std::int64_t nnz = 0;
    int flag = 1; // real values
    int base = 0; // 1 for the caller's arrays, 0 for a copy
    const int* ia = nullptr;
    const int* ja = nullptr;
    const T* a = nullptr;

    // Entries k of row i (zero-based): begin(i) <= k < end(i); column col(k).
    std::int64_t begin(int i) const { return ia[i] - base; }
    std::int64_t end(int i) const { return ia[i + 1] - base; }
    int col(std::int64_t k) const { return ja[k] - base; }

    // Owned storage of a deep copy; empty for a borrowed view.
    IntBlock ownIa;
    IntBlock ownJa;
    Block<T> ownA;
};

// The caller's arrays as they are; the base is read from ia[0].
template <class T>
SparseView<T> borrowView(int n, const int* ia, const int* ja, const T* a) {
    SparseView<T> v;
    v.rows = n;
    v.columns = n;
    v.base = ia[0] == 1 ? 1 : 0;
    v.nnz = static_cast<std::int64_t>(ia[n]) - v.base;
    v.ia = ia;
    v.ja = ja;
    v.a = a;
    return v;
}

// Full zero-based pattern of a symmetric matrix stored by one triangle: each
// off-diagonal entry appears in both of its rows, the diagonal once. With
// sorted input rows the rows of the result are sorted too, because the
// mirrored entries of row r arrive in increasing row order before r's own.
template <class T>
SparseView<T> expandSymmetric(const SparseView<T>& s, MemoryCounter* counter, int failureCode) {
    const int n = s.rows;
    SparseView<T> f;
    f.rows = n;
    f.columns = n;
    f.base = 0;
    f.ownIa = IntBlock(checkedAdd(n, 1), failureCode, counter);
    int* ia = f.ownIa.data();
    for (int i = 0; i < n; ++i) {
        for (std::int64_t k = s.begin(i); k < s.end(i); ++k) {
            const int j = s.col(k);
            ++ia[i + 1];
            if (j != i) ++ia[j + 1];
        }
    }
    for (int i = 0; i < n; ++i)
        ia[i + 1] += ia[i];
    f.nnz = ia[n];
    f.ownJa = IntBlock(f.nnz, failureCode, counter);
    f.ownA = Block<T>(f.nnz, failureCode, counter);
    IntBlock next(n, failureCode, counter);
    for (int i = 0; i < n; ++i)
        next[i] = ia[i];
    int* ja = f.ownJa.data();
    T* a = f.ownA.data();
    for (int i = 0; i < n; ++i) {
        for (std::int64_t k = s.begin(i); k < s.end(i); ++k) {
            const int j = s.col(k);
            if (j != i) {
                ja[next[j]] = i;
                a[next[j]++] = s.a[k];
            }
        }
        for (std::int64_t k = s.begin(i); k < s.end(i); ++k) {
            const int j = s.col(k);
            ja[next[i]] = j;
            a[next[i]++] = s.a[k];
        }
    }
    f.ia = ia;
    f.ja = ja;
    f.a = a;
    return f;
}

// One bit per node; bit i is word i >> 5, bit i & 31.
class BitVector {
public:
    static constexpr int kShift = 5;
    static constexpr std::uint32_t kMask = 31;

    BitVector() = default;
    BitVector(int size, MemoryCounter* counter, int failureCode)
        : m_size(size), m_words((static_cast<std::int64_t>(size) + 31) / 32, failureCode, counter) {
    }

    int size() const { return m_size; }
    bool test(int i) const { return (m_words[i >> kShift] >> (i & kMask)) & 1u; }
    void set(int i) { m_words[i >> kShift] |= 1u << (i & kMask); }
    void reset(int i) { m_words[i >> kShift] &= ~(1u << (i & kMask)); }
    void clearAll() {
        for (std::uint32_t& w : m_words)
            w = 0;
    }
    // First clear bit at or after `from`, or size() when there is none.
    int nextClear(int from) const {
        while (from < m_size) {
            const std::uint32_t w = ~m_words[from >> kShift] >> (from & kMask);
            if (w != 0) {
                const int i = from + __builtin_ctz(w);
                return i < m_size ? i : m_size;
            }
            from = ((from >> kShift) + 1) << kShift;
        }
        return m_size;
    }

private:
    int m_size = 0;
    Block<std::uint32_t> m_words;
};

} // namespace skyrinse::spds

// Where the numeric factor of one factorization slot keeps its parts.
//
// A FactorRow's value block holds, one after the other, each part starting
// on a 128-byte boundary:
//   lnz        lnzSize scalars: the supernodal panels of L (diagonal blocks
//              whole, D on their diagonal for LDL^T, the off-diagonal
//              entry of a 2 x 2 pivot in the upper triangle)
//   unz        unzSize scalars: the U part right of the diagonal blocks,
//              stored transposed like L (mtype 1 and 11; 1 scalar otherwise)
//   rowPivot   n integers: interchanges of the diagonal blocks, one-based
//              global equation numbers; a 2 x 2 pivot stores the negative of
//              the row swapped with in both of its entries
//   colPivot   n integers: column interchanges of the LU kernels
// The factorization writes all four; the solve only reads them.
//
// FactorMap says where each entry of the caller's matrix lands in lnz or
// unz. It depends on the pattern only, so the analysis builds it once and
// every factorization of the same pattern scatters through it.
#pragma once

#include "Memory.h"

#include <cstddef>
#include <cstdint>

namespace skyrinse::spds {

template <class T>
struct FactorView {
    T* lnz = nullptr;
    T* unz = nullptr;
    int* rowPivot = nullptr;
    int* colPivot = nullptr;
};

struct FactorLayout {
    std::int64_t lnzOffset = 0;
    std::int64_t unzOffset = 0;
    std::int64_t rowPivotOffset = 0;
    std::int64_t colPivotOffset = 0;
    std::int64_t bytes = 0;

    FactorLayout(std::int64_t lnzSize, std::int64_t unzSize, int n, std::int64_t scalarBytes) {
        auto up = [](std::int64_t v) { return (v + 127) / 128 * 128; };
        unzOffset = up(lnzSize * scalarBytes);
        rowPivotOffset = up(unzOffset + unzSize * scalarBytes);
        colPivotOffset = up(rowPivotOffset + static_cast<std::int64_t>(n) * 4);
        bytes = up(colPivotOffset + static_cast<std::int64_t>(n) * 4);
    }

    template <class T>
    FactorView<T> view(std::byte* base) const {
        return {reinterpret_cast<T*>(base + lnzOffset), reinterpret_cast<T*>(base + unzOffset),
                reinterpret_cast<int*>(base + rowPivotOffset),
                reinterpret_cast<int*>(base + colPivotOffset)};
    }
};

struct FactorMap {
    // Entries xentry[c-1] .. xentry[c]-1 go to factor column c (one-based),
    // in the order of the caller's arrays, so repeated entries add up in the
    // same order at every factorization.
    IntBlock xentry;
    IntBlock source; // index of the entry in a, zero-based
    // One-based position in lnz; negative: in unz for LU, or, for the
    // symmetric types, the entry stands for its mirror image (conjugated in
    // a Hermitian matrix) at that position of lnz.
    IntBlock target;
    // Of the pattern the map was built for (FactorMap.h).
    std::uint64_t fingerprint = 0;

    bool built() const { return !xentry.empty(); }
    void reset() {
        xentry.reset();
        source.reset();
        target.reset();
        fingerprint = 0;
    }
};

} // namespace skyrinse::spds

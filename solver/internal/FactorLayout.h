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
#pragma once

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

} // namespace skyrinse::spds

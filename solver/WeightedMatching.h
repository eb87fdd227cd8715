// Maximum-product weighted matching of a square sparse matrix.
//
// Finds a permutation that brings entries of large magnitude to the
// diagonal: match[j] = the row put on column j, chosen so that the product
// of |a(match[j], j)| over all j is as large as possible. Dual values come
// with it, from which row and column scalings follow that make every entry
// of the scaled matrix at most 1 in modulus and the matched ones exactly 1.
//
// Reads the compressed rows of `A` (borrowed or owned, one- or zero-based)
// and never writes to them. Entries equal to zero, and entries that are not
// finite, take no part. Writes match, u, v, each n long:
//   match[j]  row matched to column j, zero-based;
//   u[i]      log of the scale of row i;
//   v[j]      log of the scale of column j.
// so that exp(u[i]) |a(i, j)| exp(v[j]) <= 1, with equality on the matching.
//
// Work: the cost graph (nnz costs and indices, n+1 starts; failure: status
// -2, nothing thrown), and eight arrays of n integers or costs (failure:
// AllocationFailure with -401 for integers, -402 for costs). Everything is
// released before the function returns, also when it throws.
//
// A matrix that has no perfect matching (structurally singular) gives status
// -1 and the number of columns that could be matched. match is then still a
// permutation: the chains of the partial matching are closed into cycles,
// and u and v are all zero.
#pragma once

#include "internal/CsrMatrix.h"

#include <span>

namespace skyrinse::spds {

struct MatchingResult {
    int status = 0;  // 0 complete, -1 incomplete, -2 the cost graph could not be had
    int matched = 0; // columns matched by the search
};

template <class T>
MatchingResult weightedMatching(const SparseView<T>& A, std::span<int> match, std::span<T> u,
                                std::span<T> v, MemoryCounter* counter = nullptr);

// The same matching for a symmetric matrix given by one triangle, as
// weightedMatching of its full matrix would find it, with one logarithm per
// stored entry instead of two. `full` receives the full pattern, zero-based
// (what expandSymmetric gives; its values only when an entry of the
// triangle is zero or not finite). The pattern's blocks fail with
// AllocationFailure -401.
template <class T>
MatchingResult symmetricWeightedMatching(const SparseView<T>& stored, SparseView<T>& full,
                                         std::span<int> match, std::span<T> u, std::span<T> v,
                                         MemoryCounter* counter = nullptr);

extern template MatchingResult weightedMatching<float>(const SparseView<float>&, std::span<int>,
                                                       std::span<float>, std::span<float>,
                                                       MemoryCounter*);
extern template MatchingResult weightedMatching<double>(const SparseView<double>&, std::span<int>,
                                                        std::span<double>, std::span<double>,
                                                        MemoryCounter*);
extern template MatchingResult symmetricWeightedMatching<float>(const SparseView<float>&,
                                                                SparseView<float>&, std::span<int>,
                                                                std::span<float>, std::span<float>,
                                                                MemoryCounter*);
extern template MatchingResult symmetricWeightedMatching<double>(const SparseView<double>&,
                                                                 SparseView<double>&,
                                                                 std::span<int>, std::span<double>,
                                                                 std::span<double>, MemoryCounter*);

} // namespace skyrinse::spds

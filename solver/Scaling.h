// Permutation and scalings handed from the matching to the factorization.
//
// Writes the one-based permutation (position j holds the row put on column
// j) and the row and column scalings R and C, each n long, from a matching
// and its dual values (WeightedMatching.h). Reads match, u and v only; they
// may be empty for the identity mode. Nothing is allocated, nothing fails.
//
//   mode -1   identity, R = C = 1 (a type that asks for no matching)
//   mode  0   the matching, R = C = 1 (matching without scaling)
//   mode  1   the matching, R = exp(u), C = exp(v)
//
// For the symmetric types (-4, -2, 6) mode 1 writes R = sqrt(exp(u) exp(v))
// instead: a symmetric matrix must be scaled by one diagonal on both sides,
// and the geometric mean of the two duals is that diagonal. The matched
// entries of the scaled matrix are then still 1 and no entry exceeds 1;
// the factorization reads only R in that case.
#pragma once

#include <span>

namespace skyrinse::spds {

inline constexpr int kScalingIdentity = -1;
inline constexpr int kScalingPermutationOnly = 0;
inline constexpr int kScalingFull = 1;

// Whether mode 1 scales symmetrically for this matrix type.
bool scalesSymmetrically(int mtype);

template <class T>
void buildScaling(int mode, int mtype, std::span<const int> match, std::span<const T> u,
                  std::span<const T> v, std::span<int> permutation, std::span<double> rowScale,
                  std::span<double> colScale);

extern template void buildScaling<float>(int, int, std::span<const int>, std::span<const float>,
                                         std::span<const float>, std::span<int>, std::span<double>,
                                         std::span<double>);
extern template void buildScaling<double>(int, int, std::span<const int>, std::span<const double>,
                                          std::span<const double>, std::span<int>,
                                          std::span<double>, std::span<double>);

} // namespace skyrinse::spds

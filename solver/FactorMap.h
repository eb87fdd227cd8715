// The matrix-to-factor map (internal/FactorLayout.h): built by the analysis
// for the pattern it analysed, and again by a factorization that is handed
// a different pattern.
//
// Reads the ordering (invp), the matching's row permutation (types above 10
// with rowPermuted), and the supernodal structure (xsup, xlindx, lindx,
// xlnz, xunz) of the handle. Entries are placed as the factorization needs
// them: the upper triangle of a symmetric type stands for its mirror image;
// for LU an entry above the diagonal goes to the diagonal block in lnz or,
// right of it, to unz. Memory: n+1 integers and two integers an entry,
// under the given failure code.
#pragma once

#include "Handle.h"

#include <cstdint>

namespace skyrinse::spds {

// A 64-bit digest of (ia, ja): two patterns with the same digest are taken
// to be the same.
std::uint64_t patternFingerprint(int n, const int* ia, const int* ja);

// Builds the map of (ia, ja); lu for types 1 and 11. False when an entry
// has no place in the analysed structure: the map is then unusable.
bool buildFactorMap(const Handle& h, bool lu, const int* ia, const int* ja, int failureCode,
                    MemoryCounter* memory, FactorMap& map);

} // namespace skyrinse::spds

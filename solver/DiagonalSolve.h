// The short path for a diagonal matrix (ia[n] - 1 = n): no handle, no
// analysis, x = b / a.
//
// Reads ia[0..n], then ja and a only once every row is known to hold exactly
// one entry; rows are tested in order. Complex types (|mtype| > 2 once 10 is
// taken off the types above 10) read pairs of values. With a solve phase
// (33, or a last digit 3) and iparm[5] = 1 the result overwrites b, otherwise
// it goes to x. A complex system asked for conjugated (A^H of types 3, 6, 13;
// A^T of 4, -4: `conjugated`) divides by the conjugates. On failure nothing
// is written to b or x.
#pragma once

namespace skyrinse::spds {

// Returns 0, the first row i that does not hold exactly its own diagonal
// entry (or, for the Hermitian types, a value that is not real), or -i for
// the first zero on the diagonal. Writes iparm[21] (positive
// entries) and iparm[22] (the others) for real types.
template <class T>
int diagonalPath(int mtype, int phase, int n, const T* a, const int* ia, const int* ja, int nrhs,
                 int* iparm, T* b, T* x, bool conjugated = false);

} // namespace skyrinse::spds

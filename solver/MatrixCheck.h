// Structure check of the caller's one-based CSR arrays (codes 21 to 24).
//
// Reads ia[0..n] and, once ia is known to be increasing from 1, ja[0..nnz-1];
// it never reads further than the arrays' own description allows. Every row
// is tested before a code is returned, so `where` holds the last find of the
// failing test, not the first. Tests, in order (the first that fails gives
// the code):
//   21  ia[0] = 1 and ia strictly increasing: where = (i, ia[i-1], ia[i])
//   22  every column in 1..n:                 where = (k, ja[k-1], n)
//   23  symmetric storage only, first column of row i at least i:
//                                             where = (i, ia[i-1], that column)
//   24  columns strictly increasing in a row: where = (k, ja[k-1], ja[k])
#pragma once

namespace skyrinse::spds {

enum MatrixCheckScope {
    kCheckBoundsOnly, // 21 (empty rows allowed) and 22: what reading the arrays safely needs
    kCheckAll         // 21 to 24
};

// Returns 0 or the code; `where` (three ints) receives the last find.
int checkMatrix(int n, const int* ia, const int* ja, bool symmetricStorage, MatrixCheckScope scope,
                int* where);

// The first equation (one-based) whose row or column of the full matrix holds
// no entry at all, which makes the matrix singular by its structure alone;
// 0 when there is none. With symmetric storage row i of the full matrix is
// the stored row i and the stored column i together. Arrays as checked by
// kCheckBoundsOnly.
int firstEmptyEquation(int n, const int* ia, const int* ja, bool symmetricStorage);

} // namespace skyrinse::spds

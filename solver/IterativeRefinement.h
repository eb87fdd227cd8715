// Solve with checked iterative refinement (phase 33 and the solve of 13, 23).
//
// Reads the caller's a, ia, ja as they were passed (unpermuted, unscaled):
// the residual is always that of the caller's system, so refinement also
// repairs what the scalings, the matching and perturbed pivots did to the
// factor. Symmetric storage uses each stored entry for both triangles.
//
// Writes the solution to x, or to b when solutionInB (iparm[5] = 1); then x
// receives the right-hand side, which the loop needs after b is gone. b and
// x may be the same array: the right-hand side is then copied first.
//
// Every full solve is checked: the residual r = b - A x is formed in double
// (long double for a double factor with steps < 0) whatever the element type,
// and the normwise backward error
//     omega = max over the columns of |r|_inf / (|A|_inf |x|_inf + |b|_inf)
// decides. Correction steps run while omega is above 8 units of roundoff of
// the element type and either fewer than |steps| were done or omega is
// still above the tolerance the caller is promised (RefinementTolerance);
// a step that does not halve omega ends the loop, one that makes it worse
// is undone. At most kMaxRefinementSteps. Steps that end above the
// tolerance hand over to a flexible GMRES with the factor as right
// preconditioner (restarted, a few cycles); its solves count as steps. When
// omega still stays above the tolerance the status is -112: the answer is
// not trusted.
//
// steps < 0 keeps the iterate in the wider type (double for a float
// factor): the wide iterate's backward error is reported beside that of
// the x handed back, which is rounded to the element type.
//
// Workspace (CGS_ARR, -1300): the residual and two iterates of n x nrhs
// wide scalars, besides the solve's own (Solve.h); the GMRES basis (61 more)
// only when it runs. Allocation failures
// throw AllocationFailure.
#pragma once

#include "Handle.h"
#include "SystemRequest.h"

namespace skyrinse::spds {

inline constexpr int kMaxRefinementSteps = 30;

// The normwise backward error that a full solve must reach: 1e-5 (about 170
// units of roundoff) for float, 2^-43 (about 1000 units, the residual itself
// being rounded in double) for double.
template <class T>
constexpr double refinementTolerance() {
    return sizeof(T) == sizeof(float) ? 1e-5 : 0x1p-43;
}

struct RefinementRequest : SystemRequest {
    bool checked = true; // false with the split solve (iparm[25]): x as the sweeps leave it
    int steps = 0;       // iparm[7]
    int partial = 0;     // 0 full, 1..3 partial solve (neither refined nor checked)
};

struct RefinementResult {
    int status = 0;                // 0 or -112
    int steps = 0;                 // correction steps done (iparm[6])
    double backwardError = -1;     // of the x handed back; -1 when not measured
    double wideBackwardError = -1; // of the wide iterate (steps < 0), else = backwardError
};

template <class T>
RefinementResult solveAndRefine(Handle& h, const FactorRow& row, const RefinementRequest& request,
                                T* b, T* x);

// The entries of a stored triangle off its diagonal, column by column, rows
// ascending. With it the product, which scatters into its result, can be
// split over the result's entries, each summed in the order of one pass
// over the rows, so that the bits do not depend on the split.
struct StoredColumns {
    IntBlock start; // n + 1 starts into entry and row
    IntBlock entry; // zero-based positions in ja
    IntBlock row;   // their zero-based rows
};
StoredColumns storedColumns(int n, const int* ia, const int* ja, MemoryCounter* mem);

// y = A x (or A^T x) of the caller's stored matrix, accumulated in W; with
// `hermitian` a stored triangle stands for its conjugate mirror. Split over
// the granted threads for a matrix stored whole, and, given its
// storedColumns, for a stored triangle; the same bits either way.
template <class W, class T>
void multiplyStored(int n, const T* a, const int* ia, const int* ja, bool symmetricStorage,
                    bool transpose, int nrhs, const W* x, W* y, bool hermitian = false,
                    const StoredColumns* columns = nullptr);

// Largest row sum of |A| (of A^T when transposed) of the stored matrix.
template <class T>
double infinityNorm(int n, const T* a, const int* ia, const int* ja, bool symmetricStorage,
                    bool transpose);

} // namespace skyrinse::spds

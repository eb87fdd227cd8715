// Solve with iterative refinement (phase 33 and the solve of 13, 23).
//
// Reads the caller's a, ia, ja as they were passed (unpermuted, unscaled):
// the residual is always that of the caller's system, so refinement also
// repairs what the scalings, the matching and perturbed pivots did to the
// factor. Symmetric storage uses each stored entry for both triangles.
//
// Writes the solution to x, or to b when solutionInB (iparm[5] = 1); then x
// receives the right-hand side, which the loop needs after b is gone.
//
// Stopping, with k the step and prev the residual sum to beat (starting at
// the sum of |b|): stop after step 2 when no steps were asked (iparm[7] = 0,
// refinement run only for perturbed pivots; state -34); a first residual
// above |b| doubles prev; stop at k = |steps|; go on while the residual
// shrinks below 0.9 prev; a stall is tolerated while k < 4 and k < |steps|,
// and ends the loop otherwise, with status -112 when the last correction
// was above half of the solution.
//
// steps < 0 keeps the solution and the residual in the next wider type
// (double for float, long double for double). Workspace (CGS_ARR, -1300):
// the residual, n x nrhs scalars, and for steps < 0 the wide solution and
// residual; besides the solve's own (Solve.h). Allocation failures throw
// AllocationFailure.
#pragma once

#include "Handle.h"
#include "SystemRequest.h"

namespace skyrinse::spds {

struct RefinementRequest : SystemRequest {
    bool refine = false; // perturbed pivots or steps != 0
    int steps = 0;       // iparm[7]
    int partial = 0;     // 0 full, 1..3 partial solve (never refined)
};

struct RefinementResult {
    int status = 0;            // 0 or -112
    int steps = 0;             // refinement steps done (iparm[6])
    bool stoppedAtTwo = false; // iparm[19] = -34
};

template <class T>
RefinementResult solveAndRefine(Handle& h, const FactorRow& row, const RefinementRequest& request,
                                T* b, T* x);

// y = A x (or A^T x) of the caller's stored matrix, accumulated in W.
template <class W, class T>
void multiplyStored(int n, const T* a, const int* ia, const int* ja, bool symmetricStorage,
                    bool transpose, int nrhs, const W* x, W* y);

} // namespace skyrinse::spds

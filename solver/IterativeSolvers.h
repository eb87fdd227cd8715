// Iterative solvers preconditioned by a factor already on the handle
// (iparm[3] = 10 L + K): conjugate gradients for |K| = 2 (symmetric positive
// definite matrices), conjugate gradients squared for any other K != 0.
//
// They serve sequences of matrices with one pattern whose values drift: the
// factor of an earlier matrix of the sequence is usually close enough to the
// current one that a few iterations reach the tolerance 10^-L, far cheaper
// than a new factorization. The driver tries them before factoring (phase
// 23) and in place of the refinement (phase 33); when they fail, phase 23
// factors the new matrix after all, so an iteration only ever replaces a
// factorization when it has succeeded.
//
// Reads the caller's a, ia, ja as passed (unpermuted, unscaled; symmetric
// storage uses each stored entry for both triangles) and the factor row,
// applied through the full solve step (Solve.h) to every direction. Starts
// from x = 0. The measure of a step is the largest ratio, over the
// right-hand sides, of the 2-norm of the residual to that of b. The
// iteration stops with
//    0  the measure below the tolerance;
//   -1  the measure above 10^4 (diverged, or a breakdown that left no
//       number);
//   -2  no measure below the square root of the tolerance after the stall
//       mark (at that step exactly for CGS, from it on for CG);
//   -3  the step limit reached;
//   -5  a limit of no steps: nothing tried.
//
// The limit m scales with what a new factorization would cost, counted in
// solves: m = max(2, 1 + 0.45 x 3|K| x factor time / solve time), at most
// 100 (at least 10 out of core); a solve too fast to time (1e-10 s) allows
// none, or 150 with a negative iparm[3]. The stall mark is 1 + m / 2.
//
// Writes the solution to x, or to b when solutionInB (then x receives the
// right-hand side first, as in IterativeRefinement.h); on failure the last
// iterate is left there. Workspace (CGS_ARR, -1300): six vectors of n x nrhs
// (CG four) besides the solve's own; allocation failures throw
// AllocationFailure.
#pragma once

#include "Handle.h"
#include "SystemRequest.h"

namespace skyrinse::spds {

struct IterativeRequest : SystemRequest {
    int control = 0;          // iparm[3]
    double factorSeconds = 0; // time of the factorization that made the preconditioner
    bool outOfCore = false;
};

struct IterativeResult {
    int status = 0; // 0, -1, -2, -3 or -5, see above
    int steps = 0;
    int limit = 0;      // m
    double measure = 0; // of the last step
    // What iparm[19] reports: the steps on success, status - 10 x steps on failure.
    int report() const { return status == 0 ? steps : status - 10 * steps; }
};

struct IterationLimits {
    int maximum = 0; // m
    int stall = 0;   // the stall mark
};

// Whether iparm[3] asks for an iterative solver at all.
inline bool iterativeRequested(int control) {
    return control % 10 != 0;
}

// Conjugate gradients (true) or conjugate gradients squared (false).
inline bool usesConjugateGradients(int control) {
    return control % 10 == 2 || control % 10 == -2;
}

// 10^-L of iparm[3] = 10 L + K.
double iterativeTolerance(int control);

IterationLimits iterationLimits(int control, double factorSeconds, double solveSeconds,
                                bool outOfCore);

template <class T>
IterativeResult iterativeSolve(Handle& h, const FactorRow& row, const IterativeRequest& request,
                               T* b, T* x);

} // namespace skyrinse::spds

// Solve step (phase 33): x from the factor of one factorization slot.
//
// Reads: the handle's ordering, symbolic structure, matching permutation and
// scalings, and the factor row written by NumericFactorization (its layout
// in internal/FactorLayout.h). Right-hand sides are n x nrhs, column after
// column with leading dimension n; b is never written, x may be b itself.
//
// The right-hand sides are gathered into the factor's order with the
// scalings (the inverse of what the factorization applied to A), swept
// forward through L with the interchanges of each diagonal block applied
// before it, divided by D (symmetric indefinite), swept backward, and
// scattered back. A transposed solve (types 1, 11) runs U^T forward and L^T
// backward with the roles of the two interchange records exchanged.
//
// Partial solves: 1 forward only, 2 diagonal only, 3 backward only. Between
// them the vector stands in the caller's order without the scalings of the
// factor, so that 1, 2 and 3 one after the other give the full solve.
//
// Workspace (CGS_ARR, -1300, kept by the object so that a refinement loop
// pays for it once): n x nrhs scalars for the permuted vectors, the largest
// column height x nrhs for the rows below a block, and four index/scale
// arrays of n. Several right-hand sides go through the level-3 kernels
// supernode by supernode; one goes through loops and level-2 kernels.
#pragma once

#include "Handle.h"

#include <memory>

namespace skyrinse::spds {

template <class T>
class FactorSolver {
public:
    // transpose: solve A^T x = b (types 1 and 11; ignored otherwise).
    FactorSolver(Handle& h, const FactorRow& row, bool transpose, int nrhs);
    ~FactorSolver();
    FactorSolver(const FactorSolver&) = delete;
    FactorSolver& operator=(const FactorSolver&) = delete;

    // partial: 0 full, 1 forward, 2 diagonal, 3 backward.
    void solve(const T* b, T* x, int partial = 0);

private:
    struct Impl;
    std::unique_ptr<Impl> m;
};

extern template class FactorSolver<float>;
extern template class FactorSolver<double>;

} // namespace skyrinse::spds

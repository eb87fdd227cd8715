// Numeric factorization (phase 22): left-looking supernodal LDL^T, Cholesky
// or LU of the matrix that the analysis ordered.
//
// Reads: the caller's a, ia, ja (one-based, as stored: the upper triangle
// for symmetric types, every entry for the others; repeated entries add up),
// and from the handle the ordering (perm/invp), the symbolic structure, the
// matching's row permutation (types above 10) and the scalings when scaling
// is on. Nothing is permuted in place: each entry goes straight to its
// position in the factor. The factor is of
//   P^T S A S P          symmetric types, S = diag(first scaling array)
//   P^T Dr Q A Dc P      types 1 and 11, Q the matching's row permutation,
//                        Dr, Dc the row and column scalings
// with the interchanges of the diagonal blocks on top (FactorLayout.h).
//
// Writes: the factor row's value block (allocated, or replaced when it is
// too small, under FACT_L&U -1100), the perturbation, inertia and status
// figures of the result. Borrows for the call (WORK_R0, -1200): per thread
// indmap and relind of n integers, the update buffer of max(tmpsiz, largest
// scattered update) scalars and a block of panelWidth^2 scalars for D L^T;
// shared, the sources of each supernode (two integers an update) and the
// call's entries, scaled, one scalar each. The entries go to the factor
// through the analysis's map (FactorMap.h) when the call's ia and ja are the
// analysed ones; other arrays get a map of their own for the call (two more
// integers an entry), and an entry outside the analysed structure is
// refused before anything is factored.
//
// Unacceptable pivots never fail the symmetric indefinite and LU
// factorizations: they are perturbed by pivotRule and counted, and the
// checked solve decides whether the answer can be trusted. A Cholesky
// (mtype 2) pivot that is not positive stops the factorization with the
// equation where it arose (with several threads, the first such pivot in
// the schedule's order among those met before all threads stopped). The
// progress hook may cancel (status -1). Memory failures throw
// AllocationFailure for the driver to report; all memory is taken before
// any thread starts.
//
// Threads (TreeSchedule.h): the granted threads factor disjoint subtrees in
// one parallel region, without locks or waiting; the top of the tree follows
// on the calling thread with the dense kernels on all threads. Each
// supernode takes its updates in ascending order of the source, so the
// factor is the same bits for every thread count, except for the rounding of
// the dense library's multi-threaded products at the top (none when those
// run on one thread). Only thread 1 calls the progress hook; a cancel stops
// every thread at its next supernode.
#pragma once

#include "Handle.h"
#include "SupernodalKernels.h"

namespace skyrinse::spds {

struct NumericRequest {
    // The real type whose algorithm runs (factorKind of a complex type).
    int mtype = -2;
    bool hermitian = false; // L L^H or L D L^H of a Hermitian matrix
    int n = 0;
    const void* a = nullptr;
    const int* ia = nullptr;
    const int* ja = nullptr;
    bool bunchKaufman = true; // iparm[20] != 0 (mtype -2 only)
    int pivotExponent = 8;    // iparm[9]
    int threads = 1;          // granted to this call
    // Instead of the subtree schedule: pnlsch by a shared cursor on every
    // thread, each update waited for; kept for the benchmark's comparison.
    bool queueSchedule = false;
};

struct NumericResult {
    int status = 0;    // 0, -1 cancelled, or the equation of a failed Cholesky pivot
    int perturbed = 0; // pivots replaced by the threshold
    int positive = 0;  // inertia of LDL^T and Cholesky
    int negative = 0;
    // An entry of the call's matrix has no place in the analysed structure
    // (the arrays differ from those of the analysis); nothing was written
    // outside the factor, and the factor is not usable.
    bool outsideStructure = false;
};

template <class T>
NumericResult numericFactorization(Handle& h, const NumericRequest& request, FactorRow& row);

// The rule for pivots that no interchange inside the block can make
// acceptable (SupernodalKernels.h), for the element type T: multipliers are
// kept below 1 / sqrt(roundoff of T); a pivot at most 10^-|exponent| times
// `largest` (the largest magnitude of the matrix as factored, scaled) with
// something to eliminate below it is replaced too (exponent 0: only exact
// zeros); replacements are at least max(10^-|exponent|, sqrt(roundoff))
// times `largest`.
template <class T>
PivotRule<T> pivotRule(int exponent, double largest);

// Floating-point operations of the factorization the structure implies, in
// millions (what iparm[18] reports).
double factorizationOperations(const SymbolicResult& s, int n, bool lu);

// Whether the numeric stages handle this matrix type.
bool numericSupported(int mtype);

} // namespace skyrinse::spds

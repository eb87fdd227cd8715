// The matching step of the analysis: what runs between the argument check
// and the ordering, chosen by the matrix type and iparm[10], iparm[12].
//
//   matching off, mtype above 10   identity permutation and unit scalings
//   matching off, other types      nothing
//   matching on, mtype 11, 13      maximum-product matching of the matrix,
//                                  its permutation, and with scaling on the
//                                  scalings exp(u), exp(v)
//   matching on, mtype -2, -4, 6   matching of the full symmetric pattern,
//                                  the pair-keeping order of the block graph
//                                  (SymmetricPairOrder.h), and with scaling
//                                  on the symmetric scaling
//   matching on, other types       no matching exists for them: error -5
//                                  with the guard code 773
//
// Complex types (13, -4, 6) hold (real, imaginary) pairs in a; the matching
// weighs their magnitudes, copied once into a work of nnz reals (-402).
//
// Reads the caller's a, ia, ja (one-based) and never writes to them; they
// are identical after the call whatever its outcome. Writes the handle's
// permutation block (n x maxfct + n + 3 integers, the permutation in the
// first n, one-based; allocated under -403 unless it already exists) and
// its scaling block (2n values: R, then C; -404 likewise). Both stay with
// the handle until it is released, and a later analysis reuses them.
//
// Failures come back in the result, never as exceptions: -2 with the
// internal code of the block that could not be had (-401 integer work,
// -402 real work and the cost graph, -403, -404); -6 when the matrix is
// structurally singular, with internal code -k for k columns matched.
// What was allocated for the handle stays there for phase -1 to free.
#pragma once

#include "SymmetricPairOrder.h"
#include "internal/Memory.h"

namespace skyrinse::spds {

inline constexpr int kGuardMessage = 773;

struct MatchingRequest {
    int mtype = 11;
    int n = 0;
    int maxfct = 1;
    int matching = 0;     // iparm[12] when positive for the matching types, else 0
    bool scaling = false; // iparm[10] = 1 with the matching on
    bool single = false;  // a holds float
    const void* a = nullptr;
    const int* ia = nullptr;
    const int* ja = nullptr;
};

struct MatchingOutcome {
    int error = 0;        // 0, -2, -5, -6
    int internalCode = 0; // -401 .. -404, -k, or kGuardMessage
    int matched = 0;      // columns matched, when the matching ran
    bool ran = false;     // the weighted matching was computed
    bool hasPairOrder = false;
    PairOrder pairOrder; // symmetric types (-2, -4, 6) with the matching on
    IntBlock fullIa;     // their full symmetric pattern, zero-based
    IntBlock fullJa;
};

MatchingOutcome runMatchingStep(const MatchingRequest& request, IntBlock& permutation,
                                Block<double>& scalings, const CompressedOrderer& order,
                                MemoryCounter* counter = nullptr);

// The block graph ordered by the ordering stage of the analysis (Ordering.h)
// with the method of iparm[1] and the partition count of the analysis; its
// times are added to *seconds when given. Ordering failures propagate as
// OrderingFailure, like those of the ordering stage itself.
CompressedOrderer blockGraphOrderer(int method, int partitions, int threads, MemoryCounter* memory,
                                    double* seconds);

// Prints the guard's "System error in SPDS" at any message level; the other
// failures of the step are told by the error report.
void reportMatchingFailure(const MatchingOutcome& outcome);

} // namespace skyrinse::spds

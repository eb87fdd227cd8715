// Ordering stage of the analysis (sssord): ordering graph, fill-reducing
// permutation, leaf domains and separators.
//
// Reads: the one-based pattern ia/ja exactly as the caller passed it, which
// the driver has already checked for increasing ia and columns in 1..n (the
// graph builder relies on that and on nothing else: unsorted rows, duplicate
// entries and entries of the other triangle are all accepted). A row
// permutation of the matching, when there is one, is applied while the graph
// is built (mtype above 10 only).
//
// Writes into OrderingResult: xadj/adjncy (the structure of A + A^T without
// the diagonal, rows ascending and free of duplicates), perm/invp, and the
// domain list of 2 x ndomains pairs (see domainpairs in Handle.h).
//
// Workspace: one n+1 count array and one array the size of the symmetrised
// pattern, on the handle's counter under STRUC_S0 (-400); METIS takes its own
// memory. Failures: AllocationFailure (-400, -401), or OrderingFailure with a
// stage status (METIS refusing the graph, a user permutation that is not a
// permutation of 1..n).
#pragma once

#include "Handle.h"

namespace skyrinse::spds {

// A failure of the ordering that is not a lack of memory; status goes to
// iparm[29] and the call fails with the reordering error.
struct OrderingFailure {
    int status;
};

enum OrderingMethod {
    kMinimumDegree = 0,
    kMinimumDegreeCompressed = 1,
    kNestedDissection = 2,
    kNestedDissectionParallel = 3
};

struct OrderingInput {
    int n = 0;
    const int* ia = nullptr;
    const int* ja = nullptr;
    int mtype = 11;
    int method = kNestedDissection;      // iparm[1]
    int userPermutation = 0;             // iparm[4]
    const int* callerPerm = nullptr;     // read when userPermutation is 1 (or above 0 and not 2)
    const int* rowPermutation = nullptr; // one-based row order of the matching, or null
    int partitions = 1;                  // parts asked of the dissection for method 3
    int threads = 1;
    MemoryCounter* memory = nullptr;
};

struct OrderingTimes {
    double graph = 0;
    double ordering = 0;
};

OrderingTimes computeOrdering(const OrderingInput& in, OrderingResult& out);

// The same on a graph the caller has already put into out.xadj/adjncy in the
// form buildOrderingGraph gives (symmetric, one-based, no diagonal, rows
// ascending and free of duplicates); in.ia/ja are not read.
OrderingTimes orderGraph(const OrderingInput& in, OrderingResult& out);

// Turns a full symmetric pattern (zero-based ia/ja, both triangles,
// diagonal allowed) into the ordering graph where it lies, by dropping its
// diagonal, and moves the two blocks into out.xadj/adjncy, when every row is
// strictly ascending; returns false, leaving everything untouched,
// otherwise (the caller then builds the graph from the matrix).
bool graphFromFullPattern(int n, IntBlock& ia, IntBlock& ja, OrderingResult& out);

// Analyses that took the order of an earlier dissection of the same graph
// instead of dissecting it, since the process started.
long long rememberedOrdersTaken();

// Whether the dissections of the calling thread leave their order for the
// next analysis of the same graph (spds_share_orders).
void shareOrders(bool on);

// Building blocks, exposed for the tests.

// The ordering graph: structure of A + A^T (or the full symmetric structure
// of a stored triangle) without the diagonal, one-based.
void buildOrderingGraph(const OrderingInput& in, OrderingResult& out);

// Sets the single-domain list (1, n-1), (n, n).
void setSingleDomain(int n, OrderingResult& out);

// Domain list from the part sizes of a p-way dissection (p leaves, then the
// p-1 separators bottom level first, the root last, as the dissection
// numbers them), for an order in which each subtree is numbered before its
// separator. Empty parts are dropped.
void domainsFromDissection(int n, int p, const int* sizes, OrderingResult& out);

// Makes each domain contiguous in perm, the separators following in their
// order; rebuilds invp and the pairs.
void regroupDomains(int n, OrderingResult& out);

} // namespace skyrinse::spds

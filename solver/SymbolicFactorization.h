// Symbolic factorization of the analysis: sfinit (elimination tree, column
// counts, supernodes) and the supernodal structure that the numeric
// factorization and the solve read.
//
// Reads: the ordering graph and perm/invp of the ordering stage. Nothing is
// permuted in place: positions are taken through invp on the fly. All arrays
// written are one-based and indexed by position (column of the permuted
// matrix) or by supernode.
//
// Writes SymbolicResult (see Handle.h), converts ord.domainpairs from
// columns to supernodes, and with `postorder` rewrites ord.perm and invp
// (the column ranges of the domains stay as they were).
//
// Workspace: the ordering graph in permuted positions (n + 1 integers and
// one per edge), 8 x n integers for the column counts, 2 x nsuper for the
// row structure; all under WORK_I0 (-500), and their failure is an
// AllocationFailure. SymbolicFailure with status -182 when the factor
// does not fit 32-bit positions, -180 for an inconsistent structure. A
// domain list that does not map onto supernodes is not a failure: it sets
// domainsUnusable and the analysis goes on.
#pragma once

#include "Handle.h"

namespace skyrinse::spds {

struct SymbolicFailure {
    int status; // -180 or -182
};

struct SymbolicInput {
    int n = 0;
    int mtype = 11;
    bool symmetricStorage = false;
    int maxsup = 128;
    int threads = 1;
    bool outOfCore = false;
    // Optional, n entries by zero-based position: 1 where that position and
    // the next form a pair of the matching. A pair always ends up in one
    // supernode: its first column takes the structure of the second (the
    // extra entries are explicit zeros), and no panel cut falls between them.
    const int* pairStart = nullptr;
    // Merge supernodes into their parents within the bounds on explicit
    // zeros (SymbolicFactorization.cpp); off: fundamental supernodes.
    bool relax = true;
    // Renumber the columns in a postorder of the elimination tree inside
    // each range of the dissection (ord.perm and invp follow), so that more
    // children end next to their parent and merge with it. The driver asks
    // for it only for its own order cut into domains (Driver.cpp says why);
    // a caller's order is used exactly.
    bool postorder = false;
    MemoryCounter* memory = nullptr;
};

struct SymbolicTimes {
    double sfinit = 0;
    double symbolic = 0;
    double updateLists = 0;
};

SymbolicTimes symbolicFactorization(const SymbolicInput& in, OrderingResult& ord,
                                    SymbolicResult& out);

// Panel width (maxsup) for a matrix type, thread count and size.
int panelWidth(int mtype, int threads, int n);

// Column pointers xlnz/xunz from snode, xsup and colcnt (one-based, with
// an unused slot 0 where indexed by position); throws SymbolicFailure{-182}
// when a pointer would pass the 32-bit range. Exposed for the tests.
void layoutValues(int n, SymbolicResult& sym);

} // namespace skyrinse::spds

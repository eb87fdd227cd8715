// How the supernodes of one factor are shared among threads.
//
// The supernodal tree is cut into disjoint subtrees and a top: each thread
// gets whole subtrees, and every supernode above them forms the top, which
// the threads then take one supernode at a time in postorder. No update
// crosses from one subtree to another, so the threads of the subtrees never
// wait for each other; in the top a supernode waits for its sources.
//
// The cut is chosen by a cost model in floating-point operations: the
// heaviest subtree is split (its root moves to the top) for as long as the
// estimated time (largest thread load after a longest-first assignment,
// plus the top as if on one thread, since its separators mostly form
// chains) keeps falling. A tree that cannot be shared (a chain), or a
// factor of less than a million operations, gets one thread.
//
// The same cut serves the numeric factorization and the solve, and it
// depends only on the structure and the thread count: a factor computed
// with one schedule is the factor of any other, because each target takes
// its updates in a fixed order (NumericFactorization.cpp).
#pragma once

#include "Handle.h"

#include <vector>

namespace skyrinse::spds {

struct TreeSchedule {
    int threads = 1; // threads that get subtrees; 1: everything is the top
    // All supernodes (one-based): thread 0's subtrees, thread 1's, ... in
    // postorder, then the top in postorder. start[k] .. start[k+1]-1 are
    // thread k's; start[threads] .. nsuper-1 the top, shared.
    std::vector<int> order;
    std::vector<int> start;
    // The model's figures, in operations.
    double totalWork = 0;
    double topWork = 0;
    double largestLoad = 0;   // the heaviest thread's subtrees
    double criticalPath = 0;  // the heaviest path from a leaf to a root
    double estimatedTime = 0; // the model's time of the chosen cut, in operations
};

TreeSchedule scheduleTree(const SymbolicResult& s, int threads, bool lu);

// The sources of each supernode t (the supernodes with rows in it), in
// ascending order: entries xsource[t-1] .. xsource[t]-1 of source and of
// rows (the source's rows from its first one in t to its end). Taken from
// the analysis's update lists when they are by source, else from lindx.
struct SourceLists {
    IntBlock xsource;
    IntBlock source;
    IntBlock rows;
};
SourceLists sourceLists(const SymbolicResult& s, MemoryCounter* memory, int failureCode);

// Operations of each supernode (its block, its panel solve and the updates
// it sends), one-based by supernode.
std::vector<double> supernodeWork(const SymbolicResult& s, bool lu);

} // namespace skyrinse::spds

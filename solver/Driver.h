// The phase driver behind the entry: handle lifecycle, defaults of iparm,
// argument checks, the analysis stages, and the exit that turns a status into
// the caller's error number.
//
// Reads every argument of the call; the entry has already answered phases -2
// and -3, handled the diagonal matrix, and granted the thread count. Writes
// iparm's output slots, perm when asked (iparm[4] = 2), pt[0] and pt[1].
//
// Nothing escapes: allocation failures, size overflows and stage failures are
// caught here and become statuses. A failure keeps every block allocated so
// far on the handle, where phase -1 frees it.
#pragma once

namespace skyrinse::spds {

struct CallArgs {
    void** pt;
    const int* maxfct;
    const int* mnum;
    const int* mtype;
    const int* phase;
    const int* n;
    const void* a;
    const int* ia;
    const int* ja;
    int* perm;
    const int* nrhs;
    int* iparm;
    const int* msglvl;
    void* b;
    void* x;
};

// Runs the call in precision T; returns the error number for the caller.
template <class T>
int runDriver(const CallArgs& args, int threads);

// Status of a factorization or solve asked for a matrix type whose numeric
// stages this build does not have (the complex types).
inline constexpr int kNumericUnavailable = -5;

} // namespace skyrinse::spds

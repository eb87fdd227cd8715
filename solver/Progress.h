// The process-wide progress hook of the numeric factorization (spds.h).
//
// The slot is an atomic pointer: the photo tool sets it from the thread that
// calls the solver while a preview may be factoring on another. Reading it
// takes no lock. With an empty slot a report costs one load and says "go on".
#pragma once

namespace skyrinse::spds {

// Calls the hook; returns its result, or 0 without a hook.
int reportProgress(int thread, int step, const char* stage, int length);

} // namespace skyrinse::spds

// The solver's two reports: the error report of a failed call and the
// statistics report at the end of a call, both on standard output and only
// with msglvl != 0 (the statistics with msglvl > 0).
//
// Reports name their lines by report ids, a numbering above the message
// catalogue (Messages.h) so that the words can change without the code that
// asks for them. An id without a row prints the catalogue's "message unknown"
// line instead of failing. Everything here runs on the caller's thread after
// the stages have returned; nothing is hot.
#pragma once

#include "Handle.h"
#include "Messages.h"

#include <array>

namespace skyrinse::spds {

// The catalogue number of report id `id`, or -1 when the id is unknown.
int reportNumber(int id);

// Prints report id `id` with its values (int, long long, double or
// const char*, as the row's format takes them).
template <class... V>
void spds_report(int id, V... values) {
    const int number = reportNumber(id);
    if (number < 0) {
        spds_message(0, 808, 1, id);
        return;
    }
    spds_message(0, number, static_cast<int>(sizeof...(V)), values...);
}

// The head of the summary: "Summary SPDS: ( first to last )" for the stage
// numbers 1 reorder, 2 factorize, 3 solve, 4 clean; last < 0 names one stage.
void summaryHead(int first, int last);

// What a report reads of one call: its arguments, its outcome and the state
// of the handle (null when the call failed before it had one).
struct ReportCall {
    const Handle* handle = nullptr;
    int phase = 0;
    int maxfct = 0;
    int mnum = 0;
    int mtype = 0;
    int n = 0;
    int iaLast = 0; // ia[n] of the call, 0 when it could not be read
    int nrhs = 0;
    const int* iparm = nullptr;
    int status = 0;
    int internal = 0;
    int threads = 1; // granted to this call
    int freedFactors = 0;
    // Stage timers as the call found them: a slot that changed ran.
    std::array<double, kTimeCount> timersAtEntry{};
};

// Prints the error report of a failed call (status < 0). Returns the status
// the caller sees, which the report may reclassify (a memory-size code below
// zero in an argument failure becomes -7).
int spds_error_report(const ReportCall& call);

// Prints the statistics report; brings the handle's total time up to date
// with `callSeconds`, the time this call took.
void spds_statistics(const ReportCall& call, Handle* handle, double callSeconds);

// The words of a diagonal matrix, which has no factor to describe.
void diagonalStatistics(int phase);

} // namespace skyrinse::spds

// Structure check of the caller's matrix, asked for by iparm[26].
//
// Reads the one-based compressed rows ia (n+1 words) and ja (ia[n]-1 words)
// and nothing else; writes only iparm[26] and iparm[30..32]. Four tests run
// in order, and the first one that finds a fault decides the code:
//
//   21  ia[0] != 1, or a row start not above the previous one (empty rows
//       included): records (i, ia[i-1], ia[i]);
//   22  a column index outside 1..n: records (position, index, n);
//   23  symmetric types (|mtype| even): a row whose first column lies left of
//       the diagonal: records (row, ia[row-1], that column);
//   24  columns of a row not strictly increasing: records (position,
//       ja[position-1], ja[position]).
//
// Each test looks at every row before it gives up, so iparm[30..32] hold the
// last fault it found, not the first. When all four pass, iparm[26] is
// cleared, which is why a setting is checked only once: the next call with
// the same iparm skips the check.
#pragma once

namespace spds {

inline constexpr int kCheckRowStarts = 21;
inline constexpr int kCheckColumnRange = 22;
inline constexpr int kCheckLowerEntry = 23;
inline constexpr int kCheckColumnOrder = 24;

// Runs the check when iparm[26] != 0. Returns 0, or the code 21 to 24.
int checkMatrixStructure(int mtype, int n, const int* ia, const int* ja, int* iparm);

} // namespace spds

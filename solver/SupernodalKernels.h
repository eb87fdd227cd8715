// Dense kernels on one supernode: the factorization of its diagonal block
// with pivoting confined to that block, and the panel solve of the rows
// below it.
//
// A panel is column-major, `ld` rows high (the supernode's height h), `w`
// columns wide; its first w rows are the diagonal block, the rest are the
// rows below. The U part of an LU panel is a separate (h - w) x w block,
// stored transposed (row j of the block's U right of the diagonal is its
// column j).
//
// What the kernels read: the block as the updates left it, lower triangle
// only for the symmetric kernels (the strict upper triangle may hold
// anything and is never read). What they write: the factor in place, the
// interchanges as local indices into `pivots` (0-based, the 2 x 2 pairs as
// -(index + 1) in both entries), and counters.
//
// Interchanges are applied to whole rows of the block at once, so that the
// factor of the block is a plain triangle of the permuted block and a solve
// can apply all interchanges of a supernode before it, in order.
//
// Pivots that cannot be made acceptable by interchanges inside the block
// (the rows below it are out of reach: the structure of the factor is fixed
// by the analysis) are perturbed and counted, never refused: see
// PivotRule. The solve's checked refinement (IterativeRefinement.h) then
// either repairs the perturbation or reports the answer as untrusted. The
// Cholesky kernel fails on the first pivot that is not positive and
// returns its local column. Only the LDL^T kernel borrows workspace, of
// ldltWorkspace(w) elements.
//
// The pivoting kernels work the block by panels of a few dozen columns: the
// pivot search and the updates inside a panel are scalar, its update of the
// rest of the block is one matrix product. LDL^T searches the whole
// remaining column at each step as the unblocked algorithm does (the panel's
// columns are formed left-looking, as they are needed); LU searches the
// remaining columns of the panel only, all rows of the block, so that its
// complete pivoting is complete in a block no wider than a panel.
#pragma once

#include "internal/Scalar.h"

#include <cstdint>

namespace skyrinse::spds {

// A 1 x 1 pivot d whose column (the rest of it, inside the block and below
// it) has largest magnitude c is perturbed when
//   d = 0,  or  |d| < growth c        (its multipliers would exceed 1/growth),
//   or  |d| <= threshold and c > 0    (tiny by the caller's iparm[9]);
// it becomes +-max(replacement, growth c), by its sign, 0 counting as
// positive (a complex pivot keeps its phase). A small pivot with nothing to eliminate below it
// causes no growth and stays as it is: that is the last pivot of a nearly singular matrix. Entries
// below the block are read as the updates of earlier supernodes left them (the block's own columns
// reach them only in the panel solve).
template <class T>
struct PivotRule {
    RealOf<T> threshold{};
    RealOf<T> replacement{};
    RealOf<T> growth{};
};

struct BlockCounts {
    int perturbed = 0;
    int positive = 0;
    int negative = 0;
    int failedColumn = -1; // Cholesky: local column of a pivot that is not positive
};

// Cholesky of the whole panel: the block becomes L_B, the rows below L_B^-H
// (L_B^-T for real types).
template <class T>
BlockCounts choleskyPanel(T* panel, int ld, int w);

// Elements of workspace that ldltPanel borrows for a block of w columns.
std::int64_t ldltWorkspace(int w);

// LDL^T of the block with Bunch-Kaufman pivoting (bunchKaufman) or with the
// largest remaining diagonal entry as pivot (1 x 1 only), then the rows
// below become (rows P) L_B^-T D^-1. D stands on the block's diagonal, the
// off-diagonal entry of a 2 x 2 pivot right of its first column (in the
// upper triangle), and L below a 2 x 2 pivot is 0.
// With `hermitian`, L D L^H: the diagonal of D is real, a 2 x 2 pivot is
// Hermitian (its stored entry is the lower one), and the inertia is counted.
template <class T>
BlockCounts ldltPanel(T* panel, int ld, int w, bool bunchKaufman, PivotRule<T> rule, int* pivots,
                      T* work, bool hermitian = false);

// LU of the block with complete pivoting inside each panel; row interchanges go to
// rowPivots and to the columns of `upper`, column interchanges to colPivots
// and to all rows of the panel. Then the rows below become L and `upper`
// becomes the transposed U right of the block.
template <class T>
BlockCounts luPanel(T* panel, int ld, int w, T* upper, int ldu, PivotRule<T> rule, int* rowPivots,
                    int* colPivots);

} // namespace skyrinse::spds

// Fill-reducing order of a symmetric indefinite matrix that keeps the pairs
// of its matching together.
//
// The factorization of a symmetric indefinite matrix pivots only inside
// 1 x 1 and 2 x 2 diagonal blocks. A maximum-product matching of the full
// matrix says which off-diagonal entries are large; split into cycles, it
// says which nodes should be eliminated as a pair. This step
//
//  1. cuts the cycles into blocks (cycleBlocks): cycles of length 1 are
//     1 x 1 blocks; longer ones are cut into consecutive pairs, and an odd
//     cycle leaves its first node as a 1 x 1 block at the back. A pair whose
//     two diagonal entries both exceed 1e-08 in magnitude is dissolved into
//     two 1 x 1 blocks, since neither node needs a partner;
//  2. builds the graph with one node per block (the union of the
//     neighbours of its members, weighted 1 or 2) and has it ordered by the
//     caller's ordering (minimum degree or nested dissection, per iparm[1]);
//  3. expands that order: a pair gives its two nodes next to each other,
//     and the domain and separator ranges of the ordering are moved to the
//     expanded positions, a pair counting for two.
//
// Reads: the stored matrix (for the diagonal test; one-based caller arrays
// or a copy), its full symmetric pattern (zero-based, from expandSymmetric)
// and the matching, match[j] = row matched to column j, zero-based. Neither
// is written. Work (n block entries, n bits, the compressed graph of at most
// nnz(full) edges) comes from Block with code -401 and is released on
// return; an allocation failure throws AllocationFailure and leaves the
// caller's data as it was. The ordering callback may throw the same.
#pragma once

#include "internal/CsrMatrix.h"

#include <functional>
#include <span>

namespace skyrinse::spds {

// Magnitude above which a diagonal entry lets its node stand alone.
inline constexpr double kPairDiagonalThreshold = 1e-08;

struct CycleBlocks {
    IntBlock list;    // the n nodes in block order, zero-based
    BitVector single; // bit k set: position k is a 1 x 1 block; clear: k and k+1 form a pair
    int pairs = 0;    // 2 x 2 blocks kept
    int blocks = 0;   // blocks in all
};

template <class T>
CycleBlocks cycleBlocks(const SparseView<T>& stored, std::span<const int> match,
                        MemoryCounter* counter = nullptr);

// Graph of the blocks, zero-based, without self loops; weights are the
// block sizes.
struct CompressedGraph {
    int nodes = 0;
    std::span<const int> xadj;   // nodes + 1
    std::span<const int> adjncy; // xadj[nodes]
    std::span<const int> weights;
    bool ascending = false; // every row's neighbours in increasing order
};

// What the ordering of the compressed graph delivers.
struct CompressedOrdering {
    IntBlock order;       // order[k] = block eliminated at position k (zero-based)
    IntBlock domainpairs; // (first, last) one-based position ranges, flattened; may be empty
    int ndomains = 1;
};

using CompressedOrderer = std::function<CompressedOrdering(const CompressedGraph&)>;

struct PairOrder {
    IntBlock perm; // perm[k-1] = node eliminated at position k, one-based
    IntBlock invp; // invp[perm[k-1]-1] = k
    // pairStart[k] = 1: positions k + 1 and k + 2 (one-based) hold a pair,
    // which the factorization must find inside one diagonal block.
    IntBlock pairStart;
    IntBlock domainpairs; // the ordering's ranges in expanded positions
    int ndomains = 1;
    int partitions = 1; // 1 without a list of ranges, else ndomains
    int pairs = 0;      // 2 x 2 blocks kept
};

template <class T>
PairOrder symmetricPairOrder(const SparseView<T>& stored, const SparseView<T>& full,
                             std::span<const int> match, const CompressedOrderer& order,
                             MemoryCounter* counter = nullptr);

extern template CycleBlocks cycleBlocks<float>(const SparseView<float>&, std::span<const int>,
                                               MemoryCounter*);
extern template CycleBlocks cycleBlocks<double>(const SparseView<double>&, std::span<const int>,
                                                MemoryCounter*);
extern template PairOrder symmetricPairOrder<float>(const SparseView<float>&,
                                                    const SparseView<float>&, std::span<const int>,
                                                    const CompressedOrderer&, MemoryCounter*);
extern template PairOrder symmetricPairOrder<double>(const SparseView<double>&,
                                                     const SparseView<double>&,
                                                     std::span<const int>, const CompressedOrderer&,
                                                     MemoryCounter*);

} // namespace skyrinse::spds

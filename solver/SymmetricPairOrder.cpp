// Blocks from the cycles of the matching, and the order of the block graph;
// see SymmetricPairOrder.h.
//
// The block list is filled from both ends: single nodes and pairs from the
// front, the leftover first node of each odd cycle from the back, so that
// the blocks of one cycle stay together and the list needs no second pass.
// Cycles are taken in the order of their smallest node, each walked from
// that node along match (c1 = match[c0], ...), so a pair (c_k, c_k+1) always
// holds the matched entry a(c_k+1, c_k).
#include "SymmetricPairOrder.h"

#include <algorithm>
#include <cmath>

namespace skyrinse::spds {

namespace {

constexpr int kWork = -401;

template <class T>
bool strongDiagonal(const SparseView<T>& s, int i) {
    for (std::int64_t k = s.begin(i); k < s.end(i); ++k)
        if (s.col(k) == i) return std::abs(static_cast<double>(s.a[k])) > kPairDiagonalThreshold;
    return false;
}

// Moves a (first, last) range of compressed positions to expanded ones;
// an empty range stays empty at the same place.
void expandRange(std::span<const int> prefix, int blocks, int& first, int& last) {
    const int f = std::clamp(first, 1, blocks + 1);
    const int l = std::clamp(last, 0, blocks);
    first = prefix[f - 1] + 1;
    last = prefix[l];
}

} // namespace

template <class T>
CycleBlocks cycleBlocks(const SparseView<T>& stored, std::span<const int> match,
                        MemoryCounter* counter) {
    const int n = stored.rows;
    CycleBlocks r;
    r.list = IntBlock(n, kWork, counter);
    r.single = BitVector(n, counter, kWork);
    r.single.clearAll();

    // The cycles, one after the other in `cycles`, cycle c from start[c].
    IntBlock cycles(n, kWork, counter);
    IntBlock start(static_cast<std::int64_t>(n) + 1, kWork, counter);
    BitVector seen(n, counter, kWork);
    seen.clearAll();
    int count = 0;
    int p = 0;
    for (int s = seen.nextClear(0); s < n; s = seen.nextClear(s + 1)) {
        start[count++] = p;
        for (int x = s; x >= 0 && x < n && !seen.test(x); x = match[x]) {
            seen.set(x);
            cycles[p++] = x;
        }
    }
    start[count] = p;

    int front = 0;
    int back = n - 1;
    for (int c = 0; c < count; ++c) {
        if (start[c + 1] - start[c] != 1) continue;
        r.list[front] = cycles[start[c]];
        r.single.set(front++);
        ++r.blocks;
    }
    auto placePair = [&](int a, int b) {
        r.list[front] = a;
        r.list[front + 1] = b;
        if (strongDiagonal(stored, a) && strongDiagonal(stored, b)) {
            r.single.set(front);
            r.single.set(front + 1);
            r.blocks += 2;
        } else {
            ++r.pairs;
            ++r.blocks;
        }
        front += 2;
    };
    for (int c = 0; c < count; ++c) {
        const int* cyc = cycles.data() + start[c];
        const int length = start[c + 1] - start[c];
        if (length == 1) continue;
        int t = 0;
        if (length % 2 == 1) {
            r.list[back] = cyc[0];
            r.single.set(back--);
            ++r.blocks;
            t = 1;
        }
        for (; t + 1 < length; t += 2)
            placePair(cyc[t], cyc[t + 1]);
    }
    return r;
}

template <class T>
PairOrder symmetricPairOrder(const SparseView<T>& stored, const SparseView<T>& full,
                             std::span<const int> match, const CompressedOrderer& order,
                             MemoryCounter* counter) {
    const int n = stored.rows;
    const CycleBlocks cb = cycleBlocks(stored, match, counter);
    const int blocks = cb.blocks;

    // Block of each node, first list position of each block, block sizes.
    IntBlock blockOf(n, kWork, counter);
    IntBlock firstOf(static_cast<std::int64_t>(blocks) + 1, kWork, counter);
    IntBlock weights(blocks, kWork, counter);
    for (int pos = 0, b = 0; pos < n; ++b) {
        const int size = cb.single.test(pos) ? 1 : 2;
        firstOf[b] = pos;
        weights[b] = size;
        for (int t = 0; t < size; ++t)
            blockOf[cb.list[pos + t]] = b;
        pos += size;
    }
    firstOf[blocks] = n;

    // Merged rows of each block, with the pattern of the full matrix.
    IntBlock xadj(static_cast<std::int64_t>(blocks) + 1, kWork, counter);
    IntBlock adjncy(std::max<std::int64_t>(1, full.nnz), kWork, counter, kNoFill);
    IntBlock mark(blocks, kWork, counter, kNoFill);
    std::fill(mark.begin(), mark.end(), -1);
    int edges = 0;
    // Without pairs the rows come out in the order of the pattern's rows,
    // often ascending already; the orderer then need not sort them.
    bool ascending = true;
    for (int b = 0; b < blocks; ++b) {
        mark[b] = b;
        int previous = -1;
        for (int pos = firstOf[b]; pos < firstOf[b + 1]; ++pos) {
            const int x = cb.list[pos];
            for (std::int64_t k = full.begin(x); k < full.end(x); ++k) {
                const int c = blockOf[full.col(k)];
                if (mark[c] == b) continue;
                mark[c] = b;
                adjncy[edges++] = c;
                ascending = ascending && c > previous;
                previous = c;
            }
        }
        xadj[b + 1] = edges;
    }
    mark.reset();

    const CompressedGraph graph{
        blocks, xadj.span(), std::span<const int>(adjncy.data(), static_cast<std::size_t>(edges)),
        weights.span(), ascending};
    CompressedOrdering co = order(graph);

    PairOrder r;
    r.pairs = cb.pairs;
    r.perm = IntBlock(n, kWork, counter);
    r.invp = IntBlock(n, kWork, counter);
    r.pairStart = IntBlock(n, kWork, counter);
    IntBlock prefix(static_cast<std::int64_t>(blocks) + 1, kWork, counter);
    int pos = 0;
    for (int k = 0; k < blocks; ++k) {
        const int b = co.order[k];
        prefix[k] = pos;
        r.pairStart[pos] = firstOf[b + 1] - firstOf[b] == 2 ? 1 : 0;
        if (firstOf[b + 1] - firstOf[b] == 2) r.pairStart[pos + 1] = 0;
        for (int q = firstOf[b]; q < firstOf[b + 1]; ++q)
            r.perm[pos++] = cb.list[q] + 1;
    }
    prefix[blocks] = pos;
    for (int k = 0; k < n; ++k)
        r.invp[r.perm[k] - 1] = k + 1;

    const std::int64_t entries = co.domainpairs.size();
    if (entries >= 2) {
        r.domainpairs = IntBlock(entries, kWork, counter);
        for (std::int64_t e = 0; e + 1 < entries; e += 2) {
            int first = co.domainpairs[e];
            int last = co.domainpairs[e + 1];
            expandRange(prefix.span(), blocks, first, last);
            r.domainpairs[e] = first;
            r.domainpairs[e + 1] = last;
        }
        r.ndomains = std::max(1, co.ndomains);
        r.partitions = r.ndomains;
    }
    return r;
}

template CycleBlocks cycleBlocks<float>(const SparseView<float>&, std::span<const int>,
                                        MemoryCounter*);
template CycleBlocks cycleBlocks<double>(const SparseView<double>&, std::span<const int>,
                                         MemoryCounter*);
template PairOrder symmetricPairOrder<float>(const SparseView<float>&, const SparseView<float>&,
                                             std::span<const int>, const CompressedOrderer&,
                                             MemoryCounter*);
template PairOrder symmetricPairOrder<double>(const SparseView<double>&, const SparseView<double>&,
                                              std::span<const int>, const CompressedOrderer&,
                                              MemoryCounter*);

} // namespace skyrinse::spds

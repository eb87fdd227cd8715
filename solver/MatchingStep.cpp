// The matching step of the analysis; see MatchingStep.h.
//
// The caller's arrays are read through their base (SparseView) instead of
// being shifted to zero base in place: the entry receives them as const,
// they may be shared with another thread or live in read-only memory, and
// a failure half-way must not leave them shifted.
#include "MatchingStep.h"

#include "Messages.h"
#include "Ordering.h"
#include "Scaling.h"
#include "WeightedMatching.h"

#include "runtime/nrt.h"

#include <algorithm>
#include <cmath>

namespace skyrinse::spds {

namespace {

constexpr int kIntegerWork = -401;
constexpr int kRealWork = -402;
constexpr int kPermutationBlock = -403;
constexpr int kScalingBlock = -404;

void ensureHandleBlocks(const MatchingRequest& rq, IntBlock& permutation, Block<double>& scalings,
                        MemoryCounter* counter) {
    const std::int64_t n = rq.n;
    const std::int64_t permWords = checkedAdd(checkedMul(n, std::max(1, rq.maxfct)), n + 3);
    if (permutation.size() < permWords)
        permutation = IntBlock(permWords, kPermutationBlock, counter);
    if (scalings.size() < 2 * n) scalings = Block<double>(2 * n, kScalingBlock, counter);
}

template <class T>
void writeScaling(const MatchingRequest& rq, int mode, std::span<const int> match,
                  std::span<const T> u, std::span<const T> v, IntBlock& permutation,
                  Block<double>& scalings) {
    const std::size_t n = static_cast<std::size_t>(rq.n);
    std::span<double> all = scalings.span();
    buildScaling<T>(mode, rq.mtype, match, u, v, permutation.span().first(n), all.first(n),
                    all.subspan(n, n));
}

bool isComplexType(int mtype) {
    return mtype == 13 || mtype == -4 || mtype == 6;
}
bool hasMatching(int mtype) {
    return mtype == 11 || mtype == 13 || scalesSymmetrically(mtype);
}

template <class T>
MatchingOutcome matchAndScale(const MatchingRequest& rq, IntBlock& permutation,
                              Block<double>& scalings, const CompressedOrderer& order,
                              MemoryCounter* counter) {
    MatchingOutcome out;
    const int n = rq.n;
    // Complex values come as (real, imaginary) pairs; the matching and the
    // pair test only weigh magnitudes, so those are taken once up front.
    Block<T> magnitudes;
    const T* values = static_cast<const T*>(rq.a);
    if (isComplexType(rq.mtype)) {
        const std::int64_t nnz = static_cast<std::int64_t>(rq.ia[n]) - rq.ia[0];
        magnitudes = Block<T>(nnz, kRealWork, counter);
        for (std::int64_t k = 0; k < nnz; ++k)
            magnitudes[k] = std::hypot(values[2 * k], values[2 * k + 1]);
        values = magnitudes.data();
    }
    const SparseView<T> stored = borrowView(n, rq.ia, rq.ja, values);

    IntBlock match(n, kIntegerWork, counter);
    Block<T> u(n, kRealWork, counter);
    Block<T> v(n, kRealWork, counter);

    const bool symmetric = scalesSymmetrically(rq.mtype);
    SparseView<T> full;
    const MatchingResult m =
        symmetric
            ? symmetricWeightedMatching<T>(stored, full, match.span(), u.span(), v.span(), counter)
            : weightedMatching<T>(stored, match.span(), u.span(), v.span(), counter);
    out.ran = true;
    out.matched = m.matched;
    if (m.status == -2) {
        out.error = -2;
        out.internalCode = kRealWork;
        return out;
    }
    if (m.status != 0) {
        out.error = -6;
        out.internalCode = -m.matched;
        return out;
    }
    if (symmetric) {
        out.pairOrder = symmetricPairOrder<T>(stored, full, match.span(), order, counter);
        out.hasPairOrder = true;
        out.fullIa = std::move(full.ownIa);
        out.fullJa = std::move(full.ownJa);
    }
    writeScaling<T>(rq, rq.scaling ? kScalingFull : kScalingPermutationOnly, match.span(), u.span(),
                    v.span(), permutation, scalings);
    return out;
}

} // namespace

MatchingOutcome runMatchingStep(const MatchingRequest& rq, IntBlock& permutation,
                                Block<double>& scalings, const CompressedOrderer& order,
                                MemoryCounter* counter) {
    MatchingOutcome out;
    try {
        if (rq.matching == 0) {
            if (rq.mtype > 10) {
                ensureHandleBlocks(rq, permutation, scalings, counter);
                writeScaling<double>(rq, kScalingIdentity, {}, {}, {}, permutation, scalings);
            }
            return out;
        }
        if (rq.matching < 0) return out;
        if (!rq.a) {
            // The matching weighs entries; without values there is nothing to weigh.
            out.error = -5;
            return out;
        }
        // Both methods (iparm[12] = 1 and 2) are served by the same
        // maximum-product matching.
        ensureHandleBlocks(rq, permutation, scalings, counter);
        if (!hasMatching(rq.mtype)) {
            out.error = -5;
            out.internalCode = kGuardMessage;
            return out;
        }
        return rq.single ? matchAndScale<float>(rq, permutation, scalings, order, counter)
                         : matchAndScale<double>(rq, permutation, scalings, order, counter);
    } catch (const AllocationFailure& failure) {
        out = MatchingOutcome{};
        out.error = -2;
        out.internalCode = failure.code;
        return out;
    } catch (const SizeOverflow&) {
        out = MatchingOutcome{};
        out.error = -2;
        out.internalCode = kPermutationBlock;
        return out;
    }
}

CompressedOrderer blockGraphOrderer(int method, int partitions, int threads, MemoryCounter* memory,
                                    double* seconds) {
    return [=](const CompressedGraph& g) {
        // The block graph is symmetric and free of duplicates already, so
        // the ordering graph is its transpose: one counting pass gives the
        // rows ascending, with no symmetrising and no sort; rows that
        // ascend already are only copied.
        const double t0 = nrt_seconds();
        const int nodes = g.nodes;
        const std::int64_t edges = static_cast<std::int64_t>(g.adjncy.size());
        if (edges > 2147483646LL) throw SizeOverflow{};
        OrderingResult r;
        r.xadj = IntBlock(static_cast<std::int64_t>(nodes) + 1, kIntegerWork, memory);
        r.adjncy = IntBlock(std::max<std::int64_t>(1, edges), kIntegerWork, memory, kNoFill);
        for (int b = 0; b <= nodes; ++b)
            r.xadj[b] = g.xadj[b] + 1;
        if (g.ascending) {
            for (std::int64_t k = 0; k < edges; ++k)
                r.adjncy[k] = g.adjncy[static_cast<std::size_t>(k)] + 1;
        } else {
            IntBlock fill(std::max(1, nodes), kIntegerWork, memory);
            for (int b = 0; b < nodes; ++b)
                fill[b] = g.xadj[b];
            for (int b = 0; b < nodes; ++b)
                for (int k = g.xadj[b]; k < g.xadj[b + 1]; ++k)
                    r.adjncy[fill[g.adjncy[k]]++] = b + 1;
        }

        OrderingInput in;
        in.n = nodes;
        in.mtype = 11;
        in.method = method;
        in.partitions = partitions;
        in.threads = threads;
        in.memory = memory;
        orderGraph(in, r);
        if (seconds) *seconds += nrt_seconds() - t0;

        CompressedOrdering co;
        co.order = IntBlock(nodes, kIntegerWork, memory);
        for (int k = 0; k < nodes; ++k)
            co.order[k] = r.perm[k] - 1;
        co.domainpairs = std::move(r.domainpairs);
        co.ndomains = r.ndomains;
        return co;
    };
}

void reportMatchingFailure(const MatchingOutcome& outcome) {
    // The guard prints at any message level; an unmatched column is told by
    // the error report like every other failure.
    if (outcome.error == -5 && outcome.internalCode == kGuardMessage) spds_message(0, 773, 0);
}

} // namespace skyrinse::spds

// The matrix-to-factor map; the contract is in FactorMap.h.
//
// Entries are grouped by their factor column min(row, column) after the
// permutation, in the order of the caller's arrays, with the other index
// kept in `target` for the moment (negative for an entry above the
// diagonal). Then each supernode's rows are indexed once, and every entry
// of its columns turns its index into a position.
#include "FactorMap.h"

#include "internal/OneBased.h"

#include <algorithm>
#include <vector>

namespace skyrinse::spds {

std::uint64_t patternFingerprint(int n, const int* ia, const int* ja) {
    // Four independent lanes of a multiply-xor hash, so the pass runs at the
    // speed of memory rather than of one multiply chain.
    constexpr std::uint64_t kPrime = 0x100000001b3ULL;
    std::uint64_t lane[4] = {0xcbf29ce484222325ULL, 0x84222325cbf29ce4ULL, 0x9e3779b97f4a7c15ULL,
                             0xc2b2ae3d27d4eb4fULL};
    auto mix = [&](const int* v, std::int64_t count) {
        std::int64_t k = 0;
        for (; k + 4 <= count; k += 4)
            for (int l = 0; l < 4; ++l)
                lane[l] = (lane[l] ^ static_cast<std::uint32_t>(v[k + l])) * kPrime;
        for (; k < count; ++k)
            lane[0] = (lane[0] ^ static_cast<std::uint32_t>(v[k])) * kPrime;
    };
    mix(ia, static_cast<std::int64_t>(n) + 1);
    mix(ja, static_cast<std::int64_t>(ia[n]) - ia[0]);
    std::uint64_t h = static_cast<std::uint64_t>(n);
    for (std::uint64_t l : lane)
        h = (h ^ (l >> 29) ^ l) * 0xbf58476d1ce4e5b9ULL;
    return h;
}

bool buildFactorMap(const Handle& h, bool lu, const int* ia, const int* ja, int failureCode,
                    MemoryCounter* memory, FactorMap& map) {
    const int n = h.n;
    const SymbolicResult& s = h.symbolic;
    const OneBased<const int> invp(h.ordering_.invp.data());
    const OneBased<const int> xsup(s.xsup.data()), xlindx(s.xlindx.data()), lindx(s.lindx.data()),
        xlnz(s.xlnz.data()), xunz(s.xunz.data());
    const std::int64_t nnz = static_cast<std::int64_t>(ia[n]) - ia[0];
    map.reset();
    // Position of each original row in the matching's order (types above 10).
    std::vector<int> rowPosition;
    if (lu && h.rowPermuted) {
        rowPosition.resize(static_cast<std::size_t>(n));
        for (int i = 1; i <= n; ++i)
            rowPosition[static_cast<std::size_t>(h.matchingPermutation[i - 1] - 1)] = i;
    }
    auto place = [&](int r, int c) {
        // r, c zero-based original row and column -> permuted one-based.
        const int i = rowPosition.empty() ? r + 1 : rowPosition[static_cast<std::size_t>(r)];
        return std::pair<int, int>(invp[i], invp[c + 1]);
    };
    map.xentry = IntBlock(static_cast<std::int64_t>(n) + 1, failureCode, memory);
    map.source = IntBlock(std::max<std::int64_t>(1, nnz), failureCode, memory);
    map.target = IntBlock(std::max<std::int64_t>(1, nnz), failureCode, memory);
    int* xentry = map.xentry.data();
    for (int r = 0; r < n; ++r)
        for (int p = ia[r] - 1; p < ia[r + 1] - 1; ++p) {
            const auto [k, l] = place(r, ja[p] - 1);
            ++xentry[std::min(k, l)];
        }
    for (int c = 1; c <= n; ++c)
        xentry[c] += xentry[c - 1];
    std::vector<int> fill(xentry, xentry + n);
    for (int r = 0; r < n; ++r)
        for (int p = ia[r] - 1; p < ia[r + 1] - 1; ++p) {
            const auto [k, l] = place(r, ja[p] - 1);
            const int e = fill[static_cast<std::size_t>(std::min(k, l) - 1)]++;
            map.source[e] = p;
            map.target[e] = k < l ? -l : k;
        }

    std::vector<int> local(static_cast<std::size_t>(n) + 1, -1);
    for (int sn = 1; sn <= s.nsuper; ++sn) {
        const int fst = xsup[sn];
        const int lst = xsup[sn + 1] - 1;
        const int ws = lst - fst + 1;
        const int* rows = lindx.p + xlindx[sn] - 1;
        const int hs = xlindx[sn + 1] - xlindx[sn];
        for (int i = 0; i < hs; ++i)
            local[static_cast<std::size_t>(rows[i])] = i;
        // A row that the structure of this supernode does not hold may still
        // carry an index left by another supernode.
        auto at = [&](int row) {
            const int i = local[static_cast<std::size_t>(row)];
            return i >= 0 && i < hs && rows[i] == row ? i : -1;
        };
        for (int c = fst; c <= lst; ++c)
            for (int e = xentry[c - 1]; e < xentry[c]; ++e) {
                const int other = std::abs(map.target[e]);
                const bool above = map.target[e] < 0;
                if (lu && above && other <= lst) {
                    // Inside the diagonal block, which lnz holds whole.
                    map.target[e] = xlnz[other] + (c - fst);
                    continue;
                }
                const int i = at(other);
                if (i < 0) {
                    map.reset();
                    return false;
                }
                if (lu && above)
                    map.target[e] = -(xunz[c] + i - ws);
                else
                    map.target[e] = above ? -(xlnz[c] + i) : xlnz[c] + i;
            }
    }
    map.fingerprint = patternFingerprint(n, ia, ja);
    return true;
}

} // namespace skyrinse::spds

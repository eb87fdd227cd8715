// Symbolic factorization; the contract is in SymbolicFactorization.h.
//
// The elimination tree is Liu's algorithm with path compression on the
// ordering graph taken through invp, so nothing is permuted. Column counts
// come from the skeleton of the matrix (Gilbert, Ng and Peyton): in a
// postorder of the tree, each entry that starts a new leaf of its row
// subtree adds one to its column and takes one off the least common
// ancestor with the previous leaf, found with a path-compressed ancestor
// forest; the counts are then summed up the tree. The work is that of the
// matrix, not of the factor. When asked (the driver's own order cut into
// domains), the columns are then renumbered in a postorder of the tree
// inside each range of the dissection (postorderColumns), so that
// supernodes, chains j-1 -> j of the tree with equal structure, and the
// subtrees that merge with them sit next to each other.
//
// Supernodes follow the rule "column j joins j-1 when parent(j-1) = j and
// colcnt(j-1) = colcnt(j) + 1", cut every maxsup columns. The run length that
// the cut interrupts is still counted, so the largest fundamental width is
// reported as it is in the matrix, not as the panels hold it. Then, unless
// switched off, a supernode merges into its parent when the explicit zeros
// this stores stay within the bounds of relaxSupernodes: a few thousand
// narrow panels become fewer wide ones, whose updates are fewer and larger
// products. From there on colcnt describes the stored columns.
#include "SymbolicFactorization.h"

#include "internal/OneBased.h"

#include "runtime/nrt.h"

#include <algorithm>
#include <climits>
#include <vector>

namespace skyrinse::spds {

namespace {

constexpr int kWorkCode = -500;
constexpr int kTreeCode = -600;
constexpr int kSupernodeCode = -700;
constexpr int kIndexCode = -800;
constexpr int kLnzPointerCode = -801;
constexpr int kUnzPointerCode = -802;
constexpr int kUpdateListCode = -1000;
constexpr int kOocMarker = -1111111;

constexpr int kStatusOverflow = -182;
constexpr int kStatusInconsistent = -180;

struct Supernodes {
    int nsuper = 0;
    int largestFundamental = 0;
    int largestSupernode = 0;
    std::int64_t lindxSize = 0;
};

// Gives the first column of each pair the structure of the second, so that
// the two form one fundamental supernode. The parent of a pair's first
// column is the second (their entry is the matched one), and a column's
// structure below its parent lies inside the parent's: the first column
// gains only explicit zeros, and no other column changes. Returns the
// entries added.
std::int64_t joinPairs(int n, const int* pairStart, OneBased<const int> parent,
                       OneBased<int> colcnt) {
    std::int64_t added = 0;
    if (!pairStart) return 0;
    for (int j = 1; j < n; ++j)
        if (pairStart[j - 1] && parent[j] == j + 1 && colcnt[j] != colcnt[j + 1] + 1) {
            added += colcnt[j + 1] + 1 - colcnt[j];
            colcnt[j] = colcnt[j + 1] + 1;
        }
    return added;
}

Supernodes findSupernodes(int n, int maxsup, OneBased<const int> parent, OneBased<const int> colcnt,
                          const int* pairStart, OneBased<int> snode) {
    Supernodes r;
    r.nsuper = 1;
    r.largestFundamental = 1;
    r.largestSupernode = 1;
    snode[1] = 1;
    int width = 1;
    int run = 1;
    for (int j = 2; j <= n; ++j) {
        if (parent[j - 1] == j && colcnt[j - 1] == colcnt[j] + 1) {
            ++run;
            // The first of a pair joins only if its partner still fits.
            const bool pairFirst = pairStart && j < n && pairStart[j - 1] && parent[j] == j + 1;
            if (width + (pairFirst ? 1 : 0) < maxsup) {
                ++width;
            } else {
                ++r.nsuper;
                width = 1;
            }
        } else {
            ++r.nsuper;
            width = 1;
            run = 1;
        }
        snode[j] = r.nsuper;
        r.largestFundamental = std::max(r.largestFundamental, run);
        r.largestSupernode = std::max(r.largestSupernode, width);
    }
    return r;
}

// Bounds of the relaxed merge, in the manner of CHOLMOD's nrelax/zrelax: with
// w the columns of a merged supernode and z the share of explicit zeros in
// its lower trapezoid (earlier merges included), a child joins its parent
// when w <= 4, or it adds no zero, or w <= 16 and z < 0.8, or w <= 48 and
// z < 0.1, or z < 0.05; never beyond the panel width.
struct RelaxBound {
    int width;
    double zeros;
};
constexpr RelaxBound kRelaxBounds[] = {{4, 1.0}, {16, 0.8}, {48, 0.1}, {INT_MAX, 0.05}};

bool relaxedJoin(std::int64_t width, double zeroShare) {
    for (const RelaxBound& b : kRelaxBounds)
        if (width <= b.width && zeroShare < b.zeros) return true;
    return false;
}

// Merges each supernode into its parent when the parent's panel starts
// right after it (only such a child can share a panel with it; the
// postorder puts as many children there as the tree allows) and the
// explicit zeros stay within the bounds above. The rows of
// a child below its columns lie in the parent's rows, so the merged panel
// holds the child's columns and the parent's rows, and the child's columns
// gain the zeros. Supernodes are visited from the last down, so a chain of
// children folds into one panel. A merge never crosses the end of a domain
// or separator of the dissection (`stops`), so the domains keep whole
// supernodes, and merges whole supernodes only, so no pair is split.
// Rewrites snode and colcnt; returns the zeros added.
std::int64_t relaxSupernodes(int n, int maxsup, OneBased<const int> parent,
                             const std::vector<char>& stops, OneBased<int> colcnt,
                             OneBased<int> snode, Supernodes& sn) {
    const int ns = sn.nsuper;
    const auto slots = static_cast<std::size_t>(ns) + 2;
    std::vector<int> first(slots);
    first[slots - 1] = n + 1;
    for (int j = n; j >= 1; --j)
        first[static_cast<std::size_t>(snode[j])] = j;
    // Per supernode as it stands when visited: the last column, the height
    // and the zeros of the merged panel that it starts.
    std::vector<int> last(slots, n), height(slots, 0);
    std::vector<std::int64_t> zeros(slots, 0);
    std::vector<char> joined(slots, 0);
    height[static_cast<std::size_t>(ns)] = colcnt[first[static_cast<std::size_t>(ns)]];
    for (int s = ns - 1; s >= 1; --s) {
        const auto u = static_cast<std::size_t>(s);
        const int fst = first[u];
        const int end = first[u + 1] - 1;
        const int p = parent[end];
        last[u] = end;
        height[u] = colcnt[fst];
        if (p == 0 || p > last[u + 1] || stops[static_cast<std::size_t>(end)]) continue;
        const std::int64_t wc = end - fst + 1;
        const std::int64_t w = wc + (last[u + 1] - end);
        if (w > maxsup) continue;
        const std::int64_t h = wc + height[u + 1];
        const std::int64_t added = wc * (h - height[u]);
        const std::int64_t total = zeros[u] + zeros[u + 1] + added;
        const double trapezoid = static_cast<double>(w * h - w * (w - 1) / 2);
        if (added != 0 && !relaxedJoin(w, static_cast<double>(total) / trapezoid)) continue;
        joined[u + 1] = 1;
        last[u] = last[u + 1];
        height[u] = static_cast<int>(h);
        zeros[u] = total;
    }
    std::int64_t added = 0;
    int count = 0;
    sn.largestSupernode = 1;
    for (int s = 1; s <= ns; ++s) {
        const auto u = static_cast<std::size_t>(s);
        if (joined[u]) continue;
        ++count;
        const int fst = first[u];
        for (int c = fst; c <= last[u]; ++c) {
            snode[c] = count;
            const int rows = height[u] - (c - fst);
            added += rows - colcnt[c];
            colcnt[c] = rows;
        }
        sn.largestSupernode = std::max(sn.largestSupernode, last[u] - fst + 1);
    }
    sn.nsuper = count;
    return added;
}

// Columns that end a domain or a separator of the dissection, by column.
std::vector<char> domainEnds(int n, const OrderingResult& ord) {
    std::vector<char> ends(static_cast<std::size_t>(n) + 1, 0);
    const std::int64_t pairs = std::min<std::int64_t>(2 * ord.ndomains, ord.domainpairs.size() / 2);
    for (std::int64_t p = 0; p < pairs; ++p) {
        const int l = ord.domainpairs[2 * p + 1];
        if (l >= 1 && l <= n) ends[static_cast<std::size_t>(l)] = 1;
    }
    return ends;
}

// The ordering graph in the positions of the permuted matrix: the
// neighbours of position j (one-based positions) in adj[start[j-1] ..
// start[j]-1]. The tree, the counts and the row structure each read every
// neighbour list in position order; taken through perm and invp, each of
// those reads would land at a random place of the graph.
struct PositionGraph {
    IntBlock start;
    IntBlock adj;
    // After a renumbering (postorderColumns), row j of the renumbered matrix
    // is row order[j] of the lists above, and a listed neighbour c is now
    // position[c]; both one-based, empty when nothing was renumbered. Read
    // through them, the lists need not be built a second time.
    std::vector<int> order, position;
    int source(int j) const { return order.empty() ? j : order[static_cast<std::size_t>(j)]; }
    int relabel(int c) const {
        return position.empty() ? c : position[static_cast<std::size_t>(c)];
    }
};

// Columns after which a range of the dissection (domain, top or separator)
// ends or the next one starts, by column: the postorder below stays inside
// these runs, so every range keeps its columns.
std::vector<char> rangeBounds(int n, const OrderingResult& ord) {
    std::vector<char> bounds(static_cast<std::size_t>(n) + 1, 0);
    bounds[static_cast<std::size_t>(n)] = 1;
    const std::int64_t pairs = std::min<std::int64_t>(2 * ord.ndomains, ord.domainpairs.size() / 2);
    for (std::int64_t p = 0; p < pairs; ++p) {
        const int f = ord.domainpairs[2 * p];
        const int l = ord.domainpairs[2 * p + 1];
        if (f >= 2 && f <= n) bounds[static_cast<std::size_t>(f - 1)] = 1;
        if (l >= 1 && l <= n) bounds[static_cast<std::size_t>(l)] = 1;
    }
    return bounds;
}

// Renumbers the columns in a postorder of the elimination tree, taken
// separately inside each run between two bounds (a column whose parent lies
// past the run is a root there). Any order in which every column comes
// before its parent has the same factor up to the renumbering, so the tree
// and the counts are relabelled rather than computed again. What the order
// decides is which subtrees end right before their parent: only those can
// share its panel when supernodes merge. Children go by increasing count,
// ties by position: the child that continues the parent's structure (count
// one above the parent's: a fundamental supernode, or the first of a
// matched pair, which is the parent's highest child) comes last, so no
// chain of the tree is broken, and the children nearest to it are those
// whose structure is nearest to the parent's, which merge with the fewest
// explicit zeros. (Decreasing subtree size instead gave fewer supernodes
// but 2 % more entries and a slower factorization on the matting
// systems.) Rewrites ord.perm/invp, parent, colcnt and pairStart (when not
// empty), and gives the graph the renumbering to read its lists through.
void postorderColumns(int n, const std::vector<char>& bounds, OrderingResult& ord,
                      OneBased<int> parent, OneBased<int> colcnt, std::vector<int>& pairStart,
                      PositionGraph& graph) {
    const auto slots = static_cast<std::size_t>(n) + 2;
    std::vector<int> runEnd(slots, n);
    for (int j = n, end = n; j >= 1; --j) {
        if (bounds[static_cast<std::size_t>(j)]) end = j;
        runEnd[static_cast<std::size_t>(j)] = end;
    }
    auto localParent = [&](int j) {
        const int p = parent[j];
        return p > 0 && p <= runEnd[static_cast<std::size_t>(j)] ? p : 0;
    };
    std::vector<int> xchild(slots, 0);
    for (int j = 1; j <= n; ++j)
        if (const int p = localParent(j)) ++xchild[static_cast<std::size_t>(p) + 1];
    for (std::size_t j = 1; j < slots; ++j)
        xchild[j] += xchild[j - 1];
    std::vector<int> child(static_cast<std::size_t>(std::max(1, xchild[slots - 1])));
    {
        std::vector<int> fill(xchild.begin(), xchild.end() - 1);
        for (int j = 1; j <= n; ++j)
            if (const int p = localParent(j)) child[static_cast<std::size_t>(fill[p]++)] = j;
    }
    for (int p = 1; p <= n; ++p) {
        int* first = child.data() + xchild[static_cast<std::size_t>(p)];
        int* last = child.data() + xchild[static_cast<std::size_t>(p) + 1];
        if (last - first > 1)
            std::sort(first, last, [&](int a, int b) {
                return colcnt[a] != colcnt[b] ? colcnt[a] < colcnt[b] : a < b;
            });
    }
    // Depth first from each root in increasing order; the runs follow each
    // other, so every run keeps its place.
    std::vector<int> order;
    order.reserve(static_cast<std::size_t>(n));
    std::vector<int> stack, next(slots, 0);
    for (int root = 1; root <= n; ++root) {
        if (localParent(root)) continue;
        stack.push_back(root);
        next[static_cast<std::size_t>(root)] = xchild[static_cast<std::size_t>(root)];
        while (!stack.empty()) {
            const int v = stack.back();
            int& k = next[static_cast<std::size_t>(v)];
            if (k < xchild[static_cast<std::size_t>(v) + 1]) {
                const int c = child[static_cast<std::size_t>(k++)];
                next[static_cast<std::size_t>(c)] = xchild[static_cast<std::size_t>(c)];
                stack.push_back(c);
            } else {
                stack.pop_back();
                order.push_back(v);
            }
        }
    }
    bool identity = true;
    for (int k = 0; k < n && identity; ++k)
        identity = order[static_cast<std::size_t>(k)] == k + 1;
    if (identity) return;

    std::vector<int> position(slots, 0);
    for (int k = 0; k < n; ++k)
        position[static_cast<std::size_t>(order[static_cast<std::size_t>(k)])] = k + 1;
    std::vector<int> oldPerm(ord.perm.begin(), ord.perm.end());
    std::vector<int> oldParent(parent.p, parent.p + n), oldCount(colcnt.p, colcnt.p + n);
    for (int k = 1; k <= n; ++k) {
        const int j = order[static_cast<std::size_t>(k - 1)];
        ord.perm[k - 1] = oldPerm[static_cast<std::size_t>(j - 1)];
        ord.invp[ord.perm[k - 1] - 1] = k;
        const int p = oldParent[static_cast<std::size_t>(j - 1)];
        parent[k] = p > 0 ? position[static_cast<std::size_t>(p)] : 0;
        colcnt[k] = oldCount[static_cast<std::size_t>(j - 1)];
    }
    if (!pairStart.empty()) {
        std::vector<int> oldPairs(std::move(pairStart));
        pairStart.assign(static_cast<std::size_t>(n), 0);
        for (int j = 1; j < n; ++j)
            if (oldPairs[static_cast<std::size_t>(j - 1)] &&
                position[static_cast<std::size_t>(j) + 1] ==
                    position[static_cast<std::size_t>(j)] + 1)
                pairStart[static_cast<std::size_t>(position[static_cast<std::size_t>(j)] - 1)] = 1;
    }
    order.insert(order.begin(), 0);
    graph.order = std::move(order);
    graph.position = std::move(position);
}

// Pairs of columns become pairs of supernodes. Returns a positive code when
// the list does not describe usable ranges, 0 otherwise.
int convertDomainPairs(int n, OrderingResult& ord, const SymbolicResult& sym) {
    const OneBased<const int> snode = oneBased(sym.snode.data());
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const int nd = ord.ndomains;
    int* dp = ord.domainpairs.data();
    auto convertFirst = [&](int f) { return f >= 1 && f <= n ? snode[f] : f; };
    auto convertLast = [&](int l) {
        if (l < 1 || l > n) return l < 1 ? 0 : l;
        const int s = snode[l];
        return xsup[s + 1] - 1 > l ? s - 1 : s;
    };
    int code = 0;
    auto test = [&](int pair, int first, int last) {
        if (first > sym.nsuper || last > sym.nsuper || first < 1 || last < 0 ||
            (first > last && last >= 1))
            code = pair;
    };
    for (int p = 0; p < 2 * nd; ++p) {
        if (p == nd) continue;
        dp[2 * p] = convertFirst(dp[2 * p]);
        dp[2 * p + 1] = convertLast(dp[2 * p + 1]);
    }
    dp[2 * nd] = (nd > 0 ? dp[2 * nd - 1] : 0) + 1;
    dp[2 * nd + 1] = sym.nsuper;
    for (int p = 0; p < 2 * nd; ++p)
        test(p + 1, dp[2 * p], dp[2 * p + 1]);
    return code;
}

void buildSupernodalTree(const SymbolicResult& sym, OneBased<int> sparent) {
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const OneBased<const int> parent = oneBased(sym.parent.data());
    const OneBased<const int> snode = oneBased(sym.snode.data());
    for (int s = sym.nsuper; s >= 1; --s) {
        const int p = parent[xsup[s + 1] - 1];
        sparent[s] = p > 0 ? snode[p] : 0;
    }
}

void buildSchedule(int nsuper, OneBased<const int> sparent, int* pnlsch) {
    std::vector<int> children(static_cast<std::size_t>(nsuper) + 1, 0);
    for (int s = 1; s <= nsuper; ++s)
        if (sparent[s] > 0) ++children[sparent[s]];
    std::fill(pnlsch, pnlsch + nsuper, -1);
    int tail = 0;
    for (int s = 1; s <= nsuper; ++s)
        if (children[s] == 0) pnlsch[tail++] = -s;
    // The list is its own work queue: a parent joins once its last child has.
    for (int head = 0; head < tail; ++head) {
        const int s = std::abs(pnlsch[head]);
        const int p = sparent[s];
        if (p > 0 && --children[p] == 0) pnlsch[tail++] = p;
    }
}

PositionGraph positionGraph(int n, const OrderingResult& ord, MemoryCounter* memory) {
    const OneBased<const int> perm = oneBased(ord.perm.data());
    const OneBased<const int> invp = oneBased(ord.invp.data());
    const OneBased<const int> xadj = oneBased(ord.xadj.data());
    const OneBased<const int> adjncy = oneBased(ord.adjncy.data());
    PositionGraph g;
    g.start = IntBlock(static_cast<std::int64_t>(n) + 1, kWorkCode, memory, kNoFill);
    g.adj = IntBlock(std::max(1, xadj[n + 1] - 1), kWorkCode, memory, kNoFill);
    int p = 0;
    g.start[0] = 0;
    for (int j = 1; j <= n; ++j) {
        const int v = perm[j];
        for (int k = xadj[v]; k < xadj[v + 1]; ++k)
            g.adj[p++] = invp[adjncy[k]];
        g.start[j] = p;
    }
    return g;
}

// Rows are visited in increasing order and each row is handed to the
// supernodes of its row subtree, found by climbing the supernodal tree from
// every entry left of the row's own supernode: each supernode receives its
// rows already sorted, and the work is that of the stored row indices plus
// one pass over the graph. A supernode's rows are the union over its
// columns, which is what a joined pair asks for.
void buildRowStructure(int n, const PositionGraph& g, SymbolicResult& sym, MemoryCounter* memory) {
    const int nsuper = sym.nsuper;
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const OneBased<const int> snode = oneBased(sym.snode.data());
    const OneBased<const int> sparent = oneBased(sym.sparent.data());
    const OneBased<const int> xlindx = oneBased(sym.xlindx.data());
    const OneBased<int> lindx = oneBased(sym.lindx.data());

    IntBlock work(2 * static_cast<std::int64_t>(nsuper), kWorkCode, memory);
    const OneBased<int> mark = oneBased(work.data());
    const OneBased<int> next = oneBased(work.data() + nsuper);
    for (int s = 1; s <= nsuper; ++s) {
        int k = xlindx[s];
        for (int r = xsup[s]; r < xsup[s + 1]; ++r)
            lindx[k++] = r;
        next[s] = k;
    }
    for (int i = 1; i <= n; ++i) {
        const int own = snode[i];
        const int first = xsup[own];
        const int listed = g.source(i);
        for (int k = g.start[listed - 1]; k < g.start[listed]; ++k) {
            const int c = g.relabel(g.adj[k]);
            if (c >= first) continue;
            for (int t = snode[c]; t != own && mark[t] != i; t = sparent[t]) {
                if (t == 0 || next[t] >= xlindx[t + 1]) throw SymbolicFailure{kStatusInconsistent};
                mark[t] = i;
                lindx[next[t]++] = i;
            }
        }
    }
    for (int s = 1; s <= nsuper; ++s)
        if (next[s] != xlindx[s + 1]) throw SymbolicFailure{kStatusInconsistent};
}

// Largest update block, as rows-left x group size less the triangle above
// the group, over supernodes whose below-block part is large enough to
// matter; at least the largest below-block panel.
int updateBufferSize(int n, const SymbolicResult& sym) {
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const OneBased<const int> xlindx = oneBased(sym.xlindx.data());
    const OneBased<const int> lindx = oneBased(sym.lindx.data());
    const OneBased<const int> snode = oneBased(sym.snode.data());
    const OneBased<const int> colcnt = oneBased(sym.colcnt.data());
    std::int64_t best = 0;
    for (int s = sym.nsuper; s >= 1; --s) {
        const std::int64_t width = xsup[s + 1] - xsup[s];
        const std::int64_t height = xlindx[s + 1] - xlindx[s];
        const std::int64_t r = height - width;
        if (r * (r + 1) / 2 <= best) continue;
        std::int64_t k = xlindx[s] + width;
        const std::int64_t end = xlindx[s + 1];
        while (k < end) {
            const std::int64_t left = end - k;
            if (left * (left + 1) / 2 <= best) break;
            const int target = snode[lindx[k]];
            const int tlast = xsup[target + 1] - 1;
            std::int64_t g = 0;
            while (k + g < end && lindx[k + g] <= tlast)
                ++g;
            if (colcnt[xsup[target]] >= left) best = std::max(best, left * g - g * (g - 1) / 2);
            k += g;
        }
    }
    for (int s = 1; s <= sym.nsuper; ++s) {
        const std::int64_t width = xsup[s + 1] - xsup[s];
        const std::int64_t height = xlindx[s + 1] - xlindx[s];
        best = std::max(best, width * (height - width));
    }
    if (best == 0) best = n;
    const std::int64_t size = 4 * best;
    if (size > INT_MAX) throw SymbolicFailure{kStatusOverflow};
    return static_cast<int>(size);
}

void countUpdates(const SymbolicResult& sym, OneBased<int> nmod) {
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const OneBased<const int> xlindx = oneBased(sym.xlindx.data());
    const OneBased<const int> lindx = oneBased(sym.lindx.data());
    const OneBased<const int> snode = oneBased(sym.snode.data());
    for (int s = 1; s <= sym.nsuper; ++s)
        nmod[s] = 0;
    for (int s = 1; s <= sym.nsuper; ++s) {
        int previous = 0;
        for (int k = xlindx[s] + (xsup[s + 1] - xsup[s]); k < xlindx[s + 1]; ++k) {
            const int t = snode[lindx[k]];
            if (t != previous) ++nmod[t];
            previous = t;
        }
    }
}

void countTopRows(const OrderingResult& ord, SymbolicResult& sym) {
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const OneBased<const int> xlindx = oneBased(sym.xlindx.data());
    const OneBased<const int> lindx = oneBased(sym.lindx.data());
    const OneBased<int> top = oneBased(sym.topRows.data());
    const int firstTop = std::clamp(ord.domainpairs[2 * ord.ndomains], 1, sym.nsuper);
    const int b = xsup[firstTop];
    for (int s = 1; s <= sym.nsuper; ++s) {
        int count = 0;
        for (int k = xlindx[s + 1] - 1; k >= xlindx[s] && lindx[k] >= b; --k)
            ++count;
        top[s] = count;
    }
}

// One entry per (source, target) pair: the target and the rows of the source
// from that target's first row to the end of the source's list.
void buildUpdateLists(const OrderingResult& ord, SymbolicResult& sym, int mtype, bool outOfCore,
                      MemoryCounter* memory) {
    const int nsuper = sym.nsuper;
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const OneBased<const int> xlindx = oneBased(sym.xlindx.data());
    const OneBased<const int> lindx = oneBased(sym.lindx.data());
    const OneBased<const int> snode = oneBased(sym.snode.data());
    const int nd = ord.ndomains;
    const bool grouped = mtype == 11 && nd > 1 && !outOfCore && !sym.domainsUnusable;
    std::vector<int> group(static_cast<std::size_t>(nsuper) + 1, grouped ? nd : 0);
    if (grouped)
        for (int d = 0; d < nd; ++d)
            for (int s = ord.domainpairs[2 * d]; s <= ord.domainpairs[2 * d + 1]; ++s)
                group[static_cast<std::size_t>(s)] = d;
    const std::int64_t slots =
        grouped ? checkedMul(static_cast<std::int64_t>(nd) + 1, nsuper) : nsuper;
    sym.xslindx = IntBlock(slots + 1, kUpdateListCode, memory);
    const OneBased<int> xsl = oneBased(sym.xslindx.data());
    auto forEachUpdate = [&](auto&& visit) {
        for (int s = 1; s <= nsuper; ++s) {
            const int end = xlindx[s + 1];
            int previous = 0;
            for (int k = xlindx[s] + (xsup[s + 1] - xsup[s]); k < end; ++k) {
                const int t = snode[lindx[k]];
                if (t != previous) visit(s, t, end - k);
                previous = t;
            }
        }
    };
    auto slotOf = [&](int s, int t) -> std::int64_t {
        return grouped ? static_cast<std::int64_t>(group[static_cast<std::size_t>(s)]) * nsuper + t
                       : s;
    };
    forEachUpdate([&](int s, int t, int) { ++xsl[slotOf(s, t) + 1]; });
    // Counts stand one slot ahead; the running sum turns them into starts.
    xsl[1] = 1;
    for (std::int64_t g = 1; g <= slots; ++g)
        xsl[g + 1] += xsl[g];
    const std::int64_t entries = xsl[slots + 1] - 1;
    sym.slindx = IntBlock(std::max<std::int64_t>(1, entries), kUpdateListCode, memory);
    sym.slength = IntBlock(std::max<std::int64_t>(1, entries), kUpdateListCode, memory);
    std::vector<int> fill(xsl.p, xsl.p + slots);
    forEachUpdate([&](int s, int t, int offset) {
        const std::int64_t slot = slotOf(s, t);
        const int e = fill[static_cast<std::size_t>(slot - 1)]++;
        sym.slindx[e - 1] = grouped ? s : t;
        sym.slength[e - 1] = offset;
    });
    sym.groupedUpdateLists = grouped;
}

} // namespace

void layoutValues(int n, SymbolicResult& sym) {
    const OneBased<const int> snode = oneBased(sym.snode.data());
    const OneBased<const int> xsup = oneBased(sym.xsup.data());
    const OneBased<const int> colcnt = oneBased(sym.colcnt.data());
    const OneBased<int> xlnz = oneBased(sym.xlnz.data());
    const OneBased<int> xunz = oneBased(sym.xunz.data());
    // Tested before each growth against a bound that leaves room for the
    // largest possible column, so the last pointer still fits 32 bits.
    const std::int64_t limit = 2147483645LL - n;
    std::int64_t pos = 1, upos = 1;
    for (int c = 1; c <= n; ++c) {
        const int s = snode[c];
        const int fst = xsup[s];
        const int height = colcnt[fst];
        const int width = xsup[s + 1] - fst;
        if (pos > limit || upos > limit) throw SymbolicFailure{kStatusOverflow};
        xlnz[c] = static_cast<int>(pos);
        xunz[c] = static_cast<int>(upos);
        pos += height;
        upos += height - width;
    }
    xlnz[n + 1] = static_cast<int>(pos);
    xunz[n + 1] = static_cast<int>(upos);
    sym.lnzSize = pos - 1;
    sym.unzSize = upos - 1;
}

int panelWidth(int mtype, int threads, int n) {
    // One width for every thread count: the supernodes, hence the pivots
    // each block can choose from and the factor, must not depend on how many
    // threads a call was granted.
    (void)mtype;
    (void)threads;
    (void)n;
    return 128;
}

namespace {

void eliminationTree(int n, const PositionGraph& g, int* parentStorage) {
    const OneBased<int> parent = oneBased(parentStorage);
    std::vector<int> ancestorStorage(static_cast<std::size_t>(n), 0);
    const OneBased<int> ancestor = oneBased(ancestorStorage.data());
    for (int j = 1; j <= n; ++j) {
        parent[j] = 0;
        ancestor[j] = 0;
        for (int k = g.start[j - 1]; k < g.start[j]; ++k) {
            int r = g.adj[k];
            if (r >= j) continue;
            for (;;) {
                const int next = ancestor[r];
                if (next == j) break;
                ancestor[r] = j;
                if (next < 1) {
                    parent[r] = j;
                    break;
                }
                r = next;
            }
        }
    }
}

std::int64_t columnCounts(int n, const PositionGraph& g, const int* parentStorage,
                          MemoryCounter* memory, int* colcntStorage) {
    if (n <= 0) return 0;
    // Zero-based from here on, -1 for "none".
    IntBlock work(8 * static_cast<std::int64_t>(n), kWorkCode, memory, kNoFill);
    int* parent = work.data();
    int* post = parent + n;
    int* first = post + n;
    int* maxFirst = first + n;
    int* previousLeaf = maxFirst + n;
    int* ancestor = previousLeaf + n;
    int* head = ancestor + n;
    int* sibling = head + n;
    int* delta = colcntStorage;
    for (int j = 0; j < n; ++j) {
        parent[j] = parentStorage[j] - 1;
        head[j] = -1;
        first[j] = maxFirst[j] = previousLeaf[j] = -1;
        ancestor[j] = j;
    }
    // Postorder of the tree by an explicit stack; children listed in
    // decreasing order so that they come off it in increasing order.
    for (int j = n - 1; j >= 0; --j)
        if (parent[j] >= 0) {
            sibling[j] = head[parent[j]];
            head[parent[j]] = j;
        }
    int k = 0;
    {
        int* stack = maxFirst; // free until the postorder is complete
        for (int root = 0; root < n; ++root) {
            if (parent[root] >= 0) continue;
            int top = 0;
            stack[0] = root;
            while (top >= 0) {
                const int j = stack[top];
                const int child = head[j];
                if (child < 0) {
                    --top;
                    post[k++] = j;
                } else {
                    head[j] = sibling[child];
                    stack[++top] = child;
                }
            }
        }
        std::fill(maxFirst, maxFirst + n, -1);
    }
    // first[j]: the first postorder index in j's subtree; leaves start at 1.
    for (k = 0; k < n; ++k) {
        int j = post[k];
        delta[j] = first[j] == -1 ? 1 : 0;
        for (; j >= 0 && first[j] == -1; j = parent[j])
            first[j] = k;
    }
    // A lower entry (i, j) adds to column j's count only when j is a leaf of
    // row i's subtree; consecutive leaves overlap from their least common
    // ancestor up, which is subtracted there.
    for (k = 0; k < n; ++k) {
        const int j = post[k];
        if (parent[j] >= 0) --delta[parent[j]];
        for (int e = g.start[j]; e < g.start[j + 1]; ++e) {
            const int i = g.adj[e] - 1;
            if (i <= j || first[j] <= maxFirst[i]) continue;
            maxFirst[i] = first[j];
            const int previous = previousLeaf[i];
            previousLeaf[i] = j;
            ++delta[j];
            if (previous < 0) continue;
            int q = previous;
            while (q != ancestor[q])
                q = ancestor[q];
            for (int s = previous; s != q;) {
                const int up = ancestor[s];
                ancestor[s] = q;
                s = up;
            }
            --delta[q];
        }
        if (parent[j] >= 0) ancestor[j] = parent[j];
    }
    std::int64_t total = 0;
    for (int j = 0; j < n; ++j) {
        if (parent[j] >= 0) delta[parent[j]] += delta[j];
        total += delta[j];
    }
    return total;
}

} // namespace

SymbolicTimes symbolicFactorization(const SymbolicInput& in, OrderingResult& ord,
                                    SymbolicResult& out) {
    const int n = in.n;
    SymbolicTimes times;
    const double t0 = nrt_seconds();
    out = SymbolicResult{};
    out.maxsup = in.maxsup;
    out.parent = IntBlock(n, kTreeCode, in.memory);
    out.colcnt = IntBlock(n, kTreeCode, in.memory);
    out.snode = IntBlock(n, kTreeCode, in.memory);
    PositionGraph graph = positionGraph(n, ord, in.memory);
    eliminationTree(n, graph, out.parent.data());
    out.colcountSum = columnCounts(n, graph, out.parent.data(), in.memory, out.colcnt.data());
    out.colcountSum += joinPairs(n, in.pairStart, oneBased<const int>(out.parent.data()),
                                 oneBased(out.colcnt.data()));
    std::vector<int> pairs;
    if (in.pairStart) pairs.assign(in.pairStart, in.pairStart + n);
    if (in.postorder && n > 1)
        postorderColumns(n, rangeBounds(n, ord), ord, oneBased(out.parent.data()),
                         oneBased(out.colcnt.data()), pairs, graph);
    const int* pairStart = in.pairStart ? pairs.data() : nullptr;
    Supernodes sn = findSupernodes(
        n, std::max(2, in.maxsup), oneBased<const int>(out.parent.data()),
        oneBased<const int>(out.colcnt.data()), pairStart, oneBased(out.snode.data()));
    if (in.relax)
        out.relaxedZeros = relaxSupernodes(
            n, std::max(2, in.maxsup), oneBased<const int>(out.parent.data()), domainEnds(n, ord),
            oneBased(out.colcnt.data()), oneBased(out.snode.data()), sn);
    out.nsuper = sn.nsuper;
    out.largestFundamental = sn.largestFundamental;
    out.largestSupernode = sn.largestSupernode;
    const int nsuper = sn.nsuper;
    out.xsup = IntBlock(static_cast<std::int64_t>(nsuper) + 1, kSupernodeCode, in.memory);
    {
        const OneBased<int> xsup = oneBased(out.xsup.data());
        const OneBased<const int> snode = oneBased<const int>(out.snode.data());
        xsup[nsuper + 1] = n + 1;
        for (int j = n; j >= 1; --j)
            xsup[snode[j]] = j;
    }
    if (convertDomainPairs(n, ord, out) > 0) out.domainsUnusable = true;
    const double t1 = nrt_seconds();
    times.sfinit = t1 - t0;

    out.sparent = IntBlock(nsuper, kSupernodeCode, in.memory);
    out.pnlsch = IntBlock(nsuper, kSupernodeCode, in.memory);
    out.nmod = IntBlock(nsuper, kSupernodeCode, in.memory);
    out.topRows = IntBlock(nsuper, kSupernodeCode, in.memory);
    out.oocFirst = IntBlock(nsuper, kSupernodeCode, in.memory);
    out.oocSecond = IntBlock(nsuper, kSupernodeCode, in.memory);
    std::fill(out.oocFirst.begin(), out.oocFirst.end(), kOocMarker);
    std::fill(out.oocSecond.begin(), out.oocSecond.end(), kOocMarker);
    buildSupernodalTree(out, oneBased(out.sparent.data()));
    buildSchedule(nsuper, oneBased<const int>(out.sparent.data()), out.pnlsch.data());

    out.xlnz = IntBlock(static_cast<std::int64_t>(n) + 1, kLnzPointerCode, in.memory);
    out.xunz = IntBlock(static_cast<std::int64_t>(n) + 1, kUnzPointerCode, in.memory);
    layoutValues(n, out);
    if (in.symmetricStorage) out.unzSize = 1;

    out.xlindx = IntBlock(static_cast<std::int64_t>(nsuper) + 1, kIndexCode, in.memory);
    {
        const OneBased<int> xlindx = oneBased(out.xlindx.data());
        const OneBased<const int> xsup = oneBased<const int>(out.xsup.data());
        const OneBased<const int> colcnt = oneBased<const int>(out.colcnt.data());
        std::int64_t pos = 1;
        for (int s = 1; s <= nsuper; ++s) {
            if (pos > INT_MAX - n) throw SymbolicFailure{kStatusOverflow};
            xlindx[s] = static_cast<int>(pos);
            pos += colcnt[xsup[s]];
            out.largestColumn = std::max(out.largestColumn, colcnt[xsup[s]]);
        }
        xlindx[nsuper + 1] = static_cast<int>(pos);
        out.lindxSize = pos - 1;
    }
    out.lindx = IntBlock(std::max<std::int64_t>(1, out.lindxSize), kIndexCode, in.memory, kNoFill);
    buildRowStructure(n, graph, out, in.memory);
    out.tmpsiz = updateBufferSize(n, out);
    countUpdates(out, oneBased(out.nmod.data()));
    countTopRows(ord, out);
    const double t2 = nrt_seconds();
    times.symbolic = t2 - t1;

    buildUpdateLists(ord, out, in.mtype, in.outOfCore, in.memory);
    times.updateLists = nrt_seconds() - t2;
    return times;
}

} // namespace skyrinse::spds

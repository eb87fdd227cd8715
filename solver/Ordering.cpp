// Ordering stage of the analysis; the contract is in Ordering.h.
//
// Method by method:
//  - a caller's permutation (iparm[4] = 1) is checked to be a permutation of
//    1..n and used as it is, with a single domain;
//  - iparm[1] = 0: approximate minimum degree (SuiteSparse AMD) on the graph;
//  - iparm[1] = 1: the same after merging indistinguishable vertices (equal
//    closed neighbourhoods), which then stay together in the order;
//  - iparm[1] = 2: METIS node nested dissection, one domain;
//  - iparm[1] = 3: METIS nested dissection into p parts (METIS_NodeNDP), whose
//    leaf domains are then made contiguous with the separators after them.
//
// The dissections remember their last graph and its order (see OrderMemo).
#include "Ordering.h"

#include "runtime/nrt.h"
#include "spds.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <vector>

#include <amd.h>
#include <metis.h>

namespace skyrinse::spds {

namespace {

constexpr int kGraphCode = -400;
constexpr int kOrderingWorkCode = -401;

// Status values of OrderingFailure (reported in iparm[29]).
constexpr int kStatusBadUserPermutation = -10;
constexpr int kStatusMetis = -11;
constexpr int kStatusMinimumDegree = -12;

// Zero-based view of the one-based graph for the libraries, restored on
// every exit so that the stored graph stays one-based.
class ZeroBasedGraph {
public:
    ZeroBasedGraph(int n, int* xadj, int* adjncy) : m_n(n), m_xadj(xadj), m_adjncy(adjncy) {
        shift(-1);
    }
    ~ZeroBasedGraph() { shift(+1); }
    ZeroBasedGraph(const ZeroBasedGraph&) = delete;
    ZeroBasedGraph& operator=(const ZeroBasedGraph&) = delete;

private:
    void shift(int by) {
        // The length of adjncy is read before anything moves.
        const int edges = by < 0 ? m_xadj[m_n] - 1 : m_xadj[m_n];
        for (int k = 0; k < edges; ++k)
            m_adjncy[k] += by;
        for (int i = 0; i <= m_n; ++i)
            m_xadj[i] += by;
    }
    int m_n;
    int* m_xadj;
    int* m_adjncy;
};

void deriveInverse(int n, OrderingResult& out) {
    for (int k = 0; k < n; ++k)
        out.invp[out.perm[k] - 1] = k + 1;
}

void identityOrder(int n, OrderingResult& out) {
    for (int k = 0; k < n; ++k)
        out.perm[k] = k + 1;
}

bool isPermutation(int n, const int* p) {
    std::vector<char> seen(static_cast<std::size_t>(n), 0);
    for (int k = 0; k < n; ++k) {
        const int v = p[k];
        if (v < 1 || v > n || seen[v - 1]) return false;
        seen[v - 1] = 1;
    }
    return true;
}

int largestDegree(int n, const int* xadj) {
    int best = 1;
    for (int i = 0; i < n; ++i)
        best = std::max(best, xadj[i + 1] - xadj[i]);
    return best;
}

void setMetisOptions(int n, const int* xadj, idx_t* options) {
    METIS_SetDefaultOptions(options);
    options[METIS_OPTION_CTYPE] = METIS_CTYPE_SHEM;
    options[METIS_OPTION_IPTYPE] = METIS_IPTYPE_EDGE;
    options[METIS_OPTION_RTYPE] = METIS_RTYPE_SEP2SIDED;
    options[METIS_OPTION_DBGLVL] = 0;
    options[METIS_OPTION_COMPRESS] = 1;
    options[METIS_OPTION_NSEPS] = 1;
    options[METIS_OPTION_NUMBERING] = 0;
    // A graph with a vertex adjacent to an eighth of all others gets the
    // dense-row pruning; otherwise pruning stays off.
    options[METIS_OPTION_PFACTOR] = largestDegree(n, xadj) >= n / 8 ? 200 : 0;
}

void checkMetis(int result) {
    if (result == METIS_OK) return;
    if (result == METIS_ERROR_MEMORY) throw AllocationFailure{kOrderingWorkCode, 0};
    throw OrderingFailure{kStatusMetis};
}

// A graph for the dissection, zero-based, whose vertex c stands for the
// original vertices members[start[c] .. start[c+1]-1].
struct DissectionGraph {
    int n = 0;
    std::vector<idx_t> xadj, adjncy, vwgt;
    std::vector<int> start, members;
};

// Pairs each vertex with the free neighbour that shares most neighbours with
// it (the lighter one on a tie) and contracts the pairs. Paired vertices are
// nearly indistinguishable, so numbering them side by side costs little fill,
// while the dissection then works on a graph of half the vertices and about
// a third of the edges.
DissectionGraph contractPairs(const DissectionGraph& g) {
    const int n = g.n;
    std::vector<int> match(static_cast<std::size_t>(n), -1), stamp(static_cast<std::size_t>(n), -1);
    std::vector<int> coarseOf(static_cast<std::size_t>(n));
    int nc = 0;
    for (int v = 0; v < n; ++v) {
        if (match[static_cast<std::size_t>(v)] >= 0) continue;
        for (idx_t k = g.xadj[static_cast<std::size_t>(v)];
             k < g.xadj[static_cast<std::size_t>(v) + 1]; ++k)
            stamp[static_cast<std::size_t>(g.adjncy[static_cast<std::size_t>(k)])] = v;
        int best = -1, bestShared = -1;
        for (idx_t k = g.xadj[static_cast<std::size_t>(v)];
             k < g.xadj[static_cast<std::size_t>(v) + 1]; ++k) {
            const int u = g.adjncy[static_cast<std::size_t>(k)];
            if (match[static_cast<std::size_t>(u)] >= 0) continue;
            int shared = 0;
            for (idx_t l = g.xadj[static_cast<std::size_t>(u)];
                 l < g.xadj[static_cast<std::size_t>(u) + 1]; ++l)
                shared +=
                    stamp[static_cast<std::size_t>(g.adjncy[static_cast<std::size_t>(l)])] == v;
            if (shared > bestShared ||
                (shared == bestShared &&
                 g.vwgt[static_cast<std::size_t>(u)] < g.vwgt[static_cast<std::size_t>(best)])) {
                best = u;
                bestShared = shared;
            }
        }
        match[static_cast<std::size_t>(v)] = best >= 0 ? best : v;
        if (best >= 0) match[static_cast<std::size_t>(best)] = v;
        coarseOf[static_cast<std::size_t>(v)] = nc;
        if (best >= 0) coarseOf[static_cast<std::size_t>(best)] = nc;
        ++nc;
    }
    DissectionGraph c;
    c.n = nc;
    c.xadj.reserve(static_cast<std::size_t>(nc) + 1);
    c.xadj.push_back(0);
    c.vwgt.assign(static_cast<std::size_t>(nc), 0);
    c.start.assign(static_cast<std::size_t>(nc) + 1, 0);
    std::vector<int> first(static_cast<std::size_t>(nc), -1);
    for (int v = 0; v < n; ++v)
        if (first[static_cast<std::size_t>(coarseOf[static_cast<std::size_t>(v)])] < 0)
            first[static_cast<std::size_t>(coarseOf[static_cast<std::size_t>(v)])] = v;
    std::vector<int> seen(static_cast<std::size_t>(nc), -1);
    c.members.reserve(g.members.size());
    c.adjncy.reserve(g.adjncy.size());
    for (int cv = 0; cv < nc; ++cv) {
        const int v = first[static_cast<std::size_t>(cv)];
        const int u = match[static_cast<std::size_t>(v)];
        seen[static_cast<std::size_t>(cv)] = cv;
        for (int w : {v, u}) {
            c.vwgt[static_cast<std::size_t>(cv)] += g.vwgt[static_cast<std::size_t>(w)];
            for (int m = g.start[static_cast<std::size_t>(w)];
                 m < g.start[static_cast<std::size_t>(w) + 1]; ++m)
                c.members.push_back(g.members[static_cast<std::size_t>(m)]);
            for (idx_t k = g.xadj[static_cast<std::size_t>(w)];
                 k < g.xadj[static_cast<std::size_t>(w) + 1]; ++k) {
                const int t =
                    coarseOf[static_cast<std::size_t>(g.adjncy[static_cast<std::size_t>(k)])];
                if (seen[static_cast<std::size_t>(t)] != cv) {
                    seen[static_cast<std::size_t>(t)] = cv;
                    c.adjncy.push_back(t);
                }
            }
            if (u == v) break;
        }
        c.xadj.push_back(static_cast<idx_t>(c.adjncy.size()));
        c.start[static_cast<std::size_t>(cv) + 1] = static_cast<int>(c.members.size());
    }
    return c;
}

// Contraction pays where the dissection's work is dominated by many edges per
// vertex (wide stencils such as matting Laplacians); sparse graphs go to METIS
// as they are.
constexpr int kContractMinVertices = 4096;
constexpr int kContractMinDegree = 12;
constexpr int kContractMaxLevels = 2;

// METIS draws from one random stream for the whole process, so two
// dissections at once would each get an order that depends on the other's
// timing (and race on the stream). They take turns.
std::mutex& metisLock() {
    static std::mutex lock;
    return lock;
}

void nestedDissection(const OrderingInput& in, OrderingResult& out) {
    const int n = in.n;
    idx_t options[METIS_NOPTIONS];
    setMetisOptions(n, out.xadj.data(), options);
    int p = 1;
    if (in.method == kNestedDissectionParallel)
        while (p < in.partitions)
            p *= 2;

    DissectionGraph g;
    g.n = n;
    g.xadj.assign(out.xadj.begin(), out.xadj.end());
    g.adjncy.assign(out.adjncy.data(), out.adjncy.data() + (out.xadj[n] - 1));
    for (idx_t& v : g.xadj)
        --v;
    for (idx_t& v : g.adjncy)
        --v;
    g.vwgt.assign(static_cast<std::size_t>(n), 1);
    g.start.resize(static_cast<std::size_t>(n) + 1);
    std::iota(g.start.begin(), g.start.end(), 0);
    g.members.resize(static_cast<std::size_t>(n));
    std::iota(g.members.begin(), g.members.end(), 0);
    for (int level = 0; level < kContractMaxLevels && g.n >= kContractMinVertices &&
                        static_cast<std::int64_t>(g.adjncy.size()) >=
                            static_cast<std::int64_t>(kContractMinDegree) * g.n;
         ++level)
        g = contractPairs(g);
    const bool weighted = g.n < n;

    std::vector<idx_t> cperm(static_cast<std::size_t>(g.n)), ciperm(static_cast<std::size_t>(g.n));
    std::vector<idx_t> sizes;
    bool parts = false;
    const std::lock_guard metisTurn(metisLock());
    if (p > 1 && p <= g.n) {
        sizes.assign(2 * static_cast<std::size_t>(p), 0);
        const int result =
            METIS_NodeNDP(g.n, g.xadj.data(), g.adjncy.data(), weighted ? g.vwgt.data() : nullptr,
                          p, options, cperm.data(), ciperm.data(), sizes.data());
        if (result == METIS_ERROR_MEMORY) checkMetis(result);
        // A graph too small or too broken up for p parts is ordered as one.
        parts = result == METIS_OK;
    }
    if (!parts) {
        idx_t nv = g.n;
        checkMetis(METIS_NodeND(&nv, g.xadj.data(), g.adjncy.data(),
                                weighted ? g.vwgt.data() : nullptr, options, cperm.data(),
                                ciperm.data()));
    }
    // Expand: each vertex of the dissected graph gives its members in turn.
    int k = 0;
    for (int c = 0; c < g.n; ++c) {
        const int v = cperm[static_cast<std::size_t>(c)];
        for (int m = g.start[static_cast<std::size_t>(v)];
             m < g.start[static_cast<std::size_t>(v) + 1]; ++m)
            out.perm[k++] = g.members[static_cast<std::size_t>(m)] + 1;
    }
    if (!parts) {
        setSingleDomain(n, out);
        return;
    }
    // With vertex weights the dissection reports each part's weight, which
    // is its count of original vertices: the sizes already describe `perm`.
    std::vector<int> fineSizes(sizes.begin(), sizes.end());
    domainsFromDissection(n, p, fineSizes.data(), out);
}

// A nested dissection is the costly part of an analysis, and one graph
// always gets the same order (METIS is seeded the same way on every call,
// and nothing else goes in). A program that knows the structure of its next
// system before it has the values can therefore have that structure analysed
// on another thread while it does other work, and the analysis of the real
// system then takes the order instead of dissecting again: the haze removal
// does so while the photograph decodes, as the size of its working system
// follows from the picture's header.
//
// Only analyses that ask for it (spds_share_orders on their thread) leave
// their order here, so other programs pay nothing and keep nothing. One
// graph is held at a time, and the analysis that takes it takes it away:
// nothing stays once the prepared system is analysed. An analysis that
// finds its graph still being dissected on another thread waits for that,
// rather than doing it twice on a machine whose cores are busy. The graph is
// compared whole: a different graph, method or part count is dissected as
// usual.
class OrderMemo {
public:
    struct Entry {
        int method = 0;
        int partitions = 0;
        std::vector<int> xadj, adjncy; // the graph, one-based as orderGraph has it
        std::vector<int> perm, domainpairs;
        int ndomains = 1;
        bool done = false;
        bool failed = false;
    };

    static OrderMemo& instance() {
        static OrderMemo memo;
        return memo;
    }

    // What a dissection of this graph is to do: take a remembered order
    // (`known`, waited for if another thread is still making it), or make it
    // and fill `mine` through finish() or abandon(). Looking and claiming are
    // one step, so that two threads meeting one graph never both dissect it.
    struct Claim {
        std::shared_ptr<const Entry> known;
        std::shared_ptr<Entry> mine;
    };
    Claim claim(const OrderingInput& in, const OrderingResult& graph, bool share) {
        std::shared_ptr<Entry> fresh;
        std::unique_lock lock(m_mutex);
        for (;;) {
            if (m_entry && sameGraph(*m_entry, in, graph)) {
                const std::shared_ptr<Entry> entry = m_entry;
                m_changed.wait(lock, [&] { return entry->done || entry->failed; });
                if (entry->done) {
                    ++m_hits;
                    if (m_entry == entry) m_entry.reset();
                    return {entry, nullptr};
                }
                continue; // its maker failed and let it go: look again
            }
            if (!share) return {};
            if (fresh) {
                m_entry = fresh;
                return {nullptr, fresh};
            }
            // The graph is copied without the lock; another thread may claim
            // the same graph meanwhile, so the loop looks again.
            lock.unlock();
            fresh = std::make_shared<Entry>();
            fresh->method = in.method;
            fresh->partitions = in.partitions;
            fresh->xadj.assign(graph.xadj.data(), graph.xadj.data() + in.n + 1);
            fresh->adjncy.assign(graph.adjncy.data(), graph.adjncy.data() + (graph.xadj[in.n] - 1));
            lock.lock();
        }
    }

    bool holding() {
        std::lock_guard lock(m_mutex);
        return m_entry != nullptr;
    }

    void finish(Entry& entry, const OrderingResult& out, int n) {
        entry.perm.assign(out.perm.data(), out.perm.data() + n);
        entry.domainpairs.assign(out.domainpairs.data(),
                                 out.domainpairs.data() + out.domainpairs.size());
        entry.ndomains = out.ndomains;
        std::lock_guard lock(m_mutex);
        entry.done = true;
        m_changed.notify_all();
    }

    void abandon(const std::shared_ptr<Entry>& entry) {
        std::lock_guard lock(m_mutex);
        entry->failed = true;
        if (m_entry == entry) m_entry.reset();
        m_changed.notify_all();
    }

    long long hits() {
        std::lock_guard lock(m_mutex);
        return m_hits;
    }

private:
    static bool sameGraph(const Entry& e, const OrderingInput& in, const OrderingResult& graph) {
        const int n = in.n;
        if (e.method != in.method || e.partitions != in.partitions ||
            static_cast<int>(e.xadj.size()) != n + 1)
            return false;
        if (!std::equal(e.xadj.begin(), e.xadj.end(), graph.xadj.data())) return false;
        return std::equal(e.adjncy.begin(), e.adjncy.end(), graph.adjncy.data());
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::shared_ptr<Entry> m_entry;
    long long m_hits = 0;
};

// Below this many vertices a dissection costs less than remembering it.
constexpr int kMemoMinVertices = 4096;

// Whether the analyses of this thread leave their order for a later one.
thread_local bool tShareOrders = false;

// nestedDissection through the memo.
void rememberedDissection(const OrderingInput& in, OrderingResult& out) {
    OrderMemo& memo = OrderMemo::instance();
    if (in.n < kMemoMinVertices || (!tShareOrders && !memo.holding())) {
        nestedDissection(in, out);
        return;
    }
    OrderMemo::Claim claim;
    try {
        claim = memo.claim(in, out, tShareOrders);
    } catch (const std::bad_alloc&) {
        // No memory to remember the graph: dissected, only unremembered.
        nestedDissection(in, out);
        return;
    }
    if (const auto& known = claim.known) {
        std::copy(known->perm.begin(), known->perm.end(), out.perm.data());
        out.ndomains = known->ndomains;
        out.domainpairs =
            IntBlock(static_cast<std::int64_t>(known->domainpairs.size()), kGraphCode, nullptr);
        std::copy(known->domainpairs.begin(), known->domainpairs.end(), out.domainpairs.data());
        return;
    }
    if (!claim.mine) {
        nestedDissection(in, out);
        return;
    }
    try {
        nestedDissection(in, out);
    } catch (...) {
        memo.abandon(claim.mine);
        throw;
    }
    try {
        memo.finish(*claim.mine, out, in.n);
    } catch (...) {
        // No memory to remember it: the order stands, only unremembered.
        memo.abandon(claim.mine);
    }
}

void amdOrder(int n, int* xadj, int* adjncy, int* perm) {
    int result = 0;
    {
        ZeroBasedGraph zero(n, xadj, adjncy);
        result = amd_order(n, xadj, adjncy, perm, nullptr, nullptr);
    }
    if (result == AMD_OUT_OF_MEMORY) throw AllocationFailure{kOrderingWorkCode, 0};
    if (result != AMD_OK && result != AMD_OK_BUT_JUMBLED)
        throw OrderingFailure{kStatusMinimumDegree};
    for (int k = 0; k < n; ++k)
        ++perm[k];
}

// Groups of indistinguishable vertices: rep[v] is the smallest vertex of v's
// group (zero-based). Candidates are found by a key of degree and the sum of
// the closed neighbourhood, then confirmed list against list.
std::vector<int> indistinguishableGroups(int n, const int* xadj, const int* adjncy) {
    std::vector<int> rep(static_cast<std::size_t>(n));
    std::iota(rep.begin(), rep.end(), 0);
    std::vector<std::pair<std::uint64_t, int>> keys(static_cast<std::size_t>(n));
    for (int v = 0; v < n; ++v) {
        std::uint64_t sum = static_cast<std::uint64_t>(v) + 1;
        for (int k = xadj[v] - 1; k < xadj[v + 1] - 1; ++k)
            sum += static_cast<std::uint64_t>(adjncy[k]);
        const std::uint64_t degree = static_cast<std::uint64_t>(xadj[v + 1] - xadj[v]);
        keys[v] = {(degree << 40) ^ sum, v};
    }
    std::sort(keys.begin(), keys.end());
    // u ~ v when adjacent and N(u) \ {v} = N(v) \ {u}; both lists are sorted.
    auto same = [&](int u, int v) {
        int a = xadj[u] - 1, ae = xadj[u + 1] - 1, b = xadj[v] - 1, be = xadj[v + 1] - 1;
        if (ae - a != be - b) return false;
        bool adjacent = false;
        while (a < ae || b < be) {
            if (a < ae && adjncy[a] - 1 == v) {
                adjacent = true;
                ++a;
                continue;
            }
            if (b < be && adjncy[b] - 1 == u) {
                ++b;
                continue;
            }
            if (a >= ae || b >= be || adjncy[a] != adjncy[b]) return false;
            ++a;
            ++b;
        }
        return adjacent;
    };
    constexpr int kCompareLimit = 8; // bounds the work on long runs of equal keys
    for (std::size_t s = 0; s < keys.size();) {
        std::size_t e = s + 1;
        while (e < keys.size() && keys[e].first == keys[s].first)
            ++e;
        std::vector<int> heads;
        for (std::size_t k = s; k < e; ++k) {
            const int v = keys[k].second;
            // Keys are sorted with the vertex as second field, so a head is
            // always smaller than the vertices compared with it.
            for (int h : heads)
                if (same(h, v)) {
                    rep[v] = h;
                    break;
                }
            if (rep[v] == v && static_cast<int>(heads.size()) < kCompareLimit) heads.push_back(v);
        }
        s = e;
    }
    return rep;
}

void compressedMinimumDegree(const OrderingInput& in, OrderingResult& out) {
    const int n = in.n;
    const int* xadj = out.xadj.data();
    const int* adjncy = out.adjncy.data();
    const std::vector<int> rep = indistinguishableGroups(n, xadj, adjncy);
    std::vector<int> index(static_cast<std::size_t>(n), -1);
    int groups = 0;
    for (int v = 0; v < n; ++v)
        if (rep[v] == v) index[v] = groups++;
    if (groups == n) {
        amdOrder(n, out.xadj.data(), out.adjncy.data(), out.perm.data());
        return;
    }
    // Quotient graph on the group heads, one-based like the stored graph.
    IntBlock qx(groups + 1, kOrderingWorkCode, in.memory);
    IntBlock qadj(std::max(1, xadj[n] - 1), kOrderingWorkCode, in.memory);
    std::vector<int> mark(static_cast<std::size_t>(groups), -1);
    int pos = 0;
    for (int v = 0; v < n; ++v) {
        if (rep[v] != v) continue;
        const int g = index[v];
        qx[g] = pos + 1;
        mark[g] = g;
        for (int k = xadj[v] - 1; k < xadj[v + 1] - 1; ++k) {
            const int h = index[rep[adjncy[k] - 1]];
            if (mark[h] != g) {
                mark[h] = g;
                qadj[pos++] = h + 1;
            }
        }
        std::sort(qadj.data() + qx[g] - 1, qadj.data() + pos);
    }
    qx[groups] = pos + 1;
    IntBlock qperm(groups, kOrderingWorkCode, in.memory);
    amdOrder(groups, qx.data(), qadj.data(), qperm.data());
    // Expand: each group's members follow each other in vertex order.
    std::vector<int> start(static_cast<std::size_t>(groups) + 1, 0);
    for (int v = 0; v < n; ++v)
        ++start[index[rep[v]] + 1];
    std::vector<int> members(static_cast<std::size_t>(n));
    std::vector<int> fill(start.begin(), start.end() - 1);
    for (int g = 0; g < groups; ++g)
        start[g + 1] += start[g];
    std::copy(start.begin(), start.end() - 1, fill.begin());
    for (int v = 0; v < n; ++v)
        members[fill[index[rep[v]]]++] = v;
    int k = 0;
    for (int q = 0; q < groups; ++q) {
        const int g = qperm[q] - 1;
        for (int m = start[g]; m < start[g + 1]; ++m)
            out.perm[k++] = members[m] + 1;
    }
}

} // namespace

void setSingleDomain(int n, OrderingResult& out) {
    out.ndomains = 1;
    out.domainpairs = IntBlock(4, kGraphCode, nullptr);
    out.domainpairs[0] = 1;
    out.domainpairs[1] = n - 1;
    out.domainpairs[2] = n;
    out.domainpairs[3] = n;
}

void buildOrderingGraph(const OrderingInput& in, OrderingResult& out) {
    const int n = in.n;
    const int* ia = in.ia;
    const int* ja = in.ja;
    // Twice the entries of a 32-bit pattern can pass 32 bits: count in 64.
    Block<std::int64_t> count(static_cast<std::int64_t>(n) + 1, kGraphCode, in.memory);
    auto sourceRow = [&](int i) { return in.rowPermutation ? in.rowPermutation[i] - 1 : i; };
    for (int i = 0; i < n; ++i) {
        const int r = sourceRow(i);
        for (int k = ia[r] - 1; k < ia[r + 1] - 1; ++k) {
            const int j = ja[k] - 1;
            if (j == i) continue;
            ++count[i + 1];
            ++count[j + 1];
        }
    }
    for (int i = 0; i < n; ++i)
        count[i + 1] += count[i];
    const std::int64_t total = count[n];
    // Both triangles of every entry, before duplicates are dropped.
    IntBlock both(std::max<std::int64_t>(1, total), kGraphCode, in.memory);
    {
        std::vector<std::int64_t> fill(count.begin(), count.end() - 1);
        for (int i = 0; i < n; ++i) {
            const int r = sourceRow(i);
            for (int k = ia[r] - 1; k < ia[r + 1] - 1; ++k) {
                const int j = ja[k] - 1;
                if (j == i) continue;
                both[fill[i]++] = j + 1;
                both[fill[j]++] = i + 1;
            }
        }
    }
    IntBlock length(n, kGraphCode, in.memory);
    const int threads = std::max(1, in.threads);
#pragma omp parallel for schedule(static) num_threads(threads) if (n > 2048 && threads > 1)
    for (int i = 0; i < n; ++i) {
        int* b = both.data() + count[i];
        int* e = both.data() + count[i + 1];
        std::sort(b, e);
        length[i] = static_cast<int>(std::unique(b, e) - b);
    }
    std::int64_t edges = 0;
    for (int i = 0; i < n; ++i)
        edges += length[i];
    // The graph is one-based in 32-bit words, as METIS and AMD take it.
    if (edges > 2147483646LL) throw SizeOverflow{};
    out.xadj = IntBlock(static_cast<std::int64_t>(n) + 1, kGraphCode, in.memory);
    out.xadj[0] = 1;
    for (int i = 0; i < n; ++i)
        out.xadj[i + 1] = out.xadj[i] + length[i];
    out.adjncy = IntBlock(std::max(1, out.xadj[n] - 1), kGraphCode, in.memory);
#pragma omp parallel for schedule(static) num_threads(threads) if (n > 2048 && threads > 1)
    for (int i = 0; i < n; ++i)
        std::copy_n(both.data() + count[i], length[i], out.adjncy.data() + out.xadj[i] - 1);
}

bool graphFromFullPattern(int n, IntBlock& ia, IntBlock& ja, OrderingResult& out) {
    const int* xa = ia.data();
    const int* aj = ja.data();
    for (int i = 0; i < n; ++i)
        for (int k = xa[i] + 1; k < xa[i + 1]; ++k)
            if (aj[k] <= aj[k - 1]) return false;
    // Dropping the diagonal only moves entries towards the front, so the
    // pattern becomes the graph where it lies.
    int* x = ia.data();
    int* adj = ja.data();
    int p = 0;
    int begin = x[0];
    for (int i = 0; i < n; ++i) {
        const int end = x[i + 1];
        x[i] = p + 1;
        for (int k = begin; k < end; ++k)
            if (adj[k] != i) adj[p++] = adj[k] + 1;
        begin = end;
    }
    x[n] = p + 1;
    out.xadj = std::move(ia);
    out.adjncy = std::move(ja);
    return true;
}

void domainsFromDissection(int n, int p, const int* sizes, OrderingResult& out) {
    // Walk the dissection tree in the order the parts are numbered: left
    // subtree, right subtree, separator.
    struct Range {
        int first;
        int last;
    };
    std::vector<Range> leaves(static_cast<std::size_t>(p));
    std::vector<Range> separators;
    int levels = 0;
    while ((1 << levels) < p)
        ++levels;
    std::vector<int> levelOffset(static_cast<std::size_t>(levels) + 1, 0);
    for (int l = 1, off = p, width = p / 2; l <= levels; ++l, width /= 2) {
        levelOffset[l] = off;
        off += width;
    }
    int cursor = 1;
    auto visit = [&](auto&& self, int level, int index) -> void {
        if (level == 0) {
            leaves[index] = {cursor, cursor + sizes[index] - 1};
            cursor += sizes[index];
            return;
        }
        self(self, level - 1, 2 * index);
        self(self, level - 1, 2 * index + 1);
        const int size = sizes[levelOffset[level] + index];
        if (size > 0) separators.push_back({cursor, cursor + size - 1});
        cursor += size;
    };
    visit(visit, levels, 0);
    std::vector<Range> domains;
    for (const Range& r : leaves)
        if (r.last >= r.first) domains.push_back(r);
    const int nd = static_cast<int>(domains.size());
    if (nd < 2 || static_cast<int>(separators.size()) != nd - 1 || cursor != n + 1) {
        setSingleDomain(n, out);
        return;
    }
    std::sort(separators.begin(), separators.end(),
              [](const Range& a, const Range& b) { return a.first < b.first; });
    out.ndomains = nd;
    out.domainpairs = IntBlock(4 * static_cast<std::int64_t>(nd), kGraphCode, nullptr);
    int* dp = out.domainpairs.data();
    for (int d = 0; d < nd; ++d) {
        dp[2 * d] = domains[d].first;
        dp[2 * d + 1] = domains[d].last;
    }
    dp[2 * nd] = domains.back().last + 1;
    dp[2 * nd + 1] = n;
    for (int s = 0; s < nd - 1; ++s) {
        dp[2 * (nd + 1 + s)] = separators[s].first;
        dp[2 * (nd + 1 + s) + 1] = separators[s].last;
    }
}

void regroupDomains(int n, OrderingResult& out) {
    const int nd = out.ndomains;
    if (nd < 2) return;
    int* dp = out.domainpairs.data();
    std::vector<int> mark(static_cast<std::size_t>(n), nd + 1);
    for (int d = 0; d < nd; ++d)
        for (int k = dp[2 * d]; k <= dp[2 * d + 1]; ++k)
            mark[out.perm[k - 1] - 1] = d + 1;
    std::vector<int> order;
    order.reserve(static_cast<std::size_t>(n));
    std::vector<int> sepPosition(static_cast<std::size_t>(n),
                                 0); // new position of a separator column
    for (int d = 0; d < nd; ++d) {
        const int first = static_cast<int>(order.size()) + 1;
        for (int k = dp[2 * d]; k <= dp[2 * d + 1]; ++k)
            order.push_back(out.perm[k - 1]);
        dp[2 * d] = first;
        dp[2 * d + 1] = static_cast<int>(order.size());
    }
    const int domainsEnd = static_cast<int>(order.size());
    for (int k = 0; k < n; ++k)
        if (mark[out.perm[k] - 1] == nd + 1) {
            order.push_back(out.perm[k]);
            sepPosition[k] = static_cast<int>(order.size());
        }
    // Separators keep their relative order; each becomes the range its
    // columns now occupy in the tail.
    for (int s = nd + 1; s < 2 * nd; ++s) {
        const int first = dp[2 * s], last = dp[2 * s + 1];
        dp[2 * s] = sepPosition[first - 1];
        dp[2 * s + 1] = sepPosition[last - 1];
    }
    dp[2 * nd] = domainsEnd + 1;
    dp[2 * nd + 1] = n;
    std::copy(order.begin(), order.end(), out.perm.data());
    deriveInverse(n, out);
}

long long rememberedOrdersTaken() {
    return OrderMemo::instance().hits();
}

void shareOrders(bool on) {
    tShareOrders = on;
}

OrderingTimes computeOrdering(const OrderingInput& in, OrderingResult& out) {
    const double t0 = nrt_seconds();
    buildOrderingGraph(in, out);
    const double graph = nrt_seconds() - t0;
    OrderingTimes times = orderGraph(in, out);
    times.graph = graph;
    return times;
}

OrderingTimes orderGraph(const OrderingInput& in, OrderingResult& out) {
    const int n = in.n;
    OrderingTimes times;
    const double t1 = nrt_seconds();

    out.perm = IntBlock(n, kGraphCode, in.memory);
    out.invp = IntBlock(n, kGraphCode, in.memory);
    setSingleDomain(n, out);
    const bool userOrder = in.userPermutation > 0 && in.userPermutation != 2;
    if (userOrder) {
        if (!in.callerPerm || !isPermutation(n, in.callerPerm))
            throw OrderingFailure{kStatusBadUserPermutation};
        std::copy_n(in.callerPerm, n, out.perm.data());
    } else if (out.xadj[n] == 1) {
        identityOrder(n, out); // no edges: every order is as good
    } else if (in.method == kMinimumDegree) {
        amdOrder(n, out.xadj.data(), out.adjncy.data(), out.perm.data());
    } else if (in.method == kMinimumDegreeCompressed) {
        compressedMinimumDegree(in, out);
    } else {
        rememberedDissection(in, out);
    }
    deriveInverse(n, out);
    if (!userOrder && out.ndomains > 1) regroupDomains(n, out);
    // The last column alone forms the top when no separator follows the domains.
    int* dp = out.domainpairs.data();
    if (out.ndomains > 1 && dp[2 * out.ndomains - 1] == n) {
        dp[2 * out.ndomains - 1] = n - 1;
        dp[2 * out.ndomains] = n;
        dp[2 * out.ndomains + 1] = n;
    } else if (out.ndomains == 1) {
        setSingleDomain(n, out);
    }
    times.ordering = nrt_seconds() - t1;
    return times;
}

} // namespace skyrinse::spds

extern "C" void spds_share_orders(int on) {
    skyrinse::spds::shareOrders(on != 0);
}

// The cut of the supernodal tree; the contract is in TreeSchedule.h.
#include "TreeSchedule.h"

#include "internal/OneBased.h"

#include <algorithm>
#include <functional>
#include <queue>
#include <utility>

namespace skyrinse::spds {

namespace {

// Splits stop after this many: beyond it the top grows without a gain.
constexpr int kMaxSplits = 512;
// Below this many operations a factor is not worth waking a second thread.
constexpr double kParallelWork = 1e6;

struct Tree {
    std::vector<int> firstChild, sibling; // one-based, 0 ends
    std::vector<int> post;                // postorder, supernodes
    std::vector<int> place;               // position of a supernode in post
    std::vector<int> size;                // supernodes in the subtree
    std::vector<double> subtreeWork;
    std::vector<int> roots;
};

Tree buildTree(const SymbolicResult& s, const std::vector<double>& work) {
    const int ns = s.nsuper;
    Tree t;
    t.firstChild.assign(static_cast<std::size_t>(ns) + 1, 0);
    t.sibling.assign(static_cast<std::size_t>(ns) + 1, 0);
    for (int k = ns; k >= 1; --k) {
        const int p = s.sparent[k - 1];
        if (p > 0) {
            t.sibling[k] = t.firstChild[p];
            t.firstChild[p] = k;
        } else {
            t.roots.push_back(k);
        }
    }
    std::reverse(t.roots.begin(), t.roots.end());
    t.post.reserve(static_cast<std::size_t>(ns));
    t.place.assign(static_cast<std::size_t>(ns) + 1, 0);
    t.size.assign(static_cast<std::size_t>(ns) + 1, 1);
    t.subtreeWork.assign(work.begin(), work.end());
    std::vector<int> stack;
    for (int r : t.roots) {
        // Iterative depth-first walk: a node is pushed back after its
        // children, marked by its sign.
        stack.push_back(r);
        while (!stack.empty()) {
            const int v = stack.back();
            stack.pop_back();
            if (v < 0) {
                const int u = -v;
                t.place[u] = static_cast<int>(t.post.size());
                t.post.push_back(u);
                const int p = s.sparent[u - 1];
                if (p > 0) {
                    t.size[p] += t.size[u];
                    t.subtreeWork[p] += t.subtreeWork[u];
                }
                continue;
            }
            stack.push_back(-v);
            // Children pushed last-first so that the smallest comes out first.
            std::vector<int> kids;
            for (int c = t.firstChild[v]; c != 0; c = t.sibling[c])
                kids.push_back(c);
            for (auto it = kids.rbegin(); it != kids.rend(); ++it)
                stack.push_back(*it);
        }
    }
    return t;
}

// Longest first onto the least loaded thread; returns the largest load and
// the owner of each subtree.
double assign(const std::vector<int>& subtrees, const std::vector<double>& weight, int threads,
              std::vector<int>* owner) {
    std::vector<int> idx(subtrees.size());
    for (std::size_t i = 0; i < idx.size(); ++i)
        idx[i] = static_cast<int>(i);
    std::stable_sort(idx.begin(), idx.end(), [&](int a, int b) {
        return weight[static_cast<std::size_t>(subtrees[static_cast<std::size_t>(a)])] >
               weight[static_cast<std::size_t>(subtrees[static_cast<std::size_t>(b)])];
    });
    std::vector<double> load(static_cast<std::size_t>(threads), 0.0);
    if (owner) owner->assign(subtrees.size(), 0);
    for (int i : idx) {
        const auto k =
            static_cast<std::size_t>(std::min_element(load.begin(), load.end()) - load.begin());
        load[k] += weight[static_cast<std::size_t>(subtrees[static_cast<std::size_t>(i)])];
        if (owner) (*owner)[static_cast<std::size_t>(i)] = static_cast<int>(k);
    }
    return *std::max_element(load.begin(), load.end());
}

} // namespace

std::vector<double> supernodeWork(const SymbolicResult& s, bool lu) {
    const OneBased<const int> xsup(s.xsup.data());
    const OneBased<const int> xlnz(s.xlnz.data());
    std::vector<double> work(static_cast<std::size_t>(s.nsuper) + 1, 0.0);
    for (int sn = 1; sn <= s.nsuper; ++sn) {
        const int fst = xsup[sn];
        const int ws = xsup[sn + 1] - fst;
        const double hs = xlnz[fst + 1] - xlnz[fst];
        double ops = 0;
        for (int k = 0; k < ws; ++k) {
            const double below = hs - k - 1;
            ops += lu ? 2.0 * below * below + below : below * below + below;
        }
        work[static_cast<std::size_t>(sn)] = ops;
    }
    return work;
}

TreeSchedule scheduleTree(const SymbolicResult& s, int threads, bool lu) {
    const int ns = s.nsuper;
    TreeSchedule plan;
    const std::vector<double> work = supernodeWork(s, lu);
    const Tree tree = buildTree(s, work);
    for (int sn = 1; sn <= ns; ++sn)
        plan.totalWork += work[static_cast<std::size_t>(sn)];
    {
        // Heaviest root-to-leaf path: in postorder every child precedes its
        // parent.
        std::vector<double> path(static_cast<std::size_t>(ns) + 1, 0.0);
        for (int u : tree.post) {
            path[static_cast<std::size_t>(u)] += work[static_cast<std::size_t>(u)];
            const int p = s.sparent[u - 1];
            if (p > 0)
                path[static_cast<std::size_t>(p)] =
                    std::max(path[static_cast<std::size_t>(p)], path[static_cast<std::size_t>(u)]);
            else
                plan.criticalPath = std::max(plan.criticalPath, path[static_cast<std::size_t>(u)]);
        }
    }
    const int t = std::max(1, threads);
    // The top is counted as if on one thread: its supernodes mostly wait for
    // each other (the separators form chains).
    auto topTime = [&](int sn) { return work[static_cast<std::size_t>(sn)]; };
    std::vector<int> best;
    double bestCost = 0;
    bool split = false;
    if (t > 1 && ns > 1 && plan.totalWork >= kParallelWork) {
        // Heaviest subtree first.
        auto lighter = [&](int a, int b) {
            return tree.subtreeWork[static_cast<std::size_t>(a)] <
                   tree.subtreeWork[static_cast<std::size_t>(b)];
        };
        std::priority_queue<int, std::vector<int>, decltype(lighter)> heap(lighter);
        std::vector<int> current = tree.roots;
        for (int r : current)
            heap.push(r);
        double top = 0;
        bestCost = assign(current, tree.subtreeWork, t, nullptr);
        best = current;
        double serial = 0;
        for (int sn = 1; sn <= ns; ++sn)
            serial += topTime(sn);
        for (int k = 0; k < kMaxSplits && !heap.empty(); ++k) {
            const int x = heap.top();
            heap.pop();
            if (tree.firstChild[static_cast<std::size_t>(x)] == 0) break;
            top += topTime(x);
            if (top >= bestCost) break;
            current.erase(std::find(current.begin(), current.end(), x));
            for (int c = tree.firstChild[static_cast<std::size_t>(x)]; c != 0;
                 c = tree.sibling[static_cast<std::size_t>(c)]) {
                current.push_back(c);
                heap.push(c);
            }
            const double cost = assign(current, tree.subtreeWork, t, nullptr) + top;
            if (cost < bestCost) {
                bestCost = cost;
                best = current;
            }
        }
        split = bestCost < serial;
        plan.estimatedTime = split ? bestCost : serial;
    }

    plan.order.reserve(static_cast<std::size_t>(ns));
    if (!split) {
        plan.threads = 1;
        plan.order = tree.post;
        plan.start = {0, ns};
        plan.largestLoad = plan.totalWork;
        if (t == 1 || ns <= 1) plan.estimatedTime = plan.totalWork;
        return plan;
    }
    plan.threads = t;
    std::sort(best.begin(), best.end(), [&](int a, int b) {
        return tree.place[static_cast<std::size_t>(a)] < tree.place[static_cast<std::size_t>(b)];
    });
    std::vector<int> owner;
    plan.largestLoad = assign(best, tree.subtreeWork, t, &owner);
    std::vector<char> inSubtree(static_cast<std::size_t>(ns) + 1, 0);
    plan.start.assign(static_cast<std::size_t>(t) + 1, 0);
    for (int k = 0; k < t; ++k) {
        plan.start[static_cast<std::size_t>(k)] = static_cast<int>(plan.order.size());
        for (std::size_t i = 0; i < best.size(); ++i) {
            if (owner[i] != k) continue;
            const int r = best[i];
            const int last = tree.place[static_cast<std::size_t>(r)];
            const int first = last - tree.size[static_cast<std::size_t>(r)] + 1;
            for (int p = first; p <= last; ++p) {
                const int u = tree.post[static_cast<std::size_t>(p)];
                plan.order.push_back(u);
                inSubtree[static_cast<std::size_t>(u)] = 1;
            }
        }
    }
    plan.start[static_cast<std::size_t>(t)] = static_cast<int>(plan.order.size());
    for (int u : tree.post)
        if (!inSubtree[static_cast<std::size_t>(u)]) {
            plan.order.push_back(u);
            plan.topWork += work[static_cast<std::size_t>(u)];
        }
    return plan;
}

SourceLists sourceLists(const SymbolicResult& s, MemoryCounter* memory, int failureCode) {
    const int nsuper = s.nsuper;
    const OneBased<const int> xsup(s.xsup.data()), xlindx(s.xlindx.data()), lindx(s.lindx.data()),
        snode(s.snode.data());
    auto forEachUpdate = [&](auto&& visit) {
        if (!s.groupedUpdateLists && !s.xslindx.empty()) {
            const OneBased<const int> xsl(s.xslindx.data());
            for (int d = 1; d <= nsuper; ++d)
                for (int e = xsl[d]; e < xsl[d + 1]; ++e)
                    visit(d, s.slindx[e - 1], s.slength[e - 1]);
            return;
        }
        for (int d = 1; d <= nsuper; ++d) {
            const int end = xlindx[d + 1];
            int previous = 0;
            for (int k = xlindx[d] + (xsup[d + 1] - xsup[d]); k < end; ++k) {
                const int t = snode[lindx[k]];
                if (t != previous) visit(d, t, end - k);
                previous = t;
            }
        }
    };
    SourceLists l;
    l.xsource = IntBlock(static_cast<std::int64_t>(nsuper) + 2, failureCode, memory);
    const OneBased<int> xs(l.xsource.data());
    forEachUpdate([&](int, int t, int) { ++xs[t + 1]; });
    xs[1] = 0;
    for (int t = 1; t <= nsuper; ++t)
        xs[t + 1] += xs[t];
    const std::int64_t count = std::max(1, xs[nsuper + 1]);
    l.source = IntBlock(count, failureCode, memory);
    l.rows = IntBlock(count, failureCode, memory);
    std::vector<int> fill(l.xsource.begin(), l.xsource.begin() + nsuper);
    forEachUpdate([&](int d, int t, int r) {
        const int e = fill[static_cast<std::size_t>(t - 1)]++;
        l.source[e] = d;
        l.rows[e] = r;
    });
    return l;
}

} // namespace skyrinse::spds

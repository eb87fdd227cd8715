// bench_spds_matching: the matching step of the analysis on three systems of
// about 100,000 unknowns, next to METIS nested dissection of the same
// adjacency graph measured in the same run (the ordering that every analysis
// runs anyway, so the ratio says what the matching adds to it).
//
//   image    the photo tool's kind of system: 3 x 3 neighbourhoods of a
//            316 x 316 grid, symmetric, stored by its upper triangle (mtype -2)
//   saddle   [A B'; B 0] with a zero block of 30% of the unknowns (mtype -2):
//            every row of the zero block needs an augmenting path and a pair
//   random   unsymmetric with 5 entries a row and random magnitudes (mtype 11)
//
// The step runs with an identity order of the block graph, so its time is
// the matching, the scalings and the block graph alone.
//
// Usage: bench_spds_matching [--size N] [--repeat R]
#include "solver/MatchingStep.h"

#include <metis.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct System {
    System(const char* name_, int mtype_) : name(name_), mtype(mtype_) {}

    const char* name;
    int mtype;
    int n = 0;
    std::vector<int> ia{1};
    std::vector<int> ja;
    std::vector<double> a;

    void addRow(std::vector<std::pair<int, double>> row) {
        std::sort(row.begin(), row.end());
        row.erase(std::unique(row.begin(), row.end(),
                              [](auto& x, auto& y) { return x.first == y.first; }),
                  row.end());
        for (auto [j, v] : row) {
            ja.push_back(j + 1);
            a.push_back(v);
        }
        ia.push_back(static_cast<int>(ja.size()) + 1);
        ++n;
    }
};

double randomValue(std::mt19937& rng) {
    std::uniform_real_distribution<double> e(-3.0, 3.0);
    return (rng() & 1 ? 1.0 : -1.0) * std::pow(10.0, e(rng));
}

System imageSystem(int w) {
    System s("image", -2);
    for (int y = 0; y < w; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * w + x;
            std::vector<std::pair<int, double>> row;
            int degree = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int xx = x + dx, yy = y + dy;
                    if ((dx == 0 && dy == 0) || xx < 0 || yy < 0 || xx >= w || yy >= w) continue;
                    ++degree;
                    if (yy * w + xx > i) row.push_back({yy * w + xx, -1.0});
                }
            row.push_back({i, degree + 1e-4});
            s.addRow(row);
        }
    return s;
}

System saddleSystem(int n, std::mt19937& rng) {
    System s("saddle", -2);
    const int n1 = n * 7 / 10;
    std::vector<std::vector<std::pair<int, double>>> rows(n);
    std::uniform_int_distribution<int> col(0, n1 - 1);
    for (int i = 0; i < n1; ++i) {
        rows[i].push_back({i, 4.0});
        if (i + 1 < n1) rows[i].push_back({i + 1, -1.0});
    }
    for (int r = 0; r < n - n1; ++r)
        for (int c : std::set<int>{r % n1, col(rng), col(rng)})
            rows[c].push_back({n1 + r, randomValue(rng)});
    for (auto& row : rows)
        s.addRow(row);
    return s;
}

System randomSystem(int n, std::mt19937& rng) {
    System s("random", 11);
    std::vector<int> hidden(n);
    for (int i = 0; i < n; ++i)
        hidden[i] = i;
    std::shuffle(hidden.begin(), hidden.end(), rng);
    std::uniform_int_distribution<int> col(0, n - 1);
    for (int i = 0; i < n; ++i) {
        std::vector<std::pair<int, double>> row{{hidden[i], randomValue(rng)}};
        for (int t = 0; t < 4; ++t)
            row.push_back({col(rng), randomValue(rng)});
        s.addRow(row);
    }
    return s;
}

// Adjacency of A + A' without the diagonal, zero-based, for METIS.
void adjacency(const System& s, std::vector<idx_t>& xadj, std::vector<idx_t>& adj) {
    std::vector<std::pair<int, int>> edges;
    for (int i = 0; i < s.n; ++i)
        for (int k = s.ia[i] - 1; k < s.ia[i + 1] - 1; ++k) {
            const int j = s.ja[k] - 1;
            if (j == i) continue;
            edges.push_back({i, j});
            edges.push_back({j, i});
        }
    std::sort(edges.begin(), edges.end());
    edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
    xadj.assign(s.n + 1, 0);
    adj.clear();
    for (auto [i, j] : edges) {
        ++xadj[i + 1];
        adj.push_back(j);
    }
    for (int i = 0; i < s.n; ++i)
        xadj[i + 1] += xadj[i];
}

template <class F>
double bestOf(int repeat, F&& run) {
    double best = 1e300;
    for (int r = 0; r < repeat; ++r) {
        const auto t0 = Clock::now();
        run();
        best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
    }
    return best;
}

skyrinse::spds::CompressedOrdering identityOrder(const skyrinse::spds::CompressedGraph& g) {
    skyrinse::spds::CompressedOrdering o;
    o.order = skyrinse::spds::IntBlock(g.nodes, -401, nullptr);
    for (int k = 0; k < g.nodes; ++k)
        o.order[k] = k;
    return o;
}

} // namespace

int main(int argc, char** argv) {
    int size = 100000;
    int repeat = 2;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        if (key == "--size") size = std::max(100, std::atoi(argv[i + 1]));
        if (key == "--repeat") repeat = std::max(1, std::atoi(argv[i + 1]));
    }
    std::mt19937 rng(2024);
    const int w = static_cast<int>(std::sqrt(static_cast<double>(size)));
    const System systems[] = {imageSystem(w), saddleSystem(size, rng), randomSystem(size, rng)};

    std::printf("%-8s %8s %9s %7s %8s %11s %11s %7s\n", "system", "n", "nnz", "mtype", "pairs",
                "matching s", "metis nd s", "ratio");
    for (const System& s : systems) {
        skyrinse::spds::MatchingRequest rq;
        rq.mtype = s.mtype;
        rq.n = s.n;
        rq.matching = 1;
        rq.scaling = true;
        rq.a = s.a.data();
        rq.ia = s.ia.data();
        rq.ja = s.ja.data();
        int error = 0;
        int pairs = 0;
        const double tMatch = bestOf(repeat, [&] {
            skyrinse::spds::IntBlock permutation;
            skyrinse::spds::Block<double> scalings;
            const skyrinse::spds::MatchingOutcome out =
                skyrinse::spds::runMatchingStep(rq, permutation, scalings, identityOrder);
            error = out.error;
            pairs = out.pairOrder.pairs;
        });
        std::vector<idx_t> xadj, adj;
        adjacency(s, xadj, adj);
        const double tMetis = bestOf(repeat, [&] {
            idx_t n = s.n;
            std::vector<idx_t> perm(n), iperm(n);
            METIS_NodeND(&n, xadj.data(), adj.data(), nullptr, nullptr, perm.data(), iperm.data());
        });
        if (error != 0) std::printf("%s: matching step failed with %d\n", s.name, error);
        std::printf("%-8s %8d %9d %7d %8d %11.4f %11.4f %7.3f\n", s.name, s.n, s.ia[s.n] - 1,
                    s.mtype, pairs, tMatch, tMetis, tMatch / tMetis);
    }
    return 0;
}

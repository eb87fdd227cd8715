// Generator of the accuracy corpus: small systems that break solvers which
// pivot carelessly, each with the matrix types it can be stored as. Built
// from seeds every run, so the corpus is the code below and nothing else.
//
// Families: shifted Laplacians (indefinite), the same with a third of the
// diagonal zero, saddle points, a nearly singular tridiagonal matrix,
// Hilbert blocks, definite grids, row-permuted (and badly scaled)
// diagonally dominant unsymmetric matrices, and copies with a NaN or an
// infinite entry.
#pragma once

#include "SpdsTest.h"

#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

namespace spdstest {

struct CorpusMatrix {
    std::string name;
    int n = 0;
    Entries entries;         // full matrix, zero-based
    std::vector<int> mtypes; // the types it is solved as
    bool nonFinite = false;  // must be refused
};

// 5-point Laplacian of a w x h grid, diagonal 4 + shift.
inline Entries laplacian5(int w, int h, double shift) {
    Entries e;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * w + x;
            e[{i, i}] = 4.0 + shift;
            if (x + 1 < w) e[{i, i + 1}] = e[{i + 1, i}] = -1.0;
            if (y + 1 < h) e[{i, i + w}] = e[{i + w, i}] = -1.0;
        }
    return e;
}

// Diagonally dominant unsymmetric, rows moved by a random permutation so
// that the diagonal is mostly empty; with `scaled`, rows and columns are
// multiplied by powers of ten from 10^-4 to 10^4.
inline Entries permutedDominant(int n, bool scaled, std::mt19937& rng) {
    Entries e = unsymmetricEntries(n, 0.02, rng);
    for (int i = 0; i < n; ++i)
        e[{i, i}] = 3.0 + static_cast<double>(i % 7);
    std::vector<int> p(static_cast<std::size_t>(n));
    std::iota(p.begin(), p.end(), 0);
    std::shuffle(p.begin(), p.end(), rng);
    std::uniform_int_distribution<int> power(-4, 4);
    std::vector<double> r(static_cast<std::size_t>(n), 1.0), c(r);
    if (scaled)
        for (int i = 0; i < n; ++i) {
            r[static_cast<std::size_t>(i)] = std::pow(10.0, power(rng));
            c[static_cast<std::size_t>(i)] = std::pow(10.0, power(rng));
        }
    Entries out;
    for (const auto& [pos, v] : e)
        out[{p[static_cast<std::size_t>(pos.first)], pos.second}] =
            v * r[static_cast<std::size_t>(pos.first)] * c[static_cast<std::size_t>(pos.second)];
    return out;
}

// Blocks of the Hilbert matrix 1 / (i + j + 1), coupled so weakly along a
// chain (1e-10, below the smallest eigenvalue of a block of 6, 1.1e-7) that
// the whole stays positive definite.
inline Entries hilbertBlocks(int blocks, int size) {
    Entries e;
    for (int b = 0; b < blocks; ++b)
        for (int i = 0; i < size; ++i)
            for (int j = 0; j < size; ++j)
                e[{b * size + i, b * size + j}] = 1.0 / (i + j + 1);
    for (int b = 0; b + 1 < blocks; ++b)
        e[{b * size + size - 1, b * size + size}] = e[{b * size + size, b * size + size - 1}] =
            1e-10;
    return e;
}

// [-1 2 -1] shifted by one of its eigenvalues less 1e-9: one eigenvalue of
// 1e-9 amid others of order 1e-2 to 4.
inline Entries nearlySingular(int n) {
    const double pi = std::acos(-1.0);
    const double lambda = 2.0 - 2.0 * std::cos(pi * (n / 2) / (n + 1.0));
    Entries e;
    for (int i = 0; i < n; ++i) {
        e[{i, i}] = 2.0 - lambda + 1e-9;
        if (i + 1 < n) e[{i, i + 1}] = e[{i + 1, i}] = -1.0;
    }
    return e;
}

// Pattern made structurally symmetric by explicit zeros (for mtype 1).
inline Entries structurallySymmetric(Entries e) {
    Entries mirror;
    for (const auto& [pos, v] : e)
        if (!e.count({pos.second, pos.first})) mirror[{pos.second, pos.first}] = 0.0;
    e.insert(mirror.begin(), mirror.end());
    return e;
}

inline std::vector<CorpusMatrix> accuracyCorpus() {
    std::mt19937 rng(20261123);
    std::vector<CorpusMatrix> v;
    const std::vector<int> symmetricTypes{-2, 1, 11};
    const std::vector<int> definiteTypes{2, -2, 1, 11};
    v.push_back({"laplacian shifted by -2", 256, laplacian5(16, 16, -2.0), symmetricTypes});
    {
        Entries e = laplacian5(16, 16, -2.3);
        for (int i = 1; i < 256; i += 3)
            e[{i, i}] = 0.0;
        v.push_back({"shifted laplacian, a third of the diagonal zero", 256, e, symmetricTypes});
    }
    v.push_back({"saddle point", 144 + 40, saddleEntries(12, 12, 40, rng), symmetricTypes});
    v.push_back({"nearly singular", 200, nearlySingular(200), symmetricTypes});
    v.push_back({"hilbert blocks", 96, hilbertBlocks(16, 6), definiteTypes});
    // Condition 1e13 per block: pivots fall below the perturbation threshold
    // and the correction steps alone stall. Not positive definite once
    // rounded to single precision, so not offered as type 2.
    v.push_back({"hilbert blocks of ten", 60, hilbertBlocks(6, 10), symmetricTypes});
    v.push_back({"definite grid", 400, gridEntries(20, 20, 0.01), definiteTypes});
    v.push_back(
        {"indefinite random", 200, symmetricEntries(200, 0.02, rng, 0.5, true), symmetricTypes});
    for (bool scaled : {false, true}) {
        const Entries e = permutedDominant(180, scaled, rng);
        const std::string name = scaled ? "permuted, badly scaled" : "permuted dominant";
        v.push_back({name, 180, e, {11}});
        v.push_back({name + ", symmetric pattern", 180, structurallySymmetric(e), {1}});
    }
    for (double bad :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
        Entries e = laplacian5(8, 8, 0.0);
        e[{10, 11}] = e[{11, 10}] = bad;
        v.push_back({std::isnan(bad) ? "NaN entry" : "infinite entry", 64, e, definiteTypes, true});
    }
    return v;
}

} // namespace spdstest

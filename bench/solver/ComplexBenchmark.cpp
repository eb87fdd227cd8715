// Complex systems: Helmholtz-like shifted Laplacians, L - k^2 (1 + 0.05 i) I
// on a 2D grid (5-point) and a 3D grid (7-point), complex symmetric (not
// Hermitian), the kind of matrix a frequency-domain wave problem gives.
// SPDS (mtype 6, complex double) and MUMPS's complex double solver (general
// symmetric, its defaults) on the same matrix, the same thread count and
// the same right-hand side, best of R; the residual ||Ax - b|| / ||b|| is
// computed here in double for both.
#include "FullBenchmark.h"

#include "runtime/nrt.h"
#include "spds.h"

#ifdef SPDS_BENCH_ZMUMPS
#include "MumpsJobs.h"

#include <zmumps_c.h>
#endif

#include <algorithm>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

extern "C" void openblas_set_num_threads(int);

namespace {

using Complex = std::complex<double>;

struct ComplexProblem {
    std::string name;
    int n = 0;
    std::vector<int> ia{1}; // one-based upper triangle by rows
    std::vector<int> ja;
    std::vector<Complex> a;
};

// Grid of nx x ny x nz points; the shift puts the wave number inside the
// spectrum, so the matrix is indefinite in its real part.
ComplexProblem helmholtz(const char* name, int nx, int ny, int nz) {
    ComplexProblem p;
    p.name = name;
    p.n = nx * ny * nz;
    const int degree = nz > 1 ? 6 : 4;
    const Complex shift = Complex(-0.8 * degree, -0.04 * degree);
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const int i = (z * ny + y) * nx + x;
                p.ja.push_back(i + 1);
                p.a.push_back(Complex(degree, 0.0) + shift);
                const int next[3][2] = {
                    {x + 1 < nx, i + 1}, {y + 1 < ny, i + nx}, {z + 1 < nz, i + nx * ny}};
                for (const auto& [inside, j] : next)
                    if (inside) {
                        p.ja.push_back(j + 1);
                        p.a.push_back(Complex(-1.0, 0.0));
                    }
                p.ia.push_back(static_cast<int>(p.ja.size()) + 1);
            }
    return p;
}

struct Times {
    double analysis = 1e30, factorization = 1e30, solve = 1e30, residual = 0;
    std::string note;
    double total() const { return analysis + factorization + solve; }
};

Times runSpds(const ComplexProblem& p, const std::vector<Complex>& b, int reps) {
    Times t;
    for (int rep = 0; rep < reps; ++rep) {
        void* pt[64] = {};
        int iparm[64] = {};
        int maxfct = 1, mnum = 1, mtype = 6, nrhs = 1, msglvl = 0, n = p.n, error = 0;
        std::vector<Complex> rhs(b), x(b.size());
        double stamp[4];
        int phases[3] = {11, 22, 33};
        stamp[0] = nrt_seconds();
        for (int k = 0; k < 3 && error == 0; ++k) {
            spds(pt, &maxfct, &mnum, &mtype, &phases[k], &n, p.a.data(), p.ia.data(), p.ja.data(),
                 nullptr, &nrhs, iparm, &msglvl, rhs.data(), x.data(), &error);
            stamp[k + 1] = nrt_seconds();
        }
        if (error != 0) {
            t.note = "error " + std::to_string(error);
        } else {
            t.analysis = std::min(t.analysis, stamp[1] - stamp[0]);
            t.factorization = std::min(t.factorization, stamp[2] - stamp[1]);
            t.solve = std::min(t.solve, stamp[3] - stamp[2]);
            t.residual = bench::residual(p, x, b);
        }
        int release = -1;
        spds(pt, &maxfct, &mnum, &mtype, &release, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
    }
    return t;
}

Times runZmumps(const ComplexProblem& p, const std::vector<Complex>& b, int reps) {
    Times t;
#ifdef SPDS_BENCH_ZMUMPS
    bench::MumpsCoordinates coordinates(p.n, p.ia, p.ja);
    std::vector<mumps_double_complex> values(p.a.size());
    for (std::size_t k = 0; k < p.a.size(); ++k)
        values[k] = {p.a[k].real(), p.a[k].imag()};
    for (int rep = 0; rep < reps; ++rep) {
        std::vector<mumps_double_complex> x(b.size());
        for (std::size_t i = 0; i < b.size(); ++i)
            x[i] = {b[i].real(), b[i].imag()};
        // General symmetric: complex symmetric, not Hermitian.
        const bench::MumpsJobs r =
            bench::runMumpsJobs(zmumps_c, 2, p.n, coordinates, values.data(), x.data());
        if (r.failedJob != 0) {
            t.note = "failed in job " + std::to_string(r.failedJob) + ", INFOG(1) " +
                     std::to_string(r.infog1);
        } else {
            t.analysis = std::min(t.analysis, r.analysis);
            t.factorization = std::min(t.factorization, r.factorization);
            t.solve = std::min(t.solve, r.solve);
            std::vector<Complex> xs(x.size());
            for (std::size_t i = 0; i < x.size(); ++i)
                xs[i] = Complex(x[i].r, x[i].i);
            t.residual = bench::residual(p, xs, b);
        }
    }
#else
    (void)p;
    (void)b;
    (void)reps;
    t.note = "not built (no complex MUMPS)";
#endif
    return t;
}

void printRow(const char* solver, const Times& t, double reference) {
    if (!t.note.empty()) {
        std::printf("  %-14s %s\n", solver, t.note.c_str());
        return;
    }
    std::printf("  %-14s %8.3f %8.3f %8.3f %8.3f %7.2fx  %.1e\n", solver, t.analysis,
                t.factorization, t.solve, t.total(), t.total() / reference, t.residual);
}

} // namespace

int complexBenchmark(int argc, char** argv) {
    int threads = 1, reps = 3;
    for (int i = 2; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--threads") && i + 1 < argc)
            threads = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--reps") && i + 1 < argc)
            reps = std::atoi(argv[++i]);
    }
    threads = std::max(1, threads);
    reps = std::max(1, reps);
    nrt_set_num_threads(threads);
    openblas_set_num_threads(threads);
    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) < 0) load[0] = -1;
    std::printf("Complex symmetric Helmholtz-like systems, complex double for both solvers, %d "
                "thread(s), best of %d; load average %.2f\n",
                threads, reps, load[0]);
    std::printf("  %-14s %8s %8s %8s %8s %8s  %s\n", "solver", "analysis", "factor", "solve",
                "total", "ratio", "residual");
    const ComplexProblem problems[] = {helmholtz("2D Helmholtz 300^2", 300, 300, 1),
                                       helmholtz("3D Helmholtz 30^3", 30, 30, 30)};
    for (const ComplexProblem& p : problems) {
        std::mt19937 rng(7);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        std::vector<Complex> b(static_cast<std::size_t>(p.n));
        for (Complex& v : b)
            v = Complex(u(rng), u(rng));
        std::printf("%s: n %d, nnz(upper) %zu\n", p.name.c_str(), p.n, p.ja.size());
        const Times spds = runSpds(p, b, reps);
        const Times mumps = runZmumps(p, b, reps);
        const double reference = spds.note.empty() ? spds.total() : 1.0;
        printRow("SPDS mtype 6", spds, reference);
        printRow("MUMPS complex", mumps, reference);
    }
    return 0;
}

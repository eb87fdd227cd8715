// The full solver benchmark: systems, SPDS runs, the table of ratios.
//
// SPDS runs with the parameters of the photo tool (mtype -2, nested
// dissection into domains, matching and scaling, Bunch-Kaufman pivots, two
// refinement steps asked), once in single and once in double precision. Its
// "solve" column is phase 33 with the checked refinement (residuals in
// double; the steps it took and the backward error it reached are printed);
// the peers solve once.
#include "FullBenchmark.h"

#include "Handle.h"
#include "MatrixMarket.h"
#include "Peers.h"

#include "ZImage/CSparseSingle.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "runtime/nrt.h"
#include "spds.h"

#include <QString>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>

extern "C" void openblas_set_num_threads(int);

using bench::Problem;
using bench::Timing;

namespace {

Problem fromUpperRows(std::string name, int n, bool definite,
                      const std::vector<std::vector<std::pair<int, double>>>& rows) {
    Problem p;
    p.name = std::move(name);
    p.n = n;
    p.definite = definite;
    p.ia.push_back(1);
    for (const auto& row : rows) {
        for (const auto& [j, v] : row) {
            p.ja.push_back(j + 1);
            p.a.push_back(v);
        }
        p.ia.push_back(static_cast<int>(p.ja.size()) + 1);
    }
    return p;
}

} // namespace

namespace bench {

Problem photoProblem(const std::string& path) {
    ZImage decoded;
    decoded.Load(QString::fromStdString(path));
    ZImage image;
    decoded.CopyTo(image, ZImage::RGBA, 32);
    const HazeWorkingSize size = hazeWorkingSize(image.Width(), image.Height());
    ZImage working;
    image.ResizeTo(working, size.width, size.height, 0, 0.0, 0.0, 0.0, 0.0);
    CSparseSingle m;
    assembleMattingSystem(working, m);
    Problem p;
    const std::size_t slash = path.find_last_of('/');
    p.name = "matting " + path.substr(slash == std::string::npos ? 0 : slash + 1, 18);
    p.n = m.rowCount();
    p.ia.assign(m.ia().begin(), m.ia().end());
    p.ja.assign(m.ja().begin(), m.ja().end());
    p.a.assign(m.a().begin(), m.a().end());
    p.definite = true;
    return p;
}

Problem laplacian2d(int w, int h) {
    std::vector<std::vector<std::pair<int, double>>> rows(static_cast<std::size_t>(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            auto& r = rows[static_cast<std::size_t>(y) * w + x];
            const int i = y * w + x;
            r.push_back({i, 4.0});
            if (x + 1 < w) r.push_back({i + 1, -1.0});
            if (y + 1 < h) r.push_back({i + w, -1.0});
        }
    return fromUpperRows("2D Laplacian " + std::to_string(w) + "^2", w * h, true, rows);
}

Problem laplacian3d(int k) {
    const int n = k * k * k;
    std::vector<std::vector<std::pair<int, double>>> rows(static_cast<std::size_t>(n));
    for (int z = 0; z < k; ++z)
        for (int y = 0; y < k; ++y)
            for (int x = 0; x < k; ++x) {
                const int i = (z * k + y) * k + x;
                auto& r = rows[static_cast<std::size_t>(i)];
                r.push_back({i, 6.0});
                if (x + 1 < k) r.push_back({i + 1, -1.0});
                if (y + 1 < k) r.push_back({i + k, -1.0});
                if (z + 1 < k) r.push_back({i + k * k, -1.0});
            }
    return fromUpperRows("3D Laplacian " + std::to_string(k) + "^3", n, true, rows);
}

// [K B^T; B 0]: K a 2D Laplacian, B one difference of neighbours per
// constraint, the constraints on distinct pairs so that the system is regular.
Problem saddlePoint(int w, int h, int constraints) {
    const int nk = w * h;
    const int n = nk + constraints;
    std::vector<std::vector<std::pair<int, double>>> rows(static_cast<std::size_t>(n));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            auto& r = rows[static_cast<std::size_t>(y) * w + x];
            const int i = y * w + x;
            r.push_back({i, 4.0});
            if (x + 1 < w) r.push_back({i + 1, -1.0});
            if (y + 1 < h) r.push_back({i + w, -1.0});
        }
    const int stride = std::max(1, (nk - 1) / constraints);
    for (int c = 0; c < constraints; ++c) {
        const int j = std::min(nk - 2, c * stride);
        rows[static_cast<std::size_t>(j)].push_back({nk + c, 1.0});
        rows[static_cast<std::size_t>(j) + 1].push_back({nk + c, -1.0});
        rows[static_cast<std::size_t>(nk + c)].push_back({nk + c, 0.0});
    }
    for (auto& r : rows)
        std::sort(r.begin(), r.end());
    return fromUpperRows("saddle point " + std::to_string(n), n, false, rows);
}

} // namespace bench

namespace {

using bench::laplacian2d;
using bench::laplacian3d;
using bench::photoProblem;
using bench::saddlePoint;

// What the checked solve reports besides the times.
struct SolveFigures {
    int perturbed = -1;
    int steps = 0;
    double backwardError = -1;
};

// --fundamental: SPDS keeps the fundamental supernodes (no merging), for the
// comparison.
bool g_fundamental = false;

template <class T>
Timing runSpds(const Problem& p, const std::vector<double>& b, int repetitions,
               SolveFigures* figures) {
    Timing t;
    const std::vector<T> a(p.a.begin(), p.a.end());
    for (int rep = 0; rep < repetitions; ++rep) {
        void* pt[64] = {};
        int iparm[64] = {};
        photoToolParameters(iparm, std::is_same_v<T, float>);
        int maxfct = 1, mnum = 1, mtype = -2, nrhs = 1, msglvl = 0, error = 0, n = p.n;
        std::vector<T> rhs(b.begin(), b.end()), x(b.size());
        double times[3] = {};
        const int phases[3] = {11, 22, 33};
        if (g_fundamental) {
            // The switch lives on the handle, which the first call makes.
            int phase = 11;
            spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), p.ia.data(), p.ja.data(),
                 nullptr, &nrhs, iparm, &msglvl, rhs.data(), x.data(), &error);
            if (skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt))
                h->relaxedSupernodes = false;
            iparm[17] = -1;
        }
        for (int k = 0; k < 3 && error == 0; ++k) {
            int phase = phases[k];
            const double t0 = nrt_seconds();
            spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), p.ia.data(), p.ja.data(),
                 nullptr, &nrhs, iparm, &msglvl, rhs.data(), x.data(), &error);
            times[k] = nrt_seconds() - t0;
            if (k == 0) t.nnzFactor = iparm[17];
        }
        if (error != 0) {
            t.note = "error " + std::to_string(error);
        } else {
            t.keepBest(times[0], times[1], times[2]);
            t.residual = bench::residual(p, std::vector<double>(x.begin(), x.end()), b);
            spds_solve_info info{};
            spds_get_solve_info(pt, &info);
            *figures = {iparm[13], iparm[6], info.backward_error};
        }
        int phase = -1;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
    }
    return t;
}

void printRow(const char* solver, const Timing& t, const Timing& reference,
              const SolveFigures& figures = {}) {
    if (!t.ran) {
        std::printf("  %-13s %s\n", solver, t.note.c_str());
        return;
    }
    std::printf("  %-13s %8.3f %8.3f %8.3f %8.3f %7.2fx %9.1e %8.2fM", solver, t.analysis,
                t.factorization, t.solve, t.total(), t.total() / reference.total(), t.residual,
                t.nnzFactor / 1e6);
    if (figures.perturbed >= 0)
        std::printf("  perturbed %d, %d steps, backward error %.1e", figures.perturbed,
                    figures.steps, figures.backwardError);
    std::printf("\n");
}

std::vector<double> rightHandSide(int n) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<double> b(static_cast<std::size_t>(n));
    for (double& v : b)
        v = u(rng);
    return b;
}

} // namespace

std::string bench::sourceFile(const char* relative) {
    return std::string(SKYRINSE_SOURCE_DIR) + "/" + relative;
}

int writePhotoSystem(const char* photo, const char* file) {
    const Problem p = photoProblem(photo);
    skyrinse::mm::Triplets t;
    t.n = p.n;
    t.symmetric = true;
    for (int i = 0; i < p.n; ++i)
        for (int k = p.ia[i] - 1; k < p.ia[i + 1] - 1; ++k) {
            t.rows.push_back(i + 1);
            t.cols.push_back(p.ja[k]);
            t.values.push_back(p.a[k]);
        }
    std::string message;
    if (!skyrinse::mm::write(file, t, message)) {
        std::fprintf(stderr, "%s\n", message.c_str());
        return 1;
    }
    return 0;
}

void photoToolParameters(int* iparm, bool single) {
    iparm[0] = 1;
    iparm[1] = 3;
    iparm[7] = 2;
    iparm[9] = 8;
    iparm[10] = 1;
    iparm[12] = 1;
    iparm[17] = -1;
    iparm[20] = 1;
    iparm[27] = single ? 1 : 0;
}

int fullBenchmark(int argc, char** argv) {
    int threads = 1, reps = 3;
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--threads") && i + 1 < argc)
            threads = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--reps") && i + 1 < argc)
            reps = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--quick"))
            quick = true;
        else if (!std::strcmp(argv[i], "--fundamental"))
            g_fundamental = true;
        else if (!std::strcmp(argv[i], "--write-photo-mtx") && i + 2 < argc)
            return writePhotoSystem(argv[i + 1], argv[i + 2]);
    }
    threads = std::max(1, threads);
    reps = std::max(1, reps);
    // One thread count for everybody: the runtime's (SPDS and its BLAS
    // calls) and OpenBLAS's own, which CHOLMOD and MUMPS call directly.
    nrt_set_num_threads(threads);
    openblas_set_num_threads(threads);

    std::vector<Problem> problems;
    const char* photos[] = {"data/aitzgorri_by_Aitzol_Berasategi.jpg",
                            "tests/data/metadata/large_outdoor_iptc_xmp_badexif.jpg",
                            "data/meadows-foggy-smokey-sunbeams.jpg"};
    for (const char* photo : photos)
        problems.push_back(photoProblem(bench::sourceFile(photo)));
    if (!quick) {
        problems.push_back(laplacian2d(316, 316));
        problems.push_back(laplacian3d(30));
        problems.push_back(saddlePoint(250, 250, 12500));
    }

    std::printf("SPDS against its peers, %d thread(s), best of %d; seconds, ratio of the total "
                "to SPDS single, residual ||Ax-b||/||b||, entries of the factor\n",
                threads, reps);
    std::printf("  %-13s %8s %8s %8s %8s %8s %9s %9s\n", "solver", "analysis", "factor", "solve",
                "total", "ratio", "residual", "nnz(L)");
    for (const Problem& p : problems) {
        std::printf("%s: n %d, nnz(upper) %zu\n", p.name.c_str(), p.n, p.ja.size());
        const std::vector<double> b = rightHandSide(p.n);
        SolveFigures figuresSingle, figuresDouble;
        const Timing single = runSpds<float>(p, b, reps, &figuresSingle);
        const Timing dbl = runSpds<double>(p, b, reps, &figuresDouble);
        const Timing cholmod = bench::runCholmod(p, b, reps);
        const Timing mumps = bench::runMumps(p, b, reps);
        const Timing eigen = bench::runEigen(p, b, std::min(reps, 2));
        printRow("SPDS single", single, single, figuresSingle);
        printRow("SPDS double", dbl, single, figuresDouble);
        printRow("CHOLMOD", cholmod, single);
        printRow("MUMPS", mumps, single);
        printRow("Eigen LDLt", eigen, single);
        std::fflush(stdout);
    }
    return 0;
}

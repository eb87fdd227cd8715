// Speed of SPDS against its peers, in one run with one thread count; the
// modes are listed in kUsage (bench_solver --help).
#include "FullBenchmark.h"
#include "MatrixMarket.h"

#include "runtime/nrt.h"
#include "spds.h"

#include <cholmod.h>

extern "C" void openblas_set_num_threads(int);

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

// Each pixel coupled to its 5 x 5 neighbourhood, upper triangle, diagonally
// dominant values.
skyrinse::mm::Triplets mattingPattern(int w, int h) {
    skyrinse::mm::Triplets t;
    t.n = w * h;
    t.symmetric = true;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int dy = 0; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx) {
                    if (dy == 0 && dx < 0) continue;
                    const int X = x + dx, Y = y + dy;
                    if (X < 0 || X >= w || Y >= h) continue;
                    t.rows.push_back(y * w + x + 1);
                    t.cols.push_back(Y * w + X + 1);
                    t.values.push_back(dx == 0 && dy == 0 ? 25.0 : -0.5);
                }
    return t;
}

struct Result {
    double seconds = 1e30;
    double nnzL = 0;
};

Result spdsAnalysis(const skyrinse::mm::Csr& c, int mtype, int ordering) {
    Result r;
    for (int round = 0; round < 3; ++round) {
        void* pt[64] = {};
        int iparm[64] = {};
        iparm[0] = 1;
        iparm[1] = ordering;
        iparm[17] = -1;
        int maxfct = 1, mnum = 1, phase = 11, nrhs = 1, msglvl = 0, error = 0, n = c.n;
        const double t0 = nrt_seconds();
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, c.a.data(), c.ia.data(), c.ja.data(), nullptr,
             &nrhs, iparm, &msglvl, nullptr, nullptr, &error);
        const double t = nrt_seconds() - t0;
        if (error != 0) {
            std::printf("spds error %d\n", error);
            std::exit(1);
        }
        spds_analysis_info info;
        spds_get_analysis_info(pt, &info);
        r.seconds = std::min(r.seconds, t);
        r.nnzL = static_cast<double>(info.nnz_l_columns);
        phase = -1;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
    }
    return r;
}

// CHOLMOD's supernodal analysis of the same upper triangle with one method.
Result cholmodAnalysis(const skyrinse::mm::Csr& upperRows, int method) {
    Result r;
    // Rows of the upper triangle are columns of the lower one: hand CHOLMOD
    // the lower triangle by columns (stype -1) without copying.
    for (int round = 0; round < 3; ++round) {
        cholmod_common cc;
        cholmod_start(&cc);
        cc.nmethods = 1;
        cc.method[0].ordering = method;
        cc.postorder = 1;
        cc.supernodal = CHOLMOD_SUPERNODAL;
        cholmod_sparse a{};
        a.nrow = a.ncol = static_cast<std::size_t>(upperRows.n);
        a.nzmax = upperRows.ja.size();
        std::vector<int> p(upperRows.ia.begin(), upperRows.ia.end()),
            i(upperRows.ja.begin(), upperRows.ja.end());
        for (int& v : p)
            --v;
        for (int& v : i)
            --v;
        a.p = p.data();
        a.i = i.data();
        a.stype = -1;
        a.itype = CHOLMOD_INT;
        a.xtype = CHOLMOD_PATTERN;
        a.dtype = CHOLMOD_DOUBLE;
        a.sorted = 1;
        a.packed = 1;
        const double t0 = nrt_seconds();
        cholmod_factor* l = cholmod_analyze(&a, &cc);
        const double t = nrt_seconds() - t0;
        r.seconds = std::min(r.seconds, t);
        r.nnzL = cc.method[0].lnz;
        cholmod_free_factor(&l, &cc);
        cholmod_finish(&cc);
    }
    return r;
}

// Processor time of the process: on a loaded machine it tells the work of a
// one-thread phase better than the wall clock does.
double processSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// One photograph, one ordering: each phase's best time over the rounds.
struct PhotoRun {
    double analysis = 1e30, analysisCpu = 1e30, factor = 1e30, solve = 1e30;
    double factorCpu = 1e30, solveCpu = 1e30;
    double nnzL = 0, mflop = 0;
    int supernodes = 0;
    int error = 0;
};

PhotoRun spdsPhotoRun(const bench::Problem& p, int ordering, int reps, bool analysisOnly) {
    PhotoRun r;
    const std::vector<float> a(p.a.begin(), p.a.end());
    std::vector<float> b(static_cast<std::size_t>(p.n), 1.0f), x(b.size());
    for (int round = 0; round < reps; ++round) {
        void* pt[64] = {};
        int iparm[64] = {};
        photoToolParameters(iparm, true);
        iparm[1] = ordering;
        iparm[18] = -1;
        int maxfct = 1, mnum = 1, mtype = -2, nrhs = 1, msglvl = 0, error = 0, n = p.n;
        const int phases[3] = {11, 22, 33};
        double* times[3] = {&r.analysis, &r.factor, &r.solve};
        double* cpuTimes[3] = {&r.analysisCpu, &r.factorCpu, &r.solveCpu};
        for (int k = 0; k < (analysisOnly ? 1 : 3) && error == 0; ++k) {
            int phase = phases[k];
            const double t0 = nrt_seconds();
            const double c0 = processSeconds();
            spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), p.ia.data(), p.ja.data(),
                 nullptr, &nrhs, iparm, &msglvl, b.data(), x.data(), &error);
            *times[k] = std::min(*times[k], nrt_seconds() - t0);
            *cpuTimes[k] = std::min(*cpuTimes[k], processSeconds() - c0);
            if (k == 0) {
                spds_analysis_info info{};
                if (spds_get_analysis_info(pt, &info) == 0) r.supernodes = info.supernodes;
                r.nnzL = iparm[17];
                r.mflop = iparm[18];
            }
        }
        r.error = error;
        int phase = -1;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs,
             iparm, &msglvl, nullptr, nullptr, &error);
        if (r.error != 0) break;
    }
    return r;
}

// The upper triangle of a photograph's system as CHOLMOD's pattern input.
skyrinse::mm::Csr upperPattern(const bench::Problem& p) {
    skyrinse::mm::Csr c;
    c.n = p.n;
    c.ia = p.ia;
    c.ja = p.ja;
    return c;
}

int photoAnalysis(int argc, char** argv) {
    int reps = 3, only = -1, threads = 1;
    bool analysisOnly = false;
    std::vector<int> orderings = {3, 0};
    for (int i = 2; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc) {
            reps = std::max(1, std::atoi(argv[++i]));
        } else if (!std::strcmp(argv[i], "--photo") && i + 1 < argc) {
            only = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--threads") && i + 1 < argc) {
            threads = std::max(1, std::atoi(argv[++i]));
        } else if (!std::strcmp(argv[i], "--analysis-only")) {
            analysisOnly = true;
        } else if (!std::strcmp(argv[i], "--orderings") && i + 1 < argc) {
            orderings.clear();
            for (const char* s = argv[++i]; *s; ++s)
                if (*s >= '0' && *s <= '3') orderings.push_back(*s - '0');
        }
    }
    nrt_set_num_threads(threads);
    openblas_set_num_threads(threads);
    const char* photos[] = {"data/aitzgorri_by_Aitzol_Berasategi.jpg",
                            "tests/data/metadata/large_outdoor_iptc_xmp_badexif.jpg",
                            "data/meadows-foggy-smokey-sunbeams.jpg"};
    std::printf("The photo tool's call (single, mtype -2, matching and symmetric scaling), %d "
                "thread(s), best of %d; seconds\n",
                threads, reps);
    std::printf("  %-17s %8s %8s %8s %8s %8s %8s %8s %10s %10s %9s\n", "", "analysis", "(cpu)",
                "factor", "(cpu)", "solve", "(cpu)", "total", "nnz(L)", "Mflop", "supernodes");
    for (int k = 0; k < 3; ++k) {
        if (only >= 0 && k != only) continue;
        const bench::Problem p = bench::photoProblem(bench::sourceFile(photos[k]));
        std::printf("%s: n %d, nnz(upper) %zu\n", p.name.c_str(), p.n, p.ja.size());
        for (int ordering : orderings) {
            const PhotoRun r = spdsPhotoRun(p, ordering, reps, analysisOnly);
            if (r.error != 0) {
                std::printf("  SPDS iparm[1] = %d: error %d\n", ordering, r.error);
                continue;
            }
            std::printf("  SPDS iparm[1] = %d %8.3f %8.3f", ordering, r.analysis, r.analysisCpu);
            if (!analysisOnly)
                std::printf(" %8.3f %8.3f %8.3f %8.3f %8.3f", r.factor, r.factorCpu, r.solve,
                            r.solveCpu, r.analysis + r.factor + r.solve);
            else
                std::printf(" %8s %8s %8s %8s %8s", "-", "-", "-", "-", "-");
            std::printf(" %9.2fM %10.0f %9d\n", r.nnzL / 1e6, r.mflop, r.supernodes);
        }
        if (analysisOnly) continue;
        const skyrinse::mm::Csr upper = upperPattern(p);
        const Result cm = cholmodAnalysis(upper, CHOLMOD_METIS);
        const Result ca = cholmodAnalysis(upper, CHOLMOD_AMD);
        std::printf("  %-17s %8.3f %64.2fM\n", "CHOLMOD METIS", cm.seconds, cm.nnzL / 1e6);
        std::printf("  %-17s %8.3f %64.2fM\n", "CHOLMOD AMD", ca.seconds, ca.nnzL / 1e6);
        std::fflush(stdout);
    }
    return 0;
}

} // namespace

int analysisTable(int argc, char** argv) {
    int w = 316, h = 316;
    if (argc >= 3 && !std::strcmp(argv[1], "--write-mtx")) {
        if (argc >= 5) {
            w = std::atoi(argv[3]);
            h = std::atoi(argv[4]);
        }
        std::string message;
        if (!skyrinse::mm::write(argv[2], mattingPattern(w, h), message)) {
            std::fprintf(stderr, "%s\n", message.c_str());
            return 1;
        }
        return 0;
    }
    if (argc >= 4) {
        w = std::atoi(argv[2]);
        h = std::atoi(argv[3]);
    }
    nrt_set_num_threads(1);
    const skyrinse::mm::Triplets t = mattingPattern(w, h);
    const skyrinse::mm::Csr sym = skyrinse::mm::toCsr(t, -2);
    const skyrinse::mm::Csr full = skyrinse::mm::toCsr(t, 11);
    std::printf("matting-shaped system %d x %d: n %d, nnz(upper) %zu, one thread\n", w, h, sym.n,
                sym.ja.size());
    std::printf("%-34s %10s %14s\n", "analysis", "seconds", "nnz(L)");
    const Result cm = cholmodAnalysis(sym, CHOLMOD_METIS);
    const Result ca = cholmodAnalysis(sym, CHOLMOD_AMD);
    std::printf("%-34s %10.3f %14.0f\n", "CHOLMOD METIS (reference)", cm.seconds, cm.nnzL);
    std::printf("%-34s %10.3f %14.0f\n", "CHOLMOD AMD (reference)", ca.seconds, ca.nnzL);
    struct Row {
        const char* name;
        const skyrinse::mm::Csr* c;
        int mtype, ordering;
        const Result* ref;
    };
    const Row rows[] = {{"SPDS mtype -2, nested dissection p", &sym, -2, 3, &cm},
                        {"SPDS mtype -2, nested dissection", &sym, -2, 2, &cm},
                        {"SPDS mtype 11, nested dissection", &full, 11, 2, &cm},
                        {"SPDS mtype -2, minimum degree", &sym, -2, 0, &ca}};
    for (const Row& row : rows) {
        const Result r = spdsAnalysis(*row.c, row.mtype, row.ordering);
        std::printf("%-34s %10.3f %14.0f   time x%.2f  nnz(L) x%.3f\n", row.name, r.seconds, r.nnzL,
                    r.seconds / row.ref->seconds, r.nnzL / row.ref->nnzL);
    }
    return 0;
}

namespace {

const char kUsage[] = R"(usage:
  bench_solver [--threads N] [--reps R] [--quick] [--fundamental]
       full benchmark: matting Laplacians of three photographs at the
       working size, a 2D and a 3D Laplacian and a saddle-point system;
       analysis, factorization and solve of SPDS (single and double, the
       parameters of the photo tool), CHOLMOD supernodal, MUMPS and Eigen's
       simplicial LDL^T; best of R repetitions (default 3), each peer's
       time as a ratio to SPDS single, and the residuals; --fundamental:
       SPDS without merging supernodes
  bench_solver --write-photo-mtx PHOTO FILE
       writes the matting Laplacian of a photograph for spds-solve
  bench_solver --analysis [WIDTH HEIGHT]
       analysis only (phase 11) on a matting-shaped pattern, against
       CHOLMOD's analysis of the same pattern
  bench_solver --write-mtx FILE [W H]  writes that pattern's system
  bench_solver --analysis-photos [--reps R] [--orderings LIST] [--photo K]
               [--threads N] [--analysis-only]
       the photo tool's call on the three photographs (one thread unless
       --threads), for
       each fill-reducing ordering of LIST (iparm[1] values, default 3,0):
       analysis, factorization and solve times (wall and processor
       time of the process, which other processes' load disturbs
       less), nnz(L), the factor's operations and the supernodes,
       against CHOLMOD's analysis with METIS and AMD.
       --photo K runs photograph K (0..2) only; --analysis-only stops
       after phase 11 (for instruction counts under callgrind)
  bench_solver --parallel [--reps R] [--quick]
       thread scaling: factorization and solve on 1 and 2 threads of one
       analysis (single and double), the factor's rate against the
       sgemm/dgemm rate of the same run, whether the factors agree to the
       bit, and the tree model's speed-up for 4 to 64 threads
  bench_solver --complex [--threads N] [--reps R]
       complex symmetric Helmholtz-like 2D and 3D systems, SPDS mtype 6
       against MUMPS's complex solver, complex double for both
  bench_solver --kernels [--threads N] [--reps R] [--quick]
       the numeric factorization alone on 1 and N threads, wall and
       processor time (KernelBenchmark.cpp)
  bench_solver --blas-builds [--reps R] [--quick]
       that on 2 threads with each OpenBLAS build installed
  bench_solver --ooc [--reps R] [--dir FOLDER] [--quick] [--system 40|matting|50]
       factorization and solve with the factor in files (limit a quarter
       of the factor) against in core, the bytes written and read, one
       pass from a cold cache against the disk's measured read rate, and
       the least time the disk allows a solve from a cold cache
)";

} // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc >= 3 && !std::strcmp(argv[1], "--write-mtx")) return analysisTable(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--analysis-photos")) return photoAnalysis(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--analysis")) return analysisTable(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--parallel")) return parallelBenchmark(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--complex")) return complexBenchmark(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--kernels")) return kernelBenchmark(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--blas-builds")) return blasBuildsBenchmark(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--ooc")) return outOfCoreBenchmark(argc, argv);
    return fullBenchmark(argc, argv);
}

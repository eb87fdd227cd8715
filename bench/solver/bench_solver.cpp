// Speed of SPDS against its peers, in one run with one thread count.
//
//   bench_solver [--threads N] [--reps R] [--quick]
//        full benchmark: matting Laplacians of three photographs at the
//        working size, a 2D and a 3D Laplacian and a saddle-point system;
//        analysis, factorization and solve of SPDS (single and double, the
//        parameters of the photo tool), CHOLMOD supernodal, MUMPS and Eigen's
//        simplicial LDL^T; best of R repetitions (default 3), each peer's
//        time as a ratio to SPDS single, and the residuals.
//   bench_solver --write-photo-mtx PHOTO FILE
//        writes the matting Laplacian of a photograph for spds-solve
//   bench_solver --analysis [WIDTH HEIGHT]
//        analysis only (phase 11) on a matting-shaped pattern, against
//        CHOLMOD's analysis of the same pattern
//   bench_solver --write-mtx FILE [W H]  writes that pattern's system
//   bench_solver --parallel [--reps R] [--quick]
//        thread scaling: factorization and solve on 1 and 2 threads of one
//        analysis (single and double), the factor's rate against the
//        sgemm/dgemm rate of the same run, whether the factors agree to the
//        bit, and the tree model's speed-up for 4 to 64 threads
//   bench_solver --complex [--threads N] [--reps R]
//        complex symmetric Helmholtz-like 2D and 3D systems, SPDS mtype 6
//        against MUMPS's complex solver, complex double for both
//   bench_solver --ooc [--reps R] [--dir FOLDER] [--quick]
//        factorization and solve with the factor in files (limit a quarter
//        of the factor) against in core, the bytes written and read
#include "FullBenchmark.h"
#include "MatrixMarket.h"

#include "runtime/nrt.h"
#include "spds.h"

#include <cholmod.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

int main(int argc, char** argv) {
    if (argc >= 3 && !std::strcmp(argv[1], "--write-mtx")) return analysisTable(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--analysis")) return analysisTable(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--parallel")) return parallelBenchmark(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--complex")) return complexBenchmark(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "--ooc")) return outOfCoreBenchmark(argc, argv);
    return fullBenchmark(argc, argv);
}

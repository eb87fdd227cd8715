// spds-solve: solve a sparse system from a Matrix Market file with SPDS.
//
//   spds-solve [--mtype T] [--ordering 0..3] [--threads N] [--single]
//              [--refine STEPS] [--rhs FILE] FILE.mtx
//
// The whole use of the solver in one place: build the one-based CSR arrays,
// analyse (phase 11), factorize (22), solve with refinement (33), print the
// residual ||A x - b|| / ||b||, the times, the inertia and the perturbed
// pivots, and release the handle (phase -1). The right-hand side is read
// from FILE (numbers separated by white space, lines starting with '%'
// skipped, a Matrix Market "array" header accepted) or is all ones.
#include "MatrixMarket.h"

#include "runtime/nrt.h"
#include "spds.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// --help prints this on standard output; bad usage on standard error. The
// manual page is generated from the --help text.
int usage(std::FILE* stream = stderr) {
    std::fprintf(stream,
                 "Usage: spds-solve [OPTION]... FILE.mtx\n"
                 "Solves the Matrix Market system FILE.mtx with SPDS and prints the statistics.\n"
                 "\n"
                 "  --mtype T        matrix type (default -2 for a symmetric file, 11 otherwise)\n"
                 "  --ordering 0..3  fill-reducing ordering, iparm[1] (default 3)\n"
                 "  --threads N      threads asked of the runtime\n"
                 "  --single         single precision\n"
                 "  --refine STEPS   iterative refinement steps at most (default 2)\n"
                 "  --rhs FILE       right-hand side (default all ones)\n"
                 "  --verbose        also print the threads granted and why\n"
                 "  --help           print this help\n"
                 "\n"
                 "Exit status: 0 solved, 1 error, 2 bad usage.\n");
    return stream == stdout ? 0 : 2;
}

bool readRhs(const char* path, int n, std::vector<double>& b) {
    std::ifstream in(path);
    if (!in) return false;
    std::vector<double> values;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '%') continue;
        std::istringstream s(line);
        for (double v; s >> v;)
            values.push_back(v);
    }
    // A Matrix Market array file starts with its sizes "n 1".
    if (values.size() == static_cast<std::size_t>(n) + 2)
        values.erase(values.begin(), values.begin() + 2);
    if (values.size() != static_cast<std::size_t>(n)) return false;
    b = values;
    return true;
}

// ||A x - b|| / ||b|| in double; symmetric types store one triangle.
double residual(const skyrinse::mm::Csr& c, bool symmetric, const std::vector<double>& x,
                const std::vector<double>& b) {
    std::vector<double> r(b.size(), 0.0);
    for (int i = 0; i < c.n; ++i)
        for (int k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k) {
            const int j = c.ja[k] - 1;
            r[i] += c.a[k] * x[j];
            if (symmetric && j != i) r[j] += c.a[k] * x[i];
        }
    double rr = 0, bb = 0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        rr += (r[i] - b[i]) * (r[i] - b[i]);
        bb += b[i] * b[i];
    }
    return std::sqrt(rr) / std::sqrt(bb > 0 ? bb : 1.0);
}

struct Outcome {
    int error = 0;
    const char* stage = "";
    double seconds[3] = {};
    std::vector<double> x;
};

// Phases 11, 22, 33 and -1 in the precision T.
template <class T>
Outcome solve(const skyrinse::mm::Csr& c, int mtype, int* iparm, const std::vector<double>& b) {
    const std::vector<T> a(c.a.begin(), c.a.end());
    std::vector<T> rhs(b.begin(), b.end()), x(b.size());
    void* pt[64] = {};
    int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, n = c.n;
    Outcome out;
    const int phases[3] = {11, 22, 33};
    const char* names[3] = {"analysis", "factorization", "solve"};
    for (int k = 0; k < 3 && out.error == 0; ++k) {
        int phase = phases[k];
        const double t0 = nrt_seconds();
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), c.ia.data(), c.ja.data(), nullptr,
             &nrhs, iparm, &msglvl, rhs.data(), x.data(), &out.error);
        out.seconds[k] = nrt_seconds() - t0;
        out.stage = names[k];
    }
    out.x.assign(x.begin(), x.end());
    int phase = -1, error = 0;
    spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs, iparm,
         &msglvl, nullptr, nullptr, &error);
    return out;
}

} // namespace

int main(int argc, char** argv) {
    int mtype = 0; // 0: 11 for a general file, -2 for a symmetric one
    int ordering = 3;
    int threads = 0;
    int refine = 2;
    bool single = false;
    bool verbose = false;
    const char* path = nullptr;
    const char* rhsPath = nullptr;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (!std::strcmp(argv[i], "--mtype") && hasValue)
            mtype = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--ordering") && hasValue)
            ordering = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--threads") && hasValue)
            threads = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--refine") && hasValue)
            refine = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--rhs") && hasValue)
            rhsPath = argv[++i];
        else if (!std::strcmp(argv[i], "--single"))
            single = true;
        else if (!std::strcmp(argv[i], "--verbose"))
            verbose = true;
        else if (!std::strcmp(argv[i], "--help"))
            return usage(stdout);
        else if (argv[i][0] != '-' && !path)
            path = argv[i];
        else
            return usage();
    }
    if (!path) return usage();
    if (threads > 0) nrt_set_num_threads(threads);

    skyrinse::mm::Triplets triplets;
    std::string message;
    const double t0 = nrt_seconds();
    if (!skyrinse::mm::read(path, triplets, message)) {
        std::fprintf(stderr, "spds-solve: %s\n", message.c_str());
        return 1;
    }
    if (mtype == 0) mtype = triplets.symmetric ? -2 : 11;
    const skyrinse::mm::Csr csr = skyrinse::mm::toCsr(triplets, mtype);
    std::vector<double> b(static_cast<std::size_t>(csr.n), 1.0);
    if (rhsPath && !readRhs(rhsPath, csr.n, b)) {
        std::fprintf(stderr, "spds-solve: %s: expected %d numbers\n", rhsPath, csr.n);
        return 1;
    }
    const double readTime = nrt_seconds() - t0;

    const bool symmetric = mtype == 2 || mtype == -2;
    int iparm[64] = {};
    iparm[0] = 1;                   // take the values below, not the defaults
    iparm[1] = ordering;            // 0, 1 minimum degree; 2, 3 nested dissection
    iparm[7] = refine;              // refinement steps at most (negative: wide residual)
    iparm[9] = symmetric ? 8 : 13;  // pivots below 1e-8 / 1e-13 are perturbed
    iparm[10] = mtype == 2 ? 0 : 1; // scaling and matching: large entries near
    iparm[12] = mtype == 2 ? 0 : 1; // the diagonal, where pivoting can reach them
    iparm[17] = -1;                 // report the entries of the factors
    iparm[20] = 1;                  // Bunch-Kaufman pivots (mtype -2)
    iparm[27] = single ? 1 : 0;
    const Outcome r =
        single ? solve<float>(csr, mtype, iparm, b) : solve<double>(csr, mtype, iparm, b);

    std::printf("matrix        %s (mtype %d, %s precision)\n", path, mtype,
                single ? "single" : "double");
    std::printf("n             %d\n", csr.n);
    std::printf("nnz           %d\n", csr.ia[static_cast<std::size_t>(csr.n)] - 1);
    std::printf("right side    %s\n", rhsPath ? rhsPath : "ones");
    if (r.error != 0) {
        std::printf("error         %d in the %s (%s), iparm[29] %d\n", r.error, r.stage,
                    spds_error_text(r.error), iparm[29]);
        return 1;
    }
    std::printf("threads       %d\n", iparm[2]);
    if (verbose) {
        char why[256];
        const int granted = nrt_explain_threads(0, why, sizeof why);
        std::printf("granted       %d thread(s): %s\n", granted, why);
    }
    std::printf("nnz(L+U)      %d\n", iparm[17]);
    std::printf("inertia       %d positive, %d negative\n", iparm[21], iparm[22]);
    std::printf("perturbed     %d pivots\n", iparm[13]);
    std::printf("refinement    %d steps\n", iparm[6]);
    std::printf("residual      %.3e (||Ax-b|| / ||b||)\n", residual(csr, symmetric, r.x, b));
    std::printf("memory        peak %d KB, kept %d KB, factorization %d KB\n", iparm[14], iparm[15],
                iparm[16]);
    std::printf("time read     %.3f s\n", readTime);
    std::printf("time analysis %.3f s\n", r.seconds[0]);
    std::printf("time factor   %.3f s\n", r.seconds[1]);
    std::printf("time solve    %.3f s\n", r.seconds[2]);
    return 0;
}
